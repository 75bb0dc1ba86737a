// TCP and local-connection servers, UDP sockets and multicast membership.
// A local-connection server is an AF_UNIX listening socket guarded by an
// exclusive lock file, so that a socket file left by a dead server can be
// told from a live one.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/error.h"
#include "internal/os/net.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/server.h"
#include "net/channel_internal.h"

using kz::net::kSource;

#define NET_THROW(function, code, ...) KZ_THROW_AT(kSource, 0, function, code, __VA_ARGS__)
#define NET_RETHROW(function, ...) \
  (KZSetMessageContext2_(kSource, 0, "kzlib", (function), 4, 0), KZErrorRethrow_(__VA_ARGS__))

namespace {

constexpr int kLocalBacklog = 255;  // the instance limit of the other platform's pipes
constexpr size_t kPathMax = 260;

kz::LazyLock g_securityLock;
void *g_securityDescriptor = nullptr;

void CloseKeepingError(int64_t handle) {
  kz::ErrorStateKept kept;
  kz::os::Close(handle);
}

void ReleaseLock(TCPServer *server) {
  if (!server->lock) return;
  kz::ErrorStateKept kept;
  KZErrorSave();
  FileLockRelease(server->lock);
  KZErrorRestore();
  server->lock = nullptr;
}

// Takes the socket into the channel with the flags of its kind.
void TakeSocket(Channel *channel, int64_t socket, bool local) {
  channel->handle = socket;
  channel->ownsHandle = 1;
  channel->crtDescriptor = -1;
  channel->isSocket = local ? 0 : 1;
  channel->isNamedPipe = local ? 1 : 0;
  channel->isVirtual = 0;
  channel->readPos = channel->readFill = 0;
  channel->writeCount = 0;
}

// The local-connection accept. The listening socket serves every client, so
// there is no next instance to prepare. Under the default security a peer
// of another user is refused here (the socket file's mode already keeps out
// everyone but that user and root).
int LocalAccept(TCPServer *server, Channel *channel) {
  int64_t socket = kz::os::Accept(server->handle, true);
  if (socket == KZ_INVALID_HANDLE) {
    NET_RETHROW("NamedPipeServerAccept", "error accepting connection on server pipe");
    return 0;
  }
  bool checkUser;
  {
    kz::LazyLockGuard hold(g_securityLock);
    checkUser = g_securityDescriptor == nullptr;
  }
  if (checkUser) {
    uint32_t uid = 0;
    bool known = kz::os::PeerUid(socket, &uid);
    if (!known || uid != kz::os::EffectiveUid()) {
      if (known) kz::os::FailWithError(EACCES);
      CloseKeepingError(socket);
      errno = -1;
      NET_RETHROW("NamedPipeServerAccept", "error accepting connection on server pipe");
      return 0;
    }
  }
  TakeSocket(channel, socket, true);
  return 1;
}

// Formats the address for "can not open server %s", keeping the pending error.
void FailOpen(TCPServer *server) {
  ReleaseLock(server);
  UByteArray text{};
  KZErrorSave();
  TCPAddrGetIPPort(&server->address, &text);
  KZErrorRestore();
  NET_RETHROW("TCPServerOpenEx", "can not open server %s",
              text.elements ? reinterpret_cast<char *>(text.elements) : "");
  ArrayFree_(&text);
  std::free(server);
}

bool LocalPaths(const TCPAddr &address, char *path, char *lockPath) {
  kz::net::LocalConnectionPath(address, path, kPathMax);
  int n = std::snprintf(lockPath, kPathMax, "%s.lock", path);
  return n > 0 && size_t(n) < kPathMax;
}

bool IsWildcard(const TCPAddr &address) {
  if (!KZIsFamilyIP(address.family)) return false;
  IPAddr ip;
  std::memcpy(ip.address, address.address, 16);
  ip.family = address.family;
  return IPAddrIsAnyPtr(&ip) != 0;
}

// The membership request's family; raises for another one.
bool MulticastFamily(const TCPAddr &group, const char *function) {
  if (group.family == KZ_FAMILY_IPV4 || group.family == KZ_FAMILY_IPV6) return true;
  NET_THROW(function, KZ_ERR_GENERAL, "invalid protocol family for multicast");
  return false;
}

}  // namespace

