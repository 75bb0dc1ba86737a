// Conversion between UTF-8 and 16-bit units, 32-bit code points and ISO-8859-1.
//
// Every converter has a fast path and a careful one that give the same result
// element for element:
//   - runs of ASCII move 16 at a time (SSE2 on x86-64, 8-byte words
//     elsewhere); a block that ends in a non-ASCII element stores exactly its
//     ASCII prefix, so nothing past the appended elements is ever written;
//   - 2- and 3-byte sequences (and 4-byte ones for code points) are read with
//     one 32-bit load while at least four bytes remain and checked with masks;
//   - anything else - a sequence the masks do not accept, the last three bytes
//     of the input, a full array - goes through ReadSequence, which checks every
//     byte against the end before it reads it and classifies the fault.
// Arrays grow exactly as one element at a time would grow them: an encoder
// grows by one step only when a value is ready and the array is full; a
// decoder converts unchecked only as many elements as are guaranteed to find
// 8 free bytes before them, and grows only when that guarantee runs out.
#include "kz/unicode.h"

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) && !defined(KZ_UNICODE_PORTABLE)
#include <emmintrin.h>
#define KZ_UNICODE_SSE2 1
#endif

#include "internal/context.h"
#include "kz/array.h"
#include "kz/error.h"
#include "kz/message.h"

namespace {

constexpr const char *kSource = "kzlib/unicode/unicode";
// Error exits of the two UTF-8 readers, and the growth calls (named in the
// out-of-memory report).
constexpr uint32_t kReadUTF8Line = 212;
constexpr uint32_t kReadUTF8_32Line = 287;
constexpr uint32_t kEncodeGrowLine = 341;
constexpr uint32_t kDecodeGrowLine = 428;
// Room for the terminator and the decoders' 8 free bytes is found with this
// limit; the array must stay below 2^31 elements.
constexpr uint64_t kReserveLimit = 0x7FFFFFFF;

// ---- loads -------------------------------------------------------------------

inline uint32_t Load32(const uint8_t *p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap32(w);
  return w;
}

// ---- growth --------------------------------------------------------------------

// Makes room for `required` elements with the growth rule and the 2^31 limit.
template <typename Record>
void ReserveExact(Record *array, uint64_t required, uint32_t line) {
  uint64_t next = ArrayNextSize(array->capacity, required, kReserveLimit);
  if (next >= kReserveLimit) kzassert_("eltCount < UINT_MAX_VALUE / 2", "kzlib/array", 114);
  ArrayGrowExact_(array, static_cast<uint32_t>(next), sizeof(*array->elements), kSource, line);
}

// The terminating zero element at index count, not counted.
template <typename Record>
void Terminate(Record *array, uint32_t line) {
  if (array->capacity < uint64_t(array->count) + 1) ReserveExact(array, uint64_t(array->count) + 1, line);
  array->elements[array->count] = 0;
}

// ---- UTF-8 reading -------------------------------------------------------------

enum class Read { kOk, kInvalid, kTooLarge, kTruncated };

// One sequence at p. Every byte is checked against the end before it is read:
// a sequence cut off by the end is kTruncated even when its bytes so far are
// already wrong for a later reason (an overlong start), but a byte that is
// present and not a continuation byte is kInvalid at once. With kFourByte the
// lead bytes F0-FF start four-byte sequences (masked with 0x0F, so F8-FF are
// accepted too); without it they are kTooLarge whatever follows. On success p
// moves past the sequence; on failure it stays at its lead byte.
template <bool kFourByte>
Read ReadSequence(const uint8_t *&p, const uint8_t *end, uint32_t &value) {
  const uint32_t lead = *p;
  if (lead < 0x80) {
    value = lead;
    ++p;
    return Read::kOk;
  }
  if (!(lead & 0x40)) return Read::kInvalid;
  int trail;
  uint32_t v;
  uint32_t least;
  if (!(lead & 0x20)) {
    trail = 1, v = lead & 0x1F, least = 0x80;
  } else if (!(lead & 0x10)) {
    trail = 2, v = lead & 0x0F, least = 0x800;
  } else if (!kFourByte) {
    return Read::kTooLarge;
  } else {
    trail = 3, v = lead & 0x0F, least = 0x10000;
  }
  const uint8_t *q = p + 1;
  for (int i = 0; i < trail; ++i) {
    if (q == end) return Read::kTruncated;
    const uint32_t c = *q++;
    if ((c & 0xC0) != 0x80) return Read::kInvalid;
    v = v << 6 | (c & 0x3F);
  }
  if (v < least) return Read::kInvalid;
  value = v;
  p = q;
  return Read::kOk;
}

// ---- ASCII blocks ----------------------------------------------------------------

// Stores n ASCII bytes as n output elements (n = 4 or 8 for the block forms).
template <typename Unit>
inline void WidenScalar(Unit *out, const uint8_t *p, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = p[i];
}

// Stores n ASCII input elements as n bytes.
template <typename In>
inline void NarrowScalar(uint8_t *out, const In *in, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(in[i]);
}

#if KZ_UNICODE_SSE2

constexpr uint32_t kBlock = 16;

// Input bytes -> output elements.
template <typename Unit>
inline void Widen16(Unit *out, __m128i v) {
  if constexpr (sizeof(Unit) == 1) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), v);
  } else {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(v, zero);
    const __m128i hi = _mm_unpackhi_epi8(v, zero);
    if constexpr (sizeof(Unit) == 2) {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), lo);
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8), hi);
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_unpacklo_epi16(lo, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4), _mm_unpackhi_epi16(lo, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8), _mm_unpacklo_epi16(hi, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 12), _mm_unpackhi_epi16(hi, zero));
    }
  }
}

