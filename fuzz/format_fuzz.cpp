// The library's formatter against trio, byte for byte.
//
// The input drives a small generator: up to four conversions drawn from the
// grammar the formatter takes directly (flags "-+ #0" in any order and
// number, widths and precisions written or taken with '*', the lengths hh h l
// ll z j t I64 I32, the conversions d i u x X o c s f F) and, now and then,
// something it leaves to trio ("%e", "%g", "%p", "%I16d", "%q", "%'d",
// "%5%", positional "%1$d", a NULL text), with literal text between them.
// Arguments are edge integers, texts, and doubles from raw bit patterns
// (NaN, infinities, huge values, ties such as 2.5 or 0.125). Each format is
// printed with its own argument types by UByteArrayPrintf into an array that
// may already hold a prefix in small storage (so the growing second pass runs
// too) and by trio_snprintf; the texts and the success must agree. AllocPrintf
// is held to the same text.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <trio.h>

#include "fuzz_support.h"
#include "kz/format.h"

namespace {

using kzfuzz::Require;

// Bytes of the input, read one at a time; zeros once it runs out.
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint64_t Bytes(int n) {
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | Byte();
    return v;
  }
  bool Done() const { return at_ >= size_; }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t at_ = 0;
};

enum class Type { kInt, kLongLong, kText, kDouble };

struct Argument {
  Type type;
  int i = 0;
  long long ll = 0;
  const char *text = nullptr;
  double d = 0;
};

const char *const kTexts[] = {"", "a", "name", "0123456789abcdef", "with space", "\x7f\x80\xff", "%d%s"};

int EdgeInt(Reader &in) {
  static const int kEdges[] = {0, 1, -1, 7, 8, 9, 10, 255, 256, -128, 65535, INT32_MAX, INT32_MIN, 1000000};
  const uint8_t pick = in.Byte();
  return pick < 128 ? kEdges[pick % (sizeof kEdges / sizeof kEdges[0])] : static_cast<int>(in.Bytes(4));
}

long long EdgeLongLong(Reader &in) {
  static const long long kEdges[] = {
      0, 1, -1, INT64_MAX, INT64_MIN, 0xFFFFFFFFll, 0x100000000ll, -0x80000000ll, 1000000007ll, 999999999999999999ll};
  const uint8_t pick = in.Byte();
  return pick < 96 ? kEdges[pick % (sizeof kEdges / sizeof kEdges[0])] : static_cast<long long>(in.Bytes(8));
}

