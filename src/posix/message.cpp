// Message support on POSIX: process id, local time and raw writes.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include "internal/os/message.h"

namespace kz::os {

uint64_t ProcessId() { return static_cast<uint64_t>(getpid()); }

LocalTime Now() {
  time_t seconds = time(nullptr);
  struct tm parts;
  if (!localtime_r(&seconds, &parts)) return LocalTime{1970, 1, 1, 0, 0, 0};
  return LocalTime{static_cast<unsigned>(parts.tm_year + 1900), static_cast<unsigned>(parts.tm_mon + 1),
                   static_cast<unsigned>(parts.tm_mday),        static_cast<unsigned>(parts.tm_hour),
                   static_cast<unsigned>(parts.tm_min),         static_cast<unsigned>(parts.tm_sec)};
}

void PrepareLocalTime() { tzset(); }

void WriteRaw(int fd, const void *data, size_t size) {
  const char *bytes = static_cast<const char *>(data);
  while (size > 0) {
    ssize_t written = write(fd, bytes, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    bytes += written;
    size -= static_cast<size_t>(written);
  }
}

}  // namespace kz::os
