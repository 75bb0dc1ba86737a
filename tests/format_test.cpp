// Number parsing, FNV-1 hashes, UIntHash/UIntUnhash, formatted output into byte arrays, strlcpy/strlcat.

#include "kz/format.h"

#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
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
#include <vector>

#include "reference_parsers.h"

namespace {

using namespace kzref;
using namespace std::literals;
using U128 = unsigned __int128;

uint32_t Len(std::string_view s) { return static_cast<uint32_t>(s.size()); }
uint64_t Bits(double d) { return std::bit_cast<uint64_t>(d); }

std::string InBase(U128 value, int base, bool upper) {
    const char *digits = upper ? "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ" : "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string out;
    do out.insert(out.begin(), digits[static_cast<int>(value % static_cast<unsigned>(base))]);
    while ((value /= static_cast<unsigned>(base)) != 0);
    return out;
}

// The documented cases; the other variants are held to the same rules by the differential check below.
using Parse = uint64_t (*)(const char *, uint32_t, int, int32_t *);
const Parse kU32 = [](auto p, auto n, auto b, auto e) -> uint64_t { return ParseUInt(p, n, b, e); };
const Parse kS32 = [](auto p, auto n, auto b, auto e) -> uint64_t { return uint32_t(ParseInt(p, n, b, e)); };
const Parse kU64 = [](auto p, auto n, auto b, auto e) -> uint64_t { return ParseULong(p, n, b, e); };
const Parse kS64 = [](auto p, auto n, auto b, auto e) -> uint64_t { return uint64_t(ParseLong(p, n, b, e)); };

TEST(ParseIntegers, EdgeCases) {
    const struct { Parse parse; std::string_view text; int base; uint64_t value; int32_t error; } cases[] = {
        {kU32, "4294967295", 10, 0xFFFFFFFFu, 0}, {kU32, "4294967296", 10, 0, 1}, {kU32, "", 10, 0, 1},
        {kU32, "+1", 10, 0, 1}, {kU32, " 1", 10, 0, 1}, {kU32, "18446744073709551616", 10, 0, 1},
        {kU32, "12x"sv.substr(0, 2), 10, 12, 0}, {kS32, "-2147483648", 10, 0x80000000u, 0},
        {kS32, "2147483648", 10, 0, 1}, {kS32, "-", 10, 0, 1}, {kU64, "ffffffffffffffff", 16, kMax64, 0},
        {kU64, "ffffffffffffffff0", 16, 0, 1}, {kU64, "Z", 36, 35, 0}, {kU64, "Z", 35, 0, 1},
        {kU64, "18446744073709551616", 10, 0, 1}, {kU64, "-1", 10, 0, 1}, {kU64, "", 16, 0, 1},
        {kS64, "-9223372036854775808", 10, uint64_t{1} << 63, 0}, {kS64, "9223372036854775808", 10, 0, 1},
        {kS64, "--1", 10, 0, 1},
    };
    for (const auto &c : cases) {
        int32_t error = -1;
        const uint64_t value = c.parse(c.text.data(), Len(c.text), c.base, &error);
        EXPECT_TRUE(value == c.value && error == c.error)
            << "'" << c.text << "' base " << c.base << ": " << value << "/" << error;
    }
}

TEST(ParseDeathTest, BaseOutsideTwoToThirtySix) {
    int32_t error = 0;
    const uint16_t units[] = {'1'};
    const char *kText = "'base > 1 && base < 37' failed at kzlib/kzlib:";
    EXPECT_DEATH(ParseUInt("1", 1, 1, &error), kText);
    EXPECT_DEATH(ParseInt("1", 1, -2, &error), kText);
    EXPECT_DEATH(ParseULong("", 0, 37, &error), kText);  // checked even for an empty text
    EXPECT_DEATH(ParseULongC("1", 1, &error), kText);
    EXPECT_DEATH(ParseULongUCS2(units, 1, 37, &error), kText);
    EXPECT_DEATH(ParseLong("1", 1, 0, &error), kText);
    EXPECT_DEATH(ParseLongUCS2(units, 1, 1, &error), kText);
}

std::string RandomText(std::mt19937_64 &rng, int base) {
    // Bytes a digit test could confuse with digits, their high-bit twins and the extremes.
    constexpr std::string_view kAwkward = "\0 +-/:@GZ[`gz{\x7F\x80\xB0\xB9\xC1\xFF"sv;
    auto below = [&](uint64_t n) { return rng() % n; };
    const bool upper = below(2);
    std::string text;
    switch (below(4)) {
        case 0: for (auto n = below(71); n > 0; --n) text += InBase(below(base), base, below(2)); break;
        case 1: text = InBase(U128{kMax64} + below(9) - 4, base, upper); break;
        case 2: text = InBase(rng() >> below(64), base, upper); break;
        default: text = InBase(((U128{rng()} << 64) | rng()) >> below(128), base, upper); break;
    }
    if (below(3) == 0) text.insert(0, std::string(below(25), '0'));
    if (!text.empty() && below(4) == 0)
        text[below(text.size())] = static_cast<char>(below(2) ? kAwkward[below(kAwkward.size())] : below(256));
    return text;
}

// Lengths 0-45 of repeated digits; values around 2^64, 2^63, 2^32, 2^31 and the powers of the base.
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

// Every strict parser against the reference, on the text and "-" + text; the 16-bit variants see
// the bytes with the given high byte (a '-' with a high byte is no minus). False at the first disagreement.
bool AllAgree(const std::string &text, int base, uint16_t high, bool negated = false) {
    std::vector<uint16_t> units;
    for (char c : text) units.push_back(static_cast<uint16_t>(static_cast<unsigned char>(c) | (high << 8)));
    const char *p = text.data();
    const uint16_t *u = units.data();
    const uint32_t n = Len(text);
    bool ok = true;
    int32_t e = -1;
    auto check = [&](const char *what, uint64_t value, Parsed want) {
        EXPECT_TRUE(!ok || (value == want.value && e == want.error)) << what << " base " << base << " high " << high
            << " '" << text << "': " << value << "/" << e << ", expected " << want.value << "/" << want.error;
        ok = ok && value == want.value && e == want.error, e = -1;
    };
    check("ParseUInt", ParseUInt(p, n, base, &e), RefUInt(p, n, base));
    check("ParseInt", static_cast<uint32_t>(ParseInt(p, n, base, &e)), RefInt(p, n, base));
    check("ParseULong", ParseULong(p, n, base, &e), RefULong(p, n, base));
    check("ParseULongC", ParseULongC(p, base, &e), RefULong(p, std::strlen(p), base));
    check("ParseLong", static_cast<uint64_t>(ParseLong(p, n, base, &e)), RefLong(p, n, base));
    check("ParseULongUCS2", ParseULongUCS2(u, n, base, &e), RefULong(u, n, base));
    check("ParseLongUCS2", static_cast<uint64_t>(ParseLongUCS2(u, n, base, &e)), RefLong(u, n, base));
    return ok && (negated || AllAgree("-" + text, base, high, true));
}

TEST(ParseIntegers, MatchReferenceInEveryBase) {
    std::mt19937_64 rng(13);
    for (int base = 2; base <= 36; ++base) {
        for (const std::string &text : EdgeTexts(base)) ASSERT_TRUE(AllAgree(text, base, 0));
        for (int i = base == 10 ? 50000 : 4000; i > 0; --i)
            ASSERT_TRUE(AllAgree(RandomText(rng, base), base, rng() % 2 ? 0 : static_cast<uint16_t>(rng() % 256)));
    }
    // Several-digits-at-a-time tests must reject exactly what the per-digit rule rejects.
    const std::string digits = "918446744073709551615723";
    for (size_t length = 1; length <= digits.size(); ++length)
        for (size_t at = 0; at < length; ++at)
            for (unsigned byte = 0; byte < 256; ++byte) {
                std::string text = digits.substr(0, length);
                text[at] = static_cast<char>(byte);
                ASSERT_TRUE(AllAgree(text, 10, 0));
            }
}

TEST(ParseLongC, LenientConversionAndFlag) {
    const struct { const char *text; int base, errnoBefore; int64_t value; int32_t error; } cases[] = {
        {" +12", 10, 0, 12, 0}, {"12x", 10, 0, 12, 1}, {"", 10, 0, 0, 0}, {" ", 10, 0, 0, 1}, {"0x1f", 0, 0, 31, 0},
        {"017", 0, 0, 15, 0}, {"0b101", 2, 0, 0, 1}, {"99999999999999999999", 10, 0, INT64_MAX, 1},
        {"-99999999999999999999", 10, 0, INT64_MIN, 1}, {"-9223372036854775808", 10, 0, INT64_MIN, 0},
        {"5", 10, ERANGE, 5, 1},  // a stale range error sets the flag, and stays
        {"5", 10, EINVAL, 5, 0}, {"", 10, ERANGE, 0, 0},
    };
    for (const auto &c : cases) {
        errno = c.errnoBefore;
        int32_t error = -1;
        EXPECT_EQ(ParseLongC(c.text, c.base, &error), c.value) << c.text;
        EXPECT_TRUE(error == c.error && (c.errnoBefore != ERANGE || errno == ERANGE)) << c.text << " " << c.errnoBefore;
    }
    errno = 0;
}

TEST(ParseDouble, ValuesAndErrors) {
    // A mantissa converted as the parser does: signed, then 2^64 added when negative.
    auto TwoStep = [](uint64_t m) { return double(int64_t(m)) + (int64_t(m) < 0 ? 0x1p64 : 0.0); };
    const double inf = HUGE_VAL, nan = std::bit_cast<double>(uint64_t{0x7FFFFFFFFFFFFFFF});  // all mantissa bits
    // Directly, 2^63 + 1025 rounds to 2^63 + 2048; in two steps to 2^63.
    const uint64_t top = (uint64_t{1} << 63) + 1025, twenty = 12345678901234567890ull;
    ASSERT_NE(TwoStep(top), static_cast<double>(top));
    const std::string nines(40, '9'), tooSmall = "0." + std::string(599, '0') + "1", pulledBack = tooSmall + "e600";
    const struct { std::string_view text; double value; } cases[] = {
        {"1e3", 1000}, {"-0.5", -0.5}, {"+2.25", 2.25}, {"1.", 1}, {"-.5", -0.5}, {"1.5E-3", 15.0 / 10000.0},
        {"-0", -0.0}, {"nan", nan}, {"nAn", nan}, {"-NaN", std::bit_cast<double>(~uint64_t{0})}, {"+iNf", inf},
        {"-inf", -inf}, {"1e511", inf}, {"1e-511", 0}, {"1e308", 1e4 * 1e16 * 1e32 * 1e256}, {pulledBack, 1},
        {"1e4294967297", 10},  // the exponent wraps in 32 bits
        {"123456789012345678901234567890", TwoStep(twenty) * 1e10},  // digits past 20 dropped
        {"184467440737095516160e-308", TwoStep(1844674407370955161ull) / (1e2 * 1e16 * 1e32 * 1e256)},
        {"0.123456789012345678901234", TwoStep(twenty) / 1e20}, {nines, TwoStep(9999999999999999999ull) * 1e21},
        {"9223372036854776833", 9223372036854775808.0}, {"922337203685477683.3", TwoStep(top) / 10.0},
    };
    for (const auto &c : cases) {
        const std::string text(c.text);
        int32_t error = -1, errorC = -1;
        EXPECT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), Bits(c.value)) << text;
        EXPECT_EQ(Bits(ParseDoubleC(text.c_str(), &errorC)), Bits(ParseDoubleC(text.c_str(), nullptr))) << text;
        EXPECT_TRUE(Bits(ParseDoubleC(text.c_str(), nullptr)) == Bits(c.value) && error == 0 && errorC == 0) << text;
    }
    EXPECT_TRUE(std::isnan(ParseDoubleC("0e400", nullptr)));  // 10^400 is infinite before the 0 is applied
    const std::string_view errors[] = {"", "-", ".", "1.2.3", "12 ", " 12", "1e", "1e+", "e5", "1x", "0x10", "1e512",
                                       "1e-512", "1,5", "+-1", "nan ", "infinity", "in", "1e5.0", "-1e512", tooSmall};
    for (std::string_view text : errors) {
        int32_t error = -1, errorC = -1;
        EXPECT_EQ(Bits(ParseDouble(text.data(), Len(text), &error)), 0u) << text;  // +0.0, never -0.0
        EXPECT_EQ(Bits(ParseDoubleC(std::string(text).c_str(), &errorC)), 0u) << text;
        EXPECT_TRUE(error == 1 && errorC == 1) << text;
    }
}

