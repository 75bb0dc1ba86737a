// URLs: parsing with reference resolution, printing, normalisation for
// comparison, fingerprints and the pool of scratch records.
//
// Every normalisation rule decides which spellings count as the same URL in
// collections keyed by fingerprint, so the rules are kept exactly, including
// the places where they differ from the textbook algorithms.
#include "kz/url.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/fingerprint.h"
#include "internal/ip_literal.h"
#include "internal/lazy_lock.h"
#include "internal/startup.h"
#include "kz/addr.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/lock.h"
#include "kz/memory.h"
#include "kz/message.h"

namespace {

constexpr const char *kSource = "kzlib/url";
constexpr uint64_t kGenericError = 0x200000000ull;

struct Scheme {
  const char *name;
  uint32_t length;
  uint32_t defaultPort;
  bool hierarchical;
  const char *prefix;  // name + "://", the start of a host fingerprint
};

constexpr Scheme kSchemes[SCHEME_NUM] = {
    {"http", 4, 80, true, "http://"}, {"https", 5, 443, true, "https://"},  {"ftp", 3, 21, true, "ftp://"},
    {"file", 4, 0, true, "file://"},  {"mailto", 6, 0, false, "mailto://"}, {"news", 4, 119, false, "news://"},
};

// Byte classes of the component and user-info rules.
enum : uint8_t {
  kAllowed = 1,     // copied as it is in paths, queries, fragments and user info
  kUnreserved = 2,  // an escape of it is decoded to the byte itself
  kHex = 4,
};

// Where each part of a URL text ends: the scheme name at ":", "/", "?", "#";
// the authority at "/", "?", "#"; the path at "?", "#"; the query at "#";
// the fragment at the end of the text (every part also ends there).
// A path segment of a relative reference ends at the next "/" or the path's end.
enum : uint8_t { kEndScheme = 1, kEndAuthority = 2, kEndPath = 4, kEndQuery = 8, kEndText = 16, kEndSegment = 32 };

struct ByteClasses {
  uint8_t bits[256] = {};
  uint8_t hexValue[256] = {};
  uint8_t latin1Lower[256] = {};
  uint8_t identity[256] = {};
  uint8_t ends[256] = {};  // which components a byte ends (kEnd*)
  constexpr ByteClasses() {
    for (int c = 'a'; c <= 'z'; ++c) bits[c] |= kAllowed | kUnreserved;
    for (int c = 'A'; c <= 'Z'; ++c) bits[c] |= kAllowed | kUnreserved;
    for (int c = '0'; c <= '9'; ++c) bits[c] |= kAllowed | kUnreserved;
    for (const char *p = "-_.!~*'()"; *p; ++p) bits[static_cast<uint8_t>(*p)] |= kUnreserved;
    for (const char *p = "-_.!~*'();/?:@&=+$,{}|\\^[]`"; *p; ++p) bits[static_cast<uint8_t>(*p)] |= kAllowed;
    for (int c = 0; c < 10; ++c) {
      bits['0' + c] |= kHex;
      hexValue['0' + c] = static_cast<uint8_t>(c);
    }
    for (int c = 0; c < 6; ++c) {
      bits['a' + c] |= kHex;
      bits['A' + c] |= kHex;
      hexValue['a' + c] = hexValue['A' + c] = static_cast<uint8_t>(10 + c);
    }
    for (int c = 0; c < 256; ++c) {
      bool upper = (c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7);
      latin1Lower[c] = static_cast<uint8_t>(upper ? c + 0x20 : c);
      identity[c] = static_cast<uint8_t>(c);
    }
    ends[0] = kEndScheme | kEndAuthority | kEndPath | kEndQuery | kEndText | kEndSegment;
    ends[uint8_t(':')] = kEndScheme;
    ends[uint8_t('/')] = kEndScheme | kEndAuthority | kEndSegment;
    ends[uint8_t('?')] = kEndScheme | kEndAuthority | kEndPath | kEndSegment;
    ends[uint8_t('#')] = kEndScheme | kEndAuthority | kEndPath | kEndQuery | kEndSegment;
  }
};
constexpr ByteClasses kBytes;
constexpr char kLowerHex[] = "0123456789abcdef";

inline bool Allowed(uint8_t c) { return kBytes.bits[c] & kAllowed; }

inline const unsigned char *ScanTo(const unsigned char *p, uint8_t end) {
  while (!(kBytes.ends[*p] & end)) ++p;
  return p;
}
inline bool IsHex(uint8_t c) { return kBytes.bits[c] & kHex; }

// ---- scanning 16 bytes at a time ------------------------------------------------------
//
// The texts are NUL-terminated with no known length. Loads are 16-byte
// aligned, so a load never reaches into a page the text does not touch; the
// bytes after the NUL that it reads are never used. The address and thread
// sanitizers, which would see those bytes (the thread sanitizer reports them
// as a use after free when they belong to a freed neighbour), are told that
// these loads are deliberate.

#if defined(__SSE2__)
#define KZ_URL_SIMD 1
#if defined(__clang__) || defined(__GNUC__)
#define KZ_UNCHECKED_LOADS __attribute__((no_sanitize_address, no_sanitize_thread))
#else
#define KZ_UNCHECKED_LOADS
#endif

// Bit i set when byte i of the block is one of the component's stops.
struct StopBytes {
  // Bytes copied as they are: 0x21-0x7e except '"', '#', '%', '<' and '>'.
  // Everything else stops a run, and so do the component's own end bytes.
  __m128i extra1, extra2;  // '?' and '/' for paths and segments, else NUL again

  explicit StopBytes(uint8_t endClass)
      : extra1(_mm_set1_epi8(endClass & (kEndPath | kEndSegment) ? '?' : 0)),
        extra2(_mm_set1_epi8(endClass & kEndSegment ? '/' : 0)) {}

  unsigned Mask(__m128i v) const {
    const __m128i printable =
        _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(0x20)), _mm_cmplt_epi8(v, _mm_set1_epi8(0x7f)));
    __m128i special = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('"')), _mm_cmpeq_epi8(v, _mm_set1_epi8('#')));
    special = _mm_or_si128(special, _mm_cmpeq_epi8(v, _mm_set1_epi8('%')));
    special = _mm_or_si128(special, _mm_cmpeq_epi8(v, _mm_set1_epi8('<')));
    special = _mm_or_si128(special, _mm_cmpeq_epi8(v, _mm_set1_epi8('>')));
    special = _mm_or_si128(special, _mm_cmpeq_epi8(v, extra1));
    special = _mm_or_si128(special, _mm_cmpeq_epi8(v, extra2));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(special, printable))) ^ 0xFFFFu;
  }
};

