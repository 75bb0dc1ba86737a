// Compression streams: agreement with zlib and with Python's zlib module in
// both directions, levels, dictionaries, the switch between directions,
// truncated and corrupt input, appending, fatal cases.
#include "kz/compress.h"

#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "child_process.h"
#include "kz/array.h"
#include "test_support.h"

namespace {

using namespace std::literals;

// An array that frees its storage.
struct Out {
  UByteArray a{};
  Out() = default;
  explicit Out(const std::string &prefix) {
    a.elements = static_cast<unsigned char *>(malloc(prefix.size() + 1));
    memcpy(a.elements, prefix.data(), prefix.size());
    a.count = a.capacity = static_cast<uint32_t>(prefix.size());
  }
  Out(const Out &) = delete;
  ~Out() { free(a.elements); }
  std::string str() const { return std::string(reinterpret_cast<const char *>(a.elements), a.count); }
};

// An object that is deleted at the end of the scope.
struct Stream {
  KZCompress *c;
  Stream(uint32_t level, int32_t compress) : c(CompressNew(level, compress)) {}
  Stream(const Stream &) = delete;
  ~Stream() { CompressDelete(c); }
  int32_t Deflate(const std::string &in, Out &out) {
    return CompressDeflate(c, in.data(), static_cast<uint32_t>(in.size()), &out.a);
  }
  int32_t Inflate(const std::string &in, Out &out) {
    return CompressInflate(c, in.data(), static_cast<uint32_t>(in.size()), &out.a);
  }
};

// Text-like data (compresses well) or random bytes (does not).
std::string Data(size_t n, bool text, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::string s;
  const char *words[] = {"the ", "stream ", "of ", "bytes ", "compresses ", "well\n", "zlib ", "0123456789 "};
  while (s.size() < n) s += text ? std::string(words[rng() % 8]) : std::string(1, static_cast<char>(rng()));
  s.resize(n);
  return s;
}

// zlib's one-shot compression at a zlib level.
std::string ZlibCompress(const std::string &data, int level) {
  std::string out(compressBound(static_cast<uLong>(data.size())), '\0');
  uLongf n = out.size();
  EXPECT_EQ(compress2(reinterpret_cast<Bytef *>(out.data()), &n, reinterpret_cast<const Bytef *>(data.data()),
                      data.size(), level),
            Z_OK);
  out.resize(n);
  return out;
}

// zlib's inflate with an optional dictionary; returns zlib's final result.
int ZlibInflate(const std::string &stream, std::string &data, const std::string *dictionary = nullptr) {
  z_stream z{};
  inflateInit(&z);
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(stream.data()));
  z.avail_in = static_cast<uInt>(stream.size());
  std::vector<unsigned char> buffer(1 << 16);
  int result;
  do {
    z.next_out = buffer.data();
    z.avail_out = static_cast<uInt>(buffer.size());
    result = inflate(&z, Z_NO_FLUSH);
    if (result == Z_NEED_DICT && dictionary) {
      result = inflateSetDictionary(&z, reinterpret_cast<const Bytef *>(dictionary->data()),
                                    static_cast<uInt>(dictionary->size()));
    }
    data.append(reinterpret_cast<char *>(buffer.data()), buffer.size() - z.avail_out);
  } while (result == Z_OK);
  inflateEnd(&z);
  return result;
}

