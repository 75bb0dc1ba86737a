// Growable arrays: one record, one growth rule, three storage families.
#include "kz/array.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal/context.h"
#include "kz/memory.h"
#include "kz/message.h"

namespace {

template <typename Count>
struct Record {
  void *elements;
  Count count;
  Count capacity;
};
using Small = Record<uint32_t>;
using Big = Record<uint64_t>;

constexpr uint64_t kSmallMax = 4294967295ull;
constexpr uint64_t kBigMax = 9223372036854775807ull;
constexpr uint64_t kMappedMax = 18446744073709551615ull;

// x 1.2 in double precision, back by truncation; values of 2^63 and above
// convert through the unsigned path.
uint64_t GrowByFifth(uint64_t c) {
  double grown = static_cast<double>(c) * 1.2;
  if (grown >= 18446744073709551616.0) return ~0ull;  // out of range: saturate
  return static_cast<uint64_t>(grown);
}

uint64_t NextSize(uint64_t capacity, uint64_t required, uint64_t maxSize, bool big) {
  uint64_t c = capacity ? capacity : 4;
  if (c >= required) return c;
  while (c <= maxSize - 1) {
    if (c < 1024) {
      c *= 4;
    } else if (c < 16777216) {
      c *= 2;
    } else if (c < 134217728) {
      c = c * 3 / 2;
    } else {
      uint64_t old = c;
      c = GrowByFifth(c);
      if (!big)
        KZ_CHECK(c > old, "newCapacity > oldCapacity || ! \"requested buffer is too large\"", "kzlib/array", 88);
      if (c >= maxSize) {
        c = maxSize - 1;
        if (c == capacity) {
          if (big) kzassert_("newCapacity != capacity", "kzlib/array", 196);
          kzassert_("newCapacity != capacity || ! \"requested buffer is too large\"", "kzlib/array", 91);
        }
      }
    }
    if (c >= required) return c;
  }
  // Exhausted growth: the assertion's exact raw write, hook and abort.
  kzassert_("newCapacity <= maxSize - 1", "kzlib/array", big ? 185 : 78);
}

template <typename R>
void FreeRecord(R *array) {
  free(array->elements);
  array->elements = nullptr;
  array->count = 0;
  array->capacity = 0;
}

template <typename R>
void Shrink(R *array, decltype(R::capacity) newCapacity, size_t eltSize, const char *file, uint32_t line) {
  if (!(array->capacity > newCapacity && array->count <= newCapacity)) return;
  if (newCapacity == 0) {
    free(array->elements);
    array->elements = nullptr;
    array->capacity = 0;
    return;
  }
  array->elements = Allocate_(newCapacity * eltSize, array->elements, file, line);
  array->capacity = newCapacity;
}

// Heap families: one step of the growth rule, resized in place.
template <typename R>
void *Grow(R *array, size_t eltSize, const char *file, uint32_t line, uint64_t maxSize, bool big) {
  uint64_t next = NextSize(array->capacity, uint64_t(array->capacity) + 1, maxSize, big);
  array->elements = Allocate_(next * eltSize, array->elements, file, line);
  array->capacity = static_cast<decltype(R::capacity)>(next);
  return array->elements;
}

template <typename R>
void GrowExact(R *array, decltype(R::capacity) newCapacity, size_t eltSize, const char *file, uint32_t line) {
  if (array->capacity >= newCapacity) return;
  array->elements = Allocate_(size_t(newCapacity) * eltSize, array->elements, file, line);
  array->capacity = newCapacity;
}

// Copy for the heap families; `next` is the capacity to grow to when the
// destination is too small. The old contents are discarded before allocating:
// they would be overwritten anyway.
template <typename R>
void CopyInto(R *to, const R *from, size_t eltSize, uint64_t next, const char *file, uint32_t line) {
  if (to->capacity < from->count) {
    free(to->elements);
    to->elements = nullptr;
    to->capacity = 0;
    to->elements = Allocate_(next * eltSize, nullptr, file, line);
    to->capacity = static_cast<decltype(R::capacity)>(next);
  }
  if (from->count) memcpy(to->elements, from->elements, size_t(from->count) * eltSize);
  to->count = from->count;
}

}  // namespace

extern "C" {

KZ_API uint64_t ArrayNextSize(uint64_t capacity, uint64_t required, uint64_t maxSize) {
  return NextSize(capacity, required, maxSize, false);
}

KZ_API uint64_t BigArrayNextSize(uint64_t capacity, uint64_t required, uint64_t maxSize) {
  return NextSize(capacity, required, maxSize, true);
}

// ---- 32-bit family ----

KZ_API int ArrayInit_(void *array) {
  memset(array, 0, sizeof(Small));
  return 0;
}

KZ_API void ArrayFree_(void *array) { FreeRecord(static_cast<Small *>(array)); }

KZ_API void *ArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line) {
  return Grow(static_cast<Small *>(array), eltSize, file, line, kSmallMax, false);
}

