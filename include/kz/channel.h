/* kzlib: channels, the library's one stream type.
 *
 * A Channel stands for a connected TCP socket, a local connection, an open
 * file, a descriptor or raw handle taken over from elsewhere, an in-memory
 * reader or writer, or a "virtual" endpoint whose reads and writes are
 * callbacks. All of them share one read buffer and one write buffer (11,680
 * bytes each, inside the record), three time-outs, an optional SSL session and
 * an optional stream scrambling key. A channel is made by ChannelNew or
 * ChannelNewEx and freed only by ChannelClose; it has no lock: one thread uses
 * it at a time. Attaching an endpoint (connect, open, set descriptor, memory,
 * virtual) first disconnects whatever the channel held and empties both
 * buffers; time-outs, port range and scrambling key persist.
 *
 * Results: 1 success, 0 failure with errno set (-1: the cause is the
 * platform's last error, KZGetLastError; EINVAL 22 / ENOENT 2; -2: a raised
 * error). Raised errors use KZ_ERR_GENERAL (0x200000000) for misuse,
 * KZ_ERR_INVALID (0x200000001) for unsupported requests, KZ_ERR_TIMEOUT
 * (0x200000002) for time-outs and KZ_ERR_PROTOCOL (0x200000003) for bad text
 * encodings. Readers return receive codes:
 *    0 success, -1 end of input, -2 read error, -3 time-out (or no data when
 *   waiting is not allowed), -4 protocol error, -5 truncated.
 * Every read failure other than end of input has raised its error ("read
 * error", "read timeout", ...) when it returns.
 *
 * Time-outs are milliseconds, negative = wait for ever, except on local
 * connections: their connect time-out ("listener busy" waits) and write
 * time-out count in seconds; their read time-out counts in milliseconds.
 *
 * On POSIX a handle is a descriptor held in 64 bits (-1: none), created
 * close-on-exec; sends never raise SIGPIPE; interrupted system calls are
 * restarted.
 */
#ifndef KZ_CHANNEL_H
#define KZ_CHANNEL_H

#include "kz/addr.h"
#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

#define KZ_CHANNEL_BUFFER_SIZE 11680
/* The number writers flush first when more than this is buffered, so the at
 * most 30 characters of a number always fit. */
#define KZ_CHANNEL_NUMBER_THRESHOLD 11650
#define KZ_INVALID_HANDLE           ((int64_t)-1)
/* ChannelSetObfuscationKey's value that turns scrambling off. */
#define KZ_OBFUSCATION_OFF 0xFFFFFFFFFFFFFFFFull
/* The memory-I/O record's magic. */
#define MEMIO_MAGIC 0xC6EC2F9A4E80752Aull

#define KZ_RECEIVE_OK        0
#define KZ_RECEIVE_EOF       (-1)
#define KZ_RECEIVE_ERROR     (-2)
#define KZ_RECEIVE_TIMEOUT   (-3)
#define KZ_RECEIVE_PROTOCOL  (-4)
#define KZ_RECEIVE_TRUNCATED (-5)

/* Callbacks of a virtual endpoint; each gets the userData given at attach. */
typedef int64_t (*ChannelVirtualRead)(void *buffer, size_t size, void *userData);      /* >0 bytes, 0 end, <0 failure */
typedef int64_t (*ChannelVirtualWrite)(const void *data, size_t size, void *userData); /* >=0 taken, <0 failure */
typedef void (*ChannelVirtualRelease)(void *userData); /* once, when the channel lets go */
typedef int (*ChannelVirtualShutdown)(void *userData); /* 0 success */
typedef int (*ChannelVirtualSync)(void *userData);     /* 0 success */

typedef struct ChannelVirtualIO {
  ChannelVirtualRead read;
  ChannelVirtualWrite write;
  ChannelVirtualRelease release;
  ChannelVirtualShutdown shutdown; /* may be null */
  ChannelVirtualSync sync;         /* may be null */
  void *userData;
} ChannelVirtualIO;

