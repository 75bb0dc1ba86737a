// Number parsing, FNV-1 hashes, UIntHash/UIntUnhash, formatted output into byte arrays, strlcpy/strlcat.

#include "kz/format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <trio.h>

#include "reference_parsers.h"

namespace {

using namespace kzref;
using namespace std::literals;
using U128 = unsigned __int128;

uint32_t Len(std::string_view s) { return static_cast<uint32_t>(s.size()); }
uint64_t Bits(double d) { return std::bit_cast<uint64_t>(d); }

std::string InBase(U128 value, int base, bool upper) {
  const unsigned b = static_cast<unsigned>(base);
  const char digit = "0123456789abcdefghijklmnopqrstuvwxyz"[value % b];
  return (value >= b ? InBase(value / b, base, upper) : "") + char(upper && digit > '9' ? digit - 32 : digit);
}

// The documented cases; the other variants are held to the same rules by the differential check below.
using Parse = uint64_t (*)(const char *, uint32_t, int, int32_t *);
const Parse kU32 = [](auto p, auto n, auto b, auto e) -> uint64_t { return ParseUInt(p, n, b, e); };
const Parse kS32 = [](auto p, auto n, auto b, auto e) -> uint64_t { return uint32_t(ParseInt(p, n, b, e)); };
const Parse kU64 = [](auto p, auto n, auto b, auto e) -> uint64_t { return ParseULong(p, n, b, e); };
const Parse kS64 = [](auto p, auto n, auto b, auto e) -> uint64_t { return uint64_t(ParseLong(p, n, b, e)); };

TEST(ParseIntegers, EdgeCases) {
  const struct {
    Parse parse;
    std::string_view text;
    int base;
    uint64_t value;
    int32_t error;
  } cases[] = {{kU32, "4294967295", 10, 0xFFFFFFFFu, 0},
               {kU32, "4294967296", 10, 0, 1},
               {kU32, "", 10, 0, 1},
               {kU32, "+1", 10, 0, 1},
               {kU32, " 1", 10, 0, 1},
               {kU32, "18446744073709551616", 10, 0, 1},
               {kU32, "12x"sv.substr(0, 2), 10, 12, 0},
               {kS32, "-2147483648", 10, 0x80000000u, 0},
               {kS32, "2147483648", 10, 0, 1},
               {kS32, "-", 10, 0, 1},
               {kU64, "ffffffffffffffff", 16, kMax64, 0},
               {kU64, "ffffffffffffffff0", 16, 0, 1},
               {kU64, "Z", 36, 35, 0},
               {kU64, "Z", 35, 0, 1},
               {kU64, "18446744073709551616", 10, 0, 1},
               {kU64, "-1", 10, 0, 1},
               {kU64, "", 16, 0, 1},
               {kS64, "-9223372036854775808", 10, uint64_t{1} << 63, 0},
               {kS64, "9223372036854775808", 10, 0, 1},
               {kS64, "--1", 10, 0, 1}};
  for (const auto &c : cases) {
    int32_t error = -1;
    EXPECT_EQ(c.parse(c.text.data(), Len(c.text), c.base, &error), c.value) << "'" << c.text << "' base " << c.base;
    EXPECT_EQ(error, c.error) << "'" << c.text << "' base " << c.base;
  }
}

// Lengths 0-45 of repeated digits; values around 2^64, 2^63, 2^32, 2^31 and the powers of the base;
// every byte in every place of short texts, and in base 10 of texts up to 24 digits, where several digits
// are tested at a time (such tests must reject exactly what the per-digit rule rejects).
std::vector<std::string> EdgeTexts(int base) {
  std::vector<std::string> texts;
  for (size_t length = 0; length <= 45; ++length)
    for (char fill : {'0', '1', '9', InBase(static_cast<unsigned>(base - 1), base, true)[0]})
      texts.emplace_back(length, fill);
  for (U128 pivot : {U128{kMax64}, U128{1} << 63, U128{1} << 32, U128{1} << 31})
    for (int delta = -4; delta <= 4; ++delta) texts.push_back(InBase(pivot + delta, base, delta & 1));
  for (U128 power = 1; power < (U128{1} << 70); power *= static_cast<unsigned>(base))
    for (int delta = -2; delta <= 2; ++delta)
      if (static_cast<__int128>(power) + delta >= 0) texts.push_back(InBase(power + delta, base, false));
  const std::string digits = "918446744073709551615723";
  for (size_t length = 1; length <= (base == 10 ? digits.size() : 2); ++length)
    for (size_t i = 0; i < 256 * length; ++i)
      texts.push_back(digits.substr(0, length).replace(i % length, 1, 1, static_cast<char>(i / length)));
  return texts;
}

// Every strict parser against the reference, on the text and "-" + text; the 16-bit variants see
// the bytes with the given high byte (a '-' with a high byte is no minus).
testing::AssertionResult AllAgree(const std::string &text, int base, uint16_t high) {
  for (const std::string &t : {text, "-" + text}) {
    std::vector<uint16_t> units;
    for (char c : t) units.push_back(static_cast<uint16_t>(static_cast<unsigned char>(c) | (high << 8)));
    const auto [p, u, n] = std::tuple(t.data(), units.data(), Len(t));
    int32_t e[7] = {-1, -1, -1, -1, -1, -1, -1};  // each parser must set its flag
    const Parsed got[] = {{ParseUInt(p, n, base, e), e[0]},
                          {uint32_t(ParseInt(p, n, base, e + 1)), e[1]},
                          {ParseULong(p, n, base, e + 2), e[2]},
                          {ParseULongC(p, base, e + 3), e[3]},
                          {uint64_t(ParseLong(p, n, base, e + 4)), e[4]},
                          {ParseULongUCS2(u, n, base, e + 5), e[5]},
                          {uint64_t(ParseLongUCS2(u, n, base, e + 6)), e[6]}};
    const Parsed want[] = {
        RefUInt(p, n, base), RefInt(p, n, base),   RefULong(p, n, base), RefULong(p, std::strlen(p), base),
        RefLong(p, n, base), RefULong(u, n, base), RefLong(u, n, base)};
    for (int i = 0; i < 7; ++i)
      if (got[i].value != want[i].value || got[i].error != want[i].error)
        return testing::AssertionFailure() << "parser" << i << " base " << base << " high " << high << " " << t;
  }
  return testing::AssertionSuccess();
}

TEST(ParseIntegers, MatchReferenceInEveryBase) {
  for (int base = 2; base <= 36; ++base)
    for (const std::string &text : EdgeTexts(base))
      for (uint16_t high : {0, 1, 0xFF}) ASSERT_TRUE(AllAgree(text, base, high));
}

TEST(ParseLongC, LenientConversionAndFlag) {
  const struct {
    const char *text;
    int base, errnoBefore;
    int64_t value;
    int32_t error;
  } cases[] = {{" +12", 10, 0, 12, 0},
               {"12x", 10, 0, 12, 1},
               {"", 10, 0, 0, 0},
               {" ", 10, 0, 0, 1},
               {"0x1f", 0, 0, 31, 0},
               {"017", 0, 0, 15, 0},
               {"0b101", 2, 0, 0, 1},
               {"99999999999999999999", 10, 0, INT64_MAX, 1},
               {"-99999999999999999999", 10, 0, INT64_MIN, 1},
               {"-9223372036854775808", 10, 0, INT64_MIN, 0},
               {"5", 10, ERANGE, 5, 1},  // a stale range error sets the flag, and stays
               {"5", 10, EINVAL, 5, 0},
               {"", 10, ERANGE, 0, 0}};
  for (const auto &c : cases) {
    errno = c.errnoBefore;
    int32_t error = -1;
    EXPECT_EQ(ParseLongC(c.text, c.base, &error), c.value) << c.text;
    EXPECT_EQ(error, c.error) << c.text << " " << c.errnoBefore;
    if (c.errnoBefore == ERANGE) {
      EXPECT_EQ(errno, ERANGE) << c.text;
    }
  }
  errno = 0;
}

TEST(ParseDouble, ValuesAndErrors) {
  // A mantissa converted as the parser does: signed, then 2^64 added when negative.
  auto TwoStep = [](uint64_t m) { return double(int64_t(m)) + (int64_t(m) < 0 ? 0x1p64 : 0.0); };
  const double inf = HUGE_VAL, nan = std::bit_cast<double>(uint64_t{0x7FFFFFFFFFFFFFFF});  // all mantissa bits
  const std::string nines(40, '9'), tooSmall = "0." + std::string(599, '0') + "1", pulledBack = tooSmall + "e600";
  const struct {
    std::string_view text;
    double value;
    int32_t error = 0;
  } cases[] = {{"1e3", 1000},
               {"-0.5", -0.5},
               {"+2.25", 2.25},
               {"1.", 1},
               {"-.5", -0.5},
               {"1.5E-3", 15.0 / 10000.0},
               {"-0", -0.0},
               {"nan", nan},
               {"nAn", nan},
               {"-NaN", std::bit_cast<double>(~uint64_t{0})},
               {"+iNf", inf},
               {"-inf", -inf},
               {"1e511", inf},
               {"1e-511", 0},
               {"1e308", 1e4 * 1e16 * 1e32 * 1e256},
               {pulledBack, 1},
               {"1e4294967297", 10},  // the exponent wraps in 32 bits
               {"123456789012345678901234567890", TwoStep(12345678901234567890ull) * 1e10},  // digits past 20 dropped
               {"184467440737095516160e-308", TwoStep(1844674407370955161ull) / (1e2 * 1e16 * 1e32 * 1e256)},
               {"0.123456789012345678901234", TwoStep(12345678901234567890ull) / 1e20},
               {nines, TwoStep(9999999999999999999ull) * 1e21},
               {"9223372036854776833", 9223372036854775808.0},
               // 2^63 + 1025 rounds to 2^63 + 2048 directly, to 2^63 in two steps.
               {"922337203685477683.3", TwoStep((uint64_t{1} << 63) + 1025) / 10.0},
               {"", 0, 1},
               {"-", 0, 1},
               {".", 0, 1},
               {"1.2.3", 0, 1},
               {"12 ", 0, 1},
               {" 12", 0, 1},
               {"1e", 0, 1},
               {"1e+", 0, 1},
               {"e5", 0, 1},
               {"1x", 0, 1},
               {"0x10", 0, 1},
               {"1e512", 0, 1},
               {"1e-512", 0, 1},
               {"1,5", 0, 1},
               {"+-1", 0, 1},
               {"nan ", 0, 1},
               {"infinity", 0, 1},
               {"in", 0, 1},
               {"1e5.0", 0, 1},
               {"-1e512", 0, 1},
               {tooSmall, 0, 1}};  // errors give +0.0, never -0.0
  for (const auto &c : cases) {
    const std::string text(c.text);
    int32_t error = -1, errorC = -1;
    EXPECT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), Bits(c.value)) << text;
    EXPECT_EQ(error, c.error) << text;
    EXPECT_EQ(Bits(ParseDoubleC(text.c_str(), &errorC)), Bits(c.value)) << text;
    EXPECT_EQ(errorC, c.error) << text;
    EXPECT_EQ(Bits(ParseDoubleC(text.c_str(), nullptr)), Bits(c.value)) << text;
  }
  EXPECT_TRUE(std::isnan(ParseDoubleC("0e400", nullptr)));  // 10^400 is infinite before the 0 is applied
}

