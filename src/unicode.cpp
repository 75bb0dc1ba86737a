// Conversion between UTF-8 and 16-bit units, 32-bit code points and ISO-8859-1.
//
// Every converter has fast paths and a careful one that give the same result
// element for element:
//   - blocks of 16 input bytes or elements (SSE2 on x86-64): ASCII blocks move
//     whole; encoders take runs of 3-byte sequences four at a time and blocks
//     mixing 1- to 3-byte sequences with a branch-free compaction; decoders
//     write every element's bytes as one 2- or 4-byte store and advance by its
//     length. Where SSSE3 is available (checked once at run time), byte
//     shuffles compact 16-bit values in the encoder and pack 8 elements below
//     0x800 into one store in the decoders. Elsewhere ASCII moves 8 bytes at a
//     time;
//   - wider kernels where the processor has them (the widest chosen once when
//     the library loads): with AVX-512 (VBMI2) encoders take 64-byte blocks
//     of 1- to 3-byte sequences, classified by masks and compressed to the
//     values where sequences start, and decoders write 16 elements' UTF-8
//     bytes (32 below 0x800) with one byte compress and a masked store; with
//     AVX2 ASCII moves 32 bytes at a time. A block they do not take goes to
//     the 16-byte blocks;
//   - single sequences are read with one 32-bit load while at least four bytes
//     remain and checked with masks;
//   - anything else - a sequence the masks do not accept, the last three bytes
//     of the input, a full array - goes through ReadSequence, which checks every
//     byte against the end before it reads it and classifies the fault.
// Nothing is written past the appended elements and the terminator. (Decoders
// use up to 8 bytes of room behind their output as scratch, within capacity,
// and only where the elements that follow overwrite all of it.)
// Arrays grow exactly as one element at a time would grow them: an encoder
// grows by one step only when a value is ready and the array is full; a
// decoder converts unchecked only as many elements as are guaranteed to find
// 8 free bytes before them, and grows only when that guarantee runs out.
#include "kz/unicode.h"

#include <bit>
#include <cstdint>
#include <cstring>

// KZ_UNICODE_PORTABLE builds the word-at-a-time paths on x86-64 too, and
// KZ_UNICODE_NO_SHUFFLE, KZ_UNICODE_MAX_SSSE3 and KZ_UNICODE_MAX_AVX2 cap the
// kernels, so that every path can be tested on a machine that would take a
// wider one.
#if defined(__SSE2__) && !defined(KZ_UNICODE_PORTABLE)
#include <immintrin.h>
#define KZ_UNICODE_SSE2 1
#endif

#include <atomic>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/unicode_kernels.h"
#include "kz/array.h"
#include "kz/error.h"
#include "kz/message.h"

namespace {

using Kernels = kz::UnicodeKernels;

// Builds that cap the kernels, so that each level is tested on a machine
// that would take a wider one.
#if defined(KZ_UNICODE_NO_SHUFFLE)
constexpr Kernels kKernelCap = Kernels::kSse2;
#elif defined(KZ_UNICODE_MAX_SSSE3)
constexpr Kernels kKernelCap = Kernels::kSsse3;
#elif defined(KZ_UNICODE_MAX_AVX2)
constexpr Kernels kKernelCap = Kernels::kAvx2;
#else
constexpr Kernels kKernelCap = Kernels::kAvx512;
#endif

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

// Little-endian stores of the low bytes first.
inline void Put32(uint8_t *p, uint32_t w) {
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap32(w);
  std::memcpy(p, &w, 4);
}

inline void Put16(uint8_t *p, uint16_t w) {
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap16(w);
  std::memcpy(p, &w, 2);
}

// ---- growth --------------------------------------------------------------------

// Makes room for `required` elements with the growth rule and the 2^31 limit.
template <typename Record>
void ReserveExact(Record *array, uint64_t required, uint32_t line) {
  kz::View(*array, kSource, line).Reserve(required, kReserveLimit);
}

// The terminating zero element at index count, not counted.
template <typename Record>
void Terminate(Record *array, uint32_t line) {
  ReserveExact(array, uint64_t(array->count) + 1, line);
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

// ---- block kernels ------------------------------------------------------------------
//
// Encoders call EncodeBlocks while 16 input bytes and 16 free elements remain;
// it converts whole blocks and returns at a block it does not take, after
// storing that block's ASCII prefix. Decoders call DecodeRun over input
// elements that all find 8 free bytes in front of them.

template <typename Unit>
inline void WidenScalar(Unit *out, const uint8_t *p, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) out[i] = p[i];
}

// One element as UTF-8, exactly its bytes (nothing for 0x200000 and above).
inline uint8_t *PutUtf8(uint8_t *out, uint32_t v) {
  if (v < 0x80) {
    *out++ = static_cast<uint8_t>(v);
  } else if (v < 0x800) {
    out[0] = static_cast<uint8_t>(0xC0 | v >> 6);
    out[1] = static_cast<uint8_t>(0x80 | (v & 0x3F));
    out += 2;
  } else if (v < 0x10000) {
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
  }
  return out;
}

enum class Form { kUCS2, kUCS4, kLatin1 };

#if KZ_UNICODE_SSE2

constexpr uint32_t kBlock = 16;

inline __m128i Bytes(int x) { return _mm_set1_epi8(static_cast<char>(x)); }
inline __m128i Words(int x) { return _mm_set1_epi16(static_cast<short>(x)); }
inline __m128i Dwords(uint32_t x) { return _mm_set1_epi32(static_cast<int>(x)); }
// Lanes of b where mask is set, of a elsewhere.
inline __m128i Select(__m128i mask, __m128i b, __m128i a) {
  return _mm_or_si128(_mm_and_si128(mask, b), _mm_andnot_si128(mask, a));
}
inline __m128i Load(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }
inline void Store(void *p, __m128i v) { _mm_storeu_si128(static_cast<__m128i *>(p), v); }
inline uint64_t Low64(__m128i v) { return static_cast<uint64_t>(_mm_cvtsi128_si64(v)); }
inline uint64_t High64(__m128i v) { return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(v, v))); }