// ---- local-connection security and listening -----------------------------------------

KZ_API void *KZSetNamedPipeSecurityDescriptor(void *descriptor) {
  kz::LazyLockGuard hold(g_securityLock);
  void *previous = g_securityDescriptor;
  g_securityDescriptor = descriptor;
  return previous;
}

namespace {

int SocketFileOpenWithBacklog(TCPServer *server, int backlog) {
  if (server->handle != KZ_INVALID_HANDLE) return 1;
  unsigned mode = 0600;  // only the current user (and the check at accept)
  {
    kz::LazyLockGuard hold(g_securityLock);
    if (g_securityDescriptor) mode = kz::os::ModeBits(g_securityDescriptor);
  }
  char path[kPathMax], lockPath[kPathMax];
  if (!LocalPaths(server->address, path, lockPath)) {
    kz::os::FailWithError(ENAMETOOLONG);
    NET_RETHROW("SocketFileOpen", "unable to create named pipe");
    return 0;
  }
  FileLock *lock = server->lock;
  if (!lock) {
    lock = FileLockAcquireExclusive(nullptr, lockPath, 0);
    if (!lock) {
      // A refused lock (errno 16) is a live server on this name.
      int cause = errno;
      if (cause == EBUSY)
        kz::os::FailWithError(EADDRINUSE);
      else if (cause > 0)
        kz::os::FailWithError(cause);
      NET_RETHROW("SocketFileOpen", "unable to create named pipe");
      return 0;
    }
  }
  // Holding the lock, a socket file at the path is a dead server's: replace it.
  if (!kz::os::RemoveFile(path) && kz::os::Classify(KZGetLastError()) != kz::os::ErrorClass::kNotFound) {
    if (lock != server->lock) FileLockRelease(lock);
    errno = -1;
    NET_RETHROW("SocketFileOpen", "unable to create named pipe");
    return 0;
  }
  int64_t socket = kz::os::ListenLocal(path, mode, backlog);
  if (socket == KZ_INVALID_HANDLE) {
    if (lock != server->lock) {
      kz::ErrorStateKept kept;
      FileLockRelease(lock);
    }
    NET_RETHROW("SocketFileOpen", "unable to create named pipe");
    return 0;
  }
  server->lock = lock;
  server->handle = socket;
  return 1;
}

}  // namespace

KZ_API int SocketFileOpen(TCPServer *server) { return SocketFileOpenWithBacklog(server, kLocalBacklog); }

// ---- servers ------------------------------------------------------------------------------

KZ_API TCPServer *TCPServerOpen(const TCPAddr *address) { return TCPServerOpenEx(address, 0x7FFFFFFF); }

KZ_API TCPServer *TCPServerOpenEx(const TCPAddr *address, int32_t backlog) {
  TCPServer *server = static_cast<TCPServer *>(Allocate0_(sizeof(TCPServer), kSource, 0));
  server->handle = KZ_INVALID_HANDLE;
  server->address = *address;
  server->lock = nullptr;
  int listenBacklog = backlog < 0 ? 0x7FFFFFFF : backlog;
  switch (address->family) {
    case KZ_FAMILY_UNSET:
      errno = EINVAL;
      NET_RETHROW("TCPServerOpenEx", "invalid protocol family");
      FailOpen(server);
      return nullptr;
    case KZ_FAMILY_LOCAL:
      if (!SocketFileOpenWithBacklog(server, backlog < 0 || backlog > kLocalBacklog ? kLocalBacklog : backlog)) {
        ReleaseLock(server);
        std::free(server);
        return nullptr;
      }
      return server;
    case KZ_FAMILY_IPV4:
    case KZ_FAMILY_IPV6: break;
    default:
      kz::os::FailWithError(EAFNOSUPPORT);
      FailOpen(server);
      return nullptr;
  }
  int64_t socket = kz::net::ChannelSocket(address->family, kz::net::kStream);
  if (socket == KZ_INVALID_HANDLE) {
    FailOpen(server);
    return nullptr;
  }
  // One server on the IPv6 wildcard takes IPv4 clients too.
  if (address->family == KZ_FAMILY_IPV6 && IsWildcard(*address) && !kz::os::SetV6Only(socket, false)) {
    CloseKeepingError(socket);
    errno = -1;
    FailOpen(server);
    return nullptr;
  }
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(*address, &sa)) {
    CloseKeepingError(socket);
    FailOpen(server);
    return nullptr;
  }
  if (sa.size == 0) kzassert_("sin_me.size != 0", kSource, 0);
  if (!kz::os::Bind(socket, sa)) {
    CloseKeepingError(socket);
    errno = -1;
    NET_RETHROW("TCPServerOpenEx", "error binding server");
    FailOpen(server);
    return nullptr;
  }
  if (!kz::os::Listen(socket, listenBacklog)) {
    CloseKeepingError(socket);
    errno = -1;
    NET_RETHROW("TCPServerOpenEx", "listen(%u)", static_cast<unsigned>(backlog));
    FailOpen(server);
    return nullptr;
  }
  server->handle = socket;
  return server;
}

