// Operating-system side of daemon mode (src/posix/daemon.cpp). A failing
// call returns false / -1 with the system's error number in *error.
#pragma once

#include <cstdint>
#include <cstdio>

namespace kz::os {

void ClearFileCreationMask();
// Creates path and its missing parents (mode 0777 before the mask).
bool MakeDirectories(const char *path, int *error);
bool ChangeDirectory(const char *path, int *error);
// Points standard output and standard error at stream's descriptor (their
// C streams flushed first).
bool RedirectOutputTo(FILE *stream, int *error);
// Points standard output and error (which 1) or standard input (which 0) at
// the null device.
bool RedirectToNullDevice(int which, int *error);
// Leaves the session; true also when the process already leads its session.
bool DetachSession(int *error);
// fork(): 0 in the child, the child's pid in the parent, -1.
int64_t Fork(int *error);
[[noreturn]] void ExitAtOnce(int status);
// One datagram with state to the AF_UNIX socket at address (a leading '@'
// names an abstract socket).
bool NotifyServiceManager(const char *address, const char *state, int *error);
// Catches the service manager's stop signal (SIGTERM) when the program has
// left it at its default: the handler only wakes WaitForStopRequest. false
// with *error when it cannot be installed; *installed says whether it was.
bool CatchStopRequest(bool *installed, int *error);
// Blocks until the stop signal has arrived (a thread of its own calls it).
void WaitForStopRequest();
// Runs handler(status, nullptr) when the process exits through exit() or the
// end of main, with the exit status.
bool AtExitWithStatus(void (*handler)(int status, void *argument));
// Milliseconds since 1970, wall clock.
int64_t NowMilliseconds();

}  // namespace kz::os