TEST(Hash, Fnv1VectorsAndExtend) {
  const struct {
    std::string_view text;
    uint32_t h32;
    uint64_t h64;
  } vectors[] = {{"", 0x811c9dc5u, 0xcbf29ce484222325ull},
                 {"a", 0x050c5d7eu, 0xaf63bd4c8601b7beull},
                 {"foo", 0x408f5e13u, 0xd8cbc7186ba13533ull},
                 {"foobar", 0x31f0b262u, 0x340d8765a4dda9c2ull},
                 {"\xff\0\0\x01"sv, 0xb78320a1u, 0xd6b2b17bf4b71261ull}};  // bytes are read unsigned
  for (const auto &[text, h32, h64] : vectors) {
    EXPECT_EQ(Hash32(text.data(), text.size()), h32) << text;
    EXPECT_EQ(Hash64(text.data(), text.size()), h64) << text;
  }
  const std::string text = "Extending the hash of a prefix gives the hash of the whole \x80\xff text.";
  const char *p = text.data();
  for (size_t at = 0, n = text.size(); at <= n; ++at) {
    EXPECT_EQ(Hash32Extend(p + at, n - at, Hash32(p, at)), Hash32(p, n)) << at;
    EXPECT_EQ(Hash64Extend(p + at, n - at, Hash64(p, at)), Hash64(p, n)) << at;
  }
}

