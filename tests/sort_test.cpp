// QSort: results against std::sort over input shapes, element sizes and
// alignments, then its comparison pattern (small arrays, pivot, sorted input).
#include "kz/sort.h"

#if defined(_WIN32)
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Orders by the first keyLen bytes (memcmp order); logs the element index
// pairs compared and the first call with element 0 (the pivot) second.
struct State {
  State(const void *b, size_t n, size_t es = 4, size_t kl = 4) : base(uintptr_t(b)), count(n), size(es), keyLen(kl) {}
  uintptr_t base;
  size_t count, size, keyLen, bad = 0;  // bad: pointers off the array's elements
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
  if (s.pivotAt < 0 && offsetB == 0) s.pivotAt = int64_t(s.pairs.size()), s.pivot = KeyOf(b, s.keyLen);
  s.pairs.emplace_back(offsetA / s.size, offsetB / s.size);
  return std::clamp(std::memcmp(a, b, s.keyLen), -1, 1);
}
uint32_t Median3(uint32_t a, uint32_t b, uint32_t c) { return std::max(std::min(a, b), std::min(std::max(a, b), c)); }

enum Pattern { kRandom, kSorted, kReverse, kOrganPipe, kFewDistinct };

// n elements `offset` bytes past an 8-aligned address between guard bytes; keys
// big-endian over the key range, from 8 bytes on followed by bytes of the input
// index. The keys must match std::sort's, the elements stay whole. The pivot
// (moved to index 0, then second argument in the partition) is the middle
// element for 7, the median of first/middle/last up to 40 and beyond that the
// ninther of medians n/8 apart; choosing it takes 0, 2-3 or 8-12 calls.
void CheckSort(int p, size_t n, size_t size, size_t offset) {
  SCOPED_TRACE(testing::Message() << "pattern " << p << " n=" << n << " size=" << size << " offset=" << offset);
  std::mt19937 rng(uint32_t(n * 131 + size * 7 + offset * 3 + p));
  const size_t keyLen = std::min<size_t>(size, 4), bytes = n * size;
  const uint64_t range = uint64_t{1} << (8 * keyLen);
  std::vector<unsigned char> storage(bytes + 40, 0xA5);
  unsigned char *base = storage.data() + 16 + offset;  // vector storage is at least 8-aligned
  auto scaled = [&](size_t k) { return static_cast<uint32_t>(k * (range - 1) / std::max<size_t>(n, 1)); };
  for (size_t i = 0; i < n; ++i) {
    const uint32_t v = p == kRandom      ? uint32_t(rng() % range)
                       : p == kSorted    ? scaled(i)
                       : p == kReverse   ? scaled(n - 1 - i)
                       : p == kOrganPipe ? scaled(2 * std::min(i, n - 1 - i))
                                         : uint32_t(rng() % 5 * 7);
    for (size_t j = 0; j < size; ++j)
      base[i * size + j] = uint8_t(j < keyLen ? v >> (8 * (keyLen - 1 - j)) : i >> (8 * (j % 4)) ^ j);
  }
  auto elements = [&] {  // sorted by whole elements, so by key first
    std::vector<std::string> all(n);
    for (size_t i = 0; i < n; ++i) all[i].assign(reinterpret_cast<const char *>(base) + i * size, size);
    return std::sort(all.begin(), all.end()), all;
  };
  auto key = [&](size_t i) { return KeyOf(base + i * size, keyLen); };
  const size_t m = n / 2, d = n / 8;
  const int64_t calls = n > 40  ? 12
                        : n > 7 ? 3
                                : 0,
                pivot = n < 7    ? 0
                        : n == 7 ? key(m)
                        : n <= 40
                            ? Median3(key(0), key(m), key(n - 1))
                            : Median3(Median3(key(0), key(d), key(2 * d)), Median3(key(m - d), key(m), key(m + d)),
                                      Median3(key(n - 1 - 2 * d), key(n - 1 - d), key(n - 1)));
  const std::vector<std::string> expected = elements();
  State s(base, n, size, keyLen);
  QSort(base, n, size, Compare, &s);
  ASSERT_EQ(std::string(storage.data(), base) + std::string(base + bytes, storage.data() + storage.size()),
            std::string(40, '\xA5'))
      << "guard bytes written";
  ASSERT_EQ(s.bad, 0u) << "comparator got pointers that are not elements";
  if (n < 2) {
    ASSERT_EQ(s.pairs.size(), 0u) << "comparisons with fewer than two elements";
  }
  if (n < 7) {
    ASSERT_EQ(s.pivotAt, -1) << "a pivot chosen below seven elements";
  } else {  // the calls taken to choose it
    ASSERT_EQ(s.pivot, pivot);
    ASSERT_GE(s.pivotAt, calls * 2 / 3);
    ASSERT_LE(s.pivotAt, calls);
  }
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(key(i), KeyOf(expected[i].data(), keyLen)) << i;
  ASSERT_EQ(elements(), expected) << "elements changed, lost or duplicated";
}

