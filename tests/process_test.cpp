// Child processes through the public API: real children (/bin/sh, /bin/cat,
// /usr/bin/env, /bin/sleep), their streams read and fed through channels.
#include "kz/process.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/channel.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/init.h"
#include "test_support.h"

namespace {

using kztest::Scoped;

class ProcessTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { KZLibInit("process_test"); }
};

std::string ReadAll(int fd) {
  Channel *channel = ChannelNew(-1, -1);
  EXPECT_EQ(1, ChannelSetFD(channel, fd, 1));
  std::string text;
  char buffer[4096];
  for (;;) {
    size_t got = 0;
    int status = ChannelReceive(channel, buffer, sizeof buffer, 0, &got, 1);
    text.append(buffer, got);
    if (status != 0 || got == 0) break;
  }
  ChannelClose(channel);
  return text;
}

struct Ending {
  int result = -1, exitCode = -1, signal = -1;
};

Ending WaitFor(Process *process) {
  Ending ending;
  ending.result = ProcessWait(process, 1, &ending.exitCode, &ending.signal);
  return ending;
}

// Runs /bin/sh -c script with stdout on a pipe; the output and the ending.
std::pair<std::string, Ending> RunShell(const char *script, int inherit = 0, char **envp = nullptr) {
  int out[2];
  EXPECT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"sh", "-c", script, nullptr};
  Process *process = ProcessExecutePipe("/bin/sh", const_cast<char **>(argv), envp, -1, out[1], -1, inherit);
  EXPECT_NE(nullptr, process) << KZErrorMessage();
  close(out[1]);
  std::string text = ReadAll(out[0]);
  Ending ending = process ? WaitFor(process) : Ending{};
  return {text, ending};
}

int CountDescriptors() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  while (dirent *entry = readdir(dir))
    if (entry->d_name[0] != '.') count++;
  closedir(dir);
  return count;
}

TEST_F(ProcessTest, CommandLineQuotesAsMessagesShowIt) {
  struct Case {
    std::vector<const char *> argv;
    std::string line;
  } cases[] = {
      {{"a b", "", "x\"y"}, "\"a b\" \"\" \"x\\\"y\""},
      {{"prog", "dir with space\\"}, "prog \"dir with space\\\""},
      {{"tab\there", "back\\slash"}, "tab\there back\\slash"},
      {{"plain"}, "plain"},
  };
  for (auto &c : cases) {
    c.argv.push_back(nullptr);
    Scoped<UByteArray> line;
    ASSERT_EQ(1, ProcessCommandLine(&line, const_cast<char **>(c.argv.data())));
    EXPECT_EQ(c.line, kztest::Bytes(line));
  }
}

TEST_F(ProcessTest, BadArgumentsAreRefusedBeforeAnythingStarts) {
  const char *argv[] = {"cat", nullptr};
  char **args = const_cast<char **>(argv);
  EXPECT_EQ(nullptr, ProcessExecute("/bin/cat", args, nullptr, -1, 5, 2));
  EXPECT_EQ(KZ_ERR_INVALID, KZErrorCode());
  EXPECT_STREQ("can only use standard I/O for all streams", KZErrorMessage());

  KZProcessStart logon = {1, "nobody", "x", nullptr, nullptr, KZ_PROCESS_NICE_INHERIT};
  EXPECT_EQ(nullptr, ProcessExecute_(&logon, "/bin/cat", args, nullptr, 0, 1, 2));
  EXPECT_STREQ("can not inherit handles with logon", KZErrorMessage());
  logon.inheritHandles = 0;
  EXPECT_EQ(nullptr, ProcessExecute_(&logon, "/bin/cat", args, nullptr, -1, -1, -1));
  EXPECT_STREQ("can not inherit stdio handles with logon", KZErrorMessage());

  const char *badArgv[] = {"cat", "\x80", nullptr};
  EXPECT_EQ(nullptr, ProcessExecute("/bin/cat", const_cast<char **>(badArgv), nullptr, -1, -1, -1));
  EXPECT_EQ(KZ_ERR_PROTOCOL, KZErrorCode());
  EXPECT_STREQ("Invalid UTF-8 sequence", KZErrorMessage());
  const char *wideArgv[] = {"cat", "\xf0\x9f\x98\x80", nullptr};
  EXPECT_EQ(nullptr, ProcessExecute("/bin/cat", const_cast<char **>(wideArgv), nullptr, -1, -1, -1));
  EXPECT_STREQ("Unicode character larger than FFFF", KZErrorMessage());
  const char *badEnv[] = {"A=\xc3", nullptr};
  EXPECT_EQ(nullptr, ProcessExecute("/bin/cat", args, const_cast<char **>(badEnv), -1, -1, -1));
  EXPECT_EQ(KZ_ERR_GENERAL, KZErrorCode());
  EXPECT_STREQ("bad UTF-8 in environment", KZErrorMessage());

  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecute("/bin/c\xff", args, nullptr, -1, -1, -1));
  EXPECT_EQ(EINVAL, errno);
  KZProcessStart badNice = {0, nullptr, nullptr, nullptr, nullptr, 3};
  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecute_(&badNice, "/bin/cat", args, nullptr, -1, -1, -1));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(ProcessTest, MissingProgramFailsWithTheSystemError) {
  const char *argv[] = {"none", nullptr};
  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecute("/nonexistent/program", const_cast<char **>(argv), nullptr, -1, -1, -1));
  EXPECT_EQ(-1, errno);
  EXPECT_EQ(ENOENT, KZGetLastError());
  // The forked path reports its exec failure the same way.
  KZProcessStart lower = {0, nullptr, nullptr, nullptr, nullptr, 5};
  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecute_(&lower, "/nonexistent/program", const_cast<char **>(argv), nullptr, -1, -1, -1));
  EXPECT_EQ(-1, errno);
  EXPECT_EQ(ENOENT, KZGetLastError());
}