std::string ZlibDeflateWithDictionary(const std::string &data, const std::string &dictionary, int level) {
  z_stream z{};
  deflateInit(&z, level);
  deflateSetDictionary(&z, reinterpret_cast<const Bytef *>(dictionary.data()), static_cast<uInt>(dictionary.size()));
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
  z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef *>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

const int kZlibLevel[] = {Z_DEFAULT_COMPRESSION, 1, 1, 9};  // the library's levels 0-3

// ---- agreement with zlib --------------------------------------------------------

TEST(Compress, DeflateIsZlibAtTheMappedLevel) {
  const size_t sizes[] = {0, 1, 100, 5000, 65536, 300000};
  for (uint32_t level = 0; level < 4; ++level) {
    Stream s(level, 1);
    for (size_t size : sizes) {
      for (bool text : {true, false}) {
        const std::string data = Data(size, text, size + level);
        Out out;
        ASSERT_EQ(s.Deflate(data, out), 1);
        // The same bytes as zlib's own compression at the mapped level.
        ASSERT_EQ(out.str(), ZlibCompress(data, kZlibLevel[level])) << level << " " << size << " " << text;
        std::string back(data.size() + 1, '\0');
        uLongf n = back.size();
        ASSERT_EQ(uncompress(reinterpret_cast<Bytef *>(back.data()), &n,
                             reinterpret_cast<const Bytef *>(out.a.elements), out.a.count),
                  Z_OK);
        back.resize(n);
        ASSERT_EQ(back, data);
      }
    }
  }
  // Levels 1 and 2 are the same; 3 compresses text at least as well as 0.
  const std::string text = Data(100000, true, 1);
  Out one, two, three, zero;
  Stream(1, 1).Deflate(text, one), Stream(2, 1).Deflate(text, two);
  Stream(3, 1).Deflate(text, three), Stream(0, 1).Deflate(text, zero);
  EXPECT_EQ(one.str(), two.str());
  EXPECT_TRUE(three.a.count <= zero.a.count && zero.a.count < one.a.count) << three.a.count << " " << zero.a.count;
}

TEST(Compress, InflatesZlibStreams) {
  Stream s(0, 0);
  for (int zlibLevel = 0; zlibLevel <= 9; ++zlibLevel) {
    for (size_t size : {size_t{0}, size_t{7}, size_t{40000}, size_t{250000}}) {
      const std::string data = Data(size, zlibLevel % 2 == 0, size * 10 + static_cast<size_t>(zlibLevel));
      Out out;
      ASSERT_EQ(s.Inflate(ZlibCompress(data, zlibLevel), out), 0);
      ASSERT_EQ(out.str(), data) << zlibLevel << " " << size;
    }
  }
  // zlib's plain compress(), into an array that already holds data.
  const std::string data = Data(100000, true, 5);
  std::string packed(compressBound(data.size()), '\0');
  uLongf n = packed.size();
  ASSERT_EQ(compress(reinterpret_cast<Bytef *>(packed.data()), &n, reinterpret_cast<const Bytef *>(data.data()),
                     data.size()),
            Z_OK);
  packed.resize(n);
  Out out("held");
  ASSERT_EQ(s.Inflate(packed, out), 0);
  EXPECT_EQ(out.str(), "held" + data);
}

TEST(Compress, EmptyInputIsACompleteEmptyStream) {
  Stream s(0, 1);
  Out packed;
  ASSERT_EQ(CompressDeflate(s.c, nullptr, 0, &packed.a), 1);
  EXPECT_EQ(packed.str(), "\x78\x9C\x03\x00\x00\x00\x00\x01"s);
  Out data;
  ASSERT_EQ(s.Inflate(packed.str(), data), 0);
  EXPECT_EQ(data.a.count, 0u);
  Out none;  // no input at all is a stream that has not ended
  EXPECT_EQ(CompressInflate(s.c, nullptr, 0, &none.a), -1);
  EXPECT_EQ(none.a.count, 0u);
}

// ---- the switch between directions ------------------------------------------------

TEST(Compress, SwitchesDirectionsKeepingTheLevel) {
  const std::string data = Data(50000, true, 4);
  for (uint32_t level = 0; level < 4; ++level) {
    for (int32_t compressFirst : {0, 1}) {
      Stream s(level, compressFirst);
      for (int round = 0; round < 4; ++round) {  // deflate, inflate, deflate, inflate ...
        Out packed, back;
        ASSERT_EQ(s.Deflate(data, packed), 1);
        ASSERT_EQ(packed.str(), ZlibCompress(data, kZlibLevel[level])) << level << " " << round;
        ASSERT_EQ(s.Inflate(packed.str(), back), 0);
        ASSERT_EQ(back.str(), data);
        if (round == 2) {  // two calls in a row in each direction reuse the state
          ASSERT_EQ(s.Inflate(packed.str(), back), 0);
          Out again;
          ASSERT_EQ(s.Deflate(data, again), 1);
          ASSERT_EQ(s.Deflate(data, again), 1);
          ASSERT_EQ(again.str(), packed.str() + packed.str());
        }
      }
    }
  }
  // An object made for inflating with a level outside 0-3 inflates; it
  // fails only when it is asked to deflate (below, in the death test).
  Stream s(9, 0);
  Out back;
  ASSERT_EQ(s.Inflate(ZlibCompress(data, 6), back), 0);
  EXPECT_EQ(back.str(), data);
}

// ---- incomplete and corrupt input -----------------------------------------------------

TEST(Compress, TruncatedInputAppendsWhatItHas) {
  const std::string data = Data(200000, false, 8);  // incompressible: output comes early
  Out packed;
  Stream s(0, 1);
  ASSERT_EQ(s.Deflate(data, packed), 1);
  const std::string stream = packed.str();
  Out half("prefix:");
  ASSERT_EQ(s.Inflate(stream.substr(0, stream.size() / 2), half), -1);
  const std::string got = half.str();
  ASSERT_EQ(got.compare(0, 7, "prefix:"), 0);
  EXPECT_GT(got.size(), 7 + data.size() / 3);
  EXPECT_EQ(got.substr(7), data.substr(0, got.size() - 7));
  // Every cut of a small stream: -1 and a prefix of the data; the whole stream: 0.
  const std::string small = Data(3000, true, 9);
  Out smallPacked;
  ASSERT_EQ(s.Deflate(small, smallPacked), 1);
  const std::string smallStream = smallPacked.str();
  for (size_t cut = 0; cut <= smallStream.size(); ++cut) {
    Out part;
    const int32_t result = s.Inflate(smallStream.substr(0, cut), part);
    ASSERT_EQ(result, cut == smallStream.size() ? 0 : -1) << cut;
    ASSERT_EQ(part.str(), small.substr(0, part.a.count)) << cut;
  }
}

TEST(Compress, CorruptInputIsMinusFour) {
  // Random bytes, with what zlib itself makes of them: a data error (also a
  // request for a dictionary) is -4, an input that ends first is -1.
  std::mt19937_64 rng(12);
  Stream s(2, 0);
  int corrupt = 0;
  for (int i = 0; i < 3000; ++i) {
    const std::string bytes = Data(1 + rng() % 600, false, rng());
    std::string reference;
    const int zlibResult = ZlibInflate(bytes, reference);
    Out out("x");
    const int32_t result = s.Inflate(bytes, out);
    const int32_t expected = zlibResult == Z_STREAM_END ? 0 : zlibResult == Z_BUF_ERROR ? -1 : -4;
    ASSERT_EQ(result, expected) << i << " zlib " << zlibResult;
    ASSERT_EQ(out.str(), "x" + reference) << i;
    corrupt += result == -4;
  }
  EXPECT_GT(corrupt, 2900);  // nearly all fail the header check
  // A valid stream with one byte of its compressed data changed.
  const std::string data = Data(20000, true, 13);
  std::string packed = ZlibCompress(data, 6);
  packed[packed.size() / 2] ^= 0x55;
  Out out;
  EXPECT_EQ(s.Inflate(packed, out), -4);
  packed = ZlibCompress(data, 6);
  packed[packed.size() - 1] ^= 1;  // the checksum
  EXPECT_EQ(s.Inflate(packed, out), -4);
}

TEST(Compress, BytesAfterTheStreamAreIgnored) {
  const std::string a = Data(1000, true, 1), b = Data(500, true, 2);
  Stream s(0, 0);
  Out out;
  ASSERT_EQ(s.Inflate(ZlibCompress(a, 6) + ZlibCompress(b, 6), out), 0);
  EXPECT_EQ(out.str(), a);
  ASSERT_EQ(s.Inflate(ZlibCompress(b, 6) + "garbage", out), 0);
  EXPECT_EQ(out.str(), a + b);
}

// ---- dictionaries ----------------------------------------------------------------------

TEST(Compress, PresetDictionaries) {
  const std::string dictionary = Data(4000, true, 20);
  const std::string data = dictionary.substr(1000, 2000) + Data(300, true, 21);
  Stream deflater(3, 1), inflater(0, 0), plain(0, 0);
  Out withDictionary, without;
  ASSERT_EQ(deflater.Deflate(data, without), 1);
  CompressSetDictionary(deflater.c, dictionary.data(), static_cast<uint32_t>(dictionary.size()));
  ASSERT_EQ(deflater.Deflate(data, withDictionary), 1);
  EXPECT_LT(withDictionary.a.count * 4, without.a.count);  // the dictionary did its work
  EXPECT_EQ(withDictionary.str(), ZlibDeflateWithDictionary(data, dictionary, 9));
  // zlib inflates it only with the dictionary.
  std::string reference;
  EXPECT_EQ(ZlibInflate(withDictionary.str(), reference), Z_NEED_DICT);
  reference.clear();
  ASSERT_EQ(ZlibInflate(withDictionary.str(), reference, &dictionary), Z_STREAM_END);
  EXPECT_EQ(reference, data);
  // Without a dictionary: -4 and nothing appended. With it: the data.
  Out failed("keep");
  EXPECT_EQ(plain.Inflate(withDictionary.str(), failed), -4);
  EXPECT_EQ(failed.str(), "keep");
  CompressSetDictionary(inflater.c, dictionary.data(), static_cast<uint32_t>(dictionary.size()));
  Out back("keep");
  ASSERT_EQ(inflater.Inflate(withDictionary.str(), back), 0);
  EXPECT_EQ(back.str(), "keep" + data);
  // A set dictionary does not stop streams made without one.
  Out plainBack;
  ASSERT_EQ(inflater.Inflate(without.str(), plainBack), 0);
  EXPECT_EQ(plainBack.str(), data);
  // zlib's own stream with a dictionary; the same object, switched, makes one too.
  Out fromZlib, roundTrip, packedAgain;
  ASSERT_EQ(inflater.Inflate(ZlibDeflateWithDictionary(data, dictionary, 1), fromZlib), 0);
  EXPECT_EQ(fromZlib.str(), data);
  ASSERT_EQ(inflater.Deflate(data, packedAgain), 1);
  EXPECT_EQ(packedAgain.str(), ZlibDeflateWithDictionary(data, dictionary, Z_DEFAULT_COMPRESSION));
  ASSERT_EQ(inflater.Inflate(packedAgain.str(), roundTrip), 0);
  EXPECT_EQ(roundTrip.str(), data);
  // Removing the dictionary: plain streams again, and -4 for the ones that need it.
  CompressSetDictionary(inflater.c, nullptr, 0);
  Out last;
  EXPECT_EQ(inflater.Inflate(withDictionary.str(), last), -4);
  ASSERT_EQ(inflater.Deflate(data, last), 1);
  EXPECT_EQ(last.str(), ZlibCompress(data, Z_DEFAULT_COMPRESSION));
}

// ---- the output array ---------------------------------------------------------------------

// Whether growing from `from` by steps of the rule passes through `capacity`.
bool OnGrowthPath(uint64_t from, uint64_t capacity) {
  for (uint64_t c = from;; c = ArrayNextSize(c, c + 1, 4294967295u)) {
    if (c == capacity) return true;
    if (c > capacity || c == 4294967294u) return false;
  }
}

TEST(Compress, AppendsAndGrowsByTheRule) {
  const std::string data = Data(123457, true, 30);
  Stream s(0, 1);
  for (const std::string &prefix : {""s, "a"s, "0123456789abcdef"s, std::string(5000, 'p')}) {
    Out packed(prefix), back(prefix);
    ASSERT_EQ(s.Deflate(data, packed), 1);
    ASSERT_EQ(packed.str().substr(0, prefix.size()), prefix);
    ASSERT_EQ(packed.str().substr(prefix.size()), ZlibCompress(data, Z_DEFAULT_COMPRESSION));
    ASSERT_EQ(s.Inflate(packed.str().substr(prefix.size()), back), 0);
    ASSERT_EQ(back.str(), prefix + data);
    EXPECT_TRUE(OnGrowthPath(prefix.size(), packed.a.capacity)) << packed.a.capacity;
    EXPECT_TRUE(OnGrowthPath(prefix.size(), back.a.capacity)) << back.a.capacity;
  }
  // A roomy array is filled in place, without growing.
  Out roomy;
  roomy.a.elements = static_cast<unsigned char *>(malloc(200000));
  roomy.a.capacity = 200000;
  unsigned char *const storage = roomy.a.elements;
  Out packed;
  ASSERT_EQ(s.Deflate(data, packed), 1);
  ASSERT_EQ(s.Inflate(packed.str(), roomy), 0);
  EXPECT_TRUE(roomy.a.elements == storage && roomy.a.capacity == 200000 && roomy.str() == data);
}

// ---- Python's zlib module as the other end --------------------------------------------------

// Runs python3 with the script and arguments.
kztest::Child Python(const kztest::TempDir &dir, const std::string &script, const std::vector<std::string> &arguments) {
  return kztest::RunChild(dir, {}, [&] {
    std::vector<char *> argv{const_cast<char *>("python3"), const_cast<char *>("-c"),
                             const_cast<char *>(script.c_str())};
    for (const std::string &a : arguments) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execvp("python3", argv.data());
    return 127;
  });
}

// Each line of the jobs file: "inflate <source> <target> [<dictionary>]" or
// "<zlib level> <source> <target> [<dictionary>]".
constexpr const char *kPythonScript = R"(
import sys, zlib
for line in open(sys.argv[1]).read().splitlines():
    mode, source, target, *rest = line.split(' ')
    zdict = open(rest[0], 'rb').read() if rest else None
    data = open(source, 'rb').read()
    if mode == 'inflate':
        d = zlib.decompressobj(zdict=zdict) if zdict is not None else zlib.decompressobj()
        out = d.decompress(data)
        assert d.eof and not d.unused_data, 'incomplete stream ' + source
    else:
        c = zlib.compressobj(int(mode), zdict=zdict) if zdict is not None else zlib.compressobj(int(mode))
        out = c.compress(data) + c.flush()
    open(target, 'wb').write(out)
)";

