// Reusable deflate / inflate streams over zlib, appending to byte arrays.
//
// Each call is one complete zlib stream; the object keeps zlib's state between
// calls (reset, or ended and made again for the other direction) so that its
// windows are not allocated anew for every buffer.
#include "kz/compress.h"

#include <stdlib.h>
#include <zlib.h>

#include "internal/array_view.h"
#include "internal/context.h"
#include "kz/error.h"
#include "kz/memory.h"
#include "kz/message.h"

struct KZCompress {
  uint32_t level;       // the library's level, 0-3
  int32_t compressing;  // 1: the stream holds a deflate state, 0: an inflate state
  z_stream stream;
  const void *dictionary;  // caller's preset dictionary or null
  uint32_t dictionaryLength;
};

namespace {

constexpr const char *kFile = "kzlib/compress";
constexpr uint64_t kMaxSize = 4294967295u;
// Reserve refuses capacities from here on ("eltCount < UINT_MAX_VALUE / 2").
constexpr uint64_t kCapacityLimit = 2147483647u;

int ZlibLevel(uint32_t level) {
  switch (level) {
    case 0: return Z_DEFAULT_COMPRESSION;
    case 1:
    case 2: return 1;
    case 3: return 9;
    default: kzassert_("FALSE", kFile, 70);
  }
}

[[noreturn]] void ZlibFailed(uint32_t line, const char *function, const z_stream &stream, int result) {
  KZ_MESSAGE_AT(kFile, line, function, 5, 0, "zlib error %d : %s", result, stream.msg ? stream.msg : "(no msg)");
  abort();  // level 5 has already aborted
}

inline void Check(int result, uint32_t line, const char *function, const z_stream &stream) {
  if (result != Z_OK) ZlibFailed(line, function, stream, result);
}

// zlib's windows and tables come from the checked allocator.
voidpf ZlibAllocate(voidpf, uInt items, uInt size) {
  return Allocate_(static_cast<size_t>(items) * size, nullptr, kFile, 52);
}
void ZlibFree(voidpf, voidpf block) { free(block); }

// Makes room for `required` bytes (at least one more than the count) and hands
// zlib all of the array's free space.
void OfferSpace(z_stream &stream, UByteArray *out, uint64_t required, uint32_t line) {
  kz::View(*out, kFile, line).Reserve(required);
  stream.next_out = out->elements + out->count;
  stream.avail_out = out->capacity - out->count;
}

// A larger first reservation when it is known to be enough (deflate's bound),
// unless growing to it would reach the limit the output itself might stay
// below; then the rounds grow the array step by step.
uint64_t FirstRound(const UByteArray *out, uint64_t hint) {
  const uint64_t minimum = uint64_t{out->count} + 1;
  const uint64_t wanted = uint64_t{out->count} + hint;
  if (wanted <= minimum || wanted <= out->capacity) return minimum;
  return ArrayNextSize(out->capacity, wanted, kMaxSize) < kCapacityLimit ? wanted : minimum;
}

void SetUpDeflate(KZCompress *c, uint32_t line, const char *function) {
  const int level = ZlibLevel(c->level);
  Check(deflateInit(&c->stream, level), line, function, c->stream);
}

void SetUpInflate(KZCompress *c, uint32_t line, const char *function) {
  Check(inflateInit(&c->stream), line, function, c->stream);
}

}  // namespace

extern "C" {

KZ_API KZCompress *CompressNew(uint32_t level, int32_t compress) {
  auto *c = static_cast<KZCompress *>(Allocate0_(sizeof(KZCompress), kFile, 88));
  c->level = level;
  c->compressing = compress ? 1 : 0;
  c->stream.zalloc = ZlibAllocate;
  c->stream.zfree = ZlibFree;
  c->stream.opaque = Z_NULL;
  c->dictionary = nullptr;
  c->dictionaryLength = 0;
  if (compress)
    SetUpDeflate(c, 97, "CompressNew");
  else
    SetUpInflate(c, 99, "CompressNew");
  return c;
}

KZ_API void CompressSetDictionary(KZCompress *c, const void *dictionary, uint32_t length) {
  c->dictionary = dictionary;
  c->dictionaryLength = length;
}

KZ_API int32_t CompressDeflate(KZCompress *c, const void *input, uint32_t length, UByteArray *out) {
  z_stream &stream = c->stream;
  if (c->compressing) {
    Check(deflateReset(&stream), 121, "CompressDeflate", stream);
  } else {
    Check(inflateEnd(&stream), 123, "CompressDeflate", stream);
    SetUpDeflate(c, 124, "CompressDeflate");
    c->compressing = 1;
  }
  if (c->dictionary) {
    Check(deflateSetDictionary(&stream, static_cast<const Bytef *>(c->dictionary), c->dictionaryLength), 128,
          "CompressDeflate", stream);
  }
  stream.next_in = static_cast<Bytef *>(const_cast<void *>(input));
  stream.avail_in = length;
  const uint32_t c0 = out->count;
  uint64_t required = FirstRound(out, deflateBound(&stream, length));
  for (;;) {
    OfferSpace(stream, out, required, 136);
    const int result = deflate(&stream, Z_FINISH);
    out->count = static_cast<uint32_t>(c0 + stream.total_out);
    if (result == Z_STREAM_END) return 1;
    if (result != Z_OK) ZlibFailed(141, "CompressDeflate", stream, result);
    required = uint64_t{out->count} + 1;
  }
}

KZ_API int32_t CompressInflate(KZCompress *c, const void *input, uint32_t length, UByteArray *out) {
  z_stream &stream = c->stream;
  if (c->compressing) {
    Check(deflateEnd(&stream), 151, "CompressInflate", stream);
    SetUpInflate(c, 152, "CompressInflate");
    c->compressing = 0;
  } else {
    Check(inflateReset(&stream), 155, "CompressInflate", stream);
  }
  stream.next_in = static_cast<Bytef *>(const_cast<void *>(input));
  stream.avail_in = length;
  const uint32_t c0 = out->count;
  for (;;) {
    OfferSpace(stream, out, uint64_t{out->count} + 1, 161);
    int result = inflate(&stream, Z_SYNC_FLUSH);
    out->count = static_cast<uint32_t>(c0 + stream.total_out);
    switch (result) {
      case Z_STREAM_END: return 0;
      case Z_OK: continue;
      case Z_BUF_ERROR:  // no progress: the input ended inside the stream
        return -1;
      case Z_DATA_ERROR: return -4;
      case Z_NEED_DICT:
        if (!c->dictionary) return -4;
        result = inflateSetDictionary(&stream, static_cast<const Bytef *>(c->dictionary), c->dictionaryLength);
        if (result == Z_DATA_ERROR) {  // not the stream's dictionary: bad input, and the next reset recovers
          KZ_THROW_AT(kFile, 177, "CompressInflate", KZ_ERR_PROTOCOL, "zlib error %d : %s", result,
                      stream.msg ? stream.msg : "incorrect dictionary");
          return -4;
        }
        Check(result, 177, "CompressInflate", stream);
        continue;
      default: ZlibFailed(180, "CompressInflate", stream, result);
    }
  }
}

KZ_API void CompressDelete(KZCompress *c) {
  if (!c) return;
  if (c->compressing)
    Check(deflateEnd(&c->stream), 189, "CompressDelete", c->stream);
  else
    Check(inflateEnd(&c->stream), 190, "CompressDelete", c->stream);
  free(c);
}

}  // extern "C"
