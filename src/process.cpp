// Child processes and dynamic libraries: argument checks, the command line,
// records, waits and priorities. The system calls are in src/posix/process.cpp.
#include "kz/process.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/os/error.h"
#include "internal/os/process.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/unicode.h"

namespace kz {
namespace {

constexpr const char *kSource = "kzlib/process";
constexpr int kMaxGroups = 256;

std::atomic<uint64_t> g_childUserMicros{0};
std::atomic<uint64_t> g_childSystemMicros{0};

void Account(const os::Ending &ending) {
  g_childUserMicros.fetch_add(ending.userMicros, std::memory_order_relaxed);
  g_childSystemMicros.fetch_add(ending.systemMicros, std::memory_order_relaxed);
}

template <typename T>
T SystemFailure(int error, T result) {
  os::FailWithError(error);
  return result;
}

Process *Invalid(uint32_t line, const char *text) {
  KZ_THROW_AT(kSource, line, "ProcessExecute_", KZ_ERR_INVALID, "%s", text);
  return nullptr;
}

// One argument or entry through the library's UTF-8 encoder (which raises
// its own errors); the text itself is passed on unchanged.
bool ConvertsToUnits(const char *text, UShortArray *scratch) {
  scratch->count = 0;
  return UCS2Encode(scratch, text, static_cast<uint32_t>(strlen(text))) != 0;
}

void AppendQuoted(ArrayView<UByteArray> &out, const char *argument) {
  bool quote = !*argument || strpbrk(argument, " \"") != nullptr;
  if (!quote) {
    out.Append(reinterpret_cast<const unsigned char *>(argument), strlen(argument));
    return;
  }
  out.Append('"');
  for (const char *p = argument; *p; p++) {
    if (*p == '"') out.Append('\\');
    out.Append(static_cast<unsigned char>(*p));
  }
  out.Append('"');
}

int BuildCommandLine(UByteArray *out, char **argv, UShortArray *scratch) {
  ArrayView<UByteArray> view(*out, kSource, __LINE__);
  for (char **argument = argv; *argument; argument++) {
    if (!ConvertsToUnits(*argument, scratch)) return 0;
    if (argument != argv) view.Append(' ');
    AppendQuoted(view, *argument);
  }
  view.Reserve(uint64_t(out->count) + 1);
  out->elements[out->count] = '\0';
  return 1;
}

bool ValidNice(int nice) {
  switch (nice) {
    case -20:
    case -10:
    case -5:
    case 0:
    case 5:
    case 10:
    case 19: return true;
    default: return false;
  }
}

// The class a nice value falls in, as the table reads it back.
int ClassOf(int nice) {
  if (nice <= -20) return -20;
  if (nice <= -10) return -10;
  if (nice < 0) return -5;
  if (nice == 0) return 0;
  if (nice < 19) return 5;
  return 19;
}

int StoredNice(int nice) { return nice == 10 ? 5 : nice; }

Process *NewRecord(int64_t pid, bool child) {
  auto *process = static_cast<Process *>(Allocate0_(sizeof(Process), kSource, __LINE__));
  process->handle = pid;
  process->pid = static_cast<uint32_t>(pid);
  process->child = child ? 1 : 0;
  return process;
}

Process g_current = {1, -1, 0, 0, 0, 0, 0};

bool IsCurrent(const Process *process) { return process->isCurrent != 0; }

// Reaps or looks; fills the record once the child has ended.
int Collect(Process *process, bool block) {
  if (process->state == 1) return 1;
  os::Ending ending{};
  int error = 0;
  int result = os::WaitChild(process->handle, block, &ending, &error);
  if (result < 0) return SystemFailure(error, -1);
  if (result == 0) return 0;
  Account(ending);
  process->state = 1;
  process->exitCode = ending.exitCode;
  process->signal = ending.signal;
  return 1;
}

int Wait(Process *process, bool block, int release, int *exitCode, int *signal) {
  if (!process || IsCurrent(process)) {
    errno = EINVAL;
    return 0;
  }
  int collected = Collect(process, block);
  int result = 0;
  if (collected == 1) {
    if (exitCode) *exitCode = process->exitCode;
    if (signal) *signal = process->signal;
    errno = 0;
    result = 1;
  } else if (collected == 0) {
    errno = 0;  // still running
  }
  if (release) {
    if (collected == 0 && process->child) os::ReapLater(process->handle, Account);
    free(process);
  }
  return result;
}

int SendSignal(Process *process, int which) {
  if (!process || IsCurrent(process)) {
    errno = EINVAL;
    return 0;
  }
  if (process->state == 1) return 1;  // reaped: the pid may belong to another process by now
  int error = 0;
  if (!os::Signal(process->handle, which, &error)) return SystemFailure(error, 0);
  return 1;
}

struct Scratch {
  UShortArray units{};
  UByteArray line{};
  StringArray environment{};
  ~Scratch() {
    ArrayFree(units);
    ArrayFree(line);
    StringArrayClear(&environment);
    ArrayFree(environment);
  }
};

}  // namespace
}  // namespace kz

