// Number parsing, FNV-1 hashes and the identifier scrambling of UIntHash.
//
// The strict parsers share one rule set: every unit must be a digit of the
// base, no sign (apart from the '-' of the signed parsers), no white space,
// no prefix. A rejected text returns 0 with the flag set.
#include "kz/format.h"

#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "internal/context.h"
#include "kz/message.h"

namespace {

constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();

// Digit values: '0'-'9' are 0-9, 'A'-'Z' and 'a'-'z' are 10-35, every other
// byte is 255 (never below a base).
struct DigitTable {
  uint8_t value[256];
  constexpr DigitTable() : value() {
    for (int i = 0; i < 256; ++i) value[i] = 255;
    for (int i = 0; i < 10; ++i) value['0' + i] = static_cast<uint8_t>(i);
    for (int i = 0; i < 26; ++i) {
      value['A' + i] = static_cast<uint8_t>(10 + i);
      value['a' + i] = static_cast<uint8_t>(10 + i);
    }
  }
};
constexpr DigitTable kDigits;

// For each base, how many leading digits can be accumulated without any
// overflow test: the largest k with base^k <= 2^64, so that base^k - 1 fits.
struct SafeDigitTable {
  uint8_t count[37];
  constexpr SafeDigitTable() : count() {
    const unsigned __int128 limit = static_cast<unsigned __int128>(1) << 64;
    for (unsigned base = 2; base < 37; ++base) {
      int digits = 0;
      unsigned __int128 power = 1;
      while (power * base <= limit) {
        power *= base;
        ++digits;
      }
      count[base] = static_cast<uint8_t>(digits);
    }
  }
};
constexpr SafeDigitTable kSafeDigits;
static_assert(kSafeDigits.count[10] == 19 && kSafeDigits.count[16] == 16 && kSafeDigits.count[2] == 64 &&
              kSafeDigits.count[36] == 12);

inline void CheckBase(int base) { KZ_CHECK(base > 1 && base < 37, "base > 1 && base < 37", "kzlib/kzlib", __LINE__); }

inline unsigned DigitOf(char c) { return kDigits.value[static_cast<unsigned char>(c)]; }
// A 16-bit unit contributes its low byte only; the high byte is ignored.
inline unsigned DigitOf(uint16_t u) { return kDigits.value[u & 0xFF]; }

// ---- base 10 over bytes: eight digits at a time -------------------------

inline uint64_t Load8(const char *p) {
  uint64_t x;
  std::memcpy(&x, p, 8);
  if constexpr (std::endian::native == std::endian::big) x = __builtin_bswap64(x);
  return x;  // first character in the low byte
}

// A word with `byte` in every byte.
template <typename Word>
constexpr Word EveryByte(uint8_t byte) {
  return static_cast<Word>(~Word{0} / 0xFF * byte);
}

// True when all bytes of x are '0'-'9'. A byte is accepted when its high
// nibble is 3 and stays 3 after adding 6 (0x30-0x39 only); a carry out of a
// byte can only come from a byte of 0xFA or more, which fails on its own.
template <typename Word>
inline bool AllDigits(Word x) {
  constexpr Word kHigh = EveryByte<Word>(0xF0);
  return ((x & kHigh) | (((x + EveryByte<Word>(0x06)) & kHigh) >> 4)) == EveryByte<Word>(0x33);
}

// The value of four or eight decimal digits, first one in the low byte.
// Multiply-shift rounds combine neighbouring groups: digits into pairs
// (x * 10 + y; the 0x0F mask drops the '0' offset), pairs into groups of
// four and, in 64 bits, groups of four into the eight-digit value.
template <typename Word>
inline Word DigitsValue(Word x) {
  x = ((x & EveryByte<Word>(0x0F)) * 2561) >> 8;
  x = ((x & static_cast<Word>(~Word{0} / 0xFFFF * 0xFF)) * 6553601) >> 16;
  if constexpr (sizeof(Word) == 8) x = ((x & 0x0000FFFF0000FFFFull) * 42949672960001ull) >> 32;
  return x;
}

// n bytes, sizeof(Half) <= n <= 2 * sizeof(Half), as two overlapping loads,
// first byte lowest; the overlap holds equal bytes.
template <typename Half, typename Word>
inline Word LoadOverlapping(const char *p, size_t n) {
  Half head;
  Half tail;
  std::memcpy(&head, p, sizeof head);
  std::memcpy(&tail, p + n - sizeof tail, sizeof tail);
  return head | (Word{tail} << (8 * (n - sizeof tail)));
}

// 1 to sizeof(Word) characters in the low n bytes of x, first one lowest:
// moved to the top with '0' in the bytes before them, then tested and valued
// as a full word of digits.
template <typename Word>
inline bool ParseGathered(Word x, size_t n, uint64_t *value) {
  x = (x << (8 * (sizeof(Word) - n))) | ((EveryByte<Word>(0x30) >> (8 * n - 1)) >> 1);
  if (!AllDigits(x)) return false;
  *value = DigitsValue(x);
  return true;
}

// One to eight decimal digits without a loop. The digits are gathered into
// a word (two overlapping four-byte loads from 4 digits on, first, middle and
// last byte below that) and parsed as above. Nothing outside the n bytes is
// read.
inline bool ParseUpToEight(const char *p, size_t n, uint64_t *value) {
  if constexpr (std::endian::native != std::endian::little) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) {
      const unsigned d = static_cast<unsigned char>(p[i]) - unsigned('0');
      if (d > 9) return false;
      v = v * 10 + d;
    }
    *value = v;
    return true;
  }
  uint64_t x;
  if (n >= 4) {
    x = LoadOverlapping<uint32_t, uint64_t>(p, n);
  } else {
    x = uint64_t{static_cast<unsigned char>(p[0])} | (uint64_t{static_cast<unsigned char>(p[n / 2])} << (8 * (n / 2))) |
        (uint64_t{static_cast<unsigned char>(p[n - 1])} << (8 * (n - 1)));
  }
  return ParseGathered(x, n, value);
}

