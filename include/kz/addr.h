/* kzlib: network addresses.
 *
 * IPAddr holds an IPv4 or IPv6 address, or a local-connection name, as a
 * plain value: copy it freely, nothing in it is owned. An IPv4 address is a
 * 32-bit value in host byte order in the first four bytes; an IPv6 address is
 * its 16 bytes in network order; a local-connection name is a NUL-terminated
 * text of at most 15 bytes. TCPAddr adds a port in host byte order.
 *
 * Signatures: records are passed by pointer, except where a ...Ptr twin
 * exists (IPAddrIsAny, IPAddrEquals, IPAddrGetAddr4): the plain form takes
 * the record by value and the twin by pointer.
 *
 * Errors are raised through the error model (kz/error.h) with code
 * KZ_ERR_GENERAL (0x200000000) unless a function says otherwise. Internal
 * errors (a family other than 1 or 2 where only those can occur) fail the
 * assertion "FALSE".
 */
#ifndef KZ_ADDR_H
#define KZ_ADDR_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* Address families: 0 is unset (where a function says so, the library's
 * default family), then IPv4, IPv6 and local connections. */
#define KZ_FAMILY_UNSET 0u
#define KZ_FAMILY_IPV4  1u
#define KZ_FAMILY_IPV6  2u
#define KZ_FAMILY_LOCAL 3u

/* Longest local-connection name (the 16 address bytes hold it with its NUL). */
#define KZ_LOCAL_NAME_MAX 15

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

/* Arrays of addresses (kz/array.h records), filled by the ...Multiple
 * resolvers and taken by ChannelConnectMultiple. */
typedef struct IPAddrArray {
  IPAddr *elements;
  uint32_t count;
  uint32_t capacity;
} IPAddrArray;
typedef struct TCPAddrArray {
  TCPAddr *elements;
  uint32_t count;
  uint32_t capacity;
} TCPAddrArray;

/* ---- families ------------------------------------------------------------ */

/* True for 1 and 2 only (the local family 3 is not counted). */
KZ_API int KZIsFamilySupported(uint32_t family);
/* True for 1 and 2. */
KZ_API int KZIsFamilyIP(uint32_t family);
/* Bytes of an address of the family: 4 for IPv4, 16 for IPv6 and local
 * names, 0 for any other family. */
KZ_API uint32_t IPAddrGetFamilySize(uint32_t family);

/* ---- wildcard and loopback ---------------------------------------------- */

/* The wildcard address of the family (0: the default family, KZGetDefaultFamily),
 * 0.0.0.0 or ::; out->family is the family actually used. Other families fail
 * the assertion "FALSE". */
KZ_API void IPAddrAny(IPAddr *out, uint32_t family);
/* The loopback address, 127.0.0.1 or ::1 (family 0: the default family).
 * Other families set out->family to 0, then fail the assertion "FALSE". */
KZ_API void IPAddrLocal(IPAddr *out, uint32_t family);
/* The same with a port. */
KZ_API void TCPAddrAny(TCPAddr *out, uint32_t family, uint16_t port);
KZ_API void TCPAddrLocal(TCPAddr *out, uint32_t family, uint16_t port);

/* ---- tests ----------------------------------------------------------------- */

/* Whether the address is the wildcard address of its family (false for other
 * families). IPAddrIsAny takes the record by value. */
KZ_API int IPAddrIsAny(IPAddr address);
KZ_API int IPAddrIsAnyPtr(const IPAddr *address);
/* IPv4 in 127.0.0.0/8; IPv6 exactly ::1; false for other families. */
KZ_API int IPAddrIsLocal(const IPAddr *address);
/* IPv4 in 192.168.0.0/16, 172.16.0.0/12, 10.0.0.0/8 or 169.254.0.0/16; IPv6
 * in fe80::/10 only (unique-local fc00::/7 is not counted); false otherwise. */
KZ_API int IPAddrIsPrivate(const IPAddr *address);
/* Whether a socket of the address's family can be bound to it with port 0;
 * the trial socket is closed again. False (no error kept) otherwise. */
KZ_API int IPAddrIsBindable(const IPAddr *address);
/* Whether a listening TCP socket can be opened on the address and port the
 * way a TCP server opens one (address reuse, bind, listen with the largest
 * backlog); the trial socket is closed again. Local-connection addresses are
 * not bindable here (false). */
KZ_API int TCPAddrIsBindable(const TCPAddr *address);

