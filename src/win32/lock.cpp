// Lock primitives on Windows.
//
// Critical sections are the system's (re-entrant); the counting semaphores
// and auto-reset events that conditions are made of are the system's kernel
// objects, their handles used as the records. A null or all-ones pointer is a
// released handle: operations on it fail with ERROR_INVALID_HANDLE. Failures
// set the platform's last error (errno -1).
//
// Recursive mutexes: critical sections that know their holder.
#include <windows.h>

#include <stdlib.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/error.h"
#include "internal/os/lock.h"
#include "kz/lock.h"
#include "kz/memory.h"

namespace kz::os {

namespace {

template <typename T>
bool Released(const T *handle) {
  return handle == nullptr || reinterpret_cast<uintptr_t>(handle) == ~static_cast<uintptr_t>(0);
}

template <typename T>
HANDLE ToHandle(T *record) {
  return reinterpret_cast<HANDLE>(record);
}

void FailWithLastError() { FailWithError(static_cast<int>(GetLastError())); }

WaitResult Wait(HANDLE handle, uint32_t milliseconds) {
  DWORD result = WaitForSingleObject(handle, milliseconds == KZ_WAIT_INFINITE ? INFINITE : milliseconds);
  if (result == WAIT_OBJECT_0) return WaitResult::kSignaled;
  if (result == WAIT_TIMEOUT) return WaitResult::kTimedOut;
  FailWithLastError();
  return WaitResult::kFailed;
}

}  // namespace

KZSemaphore *SemaphoreNew(uint32_t initial, uint32_t maximum, const char *, uint32_t) {
  LONG top = maximum > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<LONG>(maximum);
  LONG start = initial > static_cast<uint32_t>(top) ? top : static_cast<LONG>(initial);
  HANDLE semaphore = CreateSemaphoreW(nullptr, start, top, nullptr);
  if (!semaphore) {
    FailWithLastError();
    return nullptr;
  }
  return reinterpret_cast<KZSemaphore *>(semaphore);
}

void SemaphoreDelete(KZSemaphore *semaphore) {
  if (!Released(semaphore)) CloseHandle(ToHandle(semaphore));
}

// Adds count permits at once; the system refuses (ERROR_TOO_MANY_POSTS) to
// pass the maximum.
bool SemaphoreRelease(KZSemaphore *semaphore, uint32_t count) {
  if (Released(semaphore)) {
    FailWithError(ERROR_INVALID_HANDLE);
    return false;
  }
  if (count == 0) return true;
  if (count > 0x7FFFFFFFu) {
    FailWithError(ERROR_TOO_MANY_POSTS);
    return false;
  }
  if (!ReleaseSemaphore(ToHandle(semaphore), static_cast<LONG>(count), nullptr)) {
    FailWithLastError();
    return false;
  }
  return true;
}

WaitResult SemaphoreWait(KZSemaphore *semaphore, uint32_t milliseconds) {
  if (Released(semaphore)) {
    FailWithError(ERROR_INVALID_HANDLE);
    return WaitResult::kFailed;
  }
  return Wait(ToHandle(semaphore), milliseconds);
}

KZEvent *EventNew(const char *, uint32_t) {
  HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);  // auto-reset, not set
  if (!event) {
    FailWithLastError();
    return nullptr;
  }
  return reinterpret_cast<KZEvent *>(event);
}

void EventDelete(KZEvent *event) {
  if (!Released(event)) CloseHandle(ToHandle(event));
}

// Sets the event; it stays set until one waiter consumes it.
bool EventSet(KZEvent *event) {
  if (Released(event)) {
    FailWithError(ERROR_INVALID_HANDLE);
    return false;
  }
  if (!SetEvent(ToHandle(event))) {
    FailWithLastError();
    return false;
  }
  return true;
}

// Waits for the event, which resets itself for the one waiter it wakes.
WaitResult EventWait(KZEvent *event, uint32_t milliseconds) {
  if (Released(event)) {
    FailWithError(ERROR_INVALID_HANDLE);
    return WaitResult::kFailed;
  }
  return Wait(ToHandle(event), milliseconds);
}

}  // namespace kz::os

// ---- recursive mutexes ------------------------------------------------------

