// Waits on many channels, select events, TCP and local-connection servers,
// UDP and multicast, all on loopback with real peers.
#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/select.h"
#include "kz/server.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Fd;
using kztest::Scoped;

struct ScopedChannel {
  explicit ScopedChannel(int32_t readTimeout = -1, int32_t writeTimeout = -1)
      : channel(ChannelNew(readTimeout, writeTimeout)) {}
  ~ScopedChannel() { ChannelClose(channel); }
  Channel *operator->() const { return channel; }
  operator Channel *() const { return channel; }
  Channel *channel;
};

// A channel over the server end of a loopback TCP pair; the client end stays
// a plain socket.
struct ChannelPair {
  ChannelPair() {
    auto [c, s] = kztest::TcpPair();
    client = std::move(c);
    EXPECT_EQ(ChannelSetFD(channel, s.release(), 1), 1);
  }
  Fd client;
  ScopedChannel channel;
};

bool NonBlocking(int64_t handle) { return fcntl(static_cast<int>(handle), F_GETFL) & O_NONBLOCK; }
bool CloseOnExec(int64_t handle) { return fcntl(static_cast<int>(handle), F_GETFD) & FD_CLOEXEC; }
int IntOption(int64_t handle, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(static_cast<int>(handle), level, option, &value, &size);
  return value;
}

std::string ErrorText() { return KZErrorMessage(); }

TCPAddr Loopback(uint32_t family = KZ_FAMILY_IPV4, uint16_t port = 0) {
  TCPAddr address;
  TCPAddrLocal(&address, family, port);
  return address;
}

bool HaveIPv6() {
  Fd probe(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  return probe.get() >= 0 && bind(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

// ---- waits on many channels ---------------------------------------------------------

TEST(ChannelSelect, BufferedInputIsReadyAtOnceEvenWithZeroTimeout) {
  ChannelPair a, b;
  ASSERT_TRUE(kztest::WriteAll(b.client.get(), "xy"));
  ASSERT_EQ(ChannelReadByte(b.channel), 'x');  // 'y' stays buffered
  ASSERT_NE(b.channel->readPos, b.channel->readFill);
  Channel *channels[] = {nullptr, a.channel, b.channel};
  EXPECT_EQ(ChannelSelect(channels, 3, 0), 2);
}

TEST(ChannelSelect, ReturnsTheFirstReadyChannelInArrayOrder) {
  ChannelPair a, b, c;
  ASSERT_TRUE(kztest::WriteAll(c.client.get(), "c"));
  ASSERT_TRUE(kztest::WriteAll(b.client.get(), "b"));
  Channel *channels[] = {a.channel, nullptr, c.channel, b.channel};
  // c's byte was sent first; wait until both have arrived so the order is the array's.
  UByteArray flags{};
  int64_t sockets[] = {b.channel->handle, c.channel->handle};
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, 10000), 0);
    if (flags.elements[0] && flags.elements[1]) break;
  }
  ArrayFree_(&flags);
  EXPECT_EQ(ChannelSelect(channels, 4, 10000), 2);
  a.client.reset();  // a hang-up is readable too
  EXPECT_EQ(ChannelSelect(channels, 4, 10000), 0);
}

TEST(ChannelSelect, RefusesEmptyArraysSslChannelsAndTimesOut) {
  Channel *nulls[] = {nullptr, nullptr};
  EXPECT_EQ(ChannelSelect(nulls, 2, 0), -1);
  EXPECT_EQ(ErrorText(), "ChannelSelect: empty channel array");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);

  ChannelPair a;
  Channel *one[] = {a.channel};
  EXPECT_EQ(ChannelSelect(one, 1, 0), -1);
  EXPECT_EQ(ErrorText(), "timeout");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);

  int session = 0;
  a.channel->ssl = &session;  // any session makes the wait illegal
  EXPECT_EQ(ChannelSelect(one, 1, 0), -1);
  a.channel->ssl = nullptr;
  EXPECT_EQ(ErrorText(), "Illegal ChannelSelect on a SSL channel");
  EXPECT_EQ(KZErrorCode(), 22u);
}

TEST(ChannelSelect, TimeOutLastsAboutAsLongAsAsked) {
  ChannelPair a;
  Channel *one[] = {a.channel};
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ChannelSelect(one, 1, 150), -1);
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  EXPECT_GE(elapsed.count(), 150);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
}

