// Crash handling: crash files, protected calls, the debugger hook and the
// watchdog. Every crash happens in a forked child whose crash files go to a
// private temporary directory; the parent checks how the child ended and what
// it left behind.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

using kztest::Child;
using kztest::Environment;
using kztest::ReadFile;
using kztest::RunChild;
using kztest::TempDir;

// ---- child processes ----------------------------------------------------------------



bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

bool Contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

std::vector<std::string> FilesIn(const std::string &path) {
  std::vector<std::string> names;
  if (DIR *dir = opendir(path.c_str())) {
    while (dirent *entry = readdir(dir))
      if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    closedir(dir);
  }
  return names;
}


std::string LogName(const TempDir &dir, pid_t pid) { return dir / ("ERRORLOG-" + std::to_string(pid) + ".TXT"); }
std::string DumpName(const TempDir &dir, pid_t pid) { return dir / ("CRASH-" + std::to_string(pid) + ".DMP"); }

// The child's start: library start-up with the crash files in dir.
void StartLibrary(const TempDir &dir) {
  KZLibInit("/opt/kz/bin/crash_test");
  KZRunProtectedSetPath(dir.path().c_str());
}

// ---- crash dump reading ------------------------------------------------------------------

struct Record {
  uint32_t type;
  std::string data;
};

// Records of a dump file; problem says what is wrong with its layout.
std::vector<Record> ReadDump(const std::string &bytes, std::string &problem) {
  std::vector<Record> records;
  static const char kMagic[8] = {'K', 'Z', 'C', 'R', 'A', 'S', 'H', '\0'};
  if (bytes.size() < 16 || memcmp(bytes.data(), kMagic, 8) != 0) {
    problem = "no dump header";
    return records;
  }
  uint32_t version, headerSize;
  memcpy(&version, bytes.data() + 8, 4);
  memcpy(&headerSize, bytes.data() + 12, 4);
  if (version != 1 || headerSize != 16) {
    problem = "unexpected header";
    return records;
  }
  size_t at = headerSize;
  for (;;) {
    if (at + 16 > bytes.size()) {
      problem = "truncated record header";
      return records;
    }
    uint32_t type;
    uint64_t length;
    memcpy(&type, bytes.data() + at, 4);
    memcpy(&length, bytes.data() + at + 8, 8);
    at += 16;
    if (length > bytes.size() - at) {
      problem = "record longer than the file";
      return records;
    }
    records.push_back(Record{type, bytes.substr(at, length)});
    at += length;
    if (type == 0) break;
  }
  if (at != bytes.size()) problem = "bytes after the end record";
  return records;
}

const Record *Find(const std::vector<Record> &records, uint32_t type) {
  for (const Record &record : records)
    if (record.type == type) return &record;
  return nullptr;
}

uint64_t Word(const std::string &data, size_t index) {
  uint64_t value = 0;
  if ((index + 1) * 8 <= data.size()) memcpy(&value, data.data() + index * 8, 8);
  return value;
}

// ---- reports from protected calls --------------------------------------------------------

// Where the child's report function writes what it was given.
std::string g_reportPath;

void WriteReport(uint64_t code, const char *stackText) {
  int fd = open(g_reportPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  char line[64];
  int length = snprintf(line, sizeof line, "code=0x%llx\ntext=%s\n", static_cast<unsigned long long>(code),
                        stackText ? "yes" : "null");
  ssize_t ignored = write(fd, line, static_cast<size_t>(length));
  if (stackText) ignored = write(fd, stackText, strlen(stackText));
  (void)ignored;
  close(fd);
}

int64_t CrashingFunction(void *) {
  KzTestCallerOfTheCrash();
  return 0;
}

// ---- tests ---------------------------------------------------------------------------------

TEST(CrashHandling, NullDereferenceLeavesLogAndDumpAndEndsWithTheSignal) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    KzTestCallerOfTheCrash();
    return 0;
  });
  ASSERT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();

  std::string log = ReadFile(LogName(dir, child.pid));
  ASSERT_FALSE(log.empty()) << "no error log; files: " << FilesIn(dir.path()).size();
  EXPECT_TRUE(Contains(log, "Program:        crash_test\n")) << log;
  EXPECT_TRUE(Contains(log, "Process:        " + std::to_string(child.pid) + "\n")) << log;
  EXPECT_TRUE(Contains(log, "Thread:         " + std::to_string(child.pid) + " (")) << log;
  EXPECT_TRUE(Contains(log, "Signal:         11 SIGSEGV, code 1 SEGV_MAPERR\n")) << log;
  EXPECT_TRUE(Contains(log, "Exception:      0xC0000005 access violation\n")) << log;
  EXPECT_TRUE(Contains(log, "Fault address:  0x0000000000000000\n")) << log;
  EXPECT_TRUE(Contains(log, "Protected call: no\n")) << log;
  EXPECT_TRUE(Contains(log, "Library:        kzlib 6.3.20826")) << log;
  EXPECT_TRUE(Contains(log, "\nRegisters:\n")) << log;
