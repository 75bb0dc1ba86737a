/* kzlib: network addresses.
 *
 * IPAddr holds an IPv4 or IPv6 address (or, later, a local-connection name)
 * as a plain value: copy it freely, nothing in it is owned. An IPv4 address
 * is a 32-bit value in host byte order in the first four bytes; an IPv6
 * address is its 16 bytes in network order.
 */
#ifndef KZ_ADDR_H
#define KZ_ADDR_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* Address families: 0 is unset (where a function says so, the library's
 * default family), then IPv4, IPv6 and local connections. */
#define KZ_FAMILY_UNSET 0u
#define KZ_FAMILY_IPV4 1u
#define KZ_FAMILY_IPV6 2u
#define KZ_FAMILY_LOCAL 3u

typedef struct IPAddr {
  unsigned char address[16];
  uint32_t family;
} IPAddr;

/* An IPAddr followed by a port in host byte order. */
typedef struct TCPAddr {
  unsigned char address[16];
  uint32_t family;
  uint16_t port;
} TCPAddr;

/* Parses an IP address literal. A strict dotted quad (exactly four decimal
 * parts of at most 255, leading zeros allowed and read as decimal, nothing
 * else) gives IPv4; otherwise the family is reset to 0 and the text is read
 * as IPv6 by the system's parser, optionally wrapped in "[" and "]". Returns
 * 1 on success, 0 otherwise; records no error. */
KZ_API int IPAddrSetIP(IPAddr *out, const char *text);

KZ_END_DECLS

#endif /* KZ_ADDR_H */
