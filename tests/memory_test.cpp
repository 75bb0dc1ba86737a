// Checked allocation, anonymous mappings, page helpers and pools.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/memory.h"
#include "test_support.h"

namespace {

// A size no allocator can satisfy; its low 32 bits are 12345.
constexpr size_t kImpossible = (size_t(1) << 62) + 12345;

// The current error as "code message file:line".
std::string Error() {
  uint32_t line = 0;
  const char *file = KZErrorLocation(&line);
  return std::to_string(KZErrorCode()) + " " + KZErrorMessage() + " " + file + ":" + std::to_string(line);
}

// Growing keeps the contents; size 0 releases without a message; a failing
// unsafe resize raises an error and keeps the old block.
TEST(CheckedAllocation, FailedUnsafeResizeRaisesAnErrorAndKeepsTheBlock) {
  kztest::CapturedStream output(0), errors(1);
  char *block = static_cast<char *>(Allocate(4, nullptr));
  memcpy(block, "abc", 4);
  block = static_cast<char *>(Allocate(100000, block));
  EXPECT_EQ(AllocateUnsafe_(kImpossible, block, "unsafe.c", 9), nullptr);
  EXPECT_EQ(std::regex_replace(Error(), std::regex("ptr=0x\\S*"), "ptr=0xP"),
            std::to_string(KZ_ERROR_CODE(0, ENOMEM)) +
                " malloc failed: ptr=0xP size=12345: " + kztest::ErrnoText(ENOMEM) + " unsafe.c:9");
  EXPECT_STREQ(block, "abc");              // kept
  EXPECT_EQ(Allocate(0, block), nullptr);  // released
  EXPECT_EQ(output.Text() + errors.Text(), "");
  KZErrorClear();
}

TEST(CheckedAllocation, StrndupCopiesAtMostNBytes) {
  for (auto [n, want] : {std::pair<size_t, const char *>{2, "ab"}, {0, ""}, {100, "abc"}})
    EXPECT_STREQ((std::unique_ptr<char, void (*)(void *)>(Strndup("abc", n), free).get()), want) << n;
}

TEST(MemoryStats, ChainDumpIsInertAndCountersAreCutToTheBuffer) {
  kztest::CapturedStream output(0);
  EXPECT_EQ(DEBUG_MALLOC_CHAIN(), 0);
  EXPECT_EQ(output.Text(), "No malloc debugging info available\r\n");
  char line[255], small[20];
  KZDumpMemStats(line, sizeof line), KZDumpMemStats(small, sizeof small);
  EXPECT_EQ(std::regex_replace(line, std::regex("=[0-9]+"), "=N"),
            "PeakWorkingSetSize=N, WorkingSetSize=N, QuotaPeakPagedPoolUsage=N, QuotaPagedPoolUsage=N, "
            "QuotaPeakNonPagedPoolUsage=N, QuotaNonPagedPoolUsage=N, PagefileUsage=N, PeakPagefileUsage=N");
  EXPECT_EQ(strlen(small), sizeof small - 1);  // cut to the buffer
}

TEST(CheckedAllocationDeathTest, FailedAllocationAndZeroAlignmentEndTheProcess) {
  EXPECT_DEATH(Allocate_(kImpossible, nullptr, "alloc/site.c", 77),
               "kzlib: \"site.c:77\": malloc failed: ptr=0x.* size=12345, "
               "process=\\{PeakWorkingSetSize=" KZ_RE_DIGITS ", WorkingSetSize=" KZ_RE_DIGITS
               ", .*PeakPagefileUsage=" KZ_RE_DIGITS "\\}: " +
                   kztest::ErrnoText(ENOMEM) + "\r\n");
  EXPECT_DEATH(
      {
        void *aligned;
        AllocateAligned(16, 0, &aligned);
      },
      "'align > 0' failed at kzlib/kzlib:4335\n");
}

TEST(PageProtectionDeathTest, ReadOnlyAndDisabledPagesFault) {
  auto *block = static_cast<char *>(MemoryMap(4096));
  ASSERT_EQ(MemoryProtect(block, 4096, 1), 1);
  EXPECT_DEATH(block[0] = 1, "");
  ASSERT_EQ(MemoryDisable(block, 4096), 1);
  EXPECT_DEATH((void)*static_cast<volatile char *>(block), "");
  MemoryUnmap(block, 4096);
}

TEST(CheckedAllocation, AlignedBlocks) {
  for (size_t alignment : {size_t(1), size_t(3), size_t(24), size_t(4096), size_t(65536)}) {
    void *aligned = nullptr, *block = AllocateAligned(100, alignment, &aligned);
    auto start = reinterpret_cast<uintptr_t>(block), at = reinterpret_cast<uintptr_t>(aligned);
    EXPECT_EQ(at % alignment, 0u) << alignment;
    EXPECT_LT(at - start, alignment);  // so with alignment 1, the block itself
    memset(aligned, 0xAB, 100);
    free(block);
  }
}

TEST(AnonymousMemory, MapRemapAndUnmap) {
  errno = 5;
  EXPECT_EQ(MemoryMap(0), nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(MemoryUnmap(nullptr, 100), 1);
  auto *block = static_cast<unsigned char *>(MemoryMap(100));
  for (int i = 0; i < 100; i++) block[i] = static_cast<unsigned char>(i + 1);
  const std::vector<unsigned char> first(block, block + 50);
  block = static_cast<unsigned char *>(MemoryRemap(block, 100, 50));
  ASSERT_EQ(std::vector<unsigned char>(block, block + 50), first);
  block = static_cast<unsigned char *>(MemoryRemap(block, 50, 1 << 22));  // the rest zero
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::vector<unsigned char>(block, block + 50), first);
  EXPECT_EQ(std::find_if(block + 50, block + (1 << 22), [](unsigned char b) { return b != 0; }) - block, 1 << 22)
      << "the offset of the first byte not zero";
  EXPECT_EQ(MemoryRemap(block, 1 << 22, 0), nullptr);  // releases
}

TEST(AnonymousMemory, ArrayBlocksRoundToUnits) {
  uint64_t bytes = 0;
  auto *base = static_cast<unsigned char *>(AnonArrayGrow(4096, nullptr, 1, 1, &bytes));
  ASSERT_NE(base, nullptr);
  ASSERT_EQ(bytes, 4096u);
  base[0] = 7;
  base = static_cast<unsigned char *>(AnonArrayGrow(4096, base, 40000, 1, &bytes));  // 5000 bytes
  EXPECT_EQ(bytes, 8192u);
  EXPECT_EQ(base[0], 7);
  EXPECT_EQ(base[8191], 0);
  EXPECT_EQ(AnonArrayGrow(4096, nullptr, 0, 8, &bytes), nullptr);
  EXPECT_EQ(bytes, 0u);
  AnonArrayFree(base);
}

TEST(PageHelpers, UnknownProtectModeAndHugePagesRaiseErrors) {
  auto *block = static_cast<char *>(MemoryMap(3 * 4096));
  EXPECT_EQ(MemoryProtectEx(block, 3 * 4096, 2), 0);
  EXPECT_EQ(Error(), std::to_string(KZ_ERROR_CODE(2, 0)) + " invalid mode kzlib/kzlib:6074");
  block[0] = 1;  // mode 2 changed nothing: still writable
  EXPECT_EQ(MemoryUnmap(block, 3 * 4096), 1);
  EXPECT_EQ(MemoryHugePagesAlloc(1 << 21), nullptr);
  EXPECT_EQ(Error(), std::to_string(KZ_ERROR_CODE(0, 40)) + " huge pages not implemented on this OS kzlib/kzlib:5969");
  KZErrorClear();
}

TEST(Pools, CompactAndFreeDestroyInOrder) {
  static std::vector<void *> destroyed;  // null for an operation other than destroy
  auto record = [](int op, void *object, void *) { destroyed.push_back(op == KZ_POOL_DESTROY ? object : nullptr); };
  KZPool pool = KZ_POOL_INITIALIZER(+record);
  std::vector<void *> made;
  for (int i = 0; i < 5; i++) PoolPut(&pool, made.emplace_back(Allocate(16, nullptr)));
  destroyed.clear();
  PoolCompact_(&pool, nullptr);
  EXPECT_EQ(destroyed, made);
  EXPECT_EQ(pool.count, 0u);
  EXPECT_NE(pool.items, nullptr);  // the items kept for reuse
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
