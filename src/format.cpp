// Formatted output into byte arrays (trio's text, the common conversions written
// directly) and bounded string copies.
#include "kz/format.h"

#include <errno.h>
#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include <atomic>

#include "internal/array_view.h"
#include "internal/format.h"
#include "kz/memory.h"
#include "kz/message.h"

namespace kz {
namespace {

// The direct path follows trio's own rules for each conversion it takes (its
// number, string, character and fixed-point writers), so the text is the
// same byte for byte; a format with anything else goes to trio whole.

enum : unsigned {
  kLeft = 1u << 0,      // '-'
  kShowSign = 1u << 1,  // '+'
  kSpace = 1u << 2,     // ' '
  kAlternative = 1u << 3,
  kZeroPad = 1u << 4,  // '0', or a precision on an integer
  kUnsigned = 1u << 5,
  kUpper = 1u << 6,
  kWide = 1u << 7,  // a 64-bit integer argument
};

constexpr int kNoPrecision = -1;
// Widths and precisions beyond this, more arguments than this, or texts
// longer than this go to trio, whose limits then apply.
constexpr int kMaxField = 9999999;
constexpr int kMaxArguments = 32;
constexpr size_t kMaxText = 0x7FFFFFFF;

// Output into the caller's buffer, counting what did not fit.
class Sink {
 public:
  Sink(char *buffer, size_t size) : begin_(buffer), out_(buffer), limit_(size ? buffer + size - 1 : buffer) {}

  void Put(char c) {
    if (out_ < limit_)
      *out_++ = c;
    else
      ++lost_;
  }
  void Put(const char *text, size_t n) {
    const size_t room = static_cast<size_t>(limit_ - out_);
    if (n <= room) {
      memcpy(out_, text, n);
      out_ += n;
    } else {
      memcpy(out_, text, room);
      out_ += room;
      lost_ += n - room;
    }
  }
  void Fill(char c, int n) {
    if (n <= 0) return;
    const size_t count = static_cast<size_t>(n);
    const size_t room = static_cast<size_t>(limit_ - out_);
    const size_t fits = count <= room ? count : room;
    memset(out_, c, fits);
    out_ += fits;
    lost_ += count - fits;
  }
  size_t Length() const { return static_cast<size_t>(out_ - begin_) + lost_; }
  char *End() const { return out_; }

