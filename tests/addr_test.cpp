// Network addresses: literals, tests, masks, ports, resolution, printing,
// family changes and peer security flags.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>

#include <cstring>
#include <string>

#include "kz/addr.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "net_support.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::Scoped;

IPAddr IP(const char *text) {
  IPAddr address{};
  EXPECT_EQ(IPAddrSetIP(&address, text), 1) << text;
  return address;
}

std::string Text(const IPAddr &address) {
  Scoped<UByteArray> text;
  if (!IPAddrGetIP(&address, &text)) return "<none>";
  return Bytes(text);
}

std::string Text(const TCPAddr &address) {
  Scoped<UByteArray> text;
  if (!TCPAddrGetIPPort(&address, &text)) return "<none>";
  return Bytes(text);
}

TEST(IPAddrSetIP, DottedQuadsAndIPv6) {
  const struct {
    const char *text;
    uint32_t value;
  } quads[] = {{"010.001.0.1", 0x0A010001u}, {"255.255.255.255", 0xFFFFFFFFu}, {"0000.0.0.0255", 0xFFu}};
  for (const auto &c : quads) {
    IPAddr address;
    ASSERT_EQ(IPAddrSetIP(&address, c.text), 1) << c.text;
    uint32_t stored;
    memcpy(&stored, address.address, sizeof stored);
    EXPECT_EQ(address.family, KZ_FAMILY_IPV4);
    EXPECT_EQ(stored, c.value) << c.text;  // host byte order
  }
  for (const char *text : {"::1", "[::1]"}) {
    IPAddr address;
    ASSERT_EQ(IPAddrSetIP(&address, text), 1) << text;
    EXPECT_EQ(address.family, KZ_FAMILY_IPV6);
    EXPECT_EQ(address.address[15], 1) << text;  // network order
  }
  EXPECT_EQ(Text(IP("[::ffff:1.2.3.4]")), "::ffff:1.2.3.4");
  KZErrorClear();
  for (const char *text : {"1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.4 ", "1.2.3.4.", "+1.2.3.4",
                           "1.2.3.99999999999", "", "[1.2.3.4]", "[::1", "[]", "[[::1]]", "g::1", "[::1]:80"}) {
    IPAddr address;
    EXPECT_EQ(IPAddrSetIP(&address, text), 0) << text;
    EXPECT_EQ(address.family, KZ_FAMILY_UNSET) << text;
  }
  EXPECT_EQ(KZErrorCode(), 0u);  // parsers record nothing
}

TEST(IPAddr, FamiliesAndTests) {
  EXPECT_EQ(KZIsFamilySupported(1), 1);
  EXPECT_EQ(KZIsFamilySupported(2), 1);
  EXPECT_EQ(KZIsFamilySupported(3), 0);
  EXPECT_EQ(KZIsFamilySupported(0), 0);
  EXPECT_EQ(KZIsFamilyIP(3), 0);
  EXPECT_EQ(IPAddrGetFamilySize(1), 4u);
  EXPECT_EQ(IPAddrGetFamilySize(2), 16u);

  const struct {
    const char *text;
    int isPrivate, isLocal, isAny;
  } cases[] = {
      {"192.168.0.1", 1, 0, 0}, {"192.169.0.1", 0, 0, 0},
      {"172.16.0.0", 1, 0, 0},  {"172.31.255.255", 1, 0, 0},
      {"172.32.0.0", 0, 0, 0},  {"172.15.255.255", 0, 0, 0},
      {"10.200.1.1", 1, 0, 0},  {"11.0.0.1", 0, 0, 0},
      {"169.254.1.1", 1, 0, 0}, {"127.0.0.1", 0, 1, 0},
      {"127.255.0.9", 0, 1, 0}, {"128.0.0.1", 0, 0, 0},
      {"0.0.0.0", 0, 0, 1},     {"fe80::1", 1, 0, 0},
      {"febf::1", 1, 0, 0},     {"fec0::1", 0, 0, 0},
      {"fd00::1", 0, 0, 0},     {"::1", 0, 1, 0},
      {"::2", 0, 0, 0},         {"::", 0, 0, 1},
  };
  for (const auto &c : cases) {
    IPAddr address = IP(c.text);
    EXPECT_EQ(IPAddrIsPrivate(&address), c.isPrivate) << c.text;
    EXPECT_EQ(IPAddrIsLocal(&address), c.isLocal) << c.text;
    EXPECT_EQ(IPAddrIsAny(address), c.isAny) << c.text;
    EXPECT_EQ(IPAddrIsAnyPtr(&address), c.isAny) << c.text;
  }
  IPAddr local{};
  local.family = KZ_FAMILY_LOCAL;
  EXPECT_EQ(IPAddrIsPrivate(&local), 0);
  EXPECT_EQ(IPAddrIsLocal(&local), 0);
  EXPECT_EQ(IPAddrIsAnyPtr(&local), 0);
}

