// Crash handling: crash files, protected calls and the grace time. Every crash
// happens in a forked child writing to a private temporary directory.
#include <algorithm>
#include <cstdint>
#include <map>

#include "kz/error.h"
#include "kz/init.h"
#include "kz/message.h"
#include "child_process.h"
#include "test_support.h"

// Named so backtraces can be checked; UBSan would stop before the fault.
extern "C" __attribute__((noinline, no_sanitize_undefined)) void KzTestCrashInNamedFunction(void) {
  volatile int *volatile target = nullptr; *target = 42;
}
extern "C" __attribute__((noinline)) void KzTestCallerOfTheCrash(void) {
  KzTestCrashInNamedFunction();
  __asm__ volatile("");  // no tail call
}
extern "C" __attribute__((noinline, no_sanitize_undefined)) int KzTestDivideByZero(void) {
  volatile int zero = 0, one = 1; return one / zero;
}
#pragma GCC diagnostic ignored "-Winfinite-recursion"
extern "C" __attribute__((noinline)) int KzTestRecurseForever(int depth) {
  volatile char frame[512] = {static_cast<char>(depth)};
  return KzTestRecurseForever(depth + 1) + frame[depth % 512];
}

namespace {
using namespace kztest;
using Files = std::vector<std::string>;

bool Has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
Files FilesIn(const TempDir &dir) {
  Files names;
  for (const auto &entry : std::filesystem::directory_iterator(dir.path())) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}
std::string LogName(pid_t pid) { return "ERRORLOG-" + std::to_string(pid) + ".TXT"; }
std::string DumpName(pid_t pid) { return "CRASH-" + std::to_string(pid) + ".DMP"; }
void StartLibrary(const TempDir &d) { KZLibInit("/opt/kz/bin/crash_test"), KZRunProtectedSetPath(d.path().c_str()); }
void StartAndCrash(const TempDir &dir) { StartLibrary(dir), KzTestCallerOfTheCrash(); }
void Exit42(int) { _exit(42); }
using Body = void (*)(const TempDir &);
Child RunBody(const TempDir &dir, const Environment &environment, Body body) {
  return RunChild(dir, environment, [&dir, body] { return body(dir), 0; });
}

// Dump records by type: "KZCRASH\0", version 1, header size 16, then records
// (type, length, data) up to type 0. Empty if the layout is broken.
std::map<uint32_t, std::string> ReadDump(const std::string &bytes) {
  std::map<uint32_t, std::string> records;
  uint32_t header[2] = {}, type = 1;
  if (bytes.size() >= 16) memcpy(header, bytes.data() + 8, 8);
  if (bytes.compare(0, 8, std::string("KZCRASH", 8)) != 0 || header[0] != 1 || header[1] != 16) return {};
  for (size_t at = 16, length; type != 0; at += 16 + length) {
    if (at + 16 > bytes.size()) return {};
    memcpy(&type, bytes.data() + at, 4), memcpy(&length, bytes.data() + at + 8, 8);
    if (length > bytes.size() - at - 16) return {};
    records[type] = bytes.substr(at + 16, length);
    if (type == 0 && at + 16 + length != bytes.size()) return {};
  }
  return records;
}
uint64_t Word(const std::string &data, size_t index) {  // 0 past the end
  uint64_t value = 0;
  return (index + 1) * 8 <= data.size() ? memcpy(&value, data.data() + index * 8, 8), value : 0;
}

TEST(CrashHandling, NullDereferenceLeavesLogAndDumpAndEndsWithTheSignal) {
  TempDir dir;
  Child child = RunBody(dir, {}, StartAndCrash);
  const std::string pid = std::to_string(child.pid);
  ASSERT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(FilesIn(dir), (Files{DumpName(child.pid), LogName(child.pid)}));  // moved by SetPath
  std::string log = ReadFile(dir / LogName(child.pid));
  for (const std::string &line : Files{"Program:        crash_test\n", "Process:        " + pid + "\n",
                                       "Thread:         " + pid + " (", "Signal:         11 SIGSEGV, code 1",
                                       "Fault address:  0x0000000000000000\n", "Protected call: no\n",
                                       "Exception:      0xC0000005 access violation\n",
                                       "Library:        kzlib 6.3.20826", "\nRegisters:\n"})
    EXPECT_TRUE(Has(log, line)) << line << " missing from\n" << log;
  size_t first = log.find("\nBacktrace:\n  #0  0x");  // the crashing function with its line, then the caller
  ASSERT_NE(first, std::string::npos) << log;
  std::string firstLine = log.substr(first, log.find('\n', first + 14) - first);
  EXPECT_TRUE(Has(firstLine, "KzTestCrashInNamedFunction") && Has(firstLine, "crash_test.cpp:")) << log;
  EXPECT_TRUE(Has(log.substr(first), "KzTestCallerOfTheCrash")) << log;
  auto records = ReadDump(ReadFile(dir / DumpName(child.pid)));
  for (uint32_t type : {1, 4, 6, 7, 8}) ASSERT_EQ(records.count(type), 1u) << "no record " << type;
  const std::string &crash = records[1], &stack = records[7];
  const uint64_t pc = Word(crash, 6), sp = Word(crash, 7);
  EXPECT_EQ(crash.size(), 12u * 8);
  EXPECT_EQ(Word(crash, 0), static_cast<uint64_t>(child.pid));
  EXPECT_EQ(Word(crash, 5) + Word(crash, 10), 0u);  // fault address, protected call
  EXPECT_EQ(records[4], "crash_test");
  EXPECT_TRUE(Has(records[6], "crash_test") && Has(records[6], "[stack]"));
  EXPECT_TRUE(Word(stack, 0) <= sp && Word(stack, 0) + stack.size() - 8 > sp);
  EXPECT_TRUE(Word(records[8], 0) == pc && Word(crash, 11) == records[8].size() / 8);  // backtrace
}

// Signal, exception code and thread in log and dump; nocrashstack drops the backtrace.
TEST(CrashHandling, OtherCrashesAreRecordedAndEndTheProcess) {
  const struct { const char *options; Body body; int signal; uint32_t code; bool mainThread; const char *inLog; }
  cases[] = {
      {"", [](const TempDir &d) { StartLibrary(d), KzTestDivideByZero(); }, SIGFPE, 0xC0000094, true,
       "0xC0000094 integer divide by zero\n"},
      {"", [](const TempDir &d) { StartLibrary(d), std::thread(KzTestCrashInNamedFunction).join(); }, SIGSEGV,
       0xC0000005, false, "KzTestCrashInNamedFunction"},
      {"nocrashstack", StartAndCrash, SIGSEGV, 0xC0000005, true, "Backtrace:\n  (not collected: nocrashstack)\n"},
  };
  for (const auto &c : cases) {
    TempDir dir;
    Child child = RunBody(dir, {{"KZ", c.options}}, c.body);
    SCOPED_TRACE(c.inLog);
    EXPECT_TRUE(child.Signalled(c.signal)) << child.Describe();
    std::string log = ReadFile(dir / LogName(child.pid));
    EXPECT_TRUE(Has(log, c.inLog)) << log;
    EXPECT_EQ(Has(log, "Thread:         " + std::to_string(child.pid) + " ("), c.mainThread) << log;
    EXPECT_EQ(Has(log, "  #0  0x"), !*c.options) << log;
    auto records = ReadDump(ReadFile(dir / DumpName(child.pid)));
    EXPECT_EQ(Word(records[1], 2), static_cast<uint64_t>(c.signal));
    EXPECT_EQ(Word(records[1], 4), c.code);
    EXPECT_EQ(records.count(8), *c.options ? 0u : 1u);
  }
}

// Options pick the files (in the working directory without SetPath); a kept handler, an embedded library
// or a protected call without start-up leave crashes to the program.
TEST(CrashHandling, WhichFilesAreWritten) {
  const struct { const char *options; Body body; int exitCode; bool log, dump; } cases[] = {  // exit -1: SIGSEGV
      {"nocrashlog", StartAndCrash, -1, false, true},
      {"nocrashdump", StartAndCrash, -1, true, false},
      {"", [](const TempDir &d) {
         if (chdir(d.path().c_str()) == 0) KZLibInit("/opt/kz/bin/crash_test"), KzTestCallerOfTheCrash();
       }, -1, true, true},
      {"", [](const TempDir &d) { StartLibrary(d), KZAssertSetVerbosity(0), KzTestCallerOfTheCrash(); }, -1, 0, 0},
      {"", [](const TempDir &d) { signal(SIGSEGV, Exit42), KZLibKeepGlobalExceptionHandler(), StartAndCrash(d); },
       42, 0, 0},
      {"", [](const TempDir &d) { signal(SIGSEGV, SIG_DFL), KZLibSetEmbedded(), StartAndCrash(d); }, -1, 0, 0},
      {"", [](const TempDir &d) {
         signal(SIGSEGV, Exit42), KZRunProtectedSetPath(d.path().c_str());
         KZRunProtected_([](void *) -> int64_t { return 0; }, nullptr, nullptr), KzTestCallerOfTheCrash();
       }, 42, false, false},
  };
  for (const auto &c : cases) {
    TempDir dir;
    Child child = RunBody(dir, {{"KZ", c.options}}, c.body);
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    EXPECT_TRUE(c.exitCode < 0 ? child.Signalled(SIGSEGV) : child.Exited(c.exitCode)) << child.Describe();
    Files expected;
    if (c.dump) expected.push_back(DumpName(child.pid));
    if (c.log) expected.push_back(LogName(child.pid));
    EXPECT_EQ(FilesIn(dir), expected);
  }
}

std::string g_reportPath;  // where WriteReport writes what it got
void WriteReport(uint64_t code, const char *text) {  // async-signal-safe
  char head[64];
  int length = snprintf(head, sizeof head, "code=0x%llx\ntext=%s", static_cast<unsigned long long>(code),
                        text ? "" : "(null)");
  int fd = open(g_reportPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (write(fd, head, static_cast<size_t>(length)) < 0 || (text && write(fd, text, strlen(text)) < 0)) _exit(98);
  close(fd);
}
int64_t CrashingFunction(void *) { return KzTestCallerOfTheCrash(), 0; }

// A protected call's crash is logged, reported as 0xD00000000 | code with whole
// backtrace lines, then aborts, with or without start-up; SIGFPE is not taken.
TEST(ProtectedCall, CrashIsReportedThenTheProcessAborts) {
  const struct { const char *options; bool startUp; KZProtectedFunction function; int signal;
    const char *report, *inReport; } cases[] = {
      {"", true, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=  #0  0x", "KzTestCrashInNamedFunction"},
      {"", false, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=  #0  0x", "KzTestCrashInNamedFunction"},
      {"nocrashstack", true, CrashingFunction, SIGABRT, "code=0xdc0000005\ntext=(null)", nullptr},
      {"nocrashdump", true, [](void *) -> int64_t { return KzTestRecurseForever(0); }, SIGABRT,
       "code=0xdc00000fd\ntext=  #0  0x", "KzTestRecurseForever"},
      {"", true, [](void *) -> int64_t { return KzTestDivideByZero(); }, SIGFPE, "", nullptr},
  };
  for (const auto &c : cases) {
    TempDir dir;
    g_reportPath = dir / "report";
    Child child = RunChild(dir, {{"KZ", c.options}}, [&] {
      const rlimit stack = {8 << 20, 8 << 20};  // to overflow
      setrlimit(RLIMIT_STACK, &stack), signal(SIGSEGV, SIG_DFL);  // the sanitizers may have their own handler
      if (c.startUp) KZLibInit("/opt/kz/bin/crash_test");
      KZRunProtectedSetPath(dir.path().c_str());
      return KZRunProtected_(c.function, nullptr, WriteReport), puts("returned"), 0;
    });
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    EXPECT_TRUE(child.Signalled(c.signal) && child.out.empty()) << child.Describe();
    std::string report = ReadFile(g_reportPath), log = ReadFile(dir / LogName(child.pid));
    EXPECT_TRUE(Has(log, *c.report ? "Protected call: yes\n" : "Exception:      0xC0000094")) << log;
    EXPECT_EQ(*c.report ? report.substr(0, strlen(c.report)) : report, c.report);
    EXPECT_EQ(access((dir / DumpName(child.pid)).c_str(), F_OK) == 0, strcmp(c.options, "nocrashdump") != 0);
    if (!c.inReport) continue;
    EXPECT_TRUE(Has(report, c.inReport) && report.size() < 512 + 24 && report.back() == '\n') << report;
  }
}

// Without a report function the report goes to stderr; a hanging one is ended after the grace time.
TEST(ProtectedCall, DefaultDispatcherAndGraceTime) {
  TempDir dir;
  Child child = RunBody(dir, {}, [](const TempDir &d) {
    StartLibrary(d), printf("%lld", static_cast<long long>(KZRunProtected_([](void *) -> int64_t {  // nested
      return KZRunProtected_([](void *) -> int64_t { return 1234567890123ll; }, nullptr, nullptr) - 1;
    }, nullptr, nullptr))), fflush(stdout), KZRunProtected_(CrashingFunction, nullptr, nullptr);
  });
  EXPECT_TRUE(child.Signalled(SIGABRT) && child.out == "1234567890122") << child.Describe();
  std::string pid = std::to_string(child.pid);
  EXPECT_EQ(child.err.rfind("crash_test: critical error 0xDC0000005 (access violation) in a protected call, thread " +
                            pid + " (" + pid + ")\n  #0  0x", 0), 0u) << child.err;
  EXPECT_TRUE(Has(child.err, "KzTestCrashInNamedFunction")) << child.err;
  child = RunBody(dir, {{"KZ_HANDLER_GRACE_TIME", "1"}}, [](const TempDir &d) {
    StartLibrary(d), KZRunProtected_(CrashingFunction, nullptr, [](uint64_t, const char *) { for (;;) pause(); });
  });
  EXPECT_TRUE(child.Signalled(SIGSEGV)) << child.Describe();
  EXPECT_EQ(child.err, "crash_test: crash handler still running after 1 seconds, ending the process\n");
}

}  // namespace
