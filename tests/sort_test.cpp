// Tests for QSort: results checked against std::sort on many shapes of input,
// element sizes and base alignments, plus the comparator-call properties of the
// algorithm (small arrays, sorted input, duplicates, context pass-through).

#include "kz/sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// ---- comparator with bookkeeping -----------------------------------------

// The comparator orders elements by their first keyLen bytes (memcmp order);
// any further bytes are payload that the sort must carry along untouched.
struct CompareState {
    size_t elementSize = 0;
    size_t keyLen = 0;
    const unsigned char *base = nullptr;  // array under sort, for pointer checks
    size_t count = 0;
    uint64_t calls = 0;
    uint64_t badPointers = 0;  // arguments outside the array or off an element boundary
    bool descending = false;
    bool log = false;
    std::vector<std::pair<size_t, size_t>> pairs;  // element indexes, when log is set
};

bool ElementIndex(const CompareState &s, const void *p, size_t *index) {
    const unsigned char *q = static_cast<const unsigned char *>(p);
    if (q < s.base || q >= s.base + s.count * s.elementSize) return false;
    const size_t offset = static_cast<size_t>(q - s.base);
    if (offset % s.elementSize != 0) return false;
    *index = offset / s.elementSize;
    return true;
}

int32_t KeyCompare(const void *a, const void *b, void *context) {
    CompareState *s = static_cast<CompareState *>(context);
    ++s->calls;
    size_t ia = 0;
    size_t ib = 0;
    if (!ElementIndex(*s, a, &ia) || !ElementIndex(*s, b, &ib)) {
        ++s->badPointers;
    } else if (s->log) {
        s->pairs.emplace_back(ia, ib);
    }
    const int c = std::memcmp(a, b, s->keyLen);
    const int32_t r = c < 0 ? -1 : (c > 0 ? 1 : 0);
    return s->descending ? -r : r;
}

// ---- test arrays -----------------------------------------------------------

// count elements of elementSize bytes placed `offset` bytes past an 8-byte
// aligned address, with guard bytes on both sides that must survive the sort.
class TestArray {
public:
    static constexpr size_t kGuard = 16;
    static constexpr unsigned char kGuardByte = 0xA5;

    TestArray(size_t count, size_t elementSize, size_t offset)
        : count_(count), elementSize_(elementSize), offset_(offset),
          storage_((kGuard + offset + count * elementSize + kGuard) / 8 + 1) {
        unsigned char *raw = reinterpret_cast<unsigned char *>(storage_.data());
        std::memset(raw, kGuardByte, storage_.size() * 8);
        base_ = raw + kGuard + offset;
    }

    unsigned char *base() { return base_; }
    unsigned char *at(size_t i) { return base_ + i * elementSize_; }
    size_t bytes() const { return count_ * elementSize_; }

    bool GuardsIntact() const {
        const unsigned char *raw = reinterpret_cast<const unsigned char *>(storage_.data());
        const unsigned char *end = raw + storage_.size() * 8;
        for (const unsigned char *p = raw; p < base_; ++p)
            if (*p != kGuardByte) return false;
        for (const unsigned char *p = base_ + bytes(); p < end; ++p)
            if (*p != kGuardByte) return false;
        return true;
    }

private:
    size_t count_;
    size_t elementSize_;
    size_t offset_;
    std::vector<uint64_t> storage_;
    unsigned char *base_ = nullptr;
};

enum class Pattern { kRandom, kSorted, kReverse, kOrganPipe, kFewDistinct };

const char *PatternName(Pattern p) {
    switch (p) {
        case Pattern::kRandom: return "random";
        case Pattern::kSorted: return "sorted";
        case Pattern::kReverse: return "reverse";
        case Pattern::kOrganPipe: return "organ-pipe";
        case Pattern::kFewDistinct: return "few-distinct";
    }
    return "?";
}

constexpr Pattern kPatterns[] = {Pattern::kRandom, Pattern::kSorted, Pattern::kReverse,
                                 Pattern::kOrganPipe, Pattern::kFewDistinct};

size_t KeyLength(size_t elementSize) { return std::min<size_t>(elementSize, 4); }

