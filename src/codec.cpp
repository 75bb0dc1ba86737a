// Base64 and quoted-printable encoders and lenient decoders, appending to byte
// arrays.
//
// Output growth is that of appending one byte at a time: whenever the array is
// full it grows by one step of the growth rule. Base64Encode knows its output
// length and reserves it at once, which lands on the same capacity; the other
// three write through a Sink that grows one step when it reaches the end.
#include "kz/codec.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

#include "internal/array_view.h"
#include "internal/codec_kernels.h"
#include "kz/array.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KZ_CODEC_X86 1
#include <immintrin.h>
#endif

namespace {

constexpr const char *kFile = "kzlib/codec";

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kHexDigits[] = "0123456789ABCDEF";

// ---- output growth ----------------------------------------------------------

// Makes room for `required` bytes on the capacity that appending byte by byte
// reaches, up to the family's 4 GiB limit.
void Reserve(UByteArray *out, uint64_t required, uint32_t line) {
  kz::View(*out, kFile, line).ReserveAsAppending(required);
}

// Writes into the array's spare capacity; Put grows by one step of the rule
// when the storage is full. Finish stores the count.
class Sink {
 public:
  Sink(UByteArray *out, uint32_t line)
      : out_(out), p_(out->elements + out->count), end_(out->elements + out->capacity), line_(line) {}

  size_t Room() const { return static_cast<size_t>(end_ - p_); }
  unsigned char *At() const { return p_; }
  void Advance(size_t n) { p_ += n; }

  void Put(unsigned char byte) {
    if (p_ == end_) Grow();
    *p_++ = byte;
  }

  void Finish() { out_->count = static_cast<uint32_t>(p_ - out_->elements); }

 private:
  [[gnu::noinline]] void Grow() {
    const uint64_t count = static_cast<uint64_t>(p_ - out_->elements);
    kz::View(*out_, kFile, line_).Grow();
    p_ = out_->elements + count;
    end_ = out_->elements + out_->capacity;
  }

  UByteArray *out_;
  unsigned char *p_;
  unsigned char *end_;
  uint32_t line_;
};

// 8 bytes in memory order from a value whose most significant byte comes first.
inline void StoreBigEndian64(unsigned char *to, uint64_t value) {
  if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
  std::memcpy(to, &value, 8);
}

inline void StoreBigEndian32(unsigned char *to, uint32_t value) {
  if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap32(value);
  std::memcpy(to, &value, 4);
}

inline uint64_t LoadBigEndian64(const unsigned char *from) {
  uint64_t value;
  std::memcpy(&value, from, 8);
  if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
  return value;
}

// ---- Base64 tables ----------------------------------------------------------

// Two output characters for every 12-bit value, first character in the low
// byte on little-endian machines (in memory order, that is).
constexpr std::array<uint16_t, 4096> MakePairs() {
  std::array<uint16_t, 4096> pairs{};
  for (unsigned v = 0; v < 4096; ++v) {
    const auto first = static_cast<uint16_t>(static_cast<unsigned char>(kAlphabet[v >> 6]));
    const auto second = static_cast<uint16_t>(static_cast<unsigned char>(kAlphabet[v & 63]));
    pairs[v] = std::endian::native == std::endian::little ? static_cast<uint16_t>(first | second << 8)
                                                          : static_cast<uint16_t>(first << 8 | second);
  }
  return pairs;
}
constexpr std::array<uint16_t, 4096> kPairs = MakePairs();

// The value of a character shifted into its place in a group of four
// (position 0 = bits 23-18 ... position 3 = bits 5-0); kBad for every byte
// outside the alphabet, above all 24 value bits so one test covers a group.
constexpr uint32_t kBad = 0x01000000u;
struct DecodeTables {
  uint32_t shifted[4][256];
};
constexpr DecodeTables MakeDecodeTables() {
  DecodeTables t{};
  for (int position = 0; position < 4; ++position)
    for (int c = 0; c < 256; ++c) t.shifted[position][c] = kBad;
  for (uint32_t v = 0; v < 64; ++v) {
    const auto c = static_cast<unsigned char>(kAlphabet[v]);
    for (int position = 0; position < 4; ++position) t.shifted[position][c] = v << (18 - 6 * position);
  }
  return t;
}
constexpr DecodeTables kDecode = MakeDecodeTables();
constexpr const uint32_t *kValue = kDecode.shifted[3];  // the plain 6-bit value or kBad

// The 24-bit value of four characters, with kBad set if any of them is outside
// the alphabet.
inline uint32_t Group(const unsigned char *in) {
  return kDecode.shifted[0][in[0]] | kDecode.shifted[1][in[1]] | kDecode.shifted[2][in[2]] | kDecode.shifted[3][in[3]];
}

// ---- vector kernels ---------------------------------------------------------------
//
// On x86-64 whole blocks go through vector steps: 16 bytes with SSSE3, 32 with
// AVX2, 64 with AVX-512 (VBMI byte permutes); the widest level the processor
// has is chosen when the library loads. The scalar code does everything else
// and is the whole implementation elsewhere. Every level gives the same bytes:
// the wide steps take only blocks made entirely of alphabet characters and
// leave any other block to the 16-byte step, which handles the bytes outside
// the alphabet.

#if KZ_CODEC_X86

using kz::CodecKernels;

// Builds that cap the kernels, so that the public tests run over each level
// on a machine that would take a wider one.
#if defined(KZ_CODEC_SCALAR)
constexpr CodecKernels kKernelCap = CodecKernels::kScalar;
#elif defined(KZ_CODEC_MAX_SSSE3)
constexpr CodecKernels kKernelCap = CodecKernels::kSsse3;
#elif defined(KZ_CODEC_MAX_AVX2)
constexpr CodecKernels kKernelCap = CodecKernels::kAvx2;
#else
constexpr CodecKernels kKernelCap = CodecKernels::kAvx512;
#endif

// Static initialisation may run before the compiler's own CPU detection.
CodecKernels DetectKernels() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vbmi"))
    return CodecKernels::kAvx512;
  if (__builtin_cpu_supports("avx2")) return CodecKernels::kAvx2;
  if (__builtin_cpu_supports("ssse3")) return CodecKernels::kSsse3;
  return CodecKernels::kScalar;
}

