/* kzlib: the process-wide configuration store and the configuration file
 * syntax.
 *
 * The store is one sorted table of string keys and values (unique keys,
 * unsigned byte order) with a change serial and a modification time, guarded
 * by one re-entrant lock that is created on first use. Every change bumps the
 * serial once and stamps the time (microseconds since 1601-01-01 UTC); threads
 * can wait for the serial to reach a value. Keys beginning with '@' are pseudo
 * keys computed on reading:
 *   "@serial"    the change serial            "@count"  number of entries
 *   "@modified"  the modification time        "@kzarch" KZArchitecture()
 *   "@kzversion" KZVersionString()            "@kzbranch" the branch number,
 *   "@kzmajor" "6", "@kzminor" "3",            absent when the build has none
 *   "@kzbuild" "20826"
 * Any other '@' key is absent, and no '@' key can be created. Only "@serial",
 * "@count" and "@modified" take part in enumeration.
 *
 * Configuration text is line-oriented: each line is a list of words, the
 * first is the key, the rest (joined by single spaces) the value.
 *   - Whitespace (tab, LF, VT, FF, CR, space, 0xA0) separates words.
 *   - '#' outside double quotes starts a comment up to the end of the line
 *     ("key val#ue" is the value "val"). A comment on the last line needs a
 *     newline too.
 *   - Double quotes group bytes, whitespace and '#' included, into a word and
 *     may appear inside a word: ab"c d"e is the word "abc de"; "" is an empty
 *     word. Inside quotes \n is a newline and \t a tab.
 *   - A backslash takes the next byte literally (\# \" \\ \ ); outside quotes
 *     \n is just "n". A backslash before the newline continues the logical
 *     line (even inside a word, a quoted part or a comment).
 *   - "include <path>" reads another file at that point; a relative path is
 *     taken from the including file's directory. Nesting stops at 30 levels.
 *   - The text must end with a newline unless its last line is blank.
 * Tokenizer messages go to the message channel at the error level (level 3)
 * with the file and line; store errors are left in the thread's error record.
 */
#ifndef KZ_CONFIG_H
#define KZ_CONFIG_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* ---- the word tokenizer ------------------------------------------------------ */

/* Called once per logical line that holds at least one word: argv holds argc
 * words and a null pointer, valid only for the call. fileName is null for an
 * in-memory text; lineNumber (from 1) is the physical line on which the logical
 * line ends. Return 0 to reject the line and end the read. */
typedef int (*KZConfigLineHandler)(void *context, const char *fileName, int lineNumber, int argc, char **argv);

/* Maps the whole file read-only and tokenizes it. Results: 0 success; -2 when
 * the file cannot be opened or mapped, an empty file included (no message);
 * -4 on a syntax error, a rejected line or a failed inclusion, reported at the
 * error level through the message channel, each naming file and line:
 *   "unmatched \" in configuration file \"%s\", line %d"
 *   "premature end of configuration file \"%s\", line %d"
 *   "invalid \"include\" directive in configuration file \"%s\", line %d"
 *   "too many nested \"include\" directives in configuration file \"%s\", line %d"
 *   "error reading file \"%s\" included in configuration file \"%s\", line %d"
 * A rejected line or failed inclusion also reports the premature end (its
 * words were still pending): that double report is part of the interface.
 * An "include" line needs exactly one non-empty path; it is refused in a file
 * already 30 inclusions deep. */
KZ_API int ReadConfigFile(const char *fileName, KZConfigLineHandler handler, void *context);

/* The tokenizer over `length` bytes of memory. fileName names the text in
 * messages and anchors relative "include" paths; with a null fileName the text
 * is in-memory: every "include" line fails with "invalid \"include\" directive
 * when parsing an in-memory configuration file, line %d" and a premature end
 * reads "premature end of in-memory configuration file, line %d". depth is the
 * number of inclusions above this text (0 for a top-level text). Results as
 * ReadConfigFile; an empty text gives 0. */
KZ_API int ReadConfigFile_(const char *buffer, unsigned int length, const char *fileName, KZConfigLineHandler handler,
                           void *context, int depth);

/* ReadConfigFile_(buffer, length, NULL, handler, context, 0). */
KZ_API int ReadConfigFileFromBuffer(const char *buffer, unsigned int length, KZConfigLineHandler handler,
                                    void *context);

/* ---- loading the store ------------------------------------------------------------ */

/* Under the store's lock: when prefix is not null, removes every key that
 * begins with it; then reads the text with the key parser (a line needs at
 * least two words, else error (2, 0) "parse error line %u: expected 2
 * arguments, got %u", function ParseKey) and stores the pairs. A key given
 * twice (in the text, or already in the store outside the removed prefix)
 * keeps its latest value: the last one in the text, which also replaces the
 * store's. 1 on success; 0 when the
 * text fails to read, and then the store is exactly as it was before the call
 * (removed keys come back). The serial is bumped either way. An "include"
 * line is refused (the text is in-memory). */
KZ_API int LoadConfigurationKeysPrefixed(const char *buffer, unsigned int length, const char *prefix);
/* LoadConfigurationKeysPrefixed(buffer, length, NULL). */
KZ_API int LoadConfigurationKeys(const char *buffer, unsigned int length);

/* Maps the file read-only and loads it as LoadConfigurationKeysPrefixed does
 * (so "include" lines are refused). A file that cannot be opened or mapped, an
 * empty one included, raises "cannot open configuration file \"%s\"" around
 * the system error (EINVAL for an empty file or a path that is not valid
 * UTF-8) and gives 0. */
KZ_API int LoadConfigurationFilePrefixed(const char *path, const char *prefix);
KZ_API int LoadConfigurationFile(const char *path);

/* There is no registry on this platform: raises (2, 6) "not supported" and
 * returns 0 without touching the store. */
