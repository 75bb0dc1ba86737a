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

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
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

using ScopedServer = std::unique_ptr<TCPServer, int (*)(TCPServer *)>;

struct ScopedSocket {
  explicit ScopedSocket(int64_t s) : socket(s) {}
  ~ScopedSocket() {
    if (socket != KZ_INVALID_HANDLE) UDPClose(socket);
  }
  int64_t socket;
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
std::vector<int> Flags(const UByteArray &flags) { return {flags.elements, flags.elements + flags.count}; }

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

TEST(ChannelSelect, BufferedInputFirstThenTheFirstReadySocketInArrayOrder) {
  ChannelPair a, b, c;
  ScopedChannel unconnected;
  ASSERT_TRUE(kztest::WriteAll(c.client.get(), "cc"));
  ASSERT_TRUE(kztest::WriteAll(b.client.get(), "b"));
  // Wait until both bytes have arrived, so the order is the array's.
  Scoped<UByteArray> flags;
  int64_t sockets[] = {b.channel->handle, c.channel->handle};
  for (int i = 0; i < 100 && Flags(flags) != std::vector<int>{1, 1}; ++i)
    ASSERT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, 10000), 0);
  Channel *channels[] = {a.channel, nullptr, c.channel, b.channel, unconnected};
  ASSERT_EQ(ChannelSelectEx(ChannelSelectContextNew(), channels, 5, &flags, 10000), 0);
  EXPECT_EQ(Flags(flags), (std::vector<int>{0, 0, 1, 1, 0}));  // no handle, no flag
  EXPECT_EQ(ChannelSelect(channels, 4, 10000), 2);

  ASSERT_EQ(ChannelReadByte(c.channel), 'c');  // the second 'c' stays buffered
  ASSERT_EQ(ChannelReadByte(b.channel), 'b');
  a.client.reset();  // a hang-up makes a's socket readable
  Channel *reordered[] = {a.channel, b.channel, nullptr, c.channel};
  EXPECT_EQ(ChannelSelect(reordered, 4, 0), 3);
  ASSERT_EQ(ChannelReadByte(c.channel), 'c');
  EXPECT_EQ(ChannelSelect(reordered, 4, 10000), 0);
  ChannelSelectContextFree(nullptr);
}

// Every refused wait gives -1 with its text and code; a time-out lasts as
// long as asked.
TEST(ChannelSelect, RefusalsAndTimeOutsNameTheirCause) {
  ChannelPair a, b;
  ScopedChannel unconnected;
  ASSERT_TRUE(kztest::WriteAll(b.client.get(), "bb"));
  ASSERT_EQ(ChannelReadByte(b.channel), 'b');  // one byte buffered, none left on the socket
  Scoped<UByteArray> flags;
  Channel *none[] = {nullptr}, *noHandle[] = {nullptr, unconnected}, *one[] = {a.channel},
          *both[] = {a.channel, b.channel};
  int64_t noSocket = KZ_INVALID_HANDLE;
  struct Row {
    const char *what;
    std::function<int()> wait;
    Channel *withSession;
    int waitsMs;
    std::string text;
    uint64_t code;
  } rows[] = {
      {"no channel", [&] { return ChannelSelect(none, 1, 0); }, nullptr, 0, "ChannelSelect: empty channel array",
       KZ_ERR_GENERAL},
      {"time-out", [&] { return ChannelSelect(one, 1, 150); }, nullptr, 150, "timeout", KZ_ERR_TIMEOUT},
      {"SSL", [&] { return ChannelSelect(one, 1, 0); }, a.channel, 0, "Illegal ChannelSelect on a SSL channel", 22},
      {"Ex, no handle", [&] { return ChannelSelectEx(nullptr, noHandle, 2, &flags, 0); }, nullptr, 0,
       "ChannelSelect: empty channel array", 22},
      {"Ex ignores buffers", [&] { return ChannelSelectEx(nullptr, both, 2, &flags, 0); }, nullptr, 0, "timeout",
       KZ_ERR_TIMEOUT},
      {"Ex, SSL", [&] { return ChannelSelectEx(nullptr, both, 2, &flags, 0); }, b.channel, 0,
       "null or invalid selected channel", KZ_ERR_GENERAL},
      {"FD, no socket", [&] { return ChannelSelectFD(nullptr, &noSocket, 0, &flags, 0); }, nullptr, 0,
       "ChannelSelect: empty channel array", 22},
  };
  int session = 0;  // any session makes the wait illegal
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    if (row.withSession) row.withSession->ssl = &session;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(row.wait(), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.waitsMs));
    if (row.withSession) row.withSession->ssl = nullptr;
    EXPECT_EQ(ErrorText(), row.text);
    EXPECT_EQ(KZErrorCode(), row.code);
  }
  // A closed descriptor fails the wait with the system's error.
  Fd spare(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  int64_t closed = spare.get();
  spare.reset();
  EXPECT_EQ(ChannelSelectFD(nullptr, &closed, 1, &flags, 0), -1);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EBADF);
}

