// Crash handling on Windows: structured exceptions.
//
// Process-wide, an unhandled-exception filter takes every crash that no code
// handled: as the flag word says it writes CRASH-<pid>.DMP (a mini-dump, by
// the debug help library's MiniDumpWriteDump) and ERRORLOG-<pid>.TXT
// (docs/crash-files.md), reports one line to the event log and starts a
// debugger, then lets the exception end the process with its code.
// KZRunProtected_ adds a vectored exception handler, which sees an exception
// before any frame does: inside a protected call it takes the exceptions the
// call takes, reports them to the caller's report function and aborts.
//
// The files are written by a helper thread with a stack of its own, so a
// stack overflow can be reported too. A watchdog thread ends the process when
// the handling takes longer than the grace time (KZ_HANDLER_GRACE_TIME).
#include <windows.h>

#include <dbghelp.h>
#include <io.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <trio.h>

#include <atomic>

#include "internal/context.h"
#include "internal/crash_report.h"
#include "internal/os/backtrace.h"
#include "internal/os/crash.h"
#include "internal/os/error.h"
#include "kz/init.h"
#include "kz/message.h"

namespace kz::crash {
namespace {

constexpr ULONG kStackGuarantee = 64 * 1024;  // stack kept for handlers after an overflow

// ---- raw output ------------------------------------------------------------------

void WriteToHandle(intptr_t handle, const char *data, size_t size) {
  DWORD written;
  WriteFile(reinterpret_cast<HANDLE>(handle), data, static_cast<DWORD>(size), &written, nullptr);
}

// The error stream as a system handle (the C runtime's descriptor 2 unless
// the program set another message stream).
HANDLE ErrorStreamHandle() {
  intptr_t handle = _get_osfhandle(ErrorStreamFd());
  return handle == -1 || handle == -2 ? GetStdHandle(STD_ERROR_HANDLE) : reinterpret_cast<HANDLE>(handle);
}

// ---- state -----------------------------------------------------------------------------

SRWLOCK g_installLock = SRWLOCK_INIT;
std::atomic<bool> g_filterInstalled{false};
std::atomic<bool> g_vectoredInstalled{false};
LPTOP_LEVEL_EXCEPTION_FILTER g_previousFilter = nullptr;

std::atomic<uint32_t> g_graceTime{30};
char g_debugger[MAX_PATH * 3];  // full path; empty: none

using MiniDumpWriteDumpFunction = BOOL(WINAPI *)(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, PMINIDUMP_EXCEPTION_INFORMATION,
                                                 PMINIDUMP_USER_STREAM_INFORMATION, PMINIDUMP_CALLBACK_INFORMATION);
std::atomic<MiniDumpWriteDumpFunction> g_writeDump{nullptr};

// Crash file names: two slots, so that the handler always reads a complete
// one while KZRunProtectedSetPath fills the other.
CrashFiles g_files[2] = {{".", 0, "", ""}, {".", 0, "", ""}};
std::atomic<int> g_filesSlot{0};
SRWLOCK g_filesLock = SRWLOCK_INIT;

// The protected call the thread is in, if any.
struct Protection {
  KZCrashReport report;
  int depth;
};
thread_local Protection t_protection = {nullptr, 0};
thread_local bool t_prepared = false;

// The crash being handled. Only one thread handles a crash; others that crash
// meanwhile wait for it to end the process.
std::atomic<DWORD> g_crashThread{0};

struct Crash : CrashRecord {
  EXCEPTION_POINTERS *pointers;
  KZCrashReport report;  // a protected call's report function (the default dispatcher for none)
};

Crash g_crash;
char g_ioBuffer[4096];
char g_stackText[kStackTextMax];
char g_threadNameText[32];

// ---- descriptions -------------------------------------------------------------------

// Exceptions that are crashes; everything else (C++ exceptions, debugger
// notices, guard pages) belongs to whoever raised it.
bool IsCrash(uint32_t code) {
  return TakenByProtectedCall(code) || code == kInvalidSystemService ||
         (code >= kFloatDivideByZero && code <= kFloatUnderflow) || code == kIntegerDivideByZero ||
         code == kIntegerOverflow;
}

// ---- crash files -------------------------------------------------------------------

// A file named in UTF-8, created or emptied, not inheritable.
HANDLE CreateCrashFile(const char *name) {
  wchar_t wide[kDirectoryMax + 64];
  if (MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, sizeof wide / sizeof wide[0]) <= 0) return nullptr;
  HANDLE file = CreateFileW(wide, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  return file == INVALID_HANDLE_VALUE ? nullptr : file;
}

void WriteRegisters(ReportWriter &out, const CONTEXT *context) {
#if defined(__x86_64__)
  const struct {
    const char *name;
    uint64_t value;
  } registers[] = {
      {"rax", context->Rax}, {"rbx", context->Rbx},       {"rcx", context->Rcx},     {"rdx", context->Rdx},
      {"rsi", context->Rsi}, {"rdi", context->Rdi},       {"rbp", context->Rbp},     {"rsp", context->Rsp},
      {"r8", context->R8},   {"r9", context->R9},         {"r10", context->R10},     {"r11", context->R11},
      {"r12", context->R12}, {"r13", context->R13},       {"r14", context->R14},     {"r15", context->R15},
      {"rip", context->Rip}, {"eflags", context->EFlags}, {"mxcsr", context->MxCsr}, {"segcs", context->SegCs}};
  int column = 0;
  for (const auto &reg : registers) {
    out.Str("  ").Str(reg.name);
    for (size_t n = strlen(reg.name); n < 8; n++) out.Char(' ');
    out.Hex(reg.value, 16);
    if (++column == 4) {
      out.Char('\n');
      column = 0;
    }
  }
  if (column) out.Char('\n');
#else
  (void)context;
  out.Str("  (not available on this processor)\n");
#endif
}

void WriteLog(const char *name) {
  HANDLE file = CreateCrashFile(name);
  if (!file) return;
  {
    ReportWriter out(WriteToHandle, reinterpret_cast<intptr_t>(file), g_ioBuffer, sizeof g_ioBuffer);
    char executable[MAX_PATH * 3];
    wchar_t wide[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, wide, MAX_PATH);
    int written = length > 0 && length < MAX_PATH
                      ? WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), executable,
                                            sizeof executable - 1, nullptr, nullptr)
                      : 0;
    executable[written > 0 ? written : 0] = '\0';
    WriteReportOpening(out, g_crash, written > 0 ? executable : nullptr);
    WriteReportException(out, g_crash);

