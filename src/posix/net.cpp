// Network calls on POSIX: BSD sockets, poll, AF_UNIX local connections,
// pipes and files, and the /proc connection tables.
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "internal/os/error.h"
#include "internal/os/net.h"

namespace kz::os {

namespace {

template <typename Call>
auto Restarting(Call call) {
  decltype(call()) result;
  do result = call();
  while (result == -1 && errno == EINTR);
  return result;
}

int Fd(int64_t handle) { return static_cast<int>(handle); }

}  // namespace

// ---- addresses ------------------------------------------------------------------

bool ParseIPv6(const char *text, unsigned char address[16]) { return inet_pton(AF_INET6, text, address) == 1; }

bool FormatIPv6(const unsigned char address[16], char text[64]) {
  return inet_ntop(AF_INET6, address, text, 64) != nullptr;
}

void MakeSockAddr(uint32_t family, const unsigned char address[16], uint16_t port, SockAddr *out) {
  std::memset(out, 0, sizeof *out);
  if (family == KZ_FAMILY_IPV4) {
    sockaddr_in *in = reinterpret_cast<sockaddr_in *>(out->bytes);
    uint32_t host;
    std::memcpy(&host, address, 4);
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
    in->sin_addr.s_addr = htonl(host);
    out->size = sizeof(sockaddr_in);
  } else if (family == KZ_FAMILY_IPV6) {
    sockaddr_in6 *in6 = reinterpret_cast<sockaddr_in6 *>(out->bytes);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    std::memcpy(&in6->sin6_addr, address, 16);
    out->size = sizeof(sockaddr_in6);
  }
}

uint32_t ReadSockAddr(const SockAddr &in, unsigned char address[16], uint16_t *port) {
  const sockaddr *sa = reinterpret_cast<const sockaddr *>(in.bytes);
  if (sa->sa_family == AF_INET6 && in.size >= 24) {
    const sockaddr_in6 *in6 = reinterpret_cast<const sockaddr_in6 *>(in.bytes);
    std::memcpy(address, &in6->sin6_addr, 16);
    *port = ntohs(in6->sin6_port);
    return KZ_FAMILY_IPV6;
  }
  if (sa->sa_family == AF_INET && in.size >= 8) {
    const sockaddr_in *in4 = reinterpret_cast<const sockaddr_in *>(in.bytes);
    uint32_t host = ntohl(in4->sin_addr.s_addr);
    std::memset(address, 0, 16);
    std::memcpy(address, &host, 4);
    *port = ntohs(in4->sin_port);
    return KZ_FAMILY_IPV4;
  }
  return KZ_FAMILY_UNSET;
}

int Resolve(const char *host, IPAddr *out, int max, char *error, size_t errorSize) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *list = nullptr;
  int status = getaddrinfo(host, nullptr, &hints, &list);
  if (status != 0) {
    snprintf(error, errorSize, "%s", status == EAI_SYSTEM ? strerror(errno) : gai_strerror(status));
    return -1;
  }
  int count = 0;
  for (addrinfo *p = list; p && count < max; p = p->ai_next) {
    SockAddr sa{};
    if (p->ai_addrlen > sizeof sa.bytes) continue;
    std::memcpy(sa.bytes, p->ai_addr, p->ai_addrlen);
    sa.size = p->ai_addrlen;
    uint16_t port;
    IPAddr address{};
    address.family = ReadSockAddr(sa, address.address, &port);
    if (address.family != KZ_FAMILY_UNSET) out[count++] = address;
  }
  freeaddrinfo(list);
  if (count == 0) snprintf(error, errorSize, "%s", "no address of a supported family");
  return count ? count : -1;
}