#if defined(__x86_64__)
  EXPECT_TRUE(Contains(log, "  rip     0x")) << log;
#endif
  // The backtrace starts at the crashing function and names its caller, with
  // source lines from the debug information.
  size_t trace = log.find("\nBacktrace:\n");
  ASSERT_NE(trace, std::string::npos) << log;
  std::string frames = log.substr(trace);
  size_t first = frames.find("  #0  0x");
  ASSERT_NE(first, std::string::npos) << log;
  std::string firstLine = frames.substr(first, frames.find('\n', first) - first);
  EXPECT_TRUE(Contains(firstLine, "KzTestCrashInNamedFunction")) << log;
  EXPECT_TRUE(Contains(firstLine, "crash_test.cpp:")) << log;
  EXPECT_TRUE(Contains(frames, "KzTestCallerOfTheCrash")) << log;

  std::string bytes = ReadFile(DumpName(dir, child.pid));
  std::string problem;
  std::vector<Record> records = ReadDump(bytes, problem);
  ASSERT_EQ(problem, "") << "dump of " << bytes.size() << " bytes";
  const Record *crash = Find(records, 1);
  ASSERT_NE(crash, nullptr);
  ASSERT_EQ(crash->data.size(), 12u * 8);
  EXPECT_EQ(Word(crash->data, 0), static_cast<uint64_t>(child.pid));
  EXPECT_EQ(Word(crash->data, 2), static_cast<uint64_t>(SIGSEGV));
  EXPECT_EQ(Word(crash->data, 4), 0xC0000005u);
  EXPECT_EQ(Word(crash->data, 5), 0u);  // fault address
  EXPECT_EQ(Word(crash->data, 10), 0u);  // not in a protected call
  uint64_t pc = Word(crash->data, 6), sp = Word(crash->data, 7);
#if defined(__x86_64__)
  const Record *registers = Find(records, 2);
  ASSERT_NE(registers, nullptr);
  EXPECT_EQ(registers->data.size(), 23u * 8);
  EXPECT_EQ(Word(registers->data, REG_RIP), pc);
  EXPECT_EQ(Word(registers->data, REG_RSP), sp);
#endif
  const Record *program = Find(records, 4);
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(program->data, "crash_test");
  const Record *maps = Find(records, 6);
  ASSERT_NE(maps, nullptr);
  EXPECT_TRUE(Contains(maps->data, "crash_test")) << "the executable is mapped";
  EXPECT_TRUE(Contains(maps->data, "[stack]"));
  const Record *stack = Find(records, 7);
  ASSERT_NE(stack, nullptr);
  ASSERT_GT(stack->data.size(), 8u);
  uint64_t stackStart = Word(stack->data, 0);
  EXPECT_LE(stackStart, sp);
  EXPECT_GT(stackStart + (stack->data.size() - 8), sp);
  const Record *backtrace = Find(records, 8);
  ASSERT_NE(backtrace, nullptr);
  ASSERT_GE(backtrace->data.size(), 2u * 8);
  EXPECT_EQ(Word(backtrace->data, 0), pc);
  EXPECT_EQ(Word(crash->data, 11), backtrace->data.size() / 8);
}

TEST(CrashHandling, OptionsChooseTheFiles) {
  struct Case {
    const char *options;
    bool log, dump;
  } cases[] = {{"nocrashlog", false, true}, {"nocrashdump", true, false}, {"nocrashlog,nocrashdump", false, false}};
  for (const Case &c : cases) {
    TempDir dir;
    Child child = RunChild(dir, {{"KZ", c.options}}, [&dir] {
      StartLibrary(dir);
      KzTestCrashInNamedFunction();
      return 0;
    });
    EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
    EXPECT_EQ(Exists(LogName(dir, child.pid)), c.log) << c.options;
    EXPECT_EQ(Exists(DumpName(dir, child.pid)), c.dump) << c.options;
  }
}

