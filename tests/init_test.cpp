// Library start-up: options, program name, start-up handlers, version and
// system identity. KZLibInit runs once per process and changes process-wide
// settings, so every test that calls it does so in a child process and checks
// what the child printed.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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

namespace {

// ---- child processes --------------------------------------------------------------

using kztest::Child;
using kztest::Environment;
using kztest::ReadFile;
using kztest::TempDir;

// Runs body in a forked child with its own temporary directory.
Child RunChild(const Environment &environment, const std::function<int()> &body) {
  TempDir dir;
  return kztest::RunChild(dir, environment, body);
}

// ---- message capture in a child -------------------------------------------------------

// Prints every message as "MSG <level> <text>" on stdout.
void PrintMessage(const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof text, format, args);
  printf("MSG %d %s\n", level, text);
}

std::vector<std::string> Messages(const std::string &out) {
  std::vector<std::string> messages;
  size_t start = 0;
  while (start < out.size()) {
    size_t end = out.find('\n', start);
    if (end == std::string::npos) end = out.size();
    std::string line = out.substr(start, end - start);
    if (line.rfind("MSG ", 0) == 0) messages.push_back(line.substr(4));
    start = end + 1;
  }
  return messages;
}

// Value printed by a child as a line "<key>=<value>".
std::string Value(const std::string &out, const std::string &key) {
  size_t at = out.rfind(key + "=", 0) == 0 ? 0 : out.find("\n" + key + "=");
  if (at == std::string::npos) return "(missing)";
  if (at != 0) at++;
  size_t start = at + key.size() + 1;
  return out.substr(start, out.find('\n', start) - start);
}

// text is one message line: "[YYYY/MM/DD-hh:mm:ss] " then rest.
bool IsStampedLine(const std::string &text, const std::string &rest) {
  const char *shape = "[dddd/dd/dd-dd:dd:dd] ";
  size_t length = strlen(shape);
  if (text.size() != length + rest.size()) return false;
  for (size_t i = 0; i < length; i++) {
    bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == 'd' ? !digit : text[i] != shape[i]) return false;
  }
  return text.compare(length, std::string::npos, rest) == 0;
}

int PrintSwitches() {
  printf("flags=0x%x\n", KZLibGetFlags());
  printf("grace=%u\n", KZLibGetHandlerGraceTime());
  printf("nosync=%d ssl=%d ipstack=%d iphalt=%d\n", KZLibGetSyncOff(), KZLibGetSSLHighEncryption(),
         KZLibGetInvalidParameterStack(), KZLibGetInvalidParameterHalt());
  return 0;
}

// KZLibInit with message capture, then the switches.
int InitAndPrint() {
  KZSetMessageHandler(PrintMessage);
  KZLibInit(nullptr);
  return PrintSwitches();
}

// ---- options -----------------------------------------------------------------------------

TEST(LibInitOptions, DefaultsWithoutEnvironment) {
  Child child = RunChild({}, InitAndPrint);
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "flags"), "0x3f00");
  EXPECT_EQ(Value(child.out, "grace"), "30");
  EXPECT_EQ(Value(child.out, "nosync"), "0 ssl=0 ipstack=0 iphalt=0");
  EXPECT_TRUE(Messages(child.out).empty()) << child.out;
}

TEST(LibInitOptions, EmptyTokensAreSkipped) {
  Child child = RunChild({{"KZ", "nocrashdump,, debugger"}}, InitAndPrint);
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "flags"), "0x6f00");  // 0x1000 cleared, 0x4000 set
  EXPECT_TRUE(Messages(child.out).empty()) << child.out;
}

TEST(LibInitOptions, UnknownTokenIsReportedAtLevelTwo) {
  Child child = RunChild({{"KZ", "crash"}}, InitAndPrint);
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Messages(child.out), std::vector<std::string>{"2 ignored KZ option 'crash'"});
  EXPECT_EQ(Value(child.out, "flags"), "0x3f00");
}

