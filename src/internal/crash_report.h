// The crash report's text (ERRORLOG-<pid>.TXT, the stack text of a protected
// call, the default dispatcher's lines), written the same way by the
// operating-system sides of crash handling (src/posix/crash.cpp,
// src/win32/crash.cpp) from src/crash.cpp.
//
// Everything here runs inside a crash handler: fixed buffers, formatting by
// hand, no allocation, no locks, no C runtime streams.
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/os/backtrace.h"

namespace kz::crash {

inline constexpr size_t kMaxFrames = 64;
inline constexpr size_t kStackTextMax = 512;  // NUL included

// Takes a full buffer of a ReportWriter: writes it to the file or stream the
// target names (a descriptor or a handle; the operating-system side decides).
using ReportSink = void (*)(intptr_t target, const char *data, size_t size);

// Formats into a fixed buffer. With a sink the buffer is written out whenever
// it fills and when the writer ends; without one the text is cut at the
// buffer's end and kept NUL-terminated.
class ReportWriter {
 public:
  ReportWriter(ReportSink sink, intptr_t target, char *buffer, size_t size)
      : sink_(sink), target_(target), buffer_(buffer), size_(size) {}
  ReportWriter(char *buffer, size_t size) : buffer_(buffer), size_(size) {
    if (size_ > 0) buffer_[0] = '\0';
  }
  ~ReportWriter() { Flush(); }
  ReportWriter(const ReportWriter &) = delete;
  ReportWriter &operator=(const ReportWriter &) = delete;

  ReportWriter &Char(char c) {
    size_t limit = sink_ ? size_ : size_ - 1;
    if (used_ >= limit) Flush();
    if (used_ < limit) {
      buffer_[used_++] = c;
      if (!sink_) buffer_[used_] = '\0';
    }
    return *this;
  }
  ReportWriter &Str(const char *text) {
    if (!text) text = "(null)";
    while (*text) Char(*text++);
    return *this;
  }
  ReportWriter &Dec(uint64_t value);
  ReportWriter &SignedDec(int64_t value);
  // "0x" and at least `width` digits.
  ReportWriter &Hex(uint64_t value, int width = 1, bool upper = false);
  void Flush() {
    if (sink_ && used_ > 0) {
      sink_(target_, buffer_, used_);
      used_ = 0;
    }
  }
  size_t Length() const { return used_; }

 private:
  ReportSink sink_ = nullptr;
  intptr_t target_ = -1;
  char *buffer_;
  size_t size_;
  size_t used_ = 0;
};

// What every report says of a crash. The operating-system side's record of
// the crash being handled starts with it.
struct CrashRecord {
  uint32_t code;  // the exception code (kAccessViolation, ...)
  uintptr_t address;
  uintptr_t pc;
  uint64_t pid;
  uint64_t tid;
  uint64_t time;  // seconds since 1970, UTC
  uint32_t flags;
  bool isProtected;
  const char *threadName;
  uintptr_t frames[kMaxFrames];
  size_t frameCount;
};

const char *CodeName(uint32_t code);

// The exceptions a protected call takes; every other one passes on and ends
// the process as an unprotected crash would.
bool TakenByProtectedCall(uint32_t code);

// The thread's name from its message context, else its number written into
// buffer.
const char *ThreadNameFor(uint64_t tid, char *buffer, size_t size);

// "2026/11/24-19:05:03 UTC"
void WriteUtcTime(ReportWriter &out, uint64_t seconds);

// The crash file names "<directory><separator>CRASH-<pid>.DMP" and
// "...ERRORLOG-<pid>.TXT"; false when the directory is longer than
// kDirectoryMax bytes.
inline constexpr size_t kDirectoryMax = 4000;
struct CrashFiles {
  char directory[kDirectoryMax + 1];
  uint64_t pid;  // the process the names were made for; 0: not made yet
  char dump[kDirectoryMax + 64];
  char log[kDirectoryMax + 64];
};
bool MakeFileNames(CrashFiles &files, const char *directory, char separator, uint64_t pid);

// ERRORLOG-<pid>.TXT, as docs/crash-files.md shows it: the opening lines up
// to "Time:", the lines from "Exception:" to "Flags:", and the backtrace
// (between them the operating-system side adds its own lines and registers).
void WriteReportOpening(ReportWriter &out, const CrashRecord &crash, const char *executable);
void WriteReportException(ReportWriter &out, const CrashRecord &crash);
void WriteReportBacktrace(ReportWriter &out, const CrashRecord &crash);

// At most kStackTextMax bytes (NUL included) of whole frame lines, in text.
const char *WriteStackText(const CrashRecord &crash, char *text);

// What a protected call without a report function gets on the error stream.
void WriteDefaultDispatch(ReportWriter &out, const CrashRecord &crash, uint64_t code, const char *stackText);

}  // namespace kz::crash
