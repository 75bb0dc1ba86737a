/* kzlib: library start-up, version and system identity, crash handling
 * switches.
 *
 * A program calls KZLibInit once at start; further calls (from any thread) are
 * harmless and only record the program name again. The first call runs the
 * once-only start-up of the process, in this order:
 *   - install crash handling for the process (unless embedded), and ignore
 *     SIGPIPE when it is still at its default action (unless embedded);
 *   - prepare backtraces and the crash file names ("./CRASH-<pid>.DMP" and
 *     "./ERRORLOG-<pid>.TXT");
 *   - time-zone data and the start time, the calling thread's message
 *     context, the page size, the version string, the kernel version;
 *   - the library options of the environment (below);
 *   - the host name and the start-up of other library families;
 *   - the handlers registered with KZLibInitAddHandler, in order.
 * Threads calling KZLibInit while another thread runs the start-up wait until
 * it is done.
 *
 * Library options: the environment variable KZ holds tokens separated by
 * blanks or commas, each compared whole and case-sensitively:
 *   crashdump / nocrashdump        set / clear KZ_FLAG_CRASH_DUMP
 *   crashstack / nocrashstack      set / clear KZ_FLAG_CRASH_STACK
 *   crashlog / nocrashlog          set / clear KZ_FLAG_CRASH_LOG
 *   crashsyslog / nocrashsyslog    set / clear KZ_FLAG_CRASH_SYSLOG
 *   debugger / nodebugger          set / clear KZ_FLAG_DEBUGGER
 *   ssl-high-encryption            strong ciphers only (KZLibGetSSLHighEncryption)
 *   invalidparameterstack          KZLibGetInvalidParameterStack
 *   invalidparameterhalt           KZLibGetInvalidParameterHalt
 *   nosync                         skip flushes to disk (KZLibGetSyncOff); a
 *                                  level 3 (KZ_LEVEL_ERROR) message says so
 *   debug, debugmalloc, third      accepted, no effect
 * Any other token is reported at level 2 (KZ_LEVEL_LOG) ("ignored KZ option '<token>'").
 * GDB set in the environment also sets KZ_FLAG_DEBUGGER (with a level 3 (KZ_LEVEL_ERROR)
 * hint). KZ_HANDLER_GRACE_TIME (decimal seconds, at most 4294967295, default
 * 30, 0 for no limit) bounds the time the crash handler may take. KZ_DEBUGGER
 * names the debugger program started on a crash when KZ_FLAG_DEBUGGER is set
 * (default "gdb"; it is run as "<debugger> -p <pid>").
 */
#ifndef KZ_INIT_H
#define KZ_INIT_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* ---- start-up ----------------------------------------------------------------- */

/* Runs the once-only start-up if needed, then, when path is not null, records
 * the executable's full path and the program name: the part of path after its
 * last '/' or '\\' (at most 260 characters). */
KZ_API void KZLibInit(const char *path);

typedef void (*KZLibInitHandler)(void);
#define KZLIB_INIT_MAX_HANDLERS 8
/* Registers a handler called at the end of the once-only start-up; returns its
 * index. A ninth registration is an assertion failure. Call before
 * KZLibInit. */
KZ_API int KZLibInitAddHandler(KZLibInitHandler handler);

/* The library runs inside a host process that owns the process-wide settings:
 * KZLibInit then installs no crash handling and leaves SIGPIPE alone. Call
 * before KZLibInit. */
KZ_API void KZLibSetEmbedded(void);
/* Crash handling leaves in place every crash signal handler the process has
 * already installed (anything but the default action). Call before
 * KZLibInit. */
KZ_API void KZLibKeepGlobalExceptionHandler(void);

/* ---- switches read at start-up ------------------------------------------------ */

#define KZ_FLAG_CRASH_FILES    0x100u  /* write crash files at all */
#define KZ_FLAG_ASSERT_VERBOSE 0x200u  /* assertion verbosity */
#define KZ_FLAG_CRASH_STACK    0x400u  /* collect a backtrace on a crash */
#define KZ_FLAG_CRASH_LOG      0x800u  /* write ERRORLOG-<pid>.TXT */
#define KZ_FLAG_CRASH_DUMP     0x1000u /* write CRASH-<pid>.DMP */
#define KZ_FLAG_CRASH_SYSLOG   0x2000u /* one line to the system log */
#define KZ_FLAG_DEBUGGER       0x4000u /* announce the crash and start a debugger */

/* The flag word (default 0x3F00). */
KZ_API uint32_t KZLibGetFlags(void);
/* Seconds the crash handler may take before the process is ended (30 unless
 * KZ_HANDLER_GRACE_TIME says otherwise; 0 means no limit). */
KZ_API uint32_t KZLibGetHandlerGraceTime(void);
/* 1 when the option was given, else 0. */
KZ_API int KZLibGetSyncOff(void);
KZ_API int KZLibGetSSLHighEncryption(void);
KZ_API int KZLibGetInvalidParameterStack(void);
KZ_API int KZLibGetInvalidParameterHalt(void);
/* Calendar time (seconds since 1970) of the once-only start-up; 0 before. */
KZ_API uint64_t KZLibGetStartTime(void);

/* ---- version and identity --------------------------------------------------- */

KZ_API extern const int32_t kzlib_major;
KZ_API extern const int32_t kzlib_minor;
KZ_API extern const int32_t kzlib_build;
KZ_API extern const int32_t kzlib_branchbuild;
KZ_API extern const int32_t kzlib_branch;

KZ_API int KZVersionMajor(void);       /* 6 */
KZ_API int KZVersionMinor(void);       /* 3 */
KZ_API int KZVersionBuild(void);       /* 20826 */
KZ_API int KZVersionBranch(void);      /* 0 unless the build sets one */
KZ_API int KZVersionBranchBuild(void); /* 0 */
/* "6.3.20826", or "6.3.20826.<branch>" when the branch is not 0. */
KZ_API const char *KZVersionString(void);
/* "<cpu>-<system>", e.g. "amd64-linux". */
KZ_API const char *KZArchitecture(void);
/* From uname: release "6.1.0-18-amd64" gives 6 and 1; the string is
 * "<system> <release> <version>". */
KZ_API int KernelVersionMajor(void);
KZ_API int KernelVersionMinor(void);
KZ_API const char *KernelVersionString(void);
/* The host name, or "localhost" when it cannot be read. */
KZ_API const char *HostName(void);

/* The program name recorded by KZLibInit ("kzlib" until then). */
KZ_API const char *KZProgramName(void);
/* Writes the running executable's full path into buffer and returns buffer;
 * null (errno -1) when the path cannot be read, is 260 characters or longer,
 * is not valid UTF-8, or does not fit (its length + 1 must not exceed size). */
KZ_API char *KZExecutable(char *buffer, size_t size);

/* ---- crash files ------------------------------------------------------------------- */

/* Directory receiving CRASH-<pid>.DMP and ERRORLOG-<pid>.TXT (null or empty:
 * "."). KZLibInit sets "." during its once-only start-up, so call this after
 * it. 1, or 0 (error KZ_ERR_INVALID) when the directory name is too long. */
KZ_API int KZRunProtectedSetPath(const char *directory);

KZ_END_DECLS

#endif /* KZ_INIT_H */
