// Base64 and quoted-printable on any input.
//
// Input: the first byte holds the options, the rest is the data.
//   bit 0  line breaks for the encoders
//   bit 1  scalar code only (otherwise the vector kernels, where available)
//   bit 2  the output array starts with a prefix and spare room
//   bits 3-4  the widest vector kernels to use: 0 the best the processor
//          has, 1 SSSE3, 2 AVX2, 3 AVX-512 (capped at the best)
// Checked:
//   Base64Decode(Base64Encode(x)) == x, with and without line breaks; with
//     them, the text is the unbroken encoding cut into 76-character lines
//     each ended by CR LF;
//   QPDecode(QPEncode(x)) == x without line breaks, == x + CR LF with them
//     (the CR LF that ends the last line); lines of at most 76 characters;
//   Base64Decode and QPDecode of the data as a text: never crash, keep the
//     prefix, count <= capacity, the capacity that appending byte by byte
//     reaches; Base64Decode equals a character-at-a-time model of the rule,
//     and the scalar code and the vector kernels agree, at the level chosen.

#include "kz/array.h"
#include "kz/codec.h"

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "internal/codec_kernels.h"
#include "reference_codec.h"

namespace {

using kzfuzz::Require;
using namespace kzref;

using Coder = void (*)(UByteArray *, const std::string &, int32_t);

void B64Encode(UByteArray *a, const std::string &s, int32_t lines) {
  Base64Encode(a, s.data(), static_cast<uint32_t>(s.size()), lines);
}
void B64Decode(UByteArray *a, const std::string &s, int32_t) {
  Base64Decode(a, s.data(), static_cast<uint32_t>(s.size()));
}
void QPEnc(UByteArray *a, const std::string &s, int32_t lines) {
  QPEncode(a, s.data(), static_cast<uint32_t>(s.size()), lines);
}
void QPDec(UByteArray *a, const std::string &s, int32_t) { QPDecode(a, s.data(), static_cast<uint32_t>(s.size())); }

// Runs the coder on an array that is empty or holds a prefix with spare room,
// checks the array afterwards and returns what was appended.
std::string Apply(Coder coder, const std::string &input, int32_t lines, bool prefixed) {
  kzfuzz::PrefixedArray out(prefixed, "head:", 37);
  const UByteArray &a = out.array;
  const uint32_t start = a.capacity;
  coder(&out.array, input, lines);
  Require((a.elements == nullptr) == (a.capacity == 0), "storage exactly when there is capacity");
  Require(a.capacity == ByteByByteCapacity(start, a.count), "capacity of byte-by-byte appending");
  return out.Appended();
}

// Base64 decoding one character at a time: every character outside the
// alphabet skipped; two leftover characters give one byte, three give two.
std::string ModelBase64Decode(std::string_view text) {
  std::string out;
  uint32_t value = 0;
  int pending = 0;
  for (char c : text) {
    const size_t v = kBase64Alphabet.find(c);
    if (v == std::string_view::npos) continue;
    value = value << 6 | static_cast<uint32_t>(v);
    if (++pending == 4) {
      out += static_cast<char>(value >> 16), out += static_cast<char>(value >> 8), out += static_cast<char>(value);
      value = 0, pending = 0;
    }
  }
  if (pending == 2) out += static_cast<char>(value >> 4);
  if (pending == 3) out += static_cast<char>(value >> 10), out += static_cast<char>(value >> 2);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kzfuzz::OptionsInput in(data, size);
  if (in.empty) return 0;
  const int32_t lines = in.Bit(0);
  const bool scalar = in.Bit(1);
  const bool prefixed = in.Bit(2);
  const std::string &x = in.data;
  using kz::CodecKernels;
  const unsigned level = static_cast<unsigned>(in.Bit(3)) | static_cast<unsigned>(in.Bit(4)) << 1;
  const CodecKernels vector = level ? static_cast<CodecKernels>(level) : kz::CodecBestKernels();
  kz::CodecUseKernels(scalar ? CodecKernels::kScalar : vector);

  const std::string b64 = Apply(B64Encode, x, lines, prefixed);
  Require(Apply(B64Decode, b64, 0, prefixed) == x, "Base64 round trip");
  if (lines) Require(b64 == CutIntoLines(Apply(B64Encode, x, 0, false), 76), "Base64 lines of 76 characters");

  const std::string qp = Apply(QPEnc, x, lines, prefixed);
  Require(Apply(QPDec, qp, 0, prefixed) == (lines ? x + "\r\n" : x), "quoted-printable round trip");
  Require(lines ? InLinesOfAtMost(qp, 76) : qp.find_first_of("\r\n") == std::string::npos, "quoted-printable lines");

  const std::string decoded = Apply(B64Decode, x, 0, prefixed);
  Require(decoded == ModelBase64Decode(x), "Base64Decode follows the rule");
  if (!scalar && kz::CodecUseKernels(vector) != CodecKernels::kScalar) {
    kz::CodecUseKernels(CodecKernels::kScalar);
    Require(Apply(B64Decode, x, 0, prefixed) == decoded, "scalar and vector decoding agree");
    Require(Apply(B64Encode, x, lines, prefixed) == b64, "scalar and vector encoding agree");
  }
  Require(Apply(QPDec, x, 0, prefixed).size() <= x.size(), "QPDecode never grows the text");
  kz::CodecUseKernels(kz::CodecBestKernels());
  return 0;
}
