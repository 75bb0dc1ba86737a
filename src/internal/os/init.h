// Operating-system side of start-up and system identity (src/posix/init.cpp,
// src/win32/init.cpp).
#pragma once

#include <cstddef>

namespace kz::os {

// The operating system's version: its major and minor numbers and its
// description for KernelVersionString; false when the system does not say.
struct KernelVersion {
  int major, minor;
  char text[200];
};
bool GetKernelVersion(KernelVersion *version);

// The machine's network host name; false when it has none.
bool GetHostName(char *buffer, size_t size);

// The running executable's path into buffer, in UTF-8. Returns its length, or
// -1 with the system's error number in *error; a path that does not fit is
// reported with its full length (size or more).
long GetExecutablePath(char *buffer, size_t size, int *error);

// The running program looked up by the name it was started with (argv[0]),
// for when the system cannot tell the executable's path: the absolute path
// into buffer, NUL-terminated. False when it is not found or does not fit.
bool FindProgram(const char *name, char *buffer, size_t size);

// Takes the current directory out of the search path for libraries the
// process loads later; false when the system refuses.
bool RestrictLibrarySearchPath();

// No system dialog boxes for critical errors, faults or the C runtime's
// abort: an embedded library's process ends quietly.
void SilenceErrorDialogs();

// Standard input, output and error in binary mode; answers the descriptor
// that refused (0, 1 or 2), or -1 when all three are binary.
int SetBinaryStandardStreams();

// Broken pipes become write errors instead of ending the process, unless the
// program already handles or ignores SIGPIPE itself.
void IgnoreBrokenPipeSignal();

}  // namespace kz::os