// The detected level within the build's cap.
CodecKernels BestKernels() {
  const CodecKernels detected = DetectKernels();
  return detected < kKernelCap ? detected : kKernelCap;
}

// Decided when the library loads: a function-local static would make the
// first concurrent calls wait on its guard, which changes errno.
const CodecKernels g_bestKernels = BestKernels();
std::atomic<CodecKernels> g_kernels{g_bestKernels};

// GCC 12 takes the AVX-512 headers' deliberately undefined registers for
// uninitialised values.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define KZ_AVX2   __attribute__((target("avx2")))
#define KZ_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))

// 12 bytes -> 16 characters per step: the bytes of each group spread over a
// 32-bit lane, the four 6-bit indices cut out with two multiplies, then
// turned into characters by adding an offset chosen by index range
// (A-Z +65, a-z +71, 0-9 -4, "+" -19, "/" -16). Returns the groups done.
__attribute__((target("ssse3"))) size_t EncodeBlocksVector(const unsigned char *in, const unsigned char *inEnd,
                                                           size_t groups, unsigned char *to) {
  const __m128i spread = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  const __m128i offsets = _mm_setr_epi8(71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 65, 0, 0);
  size_t done = 0;
  while (groups - done >= 4 && inEnd - in >= 16) {
    const __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in)), spread);
    const __m128i ac = _mm_mulhi_epu16(_mm_and_si128(v, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i bd = _mm_mullo_epi16(_mm_and_si128(v, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i index = _mm_or_si128(ac, bd);
    // 0 for a-z, 1-10 for 0-9, 11 "+", 12 "/", 13 for A-Z.
    __m128i range = _mm_subs_epu8(index, _mm_set1_epi8(51));
    range = _mm_or_si128(range, _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), index), _mm_set1_epi8(13)));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), _mm_add_epi8(index, _mm_shuffle_epi8(offsets, range)));
    in += 12, to += 16, done += 4;
  }
  return done;
}