void WriteFile(const std::string &path, const std::string &bytes) {
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  fclose(f);
}

TEST(Compress, InteroperatesWithPython) {
  kztest::TempDir dir;
  const std::string dictionary = Data(3000, true, 40);
  WriteFile(dir / "dictionary", dictionary);
  const std::string inputs[] = {"", Data(1, false, 41), Data(70000, true, 42), Data(70000, false, 43),
                                dictionary.substr(500, 1500)};
  const int zlibLevels[] = {0, 1, 6, 9};
  // Our streams for Python to inflate, and Python's streams of the same data.
  std::string jobs;
  for (size_t i = 0; i < std::size(inputs); ++i) {
    const std::string name = std::to_string(i);
    WriteFile(dir / ("data" + name), inputs[i]);
    for (bool useDictionary : {false, true}) {
      const std::string tail = useDictionary ? " " + (dir / "dictionary") + "\n" : "\n";
      const std::string suffix = name + (useDictionary ? "d" : "");
      for (uint32_t level = 0; level < 4; ++level) {
        Stream s(level, 1);
        if (useDictionary) CompressSetDictionary(s.c, dictionary.data(), static_cast<uint32_t>(dictionary.size()));
        Out packed;
        ASSERT_EQ(s.Deflate(inputs[i], packed), 1);
        const std::string file = "ours" + suffix + "-" + std::to_string(level);
        WriteFile(dir / file, packed.str());
        jobs += "inflate " + (dir / file) + " " + (dir / ("back-" + file)) + tail;
      }
      for (int zlibLevel : zlibLevels)
        jobs += std::to_string(zlibLevel) + " " + (dir / ("data" + name)) + " " +
                (dir / ("python" + suffix + "-" + std::to_string(zlibLevel))) + tail;
    }
  }
  WriteFile(dir / "jobs", jobs);
  const kztest::Child python = Python(dir, kPythonScript, {dir / "jobs"});
  if (python.Exited(127)) GTEST_SKIP() << "python3 is not available";
  ASSERT_TRUE(python.Exited(0)) << python.Describe();
  for (size_t i = 0; i < std::size(inputs); ++i) {
    for (bool useDictionary : {false, true}) {
      const std::string suffix = std::to_string(i) + (useDictionary ? "d" : "");
      for (uint32_t level = 0; level < 4; ++level)
        ASSERT_EQ(kztest::ReadFile(dir / ("back-ours" + suffix + "-" + std::to_string(level))), inputs[i])
            << suffix << " level " << level;
      for (int zlibLevel : zlibLevels) {
        Stream s(0, 0);
        if (useDictionary) CompressSetDictionary(s.c, dictionary.data(), static_cast<uint32_t>(dictionary.size()));
        Out back;
        const std::string packed = kztest::ReadFile(dir / ("python" + suffix + "-" + std::to_string(zlibLevel)));
        ASSERT_FALSE(packed.empty());
        ASSERT_EQ(s.Inflate(packed, back), 0) << suffix << " zlib level " << zlibLevel;
        ASSERT_EQ(back.str(), inputs[i]);
      }
    }
  }
}

