// The fingerprint kernel: tables, the table method and the carry-less
// multiplication method against a plain one-bit-at-a-time reference.

#include "internal/fingerprint.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

namespace fp = kz::fingerprint;

// Multiplication by x in the reflected order: shift right, and a bit leaving
// at the bottom (x^64) comes back as the polynomial without its x^64 term.
uint64_t TimesX(uint64_t v) { return (v >> 1) ^ ((v & 1) ? fp::kPolynomial >> 1 : 0); }

// value * x^(8n) + data, one bit at a time: the least significant bit of each
// byte first, each entering at x^0 (the most significant bit).
uint64_t Reference(uint64_t value, const unsigned char *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        for (int j = 0; j < 8; ++j) {
            value = TimesX(value);
            if ((p[i] >> j) & 1) value ^= uint64_t{1} << 63;
        }
    return value;
}

class FingerprintKernel : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { fp::InitTables(); }
};

TEST_F(FingerprintKernel, PowerListAndTablesFollowTheRecurrence) {
    uint64_t power[64];
    power[0] = 0x7a47e275d5b2dcc0ull;
    for (int i = 1; i < 64; ++i) power[i] = (power[i - 1] ^ ((power[i - 1] & 1) ? fp::kPolynomial : 0)) >> 1;
    for (unsigned i = 0; i < 64; ++i) ASSERT_EQ(fp::PowerEntry(i), power[i]) << "P[" << i << "]";
    // x^63 times x is the first entry: the power list starts at x^64.
    EXPECT_EQ(TimesX(1), power[0]);

    for (unsigned k = 0; k < 8; ++k) {
        EXPECT_EQ(fp::TableEntry(k, 0), 0u);
        for (unsigned j = 0; j < 8; ++j)
            EXPECT_EQ(fp::TableEntry(k, 1u << j), power[63 - 8 * k - j]) << "T" << k << "[1<<" << j << "]";
    }
    // T7 in full: XOR of the entries of its set bits.
    for (unsigned b = 0; b < 256; ++b) {
        uint64_t expected = 0;
        for (unsigned j = 0; j < 8; ++j)
            if (b & (1u << j)) expected ^= power[7 - j];
        ASSERT_EQ(fp::TableEntry(7, b), expected) << "T7[" << b << "]";
    }
    // Tk[b] is (b << 8k) * x^64: shifting in 64 zero bits gives the same.
    std::mt19937_64 rng(7);
    for (int round = 0; round < 200; ++round) {
        const unsigned k = rng() % 8, b = rng() % 256;
        uint64_t v = uint64_t{b} << (8 * k);
        for (int i = 0; i < 64; ++i) v = TimesX(v);
        ASSERT_EQ(fp::TableEntry(k, b), v) << "T" << k << "[" << b << "]";
    }
}

TEST_F(FingerprintKernel, ByteStepMatchesTheReference) {
    // Single bytes from a few start values: the one-byte step in its written form.
    for (uint64_t start : {uint64_t{0}, fp::kSeed, ~uint64_t{0}, uint64_t{1}, fp::kPolynomial}) {
        for (unsigned b = 0; b < 256; ++b) {
            const unsigned char byte = static_cast<unsigned char>(b);
            const uint64_t step = ((uint64_t{byte} << 56) | (start >> 8)) ^ fp::TableEntry(7, start & 255);
            ASSERT_EQ(step, Reference(start, &byte, 1));
            ASSERT_EQ(fp::ExtendTables(start, &byte, 1), step);
        }
    }
}

// Lengths 0-200 at every alignment 0-15, with random start values.
TEST_F(FingerprintKernel, ShortInputsAtEveryAlignment) {
    std::mt19937_64 rng(42);
    alignas(64) unsigned char buffer[16 + 200 + 16];
    for (auto &byte : buffer) byte = static_cast<unsigned char>(rng());
    const bool clmul = fp::HaveClmul();
    for (size_t offset = 0; offset < 16; ++offset) {
        for (size_t length = 0; length <= 200; ++length) {
            for (uint64_t start : {uint64_t{0}, fp::kSeed, rng(), rng()}) {
                const unsigned char *p = buffer + offset;
                const uint64_t expected = Reference(start, p, length);
                ASSERT_EQ(fp::ExtendTables(start, p, length), expected)
                    << "tables, offset " << offset << " length " << length << " start " << start;
                ASSERT_EQ(fp::Extend(start, p, length), expected)
                    << "dispatch, offset " << offset << " length " << length << " start " << start;
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
                if (clmul) {
                    ASSERT_EQ(fp::ExtendClmul(start, p, length), expected)
                        << "clmul, offset " << offset << " length " << length << " start " << start;
                }
#endif
            }
        }
    }
    (void)clmul;
}