// The same, 24 bytes -> 32 characters: each 128-bit half takes 12 bytes.
KZ_AVX2 size_t EncodeBlocksAvx2(const unsigned char *in, const unsigned char *inEnd, size_t groups, unsigned char *to) {
  const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0, 2, 1, 4, 3, 5, 4, 7,
                                          6, 8, 7, 10, 9, 11, 10);
  const __m256i offsets = _mm256_setr_epi8(71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 65, 0, 0, 71, -4, -4,
                                           -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 65, 0, 0);
  size_t done = 0;
  while (groups - done >= 8 && inEnd - in >= 28) {
    const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in));
    const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 12));
    const __m256i v = _mm256_shuffle_epi8(_mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1), spread);
    const __m256i ac =
        _mm256_mulhi_epu16(_mm256_and_si256(v, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    const __m256i bd =
        _mm256_mullo_epi16(_mm256_and_si256(v, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    const __m256i index = _mm256_or_si256(ac, bd);
    __m256i range = _mm256_subs_epu8(index, _mm256_set1_epi8(51));
    range =
        _mm256_or_si256(range, _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), index), _mm256_set1_epi8(13)));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(to), _mm256_add_epi8(index, _mm256_shuffle_epi8(offsets, range)));
    in += 24, to += 32, done += 8;
  }
  return done;
}

// 48 bytes -> 64 characters: each group's bytes permuted into a 64-bit word's
// 32-bit lane, the 6-bit indices cut out by one multishift, the characters
// looked up by one permute of the alphabet. The load is masked to the 48
// bytes.
KZ_AVX512 size_t EncodeBlocksAvx512(const unsigned char *in, size_t groups, unsigned char *to) {
  const __m512i spread =
      _mm512_setr_epi32(0x01020001, 0x04050304, 0x07080607, 0x0a0b090a, 0x0d0e0c0d, 0x10110f10, 0x13141213, 0x16171516,
                        0x191a1819, 0x1c1d1b1c, 0x1f201e1f, 0x22232122, 0x25262425, 0x28292728, 0x2b2c2a2b, 0x2e2f2d2e);
  const __m512i shifts = _mm512_set1_epi64(0x3036242a1016040a);
  const __m512i alphabet = _mm512_loadu_si512(kAlphabet);
  size_t done = 0;
  while (groups - done >= 16) {
    const __m512i v = _mm512_permutexvar_epi8(spread, _mm512_maskz_loadu_epi8(0x0000FFFFFFFFFFFFull, in));
    const __m512i index = _mm512_multishift_epi64_epi8(shifts, v);
    _mm512_storeu_si512(to, _mm512_permutexvar_epi8(index, alphabet));
    in += 48, to += 64, done += 16;
  }
  return done;
}

struct Decoded {
  size_t chars;  // characters used: whole groups and the bytes skipped between them
  size_t bytes;  // bytes written
};

// One 16-character block at in[done.chars]: 16 characters -> 12 bytes. In a
// block holding a byte outside the alphabet, the whole groups in front of
// that byte are written; if they end at the bad byte, bytes outside the
// alphabet are skipped. Returns false when the run ends (a group left open,
// or too little input or room for a block).
//
// Validity: the high nibble of a character picks a class bit (0x01 for 2x,
// 0x02 for 3x, 0x04 for 4x and 6x, 0x08 for 5x and 7x, 0x10 for every other
// row, bytes 128-255 included); the low nibble picks the classes in which that
// column is not in the alphabet. The value is the character plus an offset
// chosen by the high nibble, "/" moved down one row to part it from "+".
__attribute__((target("ssse3"))) bool DecodeBlockSsse3(const unsigned char *in, size_t chars, unsigned char *to,
                                                       size_t room, Decoded &done) {
  if (chars - done.chars < 16 || room - done.bytes < 12) return false;
  const __m128i invalidColumns =
      _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m128i rowClass =
      _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m128i rowOffset = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i toBigEndian = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + done.chars));
  const __m128i high = _mm_and_si128(_mm_srli_epi32(c, 4), nibble);
  const __m128i bad =
      _mm_and_si128(_mm_shuffle_epi8(invalidColumns, _mm_and_si128(c, nibble)), _mm_shuffle_epi8(rowClass, high));
  const unsigned validMask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bad, _mm_setzero_si128())));
  const __m128i slash = _mm_cmpeq_epi8(c, _mm_set1_epi8('/'));
  const __m128i values = _mm_add_epi8(c, _mm_shuffle_epi8(rowOffset, _mm_add_epi8(high, slash)));
  // a b c d (6 bits each) -> ab cd (12 bits) -> abcd (24 bits) per lane, then big-endian bytes.
  const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
  const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  const __m128i bytes = _mm_shuffle_epi8(groups, toBigEndian);
  unsigned char *const at = to + done.bytes;
  if (validMask == 0xFFFF) {
    _mm_storel_epi64(reinterpret_cast<__m128i *>(at), bytes);
    const uint32_t last = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(bytes, 8)));
    std::memcpy(at + 8, &last, 4);
    done.chars += 16, done.bytes += 12;
    return true;
  }
  const unsigned good = static_cast<unsigned>(__builtin_ctz(~validMask));  // characters before the first bad byte
  const unsigned whole = good / 4;
  alignas(16) unsigned char block[16];
  _mm_store_si128(reinterpret_cast<__m128i *>(block), bytes);
  std::memcpy(at, block, 3 * whole);
  done.chars += 4 * whole, done.bytes += 3 * whole;
  if (good % 4 != 0) return false;  // a group left open: the caller goes on one character at a time
  // At a group boundary (a line break after whole groups, say): skip the
  // bytes outside the alphabet and go on.
  while (done.chars < chars && (kValue[in[done.chars]] & kBad)) ++done.chars;
  return true;
}

