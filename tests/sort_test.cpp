// QSort: results against std::sort over input shapes, element sizes and
// alignments, then its comparison pattern (small arrays, pivot, sorted input).
#include "kz/sort.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Orders by the first keyLen bytes (memcmp order); logs element index pairs (up
// to 10^5 elements) and the first call with element 0 (the pivot) second.
struct State {
    State(const void *b, size_t n, size_t es = 4, size_t kl = 4) : base(uintptr_t(b)), count(n), size(es), keyLen(kl) {}
    uintptr_t base;
    size_t count, size, keyLen;
    uint64_t calls = 0, bad = 0;  // bad: pointers off the array's elements
    bool descending = false;
    std::vector<std::pair<size_t, size_t>> pairs;
    int64_t pivotAt = -1, pivot = 0;
};

uint32_t KeyOf(const void *element, size_t keyLen) {
    uint32_t v = 0;
    for (size_t j = 0; j < keyLen; ++j) v = v << 8 | static_cast<const unsigned char *>(element)[j];
    return v;
}
int32_t Compare(const void *a, const void *b, void *context) {
    State &s = *static_cast<State *>(context);
    const uintptr_t offsetA = uintptr_t(a) - s.base, offsetB = uintptr_t(b) - s.base;  // huge when below
    for (uintptr_t offset : {offsetA, offsetB}) s.bad += offset >= s.count * s.size || offset % s.size != 0;
    if (s.count <= 100000) s.pairs.emplace_back(offsetA / s.size, offsetB / s.size);
    if (s.pivotAt < 0 && offsetB == 0) s.pivotAt = int64_t(s.calls), s.pivot = KeyOf(b, s.keyLen);
    ++s.calls;
    const int c = std::memcmp(a, b, s.keyLen), r = (c > 0) - (c < 0);
    return s.descending ? -r : r;
}

enum Pattern { kRandom, kSorted, kReverse, kOrganPipe, kFewDistinct };

// n elements `offset` bytes past an 8-aligned address between guard bytes; keys
// big-endian over the key range, from 8 bytes on followed by bytes of the input
// index. The keys must match std::sort's, the elements stay whole.
void CheckSort(int p, size_t n, size_t size, size_t offset, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << "pattern " << p << " n=" << n << " size=" << size << " offset=" << offset);
    std::mt19937 rng(seed);
    const size_t keyLen = std::min<size_t>(size, 4), bytes = n * size;
    const uint64_t range = uint64_t{1} << (8 * keyLen);
    std::vector<uint64_t> storage((bytes + 40) / 8);
    unsigned char *raw = reinterpret_cast<unsigned char *>(storage.data()), *base = raw + 16 + offset;
    std::memset(raw, 0xA5, storage.size() * 8);
    auto scaled = [&](size_t k) { return static_cast<uint32_t>(k * (range - 1) / std::max<size_t>(n, 1)); };
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = p == kRandom ? uint32_t(rng() % range) : p == kSorted ? scaled(i)
                         : p == kReverse ? scaled(n - 1 - i) : p == kOrganPipe ? scaled(2 * std::min(i, n - 1 - i))
                         : uint32_t(rng() % 5 * 7);
        unsigned char *e = base + i * size;
        for (size_t j = 0; j < keyLen; ++j) e[j] = static_cast<unsigned char>(v >> (8 * (keyLen - 1 - j)));
        for (size_t j = 4; j < size; ++j) e[j] = static_cast<unsigned char>(i >> (8 * (j % 4)) ^ j);
    }
    auto elements = [&](const unsigned char *from) {  // std::sort by whole elements, so by key first
        std::vector<std::string> all(n);
        for (size_t i = 0; i < n; ++i) all[i].assign(reinterpret_cast<const char *>(from) + i * size, size);
        return std::sort(all.begin(), all.end()), all;
    };
    const std::vector<std::string> expected = elements(base);
    State s(base, n, size, keyLen);
    QSort(base, n, size, Compare, &s);
    for (unsigned char *q = raw; q < raw + storage.size() * 8; ++q)
        ASSERT_TRUE((q >= base && q < base + bytes) || *q == 0xA5) << "guard byte written at " << q - base;
    ASSERT_EQ(s.bad, 0u) << "comparator got a pointer that is not an element";
    ASSERT_TRUE(n >= 2 || s.calls == 0);
    for (size_t i = 0; i < n; ++i) ASSERT_EQ(KeyOf(base + i * size, keyLen), KeyOf(expected[i].data(), keyLen)) << i;
    ASSERT_TRUE(elements(base) == expected) << "elements changed, lost or duplicated";
}

TEST(QSort, MatchesStdSortForEveryShapeSizeAndAlignmentAndOneMillion) {
    std::vector<size_t> counts = {63, 100, 255, 256, 1000, 1023, 4096, 10007};
    for (size_t n = 0; n <= 50; ++n) counts.push_back(n);
    uint32_t seed = 1;
    for (size_t n : counts)
        for (size_t size : {1, 3, 4, 8, 12, 24})
            for (size_t offset : {0, 1, 4})  // 8-aligned, unaligned, 4- but not 8-aligned
                for (int p = kRandom; p <= kFewDistinct; ++p) {
                    CheckSort(p, n, size, offset, seed++);
                    if (HasFatalFailure()) return;
                }
    CheckSort(kRandom, 1000000, 4, 0, 77);
    uint32_t two[2] = {9, 1};  // nothing to compare with a null base or element size 0 either
    State s(two, 2);
    QSort(nullptr, 0, 4, Compare, &s), QSort(nullptr, 1, 4, Compare, &s), QSort(two, 2, 0, Compare, &s);
    EXPECT_TRUE(s.calls == 0 && two[0] == 9 && two[1] == 1);
}

