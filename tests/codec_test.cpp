// Base64 and quoted-printable: documented vectors, agreement with OpenSSL's
// Base64, round trips, lenient decoding, growth of the output array.
#include "kz/codec.h"

#include <openssl/evp.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kz/array.h"
#include "test_support.h"

namespace {

using namespace std::literals;

constexpr uint64_t kMaxSize = 4294967295u;
constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

using Coder = void (*)(UByteArray *, const std::string &, bool);
const Coder kB64Encode = [](UByteArray *a, const std::string &s, bool lines) {
  Base64Encode(a, s.data(), static_cast<uint32_t>(s.size()), lines ? 1 : 0);
};
const Coder kB64Decode = [](UByteArray *a, const std::string &s, bool) {
  Base64Decode(a, s.data(), static_cast<uint32_t>(s.size()));
};
const Coder kQPEncode = [](UByteArray *a, const std::string &s, bool lines) {
  QPEncode(a, s.data(), static_cast<uint32_t>(s.size()), lines ? 7 : 0);  // any non-zero flag
};
const Coder kQPDecode = [](UByteArray *a, const std::string &s, bool) {
  QPDecode(a, s.data(), static_cast<uint32_t>(s.size()));
};

// The whole output of one call on an empty array.
std::string Apply(Coder coder, const std::string &input, bool lines = false) {
  UByteArray a{};
  coder(&a, input, lines);
  std::string text(reinterpret_cast<const char *>(a.elements), a.count);
  free(a.elements);
  return text;
}

std::string Bytes(std::mt19937_64 &rng, size_t n, unsigned range = 256) {
  std::string s(n, '\0');
  for (char &c : s) c = static_cast<char>(rng() % range);
  return s;
}

// ---- Base64 -----------------------------------------------------------------

TEST(Base64, DocumentedVectors) {
  const std::string s57(57, 'M'), s58(58, 'M');
  const std::string line76 = Apply(kB64Encode, s57);
  ASSERT_EQ(line76.size(), 76u);
  const struct { Coder coder; std::string input; bool lines; std::string output; } cases[] = {
      {kB64Encode, "abc", false, "YWJj"}, {kB64Encode, "ab", false, "YWI="}, {kB64Encode, "a", false, "YQ=="},
      {kB64Encode, "", false, ""}, {kB64Encode, "", true, ""}, {kB64Encode, "abc", true, "YWJj\r\n"},
      {kB64Encode, s57, true, line76 + "\r\n"}, {kB64Encode, s58, true, line76 + "\r\nTQ==\r\n"},
      {kB64Encode, "\xFF\xFE\xFD\x00\x01"s, false, "//79AAE="}, {kB64Encode, "\xFB\xEF\xBE"s, false, "++++"},
      {kB64Decode, "YW Jj\r\n", false, "abc"}, {kB64Decode, "YQ==YQ==", false, "\x61\x06\x10"},
      {kB64Decode, "Y", false, ""}, {kB64Decode, "YW", false, "a"}, {kB64Decode, "YWI", false, "ab"},
      {kB64Decode, "YWI=", false, "ab"}, {kB64Decode, "", false, ""}, {kB64Decode, "=Y=W=J=j=", false, "abc"},
      {kB64Decode, "\x80Y\xFFW\0J\x7Fj-_.~"s, false, "abc"},  // the URL-safe "-" and "_" are not the alphabet
      {kB64Decode, "//79AAE=", false, "\xFF\xFE\xFD\x00\x01"s}, {kB64Decode, "====", false, ""},
  };
  for (const auto &c : cases) EXPECT_EQ(Apply(c.coder, c.input, c.lines), c.output) << c.input << "|" << c.lines;
  UByteArray a{};
  Base64Encode(&a, nullptr, 0, 1);  // nothing to read, nothing written, nothing allocated
  Base64Decode(&a, nullptr, 0);
  EXPECT_TRUE(a.elements == nullptr && a.count == 0 && a.capacity == 0);
}

std::string OpenSSLEncode(const std::string &bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(n));
  return text;
}

// EVP_DecodeBlock counts the bytes of the padding as zeros; they are dropped.
std::string OpenSSLDecode(const std::string &text) {
  std::string bytes(text.size() / 4 * 3 + 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return "<invalid>";
  size_t padding = 0;
  for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) ++padding;
  bytes.resize(static_cast<size_t>(n) - padding);
  return bytes;
}

