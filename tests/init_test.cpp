// Library start-up: options, program name, start-up handlers, version and
// system identity. KZLibInit runs once per process and changes process-wide
// settings, so every test that calls it does so in a child process and checks
// what the child printed.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kz/error.h"
#include "kz/init.h"
#include "kz/message.h"
#include "child_process.h"
#include "test_support.h"

namespace {

using kztest::Child;
using kztest::RunChild;
using kztest::Value;

// "[YYYY/MM/DD-hh:mm:ss] ", the stamp of a message line, as a pattern.
const std::string kStamp = R"(\[\d{4}/\d\d/\d\d-\d\d:\d\d:\d\d\] )";

// Prints every message as "MSG <level> <text>" on stdout.
void PrintMessage(const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof text, format, args);
  printf("MSG %d %s\n", level, text);
}

std::vector<std::string> Messages(const std::string &out) {
  std::vector<std::string> messages;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("MSG ", 0) == 0) messages.push_back(line.substr(4));
  return messages;
}

// KZLibInit with message capture, then the switches.
int InitAndPrint() {
  KZSetMessageHandler(PrintMessage);
  KZLibInit(nullptr);
  printf("flags=0x%x\ngrace=%u\n", KZLibGetFlags(), KZLibGetHandlerGraceTime());
  printf("switches=%d%d%d%d\n", KZLibGetSyncOff(), KZLibGetSSLHighEncryption(), KZLibGetInvalidParameterStack(),
         KZLibGetInvalidParameterHalt());
  return 0;
}

// ---- options -----------------------------------------------------------------------------

TEST(LibInitOptions, TokensFlagsSwitchesAndMessages) {
  const struct {
    kztest::Environment environment;
    const char *flags, *switches;
    std::vector<std::string> messages;
  } cases[] = {
      {{}, "0x3f00", "0000", {}},
      {{{"KZ", "nocrashdump,, debugger"}}, "0x6f00", "0000", {}},  // 0x1000 cleared, 0x4000 set
      {{{"KZ", "crash"}}, "0x3f00", "0000", {"2 ignored KZ option 'crash'"}},
      // Case-sensitive; blanks, tabs and commas separate; accepted no-ops.
      {{{"KZ", "crashdump nocrashlog\tnosync,ssl-high-encryption invalidparameterstack,invalidparameterhalt "
               "debug debugmalloc third Crashlog nocrashstack,nocrashsyslog"}},
       "0x1300",
       "1111",
       {"3 using unsafe nosync mode", "2 ignored KZ option 'Crashlog'"}},
      {{{"KZ", "nocrashstack crashstack debugger nodebugger nocrashdump"}}, "0x2f00", "0000", {}},  // later wins
      {{{"GDB", "gdb"}}, "0x7f00", "0000", {"3 :use KZ=debugger instead of GDB=gdb"}},
  };
  for (const auto &c : cases) {
    Child child = RunChild(c.environment, InitAndPrint);
    SCOPED_TRACE(c.environment.empty() ? "(none)" : c.environment[0].second);
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    EXPECT_EQ(Value(child.out, "flags"), c.flags);
    EXPECT_EQ(Value(child.out, "switches"), c.switches);
    EXPECT_EQ(Value(child.out, "grace"), "30");
    EXPECT_EQ(Messages(child.out), c.messages);
  }
}

