// SSL sessions on channels: the library-wide OpenSSL set-up, the handshake,
// the shutdown exchange, leaving and renegotiating, the session queries, the
// transfers behind ChannelSend / ChannelReceive, and certificate loading and
// verification. The only library source that includes OpenSSL's SSL headers.
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/net.h"
#include "internal/startup.h"
#include "kz/channel.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/init.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/random.h"
#include "kz/ssl.h"
#include "kz/thread.h"
#include "net/channel_internal.h"

namespace {

// Source location of this family in error records and assertions.
constexpr const char *kSource = "kzlib/ssl";

#define SSL_FAIL(function, ...) KZ_THROW_AT(kSource, 0, function, KZ_ERR_SSL, __VA_ARGS__)
#define SSL_RETHROW(function, ...) \
  (KZSetMessageContext2_(kSource, 0, "kzlib", (function), 4, 0), KZErrorRethrow_(__VA_ARGS__))

constexpr int kHandshakeAttempts = 8;

// ---- OpenSSL's memory through the checked allocator -----------------------------

void *SslMalloc(size_t size, const char *file, int line) {
  return Allocate_(size, nullptr, file ? file : kSource, static_cast<uint32_t>(line));
}
void *SslRealloc(void *block, size_t size, const char *file, int line) {
  if (size == 0) {  // OpenSSL's contract: a zero size frees and answers null
    std::free(block);
    return nullptr;
  }
  return Allocate_(size, block, file ? file : kSource, static_cast<uint32_t>(line));
}
void SslFree(void *block, const char *, int) { std::free(block); }

bool OurAllocatorInstalled() {
  CRYPTO_malloc_fn m = nullptr;
  CRYPTO_realloc_fn r = nullptr;
  CRYPTO_free_fn f = nullptr;
  CRYPTO_get_mem_functions(&m, &r, &f);
  return m == SslMalloc && r == SslRealloc && f == SslFree;
}

// OpenSSL accepts allocation functions only before its first allocation, so
// they are offered as soon as the library is loaded, long before KZLibInit;
// SSLInit then checks that they are in place (a program that used OpenSSL
// before loading the library keeps OpenSSL's own, and SSL start-up fails).
const bool g_allocatorOffered = CRYPTO_set_mem_functions(SslMalloc, SslRealloc, SslFree) != 0;

// ---- library-wide state ------------------------------------------------------------

std::atomic<SSL_CTX *> g_context{nullptr};
int32_t g_initState = 0;  // ThreadOnce's state
KZThreadVar g_threadVariable = 0;
std::atomic<bool> g_threadVariableMade{false};

// The certificate the shared context's clients present, kept apart from the
// context's own (server) certificate.
struct Identity {
  X509 *certificate = nullptr;
  STACK_OF(X509) *chain = nullptr;
  EVP_PKEY *key = nullptr;
};
kz::LazyLock g_identityLock;
Identity g_clientIdentity;

void FreeIdentity(Identity *identity) {
  X509_free(identity->certificate);
  sk_X509_pop_free(identity->chain, X509_free);
  EVP_PKEY_free(identity->key);
  *identity = Identity{};
}

// The thread variable's destructor: releases the ending thread's OpenSSL state
// (its error queue among it).
void ReleaseThreadState(void *) { OPENSSL_thread_stop(); }

void MarkThread() {
  if (!g_threadVariableMade.load(std::memory_order_acquire)) return;
  if (!ThreadVarGet(g_threadVariable)) {
    kz::ErrorStateKept kept;
    ThreadVarSet(g_threadVariable, reinterpret_cast<void *>(1));
  }
}

// ---- the socket BIO -------------------------------------------------------------
// A socket BIO whose writes use the library's send, which passes MSG_NOSIGNAL:
// a peer that went away is an error result, never a SIGPIPE, whatever the
// process does with the signal.

int64_t BioHandle(BIO *bio) { return static_cast<int64_t>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int BioWrite(BIO *bio, const char *data, int size) {
  BIO_clear_retry_flags(bio);
  int64_t n = kz::os::Send(BioHandle(bio), data, static_cast<size_t>(size));
  if (n < 0 && kz::os::Classify(KZGetLastError()) == kz::os::ErrorClass::kWouldBlock) BIO_set_retry_write(bio);
  return static_cast<int>(n);
}

int BioRead(BIO *bio, char *buffer, int size) {
  BIO_clear_retry_flags(bio);
  int64_t n = kz::os::Receive(BioHandle(bio), buffer, static_cast<size_t>(size), true);
  if (n < 0 && kz::os::Classify(KZGetLastError()) == kz::os::ErrorClass::kWouldBlock) BIO_set_retry_read(bio);
  if (n == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return static_cast<int>(n);
}

int BioPuts(BIO *bio, const char *text) { return BioWrite(bio, text, static_cast<int>(std::strlen(text))); }

long BioControl(BIO *bio, int command, long, void *pointer) {
  switch (command) {
    case BIO_C_GET_FD:
      if (pointer) *static_cast<int *>(pointer) = static_cast<int>(BioHandle(bio));
      return static_cast<long>(BioHandle(bio));
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP: return 1;
    default: return 0;
  }
}

int BioCreate(BIO *bio) {
  BIO_set_data(bio, reinterpret_cast<void *>(intptr_t{-1}));
  return 1;
}

BIO_METHOD *g_bioMethod = nullptr;  // made by SSLInit

BIO_METHOD *MakeBioMethod() {
  BIO_METHOD *method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "kzlib socket");
  if (!method) return nullptr;
  BIO_meth_set_write(method, BioWrite);
  BIO_meth_set_read(method, BioRead);
  BIO_meth_set_puts(method, BioPuts);
  BIO_meth_set_ctrl(method, BioControl);
  BIO_meth_set_create(method, BioCreate);
  return method;
}

// ---- contexts -------------------------------------------------------------------

// Options every context of the library gets. An end of input without the
// peer's close notification reads as end of input, as the library has always
// reported it, not as an error.
SSL_CTX *NewContext() {
  SSL_CTX *context = SSL_CTX_new(TLS_method());
  if (!context) return nullptr;
  SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE);
  return context;
}

SSL_CTX *SharedContext() { return g_context.load(std::memory_order_acquire); }

SSL_CTX *ContextOf(const Channel *channel) {
  return channel->sslContext ? static_cast<SSL_CTX *>(channel->sslContext) : SharedContext();
}

SSL *SessionOf(const Channel *channel) { return static_cast<SSL *>(channel->ssl); }

void FreeSession(Channel *channel) {
  SSL *ssl = SessionOf(channel);
  channel->ssl = nullptr;
  SSL_free(ssl);
}

// The wait for one step of the handshake or the shutdown: the read time-out
// when it is set and shorter than the write time-out (an unset one being
// infinite), else the write time-out.
int32_t HandshakeWait(const Channel *channel) {
  int32_t read = channel->readTimeout, write = channel->writeTimeout;
  if (read >= 0 && (write < 0 || read < write)) return read;
  return write;
}

bool TimedOut() { return KZErrorCode() == KZ_ERR_TIMEOUT; }

// Whether a call that failed with SSL_ERROR_SYSCALL and nothing queued met
// the end of the connection. OpenSSL 1.0 answered such a call with 0, OpenSSL
// 3 answers -1: the socket BIO's end-of-input mark tells instead.
bool ClosedByPeer(SSL *ssl, int result) {
  return result == 0 || BIO_test_flags(SSL_get_rbio(ssl), BIO_FLAGS_IN_EOF) != 0;
}

// ---- SSLInit's steps ------------------------------------------------------------------

void InitOnce() {
  // 2. OpenSSL's memory through the library's allocator.
  if (!OurAllocatorInstalled() && !CRYPTO_set_mem_functions(SslMalloc, SslRealloc, SslFree)) {
    KZ_THROW_AT(kSource, 0, "SSLInit", KZ_ERR_INVALID, "error creating SSL memory manager");
    return;
  }
  // 3. Error strings and the SSL library.
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  // 4. OpenSSL 3 locks itself and knows its threads: no lock array, no
  //    thread-identity callback.
  // 5. The thread variable that releases a thread's OpenSSL state.
  g_threadVariable = ThreadVarCreate(ReleaseThreadState);
  g_threadVariableMade.store(true, std::memory_order_release);
  // 6. Seed when OpenSSL reports it is not seeded.
  if (RAND_status() != 1) SSLGenerateEntropy();
  g_bioMethod = MakeBioMethod();
  // 7., 8. The shared context.
  SSL_CTX *context = g_bioMethod ? NewContext() : nullptr;
  if (!context) {
    SSLErrorThrow();
    SSL_RETHROW("SSLInit", "error creating SSL context");
    return;
  }
  // 9. Strong ciphers only (TLS 1.2 and older; TLS 1.3's suites are all
  //    strong). SSLv2 no longer exists, its option is kept for the record.
  if (KZLibGetSSLHighEncryption()) {
    if (SSL_CTX_set_cipher_list(context, "DEFAULT:!LOW:!MEDIUM:@STRENGTH") != 1) {
      SSLErrorThrow();
      KZ_MESSAGE_AT(kSource, 0, "SSLInit", 3, 1, "error setting SSL ciphers");
    }
    SSL_CTX_set_options(context, SSL_OP_NO_SSLv2);
  }
  g_context.store(context, std::memory_order_release);
}

bool SslStartup() { return SSLInit() != 0; }
const bool g_sslRegistered = kz::startup::Register(kz::startup::Step::kSsl, SslStartup);

// ---- the handshake ------------------------------------------------------------------

// One failed handshake step: raises its error. Returns true when the step
// only has to wait and the wait succeeded (try again).
bool HandshakeStepFailed(Channel *channel, SSL *ssl, int result, bool client) {
  int error = SSL_get_error(ssl, result);
  switch (error) {
    case SSL_ERROR_SSL: SSLErrorThrow(); return false;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      if (SocketWait(channel->handle, error == SSL_ERROR_WANT_WRITE, HandshakeWait(channel))) return true;
      if (TimedOut()) SSL_FAIL("ChannelStartSSL", "SSL handshake failed: timeout");
      return false;
    case SSL_ERROR_SYSCALL:
      if (ERR_peek_error() != 0)
        SSLErrorThrow();
      else if (ClosedByPeer(ssl, result))
        SSL_FAIL("ChannelStartSSL", "SSL handshake failed: connection closed");
      else
        errno = -1;
      return false;
    default:
      SSL_FAIL("ChannelStartSSL", "%s() failed, error=%d", client ? "SSL_connect" : "SSL_accept", error);
      return false;
  }
}

// Gives a client session of the shared context the client certificate, or
// none: the context's own certificate is the servers'.
bool UseClientIdentity(SSL *ssl) {
  kz::LazyLockGuard hold(g_identityLock);
  if (!g_clientIdentity.certificate) {
    SSL_certs_clear(ssl);
    return true;
  }
  return SSL_use_cert_and_key(ssl, g_clientIdentity.certificate, g_clientIdentity.key, g_clientIdentity.chain, 1) == 1;
}

// ---- transfers (the channel family's seam) ----------------------------------------------

int64_t SeamWrite(Channel *channel, const void *data, size_t size) {
  MarkThread();
  ERR_clear_error();
  SSL *ssl = SessionOf(channel);
  for (;;) {
    int n = SSL_write(ssl, data, static_cast<int>(size));
    if (n > 0) return n;
    int error = SSL_get_error(ssl, n);
    switch (error) {
      case SSL_ERROR_SSL: SSLErrorThrow(); return 0;
      case SSL_ERROR_WANT_READ:
      case SSL_ERROR_WANT_WRITE:
        if (!SocketWait(channel->handle, error == SSL_ERROR_WANT_WRITE, channel->writeTimeout)) return 0;
        continue;
      case SSL_ERROR_SYSCALL:
        if (ERR_peek_error() != 0)
          SSLErrorThrow();
        else if (ClosedByPeer(ssl, n))
          SSL_FAIL("ChannelSend", "SSL write failed: connection closed");
        else
          errno = -1;
        return 0;
      case SSL_ERROR_ZERO_RETURN: SSL_FAIL("ChannelSend", "SSL connection shutdown by peer"); return 0;
      default: SSL_FAIL("ChannelSend", "SSL_write() failed, error=%d", error); return 0;
    }
  }
}

int64_t SeamRead(Channel *channel, void *buffer, size_t size) {
  MarkThread();
  ERR_clear_error();
  SSL *ssl = SessionOf(channel);
  for (;;) {
    int n = SSL_read(ssl, buffer, static_cast<int>(size));
    if (n > 0) return n;
    int error = SSL_get_error(ssl, n);
    switch (error) {
      case SSL_ERROR_SSL: SSLErrorThrow(); return KZ_RECEIVE_ERROR;
      case SSL_ERROR_WANT_READ:
      case SSL_ERROR_WANT_WRITE:
        // Waits whether or not the caller allows waiting: a record may be
        // half here.
        if (SocketWait(channel->handle, error == SSL_ERROR_WANT_WRITE, channel->readTimeout)) continue;
        return TimedOut() ? KZ_RECEIVE_TIMEOUT : KZ_RECEIVE_ERROR;
      case SSL_ERROR_SYSCALL:
        if (ERR_peek_error() != 0) {
          SSLErrorThrow();
          return KZ_RECEIVE_ERROR;
        }
        if (ClosedByPeer(ssl, n)) {
          errno = 0;
          return KZ_RECEIVE_EOF;
        }
        errno = -1;
        return KZ_RECEIVE_ERROR;
      case SSL_ERROR_ZERO_RETURN: errno = 0; return KZ_RECEIVE_EOF;
      default: SSL_FAIL("ChannelReceive", "SSL_read() failed, error=%d", error); return KZ_RECEIVE_ERROR;
    }
  }
}

int SeamStart(Channel *channel, int client) { return ChannelStartSSL(channel, client); }

// ChannelClose's exchange: its outcome does not change what close reports.
int SeamShutdown(Channel *channel) {
  kz::ErrorStateKept kept;
  KZErrorSave();
  int state = 0;
  int result = ShutdownSSL(channel, &state);
  KZErrorRestore();
  return result;
}

void SeamFreeSession(Channel *channel) { FreeSession(channel); }
void SeamFreeContext(void *context) { SSL_CTX_free(static_cast<SSL_CTX *>(context)); }

const kz::net::SslOps g_ops = {SeamWrite, SeamRead, SeamStart, SeamShutdown, SeamFreeSession, SeamFreeContext};
const bool g_opsInstalled = (kz::net::SetSslOps(&g_ops), true);

// ---- certificates ---------------------------------------------------------------------

// Reads a whole file through a file channel. On failure raises the system
// error (or the read error) under what.
bool ReadWholeFile(const char *path, UByteArray *out, const char *function, const char *what) {
  Channel *channel = ChannelNew(-1, -1);
  bool ok = ChannelOpenFile(channel, path, "r") != 0;
  if (ok) {
    auto view = kz::View(*out, kSource, 0);
    for (;;) {
      view.Reserve(uint64_t(out->count) + 65536 + 1);
      size_t count = 0;
      int result = ChannelReceive(channel, out->elements + out->count, 65536, 0, &count, 1);
      out->count += static_cast<uint32_t>(count);
      if (result == KZ_RECEIVE_EOF) break;
      if (result != KZ_RECEIVE_OK) {
        ok = false;
        break;
      }
    }
  }
  if (!ok) {
    int saved = errno;
    KZErrorSave();
    ChannelClose(channel);
    KZErrorRestore();
    errno = saved;
    SSL_RETHROW(function, "can not read %s file %s", what, path);
    return false;
  }
  ChannelClose(channel);
  return true;
}

// A certificate chain parsed from PEM text: the first certificate, then the
// others in order.
bool ParseChain(const void *pem, size_t length, X509 **leaf, STACK_OF(X509) * *chain) {
  ERR_clear_error();
  BIO *bio = BIO_new_mem_buf(pem, static_cast<int>(length));
  *leaf = bio ? PEM_read_bio_X509_AUX(bio, nullptr, nullptr, nullptr) : nullptr;
  *chain = *leaf ? sk_X509_new_null() : nullptr;
  bool ok = *chain != nullptr;
  while (ok) {
    X509 *next = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    if (!next) {
      // The end of the text reads as "no start line": anything else is a
      // broken certificate.
      unsigned long error = ERR_peek_last_error();
      ok = ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
      if (ok) ERR_clear_error();
      break;
    }
    if (!sk_X509_push(*chain, next)) {
      X509_free(next);
      ok = false;
    }
  }
  BIO_free(bio);
  if (!ok) {
    X509_free(*leaf);
    sk_X509_pop_free(*chain, X509_free);
    *leaf = nullptr;
    *chain = nullptr;
  }
  return ok;
}

struct Passphrase {
  const char *text;
};

// Never prompts: without a passphrase an encrypted key does not load.
int PassphraseCallback(char *buffer, int size, int, void *argument) {
  const char *text = static_cast<Passphrase *>(argument)->text;
  if (!text) return -1;
  size_t length = std::strlen(text);
  if (length > static_cast<size_t>(size)) return -1;
  std::memcpy(buffer, text, length);
  return static_cast<int>(length);
}

EVP_PKEY *ParseKey(const void *pem, size_t length, const char *passphrase) {
  ERR_clear_error();
  BIO *bio = BIO_new_mem_buf(pem, static_cast<int>(length));
  Passphrase argument{passphrase};
  EVP_PKEY *key = bio ? PEM_read_bio_PrivateKey(bio, nullptr, PassphraseCallback, &argument) : nullptr;
  BIO_free(bio);
  return key;
}

// Parses and checks a certificate chain and its key from PEM text; the names
// are those used in error texts.
bool ParseIdentity(const void *certificatePem, size_t certificateLength, const void *keyPem, size_t keyLength,
                   const char *passphrase, const char *certificateName, const char *keyName, const char *function,
                   Identity *out) {
  if (!ParseChain(certificatePem, certificateLength, &out->certificate, &out->chain)) {
    SSLErrorThrow();
    SSL_RETHROW(function, "can not load certificate %s", certificateName);
    return false;
  }
  out->key = ParseKey(keyPem, keyLength, passphrase);
  if (!out->key) {
    SSLErrorThrow();
    SSL_RETHROW(function, "can not load private key %s", keyName);
    FreeIdentity(out);
    return false;
  }
  ERR_clear_error();
  if (X509_check_private_key(out->certificate, out->key) != 1) {
    ERR_clear_error();
    SSL_FAIL(function, "private key does not match certificate %s", certificateName);
    FreeIdentity(out);
    return false;
  }
  return true;
}

// Reads the two files and parses them.
bool LoadIdentityFiles(const char *certificateFile, const char *keyFile, const char *passphrase, const char *function,
                       Identity *out) {
  if (!certificateFile || !keyFile) {
    KZ_THROW_AT(kSource, 0, function, KZ_ERR_INVALID, "Null argument");
    return false;
  }
  UByteArray certificate{}, key{};
  bool ok = ReadWholeFile(certificateFile, &certificate, function, "certificate") &&
            ReadWholeFile(keyFile, &key, function, "key") &&
            ParseIdentity(certificate.elements, certificate.count, key.elements, key.count, passphrase, certificateFile,
                          keyFile, function, out);
  if (key.elements) OPENSSL_cleanse(key.elements, key.capacity);
  ArrayFree_(&certificate);
  ArrayFree_(&key);
  return ok;
}

// Installs an identity as a context's certificate, replacing the previous one.
bool InstallInContext(SSL_CTX *context, Identity *identity, const char *certificateName, const char *function) {
  ERR_clear_error();
  bool ok = SSL_CTX_use_cert_and_key(context, identity->certificate, identity->key, identity->chain, 1) == 1;
  if (!ok) {
    SSLErrorThrow();
    SSL_RETHROW(function, "can not load certificate %s", certificateName);
  }
  FreeIdentity(identity);
  return ok;
}

SSL_CTX *InitializedSharedContext(const char *function) {
  if (SSLInit()) return SharedContext();
  if (KZErrorCode() == 0) SSL_FAIL(function, "SSL library not initialized");
  return nullptr;
}

SSL_CTX *OwnContext(Channel *channel) {
  if (!ChannelEnsureSSLContext(channel)) return nullptr;
  return static_cast<SSL_CTX *>(channel->sslContext);
}

bool AddTrusted(SSL_CTX *context, const char *caFile, const char *caDirectory, const char *function) {
  if (!caFile && !caDirectory) {
    KZ_THROW_AT(kSource, 0, function, KZ_ERR_INVALID, "Null argument");
    return false;
  }
  X509_STORE *store = SSL_CTX_get_cert_store(context);
  if (caFile) {
    UByteArray text{};
    if (!ReadWholeFile(caFile, &text, function, "certificate")) {
      ArrayFree_(&text);
      return false;
    }
    X509 *first = nullptr;
    STACK_OF(X509) *others = nullptr;
    bool parsed = ParseChain(text.elements, text.count, &first, &others);
    ArrayFree_(&text);
    if (!parsed) {
      SSLErrorThrow();
      SSL_RETHROW(function, "can not load certificate %s", caFile);
      return false;
    }
    // Adding a certificate the store holds already is not an error.
    X509_STORE_add_cert(store, first);
    for (int i = 0; i < sk_X509_num(others); ++i) X509_STORE_add_cert(store, sk_X509_value(others, i));
    ERR_clear_error();
    X509_free(first);
    sk_X509_pop_free(others, X509_free);
  }
  if (caDirectory) {
    if (!FileIsDirectory(caDirectory)) {
      if (errno == 0) errno = ENOTDIR;
      SSL_RETHROW(function, "can not read certificate directory %s", caDirectory);
      return false;
    }
    ERR_clear_error();
    if (X509_STORE_load_path(store, caDirectory) != 1) {
      SSLErrorThrow();
      SSL_RETHROW(function, "can not read certificate directory %s", caDirectory);
      return false;
    }
  }
  return true;
}

}  // namespace

