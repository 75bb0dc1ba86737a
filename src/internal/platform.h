// The operating-system layer: everything portable code needs from the
// platform. POSIX implementations live in src/posix/.
#pragma once

#include <cstddef>
#include <cstdint>

struct KZSemaphore;
struct KZEvent;

namespace kz::os {

// Sets the platform's last error from the C library errno of a failed call
// and marks errno with -1 ("the last error tells").
void FailWithErrno();
void FailWithError(int error);

uint64_t ThreadId();
uint64_t ProcessId();
uint64_t MonotonicMillis();

struct LocalTime {
  unsigned year, month, day, hour, minute, second;
};
LocalTime Now();

// The system's IPv6 literal parser (no brackets); false when not an address.
bool ParseIPv6(const char *text, unsigned char address[16]);

// The platform's text for a system error; false when the system has none.
bool SystemErrorText(int error, char *buffer, size_t size);

// One raw write, no buffering, no allocation.
void WriteRaw(int fd, const void *data, size_t size);

size_t PageSize();

// Anonymous read-write mappings. Failures return null with the last error set.
void *MapAnonymous(size_t size);
bool Unmap(void *address, size_t size);
// Resize keeping the contents (null on failure, old mapping untouched).
void *Remap(void *address, size_t oldSize, size_t newSize);
bool Protect(void *address, size_t length, int mode);  // mode bit 1 read, bit 2 write
bool Lock(void *address, size_t length);
bool Unlock(void *address, size_t length);

// Process memory counters formatted as one line; false when unavailable.
bool FormatMemoryCounters(char *buffer, size_t size);

// Threads (src/posix/thread_posix.cpp). Functions answering int return 0 or
// the system's error number.
int ThreadStart(void *(*entry)(void *), void *argument, size_t stackBytes, bool detached, uint64_t *handle);
int ThreadWait(uint64_t handle, uintptr_t *exitValue);
int ThreadRelease(uint64_t handle);
uint64_t ThreadSelf();
bool ThreadSame(uint64_t a, uint64_t b);
void ThreadSetSystemName(const char *name);
int ThreadSetNice(uint64_t threadId, int nice);  // threadId 0: the calling thread
void ThreadYield();
[[noreturn]] void ThreadSleepForever();
int ThreadKeyCreate(uint32_t *slot);
void *ThreadKeyGet(uint32_t slot);
int ThreadKeySet(uint32_t slot, void *value);

// Counting semaphores and auto-reset events that conditions are made of
// (src/posix/lock_primitives.cpp). Failures return null / false / kFailed with
// the platform's last error set.
enum class WaitResult { kSignaled, kTimedOut, kFailed };
KZSemaphore *SemaphoreNew(uint32_t initial, uint32_t maximum, const char *file, uint32_t line);
void SemaphoreDelete(KZSemaphore *semaphore);
bool SemaphoreRelease(KZSemaphore *semaphore, uint32_t count);
WaitResult SemaphoreWait(KZSemaphore *semaphore, uint32_t milliseconds);
KZEvent *EventNew(const char *file, uint32_t line);
void EventDelete(KZEvent *event);
bool EventSet(KZEvent *event);
WaitResult EventWait(KZEvent *event, uint32_t milliseconds);

// Entropy for seeding (src/posix/entropy.cpp): passes pieces that differ from
// process to process and run to run to feed, each non-empty: kernel random
// bytes, clock readings, wall time, process, parent and thread ids, user ids,
// the C runtime's random bytes, the environment block's address and every
// environment string. May change errno: the caller keeps its error state.
using EntropyFeed = void (*)(void *argument, const void *bytes, size_t length);
void GatherEntropy(EntropyFeed feed, void *argument);

// Registers handler to run in the child of every later fork(), in its only
// thread, before fork() returns there. False when it could not be registered.
bool OnForkChild(void (*handler)());
}  // namespace kz::os