TEST(QSort, MatchesStdSortForEveryShapeSizeAndAlignment) {
  std::vector<size_t> counts = {63, 100, 255, 256, 1000, 1023, 4096, 10007};
  for (size_t n = 0; n <= 50; ++n) counts.push_back(n);
  for (size_t n : counts)
    for (size_t size : {1, 3, 4, 8, 12, 24})
      for (size_t offset : {0, 1, 4})  // 8-aligned, unaligned, 4- but not 8-aligned
        for (int p = kRandom; p <= kFewDistinct && !HasFatalFailure(); ++p) CheckSort(p, n, size, offset);
  uint32_t two[2] = {9, 1};  // nothing to compare with a null base or element size 0 either
  State s(two, 2);
  QSort(nullptr, 0, 4, Compare, &s), QSort(nullptr, 1, 4, Compare, &s), QSort(two, 2, 0, Compare, &s);
  EXPECT_EQ(s.pairs.size(), 0u);
  EXPECT_EQ(two[0], 9u);
  EXPECT_EQ(two[1], 1u);
}

// Keys below are big-endian words, so that memcmp order is numeric order.
bool Less(uint32_t a, uint32_t b) { return ntohl(a) < ntohl(b); }
std::vector<uint32_t> Ascending(uint32_t n) {  // 0 to n - 1
  std::vector<uint32_t> v(n);
  for (uint32_t i = 0; i < n; ++i) v[i] = htonl(i);
  return v;
}

// Six elements: insertion sort alone, comparing neighbours left one first;
// between the number of inversions and that plus 5 calls.
TEST(QSort, SixElementsUseInsertionSortOnly) {
  const std::vector<uint32_t> sorted = Ascending(6);
  std::vector<uint32_t> perm = sorted;
  do {
    std::vector<uint32_t> v = perm;
    State s(v.data(), 6);
    QSort(v.data(), 6, 4, Compare, &s);
    ASSERT_EQ(v, sorted);
    ASSERT_EQ(s.bad, 0u);
    for (const auto &[i, j] : s.pairs) ASSERT_EQ(i + 1, j) << "non-neighbour comparison " << i << "," << j;
    size_t inversions = 0;
    for (size_t i = 0; i < 6; ++i)
      for (size_t j = i + 1; j < 6; ++j) inversions += Less(perm[j], perm[i]);
    ASSERT_GE(s.pairs.size(), inversions);
    ASSERT_LE(s.pairs.size(), std::min<size_t>(inversions + 5, 15));
  } while (std::next_permutation(perm.begin(), perm.end(), Less));
}

// Sorted input: the pivot choice, one pass comparing each element with the
// pivot that moves nothing, then only insertion-sort steps (no second partition).
TEST(QSort, SortedInputTakesTheNoSwapShortcut) {
  const size_t n = 100000;
  const std::vector<uint32_t> sorted = Ascending(n);
  std::vector<uint32_t> v = sorted;
  State s(v.data(), n);
  QSort(v.data(), n, 4, Compare, &s);
  ASSERT_EQ(v, sorted);
  ASSERT_EQ(s.bad, 0u);
  ASSERT_GE(s.pivotAt, 0);
  ASSERT_LE(s.pivotAt, 12);
  ASSERT_LT(s.pairs.size(), 3 * n + 32);
  size_t k = size_t(s.pivotAt);
  while (k < s.pairs.size() && s.pairs[k].second == 0) ++k;
  const size_t againstThePivot = k - size_t(s.pivotAt);
  EXPECT_GE(againstThePivot, n - 1);
  EXPECT_LE(againstThePivot, n + 1);
  for (; k < s.pairs.size(); ++k) ASSERT_EQ(s.pairs[k].first + 1, s.pairs[k].second) << "call " << k;
}

}  // namespace
