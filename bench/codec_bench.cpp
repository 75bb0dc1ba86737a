// Base64 and quoted-printable against GLib and OpenSSL.
//
//   Base64Encode  vs GLib g_base64_encode (allocates its result), GLib
//                   g_base64_encode_step/close into a reused buffer, OpenSSL
//                   EVP_EncodeBlock into a reused buffer
//   Base64Decode  vs GLib g_base64_decode, g_base64_decode_step, OpenSSL
//                   EVP_DecodeBlock; on one unbroken text and (GLib only: the
//                   OpenSSL block decoder refuses line breaks) on 76-character
//                   lines ended by CR LF
//   QPEncode / QPDecode  throughput alone
//   BM_Simdutf*        simdutf binary_to_base64 / base64_to_binary on 1 MiB
//                      (one line) into a reused buffer, when CMake finds a copy
//                      through KZ_SIMDUTF_DIR; time_vs_kz is then kzlib's
//                      throughput as a fraction of simdutf's
//   BM_Base64*Scalar   kzlib's scalar code alone (what processors without the
//                      vector kernels run), throughput only
//
// 64 KiB of random bytes (their encoding for the decoders). kzlib appends to
// an array whose count is reset before each call, so its storage is reused
// like the other side's buffer. Each comparison runs the other implementation
// and kzlib in alternation, one call each per iteration (kzbench::Versus in
// bench_support.h), and reports the other's time (manual time, thread CPU
// clock) plus the counter "time_vs_kz": the other's total time divided by
// kzlib's (above 1: kzlib is faster).

#include "kz/codec.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
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
#ifdef KZ_BENCH_HAVE_SIMDUTF
#include <simdutf.h>
#endif

#include "bench_support.h"
#include "internal/codec_kernels.h"

namespace {

using kzbench::Expect;
using kzbench::Versus;

constexpr size_t kSize = 64 * 1024;
constexpr size_t kLargeSize = 1024 * 1024;  // the simdutf rows

struct Inputs {
  std::string bytes;   // random
  std::string text;    // its Base64, one line
  std::string lines;   // its Base64 in 76-character lines with CR LF
  std::string qpText;  // mostly-ASCII text for quoted-printable
  std::string qp;      // its quoted-printable encoding with line breaks
};

std::string Encoded(const std::string &bytes, int32_t breakLines, bool qp = false) {
  UByteArray a{};
  if (qp)
    QPEncode(&a, bytes.data(), static_cast<uint32_t>(bytes.size()), breakLines);
  else
    Base64Encode(&a, bytes.data(), static_cast<uint32_t>(bytes.size()), breakLines);
  std::string s(reinterpret_cast<const char *>(a.elements), a.count);
  std::free(a.elements);
  return s;
}

Inputs MakeInputs(size_t size) {
  Inputs in;
  std::mt19937_64 rng(64);
  in.bytes = kzbench::RandomValues<std::string>(size, rng);
  in.text = Encoded(in.bytes, 0);
  in.lines = Encoded(in.bytes, 1);
  const char *const words[] = {
      "Gr\xC3\xBC\xC3\x9F"
      "e ",
      "plain ",
      "text ",
      "a=b ",
      "line\r\n",
      "caf\xC3\xA9 "};
  in.qpText = kzbench::WordText(size, words, rng);
  in.qp = Encoded(in.qpText, 1, true);
  return in;
}

const Inputs &Data() {
  static const Inputs inputs = MakeInputs(kSize);
  return inputs;
}

// kzlib into a reused array.
struct Kz {
  UByteArray a{};
  ~Kz() { std::free(a.elements); }
  void Encode(const std::string &bytes) {
    a.count = 0;
    Base64Encode(&a, bytes.data(), static_cast<uint32_t>(bytes.size()), 0);
    benchmark::DoNotOptimize(a.elements);
  }
  void Decode(const std::string &text) {
    a.count = 0;
    Base64Decode(&a, text.data(), static_cast<uint32_t>(text.size()));
    benchmark::DoNotOptimize(a.elements);
  }
  std::string str() const { return std::string(reinterpret_cast<const char *>(a.elements), a.count); }
};

// ---- encoding ------------------------------------------------------------------

void BM_Base64Encode(benchmark::State &state) {
  const Inputs &in = Data();
  Kz kz;
  for (auto _ : state) kz.Encode(in.bytes);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}

// OpenSSL's block coder (EVP_EncodeBlock or EVP_DecodeBlock: one signature)
// into a reused buffer, against kzlib's Encode or Decode of the same input.
using BlockCoder = int (*)(unsigned char *, const unsigned char *, int);

template <BlockCoder Block, void (Kz::*KzCode)(const std::string &)>
void OpenSSLBlock(benchmark::State &state, const std::string &input, const std::string &expected, const char *what) {
  Kz kz;
  // Room for the encoder's closing NUL and for the decoder, which writes three
  // bytes for every group of four characters, padding included.
  std::vector<unsigned char> buffer(std::max(expected.size() + 1, input.size()));
  auto openssl = [&] {
    const int n =
        Block(buffer.data(), reinterpret_cast<const unsigned char *>(input.data()), static_cast<int>(input.size()));
    benchmark::DoNotOptimize(n);
  };
  openssl(), (kz.*KzCode)(input);
  Expect(std::memcmp(buffer.data(), expected.data(), expected.size()) == 0 && kz.str() == expected, what);
  Versus(
      state, [&] { (kz.*KzCode)(input); }, openssl);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(input.size()));
}

