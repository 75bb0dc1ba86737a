// UIntHash / UIntUnhash on any input.
//
// The first four bytes are a 32-bit value: its identifier has at most eight
// digits, never sets bit 31, and unhashing it gives the value back, or a value
// that differs in exactly one of the two source bits that share a target bit
// (exactly when those two bits disagree after their invert marks). The whole
// input is also unhashed as a text: invalid text reads as "0", and hashing the
// result of valid text gives the text's value with bit 31 cleared.

#include "kz/format.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void Require(bool condition, const char *what) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s\n", what);
    std::abort();
  }
}

struct Tables {
  uint32_t marks = 0;
  int a = -1;
  int b = -1;
};

// The invert marks and the sharing pair, read back through UIntUnhash.
Tables ReadTables() {
  Tables t;
  t.marks = UIntUnhash("0");
  for (int k = 0; k < 31; ++k) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", 1u << k);
    const uint32_t sources = UIntUnhash(text) ^ t.marks;
    if (__builtin_popcount(sources) == 2) {
      t.a = __builtin_ctz(sources);
      t.b = 31 - __builtin_clz(sources);
    }
  }
  Require(t.a >= 0, "one target bit is shared");
  return t;
}

// Hexadecimal within 32 bits, as UIntUnhash reads it; false when invalid.
bool ReadHex(const std::string &text, uint32_t *value) {
  if (text.empty()) return false;
  uint64_t v = 0;
  for (unsigned char c : text) {
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      return false;
    v = v * 16 + static_cast<uint64_t>(d);
    if (v > 0xFFFFFFFFull) return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Tables tables = ReadTables();

  if (size >= 4) {
    uint32_t x;
    std::memcpy(&x, data, 4);
    char buffer[16];
    std::memset(buffer, 'X', sizeof buffer);
    const int n = UIntHash(buffer, x);
    Require(n >= 1 && n <= 8, "one to eight digits");
    Require(buffer[n] == '\0' && buffer[9] == 'X', "NUL-terminated within nine bytes");
    Require(std::strlen(buffer) == static_cast<size_t>(n), "length returned");
    uint32_t scrambled = 0;
    Require(ReadHex(buffer, &scrambled), "hexadecimal text");
    char printed[16];
    std::snprintf(printed, sizeof printed, "%x", scrambled);
    Require(std::strcmp(printed, buffer) == 0, "lower case, no leading zeros");
    Require((scrambled & 0x80000000u) == 0, "bit 31 never set");

    const uint32_t back = UIntUnhash(buffer);
    const uint32_t flipped = x ^ tables.marks;
    const bool agree = ((flipped >> tables.a) & 1u) == ((flipped >> tables.b) & 1u);
    if (agree) {
      Require(back == x, "exact round trip when the sharing bits agree");
    } else {
      const uint32_t diff = back ^ x;
      const uint32_t pair = (1u << tables.a) | (1u << tables.b);
      Require(__builtin_popcount(diff) == 1 && (diff & pair) == diff, "otherwise one of the sharing bits differs");
    }
  }

  const std::string text(reinterpret_cast<const char *>(data), size);
  const std::string cText(text.c_str());  // up to the first NUL
  const uint32_t unhashed = UIntUnhash(cText.c_str());
  uint32_t value = 0;
  if (!ReadHex(cText, &value)) {
    Require(unhashed == tables.marks, "invalid text reads as 0");
  } else {
    char buffer[16];
    UIntHash(buffer, unhashed);
    uint32_t rehashed = 0;
    Require(ReadHex(buffer, &rehashed), "hexadecimal text");
    Require(rehashed == (value & 0x7FFFFFFFu), "hash of unhash keeps every bit but 31");
  }
  return 0;
}