TEST(Hash, Fnv1VectorsAndExtend) {
    using Hashes = std::pair<uint32_t, uint64_t>;
    const struct { std::string_view text; uint32_t h32; uint64_t h64; } vectors[] = {
        {"", 0x811c9dc5u, 0xcbf29ce484222325ull}, {"a", 0x050c5d7eu, 0xaf63bd4c8601b7beull},
        {"foo", 0x408f5e13u, 0xd8cbc7186ba13533ull}, {"foobar", 0x31f0b262u, 0x340d8765a4dda9c2ull}};
    for (const auto &v : vectors)
        EXPECT_EQ(Hashes(Hash32(v.text.data(), v.text.size()), Hash64(v.text.data(), v.text.size())),
                  Hashes(v.h32, v.h64)) << v.text;
    for (unsigned b = 0; b < 256; ++b) {  // bytes are read unsigned
        const unsigned char byte = static_cast<unsigned char>(b);
        EXPECT_EQ(Hashes(Hash32(&byte, 1), Hash64(&byte, 1)),
                  Hashes((0x811c9dc5u * 16777619u) ^ b, (0xcbf29ce484222325ull * 0x100000001b3ull) ^ b));
    }
    std::string text;
    for (int i = 0; i < 300; ++i) text += static_cast<char>(i * 131 + i / 7);
    const char *p = text.data();
    for (size_t split = 0; split <= text.size(); ++split)
        EXPECT_EQ(Hashes(Hash32Extend(p + split, text.size() - split, Hash32(p, split)),
                            Hash64Extend(p + split, text.size() - split, Hash64(p, split))),
                  Hashes(Hash32(p, text.size()), Hash64(p, text.size()))) << split;
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

TEST(UIntHash, KnownIdentifiersAndProperties) {
    auto Hex = [](uint32_t value, const char *format = "%x") {
        char text[16];
        return std::string(text, static_cast<size_t>(std::snprintf(text, sizeof text, format, value)));
    };
    const struct { uint32_t value; const char *text; } known[] = {  // stored in data: never change
        {0, "5ba582d3"}, {1, "5ba58253"}, {0xFFFFFFFFu, "245a7d2c"}, {0x80000000u, "5aa582d3"},
        {0x12345678u, "bbc28bf"}, {0xDEADBEEFu, "269a3d48"}, {1000000, "33acc2f3"}};
    for (const auto &k : known) EXPECT_EQ(HashText(k.value), k.text) << k.value;
    // Short lower-case hex without bit 31; unhashing then hashing gives the text back without bit 31;
    // hashing then unhashing loses at most one bit, always one of the same two, about half the time.
    std::mt19937 rng(20);
    uint32_t lost = 0, exact = 0;
    for (int i = 0; i < 100000; ++i) {
        const uint32_t x = i < 64 ? (i < 32 ? (1u << i) : ~(1u << (i - 32))) : static_cast<uint32_t>(rng());
        const std::string text = HashText(x);
        const auto scrambled = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 16));
        ASSERT_EQ(text, Hex(scrambled & 0x7FFFFFFFu)) << x;
        const uint32_t difference = UIntUnhash(text.c_str()) ^ x;
        ASSERT_LE(__builtin_popcount(difference), 1) << x;
        lost |= difference, exact += difference == 0;
        const std::string hex = Hex(x, i & 1 ? "%x" : "%08X");
        ASSERT_EQ(HashText(UIntUnhash(hex.c_str())), Hex(x & 0x7FFFFFFFu)) << hex;
    }
    EXPECT_EQ(__builtin_popcount(lost), 2);
    EXPECT_NEAR(exact, 50000, 5000);
    const uint32_t zero = UIntUnhash("0");  // invalid texts unhash as "0"
    for (const char *text : {"", "g", "12x4", " 12", "0x12", "-1", "100000000", "00000000"})
        EXPECT_EQ(UIntUnhash(text), zero) << text;
    EXPECT_TRUE(UIntUnhash("1") != zero && UIntUnhash("ABCDEF") == UIntUnhash("000000000abcdef"));
    EXPECT_EQ(UIntUnhash("ffffffff"), UIntUnhash("7fffffff"));  // bit 31 is never read
}