// ---- library-wide set-up -------------------------------------------------------------------

KZ_API int SSLInit(void) {
  ThreadOnce(&g_initState, InitOnce);
  return SharedContext() != nullptr;
}

KZ_API void SSLThreadInit(void) { MarkThread(); }

KZ_API void SSLErrorThrow(void) {
  const char *file = nullptr, *function = nullptr, *data = nullptr;
  int line = 0, flags = 0;
  unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags);
  char library[32], functionText[32], reason[32];
  const char *libraryName = ERR_lib_error_string(code);
  const char *reasonName = ERR_reason_error_string(code);
  if (!libraryName) {
    std::snprintf(library, sizeof library, "lib(%d)", ERR_GET_LIB(code));
    libraryName = library;
  }
  if (!function || !*function) {  // OpenSSL 3 names functions, not function codes
    std::snprintf(functionText, sizeof functionText, "func(%d)", 0);
    function = functionText;
  }
  if (!reasonName) {
    std::snprintf(reason, sizeof reason, "reason(%d)", ERR_GET_REASON(code));
    reasonName = reason;
  }
  SSL_FAIL("SSLErrorThrow", "SSL error %08lx:%s:%s:%s", code, libraryName, function, reasonName);
}

namespace {
void FeedOpenSsl(void *, const void *bytes, size_t length) {
  // Counted as one bit of entropy per byte: the pieces are guessable in part.
  RAND_add(bytes, static_cast<int>(length), static_cast<double>(length) / 8.0);
}
}  // namespace