double EdgeDouble(Reader &in) {
  static const double kEdges[] = {0.0,        -0.0,
                                  0.5,        1.5,
                                  2.5,        -2.5,
                                  0.125,      0.0005,
                                  0.05,       0.95,
                                  9.995,      99.5,
                                  1e15,       999999999999999.0,
                                  1e16,       9007199254740993.0,
                                  1e300,      1.7976931348623157e308,
                                  5e-324,     1e-5,
                                  123456.789, -0.4999999999999999};
  const uint8_t pick = in.Byte();
  if (pick < 64) return kEdges[pick % (sizeof kEdges / sizeof kEdges[0])];
  if (pick < 128) {  // a value with a few decimals, as programs print them
    const long long whole = static_cast<long long>(in.Bytes(3)) - 0x800000;
    return static_cast<double>(whole) / static_cast<double>(1u << (in.Byte() % 12));
  }
  if (pick < 160) return static_cast<double>(static_cast<long long>(in.Bytes(4)) % 2000000) / 1000.0;
  const uint64_t bits = in.Bytes(8);
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

// Arguments per format: each combination of types is a separate call.
constexpr size_t kMaxArguments = 4;

// One format and its arguments, as the generator drew them.
struct Case {
  std::string format;
  std::vector<Argument> arguments;
};

void AddField(Reader &in, Case &c, bool star) {
  if (star) {
    c.format += '*';
    Argument a{Type::kInt};
    const uint8_t pick = in.Byte();
    // Small fields, and a few large ones (trio's own limits and crashes beyond 2^31 are no concern here).
    static const int kLarge[] = {300, -300, 100000, -100000};
    a.i = pick < 200 ? static_cast<int>(pick % 40) - 12 : kLarge[pick % 4];
    c.arguments.push_back(a);
  } else {
    const uint8_t pick = in.Byte();
    c.format += std::to_string(pick < 240 ? pick % 30 : pick < 250 ? 300 : 100000);
  }
}

Case Generate(Reader &in) {
  Case c;
  const int conversions = 1 + in.Byte() % 4;
  for (int k = 0; k < conversions && c.arguments.size() < kMaxArguments; ++k) {
    const size_t formatBefore = c.format.size(), argumentsBefore = c.arguments.size();
    const auto dropIfTooMany = [&] {
      if (c.arguments.size() <= kMaxArguments) return false;
      c.format.resize(formatBefore);
      c.arguments.resize(argumentsBefore);
      return true;
    };
    // Literal text, now and then with "%%".
    for (int n = in.Byte() % 6; n > 0; --n) {
      const uint8_t b = in.Byte();
      if (b == 0 || b == '%')
        c.format += b == 0 ? "." : "%%";
      else
        c.format += static_cast<char>(b);
    }
    c.format += '%';
    const uint8_t shape = in.Byte();
    if (shape >= 248) {  // forms left to trio
      static const char *const kOthers[] = {"e", "g", "E", "p", "I16d", "qd", "'d", "5%"};
      const char *other = kOthers[shape - 248];
      c.format += other;
      Argument a{other[0] == 'p'                                           ? Type::kText
                 : other[0] == 'q'                                         ? Type::kLongLong
                 : (other[0] == 'e' || other[0] == 'g' || other[0] == 'E') ? Type::kDouble
                                                                           : Type::kInt};
      a.i = EdgeInt(in);
      a.ll = EdgeLongLong(in);
      a.text = kTexts[0];
      a.d = EdgeDouble(in);
      if (other[0] != '5') c.arguments.push_back(a);
      if (dropIfTooMany()) break;
      continue;
    }
    const bool positional = shape >= 244 && k == 0;  // alone: trio does not mix the two forms
    if (positional) {
      c.format += "1$";
      k = conversions;
    }
    bool alternative = false;
    for (int n = in.Byte() % 4; n > 0; --n) {
      const char flag = "-+ #0"[in.Byte() % 5];
      alternative |= flag == '#';
      c.format += flag;
    }
    const uint8_t field = in.Byte();
    if (field % 3 != 0) AddField(in, c, field % 3 == 2);
    if (field / 3 % 3 != 0) {
      c.format += '.';
      if (field / 9 % 4 != 0) AddField(in, c, field / 9 % 4 == 3);
    }
    static const char *const kLengths[] = {"", "", "", "hh", "h", "l", "ll", "z", "j", "t", "I64", "I32"};
    const char *length = kLengths[in.Byte() % (sizeof kLengths / sizeof kLengths[0])];
    const char conversion = "diuxXocsfFdxfs"[in.Byte() % 14];
    Argument a{Type::kInt};
    const bool wide =
        length[0] == 'l' || length[0] == 'z' || length[0] == 'j' || length[0] == 't' || std::strcmp(length, "I64") == 0;
    if (conversion == 's') {
      a.type = Type::kText;
      const uint8_t pick = in.Byte();
      a.text = pick == 255 ? nullptr : kTexts[pick % (sizeof kTexts / sizeof kTexts[0])];
      if (pick < 8) length = "";
    } else if (conversion == 'f' || conversion == 'F') {
      a.type = Type::kDouble;
      a.d = EdgeDouble(in);
      // trio cannot print a double with 10^precision beyond the long double range: fields stay small.
      for (size_t at = c.format.find("100000", formatBefore); at != std::string::npos;
           at = c.format.find("100000", formatBefore))
        c.format.replace(at, 6, "300");
      for (size_t i = argumentsBefore; i < c.arguments.size(); ++i) c.arguments[i].i %= 1000;
      if (length[0] != 'l' || length[1] == 'l') length = "";
    } else if (conversion == 'c') {
      a.i = EdgeInt(in);
      if (alternative) a.i &= 0xFF;  // trio's "%#c" looks a character up in the ctype table
      length = "";
    } else if (wide) {
      a.type = Type::kLongLong;
      a.ll = EdgeLongLong(in);
    } else {
      a.i = EdgeInt(in);
    }
    c.format += length;
    c.format += conversion;
    c.arguments.push_back(a);
    if (dropIfTooMany()) break;
  }
  for (int n = in.Byte() % 4; n > 0; --n) c.format += static_cast<char>('a' + in.Byte() % 26);
  return c;
}

// What trio and the library make of one format with these arguments.
template <typename... Values>
void Compare(const Case &c, uint8_t options, Values... values) {
  const char *format = c.format.c_str();
  std::string expected(64, '\0');
  int n = trio_snprintf(expected.data(), expected.size(), format, values...);
  if (n >= 0 && static_cast<size_t>(n) >= expected.size()) {
    expected.assign(static_cast<size_t>(n) + 1, '\0');
    n = trio_snprintf(expected.data(), expected.size(), format, values...);
  }
  if (n >= 0) expected.resize(static_cast<size_t>(n));

  kzfuzz::PrefixedArray array(options & 1, "prefix:", options & 2 ? 8 : 40);
  const int ok = UByteArrayPrintf(&array.array, format, values...);
  Require(ok == (n >= 0 ? 1 : 0), "success agrees with trio");
  const std::string got = array.Appended();
  if (got != (n >= 0 ? expected : std::string())) {
    std::fprintf(stderr, "format \"%s\": trio \"%s\" (%d), library \"%s\"; arguments:", format, expected.c_str(), n,
                 got.c_str());
    for (const Argument &a : c.arguments) {
      if (a.type == Type::kInt) std::fprintf(stderr, " %d", a.i);
      if (a.type == Type::kLongLong) std::fprintf(stderr, " %lldLL", a.ll);
      if (a.type == Type::kText) std::fprintf(stderr, " \"%s\"", a.text ? a.text : "(null)");
      if (a.type == Type::kDouble) std::fprintf(stderr, " %a", a.d);
    }
    std::fprintf(stderr, "\n");
  }
  Require(got == (n >= 0 ? expected : std::string()), "text equals trio's");
  Require(array.array.elements == nullptr || array.array.elements[array.array.count] == '\0', "NUL kept");

  char *allocated = AllocPrintf(format, values...);
  Require((allocated != nullptr) == (n >= 0), "AllocPrintf success agrees with trio");
  // A "%c" of 0 writes a NUL, where the allocated text ends for its reader.
  if (allocated) Require(std::strcmp(expected.c_str(), allocated) == 0, "AllocPrintf text equals trio's");
  std::free(allocated);
}

// Calls Compare with the case's arguments, each with its own C type.
template <typename... Values>
void Dispatch(const Case &c, uint8_t options, size_t next, Values... values) {
  if constexpr (sizeof...(Values) < kMaxArguments) {
    if (next < c.arguments.size()) {
      const Argument &a = c.arguments[next];
      switch (a.type) {
        case Type::kInt: return Dispatch(c, options, next + 1, values..., a.i);
        case Type::kLongLong: return Dispatch(c, options, next + 1, values..., a.ll);
        case Type::kText: return Dispatch(c, options, next + 1, values..., a.text);
        case Type::kDouble: return Dispatch(c, options, next + 1, values..., a.d);
      }
    }
  }
  Compare(c, options, values...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Reader in(data, size);
  const uint8_t options = in.Byte();
  while (!in.Done()) {
    const Case c = Generate(in);
    Dispatch(c, options, 0);
  }
  return 0;
}
