// The fingerprint kernel (see internal/fingerprint.h): the table method, and
// the same function computed with carry-less multiplication.
//
// The arithmetic. A 64-bit value v stands for the polynomial over GF(2) that
// has x^(63-b) for every set bit b: the most significant bit is x^0, the least
// significant x^63 (a reflected, least-significant-bit-first order). Data is
// read the same way: bit j of byte i of an n-byte input is the coefficient of
// x^(8(n-1-i) + 7-j), so the first byte is the highest-degree one and within a
// byte its least significant bit comes first.
//
// Multiplying by x is a shift right by one. The bit that leaves at the bottom
// was x^63 and becomes x^64, which is brought back below x^64 by adding
// Q = kPolynomial >> 1, i.e. the modulus is F = x^64 + Q:
//     v * x = (v >> 1) ^ (v odd ? Q : 0) = (v ^ (v odd ? kPolynomial : 0)) >> 1,
// exactly the power-list recurrence. P[0] = Q = x^64 mod F, so
// P[i] = x^(64+i) mod F, and table k maps a byte b to (b << 8k) * x^64 mod F:
// bit j of byte k of v is x^(63-8k-j), times x^64 gives P[63-8k-j].
//
// One byte step is value * x^8 + byte mod F: the shift by 8 keeps the terms
// that stay below x^64, T7 of the low byte reduces the eight terms pushed past
// x^63, and the byte itself lands on x^7..x^0 (bits 56-63). One 8-byte step is
// value * x^64 + w mod F with w the little-endian word: the tables of the eight
// bytes of value reduce all of value * x^64. So, with no fold,
//     Extend(v, d[0..n)) = v * x^(8n) + D mod F,  D = sum d[i] * x^(8(n-1-i)),
// the unique remainder of degree below 64, however the bytes are grouped.
//
// Carry-less multiplication. PCLMULQDQ of 64-bit a and b sets bit p of the
// 128-bit product to the XOR of a_i b_j over i + j = p. Read reflected, a_i is
// x^(63-i) and b_j is x^(63-j), so bit p is x^(126-p). Sixteen bytes loaded
// into a register read as bit p = x^(127-p) (the first eight bytes, the low
// lane, are the high-degree half); in that reading the product is A * B * x.
// The constants are therefore taken one power lower: multiplying by
// K(d) = x^(d-1) mod F gives A * x^d, congruent mod F, in 128 bits.
//
// Folding. A 128-bit accumulator with lanes h (low) and l (high) stands for
// H * x^64 + L. Moving it d bits further along the input:
//     (H * x^64 + L) * x^d = H * x^(d+64) + L * x^d
//                         == clmul(h, K(d+64)) ^ clmul(l, K(d))   (mod F),
// both products below x^128, and the next sixteen bytes are XORed in. Four
// accumulators take 64 bytes per round (d = 512); at the end they are folded
// into one (d = 384, 256, 128 for the first three); an input of 16-63 bytes
// starts with one accumulator instead. Single 16-byte blocks follow with
// d = 128, and H * x^64 + L mod F is T(h) ^ l with the 8-byte-step tables. The start value enters as v * x^(8n) = (v * x^128) * x^(8n-128):
// clmul(v, K(128)) is XORed into the first block. The last 0-15 bytes take the
// table method. Every step is a congruence mod F and the result is reduced
// below x^64, so it is the table method's value bit for bit.

#include "internal/fingerprint.h"

#include <cstring>

#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
#include <immintrin.h>
#endif