// Key values are spread so that the sorted and reverse patterns stay ordered
// even in the 1- and 3-byte keys (which keep only the low bytes).
uint32_t KeyValue(Pattern p, size_t i, size_t n, size_t keyLen, std::mt19937 &rng) {
    const uint64_t range = keyLen >= 4 ? (uint64_t{1} << 32) : (uint64_t{1} << (8 * keyLen));
    auto scaled = [&](size_t k) -> uint32_t {
        // Monotone map of 0..n onto the key range.
        return static_cast<uint32_t>((static_cast<uint64_t>(k) * (range - 1)) / std::max<size_t>(n, 1));
    };
    switch (p) {
        case Pattern::kRandom: return static_cast<uint32_t>(rng() % range);
        case Pattern::kSorted: return scaled(i);
        case Pattern::kReverse: return scaled(n - 1 - i);
        case Pattern::kOrganPipe: return scaled(2 * std::min(i, n - 1 - i));
        case Pattern::kFewDistinct: return static_cast<uint32_t>(rng() % 5) * 7;
    }
    return 0;
}

// Fills the array: big-endian key in the first KeyLength bytes (so memcmp
// order is numeric order). Elements of 8 bytes or more then carry their
// original index in the next 4 bytes and bytes derived from it after that, so
// every element is distinct and traceable to where it came from.
void Fill(TestArray &array, Pattern p, size_t n, size_t elementSize, std::mt19937 &rng) {
    const size_t keyLen = KeyLength(elementSize);
    for (size_t i = 0; i < n; ++i) {
        unsigned char *e = array.at(i);
        const uint32_t v = KeyValue(p, i, n, keyLen, rng);
        for (size_t j = 0; j < keyLen; ++j) e[j] = static_cast<unsigned char>(v >> (8 * (keyLen - 1 - j)));
        if (elementSize < 8) continue;
        const uint32_t index = static_cast<uint32_t>(i);
        std::memcpy(e + 4, &index, 4);
        const uint32_t tag = index * 2654435761u;
        for (size_t j = 8; j < elementSize; ++j) e[j] = static_cast<unsigned char>((tag >> (8 * (j % 4))) + j);
    }
}

uint32_t KeyOf(const unsigned char *e, size_t keyLen) {
    uint32_t v = 0;
    for (size_t j = 0; j < keyLen; ++j) v = v << 8 | e[j];
    return v;
}

std::vector<std::string> Records(const unsigned char *base, size_t n, size_t elementSize) {
    std::vector<std::string> out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i)
        out.emplace_back(reinterpret_cast<const char *>(base + i * elementSize), elementSize);
    return out;
}

// Sorts the array with QSort and checks it against std::sort of the same keys:
// the key sequence must match the reference exactly (so it is sorted and holds
// the same keys). Elements under 8 bytes are nothing but their key, so that
// already proves the output a permutation of the input; larger ones must each
// be the unchanged copy of a distinct input element (found by the index they
// carry), which proves the payload travelled with its key.
void CheckSort(Pattern p, size_t n, size_t elementSize, size_t offset, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << PatternName(p) << " n=" << n << " size=" << elementSize
                                    << " offset=" << offset << " seed=" << seed);
    std::mt19937 rng(seed);
    TestArray array(n, elementSize, offset);
    Fill(array, p, n, elementSize, rng);
    const size_t keyLen = KeyLength(elementSize);

    const std::vector<unsigned char> input(array.base(), array.base() + array.bytes());
    std::vector<uint32_t> reference(n);
    for (size_t i = 0; i < n; ++i) reference[i] = KeyOf(&input[i * elementSize], keyLen);
    std::sort(reference.begin(), reference.end());

    CompareState state;
    state.elementSize = elementSize;
    state.keyLen = keyLen;
    state.base = array.base();
    state.count = n;
    QSort(array.base(), n, elementSize, KeyCompare, &state);

    ASSERT_TRUE(array.GuardsIntact()) << "bytes outside the array were written";
    ASSERT_EQ(state.badPointers, 0u) << "comparator got a pointer that is not an array element";
    if (n < 2) {
        EXPECT_EQ(state.calls, 0u);
    }

    for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(KeyOf(array.at(i), keyLen), reference[i]) << "key differs from std::sort at " << i;

    if (elementSize >= 8) {
        std::vector<bool> seen(n, false);
        for (size_t i = 0; i < n; ++i) {
            uint32_t from;
            std::memcpy(&from, array.at(i) + 4, 4);
            ASSERT_LT(from, n) << "element " << i << " is not from the input";
            ASSERT_FALSE(seen[from]) << "input element " << from << " appears twice";
            seen[from] = true;
            ASSERT_EQ(0, std::memcmp(array.at(i), &input[from * elementSize], elementSize))
                << "element " << i << " differs from input element " << from;
        }
    }
}