KZ_API void SSLGenerateEntropy(void) { KZRandEntropyGet(FeedOpenSsl, nullptr); }

// ---- per-channel switches -----------------------------------------------------------------------

KZ_API int ChannelSetSSL(Channel *channel, int on) {
  if (on && !SharedContext()) {
    SSL_FAIL("ChannelSetSSL", "SSL library not initialized");
    return 0;
  }
  channel->sslRequested = on ? 1 : 0;
  return 1;
}

KZ_API void ChannelRequireCertSSL(Channel *channel, int on) { channel->requireCert = on ? 1 : 0; }

KZ_API int ChannelEnsureSSLContext(Channel *channel) {
  if (channel->sslContext) return 1;
  ERR_clear_error();
  SSL_CTX *context = NewContext();
  if (!context) {
    SSLErrorThrow();
    SSL_RETHROW("ChannelEnsureSSLContext", "error creating SSL context");
    return 0;
  }
  channel->sslContext = context;
  return 1;
}

// ---- sessions ---------------------------------------------------------------------------------------

KZ_API int ChannelStartSSL(Channel *channel, int client) {
  SSL_CTX *shared = SharedContext();
  if (!shared) {
    SSL_FAIL("ChannelStartSSL", "SSL library not initialized");
    return 0;
  }
  if (channel->isVirtual ? channel->virtualOps == nullptr : channel->handle == KZ_INVALID_HANDLE) {
    SSL_FAIL("ChannelStartSSL", "ChannelStartSSL: socket not connected");
    return 0;
  }
  if (!channel->isSocket || channel->isVirtual) {
    SSL_FAIL("ChannelStartSSL", "ChannelStartSSL: not a socket channel");
    return 0;
  }
  if (channel->ssl) {
    SSL_FAIL("ChannelStartSSL", "ChannelStartSSL: SSL session already active");
    return 0;
  }
  MarkThread();
  ERR_clear_error();
  SSL_CTX *context = ContextOf(channel);
  SSL *ssl = SSL_new(context);
  if (!ssl) {
    SSLErrorThrow();
    return 0;
  }
  SSL_set_verify(ssl,
                 channel->requireCert ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT | SSL_VERIFY_CLIENT_ONCE  // 7
                                      : SSL_VERIFY_NONE,
                 nullptr);
  BIO *bio = BIO_new(g_bioMethod);
  if (bio) {
    BIO_set_data(bio, reinterpret_cast<void *>(static_cast<intptr_t>(channel->handle)));
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl, bio, bio);
  }
  if (!bio || (client && context == shared && !UseClientIdentity(ssl))) {
    SSLErrorThrow();
    SSL_free(ssl);
    return 0;
  }
  for (int attempt = 0; attempt < kHandshakeAttempts; ++attempt) {
    int result = client ? SSL_connect(ssl) : SSL_accept(ssl);
    if (result > 0) {
      channel->ssl = ssl;
      return 1;
    }
    if (!HandshakeStepFailed(channel, ssl, result, client != 0)) {
      SSL_free(ssl);
      return 0;
    }
  }
  SSL_FAIL("ChannelStartSSL", "SSL handshake failed: retry count exceeded");
  SSL_free(ssl);
  return 0;
}

