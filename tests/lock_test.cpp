// Mutexes, conditions and reader-writer locks. A test waits until a thread is
// observably blocked (counted as a waiter, read under the lock that protects
// the count) before it acts; the few short sleeps only give a thread the chance
// to run, and what is checked after them holds either way for a correct lock.
#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <utility>
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

// A field of a reader-writer lock, read under the lock's own lock.
template <typename Lock, typename T>
T Read(Lock *lock, const T *field) {
  return Locked(&lock->lock, [&] { return *field; });
}

uint64_t KernelThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

uint64_t NowMillis() {
  using namespace std::chrono;
  return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// A thread running body(), which is expected to block until the test lets it go.
class Background {
 public:
  template <typename Body>
  explicit Background(Body body) : thread_([this, body] { body(); done_ = true; }) {}
  ~Background() {  // after a failure it may be stuck: end the program rather than hang
    if (thread_.joinable() && !Eventually([&] { return Done(); })) std::abort();
    Join();
  }
  bool Done() const { return done_; }
  // Gives the thread a moment to get through if nothing holds it back.
  bool StillBlocked() {
    std::this_thread::sleep_for(20ms);
    return !done_;
  }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

std::pair<int32_t, int32_t> StateAndUpgradable(KZRWULock *lock) {
  return Locked(&lock->lock, [&] { return std::make_pair(lock->state, lock->upgradable); });
}

// ---- mutexes ------------------------------------------------------------------------

KZMutex g_lazyMutex = KZ_MUTEX_INITIALIZER;
KZRecursiveMutex g_recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;
long g_lazyCounter = 0, g_recursiveCounter = 0;

TEST(Mutex, StaticMutexesFirstUsedByManyThreadsAtOnceAndUnsetVariables) {
  constexpr int kThreads = 8, kRounds = 2000;
  ASSERT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  ASSERT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
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
        } else {
          RecursiveMutexLock(&g_recursive);
          RecursiveMutexLock(&g_recursive);
          g_recursiveCounter++;
          RecursiveMutexUnlock(&g_recursive);
          g_recursiveCounter++;
          RecursiveMutexUnlock(&g_recursive);
        }
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(g_lazyCounter, long(kThreads) * kRounds / 2);
  EXPECT_EQ(g_recursiveCounter, long(kThreads) * kRounds);
  ASSERT_NE(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  ASSERT_NE(g_lazyMutex, nullptr);
  for (KZMutex lock : seen) EXPECT_EQ(lock, g_lazyMutex);  // one lock installed, used by all
  EXPECT_EQ(MutexInit_(&g_lazyMutex, __FILE__, __LINE__), g_lazyMutex);
  MutexDestroy(&g_lazyMutex);
  EXPECT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  MutexUnlock(&g_lazyMutex);  // an unset variable is left alone
  MutexDestroy(&g_lazyMutex);
  EXPECT_EQ(g_lazyMutex, KZ_MUTEX_INITIALIZER);
  KZMutex zeroed = nullptr;  // a zero-filled record counts as unset too
  EXPECT_NE(MutexInit_(&zeroed, __FILE__, __LINE__), nullptr);
  MutexDestroy(&zeroed);
  EXPECT_EQ(zeroed, KZ_MUTEX_INITIALIZER);
  RecursiveMutexDestroy(&g_recursive);
  EXPECT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
}

// Takes a lock twice: another thread gets it only after the second release.
template <typename Lock, typename Unlock>
void ExpectHeldUntilReleasedTwice(Lock lock, Unlock unlock) {
  lock();
  lock();  // re-entrant: no deadlock
  Background other([&] { lock(); unlock(); });
  EXPECT_TRUE(other.StillBlocked());
  unlock();
  EXPECT_TRUE(other.StillBlocked());
  unlock();
  other.Join();
}

TEST(Mutex, BothKindsAreReentrantAndHeldUntilReleasedAsOftenAsTaken) {
  KZMutex mutex;
  MutexInit(&mutex);
  ExpectHeldUntilReleasedTwice([&] { MutexLock(&mutex); }, [&] { MutexUnlock(&mutex); });
  MutexDestroy(&mutex);
  KZRecursiveMutex recursive;
  RecursiveMutexInit(&recursive);
  ExpectHeldUntilReleasedTwice([&] { RecursiveMutexLock(&recursive); }, [&] { RecursiveMutexUnlock(&recursive); });
  RecursiveMutexDestroy(&recursive);
}

// ---- conditions -----------------------------------------------------------------------

TEST(Condition, SignalWithoutWaiterIsLostAndTimedWaitTakesTheMutexBackOnce) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition;
  ConditionInit(&condition);
  ConditionSignal(&condition);
  ConditionBroadcast(&condition);  // returns at once
  EXPECT_EQ(condition.broadcast, 0u);
  MutexLock(&mutex);
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 0), 0);
  uint64_t before = NowMillis();
  EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 50), 0);
  EXPECT_GE(NowMillis() - before, 49u);
  EXPECT_EQ(Waiters(&condition), 0u);
  Background other([&] { MutexLock(&mutex); MutexUnlock(&mutex); });
  EXPECT_TRUE(other.StillBlocked());  // held exactly once again
  MutexUnlock(&mutex);
  other.Join();
  ConditionDestroy(&condition);
  MutexDestroy(&mutex);
}

