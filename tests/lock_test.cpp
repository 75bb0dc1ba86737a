// Mutexes, conditions and reader-writer locks.
//
// Threads are synchronised through the locks' own public fields, read under
// the lock that protects them: a test waits until a thread is observably
// blocked (counted as a waiter) before it acts. The few short sleeps only give
// a thread the chance to run; what is checked after them holds either way for
// a correct lock.
#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/lock.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;

// Polls pred every millisecond for up to ten seconds.
template <typename Pred>
bool Eventually(Pred pred) {
  for (int i = 0; i < 10000; i++) {
    if (pred()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return pred();
}

// Runs read() under the lock variable *lock and returns its value.
template <typename Read>
auto Locked(KZMutex *lock, Read read) {
  MutexLock(lock);
  auto value = read();
  MutexUnlock(lock);
  return value;
}

uint32_t Waiters(KZCondition *condition) {
  return Locked(&condition->lock, [&] { return condition->waiters; });
}

uint64_t KernelThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

uint64_t NowMillis() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// ---- mutexes ------------------------------------------------------------------------

KZMutex g_lazyMutex = KZ_MUTEX_INITIALIZER;
long g_lazyCounter = 0;

TEST(Mutex, StaticMutexFirstUsedByManyThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 3000;
  ASSERT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  g_lazyCounter = 0;
  std::latch start(kThreads);
  std::vector<KZMutex> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        MutexLock(&g_lazyMutex);
        if (i == 0) seen[t] = __atomic_load_n(&g_lazyMutex, __ATOMIC_ACQUIRE);
        g_lazyCounter++;
        MutexUnlock(&g_lazyMutex);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(g_lazyCounter, long(kThreads) * kRounds);
  ASSERT_NE(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  ASSERT_NE(g_lazyMutex, nullptr);
  for (KZMutex lock : seen) EXPECT_EQ(lock, g_lazyMutex);  // one lock installed, used by all
  EXPECT_EQ(MutexInit_(&g_lazyMutex, __FILE__, __LINE__), g_lazyMutex);
  MutexDestroy(&g_lazyMutex);
  EXPECT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
}

TEST(Mutex, InitUnderscoreCreatesOnceAndKeepsTheInstalledLock) {
  KZMutex variable = KZ_MUTEX_INITIALIZER;
  KZMutex first = MutexInit_(&variable, "caller.c", 10);
  ASSERT_NE(first, KZ_MUTEX_INITIALIZER);
  EXPECT_EQ(variable, first);
  EXPECT_EQ(MutexInit_(&variable, "caller.c", 11), first);
  MutexDestroy(&variable);

  KZMutex zeroed = nullptr;  // zero-filled records count as unset too
  EXPECT_NE(MutexInit_(&zeroed, "caller.c", 12), nullptr);
  MutexDestroy(&zeroed);
  MutexDestroy(&zeroed);  // an unset variable is left alone
  EXPECT_EQ(zeroed, KZ_MUTEX_INITIALIZER);
}

TEST(Mutex, ReentrantAndExcludesOtherThreadsUntilFullyReleased) {
  KZMutex mutex;
  MutexInit(&mutex);
  MutexLock(&mutex);
  MutexLock(&mutex);  // re-entrant: no deadlock
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    MutexLock(&mutex);
    acquired = true;
    MutexUnlock(&mutex);
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(acquired);
  MutexUnlock(&mutex);  // still held once
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(acquired);
  MutexUnlock(&mutex);
  other.join();
  EXPECT_TRUE(acquired);
  MutexDestroy(&mutex);
}

TEST(Mutex, UnlockOfAnUnsetVariableDoesNothing) {
  KZMutex variable = KZ_MUTEX_INITIALIZER;
  MutexUnlock(&variable);
  EXPECT_EQ(variable, KZ_MUTEX_INITIALIZER);
}

// ---- recursive mutexes ------------------------------------------------------------------

KZRecursiveMutex g_recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;
long g_recursiveCounter = 0;

TEST(RecursiveMutex, StaticMutexFromTwoThreadsAtOnceIsReentrant) {
  ASSERT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
  g_recursiveCounter = 0;
  std::latch start(2);
  auto body = [&] {
    start.arrive_and_wait();
    for (int i = 0; i < 2000; i++) {
      RecursiveMutexLock(&g_recursive);
      RecursiveMutexLock(&g_recursive);
      g_recursiveCounter++;
      RecursiveMutexUnlock(&g_recursive);
      g_recursiveCounter++;
      RecursiveMutexUnlock(&g_recursive);
    }
  };
  std::thread a(body), b(body);
  a.join();
  b.join();
  EXPECT_EQ(g_recursiveCounter, 8000);
  RecursiveMutexDestroy(&g_recursive);
  EXPECT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
}

TEST(RecursiveMutex, HeldMutexExcludesOtherThreads) {
  KZRecursiveMutex mutex;
  RecursiveMutexInit(&mutex);
  RecursiveMutexLock(&mutex);
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    RecursiveMutexLock(&mutex);
    acquired = true;
    RecursiveMutexUnlock(&mutex);
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(acquired);
  RecursiveMutexUnlock(&mutex);
  other.join();
  EXPECT_TRUE(acquired);
  RecursiveMutexDestroy(&mutex);
}

void UnlockAnUnheldRecursiveMutex() {
  KZRecursiveMutex mutex;
  RecursiveMutexInit(&mutex);
  RecursiveMutexUnlock(&mutex);
}

void UnlockFromAnotherThread() {
  KZRecursiveMutex mutex = KZ_RECURSIVE_MUTEX_INITIALIZER;
  RecursiveMutexLock(&mutex);
  std::thread([&] { RecursiveMutexUnlock(&mutex); }).join();
}

void DestroyAHeldRecursiveMutex() {
  KZRecursiveMutex mutex;
  RecursiveMutexInit(&mutex);
  RecursiveMutexLock(&mutex);
  RecursiveMutexDestroy(&mutex);
}

TEST(RecursiveMutexDeathTest, UnlockByAnotherThreadExits) {
  EXPECT_EXIT(UnlockFromAnotherThread(), testing::ExitedWithCode(1),
              "\"kzthread:895\": mutex operation failed: Operation not permitted");
}

TEST(RecursiveMutexDeathTest, DestroyOfAHeldMutexExits) {
  EXPECT_EXIT(DestroyAHeldRecursiveMutex(), testing::ExitedWithCode(1),
              "\"kzthread:895\": mutex operation failed: Device or resource busy");
}

TEST(RecursiveMutexDeathTest, UnlockWithoutHoldExitsWithTheSystemError) {
  EXPECT_EXIT(UnlockAnUnheldRecursiveMutex(), testing::ExitedWithCode(1),
              "\"kzthread:895\": mutex operation failed: Operation not permitted");
}

// ---- conditions -----------------------------------------------------------------------

TEST(Condition, TimedWaitZeroWithoutSignalTimesOutAndHoldsTheMutexAgain) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  MutexLock(&mutex);
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 0), 0);
  EXPECT_EQ(Waiters(&condition), 0u);
  EXPECT_NE(condition.semaphore, nullptr);  // created on first use
  EXPECT_NE(condition.event, nullptr);

  // Held exactly once again: another thread gets it only after one unlock.
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    MutexLock(&mutex);
    acquired = true;
    MutexUnlock(&mutex);
  });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(acquired);
  MutexUnlock(&mutex);
  other.join();
  EXPECT_TRUE(acquired);
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, SignalWithoutWaiterIsLost) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition;
  ConditionInit(&condition);
  ConditionSignal(&condition);
  ConditionSignal(&condition);
  MutexLock(&mutex);
  uint64_t before = NowMillis();
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 50), 0);
  EXPECT_GE(NowMillis() - before, 49u);
  MutexUnlock(&mutex);
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, SignalWakesAWaitingThread) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  std::atomic<int> result{-1};
  std::thread waiter([&] {
    MutexLock(&mutex);
    result = ConditionTimedWait(&condition, &mutex, 10000);
    MutexUnlock(&mutex);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&condition) == 1; }));
  ConditionSignal(&condition);
  waiter.join();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Waiters(&condition), 0u);
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, SignalWakesOneWaiterAtATime) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  int woken = 0;  // under mutex
  auto waiter = [&] {
    MutexLock(&mutex);
    EXPECT_EQ(ConditionWait(&condition, &mutex), 1);
    woken++;
    MutexUnlock(&mutex);
  };
  std::thread a(waiter), b(waiter);
  ASSERT_TRUE(Eventually([&] { return Waiters(&condition) == 2; }));
  ConditionSignal(&condition);
  ASSERT_TRUE(Eventually([&] { return Locked(&mutex, [&] { return woken; }) == 1; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(Locked(&mutex, [&] { return woken; }), 1);
  EXPECT_EQ(Waiters(&condition), 1u);
  ConditionSignal(&condition);
  a.join();
  b.join();
  EXPECT_EQ(woken, 2);
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, BroadcastReturnsOnlyAfterEveryWaiterLeftItsWait) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  for (int round = 0; round < 10; round++) {
    int returned = 0;  // under mutex
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; i++) {
      waiters.emplace_back([&] {
        MutexLock(&mutex);
        EXPECT_EQ(ConditionWait(&condition, &mutex), 1);
        returned++;
        MutexUnlock(&mutex);
      });
    }
    ASSERT_TRUE(Eventually([&] { return Waiters(&condition) == 3; }));
    MutexLock(&mutex);
    ConditionBroadcast(&condition);
    // Read at once: the waiters' leaving happened before the broadcast
    // returned (the last of them reported it).
    uint32_t stillWaiting = condition.waiters;
    uint32_t flag = condition.broadcast;
    // Still holding the mutex: no waiter can have returned from its wait call.
    EXPECT_EQ(returned, 0);
    EXPECT_EQ(stillWaiting, 0u);
    EXPECT_EQ(flag, 0u);
    MutexUnlock(&mutex);
    for (auto &thread : waiters) thread.join();
    EXPECT_EQ(returned, 3);
  }
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, BroadcastWithoutWaitersReturnsAtOnce) {
  KZCondition condition;
  ConditionInit(&condition);
  ConditionBroadcast(&condition);
  EXPECT_EQ(condition.broadcast, 0u);
  ConditionDestroy(&condition);
}