KZ_API int TCPServerAccept(TCPServer *server, Channel *channel) {
  ChannelDisconnect(channel);
  if (server->address.family == KZ_FAMILY_LOCAL) return LocalAccept(server, channel);
  // Created close-on-exec by the accept itself: inheritance never needs
  // disabling afterwards.
  int64_t socket = kz::os::Accept(server->handle, false);
  if (socket == KZ_INVALID_HANDLE) return 0;
  if (!kz::os::SetKeepAlive(socket) || !kz::os::SetNoDelay(socket)) {
    CloseKeepingError(socket);
    errno = -1;
    return 0;
  }
  if ((channel->readTimeout >= 0 || channel->writeTimeout >= 0) && !SetNonBlocking(socket, 1)) {
    CloseKeepingError(socket);
    return 0;
  }
  TakeSocket(channel, socket, false);
  if (channel->sslRequested) {
    const kz::net::SslOps *ops = kz::net::GetSslOps();
    bool started;
    if (!ops) {
      NET_THROW("TCPServerAccept", KZ_ERR_NOT_SUPPORTED, "SSL is not available");
      started = false;
    } else {
      started = ops->start(channel, 0) != 0;
    }
    if (!started) {
      KZErrorSave();
      ChannelDisconnect(channel);
      KZErrorRestore();
      return 0;
    }
  }
  return 1;
}

namespace {

bool CloseServerHandle(TCPServer *server) {
  bool closed = kz::os::Close(server->handle);  // a handle and a socket close alike here
  server->handle = KZ_INVALID_HANDLE;
  if (!closed) errno = -1;
  return closed;
}

}  // namespace

KZ_API int TCPServerClose(TCPServer *server) {
  int result = 1;
  if (server->handle != KZ_INVALID_HANDLE && !CloseServerHandle(server)) result = 0;
  if (server->address.family == KZ_FAMILY_LOCAL) {
    // Removed while the lock is still held, so no newer server's files go.
    char path[kPathMax], lockPath[kPathMax];
    if (LocalPaths(server->address, path, lockPath)) {
      kz::ErrorStateKept kept;
      kz::os::RemoveFile(path);
      kz::os::RemoveFile(lockPath);
    }
  }
  ReleaseLock(server);
  std::free(server);
  return result;
}

KZ_API int TCPServerDisconnect(TCPServer *server) {
  if (server->handle == KZ_INVALID_HANDLE) return 1;
  return CloseServerHandle(server) ? 1 : 0;
}

KZ_API int TCPServerGetAddr(const TCPServer *server, TCPAddr *out) {
  if (server->address.family == KZ_FAMILY_LOCAL) {
    *out = server->address;
    return 1;
  }
  return UDPGetAddr(server->handle, out, 0);
}

KZ_API int64_t TCPServerGetFD(const TCPServer *server) { return server->handle; }

// ---- datagrams ------------------------------------------------------------------------------

KZ_API int64_t UDPNew(const TCPAddr *local) {
  TCPAddr unset{};
  int64_t socket = kz::net::ChannelNewFDUdp(local ? *local : unset);
  if (socket == KZ_INVALID_HANDLE || !local) return socket;
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(*local, &sa)) {
    CloseKeepingError(socket);
    return KZ_INVALID_HANDLE;
  }
  if (sa.size == 0) kzassert_("sin_me.size != 0", kSource, 0);
  if (!kz::os::Bind(socket, sa)) {
    CloseKeepingError(socket);
    errno = -1;
    return KZ_INVALID_HANDLE;
  }
  return socket;
}