using namespace kz;

KZ_API int ProcessCommandLine(UByteArray *out, char **argv) {
  if (!out || !argv) {
    errno = EINVAL;
    return 0;
  }
  UShortArray scratch{};
  int result = BuildCommandLine(out, argv, &scratch);
  ArrayFree(scratch);
  return result;
}

KZ_API Process *ProcessExecute_(const KZProcessStart *options, const char *path, char **argv, char **envp, int stdinFd,
                                int stdoutFd, int stderrFd) {
  KZProcessStart plain = {0, nullptr, nullptr, nullptr, nullptr, KZ_PROCESS_NICE_INHERIT};
  if (!options) options = &plain;
  const bool standard = stdinFd == 0 && stdoutFd == 1 && stderrFd == 2;
  const int fds[3] = {stdinFd, stdoutFd, stderrFd};
  if (!standard) {
    for (int fd : fds)
      if (fd >= 0 && fd <= 2) return Invalid(__LINE__, "can only use standard I/O for all streams");
  }
  if (options->user) {
    if (options->inheritHandles) return Invalid(__LINE__, "can not inherit handles with logon");
    if (!standard) return Invalid(__LINE__, "can not inherit stdio handles with logon");
  }
  if (!path || !argv || !argv[0] || (options->nice != KZ_PROCESS_NICE_INHERIT && !ValidNice(options->nice))) {
    errno = EINVAL;
    return nullptr;
  }
  Scratch scratch;
  if (!ConvertsToUnits(path, &scratch.units)) {
    errno = EINVAL;
    return nullptr;
  }
  if (!BuildCommandLine(&scratch.line, argv, &scratch.units)) return nullptr;
  if (envp) {
    for (char **entry = envp; *entry; entry++) {
      if (!ConvertsToUnits(*entry, &scratch.units)) {
        KZ_THROW_AT(kSource, __LINE__, "ProcessExecute_", KZ_ERR_GENERAL, "bad UTF-8 in environment");
        return nullptr;
      }
    }
  } else {
    if (!KZAppendEnvironmentVariables(&scratch.environment)) return nullptr;
    if (!scratch.environment.elements) {
      static char *none[] = {nullptr};
      envp = none;
    } else {
      envp = scratch.environment.elements;
    }
  }

  os::SpawnRequest request{};
  request.path = path;
  request.argv = argv;
  request.envp = envp;
  for (int k = 0; k < 3; k++) request.fds[k] = fds[k];
  request.standardStreams = standard;
  request.inherit = options->inheritHandles != 0;
  request.directory = options->directory;
  request.setNice = options->nice != KZ_PROCESS_NICE_INHERIT;
  request.nice = StoredNice(options->nice);
  uint32_t groups[kMaxGroups];
  if (options->user || options->token) {
    if (!os::MayChangeIdentity()) {
      os::FailWithError(EPERM);
      KZ_THROW_AT(kSource, __LINE__, "ProcessExecute_", KZ_ERR_GENERAL,
                  options->user ? "cannot log on %s" : "could not elevate privileges",
                  options->user ? options->user : "");
      os::FailWithError(EPERM);  // the caller reads the system's reason
      return nullptr;
    }
    request.setIdentity = true;
    if (options->user) {
      int count = kMaxGroups, error = 0;
      if (!os::LogOn(options->user, options->password, &request.uid, &request.gid, groups, &count, &error)) {
        os::FailWithError(error);
        KZSetMessageContext2_(kSource, __LINE__, "kzlib", "ProcessExecute_", 4, 0);
        KZErrorRethrow_("cannot log on %s", options->user);
        os::FailWithError(error);
        return nullptr;
      }
      request.groups = groups;
      request.groupCount = count;
    } else {
      request.uid = options->token->uid;
      request.gid = options->token->gid;
      request.groups = groups;
      request.groupCount = 0;
    }
  }
  int error = 0;
  int64_t pid = os::Spawn(request, &error);
  if (pid < 0) return SystemFailure<Process *>(error, nullptr);
  return NewRecord(pid, true);
}