// The holder is tracked here so that an unlock by a thread that does not hold
// the mutex is refused before the critical section sees it (the system would
// corrupt its state instead).
struct KZRecursiveMutexHandle {
  CRITICAL_SECTION section;
  std::atomic<DWORD> holder;  // the holder's thread id, 0 when free
  uint32_t depth;             // holds by the holder; changed by it only
};

namespace {

KZRecursiveMutexHandle *const kRecursiveUnset = reinterpret_cast<KZRecursiveMutexHandle *>(~static_cast<uintptr_t>(0));

[[noreturn]] void MutexOperationFailed(int error, const char *function) {
  kz::os::FailWithError(error);
  KZ_MESSAGE_AT("kzlib/kzthread", 895, function, 4, 1, "mutex operation failed");
  abort();  // level 4 exits; never reached
}

KZRecursiveMutexHandle *RecursiveMutexNew() {
  auto *handle =
      static_cast<KZRecursiveMutexHandle *>(Allocate_(sizeof(KZRecursiveMutexHandle), nullptr, "kzlib/kzthread", 895));
  InitializeCriticalSection(&handle->section);
  new (&handle->holder) std::atomic<DWORD>(0);
  handle->depth = 0;
  return handle;
}

// The mutex behind *variable, created and installed on first use.
KZRecursiveMutexHandle *RecursiveMutexGet(KZRecursiveMutex *variable) {
  std::atomic_ref<KZRecursiveMutexHandle *> ref(*variable);
  KZRecursiveMutexHandle *current = ref.load(std::memory_order_acquire);
  if (current != kRecursiveUnset && current != nullptr) return current;
  KZRecursiveMutexHandle *fresh = RecursiveMutexNew();
  while (current == kRecursiveUnset || current == nullptr) {
    if (ref.compare_exchange_weak(current, fresh, std::memory_order_acq_rel, std::memory_order_acquire)) return fresh;
  }
  DeleteCriticalSection(&fresh->section);
  free(fresh);
  return current;
}

}  // namespace

extern "C" {

KZ_API void RecursiveMutexInit(KZRecursiveMutex *mutex) { *mutex = RecursiveMutexNew(); }

KZ_API void RecursiveMutexDestroy(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = *mutex;
  if (handle == kRecursiveUnset || handle == nullptr) return;
  if (handle->holder.load(std::memory_order_relaxed) != 0) MutexOperationFailed(ERROR_BUSY, "RecursiveMutexDestroy");
  DeleteCriticalSection(&handle->section);
  free(handle);
  *mutex = kRecursiveUnset;
}

KZ_API void RecursiveMutexLock(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = RecursiveMutexGet(mutex);
  EnterCriticalSection(&handle->section);
  if (handle->depth++ == 0) handle->holder.store(GetCurrentThreadId(), std::memory_order_relaxed);
}

KZ_API void RecursiveMutexUnlock(KZRecursiveMutex *mutex) {
  KZRecursiveMutexHandle *handle = std::atomic_ref<KZRecursiveMutexHandle *>(*mutex).load(std::memory_order_acquire);
  if (handle == kRecursiveUnset || handle == nullptr ||
      handle->holder.load(std::memory_order_relaxed) != GetCurrentThreadId())
    MutexOperationFailed(ERROR_NOT_OWNER, "RecursiveMutexUnlock");
  if (--handle->depth == 0) handle->holder.store(0, std::memory_order_relaxed);
  LeaveCriticalSection(&handle->section);
}

}  // extern "C"

struct KZCriticalSection {
  CRITICAL_SECTION section;
};

namespace kz::os {

KZCriticalSection *CriticalSectionNew(const char *file, uint32_t line) {
  auto *section = static_cast<KZCriticalSection *>(Allocate_(sizeof(KZCriticalSection), nullptr, file, line));
  InitializeCriticalSection(&section->section);
  return section;
}

void CriticalSectionDelete(KZCriticalSection *section) {
  if (!section || section == kLockUnset) return;
  DeleteCriticalSection(&section->section);
  free(section);
}

void CriticalSectionEnter(KZCriticalSection *section) { EnterCriticalSection(&section->section); }
void CriticalSectionLeave(KZCriticalSection *section) { LeaveCriticalSection(&section->section); }

}  // namespace kz::os
