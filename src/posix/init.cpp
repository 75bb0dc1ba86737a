// Start-up and system identity on POSIX.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "internal/os/init.h"
#include "kz/file.h"

namespace kz::os {

namespace {

// Leading decimal digits of text (0 when none); text moves past them.
int LeadingNumber(const char *&text) {
  int value = 0;
  while (*text >= '0' && *text <= '9') {
    if (value < 100000000) value = value * 10 + (*text - '0');
    text++;
  }
  return value;
}

}  // namespace

// Release "6.1.0-13-amd64" gives 6 and 1; the text names the system, its
// release and version.
bool GetKernelVersion(KernelVersion *version) {
  struct utsname system;
  if (uname(&system) != 0) return false;
  const char *release = system.release;
  version->major = LeadingNumber(release);
  version->minor = 0;
  if (*release == '.') {
    release++;
    version->minor = LeadingNumber(release);
  }
  snprintf(version->text, sizeof version->text, "%s %s %s", system.sysname, system.release, system.version);
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

// The file family's search: $PATH, the current directory, the program's own
// directory. A hit through a relative PATH entry is made absolute; one that
// cannot be (longer than a path may be) is not taken.
bool FindProgram(const char *name, char *buffer, size_t size) {
  UByteArray searched{}, absolute{};
  bool found = PathFindExecutable(&searched, name) &&
               PathMakeAbsolute(&absolute, reinterpret_cast<const char *>(searched.elements)) && absolute.count < size;
  if (found) std::memcpy(buffer, absolute.elements, absolute.count + 1);
  std::free(absolute.elements);
  std::free(searched.elements);
  return found;
}

// Libraries are found by their full names or the loader's own path.
bool RestrictLibrarySearchPath() { return true; }

// There are no error dialogs to silence.
void SilenceErrorDialogs() {}

// Streams make no difference between text and binary here.
int SetBinaryStandardStreams() { return -1; }

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
