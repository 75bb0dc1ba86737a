// Channels: the record, its settings, attaching and releasing endpoints,
// file positioning, addresses, shutdown, the socket wait primitive, the
// library-wide networking settings and the network start-up.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/error.h"
#include "internal/os/net.h"
#include "internal/startup.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/unicode.h"
#include "net/channel_internal.h"

using kz::net::kSource;

static_assert(sizeof(Channel) == kz::net::kChannelSize, "the channel record keeps its size on every platform");
static_assert(offsetof(Channel, readKeyState) == 136 && offsetof(Channel, readBuffer) == 152 &&
                  offsetof(Channel, writeKeyState) == 11832 && offsetof(Channel, writeBuffer) == 11844 &&
                  offsetof(Channel, virtualOps) == 23528,
              "the channel record keeps its field offsets");

#define NET_THROW(function, code, ...) KZ_THROW_AT(kSource, 0, function, code, __VA_ARGS__)
#define NET_RETHROW(function, ...) \
  (KZSetMessageContext2_(kSource, 0, "kzlib", (function), 4, 0), KZErrorRethrow_(__VA_ARGS__))
#define NET_MESSAGE(function, ...) KZ_MESSAGE_AT(kSource, 0, function, 3, 0, __VA_ARGS__)

namespace {

// ---- library-wide settings ----------------------------------------------------

kz::LazyLock g_networkLock;
std::atomic<uint32_t> g_defaultFamily{KZ_FAMILY_IPV4};
std::atomic<uint32_t> g_maxIOSize{131072};
char g_localBase[64] = "sock";

std::atomic<const kz::net::SslOps *> g_sslOps{nullptr};

// Closes a handle the channel owns (its descriptor when it has one).
bool CloseOwned(Channel *channel) {
  if (!channel->ownsHandle) return true;
  int64_t handle = channel->crtDescriptor >= 0 ? channel->crtDescriptor : channel->handle;
  return kz::os::Close(handle);
}

void FreeSslSession(Channel *channel) {
  const kz::net::SslOps *ops = g_sslOps.load(std::memory_order_acquire);
  if (channel->ssl && ops) ops->freeSession(channel);
}

void ReleaseVirtual(Channel *channel) {
  if (!channel->isVirtual || !channel->virtualOps) return;
  ChannelVirtualIO *ops = channel->virtualOps;
  channel->virtualOps = nullptr;
  if (ops->release) ops->release(ops->userData);
  std::free(ops);
}

bool IsFile(const Channel *channel) {
  return !channel->isSocket && !channel->isNamedPipe && !channel->isVirtual && channel->handle != KZ_INVALID_HANDLE;
}

bool AnyIOTimeout(const Channel *channel) { return channel->readTimeout >= 0 || channel->writeTimeout >= 0; }

// Fails an outgoing connection: closes the socket keeping the error state.
int FailConnect(Channel *channel, int64_t socket) {
  {
    kz::ErrorStateKept kept;
    kz::os::Close(socket);
  }
  channel->handle = KZ_INVALID_HANDLE;
  return 0;
}

void AdvancePort(Channel *channel) {
  channel->nextPort = channel->nextPort >= channel->portRangeMax || channel->nextPort < channel->portRangeMin
                          ? channel->portRangeMin
                          : static_cast<uint16_t>(channel->nextPort + 1);
}

// Binds the next free local port of the channel's range. Failing to bind
// only emits a message: the connection goes on with a port the system picks.
void BindFromRange(Channel *channel, int64_t socket) {
  uint16_t start = channel->nextPort;
  TCPAddr local;
  TCPAddrAny(&local, KZ_FAMILY_UNSET, 0);
  for (;;) {
    local.port = channel->nextPort;
    kz::os::SockAddr sa;
    if (!kz::net::ToSockAddr(local, &sa)) return;
    if (sa.size == 0) kzassert_("sa.size != 0", kSource, 0);
    if (kz::os::Bind(socket, sa)) {
      AdvancePort(channel);
      return;
    }
    if (kz::os::Classify(KZGetLastError()) == kz::os::ErrorClass::kAddressInUse) {
      AdvancePort(channel);
      if (channel->nextPort == start) {
        NET_MESSAGE("ChannelConnect", "could not bind to any port in range [%u,%u]", unsigned(channel->portRangeMin),
                    unsigned(channel->portRangeMax));
        return;
      }
      continue;
    }
    errno = -1;
    NET_MESSAGE("ChannelConnect", "could not bind to local port %u", unsigned(local.port));
    return;
  }
}

// The local-connection connect: AF_UNIX on "/tmp/kz.<base>.<name>.<port>".
// A full backlog ("busy") is waited for connectTimeout seconds.
int ConnectLocal(Channel *channel, const TCPAddr &address) {
  char path[260];
  kz::net::LocalConnectionPath(address, path, sizeof path);
  int64_t deadline = channel->connectTimeout < 0 ? -1 : kz::os::MonotonicMs() + int64_t(channel->connectTimeout) * 1000;
  int64_t handle = KZ_INVALID_HANDLE;
  for (;;) {
    kz::os::ConnectResult result = kz::os::ConnectLocal(path, &handle);
    if (result == kz::os::ConnectResult::kDone) break;
    if (result == kz::os::ConnectResult::kFailed || channel->connectTimeout == 0) return 0;
    if (deadline >= 0 && kz::os::MonotonicMs() >= deadline) {
      KZSetLastError(ETIMEDOUT);
      errno = -1;
      return 0;
    }
    kz::os::SleepMs(5);
  }
  channel->handle = handle;
  channel->isSocket = 0;
  channel->isNamedPipe = 1;
  channel->isVirtual = 0;
  return 1;
}

// ---- memory endpoints -----------------------------------------------------------

struct MemIO {
  uint64_t magic;
  const unsigned char *data;
  uint64_t size;
  uint64_t offset;
  UByteArray *target;
};

int64_t memIoRead(void *buffer, size_t size, void *userData) {
  MemIO *io = static_cast<MemIO *>(userData);
  if (!io->data) {
    KZ_THROW_AT(kSource, 0, "memIoRead", KZ_ERR_GENERAL, "can not read from a memory writer");
    return -1;
  }
  uint64_t available = io->size - io->offset;
  size_t n = available < size ? static_cast<size_t>(available) : size;
  if (n) std::memcpy(buffer, io->data + io->offset, n);
  io->offset += n;
  return static_cast<int64_t>(n);
}

int64_t memIoWrite(const void *data, size_t size, void *userData) {
  MemIO *io = static_cast<MemIO *>(userData);
  if (!io->target) {
    KZ_THROW_AT(kSource, 0, "memIoWrite", KZ_ERR_GENERAL, "can not write to a memory reader");
    return -1;
  }
  auto view = kz::View(*io->target, "kzlib/kztcp", 0);
  view.Reserve(uint64_t(io->target->count) + size + 1);  // room for the NUL kept after the bytes
  view.Append(static_cast<const unsigned char *>(data), size);
  io->target->elements[io->target->count] = '\0';
  return static_cast<int64_t>(size);
}

void memIoRelease(void *userData) { std::free(userData); }

// ---- files ------------------------------------------------------------------------

int ChannelOpenFileEx(Channel *channel, const char *utf8Name, const char *mode) {
  ChannelDisconnect(channel);
  if (!mode || !mode[0] || mode[1] || (mode[0] != 'r' && mode[0] != 'w' && mode[0] != 'a')) {
    errno = EINVAL;
    return 0;
  }
  {  // the name must be text the other platform could convert to UTF-16
    UShortArray units{};
    int valid = UCS2Encode(&units, utf8Name, static_cast<uint32_t>(std::strlen(utf8Name)));
    ArrayFree_(&units);
    if (!valid) {
      errno = EINVAL;
      return 0;
    }
  }
  int64_t handle = kz::os::OpenFile(utf8Name, mode[0]);
  if (handle == KZ_INVALID_HANDLE) {
    if (kz::os::Classify(KZGetLastError()) == kz::os::ErrorClass::kNotFound) errno = ENOENT;
    return 0;
  }
  kz::net::ResetEndpoint(channel);
  channel->handle = handle;
  return 1;
}

// ---- network start-up ----------------------------------------------------------------

bool EqualsNoCase(const char *a, const char *b) {
  for (; *a && *b; ++a, ++b) {
    char x = (*a >= 'A' && *a <= 'Z') ? char(*a + 32) : *a;
    if (x != *b) return false;
  }
  return *a == *b;
}

bool NetworkStartup() {
  kz::ErrorStateKept kept;
  const char *family = std::getenv("KZ_DEFAULT_FAMILY");
  if (family && *family) {
    if (EqualsNoCase(family, "ipv6") || EqualsNoCase(family, "v6") || EqualsNoCase(family, "6")) {
      if (!KZSetDefaultFamily(KZ_FAMILY_IPV6)) NET_MESSAGE("KZTCPInit", "unable to set the family to FAMILY_IPV6");
    } else if (!EqualsNoCase(family, "ipv4") && !EqualsNoCase(family, "v4") && !EqualsNoCase(family, "4")) {
      NET_MESSAGE("KZTCPInit", "unsupported KZ_DEFAULT_FAMILY=%s", family);
    }
  }
  const char *size = std::getenv("KZ_NETWORK_MAX_IO_SIZE");
  if (size && *size) {
    uint64_t value = 0;
    bool valid = true;
    for (const char *p = size; *p && valid; ++p) {
      valid = *p >= '0' && *p <= '9' && value <= (UINT64_MAX - uint64_t(*p - '0')) / 10;
      if (valid) value = value * 10 + uint64_t(*p - '0');
    }
    if (!valid)
      NET_MESSAGE("KZTCPInit", "invalid KZ_NETWORK_MAX_IO_SIZE='%s' directive", size);
    else if (value != 0)
      ChannelSetDefaultMaxIOOperationSize(static_cast<uint32_t>(value));
  }
  IPAddr localhost;
  if (!IPAddrSetHost(&localhost, "localhost")) {
    NET_MESSAGE("KZTCPInit", "unable to resolve 'localhost'");
    return true;
  }
  IPAddr expected4, expected6;
  IPAddrLocal(&expected4, KZ_FAMILY_IPV4);
  IPAddrLocal(&expected6, KZ_FAMILY_IPV6);
  if (IPAddrEqualsPtr(&localhost, &expected4)) return true;
  if (IPAddrEqualsPtr(&localhost, &expected6)) {
    if (KZGetDefaultFamily() != KZ_FAMILY_IPV6) {
      if (KZSetDefaultFamily(KZ_FAMILY_IPV6))
        NET_MESSAGE("KZTCPInit", "'localhost' mapped to ::1, set default family to FAMILY_IPV6");
      else
        NET_MESSAGE("KZTCPInit", "'localhost' mapped to ::1, but unable to set the family to FAMILY_IPV6");
    }
    return true;
  }
  UByteArray text{};
  if (IPAddrGetIP(&localhost, &text))
    NET_MESSAGE("KZTCPInit", "'localhost' does not resolve to 127.0.0.1 (but %s)",
                reinterpret_cast<char *>(text.elements));
  else
    NET_MESSAGE("KZTCPInit", "'localhost' does resolve to an invalid address");
  ArrayFree_(&text);
  return true;
}

const bool g_networkRegistered = kz::startup::Register(kz::startup::Step::kNetwork, NetworkStartup);

}  // namespace

