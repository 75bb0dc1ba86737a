/* kzlib: conversion between UTF-8 and 16-bit units, 32-bit code points and
 * ISO-8859-1.
 *
 * "Encode" turns UTF-8 (the library's interface text) into the named form;
 * "decode" turns the named form back into UTF-8. Every converter appends to
 * the caller's array (an all-zero record is a valid empty array) and, on
 * success, writes a terminating zero element at index count without counting
 * it, so the array's elements can be passed to anything that wants a
 * NUL-terminated string. Inputs are a pointer and an element count; they need
 * not be terminated, and a zero element inside them is converted like any
 * other value. When a call returns, nothing in the array has changed but the
 * appended elements and the terminator (and the capacity, by growth).
 *
 * A null input pointer returns 0 at once: the array is left untouched and no
 * error is recorded. A count of 0 writes only the terminator and returns 1.
 *
 * UTF-8 accepted by the encoders, lead byte b:
 *   00-7F  one byte;
 *   80-BF  invalid;
 *   C0-DF  one continuation byte, value at least 0x80;
 *   E0-EF  two continuation bytes, value at least 0x800; the surrogate range
 *          D800-DFFF is accepted and passed on unpaired;
 *   F0-FF  UCS2Encode, ISO88591Encode: "Unicode character larger than FFFF",
 *          whatever follows; UCS4Encode: three continuation bytes, value
 *          (b & 0x0F) << 18 | ..., at least 0x10000 and with no upper bound,
 *          so F8-FF are accepted too (values up to 0x3FFFFF).
 * Continuation bytes are 10xxxxxx. Surrogate pairs are never formed.
 *
 * Failures (result 0; the values converted before the fault stay in the
 * array, count includes them, and no terminator is written):
 *   - invalid UTF-8: error KZ_ERR_PROTOCOL "Invalid UTF-8
 *     sequence", module "kzlib", file "kzlib/unicode/unicode", function
 *     "ReadUTF8Inline" ("ReadUTF8_32" for UCS4Encode);
 *   - a lead byte F0-FF in UCS2Encode or ISO88591Encode: the same code and
 *     location with "Unicode character larger than FFFF";
 *   - a sequence cut off by the end of the input: no error is recorded;
 *     callers that need to tell this apart must check the input themselves;
 *   - ISO88591Encode of a value above 0xFF: no error is recorded.
 *
 * Growth: an encoder grows its array by one step of the array growth rule
 * whenever a value must be appended to a full array, then to room for the
 * terminator. A decoder makes sure that at least 8 bytes are free before each
 * input element, then makes room for the NUL. Growth past 2^31 elements is an
 * assertion failure; running out of memory is fatal.
 *
 * All six are reentrant: they touch only the caller's array and the calling
 * thread's error record.
 */
#ifndef KZ_UNICODE_H
#define KZ_UNICODE_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* UTF-8 to 16-bit units, one unit per character (at most U+FFFF). */
KZ_API int UCS2Encode(UShortArray *array, const char *utf8, uint32_t byteCount);
/* 16-bit units to UTF-8: 1 to 3 bytes per unit. Every unit is converted by
 * itself, so a surrogate pair becomes two 3-byte sequences. 0 only for a null
 * input pointer. */
KZ_API int UCS2Decode(UByteArray *array, const uint16_t *units, uint32_t unitCount);

/* UTF-8 to 32-bit code points, one element per character. */
KZ_API int UCS4Encode(UIntArray *array, const char *utf8, uint32_t byteCount);
/* 32-bit code points to UTF-8: 1 to 4 bytes per value below 0x200000; a value
 * of 0x200000 or more is dropped without a report. 0 only for a null input
 * pointer. */
KZ_API int UCS4Decode(UByteArray *array, const uint32_t *codePoints, uint32_t count);

/* UTF-8 to ISO-8859-1, one byte per character (at most U+00FF). */
KZ_API int ISO88591Encode(UByteArray *array, const char *utf8, uint32_t byteCount);
/* ISO-8859-1 to UTF-8: bytes below 0x80 as they are, the others as two
 * bytes. 0 only for a null input pointer. */
KZ_API int ISO88591Decode(UByteArray *array, const char *latin1, uint32_t byteCount);

KZ_END_DECLS

#endif /* KZ_UNICODE_H */
