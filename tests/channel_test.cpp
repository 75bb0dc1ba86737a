// Channels over real endpoints: TCP on loopback and local connections with
// plain-socket peers, pipes, files, memory and virtual endpoints; buffering,
// lines, numbers, time-outs, resets and scrambling. Reading and scrambling on
// arbitrary input are left to fuzz/channel_fuzz.cpp.
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

// Deterministic bulk data, a pattern with a prime period so that no piece of
// a transfer lines up with it: fills p with the bytes at offset, or compares.
constexpr size_t kPeriod = 65521, kBulk = 50u << 20;
bool Pattern(unsigned char *p, size_t n, uint64_t offset, bool compare = false) {
  static const std::vector<unsigned char> pattern = [] {
    std::vector<unsigned char> v(2 * kPeriod);
    for (size_t i = 0; i < kPeriod; ++i) v[i] = v[i + kPeriod] = static_cast<unsigned char>((i * 0x9E3779B1u) >> 24);
    return v;
  }();
  for (size_t piece; n > 0; p += piece, n -= piece, offset += piece) {
    piece = std::min(n, kPeriod);
    const unsigned char *expected = pattern.data() + offset % kPeriod;
    if (!compare) memcpy(p, expected, piece);
    if (compare && memcmp(p, expected, piece) != 0) return false;
  }
  return true;
}

// Connects a channel to a fresh loopback listener; returns the accepted peer.
Fd ConnectToListener(Channel *channel, uint32_t family = KZ_FAMILY_IPV4) {
  kztest::Listener listener(family);
  TCPAddr target = listener.Address();
  EXPECT_EQ(ChannelConnect(channel, &target), 1) << KZErrorMessage();
  return listener.Accept();
}

TCPAddr LocalAddress(const char *name, uint16_t port) {
  TCPAddr address{};
  address.family = KZ_FAMILY_LOCAL;
  strcpy(reinterpret_cast<char *>(address.address), name);
  address.port = port;
  return address;
}

// ---- record and settings ----------------------------------------------------------

TEST(Channel, CreationAndSettings) {
  Channel *channel = ChannelNewEx(-5, 200, -7);
  EXPECT_EQ(channel->readTimeout, -1);
  EXPECT_EQ(channel->writeTimeout, 200);
  EXPECT_EQ(channel->connectTimeout, -1);
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
  EXPECT_EQ(channel->readKeyState, 42u);  // the write side shows in the scrambled output below
  ChannelSetObfuscationKey(channel, KZ_OBFUSCATION_OFF);
  EXPECT_EQ(channel->obfuscated, 0u);
  EXPECT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ChannelClose(nullptr), 1);
  kztest::ExpectFatal(
      {[] { ChannelSetOutboundPortRange(ChannelNew(-1, -1), 10, 9); }, 0, "'min <= max' failed at kzlib/kztcp"});
}

TEST(Channel, LibraryWideSettings) {
  EXPECT_EQ(KZGetDefaultFamily(), KZ_FAMILY_IPV4);
  EXPECT_EQ(KZSetDefaultFamily(KZ_FAMILY_IPV6), 1);  // probes an AF_INET6 datagram socket
  TCPAddr any;
  TCPAddrAny(&any, KZ_FAMILY_UNSET, 1);
  EXPECT_EQ(any.family, KZ_FAMILY_IPV6);
  EXPECT_EQ(KZSetDefaultFamily(3), 0);
  EXPECT_EQ(KZGetDefaultFamily(), KZ_FAMILY_IPV6);
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
  ScopedChannel channel;
  channel->sslRequested = 1;
  TCPAddr address = listener.Address();
  EXPECT_EQ(ChannelConnect(channel, &address), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_NOT_SUPPORTED, "SSL is not available"));
  EXPECT_EQ(ChannelConnected(channel), 0);
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
    for (auto [level, name] : {std::pair<int, int>{SOL_SOCKET, SO_KEEPALIVE}, {IPPROTO_TCP, TCP_NODELAY}}) {
      int value = 0;
      socklen_t size = sizeof value;
      getsockopt(static_cast<int>(channel->handle), level, name, &value, &size);
      EXPECT_EQ(value, 1) << name;
    }
    TCPAddr local;
    ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
    EXPECT_EQ(local.family, family);
    // The blocking mode follows whether any I/O time-out is set.
    for (auto [read, write] : {std::pair{100, -1}, {100, 100}, {-1, 100}, {-1, -1}}) {
      ChannelSetReadTimeout(channel, read);
      ChannelSetWriteTimeout(channel, write);
      EXPECT_EQ(NonBlocking(channel->handle), read >= 0 || write >= 0) << read << " " << write;
    }
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
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, "can not connect to INADDR_ANY"));

  TCPAddr closed = kztest::Listener().Address();  // a port that was just free again
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
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_INVALID, "ChannelConnectMultiple: no TCP addresses given"));

  kztest::Listener listener;
  TCPAddr both[2] = {closed, listener.Address()};
  TCPAddrArray two{both, 2, 2};
  EXPECT_EQ(ChannelConnectMultiple(channel, &two), 1);
  TCPAddr remote;
  ASSERT_EQ(ChannelGetAddr(channel, &remote, 1), 1);
  EXPECT_EQ(remote.port, listener.port());
  both[1] = closed;
  EXPECT_EQ(ChannelConnectMultiple(channel, &two), 0);
  EXPECT_EQ(KZGetLastError(), ECONNREFUSED);  // the last failure's error stays
}

