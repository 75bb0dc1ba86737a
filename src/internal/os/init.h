// Operating-system side of start-up and system identity (src/posix/init.cpp).
#pragma once

#include <cstddef>

namespace kz::os {

// The kernel's name, release and version ("Linux", "6.1.0-13-amd64", "#1 SMP
// ..."); false when the system does not say.
struct KernelNames {
  char system[65], release[65], version[65];
};
bool GetKernelNames(KernelNames *names);

// The machine's network host name; false when it has none.
bool GetHostName(char *buffer, size_t size);

// The running executable's path into buffer. Returns its length, or -1 with
// the system's error number in *error; a path that does not fit is reported
// with its full length (size or more).
long GetExecutablePath(char *buffer, size_t size, int *error);

// Broken pipes become write errors instead of ending the process, unless the
// program already handles or ignores SIGPIPE itself.
void IgnoreBrokenPipeSignal();

}  // namespace kz::os