template <typename Unit>
inline void Widen8(Unit *out, const uint8_t *p) {
  if constexpr (sizeof(Unit) == 1) {
    std::memcpy(out, p, 8);
  } else {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)), zero);
    if constexpr (sizeof(Unit) == 2) {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), lo);
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_unpacklo_epi16(lo, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4), _mm_unpackhi_epi16(lo, zero));
    }
  }
}

template <typename Unit>
inline void Widen4(Unit *out, const uint8_t *p) {
  if constexpr (sizeof(Unit) == 1) {
    std::memcpy(out, p, 4);
  } else {
    int32_t w;
    std::memcpy(&w, p, 4);
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(_mm_cvtsi32_si128(w), zero);
    if constexpr (sizeof(Unit) == 2) {
      _mm_storel_epi64(reinterpret_cast<__m128i *>(out), lo);
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_unpacklo_epi16(lo, zero));
    }
  }
}

// Input elements -> output bytes (the elements are known to be ASCII).
template <typename In>
inline __m128i Pack8(const In *in) {
  if constexpr (sizeof(In) == 2) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
    return _mm_packus_epi16(a, a);
  } else {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 4));
    const __m128i words = _mm_packs_epi32(a, b);
    return _mm_packus_epi16(words, words);
  }
}

template <typename In>
inline void Narrow8(uint8_t *out, const In *in) {
  if constexpr (sizeof(In) == 1) {
    std::memcpy(out, in, 8);
  } else {
    _mm_storel_epi64(reinterpret_cast<__m128i *>(out), Pack8(in));
  }
}

template <typename In>
inline void Narrow4(uint8_t *out, const In *in) {
  if constexpr (sizeof(In) == 1) {
    std::memcpy(out, in, 4);
  } else {
    __m128i v;
    if constexpr (sizeof(In) == 2) {
      v = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(in));
      v = _mm_packus_epi16(v, v);
    } else {
      v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
      v = _mm_packs_epi32(v, v);
      v = _mm_packus_epi16(v, v);
    }
    const int32_t w = _mm_cvtsi128_si32(v);
    std::memcpy(out, &w, 4);
  }
}

// The first k (1-15) bytes of a block are ASCII: store exactly k elements,
// with two overlapping stores when k allows.
template <typename Unit>
inline void WidenPrefix(Unit *out, const uint8_t *p, uint32_t k) {
  if (k >= 8) {
    Widen8(out, p);
    Widen8(out + k - 8, p + k - 8);
  } else if (k >= 4) {
    Widen4(out, p);
    Widen4(out + k - 4, p + k - 4);
  } else {
    WidenScalar(out, p, k);
  }
}

template <typename In>
inline void NarrowPrefix(uint8_t *out, const In *in, uint32_t k) {
  if (k >= 8) {
    Narrow8(out, in);
    Narrow8(out + k - 8, in + k - 8);
  } else if (k >= 4) {
    Narrow4(out, in);
    Narrow4(out + k - 4, in + k - 4);
  } else {
    NarrowScalar(out, in, k);
  }
}

