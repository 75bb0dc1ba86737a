// Tests for QSort: results against std::sort on many input shapes, element
// sizes and base alignments, then the comparator-call properties of the
// algorithm (small arrays, pivot choice, sorted input, context pass-through).

#include "kz/sort.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Orders elements by their first keyLen bytes (memcmp order); further bytes
// are payload the sort must carry along untouched.
struct CompareState {
    size_t elementSize = 4, keyLen = 4;
    const unsigned char *base = nullptr;  // array under sort, for pointer checks
    size_t count = 0;
    uint64_t calls = 0, badPointers = 0;  // bad: outside the array or off an element boundary
    bool descending = false, log = false;
    std::vector<std::pair<size_t, size_t>> pairs;  // element indexes, when log is set
    int64_t pivotAt = -1;  // first call with the element at index 0 second: its number
    uint32_t pivot = 0;    // and that element's key
};

uint32_t KeyOf(const void *element, size_t keyLen) {
    uint32_t v = 0;
    for (size_t j = 0; j < keyLen; ++j) v = v << 8 | static_cast<const unsigned char *>(element)[j];
    return v;
}

CompareState StateFor(const void *base, size_t count, size_t elementSize, size_t keyLen) {
    CompareState s;
    s.elementSize = elementSize, s.keyLen = keyLen, s.count = count;
    s.base = static_cast<const unsigned char *>(base);
    return s;
}

bool ElementIndex(const CompareState &s, const void *p, size_t *index) {
    const unsigned char *q = static_cast<const unsigned char *>(p);
    if (q < s.base || q >= s.base + s.count * s.elementSize) return false;
    const size_t offset = static_cast<size_t>(q - s.base);
    *index = offset / s.elementSize;
    return offset % s.elementSize == 0;
}

int32_t KeyCompare(const void *a, const void *b, void *context) {
    CompareState *s = static_cast<CompareState *>(context);
    if (s->pivotAt < 0 && b == s->base) {
        s->pivotAt = static_cast<int64_t>(s->calls);
        s->pivot = KeyOf(b, s->keyLen);
    }
    ++s->calls;
    size_t ia = 0, ib = 0;
    if (!ElementIndex(*s, a, &ia) || !ElementIndex(*s, b, &ib))
        ++s->badPointers;
    else if (s->log)
        s->pairs.emplace_back(ia, ib);
    const int c = std::memcmp(a, b, s->keyLen);
    const int32_t r = c < 0 ? -1 : (c > 0 ? 1 : 0);
    return s->descending ? -r : r;
}

// count elements placed `offset` bytes past an 8-byte aligned address, with
// guard bytes on both sides that must survive the sort.
struct TestArray {
    static constexpr unsigned char kGuard = 0xA5;
    std::vector<uint64_t> storage;
    unsigned char *raw, *base;
    size_t elementSize, bytes;

    TestArray(size_t count, size_t es, size_t offset)
        : storage((32 + offset + count * es) / 8 + 1), raw(reinterpret_cast<unsigned char *>(storage.data())),
          base(raw + 16 + offset), elementSize(es), bytes(count * es) {
        std::memset(raw, kGuard, storage.size() * 8);
    }
    unsigned char *at(size_t i) { return base + i * elementSize; }
    bool GuardsIntact() const {
        for (const unsigned char *p = raw; p < raw + storage.size() * 8; ++p)
            if ((p < base || p >= base + bytes) && *p != kGuard) return false;
        return true;
    }
};

enum Pattern { kRandom, kSorted, kReverse, kOrganPipe, kFewDistinct, kPatternCount };
constexpr const char *kPatternNames[] = {"random", "sorted", "reverse", "organ-pipe", "few-distinct"};

