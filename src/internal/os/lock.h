// Operating-system side of the lock family (src/posix/lock.cpp): re-entrant
// critical sections, and the counting semaphores and auto-reset events that
// conditions are made of. Failures return null / false / kFailed with the
// platform's last error set.
#pragma once

#include <cstdint>

struct KZCriticalSection;
struct KZSemaphore;
struct KZEvent;

namespace kz::os {

// A re-entrant lock (a recursive mutex on POSIX). Creation allocates through
// the checked allocator with the given location. Deleting null or the unset
// marker does nothing.
KZCriticalSection *CriticalSectionNew(const char *file, uint32_t line);
void CriticalSectionDelete(KZCriticalSection *section);
void CriticalSectionEnter(KZCriticalSection *section);
void CriticalSectionLeave(KZCriticalSection *section);

enum class WaitResult { kSignaled, kTimedOut, kFailed };
KZSemaphore *SemaphoreNew(uint32_t initial, uint32_t maximum, const char *file, uint32_t line);
void SemaphoreDelete(KZSemaphore *semaphore);
bool SemaphoreRelease(KZSemaphore *semaphore, uint32_t count);
WaitResult SemaphoreWait(KZSemaphore *semaphore, uint32_t milliseconds);
KZEvent *EventNew(const char *file, uint32_t line);
void EventDelete(KZEvent *event);
bool EventSet(KZEvent *event);
WaitResult EventWait(KZEvent *event, uint32_t milliseconds);

}  // namespace kz::os
