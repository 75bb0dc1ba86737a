// Library start-up (KZLibInit), version and system identity, the switches a
// program sets before start-up and the options read from the environment.
#include "kz/init.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/backtrace.h"
#include "internal/os/crash.h"
#include "internal/os/error.h"
#include "internal/os/init.h"
#include "internal/os/memory.h"
#include "internal/os/message.h"
#include "internal/os/thread.h"
#include "internal/startup.h"
#include "kz/error.h"
#include "kz/memory.h"
#include "kz/message.h"

// A build may carry a branch number: -DKZ_BRANCH=<n>.
#ifndef KZ_BRANCH
#define KZ_BRANCH 0
#endif

extern "C" {
const int32_t kzlib_major = 6;
const int32_t kzlib_minor = 3;
const int32_t kzlib_build = 20826;
const int32_t kzlib_branchbuild = 0;
const int32_t kzlib_branch = KZ_BRANCH;
}

namespace kz {
namespace {

constexpr const char *kFile = "kzlib/kzlib";

// 0 not started, 1 running, 2 done.
std::atomic<int32_t> g_initState{0};
// Set while this thread runs the once-only start-up (a start-up handler that
// calls KZLibInit again must not wait for itself).
thread_local bool t_initialising = false;

std::atomic<bool> g_embedded{false};
std::atomic<bool> g_keepExceptionHandler{false};

// Guarded by the global lock.
KZLibInitHandler g_handlers[KZLIB_INIT_MAX_HANDLERS];
uint32_t g_handlerCount = 0;
char *g_executablePath = nullptr;

std::atomic<startup::Function> g_steps[startup::kStepCount];

std::atomic<bool> g_syncOff{false};
std::atomic<bool> g_sslHighEncryption{false};
std::atomic<bool> g_invalidParameterStack{false};
std::atomic<bool> g_invalidParameterHalt{false};
std::atomic<uint64_t> g_startTime{0};

std::atomic<const char *> g_hostNameKnown{nullptr};
std::atomic<const char *> g_kernelKnown{nullptr};

#if defined(__x86_64__)
#define KZ_CPU_NAME "amd64"
#elif defined(__aarch64__)
#define KZ_CPU_NAME "arm64"
#elif defined(__i386__)
#define KZ_CPU_NAME "x86"
#else
#define KZ_CPU_NAME "unknown"
#endif
#if defined(_WIN32)
#define KZ_SYSTEM_NAME "win64"
#elif defined(__linux__)
#define KZ_SYSTEM_NAME "linux"
#elif defined(__APPLE__)
#define KZ_SYSTEM_NAME "darwin"
#elif defined(__FreeBSD__)
#define KZ_SYSTEM_NAME "freebsd"
#else
#define KZ_SYSTEM_NAME "posix"
#endif

struct VersionText {
  char text[48];
};

const VersionText &Version() {
  const kz::ErrorStateKept kept;
  static const VersionText version = [] {
    VersionText made;
    if (kzlib_branch != 0)
      snprintf(made.text, sizeof made.text, "%d.%d.%d.%d", kzlib_major, kzlib_minor, kzlib_build, kzlib_branch);
    else
      snprintf(made.text, sizeof made.text, "%d.%d.%d", kzlib_major, kzlib_minor, kzlib_build);
    return made;
  }();
  return version;
}

struct KernelInfo {
  bool known;
  int major;
  int minor;
  char text[200];
};

const KernelInfo &Kernel() {
  const kz::ErrorStateKept kept;
  static const KernelInfo kernel = [] {
    KernelInfo made{};
    os::KernelVersion version;
    if (!os::GetKernelVersion(&version)) return made;
    made.known = true;
    made.major = version.major;
    made.minor = version.minor;
    snprintf(made.text, sizeof made.text, "%s", version.text);
    return made;
  }();
  return kernel;
}

struct HostText {
  char text[256];
};

const HostText &Host() {
  const kz::ErrorStateKept kept;
  static const HostText host = [] {
    HostText made;
    if (!os::GetHostName(made.text, sizeof made.text)) snprintf(made.text, sizeof made.text, "localhost");
    return made;
  }();
  return host;
}

bool ValidUtf8(const unsigned char *text, size_t length) {
  size_t i = 0;
  while (i < length) {
    unsigned char c = text[i];
    if (c < 0x80) {
      i++;
      continue;
    }
    size_t extra;
    uint32_t value;
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      value = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      value = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      value = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= length) return false;
    for (size_t k = 1; k <= extra; k++) {
      unsigned char next = text[i + k];
      if ((next & 0xC0) != 0x80) return false;
      value = (value << 6) | (next & 0x3F);
    }
    if ((extra == 2 && value < 0x800) || (extra == 3 && (value < 0x10000 || value > 0x10FFFF)) ||
        (value >= 0xD800 && value <= 0xDFFF))
      return false;
    i += extra + 1;
  }
  return true;
}

// Records the executable's path and the program name (base name of path).
void RecordProgram(const char *path) {
  const ErrorStateKept kept;
  LazyLockGuard hold(GlobalLock());
  char executable[261];
  const char *found = KZExecutable(executable, sizeof executable);
  if (!found && os::FindProgram(path, executable, sizeof executable)) found = executable;
  free(g_executablePath);
  g_executablePath = found ? Strdup_(found, kFile, __LINE__) : nullptr;

  SetProgramName(BaseName(path));  // keeps at most 260 characters
}

// ---- library options -------------------------------------------------------------

void SetFlag(uint32_t bit, bool on) {
  if (on)
    g_flagWord.fetch_or(bit, std::memory_order_relaxed);
  else
    g_flagWord.fetch_and(~bit, std::memory_order_relaxed);
}

void ApplyOption(const char *token) {
  static const struct {
    const char *name;
    uint32_t bit;
  } kFlagOptions[] = {
      {"crashdump", KZ_FLAG_CRASH_DUMP},     {"crashstack", KZ_FLAG_CRASH_STACK}, {"crashlog", KZ_FLAG_CRASH_LOG},
      {"crashsyslog", KZ_FLAG_CRASH_SYSLOG}, {"debugger", KZ_FLAG_DEBUGGER},
  };
  for (const auto &option : kFlagOptions) {
    if (strcmp(token, option.name) == 0) return SetFlag(option.bit, true);
    if (strncmp(token, "no", 2) == 0 && strcmp(token + 2, option.name) == 0) return SetFlag(option.bit, false);
  }
  if (strcmp(token, "ssl-high-encryption") == 0) {
    g_sslHighEncryption.store(true, std::memory_order_relaxed);
  } else if (strcmp(token, "invalidparameterstack") == 0) {
    g_invalidParameterStack.store(true, std::memory_order_relaxed);
  } else if (strcmp(token, "invalidparameterhalt") == 0) {
    g_invalidParameterHalt.store(true, std::memory_order_relaxed);
  } else if (strcmp(token, "nosync") == 0) {
    g_syncOff.store(true, std::memory_order_relaxed);
    KZ_MESSAGE_AT(kFile, __LINE__, "KZLibInitFeatures", 3, 0, "using unsafe nosync mode");
  } else if (strcmp(token, "debug") == 0 || strcmp(token, "debugmalloc") == 0 || strcmp(token, "third") == 0) {
    // accepted, no effect
  } else {
    KZ_MESSAGE_AT(kFile, __LINE__, "KZLibInitFeatures", 2, 0, "ignored KZ option '%s'", token);
  }
}

// A decimal number of at most 4294967295, nothing else.
bool ParseGraceTime(const char *text, uint32_t &seconds) {
  if (*text == '\0') return false;
  uint64_t value = 0;
  for (const char *p = text; *p; p++) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > 4294967295ull) return false;
  }
  seconds = static_cast<uint32_t>(value);
  return true;
}