/* The channel record. Its layout is fixed (23,536 bytes); callers read it only
 * through the functions below and the byte-read macros, which use readPos,
 * readFill and readBuffer. */
typedef struct Channel {
  int64_t handle;         /* KZ_INVALID_HANDLE when none */
  int32_t readTimeout;    /* ms, -1 for ever */
  int32_t writeTimeout;   /* ms (seconds on local connections), -1 for ever */
  int32_t connectTimeout; /* ms (seconds for busy local listeners), -1 blocking */
  uint16_t portRangeMin;  /* 0: the system chooses the local port */
  uint16_t portRangeMax;
  uint16_t nextPort;
  uint32_t ownsHandle;
  int32_t crtDescriptor; /* descriptor closed instead of the handle, or -1 */
  uint32_t isSocket;     /* a TCP socket */
  uint32_t sslRequested;
  uint32_t requireCert;
  void *ssl;            /* the SSL session, or null */
  void *sslContext;     /* an SSL context owned by the channel, or null */
  uint32_t isNamedPipe; /* a local connection */
  uint32_t obfuscated;
  uint64_t readOverlapped[4];  /* reserved (no use on POSIX) */
  uint64_t writeOverlapped[4]; /* reserved */
  uint64_t readKeyState;
  int32_t readPos;
  int32_t readFill;
  unsigned char readBuffer[KZ_CHANNEL_BUFFER_SIZE];
  uint64_t writeKeyState;
  int32_t writeCount;
  unsigned char writeBuffer[KZ_CHANNEL_BUFFER_SIZE];
  uint32_t isVirtual;
  ChannelVirtualIO *virtualOps;
} Channel;

/* ---- library-wide settings (under the networking lock) ------------------- */

/* Probes the family with a datagram socket; when one can be made the family
 * becomes the default (used wherever a family code is 0) and 1 is returned.
 * Only 1 (IPv4) and 2 (IPv6) can be the default: others return 0 with errno
 * EINVAL. A failed probe returns 0 with the socket error kept. */
KZ_API int KZSetDefaultFamily(uint32_t family);
/* The default family; 1 at start, see KZ_DEFAULT_FAMILY and the "localhost"
 * check of KZLibInit. */
KZ_API uint32_t KZGetDefaultFamily(void);
/* The largest single system-level send or receive (131,072 bytes at start,
 * KZ_NETWORK_MAX_IO_SIZE at KZLibInit); larger transfers are split. A size of
 * 0 is ignored. */
KZ_API void ChannelSetDefaultMaxIOOperationSize(uint32_t size);
KZ_API uint32_t ChannelGetDefaultMaxIOOperationSize(void);

/* ---- creation and settings ------------------------------------------------ */

/* ChannelNewEx(readTimeout, writeTimeout, -1). */
KZ_API Channel *ChannelNew(int32_t readTimeout, int32_t writeTimeout);
/* A new disconnected channel; negative time-outs are stored as -1; port range
 * [0, 65535] (no range). Never null (allocation failure is fatal). */
KZ_API Channel *ChannelNewEx(int32_t readTimeout, int32_t writeTimeout, int32_t connectTimeout);
/* 0 for null, else 23,536, or 89,072 with an SSL session. */
KZ_API uint32_t ChannelGetMemorySize(const Channel *channel);
/* Store the time-out (negative as -1) and return the previous one. On a socket
 * whose question "is any I/O time-out set" changes answer, the socket's
 * blocking mode follows (non-blocking when one is set). */
KZ_API int32_t ChannelSetReadTimeout(Channel *channel, int32_t milliseconds);
KZ_API int32_t ChannelSetWriteTimeout(Channel *channel, int32_t milliseconds);
/* Stores the value as given (no normalisation); returns the previous one. */
KZ_API int32_t ChannelSetConnectTimeout(Channel *channel, int32_t milliseconds);
/* Local ports of outgoing connections cycle through [min, max] (min 0: no
 * range). Asserts "min <= max". */
