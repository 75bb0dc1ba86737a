// Threads: the results table, joins and detaches, thread variables and their
// destructor passes, once-only calls, names, reference times, priorities.
#include "kz/thread.h"

#include <errno.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "test_support.h"

namespace {

// Waits for a condition that must come true (a thread ending); the deadline
// only keeps a broken build from hanging the test run.
template <typename Condition>
bool EventuallyTrue(Condition condition) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int64_t ReturnValueAt(void *argument) { return *static_cast<int64_t *>(argument); }

// Blocks on the latch it is given, then returns 5.
int64_t WaitOnLatch(void *argument) {
  static_cast<std::latch *>(argument)->wait();
  return 5;
}

// A library thread that is not joined must have ended (its entry free) before
// a test returns, so that no test sees another's thread end under it.
void WaitForEnd(KZThread thread) { ASSERT_TRUE(EventuallyTrue([&] { return !ThreadIsAlive(thread); })); }

uint64_t MonotonicMillis() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

uint64_t KernelThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

std::string SystemThreadName() {
  char name[64] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

int NiceOf(uint64_t threadId) {
  errno = 0;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(threadId));
}

// ---- joins ------------------------------------------------------------------

TEST(ThreadJoin, ReturnsExactlyTheFunctionsResult) {
  const int64_t values[] = {0,
                            1,
                            -1,
                            INT64_MIN,
                            INT64_MAX,
                            static_cast<int64_t>(0x123456789ABCDEF0ull),
                            static_cast<int64_t>(0xFFFFFFFF00000000ull),
                            static_cast<int64_t>(0x00000000FFFFFFFFull)};
  for (int64_t value : values) {
    int64_t copy = value;
    KZThread thread = ThreadCreate(ReturnValueAt, &copy, 0);
    ASSERT_NE(thread, 0u);
    EXPECT_EQ(ThreadJoin(thread), value);
    EXPECT_EQ(ThreadIsAlive(thread), 0);
  }
}

TEST(ThreadJoin, ManyLiveThreadsJoinedInAnyOrder) {
  constexpr int kCount = 40;
  std::latch go(1);
  std::vector<int64_t> values(kCount);
  std::vector<KZThread> threads(kCount);
  struct Argument {
    std::latch *go;
    int64_t value;
  };
  std::vector<Argument> arguments(kCount);
  for (int i = 0; i < kCount; i++) {
    arguments[i] = Argument{&go, static_cast<int64_t>(i) * 1000003 - 7};
    threads[i] = ThreadCreate(
        [](void *a) -> int64_t {
          auto *argument = static_cast<Argument *>(a);
          argument->go->wait();
          return argument->value;
        },
        &arguments[i], 0);
  }
  for (KZThread thread : threads) EXPECT_EQ(ThreadIsAlive(thread), 1);
  go.count_down();
  for (int i = kCount - 1; i >= 0; i -= 2) EXPECT_EQ(ThreadJoin(threads[i]), arguments[i].value);
  for (int i = 0; i < kCount; i += 2) EXPECT_EQ(ThreadJoin(threads[i]), arguments[i].value);
}

TEST(ThreadJoin, ExitValueOfAllOnesIsTheResult) {
  // A cancelled thread's exit value: returned as it is, the table untouched.
  pthread_t plain;
  ASSERT_EQ(pthread_create(
                &plain, nullptr, [](void *) -> void * { return PTHREAD_CANCELED; }, nullptr),
            0);
  EXPECT_EQ(ThreadJoin(static_cast<KZThread>(plain)), -1);
}

TEST(ThreadJoinDeathTest, FailedWaitIsFatal) {
  EXPECT_EXIT(ThreadJoin(ThreadGetCurrent()), testing::ExitedWithCode(1),
              "kzlib: \"kzthread:708\": thread operation failed");
}

TEST(ThreadJoinDeathTest, ExitValueThatIsNoEntryIsAnAssertion) {
  EXPECT_EXIT(
      {
        pthread_t plain;
        pthread_create(
            &plain, nullptr, [](void *) -> void * { return reinterpret_cast<void *>(0x7FFFFFFF); }, nullptr);
        ThreadJoin(static_cast<KZThread>(plain));
      },
      testing::KilledBySignal(SIGABRT),
      "'result < ArrayLength\\(threadResults\\)' failed at kzlib/kzthread:717");
}

// ---- the results table: detached threads and reuse --------------------------

// Joined through the system instead of ThreadJoin, a library thread shows its
// entry index as its exit value. Such an entry stays in use with the handle of
// a thread that is gone, so these checks run in a child process of their own.
uintptr_t JoinThroughTheSystem(KZThread thread) {
  void *exitValue = nullptr;
  if (pthread_join(static_cast<pthread_t>(thread), &exitValue) != 0) return ~static_cast<uintptr_t>(0);
  return reinterpret_cast<uintptr_t>(exitValue);
}

// Runs check in a child process, which exits with 0 when it returns true.
#define EXPECT_TRUE_IN_CHILD(...) EXPECT_EXIT(_exit((__VA_ARGS__)() ? 0 : 1), testing::ExitedWithCode(0), "")

TEST(ThreadResultsDeathTest, LibraryThreadEndsWithItsEntryIndex) {
  EXPECT_TRUE_IN_CHILD([] {
    std::latch go(1);
    KZThread first = ThreadCreate(WaitOnLatch, &go, 0);
    KZThread second = ThreadCreate(WaitOnLatch, &go, 0);
    go.count_down();
    uintptr_t firstIndex = JoinThroughTheSystem(first);
    uintptr_t secondIndex = JoinThroughTheSystem(second);
    fprintf(stderr, "indexes %zu and %zu\n", static_cast<size_t>(firstIndex), static_cast<size_t>(secondIndex));
    return firstIndex != secondIndex && firstIndex < 2 && secondIndex < 2;  // a new process: entries 0 and 1
  });
}

TEST(ThreadResultsDeathTest, DetachedThreadsEntryIsFreedAndReusedByTheNextCreation) {
  // Creation takes the first free entry. The detached thread takes the first
  // free entry d, the blocked one the next free entry b > d. Once the detached
  // thread has ended, the next creation must take d again: an index below b.
  // Without the reuse it would get an entry above b.
  EXPECT_TRUE_IN_CHILD([] {
    std::latch detachedGo(1), blockedGo(1);
    KZThread detached = ThreadCreateDetached(WaitOnLatch, &detachedGo, 0);
    KZThread blocked = ThreadCreate(WaitOnLatch, &blockedGo, 0);
    bool aliveAtFirst = ThreadIsAlive(detached) == 1;
    detachedGo.count_down();
    bool ended = EventuallyTrue([&] { return !ThreadIsAlive(detached); });
    int64_t value = 3;
    KZThread next = ThreadCreate(ReturnValueAt, &value, 0);
    blockedGo.count_down();
    uintptr_t nextIndex = JoinThroughTheSystem(next);
    uintptr_t blockedIndex = JoinThroughTheSystem(blocked);
    fprintf(stderr, "alive at first %d, ended %d, next %zu, blocked %zu\n", aliveAtFirst, ended,
            static_cast<size_t>(nextIndex), static_cast<size_t>(blockedIndex));
    return aliveAtFirst && ended && nextIndex < blockedIndex;
  });
}

TEST(ThreadResults, JoinableThreadTakingAFinishedDetachedEntryIsJoinable) {
  // The reused entry must not keep the detached flag: the join would fail its
  // "not detached" assertion.
  for (int round = 0; round < 3; round++) {
    std::latch go(1);
    KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);
    go.count_down();
    WaitForEnd(detached);
    int64_t value = 0x5151515151515151 + round;
    KZThread joinable = ThreadCreate(ReturnValueAt, &value, 0);
    EXPECT_EQ(ThreadJoin(joinable), value);
  }
}

