// Channel internals shared by the network families (channels, select, TCP
// server and UDP, SSL): the networking settings, socket creation, endpoint
// reset, local-connection names, the SSL seam and error locations.
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/os/net.h"
#include "kz/channel.h"

namespace kz::net {

// Source location of the network families in error records and assertions.
inline constexpr const char *kSource = "kzlib/kztcp";

// Record sizes: the channel record, and what an SSL session adds to it.
inline constexpr uint32_t kChannelSize = 23536;
inline constexpr uint32_t kSslSessionSize = 65536;
inline constexpr int kBufferSize = KZ_CHANNEL_BUFFER_SIZE;

// ---- settings (under the networking lock, except the size read per call) ----

uint32_t DefaultFamily();
uint32_t MaxIOSize();  // read without the lock
// Copies the local-connection base name into base (size bytes).
void LocalBaseName(char *base, size_t size);
// "/tmp/kz.<base>.<name>.<port>", the name formatted under the networking lock.
void LocalConnectionPath(const TCPAddr &address, char *path, size_t size);

// ---- addresses ---------------------------------------------------------------

// The socket address of a TCP address (family 1 or 2, never replaced by the
// default family). Family 0 raises "uninitialized address family", others
// "invalid address family"; false then.
bool ToSockAddr(const TCPAddr &address, os::SockAddr *out);

// ---- sockets ---------------------------------------------------------------

// Socket types of ChannelSocket.
inline constexpr int kStream = 1;
inline constexpr int kDatagram = 2;
// A close-on-exec socket of the library family (0: the default family). On
// failure raises "socket(%d, %d, %d)" over the system error (the system's
// family and type constants, protocol 0) and returns KZ_INVALID_HANDLE.
int64_t ChannelSocket(uint32_t family, int type);
// A datagram socket for a family code; other codes raise "invalid IP family".
int64_t ChannelNewFDUdp(const TCPAddr &address);

// ---- channel state -----------------------------------------------------------

// Disconnects, then resets the endpoint flags and both buffers (what every
// attach function does before setting its own kind).
void ResetEndpoint(Channel *channel);
// Whether the channel has an endpoint (ChannelSend / ChannelReceive's test).
inline bool HasEndpoint(const Channel *channel) {
  return channel->handle != KZ_INVALID_HANDLE || (channel->isVirtual && channel->virtualOps);
}
// Scrambles (or unscrambles: the same operation) bytes with a key state.
void Scramble(uint64_t *state, unsigned char *bytes, size_t size);

// ---- the SSL seam ------------------------------------------------------------
// The SSL family installs these; until it does (or in a library built without
// SSL) no channel has an SSL session (channel->ssl stays null) and an SSL
// request of ChannelConnect or TCPServerAccept fails with "SSL is not
// available".
struct SslOps {
  // One SSL_write of at most size bytes: > 0 bytes taken, 0 failed (error raised).
  int64_t (*write)(Channel *channel, const void *data, size_t size);
  // One SSL_read: > 0 bytes, or a negative receive code; the SSL family has
  // raised the cause, ChannelReceive adds the input error for the code (end
  // of input, -1, raises nothing). Registering the thread and clearing the
  // OpenSSL error queue belong to write and read as well.
  int64_t (*read)(Channel *channel, void *buffer, size_t size);
  // ChannelStartSSL as client (1) or server (0); 1 on success.
  int (*start)(Channel *channel, int client);
  // The SSL shutdown exchange; 1 on success.
  int (*shutdown)(Channel *channel);
  // Frees channel->ssl (no exchange) and sets it null.
  void (*freeSession)(Channel *channel);
  // Frees a context stored in channel->sslContext.
  void (*freeContext)(void *context);
};
void SetSslOps(const SslOps *ops);
const SslOps *GetSslOps();

}  // namespace kz::net
