// Network addresses: families, tests, masks, parsing, resolution, printing
// and family changes.
#include "kz/addr.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/ip_literal.h"
#include "internal/os/net.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/format.h"
#include "net/channel_internal.h"

using kz::net::kSource;

namespace {

#define ADDR_THROW(function, code, ...) KZ_THROW_AT(kSource, 0, function, code, __VA_ARGS__)

uint32_t V4(const IPAddr &address) {
  uint32_t value;
  std::memcpy(&value, address.address, 4);
  return value;
}

void SetV4(IPAddr *out, uint32_t value) {
  std::memset(out->address, 0, sizeof out->address);
  std::memcpy(out->address, &value, 4);
  out->family = KZ_FAMILY_IPV4;
}

// The address in network order, and its length: 4 or 16 bytes, 0 for other
// families.
uint32_t NetworkBytes(const IPAddr &address, unsigned char bytes[16]) {
  if (address.family == KZ_FAMILY_IPV4) {
    uint32_t v = V4(address);
    bytes[0] = static_cast<unsigned char>(v >> 24);
    bytes[1] = static_cast<unsigned char>(v >> 16);
    bytes[2] = static_cast<unsigned char>(v >> 8);
    bytes[3] = static_cast<unsigned char>(v);
    return 4;
  }
  if (address.family == KZ_FAMILY_IPV6) {
    std::memcpy(bytes, address.address, 16);
    return 16;
  }
  return 0;
}

void StoreNetworkBytes(IPAddr *address, const unsigned char bytes[16]) {
  if (address->family == KZ_FAMILY_IPV4)
    SetV4(address, uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3]);
  else
    std::memcpy(address->address, bytes, 16);
}

IPAddr ToIP(const TCPAddr &address) {
  IPAddr ip;
  std::memcpy(ip.address, address.address, 16);
  ip.family = address.family;
  return ip;
}

void FromIP(TCPAddr *out, const IPAddr &ip, uint16_t port) {
  std::memcpy(out->address, ip.address, 16);
  out->family = ip.family;
  out->port = port;
}

// Masks bytes[0, size) keeping `bits` from the left (fromLeft) or the right.
void MaskBytes(unsigned char *bytes, uint32_t size, uint32_t bits, bool fromLeft) {
  for (uint32_t i = 0; i < size; ++i) {
    uint32_t index = fromLeft ? i : size - 1 - i;  // i-th byte from the kept end
    if (bits >= 8 * (i + 1)) continue;
    uint32_t keep = bits > 8 * i ? bits - 8 * i : 0;
    unsigned char mask =
        fromLeft ? static_cast<unsigned char>(0xFF00u >> keep) : static_cast<unsigned char>((1u << keep) - 1);
    bytes[index] &= mask;
  }
}

int MaskAddress(IPAddr *address, uint32_t bits, bool fromLeft) {
  unsigned char bytes[16];
  uint32_t size = NetworkBytes(*address, bytes);
  if (size == 0 || bits > size * 8) return 0;
  MaskBytes(bytes, size, bits, fromLeft);
  StoreNetworkBytes(address, bytes);
  return 1;
}

int EqualsWithMask(const IPAddr *a, const IPAddr *b, uint32_t bits, bool fromLeft) {
  if (a->family != b->family || !KZIsFamilyIP(a->family)) return 0;
  unsigned char x[16], y[16];
  uint32_t size = NetworkBytes(*a, x);
  NetworkBytes(*b, y);
  if (bits > size * 8) return 0;
  MaskBytes(x, size, bits, fromLeft);
  MaskBytes(y, size, bits, fromLeft);
  return std::memcmp(x, y, size) == 0;
}

void AppendText(UByteArray *text, const char *bytes) {
  auto view = kz::View(*text, kSource, 0);
  size_t length = std::strlen(bytes);
  view.Reserve(uint64_t(text->count) + length + 1);
  view.Append(reinterpret_cast<const unsigned char *>(bytes), length);
  text->elements[text->count] = '\0';
}