// The authority's end ("/", "?", "#" or the NUL), and with '@' its first "@".
struct AuthorityBytes {
  bool at;
  unsigned Mask(__m128i v) const {
    __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('/')), _mm_cmpeq_epi8(v, _mm_set1_epi8('?')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('#')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_setzero_si128()));
    if (at) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('@')));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
  }
};

// The scheme name's end: ":", "/", "?", "#" or the NUL.
struct SchemeBytes {
  unsigned Mask(__m128i v) const {
    __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(':')), _mm_cmpeq_epi8(v, _mm_set1_epi8('/')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('?')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('#')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_setzero_si128()));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
  }
};

// The first byte from p that the class stops at; the class must stop at NUL.
template <typename Class>
KZ_UNCHECKED_LOADS inline const unsigned char *FindFirst(const unsigned char *p, const Class &stops) {
  const uintptr_t offset = reinterpret_cast<uintptr_t>(p) & 15;
  const unsigned char *block = p - offset;
  unsigned mask = stops.Mask(_mm_load_si128(reinterpret_cast<const __m128i *>(block))) >> offset;
  if (mask) return p + __builtin_ctz(mask);
  for (;;) {
    block += 16;
    mask = stops.Mask(_mm_load_si128(reinterpret_cast<const __m128i *>(block)));
    if (mask) return block + __builtin_ctz(mask);
  }
}

// Classes of the bytes of [p, p + n), n <= 48, one bit per byte: the
// lower-case letters and '-', the digits, and '.'.
struct HostBits {
  uint64_t nameLike = 0, digit = 0, dot = 0, hyphen = 0;
};

KZ_UNCHECKED_LOADS inline HostBits ClassifyHost(const unsigned char *p, size_t n) {
  const uintptr_t offset = reinterpret_cast<uintptr_t>(p) & 15;
  const unsigned char *block = p - offset;
  HostBits bits;
  for (unsigned shift = 0; shift < offset + n; shift += 16, block += 16) {
    const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
    const __m128i lower =
        _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('a' - 1)), _mm_cmplt_epi8(v, _mm_set1_epi8('z' + 1)));
    const __m128i digit =
        _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('0' - 1)), _mm_cmplt_epi8(v, _mm_set1_epi8('9' + 1)));
    const __m128i hyphen = _mm_cmpeq_epi8(v, _mm_set1_epi8('-'));
    const __m128i nameLike = _mm_or_si128(lower, hyphen);
    bits.hyphen |= uint64_t(unsigned(_mm_movemask_epi8(hyphen))) << shift;
    bits.nameLike |= uint64_t(unsigned(_mm_movemask_epi8(nameLike))) << shift;
    bits.digit |= uint64_t(unsigned(_mm_movemask_epi8(digit))) << shift;
    bits.dot |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('.'))))) << shift;
  }
  const uint64_t span = (n == 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1);
  bits.nameLike = bits.nameLike >> offset & span;
  bits.digit = bits.digit >> offset & span;
  bits.dot = bits.dot >> offset & span;
  bits.hyphen = bits.hyphen >> offset & span;
  return bits;
}

// Whether normalising a path of n bytes changes anything before the default
// documents: a "/" followed by "." (a dot segment, or maybe one), by "/" when
// empty segments go (full), or an upper-case byte when letters are lowered
// (full; every byte from 0xC0 up counts, to be safe). Windows of 48 bytes
// overlap by one, so every pair of neighbours lies in one of them.
KZ_UNCHECKED_LOADS inline bool PathNeedsWork(const unsigned char *path, size_t n, bool full) {
  for (size_t start = 0; start < n; start += 47) {
    const size_t length = n - start < 48 ? n - start : 48;
    const unsigned char *p = path + start;
    const uintptr_t offset = reinterpret_cast<uintptr_t>(p) & 15;
    const unsigned char *block = p - offset;
    uint64_t slash = 0, dot = 0, upper = 0;
    for (unsigned shift = 0; shift < offset + length; shift += 16, block += 16) {
      const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
      slash |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('/'))))) << shift;
      dot |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('.'))))) << shift;
      if (full) {
        const __m128i ascii =
            _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('A' - 1)), _mm_cmplt_epi8(v, _mm_set1_epi8('Z' + 1)));
        const __m128i latin = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(0xBF))),
                                            _mm_cmplt_epi8(v, _mm_setzero_si128()));
        upper |= uint64_t(unsigned(_mm_movemask_epi8(_mm_or_si128(ascii, latin)))) << shift;
      }
    }
    const uint64_t span = (uint64_t{1} << length) - 1;
    slash = slash >> offset & span;
    dot = dot >> offset & span;
    upper = upper >> offset & span;
    const uint64_t follows = full ? (slash | dot) : dot;
    if (upper || (slash & (follows >> 1))) return true;
  }
  return false;
}
#endif

using Bytes = kz::ArrayView<UByteArray>;

Bytes View(UByteArray &array) { return kz::View(array, kSource, 0); }

// Component text of an array: its bytes before the NUL (an array of length 0
// has none).
inline uint32_t TextLength(const UByteArray &array) { return array.count ? array.count - 1 : 0; }

void SetEmptyText(UByteArray &array) {
  array.count = 0;
  View(array).Append('\0');
}

// Writes a byte as "%" and two lower-case hexadecimal digits.
inline unsigned char *PutEscape(unsigned char *out, uint8_t c) {
  out[0] = '%';
  out[1] = static_cast<unsigned char>(kLowerHex[c >> 4]);
  out[2] = static_cast<unsigned char>(kLowerHex[c & 15]);
  return out + 3;
}

// Appends the encoded form of one byte to w, or returns null for a byte no
// component may hold. An escape consumes its two digits (p moves past them);
// a NUL or a byte ending the component is never a digit, so the check stops
// there before reading further.
inline unsigned char *EncodeByte(unsigned char *w, const unsigned char *&p) {
  uint8_t c = *p;
  if (Allowed(c)) {
    *w++ = c;
  } else if (c == ' ' || c >= 128) {
    w = PutEscape(w, c);
  } else if (c == '%') {
    if (!IsHex(p[1]) || !IsHex(p[2])) return nullptr;
    uint8_t decoded = static_cast<uint8_t>(kBytes.hexValue[p[1]] << 4 | kBytes.hexValue[p[2]]);
    if (decoded != 0 && (kBytes.bits[decoded] & kUnreserved))
      *w++ = decoded;
    else
      w = PutEscape(w, decoded);
    p += 2;
  } else {
    return nullptr;
  }
  return w;
}

