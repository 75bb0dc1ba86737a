/* kzlib: pseudo-random numbers for non-cryptographic uses (sampling,
 * spreading load, temporary names).
 *
 * A 48-bit linear congruential generator, x := (0x5DEECE66D * x + 0xB) mod 2^48,
 * each step yielding the upper 32 bits of the new state. Its values are
 * predictable from a few outputs: never use them for keys, tokens or anything
 * an attacker must not guess.
 *
 * Every function takes a state pointer. A caller-owned state is not locked:
 * one thread per state. A null pointer selects the process-wide generator,
 * which every thread shares: each call takes its lock, so no two calls ever
 * receive the same step. It seeds itself from gathered process entropy on its
 * first use (unless a program seeded it with KZRandInit(NULL, seed) first), and
 * again in a child process created by fork() when it was seeded that way.
 */
#ifndef KZ_RANDOM_H
#define KZ_RANDOM_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* Generator state: x0 x1 x2 the 48-bit value (x0 most significant), a0 a1 a2
 * the multiplier 0x5DEECE66D (0x0005, 0xDEEC, 0xE66D), c the addend 0x000B. */
typedef struct KZRand {
  uint16_t x0, x1, x2;
  uint16_t a0, a1, a2;
  uint16_t c;
} KZRand;

/* Seeds the state from bits 63-16 of seed (bits 15-0 are not used): the bytes
 * b0 = bits 63-56 ... b5 = bits 23-16 are stored in this order into the
 * memory of x0, x1, x2, so on a little-endian machine x0 = b0 | b1 << 8. The
 * same seed always gives the same sequence. Returns 11. */
KZ_API int KZRandInit(KZRand *state, uint64_t seed);

/* Seeds the state from gathered entropy: the MD5 digest of every piece
 * KZRandEntropyGet gathers, its first six bytes taken as b0-b5 above. */
KZ_API void KZRandInitRand(KZRand *state);

/* The next 32-bit value: one step, the upper 32 bits of the new state. */
KZ_API uint32_t KZRandUInt(KZRand *state);
/* The KZRandUInt value read as signed. */
KZ_API int32_t KZRandInt(KZRand *state);
/* Two steps r1, r2: r2 << 32 | r1 (the second value in the upper half). On
 * the process-wide generator the two steps are consecutive. */
KZ_API uint64_t KZRandULong(KZRand *state);
/* The KZRandULong value read as signed. */
KZ_API int64_t KZRandLong(KZRand *state);

/* A Zipf-like integer of at least 1 for exponent s > 0, s != 1 (1 the most
 * frequent value) by rejection sampling: with b = 2^(s-1), draw U and V
 * uniform in [0, 1) from two steps, X = floor(U^(-1/s - 1)),
 * T = (1 + 1/X)^(s-1), until V * X * (T - 1) / (b - 1) <= T / b. The exponent
 * -1/s - 1 (not the -1/(s-1) of the textbook method) defines this library's
 * distribution. A value beyond the signed 64-bit range is returned as
 * INT64_MAX. An exponent that cannot be sampled (s <= 0, s = 1, NaN) fails
 * the assertion "s > 0 && s != 1" (kzlib/crypto) before any draw. */
KZ_API int64_t KZRandZipf(KZRand *state, double s);

/* Receives one entropy piece of length bytes (length > 0). */
typedef void (*KZRandEntropyCallback)(void *argument, const void *bytes, size_t length);

/* Gathers pieces that differ from process to process and run to run (kernel
 * random bytes, clock readings, wall time, process, parent and thread ids,
 * user id, the C runtime's random bytes, stack, heap, code and environment
 * addresses, host and program names, the environment strings) and passes
 * each to callback with argument. */
KZ_API void KZRandEntropyGet(KZRandEntropyCallback callback, void *argument);

KZ_END_DECLS

#endif /* KZ_RANDOM_H */
