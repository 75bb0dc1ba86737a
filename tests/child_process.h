// Child processes with captured output, and a private temporary directory.
//
// RunChild runs a piece of the current test in a new process: it starts the
// test program again (posix_spawn on Linux, CreateProcess on Windows) with
// a filter selecting the current test and --kz_child=<n>. The child runs the
// test from its start, silently, up to its n-th RunChild call; there it runs
// the body, and its result is the child's exit status. So the body sees what
// the test set up before the call, as after a fork, and the same code runs on
// both platforms. The k-th TempDir a test makes in the child is the parent's
// k-th (kept, not removed, by the child). What only the parent may hold (a
// bound socket, a thread playing the peer) is set up under
// `if (!kztest::InChild())`, and names meant to agree between the two are made
// from TestPid().
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(_WIN32)
#include <direct.h>
#include <io.h>
#include <process.h>
#include <sys/types.h>
#include <windows.h>
#else
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
extern char **environ;
#endif

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kztest {

namespace child_detail {

// Set in a child: which RunChild call of the test it runs (1-based), and the
// parent's temporary directories, one per line.
inline int g_target = 0;
inline std::string g_parentDirs;
inline long g_parentPid = 0;

// Per-test counters: RunChild calls and TempDirs made so far, and the
// directories themselves (a parent passes them to its children).
struct TestState {
  std::string test;
  int children = 0;
  std::vector<std::string> dirs;
};
inline TestState &State() {
  static TestState state;
  const testing::TestInfo *info = testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info ? std::string(info->test_suite_name()) + "." + info->name() : "";
  if (test != state.test) state = TestState{test, 0, {}};
  return state;
}

inline std::string SelfPath() {
#if defined(_WIN32)
  wchar_t path[32768];
  DWORD length = GetModuleFileNameW(nullptr, path, 32768);
  return std::filesystem::path(std::wstring(path, length)).string();
#else
  return std::filesystem::read_symlink("/proc/self/exe").string();
#endif
}

}  // namespace child_detail

// True in a process started by RunChild.
inline bool InChild() { return child_detail::g_target > 0; }

// The test's process id: the parent's in a child of RunChild.
inline long TestPid() {
#if defined(_WIN32)
  return InChild() ? child_detail::g_parentPid : static_cast<long>(GetCurrentProcessId());
#else
  return InChild() ? child_detail::g_parentPid : static_cast<long>(getpid());
#endif
}

class TempDir {  // removed with everything in it (by the process that made it)
 public:
  TempDir() {
    auto &state = child_detail::State();
    size_t index = state.dirs.size();
    if (InChild()) {
      std::istringstream dirs(child_detail::g_parentDirs);
      std::string line;
      for (size_t i = 0; std::getline(dirs, line); i++)
        if (i == index) path_ = line, owned_ = false;
    }
    // One the parent removed already (an earlier step of the test) is made
    // again, empty, for the steps the child passes through on its way.
    std::error_code error;
    if (!owned_ && !std::filesystem::exists(path_, error)) owned_ = std::filesystem::create_directories(path_, error);
    if (path_.empty()) Make();
    state.dirs.push_back(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    if (owned_ && !path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  void Make() {
    std::error_code error;
    std::filesystem::path base = std::filesystem::temp_directory_path(error);
    std::random_device random;
    for (int attempt = 0; attempt < 100 && path_.empty(); attempt++) {
      std::filesystem::path candidate = base / ("kzcrash-" + std::to_string(random()));
      if (std::filesystem::create_directory(candidate, error)) path_ = candidate.generic_string();
    }
  }
  std::string path_;
  bool owned_ = true;
};

inline std::string ReadFile(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// How a child ended, to compare with Child::Ending().
inline std::string ExitEnding(int code) { return "exit " + std::to_string(code); }
#if defined(_WIN32)
inline std::string SignalEnding(int sig) {
  const char *name = sig == SIGABRT   ? "abort"
                     : sig == SIGSEGV ? "access violation or stack overflow"
                     : sig == SIGILL  ? "illegal instruction"
                     : sig == SIGFPE  ? "arithmetic fault"
                                      : "?";
  return "signal " + std::to_string(sig) + " (" + name + ")";
}
#else
inline std::string SignalEnding(int sig) { return "signal " + std::to_string(sig) + " (" + strsignal(sig) + ")"; }
#endif

struct Child {
  pid_t pid = -1;
  int status = 0;  // waitpid's status on Linux, the exit code on Windows
  bool timedOut = false;
  std::string out, err;
#if defined(_WIN32)
  // How the process ended as the signal it stands for: the system gives a
  // crash its exception code as exit status, abort() exits with 3.
  int SignalOf() const {
    const auto code = static_cast<unsigned>(status);
    if (code == 3) return SIGABRT;
    if (code == 0xC0000005u || code == 0xC00000FDu || code == 0xC0000006u) return SIGSEGV;
    if (code == 0xC000001Du || code == 0xC0000096u) return SIGILL;
    if (code >= 0xC000008Cu && code <= 0xC0000095u) return SIGFPE;
    return 0;
  }
  bool Exited(int code) const { return !timedOut && pid != -1 && status == code && !SignalOf(); }
  bool Signalled(int sig) const { return !timedOut && pid != -1 && SignalOf() == sig; }
  std::string Ending() const {
    return pid == -1    ? "not started"
           : timedOut   ? "timed out"
           : SignalOf() ? SignalEnding(SignalOf())
                        : ExitEnding(status);
#else
  bool Exited(int code) const { return !timedOut && pid != -1 && WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool Signalled(int sig) const { return !timedOut && pid != -1 && WIFSIGNALED(status) && WTERMSIG(status) == sig; }
  std::string Ending() const {
    return pid == -1           ? "not started"
           : timedOut          ? "timed out"
           : WIFEXITED(status) ? ExitEnding(WEXITSTATUS(status))
                               : SignalEnding(WTERMSIG(status));
#endif
  }
  std::string Describe() const {
    return (timedOut ? "timed out" : "status " + std::to_string(status)) + "\n--- stdout ---\n" + out +
           "--- stderr ---\n" + err;
  }
};

using Environment = std::vector<std::pair<const char *, const char *>>;

namespace child_detail {

// The environment of a child: this process's without the library's
// variables, then the given ones, then the directories to adopt.
inline std::vector<std::string> ChildEnvironment(const Environment &environment, const std::string &dirs) {
  std::vector<std::string> result;
  auto dropped = [](const std::string &entry) {
    for (const char *name :
         {"KZ", "GDB", "KZ_HANDLER_GRACE_TIME", "KZ_DEBUGGER", "KZTEST_CHILD_DIRS", "KZTEST_PARENT_PID"}) {
      size_t length = strlen(name);
      if (entry.size() > length && entry[length] == '=' && entry.compare(0, length, name) == 0) return true;
    }
    return false;
  };
#if defined(_WIN32)
  wchar_t *block = GetEnvironmentStringsW();
  for (const wchar_t *entry = block; entry && *entry; entry += wcslen(entry) + 1) {
    std::string text = std::filesystem::path(entry).string();
    if (!dropped(text)) result.push_back(text);
  }
  if (block) FreeEnvironmentStringsW(block);
#else
  for (char **entry = environ; *entry; entry++)
    if (!dropped(*entry)) result.push_back(*entry);
#endif
  for (const auto &[name, value] : environment) {
    std::string prefix = std::string(name) + "=";
    std::erase_if(result, [&](const std::string &entry) { return entry.compare(0, prefix.size(), prefix) == 0; });
    result.push_back(prefix + value);
  }
  result.push_back("KZTEST_CHILD_DIRS=" + dirs);
  result.push_back("KZTEST_PARENT_PID=" + std::to_string(TestPid()));
  return result;
}

#if defined(_WIN32)
// One argument quoted for the command line as the C runtime splits it.
inline std::wstring Quoted(const std::wstring &argument) {
  std::wstring quoted = L"\"";
  size_t backslashes = 0;
  for (wchar_t c : argument) {
    if (c == L'\\') {
      backslashes++;
      continue;
    }
    quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(2 * backslashes, L'\\');
  return quoted + L"\"";
}
#endif

inline void Spawn(Child &child, const std::vector<std::string> &arguments, const std::vector<std::string> &environment,
                  const std::string &outPath, const std::string &errPath, const std::string &workDir = {}) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
#if defined(_WIN32)
  std::wstring commandLine;
  for (const std::string &argument : arguments)
    commandLine += (commandLine.empty() ? L"" : L" ") + Quoted(std::filesystem::path(argument).wstring());
  std::wstring block;
  for (const std::string &entry : environment) block += std::filesystem::path(entry).wstring() + L'\0';
  block += L'\0';
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  auto open = [&](const std::string &path, DWORD access, DWORD disposition) {
    return CreateFileW(std::filesystem::path(path).wstring().c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       &inherit, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  };
  HANDLE in = open("NUL", GENERIC_READ, OPEN_EXISTING), out = open(outPath, GENERIC_WRITE, CREATE_ALWAYS),
         err = open(errPath, GENERIC_WRITE, CREATE_ALWAYS);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in, startup.hStdOutput = out, startup.hStdError = err;
  PROCESS_INFORMATION process{};
  const std::wstring directory = std::filesystem::path(workDir).wstring();
  // Wine's CreateProcess fails now and then with ERROR_INTERNAL_ERROR on a
  // loaded machine (its server is slow to answer); a later attempt starts the
  // program.
  BOOL started = FALSE;
  for (int attempt = 0; attempt < 5 && !started; attempt++) {
    if (attempt > 0) {
      if (GetLastError() != ERROR_INTERNAL_ERROR) break;
      Sleep(200 * attempt);
    }
    started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                             block.data(), workDir.empty() ? nullptr : directory.c_str(), &startup, &process);
  }
  if (started) {
    child.pid = static_cast<pid_t>(process.dwProcessId);
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (WaitForSingleObject(process.hProcess, static_cast<DWORD>(left.count())) == WAIT_TIMEOUT) {
      child.timedOut = true;
      TerminateProcess(process.hProcess, 1);
      WaitForSingleObject(process.hProcess, INFINITE);
    }
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    child.status = static_cast<int>(code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  } else {
    child.err = "CreateProcess failed: " + std::to_string(GetLastError()) + "\n";
  }
  for (HANDLE handle : {in, out, err})
    if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
#else
  std::vector<char *> argv, envp;
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  for (const std::string &entry : environment) envp.push_back(const_cast<char *>(entry.c_str()));
  argv.push_back(nullptr), envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (!workDir.empty()) posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
  pid_t pid;
  int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    child.err = std::string("posix_spawn failed: ") + strerror(error) + "\n";
    return;
  }
  child.pid = pid;
  while (waitpid(child.pid, &child.status, WNOHANG) != child.pid) {
    if ((child.timedOut = std::chrono::steady_clock::now() > deadline)) {
      kill(child.pid, SIGKILL);
      waitpid(child.pid, &child.status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
#endif
}

// Spawns, waits, and reads the output and error the child wrote to
// <stem>.out and <stem>.err, which are removed afterwards.
inline void SpawnAndCollect(Child &child, const std::vector<std::string> &arguments,
                            const std::vector<std::string> &environment, const std::string &stem,
                            const std::string &workDir) {
  const std::string outPath = stem + ".out", errPath = stem + ".err";
  fflush(nullptr);
  Spawn(child, arguments, environment, outPath, errPath, workDir);
  child.out = ReadFile(outPath);
  child.err += ReadFile(errPath);
  std::error_code ignored;
  std::filesystem::remove(outPath, ignored);
  std::filesystem::remove(errPath, ignored);
}

}  // namespace child_detail

// Runs body in a child process (see the top of this file) without core files
// and with the library's variables unset unless given; stdout and stderr go
// through files in dir.
inline Child RunChild(const TempDir &dir, const Environment &environment, const std::function<int()> &body) {
  auto &state = child_detail::State();
  const int ordinal = ++state.children;
  Child child;
  if (InChild()) {
    // An earlier call, which the parent ran: it reads as a clean exit, so the
    // test goes on to the call this child is for.
    if (ordinal != child_detail::g_target) return child.pid = 0, child;
    fflush(nullptr);
    int code = body();
    fflush(nullptr);
    _exit(code);
  }
  std::string dirs;
  for (const std::string &path : state.dirs) dirs += path + "\n";
  child_detail::SpawnAndCollect(
      child, {child_detail::SelfPath(), "--gtest_filter=" + state.test, "--kz_child=" + std::to_string(ordinal)},
      child_detail::ChildEnvironment(environment, dirs), dir / "child", "");
  return child;
}

inline Child RunChild(const Environment &environment, const std::function<int()> &body) {
  TempDir dir;
  return RunChild(dir, environment, body);
}

// Runs another program (arguments[0], a path) in dir, directly: nothing of
// the test runs again, unlike RunChild. Its environment is this process's
// without the library's variables, plus the given ones; stdout and stderr go
// through files in dir.
inline Child RunProgram(const TempDir &dir, const std::vector<std::string> &arguments,
                        const Environment &environment = {}) {
  Child child;
  child_detail::SpawnAndCollect(child, arguments, child_detail::ChildEnvironment(environment, ""), dir / "program",
                                dir.path());
  return child;
}

// Runs program (looked up in PATH when it names no directory) with its
// arguments in place of the child: returns its exit status, or 127 when it
// cannot be started. Meant for RunChild bodies.
inline int Exec(const std::vector<std::string> &arguments) {
  fflush(nullptr);
#if defined(_WIN32)
  // The C runtime joins the arguments with blanks: each is quoted here.
  std::vector<std::wstring> quoted;
  for (const std::string &argument : arguments)
    quoted.push_back(child_detail::Quoted(std::filesystem::path(argument).wstring()));
  std::vector<const wchar_t *> argv;
  for (const std::wstring &argument : quoted) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  intptr_t status = _wspawnvp(_P_WAIT, std::filesystem::path(arguments[0]).wstring().c_str(), argv.data());
  return status < 0 ? 127 : static_cast<int>(status);
#else
  std::vector<const char *> argv;
  for (const std::string &argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  execvp(argv[0], const_cast<char *const *>(argv.data()));
  return 127;
#endif
}

// Called first by the test programs' main: in a child started by RunChild,
// removes --kz_child=<n> from the arguments, keeps the child quiet (no test
// report, no core file) and remembers its task.
inline void EnterChildModeIfAsked(int &argc, char **argv) {
  for (int i = 1; i < argc; i++) {
    if (strncmp(argv[i], "--kz_child=", 11) != 0) continue;
    child_detail::g_target = atoi(argv[i] + 11);
    for (int j = i; j < argc; j++) argv[j] = argv[j + 1];
    argc--;
    const char *dirs = getenv("KZTEST_CHILD_DIRS");
    child_detail::g_parentDirs = dirs ? dirs : "";
    const char *pid = getenv("KZTEST_PARENT_PID");
    child_detail::g_parentPid = pid ? atol(pid) : 0;
#if !defined(_WIN32)
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);  // not even to a collector behind a pipe
#else
    // No error dialog boxes for a crash the test provokes; the output is
    // compared byte for byte, as on Linux (no CR before LF).
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
#endif
    return;
  }
}

// Called after the tests in a child: reaching here means its RunChild call
// never came (the test took another path than in the parent).
inline int ChildNotReached() {
  fprintf(stderr, "kztest: the child's RunChild call %d was not reached\n", child_detail::g_target);
  return 199;
}

}  // namespace kztest
