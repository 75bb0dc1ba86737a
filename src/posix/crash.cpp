// Crash handling on POSIX: SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGSYS.
//
// The handler runs on an alternate signal stack (so a stack overflow can be
// reported too) and, as the flag word says, writes CRASH-<pid>.DMP and
// ERRORLOG-<pid>.TXT (docs/crash-files.md), sends one line to the system log
// and starts a debugger. A crash inside KZRunProtected_ is then reported to
// the caller's report function and the process aborts; any other crash ends
// the process with the signal's default action, so the exit status and the
// core dump stay those of the crash. A watchdog (SIGALRM after the grace time)
// ends a handler that hangs.
//
// Everything the handler does after the first instruction is meant to be
// async-signal-safe: static buffers, formatting by hand, raw system calls.
// Symbolisation (libbacktrace, dladdr) reads files and mappings with system
// calls only; a crash inside the dynamic loader itself may still make it hang,
// which is what the watchdog is for.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <trio.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "internal/context.h"
#include "internal/crash_report.h"
#include "internal/os/backtrace.h"
#include "internal/os/crash.h"
#include "kz/init.h"
#include "kz/message.h"

extern char **environ;

namespace kz::crash {
namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];
constexpr size_t kAltStackSize = 256 * 1024;
constexpr size_t kAltStackMinimum = 64 * 1024;   // a smaller stack found in place is replaced
constexpr size_t kStackBytesAbove = 256 * 1024;  // stack dumped above the stack pointer
constexpr size_t kRedZone = 128;

// ---- raw output ------------------------------------------------------------------

