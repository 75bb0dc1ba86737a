// Crash handling: crash files, protected calls, the debugger hook and the
// watchdog. Every crash happens in a forked child whose crash files go to a
// private temporary directory; the parent checks how the child ended and what
// it left behind.
#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>

#include "kz/error.h"
#include "kz/init.h"
#include "kz/message.h"
#include "child_process.h"
#include "test_support.h"

// ---- functions that crash, named so backtraces can be checked ---------------------

// The undefined-behaviour sanitizer would stop at the null store before the
// processor faults; the fault is what is under test.
extern "C" __attribute__((noinline, no_sanitize_undefined)) void KzTestCrashInNamedFunction(void) {
  volatile int *volatile target = nullptr;
  *target = 42;
}

extern "C" __attribute__((noinline)) void KzTestCallerOfTheCrash(void) {
  KzTestCrashInNamedFunction();
  __asm__ volatile("");  // no tail call: this frame stays on the stack
}

extern "C" __attribute__((noinline, no_sanitize_undefined)) int KzTestDivideByZero(void) {
  volatile int zero = 0;
  volatile int one = 1;
  return one / zero;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winfinite-recursion"
extern "C" __attribute__((noinline)) int KzTestRecurseForever(int depth) {
  volatile char frame[512];
  frame[depth % sizeof frame] = static_cast<char>(depth);
  return KzTestRecurseForever(depth + 1) + frame[0];
}
#pragma GCC diagnostic pop

namespace {

using namespace kztest;

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

bool Contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

std::vector<std::string> FilesIn(const TempDir &dir) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(dir.path())) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string LogName(pid_t pid) { return "ERRORLOG-" + std::to_string(pid) + ".TXT"; }
std::string DumpName(pid_t pid) { return "CRASH-" + std::to_string(pid) + ".DMP"; }

// Library start-up with the crash files in dir.
void StartLibrary(const TempDir &dir) {
  KZLibInit("/opt/kz/bin/crash_test");
  KZRunProtectedSetPath(dir.path().c_str());
}

void Exit42(int) { _exit(42); }

void StartAndCrash(const TempDir &dir) {
  StartLibrary(dir);
  KzTestCallerOfTheCrash();
}

// Runs body(dir) in a child that then exits with 0.
using Body = void (*)(const TempDir &);
Child RunBody(const TempDir &dir, const Environment &environment, Body body) {
  return RunChild(dir, environment, [&dir, body] {
    body(dir);
    return 0;
  });
}

// Records of a dump file by type; problem says what is wrong with its layout.
std::map<uint32_t, std::string> ReadDump(const std::string &bytes, std::string &problem) {
  std::map<uint32_t, std::string> records;
  uint32_t header[2] = {};  // version 1, header size 16
  if (bytes.size() >= 16) memcpy(header, bytes.data() + 8, 8);
  if (bytes.compare(0, 8, std::string("KZCRASH", 8)) != 0 || header[0] != 1 || header[1] != 16)
    return problem = "no or unexpected dump header", records;
  size_t at = 16;
  for (uint32_t type = 1; type != 0;) {
    uint64_t length;
    if (at + 16 > bytes.size()) return problem = "truncated record header", records;
    memcpy(&type, bytes.data() + at, 4);
    memcpy(&length, bytes.data() + at + 8, 8);
    at += 16;
    if (length > bytes.size() - at) return problem = "record longer than the file", records;
    records[type] = bytes.substr(at, length);
    at += length;
  }
  if (at != bytes.size()) problem = "bytes after the end record";
  return records;
}

uint64_t Word(const std::string &data, size_t index) {
  uint64_t value = 0;
  if ((index + 1) * 8 <= data.size()) memcpy(&value, data.data() + index * 8, 8);
  return value;
}

// ---- crash files ---------------------------------------------------------------------------

TEST(CrashHandling, NullDereferenceLeavesLogAndDumpAndEndsWithTheSignal) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  Child child = RunBody(dir, {}, StartAndCrash);
  ASSERT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  const std::string pid = std::to_string(child.pid);
  // KZRunProtectedSetPath moved the files from the working directory to dir.
  EXPECT_EQ(FilesIn(dir), (std::vector<std::string>{DumpName(child.pid), LogName(child.pid)}));
  EXPECT_FALSE(Exists(LogName(child.pid)));

  std::string log = ReadFile(dir / LogName(child.pid));
  for (const std::string &line : std::vector<std::string>{
           "Program:        crash_test\n", "Process:        " + pid + "\n", "Thread:         " + pid + " (",
           "Signal:         11 SIGSEGV, code 1 SEGV_MAPERR\n", "Fault address:  0x0000000000000000\n",
           "Exception:      0xC0000005 access violation\n", "Protected call: no\n", "Library:        kzlib 6.3.20826",
           "\nRegisters:\n"})
    EXPECT_TRUE(Contains(log, line)) << line << " missing from\n" << log;
#if defined(__x86_64__)
  EXPECT_TRUE(Contains(log, "  rip     0x")) << log;
#endif
  // The backtrace starts at the crashing function (with its source line) and
  // names its caller.
  size_t first = log.find("\nBacktrace:\n  #0  0x");
  ASSERT_NE(first, std::string::npos) << log;
  std::string firstLine = log.substr(first + 12, log.find('\n', first + 12) - first - 12);
  EXPECT_TRUE(Contains(firstLine, "KzTestCrashInNamedFunction")) << log;
  EXPECT_TRUE(Contains(firstLine, "crash_test.cpp:")) << log;
  EXPECT_TRUE(Contains(log.substr(first), "KzTestCallerOfTheCrash")) << log;

  std::string problem;
  auto records = ReadDump(ReadFile(dir / DumpName(child.pid)), problem);
  ASSERT_EQ(problem, "");
  for (uint32_t type : {1, 4, 6, 7, 8}) ASSERT_EQ(records.count(type), 1u) << "no record " << type;
  const std::string &crash = records[1], &stack = records[7], &backtrace = records[8];
  ASSERT_EQ(crash.size(), 12u * 8);
  EXPECT_EQ(Word(crash, 0), static_cast<uint64_t>(child.pid));
  EXPECT_EQ(Word(crash, 5), 0u);   // fault address
  EXPECT_EQ(Word(crash, 10), 0u);  // not in a protected call
  const uint64_t pc = Word(crash, 6), sp = Word(crash, 7);
#if defined(__x86_64__)
  ASSERT_EQ(records[2].size(), 23u * 8);
  EXPECT_EQ(Word(records[2], REG_RIP), pc);
  EXPECT_EQ(Word(records[2], REG_RSP), sp);
#endif
  EXPECT_EQ(records[4], "crash_test");
  EXPECT_TRUE(Contains(records[6], "crash_test")) << "the executable is mapped";
  EXPECT_TRUE(Contains(records[6], "[stack]"));
  ASSERT_GT(stack.size(), 8u);
  EXPECT_LE(Word(stack, 0), sp);
  EXPECT_GT(Word(stack, 0) + (stack.size() - 8), sp);
  ASSERT_GE(backtrace.size(), 2u * 8);
  EXPECT_EQ(Word(backtrace, 0), pc);
  EXPECT_EQ(Word(crash, 11), backtrace.size() / 8);
}

