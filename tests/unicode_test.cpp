// Unicode converters: documented cases, errors and their locations, array growth
// against a one-element-at-a-time model, faults at every position of short
// inputs against a plain reference reader, and iconv as an outside peer.
#include "kz/unicode.h"

#include <errno.h>
#include <iconv.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kz/array.h"
#include "kz/error.h"
#include "reference_unicode.h"
#include "test_support.h"

namespace {

using namespace std::literals;
using namespace kzref;

// ---- arrays with a known prefix and marked spare room -------------------------------

template <typename Record>
struct Fixture {
  using Unit = std::remove_pointer_t<decltype(Record::elements)>;
  static constexpr Unit kMark = static_cast<Unit>(0xA5A5A5A5u);
  Record array{};
  uint32_t count0;
  uint32_t capacity0;

  Fixture(uint32_t count, uint32_t capacity) : count0(count), capacity0(capacity) {
    if (capacity) ArrayGrowExact_(&array, capacity, sizeof(Unit), __FILE__, __LINE__);
    for (uint32_t i = 0; i < capacity; ++i) array.elements[i] = i < count ? static_cast<Unit>(i * 7 + 1) : kMark;
    array.count = count;
  }
  ~Fixture() { ArrayFree_(&array); }
  Fixture(const Fixture &) = delete;

