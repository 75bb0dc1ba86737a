// The Unicode converters against iconv (glibc) and, when installed, GLib.
//
//   UCS2Encode      vs iconv UTF-8 -> UTF-16LE, g_utf8_to_utf16
//   UCS2Decode      vs iconv UTF-16LE -> UTF-8, g_utf16_to_utf8
//   UCS4Encode      vs iconv UTF-8 -> UTF-32LE, g_utf8_to_ucs4
//   UCS4Decode      vs iconv UTF-32LE -> UTF-8, g_ucs4_to_utf8
//   ISO88591Encode  vs iconv UTF-8 -> ISO-8859-1    (the Latin-1 text only)
//   ISO88591Decode  vs iconv ISO-8859-1 -> UTF-8
//
// Three texts of about 64 KiB of UTF-8 each: "ascii" (English words),
// "latin1" (words in which about half the letters are accented Latin-1
// letters, so every other character or so takes two bytes) and "cjk"
// (ideographs with CJK punctuation and an ASCII space now and then).
//
// kzlib converts into an array that is reused between iterations (count reset
// to 0), as a caller converting many texts would; iconv converts into a
// buffer allocated once. GLib's converters allocate their result on every
// call (that is their interface), so the GLib rows include one malloc and one
// free of the output per text. The "_FreshKz" rows compare GLib with kzlib
// converting into a new, empty array every time (all growth steps, then
// free). Before timing, every benchmark checks that all implementations
// produce the same output.
//
// As in format_bench, each comparison runs the other implementation and kzlib
// in alternation, one text each per iteration, timed on the thread's CPU
// clock; it reports the other's time and "time_vs_kz", the other's total time
// divided by kzlib's (above 1: kzlib is faster). Throughput is in UTF-8 bytes.

#include "kz/unicode.h"

#include <benchmark/benchmark.h>
#include <iconv.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef KZ_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "kz/array.h"