TEST(Condition, SignalWakesOneWaiterAndBroadcastReturnsOnlyAfterTheOthersLeftTheirWait) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition condition = KZ_CONDITION_INITIALIZER;
  for (int round = 0; round < 10; round++) {
    int returned = 0;  // under mutex
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; i++) {
      waiters.emplace_back([&] {
        MutexLock(&mutex);
        EXPECT_EQ(ConditionWait(&condition, &mutex), 1);
        returned++;
        MutexUnlock(&mutex);
      });
    }
    ASSERT_TRUE(Eventually([&] { return Waiters(&condition) == 4; }));
    ConditionSignal(&condition);
    ASSERT_TRUE(Eventually([&] { return Locked(&mutex, [&] { return returned; }) == 1; }));
    if (round == 0) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(Waiters(&condition), 3u);
    MutexLock(&mutex);
    ConditionBroadcast(&condition);
    // Read at once, without the condition's lock: the last waiter to leave
    // reported it before the broadcast returned.
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

KZCondition DestroyedCondition() {
  KZCondition condition;
  ConditionInit(&condition);
  ConditionDestroy(&condition);
  return condition;
}

TEST(Condition, DestroyedConditionReportsTheReleasedHandle) {
  KZErrorClear();
  KZCondition condition = DestroyedCondition();
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
}

// ---- reader-writer lock ----------------------------------------------------------------

KZRWLock g_rwStress = KZ_RWLOCK_INITIALIZER;

TEST(RWLock, StaticLockNeverHasAWriterBesideAReader) {
  constexpr int kReaders = 4, kWriters = 2, kRounds = 1500;
  std::atomic<int> readers{0}, writers{0}, violations{0};
  std::atomic<long> writes{0};
  long first = 0, second = 0;  // written by writers only, always equal outside a write
  std::latch start(kReaders + kWriters);
  std::vector<std::thread> threads;
  for (int r = 0; r < kReaders; r++) {
    threads.emplace_back([&, r] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        if ((i + r) % 3 != 0)
          RWLockAcquireRead(&g_rwStress);
        else if (!RWLockAcquireReadTimeout(&g_rwStress, 1))
          continue;
        readers++;
        if (i % 8 == 0) std::this_thread::yield();  // let others overlap
        if (writers.load() != 0 || first != second) violations++;
        readers--;
        RWLockRelease(&g_rwStress);
      }
    });
  }
  for (int w = 0; w < kWriters; w++) {
    threads.emplace_back([&, w] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds / 3; i++) {
        // A writer that gives up leaves the readers it held back waiting for
        // the next writer's release, so the last round always waits.
        if ((i + w) % 4 != 0 || i + 1 == kRounds / 3)
          RWLockAcquireWrite(&g_rwStress);
        else if (!RWLockAcquireWriteTimeout(&g_rwStress, 1))
          continue;
        if (writers.fetch_add(1) != 0 || readers.load() != 0) violations++;
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
  EXPECT_EQ(Read(&g_rwStress, &g_rwStress.state), 0);
  EXPECT_EQ(Read(&g_rwStress, &g_rwStress.waitingWriters), 0);
}

TEST(RWLock, WaitingWriterHoldsBackNewReadersAndTimeoutsGiveUp) {
  KZRWLock lock;
  RWLockInit(&lock);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 0), 1);
  std::atomic<bool> written{false}, read{false}, writtenBeforeRead{false};
  std::thread writer([&] {
    RWLockAcquireWrite(&lock);
    written = true;
    RWLockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Read(&lock, &lock.waitingWriters) == 1; }));
  // A reader holds the lock, but a writer waits: a new reader gives up...
  if (RWLockAcquireReadTimeout(&lock, 50) != 0) {
    ADD_FAILURE() << "a reader got in beside a waiting writer";
    RWLockRelease(&lock);
  }
  // ...or waits until the writer is done.
  std::thread reader([&] {
    RWLockAcquireRead(&lock);
    writtenBeforeRead = written.load();
    read = true;
    RWLockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || read; }));
  EXPECT_FALSE(read);
  EXPECT_FALSE(written);
  EXPECT_EQ(Read(&lock, &lock.state), 1);
  RWLockRelease(&lock);
  writer.join();
  reader.join();
  EXPECT_TRUE(writtenBeforeRead);

  // Time limits: a free lock is taken at once, a held one given up.
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 0), 1);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
  RWLockRelease(&lock);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, KZ_WAIT_INFINITE), 1);
  uint64_t before = NowMillis();
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 30), 0);
  EXPECT_GE(NowMillis() - before, 29u);
  EXPECT_EQ(Read(&lock, &lock.waitingWriters), 0);
  EXPECT_EQ(Read(&lock, &lock.state), 1);
  RWLockRelease(&lock);
  EXPECT_EQ(Read(&lock, &lock.state), 0);
  RWLockDestroy(&lock);
}