template <typename A>
std::string Text(const A &a) { return std::string(reinterpret_cast<const char *>(a.elements), a.count); }

template <typename A>
void CheckPrintf(int (*print)(A *, const char *, ...)) {
    A a{};
    ASSERT_EQ(print(&a, "abc"), 1);
    EXPECT_TRUE(a.count == 3 && a.capacity == 4 && a.elements[3] == '\0');
    ASSERT_EQ(print(&a, "%I64u|%I64d|%016I64x|%I64d|%d-%s", 18446744073709551615ull, -5ll, 0xabcull,
                    std::numeric_limits<long long>::min(), 42, "x"), 1);
    ASSERT_EQ(print(&a, ""), 1);
    for (const char *bad : {"%y", "abc%", "abcdefgh%s%y"}) EXPECT_EQ(print(&a, bad, "zz"), 0) << bad;
    EXPECT_EQ(Text(a) + char(a.elements[a.count]),  // nothing of the failed texts is left behind
              "abc18446744073709551615|-5|0000000000000abc|-9223372036854775808|42-x\0"s);
    free(a.elements);
    // One pass when the text and its NUL fit, else a second after growing by the growth rule.
    const std::string big(10000, 'q');
    A b{}, c{static_cast<unsigned char *>(malloc(16)), 0, 16};
    ASSERT_EQ(print(&b, "%s", big.c_str()), 1);
    EXPECT_TRUE(Text(b) == big && b.elements[10000] == '\0' && b.capacity == 16384);
    free(b.elements);
    unsigned char *const storage = c.elements;
    ASSERT_EQ(print(&c, "%s", "fifteen-chars!!"), 1);
    EXPECT_TRUE(c.capacity == 16 && c.elements == storage);
    c.count = 0;
    ASSERT_EQ(print(&c, "%s%d", "sixteen-chars!!", 7), 1);
    EXPECT_EQ(c.capacity, 64u);
    ASSERT_EQ(print(&c, "<%s>%I64u", big.c_str() + 9900, 99ull), 1);  // the prefix survives the growth
    EXPECT_EQ(Text(c), "sixteen-chars!!7<" + big.substr(9900) + ">99");
    EXPECT_TRUE(c.capacity == 256 && c.elements[c.count] == '\0');
    free(c.elements);
}