// Appends the encoded form of the bytes from p up to the first byte that ends
// the component (a kEnd* class) to out, without a NUL: allowed bytes as they
// are, blanks and bytes of 128 and above escaped, escapes checked and decoded
// back to the byte when it is unreserved (else kept, digits in lower case).
// Returns the component's end, or null when a byte fails it (out then holds
// a prefix).
const unsigned char *EncodeUntil(UByteArray &out, const unsigned char *p, uint8_t endClass) {
  constexpr uint32_t kChunk = 256;
  unsigned char *w = out.elements + out.count;
  unsigned char *limit = out.elements + out.capacity;
  auto reserve = [&](size_t n) {
    if (static_cast<size_t>(limit - w) >= n) return;
    out.count = static_cast<uint32_t>(w - out.elements);
    View(out).Reserve(uint64_t(out.count) + n + kChunk);
    w = out.elements + out.count;
    limit = out.elements + out.capacity;
  };
#if KZ_URL_SIMD
  // Runs of bytes that are copied as they are go in one piece; the byte that
  // stops a run ends the component or is encoded on its own.
  const StopBytes stops(endClass);
  for (;;) {
    const unsigned char *stop = FindFirst(p, stops);
    const size_t run = static_cast<size_t>(stop - p);
    reserve(run + 3);
    std::memcpy(w, p, run);
    w += run;
    p = stop;
    if (kBytes.ends[*p] & endClass) break;
    unsigned char *next = EncodeByte(w, p);
    if (!next) {
      out.count = static_cast<uint32_t>(w - out.elements);
      return nullptr;
    }
    w = next;
    ++p;
  }
#else
  for (; !(kBytes.ends[*p] & endClass); ++p) {
    reserve(3);
    unsigned char *next = EncodeByte(w, p);
    if (!next) {
      out.count = static_cast<uint32_t>(w - out.elements);
      return nullptr;
    }
    w = next;
  }
#endif
  out.count = static_cast<uint32_t>(w - out.elements);
  return p;
}

void AppendBytes(UByteArray &out, const void *bytes, size_t n) {
  View(out).Append(static_cast<const unsigned char *>(bytes), n);
}

bool IsDigit(uint8_t c) { return c >= '0' && c <= '9'; }

// The first n bytes of text spell the lower-case name in either case (ASCII
// letters only, as the C locale compares them).
inline bool SameLetters(const char *name, const unsigned char *text, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const uint8_t c = text[i];
    const uint8_t lower = static_cast<uint8_t>(c >= 'A' && c <= 'Z' ? c + 0x20 : c);
    if (lower != static_cast<uint8_t>(name[i])) return false;
  }
  return true;
}
bool IsLetter(uint8_t c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }

// ---- authority ------------------------------------------------------------------

// Port: digits only, 1..65535; none (or nothing after ":") is the default.
bool ParsePort(URL &url, const unsigned char *p, const unsigned char *end, bool portFollows) {
  uint32_t port = kSchemes[url.u_scheme].defaultPort;
  if (portFollows && p < end) {
    port = 0;
    for (; p < end; ++p) {
      if (!IsDigit(*p)) return false;
      port = port * 10 + (*p - '0');
      if (port > 65535) return false;
    }
    if (port == 0) return false;
  }
  url.u_port = static_cast<uint16_t>(port);
  return true;
}

// Parses "//" [user "@"] host [":" port] from [begin, end) into the record;
// at is the first "@" in it, or null.
bool ParseAuthority(URL &url, const unsigned char *begin, const unsigned char *end, const unsigned char *at,
                    bool eightBitHost) {
  const unsigned char *p = begin + 2;

  // User info: everything before the first "@", with unsafe bytes escaped
  // (a "%" is taken as it is here).
  url.u_user.count = 0;
  if (at) {
    Bytes user = View(url.u_user);
    user.Reserve(3 * uint64_t(at - p) + 1);
    unsigned char *w = url.u_user.elements;
    for (; p < at; ++p) {
      uint8_t c = *p;
      if ((c != 0 && Allowed(c)) || c == '%' || c == ':')
        *w++ = c;
      else
        w = PutEscape(w, c);
    }
    url.u_user.count = static_cast<uint32_t>(w - url.u_user.elements);
    p = at + 1;
  }
  View(url.u_user).Append('\0');

  // Host.
  enum { kNoBracket, kInside, kClosed } bracket = kNoBracket;
  int colonBudget = 7;
  uint32_t label = 0;
  uint32_t dots = 0;
  bool mayBeIPv4 = true;
  uint32_t octets[4] = {0, 0, 0, 0};
  bool portFollows = false;

  url.u_host.count = 0;
  Bytes host = View(url.u_host);
  host.Reserve(uint64_t(end - p) + 1);
  const unsigned char *hostStart = p;
#if KZ_URL_SIMD
  // Nearly every host is a lower-case name: letters, digits, "-" and ".",
  // with a letter or "-" somewhere (so no dotted quad), no empty label and no
  // label starting with "-". Such a name is checked 16 bytes at a time and
  // copied whole; anything else takes the byte-by-byte rules below, which
  // give the same result for these names.
  if (end - p <= 48) {
    const auto *colon = static_cast<const unsigned char *>(std::memchr(p, ':', end - p));
    const unsigned char *hostEnd = colon ? colon : end;
    const size_t n = static_cast<size_t>(hostEnd - p);
    if (n > 0) {
      const HostBits bits = ClassifyHost(p, n);
      const uint64_t span = (uint64_t{1} << n) - 1;
      if ((bits.nameLike | bits.digit | bits.dot) == span && bits.nameLike != 0) {
        // Labels start at 0 and after each ".": none may start with "." or "-".
        const uint64_t starts = (1 | bits.dot << 1) & span;
        if ((starts & (bits.dot | bits.hyphen)) == 0) {
          const size_t kept = p[n - 1] == '.' ? n - 1 : n;  // a single trailing dot goes
          std::memcpy(url.u_host.elements, p, kept);
          url.u_host.count = static_cast<uint32_t>(kept);
          host.Append('\0');
          p = hostEnd;
          const bool portFollows = p < end;  // at the ":"
          if (portFollows) ++p;
          return ParsePort(url, p, end, portFollows);
        }
      }
    }
  }
#endif
  for (; p < end; ++p) {
    uint8_t c = *p;
    if (bracket == kClosed) {
      if (c != ':') return false;
      portFollows = true;
      ++p;
      break;
    }
    // Letters and digits first: they make up nearly every host.
    if (IsLetter(c)) {
      c |= 0x20;
      if (bracket == kInside && c > 'f') return false;
      mayBeIPv4 = false;
    } else if (IsDigit(c)) {
      if (mayBeIPv4) {
        uint32_t &octet = octets[dots];
        octet = octet * 10 + (c - '0');
        if (octet >= 256) mayBeIPv4 = false;
      }
    } else if (c == '.') {
      if (label == 0 || label >= 256) return false;
      url.u_host.elements[url.u_host.count++] = c;
      label = 0;
      ++dots;
      if (dots < 4)
        octets[dots] = 0;
      else
        mayBeIPv4 = false;
      continue;
    } else if (c == '-' || c == '_') {
      if (bracket == kInside || label == 0) return false;
      mayBeIPv4 = false;
    } else if (c == ':') {
      if (bracket == kNoBracket) {
        portFollows = true;
        ++p;
        break;
      }
      if (colonBudget-- == 0) return false;
    } else if (c == '[') {
      if (p != hostStart) return false;
      bracket = kInside;
      mayBeIPv4 = false;
    } else if (c == ']') {
      if (bracket != kInside || p - hostStart < 2) return false;
      bracket = kClosed;
      mayBeIPv4 = false;
    } else if (c < 128) {
      return false;
    } else {
      // Bytes of 128 and above only where allowed, never inside brackets; the
      // C library's lower-casing in the default locale leaves them as they are.
      if (!eightBitHost || bracket == kInside) return false;
      mayBeIPv4 = false;
    }
    url.u_host.elements[url.u_host.count++] = c;
    ++label;
  }

  if (bracket == kInside || label >= 256) return false;
  if (mayBeIPv4 && dots == 3 && label > 0) {
    // Canonical dotted quad: "010.0.0.1" becomes "10.0.0.1" (decimal, never octal).
    char quad[16];
    int n = 0;
    for (int i = 0; i < 4; ++i) {
      uint32_t v = octets[i];
      if (i) quad[n++] = '.';
      if (v >= 100) quad[n++] = static_cast<char>('0' + v / 100);
      if (v >= 10) quad[n++] = static_cast<char>('0' + v / 10 % 10);
      quad[n++] = static_cast<char>('0' + v % 10);
    }
    url.u_host.count = 0;
    AppendBytes(url.u_host, quad, n);
  } else if (dots > 0 && label == 0) {
    --url.u_host.count;  // a single trailing dot: "alpha.beta." is "alpha.beta"
  }
  if (url.u_host.count == 0 && url.u_scheme != SCHEME_FILE) return false;
  View(url.u_host).Append('\0');

  return ParsePort(url, p, end, portFollows);
}