// UIntHash's text; checks the count, the NUL and that nothing passes 9 bytes.
std::string HashText(uint32_t value) {
  char buffer[16] = "XXXXXXXXXXXXXXX";
  const int n = UIntHash(buffer, value);
  EXPECT_GE(n, 1) << value;
  EXPECT_LE(n, 8) << value;
  EXPECT_EQ(buffer[std::clamp(n, 0, 8)], '\0') << value;
  EXPECT_EQ(buffer[9], 'X') << value;
  return std::string(buffer, static_cast<size_t>(std::clamp(n, 0, 8)));
}

std::string Hex(uint32_t value, const char *format = "%x") {
  char text[16];
  return std::string(text, static_cast<size_t>(std::snprintf(text, sizeof text, format, value)));
}

TEST(UIntHash, KnownIdentifiersAndProperties) {
  const struct {
    uint32_t value;
    const char *text;
  } known[] = {// stored in data: never change
               {0, "5ba582d3"},           {1, "5ba58253"},          {0xFFFFFFFFu, "245a7d2c"},
               {0x80000000u, "5aa582d3"}, {0x12345678u, "bbc28bf"}, {0xDEADBEEFu, "269a3d48"},
               {1000000, "33acc2f3"}};
  for (const auto &k : known) EXPECT_EQ(HashText(k.value), k.text) << k.value;
  // Short lower-case hex without bit 31; unhashing then hashing gives the text back without bit 31;
  // hashing then unhashing loses at most one bit, always one of the same two, about half the time.
  std::mt19937 rng(20);
  uint32_t lost = 0, exact = 0;
  for (int i = 0; i < 100000; ++i) {
    const uint32_t x = i < 64 ? (i < 32 ? (1u << i) : ~(1u << (i - 32))) : static_cast<uint32_t>(rng());
    const std::string text = HashText(x);
    ASSERT_EQ(text, Hex(static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 16)) & 0x7FFFFFFFu)) << x;
    const uint32_t difference = UIntUnhash(text.c_str()) ^ x;
    ASSERT_LE(__builtin_popcount(difference), 1) << x;
    lost |= difference, exact += difference == 0;
    ASSERT_EQ(HashText(UIntUnhash(Hex(x, i & 1 ? "%x" : "%08X").c_str())), Hex(x & 0x7FFFFFFFu)) << x;
  }
  EXPECT_EQ(__builtin_popcount(lost), 2) << lost;
  EXPECT_GT(exact, 45000u);
  EXPECT_LT(exact, 55000u);
  const uint32_t zero = UIntUnhash("0");  // invalid texts unhash as "0"; bit 31 is never read
  for (const char *text : {"", "g", "12x4", " 12", "0x12", "-1", "100000000", "00000000"})
    EXPECT_EQ(UIntUnhash(text), zero) << text;
  EXPECT_NE(UIntUnhash("1"), zero);
  EXPECT_EQ(UIntUnhash("ABCDEF"), UIntUnhash("000000000abcdef"));
  EXPECT_EQ(UIntUnhash("ffffffff"), UIntUnhash("7fffffff"));
}