template <typename A, int (*Vprintf)(A *, const char *, va_list)>
int ThroughVaList(A *a, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Vprintf(a, format, args);
    va_end(args);
    return result;
}

char *AllocThroughVaList(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *result = AllocVprintf(format, args);
    va_end(args);
    return result;
}

TEST(Printf, ArraysAndAllocated) {
    CheckPrintf(UByteArrayPrintf);
    CheckPrintf(UByteBigArrayPrintf);
    CheckPrintf(ThroughVaList<UByteArray, UByteArrayVprintf>);
    CheckPrintf(ThroughVaList<UByteBigArray, UByteBigArrayVprintf>);
    const std::string big(10000, 'a');
    for (auto alloc : {AllocPrintf, AllocThroughVaList}) {
        char *text = alloc("%s=%I64u|%s", "n", 18446744073709551615ull, big.c_str());
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), "n=18446744073709551615|" + big);
        free(text);
        EXPECT_EQ(alloc("%y"), nullptr);
    }
}

// Records claiming almost the limit: the needed capacity reaches it before anything is touched.
TEST(UByteArrayPrintfDeathTest, CapacityLimitIsFatal) {
    static unsigned char g_neverTouched[1];
    UByteArray a{g_neverTouched, 0x7FFFFFF0u, 0x7FFFFFF0u};
    UByteBigArray b{g_neverTouched, 0x7FFFFFFFFFFFFFFEull, 0x7FFFFFFFFFFFFFFEull};
    EXPECT_DEATH(UByteArrayPrintf(&a, "x"), "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:");
    EXPECT_DEATH(UByteBigArrayPrintf(&b, "x"), "'eltCount < ULONG_MAX_VALUE / 2' failed at kzlib/array:");
}