namespace {

// ---- timing -------------------------------------------------------------------

double ThreadSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <typename Kz, typename Other>
void Versus(benchmark::State &state, Kz kz, Other other) {
  double kzTotal = 0;
  double otherTotal = 0;
  bool otherFirst = true;
  for (auto _ : state) {
    double otherTime = 0;
    for (int pass = 0; pass < 2; ++pass) {
      const bool runOther = (pass == 0) == otherFirst;
      const double start = ThreadSeconds();
      if (runOther) other(); else kz();
      const double elapsed = ThreadSeconds() - start;
      if (runOther) {
        otherTime = elapsed;
        otherTotal += elapsed;
      } else {
        kzTotal += elapsed;
      }
    }
    otherFirst = !otherFirst;
    state.SetIterationTime(otherTime);
  }
  if (kzTotal > 0) state.counters["time_vs_kz"] = otherTotal / kzTotal;
}

void Fail(const char *what) {
  std::fprintf(stderr, "outputs differ: %s\n", what);
  std::abort();
}

// ---- texts ----------------------------------------------------------------------

enum Script { kAscii, kLatin1, kCjk };
constexpr size_t kTextBytes = 64 * 1024;

void AppendUtf8(std::string &s, uint32_t c) {
  if (c < 0x80) {
    s += static_cast<char>(c);
  } else if (c < 0x800) {
    s += static_cast<char>(0xC0 | c >> 6), s += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    s += static_cast<char>(0xE0 | c >> 12), s += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    s += static_cast<char>(0x80 | (c & 0x3F));
  }
}

std::string MakeText(Script script) {
  std::mt19937 rng(42 + script);
  static const char *const kWords[] = {"the", "of", "and", "to", "in", "a", "is", "that", "for", "it", "as", "was",
                                       "with", "be", "by", "on", "not", "he", "this", "are", "or", "his", "from",
                                       "at", "which", "but", "have", "an", "had", "they", "you", "were", "their",
                                       "one", "all", "we", "can", "her", "has", "there", "been", "if", "more"};
  std::string s;
  while (s.size() < kTextBytes) {
    if (script == kAscii) {
      s += kWords[rng() % std::size(kWords)];
      s += rng() % 12 == 0 ? ".\n" : " ";
    } else if (script == kLatin1) {
      for (int n = 3 + static_cast<int>(rng() % 6); n > 0; --n)
        AppendUtf8(s, rng() % 2 ? 'a' + rng() % 26 : 0xE0 + rng() % 0x20);
      s += rng() % 12 == 0 ? ", " : " ";
    } else {
      for (int n = 4 + static_cast<int>(rng() % 20); n > 0; --n) AppendUtf8(s, 0x4E00 + rng() % 0x5200);
      AppendUtf8(s, rng() % 3 ? 0xFF0C : 0x3002);
      if (rng() % 4 == 0) s += ' ';
    }
  }
  return s;
}

const std::string &Utf8(Script script) {
  static const std::string texts[] = {MakeText(kAscii), MakeText(kLatin1), MakeText(kCjk)};
  return texts[script];
}

template <typename Unit>
std::vector<Unit> Wide(Script script) {
  std::vector<Unit> v;
  const std::string &s = Utf8(script);
  for (size_t i = 0; i < s.size();) {
    const uint8_t b = static_cast<uint8_t>(s[i]);
    const int n = b < 0x80 ? 1 : b < 0xE0 ? 2 : 3;
    uint32_t c = n == 1 ? b : n == 2 ? b & 0x1Fu : b & 0x0Fu;
    for (int k = 1; k < n; ++k) c = c << 6 | (static_cast<uint8_t>(s[i + k]) & 0x3Fu);
    v.push_back(static_cast<Unit>(c));
    i += static_cast<size_t>(n);
  }
  return v;
}

const std::vector<uint16_t> &Utf16(Script script) {
  static const std::vector<uint16_t> texts[] = {Wide<uint16_t>(kAscii), Wide<uint16_t>(kLatin1), Wide<uint16_t>(kCjk)};
  return texts[script];
}

const std::vector<uint32_t> &Utf32(Script script) {
  static const std::vector<uint32_t> texts[] = {Wide<uint32_t>(kAscii), Wide<uint32_t>(kLatin1), Wide<uint32_t>(kCjk)};
  return texts[script];
}

const std::string &Latin1() {
  static const std::string text = [] {
    std::string s;
    for (uint32_t c : Utf32(kLatin1)) s += static_cast<char>(c);
    return s;
  }();
  return text;
}

// ---- iconv into a buffer allocated once ------------------------------------------------

class Iconv {
 public:
  Iconv(const char *to, const char *from, size_t room) : cd_(iconv_open(to, from)), out_(room) {
    if (cd_ == reinterpret_cast<iconv_t>(-1)) Fail("iconv_open");
  }
  ~Iconv() { iconv_close(cd_); }
  // Converts the whole input; returns the output size.
  size_t Run(const void *in, size_t size) {
    char *from = const_cast<char *>(static_cast<const char *>(in));
    size_t fromLeft = size;
    char *to = out_.data();
    size_t toLeft = out_.size();
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    if (iconv(cd_, &from, &fromLeft, &to, &toLeft) == static_cast<size_t>(-1)) Fail("iconv");
    benchmark::DoNotOptimize(out_.data());
    return out_.size() - toLeft;
  }
  const char *data() const { return out_.data(); }