TEST(CrashHandling, NoCrashStackLeavesTheBacktraceOut) {
  TempDir dir;
  Child child = RunChild(dir, {{"KZ", "nocrashstack"}}, [&dir] {
    StartLibrary(dir);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  std::string log = ReadFile(LogName(dir, child.pid));
  EXPECT_TRUE(Contains(log, "Backtrace:\n  (not collected: nocrashstack)\n")) << log;
  EXPECT_FALSE(Contains(log, "KzTestCrashInNamedFunction")) << log;
  std::string problem;
  std::vector<Record> records = ReadDump(ReadFile(DumpName(dir, child.pid)), problem);
  EXPECT_EQ(problem, "");
  EXPECT_EQ(Find(records, 8), nullptr);
}

TEST(CrashHandling, QuietAssertionsAlsoSilenceCrashFiles) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    KZAssertSetVerbosity(0);  // clears the log and dump bits
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{});
}

TEST(CrashHandling, IllegalInstructionAndDivideByZero) {
  {
    TempDir dir;
    Child child = RunChild(dir, {}, [&dir] {
      StartLibrary(dir);
      __builtin_trap();
      return 0;
    });
    EXPECT_TRUE(child.Signalled(SIGILL)) << child.Describe();
    std::string log = ReadFile(LogName(dir, child.pid));
    EXPECT_TRUE(Contains(log, "Exception:      0xC000001D illegal instruction\n")) << log;
  }
  {
    TempDir dir;
    Child child = RunChild(dir, {}, [&dir] {
      StartLibrary(dir);
      return KzTestDivideByZero();
    });
    EXPECT_TRUE(child.Signalled(SIGFPE)) << child.Describe();
    std::string log = ReadFile(LogName(dir, child.pid));
    EXPECT_TRUE(Contains(log, "Exception:      0xC0000094 integer divide by zero\n")) << log;
    EXPECT_TRUE(Contains(log, "KzTestDivideByZero")) << log;
  }
}

TEST(CrashHandling, SentSignalIsReportedAndStillEndsTheProcess) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    raise(SIGBUS);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGBUS)) << child.Describe();
  std::string log = ReadFile(LogName(dir, child.pid));
  EXPECT_TRUE(Contains(log, "Signal:         7 SIGBUS, code -6 SI_TKILL\n")) << log;
  EXPECT_TRUE(Contains(log, "Exception:      0xC0000006 in-page error\n")) << log;
}

TEST(CrashHandling, CrashInAnotherThreadNamesThatThread) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    std::thread worker([] { KzTestCrashInNamedFunction(); });
    worker.join();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  std::string log = ReadFile(LogName(dir, child.pid));
  EXPECT_TRUE(Contains(log, "Thread:         ")) << log;
  EXPECT_FALSE(Contains(log, "Thread:         " + std::to_string(child.pid) + " ")) << log;
  EXPECT_TRUE(Contains(log, "KzTestCrashInNamedFunction")) << log;
}

TEST(CrashHandling, ForkedProcessNamesFilesAfterItself) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    pid_t grandchild = fork();
    if (grandchild == 0) KzTestCrashInNamedFunction();
    int status = 0;
    waitpid(grandchild, &status, 0);
    printf("grandchild=%d signalled=%d\n", grandchild, WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  int grandchild = 0, signal = 0;
  ASSERT_EQ(sscanf(child.out.c_str(), "grandchild=%d signalled=%d", &grandchild, &signal), 2) << child.out;
  EXPECT_EQ(signal, SIGSEGV);
  EXPECT_TRUE(Exists(LogName(dir, grandchild)));
  EXPECT_TRUE(Exists(DumpName(dir, grandchild)));
  EXPECT_FALSE(Exists(LogName(dir, child.pid)));
}