    out.Str("\nRegisters:\n");
    WriteRegisters(out, g_crash.pointers->ContextRecord);

    WriteReportBacktrace(out, g_crash);
  }
  CloseHandle(file);
}

void WriteDump(const char *name) {
  MiniDumpWriteDumpFunction writeDump = g_writeDump.load(std::memory_order_acquire);
  if (!writeDump) return;
  HANDLE file = CreateCrashFile(name);
  if (!file) return;
  MINIDUMP_EXCEPTION_INFORMATION exception;
  exception.ThreadId = static_cast<DWORD>(g_crash.tid);
  exception.ExceptionPointers = g_crash.pointers;
  exception.ClientPointers = FALSE;
  writeDump(GetCurrentProcess(), GetCurrentProcessId(), file,
            static_cast<MINIDUMP_TYPE>(MiniDumpWithDataSegs | MiniDumpWithHandleData | MiniDumpWithThreadInfo),
            &exception, nullptr, nullptr);
  CloseHandle(file);
}

void WriteEventLog(const char *directory) {
  HANDLE source = RegisterEventSourceW(nullptr, L"kzlib");
  if (!source) return;
  char line[1024];
  {
    ReportWriter out(line, sizeof line);
    out.Str(ProgramName()).Char('[').Dec(g_crash.pid).Str("]: crash: ").Hex(g_crash.code, 8, true).Char(' ');
    out.Str(CodeName(g_crash.code)).Str(" at ").Hex(g_crash.address).Str(", thread ").Dec(g_crash.tid);
    out.Str(" (").Str(g_crash.threadName).Str("); crash files in ").Str(directory);
  }
  wchar_t wide[1024];
  if (MultiByteToWideChar(CP_UTF8, 0, line, -1, wide, 1024) > 0) {
    const wchar_t *strings[] = {wide};
    ReportEventW(source, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 1, 0, strings, nullptr);
  }
  DeregisterEventSource(source);
}

