// The per-thread error record: throw, rethrow, stack, save and restore.
#include "kz/error.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include "internal/context.h"
#include "internal/format.h"
#include "internal/os/crash.h"
#include "internal/os/error.h"

namespace kz {
namespace {

[[noreturn]] void RecordOutOfMemory() {
  perror("ErrorContextNew: out of memory");
  CallAbortHook("ErrorContextNew: out of memory", "kzlib/kzlib", 1236);
  abort();
}

// The current record, else a reset one from the free list, else a new one.
ErrorContext *TakeRecord(MessageContext *context) {
  if (context->error) return context->error;
  ErrorContext *record = context->freeList;
  if (record) {
    context->freeList = record->next;
    record->file = nullptr;
    record->line = 0;
    record->module = nullptr;
    record->function = nullptr;
    record->code = 0;
    record->message[0] = '\0';
    record->stackCount = 0;
  } else {
    record = static_cast<ErrorContext *>(calloc(1, sizeof(ErrorContext)));
    if (!record) RecordOutOfMemory();
  }
  record->next = nullptr;
  context->error = record;
  return record;
}

// Module text handed to stack callbacks: the entry's module, the program name
// for an empty one, "" for none.
const char *ModuleText(const char *module) {
  if (!module) return "";
  return *module ? module : ProgramName();
}

// Drops everything up to and including a path component named "svn".
const char *ShortenPath(const char *file) {
  if (!file) return "";
  const char *result = file;
  const char *componentStart = file;
  for (const char *p = file;; p++) {
    if (*p == '/' || *p == '\\' || *p == '\0') {
      if (p - componentStart == 3 && strncmp(componentStart, "svn", 3) == 0 && *p) result = p + 1;
      if (*p == '\0') break;
      componentStart = p + 1;
    }
  }
  return result;
}

void PrintLevel(void *argument, const char *text, const char *module, const char *function, const char *file,
                uint32_t line) {
  int *levelIndex = static_cast<int *>(argument);
  FILE *stream = KZGetMessageStream(1);
  trio_fprintf(stream, "\t%sat %s%s%s(%s:%u): %s\n", *levelIndex == 0 ? "Thrown " : "", module, *module ? "." : "",
               function, file, line, text);
  ++*levelIndex;
}

}  // namespace

ErrorContext *RecordPendingError(MessageContext *context) {
  int current = errno;
  if (current == -2 && context->error) return context->error;
  ErrorContext *record = TakeRecord(context);
  if (current != -2 && current != -3) {
    // A record made from errno describes only that error: no stack, no location.
    record->file = nullptr;
    record->line = 0;
    record->module = nullptr;
    record->function = nullptr;
    record->stackCount = 0;
  }
  if (current == -2 || current == -3) {
    // Marked as recorded but the record is gone: nothing to describe.
    if (record->message[0] == '\0' && record->code == 0)
      snprintf(record->message, sizeof record->message, "No error (or lost error number)");
  } else if (current == -1) {
    int system = KZGetLastError();
    if (!os::SystemErrorText(system, record->message, sizeof record->message))
      snprintf(record->message, sizeof record->message, os::kUnknownSystemErrorFormat, system);
    record->code = KZ_ERROR_CODE(1, static_cast<uint32_t>(system));
  } else if (current > 0) {
    if (!os::RuntimeErrorText(current, record->message, sizeof record->message))
      snprintf(record->message, sizeof record->message, "(errno=%d)", current);
    record->code = KZ_ERROR_CODE(0, static_cast<uint32_t>(current));
  } else {
    snprintf(record->message, sizeof record->message, "No error (or lost error number)");
    record->code = 0;
  }
  errno = -2;
  return record;
}

}  // namespace kz

using namespace kz;