// Input bytes -> output elements.
template <typename Unit>
inline void Widen16(Unit *out, __m128i v) {
  if constexpr (sizeof(Unit) == 1) {
    Store(out, v);
  } else {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(v, zero);
    const __m128i hi = _mm_unpackhi_epi8(v, zero);
    if constexpr (sizeof(Unit) == 2) {
      Store(out, lo);
      Store(out + 8, hi);
    } else {
      Store(out, _mm_unpacklo_epi16(lo, zero));
      Store(out + 4, _mm_unpackhi_epi16(lo, zero));
      Store(out + 8, _mm_unpacklo_epi16(hi, zero));
      Store(out + 12, _mm_unpackhi_epi16(hi, zero));
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
      Store(out, lo);
    } else {
      Store(out, _mm_unpacklo_epi16(lo, zero));
      Store(out + 4, _mm_unpackhi_epi16(lo, zero));
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
      Store(out, _mm_unpacklo_epi16(lo, zero));
    }
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

// ---- byte shuffles (SSSE3, nearly every x86-64 processor) ----

// The widest kernels this processor runs, capped by the build switches.
// Decided when the library loads: a function-local static would make the
// first concurrent calls wait on its guard, which changes errno.
Kernels DetectKernels() {
  __builtin_cpu_init();  // static initialisation may run before the compiler's own
  Kernels best = Kernels::kSse2;
  if (__builtin_cpu_supports("ssse3")) best = Kernels::kSsse3;
  if (__builtin_cpu_supports("avx2")) best = Kernels::kAvx2;
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("bmi2"))
    best = Kernels::kAvx512;
  return best < kKernelCap ? best : kKernelCap;
}

const Kernels g_bestKernels = DetectKernels();
std::atomic<Kernels> g_kernels{g_bestKernels};

Kernels CurrentKernels() { return g_kernels.load(std::memory_order_relaxed); }

// Decoders: eight elements below 0x800 make 8 to 16 bytes; one shuffle, chosen
// by which of them are ASCII, packs their byte pairs into one 16-byte store.
struct ShuffleTable {
  uint8_t index[256][16];
  uint8_t length[256];
};

constexpr ShuffleTable MakeShuffleTable() {
  ShuffleTable t{};
  for (int mask = 0; mask < 256; ++mask) {
    int k = 0;
    for (int j = 0; j < 8; ++j) {
      t.index[mask][k++] = static_cast<uint8_t>(2 * j);
      if (!(mask >> j & 1)) t.index[mask][k++] = static_cast<uint8_t>(2 * j + 1);
    }
    t.length[mask] = static_cast<uint8_t>(k);
    for (; k < 16; ++k) t.index[mask][k] = 0x80;  // zero
  }
  return t;
}

alignas(16) constexpr ShuffleTable kShuffle = MakeShuffleTable();

// Encoders: 16-bit lanes of one register. compact[mask] keeps the lanes whose
// bit is set, in order, zeros behind; up[s] moves lanes up by s, down[s] down
// by s, filling with zeros.
struct LaneTables {
  uint8_t compact[256][16];
  uint8_t count[256];
  uint8_t up[9][16];
  uint8_t down[9][16];
};

constexpr LaneTables MakeLaneTables() {
  LaneTables t{};
  for (int mask = 0; mask < 256; ++mask) {
    int k = 0;
    for (int lane = 0; lane < 8; ++lane)
      if (mask >> lane & 1) {
        t.compact[mask][2 * k] = static_cast<uint8_t>(2 * lane);
        t.compact[mask][2 * k + 1] = static_cast<uint8_t>(2 * lane + 1);
        ++k;
      }
    t.count[mask] = static_cast<uint8_t>(k);
    for (; k < 8; ++k) t.compact[mask][2 * k] = t.compact[mask][2 * k + 1] = 0x80;
  }
  for (int shift = 0; shift <= 8; ++shift)
    for (int lane = 0; lane < 8; ++lane)
      for (int byte = 0; byte < 2; ++byte) {
        t.up[shift][2 * lane + byte] = lane >= shift ? static_cast<uint8_t>(2 * (lane - shift) + byte) : 0x80;
        t.down[shift][2 * lane + byte] = lane + shift < 8 ? static_cast<uint8_t>(2 * (lane + shift) + byte) : 0x80;
      }
  return t;
}

alignas(16) constexpr LaneTables kLanes = MakeLaneTables();

// Four 3-byte sequences in bytes 0-11 of v (a run of CJK text): stores their
// values and returns true, or returns false when the bytes are anything else.
template <typename Unit>
inline bool ThreeByteBlock(__m128i v, Unit *out) {
  // Lane j holds bytes 3j to 3j + 3.
  const __m128i lanes = _mm_unpacklo_epi64(_mm_unpacklo_epi32(v, _mm_srli_si128(v, 3)),
                                           _mm_unpacklo_epi32(_mm_srli_si128(v, 6), _mm_srli_si128(v, 9)));
  const __m128i form = _mm_cmpeq_epi32(_mm_and_si128(lanes, Dwords(0x00C0C0F0)), Dwords(0x008080E0));
  // Below 0x800: no bit in the lead's low nibble nor in bit 5 of the first continuation.
  const __m128i overlong = _mm_cmpeq_epi32(_mm_and_si128(lanes, Dwords(0x200F)), _mm_setzero_si128());
  if (_mm_movemask_epi8(_mm_andnot_si128(overlong, form)) != 0xFFFF) return false;
  const __m128i values = _mm_or_si128(_mm_or_si128(_mm_slli_epi32(_mm_and_si128(lanes, Dwords(0x0F)), 12),
                                                   _mm_srli_epi32(_mm_and_si128(lanes, Dwords(0x3F00)), 2)),
                                      _mm_srli_epi32(_mm_and_si128(lanes, Dwords(0x3F0000)), 16));
  if constexpr (sizeof(Unit) == 4) {
    Store(out, values);
  } else {
    // Unsigned 32 -> 16 bits through the signed pack: bias by 0x8000 and back.
    const __m128i biased = _mm_sub_epi32(values, Dwords(0x8000));
    const __m128i units = _mm_xor_si128(_mm_packs_epi32(biased, biased), Words(0x8000));
    _mm_storel_epi64(reinterpret_cast<__m128i *>(out), units);
  }
  return true;
}

// A block of ASCII, 2-byte and 3-byte sequences (for ISO-8859-1: ASCII and
// C2/C3 sequences only): the value at every position (meaningful where a
// sequence starts), the positions to keep and the bytes consumed (14-16) - a
// sequence cut by the block's end is left for the next block.
struct Mixed {
  __m128i value[2];  // positions 0-7 and 8-15, 16 bits each
  __m128i kept;      // 0xFF at kept positions
  uint32_t keep;     // bit i: position i is kept
  uint32_t consumed;
};

// False when the block holds anything else.
template <Form F>
__attribute__((always_inline)) inline bool ReadMixed(__m128i v, uint32_t nonAscii, Mixed *m) {
  // Classes by signed byte value: 80-BF < -64; C2-DF (C2-C3) and E0-EF in between.
  const __m128i contBytes = _mm_cmplt_epi8(v, Bytes(0xC0));
  const uint32_t cont = static_cast<uint32_t>(_mm_movemask_epi8(contBytes));
  const __m128i above = _mm_cmpgt_epi8(v, Bytes(0xC1));
  const uint32_t lead2 = static_cast<uint32_t>(
      _mm_movemask_epi8(_mm_and_si128(above, _mm_cmplt_epi8(v, Bytes(F == Form::kLatin1 ? 0xC4 : 0xE0)))));
  uint32_t lead3 = 0;
  if constexpr (F != Form::kLatin1)
    lead3 = static_cast<uint32_t>(
        _mm_movemask_epi8(_mm_and_si128(_mm_cmpgt_epi8(v, Bytes(0xDF)), _mm_cmplt_epi8(v, Bytes(0xF0)))));
  if ((cont | lead2 | lead3) != nonAscii) return false;
  if (cont != ((lead2 << 1 | lead3 << 1 | lead3 << 2) & 0xFFFF)) return false;
  const uint32_t cut = (lead2 & 0x8000) | (lead3 & 0xC000);
  const uint32_t consumed = cut ? static_cast<uint32_t>(std::countr_zero(cut)) : 16;
  const uint32_t within = (1u << consumed) - 1;  // positions of complete sequences
  const __m128i zero = _mm_setzero_si128();
  const __m128i next1 = _mm_srli_si128(v, 1);
  if constexpr (F != Form::kLatin1) {
    if (lead3) {
      const __m128i payload = _mm_or_si128(_mm_and_si128(v, Bytes(0x0F)), _mm_and_si128(next1, Bytes(0x20)));
      if (static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(payload, zero))) & lead3 & within) return false;
    }
  }
  const __m128i next2 = _mm_srli_si128(v, 2);
  for (int half = 0; half < 2; ++half) {
    const __m128i cur = half ? _mm_unpackhi_epi8(v, zero) : _mm_unpacklo_epi8(v, zero);
    const __m128i c1 =
        _mm_and_si128(half ? _mm_unpackhi_epi8(next1, zero) : _mm_unpacklo_epi8(next1, zero), Words(0x3F));
    const __m128i two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(cur, Words(0x1F)), 6), c1);
    __m128i value = Select(_mm_cmpgt_epi16(cur, Words(0xBF)), two, cur);
    if constexpr (F != Form::kLatin1) {
      const __m128i c2 =
          _mm_and_si128(half ? _mm_unpackhi_epi8(next2, zero) : _mm_unpacklo_epi8(next2, zero), Words(0x3F));
      const __m128i three = _mm_or_si128(_mm_or_si128(_mm_slli_epi16(cur, 12), _mm_slli_epi16(c1, 6)), c2);
      value = Select(_mm_cmpgt_epi16(cur, Words(0xDF)), three, value);
    }
    m->value[half] = value;
  }
  const __m128i positions = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  m->kept = _mm_andnot_si128(contBytes, _mm_cmplt_epi8(positions, Bytes(static_cast<int>(consumed))));
  m->keep = ~cont & within;
  m->consumed = consumed;
  return true;
}

