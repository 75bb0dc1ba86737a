/* kzlib: mutexes, conditions and reader-writer locks.
 *
 * Every lock and condition can be defined statically with its initializer
 * macro and is created on first use: a lock variable holds the all-ones
 * pointer until the first operation on it creates the lock and installs it
 * with a compare-and-swap (a thread that loses the race destroys its own).
 * A zero-filled record (null lock pointer) is treated the same way.
 *
 * Locks are re-entrant: a thread that holds a mutex may take it again and must
 * release it as many times. Conditions release the caller's mutex once while
 * they wait, so wait only while holding it once.
 *
 * Failures of the system's primitives are fatal messages (KZ_LEVEL_FATAL, with the
 * system error) unless stated otherwise at the function.
 */
#ifndef KZ_LOCK_H
#define KZ_LOCK_H

#include "kz/base.h"

KZ_BEGIN_DECLS

struct KZCriticalSection;
struct KZRecursiveMutexHandle;
struct KZSemaphore;
struct KZEvent;

/* ---- mutexes ------------------------------------------------------------- */

/* A mutex variable: a pointer to a re-entrant lock, all ones until created.
 * Operations take the variable's address so that they can create it. */
typedef struct KZCriticalSection *KZMutex;

#define KZ_MUTEX_INITIALIZER ((KZMutex) ~(uintptr_t)0)

/* Allocates and initialises a new lock into *mutex (allocation location
 * kzlib/kzthread:865). Whatever *mutex held before is overwritten. */
KZ_API void MutexInit(KZMutex *mutex);
/* The lazy creation step: when *variable is still unset (all ones or null),
 * creates a lock (allocation failure reported at file:line) and installs it
 * with a compare-and-swap; a thread that loses the race frees its copy.
 * Returns the installed lock. Safe to call from any number of threads. */
KZ_API KZMutex MutexInit_(KZMutex *variable, const char *file, uint32_t line);
/* Deletes and frees the lock and resets *mutex to KZ_MUTEX_INITIALIZER (a
 * later use creates a new one). An unset variable is left alone. The lock must
 * not be held or in use by another thread. */
KZ_API void MutexDestroy(KZMutex *mutex);
/* Takes the lock, creating it first when *mutex is unset. Re-entrant. */
KZ_API void MutexLock(KZMutex *mutex);
/* Releases one hold of the lock taken by the calling thread. An unset
 * variable (never locked) is left alone. */
KZ_API void MutexUnlock(KZMutex *mutex);

/* ---- recursive mutexes -------------------------------------------------------
 * A system mutex whose every operation is checked: a failure (for example an
 * unlock by a thread that does not hold it) sets errno to -1 and exits the
 * process through a level 4 (KZ_LEVEL_EXIT) message "mutex operation failed" with the system
 * error (kzlib/kzthread:895). Static variables start at
 * KZ_RECURSIVE_MUTEX_INITIALIZER and are created on first lock. */
typedef struct KZRecursiveMutexHandle *KZRecursiveMutex;

#define KZ_RECURSIVE_MUTEX_INITIALIZER ((KZRecursiveMutex) ~(uintptr_t)0)

/* Creates an unowned recursive mutex into *mutex. */
KZ_API void RecursiveMutexInit(KZRecursiveMutex *mutex);
/* Destroys the mutex (it must not be held) and resets *mutex to
 * KZ_RECURSIVE_MUTEX_INITIALIZER. An unset variable is left alone. */
KZ_API void RecursiveMutexDestroy(KZRecursiveMutex *mutex);
/* Takes the mutex (creating it when unset); re-entrant. */
KZ_API void RecursiveMutexLock(KZRecursiveMutex *mutex);
/* Releases one hold; the calling thread must hold the mutex. */
KZ_API void RecursiveMutexUnlock(KZRecursiveMutex *mutex);

