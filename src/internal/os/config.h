// Operating-system side of the configuration family (src/posix/config.cpp):
// the read-only whole-file mapping that configuration files are read through,
// and the two clocks of the store.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kz::os {

// Opens path read-only and close-on-exec, maps the whole file read-only and
// closes the descriptor. False with the platform's last error set when the file
// cannot be opened, examined or mapped; an empty file maps to nothing (EINVAL).
bool MapFileReadOnly(const char *path, const void **view, size_t *size);
// Releases a mapping made by MapFileReadOnly; errno and the last error are
// left as they were.
void UnmapFile(const void *view, size_t size);

// Wall-clock time in microseconds since 1601-01-01 00:00 UTC.
uint64_t SystemTimeMicros1601();
// A monotonic clock in microseconds (for elapsed times only).
uint64_t MonotonicMicros();

}  // namespace kz::os