bool IsMappedV4(const unsigned char bytes[16]) {
  static const unsigned char kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::memcmp(bytes, kPrefix, 12) == 0;
}

// A local-connection name ("/name" with the "/" already removed).
int SetLocalName(IPAddr *out, const char *name, const char *function) {
  if (std::strlen(name) > KZ_LOCAL_NAME_MAX) {
    ADDR_THROW(function, KZ_ERR_GENERAL, "socket name too long");
    return 0;
  }
  if (std::strpbrk(name, "/\\")) {
    ADDR_THROW(function, KZ_ERR_GENERAL, "socket name must not contain '/' and '\\' chars");
    return 0;
  }
  std::memset(out->address, 0, sizeof out->address);
  std::memcpy(out->address, name, std::strlen(name));
  out->family = KZ_FAMILY_LOCAL;
  return 1;
}

// Resolves host into out[0, max) in preference order: the default family's
// addresses first, the resolver's order within each family, duplicates once.
int ResolveOrdered(const char *host, IPAddr *out, int max, const char *function) {
  if (host[0] == '/') return SetLocalName(out, host + 1, function);
  IPAddr literal;
  if (IPAddrSetIP(&literal, host)) {
    out[0] = literal;
    return 1;
  }
  IPAddr found[32];
  char error[256];
  int count = kz::os::Resolve(host, found, 32, error, sizeof error);
  if (count < 0) {
    ADDR_THROW(function, KZ_ERR_GENERAL, "Could not resolve host: %s: %s", host, error);
    return 0;
  }
  uint32_t preferred = kz::net::DefaultFamily();
  int stored = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < count && stored < max; ++i) {
      if ((found[i].family == preferred) != (pass == 0)) continue;
      bool seen = false;
      for (int j = 0; j < stored; ++j) seen = seen || IPAddrEqualsPtr(&out[j], &found[i]);
      if (!seen) out[stored++] = found[i];
    }
  }
  return stored;
}

// Splits "host:port" at the last ':' outside brackets; an empty host is
// "localhost". false after raising "invalid address (missing ':' char)".
bool SplitHostPort(const char *text, char host[256], const char **port, const char *function) {
  const char *separator = nullptr;
  int depth = 0;
  for (const char *p = text; *p; ++p) {
    if (*p == '[')
      ++depth;
    else if (*p == ']' && depth > 0)
      --depth;
    else if (*p == ':' && depth == 0)
      separator = p;
  }
  if (!separator) {
    ADDR_THROW(function, KZ_ERR_GENERAL, "invalid address (missing ':' char)");
    return false;
  }
  size_t length = static_cast<size_t>(separator - text);
  if (length > 255) length = 255;
  if (length == 0) {
    std::strcpy(host, "localhost");
  } else {
    std::memcpy(host, text, length);
    host[length] = '\0';
  }
  *port = separator + 1;
  return true;
}

}  // namespace

// ---- families ------------------------------------------------------------------

KZ_API int KZIsFamilySupported(uint32_t family) { return family == KZ_FAMILY_IPV4 || family == KZ_FAMILY_IPV6; }

KZ_API int KZIsFamilyIP(uint32_t family) { return family == KZ_FAMILY_IPV4 || family == KZ_FAMILY_IPV6; }

KZ_API uint32_t IPAddrGetFamilySize(uint32_t family) {
  return family == KZ_FAMILY_IPV4 ? 4 : family == KZ_FAMILY_IPV6 || family == KZ_FAMILY_LOCAL ? 16 : 0;
}

// ---- wildcard and loopback ------------------------------------------------------

KZ_API void IPAddrAny(IPAddr *out, uint32_t family) {
  if (family == KZ_FAMILY_UNSET) family = kz::net::DefaultFamily();
  std::memset(out->address, 0, sizeof out->address);
  if (!KZIsFamilyIP(family)) kzassert_("FALSE", kSource, 0);
  out->family = family;
}