 private:
  iconv_t cd_;
  std::vector<char> out_;
};

// ---- the kzlib side -------------------------------------------------------------------------

template <typename Record>
struct Reused {
  Record array{};
  ~Reused() { ArrayFree_(&array); }
};

// Each converts one text into its reused array.
struct KzUCS2Encode {
  Reused<UShortArray> out;
  void operator()(const std::string &text) {
    out.array.count = 0;
    UCS2Encode(&out.array, text.data(), static_cast<uint32_t>(text.size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
};

struct KzUCS2Decode {
  Reused<UByteArray> out;
  void operator()(const std::vector<uint16_t> &units) {
    out.array.count = 0;
    UCS2Decode(&out.array, units.data(), static_cast<uint32_t>(units.size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
};

struct KzUCS4Encode {
  Reused<UIntArray> out;
  void operator()(const std::string &text) {
    out.array.count = 0;
    UCS4Encode(&out.array, text.data(), static_cast<uint32_t>(text.size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
};

struct KzUCS4Decode {
  Reused<UByteArray> out;
  void operator()(const std::vector<uint32_t> &points) {
    out.array.count = 0;
    UCS4Decode(&out.array, points.data(), static_cast<uint32_t>(points.size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
};

void Processed(benchmark::State &state, Script script) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(Utf8(script).size()));
}

// ---- UTF-8 -> 16-bit units --------------------------------------------------------------------

template <Script S>
void BM_UCS2Encode(benchmark::State &state) {
  KzUCS2Encode kz;
  kz(Utf8(S));
  if (kz.out.array.count != Utf16(S).size() ||
      std::memcmp(kz.out.array.elements, Utf16(S).data(), Utf16(S).size() * 2) != 0)
    Fail("UCS2Encode");
  for (auto _ : state) kz(Utf8(S));
  Processed(state, S);
}

template <Script S>
void BM_Iconv_Utf8ToUtf16(benchmark::State &state) {
  KzUCS2Encode kz;
  Iconv ic("UTF-16LE", "UTF-8", Utf8(S).size() * 2 + 64);
  kz(Utf8(S));
  if (ic.Run(Utf8(S).data(), Utf8(S).size()) != kz.out.array.count * 2 ||
      std::memcmp(ic.data(), kz.out.array.elements, kz.out.array.count * 2) != 0)
    Fail("iconv UTF-16LE");
  Versus(state, [&] { kz(Utf8(S)); }, [&] { ic.Run(Utf8(S).data(), Utf8(S).size()); });
  Processed(state, S);
}

template <Script S>
void BM_UCS2Decode(benchmark::State &state) {
  KzUCS2Decode kz;
  kz(Utf16(S));
  if (kz.out.array.count != Utf8(S).size() || std::memcmp(kz.out.array.elements, Utf8(S).data(), Utf8(S).size()) != 0)
    Fail("UCS2Decode");
  for (auto _ : state) kz(Utf16(S));
  Processed(state, S);
}

template <Script S>
void BM_Iconv_Utf16ToUtf8(benchmark::State &state) {
  KzUCS2Decode kz;
  Iconv ic("UTF-8", "UTF-16LE", Utf8(S).size() + 64);
  if (ic.Run(Utf16(S).data(), Utf16(S).size() * 2) != Utf8(S).size() ||
      std::memcmp(ic.data(), Utf8(S).data(), Utf8(S).size()) != 0)
    Fail("iconv UTF-8");
  Versus(state, [&] { kz(Utf16(S)); }, [&] { ic.Run(Utf16(S).data(), Utf16(S).size() * 2); });
  Processed(state, S);
}

// ---- UTF-8 <-> 32-bit code points -----------------------------------------------------------------

template <Script S>
void BM_UCS4Encode(benchmark::State &state) {
  KzUCS4Encode kz;
  kz(Utf8(S));
  if (kz.out.array.count != Utf32(S).size() ||
      std::memcmp(kz.out.array.elements, Utf32(S).data(), Utf32(S).size() * 4) != 0)
    Fail("UCS4Encode");
  for (auto _ : state) kz(Utf8(S));
  Processed(state, S);
}

template <Script S>
void BM_Iconv_Utf8ToUtf32(benchmark::State &state) {
  KzUCS4Encode kz;
  Iconv ic("UTF-32LE", "UTF-8", Utf8(S).size() * 4 + 64);
  if (ic.Run(Utf8(S).data(), Utf8(S).size()) != Utf32(S).size() * 4 ||
      std::memcmp(ic.data(), Utf32(S).data(), Utf32(S).size() * 4) != 0)
    Fail("iconv UTF-32LE");
  Versus(state, [&] { kz(Utf8(S)); }, [&] { ic.Run(Utf8(S).data(), Utf8(S).size()); });
  Processed(state, S);
}

template <Script S>
void BM_UCS4Decode(benchmark::State &state) {
  KzUCS4Decode kz;
  kz(Utf32(S));
  if (kz.out.array.count != Utf8(S).size() || std::memcmp(kz.out.array.elements, Utf8(S).data(), Utf8(S).size()) != 0)
    Fail("UCS4Decode");
  for (auto _ : state) kz(Utf32(S));
  Processed(state, S);
}

template <Script S>
void BM_Iconv_Utf32ToUtf8(benchmark::State &state) {
  KzUCS4Decode kz;
  Iconv ic("UTF-8", "UTF-32LE", Utf8(S).size() + 64);
  if (ic.Run(Utf32(S).data(), Utf32(S).size() * 4) != Utf8(S).size()) Fail("iconv UTF-8 from UTF-32LE");
  Versus(state, [&] { kz(Utf32(S)); }, [&] { ic.Run(Utf32(S).data(), Utf32(S).size() * 4); });
  Processed(state, S);
}

// ---- UTF-8 <-> ISO-8859-1 (the Latin-1 text) ------------------------------------------------------

struct KzLatin1 {
  Reused<UByteArray> out;
  void Encode() {
    out.array.count = 0;
    ISO88591Encode(&out.array, Utf8(kLatin1).data(), static_cast<uint32_t>(Utf8(kLatin1).size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
  void Decode() {
    out.array.count = 0;
    ISO88591Decode(&out.array, Latin1().data(), static_cast<uint32_t>(Latin1().size()));
    benchmark::DoNotOptimize(out.array.elements);
  }
  bool Holds(const std::string &expected) const {
    return out.array.count == expected.size() && std::memcmp(out.array.elements, expected.data(), expected.size()) == 0;
  }
};

void BM_ISO88591Encode(benchmark::State &state) {
  KzLatin1 kz;
  kz.Encode();
  if (!kz.Holds(Latin1())) Fail("ISO88591Encode");
  for (auto _ : state) kz.Encode();
  Processed(state, kLatin1);
}

void BM_Iconv_Utf8ToLatin1(benchmark::State &state) {
  KzLatin1 kz;
  Iconv ic("ISO-8859-1", "UTF-8", Latin1().size() + 64);
  if (ic.Run(Utf8(kLatin1).data(), Utf8(kLatin1).size()) != Latin1().size() ||
      std::memcmp(ic.data(), Latin1().data(), Latin1().size()) != 0)
    Fail("iconv ISO-8859-1");
  Versus(state, [&] { kz.Encode(); }, [&] { ic.Run(Utf8(kLatin1).data(), Utf8(kLatin1).size()); });
  Processed(state, kLatin1);
}

void BM_ISO88591Decode(benchmark::State &state) {
  KzLatin1 kz;
  kz.Decode();
  if (!kz.Holds(Utf8(kLatin1))) Fail("ISO88591Decode");
  for (auto _ : state) kz.Decode();
  Processed(state, kLatin1);
}

void BM_Iconv_Latin1ToUtf8(benchmark::State &state) {
  KzLatin1 kz;
  Iconv ic("UTF-8", "ISO-8859-1", Utf8(kLatin1).size() + 64);
  if (ic.Run(Latin1().data(), Latin1().size()) != Utf8(kLatin1).size() ||
      std::memcmp(ic.data(), Utf8(kLatin1).data(), Utf8(kLatin1).size()) != 0)
    Fail("iconv UTF-8 from ISO-8859-1");
  Versus(state, [&] { kz.Decode(); }, [&] { ic.Run(Latin1().data(), Latin1().size()); });
  Processed(state, kLatin1);
}

// ---- GLib (allocates its result on every call) --------------------------------------------------------

#ifdef KZ_BENCH_HAVE_GLIB

template <Script S>
void BM_GLib_Utf8ToUtf16(benchmark::State &state) {
  KzUCS2Encode kz;
  auto glib = [] {
    glong written = 0;
    gunichar2 *units = g_utf8_to_utf16(Utf8(S).data(), static_cast<glong>(Utf8(S).size()), nullptr, &written, nullptr);
    benchmark::DoNotOptimize(units);
    g_free(units);
  };
  glong written = 0;
  gunichar2 *units = g_utf8_to_utf16(Utf8(S).data(), static_cast<glong>(Utf8(S).size()), nullptr, &written, nullptr);
  if (!units || static_cast<size_t>(written) != Utf16(S).size() || std::memcmp(units, Utf16(S).data(), written * 2) != 0)
    Fail("g_utf8_to_utf16");
  g_free(units);
  Versus(state, [&] { kz(Utf8(S)); }, glib);
  Processed(state, S);
}

template <Script S>
void BM_GLib_Utf16ToUtf8(benchmark::State &state) {
  KzUCS2Decode kz;
  auto run = [] {
    glong written = 0;
    gchar *text = g_utf16_to_utf8(reinterpret_cast<const gunichar2 *>(Utf16(S).data()),
                                  static_cast<glong>(Utf16(S).size()), nullptr, &written, nullptr);
    return std::make_pair(text, written);
  };
  auto [text, written] = run();
  if (!text || static_cast<size_t>(written) != Utf8(S).size() || std::memcmp(text, Utf8(S).data(), written) != 0)
    Fail("g_utf16_to_utf8");
  g_free(text);
  Versus(state, [&] { kz(Utf16(S)); },
         [&] {
           auto r = run();
           benchmark::DoNotOptimize(r.first);
           g_free(r.first);
         });
  Processed(state, S);
}

template <Script S>
void BM_GLib_Utf8ToUcs4(benchmark::State &state) {
  KzUCS4Encode kz;
  auto run = [] {
    glong written = 0;
    gunichar *points = g_utf8_to_ucs4(Utf8(S).data(), static_cast<glong>(Utf8(S).size()), nullptr, &written, nullptr);
    return std::make_pair(points, written);
  };
  auto [points, written] = run();
  if (!points || static_cast<size_t>(written) != Utf32(S).size() ||
      std::memcmp(points, Utf32(S).data(), written * 4) != 0)
    Fail("g_utf8_to_ucs4");
  g_free(points);
  Versus(state, [&] { kz(Utf8(S)); },
         [&] {
           auto r = run();
           benchmark::DoNotOptimize(r.first);
           g_free(r.first);
         });
  Processed(state, S);
}

template <Script S>
void BM_GLib_Ucs4ToUtf8(benchmark::State &state) {
  KzUCS4Decode kz;
  auto run = [] {
    glong written = 0;
    gchar *text = g_ucs4_to_utf8(reinterpret_cast<const gunichar *>(Utf32(S).data()),
                                 static_cast<glong>(Utf32(S).size()), nullptr, &written, nullptr);
    return std::make_pair(text, written);
  };
  auto [text, written] = run();
  if (!text || static_cast<size_t>(written) != Utf8(S).size() || std::memcmp(text, Utf8(S).data(), written) != 0)
    Fail("g_ucs4_to_utf8");
  g_free(text);
  Versus(state, [&] { kz(Utf32(S)); },
         [&] {
           auto r = run();
           benchmark::DoNotOptimize(r.first);
           g_free(r.first);
         });
  Processed(state, S);
}

// kzlib with a fresh array per text (allocation and every growth step
// included, then freed), against GLib, which allocates its result once.
template <Script S>
void BM_GLib_Utf8ToUtf16_FreshKz(benchmark::State &state) {
  auto kz = [] {
    UShortArray a{};
    UCS2Encode(&a, Utf8(S).data(), static_cast<uint32_t>(Utf8(S).size()));
    benchmark::DoNotOptimize(a.elements);
    ArrayFree_(&a);
  };
  auto glib = [] {
    gunichar2 *units = g_utf8_to_utf16(Utf8(S).data(), static_cast<glong>(Utf8(S).size()), nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(units);
    g_free(units);
  };
  Versus(state, kz, glib);
  Processed(state, S);
}

template <Script S>
void BM_GLib_Utf16ToUtf8_FreshKz(benchmark::State &state) {
  auto kz = [] {
    UByteArray a{};
    UCS2Decode(&a, Utf16(S).data(), static_cast<uint32_t>(Utf16(S).size()));
    benchmark::DoNotOptimize(a.elements);
    ArrayFree_(&a);
  };
  auto glib = [] {
    gchar *text = g_utf16_to_utf8(reinterpret_cast<const gunichar2 *>(Utf16(S).data()),
                                  static_cast<glong>(Utf16(S).size()), nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(text);
    g_free(text);
  };
  Versus(state, kz, glib);
  Processed(state, S);
}

#endif

#define KZ_UNICODE_BENCHES(S)                                   \
  BENCHMARK(BM_UCS2Encode<S>);                                  \
  BENCHMARK(BM_Iconv_Utf8ToUtf16<S>)->UseManualTime();          \
  KZ_GLIB_BENCH(BM_GLib_Utf8ToUtf16<S>);                        \
  KZ_GLIB_BENCH(BM_GLib_Utf8ToUtf16_FreshKz<S>);                \
  BENCHMARK(BM_UCS2Decode<S>);                                  \
  BENCHMARK(BM_Iconv_Utf16ToUtf8<S>)->UseManualTime();          \
  KZ_GLIB_BENCH(BM_GLib_Utf16ToUtf8<S>);                        \
  KZ_GLIB_BENCH(BM_GLib_Utf16ToUtf8_FreshKz<S>);                \
  BENCHMARK(BM_UCS4Encode<S>);                                  \
  BENCHMARK(BM_Iconv_Utf8ToUtf32<S>)->UseManualTime();          \
  KZ_GLIB_BENCH(BM_GLib_Utf8ToUcs4<S>);                         \
  BENCHMARK(BM_UCS4Decode<S>);                                  \
  BENCHMARK(BM_Iconv_Utf32ToUtf8<S>)->UseManualTime();          \
  KZ_GLIB_BENCH(BM_GLib_Ucs4ToUtf8<S>)

#ifdef KZ_BENCH_HAVE_GLIB
#define KZ_GLIB_BENCH(name) BENCHMARK(name)->UseManualTime()
#else
#define KZ_GLIB_BENCH(name) static_assert(true)
#endif

KZ_UNICODE_BENCHES(kAscii);
KZ_UNICODE_BENCHES(kLatin1);
KZ_UNICODE_BENCHES(kCjk);
BENCHMARK(BM_ISO88591Encode);
BENCHMARK(BM_Iconv_Utf8ToLatin1)->UseManualTime();
BENCHMARK(BM_ISO88591Decode);
BENCHMARK(BM_Iconv_Latin1ToUtf8)->UseManualTime();

}  // namespace