// write(2) by system call: no interceptor sees the buffer (the stack bytes of
// a dump are not the handler's to read).
bool RawWrite(int fd, const void *data, size_t size) {
  const char *bytes = static_cast<const char *>(data);
  while (size > 0) {
    long written = syscall(SYS_write, fd, bytes, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (written == 0) return false;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

void WriteToFd(intptr_t fd, const char *data, size_t size) { RawWrite(static_cast<int>(fd), data, size); }

// ---- state -----------------------------------------------------------------------------

pthread_mutex_t g_installLock = PTHREAD_MUTEX_INITIALIZER;
struct sigaction g_previous[kSignalCount];
std::atomic<bool> g_ours[kSignalCount];
std::atomic<bool> g_processWide[kSignalCount];
std::atomic<bool> g_allOurs{false};

std::atomic<uint32_t> g_graceTime{30};
char g_debugger[4096];  // full path; empty: none

// Crash file names: two slots, so that the handler always reads a complete
// one while KZRunProtectedSetPath fills the other.
CrashFiles g_files[2] = {{".", 0, "", ""}, {".", 0, "", ""}};
std::atomic<int> g_filesSlot{0};
pthread_mutex_t g_filesLock = PTHREAD_MUTEX_INITIALIZER;

// The protected call the thread is in, if any.
struct Protection {
  KZCrashReport report;
  int depth;
};
__attribute__((tls_model("initial-exec"))) thread_local Protection t_protection = {nullptr, 0};

// The thread's alternate signal stack, released when the thread ends.
struct AltStack {
  void *mapping = nullptr;
  size_t size = 0;
  bool checked = false;
  ~AltStack() {
    if (!mapping) return;
    stack_t current;
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == static_cast<char *>(mapping) + PageSize()) {
      stack_t off{};
      off.ss_flags = SS_DISABLE;
      sigaltstack(&off, nullptr);
    }
    munmap(mapping, size);
  }
  static size_t PageSize() {
    long page = sysconf(_SC_PAGESIZE);
    return page > 0 ? static_cast<size_t>(page) : 4096;
  }
};
thread_local AltStack t_altStack;

// The crash being handled. Only one thread handles a crash; others that crash
// meanwhile wait for it to end the process.
std::atomic<long> g_crashThread{0};
std::atomic<int> g_crashSignal{0};

struct Crash : CrashRecord {
  int signal;
  int signalCode;
  uintptr_t sp;
  const ucontext_t *context;
};

// Static so the handler needs little stack.
Crash g_crash;
char g_ioBuffer[4096];
char g_mapsBuffer[4096];
char g_stackText[kStackTextMax];
char g_threadNameText[32];
CrashFiles g_otherNames;

// ---- descriptions -------------------------------------------------------------------

const char *SignalName(int signal) {
  switch (signal) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGSYS: return "SIGSYS";
    default: return "signal";
  }
}

const char *SignalCodeName(int signal, int code) {
  switch (code) {
    case SI_USER: return "SI_USER";
    case SI_KERNEL: return "SI_KERNEL";
    case SI_QUEUE: return "SI_QUEUE";
    case SI_TKILL: return "SI_TKILL";
    default: break;
  }
  switch (signal) {
    case SIGSEGV:
      switch (code) {
        case SEGV_MAPERR: return "SEGV_MAPERR";
        case SEGV_ACCERR: return "SEGV_ACCERR";
        default: return "";
      }
    case SIGBUS:
      switch (code) {
        case BUS_ADRALN: return "BUS_ADRALN";
        case BUS_ADRERR: return "BUS_ADRERR";
        case BUS_OBJERR: return "BUS_OBJERR";
        default: return "";
      }
    case SIGILL:
      switch (code) {
        case ILL_ILLOPC: return "ILL_ILLOPC";
        case ILL_ILLOPN: return "ILL_ILLOPN";
        case ILL_ILLADR: return "ILL_ILLADR";
        case ILL_ILLTRP: return "ILL_ILLTRP";
        case ILL_PRVOPC: return "ILL_PRVOPC";
        case ILL_PRVREG: return "ILL_PRVREG";
        case ILL_COPROC: return "ILL_COPROC";
        case ILL_BADSTK: return "ILL_BADSTK";
        default: return "";
      }
    case SIGFPE:
      switch (code) {
        case FPE_INTDIV: return "FPE_INTDIV";
        case FPE_INTOVF: return "FPE_INTOVF";
        case FPE_FLTDIV: return "FPE_FLTDIV";
        case FPE_FLTOVF: return "FPE_FLTOVF";
        case FPE_FLTUND: return "FPE_FLTUND";
        case FPE_FLTRES: return "FPE_FLTRES";
        case FPE_FLTINV: return "FPE_FLTINV";
        case FPE_FLTSUB: return "FPE_FLTSUB";
        default: return "";
      }
    case SIGSYS: return code == 1 ? "SYS_SECCOMP" : "";
    default: return "";
  }
}

uint32_t ExceptionCode(int signal, const siginfo_t *info, uintptr_t sp) {
  int code = info ? info->si_code : SI_USER;
  uintptr_t address = info ? reinterpret_cast<uintptr_t>(info->si_addr) : 0;
  switch (signal) {
    case SIGSEGV:
      // A fault just below (or at) the stack pointer: the stack ran out.
      if (code > 0 && address != 0 && address + 65536 >= sp && address < sp + 4096) return kStackOverflow;
      return kAccessViolation;
    case SIGBUS: return code == BUS_ADRALN ? kDatatypeMisalignment : kInPageError;
    case SIGILL: return (code == ILL_PRVOPC || code == ILL_PRVREG) ? kPrivilegedInstruction : kIllegalInstruction;
    case SIGFPE:
      switch (code) {
        case FPE_INTDIV: return kIntegerDivideByZero;
        case FPE_INTOVF: return kIntegerOverflow;
        case FPE_FLTDIV: return kFloatDivideByZero;
        case FPE_FLTOVF: return kFloatOverflow;
        case FPE_FLTUND: return kFloatUnderflow;
        case FPE_FLTRES: return kFloatInexactResult;
        case FPE_FLTSUB: return kArrayBoundsExceeded;
        default: return kFloatInvalidOperation;
      }
    case SIGSYS: return kInvalidSystemService;
    default: return kAccessViolation;
  }
}

uintptr_t ContextPc(const ucontext_t *context) {
#if defined(__x86_64__)
  return static_cast<uintptr_t>(context->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(context->uc_mcontext.pc);
#else
  (void)context;
  return 0;
#endif
}

uintptr_t ContextSp(const ucontext_t *context) {
#if defined(__x86_64__)
  return static_cast<uintptr_t>(context->uc_mcontext.gregs[REG_RSP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(context->uc_mcontext.sp);
#else
  (void)context;
  return 0;
#endif
}

// ---- ending the process ------------------------------------------------------------

// Default action for the signal, unblocked, raised: the process ends with it.
[[noreturn]] void EndWithSignal(int signal) {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&defaultAction.sa_mask);
  sigaction(signal, &defaultAction, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  raise(signal);
  _exit(128 + signal);
}

// Restores the default action; a fault that the hardware raised happens again
// when the handler returns, anything else is raised again (pending until the
// handler returns, as the signal is blocked in it).
void DieOnReturn(int signal, const siginfo_t *info) {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&defaultAction.sa_mask);
  sigaction(signal, &defaultAction, nullptr);
  bool faultsAgain = info && info->si_code > 0 && signal != SIGSYS;
  if (!faultsAgain) syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal);
}

void WatchdogExpired(int) {
  int signal = g_crashSignal.load(std::memory_order_relaxed);
  char buffer[256];
  {
    ReportWriter out(WriteToFd, ErrorStreamFd(), buffer, sizeof buffer);
    out.Str(ProgramName())
        .Str(": crash handler still running after ")
        .Dec(g_graceTime.load())
        .Str(" seconds, ending the process\n");
  }
  EndWithSignal(signal ? signal : SIGABRT);
}

void ArmWatchdog(int signal) {
  g_crashSignal.store(signal, std::memory_order_relaxed);
  uint32_t grace = g_graceTime.load(std::memory_order_relaxed);
  if (grace == 0) return;
  struct sigaction action {};
  action.sa_handler = WatchdogExpired;
  action.sa_flags = SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  alarm(grace);
}

// ---- crash files -------------------------------------------------------------------

// The names made for this process, or made again after a fork (or when none
// were made yet).
const CrashFiles &CrashFileNames() {
  const CrashFiles &files = g_files[g_filesSlot.load(std::memory_order_acquire)];
  if (files.pid == g_crash.pid) return files;
  MakeFileNames(g_otherNames, files.directory, '/', g_crash.pid);
  return g_otherNames;
}

int CreateFile(const char *name) { return open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }

void WriteRegisters(ReportWriter &out, const ucontext_t *context) {
#if defined(__x86_64__)
  static const struct {
    const char *name;
    int index;
  } kRegisters[] = {{"rax", REG_RAX},       {"rbx", REG_RBX},         {"rcx", REG_RCX},       {"rdx", REG_RDX},
                    {"rsi", REG_RSI},       {"rdi", REG_RDI},         {"rbp", REG_RBP},       {"rsp", REG_RSP},
                    {"r8", REG_R8},         {"r9", REG_R9},           {"r10", REG_R10},       {"r11", REG_R11},
                    {"r12", REG_R12},       {"r13", REG_R13},         {"r14", REG_R14},       {"r15", REG_R15},
                    {"rip", REG_RIP},       {"eflags", REG_EFL},      {"csgsfs", REG_CSGSFS}, {"err", REG_ERR},
                    {"trapno", REG_TRAPNO}, {"oldmask", REG_OLDMASK}, {"cr2", REG_CR2}};
  int column = 0;
  for (const auto &reg : kRegisters) {
    out.Str("  ").Str(reg.name);
    for (size_t n = strlen(reg.name); n < 8; n++) out.Char(' ');
    out.Hex(static_cast<uint64_t>(context->uc_mcontext.gregs[reg.index]), 16);
    if (++column == 4) {
      out.Char('\n');
      column = 0;
    }
  }
  if (column) out.Char('\n');
#elif defined(__aarch64__)
  for (int i = 0; i < 31; i++) {
    out.Str("  x").Dec(static_cast<uint64_t>(i)).Str(i < 10 ? "      " : "     ");
    out.Hex(context->uc_mcontext.regs[i], 16);
    if (i % 4 == 3) out.Char('\n');
  }
  out.Str("  sp      ").Hex(context->uc_mcontext.sp, 16).Str("  pc      ").Hex(context->uc_mcontext.pc, 16);
  out.Str("  pstate  ").Hex(context->uc_mcontext.pstate, 16).Char('\n');
#else
  (void)context;
  out.Str("  (not available on this processor)\n");
#endif
}

void WriteLog(const char *name) {
  int fd = CreateFile(name);
  if (fd < 0) return;
  {
    ReportWriter out(WriteToFd, fd, g_ioBuffer, sizeof g_ioBuffer);
    char executable[4096];
    long length = readlink("/proc/self/exe", executable, sizeof executable - 1);
    executable[length > 0 ? length : 0] = '\0';
    WriteReportOpening(out, g_crash, length > 0 ? executable : nullptr);
    out.Str("Signal:         ").SignedDec(g_crash.signal).Char(' ').Str(SignalName(g_crash.signal));
    out.Str(", code ").SignedDec(g_crash.signalCode);
    const char *codeName = SignalCodeName(g_crash.signal, g_crash.signalCode);
    if (*codeName) out.Char(' ').Str(codeName);
    out.Char('\n');
    WriteReportException(out, g_crash);

    out.Str("\nRegisters:\n");
    WriteRegisters(out, g_crash.context);

    WriteReportBacktrace(out, g_crash);
  }
  close(fd);
}

// CRASH-<pid>.DMP: see docs/crash-files.md. Records are
// {u32 type, u32 reserved, u64 length, length bytes}, little-endian.
enum RecordType : uint32_t {
  kRecordEnd = 0,
  kRecordCrash = 1,
  kRecordRegisters = 2,
  kRecordFloatState = 3,
  kRecordProgram = 4,
  kRecordThreadName = 5,
  kRecordMemoryMap = 6,
  kRecordStack = 7,
  kRecordBacktrace = 8,
};

class DumpFile {
 public:
  explicit DumpFile(int fd) : fd_(fd) {}
  void Begin(uint32_t type) {
    start_ = lseek(fd_, 0, SEEK_CUR);
    uint32_t header[4] = {type, 0, 0, 0};
    RawWrite(fd_, header, sizeof header);
  }
  void End() {
    off_t now = lseek(fd_, 0, SEEK_CUR);
    if (start_ < 0 || now < start_ + 16) return;
    uint64_t length = static_cast<uint64_t>(now - start_ - 16);
    pwrite(fd_, &length, sizeof length, start_ + 8);
  }
  void Record(uint32_t type, const void *data, size_t size) {
    Begin(type);
    RawWrite(fd_, data, size);
    End();
  }
  int fd() const { return fd_; }

 private:
  int fd_;
  off_t start_ = -1;
};

// Copies /proc/self/maps into the dump and finds the readable mapping that
// holds the stack pointer.
void WriteMemoryMap(DumpFile &dump, uintptr_t sp, uintptr_t &stackStart, uintptr_t &stackEnd) {
  stackStart = stackEnd = 0;
  int maps = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (maps < 0) return;
  dump.Begin(kRecordMemoryMap);
  char prefix[64];
  size_t prefixLength = 0;
  for (;;) {
    long got = syscall(SYS_read, maps, g_mapsBuffer, sizeof g_mapsBuffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    RawWrite(dump.fd(), g_mapsBuffer, static_cast<size_t>(got));
    for (long i = 0; i < got; i++) {
      char c = g_mapsBuffer[i];
      if (c != '\n') {
        if (prefixLength < sizeof prefix - 1) prefix[prefixLength++] = c;
        continue;
      }
      prefix[prefixLength] = '\0';
      prefixLength = 0;
      // "start-end perms ..."
      uintptr_t start = 0, end = 0;
      const char *p = prefix;
      auto hex = [&p]() {
        uintptr_t value = 0;
        for (;; p++) {
          char d = *p;
          if (d >= '0' && d <= '9')
            value = value * 16 + static_cast<uintptr_t>(d - '0');
          else if (d >= 'a' && d <= 'f')
            value = value * 16 + static_cast<uintptr_t>(d - 'a' + 10);
          else
            break;
        }
        return value;
      };
      start = hex();
      if (*p != '-') continue;
      p++;
      end = hex();
      if (*p != ' ') continue;
      p++;
      if (sp >= start && sp < end && *p == 'r') {
        stackStart = start;
        stackEnd = end;
      }
    }
  }
  close(maps);
  dump.End();
}

void WriteDump(const char *name) {
  int fd = CreateFile(name);
  if (fd < 0) return;
  DumpFile dump(fd);
  const char magic[16] = {'K', 'Z', 'C', 'R', 'A', 'S', 'H', '\0', 1, 0, 0, 0, 16, 0, 0, 0};
  RawWrite(fd, magic, sizeof magic);

  uint64_t crash[12] = {g_crash.pid,
                        g_crash.tid,
                        static_cast<uint64_t>(g_crash.signal),
                        static_cast<uint64_t>(static_cast<int64_t>(g_crash.signalCode)),
                        g_crash.code,
                        g_crash.address,
                        g_crash.pc,
                        g_crash.sp,
                        g_crash.time,
                        g_crash.flags,
                        g_crash.isProtected ? 1u : 0u,
                        g_crash.frameCount};
  dump.Record(kRecordCrash, crash, sizeof crash);
#if defined(__x86_64__)
  dump.Record(kRecordRegisters, g_crash.context->uc_mcontext.gregs, sizeof g_crash.context->uc_mcontext.gregs);
  if (g_crash.context->uc_mcontext.fpregs)
    dump.Record(kRecordFloatState, g_crash.context->uc_mcontext.fpregs, sizeof(struct _libc_fpstate));
#elif defined(__aarch64__)
  dump.Record(kRecordRegisters, &g_crash.context->uc_mcontext.regs, sizeof g_crash.context->uc_mcontext.regs);
#endif
  const char *program = ProgramName();
  dump.Record(kRecordProgram, program, strlen(program));
  dump.Record(kRecordThreadName, g_crash.threadName, strlen(g_crash.threadName));

  uintptr_t stackStart, stackEnd;
  WriteMemoryMap(dump, g_crash.sp, stackStart, stackEnd);
  if (stackEnd > stackStart) {
    uintptr_t from = g_crash.sp - kRedZone;
    if (from < stackStart || from > g_crash.sp) from = stackStart;
    uintptr_t to = stackEnd;
    if (to - g_crash.sp > kStackBytesAbove) to = g_crash.sp + kStackBytesAbove;
    dump.Begin(kRecordStack);
    uint64_t address = from;
    RawWrite(fd, &address, sizeof address);
    RawWrite(fd, reinterpret_cast<const void *>(from), to - from);
    dump.End();
  }
  if (g_crash.frameCount) dump.Record(kRecordBacktrace, g_crash.frames, g_crash.frameCount * sizeof(uintptr_t));
  dump.Record(kRecordEnd, nullptr, 0);
  close(fd);
}

void WriteSyslog(const char *directory) {
  int fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd < 0) return;
  char line[1024];
  ReportWriter out(line, sizeof line);
  // LOG_USER | LOG_CRIT
  out.Str("<10>").Str(ProgramName()).Char('[').Dec(g_crash.pid).Str("]: crash: ");
  out.Str(SignalName(g_crash.signal)).Str(" (").Hex(g_crash.code, 8, true).Char(' ').Str(CodeName(g_crash.code));
  out.Str(") at ").Hex(g_crash.address).Str(", thread ").Dec(g_crash.tid).Str(" (").Str(g_crash.threadName);
  out.Str("); crash files in ").Str(directory);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, "/dev/log", sizeof "/dev/log");
  sendto(fd, line, out.Length(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address), sizeof address);
  close(fd);
}

void StartDebugger() {
  char text[512];
  {
    ReportWriter out(WriteToFd, ErrorStreamFd(), text, sizeof text);
    out.Str("** debugger invoked in process ").Dec(g_crash.pid).Str(", thread ").Dec(g_crash.tid).Str(" (");
    out.Str(g_crash.threadName).Str(")\n");
  }
  if (!g_debugger[0]) return;
  unsigned remaining = alarm(0);  // the person at the debugger takes their time
  char pidText[24];
  ReportWriter(pidText, sizeof pidText).Dec(g_crash.pid);
  int gate[2];
  if (pipe2(gate, O_CLOEXEC) != 0) gate[0] = gate[1] = -1;
  long child = syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
  if (child == 0) {
    // Wait until the crashing process allows this one to trace it.
    if (gate[1] >= 0) close(gate[1]);
    char byte;
    if (gate[0] >= 0)
      while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {}
    char *argv[] = {g_debugger, const_cast<char *>("-p"), pidText, nullptr};
    execve(g_debugger, argv, environ);
    _exit(127);
  }
  if (child > 0) prctl(PR_SET_PTRACER, static_cast<unsigned long>(child), 0, 0, 0);
  if (gate[0] >= 0) close(gate[0]);
  if (gate[1] >= 0) close(gate[1]);
  if (child > 0) {
    int status;
    while (waitpid(static_cast<pid_t>(child), &status, 0) < 0 && errno == EINTR) {}
  }
  if (remaining) alarm(remaining);
}

// What a protected call without a report function gets.
void DefaultDispatcher(uint64_t code, const char *stackText) {
  char buffer[1024];
  ReportWriter out(WriteToFd, ErrorStreamFd(), buffer, sizeof buffer);
  WriteDefaultDispatch(out, g_crash, code, stackText);
}

// ---- the handler ---------------------------------------------------------------------

int SlotOf(int signal) {
  for (int i = 0; i < kSignalCount; i++)
    if (kSignals[i] == signal) return i;
  return 0;
}

bool IsDefault(const struct sigaction &action) {
  return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL;
}

// Hands a crash that is not ours to take to whatever handled the signal before.
void PassOn(int slot, int signal, siginfo_t *info, void *context) {
  const struct sigaction &previous = g_previous[slot];
  bool withInfo = previous.sa_flags & SA_SIGINFO;
  void *handler =
      withInfo ? reinterpret_cast<void *>(previous.sa_sigaction) : reinterpret_cast<void *>(previous.sa_handler);
  if (handler == reinterpret_cast<void *>(SIG_IGN)) {
    if (!(info && info->si_code > 0)) return;  // a sent signal that the process ignores
  } else if (handler != reinterpret_cast<void *>(SIG_DFL)) {
    if (withInfo)
      previous.sa_sigaction(signal, info, context);
    else
      previous.sa_handler(signal);
    return;
  }
  DieOnReturn(signal, info);
}

void CollectFrames() {
  g_crash.frameCount = 0;
  uintptr_t captured[kMaxFrames];
  size_t count = backtrace::Capture(captured, kMaxFrames, 0);
  // Drop the handler's own frames: start at the interrupted instruction.
  size_t first = count;
  for (size_t i = 0; i < count; i++) {
    if (captured[i] == g_crash.pc) {
      first = i;
      break;
    }
  }
  if (first == count) {
    if (g_crash.pc) g_crash.frames[g_crash.frameCount++] = g_crash.pc;
    return;
  }
  for (size_t i = first; i < count; i++) g_crash.frames[g_crash.frameCount++] = captured[i];
}

void CrashHandler(int signal, siginfo_t *info, void *rawContext) {
  int savedErrno = errno;
  int slot = SlotOf(signal);
  bool isProtected = t_protection.depth > 0;
  if (!isProtected && !g_processWide[slot].load(std::memory_order_acquire)) {
    PassOn(slot, signal, info, rawContext);
    errno = savedErrno;
    return;
  }
  long tid = syscall(SYS_gettid);
  long nobody = 0;
  if (!g_crashThread.compare_exchange_strong(nobody, tid)) {
    // Another thread is reporting its crash and will end the process.
    for (;;) pause();
  }
  ArmWatchdog(signal);

  const auto *context = static_cast<const ucontext_t *>(rawContext);
  g_crash.signal = signal;
  g_crash.signalCode = info ? info->si_code : SI_USER;
  g_crash.address = info ? reinterpret_cast<uintptr_t>(info->si_addr) : 0;
  g_crash.pc = ContextPc(context);
  g_crash.sp = ContextSp(context);
  g_crash.context = context;
  g_crash.code = ExceptionCode(signal, info, g_crash.sp);
  g_crash.pid = static_cast<uint64_t>(getpid());
  g_crash.tid = static_cast<uint64_t>(tid);
  g_crash.time = static_cast<uint64_t>(time(nullptr));
  g_crash.flags = g_flagWord.load(std::memory_order_relaxed);
  g_crash.isProtected = isProtected;
  g_crash.threadName = ThreadNameFor(g_crash.tid, g_threadNameText, sizeof g_threadNameText);

  // The action taken: 2 takes the exception; 0x100 asks for the crash files,
  // 0x400 for a stack text.
  uint32_t action =
      (TakenByProtectedCall(g_crash.code) ? 2u : 0u) | (g_crash.flags & (KZ_FLAG_CRASH_FILES | KZ_FLAG_CRASH_STACK));
  g_crash.frameCount = 0;
  if (action & KZ_FLAG_CRASH_STACK) CollectFrames();

  const CrashFiles &files = g_files[g_filesSlot.load(std::memory_order_acquire)];
  if (action & KZ_FLAG_CRASH_FILES) {
    const CrashFiles &names = CrashFileNames();
    if (g_crash.flags & KZ_FLAG_CRASH_DUMP) WriteDump(names.dump);
    if (g_crash.flags & KZ_FLAG_CRASH_LOG) WriteLog(names.log);
  }
  if (g_crash.flags & KZ_FLAG_CRASH_SYSLOG) WriteSyslog(files.directory);
  if (g_crash.flags & KZ_FLAG_DEBUGGER) StartDebugger();

  if (isProtected && (action & 0xF) == 2) {
    const char *stackText = (action & KZ_FLAG_CRASH_STACK) ? WriteStackText(g_crash, g_stackText) : nullptr;
    uint64_t code = kReportMark | g_crash.code;
    KZCrashReport report = t_protection.report;
    if (report)
      report(code, stackText);
    else
      DefaultDispatcher(code, stackText);
    abort();
  }
  if (!g_processWide[slot].load(std::memory_order_acquire)) {
    // A protected call that does not take this exception, and no crash
    // handling for the process: whatever handled the signal before decides.
    alarm(0);
    g_crashThread.store(0);
    PassOn(slot, signal, info, rawContext);
    errno = savedErrno;
    return;
  }
  DieOnReturn(signal, info);
  errno = savedErrno;
}

// Installs the handler for one signal, remembering what was there. Called
// with g_installLock held.
void InstallSlot(int slot) {
  if (g_ours[slot].load(std::memory_order_relaxed)) return;
  struct sigaction current;
  if (sigaction(kSignals[slot], nullptr, &current) != 0) return;
  g_previous[slot] = current;
  struct sigaction mine {};
  mine.sa_sigaction = CrashHandler;
  mine.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&mine.sa_mask);
  for (int signal : kSignals) sigaddset(&mine.sa_mask, signal);
  if (sigaction(kSignals[slot], &mine, nullptr) == 0) g_ours[slot].store(true, std::memory_order_release);
}