TEST(ChannelConnect, OutboundPortRange) {
  // Two consecutive free ports, held bound until released.
  auto bindTo = [](uint16_t port) {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? std::move(fd) : Fd();
  };
  uint16_t low = 0;
  Fd holders[2];
  for (uint16_t p = 41000; p < 60000 && !low; p += 2) {
    holders[0] = bindTo(p), holders[1] = bindTo(static_cast<uint16_t>(p + 1));
    if (holders[0].get() >= 0 && holders[1].get() >= 0) low = p;
  }
  ASSERT_NE(low, 0);
  const uint16_t high = static_cast<uint16_t>(low + 1);
  kztest::Listener listener;
  TCPAddr target = listener.Address(), local;
  ScopedChannel channel;
  ChannelSetOutboundPortRange(channel, low, high);
  for (bool secondFree : {false, true}) {
    if (secondFree) holders[1].reset();
    kztest::CapturedStream errors(1);
    ASSERT_EQ(ChannelConnect(channel, &target), 1);  // both busy at first: the system picks a port
    Fd accepted = listener.Accept();
    const std::string warning =
        "could not bind to any port in range [" + std::to_string(low) + "," + std::to_string(high) + "]";
    EXPECT_EQ(errors.Text().find(warning) != std::string::npos, !secondFree) << errors.Text();
    EXPECT_EQ(channel->nextPort, low);  // after the last one tried comes the first again
    ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
    EXPECT_EQ(local.port == high, secondFree) << local.port;
    EXPECT_NE(local.port, low);
  }
}

// ---- local connections --------------------------------------------------------------

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
  EXPECT_EQ(ChannelShutdown(channel), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_INVALID, "ChannelShutdown: operation not supported"));
  TCPAddr none;
  EXPECT_EQ(ChannelGetAddr(channel, &none, 1), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ChannelImpersonateNamedPipeClient(channel), 0);
  EXPECT_STREQ(KZErrorMessage(), "not supported");

  // Read time-outs count in milliseconds here.
  ChannelSetReadTimeout(channel, 50);
  auto start = Clock::now();
  Scoped<UByteArray> line;
  EXPECT_EQ(ChannelReadLine(channel, &line, 0), 0);
  EXPECT_STREQ(KZErrorMessage(), "read timeout");
  EXPECT_LT(MillisecondsSince(start), 1500);

  // Write time-outs count in seconds: a peer that stops reading.
  std::vector<unsigned char> block(1 << 20, 'x');
  start = Clock::now();
  int sent = 1;
  for (int i = 0; i < 64 && sent; ++i) sent = ChannelWriteBuf(channel, block.data(), block.size());
  EXPECT_EQ(sent, 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_TIMEOUT, "write timeout"));
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
  TCPAddr address = LocalAddress("busy", port);
  ScopedChannel pending;  // fills the backlog
  ASSERT_EQ(ChannelConnect(pending, &address), 1);

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

