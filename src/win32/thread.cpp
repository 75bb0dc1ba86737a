// Windows threads for the thread family: the C runtime's thread start
// (_beginthreadex), thread handles, thread priorities, thread-local storage
// slots and the system's copy of the thread name.
#include <windows.h>

#include <errno.h>
#include <process.h>
#include <stdlib.h>
#include <string.h>

#include <cstdint>

#include "internal/os/thread.h"
#include "kz/memory.h"

namespace kz::os {

namespace {

HANDLE ToHandle(uint64_t handle) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(handle)); }

struct StartRecord {
  void *(*entry)(void *);
  void *argument;
};

// The thread's exit code is 32 bits: the entry's result must fit (the thread
// family returns a table index or all ones).
unsigned __stdcall StartThread(void *argument) {
  StartRecord start = *static_cast<StartRecord *>(argument);
  free(argument);
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(start.entry(start.argument)));
}

// Slots with a destructor are fiber-local storage slots, whose callback runs
// when a thread ends; this bit marks them among the thread-local ones.
constexpr uint32_t kFiberSlot = 0x40000000u;

int WindowsPriority(int nice) {
  if (nice <= -20) return THREAD_PRIORITY_TIME_CRITICAL;
  if (nice <= -10) return THREAD_PRIORITY_HIGHEST;
  if (nice < 0) return THREAD_PRIORITY_ABOVE_NORMAL;
  if (nice == 0) return THREAD_PRIORITY_NORMAL;
  if (nice <= 5) return THREAD_PRIORITY_BELOW_NORMAL;
  if (nice <= 10) return THREAD_PRIORITY_LOWEST;
  return THREAD_PRIORITY_IDLE;
}

}  // namespace

uint64_t ThreadId() { return GetCurrentThreadId(); }

uint64_t MonotonicMillis() { return GetTickCount64(); }

int ThreadStart(void *(*entry)(void *), void *argument, size_t stackBytes, bool detached, uint64_t *handle) {
  auto *start = static_cast<StartRecord *>(Allocate_(sizeof(StartRecord), nullptr, "kzlib/kzthread", 651));
  start->entry = entry;
  start->argument = argument;
  uintptr_t thread = _beginthreadex(nullptr, static_cast<unsigned>(stackBytes), StartThread, start,
                                    stackBytes ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0, nullptr);
  if (thread == 0) {
    int error = static_cast<int>(_doserrno ? _doserrno : GetLastError());
    free(start);
    return error ? error : ERROR_NOT_ENOUGH_MEMORY;
  }
  if (detached) {
    // A detached thread keeps no handle; its value stays unique while the
    // results table holds it.
    *handle = static_cast<uint64_t>(thread);
    CloseHandle(reinterpret_cast<HANDLE>(thread));
    return 0;
  }
  *handle = static_cast<uint64_t>(thread);
  return 0;
}

int ThreadWait(uint64_t handle, uintptr_t *exitValue) {
  HANDLE thread = ToHandle(handle);
  // A thread waiting for itself would wait for ever.
  if (GetThreadId(thread) == GetCurrentThreadId()) return ERROR_POSSIBLE_DEADLOCK;
  if (WaitForSingleObject(thread, INFINITE) != WAIT_OBJECT_0) return static_cast<int>(GetLastError());
  DWORD code = 0;
  if (!GetExitCodeThread(thread, &code)) return static_cast<int>(GetLastError());
  if (!CloseHandle(thread)) return static_cast<int>(GetLastError());
  *exitValue = code == 0xFFFFFFFFu ? ~static_cast<uintptr_t>(0) : static_cast<uintptr_t>(code);
  return 0;
}

int ThreadRelease(uint64_t handle) { return CloseHandle(ToHandle(handle)) ? 0 : static_cast<int>(GetLastError()); }

// The pseudo-handle: valid only in the calling thread.
uint64_t ThreadSelf() { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(GetCurrentThread())); }

bool ThreadSame(uint64_t a, uint64_t b) {
  if (a == b) return true;
  DWORD kept = GetLastError();
  DWORD first = GetThreadId(ToHandle(a)), second = GetThreadId(ToHandle(b));
  SetLastError(kept);
  return first != 0 && first == second;
}

void ThreadSetSystemName(const char *name) {
  // SetThreadDescription exists from Windows 10 on: looked up, best effort.
  using SetDescription = HRESULT(WINAPI *)(HANDLE, PCWSTR);
  static const SetDescription setDescription = [] {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    return kernel ? reinterpret_cast<SetDescription>(
                        reinterpret_cast<void *>(GetProcAddress(kernel, "SetThreadDescription")))
                  : nullptr;
  }();
  if (!setDescription) return;
  DWORD kept = GetLastError();
  wchar_t wide[256];
  int length = MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, sizeof wide / sizeof wide[0]);
  if (length > 0) setDescription(GetCurrentThread(), wide);
  SetLastError(kept);
}

int ThreadSetNice(uint64_t threadId, int nice) {
  HANDLE thread = threadId == 0 ? GetCurrentThread()
                                : OpenThread(THREAD_SET_INFORMATION | THREAD_QUERY_INFORMATION, FALSE,
                                             static_cast<DWORD>(threadId));
  if (!thread) return static_cast<int>(GetLastError());
  int error = SetThreadPriority(thread, WindowsPriority(nice)) ? 0 : static_cast<int>(GetLastError());
  if (threadId != 0) CloseHandle(thread);
  return error;
}

void ThreadYield() { Sleep(0); }

void ThreadSleepForever() {
  for (;;) Sleep(INFINITE);
}

int ThreadKeyCreate(uint32_t *slot, void (*destructor)(void *)) {
  if (destructor) {
    DWORD index = FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(reinterpret_cast<void *>(destructor)));
    if (index == FLS_OUT_OF_INDEXES) return static_cast<int>(GetLastError());
    *slot = static_cast<uint32_t>(index) | kFiberSlot;
    return 0;
  }
  DWORD index = TlsAlloc();
  if (index == TLS_OUT_OF_INDEXES) return static_cast<int>(GetLastError());
  *slot = static_cast<uint32_t>(index);
  return 0;
}

void ThreadKeyDelete(uint32_t slot) {
  if (slot & kFiberSlot)
    FlsFree(slot & ~kFiberSlot);
  else
    TlsFree(slot);
}

// The slot lookups clear the last error on success: it is kept, as every
// lookup of the thread's context must keep it.
void *ThreadKeyGet(uint32_t slot) {
  DWORD kept = GetLastError();
  void *value = (slot & kFiberSlot) ? FlsGetValue(slot & ~kFiberSlot) : TlsGetValue(slot);
  SetLastError(kept);
  return value;
}

int ThreadKeySet(uint32_t slot, void *value) {
  DWORD kept = GetLastError();
  BOOL set = (slot & kFiberSlot) ? FlsSetValue(slot & ~kFiberSlot, value) : TlsSetValue(slot, value);
  if (!set) return static_cast<int>(GetLastError());
  SetLastError(kept);
  return 0;
}

// Windows has no fork: there is no child to prepare.
bool OnForkChild(void (*)()) { return true; }

}  // namespace kz::os