void StartDebugger() {
  char text[512];
  {
    ReportWriter out(WriteToHandle, reinterpret_cast<intptr_t>(ErrorStreamHandle()), text, sizeof text);
    out.Str("** debugger invoked in process ").Dec(g_crash.pid).Str(", thread ").Dec(g_crash.tid).Str(" (");
    out.Str(g_crash.threadName).Str(")\n");
  }
  if (!g_debugger[0]) return;
  char commandLine[sizeof g_debugger + 40];
  {
    ReportWriter out(commandLine, sizeof commandLine);
    out.Char('"').Str(g_debugger).Str("\" -p ").Dec(g_crash.pid);
  }
  wchar_t wide[sizeof commandLine];
  if (MultiByteToWideChar(CP_UTF8, 0, commandLine, -1, wide, sizeof wide / sizeof wide[0]) <= 0) return;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process;
  if (!CreateProcessW(nullptr, wide, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) return;
  CloseHandle(process.hThread);
  WaitForSingleObject(process.hProcess, INFINITE);  // the person at the debugger takes their time
  CloseHandle(process.hProcess);
}

// What a protected call without a report function gets.
void DefaultDispatcher(uint64_t code, const char *stackText) {
  char buffer[1024];
  ReportWriter out(WriteToHandle, reinterpret_cast<intptr_t>(ErrorStreamHandle()), buffer, sizeof buffer);
  WriteDefaultDispatch(out, g_crash, code, stackText);
}

// ---- the handler ---------------------------------------------------------------------

// The stack from the faulting instruction outwards: the exception's context
// unwound frame by frame with the modules' unwind tables.
void CollectFrames(const CONTEXT *faulting) {
  g_crash.frameCount = 0;
#if defined(__x86_64__)
  CONTEXT context = *faulting;
  for (size_t i = 0; i < kMaxFrames && context.Rip != 0; i++) {
    // Return addresses point into the call instruction; the faulting
    // instruction is reported exactly.
    g_crash.frames[g_crash.frameCount++] = i == 0 ? context.Rip : context.Rip - 1;
    DWORD64 imageBase = 0;
    PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &imageBase, nullptr);
    if (!function) {
      // A leaf function: the return address is on top of the stack.
      if (context.Rsp == 0) break;
      context.Rip = *reinterpret_cast<DWORD64 *>(context.Rsp);
      context.Rsp += 8;
      continue;
    }
    void *handlerData = nullptr;
    DWORD64 establisher = 0;
    RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, function, &context, &handlerData, &establisher,
                     nullptr);
  }
#else
  g_crash.frames[g_crash.frameCount++] = static_cast<uintptr_t>(g_crash.pc);
#endif
}

// Ends the process when the crash handling (files, report function) is still
// running after the grace time. The debugger waits for the person using it:
// no limit then.
DWORD WINAPI Watchdog(void *) {
  uint32_t grace = g_graceTime.load(std::memory_order_relaxed);
  Sleep(grace * 1000u);
  char buffer[256];
  {
    ReportWriter out(WriteToHandle, reinterpret_cast<intptr_t>(ErrorStreamHandle()), buffer, sizeof buffer);
    out.Str(ProgramName()).Str(": crash handler still running after ").Dec(grace).Str(" seconds, ending the process\n");
  }
  TerminateProcess(GetCurrentProcess(), g_crash.code);
  return 0;
}