// The unbroken encoding cut into 76-character lines, each ended by CR LF.
std::string Lines76(const std::string &text) {
  std::string out;
  for (size_t at = 0; at < text.size(); at += 76) out += text.substr(at, 76) + "\r\n";
  return out;
}

TEST(Base64, AgreesWithOpenSSL) {
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    std::mt19937_64 rng(seed);
    for (int i = 0; i < 150; ++i) {
      const std::string bytes = Bytes(rng, rng() % 301);
      const std::string encoded = Apply(kB64Encode, bytes);
      ASSERT_EQ(encoded, OpenSSLEncode(bytes)) << "seed " << seed << " length " << bytes.size();
      ASSERT_EQ(OpenSSLDecode(encoded), bytes) << "seed " << seed;
      ASSERT_EQ(Apply(kB64Decode, encoded), bytes) << "seed " << seed << " length " << bytes.size();
      const std::string broken = Apply(kB64Encode, bytes, true);
      ASSERT_EQ(broken, Lines76(encoded)) << "seed " << seed << " length " << bytes.size();
      ASSERT_EQ(Apply(kB64Decode, broken), bytes) << "seed " << seed;
    }
  }
  // Every length around the line and group boundaries.
  std::mt19937_64 rng(99);
  for (size_t n = 0; n <= 400; ++n) {
    const std::string bytes = Bytes(rng, n);
    const std::string encoded = Apply(kB64Encode, bytes);
    ASSERT_EQ(encoded, OpenSSLEncode(bytes)) << n;
    ASSERT_EQ(Apply(kB64Encode, bytes, true), Lines76(encoded)) << n;
    ASSERT_EQ(Apply(kB64Decode, encoded), bytes) << n;
  }
}

// The decoding rule one character at a time: the model for the decoder's
// group-at-a-time paths.
std::string ModelBase64Decode(const std::string &text) {
  std::string out;
  uint32_t value = 0;
  int pending = 0;
  for (char c : text) {
    const size_t v = kAlphabet.find(c);
    if (v == std::string_view::npos) continue;
    value = value << 6 | static_cast<uint32_t>(v);
    if (++pending == 4) {
      out += static_cast<char>(value >> 16), out += static_cast<char>(value >> 8), out += static_cast<char>(value);
      value = 0, pending = 0;
    }
  }
  if (pending == 2) out += static_cast<char>(value >> 4);
  if (pending == 3) out += static_cast<char>(value >> 10), out += static_cast<char>(value >> 2);
  return out;
}

TEST(Base64, DecoderSkipsEveryByteOutsideTheAlphabet) {
  // Each of the 192 other byte values, at every position of a text long
  // enough for the sixteen-character runs, leaves the result unchanged.
  std::mt19937_64 rng(5);
  const std::string bytes = Bytes(rng, 60);
  const std::string encoded = Apply(kB64Encode, bytes);  // 80 characters
  for (unsigned b = 0; b < 256; ++b) {
    if (kAlphabet.find(static_cast<char>(b)) != std::string_view::npos) continue;
    for (size_t at = 0; at <= encoded.size(); at += (at < 40 ? 1 : 7)) {
      std::string text = encoded;
      text.insert(at, 1, static_cast<char>(b));
      ASSERT_EQ(Apply(kB64Decode, text), bytes) << "byte " << b << " at " << at;
    }
  }
  // Random mixtures of alphabet characters, padding, line breaks and other
  // bytes, against the character-at-a-time rule.
  const std::string noise = "=\r\n \t\0\x80\xFF-_.*"s;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    const size_t n = rng() % 200;
    const unsigned noiseRate = static_cast<unsigned>(rng() % 4);  // none, rare, frequent, half
    for (size_t k = 0; k < n; ++k) {
      const bool isNoise = noiseRate && rng() % (noiseRate == 1 ? 40 : noiseRate == 2 ? 6 : 2) == 0;
      text += isNoise ? (rng() % 2 ? noise[rng() % noise.size()] : static_cast<char>(rng() % 256))
                      : kAlphabet[rng() % 64];
    }
    ASSERT_EQ(Apply(kB64Decode, text), ModelBase64Decode(text)) << i;
  }
}

// ---- quoted-printable -----------------------------------------------------------

