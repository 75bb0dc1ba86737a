// kzurld under a scripted load: 1,000 requests over 50 connections at once,
// good and bad lines mixed, requests cut at random points, clients that
// vanish in the middle of a line and clients that end on half a line, some
// of them over TLS; every answer is held to the line kzurl prints for the
// same request.
#include <latch>
#include <thread>

#include "kz/kzlib.h"
#include "kzurld_support.h"

namespace {

using namespace kztest;
using namespace std::chrono_literals;

constexpr int kConnections = 50;
constexpr int kRequestsEach = 20;

enum class Ending {
  kClose,     // reads every answer, then closes
  kVanish,    // reads every answer, sends half a line and resets the connection
  kHalfLine,  // ends on half a line and a half-close: that line is answered too
};

struct Script {
  uint32_t family;
  bool tls = false;  // through the TLS port (IPv4 or IPv6)
  Ending ending;
  std::vector<size_t> requests;  // indexes into the lines
  std::string tail;              // half a line, for kVanish and kHalfLine
  std::string expected, received;
  bool closedAfter = false;
};

#if KZ_WITH_SSL
// A TLS client through the library's channels (no certificate check: the
// answers are what is tested here); null when it cannot connect.
Channel *ConnectTls(uint32_t family, uint16_t port) {
  TCPAddr address;
  const std::string where = (family == KZ_FAMILY_IPV6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port);
  Channel *channel = ChannelNewEx(60000, 60000, 10000);
  if (!TCPAddrSetHostPort(&address, where.c_str()) || !ChannelSetSSL(channel, 1) ||
      !ChannelConnect(channel, &address)) {
    ChannelClose(channel);
    return nullptr;
  }
  return channel;
}

// Sends the requests in the given pieces (each flushed: records end
// anywhere), then reads until `lines` line feeds or the end.
std::string TalkTls(Channel *channel, const std::string &requests, std::mt19937 &cuts, size_t lines) {
  for (size_t at = 0; at < requests.size();) {
    size_t piece = std::min<size_t>(1 + cuts() % 700, requests.size() - at);
    if (!ChannelWriteBuf(channel, requests.data() + at, piece) || !ChannelFlush(channel)) return "(cannot send)";
    at += piece;
  }
  std::string received;
  for (size_t seen = 0; seen < lines;) {
    int c = ChannelReadByte(channel);
    if (c < 0) break;
    received += static_cast<char>(c);
    seen += c == '\n';
  }
  return received;
}
#endif

TEST(KzurldLoad, ThousandRequestsOverFiftyConnectionsMatchKzurl) {
  if (!ToolsBuilt()) GTEST_SKIP() << "kzurld, kzurlc or kzurl is not built (examples are off)";
  // TLS connections take part when the library and the openssl command allow
  // (the channels' SSL is started once, before the descriptors are counted).
  const bool tls = TlsMissing().empty();
  if (tls) KZLibInit(nullptr);
  if (!tls) std::cout << "no TLS connections in this run: " << TlsMissing() << "\n";
  const int descriptors = OpenDescriptors();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration() + (tls ? TlsFiles::Get().Configuration() : "")))
      << server.log() << server.Errors();

  // Every request line and every half line, with kzurl's answer to each.
  Lines lines = MixedLines();
  const size_t requestLines = lines.size();
  std::mt19937 random(20240917);
  std::vector<Script> scripts(kConnections);
  for (int c = 0; c < kConnections; ++c) {
    Script &script = scripts[c];
    script.family = c % 3 == 0 ? KZ_FAMILY_IPV4 : c % 3 == 1 ? KZ_FAMILY_IPV6 : KZ_FAMILY_LOCAL;
    script.ending = c % 10 == 3 ? Ending::kVanish : c % 10 == 7 ? Ending::kHalfLine : Ending::kClose;
    // Every fifth connection over TLS: half of them vanish mid-line. (A TLS
    // client cannot half-close without ending its session, so none ends on
    // half a line.)
    script.tls = tls && c % 5 == 3;
    if (script.tls) script.family = c % 2 ? KZ_FAMILY_IPV4 : KZ_FAMILY_IPV6;
    for (int r = 0; r < kRequestsEach; ++r) script.requests.push_back(random() % requestLines);
    if (script.ending != Ending::kClose) {
      const std::string &whole = lines[random() % 8];  // the first lines are well-formed URLs
      script.tail = whole.substr(0, whole.size() / 2);
      lines.push_back(script.tail);
    }
  }
  const Lines answers = KzurlAnswers(server.dir(), lines);
  size_t tail = requestLines, answered = 0;
  for (Script &script : scripts) {
    for (size_t index : script.requests) {
      ASSERT_FALSE(answers[index].empty()) << "request line " << index << " gets no answer";
      script.expected += answers[index] + "\n";
      ++answered;
    }
    if (script.ending == Ending::kHalfLine) script.expected += answers[tail] + "\n";
    if (script.ending != Ending::kClose) ++tail;
  }
  ASSERT_EQ(answered, size_t(kConnections * kRequestsEach));

  std::latch start(kConnections);
  std::vector<std::thread> clients;
  for (int c = 0; c < kConnections; ++c) {
    clients.emplace_back([&, c] {
      Script &script = scripts[c];
#if KZ_WITH_SSL
      if (script.tls) {
        Channel *channel = ConnectTls(script.family, server.tlsPort());
        start.arrive_and_wait();
        if (!channel) return ADD_FAILURE() << "TLS connection " << c << " failed: " << KZErrorMessage();
        std::mt19937 cuts(c);
        std::string requests;
        for (size_t index : script.requests) requests += lines[index] + "\n";
        script.received = TalkTls(channel, requests, cuts, kRequestsEach);
        if (script.ending == Ending::kVanish) {
          // Half a line, then the socket goes without any TLS goodbye.
          ChannelWriteBuf(channel, script.tail.data(), script.tail.size());
          ChannelFlush(channel);
          ChannelDisconnect(channel);
        }
        ChannelClose(channel);
        return;
      }
#endif
      Fd fd = server.Connect(script.family);
      if (fd.get() < 0) return ADD_FAILURE() << "connection " << c << " failed";
      std::mt19937 cuts(c);
      std::string requests;
      for (size_t index : script.requests) requests += lines[index] + "\n";
      if (script.ending == Ending::kHalfLine) requests += script.tail;
      start.arrive_and_wait();
      // The requests in pieces of random size, cut anywhere.
      for (size_t at = 0; at < requests.size();) {
        size_t piece = std::min<size_t>(1 + cuts() % 700, requests.size() - at);
        if (!WriteAll(fd.get(), requests.data() + at, piece)) return ADD_FAILURE() << "connection " << c;
        at += piece;
      }
      const auto deadline = Clock::now() + 60s;
      if (script.ending == Ending::kHalfLine) shutdown(fd.get(), SHUT_WR);
      size_t expectedLines = kRequestsEach + (script.ending == Ending::kHalfLine ? 1 : 0);
      script.received = ReadLines(fd.get(), expectedLines, deadline);
      if (script.ending == Ending::kHalfLine) script.closedAfter = ClosedBy(fd.get(), deadline);
      if (script.ending == Ending::kVanish) {
        WriteAll(fd.get(), script.tail);
        linger reset = {1, 0};  // close with a reset, as a client that crashed
        setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      }
    });
  }
  for (std::thread &client : clients) client.join();

  for (int c = 0; c < kConnections; ++c) {
    EXPECT_EQ(scripts[c].received, scripts[c].expected) << "connection " << c;
    if (scripts[c].ending == Ending::kHalfLine) {
      EXPECT_TRUE(scripts[c].closedAfter) << "connection " << c;
    }
  }
  // Still serving after all that, then a clean stop.
  {
    Fd probe = server.Connect(KZ_FAMILY_IPV4);
    ASSERT_TRUE(WriteAll(probe.get(), lines[0] + "\n"));
    EXPECT_EQ(ReadLines(probe.get(), 1, Clock::now() + 10s), answers[0] + "\n");
  }
  EXPECT_EQ(server.Stop(SIGTERM, 5s), 0) << server.log() << server.Errors();
  EXPECT_NE(server.log().find("kzurld stopped: 51 connections, "), std::string::npos) << server.log();
  EXPECT_EQ(server.Errors(), "");
  EXPECT_NE(access(server.LocalPath().c_str(), F_OK), 0);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
