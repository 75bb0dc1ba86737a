// Child processes through the public API: real children (/bin/sh, /bin/cat,
// /usr/bin/env, /bin/sleep) on pipes; stdin fed through a channel.
#include "kz/process.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/channel.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/init.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Scoped;

class ProcessTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { KZLibInit("process_test"); }
};

// A null-terminated argument vector that lives to the end of the statement.
struct Args {
  Args(std::initializer_list<const char *> list) : v(list) { v.push_back(nullptr); }
  operator char **() { return const_cast<char **>(v.data()); }
  std::vector<const char *> v;
};

std::string ReadAll(int fd) {
  std::string text = kztest::ReadToEnd(fd);
  close(fd);
  return text;
}

struct Outcome {
  std::string out;
  int result = -1, exitCode = -1, signal = -1;
};

// Starts a child with its stdout on a pipe (start gets the pipe's write end),
// reads the output to its end and waits for the child.
Outcome Collect(const std::function<Process *(int)> &start) {
  int out[2];
  EXPECT_EQ(1, ChannelCreatePipe(out));
  Process *process = start(out[1]);
  EXPECT_NE(nullptr, process) << KZErrorMessage();
  close(out[1]);
  Outcome run;
  run.out = ReadAll(out[0]);
  if (process) run.result = ProcessWait(process, 1, &run.exitCode, &run.signal);
  return run;
}

Outcome RunShell(const char *script, int inherit = 0, char **envp = nullptr) {
  return Collect([&](int out) {
    return ProcessExecutePipe("/bin/sh", Args{"sh", "-c", script}, envp, -1, out, -1, inherit);
  });
}

long CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
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

// Refusals before anything starts, and a program that is not there (also on
// the forked path a nice value takes). Without a message, error is errno
// afterwards; -1 means the system's reason (ENOENT) is in KZGetLastError.
TEST_F(ProcessTest, RefusedStarts) {
  const KZProcessStart plain = {1, nullptr, nullptr, nullptr, nullptr, KZ_PROCESS_NICE_INHERIT};
  KZProcessStart logon = plain, ownHandles = plain, badNice = plain, lowered = plain;
  logon.user = ownHandles.user = "nobody";
  logon.password = ownHandles.password = "x";
  ownHandles.inheritHandles = 0;
  badNice.nice = 3;
  lowered.nice = 5;
  const struct {
    const KZProcessStart *options;
    const char *path, *argument, *environment;
    int fds[3];
    uint64_t code;
    const char *message;
    int error;
  } cases[] = {
      {&plain,
       "/bin/cat",
       nullptr,
       nullptr,
       {-1, 5, 2},
       KZ_ERR_INVALID,
       "can only use standard I/O for all streams",
       0},
      {&logon, "/bin/cat", nullptr, nullptr, {0, 1, 2}, KZ_ERR_INVALID, "can not inherit handles with logon", 0},
      {&ownHandles,
       "/bin/cat",
       nullptr,
       nullptr,
       {-1, -1, -1},
       KZ_ERR_INVALID,
       "can not inherit stdio handles with logon",
       0},
      {&plain, "/bin/cat", "\x80", nullptr, {-1, -1, -1}, KZ_ERR_PROTOCOL, "Invalid UTF-8 sequence", 0},
      {&plain,
       "/bin/cat",
       "\xf0\x9f\x98\x80",
       nullptr,
       {-1, -1, -1},
       KZ_ERR_PROTOCOL,
       "Unicode character larger than FFFF",
       0},
      {&plain, "/bin/cat", nullptr, "A=\xc3", {-1, -1, -1}, KZ_ERR_GENERAL, "bad UTF-8 in environment", 0},
      {&plain, "/bin/c\xff", nullptr, nullptr, {-1, -1, -1}, 0, nullptr, EINVAL},
      {&badNice, "/bin/cat", nullptr, nullptr, {-1, -1, -1}, 0, nullptr, EINVAL},
      {&plain, "/nonexistent/program", nullptr, nullptr, {-1, -1, -1}, 0, nullptr, -1},
      {&lowered, "/nonexistent/program", nullptr, nullptr, {-1, -1, -1}, 0, nullptr, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + (c.message ? c.message : std::to_string(c.error)));
    Args environment{c.environment};
    errno = 0;
    EXPECT_EQ(nullptr, ProcessExecute_(c.options, c.path, Args{"cat", c.argument},
                                       c.environment ? static_cast<char **>(environment) : nullptr, c.fds[0], c.fds[1],
                                       c.fds[2]));
    if (c.message) {
      EXPECT_EQ(c.code, KZErrorCode());
      EXPECT_STREQ(c.message, KZErrorMessage());
    } else {
      EXPECT_EQ(c.error, errno);
      if (c.error == -1) {
        EXPECT_EQ(ENOENT, KZGetLastError());
      }
    }
  }
}