// Keys 0..n-1 as big-endian words, shuffled if rng is given.
std::vector<uint32_t> Keys(size_t n, std::mt19937 *rng = nullptr) {
    std::vector<uint32_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = htonl(uint32_t(i));  // memcmp order is numeric order
    if (rng) std::shuffle(v.begin(), v.end(), *rng);
    return v;
}
bool Less(uint32_t a, uint32_t b) { return ntohl(a) < ntohl(b); }
bool Sorted(const std::vector<uint32_t> &v, bool descending = false) {
    return descending ? std::is_sorted(v.rbegin(), v.rend(), Less) : std::is_sorted(v.begin(), v.end(), Less);
}

// Six elements: insertion sort alone, comparing neighbours left one first;
// between the number of inversions and that plus 5 calls.
TEST(QSort, SixElementsUseInsertionSortOnly) {
    std::vector<uint32_t> perm = Keys(6);
    do {
        std::vector<uint32_t> v = perm;
        State s(v.data(), 6);
        QSort(v.data(), 6, 4, Compare, &s);
        ASSERT_TRUE(Sorted(v) && s.bad == 0);
        for (const auto &[i, j] : s.pairs) ASSERT_EQ(i + 1, j) << "non-neighbour comparison " << i << "," << j;
        size_t inversions = 0;
        for (size_t i = 0; i < 6; ++i)
            for (size_t j = i + 1; j < 6; ++j) inversions += Less(perm[j], perm[i]);
        ASSERT_TRUE(s.calls >= inversions && s.calls <= std::min<size_t>(inversions + 5, 15)) << s.calls;
    } while (std::next_permutation(perm.begin(), perm.end(), Less));
}

uint32_t Median3(uint32_t a, uint32_t b, uint32_t c) { return std::max(std::min(a, b), std::min(std::max(a, b), c)); }

// The pivot (moved to index 0, then second argument in the partition) is the
// middle element for 7, the median of first/middle/last up to 40 and beyond
// that the ninther of medians n/8 apart; choosing it takes 0, 2-3 or 8-12 calls.
TEST(QSort, PivotSelection) {
    std::mt19937 rng(21);
    for (size_t n : {7, 8, 9, 20, 39, 40, 41, 42, 63, 64, 100, 1000, 12345})
        for (int round = 0; round < 20; ++round) {
            std::vector<uint32_t> v = Keys(n, &rng);
            auto k = [&v](size_t i) { return ntohl(v[i]); };
            const size_t m = n / 2, d = n / 8;
            const uint32_t expected = n > 40 ? Median3(Median3(k(0), k(d), k(2 * d)), Median3(k(m - d), k(m), k(m + d)),
                                                       Median3(k(n - 1 - 2 * d), k(n - 1 - d), k(n - 1)))
                                      : n > 7 ? Median3(k(0), k(m), k(n - 1)) : k(m);
            const int64_t choiceCalls = n > 40 ? 12 : n > 7 ? 3 : 0;
            State s(v.data(), n);
            QSort(v.data(), n, 4, Compare, &s);
            ASSERT_EQ(s.pivot, int64_t(expected)) << "n=" << n << " round=" << round << " pivot call " << s.pivotAt;
            ASSERT_TRUE(s.pivotAt <= choiceCalls && s.pivotAt >= choiceCalls * 2 / 3) << n << ": " << s.pivotAt;
        }
}

// Sorted input: the pivot choice, one pass comparing each element with the
// pivot that moves nothing, then only insertion-sort steps (no second partition).
TEST(QSort, SortedInputTakesTheNoSwapShortcut) {
    const size_t n = 100000;
    std::vector<uint32_t> v = Keys(n);
    State s(v.data(), n);
    QSort(v.data(), n, 4, Compare, &s);
    ASSERT_TRUE(Sorted(v) && s.bad == 0);
    ASSERT_TRUE(s.pivotAt >= 0 && s.pivotAt <= 12 && s.calls < 3 * n + 32) << s.pivotAt << " " << s.calls;
    size_t k = size_t(s.pivotAt);
    while (k < s.pairs.size() && s.pairs[k].second == 0) ++k;
    EXPECT_TRUE(k - s.pivotAt >= n - 1 && k - s.pivotAt <= n + 1) << k - s.pivotAt << " calls against the pivot";
    for (; k < s.pairs.size(); ++k) ASSERT_EQ(s.pairs[k].first + 1, s.pairs[k].second) << "call " << k;
}

TEST(QSort, ContextIsPassedThroughAndSteersTheOrder) {
    std::mt19937 rng(9);
    std::vector<uint32_t> v = Keys(1000, &rng);
    State s(v.data(), v.size());
    s.descending = true;
    QSort(v.data(), v.size(), 4, Compare, &s);
    EXPECT_TRUE(s.calls > 0 && s.bad == 0 && Sorted(v, true));
}

}  // namespace
