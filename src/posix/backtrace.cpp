// Stack capture and symbolisation for crash reports.
//
// With libbacktrace (shipped with GCC's support libraries) frames are named
// from the symbol tables and, where debug information exists, given their
// source file and line, inlined calls included; it reads everything through
// mmap and plain system calls, so it may run inside a crash handler. Without
// it, frames carry the dynamic symbol (dladdr) and module offset only.
#include <dlfcn.h>
#include <pthread.h>
#include <unwind.h>

#include <atomic>
#include <cstring>

#include "internal/os/backtrace.h"

#if defined(KZ_HAVE_LIBBACKTRACE)
// libbacktrace's interface (its header lives among the compiler's own headers,
// which are not on every compiler's include path).
extern "C" {
struct backtrace_state;
typedef void (*backtrace_error_callback)(void *data, const char *message, int errnum);
typedef int (*backtrace_full_callback)(void *data, uintptr_t pc, const char *filename, int lineno,
                                       const char *function);
typedef void (*backtrace_syminfo_callback)(void *data, uintptr_t pc, const char *symname, uintptr_t symval,
                                           uintptr_t symsize);
struct backtrace_state *backtrace_create_state(const char *filename, int threaded,
                                               backtrace_error_callback error_callback, void *data);
int backtrace_pcinfo(struct backtrace_state *state, uintptr_t pc, backtrace_full_callback callback,
                     backtrace_error_callback error_callback, void *data);
int backtrace_syminfo(struct backtrace_state *state, uintptr_t addr, backtrace_syminfo_callback callback,
                      backtrace_error_callback error_callback, void *data);
}
#endif

namespace kz::backtrace {
namespace {

// Frames below are named as the code that captures them sees them.
struct Collector {
  uintptr_t *pcs;
  size_t max;
  size_t count;
  size_t skip;
};

// The unwinder of the C++ runtime; it understands the signal trampoline, so a
// capture taken in a crash handler continues into the interrupted code.
_Unwind_Reason_Code CollectFrame(struct _Unwind_Context *context, void *argument) {
  auto *collector = static_cast<Collector *>(argument);
  int beforeInstruction = 0;
  uintptr_t pc = _Unwind_GetIPInfo(context, &beforeInstruction);
  if (pc == 0) return _URC_END_OF_STACK;
  if (!beforeInstruction) pc--;  // a return address: point into the call
  if (collector->skip > 0) {
    collector->skip--;
    return _URC_NO_REASON;
  }
  if (collector->count >= collector->max) return _URC_END_OF_STACK;
  collector->pcs[collector->count++] = pc;
  return _URC_NO_REASON;
}

void ModuleOf(uintptr_t pc, Frame &frame) {
  Dl_info info;
  if (dladdr(reinterpret_cast<void *>(pc), &info) == 0) return;
  frame.module = info.dli_fname;
  frame.moduleOffset = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
  if (!frame.function && info.dli_sname && info.dli_saddr) {
    frame.function = info.dli_sname;
    frame.offset = pc - reinterpret_cast<uintptr_t>(info.dli_saddr);
  }
}

pthread_once_t g_once = PTHREAD_ONCE_INIT;

#if defined(KZ_HAVE_LIBBACKTRACE)

std::atomic<backtrace_state *> g_state{nullptr};

void IgnoreError(void *, const char *, int) {}

struct Symbol {
  const char *name;
  uintptr_t value;
};

void OnSymbol(void *data, uintptr_t, const char *name, uintptr_t value, uintptr_t) {
  auto *symbol = static_cast<Symbol *>(data);
  symbol->name = name;
  symbol->value = value;
}

// Inlined calls at one pc, innermost first; the last entry is the function
// the code belongs to.
struct Lines {
  static constexpr int kMax = 16;
  struct Entry {
    const char *function;
    const char *file;
    int line;
  } entries[kMax];
  int count;
};

int OnLine(void *data, uintptr_t, const char *file, int line, const char *function) {
  auto *lines = static_cast<Lines *>(data);
  if (!file && !function) return 0;
  if (lines->count >= Lines::kMax) return 1;
  lines->entries[lines->count++] = {function, file, line};
  return 0;
}

#endif

void InitOnce() {
#if defined(KZ_HAVE_LIBBACKTRACE)
  g_state.store(backtrace_create_state(nullptr, 1, IgnoreError, nullptr), std::memory_order_release);
#endif
  // Binds the unwinder's entry points and lets it cache the loaded objects
  // now, outside any signal handler.
  uintptr_t pcs[4];
  Capture(pcs, 4, 0);
  Dl_info info;
  dladdr(reinterpret_cast<void *>(&InitOnce), &info);
}

}  // namespace

void Init() { pthread_once(&g_once, InitOnce); }

size_t Capture(uintptr_t *pcs, size_t max, size_t skip) {
  Collector collector{pcs, max, 0, skip + 1};  // + this function
  _Unwind_Backtrace(CollectFrame, &collector);
  return collector.count;
}

void Symbolise(uintptr_t pc, FrameCallback callback, void *data) {
  Frame frame{};
  frame.pc = pc;
#if defined(KZ_HAVE_LIBBACKTRACE)
  backtrace_state *state = g_state.load(std::memory_order_acquire);
  if (state) {
    Symbol symbol{nullptr, 0};
    backtrace_syminfo(state, pc, OnSymbol, IgnoreError, &symbol);
    Lines lines;
    lines.count = 0;
    backtrace_pcinfo(state, pc, OnLine, IgnoreError, &lines);
    ModuleOf(pc, frame);
    if (symbol.name) {
      frame.function = symbol.name;
      frame.offset = pc - symbol.value;
    }
    if (lines.count == 0) {
      callback(data, frame);
      return;
    }
    for (int i = 0; i < lines.count; i++) {
      Frame entry = frame;
      bool outer = i == lines.count - 1;
      entry.inlined = !outer;
      entry.file = lines.entries[i].file;
      entry.line = lines.entries[i].line;
      if (!outer || !entry.function) {
        entry.function = lines.entries[i].function;
        entry.offset = 0;
      }
      callback(data, entry);
    }
    return;
  }
#endif
  ModuleOf(pc, frame);
  callback(data, frame);
}

}  // namespace kz::backtrace
