/* kzlib: number parsing, FNV hashes, identifier scrambling, formatted output
 * into arrays and bounded string copies.
 *
 * Parsers return the value and write an error flag (0 valid and in range,
 * 1 error; the value is then 0, except for ParseLongC). They record no library
 * error. Digits: '0'-'9' are 0-9, 'A'-'Z' and 'a'-'z' are 10-35; the base must
 * be 2..36 (anything else is an assertion failure). The strict parsers accept
 * no sign (except a leading '-' for the signed ones), white space or prefix.
 *
 * Formatting gives exactly the trio formatter's text (the common conversions
 * are written by the library itself, everything else by trio), which
 * understands the "%I64u", "%I64d" and "%016I64x" forms as well as the C99
 * ones.
 */
#ifndef KZ_FORMAT_H
#define KZ_FORMAT_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* ---- number parsing ------------------------------------------------------ */

KZ_API uint32_t ParseUInt(const char *bytes, uint32_t length, int base, int32_t *error);
KZ_API uint64_t ParseULong(const char *bytes, uint32_t length, int base, int32_t *error);
/* ParseULong over a NUL-terminated text. */
KZ_API uint64_t ParseULongC(const char *text, int base, int32_t *error);
/* Digits are taken from the low byte of each 16-bit unit. */
KZ_API uint64_t ParseULongUCS2(const uint16_t *units, uint32_t length, int base, int32_t *error);
/* An optional leading '-'; the magnitude may reach 2^31 (2^63) when negative. */
KZ_API int32_t ParseInt(const char *bytes, uint32_t length, int base, int32_t *error);
KZ_API int64_t ParseLong(const char *bytes, uint32_t length, int base, int32_t *error);
KZ_API int64_t ParseLongUCS2(const uint16_t *units, uint32_t length, int base, int32_t *error);
/* The C library's strtoll: leading blanks, '+'/'-', base 0 and "0x" accepted.
 * The flag is 1 when conversion stopped before the NUL or errno is ERANGE
 * afterwards (errno is not cleared first). The converted (saturated) value is
 * returned even when the flag is set. An empty text is 0 without error. */
KZ_API int64_t ParseLongC(const char *text, int base, int32_t *error);
/* Decimal with optional sign, '.', exponent up to +-511, "nan" and "inf".
 * The result is defined by the library's algorithm (a 64-bit mantissa scaled
 * by binary powers of ten), not by correct rounding. */
KZ_API double ParseDouble(const char *bytes, uint32_t length, int32_t *error);
/* ParseDouble over a NUL-terminated text; error may be null. */
KZ_API double ParseDoubleC(const char *text, int32_t *error);

/* ---- hashes ---------------------------------------------------------------- */

/* FNV-1: 32-bit offset basis 0x811c9dc5, prime 16777619; 64-bit offset basis
 * 0xcbf29ce484222325, prime 0x100000001b3 (multiply, then XOR the byte). */
KZ_API uint32_t Hash32(const void *bytes, uint64_t length);
KZ_API uint32_t Hash32Extend(const void *bytes, uint64_t length, uint32_t previous);
KZ_API uint64_t Hash64(const void *bytes, uint64_t length);
KZ_API uint64_t Hash64Extend(const void *bytes, uint64_t length, uint64_t previous);

/* Scrambles a 32-bit value into a short lower-case hexadecimal identifier
 * (at most 8 digits, bit 31 of the scrambled value never set); returns the
 * number of characters written (buffer needs 9 bytes). */
KZ_API int UIntHash(char *buffer, uint32_t value);
/* Reverses UIntHash. Exact when the two source bits that share a target bit
 * agree (after their inversion marks). Invalid text gives the value of 0. */
KZ_API uint32_t UIntUnhash(const char *text);

/* ---- formatted output -------------------------------------------------------- */

/* Append formatted text to the array (kept NUL-terminated, NUL not counted);
 * 1, or 0 when the formatter reports an error (array length unchanged). */
KZ_API int UByteArrayPrintf(UByteArray *array, const char *format, ...);
KZ_API int UByteArrayVprintf(UByteArray *array, const char *format, va_list args);
KZ_API int UByteBigArrayPrintf(UByteBigArray *array, const char *format, ...);
KZ_API int UByteBigArrayVprintf(UByteBigArray *array, const char *format, va_list args);
/* A newly allocated formatted text (free() it), or null on a formatter error. */
KZ_API char *AllocPrintf(const char *format, ...);
KZ_API char *AllocVprintf(const char *format, va_list args);

/* ---- bounded string copies ----------------------------------------------------- */

#ifndef KZ_NO_STRLCPY
/* Copy at most size - 1 bytes, always NUL-terminated when size > 0; returns
 * the source length (a result >= size means truncation). */
KZ_API size_t strlcpy(char *destination, const char *source, size_t size);
/* Append within size - 1 bytes; returns the initial destination length plus
 * the source length. Nothing is written when size <= destination length. */
KZ_API size_t strlcat(char *destination, const char *source, size_t size);
#endif

KZ_END_DECLS

#endif /* KZ_FORMAT_H */
