/* kzlib: TCP and local-connection servers, UDP sockets and multicast.
 *
 * A TCPServer listens on a TCPAddr and hands each accepted connection to a
 * Channel. Family 1 (IPv4) and 2 (IPv6) listen on TCP; family 3 (local
 * connection) listens on the AF_UNIX socket "/tmp/kz.<base>.<name>.<port>"
 * (see KZUnixSocketSetBase), guarded by the exclusive lock file
 * "<path>.lock" held while the server is open: a socket file left by a dead
 * server is removed and replaced, a live server's name is refused. By default
 * the socket file has mode 0600 and peers of another user are refused at
 * accept; KZSetNamedPipeSecurityDescriptor changes that.
 *
 * UDP sockets are bare socket handles (KZ_INVALID_HANDLE when invalid);
 * datagram addresses are TCPAddr values. There is no UDP channel.
 *
 * Errors: functions return 0, null or KZ_INVALID_HANDLE with errno set (-1:
 * the system error is in KZGetLastError; -2: an error was raised). Raised
 * misuse uses KZ_ERR_GENERAL (0x200000000). Accept and datagram failures set
 * errno without a message unless stated. One thread accepts on a server at a
 * time; the library adds no locking to datagram sockets.
 */
#ifndef KZ_SERVER_H
#define KZ_SERVER_H

#include "kz/addr.h"
#include "kz/base.h"
#include "kz/channel.h"
#include "kz/file.h"

KZ_BEGIN_DECLS

/* The server record, owned by the caller from TCPServerOpenEx to
 * TCPServerClose. Read it only through the functions below. */
typedef struct TCPServer {
  int64_t handle;  /* the listening socket, KZ_INVALID_HANDLE when none */
  TCPAddr address; /* the address the server was opened on */
  FileLock *lock;  /* local connections: the held lock file; else null */
} TCPServer;

/* TCPServerOpenEx(address, 0x7FFFFFFF): the largest backlog the system allows. */
KZ_API TCPServer *TCPServerOpen(const TCPAddr *address);
/* Opens a listening server, or returns null. Family 0 is refused ("invalid
 * protocol family", no default family here); an IPv6 server on the wildcard
 * address also accepts IPv4 clients. No address-reuse option is set. Every
 * failure of a TCP server ends in "can not open server <address:port>" over
 * the cause ("error binding server", "listen(<backlog>)", ...); a local
 * connection reports only what SocketFileOpen raised. */
KZ_API TCPServer *TCPServerOpenEx(const TCPAddr *address, int32_t backlog);
/* Disconnects the channel, then waits for and accepts one connection into it;
 * 1 on success. TCP: SO_KEEPALIVE and TCP_NODELAY are set, the socket is
 * non-blocking exactly when the channel has a read or write time-out, and SSL
 * is started as server when the channel asks for it (a failure disconnects the
 * channel, keeping the SSL error). Local connections: a peer of another user
 * is refused under the default security (closed, errno -1 with EACCES, "error
 * accepting connection on server pipe"); SSL is never started. A failed
 * accept returns 0 with errno -1. */
KZ_API int TCPServerAccept(TCPServer *server, Channel *channel);
/* Closes the listening socket, releases the lock file and frees the record;
 * a local connection's socket file and lock file are removed. 1, or 0 when the
 * close failed (errno -1). The record is freed either way. */
KZ_API int TCPServerClose(TCPServer *server);
/* Closes the listening socket and keeps the record (for TCPServerGetAddr and
 * TCPServerClose); 1 when there was nothing to close or it closed. */
KZ_API int TCPServerDisconnect(TCPServer *server);
/* The address the server listens on (the system's port for port 0); a local
 * connection gives the address it was opened on. 1, or 0 with errno set. */
KZ_API int TCPServerGetAddr(const TCPServer *server, TCPAddr *out);
KZ_API int64_t TCPServerGetFD(const TCPServer *server);

/* ---- local-connection security and listening ------------------------------- */

/* Sets the permission bits (a pointer to a mode_t, which the caller keeps
 * valid) used for every later local-connection socket file instead of the
 * default 0600, and drops the same-user check at accept; null restores the
 * default. Returns the previous pointer (null the first time). */
