// Operating-system side of the network families (src/posix/net.cpp).
#pragma once

namespace kz::os {

// The system's IPv6 literal parser (no brackets); false when not an address.
bool ParseIPv6(const char *text, unsigned char address[16]);

}  // namespace kz::os