KZMutex g_queueMutex = KZ_MUTEX_INITIALIZER;
KZCondition g_queueCondition = KZ_CONDITION_INITIALIZER;

TEST(Condition, StaticConditionFirstUsedByTwoThreadsAtOnce) {
  constexpr int kItems = 2000;
  int queued = 0;  // under g_queueMutex
  int consumed = 0;
  std::latch start(2);
  std::thread producer([&] {
    start.arrive_and_wait();
    for (int i = 0; i < kItems; i++) {
      MutexLock(&g_queueMutex);
      queued++;
      MutexUnlock(&g_queueMutex);
      ConditionSignal(&g_queueCondition);
    }
  });
  std::thread consumer([&] {
    start.arrive_and_wait();
    while (consumed < kItems) {
      MutexLock(&g_queueMutex);
      while (queued == 0) ConditionTimedWait(&g_queueCondition, &g_queueMutex, 1000);
      consumed += queued;
      queued = 0;
      MutexUnlock(&g_queueMutex);
    }
  });
  producer.join();
  consumer.join();
  EXPECT_EQ(consumed, kItems);
  EXPECT_EQ(Waiters(&g_queueCondition), 0u);
}

TEST(Condition, DestroyedConditionReportsTheReleasedHandle) {
  KZErrorClear();
  KZCondition condition;
  ConditionInit(&condition);
  ConditionDestroy(&condition);
  EXPECT_EQ(condition.semaphore, reinterpret_cast<KZSemaphore *>(~uintptr_t(0)));
  EXPECT_EQ(condition.event, reinterpret_cast<KZEvent *>(~uintptr_t(0)));

  ConditionSignal(&condition);  // no waiter: nothing to release
  EXPECT_EQ(errno, 0);

  condition.waiters = 1;  // as if a thread were still counted
  ConditionSignal(&condition);
  EXPECT_EQ(errno, -2);
  EXPECT_EQ(std::string(KZErrorMessage()), "the handle has been released: Bad file descriptor");
  uint32_t line = 0;
  EXPECT_STREQ(KZErrorLocation(&line), "kzlib/kzthread");
  EXPECT_EQ(line, 1043u);
  KZErrorClear();
  MutexDestroy(&condition.lock);  // created again by the signal

  // Initialising again makes it usable.
  ConditionInit(&condition);
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  MutexLock(&mutex);
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 0), 0);
  MutexUnlock(&mutex);
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