KZ_API void *KZSetNamedPipeSecurityDescriptor(void *descriptor);
/* Makes the listening socket of a local-connection server (family 3) and
 * stores it in server->handle, the lock file in server->lock. 1 on success;
 * a server that already listens gives 1 at once (one listening socket serves
 * every client). Failure: errno -1 and "unable to create named pipe" raised
 * (a name held by a live server gives EADDRINUSE). */
KZ_API int SocketFileOpen(TCPServer *server);

/* ---- datagrams ----------------------------------------------------------------- */

/* A datagram socket of the address's family (null: the default family), bound
 * to local when given. KZ_INVALID_HANDLE on failure. */
KZ_API int64_t UDPNew(const TCPAddr *local);
/* UDPNew(local), then connected to remote (the default peer of UDPSend). */
KZ_API int64_t UDPConnectEx(const TCPAddr *remote, const TCPAddr *local);
KZ_API int64_t UDPConnect(const TCPAddr *remote);
/* Sends one datagram to address; 1 only when all length bytes went out. An
 * invalid socket gives 0; the wildcard address raises "can not send to
 * INADDR_ANY" (KZ_ERR_GENERAL). A ttl other than -1 becomes the socket's
 * multicast time-to-live (hop limit on IPv6) and stays set; failure: "error
 * setting TTL". */
KZ_API int UDPSendBufToEx(int64_t socket, const TCPAddr *address, int32_t ttl, const void *data, size_t length);
KZ_API int UDPSendBufTo(int64_t socket, const TCPAddr *address, const void *data, size_t length);
/* The same from a fresh socket of the address's family, closed afterwards. */
KZ_API int UDPSendBufEx(const TCPAddr *address, int32_t ttl, const void *data, size_t length);
KZ_API int UDPSendBuf(const TCPAddr *address, const void *data, size_t length);
/* Sends on a connected socket; 1 only when every byte went out. */
KZ_API int UDPSend(int64_t socket, const void *data, size_t length);
/* Receives one datagram (waiting for it on a blocking socket). 1 with *count
 * the bytes received and *sender its source (family 1 or 2, port in host
 * order); count and sender may be null. A datagram longer than size is
 * consumed and fails with EMSGSIZE. Failure: *count 0, errno -1, 0. */
KZ_API int UDPReceiveBytesFrom(int64_t socket, void *buffer, size_t size, size_t *count, TCPAddr *sender);
KZ_API int UDPReceiveBytes(int64_t socket, void *buffer, size_t size, size_t *count);
/* 1 only when a datagram of exactly size bytes arrived; a shorter one gives 0
 * and leaves errno as it was; a failure sets errno -1. */
KZ_API int UDPReceive(int64_t socket, void *buffer, size_t size);
/* The local (peer 0) or remote address of a socket, as ChannelGetAddr. */
KZ_API int UDPGetAddr(int64_t socket, TCPAddr *out, int peer);
/* Closes the socket; 1 when closed. */
KZ_API int UDPClose(int64_t socket);

/* ---- multicast -------------------------------------------------------------------- */

/* A datagram socket with SO_REUSEADDR (so that several sockets and processes
 * can share the group's port), bound to local when given, member of the group
 * on the interface the system chooses, with multicast loop-back on.
 * KZ_INVALID_HANDLE on failure: "error setting SO_REUSEADDR", "error
 * registering multicast address", "error setting IP_MULTICAST_LOOP", or for a
 * group of another family "invalid protocol family for multicast"
 * (KZ_ERR_GENERAL). */
KZ_API int64_t UDPMCastNewEx(const TCPAddr *group, const TCPAddr *local);
/* UDPMCastNewEx bound to the wildcard address of the group's family (family
 * 0: the default family) and the group's port. */
KZ_API int64_t UDPMCastNew(const TCPAddr *group);
/* Leaves the group and closes the socket; the socket is closed in every case.
 * 1, or 0: an invalid socket raises "invalid socket descriptor" (and is not
 * closed), a group of another family "invalid protocol family for multicast",
 * a failed leave "error unregistering multicast address". A group address
 * that cannot be converted (family 0) gives -1 after the conversion's error. */
KZ_API int UDPMCastClose(int64_t socket, const TCPAddr *group);

KZ_END_DECLS

#endif /* KZ_SERVER_H */