 private:
  char *begin_;
  char *out_;
  char *limit_;
  size_t lost_ = 0;
};

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// The digits of value in base 8, 10 or 16, written backwards ending at end.
char *Digits(uint64_t value, int base, bool upper, char *end) {
  char *p = end;
  if (base == 10) {
    while (value >= 100) {
      const unsigned pair = static_cast<unsigned>(value % 100) * 2;
      value /= 100;
      *--p = kDigitPairs[pair + 1];
      *--p = kDigitPairs[pair];
    }
    if (value >= 10) {
      const unsigned pair = static_cast<unsigned>(value) * 2;
      *--p = kDigitPairs[pair + 1];
      *--p = kDigitPairs[pair];
    } else {
      *--p = static_cast<char>('0' + value);
    }
    return p;
  }
  const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  const unsigned shift = base == 16 ? 4 : 3;
  const unsigned mask = static_cast<unsigned>(base - 1);
  do {
    *--p = digits[value & mask];
    value >>= shift;
  } while (value);
  return p;
}

// trio's integer writer, step for step (its padding counts included).
void WriteNumber(Sink &sink, uint64_t number, unsigned flags, int width, int precision, int base) {
  const bool isZero = number == 0;
  const bool ignoreNumber = isZero && precision == 0 && !((flags & kAlternative) && base == 8);
  bool isNegative = false;
  if (flags & kUnsigned) {
    flags &= ~kShowSign;
  } else {
    isNegative = static_cast<int64_t>(number) < 0;
    if (isNegative) number = 0 - number;
  }
  if (!(flags & kWide)) number &= 0xFFFFFFFFu;

  char buffer[24];
  char *const end = buffer + sizeof buffer;
  const char *digits = Digits(number, base, flags & kUpper, end);
  const int length = static_cast<int>(end - digits);
  if (!ignoreNumber) width -= length;
  if (precision != kNoPrecision) {
    precision -= length;
    if (precision < 0) precision = 0;
    flags |= kZeroPad;
  }
  const int count = !((flags & kLeft) || precision == kNoPrecision) ? precision : 0;
  if (isNegative || (flags & (kShowSign | kSpace))) width--;
  if ((flags & kAlternative) && !isZero) {
    if (base == 16)
      width -= 2;
    else if (base == 8 && (!(flags & kZeroPad) || count == 0))
      width--;
  }
  if (!((flags & kLeft) || ((flags & kZeroPad) && precision == kNoPrecision))) {
    sink.Fill(' ', width - count);
    width = (width > count ? count : width) - 1;
  }
  if (isNegative)
    sink.Put('-');
  else if (flags & kShowSign)
    sink.Put('+');
  else if (flags & kSpace)
    sink.Put(' ');
  if ((flags & kAlternative) && !isZero) {
    if (base == 16) {
      sink.Put('0');
      sink.Put((flags & kUpper) ? 'X' : 'x');
    } else if (base == 8 && (!(flags & kZeroPad) || count == 0)) {
      sink.Put('0');
    }
  }
  if (flags & kZeroPad) {
    if (precision == kNoPrecision) precision = width;
    if (precision > 0) {
      sink.Fill('0', precision);
      width -= precision;
    }
  }
  if (!ignoreNumber) sink.Put(digits, static_cast<size_t>(length));
  if (flags & kLeft) sink.Fill(' ', width);
}

// The part of a text a precision keeps (trio measures the whole text first).
size_t StringLength(const char *text, int precision) {
  return precision == kNoPrecision ? strlen(text) : strnlen(text, static_cast<size_t>(precision));
}

// trio's string writer for a non-null text of the given (kept) length.
void WriteString(Sink &sink, const char *text, size_t length, unsigned flags, int width) {
  width -= static_cast<int>(length);
  if (!(flags & kLeft)) sink.Fill(' ', width);
  sink.Put(text, length);
  if (flags & kLeft) sink.Fill(' ', width);
}

// floorl and fmodl(x, 10) as trio calls them, exact and without the x87
// rounding-mode switches that conversions to integers cost. Adding 2^63 to a
// value in [0, 2^63) leaves one unit in the last place, so the sum is the
// value rounded to an integer and its mantissa is 2^63 plus that integer.
constexpr long double kTwo63 = 0x1p63L;
// The fixed-point writer follows trio's arithmetic in the x87 extended format
// only; elsewhere "%f" goes to trio.
constexpr bool kExtendedLongDouble = LDBL_MANT_DIG == 64 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

long double Floor(long double x) {
  if (!(x >= 0 && x < kTwo63)) return floorl(x);
  const long double rounded = (x + kTwo63) - kTwo63;
  return rounded > x ? rounded - 1 : rounded;
}

// An integral value in [0, 2^63) as an integer.
uint64_t Integer(long double integral) {
  const long double biased = integral + kTwo63;
  uint64_t mantissa;
  memcpy(&mantissa, &biased, sizeof mantissa);  // x87 extended: the 64-bit mantissa comes first
  return mantissa - (uint64_t{1} << 63);
}

int LastDecimalDigit(long double integral) {
  if (integral >= 0 && integral < kTwo63) return static_cast<int>(Integer(integral) % 10);
  return static_cast<int>(fmodl(integral, 10.0L));
}

// trio's power of ten, with its table for the small exponents.
long double Power10(int exponent) {
  static constexpr long double kTable[] = {10.0L * 1E-1L, 10.0L * 1E+0L, 10.0L * 1E+1L, 10.0L * 1E+2L, 10.0L * 1E+3L,
                                           10.0L * 1E+4L, 10.0L * 1E+5L, 10.0L * 1E+6L, 10.0L * 1E+7L, 10.0L * 1E+8L};
  if (exponent >= 0 && exponent <= 9) return kTable[exponent];
  return powl(10.0L, static_cast<long double>(exponent));
}

// Digits before the point as trio counts them: 1 + (int)(log10l(x) + 3 *
// DBL_EPSILON), which for values just below a power of ten from 10^15 up
// counts one more (trio then writes a leading 0). Below 10^14 the logarithm
// is at least 10^-15 away from the next integer, so the plain count agrees.
int IntegerDigits(long double integral) {
  if (!(integral > static_cast<long double>(DBL_EPSILON))) return 1;
  if (integral < 1e14L) {
    uint64_t value = Integer(integral);
    int digits = 1;
    while (value >= 10) value /= 10, ++digits;
    return digits;
  }
  return 1 + static_cast<int>(log10l(integral) + 3 * static_cast<long double>(DBL_EPSILON));
}

// The decimal point trio writes, learnt once from trio itself (it reads the
// locale once, on its first use); 0 when it is not a single character. An
// atomic rather than a guarded static: callers never wait, and errno is kept.
char TrioDecimalPoint() {
  static std::atomic<int> point{-1};
  int known = point.load(std::memory_order_relaxed);
  if (known < 0) {
    const int saved = errno;
    char text[8];
    const int n = trio_snprintf(text, sizeof text, "%#.0f", 0.0);
    errno = saved;
    known = n == 2 ? static_cast<unsigned char>(text[1]) : 0;
    point.store(known, std::memory_order_relaxed);
  }
  return static_cast<char>(known);
}

// trio's fixed-point writer ("%f", "%F"), with its long double arithmetic
// and rounding kept operation for operation.
void WriteFixed(Sink &sink, long double number, unsigned flags, int width, int precision, char point) {
  const bool upper = flags & kUpper;
  const bool isNegative = signbit(number);
  if (isnan(number) || isinf(number)) {
    const char *text = isnan(number) ? (upper ? "NAN" : "nan")
                       : isNegative  ? (upper ? "-INF" : "-inf")
                                     : (upper ? "INF" : "inf");
    return WriteString(sink, text, StringLength(text, precision), flags, width);
  }
  if (precision == kNoPrecision) precision = 6;
  if (isNegative) number = -number;

  long double integerNumber = Floor(number);
  long double fractionNumber = number - integerNumber;
  int integerDigits = IntegerDigits(integerNumber);
  const int fractionDigits = precision;
  const long double fractionBase = Power10(fractionDigits);
  long double work;
  bool adjust;
  if (integerNumber < 1.0L) {
    work = number * fractionBase + 0.5L;
    adjust = Floor(number * fractionBase) != Floor(work);
    work /= fractionBase;
  } else {
    work = number + 0.5L / fractionBase;
    adjust = Floor(number) != Floor(work);
  }
  if (adjust) {
    integerNumber = Floor(work);
    if (work > 1.0L) {
      fractionNumber = 0.0L;
      integerDigits = IntegerDigits(integerNumber);
    } else {
      fractionNumber = work - integerNumber;
    }
  }
  long double fractionAdjust = 0.5L / fractionBase;
  const bool keepPoint = (flags & kAlternative) || precision != 0;
  int expectedWidth = integerDigits + fractionDigits + (keepPoint ? 1 : 0);
  if (isNegative || (flags & (kShowSign | kSpace))) expectedWidth++;

  const char sign = isNegative ? '-' : (flags & kShowSign) ? '+' : (flags & kSpace) ? ' ' : '\0';
  if (flags & kZeroPad) {
    if (sign) sink.Put(sign);
    if (!(flags & kLeft)) sink.Fill('0', width - expectedWidth);
  } else {
    if (!(flags & kLeft)) sink.Fill(' ', width - expectedWidth);
    if (sign) sink.Put(sign);
  }
  if (integerNumber < kTwo63) {
    // floorl((I + 0.5) / 10^k) is I / 10^k here: the quotient's rounding
    // error stays below the 0.5 / 10^k that separates it from an integer.
    // So the digits are I's own, zero-filled to trio's count.
    char buffer[24];
    char *const end = buffer + sizeof buffer;
    const char *first = Digits(Integer(integerNumber), 10, false, end);
    const int length = static_cast<int>(end - first);
    if (integerDigits > length) sink.Fill('0', integerDigits - length);
    sink.Put(end - (integerDigits < length ? integerDigits : length),
             static_cast<size_t>(integerDigits < length ? integerDigits : length));
  } else {
    for (int i = 0; i < integerDigits; i++) {
      const long double digits = Floor((integerNumber + 0.5L) / Power10(integerDigits - i - 1));
      sink.Put(static_cast<char>('0' + LastDecimalDigit(digits)));
    }
  }
  if (keepPoint) sink.Put(point);
  int trailingZeroes = 0;
  for (int i = 0; i < fractionDigits; i++) {
    fractionNumber *= 10.0L;
    fractionAdjust *= 10.0L;
    work = Floor(fractionNumber + fractionAdjust);
    if (work > fractionNumber) {
      fractionNumber = 0.0L;
      fractionAdjust = 0.0L;
    } else {
      fractionNumber -= work;
    }
    const int digit = LastDecimalDigit(work);
    if (digit == 0) {
      trailingZeroes++;
    } else {
      sink.Fill('0', trailingZeroes);
      trailingZeroes = 0;
      sink.Put(static_cast<char>('0' + digit));
    }
  }
  sink.Fill('0', trailingZeroes);
  if (flags & kLeft) sink.Fill(' ', width - expectedWidth);
}

// A field width or precision written in the format: up to 7 digits.
bool ReadField(const char *&p, int &value) {
  int n = 0;
  const char *start = p;
  while (*p >= '0' && *p <= '9') {
    if (p - start == 7) return false;
    n = n * 10 + (*p++ - '0');
  }
  value = n;
  return true;
}

enum class Length { kNone, kShort, kLong, kLongLong, kSizeT, kMaxT, kPtrdiff, kI64, kI32 };

// The direct path; false when the format holds anything it does not take
// (nothing of args is then relied upon: the caller starts over from a copy).
bool FormatDirect(Sink &sink, const char *format, va_list args) {
  int arguments = 0;
  const char *p = format;
  for (;;) {
    const char *percent = strchr(p, '%');
    if (!percent) {
      sink.Put(p, strlen(p));
      return sink.Length() <= kMaxText;
    }
    if (percent != p) sink.Put(p, static_cast<size_t>(percent - p));
    p = percent + 1;
    if (*p == '%') {
      sink.Put('%');
      ++p;
      continue;
    }
    unsigned flags = 0;
    for (;; ++p) {
      if (*p == '-') {
        flags = (flags | kLeft) & ~kZeroPad;
      } else if (*p == '+') {
        flags |= kShowSign;
      } else if (*p == ' ') {
        flags |= kSpace;
      } else if (*p == '#') {
        flags |= kAlternative;
      } else if (*p == '0') {
        if (!(flags & kLeft)) flags |= kZeroPad;
      } else {
        break;
      }
    }
    int width = 0;
    if (*p == '*') {
      ++p;
      ++arguments;
      width = va_arg(args, int);
      if (width < -kMaxField || width > kMaxField) return false;
      if (width < 0) {
        flags = (flags | kLeft) & ~kZeroPad;
        width = -width;
      }
    } else if (!ReadField(p, width)) {
      return false;
    }
    int precision = kNoPrecision;
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        ++p;
        ++arguments;
        precision = va_arg(args, int);
        if (precision > kMaxField) return false;
        if (precision < 0) precision = kNoPrecision;
      } else if (!ReadField(p, precision)) {
        return false;
      }
    }
    Length length = Length::kNone;
    switch (*p) {
      case 'h':
        length = Length::kShort;
        p += p[1] == 'h' ? 2 : 1;
        break;
      case 'l':
        length = p[1] == 'l' ? Length::kLongLong : Length::kLong;
        p += p[1] == 'l' ? 2 : 1;
        break;
      case 'z': length = Length::kSizeT, ++p; break;
      case 'j': length = Length::kMaxT, ++p; break;
      case 't': length = Length::kPtrdiff, ++p; break;
      case 'I':
        if (p[1] == '6' && p[2] == '4') {
          length = Length::kI64;
        } else if (p[1] == '3' && p[2] == '2') {
          length = Length::kI32;
        } else {
          return false;
        }
        p += 3;
        break;
      default: break;
    }
    if (++arguments > kMaxArguments) return false;
    const char conversion = *p++;
    int base = 10;
    switch (conversion) {
      case 'o':
        base = 8;
        flags |= kUnsigned;
        goto integer;
      case 'X': flags |= kUpper; [[fallthrough]];
      case 'x':
        base = 16;
        flags |= kUnsigned;
        goto integer;
      case 'u': flags |= kUnsigned; [[fallthrough]];
      case 'd':
      case 'i':
      integer : {
        uint64_t value;
        switch (length) {
          case Length::kLong:
            // 64 bits where long is (LP64), 32 bits on 64-bit Windows.
            if (sizeof(long) == 8) {
              value = static_cast<uint64_t>(va_arg(args, long long));
              flags |= kWide;
            } else {
              value = static_cast<uint64_t>(static_cast<int64_t>(va_arg(args, long)));
            }
            break;
          case Length::kLongLong:
          case Length::kSizeT:
          case Length::kMaxT:
          case Length::kPtrdiff:
          case Length::kI64:
            static_assert(sizeof(long long) == 8 && sizeof(size_t) == 8 && sizeof(intmax_t) == 8 &&
                          sizeof(ptrdiff_t) == 8);
            value = static_cast<uint64_t>(va_arg(args, long long));
            flags |= kWide;
            break;
          default:
            // Sign-extended like trio; the writer keeps the low 32 bits.
            value = static_cast<uint64_t>(static_cast<int64_t>(va_arg(args, int)));
            break;
        }
        WriteNumber(sink, value, flags, width, precision, base);
        break;
      }
      case 'c': {
        if (length != Length::kNone || (flags & kAlternative)) return false;
        const char c = static_cast<char>(va_arg(args, int));
        if (!(flags & kLeft)) sink.Fill(' ', width - 1);
        sink.Put(c);
        if (flags & kLeft) sink.Fill(' ', width - 1);
        break;
      }
      case 's': {
        if (length != Length::kNone || (flags & kAlternative)) return false;
        const char *text = va_arg(args, const char *);
        if (!text) return false;  // trio's "(nil)" ignores the width
        const size_t kept = StringLength(text, precision);
        if (kept > kMaxText) return false;
        WriteString(sink, text, kept, flags, width);
        break;
      }
      case 'F': flags |= kUpper; [[fallthrough]];
      case 'f': {
        // Beyond 10^4000 trio's long double powers of ten overflow: left to it.
        if (!kExtendedLongDouble || (length != Length::kNone && length != Length::kLong) || precision > 4000)
          return false;
        const char point = TrioDecimalPoint();
        if (!point) return false;
        WriteFixed(sink, static_cast<long double>(va_arg(args, double)), flags, width, precision, point);
        break;
      }
      default: return false;
    }
  }
}

}  // namespace

