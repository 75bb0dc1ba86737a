// Daemon mode: the run directory, the process log and its pid file, log
// rotation and purging, and the command-line entry. The system calls are in
// src/posix/daemon.cpp.
#include "kz/daemon.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/daemon.h"
#include "internal/os/error.h"
#include "internal/os/message.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/format.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/sort.h"
#include "kz/thread.h"

namespace kz {
namespace {

constexpr const char *kSource = "kzlib/daemon";
constexpr size_t kPathLimit = 260;
constexpr int64_t kDayMs = 86400000;

// Process-wide daemon state, guarded by g_daemonLock (and, for the streams,
// by the message lock).
LazyLock g_daemonLock;
char *g_directory = nullptr;
char *g_suffix = nullptr;  // null: ".log"
FILE *g_daemonLog = nullptr;
FileLock *g_pidLock = nullptr;
char g_lastStamp[32] = "";
unsigned g_stampCounter = 0;
std::atomic<bool> g_logCreated{false};
std::atomic<bool> g_notifyAtExit{false};

const char *Suffix() { return g_suffix ? g_suffix : ".log"; }

void Report(uint32_t line, const char *function, int withError, const char *format, const char *a = "",
            const char *b = "") {
  KZ_MESSAGE_AT(kSource, line, function, 3, withError, format, a, b);
}

// A NUL-terminated text in an owned byte array.
class Text {
 public:
  Text() = default;
  ~Text() { ArrayFree(bytes_); }
  Text(const Text &) = delete;
  Text &operator=(const Text &) = delete;
  void Printf(const char *format, ...) {
    bytes_.count = 0;
    va_list args;
    va_start(args, format);
    UByteArrayVprintf(&bytes_, format, args);
    va_end(args);
  }
  const char *c_str() const { return bytes_.elements ? reinterpret_cast<const char *>(bytes_.elements) : ""; }
  uint32_t size() const { return bytes_.count; }
  UByteArray *array() { return &bytes_; }