template <typename A>
std::string Text(const A &a) {
  return std::string(reinterpret_cast<const char *>(a.elements), a.count);
}

template <typename A>
void CheckPrintf(int (*print)(A *, const char *, ...)) {
  A a{};
  EXPECT_EQ(print(&a, "abc"), 1);
  EXPECT_EQ(Text(a) + char(a.elements[a.count]), "abc\0"s);
  EXPECT_EQ(a.capacity, 4u);
  ASSERT_EQ(print(&a, "%I64u|%I64d|%016I64x|%I64d|%d-%s", 18446744073709551615ull, -5ll, 0xabcull,
                  -9223372036854775807ll - 1, 42, "x"),
            1);
  ASSERT_EQ(print(&a, ""), 1);
  for (const char *bad : {"%y", "abc%", "abcdefgh%s%y"}) EXPECT_EQ(print(&a, bad, "zz"), 0) << bad;
  EXPECT_EQ(Text(a) + char(a.elements[a.count]),  // nothing of the failed texts is left behind
            "abc18446744073709551615|-5|0000000000000abc|-9223372036854775808|42-x\0"s);
  free(a.elements);
  // One pass when the text and its NUL fit, else a second after growing by the growth rule.
  const std::string big(10000, 'q');
  A b{}, c{static_cast<unsigned char *>(malloc(16)), 0, 16};
  EXPECT_EQ(print(&b, "%s", big.c_str()), 1);
  EXPECT_EQ(Text(b) + char(b.elements[b.count]), big + '\0');
  EXPECT_EQ(b.capacity, 16384u);
  free(b.elements);
  unsigned char *const storage = c.elements;
  EXPECT_EQ(print(&c, "%s", "fifteen-chars!!"), 1);
  EXPECT_EQ(c.capacity, 16u);
  EXPECT_EQ(c.elements, storage);
  c.count = 0;
  EXPECT_EQ(print(&c, "%s%d", "sixteen-chars!!", 7), 1);
  EXPECT_EQ(c.capacity, 64u);
  EXPECT_EQ(print(&c, "<%s>%I64u", big.c_str() + 9900, 99ull), 1);
  EXPECT_EQ(c.capacity, 256u);
  EXPECT_EQ(Text(c) + char(c.elements[c.count]), "sixteen-chars!!7<" + big.substr(9900) + ">99" + '\0');
  free(c.elements);
}