TEST(RWLock, ReadersHeldBackByAWriterThatGaveUpGoOnAtTheNextWriterRelease) {
  // The reader has to arrive while the writer still waits; when it came too
  // late, the writer is given a longer limit.
  bool heldBack = false;
  for (uint32_t limit = 250; !heldBack && limit <= 4000; limit *= 4) {
    KZRWLock lock = KZ_RWLOCK_INITIALIZER;
    RWLockAcquireRead(&lock);
    std::atomic<bool> gaveUp{false}, read{false};
    std::thread writer([&] { gaveUp = RWLockAcquireWriteTimeout(&lock, limit) == 0; });
    ASSERT_TRUE(Eventually([&] { return Read(&lock, &lock.waitingWriters) == 1 || gaveUp; }));
    std::thread reader([&] {
      RWLockAcquireRead(&lock);
      read = true;
      RWLockRelease(&lock);
    });
    ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || read; }));
    writer.join();
    EXPECT_TRUE(gaveUp);
    heldBack = Waiters(&lock.readersCondition) == 1;
    RWLockRelease(&lock);
    if (heldBack) {
      // Neither the give-up nor the last reader's release woke it...
      EXPECT_EQ(Read(&lock, &lock.state), 0);
      EXPECT_EQ(Waiters(&lock.readersCondition), 1u);
      EXPECT_FALSE(read);
      // ...a writer's release does.
      RWLockAcquireWrite(&lock);
      RWLockRelease(&lock);
    }
    reader.join();
    EXPECT_TRUE(read);
    RWLockDestroy(&lock);
  }
  EXPECT_TRUE(heldBack) << "the reader never waited behind the writer";
}

// ---- upgradable reader-writer lock ----------------------------------------------------

TEST(RWULock, UpgradeWaitsForReadersToDrainAndDowngradeLetsReadersIn) {
  using Pair = std::pair<int32_t, int32_t>;
  KZRWULock lock;
  RWULockInit(&lock);
  EXPECT_EQ(lock.owner, ~uint64_t(0));
  RWULockAcquireRead(&lock);  // two plain read holds, both this thread's
  RWULockAcquireRead(&lock);
  std::atomic<int> step{0};  // the upgrader's progress
  std::atomic<uint64_t> upgraderId{0};
  std::latch goDowngrade(1), goRelease(1);
  std::thread upgrader([&] {
    upgraderId = KernelThreadId();
    RWULockAcquireUpgradable(&lock);
    step = 1;
    RWULockUpgrade(&lock);
    step = 2;
    goDowngrade.wait();
    RWULockDowngrade(&lock);
    step = 3;
    goRelease.wait();
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Read(&lock, &lock.upgradable) == -1 || step >= 2; }));
  ASSERT_EQ(step, 1);
  EXPECT_EQ(Read(&lock, &lock.owner), upgraderId.load());
  // A new reader is held back while the upgrade is pending.
  Background lateReader([&] { RWULockAcquireRead(&lock); RWULockRelease(&lock); });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || lateReader.Done(); }));
  RWULockRelease(&lock);
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(2, -1));  // still waiting for the other reader
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
  EXPECT_EQ(lock.waitingWriters, 0);
  RWULockDestroy(&lock);
}