KZ_API int64_t UDPConnectEx(const TCPAddr *remote, const TCPAddr *local) {
  int64_t socket = UDPNew(local);
  if (socket == KZ_INVALID_HANDLE) return socket;
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(*remote, &sa)) {
    CloseKeepingError(socket);
    return KZ_INVALID_HANDLE;
  }
  if (sa.size == 0) kzassert_("sa.size != 0", kSource, 0);
  if (kz::os::Connect(socket, sa) != kz::os::ConnectResult::kDone) {
    CloseKeepingError(socket);
    errno = -1;
    return KZ_INVALID_HANDLE;
  }
  return socket;
}

KZ_API int64_t UDPConnect(const TCPAddr *remote) { return UDPConnectEx(remote, nullptr); }

KZ_API int UDPSendBufToEx(int64_t socket, const TCPAddr *address, int32_t ttl, const void *data, size_t length) {
  if (socket == KZ_INVALID_HANDLE) return 0;
  if (IsWildcard(*address)) {
    NET_THROW("UDPSendBufToEx", KZ_ERR_GENERAL, "can not send to INADDR_ANY");
    return 0;
  }
  if (ttl != -1 && !kz::os::SetMulticastTtl(socket, ttl)) {
    errno = -1;
    NET_RETHROW("UDPSendBufToEx", "error setting TTL");
    return 0;
  }
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(*address, &sa)) return 0;
  if (sa.size == 0) kzassert_("sa.size != 0", kSource, 0);
  int64_t sent = kz::os::SendTo(socket, sa, data, length);
  if (sent >= 0 && static_cast<size_t>(sent) == length) return 1;
  if (sent >= 0) kz::os::FailWithError(EMSGSIZE);
  errno = -1;
  return 0;
}

KZ_API int UDPSendBufTo(int64_t socket, const TCPAddr *address, const void *data, size_t length) {
  return UDPSendBufToEx(socket, address, -1, data, length);
}

KZ_API int UDPSendBufEx(const TCPAddr *address, int32_t ttl, const void *data, size_t length) {
  int64_t socket = kz::net::ChannelNewFDUdp(*address);
  if (socket == KZ_INVALID_HANDLE) return 0;
  int result = UDPSendBufToEx(socket, address, ttl, data, length);
  CloseKeepingError(socket);
  return result;
}

KZ_API int UDPSendBuf(const TCPAddr *address, const void *data, size_t length) {
  return UDPSendBufEx(address, -1, data, length);
}

KZ_API int UDPSend(int64_t socket, const void *data, size_t length) {
  int64_t sent = kz::os::Send(socket, data, length);
  if (sent >= 0 && static_cast<size_t>(sent) == length) return 1;
  if (sent >= 0) kz::os::FailWithError(EMSGSIZE);
  errno = -1;
  return 0;
}

KZ_API int UDPReceiveBytesFrom(int64_t socket, void *buffer, size_t size, size_t *count, TCPAddr *sender) {
  kz::os::SockAddr from;
  int64_t received = kz::os::ReceiveFrom(socket, buffer, size, &from);
  if (received < 0) {
    if (count) *count = 0;
    errno = -1;
    return 0;
  }
  if (count) *count = static_cast<size_t>(received);
  if (sender) {
    TCPAddr address{};
    address.family = kz::os::ReadSockAddr(from, address.address, &address.port);
    *sender = address;
  }
  return 1;
}

KZ_API int UDPReceiveBytes(int64_t socket, void *buffer, size_t size, size_t *count) {
  return UDPReceiveBytesFrom(socket, buffer, size, count, nullptr);
}

KZ_API int UDPReceive(int64_t socket, void *buffer, size_t size) {
  size_t count = 0;
  int saved = errno;
  if (!UDPReceiveBytesFrom(socket, buffer, size, &count, nullptr)) return 0;
  errno = saved;  // a short datagram is no error
  return count == size ? 1 : 0;
}