KZ_API int ShutdownSSL(Channel *channel, int *state) {
  SSL *ssl = SessionOf(channel);
  if (!ssl) {
    SSL_FAIL("ShutdownSSL", "SSL not active");
    return 0;
  }
  MarkThread();
  ERR_clear_error();
  int result = SSL_shutdown(ssl);
  for (;;) {
    if (result >= 0) {
      *state = result;
      return 1;
    }
    int error = SSL_get_error(ssl, result);
    switch (error) {
      case SSL_ERROR_SSL: SSLErrorThrow(); return 0;
      case SSL_ERROR_WANT_READ:
      case SSL_ERROR_WANT_WRITE:
        if (!SocketWait(channel->handle, error == SSL_ERROR_WANT_WRITE, HandshakeWait(channel))) {
          if (TimedOut()) SSL_FAIL("ShutdownSSL", "SSL shutdown failed: timeout");
          return 0;
        }
        result = SSL_shutdown(ssl);
        continue;
      case SSL_ERROR_SYSCALL:
        if (ERR_peek_error() != 0)
          SSLErrorThrow();
        else if (ClosedByPeer(ssl, result))
          SSL_FAIL("ShutdownSSL", "SSL shutdown failed: connection closed");
        else
          errno = -1;
        return 0;
      default: SSL_FAIL("ShutdownSSL", "SSL_shutdown() failed, error=%d", error); return 0;
    }
  }
}