void EnsureProtectedHandling() {
  if (!g_allOurs.load(std::memory_order_acquire)) {
    pthread_mutex_lock(&g_installLock);
    for (int slot = 0; slot < kSignalCount; slot++) InstallSlot(slot);
    g_allOurs.store(true, std::memory_order_release);
    pthread_mutex_unlock(&g_installLock);
    backtrace::Init();
  }
  PrepareThread();
}

}  // namespace

void InstallProcessWide(bool keepExisting) {
  pthread_mutex_lock(&g_installLock);
  for (int slot = 0; slot < kSignalCount; slot++) {
    struct sigaction before;
    if (g_ours[slot].load(std::memory_order_relaxed))
      before = g_previous[slot];
    else if (sigaction(kSignals[slot], nullptr, &before) != 0)
      continue;
    if (keepExisting && !IsDefault(before)) continue;
    InstallSlot(slot);
    if (g_ours[slot].load(std::memory_order_relaxed)) g_processWide[slot].store(true, std::memory_order_release);
  }
  pthread_mutex_unlock(&g_installLock);
  PrepareThread();
}

void PrepareThread() {
  AltStack &stack = t_altStack;
  if (stack.checked) return;
  stack.checked = true;
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE) && current.ss_size >= kAltStackMinimum)
    return;  // the thread has a large enough one already
  size_t page = AltStack::PageSize();
  size_t size = kAltStackSize + page;  // + a guard page below
  void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) return;
  mprotect(mapping, page, PROT_NONE);
  stack_t mine{};
  mine.ss_sp = static_cast<char *>(mapping) + page;
  mine.ss_size = kAltStackSize;
  if (sigaltstack(&mine, nullptr) != 0) {
    munmap(mapping, size);
    return;
  }
  stack.mapping = mapping;
  stack.size = size;
}