KZ_API void ChannelSetOutboundPortRange(Channel *channel, uint16_t min, uint16_t max);
/* KZ_OBFUSCATION_OFF turns scrambling off; any other key turns it on and sets
 * both directions' states to the key. Buffers are not touched. */
KZ_API void ChannelSetObfuscationKey(Channel *channel, uint64_t key);

/* ---- endpoints --------------------------------------------------------------- */

/* Connects to a TCP address, or to a local connection (family 3). Family 0 is
 * the default family; the wildcard address raises "can not connect to
 * INADDR_ANY". With a port range the local port is bound first (when no port
 * of the range is free the message "could not bind to any port in range
 * [%u,%u]" is emitted and the system chooses). A connect time-out (>= 0, ms)
 * makes the connect non-blocking and bounded (time-out: "timeout"). Sets
 * SO_KEEPALIVE and TCP_NODELAY; leaves the socket non-blocking exactly when a
 * read or write time-out is set. On failure the channel is disconnected. */
KZ_API int ChannelConnect(Channel *channel, const TCPAddr *address);
/* Tries each address in order; 1 at the first success. An empty array raises
 * "ChannelConnectMultiple: no TCP addresses given" (KZ_ERR_INVALID). */
KZ_API int ChannelConnectMultiple(Channel *channel, const TCPAddrArray *addresses);
/* Connects to the local connection "/tmp/kz.<base>.<name>.<port>". A listener
 * whose backlog is full is waited for up to connectTimeout seconds (0: fail at
 * once, negative: for ever). A family other than 3 returns 0 with no error.
 * extraFlags is kept for the other platform and must be 0 here. */
KZ_API int ChannelConnectNamedPipeWithFlags(Channel *channel, const TCPAddr *address, uint32_t extraFlags);
/* Not supported on POSIX: raises "not supported" (KZ_ERR_NOT_SUPPORTED), 0. */
KZ_API int ChannelImpersonateNamedPipeClient(Channel *channel);
/* Attaches callbacks (copied into a record the channel owns; release runs once
 * when the channel lets go). Returns userData. */
KZ_API void *ChannelAttachVirtual(Channel *channel, ChannelVirtualRead read, ChannelVirtualWrite write,
                                  ChannelVirtualRelease release, ChannelVirtualShutdown shutdown,
                                  ChannelVirtualSync sync, void *userData);
/* A memory endpoint: reads come from data[0, size) (not copied: it must stay
 * valid), writes are appended to target. Reading a writer raises "can not read
 * from a memory writer"; writing a reader "can not write to a memory reader". */
KZ_API int ChannelMemoryIO(Channel *channel, const void *data, uint64_t size, UByteArray *target);
KZ_API int ChannelMemoryReader(Channel *channel, const void *data, uint64_t size);
KZ_API int ChannelMemoryWriter(Channel *channel, UByteArray *target);
/* Bytes taken from a memory endpoint's source so far; -1 and "null channel"
 * for a channel without one. */
KZ_API int64_t ChannelMemoryIOReadOffs(const Channel *channel);
/* Attaches a descriptor (-1: EINVAL; not open: errno -1). With owns it is
 * closed by the channel. */
KZ_API int ChannelSetFD(Channel *channel, int descriptor, int owns);
/* Attaches a raw handle; every kind flag is 0, whatever the handle is. */
KZ_API int ChannelSetChannelFD(Channel *channel, int64_t handle, int owns);
/* An anonymous pipe, both ends close-on-exec: [0] reads, [1] writes. The pipe
 * has the system's default capacity (at least the 256 bytes asked for). */
