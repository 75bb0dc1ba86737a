/* kzlib: growable arrays.
 *
 * One record and one growth rule serve every variable-length buffer. The
 * element type is not part of the record: each operation takes the element
 * size, and the calling macros below supply it with the caller's file and line
 * (used only in the "malloc failed" report when growth runs out of memory).
 *
 * Three families share the design:
 *   Array*    - 32-bit count and capacity, storage on the heap;
 *   BigArray* - 64-bit count and capacity, storage on the heap;
 *   VMArray*  - 64-bit count and capacity, storage in an anonymous mapping.
 *
 * An all-zero record is a valid empty array. Storage of the heap families is
 * released with free(); count is maintained by the caller except where an
 * operation says otherwise.
 *
 * Growth: 0 -> 4 -> 16 -> 64 -> 256 -> 1024, then doubling up to 16 Mi
 * elements, then x1.5 up to 128 Mi, then x1.2.
 */
#ifndef KZ_ARRAY_H
#define KZ_ARRAY_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* Declares an anonymous array record type with elements of type T. */
#define KZ_ARRAY(T)    \
  struct {             \
    T *elements;       \
    uint32_t count;    \
    uint32_t capacity; \
  }
#define KZ_BIG_ARRAY(T) \
  struct {              \
    T *elements;        \
    uint64_t count;     \
    uint64_t capacity;  \
  }

typedef struct KZArray {
  void *elements;
  uint32_t count;
  uint32_t capacity;
} KZArray;
typedef struct KZBigArray {
  void *elements;
  uint64_t count;
  uint64_t capacity;
} KZBigArray;

/* The byte array: the output buffer of every printf-style function. Writers
 * keep it NUL-terminated without counting the NUL. */
typedef struct UByteArray {
  unsigned char *elements;
  uint32_t count;
  uint32_t capacity;
} UByteArray;
typedef struct UByteBigArray {
  unsigned char *elements;
  uint64_t count;
  uint64_t capacity;
} UByteBigArray;
/* 16-bit units and 32-bit code points, the targets of the Unicode converters. */
typedef struct UShortArray {
  uint16_t *elements;
  uint32_t count;
  uint32_t capacity;
} UShortArray;
typedef struct UIntArray {
  uint32_t *elements;
  uint32_t count;
  uint32_t capacity;
} UIntArray;
typedef KZ_ARRAY(char *) StringPtrArray;

/* ---- 32-bit family ---------------------------------------------------- */

/* Zero pointer, count and capacity; returns 0. */
KZ_API int ArrayInit_(void *array);
/* Free the storage; zero pointer, count and capacity. */
KZ_API void ArrayFree_(void *array);
/* The capacity to grow to so that at least `required` elements fit:
 * capacity (4 when 0) if it already suffices, else the next step of the
 * growth rule. Exhausting maxSize is an assertion failure. */
KZ_API uint64_t ArrayNextSize(uint64_t capacity, uint64_t required, uint64_t maxSize);
/* Grow the capacity by one step of the growth rule; returns the (possibly
 * moved) elements pointer. Count is unchanged. */
KZ_API void *ArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line);
/* Grow the capacity to exactly newCapacity when it is smaller; never shrinks.
 * newCapacity of 2147483647 or more is an assertion failure. */
KZ_API void ArrayGrowExact_(void *array, uint32_t newCapacity, size_t eltSize, const char *file, uint32_t line);
/* Shrink the capacity to newCapacity when it is larger and count fits;
 * newCapacity 0 frees the storage. Otherwise does nothing. */
KZ_API void ArrayShrink_(void *array, uint32_t newCapacity, size_t eltSize, const char *file, uint32_t line);
/* Copy source into destination (element sizes must be equal). When the
 * destination must grow, its old contents are discarded before allocating. */
KZ_API void ArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                       const char *file, uint32_t line);

/* ---- 64-bit family ---------------------------------------------------- */

