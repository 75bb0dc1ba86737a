// The scalar Base64 code against the vector kernels: the same bytes for every
// input, so that the public tests (run with whichever kernels the processor
// has) hold for both.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include "internal/codec_kernels.h"
#include "kz/codec.h"

namespace {

std::string Encode(const std::string &bytes, int32_t lines) {
  UByteArray a{};
  Base64Encode(&a, bytes.data(), static_cast<uint32_t>(bytes.size()), lines);
  std::string s(reinterpret_cast<const char *>(a.elements), a.count);
  free(a.elements);
  return s;
}

// Decoded into an array that starts with `capacity` bytes of room, so that the
// kernels also meet the end of the storage.
std::string Decode(const std::string &text, uint32_t capacity) {
  UByteArray a{static_cast<unsigned char *>(capacity ? malloc(capacity) : nullptr), 0, capacity};
  Base64Decode(&a, text.data(), static_cast<uint32_t>(text.size()));
  std::string s(reinterpret_cast<const char *>(a.elements), a.count);
  free(a.elements);
  return s;
}

class KernelChoice : public testing::Test {
 protected:
  void TearDown() override { kz::CodecUseVectorKernels(true); }
};

TEST_F(KernelChoice, ScalarAndVectorGiveTheSameBytes) {
  if (!kz::CodecVectorKernelsAvailable()) GTEST_SKIP() << "no vector kernels on this processor";
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937_64 rng(77);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes(rng() % 700, '\0');
    for (char &c : bytes) c = static_cast<char>(rng());
    // Texts: an encoding (with or without line breaks), then now and then a
    // character replaced, inserted or removed anywhere.
    std::string text = Encode(bytes, static_cast<int32_t>(rng() % 2));
    for (int edits = static_cast<int>(rng() % 5); edits > 0 && !text.empty(); --edits) {
      const size_t at = rng() % text.size();
      const char c = rng() % 3 ? "=\r\n \x80\xFF-\0"[rng() % 8] : kAlphabet[rng() % 64];
      switch (rng() % 3) {
        case 0: text[at] = c; break;
        case 1: text.insert(at, 1, c); break;
        default: text.erase(at, 1); break;
      }
    }
    const uint32_t capacity = static_cast<uint32_t>(rng() % 3 == 0 ? rng() % 64 : 0);
    ASSERT_TRUE(kz::CodecUseVectorKernels(true));
    const std::string vectorEncoded = Encode(bytes, 0), vectorLines = Encode(bytes, 1);
    const std::string vectorDecoded = Decode(text, capacity);
    ASSERT_FALSE(kz::CodecUseVectorKernels(false));
    ASSERT_EQ(Encode(bytes, 0), vectorEncoded) << i;
    ASSERT_EQ(Encode(bytes, 1), vectorLines) << i;
    ASSERT_EQ(Decode(text, capacity), vectorDecoded) << i;
    ASSERT_EQ(Decode(vectorEncoded, capacity), bytes) << i;
  }
}

}  // namespace
