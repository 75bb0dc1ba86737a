// Stack capture and symbolisation for crash reports (src/posix/backtrace.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

namespace kz::backtrace {

// Prepares stack capture and symbolisation; later captures are
// async-signal-safe. Safe to call more than once.
void Init();

// Program counters of the calling thread's stack, innermost first, after
// skipping `skip` frames of the caller. Return addresses are reported minus
// one (inside the call instruction), a frame interrupted by a signal exactly.
size_t Capture(uintptr_t *pcs, size_t max, size_t skip);

struct Frame {
  uintptr_t pc;
  const char *function;  // null when unknown
  uintptr_t offset;      // pc minus the function's start (0 when unknown)
  const char *file;      // null when there is no debug information
  int line;
  const char *module;  // the executable or shared object, null when unknown
  uintptr_t moduleOffset;
  bool inlined;  // inlined into the frame reported next for this pc
};
using FrameCallback = void (*)(void *data, const Frame &frame);

// Calls back once per function at pc (inlined calls first, innermost first).
// Usable from a crash handler after Init.
void Symbolise(uintptr_t pc, FrameCallback callback, void *data);

}  // namespace kz::backtrace