TEST(ThreadResults, DetachedThreadEndingAtOnceIsHandledWhateverTheOrder) {
  // A detached thread may end before its creator has stored its handle.
  std::vector<KZThread> threads;
  for (int i = 0; i < 200; i++)
    threads.push_back(ThreadCreateDetached([](void *) -> int64_t { return 0; }, nullptr, 0));
  for (KZThread thread : threads) WaitForEnd(thread);
  int64_t value = 42;
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 42);
}

TEST(ThreadDetach, RunningThreadIsDetachedAndItsEntryFreedAtItsEnd) {
  std::latch go(1);
  KZThread thread = ThreadCreate(WaitOnLatch, &go, 0);
  EXPECT_EQ(ThreadDetach(thread), 1);
  EXPECT_EQ(ThreadIsAlive(thread), 1);
  go.count_down();
  WaitForEnd(thread);
}

TEST(ThreadDetach, FinishedThreadIsDetached) {
  int64_t value = 1;
  KZThread thread = ThreadCreate(ReturnValueAt, &value, 0);
  WaitForEnd(thread);
  EXPECT_EQ(ThreadDetach(thread), 1);
}

TEST(ThreadDetach, DetachingADetachedThreadFails) {
  std::latch go(1);
  KZThread thread = ThreadCreateDetached(WaitOnLatch, &go, 0);
  errno = 0;
  EXPECT_EQ(ThreadDetach(thread), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EINVAL);
  EXPECT_EQ(ThreadIsAlive(thread), 1);
  go.count_down();
  WaitForEnd(thread);
}