// Bit i set when input element i of the block is not ASCII.
template <typename In>
inline uint32_t NonAsciiMask(const In *in, __m128i *packed) {
  if constexpr (sizeof(In) == 1) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
    *packed = v;
    return static_cast<uint32_t>(_mm_movemask_epi8(v));
  } else if constexpr (sizeof(In) == 2) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 8));
    // Signed saturation maps every unit above 0x7F to a byte with bit 7 set
    // (0x80-0x7FFF to 0x7F would not do, so test the high bits first).
    const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
    const __m128i zero = _mm_setzero_si128();
    const __m128i aAscii = _mm_cmpeq_epi16(_mm_and_si128(a, high), zero);
    const __m128i bAscii = _mm_cmpeq_epi16(_mm_and_si128(b, high), zero);
    *packed = _mm_packus_epi16(a, b);
    return ~static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(aAscii, bAscii))) & 0xFFFF;
  } else {
    const __m128i high = _mm_set1_epi32(static_cast<int>(0xFFFFFF80u));
    const __m128i zero = _mm_setzero_si128();
    __m128i v[4];
    __m128i ascii[4];
    for (int j = 0; j < 4; ++j) {
      v[j] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 4 * j));
      ascii[j] = _mm_cmpeq_epi32(_mm_and_si128(v[j], high), zero);
    }
    *packed = _mm_packus_epi16(_mm_packs_epi32(v[0], v[1]), _mm_packs_epi32(v[2], v[3]));
    const __m128i flags = _mm_packs_epi16(_mm_packs_epi32(ascii[0], ascii[1]), _mm_packs_epi32(ascii[2], ascii[3]));
    return ~static_cast<uint32_t>(_mm_movemask_epi8(flags)) & 0xFFFF;
  }
}

// Encoders: while 16 input bytes and 16 free elements remain, copies whole
// ASCII blocks; at the first non-ASCII byte stores the ASCII prefix of its
// block and returns.
template <typename Unit>
inline void AsciiBlocks(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  while (end - p >= kBlock && limit - out >= kBlock) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    const uint32_t mask = static_cast<uint32_t>(_mm_movemask_epi8(v));
    if (mask == 0) {
      Widen16(out, v);
      p += kBlock, out += kBlock;
      continue;
    }
    const uint32_t k = static_cast<uint32_t>(std::countr_zero(mask));
    if (k) WidenPrefix(out, p, k);
    p += k, out += k;
    return;
  }
}

// Decoders: the same over input elements [i, stop), all with room.
template <typename In>
inline void AsciiBlocks(const In *in, uint32_t &i, uint32_t stop, uint8_t *&out) {
  while (stop - i >= kBlock) {
    __m128i packed;
    const uint32_t mask = NonAsciiMask(in + i, &packed);
    if (mask == 0) {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(out), packed);
      i += kBlock, out += kBlock;
      continue;
    }
    const uint32_t k = static_cast<uint32_t>(std::countr_zero(mask));
    if (k) NarrowPrefix(out, in + i, k);
    i += k, out += k;
    return;
  }
}

#else  // word at a time

constexpr uint32_t kBlock = 8;

inline uint64_t Load64(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
  return w;
}

template <typename Unit>
inline void AsciiBlocks(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  while (end - p >= kBlock && limit - out >= kBlock) {
    const uint64_t high = Load64(p) & 0x8080808080808080ull;
    const uint32_t k = high ? static_cast<uint32_t>(std::countr_zero(high)) / 8 : kBlock;
    WidenScalar(out, p, k);
    p += k, out += k;
    if (high) return;
  }
}

template <typename In>
inline uint32_t AsciiPrefix(const In *in) {
  if constexpr (sizeof(In) == 1) {
    const uint64_t high = Load64(in) & 0x8080808080808080ull;
    return high ? static_cast<uint32_t>(std::countr_zero(high)) / 8 : kBlock;
  } else {
    for (uint32_t j = 0; j < kBlock; ++j)
      if (in[j] >= 0x80) return j;
    return kBlock;
  }
}

template <typename In>
inline void AsciiBlocks(const In *in, uint32_t &i, uint32_t stop, uint8_t *&out) {
  while (stop - i >= kBlock) {
    const uint32_t k = AsciiPrefix(in + i);
    NarrowScalar(out, in + i, k);
    i += k, out += k;
    if (k < kBlock) return;
  }
}

