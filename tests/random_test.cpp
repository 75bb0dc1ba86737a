// Pseudo-random numbers: seeding, the 48-bit step, the process-wide generator
// shared by threads and forked children, the Zipf sampler and entropy gathering.

#include "kz/random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/error.h"
#include "kz/init.h"

namespace {

constexpr uint64_t kMask48 = (uint64_t{1} << 48) - 1;

// The generator as plain 64-bit arithmetic.
struct Model {
    uint64_t x;
    uint32_t Next() {
        x = (0x5DEECE66Dull * x + 0xB) & kMask48;
        return static_cast<uint32_t>(x >> 16);
    }
};

uint64_t StateOf(const KZRand &s) { return uint64_t{s.x0} << 32 | uint64_t{s.x1} << 16 | s.x2; }

KZRand Seeded(uint64_t seed) {
    KZRand s;
    EXPECT_EQ(KZRandInit(&s, seed), 11);
    return s;
}

std::vector<uint32_t> Draw(KZRand s, int n) {
    std::vector<uint32_t> out;
    for (int i = 0; i < n; ++i) out.push_back(KZRandUInt(&s));
    return out;
}

TEST(RandomSeed, FirstValuesAfterSeedZero) {
    KZRand s = Seeded(0);
    EXPECT_TRUE(s.a0 == 0x0005 && s.a1 == 0xDEEC && s.a2 == 0xE66D && s.c == 0x000B);
    EXPECT_EQ(StateOf(s), 0u);
    const struct { uint32_t value; uint64_t state; } steps[] = {
        {0x0, 0xB}, {0x40942D, 0x40942DE6BA}, {0xAA8544E, 0xAA8544E593D}};
    for (const auto &step : steps) {
        EXPECT_EQ(KZRandUInt(&s), step.value);
        EXPECT_EQ(StateOf(s), step.state);
    }
}

TEST(RandomSeed, BytesOfTheSeedGoIntoTheStateMemoryInOrder) {
    const struct { uint64_t seed; unsigned char bytes[6]; } cases[] = {
        {0x0123456789ABCDEFull, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB}},
        {0xFFFFFFFFFFFF0000ull, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {0x000000000000FFFFull, {0, 0, 0, 0, 0, 0}},
        {0x8000000000010000ull, {0x80, 0, 0, 0, 0, 0x01}},
    };
    for (const auto &c : cases) {
        const KZRand s = Seeded(c.seed);
        unsigned char stored[6];
        std::memcpy(stored, &s.x0, 2);
        std::memcpy(stored + 2, &s.x1, 2);
        std::memcpy(stored + 4, &s.x2, 2);
        EXPECT_EQ(std::memcmp(stored, c.bytes, 6), 0) << std::hex << c.seed;
    }
    if (const uint16_t one = 1; *reinterpret_cast<const unsigned char *>(&one) == 1) {
        const KZRand s = Seeded(0x0123456789ABCDEFull);  // little-endian: x0 = b0 | b1 << 8
        EXPECT_TRUE(s.x0 == 0x2301 && s.x1 == 0x6745 && s.x2 == 0xAB89) << s.x0 << " " << s.x1 << " " << s.x2;
    }
}

TEST(RandomSeed, SameSequenceExactlyWhenBits63To16Agree) {
    const struct { uint64_t a, b; bool same; } cases[] = {
        {42, 42, true},
        {0x123456789ABC0000ull, 0x123456789ABCFFFFull, true},
        {0, 0xFFFF, true},
        {0, 0x10000, false},
        {0x123456789ABC0000ull, 0x923456789ABC0000ull, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Draw(Seeded(c.a), 1000) == Draw(Seeded(c.b), 1000), c.same) << std::hex << c.a << " " << c.b;
}

// The 16-bit word arithmetic against (a * x + c) mod 2^48, from random seeds
// and from states placed directly, carries at every word boundary included.
TEST(RandomStep, WordArithmeticEqualsTheModel) {
    std::mt19937_64 rng(2024);
    std::vector<uint64_t> starts = {0, kMask48, 0xFFFF, 0xFFFF0000, 0xFFFFFFFF, 0xFFFF0000FFFFull, 0xFFFFFFFF0000ull};
    for (int i = 0; i < 2000; ++i) starts.push_back(rng() & kMask48);
    for (uint64_t start : starts) {
        KZRand s = Seeded(0);
        s.x0 = static_cast<uint16_t>(start >> 32);
        s.x1 = static_cast<uint16_t>(start >> 16);
        s.x2 = static_cast<uint16_t>(start);
        Model m{start};
        for (int step = 0; step < 200; ++step) {
            const uint32_t expected = m.Next();
            ASSERT_EQ(KZRandUInt(&s), expected) << "start " << std::hex << start << " step " << step;
            ASSERT_EQ(StateOf(s), m.x);
        }
    }
    for (int i = 0; i < 200; ++i) {  // and through the seeding rule
        KZRand s = Seeded(rng());
        Model m{StateOf(s)};
        for (int step = 0; step < 100; ++step) ASSERT_EQ(KZRandUInt(&s), m.Next());
    }
}

TEST(RandomStep, WideAndSignedValues) {
    std::mt19937_64 rng(5);
    int negativeInts = 0, negativeLongs = 0;
    for (int i = 0; i < 500; ++i) {
        const uint64_t seed = rng();
        KZRand wide = Seeded(seed), narrow = Seeded(seed);
        for (int j = 0; j < 20; ++j) {
            const uint64_t r1 = KZRandUInt(&narrow);
            const uint64_t r2 = KZRandUInt(&narrow);
            ASSERT_EQ(KZRandULong(&wide), r2 << 32 | r1);  // the second value in the upper half
        }
        KZRand signedLong = Seeded(seed), unsignedLong = Seeded(seed);
        KZRand signedInt = Seeded(seed), unsignedInt = Seeded(seed);
        for (int j = 0; j < 20; ++j) {
            const int64_t l = KZRandLong(&signedLong);
            ASSERT_EQ(static_cast<uint64_t>(l), KZRandULong(&unsignedLong));
            const int32_t n = KZRandInt(&signedInt);
            ASSERT_EQ(static_cast<uint32_t>(n), KZRandUInt(&unsignedInt));
            negativeLongs += l < 0;
            negativeInts += n < 0;
        }
    }
    EXPECT_GT(negativeInts, 0);
    EXPECT_GT(negativeLongs, 0);
}

// Two threads share the process-wide generator seeded with a known seed. Each
// KZRandULong takes two consecutive steps, so together the threads must have
// received exactly the first 2N steps of the model, in pairs, each once: the
// model's pair values are all distinct, so a step handed out twice (or lost)
// cannot go unnoticed.
TEST(RandomShared, ThreadsReceiveEveryStepExactlyOnce) {
    constexpr int kPerThread = 100000;
    const uint64_t seed = 0x5EED5EED5EED0000ull;
    KZRandInit(nullptr, seed);
    std::vector<uint64_t> got[2];
    std::thread threads[2];
    for (int t = 0; t < 2; ++t)
        threads[t] = std::thread([&out = got[t]] {
            out.reserve(kPerThread);
            for (int i = 0; i < kPerThread; ++i) out.push_back(KZRandULong(nullptr));
        });
    for (auto &thread : threads) thread.join();

    Model m{StateOf(Seeded(seed))};
    std::vector<uint64_t> expected;
    for (int i = 0; i < 2 * kPerThread; ++i) {
        const uint64_t r1 = m.Next();
        expected.push_back(uint64_t{m.Next()} << 32 | r1);
    }
    std::vector<uint64_t> all = got[0];
    all.insert(all.end(), got[1].begin(), got[1].end());
    std::sort(all.begin(), all.end());
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(std::adjacent_find(expected.begin(), expected.end()), expected.end());
    EXPECT_TRUE(all == expected);
}

// The same with single steps: the union is the model's first 2N values and
// each thread saw its values in the model's order.
TEST(RandomShared, SingleStepsInterleaveInOrder) {
    constexpr int kPerThread = 50000;
    const uint64_t seed = 0x0BADC0FFEE000000ull;
    KZRandInit(nullptr, seed);
    std::vector<uint32_t> got[2];
    std::thread threads[2];
    for (int t = 0; t < 2; ++t)
        threads[t] = std::thread([&out = got[t]] {
            for (int i = 0; i < kPerThread; ++i) out.push_back(KZRandUInt(nullptr));
        });
    for (auto &thread : threads) thread.join();

    const std::vector<uint32_t> model = Draw(Seeded(seed), 2 * kPerThread);
    for (const auto &mine : got) {  // a subsequence of the model
        size_t at = 0;
        for (uint32_t value : mine) {
            while (at < model.size() && model[at] != value) ++at;
            ASSERT_LT(at, model.size()) << "value out of the model's order";
            ++at;
        }
    }
    std::vector<uint32_t> all = got[0], sortedModel = model;
    all.insert(all.end(), got[1].begin(), got[1].end());
    std::sort(all.begin(), all.end());
    std::sort(sortedModel.begin(), sortedModel.end());
    EXPECT_TRUE(all == sortedModel);
}

// The 48-bit state behind four consecutive values, or false when they do not
// come from consecutive steps of the generator.
bool Recover(const uint32_t r[4], uint64_t *state) {
    int found = 0;
    for (uint64_t low = 0; low < 0x10000; ++low) {
        Model m{uint64_t{r[0]} << 16 | low};
        if (m.Next() == r[1] && m.Next() == r[2] && m.Next() == r[3]) {
            *state = m.x;
            ++found;
        }
    }
    return found == 1;
}

// In a fresh process the first use seeds the shared generator once; from then
// on it steps like any other state.
TEST(RandomShared, SeedsItselfOnceOnFirstUse) {
    EXPECT_EXIT(
        {
            uint32_t r[4];
            for (int i = 0; i < 4; i += 2) {
                const uint64_t wide = KZRandULong(nullptr);
                r[i] = static_cast<uint32_t>(wide);
                r[i + 1] = static_cast<uint32_t>(wide >> 32);
            }
            uint64_t state = 0;
            if (!Recover(r, &state)) {
                fprintf(stderr, "not consecutive steps\n");
                exit(1);
            }
            Model m{state};
            for (int i = 0; i < 1000; ++i)
                if (KZRandUInt(nullptr) != m.Next()) {
                    fprintf(stderr, "reseeded at draw %d\n", i);
                    exit(1);
                }
            const std::vector<uint32_t> zero = Draw(Seeded(0), 4);
            if (std::equal(zero.begin(), zero.end(), r)) exit(1);  // not the all-zero state
            fprintf(stderr, "seeded once\n");
            exit(0);
        },
        ::testing::ExitedWithCode(0), "seeded once");
}

// A forked child draws the value its parent draws next when the program seeded
// the generator itself, and its own value when the seed came from entropy.
TEST(RandomShared, ForkedChildren) {
    kztest::TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const auto childValue = [&] {
        const kztest::Child child = kztest::RunChild(dir, {}, [] {
            printf("%016llx", static_cast<unsigned long long>(KZRandULong(nullptr)));
            return 0;
        });
        EXPECT_TRUE(child.Exited(0)) << child.Describe();
        return child.out;
    };
    const auto hex = [](uint64_t v) {
        char text[17];
        snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(v));
        return std::string(text);
    };

    KZRandInit(nullptr, 0x1234567812340000ull);
    KZRandULong(nullptr);
    const std::string seededChild = childValue();
    EXPECT_EQ(seededChild, hex(KZRandULong(nullptr)));

    KZRandInitRand(nullptr);
    KZRandULong(nullptr);
    const std::string first = childValue(), second = childValue();
    const std::string parent = hex(KZRandULong(nullptr));
    EXPECT_EQ(first.size(), 16u);
    EXPECT_NE(first, parent);
    EXPECT_NE(second, parent);
    EXPECT_NE(first, second);
}

TEST(RandomSeed, EntropySeedsDiffer) {
    KZRand a, b;
    std::memset(&a, 0, sizeof a);
    std::memset(&b, 0, sizeof b);
    KZRandInitRand(&a);
    KZRandInitRand(&b);
    for (const KZRand *s : {&a, &b})
        EXPECT_TRUE(s->a0 == 0x0005 && s->a1 == 0xDEEC && s->a2 == 0xE66D && s->c == 0x000B);
    EXPECT_NE(StateOf(a), StateOf(b));
    EXPECT_NE(Draw(a, 4), Draw(b, 4));
}

TEST(RandomEntropy, CallsBackWithNonEmptyPieces) {
    ASSERT_EQ(setenv("KZ_RANDOM_TEST_MARK", "entropy-piece", 1), 0);
    std::vector<std::string> pieces;
    errno = 1234;
    KZSetLastError(4321);
    KZRandEntropyGet(
        [](void *argument, const void *bytes, size_t length) {
            static_cast<std::vector<std::string> *>(argument)->emplace_back(static_cast<const char *>(bytes), length);
        },
        &pieces);
    EXPECT_EQ(errno, 1234);
    EXPECT_EQ(KZGetLastError(), 4321);
    unsetenv("KZ_RANDOM_TEST_MARK");

    EXPECT_GE(pieces.size(), 15u);
    for (const auto &piece : pieces) EXPECT_FALSE(piece.empty());
    const auto has = [&](const std::string &text) {
        return std::find(pieces.begin(), pieces.end(), text) != pieces.end();
    };
    EXPECT_TRUE(has("KZ_RANDOM_TEST_MARK=entropy-piece"));
    EXPECT_TRUE(has(HostName()));
    EXPECT_TRUE(has(KZProgramName()));

    // A second gathering differs (clock readings, kernel bytes, heap address).
    std::vector<std::string> again;
    KZRandEntropyGet(
        [](void *argument, const void *bytes, size_t length) {
            static_cast<std::vector<std::string> *>(argument)->emplace_back(static_cast<const char *>(bytes), length);
        },
        &again);
    EXPECT_NE(pieces, again);
}

// P(X = 1) / P(X = 2) of the sampler as written: the proposal
// X = floor(U^(-1/s - 1)) gives P(k) = k^(1/e) - (k+1)^(1/e) with e = -1/s - 1,
// and a draw of k is kept with probability min(1, (T/b)(b - 1) / (k (T - 1))).
double OneToTwoRatio(double s) {
    const double e = -1.0 / s - 1.0, b = std::pow(2.0, s - 1.0);
    const auto proposal = [&](double k) { return std::pow(k, 1.0 / e) - std::pow(k + 1.0, 1.0 / e); };
    const auto keep = [&](double k) {
        const double t = std::pow(1.0 + 1.0 / k, s - 1.0);
        return std::min(1.0, (t / b) * (b - 1.0) / (k * (t - 1.0)));
    };
    return proposal(1) * keep(1) / (proposal(2) * keep(2));
}

TEST(RandomZipf, OneIsTheMostFrequentValue) {
    for (double s : {1.1, 1.5, 2.0, 3.0, 5.0}) {
        KZRand state = Seeded(0x21F000000000ull + static_cast<uint64_t>(s * 1000) * 0x10000);
        std::map<int64_t, int> counts;
        constexpr int kDraws = 200000;
        for (int i = 0; i < kDraws; ++i) {
            const int64_t x = KZRandZipf(&state, s);
            ASSERT_GE(x, 1) << "s " << s;
            ++counts[x];
        }
        int mostOther = 0;
        for (const auto &[value, count] : counts)
            if (value != 1) mostOther = std::max(mostOther, count);
        EXPECT_GT(counts[1], mostOther) << "s " << s;
        const double ratio = static_cast<double>(counts[1]) / counts[2];
        EXPECT_NEAR(ratio, OneToTwoRatio(s), 0.05 * OneToTwoRatio(s)) << "s " << s;
    }
}

TEST(RandomZipf, SharedGeneratorAndExponentsAtOrBelowOne) {
    for (int i = 0; i < 1000; ++i) ASSERT_GE(KZRandZipf(nullptr, 2.0), 1);
    KZRand state = Seeded(77 << 16);
    int ones = 0;
    for (int i = 0; i < 20000; ++i) {  // 0 < s < 1 still gives values of at least 1
        const int64_t x = KZRandZipf(&state, 0.5);
        ASSERT_GE(x, 1);
        ones += x == 1;
    }
    EXPECT_GT(ones, 0);
    for (int i = 0; i < 1000; ++i) {  // the written exponent below 0
        ASSERT_EQ(KZRandZipf(&state, -0.5), 0);
        ASSERT_EQ(KZRandZipf(&state, -1.0), 1);
    }
}

// Both draws of a round come from the given state: s = -1 accepts every first
// round, so each call takes exactly two steps of that state.
TEST(RandomZipf, BothDrawsComeFromTheGivenState) {
    KZRand state = Seeded(99 << 16);
    Model m{StateOf(state)};
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(KZRandZipf(&state, -1.0), 1);
        m.Next(), m.Next();
        ASSERT_EQ(StateOf(state), m.x);
    }
}

}  // namespace