/* ---- conditions ---------------------------------------------------------------
 * A counting semaphore, a waiter count and an auto-reset event. All fields
 * change only under the condition's own lock. */
typedef struct KZCondition {
  uint32_t waiters;               /* threads inside a wait */
  uint32_t broadcast;             /* set by a broadcast until its last waiter has left */
  struct KZCriticalSection *lock; /* protects the counters; created lazily */
  struct KZSemaphore *semaphore;  /* initial 0, maximum 2147483647; null until created */
  struct KZEvent *event;          /* auto-reset "waiters done" event; null until created */
} KZCondition;

#define KZ_CONDITION_INITIALIZER \
  { 0, 0, (struct KZCriticalSection *)~(uintptr_t)0, (struct KZSemaphore *)0, (struct KZEvent *)0 }

/* Infinite time-out for every waiting function below. */
#define KZ_WAIT_INFINITE 0xFFFFFFFFu

/* Zeroes the counters and creates the lock, the semaphore and the event.
 * Failure is fatal: "Failed to create condition's semaphore" (line 927) or
 * "Failed to create condition's event" (line 931). */
KZ_API void ConditionInit(KZCondition *condition);
/* Releases the semaphore, the event and the lock. The semaphore and event
 * fields then hold the all-ones "released" value: a later wait on the record
 * is fatal and a later signal raises "the handle has been released" until
 * ConditionInit runs again. No thread may be waiting. */
KZ_API void ConditionDestroy(KZCondition *condition);
/* The caller holds *mutex (once). Counts the caller as a waiter, releases
 * *mutex, waits up to timeout milliseconds (KZ_WAIT_INFINITE: no limit) on the
 * monotonic clock, then takes *mutex again (creating it if unset). Returns 1
 * when woken by a signal or broadcast, 0 when the time ran out. A signal
 * given while the caller is counted but not yet waiting is not lost. Creates
 * the condition's lock, semaphore and event on first use. */
KZ_API int ConditionTimedWait(KZCondition *condition, KZMutex *mutex, uint32_t timeout);
/* ConditionTimedWait with no limit. */
KZ_API int ConditionWait(KZCondition *condition, KZMutex *mutex);
/* Lets one waiter go if a thread is counted as waiting; with no waiter it
 * does nothing (the signal is lost). On a destroyed condition it raises "the
 * handle has been released" (errno -2). */
KZ_API void ConditionSignal(KZCondition *condition);
/* Lets every waiter counted at the call go and returns only once all of them
 * have left their wait (they may still be taking their mutex back). Call it
 * holding the waiters' mutex so that no new waiter joins meanwhile: woken
 * waiters report before taking the mutex again, so this cannot deadlock. */
KZ_API void ConditionBroadcast(KZCondition *condition);

/* ---- reader-writer lock (writers preferred) --------------------------------
 * state: readers holding the lock, -1 while a writer holds it, 0 free. A
 * reader waits while a writer holds the lock or any writer waits. */
typedef struct KZRWLock {
  struct KZCriticalSection *lock; /* protects the fields; created lazily */
  int32_t state;
  int32_t waitingWriters;
  KZCondition readersCondition;
  KZCondition writersCondition;
} KZRWLock;

#define KZ_RWLOCK_INITIALIZER \
  { (struct KZCriticalSection *)~(uintptr_t)0, 0, 0, KZ_CONDITION_INITIALIZER, KZ_CONDITION_INITIALIZER }

/* Creates the lock and both conditions; state and waiting writers start at 0. */
KZ_API void RWLockInit(KZRWLock *lock);
/* Destroys both conditions and the lock. The lock must be free and unused. */
KZ_API void RWLockDestroy(KZRWLock *lock);
/* Block until a read (shared) or write (exclusive) hold is acquired. file and
 * line are the caller's location, reported if creating the lock on first use
 * runs out of memory; use the calling macros below. */