// After a wide block whose first byte outside the alphabet is at `good`, as
// the 16-byte step does (the caller has written the bytes of the whole groups
// in front of it): if those groups end at the bad byte, the bytes outside the
// alphabet are skipped and the run goes on (true), otherwise it ends there.
inline bool SkipAfterGroups(const unsigned char *in, size_t chars, unsigned good, Decoded &done) {
  done.chars += good / 4 * 4, done.bytes += good / 4 * 3;
  if (good % 4 != 0) return false;
  while (done.chars < chars && (kValue[in[done.chars]] & kBad)) ++done.chars;
  return true;
}

// 32 characters -> 24 bytes per step, the 16-byte step's arithmetic in each
// half.
KZ_AVX2 void DecodeBlocksAvx2(const unsigned char *in, size_t chars, unsigned char *to, size_t room, Decoded &done) {
  const __m256i invalidColumns =
      _mm256_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A,
                       0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m256i rowClass =
      _mm256_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
                       0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m256i rowOffset = _mm256_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 19, 4,
                                             -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m256i nibble = _mm256_set1_epi8(0x0F);
  const __m256i toBigEndian = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2, 1, 0, 6, 5, 4,
                                               10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m256i together = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  while (chars - done.chars >= 32 && room - done.bytes >= 24) {
    const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done.chars));
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(c, 4), nibble);
    const __m256i bad = _mm256_and_si256(_mm256_shuffle_epi8(invalidColumns, _mm256_and_si256(c, nibble)),
                                         _mm256_shuffle_epi8(rowClass, high));
    const uint32_t validMask =
        static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bad, _mm256_setzero_si256())));
    const __m256i slash = _mm256_cmpeq_epi8(c, _mm256_set1_epi8('/'));
    const __m256i values = _mm256_add_epi8(c, _mm256_shuffle_epi8(rowOffset, _mm256_add_epi8(high, slash)));
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(groups, toBigEndian), together);
    unsigned char *const at = to + done.bytes;
    if (validMask == 0xFFFFFFFFu) {
      _mm_storeu_si128(reinterpret_cast<__m128i *>(at), _mm256_castsi256_si128(bytes));
      _mm_storel_epi64(reinterpret_cast<__m128i *>(at + 16), _mm256_extracti128_si256(bytes, 1));
      done.chars += 32, done.bytes += 24;
      continue;
    }
    const unsigned good = static_cast<unsigned>(__builtin_ctz(~validMask));
    alignas(32) unsigned char block[32];
    _mm256_store_si256(reinterpret_cast<__m256i *>(block), bytes);
    std::memcpy(at, block, good / 4 * 3);
    if (!SkipAfterGroups(in, chars, good, done)) return;
  }
}

// 64 characters -> 48 bytes per step: values by one two-table permute over
// the 128 ASCII codes (0x80 for a code outside the alphabet, and the
// character's own high bit for the rest), the 16-byte step's multiplies, one
// permute to the 48 bytes and a store masked to them.
struct AsciiValues {
  uint8_t value[128];
};
constexpr AsciiValues MakeAsciiValues() {
  AsciiValues t{};
  for (auto &v : t.value) v = 0x80;
  for (uint8_t v = 0; v < 64; ++v) t.value[static_cast<unsigned char>(kAlphabet[v])] = v;
  return t;
}
alignas(64) constexpr AsciiValues kAsciiValues = MakeAsciiValues();

