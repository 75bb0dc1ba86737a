// Threads: joins and detaches, creation, once-only calls, thread variables,
// names, reference times, priorities.
#include "kz/thread.h"

#include <linux/capability.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <latch>

#include "kz/error.h"
#include "child_process.h"
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
  timespec now;
  return clock_gettime(CLOCK_MONOTONIC, &now), now.tv_sec * 1000ull + now.tv_nsec / 1000000;
}
int NiceOf(uint64_t threadId) { return errno = 0, getpriority(PRIO_PROCESS, static_cast<id_t>(threadId)); }

TEST(ThreadJoin, ReturnsExactlyEachFunctionsResultInAnyJoinOrder) {
  const int64_t values[] = {0, -1, INT64_MIN, INT64_MAX, 0x00000000FFFFFFFF, 0x123456789ABCDEF0};
  std::vector<KZThread> threads;
  for (const int64_t &value : values) threads.push_back(ThreadCreate(ReturnValueAt, const_cast<int64_t *>(&value), 0));
  for (int i : {5, 3, 1, 0, 2, 4}) EXPECT_EQ(ThreadJoin(threads[i]), values[i]) << i;
}

TEST(ThreadResultsDeathTest, DetachedThreadsEntryIsFreedAndReusedByTheNextCreation) {
  // Joined through the system, a library thread shows its entry index as its
  // exit value; such joins leave entries in use, hence a new process.
  auto reused = [] {
    auto entryOf = [](KZThread t) { void *v = nullptr; return pthread_join(pthread_t(t), &v) ? -1 : intptr_t(v); };
    std::latch detachedGo(1), blockedGo(1);
    KZThread detached = ThreadCreateDetached(WaitOnLatch, &detachedGo, 0);  // entry 0
    KZThread blocked = ThreadCreate(WaitOnLatch, &blockedGo, 0);            // entry 1
    detachedGo.count_down();
    bool ended = EventuallyTrue([&] { return !ThreadIsAlive(detached); });
    KZThread next = ThreadCreate(WaitOnLatch, &detachedGo, 0);  // entry 0 again
    blockedGo.count_down();
    return ended && entryOf(next) == 0 && entryOf(blocked) == 1;
  };
  EXPECT_EXIT(_exit(reused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(ThreadLifetime, AliveUntilItsFunctionReturnsDetachedOnceAndItsEntryReusedAsJoinable) {
  std::latch go(1);
  KZThread joinable = ThreadCreate(WaitOnLatch, &go, 0), running = ThreadCreate(WaitOnLatch, &go, 0);
  KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);
  for (KZThread thread : {ThreadGetCurrent(), joinable, running, detached}) EXPECT_EQ(ThreadIsAlive(thread), 1);
  errno = 0;  // a second detach is refused
  EXPECT_TRUE(ThreadDetach(running) == 1 && ThreadDetach(detached) == 0 && errno == -1 && KZGetLastError() == EINVAL);
  go.count_down();
  for (KZThread thread : {joinable, running, detached}) WaitForEnd(thread);
  EXPECT_EQ(ThreadDetach(joinable), 1);  // ended, not joined
  // The next creation takes an entry the detached threads freed: it must not inherit the detached flag.
  EXPECT_EQ(ThreadJoin(ThreadCreate(WaitOnLatch, &go, 0)), 5);
}

int64_t OwnStackSize(void *) {
  pthread_attr_t attributes;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0)
    pthread_attr_getstacksize(&attributes, &size), pthread_attr_destroy(&attributes);
  return static_cast<int64_t>(size);
}

TEST(ThreadCreate, HugeStackIsReportedButCreated) {
  kztest::CapturedStream errors(1);
  EXPECT_GE(ThreadJoin(ThreadCreate(OwnStackSize, nullptr, 1000000)), 1000000LL * 1024);  // reserved, not used
  EXPECT_NE(errors.Text().find("kzthread:642\": creating thread with a stack size of 1000000 KB: "), std::string::npos);
  KZErrorClear();
}

std::string g_hookSeen;  // what the hook was called with

TEST(ThreadCreate, HookReplacesCreation) {
  int64_t value = 11;
  SetThreadCreateHooks([](KZThreadFunction f, void *a, uint32_t kib, const char *file, uint32_t line) -> KZThread {
    g_hookSeen = std::to_string(f == &ReturnValueAt) + " " + std::to_string(*static_cast<int64_t *>(a)) + " " +
                 std::to_string(kib) + " " + file + ":" + std::to_string(line);
    return 0x5EED;
  });
  const std::string where = __FILE__ ":" + std::to_string(__LINE__ + 1);
  EXPECT_EQ(ThreadCreate(ReturnValueAt, &value, 77), 0x5EEDu);
  SetThreadCreateHooks(nullptr);
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 11);  // created again without it
  EXPECT_EQ(g_hookSeen, "1 11 77 " + where);
}

