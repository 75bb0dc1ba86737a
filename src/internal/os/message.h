// Operating-system side of the message family (src/posix/message.cpp): what a
// message line needs besides the C library's streams.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kz::os {

uint64_t ProcessId();

struct LocalTime {
  unsigned year, month, day, hour, minute, second;
};
LocalTime Now();

// Reads the time zone once, so that later local times need not.
void PrepareLocalTime();

// One raw write, no buffering, no allocation: usable where the C library's
// streams are not (assertions, out-of-memory reports).
void WriteRaw(int fd, const void *data, size_t size);

}  // namespace kz::os