  // The prefix is kept, `appended` follows it, the terminator is there
  // exactly on success, the spare room is untouched, and the capacity is the
  // model's.
  testing::AssertionResult Holds(const std::vector<uint32_t> &appended, bool terminated, uint64_t capacity) const {
    if (array.count != count0 + appended.size())
      return testing::AssertionFailure() << "count " << array.count << ", expected " << count0 + appended.size();
    if (array.capacity != capacity)
      return testing::AssertionFailure() << "capacity " << array.capacity << ", expected " << capacity;
    for (uint32_t i = 0; i < count0; ++i)
      if (array.elements[i] != static_cast<Unit>(i * 7 + 1)) return testing::AssertionFailure() << "prefix at " << i;
    for (size_t i = 0; i < appended.size(); ++i)
      if (array.elements[count0 + i] != appended[i])
        return testing::AssertionFailure() << "element " << i << ": " << uint32_t{array.elements[count0 + i]}
                                           << ", expected " << appended[i];
    const uint32_t next = array.count;
    if (terminated && array.elements[next] != 0) return testing::AssertionFailure() << "no terminator";
    // Beyond that, the part that was there before the call must be unwritten.
    for (uint32_t i = next + (terminated ? 1 : 0); i < std::min(capacity0, array.capacity); ++i)
      if (array.elements[i] != kMark) return testing::AssertionFailure() << "spare element " << i << " written";
    return testing::AssertionSuccess();
  }
};

uint32_t Len(std::string_view s) { return static_cast<uint32_t>(s.size()); }

struct Level {
  std::string text, module, function, file;
  uint32_t line;
};

Level Innermost() {
  std::vector<Level> levels;
  auto add = [](void *to, const char *text, const char *module, const char *function, const char *file,
                uint32_t line) { static_cast<std::vector<Level> *>(to)->push_back({text, module, function, file, line}); };
  KZErrorEnumerateStack(add, &levels);
  return levels.empty() ? Level{} : levels[0];
}

// ---- running one encoder on a fixture -------------------------------------------------

int RunEncoder(Form form, void *array, std::string_view text) {
  switch (form) {
    case Form::kUCS2: return UCS2Encode(static_cast<UShortArray *>(array), text.data(), Len(text));
    case Form::kUCS4: return UCS4Encode(static_cast<UIntArray *>(array), text.data(), Len(text));
    default: return ISO88591Encode(static_cast<UByteArray *>(array), text.data(), Len(text));
  }
}

// Converts `text` into an array of `count` prefix elements and `capacity`
// room; everything observable must match the reference and the model.
template <typename Record>
testing::AssertionResult EncodeMatches(Form form, std::string_view text, uint32_t count, uint32_t capacity) {
  const Reference ref = RefRead(text, form);
  Fixture<Record> f(count, capacity);
  KZErrorClear();
  const int result = RunEncoder(form, &f.array, text);
  const bool ok = ref.outcome == Outcome::kOk;
  auto where = [&] { return testing::Message() << " (form " << int(form) << ", " << text.size() << " bytes)"; };
  if (result != (ok ? 1 : 0)) return testing::AssertionFailure() << "result " << result << where();
  auto held = f.Holds(ref.values, ok, ModelEncode(count, capacity, ref.values.size(), ok));
  if (!held) return held << where();
  const bool raised = ref.outcome == Outcome::kInvalid || ref.outcome == Outcome::kTooLarge;
  if (!raised) {
    if (KZErrorCode() != 0 || errno != 0) return testing::AssertionFailure() << "error recorded" << where();
    return testing::AssertionSuccess();
  }
  const char *message = ref.outcome == Outcome::kInvalid ? "Invalid UTF-8 sequence" : "Unicode character larger than FFFF";
  if (KZErrorCode() != 0x200000003ull || std::string(KZErrorMessage()) != message)
    return testing::AssertionFailure() << "error " << KZErrorCode() << " '" << KZErrorMessage() << "'" << where();
  const Level level = Innermost();
  const char *function = form == Form::kUCS4 ? "ReadUTF8_32" : "ReadUTF8Inline";
  if (level.module != "kzlib" || level.function != function || level.file != "kzlib/unicode/unicode")
    return testing::AssertionFailure() << "location " << level.module << "." << level.function << "(" << level.file
                                       << ")" << where();
  return testing::AssertionSuccess();
}

testing::AssertionResult EncodeMatches(Form form, std::string_view text, uint32_t count, uint32_t capacity) {
  switch (form) {
    case Form::kUCS2: return EncodeMatches<UShortArray>(form, text, count, capacity);
    case Form::kUCS4: return EncodeMatches<UIntArray>(form, text, count, capacity);
    default: return EncodeMatches<UByteArray>(form, text, count, capacity);
  }
}

constexpr Form kForms[] = {Form::kUCS2, Form::kUCS4, Form::kLatin1};

struct Unicode : testing::Test {
  void TearDown() override { KZErrorClear(); }
};

// ---- documented cases ------------------------------------------------------------------

TEST_F(Unicode, EncodersOnDocumentedInputs) {
  const uint32_t kX = ~0u;  // marks "fails": no terminator
  const struct {
    Form form;
    std::string_view text;
    std::vector<uint32_t> values;  // appended; a trailing kX means result 0
    const char *error;             // raised message, or null
  } cases[] = {
      {Form::kUCS2, "A\xC3\xA9"sv, {0x41, 0xE9}, nullptr},
      {Form::kUCS2, "\xC0\x80xy"sv, {kX}, "Invalid UTF-8 sequence"},
      {Form::kUCS2, "ab\xC3"sv, {'a', 'b', kX}, nullptr},
      {Form::kUCS2, "\xF0\x9F\x98\x80"sv, {kX}, "Unicode character larger than FFFF"},
      {Form::kUCS4, "\xF0\x9F\x98\x80"sv, {0x1F600}, nullptr},
      {Form::kUCS4, "\xF8\x80\x80\x80"sv, {0x200000}, nullptr},
      {Form::kUCS4, "\xFF\xBF\xBF\xBF"sv, {0x3FFFFF}, nullptr},  // no upper bound
      {Form::kUCS4, "\xF0\x8F\xBF\xBF"sv, {kX}, "Invalid UTF-8 sequence"},  // overlong
      {Form::kUCS4, "\xF4\x8F\xBF"sv, {kX}, nullptr},
      {Form::kUCS4, "\xF0"sv, {kX}, nullptr},
      {Form::kUCS2, "\xF0"sv, {kX}, "Unicode character larger than FFFF"},  // whatever follows
      {Form::kUCS2, "x\xF8\x41"sv, {'x', kX}, "Unicode character larger than FFFF"},
      {Form::kLatin1, "\xC4\x80"sv, {kX}, nullptr},
      {Form::kLatin1, "\xC3\xBF"sv, {0xFF}, nullptr},
      {Form::kLatin1, "ok\xE2\x82\xAC"sv, {'o', 'k', kX}, nullptr},
      {Form::kLatin1, "\xF0\x9F\x98\x80"sv, {kX}, "Unicode character larger than FFFF"},
      {Form::kLatin1, "\xC4\x41"sv, {kX}, "Invalid UTF-8 sequence"},  // read fully before the range test
      {Form::kUCS2, "\xED\xA0\xBD\xED\xB8\x80"sv, {0xD83D, 0xDE00}, nullptr},  // surrogates pass unpaired
      {Form::kUCS4, "\xED\xBF\xBF"sv, {0xDFFF}, nullptr},
      {Form::kUCS2, "\xE0\xA0\x80\xEF\xBF\xBF\xC2\x80\xDF\xBF"sv, {0x800, 0xFFFF, 0x80, 0x7FF}, nullptr},
      {Form::kUCS2, "\xE0\x9F\xBF"sv, {kX}, "Invalid UTF-8 sequence"},
      {Form::kUCS2, "\xC1\xBF"sv, {kX}, "Invalid UTF-8 sequence"},
      {Form::kUCS2, "a\x80"sv, {'a', kX}, "Invalid UTF-8 sequence"},
      {Form::kUCS2, "\xE2\x28\xA1"sv, {kX}, "Invalid UTF-8 sequence"},
      {Form::kUCS2, "\xE0\x80"sv, {kX}, nullptr},  // cut off before it could be found overlong
      {Form::kUCS2, "\xE0\x41"sv, {kX}, "Invalid UTF-8 sequence"},  // present and wrong before cut off
      {Form::kUCS4, "a\0b"sv, {'a', 0, 'b'}, nullptr},
      {Form::kUCS2, ""sv, {}, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "form " << int(c.form) << " '" << c.text << "'");
    std::vector<uint32_t> values = c.values;
    const bool fails = !values.empty() && values.back() == kX;
    if (fails) values.pop_back();
    // Documented results, then every detail against the reference and model.
    const Reference ref = RefRead(c.text, c.form);
    EXPECT_EQ(ref.values, values);
    EXPECT_EQ(ref.outcome == Outcome::kOk, !fails);
    EXPECT_EQ(ref.outcome == Outcome::kInvalid || ref.outcome == Outcome::kTooLarge, c.error != nullptr);
    if (c.error) {
      EXPECT_STREQ(c.error, ref.outcome == Outcome::kInvalid ? "Invalid UTF-8 sequence" : "Unicode character larger than FFFF");
    }
    for (uint32_t capacity : {0u, 3u, 64u}) EXPECT_TRUE(EncodeMatches(c.form, c.text, capacity ? 2 : 0, capacity));
  }
}

TEST_F(Unicode, ErrorsCarryTheReaderLocation) {
  const struct { Form form; std::string_view text; const char *function; } cases[] = {
      {Form::kUCS2, "\x80"sv, "ReadUTF8Inline"}, {Form::kUCS2, "\xF0\x9F\x98\x80"sv, "ReadUTF8Inline"},
      {Form::kLatin1, "\xC3\x28"sv, "ReadUTF8Inline"}, {Form::kLatin1, "\xF5"sv, "ReadUTF8Inline"},
      {Form::kUCS4, "\xE2\x82"sv "x"sv, "ReadUTF8_32"}, {Form::kUCS4, "\xF0\x80\x80\x80"sv, "ReadUTF8_32"},
  };
  uint32_t lines[2] = {0, 0};
  for (const auto &c : cases) {
    UShortArray units{};
    UIntArray points{};
    UByteArray bytes{};
    void *array = c.form == Form::kUCS2 ? static_cast<void *>(&units)
                  : c.form == Form::kUCS4 ? static_cast<void *>(&points)
                                          : static_cast<void *>(&bytes);
    KZErrorClear();
    EXPECT_EQ(RunEncoder(c.form, array, c.text), 0);
    EXPECT_EQ(KZErrorCode(), KZ_ERR_PROTOCOL);
    EXPECT_EQ(errno, -2);
    uint32_t line = 0;
    EXPECT_STREQ(KZErrorLocation(&line), "kzlib/unicode/unicode");
    const Level level = Innermost();
    EXPECT_TRUE(level.module == "kzlib" && level.function == c.function && level.line == line && line > 0)
        << level.module << "." << level.function << ":" << level.line;
    // One error exit per reader: both messages of a reader share its location.
    uint32_t &seen = lines[c.form == Form::kUCS4];
    EXPECT_TRUE(seen == 0 || seen == line) << c.function << " at " << seen << " and " << line;
    seen = line;
    ArrayFree(units);
    ArrayFree(points);
    ArrayFree(bytes);
  }
}

TEST_F(Unicode, NullInputAndEmptyInput) {
  UShortArray units{};
  UIntArray points{};
  UByteArray bytes{};
  const uint16_t unit = 0x41;
  const uint32_t point = 0x41;
  KZErrorThrow(KZ_ERR_TIMEOUT, "earlier");  // must survive untouched
  errno = 7;
  EXPECT_EQ(UCS2Encode(&units, nullptr, 5) + UCS4Encode(&points, nullptr, 5) + ISO88591Encode(&bytes, nullptr, 5) +
                UCS2Decode(&bytes, nullptr, 5) + UCS4Decode(&bytes, nullptr, 5) + ISO88591Decode(&bytes, nullptr, 5),
            0);
  EXPECT_EQ(errno, 7);
  errno = -2;
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  EXPECT_TRUE(units.elements == nullptr && units.count + units.capacity == 0);
  EXPECT_TRUE(points.elements == nullptr && points.count + points.capacity == 0);
  EXPECT_TRUE(bytes.elements == nullptr && bytes.count + bytes.capacity == 0);
  // Count 0 writes the terminator only, growing an empty array to 4.
  EXPECT_EQ(UCS2Encode(&units, "x", 0), 1);
  EXPECT_EQ(UCS4Encode(&points, "x", 0), 1);
  EXPECT_TRUE(units.count == 0 && units.capacity == 4 && units.elements[0] == 0);
  EXPECT_TRUE(points.count == 0 && points.capacity == 4 && points.elements[0] == 0);
  for (int which = 0; which < 4; ++which) {
    UByteArray b{};
    const int result = which == 0   ? ISO88591Encode(&b, "x", 0)
                       : which == 1 ? UCS2Decode(&b, &unit, 0)
                       : which == 2 ? UCS4Decode(&b, &point, 0)
                                    : ISO88591Decode(&b, "x", 0);
    EXPECT_TRUE(result == 1 && b.count == 0 && b.capacity == 4 && b.elements[0] == 0) << which;
    ArrayFree(b);
  }
  ArrayFree(units);
  ArrayFree(points);
}

TEST_F(Unicode, DecodersOnDocumentedInputs) {
  const uint16_t pair[] = {0xD83D, 0xDE00};
  const uint32_t points[] = {0x1F600, 0x200000, 0x10FFFF, 0x1FFFFF, 0x3FFFFF, 0xFFFFFFFF, 0, 0x7FF, 0xD800};
  UByteArray a{};
  ASSERT_EQ(UCS2Decode(&a, pair, 2), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(a.elements), a.count), "\xED\xA0\xBD\xED\xB8\x80");
  EXPECT_EQ(a.elements[a.count], 0);
  a.count = 0;
  ASSERT_EQ(UCS4Decode(&a, points + 1, 1), 1);  // dropped without a trace
  EXPECT_TRUE(a.count == 0 && a.elements[0] == 0);
  ASSERT_EQ(UCS4Decode(&a, points, 9), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(a.elements), a.count),
            "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xF7\xBF\xBF\xBF"s + '\0' + "\xDF\xBF\xED\xA0\x80");
  a.count = 0;
  ASSERT_EQ(ISO88591Decode(&a, "a\xE9\xFF\x80", 4), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(a.elements), a.count), "a\xC3\xA9\xC3\xBF\xC2\x80");
  EXPECT_EQ(KZErrorCode(), 0u);
  ArrayFree(a);
}

