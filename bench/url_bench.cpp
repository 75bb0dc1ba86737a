// URLs and fingerprints against the URL parsers a C program would otherwise
// use.
//
//   kzlib      URLParse3 + URLNormalize + URLFingerprint per URL, one parse
//              record and one normalised record reused for every URL (the
//              fingerprint is taken of the normalised record, so nothing is
//              normalised twice); a second variant also prints the URL
//   libcurl    curl_url_set(CURLUPART_URL) + curl_url_get(CURLUPART_URL) of
//              the whole URL on one reused CURLU handle, then curl_free
//   GLib       g_uri_parse + g_uri_to_string + g_free + g_uri_unref
//   ada        ada::parse<ada::url_aggregator> + get_href (when built with
//              KZ_ADA_DIR, see bench/CMakeLists.txt), against kzlib's
//              URLParse3 + URLPrint ("_VsParsePrint") and against the parse +
//              normalise + fingerprint loop ("_VsFingerprint")
//
// Two corpora: the shared list of real URLs (../shared/data/urls-kasztp.txt,
// the "_Real" rows, skipped when absent; the lines kzlib parses as absolute
// URLs, and that ada parses too when it is compared) and the generated one.
// The generated corpus comes from scripts/gen-urls (written into the build directory
// when this benchmark is built). It also holds relative references and
// invalid lines; a comparison only makes sense where every library does the
// whole job, so the URL benchmarks use only the lines that all three accept
// as absolute URLs (the counts are printed at start-up and in the counters).
//
//   Fingerprint       the public function over 64 KiB (and 64 bytes), bytes
//                     per second; it picks the carry-less multiplication
//                     kernel when the CPU has it
//   FingerprintTables the eight-table kernel alone on the same input, against
//                     the public function ("time_vs_kz")
//
// Comparison benchmarks run the other implementation and kzlib on the same
// input in alternation, one batch each per iteration (kzbench::Versus in
// bench_support.h), and report the other's time (manual time, from the
// thread's CPU clock) plus "time_vs_kz": the other's total time divided by
// kzlib's. Above 1 means kzlib was faster.

#include "kz/url.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "internal/fingerprint.h"

#ifdef KZ_BENCH_HAVE_CURL
#include <curl/curl.h>
#endif
#ifdef KZ_BENCH_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KZ_BENCH_HAVE_ADA
#include <ada.h>
#endif

namespace {

using kzbench::Versus;

// ---- the corpus -------------------------------------------------------------------

struct Corpus {
  std::vector<std::string> urls;  // accepted by every library compared
  size_t lines = 0, kz = 0, curl = 0, glib = 0;
  bool loaded = false;
};

// kzlib's parse, reusing the caller's record.
bool KzAccepts(const std::string &text, URL *url) { return URLParse3(text.c_str(), url, nullptr, 1, 1, 0) == 1; }

#ifdef KZ_BENCH_HAVE_CURL
bool CurlAccepts(const std::string &text, CURLU *handle) {
  return curl_url_set(handle, CURLUPART_URL, text.c_str(), 0) == CURLUE_OK;
}
#endif

#ifdef KZ_BENCH_HAVE_GLIB
bool GLibAccepts(const std::string &text) {
  GUri *uri = g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri) g_uri_unref(uri);
  return uri != nullptr;
}
#endif

const Corpus &TheCorpus() {
  static const Corpus corpus = [] {
    Corpus c;
#ifdef KZ_URL_CORPUS
    std::ifstream in(KZ_URL_CORPUS, std::ios::binary);
    if (!in) return c;
    c.loaded = true;
    URL *url = URLNew();
#ifdef KZ_BENCH_HAVE_CURL
    CURLU *handle = curl_url();
#endif
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty()) continue;
      ++c.lines;
      bool all = KzAccepts(line, url);
      c.kz += all;
#ifdef KZ_BENCH_HAVE_CURL
      bool curl = CurlAccepts(line, handle);
      c.curl += curl;
      all = all && curl;
#endif
#ifdef KZ_BENCH_HAVE_GLIB
      bool glib = GLibAccepts(line);
      c.glib += glib;
      all = all && glib;
#endif
      if (all) c.urls.push_back(line);
    }