TEST(IPAddr, WildcardAndLoopback) {
  IPAddr address;
  IPAddrAny(&address, KZ_FAMILY_IPV6);
  EXPECT_EQ(Text(address), "::");
  IPAddrLocal(&address, KZ_FAMILY_IPV4);
  EXPECT_EQ(Text(address), "127.0.0.1");
  IPAddrLocal(&address, KZ_FAMILY_IPV6);
  EXPECT_EQ(Text(address), "::1");
  IPAddrAny(&address, KZ_FAMILY_UNSET);  // the default family
  EXPECT_EQ(address.family, KZGetDefaultFamily());
  TCPAddr tcp;
  TCPAddrLocal(&tcp, KZ_FAMILY_IPV6, 443);
  EXPECT_EQ(Text(tcp), "[::1]:443");
  TCPAddrAny(&tcp, KZ_FAMILY_IPV4, 80);
  EXPECT_EQ(Text(tcp), "0.0.0.0:80");
  static IPAddr unsupported;
  kztest::ExpectFatal({[] { IPAddrAny(&unsupported, 3); }, 0, "'FALSE' failed at kzlib/kztcp"});
  kztest::ExpectFatal({[] { IPAddrLocal(&unsupported, 7); }, 0, "'FALSE' failed at kzlib/kztcp"});
}

TEST(IPAddr, Masks) {
  const struct {
    const char *text;
    uint32_t bits;
    bool left;
    const char *expected;  // null: the mask fails and the address stays
  } cases[] = {
      {"192.168.37.5", 20, true, "192.168.32.0"},
      {"192.168.37.5", 33, true, nullptr},
      {"192.168.37.5", 32, true, "192.168.37.5"},
      {"192.168.37.5", 0, true, "0.0.0.0"},
      {"192.168.37.5", 12, false, "0.0.5.5"},
      {"192.168.37.5", 8, false, "0.0.0.5"},
      {"2001:db8:abcd:12::1", 36, true, "2001:db8:a000::"},
      {"2001:db8::ff", 4, false, "::f"},
      {"2001:db8::1", 129, true, nullptr},
      {"2001:db8::1", 128, false, "2001:db8::1"},
  };
  for (const auto &c : cases) {
    IPAddr address = IP(c.text), copy;
    int ok = c.left ? IPAddrMaskLeft(&address, c.bits) : IPAddrMaskRight(&address, c.bits);
    EXPECT_EQ(ok, c.expected != nullptr) << c.text << "/" << c.bits;
    EXPECT_EQ(Text(address), c.expected ? c.expected : c.text) << c.text << "/" << c.bits;
    IPAddr source = IP(c.text);
    ok = c.left ? IPAddrCopyWithLeftMask(&copy, &source, c.bits) : IPAddrCopyWithRightMask(&copy, &source, c.bits);
    EXPECT_EQ(Text(copy), c.expected ? c.expected : c.text);
    EXPECT_EQ(Text(source), c.text);
  }
  IPAddr a = IP("10.1.2.3"), b = IP("10.1.200.3"), c6 = IP("::1"), mask = IP("10.1.2.3");
  EXPECT_EQ(IPAddrMask(&mask, 16), 1);
  EXPECT_EQ(Text(mask), "10.1.0.0");
  EXPECT_EQ(IPAddrEqualsWithLeftMask(&a, &b, 16), 1);
  EXPECT_EQ(IPAddrEqualsWithMask(&a, &b, 17), 0);
  EXPECT_EQ(IPAddrEqualsWithLeftMask(&a, &b, 0), 1);
  EXPECT_EQ(IPAddrEqualsWithLeftMask(&a, &c6, 0), 0);  // families differ
  EXPECT_EQ(IPAddrEqualsWithRightMask(&a, &b, 8), 1);
  EXPECT_EQ(IPAddrEqualsWithRightMask(&a, &b, 16), 0);
  EXPECT_EQ(IPAddrEqualsWithLeftMask(&a, &b, 33), 0);

  IPAddr masked;
  EXPECT_EQ(IPAddrSetIPMask(&masked, "192.168.37.5/20"), 1);
  EXPECT_EQ(Text(masked), "192.168.32.0");
  EXPECT_EQ(IPAddrSetIPMask(&masked, "fe80::1:2/64"), 1);
  EXPECT_EQ(Text(masked), "fe80::");
  for (const char *bad : {"1.2.3.4/33", "1.2.3.4/", "1.2.3.4/x", "1.2.3/8"})
    EXPECT_EQ(IPAddrSetIPMask(&masked, bad), 0);
}