bool ReverseLookup(const IPAddr &address, char *host, size_t size, char *error, size_t errorSize) {
  SockAddr sa;
  MakeSockAddr(address.family, address.address, 0, &sa);
  if (sa.size == 0) {
    snprintf(error, errorSize, "%s", "invalid address family");
    return false;
  }
  int status = getnameinfo(reinterpret_cast<sockaddr *>(sa.bytes), sa.size, host, size, nullptr, 0, 0);
  if (status != 0) {
    snprintf(error, errorSize, "%s", status == EAI_SYSTEM ? strerror(errno) : gai_strerror(status));
    return false;
  }
  return true;
}

bool ServicePort(const char *name, uint16_t *port) {
  servent entry, *found = nullptr;
  char buffer[1024];
  if (getservbyname_r(name, "tcp", &entry, buffer, sizeof buffer, &found) != 0 || !found) return false;
  *port = ntohs(static_cast<uint16_t>(found->s_port));
  return true;
}

// ---- sockets ------------------------------------------------------------------------

int SystemFamily(uint32_t family) {
  switch (family) {
    case KZ_FAMILY_IPV4: return AF_INET;
    case KZ_FAMILY_IPV6: return AF_INET6;
    case KZ_FAMILY_LOCAL: return AF_UNIX;
    default: return -1;
  }
}

int SystemSocketType(int type) { return type == 2 ? SOCK_DGRAM : SOCK_STREAM; }

int64_t Socket(int systemFamily, int systemType) {
  int fd = socket(systemFamily, systemType | SOCK_CLOEXEC, 0);
  if (fd < 0) FailWithErrno();
  return fd;
}

bool Close(int64_t handle) {
  // Linux releases the descriptor even when close reports EINTR: never retry.
  if (close(Fd(handle)) == 0 || errno == EINTR) return true;
  FailWithErrno();
  return false;
}

bool IsOpen(int64_t handle) {
  if (fcntl(Fd(handle), F_GETFD) >= 0) return true;
  FailWithErrno();
  return false;
}

bool SetNonBlocking(int64_t handle, bool on) {
  int flags = fcntl(Fd(handle), F_GETFL);
  if (flags < 0 || fcntl(Fd(handle), F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) < 0) {
    FailWithErrno();
    return false;
  }
  return true;
}

bool IsNonBlocking(int64_t handle) {
  int flags = fcntl(Fd(handle), F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK);
}

bool Bind(int64_t handle, const SockAddr &address) {
  if (bind(Fd(handle), reinterpret_cast<const sockaddr *>(address.bytes), address.size) == 0) return true;
  FailWithErrno();
  return false;
}

