// SSL channels against the same work written on OpenSSL directly, each pair
// measured in alternation by kzbench::Versus on the calling thread's CPU
// clock (counter time_vs_kz: OpenSSL's time over the channel's, above 1 means
// the channel was faster):
//   BM_SslBulkWrite  16 MiB per batch in 64 KiB pieces: ChannelWriteBuf (then
//       a flush) against an SSL_write loop on the same session and socket, a
//       peer thread reading with SSL_read;
//   BM_SslBulkRead   16 MiB per batch: ChannelReadBuf against an SSL_read loop
//       on the same session, a peer thread writing with SSL_write;
//   BM_SslHandshake  32 connections per batch, each a full TLS 1.3 handshake
//       and the close notification: ChannelConnect with SSL requested and
//       ChannelClose against socket / connect / SSL_connect / SSL_shutdown /
//       close; one OpenSSL server thread answers both.
// The peer is the same OpenSSL code for both sides of every pair.

#include <benchmark/benchmark.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "../tests/net_support.h"
#include "bench_support.h"
#include "kz/channel.h"
#include "kz/ssl.h"

namespace {

using kzbench::Expect;
using kzbench::Versus;
using kztest::Fd;

constexpr size_t kBatch = 16u << 20;
constexpr size_t kPiece = 64u << 10;
constexpr int kHandshakes = 32;

// A server context with a fresh P-256 key and a self-signed certificate.
SSL_CTX *ServerContext() {
  static SSL_CTX *context = [] {
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_NAME *name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("localhost"), -1, -1,
                               0);
    X509_set_issuer_name(certificate, name);
    X509_set_pubkey(certificate, key);
    X509_sign(certificate, key, EVP_sha256());
    SSL_CTX *made = SSL_CTX_new(TLS_server_method());
    Expect(made && SSL_CTX_use_certificate(made, certificate) == 1 && SSL_CTX_use_PrivateKey(made, key) == 1,
           "server context");
    SSL_CTX_set_options(made, SSL_OP_ALL | SSL_OP_IGNORE_UNEXPECTED_EOF);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return made;
  }();
  return context;
}

// The client context of the OpenSSL loops: what the library's shared context
// is (the general method, SSL_OP_ALL, partial writes, no verification).
SSL_CTX *ClientContext() {
  static SSL_CTX *context = [] {
    SSL_CTX *made = SSL_CTX_new(TLS_method());
    SSL_CTX_set_options(made, SSL_OP_ALL | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(made, SSL_MODE_ENABLE_PARTIAL_WRITE);
    return made;
  }();
  return context;
}

// The OpenSSL side of one accepted connection.
SSL *Accept(int fd) {
  SSL *ssl = SSL_new(ServerContext());
  SSL_set_fd(ssl, fd);
  if (SSL_accept(ssl) != 1) {
    SSL_free(ssl);
    return nullptr;
  }
  return ssl;
}

// A library client channel with an SSL session to an OpenSSL peer; the peer
// runs work(ssl) in its thread.
class Session {
 public:
  template <typename Work>
  explicit Session(Work work) {
    Expect(SSLInit() == 1, "SSLInit");
    signal(SIGPIPE, SIG_IGN);  // the OpenSSL peer's socket BIO sends without MSG_NOSIGNAL
    TCPAddr address = listener_.Address();
    channel_ = ChannelNew(-1, -1);
    Expect(ChannelSetSSL(channel_, 1) == 1, "ChannelSetSSL");
    peer_ = std::thread([this, work] {
      Fd socket = listener_.Accept();
      SSL *ssl = Accept(socket.get());
      Expect(ssl != nullptr, "SSL_accept");
      work(ssl, &stop_);
      SSL_free(ssl);
    });
    Expect(ChannelConnect(channel_, &address) == 1, "ChannelConnect with SSL");
  }
  ~Session() {
    stop_ = true;
    shutdown(static_cast<int>(channel_->handle), SHUT_RDWR);
    peer_.join();
    ChannelDisconnect(channel_);
    ChannelClose(channel_);
  }
  Channel *channel() const { return channel_; }
  SSL *ssl() const { return static_cast<SSL *>(channel_->ssl); }

 private:
  kztest::Listener listener_;
  Channel *channel_ = nullptr;
  std::atomic<bool> stop_{false};
  std::thread peer_;
};

void Drain(SSL *ssl, std::atomic<bool> *) {
  std::vector<char> buffer(1 << 16);
  while (SSL_read(ssl, buffer.data(), static_cast<int>(buffer.size())) > 0) {}
}

void Feed(SSL *ssl, std::atomic<bool> *stop) {
  std::vector<char> buffer(1 << 16, 'f');
  while (!*stop && SSL_write(ssl, buffer.data(), static_cast<int>(buffer.size())) > 0) {}
}

void BM_SslBulkWrite(benchmark::State &state) {
  std::vector<char> data(kPiece, 'd');
  Session session(Drain);
  Versus(
      state,
      [&] {
        for (size_t done = 0; done < kBatch; done += kPiece)
          Expect(ChannelWriteBuf(session.channel(), data.data(), kPiece) == 1, "channel write");
        Expect(ChannelFlush(session.channel()) == 1, "flush");
      },
      [&] {
        for (size_t done = 0; done < kBatch;) {
          int n = SSL_write(session.ssl(), data.data(), static_cast<int>(kPiece));
          Expect(n > 0, "SSL_write");
          done += static_cast<size_t>(n);
        }
      });
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBatch));
}
BENCHMARK(BM_SslBulkWrite)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_SslBulkRead(benchmark::State &state) {
  std::vector<char> data(kPiece);
  Session session(Feed);
  Versus(
      state,
      [&] {
        size_t count;
        for (size_t done = 0; done < kBatch; done += kPiece)
          Expect(ChannelReadBuf(session.channel(), data.data(), kPiece, &count) == 0, "channel read");
      },
      [&] {
        for (size_t done = 0; done < kBatch;) {
          int n = SSL_read(session.ssl(), data.data(), static_cast<int>(kPiece));
          Expect(n > 0, "SSL_read");
          done += static_cast<size_t>(n);
        }
      });
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBatch));
}
BENCHMARK(BM_SslBulkRead)->UseManualTime()->Unit(benchmark::kMillisecond);