TEST(IPAddr, Equality) {
  IPAddr a = IP("1.2.3.4"), b = IP("1.2.3.4"), c = IP("::ffff:1.2.3.4");
  EXPECT_EQ(IPAddrEquals(a, b), 1);
  EXPECT_EQ(IPAddrEqualsPtr(&a, &c), 0);
  a.address[10] = 0x55;  // bytes beyond an IPv4 address do not count
  EXPECT_EQ(IPAddrEqualsPtr(&a, &b), 1);
  TCPAddr x, y;
  TCPAddrIpPort(&x, &b, 80);
  TCPAddrIpPort(&y, &b, 81);
  EXPECT_EQ(TCPAddrEquals(&x, &y), 0);
  y.port = 80;
  EXPECT_EQ(TCPAddrEquals(&x, &y), 1);
}

TEST(TCPAddr, Ports) {
  const struct {
    const char *text;
    int result;
    uint16_t port;
    const char *error;
  } cases[] = {{"", 1, 0, nullptr},
               {"80", 1, 80, nullptr},
               {"65535", 1, 65535, nullptr},
               {"http", 1, 80, nullptr},
               {"nosuchservice", 0, 7, nullptr},
               {"65536", 0, 7, "invalid port number"},
               {"99999999999999", 0, 7, "invalid port number"}};
  for (const auto &c : cases) {
    KZErrorClear();
    uint16_t port = 7;
    EXPECT_EQ(TCPAddrSetPort(&port, c.text), c.result) << c.text;
    EXPECT_EQ(port, c.port) << c.text;
    if (c.error) {
      EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, c.error));
    } else {
      EXPECT_EQ(KZErrorCode(), 0u) << c.text;
    }
  }
}

TEST(TCPAddr, PortArguments) {
  TCPAddr address;
  ASSERT_EQ(TCPAddrParsePortArg(&address, "8080"), 1);
  EXPECT_EQ(Text(address), "0.0.0.0:8080");  // any address of the default family
  EXPECT_EQ(TCPAddrParsePortArg(&address, "0"), 0);
  EXPECT_EQ(TCPAddrParsePortArg(&address, "65536"), 0);
  ASSERT_EQ(TCPAddrParsePortArg(&address, "127.0.0.2:99"), 1);
  EXPECT_EQ(Text(address), "127.0.0.2:99");
  ASSERT_EQ(TCPAddrParsePortArg(&address, "/app:7"), 1);
  EXPECT_EQ(address.family, KZ_FAMILY_LOCAL);
  EXPECT_STREQ(reinterpret_cast<char *>(address.address), "app");
  EXPECT_EQ(address.port, 7);
  ASSERT_EQ(TCPAddrParsePortArg(&address, "/kzbase/svc:9"), 1);
  EXPECT_EQ(Text(address), "/svc:9");
  // The base name now in force shows in the path a local connect uses.
  kztest::LocalListener listener("kzbase", "svc", 9);
  ASSERT_TRUE(listener.ok());
  Channel *channel = ChannelNew(-1, -1);
  EXPECT_EQ(ChannelConnect(channel, &address), 1);
  ChannelClose(channel);
  KZUnixSocketSetBase("sock");
}

