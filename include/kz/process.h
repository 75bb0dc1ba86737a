/* kzlib: child processes and dynamic libraries.
 *
 * A child is started from a program file, an argument vector passed to it
 * exactly as given (argv[0] is what the program sees as its own name) and an
 * environment of "NAME=value" entries (null: a copy of the caller's
 * environment, taken under the environment family's lock). The command line
 * made by ProcessCommandLine from the vector is what messages show.
 *
 * Standard streams are descriptors: (0, 1, 2) lets the child share the
 * caller's streams; -1 gives the child the null device; any other value is a
 * descriptor of the caller (a pipe end from ChannelCreatePipe, a file), which
 * becomes the child's stream. A mixed triple naming 0, 1 or 2 is refused.
 *
 * Inheritance: every descriptor the library makes is close-on-exec, so only
 * the three streams reach the child unless the caller made other descriptors
 * inheritable (FDSetInheritance). With inheritHandles 0 the child closes
 * every descriptor above 2 before it runs, inheritable or not.
 *
 * The child starts with an empty signal mask and SIGPIPE at its default
 * action, whatever the caller's thread had.
 *
 * Waiting and zombies: the library never installs a SIGCHLD handler and never
 * changes the program's SIGCHLD disposition. A child is reaped by ProcessWait
 * or ProcessWaitNonBlocking (the record keeps the result, so a later wait on
 * the same record reads it again); a record released while its child still
 * runs hands the child to a library thread that reaps it when it ends. A
 * program that sets SIGCHLD to SIG_IGN makes the system reap children itself:
 * waits then fail with errno -1 (ECHILD).
 *
 * Errors follow the library's model: null or 0 with errno 22 (bad argument),
 * -1 (KZGetLastError() holds the system's error number) or -2 (the error
 * record tells: KZ_ERR_INVALID, KZ_ERR_PROTOCOL for bad UTF-8 in arguments,
 * KZ_ERR_GENERAL for bad UTF-8 in the environment).
 *
 * Thread safety: every function may be called from any thread; a Process
 * record belongs to one thread at a time.
 */
#ifndef KZ_PROCESS_H
#define KZ_PROCESS_H

#include <stdint.h>

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* A started or opened process. Read the fields, never change them. */
typedef struct Process {
  int isCurrent;  /* nonzero only in the record of ProcessGetCurrent */
  int64_t handle; /* the system's handle of the process (its pid); -1 none */
  uint32_t pid;   /* process id */
  int state;      /* the library's: 0 running or unknown, 1 ended and reaped */
  int exitCode;   /* the library's: kept once reaped */
  int signal;     /* the library's: kept once reaped */
  int child;      /* the library's: nonzero when started by this process */
} Process;

/* The identity a child runs as (the system's user and group ids). */
typedef struct KZProcessToken {
  uint32_t uid;
  uint32_t gid;
} KZProcessToken;

/* Nice values that ProcessSetPriority and KZProcessStart.nice accept:
 * -20, -10, -5, 0, 5, 10, 19. 10 is kept as 5 (the two share one class and
 * read back as 5). KZ_PROCESS_NICE_INHERIT keeps the caller's. */
#define KZ_PROCESS_NICE_INHERIT     (-128)
#define KZ_PROCESS_PRIORITY_UNKNOWN (-128)

/* Everything a start can choose besides program, vectors and streams. An
 * all-zero record but nice = KZ_PROCESS_NICE_INHERIT is a plain start with
 * inheritHandles 0. */
typedef struct KZProcessStart {
  int inheritHandles;          /* 0: the child closes every descriptor above 2 */
  const char *user;            /* run as this account (authenticated with password); null: as the caller */
  const char *password;        /* the account's password, with user */
  const KZProcessToken *token; /* run with this identity; null: as the caller */
  const char *directory;       /* the child's working directory; null: the caller's */
  int nice;                    /* one of the nice values above, or KZ_PROCESS_NICE_INHERIT */
} KZProcessStart;

/* Starts a child as options says (null options: the plain start with
 * inheritHandles 0). Checked before anything is made, each a KZ_ERR_INVALID
 * error naming ProcessExecute_ and null:
 *   a stream triple other than (0, 1, 2) that names 0, 1 or 2:
 *     "can only use standard I/O for all streams";
 *   a user with inheritHandles set: "can not inherit handles with logon";
 *   a user with streams other than (0, 1, 2): "can not inherit stdio handles with logon";
 *   a nice value not in the table: errno 22.
 * A path or argument that is not valid UTF-8 (the library's rules: one to
 * three bytes per character) fails: the path with errno 22, an argument with
 * "Invalid UTF-8 sequence" or "Unicode character larger than FFFF"
 * (KZ_ERR_PROTOCOL), an environment entry with "bad UTF-8 in environment"
 * (KZ_ERR_GENERAL).
 * A user or token needs the privilege to change identity (root); without it
 * errno is -1 with EPERM in KZGetLastError() and the error record says
 * "could not elevate privileges" (token) or "cannot log on <user>" (user).
 * A user is authenticated with the PAM service "kzlib" (the system's "other"
 * policy unless /etc/pam.d/kzlib exists); a refused log-on is errno -1 with
 * EACCES. The child takes the account's uid, gid and groups; a token gives
 * uid and gid and no supplementary group.
 * A program that cannot be run (missing, not executable, bad directory, a
 * nice value the system refuses) fails with errno -1 and the system's error
 * in KZGetLastError(); no child is left behind.
 * The new record, released by ProcessWait or ProcessWaitNonBlocking with
 * release set. */
