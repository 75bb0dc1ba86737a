// The fingerprint kernel on any input: the table method, the carry-less
// multiplication method and the run-time choice agree with each other and,
// on inputs up to 4 KiB, with a one-bit-at-a-time reference; continuing over
// the two halves of a split input equals one pass over the whole.
//
// Input: 8 bytes of start value, 1 byte whose low four bits place the data at
// that offset from a 16-byte boundary, 2 bytes of split position, then the data.

#include "internal/fingerprint.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"

namespace {

namespace fp = kz::fingerprint;

using kzfuzz::Require;

uint64_t Reference(uint64_t value, const unsigned char *p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    for (int j = 0; j < 8; ++j) {
      value = (value >> 1) ^ ((value & 1) ? fp::kPolynomial >> 1 : 0);
      if ((p[i] >> j) & 1) value ^= uint64_t{1} << 63;
    }
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = (fp::InitTables(), true);
  static const bool clmul = fp::HaveClmul();
  (void)ready;
  (void)clmul;

  unsigned char header[11] = {};
  const size_t headerSize = size < sizeof header ? size : sizeof header;
  std::memcpy(header, data, headerSize);
  uint64_t start;
  std::memcpy(&start, header, 8);
  const size_t offset = header[8] & 15;
  const size_t n = size - headerSize;
  const size_t split = n ? (size_t{header[9]} | size_t{header[10]} << 8) % (n + 1) : 0;

  // Copied so that the offset from an aligned address is the one asked for.
  std::vector<unsigned char> buffer(n + 32);
  unsigned char *base = buffer.data();
  while (reinterpret_cast<uintptr_t>(base) & 15) ++base;
  unsigned char *p = base + offset;
  if (n) std::memcpy(p, data + headerSize, n);

  const uint64_t tables = fp::ExtendTables(start, p, n);
#if defined(KZ_FINGERPRINT_HAVE_CLMUL)
  if (clmul) Require(fp::ExtendClmul(start, p, n) == tables, "carry-less multiplication equals tables");
#endif
  Require(fp::Extend(start, p, n) == tables, "run-time choice equals tables");
  if (n <= 4096) Require(Reference(start, p, n) == tables, "tables equal the bit-by-bit reference");
  Require(fp::Extend(fp::Extend(start, p, split), p + split, n - split) == tables, "split equals whole");
  if (split < n)
    Require(fp::FoldEnd(fp::Extend(fp::FoldEnd(fp::Extend(fp::kSeed, p, split)), p + split, n - split)) ==
                fp::FoldEnd(fp::Extend(fp::kSeed, p, n)),
            "folded split equals folded whole");
  return 0;
}