TEST(TCPAddr, HostPortAndLocalNames) {
  TCPAddr address;
  ASSERT_EQ(TCPAddrSetHostPort(&address, "[::1]:8443"), 1);
  EXPECT_EQ(Text(address), "[::1]:8443");
  ASSERT_EQ(TCPAddrSetHostPort(&address, ":http"), 1);  // empty host: localhost
  EXPECT_EQ(Text(address), "127.0.0.1:80");
  const struct {
    const char *text, *error;
  } failures[] = {
      {"localhost", "invalid address (missing ':' char)"},
      {"/0123456789abcdef:1", "socket name too long"},
      {"/a\\b:1", "socket name must not contain '/' and '\\' chars"},
      {"host.invalid:80", "Could not resolve host"},
      {"127.0.0.1:65536", "invalid port number"},
  };
  for (const auto &f : failures) {
    KZErrorClear();
    EXPECT_EQ(TCPAddrSetHostPort(&address, f.text), 0) << f.text;
    EXPECT_EQ(std::string(KZErrorMessage()).rfind(f.error, 0), 0u) << f.text << " -> " << KZErrorMessage();
  }
  ASSERT_EQ(TCPAddrSetHostPort(&address, "/0123456789abcde:1"), 1);  // 15 bytes fit
  EXPECT_EQ(Text(address), "/0123456789abcde:1");
}

TEST(TCPAddr, ResolutionOrder) {
  Scoped<TCPAddrArray> all;
  ASSERT_EQ(TCPAddrSetHostPortMultiple(&all, "localhost:25"), 1);
  ASSERT_GE(all.count, 1u);
  EXPECT_EQ(all.elements[0].family, KZGetDefaultFamily());  // the default family first
  EXPECT_EQ(all.elements[0].port, 25);
  for (uint32_t i = 1; i < all.count; ++i) EXPECT_FALSE(TCPAddrEquals(&all.elements[0], &all.elements[i]));
  Scoped<IPAddrArray> ips;
  ASSERT_EQ(IPAddrSetHostMultiple(&ips, "127.0.0.9"), 1);
  ASSERT_EQ(ips.count, 1u);
  EXPECT_EQ(Text(ips.elements[0]), "127.0.0.9");
  IPAddr host;
  ASSERT_EQ(IPAddrSetHost(&host, "localhost"), 1);
  Scoped<UByteArray> name;
  ASSERT_EQ(IPAddrGetHost(&host, &name), 1);
  EXPECT_EQ(Bytes(name), "localhost");
  TCPAddr withPort;
  TCPAddrIpPort(&withPort, &host, 21);
  Scoped<UByteArray> hostPort;
  ASSERT_EQ(TCPAddrGetHostPort(&withPort, &hostPort), 1);
  EXPECT_EQ(Bytes(hostPort), "localhost:21");
}

TEST(IPAddr, Printing) {
  const struct {
    const char *text, *reverse;
  } cases[] = {
      {"10.1.2.3", "3.2.1.10.IN-ADDR.ARPA."},
      {"2001:db8::567:89ab", "b.a.9.8.7.6.5.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.IP6.ARPA."},
  };
  for (const auto &c : cases) {
    IPAddr address = IP(c.text);
    Scoped<UByteArray> text;
    ASSERT_EQ(IPAddrGetIPReverse(&address, &text), 1);
    EXPECT_EQ(Bytes(text), c.reverse);
    EXPECT_EQ(text.elements[text.count], '\0');
    EXPECT_EQ(Text(address), c.text);
  }
  Scoped<UByteArray> appended;
  IPAddr a = IP("1.2.3.4");
  IPAddrGetIP(&a, &appended);
  IPAddrGetIP(&a, &appended);
  EXPECT_EQ(Bytes(appended), "1.2.3.41.2.3.4");  // printing appends
  IPAddr unset{};
  EXPECT_EQ(IPAddrGetIP(&unset, &appended), 0);
}

TEST(IPAddr, FamilyChanges) {
  IPAddr address = IP("1.2.3.4");
  ASSERT_EQ(IPAddrChangeFamily(&address, KZ_FAMILY_IPV6), 1);
  EXPECT_EQ(Text(address), "::ffff:1.2.3.4");
  ASSERT_EQ(IPAddrChangeFamily(&address, KZ_FAMILY_IPV4), 1);
  EXPECT_EQ(Text(address), "1.2.3.4");
  uint32_t v4 = 0;
  ASSERT_EQ(IPAddrGetAddr4(IP("::ffff:10.0.0.1"), &v4), 1);
  EXPECT_EQ(v4, 0x0A000001u);
  unsigned char bytes[16];
  ASSERT_EQ(IPAddrCopyAddr6(&address, bytes), 1);
  IPAddr six;
  IPAddrSetAddr6(&six, bytes);
  EXPECT_EQ(Text(six), "::ffff:1.2.3.4");
  IPAddrFromIPAddr4(&six, 0x7F000001u);
  EXPECT_EQ(Text(six), "127.0.0.1");

  const struct {
    const char *text;
    uint32_t family;
    const char *error;
  } failures[] = {{"2001:db8::1", 1, "unable to map the address to the specified class"},
                  {"1.2.3.4", 3, "invalid mapping family"},
                  {"1.2.3.4", 0, "invalid mapping family"}};
  for (const auto &f : failures) {
    IPAddr x = IP(f.text);
    EXPECT_EQ(IPAddrChangeFamily(&x, f.family), 0);
    EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_GENERAL, f.error));
  }
  IPAddr plain6 = IP("2001:db8::1");
  EXPECT_EQ(IPAddrGetAddr4Ptr(&plain6, &v4), 0);
  EXPECT_STREQ(KZErrorMessage(), "can not extract IPv4 address");
}

