// The word tokenizer on any bytes, then the same bytes loaded into the store.
//
// Input: the first byte holds the options (bit 0: the handler rejects lines
// whose first word begins with 'x'; bit 1: the text is read under a file name
// in a directory that does not exist, so relative inclusions fail to map;
// bit 2: the load is prefixed over a store that already holds keys inside
// and outside the prefix). Checked:
//   - the tokenizer answers 0 or -4 and reports at least one message exactly
//     when it answers -4; every dispatched line has words, a null-terminated
//     vector and a line number between 1 and the text's line count, never
//     decreasing;
//   - the load succeeds exactly when the tokenizer accepts the text and every
//     line holds two words or more;
//   - afterwards the store is sorted and unique and holds exactly the
//     expected pairs: a key keeps the last value the text gave it, and a
//     loaded key replaces the store's; every key that is not a pseudo key
//     reads back its value; a failed load leaves the store as it was.
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "kz/config.h"
#include "kz/error.h"
#include "kz/message.h"

namespace {

using kzfuzz::Require;

int g_messages = 0;
void CountMessage(const char *, uint32_t, int, uint32_t, const char *, va_list) { g_messages++; }

struct Lines {
  const char *fileName = nullptr;  // lines of included files are not checked
  bool rejectX = false;
  int lastLine = 0;
  int maxLine = 1;
  bool allPairs = true;
  std::map<std::string, std::string> latest;  // the last value of each key
};

int Record(void *context, const char *fileName, int line, int argc, char **argv) {
  Lines &lines = *static_cast<Lines *>(context);
  Require(argc >= 1 && argv[argc] == nullptr, "word vector");
  if (fileName != lines.fileName) return 1;
  Require(line >= 1 && line <= lines.maxLine && line >= lines.lastLine, "line number");
  lines.lastLine = line;
  if (lines.rejectX && argv[0][0] == 'x') return 0;
  if (argc < 2) {
    lines.allPairs = false;
    return 1;
  }
  std::string value = argv[1];
  for (int i = 2; i < argc; i++) value += std::string(" ") + argv[i];
  lines.latest[argv[0]] = value;
  return 1;
}

std::vector<std::pair<std::string, std::string>> Snapshot() {
  std::vector<std::pair<std::string, std::string>> entries;
  ConfigKeyEnumerate(
      [](void *context, const char *key, const char *value) {
        auto &list = *static_cast<std::vector<std::pair<std::string, std::string>> *>(context);
        list.emplace_back(key, value);
        return 1;
      },
      &entries, nullptr);
  entries.erase(entries.begin(), entries.begin() + 3);  // "@serial", "@count", "@modified"
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  kzfuzz::OptionsInput input(bytes, size);
  if (input.empty) return 0;
  KZSetMessageHandler(CountMessage);
  const std::string &text = input.data;
  auto length = static_cast<unsigned int>(text.size());

  Lines lines;
  lines.rejectX = input.Bit(0);
  for (char c : text) lines.maxLine += c == '\n';
  g_messages = 0;
  const char *fileName = input.Bit(1) ? "/nonexistent-kzlib-fuzz/main.conf" : nullptr;
  lines.fileName = fileName;
  int result = ReadConfigFile_(text.data(), length, fileName, Record, &lines, 0);
  Require(result == 0 || result == -4, "tokenizer result");
  Require((result == -4) == (g_messages > 0), "messages exactly on failure");

  // The store: empty, or holding keys inside and outside a prefix.
  ConfigKeyRemove(nullptr);
  const char *prefix = input.Bit(2) ? "k" : nullptr;
  if (prefix) {
    static const char kBefore[] = "k 0\nka 1\nkz 2\nj 3\nl 4\n";
    Require(LoadConfigurationKeys(kBefore, sizeof kBefore - 1) == 1, "preload");
  }
  auto before = Snapshot();
  // The key parser's view of the text: every line kept, none rejected.
  Lines all;
  all.maxLine = lines.maxLine;
  int plain = ReadConfigFile_(text.data(), length, nullptr, Record, &all, 0);
  bool loaded = LoadConfigurationKeysPrefixed(text.data(), length, prefix) == 1;
  KZErrorClear();
  Require(loaded == (plain == 0 && all.allPairs), "load result");

  auto after = Snapshot();
  for (size_t i = 1; i < after.size(); i++) Require(after[i - 1].first < after[i].first, "sorted and unique");
  if (!loaded) {
    Require(after == before, "failed load leaves the store as it was");
  } else {
    std::map<std::string, std::string> expected;
    for (auto &[key, value] : before)
      if (!prefix || key.compare(0, strlen(prefix), prefix) != 0) expected[key] = value;
    for (auto &[key, value] : all.latest) expected[key] = value;
    Require(after == std::vector<std::pair<std::string, std::string>>(expected.begin(), expected.end()),
            "stored pairs");
    for (auto &[key, value] : after) {
      if (key[0] == '@') continue;  // a loaded '@' key is never read back
      UByteArray out = {nullptr, 0, 0};
      Require(
          ConfigKeyGetString(key.c_str(), nullptr, &out) != nullptr && value == reinterpret_cast<char *>(out.elements),
          "key retrievable");
      ArrayFree_(&out);
    }
  }
  ConfigKeyRemove(nullptr);
  return 0;
}
