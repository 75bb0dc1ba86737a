// ConfigKeyExpandVariables on any bytes against a straightforward model of the
// expansion rules, with a few keys and the pseudo keys in the store.
//
// Input: the first byte's bit 0 starts the output array with a prefix; the
// rest is the text. Checked: the result, the whole output (the prefix kept,
// NUL-terminated) and, on failure, the error code and message.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "kz/config.h"
#include "kz/error.h"

namespace {

using kzfuzz::Require;

bool NameByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
         c == ':' || c == '[' || c == ']' || c == '@';
}

struct Model {
  int result = 1;
  std::string out;
  std::string error;
};

Model Expand(const std::string &text) {
  Model m;
  size_t i = 0;
  while (i < text.size()) {
    if (text.compare(i, 3, "\\${") == 0) {
      m.out += "${";
      i += 3;
    } else if (text.compare(i, 2, "${") == 0) {
      size_t end = i + 2;
      while (end < text.size() && NameByte(static_cast<unsigned char>(text[end]))) end++;
      std::string name = text.substr(i + 2, end - i - 2);
      if (end == text.size() || text[end] != '}') {
        m.out += "${" + name;
        m.result = 0;
        m.error = "variable expansion error at character " + std::to_string(end);
        return m;
      }
      UByteArray value = {nullptr, 0, 0};
      bool found = ConfigKeyGetString(name.c_str(), nullptr, &value) != nullptr;
      if (!found) {
        m.result = 0;
        m.error = "undefined variable " + name;
        return m;
      }
      m.out.append(reinterpret_cast<char *>(value.elements), value.count);
      ArrayFree_(&value);
      i = end + 1;
    } else {
      m.out += text[i++];
    }
  }
  return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  kzfuzz::OptionsInput input(bytes, size);
  if (input.empty) return 0;
  static bool stored = [] {
    ConfigKeyReplaceString("a", "A");
    ConfigKeyReplaceString("b.c", "${a}");
    ConfigKeyReplaceString("x[1]:y@z", "");
    ConfigKeyReplaceString("_", "\\${a}");
    return true;
  }();
  (void)stored;
  kzfuzz::PrefixedArray out(input.Bit(0), "pre", 64);
  Model want = Expand(input.data);
  KZErrorClear();
  int result = ConfigKeyExpandVariables(input.data.data(), static_cast<unsigned int>(input.data.size()), &out.array);
  Require(result == want.result, "result");
  std::string got(reinterpret_cast<char *>(out.array.elements), out.array.count);
  Require(got == std::string(input.Bit(0) ? "pre" : "") + want.out, "output");
  Require(out.array.elements[out.array.count] == '\0', "terminated");
  if (!result) {
    Require(KZErrorCode() == KZ_ERR_INVALID, "error code");
    Require(want.error == KZErrorMessage(), "error message");
  }
  return 0;
}