// One to four decimal digits, the same way in 32 bits: two overlapping
// two-byte loads from 2 digits on.
inline bool ParseUpToFour(const char *p, size_t n, uint64_t *value) {
  if constexpr (std::endian::native != std::endian::little) return ParseUpToEight(p, n, value);
  uint32_t x;
  if (n >= 2) {
    x = LoadOverlapping<uint16_t, uint32_t>(p, n);
  } else {
    x = static_cast<unsigned char>(p[0]);
  }
  return ParseGathered(x, n, value);
}

// Up to eight digits, by size.
inline bool ParseShortDecimal(const char *p, size_t n, uint64_t *value) {
  return n <= 4 ? ParseUpToFour(p, n, value) : ParseUpToEight(p, n, value);
}

constexpr uint64_t kPowersOfTen[8] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};

// ParseULong for base 10 over bytes. The first 19 digits cannot overflow
// (10^19 - 1 < 2^64) and are taken without any test, eight at a time; only
// from the twentieth digit on is the overflow rule applied.
inline uint64_t ParseDecimal64(const char *p, size_t n, int32_t *error) {
  if (n == 0) {
    *error = 1;
    return 0;
  }
  const size_t fast = n < 19 ? n : 19;
  uint64_t value = 0;
  size_t i = 0;
  for (; fast - i >= 8; i += 8) {
    uint64_t chunk = Load8(p + i);
    if (!AllDigits(chunk)) {
      *error = 1;
      return 0;
    }
    value = value * 100000000u + DigitsValue(chunk);
  }
  if (const size_t rest = fast - i; rest != 0) {
    uint64_t part;
    if (!ParseUpToEight(p + i, rest, &part)) {
      *error = 1;
      return 0;
    }
    value = value * kPowersOfTen[rest] + part;
    i = fast;
  }
  for (; i < n; ++i) {
    unsigned d = static_cast<unsigned char>(p[i]) - unsigned('0');
    // Overflow rule: value > M / 10, or value == M / 10 and digit > M % 10.
    if (d > 9 || value > kMax64 / 10 || (value == kMax64 / 10 && d > kMax64 % 10)) {
      *error = 1;
      return 0;
    }
    value = value * 10 + d;
  }
  *error = 0;
  return value;
}