KZ_AVX512 void DecodeBlocksAvx512(const unsigned char *in, size_t chars, unsigned char *to, size_t room,
                                  Decoded &done) {
  const __m512i lowCodes = _mm512_load_si512(kAsciiValues.value);
  const __m512i highCodes = _mm512_load_si512(kAsciiValues.value + 64);
  const __m512i toBytes =
      _mm512_setr_epi32(0x06000102, 0x090a0405, 0x0c0d0e08, 0x16101112, 0x191a1415, 0x1c1d1e18, 0x26202122, 0x292a2425,
                        0x2c2d2e28, 0x36303132, 0x393a3435, 0x3c3d3e38, 0, 0, 0, 0);
  while (chars - done.chars >= 64 && room - done.bytes >= 48) {
    const __m512i c = _mm512_loadu_si512(in + done.chars);
    const __m512i values = _mm512_permutex2var_epi8(lowCodes, c, highCodes);
    const uint64_t badMask = _mm512_movepi8_mask(_mm512_or_si512(values, c));
    const __m512i pairs = _mm512_maddubs_epi16(values, _mm512_set1_epi32(0x01400140));
    const __m512i groups = _mm512_madd_epi16(pairs, _mm512_set1_epi32(0x00011000));
    const __m512i bytes = _mm512_permutexvar_epi8(toBytes, groups);
    unsigned char *const at = to + done.bytes;
    if (!badMask) {
      _mm512_mask_storeu_epi8(at, 0x0000FFFFFFFFFFFFull, bytes);
      done.chars += 64, done.bytes += 48;
      continue;
    }
    const unsigned good = static_cast<unsigned>(__builtin_ctzll(badMask));
    _mm512_mask_storeu_epi8(at, (uint64_t{1} << (good / 4 * 3)) - 1, bytes);
    if (!SkipAfterGroups(in, chars, good, done)) return;
  }
}

// Blocks at every level up to `kernels`: the widest steps while they take the
// input, a 16-byte step where they do not, and back.
Decoded DecodeBlocksVector(const unsigned char *in, size_t chars, unsigned char *to, size_t room,
                           CodecKernels kernels) {
  Decoded done{0, 0};
  do {
    if (kernels >= CodecKernels::kAvx512)
      DecodeBlocksAvx512(in, chars, to, room, done);
    else if (kernels >= CodecKernels::kAvx2)
      DecodeBlocksAvx2(in, chars, to, room, done);
  } while (DecodeBlockSsse3(in, chars, to, room, done));
  return done;
}

inline CodecKernels Kernels() { return g_kernels.load(std::memory_order_relaxed); }

#else

inline kz::CodecKernels Kernels() { return kz::CodecKernels::kScalar; }

#endif

// ---- Base64 encoding ----------------------------------------------------------

inline unsigned char *StorePair(unsigned char *to, uint32_t twelveBits) {
  std::memcpy(to, &kPairs[twelveBits], 2);
  return to + 2;
}

// Encodes `groups` whole groups of three bytes into 4 x groups characters:
// vector steps of four groups first (where available), then two groups per
// eight-byte load while eight bytes remain before `inEnd` (the end of the whole
// input), then one group at a time.
inline unsigned char *EncodeGroups(const unsigned char *in, const unsigned char *inEnd, size_t groups,
                                   unsigned char *to, kz::CodecKernels kernels) {
#if KZ_CODEC_X86
  if (kernels != CodecKernels::kScalar) {
    size_t done = 0;
    if (kernels >= CodecKernels::kAvx512)
      done = EncodeBlocksAvx512(in, groups, to);
    else if (kernels >= CodecKernels::kAvx2)
      done = EncodeBlocksAvx2(in, inEnd, groups, to);
    in += 3 * done, to += 4 * done, groups -= done;
    done = EncodeBlocksVector(in, inEnd, groups, to);
    in += 3 * done, to += 4 * done, groups -= done;
  }
#else
  (void)kernels;
#endif
  while (groups >= 2 && inEnd - in >= 8) {  // 6 bytes -> 8 characters
    const uint64_t v = LoadBigEndian64(in);
    const uint64_t out = uint64_t{kPairs[(v >> 52) & 0xFFF]} | uint64_t{kPairs[(v >> 40) & 0xFFF]} << 16 |
                         uint64_t{kPairs[(v >> 28) & 0xFFF]} << 32 | uint64_t{kPairs[(v >> 16) & 0xFFF]} << 48;
    if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(to, &out, 8);
    } else {
      const uint16_t pieces[4] = {static_cast<uint16_t>(out), static_cast<uint16_t>(out >> 16),
                                  static_cast<uint16_t>(out >> 32), static_cast<uint16_t>(out >> 48)};
      std::memcpy(to, pieces, 8);
    }
    in += 6, to += 8, groups -= 2;
  }
  for (; groups > 0; --groups, in += 3) {
    const uint32_t v = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    to = StorePair(StorePair(to, v >> 12), v & 0xFFF);
  }
  return to;
}

