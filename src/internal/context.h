// The per-thread message context: pending message location, error records,
// thread name, reference time and state text. Created on first use, destroyed
// when the thread ends.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "kz/array.h"
#include "kz/error.h"
#include "kz/message.h"

// Locations in assertion and error reports, such as "kzlib/kzthread:1370", are
// fixed identifiers that programs and their log scanners match on. They are
// not lines of our files and never move when the code does.
//
// KZ_CHECK(condition, text, file, line) reports a failed condition as an
// assertion with its fixed text and location (raw write, abort hook, abort).
// The condition is written once, the way it must hold; the text is the one
// programs have always seen, so it is spelled out rather than derived.
#define KZ_CHECK(condition, text, file, line) \
  do {                                        \
    if (!(condition)) [[unlikely]]            \
      kzassert_(text, file, line);            \
  } while (0)

namespace kz {

// Puts errno and the platform's last error back on leaving a scope, for work
// done on the side of a call (creating a context, cleaning up a thread,
// gathering entropy, a one-time static whose guard may wait on a futex and
// leave EAGAIN) that must not change what the caller's error state says.
class ErrorStateKept {
 public:
  ErrorStateKept() : errno_(errno), lastError_(KZGetLastError()) {}
  ~ErrorStateKept() {
    KZSetLastError(lastError_);
    errno = errno_;
  }
  ErrorStateKept(const ErrorStateKept &) = delete;
  ErrorStateKept &operator=(const ErrorStateKept &) = delete;

 private:
  int errno_;
  int lastError_;
};

struct ErrorStackEntry {
  const char *file;
  uint32_t line;
  const char *module;
  const char *function;
  uint32_t length;  // length of this level's own text
};

struct ErrorContext {
  const char *file;
  uint32_t line;
  const char *module;
  const char *function;
  uint64_t code;
  char message[KZ_ERROR_MESSAGE_MAX];
  ErrorStackEntry stack[KZ_ERROR_STACK_MAX];
  uint64_t stackCount;
  ErrorContext *next;
};

struct MessageContext {
  ErrorContext *error;     // current record or null
  ErrorContext *saved;     // saved stack, latest first
  ErrorContext *freeList;  // records kept for reuse
  const char *file;        // pending location
  uint32_t line;
  int32_t level;
  uint32_t withError;
  char buffer[KZ_ERROR_MESSAGE_MAX];
  char threadName[256];
  uint64_t userWord;
  void *userPointer;
  uint64_t refTime;
  const char *module;
  const char *function;
  UByteArray state;
  const char *inputName;
  uint32_t inputLine;
  uint64_t inputExtra;
  int64_t last;
  uint64_t flag;
};

// The calling thread's context, created when missing. errno and the platform's
// last error are preserved across the look-up.
MessageContext *Context();
// The calling thread's context, or null when it has none yet.
MessageContext *ContextIfAny();
// Destroys the calling thread's context (end of a thread).
void ContextDestroy();

// Process-wide defaults copied into every new context.
extern std::atomic<uint64_t> g_defaultUserWord;
extern std::atomic<void *> g_defaultUserPointer;

// The part of a path after its last '/' or '\\'.
const char *BaseName(const char *path);

// The program name used in message lines ("kzlib" until set), guarded by the
// global lock for writers; readers see a whole NUL-terminated string.
const char *ProgramName();
void SetProgramName(const char *baseName);

// The flag word: crash and diagnostic switches; bit 0x200 is the assertion
// verbosity.
extern std::atomic<uint32_t> g_flagWord;

// The descriptor of the error message stream (2 when the stream has none):
// where raw, allocation-free reports are written.
int ErrorStreamFd();

// The lock that keeps message lines whole; the daemon's log rotation holds it
// while the streams are exchanged.
class LazyLock;
LazyLock &MessageLock();

// The abort hook, if set (called before abort or exit on fatal paths).
void CallAbortHook(const char *text, const char *file, uint32_t line);

// Records the pending errno / platform error in the current record if errno is
// not -2 (KZErrorMessage's first step). Returns the current record.
ErrorContext *RecordPendingError(MessageContext *context);

}  // namespace kz

// Library-internal throw with an explicit library location.
#define KZ_THROW_AT(file, line, function, code, ...) \
  (KZSetMessageContext2_((file), (line), "kzlib", (function), 4, 0), KZErrorThrow_((code), __VA_ARGS__))
// Library-internal message with an explicit library location.
#define KZ_MESSAGE_AT(file, line, function, level, withError, ...) \
  (KZSetMessageContext2_((file), (line), "kzlib", (function), (level), (withError)), KZMessage_(__VA_ARGS__))
