// Network addresses: parsing of address literals.
#include "kz/addr.h"

#include <cstring>

#include "internal/os/net.h"

namespace {

// Exactly four decimal parts separated by '.', each 0..255, none empty.
// Leading zeros are read as decimal ("010" is 10), never octal.
bool ParseDottedQuad(const char *text, uint32_t *value) {
  uint32_t result = 0;
  const char *p = text;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (*p != '.') return false;
      ++p;
    }
    if (*p < '0' || *p > '9') return false;
    uint32_t octet = 0;
    while (*p >= '0' && *p <= '9') {
      octet = octet * 10 + static_cast<uint32_t>(*p - '0');
      if (octet > 255) return false;
      ++p;
    }
    result = result << 8 | octet;
  }
  if (*p != '\0') return false;
  *value = result;
  return true;
}

}  // namespace

KZ_API int IPAddrSetIP(IPAddr *out, const char *text) {
  uint32_t v4;
  if (ParseDottedQuad(text, &v4)) {
    std::memcpy(out->address, &v4, sizeof v4);  // host byte order
    out->family = KZ_FAMILY_IPV4;
    return 1;
  }
  out->family = KZ_FAMILY_UNSET;
  size_t length = std::strlen(text);
  char unbracketed[64];
  const char *literal = text;
  if (length >= 3 && text[0] == '[' && text[length - 1] == ']') {
    if (length - 2 >= sizeof unbracketed) return 0;  // longer than any IPv6 literal
    std::memcpy(unbracketed, text + 1, length - 2);
    unbracketed[length - 2] = '\0';
    literal = unbracketed;
  }
  unsigned char bytes[16];
  if (!kz::os::ParseIPv6(literal, bytes)) return 0;
  std::memcpy(out->address, bytes, sizeof bytes);
  out->family = KZ_FAMILY_IPV6;
  return 1;
}