TEST(ThreadIsAlive, TrueWhileBlockedFalseOnceEnded) {
  std::latch go(1);
  KZThread thread = ThreadCreate(WaitOnLatch, &go, 0);
  EXPECT_EQ(ThreadIsAlive(thread), 1);
  EXPECT_EQ(ThreadIsAlive(ThreadGetCurrent()), 1);
  go.count_down();
  WaitForEnd(thread);
  EXPECT_EQ(ThreadIsAlive(thread), 0);  // ended, not yet joined
  EXPECT_EQ(ThreadJoin(thread), 5);
  EXPECT_EQ(ThreadIsAlive(thread), 0);
}

// ---- creation: stack sizes and hooks -----------------------------------------

int64_t OwnStackSize(void *) {
  pthread_attr_t attributes;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return -1;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return static_cast<int64_t>(size);
}

TEST(ThreadCreate, StackSizeIsGivenInKiB) {
  kztest::CapturedStream errors(1);
  KZThread thread = ThreadCreate(OwnStackSize, nullptr, 512);
  int64_t size = ThreadJoin(thread);
  EXPECT_GE(size, 512 * 1024);
  EXPECT_LT(size, 1000000LL * 1024);
  EXPECT_EQ(errors.Text(), "");
}

TEST(ThreadCreate, HugeStackWarnsButStillCreates) {
  // About 1 GB of address space: reserved, not used.
  kztest::CapturedStream errors(1);
  KZThread thread = ThreadCreate(OwnStackSize, nullptr, 1000000);
  int64_t size = ThreadJoin(thread);
  EXPECT_GE(size, 1000000LL * 1024);
  std::string text = errors.Text();
  EXPECT_NE(text.find("\"kzthread:642\": creating thread with a stack size of 1000000 KB: "), std::string::npos)
      << text;
  KZErrorClear();
}

// Caps the address space a little above what the process uses now.
bool CapAddressSpace() {
  unsigned long long pages = 0;
  FILE *statm = fopen("/proc/self/statm", "r");
  if (!statm) return false;
  bool read = fscanf(statm, "%llu", &pages) == 1;
  fclose(statm);
  if (!read) return false;
  rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256u << 20);
  rlimit limit;
  limit.rlim_cur = cap;
  limit.rlim_max = cap;
  return setrlimit(RLIMIT_AS, &limit) == 0;
}

TEST(ThreadCreateDeathTest, FailureToStartIsFatal) {
  // Under the cap, a stack of 4 TiB cannot be mapped.
  EXPECT_EXIT(
      {
        if (!CapAddressSpace()) _exit(3);
        ThreadCreate(ReturnValueAt, nullptr, 0xFFFFFFFFu);
        _exit(4);
      },
      testing::ExitedWithCode(1), "\"kzthread:651\": thread creation failed, errno=11");
}

struct HookCall {
  KZThreadFunction function;
  void *argument;
  uint32_t stackKiB;
  std::string file;
  uint32_t line;
  int calls;
};
HookCall g_hookCall;

KZThread RecordingHook(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                       uint32_t line) {
  g_hookCall = HookCall{function, argument, stackKiB, file, line, g_hookCall.calls + 1};
  return 0x5EED;
}