// ---- fatal cases -----------------------------------------------------------------------------

unsigned char g_neverTouched[1];

TEST(CompressDeathTest, LevelsLimitsAndZlibFailures) {
  const kztest::FatalCase cases[] = {
      {[] { CompressNew(4, 1); }, 0, "'FALSE' failed at kzlib/compress:70\n"},
      {[] {  // an inflating object keeps its level until it has to deflate
         KZCompress *c = CompressNew(4, 0);
         UByteArray out{};
         CompressDeflate(c, "x", 1, &out);
       },
       0, "'FALSE' failed at kzlib/compress:70\n"},
      {[] {
         UByteArray out{g_neverTouched, 0x7FFFFFF0u, 0x7FFFFFF0u};
         CompressDeflate(CompressNew(0, 1), "x", 1, &out);
       },
       0, "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n"},
      {[] {
         static const std::string packed = ZlibCompress("x", 6);
         UByteArray out{g_neverTouched, 0x7FFFFFF0u, 0x7FFFFFF0u};
         CompressInflate(CompressNew(0, 0), packed.data(), static_cast<uint32_t>(packed.size()), &out);
       },
       0, "'eltCount < UINT_MAX_VALUE / 2' failed at kzlib/array:114\n"},
      {[] {  // a stream made with one dictionary, inflated with another: zlib refuses the dictionary
         static const std::string packed = ZlibDeflateWithDictionary("data", "first dictionary", 6);
         KZCompress *c = CompressNew(0, 0);
         CompressSetDictionary(c, "second dictionary", 17);
         UByteArray out{};
         CompressInflate(c, packed.data(), static_cast<uint32_t>(packed.size()), &out);
       },
       0, "\"compress:177\": zlib error -3 : \\(no msg\\)\r\n"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

TEST(Compress, DeleteAcceptsNullAndEveryState) {
  CompressDelete(nullptr);
  Out out;
  KZCompress *afterError = CompressNew(1, 0);
  EXPECT_EQ(CompressInflate(afterError, "garbage!", 8, &out.a), -4);
  CompressDelete(afterError);
  KZCompress *afterTruncation = CompressNew(1, 1);
  const std::string packed = ZlibCompress(Data(10000, false, 1), 6);
  EXPECT_EQ(CompressInflate(afterTruncation, packed.data(), 100, &out.a), -1);
  CompressDelete(afterTruncation);  // the sanitizer's leak check covers the rest
  CompressDelete(CompressNew(3, 1));
  CompressDelete(CompressNew(3, 0));
}

}  // namespace
