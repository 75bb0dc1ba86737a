// Windows entropy pieces for seeding the pseudo-random generator.
#define _CRT_RAND_S  // rand_s
#include <windows.h>

#include <bcrypt.h>
#include <process.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "internal/os/random.h"
#include "internal/os/thread.h"

namespace kz::os {

namespace {

template <typename T>
void FeedValue(EntropyFeed feed, void *argument, const T &value) {
  feed(argument, &value, sizeof value);
}

}  // namespace

void GatherEntropy(EntropyFeed feed, void *argument) {
  // The system's preferred random generator.
  unsigned char system[32];
  if (BCRYPT_SUCCESS(BCryptGenRandom(nullptr, system, sizeof system, BCRYPT_USE_SYSTEM_PREFERRED_RNG)))
    feed(argument, system, sizeof system);

  LARGE_INTEGER counter;
  if (QueryPerformanceCounter(&counter)) FeedValue(feed, argument, counter);
  FeedValue(feed, argument, GetTickCount64());
  FILETIME wall;
  GetSystemTimeAsFileTime(&wall);
  FeedValue(feed, argument, wall);
  FILETIME creation, exit, kernel, user;
  if (GetProcessTimes(GetCurrentProcess(), &creation, &exit, &kernel, &user)) {
    FeedValue(feed, argument, creation);
    FeedValue(feed, argument, kernel);
    FeedValue(feed, argument, user);
  }
  if (GetThreadTimes(GetCurrentThread(), &creation, &exit, &kernel, &user)) {
    FeedValue(feed, argument, kernel);
    FeedValue(feed, argument, user);
  }
  FeedValue(feed, argument, time(nullptr));

  FeedValue(feed, argument, GetCurrentProcessId());
  FeedValue(feed, argument, ThreadId());

  // The C runtime's own generator (RtlGenRandom underneath); it leaves rand()
  // untouched.
  unsigned int runtime[4];
  for (unsigned int &value : runtime)
    if (rand_s(&value) != 0) value = 0;
  feed(argument, runtime, sizeof runtime);

  // The C runtime's environment: its address, then every string in it.
  char **environment = _environ;
  FeedValue(feed, argument, environment);
  if (environment)
    for (char **entry = environment; *entry; entry++)
      if (**entry) feed(argument, *entry, strlen(*entry));
}

}  // namespace kz::os
