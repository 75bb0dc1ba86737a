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
// Times come from the thread's CPU clock; alternating keeps the ratio steady
// when other work on the machine slows both methods down.

#include "internal/fingerprint.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <vector>

#include <time.h>

namespace {

namespace fp = kz::fingerprint;

double ThreadSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Random bytes starting 8-byte aligned, as a caller's heap buffer would be.
const std::vector<unsigned char> &Data() {
    static const std::vector<unsigned char> data = [] {
        fp::InitTables();
        std::mt19937_64 rng(11);
        std::vector<unsigned char> bytes(1 << 16);
        for (auto &b : bytes) b = static_cast<unsigned char>(rng());
        return bytes;
    }();
    return data;
}

void Tables(benchmark::State &state) {
    const auto &data = Data();
    const size_t n = static_cast<size_t>(state.range(0));
    uint64_t value = fp::kSeed;
    for (auto _ : state) {
        value = fp::ExtendTables(value, data.data(), n);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void Clmul(benchmark::State &state) {
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
    if (!fp::HaveClmul()) {
        state.SkipWithError("no carry-less multiplication on this CPU");
        return;
    }
    const auto &data = Data();
    const size_t n = static_cast<size_t>(state.range(0));
    uint64_t value = fp::kSeed;
    for (auto _ : state) {
        value = fp::ExtendClmul(value, data.data(), n);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
#else
    state.SkipWithError("no carry-less multiplication kernel on this architecture");
#endif
}

void ClmulVsTables(benchmark::State &state) {
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
    if (!fp::HaveClmul()) {
        state.SkipWithError("no carry-less multiplication on this CPU");
        return;
    }
    const auto &data = Data();
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t calls = data.size() / n;  // each timed pass covers 64 KiB
    double clmulTotal = 0, tablesTotal = 0;
    bool tablesFirst = true;
    for (auto _ : state) {
        double clmulTime = 0;
        for (int pass = 0; pass < 2; ++pass) {
            const bool runTables = (pass == 0) == tablesFirst;
            const double start = ThreadSeconds();
            uint64_t value = fp::kSeed;
            for (size_t call = 0; call < calls; ++call)
                value = runTables ? fp::ExtendTables(value, data.data(), n) : fp::ExtendClmul(value, data.data(), n);
            benchmark::DoNotOptimize(value);
            const double elapsed = ThreadSeconds() - start;
            if (runTables) {
                tablesTotal += elapsed;
            } else {
                clmulTime = elapsed;
                clmulTotal += elapsed;
            }
        }
        tablesFirst = !tablesFirst;
        state.SetIterationTime(clmulTime);
    }
    if (clmulTotal > 0) state.counters["tables_vs_clmul"] = tablesTotal / clmulTotal;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(calls * n));
#else
    state.SkipWithError("no carry-less multiplication kernel on this architecture");
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
BENCHMARK(ClmulVsTables)->Name("Fingerprint/ClmulVsTables")->Arg(64)->Arg(128)->Arg(256)->Arg(4096)->Arg(65536)->UseManualTime();
BENCHMARK(Crc32)->Name("Crc32/Zlib")->Arg(65536);

}  // namespace