#ifdef KZ_BENCH_HAVE_CURL
    curl_url_cleanup(handle);
#endif
    URLDelete(url);
    std::fprintf(stderr,
                 "url corpus %s: %zu lines; accepted by kzlib %zu, libcurl %zu, GLib %zu; "
                 "all three (used below) %zu\n",
                 KZ_URL_CORPUS, c.lines, c.kz, c.curl, c.glib, c.urls.size());
#endif
    return c;
  }();
  return corpus;
}

bool NeedCorpus(benchmark::State &state) {
  const Corpus &c = TheCorpus();
  if (!c.loaded || c.urls.empty()) {
    state.SkipWithError("no URL corpus (scripts/gen-urls writes it when the benchmark is built)");
    return false;
  }
  state.counters["urls"] = static_cast<double>(c.urls.size());
  state.counters["corpus_lines"] = static_cast<double>(c.lines);
  return true;
}

// ---- the loops over the corpus ------------------------------------------------------

struct KzRecords {
  URL *url = URLNew();
  URL *normal = URLNew();
  UByteArray printed = {nullptr, 0, 0};
  ~KzRecords() {
    URLDelete(url);
    URLDelete(normal);
    ArrayFree(printed);
  }
};

// Parse, normalise and fingerprint every URL; with Print, print the
// normalised URL as well.
template <bool Print>
void KzLoop(const std::vector<std::string> &urls, KzRecords &r) {
  uint64_t sum = 0;
  for (const std::string &text : urls) {
    if (URLParse3(text.c_str(), r.url, nullptr, 1, 1, 0)) {
      URLNormalize(r.normal, r.url);
      if constexpr (Print) sum += static_cast<unsigned char>(URLPrint(&r.printed, r.normal)[0]);
      sum += URLFingerprint(r.normal, 0);
    }
  }
  benchmark::DoNotOptimize(sum);
}

#ifdef KZ_BENCH_HAVE_CURL
void CurlRoundTrips(const std::vector<std::string> &urls, CURLU *handle) {
  uint64_t sum = 0;
  for (const std::string &text : urls) {
    if (curl_url_set(handle, CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) continue;
    char *out = nullptr;
    if (curl_url_get(handle, CURLUPART_URL, &out, CURLU_NO_DEFAULT_PORT) == CURLUE_OK) {
      sum += static_cast<unsigned char>(out[0]);
      curl_free(out);
    }
  }
  benchmark::DoNotOptimize(sum);
}
#endif

#ifdef KZ_BENCH_HAVE_GLIB
void GLibRoundTrips(const std::vector<std::string> &urls) {
  uint64_t sum = 0;
  for (const std::string &text : urls) {
    GUri *uri = g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr);
    if (!uri) continue;
    gchar *out = g_uri_to_string(uri);
    sum += static_cast<unsigned char>(out[0]);
    g_free(out);
    g_uri_unref(uri);
  }
  benchmark::DoNotOptimize(sum);
}
#endif

// ---- URL benchmarks ---------------------------------------------------------------------