TEST_F(ProcessTest, OutputArgumentsAndExitCodes) {
  const struct {
    const char *script;
    std::string output;
    int exitCode;
  } cases[] = {
      {"echo hello", "hello\n", 0},
      {"printf '%s|' \"$0\" a; exit 7", "sh|a|", 7},
      {"exit 255", "", 255},
      // stdin -1 reads nothing; stderr -1 swallows the complaint.
      {"wc -c; ls /nonexistent-path; echo $?", "0\n2\n", 0},
  };
  for (const auto &c : cases) {
    Outcome run = RunShell(c.script);
    EXPECT_EQ(c.output, run.out) << c.script;
    EXPECT_EQ(1, run.result);
    EXPECT_EQ(c.exitCode, run.exitCode) << c.script;
    EXPECT_EQ(0, run.signal);
  }
  // Arguments reach the program exactly as given, spaces and quotes included.
  Outcome echo = Collect([](int out) {
    return ProcessExecuteDontInheritHandles("/bin/echo", Args{"echo", "a  b", "\"q\"", "", "t\tx"}, nullptr, -1, out,
                                            -1);
  });
  EXPECT_EQ("a  b \"q\"  t\tx\n", echo.out);
  EXPECT_EQ(0, echo.exitCode);
}

TEST_F(ProcessTest, StdinIsFedAndClosedThroughAChannel) {
  int in[2];
  ASSERT_EQ(1, ChannelCreatePipe(in));
  Channel *writer = ChannelNew(-1, -1);
  ASSERT_EQ(1, ChannelSetFD(writer, in[1], 1));
  std::string sent;
  for (int k = 0; k < 2000; k++) sent += "line " + std::to_string(k) + "\n";
  // More than a pipe holds: the reader drains while the writer fills.
  std::thread feeder;
  Outcome run = Collect([&](int out) {
    Process *process = ProcessExecuteDontInheritHandles("/bin/cat", Args{"cat"}, nullptr, in[0], out, -1);
    close(in[0]);
    feeder = std::thread([&] {
      EXPECT_EQ(1, ChannelWriteBuf(writer, sent.data(), sent.size()));
      EXPECT_EQ(1, ChannelFlush(writer));
      ChannelClose(writer);
    });
    return process;
  });
  feeder.join();
  EXPECT_EQ(sent, run.out);
  EXPECT_EQ(1, run.result);
  EXPECT_EQ(0, run.exitCode);
}

TEST_F(ProcessTest, EnvironmentIsPassedExactly) {
  StringArray environment{};
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "A", "1"));
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "B", "x y"));
  ASSERT_EQ(1, StringArrayEnvSet(&environment, "EMPTY", ""));
  Outcome env =
      Collect([&](int out) { return ProcessExecute("/usr/bin/env", Args{"env"}, environment.elements, -1, out, -1); });
  StringArrayClear(&environment);
  ArrayFree(environment);
  EXPECT_EQ("A=1\nB=x y\nEMPTY=\n", env.out);
  EXPECT_EQ("0\n", RunShell("env | grep -v '^PWD=' | wc -l", 0, Args{}).out);
  // A null environment is the caller's.
  ASSERT_EQ(0, setenv("KZ_PROCESS_TEST_MARK", "mark value", 1));
  EXPECT_EQ("mark value\n", RunShell("echo \"$KZ_PROCESS_TEST_MARK\"").out);
  unsetenv("KZ_PROCESS_TEST_MARK");
}