void WaitOnADestroyedCondition() {
  KZCondition condition;
  ConditionInit(&condition);
  ConditionDestroy(&condition);
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  MutexLock(&mutex);
  ConditionTimedWait(&condition, &mutex, 0);
}

void BroadcastOnADestroyedCondition() {
  KZCondition condition;
  ConditionInit(&condition);
  ConditionDestroy(&condition);
  condition.waiters = 2;  // as if two threads were still counted
  ConditionBroadcast(&condition);
}

TEST(ConditionDeathTest, WaitOnADestroyedConditionIsFatal) {
  EXPECT_DEATH(WaitOnADestroyedCondition(),
               "\"kzthread:992\": WaitForSingleObject failed: Bad file descriptor");
}

TEST(ConditionDeathTest, BroadcastOnADestroyedConditionIsFatal) {
  EXPECT_DEATH(BroadcastOnADestroyedCondition(),
               "\"kzthread:1066\": ReleaseSemaphore failed: Bad file descriptor");
}

// ---- reader-writer lock ----------------------------------------------------------------

int32_t State(KZRWLock *lock) {
  return Locked(&lock->lock, [&] { return lock->state; });
}
int32_t WaitingWriters(KZRWLock *lock) {
  return Locked(&lock->lock, [&] { return lock->waitingWriters; });
}