KZ_API int ChannelCreatePipe(int descriptors[2]);
/* Opens a file: mode "r" (read, existing), "w" (write, created anew) or "a"
 * (write, created when missing, positioned at its end). Another mode: EINVAL.
 * The name must be valid UTF-8 with characters up to U+FFFF (else the decoder's
 * error, then EINVAL); a missing file: ENOENT. */
KZ_API int ChannelOpenFile(Channel *channel, const char *utf8Name, const char *mode);
/* The same with a UTF-16 name of the given length in units. */
KZ_API int ChannelOpenFileUCS2(Channel *channel, const uint16_t *name, uint32_t length, const char *mode);

/* ---- files -------------------------------------------------------------------
 * Only for file channels (not a socket, local connection or virtual endpoint);
 * others raise "ChannelFileSeek: the Channel is not a file" (Truncate:
 * "ChannelFileTruncate: ..."). */

/* Flushes, drops unread input, then moves to offset from the start, or for a
 * negative offset that far back from the end. */
KZ_API int ChannelFileSeek(Channel *channel, int64_t offset);
/* Flushes; the position of the next byte a read would deliver. */
KZ_API int ChannelFileTell(Channel *channel, int64_t *position);
/* Sets the file's length (shorter or longer; not flushed first). flag non-zero
 * also moves the file position to the new end (unread input is dropped then);
 * 0 leaves the position. */
KZ_API int ChannelFileTruncate(Channel *channel, int64_t length, int flag);

/* ---- state ----------------------------------------------------------------- */

/* Lets go of the endpoint (closing an owned handle, releasing a virtual one);
 * buffered writes are dropped. The channel stays usable. */
KZ_API void ChannelDisconnect(Channel *channel);
KZ_API int ChannelConnected(const Channel *channel);
KZ_API int ChannelIsSocket(const Channel *channel);
/* The local (peer 0) or remote address of a TCP channel; others: EINVAL. */
KZ_API int ChannelGetAddr(const Channel *channel, TCPAddr *out, int peer);
/* The peer security flags (TCPAddrPeerGetSecurityFlags) of a TCP channel;
 * other channels raise "not implemented on this family". */
KZ_API int ChannelGetSecurityFlags(const Channel *channel, uint32_t *flags);
/* Half-close: no more sending. A local connection raises "ChannelShutdown:
 * operation not supported"; a virtual endpoint calls its shutdown callback (or
 * raises "not implemented"); an SSL channel returns 1 and does nothing. */
KZ_API int ChannelShutdown(Channel *channel);
/* Flushes pending writes, shuts SSL down, disconnects and frees the channel
 * (null is accepted). Only endpoints with a handle are flushed: flush a
 * memory or virtual endpoint yourself before closing it. 1, or 0 when the
 * flush or close failed (errno -1, or -2 when the flush raised an error such
 * as a time-out); the channel is freed either way. */
KZ_API int ChannelClose(Channel *channel);

/* ---- sockets ---------------------------------------------------------------- */

/* Shuts down both directions of a bare socket. */
KZ_API int ChannelDisconnectFD(int64_t socket);
/* Sets a socket's non-blocking mode; failure raises "ioctlsocket(FIONBIO, %d)". */
KZ_API int SetNonBlocking(int64_t socket, int on);
/* Waits until the socket is readable (forWrite 0) or writable, errors and
 * hang-ups counting as ready. timeoutMs < 0 waits for ever. 1 ready; 0 on
 * time-out (raises "timeout", KZ_ERR_TIMEOUT) or failure (errno -1). */
KZ_API int SocketWait(int64_t socket, int forWrite, int32_t timeoutMs);

/* ---- unbuffered transfers ----------------------------------------------------- */

/* Sends every byte or fails (0). Never scrambles. Not connected: EINVAL. */
KZ_API int ChannelSend(Channel *channel, const void *data, size_t size);
/* Receives into buffer; *count is always set. all 0: returns after the first
 * transfer that yields data; all 1: goes on until size bytes arrived. wait 0:
 * a socket without data gives -3 at once. Returns a receive code; bytes are
 * unscrambled on a scrambling channel. Not connected: "channel is not
 * connected", -2. End of input is not raised. */
