// The scalar Base64 code against every vector kernel level: the same bytes for
// every input, so that the public tests (run with whichever kernels the
// processor has) hold for all of them.
#include <random>
#include <vector>

#include "internal/codec_kernels.h"
#include "kz/codec.h"
#include "reference_codec.h"
#include "test_support.h"

// The Base64 of `in` (line breaks when `option` is 1), or the bytes of the
// Base64 text `in` decoded into an array that starts with `option` bytes of
// room, so that the kernels also meet the end of the storage.
static std::string Base64(const std::string &in, bool decode, uint32_t option) {
  kztest::Scoped<UByteArray> a;
  if (decode && option) ArrayGrowExact(a, option);
  if (decode)
    Base64Decode(&a, in.data(), static_cast<uint32_t>(in.size()));
  else
    Base64Encode(&a, in.data(), static_cast<uint32_t>(in.size()), static_cast<int32_t>(option));
  return kztest::Bytes(a);
}

// Every kernel level this processor has against the scalar code.
TEST(KernelChoice, EveryLevelGivesTheScalarBytes) {
  using kz::CodecKernels;
  if (kz::CodecBestKernels() == CodecKernels::kScalar) GTEST_SKIP() << "no vector kernels on this processor";
  std::vector<CodecKernels> levels;
  for (CodecKernels level : {CodecKernels::kSsse3, CodecKernels::kAvx2, CodecKernels::kAvx512})
    if (level <= kz::CodecBestKernels()) levels.push_back(level);
  std::mt19937_64 rng(77);
  for (int i = 0; i < 20000; ++i) {
    // Long enough for several 64-character blocks, with short ones among them.
    std::string bytes(rng() % 4 ? rng() % 700 : rng() % 3000, '\0');
    for (char &c : bytes) c = static_cast<char>(rng());
    // Texts: an encoding (with or without line breaks), then now and then a
    // character replaced, inserted or removed anywhere.
    std::string text = Base64(bytes, false, static_cast<uint32_t>(rng() % 2));
    for (int edits = static_cast<int>(rng() % 5); edits > 0 && !text.empty(); --edits) {
      const size_t at = rng() % text.size();
      const char c = rng() % 3 ? "=\r\n \x80\xFF-\0"[rng() % 8] : kzref::kBase64Alphabet[rng() % 64];
      const uint64_t how = rng() % 3;  // replace, insert or remove: 1/1, 0/1 or 1/0 characters
      text.replace(at, how != 1, how != 2, c);
    }
    const uint32_t capacity = static_cast<uint32_t>(rng() % 3 == 0 ? rng() % 200 : 0);
    auto under = [&](CodecKernels level) {  // the three results at one kernel level
      EXPECT_EQ(kz::CodecUseKernels(level), level);
      return Base64(bytes, false, 0) + "|" + Base64(bytes, false, 1) + "|" + Base64(text, true, capacity);
    };
    const std::string scalar = under(CodecKernels::kScalar);
    for (CodecKernels level : levels) ASSERT_EQ(under(level), scalar) << i << " level " << static_cast<int>(level);
  }
  kz::CodecUseKernels(kz::CodecBestKernels());
}