// ---- faults at every position ---------------------------------------------------------

// Sequences that break, end or stretch the reading rules, put at every offset of
// texts of every length 0-40 made of ASCII, Latin-1, CJK and 4-byte fillers.
const std::string_view kInserts[] = {
    "\x80"sv, "\xBF"sv, "\xC0\x80"sv, "\xC1\xBF"sv, "\xC3"sv, "\xC3\xA9"sv, "\xC4\x80"sv, "\xC2\x41"sv,
    "\xE2\x82"sv, "\xE2\x82\xAC"sv, "\xE0\x80"sv, "\xE0\x9F\xBF"sv, "\xE2\x28\xA1"sv, "\xE2\x82\x28"sv,
    "\xED\xA0\x80"sv, "\xEF\xBF\xBF"sv, "\xF0\x9F\x98\x80"sv, "\xF0\x8F\xBF\xBF"sv, "\xF8\x80\x80\x80"sv,
    "\xFF\xBF\xBF\xBF"sv, "\xF4\x8F\xBF"sv, "\xF0\x80\x41\x80"sv, "\0"sv,
};

const std::string_view kFillers[] = {
    "The quick brown fox jumps over the lazy dog, twice: 0123456789."sv,
    "d\xC3\xA9j\xC3\xA0 vu, \xC3\xA7\xC3\xA0 et l\xC3\xA0 \xC3\xBC\xC3\xB6\xC3\xA4\xC3\x9F \xC2\xA9\xC2\xB5 fin de ligne"sv,
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\x96\x87 ab \xE4\xB8\xAD\xE6\x96\x87\xED\x95\x9C\xEA\xB8\x80"
    "\xD0\x9F\xD1\x80\xD0\xB8"sv,
    "\xF0\x9F\x98\x80x\xF0\x90\x80\x80\xF4\x8F\xBF\xBFyz\xF0\x9F\x8E\x89 0123456789abcdefghij"sv,
};