 private:
  UByteArray bytes_{};
};

void InstallStreams(FILE *stream) {
  KZSetMessageStream(0, stream);
  KZSetMessageStream(1, stream);
}

// Appends "<text>: <current error>" to log.err, keeping the pending error.
void AppendToErrorLog(const char *text) {
  if (!g_directory) return;
  char current[KZ_ERROR_MESSAGE_MAX];
  const char *message = KZErrorMessage();
  snprintf(current, sizeof current, "%s", message ? message : "");
  KZErrorSave();
  FILE *file = FileFOpen(g_directory, "log.err", "a");
  if (file) {
    fprintf(file, "%s: %s\n", text, current);
    fclose(file);
  }
  KZErrorRestore();
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// <name>.<8 digits><suffix> or <name>.<8 digits>.<digits><suffix>.
bool BelongsToLog(const char *path, const char *name, const char *suffix) {
  const char *base = BaseName(path);
  size_t nameLength = strlen(name);
  if (strncmp(base, name, nameLength) != 0 || base[nameLength] != '.') return false;
  const char *p = base + nameLength + 1;
  for (int k = 0; k < 8; k++, p++)
    if (!IsDigit(*p)) return false;
  if (strcmp(p, suffix) == 0) return true;
  if (*p != '.' || !IsDigit(p[1])) return false;
  p++;
  while (IsDigit(*p)) p++;
  return strcmp(p, suffix) == 0;
}

int Enumerate(const char *directory, const char *name, const char *suffix, KZLogFileCallback callback, void *context) {
  void *listing = DirectoryOpen(directory);
  if (!listing) return 0;
  UByteArray entry{};
  Text path;
  int result = 1;
  for (;;) {
    int next = DirectoryNext(listing, &entry, nullptr);
    if (next == 0) break;
    if (next < 0) {
      result = 0;
      break;
    }
    const char *entryName = reinterpret_cast<const char *>(entry.elements);
    if (!BelongsToLog(entryName, name, suffix)) continue;
    path.Printf("%s/%s", directory, entryName);
    if (callback(context, path.c_str()) != 0) break;
  }
  ArrayFree(entry);
  DirectoryClose(listing);
  return result;
}

struct AgePurge {
  int64_t now;
  int days;
  bool failed;
};

int PurgeOld(void *context, const char *path) {
  auto *purge = static_cast<AgePurge *>(context);
  int failed = 0;
  int64_t modified = FileLastModified(path, &failed);
  if (failed) {
    Report(__LINE__, "KZDaemonPurgeLogDays", 1, ": cannot stat log file %s", path);
    purge->failed = true;
    return 1;
  }
  if ((purge->now - modified) / kDayMs > purge->days && !FileRemove(path)) {
    Report(__LINE__, "KZDaemonPurgeLogDays", 1, ": cannot remove log file %s", path);
    purge->failed = true;
    return 1;
  }
  return 0;
}

// Under the daemon lock.
void PurgeByAge(const char *name, int days) {
  AgePurge purge{os::NowMilliseconds(), days, false};
  if (!Enumerate(g_directory, name, Suffix(), PurgeOld, &purge) || purge.failed)
    Report(__LINE__, "KZDaemonPurgeLogDays", 1, ":error while removing old log files");
}

struct SizedFile {
  char *path;
  int64_t modified;
  bool timeKnown;
};

struct SizeList {
  SizedFile *elements;
  uint32_t count, capacity;
};

int CollectFile(void *context, const char *path) {
  auto *list = static_cast<SizeList *>(context);
  int failed = 0;
  int64_t modified = FileLastModified(path, &failed);
  View(*list, kSource, __LINE__).Append(SizedFile{Strdup_(path, kSource, __LINE__), modified, failed == 0});
  return 0;
}

// Unknown times first (greater name first), then newest first.
int32_t CompareForSizePurge(const void *left, const void *right, void *) {
  const auto *a = static_cast<const SizedFile *>(left);
  const auto *b = static_cast<const SizedFile *>(right);
  if (a->timeKnown != b->timeKnown) return a->timeKnown ? 1 : -1;
  if (!a->timeKnown) return strcmp(b->path, a->path);
  return a->modified < b->modified ? 1 : a->modified > b->modified ? -1 : 0;
}

}  // namespace
}  // namespace kz

using namespace kz;

KZ_API int KZSetDaemonDir(const char *directory) {
  if (!directory) {
    errno = EINVAL;
    return 0;
  }
  int error = 0;
  os::ClearFileCreationMask();
  if (!FileIsDirectory(directory) && !os::MakeDirectories(directory, &error)) {
    os::FailWithError(error);
    Report(__LINE__, "KZSetDaemonDir", 1, "daemon: log directory creation (\"%s\") failed", directory);
  }
  if (!os::ChangeDirectory(directory, &error)) {
    os::FailWithError(error);
    Report(__LINE__, "KZSetDaemonDir", 1, "daemon: chdir(\"%s\") failed", directory);
  }
  {
    LazyLockGuard hold(g_daemonLock);
    Text path;
    path.Printf("%s/log%s", directory, Suffix());
    FILE *log = nullptr;
    if ((strlen(Suffix()) + 1) + (strlen(directory) + 1) + 3 >= kPathLimit) {
      Report(__LINE__, "KZSetDaemonDir", 0, "daemon: pathname too long: \"%s/log%s\"", directory, Suffix());
    } else if (!(log = FileFOpen(nullptr, path.c_str(), "a"))) {
      Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot open log file: \"%s\"", path.c_str());
    }
    {
      LazyLockGuard messages(MessageLock());
      if (log) {
        FILE *old = g_daemonLog;
        g_daemonLog = log;
        InstallStreams(log);
        if (old) fclose(old);
        g_logCreated.store(true, std::memory_order_relaxed);
      }
      free(g_directory);
      g_directory = Strdup_(directory, kSource, __LINE__);
      g_lastStamp[0] = '\0';
    }
    if (log) {
      if (!os::RedirectOutputTo(log, &error)) {
        os::FailWithError(error);
        Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot redirect stdout/stderr to log file");
      }
      if (!FDSetInheritance(1, 0) || !FDSetInheritance(2, 0))
        Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot disable inheritance for stdout/stderr");
    }
  }
  int error2 = 0;
  if (!os::RedirectToNullDevice(0, &error2)) {
    os::FailWithError(error2);
    Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot redirect stdin to /dev/null");
  }
  FileLock *pidLock = FileLockAcquire(directory, "daemon.pid", 1, 0);
  if (!pidLock) {
    Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot lock pid file : \"%s/daemon.pid\"", directory);
  } else {
    char pid[24];
    snprintf(pid, sizeof pid, "%llu", static_cast<unsigned long long>(os::ProcessId()));
    if (!FileLockWrite(pidLock, pid))
      Report(__LINE__, "KZSetDaemonDir", 1, "daemon: cannot write pid to file \"%s/daemon.pid\"", directory);
    LazyLockGuard hold(g_daemonLock);
    if (g_pidLock) FileLockRelease(g_pidLock);
    g_pidLock = pidLock;
  }
  int detachError = 0;
  if (os::DetachSession(&detachError)) return 1;
  os::FailWithError(detachError);
  return 0;
}

