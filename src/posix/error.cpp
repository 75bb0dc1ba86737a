// Errors on POSIX: the platform's last error is the failed call's errno, kept
// per thread by the library; errno itself is marked -1.
#include <errno.h>
#include <string.h>

#include <cstdio>

#include "internal/os/error.h"

namespace kz::os {

namespace {
thread_local int t_lastError = 0;
}  // namespace

int LastSystemError() { return t_lastError; }
void SetLastSystemError(int error) { t_lastError = error; }

void FailWithErrno() { FailWithError(errno); }

void FailWithError(int error) {
  t_lastError = error;
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

// System errors are errno values: the same texts.
bool RuntimeErrorText(int errnoValue, char *buffer, size_t size) { return SystemErrorText(errnoValue, buffer, size); }

const char kUnknownSystemErrorFormat[] = "(system error %d)";

// System errors are errno values here.
int ErrnoFromSystemError(int error) { return error; }

}  // namespace kz::os
