// Crash handling: what start-up, KZRunProtected_ and the threads family need
// from the operating-system side (src/posix/crash.cpp, src/win32/crash.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "kz/error.h"

namespace kz::crash {

// Exception codes reported for crash signals (the numbers report callbacks
// see, shared with the library's other platforms).
inline constexpr uint32_t kAccessViolation = 0xC0000005u;
inline constexpr uint32_t kInPageError = 0xC0000006u;
inline constexpr uint32_t kInvalidSystemService = 0xC000001Cu;
inline constexpr uint32_t kIllegalInstruction = 0xC000001Du;
inline constexpr uint32_t kArrayBoundsExceeded = 0xC000008Cu;
inline constexpr uint32_t kFloatDivideByZero = 0xC000008Eu;
inline constexpr uint32_t kFloatInexactResult = 0xC000008Fu;
inline constexpr uint32_t kFloatInvalidOperation = 0xC0000090u;
inline constexpr uint32_t kFloatOverflow = 0xC0000091u;
inline constexpr uint32_t kFloatUnderflow = 0xC0000093u;
inline constexpr uint32_t kIntegerDivideByZero = 0xC0000094u;
inline constexpr uint32_t kIntegerOverflow = 0xC0000095u;
inline constexpr uint32_t kPrivilegedInstruction = 0xC0000096u;
inline constexpr uint32_t kStackOverflow = 0xC00000FDu;
inline constexpr uint32_t kDatatypeMisalignment = 0x80000002u;

// Marks a report code: code | kReportMark is what KZRunProtected_ reports.
inline constexpr uint64_t kReportMark = 0xD00000000ull;

// Installs the handlers of SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGSYS for the
// whole process: a crash anywhere writes the crash files (as the flag word
// says) and ends the process with the signal. keepExisting leaves a signal
// alone when the process already handles or ignores it. Also gives the calling
// thread an alternate signal stack.
void InstallProcessWide(bool keepExisting);

// Gives the calling thread an alternate signal stack, so that a stack overflow
// in it can still be reported; released when the thread ends. Threads created
// by the library call this when they start.
void PrepareThread();

// Makes the crash dump writer ready; false (errno -1, the last error set)
// when it cannot be loaded, and crash dumps are then left out.
bool LoadDumpWriter();

// Crash file directory: names become "<directory>/CRASH-<pid>.DMP" and
// "<directory>/ERRORLOG-<pid>.TXT". False when the name is too long.
bool SetDirectory(const char *directory);

// Settings read at start-up.
void SetGraceTime(uint32_t seconds);
uint32_t GraceTime();
// The debugger started on a crash when the debugger flag is set: a program
// name looked up in PATH now, or a path; empty for none.
void SetDebugger(const char *program);

// KZRunProtected_: runs function(argument); a crash inside it is reported
// through report (null: the default dispatcher) and the process aborts.
int64_t RunProtected(KZProtectedFunction function, void *argument, KZCrashReport report);

}  // namespace kz::crash