KZ_API int ChannelReceive(Channel *channel, void *buffer, size_t size, int all, size_t *count, int wait);

/* ---- buffered reading ----------------------------------------------------------- */

/* The slow path of reading one byte, for an empty read buffer: refills it and
 * returns the byte (0 to 255; a peek leaves it unread) or a negative receive
 * code. Use the macros, whose fast path reads the buffer inline. */
KZ_API int ChannelReadByte_(Channel *channel, int peek);
#define ChannelReadByte(c) \
  ((c)->readPos < (c)->readFill ? (int)(c)->readBuffer[(c)->readPos++] : ChannelReadByte_((c), 0))
#define ChannelPeekByte(c) \
  ((c)->readPos < (c)->readFill ? (int)(c)->readBuffer[(c)->readPos] : ChannelReadByte_((c), 1))
/* Reads size bytes (fewer only on failure); count (may be null) gets the bytes
 * delivered. Requests of 11,681 bytes or more beyond the buffered ones go
 * straight into buffer. Returns a receive code. */
KZ_API int ChannelReadBuf(Channel *channel, void *buffer, size_t size, size_t *count);
/* Reads a line into line (emptied first, NUL-terminated, NUL not counted). A
 * line feed ends it and is dropped; every carriage return is dropped; with
 * maxLength non-zero at most maxLength bytes are stored and the rest of the
 * line stays unread. 1 on success; at end of input raises "read EOF"
 * (KZ_ERR_EOF) and returns 0 keeping the partial line; other failures 0. */
KZ_API int ChannelReadLine(Channel *channel, UByteArray *line, uint32_t maxLength);
/* Little-endian integers; 1, or 0 leaving *value untouched (bytes already
 * read stay consumed). */
KZ_API int ChannelReadUIntLE(Channel *channel, uint32_t *value);
KZ_API int ChannelReadULongLE(Channel *channel, uint64_t *value);

/* ---- buffered writing ----------------------------------------------------------
 * Writers return 1, or 0 with the unsent bytes left in the write buffer. */

KZ_API int ChannelWriteString(Channel *channel, const char *text);
/* Sizes of 11,681 or more bypass the buffer (after flushing it) unless the
 * channel scrambles. */
KZ_API int ChannelWriteBuf(Channel *channel, const void *data, size_t size);
/* Decimal or hexadecimal text without terminator: "%d", "%I64d", "%u",
 * "%I64u", "%08x", "%016I64x", "%.5g". */
KZ_API int ChannelWriteInt(Channel *channel, int32_t value);
KZ_API int ChannelWriteLong(Channel *channel, int64_t value);
KZ_API int ChannelWriteUInt(Channel *channel, uint32_t value);
KZ_API int ChannelWriteULong(Channel *channel, uint64_t value);
KZ_API int ChannelWriteHexInt(Channel *channel, uint32_t value);
KZ_API int ChannelWriteHexLong(Channel *channel, uint64_t value);
KZ_API int ChannelWriteDouble(Channel *channel, double value);
/* 4 or 8 bytes, least significant first. */
KZ_API int ChannelWriteUIntLE(Channel *channel, uint32_t value);
KZ_API int ChannelWriteULongLE(Channel *channel, uint64_t value);
/* Sends the write buffer (scrambled first on a scrambling channel). Fails on a
 * disconnected channel even when the buffer is empty. */
KZ_API int ChannelFlush(Channel *channel);
/* Flushes, then asks the endpoint to commit: a virtual endpoint's sync
 * callback (none: "not implemented"), else fsync of the handle. */
KZ_API int ChannelSync(Channel *channel);

KZ_END_DECLS

#endif /* KZ_CHANNEL_H */