TEST(ThreadCreate, HookReplacesCreation) {
  g_hookCall = HookCall{};
  int64_t value = 11;
  SetThreadCreateHooks(RecordingHook);
  uint32_t line = __LINE__ + 1;
  KZThread hooked = ThreadCreate(ReturnValueAt, &value, 77);
  SetThreadCreateHooks(nullptr);
  EXPECT_EQ(hooked, 0x5EEDu);
  EXPECT_EQ(g_hookCall.calls, 1);
  EXPECT_EQ(g_hookCall.function, &ReturnValueAt);
  EXPECT_EQ(g_hookCall.argument, &value);
  EXPECT_EQ(g_hookCall.stackKiB, 77u);
  EXPECT_EQ(g_hookCall.file, __FILE__);
  EXPECT_EQ(g_hookCall.line, line);
  // Without the hook, threads are created again.
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 11);
  EXPECT_EQ(g_hookCall.calls, 1);
}

// ---- once-only calls -----------------------------------------------------------

std::atomic<int> g_onceCalls{0};
void CountOnceCall() { g_onceCalls.fetch_add(1); }

TEST(ThreadOnce, RacingThreadsRunTheFunctionOnceAndAllSucceed) {
  for (int round = 0; round < 20; round++) {
    constexpr int kThreads = 12;
    g_onceCalls = 0;
    int32_t state = 0;
    std::latch start(kThreads);
    std::vector<int> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++)
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        results[i] = ThreadOnce(&state, CountOnceCall);
      });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(g_onceCalls.load(), 1);
    for (int result : results) EXPECT_EQ(result, 1);
    EXPECT_EQ(state, 2);
    EXPECT_EQ(ThreadOnce(&state, CountOnceCall), 1);
    EXPECT_EQ(g_onceCalls.load(), 1);
  }
}

TEST(ThreadOnce, UnknownStateFailsWithEinval) {
  g_onceCalls = 0;
  int32_t state = 7;
  errno = 0;
  EXPECT_EQ(ThreadOnce(&state, CountOnceCall), 0);
  EXPECT_EQ(errno, 22);
  EXPECT_EQ(g_onceCalls.load(), 0);
  EXPECT_EQ(state, 7);
}

// ---- thread variables and their destructors -------------------------------------

std::atomic<int> g_keptCalls{0};
std::atomic<void *> g_keptValue{nullptr};
void CountAndKeep(void *value) {
  g_keptValue = value;
  g_keptCalls.fetch_add(1);
}

TEST(ThreadVar, DestructorLeavingItsValueSetIsCalledFourTimes) {
  static KZThreadVar slot = ThreadVarCreate(CountAndKeep);
  static int marker;
  g_keptCalls = 0;
  KZThread thread = ThreadCreate(
      [](void *) -> int64_t {
        ThreadVarSet(slot, &marker);
        return 0;
      },
      nullptr, 0);
  ThreadJoin(thread);
  EXPECT_EQ(g_keptCalls.load(), 4);
  EXPECT_EQ(g_keptValue.load(), &marker);
}

std::mutex g_orderLock;
std::vector<std::string> g_order;
KZThreadVar g_early, g_late;
int g_earlyValue, g_lateValue;
void Note(const char *what) {
  std::lock_guard<std::mutex> hold(g_orderLock);
  g_order.push_back(what);
}
void EarlyDestructor(void *value) {
  Note(value == &g_earlyValue ? "early" : "early?");
  ThreadVarSet(g_early, nullptr);
}
void LateDestructor(void *value) {
  Note(value == &g_lateValue ? "late" : "late?");
  ThreadVarSet(g_late, nullptr);
  // Sets a variable whose destructor this pass has already gone by.
  ThreadVarSet(g_early, &g_earlyValue);
}

TEST(ThreadVar, ClearingDestructorsRunOncePerValueInPasses) {
  static bool created = [] {
    g_early = ThreadVarCreate(EarlyDestructor);
    g_late = ThreadVarCreate(LateDestructor);
    return true;
  }();
  ASSERT_TRUE(created);
  g_order.clear();
  KZThread thread = ThreadCreate(
      [](void *) -> int64_t {
        ThreadVarSet(g_late, &g_lateValue);
        return 0;
      },
      nullptr, 0);
  ThreadJoin(thread);
  std::lock_guard<std::mutex> hold(g_orderLock);
  EXPECT_EQ(g_order, (std::vector<std::string>{"late", "early"}));
}

std::atomic<int> g_clearedCalls{0};
KZThreadVar g_clearing;
void CountAndClear(void *) {
  g_clearedCalls.fetch_add(1);
  ThreadVarSet(g_clearing, nullptr);
}