TEST_F(Unicode, FaultAtEveryOffsetMatchesReference) {
  for (std::string_view filler : kFillers)
    for (size_t length = 0; length <= 40; ++length)
      for (size_t at = 0; at <= length; ++at)
        for (std::string_view insert : kInserts) {
          const size_t split = std::min(at, filler.size());
          std::string text = std::string(filler.substr(0, split)) + std::string(insert) + std::string(filler.substr(split));
          text.resize(length);
          for (Form form : kForms) {
            // An empty array (growing in small steps) and one with room for every block.
            ASSERT_TRUE(EncodeMatches(form, text, 0, 0));
            ASSERT_TRUE(EncodeMatches(form, text, 3, 256));
          }
        }
}

TEST_F(Unicode, LongTextsAcrossGrowthSteps) {
  std::mt19937 rng(5);
  for (int round = 0; round < 40; ++round) {
    // Runs of one filler at a time, sometimes with a fault near the end.
    std::string text;
    const size_t target = 64 + rng() % 20000;
    while (text.size() < target) {
      const std::string_view filler = kFillers[rng() % 4];
      text += filler.substr(0, rng() % filler.size());
      if (rng() % 8 == 0) text += std::string(rng() % 40, 'a');
    }
    if (round % 3 == 0) text += kInserts[rng() % std::size(kInserts)];
    for (Form form : kForms) {
      ASSERT_TRUE(EncodeMatches(form, text, 0, 0));
      ASSERT_TRUE(EncodeMatches(form, text, 1, 17));
      ASSERT_TRUE(EncodeMatches(form, text, 5, 40000));
    }
  }
}