KZRWLock g_rwStress = KZ_RWLOCK_INITIALIZER;

TEST(RWLock, StaticLockNeverHasAWriterBesideAReader) {
  constexpr int kReaders = 4, kWriters = 2, kRounds = 1500;
  std::atomic<int> readers{0}, writers{0}, violations{0};
  long first = 0, second = 0;  // written by writers only, always equal outside a write
  std::latch start(kReaders + kWriters);
  std::vector<std::thread> threads;
  for (int r = 0; r < kReaders; r++) {
    threads.emplace_back([&, r] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        bool timed = (i + r) % 3 == 0;
        if (timed) {
          if (!RWLockAcquireReadTimeout(&g_rwStress, 1)) continue;
        } else {
          RWLockAcquireRead(&g_rwStress);
        }
        readers++;
        if (i % 8 == 0) std::this_thread::yield();  // let others overlap
        if (writers.load() != 0) violations++;
        if (first != second) violations++;
        readers--;
        RWLockRelease(&g_rwStress);
      }
    });
  }
  std::atomic<long> writes{0};
  for (int w = 0; w < kWriters; w++) {
    threads.emplace_back([&, w] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds / 3; i++) {
        // A writer that gives up leaves the readers it held back waiting for
        // the next writer's release, so the last round always waits.
        if ((i + w) % 4 == 0 && i + 1 < kRounds / 3) {
          if (!RWLockAcquireWriteTimeout(&g_rwStress, 1)) continue;
        } else {
          RWLockAcquireWrite(&g_rwStress);
        }
        if (writers.fetch_add(1) != 0) violations++;
        if (readers.load() != 0) violations++;
        first++;
        std::this_thread::yield();
        second++;
        writes++;
        writers--;
        RWLockRelease(&g_rwStress);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(first, writes.load());
  EXPECT_EQ(second, writes.load());
  EXPECT_EQ(State(&g_rwStress), 0);
  EXPECT_EQ(WaitingWriters(&g_rwStress), 0);
}

TEST(RWLock, WaitingWriterHoldsBackNewReaders) {
  KZRWLock lock;
  RWLockInit(&lock);
  RWLockAcquireRead(&lock);
  std::atomic<bool> written{false};
  std::thread writer([&] {
    RWLockAcquireWrite(&lock);
    written = true;
    RWLockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return WaitingWriters(&lock) == 1; }));
  // Readers hold the lock, but a writer waits: a new reader gives up.
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 50), 0);
  EXPECT_EQ(State(&lock), 1);
  EXPECT_FALSE(written);
  RWLockRelease(&lock);
  writer.join();
  EXPECT_TRUE(written);
  EXPECT_EQ(State(&lock), 0);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 0), 1);
  RWLockRelease(&lock);
  RWLockDestroy(&lock);
}