TEST(ThreadVar, ValuesArePerThread) {
  KZThreadVar slot = ThreadVarCreate(nullptr);
  int mine = 1;
  EXPECT_EQ(ThreadVarGet(slot), nullptr);
  EXPECT_EQ(ThreadVarSet(slot, &mine), 1);
  void *seenElsewhere = &mine;
  std::thread other([&] { seenElsewhere = ThreadVarGet(slot); });
  other.join();
  EXPECT_EQ(seenElsewhere, nullptr);
  EXPECT_EQ(ThreadVarGet(slot), &mine);
  ThreadVarSet(slot, nullptr);
}

TEST(ThreadVarDeathTest, RunningOutOfSlotsIsFatal) {
  EXPECT_EXIT(
      {
        for (int i = 0; i < 100000; i++) ThreadVarCreate(nullptr);
        _exit(4);
      },
      testing::ExitedWithCode(1), "\"kzthread:1108\": TlsAlloc failed");
}

TEST(ThreadCleanup, RunsDestructorsAndDropsTheContextOfAPlainThread) {
  static bool created = [] {
    g_clearing = ThreadVarCreate(CountAndClear);
    return true;
  }();
  ASSERT_TRUE(created);
  g_clearedCalls = 0;
  int value = 0;
  int hadContext = -1, hasContext = -1, errnoAfter = 0, lastErrorAfter = 0;
  void *valueAfter = &value;
  std::thread plain([&] {
    ThreadInit();
    ThreadVarSet(g_clearing, &value);
    hadContext = ThreadHasContext();
    KZSetLastError(77);
    errno = 123;
    ThreadCleanup();
    errnoAfter = errno;
    lastErrorAfter = KZGetLastError();
    hasContext = ThreadHasContext();
    valueAfter = ThreadVarGet(g_clearing);
  });
  plain.join();
  EXPECT_EQ(g_clearedCalls.load(), 1);
  EXPECT_EQ(hadContext, 1);
  EXPECT_EQ(hasContext, 0);
  EXPECT_EQ(valueAfter, nullptr);
  EXPECT_EQ(errnoAfter, 123);
  EXPECT_EQ(lastErrorAfter, 77);
}

TEST(ThreadCleanup, PlainThreadEndingWithoutItRunsNoDestructor) {
  // Thread variables carry no system destructor; the message context is still
  // released at the end of the thread (the leak checker sees it otherwise).
  static bool created = [] {
    g_clearing = g_clearing ? g_clearing : ThreadVarCreate(CountAndClear);
    return true;
  }();
  ASSERT_TRUE(created);
  g_clearedCalls = 0;
  int value = 0;
  std::string name;
  std::thread plain([&] {
    ThreadSetName("plain");
    KZErrorThrow(KZ_ERR_GENERAL, "left behind");
    name = ThreadGetName();
    ThreadVarSet(g_clearing, &value);
  });
  plain.join();
  EXPECT_EQ(name, "plain");
  EXPECT_EQ(g_clearedCalls.load(), 0);
}

TEST(ThreadCleanup, LibraryThreadRunsTheEndOfThreadStepsItself) {
  static bool created = [] {
    g_clearing = g_clearing ? g_clearing : ThreadVarCreate(CountAndClear);
    return true;
  }();
  ASSERT_TRUE(created);
  g_clearedCalls = 0;
  static int value;
  KZThread thread = ThreadCreate(
      [](void *) -> int64_t {
        ThreadVarSet(g_clearing, &value);
        KZErrorThrow(KZ_ERR_GENERAL, "left behind");
        return 0;
      },
      nullptr, 0);
  ThreadJoin(thread);
  EXPECT_EQ(g_clearedCalls.load(), 1);
}

// ---- names, reference times, identity --------------------------------------------

TEST(ThreadName, DefaultIsTheNumericThreadId) {
  std::string name, expected;
  uint64_t id = 0, kernelId = 1;
  std::thread plain([&] {
    id = ThreadId();
    kernelId = KernelThreadId();
    name = ThreadGetName();
  });
  plain.join();
  EXPECT_EQ(id, kernelId);
  EXPECT_EQ(name, std::to_string(kernelId));
}

struct SeenNames {
  std::string name, systemName;
};

