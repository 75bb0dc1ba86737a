// Mutexes, conditions and reader-writer locks. A test acts once a thread is
// observably blocked (counted as a waiter); the few short sleeps only give a
// thread the chance to run: what follows them holds either way for a correct lock.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "kz/lock.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using Pair = std::pair<int32_t, int32_t>;

template <typename Pred>
bool Eventually(Pred pred) {  // up to ten seconds
  for (int i = 0; i < 10000 && !pred(); i++) std::this_thread::sleep_for(1ms);
  return pred();
}

template <typename Read>
auto Locked(KZMutex *lock, Read read) {  // read() under *lock
  MutexLock(lock);
  auto value = read();
  return MutexUnlock(lock), value;
}
uint32_t Waiters(KZCondition *c) { return Locked(&c->lock, [&] { return c->waiters; }); }
template <typename Lock, typename T>
T Read(Lock *lock, const T *field) { return Locked(&lock->lock, [&] { return *field; }); }
Pair StateAndUpgradable(KZRWULock *l) { return Locked(&l->lock, [&] { return Pair(l->state, l->upgradable); }); }

// A thread running body(), expected to block until the test lets it go.
class Background {
 public:
  template <typename Body>
  explicit Background(Body body) : thread_([this, body] { body(); done_ = true; }) {}
  ~Background() {  // after a failure it may be stuck: end the program rather than hang
    if (thread_.joinable() && !Eventually([&] { return Done(); })) std::abort();
    Join();
  }
  bool Done() const { return done_; }
  bool StillBlocked() { std::this_thread::sleep_for(20ms); return !done_; }
  void Join() { if (thread_.joinable()) thread_.join(); }
 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

KZMutex g_lazyMutex = KZ_MUTEX_INITIALIZER;
KZRecursiveMutex g_recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;
long g_lazyCounter = 0, g_recursiveCounter = 0;

TEST(Mutex, StaticMutexesFirstUsedByManyThreadsAtOnce) {
  constexpr int kThreads = 8, kRounds = 2000;
  g_lazyCounter = g_recursiveCounter = 0;
  std::latch start(kThreads);
  std::vector<KZMutex> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        if ((i + t) % 2 == 0) {  // half the threads start with either mutex
          MutexLock(&g_lazyMutex);
          if (i < 2) seen[t] = __atomic_load_n(&g_lazyMutex, __ATOMIC_ACQUIRE);
          g_lazyCounter++;
          MutexUnlock(&g_lazyMutex);
          continue;
        }
        RecursiveMutexLock(&g_recursive), RecursiveMutexLock(&g_recursive), g_recursiveCounter++;
        RecursiveMutexUnlock(&g_recursive), g_recursiveCounter++;  // still held once
        RecursiveMutexUnlock(&g_recursive);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(g_lazyCounter, long(kThreads) * kRounds / 2);
  EXPECT_EQ(g_recursiveCounter, long(kThreads) * kRounds);
  ASSERT_NE(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  for (KZMutex lock : seen) EXPECT_EQ(lock, g_lazyMutex);  // one lock installed, used by all
  MutexDestroy(&g_lazyMutex);
  EXPECT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  MutexUnlock(&g_lazyMutex);  // an unset variable is left alone
  RecursiveMutexDestroy(&g_recursive);
  EXPECT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
}

// Takes a lock twice: another thread gets it only after the second release.
template <typename Lock, typename Unlock>
void ExpectHeldUntilReleasedTwice(Lock lock, Unlock unlock) {
  lock(), lock();  // re-entrant: no deadlock
  Background other([&] { lock(); unlock(); });
  EXPECT_TRUE(other.StillBlocked());
  unlock();
  EXPECT_TRUE(other.StillBlocked());
  unlock();
}

TEST(Mutex, BothKindsAreReentrantAndHeldUntilReleasedAsOftenAsTaken) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  ExpectHeldUntilReleasedTwice([&] { MutexLock(&mutex); }, [&] { MutexUnlock(&mutex); });
  MutexDestroy(&mutex);
  KZRecursiveMutex recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;
  ExpectHeldUntilReleasedTwice([&] { RecursiveMutexLock(&recursive); }, [&] { RecursiveMutexUnlock(&recursive); });
  RecursiveMutexDestroy(&recursive);
}

TEST(Condition, LostSignalTimedWaitAndBroadcastWaitingForAllToLeave) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  ConditionSignal(&condition);
  ConditionBroadcast(&condition);  // returns at once
  MutexLock(&mutex);
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 0), 0);
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 30), 0);  // the signal was not kept
  EXPECT_EQ(Waiters(&condition), 0u);
  Background other([&] { MutexLock(&mutex); MutexUnlock(&mutex); });
  EXPECT_TRUE(other.StillBlocked());  // held again, exactly once
  MutexUnlock(&mutex);
  other.Join();
  // A signal wakes one of four waiters; the broadcast to the other three
  // returns only once they all left their wait.
  for (int round = 0; round < 5; round++) {
    int returned = 0;  // under mutex
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; i++) {
      waiters.emplace_back([&] {
        MutexLock(&mutex);
        EXPECT_EQ(ConditionWait(&condition, &mutex), 1);
        returned++, MutexUnlock(&mutex);
      });
    }
    ASSERT_TRUE(Eventually([&] { return Waiters(&condition) == 4; }));
    ConditionSignal(&condition);
    ASSERT_TRUE(Eventually([&] { return Locked(&mutex, [&] { return returned; }) == 1; }));
    EXPECT_EQ(Waiters(&condition), 3u);
    MutexLock(&mutex);
    ConditionBroadcast(&condition);
    // Read without the condition's lock: the last waiter to leave reported
    // it before the broadcast returned.
    EXPECT_EQ(condition.waiters, 0u);
    EXPECT_EQ(condition.broadcast, 0u);
    EXPECT_EQ(returned, 1);  // the mutex is still ours
    MutexUnlock(&mutex);
    for (auto &thread : waiters) thread.join();
    EXPECT_EQ(returned, 4);
  }
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