void ArmWatchdog() {
  if (g_graceTime.load(std::memory_order_relaxed) == 0 || (g_crash.flags & KZ_FLAG_DEBUGGER)) return;
  HANDLE watchdog = CreateThread(nullptr, 64 * 1024, Watchdog, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (watchdog) CloseHandle(watchdog);
}

// The crash files and reports, as the flags ask; runs on the helper thread.
DWORD WINAPI ReportCrash(void *) {
  ArmWatchdog();
  if (g_crash.flags & KZ_FLAG_CRASH_STACK) CollectFrames(g_crash.pointers->ContextRecord);
  const CrashFiles &files = g_files[g_filesSlot.load(std::memory_order_acquire)];
  if (g_crash.flags & KZ_FLAG_CRASH_FILES) {
    if (g_crash.flags & KZ_FLAG_CRASH_DUMP) WriteDump(files.dump);
    if (g_crash.flags & KZ_FLAG_CRASH_LOG) WriteLog(files.log);
  }
  if (g_crash.flags & KZ_FLAG_CRASH_SYSLOG) WriteEventLog(files.directory);
  if (g_crash.flags & KZ_FLAG_DEBUGGER) StartDebugger();
  if (g_crash.isProtected && g_crash.report) {
    const char *stackText = (g_crash.flags & KZ_FLAG_CRASH_STACK) ? WriteStackText(g_crash, g_stackText) : nullptr;
    g_crash.report(kReportMark | g_crash.code, stackText);
  }
  return 0;
}

// Records the crash; a helper thread with a stack of its own (the crashing
// thread's may be used up) collects the backtrace, writes what the flags ask
// for and calls a protected call's report function, under the watchdog. Another thread that crashes meanwhile waits for the first to end
// the process.
void HandleCrash(EXCEPTION_POINTERS *pointers, bool isProtected) {
  DWORD self = GetCurrentThreadId();
  DWORD nobody = 0;
  if (!g_crashThread.compare_exchange_strong(nobody, self)) {
    // Another thread is reporting its crash and will end the process.
    for (;;) Sleep(INFINITE);
  }
  const EXCEPTION_RECORD *record = pointers->ExceptionRecord;
  g_crash.code = record->ExceptionCode;
  g_crash.pc = reinterpret_cast<uintptr_t>(record->ExceptionAddress);
  // Access violations and in-page errors name the address they touched.
  g_crash.address = (record->ExceptionCode == kAccessViolation || record->ExceptionCode == kInPageError) &&
                            record->NumberParameters >= 2
                        ? static_cast<uintptr_t>(record->ExceptionInformation[1])
                        : g_crash.pc;
  g_crash.pointers = pointers;
  g_crash.pid = GetCurrentProcessId();
  g_crash.tid = self;
  g_crash.time = static_cast<uint64_t>(time(nullptr));
  g_crash.flags = g_flagWord.load(std::memory_order_relaxed);
  g_crash.isProtected = isProtected;
  g_crash.threadName = ThreadNameFor(g_crash.tid, g_threadNameText, sizeof g_threadNameText);
  // Only an exception the protected call takes is reported to it; any other
  // ends the process like a crash outside one.
  g_crash.report = nullptr;
  if (isProtected && TakenByProtectedCall(g_crash.code))
    g_crash.report = t_protection.report ? t_protection.report : DefaultDispatcher;
  HANDLE helper = CreateThread(nullptr, 1024 * 1024, ReportCrash, nullptr, 0, nullptr);
  if (!helper) {
    ReportCrash(nullptr);  // no thread to spare: on this stack
    return;
  }
  WaitForSingleObject(helper, INFINITE);
  CloseHandle(helper);
}

// Sees every exception first: inside a protected call it takes the ones the
// call takes; everything else goes on to the frames and the filter.
LONG CALLBACK ProtectedCallHandler(EXCEPTION_POINTERS *pointers) {
  if (t_protection.depth == 0) return EXCEPTION_CONTINUE_SEARCH;
  uint32_t code = pointers->ExceptionRecord->ExceptionCode;
  if (!TakenByProtectedCall(code)) return EXCEPTION_CONTINUE_SEARCH;
  HandleCrash(pointers, true);
  abort();  // exit status 3
}

// The last word on an exception nothing handled.
LONG WINAPI UnhandledFilter(EXCEPTION_POINTERS *pointers) {
  uint32_t code = pointers->ExceptionRecord->ExceptionCode;
  if (!IsCrash(code)) return g_previousFilter ? g_previousFilter(pointers) : EXCEPTION_CONTINUE_SEARCH;
  HandleCrash(pointers, t_protection.depth > 0);
  // The exception ends the process with its code.
  return EXCEPTION_EXECUTE_HANDLER;
}

// A protected call before start-up: the names of the working directory.
void SetDirectoryIfUnset() {
  if (g_files[g_filesSlot.load(std::memory_order_acquire)].dump[0] == '\0') SetDirectory(".");
}

void EnsureProtectedHandling() {
  if (!g_vectoredInstalled.load(std::memory_order_acquire)) {
    AcquireSRWLockExclusive(&g_installLock);
    if (!g_vectoredInstalled.load(std::memory_order_relaxed)) {
      AddVectoredExceptionHandler(1, ProtectedCallHandler);
      g_vectoredInstalled.store(true, std::memory_order_release);
    }
    ReleaseSRWLockExclusive(&g_installLock);
    backtrace::Init();
    SetDirectoryIfUnset();
    int savedErrno = errno;
    DWORD savedError = GetLastError();
    LoadDumpWriter();  // without start-up: crash dumps all the same
    SetLastError(savedError);
    errno = savedErrno;
  }
  PrepareThread();
}

}  // namespace