TEST_F(ProcessTest, OutputArgumentsAndExitCodes) {
  struct Case {
    const char *script;
    std::string output;
    int exitCode;
  } cases[] = {
      {"echo hello", "hello\n", 0},
      {"printf '%s|' \"$0\" a; exit 7", "sh|a|", 7},
      {"exit 255", "", 255},
  };
  for (const auto &c : cases) {
    auto [text, ending] = RunShell(c.script);
    EXPECT_EQ(c.output, text) << c.script;
    EXPECT_EQ(1, ending.result);
    EXPECT_EQ(c.exitCode, ending.exitCode) << c.script;
    EXPECT_EQ(0, ending.signal);
  }
  // Arguments reach the program exactly as given, spaces and quotes included.
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"echo", "a  b", "\"q\"", "", "t\tx", nullptr};
  Process *process = ProcessExecuteDontInheritHandles("/bin/echo", const_cast<char **>(argv), nullptr, -1, out[1], -1);
  ASSERT_NE(nullptr, process);
  close(out[1]);
  EXPECT_EQ("a  b \"q\"  t\tx\n", ReadAll(out[0]));
  EXPECT_EQ(0, WaitFor(process).exitCode);
}

TEST_F(ProcessTest, StdinIsFedAndClosedThroughAChannel) {
  int in[2], out[2];
  ASSERT_EQ(1, ChannelCreatePipe(in));
  ASSERT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"cat", nullptr};
  Process *process =
      ProcessExecuteDontInheritHandles("/bin/cat", const_cast<char **>(argv), nullptr, in[0], out[1], -1);
  ASSERT_NE(nullptr, process);
  close(in[0]);
  close(out[1]);
  Channel *writer = ChannelNew(-1, -1);
  ASSERT_EQ(1, ChannelSetFD(writer, in[1], 1));
  std::string sent;
  for (int k = 0; k < 2000; k++) sent += "line " + std::to_string(k) + "\n";
  // More than a pipe holds: the reader drains while the writer fills.
  std::thread feeder([&] {
    EXPECT_EQ(1, ChannelWriteBuf(writer, sent.data(), sent.size()));
    EXPECT_EQ(1, ChannelFlush(writer));
    ChannelClose(writer);
  });
  std::string got = ReadAll(out[0]);
  feeder.join();
  EXPECT_EQ(sent, got);
  Ending ending = WaitFor(process);
  EXPECT_EQ(1, ending.result);
  EXPECT_EQ(0, ending.exitCode);
}

TEST_F(ProcessTest, NullDeviceForMissingStreams) {
  // stdin -1 reads nothing; stderr -1 swallows the complaint.
  auto [text, ending] = RunShell("wc -c; ls /nonexistent-path; echo $?");
  EXPECT_EQ("0\n2\n", text);
  EXPECT_EQ(0, ending.exitCode);
}

