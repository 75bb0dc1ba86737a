// Operating-system side of the memory family (src/posix/memory.cpp).
// Failures return null / false with the platform's last error set.
#pragma once

#include <cstddef>

namespace kz::os {

size_t PageSize();

// Anonymous read-write mappings.
void *MapAnonymous(size_t size);
bool Unmap(void *address, size_t size);
// Resize keeping the contents (null on failure, old mapping untouched).
void *Remap(void *address, size_t oldSize, size_t newSize);
bool Protect(void *address, size_t length, int mode);  // mode bit 1 read, bit 2 write
bool Lock(void *address, size_t length);
bool Unlock(void *address, size_t length);

// Process memory counters formatted as one line; false when unavailable.
bool FormatMemoryCounters(char *buffer, size_t size);

}  // namespace kz::os
