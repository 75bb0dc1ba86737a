// Network calls on Windows: Winsock 2.
#include <winsock2.h>
#include <ws2tcpip.h>

#include "internal/os/net.h"

namespace kz::os {

// inet_pton parses without Winsock start-up (WSAStartup).
bool ParseIPv6(const char *text, unsigned char address[16]) { return inet_pton(AF_INET6, text, address) == 1; }

}  // namespace kz::os
