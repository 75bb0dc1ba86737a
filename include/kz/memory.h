/* kzlib: checked allocation, anonymous mappings, page helpers and pools.
 *
 * The checked allocators make running out of memory fatal: they report
 * "malloc failed: ptr=0x%p size=%lu" at message level 5 (KZ_LEVEL_FATAL) with the caller's file
 * and line (plus the process memory counters for requests over 8192 bytes) and
 * abort, so callers never test for null. AllocateUnsafe_ alone returns null.
 * Every block handed out is released with the C library's free().
 */
#ifndef KZ_MEMORY_H
#define KZ_MEMORY_H

#include <stdio.h>
#include "kz/base.h"

KZ_BEGIN_DECLS

/* ---- checked heap allocation ------------------------------------------ */

/* realloc(old, size). Size 0 releases the old block and returns what realloc
 * returns for 0. Failure is fatal. */
KZ_API void *Allocate_(size_t size, void *old, const char *file, uint32_t line);
/* Same resize; on failure raises an error ("malloc failed: ...", with the
 * out-of-memory errno) and returns null, leaving the old block valid. */
KZ_API void *AllocateUnsafe_(size_t size, void *old, const char *file, uint32_t line);
/* Zero-filled block. Failure is fatal. */
KZ_API void *Allocate0_(size_t size, const char *file, uint32_t line);
/* A block of at least size bytes with *aligned set to an address inside it
 * that is a multiple of alignment (any non-zero value, not only powers of
 * two). Returns the block to free, not the aligned address. Alignment 0 is an
 * assertion failure, checked after the allocation. */
KZ_API void *AllocateAligned_(size_t size, size_t alignment, void **aligned, const char *file, uint32_t line);
/* Copy of a NUL-terminated string; failure is fatal ("strdup failed"). */
KZ_API char *Strdup_(const char *string, const char *file, uint32_t line);
/* Copy of at most maxLength bytes, stopping at the first NUL; always
 * NUL-terminated. */
KZ_API char *Strndup_(const char *string, uint32_t maxLength, const char *file, uint32_t line);
/* One line of process memory counters; an empty string on failure. */
KZ_API void KZDumpMemStats(char *buffer, size_t size);

#define Allocate(size, old)                       Allocate_((size), (old), __FILE__, __LINE__)
#define AllocateUnsafe(size, old)                 AllocateUnsafe_((size), (old), __FILE__, __LINE__)
#define Allocate0(size)                           Allocate0_((size), __FILE__, __LINE__)
#define AllocateAligned(size, alignment, aligned) AllocateAligned_((size), (alignment), (aligned), __FILE__, __LINE__)
#define Strdup(s)                                 Strdup_((s), __FILE__, __LINE__)
#define Strndup(s, n)                             Strndup_((s), (n), __FILE__, __LINE__)

/* ---- forwards to the C library heap ------------------------------------ */

KZ_API void *kz_libc_calloc(size_t count, size_t size);
KZ_API void *kz_libc_malloc(size_t size);
KZ_API void *kz_libc_realloc(void *block, size_t size);
KZ_API char *kz_libc_strdup(const char *string);
KZ_API FILE *kz_libc_fopen(const char *path, const char *mode);

/* ---- anonymous memory --------------------------------------------------- */

/* Zero-filled read-write anonymous mapping, or null (errno -1; size 0 gives
 * null with errno 0). */
KZ_API void *MemoryMap_(size_t size, const char *file, uint32_t line);
/* 1 on success (a null address or size 0 does nothing); 0 with errno -1. */
KZ_API int MemoryUnmap_(void *address, size_t size);
/* New mapping holding min(old, new) bytes of the old one; the old mapping is
 * released. New size 0 releases the old block and returns null. */
KZ_API void *MemoryRemap_(void *old, size_t oldSize, size_t newSize, const char *file, uint32_t line);
/* Resize an anonymous block of ceil(count x width / (8 x unit)) x unit bytes
 * (width in bits); an 8-byte size header precedes the returned base. */
KZ_API void *AnonArrayGrow_(size_t unit, void *oldBase, uint64_t count, uint64_t width, uint64_t *outSize,
                            const char *file, uint32_t line);
KZ_API void AnonArrayFree_(void *base, const char *file, uint32_t line);

#define MemoryMap(size)                    MemoryMap_((size), __FILE__, __LINE__)
#define MemoryUnmap(address, size)         MemoryUnmap_((address), (size))
#define MemoryRemap(old, oldSize, newSize) MemoryRemap_((old), (oldSize), (newSize), __FILE__, __LINE__)
#define AnonArrayGrow(unit, base, count, width, outSize) \
  AnonArrayGrow_((unit), (base), (count), (width), (outSize), __FILE__, __LINE__)
#define AnonArrayFree(base) AnonArrayFree_((base), __FILE__, __LINE__)

/* ---- page helpers ------------------------------------------------------- */

/* Touch one byte in every page of the range; always 1. */
KZ_API int MemoryLoad(const void *address, size_t length);
KZ_API int MemoryLock(void *address, size_t length);
KZ_API int MemoryUnlock(void *address, size_t length);
/* mode bit 1 readable, bit 2 writable; mode 2 alone is refused ("invalid
 * mode", error KZ_ERR_GENERAL). 1 on success, 0 on failure. */