// The working directory and the nice value of a start: the child reports them.
TEST_F(ProcessTest, StartOptions) {
  kztest::TempDir dir;
  const char *nice = "cut -d' ' -f19 /proc/self/stat";
  const struct {
    const char *directory, *script;
    int nice;
    std::string expected;
  } cases[] = {
      {dir.path().c_str(), "pwd", KZ_PROCESS_NICE_INHERIT, dir.path() + "\n"},
      {nullptr, nice, 5, "5\n"},
      {nullptr, nice, 10, "5\n"},
      {nullptr, nice, 19, "19\n"},
  };
  for (const auto &c : cases) {
    KZProcessStart options = {0, nullptr, nullptr, nullptr, c.directory, c.nice};
    Outcome run = Collect([&](int out) {
      return ProcessExecute_(&options, "/bin/sh", Args{"sh", "-c", c.script}, nullptr, -1, out, -1);
    });
    EXPECT_EQ(c.expected, run.out) << c.script << " nice " << c.nice;
  }
}

TEST_F(ProcessTest, InheritanceOfOtherDescriptors) {
  int inheritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GT(inheritable, 2);
  ASSERT_EQ(1, FDSetInheritance(inheritable, 1));
  int closeOnExec = open("/dev/null", O_RDONLY | O_CLOEXEC);
  std::string probe = "for fd in " + std::to_string(inheritable) + " " + std::to_string(closeOnExec) +
                      "; do if [ -e /proc/self/fd/$fd ]; then echo open; else echo closed; fi; done";
  EXPECT_EQ("open\nclosed\n", RunShell(probe.c_str(), 1).out);
  EXPECT_EQ("closed\nclosed\n", RunShell(probe.c_str(), 0).out);
  close(inheritable);
  close(closeOnExec);
}

TEST_F(ProcessTest, TerminateKillAndSignals) {
  int out[2];
  ASSERT_EQ(1, ChannelCreatePipe(out));
  // The child ignores SIGTERM, then says it is ready.
  Process *process = ProcessExecuteDontInheritHandles(
      "/bin/sh", Args{"sh", "-c", "trap '' TERM; echo ready; exec sleep 60"}, nullptr, -1, out[1], -1);
  ASSERT_NE(nullptr, process);
  close(out[1]);
  EXPECT_EQ("ready\n", kztest::ReadExactly(out[0], 6));
  close(out[0]);

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
  // A child that terminates itself politely.
  EXPECT_EQ(SIGTERM, RunShell("kill -TERM $$").signal);
}

TEST_F(ProcessTest, CurrentProcessIsRefusedWhereItMustBe) {
  Process *current = ProcessGetCurrent();
  EXPECT_EQ(current, ProcessGetCurrent());
  EXPECT_EQ(static_cast<unsigned>(getpid()), ProcessGetId(current));
  EXPECT_EQ(1, ProcessIsAlive(current));
  for (auto call : {+[](Process *p) { return ProcessKill(p); }, +[](Process *p) { return ProcessTerminate(p); },
                    +[](Process *p) { return ProcessWait(p, 1, nullptr, nullptr); }}) {
    errno = 0;
    EXPECT_EQ(0, call(current));
    EXPECT_EQ(EINVAL, errno);
  }
  EXPECT_NE(KZ_PROCESS_PRIORITY_UNKNOWN, ProcessGetPriority(current));
}

