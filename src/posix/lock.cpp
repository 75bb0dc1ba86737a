// Lock primitives on POSIX.
//
// Counting semaphores and auto-reset events for conditions: a pthread mutex
// and a condition variable timed on the monotonic clock each. A null or
// all-ones pointer is a released handle: operations on it fail with EBADF
// without touching memory. Failures set the platform's last error (errno -1).
//
// Recursive mutexes: checked recursive pthread mutexes.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/error.h"
#include "internal/os/lock.h"
#include "kz/lock.h"
#include "kz/memory.h"

struct KZSemaphore {
  pthread_mutex_t mutex;
  pthread_cond_t available;
  uint32_t count;
  uint32_t maximum;
};

struct KZEvent {
  pthread_mutex_t mutex;
  pthread_cond_t set;
  bool signaled;
};

namespace kz::os {

namespace {

template <typename T>
bool Released(const T *handle) {
  return handle == nullptr || reinterpret_cast<uintptr_t>(handle) == ~static_cast<uintptr_t>(0);
}

// A mutex and a condition variable that times out on the monotonic clock.
// Returns 0 or the pthread error.
int InitPair(pthread_mutex_t *mutex, pthread_cond_t *cond) {
  int rc = pthread_mutex_init(mutex, nullptr);
  if (rc != 0) return rc;
  pthread_condattr_t attributes;
  rc = pthread_condattr_init(&attributes);
  if (rc == 0) {
    rc = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (rc == 0) rc = pthread_cond_init(cond, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  if (rc != 0) pthread_mutex_destroy(mutex);
  return rc;
}

timespec Deadline(uint32_t milliseconds) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(milliseconds / 1000u);
  deadline.tv_nsec += static_cast<long>(milliseconds % 1000u) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

// Waits under *mutex until ready() holds or the time runs out.
template <typename Ready>
WaitResult WaitUntil(pthread_mutex_t *mutex, pthread_cond_t *cond, uint32_t milliseconds, Ready ready) {
  if (milliseconds == KZ_WAIT_INFINITE) {
    while (!ready()) {
      int rc = pthread_cond_wait(cond, mutex);
      if (rc != 0) {
        FailWithError(rc);
        return WaitResult::kFailed;
      }
    }
    return WaitResult::kSignaled;
  }
  timespec deadline = Deadline(milliseconds);
  while (!ready()) {
    int rc = pthread_cond_timedwait(cond, mutex, &deadline);
    if (rc == ETIMEDOUT) return ready() ? WaitResult::kSignaled : WaitResult::kTimedOut;
    if (rc != 0) {
      FailWithError(rc);
      return WaitResult::kFailed;
    }
  }
  return WaitResult::kSignaled;
}

}  // namespace

KZSemaphore *SemaphoreNew(uint32_t initial, uint32_t maximum, const char *file, uint32_t line) {
  auto *semaphore = static_cast<KZSemaphore *>(Allocate_(sizeof(KZSemaphore), nullptr, file, line));
  int rc = InitPair(&semaphore->mutex, &semaphore->available);
  if (rc != 0) {
    free(semaphore);
    FailWithError(rc);
    return nullptr;
  }
  semaphore->count = initial;
  semaphore->maximum = maximum;
  return semaphore;
}

void SemaphoreDelete(KZSemaphore *semaphore) {
  if (Released(semaphore)) return;
  pthread_cond_destroy(&semaphore->available);
  pthread_mutex_destroy(&semaphore->mutex);
  free(semaphore);
}

// Adds count permits at once; refuses (EOVERFLOW) to pass the maximum.
bool SemaphoreRelease(KZSemaphore *semaphore, uint32_t count) {
  if (Released(semaphore)) {
    FailWithError(EBADF);
    return false;
  }
  pthread_mutex_lock(&semaphore->mutex);
  if (count > semaphore->maximum - semaphore->count) {
    pthread_mutex_unlock(&semaphore->mutex);
    FailWithError(EOVERFLOW);
    return false;
  }
  semaphore->count += count;
  if (count == 1)
    pthread_cond_signal(&semaphore->available);
  else if (count > 1)
    pthread_cond_broadcast(&semaphore->available);
  pthread_mutex_unlock(&semaphore->mutex);
  return true;
}

WaitResult SemaphoreWait(KZSemaphore *semaphore, uint32_t milliseconds) {
  if (Released(semaphore)) {
    FailWithError(EBADF);
    return WaitResult::kFailed;
  }
  pthread_mutex_lock(&semaphore->mutex);
  WaitResult result =
      WaitUntil(&semaphore->mutex, &semaphore->available, milliseconds, [semaphore] { return semaphore->count > 0; });
  if (result == WaitResult::kSignaled) semaphore->count--;
  pthread_mutex_unlock(&semaphore->mutex);
  return result;
}

KZEvent *EventNew(const char *file, uint32_t line) {
  auto *event = static_cast<KZEvent *>(Allocate_(sizeof(KZEvent), nullptr, file, line));
  int rc = InitPair(&event->mutex, &event->set);
  if (rc != 0) {
    free(event);
    FailWithError(rc);
    return nullptr;
  }
  event->signaled = false;
  return event;
}

void EventDelete(KZEvent *event) {
  if (Released(event)) return;
  pthread_cond_destroy(&event->set);
  pthread_mutex_destroy(&event->mutex);
  free(event);
}

// Sets the event; it stays set until one waiter consumes it.
bool EventSet(KZEvent *event) {
  if (Released(event)) {
    FailWithError(EBADF);
    return false;
  }
  pthread_mutex_lock(&event->mutex);
  event->signaled = true;
  pthread_cond_signal(&event->set);
  pthread_mutex_unlock(&event->mutex);
  return true;
}

// Waits for the event and resets it (auto-reset).
WaitResult EventWait(KZEvent *event, uint32_t milliseconds) {
  if (Released(event)) {
    FailWithError(EBADF);
    return WaitResult::kFailed;
  }
  pthread_mutex_lock(&event->mutex);
  WaitResult result = WaitUntil(&event->mutex, &event->set, milliseconds, [event] { return event->signaled; });
  if (result == WaitResult::kSignaled) event->signaled = false;
  pthread_mutex_unlock(&event->mutex);
  return result;
}

}  // namespace kz::os

// ---- recursive mutexes ------------------------------------------------------

// The holder is tracked here so that an unlock by a thread that does not hold
// the mutex is refused before the system mutex sees it.
struct KZRecursiveMutexHandle {
  pthread_mutex_t mutex;
  std::atomic<uintptr_t> holder;  // the holder's pthread_self(), 0 when free
  uint32_t depth;                 // holds by the holder; changed by it only
};

namespace {

KZRecursiveMutexHandle *const kRecursiveUnset = reinterpret_cast<KZRecursiveMutexHandle *>(~static_cast<uintptr_t>(0));

uintptr_t Self() { return static_cast<uintptr_t>(pthread_self()); }

[[noreturn]] void MutexOperationFailed(int error, const char *function) {
  kz::os::FailWithError(error);
  KZ_MESSAGE_AT("kzlib/kzthread", 895, function, 4, 1, "mutex operation failed");
  abort();  // level 4 exits; never reached
}

KZRecursiveMutexHandle *RecursiveMutexNew(const char *function) {
  auto *handle =
      static_cast<KZRecursiveMutexHandle *>(Allocate_(sizeof(KZRecursiveMutexHandle), nullptr, "kzlib/kzthread", 895));
  pthread_mutexattr_t attributes;
  int rc = pthread_mutexattr_init(&attributes);
  if (rc == 0) {
    rc = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (rc == 0) rc = pthread_mutex_init(&handle->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  if (rc != 0) {
    free(handle);
    MutexOperationFailed(rc, function);
  }
  new (&handle->holder) std::atomic<uintptr_t>(0);
  handle->depth = 0;
  return handle;
}

// The mutex behind *variable, created and installed on first use.
KZRecursiveMutexHandle *RecursiveMutexGet(KZRecursiveMutex *variable) {
  std::atomic_ref<KZRecursiveMutexHandle *> ref(*variable);
  KZRecursiveMutexHandle *current = ref.load(std::memory_order_acquire);
  if (current != kRecursiveUnset && current != nullptr) return current;
  KZRecursiveMutexHandle *fresh = RecursiveMutexNew("RecursiveMutexInit");
  while (current == kRecursiveUnset || current == nullptr) {
    if (ref.compare_exchange_weak(current, fresh, std::memory_order_acq_rel, std::memory_order_acquire)) return fresh;
  }
  pthread_mutex_destroy(&fresh->mutex);
  free(fresh);
  return current;
}

}  // namespace

extern "C" {

KZ_API void RecursiveMutexInit(KZRecursiveMutex *mutex) { *mutex = RecursiveMutexNew("RecursiveMutexInit"); }

KZ_API void RecursiveMutexDestroy(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = *mutex;
  if (handle == kRecursiveUnset || handle == nullptr) return;
  if (handle->holder.load(std::memory_order_relaxed) != 0) MutexOperationFailed(EBUSY, "RecursiveMutexDestroy");
  int rc = pthread_mutex_destroy(&handle->mutex);
  if (rc != 0) MutexOperationFailed(rc, "RecursiveMutexDestroy");
  free(handle);
  *mutex = kRecursiveUnset;
}

KZ_API void RecursiveMutexLock(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = RecursiveMutexGet(mutex);
  int rc = pthread_mutex_lock(&handle->mutex);
  if (rc != 0) MutexOperationFailed(rc, "RecursiveMutexLock");
  if (handle->depth++ == 0) handle->holder.store(Self(), std::memory_order_relaxed);
}

KZ_API void RecursiveMutexUnlock(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = std::atomic_ref<KZRecursiveMutexHandle *>(*mutex).load(std::memory_order_acquire);
  if (handle == kRecursiveUnset || handle == nullptr || handle->holder.load(std::memory_order_relaxed) != Self())
    MutexOperationFailed(EPERM, "RecursiveMutexUnlock");
  if (--handle->depth == 0) handle->holder.store(0, std::memory_order_relaxed);
  int rc = pthread_mutex_unlock(&handle->mutex);
  if (rc != 0) MutexOperationFailed(rc, "RecursiveMutexUnlock");
}

}  // extern "C"

struct KZCriticalSection {
  pthread_mutex_t mutex;
};

namespace kz::os {

KZCriticalSection *CriticalSectionNew(const char *file, uint32_t line) {
  auto *section = static_cast<KZCriticalSection *>(Allocate_(sizeof(KZCriticalSection), nullptr, file, line));
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&section->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return section;
}

void CriticalSectionDelete(KZCriticalSection *section) {
  if (!section || section == kLockUnset) return;
  pthread_mutex_destroy(&section->mutex);
  free(section);
}

void CriticalSectionEnter(KZCriticalSection *section) { pthread_mutex_lock(&section->mutex); }
void CriticalSectionLeave(KZCriticalSection *section) { pthread_mutex_unlock(&section->mutex); }

}  // namespace kz::os
