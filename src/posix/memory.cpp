// Memory on POSIX: page size, anonymous mappings, and the process counters
// read from /proc/self/status.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "internal/os/error.h"
#include "internal/os/memory.h"

namespace kz::os {

size_t PageSize() {
  static std::atomic<size_t> cached{0};
  size_t size = cached.load(std::memory_order_relaxed);
  if (size == 0) {
    long answer = sysconf(_SC_PAGESIZE);
    size = answer > 0 ? static_cast<size_t>(answer) : 4096;
    cached.store(size, std::memory_order_relaxed);
  }
  return size;
}

void *MapAnonymous(size_t size) {
  void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (address == MAP_FAILED) {
    FailWithErrno();
    return nullptr;
  }
  return address;
}

bool Unmap(void *address, size_t size) {
  if (munmap(address, size) != 0) {
    FailWithErrno();
    return false;
  }
  return true;
}

void *Remap(void *address, size_t oldSize, size_t newSize) {
  void *moved = mremap(address, oldSize, newSize, MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) {
    FailWithErrno();
    return nullptr;
  }
  return moved;
}

bool Protect(void *address, size_t length, int mode) {
  int protection = PROT_NONE;
  if (mode & 1) protection |= PROT_READ;
  if (mode & 2) protection |= PROT_WRITE;
  if (mprotect(address, length, protection) != 0) {
    FailWithErrno();
    return false;
  }
  return true;
}

bool Lock(void *address, size_t length) {
  if (mlock(address, length) != 0) {
    FailWithErrno();
    return false;
  }
  return true;
}

bool Unlock(void *address, size_t length) {
  if (munlock(address, length) != 0) {
    FailWithErrno();
    return false;
  }
  return true;
}

namespace {

// Reads "Name:   123 kB" fields of /proc/self/status without allocating.
struct StatusFields {
  long peakResident = -1, resident = -1, pageTables = -1, locked = -1, data = -1, stack = -1, peakVirtual = -1,
       swap = -1;
};

bool ReadStatus(StatusFields &fields) {
  int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[4096];
  size_t used = 0;
  for (;;) {
    ssize_t got = read(fd, text + used, sizeof text - 1 - used);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    used += static_cast<size_t>(got);
    if (used == sizeof text - 1) break;
  }
  close(fd);
  text[used] = '\0';
  struct Field {
    const char *name;
    long *value;
  } table[] = {{"VmHWM:", &fields.peakResident}, {"VmRSS:", &fields.resident}, {"VmPTE:", &fields.pageTables},
               {"VmLck:", &fields.locked},       {"VmData:", &fields.data},    {"VmStk:", &fields.stack},
               {"VmPeak:", &fields.peakVirtual}, {"VmSwap:", &fields.swap}};
  for (char *line = text; line && *line;) {
    char *next = strchr(line, '\n');
    if (next) *next++ = '\0';
    for (Field &field : table) {
      size_t length = strlen(field.name);
      if (strncmp(line, field.name, length) == 0) *field.value = strtol(line + length, nullptr, 10) * 1024;
    }
    line = next;
  }
  return fields.resident >= 0 && fields.peakResident >= 0;
}

}  // namespace

bool FormatMemoryCounters(char *buffer, size_t size) {
  // The line keeps the field names programs already parse; the values are the
  // nearest Linux counters, in bytes (see docs/platform.md).
  StatusFields fields;
  if (!ReadStatus(fields)) {
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) return false;
    fields = StatusFields{};
    fields.peakResident = usage.ru_maxrss * 1024;
    fields.resident = usage.ru_maxrss * 1024;
    fields.pageTables = fields.locked = fields.data = fields.stack = fields.peakVirtual = 0;
  }
  auto value = [](long v) { return v < 0 ? 0L : v; };
  int written = snprintf(buffer, size,
                         "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, QuotaPeakPagedPoolUsage=%ld, "
                         "QuotaPagedPoolUsage=%ld, QuotaPeakNonPagedPoolUsage=%ld, "
                         "QuotaNonPagedPoolUsage=%ld, PagefileUsage=%ld, PeakPagefileUsage=%ld",
                         value(fields.peakResident), value(fields.resident), value(fields.pageTables),
                         value(fields.pageTables), value(fields.locked), value(fields.locked),
                         value(fields.data) + value(fields.stack), value(fields.peakVirtual));
  return written > 0;
}

}  // namespace kz::os
