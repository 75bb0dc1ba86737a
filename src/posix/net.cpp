// Network calls on POSIX: the BSD socket interface.
#include <arpa/inet.h>

#include "internal/os/net.h"

namespace kz::os {

bool ParseIPv6(const char *text, unsigned char address[16]) {
  return inet_pton(AF_INET6, text, address) == 1;
}

}  // namespace kz::os