KZ_API int ChannelLeaveSSL(Channel *channel) {
  SSL *ssl = SessionOf(channel);
  if (!ssl) return 1;
  int state = -1;
  bool ok = true;
  if (!(SSL_get_shutdown(ssl) & SSL_SENT_SHUTDOWN)) ok = ShutdownSSL(channel, &state) != 0;
  // Ours sent (now or before) and the peer's not yet seen: wait for it.
  if (ok && state <= 0) ok = ShutdownSSL(channel, &state) != 0;
  if (ok && state == 1) {
    FreeSession(channel);
    return 1;
  }
  if (ok) SSL_FAIL("ChannelLeaveSSL", "SSL shutdown returned unexpected state %d", state);
  KZErrorSave();
  FreeSession(channel);
  KZErrorRestore();
  return 0;
}

KZ_API int ChannelRenegotiateSSL(Channel *channel) {
  SSL *ssl = SessionOf(channel);
  if (!ssl) return 1;
  ERR_clear_error();
  if (SSL_renegotiate(ssl) == 0) {
    ERR_clear_error();  // TLS 1.3's refusal leaves a queued reason
    return 1;
  }
  SSL_FAIL("ChannelRenegotiateSSL", "SSL_renegotiate() failed");
  return 0;
}

KZ_API void ChannelDisconnectSSL(Channel *channel) { FreeSession(channel); }