// The default message handler: level 2 to the output stream with a time
// stamp; level 3 to the error stream with the program name and, unless the
// text starts with ':', the library's location ("kzlib/kzlib" as base name).
TEST(LibInitOptions, MessagesOnTheStandardStreams) {
  Child child = RunChild({{"KZ", "crash,nosync"}, {"GDB", "gdb"}}, [] {
    KZLibInit(nullptr);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_TRUE(std::regex_match(child.out, std::regex(kStamp + "ignored KZ option 'crash'\r\n"))) << child.out;
  EXPECT_TRUE(std::regex_match(child.err, std::regex(kStamp + "kzlib: \"kzlib:\\d+\": using unsafe nosync mode\r\n" +
                                                     kStamp + "kzlib: use KZ=debugger instead of GDB=gdb\r\n")))
      << child.err;
}

TEST(LibInitOptions, GraceTime) {
  const std::pair<const char *, const char *> cases[] = {  // text, seconds taken (null: ignored)
      {"45", "45"}, {"0", "0"}, {"007", "7"}, {"4294967295", "4294967295"}, {"12x", nullptr}, {"", nullptr},
      {"-1", nullptr}, {"+5", nullptr}, {" 5", nullptr}, {"4294967296", nullptr}, {"99999999999999999999", nullptr}};
  for (const auto &[text, expected] : cases) {
    Child child = RunChild({{"KZ_HANDLER_GRACE_TIME", text}}, InitAndPrint);
    ASSERT_TRUE(child.Exited(0)) << child.Describe();
    EXPECT_EQ(Value(child.out, "grace"), expected ? expected : "30") << text;
    std::vector<std::string> message;
    if (!expected) message.push_back("2 ignored invalid KZ_HANDLER_GRACE_TIME='" + std::string(text) + "'");
    EXPECT_EQ(Messages(child.out), message) << text;
  }
}

// ---- program name and executable -------------------------------------------------------

TEST(LibInitProgramName, BaseNameAfterEitherSeparatorAtMost260Characters) {
  Child child = RunChild({}, [] {
    printf("before=%s\n", KZProgramName());
    const std::string longPath = "/some/dir/" + std::string(300, 'n');
    for (const char *path : {"C:\\dir\\server.exe", "/usr/bin/tool", "a/b\\c/mixed", "plain",
                             static_cast<const char *>(nullptr), "/trailing/", longPath.c_str()}) {
      KZLibInit(path);
      printf("name=[%s]\n", KZProgramName());
    }
    KZLibInit("/opt/app/bin/frobnicate");
    KZMessage(3, ":after start-up");
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(child.out, "before=kzlib\nname=[server.exe]\nname=[tool]\nname=[mixed]\nname=[plain]\nname=[plain]\n"
                       "name=[]\nname=[" + std::string(260, 'n') + "]\n");
  EXPECT_NE(child.err.find("] frobnicate: after start-up\r\n"), std::string::npos) << child.err;
}

TEST(LibInitExecutable, MatchesTheRunningProgram) {
  char expected[4096];
  ssize_t length = readlink("/proc/self/exe", expected, sizeof expected - 1);
  ASSERT_GT(length, 0);
  expected[length] = '\0';
  char buffer[4096];
  KZErrorClear();
  if (length >= 260) {  // a deep build directory: the path is refused
    EXPECT_EQ(KZExecutable(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(KZGetLastError(), ENAMETOOLONG);
    KZErrorClear();
    return;
  }
  // Exactly large enough, then one byte short.
  EXPECT_EQ(KZExecutable(buffer, static_cast<size_t>(length) + 1), buffer);
  EXPECT_STREQ(buffer, expected);
  EXPECT_EQ(KZExecutable(buffer, static_cast<size_t>(length)), nullptr);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ERANGE);
  EXPECT_EQ(KZExecutable(nullptr, 0), nullptr);
  KZErrorClear();
}

// ---- start-up handlers --------------------------------------------------------------------

std::string g_calls;

// Handlers run once, in order, after the options were read and the start time
// recorded; one may call KZLibInit itself. The start time stays fixed.
TEST(LibInitHandlers, RunOnceInOrderAtTheEnd) {
  Child child = RunChild({{"KZ", "nosync"}}, [] {
    printf("before=%llu\n", static_cast<unsigned long long>(KZLibGetStartTime()));
    int first = KZLibInitAddHandler([] { g_calls += 'a'; });
    int second = KZLibInitAddHandler([] {
      g_calls += KZLibGetSyncOff() ? 'b' : '?';
      g_calls += KZLibGetStartTime() != 0 ? 'b' : '?';
      KZLibInit("/from/handler");
    });
    int third = KZLibInitAddHandler([] { g_calls += 'c'; });
    printf("index=%d,%d,%d\n", first, second, third);
    const uint64_t low = static_cast<uint64_t>(time(nullptr));
    KZLibInit("first");
    const uint64_t start = KZLibGetStartTime(), high = static_cast<uint64_t>(time(nullptr));
    printf("name=%s\n", KZProgramName());
    KZLibInit("second");
    printf("calls=%s name=%s\n", g_calls.c_str(), KZProgramName());
    printf("start=%d\n", start >= low && start <= high && KZLibGetStartTime() == start);
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(child.out, "before=0\nindex=0,1,2\nname=first\ncalls=abbc name=second\nstart=1\n");
}

TEST(LibInitHandlers, NinthHandlerFailsTheAssertion) {
  Child child = RunChild({}, [] {
    for (int i = 0; i < 8; i++) printf("%d;", KZLibInitAddHandler([] {}));
    fflush(stdout);
    KZLibInitAddHandler([] {});
    printf("returned\n");
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  EXPECT_EQ(child.out, "0;1;2;3;4;5;6;7;");
  EXPECT_EQ(child.err, "'kzlibInitHandlersCount < KZLIB_INIT_MAX_HANDLERS' failed at kzlib/kzlib:604\n");
}

TEST(LibInitConcurrency, ManyThreadsStartTheLibraryOnce) {
  Child child = RunChild({}, [] {
    static std::atomic<int> runs{0};
    static std::atomic<bool> go{false};
    KZLibInitAddHandler([] {
      runs++;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // others arrive meanwhile
    });
    std::atomic<int> sawFinished{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++)
      threads.emplace_back([&sawFinished] {
        while (!go.load()) std::this_thread::yield();
        KZLibInit("threaded");
        if (runs.load() == 1) sawFinished++;  // nobody returns before the start-up finished
      });
    go = true;
    for (auto &thread : threads) thread.join();
    printf("runs=%d finished=%d\n", runs.load(), sawFinished.load());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(child.out, "runs=1 finished=16\n");
}

// ---- process-wide settings -----------------------------------------------------------------

void CustomHandler(int) {}

void CustomHandlers() {
  signal(SIGPIPE, CustomHandler);
  signal(SIGBUS, CustomHandler);
  signal(SIGFPE, SIG_IGN);
}

// What KZLibInit leaves on SIGPIPE and the crash signals, after setup.
std::string SignalsAfterStartUp(const std::function<void()> &setup) {
  Child child = RunChild({}, [&setup] {
    for (int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) ::signal(signal, SIG_DFL);
    setup();
    KZLibInit(nullptr);
    for (int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS}) {
      struct sigaction action;
      sigaction(signal, nullptr, &action);
      const bool handled = (action.sa_flags & SA_SIGINFO) && (action.sa_flags & SA_ONSTACK);
      printf("%s=%s ", sigabbrev_np(signal),
             handled                               ? "handled"
             : action.sa_handler == SIG_DFL        ? "default"
             : action.sa_handler == SIG_IGN        ? "ignored"
             : action.sa_handler == CustomHandler ? "custom"
                                                   : "other");
    }
    stack_t alternate;
    sigaltstack(nullptr, &alternate);
    printf("altstack=%s", (alternate.ss_flags & SS_DISABLE) ? "none" : "set");
    return 0;
  });
  return child.Exited(0) ? child.out : child.Describe();
}

// SIGPIPE is ignored unless the program handles it; crash signals are handled
// (replacing the program's handlers unless told to keep them); an embedded
// library touches nothing.
TEST(LibInitProcess, SignalHandling) {
  EXPECT_EQ(SignalsAfterStartUp([] {}),
            "PIPE=ignored SEGV=handled BUS=handled ILL=handled FPE=handled SYS=handled altstack=set");
  EXPECT_EQ(SignalsAfterStartUp(CustomHandlers),
            "PIPE=custom SEGV=handled BUS=handled ILL=handled FPE=handled SYS=handled altstack=set");
  EXPECT_EQ(SignalsAfterStartUp([] {
              CustomHandlers();
              KZLibKeepGlobalExceptionHandler();
            }),
            "PIPE=custom SEGV=handled BUS=custom ILL=handled FPE=ignored SYS=handled altstack=set");
  // (Whatever the alternate stack: the sanitizers set up one of their own.)
  const std::string embedded = SignalsAfterStartUp(KZLibSetEmbedded);
  EXPECT_EQ(embedded.substr(0, embedded.find(" altstack=")),
            "PIPE=default SEGV=default BUS=default ILL=default FPE=default SYS=default");
}

// ---- version and identity -----------------------------------------------------------------

TEST(LibVersion, NumbersStringsAndDataItems) {
  EXPECT_EQ(KZVersionMajor(), 6);
  EXPECT_EQ(KZVersionMinor(), 3);
  EXPECT_EQ(KZVersionBuild(), 20826);
  EXPECT_EQ(KZVersionBranchBuild(), 0);
  EXPECT_EQ(kzlib_major, 6);
  EXPECT_EQ(kzlib_minor, 3);
  EXPECT_EQ(kzlib_build, 20826);
  EXPECT_EQ(kzlib_branchbuild, 0);
  EXPECT_EQ(KZVersionBranch(), kzlib_branch);
  EXPECT_EQ(std::string(KZVersionString()),
            kzlib_branch == 0 ? "6.3.20826" : "6.3.20826." + std::to_string(kzlib_branch));
  EXPECT_EQ(KZVersionString(), KZVersionString());  // one stored string
#if defined(__x86_64__) && defined(__linux__)
  EXPECT_STREQ(KZArchitecture(), "amd64-linux");
#else
  EXPECT_NE(strchr(KZArchitecture(), '-'), nullptr);
#endif
}

TEST(LibIdentity, KernelAndHost) {
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  int major = 0, minor = 0;
  ASSERT_EQ(sscanf(names.release, "%d.%d", &major, &minor), 2);
  EXPECT_EQ(KernelVersionMajor(), major);
  EXPECT_EQ(KernelVersionMinor(), minor);
  EXPECT_EQ(std::string(KernelVersionString()),
            std::string(names.sysname) + " " + names.release + " " + names.version);
  char host[256] = "";
  if (gethostname(host, sizeof host) != 0 || !host[0]) strcpy(host, "localhost");
  EXPECT_STREQ(HostName(), host);
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