#endif

// ---- encoders: UTF-8 to 16-bit units, code points, ISO-8859-1 --------------------

enum class Form { kUCS2, kUCS4, kLatin1 };

template <Form F>
struct EncodeTraits;
template <>
struct EncodeTraits<Form::kUCS2> {
  using Record = UShortArray;
  static constexpr bool kFourByte = false;
  static constexpr uint32_t kMaxValue = 0xFFFF;
};
template <>
struct EncodeTraits<Form::kUCS4> {
  using Record = UIntArray;
  static constexpr bool kFourByte = true;
  static constexpr uint32_t kMaxValue = 0x3FFFFF;
};
template <>
struct EncodeTraits<Form::kLatin1> {
  using Record = UByteArray;
  static constexpr bool kFourByte = false;
  static constexpr uint32_t kMaxValue = 0xFF;
};

template <Form F>
int Encode(typename EncodeTraits<F>::Record *array, const char *text, uint32_t byteCount) {
  using Traits = EncodeTraits<F>;
  using Unit = std::remove_pointer_t<decltype(Traits::Record::elements)>;
  if (!text) return 0;
  const uint8_t *p = reinterpret_cast<const uint8_t *>(text);
  const uint8_t *const end = p + byteCount;
  Unit *base = array->elements;
  Unit *out = base + array->count;
  Unit *limit = base + array->capacity;
  Read status = Read::kOk;
  bool failed = false;
  for (;;) {
    AsciiBlocks(p, end, out, limit);
    // Multi-byte runs; ASCII bytes too when no whole block fits.
    bool toBlocks = false;
    while (end - p >= 4 && out != limit) {
      const uint32_t w = Load32(p);
      if (!(w & 0x80)) {
        if (end - p >= kBlock && limit - out >= kBlock) {
          toBlocks = true;
          break;
        }
        *out++ = static_cast<Unit>(w & 0x7F);
        ++p;
        continue;
      }
      if constexpr (F == Form::kLatin1) {
        // C2 or C3 with a continuation byte: 0x80-0xFF.
        if ((w & 0xC0FE) != 0x80C2) break;
        *out++ = static_cast<Unit>((w & 0x1F) << 6 | (w >> 8 & 0x3F));
        p += 2;
      } else {
        if ((w & 0xC0E0) == 0x80C0 && (w & 0x1E)) {  // C2-DF, continuation
          *out++ = static_cast<Unit>((w & 0x1F) << 6 | (w >> 8 & 0x3F));
          p += 2;
        } else if ((w & 0xC0C0F0) == 0x8080E0) {  // E0-EF, two continuations
          const uint32_t v = (w & 0x0F) << 12 | (w >> 2 & 0xFC0) | (w >> 16 & 0x3F);
          if (v < 0x800) break;
          *out++ = static_cast<Unit>(v);
          p += 3;
        } else if (F == Form::kUCS4 && (w & 0xC0C0C0F0) == 0x808080F0) {  // F0-FF, three continuations
          const uint32_t v = (w & 0x0F) << 18 | (w << 4 & 0x3F000) | (w >> 10 & 0xFC0) | (w >> 24 & 0x3F);
          if (v < 0x10000) break;
          *out++ = static_cast<Unit>(v);
          p += 4;
        } else {
          break;
        }
      }
    }
    if (toBlocks) continue;
    // One value the careful way: near the end of the input, at a full array,
    // or at a sequence the masks did not accept.
    if (p == end) break;
    uint32_t value;
    status = ReadSequence<Traits::kFourByte>(p, end, value);
    // A value above 0xFF is not representable in ISO-8859-1: a failure
    // without an error.
    if (status != Read::kOk || value > Traits::kMaxValue) {
      failed = true;
      break;
    }
    if (out == limit) {
      const uint32_t count = static_cast<uint32_t>(out - base);
      array->count = count;
      ArrayGrow_(array, sizeof(Unit), kSource, kEncodeGrowLine);
      base = array->elements, out = base + count, limit = base + array->capacity;
    }
    *out++ = static_cast<Unit>(value);
  }
  array->count = static_cast<uint32_t>(out - base);
  if (failed) {
    const char *function = Traits::kFourByte ? "ReadUTF8_32" : "ReadUTF8Inline";
    const uint32_t line = Traits::kFourByte ? kReadUTF8_32Line : kReadUTF8Line;
    if (status == Read::kInvalid) KZ_THROW_AT(kSource, line, function, KZ_ERR_PROTOCOL, "Invalid UTF-8 sequence");
    if (status == Read::kTooLarge)
      KZ_THROW_AT(kSource, line, function, KZ_ERR_PROTOCOL, "Unicode character larger than FFFF");
    return 0;
  }
  Terminate(array, kEncodeGrowLine);
  return 1;
}

