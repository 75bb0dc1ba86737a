/* kzlib: reusable compression streams over zlib.
 *
 * One KZCompress object compresses or decompresses whole buffers, one call per
 * buffer, and switches between the two directions on demand. Every call is one
 * complete stream in the zlib format (RFC 1950); the object only keeps zlib's
 * state between calls so that it is not allocated again each time. Results are
 * appended to a caller's byte array (never overwritten; no NUL is added).
 *
 * Levels: 0 zlib's default compression, 1 and 2 its fastest level (both the
 * same), 3 its best; any other level is an assertion failure ("FALSE") when a
 * deflate state is made at it - at CompressNew with the compress flag set, or
 * at the first CompressDeflate of an object made for inflating.
 *
 * Failures that zlib reports other than the inflate results listed below
 * (initialisation, reset, end, a stream error, any other refusal of a
 * dictionary) are fatal: "zlib error <result> : <zlib's message or (no msg)>"
 * at message level 5 (KZ_LEVEL_FATAL), then abort. Input never is: data made with a preset
 * dictionary other than the object's is corrupt input (-4 from
 * CompressInflate). Running out of memory is the fatal "malloc failed" report
 * (zlib allocates through the library).
 *
 * The output array grows by the library's growth rule; a call that would make
 * it reach 2147483647 bytes is the assertion failure
 * "eltCount < UINT_MAX_VALUE / 2".
 *
 * An object is used by one thread at a time; distinct objects are independent.
 */
#ifndef KZ_COMPRESS_H
#define KZ_COMPRESS_H

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

typedef struct KZCompress KZCompress;

/* A new object at level 0-3 whose zlib state is made for deflating (compress
 * non-zero) or inflating (compress 0; the level is kept for a later switch).
 * Free it with CompressDelete. */
KZ_API KZCompress *CompressNew(uint32_t level, int32_t compress);

/* Use this preset dictionary (not copied: it must stay valid while it is set;
 * null removes it) for every later call. */
KZ_API void CompressSetDictionary(KZCompress *compress, const void *dictionary, uint32_t length);

/* Compress length bytes into one complete zlib stream appended to out
 * (switching the object to deflating if needed). Returns 1. */
KZ_API int32_t CompressDeflate(KZCompress *compress, const void *input, uint32_t length, UByteArray *out);

/* Decompress one zlib stream from input, appending the data to out (switching
 * the object to inflating if needed). Bytes after the end of the stream are
 * ignored. Returns
 *    0  the stream ended;
 *   -1  the input ended before the stream did (what was decompressed so far
 *       is appended);
 *   -4  corrupt data, or the stream needs a preset dictionary and none is set;
 *       or the one set is not the stream's (zlib refuses it): then the thread's
 *       error record holds KZ_ERR_PROTOCOL, "zlib error -3 : incorrect
 *       dictionary" (zlib's message when it gives one) at kzlib/compress:177.
 * Whatever was decompressed is appended in every case, and the object stays
 * usable for the next call. Note that success is 1 for CompressDeflate but 0
 * here. */
KZ_API int32_t CompressInflate(KZCompress *compress, const void *input, uint32_t length, UByteArray *out);

/* End the zlib state and free the object; null does nothing. */
KZ_API void CompressDelete(KZCompress *compress);

KZ_END_DECLS

#endif /* KZ_COMPRESS_H */
