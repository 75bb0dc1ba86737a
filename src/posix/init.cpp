// Start-up and system identity on POSIX.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "internal/os/init.h"

namespace kz::os {

bool GetKernelNames(KernelNames *names) {
  struct utsname system;
  if (uname(&system) != 0) return false;
  snprintf(names->system, sizeof names->system, "%s", system.sysname);
  snprintf(names->release, sizeof names->release, "%s", system.release);
  snprintf(names->version, sizeof names->version, "%s", system.version);
  return true;
}

bool GetHostName(char *buffer, size_t size) {
  if (size == 0 || gethostname(buffer, size) != 0) return false;
  buffer[size - 1] = '\0';
  return buffer[0] != '\0';
}

long GetExecutablePath(char *buffer, size_t size, int *error) {
  ssize_t length = readlink("/proc/self/exe", buffer, size);
  if (length < 0) {
    *error = errno;
    return -1;
  }
  return static_cast<long>(length);
}

void IgnoreBrokenPipeSignal() {
  struct sigaction current;
  if (sigaction(SIGPIPE, nullptr, &current) != 0) return;
  if ((current.sa_flags & SA_SIGINFO) || current.sa_handler != SIG_DFL) return;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, nullptr);
}

}  // namespace kz::os
