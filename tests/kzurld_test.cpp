// The kzurld server and its client kzurlc, run as programs: answers against
// kzurl's lines over every transport, bad input next to good clients, the
// stop on a signal, configuration errors and daemon mode.
#include <sys/prctl.h>

#include <thread>

#include "kzurld_support.h"

namespace {

using namespace kztest;
using namespace std::chrono_literals;

struct Kzurld : testing::Test {
  void SetUp() override {
    if (!ToolsBuilt()) GTEST_SKIP() << "kzurld, kzurlc or kzurl is not built (examples are off)";
    descriptors_ = OpenDescriptors();
  }
  void TearDown() override {
    if (ToolsBuilt()) {
      EXPECT_EQ(OpenDescriptors(), descriptors_) << "the test left descriptors open";
    }
  }
  int descriptors_ = 0;
};

// The answers that lines get, joined as the server sends them.
std::string Joined(const Lines &answers) {
  std::string text;
  for (const std::string &answer : answers)
    if (!answer.empty()) text += answer + "\n";
  return text;
}

size_t Count(const Lines &answers) {
  size_t n = 0;
  for (const std::string &answer : answers) n += !answer.empty();
  return n;
}

TEST_F(Kzurld, AnswersAreKzurlsLinesOverEveryTransport) {
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration())) << server.log() << server.Errors();
  const Lines lines = MixedLines();
  const Lines expected = KzurlAnswers(server.dir(), lines);
  std::string requests;
  for (const std::string &line : lines) requests += line + "\n";
  for (uint32_t family : {KZ_FAMILY_IPV4, KZ_FAMILY_IPV6, KZ_FAMILY_LOCAL}) {
    Fd client = server.Connect(family);
    ASSERT_GE(client.get(), 0) << "family " << family;
    // A writer thread: the answers flow back while the requests go out.
    std::thread writer([&] { EXPECT_TRUE(WriteAll(client.get(), requests)); });
    std::string answers = ReadLines(client.get(), Count(expected), Clock::now() + 30s);
    writer.join();
    EXPECT_EQ(answers, Joined(expected)) << "family " << family;
  }
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
}

TEST_F(Kzurld, ClientPrintsWhatKzurlPrints) {
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration())) << server.log() << server.Errors();
  std::string text;
  for (const std::string &line : MixedLines(2000))  // kzurl knows no line limit
    if (line.size() <= kLineLimit) text += line + "\n";
  text += "http://example.com/last-line-without-line-feed";
  std::ofstream(server.dir() / "in.txt", std::ios::binary) << text;
  const Child reference = RunProgram(server.dir(), KZURL_PATH, {"in.txt"});
  ASSERT_TRUE(reference.Exited(1)) << reference.Describe();  // the mix holds bad lines
  const std::string tcp = "127.0.0.1:" + std::to_string(server.port());
  const std::string local = "/" + server.local() + ":" + std::to_string(server.port());
  for (const std::string &address : {tcp, local}) {
    const Child client = RunProgram(server.dir(), KZURLC_PATH, {"--connect", address, "in.txt"});
    EXPECT_EQ(client.Ending() + "|" + client.out + "|" + client.err,
              reference.Ending() + "|" + reference.out + "|" + reference.err)
        << address;
  }
  const Child refused = RunProgram(server.dir(), KZURLC_PATH, {"--connect", "127.0.0.1:1", "in.txt"});
  EXPECT_EQ(refused.Ending(), ExitEnding(1));
  EXPECT_NE(refused.err.find("kzurlc: cannot connect to 127.0.0.1:1"), std::string::npos) << refused.err;
  unlink((server.dir() / "in.txt").c_str());
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
}

