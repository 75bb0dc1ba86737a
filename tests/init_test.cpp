// Library start-up. KZLibInit runs once per process, so each test that calls it
// does so in a child process and checks what the child printed.
#include <errno.h>
#include <sys/utsname.h>

#include <atomic>
#include <regex>

#include "kz/error.h"
#include "kz/init.h"
#include "kz/message.h"
#include "child_process.h"
#include "test_support.h"

namespace {
using namespace kztest;

void PrintMessage(const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
  printf("%d ", level), vprintf(format, args), printf("\n");
}
int InitAndPrint() {  // messages, then the settings
  KZSetMessageHandler(PrintMessage);
  KZLibInit(nullptr);
  return printf("flags=0x%x grace=%u switches=%d%d%d%d\n", KZLibGetFlags(), KZLibGetHandlerGraceTime(),
                KZLibGetSyncOff(), KZLibGetSSLHighEncryption(), KZLibGetInvalidParameterStack(),
                KZLibGetInvalidParameterHalt()), 0;
}

TEST(LibInit, OptionsSetFlagsSwitchesAndMessages) {
  const struct { Environment environment; const char *messages, *settings; } cases[] = {
      {{}, "", "flags=0x3f00 grace=30 switches=0000"},
      {{{"KZ", "nocrashdump,, debugger"}}, "", "flags=0x6f00 grace=30 switches=0000"},  // -0x1000 +0x4000
      {{{"KZ", "crash"}}, "2 ignored KZ option 'crash'\n", "flags=0x3f00 grace=30 switches=0000"},
      // Case-sensitive; blanks, tabs and commas separate; accepted no-ops; the later one wins.
      {{{"KZ", "crashdump nocrashlog\tnosync,ssl-high-encryption invalidparameterstack,invalidparameterhalt "
               "debug debugmalloc third Crashlog nocrashstack,nocrashsyslog"}},
       "3 using unsafe nosync mode\n2 ignored KZ option 'Crashlog'\n", "flags=0x1300 grace=30 switches=1111"},
      {{{"KZ", "nocrashstack crashstack debugger nodebugger nocrashdump"}}, "", "flags=0x2f00 grace=30 switches=0000"},
      {{{"GDB", "gdb"}}, "3 :use KZ=debugger instead of GDB=gdb\n", "flags=0x7f00 grace=30 switches=0000"},
  };
  for (const auto &c : cases) {
    Child child = RunChild(c.environment, InitAndPrint);
    EXPECT_EQ(child.out, c.messages + std::string(c.settings) + "\n") << child.Describe();
  }
}

// Without a handler: level 2 to stdout with a time stamp, level 3 to stderr
// with the program name and, unless the text starts with ':', the location.
TEST(LibInit, DefaultMessagesOnTheStandardStreams) {
  Child child = RunChild({{"KZ", "crash,nosync"}, {"GDB", "gdb"}}, [] { return KZLibInit(nullptr), 0; });
  const std::string stamp = R"(\[\d{4}/\d\d/\d\d-\d\d:\d\d:\d\d\] )";
  EXPECT_TRUE(std::regex_match(child.out, std::regex(stamp + "ignored KZ option 'crash'\r\n"))) << child.out;
  EXPECT_TRUE(std::regex_match(child.err, std::regex(stamp + "kzlib: \"kzlib:\\d+\": using unsafe nosync mode\r\n" +
                                                     stamp + "kzlib: use KZ=debugger instead of GDB=gdb\r\n")))
      << child.Describe();
}

TEST(LibInit, GraceTime) {
  const std::pair<const char *, const char *> cases[] = {  // text, seconds taken (null: ignored)
      {"45", "45"}, {"007", "7"}, {"4294967295", "4294967295"}, {"12x", nullptr}, {"", nullptr},
      {"-1", nullptr}, {"+5", nullptr}, {" 5", nullptr}, {"4294967296", nullptr}};
  for (const auto &[text, seconds] : cases)
    EXPECT_EQ(RunChild({{"KZ_HANDLER_GRACE_TIME", text}}, InitAndPrint).out,
              seconds ? "flags=0x3f00 grace=" + std::string(seconds) + " switches=0000\n"
                      : "2 ignored invalid KZ_HANDLER_GRACE_TIME='" + std::string(text) + "'\n" +
                            "flags=0x3f00 grace=30 switches=0000\n");
}

TEST(LibInit, ProgramNameIsTheBaseNameAfterEitherSeparatorAtMost260Characters) {
  Child child = RunChild({}, [] {
    printf("%s", KZProgramName());
    const std::string longPath = "/some/dir/" + std::string(300, 'n');
    for (const char *path : {"C:\\dir\\server.exe", "/usr/bin/tool", "a/b\\c/mixed", "plain",
                             static_cast<const char *>(nullptr), "/trailing/", longPath.c_str()})
      KZLibInit(path), printf(" [%s]", KZProgramName());
    return KZLibInit("/opt/app/bin/frobnicate"), KZMessage(3, ":after start-up"), 0;
  });
  EXPECT_EQ(child.out, "kzlib [server.exe] [tool] [mixed] [plain] [plain] [] [" + std::string(260, 'n') + "]");
  EXPECT_NE(child.err.find("] frobnicate: after start-up\r\n"), std::string::npos) << child.err;
}

TEST(LibInit, ExecutableIsTheRunningProgram) {
  char expected[4096] = "", buffer[4096];
  const size_t length = std::max<ssize_t>(readlink("/proc/self/exe", expected, sizeof expected - 1), 0);
  KZErrorClear();
  if (length >= 260) {  // a deep build directory: refused
    EXPECT_EQ(KZExecutable(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(KZGetLastError(), ENAMETOOLONG);
  } else {
    EXPECT_EQ(KZExecutable(buffer, length + 1), buffer);  // exactly large enough
    EXPECT_STREQ(buffer, expected);
    EXPECT_EQ(KZExecutable(buffer, length), nullptr);  // one byte short
    EXPECT_EQ(KZGetLastError(), ERANGE);
  }
  EXPECT_EQ(KZExecutable(nullptr, 0), nullptr);
  KZErrorClear();
}

std::string g_calls;

// Handlers run once, in order, after the options were read and the start time
// set, which then stays fixed; one may call KZLibInit itself.
TEST(LibInit, HandlersRunOnceInOrderAtTheEnd) {
  Child child = RunChild({{"KZ", "nosync"}}, [] {
    printf("%llu ", static_cast<unsigned long long>(KZLibGetStartTime()));
    printf("%d", KZLibInitAddHandler([] { g_calls += 'a'; }));
    printf("%d", KZLibInitAddHandler([] {
      g_calls += std::string(KZLibGetSyncOff() ? "b" : "?") + (KZLibGetStartTime() ? "b" : "?");
      KZLibInit("/from/handler");
    }));
    printf("%d ", KZLibInitAddHandler([] { g_calls += 'c'; }));
    const uint64_t low = static_cast<uint64_t>(time(nullptr));
    KZLibInit("first");
    const uint64_t start = KZLibGetStartTime(), high = static_cast<uint64_t>(time(nullptr));
    printf("%s ", KZProgramName());
    KZLibInit("second");
    printf("%s %s %d", g_calls.c_str(), KZProgramName(), start >= low && start <= high && KZLibGetStartTime() == start);
    return 0;
  });
  EXPECT_EQ(child.out, "0 012 first abbc second 1") << child.Describe();
}

TEST(LibInit, NinthHandlerFailsTheAssertion) {
  Child child = RunChild({}, [] {
    for (int i = 0; i < 9; i++) printf("%d;", KZLibInitAddHandler([] {})), fflush(stdout);
    return 0;
  });
  EXPECT_TRUE(child.Signalled(SIGABRT)) << child.Describe();
  EXPECT_EQ(child.out, "0;1;2;3;4;5;6;7;");
  EXPECT_EQ(child.err, "'kzlibInitHandlersCount < KZLIB_INIT_MAX_HANDLERS' failed at kzlib/kzlib:604\n");
}

// A closed pipe must be an error result, not a killed process; a host's own
// choice (a handler, or an embedded library) is left alone.
TEST(LibInit, BrokenPipesAreIgnoredUnlessTheHostDecides) {
  auto disposition = [](void (*before)(), bool embedded) {
    return RunChild({}, [before, embedded] {
      if (before) before();
      if (embedded) KZLibSetEmbedded();
      KZLibInit(nullptr);
      struct sigaction now;
      sigaction(SIGPIPE, nullptr, &now);
      return now.sa_handler == SIG_IGN ? 10 : now.sa_handler == SIG_DFL ? 11 : 12;
    });
  };
  EXPECT_TRUE(disposition(nullptr, false).Exited(10));
  EXPECT_TRUE(disposition(nullptr, true).Exited(11));
  EXPECT_TRUE(disposition([] { signal(SIGPIPE, [](int) {}); }, false).Exited(12));
}

TEST(LibInit, ConcurrentCallsStartTheLibraryOnce) {
  Child child = RunChild({}, [] {
    static std::atomic<int> runs{0}, finished{0};
    static std::atomic<bool> go{false};
    KZLibInitAddHandler([] { runs++, std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++)
      threads.emplace_back([] {
        while (!go) std::this_thread::yield();
        KZLibInit("threaded");
        finished += runs == 1;  // nobody returns before the start-up finished
      });
    go = true;
    for (auto &thread : threads) thread.join();
    return printf("runs=%d finished=%d", runs.load(), finished.load()), 0;
  });
  EXPECT_EQ(child.out, "runs=1 finished=16") << child.Describe();
}

TEST(LibVersion, NumbersStringsAndIdentity) {
  using Numbers = std::vector<long long>;
  EXPECT_EQ((Numbers{KZVersionMajor(), KZVersionMinor(), KZVersionBuild(), KZVersionBranchBuild()}),
            (Numbers{6, 3, 20826, 0}));
  EXPECT_EQ((Numbers{kzlib_major, kzlib_minor, kzlib_build, kzlib_branchbuild}), (Numbers{6, 3, 20826, 0}));
  EXPECT_EQ(KZVersionBranch(), kzlib_branch);
  EXPECT_EQ(KZVersionString(), KZVersionString());  // one stored string
  EXPECT_STREQ(KZVersionString(), kzlib_branch ? ("6.3.20826." + std::to_string(kzlib_branch)).c_str() : "6.3.20826");
#if defined(__x86_64__) && defined(__linux__)
  EXPECT_STREQ(KZArchitecture(), "amd64-linux");
#endif
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  int major = 0, minor = 0;
  ASSERT_EQ(sscanf(names.release, "%d.%d", &major, &minor), 2);
  EXPECT_EQ(KernelVersionMajor(), major);
  EXPECT_EQ(KernelVersionMinor(), minor);
  EXPECT_EQ(std::string(KernelVersionString()), std::string(names.sysname) + " " + names.release + " " + names.version);
  char host[256] = "";
  EXPECT_STREQ(HostName(), gethostname(host, sizeof host) == 0 && host[0] ? host : "localhost");
}

}  // namespace