// ---- decoders against the reference writer and the model -------------------------------

template <typename In>
testing::AssertionResult DecodeMatches(const std::vector<In> &in, uint32_t count, uint32_t capacity) {
  std::vector<uint32_t> expected;
  std::vector<size_t> lengths;
  for (In v : in) {
    const std::string bytes = RefWrite(v);
    lengths.push_back(bytes.size());
    for (char c : bytes) expected.push_back(static_cast<uint8_t>(c));
  }
  Fixture<UByteArray> f(count, capacity);
  const uint32_t n = static_cast<uint32_t>(in.size());
  const In none = 0;
  const In *data = in.empty() ? &none : in.data();  // an empty input is not a null one
  int result;
  if constexpr (sizeof(In) == 1) result = ISO88591Decode(&f.array, reinterpret_cast<const char *>(data), n);
  else if constexpr (sizeof(In) == 2) result = UCS2Decode(&f.array, data, n);
  else result = UCS4Decode(&f.array, data, n);
  if (result != 1) return testing::AssertionFailure() << "result " << result;
  return f.Holds(expected, true, ModelDecode(count, capacity, lengths));
}

template <typename In>
std::vector<In> RandomElements(std::mt19937 &rng, size_t n) {
  // Mostly ASCII runs, then every length class and its borders.
  static const uint32_t kBorders[] = {0x7F, 0x80, 0x7FF, 0x800, 0xD800, 0xDFFF, 0xFFFF, 0x10000, 0x1FFFFF, 0x200000};
  std::vector<In> v;
  const uint32_t top = sizeof(In) == 1 ? 0xFF : sizeof(In) == 2 ? 0xFFFF : 0x3FFFFF;
  const int style = static_cast<int>(rng() % 4);
  for (size_t i = 0; i < n; ++i) {
    uint32_t x;
    switch (style == 0 ? 0 : rng() % 4) {
      case 0: x = rng() % 0x80; break;
      case 1: x = kBorders[rng() % std::size(kBorders)]; break;
      case 2: x = rng() % (top + 1); break;
      default: x = rng() % 0x800; break;
    }
    v.push_back(static_cast<In>(sizeof(In) == 4 && rng() % 64 == 0 ? rng() : x));
  }
  return v;
}

