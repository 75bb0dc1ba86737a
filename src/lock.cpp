// Mutexes, conditions and reader-writer locks.
//
// Conditions are a counting semaphore, a waiter count and an auto-reset
// "waiters done" event (no generation counter): a waiter is counted under the
// condition's lock before it releases the caller's mutex, so a signal given in
// between finds it counted and leaves a permit it will take. A broadcast
// releases one permit per counted waiter and waits for the event that the
// last of them sets once it has left its wait.
//
// The reader-writer locks are built from a lazily created lock and conditions
// that use that lock as their mutex.
#include <atomic>
#include <cstdint>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/lock.h"
#include "internal/os/thread.h"
#include "kz/error.h"
#include "kz/lock.h"
#include "kz/message.h"

namespace {

using kz::os::WaitResult;

constexpr const char *kFile = "kzlib/kzthread";
constexpr uint32_t kSemaphoreMaximum = 2147483647u;

template <typename T>
T *ReleasedHandle() {
  return reinterpret_cast<T *>(~static_cast<uintptr_t>(0));
}

// The lock behind a variable if it was ever created, else null.
KZCriticalSection *ExistingLock(KZMutex *variable) {
  KZCriticalSection *current = std::atomic_ref<KZCriticalSection *>(*variable).load(std::memory_order_acquire);
  return current == kz::kLockUnset ? nullptr : current;
}

// A fatal message at level 5 carrying the system error just recorded.
void Fatal(uint32_t line, const char *function, const char *text) {
  KZ_MESSAGE_AT(kFile, line, function, 5, 1, "%s", text);
}

// Raises "the handle has been released" around the system error just recorded.
void RaiseReleased(uint32_t line, const char *function) {
  KZSetMessageContext2_(kFile, line, "kzlib", function, 4, 0);
  KZErrorRethrow_("the handle has been released");
}

// Creates the semaphore and the event of a statically initialised condition;
// called under the condition's lock.
void ConditionInit_(KZCondition *condition) {
  if (!condition->semaphore) {
    condition->semaphore = kz::os::SemaphoreNew(0, kSemaphoreMaximum, kFile, 955);
    if (!condition->semaphore) Fatal(955, "ConditionInit_", "CreateSemaphore failed");
  }
  if (!condition->event) {
    condition->event = kz::os::EventNew(kFile, 959);
    if (!condition->event) Fatal(959, "ConditionInit_", "CreateEvent failed");
  }
}

// Time left before a deadline, for loops that may wait several times.
class Deadline {
 public:
  explicit Deadline(uint32_t timeout)
      : infinite_(timeout == KZ_WAIT_INFINITE), end_(infinite_ ? 0 : kz::os::MonotonicMillis() + timeout) {}
  uint32_t Remaining() const {
    if (infinite_) return KZ_WAIT_INFINITE;
    uint64_t now = kz::os::MonotonicMillis();
    return now >= end_ ? 0 : static_cast<uint32_t>(end_ - now);
  }

 private:
  bool infinite_;
  uint64_t end_;
};

// The blocking acquisitions both reader-writer locks share (writers
// preferred), run with the lock's own mutex held. A reader waits while a
// writer holds the lock or waits for it. A writer waits until nobody holds
// it, counted among the waiting writers meanwhile so that new readers stay
// out.
template <typename Lock>
__attribute__((always_inline)) inline void WaitThenRead(Lock *lock) {
  while (lock->state < 0 || lock->waitingWriters >= 1) ConditionWait(&lock->readersCondition, &lock->lock);
  lock->state++;
}

// Lets in those that waiting writers kept out: every reader, and on the
// upgradable lock one would-be upgradable holder.
void WakeHeldBack(KZRWLock *lock) { ConditionBroadcast(&lock->readersCondition); }
void WakeHeldBack(KZRWULock *lock) {
  ConditionBroadcast(&lock->readersCondition);
  ConditionSignal(&lock->upgradableCondition);
}

// False when the time ran out (nothing held). A writer that gives up was
// keeping readers out; when no other writer waits or holds the lock, no
// release would let them in, so it does.
template <typename Lock>
__attribute__((always_inline)) inline bool WaitThenWrite(Lock *lock, uint32_t timeout) {
  Deadline deadline(timeout);
  while (lock->state != 0) {
    lock->waitingWriters++;
    int woken = ConditionTimedWait(&lock->writersCondition, &lock->lock, deadline.Remaining());
    lock->waitingWriters--;
    if (!woken) {
      if (lock->waitingWriters == 0 && lock->state >= 0) WakeHeldBack(lock);
      return false;
    }
  }
  lock->state = -1;
  return true;
}

}  // namespace

