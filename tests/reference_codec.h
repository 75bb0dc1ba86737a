// Plain forms of the transfer encodings' rules that the codec is checked
// against (tests and fuzzing): the Base64 alphabet, the line layout of broken
// output and the growth of byte-by-byte appending.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kz/array.h"

namespace kzref {

constexpr std::string_view kBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// `text` cut into lines of `width` characters, each ended by CR LF.
inline std::string CutIntoLines(std::string_view text, size_t width) {
  std::string out;
  for (size_t at = 0; at < text.size(); at += width) out.append(text.substr(at, width)).append("\r\n");
  return out;
}

// Whether `text` is lines of at most `width` characters, each ended by CR LF.
inline bool InLinesOfAtMost(std::string_view text, size_t width) {
  size_t start = 0;
  for (size_t at; (at = text.find("\r\n", start)) != std::string_view::npos; start = at + 2)
    if (at - start > width) return false;
  return start == text.size();
}

// The capacity that appending bytes one at a time to an array of `capacity`
// ends with once it holds `count` bytes.
inline uint64_t ByteByByteCapacity(uint64_t capacity, uint64_t count) {
  while (capacity < count) capacity = ArrayNextSize(capacity, capacity + 1, 4294967295u);
  return capacity;
}

}  // namespace kzref
