// Checked allocation, anonymous mappings, page helpers, pools and the inert
// debugging entry points.
#include "kz/memory.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/memory.h"
#include "kz/error.h"
#include "kz/message.h"

namespace {

// Requests above this size carry the process memory counters in their report.
constexpr size_t kReportCountersAbove = 8192;

// Fatal report of a failed allocation: level 5 with the caller's location and
// the current error (the out-of-memory errno) appended; never returns.
[[noreturn]] void FatalAllocation(const void *old, size_t size, const char *file, uint32_t line) {
  int savedErrno = errno;
  KZSetMessageContext2_(file, line, nullptr, nullptr, 5, 1);
  errno = savedErrno;
  char counters[255];
  counters[0] = '\0';
  if (size > kReportCountersAbove) KZDumpMemStats(counters, sizeof counters);
  unsigned long lowSize = static_cast<uint32_t>(size);
  if (counters[0])
    KZMessage_("malloc failed: ptr=0x%p size=%lu, process={%s}", old, lowSize, counters);
  else
    KZMessage_("malloc failed: ptr=0x%p size=%lu", old, lowSize);
  abort();  // level 5 does not return; this keeps the compiler's view honest
}

}  // namespace

extern "C" {

KZ_API void *Allocate_(size_t size, void *old, const char *file, uint32_t line) {
  void *block = realloc(old, size);
  if (block || size == 0) return block;
  FatalAllocation(old, size, file, line);
}

KZ_API void *AllocateUnsafe_(size_t size, void *old, const char *file, uint32_t line) {
  void *block = realloc(old, size);
  if (block || size == 0) return block;
  int savedErrno = errno;
  KZSetMessageContext2_(file, line, nullptr, nullptr, 3, 1);
  errno = savedErrno ? savedErrno : ENOMEM;
  KZErrorRethrow_("malloc failed: ptr=0x%p size=%lu", old, static_cast<unsigned long>(static_cast<uint32_t>(size)));
  return nullptr;
}

KZ_API void *Allocate0_(size_t size, const char *file, uint32_t line) {
  void *block = calloc(1, size);
  if (block || size == 0) return block;
  FatalAllocation(nullptr, size, file, line);
}

KZ_API void *AllocateAligned_(size_t size, size_t alignment, void **aligned, const char *file, uint32_t line) {
  void *block = Allocate_(size, nullptr, file, line);
  // Checked after the allocation, as programs have always seen it.
  KZ_CHECK(alignment > 0, "align > 0", "kzlib/kzlib", 4335);
  uintptr_t address = reinterpret_cast<uintptr_t>(block);
  if (address % alignment == 0) {
    *aligned = block;
    return block;
  }
  block = Allocate_(size + alignment - 1, block, file, line);
  address = reinterpret_cast<uintptr_t>(block);
  uintptr_t remainder = address % alignment;
  *aligned = reinterpret_cast<void *>(remainder ? address + (alignment - remainder) : address);
  return block;
}

KZ_API char *Strdup_(const char *string, const char *file, uint32_t line) {
  char *copy = strdup(string);
  if (copy) return copy;
  int savedErrno = errno;
  KZSetMessageContext2_(file, line, nullptr, nullptr, 5, 1);
  errno = savedErrno;
  KZMessage_("strdup failed: ptr=0x%p", static_cast<const void *>(string));
  abort();
}

KZ_API char *Strndup_(const char *string, uint32_t maxLength, const char *file, uint32_t line) {
  size_t length = strnlen(string, maxLength);
  char *copy = static_cast<char *>(malloc(length + 1));
  if (!copy) FatalAllocation(nullptr, length + 1, file, line);
  memcpy(copy, string, length);
  copy[length] = '\0';
  return copy;
}

KZ_API void KZDumpMemStats(char *buffer, size_t size) {
  if (!buffer || size == 0) return;
  if (!kz::os::FormatMemoryCounters(buffer, size)) buffer[0] = '\0';
}

// ---- forwards to the C library heap ----

KZ_API void *kz_libc_calloc(size_t count, size_t size) { return calloc(count, size); }
KZ_API void *kz_libc_malloc(size_t size) { return malloc(size); }
KZ_API void *kz_libc_realloc(void *block, size_t size) { return realloc(block, size); }
KZ_API char *kz_libc_strdup(const char *string) { return strdup(string); }
KZ_API FILE *kz_libc_fopen(const char *path, const char *mode) { return fopen(path, mode); }

// ---- anonymous memory ----

KZ_API void *MemoryMap_(size_t size, const char *file, uint32_t line) {
  if (size == 0) {
    errno = 0;
    return nullptr;
  }
  return kz::os::MapAnonymous(size);
}

KZ_API int MemoryUnmap_(void *address, size_t size) {
  if (!address || size == 0) return 1;
  return kz::os::Unmap(address, size) ? 1 : 0;
}

KZ_API void *MemoryRemap_(void *old, size_t oldSize, size_t newSize, const char *file, uint32_t line) {
  if (old && oldSize != 0 && newSize != 0) {
    // The kernel moves the pages instead of copying them; contents and the
    // zero-filled tail are as with a fresh mapping plus copy.
    auto *moved = static_cast<char *>(kz::os::Remap(old, oldSize, newSize));
    if (moved && newSize > oldSize) {
      // Bytes past the old size in its last page may hold data from before a
      // shrink; a fresh mapping would read zero there.
      size_t page = kz::os::PageSize();
      size_t pageEnd = (oldSize + page - 1) / page * page;
      size_t end = newSize < pageEnd ? newSize : pageEnd;
      if (end > oldSize) memset(moved + oldSize, 0, end - oldSize);
    }
    return moved;
  }
  void *fresh = MemoryMap_(newSize, file, line);
  if (!fresh && newSize != 0) return nullptr;
  if (oldSize != 0 && old) {
    int savedErrno = errno;
    if (kz::os::Unmap(old, oldSize)) errno = savedErrno;
  }
  return fresh;
}

KZ_API void *AnonArrayGrow_(size_t unit, void *oldBase, uint64_t count, uint64_t width, uint64_t *outSize,
                            const char *file, uint32_t line) {
  uint64_t total = count * width;
  uint64_t bytes = total % (8 * unit) == 0 ? total / 8 : (total / (8 * unit) + 1) * unit;
  if (outSize) *outSize = bytes;
  if (bytes == 0) return nullptr;
  uint64_t *oldHeader = oldBase ? static_cast<uint64_t *>(oldBase) - 1 : nullptr;
  uint64_t oldTotal = oldHeader ? *oldHeader : 0;
  auto *header = static_cast<uint64_t *>(MemoryRemap_(oldHeader, oldTotal, bytes + 8, file, line));
  if (!header) {
    KZSetMessageContext2_(file, line, nullptr, nullptr, 5, 1);
    KZMessage_("array malloc failed: ptr=%p size=%lu", oldBase,
               static_cast<unsigned long>(static_cast<uint32_t>(bytes)));
    abort();
  }
  *header = bytes + 8;
  return header + 1;
}

KZ_API void AnonArrayFree_(void *base, const char *file, uint32_t line) {
  if (!base) return;
  uint64_t *header = static_cast<uint64_t *>(base) - 1;
  if (*header == 0) return;
  if (!kz::os::Unmap(header, *header)) {
    KZSetMessageContext2_(file, line, nullptr, nullptr, 5, 1);
    KZMessage_("array free failed: base=%p", base);
  }
}

// ---- page helpers ----

KZ_API int MemoryLoad(const void *address, size_t length) {
  size_t page = kz::os::PageSize();
  uintptr_t start = reinterpret_cast<uintptr_t>(address);
  uintptr_t offset = start % page;
  start -= offset;
  length += offset;
  length = (length + page - 1) / page * page;
  for (size_t at = 0; at < length; at += page) {
    (void)*reinterpret_cast<const volatile char *>(start + at);
  }
  return 1;
}

KZ_API int MemoryLock(void *address, size_t length) { return kz::os::Lock(address, length) ? 1 : 0; }
KZ_API int MemoryUnlock(void *address, size_t length) { return kz::os::Unlock(address, length) ? 1 : 0; }

KZ_API int MemoryProtectEx(void *address, size_t length, int mode) {
  if (length == 0) return 1;
  if (mode == 2) {
    KZ_THROW_AT("kzlib/kzlib", 6074, "MemoryProtectEx", KZ_ERROR_CODE(2, 0), "invalid mode");
    return 0;
  }
  return kz::os::Protect(address, length, mode & 3) ? 1 : 0;
}

KZ_API int MemoryProtect(void *address, size_t length, int readOnly) {
  return MemoryProtectEx(address, length, readOnly ? 1 : 3);
}

KZ_API int MemoryDisable(void *address, size_t length) { return MemoryProtectEx(address, length, 0); }

KZ_API void *MemoryHugePagesAlloc(size_t size) {
  if (size == 0) {
    errno = 0;
    return nullptr;
  }
  KZ_THROW_AT("kzlib/kzlib", 5969, "MemoryHugePagesAlloc", KZ_ERROR_CODE(0, 40),
              "huge pages not implemented on this OS");
  return nullptr;
}

// ---- pools ----

}  // extern "C"

