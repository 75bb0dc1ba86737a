// Tests for number parsing, FNV-1 hashes, UIntHash/UIntUnhash, formatted
// output into byte arrays and the bounded string copies.
//
// The strict integer parsers are checked against straightforward reference
// implementations of their rules (one digit at a time, overflow tested before
// every step) on edge inputs and on many random texts in every base, so the
// fast paths of the library must agree with the plain rule everywhere.

#include "kz/format.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "reference_parsers.h"

namespace {


using namespace kzref;

// ---- input generation ----------------------------------------------------------

std::string InBase(unsigned __int128 value, int base, bool upper) {
    const char *digits = upper ? "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ" : "0123456789abcdefghijklmnopqrstuvwxyz";
    if (value == 0) return "0";
    std::string out;
    while (value != 0) {
        out.insert(out.begin(), digits[static_cast<int>(value % static_cast<unsigned>(base))]);
        value /= static_cast<unsigned>(base);
    }
    return out;
}

// Bytes a digit check could confuse with digits: neighbours of the digit and
// letter ranges, their high-bit twins, separators and the extremes.
const unsigned char kAwkwardBytes[] = {0x00, 0x01, ' ',  '+',  '-',  '.',  '/',  ':',  ';',  '@',  'G',
                                       'Z',  '[',  '`',  'g',  'z',  '{',  0x7F, 0x80, 0xB0, 0xB5, 0xB9,
                                       0xC1, 0xE1, 0xFA, 0xFF, 0x2F, 0x3A, 0x40, 0x5B, 0x60, 0x7B};

class TextSource {
public:
    explicit TextSource(uint64_t seed) : rng_(seed) {}

    uint64_t Next() { return rng_(); }
    size_t Below(size_t n) { return static_cast<size_t>(rng_() % n); }

    // A text that is often a valid number of the base, often near the 64-bit
    // limit, and sometimes corrupted.
    std::string Number(int base) {
        std::string text;
        switch (Below(6)) {
            case 0: {  // random digits of the base, any length up to 70
                const size_t n = Below(71);
                for (size_t i = 0; i < n; ++i) {
                    const int d = static_cast<int>(Below(static_cast<size_t>(base)));
                    text += InBase(static_cast<unsigned>(d), base, Below(2) == 0);
                }
                break;
            }
            case 1: {  // around 2^64 - 1
                const __int128 delta = static_cast<__int128>(Below(9)) - 4;
                const unsigned __int128 v = static_cast<unsigned __int128>(kMax64) + delta;
                text = InBase(v, base, Below(2) == 0);
                break;
            }
            case 2: {  // around 2^63 and 2^32, 2^31
                static const uint64_t kPivots[] = {uint64_t{1} << 63, uint64_t{1} << 32, uint64_t{1} << 31};
                const uint64_t pivot = kPivots[Below(3)];
                text = InBase(pivot + Below(7) - 3, base, Below(2) == 0);
                break;
            }
            case 3:  // a random 64-bit value with a random number of bits
                text = InBase(Next() >> Below(64), base, Below(2) == 0);
                break;
            case 4: {  // a random 128-bit value: usually an overflow
                const unsigned __int128 v = (static_cast<unsigned __int128>(Next()) << 64) | Next();
                text = InBase(v >> Below(128), base, Below(2) == 0);
                break;
            }
            default:  // nothing, or a lone digit
                if (Below(2)) text = InBase(Below(static_cast<size_t>(base)), base, false);
                break;
        }
        if (Below(3) == 0) text.insert(0, std::string(Below(25), '0'));
        if (!text.empty() && Below(4) == 0) {
            const size_t at = Below(text.size());
            text[at] = Below(2) ? static_cast<char>(kAwkwardBytes[Below(sizeof kAwkwardBytes)])
                                : static_cast<char>(Below(256));
        }
        return text;
    }

