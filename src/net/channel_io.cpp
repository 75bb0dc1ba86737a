// Channel reading and writing: the unbuffered transfers that know every
// endpoint kind, the buffered layer above them, and stream scrambling.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/os/net.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/url.h"
#include "net/channel_internal.h"

using kz::net::kBufferSize;
using kz::net::kSource;

namespace {

constexpr size_t kDirectThreshold = kBufferSize + 1;  // 11,681: transfers this large skip the buffer

void ReportInputError(int result) {
  KZSetMessageContext2_(kSource, 0, "kzlib", "ChannelReceive", 4, 0);
  KZErrorThrowInputError_(nullptr, 0, result);
}

bool WouldBlock() { return kz::os::Classify(KZGetLastError()) == kz::os::ErrorClass::kWouldBlock; }

// Local connections: the write time-out counts in seconds, the read
// time-out in milliseconds. 1 ready, 0 timed out (raised), -1 failed.
int WaitLocal(const Channel *channel, bool forWrite) {
  int64_t timeout =
      forWrite ? (channel->writeTimeout < 0 ? -1 : int64_t(channel->writeTimeout) * 1000) : channel->readTimeout;
  int ready = kz::os::Wait(channel->handle, forWrite, timeout);
  if (ready == 0)
    KZ_THROW_AT(kSource, 0, forWrite ? "ChannelSend" : "ChannelReceive", KZ_ERR_TIMEOUT,
                forWrite ? "write timeout" : "read timeout");
  return ready;
}

// One transfer of at most size bytes from the endpoint: > 0 bytes, 0 end of
// input, < 0 failure (the platform's last error or the callback tells).
int64_t SendOnce(Channel *channel, const unsigned char *data, size_t size) {
  if (channel->isSocket || channel->isNamedPipe) return kz::os::Send(channel->handle, data, size);
  if (channel->isVirtual) {
    errno = 0;
    return channel->virtualOps->write(data, size, channel->virtualOps->userData);
  }
  return kz::os::Write(channel->handle, data, size);
}

// Fills the channel's write buffer from text, flushing whenever it is full.
int AppendBytes(Channel *channel, const unsigned char *bytes, size_t size) {
  while (size > 0) {
    if (channel->writeCount >= kBufferSize && !ChannelFlush(channel)) return 0;
    size_t room = static_cast<size_t>(kBufferSize - channel->writeCount);
    size_t n = size < room ? size : room;
    std::memcpy(channel->writeBuffer + channel->writeCount, bytes, n);
    channel->writeCount += static_cast<int32_t>(n);
    bytes += n;
    size -= n;
  }
  return 1;
}

// Refills the read buffer: receive code; readPos 0, readFill the bytes.
int Refill(Channel *channel) {
  size_t count = 0;
  int result = ChannelReceive(channel, channel->readBuffer, kBufferSize, 0, &count, 1);
  channel->readPos = 0;
  channel->readFill = static_cast<int32_t>(count);
  return result;
}

// The next byte (0..255) or a negative receive code.
inline int NextByte(Channel *channel) {
  if (channel->readPos < channel->readFill) return channel->readBuffer[channel->readPos++];
  return ChannelReadByte_(channel, 0);
}

template <typename Value>
int ReadLittleEndian(Channel *channel, Value *value) {
  Value result = 0;
  for (unsigned i = 0; i < sizeof(Value); ++i) {
    int byte = NextByte(channel);
    if (byte < 0) return 0;
    result |= static_cast<Value>(byte) << (8 * i);
  }
  *value = result;
  return 1;
}

template <typename Value>
int WriteLittleEndian(Channel *channel, Value value) {
  unsigned char bytes[sizeof(Value)];
  for (unsigned i = 0; i < sizeof(Value); ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
  return AppendBytes(channel, bytes, sizeof bytes);
}

// Formats a number straight into the write buffer; the 11,650 threshold
// keeps the 30 bytes a number can take free.
template <typename Value>
int WriteNumber(Channel *channel, const char *format, Value value) {
  if (channel->writeCount > KZ_CHANNEL_NUMBER_THRESHOLD && !ChannelFlush(channel)) return 0;
  char *target = reinterpret_cast<char *>(channel->writeBuffer + channel->writeCount);
  int n = snprintf(target, static_cast<size_t>(kBufferSize - channel->writeCount), format, value);
  if (n < 0) return 0;
  if (!(n <= 30)) kzassert_("n <= 30", kSource, 0);
  channel->writeCount += n;
  return 1;
}

}  // namespace

namespace kz::net {

void Scramble(uint64_t *state, unsigned char *bytes, size_t size) {
  static const unsigned char kZero = 0;
  uint64_t s = *state;
  for (size_t i = 0; i < size; ++i) {
    bytes[i] ^= static_cast<unsigned char>(s >> 56);
    s = FingerprintExtend(s, &kZero, 1);
  }
  *state = s;
}

}  // namespace kz::net

// ---- unbuffered transfers --------------------------------------------------------

KZ_API int ChannelSend(Channel *channel, const void *data, size_t size) {
  if (!kz::net::HasEndpoint(channel)) {
    errno = EINVAL;
    return 0;
  }
  const kz::net::SslOps *ssl = channel->ssl ? kz::net::GetSslOps() : nullptr;
  if (size == 0) return 1;
  const unsigned char *p = static_cast<const unsigned char *>(data);
  const size_t maxIO = kz::net::MaxIOSize();
  while (size > 0) {
    size_t chunk = size < maxIO ? size : maxIO;
    int64_t n;
    if (ssl) {
      n = ssl->write(channel, p, chunk);
      if (n <= 0) return 0;  // the SSL family raised the reason
    } else {
      n = SendOnce(channel, p, chunk);
    }
    if (n >= 0) {
      p += n;
      size -= static_cast<size_t>(n);
      continue;
    }
    if (channel->isVirtual) {
      if (errno == 0) errno = -1;
      return 0;
    }
    if (!WouldBlock()) {
      errno = -1;
      return 0;
    }
    int ready = channel->isNamedPipe ? WaitLocal(channel, true) : SocketWait(channel->handle, 1, channel->writeTimeout);
    if (ready <= 0) return 0;
  }
  return 1;
}

KZ_API int ChannelReceive(Channel *channel, void *buffer, size_t size, int all, size_t *count, int wait) {
  if (!kz::net::HasEndpoint(channel)) {
    *count = 0;
    KZ_THROW_AT(kSource, 0, "ChannelReceive", KZ_ERR_GENERAL, "channel is not connected");
    return KZ_RECEIVE_ERROR;
  }
  const kz::net::SslOps *ssl = channel->ssl ? kz::net::GetSslOps() : nullptr;
  *count = 0;
  if (size == 0) return KZ_RECEIVE_OK;
  unsigned char *p = static_cast<unsigned char *>(buffer);
  const size_t maxIO = kz::net::MaxIOSize();
  size_t got = 0;
  int result = KZ_RECEIVE_OK;
  for (;;) {
    size_t remaining = size - got;
    size_t chunk = remaining < maxIO ? remaining : maxIO;
    int64_t n;
    if (ssl) {
      n = ssl->read(channel, p + got, chunk);
      if (n < 0) {  // the SSL family raised the cause; the input error goes on top
        result = static_cast<int>(n);
        break;
      }
    } else if (channel->isSocket) {
      n = kz::os::Receive(channel->handle, p + got, chunk, wait != 0);
    } else if (channel->isNamedPipe) {
      n = kz::os::Receive(channel->handle, p + got, chunk, true);
      if (n < 0 && WouldBlock()) {
        int ready = WaitLocal(channel, false);
        if (ready > 0) continue;
        result = ready == 0 ? KZ_RECEIVE_TIMEOUT : KZ_RECEIVE_ERROR;
        break;
      }
    } else if (channel->isVirtual) {
      errno = 0;
      n = channel->virtualOps->read(p + got, chunk, channel->virtualOps->userData);
      if (n < 0) {
        if (errno == 0) errno = -1;
        result = KZ_RECEIVE_ERROR;
        break;
      }
    } else {
      n = kz::os::Read(channel->handle, p + got, chunk);
    }
    if (n > 0) {
      got += static_cast<size_t>(n);
      if (!all || got == size) break;
      continue;
    }
    if (n == 0) {
      errno = 0;
      result = KZ_RECEIVE_EOF;
      break;
    }
    kz::os::ErrorClass error = kz::os::Classify(KZGetLastError());
    if (error == kz::os::ErrorClass::kEndOfInput) {
      errno = 0;
      result = KZ_RECEIVE_EOF;
      break;
    }
    if (error == kz::os::ErrorClass::kWouldBlock) {
      if (!wait) {
        result = KZ_RECEIVE_TIMEOUT;
        break;
      }
      if (SocketWait(channel->handle, 0, channel->readTimeout)) continue;
      result = KZErrorCode() == KZ_ERR_TIMEOUT ? KZ_RECEIVE_TIMEOUT : KZ_RECEIVE_ERROR;
      break;
    }
    errno = -1;
    result = KZ_RECEIVE_ERROR;
    break;
  }
  if (channel->obfuscated && got) kz::net::Scramble(&channel->readKeyState, p, got);
  *count = got;
  if (result != KZ_RECEIVE_OK && result != KZ_RECEIVE_EOF) ReportInputError(result);
  return result;
}

KZ_API int ChannelFlush(Channel *channel) {
  if (channel->obfuscated && channel->writeCount > 0) {
    // Scramble a copy: a failed send leaves the buffer as the caller wrote it.
    unsigned char scrambled[kBufferSize];
    uint64_t state = channel->writeKeyState;
    std::memcpy(scrambled, channel->writeBuffer, static_cast<size_t>(channel->writeCount));
    kz::net::Scramble(&state, scrambled, static_cast<size_t>(channel->writeCount));
    if (!ChannelSend(channel, scrambled, static_cast<size_t>(channel->writeCount))) return 0;
    channel->writeKeyState = state;
  } else if (!ChannelSend(channel, channel->writeBuffer, static_cast<size_t>(channel->writeCount))) {
    return 0;
  }
  // A local connection's bytes are in the peer's queue once sent: nothing
  // more to flush.
  channel->writeCount = 0;
  return 1;
}

KZ_API int ChannelSync(Channel *channel) {
  if (!ChannelFlush(channel)) return 0;
  if (channel->isVirtual) {
    if (channel->virtualOps && channel->virtualOps->sync)
      return channel->virtualOps->sync(channel->virtualOps->userData) == 0;
    KZ_THROW_AT(kSource, 0, "ChannelSync", KZ_ERR_INVALID, "not implemented");
    return 0;
  }
  return kz::os::Sync(channel->handle) ? 1 : 0;
}

// ---- buffered reading --------------------------------------------------------------

KZ_API int ChannelReadByte_(Channel *channel, int peek) {
  int result = Refill(channel);
  if (result < 0) return result;
  if (!peek) channel->readPos = 1;
  return channel->readBuffer[0];
}

KZ_API int ChannelReadBuf(Channel *channel, void *buffer, size_t size, size_t *count) {
  unsigned char *p = static_cast<unsigned char *>(buffer);
  size_t buffered = static_cast<size_t>(channel->readFill - channel->readPos);
  size_t taken = buffered < size ? buffered : size;
  std::memcpy(p, channel->readBuffer + channel->readPos, taken);
  channel->readPos += static_cast<int32_t>(taken);
  size_t delivered = taken;
  int result = KZ_RECEIVE_OK;
  if (size - delivered >= kDirectThreshold) {
    size_t got = 0;
    result = ChannelReceive(channel, p + delivered, size - delivered, 1, &got, 1);
    delivered += got;
  } else {
    while (delivered < size) {
      size_t got = 0;
      result = ChannelReceive(channel, channel->readBuffer, kBufferSize, 0, &got, 1);
      size_t wanted = size - delivered;
      size_t n = got < wanted ? got : wanted;
      std::memcpy(p + delivered, channel->readBuffer, n);
      channel->readPos = static_cast<int32_t>(n);
      channel->readFill = static_cast<int32_t>(got);
      delivered += n;
      if (result < 0) break;
    }
  }
  if (count) *count = delivered;
  return result;
}

KZ_API int ChannelReadLine(Channel *channel, UByteArray *line, uint32_t maxLength) {
  auto view = kz::View(*line, kSource, 0);
  view.Clear();
  view.Reserve(1);
  int last = 0;
  for (;;) {
    if (maxLength != 0 && line->count >= maxLength) break;
    if (channel->readPos >= channel->readFill) {
      int result = Refill(channel);
      if (result < 0) {
        last = result;
        break;
      }
    }
    // Take the buffered run up to the next LF or CR (or the length limit)
    // in one piece.
    const unsigned char *run = channel->readBuffer + channel->readPos;
    size_t available = static_cast<size_t>(channel->readFill - channel->readPos);
    if (maxLength != 0 && available > maxLength - line->count) available = maxLength - line->count;
    const void *lineFeed = std::memchr(run, '\n', available);
    size_t length = lineFeed ? static_cast<size_t>(static_cast<const unsigned char *>(lineFeed) - run) : available;
    const void *carriageReturn = std::memchr(run, '\r', length);
    if (carriageReturn) length = static_cast<size_t>(static_cast<const unsigned char *>(carriageReturn) - run);
    view.Append(run, length);
    channel->readPos += static_cast<int32_t>(length);
    if (carriageReturn) {
      channel->readPos++;  // dropped wherever it stands; not counted
    } else if (lineFeed) {
      channel->readPos++;  // consumed, not stored
      break;
    }
  }
  view.Reserve(uint64_t(line->count) + 1);
  line->elements[line->count] = '\0';
  if (last == KZ_RECEIVE_EOF) {
    KZ_THROW_AT(kSource, 0, "ChannelReadLine", KZ_ERR_EOF, "read EOF");
    return 0;
  }
  return last < 0 ? 0 : 1;
}

KZ_API int ChannelReadUIntLE(Channel *channel, uint32_t *value) { return ReadLittleEndian(channel, value); }
KZ_API int ChannelReadULongLE(Channel *channel, uint64_t *value) { return ReadLittleEndian(channel, value); }

// ---- buffered writing --------------------------------------------------------------

KZ_API int ChannelWriteString(Channel *channel, const char *text) {
  size_t length = std::strlen(text);
  if (length == 0) return 1;
  return AppendBytes(channel, reinterpret_cast<const unsigned char *>(text), length);
}

KZ_API int ChannelWriteBuf(Channel *channel, const void *data, size_t size) {
  if (size == 0) return 1;
  if (size < kDirectThreshold || channel->obfuscated)
    return AppendBytes(channel, static_cast<const unsigned char *>(data), size);
  if (channel->writeCount > 0 && !ChannelFlush(channel)) return 0;
  return ChannelSend(channel, data, size);
}

KZ_API int ChannelWriteInt(Channel *channel, int32_t value) { return WriteNumber(channel, "%" PRId32, value); }
KZ_API int ChannelWriteLong(Channel *channel, int64_t value) { return WriteNumber(channel, "%" PRId64, value); }
KZ_API int ChannelWriteUInt(Channel *channel, uint32_t value) { return WriteNumber(channel, "%" PRIu32, value); }
KZ_API int ChannelWriteULong(Channel *channel, uint64_t value) { return WriteNumber(channel, "%" PRIu64, value); }
KZ_API int ChannelWriteHexInt(Channel *channel, uint32_t value) { return WriteNumber(channel, "%08" PRIx32, value); }
KZ_API int ChannelWriteHexLong(Channel *channel, uint64_t value) { return WriteNumber(channel, "%016" PRIx64, value); }
KZ_API int ChannelWriteDouble(Channel *channel, double value) { return WriteNumber(channel, "%.5g", value); }

KZ_API int ChannelWriteUIntLE(Channel *channel, uint32_t value) { return WriteLittleEndian(channel, value); }
KZ_API int ChannelWriteULongLE(Channel *channel, uint64_t value) { return WriteLittleEndian(channel, value); }