TEST(ThreadName, LibraryThreadIsNamedAfterItsCreation) {
  SeenNames seen;
  uint32_t line = __LINE__ + 1;
  KZThread thread = ThreadCreate(
      [](void *a) -> int64_t {
        auto *seen = static_cast<SeenNames *>(a);
        seen->name = ThreadGetName();
        seen->systemName = SystemThreadName();
        return 0;
      },
      &seen, 0);
  ThreadJoin(thread);
  EXPECT_EQ(seen.name, std::string(__FILE__) + ":" + std::to_string(line));
  EXPECT_EQ(seen.systemName, "thread_test.cpp");  // last component, 15 bytes
}

TEST(ThreadName, SetAndGet) {
  std::string name, systemName, longName, cutSystemName, utf8SystemName;
  std::thread plain([&] {
    ThreadSetName("pool/worker-number-12345");
    name = ThreadGetName();
    systemName = SystemThreadName();
    ThreadSetName(std::string(300, 'x').c_str());
    longName = ThreadGetName();
    ThreadSetName("short");
    cutSystemName = SystemThreadName();
    ThreadSetName("\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9");  // 16 bytes
    utf8SystemName = SystemThreadName();
  });
  plain.join();
  EXPECT_EQ(name, "pool/worker-number-12345");
  EXPECT_EQ(systemName, "worker-number-1");
  EXPECT_EQ(longName, std::string(255, 'x'));
  EXPECT_EQ(cutSystemName, "short");
  EXPECT_EQ(utf8SystemName, "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9");  // 14 bytes
}

TEST(ThreadRefTime, StartsAtContextCreationAndCanBeSet) {
  uint64_t before = 0, reference = 0, after = 0, set = 0;
  int hadContext = -1, hasContext = -1;
  std::thread plain([&] {
    hadContext = ThreadHasContext();
    before = MonotonicMillis();
    ThreadInit();
    after = MonotonicMillis();
    hasContext = ThreadHasContext();
    reference = ThreadGetRefTime();
    ThreadSetRefTime(12345);
    set = ThreadGetRefTime();
  });
  plain.join();
  EXPECT_EQ(hadContext, 0);
  EXPECT_EQ(hasContext, 1);
  EXPECT_LE(before, reference);
  EXPECT_LE(reference, after);
  EXPECT_EQ(set, 12345u);
}

TEST(ThreadIdentity, CurrentIsTheSystemsHandle) {
  EXPECT_EQ(ThreadGetCurrent(), static_cast<KZThread>(pthread_self()));
  EXPECT_EQ(ThreadId(), KernelThreadId());
}

// ---- priorities -------------------------------------------------------------------

// Whether this process may lower a nice value (raise a priority) to -20.
bool MayRaiseToTop() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("CapEff:", 0) == 0) {
      unsigned long long effective = std::stoull(line.substr(7), nullptr, 16);
      if (effective & (1ull << CAP_SYS_NICE)) return true;
    }
  }
  rlimit limit;
  return getrlimit(RLIMIT_NICE, &limit) == 0 && (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= 40);
}

struct Worker {
  std::latch go{1};
  std::atomic<uint64_t> id{0};
};

TEST(ThreadPriority, TableValuesMapToNiceValuesAndOthersToNormal) {
  Worker worker;
  KZThread thread = ThreadCreate(
      [](void *a) -> int64_t {
        auto *worker = static_cast<Worker *>(a);
        worker->id = ThreadId();
        worker->go.wait();
        return 0;
      },
      &worker, 0);
  ASSERT_TRUE(EventuallyTrue([&] { return worker.id.load() != 0; }));
  uint64_t id = worker.id.load();
  int base = NiceOf(id);
  if (base != 0 && !MayRaiseToTop()) {
    worker.go.count_down();
    ThreadJoin(thread);
    GTEST_SKIP() << "running at nice " << base << " without the right to go back to normal";
  }
  // 7 and every other value outside the table mean normal (nice 0).
  for (int priority : {7, 1, -1, 15, 21, 1000}) {
    EXPECT_EQ(ThreadSetPriority(thread, priority), 1) << priority;
    EXPECT_EQ(NiceOf(id), 0) << priority;
  }
  // Lowering needs no privilege: below normal, lowest, idle.
  EXPECT_EQ(ThreadSetPriority(thread, 5), 1);
  EXPECT_EQ(NiceOf(id), 5);
  EXPECT_EQ(ThreadSetPriority(thread, 10), 1);
  EXPECT_EQ(NiceOf(id), 10);
  EXPECT_EQ(ThreadSetPriority(thread, 20), 1);
  EXPECT_EQ(NiceOf(id), 19);
  if (MayRaiseToTop()) {
    EXPECT_EQ(ThreadSetPriority(thread, 7), 1);
    EXPECT_EQ(NiceOf(id), 0);
    EXPECT_EQ(ThreadSetPriority(thread, -5), 1);
    EXPECT_EQ(NiceOf(id), -5);
    EXPECT_EQ(ThreadSetPriority(thread, -10), 1);
    EXPECT_EQ(NiceOf(id), -10);
  }
  worker.go.count_down();
  WaitForEnd(thread);
  errno = 0;
  EXPECT_EQ(ThreadSetPriority(thread, 5), 0);  // ended: no thread to change
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ESRCH);
  ThreadJoin(thread);
}