KZ_API void ArrayGrowExact_(void *array, uint32_t newCapacity, size_t eltSize, const char *file, uint32_t line) {
  KZ_CHECK(newCapacity < 2147483647u, "eltCount < UINT_MAX_VALUE / 2", "kzlib/array", 114);
  GrowExact(static_cast<Small *>(array), newCapacity, eltSize, file, line);
}

KZ_API void ArrayShrink_(void *array, uint32_t newCapacity, size_t eltSize, const char *file, uint32_t line) {
  Shrink(static_cast<Small *>(array), newCapacity, eltSize, file, line);
}

KZ_API void ArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                       const char *file, uint32_t line) {
  KZ_CHECK(destinationEltSize == sourceEltSize, "aSize == bSize", "kzlib/array", 144);
  auto *to = static_cast<Small *>(destination);
  auto *from = static_cast<const Small *>(source);
  uint64_t next = to->capacity < from->count ? ArrayNextSize(to->capacity, from->count, kSmallMax) : 0;
  CopyInto(to, from, destinationEltSize, next, file, line);
}

// ---- 64-bit family ----

KZ_API int BigArrayInit_(void *array) {
  memset(array, 0, sizeof(Big));
  return 0;
}

KZ_API void BigArrayFree_(void *array) { FreeRecord(static_cast<Big *>(array)); }

KZ_API void *BigArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line) {
  return Grow(static_cast<Big *>(array), eltSize, file, line, kBigMax, true);
}

KZ_API void BigArrayGrowExact_(void *array, uint64_t newCapacity, size_t eltSize, const char *file, uint32_t line) {
  KZ_CHECK(newCapacity < 9223372036854775807ull, "eltCount < ULONG_MAX_VALUE / 2", "kzlib/array", 220);
  GrowExact(static_cast<Big *>(array), newCapacity, eltSize, file, line);
}

KZ_API void BigArrayShrink_(void *array, uint64_t newCapacity, size_t eltSize, const char *file, uint32_t line) {
  Shrink(static_cast<Big *>(array), newCapacity, eltSize, file, line);
}

KZ_API void BigArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                          const char *file, uint32_t line) {
  KZ_CHECK(destinationEltSize == sourceEltSize, "aSize == bSize", "kzlib/array", 250);
  auto *to = static_cast<Big *>(destination);
  auto *from = static_cast<const Big *>(source);
  // The grown capacity is cut to its low 32 bits; programs rely on the
  // historical behaviour, so the narrowing stays.
  uint64_t next =
      to->capacity < from->count ? static_cast<uint32_t>(BigArrayNextSize(to->capacity, from->count, kBigMax)) : 0;
  CopyInto(to, from, destinationEltSize, next, file, line);
}

// ---- mapped family ----

KZ_API int VMArrayInit_(void *array) { return BigArrayInit_(array); }

KZ_API int VMArrayFree_(void *array, size_t eltSize) {
  auto *a = static_cast<Big *>(array);
  if (a->elements && a->capacity * eltSize != 0) {
    int savedErrno = errno;
    if (MemoryUnmap_(a->elements, a->capacity * eltSize)) errno = savedErrno;
  }
  memset(a, 0, sizeof *a);
  return 0;
}

namespace {

[[noreturn]] void MapFailed(void *old, uint64_t size, const char *file, uint32_t line) {
  KZSetMessageContext2_(file, line, nullptr, nullptr, 4, 1);
  KZMessage_("memory map failed: ptr=%p size=%lu", old, static_cast<unsigned long>(static_cast<uint32_t>(size)));
  exit(1);
}

}  // namespace

KZ_API void *VMArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line) {
  auto *a = static_cast<Big *>(array);
  uint64_t next = ArrayNextSize(a->capacity, a->capacity + 1, kMappedMax);
  uint64_t newSize = next * eltSize;
  void *grown = MemoryRemap_(a->elements, a->capacity * eltSize, newSize, file, line);
  if (!grown && newSize != 0) MapFailed(a->elements, newSize, file, line);
  a->elements = grown;
  a->capacity = next;
  return grown;
}

KZ_API void VMArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                         const char *file, uint32_t line) {
  KZ_CHECK(destinationEltSize == sourceEltSize, "aSize == bSize", "kzlib/array", 336);
  auto *to = static_cast<Big *>(destination);
  auto *from = static_cast<const Big *>(source);
  if (to->capacity < from->count) {
    uint64_t next = ArrayNextSize(to->capacity, from->count, kMappedMax);
    if (to->elements && to->capacity * destinationEltSize != 0) {
      int savedErrno = errno;
      if (MemoryUnmap_(to->elements, to->capacity * destinationEltSize)) errno = savedErrno;
    }
    to->elements = nullptr;
    to->capacity = 0;
    uint64_t newSize = next * destinationEltSize;
    void *fresh = MemoryMap_(newSize, file, line);
    if (!fresh && newSize != 0) MapFailed(nullptr, newSize, file, line);
    to->elements = fresh;
    to->capacity = next;
  }
  if (from->count) memcpy(to->elements, from->elements, from->count * destinationEltSize);
  to->count = from->count;
}

}  // extern "C"