// ---- paths --------------------------------------------------------------------------

// The path of a text with a scheme or an authority, or one starting with "/":
// from p to the first "?", "#" or the end. An empty path is "/"; anything else
// must start with "/". Returns the path's end, or null when it is invalid.
const unsigned char *ParseAbsolutePath(UByteArray &path, const unsigned char *p) {
  path.count = 0;
  if (kBytes.ends[*p] & kEndPath) {
    AppendBytes(path, "/", 2);
    return p;
  }
  if (*p != '/') return nullptr;
  const unsigned char *end = EncodeUntil(path, p, kEndPath);
  if (end) View(path).Append('\0');
  return end;
}

// Start offsets of the output's segments during a merge. Paths rarely have
// more than a few dozen segments; deeper ones move to the heap.
class OffsetStack {
 public:
  ~OffsetStack() {
    if (items_ != inline_) free(items_);
  }
  bool empty() const { return size_ == 0; }
  uint32_t size() const { return size_; }
  uint32_t top() const { return items_[size_ - 1]; }
  uint32_t pop() { return items_[--size_]; }
  void clear() { size_ = 0; }
  void push(uint32_t offset) {
    if (size_ == capacity_) {
      uint32_t next = capacity_ * 2;
      auto *grown = static_cast<uint32_t *>(
          Allocate_(sizeof(uint32_t) * next, items_ == inline_ ? nullptr : items_, kSource, 566));
      if (items_ == inline_) std::memcpy(grown, inline_, sizeof inline_);
      items_ = grown;
      capacity_ = next;
    }
    items_[size_++] = offset;
  }

 private:
  uint32_t inline_[64];
  uint32_t *items_ = inline_;
  uint32_t size_ = 0;
  uint32_t capacity_ = 64;
};

inline bool IsDot(const unsigned char *s, const unsigned char *e) { return e - s == 1 && s[0] == '.'; }
inline bool IsDotDot(const unsigned char *s, const unsigned char *e) {
  return e - s == 2 && s[0] == '.' && s[1] == '.';
}

inline const unsigned char *NextSlash(const unsigned char *p, const unsigned char *end) {
  auto *slash = static_cast<const unsigned char *>(std::memchr(p, '/', end - p));
  return slash ? slash : end;
}

// Resolves a relative path (non-empty, not starting with "/") against a base
// path. Differs from the textbook merge on purpose: a trailing "/." or "/.."
// leaves no "/" behind ("a/." against "/b/c" is "/b/a", "a/.." is "/b").
bool MergePath(UByteArray &out, const unsigned char *rel, const unsigned char *relEnd, const unsigned char *base,
               const unsigned char *baseEnd, bool strict) {
  out.count = 0;
  View(out).Reserve(uint64_t(baseEnd - base) + 3 * uint64_t(relEnd - rel) + 2);
  OffsetStack stack;

  // The base path, its dot segments resolved.
  for (const unsigned char *s = base; s < baseEnd;) {
    const unsigned char *e = NextSlash(s + 1, baseEnd);
    bool last = e == baseEnd;
    const unsigned char *name = *s == '/' ? s + 1 : s;
    if (IsDot(name, e)) {
      if (last) {
        stack.push(out.count);
        out.elements[out.count++] = '/';
      }
    } else if (IsDotDot(name, e)) {
      if (stack.empty()) return false;  // above the base's root, strict or not
      out.count = stack.pop();
      if (last) {
        stack.push(out.count);
        out.elements[out.count++] = '/';
      }
    } else {
      stack.push(out.count);
      std::memcpy(out.elements + out.count, s, e - s);
      out.count += static_cast<uint32_t>(e - s);
    }
    s = e;
  }

  // Drop the base's last segment, keeping its directory and the stack size.
  if (stack.empty()) {
    if (out.count != 0) kzassert_("ArrayLength(*path) == 0", kSource, 611);
    stack.push(0);
    out.elements[out.count++] = '/';
  } else {
    out.count = stack.top() + 1;
  }

  // The first relative segment.
  const unsigned char *s = rel;
  const unsigned char *e = NextSlash(s, relEnd);
  bool more = e != relEnd;
  if (IsDot(s, e)) {
    if (more) out.count = stack.pop();
  } else if (IsDotDot(s, e)) {
    if (stack.size() >= 2) {
      stack.pop();
      out.count = stack.top() + 1;
    } else if (strict) {
      return false;
    } else {
      out.count = 0;
      stack.clear();
    }
    if (more) out.count = stack.empty() ? 0 : stack.pop();
  } else if (!EncodeUntil(out, s, kEndSegment)) {
    return false;
  }

  // Further segments, each with its "/".
  for (s = e; s < relEnd; s = e) {
    e = NextSlash(s + 1, relEnd);
    if (IsDot(s + 1, e)) continue;
    if (IsDotDot(s + 1, e)) {
      if (!stack.empty()) {
        out.count = stack.pop();
      } else if (strict) {
        return false;
      } else {
        out.count = 0;
      }
      continue;
    }
    stack.push(out.count);
    View(out).Append('/');
    if (!EncodeUntil(out, s + 1, kEndSegment)) return false;
  }

  if (stack.empty()) View(out).Append('/');
  View(out).Append('\0');
  return true;
}

