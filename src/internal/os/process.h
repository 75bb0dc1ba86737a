// Operating-system side of the process family (src/posix/process.cpp). A
// failing call returns false / -1 / null with the system's error number in
// *error; the portable side records it.
#pragma once

#include <cstdint>

namespace kz::os {

// What a child is started with. fds are the child's three streams: a
// descriptor of the caller or -1 for the null device; ignored when
// standardStreams is set (the child shares the caller's).
struct SpawnRequest {
  const char *path;
  char *const *argv;
  char *const *envp;  // never null here
  int fds[3];
  bool standardStreams;
  bool inherit;           // false: close every descriptor above 2 in the child
  const char *directory;  // null: the caller's
  bool setNice;
  int nice;
  bool setIdentity;
  uint32_t uid, gid;
  const uint32_t *groups;  // supplementary groups (setIdentity)
  int groupCount;
};

// The child's pid, or -1. The child is running the program when this returns
// (an exec failure is reported here and the child is reaped).
int64_t Spawn(const SpawnRequest &request, int *error);

struct Ending {
  int exitCode;
  int signal;
  uint64_t userMicros, systemMicros;
};
// 1 ended (reaped, *ending filled), 0 still running (block false only), -1
// failed.
int WaitChild(int64_t pid, bool block, Ending *ending, int *error);
// Reaps pid when it ends, on a library thread; account is then called with
// its CPU times.
void ReapLater(int64_t pid, void (*account)(const Ending &ending));

// 0 probe, 1 SIGTERM, 2 SIGKILL.
bool Signal(int64_t pid, int which, int *error);
int64_t CurrentProcessId();

bool GetNice(int64_t pid, int *nice, int *error);
bool SetNice(int64_t pid, int nice, int *error);

// True when the caller may change a child's identity.
bool MayChangeIdentity();
// Authenticates user with password and fills its ids and groups (at most
// *groupCount, updated). PAM's refusal is EACCES; an unknown user ENOENT.
bool LogOn(const char *user, const char *password, uint32_t *uid, uint32_t *gid, uint32_t *groups, int *groupCount,
           int *error);

// Dynamic libraries.
void *LibraryOpen(const char *name, int *error);
int LibraryClose(void *module, int *error);  // 1 success
void *LibrarySymbol(void *module, const char *name, int *error);
void *MainProgram(int *error);

}  // namespace kz::os