namespace kz::fingerprint {
namespace {

uint64_t g_power[64];
uint64_t g_table[8][256];

inline uint64_t LoadLittle64(const unsigned char *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap64(w);
#endif
  return w;
}

// value * x^64 mod F.
inline uint64_t WordReduce(uint64_t value) {
  return g_table[0][value & 255] ^ g_table[1][(value >> 8) & 255] ^ g_table[2][(value >> 16) & 255] ^
         g_table[3][(value >> 24) & 255] ^ g_table[4][(value >> 32) & 255] ^ g_table[5][(value >> 40) & 255] ^
         g_table[6][(value >> 48) & 255] ^ g_table[7][value >> 56];
}

}  // namespace

void InitTables() {
  uint64_t p = 0x7a47e275d5b2dcc0ull;
  for (unsigned i = 0; i < 64; i++) {
    if (i > 0) p = (p ^ ((p & 1) ? kPolynomial : 0)) >> 1;
    g_power[i] = p;
  }
  for (unsigned k = 0; k < 8; k++) {
    for (unsigned b = 0; b < 256; b++) {
      uint64_t entry = 0;
      for (unsigned j = 0; j < 8; j++)
        if (b & (1u << j)) entry ^= g_power[63 - 8 * k - j];
      g_table[k][b] = entry;
    }
  }
}

uint64_t PowerEntry(unsigned i) { return g_power[i]; }
uint64_t TableEntry(unsigned k, unsigned byte) { return g_table[k][byte]; }

uint64_t ExtendTables(uint64_t value, const unsigned char *p, size_t n) {
  for (; n >= 8; p += 8, n -= 8) value = LoadLittle64(p) ^ WordReduce(value);
  if (n == 0) return value;
  // The last n < 8 bytes in one step, value * x^(8n) + tail mod F: byte j of
  // value (j < n) is pushed past x^63 and reduces through table j + 8 - n (as
  // in WordReduce, n bytes further along), the rest moves down 8n bits, and
  // the tail bytes land on the top 8n bits as n byte steps would put them.
  const unsigned shift = 8 * static_cast<unsigned>(n);
  uint64_t tail = 0;
  uint64_t reduced = 0;
  for (unsigned j = 0; j < n; j++) {
    tail |= uint64_t{p[j]} << (8 * j);
    reduced ^= g_table[j + 8 - n][(value >> (8 * j)) & 255];
  }
  return (value >> shift) ^ (tail << (64 - shift)) ^ reduced;
}

#if defined(KZ_FINGERPRINT_HAVE_CLMUL)

namespace {

// x^k mod F: x^63 is bit 0, each further power one step of the recurrence.
constexpr uint64_t PowerOfX(unsigned k) {
  if (k < 64) return uint64_t{1} << (63 - k);
  uint64_t v = 1;
  for (unsigned i = 63; i < k; i++) v = (v >> 1) ^ ((v & 1) ? (kPolynomial >> 1) : 0);
  return v;
}

// The folding constants K(d) = x^(d-1) mod F.
constexpr uint64_t K(unsigned d) { return PowerOfX(d - 1); }

static_assert(K(65) == 0x7a47e275d5b2dcc0ull, "x^64 mod F is the first power-list entry");

__attribute__((target("pclmul,sse4.1"))) inline __m128i Fold(__m128i acc, __m128i constants) {
  return _mm_xor_si128(_mm_clmulepi64_si128(acc, constants, 0x00), _mm_clmulepi64_si128(acc, constants, 0x11));
}

__attribute__((target("pclmul,sse4.1"))) inline __m128i Load(const unsigned char *p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

}  // namespace

__attribute__((target("pclmul,sse4.1"))) uint64_t ExtendClmul(uint64_t value, const unsigned char *p, size_t n) {
  if (n < 16) return ExtendTables(value, p, n);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#error "the lane order below assumes a little-endian machine"
#endif
  // Low lane multiplies h by K(d + 64), high lane multiplies l by K(d).
  const __m128i by512 = _mm_set_epi64x(static_cast<long long>(K(512)), static_cast<long long>(K(576)));
  const __m128i by384 = _mm_set_epi64x(static_cast<long long>(K(384)), static_cast<long long>(K(448)));
  const __m128i by256 = _mm_set_epi64x(static_cast<long long>(K(256)), static_cast<long long>(K(320)));
  const __m128i by128 = _mm_set_epi64x(static_cast<long long>(K(128)), static_cast<long long>(K(192)));

  // v * x^128 into the first block: v times the high constant of by128.
  const __m128i start = _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(value)), by128, 0x10);
  __m128i acc;
  if (n >= 64) {
    __m128i x0 = _mm_xor_si128(Load(p), start), x1 = Load(p + 16), x2 = Load(p + 32), x3 = Load(p + 48);
    p += 64;
    n -= 64;
    for (; n >= 64; p += 64, n -= 64) {
      x0 = _mm_xor_si128(Fold(x0, by512), Load(p));
      x1 = _mm_xor_si128(Fold(x1, by512), Load(p + 16));
      x2 = _mm_xor_si128(Fold(x2, by512), Load(p + 32));
      x3 = _mm_xor_si128(Fold(x3, by512), Load(p + 48));
    }
    acc = _mm_xor_si128(_mm_xor_si128(Fold(x0, by384), Fold(x1, by256)), _mm_xor_si128(Fold(x2, by128), x3));
  } else {
    // 16-63 bytes (URL components): one accumulator from the start.
    acc = _mm_xor_si128(Load(p), start);
    p += 16;
    n -= 16;
  }
  for (; n >= 16; p += 16, n -= 16) acc = _mm_xor_si128(Fold(acc, by128), Load(p));

  const uint64_t h = static_cast<uint64_t>(_mm_cvtsi128_si64(acc));
  const uint64_t l = static_cast<uint64_t>(_mm_extract_epi64(acc, 1));
  return ExtendTables(WordReduce(h) ^ l, p, n);
}

bool HaveClmul() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

// Decided when the library loads: a function-local static would make the
// first concurrent calls wait on its guard, which changes errno.
const bool g_clmul = HaveClmul();

uint64_t Extend(uint64_t value, const unsigned char *p, size_t n) {
  return n >= 16 && g_clmul ? ExtendClmul(value, p, n) : ExtendTables(value, p, n);
}

#else  // no carry-less multiplication kernel on this architecture

bool HaveClmul() { return false; }

uint64_t Extend(uint64_t value, const unsigned char *p, size_t n) { return ExtendTables(value, p, n); }

#endif

}  // namespace kz::fingerprint