TEST(QuotedPrintable, HandCheckedVectors) {
  const std::string x72(72, 'x'), x73(73, 'x'), x74(74, 'x'), x75(75, 'x'), x80(80, 'x');
  const struct { Coder coder; std::string input; bool lines; std::string output; } cases[] = {
      {kQPEncode, "a=b", false, "a=3Db"}, {kQPEncode, "caf\xE9", false, "caf=E9"}, {kQPEncode, "", true, "\r\n"},
      {kQPEncode, "", false, ""}, {kQPEncode, x80, true, x75 + "=\r\n" + "xxxxx\r\n"}, {kQPEncode, x80, false, x80},
      {kQPEncode, "\r\n", false, "=0D=0A"}, {kQPEncode, "\r\n", true, "=0D=0A=\r\n\r\n"},
      {kQPEncode, "a\tb c\x7F\0~!<>"s, false, "a=09b c=7F=00~!<>"}, {kQPEncode, "\x80\xFF", false, "=80=FF"},
      {kQPEncode, " ", true, " \r\n"},                             // a blank at the end of a line stays bare
      {kQPEncode, x72 + "=", true, x72 + "=3D\r\n"},               // 72 + 3 = 75 characters still fit
      {kQPEncode, x73 + "=", true, x73 + "=\r\n=3D\r\n"},          // from 73 on an encoded byte moves
      {kQPEncode, x74 + "y", true, x74 + "y\r\n"},                 // a literal fits up to 75
      {kQPEncode, x75 + "y", true, x75 + "=\r\ny\r\n"},
      {kQPEncode, x75 + "\n", true, x75 + "=\r\n=0A=\r\n\r\n"},    // a line feed breaks the line at once
      {kQPEncode, "\n\n\r", true, "=0A=\r\n=0A=\r\n=0D\r\n"},    // a carriage return does not
      {kQPDecode, "a=3db", false, "a=b"}, {kQPDecode, "a=\r\nb", false, "ab"}, {kQPDecode, "a=ZZb", false, "ab"},
      {kQPDecode, "a=", false, "a"}, {kQPDecode, "a=4", false, "a4"},  // "=" among the last two bytes
      {kQPDecode, "=41", false, "A"}, {kQPDecode, "=e9=E9", false, "\xE9\xE9"}, {kQPDecode, "a=\nb", false, "ab"},
      {kQPDecode, "a=  \r\nb", false, "a  \r\nb"},   // the blank ends the soft break
      {kQPDecode, "a=\r\r\nb", false, "ab"}, {kQPDecode, "a=\r\n\r\nb", false, "a\r\nb"},  // one LF ends it {kQPDecode, "a=\rb", false, "ab"},
      {kQPDecode, "a=\r=41\nb", false, "aAb"},       // a decoded byte leaves the soft break on
      {kQPDecode, "x=4\ny", false, "xy"},            // "=4" CR: three bytes dropped
      {kQPDecode, "=\x80" "AB", false, "B"}, {kQPDecode, "= ", false, " "}, {kQPDecode, "===", false, ""},
      {kQPDecode, "\t\x01\x7F\x80\xFF\0"s, false, "\t"}, {kQPDecode, "line1\r\nline2\n\r", false, "line1\r\nline2\n\r"},
      {kQPDecode, "=\x01\r\nb", false, "b"},  // "=" then a control: soft break, control dropped
  };
  for (const auto &c : cases) EXPECT_EQ(Apply(c.coder, c.input, c.lines), c.output) << c.input << "|" << c.lines;
}

TEST(QuotedPrintable, RoundTripsAndLineLengths) {
  std::mt19937_64 rng(11);
  for (int i = 0; i < 4000; ++i) {
    // All byte values, or text with line breaks and blanks.
    std::string bytes;
    const size_t n = rng() % 400;
    if (i % 2) {
      bytes = Bytes(rng, n);
    } else {
      const std::string pieces[] = {"word", " ", "\r\n", "\n", "=", "\t", "caf\xE9", std::string(90, 'y')};
      while (bytes.size() < n) bytes += pieces[rng() % 8];
    }
    const std::string plain = Apply(kQPEncode, bytes);
    ASSERT_EQ(plain.find_first_of("\r\n"), std::string::npos) << i;
    ASSERT_EQ(Apply(kQPDecode, plain), bytes) << i;
    const std::string broken = Apply(kQPEncode, bytes, true);
    ASSERT_EQ(Apply(kQPDecode, broken), bytes + "\r\n") << i;  // the CR LF that ends the last line
    // Lines of at most 76 characters (75 and the soft break's "="); printable ASCII only.
    size_t start = 0;
    for (size_t at; (at = broken.find("\r\n", start)) != std::string::npos; start = at + 2)
      ASSERT_LE(at - start, 76u) << i;
    ASSERT_EQ(start, broken.size()) << i;
    for (char c : broken) ASSERT_TRUE((c >= 32 && c <= 126) || c == '\r' || c == '\n') << i;
  }
}