// A socket given twice is flagged twice and takes one place; sockets past the
// 64th distinct one are left out of the wait.
TEST(ChannelSelectFD, AtMost64DistinctSocketsTakePart) {
  std::vector<int64_t> sockets;
  TCPAddr loopback = Loopback();
  for (int i = 0; i < 66; ++i) {
    sockets.push_back(UDPNew(&loopback));
    ASSERT_NE(sockets.back(), KZ_INVALID_HANDLE);
  }
  std::vector<int64_t> entries = {sockets[0], sockets[0]};
  entries.insert(entries.end(), sockets.begin() + 1, sockets.end());  // the 64th distinct one at [64]
  auto poke = [&](int64_t target) {
    TCPAddr address;
    ASSERT_EQ(UDPGetAddr(target, &address, 0), 1);
    ASSERT_EQ(UDPSendBuf(&address, "!", 1), 1);
  };
  Scoped<UByteArray> flags;
  poke(sockets[65]);
  EXPECT_EQ(ChannelSelectFD(nullptr, entries.data(), uint32_t(entries.size()), &flags, 50), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  poke(sockets[63]);
  poke(sockets[0]);
  ASSERT_EQ(ChannelSelectFD(nullptr, entries.data(), uint32_t(entries.size()), &flags, 10000), 0);
  std::vector<int> expected(entries.size(), 0);
  expected[0] = expected[1] = expected[64] = 1;
  EXPECT_EQ(Flags(flags), expected);
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
  EXPECT_EQ(Flags(flags), std::vector<int>{1});
  high.reset();
  setrlimit(RLIMIT_NOFILE, &limit);
}

// ---- select events --------------------------------------------------------------------

TEST(ChannelSelectEvent, NotifiesFromAnotherThreadWakeTheWaitAndOneResetDrainsThem) {
  ChannelSelectEvent event;
  ASSERT_EQ(ChannelSelectEventNew(&event), &event);
  ASSERT_NE(event.socket, KZ_INVALID_HANDLE);
  EXPECT_EQ(event.unused, KZ_INVALID_HANDLE);
  EXPECT_TRUE(CloseOnExec(event.socket));
  ChannelPair idle;
  int64_t sockets[] = {idle.channel->handle, ChannelSelectEventGetFD(&event)};
  Scoped<UByteArray> flags;
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, 0), -1);
  std::atomic<int> notified{0};
  std::thread notifier([&] { notified = ChannelSelectEventNotify(&event) + ChannelSelectEventNotify(&event); });
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, -1), 0);  // returns only through the event
  notifier.join();
  EXPECT_EQ(notified.load(), 2);
  EXPECT_EQ(Flags(flags), (std::vector<int>{0, 1}));
  EXPECT_EQ(ChannelSelectEventNotifyReset(&event), 1);
  EXPECT_EQ(ChannelSelectFD(nullptr, sockets, 2, &flags, 0), -1);
  EXPECT_EQ(KZErrorCode(), KZ_ERR_TIMEOUT);
  EXPECT_EQ(ChannelSelectEventFree(&event), 1);
  EXPECT_EQ(ChannelSelectEventFree(&event), 0);
  EXPECT_EQ(ErrorText(), "invalid select event");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
}

