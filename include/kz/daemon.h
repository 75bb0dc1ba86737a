/* kzlib: daemon mode and log files.
 *
 * A daemon settles in a run directory, writes its standard output, standard
 * error and the library's messages into "log<suffix>" there (default suffix
 * ".log"), reads standard input from the null device, leaves its session
 * (setsid) and holds "daemon.pid" locked, holding its process id, for as long
 * as it lives: a second daemon in the same directory is refused.
 *
 * Log rotation renames the current log to "<name>.YYYY-MM-DD-hh-mm-ss<suffix>"
 * (local time; a second rotation in the same second adds ".1", then ".2" ...
 * before the suffix) and opens a new one. Rotation failures are also appended
 * to "log.err" in the directory.
 *
 * The purges and KZDaemonEnumerateLogFiles consider the files of log <name>
 * named "<name>.<8 digits><suffix>" or "<name>.<8 digits>.<digits><suffix>"
 * (such as log.20240131.log and log.20240131.2.log): rotated names, which
 * carry dashes in their time stamp, do not match and are never purged. This
 * is deliberate and kept as the library has always behaved.
 *
 * Rotation and purges are serialised by one library lock.
 */
#ifndef KZ_DAEMON_H
#define KZ_DAEMON_H

#include <stdio.h>

#include "kz/base.h"
#include "kz/lock.h"

KZ_BEGIN_DECLS

/* Turns the process into a daemon settled in directory, in this order, each
 * step reporting its failure as a message and the next step running anyway:
 * umask 0; create the directory with its parents when missing ("daemon: log
 * directory creation (\"%s\") failed"); chdir ("daemon: chdir(\"%s\")
 * failed"); open "<directory>/log<suffix>" for appending, not inheritable
 * ("daemon: pathname too long: ..." when suffix and directory lengths, each
 * plus one, plus 3 reach 260; "daemon: cannot open log file: \"%s\"") and
 * install it as the library's output and error message streams; point
 * standard output and standard error at it, not inheritable; point standard
 * input at /dev/null; lock "daemon.pid" without waiting ("daemon: cannot lock
 * pid file : \"%s/daemon.pid\"") and write the process id into it; leave the
 * session. Returns nonzero when the process is a session leader at the end
 * (setsid succeeded or it already led its session), else 0. */
KZ_API int KZSetDaemonDir(const char *directory);

/* Replaces the log-file suffix (copied). After KZSetDaemonDir created the log
 * files a different suffix is refused with the message "KZSetLogFileSuffix
 * called after the process log files were created" and 0; the same suffix is
 * accepted. 1 when the suffix is in force. */
KZ_API int KZSetLogFileSuffix(const char *suffix);

/* Rotates log name of the daemon directory, whose open stream is *stream,
 * while holding lock (may be null); *stream gets the new stream. A null name
 * rotates the process's own log with the library's message lock (stream and
 * lock are then ignored, and standard output and error follow the new file).
 * days >= 0 then purges this log's files older than days (see
 * KZDaemonPurgeLogDays). 1 on success or without a daemon directory; 0 with
 * the failure reported and appended to "log.err" (":daemon: cannot rename log
 * file", ":daemon: cannot open new log file", ...). The sequence stops at its
 * first failure: the old stream is closed by then and *stream is null, and
 * for the own log standard output and error are left on /dev/null. */
KZ_API int KZDaemonRotateLog(const char *name, FILE **stream, KZMutex *lock, int days);

/* Removes the files of log name (null: "log") whose age in whole days
 * (now minus last modification, in milliseconds, divided by 86400000) is
 * greater than days. Nothing without a daemon directory or when days is below
 * 1. Always 1; a failed pass is reported as ":error while removing old log
 * files". */
KZ_API int KZDaemonPurgeLogDays(const char *name, int days);

/* Keeps the newest files of log name (null: "log") whose sizes add up to at
 * most maxBytes and removes the others (files whose time cannot be read sort
 * first, greater name first; removal failures are ignored). 1, or 0 when the
 * directory cannot be listed; 1 without a daemon directory. */
KZ_API int KZDaemonPurgeLog(const char *name, unsigned int maxBytes);

/* Calls callback(context, path) for each file of directory that belongs to log
 * name by the rule above; path is "<directory>/<entry>". A nonzero callback
 * result stops the walk. 1 when the walk completed, 0 when the directory
 * cannot be listed (error raised). */
typedef int (*KZLogFileCallback)(void *context, const char *path);
KZ_API int KZDaemonEnumerateLogFiles(const char *directory, const char *name, KZLogFileCallback callback,
                                     void *context);

/* The daemon directory, or null before KZSetDaemonDir; valid until the next
 * KZSetDaemonDir. */
KZ_API const char *KZGetDaemonDir(void);

/* The command-line entry. Reads and removes from argv (updating *argc) the
 * options "-daemon", "-service" and "-rundir <directory>":
 *   "-daemon": the process forks; the parent exits with status 0 and the child
 *     goes on as a daemon in the run directory (KZSetDaemonDir);
 *   "-service": running under systemd; the message "Starting service <name>"
 *     is issued and KZSetDaemonDir runs without a fork. The program stays in
 *     its own main (no entry point is looked up). When SIGTERM is still at its
 *     default, the library catches it: a library thread then logs "Service
 *     stop requested" and ends the program with exit(0); a program that
 *     handles or ignores SIGTERM itself keeps its handler, and one installed
 *     later replaces the library's. When $NOTIFY_SOCKET is set, "READY=1" is
 *     sent on it and "STOPPING=1" once the stop begins; a failed report logs
 *     "SetServiceStatus() failed" (level 3) and the service goes on; a stop
 *     handler that cannot be installed logs "RegisterServiceCtrlHandler()
 *     failed". Then "Service <name> started" is logged; when the program
 *     exits (exit() or the end of main), "Service <name> stopped, status=<exit
 *     status>". These messages go to the daemon log.
 * The run directory is the one given with "-rundir", else defaultDirectory,
 * else the current directory. serviceName names the service in messages
 * (null: the program's name). Call it at the start of main, before other
 * threads exist: the forked child has only the calling thread. 1 in daemon or service mode, 0 when no option
 * asked for either (nothing changed), -1 when the fork failed (errno -1). */
KZ_API int KZSetDaemon(int *argc, char **argv, const char *defaultDirectory, const char *serviceName);

/* Sends state (such as "STOPPING=1" or "STATUS=...") to the service manager
 * on $NOTIFY_SOCKET. 1 sent, 0 no manager (variable unset), -1 failure with
 * errno -1. */
KZ_API int KZDaemonNotify(const char *state);

KZ_END_DECLS

#endif /* KZ_DAEMON_H */
