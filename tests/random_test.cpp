// Pseudo-random numbers: seeding, the 48-bit step, the process-wide generator
// shared by threads and forked children, the Zipf sampler and entropy gathering.
#include "kz/random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/init.h"

namespace {

// The generator as plain 64-bit arithmetic: x = (a * x + c) mod 2^48.
struct Model {
  uint64_t x;
  uint32_t Next() { return static_cast<uint32_t>((x = (0x5DEECE66Dull * x + 0xB) & 0xFFFFFFFFFFFFull) >> 16); }
};

uint64_t StateOf(const KZRand &s) { return uint64_t{s.x0} << 32 | uint64_t{s.x1} << 16 | s.x2; }

KZRand Seeded(uint64_t seed) {
  KZRand s;
  EXPECT_EQ(KZRandInit(&s, seed), 11);
  return s;
}
std::string FirstSixBytes(const KZRand &s) { return std::string(reinterpret_cast<const char *>(&s), 6); }

// Seed 0 gives 0, 0x40942D, 0xAA8544E first. Bits 63-16 of a seed, from the
// top byte down, go into the record's first six bytes in memory order, so
// seeds that agree there give the same sequence.
TEST(RandomSeed, FirstValuesAfterSeedZeroAndTheSeedBitsThatCount) {
  for (KZRand s = Seeded(0); uint32_t value : {0x0u, 0x40942Du, 0xAA8544Eu}) EXPECT_EQ(KZRandUInt(&s), value);
  const KZRand a = Seeded(0x0123456789ABCDEFull), b = Seeded(0x8000000000010000ull);
  EXPECT_EQ(FirstSixBytes(a), "\x01\x23\x45\x67\x89\xAB");
  EXPECT_EQ(FirstSixBytes(b), std::string("\x80\0\0\0\0\x01", 6));
  const struct {
    uint64_t a, b;
    bool same;
  } cases[] = {{0x123456789ABC0000ull, 0x123456789ABCFFFFull, true},
               {0, 0xFFFF, true},
               {0, 0x10000, false},
               {0x123456789ABC0000ull, 0x923456789ABC0000ull, false}};
  const auto first = [](uint64_t seed) {
    KZRand r = Seeded(seed);
    return KZRandULong(&r);
  };
  for (const auto &c : cases) EXPECT_EQ(first(c.a) == first(c.b), c.same) << std::hex << c.a << " " << c.b;
}

// The 16-bit word arithmetic against the model, carries at every word boundary
// included (states of 0 and 0xFFFF words come from seeds unchanged).
// KZRandULong is r2 << 32 | r1 of two steps; the signed functions give the same bits.
TEST(RandomStep, WordArithmeticEqualsTheModel) {
  std::vector<uint64_t> seeds = {0, 0xFFFF, 0xFFFF0000, 0xFFFFFFFF, 0xFFFF0000FFFF, 0xFFFFFFFF0000, 0xFFFFFFFFFFFF};
  for (uint64_t i = 1; i < 200; ++i) seeds.push_back(i * 0x9E3779B97F4Aull & 0xFFFFFFFFFFFFull);
  for (uint64_t seed : seeds) {
    KZRand s = Seeded(seed << 16), wide = s, signedNarrow = s, signedWide = s;
    Model m{StateOf(s)};
    for (int step = 0; step < 50; ++step) {
      SCOPED_TRACE(testing::Message() << std::hex << "seed " << seed << std::dec << " step " << step);
      const uint32_t r1 = KZRandUInt(&s), r2 = KZRandUInt(&s);
      const uint64_t both = uint64_t{r2} << 32 | r1;
      ASSERT_EQ(r1, m.Next());
      ASSERT_EQ(r2, m.Next());
      ASSERT_EQ(StateOf(s), m.x);
      ASSERT_EQ(KZRandULong(&wide), both);
      ASSERT_EQ(KZRandLong(&signedWide), static_cast<int64_t>(both));
      ASSERT_EQ(KZRandInt(&signedNarrow), int32_t(r1));
      ASSERT_EQ(KZRandInt(&signedNarrow), int32_t(r2));
    }
  }
}

// Two threads share the process-wide generator seeded with a known seed: they
// must receive the first 2N values of a private state seeded alike, each once
// (for KZRandULong, the two steps of each value consecutive).
TEST(RandomShared, ThreadsReceiveEveryStepExactlyOnce) {
  for (bool wide : {true, false}) {
    const auto draw = [wide](KZRand *state) { return wide ? KZRandULong(state) : uint64_t{KZRandUInt(state)}; };
    KZRandInit(nullptr, 0x5EED5EED5EED0000ull);
    std::vector<uint64_t> got[2], expected(100000);
    const auto work = [&](int t) {
      for (int i = 0; i < 50000; ++i) got[t].push_back(draw(nullptr));
    };
    { std::jthread first(work, 0), second(work, 1); }
    for (KZRand s = Seeded(0x5EED5EED5EED0000ull); uint64_t & v : expected) v = draw(&s);
    got[0].insert(got[0].end(), got[1].begin(), got[1].end());
    std::sort(got[0].begin(), got[0].end()), std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(got[0] == expected) << wide;
  }
}

// In a fresh process the first use seeds the shared generator (a zero state's
// first value would be 0), and only once: the values go on from one state. A
// forked child draws what its parent draws next when the program seeded the
// generator itself, and its own values when the seed came from entropy.
TEST(RandomShared, SeedsItselfOnceAndForkedChildren) {
  EXPECT_EXIT(
      {
        uint32_t r[8];
        for (uint32_t &v : r) v = KZRandUInt(nullptr);
        int states = 0;  // the states behind r[0] that go on with r[1..7]
        for (uint64_t low = 0; low < 0x10000; ++low) {
          Model m{uint64_t{r[0]} << 16 | low};
          states += std::all_of(r + 1, r + 8, [&](uint32_t v) { return m.Next() == v; });
        }
        fprintf(stderr, "%d state(s) go on, first value %s\n", states, r[0] ? "nonzero" : "0");
        exit(0);
      },
      ::testing::ExitedWithCode(0), "^1 state\\(s\\) go on, first value nonzero\n$");
  const auto childDraw = [] {
    const auto child =
        kztest::RunChild({}, [] { return printf("%s", std::to_string(KZRandULong(nullptr)).c_str()) < 0; });
    EXPECT_EQ(child.Ending(), kztest::ExitEnding(0)) << child.Describe();
    return child.out;
  };
  KZRandInit(nullptr, 0x1234567812340000ull);
  const std::string seededChild = childDraw();
  EXPECT_EQ(seededChild, std::to_string(KZRandULong(nullptr)));
  KZRandInitRand(nullptr);
  const std::string first = childDraw(), second = childDraw(), parent = std::to_string(KZRandULong(nullptr));
  EXPECT_NE(first, "");
  EXPECT_NE(first, parent);
  EXPECT_NE(second, parent);
  EXPECT_NE(first, second);
}

// Clock readings, kernel bytes, a heap address, the host and program names and
// the environment; states seeded from them differ.
TEST(RandomEntropy, GathersPiecesThatSeedDifferentStates) {
  std::vector<std::string> pieces, again;
  const auto collect = [](void *to, const void *bytes, size_t length) {
    static_cast<std::vector<std::string> *>(to)->emplace_back(static_cast<const char *>(bytes), length);
  };
  KZRandEntropyGet(collect, &pieces), KZRandEntropyGet(collect, &again);
  EXPECT_GE(pieces.size(), 15u);
  EXPECT_NE(pieces, again);
  EXPECT_EQ(std::count(pieces.begin(), pieces.end(), ""), 0);
  for (const std::string text : {HostName(), KZProgramName(), const_cast<const char *>(environ[0])})
    EXPECT_NE(std::find(pieces.begin(), pieces.end(), text), pieces.end()) << text;
  KZRand a{}, b{};  // zero records: a missing multiplier would give equal values
  KZRandInitRand(&a), KZRandInitRand(&b);
  EXPECT_NE(KZRandULong(&a), KZRandULong(&b));
}

TEST(RandomZipf, OneIsTheMostFrequentValueAndNeverZero) {
  for (double s : {1.1, 2.0, 5.0}) {
    KZRand state = Seeded(0x21F000000000ull + static_cast<uint64_t>(s * 1000) * 0x10000);
    std::map<int64_t, int> counts;
    for (int i = 0; i < 200000; ++i) ++counts[KZRandZipf(&state, s)];
    for (const auto &[value, n] : counts) {
      EXPECT_GE(value, 1) << s;
      if (value != 1) {
        EXPECT_LT(n, counts[1]) << s << " " << value;
      }
    }
  }
  KZRand state = Seeded(77 << 16);
  for (int i = 0; i < 20000; ++i) {
    ASSERT_GE(KZRandZipf(nullptr, 2.0), 1);
    ASSERT_GE(KZRandZipf(&state, 0.5), 1);
  }
}

// The sampler over the model: both draws of a round step the given state, and
// values beyond the signed 64-bit range (s < 1 reaches them) are INT64_MAX.
TEST(RandomZipf, RoundsDrawFromTheGivenStateAndSaturate) {
  for (const auto &[s, saturates] : {std::pair{0.1, true}, std::pair{2.0, false}}) {  // 0.1: U^-11, often huge
    KZRand state = Seeded(0x5EED0000ull);
    Model m{StateOf(state)};
    int saturated = 0;
    for (int i = 0; i < 20000; ++i) {
      double x, t, v;
      do {
        x = floor(pow(m.Next() / 4294967296.0, -1.0 / s - 1.0));
        t = pow(1.0 + 1.0 / x, s - 1.0), v = m.Next() / 4294967296.0;
      } while (v * x * (t - 1.0) / (pow(2.0, s - 1.0) - 1.0) > t / pow(2.0, s - 1.0));
      const int64_t expected = x >= 9223372036854775808.0 ? INT64_MAX : static_cast<int64_t>(x);
      saturated += expected == INT64_MAX;
      ASSERT_EQ(KZRandZipf(&state, s), expected) << s << " draw " << i;
    }
    EXPECT_EQ(StateOf(state), m.x);
    EXPECT_EQ(saturated > 0, saturates) << s;
  }
}

// s = 1 would divide by zero and never accept a draw; s <= 0 and NaN sample
// nothing meaningful. The assertion comes before any draw.
TEST(RandomZipfDeathTest, ExponentsThatCannotBeSampled) {
  for (double s : {1.0, 0.0, -0.5, std::nan("")}) {
    KZRand state = Seeded(1 << 16);
    EXPECT_DEATH(KZRandZipf(&state, s), "^'s > 0 && s != 1' failed at kzlib/crypto:1230\n") << s;
  }
}

}  // namespace
