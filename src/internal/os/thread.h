// Operating-system side of the thread family (src/posix/thread.cpp). Functions
// answering int return 0 or the system's error number.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kz::os {

// The kernel's id of the calling thread (cached per thread, forgotten in a
// forked child).
uint64_t ThreadId();
uint64_t MonotonicMillis();

int ThreadStart(void *(*entry)(void *), void *argument, size_t stackBytes, bool detached, uint64_t *handle);
int ThreadWait(uint64_t handle, uintptr_t *exitValue);
int ThreadRelease(uint64_t handle);
uint64_t ThreadSelf();
bool ThreadSame(uint64_t a, uint64_t b);
void ThreadSetSystemName(const char *name);
int ThreadSetNice(uint64_t threadId, int nice);  // threadId 0: the calling thread
void ThreadYield();
[[noreturn]] void ThreadSleepForever();

// Thread-local slots. The destructor, when given, runs for a thread that ends
// with a non-null value in the slot.
int ThreadKeyCreate(uint32_t *slot, void (*destructor)(void *) = nullptr);
void ThreadKeyDelete(uint32_t slot);
void *ThreadKeyGet(uint32_t slot);
int ThreadKeySet(uint32_t slot, void *value);

// Registers handler to run in the child of every later fork(), in its only
// thread, before fork() returns there. False when it could not be registered.
bool OnForkChild(void (*handler)());

}  // namespace kz::os