TEST(ChannelSelectEx, FlagsFollowTheInputAndSkipNullsAndBuffers) {
  ChannelPair a, b;
  ScopedChannel unconnected;
  ASSERT_TRUE(kztest::WriteAll(b.client.get(), "b"));
  Channel *channels[] = {a.channel, nullptr, b.channel, unconnected};
  Scoped<UByteArray> flags;
  ASSERT_EQ(ChannelSelectEx(ChannelSelectContextNew(), channels, 4, &flags, 10000), 0);
  ASSERT_EQ(flags.count, 4u);
  EXPECT_EQ(std::vector<int>(flags.elements, flags.elements + 4), (std::vector<int>{0, 0, 1, 0}));

  // Buffered input does not count here: with b's byte taken into its buffer
  // and nothing more on the socket the wait times out.
  ASSERT_EQ(ChannelReadByte(b.channel), 'b');
  ASSERT_TRUE(kztest::WriteAll(a.client.get(), "aa"));
  ASSERT_EQ(ChannelReadByte(a.channel), 'a');
  ASSERT_NE(a.channel->readPos, a.channel->readFill);
  EXPECT_EQ(ChannelSelectEx(nullptr, channels, 4, &flags, 0), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);

  Channel *none[] = {nullptr, unconnected};
  EXPECT_EQ(ChannelSelectEx(nullptr, none, 2, &flags, 0), -1);
  EXPECT_EQ(ErrorText(), "ChannelSelect: empty channel array");
  EXPECT_EQ(KZErrorCode(), 22u);

  int session = 0;
  b.channel->ssl = &session;
  EXPECT_EQ(ChannelSelectEx(nullptr, channels, 4, &flags, 0), -1);
  b.channel->ssl = nullptr;
  EXPECT_EQ(ErrorText(), "null or invalid selected channel");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  ChannelSelectContextFree(nullptr);
}

TEST(ChannelSelectFD, TheSameSocketTwiceIsWaitedOnOnceAndFlaggedTwice) {
  ChannelPair a, b;
  ASSERT_TRUE(kztest::WriteAll(a.client.get(), "a"));
  int64_t sockets[] = {a.channel->handle, b.channel->handle, a.channel->handle};
  Scoped<UByteArray> flags;
  ASSERT_EQ(ChannelSelectFD(nullptr, sockets, 3, &flags, 10000), 0);
  EXPECT_EQ(std::vector<int>(flags.elements, flags.elements + 3), (std::vector<int>{1, 0, 1}));
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 0, &flags, 0), -1);
  EXPECT_EQ(ErrorText(), "ChannelSelect: empty channel array");
  EXPECT_EQ(KZErrorCode(), 22u);
}

TEST(ChannelSelectFD, AClosedDescriptorFailsTheWaitWithTheSystemError) {
  Fd spare(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  int64_t closed = spare.release();
  close(static_cast<int>(closed));
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, &closed, 1, &flags, 0), -1);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EBADF);
}

// Sockets beyond the 64th distinct one are left out of the wait; duplicates
// do not use up places.
TEST(ChannelSelectFD, AtMost64DistinctSocketsTakePart) {
  std::vector<int64_t> sockets;
  TCPAddr loopback = Loopback();
  for (int i = 0; i < 66; ++i) {
    int64_t s = UDPNew(&loopback);
    ASSERT_NE(s, KZ_INVALID_HANDLE);
    sockets.push_back(s);
  }
  std::vector<int64_t> withDuplicates = {sockets[0], sockets[0], sockets[1]};
  withDuplicates.insert(withDuplicates.end(), sockets.begin() + 2, sockets.end());  // 64th distinct at [64]
  auto poke = [&](int64_t target) {
    TCPAddr address;
    ASSERT_EQ(UDPGetAddr(target, &address, 0), 1);
    ASSERT_EQ(UDPSendBuf(&address, "!", 1), 1);
  };
  Scoped<UByteArray> flags;
  poke(sockets[65]);  // the 66th distinct socket: not waited on
  EXPECT_EQ(ChannelSelectFD(nullptr, withDuplicates.data(), uint32_t(withDuplicates.size()), &flags, 50), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  poke(sockets[63]);  // the 64th distinct socket: waited on
  ASSERT_EQ(ChannelSelectFD(nullptr, withDuplicates.data(), uint32_t(withDuplicates.size()), &flags, 10000), 0);
  ASSERT_EQ(flags.count, withDuplicates.size());
  for (size_t i = 0; i < withDuplicates.size(); ++i)
    EXPECT_EQ(flags.elements[i], withDuplicates[i] == sockets[63] ? 1 : 0) << "entry " << i;
  for (int64_t s : sockets) EXPECT_EQ(UDPClose(s), 1);
}

// poll underneath: descriptor numbers past FD_SETSIZE (1,024) wait like any.
TEST(ChannelSelectFD, DescriptorsAboveTheSelectLimitWork) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max <= 1500) GTEST_SKIP() << "descriptor limit too low";
  rlimit raised = limit;
  if (raised.rlim_cur != RLIM_INFINITY && raised.rlim_cur <= 1500) raised.rlim_cur = 1501;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  ChannelPair a;
  Fd high(fcntl(static_cast<int>(a.channel->handle), F_DUPFD_CLOEXEC, 1500));
  ASSERT_GE(high.get(), 1500);
  int64_t sockets[] = {high.get()};
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 1, &flags, 0), -1);
  ASSERT_TRUE(kztest::WriteAll(a.client.get(), "z"));
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 1, &flags, 10000), 0);
  EXPECT_EQ(flags.elements[0], 1);
  high.reset();
  setrlimit(RLIMIT_NOFILE, &limit);
}

