// Waits on many socket channels (readiness of at most 64 distinct sockets),
// the select context placeholder and the select event: a loopback datagram
// socket that another thread writes to in order to wake a waiter.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/os/error.h"
#include "internal/os/net.h"
#include "kz/error.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/select.h"
#include "kz/server.h"
#include "net/channel_internal.h"

using kz::net::kSource;

#define NET_THROW(function, code, ...) KZ_THROW_AT(kSource, 0, function, code, __VA_ARGS__)

namespace {

// The distinct sockets of one wait, at most 64, in order of first appearance.
struct SocketSet {
  int64_t handles[KZ_SELECT_MAX_SOCKETS];
  unsigned char ready[KZ_SELECT_MAX_SOCKETS];
  uint32_t count = 0;

  // The position of handle in the set, adding it when there is room; -1 when
  // it was left out.
  int Add(int64_t handle) {
    int found = Find(handle);
    if (found >= 0 || count == KZ_SELECT_MAX_SOCKETS) return found;
    handles[count] = handle;
    return static_cast<int>(count++);
  }
  int Find(int64_t handle) const {
    for (uint32_t i = 0; i < count; ++i)
      if (handles[i] == handle) return static_cast<int>(i);
    return -1;
  }
};

// Waits on the set; 0 when something is ready, -1 after a failure (errno -1)
// or a time-out ("timeout" raised).
int WaitSet(SocketSet &set, const char *function, int32_t timeoutMs) {
  std::memset(set.ready, 0, sizeof set.ready);
  int result = kz::os::WaitMany(set.handles, set.count, set.ready, timeoutMs < 0 ? -1 : timeoutMs);
  if (result > 0) return 0;
  if (result == 0) NET_THROW(function, KZ_ERR_TIMEOUT, "timeout");
  return -1;
}

}  // namespace

KZ_API ChannelSelectContext *ChannelSelectContextNew(void) { return nullptr; }

KZ_API void ChannelSelectContextFree(ChannelSelectContext *context) {}

KZ_API int ChannelSelect(Channel **channels, uint32_t count, int32_t timeoutMs) {
  for (uint32_t i = 0; i < count; ++i) {
    if (channels[i] && channels[i]->ssl) {
      NET_THROW("ChannelSelect", EINVAL, "Illegal ChannelSelect on a SSL channel");
      return -1;
    }
  }
  // Buffered input is ready input: the socket itself may have nothing more.
  for (uint32_t i = 0; i < count; ++i)
    if (channels[i] && channels[i]->readPos != channels[i]->readFill) return static_cast<int>(i);
  SocketSet set;
  bool any = false;
  for (uint32_t i = 0; i < count; ++i) {
    if (!channels[i]) continue;
    any = true;
    set.Add(channels[i]->handle);
  }
  if (!any) {
    NET_THROW("ChannelSelect", KZ_ERR_GENERAL, "ChannelSelect: empty channel array");
    return -1;
  }
  if (WaitSet(set, "ChannelSelect", timeoutMs) < 0) return -1;
  for (uint32_t i = 0; i < count; ++i) {
    if (!channels[i]) continue;
    int position = set.Find(channels[i]->handle);
    if (position >= 0 && set.ready[position]) return static_cast<int>(i);
  }
  kzassert_("FALSE", kSource, 0);
  return -1;
}

KZ_API int ChannelSelectFD(ChannelSelectContext *context, const int64_t *sockets, uint32_t count, UByteArray *flags,
                           int32_t timeoutMs) {
  if (count == 0) {
    NET_THROW("ChannelSelectFD", EINVAL, "ChannelSelect: empty channel array");
    return -1;
  }
  kz::View(*flags, kSource, 0).Reserve(count, 0x7FFFFFFF);
  flags->count = count;
  std::memset(flags->elements, 0, count);
  SocketSet set;
  for (uint32_t i = 0; i < count; ++i) set.Add(sockets[i]);
  if (WaitSet(set, "ChannelSelectFD", timeoutMs) < 0) return -1;
  for (uint32_t i = 0; i < count; ++i) {
    int position = set.Find(sockets[i]);
    if (position >= 0 && set.ready[position]) flags->elements[i] = 1;
  }
  return 0;
}