/* ---- masks -------------------------------------------------------------------
 * Bits are counted on the address in network order. Left masks count from the
 * most significant bit, right masks from the least significant one. At most 32
 * bits for IPv4 and 128 for IPv6, else 0 and the address is unchanged; other
 * families give 0. */

/* Keeps the leading bits, clears the rest; 1 on success. */
KZ_API int IPAddrMaskLeft(IPAddr *address, uint32_t bits);
/* The same as IPAddrMaskLeft. */
KZ_API int IPAddrMask(IPAddr *address, uint32_t bits);
/* Keeps the trailing bits, clears the rest; 1 on success. */
KZ_API int IPAddrMaskRight(IPAddr *address, uint32_t bits);
/* Whether a and b share a family (1 or 2) and their leading (trailing) bits.
 * A prefix of 0 bits makes any two addresses of one family equal; a count
 * beyond the family's size is false. */
KZ_API int IPAddrEqualsWithLeftMask(const IPAddr *a, const IPAddr *b, uint32_t bits);
KZ_API int IPAddrEqualsWithMask(const IPAddr *a, const IPAddr *b, uint32_t bits);
KZ_API int IPAddrEqualsWithRightMask(const IPAddr *a, const IPAddr *b, uint32_t bits);
/* out := source masked; returns the mask's result (out is a plain copy of
 * source when it fails). */
KZ_API int IPAddrCopyWithLeftMask(IPAddr *out, const IPAddr *source, uint32_t bits);
KZ_API int IPAddrCopyWithRightMask(IPAddr *out, const IPAddr *source, uint32_t bits);

/* ---- equality ---------------------------------------------------------------- */

/* Same family and same address: 4 bytes for IPv4, 16 for IPv6, the name for a
 * local connection; two unset addresses are equal. IPAddrEquals takes values. */
KZ_API int IPAddrEquals(IPAddr a, IPAddr b);
KZ_API int IPAddrEqualsPtr(const IPAddr *a, const IPAddr *b);
/* As IPAddrEqualsPtr, and the same port. */
KZ_API int TCPAddrEquals(const TCPAddr *a, const TCPAddr *b);

/* ---- parsing ------------------------------------------------------------------ */

/* Parses an IP address literal. A strict dotted quad (exactly four decimal
 * parts of at most 255, leading zeros allowed and read as decimal, nothing
 * else) gives IPv4; otherwise the family is reset to 0 and the text is read
 * as IPv6 by the system's parser, optionally wrapped in "[" and "]". Returns
 * 1 on success, 0 otherwise; records no error. */
KZ_API int IPAddrSetIP(IPAddr *out, const char *text);
/* Parses "address/bits" (or an address alone, which keeps every bit) and
 * applies the left mask; 1 on success, 0 for a bad address, a bad or too large
 * bit count; records no error. */
KZ_API int IPAddrSetIPMask(IPAddr *out, const char *text);
/* A port: the empty text gives 0; digits give their value (above 65535 raises
 * "invalid port number" and returns 0); anything else is a TCP service name of
 * the system's service database; an unknown name returns 0 without raising. */
KZ_API int TCPAddrSetPort(uint16_t *port, const char *text);
/* A command-line port argument:
 *   "8080"            the wildcard address of the default family, port 8080
 *                     (1 to 65535; 0 or more fails with 0);
 *   "host:port"       TCPAddrSetHostPort;
 *   "/base/name:port" KZUnixSocketSetBase("base"), then "/name:port";
 *   "/name:port"      (no second "/") TCPAddrSetHostPort as it stands. */
KZ_API int TCPAddrParsePortArg(TCPAddr *out, const char *text);
/* Sets the base name of local-connection names ("sock" at start), under the
 * networking lock; at most 63 bytes are kept. */
KZ_API void KZUnixSocketSetBase(const char *name);

/* ---- name resolution ----------------------------------------------------------
 * A host beginning with "/" names a local connection: the rest (at most 15
 * bytes, else "socket name too long"; no "/" or "\", else "socket name must not
 * contain '/' and '\' chars") gives family 3. Any other host is an IP literal
 * or a name looked up with getaddrinfo for IPv4 and IPv6; failure raises
 * "Could not resolve host" (wrapping the resolver's text).
 * Preference among several addresses: the resolver's order is kept within each
 * family, and the addresses of the default family (KZGetDefaultFamily) come
 * first. The single-address forms take the first address in that order. */
KZ_API int IPAddrSetHost(IPAddr *out, const char *host);
/* Appends every address in preference order (duplicates removed); 1 when at
 * least one was appended. */