TEST(StrlcpyStrlcat, EdgeCases) {  // the whole buffer afterwards: '#' where nothing may be written
    const struct { const char *destination, *source; size_t size, result; std::string_view after; } cases[] = {
        {nullptr, "hello", 0, 5, "##########"}, {nullptr, "hello", 1, 5, "\0#########"sv},
        {nullptr, "hello", 6, 5, "hello\0####"sv}, {nullptr, "", 8, 0, "\0#########"sv},
        {nullptr, "a longer text", 8, 13, "a longe\0##"sv},
        {"abc", "xyz", 0, 6, "abc\0######"sv},  // size <= destination length: nothing written
        {"abc", "xyz", 3, 6, "abc\0######"sv}, {"abc", "xyz", 4, 6, "abc\0######"sv},  // room for the NUL only
        {"abc", "xyz", 5, 6, "abcx\0#####"sv}, {"abcxyz", "0123456", 10, 13, "abcxyz012\0"sv},
        {"abcxyz012", "", 10, 9, "abcxyz012\0"sv}, {"", "hello", 4, 5, "hel\0######"sv},
    };
    for (const auto &c : cases) {
        char buffer[10];
        std::memset(buffer, '#', sizeof buffer);
        if (c.destination) std::memcpy(buffer, c.destination, std::strlen(c.destination) + 1);
        EXPECT_EQ(c.destination ? strlcat(buffer, c.source, c.size) : strlcpy(buffer, c.source, c.size), c.result)
            << (c.destination ? c.destination : "strlcpy") << " + " << c.source << " size " << c.size;
        EXPECT_EQ(std::string_view(buffer, sizeof buffer), c.after) << c.source << " size " << c.size;
    }
}

}  // namespace
