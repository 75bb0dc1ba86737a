// Formatted output into byte arrays (through trio) and bounded string copies.
#include "kz/format.h"

#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include "internal/array_view.h"
#include "kz/memory.h"
#include "kz/message.h"

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
  int n = trio_vsnprintf(reinterpret_cast<char *>(array->elements) + array->count, spare, format, args);
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
  int again = trio_vsnprintf(reinterpret_cast<char *>(array->elements) + array->count, spare, format, second);
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
  int n = trio_vsnprintf(probe, sizeof probe, format, args);
  if (n < 0) {
    va_end(second);
    return nullptr;
  }
  char *text = static_cast<char *>(Allocate_(size_t(n) + 1, nullptr, "kzlib/kzlib", __LINE__));
  int n1 = trio_vsnprintf(text, size_t(n) + 1, format, second);
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
