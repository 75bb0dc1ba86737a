// POSIX threads for the thread family: pthreads, per-thread nice values,
// pthread keys and the operating system's copy of the thread name. The
// declarations these definitions must match are at the top of src/thread.cpp.
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "internal/os/thread.h"

namespace kz::os {

static_assert(sizeof(pthread_t) <= sizeof(uint64_t), "a thread handle must fit in 64 bits");

namespace {

pthread_t ToPthread(uint64_t handle) { return static_cast<pthread_t>(handle); }

// The kernel id is cached per thread; a forked child's only thread forgets the
// parent's value, which fork copied.
thread_local uint64_t t_threadId = 0;
void ForgetThreadId() { t_threadId = 0; }
const bool kForgetInForkedChild = pthread_atfork(nullptr, nullptr, ForgetThreadId) == 0;

}  // namespace

uint64_t ThreadId() {
  if (t_threadId == 0) t_threadId = static_cast<uint64_t>(syscall(SYS_gettid));
  return t_threadId;
}

uint64_t MonotonicMillis() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

int ThreadStart(void *(*entry)(void *), void *argument, size_t stackBytes, bool detached, uint64_t *handle) {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  if (stackBytes != 0) {
    size_t minimum = static_cast<size_t>(PTHREAD_STACK_MIN);
    error = pthread_attr_setstacksize(&attributes, stackBytes < minimum ? minimum : stackBytes);
  }
  if (error == 0 && detached) error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  if (error == 0) error = pthread_create(&thread, &attributes, entry, argument);
  pthread_attr_destroy(&attributes);
  if (error == 0) *handle = static_cast<uint64_t>(thread);
  return error;
}

int ThreadWait(uint64_t handle, uintptr_t *exitValue) {
  void *value = nullptr;
  int error = pthread_join(ToPthread(handle), &value);
  if (error == 0) *exitValue = reinterpret_cast<uintptr_t>(value);
  return error;
}

int ThreadRelease(uint64_t handle) { return pthread_detach(ToPthread(handle)); }

uint64_t ThreadSelf() { return static_cast<uint64_t>(pthread_self()); }

bool ThreadSame(uint64_t a, uint64_t b) { return pthread_equal(ToPthread(a), ToPthread(b)) != 0; }

void ThreadSetSystemName(const char *name) {
  // The kernel keeps 15 bytes: the most telling part of a path-like name is
  // its last component; never cut a UTF-8 sequence in two.
  const char *base = strrchr(name, '/');
  base = base ? base + 1 : name;
  size_t length = strlen(base);
  if (length > 15) {
    length = 15;
    while (length > 0 && (static_cast<unsigned char>(base[length]) & 0xC0) == 0x80) length--;
  }
  char text[16];
  memcpy(text, base, length);
  text[length] = '\0';
  pthread_setname_np(pthread_self(), text);  // best effort
}

int ThreadSetNice(uint64_t threadId, int nice) {
  // 0 names the calling thread; asked afresh, as a forked child's cached id
  // would name its parent's thread.
  if (threadId == 0) threadId = static_cast<uint64_t>(syscall(SYS_gettid));
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(threadId), nice) == 0) return 0;
  // Linux refuses a raise without privilege with EACCES; the library reports
  // a refused raise as EPERM on every platform.
  return errno == EACCES ? EPERM : errno;
}

void ThreadYield() { sched_yield(); }

void ThreadSleepForever() {
  for (;;) pause();
}

int ThreadKeyCreate(uint32_t *slot, void (*destructor)(void *)) {
  pthread_key_t key;
  int error = pthread_key_create(&key, destructor);
  if (error == 0) *slot = static_cast<uint32_t>(key);
  return error;
}

void ThreadKeyDelete(uint32_t slot) { pthread_key_delete(static_cast<pthread_key_t>(slot)); }

void *ThreadKeyGet(uint32_t slot) { return pthread_getspecific(static_cast<pthread_key_t>(slot)); }

int ThreadKeySet(uint32_t slot, void *value) { return pthread_setspecific(static_cast<pthread_key_t>(slot), value); }

bool OnForkChild(void (*handler)()) { return pthread_atfork(nullptr, nullptr, handler) == 0; }

}  // namespace kz::os
