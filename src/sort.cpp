// kzlib: engineered quicksort with a caller context (see kz/sort.h).
//
// The classic three-way quicksort: the exchange routine is picked once per
// call from the base address and the element size, small ranges go straight to
// insertion sort, the pivot is a median of three (or a ninther on larger
// ranges) moved to the front, and the partition keeps keys equal to the pivot
// at both ends before swapping them into the middle. The smaller-than-pivot
// part is sorted by a recursive call, the larger-than-pivot part by looping, so
// each level makes one recursive call. No allocation, no global state.

#include "kz/sort.h"

#include <cstdint>
#include <cstring>

namespace {

// How elements are exchanged; decided once per QSort call.
enum class SwapKind {
  kOneWord,  // 4-byte elements at a 4-byte aligned base: one 32-bit word
  kWords,    // element size a multiple of 4, base 4-byte aligned: 32-bit words
  kBytes,    // anything else: byte by byte
};

// Exchange n bytes (a multiple of 4) at a and b, 32 bits at a time. The rule
// that selects this routine keeps both addresses 4-byte aligned; going through
// memcpy still keeps the access free of type-punning and compiles to plain
// 32-bit loads and stores.
inline void SwapWordBlocks(char *a, char *b, size_t n) {
  do {
    uint32_t x;
    uint32_t y;
    std::memcpy(&x, a, 4);
    std::memcpy(&y, b, 4);
    std::memcpy(a, &y, 4);
    std::memcpy(b, &x, 4);
    a += 4;
    b += 4;
    n -= 4;
  } while (n > 0);
}

inline void SwapByteBlocks(char *a, char *b, size_t n) {
  do {
    char t = *a;
    *a++ = *b;
    *b++ = t;
  } while (--n > 0);
}

// Exchange n > 0 bytes; n is a multiple of 4 unless Kind is kBytes.
template <SwapKind Kind>
inline void SwapBlocks(char *a, char *b, size_t n) {
  if constexpr (Kind == SwapKind::kBytes) {
    SwapByteBlocks(a, b, n);
  } else {
    SwapWordBlocks(a, b, n);
  }
}

// Exchange the two elements at a and b (which may be the same element).
template <SwapKind Kind>
inline void SwapElements(char *a, char *b, size_t es) {
  if constexpr (Kind == SwapKind::kOneWord) {
    SwapWordBlocks(a, b, 4);
  } else {
    SwapBlocks<Kind>(a, b, es);
  }
}

// Exchange the n-byte blocks at a and b (n may be 0; the blocks never overlap).
template <SwapKind Kind>
inline void VecSwap(char *a, char *b, size_t n) {
  if (n > 0) SwapBlocks<Kind>(a, b, n);
}

inline char *Median3(char *a, char *b, char *c, KZCompareFunction compare, void *context) {
  return compare(a, b, context) < 0 ? (compare(b, c, context) < 0 ? b : (compare(a, c, context) < 0 ? c : a))
                                    : (compare(b, c, context) > 0 ? b : (compare(a, c, context) < 0 ? a : c));
}

// Insertion sort of n elements at a: each element moves left past larger
// neighbours one exchange at a time.
template <SwapKind Kind>
void InsertionSort(char *a, size_t n, size_t es, KZCompareFunction compare, void *context) {
  char *const end = a + n * es;
  for (char *pm = a + es; pm < end; pm += es) {
    for (char *pl = pm; pl > a && compare(pl - es, pl, context) > 0; pl -= es) {
      SwapElements<Kind>(pl, pl - es, es);
    }
  }
}

inline size_t Min(size_t x, size_t y) { return x < y ? x : y; }

template <SwapKind Kind>
void Sort(char *a, size_t n, size_t es, KZCompareFunction compare, void *context) {
  for (;;) {
    if (n < 7) {
      InsertionSort<Kind>(a, n, es, compare, context);
      return;
    }

    // Pivot: the middle element, the median of three beyond 7 elements,
    // the ninther (median of three medians, count / 8 apart) beyond 40.
    char *pm = a + (n / 2) * es;
    if (n > 7) {
      char *pl = a;
      char *pn = a + (n - 1) * es;
      if (n > 40) {
        const size_t d = (n / 8) * es;
        pl = Median3(pl, pl + d, pl + 2 * d, compare, context);
        pm = Median3(pm - d, pm, pm + d, compare, context);
        pn = Median3(pn - 2 * d, pn - d, pn, compare, context);
      }
      pm = Median3(pl, pm, pn, compare, context);
    }
    SwapElements<Kind>(a, pm, es);

    // Partition. Layout while scanning:
    //   [a] = pivot | [a+es, pa) == | [pa, pb) < | [pb, pc] unseen | (pc, pd] > | (pd, end) ==
    char *pa = a + es;
    char *pb = pa;
    char *pc = a + (n - 1) * es;
    char *pd = pc;
    bool swapped = false;
    for (;;) {
      int32_t r;
      while (pb <= pc && (r = compare(pb, a, context)) <= 0) {
        if (r == 0) {
          swapped = true;
          SwapElements<Kind>(pa, pb, es);
          pa += es;
        }
        pb += es;
      }
      while (pb <= pc && (r = compare(pc, a, context)) >= 0) {
        if (r == 0) {
          swapped = true;
          SwapElements<Kind>(pc, pd, es);
          pd -= es;
        }
        pc -= es;
      }
      if (pb > pc) break;
      SwapElements<Kind>(pb, pc, es);
      swapped = true;
      pb += es;
      pc -= es;
    }

    // Nothing moved: the range is nearly in order, insertion sort finishes it.
    if (!swapped) {
      InsertionSort<Kind>(a, n, es, compare, context);
      return;
    }

    // Bring the equal keys from both ends to the middle.
    char *const end = a + n * es;
    size_t s = Min(static_cast<size_t>(pa - a), static_cast<size_t>(pb - pa));
    VecSwap<Kind>(a, pb - s, s);
    s = Min(static_cast<size_t>(pd - pc), static_cast<size_t>(end - pd) - es);
    VecSwap<Kind>(pb, end - s, s);

    // Smaller keys: recurse (only when there are at least two of them).
    s = static_cast<size_t>(pb - pa);
    if (s > es) Sort<Kind>(a, s / es, es, compare, context);

    // Larger keys: continue in this frame.
    s = static_cast<size_t>(pd - pc);
    if (s <= es) return;
    a = end - s;
    n = s / es;
  }
}

}  // namespace

extern "C" KZ_API void QSort(void *base, size_t count, size_t elementSize, KZCompareFunction compare, void *context) {
  if (count < 2 || elementSize == 0) return;
  char *const a = static_cast<char *>(base);
  const bool wordsFit = reinterpret_cast<uintptr_t>(a) % 4 == 0 && elementSize % 4 == 0;
  if (!wordsFit) {
    Sort<SwapKind::kBytes>(a, count, elementSize, compare, context);
  } else if (elementSize == 4) {
    Sort<SwapKind::kOneWord>(a, count, elementSize, compare, context);
  } else {
    Sort<SwapKind::kWords>(a, count, elementSize, compare, context);
  }
}