TEST(LibInitOptions, UnknownTokenGoesToTheOutputStreamWithATimeStamp) {
  Child child = RunChild({{"KZ", "crash"}}, [] {
    KZLibInit(nullptr);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_TRUE(IsStampedLine(child.out, "ignored KZ option 'crash'\r\n")) << child.out;
  EXPECT_EQ(child.err, "");
}

TEST(LibInitOptions, EveryTokenIsReadCaseSensitively) {
  Child child = RunChild(
      {{"KZ", "crashdump nocrashlog\tnosync,ssl-high-encryption invalidparameterstack,invalidparameterhalt "
              "debug debugmalloc third Crashlog nocrashstack,nocrashsyslog"}},
      InitAndPrint);
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "flags"), "0x1300");  // 0x800, 0x400, 0x2000 cleared
  EXPECT_EQ(Value(child.out, "nosync"), "1 ssl=1 ipstack=1 iphalt=1");
  EXPECT_EQ(Messages(child.out),
            (std::vector<std::string>{"3 using unsafe nosync mode", "2 ignored KZ option 'Crashlog'"}));
}

TEST(LibInitOptions, LaterTokensWin) {
  Child child = RunChild({{"KZ", "nocrashstack crashstack debugger nodebugger nocrashdump"}}, InitAndPrint);
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "flags"), "0x2f00");
  EXPECT_TRUE(Messages(child.out).empty()) << child.out;
}

TEST(LibInitOptions, GdbVariableAsksForTheDebugger) {
  Child child = RunChild({{"GDB", "gdb"}}, [] {
    KZLibInit(nullptr);
    return PrintSwitches();
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "flags"), "0x7f00");
  // Level 3, no location (the text starts with ':'), before any program name is set.
  EXPECT_TRUE(IsStampedLine(child.err, "kzlib: use KZ=debugger instead of GDB=gdb\r\n")) << child.err;
}

