// Helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "kz/message.h"

// Out-of-memory paths are exercised with impossible sizes; the sanitizers'
// allocator must answer null like the C library does instead of stopping.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

namespace kztest {

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

}  // namespace kztest
