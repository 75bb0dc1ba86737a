// Load: an echo server built on TCPServerAccept, ChannelSelectEx, select
// events and buffered channel reads and writes serves many loopback clients
// a mix of line and binary records; every byte must come back unchanged and
// no descriptor may leak. The same echo written on plain poll(2) runs in the
// same process as the baseline; requests per second of both are printed
// (speed is reported, never asserted).
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kz/channel.h"
#include "kz/error.h"
#include "kz/select.h"
#include "kz/server.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Fd;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// 200 clients x 1,000 requests; sanitizer builds (or KZ_LOAD_SCALE=<percent>)
// run a smaller share so that the whole suite stays fast.
struct Load {
  int clients, requests;
};
Load ChosenLoad() {
  const char *scale = std::getenv("KZ_LOAD_SCALE");
  const int percent = std::clamp(scale ? std::atoi(scale) : kSanitized ? 10 : 100, 1, 100);
  return {std::max(4, 200 * percent / 100), std::max(10, 1000 * percent / 100)};
}

constexpr int kWorkers = 4;        // each serves its share with one wait
constexpr int kClientThreads = 4;  // each drives its share of connections

int OpenDescriptors() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (dirent *entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

// Request i of connection c: two lines in three, else a binary record
// 'B' + 32-bit little-endian length + bytes (lengths 1 to 2,000).
std::string Request(int c, int i) {
  uint32_t mix = uint32_t(c) * 2654435761u ^ uint32_t(i) * 40503u;
  if (i % 3 != 2) {
    std::string line = "L " + std::to_string(c) + " " + std::to_string(i) + " ";
    for (uint32_t k = 0, n = mix % 200; k < n; ++k) line += char('a' + (mix >> (k % 24)) % 26);
    return line + "\n";
  }
  uint32_t length = 1 + mix % 2000;
  std::string record = "B";
  for (int k = 0; k < 4; ++k) record += char((length >> (8 * k)) & 0xFF);
  for (uint32_t k = 0; k < length; ++k) record += char((mix + k * 131u) >> 3);  // every byte value occurs
  return record;
}

// ---- the clients (plain sockets, shared by both servers) ----------------------------

struct ClientResult {
  std::atomic<long> verified{0}, corrupted{0}, failures{0};
};

// Drives connections [first, first + count): one outstanding request each.
void DriveClients(uint16_t port, int first, int count, int requests, ClientResult *result) {
  struct Connection {
    Fd fd;
    int next = 0;
    std::string expected, received;
  };
  std::vector<Connection> connections(static_cast<size_t>(count));
  std::vector<pollfd> entries;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int k = 0; k < count; ++k) {
    Connection &connection = connections[size_t(k)];
    connection.fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    setsockopt(connection.fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(connection.fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
      ++result->failures;
      return;
    }
    connection.expected = Request(first + k, 0);
    if (!kztest::WriteAll(connection.fd.get(), connection.expected)) ++result->failures;
    entries.push_back(pollfd{connection.fd.get(), POLLIN, 0});
  }
  int active = count;
  char chunk[8192];
  while (active > 0) {
    if (poll(entries.data(), entries.size(), 30000) <= 0) {
      ++result->failures;
      return;
    }
    for (size_t k = 0; k < entries.size(); ++k) {
      if (!entries[k].revents) continue;
      Connection &connection = connections[k];
      ssize_t n = read(connection.fd.get(), chunk, sizeof chunk);
      if (n <= 0) {
        ++result->failures;
        return;
      }
      connection.received.append(chunk, size_t(n));
      if (connection.received.size() < connection.expected.size()) continue;
      if (connection.received == connection.expected)
        ++result->verified;
      else
        ++result->corrupted;
      connection.received.clear();
      if (++connection.next == requests) {
        connection.fd.reset();  // the server sees end of input
        entries[k].fd = -1;
        --active;
        continue;
      }
      connection.expected = Request(first + int(k), connection.next);
      if (!kztest::WriteAll(connection.fd.get(), connection.expected)) ++result->failures;
    }
  }
}

double RunClients(uint16_t port, const Load &load, ClientResult *result) {
  auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  int per = (load.clients + kClientThreads - 1) / kClientThreads;
  for (int t = 0, first = 0; t < kClientThreads && first < load.clients; ++t, first += per) {
    int count = std::min(per, load.clients - first);
    threads.emplace_back(DriveClients, port, first, count, load.requests, result);
  }
  for (auto &thread : threads) thread.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- the echo server on the library -----------------------------------------------------

// One worker: its channels and the select event through which the acceptor
// hands it new ones.
struct Worker {
  std::mutex mutex;
  std::deque<Channel *> incoming;
  ChannelSelectEvent event;
  std::atomic<bool> stop{false};
  std::atomic<long> errors{0};
};

// Echoes one record; false at end of input or on an error.
bool EchoRecord(Channel *channel, UByteArray *line, std::vector<unsigned char> *body) {
  int first = ChannelPeekByte(channel);
  if (first < 0) return false;
  if (first == 'L') {
    if (!ChannelReadLine(channel, line, 0)) return false;
    return ChannelWriteBuf(channel, line->elements, line->count) && ChannelWriteBuf(channel, "\n", 1) &&
           ChannelFlush(channel);
  }
  uint32_t length = 0;
  if (ChannelReadByte(channel) != 'B' || !ChannelReadUIntLE(channel, &length) || length > 1u << 20) return false;
  body->resize(length);
  if (ChannelReadBuf(channel, body->data(), length, nullptr) != KZ_RECEIVE_OK) return false;
  return ChannelWriteBuf(channel, "B", 1) && ChannelWriteUIntLE(channel, length) &&
         ChannelWriteBuf(channel, body->data(), length) && ChannelFlush(channel);
}

void RunWorker(Worker *worker) {
  Channel *wake = ChannelNew(-1, -1);
  ChannelSetChannelFD(wake, ChannelSelectEventGetFD(&worker->event), 0);
  std::vector<Channel *> channels{wake};
  UByteArray flags{}, line{};
  std::vector<unsigned char> body;
  for (;;) {
    if (ChannelSelectEx(nullptr, channels.data(), uint32_t(channels.size()), &flags, 30000) != 0) {
      ++worker->errors;
      break;
    }
    if (flags.elements[0]) {
      ChannelSelectEventNotifyReset(&worker->event);
      std::lock_guard<std::mutex> hold(worker->mutex);
      for (Channel *c : worker->incoming) channels.push_back(c);
      worker->incoming.clear();
    }
    bool closedAny = false;
    for (size_t k = 1; k < flags.count; ++k) {
      if (!flags.elements[k]) continue;
      Channel *channel = channels[k];
      bool open = EchoRecord(channel, &line, &body);
      // Records already buffered are served now: this wait ignores buffers.
      while (open && channel->readPos != channel->readFill) open = EchoRecord(channel, &line, &body);
      if (!open) {
        if (ChannelPeekByte(channel) != KZ_RECEIVE_EOF) ++worker->errors;
        ChannelClose(channel);
        channels[k] = nullptr;
        closedAny = true;
      }
    }
    if (closedAny) std::erase(channels, nullptr);
    if (worker->stop && channels.size() == 1) break;
  }
  for (size_t k = 1; k < channels.size(); ++k) ChannelClose(channels[k]);
  ChannelClose(wake);
  ArrayFree_(&flags);
  ArrayFree_(&line);
}

// Accepts every client and deals the channels out to the workers.
double RunLibraryEcho(const Load &load, ClientResult *result, long *serverErrors) {
  TCPAddr loopback;
  TCPAddrLocal(&loopback, KZ_FAMILY_IPV4, 0);
  TCPServer *server = TCPServerOpen(&loopback);
  if (!server) return -1;
  TCPAddr bound;
  TCPServerGetAddr(server, &bound);
  Worker workers[kWorkers];
  std::vector<std::thread> threads;
  for (Worker &worker : workers) {
    if (ChannelSelectEventNew(&worker.event)->socket == KZ_INVALID_HANDLE) return -1;
    threads.emplace_back(RunWorker, &worker);
  }
  std::thread acceptor([&] {
    for (int k = 0; k < load.clients; ++k) {
      Channel *channel = ChannelNew(-1, -1);
      if (!TCPServerAccept(server, channel)) {
        ChannelClose(channel);
        ++workers[0].errors;
        break;
      }
      Worker &worker = workers[k % kWorkers];
      {
        std::lock_guard<std::mutex> hold(worker.mutex);
        worker.incoming.push_back(channel);
      }
      ChannelSelectEventNotify(&worker.event);
    }
  });
  double seconds = RunClients(bound.port, load, result);
  acceptor.join();
  for (Worker &worker : workers) {
    worker.stop = true;
    ChannelSelectEventNotify(&worker.event);
  }
  for (auto &thread : threads) thread.join();
  for (Worker &worker : workers) {
    *serverErrors += worker.errors;
    ChannelSelectEventFree(&worker.event);
  }
  TCPServerClose(server);
  return seconds;
}

// ---- the same echo on plain poll(2) -------------------------------------------------------

// The baseline echoes bytes as they come: with one outstanding request per
// client the responses are the same records.
double RunPollEcho(const Load &load, ClientResult *result) {
  kztest::Listener listener;
  listen(listener.fd(), SOMAXCONN);  // the library's server has the system's largest backlog too
  std::atomic<bool> stop{false};
  std::atomic<int> accepted{0};
  struct Share {
    std::mutex mutex;
    std::vector<int> incoming;
    int wake[2];
  } shares[kWorkers];
  std::vector<std::thread> threads;
  for (Share &share : shares) {
    if (pipe2(share.wake, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    threads.emplace_back([&share, &stop] {
      std::vector<pollfd> entries{pollfd{share.wake[0], POLLIN, 0}};
      char chunk[16384];
      for (;;) {
        if (poll(entries.data(), entries.size(), 30000) <= 0) break;
        if (entries[0].revents) {
          while (read(share.wake[0], chunk, sizeof chunk) > 0) {}
          std::lock_guard<std::mutex> hold(share.mutex);
          for (int fd : share.incoming) entries.push_back(pollfd{fd, POLLIN, 0});
          share.incoming.clear();
        }
        for (size_t k = 1; k < entries.size(); ++k) {
          if (!entries[k].revents) continue;
          ssize_t n = read(entries[k].fd, chunk, sizeof chunk);
          if (n <= 0 || !kztest::WriteAll(entries[k].fd, chunk, size_t(n))) {
            close(entries[k].fd);
            entries[k].fd = -1;
          }
        }
        std::erase_if(entries, [](const pollfd &entry) { return entry.fd < 0; });
        if (stop && entries.size() == 1) break;
      }
      for (size_t k = 1; k < entries.size(); ++k) close(entries[k].fd);
    });
  }
  std::thread acceptor([&] {
    for (int k = 0; k < load.clients; ++k) {
      Fd fd = listener.Accept();
      if (fd.get() < 0) break;
      int on = 1;
      setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      Share &share = shares[k % kWorkers];
      {
        std::lock_guard<std::mutex> hold(share.mutex);
        share.incoming.push_back(fd.release());
      }
      if (write(share.wake[1], "", 1) < 0) {}
      ++accepted;
    }
  });
  double seconds = RunClients(listener.port(), load, result);
  acceptor.join();
  stop = true;
  for (Share &share : shares)
    if (write(share.wake[1], "", 1) < 0) {}
  for (auto &thread : threads) thread.join();
  for (Share &share : shares) {
    close(share.wake[0]);
    close(share.wake[1]);
  }
  return seconds;
}

TEST(ServerLoad, EchoServerKeepsEveryByteAndEveryDescriptor) {
  const Load load = ChosenLoad();
  const long total = long(load.clients) * load.requests;
  const int descriptorsBefore = OpenDescriptors();

  ClientResult library;
  long serverErrors = 0;
  double librarySeconds = RunLibraryEcho(load, &library, &serverErrors);
  ASSERT_GT(librarySeconds, 0) << KZErrorMessage();
  EXPECT_EQ(library.failures.load(), 0);
  EXPECT_EQ(library.corrupted.load(), 0);
  EXPECT_EQ(library.verified.load(), total);
  EXPECT_EQ(serverErrors, 0);
  EXPECT_EQ(OpenDescriptors(), descriptorsBefore);

  ClientResult plain;
  double pollSeconds = RunPollEcho(load, &plain);
  ASSERT_GT(pollSeconds, 0);
  EXPECT_EQ(plain.verified.load(), total);  // the baseline is held to the same check
  EXPECT_EQ(OpenDescriptors(), descriptorsBefore);

  double libraryRate = double(total) / librarySeconds, pollRate = double(total) / pollSeconds;
  std::printf("echo load: %d clients x %d requests (%ld records)%s\n", load.clients, load.requests, total,
              kSanitized ? " [sanitizer build: scaled down]" : "");
  std::printf("  library (TCPServerAccept + ChannelSelectEx + channels): %.0f requests/s (%.2f s)\n", libraryRate,
              librarySeconds);
  std::printf("  plain poll(2) echo:                                     %.0f requests/s (%.2f s)\n", pollRate,
              pollSeconds);
  std::printf("  ratio library / poll: %.2f (target >= 0.80)\n", libraryRate / pollRate);
}

}  // namespace
