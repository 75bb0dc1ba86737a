// Plain, one-element-at-a-time forms of the Unicode converters' rules that the
// optimised converters are checked against (tests and fuzzing): the UTF-8
// reader, the UTF-8 writer and the array growth of both directions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kz/array.h"

namespace kzref {

enum class Form { kUCS2, kUCS4, kLatin1 };
enum class Outcome { kOk, kInvalid, kTooLarge, kTruncated, kNotLatin1 };

struct Reference {
  std::vector<uint32_t> values;  // what is appended, also on failure
  Outcome outcome;
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
    if (b < 0xE0) trail = 1, v = b & 0x1Fu, least = 0x80;
    else if (b < 0xF0) trail = 2, v = b & 0x0Fu, least = 0x800;
    else if (form != Form::kUCS4) return r.outcome = Outcome::kTooLarge, r;
    else trail = 3, v = b & 0x0Fu, least = 0x10000;
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

// Decoders: 8 free bytes before every input element, then room for the NUL.
inline uint64_t ModelDecode(uint64_t count, uint64_t capacity, const std::vector<size_t> &lengths) {
  for (size_t length : lengths) {
    if (capacity < count + 8) capacity = ArrayNextSize(capacity, count + 8, 0x7FFFFFFFu);
    count += length;
  }
  if (capacity < count + 1) capacity = ArrayNextSize(capacity, count + 1, 0x7FFFFFFFu);
  return capacity;
}

}  // namespace kzref