// Calls a va_list variant with the arguments after format.
template <auto Vprintf, typename... Lead>
auto ThroughVaList(Lead... lead, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const auto result = Vprintf(lead..., format, args);
  va_end(args);
  return result;
}

TEST(Printf, ArraysAndAllocated) {
  CheckPrintf(UByteArrayPrintf);
  CheckPrintf(UByteBigArrayPrintf);
  CheckPrintf<UByteArray>(ThroughVaList<UByteArrayVprintf, UByteArray *>);
  CheckPrintf<UByteBigArray>(ThroughVaList<UByteBigArrayVprintf, UByteBigArray *>);
  const std::string big(10000, 'a');
  for (char *(*alloc)(const char *, ...) : {AllocPrintf, ThroughVaList<AllocVprintf>}) {
    char *text = alloc("%s=%I64u|%s", "n", 18446744073709551615ull, big.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), "n=18446744073709551615|" + big);
    free(text);
    EXPECT_EQ(alloc("%y"), nullptr);
  }
}

// The library's text for one format, or "<error>".
template <typename... V>
std::string Kz(const char *format, V... values) {
  UByteArray a{};
  const int ok = UByteArrayPrintf(&a, format, values...);
  std::string text = ok ? Text(a) : "<error>";
  free(a.elements);
  return text;
}

// trio's text for the same, the formatter of record.
template <typename... V>
std::string Trio(const char *format, V... values) {
  char probe[1];
  const int n = trio_snprintf(probe, sizeof probe, format, values...);
  if (n < 0) return "<error>";
  std::string text(static_cast<size_t>(n) + 1, '\0');
  trio_snprintf(text.data(), text.size(), format, values...);
  text.resize(static_cast<size_t>(n));
  return text;
}

#define EXPECT_SAME_AS_TRIO(...) EXPECT_EQ(Kz(__VA_ARGS__), Trio(__VA_ARGS__)) << #__VA_ARGS__

