// Loopback peers for the network tests, written with plain sockets: a
// listener on an ephemeral port, connected socket pairs, a local-connection
// listener at the library's path, and whole-buffer reads and writes.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "kz/addr.h"
#include "kz/error.h"

namespace kztest {

// A descriptor closed at the end of the scope.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(other.release()) {}
  Fd &operator=(Fd &&other) noexcept { return reset(other.release()), *this; }
  ~Fd() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// A listening socket; Accept() waits at most 10 s and gives an invalid Fd on failure.
class Listening {
 public:
  int fd() const { return fd_.get(); }
  Fd Accept() const {
    pollfd entry{fd_.get(), POLLIN, 0};
    return Fd(poll(&entry, 1, 10000) == 1 ? accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 protected:
  Fd fd_;
};

// A TCP listener on the loopback address of family 1 or 2, port chosen by the
// system.
class Listener : public Listening {
 public:
  explicit Listener(uint32_t family = KZ_FAMILY_IPV4) : family_(family) {
    const bool v6 = family == KZ_FAMILY_IPV6;
    fd_.reset(socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in in{};
    sockaddr_in6 in6{};
    in.sin_family = AF_INET, in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    in6.sin6_family = AF_INET6, in6.sin6_addr = in6addr_loopback;
    sockaddr *address = v6 ? reinterpret_cast<sockaddr *>(&in6) : reinterpret_cast<sockaddr *>(&in);
    socklen_t size = v6 ? sizeof in6 : sizeof in;
    if (bind(fd_.get(), address, size) == 0 && listen(fd_.get(), 16) == 0 &&
        getsockname(fd_.get(), address, &size) == 0)
      port_ = ntohs(v6 ? in6.sin6_port : in.sin_port);
  }
  uint16_t port() const { return port_; }
  // The library's address of the listener.
  TCPAddr Address() const {
    TCPAddr address;
    TCPAddrLocal(&address, family_, port_);
    return address;
  }

 private:
  uint32_t family_;
  uint16_t port_ = 0;
};

// A listener at the local-connection path "/tmp/kz.<base>.<name>.<port>",
// removed at the end of the scope. Mode 0600 like the library's own servers.
class LocalListener : public Listening {
 public:
  LocalListener(const std::string &base, const std::string &name, uint16_t port, int backlog = 16)
      : path_("/tmp/kz." + base + "." + name + "." + std::to_string(port)) {
    unlink(path_.c_str());
    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    ok_ = bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
          chmod(path_.c_str(), 0600) == 0 && listen(fd_.get(), backlog) == 0;
  }
  ~LocalListener() { unlink(path_.c_str()); }
  bool ok() const { return ok_; }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
  bool ok_ = false;
};

// A connected TCP pair over loopback: first the client side, then the server.
inline std::pair<Fd, Fd> TcpPair(uint32_t family = KZ_FAMILY_IPV4) {
  Listener listener(family);
  Fd client(socket(family == KZ_FAMILY_IPV6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(listener.fd(), reinterpret_cast<sockaddr *>(&address), &size);
  if (connect(client.get(), reinterpret_cast<sockaddr *>(&address), size) != 0) return {};
  return {std::move(client), listener.Accept()};
}

// The library's last error as "<code> <message>", to compare as one value.
inline std::string LastError() { return std::to_string(KZErrorCode()) + " " + KZErrorMessage(); }
inline std::string Error(uint64_t code, const std::string &message) { return std::to_string(code) + " " + message; }

inline bool WriteAll(int fd, const void *data, size_t size) {
  for (const char *p = static_cast<const char *>(data); size > 0;) {
    ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n, size -= static_cast<size_t>(n);
  }
  return true;
}

inline bool WriteAll(int fd, const std::string &text) { return WriteAll(fd, text.data(), text.size()); }

// Reads up to size bytes, fewer at end of input or on an error.
inline std::string ReadExactly(int fd, size_t size) {
  std::string text;
  char chunk[65536];
  while (text.size() < size) {
    ssize_t n = read(fd, chunk, std::min(size - text.size(), sizeof chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }
  return text;
}

inline std::string ReadToEnd(int fd) { return ReadExactly(fd, SIZE_MAX); }

// Runs a shell script (set -e) in dir that makes keys and certificates for
// the TLS tests with the openssl command; false when the command is missing
// or the script failed.
inline bool MakeWithOpenssl(const std::string &dir, const std::string &script) {
  if (dir.empty() || std::system("command -v openssl >/dev/null 2>&1") != 0) return false;
  std::ofstream(dir + "/make.sh") << "set -e\n" << script;
  return std::system(("cd '" + dir + "' && sh make.sh >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace kztest