// ---- the output array ---------------------------------------------------------------

// The capacity that appending the bytes one at a time ends with.
uint64_t ByteByByteCapacity(uint64_t capacity, uint64_t finalCount) {
  while (capacity < finalCount) capacity = ArrayNextSize(capacity, capacity + 1, kMaxSize);
  return capacity;
}

TEST(Codec, AppendsAndGrowsAsByteByByte) {
  std::mt19937_64 rng(3);
  const Coder coders[] = {kB64Encode, kB64Decode, kQPEncode, kQPDecode};
  const struct { uint32_t count, capacity; } starts[] = {{0, 0}, {3, 3}, {3, 4}, {5, 16}, {0, 1000}, {1000, 1024},
                                                         {17, 64}, {250, 256}, {1, 5}};
  const size_t lengths[] = {0, 1, 2, 3, 4, 57, 58, 100, 1000, 5000, 70000};
  for (size_t k = 0; k < 4; ++k) {
    for (const auto &start : starts) {
      for (size_t length : lengths) {
        for (bool lines : {false, true}) {
          std::string input = Bytes(rng, length);
          if (k == 1) input = Apply(kB64Encode, input, lines);  // decoders get texts they can use
          if (k == 3) input = Apply(kQPEncode, input, lines);
          const std::string expected = Apply(coders[k], input, lines);
          UByteArray a{static_cast<unsigned char *>(malloc(start.capacity ? start.capacity : 1)), start.count,
                       start.capacity};
          memset(a.elements, 0xA5, start.capacity ? start.capacity : 1);
          const std::string prefix(reinterpret_cast<const char *>(a.elements), start.count);
          if (start.capacity == 0) free(a.elements), a.elements = nullptr;
          coders[k](&a, input, lines);
          const std::string all(reinterpret_cast<const char *>(a.elements), a.count);
          ASSERT_EQ(all, prefix + expected) << k << " " << start.count << "/" << start.capacity << " " << length;
          ASSERT_EQ(a.capacity, ByteByByteCapacity(start.capacity, a.count))
              << k << " " << start.count << "/" << start.capacity << " " << length;
          // No terminating NUL: a byte after the count that was never written keeps its value.
          if (a.count < start.capacity) {
            ASSERT_EQ(a.elements[a.count], 0xA5) << k;
          }
          free(a.elements);
        }
      }
    }
  }
}

// Records claiming almost the 32-bit limit: the growth rule's assertion comes
// before anything is written or allocated.
unsigned char g_neverTouched[1];

TEST(CodecDeathTest, ArrayLimitIsTheGrowthRule) {
  const char *kClamp = "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91";
  const char *kOver = "'newCapacity <= maxSize - 1' failed at kzlib/array:78";
  const kztest::FatalCase cases[] = {
      {[] { UByteArray a{g_neverTouched, 4294967294u, 4294967294u}; Base64Encode(&a, "a", 1, 0); }, 0, kClamp},
      {[] { UByteArray a{g_neverTouched, 4294967294u, 4294967294u}; Base64Decode(&a, "YQ==", 4); }, 0, kClamp},
      {[] { UByteArray a{g_neverTouched, 4294967294u, 4294967294u}; QPEncode(&a, "a", 1, 0); }, 0, kClamp},
      {[] { UByteArray a{g_neverTouched, 4294967294u, 4294967294u}; QPDecode(&a, "a", 1); }, 0, kClamp},
      {[] { UByteArray a{g_neverTouched, 4294967295u, 4294967295u}; QPDecode(&a, "a", 1); }, 0, kOver},
      {[] { UByteArray a{g_neverTouched, 4294967295u, 4294967295u}; Base64Encode(&a, "a", 1, 0); }, 0, kOver},
      {[] {  // 400 characters past a count of 4294967000 do not fit: nothing is written
         static const std::string bytes(300, 'z');
         UByteArray a{g_neverTouched, 4294967000u, 4294967294u};
         Base64Encode(&a, bytes.data(), 300, 0);
       },
       0, kClamp},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
