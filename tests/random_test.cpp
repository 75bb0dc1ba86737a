// Pseudo-random numbers: seeding, the 48-bit step, the process-wide generator
// shared by threads and forked children, the Zipf sampler and entropy gathering.
#include "kz/random.h"

#include <gtest/gtest.h>

#include <algorithm>
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
bool Multiplier(const KZRand &s) { return s.a0 == 0x0005 && s.a1 == 0xDEEC && s.a2 == 0xE66D && s.c == 0x000B; }
// Equal records step alike: the same sequence.
bool Same(const KZRand &a, const KZRand &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

KZRand Seeded(uint64_t seed) {
  KZRand s;
  EXPECT_EQ(KZRandInit(&s, seed), 11);
  return s;
}

TEST(RandomSeed, FirstValuesAfterSeedZero) {
  KZRand s = Seeded(0);
  EXPECT_TRUE(Multiplier(s) && StateOf(s) == 0);
  const struct { uint32_t value; uint64_t state; } steps[] = {
      {0x0, 0xB}, {0x40942D, 0x40942DE6BA}, {0xAA8544E, 0xAA8544E593D}};
  for (const auto &step : steps) {
    EXPECT_EQ(KZRandUInt(&s), step.value);
    EXPECT_EQ(StateOf(s), step.state);
  }
}

TEST(RandomSeed, BytesOfTheSeedGoIntoTheStateMemoryInOrder) {
  const struct { uint64_t seed; unsigned char bytes[6]; } cases[] = {
      {0x0123456789ABCDEFull, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB}}, {0x8000000000010000ull, {0x80, 0, 0, 0, 0, 1}}};
  for (const auto &c : cases) {
    const KZRand s = Seeded(c.seed);  // x0, x1, x2 first in the record
    EXPECT_EQ(std::memcmp(&s, c.bytes, 6), 0) << std::hex << c.seed;
  }
}

TEST(RandomSeed, SameSequenceExactlyWhenBits63To16Agree) {
  const struct { uint64_t a, b; bool same; } cases[] = {{0x123456789ABC0000ull, 0x123456789ABCFFFFull, true},
      {0, 0xFFFF, true}, {0, 0x10000, false}, {0x123456789ABC0000ull, 0x923456789ABC0000ull, false}};
  for (const auto &c : cases) EXPECT_EQ(Same(Seeded(c.a), Seeded(c.b)), c.same) << std::hex << c.a << " " << c.b;
}

// The 16-bit word arithmetic against the model from states placed directly,
// carries at every word boundary included.
TEST(RandomStep, WordArithmeticEqualsTheModel) {
  std::vector<uint64_t> starts = {0, 0xFFFF, 0xFFFF0000, 0xFFFFFFFF, 0xFFFF0000FFFF, 0xFFFFFFFF0000, 0xFFFFFFFFFFFF};
  for (uint64_t i = 1; i < 500; ++i) starts.push_back(i * 0x9E3779B97F4Aull & 0xFFFFFFFFFFFFull);
  for (uint64_t start : starts) {
    KZRand s = Seeded(0);
    s.x0 = static_cast<uint16_t>(start >> 32), s.x1 = static_cast<uint16_t>(start >> 16);
    s.x2 = static_cast<uint16_t>(start);
    Model m{start};
    for (int step = 0; step < 100; ++step) {
      ASSERT_EQ(KZRandUInt(&s), m.Next()) << std::hex << start << " step " << step;
      ASSERT_EQ(StateOf(s), m.x);
    }
  }
}

// KZRandULong is r2 << 32 | r1 of two steps; the signed functions give the same bits.
TEST(RandomStep, WideAndSignedValues) {
  KZRand narrow = Seeded(5 << 16), wide = narrow, signedNarrow = narrow, signedWide = narrow;
  for (int i = 0; i < 1000; ++i) {
    const uint32_t r1 = KZRandUInt(&narrow), r2 = KZRandUInt(&narrow);
    const uint64_t both = uint64_t{r2} << 32 | r1;
    ASSERT_EQ(KZRandULong(&wide), both);
    ASSERT_EQ(KZRandLong(&signedWide), static_cast<int64_t>(both));
    ASSERT_EQ(KZRandInt(&signedNarrow), static_cast<int32_t>(r1));
    ASSERT_EQ(KZRandInt(&signedNarrow), static_cast<int32_t>(r2));
  }
}