bool TrialListen(int64_t handle, const SockAddr &address) {
  int on = 1;
  if (setsockopt(Fd(handle), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 || !Bind(handle, address) ||
      listen(Fd(handle), SOMAXCONN) != 0) {
    if (errno != -1) FailWithErrno();
    return false;
  }
  return true;
}

ConnectResult Connect(int64_t handle, const SockAddr &address) {
  if (connect(Fd(handle), reinterpret_cast<const sockaddr *>(address.bytes), address.size) == 0)
    return ConnectResult::kDone;
  // An interrupted connect goes on in the background, like a non-blocking one.
  if (errno == EINPROGRESS || errno == EINTR || errno == EAGAIN) {
    FailWithErrno();
    return ConnectResult::kInProgress;
  }
  FailWithErrno();
  return ConnectResult::kFailed;
}

bool PendingError(int64_t handle, int *error, uint32_t *length) {
  socklen_t size = sizeof *error;
  if (getsockopt(Fd(handle), SOL_SOCKET, SO_ERROR, error, &size) != 0) {
    FailWithErrno();
    return false;
  }
  *length = size;
  return true;
}

bool SetKeepAlive(int64_t handle) {
  int on = 1;
  if (setsockopt(Fd(handle), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0) return true;
  FailWithErrno();
  return false;
}

bool SetNoDelay(int64_t handle) {
  int on = 1;
  if (setsockopt(Fd(handle), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0) return true;
  FailWithErrno();
  return false;
}

bool LocalName(int64_t handle, SockAddr *out) {
  socklen_t size = sizeof out->bytes;
  std::memset(out->bytes, 0, sizeof out->bytes);
  if (getsockname(Fd(handle), reinterpret_cast<sockaddr *>(out->bytes), &size) != 0) {
    FailWithErrno();
    return false;
  }
  out->size = size;
  return true;
}

bool PeerName(int64_t handle, SockAddr *out) {
  socklen_t size = sizeof out->bytes;
  std::memset(out->bytes, 0, sizeof out->bytes);
  if (getpeername(Fd(handle), reinterpret_cast<sockaddr *>(out->bytes), &size) != 0) {
    FailWithErrno();
    return false;
  }
  out->size = size;
  return true;
}

bool Shutdown(int64_t handle, int how) {
  int mode = how == 0 ? SHUT_RD : how == 1 ? SHUT_WR : SHUT_RDWR;
  if (shutdown(Fd(handle), mode) == 0) return true;
  FailWithErrno();
  return false;
}

int64_t MonotonicMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int Wait(int64_t handle, bool forWrite, int64_t timeoutMs) {
  pollfd entry{Fd(handle), static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
  int64_t deadline = timeoutMs < 0 ? 0 : MonotonicMs() + timeoutMs;
  for (;;) {
    int wait = -1;
    if (timeoutMs >= 0) {
      int64_t left = deadline - MonotonicMs();
      wait = left < 0 ? 0 : left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
    }
    int ready = poll(&entry, 1, wait);
    if (ready > 0) return 1;  // wanted event, error or hang-up
    if (ready == 0) {
      if (timeoutMs >= 0 && MonotonicMs() >= deadline) return 0;
      continue;
    }
    if (errno == EINTR) continue;
    FailWithErrno();
    return -1;
  }
}

// ---- transfers ---------------------------------------------------------------

int64_t Send(int64_t handle, const void *data, size_t size) {
  ssize_t n = Restarting([&] { return send(Fd(handle), data, size, MSG_NOSIGNAL); });
  if (n < 0) FailWithErrno();
  return n;
}

int64_t Receive(int64_t handle, void *buffer, size_t size, bool wait) {
  ssize_t n = Restarting([&] { return recv(Fd(handle), buffer, size, wait ? 0 : MSG_DONTWAIT); });
  if (n < 0) FailWithErrno();
  return n;
}

int64_t Write(int64_t handle, const void *data, size_t size) {
  // A write to a pipe or socket whose reader has gone raises SIGPIPE in the
  // writing thread: hold it back, and take away one we caused.
  sigset_t pipeOnly, previous, pending;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigpending(&pending);
  bool alreadyPending = sigismember(&pending, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
  ssize_t n = Restarting([&] { return write(Fd(handle), data, size); });
  int error = errno;
  if (n < 0 && error == EPIPE && !alreadyPending) {
    timespec zero = {0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {}
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (n < 0) FailWithError(error);
  return n;
}

int64_t Read(int64_t handle, void *buffer, size_t size) {
  ssize_t n = Restarting([&] { return read(Fd(handle), buffer, size); });
  if (n < 0) FailWithErrno();
  return n;
}

bool Sync(int64_t handle) {
  if (Restarting([&] { return fsync(Fd(handle)); }) == 0) return true;
  FailWithErrno();
  return false;
}

ErrorClass Classify(int error) {
  switch (error) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINPROGRESS: return ErrorClass::kWouldBlock;
    case EADDRINUSE: return ErrorClass::kAddressInUse;
    case EPIPE: return ErrorClass::kEndOfInput;
    case ENOENT:
    case ENOTDIR: return ErrorClass::kNotFound;
    default: return ErrorClass::kOther;
  }
}

// ---- local connections ----------------------------------------------------------

void LocalPath(char *path, size_t size, const char *base, const char *name, unsigned port) {
  snprintf(path, size, "/tmp/kz.%s.%s.%u", base, name, port);
}

ConnectResult ConnectLocal(const char *path, int64_t *handle) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof address.sun_path) {
    FailWithError(ENAMETOOLONG);
    return ConnectResult::kFailed;
  }
  std::strcpy(address.sun_path, path);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    FailWithErrno();
    return ConnectResult::kFailed;
  }
  int status = Restarting([&] { return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address); });
  if (status == 0) {
    *handle = fd;
    return ConnectResult::kDone;
  }
  int error = errno;
  close(fd);
  FailWithError(error);
  // A full listen backlog is the "pipe busy" state of a local connection.
  return error == EAGAIN ? ConnectResult::kInProgress : ConnectResult::kFailed;
}

void SleepMs(uint32_t milliseconds) {
  timespec wait = {static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {}
}

// ---- files and pipes ---------------------------------------------------------------

int64_t OpenFile(const char *path, char mode) {
  int flags = O_CLOEXEC | (mode == 'r' ? O_RDONLY : mode == 'w' ? O_WRONLY | O_CREAT | O_TRUNC : O_WRONLY | O_CREAT);
  int fd = Restarting([&] { return open(path, flags, 0666); });
  if (fd < 0) {
    FailWithErrno();
    return -1;
  }
  if (mode == 'a' && lseek(fd, 0, SEEK_END) < 0) {
    int error = errno;
    close(fd);
    FailWithError(error);
    return -1;
  }
  return fd;
}

int64_t Seek(int64_t handle, int64_t offset, int whence) {
  off_t position = lseek(Fd(handle), offset, whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : SEEK_END);
  if (position < 0) FailWithErrno();
  return position;
}

bool Truncate(int64_t handle, int64_t length) {
  if (Restarting([&] { return ftruncate(Fd(handle), length); }) == 0) return true;
  FailWithErrno();
  return false;
}

bool Pipe(int descriptors[2]) {
  if (pipe2(descriptors, O_CLOEXEC) == 0) return true;
  FailWithErrno();
  return false;
}

// ---- servers, waits on many sockets, datagrams ----------------------------------

bool Listen(int64_t handle, int backlog) {
  if (listen(Fd(handle), backlog) == 0) return true;
  FailWithErrno();
  return false;
}

bool SetV6Only(int64_t handle, bool on) {
  int value = on ? 1 : 0;
  if (setsockopt(Fd(handle), IPPROTO_IPV6, IPV6_V6ONLY, &value, sizeof value) == 0) return true;
  FailWithErrno();
  return false;
}

bool SetReuseAddress(int64_t handle) {
  int on = 1;
  if (setsockopt(Fd(handle), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0) return true;
  FailWithErrno();
  return false;
}

int64_t Accept(int64_t handle, bool nonBlocking) {
  int flags = SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
  int fd = Restarting([&] { return accept4(Fd(handle), nullptr, nullptr, flags); });
  if (fd < 0) FailWithErrno();
  return fd;
}

int WaitMany(const int64_t *handles, uint32_t count, unsigned char *ready, int64_t timeoutMs) {
  pollfd entries[64];
  if (count > 64) count = 64;
  for (uint32_t i = 0; i < count; ++i) entries[i] = pollfd{Fd(handles[i]), POLLIN | POLLPRI, 0};
  int64_t deadline = timeoutMs < 0 ? 0 : MonotonicMs() + timeoutMs;
  for (;;) {
    int wait = -1;
    if (timeoutMs >= 0) {
      int64_t left = deadline - MonotonicMs();
      wait = left < 0 ? 0 : left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
    }
    int n = poll(entries, count, wait);
    if (n > 0) {
      for (uint32_t i = 0; i < count; ++i) {
        if (entries[i].revents & POLLNVAL) {
          FailWithError(EBADF);
          return -1;
        }
      }
      for (uint32_t i = 0; i < count; ++i) ready[i] = entries[i].revents ? 1 : 0;
      return 1;
    }
    if (n == 0) {
      if (timeoutMs >= 0 && MonotonicMs() >= deadline) return 0;
      continue;
    }
    if (errno == EINTR) continue;
    FailWithErrno();
    return -1;
  }
}

int64_t SendTo(int64_t handle, const SockAddr &address, const void *data, size_t size) {
  ssize_t n = Restarting([&] {
    return sendto(Fd(handle), data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(address.bytes),
                  address.size);
  });
  if (n < 0) FailWithErrno();
  return n;
}

int64_t ReceiveFrom(int64_t handle, void *buffer, size_t size, SockAddr *from) {
  std::memset(from, 0, sizeof *from);
  socklen_t length = sizeof from->bytes;
  ssize_t n = Restarting([&] {
    return recvfrom(Fd(handle), buffer, size, MSG_TRUNC, reinterpret_cast<sockaddr *>(from->bytes), &length);
  });
  if (n < 0) {
    FailWithErrno();
    return -1;
  }
  from->size = length;
  if (static_cast<size_t>(n) > size) {
    FailWithError(EMSGSIZE);
    return -1;
  }
  return n;
}

uint32_t SocketFamily(int64_t handle) {
  int domain = 0;
  socklen_t size = sizeof domain;
  if (getsockopt(Fd(handle), SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) {
    FailWithErrno();
    return KZ_FAMILY_UNSET;
  }
  return domain == AF_INET    ? KZ_FAMILY_IPV4
         : domain == AF_INET6 ? KZ_FAMILY_IPV6
         : domain == AF_UNIX  ? KZ_FAMILY_LOCAL
                              : KZ_FAMILY_UNSET;
}

namespace {

bool SetIntOption(int64_t handle, int level, int option, int value) {
  if (setsockopt(Fd(handle), level, option, &value, sizeof value) == 0) return true;
  FailWithErrno();
  return false;
}

}  // namespace

bool SetMulticastTtl(int64_t handle, int ttl) {
  if (SocketFamily(handle) == KZ_FAMILY_IPV6) return SetIntOption(handle, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl);
  return SetIntOption(handle, IPPROTO_IP, IP_MULTICAST_TTL, ttl);
}

bool SetMulticastLoop(int64_t handle, bool on) {
  if (SocketFamily(handle) == KZ_FAMILY_IPV6) return SetIntOption(handle, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, on);
  return SetIntOption(handle, IPPROTO_IP, IP_MULTICAST_LOOP, on);
}

bool MulticastMembership(int64_t handle, uint32_t family, const unsigned char group[16], bool join) {
  int status;
  if (family == KZ_FAMILY_IPV4) {
    ip_mreq request{};
    uint32_t host;
    std::memcpy(&host, group, 4);
    request.imr_multiaddr.s_addr = htonl(host);
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    status =
        setsockopt(Fd(handle), IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request, sizeof request);
  } else {
    ipv6_mreq request{};
    std::memcpy(&request.ipv6mr_multiaddr, group, 16);
    request.ipv6mr_interface = 0;
    status = setsockopt(Fd(handle), IPPROTO_IPV6, join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &request,
                        sizeof request);
  }
  if (status == 0) return true;
  FailWithErrno();
  return false;
}

// ---- local-connection servers -------------------------------------------------------

int64_t ListenLocal(const char *path, unsigned mode, int backlog) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof address.sun_path) {
    FailWithError(ENAMETOOLONG);
    return -1;
  }
  std::strcpy(address.sun_path, path);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    FailWithErrno();
    return -1;
  }
  // Nobody can connect before listen, so the mode is in place in time.
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || chmod(path, mode) != 0 ||
      listen(fd, backlog) != 0) {
    int error = errno;
    close(fd);
    FailWithError(error);
    return -1;
  }
  return fd;
}

bool PeerUid(int64_t handle, uint32_t *uid) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(Fd(handle), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    FailWithErrno();
    return false;
  }
  *uid = credentials.uid;
  return true;
}

