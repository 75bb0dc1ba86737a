// The fingerprint kernel: its tables, and the table method and the carry-less
// multiplication method on large buffers against each other and against a
// plain one-bit-at-a-time reference. (Short inputs, the end fold and split
// calls are checked through the public functions in url_test.)
#include "internal/fingerprint.h"

#include <gtest/gtest.h>

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
  for (size_t i = 0; i < 8 * n; ++i) value = TimesX(value) ^ (uint64_t{(p[i / 8] >> (i % 8)) & 1u} << 63);
  return value;
}

class FingerprintKernel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { fp::InitTables(); }
};

// The power list starts at x^64 and steps by x; Tk[b] is (b << 8k) * x^64.
TEST_F(FingerprintKernel, TablesFollowTheRecurrence) {
  for (unsigned i = 0; i < 64; ++i) EXPECT_EQ(fp::PowerEntry(i), TimesX(i ? fp::PowerEntry(i - 1) : 1)) << i;
  for (unsigned k = 0; k < 8; ++k) {
    for (unsigned b : {0x00u, 0x01u, 0x80u, 0xA5u, 0xFFu}) {
      uint64_t v = uint64_t{b} << (8 * k);
      for (int i = 0; i < 64; ++i) v = TimesX(v);
      EXPECT_EQ(fp::TableEntry(k, b), v) << "T" << k << "[" << b << "]";
    }
  }
}

// A long run against the reference; then every length up to 300 (the 64-byte
// rounds, 16-byte blocks and tails) and large ones, at random alignments and
// start values: the dispatcher and both methods give the same value.
TEST_F(FingerprintKernel, MethodsAgreeOnLargeBuffers) {
  std::mt19937_64 rng(1234);
  std::vector<unsigned char> data((1 << 20) + 64);
  for (auto &byte : data) byte = static_cast<unsigned char>(rng());
  EXPECT_EQ(fp::ExtendTables(0x0123456789abcdefull, data.data() + 3, 70000),
            Reference(0x0123456789abcdefull, data.data() + 3, 70000));
  for (size_t i = 0; i < 325; ++i) {
    const size_t length = i <= 300 ? i : i < 305 ? (1 << 20) - (i - 301) : rng() % ((1 << 20) + 1);
    const unsigned char *p = data.data() + rng() % 64;
    const uint64_t start = length % 3 ? rng() : fp::kSeed, tables = fp::ExtendTables(start, p, length);
    ASSERT_EQ(fp::Extend(start, p, length), tables) << "length " << length;
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
    ASSERT_TRUE(!fp::HaveClmul() || fp::ExtendClmul(start, p, length) == tables) << "length " << length;
#endif
  }
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
  __builtin_cpu_init();  // the choice follows the CPU
  EXPECT_EQ(fp::HaveClmul(), __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1"));
  if (!fp::HaveClmul()) GTEST_SKIP() << "no carry-less multiplication on this CPU";
  for (unsigned char fill : {0x00, 0xFF}) {  // where a dropped carry or lane would show
    const std::vector<unsigned char> same(4096 + 7, fill);
    for (size_t n : {64, 65, 127, 128, 4096 + 7})
      EXPECT_EQ(fp::ExtendClmul(~0ull, same.data(), n), Reference(~0ull, same.data(), n)) << n;
  }
#else
  EXPECT_FALSE(fp::HaveClmul());
#endif
}

// Short inputs, where the last 1-7 bytes take one step through several
// tables: every length up to 40 at every alignment, against the reference.
TEST_F(FingerprintKernel, ShortTailsMatchTheReference) {
  std::mt19937_64 rng(99);
  std::vector<unsigned char> data(64);
  for (auto &byte : data) byte = static_cast<unsigned char>(rng());
  for (size_t length = 0; length <= 40; ++length)
    for (size_t offset = 0; offset < 8; ++offset) {
      const uint64_t start = offset % 2 ? rng() : fp::kSeed;
      ASSERT_EQ(fp::ExtendTables(start, data.data() + offset, length), Reference(start, data.data() + offset, length))
          << "length " << length << " offset " << offset;
    }
}

}  // namespace
