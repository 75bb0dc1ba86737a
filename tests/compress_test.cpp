// Compression streams: agreement with zlib and with Python's zlib module in
// both directions, levels, dictionaries, the switch between directions,
// truncated and corrupt input, appending, fatal cases.
#include "kz/compress.h"

#include <zlib.h>

#include <cstring>
#include <memory>
#include <random>

#include "child_process.h"
#include "kz/error.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using Out = kztest::Scoped<UByteArray>;
using Stream = std::unique_ptr<KZCompress, decltype(&CompressDelete)>;

Stream Make(uint32_t level, int32_t compress) { return Stream(CompressNew(level, compress), CompressDelete); }
// One CompressDeflate or CompressInflate call on a string.
int32_t Apply(decltype(&CompressDeflate) call, const Stream &s, const std::string &in, UByteArray *out) {
  return call(s.get(), in.data(), static_cast<uint32_t>(in.size()), out);
}

// Makes an empty array hold exactly `prefix` (capacity = count).
void Hold(UByteArray *a, const std::string &prefix) {
  ArrayGrowExact_(a, static_cast<uint32_t>(prefix.size()), 1, __FILE__, __LINE__);
  if (!prefix.empty()) memcpy(a->elements, prefix.data(), prefix.size());
  a->count = static_cast<uint32_t>(prefix.size());
}

// Text-like data (compresses well) or random bytes (does not).
std::string Data(size_t n, bool text, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::string s;
  const char *words[] = {"the ", "stream ", "of ", "bytes ", "compresses ", "well\n", "zlib ", "0123456789 "};
  while (s.size() < n) s += text ? std::string(words[rng() % 8]) : std::string(1, static_cast<char>(rng()));
  return s.substr(0, n);
}

// zlib's deflate in one call, with a preset dictionary when one is given.
std::string ZlibCompress(const std::string &data, int level, const std::string &dictionary = "") {
  std::string out(compressBound(static_cast<uLong>(data.size())) + 16, '\0');
  z_stream z{};
  EXPECT_EQ(deflateInit(&z, level), Z_OK);
  const auto *preset = reinterpret_cast<const Bytef *>(dictionary.data());
  if (!dictionary.empty()) deflateSetDictionary(&z, preset, static_cast<uInt>(dictionary.size()));
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.data())), z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef *>(out.data()), z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  deflateEnd(&z);  // the counts stay in z
  return out.substr(0, z.total_out);
}

// Whether growing from capacity c by steps of the rule reaches `capacity`.
bool OnGrowthPath(uint64_t c, uint64_t capacity) {
  while (c < capacity && c < 4294967294u) c = ArrayNextSize(c, c + 1, 4294967295u);
  return c == capacity;
}

