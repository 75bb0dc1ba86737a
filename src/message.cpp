// Messages, the per-thread message context, assertions and process hooks.
#include "kz/message.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include <atomic>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/format.h"
#include "internal/lazy_lock.h"
#include "internal/os/message.h"
#include "internal/os/thread.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/memory.h"

namespace kz {

std::atomic<uint64_t> g_defaultUserWord{0};
std::atomic<void *> g_defaultUserPointer{nullptr};
std::atomic<uint32_t> g_flagWord{0x3F00};

namespace {

// Settings are plain process-wide values meant to be set during start-up;
// atomics keep concurrent readers well defined without ordering costs.
std::atomic<KZMessageHandler> g_handler{nullptr};
std::atomic<FILE *> g_outputStream{nullptr};
std::atomic<FILE *> g_errorStream{nullptr};
std::atomic<bool> g_logPid{false};
std::atomic<KZAbortHook> g_abortHook{nullptr};
std::atomic<KZExitFunction> g_exitFunction{nullptr};

char g_programName[261] = "kzlib";

// The thread-local slot whose destructor frees the context of a thread that
// ends without the library's end-of-thread steps; installed once, by the first
// thread that needs it (a loser of the race deletes its own slot).
constexpr uint32_t kNoKey = ~0u;
std::atomic<uint32_t> g_contextKey{kNoKey};
thread_local MessageContext *t_context = nullptr;

[[noreturn]] void OutOfMemory(const char *text, uint32_t line) {
  perror(text);
  CallAbortHook(text, "kzlib/kzlib", line);
  abort();
}

void DestroyContext(MessageContext *context) {
  if (context->error) KZ_CHECK(context->error->next == nullptr, "context->error->next == NULL", "kzlib/kzlib", 1292);
  free(context->error);
  for (ErrorContext *record = context->saved; record;) {
    ErrorContext *next = record->next;
    free(record);
    record = next;
  }
  for (ErrorContext *record = context->freeList; record;) {
    ErrorContext *next = record->next;
    free(record);
    record = next;
  }
  ArrayFree_(&context->state);
  free(context);
}

// Safety net for threads that end without the library's end-of-thread steps.
void ContextKeyDestructor(void *value) {
  auto *context = static_cast<MessageContext *>(value);
  if (t_context == context) t_context = nullptr;
  DestroyContext(context);
}

uint32_t ContextKey() {
  uint32_t key = g_contextKey.load(std::memory_order_acquire);
  if (key != kNoKey) return key;
  uint32_t created;
  if (os::ThreadKeyCreate(&created, ContextKeyDestructor) != 0) {
    // Without the slot no thread can keep its context: nothing can work.
    perror("MessageContextNew: cannot create the thread context slot");
    CallAbortHook("MessageContextNew: cannot create the thread context slot", "kzlib/kzlib", 1258);
    abort();
  }
  if (g_contextKey.compare_exchange_strong(key, created, std::memory_order_acq_rel)) return created;
  os::ThreadKeyDelete(created);
  return key;
}

MessageContext *NewContext() {
  auto *context = static_cast<MessageContext *>(calloc(1, sizeof(MessageContext)));
  if (!context) OutOfMemory("MessageContextNew: out of memory", 1258);
  snprintf(context->threadName, sizeof context->threadName, "%llu", static_cast<unsigned long long>(os::ThreadId()));
  context->userWord = g_defaultUserWord.load(std::memory_order_relaxed);
  context->userPointer = g_defaultUserPointer.load(std::memory_order_relaxed);
  context->refTime = os::MonotonicMillis();
  context->last = -1;
  return context;
}

FILE *OutputStream() {
  FILE *stream = g_outputStream.load(std::memory_order_relaxed);
  return stream ? stream : stdout;
}

FILE *ErrorStream() {
  FILE *stream = g_errorStream.load(std::memory_order_relaxed);
  return stream ? stream : stderr;
}

}  // namespace

LazyLock &MessageLock() {
  constinit static LazyLock lock;
  return lock;
}

namespace {

// The message text through the library's formatter; one longer than the
// stack buffer is left to trio's stream writer.
void WriteFormatted(FILE *stream, const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  char text[1024];
  const int n = FormatV(text, sizeof text, format, args);
  if (n >= 0 && static_cast<size_t>(n) < sizeof text)
    fwrite(text, 1, static_cast<size_t>(n), stream);
  else if (n >= 0)
    trio_vfprintf(stream, format, again);
  va_end(again);
}

void DefaultHandler(const char *file, uint32_t line, int level, uint32_t withError, const char *format, va_list args) {
  const char *errorText = nullptr;
  if (withError) errorText = KZErrorMessage();
  LazyLockGuard hold(MessageLock());
  FILE *stream = level < 3 ? OutputStream() : ErrorStream();
  if (level >= 2) {
    os::LocalTime now = os::Now();
    trio_fprintf(stream, "[%04u/%02u/%02u-%02u:%02u:%02u] ", now.year, now.month, now.day, now.hour, now.minute,
                 now.second);
  }
  if (level >= 3) {
    trio_fprintf(stream, "%s: ", ProgramName());
    if (format[0] == ':')
      format++;
    else
      trio_fprintf(stream, "\"%s:%d\": ", BaseName(file ? file : ""), static_cast<int>(line));
  }
  if (g_logPid.load(std::memory_order_relaxed))
    trio_fprintf(stream, "[%I64u] ", static_cast<unsigned long long>(os::ProcessId()));
  WriteFormatted(stream, format, args);
  if (withError) trio_fprintf(stream, ": %s", errorText ? errorText : "");
  fputs("\r\n", stream);
  fflush(stream);
}

}  // namespace

MessageContext *ContextIfAny() { return t_context; }

MessageContext *Context() {
  // Kept from before the first touch of the thread-local, whose creation may
  // change the last error (the C runtime's emulated thread-locals on Windows).
  const ErrorStateKept kept;
  if (t_context) return t_context;
  uint32_t key = ContextKey();
  MessageContext *context = NewContext();
  os::ThreadKeySet(key, context);
  t_context = context;
  return context;
}

void ContextDestroy() {
  MessageContext *context = t_context;
  if (!context) return;
  t_context = nullptr;
  uint32_t key = g_contextKey.load(std::memory_order_acquire);
  if (key != kNoKey) os::ThreadKeySet(key, nullptr);
  DestroyContext(context);
}

const char *BaseName(const char *path) {
  const char *base = path;
  for (const char *p = path; *p; p++)
    if (*p == '/' || *p == '\\') base = p + 1;
  return base;
}

const char *ProgramName() { return g_programName; }

void SetProgramName(const char *baseName) {
  LazyLockGuard hold(GlobalLock());
  snprintf(g_programName, sizeof g_programName, "%s", baseName);
}

int ErrorStreamFd() {
  FILE *stream = KZGetMessageStream(1);
  int fd = stream ? fileno(stream) : -1;
  return fd >= 0 ? fd : 2;
}

void CallAbortHook(const char *text, const char *file, uint32_t line) {
  KZAbortHook hook = g_abortHook.load(std::memory_order_relaxed);
  if (hook) hook(text, file, line);
}

}  // namespace kz

