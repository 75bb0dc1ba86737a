// Checked allocation, anonymous mappings, page helpers and pools.
#include <errno.h>
#include <string.h>

#include <regex>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/memory.h"
#include "test_support.h"

namespace {

// A size no allocator can satisfy; its low 32 bits are 12345.
constexpr size_t kImpossible = (size_t(1) << 62) + 12345;

uint32_t ErrorLine() { uint32_t line = 0; return KZErrorLocation(&line), line; }

TEST(CheckedAllocation, ResizeAndSilentZeroSizeRelease) {
  kztest::CapturedStream errors(1);
  char *block = static_cast<char *>(Allocate(4, nullptr));
  memcpy(block, "abc", 4);
  block = static_cast<char *>(Allocate(100000, block));
  EXPECT_STREQ(block, "abc");
  EXPECT_EQ(Allocate(0, block), nullptr);  // size 0 frees
  EXPECT_EQ(errors.Text(), "");
}

TEST(CheckedAllocationDeathTest, FatalFailuresAndProtectedPages) {
  EXPECT_DEATH(Allocate_(kImpossible, nullptr, "alloc/site.c", 77),
               "kzlib: \"site.c:77\": malloc failed: ptr=0x.* size=12345, "
               "process=\\{PeakWorkingSetSize=[0-9]+, WorkingSetSize=[0-9]+, .*PeakPagefileUsage=[0-9]+\\}"
               ": Cannot allocate memory\r\n");
  void *aligned = nullptr;
  EXPECT_DEATH(AllocateAligned(16, 0, &aligned), "'align > 0' failed at kzlib/kzlib:4335\n");
  auto *block = static_cast<char *>(MemoryMap(4096));
  ASSERT_EQ(MemoryProtect(block, 4096, 1), 1);
  EXPECT_DEATH(block[0] = 1, "");
  ASSERT_EQ(MemoryDisable(block, 4096), 1);
  EXPECT_DEATH((void)*static_cast<volatile char *>(block), "");
  MemoryUnmap(block, 4096);
}

TEST(CheckedAllocation, UnsafeFailureRaisesAndKeepsTheOldBlock) {
  char *old = Strdup("kept");
  EXPECT_EQ(AllocateUnsafe_(kImpossible, old, "unsafe.c", 9), nullptr);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, ENOMEM));
  std::string message = KZErrorMessage();
  EXPECT_TRUE(std::regex_match(message, std::regex("malloc failed: ptr=0x.* size=12345: Cannot allocate memory")))
      << message;
  EXPECT_STREQ(KZErrorLocation(nullptr), "unsafe.c");
  EXPECT_EQ(ErrorLine(), 9u);
  EXPECT_STREQ(old, "kept");
  free(old);
  KZErrorClear();
}

TEST(CheckedAllocation, AlignedBlocks) {
  for (size_t alignment : {size_t(1), size_t(3), size_t(24), size_t(4096), size_t(65536)}) {
    void *aligned = nullptr;
    void *block = AllocateAligned(100, alignment, &aligned);
    auto start = reinterpret_cast<uintptr_t>(block), at = reinterpret_cast<uintptr_t>(aligned);
    EXPECT_TRUE(at % alignment == 0 && at >= start && at - start < alignment) << alignment;
    memset(aligned, 0xAB, 100);
    EXPECT_TRUE(alignment != 1 || block == aligned);  // already aligned: the block itself
    free(block);
  }
}

TEST(CheckedAllocation, StringCopiesCountersAndChainLines) {
  for (auto [n, want] : {std::pair<size_t, const char *>{2, "ab"}, {0, ""}, {100, "abc"}}) {
    char *copy = Strndup("abc", n);
    EXPECT_STREQ(copy, want) << n;
    free(copy);
  }
  kztest::CapturedStream output(0);
  EXPECT_EQ(DEBUG_MALLOC_CHAIN(), 0);
  EXPECT_EQ(output.Text(), "No malloc debugging info available\r\n");
  char line[255], small[20];
  KZDumpMemStats(line, sizeof line);
  EXPECT_TRUE(std::regex_match(
      line, std::regex("PeakWorkingSetSize=[0-9]+, WorkingSetSize=[0-9]+, QuotaPeakPagedPoolUsage=[0-9]+, "
                       "QuotaPagedPoolUsage=[0-9]+, QuotaPeakNonPagedPoolUsage=[0-9]+, "
                       "QuotaNonPagedPoolUsage=[0-9]+, PagefileUsage=[0-9]+, PeakPagefileUsage=[0-9]+")))
      << line;
  KZDumpMemStats(small, sizeof small);
  EXPECT_EQ(strlen(small), sizeof small - 1);
}