// Other crashes: the signal, exception code and thread in log and dump, and
// the process still ends by the same signal. nocrashstack leaves the
// backtrace out of both files.
TEST(CrashHandling, EachKindOfCrashIsRecordedAndEndsTheProcess) {
  const struct {
    const char *options;
    Body body;
    int signal;
    uint32_t code;
    bool mainThread;
    std::vector<std::string> inLog;
  } cases[] = {
      {"", [](const TempDir &dir) { StartLibrary(dir); __builtin_trap(); }, SIGILL, 0xC000001D, true,
       {"Exception:      0xC000001D illegal instruction\n"}},
      {"", [](const TempDir &dir) { StartLibrary(dir); KzTestDivideByZero(); }, SIGFPE, 0xC0000094, true,
       {"Exception:      0xC0000094 integer divide by zero\n", "KzTestDivideByZero"}},
      {"", [](const TempDir &dir) { StartLibrary(dir); raise(SIGBUS); }, SIGBUS, 0xC0000006, true,
       {"Signal:         7 SIGBUS, code -6 SI_TKILL\n", "Exception:      0xC0000006 in-page error\n"}},
      {"", [](const TempDir &dir) { StartLibrary(dir); std::thread(KzTestCrashInNamedFunction).join(); }, SIGSEGV,
       0xC0000005, false, {"Exception:      0xC0000005 access violation\n", "KzTestCrashInNamedFunction"}},
      {"nocrashstack", StartAndCrash, SIGSEGV, 0xC0000005, true, {"Backtrace:\n  (not collected: nocrashstack)\n"}},
  };
  for (const auto &c : cases) {
    TempDir dir;
    Child child = RunBody(dir, {{"KZ", c.options}}, c.body);
    SCOPED_TRACE(c.inLog[0]);
    EXPECT_TRUE(child.Signalled(c.signal)) << child.Describe();
    std::string log = ReadFile(dir / LogName(child.pid)), problem;
    for (const std::string &line : c.inLog) EXPECT_TRUE(Contains(log, line)) << log;
    EXPECT_TRUE(Contains(log, "Thread:         ")) << log;
    EXPECT_EQ(Contains(log, "Thread:         " + std::to_string(child.pid) + " ("), c.mainThread) << log;
    EXPECT_EQ(Contains(log, "  #0  0x"), *c.options == '\0') << log;
    auto records = ReadDump(ReadFile(dir / DumpName(child.pid)), problem);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(Word(records[1], 2), static_cast<uint64_t>(c.signal));
    EXPECT_EQ(Word(records[1], 4), c.code);
    EXPECT_EQ(records.count(8), *c.options ? 0u : 1u);
  }
}

