// SSL sessions on channels with real peers on loopback: two library channels,
// the openssl command's client and server. Certificates (a CA, a
// server, a client, a second untrusted CA) are made with the openssl command
// in a temporary directory when the program starts.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child_process.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/init.h"
#include "kz/select.h"
#include "kz/server.h"
#include "kz/ssl.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Fd;
using kztest::Scoped;
using Clock = std::chrono::steady_clock;

std::string ErrorText() { return KZErrorMessage(); }

// Made once per program; ok() is false when the openssl command is missing
// or failed.
class Certificates {
 public:
  static Certificates &Get() {
    static Certificates certificates;
    return certificates;
  }
  bool ok() const { return ok_; }
  std::string operator[](const std::string &name) const { return dir_ / name; }
  const std::string &dir() const { return dir_.path(); }

 private:
  kztest::TempDir dir_;
  const bool ok_ = kztest::MakeWithOpenssl(dir_.path(), R"(
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }
key ca.key; key other.key; key server.key; key client.key; key cn.key
openssl req -x509 -new -key ca.key -out ca.pem -days 2 -subj "/CN=kz test CA"
openssl req -x509 -new -key other.key -out other.pem -days 2 -subj "/CN=kz other CA"
printf 'subjectAltName=DNS:localhost,DNS:*.example.test,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n' > server.ext
printf 'extendedKeyUsage=clientAuth\n' > client.ext
printf 'extendedKeyUsage=serverAuth\n' > cn.ext
sign() {  # name subject extensions
  openssl req -new -utf8 -key "$1.key" -subj "$2" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile "$3" -out "$1.pem"
}
sign server "/CN=localhost/O=kz server" server.ext
sign client "/CN=kz client/O=Müller & Söhne/OU=kz unit/C=DE/ST=Hessen/emailAddress=client@example.test" client.ext
sign cn "/CN=cn.example.test" cn.ext
cat server.pem ca.pem > server-chain.pem
openssl pkey -in server.key -aes256 -passout pass:secret -out server-encrypted.key
printf 'not a certificate\n' > garbage.pem
)");
};

// Starts the library once, with the server certificate in the shared context
// and the test CA trusted.
bool Ready() {
  static const bool ready = [] {
    KZLibInit(nullptr);
    Certificates &c = Certificates::Get();
    return c.ok() && LoadServerSSLCert(c["server-chain.pem"].c_str(), c["server.key"].c_str(), nullptr) == 1 &&
           SetVerifyCertPath(c["ca.pem"].c_str(), nullptr) == 1;
  }();
  return ready;
}

class Ssl : public testing::Test {
 protected:
  void SetUp() override {
    if (!Ready()) GTEST_SKIP() << "no openssl command to make certificates, or SSL did not start: " << ErrorText();
  }
};
using SslPeers = Ssl;

// ---- peers ----------------------------------------------------------------------------

struct ScopedChannel {
  explicit ScopedChannel(int32_t readTimeout = 10000, int32_t writeTimeout = 10000)
      : channel(ChannelNew(readTimeout, writeTimeout)) {}
  ~ScopedChannel() { ChannelClose(channel); }
  operator Channel *() const { return channel; }
  Channel *channel;
};

// A library server on 127.0.0.1 with a port the system chose.
struct Server {
  Server() {
    TCPAddrLocal(&address, KZ_FAMILY_IPV4, 0);
    server = TCPServerOpen(&address);
    if (server) TCPServerGetAddr(server, &address);
  }
  ~Server() { TCPServerClose(server); }
  TCPAddr address;
  TCPServer *server;
};

// "ok" when a call answered 1, else the error text, taken in the calling thread.
std::string Outcome(int result) { return result == 1 ? "ok" : ErrorText(); }

// Work of the other side on a thread of its own; get() waits for its result.
template <typename Work>
auto OnThread(Work work) {
  return std::async(std::launch::async, work);
}

std::string ReadLine(Channel *channel) {
  Scoped<UByteArray> line;
  if (!ChannelReadLine(channel, &line, 0)) return "<" + ErrorText() + ">";
  return kztest::Bytes(line);
}

