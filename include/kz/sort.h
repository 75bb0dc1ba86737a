/* kzlib: in-place sorting with a caller context.
 *
 * QSort is an engineered quicksort whose comparison function receives a
 * pointer chosen by the caller, so sorting needs no global state: it is
 * reentrant and safe to call from any number of threads at once (on distinct
 * arrays).
 */
#ifndef KZ_SORT_H
#define KZ_SORT_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* Compares the elements at a and b (both inside the array being sorted):
 * negative when a sorts before b, zero when they are equal, positive when a
 * sorts after b. context is the pointer given to QSort, passed through as is. */
typedef int32_t (*KZCompareFunction)(const void *a, const void *b, void *context);

/* Sorts count elements of elementSize bytes starting at base into ascending
 * order of compare, in place. The sort is not stable: equal elements may end
 * up in any order. Nothing is allocated and nothing is returned.
 *
 * - count 0 or 1 (or elementSize 0): the array is left as it is and compare is
 *   never called; base may then be null.
 * - Fewer than 7 elements are sorted by insertion sort alone.
 * - Larger arrays are partitioned around the median of the first, middle and
 *   last elements (over 7 elements) or the median of three such medians spaced
 *   count / 8 apart (over 40 elements). Keys equal to the pivot are gathered
 *   at both ends during the scan and then moved to the middle, so arrays with
 *   many duplicates sort quickly. A partition that moves nothing (the range
 *   was already in order around its pivot) finishes the range with insertion
 *   sort, so sorted input costs a linear number of comparisons.
 * - Elements are exchanged in 32-bit words when base and elementSize are both
 *   multiples of 4, byte by byte otherwise; base needs no particular alignment.
 * - compare must be a consistent ordering; it must not modify the array.
 */
KZ_API void QSort(void *base, size_t count, size_t elementSize, KZCompareFunction compare, void *context);

KZ_END_DECLS

#endif /* KZ_SORT_H */