    std::string Signed(int base) {
        std::string text = Number(base);
        switch (Below(5)) {
            case 0: case 1: text.insert(0, "-"); break;
            case 2: if (Below(4) == 0) text.insert(0, Below(2) ? "+" : "--"); break;
            default: break;
        }
        return text;
    }

private:
    std::mt19937_64 rng_;
};

std::vector<uint16_t> Widen(const std::string &text, uint16_t high) {
    std::vector<uint16_t> units;
    for (char c : text) units.push_back(static_cast<uint16_t>(static_cast<unsigned char>(c) | (high << 8)));
    return units;
}

uint32_t Len(const std::string &s) { return static_cast<uint32_t>(s.size()); }

// ---- ParseUInt ---------------------------------------------------------------------

TEST(ParseUInt, EdgeCases) {
    int32_t error = -1;
    EXPECT_EQ(ParseUInt("4294967295", 10, 10, &error), 0xFFFFFFFFu);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseUInt("4294967296", 10, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseUInt("", 0, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseUInt("+1", 2, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseUInt(" 1", 2, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseUInt("1 ", 2, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseUInt("0x10", 4, 16, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseUInt("FFFFffff", 8, 16, &error), 0xFFFFFFFFu);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseUInt("100000000", 9, 16, &error), 0u);
    EXPECT_EQ(error, 1);
    // Leading zeros are digits like any other.
    EXPECT_EQ(ParseUInt("000000000000000000000000004294967295", 36, 10, &error), 0xFFFFFFFFu);
    EXPECT_EQ(error, 0);
    // The overflow is caught at the step that leaves 32 bits: a text whose
    // value only wraps modulo 2^64 is still an error.
    EXPECT_EQ(ParseUInt("18446744073709551616", 20, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    // The length bounds the text: bytes after it are not read.
    EXPECT_EQ(ParseUInt("12x", 2, 10, &error), 12u);
    EXPECT_EQ(error, 0);
    // A digit not below the base.
    EXPECT_EQ(ParseUInt("19", 2, 8, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseUInt("zz", 2, 36, &error), 35u * 36u + 35u);
    EXPECT_EQ(error, 0);
}

TEST(ParseUInt, MatchesReferenceInEveryBase) {
    TextSource source(11);
    for (int base = 2; base <= 36; ++base) {
        for (int i = 0; i < 3000; ++i) {
            const std::string text = source.Number(base);
            int32_t error = -1;
            const uint32_t value = ParseUInt(text.data(), Len(text), base, &error);
            const Parsed expected = RefUInt(text.data(), text.size(), base);
            ASSERT_EQ(value, expected.value) << "base " << base << " text '" << text << "'";
            ASSERT_EQ(error, expected.error) << "base " << base << " text '" << text << "'";
        }
    }
}

// ---- ParseInt ----------------------------------------------------------------------

TEST(ParseInt, EdgeCases) {
    int32_t error = -1;
    EXPECT_EQ(ParseInt("-2147483648", 11, 10, &error), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseInt("2147483647", 10, 10, &error), 2147483647);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseInt("2147483648", 10, 10, &error), 0);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseInt("-2147483649", 11, 10, &error), 0);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseInt("-", 1, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseInt("+5", 2, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseInt("--5", 3, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseInt("-0", 2, 10, &error), 0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseInt("-7fffffff", 9, 16, &error), -2147483647);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseInt("80000000", 8, 16, &error), 0);
    EXPECT_EQ(error, 1);
}

TEST(ParseInt, MatchesReferenceInEveryBase) {
    TextSource source(12);
    for (int base = 2; base <= 36; ++base) {
        for (int i = 0; i < 3000; ++i) {
            const std::string text = source.Signed(base);
            int32_t error = -1;
            const int32_t value = ParseInt(text.data(), Len(text), base, &error);
            const Parsed expected = RefInt(text.data(), text.size(), base);
            ASSERT_EQ(static_cast<uint32_t>(value), static_cast<uint32_t>(expected.value))
                << "base " << base << " text '" << text << "'";
            ASSERT_EQ(error, expected.error) << "base " << base << " text '" << text << "'";
        }
    }
}

// ---- ParseULong ----------------------------------------------------------------------

TEST(ParseULong, EdgeCases) {
    int32_t error = -1;
    EXPECT_EQ(ParseULong("ffffffffffffffff", 16, 16, &error), kMax64);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseULong("ffffffffffffffff0", 17, 16, &error), 0u);
    EXPECT_EQ(error, 1);
    error = -1;
    EXPECT_EQ(ParseULong("Z", 1, 36, &error), 35u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("z", 1, 36, &error), 35u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("Z", 1, 35, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("18446744073709551615", 20, 10, &error), kMax64);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("18446744073709551616", 20, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("18446744073709551620", 20, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("99999999999999999999", 20, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("9999999999999999999", 19, 10, &error), 9999999999999999999ull);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("0000000000000000000000018446744073709551615", 43, 10, &error), kMax64);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("", 0, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("", 0, 16, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("1111111111111111111111111111111111111111111111111111111111111111", 64, 2, &error),
              kMax64);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("10000000000000000000000000000000000000000000000000000000000000000", 65, 2, &error),
              0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("3w5e11264sgsf", 13, 36, &error), kMax64);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("3w5e11264sgsg", 13, 36, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("-1", 2, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("1234567890123456789", 19, 10, &error), 1234567890123456789ull);
    EXPECT_EQ(error, 0);
}

TEST(ParseULong, C) {
    int32_t error = -1;
    EXPECT_EQ(ParseULongC("18446744073709551615", 10, &error), kMax64);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULongC("", 10, &error), 0u);
    EXPECT_EQ(error, 1);
    // Strict, unlike ParseLongC.
    EXPECT_EQ(ParseULongC(" 12", 10, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULongC("0x12", 16, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULongC("deadBEEF", 16, &error), 0xdeadbeefu);
    EXPECT_EQ(error, 0);
}

// Every byte value at every position of decimal texts up to 24 digits: the
// several-at-a-time digit tests must reject exactly what the per-digit one
// does, in the unsigned and the signed parser.
TEST(ParseULong, DecimalEveryByteAtEveryPosition) {
    const std::string digits = "918446744073709551615723";
    for (size_t length = 1; length <= digits.size(); ++length) {
        for (size_t at = 0; at < length; ++at) {
            for (unsigned byte = 0; byte < 256; ++byte) {
                std::string text = digits.substr(0, length);
                text[at] = static_cast<char>(byte);
                int32_t error = -1;
                const uint64_t value = ParseULong(text.data(), Len(text), 10, &error);
                const Parsed expected = RefULong(text.data(), text.size(), 10);
                ASSERT_EQ(value, expected.value) << "length " << length << " at " << at << " byte " << byte;
                ASSERT_EQ(error, expected.error) << "length " << length << " at " << at << " byte " << byte;
                // The same digits after a '-' for the signed parser.
                const std::string negative = "-" + text;
                error = -1;
                const int64_t signedValue = ParseLong(negative.data(), Len(negative), 10, &error);
                const Parsed signedExpected = RefLong(negative.data(), negative.size(), 10);
                ASSERT_EQ(static_cast<uint64_t>(signedValue), signedExpected.value) << "-, length " << length;
                ASSERT_EQ(error, signedExpected.error) << "-, length " << length << " at " << at;
            }
        }
    }
}

// Every decimal length from 0 to 45 with all-'9' and all-'0' digits and
// values just around powers of ten.
TEST(ParseULong, DecimalLengths) {
    for (size_t length = 0; length <= 45; ++length) {
        for (char fill : {'0', '9', '1', '5'}) {
            const std::string text(length, fill);
            int32_t error = -1;
            const uint64_t value = ParseULong(text.data(), Len(text), 10, &error);
            const Parsed expected = RefULong(text.data(), text.size(), 10);
            ASSERT_EQ(value, expected.value) << text;
            ASSERT_EQ(error, expected.error) << text;
        }
    }
    unsigned __int128 power = 1;
    for (int k = 0; k <= 21; ++k, power *= 10) {
        for (int delta = -2; delta <= 2; ++delta) {
            const unsigned __int128 v = power + static_cast<unsigned __int128>(static_cast<__int128>(delta));
            const std::string text = InBase(v, 10, false);
            int32_t error = -1;
            const uint64_t value = ParseULong(text.data(), Len(text), 10, &error);
            const Parsed expected = RefULong(text.data(), text.size(), 10);
            ASSERT_EQ(value, expected.value) << text;
            ASSERT_EQ(error, expected.error) << text;
        }
    }
}

TEST(ParseULong, MatchesReferenceInEveryBase) {
    TextSource source(13);
    for (int base = 2; base <= 36; ++base) {
        const int rounds = base == 10 ? 100000 : 6000;
        for (int i = 0; i < rounds; ++i) {
            const std::string text = source.Number(base);
            int32_t error = -1;
            const uint64_t value = ParseULong(text.data(), Len(text), base, &error);
            const Parsed expected = RefULong(text.data(), text.size(), base);
            ASSERT_EQ(value, expected.value) << "base " << base << " text '" << text << "'";
            ASSERT_EQ(error, expected.error) << "base " << base << " text '" << text << "'";
            if (text.find('\0') == std::string::npos) {
                error = -1;
                ASSERT_EQ(ParseULongC(text.c_str(), base, &error), expected.value) << text;
                ASSERT_EQ(error, expected.error) << text;
            }
        }
    }
}

TEST(ParseULong, AgreesWithFromCharsOnDigitTexts) {
    // On texts made only of digits of the base, the rule equals "the value,
    // or an error when it does not fit in 64 bits".
    TextSource source(14);
    for (int base = 2; base <= 36; ++base) {
        for (int i = 0; i < 2000; ++i) {
            std::string text;
            const size_t n = 1 + source.Below(70);
            for (size_t k = 0; k < n; ++k) text += InBase(source.Below(static_cast<size_t>(base)), base, false);
            uint64_t fromChars = 0;
            const auto result = std::from_chars(text.data(), text.data() + text.size(), fromChars, base);
            int32_t error = -1;
            const uint64_t value = ParseULong(text.data(), Len(text), base, &error);
            if (result.ec == std::errc()) {
                ASSERT_EQ(error, 0) << text;
                ASSERT_EQ(value, fromChars) << text;
            } else {
                ASSERT_EQ(error, 1) << text;
                ASSERT_EQ(value, 0u) << text;
            }
        }
    }
}

// ---- ParseLong ------------------------------------------------------------------------

TEST(ParseLong, EdgeCases) {
    int32_t error = -1;
    EXPECT_EQ(ParseLong("-9223372036854775808", 20, 10, &error), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseLong("9223372036854775807", 19, 10, &error), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseLong("9223372036854775808", 19, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseLong("-9223372036854775809", 20, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseLong("-", 1, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseLong("", 0, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseLong("+1", 2, 10, &error), 0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseLong("-8000000000000000", 17, 16, &error), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseLong("-z", 2, 36, &error), -35);
    EXPECT_EQ(error, 0);
}

TEST(ParseLong, MatchesReferenceInEveryBase) {
    TextSource source(15);
    for (int base = 2; base <= 36; ++base) {
        const int rounds = base == 10 ? 50000 : 4000;
        for (int i = 0; i < rounds; ++i) {
            const std::string text = source.Signed(base);
            int32_t error = -1;
            const int64_t value = ParseLong(text.data(), Len(text), base, &error);
            const Parsed expected = RefLong(text.data(), text.size(), base);
            ASSERT_EQ(static_cast<uint64_t>(value), expected.value) << "base " << base << " text '" << text << "'";
            ASSERT_EQ(error, expected.error) << "base " << base << " text '" << text << "'";
        }
    }
}

TEST(ParseLong, RoundTripsPrintedValues) {
    std::mt19937_64 rng(16);
    for (int i = 0; i < 100000; ++i) {
        const int64_t x = static_cast<int64_t>(rng()) >> (rng() % 64);
        const int base = 2 + static_cast<int>(rng() % 35);
        char buffer[80];
        const auto result = std::to_chars(buffer, buffer + sizeof buffer, x, base);
        int32_t error = -1;
        ASSERT_EQ(ParseLong(buffer, static_cast<uint32_t>(result.ptr - buffer), base, &error), x);
        ASSERT_EQ(error, 0);
    }
}

// ---- UCS-2 variants ---------------------------------------------------------------------

TEST(ParseUCS2, HighByteIsIgnored) {
    int32_t error = -1;
    const uint16_t plain[] = {'1', '2', '3'};
    EXPECT_EQ(ParseULongUCS2(plain, 3, 10, &error), 123u);
    EXPECT_EQ(error, 0);
    // U+0131 has low byte '1', U+FF32 low byte '2', U+4133 low byte '3'.
    const uint16_t wide[] = {0x0131, 0xFF32, 0x4133};
    error = -1;
    EXPECT_EQ(ParseULongUCS2(wide, 3, 10, &error), 123u);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(ParseULongUCS2(wide, 0, 10, &error), 0u);
    EXPECT_EQ(error, 1);
    const uint16_t hex[] = {'f', 'F', 0x1066};
    EXPECT_EQ(ParseULongUCS2(hex, 3, 16, &error), 0xfffu);
    EXPECT_EQ(error, 0);
    // A unit whose low byte is no digit.
    const uint16_t bad[] = {'1', 0x3120};
    EXPECT_EQ(ParseULongUCS2(bad, 2, 10, &error), 0u);
    EXPECT_EQ(error, 1);
}

TEST(ParseUCS2, SignedTakesOnlyTheMinusUnit) {
    int32_t error = -1;
    const uint16_t minus[] = {0x002D, '4', '2'};
    EXPECT_EQ(ParseLongUCS2(minus, 3, 10, &error), -42);
    EXPECT_EQ(error, 0);
    // 0x012D has the low byte of '-' but is not the minus unit; as a digit
    // its low byte is invalid.
    const uint16_t notMinus[] = {0x012D, '4', '2'};
    error = -1;
    EXPECT_EQ(ParseLongUCS2(notMinus, 3, 10, &error), 0);
    EXPECT_EQ(error, 1);
    const uint16_t lone[] = {0x002D};
    EXPECT_EQ(ParseLongUCS2(lone, 1, 10, &error), 0);
    EXPECT_EQ(error, 1);
    const std::vector<uint16_t> minimum = Widen("-9223372036854775808", 0);
    EXPECT_EQ(ParseLongUCS2(minimum.data(), static_cast<uint32_t>(minimum.size()), 10, &error),
              std::numeric_limits<int64_t>::min());
    EXPECT_EQ(error, 0);
}

TEST(ParseUCS2, MatchesReferenceAndByteParsers) {
    TextSource source(17);
    for (int base = 2; base <= 36; ++base) {
        for (int i = 0; i < 3000; ++i) {
            const std::string text = source.Signed(base);
            const uint16_t high = source.Below(2) ? 0 : static_cast<uint16_t>(source.Below(256));
            const std::vector<uint16_t> units = Widen(text, high);
            const uint32_t n = static_cast<uint32_t>(units.size());
            int32_t error = -1;
            const uint64_t u = ParseULongUCS2(units.data(), n, base, &error);
            const Parsed expected = RefULong(units.data(), units.size(), base);
            ASSERT_EQ(u, expected.value) << text;
            ASSERT_EQ(error, expected.error) << text;
            // The high byte changes nothing for the unsigned parser.
            int32_t byteError = -1;
            ASSERT_EQ(u, ParseULong(text.data(), Len(text), base, &byteError)) << text;
            ASSERT_EQ(error, byteError) << text;

            error = -1;
            const int64_t s = ParseLongUCS2(units.data(), n, base, &error);
            const Parsed signedExpected = RefLong(units.data(), units.size(), base);
            ASSERT_EQ(static_cast<uint64_t>(s), signedExpected.value) << text;
            ASSERT_EQ(error, signedExpected.error) << text;
        }
    }
}

// ---- bases -------------------------------------------------------------------------------

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
    // The base is checked even when the text is empty.
    EXPECT_DEATH(ParseULong("", 0, 64, &error), kText);
}

TEST(ParseBases, LimitsAreAccepted) {
    int32_t error = -1;
    EXPECT_EQ(ParseULong("101", 3, 2, &error), 5u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseULong("102", 3, 2, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseULong("10", 2, 36, &error), 36u);
    EXPECT_EQ(error, 0);
}

// ---- ParseLongC ----------------------------------------------------------------------------

TEST(ParseLongC, LenientConversion) {
    int32_t error = -1;
    errno = 0;
    EXPECT_EQ(ParseLongC(" +12", 10, &error), 12);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("12x", 10, &error), 12);
    EXPECT_EQ(error, 1);
    errno = 0;
    error = -1;
    EXPECT_EQ(ParseLongC("", 10, &error), 0);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("\t-42", 10, &error), -42);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("0x1f", 16, &error), 31);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("0x1f", 0, &error), 31);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("017", 0, &error), 15);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("12 ", 10, &error), 12);
    EXPECT_EQ(error, 1);
    errno = 0;
    EXPECT_EQ(ParseLongC(" ", 10, &error), 0);
    EXPECT_EQ(error, 1);
    errno = 0;
    EXPECT_EQ(ParseLongC("zz", 36, &error), 35 * 36 + 35);
    EXPECT_EQ(error, 0);
    // The classic reading of "0b": the '0' is converted, the 'b' stops it.
    errno = 0;
    EXPECT_EQ(ParseLongC("0b101", 2, &error), 0);
    EXPECT_EQ(error, 1);
    errno = 0;
    EXPECT_EQ(ParseLongC("0b101", 0, &error), 0);
    EXPECT_EQ(error, 1);
    errno = 0;
    EXPECT_EQ(ParseLongC("101", 2, &error), 5);
    EXPECT_EQ(error, 0);
}

TEST(ParseLongC, OverflowSaturatesWithFlag) {
    int32_t error = -1;
    errno = 0;
    EXPECT_EQ(ParseLongC("99999999999999999999", 10, &error), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(error, 1);
    errno = 0;
    error = -1;
    EXPECT_EQ(ParseLongC("-99999999999999999999", 10, &error), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(error, 1);
    errno = 0;
    error = -1;
    EXPECT_EQ(ParseLongC("9223372036854775807", 10, &error), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("-9223372036854775808", 10, &error), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(error, 0);
}

TEST(ParseLongC, StaleRangeErrorSetsTheFlag) {
    int32_t error = -1;
    errno = ERANGE;
    EXPECT_EQ(ParseLongC("5", 10, &error), 5);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(errno, ERANGE);  // not cleared by the call
    errno = EINVAL;            // any other stale value does not matter
    error = -1;
    EXPECT_EQ(ParseLongC("5", 10, &error), 5);
    EXPECT_EQ(error, 0);
    errno = 0;
    EXPECT_EQ(ParseLongC("5", 10, &error), 5);
    EXPECT_EQ(error, 0);
    // An empty text is 0 without error whatever errno holds.
    errno = ERANGE;
    error = -1;
    EXPECT_EQ(ParseLongC("", 10, &error), 0);
    EXPECT_EQ(error, 0);
    errno = 0;
}

// ---- ParseDouble ------------------------------------------------------------------------------

uint64_t Bits(double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    return bits;
}

double Parse(const std::string &text, int32_t *error) { return ParseDouble(text.data(), Len(text), error); }

// A mantissa converted the way the parser converts it: signed, then 2^64
// added when negative.
double TwoStep(uint64_t mantissa) {
    const int64_t asSigned = static_cast<int64_t>(mantissa);
    double d = static_cast<double>(asSigned);
    if (asSigned < 0) d += 18446744073709551616.0;
    return d;
}

// 10^magnitude as the product of the binary powers, least significant first.
double Power(unsigned magnitude) {
    static const double kTable[9] = {1e1, 1e2, 1e4, 1e8, 1e16, 1e32, 1e64, 1e128, 1e256};
    double power = 1.0;
    for (int bit = 0; bit < 9; ++bit)
        if (magnitude & (1u << bit)) power *= kTable[bit];
    return power;
}

TEST(ParseDouble, Basics) {
    int32_t error = -1;
    EXPECT_EQ(Parse("1e3", &error), 1000.0);
    EXPECT_EQ(error, 0);
    error = -1;
    EXPECT_EQ(Parse("-0.5", &error), -0.5);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("+2.25", &error), 2.25);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1.", &error), 1.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse(".5", &error), 0.5);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("-.5", &error), -0.5);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1.5E-3", &error), 15.0 / 10000.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("25e+2", &error), 2500.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("0.1", &error), 0.1);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("007", &error), 7.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1e0", &error), 1.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1e-0", &error), 1.0);
    EXPECT_EQ(error, 0);
    // "-0" is negative zero: the sign bit is flipped, not the value negated.
    const double negativeZero = Parse("-0", &error);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Bits(negativeZero), uint64_t{1} << 63);
}

TEST(ParseDouble, Errors) {
    for (const char *text : {"", "-", "+", ".", "-.", "1.2.3", "..5", "12 ", " 12", "1e", "1e+", "1e-", "e5",
                             ".e5", "1x", "0x10", "1e5x", "1e512", "1e-512", "1,5", "++1", "+-1", "nan ", "infinity",
                             "in", "n", "1e5.0", "1.e", "--0", "1d3"}) {
        const std::string s(text);
        int32_t error = -1;
        const double value = Parse(s, &error);
        EXPECT_EQ(error, 1) << "'" << s << "'";
        EXPECT_EQ(Bits(value), 0u) << "'" << s << "'";  // +0.0, never -0.0
    }
    // An embedded NUL is an unconsumed byte.
    int32_t error = -1;
    EXPECT_EQ(ParseDouble("1\0", 2, &error), 0.0);
    EXPECT_EQ(error, 1);
}

TEST(ParseDouble, NanAndInfinity) {
    int32_t error = -1;
    for (const char *text : {"nan", "NaN", "NAN", "nAn", "+nan"}) {
        error = -1;
        const double value = Parse(text, &error);
        EXPECT_EQ(error, 0) << text;
        EXPECT_TRUE(std::isnan(value)) << text;
        EXPECT_EQ(Bits(value), 0x7FFFFFFFFFFFFFFFull) << text;  // every mantissa bit set, positive
    }
    error = -1;
    const double negative = Parse("-NaN", &error);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Bits(negative), 0xFFFFFFFFFFFFFFFFull);
    for (const char *text : {"inf", "INF", "Inf", "+iNf"}) {
        error = -1;
        EXPECT_EQ(Parse(text, &error), std::numeric_limits<double>::infinity()) << text;
        EXPECT_EQ(error, 0) << text;
    }
    error = -1;
    EXPECT_EQ(Parse("-inf", &error), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(error, 0);
    // Only exactly three bytes after the sign.
    EXPECT_EQ(Parse("nann", &error), 0.0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(Parse("-in", &error), 0.0);
    EXPECT_EQ(error, 1);
    // Bytes that fold onto the letters only by dropping bit 5 are not letters.
    EXPECT_EQ(Parse("N\x01N", &error), 0.0);
    EXPECT_EQ(error, 1);
}

TEST(ParseDouble, ExponentLimits) {
    int32_t error = -1;
    // 10^511 overflows the power table to infinity, 10^-511 divides to zero;
    // both are within the accepted range.
    EXPECT_EQ(Parse("1e511", &error), std::numeric_limits<double>::infinity());
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1e-511", &error), 0.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1e308", &error), Power(308));
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("1e512", &error), 0.0);
    EXPECT_EQ(error, 1);
    // The limit applies to the decimal exponent after the corrections: 600
    // fraction digits bring 1e600 back into range.
    const std::string manyZeros = "0." + std::string(599, '0') + "1e600";
    EXPECT_EQ(Parse(manyZeros, &error), 1.0);
    EXPECT_EQ(error, 0);
    // And an accepted exponent can be pushed out of range by them.
    const std::string tooSmall = "0." + std::string(599, '0') + "1";
    EXPECT_EQ(Parse(tooSmall, &error), 0.0);
    EXPECT_EQ(error, 1);
    // The exponent accumulates in 32 bits without an overflow test:
    // 4294967297 wraps to 1.
    EXPECT_EQ(Parse("1e4294967297", &error), 10.0);
    EXPECT_EQ(error, 0);
}

TEST(ParseDouble, MantissaOverflowDropsDigits) {
    int32_t error = -1;
    // 20 digits fit (12345678901234567890 < 2^64); the remaining ten are
    // dropped and each raises the exponent by one.
    EXPECT_EQ(Parse("123456789012345678901234567890", &error), TwoStep(12345678901234567890ull) * Power(10));
    EXPECT_EQ(error, 0);
    // A dropped digit is never taken back, even one that would fit again.
    EXPECT_EQ(Parse("18446744073709551616" "0", &error), TwoStep(1844674407370955161ull) * Power(2));
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("18446744073709551615", &error), TwoStep(18446744073709551615ull));
    EXPECT_EQ(error, 0);
    // Digits dropped after the '.' change nothing.
    EXPECT_EQ(Parse("0.123456789012345678901234", &error), TwoStep(12345678901234567890ull) / Power(20));
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("123456789012345678901.99", &error), TwoStep(12345678901234567890ull) * Power(1));
    EXPECT_EQ(error, 0);
    // 40 nines: 19 are taken; 9999999999999999999 is above
    // 0x1999999999999999, so the 20th and all later ones are dropped.
    EXPECT_EQ(Parse(std::string(40, '9'), &error), TwoStep(9999999999999999999ull) * Power(21));
    EXPECT_EQ(error, 0);
    // Dropped digits and a negative exponent combine.
    EXPECT_EQ(Parse("123456789012345678901234567890e-40", &error),
              TwoStep(12345678901234567890ull) / Power(30));
    EXPECT_EQ(error, 0);
}

TEST(ParseDouble, TopBitMantissaUsesTwoStepConversion) {
    // 2^63 + 1025: a direct conversion rounds up to 2^63 + 2048, the two-step
    // one first rounds -(2^63 - 1025) to -(2^63 - 1024), and adding 2^64 then
    // gives the tie 2^63 + 1024, which rounds to even: 2^63.
    const uint64_t m = (uint64_t{1} << 63) + 1025;
    ASSERT_NE(TwoStep(m), static_cast<double>(m));
    int32_t error = -1;
    EXPECT_EQ(Parse("9223372036854776833", &error), 9223372036854775808.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(Parse("9223372036854776833", &error), TwoStep(m));
    EXPECT_NE(Parse("9223372036854776833", &error), static_cast<double>(m));
    // Below 2^63 both conversions agree.
    EXPECT_EQ(Parse("9223372036854775807", &error), static_cast<double>(9223372036854775807ull));
    // With a fraction: the mantissa keeps all 20 digits.
    EXPECT_EQ(Parse("922337203685477683.3", &error), TwoStep(m) / 10.0);
    EXPECT_EQ(error, 0);
}

TEST(ParseDouble, ZeroMantissaTimesInfinitePowerIsNaN) {
    // The power of 10^400 overflows to infinity before the mantissa is
    // applied, so a zero mantissa gives 0 * inf.
    int32_t error = -1;
    const double value = Parse("0e400", &error);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(std::isnan(value));
}

// Mantissas of at most 15 digits and exponents up to 22 involve only exactly
// representable operands and one rounding, so the result is the correctly
// rounded one that strtod gives.
TEST(ParseDouble, AgreesWithStrtodOnExactOperands) {
    std::mt19937_64 rng(18);
    for (int i = 0; i < 200000; ++i) {
        const int digits = 1 + static_cast<int>(rng() % 15);
        std::string text = (rng() % 3 == 0) ? "-" : "";
        const int point = static_cast<int>(rng() % (digits + 1));
        int fraction = 0;
        for (int k = 0; k < digits; ++k) {
            if (k == point && rng() % 2) text += '.';
            if (text.find('.') != std::string::npos) ++fraction;
            text += static_cast<char>('0' + rng() % 10);
        }
        int exponent = 0;
        if (rng() % 2) {
            exponent = static_cast<int>(rng() % 23) - static_cast<int>(rng() % 23);
            if (exponent - fraction < -22 || exponent - fraction > 22) exponent = 0;
            text += (rng() % 2) ? "e" : "E";
            text += std::to_string(exponent);
        }
        int32_t error = -1;
        const double value = Parse(text, &error);
        ASSERT_EQ(error, 0) << text;
        ASSERT_EQ(Bits(value), Bits(std::strtod(text.c_str(), nullptr))) << text;
    }
}

TEST(ParseDouble, C) {
    int32_t error = -1;
    EXPECT_EQ(ParseDoubleC("1e3", &error), 1000.0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ParseDoubleC("1e3", nullptr), 1000.0);
    EXPECT_EQ(ParseDoubleC("x", nullptr), 0.0);
    EXPECT_EQ(Bits(ParseDoubleC("-nan", nullptr)), 0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(ParseDoubleC("", &error), 0.0);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(ParseDoubleC("12 ", &error), 0.0);
    EXPECT_EQ(error, 1);
}

// ---- hashes ------------------------------------------------------------------------------------

TEST(Hash, PublishedFnv1Vectors) {
    EXPECT_EQ(Hash32("", 0), 0x811c9dc5u);
    EXPECT_EQ(Hash32("a", 1), 0x050c5d7eu);
    EXPECT_EQ(Hash32("foo", 3), 0x408f5e13u);
    EXPECT_EQ(Hash32("foobar", 6), 0x31f0b262u);
    EXPECT_EQ(Hash64("", 0), 0xcbf29ce484222325ull);
    EXPECT_EQ(Hash64("a", 1), 0xaf63bd4c8601b7beull);
    EXPECT_EQ(Hash64("foo", 3), 0xd8cbc7186ba13533ull);
    EXPECT_EQ(Hash64("foobar", 6), 0x340d8765a4dda9c2ull);
}

TEST(Hash, BytesAreUnsigned) {
    // FNV-1 of one byte b: (basis * prime) XOR b, for the full 0-255 range.
    const uint32_t start32 = 0x811c9dc5u * 16777619u;
    const uint64_t start64 = 0xcbf29ce484222325ull * 0x100000001b3ull;
    for (unsigned b = 0; b < 256; ++b) {
        const unsigned char byte = static_cast<unsigned char>(b);
        EXPECT_EQ(Hash32(&byte, 1), start32 ^ b);
        EXPECT_EQ(Hash64(&byte, 1), start64 ^ b);
    }
}

TEST(Hash, ExtendEqualsOneShot) {
    std::mt19937_64 rng(19);
    std::string text;
    for (int i = 0; i < 300; ++i) text += static_cast<char>(rng());
    for (size_t split = 0; split <= text.size(); ++split) {
        const uint32_t head32 = Hash32(text.data(), split);
        EXPECT_EQ(Hash32Extend(text.data() + split, text.size() - split, head32), Hash32(text.data(), text.size()));
        const uint64_t head64 = Hash64(text.data(), split);
        EXPECT_EQ(Hash64Extend(text.data() + split, text.size() - split, head64), Hash64(text.data(), text.size()));
    }
    EXPECT_EQ(Hash32Extend("", 0, 1234u), 1234u);
    EXPECT_EQ(Hash64Extend("", 0, 0x1234567890ull), 0x1234567890ull);
    EXPECT_EQ(Hash32Extend("a", 1, 0x811c9dc5u), Hash32("a", 1));
    EXPECT_EQ(Hash64Extend("a", 1, 0xcbf29ce484222325ull), Hash64("a", 1));
}

// ---- UIntHash / UIntUnhash ------------------------------------------------------------------------

std::string HashText(uint32_t value) {
    char buffer[16];
    std::memset(buffer, 'X', sizeof buffer);
    const int n = UIntHash(buffer, value);
    EXPECT_GE(n, 1);
    EXPECT_LE(n, 8);
    EXPECT_EQ(buffer[n], '\0');
    EXPECT_EQ(buffer[9], 'X');  // nothing written past the 9-byte buffer
    return std::string(buffer, static_cast<size_t>(n));
}

uint32_t Scrambled(uint32_t value) {
    const std::string text = HashText(value);
    return static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 16));
}

TEST(UIntHash, TextShape) {
    std::mt19937 rng(20);
    for (int i = 0; i < 200000; ++i) {
        const uint32_t value = i < 64 ? (i < 32 ? (1u << i) : ~(1u << (i - 32))) : static_cast<uint32_t>(rng());
        const std::string text = HashText(value);
        char expected[16];
        std::snprintf(expected, sizeof expected, "%x", Scrambled(value));
        ASSERT_EQ(text, expected) << value;  // plain lower-case "%x"
        ASSERT_LE(text.size(), 8u);
        if (text.size() == 8) {
            ASSERT_LE(text[0], '7') << text;
        }
        ASSERT_EQ(Scrambled(value) & 0x80000000u, 0u) << value;
    }
}

// The tables, read back through UIntUnhash: unhash("0") is the word of invert
// marks, and unhash of a single bit k, XORed with it, is the set of source
// bits that move to k.
TEST(UIntHash, TableShape) {
    const uint32_t marks = UIntUnhash("0");
    EXPECT_EQ(__builtin_popcount(marks), 16);
    uint32_t covered = 0;
    int shared = 0;
    for (int k = 0; k < 32; ++k) {
        char text[16];
        std::snprintf(text, sizeof text, "%x", 1u << k);
        const uint32_t sources = UIntUnhash(text) ^ marks;
        if (k == 31) {
            EXPECT_EQ(sources, 0u) << "bit 31 is never a target";
            continue;
        }
        const int count = __builtin_popcount(sources);
        EXPECT_GE(count, 1) << "target " << k << " unused";
        EXPECT_LE(count, 2) << "target " << k;
        if (count == 2) ++shared;
        EXPECT_EQ(covered & sources, 0u);
        covered |= sources;
    }
    EXPECT_EQ(shared, 1);
    EXPECT_EQ(covered, 0xFFFFFFFFu);
}

// The pair of source bits sharing a target, found through UIntUnhash.
std::pair<int, int> SharingPair() {
    const uint32_t marks = UIntUnhash("0");
    for (int k = 0; k < 31; ++k) {
        char text[16];
        std::snprintf(text, sizeof text, "%x", 1u << k);
        const uint32_t sources = UIntUnhash(text) ^ marks;
        if (__builtin_popcount(sources) == 2) {
            const int a = __builtin_ctz(sources);
            const int b = 31 - __builtin_clz(sources);
            return {a, b};
        }
    }
    return {-1, -1};
}

TEST(UIntHash, RoundTripExactlyWhenSharingBitsAgree) {
    const auto [a, b] = SharingPair();
    ASSERT_GE(a, 0);
    const uint32_t marks = UIntUnhash("0");
    const uint32_t pairMask = (1u << a) | (1u << b);
    std::mt19937 rng(21);
    int exact = 0;
    const int rounds = 200000;
    for (int i = 0; i < rounds; ++i) {
        const uint32_t x = static_cast<uint32_t>(rng());
        const uint32_t back = UIntUnhash(HashText(x).c_str());
        const uint32_t flipped = x ^ marks;
        const bool agree = ((flipped >> a) & 1u) == ((flipped >> b) & 1u);
        if (agree) {
            ASSERT_EQ(back, x) << x;
            ++exact;
        } else {
            const uint32_t diff = back ^ x;
            ASSERT_EQ(__builtin_popcount(diff), 1) << x;
            ASSERT_EQ(diff & pairMask, diff) << x;
        }
    }
    // Random inputs agree in the pair about half the time.
    EXPECT_GT(exact, rounds * 45 / 100);
    EXPECT_LT(exact, rounds * 55 / 100);
    // Both ends of the range round-trip when their pair agrees.
    for (uint32_t x : {0u, 0xFFFFFFFFu, marks, ~marks}) {
        const uint32_t flipped = x ^ marks;
        if (((flipped >> a) & 1u) == ((flipped >> b) & 1u)) {
            EXPECT_EQ(UIntUnhash(HashText(x).c_str()), x);
        }
    }
}

// Unhashing copies the shared target bit into both of its sources, so hashing
// the result restores every target bit: hash(unhash(t)) is t without bit 31.
TEST(UIntHash, HashOfUnhashKeepsAllButBit31) {
    std::mt19937 rng(22);
    for (int i = 0; i < 100000; ++i) {
        const uint32_t v = i < 32 ? (1u << i) : static_cast<uint32_t>(rng());
        char text[16];
        std::snprintf(text, sizeof text, (i & 1) ? "%x" : "%08X", v);
        EXPECT_EQ(Scrambled(UIntUnhash(text)), v & 0x7FFFFFFFu) << text;
    }
}

TEST(UIntHash, UnhashOfInvalidTextIsUnhashOfZero) {
    const uint32_t zero = UIntUnhash("0");
    EXPECT_EQ(UIntUnhash(""), zero);
    EXPECT_EQ(UIntUnhash("g"), zero);
    EXPECT_EQ(UIntUnhash("12x4"), zero);
    EXPECT_EQ(UIntUnhash(" 12"), zero);
    EXPECT_EQ(UIntUnhash("0x12"), zero);
    EXPECT_EQ(UIntUnhash("-1"), zero);
    EXPECT_EQ(UIntUnhash("100000000"), zero);  // beyond 32 bits
    EXPECT_EQ(UIntUnhash("00000000"), zero);
    // Upper case and leading zeros read like lower case.
    EXPECT_EQ(UIntUnhash("ABCDEF"), UIntUnhash("abcdef"));
    EXPECT_EQ(UIntUnhash("000000000abcdef"), UIntUnhash("abcdef"));
    EXPECT_EQ(UIntUnhash("ffffffff"), UIntUnhash("7fffffff"));  // bit 31 is never read
    EXPECT_NE(UIntUnhash("1"), zero);
}

// ---- formatted output ---------------------------------------------------------------------------------

std::string Text(const UByteArray &a) { return std::string(reinterpret_cast<const char *>(a.elements), a.count); }
std::string Text(const UByteBigArray &a) {
    return std::string(reinterpret_cast<const char *>(a.elements), static_cast<size_t>(a.count));
}

TEST(UByteArrayPrintf, AppendsAndKeepsNul) {
    UByteArray a{};
    ASSERT_EQ(UByteArrayPrintf(&a, "abc"), 1);
    EXPECT_EQ(a.count, 3u);
    EXPECT_EQ(a.capacity, 4u);  // count + 1 by the growth rule
    EXPECT_EQ(a.elements[3], '\0');
    ASSERT_EQ(UByteArrayPrintf(&a, "%d-%s", 42, "x"), 1);
    EXPECT_EQ(Text(a), "abc42-x");
    EXPECT_EQ(a.elements[a.count], '\0');
    ASSERT_EQ(UByteArrayPrintf(&a, ""), 1);
    EXPECT_EQ(Text(a), "abc42-x");
    EXPECT_EQ(a.elements[a.count], '\0');
    free(a.elements);
}

TEST(UByteArrayPrintf, SixtyFourBitForms) {
    UByteArray a{};
    ASSERT_EQ(UByteArrayPrintf(&a, "%I64u|%I64d|%016I64x|%I64d", 18446744073709551615ull, -5ll, 0xabcull,
                               std::numeric_limits<long long>::min()),
              1);
    EXPECT_EQ(Text(a), "18446744073709551615|-5|0000000000000abc|-9223372036854775808");
    free(a.elements);
}

TEST(UByteArrayPrintf, TenThousandCharacters) {
    const std::string big(10000, 'q');
    UByteArray a{};
    ASSERT_EQ(UByteArrayPrintf(&a, "%s", big.c_str()), 1);
    EXPECT_EQ(a.count, 10000u);
    EXPECT_EQ(a.elements[10000], '\0');
    EXPECT_EQ(Text(a), big);
    // The first pass reserved 4 bytes and reported the full length; the
    // second grew by the growth rule to fit 10001 bytes: 4 16 64 256 1024
    // 2048 4096 8192 16384.
    EXPECT_EQ(a.capacity, ArrayNextSize(4, 10001, 4294967295ull));
    EXPECT_EQ(a.capacity, 16384u);
    free(a.elements);
}

TEST(UByteArrayPrintf, SecondPassOnlyWhenTheTextDoesNotFit) {
    UByteArray a{};
    ArrayGrowExact(a, 16);
    unsigned char *const storage = a.elements;
    // 15 characters fit the 16 spare bytes with their NUL: one pass, no growth.
    ASSERT_EQ(UByteArrayPrintf(&a, "%s", "fifteen-chars!!"), 1);
    EXPECT_EQ(a.count, 15u);
    EXPECT_EQ(a.capacity, 16u);
    EXPECT_EQ(a.elements, storage);
    a.count = 0;
    // 16 characters need 17 bytes: the second pass runs after growing to 64.
    ASSERT_EQ(UByteArrayPrintf(&a, "%s%d", "sixteen-chars!!", 7), 1);
    EXPECT_EQ(Text(a), "sixteen-chars!!7");
    EXPECT_EQ(a.capacity, 64u);
    EXPECT_EQ(a.elements[16], '\0');
    // The prefix survives the growth of a second pass.
    const std::string tail(100, 'z');
    ASSERT_EQ(UByteArrayPrintf(&a, "<%s>%I64u", tail.c_str(), 99ull), 1);
    EXPECT_EQ(Text(a), "sixteen-chars!!7<" + tail + ">99");
    EXPECT_EQ(a.capacity, 256u);
    free(a.elements);
}

TEST(UByteArrayPrintf, FormatterErrorLeavesLength) {
    UByteArray a{};
    ASSERT_EQ(UByteArrayPrintf(&a, "keep"), 1);
    // The formatter rejects an unknown conversion and a lone '%'.
    EXPECT_EQ(UByteArrayPrintf(&a, "%y", 1), 0);
    EXPECT_EQ(a.count, 4u);
    EXPECT_EQ(UByteArrayPrintf(&a, "abc%"), 0);
    EXPECT_EQ(a.count, 4u);
    // Literal text before the bad conversion is not left behind either: the
    // text stays NUL-terminated at its unchanged length.
    EXPECT_EQ(UByteArrayPrintf(&a, "abcdefgh%s%y", "zz"), 0);
    EXPECT_EQ(a.count, 4u);
    EXPECT_EQ(a.elements[4], '\0');
    EXPECT_EQ(Text(a), "keep");
    ASSERT_EQ(UByteArrayPrintf(&a, "!"), 1);
    EXPECT_EQ(Text(a), "keep!");
    free(a.elements);
}

int Vprintf(UByteArray *a, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = UByteArrayVprintf(a, format, args);
    va_end(args);
    return result;
}

int BigVprintf(UByteBigArray *a, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = UByteBigArrayVprintf(a, format, args);
    va_end(args);
    return result;
}

char *AllocV(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *result = AllocVprintf(format, args);
    va_end(args);
    return result;
}

TEST(UByteArrayPrintf, VariantsTakingArgumentLists) {
    const std::string big(5000, 'v');
    UByteArray a{};
    ASSERT_EQ(Vprintf(&a, "%s|%d", big.c_str(), 12), 1);  // two passes reuse the list
    EXPECT_EQ(Text(a), big + "|12");
    free(a.elements);
    UByteBigArray b{};
    ASSERT_EQ(BigVprintf(&b, "%s|%I64d", big.c_str(), -12ll), 1);
    EXPECT_EQ(Text(b), big + "|-12");
    free(b.elements);
    char *text = AllocV("%s|%x", big.c_str(), 255u);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), big + "|ff");
    free(text);
}