// One worker serves every connection: a client that sends a megabyte without
// a line feed, one that stops in the middle of a line and one that sends
// garbage must not hold back a well-behaved one.
TEST_F(Kzurld, BadClientsDoNotHoldBackOthers) {
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration(1))) << server.log() << server.Errors();
  const Lines lines = {"http://example.com/A/./b/../c", "http://example.org/half-way", "\x01\x02\xff garbage \r\r x",
                       "http://example.net/after"};
  const Lines expected = KzurlAnswers(server.dir(), lines);
  Fd flood = server.Connect(KZ_FAMILY_IPV4), stalled = server.Connect(KZ_FAMILY_LOCAL),
     garbage = server.Connect(KZ_FAMILY_IPV6), good = server.Connect(KZ_FAMILY_IPV4);
  ASSERT_TRUE(flood.get() >= 0 && stalled.get() >= 0 && garbage.get() >= 0 && good.get() >= 0);

  std::string chunk(64 * 1024, 'f');
  for (int i = 0; i < 16; ++i) ASSERT_TRUE(WriteAll(flood.get(), chunk));
  ASSERT_TRUE(WriteAll(stalled.get(), lines[1].substr(0, 12)));
  ASSERT_TRUE(WriteAll(garbage.get(), lines[2] + "\n"));
  EXPECT_EQ(ReadLines(garbage.get(), 1, Clock::now() + 10s), expected[2] + "\n") << server.Errors();
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(WriteAll(good.get(), lines[0] + "\n"));
    EXPECT_EQ(ReadLines(good.get(), 1, Clock::now() + 10s), expected[0] + "\n") << "round " << round;
  }
  // The rest of each line: the flood's answer is the error, the stalled
  // line's answer that of the whole line.
  ASSERT_TRUE(WriteAll(flood.get(), "\n" + lines[3] + "\n"));
  EXPECT_EQ(ReadLines(flood.get(), 2, Clock::now() + 10s), "ERR line too long\n" + expected[3] + "\n");
  ASSERT_TRUE(WriteAll(stalled.get(), lines[1].substr(12) + "\n"));
  EXPECT_EQ(ReadLines(stalled.get(), 1, Clock::now() + 10s), expected[1] + "\n");
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
}

TEST_F(Kzurld, IdleConnectionsAreClosed) {
  const bool tls = TlsMissing().empty();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration() + "idle-timeout 100\n" + (tls ? TlsFiles::Get().Configuration() : "")))
      << server.log() << server.Errors();
  Fd idle = server.Connect(KZ_FAMILY_IPV4), midLine = server.Connect(KZ_FAMILY_LOCAL);
  ASSERT_TRUE(WriteAll(midLine.get(), "http://exam"));
  EXPECT_TRUE(ClosedBy(idle.get(), Clock::now() + 10s));
  EXPECT_TRUE(ClosedBy(midLine.get(), Clock::now() + 10s));
  if (tls) {  // a TLS client mid-line, closed with the close notification
    SClient client;
    ASSERT_TRUE(client.Start(server.dir(), server.tlsPort()));
    ASSERT_TRUE(WriteAll(client.in(), "http://exam"));
    EXPECT_EQ(client.Wait(10s), 0) << client.Errors();
    EXPECT_EQ(client.Errors().find("unexpected eof"), std::string::npos) << client.Errors();
  }
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
}

struct Stop : Kzurld, testing::WithParamInterface<int> {};

// The stop closes every connection, whatever state it is in, and removes the
// local connection's socket file.
TEST_P(Stop, EndsWithinASecondClosingEveryConnection) {
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration(2))) << server.log() << server.Errors();
  std::vector<Fd> clients;
  for (int i = 0; i < 12; ++i) {
    clients.push_back(server.Connect(i % 3 == 0 ? KZ_FAMILY_IPV4 : i % 3 == 1 ? KZ_FAMILY_IPV6 : KZ_FAMILY_LOCAL));
    ASSERT_GE(clients.back().get(), 0);
    if (i % 4 == 1) {  // mid-line
      ASSERT_TRUE(WriteAll(clients.back().get(), "http://example.com/mid"));
    }
    if (i % 4 == 2) {  // served, still open
      ASSERT_TRUE(WriteAll(clients.back().get(), "http://example.com/\n"));
      EXPECT_EQ(ReadLines(clients.back().get(), 1, Clock::now() + 10s).substr(0, 20), "http://example.com/ ");
    }
  }
  std::chrono::milliseconds took;
  EXPECT_EQ(server.Stop(GetParam(), 1000ms, &took), 0) << server.log() << server.Errors();
  EXPECT_LT(took.count(), 1000);
  for (size_t i = 0; i < clients.size(); ++i)
    EXPECT_TRUE(ClosedBy(clients[i].get(), Clock::now() + 1s)) << "connection " << i;
  EXPECT_NE(access(server.LocalPath().c_str(), F_OK), 0) << server.LocalPath() << " is left";
  // Connections still in the listen queue at the stop are never accepted:
  // the count of connections is not fixed, that of requests is.
  EXPECT_TRUE(
      std::regex_search(server.log(), std::regex("kzurld stopped: [0-9]+ connections, 3 requests, 0 answered ERR")))
      << server.log();
}

