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
// Each comparison runs the other implementation and kzlib in alternation, one
// text each per iteration (kzbench::Versus in bench_support.h), timed on the
// thread's CPU clock; it reports the other's time and "time_vs_kz", the
// other's total time divided by kzlib's (above 1: kzlib is faster). Throughput
// is in UTF-8 bytes.
//
// The BM_Simdutf_* rows (built when CMake finds a copy of simdutf through
// KZ_SIMDUTF_DIR) run simdutf's validating converters on 1 MiB versions of the
// texts into a buffer allocated once; their time_vs_kz is kzlib's throughput
// as a fraction of simdutf's.

#include "kz/unicode.h"

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef KZ_BENCH_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KZ_BENCH_HAVE_SIMDUTF
#include <simdutf.h>
#endif

#include "bench_support.h"
#include "kz/array.h"

namespace {

using kzbench::Expect;
using kzbench::Fail;
using kzbench::Versus;

// ---- texts ----------------------------------------------------------------------

enum Script { kAscii, kLatin1, kCjk };
// 64 KiB texts for most rows; 1 MiB for the simdutf rows.
enum Size { kSmall, kLarge };
constexpr size_t kTextBytes[] = {64 * 1024, 1024 * 1024};

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

std::string MakeText(Script script, Size size) {
  std::mt19937 rng(42 + script);
  static const char *const kWords[] = {
      "the", "of",   "and",   "to",   "in",  "a",  "is",  "that", "for", "it",    "as",   "was",  "with", "be",  "by",
      "on",  "not",  "he",    "this", "are", "or", "his", "from", "at",  "which", "but",  "have", "an",   "had", "they",
      "you", "were", "their", "one",  "all", "we", "can", "her",  "has", "there", "been", "if",   "more"};
  std::string s;
  while (s.size() < kTextBytes[size]) {
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

const std::string &Utf8(Script script, Size size = kSmall) {
  static const std::string texts[] = {MakeText(kAscii, kSmall), MakeText(kLatin1, kSmall), MakeText(kCjk, kSmall)};
  if (size == kLarge) {
    static const std::string large[] = {MakeText(kAscii, kLarge), MakeText(kLatin1, kLarge), MakeText(kCjk, kLarge)};
    return large[script];
  }
  return texts[script];
}

template <typename Unit>
std::vector<Unit> Wide(Script script, Size size) {
  std::vector<Unit> v;
  const std::string &s = Utf8(script, size);
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

template <typename Unit>
const std::vector<Unit> &WideText(Script script, Size size) {
  static const std::vector<Unit> texts[2][3] = {
      {Wide<Unit>(kAscii, kSmall), Wide<Unit>(kLatin1, kSmall), Wide<Unit>(kCjk, kSmall)},
      {Wide<Unit>(kAscii, kLarge), Wide<Unit>(kLatin1, kLarge), Wide<Unit>(kCjk, kLarge)}};
  return texts[size][script];
}

const std::vector<uint16_t> &Utf16(Script script, Size size = kSmall) { return WideText<uint16_t>(script, size); }
const std::vector<uint32_t> &Utf32(Script script, Size size = kSmall) { return WideText<uint32_t>(script, size); }

std::string Narrow(Script script, Size size) {
  std::string s;
  for (uint32_t c : Utf32(script, size)) s += static_cast<char>(c);
  return s;
}

// The text in ISO-8859-1 (the ASCII and Latin-1 texts only).
const std::string &Latin1(Script script, Size size = kSmall) {
  if (script == kCjk) Fail("the CJK text has no ISO-8859-1 form");
  static const std::string texts[2][2] = {{Narrow(kAscii, kSmall), Narrow(kLatin1, kSmall)},
                                          {Narrow(kAscii, kLarge), Narrow(kLatin1, kLarge)}};
  return texts[size][script];
}

template <typename Units>
size_t Bytes(const Units &units) {
  return units.size() * sizeof(typename Units::value_type);
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

// ---- the conversions -------------------------------------------------------------------------

// Each names kzlib's converter, the array it appends to, its input and
// expected output for a script, iconv's names for the same conversion and,
// where GLib has one, GLib's converter (which allocates its result).
struct Utf8ToUtf16 {
  using Record = UShortArray;
  static constexpr auto Convert = UCS2Encode;
  static const std::string &In(Script s, Size z = kSmall) { return Utf8(s, z); }
  static const std::vector<uint16_t> &Out(Script s, Size z = kSmall) { return Utf16(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_utf8_to_utf16le(in.data(), in.size(), reinterpret_cast<char16_t *>(out));
  }
#endif
  static constexpr const char *kTo = "UTF-16LE", *kFrom = "UTF-8";
#ifdef KZ_BENCH_HAVE_GLIB
  static gunichar2 *GLib(const std::string &in, glong *written) {
    return g_utf8_to_utf16(in.data(), static_cast<glong>(in.size()), nullptr, written, nullptr);
  }
#endif
};

struct Utf16ToUtf8 {
  using Record = UByteArray;
  static constexpr auto Convert = UCS2Decode;
  static const std::vector<uint16_t> &In(Script s, Size z = kSmall) { return Utf16(s, z); }
  static const std::string &Out(Script s, Size z = kSmall) { return Utf8(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_utf16le_to_utf8(reinterpret_cast<const char16_t *>(in.data()), in.size(), out);
  }
#endif
  static constexpr const char *kTo = "UTF-8", *kFrom = "UTF-16LE";
#ifdef KZ_BENCH_HAVE_GLIB
  static gchar *GLib(const std::vector<uint16_t> &in, glong *written) {
    return g_utf16_to_utf8(reinterpret_cast<const gunichar2 *>(in.data()), static_cast<glong>(in.size()), nullptr,
                           written, nullptr);
  }
#endif
};

struct Utf8ToUtf32 {
  using Record = UIntArray;
  static constexpr auto Convert = UCS4Encode;
  static const std::string &In(Script s, Size z = kSmall) { return Utf8(s, z); }
  static const std::vector<uint32_t> &Out(Script s, Size z = kSmall) { return Utf32(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_utf8_to_utf32(in.data(), in.size(), reinterpret_cast<char32_t *>(out));
  }
#endif
  static constexpr const char *kTo = "UTF-32LE", *kFrom = "UTF-8";
#ifdef KZ_BENCH_HAVE_GLIB
  static gunichar *GLib(const std::string &in, glong *written) {
    return g_utf8_to_ucs4(in.data(), static_cast<glong>(in.size()), nullptr, written, nullptr);
  }
#endif
};

struct Utf32ToUtf8 {
  using Record = UByteArray;
  static constexpr auto Convert = UCS4Decode;
  static const std::vector<uint32_t> &In(Script s, Size z = kSmall) { return Utf32(s, z); }
  static const std::string &Out(Script s, Size z = kSmall) { return Utf8(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_utf32_to_utf8(reinterpret_cast<const char32_t *>(in.data()), in.size(), out);
  }
#endif
  static constexpr const char *kTo = "UTF-8", *kFrom = "UTF-32LE";
#ifdef KZ_BENCH_HAVE_GLIB
  static gchar *GLib(const std::vector<uint32_t> &in, glong *written) {
    return g_ucs4_to_utf8(reinterpret_cast<const gunichar *>(in.data()), static_cast<glong>(in.size()), nullptr,
                          written, nullptr);
  }
#endif
};

struct Utf8ToLatin1 {
  using Record = UByteArray;
  static constexpr auto Convert = ISO88591Encode;
  static const std::string &In(Script s, Size z = kSmall) { return Utf8(s, z); }
  static const std::string &Out(Script s, Size z = kSmall) { return Latin1(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_utf8_to_latin1(in.data(), in.size(), out);
  }
#endif
  static constexpr const char *kTo = "ISO-8859-1", *kFrom = "UTF-8";
};

struct Latin1ToUtf8 {
  using Record = UByteArray;
  static constexpr auto Convert = ISO88591Decode;
  static const std::string &In(Script s, Size z = kSmall) { return Latin1(s, z); }
  static const std::string &Out(Script s, Size z = kSmall) { return Utf8(s, z); }
#ifdef KZ_BENCH_HAVE_SIMDUTF
  template <typename In, typename Out>
  static size_t Simdutf(const In &in, Out *out) {
    return simdutf::convert_latin1_to_utf8(in.data(), in.size(), out);
  }
#endif
  static constexpr const char *kTo = "UTF-8", *kFrom = "ISO-8859-1";
};

// kzlib converting one text into an array reused between texts.
template <typename C>
struct Kz {
  typename C::Record array{};
  ~Kz() { ArrayFree_(&array); }
  template <typename Input>
  void operator()(const Input &in) {
    array.count = 0;
    C::Convert(&array, in.data(), static_cast<uint32_t>(in.size()));
    benchmark::DoNotOptimize(array.elements);
  }
  template <typename Output>
  bool Holds(const Output &expected) const {
    return array.count == expected.size() && std::memcmp(array.elements, expected.data(), Bytes(expected)) == 0;
  }
};

void Processed(benchmark::State &state, Script script) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(Utf8(script).size()));
}

std::string Named(const char *what, const char *to, const char *from) {
  return std::string(what) + " " + from + " -> " + to;
}

// ---- kzlib alone, and against iconv -----------------------------------------------------------------

template <typename C, Script S>
void BM_Kz(benchmark::State &state) {
  Kz<C> kz;
  kz(C::In(S));
  Expect(kz.Holds(C::Out(S)), Named("kzlib", C::kTo, C::kFrom).c_str());
  for (auto _ : state) kz(C::In(S));
  Processed(state, S);
}

template <typename C, Script S>
void BM_Iconv(benchmark::State &state) {
  const auto &in = C::In(S);
  const auto &out = C::Out(S);
  Kz<C> kz;
  kz(in);
  Iconv ic(C::kTo, C::kFrom, Bytes(out) + 64);
  Expect(kz.Holds(out) && ic.Run(in.data(), Bytes(in)) == Bytes(out) &&
             std::memcmp(ic.data(), out.data(), Bytes(out)) == 0,
         Named("iconv", C::kTo, C::kFrom).c_str());
  Versus(
      state, [&] { kz(in); }, [&] { ic.Run(in.data(), Bytes(in)); });
  Processed(state, S);
}

// ---- simdutf (1 MiB texts, a buffer allocated once) ---------------------------------------------------

#ifdef KZ_BENCH_HAVE_SIMDUTF
template <typename C, Script S>
void BM_Simdutf(benchmark::State &state) {
  const auto &in = C::In(S, kLarge);
  const auto &out = C::Out(S, kLarge);
  Kz<C> kz;
  kz(in);
  std::vector<typename std::decay_t<decltype(out)>::value_type> buffer(out.size() + 64);
  Expect(kz.Holds(out) && C::Simdutf(in, buffer.data()) == out.size() &&
             std::memcmp(buffer.data(), out.data(), Bytes(out)) == 0,
         Named("simdutf", C::kTo, C::kFrom).c_str());
  Versus(
      state, [&] { kz(in); },
      [&] {
        const size_t n = C::Simdutf(in, buffer.data());
        benchmark::DoNotOptimize(n);
      });
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(Utf8(S, kLarge).size()));
}
#define KZ_SIMDUTF_BENCH(C, S, name) BENCHMARK(BM_Simdutf<C, S>)->Name(name)->UseManualTime()
#else
#define KZ_SIMDUTF_BENCH(C, S, name) static_assert(true)
#endif

// ---- GLib (allocates its result on every call) --------------------------------------------------------

#ifdef KZ_BENCH_HAVE_GLIB

template <typename C, Script S>
void BM_GLib(benchmark::State &state) {
  const auto &in = C::In(S);
  const auto &out = C::Out(S);
  Kz<C> kz;
  glong written = 0;
  auto *check = C::GLib(in, &written);
  Expect(check && static_cast<size_t>(written) == out.size() && std::memcmp(check, out.data(), Bytes(out)) == 0,
         Named("GLib", C::kTo, C::kFrom).c_str());
  g_free(check);
  Versus(
      state, [&] { kz(in); },
      [&] {
        glong n = 0;
        auto *result = C::GLib(in, &n);
        benchmark::DoNotOptimize(result);
        g_free(result);
      });
  Processed(state, S);
}

// kzlib with a fresh array per text (allocation and every growth step
// included, then freed), against GLib, which allocates its result once.
template <typename C, Script S>
void BM_GLibFreshKz(benchmark::State &state) {
  const auto &in = C::In(S);
  Versus(
      state,
      [&] {
        typename C::Record a{};
        C::Convert(&a, in.data(), static_cast<uint32_t>(in.size()));
        benchmark::DoNotOptimize(a.elements);
        ArrayFree_(&a);
      },
      [&] {
        auto *result = C::GLib(in, nullptr);
        benchmark::DoNotOptimize(result);
        g_free(result);
      });
  Processed(state, S);
}

#define KZ_GLIB_BENCH(bench, C, S, name) BENCHMARK(bench<C, S>)->Name(name)->UseManualTime()
#else
#define KZ_GLIB_BENCH(bench, C, S, name) static_assert(true)
#endif

// ---- registration (the names the figures in the docs use) -----------------------------------------------

#define KZ_KZ_BENCH(C, S, name)    BENCHMARK(BM_Kz<C, S>)->Name(name)
#define KZ_ICONV_BENCH(C, S, name) BENCHMARK(BM_Iconv<C, S>)->Name(name)->UseManualTime()

#define KZ_UNICODE_BENCHES(S)                                                           \
  KZ_KZ_BENCH(Utf8ToUtf16, S, "BM_UCS2Encode<" #S ">");                                 \
  KZ_ICONV_BENCH(Utf8ToUtf16, S, "BM_Iconv_Utf8ToUtf16<" #S ">");                       \
  KZ_GLIB_BENCH(BM_GLib, Utf8ToUtf16, S, "BM_GLib_Utf8ToUtf16<" #S ">");                \
  KZ_GLIB_BENCH(BM_GLibFreshKz, Utf8ToUtf16, S, "BM_GLib_Utf8ToUtf16_FreshKz<" #S ">"); \
  KZ_KZ_BENCH(Utf16ToUtf8, S, "BM_UCS2Decode<" #S ">");                                 \
  KZ_ICONV_BENCH(Utf16ToUtf8, S, "BM_Iconv_Utf16ToUtf8<" #S ">");                       \
  KZ_GLIB_BENCH(BM_GLib, Utf16ToUtf8, S, "BM_GLib_Utf16ToUtf8<" #S ">");                \
  KZ_GLIB_BENCH(BM_GLibFreshKz, Utf16ToUtf8, S, "BM_GLib_Utf16ToUtf8_FreshKz<" #S ">"); \
  KZ_KZ_BENCH(Utf8ToUtf32, S, "BM_UCS4Encode<" #S ">");                                 \
  KZ_ICONV_BENCH(Utf8ToUtf32, S, "BM_Iconv_Utf8ToUtf32<" #S ">");                       \
  KZ_GLIB_BENCH(BM_GLib, Utf8ToUtf32, S, "BM_GLib_Utf8ToUcs4<" #S ">");                 \
  KZ_KZ_BENCH(Utf32ToUtf8, S, "BM_UCS4Decode<" #S ">");                                 \
  KZ_ICONV_BENCH(Utf32ToUtf8, S, "BM_Iconv_Utf32ToUtf8<" #S ">");                       \
  KZ_GLIB_BENCH(BM_GLib, Utf32ToUtf8, S, "BM_GLib_Ucs4ToUtf8<" #S ">");                 \
  KZ_SIMDUTF_BENCH(Utf8ToUtf16, S, "BM_Simdutf_Utf8ToUtf16<" #S ">");                   \
  KZ_SIMDUTF_BENCH(Utf16ToUtf8, S, "BM_Simdutf_Utf16ToUtf8<" #S ">");                   \
  KZ_SIMDUTF_BENCH(Utf8ToUtf32, S, "BM_Simdutf_Utf8ToUtf32<" #S ">");                   \
  KZ_SIMDUTF_BENCH(Utf32ToUtf8, S, "BM_Simdutf_Utf32ToUtf8<" #S ">")

KZ_UNICODE_BENCHES(kAscii);
KZ_UNICODE_BENCHES(kLatin1);
KZ_UNICODE_BENCHES(kCjk);
KZ_KZ_BENCH(Utf8ToLatin1, kLatin1, "BM_ISO88591Encode");
KZ_ICONV_BENCH(Utf8ToLatin1, kLatin1, "BM_Iconv_Utf8ToLatin1");
KZ_KZ_BENCH(Latin1ToUtf8, kLatin1, "BM_ISO88591Decode");
KZ_ICONV_BENCH(Latin1ToUtf8, kLatin1, "BM_Iconv_Latin1ToUtf8");
KZ_SIMDUTF_BENCH(Utf8ToLatin1, kLatin1, "BM_Simdutf_Utf8ToLatin1");
KZ_SIMDUTF_BENCH(Latin1ToUtf8, kLatin1, "BM_Simdutf_Latin1ToUtf8");

}  // namespace
