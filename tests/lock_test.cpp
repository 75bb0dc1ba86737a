// Mutexes, conditions and reader-writer locks. A test acts once a thread is
// observably blocked (counted as a waiter); the few short sleeps only give a
// thread the chance to run: what follows them holds either way for a correct lock.
#include <atomic>
#include <thread>
#include <vector>

#include "kz/lock.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using Pair = std::pair<int32_t, int32_t>;

bool Eventually(const std::function<bool()> &pred) {  // up to ten seconds
  for (int i = 0; i < 10000 && !pred(); i++) std::this_thread::sleep_for(1ms);
  return pred();
}

// read() under the record's own lock (a mutex variable, or a condition's or lock's field)
template <typename Read>
auto Locked(KZMutex *lock, Read read) {
  auto value = (MutexLock(lock), read());
  return MutexUnlock(lock), value;
}
uint32_t Waiters(KZCondition *c) {
  return Locked(&c->lock, [&] { return c->waiters; });
}
int32_t WaitingWriters(KZRWLock *l) {
  return Locked(&l->lock, [&] { return l->waitingWriters; });
}
Pair StateAndUpgradable(KZRWULock *l) {
  return Locked(&l->lock, [&] { return Pair(l->state, l->upgradable); });
}

// A thread running body(), expected to block until the test lets it go.
struct Background {
  std::atomic<bool> done{false};
  std::thread thread;
  explicit Background(const std::function<void()> &body)
      : thread([this, body] {
          body();
          done = true;
        }) {}
  // After a failure it may be stuck: end the program rather than hang.
  ~Background() {
    Eventually([&] { return done.load(); }) ? thread.join() : std::abort();
  }
  bool StillBlocked() { return std::this_thread::sleep_for(20ms), !done; }
};

KZMutex g_lazy = KZ_MUTEX_INITIALIZER;
KZRecursiveMutex g_recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;

TEST(Mutex, StaticMutexesFirstUsedByManyThreadsAtOnce) {
  long lazyCounter = 0, recursiveCounter = 0;
  kztest::Latch start(8);
  std::vector<KZMutex> seen(8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < 2000; i++)
        if ((i + t) % 2 == 0)  // half the threads start with either mutex
          MutexLock(&g_lazy), lazyCounter++, seen[t] = __atomic_load_n(&g_lazy, __ATOMIC_ACQUIRE), MutexUnlock(&g_lazy);
        else  // counted under two holds, then under the one left
          RecursiveMutexLock(&g_recursive), RecursiveMutexLock(&g_recursive), recursiveCounter++,
              RecursiveMutexUnlock(&g_recursive), recursiveCounter++, RecursiveMutexUnlock(&g_recursive);
    });
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(lazyCounter, 8000);
  EXPECT_EQ(recursiveCounter, 16000);
  EXPECT_NE(g_lazy, KZ_MUTEX_INITIALIZER);
  for (KZMutex lock : seen) EXPECT_EQ(lock, g_lazy);  // one lock installed
  MutexDestroy(&g_lazy), RecursiveMutexDestroy(&g_recursive);
  EXPECT_EQ(g_lazy, KZ_MUTEX_INITIALIZER);
  EXPECT_EQ(g_recursive, KZ_RECURSIVE_MUTEX_INITIALIZER);
  MutexUnlock(&g_lazy);  // an unset variable is left alone
}

// A timed wait gives up and holds the mutex again exactly once; a mutex taken twice is held until released twice.
TEST(Condition, LostSignalTimedWaitReentrantMutexAndBroadcastWaitingForAllToLeave) {
  KZMutex mutex = KZ_MUTEX_INITIALIZER;
  KZCondition cv = KZ_CONDITION_INITIALIZER;
  ConditionSignal(&cv), ConditionBroadcast(&cv);  // no waiter: both return at once
  MutexLock(&mutex);                              // the signal was not kept:
  EXPECT_EQ(ConditionTimedWait(&cv, &mutex, 0), 0);
  EXPECT_EQ(ConditionTimedWait(&cv, &mutex, 30), 0);
  EXPECT_EQ(Waiters(&cv), 0u);
  MutexLock(&mutex);
  Background other([&] {
    MutexLock(&mutex);
    MutexUnlock(&mutex);
  });
  EXPECT_TRUE(other.StillBlocked());
  MutexUnlock(&mutex);
  EXPECT_TRUE(other.StillBlocked());
  MutexUnlock(&mutex);
  ASSERT_TRUE(Eventually([&] { return other.done.load(); }));
  // A signal wakes one of four waiters; the broadcast to the other three
  // returns only once they all left their wait.
  for (int round = 0; round < 5; round++) {
    int returned = 0;  // under mutex
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 4; i++)
      waiters.emplace_back([&] { MutexLock(&mutex), returned += ConditionWait(&cv, &mutex), MutexUnlock(&mutex); });
    ASSERT_TRUE(Eventually([&] { return Waiters(&cv) == 4; }));
    ConditionSignal(&cv);
    Eventually([&] { return Locked(&mutex, [&] { return returned; }) == 1; });
    ASSERT_EQ(Locked(&mutex, [&] { return returned; }), 1);
    ASSERT_EQ(Waiters(&cv), 3u);
    MutexLock(&mutex), ConditionBroadcast(&cv);
    // Read without the condition's lock: the last waiter to leave reported
    // it before the broadcast returned. The mutex is still ours.
    EXPECT_EQ(cv.waiters, 0u);
    EXPECT_EQ(cv.broadcast, 0u);
    EXPECT_EQ(returned, 1);
    MutexUnlock(&mutex), waiters.clear();  // joins them
    EXPECT_EQ(returned, 4);
  }
  ConditionDestroy(&cv), MutexDestroy(&mutex);
}