// Big-endian key first (memcmp order is numeric order), spread over the key
// range so sorted and reverse stay ordered for 1- and 3-byte keys too.
// Elements of 8 bytes or more then carry their original index and bytes
// derived from it, so each is distinct and traceable to where it came from.
void Fill(TestArray &array, int p, size_t n, size_t keyLen, std::mt19937 &rng) {
    const uint64_t range = uint64_t{1} << (8 * keyLen);
    auto scaled = [&](size_t k) { return static_cast<uint32_t>(k * (range - 1) / std::max<size_t>(n, 1)); };
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = p == kRandom      ? static_cast<uint32_t>(rng() % range)
                           : p == kSorted    ? scaled(i)
                           : p == kReverse   ? scaled(n - 1 - i)
                           : p == kOrganPipe ? scaled(2 * std::min(i, n - 1 - i))
                                                      : static_cast<uint32_t>(rng() % 5) * 7;
        unsigned char *e = array.at(i);
        for (size_t j = 0; j < keyLen; ++j) e[j] = static_cast<unsigned char>(v >> (8 * (keyLen - 1 - j)));
        if (array.elementSize < 8) continue;
        const uint32_t index = static_cast<uint32_t>(i), tag = index * 2654435761u;
        std::memcpy(e + 4, &index, 4);
        for (size_t j = 8; j < array.elementSize; ++j) e[j] = static_cast<unsigned char>((tag >> (8 * (j % 4))) + j);
    }
}

// QSort against std::sort of the same keys: the key sequences must match.
// Elements under 8 bytes are only their key, so that proves a permutation;
// larger ones must each be an unchanged copy of a distinct input element.
void CheckSort(int p, size_t n, size_t elementSize, size_t offset, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << kPatternNames[p] << " n=" << n << " size=" << elementSize
                                    << " offset=" << offset << " seed=" << seed);
    std::mt19937 rng(seed);
    TestArray array(n, elementSize, offset);
    const size_t keyLen = std::min<size_t>(elementSize, 4);
    Fill(array, p, n, keyLen, rng);
    const std::vector<unsigned char> input(array.base, array.base + array.bytes);
    std::vector<uint32_t> reference(n);
    for (size_t i = 0; i < n; ++i) reference[i] = KeyOf(&input[i * elementSize], keyLen);
    std::sort(reference.begin(), reference.end());

    CompareState state = StateFor(array.base, n, elementSize, keyLen);
    QSort(array.base, n, elementSize, KeyCompare, &state);

    ASSERT_TRUE(array.GuardsIntact()) << "bytes outside the array were written";
    ASSERT_EQ(state.badPointers, 0u) << "comparator got a pointer that is not an array element";
    if (n < 2) {
        ASSERT_EQ(state.calls, 0u);
    }
    for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(KeyOf(array.at(i), keyLen), reference[i]) << "key differs from std::sort at " << i;
    if (elementSize < 8) return;
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

TEST(QSort, MatchesStdSortForEveryShapeSizeAndAlignment) {
    std::vector<size_t> sizes(51);
    std::iota(sizes.begin(), sizes.end(), size_t{0});
    sizes.insert(sizes.end(), {63, 100, 255, 256, 500, 1000, 1023, 4096, 10007});
    uint32_t seed = 1;
    for (size_t n : sizes)
        for (size_t es : {1, 3, 4, 8, 12, 24})
            for (size_t offset : {0, 1, 4})  // 8-aligned, unaligned, 4- but not 8-aligned
                for (int p = 0; p < kPatternCount; ++p) {
                    CheckSort(p, n, es, offset, seed++);
                    if (HasFatalFailure()) return;
                }
}

TEST(QSort, OneMillionRandom) { CheckSort(kRandom, 1000000, 4, 0, 77); }

// Every sequence of 7 and 8 one-byte keys over three values: the partition's
// corner cases (keys equal to the pivot at either end, empty sides).
TEST(QSort, AllShortSequencesOverThreeValues) {
    for (size_t n = 7; n <= 8; ++n)
        for (size_t code = 0; code < (n == 7 ? 2187u : 6561u); ++code) {
            std::vector<unsigned char> v(n);
            for (size_t i = 0, c = code; i < n; ++i, c /= 3) v[i] = static_cast<unsigned char>(c % 3);
            std::vector<unsigned char> expected = v;
            std::sort(expected.begin(), expected.end());
            CompareState s = StateFor(v.data(), n, 1, 1);
            QSort(v.data(), n, 1, KeyCompare, &s);
            ASSERT_EQ(v, expected) << "n=" << n << " code=" << code;
        }
}

// Big-endian words, so the comparator's memcmp is numeric order.
std::vector<uint32_t> BigEndianWords(std::vector<uint32_t> v) {
    for (auto &x : v) x = htonl(x);
    return v;
}

