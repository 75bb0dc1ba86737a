// Threads: creation through the results table, joins and detaches, thread
// variables with their destructor passes, once-only calls, names, reference
// times and priorities.
#include "kz/thread.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/crash.h"
#include "internal/os/error.h"
#include "internal/os/thread.h"
#include "kz/error.h"
#include "kz/format.h"
#include "kz/memory.h"
#include "kz/message.h"

namespace kz {
namespace {

constexpr const char *kFile = "kzlib/kzthread";
constexpr uint64_t kNone = ~static_cast<uint64_t>(0);
constexpr int kDestructorPasses = 4;

// One entry of the results table. Every field is read and written under the
// table lock.
struct ThreadEntry {
  uint64_t id;        // kernel thread id; all ones until the thread has started
  uint64_t handle;    // all ones until the creating thread has stored it
  int64_t result;     // the function's result (joinable threads)
  uint32_t free;      // 1: the entry may be reused
  uint32_t detached;  // 1: nobody joins the thread
  uint32_t finished;  // 1: the thread's function has returned
};

struct ThreadTable {
  ThreadEntry *elements;
  uint32_t count;
  uint32_t capacity;
};

struct DestructorEntry {
  uint32_t slot;
  KZThreadVarDestructor destructor;
};

struct DestructorTable {
  DestructorEntry *elements;
  uint32_t count;
  uint32_t capacity;
};

// Handed to the new thread, which frees it.
struct StartRecord {
  KZThreadFunction function;
  void *argument;
  char *name;
  uint32_t slot;
};

ThreadTable g_threadResults = {nullptr, 0, 0};
DestructorTable g_destructors = {nullptr, 0, 0};
std::atomic<KZThreadCreateHook> g_createHook{nullptr};

// Function-local: usable from any static initialiser.
LazyLock &ResultsLock() {
  constinit static LazyLock lock;
  return lock;
}

LazyLock &DestructorLock() {
  constinit static LazyLock lock;
  return lock;
}

// Under the results lock: the first free entry, reset, or a new one.
uint32_t ReserveEntry(bool detached) {
  for (uint32_t i = 0; i < g_threadResults.count; i++) {
    ThreadEntry &entry = g_threadResults.elements[i];
    if (entry.free) {
      // The detached flag is reset with the rest: a joinable thread taking the
      // entry of a finished detached thread must be joinable.
      entry = ThreadEntry{kNone, kNone, 0, 0, detached ? 1u : 0u, 0};
      return i;
    }
  }
  View(g_threadResults, kFile, 617).Append(ThreadEntry{kNone, kNone, 0, 0, detached ? 1u : 0u, 0});
  return g_threadResults.count - 1;
}

// Under the results lock: the entry in use by the thread with this handle.
ThreadEntry *FindEntry(uint64_t handle) {
  for (uint32_t i = 0; i < g_threadResults.count; i++) {
    ThreadEntry &entry = g_threadResults.elements[i];
    if (!entry.free && entry.handle == handle) return &entry;
  }
  return nullptr;
}

// Length of the longest prefix of text of at most max bytes that does not end
// inside a UTF-8 sequence.
size_t CutLength(const char *text, size_t max) {
  size_t length = strlen(text);
  if (length <= max) return length;
  length = max;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) length--;
  return length;
}

void SetName(const char *name) {
  if (!name) name = "";
  MessageContext *context = Context();
  size_t length = CutLength(name, sizeof context->threadName - 1);
  memmove(context->threadName, name, length);
  context->threadName[length] = '\0';
  os::ThreadSetSystemName(context->threadName);
}

// Destructor passes over the destructor table, then the message context.
void EndOfThread() {
  LazyLock &lock = DestructorLock();
  for (int pass = 0; pass < kDestructorPasses; pass++) {
    bool called = false;
    lock.lock();
    // The table may grow while the lock is released: index, never iterate.
    for (uint32_t i = 0; i < g_destructors.count; i++) {
      DestructorEntry entry = g_destructors.elements[i];
      void *value = os::ThreadKeyGet(entry.slot);
      if (!value) continue;
      lock.unlock();
      entry.destructor(value);
      called = true;
      lock.lock();
    }
    lock.unlock();
    if (!called) break;
  }
  ContextDestroy();
}

void *ThreadMain(void *argument) {
  crash::PrepareThread();  // a signal stack, so a stack overflow here is still reported
  auto *record = static_cast<StartRecord *>(argument);
  KZThreadFunction function = record->function;
  void *functionArgument = record->argument;
  uint32_t slot = record->slot;
  SetName(record->name);
  free(record->name);
  free(record);

  {
    LazyLockGuard hold(ResultsLock());
    KZ_CHECK(slot < g_threadResults.count, "slot < ArrayLength(threadResults)", kFile, 547);
    g_threadResults.elements[slot].id = os::ThreadId();
  }

  int64_t result = function(functionArgument);

  {
    LazyLockGuard hold(ResultsLock());
    KZ_CHECK(slot < g_threadResults.count, "slot < ArrayLength(threadResults)", kFile, 556);
    ThreadEntry &entry = g_threadResults.elements[slot];
    KZ_CHECK(entry.id == os::ThreadId(), "ArrayNth(threadResults, slot).id == ThreadId()", kFile, 557);
    entry.finished = 1;
    if (!entry.detached)
      entry.result = result;
    else if (entry.handle != kNone)
      entry.free = 1;
    // else: the creating thread has not stored the handle yet; it frees the
    // entry when it does, so the entry cannot be reused under its feet.
  }

  EndOfThread();
  return reinterpret_cast<void *>(static_cast<uintptr_t>(slot));
}

KZThread CreateThread(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file, uint32_t line,
                      bool detached) {
  auto *record = static_cast<StartRecord *>(Allocate_(sizeof(StartRecord), nullptr, kFile, 601));
  uint32_t slot;
  {
    LazyLockGuard hold(ResultsLock());
    slot = ReserveEntry(detached);
  }
  record->function = function;
  record->argument = argument;
  record->name = AllocPrintf("%s:%d", file ? file : "", static_cast<int>(line));
  record->slot = slot;

  if (stackKiB >= 1000000u)
    KZ_MESSAGE_AT(kFile, 642, "ThreadCreate_", 3, 1, "creating thread with a stack size of %u KB", stackKiB);

  uint64_t handle = 0;
  int error = os::ThreadStart(ThreadMain, record, static_cast<size_t>(stackKiB) * 1024u, detached, &handle);
  if (error != 0) {
    free(record->name);
    free(record);
    {
      LazyLockGuard hold(ResultsLock());
      g_threadResults.elements[slot].free = 1;
    }
    os::FailWithError(error);
    KZ_MESSAGE_AT(kFile, 651, "ThreadCreate_", 4, 0, "thread creation failed, errno=%d", error);
    return 0;  // not reached: level 4 ends the process
  }

  LazyLockGuard hold(ResultsLock());
  KZ_CHECK(slot < g_threadResults.count, "slot < ArrayLength(threadResults)", kFile, 657);
  ThreadEntry &entry = g_threadResults.elements[slot];
  entry.handle = handle;
  if (entry.detached && entry.finished) entry.free = 1;  // it ended before we got here
  return handle;
}

int PriorityToNice(int priority) {
  switch (priority) {
    case -20: return -20;  // time critical
    case -10: return -10;  // highest
    case -5: return -5;    // above normal
    case 5: return 5;      // below normal
    case 10: return 10;    // lowest
    case 20: return 19;    // idle
    default: return 0;     // normal
  }
}

}  // namespace
}  // namespace kz

