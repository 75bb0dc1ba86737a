// Threads: joins and detaches, creation, once-only calls, thread variables,
// names, reference times, priorities.
#include "kz/thread.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <linux/capability.h>
#include <pthread.h>
#include <sys/syscall.h>
#endif

#include <atomic>

#include "child_process.h"
#include "kz/error.h"
#include "test_support.h"

namespace {
using namespace std::chrono;

// Waits for what must come true; the deadline only keeps a broken build from hanging.
bool EventuallyTrue(const std::function<bool()> &condition) {
  for (int i = 0; i < 60000 && !condition(); i++) std::this_thread::sleep_for(milliseconds(1));
  return condition();
}
int64_t ReturnValueAt(void *argument) { return *static_cast<int64_t *>(argument); }
int64_t WaitOnLatch(void *argument) { return static_cast<kztest::Latch *>(argument)->wait(), 5; }
// A thread not joined must have ended (its entry free) before its test returns.
void WaitForEnd(KZThread thread) {
  ASSERT_TRUE(EventuallyTrue([&] { return !ThreadIsAlive(thread); })) << "still alive";
}
#if defined(_WIN32)
// The system's view of threads, as the tests compare the library with it.
uint64_t KernelThreadId() { return GetCurrentThreadId(); }
// The clock of the library's reference times: the tick count (the C++ steady
// clock is the performance counter, which runs ahead of it by up to a tick).
uint64_t MonotonicMillis() { return GetTickCount64(); }
KZThread SystemSelf() { return reinterpret_cast<uintptr_t>(GetCurrentThread()); }
int SystemJoin(KZThread thread, void **exitValue) {  // 0, or 1 when the system refuses
  DWORD code = 0;
  const bool joined = WaitForSingleObject(reinterpret_cast<HANDLE>(thread), INFINITE) == WAIT_OBJECT_0 &&
                      GetExitCodeThread(reinterpret_cast<HANDLE>(thread), &code);
  CloseHandle(reinterpret_cast<HANDLE>(thread));
  return *exitValue = reinterpret_cast<void *>(uintptr_t{code}), joined ? 0 : 1;
}
KZThread SystemThreadReturning(unsigned value) {
  static unsigned returned;
  returned = value;
  return reinterpret_cast<uintptr_t>(CreateThread(
      nullptr, 0, [](void *) -> DWORD { return returned; }, nullptr, 0, nullptr));
}
#else
uint64_t KernelThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }
uint64_t MonotonicMillis() { return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count(); }
int NiceOf(uint64_t threadId) { return errno = 0, getpriority(PRIO_PROCESS, static_cast<id_t>(threadId)); }
KZThread SystemSelf() { return static_cast<KZThread>(pthread_self()); }
int SystemJoin(KZThread thread, void **exitValue) { return pthread_join(pthread_t(thread), exitValue); }
KZThread SystemThreadReturning(unsigned value) {
  static unsigned returned;
  returned = value;
  pthread_t plain;
  pthread_create(
      &plain, nullptr, [](void *) { return reinterpret_cast<void *>(uintptr_t{returned}); }, nullptr);
  return static_cast<KZThread>(plain);
}
#endif

TEST(ThreadResultsDeathTest, DetachedThreadsEntryIsFreedAndReusedByTheNextCreation) {
  // Joined through the system, a library thread shows its entry index as its
  // exit value; such joins leave entries in use, hence a new process.
  const auto reuse = [] {
    kztest::Latch go(0);                                            // open
    KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);  // entry 0
    const bool ended = EventuallyTrue([&] { return !ThreadIsAlive(detached); });
    // Entry 0 again, which must not keep the detached flag; once joined, entry 0 once more.
    const long long joined = ThreadJoin(ThreadCreate(WaitOnLatch, &go, 0));
    void *entry = &go;
    const int systemJoin = SystemJoin(ThreadCreate(WaitOnLatch, &go, 0), &entry);
    fprintf(stderr, "ended=%d joined=%lld system join=%d entry=%zu\n", ended, joined, systemJoin, size_t(entry));
    _exit(0);
  };
  EXPECT_EXIT(reuse(), testing::ExitedWithCode(0), "ended=1 joined=5 system join=0 entry=0\n");
}