KZ_API int ChannelIsSSL(const Channel *channel) { return channel->ssl != nullptr; }

// ---- session queries -------------------------------------------------------------------------------

KZ_API int ChannelGetSSLCipherBits(const Channel *channel) {
  SSL *ssl = SessionOf(channel);
  return ssl ? SSL_get_cipher_bits(ssl, nullptr) : 0;
}

KZ_API const char *ChannelGetSSLCipherName(const Channel *channel) {
  SSL *ssl = SessionOf(channel);
  const SSL_CIPHER *cipher = ssl ? SSL_get_current_cipher(ssl) : nullptr;
  return cipher ? SSL_CIPHER_get_name(cipher) : nullptr;
}

KZ_API int ChannelGetSSLCipherInfo(const Channel *channel, char *buffer, int size) {
  KZ_CHECK(buffer != nullptr, "buf != NULL", kSource, 0);
  SSL *ssl = SessionOf(channel);
  const SSL_CIPHER *cipher = ssl ? SSL_get_current_cipher(ssl) : nullptr;
  if (!cipher || size <= 0) return 0;
  return SSL_CIPHER_description(cipher, buffer, size) != nullptr;
}

KZ_API int ChannelGetSSLSessionId(const Channel *channel, char *buffer, int size) {
  SSL *ssl = SessionOf(channel);
  SSL_SESSION *session = ssl ? SSL_get_session(ssl) : nullptr;
  if (!session) return 0;
  unsigned int length = 0;
  const unsigned char *id = SSL_SESSION_get_id(session, &length);
  if (length == 0 || !(2 * int64_t{length} + 1 < size)) return 0;
  static const char kHex[] = "0123456789abcdef";
  for (unsigned int i = 0; i < length; ++i) {
    buffer[2 * i] = kHex[id[i] >> 4];
    buffer[2 * i + 1] = kHex[id[i] & 15];
  }
  buffer[2 * length] = '\0';
  return 1;
}

