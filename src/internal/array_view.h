// Typed view over an array record: the one way library code grows arrays, so
// no caller hand-codes the growth rule or the element size.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kz/array.h"
#include "kz/memory.h"
#include "kz/message.h"

namespace kz {

// Record is any struct laid out as {T *elements; Count count; Count capacity;}
// with Count uint32_t (Array family) or uint64_t (BigArray family).
template <typename Record>
class ArrayView {
 public:
  using Element = std::remove_pointer_t<decltype(Record::elements)>;
  using Count = decltype(Record::count);
  static constexpr bool kBig = sizeof(Count) == 8;
  static constexpr uint64_t kMax = kBig ? 9223372036854775807ull : 4294967295ull;

  explicit ArrayView(Record &record, const char *file = "kzlib/array", uint32_t line = 0)
      : record_(record), file_(file), line_(line) {}

  Element *data() const { return record_.elements; }
  Count size() const { return record_.count; }
  Count capacity() const { return record_.capacity; }
  Element &operator[](Count i) const { return record_.elements[i]; }
  Element *begin() const { return record_.elements; }
  Element *end() const { return record_.elements + record_.count; }

  // Make room for at least `required` elements by the growth rule, whose
  // steps stop below `maxSize` (the family's limit unless a caller keeps its
  // arrays smaller).
  Element *Reserve(uint64_t required, uint64_t maxSize = kMax) {
    if (required <= record_.capacity) return record_.elements;
    uint64_t next = kBig ? BigArrayNextSize(record_.capacity, required, maxSize)
                         : ArrayNextSize(record_.capacity, required, maxSize);
    if constexpr (!kBig) {
      if (next >= 2147483647u) kzassert_("eltCount < UINT_MAX_VALUE / 2", "kzlib/array", 114);
      ArrayGrowExact_(&record_, static_cast<uint32_t>(next), sizeof(Element), file_, line_);
    } else {
      if (next >= 9223372036854775807ull) kzassert_("eltCount < ULONG_MAX_VALUE / 2", "kzlib/array", 220);
      BigArrayGrowExact_(&record_, next, sizeof(Element), file_, line_);
    }
    return record_.elements;
  }

  // Grow by one step of the rule, as a full array does for one more element.
  Element *Grow() {
    if constexpr (kBig)
      BigArrayGrow_(&record_, sizeof(Element), file_, line_);
    else
      ArrayGrow_(&record_, sizeof(Element), file_, line_);
    return record_.elements;
  }

  // Make room for at least `required` elements on exactly the capacity that
  // growing one step at a time would reach, over the family's whole range
  // (past 2^31 elements too). A request beyond the largest capacity the rule
  // hands out fails its assertion as the last of those steps would, without
  // allocating anything in between.
  Element *ReserveAsAppending(uint64_t required) {
    if (required <= record_.capacity) return record_.elements;
    const uint64_t largest = kMax - 1;
    uint64_t from = record_.capacity, want = required;
    if (required > largest) {
      from = from > largest ? from : largest;
      want = from + 1;
    }
    const uint64_t next = kBig ? BigArrayNextSize(from, want, kMax) : ArrayNextSize(from, want, kMax);
    record_.elements =
        static_cast<Element *>(Allocate_(static_cast<size_t>(next) * sizeof(Element), record_.elements, file_, line_));
    record_.capacity = static_cast<Count>(next);
    return record_.elements;
  }

  void Append(const Element &value) {
    if (record_.count >= record_.capacity) Reserve(uint64_t(record_.count) + 1);
    record_.elements[record_.count++] = value;
  }

  void Append(const Element *values, uint64_t n) {
    Reserve(uint64_t(record_.count) + n);
    if (n) std::memcpy(record_.elements + record_.count, values, n * sizeof(Element));
    record_.count += static_cast<Count>(n);
  }

  void Clear() { record_.count = 0; }

  void Free() {
    if constexpr (kBig)
      BigArrayFree_(&record_);
    else
      ArrayFree_(&record_);
  }

 private:
  Record &record_;
  const char *file_;
  uint32_t line_;
};

template <typename Record>
ArrayView<Record> View(Record &record, const char *file = "kzlib/array", uint32_t line = 0) {
  return ArrayView<Record>(record, file, line);
}

}  // namespace kz
