// Tests for number parsing, FNV-1 hashes, UIntHash/UIntUnhash, formatted
// output into byte arrays and the bounded string copies. The strict integer
// parsers are also checked against the digit-at-a-time reference and against
// std::from_chars on edge and random texts in every base.

#include "kz/format.h"

#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "reference_parsers.h"

namespace {

using namespace kzref;
using namespace std::string_view_literals;

constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr int64_t kMaxS64 = std::numeric_limits<int64_t>::max();

uint32_t Len(std::string_view s) { return static_cast<uint32_t>(s.size()); }

std::vector<uint16_t> Widen(std::string_view text, uint16_t high) {
    std::vector<uint16_t> units;
    for (char c : text) units.push_back(static_cast<uint16_t>(static_cast<unsigned char>(c) | (high << 8)));
    return units;
}

using U128 = unsigned __int128;

std::string InBase(U128 value, int base, bool upper) {
    const char *digits = upper ? "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ" : "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string out;
    do out.insert(out.begin(), digits[static_cast<int>(value % static_cast<unsigned>(base))]);
    while ((value /= static_cast<unsigned>(base)) != 0);
    return out;
}

// ---- strict integer parsers: documented cases ------------------------------------

template <typename V>
struct Case { std::string_view text; int base; V value; int32_t error; };
using UCase = Case<uint64_t>;
using SCase = Case<int64_t>;

// parse(text, base, &error) over every case.
template <typename V, size_t N, typename Parse>
void ExpectCases(const Case<V> (&cases)[N], Parse parse) {
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "'" << c.text << "' base " << c.base);
        int32_t error = -1;
        EXPECT_EQ(static_cast<V>(parse(c.text, c.base, &error)), c.value);
        EXPECT_EQ(error, c.error);
    }
}

// Adapters: the text as bytes, or as 16-bit units with the given high byte.
auto Bytes(auto parse) {
    return [=](std::string_view t, int base, int32_t *e) { return parse(t.data(), Len(t), base, e); };
}
auto Units(auto parse, uint16_t high) {
    return [=](std::string_view t, int base, int32_t *e) {
        const auto units = Widen(t, high);
        return parse(units.data(), Len(t), base, e);
    };
}

TEST(ParseUInt, EdgeCases) {
    const UCase cases[] = {
        {"4294967295", 10, 0xFFFFFFFFu, 0}, {"4294967296", 10, 0, 1}, {"", 10, 0, 1}, {"+1", 10, 0, 1},
        {" 1", 10, 0, 1}, {"1 ", 10, 0, 1}, {"0x10", 16, 0, 1}, {"FFFFffff", 16, 0xFFFFFFFFu, 0},
        {"100000000", 16, 0, 1}, {"000000000000000000000000004294967295", 10, 0xFFFFFFFFu, 0},
        {"18446744073709551616", 10, 0, 1},  // wraps to 0 modulo 2^64: still an error
        {std::string_view("12x", 2), 10, 12, 0}, {"19", 8, 0, 1}, {"zz", 36, 35 * 36 + 35, 0},
    };
    ExpectCases(cases, Bytes(ParseUInt));
}

TEST(ParseInt, EdgeCases) {
    const SCase cases[] = {
        {"-2147483648", 10, -2147483647 - 1, 0}, {"2147483647", 10, 2147483647, 0}, {"2147483648", 10, 0, 1},
        {"-2147483649", 10, 0, 1}, {"-", 10, 0, 1}, {"+5", 10, 0, 1}, {"--5", 10, 0, 1}, {"-0", 10, 0, 0},
        {"-7fffffff", 16, -2147483647, 0}, {"80000000", 16, 0, 1},
    };
    ExpectCases(cases, Bytes(ParseInt));
}

// Run through the byte, NUL-terminated and 16-bit (high byte set) variants.
TEST(ParseULong, EdgeCases) {
    const std::string ones(64, '1'), twoTo64 = "1" + std::string(64, '0');
    const UCase cases[] = {
        {"ffffffffffffffff", 16, kMax64, 0}, {"ffffffffffffffff0", 16, 0, 1}, {"Z", 36, 35, 0}, {"z", 36, 35, 0},
        {"Z", 35, 0, 1}, {"18446744073709551615", 10, kMax64, 0}, {"18446744073709551616", 10, 0, 1},
        {"18446744073709551620", 10, 0, 1}, {"99999999999999999999", 10, 0, 1},
        {"9999999999999999999", 10, 9999999999999999999ull, 0},
        {"0000000000000000000000018446744073709551615", 10, kMax64, 0}, {"", 10, 0, 1}, {"", 16, 0, 1},
        {ones, 2, kMax64, 0}, {twoTo64, 2, 0, 1},
        {"3w5e11264sgsf", 36, kMax64, 0}, {"3w5e11264sgsg", 36, 0, 1}, {"-1", 10, 0, 1},
        {"1234567890123456789", 10, 1234567890123456789ull, 0}, {" 12", 10, 0, 1}, {"0x12", 16, 0, 1},
        {"deadBEEF", 16, 0xdeadbeefu, 0}, {"101", 2, 5, 0}, {"102", 2, 0, 1}, {"10", 36, 36, 0},
    };
    ExpectCases(cases, Bytes(ParseULong));
    ExpectCases(cases, [](std::string_view t, int b, int32_t *e) { return ParseULongC(std::string(t).c_str(), b, e); });
    ExpectCases(cases, Units(ParseULongUCS2, 0xAB));
}