TEST(RWLock, TimeoutsAcquireFreeLocksAndGiveUpOnHeldOnes) {
  KZRWLock lock = KZ_RWLOCK_INITIALIZER;
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 0), 1);
  EXPECT_EQ(State(&lock), -1);
  std::thread([&] {
    EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);
    EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
  }).join();
  EXPECT_EQ(WaitingWriters(&lock), 0);
  RWLockRelease(&lock);

  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 0), 1);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, KZ_WAIT_INFINITE), 1);
  EXPECT_EQ(State(&lock), 2);
  uint64_t before = NowMillis();
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 30), 0);
  EXPECT_GE(NowMillis() - before, 29u);
  EXPECT_EQ(WaitingWriters(&lock), 0);
  EXPECT_EQ(State(&lock), 2);
  RWLockRelease(&lock);
  RWLockRelease(&lock);
  EXPECT_EQ(State(&lock), 0);
  RWLockDestroy(&lock);
}

TEST(RWLock, ReadersHeldBackByAWriterThatGaveUpGoOnAtTheNextWriterRelease) {
  KZRWLock lock = KZ_RWLOCK_INITIALIZER;
  RWLockAcquireRead(&lock);
  std::atomic<int> gaveUp{-1};
  std::thread writer([&] { gaveUp = RWLockAcquireWriteTimeout(&lock, 500) == 0; });
  ASSERT_TRUE(Eventually([&] { return WaitingWriters(&lock) == 1; }));
  std::atomic<bool> read{false};
  std::thread reader([&] {
    RWLockAcquireRead(&lock);
    read = true;
    RWLockRelease(&lock);
  });
  // The reader blocks behind the waiting writer (if the writer has not given
  // up first, which takes half a second).
  bool readerBlocked = Eventually([&] { return Waiters(&lock.readersCondition) == 1 || gaveUp == 1; }) &&
                       Waiters(&lock.readersCondition) == 1;
  writer.join();
  EXPECT_EQ(gaveUp, 1);
  EXPECT_EQ(WaitingWriters(&lock), 0);
  if (!readerBlocked) {
    RWLockRelease(&lock);
    reader.join();
    RWLockDestroy(&lock);
    GTEST_SKIP() << "the reader came after the writer gave up";
  }
  // Giving up woke no one; neither does the last reader's release.
  EXPECT_EQ(Waiters(&lock.readersCondition), 1u);
  RWLockRelease(&lock);
  EXPECT_EQ(State(&lock), 0);
  EXPECT_EQ(Waiters(&lock.readersCondition), 1u);
  EXPECT_FALSE(read);
  // A writer's release lets it go.
  RWLockAcquireWrite(&lock);
  RWLockRelease(&lock);
  reader.join();
  EXPECT_TRUE(read);
  RWLockDestroy(&lock);
}

void ReleaseAFreeLock() {
  KZRWLock lock = KZ_RWLOCK_INITIALIZER;
  RWLockRelease(&lock);
}

TEST(RWLockDeathTest, ReleaseOfAFreeLockFailsTheAssertion) {
  EXPECT_DEATH(ReleaseAFreeLock(), "'lock->state > 0' failed at kzlib/kzthread:1370");
}

// ---- upgradable reader-writer lock ----------------------------------------------------

template <typename Read>
auto ULocked(KZRWULock *lock, Read read) {
  return Locked(&lock->lock, read);
}