namespace {

template <typename Pool>
void DestroyPooled(Pool *pool, void *argument) {
  for (uint32_t i = 0; i < pool->count; i++) {
    if (pool->callback) pool->callback(KZ_POOL_DESTROY, pool->items[i], argument);
    free(pool->items[i]);
  }
  pool->count = 0;
}

template <typename Pool>
void ReleaseItems(Pool *pool) {
  if (pool->capacity != 0) {
    free(pool->items);
    pool->items = nullptr;
    pool->count = 0;
    pool->capacity = 0;
  }
}

template <typename Pool>
void PutItem(Pool *pool, void *object, const char *file, uint32_t line) {
  if (pool->count >= pool->capacity) {
    uint64_t next = ArrayNextSize(pool->capacity, uint64_t(pool->count) + 1, 4294967295u);
    pool->items = static_cast<void **>(Allocate_(next * sizeof(void *), pool->items, file, line));
    pool->capacity = static_cast<uint32_t>(next);
  }
  pool->items[pool->count++] = object;
}

}  // namespace

extern "C" {

KZ_API void PoolCompact_(KZPool *pool, void *argument) {
  kz::LazyLockGuard hold(&pool->lock);
  DestroyPooled(pool, argument);
}

KZ_API void PoolFree_(KZPool *pool, void *argument) {
  PoolCompact_(pool, argument);
  ReleaseItems(pool);
  KZCriticalSection *lock = pool->lock;
  pool->lock = kz::kLockUnset;  // the pool may be used again: a new lock is made on demand
  kz::os::CriticalSectionDelete(lock);
}

KZ_API void LocalCPoolCompact_(KZLocalPool *pool, void *argument) { DestroyPooled(pool, argument); }

KZ_API void LocalCPoolFree_(KZLocalPool *pool, void *argument) {
  DestroyPooled(pool, argument);
  ReleaseItems(pool);
}

KZ_API void PoolPut_(KZPool *pool, void *object, const char *file, uint32_t line) {
  kz::LazyLockGuard hold(&pool->lock);
  PutItem(pool, object, file, line);
}

KZ_API void *PoolGet_(KZPool *pool) {
  kz::LazyLockGuard hold(&pool->lock);
  return pool->count ? pool->items[--pool->count] : nullptr;
}

KZ_API void LocalCPoolPut_(KZLocalPool *pool, void *object, const char *file, uint32_t line) {
  PutItem(pool, object, file, line);
}

KZ_API void *LocalCPoolGet_(KZLocalPool *pool) { return pool->count ? pool->items[--pool->count] : nullptr; }

// ---- inert debugging entry points ----

KZ_API void DEBUG_MALLOC_DUMP(void) {}
KZ_API void DEBUG_MALLOC_DUMP_INFO(void) {}
KZ_API void DEBUG_MALLOC_DUMP_SORTED(void) {}
KZ_API void DEBUG_MALLOC_DUMP_SORTED_SIZE(void) {}
KZ_API void DEBUG_MALLOC_DUMP_SORTED_SIZE2(void) {}
KZ_API void DEBUG_MALLOC_FREE_SORTED_SIZE2(void) {}
KZ_API void DEBUG_MALLOC_LOCK(void) {}
KZ_API void DEBUG_MALLOC_UNLOCK(void) {}
KZ_API void MemoryPrefetch(const void *, size_t) {}
KZ_API void KZSetMoreCoreHook(void *) {}
KZ_API void KZResetMoreCoreHook(void) {}
KZ_API void VMapFree(void *) {}
KZ_API int DEBUG_MALLOC_CHECK(void) { return 1; }
KZ_API int DEBUG_MALLOC_CHECK_BLOCK(void *) { return 1; }
KZ_API int MemoryAdvise(void *, size_t, int) { return 1; }
KZ_API int DEBUG_MALLOC_ENABLED(void) { return 0; }
KZ_API int DEBUG_MALLOC_FAULT(void) { return 0; }
KZ_API void *DEBUG_MALLOC_FIND_BLOCK_START(void *) { return nullptr; }
KZ_API void *DEBUG_MALLOC_DUMP_SORTED_SIZE2_DIFF(void) { return nullptr; }
KZ_API int MemoryHugePagesFree(void *, size_t) { return 0; }
KZ_API void *VMapAlloc(size_t) { return nullptr; }
KZ_API void *VMapRealloc(void *, size_t, size_t) { return nullptr; }

KZ_API int DEBUG_MALLOC_CHAIN(void) {
  KZ_MESSAGE_AT("kzlib/debugmalloc", 1849, "DEBUG_MALLOC_CHAIN", 1, 0, "No malloc debugging info available");
  return 0;
}

}  // extern "C"
