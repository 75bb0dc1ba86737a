/* kzlib: messages, logging and assertions.
 *
 * A calling macro stores the caller's location, a level and a with-error flag
 * in the thread's message context, then KZMessage_ formats the text and hands
 * it to the installed handler. Levels (named by the KZ_LEVEL_* constants below):
 *   0, 1  output stream, no prefix                       KZ_LEVEL_DEBUG, KZ_LEVEL_INFO
 *   2     output stream, "[YYYY/MM/DD-hh:mm:ss] "        KZ_LEVEL_LOG
 *   3     error stream, time stamp, "<program>: ",
 *         "\"<file>:<line>\": "                          KZ_LEVEL_ERROR
 *   4     as 3, then the error stack is printed and the
 *         process exits with 1                           KZ_LEVEL_EXIT
 *   5     as 3, then the error stack is printed and the
 *         process aborts                                 KZ_LEVEL_FATAL
 * A format beginning with ':' suppresses the location at levels 3 and above.
 * Every line ends with CR LF. Lines from different threads never interleave.
 *
 * Assertions (kzassert_) take a separate path that allocates nothing: one raw
 * write of "'<expr>' failed at <file>:<line>\n" to the error stream's
 * descriptor, the abort hook, then abort().
 */
#ifndef KZ_MESSAGE_H
#define KZ_MESSAGE_H

#include <stdio.h>
#include "kz/base.h"

KZ_BEGIN_DECLS

/* Message levels. Plain numbers work the same; the names say what a level does. */
#define KZ_LEVEL_DEBUG 0 /* output stream, no prefix */
#define KZ_LEVEL_INFO  1 /* output stream, no prefix */
#define KZ_LEVEL_LOG   2 /* output stream, time-stamped */
#define KZ_LEVEL_ERROR 3 /* error stream, time stamp, program and location; returns */
#define KZ_LEVEL_EXIT  4 /* as KZ_LEVEL_ERROR, prints the error stack, exits with status 1 */
#define KZ_LEVEL_FATAL 5 /* as KZ_LEVEL_ERROR, prints the error stack, aborts */

typedef void (*KZMessageHandler)(const char *file, uint32_t line, int level, uint32_t withError, const char *format,
                                 va_list args);
typedef void (*KZAbortHook)(const char *text, const char *file, uint32_t line);
typedef void (*KZExitFunction)(int status, intptr_t a, intptr_t b, intptr_t c);

/* Set the pending location, level and with-error flag of the calling thread
 * (creating its context). */
KZ_API void KZSetMessageContext2_(const char *file, uint32_t line, const char *module, const char *function, int level,
                                  uint32_t withError);
KZ_API void KZSetMessageContext_(const char *file, uint32_t line, int level, uint32_t withError);

/* Emit a message at the pending location and level. Levels 4 and 5 do not
 * return. */
KZ_API void KZMessage_(const char *format, ...);
KZ_API void KZVMessage_(const char *format, va_list args);

/* Install a handler (null: the default); returns the installed handler. */
KZ_API KZMessageHandler KZSetMessageHandler(KZMessageHandler handler);
KZ_API KZMessageHandler KZGetMessageHandler(void);
/* which: 0 the output stream, other the error stream; null restores the
 * default (stdout, stderr). */
KZ_API void KZSetMessageStream(int which, FILE *stream);
KZ_API FILE *KZGetMessageStream(int which);
/* From now on messages carry "[<pid>] " (cannot be turned off). */
KZ_API void KZEnableLogPID(void);

/* Replace the thread's state text; returns the formatter's result. A null
 * format empties it and returns the text's storage (cast to intptr_t). */
KZ_API intptr_t KZState_(const char *format, ...);
KZ_API void KZSetMessageState_(void);
KZ_API void KZSetMessageState2_(void);
KZ_API const char *KZGetState(void);

/* Assertion failure; never returns. */
KZ_API KZ_NORETURN void kzassert_(const char *expression, const char *file, uint32_t line);

/* The abort hook runs just before the process aborts or exits on an
 * assertion, a fatal message or a failed array growth; null removes it. */
KZ_API void KZSetAbort(KZAbortHook hook);
KZ_API void KZSetExit(KZExitFunction function);
KZ_API void KZExit(int status, intptr_t a, intptr_t b, intptr_t c);

/* 0 clears bits 0x200, 0x400, 0x800, 0x1000 of the flag word; non-zero sets
 * 0x100..0x2000. */
KZ_API void KZAssertSetVerbosity(int flag);
/* Bit 0x200 of the flag word as 0 or 1. */
KZ_API int KZAssertGetVerbosity(void);

/* Process titles are not supported: raises KZ_ERR_NOT_SUPPORTED "not supported", returns 0. */
KZ_API int KZSetProcessTitle(const char *title);
/* "<program>: <name>" (or the program name alone) passed to KZSetProcessTitle. */
KZ_API int KZSetProcessName(const char *name);
KZ_API int KZFormatProcessName(const char *format, ...);

/* ---- calling macros ----------------------------------------------------- */

#define KZMessage(level, ...) \
  (KZSetMessageContext2_(__FILE__, __LINE__, KZ_MODULE_NAME, KZ_FUNCTION_NAME, (level), 0), KZMessage_(__VA_ARGS__))
/* As KZMessage, with ": <current error message>" appended. */
#define KZMessageWithError(level, ...) \
  (KZSetMessageContext2_(__FILE__, __LINE__, KZ_MODULE_NAME, KZ_FUNCTION_NAME, (level), 1), KZMessage_(__VA_ARGS__))
#define KZState(...)         KZState_(__VA_ARGS__)
#define kzassert(expression) ((expression) ? (void)0 : kzassert_(#expression, __FILE__, __LINE__))

KZ_END_DECLS

#endif /* KZ_MESSAGE_H */