bool Fail(uint32_t line, const char *message) {
  KZ_THROW_AT(kSource, line, "URLParse3", kGenericError, "%s", message);
  return false;
}

void CheckPath(const UByteArray &path) {
  if (!(path.count > 1 && path.elements[0] == '/' && path.elements[path.count - 1] == '\0'))
    kzassert_(
        "ArrayLength(src->u_path) > 1 && ArrayNth(src->u_path, 0) == '/' && "
        "ArrayLast(src->u_path) == '\\0'",
        kSource, 1033);
}

void CheckQuery(const UByteArray &query) {
  if (!(query.count > 0 && query.elements[query.count - 1] == '\0' && (query.count == 1 || query.elements[0] == '?')))
    kzassert_(
        "ArrayLength(src->u_query) > 0 && ArrayLast(src->u_query) == '\\0' && "
        "(ArrayLength(src->u_query) == 1 || ArrayNth(src->u_query, 0) == '?')",
        kSource, 1034);
}

void CheckScheme(uint32_t scheme, uint32_t line) {
  if (scheme >= SCHEME_NUM) kzassert_("scheme < SCHEME_NUM", kSource, line);
}

bool ParseInto(const unsigned char *text, URL &url, const URL *base, bool acceptQuery, bool strict, bool eightBitHost) {
  if (base && (static_cast<uint32_t>(base->u_scheme) >= SCHEME_NUM || !kSchemes[base->u_scheme].hierarchical))
    base = nullptr;

  SetEmptyText(url.u_fragment);

  // Scheme.
#if KZ_URL_SIMD
  size_t n = FindFirst(text, SchemeBytes{}) - text;
#else
  size_t n = ScanTo(text, kEndScheme) - text;
#endif
  const unsigned char *p = text;
  bool hasScheme = false;
  if (text[n] == ':') {
    int32_t scheme = -1;
    for (int32_t i = 0; i < SCHEME_NUM; ++i) {
      if (kSchemes[i].length == n && SameLetters(kSchemes[i].name, text, n)) {
        scheme = i;
        break;
      }
    }
    if (scheme < 0) return Fail(764, "unsupported scheme");
    url.u_scheme = scheme;
    hasScheme = true;
    p = text + n + 1;
  } else if (base) {
    url.u_scheme = base->u_scheme;
  } else {
    return Fail(773, "relative url without base");
  }
  if (url.u_scheme > SCHEME_FILE) return Fail(777, "invalid scheme");

  // Authority.
  bool hasAuthority = false;
  if (p[0] == '/' && p[1] == '/') {
#if KZ_URL_SIMD
    const unsigned char *end = FindFirst(p + 2, AuthorityBytes{true});
    const unsigned char *at = nullptr;
    if (*end == '@') {
      at = end;
      end = FindFirst(end + 1, AuthorityBytes{false});
    }
#else
    const unsigned char *end = ScanTo(p + 2, kEndAuthority);
    const auto *at = static_cast<const unsigned char *>(std::memchr(p + 2, '@', end - (p + 2)));
#endif
    if (!ParseAuthority(url, p, end, at, eightBitHost)) return Fail(786, "invalid authority");
    hasAuthority = true;
    p = end;
  } else if (hasScheme) {
    return Fail(791, "missing authority");
  } else {
    ArrayCopy_(&url.u_host, 1, &base->u_host, 1, kSource, 794);
    url.u_port = base->u_port;
    ArrayCopy_(&url.u_user, 1, &base->u_user, 1, kSource, 796);
  }

  // Path.
  bool emptyPath = kBytes.ends[*p] & kEndPath;
  const unsigned char *pathEnd = p;
  if (hasScheme || hasAuthority || *p == '/') {
    pathEnd = ParseAbsolutePath(url.u_path, p);
    if (!pathEnd) return Fail(805, "invalid absolute path");
  } else if (!emptyPath) {
    pathEnd = ScanTo(p, kEndPath);
    CheckPath(base->u_path);
    const unsigned char *basePath = base->u_path.elements;
    if (!MergePath(url.u_path, p, pathEnd, basePath, basePath + base->u_path.count - 1, strict))
      return Fail(811, "invalid relative path");
  } else {
    ArrayCopy_(&url.u_path, 1, &base->u_path, 1, kSource, 813);
  }
  p = pathEnd;

  // Query.
  if (*p != '?') {
    if (!hasScheme && !hasAuthority && emptyPath) {
      CheckQuery(base->u_query);
      ArrayCopy_(&url.u_query, 1, &base->u_query, 1, kSource, 821);
    } else {
      SetEmptyText(url.u_query);
    }
  } else {
    if (!acceptQuery) return Fail(827, "invalid query");
    url.u_query.count = 0;
    p = EncodeUntil(url.u_query, p, kEndQuery);
    if (!p) return Fail(829, "invalid query");
    View(url.u_query).Append('\0');
  }

  // Fragment, never taken from the base.
  if (*p == '#') {
    url.u_fragment.count = 0;
    View(url.u_fragment).Append('#');
    if (!EncodeUntil(url.u_fragment, p + 1, kEndText)) return Fail(839, "invalid fragment");
    View(url.u_fragment).Append('\0');
  }
  return true;
}

// ---- printing -----------------------------------------------------------------------

uint32_t DecimalDigits(uint32_t v) {
  uint32_t n = 1;
  while (v >= 10) {
    v /= 10;
    ++n;
  }
  return n;
}

inline bool PrintsPort(const URL &url) { return url.u_port != kSchemes[url.u_scheme].defaultPort; }

// Copies a component as "%s" would: up to its NUL, never past its length.
inline char *PutText(char *w, const UByteArray &array) {
  if (array.count == 0) return w;
  const void *nul = std::memchr(array.elements, 0, array.count);
  size_t n = nul ? static_cast<const unsigned char *>(nul) - array.elements : array.count;
  std::memcpy(w, array.elements, n);
  return w + n;
}

inline char *PutDecimal(char *w, uint32_t v) {
  uint32_t digits = DecimalDigits(v);
  for (uint32_t i = digits; i-- > 0; v /= 10) w[i] = static_cast<char>('0' + v % 10);
  return w + digits;
}

// ---- the url pool --------------------------------------------------------------------

