/* kzlib: threads, thread variables and once-only calls.
 *
 * Threads started through the library get a name, a slot in a process-wide
 * results table from which a join collects their 64-bit result, and the
 * end-of-thread steps: thread-variable destructors, then the destruction of
 * the thread's message context.
 *
 * Thread values. A KZThread holds the operating system's thread handle (the
 * pthread_t on POSIX) in 64 bits; 0 is never a valid thread. The value of a
 * joinable thread stays valid until ThreadJoin or ThreadDetach; the value of a
 * detached thread identifies it only while it runs.
 *
 * The results table. Each library thread owns one entry from its creation
 * until it is joined (joinable threads) or until it ends (detached threads);
 * a free entry is reused by the next creation. ThreadIsAlive reads the entry.
 *
 * End of a library thread, after its function returned:
 *   1. its result is stored in its entry (a detached thread frees the entry);
 *   2. destructor passes: for each thread variable created with a destructor,
 *      in creation order, whose value in this thread is not null, the
 *      destructor is called with the value. The library does not clear the
 *      value: a destructor that leaves it set is called again in the next
 *      pass. Passes repeat until one calls no destructor, four passes at most.
 *      A destructor that releases its value should therefore set the variable
 *      to null (ThreadVarSet(slot, NULL));
 *   3. the thread's message context (name, reference time, error records) is
 *      destroyed.
 *
 * Threads not started by the library (plain pthreads, std::thread) run these
 * steps by calling ThreadCleanup before they end. Without that call their
 * thread-variable destructors are not run (the variables are created without
 * an operating-system destructor, so nothing runs them twice), while their
 * message context is still released when the thread ends.
 */
#ifndef KZ_THREAD_H
#define KZ_THREAD_H

#include "kz/base.h"

KZ_BEGIN_DECLS

/* A thread: the operating system's handle held in 64 bits. */
typedef uint64_t KZThread;
/* A thread's function; its result is what ThreadJoin returns. */
typedef int64_t (*KZThreadFunction)(void *argument);
/* Replaces thread creation (see SetThreadCreateHooks). */
typedef KZThread (*KZThreadCreateHook)(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                                       uint32_t line);
/* A thread-variable slot (a pthread key on POSIX). */
typedef uint32_t KZThreadVar;
typedef void (*KZThreadVarDestructor)(void *value);

/* ---- creating, joining, detaching ------------------------------------------ */

/* Start function(argument) in a new joinable thread with a stack of stackKiB
 * KiB (0: the default; smaller than the system's minimum: the minimum). The
 * thread's name is "<file>:<line>". Returns the thread, to be joined with
 * ThreadJoin or released with ThreadDetach.
 * A stack of 1000000 KiB or more is reported at level 3 (KZ_LEVEL_ERROR) ("creating thread with
 * a stack size of %u KB") and the thread is still created. A failure to start
 * the thread is fatal: level 4 (KZ_LEVEL_EXIT) "thread creation failed, errno=%d". */
KZ_API KZThread ThreadCreate_(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                              uint32_t line);
/* As ThreadCreate_ for a thread nobody joins: its entry is freed when it
 * ends. The result identifies the thread while it runs (ThreadIsAlive,
 * ThreadSetPriority); it must not be joined. With a create hook installed,
 * the hook creates the thread and its result is passed to ThreadDetach. */
KZ_API KZThread ThreadCreateDetached_(KZThreadFunction function, void *argument, uint32_t stackKiB, const char *file,
                                      uint32_t line);
/* When hook is not null, ThreadCreate_ passes all its arguments to it and
 * returns its result instead of creating a thread; null restores the library's
 * own creation. Meant to be set during start-up. */
KZ_API void SetThreadCreateHooks(KZThreadCreateHook hook);

/* Wait for the thread and return exactly the value its function returned;
 * the thread's entry is then free. A failing wait (an unknown thread, the
 * calling thread itself) is fatal: level 4 (KZ_LEVEL_EXIT) "thread operation failed".
 * A library thread's exit value, as the system reports it, is its entry's
 * index; an exit value of all ones (a cancelled thread) is returned as the
 * result (-1) without looking at the table. Any other thread is not joined
 * with ThreadJoin. */