bool WriteLine(Channel *channel, const std::string &text) {
  return ChannelWriteString(channel, (text + "\n").c_str()) == 1 && ChannelFlush(channel) == 1;
}

// A client channel connected to a server channel of the same program, plain
// unless ssl; SSL is started on both later as asked.
struct Pair {
  explicit Pair(int32_t timeout = 10000, bool ssl = false) : client(timeout, timeout), server(timeout, timeout) {
    if (ssl) ChannelSetSSL(client, 1), ChannelSetSSL(server, 1);
    connected = Connect();
  }
  // Connects the client (again): "ok/ok", or the error texts of connect/accept.
  std::string Connect() {
    auto accept = OnThread([&] { return Outcome(TCPServerAccept(listener.server, server)); });
    const std::string connect = Outcome(ChannelConnect(client, &listener.address));
    return connect + "/" + accept.get();
  }
  // Runs both handshakes; their outcomes are kept.
  testing::AssertionResult Start() {
    auto accept = OnThread([&] { return Outcome(ChannelStartSSL(server, 0)); });
    clientError = Outcome(ChannelStartSSL(client, 1));
    serverError = accept.get();
    if (connected == "ok/ok" && clientError == "ok" && serverError == "ok") return testing::AssertionSuccess();
    return testing::AssertionFailure() << "connect " << connected << "; client: " << clientError
                                       << "; server: " << serverError;
  }
  // A line from the client that the server echoes: what the client reads back.
  std::string RoundTrip(const std::string &text) {
    auto echo = OnThread([&] { return WriteLine(server, ReadLine(server)); });
    return WriteLine(client, text) ? ReadLine(client) : "<write: " + ErrorText() + ">";
  }
  Server listener;
  ScopedChannel client, server;
  std::string connected, clientError, serverError;
};

// ---- before start-up ----------------------------------------------------------------------
// First in the program: the library has not started SSL yet when the program
// runs as a whole, and ctest runs every test in a process of its own.

TEST(SslBeforeStart, SwitchesAndStartsRefuse) {
  ScopedChannel channel;
  if (ChannelSetSSL(channel, 1)) GTEST_SKIP() << "SSL was started earlier in this process";
  EXPECT_EQ(KZErrorCode(), KZ_ERR_SSL);
  EXPECT_EQ(ErrorText(), "SSL library not initialized");
  EXPECT_EQ(channel.channel->sslRequested, 0u);
  EXPECT_EQ(ChannelSetSSL(channel, 0), 1);
  EXPECT_EQ(ChannelStartSSL(channel, 1), 0);
  EXPECT_EQ(ErrorText(), "SSL library not initialized");
  EXPECT_EQ(ChannelLeaveSSL(channel), 1);  // nothing to leave
  EXPECT_STREQ(ChannelGetSSLVersion(channel), "UNKNOWN");
}

TEST(SslBeforeStart, LibraryStartRunsSslStartUp) {
  for (const char *options : {"", "ssl-high-encryption"}) {
    kztest::Child child = kztest::RunChild({{"KZ", options}}, [] {
      KZLibInit(nullptr);
      ScopedChannel channel;
      return ChannelSetSSL(channel, 1) == 1 ? 0 : 1;
    });
    EXPECT_TRUE(child.Exited(0)) << options << child.Describe();
    EXPECT_EQ(child.err, "") << options;  // no "warning: could not initialize SSL"
  }
}

// ---- sessions between two library channels -----------------------------------------------