KZ_API void IPAddrLocal(IPAddr *out, uint32_t family) {
  if (family == KZ_FAMILY_UNSET) family = kz::net::DefaultFamily();
  std::memset(out->address, 0, sizeof out->address);
  if (family == KZ_FAMILY_IPV4) {
    SetV4(out, 0x7F000001u);
  } else if (family == KZ_FAMILY_IPV6) {
    out->address[15] = 1;
    out->family = KZ_FAMILY_IPV6;
  } else {
    out->family = KZ_FAMILY_UNSET;
    kzassert_("FALSE", kSource, 0);
  }
}

KZ_API void TCPAddrAny(TCPAddr *out, uint32_t family, uint16_t port) {
  IPAddr ip;
  IPAddrAny(&ip, family);
  FromIP(out, ip, port);
}

KZ_API void TCPAddrLocal(TCPAddr *out, uint32_t family, uint16_t port) {
  IPAddr ip;
  IPAddrLocal(&ip, family);
  FromIP(out, ip, port);
}

// ---- tests -------------------------------------------------------------------------

KZ_API int IPAddrIsAnyPtr(const IPAddr *address) {
  static const unsigned char kZero[16] = {};
  if (address->family == KZ_FAMILY_IPV4) return V4(*address) == 0;
  if (address->family == KZ_FAMILY_IPV6) return std::memcmp(address->address, kZero, 16) == 0;
  return 0;
}

KZ_API int IPAddrIsAny(IPAddr address) { return IPAddrIsAnyPtr(&address); }

KZ_API int IPAddrIsLocal(const IPAddr *address) {
  if (address->family == KZ_FAMILY_IPV4) {
    IPAddr loopbackNet;
    SetV4(&loopbackNet, 0x7F000000u);
    return IPAddrEqualsWithLeftMask(address, &loopbackNet, 8);
  }
  if (address->family == KZ_FAMILY_IPV6) {
    static const unsigned char kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return std::memcmp(address->address, kLoopback, 16) == 0;
  }
  return 0;
}

KZ_API int IPAddrIsPrivate(const IPAddr *address) {
  if (address->family == KZ_FAMILY_IPV4) {
    static const struct {
      uint32_t network, bits;
    } kRanges[] = {{0xC0A80000u, 16}, {0xAC100000u, 12}, {0x0A000000u, 8}, {0xA9FE0000u, 16}};
    for (const auto &range : kRanges) {
      IPAddr network;
      SetV4(&network, range.network);
      if (IPAddrEqualsWithLeftMask(address, &network, range.bits)) return 1;
    }
    return 0;
  }
  if (address->family == KZ_FAMILY_IPV6) return address->address[0] == 0xFE && (address->address[1] & 0xC0) == 0x80;
  return 0;
}

KZ_API int IPAddrIsBindable(const IPAddr *address) {
  kz::ErrorStateKept kept;  // a trial: the caller's error state stays
  int family = kz::os::SystemFamily(address->family);
  if (!KZIsFamilyIP(address->family) || family < 0) return 0;
  int64_t socket = kz::os::Socket(family, kz::os::SystemSocketType(kz::net::kDatagram));
  if (socket == KZ_INVALID_HANDLE) return 0;
  kz::os::SockAddr sa;
  kz::os::MakeSockAddr(address->family, address->address, 0, &sa);
  bool bound = kz::os::Bind(socket, sa);
  kz::os::Close(socket);
  return bound;
}

