// Threads: joins and detaches, creation, once-only calls, thread variables,
// names, reference times, priorities.
#include "kz/thread.h"

#include <errno.h>
#include <linux/capability.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kz/error.h"
#include "test_support.h"

namespace {

// Waits for what must come true; the deadline only keeps a broken build from hanging.
template <typename Condition>
bool EventuallyTrue(Condition condition) {
  for (int i = 0; i < 60000 && !condition(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return condition();
}
int64_t ReturnValueAt(void *argument) { return *static_cast<int64_t *>(argument); }
int64_t WaitOnLatch(void *argument) { return static_cast<std::latch *>(argument)->wait(), 5; }
// A thread not joined must have ended (its entry free) before its test returns.
void WaitForEnd(KZThread thread) { ASSERT_TRUE(EventuallyTrue([&] { return !ThreadIsAlive(thread); })); }
uint64_t KernelThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }
uint64_t MonotonicMillis() {
  using namespace std::chrono;
  return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}
int NiceOf(uint64_t threadId) { return errno = 0, getpriority(PRIO_PROCESS, static_cast<id_t>(threadId)); }

TEST(ThreadJoin, ReturnsExactlyEachFunctionsResultInAnyJoinOrder) {
  const int64_t values[] = {0, -1, INT64_MIN, INT64_MAX, static_cast<int64_t>(0xFFFFFFFF00000000ull),
                            0x00000000FFFFFFFF, 0x123456789ABCDEF0, 42};
  std::vector<KZThread> threads;
  for (const int64_t &value : values) threads.push_back(ThreadCreate(ReturnValueAt, const_cast<int64_t *>(&value), 0));
  for (int i = 7; i >= 0; i -= 2) EXPECT_EQ(ThreadJoin(threads[i]), values[i]) << i;  // odd ones backwards
  for (int i = 0; i < 8; i += 2) EXPECT_EQ(ThreadJoin(threads[i]), values[i]) << i;
}

// Joined through the system, a library thread shows its entry index as its exit value.
uintptr_t JoinThroughTheSystem(KZThread thread) {
  void *exitValue = nullptr;
  return pthread_join(static_cast<pthread_t>(thread), &exitValue) ? ~uintptr_t(0) : uintptr_t(exitValue);
}

TEST(ThreadResultsDeathTest, DetachedThreadsEntryIsFreedAndReusedByTheNextCreation) {
  // In a new process (such joins leave entries in use): the detached thread
  // takes entry 0, the blocked one entry 1; once the detached one has ended,
  // the next creation takes entry 0 again.
  auto reused = [] {
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
    fprintf(stderr, "alive %d, ended %d, next %zu, blocked %zu\n", aliveAtFirst, ended, nextIndex, blockedIndex);
    return aliveAtFirst && ended && nextIndex == 0 && blockedIndex == 1;
  };
  EXPECT_EXIT(_exit(reused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetime, AliveUntilItsFunctionReturnsDetachedOnceAndItsEntryReusedAsJoinable) {
  std::latch go(1);
  KZThread joinable = ThreadCreate(WaitOnLatch, &go, 0), running = ThreadCreate(WaitOnLatch, &go, 0);
  KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);
  for (KZThread thread : {ThreadGetCurrent(), joinable, running, detached}) EXPECT_EQ(ThreadIsAlive(thread), 1);
  EXPECT_EQ(ThreadDetach(running), 1);
  errno = 0;
  EXPECT_EQ(ThreadDetach(detached), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EINVAL);
  go.count_down();
  for (KZThread thread : {joinable, running, detached}) WaitForEnd(thread);
  EXPECT_EQ(ThreadDetach(joinable), 1);  // ended, not joined
  // Creation takes the first free entry, one the detached threads freed: the
  // new thread must not inherit the detached flag.
  int64_t value = 0x5151515151515151;
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), value);
}

int64_t OwnStackSize(void *) {
  pthread_attr_t attributes;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return -1;
  pthread_attr_getstacksize(&attributes, &size);
  return pthread_attr_destroy(&attributes), static_cast<int64_t>(size);
}

TEST(ThreadCreate, HugeStackIsReportedButCreated) {
  kztest::CapturedStream errors(1);
  int64_t size = ThreadJoin(ThreadCreate(OwnStackSize, nullptr, 1000000));  // 1 GB reserved, not used
  EXPECT_GE(size, 1000000LL * 1024);
  EXPECT_NE(errors.Text().find("\"kzthread:642\": creating thread with a stack size of 1000000 KB: "),
            std::string::npos) << errors.Text();
  KZErrorClear();
}

std::string g_hookSeen;  // what the hook was called with

TEST(ThreadCreate, HookReplacesCreation) {
  int64_t value = 11;
  g_hookSeen.clear();
  SetThreadCreateHooks([](KZThreadFunction f, void *a, uint32_t kib, const char *file, uint32_t line) -> KZThread {
    g_hookSeen += std::to_string(f == &ReturnValueAt) + " " + std::to_string(*static_cast<int64_t *>(a)) + " " +
                  std::to_string(kib) + " " + file + ":" + std::to_string(line) + ";";
    return 0x5EED;
  });
  uint32_t line = __LINE__ + 1;
  EXPECT_EQ(ThreadCreate(ReturnValueAt, &value, 77), 0x5EEDu);
  SetThreadCreateHooks(nullptr);
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 11);  // created again without it
  EXPECT_EQ(g_hookSeen, "1 11 77 " __FILE__ ":" + std::to_string(line) + ";");
}

