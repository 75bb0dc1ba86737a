// Threads: the results table, joins and detaches, thread variables and their
// destructor passes, once-only calls, names, reference times, priorities.
#include "kz/thread.h"

#include <errno.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kz/error.h"
#include "test_support.h"

namespace {

// Waits for a condition that must come true (a thread ending); the deadline
// only keeps a broken build from hanging the test run.
template <typename Condition>
bool EventuallyTrue(Condition condition) {
  for (int i = 0; i < 60000 && !condition(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return condition();
}

int64_t ReturnValueAt(void *argument) { return *static_cast<int64_t *>(argument); }

int64_t WaitOnLatch(void *argument) {
  static_cast<std::latch *>(argument)->wait();
  return 5;
}

// A library thread that is not joined must have ended (its entry free) before
// a test returns, so that no test sees another's thread end under it.
void WaitForEnd(KZThread thread) { ASSERT_TRUE(EventuallyTrue([&] { return !ThreadIsAlive(thread); })); }

uint64_t MonotonicMillis() {
  using namespace std::chrono;
  return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
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

// ---- joins, detaches and the results table -------------------------------------

TEST(ThreadJoin, ReturnsExactlyEachFunctionsResultInAnyJoinOrder) {
  struct Argument {
    std::latch *go;
    int64_t value;
  };
  std::latch go(1);
  std::vector<Argument> arguments;
  for (int64_t value : {int64_t(0), int64_t(1), int64_t(-1), INT64_MIN, INT64_MAX,
                        static_cast<int64_t>(0x123456789ABCDEF0ull), static_cast<int64_t>(0xFFFFFFFF00000000ull),
                        static_cast<int64_t>(0x00000000FFFFFFFFull)})
    arguments.push_back({&go, value});
  for (int i = 0; i < 32; i++) arguments.push_back({&go, int64_t(i) * 1000003 - 7});
  std::vector<KZThread> threads;
  for (Argument &argument : arguments) {
    threads.push_back(ThreadCreate(
        [](void *a) -> int64_t {
          static_cast<Argument *>(a)->go->wait();
          return static_cast<Argument *>(a)->value;
        },
        &argument, 0));
    ASSERT_NE(threads.back(), 0u);
    EXPECT_EQ(ThreadIsAlive(threads.back()), 1);
  }
  go.count_down();
  auto join = [&](int i) {
    EXPECT_EQ(ThreadJoin(threads[i]), arguments[i].value);
    EXPECT_EQ(ThreadIsAlive(threads[i]), 0);
  };
  for (int i = int(threads.size()) - 1; i >= 0; i -= 2) join(i);  // backwards over the odd ones
  for (int i = 0; i < int(threads.size()); i += 2) join(i);
}

TEST(ThreadJoin, ExitValueOfAllOnesIsTheResult) {
  // A cancelled thread's exit value: returned as it is, the table untouched.
  pthread_t plain;
  ASSERT_EQ(pthread_create(&plain, nullptr, [](void *) -> void * { return PTHREAD_CANCELED; }, nullptr), 0);
  EXPECT_EQ(ThreadJoin(static_cast<KZThread>(plain)), -1);
}

// Joined through the system instead of ThreadJoin, a library thread shows its
// entry index as its exit value.
uintptr_t JoinThroughTheSystem(KZThread thread) {
  void *exitValue = nullptr;
  if (pthread_join(static_cast<pthread_t>(thread), &exitValue) != 0) return ~static_cast<uintptr_t>(0);
  return reinterpret_cast<uintptr_t>(exitValue);
}

// Run in a new process (such joins leave entries in use): the detached thread
// takes entry 0, the blocked one entry 1; once the detached thread has ended,
// the next creation takes entry 0 again.
bool DetachedThreadsEntryIsReused() {
  std::latch detachedGo(1), blockedGo(1);
  KZThread detached = ThreadCreateDetached(WaitOnLatch, &detachedGo, 0);
  KZThread blocked = ThreadCreate(WaitOnLatch, &blockedGo, 0);
  bool aliveAtFirst = ThreadIsAlive(detached) == 1;
  detachedGo.count_down();
  bool ended = EventuallyTrue([&] { return !ThreadIsAlive(detached); });
  int64_t value = 3;
  KZThread next = ThreadCreate(ReturnValueAt, &value, 0);
  blockedGo.count_down();
  uintptr_t nextIndex = JoinThroughTheSystem(next), blockedIndex = JoinThroughTheSystem(blocked);
  fprintf(stderr, "alive at first %d, ended %d, next %zu, blocked %zu\n", aliveAtFirst, ended,
          static_cast<size_t>(nextIndex), static_cast<size_t>(blockedIndex));
  return aliveAtFirst && ended && nextIndex == 0 && blockedIndex == 1;
}

TEST(ThreadResultsDeathTest, DetachedThreadsEntryIsFreedAndReusedByTheNextCreation) {
  EXPECT_EXIT(_exit(DetachedThreadsEntryIsReused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetime, AliveUntilItsFunctionReturnsDetachedOnceAndItsEntryReusedAsJoinable) {
  std::latch go(1);
  KZThread joinable = ThreadCreate(WaitOnLatch, &go, 0);
  KZThread running = ThreadCreate(WaitOnLatch, &go, 0);
  KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);
  EXPECT_EQ(ThreadIsAlive(ThreadGetCurrent()), 1);
  for (KZThread thread : {joinable, running, detached}) EXPECT_EQ(ThreadIsAlive(thread), 1);
  EXPECT_EQ(ThreadDetach(running), 1);
  errno = 0;
  EXPECT_EQ(ThreadDetach(detached), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EINVAL);
  go.count_down();
  for (KZThread thread : {joinable, running, detached}) WaitForEnd(thread);
  EXPECT_EQ(ThreadDetach(joinable), 1);  // ended, not joined
  // Creation takes the first free entry, one these detached threads freed: the
  // new thread must not inherit the detached flag.
  int64_t value = 0x5151515151515151;
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), value);
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

TEST(ThreadCreate, StackSizeIsInKiBAndAHugeOneIsReportedButCreated) {
  for (uint32_t kib : {512u, 1000000u}) {  // about 1 GB of address space: reserved, not used
    kztest::CapturedStream errors(1);
    int64_t size = ThreadJoin(ThreadCreate(OwnStackSize, nullptr, kib));
    EXPECT_GE(size, int64_t(kib) * 1024);
    std::string text = errors.Text();
    if (kib < 1000000) {
      EXPECT_LT(size, 1000000LL * 1024);
      EXPECT_EQ(text, "");
    } else {
      EXPECT_NE(text.find("\"kzthread:642\": creating thread with a stack size of 1000000 KB: "),
                std::string::npos)
          << text;
    }
  }
  KZErrorClear();
}

struct HookCall {
  KZThreadFunction function;
  void *argument;
  uint32_t stackKiB;
  std::string file;
  uint32_t line;
  int calls;
} g_hookCall;

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
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 11);  // created again without it
  EXPECT_EQ(g_hookCall.calls, 1);
}

// ---- once-only calls -----------------------------------------------------------

std::atomic<int> g_onceCalls{0};
void CountOnceCall() { g_onceCalls.fetch_add(1); }

TEST(ThreadOnce, RacingThreadsRunTheFunctionOnceAndAllSucceed) {
  constexpr int kThreads = 12;
  for (int round = 0; round < 20; round++) {
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
  int32_t state = 7;  // neither 0, 1 nor 2
  errno = 0;
  EXPECT_EQ(ThreadOnce(&state, CountOnceCall), 0);
  EXPECT_EQ(errno, 22);
  EXPECT_EQ(g_onceCalls.load(), 1);
  EXPECT_EQ(state, 7);
}

// ---- thread variables and their destructors -------------------------------------

std::mutex g_orderLock;
std::vector<std::string> g_order;
KZThreadVar g_early, g_late, g_kept;  // created in this order
int g_earlyValue, g_lateValue, g_keptValue;
void Note(bool expected, const char *what) {
  std::lock_guard<std::mutex> hold(g_orderLock);
  g_order.push_back(expected ? what : "unexpected value");
}
void EarlyDestructor(void *value) {
  Note(value == &g_earlyValue, "early");
  ThreadVarSet(g_early, nullptr);
}
void LateDestructor(void *value) {
  Note(value == &g_lateValue, "late");
  ThreadVarSet(g_late, nullptr);
  ThreadVarSet(g_early, &g_earlyValue);  // this pass has already gone by g_early
}
void KeepingDestructor(void *value) { Note(value == &g_keptValue, "kept"); }

TEST(ThreadVar, DestructorsRunInCreationOrderInPassesAndAKeptValueFourTimes) {
  static bool created = [] {
    g_early = ThreadVarCreate(EarlyDestructor);
    g_late = ThreadVarCreate(LateDestructor);
    g_kept = ThreadVarCreate(KeepingDestructor);
    return true;
  }();
  ASSERT_TRUE(created);
  g_order.clear();
  ThreadJoin(ThreadCreate(
      [](void *) -> int64_t {
        ThreadVarSet(g_late, &g_lateValue);
        ThreadVarSet(g_kept, &g_keptValue);  // never cleared
        return 0;
      },
      nullptr, 0));
  std::lock_guard<std::mutex> hold(g_orderLock);
  EXPECT_EQ(g_order, (std::vector<std::string>{"late", "kept", "early", "kept", "kept", "kept"}));
}

std::atomic<int> g_clearedCalls{0};
KZThreadVar ClearingSlot();
void CountAndClear(void *) {
  g_clearedCalls.fetch_add(1);
  ThreadVarSet(ClearingSlot(), nullptr);
}
KZThreadVar ClearingSlot() {
  static KZThreadVar slot = ThreadVarCreate(CountAndClear);
  return slot;
}

// ---- threads not started by the library ---------------------------------------------

TEST(PlainThread, ContextComesOnFirstUseAndCleanupRunsTheDestructorsWhenCalledAndOnlyThen) {
  EXPECT_EQ(ThreadGetCurrent(), static_cast<KZThread>(pthread_self()));
  EXPECT_EQ(ThreadId(), KernelThreadId());
  KZThreadVar slot = ClearingSlot();
  g_clearedCalls = 0;
  int mine = 1, value = 0;
  EXPECT_EQ(ThreadVarSet(slot, &mine), 1);
  std::string name;
  uint64_t kernelId = 0, before = 0, reference = 0, after = 0, set = 0;
  void *seenElsewhere = &mine, *valueAfter = &value;
  int hadContext = -1, hasContext = -1, hasContextAfter = -1, errnoAfter = 0, lastErrorAfter = 0;
  std::thread([&] {
    kernelId = KernelThreadId();
    seenElsewhere = ThreadVarGet(slot);  // values are per thread
    hadContext = ThreadHasContext();
    before = MonotonicMillis();
    ThreadInit();
    after = MonotonicMillis();
    hasContext = ThreadHasContext();
    reference = ThreadGetRefTime();
    name = ThreadGetName();
    ThreadSetRefTime(12345);
    set = ThreadGetRefTime();
    ThreadVarSet(slot, &value);
    KZSetLastError(77);
    errno = 123;
    ThreadCleanup();
    errnoAfter = errno;
    lastErrorAfter = KZGetLastError();
    hasContextAfter = ThreadHasContext();
    valueAfter = ThreadVarGet(slot);
  }).join();
  EXPECT_EQ(name, std::to_string(kernelId));
  EXPECT_EQ(seenElsewhere, nullptr);
  EXPECT_EQ(hadContext, 0);
  EXPECT_EQ(hasContext, 1);
  EXPECT_LE(before, reference);
  EXPECT_LE(reference, after);
  EXPECT_EQ(set, 12345u);
  EXPECT_EQ(g_clearedCalls.load(), 1);
  EXPECT_EQ(hasContextAfter, 0);
  EXPECT_EQ(valueAfter, nullptr);
  EXPECT_EQ(errnoAfter, 123);
  EXPECT_EQ(lastErrorAfter, 77);

  // Without the call no destructor runs; the message context is still
  // released at the end of the thread (the leak checker sees it otherwise).
  std::thread([&] {
    ThreadVarSet(slot, &value);
    KZErrorThrow(KZ_ERR_GENERAL, "left behind");
  }).join();
  EXPECT_EQ(g_clearedCalls.load(), 1);
  EXPECT_EQ(ThreadVarGet(slot), &mine);
  ThreadVarSet(slot, nullptr);
}

// ---- names ---------------------------------------------------------------------------

TEST(ThreadName, LibraryThreadIsNamedAfterItsCreationAndRenamed) {
  std::vector<std::string> seen;  // the name, then the system's copy, after each step
  uint32_t line = __LINE__ + 1;
  ThreadJoin(ThreadCreate(
      [](void *a) -> int64_t {
        auto *seen = static_cast<std::vector<std::string> *>(a);
        static const std::string tooLong(300, 'x');
        for (const char *name : {"", "pool/worker-number-12345", tooLong.c_str(), "short",
                                 "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"}) {
          if (*name) ThreadSetName(name);
          seen->push_back(ThreadGetName());
          seen->push_back(SystemThreadName());
        }
        return 0;
      },
      &seen, 0));
  std::string utf8;
  for (int i = 0; i < 8; i++) utf8 += "\xC3\xA9";
  EXPECT_EQ(seen, (std::vector<std::string>{
                      std::string(__FILE__) + ":" + std::to_string(line), "thread_test.cpp",  // last component
                      "pool/worker-number-12345", "worker-number-1",                          // cut to 15 bytes
                      std::string(255, 'x'), std::string(15, 'x'),
                      "short", "short",
                      utf8, utf8.substr(0, 14)}));  // not inside a character
}

// ---- priorities -------------------------------------------------------------------

// Whether this process may lower a nice value (raise a priority) to -20.
bool MayRaiseToTop() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("CapEff:", 0) == 0 && (std::stoull(line.substr(7), nullptr, 16) & (1ull << CAP_SYS_NICE)))
      return true;
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
  bool mayRaise = MayRaiseToTop();
  if (NiceOf(id) != 0 && !mayRaise) {
    worker.go.count_down();
    ThreadJoin(thread);
    GTEST_SKIP() << "running at a nice value other than 0 without the right to go back";
  }
  // Every value outside the table means normal; lowering needs no privilege.
  std::vector<std::pair<int, int>> cases = {{7, 0},  {1, 0},  {-1, 0},  {15, 0}, {21, 0},
                                            {1000, 0}, {5, 5}, {10, 10}, {20, 19}};
  if (mayRaise) cases.insert(cases.end(), {{7, 0}, {-5, -5}, {-10, -10}, {-20, -20}, {7, 0}});
  for (auto [priority, nice] : cases) {
    EXPECT_EQ(ThreadSetPriority(thread, priority), 1) << priority;
    EXPECT_EQ(NiceOf(id), nice) << priority;
  }
  worker.go.count_down();
  WaitForEnd(thread);
  errno = 0;
  EXPECT_EQ(ThreadSetPriority(thread, 5), 0);  // ended: no thread to change
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ESRCH);
  ThreadJoin(thread);
}

