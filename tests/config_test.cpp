// The configuration store, the word tokenizer, include chains, typed getters,
// change serials and waits, variable expansion.
#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kz/config.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/init.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::Scoped;

// ---- helpers ------------------------------------------------------------------

// Collects the messages the library issues while it lives: "text@level" each.
class Messages {
 public:
  Messages() : previous_(KZGetMessageHandler()), previousSeen_(seen_) {
    seen_ = &lines_;
    KZSetMessageHandler(Record);
  }
  ~Messages() {
    KZSetMessageHandler(previous_);
    seen_ = previousSeen_;
  }
  const std::vector<std::string> &lines() const { return lines_; }

 private:
  static void Record(const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
    char text[1024];
    vsnprintf(text, sizeof text, format, args);
    seen_->push_back(std::string(text) + "@" + std::to_string(level));
  }
  static inline std::vector<std::string> *seen_ = nullptr;
  KZMessageHandler previous_;
  std::vector<std::string> *previousSeen_;
  std::vector<std::string> lines_;
};

// The handler's record of a read: "<line>[word][word]..." per dispatched line,
// with "{file}" before it when the file name changed.
struct Trace {
  std::string text;
  std::string lastFile;
  const char *rejectWord = nullptr;
};

int TraceLine(void *context, const char *fileName, int line, int argc, char **argv) {
  Trace &trace = *static_cast<Trace *>(context);
  std::string file = fileName ? fileName : "";
  if (file != trace.lastFile) {
    trace.text += "{" + file.substr(file.find_last_of('/') + 1) + "}";
    trace.lastFile = file;
  }
  trace.text += std::to_string(line);
  for (int i = 0; i < argc; i++) trace.text += "[" + std::string(argv[i]) + "]";
  EXPECT_EQ(argv[argc], nullptr);
  return trace.rejectWord && strcmp(argv[0], trace.rejectWord) == 0 ? 0 : 1;
}

