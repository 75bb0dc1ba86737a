/* kzlib: URLs, their normalised forms and their fingerprints.
 *
 * A URL record keeps each component in its own byte array (kz/array.h), every
 * one NUL-terminated with the NUL counted in its length:
 *   u_host      lower-case name, canonical dotted quad, or "[...]" IPv6
 *               literal; length 1 (empty) only for "file"
 *   u_port      the port, or the scheme's default port when none was given
 *   u_user      user info before "@"; length 1 = none
 *   u_path      always starts with "/"
 *   u_query     length 1 = none, else starts with the "?"
 *   u_fragment  length 1 = none, else starts with the "#"
 * The record owns its five buffers (URLFree releases them). Parsing reuses
 * whatever buffers a record already has, so one record can parse many URLs.
 *
 * Only http, https, ftp and file URLs parse; mailto and news exist in the
 * scheme table so that names and ports can be looked up.
 *
 * Parse failures are recorded in the thread's error record (kz/error.h) with
 * code KZ_ERR_GENERAL and one of the texts "unsupported scheme", "relative url
 * without base", "invalid scheme", "invalid authority", "missing authority",
 * "invalid absolute path", "invalid relative path", "invalid query" and
 * "invalid fragment".
 */
#ifndef KZ_URL_H
#define KZ_URL_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

#define SCHEME_HTTP   0
#define SCHEME_HTTPS  1
#define SCHEME_FTP    2
#define SCHEME_FILE   3
#define SCHEME_MAILTO 4
#define SCHEME_NEWS   5
#define SCHEME_NUM    6

/* Fingerprints: a 64-bit polynomial hash over GF(2). */
#define FINGERPRINT_SEED ((uint64_t)0x8000000000000000ull)
#define FINGERPRINT_POLY ((uint64_t)0xf48fc4ebab65b981ull)

typedef struct URL {
  int32_t u_scheme;
  UByteArray u_host;
  uint16_t u_port;
  UByteArray u_user;
  UByteArray u_path;
  UByteArray u_query;
  UByteArray u_fragment;
} URL;

/* ---- scheme table ---------------------------------------------------------- */

/* Name and default port of a scheme index (assertion "scheme < SCHEME_NUM"). */
KZ_API const char *URLSchemeName(uint32_t scheme);
KZ_API uint32_t URLSchemePort(uint32_t scheme);
/* 1 and the index when name equals a scheme name (any case, same length);
 * else 0, recording nothing. */
KZ_API int URLParseScheme(const char *name, int32_t *scheme);

/* ---- records ----------------------------------------------------------------- */

/* A fresh record (scheme 0, every array empty), freed with URLDelete. */
KZ_API URL *URLNew(void);
/* Initialises a record in place; returns 0. */
KZ_API int URLInit(URL *url);
/* Frees the component buffers and empties the arrays; the record stays. */
KZ_API void URLFree(URL *url);
KZ_API void URLDelete(URL *url);
/* Copies scheme, port and the five arrays into an initialised record
 * distinct from the source, reusing its buffers. */
KZ_API void URLCopy(URL *destination, const URL *source);

/* A record from the process-wide url pool. A reused record still holds the
 * components of its previous use: overwrite them (parse, copy or normalise
 * into it) before reading. Hand it back with URLRelease. */
KZ_API URL *URLAcquire(void);
KZ_API void URLRelease(URL *url);
/* Frees every record waiting in the pool. */
KZ_API void URLPoolCompact(void);

KZ_API int32_t URLGetScheme(const URL *url);
/* 1 for an "http" URL without user info. */
KZ_API int URLIsSimpleHTTP(const URL *url);

/* ---- parsing ------------------------------------------------------------------ */

