/* kzlib: environment variables and string arrays.
 *
 * Names and values cross this interface in UTF-8. Every name and value passes
 * the library's UTF-8 to 16-bit encoder (kz/unicode.h) before it reaches the
 * process environment, so invalid UTF-8 or a character above U+FFFF gives 0 on
 * every platform. Results are 1 for success and 0 for failure; a failed system
 * call sets errno to -1 with the cause in KZGetLastError().
 *
 * Thread safety: the library's own environment calls take one library lock, so
 * a getter that races a setter never reads freed memory. Direct setenv(),
 * putenv(), unsetenv() or getenv() calls made elsewhere in the program bypass
 * that lock and are outside this promise.
 *
 * StringArray: a growable array of owned, NUL-terminated strings that is kept
 * null-terminated after appends, so its elements can be passed as an argument
 * vector or as an environment of "NAME=value" entries. An all-zero record is a
 * valid empty array. Entries are released with StringArrayClear, the vector
 * itself with ArrayFree. A StringArray belongs to one thread at a time.
 */
#ifndef KZ_ENV_H
#define KZ_ENV_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

typedef struct StringArray {
  char **elements;   /* entries, each owned by the array; elements[count] is null after an append */
  uint32_t count;    /* entries, the terminator not counted */
  uint32_t capacity; /* slots allocated */
} StringArray;

/* ---- process environment ------------------------------------------------- */

/* Sets `name` to `value` in the process environment; a null value sets the
 * empty text (the variable exists afterwards, it is not removed). 0 when name
 * or value does not convert (error recorded by the encoder, or errno -1 with
 * EINVAL for a sequence cut off at the end) or when the system refuses (errno
 * -1: EINVAL for an empty name or one holding '=', ENOMEM). */
KZ_API int KZSetEnvironmentVariable(const char *name, const char *value);

/* Copies the value of `name` into buffer: buffer becomes the empty text, then
 * at most size - 1 bytes of the value are added and the NUL written (the cut is
 * byte-wise and may split a multi-byte character). size 0 writes nothing. 1 on
 * success; 0 with errno -1 and KZGetLastError() == ENOENT when the variable does
 * not exist (buffer untouched, no error message); 0 when the name or the value
 * does not convert. */
KZ_API int KZGetEnvironmentVariable(const char *name, char *buffer, size_t size);

/* As KZGetEnvironmentVariable, but appends the whole value to `out` (kept
 * NUL-terminated, the NUL not counted). */
KZ_API int KZUBAGetEnvironmentVariable(const char *name, UByteArray *out);

/* Appends a copy of every entry of the process environment, in the
 * environment's order and as the entries stand, then null-terminates. 1 (an
 * empty environment included). */
KZ_API int KZAppendEnvironmentVariables(StringArray *array);

/* 1 when both vectors are null, 0 when only one is; otherwise 1 exactly when
 * both hold the same number of entries and the entries are byte-for-byte
 * equal in the same order (names compared case-sensitively, order matters). */
KZ_API int KZCompareEnvironment(char **a, char **b);

/* Appends the effective user's name from the password database, followed by
 * its NUL, and counts the NUL: out's count grows by the name's length plus one.
 * Room for 257 more bytes is made first; names of 256 bytes or more fail. 0
 * with errno -1 on failure (ENOENT when the user has no entry). */
KZ_API int KZGetUsername(UByteArray *out);

/* ---- string arrays ---------------------------------------------------------- */

/* Frees every entry and sets count to 0; keeps the capacity and writes no
 * terminator. */
KZ_API void StringArrayClear(StringArray *array);

/* Appends a copy of each string of the null-terminated `vector`, then writes
 * the terminator. A null vector does nothing at all; an empty one only writes
 * the terminator. A copy that cannot be allocated is reported at the error
 * level ("strdup failed: ptr=0x%p") and leaves a null entry. */
KZ_API void StringArrayAppend(StringArray *array, char **vector);

/* The value (the text after the first '=') of the first "NAME=value" entry
 * whose name matches, or null. Names match with ASCII letters folded to upper
 * case and other bytes compared exactly; only the part of `name` before a '='
 * counts, and an entry without '=' never matches ("path" finds "PATH=...",
 * "PATH" does not find "PATHEXT=..."). The pointer lives as long as the entry. */
KZ_API const char *StringArrayEnvGet(StringArray *array, const char *name);

/* Sets, replaces or, with a null value, removes the entry for `name` (matched
 * as in StringArrayEnvGet). The new entry is "<name>=<value>" with the whole
 * of name, a '=' in it included. A replacement keeps the entry's position.
 * A removal moves the following entries down and does not rewrite the slot at
 * the new count: that slot keeps the pointer that was last before (or the freed
 * pointer when the last entry went), so re-terminate with an append or rely on
 * count. Adding appends and writes the terminator.
 * Result: 1 when no entry for name existed before the call (also for a removal
 * of an absent name, which changes nothing), 0 when one did. */
KZ_API int StringArrayEnvSet(StringArray *array, const char *name, const char *value);

KZ_END_DECLS

#endif /* KZ_ENV_H */