TEST_F(Ssl, HandshakeAtConnectAndAcceptThenSessionQueries) {
  Pair pair(10000, true);
  ASSERT_EQ(pair.connected, "ok/ok");
  ChannelDisconnect(pair.client);
  ASSERT_EQ(pair.Connect(), "ok/ok");  // the flag persists: the same channels connect again with SSL
  EXPECT_EQ(ChannelIsSSL(pair.client), 1);
  EXPECT_EQ(ChannelIsSSL(pair.server), 1);
  EXPECT_EQ(ChannelGetMemorySize(pair.client), 89072u);
  EXPECT_EQ(pair.RoundTrip("hello over SSL"), "hello over SSL");

  // A TLS session (0x301 and later) answers "UNKNOWN".
  EXPECT_STREQ(ChannelGetSSLVersion(pair.client), "UNKNOWN");
  const char *name = ChannelGetSSLCipherName(pair.client);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name, ChannelGetSSLCipherName(pair.server));
  EXPECT_GE(ChannelGetSSLCipherBits(pair.client), 128);
  char info[256], small[16], id[80];
  ASSERT_EQ(ChannelGetSSLCipherInfo(pair.client, info, sizeof info), 1);
  EXPECT_EQ(std::string(info).rfind(name, 0), 0u) << info;  // the description starts with the name
  EXPECT_EQ(ChannelGetSSLCipherInfo(pair.client, small, sizeof small), 0);
  // The session id: 32 bytes, 64 hexadecimal digits and a NUL.
  ASSERT_EQ(ChannelGetSSLSessionId(pair.server, id, 66), 1);
  EXPECT_EQ(std::strlen(id), 64u);
  EXPECT_EQ(std::string(id).find_first_not_of("0123456789abcdef"), std::string::npos) << id;
  EXPECT_EQ(ChannelGetSSLSessionId(pair.server, id, 65), 0);

  // TLS 1.3 has no renegotiation: OpenSSL refuses it (0), which reads as 1.
  EXPECT_EQ(ChannelRenegotiateSSL(pair.client), 1);
  EXPECT_EQ(pair.RoundTrip("still fine"), "still fine");
  EXPECT_EQ(ChannelStartSSL(pair.client, 1), 0);
  EXPECT_EQ(ErrorText(), "ChannelStartSSL: SSL session already active");
  // Waiting on many channels refuses SSL channels.
  Channel *channels[] = {pair.client.channel};
  EXPECT_EQ(ChannelSelect(channels, 1, 0), -1);
  EXPECT_EQ(ErrorText(), "Illegal ChannelSelect on a SSL channel");
}

TEST(SslDeathTest, CipherInfoWantsABuffer) {
  ScopedChannel channel;
  EXPECT_DEATH(ChannelGetSSLCipherInfo(channel, nullptr, 10), "'buf != NULL' failed at kzlib/ssl");
}

TEST_F(Ssl, PlainChannelsRefuseAndAnswerEmpty) {
  ScopedChannel plain, file, memory;
  EXPECT_EQ(ChannelStartSSL(plain, 1), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_SSL, "ChannelStartSSL: socket not connected"));
  ASSERT_EQ(ChannelOpenFile(file, Certificates::Get()["ca.pem"].c_str(), "r"), 1);
  Scoped<UByteArray> target;
  ChannelMemoryWriter(memory, &target);
  for (Channel *channel : {file.channel, memory.channel}) {
    EXPECT_EQ(ChannelStartSSL(channel, 0), 0);
    EXPECT_EQ(ErrorText(), "ChannelStartSSL: not a socket channel");
  }
  char info[256], id[80];
  EXPECT_EQ(ChannelGetSSLCipherBits(plain), 0);
  EXPECT_EQ(ChannelGetSSLCipherName(plain), nullptr);
  EXPECT_EQ(ChannelGetSSLCipherInfo(plain, info, sizeof info), 0);
  EXPECT_EQ(ChannelGetSSLSessionId(plain, id, sizeof id), 0);
  EXPECT_STREQ(ChannelGetSSLVersion(plain), "UNKNOWN");
  EXPECT_EQ(ChannelIsSSL(plain), 0);
  EXPECT_EQ(ChannelRenegotiateSSL(plain), 1);
  EXPECT_EQ(ChannelGetMemorySize(plain), 23536u);
}

// ---- leaving and closing ------------------------------------------------------------------

