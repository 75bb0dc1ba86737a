// Pseudo-random numbers: the 48-bit linear congruential generator, its
// process-wide instance, entropy seeding and the Zipf sampler (see kz/random.h).
#include "kz/random.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <openssl/evp.h>

#include <atomic>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/random.h"
#include "internal/os/thread.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/init.h"
#include "kz/memory.h"

namespace {

constexpr const char *kFile = "kzlib/crypto";
// The Zipf exponent check has no historical location; this one is fixed so
// that programs matching on it keep working when the code moves.
constexpr uint32_t kZipfExponentLine = 1230;

// How the process-wide generator got its state.
enum Seeded : int { kNotSeeded = 0, kFromEntropy = 1, kByCaller = 2 };

KZRand g_state;                              // guarded by g_lock
KZCriticalSection *g_lock = kz::kLockUnset;  // created on first use
std::atomic<int> g_seeded{kNotSeeded};       // changed under g_lock (and in a forked child)

// Stores b0..b5 in this byte order into the memory of x0, x1, x2, and sets
// the multiplier and addend words.
void SetState(KZRand *state, const unsigned char bytes[6]) {
  memcpy(&state->x0, bytes, 2);
  memcpy(&state->x1, bytes + 2, 2);
  memcpy(&state->x2, bytes + 4, 2);
  state->a0 = 0x0005;
  state->a1 = 0xDEEC;
  state->a2 = 0xE66D;
  state->c = 0x000B;
}

// x := (a * x + c) mod 2^48 in 16-bit words, low word first, carries passed
// up through the upper half of each 32-bit sum. Products are formed in 32-bit
// unsigned arithmetic; a carry out of bit 31 of the middle sum would only
// reach bit 16 of the high word, which is dropped anyway.
uint32_t Step(KZRand *state) {
  const uint32_t x0 = state->x0, x1 = state->x1, x2 = state->x2;
  const uint32_t a0 = state->a0, a1 = state->a1, a2 = state->a2;
  const uint32_t t = a2 * x2 + state->c;
  const uint32_t u = a2 * x1 + a1 * x2 + (t >> 16);
  const uint32_t h = a0 * x2 + a1 * x1 + a2 * x0 + (u >> 16);
  state->x2 = static_cast<uint16_t>(t);
  state->x1 = static_cast<uint16_t>(u);
  state->x0 = static_cast<uint16_t>(h);
  return uint32_t{state->x0} << 16 | state->x1;
}

// The MD5 digest of the gathered pieces. Where the digest is unavailable (a
// crypto library restricted to approved algorithms refuses MD5) the 64-bit
// FNV-1 hash of the same pieces, most significant byte first, stands in.
struct EntropyDigest {
  EVP_MD_CTX *context;
  bool usable;
  uint64_t fallback;
};

void FeedDigest(void *argument, const void *bytes, size_t length) {
  auto *digest = static_cast<EntropyDigest *>(argument);
  if (digest->usable && EVP_DigestUpdate(digest->context, bytes, length) != 1) digest->usable = false;
  digest->fallback = Hash64Extend(bytes, length, digest->fallback);
}

void EntropySeedBytes(unsigned char bytes[6]) {
  EntropyDigest digest{EVP_MD_CTX_new(), false, 0xcbf29ce484222325ull};
  digest.usable = digest.context && EVP_DigestInit_ex(digest.context, EVP_md5(), nullptr) == 1;
  KZRandEntropyGet(FeedDigest, &digest);
  unsigned char sum[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (digest.usable && EVP_DigestFinal_ex(digest.context, sum, &length) == 1 && length >= 6) {
    memcpy(bytes, sum, 6);
  } else {
    for (int i = 0; i < 6; i++) bytes[i] = static_cast<unsigned char>(digest.fallback >> (56 - 8 * i));
  }
  EVP_MD_CTX_free(digest.context);
}

// The process-wide state, seeded from entropy on first use. The caller holds
// g_lock.
KZRand *SharedState() {
  if (g_seeded.load(std::memory_order_relaxed) == kNotSeeded) {
    g_seeded.store(kFromEntropy, std::memory_order_relaxed);
    unsigned char bytes[6];
    EntropySeedBytes(bytes);
    SetState(&g_state, bytes);
  }
  return &g_state;
}

// Seeds the caller's state or, given none, the process-wide one under its
// lock, recording how that one got its state.
inline void Seed(KZRand *state, const unsigned char bytes[6], Seeded how) {
  if (state) {
    SetState(state, bytes);
    return;
  }
  kz::LazyLockGuard hold(&g_lock);
  g_seeded.store(how, std::memory_order_relaxed);
  SetState(&g_state, bytes);
}

// A child process made by fork() starts with its parent's state: one seeded
// from entropy is gathered afresh in the child, so parent and child do not
// draw the same sequence. A caller's explicit seed is kept.
void ForgetEntropySeed() {
  int expected = kFromEntropy;
  g_seeded.compare_exchange_strong(expected, kNotSeeded, std::memory_order_relaxed);
}
const bool kReseedInForkedChild = kz::os::OnForkChild(ForgetEntropySeed);

// A double converted to a 64-bit integer, saturated at the top of the range.
int64_t ToInt64(double value) {
  if (value >= 9223372036854775808.0) return INT64_MAX;
  return static_cast<int64_t>(value);
}

}  // namespace

extern "C" {

KZ_API int KZRandInit(KZRand *state, uint64_t seed) {
  const unsigned char bytes[6] = {
      static_cast<unsigned char>(seed >> 56), static_cast<unsigned char>(seed >> 48),
      static_cast<unsigned char>(seed >> 40), static_cast<unsigned char>(seed >> 32),
      static_cast<unsigned char>(seed >> 24), static_cast<unsigned char>(seed >> 16),
  };
  Seed(state, bytes, kByCaller);
  return 11;
}

KZ_API void KZRandInitRand(KZRand *state) {
  unsigned char bytes[6];
  EntropySeedBytes(bytes);
  Seed(state, bytes, kFromEntropy);
}

KZ_API uint32_t KZRandUInt(KZRand *state) {
  if (state) return Step(state);
  kz::LazyLockGuard hold(&g_lock);
  return Step(SharedState());
}

KZ_API int32_t KZRandInt(KZRand *state) { return static_cast<int32_t>(KZRandUInt(state)); }

KZ_API uint64_t KZRandULong(KZRand *state) {
  if (state) {
    const uint64_t r1 = Step(state);
    const uint64_t r2 = Step(state);
    return (r2 << 32) + r1;
  }
  kz::LazyLockGuard hold(&g_lock);
  KZRand *shared = SharedState();
  const uint64_t r1 = Step(shared);
  const uint64_t r2 = Step(shared);
  return (r2 << 32) + r1;
}

KZ_API int64_t KZRandLong(KZRand *state) { return static_cast<int64_t>(KZRandULong(state)); }

KZ_API int64_t KZRandZipf(KZRand *state, double s) {
  // s = 1 divides by zero below and never accepts a draw; s <= 0 and NaN
  // describe no distribution. Written so that NaN fails too.
  KZ_CHECK(s > 0 && s != 1, "s > 0 && s != 1", kFile, kZipfExponentLine);
  const double b = pow(2.0, s - 1.0);
  double x;
  for (;;) {
    const double u = KZRandUInt(state) * (1.0 / 4294967296.0);
    x = floor(pow(u, -1.0 / s - 1.0));
    const double t = pow(1.0 + 1.0 / x, s - 1.0);
    const double v = KZRandUInt(state) * (1.0 / 4294967296.0);
    if (v * x * (t - 1.0) / (b - 1.0) <= t / b) break;
  }
  return ToInt64(x);
}

KZ_API void KZRandEntropyGet(KZRandEntropyCallback callback, void *argument) {
  const kz::ErrorStateKept kept;
  kz::os::GatherEntropy(callback, argument);

  // Where this stack, a fresh heap block and the library's code lie.
  const void *stack = &kept;
  callback(argument, &stack, sizeof stack);
  void *heap = Allocate_(64, nullptr, kFile, 1187);
  callback(argument, &heap, sizeof heap);
  free(heap);
  const void *code = reinterpret_cast<const void *>(&KZRandEntropyGet);
  callback(argument, &code, sizeof code);

  const char *host = HostName();
  if (*host) callback(argument, host, strlen(host));
  char program[512];
  {
    kz::LazyLockGuard hold(kz::GlobalLock());
    snprintf(program, sizeof program, "%s", kz::ProgramName());
  }
  if (*program) callback(argument, program, strlen(program));
}

}  // extern "C"