KZ_API int64_t ThreadJoin(KZThread thread);
/* Nobody will join the thread: its entry is freed when it ends (at once when
 * it already has). 1, or 0 with errno -1 (a thread that is already detached:
 * last error EINVAL). A joined thread must not be detached. */
KZ_API int ThreadDetach(KZThread thread);
/* 1 while a library thread's function has not returned yet (and for the
 * calling thread itself), else 0 (also for threads not started by the
 * library). */
KZ_API int ThreadIsAlive(KZThread thread);
/* The calling thread's handle (pthread_self). */
KZ_API KZThread ThreadGetCurrent(void);
/* Set a thread's scheduling priority as a per-thread nice value: -20 -> -20
 * (time critical), -10 -> -10 (highest), -5 -> -5 (above normal), 5 -> 5
 * (below normal), 10 -> 10 (lowest), 20 -> 19 (idle), every other value ->
 * 0 (normal). The thread is a library thread or the calling thread. 1, or 0
 * with errno -1: last error EPERM when raising the priority is not allowed,
 * ESRCH when the thread is unknown or has ended. */
KZ_API int ThreadSetPriority(KZThread thread, int priority);

/* ---- threads not started by the library -------------------------------------- */

/* Create the calling thread's message context when it has none. */
KZ_API void ThreadInit(void);
/* Run the end-of-thread steps now (destructor passes, then the destruction of
 * the message context). errno and the last error are kept. */
KZ_API void ThreadCleanup(void);
/* Sleep forever. */
KZ_API KZ_NORETURN void ThreadHalt(void);

/* ---- once-only calls ----------------------------------------------------------- */

/* Run function once per process for the state variable (initially 0): the
 * first caller moves it to 1, calls the function and sets it to 2; the others
 * yield until it is 2. 1, or 0 with errno 22 when the state holds a value
 * other than 0, 1 or 2. */
KZ_API int ThreadOnce(int32_t *state, void (*function)(void));

/* ---- thread variables --------------------------------------------------------- */

/* A new thread-variable slot, null in every thread. The destructor (or null)
 * is called with a thread's value when a library thread ends, and by
 * ThreadCleanup (see the end-of-thread steps above). Running out of slots is
 * fatal: level 4 (KZ_LEVEL_EXIT) "TlsAlloc failed". */
KZ_API KZThreadVar ThreadVarCreate(KZThreadVarDestructor destructor);
/* The calling thread's value (null when never set). */
KZ_API void *ThreadVarGet(KZThreadVar slot);
/* Set the calling thread's value; 1, or 0 with errno -1. */
KZ_API int ThreadVarSet(KZThreadVar slot, void *value);

/* ---- per-thread name, reference time and identity ------------------------- */

/* The calling thread's name (at most 255 bytes are kept). The operating
 * system's copy, seen by debuggers and process listings, is the part after the
 * last '/' cut to 15 bytes. */
KZ_API void ThreadSetName(const char *name);
/* The calling thread's name: the numeric thread id until set; "<file>:<line>"
 * of the creation for library threads. Valid until the name changes or the
 * thread ends. */
KZ_API const char *ThreadGetName(void);
/* The calling thread's reference time, in milliseconds of the monotonic clock;
 * initially the time its message context was created. */
KZ_API void ThreadSetRefTime(uint64_t milliseconds);
KZ_API uint64_t ThreadGetRefTime(void);
/* 1 when the calling thread already has a message context, else 0. */
KZ_API int ThreadHasContext(void);
/* The calling thread's numeric id (the kernel's thread id). */
KZ_API uint64_t ThreadId(void);

/* ---- calling macros ------------------------------------------------------------ */

#define ThreadCreate(function, argument, stackKiB) ThreadCreate_((function), (argument), (stackKiB), __FILE__, __LINE__)
#define ThreadCreateDetached(function, argument, stackKiB) \
  ThreadCreateDetached_((function), (argument), (stackKiB), __FILE__, __LINE__)

KZ_END_DECLS

#endif /* KZ_THREAD_H */
