// Message support on Windows: process id, local time and raw writes.
#include <windows.h>

#include <io.h>
#include <time.h>

#include "internal/os/message.h"

namespace kz::os {

uint64_t ProcessId() { return GetCurrentProcessId(); }

LocalTime Now() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  return LocalTime{now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond};
}

// The C runtime's time-zone data, for the callers that use its local time.
void PrepareLocalTime() { _tzset(); }

void WriteRaw(int fd, const void *data, size_t size) {
  const char *bytes = static_cast<const char *>(data);
  while (size > 0) {
    unsigned chunk = size > 0x40000000u ? 0x40000000u : static_cast<unsigned>(size);
    int written = _write(fd, bytes, chunk);
    if (written <= 0) return;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
}

}  // namespace kz::os