// ---- select events --------------------------------------------------------------------

TEST(ChannelSelectEvent, NotifiesQueueAndOneResetDrainsThemAll) {
  ChannelSelectEvent event;
  ASSERT_EQ(ChannelSelectEventNew(&event), &event);
  ASSERT_NE(event.socket, KZ_INVALID_HANDLE);
  EXPECT_EQ(event.unused, KZ_INVALID_HANDLE);
  EXPECT_TRUE(CloseOnExec(event.socket));
  int64_t fd = ChannelSelectEventGetFD(&event);
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, &fd, 1, &flags, 0), -1);
  EXPECT_EQ(ChannelSelectEventNotify(&event), 1);
  EXPECT_EQ(ChannelSelectEventNotify(&event), 1);
  ASSERT_EQ(ChannelSelectFD(nullptr, &fd, 1, &flags, 10000), 0);
  EXPECT_EQ(flags.elements[0], 1);
  EXPECT_EQ(ChannelSelectEventNotifyReset(&event), 1);
  EXPECT_EQ(ChannelSelectFD(nullptr, &fd, 1, &flags, 0), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  EXPECT_EQ(ChannelSelectEventFree(&event), 1);
  EXPECT_EQ(ChannelSelectEventFree(&event), 0);
  EXPECT_EQ(ErrorText(), "invalid select event");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
}

TEST(ChannelSelectEvent, AnotherThreadWakesARunningWait) {
  ChannelSelectEvent event;
  ASSERT_NE(ChannelSelectEventNew(&event)->socket, KZ_INVALID_HANDLE);
  ChannelPair idle;
  int64_t sockets[] = {idle.channel->handle, ChannelSelectEventGetFD(&event)};
  std::atomic<int> notified{-1};
  std::thread notifier([&] { notified = ChannelSelectEventNotify(&event); });
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, -1), 0);  // returns only through the event
  notifier.join();
  EXPECT_EQ(notified.load(), 1);
  EXPECT_EQ(std::vector<int>(flags.elements, flags.elements + 2), (std::vector<int>{0, 1}));
  EXPECT_EQ(ChannelSelectEventNotifyReset(&event), 1);
  EXPECT_EQ(ChannelSelectEventFree(&event), 1);
}

// ---- TCP servers ---------------------------------------------------------------------------

struct ScopedServer {
  explicit ScopedServer(TCPServer *s) : server(s) {}
  ~ScopedServer() {
    if (server) TCPServerClose(server);
  }
  TCPServer *server;
};

TEST(TCPServer, FamilyZeroIsRefusedWithTheAddressInTheMessage) {
  TCPAddr unset{};
  unset.port = 4321;
  EXPECT_EQ(TCPServerOpen(&unset), nullptr);
  std::string text = ErrorText();
  EXPECT_EQ(text.rfind("can not open server ", 0), 0u) << text;
  EXPECT_NE(text.find(": invalid protocol family"), std::string::npos) << text;
}

TEST(TCPServer, ABusyPortFailsToBind) {
  TCPAddr loopback = Loopback();
  ScopedServer first(TCPServerOpen(&loopback));
  ASSERT_NE(first.server, nullptr);
  TCPAddr bound;
  ASSERT_EQ(TCPServerGetAddr(first.server, &bound), 1);
  EXPECT_NE(bound.port, 0);
  EXPECT_EQ(TCPServerOpenEx(&bound, 5), nullptr);
  EXPECT_EQ(ErrorText(), "can not open server 127.0.0.1:" + std::to_string(bound.port) +
                             ": error binding server: " + strerror(EADDRINUSE));
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, EADDRINUSE));
}