// ---- TCP servers ---------------------------------------------------------------------------

TEST(TCPServer, OpenFailuresNameTheAddressAndTheCause) {
  TCPAddr unset{};
  unset.port = 4321;
  EXPECT_EQ(TCPServerOpen(&unset), nullptr);
  EXPECT_EQ(ErrorText().rfind("can not open server ", 0), 0u) << ErrorText();
  EXPECT_NE(ErrorText().find(": invalid protocol family"), std::string::npos) << ErrorText();

  TCPAddr loopback = Loopback(), bound;
  ScopedServer first(TCPServerOpen(&loopback), TCPServerClose);
  ASSERT_NE(first.get(), nullptr);
  ASSERT_EQ(TCPServerGetAddr(first.get(), &bound), 1);
  EXPECT_NE(bound.port, 0);
  EXPECT_EQ(TCPServerOpenEx(&bound, 5), nullptr);
  EXPECT_EQ(ErrorText(), "can not open server 127.0.0.1:" + std::to_string(bound.port) +
                             ": error binding server: " + strerror(EADDRINUSE));
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, EADDRINUSE));
}

TEST(TCPServer, AcceptSetsOptionsAndBlockingModeFromTheChannel) {
  TCPAddr loopback = Loopback(), bound;
  ScopedServer server(TCPServerOpenEx(&loopback, 8), TCPServerClose);
  ASSERT_NE(server.get(), nullptr);
  EXPECT_TRUE(CloseOnExec(TCPServerGetFD(server.get())));
  ASSERT_EQ(TCPServerGetAddr(server.get(), &bound), 1);
  for (int32_t readTimeout : {1000, -1}) {
    SCOPED_TRACE(readTimeout);
    ScopedChannel client, accepted(readTimeout, -1);
    ASSERT_EQ(ChannelConnect(client, &bound), 1);
    ASSERT_EQ(TCPServerAccept(server.get(), accepted), 1);
    EXPECT_EQ(NonBlocking(accepted->handle), readTimeout >= 0);
    EXPECT_TRUE(CloseOnExec(accepted->handle));
    EXPECT_EQ(IntOption(accepted->handle, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(IntOption(accepted->handle, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(accepted->isSocket, 1u);
    EXPECT_EQ(accepted->isNamedPipe, 0u);
  }
  EXPECT_EQ(TCPServerDisconnect(server.get()), 1);
  EXPECT_EQ(TCPServerGetFD(server.get()), KZ_INVALID_HANDLE);
  EXPECT_EQ(TCPServerDisconnect(server.get()), 1);
  ScopedChannel refused, none;
  EXPECT_EQ(ChannelConnect(refused, &bound), 0);
  // Accepting on a disconnected server fails quietly with the system error.
  EXPECT_EQ(TCPServerAccept(server.get(), none), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), EBADF);
  EXPECT_EQ(ChannelConnected(none), 0);
}

TEST(TCPServer, AnIPv6WildcardServerAcceptsAnIPv4Client) {
  if (!HaveIPv6()) GTEST_SKIP() << "no IPv6 loopback here";
  TCPAddr any, bound, peer;
  TCPAddrAny(&any, KZ_FAMILY_IPV6, 0);
  ScopedServer server(TCPServerOpen(&any), TCPServerClose);
  ASSERT_NE(server.get(), nullptr) << ErrorText();
  ASSERT_EQ(TCPServerGetAddr(server.get(), &bound), 1);
  EXPECT_EQ(bound.family, KZ_FAMILY_IPV6);
  TCPAddr v4 = Loopback(KZ_FAMILY_IPV4, bound.port);
  ScopedChannel client, accepted;
  ASSERT_EQ(ChannelConnect(client, &v4), 1);
  ASSERT_EQ(TCPServerAccept(server.get(), accepted), 1);
  ASSERT_EQ(ChannelGetAddr(accepted, &peer, 1), 1);
  EXPECT_EQ(peer.family, KZ_FAMILY_IPV6);  // ::ffff:127.0.0.1
  EXPECT_EQ(peer.address[10], 0xFF);
  EXPECT_EQ(peer.address[12], 127);
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

// The socket file a killed server left (nobody listens) is replaced; a live
// server keeps its name; closing removes the socket and lock files.
TEST(LocalServer, ReplacesAStaleFileKeepsItsNameAndCleansUp) {
  TCPAddr address = LocalAddress("la");
  const std::string path = LocalPath(address);
  {  // what a killed server leaves: a socket file nobody listens on, and its lock file
    unlink(path.c_str());
    Fd dead(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::strncpy(un.sun_path, path.c_str(), sizeof un.sun_path - 1);
    ASSERT_EQ(bind(dead.get(), reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    std::ofstream(path + ".lock") << "";
  }
  ScopedChannel stale;
  EXPECT_EQ(ChannelConnect(stale, &address), 0);

  TCPServer *server = TCPServerOpen(&address);
  ASSERT_NE(server, nullptr) << ErrorText();
  struct stat info;
  ASSERT_EQ(lstat(path.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_NE(server->lock, nullptr);
  TCPAddr got;
  ASSERT_EQ(TCPServerGetAddr(server, &got), 1);
  EXPECT_EQ(TCPAddrEquals(&got, &address), 1);
  EXPECT_EQ(TCPServerOpen(&address), nullptr);
  EXPECT_EQ(ErrorText(), std::string("unable to create named pipe: ") + strerror(EADDRINUSE));
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

// Both families: a taken address, the sender's address, the wildcard refused,
// and a ttl that stays set on the socket.
TEST(UDP, ConnectedAndAddressedDatagramsOnBothFamilies) {
  for (uint32_t family : {KZ_FAMILY_IPV4, KZ_FAMILY_IPV6}) {
    SCOPED_TRACE(family);
    if (family == KZ_FAMILY_IPV6 && !HaveIPv6()) continue;
    TCPAddr loopback = Loopback(family), to, from, source{}, any;
    ScopedSocket receiver(UDPNew(&loopback));
    ASSERT_EQ(UDPGetAddr(receiver.socket, &to, 0), 1);
    EXPECT_TRUE(CloseOnExec(receiver.socket));
    EXPECT_EQ(UDPNew(&to), KZ_INVALID_HANDLE);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(KZGetLastError(), EADDRINUSE);
    ScopedSocket connected(family == KZ_FAMILY_IPV4 ? UDPConnect(&to) : UDPConnectEx(&to, &loopback));
    ASSERT_EQ(UDPGetAddr(connected.socket, &from, 1), 1);
    EXPECT_EQ(TCPAddrEquals(&from, &to), 1);
    ASSERT_EQ(UDPGetAddr(connected.socket, &from, 0), 1);
    ASSERT_EQ(UDPSend(connected.socket, "datagram", 8), 1);
    char buffer[64];
    size_t count = 99;
    ASSERT_EQ(UDPReceiveBytesFrom(receiver.socket, buffer, sizeof buffer, &count, &source), 1);
    EXPECT_EQ(std::string(buffer, count), "datagram");
    EXPECT_EQ(TCPAddrEquals(&source, &from), 1);
    EXPECT_EQ(source.port, from.port);

    TCPAddrAny(&any, family, to.port);
    EXPECT_EQ(UDPSendBufTo(connected.socket, &any, "x", 1), 0);
    EXPECT_EQ(ErrorText(), "can not send to INADDR_ANY");
    EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
    EXPECT_EQ(UDPSendBufTo(KZ_INVALID_HANDLE, &to, "x", 1), 0);
    ScopedSocket sender(UDPNew(&loopback));
    ASSERT_EQ(UDPSendBufToEx(sender.socket, &to, 5, "t", 1), 1);
    EXPECT_EQ(family == KZ_FAMILY_IPV6 ? IntOption(sender.socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS)
                                       : IntOption(sender.socket, IPPROTO_IP, IP_MULTICAST_TTL),
              5);
    ASSERT_EQ(UDPSendBufEx(&to, 3, "u", 1), 1);
    EXPECT_EQ(UDPReceive(receiver.socket, buffer, 1), 1);
    EXPECT_EQ(UDPReceive(receiver.socket, buffer + 1, 1), 1);
    EXPECT_EQ(std::string(buffer, 2), "tu");
  }
}

// Into 10 bytes: UDPReceive wants exactly 10 (a shorter datagram gives 0 and
// leaves errno alone); a longer one is consumed and refused.
TEST(UDP, ShortExactLongAndEmptyDatagrams) {
  TCPAddr loopback = Loopback(), to;
  ScopedSocket receiver(UDPNew(&loopback));
  ASSERT_EQ(UDPGetAddr(receiver.socket, &to, 0), 1);
  char buffer[10];
  ASSERT_EQ(UDPSendBuf(&to, "four", 4), 1);
  errno = 77;
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 10), 0);
  EXPECT_EQ(errno, 77);
  ASSERT_EQ(UDPSendBuf(&to, "0123456789", 10), 1);
  EXPECT_EQ(UDPReceive(receiver.socket, buffer, 10), 1);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
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

// ---- multicast ------------------------------------------------------------------------------------

// The socket is closed in every case but an invalid one.
TEST(Multicast, CloseRefusesInvalidSocketsAndClosesEvenWhenLeavingFails) {
  TCPAddr group, local = LocalAddress("mc");
  ASSERT_EQ(TCPAddrSetHostPort(&group, "239.255.42.1:9"), 1);
  EXPECT_EQ(UDPMCastClose(KZ_INVALID_HANDLE, &group), 0);
  EXPECT_EQ(ErrorText(), "invalid socket descriptor");
  EXPECT_EQ(KZErrorCode(), KZ_ERR_GENERAL);
  EXPECT_EQ(UDPMCastNewEx(&local, nullptr), KZ_INVALID_HANDLE);
  EXPECT_EQ(ErrorText(), "invalid protocol family for multicast");
  struct {
    const TCPAddr *group;
    std::string text;
  } rows[] = {{&group, "error unregistering multicast address"},  // never joined: leaving fails locally
              {&local, "invalid protocol family for multicast"}};
  for (const auto &row : rows) {
    int64_t socket = UDPNew(nullptr);
    ASSERT_NE(socket, KZ_INVALID_HANDLE);
    EXPECT_EQ(UDPMCastClose(socket, row.group), 0);
    EXPECT_EQ(ErrorText().rfind(row.text, 0), 0u) << ErrorText();
    EXPECT_EQ(fcntl(static_cast<int>(socket), F_GETFD), -1) << row.text;
  }
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
  TCPAddr group, probeAddress = Loopback(), free;
  int64_t probe = UDPNew(&probeAddress);  // a free port for the group
  if (!TCPAddrSetHostPort(&group, "239.255.42.2:0") || !UDPGetAddr(probe, &free, 0)) return 10;
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

// Over the host's loopback where it routes the group there; else (root only)
// in a private network namespace with only a loopback interface and a
// multicast route on it, so nothing leaves the namespace.
TEST(Multicast, TwoMembersInOneProcessReceiveOverLoopback) {
  if (GroupRoutesOverLoopback("239.255.42.2")) {
    EXPECT_EQ(MulticastRoundTrip(), 0);
    return;
  }
  if (geteuid() != 0)
    GTEST_SKIP() << "239.255.42.2 is not routed over the loopback interface here (a route such as "
                    "'224.0.0.0/4 dev lo src 127.0.0.1' enables it; root uses a private network namespace)";
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