// A thread that takes a hold, reports it, and releases when told to.
class Holder {
 public:
  template <typename Acquire>
  Holder(KZRWULock *lock, Acquire acquire) {
    std::promise<void> held;
    std::future<void> heldFuture = held.get_future();
    thread_ = std::thread([this, lock, acquire, held = std::move(held)]() mutable {
      acquire(lock);
      held.set_value();
      release_.get_future().wait();
      before_();
      RWULockRelease(lock);
    });
    heldFuture.wait();
  }
  // Runs before() in the holder's thread, then releases; waits for it.
  void Release(std::function<void()> before = [] {}) {
    before_ = std::move(before);
    release_.set_value();
    thread_.join();
  }
  ~Holder() {
    if (thread_.joinable()) Release();
  }

 private:
  std::promise<void> release_;
  std::function<void()> before_ = [] {};
  std::thread thread_;
};

TEST(RWULock, UpgradeWaitsUntilEveryOtherReaderReleased) {
  KZRWULock lock;
  RWULockInit(&lock);
  EXPECT_EQ(lock.owner, ~uint64_t(0));

  std::atomic<int> released{0};
  std::atomic<bool> upgraded{false}, downgraded{false};
  std::atomic<int> releasedAtUpgrade{-1};
  std::atomic<uint64_t> upgraderId{0};
  std::promise<void> goUpgrade, goDowngrade, goRelease;
  std::promise<void> holding;
  std::thread upgrader([&] {
    upgraderId = KernelThreadId();
    RWULockAcquireUpgradable(&lock);
    holding.set_value();
    goUpgrade.get_future().wait();
    RWULockUpgrade(&lock);
    releasedAtUpgrade = released.load();
    upgraded = true;
    goDowngrade.get_future().wait();
    RWULockDowngrade(&lock);
    downgraded = true;
    goRelease.get_future().wait();
    RWULockRelease(&lock);
  });
  holding.get_future().wait();
  EXPECT_EQ(ULocked(&lock, [&] { return lock.owner; }), upgraderId.load());

  // Plain readers enter beside the upgradable holder.
  Holder reader1(&lock, RWULockAcquireRead);
  Holder reader2(&lock, RWULockAcquireRead);
  EXPECT_EQ(ULocked(&lock, [&] { return lock.state; }), 3);

  goUpgrade.set_value();
  ASSERT_TRUE(Eventually([&] { return ULocked(&lock, [&] { return lock.upgradable; }) == -1; }));
  EXPECT_FALSE(upgraded);

  // A new reader is held back while the upgrade is pending.
  std::atomic<bool> lateRead{false};
  std::thread lateReader([&] {
    RWULockAcquireRead(&lock);
    lateRead = true;
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1; }));

  reader1.Release([&] { released++; });
  EXPECT_EQ(ULocked(&lock, [&] { return lock.state; }), 2);
  EXPECT_EQ(ULocked(&lock, [&] { return lock.upgradable; }), -1);  // still waiting
  EXPECT_FALSE(upgraded);

  reader2.Release([&] { released++; });
  ASSERT_TRUE(Eventually([&] { return upgraded.load(); }));
  EXPECT_EQ(releasedAtUpgrade, 2);
  EXPECT_EQ(ULocked(&lock, [&] { return lock.state; }), -1);
  EXPECT_EQ(ULocked(&lock, [&] { return lock.upgradable; }), 0);
  EXPECT_EQ(Waiters(&lock.readersCondition), 1u);  // the late reader still waits
  EXPECT_FALSE(lateRead);

  // Downgrading lets the waiting reader in beside the holder.
  goDowngrade.set_value();
  lateReader.join();
  EXPECT_TRUE(lateRead);
  ASSERT_TRUE(Eventually([&] { return downgraded.load(); }));
  EXPECT_EQ(ULocked(&lock, [&] { return lock.state; }), 1);
  EXPECT_EQ(ULocked(&lock, [&] { return lock.upgradable; }), 1);

  goRelease.set_value();
  upgrader.join();
  EXPECT_EQ(lock.state, 0);
  EXPECT_EQ(lock.upgradable, 0);
  EXPECT_EQ(lock.waitingWriters, 0);
  RWULockDestroy(&lock);
}

