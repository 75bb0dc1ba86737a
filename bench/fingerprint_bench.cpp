// The fingerprint kernel: the eight-table method against carry-less
// multiplication folding, on 64 KiB buffers (and a few shorter lengths).
//
//   Fingerprint/Tables, Fingerprint/Clmul   bytes per second, each alone
//   Fingerprint/ClmulVsTables/<length>      both on the same buffer in
//                                            alternation, one pass each per
//                                            iteration (a pass is 64 KiB / length
//                                            calls, continuing one value, so the
//                                            clock reads do not swamp short
//                                            lengths); reports the
//                                            carry-less pass's time and the
//                                            counter "tables_vs_clmul", the
//                                            table method's total time divided
//                                            by the carry-less method's (the
//                                            speed-up)
//   Crc32/Zlib                              zlib's crc32 on the same buffer,
//                                            a different checksum shown only
//                                            for scale
//
// Times come from the thread's CPU clock (the harness is kzbench::Versus in
// bench_support.h, with the carry-less method as the side under study);
// alternating keeps the ratio steady when other work on the machine slows both
// methods down.

#include "internal/fingerprint.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench_support.h"

namespace {

namespace fp = kz::fingerprint;

// Random bytes starting 8-byte aligned, as a caller's heap buffer would be.
const std::vector<unsigned char> &Data() {
  static const std::vector<unsigned char> data = [] {
    fp::InitTables();
    return kzbench::RandomValues(1 << 16, std::mt19937_64(11));
  }();
  return data;
}

// One kernel's throughput, each call continuing the previous value.
template <uint64_t (*Extend)(uint64_t, const unsigned char *, size_t)>
void Throughput(benchmark::State &state) {
  const auto &data = Data();
  const size_t n = static_cast<size_t>(state.range(0));
  uint64_t value = fp::kSeed;
  for (auto _ : state) {
    value = Extend(value, data.data(), n);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
// A pass of 64 KiB / n calls of one kernel over the first n bytes, continuing
// one value, so that the clock reads do not swamp short lengths.
template <uint64_t (*Extend)(uint64_t, const unsigned char *, size_t)>
void Pass(const std::vector<unsigned char> &data, size_t n) {
  uint64_t value = fp::kSeed;
  for (size_t call = data.size() / n; call > 0; --call) value = Extend(value, data.data(), n);
  benchmark::DoNotOptimize(value);
}
#endif

// False (and the benchmark skipped) where the carry-less kernel cannot run.
bool HaveClmul(benchmark::State &state) {
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
  if (fp::HaveClmul()) return true;
  state.SkipWithError("no carry-less multiplication on this CPU");
#else
  state.SkipWithError("no carry-less multiplication kernel on this architecture");
#endif
  return false;
}

void Tables(benchmark::State &state) { Throughput<fp::ExtendTables>(state); }

void Clmul(benchmark::State &state) {
  if (!HaveClmul(state)) return;
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
  Throughput<fp::ExtendClmul>(state);
#endif
}

void ClmulVsTables(benchmark::State &state) {
  if (!HaveClmul(state)) return;
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
  const auto &data = Data();
  const size_t n = static_cast<size_t>(state.range(0));
  kzbench::Versus(
      state, [&] { Pass<fp::ExtendClmul>(data, n); }, [&] { Pass<fp::ExtendTables>(data, n); }, "tables_vs_clmul",
      kzbench::Report::kKz);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(data.size() / n * n));
#endif
}

void Crc32(benchmark::State &state) {
  const auto &data = Data();
  const size_t n = static_cast<size_t>(state.range(0));
  uLong crc = crc32(0, nullptr, 0);
  for (auto _ : state) {
    crc = crc32(crc, data.data(), static_cast<uInt>(n));
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

BENCHMARK(Tables)->Name("Fingerprint/Tables")->Arg(65536);
BENCHMARK(Clmul)->Name("Fingerprint/Clmul")->Arg(65536);
BENCHMARK(ClmulVsTables)
    ->Name("Fingerprint/ClmulVsTables")
    ->Arg(64)
    ->Arg(128)
    ->Arg(256)
    ->Arg(4096)
    ->Arg(65536)
    ->UseManualTime();
BENCHMARK(Crc32)->Name("Crc32/Zlib")->Arg(65536);

}  // namespace