/* Parses text (NUL-terminated) into url, resolving a relative reference
 * against base (null for none; a base that is not http, https, ftp or file
 * is ignored). With acceptQuery 0 a query is an error. strict 1 rejects ".."
 * above the root of a relative reference; with 0 it stays at the root.
 * eightBitHost 1 lets host names carry bytes of 128 and above. Returns 1, or
 * 0 after recording an error (the record is then partly filled). base may be
 * the record being parsed into. */
KZ_API int URLParse3(const char *text, URL *url, const URL *base, int acceptQuery, int strict, int eightBitHost);
KZ_API int URLParse2(const char *text, URL *url, const URL *base, int acceptQuery, int strict);
KZ_API int URLParse(const char *text, URL *url, const URL *base, int acceptQuery);
/* Parses an absolute path ("/..." or empty for "/") into u_path only.
 * Returns 0, recording nothing, when the text holds "?" or "#" or a byte or
 * escape a path cannot have. */
KZ_API int URLParseAbsolutePath(const char *text, URL *url);

/* 1 when every component keeps its invariant: a known scheme, a host of at
 * least one byte, a "/"-rooted path for the hierarchical schemes, query and
 * fragment empty or starting with "?" and "#", every array NUL-terminated.
 * The user info and the fragment may also have length 0 (no NUL), as
 * normalisation leaves them; host, path and query may not. A "file" URL has
 * an empty host and is therefore not valid. */
KZ_API int URLIsValid(const URL *url);

/* ---- printing -------------------------------------------------------------------- */

/* scheme "://" [user "@"] host [":" port] path query. The port is printed
 * only when it differs from the scheme's default; the fragment never is. */
KZ_API uint32_t URLPrintSize(const URL *url);
/* Writes the printed form and its NUL into buffer (at least URLPrintSize + 1
 * bytes); returns the number of characters before the NUL. */
KZ_API uint32_t URLPrintBytes(char *buffer, const URL *url);
/* Prints into the array from its start (length = size + 1, NUL counted) and
 * returns its text. The array grows at most once. */
KZ_API const char *URLPrint(UByteArray *out, const URL *url);

/* ---- normalisation and identities -------------------------------------------------- */

/* Writes the comparison form of source into destination (an initialised
 * record): "." and ".." segments resolved, empty user info and fragment,
 * trailing "&" of the query removed. With full set also: the path lower-cased
 * (Latin-1), runs of "/" collapsed, a lone "?" dropped, default documents
 * (index.html, index.htm, index.asp, default.htm, default.asp) removed, and a
 * trailing "/" removed when there is no query. Schemes without a hierarchy
 * are copied unchanged. destination may be source: the record is then
 * normalised in place (from a pooled copy), with the same result as into
 * another record. URLNormalize is URLNormalize2 with full set. */
KZ_API void URLNormalize2(URL *destination, const URL *source, int full);
KZ_API void URLNormalize(URL *destination, const URL *source);

/* Builds the fingerprint tables; library start-up calls it. Calling it again
 * does nothing; a fingerprint taken before it builds them first. */
KZ_API void FingerprintInit(void);
/* Fingerprint of bytes, and its continuation over more bytes:
 * FingerprintExtend(Fingerprint(a), b) == Fingerprint(a followed by b). */
KZ_API uint64_t Fingerprint(const void *bytes, uint32_t length);
KZ_API uint64_t FingerprintExtend(uint64_t fingerprint, const void *bytes, uint32_t length);

/* Fingerprint of scheme, host and port (only a non-default port counts). */
KZ_API uint64_t URLHostFingerprint(const URL *url);
/* Host fingerprint extended by path and query; user info and fragment never
 * count. With normalise set the URL is fully normalised first. */
KZ_API uint64_t URLFingerprint(const URL *url, int normalise);
/* 32-bit FNV-1 hash of the top domain: the last two labels of a host name, or
 * the first two octets ("10.1" of "10.1.2.3") of an IP address. */
KZ_API uint64_t URLTopDomainHash(const URL *url);

KZ_END_DECLS

#endif /* KZ_URL_H */