TEST(RWULock, OneUpgradableHolderAtATimeBesidePlainReaders) {
  KZRWULock lock = KZ_RWULOCK_INITIALIZER;
  RWULockAcquireUpgradable(&lock);
  EXPECT_EQ(lock.owner, KernelThreadId());
  std::atomic<bool> held{false};
  std::atomic<uint64_t> secondId{0};
  std::latch goRelease(1);
  std::thread other([&] {
    secondId = KernelThreadId();
    RWULockAcquireUpgradable(&lock);
    held = true;
    goRelease.wait();
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.upgradableCondition) == 1 || held; }));
  EXPECT_FALSE(held);
  std::thread([&] { RWULockAcquireRead(&lock); RWULockRelease(&lock); }).join();  // a plain reader enters
  RWULockRelease(&lock);
  ASSERT_TRUE(Eventually([&] { return held.load(); }));
  EXPECT_EQ(Read(&lock, &lock.owner), secondId.load());
  EXPECT_EQ(Read(&lock, &lock.state), 1);
  goRelease.count_down();
  other.join();

  // A writer keeps both kinds out and lets both in on release.
  RWULockAcquireWrite(&lock);
  Background reader([&] { RWULockAcquireRead(&lock); RWULockRelease(&lock); });
  Background upgradable([&] { RWULockAcquireUpgradable(&lock); RWULockRelease(&lock); });
  ASSERT_TRUE(Eventually(
      [&] { return Waiters(&lock.readersCondition) == 1 && Waiters(&lock.upgradableCondition) == 1; }));
  EXPECT_FALSE(reader.Done() || upgradable.Done());
  RWULockRelease(&lock);
  reader.Join();
  upgradable.Join();
  EXPECT_EQ(lock.state, 0);
  EXPECT_EQ(lock.upgradable, 0);
  RWULockDestroy(&lock);
}

KZRWULock g_rwuStress = KZ_RWULOCK_INITIALIZER;

TEST(RWULock, StaticLockStressKeepsWritersAlone) {
  constexpr int kRounds = 600;
  std::atomic<int> readers{0}, writers{0}, upgradables{0}, violations{0};
  long value = 0, mirror = 0;
  std::latch start(6);
  std::vector<std::thread> threads;
  for (int r = 0; r < 3; r++) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int i = 0; i < kRounds; i++) {
        RWULockAcquireRead(&g_rwuStress);
        readers++;
        if (i % 8 == 0) std::this_thread::yield();
        if (writers.load() != 0 || value != mirror) violations++;
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
        if (i % 2 == 0) RWULockDowngrade(&g_rwuStress);  // else released as the writer
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

// ---- fatal messages and assertions --------------------------------------------------

TEST(LockDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
      {[] {
         KZRecursiveMutex mutex = KZ_RECURSIVE_MUTEX_INITIALIZER;
         RecursiveMutexLock(&mutex);
         std::thread([&] { RecursiveMutexUnlock(&mutex); }).join();
       },
       1, "\"kzthread:895\": mutex operation failed: Operation not permitted"},
      {[] {
         KZRecursiveMutex mutex = KZ_RECURSIVE_MUTEX_INITIALIZER;
         RecursiveMutexLock(&mutex);
         RecursiveMutexDestroy(&mutex);
       },
       1, "\"kzthread:895\": mutex operation failed: Device or resource busy"},
      {[] {
         KZCondition condition = DestroyedCondition();
         KZMutex mutex = KZ_MUTEX_INITIALIZER;
         MutexLock(&mutex);
         ConditionTimedWait(&condition, &mutex, 0);
       },
       0, "\"kzthread:992\": WaitForSingleObject failed: Bad file descriptor"},
      {[] {
         KZCondition condition = DestroyedCondition();
         condition.waiters = 2;  // as if two threads were still counted
         ConditionBroadcast(&condition);
       },
       0, "\"kzthread:1066\": ReleaseSemaphore failed: Bad file descriptor"},
      {[] { KZRWLock lock = KZ_RWLOCK_INITIALIZER; RWLockRelease(&lock); },
       0, "'lock->state > 0' failed at kzlib/kzthread:1370"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
