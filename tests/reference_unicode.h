// Plain, one-element-at-a-time forms of the Unicode converters' rules that the
// optimised converters are checked against (tests and fuzzing): the UTF-8
// reader, the UTF-8 writer and the array growth of both directions, and the
// check of an array after a conversion.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kz/array.h"

namespace kzref {

enum class Form { kUCS2, kUCS4, kLatin1 };
enum class Outcome { kOk, kInvalid, kTooLarge, kTruncated, kNotLatin1 };

struct Reference {
  std::vector<uint32_t> values;  // what is appended, also on failure
  Outcome outcome;
  bool operator==(const Reference &) const = default;
};

// Byte by byte, every byte checked against the end before it is read.
inline Reference RefRead(std::string_view bytes, Form form) {
  Reference r{{}, Outcome::kOk};
  for (size_t i = 0; i < bytes.size();) {
    const uint8_t b = static_cast<uint8_t>(bytes[i]);
    size_t trail;
    uint32_t v, least;
    if (b < 0x80) {
      r.values.push_back(b), ++i;
      continue;
    }
    if (b < 0xC0) return r.outcome = Outcome::kInvalid, r;
    if (b < 0xE0)
      trail = 1, v = b & 0x1Fu, least = 0x80;
    else if (b < 0xF0)
      trail = 2, v = b & 0x0Fu, least = 0x800;
    else if (form != Form::kUCS4)
      return r.outcome = Outcome::kTooLarge, r;
    else
      trail = 3, v = b & 0x0Fu, least = 0x10000;
    for (size_t k = 1; k <= trail; ++k) {
      if (i + k == bytes.size()) return r.outcome = Outcome::kTruncated, r;
      const uint8_t c = static_cast<uint8_t>(bytes[i + k]);
      if (c >> 6 != 2) return r.outcome = Outcome::kInvalid, r;
      v = v << 6 | (c & 0x3Fu);
    }
    if (v < least) return r.outcome = Outcome::kInvalid, r;
    if (form == Form::kLatin1 && v > 0xFF) return r.outcome = Outcome::kNotLatin1, r;
    r.values.push_back(v);
    i += trail + 1;
  }
  return r;
}

// UTF-8 of one value as the decoders write it (nothing at 0x200000 and above).
inline std::string RefWrite(uint32_t v) {
  auto byte = [](uint32_t x) { return static_cast<char>(x); };
  if (v < 0x80) return std::string(1, byte(v));
  if (v < 0x800) return {byte(0xC0 | v >> 6), byte(0x80 | (v & 0x3F))};
  if (v < 0x10000) return {byte(0xE0 | v >> 12), byte(0x80 | (v >> 6 & 0x3F)), byte(0x80 | (v & 0x3F))};
  if (v < 0x200000)
    return {byte(0xF0 | v >> 18), byte(0x80 | (v >> 12 & 0x3F)), byte(0x80 | (v >> 6 & 0x3F)), byte(0x80 | (v & 0x3F))};
  return {};
}

// Encoders: one growth step whenever a value meets a full array, then room
// for the terminator on success.
inline uint64_t ModelEncode(uint64_t count, uint64_t capacity, size_t appended, bool terminated) {
  for (size_t k = 0; k < appended; ++k, ++count)
    if (count == capacity) capacity = ArrayNextSize(capacity, capacity + 1, 0xFFFFFFFFu);
  if (terminated && capacity < count + 1) capacity = ArrayNextSize(capacity, count + 1, 0x7FFFFFFFu);
  return capacity;
}

// Decoders: the bytes appended for `in` onto `count` elements; *capacity
// becomes what making 8 bytes free before every input element, then room for
// the NUL, leaves.
template <typename In>
std::vector<uint32_t> RefDecode(const std::vector<In> &in, uint64_t count, uint64_t *capacity) {
  std::vector<uint32_t> bytes;
  for (In v : in) {
    if (*capacity < count + 8) *capacity = ArrayNextSize(*capacity, count + 8, 0x7FFFFFFFu);
    for (char c : RefWrite(static_cast<std::make_unsigned_t<In>>(v))) bytes.push_back(static_cast<uint8_t>(c)), ++count;
  }
  if (*capacity < count + 1) *capacity = ArrayNextSize(*capacity, count + 1, 0x7FFFFFFFu);
  return bytes;
}

// Runs `convert` on an array of `count` elements within `capacity` room, all
// marked, and names what differs from: result `result`, the prefix kept,
// `appended` after it, the terminator there exactly when `terminated`, the
// rest of the room untouched, capacity `model`. Empty when nothing does.
// *error gets errno as the call left it.
template <typename Record, typename Convert>
std::string Converts(Convert convert, int result, uint32_t count, uint32_t capacity,
                     const std::vector<uint32_t> &appended, bool terminated, uint64_t model, int *error = nullptr) {
  using Unit = std::remove_pointer_t<decltype(Record::elements)>;
  constexpr Unit kMark = static_cast<Unit>(0xA5A5A5A5u);
  Record a{};
  if (capacity) ArrayGrowExact_(&a, capacity, sizeof(Unit), __FILE__, __LINE__);
  std::fill_n(a.elements, capacity, kMark);
  a.count = count;
  const int got = convert(&a);
  if (error) *error = errno;
  std::vector<uint32_t> want(count, kMark);
  want.insert(want.end(), appended.begin(), appended.end());
  std::string fault = got != result ? "result " + std::to_string(got)
                      : a.count != want.size() || a.capacity != model
                          ? "count/capacity " + std::to_string(a.count) + "/" + std::to_string(a.capacity) +
                                ", expected " + std::to_string(want.size()) + "/" + std::to_string(model)
                          : "";
  if (terminated) want.push_back(0);
  want.resize(std::max<size_t>(want.size(), std::min<uint64_t>(capacity, model)), kMark);
  if (fault.empty() && want != std::vector<uint32_t>(a.elements, a.elements + want.size()))
    fault = "elements differ from the prefix, the values, the terminator or the marks";
  ArrayFree_(&a);
  return fault;
}

}  // namespace kzref