constexpr size_t kElementSizes[] = {1, 3, 4, 8, 12, 24};
constexpr size_t kOffsets[] = {0, 1, 4};  // aligned, unaligned, 4- but not 8-aligned

// ---- results against std::sort ---------------------------------------------

TEST(QSort, SmallSizesExhaustively) {
    uint32_t seed = 1;
    for (size_t n = 0; n <= 50; ++n)
        for (size_t es : kElementSizes)
            for (size_t offset : kOffsets)
                for (Pattern p : kPatterns) {
                    CheckSort(p, n, es, offset, seed++);
                    if (HasFatalFailure()) return;
                }
}

TEST(QSort, MediumSizes) {
    const size_t sizes[] = {63, 100, 255, 256, 500, 1000, 1023, 4096, 10007};
    uint32_t seed = 1000;
    for (size_t n : sizes)
        for (size_t es : kElementSizes)
            for (size_t offset : kOffsets)
                for (Pattern p : kPatterns) {
                    CheckSort(p, n, es, offset, seed++);
                    if (HasFatalFailure()) return;
                }
}

TEST(QSort, OneMillionRandom) {
    CheckSort(Pattern::kRandom, 1000000, 4, 0, 77);
}

TEST(QSort, LargeRecordsUnaligned) {
    CheckSort(Pattern::kRandom, 100000, 24, 1, 78);
    if (HasFatalFailure()) return;
    CheckSort(Pattern::kFewDistinct, 100000, 12, 4, 79);
}

// Three-byte elements are exchanged byte by byte wherever they sit.
TEST(QSort, ThreeByteElementsAtEveryAddress) {
    for (size_t offset = 0; offset < 8; ++offset) {
        CheckSort(Pattern::kRandom, 777, 3, offset, 300 + static_cast<uint32_t>(offset));
        if (HasFatalFailure()) return;
    }
}

// Every sequence of length 7 and 8 over three values: covers the partition's
// corner cases (keys equal to the pivot at either end, empty sides).
TEST(QSort, AllShortSequencesOverThreeValues) {
    for (size_t n = 7; n <= 8; ++n) {
        size_t total = 1;
        for (size_t i = 0; i < n; ++i) total *= 3;
        for (size_t code = 0; code < total; ++code) {
            std::vector<int32_t> v(n);
            size_t c = code;
            for (size_t i = 0; i < n; ++i, c /= 3) v[i] = static_cast<int32_t>(c % 3);
            std::vector<int32_t> expected = v;
            std::sort(expected.begin(), expected.end());
            QSort(v.data(), n, sizeof(int32_t),
                  [](const void *a, const void *b, void *) -> int32_t {
                      const int32_t x = *static_cast<const int32_t *>(a);
                      const int32_t y = *static_cast<const int32_t *>(b);
                      return (x > y) - (x < y);
                  },
                  nullptr);
            ASSERT_EQ(v, expected) << "n=" << n << " code=" << code;
        }
    }
}

// ---- comparator-call properties ---------------------------------------------

std::vector<uint32_t> Words(std::initializer_list<uint32_t> values) { return values; }

CompareState StateFor(std::vector<uint32_t> &v) {
    CompareState s;
    s.elementSize = sizeof(uint32_t);
    s.keyLen = sizeof(uint32_t);
    s.base = reinterpret_cast<const unsigned char *>(v.data());
    s.count = v.size();
    return s;
}

// Big-endian words so that the comparator's memcmp is numeric order.
std::vector<uint32_t> BigEndianWords(const std::vector<uint32_t> &values) {
    std::vector<uint32_t> out(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        unsigned char b[4] = {static_cast<unsigned char>(values[i] >> 24), static_cast<unsigned char>(values[i] >> 16),
                              static_cast<unsigned char>(values[i] >> 8), static_cast<unsigned char>(values[i])};
        std::memcpy(&out[i], b, 4);
    }
    return out;
}

bool SortedBigEndian(const std::vector<uint32_t> &v) {
    for (size_t i = 1; i < v.size(); ++i)
        if (std::memcmp(&v[i - 1], &v[i], 4) > 0) return false;
    return true;
}