TEST(ThreadLifetime, AliveUntilItsFunctionReturnsAndDetachedOnce) {
  kztest::Latch go(1);
  KZThread joinable = ThreadCreate(WaitOnLatch, &go, 0), running = ThreadCreate(WaitOnLatch, &go, 0);
  KZThread detached = ThreadCreateDetached(WaitOnLatch, &go, 0);
  for (KZThread thread : {ThreadGetCurrent(), joinable, running, detached}) EXPECT_EQ(ThreadIsAlive(thread), 1);
  EXPECT_EQ(ThreadDetach(running), 1);
  errno = 0;
  const int again = ThreadDetach(detached), error = errno;  // a second detach is refused
  EXPECT_EQ(again, 0);
  EXPECT_EQ(error, -1);
  EXPECT_EQ(KZErrorGetErrno(), EINVAL);
  go.count_down();
  for (KZThread thread : {joinable, running, detached}) WaitForEnd(thread);
  EXPECT_EQ(ThreadDetach(joinable), 1);  // ended, not joined
}

int64_t OwnStackSize(void *) {
  size_t size = 0;
#if defined(_WIN32)  // reserved: from the stack's allocation base to its top
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(&region, &region, sizeof region))
    size = static_cast<char *>(reinterpret_cast<NT_TIB *>(NtCurrentTeb())->StackBase) -
           static_cast<char *>(region.AllocationBase);
#else
  pthread_attr_t a;
  if (pthread_getattr_np(pthread_self(), &a) == 0) pthread_attr_getstacksize(&a, &size), pthread_attr_destroy(&a);
#endif
  return static_cast<int64_t>(size);
}
struct {
  KZThreadFunction function;
  void *argument;
  uint32_t kib;
  std::string where;
} g_hook;  // its arguments

TEST(ThreadCreate, HookReplacesCreation) {
  SetThreadCreateHooks([](KZThreadFunction f, void *a, uint32_t kib, const char *file, uint32_t line) -> KZThread {
    return g_hook = {f, a, kib, file + (":" + std::to_string(line))}, 0x5EED;
  });
  const std::string where = __FILE__ ":" + std::to_string(__LINE__ + 1);
  EXPECT_EQ(ThreadCreate(ReturnValueAt, &g_hook, 77), 0x5EEDu);
  EXPECT_EQ(g_hook.function, &ReturnValueAt);
  EXPECT_EQ(g_hook.argument, &g_hook);
  EXPECT_EQ(g_hook.kib, 77u);
  EXPECT_EQ(g_hook.where, where);
  SetThreadCreateHooks(nullptr);  // created again without it
  int64_t value = 12;
  EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnValueAt, &value, 0)), 12);
}

TEST(ThreadCreate, AHugeStackIsReportedButCreated) {
  kztest::CapturedStream errors(1);
  EXPECT_GE(ThreadJoin(ThreadCreate(OwnStackSize, nullptr, 1000000)), 1000000LL * 1024);  // reserved, not used
  EXPECT_NE(errors.Text().find("kzthread:642\": creating thread with a stack size of 1000000 KB: "), std::string::npos);
  KZErrorClear();
}

TEST(ThreadOnce, RacingThreadsRunTheFunctionOnceAndAllSucceed) {
  static std::atomic<int> calls;
  for (int round = 0; round < 10; round++) {
    int32_t state = calls = 0;
    std::atomic<int> succeeded{0};
    kztest::Latch start(12);
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; i++)
      threads.emplace_back([&] { start.arrive_and_wait(), succeeded += ThreadOnce(&state, [] { calls++; }) == 1; });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(calls.load(), 1) << "round " << round;
    EXPECT_EQ(succeeded.load(), 12) << "round " << round;
    EXPECT_EQ(state, 2) << "round " << round;
  }
}

// Written only by the ending thread's destructors; read after the join.
std::vector<std::string> g_order;
KZThreadVar g_early, g_late, g_kept;  // created in this order
int g_value[3];
void Note(void *value, int which, const char *what) { g_order.push_back(value == &g_value[which] ? what : "?"); }

TEST(ThreadVar, DestructorsRunInCreationOrderInPassesAndAKeptValueFourTimes) {
  g_early = ThreadVarCreate([](void *v) { Note(v, 0, "early"), ThreadVarSet(g_early, nullptr); });
  g_late = ThreadVarCreate(  // sets g_early after this pass has gone by it
      [](void *v) { Note(v, 1, "late"), ThreadVarSet(g_late, nullptr), ThreadVarSet(g_early, g_value); });
  g_kept = ThreadVarCreate([](void *v) { Note(v, 2, "kept"); });  // never clears
  auto body = [](void *) -> int64_t { return ThreadVarSet(g_late, &g_value[1]), ThreadVarSet(g_kept, &g_value[2]), 0; };
  ThreadJoin(ThreadCreate(body, nullptr, 0));
  EXPECT_EQ(std::exchange(g_order, {}), (std::vector<std::string>{"late", "kept", "early", "kept", "kept", "kept"}));
}