std::atomic<int> g_onceCalls{0};

TEST(ThreadOnce, RacingThreadsRunTheFunctionOnceAndAllSucceed) {
  constexpr int kThreads = 12;
  for (int round = 0; round < 10; round++) {
    g_onceCalls = 0;
    int32_t state = 0;
    std::latch start(kThreads);
    std::vector<int> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++)
      threads.emplace_back([&, i] { start.arrive_and_wait(), results[i] = ThreadOnce(&state, [] { g_onceCalls++; }); });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(g_onceCalls.load(), 1);
    EXPECT_EQ(results, std::vector<int>(kThreads, 1));
    EXPECT_EQ(state, 2);
  }
}

std::mutex g_orderLock;
std::vector<std::string> g_order;
KZThreadVar g_early, g_late, g_kept;  // created in this order
int g_earlyValue, g_lateValue, g_keptValue;
void Note(bool expected, const char *what) {
  std::lock_guard<std::mutex> hold(g_orderLock);
  g_order.push_back(expected ? what : "unexpected value");
}

TEST(ThreadVar, DestructorsRunInCreationOrderInPassesAndAKeptValueFourTimes) {
  static bool created = [] {
    g_early = ThreadVarCreate([](void *v) { Note(v == &g_earlyValue, "early"), ThreadVarSet(g_early, nullptr); });
    g_late = ThreadVarCreate([](void *v) {
      Note(v == &g_lateValue, "late"), ThreadVarSet(g_late, nullptr);
      ThreadVarSet(g_early, &g_earlyValue);  // this pass has already gone by g_early
    });
    g_kept = ThreadVarCreate([](void *v) { Note(v == &g_keptValue, "kept"); });  // never clears
    return true;
  }();
  ASSERT_TRUE(created);
  g_order.clear();
  auto body = [](void *) -> int64_t { return ThreadVarSet(g_late, &g_lateValue), ThreadVarSet(g_kept, &g_keptValue), 0; };
  ThreadJoin(ThreadCreate(body, nullptr, 0));
  std::lock_guard<std::mutex> hold(g_orderLock);
  EXPECT_EQ(g_order, (std::vector<std::string>{"late", "kept", "early", "kept", "kept", "kept"}));
}

std::atomic<int> g_clearedCalls{0};
KZThreadVar ClearingSlot() {
  static KZThreadVar slot = ThreadVarCreate([](void *) { g_clearedCalls++, ThreadVarSet(ClearingSlot(), nullptr); });
  return slot;
}

TEST(PlainThread, ContextComesOnFirstUseAndCleanupRunsTheDestructorsWhenCalledAndOnlyThen) {
  EXPECT_EQ(ThreadGetCurrent(), static_cast<KZThread>(pthread_self()));
  EXPECT_EQ(ThreadId(), KernelThreadId());
  KZThreadVar slot = ClearingSlot();
  g_clearedCalls = 0;
  int mine = 1, value = 0;
  EXPECT_EQ(ThreadVarSet(slot, &mine), 1);
  std::thread([&] {
    EXPECT_EQ(ThreadVarGet(slot), nullptr);  // values are per thread
    EXPECT_EQ(ThreadHasContext(), 0);
    uint64_t before = MonotonicMillis();
    ThreadInit();
    uint64_t after = MonotonicMillis(), reference = ThreadGetRefTime();
    EXPECT_TRUE(ThreadHasContext() == 1 && before <= reference && reference <= after) << reference;
    EXPECT_EQ(ThreadGetName(), std::to_string(KernelThreadId()));
    ThreadSetRefTime(12345);
    EXPECT_EQ(ThreadGetRefTime(), 12345u);
    ThreadVarSet(slot, &value);
    KZSetLastError(77), errno = 123;
    ThreadCleanup();
    int errnoAfter = errno;
    EXPECT_EQ(KZGetLastError(), 77);
    EXPECT_EQ(errnoAfter, 123);
    EXPECT_EQ(g_clearedCalls.load(), 1);
    EXPECT_TRUE(ThreadHasContext() == 0 && ThreadVarGet(slot) == nullptr);
  }).join();
  // Without the call no destructor runs; the message context is still
  // released at the end of the thread (the leak checker sees it otherwise).
  std::thread([&] { ThreadVarSet(slot, &value), KZErrorThrow(KZ_ERR_GENERAL, "left behind"); }).join();
  EXPECT_EQ(g_clearedCalls.load(), 1);
  EXPECT_EQ(ThreadVarGet(slot), &mine);
  ThreadVarSet(slot, nullptr);
}