TEST(ParseLong, EdgeCases) {
    const SCase cases[] = {
        {"-9223372036854775808", 10, kMin64, 0}, {"9223372036854775807", 10, kMaxS64, 0},
        {"9223372036854775808", 10, 0, 1}, {"-9223372036854775809", 10, 0, 1}, {"-", 10, 0, 1}, {"", 10, 0, 1},
        {"+1", 10, 0, 1}, {"--1", 10, 0, 1}, {"-8000000000000000", 16, kMin64, 0}, {"-z", 36, -35, 0},
        {"-12345678", 10, -12345678, 0}, {"-123456789", 10, -123456789, 0}, {"1-2", 10, 0, 1},
    };
    ExpectCases(cases, Bytes(ParseLong));
    ExpectCases(cases, Units(ParseLongUCS2, 0));
}

TEST(ParseUCS2, HighByteIgnoredButMinusIsOneUnit) {
    const uint16_t wide[] = {0x0131, 0xFF32, 0x4133};  // low bytes '1' '2' '3'
    const uint16_t minus[] = {0x002D, 0x0134, 0xFF32};
    const uint16_t notMinus[] = {0x012D, '4', '2'};  // the low byte of '-' only
    int32_t error = -1;
    EXPECT_EQ(ParseULongUCS2(wide, 3, 10, &error), 123u);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseLongUCS2(minus, 3, 10, &error), -42);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseLongUCS2(notMinus, 3, 10, &error), 0);
    EXPECT_EQ(error, 1);
}

TEST(ParseDeathTest, BaseOutsideTwoToThirtySix) {
    int32_t error = 0;
    const uint16_t units[] = {'1'};
    const char *kText = "'base > 1 && base < 37' failed at kzlib/kzlib:";
    EXPECT_DEATH(ParseUInt("1", 1, 1, &error), kText);
    EXPECT_DEATH(ParseUInt("1", 1, 37, &error), kText);
    EXPECT_DEATH(ParseULong("1", 1, 37, &error), kText);
    EXPECT_DEATH(ParseULong("1", 1, 0, &error), kText);
    EXPECT_DEATH(ParseULongC("1", 1, &error), kText);
    EXPECT_DEATH(ParseULongUCS2(units, 1, 37, &error), kText);
    EXPECT_DEATH(ParseInt("1", 1, -2, &error), kText);
    EXPECT_DEATH(ParseLong("1", 1, 37, &error), kText);
    EXPECT_DEATH(ParseLongUCS2(units, 1, 1, &error), kText);
    EXPECT_DEATH(ParseULong("", 0, 64, &error), kText);  // checked even for an empty text
}

// ---- strict integer parsers: against the reference and std::from_chars ------------

// Bytes a digit test could confuse with digits: neighbours of the digit and
// letter ranges, their high-bit twins, separators and the extremes.
const unsigned char kAwkwardBytes[] = {0x00, 0x01, ' ',  '+',  '-',  '.',  '/',  ':',  '@',  'G',  'Z',
                                       '[',  '`',  'g',  'z',  '{',  0x7F, 0x80, 0xB0, 0xB9, 0xC1, 0xFF};

class TextSource {
public:
    explicit TextSource(uint64_t seed) : rng_(seed) {}
    size_t Below(size_t n) { return static_cast<size_t>(rng_() % n); }

    // Often a valid number of the base, often near a limit, sometimes corrupted.
    std::string Number(int base) {
        static const uint64_t kPivots[] = {uint64_t{1} << 63, uint64_t{1} << 32, uint64_t{1} << 31};
        const bool upper = Below(2) == 0;
        std::string text;
        switch (Below(6)) {
            case 0:  // random digits, up to 70
                for (size_t n = Below(71); n > 0; --n) text += InBase(Below(static_cast<size_t>(base)), base, Below(2));
                break;
            case 1: text = InBase(static_cast<U128>(kMax64) + Below(9) - 4, base, upper); break;
            case 2: text = InBase(kPivots[Below(3)] + Below(7) - 3, base, upper); break;
            case 3: text = InBase(rng_() >> Below(64), base, upper); break;
            case 4: text = InBase(((static_cast<U128>(rng_()) << 64) | rng_()) >> Below(128), base, upper); break;
            default: if (Below(2)) text = InBase(Below(static_cast<size_t>(base)), base, false); break;
        }
        if (Below(3) == 0) text.insert(0, std::string(Below(25), '0'));
        if (!text.empty() && Below(4) == 0) {
            const size_t byte = Below(2) ? kAwkwardBytes[Below(sizeof kAwkwardBytes)] : Below(256);
            text[Below(text.size())] = static_cast<char>(byte);
        }
        return text;
    }

private:
    std::mt19937_64 rng_;
};

