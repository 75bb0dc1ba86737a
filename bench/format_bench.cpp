// Number parsing, hashing, formatted output and array appends against the
// standard library.
//
//   ParseULong / ParseLong  vs std::from_chars and strtoull / strtoll, base 10
//                             (and 16), on 4096 texts per iteration
//   UByteArrayPrintf        vs snprintf into a stack buffer, same output
//   Hash64 / Hash32         throughput in bytes per second
//   ArrayAppend             vs std::vector::push_back, 100 000 elements from
//                             empty and into reserved storage
//
// The kzlib benchmarks time kzlib alone. Each comparison benchmark runs the
// other implementation and kzlib's code on the same input in alternation, one
// batch each per iteration (kzbench::Versus in bench_support.h), and reports
// the other's time (manual time, from the thread's CPU clock) plus the counter
// "time_vs_kz": the other's total time divided by kzlib's. Above 1 means kzlib
// was faster.

#include "kz/array.h"
#include "kz/format.h"

#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>

#include "bench_support.h"

namespace {

using kzbench::Versus;

// ---- parsing inputs ----------------------------------------------------------

constexpr size_t kTexts = 4096;

// Texts stored back to back, each NUL-terminated (for strtoull), with their
// offsets and lengths (for the length-taking parsers).
struct TextSet {
  std::string storage;
  std::vector<uint32_t> offset;
  std::vector<uint32_t> length;
  const char *Text(size_t i) const { return storage.data() + offset[i]; }
};

// mixed: random 64-bit values shifted right by 0-63 bits (1-20 digits);
// full: random 64-bit values (mostly 19-20 digits); short: below 10 000.
enum class Shape { kMixed, kFull, kShort };

template <typename T>
TextSet MakeSet(Shape shape, int base, uint64_t seed) {
  std::mt19937_64 rng(seed);
  TextSet set;
  for (size_t i = 0; i < kTexts; ++i) {
    T v = static_cast<T>(rng());
    if (shape == Shape::kMixed) v >>= rng() % 64;
    if (shape == Shape::kShort) v %= 10000;
    char buffer[72];
    const auto r = std::to_chars(buffer, buffer + sizeof buffer, v, base);
    set.offset.push_back(static_cast<uint32_t>(set.storage.size()));
    set.length.push_back(static_cast<uint32_t>(r.ptr - buffer));
    set.storage.append(buffer, r.ptr);
    set.storage.push_back('\0');
  }
  return set;
}

template <typename T>
const TextSet &Set(Shape shape, int base) {
  static std::map<std::pair<int, int>, TextSet> sets;
  const auto key = std::make_pair(static_cast<int>(shape), base);
  auto it = sets.find(key);
  if (it == sets.end()) it = sets.emplace(key, MakeSet<T>(shape, base, 100 + key.first * 37 + base)).first;
  return it->second;
}

// ---- the parsing loops ---------------------------------------------------------

void KzULong(const TextSet &set, int base) {
  uint64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    int32_t error;
    sum += ParseULong(set.Text(i), set.length[i], base, &error);
    sum += static_cast<uint64_t>(error);
  }
  benchmark::DoNotOptimize(sum);
}

template <int Base>
void FromCharsULong(const TextSet &set) {
  uint64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    uint64_t v = 0;
    const char *text = set.Text(i);
    const auto r = std::from_chars(text, text + set.length[i], v, Base);
    sum += v + static_cast<uint64_t>(r.ec != std::errc() || r.ptr != text + set.length[i]);
  }
  benchmark::DoNotOptimize(sum);
}

void StrtoullLoop(const TextSet &set, int base) {
  uint64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    char *end;
    sum += std::strtoull(set.Text(i), &end, base);
    sum += static_cast<uint64_t>(*end != '\0');
  }
  benchmark::DoNotOptimize(sum);
}

void KzLong(const TextSet &set) {
  int64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    int32_t error;
    sum += ParseLong(set.Text(i), set.length[i], 10, &error);
    sum += error;
  }
  benchmark::DoNotOptimize(sum);
}