extern "C" {

KZ_API int KZGetLastError(void) { return os::LastSystemError(); }
KZ_API void KZSetLastError(int error) { os::SetLastSystemError(error); }

KZ_API int *KZErrorVThrow_(uint64_t code, const char *format, va_list args) {
  MessageContext *context = ContextIfAny();
  KZ_CHECK(context, "! create", "kzlib/kzlib", 1370);
  ErrorContext *record = TakeRecord(context);
  record->file = context->file;
  record->line = context->line;
  record->module = context->module;
  record->function = context->function;
  record->code = code;
  FormatV(context->buffer, sizeof context->buffer, format, args);
  memcpy(record->message, context->buffer, sizeof record->message);
  record->message[sizeof record->message - 1] = '\0';
  record->stackCount = 1;
  record->stack[0] = ErrorStackEntry{context->file, context->line, context->module, context->function,
                                     static_cast<uint32_t>(strlen(record->message))};
  errno = -2;
  return &errno;
}

KZ_API int *KZErrorThrow_(uint64_t code, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int *result = KZErrorVThrow_(code, format, args);
  va_end(args);
  return result;
}

KZ_API int *KZErrorVRethrow_(const char *format, va_list args) {
  MessageContext *context = ContextIfAny();
  KZ_CHECK(context, "! create", "kzlib/kzlib", 1370);
  ErrorContext *record = RecordPendingError(context);
  KZ_CHECK(record != nullptr, "err != NULL", "kzlib/kzlib", 1515);
  record->file = context->file;
  record->line = context->line;
  record->module = context->module;
  record->function = context->function;
  char *buffer = context->buffer;
  constexpr size_t size = sizeof context->buffer;
  int formatted = FormatV(buffer, size, format, args);
  size_t n = formatted < 0 ? 0 : strlen(buffer);
  if (n < size) trio_snprintf(buffer + n, size - n, ": %s", record->message);
  memcpy(record->message, buffer, sizeof record->message);
  record->message[sizeof record->message - 1] = '\0';
  if (record->stackCount < KZ_ERROR_STACK_MAX) {
    record->stack[record->stackCount++] =
        ErrorStackEntry{context->file, context->line, context->module, context->function, static_cast<uint32_t>(n)};
  }
  errno = -2;
  return &errno;
}

KZ_API int *KZErrorRethrow_(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int *result = KZErrorVRethrow_(format, args);
  va_end(args);
  return result;
}

KZ_API void KZErrorThrowInputError_(const char *inputName, uint32_t inputLine, int32_t status) {
  if (status >= 0) {
    errno = 0;
    return;
  }
  MessageContext *context = Context();
  context->inputName = inputName;
  context->inputLine = inputLine;
  switch (status) {
    case -1: KZErrorThrow_(KZ_ERR_EOF, "read eof"); break;
    case -2:
      if (errno == 0)
        KZErrorThrow_(KZ_ERR_GENERAL, "read error");
      else
        KZErrorRethrow_("read error");
      break;
    case -3: KZErrorThrow_(KZ_ERR_TIMEOUT, "read timeout"); break;
    case -4: KZErrorThrow_(KZ_ERR_PROTOCOL, "read protocol error"); break;
    case -5: KZErrorThrow_(KZ_ERR_GENERAL, "read truncated"); break;
    default: KZErrorThrow_(KZ_ERR_GENERAL, "unknown i/o error"); break;
  }
}

KZ_API uint64_t KZErrorCode(void) {
  int current = errno;
  if (current != -2 && current != -3) {
    if (current == -1) return KZ_ERROR_CODE(1, static_cast<uint32_t>(KZGetLastError()));
    return static_cast<uint64_t>(static_cast<int64_t>(current));
  }
  MessageContext *context = ContextIfAny();
  if (!context || !context->error) return 0;
  return context->error->code;
}

KZ_API int KZErrorGetErrno(void) { return errno == -1 ? os::ErrnoFromSystemError(KZGetLastError()) : errno; }

KZ_API const char *KZErrorMessage(void) { return RecordPendingError(Context())->message; }

KZ_API int KZErrorEnumerateStack(KZErrorStackCallback callback, void *argument) {
  if (KZErrorCode() == 0) return 0;
  MessageContext *context = Context();
  ErrorContext *record = RecordPendingError(context);
  if (record->stackCount == 0) return 0;
  size_t length = strlen(record->message);
  KZErrorSave();  // the callback may raise errors of its own
  size_t consumed = 0;
  for (uint64_t i = 0; i < record->stackCount; i++) {
    const ErrorStackEntry &entry = record->stack[i];
    if (length < entry.length + consumed) break;
    char *text = record->message + (length - consumed - entry.length);
    char *after = text + entry.length;
    if (*after != ':' && *after != '\0') break;
    char kept = *after;
    *after = '\0';
    callback(argument, text, ModuleText(entry.module), entry.function ? entry.function : "", ShortenPath(entry.file),
             entry.line);
    *after = kept;
    consumed += entry.length + 2;
  }
  KZErrorRestore();
  return 1;
}

KZ_API void KZErrorPrintStack(void) {
  int levelIndex = 0;
  KZErrorEnumerateStack(PrintLevel, &levelIndex);
  fflush(KZGetMessageStream(1));
  fputc('\n', stderr);
  fflush(stderr);
}

KZ_API const char *KZErrorLocation(uint32_t *line) {
  MessageContext *context = ContextIfAny();
  if (!context || !context->error || !context->error->file) {
    if (line) *line = 0;
    return "(no file)";
  }
  if (line) *line = context->error->line;
  const char *file = context->error->file;
  const char *marker = strstr(file, "/kz/src/");
  return marker ? marker + strlen("/kz/src/") : file;
}

KZ_API void *KZErrorSave(void) {
  MessageContext *context = Context();
  ErrorContext *record = RecordPendingError(context);
  KZ_CHECK(record != nullptr, "err != NULL", "kzlib/kzlib", 1515);
  record->next = context->saved;
  context->saved = record;
  context->error = nullptr;
  return record;
}

KZ_API void KZErrorRestore(void) {
  MessageContext *context = ContextIfAny();
  KZ_CHECK(context != nullptr && context->saved != nullptr, "context != NULL && context->saved != NULL", "kzlib/kzlib",
           1619);
  if (context->error) {
    context->error->next = context->freeList;
    context->freeList = context->error;
  }
  ErrorContext *restored = context->saved;
  context->saved = restored->next;
  restored->next = nullptr;
  context->error = restored;
  errno = -2;
}

KZ_API void KZErrorClear(void) { errno = 0; }

KZ_API int64_t KZRunProtected_(KZProtectedFunction function, void *argument, KZCrashReport report) {
  // A crash inside is reported and aborts the process (src/posix/crash.cpp).
  return crash::RunProtected(function, argument, report);
}

}  // extern "C"