std::atomic<int> g_clearedCalls{0};
KZThreadVar g_slot;  // its destructor counts and clears

TEST(PlainThread, ContextComesOnFirstUseAndCleanupRunsTheDestructorsWhenCalledAndOnlyThen) {
  EXPECT_EQ(ThreadGetCurrent(), SystemSelf());
  EXPECT_EQ(ThreadId(), KernelThreadId());
  g_slot = ThreadVarCreate([](void *) { g_clearedCalls++, ThreadVarSet(g_slot, nullptr); }), g_clearedCalls = 0;
  int mine = 1, value = 0;
  EXPECT_EQ(ThreadVarSet(g_slot, &mine), 1);
  std::thread([&] {
    EXPECT_EQ(ThreadVarGet(g_slot), nullptr);  // values are per thread
    EXPECT_EQ(ThreadHasContext(), 0);
    const uint64_t before = MonotonicMillis(), reference = (ThreadInit(), ThreadGetRefTime());
    EXPECT_EQ(ThreadHasContext(), 1);
    EXPECT_LE(before, reference);
    EXPECT_LE(reference, MonotonicMillis());
    EXPECT_EQ(ThreadGetName(), std::to_string(KernelThreadId()));
    EXPECT_EQ((ThreadSetRefTime(12345), ThreadGetRefTime()), 12345u);
    ThreadVarSet(g_slot, &value), KZSetLastError(77), errno = 123, ThreadCleanup();
    const int error = errno;  // kept, like the last error
    EXPECT_EQ(error, 123);
    EXPECT_EQ(KZGetLastError(), 77);
    EXPECT_EQ(g_clearedCalls.load(), 1);
    EXPECT_EQ(ThreadHasContext(), 0);
    EXPECT_EQ(ThreadVarGet(g_slot), nullptr);
  }).join();
  // Without the call no destructor runs; the message context is still
  // released at the end of the thread (the leak checker sees it otherwise).
  std::thread([&] { ThreadVarSet(g_slot, &value), KZErrorThrow(KZ_ERR_GENERAL, "left behind"); }).join();
  EXPECT_EQ(g_clearedCalls.load(), 1);
  EXPECT_EQ(ThreadVarGet(g_slot), &mine);
  ThreadVarSet(g_slot, nullptr);
}

TEST(ThreadName, LibraryThreadIsNamedAfterItsCreationAndRenamed) {
#if defined(_WIN32)
  GTEST_SKIP() << "the system's copy of the name is read on Linux only";
#else
  static const std::string tooLong(300, 'x'), utf8 = "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9";
  std::string seen, created = __FILE__ ":" + std::to_string(__LINE__ + 1);  // seen: the name, then the system's copy
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
#endif
}