// Stores exactly the kept values; returns their number. Position i goes to
// slot (kept positions up to i) - 1, a prefix sum of the kept flags. Stored
// from the last position down, a position that is not kept lands in the slot
// of the next kept position below it, which that one then overwrites;
// position 0 is always kept, so every store lands inside the kept values.
template <typename Unit>
__attribute__((always_inline)) inline uint32_t CompactSlots(const Mixed &m, Unit *out) {
  __m128i sum = _mm_and_si128(m.kept, Bytes(1));
  sum = _mm_add_epi8(sum, _mm_slli_si128(sum, 1));
  sum = _mm_add_epi8(sum, _mm_slli_si128(sum, 2));
  sum = _mm_add_epi8(sum, _mm_slli_si128(sum, 4));
  sum = _mm_add_epi8(sum, _mm_slli_si128(sum, 8));
  // Values and slots move to general registers 64 bits at a time.
  const __m128i slots = _mm_sub_epi8(sum, Bytes(1));
  const uint64_t slot[2] = {Low64(slots), High64(slots)};
  const uint64_t value[4] = {Low64(m.value[0]), High64(m.value[0]), Low64(m.value[1]), High64(m.value[1])};
#pragma GCC unroll 16
  for (int i = 15; i >= 0; --i)
    out[slot[i / 8] >> (8 * (i % 8)) & 0xFF] = static_cast<Unit>(static_cast<uint16_t>(value[i / 4] >> (16 * (i % 4))));
  return static_cast<uint32_t>(slot[1] >> 56) + 1;
}

// The same with shuffles, for 16-bit values: each half of the block packs its
// kept lanes to the front; the first 8 values and the last 8 values (n of them
// in all, 8 or more) are then assembled with lane shifts and stored, the two
// stores overlapping, so that exactly the kept values are written. Fewer than
// 8 values take the slots.
__attribute__((target("ssse3"))) inline uint32_t CompactShuffle(const Mixed &m, uint16_t *out) {
  const uint32_t lo = m.keep & 0xFF;
  const uint32_t hi = m.keep >> 8 & 0xFF;
  const uint32_t nLo = kLanes.count[lo];
  const uint32_t nHi = kLanes.count[hi];
  const uint32_t n = nLo + nHi;
  if (n < 8) return CompactSlots(m, out);
  const __m128i front = _mm_shuffle_epi8(m.value[0], Load(kLanes.compact[lo]));
  const __m128i back = _mm_shuffle_epi8(m.value[1], Load(kLanes.compact[hi]));
  Store(out, _mm_or_si128(front, _mm_shuffle_epi8(back, Load(kLanes.up[nLo]))));
  Store(out + n - 8, _mm_or_si128(_mm_shuffle_epi8(front, Load(kLanes.down[n - 8])),
                                  _mm_shuffle_epi8(back, Load(kLanes.up[8 - nHi]))));
  return n;
}

