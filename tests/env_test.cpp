// Environment variables through the library, the user name and string arrays.
#include <errno.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kz/env.h"
#include "kz/error.h"
#include "kz/format.h"
#include "test_support.h"

extern char **environ;

namespace {

using kztest::Bytes;
using kztest::Scoped;

std::string Get(const char *name, size_t size = 256) {
  std::vector<char> buffer(size ? size : 1, 'x');
  if (!KZGetEnvironmentVariable(name, buffer.data(), size)) return "<absent>";
  return buffer.data();
}

TEST(Environment, RoundTripsUtf8NamesAndValues) {
  struct Row {
    const char *name, *value;
  } rows[] = {
      {"KZ_TEST_PLAIN", "value"},
      {"KZ_TEST_\xC3\xA9t\xC3\xA9", "caf\xC3\xA9 \xE2\x82\xAC 100"},
      {"KZ_TEST_\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x9D\xB1\xE4\xBA\xAC=Tokyo"},
      {"KZ_TEST_EMPTY", ""},
  };
  for (const Row &row : rows) {
    ASSERT_EQ(KZSetEnvironmentVariable(row.name, row.value), 1) << row.name;
    EXPECT_EQ(Get(row.name), row.value);
    EXPECT_STREQ(getenv(row.name), row.value);  // the process environment itself changed
    Scoped<UByteArray> out;
    UByteArrayPrintf(&out, "pre:");
    EXPECT_EQ(KZUBAGetEnvironmentVariable(row.name, &out), 1);
    EXPECT_EQ(Bytes(out), std::string("pre:") + row.value);
    EXPECT_EQ(out.elements[out.count], '\0');
    unsetenv(row.name);
  }
}

TEST(Environment, NullValueSetsTheEmptyTextAndTheVariableExists) {
  ASSERT_EQ(KZSetEnvironmentVariable("KZ_TEST_NULL", nullptr), 1);
  EXPECT_EQ(Get("KZ_TEST_NULL"), "");
  Scoped<UByteArray> out;
  EXPECT_EQ(KZUBAGetEnvironmentVariable("KZ_TEST_NULL", &out), 1);
  EXPECT_EQ(out.count, 0u);
  unsetenv("KZ_TEST_NULL");
}

TEST(Environment, AbsentVariableIsQuietZeroWithBufferUntouched) {
  unsetenv("KZ_TEST_ABSENT");
  char buffer[8] = "keep";
  errno = 0;
  EXPECT_EQ(KZGetEnvironmentVariable("KZ_TEST_ABSENT", buffer, sizeof buffer), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);
  EXPECT_STREQ(buffer, "keep");
  Scoped<UByteArray> out;
  EXPECT_EQ(KZUBAGetEnvironmentVariable("KZ_TEST_ABSENT", &out), 0);
  EXPECT_EQ(out.elements, nullptr);
}

TEST(Environment, BufferCutsByteWise) {
  ASSERT_EQ(KZSetEnvironmentVariable("KZ_TEST_CUT", "0123456789"), 1);
  EXPECT_EQ(Get("KZ_TEST_CUT", 4), "012");
  EXPECT_EQ(Get("KZ_TEST_CUT", 1), "");
  EXPECT_EQ(Get("KZ_TEST_CUT", 11), "0123456789");
  ASSERT_EQ(KZSetEnvironmentVariable("KZ_TEST_CUT", "\xC3\xA9\xC3\xA9"), 1);
  EXPECT_EQ(Get("KZ_TEST_CUT", 2), "\xC3");  // half a character
  char untouched[2] = "u";
  EXPECT_EQ(KZGetEnvironmentVariable("KZ_TEST_CUT", untouched, 0), 1);
  EXPECT_STREQ(untouched, "u");
  unsetenv("KZ_TEST_CUT");
}

TEST(Environment, TextsTheEncoderRefusesGiveZero) {
  struct Row {
    const char *name, *value;
  } rows[] = {
      {"KZ_TEST_BAD\xFF", "v"},             // invalid lead byte in the name
      {"KZ_TEST_BAD", "\x80"},              // stray continuation byte
      {"KZ_TEST_BAD", "\xF0\x9F\x98\x80"},  // above U+FFFF
      {"KZ_TEST_BAD", "cut \xC3"},          // sequence cut off at the end
  };
  unsetenv("KZ_TEST_BAD");
  for (const Row &row : rows) {
    EXPECT_EQ(KZSetEnvironmentVariable(row.name, row.value), 0) << row.value;
    EXPECT_EQ(getenv("KZ_TEST_BAD"), nullptr);
  }
  // A value placed by someone else that the encoder refuses is not handed out.
  setenv("KZ_TEST_BAD", "\xFF", 1);
  EXPECT_EQ(Get("KZ_TEST_BAD"), "<absent>");
  unsetenv("KZ_TEST_BAD");
}

TEST(Environment, SystemRefusalIsErrnoMinusOne) {
  for (const char *name : {"", "A=B"}) {
    errno = 0;
    EXPECT_EQ(KZSetEnvironmentVariable(name, "v"), 0) << name;
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(KZGetLastError(), EINVAL);
  }
}

TEST(Environment, AppendCopiesEveryEntryInOrderAndTerminates) {
  ASSERT_EQ(KZSetEnvironmentVariable("KZ_TEST_APPEND", "x y"), 1);
  StringArray array = {};
  char *first[] = {const_cast<char *>("FIRST=1"), nullptr};
  StringArrayAppend(&array, first);
  ASSERT_EQ(KZAppendEnvironmentVariables(&array), 1);
  uint32_t expected = 0;
  for (char **entry = environ; *entry; entry++) expected++;
  ASSERT_EQ(array.count, expected + 1);
  EXPECT_EQ(array.elements[array.count], nullptr);
  EXPECT_EQ(KZCompareEnvironment(array.elements + 1, environ), 1);
  EXPECT_NE(array.elements[1], environ[0]);  // copies, not the process's strings
  EXPECT_STREQ(StringArrayEnvGet(&array, "kz_test_append"), "x y");
  StringArrayClear(&array);
  ArrayFree(array);
  unsetenv("KZ_TEST_APPEND");
}

TEST(Environment, CompareIsExactOrderedAndCaseSensitive) {
  char a1[] = "A=1", b2[] = "B=2", lowerA[] = "a=1";
  char *ab[] = {a1, b2, nullptr}, *ab2[] = {a1, b2, nullptr}, *ba[] = {b2, a1, nullptr};
  char *a[] = {a1, nullptr}, *lower[] = {lowerA, nullptr}, *empty[] = {nullptr}, *empty2[] = {nullptr};
  struct Row {
    char **x, **y;
    int want;
  } rows[] = {
      {nullptr, nullptr, 1}, {empty, nullptr, 0}, {nullptr, empty, 0}, {empty, empty2, 1}, {ab, ab2, 1},
      {ab, ba, 0},           {ab, a, 0},          {a, ab, 0},          {a, lower, 0},
  };
  for (const Row &row : rows) EXPECT_EQ(KZCompareEnvironment(row.x, row.y), row.want) << &row - rows;
}

TEST(Environment, UserNameCountsItsTerminator) {
  passwd *entry = getpwuid(geteuid());
  if (!entry) GTEST_SKIP() << "the effective user has no password entry";
  Scoped<UByteArray> out;
  UByteArrayPrintf(&out, "user:");
  ASSERT_EQ(KZGetUsername(&out), 1);
  EXPECT_EQ(out.count, 5 + strlen(entry->pw_name) + 1);
  EXPECT_EQ(Bytes(out), std::string("user:") + entry->pw_name + std::string(1, '\0'));
  EXPECT_GE(out.capacity, 5u + 257u);
}

TEST(Environment, GettersRacingASetterReadWholeValues) {
  const std::string shortValue = "s", longValue(4000, 'L');
  ASSERT_EQ(KZSetEnvironmentVariable("KZ_TEST_RACE", shortValue.c_str()), 1);
  std::atomic<bool> stop{false};
  std::thread setter([&] {
    for (int i = 0; i < 2000; i++) KZSetEnvironmentVariable("KZ_TEST_RACE", (i % 2 ? shortValue : longValue).c_str());
    stop = true;
  });
  int reads = 0;
  while (!stop || reads == 0) {
    Scoped<UByteArray> out;
    ASSERT_EQ(KZUBAGetEnvironmentVariable("KZ_TEST_RACE", &out), 1);
    std::string value = Bytes(out);
    ASSERT_TRUE(value == shortValue || value == longValue) << value.size();
    reads++;
  }
  setter.join();
  unsetenv("KZ_TEST_RACE");
}

// ---- string arrays ----------------------------------------------------------

std::vector<std::string> Entries(const StringArray &array) {
  std::vector<std::string> entries;
  for (uint32_t i = 0; i < array.count; i++) entries.push_back(array.elements[i] ? array.elements[i] : "<null>");
  return entries;
}

struct ScopedStrings : StringArray {
  ScopedStrings(std::initializer_list<const char *> entries) : StringArray{} {
    std::vector<char *> vector;
    for (const char *entry : entries) vector.push_back(const_cast<char *>(entry));
    vector.push_back(nullptr);
    StringArrayAppend(this, vector.data());
  }
  ~ScopedStrings() {
    StringArrayClear(this);
    ArrayFree_(static_cast<StringArray *>(this));
  }
};

TEST(StringArrays, AppendCopiesAndTerminatesNullVectorDoesNothing) {
  StringArray array = {};
  StringArrayAppend(&array, nullptr);
  EXPECT_EQ(array.elements, nullptr);
  EXPECT_EQ(array.capacity, 0u);
  char *none[] = {nullptr};
  StringArrayAppend(&array, none);
  ASSERT_NE(array.elements, nullptr);
  EXPECT_EQ(array.count, 0u);
  EXPECT_EQ(array.elements[0], nullptr);
  char one[] = "one", two[] = "two";
  char *vector[] = {one, two, nullptr};
  StringArrayAppend(&array, vector);
  EXPECT_EQ(Entries(array), (std::vector<std::string>{"one", "two"}));
  EXPECT_NE(array.elements[0], one);
  EXPECT_EQ(array.elements[2], nullptr);
  uint32_t capacity = array.capacity;
  StringArrayClear(&array);
  EXPECT_EQ(array.count, 0u);
  EXPECT_EQ(array.capacity, capacity);
  ArrayFree(array);
}

TEST(StringArrays, EnvGetMatchesNamesFoldedBeforeTheEqualsSign) {
  ScopedStrings array{"NOEQUALS", "PATHEXT=.exe", "PATH=/bin", "Path=second", "A=x=y", "=C:=C:\\", "\xC3\xA9=acute"};
  struct Row {
    const char *name, *want;
  } rows[] = {
      {"PATH", "/bin"},      {"path", "/bin"},     {"PATH=ignored", "/bin"}, {"PATHE", nullptr}, {"PAT", nullptr},
      {"PATHEXT", ".exe"},   {"A", "x=y"},         {"NOEQUALS", nullptr},    {"", "C:=C:\\"},    {"\xC3\x89", nullptr},
      {"\xC3\xA9", "acute"}, {"MISSING", nullptr},
  };
  for (const Row &row : rows) {
    const char *got = StringArrayEnvGet(&array, row.name);
    if (row.want)
      EXPECT_STREQ(got, row.want) << row.name;
    else
      EXPECT_EQ(got, nullptr) << row.name;
  }
}

TEST(StringArrays, EnvSetSlotRules) {
  ScopedStrings array{"PATH=a", "HOME=/h", "TERM=x"};
  // Absent name, null value: 1 and nothing changes.
  EXPECT_EQ(StringArrayEnvSet(&array, "ABSENT", nullptr), 1);
  EXPECT_EQ(Entries(array), (std::vector<std::string>{"PATH=a", "HOME=/h", "TERM=x"}));
  // Replacement keeps the slot and takes the given spelling.
  EXPECT_EQ(StringArrayEnvSet(&array, "Path", "b"), 0);
  EXPECT_EQ(Entries(array), (std::vector<std::string>{"Path=b", "HOME=/h", "TERM=x"}));
  // Adding appends and terminates; the whole name goes into the entry.
  EXPECT_EQ(StringArrayEnvSet(&array, "NEW=odd", "v"), 1);
  EXPECT_EQ(Entries(array), (std::vector<std::string>{"Path=b", "HOME=/h", "TERM=x", "NEW=odd=v"}));
  EXPECT_EQ(array.elements[4], nullptr);
  EXPECT_STREQ(StringArrayEnvGet(&array, "new"), "odd=v");
  // Removal closes the gap; the slot at count keeps the pointer that was last.
  char *last = array.elements[3];
  EXPECT_EQ(StringArrayEnvSet(&array, "home", nullptr), 0);
  EXPECT_EQ(Entries(array), (std::vector<std::string>{"Path=b", "TERM=x", "NEW=odd=v"}));
  EXPECT_EQ(array.elements[3], last);
  // Removing the last entry leaves its freed pointer in the slot (not read).
  EXPECT_EQ(StringArrayEnvSet(&array, "NEW", nullptr), 0);
  EXPECT_EQ(array.count, 2u);
  EXPECT_NE(array.elements[2], nullptr);
  // A later append re-terminates.
  char *none[] = {nullptr};
  StringArrayAppend(&array, none);
  EXPECT_EQ(array.elements[2], nullptr);
}

}  // namespace