KZ_API int IPAddrSetHostMultiple(IPAddrArray *out, const char *host);
/* "host:port": the host part ends at the last ':' outside brackets (at most
 * 255 bytes); an empty host is "localhost"; no ':' raises "invalid address
 * (missing ':' char)". The port is read as TCPAddrSetPort reads it. */
KZ_API int TCPAddrSetHostPort(TCPAddr *out, const char *text);
KZ_API int TCPAddrSetHostPortMultiple(TCPAddrArray *out, const char *text);

/* ---- printing (appended to a UByteArray, kept NUL-terminated) --------------- */

/* IPv4 "%d.%d.%d.%d"; IPv6 the system's numeric form; a local name as
 * "/name". 0 with errno EINVAL for other families. */
KZ_API int IPAddrGetIP(const IPAddr *address, UByteArray *text);
/* IPv4 "%d.%d.%d.%d.IN-ADDR.ARPA." in reverse order; IPv6 the 32 nibbles,
 * least significant first, each followed by ".", then "IP6.ARPA.". */
KZ_API int IPAddrGetIPReverse(const IPAddr *address, UByteArray *text);
/* IPv4 "%d.%d.%d.%d:%d"; IPv6 "[address]:port"; local "/name:port". */
KZ_API int TCPAddrGetIPPort(const TCPAddr *address, UByteArray *text);
/* The host name of the address (getnameinfo; its numeric form when the
 * address has no name); a local name as "/name". Failure raises
 * "Could not resolve address". */
KZ_API int IPAddrGetHost(const IPAddr *address, UByteArray *text);
/* IPAddrGetHost, ":" and the port. */
KZ_API int TCPAddrGetHostPort(const TCPAddr *address, UByteArray *text);

/* ---- family changes -------------------------------------------------------------- */

/* Re-expresses the address in family 1 or 2: IPv4 a.b.c.d <-> IPv6
 * ::ffff:a.b.c.d (the same family is a no-op). Other targets raise "invalid
 * mapping family"; an IPv6 address outside ::ffff:0:0/96 (or a local name)
 * raises "unable to map the address to the specified class". */
KZ_API int IPAddrChangeFamily(IPAddr *address, uint32_t family);
/* out := the IPv4 address (host byte order). */
KZ_API void IPAddrFromIPAddr4(IPAddr *out, uint32_t address);
/* out := the IPv6 address (16 bytes, network order). */
KZ_API void IPAddrFromIPAddr6(IPAddr *out, const unsigned char address[16]);
/* The IPv4 form (host byte order) of an IPv4 or IPv4-mapped IPv6 address;
 * other addresses raise "can not extract IPv4 address" and return 0. The plain
 * form takes the record by value. */
KZ_API int IPAddrGetAddr4(IPAddr address, uint32_t *out);
KZ_API int IPAddrGetAddr4Ptr(const IPAddr *address, uint32_t *out);
/* Same as IPAddrFromIPAddr4 / IPAddrFromIPAddr6. */
KZ_API void IPAddrSetAddr4(IPAddr *out, uint32_t address);
KZ_API void IPAddrSetAddr6(IPAddr *out, const unsigned char address[16]);
/* The IPv6 form (IPv4 as ::ffff:a.b.c.d) into out; 0 for other families. */
KZ_API int IPAddrCopyAddr6(const IPAddr *address, unsigned char out[16]);
/* out := address with port. */
KZ_API void TCPAddrIpPort(TCPAddr *out, const IPAddr *address, uint16_t port);

/* ---- peer security flags --------------------------------------------------------
 * For a TCP connection between two endpoints of this machine, what the peer
 * process runs as (Linux: found through /proc/net/tcp and /proc/net/tcp6, then
 * the process owning the peer's socket, else the socket's owner):
 *   KZ_PEER_ADMINISTRATORS  member of an administrators' group (wheel, sudo
 *                           or adm), or root;
 *   KZ_PEER_SYSTEM          root (effective uid 0).
 * A peer address that is not a loopback address gives 0 flags. The local
 * family raises "not implemented on this family" (KZ_ERR_INVALID); a machine
 * without the connection tables raises "not available on this platform"; a
 * connection not in the tables fails with errno ENOENT. */
#define KZ_PEER_ADMINISTRATORS 0x1u
#define KZ_PEER_SYSTEM         0x2u
/* local: this side's address; peer: the other side's. */
KZ_API int TCPAddrPeerGetSecurityFlags(const TCPAddr *local, const TCPAddr *peer, uint32_t *flags);

KZ_END_DECLS

#endif /* KZ_ADDR_H */
