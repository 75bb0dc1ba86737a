// Base64 and quoted-printable: documented vectors, agreement with OpenSSL's
// Base64, round trips, lenient decoding, growth of the output array.
#include "kz/codec.h"

#include <openssl/evp.h>

#include <algorithm>
#include <random>
#include <string>

#include "reference_codec.h"
#include "test_support.h"

using namespace std::literals;
using namespace kzref;

enum Coder { kB64Encode, kB64Decode, kQPEncode, kQPDecode };

static void Code(Coder coder, UByteArray *a, const std::string &s, bool lines) {
  if (coder == kB64Encode) Base64Encode(a, s.data(), static_cast<uint32_t>(s.size()), lines ? 1 : 0);
  if (coder == kB64Decode) Base64Decode(a, s.data(), static_cast<uint32_t>(s.size()));
  if (coder == kQPEncode) QPEncode(a, s.data(), static_cast<uint32_t>(s.size()), lines ? 7 : 0);  // any non-zero flag
  if (coder == kQPDecode) QPDecode(a, s.data(), static_cast<uint32_t>(s.size()));
}

// The whole output of one call on an empty array.
static std::string Apply(Coder coder, const std::string &input, bool lines = false) {
  kztest::Scoped<UByteArray> a;
  Code(coder, &a, input, lines);
  return kztest::Bytes(a);
}

static std::string Random(std::mt19937_64 &rng, size_t n) {
  std::string s(n, '\0');
  for (char &c : s) c = static_cast<char>(rng());
  return s;
}

TEST(Codec, DocumentedVectors) {
  const std::string line76 = Apply(kB64Encode, std::string(57, 'M'));
  const std::string x72(72, 'x'), x73(73, 'x'), x74(74, 'x'), x75(75, 'x'), x80(80, 'x');
  ASSERT_EQ(line76.size(), 76u);
  const struct {
    Coder coder;
    std::string input, output;
    bool lines = false;
  } cases[] = {
      {kB64Encode, "abc", "YWJj"},
      {kB64Encode, "ab", "YWI="},
      {kB64Encode, "a", "YQ=="},
      {kB64Encode, "", ""},
      {kB64Encode, "", "", true},
      {kB64Encode, "abc", "YWJj\r\n", true},
      {kB64Encode, "\xFB\xEF\xBE"s, "++++"},
      {kB64Encode, std::string(57, 'M'), line76 + "\r\n", true},
      {kB64Encode, "\xFF\xFE\xFD\x00\x01"s, "//79AAE="},
      {kB64Encode, std::string(58, 'M'), line76 + "\r\nTQ==\r\n", true},
      {kB64Decode, "YW Jj\r\n", "abc"},
      {kB64Decode, "YQ==YQ==", "\x61\x06\x10"},
      {kB64Decode, "Y", ""},
      {kB64Decode, "YW", "a"},
      {kB64Decode, "", ""},
      {kB64Decode, "YWI", "ab"},
      {kB64Decode, "YWI=", "ab"},
      {kB64Decode, "=Y=W=J=j=", "abc"},
      {kB64Decode, "====", ""},
      {kB64Decode, "//79AAE=", "\xFF\xFE\xFD\x00\x01"s},
      {kB64Decode, "\x80Y\xFFW\0J\x7Fj-_.~"s, "abc"},  // the URL-safe "-" and "_" are not the alphabet
      {kQPEncode, "a=b", "a=3Db"},
      {kQPEncode, "caf\xE9", "caf=E9"},
      {kQPEncode, "", "\r\n", true},
      {kQPEncode, "", ""},
      {kQPEncode, x80, x75 + "=\r\n" + "xxxxx\r\n", true},
      {kQPEncode, x80, x80},
      {kQPEncode, "\r\n", "=0D=0A"},
      {kQPEncode, "\r\n", "=0D=0A=\r\n\r\n", true},
      {kQPEncode, "a\tb c\x7F\0~!<>"s, "a=09b c=7F=00~!<>"},
      {kQPEncode, "\x80\xFF", "=80=FF"},
      {kQPEncode, " ", " \r\n", true},  // a blank at the end of a line stays bare
      // 72 + 3 = 75 characters still fit, from 73 on an encoded byte moves; a literal fits up to 75; a line feed
      // breaks the line at once, a carriage return does not.
      {kQPEncode, x72 + "=", x72 + "=3D\r\n", true},
      {kQPEncode, x73 + "=", x73 + "=\r\n=3D\r\n", true},
      {kQPEncode, x74 + "y", x74 + "y\r\n", true},
      {kQPEncode, x75 + "y", x75 + "=\r\ny\r\n", true},
      {kQPEncode, x75 + "\n", x75 + "=\r\n=0A=\r\n\r\n", true},
      {kQPEncode, "\n\n\r", "=0A=\r\n=0A=\r\n=0D\r\n", true},
      {kQPDecode, "a=3db", "a=b"},
      {kQPDecode, "a=\r\nb", "ab"},
      {kQPDecode, "a=ZZb", "ab"},
      {kQPDecode, "=41", "A"},
      {kQPDecode, "a=", "a"},
      {kQPDecode, "a=4", "a4"},  // "=" among the last two bytes
      {kQPDecode, "=e9=E9", "\xE9\xE9"},
      {kQPDecode, "a=\nb", "ab"},
      {kQPDecode, "= ", " "},
      {kQPDecode, "===", ""},
      // A soft break ends at a blank, at the first LF or at a copied byte, not at a decoded one.
      {kQPDecode, "a=  \r\nb", "a  \r\nb"},
      {kQPDecode, "a=\r\r\nb", "ab"},
      {kQPDecode, "a=\r\n\r\nb", "a\r\nb"},
      {kQPDecode, "a=\rb", "ab"},
      {kQPDecode, "a=\r=41\nb", "aAb"},
      {kQPDecode, "=\x01\r\nb", "b"},
      {kQPDecode, "x=4\ny", "xy"},
      {kQPDecode,
       "=\x80"
       "AB",
       "B"},  // "=" and two bytes, not both digits: dropped
      {kQPDecode, "\t\x01\x7F\x80\xFF\0"s, "\t"},
      {kQPDecode, "line1\r\nline2\n\r", "line1\r\nline2\n\r"},
  };
  for (const auto &c : cases) EXPECT_EQ(Apply(c.coder, c.input, c.lines), c.output) << c.input << "|" << c.lines;
  UByteArray a{};  // nothing to read, nothing written, nothing allocated
  Base64Encode(&a, nullptr, 0, 1);
  Base64Decode(&a, nullptr, 0);
  EXPECT_EQ(a.elements, nullptr);
  EXPECT_EQ(a.count, 0u);
  EXPECT_EQ(a.capacity, 0u);
}