template <Form F, typename Unit, bool kShuffle>
__attribute__((always_inline)) inline void EncodeBlocks(const uint8_t *&p, const uint8_t *end, Unit *&out,
                                                        Unit *limit) {
  while (end - p >= kBlock && limit - out >= kBlock) {
    const __m128i v = Load(p);
    const uint32_t nonAscii = static_cast<uint32_t>(_mm_movemask_epi8(v));
    if (nonAscii == 0) {
      Widen16(out, v);
      p += kBlock, out += kBlock;
      continue;
    }
    if constexpr (F != Form::kLatin1) {
      if ((p[0] & 0xF0) == 0xE0 && ThreeByteBlock(v, out)) {
        p += 12, out += 4;
        continue;
      }
    }
    Mixed m;
    if (ReadMixed<F>(v, nonAscii, &m)) {
      if constexpr (kShuffle)
        out += CompactShuffle(m, out);
      else
        out += CompactSlots(m, out);
      p += m.consumed;
      continue;
    }
    const uint32_t k = static_cast<uint32_t>(std::countr_zero(nonAscii));
    if (k) WidenPrefix(out, p, k);
    p += k, out += k;
    return;
  }
}

__attribute__((target("ssse3"))) void EncodeBlocksShuffle(const uint8_t *&p, const uint8_t *end, uint16_t *&out,
                                                          uint16_t *limit) {
  EncodeBlocks<Form::kUCS2, uint16_t, true>(p, end, out, limit);
}

// Blocks with the shuffles where they serve (16-bit values on a processor
// that has them), else without.
template <Form F, typename Unit>
inline void EncodeBlocks16(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit, bool shuffle) {
  if constexpr (F == Form::kUCS2) {
    if (shuffle) return EncodeBlocksShuffle(p, end, out, limit);
  }
  EncodeBlocks<F, Unit, false>(p, end, out, limit);
}

// ---- wide kernels (AVX2, AVX-512 with VBMI2) ----
//
// They take 32 or 64 bytes a step and leave a block they do not take to the
// 16-byte blocks for the next 64 bytes, then go on; the 16-byte blocks return
// at a block they do not take either, as before.

#define KZ_AVX2   __attribute__((target("avx2")))
#define KZ_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,bmi2")))

// GCC 12 takes the AVX-512 headers' deliberately undefined registers for
// uninitialised values.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// ASCII blocks of 32 bytes; false at a block with another byte.
template <typename Unit>
KZ_AVX2 bool EncodeAscii32(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  while (end - p >= 32 && limit - out >= 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    if (_mm256_movemask_epi8(v)) return false;
    if constexpr (sizeof(Unit) == 1) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), v);
    } else if constexpr (sizeof(Unit) == 2) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), _mm256_cvtepu8_epi16(_mm256_castsi256_si128(v)));
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 16), _mm256_cvtepu8_epi16(_mm256_extracti128_si256(v, 1)));
    } else {
      for (int k = 0; k < 4; ++k)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 8 * k),
                            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + 8 * k))));
    }
    p += 32, out += 32;
  }
  return true;
}

// Bytes 0-31 or 32-63 as 16-bit lanes.
KZ_AVX512 inline __m512i WidenHalf(__m512i x, int half) {
  return _mm512_cvtepu8_epi16(half ? _mm512_extracti64x4_epi64(x, 1) : _mm512_castsi512_si256(x));
}

// 64 bytes of ASCII, 2-byte and 3-byte sequences (for ISO-8859-1: ASCII and
// C2/C3 sequences only) a step: the bytes classified by masks, the value of
// every position computed in 16-bit lanes, the values where sequences start
// compressed together and stored with a mask; a sequence cut by the block's
// end is left for the next block. False at a block holding anything else.
template <Form F, typename Unit>
KZ_AVX512 bool EncodeBlocks64(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  const __m512i positions =
      _mm512_set_epi8(63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42, 41, 40,
                      39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16,
                      15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  const __m512i after1 = _mm512_add_epi8(positions, _mm512_set1_epi8(1));
  const __m512i after2 = _mm512_add_epi8(positions, _mm512_set1_epi8(2));
  while (end - p >= 64 && limit - out >= 64) {
    const __m512i v = _mm512_loadu_si512(p);
    const uint64_t nonAscii = _mm512_movepi8_mask(v);
    if (!nonAscii) {
      if constexpr (sizeof(Unit) == 1) {
        _mm512_storeu_si512(out, v);
      } else if constexpr (sizeof(Unit) == 2) {
        _mm512_storeu_si512(out, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(v)));
        _mm512_storeu_si512(out + 32, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(v, 1)));
      } else {
        _mm512_storeu_si512(out, _mm512_cvtepu8_epi32(_mm512_castsi512_si128(v)));
        _mm512_storeu_si512(out + 16, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(v, 1)));
        _mm512_storeu_si512(out + 32, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(v, 2)));
        _mm512_storeu_si512(out + 48, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(v, 3)));
      }
      p += 64, out += 64;
      continue;
    }
    const uint64_t cont =
        _mm512_cmpeq_epi8_mask(_mm512_and_si512(v, _mm512_set1_epi8(char(0xC0))), _mm512_set1_epi8(char(0x80)));
    const uint64_t lead2 = _mm512_cmple_epu8_mask(_mm512_sub_epi8(v, _mm512_set1_epi8(char(0xC2))),
                                                  _mm512_set1_epi8(F == Form::kLatin1 ? 0x01 : 0x1D));
    uint64_t lead3 = 0;
    if constexpr (F != Form::kLatin1)
      lead3 = _mm512_cmple_epu8_mask(_mm512_sub_epi8(v, _mm512_set1_epi8(char(0xE0))), _mm512_set1_epi8(0x0F));
    if ((cont | lead2 | lead3) != nonAscii || cont != (lead2 << 1 | lead3 << 1 | lead3 << 2)) return false;
    const uint64_t cut = (lead2 & 0x8000000000000000ull) | (lead3 & 0xC000000000000000ull);
    const unsigned consumed = cut ? static_cast<unsigned>(std::countr_zero(cut)) : 64;
    const uint64_t within = consumed == 64 ? ~0ull : (uint64_t{1} << consumed) - 1;
    const __m512i next1 = _mm512_permutexvar_epi8(after1, v);
    if constexpr (F != Form::kLatin1) {
      // Below 0x800: no bit in the lead's low nibble nor in bit 5 of the first continuation.
      const __m512i payload =
          _mm512_or_si512(_mm512_and_si512(v, _mm512_set1_epi8(0x0F)), _mm512_and_si512(next1, _mm512_set1_epi8(0x20)));
      if (_mm512_testn_epi8_mask(payload, payload) & lead3 & within) return false;
    }
    const __m512i next2 = _mm512_permutexvar_epi8(after2, v);
    const uint64_t keep = ~cont & within;
    for (int half = 0; half < 2; ++half) {
      const __m512i cur = WidenHalf(v, half);
      const __m512i c1 = _mm512_and_si512(WidenHalf(next1, half), _mm512_set1_epi16(0x3F));
      const __m512i two = _mm512_or_si512(_mm512_slli_epi16(_mm512_and_si512(cur, _mm512_set1_epi16(0x1F)), 6), c1);
      __m512i value = _mm512_mask_mov_epi16(cur, static_cast<__mmask32>(lead2 >> (32 * half)), two);
      if constexpr (F != Form::kLatin1) {
        const __m512i c2 = _mm512_and_si512(WidenHalf(next2, half), _mm512_set1_epi16(0x3F));
        const __m512i three =
            _mm512_or_si512(_mm512_or_si512(_mm512_slli_epi16(cur, 12), _mm512_slli_epi16(c1, 6)), c2);
        value = _mm512_mask_mov_epi16(value, static_cast<__mmask32>(lead3 >> (32 * half)), three);
      }
      const auto kept = static_cast<__mmask32>(keep >> (32 * half));
      const unsigned n = static_cast<unsigned>(std::popcount(static_cast<uint32_t>(kept)));
      const __m512i packed = _mm512_maskz_compress_epi16(kept, value);
      if constexpr (sizeof(Unit) == 2) {
        _mm512_mask_storeu_epi16(out, _bzhi_u32(~0u, n), packed);
      } else if constexpr (sizeof(Unit) == 1) {
        _mm256_mask_storeu_epi8(out, _bzhi_u32(~0u, n), _mm512_cvtepi16_epi8(packed));
      } else {
        _mm512_mask_storeu_epi32(out, static_cast<__mmask16>(_bzhi_u32(0xFFFF, n)),
                                 _mm512_cvtepu16_epi32(_mm512_castsi512_si256(packed)));
        if (n > 16)
          _mm512_mask_storeu_epi32(out + 16, static_cast<__mmask16>(_bzhi_u32(0xFFFF, n - 16)),
                                   _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(packed, 1)));
      }
      out += n;
    }
    p += consumed;
  }
  return true;
}

