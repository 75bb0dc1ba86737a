// Lock costs: an uncontended mutex round trip (lazily created variable)
// against std::mutex and a recursive std::recursive_mutex, read and write
// holds of the reader-writer locks, and a condition signal with no waiter.
// The ->Threads(2) runs share one lock between two threads (contended).

#include "kz/lock.h"

#include <benchmark/benchmark.h>

#include <mutex>

namespace {

KZMutex g_mutex = KZ_MUTEX_INITIALIZER;
KZRecursiveMutex g_recursive = KZ_RECURSIVE_MUTEX_INITIALIZER;
KZRWLock g_rwlock = KZ_RWLOCK_INITIALIZER;
KZRWULock g_rwulock = KZ_RWULOCK_INITIALIZER;
KZCondition g_condition = KZ_CONDITION_INITIALIZER;
std::mutex g_stdMutex;
std::recursive_mutex g_stdRecursive;
long g_counter = 0;

void BM_MutexLockUnlock(benchmark::State &state) {
  for (auto _ : state) {
    MutexLock(&g_mutex);
    g_counter++;
    MutexUnlock(&g_mutex);
  }
}
BENCHMARK(BM_MutexLockUnlock)->Threads(1)->Threads(2);

void BM_StdMutexLockUnlock(benchmark::State &state) {
  for (auto _ : state) {
    std::lock_guard<std::mutex> hold(g_stdMutex);
    g_counter++;
  }
}
BENCHMARK(BM_StdMutexLockUnlock)->Threads(1)->Threads(2);

void BM_StdRecursiveMutexLockUnlock(benchmark::State &state) {
  for (auto _ : state) {
    std::lock_guard<std::recursive_mutex> hold(g_stdRecursive);
    g_counter++;
  }
}
BENCHMARK(BM_StdRecursiveMutexLockUnlock)->Threads(1)->Threads(2);

void BM_RecursiveMutexLockUnlock(benchmark::State &state) {
  for (auto _ : state) {
    RecursiveMutexLock(&g_recursive);
    g_counter++;
    RecursiveMutexUnlock(&g_recursive);
  }
}
BENCHMARK(BM_RecursiveMutexLockUnlock)->Threads(1)->Threads(2);

void BM_RWLockRead(benchmark::State &state) {
  for (auto _ : state) {
    RWLockAcquireRead(&g_rwlock);
    benchmark::ClobberMemory();
    RWLockRelease(&g_rwlock);
  }
}
BENCHMARK(BM_RWLockRead)->Threads(1)->Threads(2);

void BM_RWLockWrite(benchmark::State &state) {
  for (auto _ : state) {
    RWLockAcquireWrite(&g_rwlock);
    g_counter++;
    RWLockRelease(&g_rwlock);
  }
}
BENCHMARK(BM_RWLockWrite)->Threads(1)->Threads(2);

void BM_RWULockRead(benchmark::State &state) {
  for (auto _ : state) {
    RWULockAcquireRead(&g_rwulock);
    benchmark::ClobberMemory();
    RWULockRelease(&g_rwulock);
  }
}
BENCHMARK(BM_RWULockRead)->Threads(1)->Threads(2);

void BM_ConditionSignalNoWaiter(benchmark::State &state) {
  for (auto _ : state) ConditionSignal(&g_condition);
}
BENCHMARK(BM_ConditionSignalNoWaiter);

}  // namespace