void ReadOptions() {
  const char *options = getenv("KZ");
  if (options) {
    char *copy = Strdup_(options, kFile, __LINE__);
    char *token = copy;
    for (char *p = copy;; p++) {
      char c = *p;
      if (c == ' ' || c == '\t' || c == ',' || c == '\0') {
        *p = '\0';
        if (*token) ApplyOption(token);
        token = p + 1;
        if (c == '\0') break;
      }
    }
    free(copy);
  }
  if (getenv("GDB")) {
    SetFlag(KZ_FLAG_DEBUGGER, true);
    KZ_MESSAGE_AT(kFile, __LINE__, "KZLibInitFeatures", 3, 0, ":use KZ=debugger instead of GDB=gdb");
  }
  if (const char *grace = getenv("KZ_HANDLER_GRACE_TIME")) {
    uint32_t seconds;
    if (ParseGraceTime(grace, seconds))
      crash::SetGraceTime(seconds);
    else
      KZ_MESSAGE_AT(kFile, __LINE__, "KZLibInitFeatures", 2, 0, "ignored invalid KZ_HANDLER_GRACE_TIME='%s'", grace);
  }
  const char *debugger = getenv("KZ_DEBUGGER");
  crash::SetDebugger(debugger ? debugger : "gdb");
}

// ---- the once-only start-up ----------------------------------------------------------

