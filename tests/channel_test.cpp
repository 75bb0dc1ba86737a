// Channels over real endpoints: TCP on loopback and local connections with
// plain-socket peers (and one Python peer), pipes, files, memory and virtual
// endpoints; buffering, lines, numbers, time-outs, resets and scrambling.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/features.h"
#include "kz/init.h"
#include "kz/url.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::Fd;
using kztest::Scoped;

using Clock = std::chrono::steady_clock;

int64_t MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A channel closed at the end of the scope.
struct ScopedChannel {
  explicit ScopedChannel(int32_t readTimeout = -1, int32_t writeTimeout = -1, int32_t connectTimeout = -1)
      : channel(ChannelNewEx(readTimeout, writeTimeout, connectTimeout)) {}
  ~ScopedChannel() { ChannelClose(channel); }
  Channel *operator->() const { return channel; }
  operator Channel *() const { return channel; }
  Channel *channel;
};

bool CloseOnExec(int64_t handle) { return fcntl(static_cast<int>(handle), F_GETFD) & FD_CLOEXEC; }
bool NonBlocking(int64_t handle) { return fcntl(static_cast<int>(handle), F_GETFL) & O_NONBLOCK; }

// Deterministic bulk data (a pattern with a prime period, so no piece of a
// transfer lines up with it) and an order-sensitive checksum of it.
constexpr size_t kPeriod = 65521;
const std::vector<unsigned char> &Pattern() {
  static const std::vector<unsigned char> pattern = [] {
    std::vector<unsigned char> p(2 * kPeriod);
    for (size_t i = 0; i < kPeriod; ++i) p[i] = p[i + kPeriod] = static_cast<unsigned char>((i * 0x9E3779B1u) >> 24);
    return p;
  }();
  return pattern;
}
void Fill(unsigned char *p, size_t n, uint64_t offset) {
  const unsigned char *pattern = Pattern().data();
  while (n > 0) {
    size_t start = offset % kPeriod, piece = std::min(n, kPeriod);
    memcpy(p, pattern + start, piece);
    p += piece, n -= piece, offset += piece;
  }
}
struct Checksum {  // two running sums: each byte counts with its position
  uint64_t a = 1, b = 0;
  void Add(const unsigned char *p, size_t n) {
    for (size_t i = 0; i < n; ++i) a += p[i], b += a;
  }
  uint64_t value() const { return a ^ b << 1; }
};
uint64_t ExpectedChecksum(size_t total) {
  std::vector<unsigned char> block(1 << 20);
  Checksum sum;
  for (size_t done = 0; done < total; done += block.size()) {
    size_t n = std::min(block.size(), total - done);
    Fill(block.data(), n, done);
    sum.Add(block.data(), n);
  }
  return sum.value();
}

// Connects a channel to a fresh loopback listener; returns the accepted peer.
Fd ConnectToListener(Channel *channel, uint32_t family = KZ_FAMILY_IPV4) {
  kztest::Listener listener(family);
  TCPAddr target = listener.Address();
  EXPECT_EQ(ChannelConnect(channel, &target), 1) << KZErrorMessage();
  return listener.Accept();
}

// ---- record and settings ----------------------------------------------------------

TEST(Channel, CreationAndSettings) {
  Channel *channel = ChannelNewEx(-5, 200, -7);
  EXPECT_EQ(channel->readTimeout, -1);
  EXPECT_EQ(channel->writeTimeout, 200);
  EXPECT_EQ(channel->connectTimeout, -1);
  EXPECT_EQ(channel->handle, KZ_INVALID_HANDLE);
  EXPECT_EQ(channel->portRangeMin, 0);
  EXPECT_EQ(channel->portRangeMax, 65535);
  EXPECT_EQ(channel->crtDescriptor, -1);
  EXPECT_EQ(ChannelConnected(channel), 0);
  EXPECT_EQ(ChannelGetMemorySize(channel), 23536u);
  EXPECT_EQ(ChannelGetMemorySize(nullptr), 0u);
  EXPECT_EQ(ChannelSetReadTimeout(channel, 30), -1);
  EXPECT_EQ(ChannelSetReadTimeout(channel, -5), 30);
  EXPECT_EQ(channel->readTimeout, -1);
  EXPECT_EQ(ChannelSetConnectTimeout(channel, -5), -1);
  EXPECT_EQ(channel->connectTimeout, -5);  // stored as given
  ChannelSetOutboundPortRange(channel, 100, 200);
  EXPECT_EQ(channel->nextPort, 100);
  ChannelSetObfuscationKey(channel, 42);
  EXPECT_EQ(channel->obfuscated, 1u);
  EXPECT_EQ(channel->readKeyState, 42u);
  EXPECT_EQ(channel->writeKeyState, 42u);
  ChannelSetObfuscationKey(channel, KZ_OBFUSCATION_OFF);
  EXPECT_EQ(channel->obfuscated, 0u);
  EXPECT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ChannelClose(nullptr), 1);
  kztest::ExpectFatal({[] {
                         Channel *c = ChannelNew(-1, -1);
                         ChannelSetOutboundPortRange(c, 10, 9);
                       },
                       0, "'min <= max' failed at kzlib/kztcp"});
}

TEST(Channel, LibraryWideSettings) {
  EXPECT_EQ(KZGetDefaultFamily(), KZ_FAMILY_IPV4);
  EXPECT_EQ(KZSetDefaultFamily(KZ_FAMILY_IPV6), 1);  // probes an AF_INET6 datagram socket
  EXPECT_EQ(KZGetDefaultFamily(), KZ_FAMILY_IPV6);
  TCPAddr any;
  TCPAddrAny(&any, KZ_FAMILY_UNSET, 1);
  EXPECT_EQ(any.family, KZ_FAMILY_IPV6);
  EXPECT_EQ(KZSetDefaultFamily(3), 0);
  EXPECT_EQ(KZSetDefaultFamily(KZ_FAMILY_IPV4), 1);
  EXPECT_EQ(ChannelGetDefaultMaxIOOperationSize(), 131072u);
}

