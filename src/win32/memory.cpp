// Memory on Windows: page size, anonymous memory as page-file-backed file
// mappings, page protection and locking through the virtual-memory calls,
// and the process memory counters.
#include <windows.h>

#include <psapi.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "internal/os/error.h"
#include "internal/os/memory.h"

namespace kz::os {

namespace {

void FailWithLastError() { FailWithError(static_cast<int>(GetLastError())); }

}  // namespace

size_t PageSize() {
  static std::atomic<size_t> cached{0};
  size_t size = cached.load(std::memory_order_relaxed);
  if (size == 0) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    size = info.dwPageSize ? info.dwPageSize : 4096;
    cached.store(size, std::memory_order_relaxed);
  }
  return size;
}

// An unnamed mapping backed by the page file, read-write, zero-filled. The
// maximum size passed is the low 32 bits of the size (a request of 4 GiB or
// more maps the size modulo 2^32, as the library always did). The view keeps
// the mapping alive once its handle is closed.
void *MapAnonymous(size_t size) {
  HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                      static_cast<DWORD>(size & 0xFFFFFFFFu), nullptr);
  if (!mapping) {
    FailWithLastError();
    return nullptr;
  }
  void *view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size);
  if (!view) {
    DWORD error = GetLastError();
    CloseHandle(mapping);
    FailWithError(static_cast<int>(error));
    return nullptr;
  }
  if (!CloseHandle(mapping)) {
    DWORD error = GetLastError();
    UnmapViewOfFile(view);
    FailWithError(static_cast<int>(error));
    return nullptr;
  }
  return view;
}

bool Unmap(void *address, size_t) {
  if (!UnmapViewOfFile(address)) {
    FailWithLastError();
    return false;
  }
  return true;
}

// A view cannot grow in place: a new mapping, the contents copied, the old
// one released (a failure to release still answers the new one).
void *Remap(void *address, size_t oldSize, size_t newSize) {
  void *moved = MapAnonymous(newSize);
  if (!moved) return nullptr;
  memcpy(moved, address, oldSize < newSize ? oldSize : newSize);
  Unmap(address, oldSize);
  return moved;
}

bool Protect(void *address, size_t length, int mode) {
  DWORD protection = (mode & 2) ? PAGE_READWRITE : (mode & 1) ? PAGE_READONLY : PAGE_NOACCESS;
  DWORD previous;
  if (!VirtualProtect(address, length, protection, &previous)) {
    FailWithLastError();
    return false;
  }
  return true;
}

bool Lock(void *address, size_t length) {
  if (!VirtualLock(address, length)) {
    FailWithLastError();
    return false;
  }
  return true;
}

bool Unlock(void *address, size_t length) {
  if (!VirtualUnlock(address, length)) {
    FailWithLastError();
    return false;
  }
  return true;
}

bool FormatMemoryCounters(char *buffer, size_t size) {
  HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId());
  if (!process) return false;
  PROCESS_MEMORY_COUNTERS counters;
  bool read = GetProcessMemoryInfo(process, &counters, sizeof counters) != 0;
  CloseHandle(process);
  if (!read) return false;
  // The counters print as "%ld" like the library always printed them: a
  // 32-bit long on Windows.
  int written = snprintf(
      buffer, size,
      "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, QuotaPeakPagedPoolUsage=%ld, "
      "QuotaPagedPoolUsage=%ld, QuotaPeakNonPagedPoolUsage=%ld, "
      "QuotaNonPagedPoolUsage=%ld, PagefileUsage=%ld, PeakPagefileUsage=%ld",
      static_cast<long>(counters.PeakWorkingSetSize), static_cast<long>(counters.WorkingSetSize),
      static_cast<long>(counters.QuotaPeakPagedPoolUsage), static_cast<long>(counters.QuotaPagedPoolUsage),
      static_cast<long>(counters.QuotaPeakNonPagedPoolUsage), static_cast<long>(counters.QuotaNonPagedPoolUsage),
      static_cast<long>(counters.PagefileUsage), static_cast<long>(counters.PeakPagefileUsage));
  return written > 0;
}

}  // namespace kz::os