// ParseULong in one base (kBase, or the run-time base when kBase is 0). The
// leading run of digits that cannot overflow is taken without a test; after
// it, each step is rejected when value > M / base, or value == M / base and
// digit > M % base (M = 2^64 - 1). That condition is exactly "value * base +
// digit does not fit in 64 bits", which is how it is tested.
template <unsigned kBase, typename Unit>
uint64_t ParseInBase(const Unit *p, size_t n, unsigned runtimeBase, int32_t *error) {
  const unsigned b = kBase != 0 ? kBase : runtimeBase;
  const size_t safe = kSafeDigits.count[b];
  const size_t fast = n < safe ? n : safe;
  uint64_t value = 0;
  size_t i = 0;
  for (; i < fast; ++i) {
    const unsigned d = DigitOf(p[i]);
    if (d >= b) {
      *error = 1;
      return 0;
    }
    value = value * b + d;
  }
  for (; i < n; ++i) {
    const unsigned d = DigitOf(p[i]);
    uint64_t scaled;
    if (d >= b || __builtin_mul_overflow(value, uint64_t{b}, &scaled) ||
        __builtin_add_overflow(scaled, uint64_t{d}, &value)) {
      *error = 1;
      return 0;
    }
  }
  *error = 0;
  return value;
}

// ParseULong for any base and unit; the common bases get a constant base.
template <typename Unit>
__attribute__((noinline)) uint64_t ParseUnsigned64(const Unit *p, size_t n, int base, int32_t *error) {
  CheckBase(base);
  if (n == 0) {
    *error = 1;
    return 0;
  }
  if constexpr (sizeof(Unit) == 1) {
    if (base == 10) return ParseDecimal64(p, n, error);
  } else {
    if (base == 10) return ParseInBase<10>(p, n, 10, error);
  }
  if (base == 16) return ParseInBase<16>(p, n, 16, error);
  return ParseInBase<0>(p, n, static_cast<unsigned>(base), error);
}

// ParseUInt: value = value * base + digit in 64 bits, rejected as soon as a
// step leaves 32 bits (the 64-bit intermediate can then never wrap).
template <typename Unit>
uint32_t ParseUnsigned32(const Unit *p, size_t n, int base, int32_t *error) {
  CheckBase(base);
  if (n == 0) {
    *error = 1;
    return 0;
  }
  const unsigned b = static_cast<unsigned>(base);
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) {
    unsigned d = DigitOf(p[i]);
    if (d >= b) {
      *error = 1;
      return 0;
    }
    value = value * b + d;
    if (value > 0xFFFFFFFFull) {
      *error = 1;
      return 0;
    }
  }
  *error = 0;
  return static_cast<uint32_t>(value);
}

inline bool IsMinus(char c) { return c == '-'; }
inline bool IsMinus(uint16_t u) { return u == 0x002D; }