TEST_F(Ssl, LeaveThenPlainTextBothWays) {
  Pair pair;
  ASSERT_TRUE(pair.Start());
  auto serverSide = OnThread([&] {
    if (ReadLine(pair.server) != "before" || ChannelLeaveSSL(pair.server) != 1) return "leave: " + ErrorText();
    if (ChannelIsSSL(pair.server)) return std::string("still SSL");
    return ReadLine(pair.server) + (WriteLine(pair.server, "plain from server") ? "" : " unanswered");
  });
  ASSERT_TRUE(WriteLine(pair.client, "before"));
  ASSERT_EQ(ChannelLeaveSSL(pair.client), 1) << ErrorText();
  EXPECT_EQ(ChannelIsSSL(pair.client), 0);
  ASSERT_TRUE(WriteLine(pair.client, "plain from client"));
  EXPECT_EQ(ReadLine(pair.client), "plain from server");
  EXPECT_EQ(serverSide.get(), "plain from client");
  EXPECT_EQ(ChannelGetMemorySize(pair.client), 23536u);

  // Plain bytes really are plain now: what the client sends arrives as is on
  // the server's socket.
  ASSERT_EQ(ChannelSend(pair.client, "raw\n", 4), 1);
  char got[4];
  size_t count = 0;
  EXPECT_EQ(ChannelReceive(pair.server, got, 4, 1, &count, 1), 0);
  EXPECT_EQ(std::string(got, count), "raw\n");
  EXPECT_EQ(ChannelLeaveSSL(pair.client), 1);  // no session: nothing to do
}

// Started on a connection that carried plain text; scrambling then sits above
// SSL. Dropping the session keeps the connection.
TEST_F(Ssl, StartedLateScrambledThenDisconnectSslAndClose) {
  Pair pair, second;
  EXPECT_EQ(pair.RoundTrip("plain first"), "plain first");
  ASSERT_TRUE(pair.Start());
  ChannelSetObfuscationKey(pair.client, 0x0123456789abcdefull);
  ChannelSetObfuscationKey(pair.server, 0x0123456789abcdefull);
  EXPECT_EQ(pair.RoundTrip("scrambled and encrypted"), "scrambled and encrypted");
  ASSERT_TRUE(second.Start());
  ChannelDisconnectSSL(pair.client);
  EXPECT_EQ(ChannelIsSSL(pair.client), 0);
  EXPECT_EQ(ChannelConnected(pair.client), 1);
  EXPECT_EQ(ChannelShutdown(pair.server), 1);  // an SSL channel: nothing is shut down

  ASSERT_EQ(ChannelClose(second.client.channel), 1);
  second.client.channel = nullptr;  // closed above; the scope's close accepts null
  char byte;
  size_t count = 9;
  EXPECT_EQ(ChannelReceive(second.server, &byte, 1, 0, &count, 1), KZ_RECEIVE_EOF);
  EXPECT_EQ(count, 0u);
}

// ---- failures of the handshake --------------------------------------------------------------

TEST_F(Ssl, SilentPeerTimesOutAndTheChannelStaysPlain) {
  const struct { int32_t read, write, expectedMs; } cases[] = {{500, 2000, 500}, {-1, 1500, 1500}, {400, -1, 400}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.read) + "/" + std::to_string(c.write));
    kztest::Listener silent;
    ScopedChannel client(c.read, c.write);
    TCPAddr address = silent.Address();
    ASSERT_EQ(ChannelConnect(client, &address), 1);
    Fd peer = silent.Accept();
    auto start = Clock::now();
    EXPECT_EQ(ChannelStartSSL(client, 1), 0);
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_SSL, "SSL handshake failed: timeout"));
    EXPECT_GE(elapsed, c.expectedMs - 20);
    EXPECT_LT(elapsed, c.expectedMs + 1500);
    EXPECT_EQ(ChannelIsSSL(client), 0);
    // Still a working plain connection: the peer finds the client's hello,
    // then the plain text.
    ASSERT_TRUE(WriteLine(client, "plain after all"));
    ChannelShutdown(client);
    std::string received = kztest::ReadToEnd(peer.get());
    EXPECT_EQ(received.substr(received.size() - 16), "plain after all\n");
    EXPECT_EQ(static_cast<unsigned char>(received[0]), 0x16);  // a handshake record came first
  }
}