TEST_F(ProcessTest, EnvironmentIsPassedExactly) {
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"env", nullptr};
  StringArray environment{};
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "A", "1"));
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "B", "x y"));
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "EMPTY", ""));
  Process *process = ProcessExecute("/usr/bin/env", const_cast<char **>(argv), environment.elements, -1, out[1], -1);
  StringArrayClear(&environment);
  ArrayFree(environment);
  ASSERT_NE(nullptr, process);
  close(out[1]);
  EXPECT_EQ("A=1\nB=x y\nEMPTY=\n", ReadAll(out[0]));
  WaitFor(process);

  const char *none[] = {nullptr};
  auto [text, ending] = RunShell("env | grep -v '^PWD=' | wc -l", 0, const_cast<char **>(none));
  EXPECT_EQ("0\n", text);

  // A null environment is the caller's.
  ASSERT_EQ(0, setenv("KZ_PROCESS_TEST_MARK", "mark value", 1));
  auto [inherited, unused] = RunShell("echo \"$KZ_PROCESS_TEST_MARK\"");
  EXPECT_EQ("mark value\n", inherited);
  unsetenv("KZ_PROCESS_TEST_MARK");
}

TEST_F(ProcessTest, WorkingDirectory) {
  kztest::TempDir dir;
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"sh", "-c", "pwd", nullptr};
  KZProcessStart options = {0, nullptr, nullptr, nullptr, dir.path().c_str(), KZ_PROCESS_NICE_INHERIT};
  Process *process = ProcessExecute_(&options, "/bin/sh", const_cast<char **>(argv), nullptr, -1, out[1], -1);
  ASSERT_NE(nullptr, process);
  close(out[1]);
  EXPECT_EQ(dir.path() + "\n", ReadAll(out[0]));
  WaitFor(process);
}

TEST_F(ProcessTest, InheritanceOfOtherDescriptors) {
  int inheritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GT(inheritable, 2);
  ASSERT_EQ(1, FDSetInheritance(inheritable, 1));
  int closeOnExec = open("/dev/null", O_RDONLY | O_CLOEXEC);
  std::string probe = "for fd in " + std::to_string(inheritable) + " " + std::to_string(closeOnExec) +
                      "; do if [ -e /proc/self/fd/$fd ]; then echo open; else echo closed; fi; done";
  struct Case {
    int inherit;
    const char *expected;
  } cases[] = {{1, "open\nclosed\n"}, {0, "closed\nclosed\n"}};
  for (const auto &c : cases) {
    auto [text, ending] = RunShell(probe.c_str(), c.inherit);
    EXPECT_EQ(c.expected, text) << "inherit " << c.inherit;
  }
  close(inheritable);
  close(closeOnExec);
}

TEST_F(ProcessTest, TerminateKillAndSignals) {
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  // The child ignores SIGTERM, then says it is ready.
  const char *argv[] = {"sh", "-c", "trap '' TERM; echo ready; exec sleep 60", nullptr};
  Process *process = ProcessExecuteDontInheritHandles("/bin/sh", const_cast<char **>(argv), nullptr, -1, out[1], -1);
  ASSERT_NE(nullptr, process);
  close(out[1]);
  Channel *channel = ChannelNew(-1, -1);
  ASSERT_EQ(1, ChannelSetFD(channel, out[0], 1));
  Scoped<UByteArray> line;
  ASSERT_EQ(1, ChannelReadLine(channel, &line, 0));
  EXPECT_EQ("ready", kztest::Bytes(line));

  EXPECT_EQ(1, ProcessTerminate(process));
  EXPECT_EQ(1, ProcessIsAlive(process));
  errno = 5;
  EXPECT_EQ(0, ProcessWaitNonBlocking(process, 0, nullptr, nullptr));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(1, ProcessKill(process));
  int exitCode = -1, signal = -1;
  EXPECT_EQ(1, ProcessWait(process, 0, &exitCode, &signal));
  EXPECT_EQ(SIGKILL, signal);
  EXPECT_EQ(0, exitCode);
  // The record keeps the result; signalling a reaped child does nothing.
  EXPECT_EQ(0, ProcessIsAlive(process));
  EXPECT_EQ(1, ProcessKill(process));
  signal = -1;
  EXPECT_EQ(1, ProcessWaitNonBlocking(process, 1, nullptr, &signal));
  EXPECT_EQ(SIGKILL, signal);
  ChannelClose(channel);

  // A child that terminates itself politely.
  auto [text, ending] = RunShell("kill -TERM $$");
  EXPECT_EQ(SIGTERM, ending.signal);
}