TEST(TCPServer, AcceptSetsOptionsAndBlockingModeFromTheChannel) {
  TCPAddr loopback = Loopback();
  ScopedServer server(TCPServerOpenEx(&loopback, 8));
  ASSERT_NE(server.server, nullptr);
  EXPECT_TRUE(CloseOnExec(TCPServerGetFD(server.server)));
  TCPAddr bound;
  ASSERT_EQ(TCPServerGetAddr(server.server, &bound), 1);
  for (int32_t readTimeout : {1000, -1}) {
    SCOPED_TRACE(readTimeout);
    ScopedChannel client, accepted(readTimeout, -1);
    ASSERT_EQ(ChannelConnect(client, &bound), 1);
    ASSERT_EQ(TCPServerAccept(server.server, accepted), 1);
    EXPECT_EQ(NonBlocking(accepted->handle), readTimeout >= 0);
    EXPECT_TRUE(CloseOnExec(accepted->handle));
    EXPECT_EQ(IntOption(accepted->handle, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(IntOption(accepted->handle, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(accepted->isSocket, 1u);
    EXPECT_EQ(accepted->isNamedPipe, 0u);
    ASSERT_EQ(ChannelWriteString(client, "hello\n"), 1);
    ASSERT_EQ(ChannelFlush(client), 1);
    Scoped<UByteArray> line;
    ASSERT_EQ(ChannelReadLine(accepted, &line, 0), 1);
    EXPECT_EQ(kztest::Bytes(line), "hello");
  }
  EXPECT_EQ(TCPServerDisconnect(server.server), 1);
  EXPECT_EQ(TCPServerGetFD(server.server), KZ_INVALID_HANDLE);
  EXPECT_EQ(TCPServerDisconnect(server.server), 1);
  ScopedChannel refused;
  EXPECT_EQ(ChannelConnect(refused, &bound), 0);
  // Accepting on a disconnected server fails quietly with the system error.
  ScopedChannel none;
  EXPECT_EQ(TCPServerAccept(server.server, none), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EBADF);
  EXPECT_EQ(ChannelConnected(none), 0);
}

TEST(TCPServer, AnIPv6WildcardServerAcceptsAnIPv4Client) {
  if (!HaveIPv6()) GTEST_SKIP() << "no IPv6 loopback here";
  TCPAddr any;
  TCPAddrAny(&any, KZ_FAMILY_IPV6, 0);
  ScopedServer server(TCPServerOpen(&any));
  ASSERT_NE(server.server, nullptr) << ErrorText();
  TCPAddr bound;
  ASSERT_EQ(TCPServerGetAddr(server.server, &bound), 1);
  EXPECT_EQ(bound.family, KZ_FAMILY_IPV6);
  TCPAddr v4 = Loopback(KZ_FAMILY_IPV4, bound.port);
  ScopedChannel client, accepted;
  ASSERT_EQ(ChannelConnect(client, &v4), 1);
  ASSERT_EQ(TCPServerAccept(server.server, accepted), 1);
  TCPAddr peer;
  ASSERT_EQ(ChannelGetAddr(accepted, &peer, 1), 1);
  EXPECT_EQ(peer.family, KZ_FAMILY_IPV6);  // ::ffff:127.0.0.1
  EXPECT_EQ(peer.address[10], 0xFF);
  EXPECT_EQ(peer.address[12], 127);
  ASSERT_EQ(ChannelWriteString(accepted, "v6 says hi"), 1);
  ASSERT_EQ(ChannelFlush(accepted), 1);
  char text[10];
  ASSERT_EQ(ChannelReadBuf(client, text, sizeof text, nullptr), 0);
  EXPECT_EQ(std::string(text, sizeof text), "v6 says hi");
}

// Many clients at once, served by one thread that waits with ChannelSelect
// over the listening socket and every accepted channel.
TEST(TCPServer, OneThreadServesManyClientsThroughChannelSelect) {
  constexpr int kClients = 40, kLines = 20;
  TCPAddr loopback = Loopback();
  ScopedServer server(TCPServerOpen(&loopback));
  ASSERT_NE(server.server, nullptr);
  TCPAddr bound;
  ASSERT_EQ(TCPServerGetAddr(server.server, &bound), 1);

  std::atomic<int> clientsOk{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      ScopedChannel channel(10000, 10000);
      if (!ChannelConnect(channel, &bound)) return;
      Scoped<UByteArray> line;
      for (int i = 0; i < kLines; ++i) {
        std::string text = "client " + std::to_string(c) + " line " + std::to_string(i);
        if (!ChannelWriteString(channel, (text + "\n").c_str()) || !ChannelFlush(channel)) return;
        if (!ChannelReadLine(channel, &line, 0) || kztest::Bytes(line) != text) return;
      }
      ++clientsOk;
    });
  }
  std::vector<Channel *> channels;
  Channel *listening = ChannelNew(-1, -1);
  ChannelSetChannelFD(listening, TCPServerGetFD(server.server), 0);
  channels.push_back(listening);
  int finished = 0;
  Scoped<UByteArray> line;
  while (finished < kClients) {
    int ready = ChannelSelect(channels.data(), uint32_t(channels.size()), 30000);
    ASSERT_GE(ready, 0) << ErrorText();
    if (ready == 0) {
      Channel *accepted = ChannelNew(10000, 10000);
      ASSERT_EQ(TCPServerAccept(server.server, accepted), 1);
      channels.push_back(accepted);
      continue;
    }
    Channel *channel = channels[size_t(ready)];
    if (ChannelReadLine(channel, &line, 0)) {
      ASSERT_EQ(ChannelWriteString(channel, (kztest::Bytes(line) + "\n").c_str()), 1);
      ASSERT_EQ(ChannelFlush(channel), 1);
    } else {  // the client has gone
      ChannelClose(channel);
      channels[size_t(ready)] = nullptr;
      ++finished;
    }
  }
  for (auto &t : clients) t.join();
  EXPECT_EQ(clientsOk.load(), kClients);
  for (Channel *c : channels) ChannelClose(c);
}

// ---- local-connection servers ----------------------------------------------------------

// A local-connection address unique to this process and test.
TCPAddr LocalAddress(const char *tag, long pid = getpid()) {
  TCPAddr address;
  std::string text = "/" + std::string(tag) + std::to_string(pid % 100000) + ":7";
  EXPECT_EQ(TCPAddrSetHostPort(&address, text.c_str()), 1);
  return address;
}

std::string LocalPath(const TCPAddr &address) {
  return "/tmp/kz.sock." + std::string(reinterpret_cast<const char *>(address.address)) + ".7";
}

bool Exists(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

TEST(LocalServer, ServesAClientAndRemovesBothFilesAtClose) {
  TCPAddr address = LocalAddress("la");
  const std::string path = LocalPath(address);
  TCPServer *server = TCPServerOpen(&address);
  ASSERT_NE(server, nullptr) << ErrorText();
  struct stat info;
  ASSERT_EQ(lstat(path.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_TRUE(Exists(path + ".lock"));
  ASSERT_NE(server->lock, nullptr);
  TCPAddr got;
  ASSERT_EQ(TCPServerGetAddr(server, &got), 1);
  EXPECT_EQ(TCPAddrEquals(&got, &address), 1);
  {
    ScopedChannel client, accepted(1000, -1);
    ASSERT_EQ(ChannelConnect(client, &address), 1);
    ASSERT_EQ(TCPServerAccept(server, accepted), 1);
    EXPECT_EQ(accepted->isNamedPipe, 1u);
    EXPECT_EQ(accepted->isSocket, 0u);
    EXPECT_TRUE(CloseOnExec(accepted->handle));
    ASSERT_EQ(ChannelWriteString(client, "over the local connection\n"), 1);
    ASSERT_EQ(ChannelFlush(client), 1);
    Scoped<UByteArray> line;
    ASSERT_EQ(ChannelReadLine(accepted, &line, 0), 1);
    EXPECT_EQ(kztest::Bytes(line), "over the local connection");
  }
  EXPECT_EQ(TCPServerClose(server), 1);
  EXPECT_FALSE(Exists(path));
  EXPECT_FALSE(Exists(path + ".lock"));
}

TEST(LocalServer, ASecondServerOnTheSameNameFails) {
  TCPAddr address = LocalAddress("lb");
  ScopedServer first(TCPServerOpen(&address));
  ASSERT_NE(first.server, nullptr);
  EXPECT_EQ(TCPServerOpen(&address), nullptr);
  EXPECT_EQ(ErrorText(), std::string("unable to create named pipe: ") + strerror(EADDRINUSE));
  EXPECT_TRUE(Exists(LocalPath(address)));  // the live server's socket stays
  ScopedChannel client;
  EXPECT_EQ(ChannelConnect(client, &address), 1);
}

TEST(LocalServer, AStaleSocketFileOfAKilledServerIsReplaced) {
  TCPAddr address = LocalAddress("lc");
  const std::string path = LocalPath(address);
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    TCPServer *server = TCPServerOpen(&address);
    char byte = server ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) _exit(2);
    for (;;) pause();  // killed here, never closing the server
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(byte, 'y');
  ASSERT_TRUE(Exists(path));
  ScopedChannel stale;
  EXPECT_EQ(ChannelConnect(stale, &address), 0);  // nobody listens any more

  ScopedServer server(TCPServerOpen(&address));
  ASSERT_NE(server.server, nullptr) << ErrorText();
  ScopedChannel client, accepted;
  ASSERT_EQ(ChannelConnect(client, &address), 1);
  EXPECT_EQ(TCPServerAccept(server.server, accepted), 1);
}

TEST(LocalServer, AClientOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
  passwd *nobody = getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "no user 'nobody'";
  // The server is the parent's; the child connects to it.
  TCPAddr address = LocalAddress("ld", kztest::TestPid());
  ScopedServer server(kztest::InChild() ? nullptr : TCPServerOpen(&address));
  if (!kztest::InChild()) {
    ASSERT_NE(server.server, nullptr);
  }
  kztest::Child child = kztest::RunChild({}, [&] {
    if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) return 3;
    Channel *channel = ChannelNew(-1, -1);
    int connected = ChannelConnect(channel, &address);
    int error = KZGetLastError();
    ChannelClose(channel);
    return connected ? 1 : error == EACCES ? 0 : 2;
  });
  EXPECT_TRUE(child.Exited(0)) << child.Describe();
  // Nothing reached the server.
  int64_t fd = TCPServerGetFD(server.server);
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, &fd, 1, &flags, 0), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
}

// A server of an ordinary user refuses root, who passes the file's mode:
// the same-user check at accept does it.
TEST(LocalServer, TheSameUserCheckRefusesAPeerThatPassesTheFileMode) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a server as another user";
  passwd *nobody = getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "no user 'nobody'";
  // The server runs in the child, the root peer on a thread of the parent;
  // the child says "ready" through the pipe's write end, which it inherits.
  TCPAddr address = LocalAddress("le", kztest::TestPid());
  int ready[2] = {-1, -1};
  std::thread root;
  if (!kztest::InChild()) {
    ASSERT_EQ(pipe2(ready, 0), 0);
    fcntl(ready[0], F_SETFD, FD_CLOEXEC);  // only the write end is for the child
    root = std::thread([&] {
      char byte = 0;
      if (read(ready[0], &byte, 1) == 1 && byte == 'y') {
        Channel *channel = ChannelNew(-1, -1);
        ChannelConnect(channel, &address);
        ChannelClose(channel);
      }
    });
  }
  const std::string readyFd = std::to_string(ready[1]);
  kztest::TempDir dir;
  kztest::Child child = kztest::RunChild(dir, {{"KZ_TEST_READY_FD", readyFd.c_str()}}, [&] {
    const int readyOut = atoi(getenv("KZ_TEST_READY_FD"));
    if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) return 3;
    TCPServer *server = TCPServerOpen(&address);
    char byte = server ? 'y' : 'n';
    if (write(readyOut, &byte, 1) != 1 || !server) return 4;
    Channel *channel = ChannelNew(-1, -1);
    int accepted = TCPServerAccept(server, channel);
    bool refused = !accepted && KZGetLastError() == EACCES &&
                   std::string(KZErrorMessage()).rfind("error accepting connection on server pipe", 0) == 0;
    ChannelClose(channel);
    TCPServerClose(server);
    return refused ? 0 : 1;
  });
  close(ready[1]);
  root.join();
  close(ready[0]);
  EXPECT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_FALSE(Exists(LocalPath(address)));
}