TEST_F(Ssl, PeerSendingGarbageOrHangingUpFailsTheHandshake) {
  Pair garbage, closed;
  ASSERT_TRUE(WriteLine(garbage.client, "GET / HTTP/1.0\r\nHost: localhost\r\n\r"));
  EXPECT_EQ(ChannelStartSSL(garbage.server, 0), 0);
  EXPECT_EQ(ErrorText().rfind("SSL error ", 0), 0u) << ErrorText();
  EXPECT_NE(ErrorText().find(":SSL routines:"), std::string::npos) << ErrorText();
  EXPECT_EQ(KZErrorCode(), KZ_ERR_SSL);
  EXPECT_EQ(ChannelIsSSL(garbage.server), 0);
  EXPECT_EQ(ChannelConnected(garbage.server), 1);

  ChannelClose(closed.client.channel);
  closed.client.channel = nullptr;  // the scope's close accepts null
  EXPECT_EQ(ChannelStartSSL(closed.server, 0), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_SSL, "SSL handshake failed: connection closed"));
  EXPECT_EQ(ChannelIsSSL(closed.server), 0);

  // Accepting with SSL switched on: the failure disconnects, keeping the error.
  Server listener;
  ScopedChannel accepting(300, 300), silent;
  ASSERT_EQ(ChannelSetSSL(accepting, 1), 1);
  ASSERT_EQ(ChannelConnect(silent, &listener.address), 1);  // plain, and never says hello
  EXPECT_EQ(TCPServerAccept(listener.server, accepting), 0);
  EXPECT_EQ(ErrorText(), "SSL handshake failed: timeout");
  EXPECT_EQ(ChannelConnected(accepting), 0);
}

// ---- certificates ------------------------------------------------------------------------

TEST_F(Ssl, ClientCertificateRequiredAndMissing) {
  Certificates &c = Certificates::Get();
  Pair missing;
  ChannelRequireCertSSL(missing.server, 1);
  EXPECT_FALSE(missing.Start());
  EXPECT_NE(missing.serverError.find("peer did not return a certificate"), std::string::npos) << missing.serverError;
  EXPECT_EQ(ChannelIsSSL(missing.server), 0);

  Pair pair;
  ChannelRequireCertSSL(pair.server, 1);
  ASSERT_EQ(LoadClientSSLCertEx(pair.client, c["client.pem"].c_str(), c["client.key"].c_str(), nullptr), 1)
      << ErrorText();
  ASSERT_EQ(SetVerifyCertPathEx(pair.client, c["ca.pem"].c_str(), nullptr), 1) << ErrorText();
  ASSERT_TRUE(pair.Start());
  EXPECT_EQ(ChannelVerifyCertSSL(pair.server, nullptr), 1) << ErrorText();
  EXPECT_EQ(ChannelVerifyCertSSL(pair.client, "localhost"), 1) << ErrorText();
  // Each element of the peer's subject as "<name>=<value>;"; an absent one
  // as "-" and what the output kept (it is emptied), with no error.
  auto elements = [](Channel *channel, std::initializer_list<const char *> names) {
    std::string all;
    Scoped<UByteArray> out;
    for (const char *name : names) {
      KZErrorClear();
      const bool found = ChannelCertNameGetElement(channel, name, &out) == 1;
      EXPECT_EQ(found ? out.elements[out.count] : KZErrorCode(), 0u) << name;  // NUL-terminated; no error
      all += std::string(name) + "=" + (found ? "" : "-") + kztest::Bytes(out) + ";";
    }
    return all;
  };
  EXPECT_EQ(elements(pair.server, {"CN", "O", "OU", "C", "ST", "emailAddress"}),
            "CN=kz client;O=M\xC3\xBCller & S\xC3\xB6hne;OU=kz unit;C=DE;ST=Hessen;emailAddress=client@example.test;");
  EXPECT_EQ(elements(pair.client, {"CN", "O", "L", "noSuchName"}), "CN=localhost;O=kz server;L=-;noSuchName=-;");

  // A shared client certificate is kept apart from the server's own.
  ASSERT_EQ(LoadClientSSLCert(c["client.pem"].c_str(), c["client.key"].c_str(), nullptr), 1) << ErrorText();
  Pair shared;
  ChannelRequireCertSSL(shared.server, 1);
  ChannelRequireCertSSL(shared.client, 1);
  ASSERT_TRUE(shared.Start());
  EXPECT_EQ(elements(shared.server, {"CN"}) + elements(shared.client, {"CN"}), "CN=kz client;CN=localhost;");
}