TEST(UByteBigArrayPrintf, SameBehaviour) {
    UByteBigArray a{};
    ASSERT_EQ(UByteBigArrayPrintf(&a, "abc"), 1);
    EXPECT_EQ(a.count, 3u);
    EXPECT_EQ(a.capacity, 4u);
    EXPECT_EQ(a.elements[3], '\0');
    ASSERT_EQ(UByteBigArrayPrintf(&a, "%I64u|%I64d|%016I64x", 18446744073709551615ull, -5ll, 0xabcull), 1);
    EXPECT_EQ(Text(a), "abc18446744073709551615|-5|0000000000000abc");
    EXPECT_EQ(a.elements[a.count], '\0');
    EXPECT_EQ(UByteBigArrayPrintf(&a, "%y"), 0);
    EXPECT_EQ(Text(a), "abc18446744073709551615|-5|0000000000000abc");
    free(a.elements);

    UByteBigArray b{};
    const std::string big(10000, 'w');
    ASSERT_EQ(UByteBigArrayPrintf(&b, "%s", big.c_str()), 1);
    EXPECT_EQ(b.count, 10000u);
    EXPECT_EQ(b.elements[10000], '\0');
    EXPECT_EQ(b.capacity, BigArrayNextSize(4, 10001, 9223372036854775807ull));
    EXPECT_EQ(Text(b), big);
    free(b.elements);
}

