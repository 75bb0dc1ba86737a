// The crash report's text: what the operating-system sides of crash handling
// write into ERRORLOG-<pid>.TXT and hand to report functions.
#include <cstring>

#include "internal/context.h"
#include "internal/crash_report.h"
#include "internal/os/crash.h"
#include "internal/startup.h"
#include "kz/init.h"

namespace kz::crash {

ReportWriter &ReportWriter::Dec(uint64_t value) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value);
  while (n) Char(digits[--n]);
  return *this;
}

ReportWriter &ReportWriter::SignedDec(int64_t value) {
  if (value < 0) {
    Char('-');
    return Dec(~static_cast<uint64_t>(value) + 1);
  }
  return Dec(static_cast<uint64_t>(value));
}

ReportWriter &ReportWriter::Hex(uint64_t value, int width, bool upper) {
  const char *alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[16];
  int n = 0;
  do {
    digits[n++] = alphabet[value & 15];
    value >>= 4;
  } while (value);
  Str("0x");
  for (int i = n; i < width; i++) Char('0');
  while (n) Char(digits[--n]);
  return *this;
}

const char *CodeName(uint32_t code) {
  switch (code) {
    case kAccessViolation: return "access violation";
    case kInPageError: return "in-page error";
    case kInvalidSystemService: return "invalid system service";
    case kIllegalInstruction: return "illegal instruction";
    case kArrayBoundsExceeded: return "array bounds exceeded";
    case kFloatDivideByZero: return "float divide by zero";
    case kFloatInexactResult: return "float inexact result";
    case kFloatInvalidOperation: return "float invalid operation";
    case kFloatOverflow: return "float overflow";
    case kFloatUnderflow: return "float underflow";
    case kIntegerDivideByZero: return "integer divide by zero";
    case kIntegerOverflow: return "integer overflow";
    case kPrivilegedInstruction: return "privileged instruction";
    case kStackOverflow: return "stack overflow";
    case kDatatypeMisalignment: return "datatype misalignment";
    default: return "unknown exception";
  }
}

bool TakenByProtectedCall(uint32_t code) {
  switch (code) {
    case kAccessViolation:
    case kInPageError:
    case kIllegalInstruction:
    case kArrayBoundsExceeded:
    case kPrivilegedInstruction:
    case kStackOverflow:
    case kDatatypeMisalignment: return true;
    default: return false;
  }
}

const char *ThreadNameFor(uint64_t tid, char *buffer, size_t size) {
  MessageContext *messageContext = ContextIfAny();
  if (messageContext && messageContext->threadName[0]) return messageContext->threadName;
  ReportWriter(buffer, size).Dec(tid);
  return buffer;
}

namespace {

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void CivilFromDays(int64_t days, int64_t &year, unsigned &month, unsigned &day) {
  days += 719468;
  int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  unsigned mp = (5 * dayOfYear + 2) / 153;
  day = dayOfYear - (153 * mp + 2) / 5 + 1;
  month = mp < 10 ? mp + 3 : mp - 9;
  year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2);
}

const char *BaseName(const char *path) {
  const char *base = path;
  for (const char *p = path; *p; p++) {
#ifdef _WIN32
    if (*p == '\\') base = p + 1;
#endif
    if (*p == '/') base = p + 1;
  }
  return base;
}

struct FrameLine {
  ReportWriter *out;
  size_t index;
  bool shortForm;  // stack text: base names; the module only for a frame without a file
};

// "  #3  0x000055d0c2a01234 function+0x1c at /src/file.c:12 in /bin/program+0x1234"
void WriteFrame(void *data, const backtrace::Frame &frame) {
  auto *line = static_cast<FrameLine *>(data);
  ReportWriter &out = *line->out;
  out.Str("  #").Dec(line->index);
  if (line->index < 10) out.Char(' ');
  out.Char(' ').Hex(frame.pc, 16).Char(' ');
  if (frame.function) {
    out.Str(frame.function);
    if (!frame.inlined && frame.offset) out.Char('+').Hex(frame.offset);
  } else {
    out.Str("??");
  }
  if (frame.file) {
    out.Str(" at ")
        .Str(line->shortForm ? BaseName(frame.file) : frame.file)
        .Char(':')
        .Dec(static_cast<uint64_t>(frame.line < 0 ? 0 : frame.line));
  }
  if (frame.inlined) out.Str(" (inlined)");
  if (frame.module && !frame.inlined && !(line->shortForm && frame.file))
    out.Str(" in ").Str(line->shortForm ? BaseName(frame.module) : frame.module).Char('+').Hex(frame.moduleOffset);
  out.Char('\n');
}

}  // namespace