TEST(Channel, NetworkStartUpReadsItsEnvironment) {
  auto start = [] {
    KZSetMessageHandler([](const char *, uint32_t, int level, uint32_t, const char *format, va_list args) {
      printf("%d ", level), vprintf(format, args), printf("\n");
    });
    KZLibInit(nullptr);
    return printf("family=%u max=%u\n", KZGetDefaultFamily(), ChannelGetDefaultMaxIOOperationSize()), 0;
  };
  const struct {
    kztest::Environment environment;
    const char *out;
  } cases[] = {
      {{}, "family=1 max=131072\n"},
      {{{"KZ_DEFAULT_FAMILY", "IPv6"}, {"KZ_NETWORK_MAX_IO_SIZE", "4096"}}, "family=2 max=4096\n"},
      {{{"KZ_DEFAULT_FAMILY", "v4"}, {"KZ_NETWORK_MAX_IO_SIZE", "0"}}, "family=1 max=131072\n"},
      {{{"KZ_DEFAULT_FAMILY", "7"}}, "3 unsupported KZ_DEFAULT_FAMILY=7\nfamily=1 max=131072\n"},
      {{{"KZ_NETWORK_MAX_IO_SIZE", "12x"}}, "3 invalid KZ_NETWORK_MAX_IO_SIZE='12x' directive\nfamily=1 max=131072\n"},
      {{{"KZ_NETWORK_MAX_IO_SIZE", "99999999999999999999"}},
       "3 invalid KZ_NETWORK_MAX_IO_SIZE='99999999999999999999' directive\nfamily=1 max=131072\n"},
  };
  for (const auto &c : cases) {
    kztest::Child child = kztest::RunChild(c.environment, start);
    EXPECT_EQ(child.out, c.out) << child.Describe();
  }
}

#if !KZ_WITH_SSL
// A library built without SSL has no SSL calls; a channel whose request flag
// is set anyway fails its connect with a clear error and stays disconnected.
TEST(Channel, SslRequestWithoutSslSupportFailsTheConnect) {
  kztest::Listener listener;
  Channel *channel = ChannelNew(-1, -1);
  channel->sslRequested = 1;
  TCPAddr address = listener.Address();
  EXPECT_EQ(ChannelConnect(channel, &address), 0);
  EXPECT_STREQ(KZErrorMessage(), "SSL is not available");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_NOT_SUPPORTED);
  EXPECT_EQ(ChannelConnected(channel), 0);
  ChannelClose(channel);
}
#endif

// ---- connecting ----------------------------------------------------------------------

TEST(ChannelConnect, TcpBothFamiliesAndSocketOptions) {
  for (uint32_t family : {KZ_FAMILY_IPV4, KZ_FAMILY_IPV6}) {
    ScopedChannel channel;
    Fd peer = ConnectToListener(channel, family);
    ASSERT_GE(peer.get(), 0);
    EXPECT_EQ(ChannelIsSocket(channel), 1);
    EXPECT_EQ(channel->isNamedPipe, 0u);
    EXPECT_TRUE(CloseOnExec(channel->handle));
    EXPECT_FALSE(NonBlocking(channel->handle));  // no time-out: a blocking socket
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(static_cast<int>(channel->handle), SOL_SOCKET, SO_KEEPALIVE, &value, &size);
    EXPECT_EQ(value, 1);
    getsockopt(static_cast<int>(channel->handle), IPPROTO_TCP, TCP_NODELAY, &value, &size);
    EXPECT_EQ(value, 1);
    TCPAddr local, remote;
    ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
    ASSERT_EQ(ChannelGetAddr(channel, &remote, 1), 1);
    EXPECT_EQ(local.family, family);
    IPAddr remoteIP;
    memcpy(&remoteIP, &remote, sizeof remoteIP);
    EXPECT_EQ(IPAddrIsLocal(&remoteIP), 1);
    // The blocking mode follows whether any I/O time-out is set.
    ChannelSetReadTimeout(channel, 100);
    EXPECT_TRUE(NonBlocking(channel->handle));
    ChannelSetWriteTimeout(channel, 100);
    ChannelSetReadTimeout(channel, -1);
    EXPECT_TRUE(NonBlocking(channel->handle));
    ChannelSetWriteTimeout(channel, -1);
    EXPECT_FALSE(NonBlocking(channel->handle));
  }
  ScopedChannel timed(50, -1, 1000);  // connect time-out and an I/O time-out: non-blocking
  Fd peer = ConnectToListener(timed);
  EXPECT_TRUE(NonBlocking(timed->handle));
  ScopedChannel connectOnly(-1, -1, 1000);  // a connect time-out alone: blocking again afterwards
  Fd other = ConnectToListener(connectOnly);
  EXPECT_FALSE(NonBlocking(connectOnly->handle));
}

TEST(ChannelConnect, Failures) {
  ScopedChannel channel(-1, -1, 500);
  TCPAddr any;
  TCPAddrAny(&any, KZ_FAMILY_IPV4, 80);
  EXPECT_EQ(ChannelConnect(channel, &any), 0);
  EXPECT_STREQ(KZErrorMessage(), "can not connect to INADDR_ANY");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);

  TCPAddr closed;
  {
    kztest::Listener listener;  // a port that was just free again
    closed = listener.Address();
  }
  for (int32_t connectTimeout : {-1, 500}) {
    ChannelSetConnectTimeout(channel, connectTimeout);
    errno = 0;
    EXPECT_EQ(ChannelConnect(channel, &closed), 0);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(KZGetLastError(), ECONNREFUSED);
    EXPECT_EQ(ChannelConnected(channel), 0);
  }
  Scoped<TCPAddrArray> none;
  EXPECT_EQ(ChannelConnectMultiple(channel, &none), 0);
  EXPECT_STREQ(KZErrorMessage(), "ChannelConnectMultiple: no TCP addresses given");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID);

  kztest::Listener listener;
  TCPAddrArray two{};
  TCPAddr both[2] = {closed, listener.Address()};
  two.elements = both;
  two.count = 2;
  EXPECT_EQ(ChannelConnectMultiple(channel, &two), 1);
  TCPAddr remote;
  ASSERT_EQ(ChannelGetAddr(channel, &remote, 1), 1);
  EXPECT_EQ(remote.port, listener.port());
  both[1] = closed;
  EXPECT_EQ(ChannelConnectMultiple(channel, &two), 0);
  EXPECT_EQ(KZGetLastError(), ECONNREFUSED);  // the last failure's error stays
}

