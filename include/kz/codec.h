/* kzlib: Base64 and quoted-printable transfer encodings.
 *
 * The encoders append to a caller's byte array and can break lines for mail
 * and protocol transport; the decoders are lenient: they never fail and never
 * report, they skip what they cannot use. None of the four writes a
 * terminating NUL (unlike the printf-style functions): terminate the array
 * yourself if you need a string.
 *
 * Growth. The output array grows exactly as if every byte were appended one at
 * a time with ArrayAppend (capacity := ArrayNextSize(capacity, capacity + 1,
 * 4294967295) whenever count reaches capacity), so the capacity a call ends
 * with and the largest array it can produce are those of byte-by-byte
 * appending. Base64Encode knows its output length in advance and reserves it
 * up front in one step of ArrayNextSize(capacity, count + output length,
 * 4294967295), which is the capacity byte-by-byte appending ends with too; the
 * other three grow one step at a time when the array is full. An array that
 * would need more than 4294967294 bytes is an assertion failure of the growth
 * rule; running out of memory is the fatal "malloc failed" report.
 *
 * All four are reentrant; only the caller's array is touched.
 */
#ifndef KZ_CODEC_H
#define KZ_CODEC_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* Append the Base64 encoding of length bytes (alphabet A-Z a-z 0-9 + /, "="
 * padding). With breakLines non-zero, a CR LF follows every 76 characters and
 * ends the output unless it is empty, so no line is longer than 76 characters. */
KZ_API void Base64Encode(UByteArray *out, const void *bytes, uint32_t length, int32_t breakLines);

/* Append the bytes of a Base64 text. Every byte outside the 64-character
 * alphabet is skipped wherever it stands: blanks, line breaks and "=" too, so
 * padding does not end the data and the characters after it fill the same
 * groups ("YQ==YQ==" gives 0x61 0x06 0x10). At the end, two leftover
 * characters give one byte, three give two, a single one gives nothing. */
KZ_API void Base64Decode(UByteArray *out, const char *text, uint32_t length);

/* Append the quoted-printable encoding of length bytes. Bytes 33-60 and 62-126
 * and the blank are written as they are; every other byte (controls, CR, LF,
 * "=", bytes 127-255) as "=" and two upper-case hexadecimal digits.
 * With breakLines non-zero: a soft break "=" CR LF is written before a literal
 * byte once the line holds 75 characters, before an encoded byte once it holds
 * 73; an encoded line feed ("=0A") is followed by a soft break at once; the
 * output ends with CR LF, also for empty input. Blanks at the end of a line are
 * not protected. Without breakLines no line break of any kind is written. */
KZ_API void QPEncode(UByteArray *out, const void *bytes, uint32_t length, int32_t breakLines);

/* Append the bytes of a quoted-printable text.
 *   - bytes 33-60 and 62-126, blank and tab are copied;
 *   - "=" followed by two more bytes of which the first is above 32 takes those
 *     two as hexadecimal digits (either case) and appends the byte they give,
 *     or drops all three bytes when either is not a digit;
 *   - any other "=" (among the last two bytes of the text, or followed by a
 *     blank, tab, CR, LF or another control) is dropped and starts a soft break:
 *     the CR and LF bytes that follow are dropped up to and including the next
 *     LF, so "=" CR LF and "=" LF join lines; a copied byte (not one decoded
 *     from "=XX") ends the soft break early;
 *   - CR and LF outside a soft break are copied; every other byte (controls,
 *     bytes 127-255) is dropped. */
KZ_API void QPDecode(UByteArray *out, const char *text, uint32_t length);

KZ_END_DECLS

#endif /* KZ_CODEC_H */