KZRWLock g_rwStress = KZ_RWLOCK_INITIALIZER;

TEST(RWLock, StaticLockNeverHasAWriterBesideAReader) {
  std::atomic<int> readers{0}, writers{0}, violations{0};
  long first = 0, second = 0;  // changed by writers only, equal outside a write
  kztest::Latch start(6);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; t++)
    threads.emplace_back([&, t] {
      const bool write = t >= 4;  // four readers, two writers
      start.arrive_and_wait();
      for (int i = 0, rounds = write ? 500 : 1500; i < rounds; i++) {
        // Some acquires have a 1 ms limit. A writer that gives up leaves the readers it held
        // back waiting for the next writer's release, so a writer's last round always waits.
        const bool timed = (i + t) % (write ? 4 : 3) == 0 && i + 1 < rounds;
        if (timed && !(write ? RWLockAcquireWriteTimeout : RWLockAcquireReadTimeout)(&g_rwStress, 1)) continue;
        if (!timed) write ? RWLockAcquireWrite(&g_rwStress) : RWLockAcquireRead(&g_rwStress);
        if (write)  // alone, changes the pair
          violations += writers.fetch_add(1) || readers, first++, std::this_thread::yield(), second++, writers--;
        else  // never beside a writer or a half-changed pair; some yield to let others overlap
          violations += (readers++, i % 8 ? void() : std::this_thread::yield(), writers || first != second), readers--;
        RWLockRelease(&g_rwStress);
      }
    });
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(first, second);
  EXPECT_GT(first, 0);
  EXPECT_EQ(Locked(&g_rwStress.lock, [] { return Pair(g_rwStress.state, g_rwStress.waitingWriters); }), Pair(0, 0));
}

TEST(RWLock, WaitingWriterHoldsBackNewReadersAndTimeoutsGiveUp) {
  KZRWLock lock = KZ_RWLOCK_INITIALIZER;
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 0), 1);
  std::atomic<bool> written{false}, read{false}, writtenBeforeRead{false};
  std::thread writer([&] {
    RWLockAcquireWrite(&lock);
    written = true;
    RWLockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return WaitingWriters(&lock) == 1; }));
  // A reader holds the lock, but a writer waits: a new reader gives up or
  // waits until the writer is done.
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 50), 0) << "a reader got in beside a waiting writer";
  std::thread reader(
      [&] { RWLockAcquireRead(&lock), writtenBeforeRead = written.load(), read = true, RWLockRelease(&lock); });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || read; }));
  EXPECT_FALSE(read);
  EXPECT_FALSE(written);
  EXPECT_TRUE((RWLockRelease(&lock), writer.join(), reader.join(), writtenBeforeRead.load()));
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 0), 1);
  EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);  // given up on
  RWLockRelease(&lock), RWLockAcquireRead(&lock);     // the writer that gave up is no longer counted
  EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
  EXPECT_EQ(WaitingWriters(&lock), 0);
  RWLockRelease(&lock), RWLockDestroy(&lock);
}

// A writer that gives up while readers wait for it, with no other writer about,
// lets them in: they get the lock well within their own limit. The case needs
// every reader counted as waiting before the writer's limit ends; should the
// readers arrive late, it is tried again with a longer limit.
TEST(RWLock, ReadersHeldBackByAWriterThatGivesUpGetTheLock) {
  constexpr uint32_t kReaders = 3;
  bool heldBack = false;
  for (uint32_t limit = 100; !heldBack && limit <= 6400; limit *= 2) {
    KZRWLock lock = KZ_RWLOCK_INITIALIZER;
    RWLockAcquireRead(&lock);  // keeps the writer waiting
    std::atomic<bool> writerDone{false};
    std::atomic<uint32_t> granted{0};
    std::thread writer([&] { EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, limit), 0), writerDone = true; });
    ASSERT_TRUE(Eventually([&] { return WaitingWriters(&lock) == 1 || writerDone; }));
    std::vector<std::thread> readers;
    for (uint32_t i = 0; i < kReaders; i++)
      readers.emplace_back([&] {
        if (RWLockAcquireReadTimeout(&lock, 10000) == 1) granted++, RWLockRelease(&lock);
      });
    // All counted at once: all held back by the writer (the only one).
    ASSERT_TRUE(
        Eventually([&] { return (heldBack = heldBack || Waiters(&lock.readersCondition) == kReaders) || writerDone; }));
    writer.join();
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(granted, kReaders) << "limit " << limit << (heldBack ? ", readers held back" : "");
    EXPECT_EQ(Locked(&lock.lock, [&] { return Pair(lock.state, lock.waitingWriters); }), Pair(1, 0));
    RWLockRelease(&lock), RWLockDestroy(&lock);
  }
  EXPECT_TRUE(heldBack) << "the readers never all waited before the writer gave up";
}