KZ_API int KZSetLogFileSuffix(const char *suffix) {
  if (!suffix) {
    errno = EINVAL;
    return 0;
  }
  LazyLockGuard hold(g_daemonLock);
  if (strcmp(suffix, Suffix()) == 0) return 1;
  if (g_logCreated.load(std::memory_order_relaxed)) {
    Report(__LINE__, "KZSetLogFileSuffix", 0, "KZSetLogFileSuffix called after the process log files were created");
    return 0;
  }
  free(g_suffix);
  g_suffix = Strdup_(suffix, kSource, __LINE__);
  return 1;
}

KZ_API const char *KZGetDaemonDir(void) {
  LazyLockGuard hold(g_daemonLock);
  return g_directory;
}

KZ_API int KZDaemonRotateLog(const char *name, FILE **stream, KZMutex *lock, int days) {
  LazyLockGuard hold(g_daemonLock);
  if (!g_directory) return 1;
  const bool own = name == nullptr;
  if (own) {
    FILE *errorStream = KZGetMessageStream(1), *logStream = KZGetMessageStream(0);
    // Unset streams read back as the C library's defaults.
    bool unset = errorStream == stderr && logStream == stdout;
    if (!(unset || (g_daemonLog == errorStream && g_daemonLog == logStream)))
      kzassert_("(errorStream == NULL && logStream == NULL) || (daemonLog == errorStream && daemonLog == logStream)",
                kSource, __LINE__);
    name = "log";
    stream = &g_daemonLog;
  }
  if (!stream) {
    errno = EINVAL;
    return 0;
  }

  os::LocalTime now = os::Now();
  char stamp[sizeof g_lastStamp];
  snprintf(stamp, sizeof stamp, "%04u-%02u-%02u-%02u-%02u-%02u", now.year, now.month, now.day, now.hour, now.minute,
           now.second);
  if (strcmp(stamp, g_lastStamp) == 0) {
    g_stampCounter++;
  } else {
    g_stampCounter = 0;
    memcpy(g_lastStamp, stamp, sizeof stamp);
  }
  Text candidate;
  for (;;) {
    if (g_stampCounter == 0)
      candidate.Printf("%s/%s.%s%s", g_directory, name, stamp, Suffix());
    else
      candidate.Printf("%s/%s.%s.%u%s", g_directory, name, stamp, g_stampCounter, Suffix());
    if (!FileExists(candidate.c_str())) break;
    g_stampCounter++;
  }

  Text current;
  current.Printf("%s/%s%s", g_directory, name, Suffix());
  const char *failure = nullptr;
  int error = 0;
  if (own)
    MessageLock().lock();
  else if (lock)
    MutexLock(lock);
  if (own) {
    if (!os::RedirectToNullDevice(1, &error)) {
      os::FailWithError(error);
      failure = ":daemon: cannot redirect stdout and stderr to NUL";
    }
    InstallStreams(nullptr);
  }
  if (*stream) fclose(*stream);
  *stream = nullptr;
  Text note;
  if (!failure && !FileRename(current.c_str(), candidate.c_str(), nullptr)) {
    failure = ":daemon: cannot rename log file";
    note.Printf("cannot rename log file from '%s' to '%s'", current.c_str(), candidate.c_str());
    AppendToErrorLog(note.c_str());
  }
  // The sequence stops at its first failure: the streams stay where it got.
  FILE *fresh = failure ? nullptr : FileFOpen(nullptr, current.c_str(), "a");
  if (!failure && !fresh) {
    failure = ":daemon: cannot open new log file";
    note.Printf("cannot open new log file '%s'", current.c_str());
    AppendToErrorLog(note.c_str());
  }
  *stream = fresh;
  if (own && fresh) {
    InstallStreams(fresh);
    if (!os::RedirectOutputTo(fresh, &error)) {
      os::FailWithError(error);
      failure = ":daemon: cannot redirect stdout/stderr to new log file";
    } else if (!FDSetInheritance(1, 0) || !FDSetInheritance(2, 0)) {
      failure = "daemon: cannot disable inheritance for stdout/stderr";
    }
  }
  if (own)
    MessageLock().unlock();
  else if (lock)
    MutexUnlock(lock);
  if (failure || !fresh) {
    const char *text = failure ? failure : ":daemon: cannot rotate log";
    AppendToErrorLog(text);
    Report(__LINE__, "KZDaemonRotateLog", 1, "%s", text);
    return 0;
  }
  if (days >= 0) PurgeByAge(name, days);
  return 1;
}