struct UrlPool {
  KZ_ARRAY(URL *) idle = {nullptr, 0, 0};  // released records, most recent last
  uint32_t count = 0;                      // records handed out
  KZMutex lock = reinterpret_cast<KZMutex>(~uintptr_t(0));
  KZCondition available = KZ_CONDITION_INITIALIZER;
};

UrlPool g_urlPool;

enum PoolEvent { kCreated = 0, kReused = 1, kReleased = 2, kCompacted = 3 };

void UrlPoolHook(int event, URL *url) {
  switch (event) {
    case kCreated: URLInit(url); break;
    case kReused: break;    // callers overwrite every component
    case kReleased: break;  // buffers stay for the next user
    case kCompacted: URLFree(url); break;
    default: kzassert_("FALSE", kSource, 111);
  }
}

// ---- fingerprint tables -----------------------------------------------------------------

std::atomic<bool> g_fingerprintReady{false};
kz::LazyLock g_fingerprintLock;

inline void EnsureFingerprintTables() {
  if (!g_fingerprintReady.load(std::memory_order_acquire)) FingerprintInit();
}

bool FingerprintStartup() {
  FingerprintInit();
  return true;
}

const bool g_fingerprintRegistered = kz::startup::Register(kz::startup::Step::kFingerprintTables, FingerprintStartup);

inline uint64_t ExtendFolded(uint64_t value, const void *bytes, size_t length) {
  return kz::fingerprint::FoldEnd(kz::fingerprint::Extend(value, static_cast<const unsigned char *>(bytes), length));
}

uint64_t HostFingerprint(const URL &url) {
  const Scheme &scheme = kSchemes[url.u_scheme];
  uint64_t fp = FINGERPRINT_SEED;
  if (url.u_scheme != SCHEME_HTTP) fp = ExtendFolded(fp, scheme.prefix, scheme.length + 3);
  fp = ExtendFolded(fp, url.u_host.elements, TextLength(url.u_host));
  if (PrintsPort(url)) {
    char port[8] = {':'};
    char *end = PutDecimal(port + 1, url.u_port);
    fp = ExtendFolded(fp, port, end - port);
  }
  return fp;
}

}  // namespace

// ---- scheme table ---------------------------------------------------------------------

KZ_API const char *URLSchemeName(uint32_t scheme) {
  CheckScheme(scheme, 233);
  return kSchemes[scheme].name;
}

KZ_API uint32_t URLSchemePort(uint32_t scheme) {
  CheckScheme(scheme, 240);
  return kSchemes[scheme].defaultPort;
}

KZ_API int URLParseScheme(const char *name, int32_t *scheme) {
  size_t length = std::strlen(name);
  for (int32_t i = 0; i < SCHEME_NUM; ++i) {
    if (kSchemes[i].length == length &&
        SameLetters(kSchemes[i].name, reinterpret_cast<const unsigned char *>(name), length)) {
      *scheme = i;
      return 1;
    }
  }
  return 0;
}

// ---- records ----------------------------------------------------------------------------

KZ_API int URLInit(URL *url) {
  std::memset(url, 0, sizeof *url);
  return 0;
}

KZ_API URL *URLNew(void) {
  auto *url = static_cast<URL *>(Allocate_(sizeof(URL), nullptr, kSource, 290));
  URLInit(url);
  return url;
}

KZ_API void URLFree(URL *url) {
  for (UByteArray *array : {&url->u_host, &url->u_user, &url->u_path, &url->u_query, &url->u_fragment}) {
    if (array->capacity != 0) ArrayFree_(array);
    array->elements = nullptr;
    array->count = array->capacity = 0;
  }
}

KZ_API void URLDelete(URL *url) {
  URLFree(url);
  free(url);
}

KZ_API void URLCopy(URL *destination, const URL *source) {
  destination->u_scheme = source->u_scheme;
  destination->u_port = source->u_port;
  ArrayCopy_(&destination->u_host, 1, &source->u_host, 1, kSource, 320);
  ArrayCopy_(&destination->u_user, 1, &source->u_user, 1, kSource, 321);
  ArrayCopy_(&destination->u_path, 1, &source->u_path, 1, kSource, 322);
  ArrayCopy_(&destination->u_query, 1, &source->u_query, 1, kSource, 323);
  ArrayCopy_(&destination->u_fragment, 1, &source->u_fragment, 1, kSource, 324);
}

KZ_API URL *URLAcquire(void) {
  UrlPool &pool = g_urlPool;
  MutexLock(&pool.lock);
  while (pool.count > 0xFFFFFFFEu) ConditionWait(&pool.available, &pool.lock);
  ++pool.count;
  URL *url = pool.idle.count ? pool.idle.elements[--pool.idle.count] : nullptr;
  MutexUnlock(&pool.lock);
  if (url) {
    UrlPoolHook(kReused, url);
  } else {
    url = static_cast<URL *>(Allocate_(sizeof(URL), nullptr, kSource, 356));
    UrlPoolHook(kCreated, url);
  }
  return url;
}

KZ_API void URLRelease(URL *url) {
  UrlPool &pool = g_urlPool;
  UrlPoolHook(kReleased, url);
  MutexLock(&pool.lock);
  kz::View(pool.idle, kSource, 371).Append(url);
  if (pool.count == 0) kzassert_("(urlPool).t.count > 0", kSource, 372);
  --pool.count;
  ConditionSignal(&pool.available);
  MutexUnlock(&pool.lock);
}

KZ_API void URLPoolCompact(void) {
  UrlPool &pool = g_urlPool;
  MutexLock(&pool.lock);
  URL **records = pool.idle.elements;
  uint32_t n = pool.idle.count;
  pool.idle.elements = nullptr;
  pool.idle.count = pool.idle.capacity = 0;
  MutexUnlock(&pool.lock);
  for (uint32_t i = 0; i < n; ++i) {  // the hook runs outside the lock
    UrlPoolHook(kCompacted, records[i]);
    free(records[i]);
  }
  free(records);
}

KZ_API int32_t URLGetScheme(const URL *url) { return url->u_scheme; }

KZ_API int URLIsSimpleHTTP(const URL *url) { return url->u_scheme == SCHEME_HTTP && url->u_user.count < 2; }

// ---- parsing -----------------------------------------------------------------------------

KZ_API int URLParse3(const char *text, URL *url, const URL *base, int acceptQuery, int strict, int eightBitHost) {
  if (base != url) {
    return ParseInto(reinterpret_cast<const unsigned char *>(text), *url, base, acceptQuery != 0, strict != 0,
                     eightBitHost != 0);
  }
  // Resolving a record against itself: parse against a copy of the base.
  URL *copy = URLAcquire();
  URLCopy(copy, base);
  bool ok = ParseInto(reinterpret_cast<const unsigned char *>(text), *url, copy, acceptQuery != 0, strict != 0,
                      eightBitHost != 0);
  URLRelease(copy);
  return ok;
}