TEST_F(ProcessTest, CurrentProcessIsRefusedWhereItMustBe) {
  Process *current = ProcessGetCurrent();
  EXPECT_EQ(current, ProcessGetCurrent());
  EXPECT_EQ(static_cast<unsigned>(getpid()), ProcessGetId(current));
  EXPECT_EQ(1, ProcessIsAlive(current));
  errno = 0;
  EXPECT_EQ(0, ProcessKill(current));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(0, ProcessTerminate(current));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(0, ProcessWait(current, 1, nullptr, nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0, ProcessGetPriority(current) == KZ_PROCESS_PRIORITY_UNKNOWN);
}

TEST_F(ProcessTest, Priorities) {
  const char *argv[] = {"sleep", "60", nullptr};
  Process *process = ProcessExecuteDontInheritHandles("/bin/sleep", const_cast<char **>(argv), nullptr, -1, -1, -1);
  ASSERT_NE(nullptr, process);
  errno = 0;
  EXPECT_EQ(0, ProcessSetPriority(process, 3));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(1, ProcessSetPriority(process, 10));
  EXPECT_EQ(5, ProcessGetPriority(process));
  EXPECT_EQ(1, ProcessSetPriority(process, 19));
  EXPECT_EQ(19, ProcessGetPriority(process));
  if (geteuid() != 0) {
    errno = 0;
    EXPECT_EQ(0, ProcessSetPriority(process, -10));
    EXPECT_EQ(-1, errno);
  }
  EXPECT_EQ(1, ProcessKill(process));
  WaitFor(process);

  // Started lowered: the child itself reads its nice value.
  for (int nice : {5, 10, 19}) {
    int out[2];
    ASSERT_EQ(1, ChannelCreatePipe(out));
    const char *shArgv[] = {"sh", "-c", "cut -d' ' -f19 /proc/self/stat", nullptr};
    KZProcessStart options = {0, nullptr, nullptr, nullptr, nullptr, nice};
    Process *child = ProcessExecute_(&options, "/bin/sh", const_cast<char **>(shArgv), nullptr, -1, out[1], -1);
    ASSERT_NE(nullptr, child);
    close(out[1]);
    EXPECT_EQ(std::to_string(nice == 10 ? 5 : nice) + "\n", ReadAll(out[0]));
    WaitFor(child);
  }
}

TEST_F(ProcessTest, ReleasedRunningChildIsReapedByTheLibrary) {
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  const char *argv[] = {"cat", nullptr};
  int in[2];
  ASSERT_EQ(1, ChannelCreatePipe(in));
  Process *process =
      ProcessExecuteDontInheritHandles("/bin/cat", const_cast<char **>(argv), nullptr, in[0], out[1], -1);
  ASSERT_NE(nullptr, process);
  pid_t pid = static_cast<pid_t>(ProcessGetId(process));
  close(in[0]);
  close(out[1]);
  errno = 5;
  EXPECT_EQ(0, ProcessWaitNonBlocking(process, 1, nullptr, nullptr));  // still running: released
  EXPECT_EQ(0, errno);
  close(in[1]);  // cat ends
  EXPECT_EQ("", ReadAll(out[0]));
  // The library's reaper takes it; no zombie stays behind.
  for (int k = 0; k < 2000 && kill(pid, 0) == 0; k++) usleep(5000);
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
}

TEST_F(ProcessTest, ProcessFromIdAndCpuTotals) {
  errno = 0;
  EXPECT_EQ(nullptr, ProcessFromId(0));
  EXPECT_EQ(-1, errno);
  uint64_t userBefore = 0, systemBefore = 0;
  ProcessChildrenCPUTime(&userBefore, &systemBefore);
  const char *argv[] = {"sh", "-c", "i=0; while [ $i -lt 200000 ]; do i=$((i+1)); done", nullptr};
  Process *process = ProcessExecuteStdio("/bin/sh", const_cast<char **>(argv), nullptr);
  ASSERT_NE(nullptr, process);
  Process *opened = ProcessFromId(ProcessGetId(process));
  ASSERT_NE(nullptr, opened);
  Ending ending = WaitFor(opened);
  EXPECT_EQ(1, ending.result);
  EXPECT_EQ(0, ending.exitCode);
  errno = 0;
  EXPECT_EQ(0, ProcessWait(process, 1, nullptr, nullptr));  // already reaped through the other record
  EXPECT_EQ(-1, errno);
  EXPECT_EQ(ECHILD, KZGetLastError());
  uint64_t userAfter = 0, systemAfter = 0;
  ProcessChildrenCPUTime(&userAfter, &systemAfter);
  EXPECT_GT(userAfter + systemAfter, userBefore + systemBefore);
}

TEST_F(ProcessTest, CredentialsNeedPrivilege) {
  passwd *nobody = getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "no user nobody";
  KZProcessToken token = {nobody->pw_uid, nobody->pw_gid};
  const char *argv[] = {"id", "-u", nullptr};
  kztest::Child child = kztest::RunChild({}, [&] {
    if (geteuid() == 0 && setuid(nobody->pw_uid) != 0) return 10;
    errno = 0;
    if (ProcessExecutePipeToken(&token, "/usr/bin/id", const_cast<char **>(argv), nullptr, -1, -1, -1)) return 11;
    if (errno != -1 || KZGetLastError() != EPERM) return 12;
    errno = 0;
    if (ProcessExecuteWithCredentials("nobody", "x", "/usr/bin/id", const_cast<char **>(argv), nullptr)) return 13;
    if (errno != -1 || KZGetLastError() != EPERM) return 14;
    return 0;
  });
  EXPECT_TRUE(child.Exited(0)) << child.Describe();

  if (geteuid() != 0) GTEST_SKIP() << "running as another user needs root";
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  Process *process = ProcessExecutePipeToken(&token, "/usr/bin/id", const_cast<char **>(argv), nullptr, -1, out[1], -1);
  ASSERT_NE(nullptr, process) << KZErrorMessage();
  close(out[1]);
  EXPECT_EQ(std::to_string(nobody->pw_uid) + "\n", ReadAll(out[0]));
  EXPECT_EQ(0, WaitFor(process).exitCode);

  // A wrong password is refused by PAM.
  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecuteWithCredentials("nobody", "not the password", "/usr/bin/id",
                                                   const_cast<char **>(argv), nullptr));
  EXPECT_EQ(-1, errno);
  EXPECT_NE(0, KZGetLastError());
}