uint32_t EffectiveUid() { return geteuid(); }

unsigned ModeBits(const void *mode) { return *static_cast<const mode_t *>(mode) & 07777; }

bool RemoveFile(const char *path) {
  if (unlink(path) == 0) return true;
  FailWithErrno();
  return false;
}

// ---- peer processes ----------------------------------------------------------------

namespace {

// One row of /proc/net/tcp{,6}: "sl local rem st ... uid timeout inode".
// Addresses are the kernel's 32-bit words printed in host order, in hex.
bool ParseTableAddress(const char *text, bool six, unsigned char address[16], uint16_t *port) {
  size_t digits = six ? 32 : 8;
  if (std::strlen(text) < digits + 5 || text[digits] != ':') return false;
  for (size_t word = 0; word < digits / 8; ++word) {
    char part[9];
    std::memcpy(part, text + word * 8, 8);
    part[8] = '\0';
    uint32_t value = static_cast<uint32_t>(strtoul(part, nullptr, 16));
    std::memcpy(address + word * 4, &value, 4);  // network bytes as stored
  }
  *port = static_cast<uint16_t>(strtoul(text + digits + 1, nullptr, 16));
  return true;
}

bool SameEndpoint(const TCPAddr &endpoint, bool six, const unsigned char address[16], uint16_t port) {
  if (endpoint.port != port) return false;
  unsigned char wanted[16] = {};
  if (endpoint.family == KZ_FAMILY_IPV4) {
    uint32_t host, network;
    std::memcpy(&host, endpoint.address, 4);
    network = htonl(host);
    if (six) {  // an IPv4 peer of an IPv6 socket appears as ::ffff:a.b.c.d
      wanted[10] = wanted[11] = 0xFF;
      std::memcpy(wanted + 12, &network, 4);
      return std::memcmp(wanted, address, 16) == 0;
    }
    return std::memcmp(&network, address, 4) == 0;
  }
  if (!six) {
    static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(endpoint.address, kMapped, 12) == 0 && std::memcmp(endpoint.address + 12, address, 4) == 0;
  }
  return std::memcmp(endpoint.address, address, 16) == 0;
}

// Finds the row whose local end is `self` and remote end is `other`.
int FindSocket(const TCPAddr &self, const TCPAddr &other, unsigned long *inode, unsigned *uid) {
  int tablesRead = 0;
  for (bool six : {false, true}) {
    FILE *table = fopen(six ? "/proc/net/tcp6" : "/proc/net/tcp", "re");
    if (!table) continue;
    ++tablesRead;
    char line[512];
    bool found = false;
    if (!fgets(line, sizeof line, table)) line[0] = '\0';  // header
    while (!found && fgets(line, sizeof line, table)) {
      char localText[64], remoteText[64];
      unsigned rowUid;
      unsigned long rowInode;
      if (sscanf(line, " %*s %63s %63s %*s %*s %*s %*s %u %*s %lu", localText, remoteText, &rowUid, &rowInode) != 4)
        continue;
      unsigned char localAddress[16], remoteAddress[16];
      uint16_t localPort, remotePort;
      if (!ParseTableAddress(localText, six, localAddress, &localPort) ||
          !ParseTableAddress(remoteText, six, remoteAddress, &remotePort))
        continue;
      if (SameEndpoint(self, six, localAddress, localPort) && SameEndpoint(other, six, remoteAddress, remotePort)) {
        *inode = rowInode;
        *uid = rowUid;
        found = true;
      }
    }
    fclose(table);
    if (found) return 1;
  }
  return tablesRead ? 0 : -1;
}

// The process holding socket:[inode]; reads its effective uid and groups.
bool ProcessCredentials(unsigned long inode, unsigned *euid, gid_t *groups, int *groupCount) {
  DIR *proc = opendir("/proc");
  if (!proc) return false;
  char wanted[64];
  snprintf(wanted, sizeof wanted, "socket:[%lu]", inode);
  bool found = false;
  char pidText[32] = "";
  while (dirent *process = readdir(proc)) {
    if (process->d_name[0] < '1' || process->d_name[0] > '9') continue;
    char fdDir[64];
    snprintf(fdDir, sizeof fdDir, "/proc/%.20s/fd", process->d_name);
    DIR *fds = opendir(fdDir);
    if (!fds) continue;
    while (dirent *fd = readdir(fds)) {
      char link[128], target[128];
      snprintf(link, sizeof link, "%s/%.20s", fdDir, fd->d_name);
      ssize_t n = readlink(link, target, sizeof target - 1);
      if (n <= 0) continue;
      target[n] = '\0';
      if (std::strcmp(target, wanted) == 0) {
        found = true;
        break;
      }
    }
    closedir(fds);
    if (found) {
      snprintf(pidText, sizeof pidText, "%.20s", process->d_name);
      break;
    }
  }
  closedir(proc);
  if (!found) return false;
  char statusPath[64];
  snprintf(statusPath, sizeof statusPath, "/proc/%s/status", pidText);
  FILE *status = fopen(statusPath, "re");
  if (!status) return false;
  char line[1024];
  bool haveUid = false;
  *groupCount = 0;
  while (fgets(line, sizeof line, status)) {
    unsigned real, effective;
    if (sscanf(line, "Uid: %u %u", &real, &effective) == 2) {
      *euid = effective;
      haveUid = true;
    } else if (std::strncmp(line, "Gid:", 4) == 0) {
      unsigned gReal, gEffective;
      if (sscanf(line, "Gid: %u %u", &gReal, &gEffective) == 2 && *groupCount < 64)
        groups[(*groupCount)++] = gEffective;
    } else if (std::strncmp(line, "Groups:", 7) == 0) {
      char *p = line + 7;
      char *end;
      for (unsigned long g = strtoul(p, &end, 10); end != p && *groupCount < 64; g = strtoul(p, &end, 10)) {
        groups[(*groupCount)++] = static_cast<gid_t>(g);
        p = end;
      }
    }
  }
  fclose(status);
  return haveUid;
}

// The groups of a user from the group database (the socket owner's, when the
// process itself cannot be seen).
void UserGroups(unsigned uid, gid_t *groups, int *groupCount) {
  *groupCount = 0;
  passwd entry, *found = nullptr;
  char buffer[4096];
  if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) != 0 || !found) return;
  int count = 64;
  if (getgrouplist(found->pw_name, found->pw_gid, groups, &count) < 0) count = 64;
  *groupCount = count;
}

