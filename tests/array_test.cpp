// Growable arrays: the growth rule, the three families and their assertions.
#include <string.h>

#include "kz/array.h"
#include "kz/memory.h"
#include "test_support.h"

namespace {

constexpr uint64_t kSmallMax = 4294967295ull;
constexpr uint64_t kBigMax = 9223372036854775807ull;

TEST(GrowthRule, DocumentedValuesAndSequence) {
  const struct {
    uint64_t capacity, needed, maxSize, next;
  } cases[] = {
      {0, 1, kSmallMax, 4},
      {0, 0, kSmallMax, 4},
      {4, 5, kSmallMax, 16},
      {1024, 1025, kSmallMax, 2048},
      {16777216, 16777217, kSmallMax, 25165824},
      {134217728, 134217729, kSmallMax, 161061273},
      {100, 50, kSmallMax, 100},
      {4, 1000, kSmallMax, 1024},
      {4, 5, 10, 16},                                      // a small step is never clamped
      {4000000000u, 4000000001u, kSmallMax, 4294967294u},  // x1.2 clamped to maxSize - 1
  };
  for (const auto &c : cases) EXPECT_EQ(ArrayNextSize(c.capacity, c.needed, c.maxSize), c.next) << c.capacity;
  EXPECT_EQ(BigArrayNextSize(9000000000000000000ull, 9000000000000000001ull, kBigMax), kBigMax - 1);
  // x4 up to 1024, x2 up to 16777216, then x1.5 six times, then x1.2 truncated.
  uint64_t capacity = 0, big = 0;
  for (uint64_t expected = 4; capacity < 191102976u;) {
    capacity = ArrayNextSize(capacity, capacity + 1, kSmallMax);
    ASSERT_EQ(capacity, expected);
    big = BigArrayNextSize(big, big + 1, kBigMax);
    ASSERT_EQ(big, capacity);
    expected = expected < 1024 ? expected * 4 : expected < 16777216 ? expected * 2 : expected * 3 / 2;
  }
  for (int i = 0; i < 5; i++, capacity = ArrayNextSize(capacity, capacity + 1, kSmallMax))
    ASSERT_EQ(ArrayNextSize(capacity, capacity + 1, kSmallMax), static_cast<uint64_t>(capacity * 1.2));
}

TEST(ArraysDeathTest, Assertions) {
  EXPECT_DEATH(ArrayNextSize(4294967294u, 4294967295u, kSmallMax),
               "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91\n");
  EXPECT_DEATH(BigArrayNextSize(kBigMax - 1, kBigMax, kBigMax),
               "'newCapacity != capacity' failed at kzlib/array:196\n");
  EXPECT_DEATH(ArrayNextSize(4, 100, 10), "'newCapacity <= maxSize - 1' failed at kzlib/array:78\n");
  EXPECT_DEATH(BigArrayNextSize(4, 100, 10), "'newCapacity <= maxSize - 1' failed at kzlib/array:185\n");
  KZ_ARRAY(int) a = {nullptr, 0, 0};
  KZ_ARRAY(short) b = {nullptr, 0, 0};
  KZ_BIG_ARRAY(int) big = {nullptr, 0, 0};
  KZ_BIG_ARRAY(short) bigShort = {nullptr, 0, 0};
  EXPECT_DEATH(ArrayCopy(a, b), "'aSize == bSize' failed at kzlib/array:144\n");
  EXPECT_DEATH(ArrayGrowExact(a, 2147483647u), "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n");
  EXPECT_DEATH(BigArrayCopy(big, bigShort), "'aSize == bSize' failed at kzlib/array:250\n");
  EXPECT_DEATH(BigArrayGrowExact(big, kBigMax), "'eltCount < ULONG_MAX_VALUE / 2' failed at kzlib/array:220\n");
  EXPECT_DEATH(VMArrayCopy(big, bigShort), "'aSize == bSize' failed at kzlib/array:336\n");
  // Exhausted growth calls the abort hook; the raw write goes to the error stream's descriptor.
  EXPECT_DEATH((KZSetAbort(kztest::AbortHookToStderr), ArrayNextSize(4, 100, 10)),
               "failed at kzlib/array:78\nhook<newCapacity <= maxSize - 1\\|kzlib/array\\|78>");
  EXPECT_EXIT((KZSetMessageStream(1, fopen(kztest::kNullDevice, "w")), ArrayNextSize(4, 100, 10)), kztest::Aborted,
              "^$");
}

// An array's count and capacity, compared as one value.
using Sizes = std::pair<uint64_t, uint64_t>;
template <typename Array>
Sizes SizesOf(const Array &a) {
  return {a.count, a.capacity};
}

TEST(Arrays, AppendGrowsByTheRuleAndFreeLeavesAnEmptyArray) {
  KZ_ARRAY(uint32_t) numbers;
  ArrayInit(numbers);
  for (uint32_t i = 0; i < 5000; i++) ArrayAppend(numbers, i * 3);
  EXPECT_EQ(SizesOf(numbers), Sizes(5000, 8192));
  for (uint32_t i = 0; i < 5000; i++) ASSERT_EQ(ArrayNth(numbers, i), i * 3);
  ArrayFree(numbers);
  EXPECT_EQ(numbers.elements, nullptr);
  EXPECT_EQ(SizesOf(numbers), Sizes(0, 0));
}

TEST(Arrays, GrowExactNeverShrinksAndShrinkKeepsTheCount) {
  KZ_ARRAY(int) values = {nullptr, 0, 0};
  void *grown = ArrayGrow(values);  // returns the storage, keeps the count
  EXPECT_EQ(grown, values.elements);
  EXPECT_EQ(SizesOf(values), Sizes(0, 4));
  ArrayGrowExact(values, 100), ArrayGrowExact(values, 5);  // never shrinks
  EXPECT_EQ(values.capacity, 100u);
  values.count = 50;
  ArrayShrink(values, 40), ArrayShrink(values, 80);  // below the count, or larger: nothing happens
  ArrayShrink(values, 60);
  EXPECT_EQ(values.capacity, 60u);
  values.count = 0;
  ArrayShrink(values, 0);
  EXPECT_EQ(values.elements, nullptr);
  EXPECT_EQ(values.capacity, 0u);
  ArrayAppend(values, 1);  // still a valid empty array
  EXPECT_EQ(values.capacity, 4u);
  ArrayFree(values);
}

TEST(Arrays, CopyTakesTheElementsAndAnEmptySourceOnlyTheCount) {
  KZ_ARRAY(int) source = {nullptr, 0, 0}, destination = {nullptr, 0, 0}, empty = {nullptr, 0, 0};
  for (int i = 0; i < 20; i++) ArrayAppend(source, i);
  ArrayCopy(destination, source);
  EXPECT_EQ(SizesOf(destination), Sizes(20, 64));
  EXPECT_EQ(memcmp(destination.elements, source.elements, 20 * sizeof(int)), 0);
  int *storage = destination.elements;
  ArrayCopy(destination, empty);  // only sets the count
  EXPECT_EQ(destination.elements, storage);
  EXPECT_EQ(SizesOf(destination), Sizes(0, 64));
  ArrayFree(source), ArrayFree(destination);
}

TEST(BigArrays, GrowCopyAndShrinkLikeSmallOnes) {
  KZ_BIG_ARRAY(uint64_t) values, copy = {nullptr, 0, 0};
  BigArrayInit(values);
  for (uint64_t i = 0; i < 3000; i++) BigArrayAppend(values, i << 33);
  BigArrayCopy(copy, values);
  EXPECT_EQ(values.capacity, 4096u);
  EXPECT_EQ(SizesOf(copy), Sizes(3000, 4096));
  BigArrayGrowExact(copy, 5000);
  EXPECT_EQ(copy.capacity, 5000u);
  BigArrayShrink(copy, 3000);
  EXPECT_EQ(copy.capacity, 3000u);
  EXPECT_EQ(ArrayNth(copy, 2999), uint64_t(2999) << 33);
  BigArrayFree(values), BigArrayFree(copy);
  EXPECT_EQ(copy.elements, nullptr);
}

TEST(MappedArrays, StorageIsZeroBeyondTheCountAndFreedWhole) {
  KZ_BIG_ARRAY(uint32_t) mapped, mappedCopy = {nullptr, 0, 0};
  VMArrayInit(mapped);
  EXPECT_EQ(VMArrayFree(mapped), 0);  // a zeroed record: nothing to do
  for (uint32_t i = 0; i < 100000; i++) VMArrayAppend(mapped, i ^ 0x5A5A5A5Au);
  EXPECT_EQ(mapped.capacity, 131072u);
  EXPECT_EQ(ArrayNth(mapped, 131071), 0u);  // zero beyond the count
  VMArrayCopy(mappedCopy, mapped);
  EXPECT_EQ(SizesOf(mappedCopy), Sizes(100000, 131072));
  for (uint32_t i = 0; i < 100000; i++) ASSERT_EQ(ArrayNth(mappedCopy, i), i ^ 0x5A5A5A5Au);
  EXPECT_EQ(VMArrayFree(mapped), 0);
  EXPECT_EQ(mapped.elements, nullptr);
  EXPECT_EQ(mapped.capacity, 0u);
  EXPECT_EQ(VMArrayFree(mappedCopy), 0);
}

}  // namespace