template <Form F, typename Unit>
KZ_AVX512 void EncodeBlocksAvx512(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  while (!EncodeBlocks64<F>(p, end, out, limit)) {
    const uint8_t *const stop = p + 64;
    EncodeBlocks16<F>(p, stop, out, limit, true);
    if (stop - p >= kBlock && limit - out >= kBlock) return;  // a block the 16-byte blocks do not take either
  }
  EncodeBlocks16<F>(p, end, out, limit, true);
}

template <Form F, typename Unit>
KZ_AVX2 void EncodeBlocksAvx2(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit) {
  while (!EncodeAscii32(p, end, out, limit)) {
    const uint8_t *const stop = end - p > 64 ? p + 64 : end;
    EncodeBlocks16<F>(p, stop, out, limit, true);
    if (stop - p >= kBlock && limit - out >= kBlock) return;
  }
  EncodeBlocks16<F>(p, end, out, limit, true);
}

template <Form F, typename Unit>
inline void EncodeBlocks(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit, Kernels kernels) {
  if (kernels >= Kernels::kAvx512) return EncodeBlocksAvx512<F>(p, end, out, limit);
  if (kernels >= Kernels::kAvx2) return EncodeBlocksAvx2<F>(p, end, out, limit);
  EncodeBlocks16<F>(p, end, out, limit, kernels >= Kernels::kSsse3);
}

// Decoders. Each general block stores 2 or 4 bytes for every element and
// advances by its length, so up to 3 bytes past its output are scratch; it
// runs only when at least 3 more elements of the same run follow, whose
// output (at least a byte each) covers them. Before every element 8 bytes are
// free, so the stores stay inside the capacity.

// Writes N elements one after another: element j's bytes are 32-bit lane j
// of `words` (two lanes to a word, the low one first), stored whole, and its
// length is byte j of `lengths`, by which the output advances.
template <int N>
__attribute__((always_inline)) inline uint8_t *PutPacked(const uint64_t (&words)[N / 2], uint64_t lengths,
                                                         uint8_t *out) {
#pragma GCC unroll 8
  for (int j = 0; j < N; ++j) {
    Put32(out, static_cast<uint32_t>(words[j / 2] >> (32 * (j % 2))));
    out += lengths >> (8 * j) & 0xFF;
  }
  return out;
}

// Eight units: 1-3 bytes each.
inline uint8_t *Ucs2Block(__m128i u, uint8_t *out) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i ascii = _mm_cmpeq_epi16(_mm_and_si128(u, Words(0xFF80)), zero);
  const __m128i small = _mm_cmpeq_epi16(_mm_and_si128(u, Words(0xF800)), zero);
  const __m128i last = _mm_or_si128(_mm_and_si128(u, Words(0x3F)), Words(0x80));
  const __m128i middle = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(u, 6), Words(0x3F)), Words(0x80));
  const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(u, 6), Words(0xC0)), _mm_slli_epi16(last, 8));
  const __m128i three = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(u, 12), Words(0xE0)), _mm_slli_epi16(middle, 8));
  const __m128i low = Select(ascii, u, Select(small, two, three));
  const __m128i high = _mm_andnot_si128(small, last);
  const __m128i first = _mm_unpacklo_epi16(low, high);
  const __m128i second = _mm_unpackhi_epi16(low, high);
  const uint64_t words[4] = {Low64(first), High64(first), Low64(second), High64(second)};
  // 3 + (-1 if below 0x800) + (-1 if ASCII), one byte per unit.
  const __m128i lengths = _mm_add_epi16(_mm_add_epi16(Words(3), small), ascii);
  return PutPacked<8>(words, Low64(_mm_packus_epi16(lengths, lengths)), out);
}