// Print: kzlib prints the normalised URL as well (the "_VsPrint" and
// "PrintAndFingerprint" rows).
template <bool Print>
void BM_KzUrl(benchmark::State &state) {
  if (!NeedCorpus(state)) return;
  const auto &urls = TheCorpus().urls;
  KzRecords r;
  for (auto _ : state) KzLoop<Print>(urls, r);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

BENCHMARK(BM_KzUrl<false>)->Name("BM_KzUrlFingerprint");
BENCHMARK(BM_KzUrl<true>)->Name("BM_KzUrlPrintAndFingerprint");

#ifdef KZ_BENCH_HAVE_CURL
// libcurl against kzlib's parse + normalise + fingerprint.
template <bool Print>
void BM_CurlUrl(benchmark::State &state) {
  if (!NeedCorpus(state)) return;
  const auto &urls = TheCorpus().urls;
  KzRecords r;
  CURLU *handle = curl_url();
  Versus(
      state, [&] { KzLoop<Print>(urls, r); }, [&] { CurlRoundTrips(urls, handle); });
  curl_url_cleanup(handle);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

BENCHMARK(BM_CurlUrl<false>)->Name("BM_CurlUrl")->UseManualTime();
BENCHMARK(BM_CurlUrl<true>)->Name("BM_CurlUrl_VsPrint")->UseManualTime();
#endif

#ifdef KZ_BENCH_HAVE_GLIB
template <bool Print>
void BM_GLibUri(benchmark::State &state) {
  if (!NeedCorpus(state)) return;
  const auto &urls = TheCorpus().urls;
  KzRecords r;
  Versus(
      state, [&] { KzLoop<Print>(urls, r); }, [&] { GLibRoundTrips(urls); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

BENCHMARK(BM_GLibUri<false>)->Name("BM_GLibUri")->UseManualTime();
BENCHMARK(BM_GLibUri<true>)->Name("BM_GLibUri_VsPrint")->UseManualTime();
#endif

// ---- ada, and the real URL list --------------------------------------------------------

// Parse every URL and print the parsed record (no normalisation).
void KzParsePrintLoop(const std::vector<std::string> &urls, KzRecords &r) {
  uint64_t sum = 0;
  for (const std::string &text : urls)
    if (URLParse3(text.c_str(), r.url, nullptr, 1, 1, 0))
      sum += static_cast<unsigned char>(URLPrint(&r.printed, r.url)[0]);
  benchmark::DoNotOptimize(sum);
}

#ifdef KZ_BENCH_HAVE_ADA
bool AdaAccepts(const std::string &text) { return ada::parse<ada::url_aggregator>(text).has_value(); }

void AdaRoundTrips(const std::vector<std::string> &urls) {
  uint64_t sum = 0;
  for (const std::string &text : urls) {
    auto url = ada::parse<ada::url_aggregator>(text);
    if (url) sum += static_cast<unsigned char>(url->get_href()[0]);
  }
  benchmark::DoNotOptimize(sum);
}
#endif

struct RealUrls {
  std::vector<std::string> urls;  // parsed by kzlib (and ada when compared)
  size_t lines = 0, kz = 0, ada = 0;
};

const RealUrls &TheRealUrls() {
  static const RealUrls real = [] {
    RealUrls r;
    std::ifstream in(KZ_BENCH_DATA "/urls-kasztp.txt", std::ios::binary);
    if (!in) return r;
    URL *url = URLNew();
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty()) continue;
      ++r.lines;
      bool all = KzAccepts(line, url);
      r.kz += all;
#ifdef KZ_BENCH_HAVE_ADA
      const bool ada = AdaAccepts(line);
      r.ada += ada;
      all = all && ada;
#endif
      if (all) r.urls.push_back(line);
    }
    URLDelete(url);
    std::fprintf(stderr, "real urls %s: %zu lines; parsed by kzlib %zu, ada %zu; used below %zu\n",
                 KZ_BENCH_DATA "/urls-kasztp.txt", r.lines, r.kz, r.ada, r.urls.size());
    return r;
  }();
  return real;
}

bool NeedRealUrls(benchmark::State &state) {
  const RealUrls &r = TheRealUrls();
  if (r.urls.empty()) {
    state.SkipWithError("no real URL list (" KZ_BENCH_DATA "/urls-kasztp.txt)");
    return false;
  }
  state.counters["urls"] = static_cast<double>(r.urls.size());
  return true;
}

// kzlib alone on the real list: parse + print, and parse + normalise + fingerprint.
void BM_KzParsePrint_Real(benchmark::State &state) {
  if (!NeedRealUrls(state)) return;
  const auto &urls = TheRealUrls().urls;
  KzRecords r;
  for (auto _ : state) KzParsePrintLoop(urls, r);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

void BM_KzUrlFingerprint_Real(benchmark::State &state) {
  if (!NeedRealUrls(state)) return;
  const auto &urls = TheRealUrls().urls;
  KzRecords r;
  for (auto _ : state) KzLoop<false>(urls, r);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

BENCHMARK(BM_KzParsePrint_Real);
BENCHMARK(BM_KzUrlFingerprint_Real);

#ifdef KZ_BENCH_HAVE_ADA
// ada's parse + href against kzlib's parse + print (Fingerprint false) or
// parse + normalise + fingerprint (true), on the real list or the generated
// corpus.
template <bool Real, bool Fingerprint>
void BM_AdaHref(benchmark::State &state) {
  if (Real ? !NeedRealUrls(state) : !NeedCorpus(state)) return;
  const auto &urls = Real ? TheRealUrls().urls : TheCorpus().urls;
  KzRecords r;
  Versus(
      state,
      [&] {
        if constexpr (Fingerprint)
          KzLoop<false>(urls, r);
        else
          KzParsePrintLoop(urls, r);
      },
      [&] { AdaRoundTrips(urls); });
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(urls.size()));
}

BENCHMARK(BM_AdaHref<true, false>)->Name("BM_AdaHref_VsParsePrint_Real")->UseManualTime();
BENCHMARK(BM_AdaHref<true, true>)->Name("BM_AdaHref_VsFingerprint_Real")->UseManualTime();
BENCHMARK(BM_AdaHref<false, false>)->Name("BM_AdaHref_VsParsePrint")->UseManualTime();
BENCHMARK(BM_AdaHref<false, true>)->Name("BM_AdaHref_VsFingerprint")->UseManualTime();
#endif

// ---- fingerprint throughput -----------------------------------------------------------------

const std::vector<unsigned char> &FingerprintInput() {
  static const std::vector<unsigned char> data = kzbench::RandomValues(1 << 16, std::mt19937(11));
  return data;
}

void BM_Fingerprint(benchmark::State &state) {
  FingerprintInit();
  const uint32_t size = static_cast<uint32_t>(state.range(0));
  const unsigned char *data = FingerprintInput().data();
  for (auto _ : state) benchmark::DoNotOptimize(Fingerprint(data, size));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

// The table kernel against the public function on the same bytes; both give
// the same value, which is checked first.
void BM_FingerprintTables(benchmark::State &state) {
  FingerprintInit();
  const uint32_t size = static_cast<uint32_t>(state.range(0));
  const unsigned char *data = FingerprintInput().data();
  constexpr int kRounds = 16;
  if (kz::fingerprint::FoldEnd(kz::fingerprint::ExtendTables(FINGERPRINT_SEED, data, size)) !=
      Fingerprint(data, size)) {
    state.SkipWithError("the table kernel and Fingerprint disagree");
    return;
  }
  Versus(
      state,
      [&] {
        for (int i = 0; i < kRounds; ++i) benchmark::DoNotOptimize(Fingerprint(data, size));
      },
      [&] {
        for (int i = 0; i < kRounds; ++i)
          benchmark::DoNotOptimize(kz::fingerprint::ExtendTables(FINGERPRINT_SEED, data, size));
      });
  state.counters["clmul"] = kz::fingerprint::HaveClmul() ? 1 : 0;
  state.SetBytesProcessed(state.iterations() * kRounds * static_cast<int64_t>(size));
}

BENCHMARK(BM_Fingerprint)->Arg(64)->Arg(65536);
BENCHMARK(BM_FingerprintTables)->Arg(64)->Arg(65536)->UseManualTime();

}  // namespace