TEST(ChannelTransfer, HalfCloseEndOfInputAndNoFileCalls) {
  ScopedChannel channel;
  Fd peer = ConnectToListener(channel);
  int64_t position;  // the file calls refuse a socket
  EXPECT_EQ(ChannelFileTell(channel, &position), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, "ChannelFileSeek: the Channel is not a file"));
  EXPECT_EQ(ChannelFileSeek(channel, 0), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, "ChannelFileSeek: the Channel is not a file"));
  EXPECT_EQ(ChannelFileTruncate(channel, 0, 0), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, "ChannelFileTruncate: the Channel is not a file"));
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

TEST(ChannelTransfer, TimeoutsInMillisecondsAndNoWait) {
  ScopedChannel channel(100, 100);
  Fd peer = ConnectToListener(channel);  // a peer that neither sends nor reads
  char buffer[8];
  size_t count = 99;
  auto start = Clock::now();
  EXPECT_EQ(ChannelReadBuf(channel, buffer, sizeof buffer, &count), KZ_RECEIVE_TIMEOUT);
  EXPECT_GE(MillisecondsSince(start), 90);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_TIMEOUT, "read timeout"));
  std::vector<unsigned char> block(1 << 20, 'y');
  int sent = 1;
  start = Clock::now();
  for (int i = 0; i < 256 && sent; ++i) sent = ChannelSend(channel, block.data(), block.size());
  EXPECT_EQ(sent, 0);
  EXPECT_GE(MillisecondsSince(start), 90);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_TIMEOUT, "timeout"));

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

// Moves kBulk bytes from a channel writer to a plain reader (or the other
// way) in uneven pieces around the buffer size, compared on the far side.
// Files take the same read and write path as pipes.
void BulkThroughChannel(Channel *channel, int peerFd, bool channelWrites) {
  std::thread peer([&] {
    sigset_t pipeSignal;  // a channel that failed early closes its pipe end: EPIPE, not the end of the program
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    std::vector<unsigned char> buffer(1 << 20);
    size_t done = 0;
    while (done < kBulk) {
      size_t n = std::min(buffer.size(), kBulk - done);
      if (channelWrites) {
        ssize_t got = read(peerFd, buffer.data(), n);
        if (got <= 0 || !Pattern(buffer.data(), size_t(got), done, true)) break;
        n = size_t(got);
      } else {
        Pattern(buffer.data(), n, done);
        if (!kztest::WriteAll(peerFd, buffer.data(), n)) break;
      }
      done += n;
    }
    EXPECT_EQ(done, kBulk) << "the peer's bytes match up to here";
  });
  const size_t pieces[] = {1, 7, 11680, 11681, 65536, 300000, 5000};
  std::vector<unsigned char> block(300000);
  size_t done = 0;
  for (size_t i = 0, n, count; done < kBulk; done += n, ++i) {
    n = std::min(pieces[i % 7], kBulk - done);
    if (channelWrites) Pattern(block.data(), n, done);
    bool ok = channelWrites ? ChannelWriteBuf(channel, block.data(), n) == 1
                            : ChannelReadBuf(channel, block.data(), n, &count) == KZ_RECEIVE_OK && count == n &&
                                  Pattern(block.data(), n, done, true);
    if (!ok) break;
  }
  EXPECT_EQ(done, kBulk) << "the channel's bytes match up to here; " << KZErrorMessage();
  EXPECT_EQ(channelWrites ? ChannelFlush(channel) : 1, 1);
  ChannelDisconnect(channel);  // end of input for the peer
  peer.join();
}

TEST(ChannelBulk, TcpLocalConnectionAndPipesBothDirections) {
  const uint16_t port = static_cast<uint16_t>(getpid() + 3);
  kztest::LocalListener local("sock", "bulk", port);
  ASSERT_TRUE(local.ok());
  for (const char *endpoint : {"tcp", "local", "pipe"}) {
    for (bool channelWrites : {true, false}) {
      SCOPED_TRACE(std::string(endpoint) + (channelWrites ? " write" : " read"));
      const bool timed = endpoint[0] == 'l';  // blocking sockets and pipes, a waiting local connection
      ScopedChannel channel(timed ? 10000 : -1, timed ? 10 : -1);
      Fd peer;
      if (endpoint[0] == 't') peer = ConnectToListener(channel);
      if (timed) {
        TCPAddr address = LocalAddress("bulk", port);
        ASSERT_EQ(ChannelConnect(channel, &address), 1);
        peer = local.Accept();
      }
      if (endpoint[0] == 'p') {
        int fds[2];
        ASSERT_EQ(ChannelCreatePipe(fds), 1);
        peer.reset(fds[channelWrites ? 0 : 1]);
        ASSERT_EQ(ChannelSetFD(channel, fds[channelWrites ? 1 : 0], 1), 1);
      }
      BulkThroughChannel(channel, peer.get(), channelWrites);
    }
  }
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

TEST(ChannelBuffering, LinesAcrossBufferBoundaries) {
  // Lines whose ends fall just before, on and after each 11,680-byte refill,
  // with the CR of a CR LF pair in one refill and its LF in the next (short
  // lines, CRs and length limits on arbitrary input are left to the fuzzer).
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
    EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_EOF, "read EOF"));
    EXPECT_EQ(Bytes(line), "tail");  // the partial line stays
    if (writer.joinable()) writer.join();
  }
}