TEST(Printf, TrickyConversionsMatchTrio) {
  EXPECT_SAME_AS_TRIO("%d|%i|%I64d|%lld", INT32_MIN, INT32_MAX, INT64_MIN, INT64_MIN);
  EXPECT_SAME_AS_TRIO("%u|%x|%X|%o|%lu|%zx|%jo|%tX", -1, -1, -1, -1, -1L, size_t{0}, intmax_t{-1}, ptrdiff_t{-1});
  EXPECT_SAME_AS_TRIO("[%.0d][%.0u][%.0x][%#.0x][%#.0o][%5.0d][%-3.0d][%+.0d][% .0u]", 0, 0, 0, 0, 0, 0, 0, 0, 0);
  EXPECT_SAME_AS_TRIO("[%#o][%#x][%#X][%#5o][%#05x][%#-6o][%#.3o][%#.2o][%-#.3o]", 0, 0, 255, 8, 0, 8, 8, 1, 8);
  EXPECT_SAME_AS_TRIO("[%+ d][% +d][% d][%+d][% u][%+u][% x][%+ x][% #x][% 05u]", 5, 5, -5, 0, 5, 5, 5, 5, 5, 5);
  EXPECT_SAME_AS_TRIO("[%-05d][%0-5d][%-+5d][%05.3d][%08.3x][%010d][%+010d][% 010d][%#010X]", 7, 3, 3, 7, 255, -3, 3, 3,
                      3);
  EXPECT_SAME_AS_TRIO("[%*d][%-*d][%0*d][%.*d][%08.*d][%*.*d]", 5, 1, 5, 1, -5, 3, -5, 3, -1, 3, -4, 2, 7);
  EXPECT_SAME_AS_TRIO("[%.0s][%.s][%5.0s][%.3s][%10.5s][%-10.5s][%05s][%-5s][% +#0s]", "abc", "abc", "abc", "abcdef",
                      "abcdefg", "abcdefg", "ab", "ab", "x");
  EXPECT_SAME_AS_TRIO("[%c][%5c][%-5c][%05c][%*c][%.3c][%c][%c]", 'a', 'b', 'c', 'd', -3, 'e', 'f', 300, -1);
  EXPECT_SAME_AS_TRIO("[%hhd][%hhu][%hd][%hu][%ho][%hhx][%I32u][%I32d]", 300, 300, 70000, -1, -1, -1, -1, -5);
  EXPECT_SAME_AS_TRIO("[%100000d][%.100000d][%-100000s]", 1, 2, "x");
  EXPECT_SAME_AS_TRIO("[%9999999d]", 1);
  EXPECT_SAME_AS_TRIO("[%10000000d][%.10000000d][%*d][%.*d]", 1, 2, 10000000, 3, -10000000, 4);
  EXPECT_SAME_AS_TRIO("%%|%5%|%d", 1);
  // Left to trio whole: a NULL text, positions, pointers, other lengths and conversions.
  EXPECT_SAME_AS_TRIO("[%s][%10s][%.3s]", static_cast<const char *>(nullptr), static_cast<const char *>(nullptr),
                      static_cast<const char *>(nullptr));
  EXPECT_SAME_AS_TRIO("%1$d %1$d", 42);
  EXPECT_SAME_AS_TRIO("%d %e %g %E %G", 1, 1.5, 1e-5, 2.5e300, 0.0001);
  EXPECT_SAME_AS_TRIO("%I16d|%I8u|%qd|%'d|%Lf|%#s", 70000, -1, 5LL, 1234567, 1.5L, "a\tb");
  for (const char *bad : {"%", "abc%", "%y", "%hhhd", "%lllx", "%I3d", "%I", "%.-3d", "%..3d"})
    EXPECT_SAME_AS_TRIO(bad, 1);
}

TEST(Printf, ArgumentCountLimitMatchesTrio) {
  // The direct path hands lists of more than 32 arguments to trio. (trio's own limit is 64; at the limit
  // it overruns its stack under the address sanitizer, so the check stays below it.)
  for (int n : {31, 32, 33, 48}) {
    std::string format;
    for (int i = 0; i < n; ++i) format += "%d,";
    const char *f = format.c_str();
#define ARGS8 1, 2, 3, 4, 5, 6, 7, 8
    EXPECT_EQ(Kz(f, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8),
              Trio(f, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8, ARGS8))
        << n;
#undef ARGS8
  }
}