KZ_API int TCPAddrIsBindable(const TCPAddr *address) {
  kz::ErrorStateKept kept;
  uint32_t family = address->family == KZ_FAMILY_UNSET ? kz::net::DefaultFamily() : address->family;
  if (!KZIsFamilyIP(family)) return 0;
  int64_t socket = kz::os::Socket(kz::os::SystemFamily(family), kz::os::SystemSocketType(kz::net::kStream));
  if (socket == KZ_INVALID_HANDLE) return 0;
  kz::os::SockAddr sa;
  kz::os::MakeSockAddr(family, address->address, address->port, &sa);
  bool listening = kz::os::TrialListen(socket, sa);
  kz::os::Close(socket);
  return listening;
}

// ---- masks ---------------------------------------------------------------------------

KZ_API int IPAddrMaskLeft(IPAddr *address, uint32_t bits) { return MaskAddress(address, bits, true); }
KZ_API int IPAddrMask(IPAddr *address, uint32_t bits) { return MaskAddress(address, bits, true); }
KZ_API int IPAddrMaskRight(IPAddr *address, uint32_t bits) { return MaskAddress(address, bits, false); }

KZ_API int IPAddrEqualsWithLeftMask(const IPAddr *a, const IPAddr *b, uint32_t bits) {
  return EqualsWithMask(a, b, bits, true);
}
KZ_API int IPAddrEqualsWithMask(const IPAddr *a, const IPAddr *b, uint32_t bits) {
  return EqualsWithMask(a, b, bits, true);
}
KZ_API int IPAddrEqualsWithRightMask(const IPAddr *a, const IPAddr *b, uint32_t bits) {
  return EqualsWithMask(a, b, bits, false);
}

KZ_API int IPAddrCopyWithLeftMask(IPAddr *out, const IPAddr *source, uint32_t bits) {
  *out = *source;
  return MaskAddress(out, bits, true);
}

KZ_API int IPAddrCopyWithRightMask(IPAddr *out, const IPAddr *source, uint32_t bits) {
  *out = *source;
  return MaskAddress(out, bits, false);
}

// ---- equality --------------------------------------------------------------------------

KZ_API int IPAddrEqualsPtr(const IPAddr *a, const IPAddr *b) {
  if (a->family != b->family) return 0;
  switch (a->family) {
    case KZ_FAMILY_IPV4: return V4(*a) == V4(*b);
    case KZ_FAMILY_IPV6: return std::memcmp(a->address, b->address, 16) == 0;
    case KZ_FAMILY_LOCAL:
      return std::strncmp(reinterpret_cast<const char *>(a->address), reinterpret_cast<const char *>(b->address), 16) ==
             0;
    default: return 1;
  }
}

KZ_API int IPAddrEquals(IPAddr a, IPAddr b) { return IPAddrEqualsPtr(&a, &b); }

KZ_API int TCPAddrEquals(const TCPAddr *a, const TCPAddr *b) {
  IPAddr x = ToIP(*a), y = ToIP(*b);
  return a->port == b->port && IPAddrEqualsPtr(&x, &y);
}

// ---- parsing ---------------------------------------------------------------------------

KZ_API int IPAddrSetIP(IPAddr *out, const char *text) { return kz::ParseIPLiteral(out, text) ? 1 : 0; }

KZ_API int IPAddrSetIPMask(IPAddr *out, const char *text) {
  const char *slash = std::strrchr(text, '/');
  if (!slash) return IPAddrSetIP(out, text);
  char address[64];
  size_t length = static_cast<size_t>(slash - text);
  if (length >= sizeof address || slash[1] == '\0') return 0;
  std::memcpy(address, text, length);
  address[length] = '\0';
  uint32_t bits = 0;
  for (const char *p = slash + 1; *p; ++p) {
    if (*p < '0' || *p > '9' || bits > 128) return 0;
    bits = bits * 10 + static_cast<uint32_t>(*p - '0');
  }
  IPAddr parsed;
  if (!IPAddrSetIP(&parsed, address) || !IPAddrMaskLeft(&parsed, bits)) return 0;
  *out = parsed;
  return 1;
}