TEST(ThreadOnce, RacingThreadsRunTheFunctionOnceAndAllSucceed) {
  static std::atomic<int> calls;
  for (int round = 0; round < 10; round++) {
    int32_t state = calls = 0;
    std::atomic<int> succeeded{0};
    std::latch start(12);
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; i++)
      threads.emplace_back([&] { start.arrive_and_wait(), succeeded += ThreadOnce(&state, [] { calls++; }) == 1; });
    for (auto &thread : threads) thread.join();
    EXPECT_TRUE(calls == 1 && succeeded == 12 && state == 2) << calls << " " << succeeded << " " << state;
  }
}

// Written only by the ending thread's destructors; read after the join.
std::vector<std::string> g_order;
KZThreadVar g_early, g_late, g_kept;  // created in this order
int g_value[3];
void Note(void *value, int which, const char *what) { g_order.push_back(value == &g_value[which] ? what : "?"); }

TEST(ThreadVar, DestructorsRunInCreationOrderInPassesAndAKeptValueFourTimes) {
  g_early = ThreadVarCreate([](void *v) { Note(v, 0, "early"), ThreadVarSet(g_early, nullptr); });
  g_late = ThreadVarCreate([](void *v) {  // sets g_early after this pass has gone by it
    Note(v, 1, "late"), ThreadVarSet(g_late, nullptr), ThreadVarSet(g_early, &g_value[0]);
  });
  g_kept = ThreadVarCreate([](void *v) { Note(v, 2, "kept"); });  // never clears
  g_order.clear();
  auto body = [](void *) -> int64_t { return ThreadVarSet(g_late, &g_value[1]), ThreadVarSet(g_kept, &g_value[2]), 0; };
  ThreadJoin(ThreadCreate(body, nullptr, 0));
  EXPECT_EQ(g_order, (std::vector<std::string>{"late", "kept", "early", "kept", "kept", "kept"}));
}

std::atomic<int> g_clearedCalls{0};
KZThreadVar ClearingSlot() {
  static KZThreadVar slot = ThreadVarCreate([](void *) { g_clearedCalls++, ThreadVarSet(ClearingSlot(), nullptr); });
  return slot;
}

TEST(PlainThread, ContextComesOnFirstUseAndCleanupRunsTheDestructorsWhenCalledAndOnlyThen) {
  EXPECT_TRUE(ThreadGetCurrent() == static_cast<KZThread>(pthread_self()) && ThreadId() == KernelThreadId());
  KZThreadVar slot = ClearingSlot();
  g_clearedCalls = 0;
  int mine = 1, value = 0;
  EXPECT_EQ(ThreadVarSet(slot, &mine), 1);
  std::thread([&] {
    EXPECT_TRUE(ThreadVarGet(slot) == nullptr && ThreadHasContext() == 0);  // values are per thread
    const uint64_t before = MonotonicMillis();
    ThreadInit();
    const uint64_t after = MonotonicMillis(), reference = ThreadGetRefTime();
    EXPECT_TRUE(ThreadHasContext() == 1 && before <= reference && reference <= after) << reference;
    EXPECT_EQ(ThreadGetName(), std::to_string(KernelThreadId()));
    ThreadSetRefTime(12345), ThreadVarSet(slot, &value), KZSetLastError(77), errno = 123;
    EXPECT_EQ(ThreadGetRefTime(), 12345u);
    ThreadCleanup();
    EXPECT_TRUE(errno == 123 && KZGetLastError() == 77 && g_clearedCalls == 1 && ThreadHasContext() == 0 &&
                ThreadVarGet(slot) == nullptr);
  }).join();
  // Without the call no destructor runs; the message context is still
  // released at the end of the thread (the leak checker sees it otherwise).
  std::thread([&] { ThreadVarSet(slot, &value), KZErrorThrow(KZ_ERR_GENERAL, "left behind"); }).join();
  EXPECT_TRUE(g_clearedCalls == 1 && ThreadVarGet(slot) == &mine);
  ThreadVarSet(slot, nullptr);
}

TEST(ThreadName, LibraryThreadIsNamedAfterItsCreationAndRenamed) {
  static const std::string tooLong(300, 'x'), utf8 = "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9";
  std::string seen;  // the name, then the system's copy, after each step
  const std::string created = __FILE__ ":" + std::to_string(__LINE__ + 1);
  ThreadJoin(ThreadCreate(
      [](void *seen) -> int64_t {
        for (const char *name : {"", "pool/worker-number-12345", tooLong.c_str(), utf8.c_str()}) {
          char system[64] = "";
          if (*name) ThreadSetName(name);
          pthread_getname_np(pthread_self(), system, sizeof system);
          *static_cast<std::string *>(seen) += ThreadGetName() + std::string("|") + system + "|";
        }
        return 0;
      },
      &seen, 0));
  // The system's copy: the last component, cut to 15 bytes of whole characters.
  EXPECT_EQ(seen, created + "|thread_test.cpp|pool/worker-number-12345|worker-number-1|" + std::string(255, 'x') + "|" +
                      std::string(15, 'x') + "|" + utf8 + "|" + utf8.substr(0, 14) + "|");
}