bool SortedBigEndian(const std::vector<uint32_t> &v, bool descending = false) {
    return std::is_sorted(v.begin(), v.end(), [descending](uint32_t a, uint32_t b) {
        return descending ? ntohl(a) > ntohl(b) : ntohl(a) < ntohl(b);
    });
}

CompareState StateFor(const std::vector<uint32_t> &v) { return StateFor(v.data(), v.size(), 4, 4); }

TEST(QSort, ZeroOrOneElementOrZeroSizeNeverCompares) {
    CompareState s;
    QSort(nullptr, 0, 4, KeyCompare, &s);
    QSort(nullptr, 1, 4, KeyCompare, &s);
    std::vector<uint32_t> two = {9, 1};
    QSort(two.data(), 2, 0, KeyCompare, &s);
    EXPECT_EQ(s.calls, 0u);
    EXPECT_EQ(two, (std::vector<uint32_t>{9, 1}));
}

// Six elements: insertion sort alone, so every comparison is between
// neighbours, left one first; calls lie between the number of inversions and
// that plus 5 (one failing comparison per element after the first).
TEST(QSort, SixElementsUseInsertionSortOnly) {
    std::vector<uint32_t> perm = {1, 2, 3, 4, 5, 6};
    do {
        std::vector<uint32_t> v = BigEndianWords(perm);
        CompareState s = StateFor(v);
        s.log = true;
        QSort(v.data(), v.size(), 4, KeyCompare, &s);
        ASSERT_TRUE(SortedBigEndian(v));
        ASSERT_EQ(s.badPointers, 0u);
        for (const auto &[i, j] : s.pairs) ASSERT_EQ(i + 1, j) << "non-neighbour comparison " << i << "," << j;
        size_t inversions = 0;
        for (size_t i = 0; i < perm.size(); ++i)
            for (size_t j = i + 1; j < perm.size(); ++j) inversions += perm[i] > perm[j];
        ASSERT_GE(s.calls, inversions);
        ASSERT_LE(s.calls, std::min<size_t>(inversions + 5, 15));
    } while (std::next_permutation(perm.begin(), perm.end()));
}

uint32_t Median3Of(uint32_t a, uint32_t b, uint32_t c) { return std::max(std::min(a, b), std::min(std::max(a, b), c)); }

// The pivot (moved to index 0, then the second argument of the partition's
// comparisons) is the middle element for 7, the median of first/middle/last
// up to 40 and the ninther (three medians spaced n/8 apart) beyond 40. With 7
// elements insertion sort would never compare against index 0 as second
// argument, so this also shows that 7 elements are partitioned.
TEST(QSort, PivotSelection) {
    std::mt19937 rng(21);
    for (size_t n : {7, 8, 9, 20, 39, 40, 41, 42, 63, 64, 100, 1000, 12345})
        for (int round = 0; round < 20; ++round) {
            std::vector<uint32_t> k(n);
            std::iota(k.begin(), k.end(), 0u);
            std::shuffle(k.begin(), k.end(), rng);
            const size_t m = n / 2, d = n / 8;
            uint32_t expected = k[m];
            int64_t choiceCalls = 0;  // comparisons choosing the pivot (upper bound)
            if (n > 40) {
                expected = Median3Of(Median3Of(k[0], k[d], k[2 * d]), Median3Of(k[m - d], k[m], k[m + d]),
                                     Median3Of(k[n - 1 - 2 * d], k[n - 1 - d], k[n - 1]));
                choiceCalls = 12;
            } else if (n > 7) {
                expected = Median3Of(k[0], k[m], k[n - 1]);
                choiceCalls = 3;
            }
            std::vector<uint32_t> v = BigEndianWords(k);
            CompareState s = StateFor(v);
            QSort(v.data(), n, 4, KeyCompare, &s);
            ASSERT_TRUE(SortedBigEndian(v));
            ASSERT_GE(s.pivotAt, 0) << "no partition, n=" << n;
            ASSERT_EQ(s.pivot, expected) << "n=" << n << " round=" << round;
            ASSERT_LE(s.pivotAt, choiceCalls) << "n=" << n;
            ASSERT_GE(s.pivotAt, choiceCalls * 2 / 3) << "n=" << n;
        }
}