TEST_F(ProcessTest, ManyChildrenFromFourThreadsLeakNothing) {
  // Warm up lazily created state (locks, thread keys) so it is not counted.
  RunShell("true");
  int before = CountDescriptors();
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([t, &failures] {
      for (int k = 0; k < 50; k++) {
        int out[2];
        if (ChannelCreatePipe(out) != 1) {
          failures[t]++;
          continue;
        }
        const char *argv[] = {"echo", "child", nullptr};
        Process *process =
            ProcessExecuteDontInheritHandles("/bin/echo", const_cast<char **>(argv), nullptr, -1, out[1], -1);
        close(out[1]);
        std::string text = ReadAll(out[0]);
        int exitCode = -1;
        if (!process || ProcessWait(process, 1, &exitCode, nullptr) != 1 || exitCode != 0 || text != "child\n")
          failures[t]++;
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(4, 0), failures);
  EXPECT_EQ(before, CountDescriptors());
}

// ---- dynamic libraries ----------------------------------------------------------

int g_loads = 0, g_frees = 0;
void *CountingLoad(const char *name) {
  g_loads++;
  return dlopen(name, RTLD_NOW);
}
int CountingFree(void *module) {
  g_frees++;
  return dlclose(module) == 0;
}

TEST_F(ProcessTest, DynamicLibraries) {
  void *main = OpenDLL(nullptr);
  ASSERT_NE(nullptr, main);
  EXPECT_EQ(reinterpret_cast<void *>(&ProcessGetCurrent), GetDLLSymbol(main, "ProcessGetCurrent"));
  errno = 0;
  EXPECT_EQ(nullptr, GetDLLSymbol(main, "no_such_symbol_here"));
  EXPECT_EQ(-1, errno);
  EXPECT_EQ(1, CloseDLL(main));

  void *libc = OpenDLL("libc.so.6");
  ASSERT_NE(nullptr, libc);
  EXPECT_EQ(reinterpret_cast<void *>(&getpid), GetDLLSymbol(libc, "getpid"));
  EXPECT_EQ(1, CloseDLL(libc));
  errno = 0;
  EXPECT_EQ(nullptr, OpenDLL("libkz-no-such-library.so"));
  EXPECT_EQ(-1, errno);

  SetOpenDllHooks(CountingLoad, CountingFree);
  void *again = OpenDLL("libc.so.6");
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(1, CloseDLL(again));
  SetOpenDllHooks(nullptr, nullptr);
  EXPECT_EQ(1, g_loads);
  EXPECT_EQ(1, g_frees);
}

}  // namespace