// An optional leading '-', then the unsigned routine of the same width. A
// non-negative result must be below 2^63; the magnitude after '-' may reach
// 2^63 and is negated.
template <typename Unit>
int64_t ParseSigned64(const Unit *p, size_t n, int base, int32_t *error) {
  CheckBase(base);
  const bool negative = n > 0 && IsMinus(p[0]);
  if (negative) {
    ++p;
    --n;
  }
  if constexpr (sizeof(Unit) == 1) {
    // Up to eight digits are always in range.
    uint64_t value;
    if (base == 10 && n - 1 < 8 && ParseShortDecimal(p, n, &value)) {
      *error = 0;
      return negative ? static_cast<int64_t>(0 - value) : static_cast<int64_t>(value);
    }
  }
  int32_t failed = 0;
  uint64_t magnitude = ParseUnsigned64(p, n, base, &failed);
  const uint64_t limit = negative ? (uint64_t{1} << 63) : (uint64_t{1} << 63) - 1;
  if (failed || magnitude > limit) {
    *error = 1;
    return 0;
  }
  *error = 0;
  return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

// ---- ParseDouble ------------------------------------------------------------

// 10^(2^k): the power of ten of a decimal exponent is the product of the
// entries for the set bits of its magnitude, least significant first.
constexpr double kBinaryPowersOfTen[9] = {1e1, 1e2, 1e4, 1e8, 1e16, 1e32, 1e64, 1e128, 1e256};

inline bool EqualsFolded(const char *p, const char *lower) {
  for (int i = 0; i < 3; ++i)
    if ((static_cast<unsigned char>(p[i]) | 0x20) != static_cast<unsigned char>(lower[i])) return false;
  return true;
}

inline double WithSign(double value, bool negative) {
  uint64_t bits;
  std::memcpy(&bits, &value, 8);
  if (negative) bits ^= uint64_t{1} << 63;
  std::memcpy(&value, &bits, 8);
  return value;
}

double ParseDoubleBytes(const char *p, size_t n, int32_t *error) {
  auto fail = [&]() {
    if (error) *error = 1;
    return 0.0;
  };
  size_t i = 0;
  bool negative = false;
  if (i < n && (p[i] == '-' || p[i] == '+')) {
    negative = p[i] == '-';
    ++i;
  }
  if (i == n) return fail();

  if (n - i == 3) {
    // Case-insensitive "nan" / "inf": OR-ing 0x20 maps exactly the upper-
    // and lower-case forms of a letter onto the lower-case one.
    if (EqualsFolded(p + i, "nan")) {
      if (error) *error = 0;
      uint64_t bits = 0x7FFFFFFFFFFFFFFFull | (negative ? uint64_t{1} << 63 : 0);
      double value;
      std::memcpy(&value, &bits, 8);
      return value;
    }
    if (EqualsFolded(p + i, "inf")) {
      if (error) *error = 0;
      return negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
    }
  }

  // Mantissa. Digits accumulate while value <= 0x1999999999999999 and
  // value * 10 <= M - digit; from the first digit that would overflow on, all
  // further digits are dropped, and each dropped digit before the '.' raises
  // the decimal exponent by one.
  uint64_t mantissa = 0;
  bool dropping = false;
  bool seenPoint = false;
  uint64_t integerDigits = 0;   // digits before the '.'
  uint64_t fractionDigits = 0;  // digits taken after the '.'
  uint64_t droppedInteger = 0;  // digits dropped before the '.'
  for (; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(p[i]);
    if (c == '.') {
      if (seenPoint) return fail();  // a second '.'
      seenPoint = true;
      continue;
    }
    const unsigned d = c - unsigned('0');
    if (d > 9) break;
    if (!seenPoint) ++integerDigits;
    if (!dropping && mantissa <= 0x1999999999999999ull && mantissa * 10 <= kMax64 - d) {
      mantissa = mantissa * 10 + d;
      if (seenPoint) ++fractionDigits;
    } else {
      dropping = true;
      if (!seenPoint) ++droppedInteger;
    }
  }
  if (integerDigits == 0 && fractionDigits == 0) return fail();

  // Exponent: 'e' or 'E', an optional sign, then at least one byte; decimal
  // digits accumulate in 32 bits with no overflow test (wrapping).
  int64_t exponent = 0;
  if (i < n && (p[i] == 'e' || p[i] == 'E')) {
    ++i;
    bool exponentNegative = false;
    if (i < n && (p[i] == '-' || p[i] == '+')) {
      exponentNegative = p[i] == '-';
      ++i;
    }
    if (i == n) return fail();
    uint32_t accumulated = 0;
    for (; i < n; ++i) {
      const unsigned d = static_cast<unsigned char>(p[i]) - unsigned('0');
      if (d > 9) break;
      accumulated = accumulated * 10u + d;
    }
    const int32_t value = static_cast<int32_t>(accumulated);
    exponent = exponentNegative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
  }

  // Counts are kept in 64 bits, so no input length can wrap them.
  const int64_t decimalExponent =
      exponent - static_cast<int64_t>(fractionDigits) + static_cast<int64_t>(droppedInteger);
  if (decimalExponent > 511 || decimalExponent < -511) return fail();
  if (i != n) return fail();

  double power = 1.0;
  uint32_t magnitude = static_cast<uint32_t>(decimalExponent < 0 ? -decimalExponent : decimalExponent);
  for (int bit = 0; magnitude != 0; ++bit, magnitude >>= 1)
    if (magnitude & 1) power *= kBinaryPowersOfTen[bit];

  // Unsigned conversion in two steps: a signed conversion, then 2^64 added
  // when the top bit was set. This rounds twice for mantissas of 2^63 and
  // more, and the result is defined that way.
  const int64_t asSigned = static_cast<int64_t>(mantissa);
  double value = static_cast<double>(asSigned);
  if (asSigned < 0) value += 18446744073709551616.0;

  value = decimalExponent >= 0 ? value * power : value / power;
  if (error) *error = 0;
  return WithSign(value, negative);
}

// ---- FNV-1 ------------------------------------------------------------------

constexpr uint32_t kFnv32Basis = 0x811c9dc5u;
constexpr uint32_t kFnv32Prime = 16777619u;
constexpr uint64_t kFnv64Basis = 0xcbf29ce484222325ull;
constexpr uint64_t kFnv64Prime = 0x100000001b3ull;

inline uint32_t Fnv32(const void *bytes, uint64_t length, uint32_t h) {
  const unsigned char *p = static_cast<const unsigned char *>(bytes);
  for (uint64_t i = 0; i < length; ++i) h = (h * kFnv32Prime) ^ p[i];
  return h;
}

inline uint64_t Fnv64(const void *bytes, uint64_t length, uint64_t h) {
  const unsigned char *p = static_cast<const unsigned char *>(bytes);
  for (uint64_t i = 0; i < length; ++i) h = (h * kFnv64Prime) ^ p[i];
  return h;
}

// ---- UIntHash / UIntUnhash ----------------------------------------------------

// The scrambling tables. Identifiers made by UIntHash are stored in data and
// texts and turned back into values by UIntUnhash, so these constants must
// never change.
//
// kTarget[i] is the output bit that source bit i is moved to: all targets lie
// in 0-30, 31 distinct values, and only target 14 is shared (by source bits
// 17 and 29); bit 31 of a scrambled value is therefore never set. kInvert[i]
// marks the source bits stored inverted; exactly 16 are marked.
constexpr uint8_t kTarget[32] = {7,  8,  0,  11, 2, 28, 16, 26, 23, 30, 20, 1, 13, 10, 5,  21,
                                 29, 14, 19, 27, 6, 3,  25, 18, 22, 9,  17, 4, 15, 14, 12, 24};
constexpr uint8_t kInvert[32] = {1, 0, 1, 0, 0, 1, 1, 0, 1, 1, 0, 1, 0, 0, 0, 1,
                                 0, 0, 0, 1, 1, 0, 1, 1, 0, 1, 0, 1, 1, 0, 0, 1};

constexpr bool TablesHaveTheirShape() {
  int marks = 0;
  int uses[32] = {};
  for (int i = 0; i < 32; ++i) {
    marks += kInvert[i];
    if (kTarget[i] > 30) return false;
    ++uses[kTarget[i]];
  }
  int shared = 0;
  int unused = 0;
  for (int t = 0; t < 31; ++t) {
    if (uses[t] == 2) ++shared;
    if (uses[t] == 0) ++unused;
    if (uses[t] > 2) return false;
  }
  return marks == 16 && shared == 1 && unused == 0 && uses[31] == 0;
}
static_assert(TablesHaveTheirShape(), "UIntHash tables: 16 marks, targets 0-30 with one shared");

constexpr uint32_t InvertMask() {
  uint32_t mask = 0;
  for (int i = 0; i < 32; ++i) mask |= uint32_t(kInvert[i]) << i;
  return mask;
}
constexpr uint32_t kInvertMask = InvertMask();

}  // namespace

