// The process environment and the user name on POSIX.
#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "internal/array_view.h"
#include "internal/os/env.h"
#include "internal/os/error.h"
#include "kz/memory.h"

extern char **environ;

namespace kz::os {

bool EnvironmentGet(const char *name, UByteArray *out) {
  const char *value = getenv(name);
  if (!value) return false;
  size_t length = strlen(value);
  View(*out, "kzlib/kzlib", 0).Append(reinterpret_cast<const unsigned char *>(value), length);
  return true;
}

bool EnvironmentSet(const char *name, const char *value) {
  if (setenv(name, value, 1) == 0) return true;
  FailWithErrno();
  return false;
}

void EnvironmentEnumerate(EnvironmentVisitor visit, void *argument) {
  if (!environ) return;  // after clearenv(): an empty environment
  for (char **entry = environ; *entry; entry++) visit(argument, *entry);
}

uint32_t UserName(char *buffer, uint32_t size) {
  long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
  size_t scratchSize = suggested > 0 ? static_cast<size_t>(suggested) : 16384;
  char *scratch = static_cast<char *>(Allocate_(scratchSize, nullptr, "kzlib/kzlib", 0));
  passwd entry;
  passwd *found = nullptr;
  int error;
  while ((error = getpwuid_r(geteuid(), &entry, scratch, scratchSize, &found)) == ERANGE && scratchSize < (1u << 20)) {
    scratchSize *= 2;
    scratch = static_cast<char *>(Allocate_(scratchSize, scratch, "kzlib/kzlib", 0));
  }
  uint32_t written = 0;
  if (error != 0 || !found) {
    FailWithError(error ? error : ENOENT);
  } else if (strlen(found->pw_name) + 1 > size) {
    FailWithError(ERANGE);
  } else {
    written = static_cast<uint32_t>(strlen(found->pw_name) + 1);
    memcpy(buffer, found->pw_name, written);
  }
  free(scratch);
  return written;
}

}  // namespace kz::os
