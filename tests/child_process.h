// Child processes for tests that must start the library afresh or let a
// process die: a private temporary directory and a forked child whose output
// is captured.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kztest {

// A private temporary directory, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    const char *base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kzcrash-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data())) path_ = buffer.data();
  }
  ~TempDir() {
    if (path_.empty()) return;
    if (DIR *dir = opendir(path_.c_str())) {
      while (dirent *entry = readdir(dir))
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
          unlink((path_ + "/" + entry->d_name).c_str());
      closedir(dir);
    }
    rmdir(path_.c_str());
  }
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string &path) {
  std::string text;
  FILE *file = fopen(path.c_str(), "rb");
  if (!file) return text;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, got);
  fclose(file);
  return text;
}

struct Child {
  pid_t pid = -1;
  int status = 0;
  bool timedOut = false;
  std::string out, err;

  bool Exited(int code) const { return !timedOut && WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool Signalled(int signal) const { return !timedOut && WIFSIGNALED(status) && WTERMSIG(status) == signal; }
  std::string Describe() const {
    std::string what = timedOut ? "timed out" : WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                                                  : "signal " + std::to_string(WTERMSIG(status));
    return what + "\n--- stdout ---\n" + out + "--- stderr ---\n" + err;
  }
};

using Environment = std::vector<std::pair<const char *, const char *>>;

// Runs body in a forked child (no core file, the library's variables unset
// unless given); the child's stdout and stderr go to files in dir.
Child RunChild(const TempDir &dir, const Environment &environment, const std::function<int()> &body) {
  Child child;
  std::string outPath = dir / "child.out", errPath = dir / "child.err";
  fflush(nullptr);
  child.pid = fork();
  if (child.pid == 0) {
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, 1);
    dup2(err, 2);
    close(out);
    close(err);
    // No core dump, not even to a core-dump collector behind a pipe.
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    for (const char *name : {"KZ", "GDB", "KZ_HANDLER_GRACE_TIME", "KZ_DEBUGGER"}) unsetenv(name);
    for (const auto &[name, value] : environment) {
      if (value)
        setenv(name, value, 1);
      else
        unsetenv(name);
    }
    int code = body();
    fflush(nullptr);
    _exit(code);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  for (;;) {
    if (waitpid(child.pid, &child.status, WNOHANG) == child.pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child.pid, SIGKILL);
      waitpid(child.pid, &child.status, 0);
      child.timedOut = true;
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

// The same, with a temporary directory of its own.
Child RunChild(const Environment &environment, const std::function<int()> &body) {
  TempDir dir;
  return RunChild(dir, environment, body);
}

// The value a child printed as a line "<key>=<value>" (the rest of the line).
std::string Value(const std::string &out, const std::string &key) {
  size_t at = ("\n" + out).find("\n" + key + "=");  // where the key starts in out
  if (at == std::string::npos) return "(missing)";
  size_t start = at + key.size() + 1;
  return out.substr(start, out.find('\n', start) - start);
}

}  // namespace kztest