// Every length around the group and line boundaries, a few contents each.
TEST(Base64, AgreesWithOpenSSL) {
  auto raw = [](std::string &s) { return reinterpret_cast<unsigned char *>(s.data()); };
  std::mt19937_64 rng(99);
  for (size_t n = 0; n <= 400; ++n)
    for (int round = 0; round < 4; ++round) {
      std::string bytes = Random(rng, n), encoded = Apply(kB64Encode, bytes), peer(2 * n + 4, '\0'), decoded = peer;
      peer.resize(static_cast<size_t>(EVP_EncodeBlock(raw(peer), raw(bytes), static_cast<int>(n))));
      // EVP_DecodeBlock gives the padding as zero bytes.
      const int got = EVP_DecodeBlock(raw(decoded), raw(encoded), static_cast<int>(encoded.size()));
      ASSERT_EQ(encoded, peer) << n;
      ASSERT_EQ(got, static_cast<int>((n + 2) / 3 * 3)) << n;
      ASSERT_EQ(decoded.substr(0, n), bytes) << n;
      const std::string broken = CutIntoLines(encoded, 76);
      ASSERT_EQ(Apply(kB64Decode, encoded), bytes) << n;
      ASSERT_EQ(Apply(kB64Encode, bytes, true), broken) << n;
      ASSERT_EQ(Apply(kB64Decode, broken), bytes) << n;
    }
}

// Each of the 192 other byte values, at every position of a text long enough
// for the sixteen-character runs, leaves the result unchanged.
TEST(Base64, DecoderSkipsEveryByteOutsideTheAlphabet) {
  std::mt19937_64 rng(5);
  const std::string bytes = Random(rng, 60), encoded = Apply(kB64Encode, bytes);  // 80 characters
  for (unsigned b = 0; b < 256; ++b)                                              // find() > 63: not in the alphabet
    for (size_t at = 0; at <= encoded.size() && kBase64Alphabet.find(static_cast<char>(b)) > 63; at += at < 40 ? 1 : 7)
      ASSERT_EQ(Apply(kB64Decode, std::string(encoded).insert(at, 1, static_cast<char>(b))), bytes) << b << "@" << at;
}