namespace kz {

LazyLock &GlobalLock() {
  constinit static LazyLock lock;  // function-local: ready before any static initialiser uses it
  return lock;
}

}  // namespace kz

extern "C" {

// ---- mutexes ------------------------------------------------------------------

KZ_API void MutexInit(KZMutex *mutex) { *mutex = kz::os::CriticalSectionNew(kFile, 865); }

KZ_API KZMutex MutexInit_(KZMutex *variable, const char *file, uint32_t line) {
  return kz::LazyLockGet(variable, file, line);
}

KZ_API void MutexDestroy(KZMutex *mutex) {
  KZCriticalSection *section = ExistingLock(mutex);
  if (!section) return;
  kz::os::CriticalSectionDelete(section);
  *mutex = kz::kLockUnset;
}

KZ_API void MutexLock(KZMutex *mutex) { kz::os::CriticalSectionEnter(kz::LazyLockGet(mutex)); }

KZ_API void MutexUnlock(KZMutex *mutex) {
  KZCriticalSection *section = ExistingLock(mutex);
  if (section) kz::os::CriticalSectionLeave(section);
}

// ---- conditions -----------------------------------------------------------------

KZ_API void ConditionInit(KZCondition *condition) {
  condition->waiters = 0;
  condition->broadcast = 0;
  condition->lock = kz::os::CriticalSectionNew(kFile, 925);
  condition->semaphore = kz::os::SemaphoreNew(0, kSemaphoreMaximum, kFile, 927);
  if (!condition->semaphore) Fatal(927, "ConditionInit", "Failed to create condition's semaphore");
  condition->event = kz::os::EventNew(kFile, 931);
  if (!condition->event) Fatal(931, "ConditionInit", "Failed to create condition's event");
}

KZ_API void ConditionDestroy(KZCondition *condition) {
  kz::os::SemaphoreDelete(condition->semaphore);
  condition->semaphore = ReleasedHandle<KZSemaphore>();
  kz::os::EventDelete(condition->event);
  condition->event = ReleasedHandle<KZEvent>();
  kz::os::CriticalSectionDelete(ExistingLock(&condition->lock));
  condition->lock = kz::kLockUnset;
}

KZ_API int ConditionTimedWait(KZCondition *condition, KZMutex *mutex, uint32_t timeout) {
  // 1. Count this thread as a waiter.
  KZCriticalSection *lock = kz::LazyLockGet(&condition->lock);
  kz::os::CriticalSectionEnter(lock);
  ConditionInit_(condition);
  condition->waiters++;
  KZSemaphore *semaphore = condition->semaphore;
  kz::os::CriticalSectionLeave(lock);

  // 2, 3. Only now let go of the caller's mutex, then wait for a permit.
  MutexUnlock(mutex);
  WaitResult result = kz::os::SemaphoreWait(semaphore, timeout);
  switch (result) {
    case WaitResult::kSignaled:
    case WaitResult::kTimedOut: break;
    case WaitResult::kFailed: Fatal(992, "ConditionTimedWait", "WaitForSingleObject failed"); break;
    default: kzassert_("FALSE", kFile, 994);
  }

  // 4. Leave; the last waiter of a broadcast reports that all have left.
  kz::os::CriticalSectionEnter(lock);
  condition->waiters--;
  bool lastOfBroadcast = condition->broadcast && condition->waiters == 0;
  if (lastOfBroadcast) condition->broadcast = 0;
  KZEvent *event = condition->event;
  kz::os::CriticalSectionLeave(lock);

  // 5. Before taking the mutex back: the broadcaster may be holding it.
  if (lastOfBroadcast && !kz::os::EventSet(event)) {
    if (event == ReleasedHandle<KZEvent>())
      RaiseReleased(1012, "ConditionTimedWait");
    else
      Fatal(1014, "ConditionTimedWait", "SetEvent failed");
  }

  // 6.
  MutexLock(mutex);
  return result == WaitResult::kSignaled ? 1 : 0;
}

KZ_API int ConditionWait(KZCondition *condition, KZMutex *mutex) {
  return ConditionTimedWait(condition, mutex, KZ_WAIT_INFINITE);
}

KZ_API void ConditionSignal(KZCondition *condition) {
  KZCriticalSection *lock = kz::LazyLockGet(&condition->lock);
  kz::os::CriticalSectionEnter(lock);
  bool anyWaiter = condition->waiters > 0;
  KZSemaphore *semaphore = condition->semaphore;
  kz::os::CriticalSectionLeave(lock);
  if (anyWaiter && !kz::os::SemaphoreRelease(semaphore, 1)) {
    if (semaphore == ReleasedHandle<KZSemaphore>())
      RaiseReleased(1043, "ConditionSignal");
    else
      Fatal(1045, "ConditionSignal", "ReleaseSemaphore failed");
  }
}

KZ_API void ConditionBroadcast(KZCondition *condition) {
  KZCriticalSection *lock = kz::LazyLockGet(&condition->lock);
  kz::os::CriticalSectionEnter(lock);
  uint32_t waiters = condition->waiters;
  if (waiters > 0) {
    condition->broadcast = 1;
    if (!kz::os::SemaphoreRelease(condition->semaphore, waiters))
      Fatal(1066, "ConditionBroadcast", "ReleaseSemaphore failed");
  }
  KZEvent *event = condition->event;
  kz::os::CriticalSectionLeave(lock);
  if (waiters == 0) return;
  WaitResult result = kz::os::EventWait(event, KZ_WAIT_INFINITE);
  if (result == WaitResult::kFailed)
    Fatal(1076, "ConditionBroadcast", "WaitForSingleObject failed");
  else if (result != WaitResult::kSignaled)
    kzassert_("FALSE", kFile, 1078);
}

// ---- reader-writer lock (writers preferred) --------------------------------------

KZ_API void RWLockInit(KZRWLock *lock) {
  lock->lock = kz::os::CriticalSectionNew(kFile, 1290);
  lock->state = 0;
  lock->waitingWriters = 0;
  ConditionInit(&lock->readersCondition);
  ConditionInit(&lock->writersCondition);
}

KZ_API void RWLockDestroy(KZRWLock *lock) {
  ConditionDestroy(&lock->readersCondition);
  ConditionDestroy(&lock->writersCondition);
  MutexDestroy(&lock->lock);
}

KZ_API void RWLockAcquireRead_(KZRWLock *lock, const char *file, uint32_t line) {
  kz::os::CriticalSectionEnter(MutexInit_(&lock->lock, file, line));
  WaitThenRead(lock);
  MutexUnlock(&lock->lock);
}

KZ_API int RWLockAcquireReadTimeout(KZRWLock *lock, uint32_t timeout) {
  Deadline deadline(timeout);
  MutexLock(&lock->lock);
  while (lock->state < 0 || lock->waitingWriters >= 1) {
    if (!ConditionTimedWait(&lock->readersCondition, &lock->lock, deadline.Remaining())) {
      MutexUnlock(&lock->lock);
      return 0;
    }
  }
  lock->state++;
  MutexUnlock(&lock->lock);
  return 1;
}

KZ_API void RWLockAcquireWrite_(KZRWLock *lock, const char *file, uint32_t line) {
  kz::os::CriticalSectionEnter(MutexInit_(&lock->lock, file, line));
  WaitThenWrite(lock, KZ_WAIT_INFINITE);
  MutexUnlock(&lock->lock);
}

KZ_API int RWLockAcquireWriteTimeout(KZRWLock *lock, uint32_t timeout) {
  MutexLock(&lock->lock);
  const bool acquired = WaitThenWrite(lock, timeout);
  MutexUnlock(&lock->lock);
  return acquired ? 1 : 0;
}

KZ_API void RWLockRelease_(KZRWLock *lock, const char *file, uint32_t line) {
  kz::os::CriticalSectionEnter(MutexInit_(&lock->lock, file, line));
  if (lock->state < 0) {
    lock->state = 0;
    if (lock->waitingWriters == 0)
      ConditionBroadcast(&lock->readersCondition);
    else
      ConditionSignal(&lock->writersCondition);
  } else {
    KZ_CHECK(lock->state > 0, "lock->state > 0", kFile, 1370);
    lock->state--;
    if (lock->state == 0 && lock->waitingWriters > 0) ConditionSignal(&lock->writersCondition);
  }
  MutexUnlock(&lock->lock);
}

// ---- upgradable reader-writer lock ----------------------------------------------------

KZ_API void RWULockInit(KZRWULock *lock) {
  lock->lock = kz::os::CriticalSectionNew(kFile, 1400);
  lock->state = 0;
  lock->upgradable = 0;
  lock->waitingWriters = 0;
  lock->owner = ~static_cast<uint64_t>(0);
  ConditionInit(&lock->readersCondition);
  ConditionInit(&lock->writersCondition);
  ConditionInit(&lock->upgradableCondition);
  ConditionInit(&lock->upgradeCondition);
}

KZ_API void RWULockDestroy(KZRWULock *lock) {
  ConditionDestroy(&lock->readersCondition);
  ConditionDestroy(&lock->writersCondition);
  ConditionDestroy(&lock->upgradableCondition);
  ConditionDestroy(&lock->upgradeCondition);
  MutexDestroy(&lock->lock);
}

KZ_API void RWULockAcquireRead(KZRWULock *lock) {
  MutexLock(&lock->lock);
  WaitThenRead(lock);
  MutexUnlock(&lock->lock);
}

KZ_API void RWULockAcquireWrite(KZRWULock *lock) {
  MutexLock(&lock->lock);
  WaitThenWrite(lock, KZ_WAIT_INFINITE);
  MutexUnlock(&lock->lock);
}

KZ_API void RWULockAcquireUpgradable(KZRWULock *lock) {
  MutexLock(&lock->lock);
  while (lock->state < 0 || lock->waitingWriters > 0 || lock->upgradable != 0)
    ConditionWait(&lock->upgradableCondition, &lock->lock);
  lock->state++;
  lock->upgradable = 1;
  lock->owner = kz::os::ThreadId();
  MutexUnlock(&lock->lock);
}

KZ_API void RWULockUpgrade(KZRWULock *lock) {
  MutexLock(&lock->lock);
  while (lock->state != 1) {
    // Raising the waiting writers keeps new readers out meanwhile.
    lock->waitingWriters++;
    lock->upgradable = -1;
    ConditionWait(&lock->upgradeCondition, &lock->lock);
    lock->waitingWriters--;
  }
  lock->state = -1;
  lock->upgradable = 0;
  MutexUnlock(&lock->lock);
}

KZ_API void RWULockDowngrade(KZRWULock *lock) {
  MutexLock(&lock->lock);
  lock->state = 1;
  lock->upgradable = 1;
  lock->owner = kz::os::ThreadId();
  if (lock->waitingWriters == 0) ConditionBroadcast(&lock->readersCondition);
  MutexUnlock(&lock->lock);
}

KZ_API void RWULockRelease(KZRWULock *lock) {
  MutexLock(&lock->lock);
  if (lock->state < 0) {
    lock->state = 0;
    if (lock->waitingWriters == 0) {
      ConditionBroadcast(&lock->readersCondition);
      ConditionSignal(&lock->upgradableCondition);
    } else {
      ConditionSignal(&lock->writersCondition);
    }
  } else if (lock->upgradable != 0 && lock->owner == kz::os::ThreadId()) {
    lock->state--;
    lock->upgradable = 0;
    if (lock->state != 0 || lock->waitingWriters == 0)
      ConditionSignal(&lock->upgradableCondition);
    else
      ConditionSignal(&lock->writersCondition);
  } else {
    lock->state--;
    if (lock->state == 0 && lock->waitingWriters > 0) ConditionSignal(&lock->writersCondition);
    if (lock->state == 1 && lock->upgradable == -1) ConditionSignal(&lock->upgradeCondition);
  }
  MutexUnlock(&lock->lock);
}

}  // extern "C"
