// The 64-bit fingerprint kernel: a polynomial hash over GF(2) that the URL
// family builds its public fingerprints on. The functions here continue a
// fingerprint over bytes and nothing more: the caller applies the end-of-call
// fold (FoldEnd) itself.
//
// InitTables must have run before any Extend* call; library start-up does
// this once. Building the tables again is harmless (same values) but must not
// race with readers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kz::fingerprint {

inline constexpr uint64_t kPolynomial = 0xf48fc4ebab65b981ull;
inline constexpr uint64_t kSeed = 0x8000000000000000ull;

// Builds the power list and the eight 256-entry tables.
void InitTables();

// Entries of the power list (i < 64) and of table k (k < 8), for checks.
uint64_t PowerEntry(unsigned i);
uint64_t TableEntry(unsigned k, unsigned byte);

// 8 bytes per step through the eight tables, then the last 0-7 bytes in one
// step through as many tables. No end fold.
uint64_t ExtendTables(uint64_t value, const unsigned char *p, size_t n);

#if defined(__x86_64__)
#define KZ_FINGERPRINT_HAVE_CLMUL 1
// The same value computed with carry-less multiplication (PCLMULQDQ), for any
// start value, alignment and length (below 16 bytes it is ExtendTables). Only call it when HaveClmul() is true.
uint64_t ExtendClmul(uint64_t value, const unsigned char *p, size_t n);
#endif

// True when this CPU can run ExtendClmul (always false where it is not built).
bool HaveClmul();

// ExtendClmul when the CPU has it and the input has 16 bytes or more, else
// ExtendTables. No end fold.
uint64_t Extend(uint64_t value, const unsigned char *p, size_t n);

// The end-of-call fold: an odd value takes the polynomial in (no shift). The
// next byte step cancels it again, so folding after every call still makes
// two calls over a split text equal one call over the whole.
inline uint64_t FoldEnd(uint64_t value) { return (value & 1) ? value ^ kPolynomial : value; }

}  // namespace kz::fingerprint