extern "C" {

KZ_API uint32_t ParseUInt(const char *bytes, uint32_t length, int base, int32_t *error) {
  return ParseUnsigned32(bytes, length, base, error);
}

KZ_API uint64_t ParseULong(const char *bytes, uint32_t length, int base, int32_t *error) {
  uint64_t value;
  // Short decimal texts are the common case: one to eight digits need no
  // overflow test and no loop. Anything else, errors included, takes the
  // general route.
  if (base == 10 && length - 1u < 8u && ParseShortDecimal(bytes, length, &value)) {
    *error = 0;
    return value;
  }
  return ParseUnsigned64(bytes, length, base, error);
}

KZ_API uint64_t ParseULongC(const char *text, int base, int32_t *error) {
  return ParseUnsigned64(text, std::strlen(text), base, error);
}

KZ_API uint64_t ParseULongUCS2(const uint16_t *units, uint32_t length, int base, int32_t *error) {
  return ParseUnsigned64(units, length, base, error);
}

KZ_API int32_t ParseInt(const char *bytes, uint32_t length, int base, int32_t *error) {
  CheckBase(base);
  const bool negative = length > 0 && bytes[0] == '-';
  int32_t failed = 0;
  uint32_t magnitude =
      negative ? ParseUnsigned32(bytes + 1, length - 1, base, &failed) : ParseUnsigned32(bytes, length, base, &failed);
  const uint32_t limit = negative ? 0x80000000u : 0x7FFFFFFFu;
  if (failed || magnitude > limit) {
    *error = 1;
    return 0;
  }
  *error = 0;
  return negative ? static_cast<int32_t>(0u - magnitude) : static_cast<int32_t>(magnitude);
}

KZ_API int64_t ParseLong(const char *bytes, uint32_t length, int base, int32_t *error) {
  return ParseSigned64(bytes, length, base, error);
}

KZ_API int64_t ParseLongUCS2(const uint16_t *units, uint32_t length, int base, int32_t *error) {
  return ParseSigned64(units, length, base, error);
}

// The C library's conversion, on purpose lenient: leading blanks, a sign,
// base 0 and "0x" prefixes. errno is deliberately not cleared first, so a
// range error left by earlier code also sets the flag.
KZ_API int64_t ParseLongC(const char *text, int base, int32_t *error) {
  if (text[0] == '\0') {
    *error = 0;
    return 0;
  }
  // Newer C libraries also read a "0b" prefix in bases 0 and 2. Keep the
  // classic reading everywhere: "0" is converted and the 'b' stops it.
  if (base == 0 || base == 2) {
    const char *p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (*p == '-' || *p == '+') ++p;
    if (p[0] == '0' && (p[1] == 'b' || p[1] == 'B') && (p[2] == '0' || p[2] == '1')) {
      *error = 1;  // stopped before the NUL
      return 0;
    }
  }
  char *end = nullptr;
  long long value = std::strtoll(text, &end, base);
  *error = (*end != '\0' || errno == ERANGE) ? 1 : 0;
  return static_cast<int64_t>(value);
}

KZ_API double ParseDouble(const char *bytes, uint32_t length, int32_t *error) {
  return ParseDoubleBytes(bytes, length, error);
}

KZ_API double ParseDoubleC(const char *text, int32_t *error) {
  return ParseDoubleBytes(text, std::strlen(text), error);
}

KZ_API uint32_t Hash32(const void *bytes, uint64_t length) { return Fnv32(bytes, length, kFnv32Basis); }

KZ_API uint32_t Hash32Extend(const void *bytes, uint64_t length, uint32_t previous) {
  return Fnv32(bytes, length, previous);
}

KZ_API uint64_t Hash64(const void *bytes, uint64_t length) { return Fnv64(bytes, length, kFnv64Basis); }

KZ_API uint64_t Hash64Extend(const void *bytes, uint64_t length, uint64_t previous) {
  return Fnv64(bytes, length, previous);
}

// Each source bit, inverted when marked, is moved to its target bit; a 1
// sets the target, so the two sources sharing a target combine by OR. The
// result is written as "%x" would.
KZ_API int UIntHash(char *buffer, uint32_t value) {
  const uint32_t flipped = value ^ kInvertMask;
  uint32_t scrambled = 0;
  for (int i = 0; i < 32; ++i) scrambled |= ((flipped >> i) & 1u) << kTarget[i];
  static const char kHex[] = "0123456789abcdef";
  int digits = 1;
  while (digits < 8 && (scrambled >> (4 * digits)) != 0) ++digits;
  for (int k = 0; k < digits; ++k) buffer[k] = kHex[(scrambled >> (4 * (digits - 1 - k))) & 0xF];
  buffer[digits] = '\0';
  return digits;
}

// Parses hexadecimal within 32 bits (an empty text, another byte or an
// overflow reads as 0), then result bit i = bit kTarget[i], inverted when
// marked.
KZ_API uint32_t UIntUnhash(const char *text) {
  const size_t length = std::strlen(text);
  int32_t failed = 0;
  uint32_t scrambled = ParseUnsigned32(text, length, 16, &failed);
  if (failed) scrambled = 0;
  uint32_t value = 0;
  for (int i = 0; i < 32; ++i) value |= ((scrambled >> kTarget[i]) & 1u) << i;
  return value ^ kInvertMask;
}

}  // extern "C"