KZ_API void RWLockAcquireRead_(KZRWLock *lock, const char *file, uint32_t line);
KZ_API void RWLockAcquireWrite_(KZRWLock *lock, const char *file, uint32_t line);
/* As above with a limit in milliseconds (KZ_WAIT_INFINITE: none): 1 when
 * acquired, 0 when the time ran out (nothing held then). A writer that gives
 * up while no other writer waits or holds the lock wakes the readers it held
 * back, so they do not wait for some later writer's release. */
KZ_API int RWLockAcquireReadTimeout(KZRWLock *lock, uint32_t timeout);
KZ_API int RWLockAcquireWriteTimeout(KZRWLock *lock, uint32_t timeout);
/* Releases the calling thread's read or write hold. A writer's release lets
 * the next waiting writer go, or all waiting readers when no writer waits; the
 * last reader's release lets a waiting writer go. Releasing a free lock fails
 * the assertion "lock->state > 0" (kzlib/kzthread:1370). */
KZ_API void RWLockRelease_(KZRWLock *lock, const char *file, uint32_t line);

#define RWLockAcquireRead(lock)  RWLockAcquireRead_((lock), __FILE__, __LINE__)
#define RWLockAcquireWrite(lock) RWLockAcquireWrite_((lock), __FILE__, __LINE__)
#define RWLockRelease(lock)      RWLockRelease_((lock), __FILE__, __LINE__)

/* ---- upgradable reader-writer lock ------------------------------------------
 * Plain readers, writers, and at most one upgradable holder, which reads
 * beside plain readers and alone may become the writer.
 *   state          readers holding the lock (the upgradable holder included),
 *                  -1 while a writer holds it
 *   upgradable     0 none; 1 an upgradable holder holds the lock; -1 the holder
 *                  waits to upgrade
 *   owner          ThreadId() (the kernel thread id) of the upgradable holder;
 *                  all ones at first
 * A waiting writer (or upgrading holder) keeps new readers and upgradable
 * holders out. */
typedef struct KZRWULock {
  struct KZCriticalSection *lock; /* protects the fields; created lazily */
  int32_t state;
  int32_t upgradable;
  int32_t waitingWriters;
  uint64_t owner;
  KZCondition readersCondition;
  KZCondition writersCondition;
  KZCondition upgradableCondition;
  KZCondition upgradeCondition;
} KZRWULock;

#define KZ_RWULOCK_INITIALIZER                                                                  \
  {                                                                                             \
    (struct KZCriticalSection *)~(uintptr_t)0, 0, 0, 0, ~(uint64_t)0, KZ_CONDITION_INITIALIZER, \
        KZ_CONDITION_INITIALIZER, KZ_CONDITION_INITIALIZER, KZ_CONDITION_INITIALIZER            \
  }

/* Creates the lock and its four conditions; owner starts at all ones. */
KZ_API void RWULockInit(KZRWULock *lock);
/* Destroys the conditions and the lock. The lock must be free and unused. */
KZ_API void RWULockDestroy(KZRWULock *lock);
/* Block until acquired. */
KZ_API void RWULockAcquireRead(KZRWULock *lock);
KZ_API void RWULockAcquireWrite(KZRWULock *lock);
/* Shared hold that alone may be upgraded; waits while a writer holds or waits
 * or another upgradable holder exists. */
KZ_API void RWULockAcquireUpgradable(KZRWULock *lock);
/* Called by the upgradable holder: becomes the writer once every other reader
 * has released. New readers are held back meanwhile. */
KZ_API void RWULockUpgrade(KZRWULock *lock);
/* Called by the writer that came from an upgrade: becomes the upgradable
 * holder again and lets waiting readers in when no writer waits. */
KZ_API void RWULockDowngrade(KZRWULock *lock);
/* Releases the calling thread's hold of any kind (write, upgradable, read). */
KZ_API void RWULockRelease(KZRWULock *lock);

KZ_END_DECLS

#endif /* KZ_LOCK_H */