INSTANTIATE_TEST_SUITE_P(Signals, Stop, testing::Values(SIGTERM, SIGINT), [](const testing::TestParamInfo<int> &info) {
  return info.param == SIGTERM ? "TERM" : "INT";
});

struct BadConfiguration {
  std::string file;  // the --config file's text; none when empty
  Lines args;
  std::string message;
};

TEST_F(Kzurld, BadConfigurationIsReportedWithStatus2) {
  const BadConfiguration cases[] = {
    {"port 70000\n", {}, "port must be a number from 0 to 65535, not \"70000\""},
    {"", {"--port", "http"}, "port must be a number from 0 to 65535, not \"http\""},
    {"port -1\n", {}, "port must be a number from 0 to 65535, not \"-1\""},
    {"prot 7171\n", {}, "unknown key \"prot\""},
    {"strict maybe\n", {}, "strict must be true or false, not \"maybe\""},
    {"workers 0\n", {}, "workers must be a number from 1 to 64, not \"0\""},
    {"line-limit 8\n", {}, "line-limit must be a number from 16 to 16777216, not \"8\""},
    {"write-timeout 0\n", {}, "write-timeout must be a number from 1 to"},
    {"listen 127.0.0.1 localhost\n", {}, "listen takes IP addresses, not \"localhost\""},
    {"base relative/only\n", {}, "base \"relative/only\" is not a URL: relative url without base"},
    {"log-level loud\n", {}, "log-level must be error, info or debug, not \"loud\""},
    {"", {"--local", "a/b"}, "local must be a name of 1 to 15 characters"},
    {"", {"--local", "name-that-is-too-long"}, "local must be a name of 1 to 15 characters"},
    {"listen \"\"\nlocal \"\"\n", {}, "nothing to listen on"},
#if !KZ_WITH_SSL
    {"", {"--tls-port", "7443", "--cert", "c.pem", "--key", "k.pem"}, "TLS is not available in this build"},
    {"cert server.pem\n", {}, "TLS is not available in this build"},
#else
    {"", {"--tls-port", "7443"}, "tls-port needs cert and key"},
    {"cert server.pem\n", {}, "cert and key go together: key is not set"},
    {"", {"--key", "k.pem"}, "cert and key go together: cert is not set"},
    {"tls-connections 0\n", {}, "tls-connections must be a number from 1 to 1024, not \"0\""},
    {"tls-handshake-timeout 0\n", {}, "tls-handshake-timeout must be a number from 1 to"},
#endif
    {"", {"--config", "missing.conf"}, "kzurld: cannot load missing.conf: cannot open configuration file"},
    {"port \"7171\n", {}, "kzurld: cannot load kzurld.conf"},
    {"", {"--bogus"}, "kzurld: unknown option '--bogus'"},
    {"", {"--port"}, "kzurld: --port needs a value"},
  };
  TempDir dir;
  for (const BadConfiguration &c : cases) {
    Lines args;
    if (!c.file.empty()) {
      std::ofstream(dir / "kzurld.conf") << c.file;
      args = {"--config", "kzurld.conf"};
    }
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Child run = RunProgram(dir, KZURLD_PATH, args);
    EXPECT_EQ(run.Ending(), ExitEnding(2)) << c.file << c.message << "\n" << run.Describe();
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    unlink((dir / "kzurld.conf").c_str());
  }
}

// ---- TLS ----------------------------------------------------------------------------

#define REQUIRE_TLS() \
  if (const std::string missing = TlsMissing(); !missing.empty()) GTEST_SKIP() << missing

// Sends every request through the s_client while reading its output: the
// answers, as far as `count` lines come.
std::string ThroughSClient(SClient &client, const std::string &requests, size_t count) {
  std::thread writer([&] { EXPECT_TRUE(WriteAll(client.in(), requests)); });
  std::string answers = ReadLines(client.out(), count, Clock::now() + 30s);
  writer.join();
  return answers;
}