// ---- internal interface ------------------------------------------------------------------

namespace kz::net {

uint32_t DefaultFamily() {
  LazyLockGuard hold(g_networkLock);
  return g_defaultFamily.load(std::memory_order_relaxed);
}

uint32_t MaxIOSize() { return g_maxIOSize.load(std::memory_order_relaxed); }

void LocalBaseName(char *base, size_t size) {
  LazyLockGuard hold(g_networkLock);
  std::strncpy(base, g_localBase, size - 1);
  base[size - 1] = '\0';
}

void LocalConnectionPath(const TCPAddr &address, char *path, size_t size) {
  char name[17];
  std::memcpy(name, address.address, 16);
  name[16] = '\0';
  LazyLockGuard hold(g_networkLock);
  os::LocalPath(path, size, g_localBase, name, address.port);
}

int64_t ChannelSocket(uint32_t family, int type) {
  if (family == KZ_FAMILY_UNSET) family = DefaultFamily();
  int systemFamily = os::SystemFamily(family), systemType = os::SystemSocketType(type);
  int64_t socket = KZ_INVALID_HANDLE;
  if (systemFamily < 0)
    os::FailWithError(EAFNOSUPPORT);
  else
    socket = os::Socket(systemFamily, systemType);
  if (socket == KZ_INVALID_HANDLE) NET_RETHROW("ChannelSocket", "socket(%d, %d, %d)", systemFamily, systemType, 0);
  return socket;  // created close-on-exec: never inherited
}

int64_t ChannelNewFDUdp(const TCPAddr &address) {
  uint32_t family = address.family == KZ_FAMILY_UNSET ? DefaultFamily() : address.family;
  if (!KZIsFamilyIP(family) && family != KZ_FAMILY_LOCAL) {
    NET_THROW("ChannelNewFDUdp", KZ_ERR_INVALID, "invalid IP family");
    return KZ_INVALID_HANDLE;
  }
  return ChannelSocket(family, kDatagram);
}

void ResetEndpoint(Channel *channel) {
  ChannelDisconnect(channel);
  channel->ownsHandle = 1;
  channel->crtDescriptor = -1;
  channel->isSocket = 0;
  channel->isNamedPipe = 0;
  channel->isVirtual = 0;
  channel->readPos = channel->readFill = 0;
  channel->writeCount = 0;
}

void SetSslOps(const SslOps *ops) { g_sslOps.store(ops, std::memory_order_release); }
const SslOps *GetSslOps() { return g_sslOps.load(std::memory_order_acquire); }

}  // namespace kz::net

