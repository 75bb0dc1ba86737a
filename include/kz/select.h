/* kzlib: waiting on many socket channels at once, and the select event with
 * which another thread wakes a waiting one.
 *
 * A wait covers at most 64 distinct sockets: a socket given twice is waited on
 * once, and sockets beyond the 64th distinct one are left out of the wait
 * silently. A socket is ready when it is readable (data, a pending
 * connection, end of input) or in an exceptional state (urgent data, an
 * error, a hang-up). Time-outs are milliseconds; negative waits for ever.
 *
 * Errors: a time-out raises "timeout" (KZ_ERR_TIMEOUT, 0x200000002) and the
 * wait returns -1; a failed wait returns -1 with errno -1 (the system error in
 * KZGetLastError); misuse raises the texts given below. Waits take no lock and
 * may run in many threads at once on different arrays.
 */
#ifndef KZ_SELECT_H
#define KZ_SELECT_H

#include "kz/array.h"
#include "kz/base.h"
#include "kz/channel.h"

KZ_BEGIN_DECLS

/* The most distinct sockets one wait covers. */
#define KZ_SELECT_MAX_SOCKETS 64

/* A select context: a placeholder so that callers are written against a
 * stable interface. ChannelSelectContextNew returns null; every wait accepts
 * and ignores its context; ChannelSelectContextFree does nothing. */
typedef struct ChannelSelectContext ChannelSelectContext;
KZ_API ChannelSelectContext *ChannelSelectContextNew(void);
KZ_API void ChannelSelectContextFree(ChannelSelectContext *context);

/* Waits until one of channels[0, count) is ready and returns its index, or -1.
 * Entries may be null. A channel with unread bytes in its read buffer counts
 * as ready at once (the first such one is returned without waiting, even with
 * a time-out of 0), because its socket may have nothing more to read.
 * Otherwise the first channel in array order whose socket is readable, else
 * the first in an exceptional state, is returned.
 * A channel with an SSL session raises "Illegal ChannelSelect on a SSL
 * channel" with the code 22 (EINVAL); no non-null channel raises
 * "ChannelSelect: empty channel array" (KZ_ERR_GENERAL). */
KZ_API int ChannelSelect(Channel **channels, uint32_t count, int32_t timeoutMs);

/* Waits on sockets[0, count) (handles) and sets flags (resized to count
 * bytes) to 1 for every ready entry, 0 for the others; the same socket given
 * twice gets 1 in both entries. 0, or -1. A count of 0 raises "ChannelSelect:
 * empty channel array" with the code 22 (EINVAL). */
KZ_API int ChannelSelectFD(ChannelSelectContext *context, const int64_t *sockets, uint32_t count, UByteArray *flags,
                           int32_t timeoutMs);

/* ChannelSelectFD over the channels' sockets: flags gets one byte per
 * channel. Null channels and channels without a handle are skipped (flag 0);
 * when none is left it raises "ChannelSelect: empty channel array" (code 22).
 * A channel with a handle and an SSL session raises "null or invalid selected
 * channel" (KZ_ERR_GENERAL). Unlike ChannelSelect this wait does NOT look at
 * the read buffers: a channel with buffered input is reported only when its
 * socket is readable, so drain the buffers before waiting. 0, or -1. */
KZ_API int ChannelSelectEx(ChannelSelectContext *context, Channel **channels, uint32_t count, UByteArray *flags,
                           int32_t timeoutMs);

/* ---- select events --------------------------------------------------------
 * A datagram socket on the loopback address of the default family (127.0.0.1
 * or ::1, port chosen by the system). Put ChannelSelectEventGetFD's socket
 * into a ChannelSelectFD wait: the wait returns as soon as a notify has
 * happened since the last reset. Each notify queues one datagram; a reset
 * drains them all. ChannelSelectEventNotify may be called from any thread. */
typedef struct ChannelSelectEvent {
  int64_t socket; /* the event's datagram socket, KZ_INVALID_HANDLE when none */
  int64_t unused; /* KZ_INVALID_HANDLE */
} ChannelSelectEvent;

/* Fills the caller's record and returns it; on failure its socket is
 * KZ_INVALID_HANDLE (the socket error raised). */
KZ_API ChannelSelectEvent *ChannelSelectEventNew(ChannelSelectEvent *event);
KZ_API int64_t ChannelSelectEventGetFD(const ChannelSelectEvent *event);
/* Sends one zero byte to the event's socket from a fresh socket; 1 when it was
 * sent. */
KZ_API int ChannelSelectEventNotify(ChannelSelectEvent *event);
/* Receives every queued datagram; 1, or 0 with errno -1 when a receive failed.
 * The final zero-time-out wait leaves its "timeout" error recorded. */
KZ_API int ChannelSelectEventNotifyReset(ChannelSelectEvent *event);
/* Closes the socket (the storage stays the caller's); 1 when it closed. A
 * record whose socket is KZ_INVALID_HANDLE raises "invalid select event"
 * (KZ_ERR_GENERAL) and returns 0. */
KZ_API int ChannelSelectEventFree(ChannelSelectEvent *event);

KZ_END_DECLS

#endif /* KZ_SELECT_H */