// Two consecutive free ports, held bound until released.
struct PortPair {
  uint16_t first = 0;
  Fd holders[2];
  PortPair() {
    for (uint16_t p = 41000; p < 60000 && !first; p += 2) {
      Fd a(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), b(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (Bind(a.get(), p) && Bind(b.get(), static_cast<uint16_t>(p + 1))) {
        first = p;
        holders[0] = std::move(a);
        holders[1] = std::move(b);
      }
    }
  }
  static bool Bind(int fd, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  }
};

TEST(ChannelConnect, OutboundPortRange) {
  PortPair ports;
  ASSERT_NE(ports.first, 0);
  const uint16_t low = ports.first, high = static_cast<uint16_t>(low + 1);
  kztest::Listener listener;
  TCPAddr target = listener.Address();
  ScopedChannel channel;
  ChannelSetOutboundPortRange(channel, low, high);
  {
    kztest::CapturedStream errors(1);
    ASSERT_EQ(ChannelConnect(channel, &target), 1);  // both busy: the system picks a port
    EXPECT_NE(errors.Text().find("could not bind to any port in range [" + std::to_string(low) + "," +
                                 std::to_string(high) + "]"),
              std::string::npos)
        << errors.Text();
  }
  EXPECT_EQ(channel->nextPort, low);  // after the last one tried comes the first again
  TCPAddr local;
  ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
  EXPECT_NE(local.port, low);
  EXPECT_NE(local.port, high);
  Fd accepted = listener.Accept();

  ports.holders[1].reset();  // the second port is free now
  {
    kztest::CapturedStream errors(1);
    ASSERT_EQ(ChannelConnect(channel, &target), 1);
    EXPECT_EQ(errors.Text(), "");
  }
  ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
  EXPECT_EQ(local.port, high);
  EXPECT_EQ(channel->nextPort, low);
  Fd second = listener.Accept();
}

// ---- local connections --------------------------------------------------------------

TCPAddr LocalAddress(const char *name, uint16_t port) {
  TCPAddr address{};
  address.family = KZ_FAMILY_LOCAL;
  strcpy(reinterpret_cast<char *>(address.address), name);
  address.port = port;
  return address;
}

TEST(LocalConnection, TransfersAndFlags) {
  const uint16_t port = static_cast<uint16_t>(getpid());
  kztest::LocalListener listener("sock", "loc", port);
  ASSERT_TRUE(listener.ok());
  ScopedChannel channel(2000, 2);
  TCPAddr address = LocalAddress("loc", port);
  ASSERT_EQ(ChannelConnect(channel, &address), 1) << KZErrorMessage();
  Fd peer = listener.Accept();
  EXPECT_EQ(channel->isNamedPipe, 1u);
  EXPECT_EQ(channel->isSocket, 0u);
  EXPECT_TRUE(CloseOnExec(channel->handle));
  ASSERT_EQ(ChannelWriteString(channel, "ping\n"), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  EXPECT_EQ(kztest::ReadExactly(peer.get(), 5), "ping\n");
  ASSERT_TRUE(kztest::WriteAll(peer.get(), "pong\r\n"));
  Scoped<UByteArray> line;
  ASSERT_EQ(ChannelReadLine(channel, &line, 0), 1);
  EXPECT_EQ(Bytes(line), "pong");
  EXPECT_EQ(ChannelShutdown(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "ChannelShutdown: operation not supported");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_INVALID);
  TCPAddr none;
  EXPECT_EQ(ChannelGetAddr(channel, &none, 1), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelImpersonateNamedPipeClient(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "not supported");

  // Read time-outs count in milliseconds here.
  ChannelSetReadTimeout(channel, 50);
  auto start = Clock::now();
  EXPECT_EQ(ChannelReadLine(channel, &line, 0), 0);
  EXPECT_STREQ(KZErrorMessage(), "read timeout");
  EXPECT_LT(MillisecondsSince(start), 1500);

  // Write time-outs count in seconds: a peer that stops reading.
  std::vector<unsigned char> block(1 << 20, 'x');
  start = Clock::now();
  int sent = 1;
  for (int i = 0; i < 64 && sent; ++i) sent = ChannelWriteBuf(channel, block.data(), block.size());
  EXPECT_EQ(sent, 0);
  EXPECT_STREQ(KZErrorMessage(), "write timeout");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  EXPECT_GE(MillisecondsSince(start), 1900);

  EXPECT_EQ(ChannelConnectNamedPipeWithFlags(channel, &address, 0), 1);
  TCPAddr tcp;
  TCPAddrLocal(&tcp, KZ_FAMILY_IPV4, 1);
  EXPECT_EQ(ChannelConnectNamedPipeWithFlags(channel, &tcp, 0), 0);
  EXPECT_EQ(ChannelConnected(channel), 0);
}

TEST(LocalConnection, BusyListenerWaitsInSeconds) {
  const uint16_t port = static_cast<uint16_t>(getpid() + 1);
  kztest::LocalListener listener("sock", "busy", port, 0);
  ASSERT_TRUE(listener.ok());
  // Fill the backlog with one pending connection.
  Fd pending(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un path{};
  path.sun_family = AF_UNIX;
  strcpy(path.sun_path, listener.path().c_str());
  ASSERT_EQ(connect(pending.get(), reinterpret_cast<sockaddr *>(&path), sizeof path), 0);
  TCPAddr address = LocalAddress("busy", port);

  ScopedChannel channel(-1, -1, 0);
  auto start = Clock::now();
  EXPECT_EQ(ChannelConnect(channel, &address), 0);  // time-out 0: no waiting
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EAGAIN);
  EXPECT_LT(MillisecondsSince(start), 500);

  ChannelSetConnectTimeout(channel, 1);  // one second
  start = Clock::now();
  EXPECT_EQ(ChannelConnect(channel, &address), 0);
  EXPECT_GE(MillisecondsSince(start), 950);

  std::thread acceptor([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Fd first = listener.Accept();  // frees the backlog
    Fd second = listener.Accept();
  });
  ChannelSetConnectTimeout(channel, 5);
  EXPECT_EQ(ChannelConnect(channel, &address), 1) << KZErrorMessage();
  acceptor.join();
}

TEST(LocalConnection, RefusedForAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
  const uint16_t port = static_cast<uint16_t>(getpid() + 2);
  kztest::LocalListener listener("sock", "own", port);
  ASSERT_TRUE(listener.ok());
  passwd *nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  kztest::Child child = kztest::RunChild({}, [&] {
    if (setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) return 2;
    Channel *channel = ChannelNew(-1, -1);
    TCPAddr address = LocalAddress("own", port);
    int connected = ChannelConnect(channel, &address);
    printf("%d %d %d\n", connected, errno, KZGetLastError());
    ChannelClose(channel);
    return 0;
  });
  EXPECT_EQ(child.out, "0 -1 " + std::to_string(EACCES) + "\n") << child.Describe();
  // The owner itself is let in.
  ScopedChannel channel;
  TCPAddr address = LocalAddress("own", port);
  EXPECT_EQ(ChannelConnect(channel, &address), 1);
}

// ---- transfers with plain peers ---------------------------------------------------------

TEST(ChannelTransfer, HalfCloseAndEndOfInput) {
  ScopedChannel channel;
  Fd peer = ConnectToListener(channel);
  ASSERT_EQ(ChannelWriteString(channel, "request"), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  ASSERT_EQ(ChannelShutdown(channel), 1);
  EXPECT_EQ(kztest::ReadToEnd(peer.get()), "request");  // end of input after the request
  ASSERT_TRUE(kztest::WriteAll(peer.get(), "answer"));
  peer.reset();
  char buffer[16];
  size_t count = 0;
  EXPECT_EQ(ChannelReadBuf(channel, buffer, 10, &count), KZ_RECEIVE_EOF);
  EXPECT_EQ(std::string(buffer, count), "answer");
  EXPECT_EQ(ChannelReadByte(channel), KZ_RECEIVE_EOF);
  EXPECT_EQ(errno, 0);
}

TEST(ChannelTransfer, ReadTimeoutAndNoWait) {
  ScopedChannel channel(100, -1);
  Fd peer = ConnectToListener(channel);  // a peer that sends nothing
  char buffer[8];
  size_t count = 99;
  auto start = Clock::now();
  EXPECT_EQ(ChannelReadBuf(channel, buffer, sizeof buffer, &count), KZ_RECEIVE_TIMEOUT);
  EXPECT_GE(MillisecondsSince(start), 90);
  EXPECT_EQ(count, 0u);
  EXPECT_STREQ(KZErrorMessage(), "read timeout");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);

  ScopedChannel blocking;  // no time-out at all: wait 0 still answers at once
  Fd other = ConnectToListener(blocking);
  start = Clock::now();
  EXPECT_EQ(ChannelReceive(blocking, buffer, sizeof buffer, 0, &count, 0), KZ_RECEIVE_TIMEOUT);
  EXPECT_LT(MillisecondsSince(start), 50);
  EXPECT_STREQ(KZErrorMessage(), "read timeout");
  ASSERT_TRUE(kztest::WriteAll(other.get(), "x"));
  EXPECT_EQ(ChannelReceive(blocking, buffer, sizeof buffer, 0, &count, 1), KZ_RECEIVE_OK);
  EXPECT_EQ(count, 1u);
}

TEST(ChannelTransfer, WriteTimeoutOnAPeerThatStopsReading) {
  ScopedChannel channel(-1, 100);
  Fd peer = ConnectToListener(channel);
  std::vector<unsigned char> block(1 << 20, 'y');
  auto start = Clock::now();
  int sent = 1;
  for (int i = 0; i < 256 && sent; ++i) sent = ChannelSend(channel, block.data(), block.size());
  EXPECT_EQ(sent, 0);
  EXPECT_GE(MillisecondsSince(start), 90);
  EXPECT_STREQ(KZErrorMessage(), "timeout");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
}

TEST(ChannelTransfer, ResetPeerAndClosedPipesNeverRaiseSigpipe) {
  struct sigaction previous, defaults{};
  defaults.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &defaults, &previous);  // a SIGPIPE would end the test program

  ScopedChannel channel;
  Fd peer = ConnectToListener(channel);
  linger abort = {1, 0};
  setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  peer.reset();  // RST
  char buffer[4];
  size_t count;
  EXPECT_EQ(ChannelReadBuf(channel, buffer, sizeof buffer, &count), KZ_RECEIVE_ERROR);
  EXPECT_EQ(KZGetLastError(), ECONNRESET);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(KZ_DOMAIN_SYSTEM, ECONNRESET));
  EXPECT_EQ(std::string(KZErrorMessage()).rfind("read error", 0), 0u) << KZErrorMessage();
  std::vector<unsigned char> data(65536, 'z');
  int sent = 1;
  for (int i = 0; i < 4 && sent; ++i) sent = ChannelSend(channel, data.data(), data.size());
  EXPECT_EQ(sent, 0);
  EXPECT_EQ(errno, -1);

  int fds[2];
  ASSERT_EQ(ChannelCreatePipe(fds), 1);
  EXPECT_TRUE(CloseOnExec(fds[0]));
  EXPECT_TRUE(CloseOnExec(fds[1]));
  close(fds[0]);
  ASSERT_EQ(ChannelSetFD(channel, fds[1], 1), 1);
  EXPECT_EQ(ChannelWriteString(channel, "lost"), 1);
  EXPECT_EQ(ChannelFlush(channel), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EPIPE);
  EXPECT_EQ(channel->writeCount, 4);  // unsent bytes stay in the buffer
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  ChannelDisconnect(channel);
  sigaction(SIGPIPE, &previous, nullptr);
}

TEST(ChannelTransfer, InterruptedCallsAreRestarted) {
  struct sigaction handler {
  }, previous;
  handler.sa_handler = [](int) {};
  sigaction(SIGUSR1, &handler, &previous);  // no SA_RESTART: calls see EINTR
  ScopedChannel channel(5000, -1);
  Fd peer = ConnectToListener(channel);
  pthread_t reader = pthread_self();
  std::atomic<bool> done{false};
  std::thread interrupter([&] {
    for (int i = 0; i < 100 && !done; ++i) {
      pthread_kill(reader, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    kztest::WriteAll(peer.get(), "late");
  });
  char buffer[4];
  size_t count = 0;
  EXPECT_EQ(ChannelReadBuf(channel, buffer, 4, &count), KZ_RECEIVE_OK);
  done = true;
  interrupter.join();
  EXPECT_EQ(std::string(buffer, count), "late");
  sigaction(SIGUSR1, &previous, nullptr);
}

// Moves `total` bytes from a channel writer to a plain reader (or the other
// way) in uneven pieces, and checks the checksum on the far side.
void BulkThroughChannel(Channel *channel, int peerFd, size_t total, bool channelWrites) {
  const size_t pieces[] = {1, 7, 11680, 11681, 65536, 300000, 5000};
  uint64_t expected = ExpectedChecksum(total);
  std::vector<unsigned char> block(300000);
  Checksum local;
  std::thread peer([&] {
    std::vector<unsigned char> buffer(1 << 20);
    if (channelWrites) {
      Checksum remote;
      size_t got = 0;
      for (ssize_t n; got < total && (n = read(peerFd, buffer.data(), buffer.size())) > 0; got += size_t(n))
        remote.Add(buffer.data(), size_t(n));
      EXPECT_EQ(got, total);
      EXPECT_EQ(remote.value(), expected);
    } else {
      for (size_t done = 0; done < total;) {
        size_t n = std::min(buffer.size(), total - done);
        Fill(buffer.data(), n, done);
        ASSERT_TRUE(kztest::WriteAll(peerFd, buffer.data(), n));
        done += n;
      }
    }
  });
  size_t done = 0;
  for (size_t i = 0; done < total; ++i) {
    size_t n = std::min(pieces[i % 7], total - done);
    if (channelWrites) {
      Fill(block.data(), n, done);
      ASSERT_EQ(ChannelWriteBuf(channel, block.data(), n), 1) << KZErrorMessage();
    } else {
      size_t count = 0;
      ASSERT_EQ(ChannelReadBuf(channel, block.data(), n, &count), KZ_RECEIVE_OK) << KZErrorMessage();
      ASSERT_EQ(count, n);
      local.Add(block.data(), n);
    }
    done += n;
  }
  if (channelWrites) {
    EXPECT_EQ(ChannelFlush(channel), 1);
    ChannelDisconnect(channel);  // end of input for the peer
  } else {
    EXPECT_EQ(local.value(), expected);
  }
  peer.join();
}

constexpr size_t kBulk = 100u << 20;

TEST(ChannelBulk, TcpBothDirections) {
  for (bool channelWrites : {true, false}) {
    ScopedChannel channel;
    Fd peer = ConnectToListener(channel);
    BulkThroughChannel(channel, peer.get(), kBulk / 2, channelWrites);
  }
}

TEST(ChannelBulk, LocalConnectionBothDirections) {
  const uint16_t port = static_cast<uint16_t>(getpid() + 3);
  kztest::LocalListener listener("sock", "bulk", port);
  ASSERT_TRUE(listener.ok());
  for (bool channelWrites : {true, false}) {
    ScopedChannel channel(10000, 10);
    TCPAddr address = LocalAddress("bulk", port);
    ASSERT_EQ(ChannelConnect(channel, &address), 1);
    Fd peer = listener.Accept();
    BulkThroughChannel(channel, peer.get(), kBulk / 2, channelWrites);
  }
}

TEST(ChannelBulk, PipesBothDirections) {
  for (bool channelWrites : {true, false}) {
    int fds[2];
    ASSERT_EQ(ChannelCreatePipe(fds), 1);
    ScopedChannel channel;
    Fd peer(channelWrites ? fds[0] : fds[1]);
    ASSERT_EQ(ChannelSetFD(channel, channelWrites ? fds[1] : fds[0], 1), 1);
    BulkThroughChannel(channel, peer.get(), kBulk / 2, channelWrites);
  }
}

TEST(ChannelBulk, FileAndMemory) {
  kztest::TempPath path("bulk");
  {
    ScopedChannel channel;
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    Fd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    // Write it all, then read it back with a plain descriptor.
    std::vector<unsigned char> block(1 << 20);
    for (size_t done = 0; done < kBulk / 2; done += block.size()) {
      Fill(block.data(), block.size(), done);
      ASSERT_EQ(ChannelWriteBuf(channel, block.data(), block.size()), 1);
    }
    ASSERT_EQ(ChannelFlush(channel), 1);
    Checksum sum;
    for (ssize_t n; (n = read(reader.get(), block.data(), block.size())) > 0;) sum.Add(block.data(), size_t(n));
    EXPECT_EQ(sum.value(), ExpectedChecksum(kBulk / 2));
  }
  {
    ScopedChannel channel;
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 1);
    Checksum sum;
    std::vector<unsigned char> block(70001);
    size_t count = 0, total = 0;
    int result;
    while ((result = ChannelReadBuf(channel, block.data(), block.size(), &count)) == KZ_RECEIVE_OK || count) {
      sum.Add(block.data(), count);
      total += count;
      if (result != KZ_RECEIVE_OK) break;
    }
    EXPECT_EQ(result, KZ_RECEIVE_EOF);
    EXPECT_EQ(total, kBulk / 2);
    EXPECT_EQ(sum.value(), ExpectedChecksum(kBulk / 2));
  }
  {  // memory: a writer collects, a reader replays
    Scoped<UByteArray> collected;
    ScopedChannel writer, reader;
    ASSERT_EQ(ChannelMemoryWriter(writer, &collected), 1);
    std::vector<unsigned char> block(1 << 20);
    for (size_t done = 0; done < kBulk / 2; done += block.size()) {
      Fill(block.data(), block.size(), done);
      ASSERT_EQ(ChannelWriteBuf(writer, block.data(), block.size() - 3), 1);
      ASSERT_EQ(ChannelWriteBuf(writer, block.data() + block.size() - 3, 3), 1);
    }
    ASSERT_EQ(ChannelFlush(writer), 1);
    ASSERT_EQ(collected.count, kBulk / 2);
    ASSERT_EQ(ChannelMemoryReader(reader, collected.elements, collected.count), 1);
    Checksum sum;
    size_t count;
    while (ChannelReadBuf(reader, block.data(), 12345, &count) == KZ_RECEIVE_OK) sum.Add(block.data(), count);
    sum.Add(block.data(), count);
    EXPECT_EQ(sum.value(), ExpectedChecksum(kBulk / 2));
    EXPECT_EQ(ChannelMemoryIOReadOffs(reader), int64_t(kBulk / 2));
  }
}

TEST(ChannelTransfer, PythonPeer) {
  if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "python3 is not available";
  kztest::Listener listener;
  char command[512];
  snprintf(command, sizeof command,
           "/usr/bin/python3 -c 'import socket,sys\n"
           "s=socket.create_connection((\"127.0.0.1\",%u))\n"
           "f=s.makefile(\"rwb\")\n"
           "for line in f:\n"
           "  f.write(line.strip().upper()+b\"\\r\\n\"); f.flush()\n"
           "s.close()' &",
           unsigned(listener.port()));
  ASSERT_EQ(system(command), 0);
  Fd accepted = listener.Accept();
  ASSERT_GE(accepted.get(), 0);
  ScopedChannel channel(10000, 10000);
  ASSERT_EQ(ChannelSetFD(channel, accepted.release(), 1), 1);
  Scoped<UByteArray> line;
  const std::string words[] = {"hello", "kz channel", std::string(20000, 'q')};
  for (const std::string &word : words) {
    ASSERT_EQ(ChannelWriteString(channel, word.c_str()), 1);
    ASSERT_EQ(ChannelWriteString(channel, "\n"), 1);
    ASSERT_EQ(ChannelFlush(channel), 1);
    ASSERT_EQ(ChannelReadLine(channel, &line, 0), 1) << KZErrorMessage();
    std::string upper(word);
    for (char &c : upper) c = static_cast<char>(toupper(c));
    EXPECT_EQ(Bytes(line), upper);
  }
  ChannelDisconnect(channel);  // the peer ends when its input does
}

// ---- buffered reading and writing ----------------------------------------------------------

// A virtual endpoint that records every transfer it is asked for.
struct Recorder {
  std::string input, output;
  size_t offset = 0;
  std::vector<size_t> reads, writes;
  int released = 0, syncs = 0, shutdowns = 0;
  static int64_t Read(void *buffer, size_t size, void *self) {
    Recorder *r = static_cast<Recorder *>(self);
    r->reads.push_back(size);
    size_t n = std::min(size, r->input.size() - r->offset);
    memcpy(buffer, r->input.data() + r->offset, n);
    r->offset += n;
    return static_cast<int64_t>(n);
  }
  static int64_t Write(const void *data, size_t size, void *self) {
    Recorder *r = static_cast<Recorder *>(self);
    r->writes.push_back(size);
    r->output.append(static_cast<const char *>(data), size);
    return static_cast<int64_t>(size);
  }
  static void Release(void *self) { static_cast<Recorder *>(self)->released++; }
  static int Sync(void *self) { return static_cast<Recorder *>(self)->syncs++, 0; }
  static int Shutdown(void *self) { return static_cast<Recorder *>(self)->shutdowns++, 0; }
  void Attach(Channel *channel, bool withOptional = true) {
    EXPECT_EQ(ChannelAttachVirtual(channel, Read, Write, Release, withOptional ? Shutdown : nullptr,
                                   withOptional ? Sync : nullptr, this),
              this);
  }
};

TEST(ChannelBuffering, LinesAndCarriageReturns) {
  const struct {
    std::string input;
    uint32_t maxLength;
    std::vector<std::string> lines;  // then end of input
  } cases[] = {
      {"ab\r\ncd\n", 0, {"ab", "cd"}},     {"a\rb\n", 0, {"ab"}},
      {"\r\r\n\n", 0, {"", ""}},           {"abcdef\n", 3, {"abc", "def", ""}},
      {"ab\r\rcd\n", 2, {"ab", "cd", ""}},
  };
  for (const auto &c : cases) {
    ScopedChannel channel;
    ChannelMemoryReader(channel, c.input.data(), c.input.size());
    Scoped<UByteArray> line;
    for (const auto &expected : c.lines) {
      ASSERT_EQ(ChannelReadLine(channel, &line, c.maxLength), 1) << c.input;
      EXPECT_EQ(Bytes(line), expected) << c.input;
      EXPECT_EQ(line.elements[line.count], '\0');
    }
    EXPECT_EQ(ChannelReadLine(channel, &line, c.maxLength), 0);
    EXPECT_STREQ(KZErrorMessage(), "read EOF");
    EXPECT_EQ(KZErrorCode(), KZ_ERR_EOF);
  }
  ScopedChannel channel;
  ChannelMemoryReader(channel, "xyz", 3);
  Scoped<UByteArray> line;
  EXPECT_EQ(ChannelReadLine(channel, &line, 0), 0);
  EXPECT_STREQ(KZErrorMessage(), "read EOF");
  EXPECT_EQ(Bytes(line), "xyz");  // the partial line stays
}

TEST(ChannelBuffering, LinesAcrossBufferBoundaries) {
  // Lines whose ends fall just before, on and after each 11,680-byte refill,
  // with the CR of a CR LF pair in one refill and its LF in the next.
  std::string input;
  std::vector<std::string> expected;
  for (size_t length : {11678, 11679, 11680, 11681, 1, 23358, 0, 11679}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>('a' + (i * 7 + length) % 26));
    expected.push_back(text);
    input += text + "\r\n";
  }
  input += "tail";
  for (bool overTcp : {false, true}) {
    ScopedChannel channel(5000, -1);
    Fd peer;
    std::thread writer;
    if (overTcp) {
      peer = ConnectToListener(channel);
      writer = std::thread([&] {  // small uneven writes
        for (size_t done = 0; done < input.size(); done += 997)
          kztest::WriteAll(peer.get(), input.data() + done, std::min<size_t>(997, input.size() - done));
        shutdown(peer.get(), SHUT_WR);
      });
    } else {
      ChannelMemoryReader(channel, input.data(), input.size());
    }
    Scoped<UByteArray> line;
    for (const auto &text : expected) {
      ASSERT_EQ(ChannelReadLine(channel, &line, 0), 1);
      EXPECT_EQ(Bytes(line), text);
    }
    EXPECT_EQ(ChannelReadLine(channel, &line, 0), 0);
    EXPECT_EQ(Bytes(line), "tail");
    if (writer.joinable()) writer.join();
  }
}

TEST(ChannelBuffering, IntegersNumbersAndStrings) {
  Scoped<UByteArray> out;
  ScopedChannel channel;
  ChannelMemoryWriter(channel, &out);
  EXPECT_EQ(ChannelWriteUIntLE(channel, 0x01020304u), 1);
  EXPECT_EQ(ChannelWriteULongLE(channel, 0x0102030405060708ull), 1);
  EXPECT_EQ(ChannelFlush(channel), 1);
  EXPECT_EQ(Bytes(out), std::string("\x04\x03\x02\x01\x08\x07\x06\x05\x04\x03\x02\x01", 12));

  const struct {
    int (*write)(Channel *);
    const char *text;
  } numbers[] = {
      {[](Channel *c) { return ChannelWriteInt(c, -2147483647 - 1); }, "-2147483648"},
      {[](Channel *c) { return ChannelWriteLong(c, INT64_MIN); }, "-9223372036854775808"},
      {[](Channel *c) { return ChannelWriteUInt(c, 4294967295u); }, "4294967295"},
      {[](Channel *c) { return ChannelWriteULong(c, UINT64_MAX); }, "18446744073709551615"},
      {[](Channel *c) { return ChannelWriteHexInt(c, 255); }, "000000ff"},
      {[](Channel *c) { return ChannelWriteHexLong(c, 0xABCull); }, "0000000000000abc"},
      {[](Channel *c) { return ChannelWriteDouble(c, 3.14159265); }, "3.1416"},
      {[](Channel *c) { return ChannelWriteDouble(c, 1e300); }, "1e+300"},
      {[](Channel *c) { return ChannelWriteString(c, ""); }, ""},
      {[](Channel *c) { return ChannelWriteString(c, "text"); }, "text"},
  };
  for (const auto &n : numbers) {
    out.count = 0;
    ASSERT_EQ(n.write(channel), 1);
    ASSERT_EQ(ChannelFlush(channel), 1);
    EXPECT_EQ(Bytes(out), n.text);
  }

  ChannelMemoryReader(channel, "\x04\x03\x02\x01\x08\x07\x06\x05\x04\x03\x02\x01\xAA", 13);
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  EXPECT_EQ(ChannelReadUIntLE(channel, &u32), 1);
  EXPECT_EQ(u32, 0x01020304u);
  EXPECT_EQ(ChannelReadULongLE(channel, &u64), 1);
  EXPECT_EQ(u64, 0x0102030405060708ull);
  EXPECT_EQ(ChannelReadUIntLE(channel, &u32), 0);  // one byte left: untouched value
  EXPECT_EQ(u32, 0x01020304u);
  EXPECT_EQ(ChannelReadByte(channel), KZ_RECEIVE_EOF);  // the lone byte was consumed
}

TEST(ChannelBuffering, NumberThresholdAndDirectPaths) {
  Recorder recorder;
  ScopedChannel channel;
  recorder.Attach(channel);
  std::string filler(11651, 'f');
  ASSERT_EQ(ChannelWriteBuf(channel, filler.data(), 11651), 1);
  ASSERT_EQ(ChannelWriteInt(channel, 12345), 1);  // 11,651 buffered: flushed first
  EXPECT_EQ(recorder.writes, std::vector<size_t>{11651});
  EXPECT_EQ(channel->writeCount, 5);
  ASSERT_EQ(ChannelFlush(channel), 1);
  ASSERT_EQ(ChannelWriteBuf(channel, filler.data(), 11650), 1);
  ASSERT_EQ(ChannelWriteInt(channel, 12345), 1);  // 11,650: fits without a flush
  EXPECT_EQ(channel->writeCount, 11655);
  ASSERT_EQ(ChannelFlush(channel), 1);

  recorder.writes.clear();
  std::string big(11681, 'b');
  ASSERT_EQ(ChannelWriteBuf(channel, big.data(), big.size()), 1);  // straight through
  EXPECT_EQ(recorder.writes, std::vector<size_t>{11681});
  EXPECT_EQ(channel->writeCount, 0);
  ASSERT_EQ(ChannelWriteString(channel, "ab"), 1);
  ASSERT_EQ(ChannelWriteBuf(channel, big.data(), big.size()), 1);  // flush, then straight
  EXPECT_EQ(recorder.writes, (std::vector<size_t>{11681, 2, 11681}));

  recorder.writes.clear();
  ChannelSetObfuscationKey(channel, 7);  // every byte through the buffer
  ASSERT_EQ(ChannelWriteBuf(channel, big.data(), big.size()), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  EXPECT_EQ(recorder.writes, (std::vector<size_t>{11680, 1}));

  Recorder source;
  source.input = std::string(30000, 's');
  ScopedChannel reader;
  source.Attach(reader);
  std::vector<char> buffer(30000);
  size_t count;
  ASSERT_EQ(ChannelReadBuf(reader, buffer.data(), 5, &count), KZ_RECEIVE_OK);  // a refill
  ASSERT_EQ(ChannelReadBuf(reader, buffer.data(), 11675 + 11681, &count), KZ_RECEIVE_OK);
  EXPECT_EQ(count, 11675u + 11681u);
  EXPECT_EQ(source.reads, (std::vector<size_t>{11680, 11681}));  // the rest straight into the caller's memory
}

TEST(ChannelBuffering, MaximumTransferSize) {
  ChannelSetDefaultMaxIOOperationSize(1000);
  Recorder recorder;
  recorder.input = std::string(2500, 'r');
  ScopedChannel channel;
  recorder.Attach(channel);
  EXPECT_EQ(ChannelSend(channel, recorder.input.data(), 2500), 1);
  EXPECT_EQ(recorder.writes, (std::vector<size_t>{1000, 1000, 500}));
  char buffer[2500];
  size_t count;
  EXPECT_EQ(ChannelReceive(channel, buffer, 2500, 1, &count, 1), KZ_RECEIVE_OK);
  EXPECT_EQ(recorder.reads, (std::vector<size_t>{1000, 1000, 500}));
  ChannelSetDefaultMaxIOOperationSize(131072);
}

// ---- scrambling ----------------------------------------------------------------------------------

std::string Scrambled(uint64_t key, const std::string &text) {
  std::string out = text;
  const unsigned char zero = 0;
  for (char &c : out) {
    c = static_cast<char>(c ^ static_cast<char>(key >> 56));
    key = FingerprintExtend(key, &zero, 1);
  }
  return out;
}

TEST(ChannelScrambling, SameAndDifferentKeys) {
  const uint64_t key = 0x0123456789ABCDEFull;
  ScopedChannel writer, reader;
  Fd peer = ConnectToListener(writer);
  ASSERT_EQ(ChannelSetFD(reader, peer.release(), 1), 1);
  ChannelSetObfuscationKey(writer, key);
  ChannelSetObfuscationKey(reader, key);
  ASSERT_EQ(ChannelWriteString(writer, "hello"), 1);
  ASSERT_EQ(ChannelFlush(writer), 1);
  ASSERT_EQ(ChannelWriteString(writer, " world\n"), 1);  // the state runs on across flushes
  ASSERT_EQ(ChannelFlush(writer), 1);
  Scoped<UByteArray> line;
  ASSERT_EQ(ChannelReadLine(reader, &line, 0), 1);
  EXPECT_EQ(Bytes(line), "hello world");

  // What goes over the wire, read by a plain peer.
  Scoped<UByteArray> wire;
  ScopedChannel memory;
  ChannelMemoryWriter(memory, &wire);
  ChannelSetObfuscationKey(memory, key);
  ChannelWriteString(memory, "hello");
  ChannelFlush(memory);
  EXPECT_EQ(Bytes(wire), Scrambled(key, "hello"));
  EXPECT_NE(Bytes(wire), "hello");
  ASSERT_EQ(ChannelSend(memory, "raw", 3), 1);  // unbuffered sends stay as they are
  EXPECT_EQ(Bytes(wire).substr(5), "raw");

  ScopedChannel other;
  std::string wireBytes = Bytes(wire).substr(0, 5);
  ChannelMemoryReader(other, wireBytes.data(), 5);
  ChannelSetObfuscationKey(other, key + 1);
  char buffer[5];
  size_t count;
  ASSERT_EQ(ChannelReadBuf(other, buffer, 5, &count), KZ_RECEIVE_OK);
  EXPECT_NE(std::string(buffer, 5), "hello");
  ChannelMemoryReader(other, wireBytes.data(), 5);
  ChannelSetObfuscationKey(other, key);
  ASSERT_EQ(ChannelReadBuf(other, buffer, 5, &count), KZ_RECEIVE_OK);
  EXPECT_EQ(std::string(buffer, 5), "hello");
}

// ---- endpoints ----------------------------------------------------------------------------------

TEST(ChannelFile, ModesTellSeekAndTruncate) {
  kztest::TempDir dir;
  const std::string path = dir / "f\xC3\xBC.bin";  // a UTF-8 name
  ScopedChannel channel;
  for (const char *mode : {"rw", "", "x", "R"}) {
    errno = 0;
    EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), mode), 0) << mode;
    EXPECT_EQ(errno, EINVAL) << mode;
  }
  EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), nullptr), 0);
  EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ChannelOpenFile(channel, (dir / "bad\xFF").c_str(), "w"), 0);
  EXPECT_EQ(errno, EINVAL);

  std::string hundred;
  for (int i = 0; i < 100; ++i) hundred.push_back(static_cast<char>('0' + i % 10));
  ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
  EXPECT_TRUE(CloseOnExec(channel->handle));
  ASSERT_EQ(ChannelWriteString(channel, hundred.c_str()), 1);
  int64_t position = -1;
  ASSERT_EQ(ChannelFileTell(channel, &position), 1);  // flushes first
  EXPECT_EQ(position, 100);
  ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "a"), 1);  // appends
  ASSERT_EQ(ChannelWriteString(channel, "END"), 1);
  ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 1);  // the reopen flushed nothing: dropped
  EXPECT_EQ(kztest::ReadFile(path), hundred);

  char buffer[10];
  size_t count;
  ASSERT_EQ(ChannelReadBuf(channel, buffer, 10, &count), KZ_RECEIVE_OK);
  ASSERT_EQ(ChannelFileTell(channel, &position), 1);
  EXPECT_EQ(position, 10);  // though the system's pointer is at 100
  ASSERT_EQ(ChannelFileSeek(channel, -3), 1);
  ASSERT_EQ(ChannelReadBuf(channel, buffer, 3, &count), KZ_RECEIVE_OK);
  EXPECT_EQ(std::string(buffer, 3), "789");
  ASSERT_EQ(ChannelFileSeek(channel, 42), 1);
  EXPECT_EQ(ChannelReadByte(channel), '2');
  ASSERT_EQ(ChannelFileTell(channel, &position), 1);
  EXPECT_EQ(position, 43);

  ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "a"), 1);
  ASSERT_EQ(ChannelFileTruncate(channel, 50, 0), 1);
  EXPECT_EQ(kztest::ReadFile(path).size(), 50u);
  ASSERT_EQ(ChannelFileTruncate(channel, 20, 1), 1);
  ASSERT_EQ(ChannelWriteString(channel, "X"), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  EXPECT_EQ(kztest::ReadFile(path), hundred.substr(0, 20) + "X");
  ASSERT_EQ(ChannelSync(channel), 1);

  std::vector<uint16_t> name(dir.path().begin(), dir.path().end());                       // an ASCII directory
  for (uint16_t unit : {0x2F, 0x66, 0xFC, 0x2E, 0x62, 0x69, 0x6E}) name.push_back(unit);  // "/f\u00fc.bin"
  ASSERT_EQ(ChannelOpenFileUCS2(channel, name.data(), static_cast<uint32_t>(name.size()), "r"), 1);
  EXPECT_EQ(ChannelReadByte(channel), '0');  // the same file by its UTF-16 name
}