// ---- settings -------------------------------------------------------------------------------

KZ_API int KZSetDefaultFamily(uint32_t family) {
  if (!KZIsFamilyIP(family)) {
    errno = EINVAL;
    return 0;
  }
  kz::LazyLockGuard hold(g_networkLock);
  int64_t probe = kz::net::ChannelSocket(family, kz::net::kDatagram);
  if (probe == KZ_INVALID_HANDLE) return 0;
  {
    kz::ErrorStateKept kept;
    kz::os::Close(probe);
  }
  g_defaultFamily.store(family, std::memory_order_relaxed);
  return 1;
}

KZ_API uint32_t KZGetDefaultFamily(void) { return kz::net::DefaultFamily(); }

KZ_API void ChannelSetDefaultMaxIOOperationSize(uint32_t size) {
  if (size == 0) return;  // a transfer must move at least one byte
  kz::LazyLockGuard hold(g_networkLock);
  g_maxIOSize.store(size, std::memory_order_relaxed);
}

KZ_API uint32_t ChannelGetDefaultMaxIOOperationSize(void) {
  kz::LazyLockGuard hold(g_networkLock);
  return g_maxIOSize.load(std::memory_order_relaxed);
}

KZ_API void KZUnixSocketSetBase(const char *name) {
  kz::LazyLockGuard hold(g_networkLock);
  std::strncpy(g_localBase, name, sizeof g_localBase - 1);
  g_localBase[sizeof g_localBase - 1] = '\0';
}