KZ_API int TCPAddrSetPort(uint16_t *port, const char *text) {
  if (text[0] == '\0') {
    *port = 0;
    return 1;
  }
  bool digits = true;
  uint32_t value = 0;
  for (const char *p = text; *p && digits; ++p) {
    digits = *p >= '0' && *p <= '9';
    if (digits && value <= 65535) value = value * 10 + static_cast<uint32_t>(*p - '0');
  }
  if (digits) {
    if (value > 65535) {
      ADDR_THROW("TCPAddrSetPort", KZ_ERR_GENERAL, "invalid port number");
      return 0;
    }
    *port = static_cast<uint16_t>(value);
    return 1;
  }
  return kz::os::ServicePort(text, port) ? 1 : 0;
}

KZ_API int TCPAddrParsePortArg(TCPAddr *out, const char *text) {
  if (text[0] != '/') {
    bool digits = text[0] != '\0';
    uint32_t value = 0;
    for (const char *p = text; *p && digits; ++p) {
      digits = *p >= '0' && *p <= '9';
      if (digits && value <= 65535) value = value * 10 + static_cast<uint32_t>(*p - '0');
    }
    if (digits) {
      if (value == 0 || value > 65535) return 0;
      TCPAddrAny(out, KZ_FAMILY_UNSET, static_cast<uint16_t>(value));
      return 1;
    }
    return TCPAddrSetHostPort(out, text);
  }
  const char *second = std::strchr(text + 1, '/');
  if (!second) return TCPAddrSetHostPort(out, text);
  char base[64];
  size_t length = static_cast<size_t>(second - text - 1);
  if (length >= sizeof base) length = sizeof base - 1;
  std::memcpy(base, text + 1, length);
  base[length] = '\0';
  KZUnixSocketSetBase(base);
  return TCPAddrSetHostPort(out, second);
}

// ---- resolution ---------------------------------------------------------------------------

KZ_API int IPAddrSetHost(IPAddr *out, const char *host) {
  IPAddr found;
  if (ResolveOrdered(host, &found, 1, "IPAddrSetHost_") != 1) return 0;
  *out = found;
  return 1;
}

KZ_API int IPAddrSetHostMultiple(IPAddrArray *out, const char *host) {
  IPAddr found[32];
  int count = ResolveOrdered(host, found, 32, "IPAddrSetHost_");
  if (count <= 0) return 0;
  kz::View(*out, kSource, 0).Append(found, static_cast<uint64_t>(count));
  return 1;
}

KZ_API int TCPAddrSetHostPort(TCPAddr *out, const char *text) {
  char host[256];
  const char *portText;
  uint16_t port;
  if (!SplitHostPort(text, host, &portText, "TCPAddrSplitHostPort") || !TCPAddrSetPort(&port, portText)) return 0;
  IPAddr ip;
  if (!IPAddrSetHost(&ip, host)) return 0;
  FromIP(out, ip, port);
  return 1;
}

KZ_API int TCPAddrSetHostPortMultiple(TCPAddrArray *out, const char *text) {
  char host[256];
  const char *portText;
  uint16_t port;
  if (!SplitHostPort(text, host, &portText, "TCPAddrSplitHostPort") || !TCPAddrSetPort(&port, portText)) return 0;
  IPAddr found[32];
  int count = ResolveOrdered(host, found, 32, "IPAddrSetHost_");
  if (count <= 0) return 0;
  auto view = kz::View(*out, kSource, 0);
  for (int i = 0; i < count; ++i) {
    TCPAddr address;
    FromIP(&address, found[i], port);
    view.Append(address);
  }
  return 1;
}

// ---- printing -------------------------------------------------------------------------------