KZ_API int KZDaemonPurgeLogDays(const char *name, int days) {
  LazyLockGuard hold(g_daemonLock);
  if (!g_directory || days < 1) return 1;
  PurgeByAge(name ? name : "log", days);
  return 1;
}

KZ_API int KZDaemonPurgeLog(const char *name, unsigned int maxBytes) {
  LazyLockGuard hold(g_daemonLock);
  if (!g_directory) return 1;
  SizeList list{};
  if (!Enumerate(g_directory, name ? name : "log", Suffix(), CollectFile, &list)) {
    ArrayFree(list);
    return 0;
  }
  if (list.count) QSort(list.elements, list.count, sizeof(SizedFile), CompareForSizePurge, nullptr);
  uint64_t total = 0;
  bool removing = false;
  for (uint32_t k = 0; k < list.count; k++) {
    SizedFile &file = list.elements[k];
    if (!removing) {
      int64_t size = FileSize(file.path);
      if (size < 0) {
        Report(__LINE__, "KZDaemonPurgeLog", 1, ": cannot stat log file %s", file.path);
      } else {
        total += static_cast<uint64_t>(size);
        removing = total > maxBytes;
      }
    }
    if (removing) FileRemove(file.path);
    free(file.path);
  }
  ArrayFree(list);
  return 1;
}

KZ_API int KZDaemonEnumerateLogFiles(const char *directory, const char *name, KZLogFileCallback callback,
                                     void *context) {
  if (!directory || !callback) {
    errno = EINVAL;
    return 0;
  }
  const char *suffix;
  {
    LazyLockGuard hold(g_daemonLock);
    suffix = Suffix();
  }
  return Enumerate(directory, name ? name : "log", suffix, callback, context);
}