// Lengths 0-45 of repeated digits, and values around 2^64, 2^63, 2^32, 2^31
// and the powers of the base up to 2^70.
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
    return texts;
}

// The strict rule by independent means: from_chars must take the whole text.
template <typename T>
Parsed FromChars(std::string_view s, int base) {
    T value{};
    const auto r = std::from_chars(s.data(), s.data() + s.size(), value, base);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return {0, 1};
    return {static_cast<std::make_unsigned_t<T>>(value), 0};
}

// Every strict parser on the text, the signed ones on "-" + text too; the
// 16-bit variants see the bytes with the given high byte. Reports the first
// disagreement and returns false.
bool AllAgree(const std::string &text, int base, uint16_t high) {
    const std::string minus = "-" + text;
    const std::vector<uint16_t> units = Widen(text, high);
    std::vector<uint16_t> minusUnits = units;
    minusUnits.insert(minusUnits.begin(), 0x002D);
    const char *p = text.data(), *m = minus.data();
    const uint32_t n = Len(text);
    auto agree = [&](const char *what, std::string_view s, auto parse, std::initializer_list<Parsed> expected) {
        int32_t error = -1;
        const uint64_t value = parse(&error);
        for (const Parsed &want : expected) {
            if (value == want.value && error == want.error) continue;
            ADD_FAILURE() << what << " base " << base << " high " << high << " '" << s << "': " << value << "/"
                          << error << ", expected " << want.value << "/" << want.error;
            return false;
        }
        return true;
    };
    return agree("ParseUInt", text, [&](int32_t *e) { return ParseUInt(p, n, base, e); },
                 {RefUInt(p, n, base), FromChars<uint32_t>(text, base)}) &&
           agree("ParseInt", text, [&](int32_t *e) { return static_cast<uint32_t>(ParseInt(p, n, base, e)); },
                 {RefInt(p, n, base), FromChars<int32_t>(text, base)}) &&
           agree("ParseInt", minus, [&](int32_t *e) { return static_cast<uint32_t>(ParseInt(m, n + 1, base, e)); },
                 {RefInt(m, n + 1, base), FromChars<int32_t>(minus, base)}) &&
           agree("ParseULong", text, [&](int32_t *e) { return ParseULong(p, n, base, e); },
                 {RefULong(p, n, base), FromChars<uint64_t>(text, base)}) &&
           agree("ParseULongC", text, [&](int32_t *e) { return ParseULongC(p, base, e); },
                 {RefULong(p, std::strlen(p), base)}) &&
           agree("ParseLong", text, [&](int32_t *e) { return ParseLong(p, n, base, e); },
                 {RefLong(p, n, base), FromChars<int64_t>(text, base)}) &&
           agree("ParseLong", minus, [&](int32_t *e) { return ParseLong(m, n + 1, base, e); },
                 {RefLong(m, n + 1, base), FromChars<int64_t>(minus, base)}) &&
           agree("ParseULongUCS2", text, [&](int32_t *e) { return ParseULongUCS2(units.data(), n, base, e); },
                 {RefULong(units.data(), n, base), RefULong(p, n, base)}) &&
           agree("ParseLongUCS2", text, [&](int32_t *e) { return ParseLongUCS2(units.data(), n, base, e); },
                 {RefLong(units.data(), n, base)}) &&
           agree("ParseLongUCS2", minus, [&](int32_t *e) { return ParseLongUCS2(minusUnits.data(), n + 1, base, e); },
                 {RefLong(minusUnits.data(), n + 1, base)});
}

TEST(ParseIntegers, MatchReferenceInEveryBase) {
    TextSource source(13);
    for (int base = 2; base <= 36; ++base) {
        for (const std::string &text : EdgeTexts(base)) ASSERT_TRUE(AllAgree(text, base, 0));
        for (int i = base == 10 ? 50000 : 4000; i > 0; --i) {
            const uint16_t high = source.Below(2) ? 0 : static_cast<uint16_t>(source.Below(256));
            ASSERT_TRUE(AllAgree(source.Number(base), base, high));
        }
    }
}