KZ_API const char *ChannelGetSSLVersion(const Channel *channel) {
  SSL *ssl = SessionOf(channel);
  if (!ssl) return "UNKNOWN";
  switch (SSL_version(ssl)) {
    case 2: return "SSLv2";
    case 0x300: return "SSLv3";
    default: return "UNKNOWN";
  }
}

// ---- certificates -------------------------------------------------------------------------------------

KZ_API int LoadServerSSLCert(const char *certificateChainFile, const char *privateKeyFile, const char *passphrase) {
  SSL_CTX *context = InitializedSharedContext("LoadServerSSLCert");
  Identity identity;
  return context &&
         LoadIdentityFiles(certificateChainFile, privateKeyFile, passphrase, "LoadServerSSLCert", &identity) &&
         InstallInContext(context, &identity, certificateChainFile, "LoadServerSSLCert");
}

KZ_API int LoadServerSSLCertEx(Channel *channel, const char *certificateChainFile, const char *privateKeyFile,
                               const char *passphrase) {
  Identity identity;
  if (!LoadIdentityFiles(certificateChainFile, privateKeyFile, passphrase, "LoadServerSSLCertEx", &identity)) return 0;
  SSL_CTX *context = OwnContext(channel);
  if (!context) {
    FreeIdentity(&identity);
    return 0;
  }
  return InstallInContext(context, &identity, certificateChainFile, "LoadServerSSLCertEx");
}

KZ_API int LoadServerSSLCertEx2(Channel *channel, const void *certificateChainPem, size_t certificateChainLength,
                                const void *privateKeyPem, size_t privateKeyLength, const char *passphrase) {
  if (!certificateChainPem || !privateKeyPem) {
    KZ_THROW_AT(kSource, 0, "LoadServerSSLCertEx2", KZ_ERR_INVALID, "Null argument");
    return 0;
  }
  Identity identity;
  if (!ParseIdentity(certificateChainPem, certificateChainLength, privateKeyPem, privateKeyLength, passphrase, "memory",
                     "memory", "LoadServerSSLCertEx2", &identity))
    return 0;
  SSL_CTX *context = OwnContext(channel);
  if (!context) {
    FreeIdentity(&identity);
    return 0;
  }
  return InstallInContext(context, &identity, "memory", "LoadServerSSLCertEx2");
}