TEST_F(Unicode, DecodersMatchReferenceAndGrowthModel) {
  std::mt19937 rng(11);
  for (int round = 0; round < 6; ++round)
    for (size_t length = 0; length <= 40; ++length)
      for (uint32_t capacity : {0u, 9u, 16u, 23u, 64u}) {
        const uint32_t count = capacity ? capacity / 3 : 0;
        ASSERT_TRUE(DecodeMatches(RandomElements<uint8_t>(rng, length), count, capacity)) << length;
        ASSERT_TRUE(DecodeMatches(RandomElements<uint16_t>(rng, length), count, capacity)) << length;
        ASSERT_TRUE(DecodeMatches(RandomElements<uint32_t>(rng, length), count, capacity)) << length;
      }
  for (size_t length : {1000u, 4093u, 70000u}) {
    ASSERT_TRUE(DecodeMatches(RandomElements<uint8_t>(rng, length), 0, 0));
    ASSERT_TRUE(DecodeMatches(RandomElements<uint16_t>(rng, length), 0, 0));
    ASSERT_TRUE(DecodeMatches(RandomElements<uint32_t>(rng, length), 7, 30));
  }
}

// Conversions append: a second call continues the first one's text.
TEST_F(Unicode, AppendsToExistingContents) {
  UShortArray units{};
  ASSERT_EQ(UCS2Encode(&units, "ab", 2), 1);
  ASSERT_EQ(UCS2Encode(&units, "\xC3\xA9", 2), 1);
  UByteArray bytes{};
  ASSERT_EQ(UCS2Decode(&bytes, units.elements, units.count), 1);
  ASSERT_EQ(UCS2Decode(&bytes, units.elements, units.count), 1);
  EXPECT_STREQ(reinterpret_cast<char *>(bytes.elements), "ab\xC3\xA9" "ab\xC3\xA9");
  EXPECT_EQ(bytes.count, 8u);
  ArrayFree(units);
  ArrayFree(bytes);
}