// The last one or two bytes: three or two characters and "=" padding.
inline unsigned char *EncodeTail(const unsigned char *in, size_t left, unsigned char *to) {
  const uint32_t v = uint32_t{in[0]} << 16 | (left == 2 ? uint32_t{in[1]} << 8 : 0);
  to[0] = static_cast<unsigned char>(kAlphabet[v >> 18]);
  to[1] = static_cast<unsigned char>(kAlphabet[(v >> 12) & 63]);
  to[2] = left == 2 ? static_cast<unsigned char>(kAlphabet[(v >> 6) & 63]) : '=';
  to[3] = '=';
  return to + 4;
}

constexpr size_t kGroupsPerLine = 19;  // 19 x 4 = 76 characters

}  // namespace

extern "C" {

KZ_API void Base64Encode(UByteArray *out, const void *bytes, uint32_t length, int32_t breakLines) {
  const auto *in = static_cast<const unsigned char *>(bytes);
  const unsigned char *const inEnd = in + length;
  const size_t groups = length / 3;
  const size_t left = length % 3;
  uint64_t total = 4 * (uint64_t{groups} + (left ? 1 : 0));
  if (breakLines) {
    // A break after every 19 whole groups; the padded group joins the last
    // line without a check; a final break ends a non-empty last line.
    const bool lastLineOpen = groups % kGroupsPerLine != 0 || left != 0;
    total += 2 * (groups / kGroupsPerLine + (lastLineOpen ? 1 : 0));
  }
  if (total == 0) return;
  Reserve(out, uint64_t{out->count} + total, 188);
  const kz::CodecKernels kernels = Kernels();
  unsigned char *to = out->elements + out->count;
  if (!breakLines) {
    to = EncodeGroups(in, inEnd, groups, to, kernels);
    in += 3 * groups;
    if (left) to = EncodeTail(in, left, to);
  } else {
    size_t lineGroups = 0;
    for (size_t remaining = groups; remaining > 0;) {
      const size_t n = remaining < kGroupsPerLine ? remaining : kGroupsPerLine;
      to = EncodeGroups(in, inEnd, n, to, kernels);
      in += 3 * n, remaining -= n;
      lineGroups = n;
      if (n == kGroupsPerLine) {
        *to++ = '\r', *to++ = '\n';
        lineGroups = 0;
      }
    }
    if (left) to = EncodeTail(in, left, to), ++lineGroups;
    if (lineGroups) *to++ = '\r', *to++ = '\n';
  }
  out->count = static_cast<uint32_t>(to - out->elements);
}

KZ_API void Base64Decode(UByteArray *out, const char *text, uint32_t length) {
  const auto *in = reinterpret_cast<const unsigned char *>(text);
  const unsigned char *const end = in + length;
  Sink sink(out, 241);
  const kz::CodecKernels kernels = Kernels();
  const bool vector = kernels != kz::CodecKernels::kScalar;
  uint32_t value = 0;  // the characters of the current group, 6 bits each
  unsigned pending = 0;
  while (in < end) {
    if (pending == 0) {
      // Runs of alphabet characters: sixteen characters to twelve bytes, then
      // four to three; the first byte outside the alphabet ends the run.
#if KZ_CODEC_X86
      if (vector) {
        const Decoded done = DecodeBlocksVector(in, static_cast<size_t>(end - in), sink.At(), sink.Room(), kernels);
        in += done.chars;
        sink.Advance(done.bytes);
      }
#endif
      while (!vector && end - in >= 16 && sink.Room() >= 12) {
        const uint32_t a = Group(in), b = Group(in + 4), c = Group(in + 8), d = Group(in + 12);
        if ((a | b | c | d) & kBad) break;
        StoreBigEndian64(sink.At(), uint64_t{a} << 40 | uint64_t{b} << 16 | c >> 8);
        StoreBigEndian32(sink.At() + 8, (c & 0xFF) << 24 | d);
        sink.Advance(12);
        in += 16;
      }
      while (end - in >= 4 && sink.Room() >= 3) {
        const uint32_t a = Group(in);
        if (a & kBad) break;
        unsigned char *to = sink.At();
        to[0] = static_cast<unsigned char>(a >> 16), to[1] = static_cast<unsigned char>(a >> 8);
        to[2] = static_cast<unsigned char>(a);
        sink.Advance(3);
        in += 4;
      }
      if (in == end) break;
    }
    // One character at a time: skipped bytes (a run of them at once, such as
    // a line break), the end of the storage, the tail.
    const uint32_t v = kValue[*in++];
    if (v & kBad) {
      while (in < end && (kValue[*in] & kBad)) ++in;
      continue;
    }
    value = value << 6 | v;
    if (++pending == 4) {
      sink.Put(static_cast<unsigned char>(value >> 16));
      sink.Put(static_cast<unsigned char>(value >> 8));
      sink.Put(static_cast<unsigned char>(value));
      value = 0, pending = 0;
    }
  }
  if (pending == 2) {
    sink.Put(static_cast<unsigned char>(value >> 4));
  } else if (pending == 3) {
    sink.Put(static_cast<unsigned char>(value >> 10));
    sink.Put(static_cast<unsigned char>(value >> 2));
  }
  sink.Finish();
}

}  // extern "C"