TEST(ThreadName, LibraryThreadIsNamedAfterItsCreationAndRenamed) {
  std::vector<std::string> seen;  // the name, then the system's copy, after each step
  uint32_t line = __LINE__ + 1;
  ThreadJoin(ThreadCreate(
      [](void *a) -> int64_t {
        auto *seen = static_cast<std::vector<std::string> *>(a);
        static const std::string tooLong(300, 'x');
        for (const char *name : {"", "pool/worker-number-12345", tooLong.c_str(), "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"
                                 "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"}) {
          char system[64] = "";
          if (*name) ThreadSetName(name);
          pthread_getname_np(pthread_self(), system, sizeof system);
          seen->insert(seen->end(), {ThreadGetName(), system});
        }
        return 0;
      },
      &seen, 0));
  std::string utf8;
  for (int i = 0; i < 8; i++) utf8 += "\xC3\xA9";
  EXPECT_EQ(seen, (std::vector<std::string>{
                      std::string(__FILE__) + ":" + std::to_string(line), "thread_test.cpp",  // last component
                      "pool/worker-number-12345", "worker-number-1",                          // cut to 15 bytes
                      std::string(255, 'x'), std::string(15, 'x'), utf8, utf8.substr(0, 14)}));  // whole characters
}

TEST(ThreadPriority, TableValuesMapToNiceValuesAndOthersToNormal) {
  struct Worker { std::latch go{1}; std::atomic<uint64_t> id{0}; } worker;
  auto body = [](void *a) -> int64_t {
    auto *worker = static_cast<Worker *>(a);
    return worker->id = ThreadId(), worker->go.wait(), 0;
  };
  KZThread thread = ThreadCreate(body, &worker, 0);
  ASSERT_TRUE(EventuallyTrue([&] { return worker.id.load() != 0; }));
  uint64_t id = worker.id.load();
  if (NiceOf(id) != 0) {
    worker.go.count_down(), ThreadJoin(thread);
    GTEST_SKIP() << "not running at nice value 0";
  }
  // Every value outside the table means normal; lowering needs no privilege.
  for (auto [priority, nice] : {std::pair{7, 0}, {1, 0}, {-1, 0}, {21, 0}, {5, 5}, {10, 10}, {20, 19}}) {
    EXPECT_EQ(ThreadSetPriority(thread, priority), 1) << priority;
    EXPECT_EQ(NiceOf(id), nice) << priority;
  }
  if (ThreadSetPriority(thread, 7) == 1) EXPECT_EQ(NiceOf(id), 0);  // back to normal needs the right
  else EXPECT_EQ(KZGetLastError(), EPERM);
  worker.go.count_down();
  WaitForEnd(thread);
  errno = 0;
  EXPECT_EQ(ThreadSetPriority(thread, 5), 0);  // ended: no thread to change
  EXPECT_TRUE(errno == -1 && KZGetLastError() == ESRCH);
  ThreadJoin(thread);
}

TEST(ThreadPriority, RefusedRaiseIsEpermWithoutPrivilege) {
  // A child gives up every capability and the right to lower its nice value,
  // then asks for time-critical priority.
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
    bool refused = ThreadSetPriority(ThreadGetCurrent(), -20) == 0 && errno == -1 && KZGetLastError() == EPERM;
    _exit(refused && NiceOf(KernelThreadId()) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ThreadStress, ManyThreadsCreatedAndJoinedConcurrently) {
  constexpr int kCreators = 8, kRounds = 40;
  static std::atomic<int> ran{0}, failures{0};
  ran = failures = 0;
  std::vector<KZThread> creators, detached[kCreators];
  for (int64_t c = 0; c < kCreators; c++) {  // the creators are library threads themselves
    creators.push_back(ThreadCreate(
        [](void *a) -> int64_t {
          auto *mine = static_cast<std::vector<KZThread> *>(a);
          for (int64_t round = 0; round < kRounds; round++) {
            int64_t value = (round << 40) + round * 7 - 1;
            KZThread joinable = ThreadCreate(ReturnValueAt, &value, 0);
            mine->push_back(ThreadCreateDetached([](void *) -> int64_t { ran++; return 0; }, nullptr, 0));
            if (ThreadJoin(joinable) != value) failures++;
          }
          return -7;
        },
        &detached[c], 0));
  }
  for (KZThread creator : creators) EXPECT_EQ(ThreadJoin(creator), -7);
  for (auto &mine : detached)
    for (KZThread thread : mine) WaitForEnd(thread);
  EXPECT_TRUE(failures == 0 && ran == kCreators * kRounds) << failures << " " << ran;
}

bool CapAddressSpace() {  // a little above what the process uses now
  unsigned long long pages = 0;
  std::unique_ptr<FILE, int (*)(FILE *)> statm(fopen("/proc/self/statm", "r"), fclose);
  if (!statm || fscanf(statm.get(), "%llu", &pages) != 1) return false;
  rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256u << 20);
  rlimit limit = {cap, cap};
  return setrlimit(RLIMIT_AS, &limit) == 0;
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
      {[] { for (int i = 0; i < 100000; i++) ThreadVarCreate(nullptr); }, 1, "\"kzthread:1108\": TlsAlloc failed"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