KZ_API int MemoryProtectEx(void *address, size_t length, int mode);
KZ_API int MemoryProtect(void *address, size_t length, int readOnly);
KZ_API int MemoryDisable(void *address, size_t length);
/* Not implemented on this platform: raises errno-domain error 40. */
KZ_API void *MemoryHugePagesAlloc(size_t size);
KZ_API int MemoryHugePagesFree(void *address, size_t size);

/* ---- pools --------------------------------------------------------------- */

/* Callback operation code asking the callback to destroy the object. */
#define KZ_POOL_DESTROY 3

typedef void (*KZPoolCallback)(int operation, void *object, void *argument);

struct KZCriticalSection;

/* A pool of objects shared between threads; its lock is created on first use.
 * Initialise statically with KZ_POOL_INITIALIZER(callback). */
typedef struct KZPool {
  void **items;
  uint32_t count;
  uint32_t capacity;
  KZPoolCallback callback;
  struct KZCriticalSection *lock;
} KZPool;

/* A pool owned by one thread: no lock. */
typedef struct KZLocalPool {
  void **items;
  uint32_t count;
  uint32_t capacity;
  KZPoolCallback callback;
} KZLocalPool;

#define KZ_POOL_INITIALIZER(callback) \
  { 0, 0, 0, (callback), (struct KZCriticalSection *)~(uintptr_t)0 }
#define KZ_LOCAL_POOL_INITIALIZER(callback) \
  { 0, 0, 0, (callback) }

/* Destroy every pooled object (callback with KZ_POOL_DESTROY, then free) and
 * empty the pool, keeping the items array for reuse. */
KZ_API void PoolCompact_(KZPool *pool, void *argument);
/* Compact, free the items array, destroy the lock. */
KZ_API void PoolFree_(KZPool *pool, void *argument);
KZ_API void LocalCPoolCompact_(KZLocalPool *pool, void *argument);
KZ_API void LocalCPoolFree_(KZLocalPool *pool, void *argument);
/* Put an object into the pool (it then owns it); take one out, or null. */
KZ_API void PoolPut_(KZPool *pool, void *object, const char *file, uint32_t line);
KZ_API void *PoolGet_(KZPool *pool);
KZ_API void LocalCPoolPut_(KZLocalPool *pool, void *object, const char *file, uint32_t line);
KZ_API void *LocalCPoolGet_(KZLocalPool *pool);

#define PoolPut(pool, object)       PoolPut_((pool), (object), __FILE__, __LINE__)
#define PoolGet(pool)               PoolGet_(pool)
#define LocalCPoolPut(pool, object) LocalCPoolPut_((pool), (object), __FILE__, __LINE__)
#define LocalCPoolGet(pool)         LocalCPoolGet_(pool)

/* ---- inert debugging entry points ------------------------------------------
 * Programs written for the library's debugging allocator call these; this build
 * has no debugging allocator, so each is inert and says so in its result. None
 * touches its arguments or records an error. */

/* Do nothing. */
KZ_API void DEBUG_MALLOC_DUMP(void);
KZ_API void DEBUG_MALLOC_DUMP_INFO(void);
KZ_API void DEBUG_MALLOC_DUMP_SORTED(void);
KZ_API void DEBUG_MALLOC_DUMP_SORTED_SIZE(void);
KZ_API void DEBUG_MALLOC_DUMP_SORTED_SIZE2(void);
KZ_API void DEBUG_MALLOC_FREE_SORTED_SIZE2(void);
KZ_API void DEBUG_MALLOC_LOCK(void);
KZ_API void DEBUG_MALLOC_UNLOCK(void);
/* No prefetch is issued; the memory is not read. */
KZ_API void MemoryPrefetch(const void *address, size_t length);
/* The allocator has no core hook: the hook is ignored. */
KZ_API void KZSetMoreCoreHook(void *hook);
KZ_API void KZResetMoreCoreHook(void);
/* Nothing is ever allocated by VMapAlloc, so there is nothing to free. */
KZ_API void VMapFree(void *address);

/* Heap checks report a healthy heap: return 1. */
KZ_API int DEBUG_MALLOC_CHECK(void);
KZ_API int DEBUG_MALLOC_CHECK_BLOCK(void *block);
/* Paging advice is accepted and ignored: returns 1 ("done") whatever the
 * advice, so callers that treat 0 as failure go on. */
KZ_API int MemoryAdvise(void *address, size_t length, int advice);

/* Return 0: debugging is off, no fault is pending. */
KZ_API int DEBUG_MALLOC_ENABLED(void);
KZ_API int DEBUG_MALLOC_FAULT(void);
/* Return null: no block is known to the (absent) debugging allocator. */
KZ_API void *DEBUG_MALLOC_FIND_BLOCK_START(void *address);
KZ_API void *DEBUG_MALLOC_DUMP_SORTED_SIZE2_DIFF(void);
/* Virtual-map blocks are not available: VMapAlloc and VMapRealloc return null
 * (no error recorded, errno untouched); use MemoryMap_ / the virtual-memory
 * arrays for page-backed memory. */
KZ_API void *VMapAlloc(size_t size);
KZ_API void *VMapRealloc(void *address, size_t oldSize, size_t newSize);
/* Emits "No malloc debugging info available" at KZ_LEVEL_INFO (location
 * "kzlib/debugmalloc:1849"); returns 0. */
KZ_API int DEBUG_MALLOC_CHAIN(void);

KZ_END_DECLS

#endif /* KZ_MEMORY_H */
