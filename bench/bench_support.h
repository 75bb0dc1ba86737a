// Helpers shared by the benchmarks: the thread's CPU clock, the alternating
// comparison harness, the self-check that stops a run whose implementations
// disagree, and generated inputs.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace kzbench {

// CPU time used by the calling thread, in seconds.
inline double ThreadSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Which side's batch time a comparison reports as an iteration's manual time.
enum class Report { kOther, kKz };

// The comparison harness. Every iteration runs one batch of `kz` (kzlib's
// code, or whichever side is under study) and one of `other` (what it is
// measured against), in alternating order, the other side first in the first
// iteration, each timed on the thread's CPU clock. The iteration's manual time
// is the other side's batch (kzlib's with Report::kKz); the counter `counter`
// is the other side's total time divided by kzlib's, so above 1 means kzlib
// was faster. Alternating keeps the ratio steady when other work on the
// machine slows both sides down. Register the benchmark with
// ->UseManualTime().
template <typename Kz, typename Other>
void Versus(benchmark::State &state, Kz kz, Other other, const char *counter = "time_vs_kz",
            Report report = Report::kOther) {
  double kzTotal = 0;
  double otherTotal = 0;
  bool otherFirst = true;
  for (auto _ : state) {
    double kzTime = 0;
    double otherTime = 0;
    for (int pass = 0; pass < 2; ++pass) {
      const bool runOther = (pass == 0) == otherFirst;
      const double start = ThreadSeconds();
      if (runOther)
        other();
      else
        kz();
      (runOther ? otherTime : kzTime) = ThreadSeconds() - start;
    }
    kzTotal += kzTime;
    otherTotal += otherTime;
    otherFirst = !otherFirst;
    state.SetIterationTime(report == Report::kOther ? otherTime : kzTime);
  }
  if (kzTotal > 0) state.counters[counter] = otherTotal / kzTotal;
}

// Stops the run when an implementation does not give the expected result:
// the timings of code that computes something else would mean nothing.
[[noreturn]] inline void Fail(const char *what) {
  std::fprintf(stderr, "benchmark self-check failed: %s\n", what);
  std::abort();
}

inline void Expect(bool ok, const char *what) {
  if (!ok) Fail(what);
}

// n values, each the low bits of one draw of `rng`, as a std::vector or a
// std::string. Pass an engine by reference to go on drawing from it after.
template <typename Values = std::vector<unsigned char>, typename Rng>
Values RandomValues(size_t n, Rng &&rng) {
  Values values(n, typename Values::value_type{});
  for (auto &v : values) v = static_cast<typename Values::value_type>(rng());
  return values;
}

// Text of exactly n bytes: words picked by `rng` (a draw modulo the number of
// words) appended until there are n bytes or more, then cut to n.
template <size_t N, typename Rng>
std::string WordText(size_t n, const char *const (&words)[N], Rng &&rng) {
  std::string s;
  while (s.size() < n) s += words[rng() % N];
  s.resize(n);
  return s;
}

}  // namespace kzbench
