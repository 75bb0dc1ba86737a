// Crash handling: crash files, protected calls and the grace time. Every crash
// happens in a child process writing to a private temporary directory.
#include <cinttypes>
#include <map>
#include <regex>

#include "child_process.h"
#include "kz/error.h"
#include "kz/init.h"
#include "kz/thread.h"
#include "test_support.h"

#if defined(_WIN32)
#include <windows.h>
// Windows backtraces name functions by the module's exports.
#define KZ_TEST_NAMED __declspec(dllexport)
// Windows reports exceptions, not signals.
#define KZ_SIGNAL_LINE(text) ""
#else
#define KZ_TEST_NAMED
#define KZ_SIGNAL_LINE(text) text
#endif

// The grace time of children that write crash dumps: the system's dump writer
// takes seconds under Wine, tens of seconds on a busy machine, which is no
// fault of the handler (the grace time itself has its own test).
#if defined(_WIN32)
constexpr const char *kDumpGraceTime = "600";
constexpr bool kDumpsAreSlow = true;
#else
constexpr const char *kDumpGraceTime = "30";
constexpr bool kDumpsAreSlow = false;
#endif

// The KZ options and expected crash files of a case. Where dumps are slow,
// the first case of a test checks the dump and the others run without one:
// the dump is the system's writer, the same in every case.
struct Options {
  std::string kz, files;
};
Options WithoutSlowDump(const char *kz, const char *files, bool checksDump) {
  Options options{kz, files};
  if (!kDumpsAreSlow || checksDump || options.files.find("dump") == std::string::npos) return options;
  options.kz += options.kz.empty() ? "nocrashdump" : " nocrashdump";
  options.files = options.files == "dump" ? "" : "log";
  return options;
}

// Named so backtraces can be checked; UBSan would stop before the fault.
extern "C" KZ_TEST_NAMED __attribute__((noinline, no_sanitize_undefined)) void KzTestCrashInNamedFunction(void) {
  volatile int *volatile target = nullptr;
  *target = 42;
}
extern "C" KZ_TEST_NAMED __attribute__((noipa)) int64_t KzTestCallerOfTheCrash(
    void *) {                              // also a protected call's function
  return KzTestCrashInNamedFunction(), 0;  // no tail call: the caller shows in the backtrace
}
extern "C" KZ_TEST_NAMED __attribute__((noinline, no_sanitize_undefined)) int KzTestDivideByZero(void) {
  volatile int zero = 0, one = 1;
  return one / zero;
}
#pragma GCC diagnostic ignored "-Winfinite-recursion"
extern "C" KZ_TEST_NAMED __attribute__((noinline)) int KzTestRecurseForever(int depth) {
  volatile char frame[512] = {static_cast<char>(depth)};
  return KzTestRecurseForever(depth + 1) + frame[depth % 512];
}