// ---- creation ----------------------------------------------------------------------------------

KZ_API Channel *ChannelNewEx(int32_t readTimeout, int32_t writeTimeout, int32_t connectTimeout) {
  Channel *channel = static_cast<Channel *>(Allocate0_(sizeof(Channel), kSource, 0));
  channel->handle = KZ_INVALID_HANDLE;
  channel->readTimeout = readTimeout < 0 ? -1 : readTimeout;
  channel->writeTimeout = writeTimeout < 0 ? -1 : writeTimeout;
  channel->connectTimeout = connectTimeout < 0 ? -1 : connectTimeout;
  channel->portRangeMin = 0;
  channel->portRangeMax = 65535;
  channel->crtDescriptor = -1;
  return channel;  // no events to create: local connections are polled sockets
}

KZ_API Channel *ChannelNew(int32_t readTimeout, int32_t writeTimeout) {
  return ChannelNewEx(readTimeout, writeTimeout, -1);
}

KZ_API uint32_t ChannelGetMemorySize(const Channel *channel) {
  if (!channel) return 0;
  return kz::net::kChannelSize + (channel->ssl ? kz::net::kSslSessionSize : 0);
}

namespace {

int32_t SetIOTimeout(Channel *channel, int32_t *field, int32_t milliseconds) {
  int32_t previous = *field;
  bool before = AnyIOTimeout(channel);
  *field = milliseconds < 0 ? -1 : milliseconds;
  bool after = AnyIOTimeout(channel);
  if (channel->handle != KZ_INVALID_HANDLE && channel->isSocket && before != after)
    SetNonBlocking(channel->handle, after);
  return previous;
}

}  // namespace