bool RunStep(startup::Step step) {
  startup::Function function = g_steps[static_cast<int>(step)].load(std::memory_order_acquire);
  return function ? function() : true;
}

// The once-only start-up, in its fixed order.
void StartOnce() {
  KZ_CHECK(os::RestrictLibrarySearchPath(), "! \"SetDllDirectory failed\"", kFile, 717);
  // Crash handling and SIGPIPE belong to the host of an embedded library.
  if (!g_embedded.load(std::memory_order_relaxed)) {
    crash::InstallProcessWide(g_keepExceptionHandler.load(std::memory_order_relaxed));
    os::IgnoreBrokenPipeSignal();
  } else {
    os::SilenceErrorDialogs();
  }
  // Without a dump writer crash dumps are left out, silently (errno -1).
  crash::LoadDumpWriter();
  backtrace::Init();
  crash::SetDirectory(".");
  os::PrepareLocalTime();
  g_startTime.store(static_cast<uint64_t>(time(nullptr)), std::memory_order_relaxed);
  Context();  // the thread-context slot and this thread's context
  os::PageSize();
  Version();
  const KernelInfo &kernel = Kernel();
  if (kernel.known)
    g_kernelKnown.store(kernel.text, std::memory_order_release);
  else
    KZ_MESSAGE_AT(kFile, __LINE__, "KZLibInit", 3, 0, ":unable to get operating system version information");
  ReadOptions();
  // Fingerprint tables of the URL family (registered through startup.h).
  RunStep(startup::Step::kFingerprintTables);
  g_hostNameKnown.store(Host().text, std::memory_order_release);
  // Network start-up of the channel family (registered through startup.h).
  RunStep(startup::Step::kNetwork);
  switch (os::SetBinaryStandardStreams()) {
    case 0: perror("Could not set binary mode on stdin"), abort();
    case 1: perror("Could not set binary mode on stdout"), abort();
    case 2: perror("Could not set binary mode on stderr"), abort();
    default: break;
  }
  // SSL start-up of the SSL family (registered through startup.h).
  if (!RunStep(startup::Step::kSsl)) fputs("warning: could not initialize SSL\n", stderr);

  KZLibInitHandler handlers[KZLIB_INIT_MAX_HANDLERS];
  uint32_t count;
  {
    LazyLockGuard hold(GlobalLock());
    count = g_handlerCount;
    memcpy(handlers, g_handlers, sizeof handlers);
  }
  for (uint32_t i = 0; i < count; i++)
    if (handlers[i]) handlers[i]();
}

}  // namespace

namespace startup {

bool Register(Step step, Function function) {
  g_steps[static_cast<int>(step)].store(function, std::memory_order_release);
  return true;
}

const char *ExecutablePath() { return g_executablePath; }
const char *HostNameIfKnown() { return g_hostNameKnown.load(std::memory_order_acquire); }
const char *KernelVersionIfKnown() { return g_kernelKnown.load(std::memory_order_acquire); }

}  // namespace startup
}  // namespace kz

using namespace kz;