KZ_API int ChannelSelectEx(ChannelSelectContext *context, Channel **channels, uint32_t count, UByteArray *flags,
                           int32_t timeoutMs) {
  kz::View(*flags, kSource, 0).Reserve(count ? count : 1, 0x7FFFFFFF);
  flags->count = count;
  if (count) std::memset(flags->elements, 0, count);
  struct HandleArray {
    int64_t *elements;
    uint32_t count;
    uint32_t capacity;
  } handles{};
  auto view = kz::View(handles, kSource, 0);
  for (uint32_t i = 0; i < count; ++i) {
    Channel *channel = channels[i];
    if (!channel || channel->handle == KZ_INVALID_HANDLE) continue;
    if (channel->ssl) {
      view.Free();
      NET_THROW("ChannelSelectEx", KZ_ERR_GENERAL, "null or invalid selected channel");
      return -1;
    }
    view.Append(channel->handle);
  }
  int result;
  if (handles.count == count) {
    result = ChannelSelectFD(context, handles.elements, handles.count, flags, timeoutMs);
  } else {
    UByteArray collected{};
    result = ChannelSelectFD(context, handles.elements, handles.count, &collected, timeoutMs);
    if (result == 0) {
      uint32_t next = 0;
      for (uint32_t i = 0; i < count; ++i) {
        Channel *channel = channels[i];
        bool had = channel && channel->handle != KZ_INVALID_HANDLE;
        flags->elements[i] = had ? collected.elements[next++] : 0;
      }
    }
    ArrayFree_(&collected);
  }
  view.Free();
  return result;
}

// ---- select events -----------------------------------------------------------------

KZ_API ChannelSelectEvent *ChannelSelectEventNew(ChannelSelectEvent *event) {
  TCPAddr loopback;
  uint32_t family = kz::net::DefaultFamily();
  if (family != KZ_FAMILY_IPV4 && family != KZ_FAMILY_IPV6) kzassert_("FALSE", kSource, 0);
  TCPAddrLocal(&loopback, family, 0);
  event->socket = UDPNew(&loopback);
  event->unused = KZ_INVALID_HANDLE;
  return event;
}

KZ_API int64_t ChannelSelectEventGetFD(const ChannelSelectEvent *event) { return event->socket; }

KZ_API int ChannelSelectEventNotify(ChannelSelectEvent *event) {
  TCPAddr target;
  if (!UDPGetAddr(event->socket, &target, 0)) return 0;
  int64_t sender = kz::net::ChannelNewFDUdp(target);
  if (sender == KZ_INVALID_HANDLE) return 0;
  static const unsigned char kZero[1] = {0};
  int sent = UDPSendBufToEx(sender, &target, -1, kZero, 1);
  {
    kz::ErrorStateKept kept;
    kz::os::Close(sender);
  }
  return sent;
}

KZ_API int ChannelSelectEventNotifyReset(ChannelSelectEvent *event) {
  unsigned char drain[32];
  while (SocketWait(event->socket, 0, 0)) {
    if (kz::os::Receive(event->socket, drain, sizeof drain, false) < 0) return 0;
  }
  return 1;
}

KZ_API int ChannelSelectEventFree(ChannelSelectEvent *event) {
  if (event->socket == KZ_INVALID_HANDLE) {
    NET_THROW("ChannelSelectEventFree", KZ_ERR_GENERAL, "invalid select event");
    return 0;
  }
  bool closed = kz::os::Close(event->socket);  // keeps the system error when it fails
  event->socket = KZ_INVALID_HANDLE;           // a second free is misuse, not a stray close
  return closed ? 1 : 0;
}
