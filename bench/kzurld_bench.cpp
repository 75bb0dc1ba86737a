// kzurld's throughput on loopback: requests per second with 1, 8 and 64
// connections, each keeping a pipeline of requests in flight, and with 8 TLS
// connections, next to the URL work alone (parse, normalise, print,
// fingerprint, format the answer) in one thread. The difference is what the server adds: reading and cutting lines,
// the waits, the writes, and the client's side of the loopback.
//
// The server is the built kzurld program with its default 4 workers, started
// once on a port the system picks (and a TLS port, with a self-signed
// certificate made by the openssl command when it is there). Lines: the
// shared real URL list when present, else the generated URL corpus.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "kz/kzlib.h"

#ifndef KZURLD_PATH
#define KZURLD_PATH ""
#endif
#ifndef KZ_URL_CORPUS
#define KZ_URL_CORPUS ""
#endif

namespace {

constexpr size_t kDepth = 128;  // requests a connection keeps in flight

std::vector<std::string> LoadLines() {
  std::vector<std::string> lines;
  for (std::string path : {std::string(KZ_BENCH_DATA) + "/urls-kasztp.txt", std::string(KZ_URL_CORPUS)}) {
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);)
      if (!line.empty() && line != "\r") lines.push_back(line);
    if (!lines.empty()) break;
  }
  return lines;
}

const std::vector<std::string> &Lines() {
  static const std::vector<std::string> lines = LoadLines();
  return lines;
}