TEST(RWULock, OnlyOneUpgradableHolderAtATime) {
  KZRWULock lock = KZ_RWULOCK_INITIALIZER;
  RWULockAcquireUpgradable(&lock);
  EXPECT_EQ(lock.owner, KernelThreadId());

  std::atomic<bool> second{false};
  std::atomic<uint64_t> secondId{0};
  std::promise<void> goRelease;
  std::thread other([&] {
    secondId = KernelThreadId();
    RWULockAcquireUpgradable(&lock);
    second = true;
    goRelease.get_future().wait();
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.upgradableCondition) == 1; }));
  EXPECT_FALSE(second);

  // A plain reader still enters.
  std::thread([&] {
    RWULockAcquireRead(&lock);
    RWULockRelease(&lock);
  }).join();

  RWULockRelease(&lock);
  ASSERT_TRUE(Eventually([&] { return second.load(); }));
  EXPECT_EQ(ULocked(&lock, [&] { return lock.owner; }), secondId.load());
  EXPECT_EQ(ULocked(&lock, [&] { return lock.state; }), 1);
  goRelease.set_value();
  other.join();
  EXPECT_EQ(lock.state, 0);
  EXPECT_EQ(lock.upgradable, 0);
  RWULockDestroy(&lock);
}

TEST(RWULock, WriterExcludesAndLetsEveryKindInOnRelease) {
  KZRWULock lock = KZ_RWULOCK_INITIALIZER;
  RWULockAcquireWrite(&lock);
  std::atomic<int> entered{0};
  std::thread reader([&] {
    RWULockAcquireRead(&lock);
    entered++;
    RWULockRelease(&lock);
  });
  std::thread upgradable([&] {
    RWULockAcquireUpgradable(&lock);
    entered++;
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] {
    return Waiters(&lock.readersCondition) == 1 && Waiters(&lock.upgradableCondition) == 1;
  }));
  EXPECT_EQ(entered, 0);
  RWULockRelease(&lock);
  reader.join();
  upgradable.join();
  EXPECT_EQ(entered, 2);
  EXPECT_EQ(lock.state, 0);
  RWULockDestroy(&lock);
}

KZRWULock g_rwuStress = KZ_RWULOCK_INITIALIZER;

TEST(RWULock, StaticLockStressKeepsWritersAlone) {
  constexpr int kRounds = 600;
  std::atomic<int> readers{0}, writers{0}, upgradables{0}, violations{0};
  long value = 0;
  long mirror = 0;
  std::latch start(6);
  std::vector<std::thread> threads;
  for (int r = 0; r < 3; r++) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        RWULockAcquireRead(&g_rwuStress);
        readers++;
        if (i % 8 == 0) std::this_thread::yield();
        if (writers.load() != 0) violations++;
        if (value != mirror) violations++;
        readers--;
        RWULockRelease(&g_rwuStress);
      }
    });
  }
  threads.emplace_back([&] {
    start.arrive_and_wait();
    for (int i = 0; i < kRounds / 2; i++) {
      RWULockAcquireWrite(&g_rwuStress);
      if (writers.fetch_add(1) != 0 || readers.load() != 0 || upgradables.load() != 0) violations++;
      value++;
      std::this_thread::yield();
      mirror++;
      writers--;
      RWULockRelease(&g_rwuStress);
    }
  });
  for (int u = 0; u < 2; u++) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds / 2; i++) {
        RWULockAcquireUpgradable(&g_rwuStress);
        if (upgradables.fetch_add(1) != 0 || writers.load() != 0) violations++;
        long seen = value;
        std::this_thread::yield();
        RWULockUpgrade(&g_rwuStress);
        if (writers.fetch_add(1) != 0 || readers.load() != 0) violations++;
        if (value != seen) violations++;  // no writer slipped in between
        value++;
        mirror++;
        writers--;
        if (i % 2 == 0) {  // else released as the writer
          RWULockDowngrade(&g_rwuStress);
          if (writers.load() != 0) violations++;
        }
        upgradables--;
        RWULockRelease(&g_rwuStress);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(value, 3 * (kRounds / 2));
  EXPECT_EQ(value, mirror);
  EXPECT_EQ(g_rwuStress.state, 0);
  EXPECT_EQ(g_rwuStress.upgradable, 0);
  EXPECT_EQ(g_rwuStress.waitingWriters, 0);
}

}  // namespace