// Sorted input: the pivot choice (at most 12 calls), one pass comparing each
// element with the pivot at index 0 that moves nothing, then insertion sort
// only (neighbour comparisons) - no second partition; about 3n in all.
TEST(QSort, SortedInputTakesTheNoSwapShortcut) {
    const size_t n = 100000;
    std::vector<uint32_t> v(n);
    std::iota(v.begin(), v.end(), 0u);
    v = BigEndianWords(v);
    CompareState s = StateFor(v);
    s.log = true;
    QSort(v.data(), n, 4, KeyCompare, &s);
    ASSERT_TRUE(SortedBigEndian(v));
    ASSERT_EQ(s.badPointers, 0u);
    EXPECT_LT(s.calls, 3 * n + 32);
    ASSERT_GE(s.pivotAt, 0);
    ASSERT_LE(s.pivotAt, 12);
    size_t k = static_cast<size_t>(s.pivotAt);
    while (k < s.pairs.size() && s.pairs[k].second == 0) ++k;
    EXPECT_GE(k - s.pivotAt, n - 1);
    EXPECT_LE(k - s.pivotAt, n + 1);
    for (; k < s.pairs.size(); ++k)
        ASSERT_EQ(s.pairs[k].first + 1, s.pairs[k].second) << "call " << k << " is not an insertion-sort step";
}

// All keys equal collect at the ends in one pass (about n calls); random
// distinct keys stay near n log2 n.
TEST(QSort, ComparisonCounts) {
    const size_t n = 200000;
    const double nlogn = n * std::log2(static_cast<double>(n));
    std::mt19937 rng(5);
    std::vector<uint32_t> equal(n, 0x42424242u), random(n);
    for (auto &x : random) x = rng();
    random = BigEndianWords(random);
    CompareState s = StateFor(equal);
    QSort(equal.data(), n, 4, KeyCompare, &s);
    EXPECT_LT(s.calls, n + 16);
    EXPECT_EQ(s.badPointers, 0u);
    s = StateFor(random);
    QSort(random.data(), n, 4, KeyCompare, &s);
    EXPECT_TRUE(SortedBigEndian(random));
    EXPECT_GT(static_cast<double>(s.calls), 0.8 * nlogn);
    EXPECT_LT(static_cast<double>(s.calls), 1.5 * nlogn);
}

// The context reaches every call unchanged, and what it points to steers the
// order.
TEST(QSort, ContextIsPassedThrough) {
    static uint64_t allCalls;  // whatever their context
    std::mt19937 rng(9);
    std::vector<uint32_t> input(1000);
    for (auto &x : input) x = htonl(rng() % 2000);
    for (bool descending : {false, true}) {
        std::vector<uint32_t> v = input;
        CompareState s = StateFor(v);
        s.descending = descending;
        allCalls = 0;
        QSort(v.data(), v.size(), 4,
              [](const void *a, const void *b, void *context) -> int32_t {
                  ++allCalls;
                  return KeyCompare(a, b, context);
              },
              &s);
        EXPECT_GT(allCalls, 0u);
        EXPECT_EQ(s.calls, allCalls);
        EXPECT_TRUE(SortedBigEndian(v, descending)) << descending;
    }
}

// No hidden shared state: threads sorting their own copies at once make
// exactly the comparisons a lone sort of the same input makes.
TEST(QSort, ConcurrentSortsAreIndependent) {
    const size_t n = 50000;
    std::mt19937 rng(11);
    std::vector<uint32_t> input(n);
    for (auto &x : input) x = htonl(rng() % 1000);
    std::vector<std::vector<uint32_t>> copies(5, input);
    std::vector<CompareState> states(5);
    auto sort = [&](size_t t) {
        for (int round = 0; round < 3; ++round) {
            copies[t] = input;
            states[t] = StateFor(copies[t]);
            QSort(copies[t].data(), n, 4, KeyCompare, &states[t]);
        }
    };
    sort(0);  // alone, for reference
    ASSERT_TRUE(SortedBigEndian(copies[0]));
    std::vector<std::thread> threads;
    for (size_t t = 1; t < copies.size(); ++t) threads.emplace_back(sort, t);
    for (auto &th : threads) th.join();
    for (size_t t = 1; t < copies.size(); ++t) {
        EXPECT_EQ(copies[t], copies[0]) << "thread " << t;
        EXPECT_EQ(states[t].calls, states[0].calls) << "thread " << t;
    }
}

}  // namespace
