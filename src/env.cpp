// Environment variables over the process environment, and string arrays.
#include "kz/env.h"

#include <cerrno>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/env.h"
#include "internal/os/error.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/unicode.h"

namespace {

constexpr const char *kFile = "kzlib/kzlib";

// One lock for every environment call of the library: the system's getenv
// hands out pointers into storage that a concurrent setenv may replace.
kz::LazyLock g_environmentLock;

// Appends the 16-bit form of text (the check every name and value passes on
// its way to the platform). A sequence cut off at the end records no error,
// so that case is marked as an invalid argument here.
bool Encode(UShortArray &units, const char *text) {
  if (UCS2Encode(&units, text, static_cast<uint32_t>(strlen(text)))) return true;
  if (errno != -2) kz::os::FailWithError(EINVAL);
  return false;
}

bool Convertible(const char *text) {
  UShortArray units = {nullptr, 0, 0};
  bool ok = Encode(units, text);
  ArrayFree_(&units);
  return ok;
}

// Looks the variable up under the lock and copies its value into value (NUL
// kept, not counted). False when absent (errno -1, ENOENT) or not convertible.
bool FetchValue(const char *name, UByteArray &value) {
  if (!name || !Convertible(name)) {
    if (!name) kz::os::FailWithError(EINVAL);
    return false;
  }
  bool found;
  {
    kz::LazyLockGuard hold(g_environmentLock);
    found = kz::os::EnvironmentGet(name, &value);
  }
  if (!found) {
    kz::os::FailWithError(ENOENT);
    return false;
  }
  kz::View(value, kFile, 0).Reserve(uint64_t(value.count) + 1);
  value.elements[value.count] = '\0';
  return Convertible(reinterpret_cast<const char *>(value.elements));
}

// A copy of text, or null after an "strdup failed" report when memory runs out.
char *CopyEntry(const char *text) {
  size_t size = strlen(text) + 1;
  char *copy = static_cast<char *>(AllocateUnsafe_(size, nullptr, kFile, 0));
  if (!copy) {
    KZ_MESSAGE_AT(kFile, 0, "StringArrayAppend", 3, 0, "strdup failed: ptr=0x%p", static_cast<const void *>(text));
    return nullptr;
  }
  memcpy(copy, text, size);
  return copy;
}

void Terminate(StringArray &array) {
  kz::View(array, kFile, 0).Reserve(uint64_t(array.count) + 1);
  array.elements[array.count] = nullptr;
}

inline unsigned char Upper(unsigned char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; }

// True when entry is "NAME=..." with NAME equal to the part of name before its
// first '=' (ASCII letters folded).
bool NameMatches(const char *entry, const char *name) {
  const unsigned char *e = reinterpret_cast<const unsigned char *>(entry);
  const unsigned char *n = reinterpret_cast<const unsigned char *>(name);
  while (*e && *e != '=' && *n && *n != '=') {
    if (Upper(*e) != Upper(*n)) return false;
    e++, n++;
  }
  return *e == '=' && (*n == '\0' || *n == '=');
}

// The index of the first entry matching name, or count.
uint32_t FindEntry(const StringArray &array, const char *name) {
  for (uint32_t i = 0; i < array.count; i++)
    if (array.elements[i] && NameMatches(array.elements[i], name)) return i;
  return array.count;
}

}  // namespace

extern "C" {

KZ_API int KZSetEnvironmentVariable(const char *name, const char *value) {
  if (!name) {
    kz::os::FailWithError(EINVAL);
    return 0;
  }
  if (!value) value = "";
  // Name, NUL, value: the block the platform's wide-character call takes.
  UShortArray units = {nullptr, 0, 0};
  bool converted = Encode(units, name);
  if (converted) {
    units.count++;  // keep the name's terminator between the two texts
    converted = Encode(units, value);
  }
  ArrayFree_(&units);
  if (!converted) return 0;
  kz::LazyLockGuard hold(g_environmentLock);
  return kz::os::EnvironmentSet(name, value) ? 1 : 0;
}

KZ_API int KZGetEnvironmentVariable(const char *name, char *buffer, size_t size) {
  UByteArray value = {nullptr, 0, 0};
  bool ok = FetchValue(name, value);
  if (ok && size > 0) {
    size_t length = value.count < size - 1 ? value.count : size - 1;
    if (length) memcpy(buffer, value.elements, length);
    buffer[length] = '\0';
  }
  ArrayFree_(&value);
  return ok ? 1 : 0;
}

KZ_API int KZUBAGetEnvironmentVariable(const char *name, UByteArray *out) {
  UByteArray value = {nullptr, 0, 0};
  bool ok = FetchValue(name, value);
  if (ok) {
    auto view = kz::View(*out, kFile, 0);
    view.Reserve(uint64_t(out->count) + value.count + 1);
    view.Append(value.elements, value.count);
    out->elements[out->count] = '\0';
  }
  ArrayFree_(&value);
  return ok ? 1 : 0;
}

KZ_API int KZAppendEnvironmentVariables(StringArray *array) {
  {
    kz::LazyLockGuard hold(g_environmentLock);
    kz::os::EnvironmentEnumerate(
        [](void *argument, const char *entry) {
          kz::View(*static_cast<StringArray *>(argument), kFile, 0).Append(CopyEntry(entry));
        },
        array);
  }
  Terminate(*array);
  return 1;
}

KZ_API int KZCompareEnvironment(char **a, char **b) {
  if (!a || !b) return !a && !b ? 1 : 0;
  for (; *a && *b; a++, b++)
    if (strcmp(*a, *b) != 0) return 0;
  return !*a && !*b ? 1 : 0;
}

KZ_API int KZGetUsername(UByteArray *out) {
  kz::View(*out, kFile, 0).Reserve(uint64_t(out->count) + 257);
  uint32_t written = kz::os::UserName(reinterpret_cast<char *>(out->elements + out->count), 256);
  if (!written) return 0;
  out->count += written;  // the NUL is counted: the interface has always done so
  return 1;
}

KZ_API void StringArrayClear(StringArray *array) {
  for (uint32_t i = 0; i < array->count; i++) free(array->elements[i]);
  array->count = 0;
}

KZ_API void StringArrayAppend(StringArray *array, char **vector) {
  if (!vector) return;
  auto view = kz::View(*array, kFile, 0);
  for (; *vector; vector++) view.Append(CopyEntry(*vector));
  Terminate(*array);
}

KZ_API const char *StringArrayEnvGet(StringArray *array, const char *name) {
  uint32_t index = FindEntry(*array, name);
  if (index == array->count) return nullptr;
  return strchr(array->elements[index], '=') + 1;
}

KZ_API int StringArrayEnvSet(StringArray *array, const char *name, const char *value) {
  char *entry = value ? AllocPrintf("%s=%s", name, value) : nullptr;
  uint32_t index = FindEntry(*array, name);
  if (index < array->count) {
    free(array->elements[index]);
    if (entry) {
      array->elements[index] = entry;
    } else {
      memmove(array->elements + index, array->elements + index + 1, (array->count - index - 1) * sizeof(char *));
      array->count--;  // the old terminator slot is deliberately left as it was
    }
    return 0;
  }
  if (!entry) return 1;
  kz::View(*array, kFile, 0).Append(entry);
  Terminate(*array);
  return 1;
}

}  // extern "C"
