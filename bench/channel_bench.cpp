// Channel throughput against what a caller would otherwise write, each pair
// measured in alternation by kzbench::Versus on the calling thread's CPU
// clock (counter time_vs_kz: the other side's time over the channel's, above
// 1 means the channel was faster):
//   BM_TcpBulkWrite / BM_TcpBulkRead  16 MiB per batch over TCP loopback in
//       64 KiB pieces: ChannelWriteBuf / ChannelReadBuf against send / recv
//       loops, a plain peer draining or feeding the other end;
//   BM_TcpRecords64  4,096 records of 64 bytes per batch, one ChannelWriteBuf
//       each (then one flush) against one send() each;
//   BM_ReadLineFile  every line of a 256 MiB file: ChannelReadLine against
//       getline(3) (and GLib's g_io_channel_read_line when GLib is there);
//   BM_LocalVsTcp  16 MiB of 64 KiB ChannelWriteBuf pieces over a local
//       connection against the same over TCP loopback.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../tests/net_support.h"
#include "bench_support.h"
#include "kz/channel.h"

#ifdef KZ_BENCH_HAVE_GLIB
#include <glib.h>
#endif

namespace {

using kzbench::Expect;
using kzbench::Versus;
using kztest::Fd;

constexpr size_t kBatch = 16u << 20;
constexpr size_t kPiece = 64u << 10;

// A peer that reads and drops everything until end of input.
class Drain {
 public:
  explicit Drain(Fd fd)
      : fd_(std::move(fd)), thread_([this] {
          std::vector<char> buffer(1 << 20);
          while (read(fd_.get(), buffer.data(), buffer.size()) > 0) {}
        }) {}
  ~Drain() { thread_.join(); }

 private:
  Fd fd_;
  std::thread thread_;
};

// A peer that writes without end until the connection goes.
class Feeder {
 public:
  explicit Feeder(Fd fd)
      : fd_(std::move(fd)), thread_([this] {
          std::vector<char> buffer(1 << 20, 'f');
          while (send(fd_.get(), buffer.data(), buffer.size(), MSG_NOSIGNAL) > 0) {}
        }) {}
  ~Feeder() {
    shutdown(fd_.get(), SHUT_RDWR);
    thread_.join();
  }

 private:
  Fd fd_;
  std::thread thread_;
};

// A channel connected to a listener, and the accepted peer socket.
Channel *ConnectedChannel(Fd *peer) {
  kztest::Listener listener;
  TCPAddr address = listener.Address();
  Channel *channel = ChannelNew(-1, -1);
  Expect(ChannelConnect(channel, &address) == 1, "connect");
  *peer = listener.Accept();
  return channel;
}

void BM_TcpBulkWrite(benchmark::State &state) {
  std::vector<char> data(kPiece, 'd');
  Fd channelPeer;
  Channel *channel = ConnectedChannel(&channelPeer);
  auto [client, server] = kztest::TcpPair();
  {
    Drain drainChannel(std::move(channelPeer)), drainRaw(std::move(server));
    Versus(
        state,
        [&] {
          for (size_t done = 0; done < kBatch; done += kPiece)
            Expect(ChannelWriteBuf(channel, data.data(), kPiece) == 1, "channel write");
          Expect(ChannelFlush(channel) == 1, "flush");
        },
        [&] {
          for (size_t done = 0; done < kBatch; done += kPiece)
            Expect(kztest::WriteAll(client.get(), data.data(), kPiece), "send");
        });
    ChannelDisconnect(channel);
    client.reset();
  }
  ChannelClose(channel);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBatch));
}
BENCHMARK(BM_TcpBulkWrite)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_TcpBulkRead(benchmark::State &state) {
  std::vector<char> data(kPiece);
  Fd channelPeer;
  Channel *channel = ConnectedChannel(&channelPeer);
  auto [client, server] = kztest::TcpPair();
  {
    Feeder feedChannel(std::move(channelPeer)), feedRaw(std::move(server));
    Versus(
        state,
        [&] {
          size_t count;
          for (size_t done = 0; done < kBatch; done += kPiece)
            Expect(ChannelReadBuf(channel, data.data(), kPiece, &count) == 0, "channel read");
        },
        [&] {
          for (size_t done = 0; done < kBatch;) {
            ssize_t n = recv(client.get(), data.data(), kPiece, 0);
            Expect(n > 0, "recv");
            done += size_t(n);
          }
        });
    ChannelDisconnect(channel);
    client.reset();
  }
  ChannelClose(channel);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBatch));
}
BENCHMARK(BM_TcpBulkRead)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_TcpRecords64(benchmark::State &state) {
  constexpr int kRecords = 4096;
  char record[64];
  memset(record, 'r', sizeof record);
  Fd channelPeer;
  Channel *channel = ConnectedChannel(&channelPeer);
  auto [client, server] = kztest::TcpPair();
  {
    Drain drainChannel(std::move(channelPeer)), drainRaw(std::move(server));
    Versus(
        state,
        [&] {
          for (int i = 0; i < kRecords; ++i) Expect(ChannelWriteBuf(channel, record, sizeof record) == 1, "write");
          Expect(ChannelFlush(channel) == 1, "flush");
        },
        [&] {
          for (int i = 0; i < kRecords; ++i) Expect(kztest::WriteAll(client.get(), record, sizeof record), "send");
        });
    ChannelDisconnect(channel);
    client.reset();
  }
  ChannelClose(channel);
  state.SetItemsProcessed(int64_t(state.iterations()) * kRecords);
}
BENCHMARK(BM_TcpRecords64)->UseManualTime()->Unit(benchmark::kMillisecond);