// The several-digits-at-a-time tests must reject exactly what the per-digit
// rule rejects.
TEST(ParseIntegers, DecimalEveryByteAtEveryPosition) {
    const std::string digits = "918446744073709551615723";
    for (size_t length = 1; length <= digits.size(); ++length)
        for (size_t at = 0; at < length; ++at)
            for (unsigned byte = 0; byte < 256; ++byte) {
                std::string text = digits.substr(0, length);
                text[at] = static_cast<char>(byte);
                ASSERT_TRUE(AllAgree(text, 10, 0));
            }
}

// ---- ParseLongC ------------------------------------------------------------------------

TEST(ParseLongC, LenientConversionAndFlag) {
    const struct { const char *text; int base, errnoBefore; int64_t value; int32_t error; } cases[] = {
        {" +12", 10, 0, 12, 0}, {"12x", 10, 0, 12, 1}, {"", 10, 0, 0, 0}, {"\t-42", 10, 0, -42, 0},
        {"0x1f", 16, 0, 31, 0}, {"0x1f", 0, 0, 31, 0}, {"017", 0, 0, 15, 0}, {"12 ", 10, 0, 12, 1},
        {" ", 10, 0, 0, 1}, {"zz", 36, 0, 35 * 36 + 35, 0}, {"101", 2, 0, 5, 0},
        {"0b101", 2, 0, 0, 1}, {"0b101", 0, 0, 0, 1},  // the classic reading: the 'b' stops it
        {"99999999999999999999", 10, 0, kMaxS64, 1}, {"-99999999999999999999", 10, 0, kMin64, 1},
        {"9223372036854775807", 10, 0, kMaxS64, 0}, {"-9223372036854775808", 10, 0, kMin64, 0},
        {"5", 10, ERANGE, 5, 1},  // a stale range error sets the flag
        {"5", 10, EINVAL, 5, 0}, {"", 10, ERANGE, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "'" << c.text << "' base " << c.base << " errno " << c.errnoBefore);
        errno = c.errnoBefore;
        int32_t error = -1;
        EXPECT_EQ(ParseLongC(c.text, c.base, &error), c.value);
        EXPECT_EQ(error, c.error);
        if (c.errnoBefore == ERANGE) {
            EXPECT_EQ(errno, ERANGE);  // not cleared
        }
    }
    errno = 0;
}

// ---- ParseDouble ----------------------------------------------------------------------------

uint64_t Bits(double d) { return std::bit_cast<uint64_t>(d); }

// A mantissa converted as the parser does: signed, then 2^64 added when negative.
double TwoStep(uint64_t mantissa) {
    const double d = static_cast<double>(static_cast<int64_t>(mantissa));
    return static_cast<int64_t>(mantissa) < 0 ? d + 18446744073709551616.0 : d;
}

// 10^magnitude as the product of the binary powers, least significant first.
double Power(unsigned magnitude) {
    static const double kTable[9] = {1e1, 1e2, 1e4, 1e8, 1e16, 1e32, 1e64, 1e128, 1e256};
    double power = 1.0;
    for (int bit = 0; bit < 9; ++bit)
        if (magnitude & (1u << bit)) power *= kTable[bit];
    return power;
}

// Each case through ParseDouble, and ParseDoubleC with and without a flag.
TEST(ParseDouble, Values) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::bit_cast<double>(uint64_t{0x7FFFFFFFFFFFFFFF});  // every mantissa bit set
    const uint64_t top = (uint64_t{1} << 63) + 1025;
    // Directly converted, 2^63 + 1025 rounds up to 2^63 + 2048; in two steps
    // -(2^63 - 1025) rounds to -(2^63 - 1024), and + 2^64 ties to even: 2^63.
    ASSERT_NE(TwoStep(top), static_cast<double>(top));
    const uint64_t twenty = 12345678901234567890ull;  // 20 digits, above 2^63
    const std::string nines(40, '9'), pulledBack = "0." + std::string(599, '0') + "1e600";
    const struct { std::string_view text; double value; } cases[] = {
        {"1e3", 1000}, {"-0.5", -0.5}, {"+2.25", 2.25}, {"1.", 1}, {".5", 0.5}, {"-.5", -0.5},
        {"1.5E-3", 15.0 / 10000.0}, {"25e+2", 2500}, {"0.1", 0.1}, {"007", 7}, {"1e0", 1}, {"1e-0", 1},
        {"-0", -0.0}, {"nan", nan}, {"NaN", nan}, {"NAN", nan}, {"nAn", nan}, {"+nan", nan},
        {"-NaN", std::bit_cast<double>(~uint64_t{0})}, {"inf", inf}, {"INF", inf}, {"+iNf", inf}, {"-inf", -inf},
        {"1e511", inf}, {"1e-511", 0}, {"1e308", Power(308)},  // 10^511 overflows, 10^-511 underflows
        {pulledBack, 1},                                        // the limit applies after the fraction digits
        {"1e4294967297", 10},                                   // the exponent wraps in 32 bits
        {"123456789012345678901234567890", TwoStep(twenty) * Power(10)},  // ten digits dropped
        {"184467440737095516160e-308", TwoStep(1844674407370955161ull) / Power(306)},  // the 0 would fit: not taken
        {"18446744073709551615", TwoStep(kMax64)},
        {"0.123456789012345678901234", TwoStep(twenty) / Power(20)},  // dropped after '.': no effect
        {"123456789012345678901.99", TwoStep(twenty) * Power(1)},
        {nines, TwoStep(9999999999999999999ull) * Power(21)},  // above 0x1999999999999999 after 19
        {"123456789012345678901234567890e-40", TwoStep(twenty) / Power(30)},
        {"9223372036854776833", 9223372036854775808.0}, {"922337203685477683.3", TwoStep(top) / 10.0},
        {"9223372036854775807", 9223372036854775808.0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const std::string text(c.text);
        int32_t error = -1;
        EXPECT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), Bits(c.value));
        EXPECT_EQ(error, 0);
        error = -1;
        EXPECT_EQ(Bits(ParseDoubleC(text.c_str(), &error)), Bits(c.value));
        EXPECT_EQ(error, 0);
        EXPECT_EQ(Bits(ParseDoubleC(text.c_str(), nullptr)), Bits(c.value));
    }
    // The power 10^400 is infinite before the zero mantissa is applied.
    EXPECT_TRUE(std::isnan(ParseDoubleC("0e400", nullptr)));
}

