// Compression streams on any input.
//
// Input: the first byte holds the options, the rest is the data.
//   bits 0-1  the library's level
//   bit 2     a preset dictionary is set
//   bit 3     the data follows a zlib header (so that the inflater gets past
//             the header check and into the compressed data)
//   bit 4     the object is made for deflating (else for inflating)
//   bit 5     the output array starts with a prefix
// Checked:
//   CompressInflate of the data returns 0, -1 or -4, appends exactly what zlib's
//     own inflate produces before it stops and keeps the prefix; the result
//     is zlib's (stream end 0, input ended -1, data error or a dictionary
//     request without a dictionary -4);
//   CompressDeflate of the data returns 1 and CompressInflate of that stream,
//     on the same object, gives the data back with result 0;
//   nothing leaks (the sanitizer's leak check).
// A stream that asks for a dictionary other than the one set is a fatal error
// by design, so with a dictionary set, a header that asks for one is made to
// ask for the one that is set.

#include "kz/compress.h"

#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

constexpr char kDictionary[] = "GET /index.html HTTP/1.1\r\nHost: example.org\r\nAccept: text/html\r\n\r\n";
constexpr uint32_t kDictionaryLength = sizeof kDictionary - 1;

using kzfuzz::Require;

// zlib's inflate over the whole stream: the library's result code and output.
int32_t Reference(const std::string &stream, bool dictionary, std::string &out) {
  z_stream z{};
  Require(inflateInit(&z) == Z_OK, "inflateInit");
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(stream.data()));
  z.avail_in = static_cast<uInt>(stream.size());
  std::vector<unsigned char> buffer(1 << 15);
  int32_t code;
  for (;;) {
    z.next_out = buffer.data();
    z.avail_out = static_cast<uInt>(buffer.size());
    int result = inflate(&z, Z_SYNC_FLUSH);
    out.append(reinterpret_cast<char *>(buffer.data()), buffer.size() - z.avail_out);
    if (result == Z_NEED_DICT && dictionary) {
      result = inflateSetDictionary(&z, reinterpret_cast<const Bytef *>(kDictionary), kDictionaryLength);
      Require(result == Z_OK, "the dictionary asked for is the one set");
      continue;
    }
    if (result == Z_OK) continue;
    code = result == Z_STREAM_END ? 0 : result == Z_BUF_ERROR ? -1 : -4;
    Require(result == Z_STREAM_END || result == Z_BUF_ERROR || result == Z_DATA_ERROR || result == Z_NEED_DICT,
            "zlib result");
    break;
  }
  inflateEnd(&z);
  return code;
}

// Output arrays are empty or hold this prefix with no spare room.
constexpr char kPrefix[] = "pre";
constexpr uint32_t kPrefixRoom = 3;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kzfuzz::OptionsInput in(data, size);
  if (in.empty) return 0;
  const uint32_t level = in.options & 3;
  const bool dictionary = in.Bit(2);
  const bool header = in.Bit(3);
  const int32_t compressFirst = in.Bit(4) ? 1 : 0;
  const bool prefixed = in.Bit(5);
  const std::string &x = in.data;

  KZCompress *c = CompressNew(level, compressFirst);
  if (dictionary) CompressSetDictionary(c, kDictionary, kDictionaryLength);

  // Inflating arbitrary bytes.
  std::string stream = header ? (dictionary ? std::string("\x78\xBB\0\0\0\0", 6) : std::string("\x78\x9C")) + x : x;
  if (dictionary && stream.size() >= 6) {
    const auto cmf = static_cast<unsigned char>(stream[0]), flg = static_cast<unsigned char>(stream[1]);
    if ((cmf * 256u + flg) % 31 == 0 && (cmf & 0x0F) == 8 && (flg & 0x20)) {
      const uLong id = adler32(1, reinterpret_cast<const Bytef *>(kDictionary), kDictionaryLength);
      for (int i = 0; i < 4; ++i) stream[2 + i] = static_cast<char>(id >> (24 - 8 * i));
    }
  }
  std::string expected;
  const int32_t expectedResult = Reference(stream, dictionary, expected);
  {
    kzfuzz::PrefixedArray out(prefixed, kPrefix, kPrefixRoom);
    const int32_t result = CompressInflate(c, stream.data(), static_cast<uint32_t>(stream.size()), &out.array);
    Require(result == 0 || result == -1 || result == -4, "inflate result is 0, -1 or -4");
    Require(result == expectedResult, "inflate result is zlib's");
    Require(out.Appended() == expected, "inflate output is zlib's");
  }

  // Round trip of the data.
  {
    kzfuzz::PrefixedArray packed(prefixed, kPrefix, kPrefixRoom), back(prefixed, kPrefix, kPrefixRoom);
    Require(CompressDeflate(c, x.data(), static_cast<uint32_t>(x.size()), &packed.array) == 1, "deflate returns 1");
    const std::string stream2 = packed.Appended();
    Require(CompressInflate(c, stream2.data(), static_cast<uint32_t>(stream2.size()), &back.array) == 0,
            "inflating a deflated stream returns 0");
    Require(back.Appended() == x, "round trip");
  }
  CompressDelete(c);
  return 0;
}