TEST(ThreadPriority, RefusedRaiseIsEpermWithoutPrivilege) {
  // A child process gives up every capability and the right to lower its
  // nice value, then asks for time-critical priority.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    rlimit limit;
    if (syscall(SYS_capset, &header, none) != 0 || getrlimit(RLIMIT_NICE, &limit) != 0) _exit(3);
    limit.rlim_cur = 0;
    if (setrlimit(RLIMIT_NICE, &limit) != 0) _exit(3);
    errno = 0;
    int result = ThreadSetPriority(ThreadGetCurrent(), -20);
    bool refused = result == 0 && errno == -1 && KZGetLastError() == EPERM;
    _exit(refused && NiceOf(KernelThreadId()) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---- stress -------------------------------------------------------------------------

TEST(ThreadStress, ManyThreadsCreatedAndJoinedConcurrently) {
  constexpr int kCreators = 8, kRounds = 40;
  struct Creator {
    int index;
    std::vector<KZThread> detached;
    int failures;
  };
  static std::atomic<int> ran{0};
  ran = 0;
  std::vector<Creator> creators(kCreators);
  std::vector<KZThread> creatorThreads;
  for (int c = 0; c < kCreators; c++) {
    creators[c] = Creator{c, {}, 0};
    // The creators are library threads themselves.
    creatorThreads.push_back(ThreadCreate(
        [](void *a) -> int64_t {
          auto *creator = static_cast<Creator *>(a);
          for (int round = 0; round < kRounds; round++) {
            int64_t value = (static_cast<int64_t>(creator->index) << 40) + round;
            KZThread joinable = ThreadCreate(ReturnValueAt, &value, 0);
            creator->detached.push_back(ThreadCreateDetached([](void *) -> int64_t { ran++; return 0; }, nullptr, 0));
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

// ---- fatal messages and assertions --------------------------------------------------

// Caps the address space a little above what the process uses now.
bool CapAddressSpace() {
  unsigned long long pages = 0;
  FILE *statm = fopen("/proc/self/statm", "r");
  if (!statm) return false;
  bool read = fscanf(statm, "%llu", &pages) == 1;
  fclose(statm);
  rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256u << 20);
  rlimit limit = {cap, cap};
  return read && setrlimit(RLIMIT_AS, &limit) == 0;
}

TEST(ThreadDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
      {[] { ThreadJoin(ThreadGetCurrent()); }, 1, "kzlib: \"kzthread:708\": thread operation failed"},
      {[] {  // an exit value that is no entry of the table
         pthread_t plain;
         pthread_create(&plain, nullptr, [](void *) -> void * { return reinterpret_cast<void *>(0x7FFFFFFF); },
                        nullptr);
         ThreadJoin(static_cast<KZThread>(plain));
       },
       0, "'result < ArrayLength\\(threadResults\\)' failed at kzlib/kzthread:717"},
      {[] {  // under the cap, a stack of 4 TiB cannot be mapped
         if (!CapAddressSpace()) _exit(3);
         ThreadCreate(ReturnValueAt, nullptr, 0xFFFFFFFFu);
       },
       1, "\"kzthread:651\": thread creation failed, errno=11"},
      {[] {
         for (int i = 0; i < 100000; i++) ThreadVarCreate(nullptr);
       },
       1, "\"kzthread:1108\": TlsAlloc failed"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