// A 256 MiB file of text lines of 1 to 200 bytes, some ending in CR LF.
const std::string &LineFile(size_t *lineCount) {
  static size_t lines = 0;
  static const std::string path = [] {
    std::string name = "/tmp/kzbench-lines-" + std::to_string(getpid());
    FILE *file = fopen(name.c_str(), "wb");
    std::mt19937 rng(7);
    std::string line;
    for (size_t written = 0; written < (256u << 20);) {
      size_t length = 1 + rng() % 200;
      line.assign(length, 'a' + char(rng() % 26));
      line += (rng() % 4 == 0) ? "\r\n" : "\n";
      fwrite(line.data(), 1, line.size(), file);
      written += line.size();
      ++lines;
    }
    fclose(file);
    return name;
  }();
  *lineCount = lines;
  return path;
}

void BM_ReadLineFile(benchmark::State &state) {
  size_t expected;
  const std::string &path = LineFile(&expected);
  Channel *channel = ChannelNew(-1, -1);
  UByteArray line{};
  auto kz = [&] {
    Expect(ChannelOpenFile(channel, path.c_str(), "r") == 1, "open");
    size_t count = 0;
    while (ChannelReadLine(channel, &line, 0)) ++count;
    Expect(count == expected, "ChannelReadLine count");
  };
  if (state.range(0) == 0) {
    Versus(state, kz, [&] {
      FILE *file = fopen(path.c_str(), "rb");
      char *text = nullptr;
      size_t capacity = 0, count = 0;
      while (getline(&text, &capacity, file) > 0) ++count;
      free(text);
      fclose(file);
      Expect(count == expected, "getline count");
    });
  } else {
#ifdef KZ_BENCH_HAVE_GLIB
    Versus(state, kz, [&] {
      GIOChannel *io = g_io_channel_new_file(path.c_str(), "r", nullptr);
      g_io_channel_set_encoding(io, nullptr, nullptr);
      gchar *text;
      gsize length;
      size_t count = 0;
      while (g_io_channel_read_line(io, &text, &length, nullptr, nullptr) == G_IO_STATUS_NORMAL) {
        g_free(text);
        ++count;
      }
      g_io_channel_unref(io);
      Expect(count == expected, "g_io_channel_read_line count");
    });
#else
    state.SkipWithError("GLib not available");
#endif
  }
  ArrayFree_(&line);
  ChannelClose(channel);
}
BENCHMARK(BM_ReadLineFile)->Arg(0)->Arg(1)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_LocalVsTcp(benchmark::State &state) {
  std::vector<char> data(kPiece, 'l');
  const uint16_t port = static_cast<uint16_t>(getpid());
  kztest::LocalListener listener("sock", "bench", port);
  Expect(listener.ok(), "local listener");
  TCPAddr localAddress{};
  localAddress.family = KZ_FAMILY_LOCAL;
  strcpy(reinterpret_cast<char *>(localAddress.address), "bench");
  localAddress.port = port;
  Channel *local = ChannelNew(-1, -1);
  Expect(ChannelConnect(local, &localAddress) == 1, "local connect");
  Fd tcpPeer;
  Channel *tcp = ConnectedChannel(&tcpPeer);
  {
    Drain drainLocal(listener.Accept()), drainTcp(std::move(tcpPeer));
    auto writeAll = [&](Channel *channel) {
      for (size_t done = 0; done < kBatch; done += kPiece)
        Expect(ChannelWriteBuf(channel, data.data(), kPiece) == 1, "write");
      Expect(ChannelFlush(channel) == 1, "flush");
    };
    Versus(
        state, [&] { writeAll(local); }, [&] { writeAll(tcp); });
    ChannelDisconnect(local);
    ChannelDisconnect(tcp);
  }
  ChannelClose(local);
  ChannelClose(tcp);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBatch));
}
BENCHMARK(BM_LocalVsTcp)->UseManualTime()->Unit(benchmark::kMillisecond);

struct RemoveLineFile {
  ~RemoveLineFile() { unlink(("/tmp/kzbench-lines-" + std::to_string(getpid())).c_str()); }
} g_removeLineFile;

}  // namespace