// ---- the command-line entry ---------------------------------------------------

namespace {

// Service mode: the name in the service messages, set once by KZSetDaemon.
char g_serviceName[128] = "";

// Tells the service manager; a failed report is logged, the service goes on.
void NotifyManager(const char *state) {
  if (KZDaemonNotify(state) < 0) KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 3, 1, "SetServiceStatus() failed");
}

void NotifyStopping() {
  if (g_notifyAtExit.exchange(false)) NotifyManager("STOPPING=1");
}

void OnServiceExit(int status, void *) {
  KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 2, 0, "Service %s stopped, status=%d", g_serviceName, status);
  NotifyStopping();
}

// Waits for the manager's stop signal, then ends the program through exit()
// so that its exit handlers (and the stopped message) run.
int64_t StopRequestWatcher(void *) {
  os::WaitForStopRequest();
  KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 2, 0, "Service stop requested");
  NotifyStopping();
  exit(0);
}

void StartService() {
  bool caught = false;
  int error = 0;
  if (!os::CatchStopRequest(&caught, &error)) {
    os::FailWithError(error);
    KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 3, 1, "RegisterServiceCtrlHandler() failed");
  } else if (caught) {
    ThreadCreateDetached(StopRequestWatcher, nullptr, 0);
  }
  static std::atomic<bool> exitHooked{false};
  if (!exitHooked.exchange(true)) os::AtExitWithStatus(OnServiceExit);
  int ready = KZDaemonNotify("READY=1");
  if (ready < 0) KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 3, 1, "SetServiceStatus() failed");
  g_notifyAtExit.store(ready == 1);
  KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 2, 0, "Service %s started", g_serviceName);
}

// Removes argv[index .. index + count - 1].
void Drop(int *argc, char **argv, int index, int count) {
  for (int k = index; k + count <= *argc; k++) argv[k] = argv[k + count];
  *argc -= count;
}

}  // namespace

KZ_API int KZDaemonNotify(const char *state) {
  if (!state) {
    errno = EINVAL;
    return -1;
  }
  UByteArray address{};
  if (!KZUBAGetEnvironmentVariable("NOTIFY_SOCKET", &address) || address.count == 0) {
    ArrayFree(address);
    return 0;
  }
  int error = 0;
  bool sent = os::NotifyServiceManager(reinterpret_cast<const char *>(address.elements), state, &error);
  ArrayFree(address);
  if (sent) return 1;
  os::FailWithError(error);
  return -1;
}

KZ_API int KZSetDaemon(int *argc, char **argv, const char *defaultDirectory, const char *serviceName) {
  if (!argc || !argv) {
    errno = EINVAL;
    return 0;
  }
  bool daemon = false, service = false;
  const char *directory = defaultDirectory;
  for (int k = 1; k < *argc;) {
    if (strcmp(argv[k], "-daemon") == 0) {
      daemon = true;
      Drop(argc, argv, k, 1);
    } else if (strcmp(argv[k], "-service") == 0) {
      service = true;
      Drop(argc, argv, k, 1);
    } else if (strcmp(argv[k], "-rundir") == 0 && k + 1 < *argc) {
      directory = argv[k + 1];
      Drop(argc, argv, k, 2);
    } else {
      k++;
    }
  }
  if (!daemon && !service) return 0;
  if (!directory) directory = ".";
  if (service) {
    snprintf(g_serviceName, sizeof g_serviceName, "%s", serviceName ? serviceName : ProgramName());
    KZ_MESSAGE_AT(kSource, __LINE__, "KZSetDaemon", 2, 0, "Starting service %s", g_serviceName);
  } else {
    int error = 0;
    int64_t pid = os::Fork(&error);
    if (pid < 0) {
      os::FailWithError(error);
      return -1;
    }
    if (pid > 0) os::ExitAtOnce(0);
  }
  KZSetDaemonDir(directory);
  if (service) StartService();
  return 1;
}