KZ_API int32_t ChannelSetReadTimeout(Channel *channel, int32_t milliseconds) {
  return SetIOTimeout(channel, &channel->readTimeout, milliseconds);
}

KZ_API int32_t ChannelSetWriteTimeout(Channel *channel, int32_t milliseconds) {
  return SetIOTimeout(channel, &channel->writeTimeout, milliseconds);
}

KZ_API int32_t ChannelSetConnectTimeout(Channel *channel, int32_t milliseconds) {
  int32_t previous = channel->connectTimeout;
  channel->connectTimeout = milliseconds;
  return previous;
}

KZ_API void ChannelSetOutboundPortRange(Channel *channel, uint16_t min, uint16_t max) {
  if (!(min <= max)) kzassert_("min <= max", kSource, 0);
  channel->portRangeMin = min;
  channel->portRangeMax = max;
  channel->nextPort = min;
}

KZ_API void ChannelSetObfuscationKey(Channel *channel, uint64_t key) {
  if (key == KZ_OBFUSCATION_OFF) {
    channel->obfuscated = 0;
    return;
  }
  channel->obfuscated = 1;
  channel->readKeyState = channel->writeKeyState = key;
}

// ---- connecting ----------------------------------------------------------------------------------

KZ_API int ChannelConnect(Channel *channel, const TCPAddr *address) {
  const bool connectTimeoutSet = channel->connectTimeout >= 0;
  const bool ioTimeoutSet = AnyIOTimeout(channel);
  kz::net::ResetEndpoint(channel);
  channel->isSocket = 1;
  if (address->family == KZ_FAMILY_LOCAL) return ConnectLocal(channel, *address);
  TCPAddr target = *address;
  IPAddr ip;
  std::memcpy(ip.address, target.address, 16);
  ip.family = target.family;
  if (KZIsFamilyIP(ip.family) && IPAddrIsAnyPtr(&ip)) {
    NET_THROW("ChannelConnect", KZ_ERR_GENERAL, "can not connect to INADDR_ANY");
    return 0;
  }
  if (target.family == KZ_FAMILY_UNSET) target.family = kz::net::DefaultFamily();
  int64_t socket = kz::net::ChannelSocket(target.family, kz::net::kStream);
  if (socket == KZ_INVALID_HANDLE) {
    NET_RETHROW("ChannelConnect", "error creating socket");
    return 0;
  }
  if (channel->portRangeMin != 0) BindFromRange(channel, socket);
  kz::os::SockAddr sa;
  if (!kz::net::ToSockAddr(target, &sa)) return FailConnect(channel, socket);
  if (sa.size == 0) kzassert_("sa.size != 0", kSource, 0);
  if (connectTimeoutSet && !SetNonBlocking(socket, 1)) return FailConnect(channel, socket);
  kz::os::ConnectResult result = kz::os::Connect(socket, sa);
  if (result == kz::os::ConnectResult::kFailed) return FailConnect(channel, socket);
  if (result == kz::os::ConnectResult::kInProgress) {
    if (!SocketWait(socket, 1, channel->connectTimeout)) return FailConnect(channel, socket);
    int pending = 0;
    uint32_t length = 0;
    if (!kz::os::PendingError(socket, &pending, &length)) return FailConnect(channel, socket);
    if (length != sizeof pending) kzassert_("len == sizeof(err)", kSource, 0);
    if (pending != 0) {
      kz::os::FailWithError(pending);
      return FailConnect(channel, socket);
    }
  }
  if (!kz::os::SetKeepAlive(socket) || !kz::os::SetNoDelay(socket)) return FailConnect(channel, socket);
  if (ioTimeoutSet != connectTimeoutSet && !SetNonBlocking(socket, ioTimeoutSet)) return FailConnect(channel, socket);
  channel->handle = socket;
  if (channel->sslRequested) {
    const kz::net::SslOps *ops = kz::net::GetSslOps();
    if (!ops) {
      NET_THROW("ChannelConnect", KZ_ERR_NOT_SUPPORTED, "SSL is not available");
      return FailConnect(channel, socket);
    }
    if (!ops->start(channel, 1)) {
      FreeSslSession(channel);
      return FailConnect(channel, socket);
    }
  }
  return 1;
}