using namespace kz;

extern "C" {

KZ_API void KZSetMessageContext2_(const char *file, uint32_t line, const char *module, const char *function, int level,
                                  uint32_t withError) {
  MessageContext *context = Context();
  context->file = file;
  context->line = line;
  context->module = module;
  context->function = function;
  context->level = level;
  context->withError = withError;
}

KZ_API void KZSetMessageContext_(const char *file, uint32_t line, int level, uint32_t withError) {
  KZSetMessageContext2_(file, line, nullptr, nullptr, level, withError);
}

KZ_API void KZVMessage_(const char *format, va_list args) {
  MessageContext *context = Context();
  int level = context->level;
  KZMessageHandler handler = g_handler.load(std::memory_order_relaxed);
  if (!handler) handler = DefaultHandler;
  handler(context->file, context->line, level, context->withError, format, args);
  if (level < 4) return;
  KZErrorPrintStack();
  fputc('\n', stderr);
  fflush(stderr);
  CallAbortHook("message handler", "kzlib/kzlib", 1898);
  if (level == 4) exit(1);
  abort();
}

KZ_API void KZMessage_(const char *format, ...) {
  va_list args;
  va_start(args, format);
  KZVMessage_(format, args);
  va_end(args);
}

KZ_API KZMessageHandler KZSetMessageHandler(KZMessageHandler handler) {
  g_handler.store(handler, std::memory_order_relaxed);
  return handler ? handler : DefaultHandler;
}

KZ_API KZMessageHandler KZGetMessageHandler(void) {
  KZMessageHandler handler = g_handler.load(std::memory_order_relaxed);
  return handler ? handler : DefaultHandler;
}

KZ_API void KZSetMessageStream(int which, FILE *stream) {
  (which == 0 ? g_outputStream : g_errorStream).store(stream, std::memory_order_relaxed);
}

KZ_API FILE *KZGetMessageStream(int which) { return which == 0 ? OutputStream() : ErrorStream(); }

KZ_API void KZEnableLogPID(void) { g_logPid.store(true, std::memory_order_relaxed); }

KZ_API intptr_t KZState_(const char *format, ...) {
  MessageContext *context = Context();
  context->state.count = 0;
  if (!format) {
    if (context->state.elements) context->state.elements[0] = '\0';
    context->inputExtra = 0;
    return reinterpret_cast<intptr_t>(context->state.elements);
  }
  va_list args;
  va_start(args, format);
  int result = UByteArrayVprintf(&context->state, format, args);
  va_end(args);
  return result;
}

KZ_API void KZSetMessageState_(void) {}
KZ_API void KZSetMessageState2_(void) {}
KZ_API const char *KZGetState(void) { return nullptr; }

KZ_API void kzassert_(const char *expression, const char *file, uint32_t line) {
  // No heap: this path must work when memory is exhausted.
  char text[256];
  snprintf(text, sizeof text, "'%s' failed at %s:%u\n", expression, file, line);
  os::WriteRaw(ErrorStreamFd(), text, strlen(text));
  CallAbortHook(expression, file, line);
  abort();
}

KZ_API void KZSetAbort(KZAbortHook hook) { g_abortHook.store(hook, std::memory_order_relaxed); }

KZ_API void KZSetExit(KZExitFunction function) { g_exitFunction.store(function, std::memory_order_relaxed); }

KZ_API void KZExit(int status, intptr_t a, intptr_t b, intptr_t c) {
  KZExitFunction function = g_exitFunction.load(std::memory_order_relaxed);
  if (function)
    function(status, a, b, c);
  else
    exit(status);
}

KZ_API void KZAssertSetVerbosity(int flag) {
  if (flag)
    g_flagWord.fetch_or(0x3F00, std::memory_order_relaxed);
  else
    g_flagWord.fetch_and(~0x1E00u, std::memory_order_relaxed);
}

KZ_API int KZAssertGetVerbosity(void) { return (g_flagWord.load(std::memory_order_relaxed) & 0x200) ? 1 : 0; }

KZ_API int KZSetProcessTitle(const char *title) {
  KZ_THROW_AT("kzlib/kzlib", 2263, "KZSetProcessTitle", KZ_ERROR_CODE(2, 6), "not supported");
  return 0;
}

KZ_API int KZSetProcessName(const char *name) {
  UByteArray title = {nullptr, 0, 0};
  if (name && *name)
    UByteArrayPrintf(&title, "%s: %s", ProgramName(), name);
  else
    UByteArrayPrintf(&title, "%s", ProgramName());
  int result = KZSetProcessTitle(reinterpret_cast<const char *>(title.elements));
  ArrayFree_(&title);
  return result;
}

KZ_API int KZFormatProcessName(const char *format, ...) {
  UByteArray name = {nullptr, 0, 0};
  va_list args;
  va_start(args, format);
  UByteArrayVprintf(&name, format, args);
  va_end(args);
  int result = KZSetProcessName(name.elements ? reinterpret_cast<const char *>(name.elements) : "");
  ArrayFree_(&name);
  return result;
}

}  // extern "C"