// One object per level and first direction, switching back and forth with two
// calls in a row each way: its streams are zlib's at the mapped level (for
// empty input too, given as a null pointer), and it inflates them ignoring
// bytes after the end. Output goes after what the arrays held, which grow by
// the rule.
TEST(Compress, DeflateIsZlibAtTheMappedLevelAndInflatesZlib) {
  const int zlibLevel[] = {Z_DEFAULT_COMPRESSION, 1, 1, 9};  // the library's levels 0-3
  for (uint32_t level = 0; level < 4; ++level)
    for (int32_t compressFirst : {0, 1}) {
      Stream s = Make(level, compressFirst);
      for (uint32_t size : {0, 1, 5000, 300000})
        for (bool text : {true, false}) {
          const std::string data = Data(size, text, size + level), expected = ZlibCompress(data, zlibLevel[level]);
          const std::string prefix(text ? size / 60 : compressFirst, 'p');  // none, 1, 83 or 5000 bytes
          Out packed, back;
          Hold(&packed, prefix), Hold(&back, prefix);
          for (int i = 0; i < 2; ++i)
            ASSERT_EQ(CompressDeflate(s.get(), size ? data.data() : nullptr, size, &packed), 1);
          for (const char *after : {"", "garbage"}) ASSERT_EQ(Apply(CompressInflate, s, expected + after, &back), 0);
          ASSERT_EQ(Bytes(packed), prefix + expected + expected) << level << " " << size << " " << text;
          ASSERT_EQ(Bytes(back), prefix + data + data) << level << " " << size << " " << text;
          ASSERT_TRUE(OnGrowthPath(prefix.size(), packed.capacity)) << prefix.size() << " -> " << packed.capacity;
          ASSERT_TRUE(OnGrowthPath(prefix.size(), back.capacity)) << prefix.size() << " -> " << back.capacity;
          std::string unpacked(size + 1, '\0');  // zlib's own one-call inflate reads what we wrote
          uLongf length = static_cast<uLongf>(unpacked.size());
          const auto *ours = reinterpret_cast<const Bytef *>(packed.elements + prefix.size());
          ASSERT_EQ(uncompress(reinterpret_cast<Bytef *>(unpacked.data()), &length, ours, expected.size()), Z_OK);
          ASSERT_EQ(unpacked.substr(0, length), data);
        }
    }
  CompressDelete(nullptr);
}

TEST(Compress, TruncatedAndCorruptInput) {
  Stream s = Make(2, 0);
  const std::string data = Data(30000, true, 8), packed = ZlibCompress(data, 6);
  for (size_t cut = 0; cut <= packed.size(); ++cut) {  // -1 and a prefix of the data; the whole stream: 0
    Out part;  // no input at all (a null pointer) is a stream that has not ended
    const int32_t result = CompressInflate(s.get(), cut ? packed.data() : nullptr, static_cast<uint32_t>(cut), &part);
    ASSERT_EQ(result, cut == packed.size() ? 0 : -1) << cut;
    ASSERT_EQ(Bytes(part), data.substr(0, part.count)) << cut;
    if (cut == packed.size() / 2) {
      EXPECT_GT(part.count, data.size() / 3);  // output comes early
    }
  }
  // Not a zlib header (check bits, method, window size), a reserved block type: -4 with nothing appended;
  // then one byte changed in the data, in the checksum.
  std::string broken[] = {"garbage", "\x78\x9d\x01", "\x7a\x10\x01", "\x88\x1c\x01", "\x78\x9c\x07", packed, packed};
  broken[5][packed.size() / 2] ^= 0x55, broken[6][packed.size() - 1] ^= 0x55;
  Out out;
  for (const std::string &input : broken) {
    EXPECT_EQ(Apply(CompressInflate, s, input, &out), -4) << input.size();
    if (input.size() <= 7) {
      EXPECT_EQ(out.count, 0u) << input.size();
    }
  }
}

TEST(Compress, PresetDictionaries) {
  const std::string dictionary = Data(4000, true, 20), data = dictionary.substr(1000, 2000) + Data(300, true, 21);
  const std::string withDictionary = ZlibCompress(data, 9, dictionary);
  Stream s = Make(3, 1);
  CompressSetDictionary(s.get(), dictionary.data(), static_cast<uint32_t>(dictionary.size()));
  Out ours, back;
  ArrayGrowExact(back, 3 * data.size());  // room enough: filled in place
  unsigned char *const storage = back.elements;
  EXPECT_EQ(Apply(CompressDeflate, s, data, &ours), 1);
  EXPECT_EQ(Bytes(ours), withDictionary);
  // Plain streams still inflate.
  for (const std::string &in : {withDictionary, ZlibCompress(data, 6)})
    ASSERT_EQ(Apply(CompressInflate, s, in, &back), 0);
  CompressSetDictionary(s.get(), nullptr, 0);  // removed: -4 with nothing appended, and plain streams from the deflater
  EXPECT_EQ(Apply(CompressInflate, s, withDictionary, &back), -4);
  EXPECT_EQ(Bytes(back), data + data);
  EXPECT_EQ(back.elements, storage);
  EXPECT_EQ(back.capacity, 3 * data.size());
  EXPECT_EQ(Apply(CompressDeflate, s, data, &ours), 1);
  EXPECT_EQ(Bytes(ours), withDictionary + ZlibCompress(data, 9));
}