KZ_API int BigArrayInit_(void *array);
KZ_API void BigArrayFree_(void *array);
KZ_API uint64_t BigArrayNextSize(uint64_t capacity, uint64_t required, uint64_t maxSize);
KZ_API void *BigArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line);
KZ_API void BigArrayGrowExact_(void *array, uint64_t newCapacity, size_t eltSize, const char *file, uint32_t line);
KZ_API void BigArrayShrink_(void *array, uint64_t newCapacity, size_t eltSize, const char *file, uint32_t line);
/* As ArrayCopy_; the grown capacity is deliberately cut to its low 32 bits. */
KZ_API void BigArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                          const char *file, uint32_t line);

/* ---- mapped family (64-bit record, storage in an anonymous mapping) ---- */

KZ_API int VMArrayInit_(void *array);
/* Unmap the storage (a failure sets errno to -1 and is otherwise ignored),
 * zero the record; returns 0. */
KZ_API int VMArrayFree_(void *array, size_t eltSize);
/* Grow by one step; the mapping keeps its contents. A mapping failure is the
 * level 4 (KZ_LEVEL_EXIT) report "memory map failed: ptr=%p size=%lu" (exit status 1). */
KZ_API void *VMArrayGrow_(void *array, size_t eltSize, const char *file, uint32_t line);
KZ_API void VMArrayCopy_(void *destination, size_t destinationEltSize, const void *source, size_t sourceEltSize,
                         const char *file, uint32_t line);

/* ---- calling macros: `a` is an array record (not a pointer) ------------ */

#define ArrayLength(a)       ((a).count)
#define ArrayNth(a, i)       ((a).elements[i])
#define ArrayInit(a)         ArrayInit_(&(a))
#define ArrayFree(a)         ArrayFree_(&(a))
#define ArrayGrow(a)         ArrayGrow_(&(a), sizeof(*(a).elements), __FILE__, __LINE__)
#define ArrayGrowExact(a, n) ArrayGrowExact_(&(a), (n), sizeof(*(a).elements), __FILE__, __LINE__)
#define ArrayShrink(a, n)    ArrayShrink_(&(a), (n), sizeof(*(a).elements), __FILE__, __LINE__)
#define ArrayCopy(dst, src) \
  ArrayCopy_(&(dst), sizeof(*(dst).elements), &(src), sizeof(*(src).elements), __FILE__, __LINE__)
/* Append one value, growing when full. */
#define ArrayAppend(a, value)                    \
  do {                                           \
    if ((a).count >= (a).capacity) ArrayGrow(a); \
    (a).elements[(a).count++] = (value);         \
  } while (0)

#define BigArrayInit(a)         BigArrayInit_(&(a))
#define BigArrayFree(a)         BigArrayFree_(&(a))
#define BigArrayGrow(a)         BigArrayGrow_(&(a), sizeof(*(a).elements), __FILE__, __LINE__)
#define BigArrayGrowExact(a, n) BigArrayGrowExact_(&(a), (n), sizeof(*(a).elements), __FILE__, __LINE__)
#define BigArrayShrink(a, n)    BigArrayShrink_(&(a), (n), sizeof(*(a).elements), __FILE__, __LINE__)
#define BigArrayCopy(dst, src) \
  BigArrayCopy_(&(dst), sizeof(*(dst).elements), &(src), sizeof(*(src).elements), __FILE__, __LINE__)
#define BigArrayAppend(a, value)                    \
  do {                                              \
    if ((a).count >= (a).capacity) BigArrayGrow(a); \
    (a).elements[(a).count++] = (value);            \
  } while (0)

#define VMArrayInit(a) VMArrayInit_(&(a))
#define VMArrayFree(a) VMArrayFree_(&(a), sizeof(*(a).elements))
#define VMArrayGrow(a) VMArrayGrow_(&(a), sizeof(*(a).elements), __FILE__, __LINE__)
#define VMArrayCopy(dst, src) \
  VMArrayCopy_(&(dst), sizeof(*(dst).elements), &(src), sizeof(*(src).elements), __FILE__, __LINE__)
#define VMArrayAppend(a, value)                    \
  do {                                             \
    if ((a).count >= (a).capacity) VMArrayGrow(a); \
    (a).elements[(a).count++] = (value);           \
  } while (0)

KZ_END_DECLS

#endif /* KZ_ARRAY_H */