TEST(ParseDouble, Errors) {
    const std::string tooSmall = "0." + std::string(599, '0') + "1";
    const std::string_view texts[] = {
        "", "-", "+", ".", "-.", "1.2.3", "..5", "12 ", " 12", "1e", "1e+", "1e-", "e5", ".e5", "1x", "0x10",
        "1e5x", "1e512", "1e-512", "1,5", "++1", "+-1", "nan ", "nann", "infinity", "in", "-in", "n", "N\x01N",
        "1e5.0", "1.e", "--0", "1d3", "-1x", "-1e512", tooSmall, "1\0"sv,
    };
    for (std::string_view text : texts) {
        SCOPED_TRACE(testing::Message() << "'" << text << "'");
        int32_t error = -1;
        EXPECT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), 0u);  // +0.0, never -0.0
        EXPECT_EQ(error, 1);
        if (text.find('\0') != std::string_view::npos) continue;
        error = -1;
        EXPECT_EQ(Bits(ParseDoubleC(std::string(text).c_str(), &error)), 0u);
        EXPECT_EQ(error, 1);
    }
}

// At most 15 digits and a net exponent within +-22 mean exact operands and
// one rounding: the correctly rounded result strtod gives.
TEST(ParseDouble, AgreesWithStrtodOnExactOperands) {
    std::mt19937_64 rng(18);
    for (int i = 0; i < 100000; ++i) {
        std::string text = rng() % 3 ? "" : "-";
        const int digits = 1 + static_cast<int>(rng() % 15), point = static_cast<int>(rng() % (digits + 1));
        int fraction = 0;
        for (int k = 0; k < digits; ++k) {
            if (k == point && rng() % 2) text += '.';
            if (text.find('.') != std::string::npos) ++fraction;
            text += static_cast<char>('0' + rng() % 10);
        }
        if (rng() % 2) {
            int exponent = static_cast<int>(rng() % 23) - static_cast<int>(rng() % 23);
            if (exponent - fraction < -22 || exponent - fraction > 22) exponent = 0;
            text += (rng() % 2 ? "e" : "E") + std::to_string(exponent);
        }
        int32_t error = -1;
        ASSERT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), Bits(std::strtod(text.c_str(), nullptr))) << text;
        ASSERT_EQ(error, 0) << text;
    }
}

// ---- hashes -----------------------------------------------------------------------------------

TEST(Hash, PublishedFnv1Vectors) {
    const struct { std::string_view text; uint32_t h32; uint64_t h64; } vectors[] = {
        {"", 0x811c9dc5u, 0xcbf29ce484222325ull}, {"a", 0x050c5d7eu, 0xaf63bd4c8601b7beull},
        {"foo", 0x408f5e13u, 0xd8cbc7186ba13533ull}, {"foobar", 0x31f0b262u, 0x340d8765a4dda9c2ull}};
    for (const auto &v : vectors) {
        EXPECT_EQ(Hash32(v.text.data(), v.text.size()), v.h32) << v.text;
        EXPECT_EQ(Hash64(v.text.data(), v.text.size()), v.h64) << v.text;
    }
    // One byte b, read unsigned: (basis * prime) XOR b.
    for (unsigned b = 0; b < 256; ++b) {
        const unsigned char byte = static_cast<unsigned char>(b);
        EXPECT_EQ(Hash32(&byte, 1), (0x811c9dc5u * 16777619u) ^ b);
        EXPECT_EQ(Hash64(&byte, 1), (0xcbf29ce484222325ull * 0x100000001b3ull) ^ b);
    }
}