KZ_API int ChannelConnectMultiple(Channel *channel, const TCPAddrArray *addresses) {
  if (addresses->count == 0) {
    NET_THROW("ChannelConnectMultiple", KZ_ERR_INVALID, "ChannelConnectMultiple: no TCP addresses given");
    return 0;
  }
  for (uint32_t i = 0; i < addresses->count; ++i)
    if (ChannelConnect(channel, &addresses->elements[i])) return 1;
  return 0;
}

KZ_API int ChannelConnectNamedPipeWithFlags(Channel *channel, const TCPAddr *address, uint32_t extraFlags) {
  kz::net::ResetEndpoint(channel);
  channel->isSocket = 1;
  if (address->family != KZ_FAMILY_LOCAL) return 0;
  return ConnectLocal(channel, *address);
}

KZ_API int ChannelImpersonateNamedPipeClient(Channel *channel) {
  NET_THROW("ChannelImpersonateNamedPipeClient", KZ_ERR_NOT_SUPPORTED, "not supported");
  return 0;
}

// ---- other endpoints ---------------------------------------------------------------------------

KZ_API void *ChannelAttachVirtual(Channel *channel, ChannelVirtualRead read, ChannelVirtualWrite write,
                                  ChannelVirtualRelease release, ChannelVirtualShutdown shutdown,
                                  ChannelVirtualSync sync, void *userData) {
  kz::net::ResetEndpoint(channel);
  channel->isVirtual = 1;
  channel->handle = KZ_INVALID_HANDLE;
  ChannelVirtualIO *ops = static_cast<ChannelVirtualIO *>(Allocate0_(sizeof(ChannelVirtualIO), kSource, 0));
  *ops = ChannelVirtualIO{read, write, release, shutdown, sync, userData};
  channel->virtualOps = ops;
  return userData;
}

KZ_API int ChannelMemoryIO(Channel *channel, const void *data, uint64_t size, UByteArray *target) {
  MemIO *io = static_cast<MemIO *>(Allocate0_(sizeof(MemIO), kSource, 0));
  *io = MemIO{MEMIO_MAGIC, static_cast<const unsigned char *>(data), size, 0, target};
  ChannelAttachVirtual(channel, memIoRead, memIoWrite, memIoRelease, nullptr, nullptr, io);
  return 1;
}

KZ_API int ChannelMemoryReader(Channel *channel, const void *data, uint64_t size) {
  static const unsigned char kEmpty[1] = {0};
  return ChannelMemoryIO(channel, data ? data : kEmpty, size, nullptr);
}

KZ_API int ChannelMemoryWriter(Channel *channel, UByteArray *target) {
  return ChannelMemoryIO(channel, nullptr, 0, target);
}