TEST(AllocPrintf, FormatsAndFails) {
    char *text = AllocPrintf("%s=%I64u", "n", 18446744073709551615ull);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "n=18446744073709551615");
    free(text);
    text = AllocPrintf("");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    free(text);
    const std::string big(10000, 'a');
    text = AllocPrintf("%s", big.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), big);
    free(text);
    EXPECT_EQ(AllocPrintf("%y"), nullptr);
}

// A record claiming almost 2^31 bytes: the needed capacity reaches the limit
// before anything is allocated or formatted, so the storage is never touched.
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

TEST(Strlcpy, EdgeCases) {
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(strlcpy(buffer, "hello", 0), 5u);
    EXPECT_EQ(buffer[0], '#');  // size 0 writes nothing
    EXPECT_EQ(strlcpy(buffer, "hello", 1), 5u);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(strlcpy(buffer, "hello", 3), 5u);  // truncated: result >= size
    EXPECT_STREQ(buffer, "he");
    EXPECT_EQ(buffer[3], '#');
    EXPECT_EQ(strlcpy(buffer, "hello", 6), 5u);  // exact fit
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(strlcpy(buffer, "", sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(strlcpy(buffer, "a longer text", sizeof buffer), 13u);
    EXPECT_STREQ(buffer, "a longe");
}

TEST(Strlcat, EdgeCases) {
    char buffer[10];
    std::memset(buffer, '#', sizeof buffer);
    std::strcpy(buffer, "abc");
    // size <= destination length: nothing written, result d + source length.
    EXPECT_EQ(strlcat(buffer, "xyz", 3), 6u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(strlcat(buffer, "xyz", 0), 6u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(strlcat(buffer, "xyz", 2), 6u);
    EXPECT_STREQ(buffer, "abc");
    // size == d + 1: room for the NUL only.
    EXPECT_EQ(strlcat(buffer, "xyz", 4), 6u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(buffer[4], '#');
    // Truncation within size - 1.
    EXPECT_EQ(strlcat(buffer, "xyz", 5), 6u);
    EXPECT_STREQ(buffer, "abcx");
    EXPECT_EQ(buffer[5], '#');
    EXPECT_EQ(strlcat(buffer, "yz", sizeof buffer), 6u);
    EXPECT_STREQ(buffer, "abcxyz");
    EXPECT_EQ(strlcat(buffer, "0123456", sizeof buffer), 13u);
    EXPECT_STREQ(buffer, "abcxyz012");
    EXPECT_EQ(strlcat(buffer, "", sizeof buffer), 9u);
    EXPECT_STREQ(buffer, "abcxyz012");
    char empty[4] = "";
    EXPECT_EQ(strlcat(empty, "hello", sizeof empty), 5u);
    EXPECT_STREQ(empty, "hel");
}

}  // namespace
