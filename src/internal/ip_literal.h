// Reading an IPv4 or IPv6 address literal: the addresses family's
// IPAddrSetIP, and the URL family's test whether a host is an address (which
// needs no other part of the network families).
#pragma once

#include <cstdint>
#include <cstring>

#include "internal/os/net.h"
#include "kz/addr.h"

namespace kz {

// Exactly four decimal parts separated by '.', each 0..255, none empty.
// Leading zeros are read as decimal ("010" is 10), never octal.
inline bool ParseDottedQuad(const char *text, uint32_t *value) {
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

// A dotted quad (stored in host order) or an IPv6 literal, bare or in
// brackets, into *out; false with out->family KZ_FAMILY_UNSET otherwise.
inline bool ParseIPLiteral(IPAddr *out, const char *text) {
  uint32_t v4;
  if (ParseDottedQuad(text, &v4)) {
    std::memset(out->address, 0, sizeof out->address);
    std::memcpy(out->address, &v4, 4);
    out->family = KZ_FAMILY_IPV4;
    return true;
  }
  out->family = KZ_FAMILY_UNSET;
  size_t length = std::strlen(text);
  char unbracketed[64];
  const char *literal = text;
  if (length >= 3 && text[0] == '[' && text[length - 1] == ']') {
    if (length - 2 >= sizeof unbracketed) return false;  // longer than any IPv6 literal
    std::memcpy(unbracketed, text + 1, length - 2);
    unbracketed[length - 2] = '\0';
    literal = unbracketed;
  }
  unsigned char bytes[16];
  if (!os::ParseIPv6(literal, bytes)) return false;
  std::memcpy(out->address, bytes, sizeof bytes);
  out->family = KZ_FAMILY_IPV6;
  return true;
}

}  // namespace kz