// The dump writer is this file's own code: nothing to load.
bool LoadDumpWriter() { return true; }

bool SetDirectory(const char *directory) {
  if (!directory || !*directory) directory = ".";
  pthread_mutex_lock(&g_filesLock);
  int next = 1 - g_filesSlot.load(std::memory_order_relaxed);
  bool made = MakeFileNames(g_files[next], directory, '/', static_cast<uint64_t>(getpid()));
  if (made) g_filesSlot.store(next, std::memory_order_release);
  pthread_mutex_unlock(&g_filesLock);
  return made;
}

void SetGraceTime(uint32_t seconds) { g_graceTime.store(seconds, std::memory_order_relaxed); }

uint32_t GraceTime() { return g_graceTime.load(std::memory_order_relaxed); }

void SetDebugger(const char *program) {
  g_debugger[0] = '\0';
  if (!program || !*program) return;
  if (strchr(program, '/')) {
    trio_snprintf(g_debugger, sizeof g_debugger, "%s", program);
    return;
  }
  const char *path = getenv("PATH");
  if (!path) path = "/usr/local/bin:/usr/bin:/bin";
  while (*path) {
    const char *end = strchr(path, ':');
    size_t length = end ? static_cast<size_t>(end - path) : strlen(path);
    char candidate[sizeof g_debugger];
    if (length == 0)
      trio_snprintf(candidate, sizeof candidate, "./%s", program);
    else
      trio_snprintf(candidate, sizeof candidate, "%.*s/%s", static_cast<int>(length), path, program);
    if (access(candidate, X_OK) == 0) {
      memcpy(g_debugger, candidate, sizeof g_debugger);
      return;
    }
    if (!end) break;
    path = end + 1;
  }
}

int64_t RunProtected(KZProtectedFunction function, void *argument, KZCrashReport report) {
  EnsureProtectedHandling();
  Protection &protection = t_protection;
  Protection saved = protection;
  protection.report = report;
  protection.depth = saved.depth + 1;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  int64_t result = function(argument);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  protection = saved;
  return result;
}

}  // namespace kz::crash