KZ_API Process *ProcessExecute(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd, int stderrFd) {
  return ProcessExecutePipe(path, argv, envp, stdinFd, stdoutFd, stderrFd, 1);
}

KZ_API Process *ProcessExecutePipe(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd, int stderrFd,
                                   int inheritHandles) {
  KZProcessStart options = {inheritHandles, nullptr, nullptr, nullptr, nullptr, KZ_PROCESS_NICE_INHERIT};
  return ProcessExecute_(&options, path, argv, envp, stdinFd, stdoutFd, stderrFd);
}

KZ_API Process *ProcessExecuteDontInheritHandles(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd,
                                                 int stderrFd) {
  return ProcessExecutePipe(path, argv, envp, stdinFd, stdoutFd, stderrFd, 0);
}

KZ_API Process *ProcessExecuteStdio(const char *path, char **argv, char **envp) {
  return ProcessExecutePipe(path, argv, envp, 0, 1, 2, 0);
}

KZ_API Process *ProcessExecuteWithCredentials(const char *user, const char *password, const char *path, char **argv,
                                              char **envp) {
  if (!user) {
    errno = EINVAL;
    return nullptr;
  }
  KZProcessStart options = {0, user, password, nullptr, nullptr, KZ_PROCESS_NICE_INHERIT};
  return ProcessExecute_(&options, path, argv, envp, 0, 1, 2);
}

KZ_API Process *ProcessExecutePipeToken(const KZProcessToken *token, const char *path, char **argv, char **envp,
                                        int stdinFd, int stdoutFd, int stderrFd) {
  if (!token) {
    errno = EINVAL;
    return nullptr;
  }
  KZProcessStart options = {1, nullptr, nullptr, token, nullptr, KZ_PROCESS_NICE_INHERIT};
  return ProcessExecute_(&options, path, argv, envp, stdinFd, stdoutFd, stderrFd);
}

KZ_API Process *ProcessFromId(unsigned int pid) {
  int error = 0;
  if (pid == 0 || !os::Signal(pid, 0, &error)) return SystemFailure<Process *>(pid == 0 ? ESRCH : error, nullptr);
  // A child of ours can be waited for; any other process only signalled.
  return NewRecord(pid, true);
}

KZ_API Process *ProcessGetCurrent(void) {
  // Filled idempotently: every thread writes the same values.
  std::atomic_ref<int64_t>(g_current.handle).store(os::CurrentProcessId(), std::memory_order_relaxed);
  std::atomic_ref<uint32_t>(g_current.pid)
      .store(static_cast<uint32_t>(os::CurrentProcessId()), std::memory_order_relaxed);
  return &g_current;
}

KZ_API unsigned int ProcessGetId(Process *process) { return process ? process->pid : 0; }