TEST(QSort, ZeroOrOneElementNeverCompares) {
    CompareState s;
    s.keyLen = 4;
    s.elementSize = 4;
    QSort(nullptr, 0, 4, KeyCompare, &s);
    EXPECT_EQ(s.calls, 0u);

    std::vector<uint32_t> one = Words({0xDEADBEEF});
    s = StateFor(one);
    QSort(one.data(), 1, 4, KeyCompare, &s);
    EXPECT_EQ(s.calls, 0u);
    EXPECT_EQ(one[0], 0xDEADBEEFu);

    // A zero count leaves a real array alone too.
    std::vector<uint32_t> two = BigEndianWords({9, 1});
    const std::vector<uint32_t> before = two;
    s = StateFor(two);
    QSort(two.data(), 0, 4, KeyCompare, &s);
    EXPECT_EQ(s.calls, 0u);
    EXPECT_EQ(two, before);
}

// Six elements: insertion sort alone, so every comparison is between
// neighbours, the left one first, and no permutation needs more than 15.
TEST(QSort, SixElementsUseInsertionSortOnly) {
    std::vector<uint32_t> perm = {1, 2, 3, 4, 5, 6};
    size_t permutations = 0;
    do {
        std::vector<uint32_t> v = BigEndianWords(perm);
        CompareState s = StateFor(v);
        s.log = true;
        QSort(v.data(), v.size(), 4, KeyCompare, &s);
        ASSERT_TRUE(SortedBigEndian(v));
        ASSERT_LE(s.calls, 15u);
        ASSERT_EQ(s.badPointers, 0u);
        for (const auto &[i, j] : s.pairs) ASSERT_EQ(i + 1, j) << "non-neighbour comparison " << i << "," << j;
        // Insertion sort does exactly (number of inversions) exchanges and at
        // most one failing comparison per element after the first.
        size_t inversions = 0;
        for (size_t i = 0; i < perm.size(); ++i)
            for (size_t j = i + 1; j < perm.size(); ++j) inversions += perm[i] > perm[j];
        ASSERT_GE(s.calls, inversions);
        ASSERT_LE(s.calls, inversions + 5);
        ++permutations;
    } while (std::next_permutation(perm.begin(), perm.end()));
    EXPECT_EQ(permutations, 720u);

    // The reverse order is the worst case: all 15 pairs.
    std::vector<uint32_t> v = BigEndianWords({6, 5, 4, 3, 2, 1});
    CompareState s = StateFor(v);
    QSort(v.data(), v.size(), 4, KeyCompare, &s);
    EXPECT_TRUE(SortedBigEndian(v));
    EXPECT_EQ(s.calls, 15u);
}

// From 7 elements on, the first call partitions instead: the pivot sits at
// index 0 and is compared against the others (second argument index 0).
TEST(QSort, SevenElementsArePartitioned) {
    std::vector<uint32_t> v = BigEndianWords({7, 3, 6, 1, 5, 2, 4});
    CompareState s = StateFor(v);
    s.log = true;
    QSort(v.data(), v.size(), 4, KeyCompare, &s);
    EXPECT_TRUE(SortedBigEndian(v));
    ASSERT_FALSE(s.pairs.empty());
    // 7 elements: no median selection, the middle element becomes the pivot
    // and the very first comparison is element 1 against it.
    EXPECT_EQ(s.pairs[0], std::make_pair(size_t{1}, size_t{0}));
}

uint32_t Median3Of(const std::vector<uint32_t> &k, size_t a, size_t b, size_t c) {
    uint32_t x[3] = {k[a], k[b], k[c]};
    std::sort(x, x + 3);
    return x[1];
}