TEST(LocalServer, TheSecuritySettingReplacesTheModeAndReturnsThePreviousOne) {
  static mode_t groupToo = 0660;
  EXPECT_EQ(KZSetNamedPipeSecurityDescriptor(&groupToo), nullptr);
  TCPAddr address = LocalAddress("lf");
  TCPServer *server = TCPServerOpen(&address);
  EXPECT_EQ(KZSetNamedPipeSecurityDescriptor(nullptr), &groupToo);
  ASSERT_NE(server, nullptr);
  struct stat info;
  ASSERT_EQ(lstat(LocalPath(address).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0660u);
  EXPECT_EQ(SocketFileOpen(server), 1);  // already listening
  EXPECT_EQ(TCPServerClose(server), 1);
}

// ---- datagrams ---------------------------------------------------------------------------------

struct ScopedSocket {
  explicit ScopedSocket(int64_t s) : socket(s) {}
  ~ScopedSocket() {
    if (socket != KZ_INVALID_HANDLE) UDPClose(socket);
  }
  int64_t socket;
};

TEST(UDP, DatagramsCarryTheirSenderAddress) {
  for (uint32_t family : {KZ_FAMILY_IPV4, KZ_FAMILY_IPV6}) {
    SCOPED_TRACE(family);
    if (family == KZ_FAMILY_IPV6 && !HaveIPv6()) continue;
    TCPAddr loopback = Loopback(family);
    ScopedSocket receiver(UDPNew(&loopback)), sender(UDPNew(&loopback));
    ASSERT_NE(receiver.socket, KZ_INVALID_HANDLE);
    ASSERT_NE(sender.socket, KZ_INVALID_HANDLE);
    EXPECT_TRUE(CloseOnExec(receiver.socket));
    TCPAddr to, from;
    ASSERT_EQ(UDPGetAddr(receiver.socket, &to, 0), 1);
    ASSERT_EQ(UDPGetAddr(sender.socket, &from, 0), 1);
    ASSERT_EQ(UDPSendBufTo(sender.socket, &to, "datagram", 8), 1);
    char buffer[64];
    size_t count = 99;
    TCPAddr source{};
    ASSERT_EQ(UDPReceiveBytesFrom(receiver.socket, buffer, sizeof buffer, &count, &source), 1);
    EXPECT_EQ(std::string(buffer, count), "datagram");
    EXPECT_EQ(TCPAddrEquals(&source, &from), 1);
    EXPECT_EQ(source.port, from.port);
  }
}

TEST(UDP, ShortAndLongDatagrams) {
  TCPAddr loopback = Loopback();
  ScopedSocket receiver(UDPNew(&loopback));
  TCPAddr to;
  ASSERT_EQ(UDPGetAddr(receiver.socket, &to, 0), 1);
  char buffer[10];
  // A 4-byte datagram for 10 bytes: 0, errno untouched.
  ASSERT_EQ(UDPSendBuf(&to, "four", 4), 1);
  errno = 77;
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 10), 0);
  EXPECT_EQ(errno, 77);
  // Exactly the size: 1.
  ASSERT_EQ(UDPSendBuf(&to, "0123456789", 10), 1);
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 10), 1);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
  // Longer than the buffer: consumed and refused.
  ASSERT_EQ(UDPSendBuf(&to, "0123456789AB", 12), 1);
  size_t count = 99;
  EXPECT_EQ(UDPReceiveBytes(receiver.socket, buffer, 10, &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EMSGSIZE);
  ASSERT_EQ(UDPSendBuf(&to, "", 0), 1);  // an empty datagram is still one
  EXPECT_EQ(UDPReceiveBytes(receiver.socket, buffer, 10, &count), 1);
  EXPECT_EQ(count, 0u);
}