// ---- decoders: 16-bit units, code points, ISO-8859-1 to UTF-8 --------------------

// Most bytes one input element can produce.
template <typename In>
constexpr uint32_t kMaxBytes = sizeof(In) == 1 ? 2 : sizeof(In) == 2 ? 3 : 4;

// Converts in[i, stop); the caller has checked that every element finds at
// least 8 free bytes in front of it.
template <typename In>
uint8_t *DecodeRun(const In *in, uint32_t i, uint32_t stop, uint8_t *out) {
  while (i < stop) {
    AsciiBlocks(in, i, stop, out);
    // Non-ASCII runs; ASCII elements too when no whole block is left.
    while (i < stop) {
      const uint32_t v = in[i];
      if (v < 0x80) {
        if (stop - i >= kBlock) break;
        *out++ = static_cast<uint8_t>(v);
      } else if (v < 0x800) {
        out[0] = static_cast<uint8_t>(0xC0 | v >> 6);
        out[1] = static_cast<uint8_t>(0x80 | (v & 0x3F));
        out += 2;
      } else if (sizeof(In) == 2 || v < 0x10000) {
        out[0] = static_cast<uint8_t>(0xE0 | v >> 12);
        out[1] = static_cast<uint8_t>(0x80 | (v >> 6 & 0x3F));
        out[2] = static_cast<uint8_t>(0x80 | (v & 0x3F));
        out += 3;
      } else if (v < 0x200000) {
        out[0] = static_cast<uint8_t>(0xF0 | v >> 18);
        out[1] = static_cast<uint8_t>(0x80 | (v >> 12 & 0x3F));
        out[2] = static_cast<uint8_t>(0x80 | (v >> 6 & 0x3F));
        out[3] = static_cast<uint8_t>(0x80 | (v & 0x3F));
        out += 4;
      }  // 0x200000 and above: dropped
      ++i;
    }
  }
  return out;
}

template <typename In>
int Decode(UByteArray *array, const In *in, uint32_t count) {
  if (!in) return 0;
  uint32_t i = 0;
  while (i < count) {
    const uint64_t used = array->count;
    if (array->capacity < used + 8) {
      ReserveExact(array, used + 8, kDecodeGrowLine);
      continue;
    }
    // Elements 0..n-1 from here all find 8 free bytes: each writes at most
    // kMaxBytes, so before element j at most j * kMaxBytes are used.
    const uint64_t n = (array->capacity - used - 8) / kMaxBytes<In> + 1;
    const uint32_t stop = count - i <= n ? count : i + static_cast<uint32_t>(n);
    uint8_t *out = DecodeRun(in, i, stop, array->elements + used);
    array->count = static_cast<uint32_t>(out - array->elements);
    i = stop;
  }
  Terminate(array, kDecodeGrowLine);
  return 1;
}

}  // namespace

extern "C" {

KZ_API int UCS2Encode(UShortArray *array, const char *utf8, uint32_t byteCount) {
  return Encode<Form::kUCS2>(array, utf8, byteCount);
}

KZ_API int UCS2Decode(UByteArray *array, const uint16_t *units, uint32_t unitCount) {
  return Decode(array, units, unitCount);
}

KZ_API int UCS4Encode(UIntArray *array, const char *utf8, uint32_t byteCount) {
  return Encode<Form::kUCS4>(array, utf8, byteCount);
}

KZ_API int UCS4Decode(UByteArray *array, const uint32_t *codePoints, uint32_t count) {
  return Decode(array, codePoints, count);
}

KZ_API int ISO88591Encode(UByteArray *array, const char *utf8, uint32_t byteCount) {
  return Encode<Form::kLatin1>(array, utf8, byteCount);
}

KZ_API int ISO88591Decode(UByteArray *array, const char *latin1, uint32_t byteCount) {
  return Decode(array, reinterpret_cast<const uint8_t *>(latin1), byteCount);
}

}  // extern "C"
