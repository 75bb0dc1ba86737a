// Library start-up. KZLibInit runs once per process, so each test that calls it
// does so in a child process and checks what the child printed.
#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/utsname.h>
#endif

#include <atomic>

#include "child_process.h"
#include "kz/error.h"
#include "kz/init.h"
#include "test_support.h"

namespace {
using namespace kztest;

void PrintMessage(const char *file, uint32_t, int level, uint32_t, const char *format, va_list args) {
  printf("%d %s: ", level, file), vprintf(format, args), printf("\n");
}
int InitAndPrint() {  // messages, then the settings
  KZSetMessageHandler(PrintMessage), KZLibInit(nullptr);
  return printf("flags=0x%x grace=%u switches=%d%d%d%d\n", KZLibGetFlags(), KZLibGetHandlerGraceTime(),
                KZLibGetSyncOff(), KZLibGetSSLHighEncryption(), KZLibGetInvalidParameterStack(),
                KZLibGetInvalidParameterHalt()),
         0;
}

TEST(LibInit, OptionsSetFlagsSwitchesAndMessages) {
  const struct {
    Environment environment;
    const char *messages, *settings;
  } cases[] = {
      {{}, "", "flags=0x3f00 grace=30 switches=0000"},
      {{{"KZ", "nocrashdump,, debugger"}}, "", "flags=0x6f00 grace=30 switches=0000"},  // -0x1000 +0x4000
      {{{"KZ", "crash"}}, "2 kzlib/kzlib: ignored KZ option 'crash'\n", "flags=0x3f00 grace=30 switches=0000"},
      // Case-sensitive; blanks, tabs and commas separate; accepted no-ops; the later one wins.
      {{{"KZ",
         "crashdump nocrashlog\tnosync,ssl-high-encryption invalidparameterstack,invalidparameterhalt debug "
         "debugmalloc third Crashlog nocrashstack,nocrashsyslog crashstack debugger nodebugger nocrashdump"}},
       "3 kzlib/kzlib: using unsafe nosync mode\n2 kzlib/kzlib: ignored KZ option 'Crashlog'\n",
       "flags=0x700 grace=30 switches=1111"},
      {{{"GDB", "gdb"}}, "3 kzlib/kzlib: :use KZ=debugger instead of GDB=gdb\n", "flags=0x7f00 grace=30 switches=0000"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(RunChild(c.environment, InitAndPrint).out, c.messages + std::string(c.settings) + "\n");
}

TEST(LibInit, GraceTime) {  // the text, the seconds taken ("": ignored)
  for (auto [text, seconds] : {std::pair{"45", "45"},
                               {"007", "7"},
                               {"4294967295", "4294967295"},
                               {"12x", ""},
                               {"", ""},
                               {"-1", ""},
                               {"+5", ""},
                               {" 5", ""},
                               {"4294967296", ""}})
    EXPECT_EQ(RunChild({{"KZ_HANDLER_GRACE_TIME", text}}, InitAndPrint).out,
              (*seconds ? "" : "2 kzlib/kzlib: ignored invalid KZ_HANDLER_GRACE_TIME='" + std::string(text) + "'\n") +
                  "flags=0x3f00 grace=" + (*seconds ? seconds : "30") + " switches=0000\n");
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
  char buffer[4096];
  const std::string expected = child_detail::SelfPath();  // the system's own answer
  const size_t length = expected.size();
  if (length >= 260) {  // a deep build directory is refused
    EXPECT_EQ(KZExecutable(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(KZErrorGetErrno(), ENAMETOOLONG);
  } else {  // a buffer exactly large enough, then one byte short
    EXPECT_EQ(KZExecutable(buffer, length + 1), buffer);
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(KZExecutable(buffer, length), nullptr);
    EXPECT_EQ(KZErrorGetErrno(), ERANGE);
  }
  EXPECT_EQ(KZExecutable(nullptr, 0), nullptr);
  KZErrorClear();
}

// Handlers run once, in order, after the options were read and the start time
// set, which then stays fixed; one may call KZLibInit itself.
TEST(LibInit, HandlersRunOnceInOrderAtTheEnd) {
  Child child = RunChild({{"KZ", "nosync"}}, [] {
    printf("%d ", KZLibGetStartTime() != 0), KZLibInitAddHandler([] { putchar('a'); });
    KZLibInitAddHandler([] { printf("b%d%d", KZLibGetSyncOff(), KZLibGetStartTime() != 0), KZLibInit("/again"); });
    KZLibInitAddHandler([] { putchar('c'); });
    const uint64_t low = static_cast<uint64_t>(time(nullptr)), start = (KZLibInit("first"), KZLibGetStartTime());
    const uint64_t high = static_cast<uint64_t>(time(nullptr));
    printf(" %s ", KZProgramName()), KZLibInit("second");
    const uint64_t later = KZLibGetStartTime();  // "kept": set during the first call and unchanged since
    const std::string times = std::to_string(low) + " <= " + std::to_string(start) + " <= " + std::to_string(high) +
                              ", later " + std::to_string(later);
    printf("%s %s", KZProgramName(), start >= low && start <= high && later == start ? "kept" : times.c_str());
    return 0;
  });
  EXPECT_EQ(child.out, "0 ab11c first second kept") << child.Describe();
}

TEST(LibInitDeathTest, NinthHandlerFailsTheAssertion) {  // the first eight are numbered 0 to 7
  ExpectFatal({[] {
                 for (int i = 0; i < 9; i++)
                   if (KZLibInitAddHandler([] {}) != i) _exit(3);
               },
               0, "'kzlibInitHandlersCount < KZLIB_INIT_MAX_HANDLERS' failed at kzlib/kzlib:604\n"});
}

// A closed pipe must be an error result, not a killed process; a host's own
// choice (a handler, or an embedded library) is left alone.
TEST(LibInit, BrokenPipesAreIgnoredUnlessTheHostDecides) {
#if defined(_WIN32)
  GTEST_SKIP() << "Windows has no SIGPIPE";
#else
  for (auto [handler, embedded, left] :
       {std::tuple{false, false, "ignored"}, {false, true, "default"}, {true, false, "handler"}}) {
    const Child child = RunChild({}, [handler, embedded] {
      if (handler) signal(SIGPIPE, [](int) {});
      if (embedded) KZLibSetEmbedded();
      const sighandler_t now = (KZLibInit(nullptr), signal(SIGPIPE, SIG_DFL));  // what start-up left
      return printf("%s", now == SIG_IGN ? "ignored" : now == SIG_DFL ? "default" : "handler"), 0;
    });
    EXPECT_EQ(child.Ending() + " " + child.out, ExitEnding(0) + " " + left) << handler << embedded;
  }
#endif
}

TEST(LibInit, ConcurrentCallsStartTheLibraryOnce) {
  EXPECT_EQ(RunChild({},
                     [] {
                       static std::atomic<int> runs{0}, finished{0};
                       static kztest::Latch go(1);  // opens once all threads are started
                       KZLibInitAddHandler([] { runs++, std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
                       std::vector<std::jthread> threads(16);
                       for (auto &thread : threads)  // nobody returns before the start-up finished
                         thread = std::jthread([] { go.wait(), KZLibInit("threaded"), finished += runs == 1; });
                       go.count_down(), threads.clear();  // joins them
                       return printf("runs=%d finished=%d", runs.load(), finished.load()), 0;
                     })
                .out,
            "runs=1 finished=16");
}

TEST(LibVersion, NumbersAndStringMatchTheExportedData) {
  // The calls, then the exported data.
  EXPECT_EQ((std::vector<long long>{KZVersionMajor(), KZVersionMinor(), KZVersionBuild(), KZVersionBranchBuild(),
                                    KZVersionBranch(), kzlib_major, kzlib_minor, kzlib_build, kzlib_branchbuild}),
            (std::vector<long long>{6, 3, 20826, 0, kzlib_branch, 6, 3, 20826, 0}));
  EXPECT_EQ(KZVersionString(), KZVersionString());  // one stored string
  EXPECT_STREQ(KZVersionString(), kzlib_branch ? ("6.3.20826." + std::to_string(kzlib_branch)).c_str() : "6.3.20826");
}

TEST(SystemIdentity, ArchitectureKernelAndHostAreTheSystems) {
#if defined(_WIN32)
  EXPECT_STREQ(KZArchitecture(), "amd64-win64");
  // The version the system itself reports, not what a manifest claims.
  using GetVersion = LONG(WINAPI *)(OSVERSIONINFOEXW *);
  OSVERSIONINFOEXW info{};
  info.dwOSVersionInfoSize = sizeof info;
  auto rtlGetVersion = reinterpret_cast<GetVersion>(
      reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  ASSERT_TRUE(rtlGetVersion && rtlGetVersion(&info) == 0);
  EXPECT_EQ(KernelVersionMajor(), static_cast<int>(info.dwMajorVersion));
  EXPECT_EQ(KernelVersionMinor(), static_cast<int>(info.dwMinorVersion));
  const std::string kernel = KernelVersionString(), build = " (build " + std::to_string(info.dwBuildNumber) + ")";
  EXPECT_EQ(kernel.rfind("Windows ", 0), 0u) << kernel;
  EXPECT_NE(kernel.find(" x64 "), std::string::npos) << kernel;
  EXPECT_EQ(kernel.substr(kernel.size() - std::min(kernel.size(), build.size())), build) << kernel;
  char host[256] = "";
  DWORD size = sizeof host;
  EXPECT_STREQ(HostName(), GetComputerNameExA(ComputerNameDnsHostname, host, &size) && host[0] ? host : "localhost");
#else
  struct utsname names;
  int major = 0, minor = 0;
  ASSERT_EQ(uname(&names), 0);
  ASSERT_EQ(sscanf(names.release, "%d.%d", &major, &minor), 2) << names.release;
  if (sizeof(void *) == 8 && names.machine == std::string("x86_64")) {
    EXPECT_STREQ(KZArchitecture(), "amd64-linux");
  }
  EXPECT_EQ(KernelVersionMajor(), major) << names.release;
  EXPECT_EQ(KernelVersionMinor(), minor) << names.release;
  EXPECT_EQ(std::string(KernelVersionString()), std::string(names.sysname) + " " + names.release + " " + names.version);
  char host[256] = "";
  EXPECT_STREQ(HostName(), gethostname(host, sizeof host) == 0 && host[0] ? host : "localhost");
#endif
}

}  // namespace