TEST(Hash, ExtendEqualsOneShot) {
    std::mt19937_64 rng(19);
    std::string text;
    for (int i = 0; i < 300; ++i) text += static_cast<char>(rng());
    const char *p = text.data();
    for (size_t split = 0; split <= text.size(); ++split) {
        EXPECT_EQ(Hash32Extend(p + split, text.size() - split, Hash32(p, split)), Hash32(p, text.size()));
        EXPECT_EQ(Hash64Extend(p + split, text.size() - split, Hash64(p, split)), Hash64(p, text.size()));
    }
    EXPECT_EQ(Hash32Extend("", 0, 1234u), 1234u);
    EXPECT_EQ(Hash64Extend("", 0, 0x1234567890ull), 0x1234567890ull);
}

// ---- UIntHash / UIntUnhash ------------------------------------------------------------------------

std::string Hex(uint32_t value, const char *format = "%x") {
    char text[16];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// UIntHash's text; checks the count, the NUL and that nothing passes 9 bytes.
std::string HashText(uint32_t value) {
    char buffer[16];
    std::memset(buffer, 'X', sizeof buffer);
    const int n = UIntHash(buffer, value);
    if (n >= 1 && n <= 8 && buffer[n] == '\0' && buffer[9] == 'X') return std::string(buffer, static_cast<size_t>(n));
    ADD_FAILURE() << "UIntHash(" << value << ") wrote " << n << " characters badly";
    return "!";
}

// Identifiers are stored in data and texts, so these never change.
TEST(UIntHash, KnownIdentifiers) {
    const struct { uint32_t value; const char *text; } known[] = {
        {0, "5ba582d3"}, {1, "5ba58253"}, {0xFFFFFFFFu, "245a7d2c"}, {0x80000000u, "5aa582d3"},
        {0x12345678u, "bbc28bf"}, {0xDEADBEEFu, "269a3d48"}, {1000000, "33acc2f3"}};
    for (const auto &k : known) EXPECT_EQ(HashText(k.value), k.text) << k.value;
}

TEST(UIntHash, ShortLowerCaseHexWithoutBit31) {
    std::mt19937 rng(20);
    for (int i = 0; i < 100000; ++i) {
        const uint32_t value = i < 64 ? (i < 32 ? (1u << i) : ~(1u << (i - 32))) : static_cast<uint32_t>(rng());
        const std::string text = HashText(value);
        const auto scrambled = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 16));
        ASSERT_EQ(text, Hex(scrambled)) << value;  // "%x": at most 8 digits, lower case, no leading zeros
        ASSERT_EQ(scrambled & 0x80000000u, 0u) << value;
    }
}

// UIntUnhash("0") is the word of inversion marks; UIntUnhash of the single
// bit k XORed with it is the set of source bits moved to k. Exactly one
// target is shared by two sources; a value round-trips exactly when those
// two bits agree after inversion, and otherwise comes back with the 0 of the
// pair turned into 1. Hashing an unhashed text gives it back without bit 31.
TEST(UIntHash, RoundTripRule) {
    const uint32_t marks = UIntUnhash("0");
    EXPECT_EQ(__builtin_popcount(marks), 16);
    uint32_t covered = 0, pair = 0;
    for (int k = 0; k < 32; ++k) {
        const uint32_t sources = UIntUnhash(Hex(1u << k).c_str()) ^ marks;
        const int count = __builtin_popcount(sources);
        EXPECT_TRUE(k == 31 ? count == 0 : count == 1 || count == 2) << "target " << k << ": " << count;
        if (count == 2) {
            EXPECT_EQ(pair, 0u) << "a second shared target " << k;
            pair = sources;
        }
        EXPECT_EQ(covered & sources, 0u) << k;
        covered |= sources;
    }
    EXPECT_EQ(covered, 0xFFFFFFFFu);
    ASSERT_EQ(__builtin_popcount(pair), 2);

    std::mt19937 rng(21);
    const int rounds = 200000;
    int exact = 0;
    for (int i = 0; i < rounds; ++i) {
        const uint32_t x = static_cast<uint32_t>(rng()), flipped = x ^ marks;
        const bool agree = (flipped & pair) == 0 || (flipped & pair) == pair;
        ASSERT_EQ(UIntUnhash(HashText(x).c_str()) ^ x, agree ? 0u : pair & ~flipped) << x;
        exact += agree;
        const uint32_t t = i < 32 ? 1u << i : x;
        const std::string text = Hex(t, i & 1 ? "%x" : "%08X");
        ASSERT_EQ(HashText(UIntUnhash(text.c_str())), Hex(t & 0x7FFFFFFFu)) << text;
    }
    EXPECT_GT(exact, rounds * 45 / 100);  // random values agree in the pair half the time
    EXPECT_LT(exact, rounds * 55 / 100);
}