KZRWLock g_rwStress = KZ_RWLOCK_INITIALIZER;

TEST(RWLock, StaticLockNeverHasAWriterBesideAReader) {
  constexpr int kThreads = 6, kReaders = 4, kRounds = 1500;
  std::atomic<int> readers{0}, writers{0}, violations{0};
  long first = 0, second = 0, writes = 0;  // changed by writers only, equal outside a write
  auto acquire = [](bool write, bool timed) {  // timed: a 1 ms limit
    if (timed) return (write ? RWLockAcquireWriteTimeout : RWLockAcquireReadTimeout)(&g_rwStress, 1) != 0;
    write ? RWLockAcquireWrite(&g_rwStress) : RWLockAcquireRead(&g_rwStress);
    return true;
  };
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      const bool write = t >= kReaders;
      const int rounds = write ? kRounds / 3 : kRounds;
      for (int i = 0; i < rounds; i++) {
        // A writer that gives up leaves the readers it held back waiting for
        // the next writer's release, so a writer's last round always waits.
        if (!acquire(write, (i + t) % (write ? 4 : 3) == 0 && i + 1 < rounds)) continue;
        if (write) {
          if (writers.fetch_add(1) != 0 || readers.load() != 0) violations++;
          first++, std::this_thread::yield(), second++, writes++;
          writers--;
        } else {
          readers++;
          if (i % 8 == 0) std::this_thread::yield();  // let others overlap
          if (writers.load() != 0 || first != second) violations++;
          readers--;
        }
        RWLockRelease(&g_rwStress);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(first, writes);
  EXPECT_EQ(second, writes);
  EXPECT_EQ(Read(&g_rwStress, &g_rwStress.state), 0);
  EXPECT_EQ(Read(&g_rwStress, &g_rwStress.waitingWriters), 0);
}

TEST(RWLock, WaitingWriterHoldsBackNewReadersAndTimeoutsGiveUp) {
  KZRWLock lock = KZ_RWLOCK_INITIALIZER;
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 0), 1);
  std::atomic<bool> written{false}, read{false}, writtenBeforeRead{false};
  std::thread writer([&] { RWLockAcquireWrite(&lock); written = true; RWLockRelease(&lock); });
  ASSERT_TRUE(Eventually([&] { return Read(&lock, &lock.waitingWriters) == 1; }));
  // A reader holds the lock, but a writer waits: a new reader gives up or
  // waits until the writer is done.
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 50), 0) << "a reader got in beside a waiting writer";
  std::thread reader([&] {
    RWLockAcquireRead(&lock);
    writtenBeforeRead = written.load(), read = true;
    RWLockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || read; }));
  EXPECT_FALSE(read || written);
  RWLockRelease(&lock);
  writer.join();
  reader.join();
  EXPECT_TRUE(writtenBeforeRead);
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 0), 1);  // a held lock is given up on
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);
  RWLockRelease(&lock);
  RWLockAcquireRead(&lock);
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
  EXPECT_EQ(Read(&lock, &lock.waitingWriters), 0);  // no longer counted
  RWLockRelease(&lock);
  RWLockDestroy(&lock);
}