TEST(CrashHandling, DebuggerIsAnnouncedAndStarted) {
  TempDir dir;
  std::string debugger = dir / "fake-debugger";
  {
    FILE *script = fopen(debugger.c_str(), "w");
    ASSERT_NE(script, nullptr);
    fprintf(script, "#!/bin/sh\necho \"$@\" > '%s'\n", (dir / "debugger-arguments").c_str());
    fclose(script);
    chmod(debugger.c_str(), 0700);
  }
  Child child = RunChild(dir, {{"KZ", "debugger"}, {"KZ_DEBUGGER", debugger.c_str()}}, [&dir] {
    StartLibrary(dir);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  std::string pid = std::to_string(child.pid);
  EXPECT_EQ(child.err, "** debugger invoked in process " + pid + ", thread " + pid + " (" + pid + ")\n");
  EXPECT_EQ(ReadFile(dir / "debugger-arguments"), "-p " + pid + "\n");
}

TEST(CrashHandling, DebuggerFlagWithoutADebuggerProgram) {
  TempDir dir;
  Child child = RunChild(dir, {{"KZ", "debugger"}, {"KZ_DEBUGGER", ""}}, [&dir] {
    StartLibrary(dir);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_TRUE(Contains(child.err, "** debugger invoked in process " + std::to_string(child.pid))) << child.err;
}

// The system log socket is /dev/log. The child hides the real /dev behind a
// private tmpfs (a mount namespace of its own, which needs privileges), listens
// there, and lets a grandchild crash.
TEST(CrashHandling, SystemLogGetsOneLine) {
  for (const char *options : {"", "nocrashsyslog"}) {
    TempDir dir;
    Child child = RunChild(dir, {{"KZ", options}}, [&dir] {
      if (unshare(CLONE_NEWNS) != 0) {
        printf("skip=unshare: %s\n", strerror(errno));
        return 0;
      }
      if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
        printf("skip=mount: %s\n", strerror(errno));
        return 0;
      }
      int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      strcpy(address.sun_path, "/dev/log");
      if (log < 0 || bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        printf("skip=bind: %s\n", strerror(errno));
        return 0;
      }
      pid_t crasher = fork();
      if (crasher == 0) {
        StartLibrary(dir);
        KzTestCrashInNamedFunction();
        _exit(0);
      }
      int status = 0;
      waitpid(crasher, &status, 0);
      char line[2048];
      ssize_t length = recv(log, line, sizeof line, MSG_DONTWAIT);
      printf("crasher=%d\nsignal=%d\nline=%.*s\n", crasher, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
             static_cast<int>(length > 0 ? length : 0), line);
      return 0;
    });
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    if (child.out.rfind("skip=", 0) == 0) GTEST_SKIP() << "needs a private mount namespace: " << child.out;
    std::string crasher = child.out.substr(8, child.out.find('\n') - 8);
    EXPECT_TRUE(Contains(child.out, "\nsignal=11\n")) << child.out;
    std::string line = child.out.substr(child.out.find("\nline=") + 6);
    if (*options == '\0')
      EXPECT_EQ(line, "<10>crash_test[" + crasher + "]: crash: SIGSEGV (0xC0000005 access violation) at 0x0, thread " +
                          crasher + " (" + crasher + "); crash files in " + dir.path() + "\n");
    else
      EXPECT_EQ(line, "\n") << options;
  }
}

TEST(CrashHandling, KeptHandlerOfTheProgramRuns) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    signal(SIGSEGV, [](int) { _exit(42); });
    KZLibKeepGlobalExceptionHandler();
    StartLibrary(dir);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Exited(42)) << child.Describe();
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{});
}

TEST(CrashHandling, EmbeddedLibraryWritesNoFiles) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    signal(SIGSEGV, SIG_DFL);
    KZLibSetEmbedded();
    StartLibrary(dir);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{});
}

// ---- protected calls -------------------------------------------------------------------------

