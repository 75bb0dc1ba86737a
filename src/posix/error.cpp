// Errors on POSIX: the platform's last error is the failed call's errno,
// kept by the error family; errno itself is marked -1.
#include <errno.h>
#include <string.h>

#include <cstdio>

#include "internal/os/error.h"
#include "kz/error.h"

namespace kz::os {

void FailWithErrno() { FailWithError(errno); }

void FailWithError(int error) {
  KZSetLastError(error);
  errno = -1;
}

bool SystemErrorText(int error, char *buffer, size_t size) {
  // strerrordesc_np answers null for numbers the system has no text for,
  // unlike strerror_r's "Unknown error N".
  const char *text = strerrordesc_np(error);
  if (!text || size == 0) return false;
  snprintf(buffer, size, "%s", text);
  return true;
}

}  // namespace kz::os
