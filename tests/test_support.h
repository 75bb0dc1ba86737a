// Helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#if defined(_WIN32)
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <condition_variable>
#include <mutex>
#include <string>

#include "kz/array.h"
#include "kz/message.h"

// Out-of-memory paths are exercised with impossible sizes; the sanitizers'
// allocator must answer null like the C library does instead of stopping.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

namespace kztest {

// std::latch on a mutex and a condition variable. The C++ library's latch and
// atomic waits (GCC 12) lose wake-ups on Windows, where they have no futex
// (under Wine: lock and thread tests hung in a latch, a few runs in a hundred).
class Latch {
 public:
  explicit Latch(std::ptrdiff_t count) : count_(count) {}
  void count_down(std::ptrdiff_t n = 1) {
    std::lock_guard<std::mutex> hold(mutex_);
    if ((count_ -= n) <= 0) opened_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> hold(mutex_);
    opened_.wait(hold, [&] { return count_ <= 0; });
  }
  void arrive_and_wait() { count_down(), wait(); }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  std::ptrdiff_t count_;
};

// One or more digits in a death test's regular expression: GoogleTest's
// simple expressions on Windows have no brackets.
#if defined(_WIN32)
#define KZ_RE_DIGITS "\\d+"
#else
#define KZ_RE_DIGITS "[0-9]+"
#endif

// The text the C runtime gives an errno value.
inline std::string ErrnoText(int value) { return strerror(value); }

// The system's own text for a system error, as the library gives it: the
// message table's on Windows (trailing line break dropped), strerror's on POSIX.
inline std::string SystemErrorText(int code) {
#if defined(_WIN32)
  char text[512] = "";
  DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                static_cast<DWORD>(code), 0, text, sizeof text, nullptr);
  while (length > 0 && (text[length - 1] == '\r' || text[length - 1] == '\n' || text[length - 1] == ' ')) length--;
  return std::string(text, length);
#else
  return strerror(code);
#endif
}

// The null device's name.
#if defined(_WIN32)
inline constexpr const char *kNullDevice = "NUL";
#else
inline constexpr const char *kNullDevice = "/dev/null";
#endif

// An array record (UByteArray, UShortArray, ...) that frees its storage at the
// end of the scope. It converts to a pointer to the record, so `&out` passes
// straight to the library.
template <typename Record>
struct Scoped : Record {
  Scoped() : Record{} {}
  ~Scoped() { ArrayFree_(static_cast<Record *>(this)); }
  Scoped(const Scoped &) = delete;
  Scoped &operator=(const Scoped &) = delete;
};

// The bytes of a byte array as a string.
inline std::string Bytes(const UByteArray &a) {
  return std::string(reinterpret_cast<const char *>(a.elements), a.count);
}

// A real FILE installed as one of the library's message streams; the text
// written to it is read back with Text(). Restores the default on exit.
class CapturedStream {
 public:
  explicit CapturedStream(int which) : which_(which), file_(tmpfile()) {
    previous_ = KZGetMessageStream(which);
    KZSetMessageStream(which, file_);
  }
  ~CapturedStream() {
    KZSetMessageStream(which_, nullptr);
    fclose(file_);
  }
  std::string Text() {
    fflush(file_);
    std::string text;
    rewind(file_);
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file_)) > 0) text.append(chunk, got);
    fseek(file_, 0, SEEK_END);
    return text;
  }
  FILE *file() const { return file_; }

 private:
  int which_;
  FILE *file_;
  FILE *previous_;
};

// A unique temporary path, removed at the end of the scope.
class TempPath {
 public:
  explicit TempPath(const std::string &stem) {
    const char *dir = getenv("TMPDIR");
    path_ = std::string(dir && *dir ? dir : "/tmp") + "/kztest-" + stem + "-" + std::to_string(getpid());
  }
  ~TempPath() { unlink(path_.c_str()); }
  const std::string &str() const { return path_; }
  const char *c_str() const { return path_.c_str(); }

 private:
  std::string path_;
};

// An abort hook that shows its arguments on stderr as "hook<text|file|line>",
// where death tests can match them.
inline void AbortHookToStderr(const char *text, const char *file, uint32_t line) {
  fprintf(stderr, "hook<%s|%s|%u>", text, file, line);
  fflush(stderr);
}

// Death-test predicate: the process called abort() (SIGABRT on POSIX, exit
// status 3 on Windows).
inline bool Aborted(int status) {
#if defined(_WIN32)
  return status == 3;
#else
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
#endif
}

// A statement that must end the process with a fatal text: exit status
// exitCode, or abort() when exitCode is 0 (exit status 3 on Windows).
struct FatalCase {
  void (*run)();
  int exitCode;
  const char *text;
};

inline void ExpectFatal(const FatalCase &c) {
  auto ended = [&](int status) {
#if defined(_WIN32)
    return status == (c.exitCode ? c.exitCode : 3);
#else
    return c.exitCode ? WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode
                      : WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
#endif
  };
  EXPECT_EXIT(c.run(), ended, c.text) << "expected: " << c.text;
}

}  // namespace kztest