TEST(UDP, ConnectedSocketsAndRefusedSends) {
  TCPAddr loopback = Loopback();
  ScopedSocket receiver(UDPNew(&loopback));
  TCPAddr to;
  ASSERT_EQ(UDPGetAddr(receiver.socket, &to, 0), 1);
  ScopedSocket connected(UDPConnect(&to));
  ASSERT_NE(connected.socket, KZ_INVALID_HANDLE);
  TCPAddr peer;
  ASSERT_EQ(UDPGetAddr(connected.socket, &peer, 1), 1);
  EXPECT_EQ(TCPAddrEquals(&peer, &to), 1);
  ASSERT_EQ(UDPSend(connected.socket, "hop", 3), 1);
  char buffer[3];
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 3), 1);

  TCPAddr any;
  TCPAddrAny(&any, KZ_FAMILY_IPV4, to.port);
  EXPECT_EQ(UDPSendBufTo(connected.socket, &any, "x", 1), 0);
  EXPECT_EQ(ErrorText(), "can not send to INADDR_ANY");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_EQ(UDPSendBufTo(KZ_INVALID_HANDLE, &to, "x", 1), 0);

  ScopedSocket sender(UDPNew(nullptr));
  ASSERT_EQ(UDPSendBufToEx(sender.socket, &to, 5, "t", 1), 1);
  EXPECT_EQ(IntOption(sender.socket, IPPROTO_IP, IP_MULTICAST_TTL), 5);  // the setting stays
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 1), 1);
  ASSERT_EQ(UDPSendBufEx(&to, 3, "u", 1), 1);
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 1), 1);
  EXPECT_EQ(buffer[0], 'u');
}