KZ_API int LoadConfigurationFromRegistry(void *root, const char *subKey);

/* ---- reading ----------------------------------------------------------------------- */

/* Appends the value of key (or defaultValue when the key is absent) to out,
 * keeps out NUL-terminated without counting the NUL, and returns out's data
 * pointer (the start of the whole array). Null, with out untouched, when the
 * key is absent and defaultValue is null. */
KZ_API char *ConfigKeyGetString(const char *key, const char *defaultValue, UByteArray *out);
/* 1 when the value is exactly "true", 0 for any other value ("True", "yes",
 * "1" included); defaultValue when the key is absent. */
KZ_API int ConfigKeyGetBoolean(const char *key, int defaultValue);
/* Decimal values: only ASCII digits, with one leading '-' for the signed
 * getters; no spaces, '+', hexadecimal or suffix. The default when the key is
 * absent or the value does not convert or is out of range (Int: -2147483648 to
 * 2147483647; UInt: up to 4294967295; Long: the int64_t range; ULong: up to
 * 18446744073709551615). */
KZ_API int ConfigKeyGetInt(const char *key, int defaultValue);
KZ_API unsigned int ConfigKeyGetUInt(const char *key, unsigned int defaultValue);
KZ_API int64_t ConfigKeyGetLong(const char *key, int64_t defaultValue);
KZ_API uint64_t ConfigKeyGetULong(const char *key, uint64_t defaultValue);

/* Returns 0 to stop the enumeration. */
typedef int (*KZConfigEnumerator)(void *context, const char *key, const char *value);

/* Calls enumerator for "@serial", "@count" and "@modified" (those the prefix
 * selects), then for every entry whose key begins with prefix, in key order;
 * null or empty prefix selects all. Stops at the first 0. 1 when at least one
 * call was made, else 0. Runs under the store's lock: the enumerator may read
 * the store but must not change it or wait for a change. */
KZ_API int ConfigKeyEnumerate(KZConfigEnumerator enumerator, void *context, const char *prefix);

/* ---- changing ---------------------------------------------------------------------- */

/* Sets key to a copy of value.
 *   - key absent: an '@' key gives 0 and nothing else happens. Otherwise
 *     oldValue (when given) becomes the empty text; a null value gives 0;
 *     else the pair is added, 1.
 *   - key present: oldValue's content is replaced by the current value (its
 *     length reset first). A non-null value replaces the old one when replace
 *     is not 0 (1), else nothing changes (0). A null value removes the entry
 *     (1).
 * A result of 1 bumps the serial and wakes the waiters. */
KZ_API int ConfigKeySetString(const char *key, const char *value, int replace, UByteArray *oldValue);
/* ConfigKeySetString(key, value, 0, NULL): adds only when the key is absent. */
KZ_API int ConfigKeyAddString(const char *key, const char *value);
/* ConfigKeySetString(key, value, 1, NULL): adds or replaces. */
KZ_API int ConfigKeyReplaceString(const char *key, const char *value);
/* ConfigKeySetString(key, NULL, 0, NULL): 1 when an entry was removed. */
KZ_API int ConfigKeyDelete(const char *key);
/* Removes every entry whose key begins with prefix (null or empty: all).
 * Always 1, and always counts as a change. */
KZ_API int ConfigKeyRemove(const char *prefix);

/* Stores the next pair into *key and *value (both preset to null) and returns
 * nonzero while more pairs may follow; leaving *key null ends the merge. A null
 * *value deletes the key. The store copies the pair. */
typedef int (*KZConfigProducer)(void *context, const char **key, const char **value);

/* Applies every produced pair as ConfigKeyReplaceString (or ConfigKeyDelete
 * for a null value) under one hold of the lock, with one change counted for
 * the whole merge. 1 when something changed, else 0 (a null producer: 0). */
KZ_API int ConfigKeyMerge(KZConfigProducer producer, void *context);
/* Under one hold of the lock: enumerates (when enumerator is not null), then
 * merges (when producer is not null), both with context. Returns 1. */
KZ_API int ConfigKeyEnumerateAndMerge(KZConfigEnumerator enumerator, KZConfigProducer producer, void *context,
                                      const char *prefix);
/* Under one hold of the lock: removes the prefix range (when prefix is not
 * null), then merges. 1 when anything changed (so always for a non-null
 * prefix), else 0. */
KZ_API int ConfigKeyRemoveAndMerge(KZConfigProducer producer, void *context, const char *prefix);

/* Waits while the change serial differs from `serial`: timeoutMs below 1 waits
 * without limit, otherwise at most timeoutMs milliseconds. Returns 0 when the
 * serial equals `serial`, 1 when it still differs. Note the sense: this waits
 * for the serial to REACH the value. A caller that read serial s waits for
 * s + 1 and takes 0 as "changed". Do not call it while holding the store's
 * lock (from an enumerator or producer). */
KZ_API int ConfigWaitForChange(uint64_t serial, int timeoutMs);

/* Appends length bytes of text to out with every ${name} replaced by the value
 * that ConfigKeyGetString gives for name (pseudo keys included; the value is
 * not scanned again); out stays NUL-terminated. A name is made of ASCII
 * letters, digits and _ . : [ ] @ and must be closed by '}'. \${ gives a
 * literal ${ (the name after it is copied as it is); any other '$' or '\' is
 * copied. 1 on success; 0 with error (2, 1) on
 *   "variable expansion error at character %u" (the index in text where the
 *     name stopped; out keeps what was produced, the partial name included),
 *   "undefined variable %s" (out keeps the text before the variable). */
KZ_API int ConfigKeyExpandVariables(const char *text, unsigned int length, UByteArray *out);

KZ_END_DECLS

#endif /* KZ_CONFIG_H */