// kzurld, started on first use and stopped at exit.
struct ServerProcess {
  pid_t pid = -1;
  uint16_t port = 0, tlsPort = 0;
  std::string certificateDir;
  ServerProcess() {
    if (!*KZURLD_PATH) return;
    char dir[] = "/tmp/kzurld-bench-XXXXXX";
    if (mkdtemp(dir)) {
      const std::string make = std::string("cd ") + dir +
                               " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1"
                               " -subj /CN=localhost -keyout key.pem -out cert.pem >/dev/null 2>&1";
      certificateDir = dir;
      if (std::system(make.c_str()) != 0) certificateDir.clear(), rmdir(dir);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    if ((pid = fork()) == 0) {
      dup2(ends[1], 1);
      std::string local = "kzb" + std::to_string(getpid() % 100000);
      std::string cert = certificateDir + "/cert.pem", key = certificateDir + "/key.pem";
      if (certificateDir.empty())
        execl(KZURLD_PATH, KZURLD_PATH, "--port", "0", "--local", local.c_str(), static_cast<char *>(nullptr));
      else
        execl(KZURLD_PATH, KZURLD_PATH, "--port", "0", "--local", local.c_str(), "--tls-port", "0", "--cert",
              cert.c_str(), "--key", key.c_str(), static_cast<char *>(nullptr));
      _exit(127);
    }
    close(ends[1]);
    std::string log;
    std::smatch match;
    static const std::regex ready("ready on 127\\.0\\.0\\.1:([0-9]+) ");
    char chunk[4096];
    while (!std::regex_search(log, match, ready)) {
      pollfd entry{ends[0], POLLIN, 0};
      ssize_t n = poll(&entry, 1, 20000) == 1 ? read(ends[0], chunk, sizeof chunk) : -1;
      if (n <= 0) break;
      log.append(chunk, static_cast<size_t>(n));
    }
    if (std::regex_search(log, match, ready)) port = static_cast<uint16_t>(std::stoul(match[1]));
    static const std::regex tls("tls:127\\.0\\.0\\.1:([0-9]+) ");
    if (std::regex_search(log, match, tls)) tlsPort = static_cast<uint16_t>(std::stoul(match[1]));
    close(ends[0]);
  }
  ~ServerProcess() {
    if (!certificateDir.empty()) std::system(("rm -rf '" + certificateDir + "'").c_str());
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
};

ServerProcess &Server() {
  static ServerProcess server;
  return server;
}

int Connect(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

// One connection's share: `requests` lines starting at `first`, sent kDepth at
// a time, each batch's answers read before the next goes out; the answer
// lines counted. Returns the answers received.
size_t RunConnection(int fd, size_t first, size_t requests) {
  const std::vector<std::string> &lines = Lines();
  std::string batch;
  char buffer[65536];
  size_t answered = 0;
  for (size_t sent = 0; sent < requests;) {
    batch.clear();
    size_t count = std::min(kDepth, requests - sent);
    for (size_t i = 0; i < count; ++i) batch += lines[(first + sent + i) % lines.size()] + "\n";
    for (size_t at = 0; at < batch.size();) {
      ssize_t n = send(fd, batch.data() + at, batch.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return answered;
      at += static_cast<size_t>(n);
    }
    sent += count;
    for (size_t got = 0; got < count;) {
      ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return answered;
      for (ssize_t i = 0; i < n; ++i) got += buffer[i] == '\n';
    }
    answered += count;
  }
  return answered;
}

// Requests per second through kzurld with state.range(0) connections.
void BM_Server(benchmark::State &state) {
  ServerProcess &server = Server();
  if (server.port == 0) return state.SkipWithError("kzurld is not built or did not start");
  const size_t connections = static_cast<size_t>(state.range(0));
  const size_t perConnection = 20000 / connections + kDepth;
  std::vector<int> fds;
  for (size_t c = 0; c < connections; ++c) fds.push_back(Connect(server.port));
  for (int fd : fds)
    if (fd < 0) return state.SkipWithError("cannot connect to kzurld");
  size_t total = 0;
  for (auto _ : state) {
    std::atomic<size_t> answered{0};
    std::vector<std::thread> threads;
    for (size_t c = 0; c < connections; ++c)
      threads.emplace_back([&, c] { answered += RunConnection(fds[c], c * 997, perConnection); });
    for (std::thread &thread : threads) thread.join();
    if (answered != connections * perConnection) return state.SkipWithError("answers went missing");
    total += answered;
  }
  for (int fd : fds) close(fd);
  state.counters["requests_per_s"] = benchmark::Counter(double(total), benchmark::Counter::kIsRate);
  state.SetItemsProcessed(int64_t(total));
}
BENCHMARK(BM_Server)->Arg(1)->Arg(8)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2);

// One TLS connection's share, as RunConnection, through the library's SSL
// channels (no certificate check: the cost is what is measured).
size_t RunTlsConnection(Channel *channel, size_t first, size_t requests) {
  const std::vector<std::string> &lines = Lines();
  std::string batch;
  char buffer[65536];
  size_t answered = 0;
  for (size_t sent = 0; sent < requests;) {
    batch.clear();
    size_t count = std::min(kDepth, requests - sent);
    for (size_t i = 0; i < count; ++i) batch += lines[(first + sent + i) % lines.size()] + "\n";
    if (!ChannelWriteBuf(channel, batch.data(), batch.size()) || !ChannelFlush(channel)) return answered;
    sent += count;
    for (size_t got = 0; got < count;) {
      size_t n = 0;
      int result = ChannelReceive(channel, buffer, sizeof buffer, 0, &n, 1);
      if (n == 0 && result < 0) return answered;
      for (size_t i = 0; i < n; ++i) got += buffer[i] == '\n';
    }
    answered += count;
  }
  return answered;
}

// Requests per second through kzurld's TLS port with state.range(0)
// connections (handshakes before the timing).
void BM_ServerTls(benchmark::State &state) {
  ServerProcess &server = Server();
  if (server.tlsPort == 0) return state.SkipWithError("kzurld has no TLS port (no openssl command?)");
  static const bool started = (KZLibInit(nullptr), true);
  (void)started;
  const size_t connections = static_cast<size_t>(state.range(0));
  const size_t perConnection = 20000 / connections + kDepth;
  std::vector<Channel *> channels;
  TCPAddr address;
  const std::string where = "127.0.0.1:" + std::to_string(server.tlsPort);
  TCPAddrSetHostPort(&address, where.c_str());
  bool connected = true;
  for (size_t c = 0; c < connections; ++c) {
    Channel *channel = ChannelNewEx(30000, 30000, 10000);
    connected = connected && ChannelSetSSL(channel, 1) && ChannelConnect(channel, &address);
    channels.push_back(channel);
  }
  size_t total = 0;
  if (!connected) state.SkipWithError("cannot connect to kzurld's TLS port");
  for (auto _ : state) {
    if (!connected) break;
    std::atomic<size_t> answered{0};
    std::vector<std::thread> threads;
    for (size_t c = 0; c < connections; ++c)
      threads.emplace_back([&, c] { answered += RunTlsConnection(channels[c], c * 997, perConnection); });
    for (std::thread &thread : threads) thread.join();
    if (answered != connections * perConnection) {
      state.SkipWithError("answers went missing");
      break;
    }
    total += answered;
  }
  for (Channel *channel : channels) ChannelClose(channel);
  state.counters["requests_per_s"] = benchmark::Counter(double(total), benchmark::Counter::kIsRate);
  state.SetItemsProcessed(int64_t(total));
}
BENCHMARK(BM_ServerTls)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2);

// The same work without the server: what one worker does per request.
void BM_UrlWorkOneThread(benchmark::State &state) {
  const std::vector<std::string> &lines = Lines();
  URL *url = URLNew(), *normal = URLNew();
  UByteArray printed{}, answer{};
  size_t total = 0;
  for (auto _ : state) {
    for (const std::string &line : lines) {
      answer.count = 0;
      if (!URLParse2(line.c_str(), url, nullptr, 1, 1)) {
        UByteArrayPrintf(&answer, "ERR %s\n", KZErrorMessage());
      } else {
        URLNormalize2(normal, url, 1);
        UByteArrayPrintf(&answer, "%s %016" PRIx64 "\n", URLPrint(&printed, normal), URLFingerprint(normal, 0));
      }
      benchmark::DoNotOptimize(answer.elements);
    }
    total += lines.size();
  }
  state.counters["requests_per_s"] = benchmark::Counter(double(total), benchmark::Counter::kIsRate);
  state.SetItemsProcessed(int64_t(total));
  URLDelete(url);
  URLDelete(normal);
  ArrayFree(printed);
  ArrayFree(answer);
}
BENCHMARK(BM_UrlWorkOneThread)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2);

}  // namespace