KZ_API int ProcessKill(Process *process) { return SendSignal(process, 2); }

KZ_API int ProcessTerminate(Process *process) { return SendSignal(process, 1); }

KZ_API int ProcessIsAlive(Process *process) {
  if (!process) return 0;
  if (IsCurrent(process)) return 1;
  if (process->handle < 0 || process->state == 1) return 0;
  int before = errno;
  int collected = Collect(process, false);
  if (collected == 0) return 1;
  if (collected == 1) return 0;
  // Not our child: alive while it can be signalled.
  int error = 0;
  errno = before;
  return os::Signal(process->handle, 0, &error) || error == EPERM ? 1 : 0;
}

KZ_API int ProcessGetPriority(Process *process) {
  if (!process) {
    errno = EINVAL;
    return KZ_PROCESS_PRIORITY_UNKNOWN;
  }
  int64_t pid = IsCurrent(process) ? os::CurrentProcessId() : process->handle;
  int nice = 0, error = 0;
  if (!os::GetNice(pid, &nice, &error)) return SystemFailure(error, KZ_PROCESS_PRIORITY_UNKNOWN);
  return ClassOf(nice);
}

KZ_API int ProcessSetPriority(Process *process, int nice) {
  if (!process || !ValidNice(nice)) {
    errno = EINVAL;
    return 0;
  }
  int64_t pid = IsCurrent(process) ? os::CurrentProcessId() : process->handle;
  int error = 0;
  if (!os::SetNice(pid, StoredNice(nice), &error)) return SystemFailure(error, 0);
  return 1;
}

KZ_API int ProcessWait(Process *process, int release, int *exitCode, int *signal) {
  return Wait(process, true, release, exitCode, signal);
}

KZ_API int ProcessWaitNonBlocking(Process *process, int release, int *exitCode, int *signal) {
  return Wait(process, false, release, exitCode, signal);
}

KZ_API void ProcessChildrenCPUTime(uint64_t *userMicroseconds, uint64_t *systemMicroseconds) {
  if (userMicroseconds) *userMicroseconds = g_childUserMicros.load(std::memory_order_relaxed);
  if (systemMicroseconds) *systemMicroseconds = g_childSystemMicros.load(std::memory_order_relaxed);
}

// ---- dynamic libraries --------------------------------------------------------

namespace {

void *SystemLoad(const char *fileName) {
  int error = 0;
  void *module = os::LibraryOpen(fileName, &error);
  if (!module) KZSetLastError(error);
  return module;
}

int SystemFree(void *module) {
  int error = 0;
  int result = os::LibraryClose(module, &error);
  if (!result) KZSetLastError(error);
  return result;
}

std::atomic<KZLoadLibraryHook> g_loadHook{SystemLoad};
std::atomic<KZFreeLibraryHook> g_freeHook{SystemFree};

}  // namespace

KZ_API void SetOpenDllHooks(KZLoadLibraryHook loadHook, KZFreeLibraryHook freeHook) {
  g_loadHook.store(loadHook ? loadHook : SystemLoad, std::memory_order_release);
  g_freeHook.store(freeHook ? freeHook : SystemFree, std::memory_order_release);
}

KZ_API void *OpenDLL(const char *fileName) {
  void *module;
  if (!fileName) {
    int error = 0;
    module = os::MainProgram(&error);
    if (!module) KZSetLastError(error);
  } else {
    module = g_loadHook.load(std::memory_order_acquire)(fileName);
  }
  if (!module) errno = -1;
  return module;
}

KZ_API void *GetDLLSymbol(void *module, const char *name) {
  if (!module || !name) {
    errno = EINVAL;
    return nullptr;
  }
  int error = 0;
  void *address = os::LibrarySymbol(module, name, &error);
  if (!address) return SystemFailure<void *>(error, nullptr);
  return address;
}

KZ_API int CloseDLL(void *module) {
  int result = g_freeHook.load(std::memory_order_acquire)(module);
  if (!result) errno = -1;
  return result;
}