// ---- quoted-printable ----------------------------------------------------------

namespace {

// Bytes written as they are by the encoder: 33-60, 62-126 and the blank.
constexpr bool IsQPLiteral(unsigned c) { return (c >= 33 && c <= 126 && c != '=') || c == ' '; }

constexpr std::array<uint8_t, 256> MakeHexValues() {
  std::array<uint8_t, 256> values{};
  for (auto &v : values) v = 0xFF;
  for (unsigned c = 0; c < 10; ++c) values['0' + c] = static_cast<uint8_t>(c);
  for (unsigned c = 0; c < 6; ++c) {
    values['A' + c] = static_cast<uint8_t>(10 + c);
    values['a' + c] = static_cast<uint8_t>(10 + c);
  }
  return values;
}
constexpr std::array<uint8_t, 256> kHexValue = MakeHexValues();

// What the decoder does with each byte.
enum QPClass : uint8_t { kCopy, kEquals, kLineEnd, kDrop };
constexpr std::array<uint8_t, 256> MakeQPClasses() {
  std::array<uint8_t, 256> classes{};
  for (unsigned c = 0; c < 256; ++c)
    classes[c] = IsQPLiteral(c) || c == '\t' ? kCopy : c == '=' ? kEquals : c == '\r' || c == '\n' ? kLineEnd : kDrop;
  return classes;
}
constexpr std::array<uint8_t, 256> kQPClass = MakeQPClasses();

// The number of bytes from `in` on (at most `limit`) that are written as they
// are: by the encoder (tab = false) or by the decoder, which also copies tabs.
// 16 bytes a step with SSE2 on x86-64 (33-126 without "=", the blank and for
// the decoder the tab), a byte at a time elsewhere and near the end.
inline size_t LiteralRun(const unsigned char *in, size_t limit, bool tab) {
  size_t n = 0;
#if KZ_CODEC_X86
  while (limit - n >= 16) {
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + n));
    __m128i literal =
        _mm_andnot_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('=')),
                         _mm_and_si128(_mm_cmpgt_epi8(c, _mm_set1_epi8(31)), _mm_cmplt_epi8(c, _mm_set1_epi8(127))));
    if (tab) literal = _mm_or_si128(literal, _mm_cmpeq_epi8(c, _mm_set1_epi8('\t')));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(literal));
    if (mask != 0xFFFF) return n + static_cast<unsigned>(__builtin_ctz(~mask));
    n += 16;
  }