// Converters touch only the caller's array and the calling thread's error
// record: threads failing in different ways at once each see their own error.
TEST_F(Unicode, ThreadsKeepTheirOwnErrors) {
  const std::string_view texts[] = {"\x80 bad"sv, "\xF0\x9F\x98\x80"sv, "ok \xC3\xA9"sv, "cut \xE2\x82"sv};
  const uint64_t codes[] = {KZ_ERR_PROTOCOL, KZ_ERR_PROTOCOL, 0, 0};
  const char *messages[] = {"Invalid UTF-8 sequence", "Unicode character larger than FFFF", nullptr, nullptr};
  bool ok[4] = {false, false, false, false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      bool same = true;
      for (int round = 0; round < 2000 && same; ++round) {
        UShortArray units{};
        KZErrorClear();
        const int result = UCS2Encode(&units, texts[t].data(), Len(texts[t]));
        same = result == (t == 2) && KZErrorCode() == codes[t] &&
               (!messages[t] || std::string(KZErrorMessage()) == messages[t]);
        ArrayFree(units);
      }
      ok[t] = same;
    });
  for (auto &thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_TRUE(ok[t]) << t;
}

// ---- iconv as an outside peer ------------------------------------------------------------

struct Iconv {
  iconv_t cd;
  Iconv(const char *to, const char *from) : cd(iconv_open(to, from)) {}
  ~Iconv() { iconv_close(cd); }
  // The converted text, or false when iconv refused the input.
  bool Convert(std::string_view in, std::string *out) {
    out->assign(in.size() * 4 + 16, '\0');
    char *from = const_cast<char *>(in.data());
    size_t fromLeft = in.size();
    char *to = out->data();
    size_t toLeft = out->size();
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    const size_t r = iconv(cd, &from, &fromLeft, &to, &toLeft);
    out->resize(out->size() - toLeft);
    return r != static_cast<size_t>(-1) && fromLeft == 0;
  }
};

std::string LittleEndian(const std::vector<uint32_t> &values, size_t width) {
  std::string s;
  for (uint32_t v : values)
    for (size_t b = 0; b < width; ++b) s += static_cast<char>(v >> (8 * b));
  return s;
}

TEST_F(Unicode, PlaneZeroAgreesWithIconv) {
  Iconv toUtf8("UTF-8", "UTF-16LE"), toUtf16("UTF-16LE", "UTF-8");
  ASSERT_NE(toUtf8.cd, reinterpret_cast<iconv_t>(-1));
  UShortArray units{};
  UByteArray bytes{};
  for (uint32_t first = 0; first < 0x10000; first += 0x1000) {
    std::vector<uint32_t> points;
    for (uint32_t c = first; c < first + 0x1000; ++c)
      if (c < 0xD800 || c > 0xDFFF) points.push_back(c);
    const std::string utf16 = LittleEndian(points, 2);
    std::string utf8, back;
    ASSERT_TRUE(toUtf8.Convert(utf16, &utf8));
    units.count = 0;
    ASSERT_EQ(UCS2Encode(&units, utf8.data(), Len(utf8)), 1);
    ASSERT_EQ(std::string(reinterpret_cast<char *>(units.elements), units.count * 2), utf16) << std::hex << first;
    bytes.count = 0;
    ASSERT_EQ(UCS2Decode(&bytes, units.elements, units.count), 1);
    ASSERT_EQ(std::string(reinterpret_cast<char *>(bytes.elements), bytes.count), utf8) << std::hex << first;
    ASSERT_TRUE(toUtf16.Convert(utf8, &back));
    ASSERT_EQ(back, utf16);
  }
  ArrayFree(units);
  ArrayFree(bytes);
}