TEST_F(FingerprintKernel, LargeBuffersTablesEqualClmul) {
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
    if (!fp::HaveClmul()) GTEST_SKIP() << "no carry-less multiplication on this CPU";
    std::mt19937_64 rng(1234);
    std::vector<unsigned char> data((1 << 20) + 64);
    for (auto &byte : data) byte = static_cast<unsigned char>(rng());
    for (int round = 0; round < 24; ++round) {
        const size_t offset = rng() % 64;
        const size_t length = round < 4 ? (1 << 20) - offset % 16 : rng() % ((1 << 20) + 1);
        const uint64_t start = round % 3 == 0 ? fp::kSeed : rng();
        const unsigned char *p = data.data() + offset;
        ASSERT_EQ(fp::ExtendClmul(start, p, length), fp::ExtendTables(start, p, length))
            << "offset " << offset << " length " << length << " start " << start;
    }
    // A long run checked against the bit-by-bit reference as well.
    const size_t length = 70000;
    EXPECT_EQ(fp::ExtendClmul(0x0123456789abcdefull, data.data() + 3, length),
              Reference(0x0123456789abcdefull, data.data() + 3, length));
    // All-ones and all-zero inputs, where a dropped carry or lane would show.
    std::vector<unsigned char> ones(4096 + 7, 0xFF), zeros(4096 + 7, 0);
    for (size_t length : {size_t{64}, size_t{65}, size_t{127}, size_t{128}, size_t{4096 + 7}}) {
        EXPECT_EQ(fp::ExtendClmul(~uint64_t{0}, ones.data(), length), Reference(~uint64_t{0}, ones.data(), length));
        EXPECT_EQ(fp::ExtendClmul(~uint64_t{0}, zeros.data(), length), Reference(~uint64_t{0}, zeros.data(), length));
    }
#else
    GTEST_SKIP() << "no carry-less multiplication kernel on this architecture";
#endif
}

TEST_F(FingerprintKernel, SplitCallsWithEndFoldEqualOneCall) {
    std::mt19937_64 rng(99);
    std::vector<unsigned char> data(3000);
    for (auto &byte : data) byte = static_cast<unsigned char>(rng());
    int oddFolds = 0;
    for (int round = 0; round < 2000; ++round) {
        const size_t length = rng() % data.size();
        const size_t split = length ? rng() % (length + 1) : 0;
        const unsigned char *p = data.data();
        const uint64_t first = fp::FoldEnd(fp::Extend(fp::kSeed, p, split));
        const uint64_t whole = fp::FoldEnd(fp::Extend(fp::kSeed, p, length));
        if (split < length) {
            oddFolds += (fp::Extend(fp::kSeed, p, split) & 1) != 0;
            ASSERT_EQ(fp::FoldEnd(fp::Extend(first, p + split, length - split)), whole)
                << "length " << length << " split " << split;
        }
    }
    EXPECT_GT(oddFolds, 100);  // the fold itself was exercised, not only even values
}

TEST_F(FingerprintKernel, FoldEnd) {
    EXPECT_EQ(fp::FoldEnd(0), 0u);
    EXPECT_EQ(fp::FoldEnd(2), 2u);
    EXPECT_EQ(fp::FoldEnd(1), fp::kPolynomial ^ 1);
    EXPECT_EQ(fp::FoldEnd(fp::kPolynomial), 0u);
    for (uint64_t v : {uint64_t{3}, ~uint64_t{0}, fp::kSeed | 1}) EXPECT_EQ(fp::FoldEnd(v) & 1, 0u);
}

}  // namespace
