// Network addresses: literal parsing.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <cstring>

#include "kz/addr.h"
#include "kz/error.h"

namespace {

TEST(IPAddrSetIP, DottedQuads) {
  const struct {
    const char *text;
    uint32_t value;
  } valid[] = {
      {"10.1.0.1", 0x0A010001u},      {"010.001.0.1", 0x0A010001u},   {"0.0.0.0", 0u},
      {"255.255.255.255", 0xFFFFFFFFu}, {"192.168.37.5", 0xC0A82505u}, {"0000.0.0.0255", 0xFFu},
  };
  for (const auto &c : valid) {
    IPAddr address;
    memset(&address, 0xAA, sizeof address);
    ASSERT_EQ(IPAddrSetIP(&address, c.text), 1) << c.text;
    EXPECT_EQ(address.family, KZ_FAMILY_IPV4);
    uint32_t stored;
    memcpy(&stored, address.address, sizeof stored);
    EXPECT_EQ(stored, c.value) << c.text;  // host byte order
  }
  KZErrorClear();
  for (const char *text : {"1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "1.2.3.4.",
                           "1.2.3.-4", "+1.2.3.4", "0x1.2.3.4", "1.2.3.99999999999", "", ".1.2.3",
                           "[1.2.3.4]"}) {
    IPAddr address;
    EXPECT_EQ(IPAddrSetIP(&address, text), 0) << text;
    EXPECT_EQ(address.family, KZ_FAMILY_UNSET) << text;
  }
  EXPECT_EQ(KZErrorCode(), 0u);  // parsers record nothing
}

TEST(IPAddrSetIP, IPv6WithAndWithoutBrackets) {
  const char *texts[][2] = {
      {"::1", "::1"}, {"[::1]", "::1"}, {"fe80::1:2", "fe80::1:2"}, {"[::ffff:1.2.3.4]", "::ffff:1.2.3.4"},
      {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
  };
  for (const auto &t : texts) {
    IPAddr address;
    ASSERT_EQ(IPAddrSetIP(&address, t[0]), 1) << t[0];
    EXPECT_EQ(address.family, KZ_FAMILY_IPV6);
    unsigned char expected[16];
    ASSERT_EQ(inet_pton(AF_INET6, t[1], expected), 1);
    EXPECT_EQ(memcmp(address.address, expected, 16), 0) << t[0];  // network order
  }
  for (const char *text : {"[::1", "::1]", "[]", "[", "[[::1]]", "g::1", "1:2:3:4:5:6:7:8:9", ":::",
                           "[::1]:80", "[0000000000000000000000000000000000000000000000000000000000000000::1]"}) {
    IPAddr address;
    EXPECT_EQ(IPAddrSetIP(&address, text), 0) << text;
    EXPECT_EQ(address.family, KZ_FAMILY_UNSET) << text;
  }
}

}  // namespace