TEST_F(Ssl, VerificationOfNamesAndChains) {
  Pair pair;
  ASSERT_TRUE(pair.Start());
  const struct {
    const char *name;
    int result;
  } names[] = {
      {nullptr, 1},          {"localhost", 1},    {"LOCALHOST", 1},         {"127.0.0.1", 1},
      {"a.example.test", 1}, {"example.test", 0}, {"a.b.example.test", 0},  {"::1", 0},
      {"127.0.0.2", 0},      {"other.test", 0},   {"localhost.example", 0},
  };
  for (const auto &n : names) {
    EXPECT_EQ(ChannelVerifyCertSSL(pair.client, n.name), n.result) << (n.name ? n.name : "(null)");
    if (!n.result) {
      EXPECT_EQ(kztest::LastError(),
                kztest::Error(KZ_ERR_SSL, std::string("certificate does not match host ") + n.name));
    }
  }
  // The server saw no client certificate.
  EXPECT_EQ(ChannelVerifyCertSSL(pair.server, nullptr), 0);
  EXPECT_EQ(ErrorText(), "no peer certificate");
  ScopedChannel plain;
  EXPECT_EQ(ChannelVerifyCertSSL(plain, "localhost"), 0);
  EXPECT_EQ(ErrorText(), "SSL not active");

  // Without name entries in the certificate the common name serves.
  Certificates &c = Certificates::Get();
  Pair common;
  ASSERT_EQ(LoadServerSSLCertEx(common.server, c["cn.pem"].c_str(), c["cn.key"].c_str(), nullptr), 1) << ErrorText();
  ASSERT_TRUE(common.Start());
  EXPECT_EQ(ChannelVerifyCertSSL(common.client, "cn.example.test"), 1) << ErrorText();
  EXPECT_EQ(ChannelVerifyCertSSL(common.client, "localhost"), 0);

  // The clients' own contexts trust only the other CA.
  Pair untrusted, strict;
  ASSERT_EQ(SetVerifyCertPathEx(untrusted.client, c["other.pem"].c_str(), nullptr), 1) << ErrorText();
  ASSERT_TRUE(untrusted.Start());
  EXPECT_EQ(ChannelVerifyCertSSL(untrusted.client, "localhost"), 0);
  // The server sends its CA along, which the client does not trust.
  EXPECT_EQ(ErrorText(), "certificate verification failed: self-signed certificate in certificate chain");

  // Demanded in the handshake, the same refusal fails it.
  ASSERT_EQ(SetVerifyCertPathEx(strict.client, c["other.pem"].c_str(), nullptr), 1);
  ChannelRequireCertSSL(strict.client, 1);
  EXPECT_FALSE(strict.Start());
  EXPECT_NE(strict.clientError.find("certificate verify failed"), std::string::npos) << strict.clientError;
}

