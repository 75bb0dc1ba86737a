// Compression streams: agreement with zlib and with Python's zlib module in
// both directions, levels, dictionaries, the switch between directions,
// truncated and corrupt input, appending, fatal cases.
#include "kz/compress.h"

#include <zlib.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "child_process.h"
#include "test_support.h"

namespace {

using namespace std::literals;
using kztest::Bytes;
using Out = kztest::Scoped<UByteArray>;
using Stream = std::unique_ptr<KZCompress, decltype(&CompressDelete)>;
using Call = int32_t (*)(KZCompress *, const void *, uint32_t, UByteArray *);

Stream Make(uint32_t level, int32_t compress) { return Stream(CompressNew(level, compress), CompressDelete); }
// One CompressDeflate or CompressInflate call on a string.
int32_t Apply(Call call, const Stream &s, const std::string &in, UByteArray *out) {
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

// zlib's one-shot compress2, or its deflate with a preset dictionary.
std::string ZlibCompress(const std::string &data, int level, const std::string *dictionary = nullptr) {
  std::string out(compressBound(static_cast<uLong>(data.size())) + 16, '\0');
  uLongf n = out.size();
  z_stream z{};
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.data())), z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef *>(out.data()), z.avail_out = static_cast<uInt>(n);
  if (!dictionary) {
    EXPECT_EQ(compress2(z.next_out, &n, z.next_in, data.size(), level), Z_OK);
  } else {
    deflateInit(&z, level);
    deflateSetDictionary(&z, reinterpret_cast<const Bytef *>(dictionary->data()), dictionary->size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    n = z.total_out;
    deflateEnd(&z);
  }
  out.resize(n);
  return out;
}

// One object per level and first direction, switching back and forth with two
// calls in a row each way: its streams are zlib's at the mapped level (for
// empty input too, given as a null pointer), and it inflates zlib's streams of
// other levels, ignoring bytes after the end.
TEST(Compress, DeflateIsZlibAtTheMappedLevelAndInflatesZlib) {
  const int zlibLevel[] = {Z_DEFAULT_COMPRESSION, 1, 1, 9};  // the library's levels 0-3
  for (uint32_t level = 0; level < 4; ++level) {
    for (int32_t compressFirst : {0, 1}) {
      Stream s = Make(level, compressFirst);
      for (uint32_t size : {0, 1, 5000, 300000}) {
        for (bool text : {true, false}) {
          const std::string data = Data(size, text, size + level), expected = ZlibCompress(data, zlibLevel[level]);
          Out packed, back;
          const std::string other = ZlibCompress(data, static_cast<int>(level * 3 + text) % 10);
          for (int i = 0; i < 2; ++i) ASSERT_EQ(CompressDeflate(s.get(), size ? data.data() : nullptr, size, &packed), 1);
          ASSERT_EQ(Apply(CompressInflate, s, other + expected, &back), 0);
          ASSERT_EQ(Apply(CompressInflate, s, expected + "garbage", &back), 0);
          ASSERT_EQ(Bytes(packed), expected + expected) << level << " " << size << " " << text;
          ASSERT_EQ(Bytes(back), data + data);
        }
      }
    }
  }
  const Stream odd = Make(9, 0);  // a level outside 0-3 matters only once it has to deflate (death test below)
  Out back, none;
  ASSERT_EQ(Apply(CompressInflate, odd, ZlibCompress("data", 6), &back), 0);
  EXPECT_EQ(CompressInflate(odd.get(), nullptr, 0, &none), -1);  // no input at all: a stream that has not ended
  EXPECT_TRUE(Bytes(back) == "data" && none.count == 0);
  CompressDelete(nullptr);
}

TEST(Compress, TruncatedAndCorruptInput) {
  Stream s = Make(2, 0);
  const std::string data = Data(30000, true, 8), packed = ZlibCompress(data, 6);
  for (size_t cut = 0; cut <= packed.size(); ++cut) {  // -1 and a prefix of the data; the whole stream: 0
    Out part;
    Hold(&part, "prefix:");
    ASSERT_EQ(Apply(CompressInflate, s, packed.substr(0, cut), &part), cut == packed.size() ? 0 : -1) << cut;
    const std::string got = Bytes(part);
    ASSERT_EQ(got, "prefix:" + data.substr(0, got.size() - 7)) << cut;
    EXPECT_TRUE(cut != packed.size() / 2 || got.size() > data.size() / 3) << got.size();  // output comes early
  }
  for (size_t at : {packed.size() / 2, packed.size() - 1}) {  // one byte changed: in the data, in the checksum
    std::string broken = packed;
    broken[at] ^= 0x55;
    Out out;
    EXPECT_EQ(Apply(CompressInflate, s, broken, &out), -4) << at;
  }
  std::mt19937_64 rng(12);
  for (int i = 0; i < 3000; ++i) {  // random bytes, but for the few that begin with a valid zlib header
    const std::string bytes = Data(2 + rng() % 600, false, rng());
    const unsigned cmf = static_cast<unsigned char>(bytes[0]), flg = static_cast<unsigned char>(bytes[1]);
    if ((cmf & 15) == 8 && (cmf * 256 + flg) % 31 == 0) continue;
    Out out;
    ASSERT_EQ(Apply(CompressInflate, s, bytes, &out), -4) << i;
    ASSERT_EQ(out.count, 0u);
  }
}

TEST(Compress, PresetDictionaries) {
  const std::string dictionary = Data(4000, true, 20), data = dictionary.substr(1000, 2000) + Data(300, true, 21);
  const std::string withDictionary = ZlibCompress(data, 9, &dictionary);
  Stream s = Make(3, 1);
  CompressSetDictionary(s.get(), dictionary.data(), static_cast<uint32_t>(dictionary.size()));
  Out ours, back;
  ASSERT_EQ(Apply(CompressDeflate, s, data, &ours), 1);
  EXPECT_EQ(Bytes(ours), withDictionary);
  EXPECT_EQ(Apply(CompressInflate, Make(0, 0), withDictionary, &back), -4);  // none set: nothing appended
  ASSERT_EQ(Apply(CompressInflate, s, withDictionary, &back), 0);
  ASSERT_EQ(Apply(CompressInflate, s, ZlibCompress(data, 6), &back), 0);  // plain streams still inflate
  CompressSetDictionary(s.get(), nullptr, 0);  // removed: -4 again, and plain streams from the deflater
  EXPECT_EQ(Apply(CompressInflate, s, withDictionary, &back), -4);
  EXPECT_EQ(Bytes(back), data + data);
  ASSERT_EQ(Apply(CompressDeflate, s, data, &ours), 1);
  EXPECT_EQ(Bytes(ours), withDictionary + ZlibCompress(data, 9));
}

// Whether growing from capacity c by steps of the rule reaches `capacity`.
bool OnGrowthPath(uint64_t c, uint64_t capacity) {
  while (c < capacity && c < 4294967294u) c = ArrayNextSize(c, c + 1, 4294967295u);
  return c == capacity;
}

TEST(Compress, AppendsAndGrowsByTheRule) {
  const std::string data = Data(123457, true, 30), packed = ZlibCompress(data, Z_DEFAULT_COMPRESSION);
  Stream s = Make(0, 1);
  for (const std::string &prefix : {""s, "a"s, std::string(5000, 'p')}) {
    Out ours, back;
    Hold(&ours, prefix), Hold(&back, prefix);
    ASSERT_EQ(Apply(CompressDeflate, s, data, &ours), 1);
    ASSERT_EQ(Apply(CompressInflate, s, packed, &back), 0);
    EXPECT_TRUE(Bytes(ours) == prefix + packed && Bytes(back) == prefix + data) << prefix.size();
    EXPECT_TRUE(OnGrowthPath(prefix.size(), ours.capacity) && OnGrowthPath(prefix.size(), back.capacity));
  }
  Out roomy;  // filled in place, without growing
  ArrayGrowExact(roomy, 200000);
  unsigned char *const storage = roomy.elements;
  ASSERT_EQ(Apply(CompressInflate, s, packed, &roomy), 0);
  EXPECT_TRUE(roomy.elements == storage && roomy.capacity == 200000 && Bytes(roomy) == data);
}

// Inflates ours<i> in the directory argv[1] for each job "<i>:<level>" in
// argv[2], and deflates the result at that zlib level into python<i>.
constexpr const char *kPythonScript = R"(
import os, sys, zlib
os.chdir(sys.argv[1])
for name, level in (job.split(':') for job in sys.argv[2].split()):
    open('python' + name, 'wb').write(zlib.compress(zlib.decompress(open('ours' + name, 'rb').read()), int(level)))
)";