TEST(RWULock, UpgradeWaitsForReadersToDrainAndDowngradeLetsReadersIn) {
  KZRWULock lock = KZ_RWULOCK_INITIALIZER;
  RWULockAcquireRead(&lock), RWULockAcquireRead(&lock);  // two plain read holds
  std::atomic<int> step{0};  // the upgrader's progress
  std::latch goDowngrade(1), goRelease(1);
  std::thread upgrader([&] {
    RWULockAcquireUpgradable(&lock), step = 1;
    RWULockUpgrade(&lock), step = 2;
    goDowngrade.wait();
    RWULockDowngrade(&lock), step = 3;
    goRelease.wait();
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Read(&lock, &lock.upgradable) == -1 || step >= 2; }));
  ASSERT_EQ(step, 1);
  // A new reader is held back while the upgrade is pending.
  Background lateReader([&] { RWULockAcquireRead(&lock); RWULockRelease(&lock); });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || lateReader.Done(); }));
  RWULockRelease(&lock);
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(2, -1));  // still waiting for the other read hold
  EXPECT_EQ(step, 1);
  RWULockRelease(&lock);
  ASSERT_TRUE(Eventually([&] { return step == 2; }));
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(-1, 0));
  EXPECT_FALSE(lateReader.Done());
  goDowngrade.count_down();  // lets the waiting reader in beside the holder
  ASSERT_TRUE(Eventually([&] { return lateReader.Done() && step == 3; }));
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(1, 1));
  goRelease.count_down();
  upgrader.join();
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(0, 0));
  RWULockDestroy(&lock);
}

// ---- fatal messages and assertions --------------------------------------------------

KZCondition DestroyedCondition() {
  KZCondition condition;
  ConditionInit(&condition), ConditionDestroy(&condition);
  return condition;
}

TEST(LockDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
      {[] {  // released by a thread that does not hold it
         KZRecursiveMutex mutex = KZ_RECURSIVE_MUTEX_INITIALIZER;
         RecursiveMutexLock(&mutex);
         std::thread([&] { RecursiveMutexUnlock(&mutex); }).join();
       },
       1, "\"kzthread:895\": mutex operation failed: Operation not permitted"},
      {[] { KZRecursiveMutex m = KZ_RECURSIVE_MUTEX_INITIALIZER; RecursiveMutexLock(&m); RecursiveMutexDestroy(&m); },
       1, "\"kzthread:895\": mutex operation failed: Device or resource busy"},
      {[] {
         KZCondition condition = DestroyedCondition();
         KZMutex mutex = KZ_MUTEX_INITIALIZER;
         MutexLock(&mutex), ConditionTimedWait(&condition, &mutex, 0);
       },
       0, "\"kzthread:992\": WaitForSingleObject failed: Bad file descriptor"},
      {[] { KZCondition condition = DestroyedCondition(); condition.waiters = 2; ConditionBroadcast(&condition); },
       0, "\"kzthread:1066\": ReleaseSemaphore failed: Bad file descriptor"},
      {[] { KZRWLock lock = KZ_RWLOCK_INITIALIZER; RWLockRelease(&lock); },
       0, "'lock->state > 0' failed at kzlib/kzthread:1370"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
