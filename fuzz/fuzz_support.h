// Helpers shared by the fuzz targets: the property check, inputs that start
// with an options byte, and output arrays that may start with a prefix.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kz/array.h"

namespace kzfuzz {

// Stops the run, naming the property, when it does not hold; the fuzzer then
// keeps the input as a crash.
inline void Require(bool condition, const char *what) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s\n", what);
    std::abort();
  }
}

// An input whose first byte holds the target's options and whose other bytes
// are the data. An empty input has neither: the target skips it.
struct OptionsInput {
  OptionsInput(const uint8_t *bytes, size_t size)
      : empty(size == 0),
        options(empty ? 0 : bytes[0]),
        data(empty ? std::string() : std::string(reinterpret_cast<const char *>(bytes + 1), size - 1)) {}
  bool Bit(int bit) const { return (options >> bit & 1) != 0; }

  bool empty;
  uint8_t options;
  std::string data;
};

// An output byte array that starts empty or, when prefixed, holds `prefix`
// in storage of `room` bytes (at least the prefix), as a caller's array that
// already has content would; freed at the end of the scope.
class PrefixedArray {
 public:
  PrefixedArray(bool prefixed, const char *prefix, uint32_t room)
      : prefix_(prefixed ? prefix : ""), length_(static_cast<uint32_t>(std::strlen(prefix_))) {
    if (prefixed) {
      array.elements = static_cast<unsigned char *>(std::malloc(room));
      std::memcpy(array.elements, prefix_, length_);
      array.count = length_;
      array.capacity = room;
    }
  }
  ~PrefixedArray() { std::free(array.elements); }
  PrefixedArray(const PrefixedArray &) = delete;
  PrefixedArray &operator=(const PrefixedArray &) = delete;

  // What was appended behind the prefix, after checking that the count stays
  // within the capacity and that the prefix is kept.
  std::string Appended() const {
    Require(array.count <= array.capacity, "count <= capacity");
    Require(length_ == 0 || std::memcmp(array.elements, prefix_, length_) == 0, "prefix kept");
    return std::string(reinterpret_cast<const char *>(array.elements) + length_, array.count - length_);
  }

  UByteArray array{};

 private:
  const char *prefix_;
  uint32_t length_;
};

}  // namespace kzfuzz