TEST(UDP, BindingABusyAddressFails) {
  TCPAddr loopback = Loopback();
  ScopedSocket first(UDPNew(&loopback));
  TCPAddr bound;
  ASSERT_EQ(UDPGetAddr(first.socket, &bound, 0), 1);
  EXPECT_EQ(UDPNew(&bound), KZ_INVALID_HANDLE);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EADDRINUSE);
}

// ---- multicast ------------------------------------------------------------------------------------

TEST(Multicast, CloseRefusesInvalidSocketsAndClosesEvenWhenLeavingFails) {
  TCPAddr group;
  ASSERT_EQ(TCPAddrSetHostPort(&group, "239.255.42.1:9"), 1);
  EXPECT_EQ(UDPMCastClose(KZ_INVALID_HANDLE, &group), 0);
  EXPECT_EQ(ErrorText(), "invalid socket descriptor");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  // A socket that never joined: leaving fails, locally, and the socket goes.
  int64_t socket = UDPNew(nullptr);
  ASSERT_NE(socket, KZ_INVALID_HANDLE);
  EXPECT_EQ(UDPMCastClose(socket, &group), 0);
  EXPECT_EQ(std::string(ErrorText()).rfind("error unregistering multicast address", 0), 0u) << ErrorText();
  EXPECT_EQ(fcntl(static_cast<int>(socket), F_GETFD), -1);
  TCPAddr local = LocalAddress("mc");
  socket = UDPNew(nullptr);
  EXPECT_EQ(UDPMCastNewEx(&local, nullptr), KZ_INVALID_HANDLE);
  EXPECT_EQ(ErrorText(), "invalid protocol family for multicast");
  EXPECT_EQ(UDPMCastClose(socket, &local), 0);
  EXPECT_EQ(ErrorText(), "invalid protocol family for multicast");
  EXPECT_EQ(fcntl(static_cast<int>(socket), F_GETFD), -1);
}