// Lowering needs no privilege and every value outside the table means normal; raising, back to normal
// included, needs the right. A child checks the table, then gives up every capability and that right.
TEST(ThreadPriority, TableValuesMapToNiceValuesOthersToNormalAndRaisingNeedsTheRight) {
#if defined(_WIN32)
  GTEST_SKIP() << "nice values and capabilities are Linux's";
#else
  if (NiceOf(KernelThreadId()) != 0) GTEST_SKIP() << "not running at nice value 0";  // which new threads inherit
  kztest::Child child = kztest::RunChild({}, [] {
    struct Worker {
      kztest::Latch go{1};
      std::atomic<uint64_t> id{0};
    } worker;
    auto run = [](void *a) {
      auto *w = static_cast<Worker *>(a);
      return w->id = ThreadId(), w->go.wait(), int64_t{0};
    };
    const KZThread thread = ThreadCreate(run, &worker, 0);
    if (!EventuallyTrue([&] { return worker.id.load() != 0; })) return 2;
    // Prints "priority:nice" for each value, whether raising back to normal went as the right allows, then the
    // refusals as "result,errno,last error".
    for (int priority : {7, 1, -1, 21, 5, 10, 20})
      printf("%d:%s ", priority,
             ThreadSetPriority(thread, priority) == 1 ? std::to_string(NiceOf(worker.id)).c_str() : "failed");
    const int backToNormal = ThreadSetPriority(thread, 7), error = KZGetLastError(), nice = NiceOf(worker.id);
    const std::string normal = "result " + std::to_string(backToNormal) + " nice " + std::to_string(nice) + " error " +
                               std::to_string(error);  // done with the right, refused without it
    printf("normal:%s ", (backToNormal == 1 ? nice == 0 : error == EPERM) ? "ok" : normal.c_str());
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    const rlimit noRaise = {0, 0};
    if (syscall(SYS_capset, &header, none) != 0 || setrlimit(RLIMIT_NICE, &noRaise) != 0)
      return worker.go.count_down(), ThreadJoin(thread), 3;
    auto refusal = [](const char *what, const std::function<int()> &call) {
      errno = 0;
      const int result = call(), errorNumber = errno, lastError = KZGetLastError();
      printf("%s:%d,%d,%d ", what, result, errorNumber, lastError);
    };
    // Time-critical, asked for itself, is refused and changes nothing.
    refusal("itself", [] { return ThreadSetPriority(ThreadGetCurrent(), -20); });
    printf("nice:%d ", NiceOf(KernelThreadId()));
    worker.go.count_down();  // once it ended, there is no thread to change
    printf("ended:%d ", EventuallyTrue([&] { return !ThreadIsAlive(thread); }));
    refusal("after", [&] { return ThreadSetPriority(thread, 5); });
    return ThreadJoin(thread), 0;
  });
  if (child.Exited(3)) GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(child.Ending(), kztest::ExitEnding(0)) << child.Describe();
  EXPECT_EQ(child.out, "7:0 1:0 -1:0 21:0 5:5 10:10 20:19 normal:ok itself:0,-1," + std::to_string(EPERM) +
                           " nice:0 ended:1 after:0,-1," + std::to_string(ESRCH) + " ");
#endif
}

TEST(ThreadStress, ManyThreadsCreatedAndJoinedConcurrently) {
  static std::atomic<int> ran, failures;
  ran = failures = 0;
  std::vector<KZThread> creators, detached[8];
  for (auto &mine : detached)  // the creators are library threads themselves
    creators.push_back(ThreadCreate(
        [](void *mine) -> int64_t {
          for (int64_t round = 0, value; round < 40; round++) {  // results of every width and sign
            KZThread joinable = ThreadCreate(ReturnValueAt, &(value = (round % 2 ? INT64_MIN : INT64_MAX) ^ round), 0);
            auto counted = [](void *) -> int64_t {
              ran++;
              return 0;
            };
            static_cast<std::vector<KZThread> *>(mine)->push_back(ThreadCreateDetached(counted, nullptr, 0));
            failures += ThreadJoin(joinable) != value;
          }
          return -7;
        },
        &mine, 0));
  for (KZThread creator : creators) EXPECT_EQ(ThreadJoin(creator), -7);
  for (auto &mine : detached)
    for (KZThread thread : mine) WaitForEnd(thread);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(ran.load(), 8 * 40);
}

TEST(ThreadDeathTest, FatalMessagesAndAssertions) {
  const kztest::FatalCase cases[] = {
    {[] { ThreadJoin(ThreadGetCurrent()); }, 1, "kzlib: \"kzthread:708\": thread operation failed"},
    {[] {  // an exit value that is no entry of the table
       ThreadJoin(SystemThreadReturning(0x7FFFFFFF));
     },
     0, "'result < ArrayLength\\(threadResults\\)' failed at kzlib/kzthread:717"},
#if !defined(_WIN32)
    {[] {  // 4 TiB of stack, not under a cap a little above what the process uses now
       unsigned long long pages = 0;
       std::ifstream("/proc/self/statm") >> pages;
       const rlimit limit = {pages * sysconf(_SC_PAGESIZE) + (256u << 20), RLIM_INFINITY};
       if (pages && setrlimit(RLIMIT_AS, &limit) == 0) ThreadCreate(ReturnValueAt, nullptr, 0xFFFFFFFFu);
     },
     1, "\"kzthread:651\": thread creation failed, errno=11"},
#endif
    {[] {
       for (int i = 0; i < 100000; i++) ThreadVarCreate(nullptr);
     },
     1, "\"kzthread:1108\": TlsAlloc failed"},
  };
  for (const kztest::FatalCase &c : cases) kztest::ExpectFatal(c);
}

}  // namespace