extern "C" {

KZ_API void KZLibInit(const char *path) {
  if (!t_initialising) {
    int32_t found = 0;
    while (!g_initState.compare_exchange_strong(found, 1, std::memory_order_acq_rel)) {
      if (found != 1) break;
      os::ThreadYield();  // another thread runs the start-up
      found = 0;
    }
    if (found == 0) {
      t_initialising = true;
      StartOnce();
      t_initialising = false;
      g_initState.exchange(2, std::memory_order_acq_rel);
    } else if (found != 2) {
      errno = 22;
      kzassert_("FALSE && \"Cannot initialize the KZLib\"", kFile, 1083);
    }
  }
  if (path) RecordProgram(path);
}

KZ_API int KZLibInitAddHandler(KZLibInitHandler handler) {
  LazyLockGuard hold(GlobalLock());
  KZ_CHECK(g_handlerCount < KZLIB_INIT_MAX_HANDLERS, "kzlibInitHandlersCount < KZLIB_INIT_MAX_HANDLERS", kFile, 604);
  g_handlers[g_handlerCount] = handler;
  return static_cast<int>(g_handlerCount++);
}

KZ_API void KZLibSetEmbedded(void) { g_embedded.store(true, std::memory_order_relaxed); }

KZ_API void KZLibKeepGlobalExceptionHandler(void) { g_keepExceptionHandler.store(true, std::memory_order_relaxed); }

KZ_API uint32_t KZLibGetFlags(void) { return g_flagWord.load(std::memory_order_relaxed); }
KZ_API uint32_t KZLibGetHandlerGraceTime(void) { return crash::GraceTime(); }
KZ_API int KZLibGetSyncOff(void) { return g_syncOff.load(std::memory_order_relaxed) ? 1 : 0; }
KZ_API int KZLibGetSSLHighEncryption(void) { return g_sslHighEncryption.load(std::memory_order_relaxed) ? 1 : 0; }
KZ_API int KZLibGetInvalidParameterStack(void) {
  return g_invalidParameterStack.load(std::memory_order_relaxed) ? 1 : 0;
}
KZ_API int KZLibGetInvalidParameterHalt(void) { return g_invalidParameterHalt.load(std::memory_order_relaxed) ? 1 : 0; }
KZ_API uint64_t KZLibGetStartTime(void) { return g_startTime.load(std::memory_order_relaxed); }

KZ_API int KZVersionMajor(void) { return kzlib_major; }
KZ_API int KZVersionMinor(void) { return kzlib_minor; }
KZ_API int KZVersionBuild(void) { return kzlib_build; }
KZ_API int KZVersionBranch(void) { return kzlib_branch; }
KZ_API int KZVersionBranchBuild(void) { return kzlib_branchbuild; }
KZ_API const char *KZVersionString(void) { return Version().text; }
KZ_API const char *KZArchitecture(void) { return KZ_CPU_NAME "-" KZ_SYSTEM_NAME; }

KZ_API int KernelVersionMajor(void) { return Kernel().major; }
KZ_API int KernelVersionMinor(void) { return Kernel().minor; }
KZ_API const char *KernelVersionString(void) { return Kernel().text; }
KZ_API const char *HostName(void) { return Host().text; }

KZ_API const char *KZProgramName(void) { return ProgramName(); }

KZ_API char *KZExecutable(char *buffer, size_t size) {
  char path[262];
  int error = 0;
  long length = os::GetExecutablePath(path, sizeof path, &error);
  if (length < 0) {
    os::FailWithError(error);
    return nullptr;
  }
  if (length >= 260) {
    os::FailWithError(os::kErrorNameTooLong);
    return nullptr;
  }
  path[length] = '\0';
  if (!ValidUtf8(reinterpret_cast<const unsigned char *>(path), static_cast<size_t>(length))) {
    os::FailWithError(os::kErrorInvalidArgument);
    return nullptr;
  }
  if (!buffer || static_cast<size_t>(length) + 1 > size) {
    os::FailWithError(os::kErrorOutOfRange);
    return nullptr;
  }
  memcpy(buffer, path, static_cast<size_t>(length) + 1);
  return buffer;
}

KZ_API int KZRunProtectedSetPath(const char *directory) {
  if (crash::SetDirectory(directory)) return 1;
  KZ_THROW_AT(kFile, __LINE__, "KZRunProtectedSetPath", KZ_ERR_INVALID, "crash file directory too long");
  return 0;
}

}  // extern "C"