// Options and switches decide which crash files appear; a handler the program
// keeps, an embedded library or a protected call without start-up leave
// crashes outside to the program. Without KZRunProtectedSetPath the files go
// to the working directory.
TEST(CrashHandling, WhichFilesAreWritten) {
  const struct {
    const char *options;
    Body body;
    int exitCode;  // -1: ended by SIGSEGV
    bool log, dump;
  } cases[] = {
      {"nocrashlog", StartAndCrash, -1, false, true},
      {"nocrashdump", StartAndCrash, -1, true, false},
      {"nocrashlog,nocrashdump", StartAndCrash, -1, false, false},
      {"", [](const TempDir &dir) {  // no KZRunProtectedSetPath: the working directory
         if (chdir(dir.path().c_str()) != 0) _exit(99);
         KZLibInit("/opt/kz/bin/crash_test");
         KzTestCallerOfTheCrash();
       }, -1, true, true},
      // Quiet assertions clear the log and dump bits.
      {"", [](const TempDir &dir) { StartLibrary(dir); KZAssertSetVerbosity(0); KzTestCallerOfTheCrash(); },
       -1, false, false},
      {"", [](const TempDir &dir) {
         signal(SIGSEGV, Exit42);
         KZLibKeepGlobalExceptionHandler();
         StartAndCrash(dir);
       }, 42, false, false},
      // (SIG_DFL: the sanitizers may have installed a handler of their own.)
      {"", [](const TempDir &dir) { signal(SIGSEGV, SIG_DFL); KZLibSetEmbedded(); StartAndCrash(dir); },
       -1, false, false},
      {"", [](const TempDir &dir) {
         signal(SIGSEGV, Exit42);
         KZRunProtectedSetPath(dir.path().c_str());
         KZRunProtected_([](void *) -> int64_t { return 0; }, nullptr, nullptr);
         KzTestCallerOfTheCrash();
       }, 42, false, false},
  };
  for (const auto &c : cases) {
    TempDir dir;
    Child child = RunBody(dir, {{"KZ", c.options}}, c.body);
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    EXPECT_TRUE(c.exitCode < 0 ? child.Signalled(SIGSEGV) : child.Exited(c.exitCode)) << child.Describe();
    std::vector<std::string> expected;
    if (c.dump) expected.push_back(DumpName(child.pid));
    if (c.log) expected.push_back(LogName(child.pid));
    EXPECT_EQ(FilesIn(dir), expected);
  }
}

