// QSort against the C library's qsort and std::sort, on 100 000 random 32-bit
// integers and on 100 000 random 24-byte records (sorted by a 64-bit key).
//
// Each benchmark times only the sort (the unsorted input is copied back in
// before every iteration, outside the timed region). The qsort and std::sort
// runs report "time_vs_QSort": their time per sort divided by QSort's on the
// same input, so a value above 1 means QSort was faster.

#include "kz/sort.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

constexpr size_t kCount = 100000;

struct Record {
  uint64_t key;
  uint64_t a;
  uint64_t b;
};
static_assert(sizeof(Record) == 24);

const std::vector<int32_t> &RandomInts() {
  static const std::vector<int32_t> v = kzbench::RandomValues<std::vector<int32_t>>(kCount, std::mt19937(1));
  return v;
}

const std::vector<Record> &RandomRecords() {
  static const std::vector<Record> v = [] {
    std::mt19937_64 rng(2);
    std::vector<Record> out(kCount);
    for (size_t i = 0; i < out.size(); ++i) out[i] = Record{rng(), i, ~uint64_t{i}};
    return out;
  }();
  return v;
}

int32_t CompareIntCtx(const void *a, const void *b, void *) {
  const int32_t x = *static_cast<const int32_t *>(a);
  const int32_t y = *static_cast<const int32_t *>(b);
  return (x > y) - (x < y);
}
int CompareInt(const void *a, const void *b) { return CompareIntCtx(a, b, nullptr); }

int32_t CompareRecordCtx(const void *a, const void *b, void *) {
  uint64_t x;
  uint64_t y;
  std::memcpy(&x, a, 8);
  std::memcpy(&y, b, 8);
  return (x > y) - (x < y);
}
int CompareRecord(const void *a, const void *b) { return CompareRecordCtx(a, b, nullptr); }

// Mean seconds per sort of each finished QSort benchmark, by data set.
std::map<std::string, double> &QSortSeconds() {
  static std::map<std::string, double> m;
  return m;
}

template <typename T, typename SortFn>
void RunSort(benchmark::State &state, const std::vector<T> &input, const std::string &dataSet, bool isQSort,
             SortFn sort) {
  std::vector<T> work(input.size());
  double total = 0;
  int64_t runs = 0;
  for (auto _ : state) {
    std::copy(input.begin(), input.end(), work.begin());
    const auto start = std::chrono::steady_clock::now();
    sort(work.data(), work.size());
    const auto stop = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(work.data());
    benchmark::ClobberMemory();
    const double seconds = std::chrono::duration<double>(stop - start).count();
    state.SetIterationTime(seconds);
    total += seconds;
    ++runs;
  }
  if (runs == 0) return;
  const double perSort = total / static_cast<double>(runs);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(input.size()));
  if (isQSort) {
    QSortSeconds()[dataSet] = perSort;
  } else if (auto it = QSortSeconds().find(dataSet); it != QSortSeconds().end() && it->second > 0) {
    state.counters["time_vs_QSort"] = perSort / it->second;
  }
}

// ---- 32-bit integers ------------------------------------------------------

void BM_Int32_QSort(benchmark::State &state) {
  RunSort(state, RandomInts(), "int32", true,
          [](int32_t *p, size_t n) { QSort(p, n, sizeof(int32_t), CompareIntCtx, nullptr); });
}
void BM_Int32_CQsort(benchmark::State &state) {
  RunSort(state, RandomInts(), "int32", false,
          [](int32_t *p, size_t n) { std::qsort(p, n, sizeof(int32_t), CompareInt); });
}
void BM_Int32_StdSort(benchmark::State &state) {
  RunSort(state, RandomInts(), "int32", false, [](int32_t *p, size_t n) { std::sort(p, p + n); });
}

// ---- 24-byte records --------------------------------------------------------

void BM_Record24_QSort(benchmark::State &state) {
  RunSort(state, RandomRecords(), "record24", true,
          [](Record *p, size_t n) { QSort(p, n, sizeof(Record), CompareRecordCtx, nullptr); });
}
void BM_Record24_CQsort(benchmark::State &state) {
  RunSort(state, RandomRecords(), "record24", false,
          [](Record *p, size_t n) { std::qsort(p, n, sizeof(Record), CompareRecord); });
}
void BM_Record24_StdSort(benchmark::State &state) {
  RunSort(state, RandomRecords(), "record24", false, [](Record *p, size_t n) {
    std::sort(p, p + n, [](const Record &x, const Record &y) { return x.key < y.key; });
  });
}

// QSort first in each group: the others report their time relative to it.
BENCHMARK(BM_Int32_QSort)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Int32_CQsort)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Int32_StdSort)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Record24_QSort)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Record24_CQsort)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Record24_StdSort)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