TEST(ChannelFile, NotAFile) {
  ScopedChannel channel;
  Fd peer = ConnectToListener(channel);
  int64_t position;
  const struct {
    int (*call)(Channel *, int64_t *);
    const char *text;
  } cases[] = {
      {[](Channel *c, int64_t *p) { return ChannelFileTell(c, p); }, "ChannelFileSeek: the Channel is not a file"},
      {[](Channel *c, int64_t *) { return ChannelFileSeek(c, 0); }, "ChannelFileSeek: the Channel is not a file"},
      {[](Channel *c, int64_t *) { return ChannelFileTruncate(c, 0, 0); },
       "ChannelFileTruncate: the Channel is not a file"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(channel, &position), 0);
    EXPECT_STREQ(KZErrorMessage(), c.text);
    EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  }
}

TEST(ChannelMemory, MisuseAndOffsets) {
  Scoped<UByteArray> target;
  ScopedChannel channel;
  ChannelMemoryReader(channel, "abc", 3);
  EXPECT_EQ(ChannelWriteString(channel, "x"), 1);
  EXPECT_EQ(ChannelFlush(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "can not write to a memory reader");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_EQ(ChannelReadByte(channel), 'a');
  EXPECT_EQ(ChannelMemoryIOReadOffs(channel), 3);  // the refill took everything
  ChannelMemoryWriter(channel, &target);
  EXPECT_EQ(channel->writeCount, 0);  // attaching emptied the buffers
  EXPECT_EQ(ChannelReadByte(channel), KZ_RECEIVE_ERROR);
  EXPECT_STREQ(KZErrorMessage(), "read error: can not read from a memory writer");
  EXPECT_EQ(ChannelMemoryIOReadOffs(nullptr), -1);
  EXPECT_STREQ(KZErrorMessage(), "null channel");
  ChannelDisconnect(channel);
  EXPECT_EQ(ChannelConnected(channel), 0);
  EXPECT_EQ(ChannelMemoryIOReadOffs(channel), -1);
}

TEST(ChannelVirtual, CallbacksAndRelease) {
  Recorder recorder;
  ScopedChannel channel;
  recorder.Attach(channel);
  EXPECT_EQ(ChannelConnected(channel), 1);
  EXPECT_EQ(ChannelShutdown(channel), 1);
  EXPECT_EQ(recorder.shutdowns, 1);
  ChannelWriteString(channel, "s");
  EXPECT_EQ(ChannelSync(channel), 1);
  EXPECT_EQ(recorder.syncs, 1);
  EXPECT_EQ(recorder.output, "s");
  Recorder plain;
  plain.Attach(channel, false);  // re-attaching releases the first endpoint
  EXPECT_EQ(recorder.released, 1);
  EXPECT_EQ(ChannelShutdown(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "not implemented");
  EXPECT_EQ(ChannelSync(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "not implemented");
  ChannelDisconnect(channel);
  EXPECT_EQ(plain.released, 1);
  ChannelDisconnect(channel);
  EXPECT_EQ(plain.released, 1);

  char buffer[4];
  size_t count = 9;
  EXPECT_EQ(ChannelReceive(channel, buffer, 4, 0, &count, 1), KZ_RECEIVE_ERROR);
  EXPECT_EQ(count, 0u);
  EXPECT_STREQ(KZErrorMessage(), "channel is not connected");
  errno = 0;
  EXPECT_EQ(ChannelSend(channel, "x", 1), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelFlush(channel), 0);  // even with nothing buffered
}

TEST(ChannelDescriptor, SetFDAndRawHandles) {
  ScopedChannel channel;
  errno = 0;
  EXPECT_EQ(ChannelSetFD(channel, -1, 1), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelSetFD(channel, 1000, 1), 0);  // not an open descriptor
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EBADF);
  int fds[2];
  ASSERT_EQ(ChannelCreatePipe(fds), 1);
  ASSERT_EQ(ChannelSetFD(channel, fds[1], 0), 1);  // not owned: stays open
  EXPECT_EQ(channel->crtDescriptor, -1);
  ASSERT_EQ(ChannelWriteString(channel, "one"), 1);
  ChannelDisconnect(channel);  // pending bytes are dropped at disconnect
  EXPECT_NE(fcntl(fds[1], F_GETFD), -1);
  ASSERT_EQ(ChannelSetChannelFD(channel, fds[1], 1), 1);
  EXPECT_EQ(channel->isSocket, 0u);
  ASSERT_EQ(ChannelWriteString(channel, "two"), 1);
  ChannelClose(channel.channel);  // flushes, then closes the owned handle
  channel.channel = nullptr;
  EXPECT_EQ(kztest::ReadToEnd(fds[0]), "two");
  close(fds[0]);
}

}  // namespace