// With the debugger flag the crash is announced and "<debugger> -p <pid>" is
// started; without a debugger program only the announcement remains.
TEST(CrashHandling, DebuggerIsAnnouncedAndStarted) {
  TempDir dir;
  std::string debugger = dir / "fake-debugger", arguments = dir / "debugger-arguments";
  std::ofstream(debugger) << "#!/bin/sh\necho \"$@\" > '" << arguments << "'\n";
  chmod(debugger.c_str(), 0700);
  for (const char *program : {debugger.c_str(), ""}) {
    Child child = RunBody(dir, {{"KZ", "debugger"}, {"KZ_DEBUGGER", program}}, StartAndCrash);
    EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
    std::string pid = std::to_string(child.pid);
    EXPECT_EQ(child.err, "** debugger invoked in process " + pid + ", thread " + pid + " (" + pid + ")\n");
    EXPECT_EQ(ReadFile(arguments), *program ? "-p " + pid + "\n" : "") << program;
    unlink(arguments.c_str());
  }
}

// The system log gets one line (none with nocrashsyslog), and a process
// forked after start-up names its crash files after itself. The log socket is
// /dev/log: the child hides the real /dev behind a private tmpfs (a mount
// namespace of its own, which needs privileges), listens there, and lets a
// grandchild crash; the library starts in the grandchild for the first round
// and before the fork for the second.
TEST(CrashHandling, ForkedProcessFilesAndSystemLogLine) {
  std::string noSystemLog;
  for (const char *options : {"", "nocrashsyslog"}) {
    TempDir dir;
    Child child = RunChild(dir, {{"KZ", options}}, [&dir, options] {
      int log = -1;
      sockaddr_un address{AF_UNIX, "/dev/log"};
      if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 ||
          (log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) < 0 ||
          bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        printf("skip=%s\n", strerror(errno));
      const bool startFirst = *options != '\0';
      if (startFirst) StartLibrary(dir);
      pid_t crasher = fork();
      if (crasher == 0) {
        if (!startFirst) StartLibrary(dir);
        KzTestCallerOfTheCrash();
      }
      int status = 0;
      waitpid(crasher, &status, 0);
      char line[2048];
      ssize_t length = log < 0 ? 0 : recv(log, line, sizeof line, MSG_DONTWAIT);
      printf("crasher=%d\nsignal=%d\nline=%.*s\n", crasher, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
             static_cast<int>(length > 0 ? length : 0), line);
      return 0;
    });
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    std::string crasher = Value(child.out, "crasher");
    EXPECT_EQ(Value(child.out, "signal"), "11") << child.out;
    const pid_t crasherPid = atoi(crasher.c_str());
    EXPECT_EQ(FilesIn(dir), (std::vector<std::string>{DumpName(crasherPid), LogName(crasherPid)}));
    if (child.out.rfind("skip=", 0) == 0) {
      noSystemLog = child.out;
      continue;
    }
    const std::string expected = "<10>crash_test[" + crasher + "]: crash: SIGSEGV (0xC0000005 access violation) at " +
                                 "0x0, thread " + crasher + " (" + crasher + "); crash files in " + dir.path() + "\n";
    EXPECT_EQ(child.out.substr(child.out.find("\nline=") + 6), *options ? "\n" : expected) << options;
  }
  if (!noSystemLog.empty()) GTEST_SKIP() << "system log unchecked (no private mount namespace): " << noSystemLog;
}

// ---- protected calls -------------------------------------------------------------------------

// Where the child's report function writes what it was given.
std::string g_reportPath;

