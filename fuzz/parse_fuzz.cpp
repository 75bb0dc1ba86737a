// The number parsers on any input, against plain reference implementations
// of their rules.
//
// Input: the first byte picks the base (2-36) and the parsers' variant
// choices, the rest is the text. Checked:
//   ParseUInt, ParseULong, ParseULongC, ParseULongUCS2, ParseInt, ParseLong,
//   ParseLongUCS2  - identical value and flag to the digit-at-a-time rule;
//   ParseLong      - flag 0 => the value prints (in the base) and parses back;
//   ParseLongC     - never crashes; flag 0 with a clear errno => the value
//                    prints in base 10 and parses back; errno is not cleared;
//   ParseDouble    - identical bits and flag to a reference of the algorithm;
//                    ParseDoubleC agrees over the text up to its first NUL.

#include "kz/format.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "reference_parsers.h"

namespace {

void Require(bool condition, const char *what, const std::string &text) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s (text of %zu bytes)\n", what, text.size());
    std::abort();
  }
}

using namespace kzref;

uint64_t Bits(double d) {
  uint64_t b;
  std::memcpy(&b, &d, 8);
  return b;
}

// The double algorithm written out step by step over the split parts of the
// text.
struct DoubleResult {
  uint64_t bits;
  int32_t error;
};