// A scratch directory, removed with everything in it at the end of the scope.
class TempDir {
 public:
  TempDir() {
    const char *base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kzconfig-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    EXPECT_NE(mkdtemp(buffer.data()), nullptr);
    path_ = buffer.data();
  }
  ~TempDir() { RemoveTree(path_); }
  std::string Write(const std::string &name, const std::string &content) {
    std::string path = path_ + "/" + name;
    size_t slash = name.rfind('/');
    if (slash != std::string::npos) mkdir((path_ + "/" + name.substr(0, slash)).c_str(), 0700);
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  const std::string &path() const { return path_; }

 private:
  static void RemoveTree(const std::string &path) {
    if (DIR *dir = opendir(path.c_str())) {
      while (dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string child = path + "/" + name;
        struct stat status;
        if (lstat(child.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
          RemoveTree(child);
        else
          unlink(child.c_str());
      }
      closedir(dir);
    }
    rmdir(path.c_str());
  }
  std::string path_;
};

std::string GetString(const char *key, const char *defaultValue = nullptr) {
  Scoped<UByteArray> out;
  if (!ConfigKeyGetString(key, defaultValue, &out)) return "<absent>";
  return Bytes(out);
}

uint64_t Serial() { return ConfigKeyGetULong("@serial", ~0ull); }
uint64_t Modified() { return ConfigKeyGetULong("@modified", 0); }
uint32_t Count() { return ConfigKeyGetUInt("@count", ~0u); }

// Every table entry under prefix, in enumeration order, as "key=value".
std::vector<std::string> Table(const char *prefix) {
  std::vector<std::string> entries;
  ConfigKeyEnumerate(
      [](void *context, const char *key, const char *value) {
        if (key[0] != '@') static_cast<std::vector<std::string> *>(context)->push_back(std::string(key) + "=" + value);
        return 1;
      },
      &entries, prefix);
  return entries;
}

// The store's invariant over a prefix: strictly increasing keys, each found.
void ExpectSortedUnique(const char *prefix) {
  std::vector<std::string> entries = Table(prefix);
  for (size_t i = 1; i < entries.size(); i++) {
    std::string a = entries[i - 1].substr(0, entries[i - 1].find('=')), b = entries[i].substr(0, entries[i].find('='));
    ASSERT_LT(a, b) << "at " << i;
  }
}

std::string ErrorText() { return KZErrorMessage() ? KZErrorMessage() : ""; }

// Every test works under its own prefix and clears it on both ends.
class Store : public testing::Test {
 protected:
  void SetUp() override { ConfigKeyRemove("t."); }
  void TearDown() override {
    ConfigKeyRemove("t.");
    KZErrorClear();
  }
  Messages quiet_;  // expected tokenizer reports stay out of the test log
  void Load(const std::string &text, int want = 1) {
    EXPECT_EQ(LoadConfigurationKeys(text.data(), static_cast<unsigned>(text.size())), want) << text;
  }
};

// ---- tokenizer ----------------------------------------------------------------

struct TokenRow {
  const char *mode;
  std::string input;
  const char *words;  // the handler's trace
  int result;
  const char *message;  // the first message, "" for none
};

const std::string kEnd = "premature end of in-memory configuration file, line ";

TEST(Tokenizer, BufferRules) {
  const TokenRow rows[] = {
      {"between", "", "", 0, ""},
      {"between", "\n\n", "", 0, ""},
      {"between", "key value\n", "1[key][value]", 0, ""},
      {"between", "  key\tvalue \r\n", "1[key][value]", 0, ""},
      {"between",
       "a\xA0"
       "b\x0B"
       "c\x0C"
       "d\n",
       "1[a][b][c][d]", 0, ""},
      {"between", "\"\"\n", "1[]", 0, ""},
      {"between", "\"\" \"\"\n", "1[][]", 0, ""},
      {"between", "\\ a\n", "1[ a]", 0, ""},
      {"between", "\\#x\n", "1[#x]", 0, ""},
      {"between", "\\\"x\n", "1[\"x]", 0, ""},
      {"between", "# c\nk v\n", "2[k][v]", 0, ""},
      {"between", "a\n\nb\n", "1[a]3[b]", 0, ""},
      {"plain", "ab\\\ncd\n", "2[abcd]", 0, ""},
      {"plain", "key#x\n", "1[key]", 0, ""},
      {"plain", "key val#ue\n", "1[key][val]", 0, ""},
      {"plain", "ab\"c d\"e\n", "1[abc de]", 0, ""},
      {"plain", "a\\nb\n", "1[anb]", 0, ""},
      {"plain", "a\\\\b\n", "1[a\\b]", 0, ""},
      {"plain", "x\\ty\n", "1[xty]", 0, ""},
      {"plain", "key a   b\n", "1[key][a][b]", 0, ""},
      {"plain", "a\\\r\n", "1[a\r]", 0, ""},  // an escaped CR is a byte, not a continuation
      {"quoted", "\"x\\ty\"\n", "1[x\ty]", 0, ""},
      {"quoted", "\"a\\nb\"\n", "1[a\nb]", 0, ""},
      {"quoted", "\"val#ue\"\n", "1[val#ue]", 0, ""},
      {"quoted", "\"a\\\"b\\\\c\\qd\"\n", "1[a\"b\\cqd]", 0, ""},
      {"quoted", "\"a\\\nb\"\n", "2[ab]", 0, ""},
      {"quoted", "key \"a b\" c\n", "1[key][a b][c]", 0, ""},
      {"quoted", "k \"ab\ncd\"\n", "", -4, "unmatched \" in configuration file \"(null)\", line 1"},
      {"quoted", "k\n\"open", "1[k]", -4, "premature end of in-memory configuration file, line 2"},
      {"comment", "k v # note\n", "1[k][v]", 0, ""},
      {"comment", "# a \\\n still comment\nk v\n", "3[k][v]", 0, ""},
      {"comment", "k v # note", "", -4, "premature end of in-memory configuration file, line 1"},
      {"comment", "k v\n# only", "1[k][v]", -4, "premature end of in-memory configuration file, line 2"},
      {"end", "k v", "", -4, "premature end of in-memory configuration file, line 1"},
      {"end", "k v ", "", -4, "premature end of in-memory configuration file, line 1"},
      {"end", "k v\n\n  \n", "1[k][v]", 0, ""},
      {"end", "k v\n\\", "1[k][v]", 0, ""},
      {"end", "a\\\n\\\nb", "", -4, "premature end of in-memory configuration file, line 3"},
      {"include", "include x\n", "", -4,
       "invalid \"include\" directive when parsing an in-memory configuration file, line 1"},
      {"include", "\"include\" x\n", "", -4,
       "invalid \"include\" directive when parsing an in-memory configuration file, line 1"},
      {"include", "Include x\n", "1[Include][x]", 0, ""},
      {"nul", std::string("a\0b c\n", 6), "1[a][c]", 0, ""},
  };
  for (const TokenRow &row : rows) {
    Messages messages;
    Trace trace;
    int result = ReadConfigFileFromBuffer(row.input.data(), static_cast<unsigned>(row.input.size()), TraceLine, &trace);
    std::string first = messages.lines().empty() ? "" : messages.lines()[0];
    EXPECT_EQ(result, row.result) << row.mode << " " << row.input;
    EXPECT_EQ(trace.text, row.words) << row.mode << " " << row.input;
    EXPECT_EQ(first, *row.message ? std::string(row.message) + "@3" : "") << row.mode << " " << row.input;
  }
}

TEST(Tokenizer, RejectionAndRefusedIncludeAlsoReportThePrematureEnd) {
  Messages messages;
  Trace trace;
  trace.rejectWord = "stop";
  std::string text = "a 1\nstop here\nb 2\n";
  EXPECT_EQ(ReadConfigFileFromBuffer(text.data(), text.size(), TraceLine, &trace), -4);
  EXPECT_EQ(trace.text, "1[a][1]2[stop][here]");
  EXPECT_EQ(messages.lines(), (std::vector<std::string>{kEnd + "2@3"}));
  text = "a 1\ninclude f\n";
  EXPECT_EQ(ReadConfigFileFromBuffer(text.data(), text.size(), TraceLine, &trace), -4);
  EXPECT_EQ(messages.lines().size(), 3u);
  EXPECT_EQ(messages.lines()[2], kEnd + "2@3");
}

TEST(Tokenizer, FilesNameThemselvesAndMissingOrEmptyFilesAreMinusTwo) {
  TempDir dir;
  std::string good = dir.Write("good.conf", "k v\n"), open = dir.Write("open.conf", "k v\nx"),
              empty = dir.Write("empty.conf", "");
  Messages messages;
  Trace trace;
  EXPECT_EQ(ReadConfigFile(good.c_str(), TraceLine, &trace), 0);
  EXPECT_EQ(trace.text, "{good.conf}1[k][v]");
  EXPECT_EQ(ReadConfigFile(open.c_str(), TraceLine, &trace), -4);
  EXPECT_EQ(ReadConfigFile(empty.c_str(), TraceLine, &trace), -2);
  EXPECT_EQ(ReadConfigFile((dir.path() + "/missing").c_str(), TraceLine, &trace), -2);
  EXPECT_EQ(ReadConfigFile(dir.path().c_str(), TraceLine, &trace), -2);  // a directory
  EXPECT_EQ(messages.lines(),
            (std::vector<std::string>{"premature end of configuration file \"" + open + "\", line 2@3"}));
}

TEST(Tokenizer, IncludeChainsAreRelativeToTheIncludingFile) {
  TempDir dir;
  std::string absolute = dir.Write("abs.conf", "z 26\n");
  std::string top = dir.Write("top.conf", "a 1\ninclude sub/inc.conf\ninclude " + absolute + "\nb 2\n");
  dir.Write("sub/inc.conf", "c 3\n\ninclude deeper.conf\n");
  dir.Write("sub/deeper.conf", "d 4\n");
  Trace trace;
  EXPECT_EQ(ReadConfigFile(top.c_str(), TraceLine, &trace), 0);
  EXPECT_EQ(trace.text, "{top.conf}1[a][1]{inc.conf}1[c][3]{deeper.conf}1[d][4]{abs.conf}1[z][26]{top.conf}4[b][2]");
}

TEST(Tokenizer, IncludeErrors) {
  TempDir dir;
  std::string top = dir.Write("bad.conf", "include\n");
  struct Row {
    std::string text;
    std::string message;  // after the file name
  } rows[] = {
      {"include\n", "invalid \"include\" directive in configuration file \"%F\", line 1"},
      {"\n\ninclude a b\n", "invalid \"include\" directive in configuration file \"%F\", line 3"},
      {"include \"\"\n", "invalid \"include\" directive in configuration file \"%F\", line 1"},
      {"x 1\ninclude missing.conf\n",
       "error reading file \"" + dir.path() + "/missing.conf\" included in configuration file \"%F\", line 2"},
  };
  for (const Row &row : rows) {
    dir.Write("bad.conf", row.text);
    Messages messages;
    Trace trace;
    EXPECT_EQ(ReadConfigFile(top.c_str(), TraceLine, &trace), -4) << row.text;
    std::string want = row.message;
    want.replace(want.find("%F"), 2, top);
    ASSERT_EQ(messages.lines().size(), 2u) << row.text;
    EXPECT_EQ(messages.lines()[0], want + "@3");
    EXPECT_EQ(messages.lines()[1].substr(0, 36), "premature end of configuration file ");
  }
}

TEST(Tokenizer, ThirtyNestedInclusionsReadTheThirtyFirstIsRefused) {
  TempDir dir;
  auto chain = [&](int files) {
    for (int i = 0; i < files - 1; i++)
      dir.Write("f" + std::to_string(i), "k" + std::to_string(i) + " v\ninclude f" + std::to_string(i + 1) + "\n");
    dir.Write("f" + std::to_string(files - 1), "last v\n");
  };
  chain(31);  // depths 0 to 30: thirty inclusions
  {
    Messages messages;
    Trace trace;
    EXPECT_EQ(ReadConfigFile((dir.path() + "/f0").c_str(), TraceLine, &trace), 0);
    EXPECT_NE(trace.text.find("{f30}1[last][v]"), std::string::npos);
    EXPECT_TRUE(messages.lines().empty());
  }
  chain(32);  // f30 now includes f31
  {
    Messages messages;
    Trace trace;
    EXPECT_EQ(ReadConfigFile((dir.path() + "/f0").c_str(), TraceLine, &trace), -4);
    EXPECT_EQ(trace.text.find("[last]"), std::string::npos);
    ASSERT_EQ(messages.lines().size(), 32u);  // the refusal, then each of the 31 files ends early
    EXPECT_EQ(messages.lines()[0],
              "too many nested \"include\" directives in configuration file \"" + dir.path() + "/f30\", line 2@3");
    EXPECT_EQ(messages.lines()[31], "premature end of configuration file \"" + dir.path() + "/f0\", line 2@3");
  }
}

TEST(Tokenizer, AnIncludeCycleStopsAtTheLimit) {
  TempDir dir;
  std::string a = dir.Write("a.conf", "include b.conf\n");
  dir.Write("b.conf", "include a.conf\n");
  Messages messages;
  Trace trace;
  EXPECT_EQ(ReadConfigFile(a.c_str(), TraceLine, &trace), -4);
  ASSERT_FALSE(messages.lines().empty());
  EXPECT_EQ(messages.lines()[0].substr(0, 33), "too many nested \"include\" directi");
  EXPECT_EQ(messages.lines().size(), 32u);
}

// ---- loading ------------------------------------------------------------------

TEST_F(Store, KeyParserJoinsWordsAndNeedsTwo) {
  Load("t.a 1\nt.b \"x  y\" z\nt.c a   b\nt.d \"\"\n");
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.a=1", "t.b=x  y z", "t.c=a b", "t.d="}));
  uint64_t serial = Serial();
  Load("t.e 1\nt.f\nt.g 2\n", 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_EQ(ErrorText(), "parse error line 2: expected 2 arguments, got 1");
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.a=1", "t.b=x  y z", "t.c=a b", "t.d="}));
  EXPECT_EQ(Serial(), serial + 1);  // a failed load still counts
  Load("", 1);
  Load("t.h 1\ninclude other\n", 0);
  EXPECT_EQ(GetString("t.h"), "<absent>");
}

TEST_F(Store, PrefixedLoadReplacesItsRangeAndAFailureRestoresIt) {
  Load("t.p.a 1\nt.p.b 2\nt.q 3\n");
  std::string text = "t.p.c 3\n";
  EXPECT_EQ(LoadConfigurationKeysPrefixed(text.data(), text.size(), "t.p."), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.p.c=3", "t.q=3"}));
  text = "t.p.d 4\nt.q\n";
  EXPECT_EQ(LoadConfigurationKeysPrefixed(text.data(), text.size(), "t.p."), 0);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.p.c=3", "t.q=3"}));
}

TEST_F(Store, DuplicateKeysKeepTheirLatestValue) {
  Load("t.k 1\nt.k 2\nt.j 0\nt.k 3\n");
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.j=0", "t.k=3"}));
  Load("t.k 9\nt.a 1\nt.z 1\n");  // over the store's value, with neighbours on both sides
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.a=1", "t.j=0", "t.k=9", "t.z=1"}));
  // A prefixed reload replaces its range and keeps everything else.
  const std::string reload = "t.j 5\nt.b 2\nt.j 6\n";
  ASSERT_EQ(LoadConfigurationKeysPrefixed(reload.data(), reload.size(), "t.j"), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.a=1", "t.b=2", "t.j=6", "t.k=9", "t.z=1"}));
  // Keys that agree on their first 16 and 32 bytes, and differ only after.
  const std::string longKey = "t.long.0123456789abcdefghijklmnopqrstuvwxyz.";
  Load(longKey + "b 2\n" + longKey + "a 1\n" + longKey + "b 3\n" + longKey + " 0\n" + longKey + "ab 4\n");
  std::vector<std::string> keys;
  for (const std::string &entry : Table("t.long."))
    keys.push_back(entry.substr(longKey.size(), entry.find('=') - longKey.size()));
  EXPECT_EQ(keys, (std::vector<std::string>{"", "a", "ab", "b"}));
  EXPECT_EQ(GetString((longKey + "ab").c_str()), "4");
}

// Random loads and prefixed reloads against a model in which the latest value
// of a key wins; keys share long beginnings so every comparison depth is used.
TEST_F(Store, LoadsAgreeWithAModelOfLatestValues) {
  std::mt19937 rng(2026);
  const char *stems[] = {"t.", "t.a.", "t.0123456789abcdef.", "t.0123456789abcdef0123456789abcdef."};
  std::map<std::string, std::string> model;
  for (int round = 0; round < 200; round++) {
    std::string text, prefix;
    std::vector<std::pair<std::string, std::string>> lines;
    int count = static_cast<int>(rng() % 40);
    for (int i = 0; i < count; i++) {
      std::string key = std::string(stems[rng() % 4]) + static_cast<char>('a' + rng() % 6);
      if (rng() % 2) key += static_cast<char>('a' + rng() % 6);
      std::string value = std::to_string(round) + "." + std::to_string(i);
      lines.emplace_back(key, value);
      text += key + " " + value + "\n";
    }
    if (rng() % 3 == 0) prefix = std::string(stems[rng() % 4]) + (rng() % 2 ? "a" : "");
    ASSERT_EQ(LoadConfigurationKeysPrefixed(text.data(), static_cast<unsigned>(text.size()),
                                            prefix.empty() ? nullptr : prefix.c_str()),
              1);
    if (!prefix.empty())
      for (auto it = model.begin(); it != model.end();)
        it = it->first.compare(0, prefix.size(), prefix) == 0 ? model.erase(it) : std::next(it);
    for (const auto &[key, value] : lines) model[key] = value;
    std::vector<std::string> want;
    for (const auto &[key, value] : model) want.push_back(key + "=" + value);
    ASSERT_EQ(Table("t."), want) << "round " << round;
    if (round % 50 == 49) {
      ConfigKeyRemove("t.");
      model.clear();
    }
  }
}

TEST_F(Store, ConfigurationFiles) {
  TempDir dir;
  std::string good = dir.Write("good.conf", "t.f.a 1\nt.f.b two words\n");
  EXPECT_EQ(LoadConfigurationFile(good.c_str()), 1);
  EXPECT_EQ(GetString("t.f.b"), "two words");
  struct Row {
    std::string path;
    const char *error;  // "" for a tokenizer failure
  } rows[] = {
      {dir.Write("empty.conf", ""), "cannot open configuration file"},
      {dir.path() + "/missing.conf", "cannot open configuration file"},
      {dir.Write("noeol.conf", "t.f.c 1\nt.f.d 2"), ""},
      {dir.Write("incl.conf", "include good.conf\n"), ""},
      {dir.Write("bad\xFF.conf", "t.f.e 1\n"), "cannot open configuration file"},
  };
  for (const Row &row : rows) {
    Messages messages;
    KZErrorClear();
    EXPECT_EQ(LoadConfigurationFile(row.path.c_str()), 0) << row.path;
    if (*row.error) {
      std::string want = std::string(row.error) + " \"" + row.path + "\": ";
      EXPECT_EQ(ErrorText().substr(0, want.size()), want) << row.path;
    } else {
      EXPECT_FALSE(messages.lines().empty()) << row.path;
    }
  }
  EXPECT_EQ(GetString("t.f.c"), "<absent>");
  EXPECT_EQ(Table("t.f."), (std::vector<std::string>{"t.f.a=1", "t.f.b=two words"}));
  EXPECT_EQ(LoadConfigurationFilePrefixed(good.c_str(), "t.f.a"), 1);
}

TEST_F(Store, HundredThousandKeysLoadAndAnswer) {
  TempDir dir;
  std::vector<int> order(100000);
  for (int i = 0; i < 100000; i++) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  std::string text;
  for (int i : order) text += "t.big." + std::to_string(i) + " " + std::to_string(i * 7) + "\n";
  std::string path = dir.Write("big.conf", text);
  uint32_t before = Count();
  ASSERT_EQ(LoadConfigurationFile(path.c_str()), 1);
  EXPECT_EQ(Count(), before + 100000);
  for (int i = 0; i < 100000; i += 997) EXPECT_EQ(ConfigKeyGetInt(("t.big." + std::to_string(i)).c_str(), -1), i * 7);
  EXPECT_EQ(ConfigKeyGetInt("t.big.100000", -1), -1);
  EXPECT_EQ(Table("t.big.1234").size(), 11u);  // 1234 and 12340..12349
  ExpectSortedUnique("t.big.");
  // Lookups stay right after each kind of change to a large table.
  EXPECT_EQ(ConfigKeyDelete("t.big.500"), 1);
  EXPECT_EQ(ConfigKeyGetInt("t.big.500", -1), -1);
  EXPECT_EQ(ConfigKeyReplaceString("t.big.501", "replaced"), 1);
  EXPECT_EQ(GetString("t.big.501"), "replaced");
  EXPECT_EQ(ConfigKeyAddString("t.big.a", "new"), 1);
  EXPECT_EQ(GetString("t.big.a"), "new");
  EXPECT_EQ(ConfigKeyGetInt("t.big.502", -1), 502 * 7);
  EXPECT_EQ(ConfigKeyRemove("t.big.9"), 1);
  EXPECT_EQ(ConfigKeyGetInt("t.big.99999", -1), -1);
  EXPECT_EQ(ConfigKeyGetInt("t.big.88888", -1), 88888 * 7);
}

TEST_F(Store, RegistryIsNotSupported) {
  uint64_t serial = Serial();
  EXPECT_EQ(LoadConfigurationFromRegistry(nullptr, "Software\\Any"), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_NOT_SUPPORTED);
  EXPECT_EQ(ErrorText(), "not supported");
  EXPECT_EQ(Serial(), serial);
}

// ---- getters ------------------------------------------------------------------

TEST_F(Store, NumericConversions) {
  const int64_t D = 77;  // every default below
  struct Row {
    const char *value;
    int64_t asInt;
    uint64_t asUInt;
    int64_t asLong;
    uint64_t asULong;
  } rows[] = {
      {"0", 0, 0, 0, 0},
      {"12", 12, 12, 12, 12},
      {"007", 7, 7, 7, 7},
      {"-5", -5, D, -5, D},
      {"2147483647", 2147483647, 2147483647, 2147483647, 2147483647},
      {"2147483648", D, 2147483648u, 2147483648, 2147483648u},
      {"-2147483648", INT32_MIN, D, -2147483648ll, D},
      {"-2147483649", D, D, -2147483649ll, D},
      {"4294967295", D, 4294967295u, 4294967295ll, 4294967295u},
      {"4294967296", D, D, 4294967296ll, 4294967296u},
      {"-4294967296", D, D, -4294967296ll, D},
      {"9223372036854775807", D, D, INT64_MAX, 9223372036854775807u},
      {"9223372036854775808", D, D, D, 9223372036854775808u},
      {"-9223372036854775808", D, D, INT64_MIN, D},
      {"-9223372036854775809", D, D, D, D},
      {"18446744073709551615", D, D, D, UINT64_MAX},
      {"18446744073709551616", D, D, D, D},
      {"99999999999999999999", D, D, D, D},
      {"", D, D, D, D},
      {"-", D, D, D, D},
      {"--1", D, D, D, D},
      {"+1", D, D, D, D},
      {" 12", D, D, D, D},
      {"12 ", D, D, D, D},
      {"12abc", D, D, D, D},
      {"0x10", D, D, D, D},
      {"1e3", D, D, D, D},
  };
  for (const Row &row : rows) {
    ASSERT_EQ(ConfigKeyReplaceString("t.n", row.value), 1);
    EXPECT_EQ(ConfigKeyGetInt("t.n", D), row.asInt) << "'" << row.value << "'";
    EXPECT_EQ(ConfigKeyGetUInt("t.n", D), row.asUInt) << "'" << row.value << "'";
    EXPECT_EQ(ConfigKeyGetLong("t.n", D), row.asLong) << "'" << row.value << "'";
    EXPECT_EQ(ConfigKeyGetULong("t.n", D), row.asULong) << "'" << row.value << "'";
  }
  EXPECT_EQ(ConfigKeyGetInt("t.absent", -9), -9);
  EXPECT_EQ(ConfigKeyGetULong("t.absent", 5), 5u);
}

TEST_F(Store, BooleansAndStrings) {
  struct Row {
    const char *value;
    int want;
  } rows[] = {{"true", 1}, {"True", 0}, {"TRUE", 0}, {"yes", 0}, {"1", 0}, {"true ", 0}, {"", 0}, {"false", 0}};
  for (const Row &row : rows) {
    ConfigKeyReplaceString("t.b", row.value);
    EXPECT_EQ(ConfigKeyGetBoolean("t.b", 7), row.want) << row.value;
  }
  EXPECT_EQ(ConfigKeyGetBoolean("t.absent", 7), 7);

  ConfigKeyReplaceString("t.s1", "one"), ConfigKeyReplaceString("t.s2", "two");
  Scoped<UByteArray> out;
  char *first = ConfigKeyGetString("t.s1", nullptr, &out);
  char *second = ConfigKeyGetString("t.s2", nullptr, &out);
  EXPECT_EQ(Bytes(out), "onetwo");  // appended, not replaced
  EXPECT_EQ(second, reinterpret_cast<char *>(out.elements));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(out.elements[out.count], '\0');
  EXPECT_EQ(ConfigKeyGetString("t.absent", "dflt", &out), reinterpret_cast<char *>(out.elements));
  EXPECT_EQ(Bytes(out), "onetwodflt");
  EXPECT_EQ(ConfigKeyGetString("t.absent", nullptr, &out), nullptr);
  EXPECT_EQ(out.count, 10u);
}

TEST_F(Store, PseudoKeys) {
  ConfigKeyReplaceString("t.x", "1");
  EXPECT_EQ(GetString("@serial"), std::to_string(Serial()));
  EXPECT_EQ(ConfigKeyGetUInt("@count", 0), Count());
  EXPECT_EQ(GetString("@kzarch"), KZArchitecture());
  EXPECT_EQ(GetString("@kzversion"), KZVersionString());
  EXPECT_EQ(GetString("@kzmajor"), "6");
  EXPECT_EQ(GetString("@kzminor"), "3");
  EXPECT_EQ(GetString("@kzbuild"), "20826");
  if (KZVersionBranch() == 0) {
    EXPECT_EQ(GetString("@kzbranch", "none"), "none");
  }
  EXPECT_EQ(GetString("@other", "none"), "none");
  EXPECT_EQ(GetString("@", "none"), "none");
  // '@' keys cannot be created, and a loaded one is never read back.
  EXPECT_EQ(ConfigKeyReplaceString("@x", "1"), 0);
  EXPECT_EQ(ConfigKeyReplaceString("@serial", "1"), 0);
  EXPECT_EQ(GetString("@x", "none"), "none");
  // Enumeration: the three computed keys first, in their order, if selected.
  std::vector<std::string> keys;
  auto collect = [](void *context, const char *key, const char *) {
    static_cast<std::vector<std::string> *>(context)->push_back(key);
    return 1;
  };
  EXPECT_EQ(ConfigKeyEnumerate(collect, &keys, "@"), 1);
  EXPECT_EQ(keys, (std::vector<std::string>{"@serial", "@count", "@modified"}));
  keys.clear();
  EXPECT_EQ(ConfigKeyEnumerate(collect, &keys, "@m"), 1);
  EXPECT_EQ(keys, (std::vector<std::string>{"@modified"}));
  keys.clear();
  EXPECT_EQ(ConfigKeyEnumerate(collect, &keys, "t."), 1);
  EXPECT_EQ(keys, (std::vector<std::string>{"t.x"}));
  keys.clear();
  EXPECT_EQ(ConfigKeyEnumerate(collect, &keys, "t.none"), 0);
  EXPECT_EQ(ConfigKeyEnumerate([](void *, const char *, const char *) { return 0; }, nullptr, nullptr), 1);
}

TEST_F(Store, EnumeratorMayReadTheStore) {
  Load("t.e.a 1\nt.e.b 2\nt.e.c 3\n");
  std::vector<std::string> seen;
  ConfigKeyEnumerate(
      [](void *context, const char *key, const char *) {
        if (key[0] == '@') return 1;
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
  EXPECT_EQ(GetString("t.k"), "v1");
  UByteArrayPrintf(&old, "junk");
  EXPECT_EQ(ConfigKeySetString("t.k", "v3", 0, &old), 0);  // oldValue filled even so
  EXPECT_EQ(Bytes(old), "v1");
  EXPECT_EQ(ConfigKeySetString("t.k", "v4", 1, &old), 1);
  EXPECT_EQ(Bytes(old), "v1");
  EXPECT_EQ(GetString("t.k"), "v4");
  EXPECT_EQ(ConfigKeySetString("t.k", nullptr, 0, &old), 1);
  EXPECT_EQ(Bytes(old), "v4");
  EXPECT_EQ(GetString("t.k"), "<absent>");
  EXPECT_EQ(ConfigKeyDelete("t.k"), 0);
  EXPECT_EQ(ConfigKeySetString("t.k", nullptr, 1, nullptr), 0);
  EXPECT_EQ(ConfigKeySetString(nullptr, "v", 1, nullptr), 0);
  for (const char *key : {"t.m", "t.c", "t.x", "t.a", "t.\xC3\xA9", "t.B"}) EXPECT_EQ(ConfigKeyAddString(key, "1"), 1);
  EXPECT_EQ(Table("t."), (std::vector<std::string>{"t.B=1", "t.a=1", "t.c=1", "t.m=1", "t.x=1", "t.\xC3\xA9=1"}));
}

struct Pairs {
  std::vector<std::pair<const char *, const char *>> pairs;
  size_t next = 0;
};

int Produce(void *context, const char **key, const char **value) {
  Pairs &p = *static_cast<Pairs *>(context);
  EXPECT_EQ(*key, nullptr);
  EXPECT_EQ(*value, nullptr);
  if (p.next == p.pairs.size()) return 0;
  *key = p.pairs[p.next].first;
  *value = p.pairs[p.next].second;
  p.next++;
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
  // A producer that stops by leaving the key null.
  Pairs stopped{{{"t.s", "1"}, {nullptr, "ignored"}, {"t.after", "1"}}};
  EXPECT_EQ(ConfigKeyMerge(Produce, &stopped), 1);
  EXPECT_EQ(GetString("t.after"), "<absent>");

  struct Both {
    std::vector<std::string> seen;
    Pairs pairs{{{"t.m", "1"}}};
  } both;
  EXPECT_EQ(ConfigKeyEnumerateAndMerge(
                [](void *context, const char *key, const char *) {
                  static_cast<Both *>(context)->seen.push_back(key);
                  return 1;
                },
                [](void *context, const char **key, const char **value) {
                  return Produce(&static_cast<Both *>(context)->pairs, key, value);
                },
                &both, "t.k"),
            1);
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
  std::string text = "t.c.l 1\n", bad = "t.c.l\n";
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
      {"load", [&] { return LoadConfigurationKeys(text.data(), text.size()); }, 1},
      {"failed load", [&] { return LoadConfigurationKeys(bad.data(), bad.size()); }, 0},
  };
  for (Row &row : rows) {
    uint64_t serial = Serial(), before = now1601();
    EXPECT_EQ(row.change(), row.result) << row.name;
    uint64_t after = now1601();
    EXPECT_EQ(Serial(), serial + 1) << row.name;
    EXPECT_GE(Modified(), before) << row.name;
    EXPECT_LE(Modified(), after) << row.name;
  }
}

// ---- waiting -------------------------------------------------------------------

TEST_F(Store, WaitForChangeWaitsForTheSerialToReachTheValue) {
  uint64_t serial = Serial();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ConfigWaitForChange(serial, 100), 0);  // already there: at once
  EXPECT_EQ(ConfigWaitForChange(serial, 0), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(ConfigWaitForChange(serial + 1, 100), 1);  // never reached
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(Store, WaitForChangeWithASecondThread) {
  // Woken by the change it waits for: whichever runs first, the answer is 0.
  uint64_t serial = Serial();
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = ConfigWaitForChange(serial + 1, 0); });
  ConfigKeyReplaceString("t.w", "1");
  waiter.join();
  EXPECT_EQ(result, 0);

  // The serial passes the awaited value: the waiter is not satisfied by a
  // change as such, only by equality, and reports 1 when its time runs out.
  serial = Serial();
  std::thread skipped([&] { result = ConfigWaitForChange(serial, 200); });
  skipped.join();
  EXPECT_EQ(result, 0);
  std::thread passed([&] {
    ConfigKeyReplaceString("t.w", "2");
    ConfigKeyReplaceString("t.w", "3");
    result = ConfigWaitForChange(serial + 1, 50);
  });
  passed.join();
  EXPECT_EQ(result, 1);
}

TEST_F(Store, ReadersWritersAndWaitersTogether) {
  constexpr int kWriters = 2, kReaders = 2, kWaiters = 2, kRounds = 300;
  std::atomic<bool> stop{false};
  std::atomic<int> waits{0};
  std::string bulk;  // enough keys that lookups go through the hash index
  for (int i = 0; i < 200; i++) bulk += "t.r.bulk" + std::to_string(i) + " " + std::to_string(i) + "\n";
  ASSERT_EQ(LoadConfigurationKeys(bulk.data(), bulk.size()), 1);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; w++)
    threads.emplace_back([w] {
      for (int i = 0; i < kRounds; i++) {
        std::string key = "t.r." + std::to_string((i * 7 + w) % 50);
        if (i % 5 == 4)
          ConfigKeyDelete(key.c_str());
        else
          ConfigKeyReplaceString(key.c_str(), std::to_string(i).c_str());
        if (i % 50 == 0) {
          std::string text = "t.r.l" + std::to_string(w) + " " + std::to_string(i) + "\n";
          LoadConfigurationKeysPrefixed(text.data(), text.size(), ("t.r.l" + std::to_string(w)).c_str());
        }
      }
    });
  for (int r = 0; r < kReaders; r++)
    threads.emplace_back([&] {
      while (!stop) {
        for (int k = 0; k < 50; k += 3) {
          std::string key = "t.r." + std::to_string(k);
          int value = ConfigKeyGetInt(key.c_str(), -1);
          EXPECT_GE(value, -1);
          EXPECT_EQ(ConfigKeyGetInt(("t.r.bulk" + std::to_string(k)).c_str(), -1), k);
          Scoped<UByteArray> out;
          ConfigKeyGetString(key.c_str(), "", &out);
        }
        ExpectSortedUnique("t.r.");
      }
    });
  for (int w = 0; w < kWaiters; w++)
    threads.emplace_back([&] {
      do {
        uint64_t serial = Serial();
        EXPECT_LE(ConfigWaitForChange(serial + 1, 20), 1);
        waits++;
      } while (!stop);
    });
  for (int w = 0; w < kWriters; w++) threads[w].join();
  stop = true;
  for (size_t t = kWriters; t < threads.size(); t++) threads[t].join();
  EXPECT_GT(waits.load(), 0);
  ExpectSortedUnique("t.r.");
  // Quiet again: a waiter for the next serial is woken by the next change.
  uint64_t serial = Serial();
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = ConfigWaitForChange(serial + 1, 0); });
  ConfigKeyReplaceString("t.r.final", "1");
  waiter.join();
  EXPECT_EQ(result, 0);
}

// ---- expansion ------------------------------------------------------------------

TEST_F(Store, ExpandVariables) {
  ConfigKeyReplaceString("k", "v");
  ConfigKeyReplaceString("t.a:b[1]@x", "odd");
  ConfigKeyReplaceString("t.self", "${k}");
  struct Row {
    std::string text;
    int result;
    std::string out;    // what follows "pre:"
    std::string error;  // "" on success
  } rows[] = {
      {"a${k}b", 1, "avb", ""},
      {"\\${k}", 1, "${k}", ""},
      {"\\$k \\x $ $$ ${k}$", 1, "\\$k \\x $ $$ v$", ""},
      {"${t.a:b[1]@x}", 1, "odd", ""},
      {"${t.self}", 1, "${k}", ""},  // not scanned again
      {"${@kzmajor}.${@kzminor}", 1, "6.3", ""},
      {"", 1, "", ""},
      {"${k", 0, "${k", "variable expansion error at character 3"},
      {"${a-b}", 0, "${a", "variable expansion error at character 3"},
      {"x${", 0, "x${", "variable expansion error at character 3"},
      {"${k}${k }", 0, "v${k", "variable expansion error at character 7"},
      {"ab${t.none}cd", 0, "ab", "undefined variable t.none"},
      {"${}", 0, "", "undefined variable "},
      {"${@other}", 0, "", "undefined variable @other"},
  };
  for (const Row &row : rows) {
    Scoped<UByteArray> out;
    UByteArrayPrintf(&out, "pre:");
    KZErrorClear();
    EXPECT_EQ(ConfigKeyExpandVariables(row.text.data(), row.text.size(), &out), row.result) << row.text;
    EXPECT_EQ(Bytes(out), "pre:" + row.out) << row.text;
    EXPECT_EQ(out.elements[out.count], '\0');
    if (!row.error.empty()) {
      EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID) << row.text;
      EXPECT_EQ(ErrorText(), row.error);
    }
  }
  // Only `length` bytes count.
  Scoped<UByteArray> out;
  EXPECT_EQ(ConfigKeyExpandVariables("${k}${k}", 4, &out), 1);
  EXPECT_EQ(Bytes(out), "v");
  ConfigKeyDelete("k");
}

}  // namespace