TEST_F(Kzurld, TlsAnswersAreKzurlsLines) {
  REQUIRE_TLS();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration() + TlsFiles::Get().Configuration())) << server.log() << server.Errors();
  ASSERT_NE(server.tlsPort(), 0) << server.log();
  EXPECT_NE(server.log().find("tls:[::1]:" + std::to_string(server.tlsPort()) + " "), std::string::npos)
      << server.log();

  // openssl s_client sends the raw lines, garbage and over-long ones included.
  const Lines lines = MixedLines();
  const Lines expected = KzurlAnswers(server.dir(), lines);
  std::string requests;
  for (const std::string &line : lines) requests += line + "\n";
  {
    SClient client;
    ASSERT_TRUE(client.Start(server.dir(), server.tlsPort()));
    EXPECT_EQ(ThroughSClient(client, requests, Count(expected)), Joined(expected)) << client.Errors();
  }

  // kzurlc --tls prints what kzurl prints, verifying the server or not.
  std::string text;
  for (const std::string &line : MixedLines(2000))
    if (line.size() <= kLineLimit) text += line + "\n";
  std::ofstream(server.dir() / "in.txt", std::ios::binary) << text;
  const Child reference = RunProgram(server.dir(), KZURL_PATH, {"in.txt"});
  ASSERT_TRUE(reference.Exited(1)) << reference.Describe();
  const std::string port = std::to_string(server.tlsPort());
  const Lines runs[] = {{"--connect", "127.0.0.1:" + port, "--tls", "--ca", TlsFiles::Get()["cert.pem"]},
                        {"--connect", "[::1]:" + port, "--tls", "--ca", TlsFiles::Get()["cert.pem"]},
                        {"--connect", "localhost:" + port, "--tls", "--insecure"}};
  for (Lines args : runs) {
    args.push_back("in.txt");
    const Child client = RunProgram(server.dir(), KZURLC_PATH, args);
    EXPECT_EQ(client.Ending() + "|" + client.out + "|" + client.err,
              reference.Ending() + "|" + reference.out + "|" + reference.err)
        << args[1];
  }
  // A certificate that is not among the trusted ones is refused.
  const Child untrusted =
      RunProgram(server.dir(), KZURLC_PATH,
                 {"--connect", "127.0.0.1:" + port, "--tls", "--ca", TlsFiles::Get()["other.pem"], "in.txt"});
  EXPECT_EQ(untrusted.Ending(), ExitEnding(1));
  EXPECT_NE(untrusted.err.find("kzurlc: the server at 127.0.0.1 is not trusted: certificate verification failed"),
            std::string::npos)
      << untrusted.err;
  unlink((server.dir() / "in.txt").c_str());
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
  EXPECT_EQ(server.Errors(), "");
}

// A client that connects to the TLS port and never sends its ClientHello
// holds back neither plain nor TLS clients (one worker, one TLS thread being
// enough for both), and is dropped once the handshake time-out has passed.
TEST_F(Kzurld, SilentTlsClientHoldsNobodyBack) {
  REQUIRE_TLS();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration(1) + TlsFiles::Get().Configuration() +
                           "tls-connections 2\ntls-handshake-timeout 1500\n"))
      << server.log() << server.Errors();
  const Lines lines = {"HTTP://Example.COM/a/./b/../c", "not a url"};
  const Lines expected = KzurlAnswers(server.dir(), lines);
  const auto connected = Clock::now();
  Fd silent = ConnectTo(KZ_FAMILY_IPV4, server.tlsPort(), "");
  ASSERT_GE(silent.get(), 0);

  Fd plain = server.Connect(KZ_FAMILY_IPV6);
  ASSERT_TRUE(WriteAll(plain.get(), lines[0] + "\n" + lines[1] + "\n"));
  EXPECT_EQ(ReadLines(plain.get(), 2, Clock::now() + 10s), Joined(expected));
  SClient tls;
  ASSERT_TRUE(tls.Start(server.dir(), server.tlsPort()));
  EXPECT_EQ(ThroughSClient(tls, lines[0] + "\n" + lines[1] + "\n", 2), Joined(expected)) << tls.Errors();

  EXPECT_TRUE(ClosedBy(silent.get(), Clock::now() + 20s));
  EXPECT_GE(Clock::now() - connected, 1500ms);
  EXPECT_EQ(server.Stop(SIGTERM, 10s), 0) << server.log() << server.Errors();
  EXPECT_TRUE(std::regex_search(server.log(), std::regex("kzurld stopped: 2 connections, 4 requests, 2 answered ERR")))
      << server.log();
}