TEST(AnonymousMemory, MapRemapAndUnmap) {
  errno = 5;
  EXPECT_EQ(MemoryMap(0), nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(MemoryUnmap(nullptr, 100), 1);
  auto *block = static_cast<unsigned char *>(MemoryMap(100));
  for (int i = 0; i < 100; i++) block[i] = static_cast<unsigned char>(i + 1);
  block = static_cast<unsigned char *>(MemoryRemap(block, 100, 50));
  for (int i = 0; i < 50; i++) ASSERT_EQ(block[i], i + 1);
  block = static_cast<unsigned char *>(MemoryRemap(block, 50, 1 << 22));
  ASSERT_NE(block, nullptr);
  for (int i = 0; i < 50; i++) ASSERT_EQ(block[i], i + 1);
  for (int i = 50; i < 100; i++) ASSERT_EQ(block[i], 0) << i;
  EXPECT_EQ(block[(1 << 22) - 1], 0);
  EXPECT_EQ(MemoryRemap(block, 1 << 22, 0), nullptr);  // releases
}

TEST(AnonymousMemory, ArrayBlocksRoundToUnits) {
  uint64_t bytes = 0;
  auto *base = static_cast<unsigned char *>(AnonArrayGrow(4096, nullptr, 1, 1, &bytes));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(bytes, 4096u);
  base[0] = 7;
  base = static_cast<unsigned char *>(AnonArrayGrow(4096, base, 40000, 1, &bytes));  // 5000 bytes
  EXPECT_EQ(bytes, 8192u);
  EXPECT_EQ(base[0], 7);
  EXPECT_EQ(base[8191], 0);
  EXPECT_EQ(AnonArrayGrow(4096, nullptr, 0, 8, &bytes), nullptr);
  EXPECT_EQ(bytes, 0u);
  AnonArrayFree(base);
}

TEST(PageHelpers, ProtectModesAndHugePages) {
  size_t length = 3 * 4096;
  auto *block = static_cast<char *>(MemoryMap(length));
  EXPECT_EQ(MemoryProtectEx(block, length, 2), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(2, 0));
  EXPECT_STREQ(KZErrorMessage(), "invalid mode");
  EXPECT_STREQ(KZErrorLocation(nullptr), "kzlib/kzlib");
  EXPECT_EQ(ErrorLine(), 6074u);
  block[0] = 1;  // mode 2 changed nothing: still writable
  EXPECT_EQ(MemoryUnmap(block, length), 1);
  EXPECT_EQ(MemoryHugePagesAlloc(1 << 21), nullptr);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(0, 40));
  EXPECT_STREQ(KZErrorMessage(), "huge pages not implemented on this OS");
  EXPECT_EQ(ErrorLine(), 5969u);
  KZErrorClear();
}

std::vector<void *> destroyed;
void RecordDestroy(int operation, void *object, void *) {
  EXPECT_EQ(operation, KZ_POOL_DESTROY);
  destroyed.push_back(object);
}

TEST(Pools, CompactAndFreeDestroyInOrder) {
  KZPool pool = KZ_POOL_INITIALIZER(RecordDestroy);
  std::vector<void *> made;
  for (int i = 0; i < 5; i++) PoolPut(&pool, made.emplace_back(Allocate(16, nullptr)));
  destroyed.clear();
  PoolCompact_(&pool, nullptr);
  EXPECT_EQ(destroyed, made);
  EXPECT_EQ(pool.count, 0u);
  EXPECT_NE(pool.items, nullptr);  // kept for reuse
  PoolPut(&pool, made.emplace_back(Allocate(8, nullptr)));
  PoolFree_(&pool, nullptr);
  EXPECT_EQ(destroyed, made);
  EXPECT_EQ(pool.items, nullptr);
}

TEST(Pools, LazyLockUnderConcurrentUse) {
  static KZPool pool = KZ_POOL_INITIALIZER(nullptr);
  std::vector<std::thread> threads(4);
  for (auto &thread : threads)
    thread = std::thread([] {
      for (int i = 0; i < 500; i++) PoolPut(&pool, Allocate(8, nullptr));
      for (int i = 0; i < 250; i++) free(PoolGet(&pool));
    });
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(pool.count, 1000u);
  PoolFree_(&pool, nullptr);
}

}  // namespace