TEST_F(Ssl, CertificateLoadingFailures) {
  Certificates &c = Certificates::Get();
  const std::string missing = c["missing.pem"], garbage = c["garbage.pem"], server = c["server.pem"],
                    key = c["server.key"], encrypted = c["server-encrypted.key"];
  // "loaded", or the start of the error text; whole: the whole error (an SSL one).
  const struct {
    std::string cert, key;
    const char *password;
    std::string error;
    bool whole = false;
  } loads[] = {
      {missing, key, nullptr, "can not read certificate file " + missing + ": No such file"},
      {server, missing, nullptr, "can not read key file " + missing + ": "},
      {garbage, key, nullptr, "can not load certificate " + garbage + ": SSL error "},
      {server, garbage, nullptr, "can not load private key " + garbage + ": SSL error "},
      {server, encrypted, "wrong", "can not load private key "},
      {server, encrypted, nullptr, "can not load private key "},
      {server, c["client.key"], nullptr, kztest::Error(KZ_ERR_SSL, "private key does not match certificate " + server),
       true},
      {server, encrypted, "secret", "loaded"},
  };
  ScopedChannel channel;
  for (const auto &l : loads) {
    SCOPED_TRACE(l.cert + " " + l.key);
    const std::string got = LoadServerSSLCertEx(channel, l.cert.c_str(), l.key.c_str(), l.password) ? "loaded"
                            : l.whole ? kztest::LastError()
                                      : ErrorText().substr(0, l.error.size());
    EXPECT_EQ(got, l.error) << ErrorText();
  }

  EXPECT_EQ(SetVerifyCertPath(nullptr, nullptr), 0);
  EXPECT_EQ(ErrorText(), "Null argument");
  const struct {
    const char *file, *dir;
    std::string error;
  } paths[] = {
      {missing.c_str(), nullptr, "can not read certificate file " + missing},
      {garbage.c_str(), nullptr, "can not load certificate " + garbage},
      {nullptr, missing.c_str(), "can not read certificate directory " + missing},
      {nullptr, c.dir().c_str(), "set"},
  };
  for (const auto &p : paths) {
    const std::string got = SetVerifyCertPathEx(channel, p.file, p.dir) ? "set" : ErrorText().substr(0, p.error.size());
    EXPECT_EQ(got, p.error) << ErrorText();
  }

  // The server's certificate from memory.
  const std::string chain = kztest::ReadFile(c["server-chain.pem"]), keyText = kztest::ReadFile(encrypted);
  Pair pair;
  for (const char *password : {"wrong", "secret"}) {
    const std::string got =
        LoadServerSSLCertEx2(pair.server, chain.data(), chain.size(), keyText.data(), keyText.size(), password)
            ? "loaded"
            : ErrorText().substr(0, 33);
    EXPECT_EQ(got, password[0] == 's' ? "loaded" : "can not load private key memory: ") << ErrorText();
  }
  ASSERT_TRUE(pair.Start());
  EXPECT_EQ(ChannelVerifyCertSSL(pair.client, "localhost"), 1) << ErrorText();
}

// ---- transfers --------------------------------------------------------------------------------

TEST_F(Ssl, HundredMegabytesInMixedPieces) {
  Pair pair;
  ASSERT_TRUE(pair.Start());
  constexpr size_t kTotal = 100u << 20;
  // Every byte depends on every bit of its offset: a piece lost, repeated or
  // moved shows.
  auto byteAt = [](uint64_t at) { return static_cast<unsigned char>((at * 0x9E3779B97F4A7C15ull) >> 56); };
  size_t received = 0;
  auto reader = OnThread([&]() -> std::string {
    std::vector<unsigned char> buffer(300000);
    const size_t sizes[] = {1, 700, 11680, 11681, 65536, 300000};
    for (size_t i = 0; received < kTotal; ++i) {
      size_t count = 0;
      if (ChannelReadBuf(pair.server, buffer.data(), std::min(sizes[i % 6], kTotal - received), &count) != 0)
        return ErrorText();
      for (size_t j = 0; j < count; ++j, ++received)
        if (buffer[j] != byteAt(received)) return "a wrong byte";
    }
    return "ok";
  });
  std::vector<unsigned char> block(1 << 20);
  const size_t sizes[] = {100, 5000, 11681, 200000, 1 << 20};
  for (size_t sent = 0, i = 0; sent < kTotal; ++i) {
    const size_t size = std::min(sizes[i % 5], kTotal - sent);
    for (size_t j = 0; j < size; ++j) block[j] = byteAt(sent + j);
    ASSERT_EQ(ChannelWriteBuf(pair.client, block.data(), size), 1) << ErrorText();
    sent += size;
  }
  ASSERT_EQ(ChannelFlush(pair.client), 1);
  EXPECT_EQ(reader.get(), "ok");
  EXPECT_EQ(received, kTotal);  // where it stopped, if it did
}

TEST_F(Ssl, ReceiveTimeoutAndEndOfInput) {
  Pair pair(200);
  ASSERT_TRUE(pair.Start());
  char byte;
  size_t count = 7;
  EXPECT_EQ(ChannelReceive(pair.client, &byte, 1, 0, &count, 0), KZ_RECEIVE_TIMEOUT);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  // The peer vanishes without a close notification: end of input.
  ChannelDisconnect(pair.server);
  EXPECT_EQ(ChannelReceive(pair.client, &byte, 1, 0, &count, 1), KZ_RECEIVE_EOF);
}