void InstallProcessWide(bool keepExisting) {
  AcquireSRWLockExclusive(&g_installLock);
  if (!g_filterInstalled.load(std::memory_order_relaxed)) {
    LPTOP_LEVEL_EXCEPTION_FILTER previous = SetUnhandledExceptionFilter(UnhandledFilter);
    if (keepExisting && previous) {
      SetUnhandledExceptionFilter(previous);  // the program's own filter stays
    } else {
      g_previousFilter = previous;
      g_filterInstalled.store(true, std::memory_order_release);
    }
  }
  ReleaseSRWLockExclusive(&g_installLock);
  PrepareThread();
}

// Stack kept back for the handlers after a stack overflow in this thread.
void PrepareThread() {
  if (t_prepared) return;
  t_prepared = true;
  ULONG guarantee = kStackGuarantee;
  SetThreadStackGuarantee(&guarantee);
}

bool LoadDumpWriter() {
  if (g_writeDump.load(std::memory_order_acquire)) return true;
  HMODULE dbghelp = LoadLibraryExW(L"dbghelp.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (!dbghelp) dbghelp = LoadLibraryW(L"dbghelp.dll");  // systems without the search flags
  auto writeDump = dbghelp ? reinterpret_cast<MiniDumpWriteDumpFunction>(
                                 reinterpret_cast<void *>(GetProcAddress(dbghelp, "MiniDumpWriteDump")))
                           : nullptr;
  if (!writeDump) {
    kz::os::FailWithError(static_cast<int>(GetLastError()));
    return false;
  }
  g_writeDump.store(writeDump, std::memory_order_release);
  return true;
}

bool SetDirectory(const char *directory) {
  if (!directory || !*directory) directory = ".";
  AcquireSRWLockExclusive(&g_filesLock);
  int next = 1 - g_filesSlot.load(std::memory_order_relaxed);
  bool made = MakeFileNames(g_files[next], directory, '\\', GetCurrentProcessId());
  if (made) g_filesSlot.store(next, std::memory_order_release);
  ReleaseSRWLockExclusive(&g_filesLock);
  return made;
}

void SetGraceTime(uint32_t seconds) { g_graceTime.store(seconds, std::memory_order_relaxed); }

uint32_t GraceTime() { return g_graceTime.load(std::memory_order_relaxed); }

void SetDebugger(const char *program) {
  g_debugger[0] = '\0';
  if (!program || !*program) return;
  if (strchr(program, '\\') || strchr(program, '/') || strchr(program, ':')) {
    trio_snprintf(g_debugger, sizeof g_debugger, "%s", program);
    return;
  }
  wchar_t name[MAX_PATH], found[MAX_PATH];
  if (MultiByteToWideChar(CP_UTF8, 0, program, -1, name, MAX_PATH) <= 0) return;
  DWORD length = SearchPathW(nullptr, name, L".exe", MAX_PATH, found, nullptr);
  if (length == 0 || length >= MAX_PATH) return;
  int written = WideCharToMultiByte(CP_UTF8, 0, found, static_cast<int>(length), g_debugger, sizeof g_debugger - 1,
                                    nullptr, nullptr);
  g_debugger[written > 0 ? written : 0] = '\0';
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
