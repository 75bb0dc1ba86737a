// Straightforward implementations of the strict number-parsing rules, digit by
// digit, that the optimised parsers are checked against (tests and fuzzing).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

namespace kzref {

inline constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();

struct Parsed {
  uint64_t value;
  int32_t error;
};

inline int RefDigit(unsigned byte) {
  if (byte >= '0' && byte <= '9') return static_cast<int>(byte - '0');
  if (byte >= 'A' && byte <= 'Z') return static_cast<int>(byte - 'A') + 10;
  if (byte >= 'a' && byte <= 'z') return static_cast<int>(byte - 'a') + 10;
  return -1;
}

inline unsigned LowByte(char c) { return static_cast<unsigned char>(c); }
inline unsigned LowByte(uint16_t u) { return u & 0xFFu; }

// Unsigned 64-bit: before each step, an error if value > M / base, or
// value == M / base and digit > M % base.
template <typename Unit>
Parsed RefULong(const Unit *p, size_t n, int base) {
  if (n == 0) return {0, 1};
  const uint64_t b = static_cast<uint64_t>(base);
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) {
    const int d = RefDigit(LowByte(p[i]));
    if (d < 0 || d >= base) return {0, 1};
    if (value > kMax64 / b || (value == kMax64 / b && static_cast<uint64_t>(d) > kMax64 % b)) return {0, 1};
    value = value * b + static_cast<uint64_t>(d);
  }
  return {value, 0};
}

// Unsigned 32-bit: value * base + digit in 64 bits, above 0xFFFFFFFF is an error.
inline Parsed RefUInt(const char *p, size_t n, int base) {
  if (n == 0) return {0, 1};
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) {
    const int d = RefDigit(LowByte(p[i]));
    if (d < 0 || d >= base) return {0, 1};
    value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    if (value > 0xFFFFFFFFull) return {0, 1};
  }
  return {value, 0};
}

inline bool RefIsMinus(char c) { return c == '-'; }
inline bool RefIsMinus(uint16_t u) { return u == 0x002D; }

// Signed 64-bit, result carried as the two's-complement bit pattern.
template <typename Unit>
Parsed RefLong(const Unit *p, size_t n, int base) {
  const bool negative = n > 0 && RefIsMinus(p[0]);
  const Parsed magnitude = negative ? RefULong(p + 1, n - 1, base) : RefULong(p, n, base);
  if (magnitude.error) return {0, 1};
  if (!negative) {
    if (magnitude.value >= (uint64_t{1} << 63)) return {0, 1};
    return magnitude;
  }
  if (magnitude.value > (uint64_t{1} << 63)) return {0, 1};
  return {0 - magnitude.value, 0};
}

inline Parsed RefInt(const char *p, size_t n, int base) {
  const bool negative = n > 0 && p[0] == '-';
  const Parsed magnitude = negative ? RefUInt(p + 1, n - 1, base) : RefUInt(p, n, base);
  if (magnitude.error) return {0, 1};
  if (!negative) {
    if (magnitude.value >= 0x80000000ull) return {0, 1};
    return magnitude;
  }
  if (magnitude.value > 0x80000000ull) return {0, 1};
  return {static_cast<uint32_t>(0u - static_cast<uint32_t>(magnitude.value)), 0};
}

}  // namespace kzref