KZ_API int UDPGetAddr(int64_t socket, TCPAddr *out, int peer) {
  if (socket == KZ_INVALID_HANDLE) {
    errno = EINVAL;
    return 0;
  }
  kz::os::SockAddr sa;
  if (!(peer ? kz::os::PeerName(socket, &sa) : kz::os::LocalName(socket, &sa))) return 0;
  TCPAddr address{};
  address.family = kz::os::ReadSockAddr(sa, address.address, &address.port);
  if (address.family == KZ_FAMILY_UNSET) {
    errno = EINVAL;
    return 0;
  }
  *out = address;
  return 1;
}

KZ_API int UDPClose(int64_t socket) { return kz::os::Close(socket) ? 1 : 0; }

// ---- multicast ----------------------------------------------------------------------------

KZ_API int64_t UDPMCastNewEx(const TCPAddr *group, const TCPAddr *local) {
  int64_t socket = kz::net::ChannelNewFDUdp(*group);
  if (socket == KZ_INVALID_HANDLE) return socket;
  // Several sockets and processes on one host share the group's port.
  if (!kz::os::SetReuseAddress(socket)) {
    CloseKeepingError(socket);
    errno = -1;
    NET_RETHROW("UDPMCastNewEx", "error setting SO_REUSEADDR");
    return KZ_INVALID_HANDLE;
  }
  if (local) {
    kz::os::SockAddr sa;
    if (!kz::net::ToSockAddr(*local, &sa)) {
      CloseKeepingError(socket);
      return KZ_INVALID_HANDLE;
    }
    if (sa.size == 0) kzassert_("sin_me.size != 0", kSource, 0);
    if (!kz::os::Bind(socket, sa)) {
      CloseKeepingError(socket);
      errno = -1;
      return KZ_INVALID_HANDLE;
    }
  }
  kz::os::SockAddr groupAddress;
  if ((group->family != KZ_FAMILY_UNSET && !MulticastFamily(*group, "UDPMCastNewEx")) ||
      !kz::net::ToSockAddr(*group, &groupAddress)) {
    CloseKeepingError(socket);
    return KZ_INVALID_HANDLE;
  }
  if (!kz::os::MulticastMembership(socket, group->family, group->address, true)) {
    errno = -1;
    NET_RETHROW("UDPMCastNewEx", "error registering multicast address");
    CloseKeepingError(socket);
    return KZ_INVALID_HANDLE;
  }
  if (!kz::os::SetMulticastLoop(socket, true)) {
    errno = -1;
    NET_RETHROW("UDPMCastNewEx", "error setting IP_MULTICAST_LOOP");
    CloseKeepingError(socket);
    return KZ_INVALID_HANDLE;
  }
  return socket;
}

KZ_API int64_t UDPMCastNew(const TCPAddr *group) {
  uint32_t family = group->family == KZ_FAMILY_UNSET ? kz::net::DefaultFamily() : group->family;
  if (family != KZ_FAMILY_IPV4 && family != KZ_FAMILY_IPV6) kzassert_("FALSE", kSource, 0);
  TCPAddr local;
  TCPAddrAny(&local, family, group->port);
  return UDPMCastNewEx(group, &local);
}

KZ_API int UDPMCastClose(int64_t socket, const TCPAddr *group) {
  if (socket == KZ_INVALID_HANDLE) {
    NET_THROW("UDPMCastClose", KZ_ERR_GENERAL, "invalid socket descriptor");
    return 0;
  }
  if (group->family != KZ_FAMILY_UNSET && !MulticastFamily(*group, "UDPMCastClose")) {
    CloseKeepingError(socket);
    return 0;
  }
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(*group, &sa)) {
    CloseKeepingError(socket);
    return -1;  // all-ones, as a failed conversion has always answered
  }
  if (sa.size == 0) kzassert_("sin_me.size != 0", kSource, 0);
  if (!kz::os::MulticastMembership(socket, group->family, group->address, false)) {
    errno = -1;
    NET_RETHROW("UDPMCastClose", "error unregistering multicast address");
    CloseKeepingError(socket);
    return 0;
  }
  kz::os::Close(socket);
  return 1;
}