KZ_API int64_t ChannelMemoryIOReadOffs(const Channel *channel) {
  if (!channel || !channel->virtualOps || !channel->virtualOps->userData) {
    NET_THROW("ChannelMemoryIOReadOffs", KZ_ERR_GENERAL, "null channel");
    return -1;
  }
  const MemIO *io = static_cast<const MemIO *>(channel->virtualOps->userData);
  if (!(io->magic == MEMIO_MAGIC)) kzassert_("t->magic == MEMIO_MAGIC", kSource, 0);
  return static_cast<int64_t>(io->offset);
}

KZ_API int ChannelSetFD(Channel *channel, int descriptor, int owns) {
  ChannelDisconnect(channel);
  if (descriptor == -1) {
    errno = EINVAL;
    return 0;
  }
  if (!kz::os::IsOpen(descriptor)) return 0;  // no system handle behind it
  kz::net::ResetEndpoint(channel);
  channel->handle = descriptor;  // the descriptor is the system handle here
  channel->ownsHandle = owns ? 1 : 0;
  channel->crtDescriptor = owns ? descriptor : -1;
  return 1;
}

KZ_API int ChannelSetChannelFD(Channel *channel, int64_t handle, int owns) {
  kz::net::ResetEndpoint(channel);
  channel->handle = handle;
  channel->ownsHandle = owns ? 1 : 0;
  return 1;
}

KZ_API int ChannelCreatePipe(int descriptors[2]) { return kz::os::Pipe(descriptors) ? 1 : 0; }

KZ_API int ChannelOpenFile(Channel *channel, const char *utf8Name, const char *mode) {
  return ChannelOpenFileEx(channel, utf8Name, mode);
}

KZ_API int ChannelOpenFileUCS2(Channel *channel, const uint16_t *name, uint32_t length, const char *mode) {
  UByteArray utf8{};
  if (!UCS2Decode(&utf8, name, length)) {
    ArrayFree_(&utf8);
    ChannelDisconnect(channel);
    errno = EINVAL;
    return 0;
  }
  kz::View(utf8, kSource, 0).Append('\0');
  int result = ChannelOpenFileEx(channel, reinterpret_cast<const char *>(utf8.elements), mode);
  ArrayFree_(&utf8);
  return result;
}

// ---- files -----------------------------------------------------------------------------------------

KZ_API int ChannelFileSeek(Channel *channel, int64_t offset) {
  if (!IsFile(channel)) {
    NET_THROW("ChannelFileSeek", KZ_ERR_GENERAL, "ChannelFileSeek: the Channel is not a file");
    return 0;
  }
  if (!ChannelFlush(channel)) return 0;
  channel->readPos = channel->readFill;
  return kz::os::Seek(channel->handle, offset, offset < 0 ? 2 : 0) >= 0;
}

KZ_API int ChannelFileTell(Channel *channel, int64_t *position) {
  if (!IsFile(channel)) {
    NET_THROW("ChannelFileTell", KZ_ERR_GENERAL, "ChannelFileSeek: the Channel is not a file");
    return 0;
  }
  if (!ChannelFlush(channel)) return 0;
  int64_t current = kz::os::Seek(channel->handle, 0, 1);
  if (current < 0) return 0;
  *position = current - (channel->readFill - channel->readPos);
  return 1;
}

KZ_API int ChannelFileTruncate(Channel *channel, int64_t length, int flag) {
  if (!IsFile(channel)) {
    NET_THROW("ChannelFileTruncate", KZ_ERR_GENERAL, "ChannelFileTruncate: the Channel is not a file");
    return 0;
  }
  if (!kz::os::Truncate(channel->handle, length)) return 0;
  if (flag) {
    channel->readPos = channel->readFill;
    if (kz::os::Seek(channel->handle, length, 0) < 0) return 0;
  }
  return 1;
}

// ---- state -------------------------------------------------------------------------------------------

KZ_API void ChannelDisconnect(Channel *channel) {
  if (channel->handle == KZ_INVALID_HANDLE) {
    ReleaseVirtual(channel);
    return;
  }
  FreeSslSession(channel);
  {
    kz::ErrorStateKept kept;
    CloseOwned(channel);
  }
  channel->handle = KZ_INVALID_HANDLE;
}