// Past tls-connections, a TLS client is answered "ERR server busy" (through
// TLS) and closed.
TEST_F(Kzurld, TlsClientsBeyondTheBoundAreToldTheServerIsBusy) {
  REQUIRE_TLS();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration() + TlsFiles::Get().Configuration() +
                           "tls-connections 1\ntls-handshake-timeout 60000\n"))
      << server.log() << server.Errors();
  // Accepted first from the same listen queue: it takes the one TLS thread.
  Fd silent = ConnectTo(KZ_FAMILY_IPV4, server.tlsPort(), "");
  ASSERT_GE(silent.get(), 0);
  SClient refused;
  ASSERT_TRUE(refused.Start(server.dir(), server.tlsPort()));
  bool closed = false;
  EXPECT_EQ(ReadLines(refused.out(), 2, Clock::now() + 10s, &closed), "ERR server busy\n") << refused.Errors();
  EXPECT_TRUE(closed);
  EXPECT_EQ(refused.Wait(10s), 0) << refused.Errors();
  // The stop does not wait for the silent handshake's time-out.
  std::chrono::milliseconds took;
  EXPECT_EQ(server.Stop(SIGTERM, 1000ms, &took), 0) << server.log() << server.Errors();
  EXPECT_LT(took.count(), 1000);
  EXPECT_TRUE(ClosedBy(silent.get(), Clock::now() + 1s));
}

// The stop closes TLS connections in every state within a second, sending
// the close notification to every client that finished its handshake.
TEST_F(Kzurld, TlsConnectionsAreClosedCleanlyOnStop) {
  REQUIRE_TLS();
  Server server;
  ASSERT_TRUE(server.Start(TestConfiguration(2) + TlsFiles::Get().Configuration() + "tls-handshake-timeout 60000\n"))
      << server.log() << server.Errors();
  std::vector<std::unique_ptr<SClient>> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(std::make_unique<SClient>());
    ASSERT_TRUE(clients.back()->Start(server.dir(), server.tlsPort()));
    // An answer shows that the server has finished the handshake.
    EXPECT_EQ(ThroughSClient(*clients.back(), "http://example.com/\n", 1).substr(0, 20), "http://example.com/ ");
    if (i % 2 == 1) {  // then stopped in the middle of a line
      ASSERT_TRUE(WriteAll(clients.back()->in(), "http://example.com/mid"));
    }
  }
  Fd silent = ConnectTo(KZ_FAMILY_IPV6, server.tlsPort(), "");
  Fd plain = server.Connect(KZ_FAMILY_IPV4);
  ASSERT_TRUE(silent.get() >= 0 && plain.get() >= 0);

  std::chrono::milliseconds took;
  EXPECT_EQ(server.Stop(SIGTERM, 1000ms, &took), 0) << server.log() << server.Errors();
  EXPECT_LT(took.count(), 1000);
  for (size_t i = 0; i < clients.size(); ++i) {
    // s_client ends on the server's close notification; a connection that
    // just ended would have it report an unexpected end of input.
    EXPECT_EQ(clients[i]->Wait(5s), 0) << "client " << i << ": " << clients[i]->Errors();
    EXPECT_EQ(clients[i]->Errors().find("unexpected eof"), std::string::npos) << "client " << i;
  }
  EXPECT_TRUE(ClosedBy(silent.get(), Clock::now() + 1s));
  EXPECT_TRUE(ClosedBy(plain.get(), Clock::now() + 1s));
  EXPECT_TRUE(
      std::regex_search(server.log(), std::regex("kzurld stopped: [67] connections, 6 requests, 0 answered ERR")))
      << server.log();
}

