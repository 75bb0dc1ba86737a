// Lazily created process-wide locks. A lock variable holds the all-ones
// pointer until its first user creates a lock and installs it with a
// compare-and-swap; a thread that loses the race destroys its own. This is the
// one way the library makes process-wide locks, so statically defined locks
// need no start-up call.
#pragma once

#include <atomic>
#include <cstdint>

#include "internal/os/lock.h"

namespace kz {

inline KZCriticalSection *const kLockUnset = reinterpret_cast<KZCriticalSection *>(~static_cast<uintptr_t>(0));

// Creates the lock behind *variable when it is still unset (all ones, or null
// for zero-initialised records) and returns it.
inline KZCriticalSection *LazyLockGet(KZCriticalSection **variable, const char *file = "kzlib/kzthread",
                                      uint32_t line = 876) {
  std::atomic_ref<KZCriticalSection *> ref(*variable);
  KZCriticalSection *current = ref.load(std::memory_order_acquire);
  if (current != kLockUnset && current != nullptr) return current;
  KZCriticalSection *fresh = os::CriticalSectionNew(file, line);
  while (current == kLockUnset || current == nullptr) {
    if (ref.compare_exchange_weak(current, fresh, std::memory_order_acq_rel, std::memory_order_acquire)) return fresh;
  }
  os::CriticalSectionDelete(fresh);  // another thread installed its lock first
  return current;
}

// A statically defined lazy lock.
// Constant-initialised (null counts as unset), so a function-local one needs
// no guard: first callers race only on the compare-and-swap above.
class LazyLock {
 public:
  constexpr LazyLock() = default;
  KZCriticalSection *get() { return LazyLockGet(&section_); }
  void lock() { os::CriticalSectionEnter(get()); }
  void unlock() { os::CriticalSectionLeave(get()); }

 private:
  KZCriticalSection *section_ = nullptr;
};

// Scoped hold of a lazily created lock.
class LazyLockGuard {
 public:
  explicit LazyLockGuard(KZCriticalSection **variable) : section_(LazyLockGet(variable)) {
    os::CriticalSectionEnter(section_);
  }
  explicit LazyLockGuard(LazyLock &lock) : section_(lock.get()) { os::CriticalSectionEnter(section_); }
  ~LazyLockGuard() { os::CriticalSectionLeave(section_); }
  LazyLockGuard(const LazyLockGuard &) = delete;
  LazyLockGuard &operator=(const LazyLockGuard &) = delete;

 private:
  KZCriticalSection *section_;
};

// The library's global lock (program name and executable path).
LazyLock &GlobalLock();

}  // namespace kz