TEST(ChannelBuffering, NumbersAndStrings) {
  const struct {
    int (*write)(Channel *);
    std::string text;
  } cases[] = {
      {[](Channel *c) { return ChannelWriteUIntLE(c, 0x01020304u); }, "\x04\x03\x02\x01"},
      {[](Channel *c) { return ChannelWriteULongLE(c, 0x0102030405060708ull); }, "\x08\x07\x06\x05\x04\x03\x02\x01"},
      {[](Channel *c) { return ChannelWriteInt(c, -2147483647 - 1); }, "-2147483648"},
      {[](Channel *c) { return ChannelWriteLong(c, INT64_MIN); }, "-9223372036854775808"},
      {[](Channel *c) { return ChannelWriteUInt(c, 4294967295u); }, "4294967295"},
      {[](Channel *c) { return ChannelWriteULong(c, UINT64_MAX); }, "18446744073709551615"},
      {[](Channel *c) { return ChannelWriteHexInt(c, 255); }, "000000ff"},
      {[](Channel *c) { return ChannelWriteHexLong(c, 0xABCull); }, "0000000000000abc"},
      {[](Channel *c) { return ChannelWriteDouble(c, 3.14159265); }, "3.1416"},
      {[](Channel *c) { return ChannelWriteDouble(c, 1e300); }, "1e+300"},
      {[](Channel *c) { return ChannelWriteString(c, "text"); }, "text"},
  };
  Scoped<UByteArray> out;
  ScopedChannel channel;
  ChannelMemoryWriter(channel, &out);
  for (const auto &c : cases) {
    out.count = 0;
    ASSERT_EQ(c.write(channel), 1);
    ASSERT_EQ(ChannelFlush(channel), 1);
    EXPECT_EQ(Bytes(out), c.text);
  }
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

// Buffered bytes are scrambled with a state that runs on across flushes;
// unbuffered sends go out as they are.
TEST(ChannelScrambling, AcrossFlushesButNotOnSends) {
  const uint64_t key = 0x0123456789ABCDEFull;
  Scoped<UByteArray> wire;
  ScopedChannel channel;
  ChannelMemoryWriter(channel, &wire);
  ChannelSetObfuscationKey(channel, key);
  ASSERT_EQ(ChannelWriteString(channel, "hello"), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  ASSERT_EQ(ChannelWriteString(channel, " world"), 1);
  ASSERT_EQ(ChannelFlush(channel), 1);
  ASSERT_EQ(ChannelSend(channel, "raw", 3), 1);
  std::string expected = "hello world";
  uint64_t state = key;
  for (char &c : expected) {
    c = static_cast<char>(c ^ static_cast<char>(state >> 56));
    state = FingerprintExtend(state, "", 1);  // one zero byte
  }
  EXPECT_EQ(Bytes(wire), expected + "raw");
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
  ASSERT_EQ(ChannelFileSeek(channel, -3), 1);  // from the end, not from the position
  ASSERT_EQ(ChannelFileTell(channel, &position), 1);
  EXPECT_EQ(position, 97);
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

TEST(ChannelMemory, MisuseAndOffsets) {
  Scoped<UByteArray> target;
  ScopedChannel channel;
  ChannelMemoryReader(channel, "abc", 3);
  EXPECT_EQ(ChannelWriteString(channel, "x"), 1);
  EXPECT_EQ(ChannelFlush(channel), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, "can not write to a memory reader"));
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
  ChannelDisconnect(channel);
  EXPECT_EQ(plain.released, 1);  // once, however often disconnected

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
