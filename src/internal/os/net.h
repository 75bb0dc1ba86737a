// Operating-system side of the network families (src/posix/net.cpp):
// sockets, name look-up, waits, local connections, pipes and files as used by
// channels. Descriptors are ints held in 64-bit handles (-1: none); every one
// is created close-on-exec. Calls interrupted by a signal are restarted here,
// so EINTR never reaches the portable code.
//
// Failures return -1 / false and set the platform's last error and errno -1
// (os::FailWithErrno), unless a function says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kz/addr.h"

namespace kz::os {

// ---- addresses -------------------------------------------------------------

// The system's IPv6 literal parser (no brackets); false when not an address.
bool ParseIPv6(const char *text, unsigned char address[16]);
// The system's numeric IPv6 text (at most 46 characters) into text[64].
bool FormatIPv6(const unsigned char address[16], char text[64]);

// An opaque socket address in its system form.
struct SockAddr {
  alignas(8) unsigned char bytes[128];
  uint32_t size;
};
// family 1: AF_INET from a host-order value; family 2: AF_INET6 from the 16
// bytes. Port in host order. size 0 for any other family.
void MakeSockAddr(uint32_t family, const unsigned char address[16], uint16_t port, SockAddr *out);
// AF_INET6 of at least 24 bytes gives 2, AF_INET of at least 8 bytes gives 1
// (the address in host order), anything else 0. Fills address and port.
uint32_t ReadSockAddr(const SockAddr &in, unsigned char address[16], uint16_t *port);

// getaddrinfo for stream sockets of IPv4 and IPv6, in the resolver's order.
// Returns the count stored (at most max); on failure -1 with the resolver's
// text in error (no last error set).
int Resolve(const char *host, IPAddr *out, int max, char *error, size_t errorSize);
// getnameinfo of an IPv4 / IPv6 address (a name, else the numeric form).
bool ReverseLookup(const IPAddr &address, char *host, size_t size, char *error, size_t errorSize);
// The TCP port of a service name of the system's service database.
bool ServicePort(const char *name, uint16_t *port);

// ---- sockets ---------------------------------------------------------------

// The system constants the library's family codes stand for (1 AF_INET,
// 2 AF_INET6, 3 AF_UNIX); -1 for other codes. Types: 1 stream, 2 datagram.
int SystemFamily(uint32_t family);
int SystemSocketType(int type);
// socket(systemFamily, systemType, 0), close-on-exec.
int64_t Socket(int systemFamily, int systemType);
bool Close(int64_t handle);
// Whether the descriptor is open (EBADF otherwise).
bool IsOpen(int64_t handle);
bool SetNonBlocking(int64_t handle, bool on);
bool IsNonBlocking(int64_t handle);
bool Bind(int64_t handle, const SockAddr &address);
// SO_REUSEADDR, bind and listen(SOMAXCONN): what a TCP server does.
bool TrialListen(int64_t handle, const SockAddr &address);
enum class ConnectResult { kDone, kInProgress, kFailed };
ConnectResult Connect(int64_t handle, const SockAddr &address);
// The pending error (SO_ERROR); false when the query fails. length gets the
// option's returned length.
bool PendingError(int64_t handle, int *error, uint32_t *length);
bool SetKeepAlive(int64_t handle);
bool SetNoDelay(int64_t handle);
bool LocalName(int64_t handle, SockAddr *out);
bool PeerName(int64_t handle, SockAddr *out);
// how: 0 receiving, 1 sending, 2 both.
bool Shutdown(int64_t handle, int how);

// Waits until the descriptor is readable (or writable), counting errors and
// hang-ups as ready. timeoutMs < 0 waits for ever. 1 ready, 0 timed out,
// -1 failed.
int Wait(int64_t handle, bool forWrite, int64_t timeoutMs);

// ---- transfers ---------------------------------------------------------------
// Each returns the byte count (0 for end of input on receives) or -1 with the
// platform's last error set and errno -1.

int64_t Send(int64_t handle, const void *data, size_t size);  // MSG_NOSIGNAL
// wait false: answer EAGAIN at once when no data is there (MSG_DONTWAIT).
int64_t Receive(int64_t handle, void *buffer, size_t size, bool wait);
// write(2) with SIGPIPE held back, so a closed pipe is an error, never a signal.
int64_t Write(int64_t handle, const void *data, size_t size);
int64_t Read(int64_t handle, void *buffer, size_t size);
bool Sync(int64_t handle);

// Classes of the platform's last error that the channel code tells apart.
enum class ErrorClass { kOther, kWouldBlock, kAddressInUse, kEndOfInput, kNotFound };
ErrorClass Classify(int error);

// ---- local connections --------------------------------------------------------

// Formats "/tmp/kz.<base>.<name>.<port>" into path (size bytes).
void LocalPath(char *path, size_t size, const char *base, const char *name, unsigned port);
// A non-blocking AF_UNIX stream connect to path. kDone on success (*handle set),
// kInProgress when the listener's backlog is full ("pipe busy"), kFailed else.
ConnectResult ConnectLocal(const char *path, int64_t *handle);
void SleepMs(uint32_t milliseconds);
// Milliseconds of a monotonic clock.
int64_t MonotonicMs();

// ---- files and pipes ---------------------------------------------------------------

// mode 'r': read, existing only; 'w': write, created or truncated; 'a': write,
// created when missing, positioned at the end.
int64_t OpenFile(const char *path, char mode);
// whence: 0 start, 1 current, 2 end. The new position, or -1.
int64_t Seek(int64_t handle, int64_t offset, int whence);
bool Truncate(int64_t handle, int64_t length);
bool Pipe(int descriptors[2]);

// ---- servers, waits on many sockets, datagrams ----------------------------------

// listen(2) with the backlog (the system caps it).
bool Listen(int64_t handle, int backlog);
// IPV6_V6ONLY on an AF_INET6 socket.
bool SetV6Only(int64_t handle, bool on);
bool SetReuseAddress(int64_t handle);
// accept4, close-on-exec (and non-blocking when asked), no peer address.
int64_t Accept(int64_t handle, bool nonBlocking);
// Waits until one of the distinct sockets is readable or in an exceptional
// state (urgent data, error, hang-up); ready[i] gets 1 for those. A descriptor
// that is not open fails the whole wait (EBADF), as the readiness wait of the
// other platform does. 1 ready, 0 timed out, -1 failed.
int WaitMany(const int64_t *handles, uint32_t count, unsigned char *ready, int64_t timeoutMs);
int64_t SendTo(int64_t handle, const SockAddr &address, const void *data, size_t size);
// One datagram into buffer, the sender into from. A datagram longer than size
// fails with EMSGSIZE (and is consumed), as the other platform reports it.
int64_t ReceiveFrom(int64_t handle, void *buffer, size_t size, SockAddr *from);
// The socket's address family as a library code (1, 2, 3; 0 otherwise).
uint32_t SocketFamily(int64_t handle);
// Multicast options at the level of the socket's family (IPv4 or IPv6).
bool SetMulticastTtl(int64_t handle, int ttl);
bool SetMulticastLoop(int64_t handle, bool on);
// Joins (or leaves) the group of family 1 (host-order address) or 2 on the
// interface the system chooses.
bool MulticastMembership(int64_t handle, uint32_t family, const unsigned char group[16], bool join);

// ---- local-connection servers -------------------------------------------------------

// An AF_UNIX stream socket bound to path with the permission bits mode and
// listening with the backlog.
int64_t ListenLocal(const char *path, unsigned mode, int backlog);
// The uid of a connected AF_UNIX peer (SO_PEERCRED).
bool PeerUid(int64_t handle, uint32_t *uid);
uint32_t EffectiveUid();
// The permission bits of a pointer to a mode_t.
unsigned ModeBits(const void *mode);
// unlink(2); false (last error set) when it failed, ENOENT included.
bool RemoveFile(const char *path);

// ---- peer processes ---------------------------------------------------------------

// The KZ_PEER_* flags of the process owning the TCP socket whose local end is
// peer and remote end is local (/proc/net/tcp, /proc/net/tcp6). Returns 1,
// 0 when the connection is not in the tables (errno ENOENT), -1 when the tables
// cannot be read.
int PeerSecurityFlags(const TCPAddr &local, const TCPAddr &peer, uint32_t *flags);

}  // namespace kz::os
