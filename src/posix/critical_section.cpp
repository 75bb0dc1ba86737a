// Critical sections on POSIX: recursive pthread mutexes, re-entrant like the
// lock they stand for.
#include <pthread.h>
#include <stdlib.h>

#include "internal/lazy_lock.h"
#include "kz/memory.h"

struct KZCriticalSection {
  pthread_mutex_t mutex;
};

namespace kz {

KZCriticalSection *CriticalSectionNew(const char *file, uint32_t line) {
  auto *section = static_cast<KZCriticalSection *>(Allocate_(sizeof(KZCriticalSection), nullptr, file, line));
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&section->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return section;
}

void CriticalSectionDelete(KZCriticalSection *section) {
  if (!section || section == kLockUnset) return;
  pthread_mutex_destroy(&section->mutex);
  free(section);
}

void CriticalSectionEnter(KZCriticalSection *section) { pthread_mutex_lock(&section->mutex); }
void CriticalSectionLeave(KZCriticalSection *section) { pthread_mutex_unlock(&section->mutex); }

LazyLock &GlobalLock() {
  constinit static LazyLock lock;  // function-local: ready before any static initialiser uses it
  return lock;
}

}  // namespace kz