// Accepts connections until stopped: the handshake, then reading until the
// client's close notification or end of input.
class HandshakeServer {
 public:
  HandshakeServer()
      : thread_([this] {
          while (!stop_) {
            Fd client = listener_.Accept();
            if (stop_ || client.get() < 0) continue;
            SSL *ssl = Accept(client.get());
            if (!ssl) continue;
            char byte;
            while (SSL_read(ssl, &byte, 1) > 0) {}
            SSL_free(ssl);
          }
        }) {}
  ~HandshakeServer() {
    stop_ = true;
    Fd wake(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    TCPAddr address = listener_.Address();
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(address.port);
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(wake.get(), reinterpret_cast<sockaddr *>(&in), sizeof in);
    thread_.join();
  }
  TCPAddr Address() const { return listener_.Address(); }

 private:
  kztest::Listener listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

void BM_SslHandshake(benchmark::State &state) {
  Expect(SSLInit() == 1, "SSLInit");
  HandshakeServer server;
  TCPAddr address = server.Address();
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(address.port);
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Channel *channel = ChannelNew(-1, -1);
  Expect(ChannelSetSSL(channel, 1) == 1, "ChannelSetSSL");
  Versus(
      state,
      [&] {
        for (int i = 0; i < kHandshakes; ++i) {
          Channel *c = ChannelNew(-1, -1);
          Expect(ChannelSetSSL(c, 1) == 1 && ChannelConnect(c, &address) == 1, "ChannelConnect with SSL");
          Expect(ChannelClose(c) == 1, "ChannelClose");
        }
      },
      [&] {
        for (int i = 0; i < kHandshakes; ++i) {
          int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
          Expect(connect(fd, reinterpret_cast<sockaddr *>(&in), sizeof in) == 0, "connect");
          int on = 1;
          setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // as the channel does
          setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
          SSL *ssl = SSL_new(ClientContext());
          SSL_set_fd(ssl, fd);
          Expect(SSL_connect(ssl) == 1, "SSL_connect");
          SSL_shutdown(ssl);
          SSL_free(ssl);
          close(fd);
        }
      });
  ChannelClose(channel);
  state.counters["handshakes_per_s"] =
      benchmark::Counter(double(state.iterations()) * kHandshakes, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SslHandshake)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
