// Growable arrays: the growth rule, the three families and their assertions.
#include <string.h>

#include <vector>

#include "kz/array.h"
#include "kz/memory.h"
#include "test_support.h"

namespace {

constexpr uint64_t kSmallMax = 4294967295ull;
constexpr uint64_t kBigMax = 9223372036854775807ull;

TEST(GrowthRule, DocumentedValues) {
  EXPECT_EQ(ArrayNextSize(0, 1, kSmallMax), 4u);
  EXPECT_EQ(ArrayNextSize(0, 0, kSmallMax), 4u);
  EXPECT_EQ(ArrayNextSize(4, 5, kSmallMax), 16u);
  EXPECT_EQ(ArrayNextSize(1024, 1025, kSmallMax), 2048u);
  EXPECT_EQ(ArrayNextSize(16777216, 16777217, kSmallMax), 25165824u);
  EXPECT_EQ(ArrayNextSize(134217728, 134217729, kSmallMax), 161061273u);
  EXPECT_EQ(ArrayNextSize(100, 50, kSmallMax), 100u);  // enough already
  EXPECT_EQ(ArrayNextSize(4, 1000, kSmallMax), 1024u);  // several steps at once
}

TEST(GrowthRule, SequenceFromZero) {
  const std::vector<uint64_t> expected = {4,        16,       64,       256,      1024,     2048,     4096,
                                          8192,     16384,    32768,    65536,    131072,   262144,   524288,
                                          1048576,  2097152,  4194304,  8388608,  16777216, 25165824, 37748736,
                                          56623104, 84934656, 127401984, 191102976};
  uint64_t capacity = 0;
  for (uint64_t value : expected) {
    capacity = ArrayNextSize(capacity, capacity + 1, kSmallMax);
    ASSERT_EQ(capacity, value);
  }
  // Then x1.2, truncated.
  for (int i = 0; i < 5; i++) {
    uint64_t next = ArrayNextSize(capacity, capacity + 1, kSmallMax);
    ASSERT_EQ(next, static_cast<uint64_t>(static_cast<double>(capacity) * 1.2));
    capacity = next;
  }
  // The big family grows the same way.
  uint64_t big = 0;
  uint64_t small = 0;
  for (int i = 0; i < 40; i++) {
    big = BigArrayNextSize(big, big + 1, kBigMax);
    if (small < 4000000000u) {
      small = ArrayNextSize(small, small + 1, kSmallMax);
      ASSERT_EQ(big, small);
    }
  }
}

TEST(GrowthRule, OnlyTheFifthStepIsClamped) {
  // 4294967294 x 1.2 passes the limit: clamped to maxSize - 1.
  EXPECT_EQ(ArrayNextSize(4000000000u, 4000000001u, kSmallMax), 4294967294u);
  EXPECT_EQ(BigArrayNextSize(9000000000000000000ull, 9000000000000000001ull, kBigMax), kBigMax - 1);
  // A small step is not clamped even past maxSize.
  EXPECT_EQ(ArrayNextSize(4, 5, 10), 16u);
}

TEST(GrowthRuleDeathTest, Assertions) {
  EXPECT_DEATH(ArrayNextSize(4294967294u, 4294967295u, kSmallMax),
               "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91\n");
  EXPECT_DEATH(BigArrayNextSize(kBigMax - 1, kBigMax, kBigMax), "'newCapacity != capacity' failed at kzlib/array:196\n");
  // Exhausted growth is written raw, in the assertion's form.
  EXPECT_DEATH(ArrayNextSize(4, 100, 10), "'newCapacity <= maxSize - 1' failed at kzlib/array:78\n");
  EXPECT_DEATH(BigArrayNextSize(4, 100, 10), "'newCapacity <= maxSize - 1' failed at kzlib/array:185\n");
}

TEST(GrowthRuleDeathTest, ExhaustedGrowthCallsTheAbortHookAndUsesTheErrorStream) {
  EXPECT_DEATH(
      {
        KZSetAbort(kztest::AbortHookToStderr);
        ArrayNextSize(4, 100, 10);
      },
      "failed at kzlib/array:78\nhook<newCapacity <= maxSize - 1\\|kzlib/array\\|78>");
  // The raw write goes to the error stream's descriptor, not to descriptor 2.
  EXPECT_EXIT(
      {
        FILE *sink = fopen("/dev/null", "w");
        KZSetMessageStream(1, sink);
        ArrayNextSize(4, 100, 10);
      },
      testing::KilledBySignal(SIGABRT), "^$");
}

TEST(Arrays, GrowAppendAndFree) {
  KZ_ARRAY(uint32_t) numbers;
  ArrayInit(numbers);
  EXPECT_EQ(numbers.elements, nullptr);
  for (uint32_t i = 0; i < 5000; i++) ArrayAppend(numbers, i * 3);
  EXPECT_EQ(ArrayLength(numbers), 5000u);
  EXPECT_EQ(numbers.capacity, 8192u);
  for (uint32_t i = 0; i < 5000; i++) ASSERT_EQ(ArrayNth(numbers, i), i * 3);
  ArrayFree(numbers);
  EXPECT_EQ(numbers.elements, nullptr);
  EXPECT_EQ(numbers.capacity, 0u);
  EXPECT_EQ(numbers.count, 0u);
}

TEST(Arrays, GrowReturnsTheStorageAndKeepsCount) {
  UByteArray bytes = {nullptr, 0, 0};
  void *grown = ArrayGrow(bytes);
  EXPECT_EQ(grown, bytes.elements);
  EXPECT_EQ(bytes.capacity, 4u);
  EXPECT_EQ(bytes.count, 0u);
  ArrayGrow(bytes);
  EXPECT_EQ(bytes.capacity, 16u);
  ArrayFree(bytes);
}

TEST(Arrays, GrowExactNeverShrinks) {
  KZ_ARRAY(double) values = {nullptr, 0, 0};
  ArrayGrowExact(values, 10);
  EXPECT_EQ(values.capacity, 10u);
  ArrayGrowExact(values, 5);
  EXPECT_EQ(values.capacity, 10u);
  ArrayGrowExact(values, 11);
  EXPECT_EQ(values.capacity, 11u);
  ArrayFree(values);
}

TEST(Arrays, Shrink) {
  KZ_ARRAY(int) values = {nullptr, 0, 0};
  ArrayGrowExact(values, 100);
  values.count = 50;
  ArrayShrink(values, 40);  // below the count: nothing happens
  EXPECT_EQ(values.capacity, 100u);
  ArrayShrink(values, 60);
  EXPECT_EQ(values.capacity, 60u);
  ArrayShrink(values, 80);  // larger: nothing
  EXPECT_EQ(values.capacity, 60u);
  values.count = 0;
  ArrayShrink(values, 0);
  EXPECT_EQ(values.elements, nullptr);
  EXPECT_EQ(values.capacity, 0u);
  ArrayAppend(values, 1);  // still a valid empty array
  EXPECT_EQ(values.capacity, 4u);
  ArrayFree(values);
}

TEST(Arrays, Copy) {
  KZ_ARRAY(int) source = {nullptr, 0, 0};
  KZ_ARRAY(int) destination = {nullptr, 0, 0};
  for (int i = 0; i < 20; i++) ArrayAppend(source, i);
  ArrayCopy(destination, source);
  EXPECT_EQ(destination.count, 20u);
  EXPECT_EQ(destination.capacity, 64u);  // the growth rule from 0 to 20
  EXPECT_EQ(memcmp(destination.elements, source.elements, 20 * sizeof(int)), 0);
  // An empty source only sets the count and keeps the storage.
  KZ_ARRAY(int) empty = {nullptr, 0, 0};
  int *storage = destination.elements;
  ArrayCopy(destination, empty);
  EXPECT_EQ(destination.count, 0u);
  EXPECT_EQ(destination.elements, storage);
  EXPECT_EQ(destination.capacity, 64u);
  ArrayFree(source);
  ArrayFree(destination);
}

TEST(ArraysDeathTest, Assertions) {
  KZ_ARRAY(int) a = {nullptr, 0, 0};
  KZ_ARRAY(short) b = {nullptr, 0, 0};
  EXPECT_DEATH(ArrayCopy(a, b), "'aSize == bSize' failed at kzlib/array:144\n");
  EXPECT_DEATH(ArrayGrowExact(a, 2147483647u), "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n");
  KZ_BIG_ARRAY(int) big = {nullptr, 0, 0};
  KZ_BIG_ARRAY(short) bigShort = {nullptr, 0, 0};
  EXPECT_DEATH(BigArrayCopy(big, bigShort), "'aSize == bSize' failed at kzlib/array:250\n");
  EXPECT_DEATH(BigArrayGrowExact(big, kBigMax), "'eltCount < ULONG_MAX_VALUE / 2' failed at kzlib/array:220\n");
  EXPECT_DEATH(VMArrayCopy(big, bigShort), "'aSize == bSize' failed at kzlib/array:336\n");
}

TEST(BigArrays, GrowCopyShrinkFree) {
  KZ_BIG_ARRAY(uint64_t) values;
  BigArrayInit(values);
  for (uint64_t i = 0; i < 3000; i++) BigArrayAppend(values, i << 33);
  EXPECT_EQ(values.capacity, 4096u);
  KZ_BIG_ARRAY(uint64_t) copy = {nullptr, 0, 0};
  BigArrayCopy(copy, values);
  EXPECT_EQ(copy.count, 3000u);
  EXPECT_EQ(copy.capacity, 4096u);
  EXPECT_EQ(ArrayNth(copy, 2999), uint64_t(2999) << 33);
  BigArrayGrowExact(copy, 5000);
  EXPECT_EQ(copy.capacity, 5000u);
  BigArrayShrink(copy, 3000);
  EXPECT_EQ(copy.capacity, 3000u);
  EXPECT_EQ(ArrayNth(copy, 2999), uint64_t(2999) << 33);
  BigArrayFree(values);
  BigArrayFree(copy);
  EXPECT_EQ(copy.elements, nullptr);
}

TEST(MappedArrays, GrowKeepsContentsAndFreeUnmaps) {
  KZ_BIG_ARRAY(uint32_t) values;
  VMArrayInit(values);
  EXPECT_EQ(VMArrayFree(values), 0);  // a zeroed record: nothing to do
  for (uint32_t i = 0; i < 100000; i++) VMArrayAppend(values, i ^ 0x5A5A5A5Au);
  EXPECT_EQ(values.capacity, 131072u);
  for (uint32_t i = 0; i < 100000; i++) ASSERT_EQ(ArrayNth(values, i), i ^ 0x5A5A5A5Au);
  // Storage beyond the count is zero, as in a fresh mapping.
  EXPECT_EQ(ArrayNth(values, 131071), 0u);
  KZ_BIG_ARRAY(uint32_t) copy = {nullptr, 0, 0};
  VMArrayCopy(copy, values);
  EXPECT_EQ(copy.count, 100000u);
  EXPECT_EQ(copy.capacity, 131072u);
  EXPECT_EQ(memcmp(copy.elements, values.elements, 100000 * sizeof(uint32_t)), 0);
  EXPECT_EQ(VMArrayFree(values), 0);
  EXPECT_EQ(values.elements, nullptr);
  EXPECT_EQ(values.capacity, 0u);
  VMArrayFree(copy);
}

}  // namespace