void WriteUtcTime(ReportWriter &out, uint64_t seconds) {
  int64_t year;
  unsigned month, day;
  CivilFromDays(static_cast<int64_t>(seconds / 86400), year, month, day);
  uint64_t rest = seconds % 86400;
  auto two = [&out](uint64_t value) {
    out.Char(static_cast<char>('0' + value / 10)).Char(static_cast<char>('0' + value % 10));
  };
  out.SignedDec(year).Char('/');
  two(month);
  out.Char('/');
  two(day);
  out.Char('-');
  two(rest / 3600);
  out.Char(':');
  two(rest / 60 % 60);
  out.Char(':');
  two(rest % 60);
  out.Str(" UTC");
}

bool MakeFileNames(CrashFiles &files, const char *directory, char separator, uint64_t pid) {
  size_t length = strlen(directory);
  if (length > kDirectoryMax) return false;
  memcpy(files.directory, directory, length + 1);
  files.pid = pid;
  ReportWriter(files.dump, sizeof files.dump).Str(directory).Char(separator).Str("CRASH-").Dec(pid).Str(".DMP");
  ReportWriter(files.log, sizeof files.log).Str(directory).Char(separator).Str("ERRORLOG-").Dec(pid).Str(".TXT");
  return true;
}

void WriteReportOpening(ReportWriter &out, const CrashRecord &crash, const char *executable) {
  const char *host = startup::HostNameIfKnown();
  const char *kernel = startup::KernelVersionIfKnown();
  out.Str("kzlib crash report\n\n");
  out.Str("Program:        ").Str(ProgramName()).Char('\n');
  out.Str("Executable:     ").Str(executable && *executable ? executable : "(unknown)").Char('\n');
  out.Str("Library:        kzlib ")
      .Dec(static_cast<uint64_t>(kzlib_major))
      .Char('.')
      .Dec(static_cast<uint64_t>(kzlib_minor))
      .Char('.')
      .Dec(static_cast<uint64_t>(kzlib_build));
  if (kzlib_branch) out.Char('.').Dec(static_cast<uint64_t>(kzlib_branch));
  out.Char(' ').Str(KZArchitecture()).Char('\n');
  out.Str("Host:           ").Str(host ? host : "(unknown)").Char('\n');
  out.Str("Kernel:         ").Str(kernel ? kernel : "(unknown)").Char('\n');
  out.Str("Process:        ").Dec(crash.pid).Char('\n');
  out.Str("Thread:         ").Dec(crash.tid).Str(" (").Str(crash.threadName).Str(")\n");
  out.Str("Time:           ");
  WriteUtcTime(out, crash.time);
  out.Char('\n');
}

void WriteReportException(ReportWriter &out, const CrashRecord &crash) {
  out.Str("Exception:      ").Hex(crash.code, 8, true).Char(' ').Str(CodeName(crash.code)).Char('\n');
  out.Str("Fault address:  ").Hex(crash.address, 16).Char('\n');
  out.Str("Protected call: ").Str(crash.isProtected ? "yes" : "no").Char('\n');
  out.Str("Flags:          ").Hex(crash.flags, 4).Char('\n');
}

void WriteReportBacktrace(ReportWriter &out, const CrashRecord &crash) {
  out.Str("\nBacktrace:\n");
  if (!(crash.flags & KZ_FLAG_CRASH_STACK)) {
    out.Str("  (not collected: nocrashstack)\n");
    return;
  }
  if (crash.frameCount == 0) {
    out.Str("  (no frames)\n");
    return;
  }
  for (size_t i = 0; i < crash.frameCount; i++) {
    out.Flush();  // what was written survives a fault in symbolisation
    FrameLine line{&out, i, false};
    backtrace::Symbolise(crash.frames[i], WriteFrame, &line);
  }
}

const char *WriteStackText(const CrashRecord &crash, char *text) {
  ReportWriter all(text, kStackTextMax);
  for (size_t i = 0; i < crash.frameCount; i++) {
    char frameBuffer[kStackTextMax];
    ReportWriter frame(frameBuffer, sizeof frameBuffer);
    FrameLine line{&frame, i, true};
    backtrace::Symbolise(crash.frames[i], WriteFrame, &line);
    // Whole lines only, except a first line too long for the text.
    if (all.Length() > 0 && all.Length() + frame.Length() >= kStackTextMax) break;
    all.Str(frameBuffer);
  }
  return text;
}

void WriteDefaultDispatch(ReportWriter &out, const CrashRecord &crash, uint64_t code, const char *stackText) {
  out.Str(ProgramName()).Str(": critical error ").Hex(code, 1, true).Str(" (").Str(CodeName(crash.code));
  out.Str(") in a protected call, thread ").Dec(crash.tid).Str(" (").Str(crash.threadName).Str(")\n");
  if (stackText && *stackText) out.Str(stackText);
}

}  // namespace kz::crash
