// Child processes and dynamic libraries on POSIX: posix_spawn when the
// system call can express the request (no fork of a large address space),
// fork and exec when the child must change its priority or identity first.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(KZ_HAVE_PAM)
#include <security/pam_appl.h>
#endif

#include "internal/os/process.h"

namespace kz::os {
namespace {

constexpr const char *kNullDevice = "/dev/null";

uint64_t Micros(const timeval &t) {
  return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_usec);
}

void FillEnding(int status, const rusage &usage, Ending *ending) {
  ending->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  ending->signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  ending->userMicros = Micros(usage.ru_utime);
  ending->systemMicros = Micros(usage.ru_stime);
}

int64_t SpawnDirect(const SpawnRequest &request, int *error) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  int result = 0;
  if (!request.standardStreams) {
    static const int kOpenFlags[3] = {O_RDONLY, O_WRONLY, O_WRONLY};
    for (int k = 0; k < 3 && result == 0; k++) {
      result = request.fds[k] == -1 ? posix_spawn_file_actions_addopen(&actions, k, kNullDevice, kOpenFlags[k], 0)
                                    : posix_spawn_file_actions_adddup2(&actions, request.fds[k], k);
    }
  }
  if (result == 0 && !request.inherit) result = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  if (result == 0 && request.directory) result = posix_spawn_file_actions_addchdir_np(&actions, request.directory);
  sigset_t empty, defaults;
  sigemptyset(&empty);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);  // the library ignores it in the parent
  if (result == 0) result = posix_spawnattr_setsigmask(&attributes, &empty);
  if (result == 0) result = posix_spawnattr_setsigdefault(&attributes, &defaults);
  if (result == 0) result = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  if (result == 0) result = posix_spawn(&pid, request.path, &actions, &attributes, request.argv, request.envp);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (result != 0) {
    *error = result;
    return -1;
  }
  return pid;
}

// In the forked child: only async-signal-safe calls. Reports errno on the
// pipe and ends when a step fails.
[[noreturn]] void ChildFail(int report) {
  int error = errno;
  ssize_t ignored = write(report, &error, sizeof error);
  (void)ignored;
  _exit(127);
}

[[noreturn]] void RunChild(const SpawnRequest &request, int report) {
  if (!request.standardStreams) {
    static const int kOpenFlags[3] = {O_RDONLY, O_WRONLY, O_WRONLY};
    for (int k = 0; k < 3; k++) {
      if (request.fds[k] == -1) {
        int fd = open(kNullDevice, kOpenFlags[k]);
        if (fd < 0) ChildFail(report);
        if (fd != k) {
          if (dup2(fd, k) < 0) ChildFail(report);
          close(fd);
        }
      } else if (dup2(request.fds[k], k) < 0) {
        ChildFail(report);
      }
    }
  }
  if (!request.inherit) {
    // Keep the report pipe (close-on-exec) open until exec.
    if (report > 3) syscall(SYS_close_range, 3u, static_cast<unsigned>(report - 1), 0u);
    syscall(SYS_close_range, static_cast<unsigned>(report + 1), ~0u, 0u);
  }
  if (request.directory && chdir(request.directory) != 0) ChildFail(report);
  if (request.setNice && setpriority(PRIO_PROCESS, 0, request.nice) != 0) ChildFail(report);
  if (request.setIdentity) {
    static_assert(sizeof(gid_t) == sizeof(uint32_t));
    if (setgroups(static_cast<size_t>(request.groupCount), reinterpret_cast<const gid_t *>(request.groups)) != 0 ||
        setgid(request.gid) != 0 || setuid(request.uid) != 0)
      ChildFail(report);
  }
  signal(SIGPIPE, SIG_DFL);
  sigset_t empty;
  sigemptyset(&empty);
  sigprocmask(SIG_SETMASK, &empty, nullptr);
  execve(request.path, request.argv, request.envp);
  ChildFail(report);
}

int64_t SpawnForked(const SpawnRequest &request, int *error) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    *error = errno;
    return -1;
  }
  // No handler of the program may run in the child before exec.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pid_t pid = fork();
  if (pid == 0) {
    close(report[0]);
    RunChild(request, report[1]);
  }
  int forkError = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    *error = forkError;
    return -1;
  }
  int childError = 0;
  ssize_t got;
  do {
    got = read(report[0], &childError, sizeof childError);
  } while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof childError)) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {}
    *error = childError;
    return -1;
  }
  return pid;
}

struct ReapJob {
  pid_t pid;
  void (*account)(const Ending &);
};

void *ReapThread(void *argument) {
  ReapJob job = *static_cast<ReapJob *>(argument);
  free(argument);
  int status = 0;
  rusage usage{};
  while (wait4(job.pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) return nullptr;
  }
  Ending ending;
  FillEnding(status, usage, &ending);
  job.account(ending);
  return nullptr;
}

#if defined(KZ_HAVE_PAM)
struct Conversation {
  const char *password;
};

