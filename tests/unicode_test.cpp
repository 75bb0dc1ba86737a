// Unicode converters: documented cases, errors and their locations, array growth
// against a one-element-at-a-time model, faults at every position of short
// inputs against a plain reference reader, and iconv as an outside peer.
#include "kz/unicode.h"

#include <errno.h>
#if !defined(_WIN32)
#include <iconv.h>
#endif

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "reference_unicode.h"
#include "test_support.h"

namespace {

using namespace std::literals;
using namespace kzref;
using kztest::Scoped;

uint32_t Len(std::string_view s) { return static_cast<uint32_t>(s.size()); }

// Small zero-filled buffers: inputs that are never read, and storage behind
// records that claim far more.
uint16_t g_units[8];
uint32_t g_points[8];
unsigned char g_bytes[8];

// One encoder on `text` into an array of `count` elements within `capacity`
// room: the array afterwards as the reference reader and the growth model have
// it (see Converts), and exactly the error the reader raises, with its location.
template <typename Record>
testing::AssertionResult Encodes(int (*encode)(Record *, const char *, uint32_t), Form form, std::string_view text,
                                 uint32_t count, uint32_t capacity) {
  const Reference ref = RefRead(text, form);
  const bool ok = ref.outcome == Outcome::kOk;
  auto convert = [&](Record *a) { return encode(a, text.data(), Len(text)); };
  const uint64_t model = ModelEncode(count, capacity, ref.values.size(), ok);
  int error = 0;
  KZErrorClear();
  const std::string fault = Converts<Record>(convert, ok, count, capacity, ref.values, ok, model, &error);
  if (!fault.empty()) return testing::AssertionFailure() << fault << ", form " << int(form) << ", size " << text.size();
  if (ref.outcome != Outcome::kInvalid && ref.outcome != Outcome::kTooLarge)
    return testing::AssertionResult(error == 0 && KZErrorCode() == 0)
           << "errno " << error << " (" << KZErrorMessage() << ") after " << testing::PrintToString(std::string(text));
  struct Level {
    std::string module, function, file;
    uint32_t line = 0;
  } level;  // the innermost
  KZErrorEnumerateStack(
      [](void *to, const char *, const char *module, const char *function, const char *file, uint32_t line) {
        if (!static_cast<Level *>(to)->line) *static_cast<Level *>(to) = {module, function, file, line};
      },
      &level);
  static std::atomic<uint32_t> readerLines[2];  // one error exit per reader, shared by both messages
  uint32_t seen = 0;
  if (readerLines[form == Form::kUCS4].compare_exchange_strong(seen, level.line)) seen = level.line;
  const char *message =
      ref.outcome == Outcome::kInvalid ? "Invalid UTF-8 sequence" : "Unicode character larger than FFFF";
  if (error != -2 || KZErrorCode() != KZ_ERR_PROTOCOL || KZErrorMessage() != std::string(message) ||
      level.module != "kzlib" || level.function != (form == Form::kUCS4 ? "ReadUTF8_32" : "ReadUTF8Inline") ||
      level.file != "kzlib/unicode/unicode" || level.line == 0 || level.line != seen)
    return testing::AssertionFailure() << "error '" << KZErrorMessage() << "' at " << level.module << "."
                                       << level.function << " " << level.file << ":" << level.line << " (first " << seen
                                       << ")";
  return testing::AssertionSuccess();
}

testing::AssertionResult Encodes(Form form, std::string_view text, uint32_t count, uint32_t capacity) {
  if (form == Form::kUCS2) return Encodes(UCS2Encode, form, text, count, capacity);
  if (form == Form::kUCS4) return Encodes(UCS4Encode, form, text, count, capacity);
  return Encodes(ISO88591Encode, form, text, count, capacity);
}

TEST(Unicode, EncodersOnDocumentedInputs) {
  constexpr Form k2 = Form::kUCS2, k4 = Form::kUCS4, kL = Form::kLatin1;
  constexpr Outcome kOk = Outcome::kOk, kBad = Outcome::kInvalid, kBig = Outcome::kTooLarge, kCut = Outcome::kTruncated,
                    kNot1 = Outcome::kNotLatin1;
  const struct {
    Form form;
    std::string_view text;
    std::vector<uint32_t> values;
    Outcome outcome;
  } cases[] = {
      {k2, "A\xC3\xA9"sv, {0x41, 0xE9}, kOk},
      {k2, "\xC0\x80xy"sv, {}, kBad},
      {k2, "ab\xC3"sv, {'a', 'b'}, kCut},
      {k2, "\xF0\x9F\x98\x80"sv, {}, kBig},
      {k4, "\xF0\x9F\x98\x80"sv, {0x1F600}, kOk},
      {k4, "\xF8\x80\x80\x80"sv, {0x200000}, kOk},
      {k4, "\xFF\xBF\xBF\xBF"sv, {0x3FFFFF}, kOk},  // no upper bound
      {k4, "\xF0\x8F\xBF\xBF"sv, {}, kBad},
      {k4, "\xF4\x8F\xBF"sv, {}, kCut},
      {k4, "\xF0"sv, {}, kCut},
      {k2, "\xF0"sv, {}, kBig},
      {k2, "x\xF8\x41"sv, {'x'}, kBig},  // whatever follows
      {kL, "\xC4\x80"sv, {}, kNot1},
      {kL, "\xC3\xBF"sv, {0xFF}, kOk},
      {kL, "ok\xE2\x82\xAC"sv, {'o', 'k'}, kNot1},
      {kL, "\xF0\x9F\x98\x80"sv, {}, kBig},
      {kL, "\xC4\x41"sv, {}, kBad},  // read fully before the range test
      {k2, "\xED\xA0\xBD\xED\xB8\x80"sv, {0xD83D, 0xDE00}, kOk},
      {k4, "\xED\xBF\xBF"sv, {0xDFFF}, kOk},  // unpaired
      {k2, "\xE0\xA0\x80\xEF\xBF\xBF\xC2\x80\xDF\xBF"sv, {0x800, 0xFFFF, 0x80, 0x7FF}, kOk},
      {k2, "\xE0\x9F\xBF"sv, {}, kBad},
      {k2, "\xC1\xBF"sv, {}, kBad},
      {k2, "a\x80"sv, {'a'}, kBad},
      {k2, "\xE2\x28\xA1"sv, {}, kBad},
      {k2, "\xE0\x80"sv, {}, kCut},  // cut off before it could be found overlong
      {k2, "\xE0\x41"sv, {}, kBad},
      {k4, "a\0b"sv, {'a', 0, 'b'}, kOk},
      {k2, ""sv, {}, kOk},
  };
  for (const auto &c : cases) {
    EXPECT_TRUE(RefRead(c.text, c.form) == (Reference{c.values, c.outcome})) << c.text;
    for (uint32_t capacity : {0u, 3u, 64u}) EXPECT_TRUE(Encodes(c.form, c.text, capacity ? 2 : 0, capacity)) << c.text;
  }
}

// A null input returns 0 at once: the array, errno and an earlier error stay as
// they were. A count of 0 writes the terminator only, growing an empty array to 4.
TEST(Unicode, NullInputAndCountZero) {
  auto holds = [](const char *name, auto a, auto convert, auto input) {
    SCOPED_TRACE(name);
    KZErrorThrow(KZ_ERR_TIMEOUT, "earlier");
    errno = 7;
    EXPECT_EQ(convert(&a, nullptr, 5), 0);
    EXPECT_EQ(errno, 7);
    EXPECT_EQ(a.elements, nullptr);
    EXPECT_EQ(a.count, 0u);
    EXPECT_EQ(a.capacity, 0u);
    errno = -2;
    EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
    EXPECT_EQ(convert(&a, input, 0), 1);
    EXPECT_EQ(a.count, 0u);
    EXPECT_EQ(a.capacity, 4u);
    if (a.elements) {
      EXPECT_EQ(a.elements[0], 0u);
    }
    ArrayFree_(&a);
  };
  holds("UCS2Encode", UShortArray{}, UCS2Encode, "x");
  holds("UCS4Encode", UIntArray{}, UCS4Encode, "x");
  holds("ISO88591Encode", UByteArray{}, ISO88591Encode, "x");
  holds("ISO88591Decode", UByteArray{}, ISO88591Decode, "x");
  holds("UCS2Decode", UByteArray{}, UCS2Decode, g_units);
  holds("UCS4Decode", UByteArray{}, UCS4Decode, g_points);
}

TEST(Unicode, DecodersOnDocumentedInputs) {
  const uint16_t pair[] = {0xD83D, 0xDE00};
  const uint32_t points[] = {0x1F600, 0x200000, 0x10FFFF, 0x1FFFFF, 0x3FFFFF, 0xFFFFFFFF, 0, 0x7FF, 0xD800};
  Scoped<UByteArray> a, dropped, b, c;
  KZErrorClear();
  ASSERT_EQ(UCS2Decode(&a, pair, 2) + UCS4Decode(&dropped, points + 1, 1) + UCS4Decode(&b, points, 9) +
                ISO88591Decode(&c, "a\xE9\xFF\x80", 4),
            4);
  EXPECT_EQ(kztest::Bytes(a), "\xED\xA0\xBD\xED\xB8\x80");
  EXPECT_EQ(dropped.count, 0u);  // without a trace
  EXPECT_EQ(dropped.elements[0], 0u);
  EXPECT_EQ(kztest::Bytes(b), "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xF7\xBF\xBF\xBF"s + '\0' + "\xDF\xBF\xED\xA0\x80");
  EXPECT_EQ(kztest::Bytes(c), "a\xC3\xA9\xC3\xBF\xC2\x80");
  EXPECT_EQ(KZErrorCode(), 0u);
}

// Sequences that break, end or stretch the reading rules, put at every offset
// of texts of every length 0-40 made of ASCII, Latin-1, CJK and 4-byte fillers
// (each at least 40 bytes long), into arrays growing in small steps and arrays
// with room for every block.
const std::string_view kInserts[] = {"\x80"sv,
                                     "\xBF"sv,
                                     "\xC0\x80"sv,
                                     "\xC1\xBF"sv,
                                     "\xC3"sv,
                                     "\xC3\xA9"sv,
                                     "\xC4\x80"sv,
                                     "\xC2\x41"sv,
                                     "\xE2\x82"sv,
                                     "\xE2\x82\xAC"sv,
                                     "\xE0\x80"sv,
                                     "\xE0\x9F\xBF"sv,
                                     "\xE2\x28\xA1"sv,
                                     "\xE2\x82\x28"sv,
                                     "\xED\xA0\x80"sv,
                                     "\xEF\xBF\xBF"sv,
                                     "\xF0\x9F\x98\x80"sv,
                                     "\xF0\x8F\xBF\xBF"sv,
                                     "\xF8\x80\x80\x80"sv,
                                     "\xFF\xBF\xBF\xBF"sv,
                                     "\xF4\x8F\xBF"sv,
                                     "\xF0\x80\x41\x80"sv,
                                     "\0"sv};
const std::string_view kFillers[] = {
    "The quick brown fox jumps over the lazy dog, twice: 0123456789."sv,
    "d\xC3\xA9j\xC3\xA0 vu, \xC3\xA7\xC3\xA0 et l\xC3\xA0 \xC3\xBC\xC3\xB6\xC3\xA4\xC3\x9F"
    " \xC2\xA9\xC2\xB5 fin de ligne"sv,
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\x96\x87 ab \xE4\xB8\xAD\xE6\x96\x87\xED\x95\x9C\xEA\xB8\x80"
    "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"sv,
    "\xF0\x9F\x98\x80x\xF0\x90\x80\x80\xF4\x8F\xBF\xBFyz\xF0\x9F\x8E\x89 0123456789abcdefghij"sv};

// One thread per filler: conversions failing in different ways at once must
// each see their own error (converters touch only the caller's array and the
// calling thread's error record).
TEST(Unicode, FaultAtEveryOffsetMatchesReference) {
  std::vector<std::thread> threads;
  for (std::string_view filler : kFillers)
    threads.emplace_back([filler] {
      for (size_t length = 0; length <= 40; ++length)
        for (size_t at = 0; at <= length; ++at)
          for (std::string_view insert : kInserts) {
            const std::string text = std::string(filler).insert(at, insert).substr(0, length);
            for (Form form : {Form::kUCS2, Form::kUCS4, Form::kLatin1}) {
              ASSERT_TRUE(Encodes(form, text, 0, 0));
              ASSERT_TRUE(Encodes(form, text, 3, 256));
            }
          }
    });
  for (std::thread &thread : threads) thread.join();
}

// The same around the edges of the 32- and 64-byte blocks of the wide
// kernels: texts of those lengths and a little more, made of each filler
// repeated, with one sequence put at every offset.
TEST(Unicode, FaultAtEveryOffsetOfWideBlocks) {
  std::vector<std::thread> threads;
  for (std::string_view filler : kFillers)
    threads.emplace_back([filler] {
      std::string repeated;
      while (repeated.size() < 220) repeated += filler;
      for (size_t length : {31u, 32u, 34u, 63u, 64u, 65u, 66u, 67u, 96u, 127u, 128u, 130u, 131u, 200u})
        for (size_t at = 0; at <= length; ++at)
          for (std::string_view insert : kInserts) {
            const std::string text = std::string(repeated).insert(at, insert).substr(0, length);
            for (Form form : {Form::kUCS2, Form::kUCS4, Form::kLatin1}) {
              ASSERT_TRUE(Encodes(form, text, 0, 0));
              ASSERT_TRUE(Encodes(form, text, 3, 512));
            }
          }
    });
  for (std::thread &thread : threads) thread.join();
}

// A decoder on n random elements, mostly ASCII or every length class and its
// borders mixed, against the reference writer and the growth model.
template <typename In>
testing::AssertionResult Decodes(int (*decode)(UByteArray *, const In *, uint32_t), std::mt19937 &rng, size_t n,
                                 uint32_t count, uint32_t capacity) {
  static const uint32_t kBorders[] = {0x7F, 0x80, 0x7FF, 0x800, 0xD800, 0xDFFF, 0xFFFF, 0x10000, 0x1FFFFF, 0x200000};
  const uint32_t top = sizeof(In) == 1 ? 0x100 : sizeof(In) == 2 ? 0x10000 : 0x400000, ascii = rng() % 4 == 0;
  std::vector<In> in(n);
  for (In &v : in) {
    const uint32_t pick = ascii ? 0 : rng() % 4, x = rng();
    v = static_cast<In>(pick == 0 ? x % 0x80 : pick == 1 ? kBorders[x % 10] : pick == 2 ? x % top : x % 0x800);
    if (sizeof(In) == 4 && rng() % 64 == 0) v = static_cast<In>(rng());
  }
  uint64_t model = capacity;
  const std::vector<uint32_t> bytes = RefDecode(in, count, &model);
  const In none = 0;  // an empty input is not a null one
  auto convert = [&](UByteArray *a) { return decode(a, in.empty() ? &none : in.data(), static_cast<uint32_t>(n)); };
  const std::string fault = Converts<UByteArray>(convert, 1, count, capacity, bytes, true, model);
  return testing::AssertionResult(fault.empty()) << fault << " (" << n << " elements of " << sizeof(In) << " bytes)";
}

TEST(Unicode, DecodersMatchReferenceAndGrowthModel) {
  std::mt19937 rng(11);
  for (int round = 0; round < 6; ++round)
    for (size_t length = 0; length <= 40 || (length <= 140 && length % 3 == 0); ++length)
      for (uint32_t capacity : {0u, 9u, 16u, 23u, 64u, 200u}) {
        ASSERT_TRUE(Decodes(ISO88591Decode, rng, length, capacity / 3, capacity));
        ASSERT_TRUE(Decodes(UCS2Decode, rng, length, capacity / 3, capacity));
        ASSERT_TRUE(Decodes(UCS4Decode, rng, length, capacity / 3, capacity));
      }
  for (size_t length : {1000u, 4093u, 70000u}) {
    ASSERT_TRUE(Decodes(ISO88591Decode, rng, length, 0, 0));
    ASSERT_TRUE(Decodes(UCS2Decode, rng, length, 0, 0));
    ASSERT_TRUE(Decodes(UCS4Decode, rng, length, 7, 30));
  }
}

#if !defined(_WIN32)
// iconv's conversion of a whole text, or false when it refuses the input.
bool Iconv(const char *toCode, const char *fromCode, std::string_view in, std::string *out) {
  const iconv_t cd = iconv_open(toCode, fromCode);
  out->assign(in.size() * 4 + 16, '\0');
  char *from = const_cast<char *>(in.data()), *to = out->data();
  size_t inLeft = in.size(), outLeft = out->size();
  const bool converted = iconv(cd, &from, &inLeft, &to, &outLeft) != static_cast<size_t>(-1) && inLeft == 0;
  out->resize(out->size() - outLeft);
  iconv_close(cd);  // an iconv_t that failed to open fails both calls
  return converted;
}

// Plane 0 through UTF-16LE with both 16-bit converters, every code point
// through UTF-32LE with both 32-bit ones.
TEST(Unicode, AgreesWithIconv) {
  for (uint32_t first = 0; first < 0x110000; first += 0x4000) {
    const size_t width = first < 0x10000 ? 2 : 4;
    std::vector<uint32_t> values;
    std::string in, utf8;
    for (uint32_t c = first; c < first + 0x4000; ++c)
      if (c < 0xD800 || c > 0xDFFF) {
        values.push_back(c);
        for (size_t b = 0; b < width; ++b) in += static_cast<char>(c >> (8 * b));
      }
    ASSERT_TRUE(Iconv("UTF-8", width == 2 ? "UTF-16LE" : "UTF-32LE", in, &utf8));
    auto agrees = [&](auto &&a, auto encode, auto decode) {
      Scoped<UByteArray> back;
      ASSERT_EQ(encode(&a, utf8.data(), Len(utf8)), 1);
      ASSERT_EQ(decode(&back, a.elements, a.count), 1);
      ASSERT_EQ(kztest::Bytes(back), utf8);
      ASSERT_EQ(std::vector<uint32_t>(a.elements, a.elements + a.count), values);
    };
    SCOPED_TRACE(testing::Message() << "block from " << std::hex << first);
    agrees(Scoped<UIntArray>(), UCS4Encode, UCS4Decode);
    if (width == 2 && !HasFatalFailure()) agrees(Scoped<UShortArray>(), UCS2Encode, UCS2Decode);
    if (HasFatalFailure()) return;
  }
}

TEST(Unicode, Latin1AgreesWithIconv) {
  std::string all, utf8;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  ASSERT_TRUE(Iconv("UTF-8", "ISO-8859-1", all, &utf8));
  Scoped<UByteArray> decoded, encoded;
  ASSERT_EQ(ISO88591Decode(&decoded, all.data(), Len(all)) + ISO88591Encode(&encoded, utf8.data(), Len(utf8)), 2);
  EXPECT_EQ(kztest::Bytes(decoded), utf8);
  EXPECT_EQ(kztest::Bytes(encoded), all);
  // Every other plane-0 character: the encoder fails without an error.
  for (uint32_t c = 0x100; c < 0x10000; c = c == 0xD7FF ? 0xE000 : c + 1) {
    const std::string one = RefWrite(c);
    Scoped<UByteArray> a;
    KZErrorClear();
    ASSERT_EQ(ISO88591Encode(&a, one.data(), Len(one)), 0) << c;
    ASSERT_EQ(a.count, 0u) << c;
    ASSERT_EQ(KZErrorCode(), 0u) << c;
  }
}
#else
// Windows has no iconv; the converters are checked against it on Linux.
TEST(Unicode, AgreesWithIconv) { GTEST_SKIP() << "iconv is not available on Windows"; }
TEST(Unicode, Latin1AgreesWithIconv) { GTEST_SKIP() << "iconv is not available on Windows"; }
#endif

// Records that claim more than 2^31 elements (over a small real buffer that is
// never reached): the growth rule's limits end the process before any access.
TEST(UnicodeDeathTest, GrowthLimits) {
  const char *kClamp = "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91";
  const char *kOver = "'newCapacity <= maxSize - 1' failed at kzlib/array:78";
  const kztest::FatalCase cases[] = {
      // Appends grow within the 32-bit counter range: a full array at its top stops there.
      {[] {
         UShortArray a{g_units, 4294967294u, 4294967294u};
         UCS2Encode(&a, "a", 1);
       },
       0, kClamp},
      // The terminator and the decoders' 8 free bytes must stay below 2^31 elements.
      {[] {
         UShortArray a{g_units, 2147483648u, 2147483648u};
         UCS2Encode(&a, "", 0);
       },
       0, kOver},
      {[] {
         UByteArray a{g_bytes, 2147483640u, 2147483646u};
         UCS2Decode(&a, g_units, 1);
       },
       0, kClamp},
      {[] {
         UByteArray a{g_bytes, 2147483647u, 2147483647u};
         ISO88591Decode(&a, "", 0);
       },
       0, kOver},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