TEST_F(Ssl, WritesToAVanishedPeerNeverRaiseSigpipe) {
  auto previous = signal(SIGPIPE, SIG_DFL);  // a SIGPIPE would end the test program
  {
    Pair pair;
    ASSERT_TRUE(pair.Start());
    ChannelDisconnect(pair.server);
    std::vector<unsigned char> block(65536, 'x');
    int failed = 0;
    for (int i = 0; i < 200 && !failed; ++i) failed = ChannelSend(pair.client, block.data(), block.size()) == 0;
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(ChannelClose(pair.client.channel), 1);  // the shutdown exchange meets the closed socket
    pair.client.channel = nullptr;
  }
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  signal(SIGPIPE, previous);
}

TEST_F(Ssl, ThreadsStartTheirOwnSessions) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      SSLThreadInit();
      for (int i = 0; i < 3; ++i) {
        Pair pair;
        if (pair.Start() && pair.RoundTrip("t") == "t") ++good;
      }
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(good.load(), 12);
}

// ---- outside peers ------------------------------------------------------------------------------

// An openssl command run by the shell, its output read through a pipe; ended
// after a minute at the latest.
struct Openssl {
  explicit Openssl(const std::string &command) : out(popen(("timeout 60 openssl " + command).c_str(), "r")) {}
  ~Openssl() { Finish(); }
  // The rest of its output, then "exit <status>" once it ended.
  std::string Finish() {
    if (!out) return "not started";
    const std::string text = kztest::ReadToEnd(fileno(out));
    const int status = pclose(std::exchange(out, nullptr));
    return text + "exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  }
  FILE *out;
};

TEST_F(SslPeers, LibraryClientAgainstOpensslServer) {
  Certificates &c = Certificates::Get();
  Openssl peer("s_server -accept 127.0.0.1:0 -cert '" + c["server-chain.pem"] + "' -key '" + c["server.key"] +
               "' -naccept 1 -rev </dev/null 2>/dev/null");
  // Its "ACCEPT host:port" line names the port the system chose.
  char line[256];
  uint16_t port = 0;
  while (!port && peer.out && fgets(line, sizeof line, peer.out))
    if (std::strncmp(line, "ACCEPT 127.0.0.1:", 17) == 0) port = static_cast<uint16_t>(std::atoi(line + 17));
  ASSERT_NE(port, 0);
  ScopedChannel client;
  ASSERT_EQ(ChannelSetSSL(client, 1), 1);
  TCPAddr address;
  TCPAddrLocal(&address, KZ_FAMILY_IPV4, port);
  ASSERT_EQ(ChannelConnect(client, &address), 1) << ErrorText();
  EXPECT_EQ(ChannelVerifyCertSSL(client, "localhost"), 1) << ErrorText();
  ASSERT_TRUE(WriteLine(client, "stressed"));
  EXPECT_EQ(ReadLine(client), "desserts");
}

// The openssl client verifies the library server's name; on TLS 1.2 the
// server renegotiates.
TEST_F(SslPeers, OpensslClientAgainstLibraryServerRenegotiatingOnTls12) {
  Server listener;
  ScopedChannel server;
  ASSERT_EQ(ChannelSetSSL(server, 1), 1);
  Openssl client("s_client -tls1_2 -connect 127.0.0.1:" + std::to_string(listener.address.port) + " -CAfile '" +
                 Certificates::Get()["ca.pem"] +
                 "' -verify_return_error -verify_hostname localhost -quiet -ign_eof 2>/dev/null <<END\nping\nEND\n");
  ASSERT_NE(client.out, nullptr);
  ASSERT_EQ(TCPServerAccept(listener.server, server), 1) << ErrorText();
  EXPECT_EQ(ReadLine(server), "ping");
  // OpenSSL schedules the renegotiation (1): the library reports that as a
  // failure, and the renegotiation still happens with the next transfer.
  EXPECT_EQ(ChannelRenegotiateSSL(server), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_SSL, "SSL_renegotiate() failed"));
  ASSERT_TRUE(WriteLine(server, "pong")) << ErrorText();
  EXPECT_STREQ(ChannelGetSSLVersion(server), "UNKNOWN");  // TLS 1.2 is 0x303
  ChannelClose(server.channel);
  server.channel = nullptr;
  EXPECT_EQ(client.Finish(), "pong\nexit 0");
}

}  // namespace