void FromCharsLong(const TextSet &set) {
  int64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    int64_t v = 0;
    const char *text = set.Text(i);
    const auto r = std::from_chars(text, text + set.length[i], v, 10);
    sum += v + static_cast<int64_t>(r.ec != std::errc() || r.ptr != text + set.length[i]);
  }
  benchmark::DoNotOptimize(sum);
}

void StrtollLoop(const TextSet &set) {
  int64_t sum = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    char *end;
    sum += std::strtoll(set.Text(i), &end, 10);
    sum += static_cast<int64_t>(*end != '\0');
  }
  benchmark::DoNotOptimize(sum);
}

// ---- parsing benchmarks -----------------------------------------------------------

template <Shape S, int Base>
void BM_ParseULong(benchmark::State &state) {
  const TextSet &set = Set<uint64_t>(S, Base);
  for (auto _ : state) KzULong(set, Base);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

template <Shape S, int Base>
void BM_FromCharsU64(benchmark::State &state) {
  const TextSet &set = Set<uint64_t>(S, Base);
  Versus(
      state, [&] { KzULong(set, Base); }, [&] { FromCharsULong<Base>(set); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

template <Shape S, int Base>
void BM_Strtoull(benchmark::State &state) {
  const TextSet &set = Set<uint64_t>(S, Base);
  Versus(
      state, [&] { KzULong(set, Base); }, [&] { StrtoullLoop(set, Base); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

template <Shape S>
void BM_ParseLong(benchmark::State &state) {
  const TextSet &set = Set<int64_t>(S, 10);
  for (auto _ : state) KzLong(set);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

template <Shape S>
void BM_FromCharsI64(benchmark::State &state) {
  const TextSet &set = Set<int64_t>(S, 10);
  Versus(
      state, [&] { KzLong(set); }, [&] { FromCharsLong(set); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

template <Shape S>
void BM_Strtoll(benchmark::State &state) {
  const TextSet &set = Set<int64_t>(S, 10);
  Versus(
      state, [&] { KzLong(set); }, [&] { StrtollLoop(set); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kTexts));
}

BENCHMARK(BM_ParseULong<Shape::kMixed, 10>);
BENCHMARK(BM_FromCharsU64<Shape::kMixed, 10>)->UseManualTime();
BENCHMARK(BM_Strtoull<Shape::kMixed, 10>)->UseManualTime();
BENCHMARK(BM_ParseULong<Shape::kFull, 10>);
BENCHMARK(BM_FromCharsU64<Shape::kFull, 10>)->UseManualTime();
BENCHMARK(BM_Strtoull<Shape::kFull, 10>)->UseManualTime();
BENCHMARK(BM_ParseULong<Shape::kShort, 10>);
BENCHMARK(BM_FromCharsU64<Shape::kShort, 10>)->UseManualTime();
BENCHMARK(BM_Strtoull<Shape::kShort, 10>)->UseManualTime();
BENCHMARK(BM_ParseULong<Shape::kMixed, 16>);
BENCHMARK(BM_FromCharsU64<Shape::kMixed, 16>)->UseManualTime();
BENCHMARK(BM_Strtoull<Shape::kMixed, 16>)->UseManualTime();
BENCHMARK(BM_ParseLong<Shape::kMixed>);
BENCHMARK(BM_FromCharsI64<Shape::kMixed>)->UseManualTime();
BENCHMARK(BM_Strtoll<Shape::kMixed>)->UseManualTime();
BENCHMARK(BM_ParseLong<Shape::kFull>);
BENCHMARK(BM_FromCharsI64<Shape::kFull>)->UseManualTime();
BENCHMARK(BM_Strtoll<Shape::kFull>)->UseManualTime();

// ---- formatted output -----------------------------------------------------------------

// The same text from both: "%d %s %I64u" (the library's 64-bit form) against
// "%d %s %llu"; a longer line with padding, hexadecimal and a double.
constexpr int kLines = 256;
constexpr const char *kShortKz = "%d %s %I64u";
constexpr const char *kShortC = "%d %s %llu";
constexpr const char *kLongKz = "[%08d] %-12s value=%I64u hex=%016I64x ratio=%.3f";
constexpr const char *kLongC = "[%08d] %-12s value=%llu hex=%016llx ratio=%.3f";

void CheckSameOutput(const char *kzFormat, const char *cFormat) {
  const unsigned long long big = 18446744073709551615ull;
  UByteArray a{};
  UByteArrayPrintf(&a, kzFormat, 12345, "name", big, big, 1.5);
  char buffer[256];
  std::snprintf(buffer, sizeof buffer, cFormat, 12345, "name", big, big, 1.5);
  if (std::strcmp(buffer, reinterpret_cast<char *>(a.elements)) != 0) {
    std::fprintf(stderr, "outputs differ: '%s' vs '%s'\n", reinterpret_cast<char *>(a.elements), buffer);
    std::abort();
  }
  std::free(a.elements);
}

unsigned long long Big(int i) { return 1000000007ull * static_cast<unsigned long long>(i); }

// Each line overwrites the previous one (count reset to 0).
void KzShort(UByteArray &a) {
  for (int i = 0; i < kLines; ++i) {
    a.count = 0;
    UByteArrayPrintf(&a, kShortKz, i, "name", Big(i));
    benchmark::DoNotOptimize(a.elements);
  }
}

void KzLongLine(UByteArray &a) {
  for (int i = 0; i < kLines; ++i) {
    a.count = 0;
    UByteArrayPrintf(&a, kLongKz, i, "name", Big(i), Big(i), 1.5 * i);
    benchmark::DoNotOptimize(a.elements);
  }
}

// Lines appended one after another to an array that grows from empty.
void KzAccumulate() {
  UByteArray a{};
  for (int i = 0; i < kLines; ++i) UByteArrayPrintf(&a, kShortKz, i, "name", Big(i));
  benchmark::DoNotOptimize(a.elements);
  std::free(a.elements);
}

void BM_UByteArrayPrintf_Short(benchmark::State &state) {
  CheckSameOutput(kShortKz, kShortC);
  UByteArray a{};
  for (auto _ : state) KzShort(a);
  std::free(a.elements);
  state.SetItemsProcessed(state.iterations() * kLines);
}

void BM_Snprintf_Short(benchmark::State &state) {
  UByteArray a{};
  char buffer[128];
  Versus(
      state, [&] { KzShort(a); },
      [&] {
        for (int i = 0; i < kLines; ++i) {
          std::snprintf(buffer, sizeof buffer, kShortC, i, "name", Big(i));
          benchmark::DoNotOptimize(buffer);
        }
      });
  std::free(a.elements);
  state.SetItemsProcessed(state.iterations() * kLines);
}

void BM_UByteArrayPrintf_Long(benchmark::State &state) {
  CheckSameOutput(kLongKz, kLongC);
  UByteArray a{};
  for (auto _ : state) KzLongLine(a);
  std::free(a.elements);
  state.SetItemsProcessed(state.iterations() * kLines);
}

void BM_Snprintf_Long(benchmark::State &state) {
  UByteArray a{};
  char buffer[256];
  Versus(
      state, [&] { KzLongLine(a); },
      [&] {
        for (int i = 0; i < kLines; ++i) {
          std::snprintf(buffer, sizeof buffer, kLongC, i, "name", Big(i), Big(i), 1.5 * i);
          benchmark::DoNotOptimize(buffer);
        }
      });
  std::free(a.elements);
  state.SetItemsProcessed(state.iterations() * kLines);
}

void BM_UByteArrayPrintf_Accumulate(benchmark::State &state) {
  for (auto _ : state) KzAccumulate();
  state.SetItemsProcessed(state.iterations() * kLines);
}

void BM_StringSnprintf_Accumulate(benchmark::State &state) {
  Versus(
      state, [] { KzAccumulate(); },
      [] {
        std::string s;
        char buffer[128];
        for (int i = 0; i < kLines; ++i) {
          const int n = std::snprintf(buffer, sizeof buffer, kShortC, i, "name", Big(i));
          s.append(buffer, static_cast<size_t>(n));
        }
        benchmark::DoNotOptimize(s.data());
      });
  state.SetItemsProcessed(state.iterations() * kLines);
}

BENCHMARK(BM_UByteArrayPrintf_Short);
BENCHMARK(BM_Snprintf_Short)->UseManualTime();
BENCHMARK(BM_UByteArrayPrintf_Long);
BENCHMARK(BM_Snprintf_Long)->UseManualTime();
BENCHMARK(BM_UByteArrayPrintf_Accumulate);
BENCHMARK(BM_StringSnprintf_Accumulate)->UseManualTime();

// ---- hashing ---------------------------------------------------------------------------

const std::vector<unsigned char> &HashInput() {
  static const std::vector<unsigned char> data = kzbench::RandomValues(1 << 16, std::mt19937(7));
  return data;
}

void BM_Hash64(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const unsigned char *data = HashInput().data();
  for (auto _ : state) benchmark::DoNotOptimize(Hash64(data, size));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void BM_Hash32(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const unsigned char *data = HashInput().data();
  for (auto _ : state) benchmark::DoNotOptimize(Hash32(data, size));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

BENCHMARK(BM_Hash64)->Arg(16)->Arg(256)->Arg(65536);
BENCHMARK(BM_Hash32)->Arg(65536);

// ---- array append ------------------------------------------------------------------------

constexpr uint32_t kAppends = 100000;

long MinorFaults() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

void KzAppendFromEmpty() {
  KZ_ARRAY(uint32_t) a = {nullptr, 0, 0};
  for (uint32_t i = 0; i < kAppends; ++i) ArrayAppend(a, i);
  benchmark::DoNotOptimize(a.elements);
  ArrayFree(a);
}

void VectorFromEmpty() {
  std::vector<uint32_t> v;
  for (uint32_t i = 0; i < kAppends; ++i) v.push_back(i);
  benchmark::DoNotOptimize(v.data());
}

// From empty, growth included. "page_faults" counts the minor page faults per
// iteration: the growth pattern decides whether each run touches fresh pages.
void BM_ArrayAppend(benchmark::State &state) {
  const long faults = MinorFaults();
  for (auto _ : state) KzAppendFromEmpty();
  state.counters["page_faults"] =
      benchmark::Counter(static_cast<double>(MinorFaults() - faults), benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * kAppends);
}

void BM_VectorPushBack(benchmark::State &state) {
  Versus(state, KzAppendFromEmpty, VectorFromEmpty);
  state.SetItemsProcessed(state.iterations() * kAppends);
}

// Appends alone: the storage is grown once outside the timed loop and only
// the count is reset, so neither allocation nor page faults are measured.
struct Reserved {
  KZ_ARRAY(uint32_t) array = {nullptr, 0, 0};
  std::vector<uint32_t> vector;
  Reserved() {
    ArrayGrowExact(array, kAppends);
    vector.reserve(kAppends);
  }
  ~Reserved() { ArrayFree(array); }
  void Kz() {
    array.count = 0;
    for (uint32_t i = 0; i < kAppends; ++i) ArrayAppend(array, i);
    benchmark::DoNotOptimize(array.elements);
    benchmark::ClobberMemory();
  }
  void Vector() {
    vector.clear();
    for (uint32_t i = 0; i < kAppends; ++i) vector.push_back(i);
    benchmark::DoNotOptimize(vector.data());
    benchmark::ClobberMemory();
  }
};

void BM_ArrayAppend_Reserved(benchmark::State &state) {
  Reserved r;
  for (auto _ : state) r.Kz();
  state.SetItemsProcessed(state.iterations() * kAppends);
}

void BM_VectorPushBack_Reserved(benchmark::State &state) {
  Reserved r;
  Versus(
      state, [&] { r.Kz(); }, [&] { r.Vector(); });
  state.SetItemsProcessed(state.iterations() * kAppends);
}

BENCHMARK(BM_ArrayAppend);
BENCHMARK(BM_VectorPushBack)->UseManualTime();
BENCHMARK(BM_ArrayAppend_Reserved);
BENCHMARK(BM_VectorPushBack_Reserved)->UseManualTime();

}  // namespace