int FormatV(char *buffer, size_t size, const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  Sink sink(buffer, size);
  if (FormatDirect(sink, format, args)) {
    va_end(again);
    if (size) *sink.End() = '\0';
    return static_cast<int>(sink.Length());
  }
  const int n = trio_vsnprintf(buffer, size, format, again);
  va_end(again);
  return n;
}

}  // namespace kz

namespace {

// Formats straight into the array's spare capacity: one pass when the text
// fits, a second one after growing when it did not.
template <typename Record>
int AppendFormatted(Record *array, const char *format, va_list args, uint64_t limit, const char *limitText,
                    uint32_t limitLine) {
  using Count = decltype(Record::count);
  auto view = kz::View(*array);
  auto ensure = [&](uint64_t needed) {
    if (needed > array->capacity) {
      // The Big family's growth rule never returns a capacity at its limit,
      // so the needed size itself is checked first; Reserve checks the grown
      // capacity against the same limit.
      if (needed >= limit) kzassert_(limitText, "kzlib/array", limitLine);
      view.Reserve(needed);
    }
  };
  ensure(uint64_t(array->count) + 1);
  va_list second;
  va_copy(second, args);
  size_t spare = static_cast<size_t>(array->capacity - array->count);
  int n = kz::FormatV(reinterpret_cast<char *>(array->elements) + array->count, spare, format, args);
  if (n < 0) {
    va_end(second);
    return 0;
  }
  if (static_cast<uint64_t>(n) < spare) {
    array->count += static_cast<Count>(n);
    va_end(second);
    return 1;
  }
  ensure(uint64_t(array->count) + uint64_t(n) + 1);
  spare = static_cast<size_t>(array->capacity - array->count);
  int again = kz::FormatV(reinterpret_cast<char *>(array->elements) + array->count, spare, format, second);
  va_end(second);
  if (again < 0 || static_cast<uint64_t>(again) >= spare) kzassert_("firstPass", "kzlib/kzlib", __LINE__);
  array->count += static_cast<Count>(again);
  return 1;
}

}  // namespace