// Four code points below 0x200000: 1-4 bytes each.
inline uint8_t *Ucs4Block(__m128i v, uint8_t *out) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i below80 = _mm_cmpeq_epi32(_mm_and_si128(v, Dwords(0xFFFFFF80)), zero);
  const __m128i below800 = _mm_cmpeq_epi32(_mm_and_si128(v, Dwords(0xFFFFF800)), zero);
  const __m128i below10000 = _mm_cmpeq_epi32(_mm_and_si128(v, Dwords(0xFFFF0000)), zero);
  const __m128i b0 = _mm_or_si128(_mm_and_si128(v, Dwords(0x3F)), Dwords(0x80));
  const __m128i b6 = _mm_or_si128(_mm_and_si128(_mm_srli_epi32(v, 6), Dwords(0x3F)), Dwords(0x80));
  const __m128i b12 = _mm_or_si128(_mm_and_si128(_mm_srli_epi32(v, 12), Dwords(0x3F)), Dwords(0x80));
  const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(v, 6), Dwords(0xC0)), _mm_slli_epi32(b0, 8));
  const __m128i three = _mm_or_si128(
      _mm_or_si128(_mm_or_si128(_mm_srli_epi32(v, 12), Dwords(0xE0)), _mm_slli_epi32(b6, 8)), _mm_slli_epi32(b0, 16));
  const __m128i four =
      _mm_or_si128(_mm_or_si128(_mm_or_si128(_mm_srli_epi32(v, 18), Dwords(0xF0)), _mm_slli_epi32(b12, 8)),
                   _mm_or_si128(_mm_slli_epi32(b6, 16), _mm_slli_epi32(b0, 24)));
  const __m128i bytes = Select(below80, v, Select(below800, two, Select(below10000, three, four)));
  const uint64_t words[2] = {Low64(bytes), High64(bytes)};
  const __m128i lengths = _mm_add_epi32(_mm_add_epi32(_mm_add_epi32(Dwords(4), below80), below800), below10000);
  const __m128i narrow = _mm_packs_epi32(lengths, lengths);
  return PutPacked<4>(words, Low64(_mm_packus_epi16(narrow, narrow)), out);
}

// Sixteen ISO-8859-1 bytes: 1-2 bytes each.
inline uint8_t *Latin1Block(__m128i v, uint8_t *out) {
  const __m128i zero = _mm_setzero_si128();
  uint64_t words[4];
  for (int half = 0; half < 2; ++half) {
    const __m128i b = half ? _mm_unpackhi_epi8(v, zero) : _mm_unpacklo_epi8(v, zero);
    const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(b, 6), Words(0xC0)),
                                     _mm_slli_epi16(_mm_or_si128(_mm_and_si128(b, Words(0x3F)), Words(0x80)), 8));
    const __m128i both = Select(_mm_cmplt_epi16(b, Words(0x80)), b, two);
    words[2 * half] = Low64(both);
    words[2 * half + 1] = High64(both);
  }
  const uint32_t high = static_cast<uint32_t>(_mm_movemask_epi8(v));
#pragma GCC unroll 16
  for (int j = 0; j < 16; ++j) {
    Put16(out, static_cast<uint16_t>(words[j / 4] >> (16 * (j % 4))));
    out += 1 + (high >> j & 1);
  }
  return out;
}

// Converts blocks of 8 elements below 0x800 from in[i] on while 16 elements
// remain: the 16-byte store leaves up to 8 bytes of scratch, which the
// elements behind the block (8 bytes at least) overwrite. Returns at the first
// block with a larger element.
template <typename In>
__attribute__((target("ssse3"))) void ShuffleRuns(const In *in, uint32_t &i, uint32_t stop, uint8_t *&out) {
  const __m128i zero = _mm_setzero_si128();
  while (stop - i >= 16) {
    __m128i u;
    if constexpr (sizeof(In) == 1) {
      u = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(in + i)), zero);
    } else {
      u = Load(in + i);
      if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(u, Words(0xF800)), zero)) != 0xFFFF) return;
    }
    const __m128i ascii = _mm_cmpeq_epi16(_mm_and_si128(u, Words(0xFF80)), zero);
    const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(u, 6), Words(0xC0)),
                                     _mm_slli_epi16(_mm_or_si128(_mm_and_si128(u, Words(0x3F)), Words(0x80)), 8));
    const uint32_t mask = static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(ascii, zero)));
    Store(out, _mm_shuffle_epi8(Select(ascii, u, two), Load(kShuffle.index[mask])));
    out += kShuffle.length[mask];
    i += 8;
  }
}

