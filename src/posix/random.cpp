// POSIX entropy pieces for seeding the pseudo-random generator.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/random.h>
#endif

#include "internal/os/random.h"
#include "internal/os/thread.h"

extern char **environ;

namespace kz::os {

namespace {

template <typename T>
void FeedValue(EntropyFeed feed, void *argument, const T &value) {
  feed(argument, &value, sizeof value);
}

void FeedClock(EntropyFeed feed, void *argument, clockid_t clock) {
  timespec now;
  if (clock_gettime(clock, &now) == 0) FeedValue(feed, argument, now);
}

}  // namespace

void GatherEntropy(EntropyFeed feed, void *argument) {
#if defined(__linux__)
  // The kernel's random bytes; a pool not yet initialised at early boot
  // answers EAGAIN instead of blocking, and the other pieces remain.
  unsigned char kernel[32];
  ssize_t got;
  do got = getrandom(kernel, sizeof kernel, GRND_NONBLOCK);
  while (got < 0 && errno == EINTR);
  if (got > 0) feed(argument, kernel, static_cast<size_t>(got));
#endif

  FeedClock(feed, argument, CLOCK_REALTIME);
  FeedClock(feed, argument, CLOCK_MONOTONIC);
  FeedClock(feed, argument, CLOCK_PROCESS_CPUTIME_ID);
  FeedClock(feed, argument, CLOCK_THREAD_CPUTIME_ID);
#if defined(CLOCK_MONOTONIC_RAW)
  FeedClock(feed, argument, CLOCK_MONOTONIC_RAW);
#endif
#if defined(CLOCK_BOOTTIME)
  FeedClock(feed, argument, CLOCK_BOOTTIME);
#endif
  timeval wall;
  if (gettimeofday(&wall, nullptr) == 0) FeedValue(feed, argument, wall);
  FeedValue(feed, argument, time(nullptr));

  FeedValue(feed, argument, getpid());
  FeedValue(feed, argument, getppid());
  FeedValue(feed, argument, ThreadId());
  FeedValue(feed, argument, getuid());
  FeedValue(feed, argument, geteuid());

#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 36)) || defined(__APPLE__) || \
    defined(__FreeBSD__) || defined(__OpenBSD__) || defined(__NetBSD__)
  // The C runtime's own generator; it leaves rand() and random() untouched.
  unsigned char runtime[16];
  arc4random_buf(runtime, sizeof runtime);
  feed(argument, runtime, sizeof runtime);
#endif

  char **environment = environ;
  FeedValue(feed, argument, environment);
  if (environment)
    for (char **entry = environment; *entry; entry++)
      if (**entry) feed(argument, *entry, strlen(*entry));
}

}  // namespace kz::os