KZ_API int IPAddrGetIP(const IPAddr *address, UByteArray *text) {
  char buffer[80];
  if (address->family == KZ_FAMILY_IPV4) {
    uint32_t v = V4(*address);
    snprintf(buffer, sizeof buffer, "%d.%d.%d.%d", int(v >> 24), int(v >> 16 & 0xFF), int(v >> 8 & 0xFF),
             int(v & 0xFF));
  } else if (address->family == KZ_FAMILY_IPV6) {
    if (!kz::os::FormatIPv6(address->address, buffer)) return 0;
  } else if (address->family == KZ_FAMILY_LOCAL) {
    snprintf(buffer, sizeof buffer, "/%.16s", reinterpret_cast<const char *>(address->address));
  } else {
    errno = EINVAL;
    return 0;
  }
  AppendText(text, buffer);
  return 1;
}

KZ_API int IPAddrGetIPReverse(const IPAddr *address, UByteArray *text) {
  char buffer[128];
  if (address->family == KZ_FAMILY_IPV4) {
    uint32_t v = V4(*address);
    snprintf(buffer, sizeof buffer, "%d.%d.%d.%d.IN-ADDR.ARPA.", int(v & 0xFF), int(v >> 8 & 0xFF), int(v >> 16 & 0xFF),
             int(v >> 24));
  } else if (address->family == KZ_FAMILY_IPV6) {
    char *p = buffer;
    for (int i = 15; i >= 0; --i) {
      p += snprintf(p, 5, "%x.", address->address[i] & 0xF);
      p += snprintf(p, 5, "%x.", address->address[i] >> 4);
    }
    std::strcpy(p, "IP6.ARPA.");
  } else {
    errno = EINVAL;
    return 0;
  }
  AppendText(text, buffer);
  return 1;
}

KZ_API int TCPAddrGetIPPort(const TCPAddr *address, UByteArray *text) {
  IPAddr ip = ToIP(*address);
  char port[16];
  snprintf(port, sizeof port, ":%d", address->port);
  if (ip.family == KZ_FAMILY_IPV6) AppendText(text, "[");
  if (!IPAddrGetIP(&ip, text)) return 0;
  if (ip.family == KZ_FAMILY_IPV6) AppendText(text, "]");
  AppendText(text, port);
  return 1;
}

KZ_API int IPAddrGetHost(const IPAddr *address, UByteArray *text) {
  if (address->family == KZ_FAMILY_LOCAL) return IPAddrGetIP(address, text);
  char host[1025], error[256];
  if (!KZIsFamilyIP(address->family) || !kz::os::ReverseLookup(*address, host, sizeof host, error, sizeof error)) {
    ADDR_THROW("IPAddrGetHost", KZ_ERR_GENERAL, "Could not resolve address");
    return 0;
  }
  AppendText(text, host);
  return 1;
}

KZ_API int TCPAddrGetHostPort(const TCPAddr *address, UByteArray *text) {
  IPAddr ip = ToIP(*address);
  if (!IPAddrGetHost(&ip, text)) return 0;
  char port[16];
  snprintf(port, sizeof port, ":%d", address->port);
  AppendText(text, port);
  return 1;
}

// ---- family changes ------------------------------------------------------------------------

KZ_API int IPAddrChangeFamily(IPAddr *address, uint32_t family) {
  if (!KZIsFamilyIP(family)) {
    ADDR_THROW("IPAddrChangeFamily", KZ_ERR_GENERAL, "invalid mapping family");
    return 0;
  }
  if (address->family == family) return 1;
  if (family == KZ_FAMILY_IPV6 && address->family == KZ_FAMILY_IPV4) {
    unsigned char bytes[16];
    IPAddrCopyAddr6(address, bytes);
    IPAddrSetAddr6(address, bytes);
    return 1;
  }
  if (family == KZ_FAMILY_IPV4 && address->family == KZ_FAMILY_IPV6 && IsMappedV4(address->address)) {
    const unsigned char *b = address->address + 12;
    SetV4(address, uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3]);
    return 1;
  }
  ADDR_THROW("IPAddrChangeFamily", KZ_ERR_GENERAL, "unable to map the address to the specified class");
  return 0;
}