TEST_F(Unicode, CodePointsAgreeWithIconv) {
  Iconv toUtf8("UTF-8", "UTF-32LE");
  UIntArray points{};
  UByteArray bytes{};
  for (uint32_t first = 0; first < 0x110000; first += 0x10000) {
    std::vector<uint32_t> values;
    for (uint32_t c = first; c < first + 0x10000; ++c)
      if (c < 0xD800 || c > 0xDFFF) values.push_back(c);
    std::string utf8;
    ASSERT_TRUE(toUtf8.Convert(LittleEndian(values, 4), &utf8));
    points.count = 0;
    ASSERT_EQ(UCS4Encode(&points, utf8.data(), Len(utf8)), 1);
    ASSERT_EQ(std::vector<uint32_t>(points.elements, points.elements + points.count), values) << std::hex << first;
    bytes.count = 0;
    ASSERT_EQ(UCS4Decode(&bytes, points.elements, points.count), 1);
    ASSERT_EQ(std::string(reinterpret_cast<char *>(bytes.elements), bytes.count), utf8) << std::hex << first;
  }
  ArrayFree(points);
  ArrayFree(bytes);
}

TEST_F(Unicode, Latin1AgreesWithIconv) {
  Iconv toUtf8("UTF-8", "ISO-8859-1"), toLatin1("ISO-8859-1", "UTF-8");
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  std::string utf8, latin1;
  ASSERT_TRUE(toUtf8.Convert(all, &utf8));
  UByteArray a{};
  ASSERT_EQ(ISO88591Decode(&a, all.data(), Len(all)), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(a.elements), a.count), utf8);
  a.count = 0;
  ASSERT_EQ(ISO88591Encode(&a, utf8.data(), Len(utf8)), 1);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(a.elements), a.count), all);
  // Every other plane-0 character: iconv refuses it, the encoder fails without an error.
  Iconv fromUtf16("UTF-8", "UTF-16LE");
  for (uint32_t c = 0x100; c < 0x10000; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;
    std::string one;
    ASSERT_TRUE(fromUtf16.Convert(LittleEndian({c}, 2), &one));
    ASSERT_FALSE(toLatin1.Convert(one, &latin1)) << c;
    a.count = 0;
    KZErrorClear();
    ASSERT_EQ(ISO88591Encode(&a, one.data(), Len(one)), 0) << c;
    ASSERT_TRUE(a.count == 0 && KZErrorCode() == 0) << c;
  }
  ArrayFree(a);
}

// ---- growth limits -------------------------------------------------------------------------

// Records that claim more than 2^31 elements (over a small real buffer that is
// never reached): the growth rule's limits end the process before any access.
TEST(UnicodeDeathTest, GrowthLimits) {
  static uint16_t units[8];
  static unsigned char bytes[8];
  const uint16_t one[] = {0x41};
  // Appends grow within the 32-bit counter range: a full array at its top stops there.
  EXPECT_DEATH(([] { UShortArray a{units, 4294967294u, 4294967294u}; UCS2Encode(&a, "a", 1); })(),
               "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91");
  // The terminator and the decoders' 8 free bytes must stay below 2^31 elements.
  EXPECT_DEATH(([] { UShortArray a{units, 2147483648u, 2147483648u}; UCS2Encode(&a, "", 0); })(),
               "'newCapacity <= maxSize - 1' failed at kzlib/array:78");
  EXPECT_DEATH(([&] { UByteArray a{bytes, 2147483640u, 2147483646u}; UCS2Decode(&a, one, 1); })(),
               "'newCapacity != capacity \\|\\| ! \"requested buffer is too large\"' failed at kzlib/array:91");
  EXPECT_DEATH(([] { UByteArray a{bytes, 2147483647u, 2147483647u}; ISO88591Decode(&a, "", 0); })(),
               "'newCapacity <= maxSize - 1' failed at kzlib/array:78");
}

}  // namespace