// 16 elements a step: each element's UTF-8 bytes in a 32-bit lane (nothing
// for 0x200000 and above), the bytes within each length compressed together
// and stored with a mask, exactly the bytes of the elements; 64 ASCII
// elements as one store.
template <typename In>
KZ_AVX512 void DecodeRunAvx512(const In *in, uint32_t &i, uint32_t stop, uint8_t *&out) {
  const __m512i byteInLane = _mm512_set1_epi32(0x03020100);
  const __m512i bytes1 = _mm512_set1_epi32(0x01010101);
  while (stop - i >= 16) {
    if (stop - i >= 64) {
      __m512i ascii;
      bool all;
      if constexpr (sizeof(In) == 1) {
        ascii = _mm512_loadu_si512(in + i);
        all = _mm512_movepi8_mask(ascii) == 0;
      } else if constexpr (sizeof(In) == 2) {
        const __m512i a = _mm512_loadu_si512(in + i), b = _mm512_loadu_si512(in + i + 32);
        all = _mm512_test_epi16_mask(_mm512_or_si512(a, b), _mm512_set1_epi16(static_cast<short>(0xFF80))) == 0;
        ascii = _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvtepi16_epi8(a)), _mm512_cvtepi16_epi8(b), 1);
      } else {
        const __m512i a = _mm512_loadu_si512(in + i), b = _mm512_loadu_si512(in + i + 16);
        const __m512i c = _mm512_loadu_si512(in + i + 32), d = _mm512_loadu_si512(in + i + 48);
        all = _mm512_test_epi32_mask(_mm512_or_si512(_mm512_or_si512(a, b), _mm512_or_si512(c, d)),
                                     _mm512_set1_epi32(static_cast<int>(0xFFFFFF80))) == 0;
        ascii = _mm512_inserti64x4(
            _mm512_castsi256_si512(
                _mm256_inserti128_si256(_mm256_castsi128_si256(_mm512_cvtepi32_epi8(a)), _mm512_cvtepi32_epi8(b), 1)),
            _mm256_inserti128_si256(_mm256_castsi128_si256(_mm512_cvtepi32_epi8(c)), _mm512_cvtepi32_epi8(d), 1), 1);
      }
      if (all) {
        _mm512_storeu_si512(out, ascii);
        i += 64, out += 64;
        continue;
      }
    }
    if (stop - i >= 32) {
      // 32 elements below 0x800: one or two bytes each, in 16-bit lanes.
      __m512i u;
      bool small = true;
      if constexpr (sizeof(In) == 1) {
        u = _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i)));
      } else if constexpr (sizeof(In) == 2) {
        u = _mm512_loadu_si512(in + i);
        small = _mm512_test_epi16_mask(u, _mm512_set1_epi16(static_cast<short>(0xF800))) == 0;
      } else {
        const __m512i a = _mm512_loadu_si512(in + i), b = _mm512_loadu_si512(in + i + 16);
        small = _mm512_test_epi32_mask(_mm512_or_si512(a, b), _mm512_set1_epi32(static_cast<int>(0xFFFFF800))) == 0;
        u = _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvtepi32_epi16(a)), _mm512_cvtepi32_epi16(b), 1);
      }
      if (small) {
        const __mmask32 high = _mm512_cmpge_epu16_mask(u, _mm512_set1_epi16(0x80));
        const __m512i two = _mm512_or_si512(
            _mm512_or_si512(_mm512_srli_epi16(u, 6), _mm512_set1_epi16(0xC0)),
            _mm512_slli_epi16(_mm512_or_si512(_mm512_and_si512(u, _mm512_set1_epi16(0x3F)), _mm512_set1_epi16(0x80)),
                              8));
        const __m512i utf8 = _mm512_mask_mov_epi16(u, high, two);
        const uint64_t kept = 0x5555555555555555ull | _pdep_u64(high, 0xAAAAAAAAAAAAAAAAull);
        const unsigned n = static_cast<unsigned>(std::popcount(kept));
        _mm512_mask_storeu_epi8(out, _bzhi_u64(~0ull, n), _mm512_maskz_compress_epi8(kept, utf8));
        i += 32, out += n;
        continue;
      }
    }
    __m512i v;
    if constexpr (sizeof(In) == 1)
      v = _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i)));
    else if constexpr (sizeof(In) == 2)
      v = _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i)));
    else
      v = _mm512_loadu_si512(in + i);
    const __m512i b0 = _mm512_or_si512(_mm512_and_si512(v, _mm512_set1_epi32(0x3F)), _mm512_set1_epi32(0x80));
    const __m512i b6 =
        _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi32(v, 6), _mm512_set1_epi32(0x3F)), _mm512_set1_epi32(0x80));
    const __m512i b12 =
        _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi32(v, 12), _mm512_set1_epi32(0x3F)), _mm512_set1_epi32(0x80));
    const __m512i two =
        _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi32(v, 6), _mm512_set1_epi32(0xC0)), _mm512_slli_epi32(b0, 8));
    const __m512i three = _mm512_or_si512(
        _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi32(v, 12), _mm512_set1_epi32(0xE0)), _mm512_slli_epi32(b6, 8)),
        _mm512_slli_epi32(b0, 16));
    const __m512i four = _mm512_or_si512(
        _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi32(v, 18), _mm512_set1_epi32(0xF0)), _mm512_slli_epi32(b12, 8)),
        _mm512_or_si512(_mm512_slli_epi32(b6, 16), _mm512_slli_epi32(b0, 24)));
    const __mmask16 from80 = _mm512_cmpge_epu32_mask(v, _mm512_set1_epi32(0x80));
    const __mmask16 from800 = _mm512_cmpge_epu32_mask(v, _mm512_set1_epi32(0x800));
    const __mmask16 from10000 = _mm512_cmpge_epu32_mask(v, _mm512_set1_epi32(0x10000));
    const __mmask16 fits = _mm512_cmplt_epu32_mask(v, _mm512_set1_epi32(0x200000));
    __m512i utf8 = _mm512_mask_mov_epi32(v, from80, two);
    utf8 = _mm512_mask_mov_epi32(utf8, from800, three);
    utf8 = _mm512_mask_mov_epi32(utf8, from10000, four);
    // Lengths 1-4 (0 past the range) in every byte of the lane; byte j is kept below its length.
    __m512i length = _mm512_maskz_mov_epi32(fits, _mm512_set1_epi32(1));
    length = _mm512_mask_add_epi32(length, from80 & fits, length, _mm512_set1_epi32(1));
    length = _mm512_mask_add_epi32(length, from800 & fits, length, _mm512_set1_epi32(1));
    length = _mm512_mask_add_epi32(length, from10000 & fits, length, _mm512_set1_epi32(1));
    const __mmask64 kept = _mm512_cmplt_epu8_mask(byteInLane, _mm512_mullo_epi32(length, bytes1));
    const unsigned n = static_cast<unsigned>(std::popcount(static_cast<uint64_t>(kept)));
    _mm512_mask_storeu_epi8(out, _bzhi_u64(~0ull, n), _mm512_maskz_compress_epi8(kept, utf8));
    i += 16, out += n;
  }
}

// 32 ASCII elements a step; returns at the first block with another.
template <typename In>
KZ_AVX2 void DecodeAscii32(const In *in, uint32_t &i, uint32_t stop, uint8_t *&out) {
  while (stop - i >= 32) {
    __m256i ascii;
    if constexpr (sizeof(In) == 1) {
      ascii = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i));
      if (_mm256_movemask_epi8(ascii)) return;
    } else if constexpr (sizeof(In) == 2) {
      const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i));
      const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i + 16));
      if (!_mm256_testz_si256(_mm256_or_si256(a, b), _mm256_set1_epi16(static_cast<short>(0xFF80)))) return;
      ascii = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
    } else {
      const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i));
      const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i + 8));
      const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i + 16));
      const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i + 24));
      if (!_mm256_testz_si256(_mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d)),
                              _mm256_set1_epi32(static_cast<int>(0xFFFFFF80))))
        return;
      // Packs work within 128-bit halves: the dwords end up in the order 0 2 4 6 1 3 5 7.
      const __m256i words = _mm256_packus_epi32(a, b), words2 = _mm256_packus_epi32(c, d);
      ascii =
          _mm256_permutevar8x32_epi32(_mm256_packus_epi16(words, words2), _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), ascii);
    i += 32, out += 32;
  }
}

// Converts in[i, stop).
template <typename In>
uint8_t *DecodeRun16(const In *in, uint32_t i, uint32_t stop, uint8_t *out, bool shuffle);