// The pivot (the element at index 0 when the first partition starts) is the
// middle element for 7, the median of first/middle/last up to 40 and the
// median of three medians spaced n/8 apart beyond 40. Keys are distinct, so
// each median is unambiguous.
TEST(QSort, PivotSelection) {
    std::mt19937 rng(21);
    const size_t sizes[] = {7, 8, 9, 20, 39, 40, 41, 42, 63, 64, 100, 1000, 12345};
    for (size_t n : sizes) {
        for (int round = 0; round < 20; ++round) {
            std::vector<uint32_t> keys(n);
            std::iota(keys.begin(), keys.end(), 0u);
            std::shuffle(keys.begin(), keys.end(), rng);
            size_t m = n / 2;
            uint32_t expected = keys[m];
            size_t expectedCalls = 0;  // comparisons made to choose the pivot (upper bound)
            if (n > 40) {
                const size_t d = n / 8;
                const uint32_t lo = Median3Of(keys, 0, d, 2 * d);
                const uint32_t mid = Median3Of(keys, m - d, m, m + d);
                const uint32_t hi = Median3Of(keys, n - 1 - 2 * d, n - 1 - d, n - 1);
                uint32_t x[3] = {lo, mid, hi};
                std::sort(x, x + 3);
                expected = x[1];
                expectedCalls = 12;
            } else if (n > 7) {
                expected = Median3Of(keys, 0, m, n - 1);
                expectedCalls = 3;
            }

            std::vector<uint32_t> v = BigEndianWords(keys);
            struct Watch {
                CompareState state;
                bool seen = false;
                uint32_t pivot = 0;
                uint64_t callsBefore = 0;
            } w;
            w.state = StateFor(v);
            auto compare = [](const void *a, const void *b, void *context) -> int32_t {
                Watch *w = static_cast<Watch *>(context);
                if (!w->seen && b == w->state.base) {
                    unsigned char k[4];
                    std::memcpy(k, b, 4);
                    w->pivot = uint32_t{k[0]} << 24 | uint32_t{k[1]} << 16 | uint32_t{k[2]} << 8 | k[3];
                    w->callsBefore = w->state.calls;
                    w->seen = true;
                }
                return KeyCompare(a, b, &w->state);
            };
            QSort(v.data(), n, 4, compare, &w);
            ASSERT_TRUE(SortedBigEndian(v));
            ASSERT_TRUE(w.seen) << "n=" << n;
            ASSERT_EQ(w.pivot, expected) << "n=" << n << " round=" << round;
            ASSERT_LE(w.callsBefore, expectedCalls) << "n=" << n;
            ASSERT_GE(w.callsBefore, expectedCalls * 2 / 3) << "n=" << n;
        }
    }
}

// Sorted input: one partitioning pass finds nothing to move and insertion sort
// finishes the range. That pass compares each element with the pivot once;
// the insertion sort then moves the pivot (swapped to the front) and the first
// element (swapped to the middle) back, about 2n comparisons. So about 3n in
// all, against roughly n log2 n had the sort kept partitioning.
TEST(QSort, SortedInputTakesTheNoSwapShortcut) {
    const size_t n = 100000;
    std::vector<uint32_t> values(n);
    std::iota(values.begin(), values.end(), 0u);
    std::vector<uint32_t> v = BigEndianWords(values);
    CompareState s = StateFor(v);
    s.log = true;
    QSort(v.data(), n, 4, KeyCompare, &s);

    ASSERT_TRUE(SortedBigEndian(v));
    ASSERT_EQ(s.badPointers, 0u);
    EXPECT_LT(s.calls, 3 * n + 32);

    // Shape of the calls: the pivot choice (at most 12 comparisons), one pass
    // comparing elements against the pivot held at index 0, then nothing but
    // neighbour comparisons (insertion sort) — no second partition.
    size_t k = 0;
    while (k < s.pairs.size() && k < 12 && s.pairs[k].second != 0) ++k;
    const size_t partitionStart = k;
    while (k < s.pairs.size() && s.pairs[k].second == 0) ++k;
    const size_t partitionCalls = k - partitionStart;
    EXPECT_GE(partitionCalls, n - 1);
    EXPECT_LE(partitionCalls, n + 1);
    for (; k < s.pairs.size(); ++k)
        ASSERT_EQ(s.pairs[k].first + 1, s.pairs[k].second) << "call " << k << " is not an insertion-sort step";
}