TEST(IPAddr, Bindable) {
  IPAddr loopback = IP("127.0.0.1"), foreign = IP("192.0.2.1");
  EXPECT_EQ(IPAddrIsBindable(&loopback), 1);
  EXPECT_EQ(IPAddrIsBindable(&foreign), 0);
  kztest::Listener listener;
  TCPAddr taken = listener.Address(), free = taken;
  EXPECT_EQ(TCPAddrIsBindable(&taken), 0);
  free.port = 0;
  EXPECT_EQ(TCPAddrIsBindable(&free), 1);
}

TEST(TCPAddr, PeerSecurityFlags) {
  // This process holds both ends: the peer runs as this process does.
  kztest::Listener listener;
  Channel *channel = ChannelNew(-1, -1);
  TCPAddr target = listener.Address();
  ASSERT_EQ(ChannelConnect(channel, &target), 1);
  kztest::Fd accepted = listener.Accept();
  TCPAddr local, peer;
  ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
  ASSERT_EQ(ChannelGetAddr(channel, &peer, 1), 1);
  uint32_t flags = 99, viaChannel = 99;
  ASSERT_EQ(TCPAddrPeerGetSecurityFlags(&local, &peer, &flags), 1);
  if (geteuid() == 0) {
    EXPECT_EQ(flags, KZ_PEER_SYSTEM | KZ_PEER_ADMINISTRATORS);
  }
  EXPECT_EQ(ChannelGetSecurityFlags(channel, &viaChannel), 1);
  EXPECT_EQ(viaChannel, flags);

  TCPAddr unknown = peer;
  unknown.port = static_cast<uint16_t>(peer.port + 1);
  errno = 0;
  EXPECT_EQ(TCPAddrPeerGetSecurityFlags(&local, &unknown, &flags), 0);
  EXPECT_EQ(errno, ENOENT);
  TCPAddr remote;
  ASSERT_EQ(TCPAddrSetHostPort(&remote, "192.0.2.7:80"), 1);
  EXPECT_EQ(TCPAddrPeerGetSecurityFlags(&local, &remote, &flags), 1);
  EXPECT_EQ(flags, 0u);  // not from this machine
  TCPAddr named{};
  named.family = KZ_FAMILY_LOCAL;
  EXPECT_EQ(TCPAddrPeerGetSecurityFlags(&local, &named, &flags), 0);
  EXPECT_EQ(kztest::LastError(), kztest::Error(KZ_ERR_INVALID, "not implemented on this family"));
  ChannelClose(channel);
}

TEST(TCPAddr, PeerSecurityFlagsOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "switching a peer to another user needs root";
  passwd *nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  kztest::Listener listener;
  int accepted[2];
  ASSERT_EQ(pipe(accepted), 0);
  pid_t child = fork();
  if (child == 0) {  // the peer: accepts as "nobody" and holds the connection until the channel closes
    close(accepted[0]);
    if (setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(2);
    kztest::Fd connection = listener.Accept();
    char byte = 1;
    if (connection.get() < 0 || write(accepted[1], &byte, 1) != 1) _exit(3);
    (void)!read(connection.get(), &byte, 1);
    _exit(0);
  }
  close(accepted[1]);
  Channel *channel = ChannelNew(-1, -1);
  TCPAddr target = listener.Address();
  ASSERT_EQ(ChannelConnect(channel, &target), 1);
  char byte;
  ASSERT_EQ(read(accepted[0], &byte, 1), 1);
  uint32_t flags = 99;
  EXPECT_EQ(ChannelGetSecurityFlags(channel, &flags), 1);
  EXPECT_EQ(flags, 0u);
  ChannelClose(channel);  // the peer's end of input
  close(accepted[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
