// Channel reading over a memory reader, and stream scrambling, on any input.
//
// Input: byte 0 holds the options, byte 1 the number of read operations (up
// to 63), then that many operation bytes, then the stream.
//   options bit 0   scrambling on, with a key made of the stream's length and
//                   the first operation bytes
// Operation byte: low 3 bits the kind, the high 5 bits its parameter p:
//   0 byte, 1 peek, 2 line with maxLength p, 3 32-bit LE, 4 64-bit LE,
//   5 buffer of p * 37 bytes, 6 buffer of 11,681 + p * 400 bytes (straight into
//   the caller's memory), 7 ChannelReceive of p + 1 bytes without waiting.
// Checked, against a model that walks the plain stream:
//   every result, byte, line and integer is what the model says, so nothing is
//   read past the input, skipped or repeated;
//   the memory reader's offset never passes the stream's end;
//   with scrambling on, the channel is fed the stream scrambled by an
//   independent implementation and still reads the plain bytes;
//   writing the stream through a scrambling memory writer in pieces gives the
//   same scrambled bytes, and reading them back with the key gives the stream.

#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "kz/channel.h"
#include "kz/url.h"

namespace {

using kzfuzz::Require;

std::string Scrambled(uint64_t key, std::string text) {
  const unsigned char zero = 0;
  for (char &c : text) {
    c = static_cast<char>(static_cast<unsigned char>(c) ^ static_cast<unsigned char>(key >> 56));
    key = FingerprintExtend(key, &zero, 1);
  }
  return text;
}

struct Model {
  const std::string &stream;
  size_t pos = 0;
  int Byte(bool peek) {
    if (pos >= stream.size()) return KZ_RECEIVE_EOF;
    return static_cast<unsigned char>(stream[peek ? pos : pos++]);
  }
};

void ReadAndCompare(Channel *channel, const std::string &ops, const std::string &plain) {
  Model model{plain};
  UByteArray line{};
  std::string buffer;
  for (unsigned char op : ops) {
    const unsigned p = op >> 3;
    switch (op & 7) {
      case 0:
      case 1: {
        bool peek = (op & 7) == 1;
        int got = peek ? ChannelPeekByte(channel) : ChannelReadByte(channel);
        Require(got == model.Byte(peek), "byte");
        break;
      }
      case 2: {
        std::string expected;
        int result = 1;
        for (;;) {
          if (p != 0 && expected.size() >= p) break;
          int c = model.Byte(false);
          if (c < 0) {
            result = 0;
            break;
          }
          if (c == '\n') break;
          if (c != '\r') expected.push_back(static_cast<char>(c));
        }
        Require(ChannelReadLine(channel, &line, p) == result, "line result");
        Require(std::string(reinterpret_cast<char *>(line.elements), line.count) == expected, "line");
        Require(line.elements[line.count] == '\0', "line terminated");
        break;
      }
      case 3:
      case 4: {
        const size_t width = (op & 7) == 3 ? 4 : 8;
        uint64_t expected = 0;
        bool complete = plain.size() - model.pos >= width;
        for (size_t i = 0; complete && i < width; ++i)
          expected |= uint64_t(static_cast<unsigned char>(plain[model.pos + i])) << (8 * i);
        model.pos = complete ? model.pos + width : plain.size();
        uint64_t value = 0xDEAD;
        int result;
        if (width == 4) {
          uint32_t v32 = 0xDEAD;
          result = ChannelReadUIntLE(channel, &v32);
          value = v32;
        } else {
          result = ChannelReadULongLE(channel, &value);
        }
        Require(result == (complete ? 1 : 0), "integer result");
        Require(value == (complete ? expected : 0xDEAD), "integer value");
        break;
      }
      case 5:
      case 6:
      case 7: {
        size_t size = (op & 7) == 5 ? p * 37 : (op & 7) == 6 ? 11681 + p * 400 : p + 1;
        buffer.assign(size, '\0');
        size_t count = 0;
        int result;
        if ((op & 7) == 7) {
          // Unbuffered: only meaningful once the buffer is drained.
          if (channel->readPos < channel->readFill) break;
          result = ChannelReceive(channel, buffer.data(), size, 0, &count, 0);
          size_t available = plain.size() - model.pos;
          Require(result == (available ? KZ_RECEIVE_OK : KZ_RECEIVE_EOF), "receive result");
          Require(count == std::min(size, available), "receive count");
        } else {
          result = ChannelReadBuf(channel, buffer.data(), size, &count);
          size_t available = plain.size() - model.pos;
          Require(count == std::min(size, available), "buffer count");
          Require(result == (count == size ? KZ_RECEIVE_OK : KZ_RECEIVE_EOF), "buffer result");
        }
        Require(buffer.compare(0, count, plain, model.pos, count) == 0, "buffer bytes");
        model.pos += count;
        break;
      }
    }
    Require(ChannelMemoryIOReadOffs(channel) <= static_cast<int64_t>(plain.size()), "offset within the input");
  }
  ArrayFree_(&line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const bool scramble = data[0] & 1;
  const size_t opCount = std::min<size_t>(data[1] % 64, size - 2);
  const std::string ops(reinterpret_cast<const char *>(data + 2), opCount);
  const std::string plain(reinterpret_cast<const char *>(data + 2 + opCount), size - 2 - opCount);
  uint64_t key = plain.size() * 0x9E3779B97F4A7C15ull;
  for (size_t i = 0; i < ops.size() && i < 8; ++i) key = key << 8 | static_cast<unsigned char>(ops[i]);
  if (key == KZ_OBFUSCATION_OFF) key = 0;

  Channel *channel = ChannelNew(-1, -1);
  const std::string fed = scramble ? Scrambled(key, plain) : plain;
  ChannelMemoryReader(channel, fed.data(), fed.size());
  if (scramble) ChannelSetObfuscationKey(channel, key);
  ReadAndCompare(channel, ops, plain);

  // Round trip: write in pieces cut by the operation bytes, read back.
  UByteArray written{};
  ChannelMemoryWriter(channel, &written);
  ChannelSetObfuscationKey(channel, key);
  for (size_t done = 0, i = 0; done < plain.size(); ++i) {
    size_t piece = ops.empty() ? plain.size() : 1 + static_cast<unsigned char>(ops[i % ops.size()]) * 97u;
    piece = std::min(piece, plain.size() - done);
    Require(ChannelWriteBuf(channel, plain.data() + done, piece) == 1, "write");
    done += piece;
  }
  Require(ChannelFlush(channel) == 1, "flush");
  const std::string wire(reinterpret_cast<char *>(written.elements), written.count);
  Require(wire == Scrambled(key, plain), "scrambled bytes");
  ChannelMemoryReader(channel, written.elements, written.count);
  ChannelSetObfuscationKey(channel, key);
  std::string back(plain.size(), '\0');
  size_t count = 0;
  ChannelReadBuf(channel, back.data(), back.size(), &count);
  Require(count == plain.size() && back == plain, "unscrambled bytes");
  ChannelClose(channel);
  ArrayFree_(&written);
  return 0;
}