template <typename In>
uint8_t *DecodeRun(const In *in, uint32_t i, uint32_t stop, uint8_t *out, Kernels kernels) {
  if (kernels >= Kernels::kAvx512) {
    DecodeRunAvx512(in, i, stop, out);
  } else if (kernels >= Kernels::kAvx2) {
    // ASCII 32 at a time; up to 64 elements of anything else 16 at a time, then ASCII again.
    for (;;) {
      DecodeAscii32(in, i, stop, out);
      if (stop - i < 32) break;
      const uint32_t next = stop - i > 64 ? i + 64 : stop;
      out = DecodeRun16(in, i, next, out, true);
      i = next;
    }
  }
  return DecodeRun16(in, i, stop, out, kernels >= Kernels::kSsse3);
}

template <typename In>
uint8_t *DecodeRun16(const In *in, uint32_t i, uint32_t stop, uint8_t *out, bool shuffle) {
  constexpr uint32_t kGeneral = sizeof(In) == 1 ? 16 : sizeof(In) == 2 ? 8 : 4;
  const __m128i zero = _mm_setzero_si128();
  while (i < stop) {
    if (stop - i >= 16) {
      // Sixteen ASCII elements: one 16-byte store.
      __m128i ascii;
      bool all;
      if constexpr (sizeof(In) == 1) {
        ascii = Load(in + i);
        all = _mm_movemask_epi8(ascii) == 0;
      } else if constexpr (sizeof(In) == 2) {
        const __m128i a = Load(in + i);
        const __m128i b = Load(in + i + 8);
        all = _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(_mm_or_si128(a, b), Words(0xFF80)), zero)) == 0xFFFF;
        ascii = _mm_packus_epi16(a, b);
      } else {
        const __m128i a = Load(in + i), b = Load(in + i + 4), c = Load(in + i + 8), d = Load(in + i + 12);
        const __m128i any = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
        all = _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(any, Dwords(0xFFFFFF80)), zero)) == 0xFFFF;
        ascii = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
      }
      if (all) {
        Store(out, ascii);
        i += 16, out += 16;
        continue;
      }
    }
    if constexpr (sizeof(In) <= 2) {
      if (shuffle && stop - i >= 16 &&
          (sizeof(In) == 1 ||
           _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(Load(in + i), Words(0xF800)), zero)) == 0xFFFF)) {
        ShuffleRuns(in, i, stop, out);
        continue;
      }
    }
    if (stop - i >= kGeneral + 3) {
      if constexpr (sizeof(In) == 1) {
        out = Latin1Block(Load(in + i), out);
        i += kGeneral;
        continue;
      } else if constexpr (sizeof(In) == 2) {
        out = Ucs2Block(Load(in + i), out);
        i += kGeneral;
        continue;
      } else {
        // Every value of the block and the 3 behind it must produce bytes.
        // Eight values below 0x10000 go through the 16-bit block.
        const __m128i a = Load(in + i);
        if (stop - i >= 8 + 3 && (in[i + 8] | in[i + 9] | in[i + 10]) < 0x200000) {
          const __m128i b = Load(in + i + 4);
          if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(_mm_or_si128(a, b), Dwords(0xFFFF0000)), zero)) ==
              0xFFFF) {
            const __m128i biased = _mm_packs_epi32(_mm_sub_epi32(a, Dwords(0x8000)), _mm_sub_epi32(b, Dwords(0x8000)));
            out = Ucs2Block(_mm_xor_si128(biased, Words(0x8000)), out);
            i += 8;
            continue;
          }
        }
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(a, Dwords(0xFFE00000)), zero)) == 0xFFFF &&
            (in[i + 4] | in[i + 5] | in[i + 6]) < 0x200000) {
          out = Ucs4Block(a, out);
          i += kGeneral;
          continue;
        }
      }
    }
    out = PutUtf8(out, in[i]);
    ++i;
  }
  return out;
}

#else  // word at a time

constexpr uint32_t kBlock = 8;

inline Kernels CurrentKernels() { return Kernels::kWord; }

inline uint64_t Load64(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
  return w;
}

template <Form F, typename Unit>
inline void EncodeBlocks(const uint8_t *&p, const uint8_t *end, Unit *&out, Unit *limit, Kernels) {
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

// Converts in[i, stop).
template <typename In>
uint8_t *DecodeRun(const In *in, uint32_t i, uint32_t stop, uint8_t *out, Kernels) {
  while (i < stop) {
    if (stop - i >= kBlock) {
      const uint32_t k = AsciiPrefix(in + i);
      for (uint32_t j = 0; j < k; ++j) out[j] = static_cast<uint8_t>(in[i + j]);
      i += k, out += k;
      if (k == kBlock) continue;
    }
    // A non-ASCII run, or the last elements.
    do {
      out = PutUtf8(out, in[i]);
      ++i;
    } while (i < stop && (in[i] >= 0x80 || stop - i < kBlock));
  }
  return out;
}

#endif

// ---- encoders: UTF-8 to 16-bit units, code points, ISO-8859-1 --------------------

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
  const Kernels kernels = CurrentKernels();
  for (;;) {
    EncodeBlocks<F>(p, end, out, limit, kernels);
    // One sequence at a time: the one the blocks did not take, then back to
    // the blocks as long as they have room; near the end of the input or of
    // the array, all the rest.
    bool toBlocks = false;
    for (bool first = true; end - p >= 4 && out != limit; first = false) {
      if (!first && end - p >= kBlock && limit - out >= kBlock) {
        toBlocks = true;
        break;
      }
      const uint32_t w = Load32(p);
      if (!(w & 0x80)) {
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
      kz::View(*array, kSource, kEncodeGrowLine).Grow();
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
constexpr uint32_t kMaxBytes = sizeof(In) == 1   ? 2
                               : sizeof(In) == 2 ? 3
                                                 : 4;

template <typename In>
int Decode(UByteArray *array, const In *in, uint32_t count) {
  if (!in) return 0;
  const Kernels kernels = CurrentKernels();
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
    uint8_t *out = DecodeRun(in, i, stop, array->elements + used, kernels);
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

namespace kz {

UnicodeKernels UnicodeBestKernels() {
#if KZ_UNICODE_SSE2
  return g_bestKernels;
#else
  return UnicodeKernels::kWord;
#endif
}

UnicodeKernels UnicodeUseKernels(UnicodeKernels kernels) {
#if KZ_UNICODE_SSE2
  const UnicodeKernels use =
      kernels < g_bestKernels ? (kernels < Kernels::kSse2 ? Kernels::kSse2 : kernels) : g_bestKernels;
  g_kernels.store(use, std::memory_order_relaxed);
  return use;
#else
  (void)kernels;
  return UnicodeKernels::kWord;
#endif
}

}  // namespace kz
