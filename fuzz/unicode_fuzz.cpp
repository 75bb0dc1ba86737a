// The six Unicode converters on any input, against the one-element-at-a-time
// reference of tests/reference_unicode.h.
//
// Input: the first byte picks the starting array (empty, or a few elements
// with spare room of a chosen size); the rest is the text, read as UTF-8 bytes
// by the encoders and as bytes, 16-bit units and 32-bit values by the decoders.
// The encoders also get valid UTF-8 made of the same bytes, with or without
// one fault put in.
// Checked, for every converter:
//   - result, count, contents, terminator and capacity identical to the
//     reference reader or writer and the growth model, also after a failure;
//   - the error recorded (code, message, reader) exactly when the reference
//     raises one, and nothing recorded otherwise;
//   - nothing written into the spare room beyond the appended elements and
//     the terminator;
//   - round trips: UCS2Decode(UCS2Encode(x)) == x and likewise for
//     ISO-8859-1 and for code points below 0x200000 when encoding succeeds;
//     UCS2Encode(UCS2Decode(u)) == u; UCS4Encode(UCS4Decode(v)) == v without
//     the values of 0x200000 and above; ISO88591Encode(ISO88591Decode(b)) == b;
//   - all of it at every kernel level the processor has.

#include "kz/unicode.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "internal/unicode_kernels.h"
#include "kz/array.h"
#include "kz/error.h"
#include "reference_unicode.h"

namespace {

using namespace kzref;

void Require(bool condition, const char *what, size_t size) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s (input of %zu bytes)\n", what, size);
    std::abort();
  }
}

template <typename Record>
void CheckEncoder(Form form, int (*convert)(Record *, const char *, uint32_t), std::string_view text, uint32_t count0,
                  uint32_t capacity0, const char *what) {
  const Reference ref = RefRead(text, form);
  const bool ok = ref.outcome == Outcome::kOk;
  int error = 0;
  KZErrorClear();
  auto encode = [&](Record *a) {
    const int result = convert(a, text.data(), static_cast<uint32_t>(text.size()));
    error = errno;
    return result;
  };
  Require(Converts<Record>(encode, ok, count0, capacity0, ref.values, ok,
                           ModelEncode(count0, capacity0, ref.values.size(), ok))
              .empty(),
          what, text.size());
  if (ref.outcome == Outcome::kInvalid || ref.outcome == Outcome::kTooLarge) {
    const char *message =
        ref.outcome == Outcome::kInvalid ? "Invalid UTF-8 sequence" : "Unicode character larger than FFFF";
    Require(KZErrorCode() == 0x200000003ull && std::strcmp(KZErrorMessage(), message) == 0, what, text.size());
    uint32_t line = 0;
    Require(std::strcmp(KZErrorLocation(&line), "kzlib/unicode/unicode") == 0, what, text.size());
  } else {
    Require(error == 0 && KZErrorCode() == 0, what, text.size());
  }
}

template <typename In>
void CheckDecoder(int (*convert)(UByteArray *, const In *, uint32_t), const std::vector<In> &in, uint32_t count0,
                  uint32_t capacity0, const char *what, size_t size) {
  uint64_t capacity = capacity0;
  const std::vector<uint32_t> expected = RefDecode(in, count0, &capacity);
  const In none = 0;
  auto decode = [&](UByteArray *a) {
    return convert(a, in.empty() ? &none : in.data(), static_cast<uint32_t>(in.size()));
  };
  Require(Converts<UByteArray>(decode, 1, count0, capacity0, expected, true, capacity).empty(), what, size);
}

int Latin1Decode(UByteArray *a, const uint8_t *in, uint32_t n) {
  return ISO88591Decode(a, reinterpret_cast<const char *>(in), n);
}

std::string_view Text(const UByteArray &a) { return {reinterpret_cast<const char *>(a.elements), a.count}; }

// Valid UTF-8 made of the input, two bytes per character (the top two bits
// pick its length), with the first byte choosing a fault to put in: none, a
// changed byte or a cut. Random bytes are rarely long valid text, which the
// block paths need.
std::string MadeText(const uint8_t *data, size_t size) {
  std::string text;
  for (size_t i = 1; i + 1 < size; i += 2) {
    const uint32_t bits = uint32_t{data[i] & 0x3Fu} << 8 | data[i + 1];
    switch (data[i] >> 6) {
      case 0: text += RefWrite(bits & 0x7F); break;
      case 1: text += RefWrite(0x80 + bits % 0x780); break;
      case 2: text += RefWrite(0x800 + bits * 4 % 0xF800); break;
      default: text += RefWrite(0x10000 + bits * 67); break;
    }
  }
  if (!text.empty()) {
    const size_t at = (size_t{data[0]} * 131 + size) % text.size();
    if ((data[0] & 0x30) == 0x10) text[at] = static_cast<char>(data[size - 1]);
    if ((data[0] & 0x30) == 0x20) text.resize(at);
  }
  return text;
}

}  // namespace