// Fixed point follows trio's long double arithmetic, not correct rounding: ties round away from zero
// and a value just below a large power of ten gets a leading zero.
TEST(Printf, FixedPointMatchesTrio) {
  EXPECT_EQ(Kz("%.0f %.0f %.0f %#.0f %.1f", 0.5, 1.5, 2.5, 2.5, 0.05), "1 2 3 3. 0.1");
  EXPECT_EQ(Kz("%.0f", 999999999999999.0), "0999999999999999");
  EXPECT_EQ(Kz("[%.1f][%05f][%+F][%-6f]", NAN, -INFINITY, -NAN, INFINITY), "[n][ -inf][NAN][inf   ]");
  std::vector<double> values = {
      0.0,   -0.0, 5e-324,     2.2250738585072014e-308, 1e300, 1.7976931348623157e308, 0.1, 0.125, 0.0005,
      9.995, 99.5, 123456.789, 9007199254740993.0,      -0.5};
  for (int k = 0; k <= 22; ++k) {
    const double p = std::pow(10.0, k);
    for (double v : {p, p - 1, p + 1, std::nextafter(p, 0.0), p + 0.5, p - 0.5, 1 / p, 0.5 / p, 1.5 / p})
      values.push_back(v);
  }
  for (int i = 0; i < 1600; ++i) values.push_back(i / 8.0 - 100);
  std::mt19937_64 rng(17);
  for (int i = 0; i < 500; ++i) values.push_back(std::bit_cast<double>(rng()));
  for (double v : values)
    for (const char *format : {"%f", "%.0f", "%.1f", "%.3f", "%.9f", "%.12f", "%.17f", "%#.0F", "%+12.4f", "%-+ 10.2f",
                               "%010.3f", "% 08.1lf"})
      ASSERT_EQ(Kz(format, v), Trio(format, v)) << format << " " << Bits(v);
}

// A base outside 2-36 is fatal in every parser, even for an empty text. Records claiming almost the
// limit: the needed capacity reaches it before anything is touched.
TEST(FormatDeathTest, BadBasesAndCapacityLimit) {
  static int32_t error;
  static const uint16_t units[] = {'1'};
  for (void (*parse)() : {+[] { ParseUInt("1", 1, 1, &error); }, +[] { ParseInt("1", 1, -2, &error); },
                          +[] { ParseULong("", 0, 37, &error); }, +[] { ParseULongC("1", 1, &error); },
                          +[] { ParseULongUCS2(units, 1, 37, &error); }, +[] { ParseLong("1", 1, 0, &error); },
                          +[] { ParseLongUCS2(units, 1, 1, &error); }})
    EXPECT_DEATH(parse(), "'base > 1 && base < 37' failed at kzlib/kzlib:");
  UByteArray a{nullptr, 0x7FFFFFF0u, 0x7FFFFFF0u};
  UByteBigArray b{nullptr, 0x7FFFFFFFFFFFFFFEull, 0x7FFFFFFFFFFFFFFEull};
  EXPECT_DEATH(UByteArrayPrintf(&a, "x"), "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:");
  EXPECT_DEATH(UByteBigArrayPrintf(&b, "x"), "'eltCount < ULONG_MAX_VALUE / 2' failed at kzlib/array:");
}

// The whole buffer afterwards: '#' where nothing may be written. strlcat writes nothing when the size is at most
// the destination's length, and only the NUL when there is room for it alone.
TEST(StrlcpyStrlcat, EdgeCases) {
  const struct {
    const char *destination, *source;
    size_t size, result;
    std::string_view after;
  } cases[] = {{nullptr, "hello", 0, 5, "##########"},
               {nullptr, "hello", 1, 5, "\0#########"sv},
               {nullptr, "hello", 6, 5, "hello\0####"sv},
               {nullptr, "", 8, 0, "\0#########"sv},
               {nullptr, "a longer text", 8, 13, "a longe\0##"sv},
               {"abc", "xyz", 0, 6, "abc\0######"sv},
               {"abc", "xyz", 3, 6, "abc\0######"sv},
               {"abc", "xyz", 4, 6, "abc\0######"sv},
               {"abc", "xyz", 5, 6, "abcx\0#####"sv},
               {"abcxyz", "0123456", 10, 13, "abcxyz012\0"sv},
               {"abcxyz012", "", 10, 9, "abcxyz012\0"sv},
               {"", "hello", 4, 5, "hel\0######"sv}};
  for (const auto &c : cases) {
    char buffer[11] = "##########";  // 10 bytes in use
    if (c.destination) std::memcpy(buffer, c.destination, std::strlen(c.destination) + 1);
    const size_t result = c.destination ? strlcat(buffer, c.source, c.size) : strlcpy(buffer, c.source, c.size);
    EXPECT_EQ(result, c.result) << c.source << " size " << c.size;
    EXPECT_EQ(std::string_view(buffer, 10), c.after) << c.source << " size " << c.size;
  }
}

}  // namespace