KZ_API Process *ProcessExecute_(const KZProcessStart *options, const char *path, char **argv, char **envp, int stdinFd,
                                int stdoutFd, int stderrFd);

/* The wrappers: ProcessExecute inherits (inheritHandles 1); ProcessExecutePipe
 * takes the choice; ProcessExecuteDontInheritHandles does not inherit;
 * ProcessExecuteStdio shares the standard streams and does not inherit;
 * ProcessExecuteWithCredentials runs as user (standard streams, no
 * inheritance); ProcessExecutePipeToken runs as token and inherits. */
KZ_API Process *ProcessExecute(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd, int stderrFd);
KZ_API Process *ProcessExecutePipe(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd, int stderrFd,
                                   int inheritHandles);
KZ_API Process *ProcessExecuteDontInheritHandles(const char *path, char **argv, char **envp, int stdinFd, int stdoutFd,
                                                 int stderrFd);
KZ_API Process *ProcessExecuteStdio(const char *path, char **argv, char **envp);
KZ_API Process *ProcessExecuteWithCredentials(const char *user, const char *password, const char *path, char **argv,
                                              char **envp);
KZ_API Process *ProcessExecutePipeToken(const KZProcessToken *token, const char *path, char **argv, char **envp,
                                        int stdinFd, int stdoutFd, int stderrFd);

/* Appends the command line of argv to out (NUL-terminated, the NUL not
 * counted): each argument, separated by one space, wrapped in double quotes
 * when it is empty or holds a space or a double quote, with a backslash put
 * before each double quote inside; nothing else is escaped (tabs and
 * backslashes are copied). 1, or 0 with the UTF-8 errors above (out then
 * holds what was made before the bad argument). */
KZ_API int ProcessCommandLine(UByteArray *out, char **argv);

/* A record for an existing process, or null with errno -1 (ESRCH when there
 * is none, EPERM when it may not be signalled). Only a child of the caller
 * can be waited for; waiting for another process fails with errno -1
 * (ECHILD). */
KZ_API Process *ProcessFromId(unsigned int pid);

/* The one static record of the calling process, never freed; waiting for it,
 * killing it and terminating it fail with errno 22. */
KZ_API Process *ProcessGetCurrent(void);
KZ_API unsigned int ProcessGetId(Process *process);

/* Kill: SIGKILL; terminate: SIGTERM (a polite stop the child may handle or
 * ignore). 1, or 0 with errno -1 (errno 22 for the current process). A child
 * already reaped is not signalled: 1. */
KZ_API int ProcessKill(Process *process);
KZ_API int ProcessTerminate(Process *process);

/* 1 for the current process and for a process that runs (a child that ended
 * is reaped here and its result kept in the record); 0 for a null record,
 * one without a handle, or a process that ended. */
KZ_API int ProcessIsAlive(Process *process);

/* The nice value as the table reads it (-20, -10, -5, 0, 5, 19): values in
 * between read as the class they fall in (1..9 as 5, 10..18 as 5, -9..-1 as
 * -5, -19..-11 as -10); KZ_PROCESS_PRIORITY_UNKNOWN with errno -1 when the
 * query fails. */
KZ_API int ProcessGetPriority(Process *process);
/* Sets one of the table's values (10 is stored as 5); anything else gives
 * errno 22. Raising the priority needs privilege: errno -1 (EACCES/EPERM).
 * 1 or 0. */
KZ_API int ProcessSetPriority(Process *process, int nice);

/* Waits for the process to end (ProcessWait) or only looks (the
 * NonBlocking form). 1 when it ended: *exitCode gets its exit status (0 when
 * a signal ended it) and *signal the signal that ended it (0 on a normal
 * exit), each when not null; the child's CPU time is added to the totals of
 * ProcessChildrenCPUTime. 0 with errno 0 while it still runs (non-blocking);
 * 0 with errno 22 for the current process or a null record; 0 with errno -1
 * when the wait fails. With release nonzero the record is freed whatever the
 * outcome; a child still running then is reaped by the library when it
 * ends. */
KZ_API int ProcessWait(Process *process, int release, int *exitCode, int *signal);
KZ_API int ProcessWaitNonBlocking(Process *process, int release, int *exitCode, int *signal);

/* The user and system CPU time, in microseconds, of every child reaped by the
 * library so far. */
KZ_API void ProcessChildrenCPUTime(uint64_t *userMicroseconds, uint64_t *systemMicroseconds);

/* ---- dynamic libraries --------------------------------------------------- */

typedef void *(*KZLoadLibraryHook)(const char *fileName);
typedef int (*KZFreeLibraryHook)(void *module);

/* Replaces the functions that load and free libraries (null restores the
 * system's: dlopen with RTLD_NOW and dlclose, the latter giving 1 for
 * success). */
KZ_API void SetOpenDllHooks(KZLoadLibraryHook loadHook, KZFreeLibraryHook freeHook);
/* The main program for a null name, else the load hook's result. Null with
 * errno -1 on failure (the system's reason in the error record's text is
 * not kept; KZGetLastError() is ENOENT). */
KZ_API void *OpenDLL(const char *fileName);
/* The address of name in module, or null with errno -1 (ENOENT). */
KZ_API void *GetDLLSymbol(void *module, const char *name);
/* The free hook's result; a failure of the system's sets errno -1. */
KZ_API int CloseDLL(void *module);

KZ_END_DECLS

#endif /* KZ_PROCESS_H */