KZ_API int LoadClientSSLCert(const char *certificateChainFile, const char *privateKeyFile, const char *passphrase) {
  if (!InitializedSharedContext("LoadClientSSLCert")) return 0;
  Identity identity;
  if (!LoadIdentityFiles(certificateChainFile, privateKeyFile, passphrase, "LoadClientSSLCert", &identity)) return 0;
  kz::LazyLockGuard hold(g_identityLock);
  FreeIdentity(&g_clientIdentity);
  g_clientIdentity = identity;
  return 1;
}

KZ_API int LoadClientSSLCertEx(Channel *channel, const char *certificateChainFile, const char *privateKeyFile,
                               const char *passphrase) {
  Identity identity;
  if (!LoadIdentityFiles(certificateChainFile, privateKeyFile, passphrase, "LoadClientSSLCertEx", &identity)) return 0;
  SSL_CTX *context = OwnContext(channel);
  if (!context) {
    FreeIdentity(&identity);
    return 0;
  }
  return InstallInContext(context, &identity, certificateChainFile, "LoadClientSSLCertEx");
}

KZ_API int SetVerifyCertPath(const char *caFile, const char *caDirectory) {
  SSL_CTX *context = InitializedSharedContext("SetVerifyCertPath");
  return context && AddTrusted(context, caFile, caDirectory, "SetVerifyCertPath");
}

KZ_API int SetVerifyCertPathEx(Channel *channel, const char *caFile, const char *caDirectory) {
  SSL_CTX *context = OwnContext(channel);
  return context && AddTrusted(context, caFile, caDirectory, "SetVerifyCertPathEx");
}

KZ_API int ChannelVerifyCertSSL(Channel *channel, const char *expectedHostName) {
  SSL *ssl = SessionOf(channel);
  if (!ssl) {
    SSL_FAIL("ChannelVerifyCertSSL", "SSL not active");
    return 0;
  }
  X509 *peer = SSL_get1_peer_certificate(ssl);
  if (!peer) {
    SSL_FAIL("ChannelVerifyCertSSL", "no peer certificate");
    return 0;
  }
  ERR_clear_error();
  X509_STORE_CTX *verify = X509_STORE_CTX_new();
  bool initialised = verify && X509_STORE_CTX_init(verify, SSL_CTX_get_cert_store(SSL_get_SSL_CTX(ssl)), peer,
                                                   SSL_get_peer_cert_chain(ssl)) == 1;
  if (!initialised) {
    SSLErrorThrow();
    X509_STORE_CTX_free(verify);
    X509_free(peer);
    return 0;
  }
  // The peer of a server is a client, and the other way round.
  X509_STORE_CTX_set_default(verify, SSL_is_server(ssl) ? "ssl_client" : "ssl_server");
  int verified = X509_verify_cert(verify);
  int error = X509_STORE_CTX_get_error(verify);
  X509_STORE_CTX_free(verify);
  ERR_clear_error();
  if (verified != 1) {
    X509_free(peer);
    SSL_FAIL("ChannelVerifyCertSSL", "certificate verification failed: %s",
             X509_verify_cert_error_string(error == X509_V_OK ? X509_V_ERR_UNSPECIFIED : error));
    return 0;
  }
  if (expectedHostName) {
    // An IP literal is held to the IP entries; -2 means it is not one.
    int matched = X509_check_ip_asc(peer, expectedHostName, 0);
    if (matched == -2)
      matched = X509_check_host(peer, expectedHostName, 0, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr);
    ERR_clear_error();
    if (matched != 1) {
      X509_free(peer);
      SSL_FAIL("ChannelVerifyCertSSL", "certificate does not match host %s", expectedHostName);
      return 0;
    }
  }
  X509_free(peer);
  return 1;
}

KZ_API int ChannelCertNameGetElement(Channel *channel, const char *element, UByteArray *out) {
  auto view = kz::View(*out, kSource, 0);
  view.Reserve(1);
  out->count = 0;
  out->elements[0] = '\0';
  SSL *ssl = SessionOf(channel);
  X509 *peer = ssl ? SSL_get1_peer_certificate(ssl) : nullptr;
  if (!peer) return 0;
  int nid = OBJ_txt2nid(element);
  X509_NAME *subject = X509_get_subject_name(peer);
  int index = nid == NID_undef ? -1 : X509_NAME_get_index_by_NID(subject, nid, -1);
  unsigned char *text = nullptr;
  int length =
      index < 0 ? -1 : ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  ERR_clear_error();
  X509_free(peer);
  if (length < 0) return 0;
  view.Reserve(uint64_t(length) + 1);
  view.Append(text, static_cast<uint64_t>(length));
  out->elements[out->count] = '\0';
  OPENSSL_free(text);
  return 1;
}
