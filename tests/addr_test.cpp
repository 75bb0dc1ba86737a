// Network addresses: literal parsing.
#include <gtest/gtest.h>
#if defined(_WIN32)
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

#include <cstring>

#include "kz/addr.h"
#include "kz/error.h"

namespace {

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
  for (const char *text : {"::1", "[::1]", "[::ffff:1.2.3.4]"}) {
    IPAddr address;
    unsigned char expected[16];
    ASSERT_EQ(IPAddrSetIP(&address, text), 1) << text;
    std::string bare(text + (text[0] == '['), strlen(text) - 2 * (text[0] == '['));
    ASSERT_EQ(inet_pton(AF_INET6, bare.c_str(), expected), 1);
    EXPECT_EQ(address.family, KZ_FAMILY_IPV6);
    EXPECT_EQ(memcmp(address.address, expected, 16), 0) << text;  // network order
  }
  KZErrorClear();
  for (const char *text : {"1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.4 ", "1.2.3.4.", "+1.2.3.4",
                           "1.2.3.99999999999", "", "[1.2.3.4]", "[::1", "[]", "[[::1]]", "g::1", "[::1]:80"}) {
    IPAddr address;
    EXPECT_EQ(IPAddrSetIP(&address, text), 0) << text;
    EXPECT_EQ(address.family, KZ_FAMILY_UNSET) << text;
  }
  EXPECT_EQ(KZErrorCode(), 0u);  // parsers record nothing
}

}  // namespace