void BM_OpenSSLEncodeBlock(benchmark::State &state) {
  OpenSSLBlock<EVP_EncodeBlock, &Kz::Encode>(state, Data().bytes, Data().text, "encode");
}

#ifdef KZ_BENCH_HAVE_GLIB
void BM_GLibEncode(benchmark::State &state) {
  const Inputs &in = Data();
  Kz kz;
  auto glib = [&] {
    gchar *text = g_base64_encode(reinterpret_cast<const guchar *>(in.bytes.data()), in.bytes.size());
    benchmark::DoNotOptimize(text);
    g_free(text);
  };
  gchar *check = g_base64_encode(reinterpret_cast<const guchar *>(in.bytes.data()), in.bytes.size());
  Expect(in.text == check, "glib encode");
  g_free(check);
  Versus(
      state, [&] { kz.Encode(in.bytes); }, glib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}

void BM_GLibEncodeStep(benchmark::State &state) {
  const Inputs &in = Data();
  Kz kz;
  std::vector<gchar> buffer(in.text.size() + 16);
  auto glib = [&] {
    gint stateWord = 0, save = 0;
    gsize n = g_base64_encode_step(reinterpret_cast<const guchar *>(in.bytes.data()), in.bytes.size(), FALSE,
                                   buffer.data(), &stateWord, &save);
    n += g_base64_encode_close(FALSE, buffer.data() + n, &stateWord, &save);
    benchmark::DoNotOptimize(n);
  };
  glib();
  Expect(std::memcmp(buffer.data(), in.text.data(), in.text.size()) == 0, "glib encode step");
  Versus(
      state, [&] { kz.Encode(in.bytes); }, glib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}
#endif

// ---- decoding ------------------------------------------------------------------

void BM_Base64Decode(benchmark::State &state) {
  const Inputs &in = Data();
  const std::string &text = state.range(0) ? in.lines : in.text;
  Kz kz;
  for (auto _ : state) kz.Decode(text);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_OpenSSLDecodeBlock(benchmark::State &state) {
  OpenSSLBlock<EVP_DecodeBlock, &Kz::Decode>(state, Data().text, Data().bytes, "decode");
}

#ifdef KZ_BENCH_HAVE_GLIB
void BM_GLibDecode(benchmark::State &state) {
  const Inputs &in = Data();
  const std::string &text = state.range(0) ? in.lines : in.text;
  Kz kz;
  auto glib = [&] {
    gsize n = 0;
    guchar *bytes = g_base64_decode(text.c_str(), &n);
    benchmark::DoNotOptimize(bytes);
    g_free(bytes);
  };
  gsize n = 0;
  guchar *check = g_base64_decode(text.c_str(), &n);
  kz.Decode(text);
  Expect(n == in.bytes.size() && std::memcmp(check, in.bytes.data(), n) == 0 && kz.str() == in.bytes, "glib decode");
  g_free(check);
  Versus(
      state, [&] { kz.Decode(text); }, glib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_GLibDecodeStep(benchmark::State &state) {
  const Inputs &in = Data();
  const std::string &text = state.range(0) ? in.lines : in.text;
  Kz kz;
  std::vector<guchar> buffer(text.size());
  gsize n = 0;
  auto glib = [&] {
    gint stateWord = 0;
    guint save = 0;
    n = g_base64_decode_step(text.data(), text.size(), buffer.data(), &stateWord, &save);
    benchmark::DoNotOptimize(n);
  };
  glib();
  Expect(n == in.bytes.size() && std::memcmp(buffer.data(), in.bytes.data(), n) == 0, "glib decode step");
  Versus(
      state, [&] { kz.Decode(text); }, glib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
#endif

BENCHMARK(BM_Base64Encode);
BENCHMARK(BM_OpenSSLEncodeBlock)->UseManualTime();
#ifdef KZ_BENCH_HAVE_GLIB
BENCHMARK(BM_GLibEncode)->UseManualTime();
BENCHMARK(BM_GLibEncodeStep)->UseManualTime();
#endif
BENCHMARK(BM_Base64Decode)->ArgName("lines")->Arg(0)->Arg(1);
BENCHMARK(BM_OpenSSLDecodeBlock)->UseManualTime();
#ifdef KZ_BENCH_HAVE_GLIB
BENCHMARK(BM_GLibDecode)->ArgName("lines")->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(BM_GLibDecodeStep)->ArgName("lines")->Arg(0)->Arg(1)->UseManualTime();
#endif

// ---- simdutf (1 MiB, one line) -------------------------------------------------------

#ifdef KZ_BENCH_HAVE_SIMDUTF
const Inputs &LargeData() {
  static const Inputs inputs = MakeInputs(kLargeSize);
  return inputs;
}

void BM_SimdutfEncode(benchmark::State &state) {
  const Inputs &in = LargeData();
  Kz kz;
  std::vector<char> buffer(in.text.size() + 64);
  auto simd = [&] {
    const size_t n = simdutf::binary_to_base64(in.bytes.data(), in.bytes.size(), buffer.data());
    benchmark::DoNotOptimize(n);
  };
  kz.Encode(in.bytes);
  Expect(simdutf::binary_to_base64(in.bytes.data(), in.bytes.size(), buffer.data()) == in.text.size() &&
             std::memcmp(buffer.data(), in.text.data(), in.text.size()) == 0 && kz.str() == in.text,
         "simdutf encode");
  Versus(
      state, [&] { kz.Encode(in.bytes); }, simd);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(in.bytes.size()));
}

void BM_SimdutfDecode(benchmark::State &state) {
  const Inputs &in = LargeData();
  Kz kz;
  std::vector<char> buffer(in.bytes.size() + 64);
  auto simd = [&] {
    const simdutf::result r = simdutf::base64_to_binary(in.text.data(), in.text.size(), buffer.data());
    benchmark::DoNotOptimize(r);
  };
  kz.Decode(in.text);
  const simdutf::result r = simdutf::base64_to_binary(in.text.data(), in.text.size(), buffer.data());
  Expect(r.error == simdutf::SUCCESS && r.count == in.bytes.size() &&
             std::memcmp(buffer.data(), in.bytes.data(), in.bytes.size()) == 0 && kz.str() == in.bytes,
         "simdutf decode");
  Versus(
      state, [&] { kz.Decode(in.text); }, simd);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(in.text.size()));
}

BENCHMARK(BM_SimdutfEncode)->UseManualTime();
BENCHMARK(BM_SimdutfDecode)->UseManualTime();
#endif

// ---- the scalar code ---------------------------------------------------------------

void BM_Base64EncodeScalar(benchmark::State &state) {
  const Inputs &in = Data();
  Kz kz;
  kz::CodecUseVectorKernels(false);
  for (auto _ : state) kz.Encode(in.bytes);
  kz::CodecUseVectorKernels(true);
  Expect(kz.str() == in.text, "scalar encode");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}

void BM_Base64DecodeScalar(benchmark::State &state) {
  const Inputs &in = Data();
  const std::string &text = state.range(0) ? in.lines : in.text;
  Kz kz;
  kz::CodecUseVectorKernels(false);
  for (auto _ : state) kz.Decode(text);
  kz::CodecUseVectorKernels(true);
  Expect(kz.str() == in.bytes, "scalar decode");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

BENCHMARK(BM_Base64EncodeScalar);
BENCHMARK(BM_Base64DecodeScalar)->ArgName("lines")->Arg(0)->Arg(1);

// ---- quoted-printable ------------------------------------------------------------

void BM_QPEncode(benchmark::State &state) {
  const Inputs &in = Data();
  UByteArray a{};
  for (auto _ : state) {
    a.count = 0;
    QPEncode(&a, in.qpText.data(), static_cast<uint32_t>(in.qpText.size()), 1);
    benchmark::DoNotOptimize(a.elements);
  }
  std::free(a.elements);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(in.qpText.size()));
}

void BM_QPDecode(benchmark::State &state) {
  const Inputs &in = Data();
  UByteArray a{};
  for (auto _ : state) {
    a.count = 0;
    QPDecode(&a, in.qp.data(), static_cast<uint32_t>(in.qp.size()));
    benchmark::DoNotOptimize(a.elements);
  }
  Expect(std::string(reinterpret_cast<const char *>(a.elements), a.count) == in.qpText + "\r\n", "qp round trip");
  std::free(a.elements);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(in.qp.size()));
}

BENCHMARK(BM_QPEncode);
BENCHMARK(BM_QPDecode);

}  // namespace