KZ_API int ChannelConnected(const Channel *channel) {
  if (channel->isVirtual) return channel->virtualOps != nullptr;
  return channel->handle != KZ_INVALID_HANDLE;
}

KZ_API int ChannelIsSocket(const Channel *channel) { return static_cast<int>(channel->isSocket); }

KZ_API int ChannelGetAddr(const Channel *channel, TCPAddr *out, int peer) {
  if (channel->isVirtual || channel->handle == KZ_INVALID_HANDLE) {
    errno = EINVAL;
    return 0;
  }
  kz::os::SockAddr sa;
  if (!(peer ? kz::os::PeerName(channel->handle, &sa) : kz::os::LocalName(channel->handle, &sa))) return 0;
  TCPAddr address{};
  address.family = kz::os::ReadSockAddr(sa, address.address, &address.port);
  if (address.family == KZ_FAMILY_UNSET) {
    errno = EINVAL;
    return 0;
  }
  *out = address;
  return 1;
}

KZ_API int ChannelGetSecurityFlags(const Channel *channel, uint32_t *flags) {
  TCPAddr local, peer;
  if (!channel->isSocket || channel->handle == KZ_INVALID_HANDLE) {
    NET_THROW("ChannelGetSecurityFlags", KZ_ERR_INVALID, "not implemented on this family");
    return 0;
  }
  if (!ChannelGetAddr(channel, &local, 0) || !ChannelGetAddr(channel, &peer, 1)) return 0;
  return TCPAddrPeerGetSecurityFlags(&local, &peer, flags);
}

KZ_API int ChannelShutdown(Channel *channel) {
  if (channel->isNamedPipe) {
    NET_THROW("ChannelShutdown", KZ_ERR_INVALID, "ChannelShutdown: operation not supported");
    return 0;
  }
  if (channel->isVirtual) {
    if (channel->virtualOps && channel->virtualOps->shutdown)
      return channel->virtualOps->shutdown(channel->virtualOps->userData) == 0;
    NET_THROW("ChannelShutdown", KZ_ERR_INVALID, "not implemented");
    return 0;
  }
  if (channel->ssl) return 1;
  return kz::os::Shutdown(channel->handle, 1) ? 1 : 0;
}

KZ_API int ChannelClose(Channel *channel) {
  if (!channel) return 1;
  bool failed = false;
  if (channel->handle != KZ_INVALID_HANDLE) {
    if (channel->writeCount > 0 && !ChannelFlush(channel)) {
      kz::ErrorStateKept kept;
      FreeSslSession(channel);
      CloseOwned(channel);
      failed = true;
    } else {
      const kz::net::SslOps *ops = kz::net::GetSslOps();
      if (channel->ssl && ops) {
        ops->shutdown(channel);
        ops->freeSession(channel);
      }
      if (!CloseOwned(channel)) failed = true;
    }
    channel->handle = KZ_INVALID_HANDLE;
  }
  ReleaseVirtual(channel);
  const kz::net::SslOps *ops = kz::net::GetSslOps();
  if (channel->sslContext && ops) ops->freeContext(channel->sslContext);
  std::free(channel);
  if (!failed) return 1;
  if (errno != -2) errno = -1;  // a raised error (a flush time-out) stays the reason
  return 0;
}

// ---- sockets ---------------------------------------------------------------------------------------------

KZ_API int ChannelDisconnectFD(int64_t socket) { return kz::os::Shutdown(socket, 2) ? 1 : 0; }

KZ_API int SetNonBlocking(int64_t socket, int on) {
  if (kz::os::SetNonBlocking(socket, on != 0)) return 1;
  NET_RETHROW("SetNonBlocking", "ioctlsocket(FIONBIO, %d)", on);
  return 0;
}

KZ_API int SocketWait(int64_t socket, int forWrite, int32_t timeoutMs) {
  int ready = kz::os::Wait(socket, forWrite != 0, timeoutMs);
  if (ready > 0) return 1;
  if (ready == 0) NET_THROW("SocketWait", KZ_ERR_TIMEOUT, "timeout");
  return 0;
}