KZ_API int URLParse2(const char *text, URL *url, const URL *base, int acceptQuery, int strict) {
  return URLParse3(text, url, base, acceptQuery, strict, 0);
}

KZ_API int URLParse(const char *text, URL *url, const URL *base, int acceptQuery) {
  return URLParse3(text, url, base, acceptQuery, 1, 0);
}

KZ_API int URLParseAbsolutePath(const char *text, URL *url) {
  auto *p = reinterpret_cast<const unsigned char *>(text);
  if (*ScanTo(p, kEndPath) != '\0') return 0;  // a "?" or "#": not a path alone
  return ParseAbsolutePath(url->u_path, p) ? 1 : 0;
}

KZ_API int URLIsValid(const URL *url) {
  auto lastIsNul = [](const UByteArray &a) { return a.count > 0 && a.elements[a.count - 1] == '\0'; };
  // User info and fragment of length 0 mean "none", as normalisation leaves them.
  auto noneOrText = [&](const UByteArray &a) { return a.count == 0 || lastIsNul(a); };
  if (static_cast<uint32_t>(url->u_scheme) >= SCHEME_NUM) return 0;
  if (!lastIsNul(url->u_host) || url->u_host.count < 2) return 0;
  if (!noneOrText(url->u_user)) return 0;
  if (!lastIsNul(url->u_path)) return 0;
  if (kSchemes[url->u_scheme].hierarchical && url->u_path.elements[0] != '/') return 0;
  if (!lastIsNul(url->u_query) || (url->u_query.count != 1 && url->u_query.elements[0] != '?')) return 0;
  if (!noneOrText(url->u_fragment) || (url->u_fragment.count > 1 && url->u_fragment.elements[0] != '#')) return 0;
  return 1;
}

// ---- printing -------------------------------------------------------------------------------

KZ_API uint32_t URLPrintSize(const URL *url) {
  CheckScheme(static_cast<uint32_t>(url->u_scheme), 1101);
  // Each component's NUL pays for one character of "://"; the user info's
  // NUL pays for its "@".
  uint32_t size = kSchemes[url->u_scheme].length + url->u_host.count + url->u_path.count + url->u_query.count;
  if (url->u_user.count >= 2) size += url->u_user.count;
  if (PrintsPort(*url)) size += 1 + DecimalDigits(url->u_port);
  return size;
}

KZ_API uint32_t URLPrintBytes(char *buffer, const URL *url) {
  CheckScheme(static_cast<uint32_t>(url->u_scheme), 1120);
  const Scheme &scheme = kSchemes[url->u_scheme];
  char *w = buffer;
  std::memcpy(w, scheme.prefix, scheme.length + 3);
  w += scheme.length + 3;
  if (url->u_user.count >= 2) {
    w = PutText(w, url->u_user);
    *w++ = '@';
  }
  w = PutText(w, url->u_host);
  if (PrintsPort(*url)) {
    *w++ = ':';
    w = PutDecimal(w, url->u_port);
  }
  w = PutText(w, url->u_path);
  w = PutText(w, url->u_query);
  *w = '\0';
  return static_cast<uint32_t>(w - buffer);
}

KZ_API const char *URLPrint(UByteArray *out, const URL *url) {
  uint32_t size = URLPrintSize(url);
  kz::View(*out, kSource, 1152).Reserve(uint64_t(size) + 1);
  uint32_t written = URLPrintBytes(reinterpret_cast<char *>(out->elements), url);
  if (written != size) kzassert_("FALSE", kSource, 1155);
  out->count = size + 1;
  return reinterpret_cast<const char *>(out->elements);
}

// ---- normalisation ------------------------------------------------------------------------------

KZ_API void URLNormalize2(URL *destination, const URL *source, int full) {
  CheckScheme(static_cast<uint32_t>(source->u_scheme), 1170);
  if (destination == source) {
    // The rules below rebuild the destination while reading the source:
    // normalise from a copy.
    URL *copy = URLAcquire();
    URLCopy(copy, source);
    URLNormalize2(destination, copy, full);
    URLRelease(copy);
    return;
  }
  if (!kSchemes[source->u_scheme].hierarchical) {
    URLCopy(destination, source);
    return;
  }
  URL &dst = *destination;
  const URL &src = *source;
  dst.u_scheme = src.u_scheme;
  dst.u_port = src.u_port;
  ArrayCopy_(&dst.u_host, 1, &src.u_host, 1, kSource, 1179);
  dst.u_user.count = 0;
  dst.u_fragment.count = 0;

  // Query: a lone "?" goes (full only), then trailing "&" are trimmed.
  CheckQuery(src.u_query);
  if (full && src.u_query.count <= 2)
    SetEmptyText(dst.u_query);
  else
    ArrayCopy_(&dst.u_query, 1, &src.u_query, 1, kSource, 1186);
  while (dst.u_query.count > 2 && dst.u_query.elements[dst.u_query.count - 2] == '&') {
    dst.u_query.elements[dst.u_query.count - 2] = '\0';
    --dst.u_query.count;
  }

  // Path, rebuilt with "." and ".." segments resolved.
  CheckPath(src.u_path);
  UByteArray &path = dst.u_path;
  path.count = 0;
  View(path).Reserve(src.u_path.count + 1);
  unsigned char *out = path.elements;
  uint32_t n = 0;
  const uint8_t *map = full ? kBytes.latin1Lower : kBytes.identity;
  auto put = [&](uint8_t c) { out[n++] = map[c]; };
  auto dropLastSegment = [&]() {
    // The output ends in "/": cut back to just after the "/" before it.
    if (n > 1) {
      uint32_t i = n - 1;
      while (i > 0 && out[i - 1] != '/') --i;
      n = i == 0 ? 1 : i;
    }
  };
  enum { kSegment, kSlash, kDot, kDotDot } state = kSegment;
  const unsigned char *s = src.u_path.elements;
  const unsigned char *end = s + src.u_path.count - 1;
#if KZ_URL_SIMD
  // Most paths are normal already: one check, one copy.
  if (!PathNeedsWork(s, static_cast<size_t>(end - s), full)) {
    std::memcpy(out, s, static_cast<size_t>(end - s));
    n = static_cast<uint32_t>(end - s);
    goto done;
  }
#endif
  for (; s < end; ++s) {
    uint8_t c = *s;
    switch (state) {
      case kSegment: {
        // Most bytes are inside a segment: copy up to the next "/" in one go.
        auto *slash = static_cast<const unsigned char *>(std::memchr(s, '/', end - s));
        const unsigned char *stop = slash ? slash : end;
        if (full) {
#if KZ_URL_SIMD
          // Sixteen bytes at a time while they last: the output never runs
          // ahead of the input, so the stores stay within the reserved path.
          for (; stop - s >= 16; s += 16, n += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s));
            const __m128i ascii =
                _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('A' - 1)), _mm_cmplt_epi8(v, _mm_set1_epi8('Z' + 1)));
            const __m128i latin =
                _mm_andnot_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(static_cast<char>(0xD7))),
                                 _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(0xBF))),
                                               _mm_cmplt_epi8(v, _mm_set1_epi8(static_cast<char>(0xDF)))));
            const __m128i lowered = _mm_add_epi8(v, _mm_and_si128(_mm_or_si128(ascii, latin), _mm_set1_epi8(0x20)));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + n), lowered);
          }