TEST_F(Kzurld, BadTlsCertificatesAreReportedWithStatus2) {
  REQUIRE_TLS();
  const TlsFiles &files = TlsFiles::Get();
  struct Case {
    std::string cert, key, message;
  } cases[] = {
      {"missing.pem", files["key.pem"], "cannot use certificate missing.pem with key"},
      {files["cert.pem"], "missing-key.pem", "can not read key file missing-key.pem"},
      {files["garbage.pem"], files["key.pem"], "can not load certificate"},
      {files["cert.pem"], files["garbage.pem"], "can not load private key"},
      {files["cert.pem"], files["other-key.pem"], "private key does not match certificate"},
  };
  TempDir dir;
  for (const Case &c : cases) {
    const Child run = RunProgram(dir, KZURLD_PATH, {"--port", "0", "--local", "", "--cert", c.cert, "--key", c.key});
    EXPECT_EQ(run.Ending(), ExitEnding(2)) << c.message << "\n" << run.Describe();
    EXPECT_NE(run.err.find("kzurld: bad configuration: "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
}

// -daemon: the parent returns at once, the daemon logs into the run directory
// and answers until SIGTERM. The test process adopts it (as sub-reaper) so
// that it can wait for it.
TEST_F(Kzurld, DaemonServesAndStopsOnSignal) {
  TempDir dir;
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
  const std::string local = "kzd" + std::to_string(getpid() % 100000);
  std::ofstream(dir / "kzurld.conf") << TestConfiguration();
  const Child parent =
      RunProgram(dir, KZURLD_PATH,
                 {"--config", dir / "kzurld.conf", "--port", "0", "--local", local, "-daemon", "-rundir", dir / "run"});
  ASSERT_TRUE(parent.Exited(0)) << parent.Describe();
  // The log names the port once the daemon is ready.
  static const std::regex ready("ready on 127\\.0\\.0\\.1:([0-9]+) ");
  std::smatch match;
  std::string log;
  const auto deadline = Clock::now() + 20s;
  while (!std::regex_search(log = ReadFile(dir / "run/log.log"), match, ready) && Clock::now() < deadline)
    std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(std::regex_search(log, match, ready)) << log;
  const pid_t daemon = static_cast<pid_t>(std::stol(ReadFile(dir / "run/daemon.pid")));
  ASSERT_GT(daemon, 0);
  {
    const Lines line = {"HTTP://Example.com/a/../b"};
    Fd client = ConnectTo(KZ_FAMILY_IPV4, static_cast<uint16_t>(std::stoul(match[1])), "");
    ASSERT_TRUE(WriteAll(client.get(), line[0] + "\n"));
    EXPECT_EQ(ReadLines(client.get(), 1, Clock::now() + 10s), KzurlAnswers(dir, line)[0] + "\n");
  }
  // SIGHUP rotates the log: the old one is renamed with its time stamp.
  kill(daemon, SIGHUP);
  auto Rotated = [&] {
    for (const auto &entry : std::filesystem::directory_iterator(dir / "run")) {
      const std::string name = entry.path().filename();
      if (name.starts_with("log.") && name.ends_with(".log") && name != "log.log") return name;
    }
    return std::string();
  };
  for (const auto limit = Clock::now() + 10s; Rotated().empty() && Clock::now() < limit;)
    std::this_thread::sleep_for(5ms);
  const std::string rotated = Rotated();
  EXPECT_TRUE(
      std::regex_match(rotated, std::regex("log\\.[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9]{2}-[0-9]{2}-[0-9]{2}\\.log")))
      << rotated;
  if (!rotated.empty()) {
    EXPECT_NE(ReadFile(dir / ("run/" + rotated)).find("ready on"), std::string::npos);
  }

  kill(daemon, SIGTERM);
  int status = 0;
  pid_t ended = 0;
  for (const auto limit = Clock::now() + 10s; ended == 0 && Clock::now() < limit;) {
    ended = waitpid(daemon, &status, WNOHANG);
    if (ended == 0) std::this_thread::sleep_for(5ms);
  }
  if (ended == 0) kill(daemon, SIGKILL), waitpid(daemon, nullptr, 0);
  EXPECT_EQ(ended, daemon);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
  EXPECT_NE(ReadFile(dir / "run/log.log").find("kzurld stopped: 1 connections, 1 requests"), std::string::npos)
      << ReadFile(dir / "run/log.log");
}

}  // namespace