using namespace kz;

extern "C" {

KZ_API KZThread ThreadCreate_(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                              uint32_t line) {
  KZThreadCreateHook hook = g_createHook.load(std::memory_order_acquire);
  if (hook) return hook(function, argument, stackKiB, file, line);
  return CreateThread(function, argument, stackKiB, file, line, false);
}

KZ_API KZThread ThreadCreateDetached_(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                                      uint32_t line) {
  KZThreadCreateHook hook = g_createHook.load(std::memory_order_acquire);
  if (hook) {
    KZThread thread = hook(function, argument, stackKiB, file, line);
    if (thread) ThreadDetach(thread);
    return thread;
  }
  return CreateThread(function, argument, stackKiB, file, line, true);
}

KZ_API void SetThreadCreateHooks(KZThreadCreateHook hook) { g_createHook.store(hook, std::memory_order_release); }

KZ_API int64_t ThreadJoin(KZThread thread) {
  uintptr_t exitValue = 0;
  int error = os::ThreadWait(thread, &exitValue);
  if (error != 0) {
    os::FailWithError(error);
    KZ_MESSAGE_AT(kFile, 708, "ThreadJoin", 4, 0, "thread operation failed");
    return -1;  // not reached: level 4 ends the process
  }
  if (exitValue == ~static_cast<uintptr_t>(0)) return static_cast<int64_t>(~static_cast<uint64_t>(0));

  int64_t result;
  {
    LazyLockGuard hold(ResultsLock());
    KZ_CHECK(exitValue < g_threadResults.count, "result < ArrayLength(threadResults)", kFile, 717);
    ThreadEntry &entry = g_threadResults.elements[exitValue];
    KZ_CHECK(entry.handle == thread, "ArrayNth(threadResults, result).handle == t", kFile, 718);
    KZ_CHECK(!entry.free, "!ArrayNth(threadResults, result).free", kFile, 719);
    KZ_CHECK(!entry.detached, "!ArrayNth(threadResults, result).detached", kFile, 720);
    result = entry.result;
    entry.free = 1;
  }
  // The wait has released the thread: there is no separate handle to close,
  // so the report for a failed close ("thread operation failed" at level 5)
  // cannot happen here.
  return result;
}

KZ_API int ThreadDetach(KZThread thread) {
  LazyLockGuard hold(ResultsLock());
  // Detached once already: its handle is gone (on Windows its value may name
  // another object by now), so it is not released again.
  if (ThreadEntry *entry = FindEntry(thread); entry && entry->detached) {
    os::FailWithError(os::kErrorInvalidArgument);
    return 0;
  }
  int error = os::ThreadRelease(thread);
  if (error != 0) {
    os::FailWithError(error);
    return 0;
  }
  if (ThreadEntry *entry = FindEntry(thread)) {
    entry->detached = 1;
    if (entry->finished) entry->free = 1;
  }
  return 1;
}

KZ_API int ThreadIsAlive(KZThread thread) {
  if (os::ThreadSame(thread, os::ThreadSelf())) return 1;
  LazyLockGuard hold(ResultsLock());
  ThreadEntry *entry = FindEntry(thread);
  return entry && !entry->finished ? 1 : 0;
}

KZ_API KZThread ThreadGetCurrent(void) { return os::ThreadSelf(); }

KZ_API int ThreadSetPriority(KZThread thread, int priority) {
  int nice = PriorityToNice(priority);
  int error;
  if (os::ThreadSame(thread, os::ThreadSelf())) {
    error = os::ThreadSetNice(0, nice);
  } else {
    for (;;) {
      {
        LazyLockGuard hold(ResultsLock());
        ThreadEntry *entry = FindEntry(thread);
        if (!entry || entry->finished) {
          error = os::kErrorNoSuchThread;
          break;
        }
        if (entry->id != kNone) {
          // Under the lock the thread cannot get past the end of its
          // function, so its id still names it.
          error = os::ThreadSetNice(entry->id, nice);
          break;
        }
      }
      // Created but not started yet: recording its id is the first thing it
      // does.
      os::ThreadYield();
    }
  }
  if (error != 0) {
    os::FailWithError(error);
    return 0;
  }
  return 1;
}

KZ_API void ThreadInit(void) { Context(); }

KZ_API void ThreadCleanup(void) {
  const ErrorStateKept kept;
  EndOfThread();
}

KZ_API void ThreadHalt(void) { os::ThreadSleepForever(); }

KZ_API int ThreadOnce(int32_t *state, void (*function)(void)) {
  std::atomic_ref<int32_t> flag(*state);
  int32_t expected = 0;
  if (flag.compare_exchange_strong(expected, 1, std::memory_order_acq_rel, std::memory_order_acquire)) {
    function();
    if (flag.exchange(2, std::memory_order_acq_rel) != 1) {
      errno = 22;
      return 0;
    }
    return 1;
  }
  while (flag.load(std::memory_order_acquire) == 1) os::ThreadYield();
  if (flag.load(std::memory_order_acquire) != 2) {
    errno = 22;
    return 0;
  }
  return 1;
}

KZ_API KZThreadVar ThreadVarCreate(KZThreadVarDestructor destructor) {
  // The message context's own slot comes first: once the program has used up
  // every slot, reporting the failure still needs it.
  Context();
  uint32_t slot = 0;
  int error = os::ThreadKeyCreate(&slot);
  if (error != 0) {
    os::FailWithError(error);
    KZ_MESSAGE_AT(kFile, 1108, "ThreadVarCreate", 4, 0, "TlsAlloc failed");
    return 0;  // not reached: level 4 ends the process
  }
  if (destructor) {
    LazyLockGuard hold(DestructorLock());
    View(g_destructors, kFile, 1115).Append(DestructorEntry{slot, destructor});
  }
  return slot;
}

KZ_API void *ThreadVarGet(KZThreadVar slot) { return os::ThreadKeyGet(slot); }

KZ_API int ThreadVarSet(KZThreadVar slot, void *value) {
  int error = os::ThreadKeySet(slot, value);
  if (error != 0) {
    os::FailWithError(error);
    return 0;
  }
  return 1;
}

KZ_API void ThreadSetName(const char *name) { SetName(name); }

KZ_API const char *ThreadGetName(void) { return Context()->threadName; }

KZ_API void ThreadSetRefTime(uint64_t milliseconds) { Context()->refTime = milliseconds; }

KZ_API uint64_t ThreadGetRefTime(void) { return Context()->refTime; }

KZ_API int ThreadHasContext(void) { return ContextIfAny() != nullptr ? 1 : 0; }

KZ_API uint64_t ThreadId(void) { return os::ThreadId(); }

}  // extern "C"