#endif
  while (n < limit && (tab ? kQPClass[in[n]] == kCopy : IsQPLiteral(in[n]))) ++n;
  return n;
}

// Copies n (at least 1) bytes: at once into the room there is, the rest a
// byte at a time, so that the array grows exactly as with Put alone.
inline void PutRun(Sink &sink, const unsigned char *from, size_t n) {
  if (n <= sink.Room()) {
    std::memcpy(sink.At(), from, n);
    sink.Advance(n);
    return;
  }
  const size_t direct = sink.Room();
  if (direct) std::memcpy(sink.At(), from, direct);  // an empty array has no storage
  sink.Advance(direct);
  for (size_t k = direct; k < n; ++k) sink.Put(from[k]);
}

inline void SoftBreak(Sink &sink) {
  sink.Put('=');
  sink.Put('\r');
  sink.Put('\n');
}

}  // namespace

extern "C" {

KZ_API void QPEncode(UByteArray *out, const void *bytes, uint32_t length, int32_t breakLines) {
  const auto *in = static_cast<const unsigned char *>(bytes);
  Sink sink(out, 312);
  uint32_t n = 0;  // characters on the current line
  for (uint32_t i = 0; i < length; ++i) {
    const unsigned char c = in[i];
    if (IsQPLiteral(c)) {
      // A run of literal bytes, cut into lines of at most 75 before the break.
      size_t run = LiteralRun(in + i, length - i, false);
      i += static_cast<uint32_t>(run) - 1;
      const unsigned char *from = in + i + 1 - run;
      while (run > 0) {
        if (breakLines && n >= 75) SoftBreak(sink), n = 0;
        const size_t take = breakLines && run > 75 - n ? 75 - n : run;
        PutRun(sink, from, take);
        from += take, run -= take, n += static_cast<uint32_t>(take);
      }
      continue;
    }
    if (breakLines && n >= 73) SoftBreak(sink), n = 0;
    const unsigned char escape[3] = {'=', static_cast<unsigned char>(kHexDigits[c >> 4]),
                                     static_cast<unsigned char>(kHexDigits[c & 15])};
    PutRun(sink, escape, 3);
    n += 3;
    if (breakLines && c == '\n') SoftBreak(sink), n = 0;
  }
  if (breakLines) {
    sink.Put('\r');
    sink.Put('\n');
  }
  sink.Finish();
}

KZ_API void QPDecode(UByteArray *out, const char *text, uint32_t length) {
  const auto *in = reinterpret_cast<const unsigned char *>(text);
  Sink sink(out, 377);
  bool softBreak = false;
  for (uint32_t i = 0; i < length; ++i) {
    const unsigned char c = in[i];
    switch (kQPClass[c]) {
      case kCopy: {
        const size_t run = LiteralRun(in + i, length - i, true);
        PutRun(sink, in + i, run);
        i += static_cast<uint32_t>(run) - 1;
        softBreak = false;
        break;
      }
      case kEquals:
        if (length - i > 2 && in[i + 1] > 32) {
          const uint8_t high = kHexValue[in[i + 1]], low = kHexValue[in[i + 2]];
          if (high < 16 && low < 16) sink.Put(static_cast<unsigned char>(high << 4 | low));
          i += 2;  // the three bytes are used up, decoded or dropped
        } else {
          softBreak = true;
        }
        break;
      case kLineEnd:
        if (!softBreak)
          sink.Put(c);
        else if (c == '\n')
          softBreak = false;
        break;
      default: break;
    }
  }
  sink.Finish();
}

}  // extern "C"

namespace kz {

CodecKernels CodecBestKernels() {
#if KZ_CODEC_X86
  return g_bestKernels;
#else
  return CodecKernels::kScalar;
#endif
}

CodecKernels CodecUseKernels(CodecKernels kernels) {
  const CodecKernels use = kernels < CodecBestKernels() ? kernels : CodecBestKernels();
#if KZ_CODEC_X86
  g_kernels.store(use, std::memory_order_relaxed);
#endif
  return use;
}

bool CodecVectorKernelsAvailable() { return CodecBestKernels() != CodecKernels::kScalar; }

bool CodecUseVectorKernels(bool on) {
  return CodecUseKernels(on ? CodecBestKernels() : CodecKernels::kScalar) != CodecKernels::kScalar;
}

}  // namespace kz
