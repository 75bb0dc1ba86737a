// The configuration store against GLib's key files.
//
//   GetInt  ConfigKeyGetInt over every key of a 10,000-key store, in a fixed
//           shuffled order, vs g_key_file_get_integer on a key file holding
//           the same keys and values in one group
//   Load    LoadConfigurationKeysPrefixed of a 100,000-line text (keys in
//           shuffled order; the prefix makes each load replace the previous
//           one, as a reload does) vs g_key_file_load_from_data of the same
//           pairs written as "key=value" lines under one group header, into a
//           fresh key file freed afterwards
//
// Each comparison runs GLib and kzlib in alternation, one batch each per
// iteration (kzbench::Versus in bench_support.h), and reports GLib's time
// (manual time, thread CPU clock) plus the counter "time_vs_kz": GLib's total
// time divided by kzlib's (above 1: kzlib is faster). Without GLib only
// kzlib's own times are reported.

#include "kz/config.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#ifdef KZ_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "bench_support.h"
#include "kz/error.h"

namespace {

using kzbench::Expect;

struct Pairs {
  std::vector<std::string> keys;
  std::vector<int> values;
  std::string kzText;    // "key value\n" lines
  std::string glibText;  // "[main]\n" then "key=value\n" lines
};

Pairs MakePairs(int count, const char *prefix) {
  Pairs p;
  std::mt19937 rng(42);
  for (int i = 0; i < count; i++) {
    p.keys.push_back(std::string(prefix) + "server.section" + std::to_string(i % 97) + ".key" + std::to_string(i));
    p.values.push_back(static_cast<int>(rng() % 2000000) - 1000000);
  }
  std::vector<int> order(count);
  for (int i = 0; i < count; i++) order[i] = i;
  std::shuffle(order.begin(), order.end(), rng);
  p.glibText = "[main]\n";
  for (int i : order) {
    p.kzText += p.keys[i] + " " + std::to_string(p.values[i]) + "\n";
    p.glibText += p.keys[i] + "=" + std::to_string(p.values[i]) + "\n";
  }
  return p;
}

void BM_GetInt(benchmark::State &state) {
  static const Pairs pairs = MakePairs(10000, "g.");
  ConfigKeyRemove(nullptr);
  Expect(LoadConfigurationKeys(pairs.kzText.data(), pairs.kzText.size()) == 1, "kzlib load");
  std::vector<int> order(pairs.keys.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = static_cast<int>(i);
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  int64_t kzSum = 0;
  auto kz = [&] {
    for (int i : order) kzSum += ConfigKeyGetInt(pairs.keys[i].c_str(), 0);
  };
  int64_t want = 0;
  for (int v : pairs.values) want += v;
  kz();
  Expect(kzSum == want, "kzlib values");
#ifdef KZ_BENCH_HAVE_GLIB
  GKeyFile *file = g_key_file_new();
  Expect(g_key_file_load_from_data(file, pairs.glibText.data(), pairs.glibText.size(), G_KEY_FILE_NONE, nullptr),
         "glib load");
  int64_t glibSum = 0;
  auto glib = [&] {
    for (int i : order) glibSum += g_key_file_get_integer(file, "main", pairs.keys[i].c_str(), nullptr);
  };
  glib();
  Expect(glibSum == want, "glib values");
  kzbench::Versus(state, kz, glib);
  g_key_file_free(file);
#else
  for (auto _ : state) kz();
#endif
  benchmark::DoNotOptimize(kzSum);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(order.size()));
  ConfigKeyRemove(nullptr);
}

void BM_Load(benchmark::State &state) {
  static const Pairs pairs = MakePairs(100000, "l.");
  ConfigKeyRemove(nullptr);
  auto kz = [&] {
    Expect(LoadConfigurationKeysPrefixed(pairs.kzText.data(), pairs.kzText.size(), "l.") == 1, "kzlib load");
  };
  kz();
  Expect(ConfigKeyGetUInt("@count", 0) == 100000 && ConfigKeyGetInt(pairs.keys[5].c_str(), 0) == pairs.values[5],
         "kzlib content");
#ifdef KZ_BENCH_HAVE_GLIB
  auto glib = [&] {
    GKeyFile *file = g_key_file_new();
    Expect(g_key_file_load_from_data(file, pairs.glibText.data(), pairs.glibText.size(), G_KEY_FILE_NONE, nullptr),
           "glib load");
    g_key_file_free(file);
  };
  kzbench::Versus(state, kz, glib);
#else
  for (auto _ : state) kz();
#endif
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(pairs.kzText.size()));
  ConfigKeyRemove(nullptr);
}

}  // namespace

#ifdef KZ_BENCH_HAVE_GLIB
BENCHMARK(BM_GetInt)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Load)->UseManualTime()->Unit(benchmark::kMillisecond);
#else
BENCHMARK(BM_GetInt)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond);
#endif