TEST(QuotedPrintable, RoundTripsAndLineLengths) {
  std::mt19937_64 rng(11);
  const std::string pieces[] = {"word", " ", "\r\n", "\n", "=", "\t", "caf\xE9", std::string(90, 'y')};
  auto printable = [](char c) { return (c >= 32 && c <= 126) || c == '\r' || c == '\n'; };
  for (int i = 0; i < 4000; ++i) {
    // All byte values, or text with line breaks and blanks.
    std::string bytes = i % 2 ? Random(rng, rng() % 400) : "";
    for (size_t n = rng() % 400; i % 2 == 0 && bytes.size() < n;) bytes += pieces[rng() % 8];
    const std::string plain = Apply(kQPEncode, bytes), broken = Apply(kQPEncode, bytes, true);
    ASSERT_EQ(plain.find_first_of("\r\n"), std::string::npos) << i;
    ASSERT_EQ(Apply(kQPDecode, plain), bytes) << i;
    // The CR LF that ends the last line comes back; lines of at most 76 characters (75 and the soft break's
    // "="), printable ASCII only.
    ASSERT_EQ(Apply(kQPDecode, broken), bytes + "\r\n") << i;
    ASSERT_TRUE(InLinesOfAtMost(broken, 76)) << i << ": " << broken;
    ASSERT_TRUE(std::all_of(broken.begin(), broken.end(), printable)) << i << ": " << broken;
  }
}

// Appending keeps what the array held and grows it as byte-by-byte appending
// would; no terminating NUL is written (a byte after the count that was never
// written keeps its value).
TEST(Codec, AppendsAndGrowsAsByteByByte) {
  std::mt19937_64 rng(3);
  const uint32_t starts[][2] = {{0, 0}, {3, 3}, {3, 4}, {5, 16}, {0, 1000}, {1000, 1024}, {17, 64}, {250, 256}, {1, 5}};
  for (Coder coder : {kB64Encode, kB64Decode, kQPEncode, kQPDecode})
    for (const auto &[count, capacity] : starts)
      for (size_t length : {0, 1, 2, 3, 4, 57, 58, 100, 1000, 5000, 70000})
        for (bool lines : {false, true}) {
          std::string input = Random(rng, length);
          if (coder == kB64Decode || coder == kQPDecode) input = Apply(Coder(coder - 1), input, lines);  // usable texts
          kztest::Scoped<UByteArray> a;
          if (capacity) ArrayGrowExact(a, capacity), std::fill_n(a.elements, capacity, 0xA5);
          a.count = count;
          Code(coder, &a, input, lines);
          SCOPED_TRACE(testing::Message() << coder << " " << count << "/" << capacity << " " << length << " " << lines);
          ASSERT_EQ(kztest::Bytes(a), std::string(count, '\xA5') + Apply(coder, input, lines));
          ASSERT_EQ(a.capacity, ByteByByteCapacity(capacity, a.count));
          if (a.count < capacity) {
            ASSERT_EQ(a.elements[a.count], 0xA5);
          }
        }
}

// Records claiming almost the 32-bit limit: the growth rule's assertion comes
// before anything is written or allocated (300 bytes need 400 characters).
static unsigned char g_neverTouched[1];

template <Coder coder, uint32_t count, uint32_t capacity = count, size_t length = 1>
void NearTheLimit() {
  UByteArray a{g_neverTouched, count, capacity};
  Code(coder, &a, coder == kB64Decode ? "YQ=="s : std::string(length, 'a'), false);
}

TEST(CodecDeathTest, ArrayLimitIsTheGrowthRule) {
  const char *kClamp = "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91";
  const char *kOver = "'newCapacity <= maxSize - 1' failed at kzlib/array:78";
  const kztest::FatalCase cases[] = {
      {NearTheLimit<kB64Encode, 4294967294u>, 0, kClamp},
      {NearTheLimit<kB64Decode, 4294967294u>, 0, kClamp},
      {NearTheLimit<kQPEncode, 4294967294u>, 0, kClamp},
      {NearTheLimit<kQPDecode, 4294967294u>, 0, kClamp},
      {NearTheLimit<kQPDecode, 4294967295u>, 0, kOver},
      {NearTheLimit<kB64Encode, 4294967295u>, 0, kOver},
      {NearTheLimit<kB64Encode, 4294967000u, 4294967294u, 300>, 0, kClamp},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}