TEST(ThreadPriority, RaiseToTimeCriticalFollowsPrivilege) {
  bool mayRaise = MayRaiseToTop();
  int result = -1, error = 0, lastError = 0, nice = 99, restored = -1, niceAfter = 99;
  std::thread plain([&] {  // a thread of its own: its nice value dies with it
    errno = 0;
    result = ThreadSetPriority(ThreadGetCurrent(), -20);
    error = errno;
    lastError = KZGetLastError();
    nice = NiceOf(KernelThreadId());
    restored = ThreadSetPriority(ThreadGetCurrent(), 0);
    niceAfter = NiceOf(KernelThreadId());
  });
  plain.join();
  if (mayRaise) {
    EXPECT_EQ(result, 1);
    EXPECT_EQ(nice, -20);
  } else {
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(lastError, EPERM);
  }
  EXPECT_EQ(restored, 1);
  EXPECT_EQ(niceAfter, 0);
}

TEST(ThreadPriority, RefusedRaiseIsEpermWithoutPrivilege) {
  // A child process gives up every capability and the right to lower its
  // nice value, then asks for time-critical priority.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    if (syscall(SYS_capset, &header, none) != 0) _exit(3);
    rlimit limit;
    if (getrlimit(RLIMIT_NICE, &limit) != 0) _exit(3);
    limit.rlim_cur = 0;
    if (setrlimit(RLIMIT_NICE, &limit) != 0) _exit(3);
    errno = 0;
    int result = ThreadSetPriority(ThreadGetCurrent(), -20);
    bool refused = result == 0 && errno == -1 && KZGetLastError() == EPERM;
    bool unchanged = NiceOf(KernelThreadId()) == 0;
    _exit(refused && unchanged ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---- stress -------------------------------------------------------------------------

TEST(ThreadStress, ManyThreadsCreatedAndJoinedConcurrently) {
  constexpr int kCreators = 8;
  constexpr int kRounds = 40;
  struct Creator {
    int index;
    std::atomic<int> *ran;
    std::vector<KZThread> detached;
    int failures;
  };
  std::atomic<int> ran{0};
  std::vector<Creator> creators(kCreators);
  std::vector<KZThread> creatorThreads;
  for (int c = 0; c < kCreators; c++) {
    creators[c] = Creator{c, &ran, {}, 0};
    // The creators are library threads themselves.
    creatorThreads.push_back(ThreadCreate(
        [](void *a) -> int64_t {
          auto *creator = static_cast<Creator *>(a);
          for (int round = 0; round < kRounds; round++) {
            int64_t value = (static_cast<int64_t>(creator->index) << 40) + round;
            KZThread joinable = ThreadCreate(ReturnValueAt, &value, 0);
            creator->detached.push_back(ThreadCreateDetached(
                [](void *counter) -> int64_t {
                  static_cast<std::atomic<int> *>(counter)->fetch_add(1);
                  return 0;
                },
                creator->ran, 0));
            if (ThreadJoin(joinable) != value) creator->failures++;
          }
          return creator->index;
        },
        &creators[c], 0));
  }
  for (int c = 0; c < kCreators; c++) EXPECT_EQ(ThreadJoin(creatorThreads[c]), c);
  for (const Creator &creator : creators) {
    EXPECT_EQ(creator.failures, 0);
    for (KZThread thread : creator.detached) WaitForEnd(thread);
  }
  EXPECT_EQ(ran.load(), kCreators * kRounds);
}

}  // namespace