void WriteReport(uint64_t code, const char *stackText) {
  char head[64];
  int length = snprintf(head, sizeof head, "code=0x%llx\ntext=%s\n", static_cast<unsigned long long>(code),
                        stackText ? "yes" : "null");
  int fd = open(g_reportPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (write(fd, head, static_cast<size_t>(length)) < 0 || (stackText && write(fd, stackText, strlen(stackText)) < 0))
    _exit(98);
  close(fd);
}

int64_t CrashingFunction(void *) {
  KzTestCallerOfTheCrash();
  return 0;
}

TEST(ProtectedCall, ReturnsTheResultAndNests) {
  Child child = RunChild({}, [] {
    int64_t inner = 0;
    int64_t outer = KZRunProtected_(
        [](void *argument) -> int64_t {
          *static_cast<int64_t *>(argument) = KZRunProtected_([](void *) -> int64_t { return -7; }, nullptr, nullptr);
          return 1234567890123ll;
        },
        &inner, WriteReport);
    printf("outer=%lld inner=%lld\n", static_cast<long long>(outer), static_cast<long long>(inner));
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(child.out, "outer=1234567890123 inner=-7\n");
}

// A crash in a protected call writes the crash files, then the report gets
// 0xD00000000 | the exception code and whole lines of backtrace (none with
// nocrashstack), then the process aborts; with or without library start-up,
// on stack overflow too. A division by zero is not taken and ends the process.
TEST(ProtectedCall, CrashIsReportedThenTheProcessAborts) {
  const struct {
    const char *options;
    bool startUp;
    KZProtectedFunction function;
    int signal;
    const char *reportStart, *inReport;
  } cases[] = {
      {"", true, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=yes\n", "KzTestCrashInNamedFunction"},
      {"", false, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=yes\n", "KzTestCrashInNamedFunction"},
      {"nocrashstack", true, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=null\n", nullptr},
      {"nocrashdump", true, [](void *) -> int64_t { return KzTestRecurseForever(0); }, SIGABRT,
       "code=0xdc00000fd\ntext=yes\n", "KzTestRecurseForever"},
      {"", true, [](void *) -> int64_t { return KzTestDivideByZero(); }, SIGFPE, nullptr, nullptr},
  };
  for (const auto &c : cases) {
    TempDir dir;
    g_reportPath = dir / "report";
    Child child = RunChild(dir, {{"KZ", c.options}}, [&] {
      struct rlimit stack = {8 << 20, 8 << 20};  // a bounded stack to overflow
      setrlimit(RLIMIT_STACK, &stack);
      signal(SIGSEGV, SIG_DFL);  // the sanitizers may have installed a handler of their own
      if (c.startUp) KZLibInit("/opt/kz/bin/crash_test");
      KZRunProtectedSetPath(dir.path().c_str());
      KZRunProtected_(c.function, nullptr, WriteReport);
      printf("returned\n");
      return 0;
    });
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    EXPECT_TRUE(child.Signalled(c.signal)) << child.Describe();
    EXPECT_EQ(child.out, "");
    std::string report = ReadFile(g_reportPath), log = ReadFile(dir / LogName(child.pid));
    if (!c.reportStart) {
      EXPECT_FALSE(Exists(g_reportPath)) << report;
      EXPECT_TRUE(Contains(log, "Exception:      0xC0000094")) << log;
      continue;
    }
    EXPECT_TRUE(Contains(log, "Protected call: yes\n")) << log;
    EXPECT_EQ(Exists(dir / DumpName(child.pid)), strcmp(c.options, "nocrashdump") != 0);
    ASSERT_EQ(report.rfind(c.reportStart, 0), 0u) << report;
    std::string stackText = report.substr(strlen(c.reportStart));
    EXPECT_EQ(stackText.empty(), !c.inReport) << stackText;
    if (!c.inReport) continue;
    EXPECT_LT(stackText.size(), 512u);
    EXPECT_EQ(stackText.rfind("  #0  0x", 0), 0u) << stackText;
    EXPECT_TRUE(Contains(stackText, c.inReport)) << stackText;
    EXPECT_EQ(stackText.back(), '\n');  // whole lines only
  }
}

// Without a report function the default dispatcher writes the report to the
// error stream; a report function that hangs is ended after the grace time.
TEST(ProtectedCall, DefaultDispatcherAndGraceTime) {
  TempDir dir;
  Child child = RunBody(dir, {}, [](const TempDir &dir) {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, nullptr);
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  std::string pid = std::to_string(child.pid);
  EXPECT_EQ(child.err.rfind("crash_test: critical error 0xDC0000005 (access violation) in a protected call, thread " +
                                pid + " (" + pid + ")\n  #0  0x", 0), 0u) << child.err;
  EXPECT_TRUE(Contains(child.err, "KzTestCrashInNamedFunction")) << child.err;

  child = RunBody(dir, {{"KZ_HANDLER_GRACE_TIME", "1"}}, [](const TempDir &dir) {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, [](uint64_t, const char *) { for (;;) pause(); });
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(child.err, "crash_test: crash handler still running after 1 seconds, ending the process\n");
}

}  // namespace
