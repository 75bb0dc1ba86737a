// Configuration files through read-only mappings, and the store's clocks.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "internal/os/config.h"
#include "internal/os/error.h"
#include "kz/error.h"

namespace kz::os {

bool MapFileReadOnly(const char *path, const void **view, size_t *size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    FailWithErrno();
    return false;
  }
  struct stat status;
  void *mapped = MAP_FAILED;
  int error = 0;
  if (fstat(fd, &status) != 0) {
    error = errno;
  } else if (!S_ISREG(status.st_mode) || status.st_size == 0) {
    error = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;  // nothing to map, as mmap of 0 bytes answers
  } else {
    mapped = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapped == MAP_FAILED) error = errno;
  }
  close(fd);
  if (error) {
    FailWithError(error);
    return false;
  }
  *view = mapped;
  *size = static_cast<size_t>(status.st_size);
  return true;
}

void UnmapFile(const void *view, size_t size) {
  int savedErrno = errno, savedLast = KZGetLastError();
  munmap(const_cast<void *>(view), size);
  KZSetLastError(savedLast);
  errno = savedErrno;
}

uint64_t SystemTimeMicros1601() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  constexpr uint64_t kSecondsFrom1601To1970 = 11644473600ull;
  return (static_cast<uint64_t>(now.tv_sec) + kSecondsFrom1601To1970) * 1000000u +
         static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

uint64_t MonotonicMicros() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

}  // namespace kz::os