KZ_API void IPAddrFromIPAddr4(IPAddr *out, uint32_t address) { SetV4(out, address); }

KZ_API void IPAddrFromIPAddr6(IPAddr *out, const unsigned char address[16]) {
  std::memcpy(out->address, address, 16);
  out->family = KZ_FAMILY_IPV6;
}

KZ_API int IPAddrGetAddr4Ptr(const IPAddr *address, uint32_t *out) {
  if (address->family == KZ_FAMILY_IPV4) {
    *out = V4(*address);
    return 1;
  }
  if (address->family == KZ_FAMILY_IPV6 && IsMappedV4(address->address)) {
    const unsigned char *b = address->address + 12;
    *out = uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
    return 1;
  }
  ADDR_THROW("IPAddrGetAddr4Ptr", KZ_ERR_GENERAL, "can not extract IPv4 address");
  return 0;
}

KZ_API int IPAddrGetAddr4(IPAddr address, uint32_t *out) { return IPAddrGetAddr4Ptr(&address, out); }

KZ_API void IPAddrSetAddr4(IPAddr *out, uint32_t address) { SetV4(out, address); }

KZ_API void IPAddrSetAddr6(IPAddr *out, const unsigned char address[16]) { IPAddrFromIPAddr6(out, address); }

KZ_API int IPAddrCopyAddr6(const IPAddr *address, unsigned char out[16]) {
  if (address->family == KZ_FAMILY_IPV6) {
    std::memcpy(out, address->address, 16);
    return 1;
  }
  if (address->family == KZ_FAMILY_IPV4) {
    unsigned char bytes[16];
    NetworkBytes(*address, bytes);
    std::memset(out, 0, 10);
    out[10] = out[11] = 0xFF;
    std::memcpy(out + 12, bytes, 4);
    return 1;
  }
  return 0;
}

KZ_API void TCPAddrIpPort(TCPAddr *out, const IPAddr *address, uint16_t port) { FromIP(out, *address, port); }

// ---- socket addresses ------------------------------------------------------------------------

bool kz::net::ToSockAddr(const TCPAddr &address, kz::os::SockAddr *out) {
  if (address.family == KZ_FAMILY_UNSET) {
    ADDR_THROW("SOCaddr_copyaddrpv", KZ_ERR_GENERAL, "uninitialized address family");
    return false;
  }
  if (!KZIsFamilyIP(address.family)) {
    ADDR_THROW("SOCaddr_copyaddrpv", KZ_ERR_GENERAL, "invalid address family");
    return false;
  }
  kz::os::MakeSockAddr(address.family, address.address, address.port, out);
  if (out->size == 0) kzassert_("tcpaddrpv->size != 0", kSource, 0);
  return true;
}

// ---- peer security flags ---------------------------------------------------------------------

KZ_API int TCPAddrPeerGetSecurityFlags(const TCPAddr *local, const TCPAddr *peer, uint32_t *flags) {
  if (!KZIsFamilyIP(peer->family) || !KZIsFamilyIP(local->family)) {
    ADDR_THROW("TCPAddrPeerGetSecurityFlags", KZ_ERR_INVALID, "not implemented on this family");
    return 0;
  }
  IPAddr peerIP = ToIP(*peer);
  if (!IPAddrIsLocal(&peerIP)) {
    IPAddr mapped = peerIP;  // ::ffff:127.x.y.z is a loopback peer too
    if (!(mapped.family == KZ_FAMILY_IPV6 && IsMappedV4(mapped.address) &&
          IPAddrChangeFamily(&mapped, KZ_FAMILY_IPV4) && IPAddrIsLocal(&mapped))) {
      *flags = 0;
      return 1;
    }
  }
  int found = kz::os::PeerSecurityFlags(*local, *peer, flags);
  if (found < 0) {
    ADDR_THROW("TCPAddrPeerGetSecurityFlags", KZ_ERR_INVALID, "not available on this platform");
    return 0;
  }
  return found;
}