TEST(ProtectedCall, ReturnsTheResultAndNests) {
  TempDir dir;
  Child child = RunChild(dir, {}, [] {
    int64_t inner = 0;
    int64_t outer = KZRunProtected_(
        [](void *argument) -> int64_t {
          *static_cast<int64_t *>(argument) =
              KZRunProtected_([](void *) -> int64_t { return -7; }, nullptr, nullptr);
          return 1234567890123ll;
        },
        &inner, WriteReport);
    printf("outer=%lld inner=%lld\n", static_cast<long long>(outer), static_cast<long long>(inner));
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(child.out, "outer=1234567890123 inner=-7\n");
}

TEST(ProtectedCall, CrashIsReportedThenTheProcessAborts) {
  TempDir dir;
  g_reportPath = dir / "report";
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, WriteReport);
    printf("returned\n");
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  EXPECT_EQ(child.out, "");
  std::string report = ReadFile(g_reportPath);
  EXPECT_EQ(report.substr(0, report.find("\ntext=")), "code=0xdc0000005") << report;
  EXPECT_TRUE(Contains(report, "\ntext=yes\n")) << report;
  std::string stackText = report.substr(report.find("text=yes\n") + 9);
  EXPECT_LT(stackText.size(), 512u);
  EXPECT_EQ(stackText.rfind("  #0  0x", 0), 0u) << stackText;
  EXPECT_TRUE(Contains(stackText, "KzTestCrashInNamedFunction")) << stackText;
  EXPECT_EQ(stackText.back(), '\n');  // whole lines only
  // The crash files are written first.
  EXPECT_TRUE(Contains(ReadFile(LogName(dir, child.pid)), "Protected call: yes\n"));
  EXPECT_TRUE(Exists(DumpName(dir, child.pid)));
}

TEST(ProtectedCall, WorksWithoutLibraryStartUp) {
  TempDir dir;
  g_reportPath = dir / "report";
  Child child = RunChild(dir, {}, [&dir] {
    signal(SIGSEGV, SIG_DFL);
    KZRunProtectedSetPath(dir.path().c_str());
    KZRunProtected_(CrashingFunction, nullptr, WriteReport);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  std::string report = ReadFile(g_reportPath);
  EXPECT_EQ(report.rfind("code=0xdc0000005\ntext=yes\n", 0), 0u) << report;
}

TEST(ProtectedCall, CrashOutsideAfterwardsIsLeftToThePreviousHandler) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    signal(SIGSEGV, [](int) { _exit(43); });
    KZRunProtectedSetPath(dir.path().c_str());
    KZRunProtected_([](void *) -> int64_t { return 0; }, nullptr, WriteReport);
    KzTestCrashInNamedFunction();
    return 0;
  });
  EXPECT_TRUE(child.Exited(43)) << child.Describe();
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{});
}

TEST(ProtectedCall, NoStackTextWithNoCrashStack) {
  TempDir dir;
  g_reportPath = dir / "report";
  Child child = RunChild(dir, {{"KZ", "nocrashstack"}}, [&dir] {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, WriteReport);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  EXPECT_EQ(ReadFile(g_reportPath), "code=0xdc0000005\ntext=null\n");
}

TEST(ProtectedCall, DefaultDispatcherWritesToTheErrorStream) {
  TempDir dir;
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, nullptr);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  std::string pid = std::to_string(child.pid);
  EXPECT_EQ(child.err.rfind("crash_test: critical error 0xDC0000005 (access violation) in a protected call, thread " +
                                pid + " (" + pid + ")\n  #0  0x",
                            0),
            0u)
      << child.err;
  EXPECT_TRUE(Contains(child.err, "KzTestCrashInNamedFunction")) << child.err;
}

TEST(ProtectedCall, StackOverflowIsReported) {
  TempDir dir;
  g_reportPath = dir / "report";
  Child child = RunChild(dir, {{"KZ", "nocrashdump"}}, [&dir] {
    struct rlimit stack = {8 << 20, 8 << 20};
    setrlimit(RLIMIT_STACK, &stack);
    StartLibrary(dir);
    KZRunProtected_([](void *) -> int64_t { return KzTestRecurseForever(0); }, nullptr, WriteReport);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  std::string report = ReadFile(g_reportPath);
  EXPECT_EQ(report.substr(0, report.find('\n')), "code=0xdc00000fd") << report;
  EXPECT_TRUE(Contains(report, "KzTestRecurseForever")) << report;
}

TEST(ProtectedCall, DivideByZeroIsNotTakenAndEndsTheProcess) {
  TempDir dir;
  g_reportPath = dir / "report";
  Child child = RunChild(dir, {}, [&dir] {
    StartLibrary(dir);
    KZRunProtected_([](void *) -> int64_t { return KzTestDivideByZero(); }, nullptr, WriteReport);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGFPE)) << child.Describe();
  EXPECT_FALSE(Exists(g_reportPath));
  EXPECT_TRUE(Contains(ReadFile(LogName(dir, child.pid)), "Exception:      0xC0000094"));
}

TEST(ProtectedCall, GraceTimeEndsAHangingReport) {
  TempDir dir;
  Child child = RunChild(dir, {{"KZ_HANDLER_GRACE_TIME", "1"}}, [&dir] {
    StartLibrary(dir);
    KZRunProtected_(CrashingFunction, nullptr, [](uint64_t, const char *) {
      for (;;) pause();
    });
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(child.err, "crash_test: crash handler still running after 1 seconds, ending the process\n");
}

}  // namespace