DoubleResult RefDouble(const std::string &s) {
  const DoubleResult fail{0, 1};
  size_t i = 0;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  const std::string rest = s.substr(i);
  if (rest.empty()) return fail;
  if (rest.size() == 3) {
    std::string lower;
    for (char c : rest) lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    if (lower == "nan") return {negative ? ~uint64_t{0} : ~uint64_t{0} >> 1, 0};
    if (lower == "inf") {
      const double inf = std::numeric_limits<double>::infinity();
      return {Bits(negative ? -inf : inf), 0};
    }
  }
  std::string integer;
  std::string fraction;
  bool point = false;
  for (; i < s.size(); ++i) {
    if (s[i] == '.') {
      if (point) return fail;
      point = true;
    } else if (s[i] >= '0' && s[i] <= '9') {
      (point ? fraction : integer) += s[i];
    } else {
      break;
    }
  }
  uint64_t mantissa = 0;
  bool full = false;
  int64_t taken = 0;
  int64_t dropped = 0;
  for (char c : integer) {
    const uint64_t d = static_cast<uint64_t>(c - '0');
    if (!full && mantissa <= 0x1999999999999999ull && mantissa * 10 <= kMax64 - d)
      mantissa = mantissa * 10 + d;
    else
      full = true, ++dropped;
  }
  for (char c : fraction) {
    const uint64_t d = static_cast<uint64_t>(c - '0');
    if (!full && mantissa <= 0x1999999999999999ull && mantissa * 10 <= kMax64 - d)
      mantissa = mantissa * 10 + d, ++taken;
    else
      full = true;
  }
  if (integer.empty() && taken == 0) return fail;
  int64_t exponent = 0;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
    ++i;
    bool minus = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) minus = s[i++] == '-';
    if (i == s.size()) return fail;
    uint32_t e = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') e = e * 10u + static_cast<uint32_t>(s[i++] - '0');
    exponent = minus ? -static_cast<int64_t>(static_cast<int32_t>(e)) : static_cast<int64_t>(static_cast<int32_t>(e));
  }
  if (i != s.size()) return fail;
  const int64_t decimal = exponent - taken + dropped;
  if (decimal > 511 || decimal < -511) return fail;
  static const double kTable[9] = {1e1, 1e2, 1e4, 1e8, 1e16, 1e32, 1e64, 1e128, 1e256};
  double power = 1.0;
  const int64_t magnitude = decimal < 0 ? -decimal : decimal;
  for (int bit = 0; bit < 9; ++bit)
    if (magnitude & (int64_t{1} << bit)) power *= kTable[bit];
  double value = static_cast<double>(static_cast<int64_t>(mantissa));
  if (static_cast<int64_t>(mantissa) < 0) value += 18446744073709551616.0;
  value = decimal >= 0 ? value * power : value / power;
  uint64_t bits = Bits(value);
  if (negative) bits ^= uint64_t{1} << 63;
  return {bits, 0};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const int base = 2 + data[0] % 35;
  const bool highBytes = (data[0] & 0x80) != 0;
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const char *p = text.data();
  const uint32_t n = static_cast<uint32_t>(text.size());
  const std::string cText(text.c_str());  // up to the first NUL

  // Unsigned and signed, bytes.
  int32_t error = -1;
  const uint64_t u = ParseULong(p, n, base, &error);
  const Parsed ru = RefULong(p, text.size(), base);
  Require(u == ru.value && error == ru.error, "ParseULong", text);
  error = -1;
  const uint64_t uc = ParseULongC(cText.c_str(), base, &error);
  const Parsed ruc = RefULong(cText.data(), cText.size(), base);
  Require(uc == ruc.value && error == ruc.error, "ParseULongC", text);
  error = -1;
  const uint32_t u32 = ParseUInt(p, n, base, &error);
  const Parsed ru32 = RefUInt(p, text.size(), base);
  Require(u32 == ru32.value && error == ru32.error, "ParseUInt", text);
  error = -1;
  const int32_t s32 = ParseInt(p, n, base, &error);
  const Parsed rs32 = RefInt(p, text.size(), base);
  Require(static_cast<uint32_t>(s32) == rs32.value && error == rs32.error, "ParseInt", text);
  error = -1;
  const int64_t s = ParseLong(p, n, base, &error);
  const Parsed rs = RefLong(p, text.size(), base);
  Require(static_cast<uint64_t>(s) == rs.value && error == rs.error, "ParseLong", text);
  if (error == 0) {
    char printed[80];
    const auto r = std::to_chars(printed, printed + sizeof printed, s, base);
    int32_t again = -1;
    Require(ParseLong(printed, static_cast<uint32_t>(r.ptr - printed), base, &again) == s && again == 0,
            "ParseLong round trip", text);
  }

  // 16-bit units: the text's bytes, with a high byte from the input.
  std::vector<uint16_t> units;
  for (size_t i = 0; i < text.size(); ++i) {
    const uint16_t high = highBytes ? static_cast<uint8_t>(text[(i * 7 + 3) % text.size()]) : 0;
    units.push_back(static_cast<uint16_t>(static_cast<uint8_t>(text[i]) | (high << 8)));
  }
  error = -1;
  const uint64_t w = ParseULongUCS2(units.data(), n, base, &error);
  const Parsed rw = RefULong(units.data(), units.size(), base);
  Require(w == rw.value && error == rw.error, "ParseULongUCS2", text);
  Require(w == u && error == ru.error, "ParseULongUCS2 ignores the high byte", text);
  error = -1;
  const int64_t ws = ParseLongUCS2(units.data(), n, base, &error);
  const Parsed rws = RefLong(units.data(), units.size(), base);
  Require(static_cast<uint64_t>(ws) == rws.value && error == rws.error, "ParseLongUCS2", text);

  // The C library conversion: base 0 too.
  const int cBase = (data[0] & 0x40) ? 0 : base;
  errno = 0;
  error = -1;
  const int64_t c = ParseLongC(cText.c_str(), cBase, &error);
  Require(error == 0 || error == 1, "ParseLongC flag", text);
  if (error == 0) {
    Require(errno != ERANGE, "flag 0 means no range error", text);
    const std::string printed = std::to_string(c);
    errno = 0;
    int32_t again = -1;
    Require(ParseLongC(printed.c_str(), 10, &again) == c && again == 0, "ParseLongC round trip", text);
  }
  errno = ERANGE;
  error = -1;
  ParseLongC(cText.c_str(), cBase, &error);
  Require(errno == ERANGE, "errno is not cleared", text);
  Require(error == (cText.empty() ? 0 : 1), "a stale range error sets the flag", text);
  errno = 0;

  // Doubles.
  error = -1;
  const double d = ParseDouble(p, n, &error);
  const DoubleResult rd = RefDouble(text);
  Require(Bits(d) == rd.bits && error == rd.error, "ParseDouble", text);
  error = -1;
  const double dc = ParseDoubleC(cText.c_str(), &error);
  const DoubleResult rdc = RefDouble(cText);
  Require(Bits(dc) == rdc.bits && error == rdc.error, "ParseDoubleC", text);
  Require(Bits(ParseDoubleC(cText.c_str(), nullptr)) == rdc.bits, "ParseDoubleC without a flag", text);
  return 0;
}