TEST(LibInitOptions, NosyncMessageCarriesTheLibraryLocation) {
  Child child = RunChild({{"KZ", "nosync"}}, [] {
    KZLibInit(nullptr);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  // Level 3 with the library's location: "kzlib/kzlib" shows as its base name.
  const std::string before = "kzlib: \"kzlib:";
  size_t at = child.err.find(before);
  ASSERT_NE(at, std::string::npos) << child.err;
  size_t digits = at + before.size();
  std::string line = child.err.substr(digits, child.err.find_first_not_of("0123456789", digits) - digits);
  EXPECT_FALSE(line.empty()) << child.err;
  EXPECT_TRUE(IsStampedLine(child.err, before + line + "\": using unsafe nosync mode\r\n")) << child.err;
}

TEST(LibInitOptions, InvalidGraceTimeIsIgnored) {
  for (const char *text : {"12x", "", "-1", "+5", " 5", "4294967296", "99999999999999999999"}) {
    Child child = RunChild({{"KZ_HANDLER_GRACE_TIME", text}}, InitAndPrint);
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    EXPECT_EQ(Value(child.out, "grace"), "30") << text;
    EXPECT_EQ(Messages(child.out),
              std::vector<std::string>{"2 ignored invalid KZ_HANDLER_GRACE_TIME='" + std::string(text) + "'"});
  }
}

TEST(LibInitOptions, ValidGraceTimeIsTaken) {
  for (const auto &[text, expected] : std::vector<std::pair<const char *, const char *>>{
           {"45", "45"}, {"0", "0"}, {"007", "7"}, {"4294967295", "4294967295"}}) {
    Child child = RunChild({{"KZ_HANDLER_GRACE_TIME", text}}, InitAndPrint);
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    EXPECT_EQ(Value(child.out, "grace"), expected) << text;
    EXPECT_TRUE(Messages(child.out).empty()) << child.out;
  }
}

// ---- program name and executable -------------------------------------------------------

TEST(LibInitProgramName, BaseNameAfterEitherSeparator) {
  Child child = RunChild({}, [] {
    printf("before=%s\n", KZProgramName());
    KZLibInit("C:\\dir\\server.exe");
    printf("backslash=%s\n", KZProgramName());
    KZLibInit("/usr/bin/tool");
    printf("slash=%s\n", KZProgramName());
    KZLibInit("a/b\\c/mixed");
    printf("mixed=%s\n", KZProgramName());
    KZLibInit("plain");
    printf("plain=%s\n", KZProgramName());
    KZLibInit(nullptr);
    printf("null=%s\n", KZProgramName());
    KZLibInit("/trailing/");
    printf("trailing=[%s]\n", KZProgramName());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "before"), "kzlib");
  EXPECT_EQ(Value(child.out, "backslash"), "server.exe");
  EXPECT_EQ(Value(child.out, "slash"), "tool");
  EXPECT_EQ(Value(child.out, "mixed"), "mixed");
  EXPECT_EQ(Value(child.out, "plain"), "plain");
  EXPECT_EQ(Value(child.out, "null"), "plain");
  EXPECT_EQ(Value(child.out, "trailing"), "[]");
}

TEST(LibInitProgramName, UsedInErrorMessages) {
  Child child = RunChild({}, [] {
    KZLibInit("/opt/app/bin/frobnicate");
    KZMessage(3, ":after start-up");
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_NE(child.err.find("] frobnicate: after start-up\r\n"), std::string::npos) << child.err;
}

TEST(LibInitProgramName, KeepsAtMost260Characters) {
  Child child = RunChild({}, [] {
    std::string path = "/some/dir/" + std::string(300, 'n');
    KZLibInit(path.c_str());
    printf("length=%zu\n", strlen(KZProgramName()));
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "length"), "260");
}

TEST(LibInitExecutable, MatchesTheRunningProgram) {
  char expected[4096];
  ssize_t length = readlink("/proc/self/exe", expected, sizeof expected - 1);
  ASSERT_GT(length, 0);
  expected[length] = '\0';
  if (length >= 260) {  // a deep build directory: the path is refused
    char buffer[4096];
    KZErrorClear();
    EXPECT_EQ(KZExecutable(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(KZGetLastError(), ENAMETOOLONG);
    KZErrorClear();
    return;
  }

  char buffer[261];
  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(KZExecutable(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, expected);

  // Exactly large enough, then one byte short.
  std::vector<char> exact(static_cast<size_t>(length) + 1);
  EXPECT_EQ(KZExecutable(exact.data(), exact.size()), exact.data());
  EXPECT_STREQ(exact.data(), expected);
  KZErrorClear();
  EXPECT_EQ(KZExecutable(exact.data(), exact.size() - 1), nullptr);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ERANGE);
  EXPECT_EQ(KZExecutable(nullptr, 0), nullptr);
  KZErrorClear();
}

// ---- start-up handlers --------------------------------------------------------------------

std::string g_calls;

TEST(LibInitHandlers, RunOnceInOrderAtTheEnd) {
  Child child = RunChild({{"KZ", "nosync"}}, [] {
    KZSetMessageHandler(PrintMessage);
    int first = KZLibInitAddHandler([] { g_calls += 'a'; });
    int second = KZLibInitAddHandler([] {
      // Runs after the options were read and the start time recorded.
      g_calls += KZLibGetSyncOff() ? 'b' : '?';
      g_calls += KZLibGetStartTime() != 0 ? 'b' : '?';
    });
    int third = KZLibInitAddHandler([] { g_calls += 'c'; });
    printf("index=%d,%d,%d\n", first, second, third);
    KZLibInit("first");
    KZLibInit("second");
    printf("calls=%s\n", g_calls.c_str());
    printf("name=%s\n", KZProgramName());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "index"), "0,1,2");
  EXPECT_EQ(Value(child.out, "calls"), "abbc");
  EXPECT_EQ(Value(child.out, "name"), "second");
}

TEST(LibInitHandlers, HandlerMayCallInitAgain) {
  Child child = RunChild({}, [] {
    KZLibInitAddHandler([] {
      KZLibInit("/from/handler");
      g_calls += 'h';
    });
    KZLibInit("/from/main");
    printf("calls=%s name=%s\n", g_calls.c_str(), KZProgramName());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "calls"), "h name=main");
}

TEST(LibInitHandlers, NinthHandlerFailsTheAssertion) {
  Child child = RunChild({}, [] {
    for (int i = 0; i < 8; i++) printf("%d;", KZLibInitAddHandler([] {}));
    printf("\n");
    fflush(stdout);
    KZLibInitAddHandler([] {});
    printf("returned\n");
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  EXPECT_EQ(child.out, "0;1;2;3;4;5;6;7;\n");
  EXPECT_EQ(child.err, "'kzlibInitHandlersCount < KZLIB_INIT_MAX_HANDLERS' failed at kzlib/kzlib:604\n");
}

TEST(LibInitConcurrency, ManyThreadsStartTheLibraryOnce) {
  Child child = RunChild({}, [] {
    static std::atomic<int> runs{0};
    static std::atomic<bool> go{false};
    KZLibInitAddHandler([] {
      runs++;
      // Keep the start-up busy so that other threads arrive while it runs.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    std::atomic<int> sawFinished{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++) {
      threads.emplace_back([&sawFinished] {
        while (!go.load()) std::this_thread::yield();
        KZLibInit("threaded");
        // Nobody returns before the start-up has finished.
        if (runs.load() == 1) sawFinished++;
      });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    printf("runs=%d finished=%d\n", runs.load(), sawFinished.load());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "runs"), "1 finished=16");
}

// ---- process-wide settings -----------------------------------------------------------------

bool IsDefault(int signal) {
  struct sigaction action;
  sigaction(signal, nullptr, &action);
  return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL;
}

void SetDefault(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
}

void CustomHandler(int) {}

TEST(LibInitProcess, SigpipeIsIgnoredAndCrashSignalsHandled) {
  Child child = RunChild({}, [] {
    for (int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) SetDefault(signal);
    KZLibInit(nullptr);
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    printf("sigpipe=%s\n", pipe.sa_handler == SIG_IGN ? "ignored" : "other");
    for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) {
      struct sigaction action;
      sigaction(signal, nullptr, &action);
      printf("%d=%s%s\n", signal, (action.sa_flags & SA_SIGINFO) ? "siginfo" : "plain",
             (action.sa_flags & SA_ONSTACK) ? ",onstack" : "");
    }
    stack_t alternate;
    sigaltstack(nullptr, &alternate);
    printf("altstack=%s\n", (alternate.ss_flags & SS_DISABLE) ? "none" : "set");
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "sigpipe"), "ignored");
  for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS})
    EXPECT_EQ(Value(child.out, std::to_string(signal)), "siginfo,onstack") << signal;
  EXPECT_EQ(Value(child.out, "altstack"), "set");
}

TEST(LibInitProcess, SigpipeHandlerOfTheProgramIsKept) {
  Child child = RunChild({}, [] {
    signal(SIGPIPE, CustomHandler);
    KZLibInit(nullptr);
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    printf("kept=%d\n", pipe.sa_handler == CustomHandler);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "kept"), "1");
}

TEST(LibInitProcess, EmbeddedLibraryLeavesSignalsAlone) {
  Child child = RunChild({}, [] {
    for (int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) SetDefault(signal);
    KZLibSetEmbedded();
    KZLibInit(nullptr);
    int untouched = 0;
    for (int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) untouched += IsDefault(signal);
    printf("untouched=%d\n", untouched);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "untouched"), "6");
}

TEST(LibInitProcess, KeepGlobalExceptionHandlerKeepsInstalledHandlers) {
  Child child = RunChild({}, [] {
    for (int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) SetDefault(signal);
    signal(SIGBUS, CustomHandler);
    signal(SIGFPE, SIG_IGN);
    KZLibKeepGlobalExceptionHandler();
    KZLibInit(nullptr);
    struct sigaction bus, fpe;
    sigaction(SIGBUS, nullptr, &bus);
    sigaction(SIGFPE, nullptr, &fpe);
    printf("bus=%d fpe=%d\n", bus.sa_handler == CustomHandler, fpe.sa_handler == SIG_IGN);
    printf("segv=%d\n", IsDefault(SIGSEGV) ? 0 : 1);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "bus"), "1 fpe=1");
  EXPECT_EQ(Value(child.out, "segv"), "1");  // a default action is replaced
}

TEST(LibInitProcess, WithoutKeepInstalledHandlersAreReplaced) {
  Child child = RunChild({}, [] {
    signal(SIGBUS, CustomHandler);
    KZLibInit(nullptr);
    struct sigaction bus;
    sigaction(SIGBUS, nullptr, &bus);
    printf("replaced=%d\n", (bus.sa_flags & SA_SIGINFO) && bus.sa_handler != CustomHandler);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "replaced"), "1");
}

// ---- version and identity -----------------------------------------------------------------

TEST(LibVersion, NumbersAndDataItems) {
  EXPECT_EQ(KZVersionMajor(), 6);
  EXPECT_EQ(KZVersionMinor(), 3);
  EXPECT_EQ(KZVersionBuild(), 20826);
  EXPECT_EQ(KZVersionBranchBuild(), 0);
  EXPECT_EQ(kzlib_major, 6);
  EXPECT_EQ(kzlib_minor, 3);
  EXPECT_EQ(kzlib_build, 20826);
  EXPECT_EQ(kzlib_branchbuild, 0);
  EXPECT_EQ(KZVersionBranch(), kzlib_branch);
}

TEST(LibVersion, StringWithOrWithoutBranch) {
  if (kzlib_branch == 0)
    EXPECT_STREQ(KZVersionString(), "6.3.20826");
  else
    EXPECT_EQ(std::string(KZVersionString()), "6.3.20826." + std::to_string(kzlib_branch));
  EXPECT_EQ(KZVersionString(), KZVersionString());  // one stored string
}

TEST(LibVersion, Architecture) {
#if defined(__x86_64__) && defined(__linux__)
  EXPECT_STREQ(KZArchitecture(), "amd64-linux");
#else
  EXPECT_NE(strchr(KZArchitecture(), '-'), nullptr);
#endif
}

TEST(LibIdentity, KernelVersionFromUname) {
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  int major = 0, minor = 0;
  ASSERT_EQ(sscanf(names.release, "%d.%d", &major, &minor), 2);
  EXPECT_EQ(KernelVersionMajor(), major);
  EXPECT_EQ(KernelVersionMinor(), minor);
  EXPECT_EQ(std::string(KernelVersionString()),
            std::string(names.sysname) + " " + names.release + " " + names.version);
}

TEST(LibIdentity, HostName) {
  char expected[256] = "";
  if (gethostname(expected, sizeof expected) != 0 || !expected[0]) strcpy(expected, "localhost");
  EXPECT_STREQ(HostName(), expected);
}

TEST(LibIdentity, StartTimeIsRecordedOnce) {
  Child child = RunChild({}, [] {
    printf("before=%llu\n", static_cast<unsigned long long>(KZLibGetStartTime()));
    time_t low = time(nullptr);
    KZLibInit(nullptr);
    time_t high = time(nullptr);
    uint64_t start = KZLibGetStartTime();
    KZLibInit(nullptr);
    printf("within=%d same=%d\n", start >= static_cast<uint64_t>(low) && start <= static_cast<uint64_t>(high),
           start == KZLibGetStartTime());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(Value(child.out, "before"), "0");
  EXPECT_EQ(Value(child.out, "within"), "1 same=1");
}

TEST(LibCrashFiles, DirectoryNameTooLongIsRefused) {
  std::string longName(5000, 'd');
  KZErrorClear();
  EXPECT_EQ(KZRunProtectedSetPath(longName.c_str()), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID);
  EXPECT_STREQ(KZErrorMessage(), "crash file directory too long");
  KZErrorClear();
  EXPECT_EQ(KZRunProtectedSetPath("."), 1);
  EXPECT_EQ(KZRunProtectedSetPath(nullptr), 1);
}

}  // namespace
