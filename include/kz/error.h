/* kzlib: the per-thread error record.
 *
 * Nothing unwinds. A failing function returns 0, null or a negative value and
 * leaves the reason in the calling thread's error record, marking errno:
 *    0  no error
 *   >0  a C library error not yet recorded
 *   -1  the platform's last error (KZGetLastError) tells the cause
 *   -2  the cause is in the thread's current error record
 *   -3  treated like -2 by KZErrorCode
 *
 * An error code is 64 bits: the high 32 bits name the domain (0 C library
 * errno values, 1 operating-system errors, 2 the library's own codes), the low
 * 32 bits the code. Library codes: 0 general, 1 invalid argument, 2 time-out,
 * 3 malformed data or protocol, 5 SSL, 6 not supported, 7 end of input.
 *
 * A rethrow prefixes its text: the message reads outermost first,
 * "outer: middle: inner", and the stack keeps up to 32 levels (entry 0 is the
 * innermost). Messages are cut at 1023 characters.
 */
#ifndef KZ_ERROR_H
#define KZ_ERROR_H

#include "kz/base.h"
#include "kz/message.h"

KZ_BEGIN_DECLS

#define KZ_ERROR_CODE(domain, code) ((((uint64_t)(domain)) << 32) | (uint32_t)(code))
#define KZ_ERROR_DOMAIN(error)      ((uint32_t)((uint64_t)(error) >> 32))

#define KZ_DOMAIN_ERRNO  0
#define KZ_DOMAIN_SYSTEM 1
#define KZ_DOMAIN_KZ     2

#define KZ_ERR_GENERAL       KZ_ERROR_CODE(2, 0)
#define KZ_ERR_INVALID       KZ_ERROR_CODE(2, 1)
#define KZ_ERR_TIMEOUT       KZ_ERROR_CODE(2, 2)
#define KZ_ERR_PROTOCOL      KZ_ERROR_CODE(2, 3)
#define KZ_ERR_SSL           KZ_ERROR_CODE(2, 5)
#define KZ_ERR_NOT_SUPPORTED KZ_ERROR_CODE(2, 6)
#define KZ_ERR_EOF           KZ_ERROR_CODE(2, 7)

#define KZ_ERROR_STACK_MAX   32
#define KZ_ERROR_MESSAGE_MAX 1024

/* The platform's last error: the errno value of the last failing system call
 * made by the library in this thread on POSIX, the system's own last error
 * (GetLastError / SetLastError) on Windows. Read when errno is -1;
 * KZErrorGetErrno translates it to a C library errno value. */
KZ_API int KZGetLastError(void);
KZ_API void KZSetLastError(int error);

/* Record a new error at the pending location (set by the calling macro) and
 * set errno to -2. Returns a pointer to errno, which callers ignore. */
KZ_API int *KZErrorThrow_(uint64_t code, const char *format, ...);
KZ_API int *KZErrorVThrow_(uint64_t code, const char *format, va_list args);
/* Wrap the current error (recording a pending errno or system error first):
 * the message becomes "<text>: <old message>", one stack level is pushed. */
KZ_API int *KZErrorRethrow_(const char *format, ...);
KZ_API int *KZErrorVRethrow_(const char *format, va_list args);
/* Turn a reader's status into an error: >= 0 clears errno; -1 "read eof",
 * -2 "read error", -3 "read timeout", -4 "read protocol error",
 * -5 "read truncated", other "unknown i/o error". */
KZ_API void KZErrorThrowInputError_(const char *inputName, uint32_t inputLine, int32_t status);

/* The current error code; 0 means no error. */
KZ_API uint64_t KZErrorCode(void);
/* errno, or for -1 the platform's last error as an errno value. */
KZ_API int KZErrorGetErrno(void);
/* The current message; valid until the next error call on this thread. */
KZ_API const char *KZErrorMessage(void);

typedef void (*KZErrorStackCallback)(void *argument, const char *text, const char *module, const char *function,
                                     const char *file, uint32_t line);
/* Calls back once per stack level, innermost first; 1, or 0 when there is no
 * error or no stack. The callback may raise errors of its own. */
KZ_API int KZErrorEnumerateStack(KZErrorStackCallback callback, void *argument);
/* Prints the stack to the error message stream. */
KZ_API void KZErrorPrintStack(void);
/* File and line of the current error ("(no file)" and 0 when none); the part
 * after "/kz/src/" when the path contains it. */
KZ_API const char *KZErrorLocation(uint32_t *line);

/* Push the current error on the saved stack and leave no current error. */
KZ_API void *KZErrorSave(void);
/* Make the latest saved error current again (an error raised meanwhile is
 * discarded). Restore without save is an assertion failure. */
KZ_API void KZErrorRestore(void);
/* errno := 0. */
KZ_API void KZErrorClear(void);

/* Runs function(argument) and returns its result. A crash inside it is
 * reported through report(code | 0xD00000000, stack text or null) before the
 * process aborts. */
typedef int64_t (*KZProtectedFunction)(void *argument);
typedef void (*KZCrashReport)(uint64_t code, const char *stackText);
KZ_API int64_t KZRunProtected_(KZProtectedFunction function, void *argument, KZCrashReport report);

/* ---- calling macros -------------------------------------------------------- */

#define KZErrorThrow (KZSetMessageContext2_(__FILE__, __LINE__, KZ_MODULE_NAME, KZ_FUNCTION_NAME, 4, 0), KZErrorThrow_)
#define KZErrorRethrow \
  (KZSetMessageContext2_(__FILE__, __LINE__, KZ_MODULE_NAME, KZ_FUNCTION_NAME, 4, 0), KZErrorRethrow_)
#define KZErrorThrowInputError(name, line, status)                                    \
  (KZSetMessageContext2_(__FILE__, __LINE__, KZ_MODULE_NAME, KZ_FUNCTION_NAME, 4, 0), \
   KZErrorThrowInputError_((name), (line), (status)))
#define KZRunProtected(function, argument, report) KZRunProtected_((function), (argument), (report))

KZ_END_DECLS

#endif /* KZ_ERROR_H */