TEST_F(ProcessTest, Priorities) {
  Process *process = ProcessExecuteDontInheritHandles("/bin/sleep", Args{"sleep", "60"}, nullptr, -1, -1, -1);
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
  EXPECT_EQ(1, ProcessWait(process, 1, nullptr, nullptr));
}

TEST_F(ProcessTest, ReleasedRunningChildIsReapedByTheLibrary) {
  int in[2], out[2];
  ASSERT_EQ(1, ChannelCreatePipe(in));
  ASSERT_EQ(1, ChannelCreatePipe(out));
  Process *process = ProcessExecuteDontInheritHandles("/bin/cat", Args{"cat"}, nullptr, in[0], out[1], -1);
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
  Process *process =
      ProcessExecuteStdio("/bin/sh", Args{"sh", "-c", "i=0; while [ $i -lt 200000 ]; do i=$((i+1)); done"}, nullptr);
  ASSERT_NE(nullptr, process);
  Process *opened = ProcessFromId(ProcessGetId(process));
  ASSERT_NE(nullptr, opened);
  int exitCode = -1;
  EXPECT_EQ(1, ProcessWait(opened, 1, &exitCode, nullptr));
  EXPECT_EQ(0, exitCode);
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
  Outcome id = Collect([&](int out) {
    return ProcessExecutePipeToken(&token, "/usr/bin/id", const_cast<char **>(argv), nullptr, -1, out, -1);
  });
  EXPECT_EQ(std::to_string(nobody->pw_uid) + "\n", id.out);
  EXPECT_EQ(0, id.exitCode);
  // A wrong password is refused by PAM.
  errno = 0;
  EXPECT_EQ(nullptr, ProcessExecuteWithCredentials("nobody", "not the password", "/usr/bin/id",
                                                   const_cast<char **>(argv), nullptr));
  EXPECT_EQ(-1, errno);
  EXPECT_NE(0, KZGetLastError());
}

TEST_F(ProcessTest, ManyChildrenFromFourThreadsLeakNothing) {
  RunShell("true");  // lazily created state (locks, thread keys) is not counted
  long before = CountDescriptors();
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([t, &failures] {
      for (int k = 0; k < 50; k++) {
        Outcome run = Collect([](int out) {
          return ProcessExecuteDontInheritHandles("/bin/echo", Args{"echo", "child"}, nullptr, -1, out, -1);
        });
        failures[t] += run.result != 1 || run.exitCode != 0 || run.out != "child\n";
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(4, 0), failures);
  EXPECT_EQ(before, CountDescriptors());
}

// ---- dynamic libraries ----------------------------------------------------------

int g_loads = 0, g_frees = 0;

TEST_F(ProcessTest, DynamicLibraries) {
  void *main = OpenDLL(nullptr);
  ASSERT_NE(nullptr, main);
  EXPECT_EQ(reinterpret_cast<void *>(&ProcessGetCurrent), GetDLLSymbol(main, "ProcessGetCurrent"));
  errno = 0;
  EXPECT_EQ(nullptr, GetDLLSymbol(main, "no_such_symbol_here"));
  EXPECT_EQ(-1, errno);
  EXPECT_EQ(1, CloseDLL(main));
  errno = 0;
  EXPECT_EQ(nullptr, OpenDLL("libkz-no-such-library.so"));
  EXPECT_EQ(-1, errno);

  // Through the hooks: each is called once.
  SetOpenDllHooks([](const char *name) { return g_loads++, dlopen(name, RTLD_NOW); },
                  [](void *module) { return g_frees++, static_cast<int>(dlclose(module) == 0); });
  void *libc = OpenDLL("libc.so.6");
  ASSERT_NE(nullptr, libc);
  EXPECT_EQ(reinterpret_cast<void *>(&getpid), GetDLLSymbol(libc, "getpid"));
  EXPECT_EQ(1, CloseDLL(libc));
  SetOpenDllHooks(nullptr, nullptr);
  EXPECT_EQ(1, g_loads);
  EXPECT_EQ(1, g_frees);
}

}  // namespace