extern "C" {

KZ_API int UByteArrayVprintf(UByteArray *array, const char *format, va_list args) {
  return AppendFormatted(array, format, args, 0x7FFFFFFFull, "eltCount < UINT_MAX_VALUE / 2", 114);
}

KZ_API int UByteArrayPrintf(UByteArray *array, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int result = UByteArrayVprintf(array, format, args);
  va_end(args);
  return result;
}

KZ_API int UByteBigArrayVprintf(UByteBigArray *array, const char *format, va_list args) {
  return AppendFormatted(array, format, args, 0x7FFFFFFFFFFFFFFFull, "eltCount < ULONG_MAX_VALUE / 2", 220);
}

KZ_API int UByteBigArrayPrintf(UByteBigArray *array, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int result = UByteBigArrayVprintf(array, format, args);
  va_end(args);
  return result;
}

KZ_API char *AllocVprintf(const char *format, va_list args) {
  va_list second;
  va_copy(second, args);
  char probe[1];
  int n = kz::FormatV(probe, sizeof probe, format, args);
  if (n < 0) {
    va_end(second);
    return nullptr;
  }
  char *text = static_cast<char *>(Allocate_(size_t(n) + 1, nullptr, "kzlib/kzlib", __LINE__));
  int n1 = kz::FormatV(text, size_t(n) + 1, format, second);
  va_end(second);
  if (n1 != n) kzassert_("n1 == n", "kzlib/kzlib", __LINE__);
  return text;
}

KZ_API char *AllocPrintf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *text = AllocVprintf(format, args);
  va_end(args);
  return text;
}

KZ_API size_t strlcpy(char *destination, const char *source, size_t size) {
  size_t length = strlen(source);
  if (size == 0) return length;
  size_t copied = length < size - 1 ? length : size - 1;
  memcpy(destination, source, copied);
  destination[copied] = '\0';
  return length;
}

KZ_API size_t strlcat(char *destination, const char *source, size_t size) {
  size_t used = strlen(destination);
  size_t length = strlen(source);
  if (size <= used) return used + length;
  size_t room = size - 1 - used;
  size_t copied = length < room ? length : room;
  memcpy(destination + used, source, copied);
  destination[used + copied] = '\0';
  return used + length;
}

}  // extern "C"