#endif
          for (; s < stop; ++s) out[n++] = kBytes.latin1Lower[*s];
        } else {
          std::memcpy(out + n, s, stop - s);
          n += static_cast<uint32_t>(stop - s);
        }
        if (!slash) goto done;
        s = slash;
        out[n++] = '/';
        state = kSlash;
        break;
      }
      case kSlash:
        if (c == '/') {
          if (!full) put(c);
        } else if (c == '.') {
          state = kDot;
        } else {
          put(c);
          state = kSegment;
        }
        break;
      case kDot:
        if (c == '/') {
          state = kSlash;
        } else if (c == '.') {
          state = kDotDot;
        } else {
          put('.');
          put(c);
          state = kSegment;
        }
        break;
      case kDotDot:
        if (c == '/') {
          dropLastSegment();
          state = kSlash;
        } else {
          put('.');
          put('.');
          put(c);
          state = kSegment;
        }
        break;
    }
  }
  if (state == kDotDot) dropLastSegment();
done:
  out[n++] = '\0';
  path.count = n;

  if (!full) return;

  // Default documents go, and with them the "/" before them when no query
  // follows.
  static constexpr struct {
    const char *name;
    uint32_t length;
  } kDefaultDocuments[] = {
      {"index.html", 10}, {"index.htm", 9}, {"index.asp", 9}, {"default.htm", 11}, {"default.asp", 11}};
  bool noQuery = dst.u_query.count == 1;
  for (;;) {
    uint32_t length = path.count - 1;
    // Only a last segment of 9-11 bytes can be a default document: look for
    // its "/" among the last 12 bytes instead of walking a long segment back.
    const uint32_t nearest = length > 12 ? length - 12 : 0;
    uint32_t segment = length;
#if KZ_URL_SIMD
    if (length >= 16) {
      // The "/" bits of the last 16 bytes; the last 12 of them are positions 4-15.
      const __m128i tail = _mm_loadu_si128(reinterpret_cast<const __m128i *>(path.elements + length - 16));
      const unsigned slashes = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(tail, _mm_set1_epi8('/')))) & 0xFFF0u;
      if (!slashes) break;  // a last segment of 12 bytes or more
      segment = length - 16 + (31 - __builtin_clz(slashes)) + 1;
    }
#endif
    while (segment > nearest && path.elements[segment - 1] != '/') --segment;
    if (segment == nearest && nearest > 0) break;  // a last segment of 12 bytes or more
    uint32_t segmentLength = length - segment;
    bool cut = false;
    for (const auto &document : kDefaultDocuments) {
      if (document.length == segmentLength && path.elements[segment] == document.name[0] &&
          std::memcmp(path.elements + segment, document.name, segmentLength) == 0) {
        cut = true;
        break;
      }
    }
    if (!cut) break;
    path.elements[segment] = '\0';
    path.count = segment + 1;
    if (noQuery && path.count >= 3) {
      if (path.elements[path.count - 2] != '/')
        kzassert_("ArrayNth(dst->u_path, ArrayLength(dst->u_path) - 2) == '/'", kSource, 1262);
      path.elements[path.count - 2] = '\0';
      --path.count;
    }
  }
  if (noQuery && path.count > 2 && path.elements[path.count - 2] == '/') {
    path.elements[path.count - 2] = '\0';
    --path.count;
  }
}

KZ_API void URLNormalize(URL *destination, const URL *source) { URLNormalize2(destination, source, 1); }

// ---- fingerprints and hashes ---------------------------------------------------------------------

KZ_API void FingerprintInit(void) {
  if (g_fingerprintReady.load(std::memory_order_acquire)) return;
  kz::LazyLockGuard hold(g_fingerprintLock);
  if (g_fingerprintReady.load(std::memory_order_relaxed)) return;
  kz::fingerprint::InitTables();
  g_fingerprintReady.store(true, std::memory_order_release);
}

KZ_API uint64_t FingerprintExtend(uint64_t fingerprint, const void *bytes, uint32_t length) {
  EnsureFingerprintTables();
  return ExtendFolded(fingerprint, bytes, length);
}

KZ_API uint64_t Fingerprint(const void *bytes, uint32_t length) {
  return FingerprintExtend(FINGERPRINT_SEED, bytes, length);
}

KZ_API uint64_t URLHostFingerprint(const URL *url) {
  CheckScheme(static_cast<uint32_t>(url->u_scheme), 1301);
  EnsureFingerprintTables();
  return HostFingerprint(*url);
}

KZ_API uint64_t URLFingerprint(const URL *url, int normalise) {
  CheckScheme(static_cast<uint32_t>(url->u_scheme), 1308);
  EnsureFingerprintTables();
  URL *normalised = nullptr;
  if (normalise) {
    normalised = URLAcquire();
    URLNormalize(normalised, url);
    url = normalised;
  }
  uint64_t fp = HostFingerprint(*url);
  fp = ExtendFolded(fp, url->u_path.elements, TextLength(url->u_path));
  if (url->u_query.count > 1) fp = ExtendFolded(fp, url->u_query.elements, TextLength(url->u_query));
  if (normalised) URLRelease(normalised);
  return fp;
}

KZ_API uint64_t URLTopDomainHash(const URL *url) {
  const char *host = reinterpret_cast<const char *>(url->u_host.elements);
  uint32_t length = url->u_host.count ? static_cast<uint32_t>(strnlen(host, url->u_host.count)) : 0;
  uint32_t begin = 0, end = length;
  IPAddr address;
  if (length > 0 && length < url->u_host.count && kz::ParseIPLiteral(&address, host)) {
    // An address: up to its second ".", so "10.1.2.3" hashes "10.1".
    const char *first = static_cast<const char *>(std::memchr(host, '.', length));
    const char *second =
        first ? static_cast<const char *>(std::memchr(first + 1, '.', host + length - first - 1)) : nullptr;
    if (second) end = static_cast<uint32_t>(second - host);
  } else {
    // A name: its last two labels, so "a.b.c.d" hashes "c.d".
    uint32_t dots = 0;
    for (uint32_t i = length; i-- > 0;) {
      if (host[i] == '.' && ++dots == 2) {
        begin = i + 1;
        break;
      }
    }
  }
  return Hash32(host + begin, end - begin);
}