TEST(ThreadPriority, TableValuesMapToNiceValuesAndOthersToNormal) {
  if (NiceOf(KernelThreadId()) != 0) GTEST_SKIP() << "not running at nice value 0";  // which new threads inherit
  struct Worker { std::latch go{1}; std::atomic<uint64_t> id{0}; } worker;
  auto run = [](void *a) { auto *w = static_cast<Worker *>(a); return w->id = ThreadId(), w->go.wait(), int64_t{0}; };
  KZThread thread = ThreadCreate(run, &worker, 0);
  ASSERT_TRUE(EventuallyTrue([&] { return worker.id.load() != 0; }));
  const uint64_t id = worker.id.load();
  // Every value outside the table means normal; lowering needs no privilege.
  for (auto [priority, nice] : {std::pair{7, 0}, {1, 0}, {-1, 0}, {21, 0}, {5, 5}, {10, 10}, {20, 19}})
    EXPECT_TRUE(ThreadSetPriority(thread, priority) == 1 && NiceOf(id) == nice) << priority;
  if (ThreadSetPriority(thread, 7) == 1) EXPECT_EQ(NiceOf(id), 0);  // back to normal needs the right
  else EXPECT_EQ(KZGetLastError(), EPERM);
  worker.go.count_down();
  WaitForEnd(thread);
  errno = 0;  // ended: no thread to change
  EXPECT_TRUE(ThreadSetPriority(thread, 5) == 0 && errno == -1 && KZGetLastError() == ESRCH);
  ThreadJoin(thread);
}

TEST(ThreadPriority, RefusedRaiseIsEpermWithoutPrivilege) {
  // A child gives up every capability and the right to lower its nice value,
  // then asks for time-critical priority.
  kztest::Child child = kztest::RunChild({}, [] {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    const rlimit noRaise = {0, 0};
    if (syscall(SYS_capset, &header, none) != 0 || setrlimit(RLIMIT_NICE, &noRaise) != 0) return 3;
    errno = 0;
    bool refused = ThreadSetPriority(ThreadGetCurrent(), -20) == 0 && errno == -1 && KZGetLastError() == EPERM;
    return refused && NiceOf(KernelThreadId()) == 0 ? 0 : 1;
  });
  if (child.Exited(3)) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_TRUE(child.Exited(0)) << child.Describe();
}

TEST(ThreadStress, ManyThreadsCreatedAndJoinedConcurrently) {
  static std::atomic<int> ran, failures;
  ran = failures = 0;
  std::vector<KZThread> creators, detached[8];
  for (auto &mine : detached)  // the creators are library threads themselves
    creators.push_back(ThreadCreate(
        [](void *mine) -> int64_t {
          for (int64_t round = 0, value; round < 40; round++) {
            KZThread joinable = ThreadCreate(ReturnValueAt, &(value = (round << 40) + round * 7 - 1), 0);
            static_cast<std::vector<KZThread> *>(mine)->push_back(
                ThreadCreateDetached([](void *) -> int64_t { ran++; return 0; }, nullptr, 0));
            failures += ThreadJoin(joinable) != value;
          }
          return -7;
        },
        &mine, 0));
  for (KZThread creator : creators) EXPECT_EQ(ThreadJoin(creator), -7);
  for (auto &mine : detached) for (KZThread thread : mine) WaitForEnd(thread);
  EXPECT_TRUE(failures == 0 && ran == 8 * 40) << failures << " " << ran;
}

bool CapAddressSpace() {  // a little above what the process uses now
  unsigned long long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256u << 20);
  const rlimit limit = {cap, cap};
  return pages && setrlimit(RLIMIT_AS, &limit) == 0;
}

TEST(ThreadDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
      {[] { ThreadJoin(ThreadGetCurrent()); }, 1, "kzlib: \"kzthread:708\": thread operation failed"},
      {[] {  // an exit value that is no entry of the table
         pthread_t plain;
         pthread_create(&plain, nullptr, [](void *) { return reinterpret_cast<void *>(0x7FFFFFFF); }, nullptr);
         ThreadJoin(static_cast<KZThread>(plain));
       }, 0, "'result < ArrayLength\\(threadResults\\)' failed at kzlib/kzthread:717"},
      {[] { if (CapAddressSpace()) ThreadCreate(ReturnValueAt, nullptr, 0xFFFFFFFFu); },  // 4 TiB: not under the cap
       1, "\"kzthread:651\": thread creation failed, errno=11"},
      {[] { for (int i = 0; i < 100000; i++) ThreadVarCreate(nullptr); }, 1, "\"kzthread:1108\": TlsAlloc failed"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