namespace {

void CheckAll(const uint8_t *data, size_t size) {
  // Starting array: count 0-3, spare room 0, 1-31 or (with bit 7) a lot.
  const uint32_t count0 = data[0] & 3;
  const uint32_t room = (data[0] & 0x80) ? 4096 : (data[0] >> 2) & 31;
  const uint32_t capacity0 = room == 0 && count0 == 0 ? 0 : count0 + room;
  const std::string_view text(reinterpret_cast<const char *>(data + 1), size - 1);

  // UTF-8 in: the bytes as they are, and text made of them.
  const std::string made = MadeText(data, size);
  for (std::string_view in : {text, std::string_view(made)}) {
    CheckEncoder<UShortArray>(Form::kUCS2, UCS2Encode, in, count0, capacity0, "UCS2Encode");
    CheckEncoder<UIntArray>(Form::kUCS4, UCS4Encode, in, count0, capacity0, "UCS4Encode");
    CheckEncoder<UByteArray>(Form::kLatin1, ISO88591Encode, in, count0, capacity0, "ISO88591Encode");
  }

  // Units and code points out of the same bytes.
  std::vector<uint8_t> bytes(text.begin(), text.end());
  std::vector<uint16_t> units(text.size() / 2);
  std::vector<uint32_t> points(text.size() / 4);
  if (!units.empty()) std::memcpy(units.data(), text.data(), units.size() * 2);
  if (!points.empty()) std::memcpy(points.data(), text.data(), points.size() * 4);
  // Half of the time keep the code points in the ranges that convert.
  if (data[0] & 0x40)
    for (uint32_t &p : points) p &= (p & 0x100) ? 0x1FFFFF : 0x7FF;
  CheckDecoder<uint8_t>(Latin1Decode, bytes, count0, capacity0, "ISO88591Decode", size);
  CheckDecoder<uint16_t>(UCS2Decode, units, count0, capacity0, "UCS2Decode", size);
  CheckDecoder<uint32_t>(UCS4Decode, points, count0, capacity0, "UCS4Decode", size);

  // Round trips, both ways.
  UShortArray u{};
  UIntArray p{};
  UByteArray b{};
  UByteArray back{};
  for (std::string_view in : {text, std::string_view(made)}) {
    const uint32_t n = static_cast<uint32_t>(in.size());
    u.count = p.count = b.count = back.count = 0;
    if (UCS2Encode(&u, in.data(), n)) {
      Require(UCS2Decode(&back, u.elements, u.count) == 1 && Text(back) == in, "UCS2 round trip", size);
    }
    back.count = 0;
    if (UCS4Encode(&p, in.data(), n)) {
      bool small = true;
      for (uint32_t i = 0; i < p.count; ++i) small = small && p.elements[i] < 0x200000;
      Require(UCS4Decode(&back, p.elements, p.count) == 1, "UCS4Decode", size);
      if (small) Require(Text(back) == in, "UCS4 round trip", size);
    }
    back.count = 0;
    if (ISO88591Encode(&b, in.data(), n)) {
      Require(ISO88591Decode(&back, reinterpret_cast<const char *>(b.elements), b.count) == 1 && Text(back) == in,
              "ISO-8859-1 round trip", size);
    }
  }
  // Decoded output is always valid for the matching encoder.
  u.count = p.count = b.count = back.count = 0;
  const uint16_t noUnit = 0;
  const uint32_t noPoint = 0;
  Require(UCS2Decode(&back, units.empty() ? &noUnit : units.data(), static_cast<uint32_t>(units.size())) == 1 &&
              UCS2Encode(&u, reinterpret_cast<const char *>(back.elements), back.count) == 1 &&
              u.count == units.size() &&
              (units.empty() || std::memcmp(u.elements, units.data(), units.size() * 2) == 0),
          "UCS2Encode(UCS2Decode(u))", size);
  back.count = 0;
  std::vector<uint32_t> kept;
  for (uint32_t v : points)
    if (v < 0x200000) kept.push_back(v);
  Require(UCS4Decode(&back, points.empty() ? &noPoint : points.data(), static_cast<uint32_t>(points.size())) == 1 &&
              UCS4Encode(&p, reinterpret_cast<const char *>(back.elements), back.count) == 1 &&
              p.count == kept.size() && (kept.empty() || std::memcmp(p.elements, kept.data(), kept.size() * 4) == 0),
          "UCS4Encode(UCS4Decode(v))", size);
  back.count = 0;
  Require(ISO88591Decode(&back, text.data(), static_cast<uint32_t>(text.size())) == 1 &&
              ISO88591Encode(&b, reinterpret_cast<const char *>(back.elements), back.count) == 1 && Text(b) == text,
          "ISO88591Encode(ISO88591Decode(b))", size);
  ArrayFree_(&u);
  ArrayFree_(&p);
  ArrayFree_(&b);
  ArrayFree_(&back);
  KZErrorClear();
}

}  // namespace

// Every kernel level the processor has, from the widest down to the 16-byte
// blocks without shuffles.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using kz::UnicodeKernels;
  if (size == 0) return 0;
  for (auto level = static_cast<int>(kz::UnicodeBestKernels());; --level) {
    kz::UnicodeUseKernels(static_cast<UnicodeKernels>(level));
    CheckAll(data, size);
    if (level <= static_cast<int>(UnicodeKernels::kSse2)) break;
  }
  kz::UnicodeUseKernels(kz::UnicodeBestKernels());
  return 0;
}