// Whether datagrams to the group leave through the loopback interface: the
// route's source address, found without sending anything.
bool GroupRoutesOverLoopback(const char *group) {
  Fd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  inet_pton(AF_INET, group, &address.sin_addr);
  if (connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return false;
  socklen_t size = sizeof address;
  getsockname(probe.get(), reinterpret_cast<sockaddr *>(&address), &size);
  return ntohl(address.sin_addr.s_addr) == INADDR_LOOPBACK;
}

// Two members of one group and port in one process both receive a datagram.
int MulticastRoundTrip() {
  TCPAddr group;
  if (!TCPAddrSetHostPort(&group, "239.255.42.2:0")) return 10;
  TCPAddr probeAddress = Loopback();
  int64_t probe = UDPNew(&probeAddress);  // a free port for the group
  TCPAddr free;
  if (!UDPGetAddr(probe, &free, 0)) return 11;
  UDPClose(probe);
  group.port = free.port;
  int64_t first = UDPMCastNew(&group), second = UDPMCastNew(&group);
  if (first == KZ_INVALID_HANDLE || second == KZ_INVALID_HANDLE) return 12;
  if (!UDPSendBufEx(&group, 1, "to the group", 12)) return 13;
  for (int64_t member : {first, second}) {
    char buffer[32];
    size_t count = 0;
    if (!SocketWait(member, 0, 10000) || !UDPReceiveBytes(member, buffer, sizeof buffer, &count)) return 14;
    if (std::string(buffer, count) != "to the group") return 15;
  }
  if (UDPMCastClose(first, &group) != 1 || UDPMCastClose(second, &group) != 1) return 16;
  return 0;
}

TEST(Multicast, TwoMembersInOneProcessReceiveOverLoopback) {
  if (!GroupRoutesOverLoopback("239.255.42.2"))
    GTEST_SKIP() << "239.255.42.2 is not routed over the loopback interface here "
                    "(a route such as '224.0.0.0/4 dev lo src 127.0.0.1' enables it)";
  EXPECT_EQ(MulticastRoundTrip(), 0);
}

// Where the host routes the group elsewhere, a private network namespace with
// only a loopback interface and a multicast route on it carries the test
// (root only; nothing leaves the namespace).
TEST(Multicast, TwoMembersReceiveInAPrivateLoopbackOnlyNetwork) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a private network namespace";
  kztest::Child child = kztest::RunChild({}, [] {
    if (unshare(CLONE_NEWNET) != 0) return 20;
    Fd control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    if (ioctl(control.get(), SIOCGIFFLAGS, &request) != 0) return 21;
    request.ifr_flags |= IFF_UP;
    if (ioctl(control.get(), SIOCSIFFLAGS, &request) != 0) return 22;
    rtentry route{};
    auto *destination = reinterpret_cast<sockaddr_in *>(&route.rt_dst);
    auto *mask = reinterpret_cast<sockaddr_in *>(&route.rt_genmask);
    destination->sin_family = mask->sin_family = AF_INET;
    destination->sin_addr.s_addr = htonl(0xE0000000u);  // 224.0.0.0/4
    mask->sin_addr.s_addr = htonl(0xF0000000u);
    route.rt_flags = RTF_UP;
    char device[] = "lo";
    route.rt_dev = device;
    if (ioctl(control.get(), SIOCADDRT, &route) != 0) return 23;
    return MulticastRoundTrip();
  });
  if (child.Exited(20)) GTEST_SKIP() << "no private network namespace here: " << child.Describe();
  EXPECT_TRUE(child.Exited(0)) << child.Describe();
}

}  // namespace
