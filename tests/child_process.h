// Forked children with captured output, and a private temporary directory.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kztest {

class TempDir {  // removed with everything in it
 public:
  TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "kzcrash-XXXXXX";
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// How a child ended, to compare with Child::Ending().
inline std::string ExitEnding(int code) { return "exit " + std::to_string(code); }
inline std::string SignalEnding(int sig) { return "signal " + std::to_string(sig) + " (" + strsignal(sig) + ")"; }

struct Child {
  pid_t pid = -1;
  int status = 0;
  bool timedOut = false;
  std::string out, err;
  bool Exited(int code) const { return !timedOut && WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool Signalled(int sig) const { return !timedOut && WIFSIGNALED(status) && WTERMSIG(status) == sig; }
  std::string Ending() const {
    return timedOut            ? "timed out"
           : WIFEXITED(status) ? ExitEnding(WEXITSTATUS(status))
                               : SignalEnding(WTERMSIG(status));
  }
  std::string Describe() const {
    return (timedOut ? "timed out" : "status " + std::to_string(status)) + "\n--- stdout ---\n" + out +
           "--- stderr ---\n" + err;
  }
};

using Environment = std::vector<std::pair<const char *, const char *>>;

// Runs body in a forked child without core files and with the library's
// variables unset unless given; stdout and stderr go through files in dir.
inline Child RunChild(const TempDir &dir, const Environment &environment, const std::function<int()> &body) {
  Child child;
  const std::string outPath = dir / "child.out", errPath = dir / "child.err";
  fflush(nullptr);
  if ((child.pid = fork()) == 0) {
    dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);  // not even to a collector behind a pipe
    for (const char *name : {"KZ", "GDB", "KZ_HANDLER_GRACE_TIME", "KZ_DEBUGGER"}) unsetenv(name);
    for (const auto &[name, value] : environment) setenv(name, value, 1);
    int code = body();
    fflush(nullptr);
    _exit(code);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (waitpid(child.pid, &child.status, WNOHANG) != child.pid) {
    if ((child.timedOut = std::chrono::steady_clock::now() > deadline)) {
      kill(child.pid, SIGKILL);
      waitpid(child.pid, &child.status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  child.out = ReadFile(outPath);
  child.err = ReadFile(errPath);
  unlink(outPath.c_str());
  unlink(errPath.c_str());
  return child;
}

inline Child RunChild(const Environment &environment, const std::function<int()> &body) {
  TempDir dir;
  return RunChild(dir, environment, body);
}

}  // namespace kztest