// Data made with another dictionary than the one set is corrupt input: -4 with
// the error recorded, what the array held kept, and the object goes on.
TEST(Compress, WrongDictionaryIsCorruptInputNotFatal) {
  const std::string data = Data(3000, true, 30);
  Stream s = Make(0, 0);
  CompressSetDictionary(s.get(), "second dictionary", 17);
  Out out;
  Hold(&out, "kept");
  KZErrorClear();
  EXPECT_EQ(Apply(CompressInflate, s, ZlibCompress(data, 6, "first dictionary"), &out), -4);
  uint32_t line = 0;
  const std::string where = KZErrorLocation(&line);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_PROTOCOL);
  EXPECT_STREQ(KZErrorMessage(), "zlib error -3 : incorrect dictionary");
  EXPECT_EQ(where + ":" + std::to_string(line), "kzlib/compress:177");
  EXPECT_EQ(Bytes(out), "kept");
  // The same object then inflates good streams, with its dictionary and without one.
  EXPECT_EQ(Apply(CompressInflate, s, ZlibCompress(data, 6, "second dictionary"), &out), 0);
  EXPECT_EQ(Apply(CompressInflate, s, ZlibCompress(data, 6), &out), 0);
  EXPECT_EQ(Bytes(out), "kept" + data + data);
}

// Python inflates our streams and deflates what it got; we inflate that.
TEST(Compress, InteroperatesWithPython) {
  const char *script =
      "import sys, zlib; data = zlib.decompress(open(sys.argv[1], 'rb').read()); "
      "sys.stdout.buffer.write(zlib.compress(data, int(sys.argv[2])))";
  const std::string inputs[] = {"", Data(1, false, 41), Data(70000, true, 42), Data(70000, false, 43)};
  kztest::TempDir dir;
  for (uint32_t i = 0; i < std::size(inputs); ++i) {  // our level i, Python's zlib level 0, 1, 6 or 9
    Out packed, back;
    ASSERT_EQ(Apply(CompressDeflate, Make(i, 1), inputs[i], &packed), 1);
    std::ofstream(dir / "ours", std::ios::binary) << Bytes(packed);
    const kztest::Child python = kztest::RunChild(dir, {}, [&] {
      return kztest::Exec({"python3", "-c", script, dir / "ours", std::string(1, "0169"[i])});
    });
    if (python.Exited(127)) GTEST_SKIP() << "python3 is not available";
    ASSERT_EQ(python.Ending(), kztest::ExitEnding(0)) << python.Describe();
    // a level outside 0-3 matters only once the object has to deflate (death test below)
    EXPECT_EQ(Apply(CompressInflate, Make(9, 0), python.out, &back), 0) << i;
    EXPECT_EQ(Bytes(back), inputs[i]) << i;
  }
}

TEST(CompressDeathTest, LevelsLimitsAndZlibFailures) {
  static UByteArray out{}, full{nullptr, 0x7FFFFFF0u, 0x7FFFFFF0u};  // one byte more reaches the limit
  const char *limit = "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n";
  const kztest::FatalCase cases[] = {
      {[] { CompressNew(4, 1); }, 0, "'FALSE' failed at kzlib/compress:70\n"},
      {[] { Apply(CompressDeflate, Make(4, 0), "x", &out); }, 0, "'FALSE' failed at kzlib/compress:70\n"},
      {[] { Apply(CompressDeflate, Make(0, 1), "x", &full); }, 0, limit},
      {[] { Apply(CompressInflate, Make(0, 0), ZlibCompress("x", 6), &full); }, 0, limit},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