// All keys equal: everything collects at the ends during one pass, nothing
// is left on either side, and the sort stops after about n comparisons.
TEST(QSort, AllEqualKeysTakeOnePass) {
    const size_t n = 100000;
    TestArray array(n, 8, 0);
    for (size_t i = 0; i < n; ++i) {
        unsigned char *e = array.at(i);
        std::memset(e, 0x42, 4);
        const uint32_t tag = static_cast<uint32_t>(i);
        std::memcpy(e + 4, &tag, 4);
    }
    std::vector<std::string> before = Records(array.base(), n, 8);
    CompareState s;
    s.elementSize = 8;
    s.keyLen = 4;
    s.base = array.base();
    s.count = n;
    QSort(array.base(), n, 8, KeyCompare, &s);
    EXPECT_LT(s.calls, n + 16);
    EXPECT_EQ(s.badPointers, 0u);
    std::vector<std::string> after = Records(array.base(), n, 8);
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    EXPECT_TRUE(before == after);
    EXPECT_TRUE(array.GuardsIntact());
}

// Random input of mostly distinct keys stays near n log2 n comparisons.
TEST(QSort, RandomInputComparisonCountIsNLogN) {
    const size_t n = 200000;
    std::mt19937 rng(5);
    std::vector<uint32_t> values(n);
    for (auto &x : values) x = rng();
    std::vector<uint32_t> v = BigEndianWords(values);
    CompareState s = StateFor(v);
    QSort(v.data(), n, 4, KeyCompare, &s);
    ASSERT_TRUE(SortedBigEndian(v));
    const double nlogn = n * std::log2(static_cast<double>(n));
    EXPECT_GT(static_cast<double>(s.calls), 0.8 * nlogn);
    EXPECT_LT(static_cast<double>(s.calls), 1.5 * nlogn);
}

// The context pointer reaches every comparator call unchanged, and what it
// points to steers the order.
TEST(QSort, ContextIsPassedThrough) {
    struct Probe {
        void *expected;
        uint64_t calls;
        uint64_t mismatches;
        bool descending;
    };
    auto compare = [](const void *a, const void *b, void *context) -> int32_t {
        Probe *p = static_cast<Probe *>(context);
        ++p->calls;
        if (context != p->expected) ++p->mismatches;
        const int32_t x = *static_cast<const int32_t *>(a);
        const int32_t y = *static_cast<const int32_t *>(b);
        const int32_t r = (x > y) - (x < y);
        return p->descending ? -r : r;
    };

    std::mt19937 rng(9);
    std::vector<int32_t> v(1000);
    for (auto &x : v) x = static_cast<int32_t>(rng() % 2000) - 1000;
    std::vector<int32_t> ascending = v;
    std::sort(ascending.begin(), ascending.end());

    Probe up{nullptr, 0, 0, false};
    up.expected = &up;
    std::vector<int32_t> a = v;
    QSort(a.data(), a.size(), sizeof(int32_t), compare, &up);
    EXPECT_GT(up.calls, 0u);
    EXPECT_EQ(up.mismatches, 0u);
    EXPECT_EQ(a, ascending);

    Probe down{nullptr, 0, 0, true};
    down.expected = &down;
    std::vector<int32_t> d = v;
    QSort(d.data(), d.size(), sizeof(int32_t), compare, &down);
    EXPECT_GT(down.calls, 0u);
    EXPECT_EQ(down.mismatches, 0u);
    EXPECT_TRUE(std::equal(d.begin(), d.end(), ascending.rbegin()));
}

// No hidden shared state: threads sorting their own copies at the same time
// make exactly the comparisons a lone sort of the same input makes.
TEST(QSort, ConcurrentSortsAreIndependent) {
    const size_t n = 50000;
    std::mt19937 rng(11);
    std::vector<uint32_t> values(n);
    for (auto &x : values) x = rng() % 1000;
    const std::vector<uint32_t> input = BigEndianWords(values);

    std::vector<uint32_t> lone = input;
    CompareState loneState = StateFor(lone);
    QSort(lone.data(), n, 4, KeyCompare, &loneState);
    ASSERT_TRUE(SortedBigEndian(lone));

    constexpr int kThreads = 4;
    std::vector<std::vector<uint32_t>> copies(kThreads, input);
    std::vector<CompareState> states;
    for (int t = 0; t < kThreads; ++t) states.push_back(StateFor(copies[t]));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                std::vector<uint32_t> &c = copies[t];
                c = input;
                states[t].calls = 0;
                QSort(c.data(), n, 4, KeyCompare, &states[t]);
            }
        });
    for (auto &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(copies[t], lone) << "thread " << t;
        EXPECT_EQ(states[t].calls, loneState.calls) << "thread " << t;
        EXPECT_EQ(states[t].badPointers, 0u) << "thread " << t;
    }
}

}  // namespace