namespace {
using namespace kztest;

// Whether text holds part (or, with wanted false, does not), naming both when that fails.
testing::AssertionResult Has(const std::string &text, const std::string &part, bool wanted = true) {
  const bool found = text.find(part) != std::string::npos;
  return (found == wanted ? testing::AssertionSuccess() : testing::AssertionFailure())
         << '"' << part << (found ? "\" found in\n" : "\" missing from\n") << text;
}
std::string LogName(pid_t pid) { return "ERRORLOG-" + std::to_string(pid) + ".TXT"; }
std::string DumpName(pid_t pid) { return "CRASH-" + std::to_string(pid) + ".DMP"; }
// The crash files of pid in dir: "dump log", "dump", "log" or "", or "?" and the names when dir holds anything else.
std::string FilesIn(const TempDir &dir, pid_t pid) {
  const bool dump = std::filesystem::exists(dir / DumpName(pid)), log = std::filesystem::exists(dir / LogName(pid));
  if (std::distance(std::filesystem::directory_iterator(dir.path()), {}) != dump + log) {
    std::string others = "?";
    for (const auto &entry : std::filesystem::directory_iterator(dir.path())) others += " " + entry.path().filename().string();
    return others;
  }
  return dump && log ? "dump log" : dump ? "dump" : log ? "log" : "";
}
std::string g_dir;  // the directory of the case running, for its child
void StartLibrary() { KZLibInit("/opt/kz/bin/crash_test"), KZRunProtectedSetPath(g_dir.c_str()); }
void StartAndCrash() { StartLibrary(), KzTestCallerOfTheCrash(nullptr); }
// The program handles crashes itself: it exits with the signal's number.
void HandleCrashesItself() {
#if defined(_WIN32)
  SetUnhandledExceptionFilter([](EXCEPTION_POINTERS *) -> LONG { _exit(SIGSEGV); });
#else
  signal(SIGSEGV, _exit);
#endif
}

// Dump records by type: "KZCRASH\0", version 1, header size 16, then records
// (type, length, data) up to type 0, which ends the file. Empty if the layout is broken.
std::map<uint32_t, std::string> ReadDump(const std::string &bytes) {
  std::map<uint32_t, std::string> records;
  // The type is four bytes; 1 to start with when the header is right.
  size_t at = 16, length = 0, type = bytes.compare(0, 16, std::string("KZCRASH\0\1\0\0\0\20\0\0\0", 16)) == 0;
  for (; type != 0 && at + 16 <= bytes.size() && length <= bytes.size(); at += 16 + length)
    memcpy(&type, &bytes[at], 4), memcpy(&length, &bytes[at + 8], 8), records[type] = bytes.substr(at + 16, length);
  return type == 0 && at == bytes.size() ? records : decltype(records)();
}
// The i-th 64-bit word of d, 0 past the end.
auto Word(const std::string &d, size_t i) {
  uint64_t w = 0;
  return d.size() / 8 > i ? memcpy(&w, &d[8 * i], 8), w : 0;
}

// Each crash ends the process, by its signal or a kept handler's exit, and leaves the files the options pick (where
// SetPath put them, else in the working directory). The log and the dump name the signal, the exception code and the
// thread; nocrashstack drops the backtrace. Silenced assertions, a kept handler, an embedded library or a protected
// call without start-up leave crashes to the program.
TEST(CrashHandling, CrashesLeaveTheChosenFilesAndEndTheProcess) {
  struct Case {
    const char *kz;
    void (*body)();
    int end;
    const char *files, *text{};
    uint32_t code{};
    bool thread{};
  };
  const Case cases[] = {
      // end: a signal, or minus an exit status (the handlers set exit with the signal's number)
      {"", StartAndCrash, SIGSEGV, "dump log",
       KZ_SIGNAL_LINE(
           "Signal:         11 SIGSEGV, code 1 SEGV_MAPERR\n") "Exception:      0xC0000005 access violation\nFault address:  0x0000000000000000\nProtected call: no\n",
       0xC0000005},
      {"", [] { StartLibrary(), KzTestDivideByZero(); }, SIGFPE, "dump log",
       KZ_SIGNAL_LINE("Signal:         8 SIGFPE, "
                      "code 1 FPE_INTDIV\n") "Exception:      0xC0000094 integer divide by zero\n",
       0xC0000094},
      {"", [] { StartLibrary(), std::thread(KzTestCrashInNamedFunction).join(); }, SIGSEGV, "dump log",
       "0xC0000005 access violation\nFault address:  0x0000000000000000\nProtected call: no\n", 0xC0000005, true},
      {"nocrashstack", StartAndCrash, SIGSEGV, "dump log", "Backtrace:\n  (not collected: nocrashstack)\n", 0xC0000005},
      {"nocrashlog", StartAndCrash, SIGSEGV, "dump"},
      {"nocrashdump", StartAndCrash, SIGSEGV, "log"},
      {"",
       [] {
         if (!chdir(g_dir.c_str())) KZLibInit(nullptr), KzTestCrashInNamedFunction();
       },
       SIGSEGV, "dump log"},
      {"", [] { StartLibrary(), KZAssertSetVerbosity(0), KzTestCallerOfTheCrash(nullptr); }, SIGSEGV, ""},
      {"", [] { HandleCrashesItself(), KZLibKeepGlobalExceptionHandler(), StartAndCrash(); }, -SIGSEGV, ""},
      {"", [] { signal(SIGSEGV, SIG_DFL), KZLibSetEmbedded(), StartAndCrash(); }, SIGSEGV, ""},
      {"",
       [] {
         HandleCrashesItself(), KZRunProtectedSetPath(g_dir.c_str());
         KZRunProtected_([](void *) -> int64_t { return 0; }, nullptr, nullptr), KzTestCallerOfTheCrash(nullptr);
       },
       -SIGSEGV, ""},
  };
  for (const Case &c : cases) {
    TempDir dir;
    const Options options = WithoutSlowDump(c.kz, c.files, &c == cases);
    Child child = RunChild(dir, {{"KZ", options.kz.c_str()}, {"KZ_HANDLER_GRACE_TIME", kDumpGraceTime}},
                           [&] {  // prints the main thread's id, then crashes
                             return g_dir = dir.path(), printf("%llu", static_cast<unsigned long long>(ThreadId())),
                                    fflush(stdout), c.body(), 0;
                           });
    const std::string pid = std::to_string(child.pid), log = ReadFile(dir / LogName(child.pid));
    SCOPED_TRACE(testing::Message() << "case " << &c - cases << " (KZ=" << c.kz << ")");
    EXPECT_EQ(child.Ending(), c.end > 0 ? SignalEnding(c.end) : ExitEnding(-c.end)) << child.Describe();
    EXPECT_EQ(FilesIn(dir, child.pid), options.files);
    if (!c.text) continue;
    for (const char *line : {c.text, "Program:        crash_test\n", "Library:        kzlib 6.3.20826", "\nRegisters:"})
      EXPECT_TRUE(Has(log, line));
    // The crashing thread is the main one unless the case crashes in another; the backtrace unless nocrashstack.
    EXPECT_TRUE(Has(log, "Process:        " + pid + "\n"));
    EXPECT_TRUE(Has(log, "Thread:         " + child.out + " (", !c.thread));
    EXPECT_TRUE(Has(log, "  #0  0x", !*c.kz));
#if defined(_WIN32)
    // A mini-dump; the backtrace names the crashing function, in the test program, then its caller.
    if (options.files == "dump log") EXPECT_EQ(ReadFile(dir / DumpName(child.pid)).substr(0, 4), "MDMP");
    if (c.body == StartAndCrash && !*c.kz) {
      EXPECT_TRUE(std::regex_search(log, std::regex("\nBacktrace:\n  #0  0x[^\n]*KzTestCrashInNamedFunction[^\n]* in "
                                                    "[^\n]*crash_test\\.exe\\+0x[\\s\\S]*KzTestCallerOfTheCrash")))
          << log;
    }
    continue;
#endif
    auto records = ReadDump(ReadFile(dir / DumpName(child.pid)));
    EXPECT_EQ(records.count(8), *c.kz ? 0u : 1u);
    // Twelve words: the process id, the signal, the exception code, not in a protected call; the
    // program and the memory map; the saved stack holds the stack pointer.
    const std::string &crash = records[1], &stack = records[7];
    EXPECT_EQ(crash.size(), 12u * 8);
    EXPECT_EQ((std::vector{Word(crash, 0), Word(crash, 2), Word(crash, 4), Word(crash, 10)}),
              (std::vector<uint64_t>{uint64_t(child.pid), uint64_t(c.end), c.code, 0}));
    EXPECT_EQ(records[4], "crash_test");
    EXPECT_TRUE(Has(records[6], "crash_test"));
    EXPECT_TRUE(Has(records[6], "[stack]"));
    EXPECT_GT(stack.size(), 8u);
    EXPECT_LT(Word(crash, 7) - Word(stack, 0), stack.size() - 8) << "stack pointer outside the saved stack";
    if (*c.kz) continue;
    // The backtrace from the program counter (its length in word 11): the crashing function with its line, then
    // its caller.
    EXPECT_EQ(Word(records[8], 0), Word(crash, 6));
    EXPECT_EQ(Word(crash, 11), records[8].size() / 8);
    if (c.body == StartAndCrash) {
      EXPECT_TRUE(std::regex_search(log, std::regex("\nBacktrace:\n  #0  0x[^\n]*KzTestCrashInNamedFunction[^\n]*"
                                                    "crash_test\\.cpp:[\\s\\S]*KzTestCallerOfTheCrash")))
          << log;
    }
  }
}

void WriteReport(uint64_t code, const char *text) {  // async-signal-safe, straight to the output's descriptor
  char head[64];
  const int length = snprintf(head, sizeof head, "code=0x%" PRIx64 "\ntext=%s", code, text ? "" : "(null)");
  if (write(1, head, static_cast<size_t>(length)) < 0 || (text && write(1, text, strlen(text)) < 0)) _exit(98);
}

// A protected call's crash is logged, reported as 0xD00000000 | code with whole
// backtrace lines, then aborts, with or without start-up; SIGFPE is not taken.
TEST(ProtectedCall, CrashIsReportedThenTheProcessAborts) {
  const struct {
    const char *options, *report, *frame;
    bool init;
    KZProtectedFunction run;
    int signal;
  } cases[] = {
      {"", "code=0xdc0000005\ntext=  #0  0x", "KzTestCrashInNamedFunction", true, KzTestCallerOfTheCrash, SIGABRT},
      {"", "code=0xdc0000005\ntext=  #0  0x", "KzTestCrashInNamedFunction", false, KzTestCallerOfTheCrash, SIGABRT},
      {"nocrashstack", "code=0xdc0000005\ntext=(null)", nullptr, true, KzTestCallerOfTheCrash, SIGABRT},
      {"nocrashdump", "code=0xdc00000fd\ntext=  #0  0x", "KzTestRecurseForever", true,
       [](void *) -> int64_t { return KzTestRecurseForever(0); }, SIGABRT},
      {"", "", nullptr, true, [](void *) -> int64_t { return KzTestDivideByZero(); }, SIGFPE},
  };
  for (const auto &c : cases) {
    TempDir dir;
    const Options options =
        WithoutSlowDump(c.options, strcmp(c.options, "nocrashdump") ? "dump log" : "log", !c.init);
    Child child = RunChild(dir, {{"KZ", options.kz.c_str()}, {"KZ_HANDLER_GRACE_TIME", kDumpGraceTime}}, [&] {
#if !defined(_WIN32)
      const rlimit stack = {8 << 20, 8 << 20};                    // to overflow
      setrlimit(RLIMIT_STACK, &stack), signal(SIGSEGV, SIG_DFL);  // the sanitizers may have their own handler
#endif
      c.init ? KZLibInit("/opt/kz/bin/crash_test") : void(), KZRunProtectedSetPath(dir.path().c_str());
      return KZRunProtected_(c.run, nullptr, WriteReport), puts("returned"), 0;
    });
    const std::string &report = child.out, log = ReadFile(dir / LogName(child.pid));
    SCOPED_TRACE(testing::Message() << "case " << &c - cases);
    EXPECT_EQ(child.Ending(), SignalEnding(c.signal)) << child.Describe();
    EXPECT_TRUE(Has(report, "returned", false));
    EXPECT_EQ(*c.report ? report.substr(0, strlen(c.report)) : report, c.report);
    EXPECT_TRUE(Has(log, *c.report ? "Protected call: yes\n" : "Exception:      0xC0000094"));
    EXPECT_EQ(FilesIn(dir, child.pid), options.files);
    if (!c.frame) continue;
    EXPECT_TRUE(Has(report, c.frame));
    EXPECT_LT(report.size(), 512u + 24) << report;
    EXPECT_EQ(report.empty() ? '\0' : report.back(), '\n') << report;
  }
}

TEST(ProtectedCall, WithoutAReportFunctionTheReportGoesToStderr) {
  TempDir dir;
  g_dir = dir.path();
  Child child = RunChild(dir, {{"KZ_HANDLER_GRACE_TIME", kDumpGraceTime}}, [] {
    return StartLibrary(),
           printf("%lld",
                  static_cast<long long>(KZRunProtected_(
                      [](void *) -> int64_t {  // nested
                        return KZRunProtected_([](void *) -> int64_t { return 1234567890123ll; }, nullptr, nullptr) - 1;
                      },
                      nullptr, nullptr))),
           fflush(stdout), KZRunProtected_(KzTestCallerOfTheCrash, nullptr, nullptr), 0;
  });
  EXPECT_EQ(child.Ending(), SignalEnding(SIGABRT)) << child.Describe();
  EXPECT_EQ(child.out, "1234567890122");
#if defined(_WIN32)  // the main thread's id is not the process id
  EXPECT_TRUE(std::regex_search(child.err, std::regex("^crash_test: critical error 0xDC0000005 \\(access violation\\) "
                                                      "in a protected call, thread ([0-9]+) \\(\\1\\)\n  #0  0x")))
      << child.err;
#else
  const std::string pid = std::to_string(child.pid), head =
                                                         "crash_test: critical error 0xDC0000005 (access violation) "
                                                         "in a protected call, thread " +
                                                         pid + " (" + pid + ")\n  #0  0x";
  EXPECT_EQ(child.err.substr(0, head.size()), head);
#endif
  EXPECT_TRUE(Has(child.err, "KzTestCrashInNamedFunction"));
}

TEST(ProtectedCall, AReportFunctionStillRunningAfterTheGraceTimeIsEnded) {
  TempDir dir;
  g_dir = dir.path();
  Child child = RunChild(dir, {{"KZ_HANDLER_GRACE_TIME", "1"}}, [] {
    StartLibrary();
    return KZRunProtected_(KzTestCallerOfTheCrash, nullptr,
                           [](uint64_t, const char *) {
                             for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
                           }),
           0;
  });
  EXPECT_EQ(child.Ending(), SignalEnding(SIGSEGV)) << child.Describe();
  EXPECT_EQ(child.err, "crash_test: crash handler still running after 1 seconds, ending the process\n");
}

}  // namespace