// Two threads share the process-wide generator seeded with a known seed: they
// must receive the first 2N values of a private state seeded alike, each once
// (for KZRandULong, the two steps of each value consecutive).
TEST(RandomShared, ThreadsReceiveEveryStepExactlyOnce) {
  for (bool wide : {true, false}) {
    const auto draw = [wide](KZRand *state) { return wide ? KZRandULong(state) : uint64_t{KZRandUInt(state)}; };
    KZRandInit(nullptr, 0x5EED5EED5EED0000ull);
    std::vector<uint64_t> got[2], all, expected(100000);
    const auto work = [&](int t) { for (int i = 0; i < 50000; ++i) got[t].push_back(draw(nullptr)); };
    std::thread first(work, 0), second(work, 1);
    first.join(), second.join();
    KZRand s = Seeded(0x5EED5EED5EED0000ull);
    for (uint64_t &v : expected) v = draw(&s);
    for (const auto &mine : got) all.insert(all.end(), mine.begin(), mine.end());
    std::sort(all.begin(), all.end()), std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(all == expected) << wide;
  }
}

// In a fresh process the first use seeds the shared generator (a zero state's
// first value would be 0), and only once: the values go on from one state.
TEST(RandomShared, SeedsItselfOnceOnFirstUse) {
  EXPECT_EXIT(
      {
        uint32_t r[8];
        for (uint32_t &v : r) v = KZRandUInt(nullptr);
        int states = 0;  // the states behind r[0] that go on with r[1..7]
        for (uint64_t low = 0; low < 0x10000; ++low) {
          Model m{uint64_t{r[0]} << 16 | low};
          states += std::all_of(r + 1, r + 8, [&](uint32_t v) { return m.Next() == v; });
        }
        exit(states == 1 && r[0] != 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// A forked child draws what its parent draws next when the program seeded the
// generator itself, and its own values when the seed came from entropy.
TEST(RandomShared, ForkedChildren) {
  const auto childDraw = [] {
    const auto body = [] { return fputs(std::to_string(KZRandULong(nullptr)).c_str(), stdout) < 0; };
    const kztest::Child child = kztest::RunChild({}, body);
    EXPECT_TRUE(child.Exited(0)) << child.Describe();
    return child.out;
  };
  KZRandInit(nullptr, 0x1234567812340000ull);
  const std::string seededChild = childDraw();
  EXPECT_EQ(seededChild, std::to_string(KZRandULong(nullptr)));
  KZRandInitRand(nullptr);
  const std::string first = childDraw(), second = childDraw(), parent = std::to_string(KZRandULong(nullptr));
  EXPECT_TRUE(!first.empty() && first != parent && second != parent && first != second) << first << " " << second;
}

using Pieces = std::vector<std::string>;
void Collect(void *pieces, const void *bytes, size_t length) {
  static_cast<Pieces *>(pieces)->emplace_back(static_cast<const char *>(bytes), length);
}

TEST(RandomEntropy, GathersPiecesThatSeedDifferentStates) {
  Pieces pieces, again;
  KZRandEntropyGet(Collect, &pieces);
  KZRandEntropyGet(Collect, &again);
  EXPECT_GE(pieces.size(), 15u);
  EXPECT_NE(pieces, again);  // clock readings, kernel bytes, heap address
  for (const auto &piece : pieces) EXPECT_FALSE(piece.empty());
  for (const std::string text : {HostName(), KZProgramName(), const_cast<const char *>(environ[0])})
    EXPECT_NE(std::find(pieces.begin(), pieces.end(), text), pieces.end()) << text;
  KZRand a{}, b{};
  KZRandInitRand(&a);
  KZRandInitRand(&b);
  EXPECT_TRUE(Multiplier(a) && Multiplier(b) && StateOf(a) != StateOf(b));
}

TEST(RandomZipf, OneIsTheMostFrequentValueAndNeverZero) {
  for (double s : {1.1, 2.0, 5.0}) {
    KZRand state = Seeded(0x21F000000000ull + static_cast<uint64_t>(s * 1000) * 0x10000);
    std::map<int64_t, int> counts;
    for (int i = 0; i < 200000; ++i) ++counts[KZRandZipf(&state, s)];
    const auto mode = std::max_element(counts.begin(), counts.end(),
                                       [](const auto &a, const auto &b) { return a.second < b.second; });
    EXPECT_TRUE(counts.begin()->first >= 1 && mode->first == 1) << s;
  }
  for (int i = 0; i < 1000; ++i) ASSERT_GE(KZRandZipf(nullptr, 2.0), 1);
  KZRand state = Seeded(77 << 16);
  for (int i = 0; i < 20000; ++i) ASSERT_GE(KZRandZipf(&state, 0.5), 1);  // 0 < s < 1: at least 1 too
  Model m{StateOf(state)};  // below 0 the first round is kept: each call takes two steps of the given state
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(KZRandZipf(&state, -0.5) == 0 && KZRandZipf(&state, -1.0) == 1);
  for (int i = 0; i < 400; ++i) m.Next();
  EXPECT_EQ(StateOf(state), m.x);
}

}  // namespace