TEST(UIntHash, UnhashOfInvalidTextIsUnhashOfZero) {
    const uint32_t zero = UIntUnhash("0");
    for (const char *text : {"", "g", "12x4", " 12", "0x12", "-1", "100000000", "100000001", "00000000"})
        EXPECT_EQ(UIntUnhash(text), zero) << text;
    EXPECT_NE(UIntUnhash("1"), zero);
    EXPECT_EQ(UIntUnhash("ABCDEF"), UIntUnhash("abcdef"));
    EXPECT_EQ(UIntUnhash("000000000abcdef"), UIntUnhash("abcdef"));
    EXPECT_EQ(UIntUnhash("ffffffff"), UIntUnhash("7fffffff"));  // bit 31 is never read
}

// ---- formatted output ---------------------------------------------------------------------------------

template <typename A>
struct Family;
template <>
struct Family<UByteArray> {
    static constexpr auto Printf = UByteArrayPrintf;
    static constexpr auto Vprintf = UByteArrayVprintf;
    static void GrowExact(UByteArray &a, uint32_t n) { ArrayGrowExact(a, n); }
};
template <>
struct Family<UByteBigArray> {
    static constexpr auto Printf = UByteBigArrayPrintf;
    static constexpr auto Vprintf = UByteBigArrayVprintf;
    static void GrowExact(UByteBigArray &a, uint64_t n) { BigArrayGrowExact(a, n); }
};

template <typename A>
int VPrintf(A *a, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Family<A>::Vprintf(a, format, args);
    va_end(args);
    return result;
}

// The two entry points of a family: variadic and through a va_list.
template <typename A>
std::vector<int (*)(A *, const char *, ...)> Entries() {
    return {Family<A>::Printf, VPrintf<A>};
}

template <typename A>
std::string Text(const A &a) {
    return std::string(reinterpret_cast<const char *>(a.elements), static_cast<size_t>(a.count));
}

template <typename A>
class ArrayPrintf : public testing::Test {};
using ArrayTypes = testing::Types<UByteArray, UByteBigArray>;
TYPED_TEST_SUITE(ArrayPrintf, ArrayTypes);

TYPED_TEST(ArrayPrintf, AppendsAndKeepsNul) {
    for (auto print : Entries<TypeParam>()) {
        SCOPED_TRACE(print == Family<TypeParam>::Printf ? "variadic" : "va_list");
        TypeParam a{};
        ASSERT_EQ(print(&a, "abc"), 1);
        EXPECT_EQ(a.count, 3u);
        EXPECT_EQ(a.capacity, 4u);  // count + 1 by the growth rule
        EXPECT_EQ(a.elements[3], '\0');
        ASSERT_EQ(print(&a, "%I64u|%I64d|%016I64x|%I64d|%d-%s", 18446744073709551615ull, -5ll, 0xabcull,
                        std::numeric_limits<long long>::min(), 42, "x"),
                  1);
        ASSERT_EQ(print(&a, ""), 1);
        EXPECT_EQ(Text(a), "abc18446744073709551615|-5|0000000000000abc|-9223372036854775808|42-x");
        EXPECT_EQ(a.elements[a.count], '\0');
        free(a.elements);
    }
}

TYPED_TEST(ArrayPrintf, FormatterErrorLeavesLength) {
    for (auto print : Entries<TypeParam>()) {
        SCOPED_TRACE(print == Family<TypeParam>::Printf ? "variadic" : "va_list");
        TypeParam a{};
        ASSERT_EQ(print(&a, "keep"), 1);
        for (const char *bad : {"%y", "abc%", "abcdefgh%s%y"}) {  // nothing of the text is left behind
            EXPECT_EQ(print(&a, bad, "zz"), 0) << bad;
            EXPECT_EQ(Text(a), "keep") << bad;
            EXPECT_EQ(a.elements[4], '\0') << bad;
        }
        ASSERT_EQ(print(&a, "!"), 1);
        EXPECT_EQ(Text(a), "keep!");
        free(a.elements);
    }
}

