// Compression streams against the zlib calls they wrap.
//
//   CompressDeflate  vs deflateReset + deflate(Z_FINISH) into a buffer of
//                      deflateBound bytes
//   CompressInflate  vs inflateReset + inflate(Z_SYNC_FLUSH) into a buffer of
//                      the data's size
//
// Both sides keep one zlib state for the whole run (kzlib: one KZCompress
// object; zlib: one z_stream) and reuse one output buffer (kzlib: an array
// whose count is reset before each call). Inputs: text-like data of 1 KiB and
// 64 KiB, at the library's levels 0 (zlib's default) and 1 (zlib level 1).
// Each comparison runs zlib and kzlib in alternation, one call each per
// iteration (kzbench::Versus in bench_support.h), and reports zlib's time
// (manual time, thread CPU clock) plus the counter "time_vs_kz": zlib's total
// time divided by kzlib's. 1.0 means no overhead; 0.97 would be 3 % overhead.

#include "kz/compress.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

using kzbench::Expect;
using kzbench::Versus;

std::string Text(size_t n) {
  const char *const words[] = {"the ",   "stream ", "of ",         "bytes ",   "compresses ",
                               "well\n", "zlib ",   "0123456789 ", "request ", "header: value\r\n"};
  return kzbench::WordText(n, words, std::mt19937_64(n));
}

const int kZlibLevel[] = {Z_DEFAULT_COMPRESSION, 1, 1, 9};

// state.range(0): input size; state.range(1): the library's level.
void BM_Deflate(benchmark::State &state) {
  const std::string data = Text(static_cast<size_t>(state.range(0)));
  const uint32_t level = static_cast<uint32_t>(state.range(1));
  KZCompress *c = CompressNew(level, 1);
  UByteArray out{};
  z_stream z{};
  deflateInit(&z, kZlibLevel[level]);
  std::vector<unsigned char> buffer(deflateBound(&z, data.size()));
  auto kz = [&] {
    out.count = 0;
    CompressDeflate(c, data.data(), static_cast<uint32_t>(data.size()), &out);
    benchmark::DoNotOptimize(out.elements);
  };
  auto zlib = [&] {
    deflateReset(&z);
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = buffer.data();
    z.avail_out = static_cast<uInt>(buffer.size());
    const int result = deflate(&z, Z_FINISH);
    benchmark::DoNotOptimize(result);
  };
  kz(), zlib();
  Expect(out.count == z.total_out && std::memcmp(out.elements, buffer.data(), out.count) == 0, "deflate");
  Versus(state, kz, zlib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
  deflateEnd(&z);
  CompressDelete(c);
  std::free(out.elements);
}

void BM_Inflate(benchmark::State &state) {
  const std::string data = Text(static_cast<size_t>(state.range(0)));
  const uint32_t level = static_cast<uint32_t>(state.range(1));
  KZCompress *c = CompressNew(level, 1);
  UByteArray packed{}, out{};
  CompressDeflate(c, data.data(), static_cast<uint32_t>(data.size()), &packed);
  z_stream z{};
  inflateInit(&z);
  std::vector<unsigned char> buffer(data.size());
  auto kz = [&] {
    out.count = 0;
    const int32_t result = CompressInflate(c, packed.elements, packed.count, &out);
    benchmark::DoNotOptimize(result);
  };
  auto zlib = [&] {
    inflateReset(&z);
    z.next_in = packed.elements;
    z.avail_in = packed.count;
    z.next_out = buffer.data();
    z.avail_out = static_cast<uInt>(buffer.size());
    const int result = inflate(&z, Z_SYNC_FLUSH);
    benchmark::DoNotOptimize(result);
  };
  kz(), zlib();
  Expect(out.count == data.size() && std::memcmp(out.elements, data.data(), data.size()) == 0 &&
             std::memcmp(buffer.data(), data.data(), data.size()) == 0,
         "inflate");
  Versus(state, kz, zlib);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
  inflateEnd(&z);
  CompressDelete(c);
  std::free(packed.elements);
  std::free(out.elements);
}

BENCHMARK(BM_Deflate)
    ->ArgNames({"bytes", "level"})
    ->Args({1024, 0})
    ->Args({65536, 0})
    ->Args({1024, 1})
    ->Args({65536, 1})
    ->UseManualTime();
BENCHMARK(BM_Inflate)->ArgNames({"bytes", "level"})->Args({1024, 0})->Args({65536, 0})->UseManualTime();

}  // namespace