int Converse(int count, const pam_message **messages, pam_response **responses, void *data) {
  auto *conversation = static_cast<Conversation *>(data);
  auto *answers = static_cast<pam_response *>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (!answers) return PAM_BUF_ERR;
  for (int k = 0; k < count; k++) {
    if (messages[k]->msg_style == PAM_PROMPT_ECHO_OFF || messages[k]->msg_style == PAM_PROMPT_ECHO_ON) {
      answers[k].resp = strdup(conversation->password ? conversation->password : "");
      if (!answers[k].resp) {
        for (int j = 0; j < k; j++) free(answers[j].resp);
        free(answers);
        return PAM_BUF_ERR;
      }
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}
#endif

}  // namespace

int64_t Spawn(const SpawnRequest &request, int *error) {
  if (request.setNice || request.setIdentity) return SpawnForked(request, error);
  return SpawnDirect(request, error);
}

int WaitChild(int64_t pid, bool block, Ending *ending, int *error) {
  int status = 0;
  rusage usage{};
  for (;;) {
    pid_t got = wait4(static_cast<pid_t>(pid), &status, block ? 0 : WNOHANG, &usage);
    if (got == static_cast<pid_t>(pid)) break;
    if (got == 0) return 0;
    if (errno == EINTR) continue;
    *error = errno;
    return -1;
  }
  FillEnding(status, usage, ending);
  return 1;
}

void ReapLater(int64_t pid, void (*account)(const Ending &ending)) {
  auto *job = static_cast<ReapJob *>(malloc(sizeof(ReapJob)));
  if (job) {
    job->pid = static_cast<pid_t>(pid);
    job->account = account;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, 64 * 1024);
    // No signal for the program's handlers on this thread.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    int result = pthread_create(&thread, &attributes, ReapThread, job);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    if (result == 0) return;
    free(job);
  }
  // No thread: the child has to be waited for here rather than left a zombie.
  int status = 0;
  rusage usage{};
  while (wait4(static_cast<pid_t>(pid), &status, 0, &usage) < 0 && errno == EINTR) {}
  Ending ending;
  FillEnding(status, usage, &ending);
  account(ending);
}

bool Signal(int64_t pid, int which, int *error) {
  static const int kSignals[3] = {0, SIGTERM, SIGKILL};
  if (kill(static_cast<pid_t>(pid), kSignals[which]) == 0) return true;
  *error = errno;
  return false;
}

int64_t CurrentProcessId() { return getpid(); }

bool GetNice(int64_t pid, int *nice, int *error) {
  errno = 0;
  int value = getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
  if (value == -1 && errno != 0) {
    *error = errno;
    return false;
  }
  *nice = value;
  return true;
}

bool SetNice(int64_t pid, int nice, int *error) {
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(pid), nice) == 0) return true;
  *error = errno;
  return false;
}

bool MayChangeIdentity() { return geteuid() == 0; }

bool LogOn(const char *user, const char *password, uint32_t *uid, uint32_t *gid, uint32_t *groups, int *groupCount,
           int *error) {
  passwd entry, *found = nullptr;
  char buffer[4096];
  int result = getpwnam_r(user, &entry, buffer, sizeof buffer, &found);
  if (result != 0 || !found) {
    *error = result != 0 ? result : ENOENT;
    return false;
  }
#if defined(KZ_HAVE_PAM)
  Conversation conversation{password};
  pam_conv conv{Converse, &conversation};
  pam_handle_t *handle = nullptr;
  int status = pam_start("kzlib", user, &conv, &handle);
  if (status == PAM_SUCCESS) status = pam_authenticate(handle, PAM_SILENT);
  if (status == PAM_SUCCESS) status = pam_acct_mgmt(handle, PAM_SILENT);
  if (handle) pam_end(handle, status);
  if (status != PAM_SUCCESS) {
    *error = status == PAM_BUF_ERR ? ENOMEM : EACCES;
    return false;
  }
#else
  (void)password;
  *error = ENOSYS;
  return false;
#endif
  *uid = found->pw_uid;
  *gid = found->pw_gid;
  int count = *groupCount;
  static_assert(sizeof(gid_t) == sizeof(uint32_t));
  if (getgrouplist(user, found->pw_gid, reinterpret_cast<gid_t *>(groups), &count) < 0) {
    count = *groupCount;  // too many: the first ones
  }
  *groupCount = count;
  return true;
}

void *LibraryOpen(const char *name, int *error) {
  void *module = dlopen(name, RTLD_NOW);
  if (!module) *error = ENOENT;
  return module;
}

int LibraryClose(void *module, int *error) {
  if (dlclose(module) == 0) return 1;
  *error = EINVAL;
  return 0;
}

void *LibrarySymbol(void *module, const char *name, int *error) {
  dlerror();
  void *address = dlsym(module, name);
  if (!address) *error = ENOENT;
  return address;
}

void *MainProgram(int *error) { return LibraryOpen(nullptr, error); }

}  // namespace kz::os
