// Daemon mode on POSIX: directories, standard streams, sessions and the
// service manager's notification socket.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "internal/os/daemon.h"

namespace kz::os {

void ClearFileCreationMask() { umask(0); }

bool MakeDirectories(const char *path, int *error) {
  std::string partial;
  const char *p = path;
  do {
    const char *slash = strchr(p + (*p == '/' ? 1 : 0), '/');
    size_t end = slash ? static_cast<size_t>(slash - path) : strlen(path);
    partial.assign(path, end);
    if (!partial.empty() && mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST) {
      *error = errno;
      return false;
    }
    p = slash;
  } while (p && *++p);
  struct stat status;
  if (stat(path, &status) != 0 || !S_ISDIR(status.st_mode)) {
    *error = ENOTDIR;
    return false;
  }
  return true;
}

bool ChangeDirectory(const char *path, int *error) {
  if (chdir(path) == 0) return true;
  *error = errno;
  return false;
}

bool RedirectOutputTo(FILE *stream, int *error) {
  fflush(stdout);
  fflush(stderr);
  int fd = fileno(stream);
  if (fd < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0) {
    *error = fd < 0 ? EBADF : errno;
    return false;
  }
  return true;
}

bool RedirectToNullDevice(int which, int *error) {
  if (which != 0) {
    fflush(stdout);
    fflush(stderr);
  }
  int fd = open("/dev/null", (which == 0 ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  bool ok = which == 0 ? dup2(fd, 0) >= 0 : dup2(fd, 1) >= 0 && dup2(fd, 2) >= 0;
  if (!ok) *error = errno;
  close(fd);
  return ok;
}

bool DetachSession(int *error) {
  if (setsid() >= 0 || getsid(0) == getpid()) return true;
  *error = errno;
  return false;
}

int64_t Fork(int *error) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) *error = errno;
  return pid;
}

void ExitAtOnce(int status) { _exit(status); }

bool NotifyServiceManager(const char *address, const char *state, int *error) {
  sockaddr_un target{};
  target.sun_family = AF_UNIX;
  size_t length = strlen(address);
  if (length == 0 || length >= sizeof target.sun_path) {
    *error = EINVAL;
    return false;
  }
  memcpy(target.sun_path, address, length);
  if (target.sun_path[0] == '@') target.sun_path[0] = '\0';
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  bool ok = sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&target), size) >= 0;
  if (!ok) *error = errno;
  close(fd);
  return ok;
}

namespace {

// The stop signal's handler may only write to a pipe; the reading end wakes a
// library thread that does the rest.
int g_stopPipe[2] = {-1, -1};

void OnStopSignal(int) {
  int saved = errno;
  char byte = 1;
  [[maybe_unused]] ssize_t ignored = write(g_stopPipe[1], &byte, 1);
  errno = saved;
}

}  // namespace

bool CatchStopRequest(bool *installed, int *error) {
  *installed = false;
  struct sigaction current;
  if (sigaction(SIGTERM, nullptr, &current) != 0) {
    *error = errno;
    return false;
  }
  // A program that handles or ignores the signal itself keeps its choice.
  if ((current.sa_flags & SA_SIGINFO) || current.sa_handler != SIG_DFL) return true;
  if (g_stopPipe[0] < 0 && pipe2(g_stopPipe, O_CLOEXEC) != 0) {
    *error = errno;
    return false;
  }
  struct sigaction stop {};
  stop.sa_handler = OnStopSignal;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = SA_RESTART;
  if (sigaction(SIGTERM, &stop, nullptr) != 0) {
    *error = errno;
    return false;
  }
  *installed = true;
  return true;
}

void WaitForStopRequest() {
  char byte;
  while (read(g_stopPipe[0], &byte, 1) < 0 && errno == EINTR) {}
}

bool AtExitWithStatus(void (*handler)(int status, void *argument)) { return on_exit(handler, nullptr) == 0; }

int64_t NowMilliseconds() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

}  // namespace kz::os