bool IsAdministratorsGroup(gid_t gid) {
  group entry, *found = nullptr;
  char buffer[4096];
  if (getgrgid_r(gid, &entry, buffer, sizeof buffer, &found) != 0 || !found) return false;
  for (const char *name : {"wheel", "sudo", "adm"})
    if (std::strcmp(found->gr_name, name) == 0) return true;
  return false;
}

}  // namespace

int PeerSecurityFlags(const TCPAddr &local, const TCPAddr &peer, uint32_t *flags) {
  unsigned long inode = 0;
  unsigned uid = 0;
  int found = FindSocket(peer, local, &inode, &uid);
  if (found <= 0) {
    if (found == 0) errno = ENOENT;
    return found;
  }
  gid_t groups[64];
  int groupCount = 0;
  unsigned euid = uid;
  if (inode == 0 || !ProcessCredentials(inode, &euid, groups, &groupCount)) UserGroups(uid, groups, &groupCount);
  uint32_t result = 0;
  if (euid == 0) result |= KZ_PEER_SYSTEM | KZ_PEER_ADMINISTRATORS;
  for (int i = 0; i < groupCount; ++i)
    if (IsAdministratorsGroup(groups[i])) result |= KZ_PEER_ADMINISTRATORS;
  *flags = result;
  return 1;
}

}  // namespace kz::os