// One pass when the text fits the spare capacity with its NUL, else a second
// one after growing by the growth rule (the arguments are read twice).
TYPED_TEST(ArrayPrintf, GrowsOnlyWhenTheTextDoesNotFit) {
    for (auto print : Entries<TypeParam>()) {
        SCOPED_TRACE(print == Family<TypeParam>::Printf ? "variadic" : "va_list");
        const std::string big(10000, 'q');
        TypeParam a{};
        ASSERT_EQ(print(&a, "%s", big.c_str()), 1);
        EXPECT_EQ(Text(a), big);
        EXPECT_EQ(a.elements[10000], '\0');
        EXPECT_EQ(a.capacity, 16384u);  // 4 16 64 256 1024 2048 4096 8192 16384
        free(a.elements);

        TypeParam b{};
        Family<TypeParam>::GrowExact(b, 16);
        unsigned char *const storage = b.elements;
        ASSERT_EQ(print(&b, "%s", "fifteen-chars!!"), 1);
        EXPECT_EQ(b.capacity, 16u);
        EXPECT_EQ(b.elements, storage);
        b.count = 0;
        ASSERT_EQ(print(&b, "%s%d", "sixteen-chars!!", 7), 1);
        EXPECT_EQ(b.capacity, 64u);
        const std::string tail(100, 'z');
        ASSERT_EQ(print(&b, "<%s>%I64u", tail.c_str(), 99ull), 1);  // the prefix survives the growth
        EXPECT_EQ(Text(b), "sixteen-chars!!7<" + tail + ">99");
        EXPECT_EQ(b.capacity, 256u);
        EXPECT_EQ(b.elements[b.count], '\0');
        free(b.elements);
    }
}

char *AllocV(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *result = AllocVprintf(format, args);
    va_end(args);
    return result;
}

TEST(AllocPrintf, FormatsAndFails) {
    const std::string big(10000, 'a');
    for (auto alloc : {AllocPrintf, AllocV}) {
        char *text = alloc("%s=%I64u|%s", "n", 18446744073709551615ull, big.c_str());
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), "n=18446744073709551615|" + big);
        free(text);
        text = alloc("");
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "");
        free(text);
        EXPECT_EQ(alloc("%y"), nullptr);
    }
}

// Records claiming almost the limit: the needed capacity reaches it before
// anything is allocated or formatted, so the storage is never touched.
unsigned char g_neverTouched[1];

void AppendToHugeArray() {
    UByteArray a{g_neverTouched, 0x7FFFFFF0u, 0x7FFFFFF0u};
    UByteArrayPrintf(&a, "x");
}

void AppendToHugeBigArray() {
    UByteBigArray a{g_neverTouched, 0x7FFFFFFFFFFFFFFEull, 0x7FFFFFFFFFFFFFFEull};
    UByteBigArrayPrintf(&a, "x");
}

TEST(UByteArrayPrintfDeathTest, CapacityLimitIsFatal) {
    EXPECT_DEATH(AppendToHugeArray(), "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:");
    EXPECT_DEATH(AppendToHugeBigArray(), "'eltCount < ULONG_MAX_VALUE / 2' failed at kzlib/array:");
}

// ---- strlcpy / strlcat ----------------------------------------------------------------------------------

// The whole buffer afterwards ('#' where nothing may be written).
TEST(Strlcpy, EdgeCases) {
    const struct { const char *source; size_t size, result; std::string_view after; } cases[] = {
        {"hello", 0, 5, "########"}, {"hello", 1, 5, "\0#######"sv}, {"hello", 3, 5, "he\0#####"sv},
        {"hello", 6, 5, "hello\0##"sv}, {"", 8, 0, "\0#######"sv}, {"a longer text", 8, 13, "a longe\0"sv},
    };
    for (const auto &c : cases) {
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);
        SCOPED_TRACE(testing::Message() << c.source << " size " << c.size);
        EXPECT_EQ(strlcpy(buffer, c.source, c.size), c.result);
        EXPECT_EQ(std::string_view(buffer, sizeof buffer), c.after);
    }
}

TEST(Strlcat, EdgeCases) {
    const struct { const char *destination, *source; size_t size, result; std::string_view after; } cases[] = {
        {"abc", "xyz", 0, 6, "abc\0######"sv},  // size <= destination length: nothing written
        {"abc", "xyz", 2, 6, "abc\0######"sv}, {"abc", "xyz", 3, 6, "abc\0######"sv},
        {"abc", "xyz", 4, 6, "abc\0######"sv},  // room for the NUL only
        {"abc", "xyz", 5, 6, "abcx\0#####"sv}, {"abcx", "yz", 10, 6, "abcxyz\0###"sv},
        {"abcxyz", "0123456", 10, 13, "abcxyz012\0"sv}, {"abcxyz012", "", 10, 9, "abcxyz012\0"sv},
        {"", "hello", 4, 5, "hel\0######"sv},
    };
    for (const auto &c : cases) {
        char buffer[10];
        std::memset(buffer, '#', sizeof buffer);
        std::memcpy(buffer, c.destination, std::strlen(c.destination) + 1);
        SCOPED_TRACE(testing::Message() << c.destination << " + " << c.source << " size " << c.size);
        EXPECT_EQ(strlcat(buffer, c.source, c.size), c.result);
        EXPECT_EQ(std::string_view(buffer, sizeof buffer), c.after);
    }
}

}  // namespace
