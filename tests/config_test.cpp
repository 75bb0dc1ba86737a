// The configuration store, the word tokenizer, include chains, typed getters,
// change serials and waits, variable expansion.
#include <stdarg.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/config.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/init.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::Scoped;
using kztest::TempDir;

// Collects the messages the library issues while it lives: "text@level" each.
struct Messages {
  Messages() { KZSetMessageHandler(Record), seen_ = &lines; }
  ~Messages() { KZSetMessageHandler(previous_), seen_ = outer_; }
  static void Record(const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
    char text[1024];
    vsnprintf(text, sizeof text, format, args);
    seen_->push_back(std::string(text) + "@" + std::to_string(level));
  }
  static inline std::vector<std::string> *seen_ = nullptr;
  std::vector<std::string> lines, *outer_ = seen_;
  KZMessageHandler previous_ = KZGetMessageHandler();
};

// The handler's record of a read: "<line>[word][word]..." per dispatched line,
// with "{file}" before it when the file name changed.
struct Trace {
  std::string text, lastFile;
  const char *rejectWord = nullptr;
};

int TraceLine(void *context, const char *fileName, int line, int argc, char **argv) {
  Trace &trace = *static_cast<Trace *>(context);
  std::string file = fileName ? fileName : "";
  if (file != trace.lastFile) trace.text += "{" + file.substr(file.find_last_of('/') + 1) + "}";
  trace.lastFile = file;
  trace.text += std::to_string(line);
  for (int i = 0; i < argc; i++) trace.text += "[" + std::string(argv[i]) + "]";
  EXPECT_EQ(argv[argc], nullptr);
  return trace.rejectWord && strcmp(argv[0], trace.rejectWord) == 0 ? 0 : 1;
}

// What a read gives: the trace, then the result and every message unless it is a quiet 0.
std::string Read(const std::string &text, const char *path = nullptr, const char *rejectWord = nullptr) {
  Messages messages;
  Trace trace{"", "", rejectWord};
  int result = path ? ReadConfigFile(path, TraceLine, &trace)
                    : ReadConfigFileFromBuffer(text.data(), static_cast<unsigned>(text.size()), TraceLine, &trace);
  if (result != 0 || !messages.lines.empty()) trace.text += " " + std::to_string(result);
  for (const std::string &line : messages.lines) trace.text += " " + line;
  return trace.text;
}
std::string ReadPath(const std::string &path) { return Read("", path.c_str()); }