// Python inflates our streams and deflates what it got; we inflate that.
TEST(Compress, InteroperatesWithPython) {
  kztest::TempDir dir;
  const std::string inputs[] = {"", Data(1, false, 41), Data(70000, true, 42), Data(70000, false, 43)};
  std::string jobs;  // case i: our level i, Python's zlib level 0, 1, 6 or 9
  for (uint32_t i = 0; i < std::size(inputs); ++i) {
    Out packed;
    ASSERT_EQ(Apply(CompressDeflate, Make(i, 1), inputs[i], &packed), 1);
    std::ofstream(dir / ("ours" + std::to_string(i)), std::ios::binary) << Bytes(packed);
    jobs += std::to_string(i) + ":" + "0169"[i] + " ";
  }
  const kztest::Child python = kztest::RunChild(dir, {}, [&] {
    execlp("python3", "python3", "-c", kPythonScript, dir.path().c_str(), jobs.c_str(), static_cast<char *>(nullptr));
    return 127;
  });
  if (python.Exited(127)) GTEST_SKIP() << "python3 is not available";
  ASSERT_TRUE(python.Exited(0)) << python.Describe();
  for (size_t i = 0; i < std::size(inputs); ++i) {
    Out back;
    EXPECT_EQ(Apply(CompressInflate, Make(0, 0), kztest::ReadFile(dir / ("python" + std::to_string(i))), &back), 0);
    EXPECT_EQ(Bytes(back), inputs[i]) << i;
  }
}

TEST(CompressDeathTest, LevelsLimitsAndZlibFailures) {
  static unsigned char neverTouched[1];
  static UByteArray out{}, full{neverTouched, 0x7FFFFFF0u, 0x7FFFFFF0u};  // one byte more reaches the limit
  static const std::string first = "first dictionary";
  const char *level = "'FALSE' failed at kzlib/compress:70\n";
  const char *limit = "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n";
  const kztest::FatalCase cases[] = {
      {[] { CompressNew(4, 1); }, 0, level},
      {[] { Apply(CompressDeflate, Make(4, 0), "x", &out); }, 0, level},  // at the switch to deflating
      {[] { Apply(CompressDeflate, Make(0, 1), "x", &full); }, 0, limit},
      {[] { Apply(CompressInflate, Make(0, 0), ZlibCompress("x", 6), &full); }, 0, limit},
      {[] {  // a stream made with one dictionary, inflated with another: zlib refuses the dictionary
         Stream s = Make(0, 0);
         CompressSetDictionary(s.get(), "second dictionary", 17);
         Apply(CompressInflate, s, ZlibCompress("data", 6, &first), &out);
       }, 0, "\"compress:177\": zlib error -3 : \\(no msg\\)\r\n"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