TEST(RWULock, UpgradeWaitsForReadersToDrainAndDowngradeLetsReadersIn) {
  KZRWULock lock = KZ_RWULOCK_INITIALIZER;
  RWULockAcquireRead(&lock), RWULockAcquireRead(&lock);  // two plain read holds
  std::atomic<int> step{0};                              // the upgrader's progress
  kztest::Latch goDowngrade(1), goRelease(1);
  std::thread upgrader([&] {
    RWULockAcquireUpgradable(&lock), step = 1, RWULockUpgrade(&lock), step = 2, goDowngrade.wait();
    RWULockDowngrade(&lock), step = 3, goRelease.wait(), RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return StateAndUpgradable(&lock).second == -1 || step >= 2; }));
  ASSERT_EQ(step.load(), 1);
  // A new reader is held back while the upgrade is pending.
  Background lateReader([&] {
    RWULockAcquireRead(&lock);
    RWULockRelease(&lock);
  });
  ASSERT_TRUE(Eventually([&] { return Waiters(&lock.readersCondition) == 1 || lateReader.done; }));
  // Still waiting for the other read hold.
  EXPECT_EQ((RWULockRelease(&lock), StateAndUpgradable(&lock)), Pair(2, -1));
  EXPECT_EQ(step.load(), 1);
  RWULockRelease(&lock);
  Eventually([&] { return step == 2; });  // the checks after each wait say what was seen
  EXPECT_EQ(step.load(), 2);
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(-1, 0));
  EXPECT_FALSE(lateReader.done);
  goDowngrade.count_down();  // lets the waiting reader in beside the holder
  Eventually([&] { return lateReader.done && step == 3; });
  EXPECT_TRUE(lateReader.done);
  EXPECT_EQ(step.load(), 3);
  EXPECT_EQ(StateAndUpgradable(&lock), Pair(1, 1));
  EXPECT_EQ((goRelease.count_down(), upgrader.join(), StateAndUpgradable(&lock)), Pair(0, 0));
  RWULockDestroy(&lock);
}

// ---- fatal messages and assertions --------------------------------------------------

KZRecursiveMutex g_held = KZ_RECURSIVE_MUTEX_INITIALIZER;  // each case runs in a new process
KZCondition DestroyedCondition() {
  KZCondition c;
  return ConditionInit(&c), ConditionDestroy(&c), c;
}

// The system errors behind the failures below, and their texts.
#if defined(_WIN32)
constexpr int kNotOwner = 288, kBusy = 170, kReleasedHandle = 6;  // ERROR_NOT_OWNER, ERROR_BUSY, ERROR_INVALID_HANDLE
#else
constexpr int kNotOwner = EPERM, kBusy = EBUSY, kReleasedHandle = EBADF;
#endif
const std::string kNotOwnerText = "\"kzthread:895\": mutex operation failed: " + kztest::SystemErrorText(kNotOwner),
                  kBusyText = "\"kzthread:895\": mutex operation failed: " + kztest::SystemErrorText(kBusy),
                  kWaitText =
                      "\"kzthread:992\": WaitForSingleObject failed: " + kztest::SystemErrorText(kReleasedHandle),
                  kPostText = "\"kzthread:1066\": ReleaseSemaphore failed: " + kztest::SystemErrorText(kReleasedHandle);

TEST(LockDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
      {[] { RecursiveMutexLock(&g_held), std::thread(RecursiveMutexUnlock, &g_held).join(); },  // by another thread
       1, kNotOwnerText.c_str()},
      {[] { RecursiveMutexLock(&g_held), RecursiveMutexDestroy(&g_held); }, 1, kBusyText.c_str()},
      {[] {
         KZCondition c = DestroyedCondition();
         MutexLock(&g_lazy), ConditionTimedWait(&c, &g_lazy, 0);
       },
       0, kWaitText.c_str()},
      {[] {
         KZCondition condition = DestroyedCondition();
         condition.waiters = 2;
         ConditionBroadcast(&condition);
       },
       0, kPostText.c_str()},
      {[] {
         KZRWLock lock = KZ_RWLOCK_INITIALIZER;
         RWLockRelease(&lock);
       },
       0, "'lock->state > 0' failed at kzlib/kzthread:1370"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