std::string Write(const TempDir &dir, const std::string &name, const std::string &content) {
  std::string path = dir / name;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string GetString(const char *key, const char *defaultValue = nullptr) {
  Scoped<UByteArray> out;
  return ConfigKeyGetString(key, defaultValue, &out) ? Bytes(out) : "<absent>";
}

uint64_t Serial() { return ConfigKeyGetULong("@serial", ~0ull); }
uint64_t Modified() { return ConfigKeyGetULong("@modified", 0); }
std::string ErrorText() { return KZErrorMessage() ? KZErrorMessage() : ""; }

// The enumeration under prefix, in order: "key=value", pseudo keys by name only.
std::vector<std::string> Table(const char *prefix) {
  std::vector<std::string> entries;
  ConfigKeyEnumerate(
      [](void *context, const char *key, const char *value) {
        auto *list = static_cast<std::vector<std::string> *>(context);
        list->push_back(key[0] == '@' ? key : std::string(key) + "=" + value);
        return 1;
      },
      &entries, prefix);
  return entries;
}

// The store's invariant over a prefix: strictly increasing keys.
void ExpectSortedUnique(const char *prefix) {
  std::vector<std::string> entries = Table(prefix);
  for (size_t i = 1; i < entries.size(); i++)
    ASSERT_LT(entries[i - 1].substr(0, entries[i - 1].find('=')), entries[i].substr(0, entries[i].find('=')));
}

int Load(const std::string &text, const char *prefix = nullptr) {
  return LoadConfigurationKeysPrefixed(text.data(), static_cast<unsigned>(text.size()), prefix);
}

// Every test works under its own prefix and clears it on both ends.
class Store : public testing::Test {
 protected:
  void SetUp() override { ConfigKeyRemove("t."); }
  void TearDown() override {
    ConfigKeyRemove("t.");
    KZErrorClear();
  }
  Messages quiet_;  // expected tokenizer reports stay out of the test log
};

// ---- tokenizer ----------------------------------------------------------------

TEST(Tokenizer, BufferRules) {
  const std::string end = " -4 premature end of in-memory configuration file, line ",
                    include =
                        " -4 invalid \"include\" directive when parsing an in-memory configuration file, line 1@3 "
                        "premature end of in-memory configuration file, line 1@3";  // pending words end early
  const std::string rows[][2] = {
      {"", ""},
      {"# c\nk v\n\nb\n", "2[k][v]4[b]"},
      {"  key\tvalue \r\n", "1[key][value]"},
      {"a\240b\vc\fd\n", "1[a][b][c][d]"},  // 0xA0, VT and FF separate words too
      {"\"\" \"\"\n", "1[][]"},
      {"\\ a \\#x \\\"x a\\nb a\\\\b x\\ty\n", "1[ a][#x][\"x][anb][a\\b][xty]"},
      {"ab\\\ncd\n", "2[abcd]"},
      {"key val#ue\n", "1[key][val]"},
      {"ab\"c d\"e\n", "1[abc de]"},
      {"a\\\r\n", "1[a\r]"},  // an escaped CR is a byte, not a continuation
      {"\"x\\ty\" \"a\\nb\" \"val#ue\" \"a\\\"b\\\\c\\qd\"\n", "1[x\ty][a\nb][val#ue][a\"b\\cqd]"},
      {"\"a\\\nb\"\n", "2[ab]"},
      {"k \"ab\ncd\"\n", " -4 unmatched \" in configuration file \"(null)\", line 1@3"},
      {"k\n\"open", "1[k]" + end + "2@3"},
      {"k v # note\n", "1[k][v]"},
      {"# a \\\n still comment\nk v\n", "3[k][v]"},
      {"k v # note", end + "1@3"},
      {"k v\n# only", "1[k][v]" + end + "2@3"},
      {"k v", end + "1@3"},
      {"k v ", end + "1@3"},
      {"k v\n\n  \n", "1[k][v]"},
      {"k v\n\\", "1[k][v]"},
      {"a\\\n\\\nb", end + "3@3"},
      {"include x\n", include},
      {"\"include\" x\n", include},
      {"Include x\n", "1[Include][x]"},
      {std::string("a\0b c\n", 6), "1[a][c]"},
  };
  for (const auto &[text, want] : rows) EXPECT_EQ(Read(text), want) << text;
  EXPECT_EQ(Read("a 1\nstop here\nb 2\n", nullptr, "stop"), "1[a][1]2[stop][here]" + end + "2@3");
}

TEST(Tokenizer, FilesAndIncludeChains) {
  TempDir dir;
  std::string open = Write(dir, "open.conf", "k v\nx");
  EXPECT_EQ(ReadPath(open), "{open.conf}1[k][v] -4 premature end of configuration file \"" + open + "\", line 2@3");
  for (const std::string &path : {Write(dir, "empty.conf", ""), dir / "missing", dir.path()})
    EXPECT_EQ(ReadPath(path), " -2") << path;
  std::string absolute = Write(dir, "abs.conf", "z 26\n");
  std::string top = Write(dir, "top.conf", "a 1\ninclude sub/inc.conf\ninclude " + absolute + "\nb 2\n");
  Write(dir, "sub/inc.conf", "c 3\n\ninclude deeper.conf\n");
  Write(dir, "sub/deeper.conf", "d 4\n");
  EXPECT_EQ(ReadPath(top), "{top.conf}1[a][1]{inc.conf}1[c][3]{deeper.conf}1[d][4]{abs.conf}1[z][26]{top.conf}4[b][2]");

  std::string bad = dir / "bad.conf", at = " in configuration file \"" + bad + "\", line ",
              end = "@3 premature end of configuration file \"" + bad + "\", line ";
  const std::string rows[][2] = {
      {"include\n", " -4 invalid \"include\" directive" + at + "1" + end + "1@3"},
      {"\n\ninclude a b\n", " -4 invalid \"include\" directive" + at + "3" + end + "3@3"},
      {"include \"\"\n", " -4 invalid \"include\" directive" + at + "1" + end + "1@3"},
      {"x 1\ninclude missing.conf\n",
       "{bad.conf}1[x][1] -4 error reading file \"" + dir / "missing.conf" + "\" included" + at + "2" + end + "2@3"},
  };
  for (const auto &[text, want] : rows) {
    Write(dir, "bad.conf", text);
    EXPECT_EQ(ReadPath(bad), want) << text;
  }
}

TEST(Tokenizer, ThirtyNestedInclusionsReadTheThirtyFirstIsRefused) {
  TempDir dir;
  auto chain = [&](int files) {
    for (int i = 0; i < files - 1; i++)
      Write(dir, "f" + std::to_string(i), "k" + std::to_string(i) + " v\ninclude f" + std::to_string(i + 1) + "\n");
    Write(dir, "f" + std::to_string(files - 1), "last v\n");
  };
  chain(31);  // depths 0 to 30: thirty inclusions
  std::string read = ReadPath(dir / "f0");
  EXPECT_EQ(read.substr(read.rfind('{')), "{f30}1[last][v]");
  chain(32);  // f30 now includes f31
  Messages messages;
  Trace trace;
  EXPECT_EQ(ReadConfigFile((dir / "f0").c_str(), TraceLine, &trace), -4);
  EXPECT_EQ(trace.text.find("[last]"), std::string::npos);
  ASSERT_EQ(messages.lines.size(), 32u);  // the refusal, then each of the 31 files ends early
  EXPECT_EQ(messages.lines[0],
            "too many nested \"include\" directives in configuration file \"" + dir / "f30" + "\", line 2@3");
  EXPECT_EQ(messages.lines[31], "premature end of configuration file \"" + dir / "f0" + "\", line 2@3");
}

// ---- loading ------------------------------------------------------------------

TEST_F(Store, LoadsKeepTheLatestValueAndAFailedLoadChangesNothing) {
  ASSERT_EQ(Load("t.b \"x  y\" z\nt.c a   b\nt.d \"\"\nt.k 1\nt.k 2\nt.k 3\n"), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.b=x  y z", "t.c=a b", "t.d=", "t.k=3"}));
  ASSERT_EQ(Load("t.k 9\nt.a 1\nt.z 1\n"), 1);  // over the store's value, with neighbours on both sides
  ASSERT_EQ(Load("t.c 5\nt.c 6\n", "t.b"), 1);  // the prefix's range goes, the rest stays
  const std::vector<std::string> loaded{"t.a=1", "t.c=6", "t.d=", "t.k=9", "t.z=1"};
  EXPECT_EQ(Table("t."), loaded);

  uint64_t serial = Serial();
  EXPECT_EQ(Load("t.k 4\nt.f\nt.g 2\n", "t.k"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_EQ(ErrorText(), "parse error line 2: expected 2 arguments, got 1");
  EXPECT_EQ(Table("t."), loaded);   // the removed range came back
  EXPECT_EQ(Serial(), serial + 1);  // a failed load still counts
  EXPECT_EQ(Load(""), 1);
  EXPECT_EQ(Load("t.h 1\ninclude other\n"), 0);
  EXPECT_EQ(Table("t."), loaded);

  // Keys that agree on their first 16 and 32 bytes, and differ only after.
  const std::string longKey = "t.long.0123456789abcdefghijklmnopqrstuvwxyz.";
  Load(longKey + "b 2\n" + longKey + "a 1\n" + longKey + "b 3\n" + longKey + " 0\n" + longKey + "ab 4\n");
  std::vector<std::string> keys;
  for (const std::string &entry : Table("t.long.")) keys.push_back(entry.substr(longKey.size()));
  EXPECT_EQ(keys, (std::vector<std::string>{"=0", "a=1", "ab=4", "b=3"}));
  EXPECT_EQ(GetString((longKey + "ab").c_str()), "4");
}

TEST_F(Store, ConfigurationFiles) {
  TempDir dir;
  std::string good = Write(dir, "good.conf", "t.f.a 1\nt.f.b two words\n");
  EXPECT_EQ(LoadConfigurationFile(good.c_str()), 1);
  for (const std::string &path :
       {Write(dir, "empty.conf", ""), dir / "missing.conf", Write(dir, "bad\xFF.conf", "t.f.e 1\n")}) {
    EXPECT_EQ(LoadConfigurationFile(path.c_str()), 0);
    std::string want = "cannot open configuration file \"" + path + "\": ";
    EXPECT_EQ(ErrorText().substr(0, want.size()), want);
  }
  for (const std::string &path :
       {Write(dir, "noeol.conf", "t.f.c 1\nt.f.d 2"), Write(dir, "incl.conf", "include good.conf\n")}) {
    Messages messages;
    EXPECT_EQ(LoadConfigurationFile(path.c_str()), 0);
    EXPECT_NE(messages.lines.size(), 0u) << path;  // the tokenizer's report
  }
  EXPECT_EQ(Table("t.f."), (std::vector<std::string>{"t.f.a=1", "t.f.b=two words"}));
  EXPECT_EQ(LoadConfigurationFilePrefixed(good.c_str(), "t.f.a"), 1);

  uint64_t serial = Serial();
  EXPECT_EQ(LoadConfigurationFromRegistry(nullptr, "Software\\Any"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_NOT_SUPPORTED);
  EXPECT_EQ(ErrorText(), "not supported");
  EXPECT_EQ(Serial(), serial);
}

TEST_F(Store, HundredThousandKeysLoadAndAnswer) {
  TempDir dir;
  std::vector<int> order(100000);
  for (int i = 0; i < 100000; i++) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  std::string text;
  for (int i : order) text += "t.big." + std::to_string(i) + " " + std::to_string(i * 7) + "\n";
  uint32_t before = ConfigKeyGetUInt("@count", 0);
  ASSERT_EQ(LoadConfigurationFile(Write(dir, "big.conf", text).c_str()), 1);
  EXPECT_EQ(ConfigKeyGetUInt("@count", 0), before + 100000);
  for (int i = 0; i < 100000; i += 997) EXPECT_EQ(ConfigKeyGetInt(("t.big." + std::to_string(i)).c_str(), -1), i * 7);
  EXPECT_EQ(ConfigKeyGetInt("t.big.100000", -1), -1);
  EXPECT_EQ(Table("t.big.1234").size(), 11u);  // 1234 and 12340..12349
  ExpectSortedUnique("t.big.");
  // Lookups stay right after each kind of change to a large table.
  ConfigKeyDelete("t.big.500"), ConfigKeyReplaceString("t.big.501", "r"), ConfigKeyAddString("t.big.a", "new");
  ConfigKeyRemove("t.big.9");
  std::string seen;
  for (const char *key : {"t.big.500", "t.big.501", "t.big.502", "t.big.a", "t.big.99999", "t.big.88888"})
    seen += GetString(key) + " ";
  EXPECT_EQ(seen, "<absent> r 3514 new <absent> 622216 ");
}

// ---- getters ------------------------------------------------------------------

TEST_F(Store, NumericConversions) {
  auto all = [](const char *value) {  // Int, UInt, Long and ULong, 7 the default
    EXPECT_EQ(ConfigKeyReplaceString("t.n", value), 1);
    return std::to_string(ConfigKeyGetInt("t.n", 7)) + " " + std::to_string(ConfigKeyGetUInt("t.n", 7)) + " " +
           std::to_string(ConfigKeyGetLong("t.n", 7)) + " " + std::to_string(ConfigKeyGetULong("t.n", 7));
  };
  const char *rows[][2] = {
      {"0", "0 0 0 0"},
      {"007", "7 7 7 7"},
      {"-5", "-5 7 -5 7"},
      {"2147483647", "2147483647 2147483647 2147483647 2147483647"},
      {"2147483648", "7 2147483648 2147483648 2147483648"},
      {"-2147483648", "-2147483648 7 -2147483648 7"},
      {"-2147483649", "7 7 -2147483649 7"},
      {"4294967295", "7 4294967295 4294967295 4294967295"},
      {"4294967296", "7 7 4294967296 4294967296"},
      {"9223372036854775807", "7 7 9223372036854775807 9223372036854775807"},
      {"9223372036854775808", "7 7 7 9223372036854775808"},
      {"-9223372036854775808", "7 7 -9223372036854775808 7"},
      {"18446744073709551615", "7 7 7 18446744073709551615"},
  };
  for (const auto &[value, want] : rows) EXPECT_EQ(all(value), want) << value;
  for (const char *bad : {"-9223372036854775809", "18446744073709551616", "99999999999999999999", "", "-", "--1", "+1",
                          " 12", "12 ", "12abc", "0x10", "1e3"})
    EXPECT_EQ(all(bad), "7 7 7 7") << "'" << bad << "'";
  EXPECT_EQ(ConfigKeyGetInt("t.absent", -9), -9);
  EXPECT_EQ(ConfigKeyGetULong("t.absent", 5), 5u);
}

TEST_F(Store, BooleansAndStrings) {
  for (const char *value : {"true", "True", "TRUE", "yes", "1", "true ", "", "false"}) {
    ConfigKeyReplaceString("t.b", value);
    EXPECT_EQ(ConfigKeyGetBoolean("t.b", 7), strcmp(value, "true") == 0 ? 1 : 0) << value;
  }
  EXPECT_EQ(ConfigKeyGetBoolean("t.absent", 7), 7);

  ConfigKeyReplaceString("t.s1", "one"), ConfigKeyReplaceString("t.s2", "two");
  Scoped<UByteArray> out;
  EXPECT_NE(ConfigKeyGetString("t.s1", nullptr, &out), nullptr);
  char *whole = ConfigKeyGetString("t.s2", nullptr, &out);  // the start of the whole array
  EXPECT_EQ(whole, reinterpret_cast<char *>(out.elements));
  EXPECT_EQ(Bytes(out), "onetwo");  // appended, not replaced
  EXPECT_EQ(out.elements[out.count], '\0');
  whole = ConfigKeyGetString("t.absent", "dflt", &out);
  EXPECT_EQ(whole, reinterpret_cast<char *>(out.elements));
  EXPECT_EQ(ConfigKeyGetString("t.absent", nullptr, &out), nullptr);
  EXPECT_EQ(Bytes(out), "onetwodflt");
}

TEST_F(Store, PseudoKeys) {
  ConfigKeyReplaceString("t.x", "1");
  EXPECT_EQ(GetString("@serial"), std::to_string(Serial()));
  EXPECT_EQ(GetString("@count"), std::to_string(Table(nullptr).size() - 3));
  EXPECT_EQ(GetString("@kzarch"), KZArchitecture());
  EXPECT_EQ(GetString("@kzversion"), KZVersionString());
  EXPECT_EQ(GetString("@kzmajor") + "." + GetString("@kzminor") + "." + GetString("@kzbuild"), "6.3.20826");
  if (KZVersionBranch() == 0) {
    EXPECT_EQ(GetString("@kzbranch", "none"), "none");
  }
  EXPECT_EQ(GetString("@other", "none") + "|" + GetString("@", "none"), "none|none");
  EXPECT_EQ(ConfigKeyReplaceString("@x", "1"), 0);  // '@' keys cannot be created
  EXPECT_EQ(ConfigKeyReplaceString("@serial", "1"), 0);
  EXPECT_EQ(GetString("@x", "none"), "none");
  // Enumeration: the three computed keys first, in their order, if selected.
  EXPECT_EQ(Table("@"), (std::vector<std::string>{"@serial", "@count", "@modified"}));
  EXPECT_EQ(Table("@m"), (std::vector<std::string>{"@modified"}));
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.x=1"}));
  EXPECT_EQ(ConfigKeyEnumerate([](void *, const char *, const char *) { return 1; }, nullptr, "t.none"), 0);
  EXPECT_EQ(ConfigKeyEnumerate([](void *, const char *, const char *) { return 0; }, nullptr, nullptr), 1);
}

TEST_F(Store, EnumeratorMayReadTheStoreAndStops) {
  ASSERT_EQ(Load("t.e.a 1\nt.e.b 2\nt.e.c 3\n"), 1);
  std::vector<std::string> seen;
  ConfigKeyEnumerate(
      [](void *context, const char *key, const char *) {
        static_cast<std::vector<std::string> *>(context)->push_back(GetString(key));  // re-entrant lock
        return strcmp(key, "t.e.b") != 0 ? 1 : 0;
      },
      &seen, "t.e.");
  EXPECT_EQ(seen, (std::vector<std::string>{"1", "2"}));
}

// ---- changes -----------------------------------------------------------------

TEST_F(Store, SetStringRules) {
  Scoped<UByteArray> old;
  UByteArrayPrintf(&old, "stale");
  EXPECT_EQ(ConfigKeySetString("t.k", "v1", 0, &old), 1);  // absent: added, old emptied
  EXPECT_EQ(old.count, 0u);
  EXPECT_EQ(old.elements[0], '\0');
  uint64_t serial = Serial();
  EXPECT_EQ(ConfigKeyAddString("t.k", "v2"), 0);
  EXPECT_EQ(Serial(), serial);
  UByteArrayPrintf(&old, "junk");
  EXPECT_EQ(ConfigKeySetString("t.k", "v3", 0, &old), 0);  // oldValue filled even so
  EXPECT_EQ(Bytes(old) + GetString("t.k"), "v1v1");
  EXPECT_EQ(ConfigKeySetString("t.k", "v4", 1, &old), 1);
  EXPECT_EQ(Bytes(old) + GetString("t.k"), "v1v4");
  EXPECT_EQ(ConfigKeySetString("t.k", nullptr, 0, &old), 1);
  EXPECT_EQ(Bytes(old) + GetString("t.k"), "v4<absent>");
  EXPECT_EQ(ConfigKeyDelete("t.k"), 0);
  EXPECT_EQ(ConfigKeySetString("t.k", nullptr, 1, nullptr), 0);
  EXPECT_EQ(ConfigKeySetString(nullptr, "v", 1, nullptr), 0);
  for (const char *key : {"t.m", "t.c", "t.x", "t.a", "t.\xC3\xA9", "t.B"}) EXPECT_EQ(ConfigKeyAddString(key, "1"), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.B=1", "t.a=1", "t.c=1", "t.m=1", "t.x=1", "t.\xC3\xA9=1"}));
}

struct Pairs {
  std::vector<std::pair<const char *, const char *>> pairs;
  size_t next = 0;
  std::vector<std::string> seen{};  // keys given to Collect
};

int Collect(void *context, const char *key, const char *) {
  static_cast<Pairs *>(context)->seen.push_back(key);
  return 1;
}

int Produce(void *context, const char **key, const char **value) {
  Pairs &p = *static_cast<Pairs *>(context);
  EXPECT_EQ(*key, nullptr);
  EXPECT_EQ(*value, nullptr);
  if (p.next == p.pairs.size()) return 0;
  std::tie(*key, *value) = p.pairs[p.next++];
  return 1;
}

TEST_F(Store, Merges) {
  ConfigKeyReplaceString("t.keep", "k"), ConfigKeyReplaceString("t.gone", "g");
  Pairs pairs{
      {{"t.new", "1"}, {"t.keep", "K"}, {"t.gone", nullptr}, {"t.new", "2"}, {"t.tmp", "x"}, {"t.tmp", nullptr}}};
  EXPECT_EQ(ConfigKeyMerge(Produce, &pairs), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.keep=K", "t.new=2"}));
  Pairs nothing{{{"t.absent", nullptr}}};
  uint64_t serial = Serial();
  EXPECT_EQ(ConfigKeyMerge(Produce, &nothing), 0);
  EXPECT_EQ(ConfigKeyMerge(nullptr, nullptr), 0);
  EXPECT_EQ(Serial(), serial);
  Pairs stopped{{{"t.s", "1"}, {nullptr, "ignored"}, {"t.after", "1"}}};  // a null key ends the merge
  EXPECT_EQ(ConfigKeyMerge(Produce, &stopped), 1);
  EXPECT_EQ(GetString("t.after"), "<absent>");

  Pairs both{{{"t.m", "1"}}};
  EXPECT_EQ(ConfigKeyEnumerateAndMerge(Collect, Produce, &both, "t.k"), 1);
  EXPECT_EQ(both.seen, (std::vector<std::string>{"t.keep"}));
  EXPECT_EQ(GetString("t.m"), "1");

  Pairs refill{{{"t.r.b", "2"}}};
  ConfigKeyReplaceString("t.r.a", "1");
  EXPECT_EQ(ConfigKeyRemoveAndMerge(Produce, &refill, "t.r."), 1);
  EXPECT_EQ(Table("t.r."), (std::vector<std::string>{"t.r.b=2"}));
  serial = Serial();
  EXPECT_EQ(ConfigKeyRemoveAndMerge(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Serial(), serial);
  EXPECT_EQ(ConfigKeyRemoveAndMerge(nullptr, nullptr, "t.none."), 1);  // a removal always counts
  EXPECT_EQ(Serial(), serial + 1);
}

TEST_F(Store, EveryChangeKindBumpsTheSerialOnceAndStampsTheTime) {
  auto now1601 = [] {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) +
           11644473600ull * 1000000u;
  };
  Pairs merge{{{"t.c.m", "1"}}}, merge2{{{"t.c.m", "2"}}}, removeMerge{{{"t.c.n", "1"}}};
  struct Row {
    const char *name;
    std::function<int()> change;
    int result;
  } rows[] = {
      {"add", [] { return ConfigKeyAddString("t.c.a", "1"); }, 1},
      {"replace", [] { return ConfigKeyReplaceString("t.c.a", "2"); }, 1},
      {"delete", [] { return ConfigKeyDelete("t.c.a"); }, 1},
      {"remove", [] { return ConfigKeyRemove("t.c.none"); }, 1},
      {"merge", [&] { return ConfigKeyMerge(Produce, &merge); }, 1},
      {"enumerate and merge", [&] { return ConfigKeyEnumerateAndMerge(nullptr, Produce, &merge2, nullptr); }, 1},
      {"remove and merge", [&] { return ConfigKeyRemoveAndMerge(Produce, &removeMerge, "t.c.m"); }, 1},
      {"load", [] { return Load("t.c.l 1\n"); }, 1},
      {"failed load", [] { return Load("t.c.l\n"); }, 0},
  };
  for (Row &row : rows) {
    SCOPED_TRACE(row.name);
    uint64_t serial = Serial(), before = now1601();
    EXPECT_EQ(row.change(), row.result);
    uint64_t after = now1601();
    EXPECT_EQ(Serial(), serial + 1);
    EXPECT_GE(Modified(), before);
    EXPECT_LE(Modified(), after);
  }
}

// ---- waiting -------------------------------------------------------------------

TEST_F(Store, WaitForChangeWaitsForTheSerialToReachTheValue) {
  uint64_t serial = Serial();
  EXPECT_EQ(ConfigWaitForChange(serial, 100), 0);  // already there: at once
  EXPECT_EQ(ConfigWaitForChange(serial, 0), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ConfigWaitForChange(serial + 1, 100), 1);  // never reached
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));

  // Woken by the change it waits for: whichever runs first, the answer is 0.
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = ConfigWaitForChange(serial + 1, 0); });
  ConfigKeyReplaceString("t.w", "1");
  waiter.join();
  EXPECT_EQ(result, 0);
  // Not satisfied by a change as such, only by equality: a serial that passed the value times out.
  serial = Serial();
  std::thread passed([&] {
    ConfigKeyReplaceString("t.w", "2");
    ConfigKeyReplaceString("t.w", "3");
    result = ConfigWaitForChange(serial + 1, 50);
  });
  passed.join();
  EXPECT_EQ(result, 1);
}

TEST_F(Store, ReadersWritersAndWaitersTogether) {
  std::string bulk;  // enough keys that lookups go through the hash index
  for (int i = 0; i < 200; i++) bulk += "t.r.bulk" + std::to_string(i) + " " + std::to_string(i) + "\n";
  ASSERT_EQ(Load(bulk), 1);
  std::atomic<int> writing{2};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; w++)
    threads.emplace_back([w, &writing] {
      for (int i = 0; i < 300; i++) {
        std::string key = "t.r." + std::to_string((i * 7 + w) % 50), prefix = "t.r.l" + std::to_string(w);
        i % 5 == 4 ? ConfigKeyDelete(key.c_str()) : ConfigKeyReplaceString(key.c_str(), std::to_string(i).c_str());
        if (i % 50 == 0) Load(prefix + " " + std::to_string(i) + "\n", prefix.c_str());
      }
      writing--;
    });
  for (int r = 0; r < 2; r++)
    threads.emplace_back([&] {
      do {
        for (int k = 0; k < 50; k += 3) {
          std::string value = GetString(("t.r." + std::to_string(k)).c_str(), "0");  // whole, or absent
          EXPECT_EQ(value.find_first_not_of("0123456789"), std::string::npos) << value;
          EXPECT_EQ(ConfigKeyGetInt(("t.r.bulk" + std::to_string(k)).c_str(), -1), k);
        }
        ExpectSortedUnique("t.r.");
      } while (writing > 0);
    });
  for (int w = 0; w < 2; w++)
    threads.emplace_back([&] {
      do ConfigWaitForChange(Serial() + 1, 20);
      while (writing > 0);
    });
  for (std::thread &thread : threads) thread.join();
  ExpectSortedUnique("t.r.");
}

// ---- expansion ------------------------------------------------------------------

TEST_F(Store, ExpandVariables) {
  ConfigKeyReplaceString("k", "v");
  ConfigKeyReplaceString("t.a:b[1]@x", "odd");
  ConfigKeyReplaceString("t.self", "${k}");
  // "<result> <out>" after a prefix, then the error text on failure.
  auto expand = [](const std::string &text, unsigned length) {
    Scoped<UByteArray> out;
    UByteArrayPrintf(&out, "pre:");
    KZErrorClear();
    int result = ConfigKeyExpandVariables(text.data(), length, &out);
    EXPECT_EQ(out.elements[out.count], '\0');
    EXPECT_EQ(KZErrorCode(), result ? 0 : KZ_ERR_INVALID);
    return std::to_string(result) + " " + Bytes(out) + (result ? "" : " " + ErrorText());
  };
  const std::string rows[][2] = {
      {"a${k}b", "1 pre:avb"},
      {"\\${k}", "1 pre:${k}"},
      {"\\$k \\x $ $$ ${k}$", "1 pre:\\$k \\x $ $$ v$"},
      {"${t.a:b[1]@x}", "1 pre:odd"},
      {"${t.self}", "1 pre:${k}"},  // not scanned again
      {"${@kzmajor}.${@kzminor}", "1 pre:6.3"},
      {"${k", "0 pre:${k variable expansion error at character 3"},
      {"${a-b}", "0 pre:${a variable expansion error at character 3"},
      {"x${", "0 pre:x${ variable expansion error at character 3"},
      {"${k}${k }", "0 pre:v${k variable expansion error at character 7"},
      {"ab${t.none}cd", "0 pre:ab undefined variable t.none"},
      {"${}", "0 pre: undefined variable "},
  };
  for (const auto &[text, want] : rows) EXPECT_EQ(expand(text, text.size()), want) << text;
  EXPECT_EQ(expand("${k}${k}", 4), "1 pre:v");  // only `length` bytes count
  ConfigKeyDelete("k");
}

}  // namespace
