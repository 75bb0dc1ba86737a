/* kzlib: SSL sessions on channels, certificate loading and verification.
 *
 * An SSL (TLS) session can be layered on any connected TCP channel, as client
 * or as server: at connect or accept time (ChannelSetSSL), or later on an open
 * connection (ChannelStartSSL), and left again (ChannelLeaveSSL) so that the
 * connection goes on in plain text. While a session is attached, ChannelSend,
 * ChannelReceive and every buffered reader and writer of kz/channel.h move
 * their bytes through it, and ChannelClose runs the shutdown exchange first.
 * Stream scrambling (ChannelSetObfuscationKey) sits above SSL. A channel with a
 * session cannot be waited on with ChannelSelect.
 *
 * The protocol is OpenSSL 3's: the library gives it its allocator, sends
 * through the channel's socket without ever raising SIGPIPE, and bounds every
 * wait by the channel's time-outs. Sessions come from one shared context made
 * by SSLInit (KZLibInit calls it; "warning: could not initialize SSL" on
 * standard error when it fails), or from a context of the channel's own
 * (ChannelEnsureSSLContext, the ...Ex certificate loaders). The shared
 * context allows every protocol version OpenSSL 3 offers (TLS 1.0 to 1.3 as
 * its security level permits). With the KZ option "ssl-high-encryption" its
 * TLS 1.2-and-older cipher list is "DEFAULT:!LOW:!MEDIUM:@STRENGTH" (TLS 1.3
 * suites are all strong and keep OpenSSL's default).
 *
 * Errors: every SSL failure is raised with KZ_ERR_SSL (0x200000005), either
 * with the texts given below or as OpenSSL's oldest queued error in the form
 * "SSL error %08lx:%s:%s:%s" (code, library, function, reason; "lib(%d)",
 * "func(%d)", "reason(%d)" when OpenSSL has no name). Waits that time out
 * raise their own texts ("SSL handshake failed: timeout") with KZ_ERR_SSL.
 * A failed handshake or shutdown frees the session; the socket stays open.
 *
 * Time-outs: the handshake and the shutdown exchange wait for the socket at
 * most the read time-out when it is set and smaller than the write time-out
 * (an unset write time-out counting as infinite), else the write time-out, per
 * step; sends wait the write time-out, receives the read time-out.
 *
 * Threads: a channel's session is used by one thread at a time, like the
 * channel. Load certificates and verification paths into the shared context
 * before other threads start sessions on it.
 *
 * Build option: a library configured with KZ_WITH_SSL=OFF (see kz/features.h)
 * has none of the functions below; this header then declares nothing.
 */
#ifndef KZ_SSL_H
#define KZ_SSL_H

#include "kz/array.h"
#include "kz/base.h"
#include "kz/channel.h"
#include "kz/features.h"

#if KZ_WITH_SSL

KZ_BEGIN_DECLS

/* ---- library-wide set-up ------------------------------------------------------ */

/* Sets up OpenSSL once per process (later calls only report): its memory goes
 * through the library's checked allocator (when OpenSSL refuses because it
 * already allocated, "error creating SSL memory manager", KZ_ERR_INVALID),
 * its error strings are loaded, the generator is seeded (SSLGenerateEntropy)
 * when OpenSSL reports it unseeded, and the shared context is created with
 * the general method, SSL_OP_ALL and partial writes (failure: "error creating
 * SSL context" over OpenSSL's error). With "ssl-high-encryption" a refused
 * cipher list emits the message "error setting SSL ciphers" and goes on.
 * 1 when the shared context exists, else 0. */
KZ_API int SSLInit(void);
/* Marks the calling thread so that OpenSSL's per-thread state is released
 * when it ends. ChannelSend and ChannelReceive do it themselves. */
KZ_API void SSLThreadInit(void);
/* Raises OpenSSL's oldest queued error of the calling thread (taking it off
 * the queue) as "SSL error %08lx:%s:%s:%s", KZ_ERR_SSL. */
KZ_API void SSLErrorThrow(void);
/* Adds every piece the library's entropy gatherer (KZRandEntropyGet) yields
 * to OpenSSL's random generator. */
KZ_API void SSLGenerateEntropy(void);

/* ---- per-channel switches ----------------------------------------------------------- */

/* on non-zero: the next ChannelConnect starts SSL as client and the next
 * TCPServerAccept into this channel as server (the flag persists across
 * connections). Switching on before SSLInit succeeded raises "SSL library not
 * initialized" (KZ_ERR_SSL) and returns 0; switching off always returns 1. */
KZ_API int ChannelSetSSL(Channel *channel, int on);
/* on non-zero: handshakes started on this channel demand the peer's
 * certificate and verify it against the context's trust store (see
 * SetVerifyCertPath): a missing or untrusted certificate fails the handshake.
 * A server asks its client once. 0: no verification in the handshake. */
KZ_API void ChannelRequireCertSSL(Channel *channel, int on);
/* Gives the channel a context of its own (the general method, SSL_OP_ALL,
 * partial writes) unless it has one; later sessions of the channel use it
 * instead of the shared one. It lives until ChannelClose. 1, or 0 with "error
 * creating SSL context" over OpenSSL's error. */
KZ_API int ChannelEnsureSSLContext(Channel *channel);

/* ---- sessions ----------------------------------------------------------------------- */

/* Runs the handshake on a connected TCP channel, as client (client non-zero)
 * or server. 1 when it completed. Refused: "SSL library not initialized"
 * (no shared context), "ChannelStartSSL: socket not connected",
 * "ChannelStartSSL: not a socket channel", "ChannelStartSSL: SSL session
 * already active". At most 8 handshake steps, each waiting for the socket
 * the handshake time-out (above): "SSL handshake failed: timeout", "SSL
 * handshake failed: connection closed", "SSL handshake failed: retry count
 * exceeded", "SSL_connect() failed, error=%d" / "SSL_accept() failed,
 * error=%d", or OpenSSL's error (a refused certificate, garbage from the
 * peer). On failure the session is freed and the channel stays a connected
 * plain socket. Bytes already in the channel's read buffer are not part of
 * the handshake. */
KZ_API int ChannelStartSSL(Channel *channel, int client);
/* Sends the close notification (waiting as in the handshake). 1 with *state
 * 0 (ours sent) or 1 (the peer's received too); 0 on failure ("SSL shutdown
 * failed: timeout", "SSL shutdown failed: connection closed",
 * "SSL_shutdown() failed, error=%d" or OpenSSL's error). The session stays
 * attached. ChannelClose runs it before closing an SSL channel. */
KZ_API int ShutdownSSL(Channel *channel, int *state);
/* Ends the session with the full exchange (sends our close notification,
 * then waits for the peer's) and detaches it: 1, and the connection goes on
 * in plain text. Without a session: 1. Any other outcome frees the session
 * and returns 0 ("SSL shutdown returned unexpected state %d" or the
 * shutdown's error); the socket stays open but its state is unknown. */
KZ_API int ChannelLeaveSSL(Channel *channel);
/* Asks OpenSSL to renegotiate; the exchange itself happens during the
 * following transfers. Without a session: 1. Returns 1 when OpenSSL's
 * SSL_renegotiate answers 0, and raises "SSL_renegotiate() failed" and
 * returns 0 for any other answer: this sense of the test is kept from the
 * library's history. In practice: on a TLS 1.3 session, which has no
 * renegotiation, OpenSSL refuses (0), nothing happens and the result is 1;
 * on TLS 1.2 and older OpenSSL schedules the renegotiation (1), which then
 * does take place, and the result is 0 with "SSL_renegotiate() failed". */
KZ_API int ChannelRenegotiateSSL(Channel *channel);
/* Detaches and frees the session without any exchange; the socket stays
 * connected (its state is then whatever the peer makes of it). */
KZ_API void ChannelDisconnectSSL(Channel *channel);
/* 1 when a session is attached. */
KZ_API int ChannelIsSSL(const Channel *channel);

/* ---- session queries (0, or "UNKNOWN", without a session) ----------------------- */

/* The secret bits of the current cipher. */
KZ_API int ChannelGetSSLCipherBits(const Channel *channel);
/* The current cipher's name, or null when there is none. Valid while the
 * session is attached. */
KZ_API const char *ChannelGetSSLCipherName(const Channel *channel);
/* OpenSSL's one-line description of the cipher into buffer (asserts "buf !=
 * NULL"); 1, or 0 when there is no cipher or OpenSSL cannot write it (it needs
 * at least 128 bytes). */
KZ_API int ChannelGetSSLCipherInfo(const Channel *channel, char *buffer, int size);
/* The session id as lower-case hexadecimal, NUL-terminated. 0 when there is
 * no session object, the id is empty, or 2 x length + 1 is not smaller than
 * size (a 32-byte id needs 66 bytes); else 1. */
KZ_API int ChannelGetSSLSessionId(const Channel *channel, char *buffer, int size);
/* "SSLv2" for protocol version 2, "SSLv3" for 0x300, "UNKNOWN" for every
 * other version: TLS sessions (0x301 and later) answer "UNKNOWN". */
KZ_API const char *ChannelGetSSLVersion(const Channel *channel);

/* ---- certificates -------------------------------------------------------------------
 * PEM files or memory; a certificate chain file holds the certificate first,
 * then its intermediates. A null passphrase means an unencrypted key. 1 on
 * success, 0 with an error raised:
 *   a file that cannot be read: the system error, then "can not read
 *     certificate file %s" / "can not read key file %s";
 *   a certificate or key that does not parse, or a wrong passphrase: "can not
 *     load certificate %s" / "can not load private key %s" (over OpenSSL's
 *     error);
 *   a key that does not match: "private key does not match certificate %s".
 * (%s: the file name; "memory" for LoadServerSSLCertEx2.) A failed load
 * leaves the context as it was. */

/* The certificate the shared context's servers present (SSLInit first when
 * needed). */
KZ_API int LoadServerSSLCert(const char *certificateChainFile, const char *privateKeyFile, const char *passphrase);
/* The same for the channel's own context (ChannelEnsureSSLContext first). */
KZ_API int LoadServerSSLCertEx(Channel *channel, const char *certificateChainFile, const char *privateKeyFile,
                               const char *passphrase);
/* The same from PEM text in memory (lengths in bytes). */
KZ_API int LoadServerSSLCertEx2(Channel *channel, const void *certificateChainPem, size_t certificateChainLength,
                                const void *privateKeyPem, size_t privateKeyLength, const char *passphrase);
/* The certificate clients of the shared context present when a server asks
 * for one (SSLInit first when needed). It is kept apart from the server
 * certificate, so one process can serve with one and connect with another. */
KZ_API int LoadClientSSLCert(const char *certificateChainFile, const char *privateKeyFile, const char *passphrase);
/* The certificate the channel presents, in its own context (for either role:
 * a channel's context holds one certificate). */
KZ_API int LoadClientSSLCertEx(Channel *channel, const char *certificateChainFile, const char *privateKeyFile,
                               const char *passphrase);
/* Adds trusted certificates to the shared context's trust store: a PEM file
 * (certificates it cannot read: the system error, then "can not read
 * certificate file %s"; that do not parse: "can not load certificate %s")
 * and / or a directory of hashed names (c_rehash; not read until needed).
 * Either may be null, not both ("Null argument", KZ_ERR_INVALID). */
KZ_API int SetVerifyCertPath(const char *caFile, const char *caDirectory);
/* The same for the channel's own context (ChannelEnsureSSLContext first). */
KZ_API int SetVerifyCertPathEx(Channel *channel, const char *caFile, const char *caDirectory);

/* After the handshake: verifies the peer's chain against the trust store of
 * the session's context (as a server certificate on the client side, a client
 * certificate on the server side), then, when expectedHostName is not null,
 * its name: an IP literal (IPv4 or IPv6) must match an IP subjectAltName
 * entry; another name the DNS subjectAltName entries (a wildcard "*" allowed
 * as the whole left-most label only), or the common name when there are none.
 * 1 when both hold. Failures: "SSL not active", "no peer certificate",
 * "certificate verification failed: %s" (OpenSSL's verify error text),
 * "certificate does not match host %s". */
KZ_API int ChannelVerifyCertSSL(Channel *channel, const char *expectedHostName);
/* The peer certificate's subject element of the short name element ("CN",
 * "O", "OU", "C", "ST", "L", "emailAddress", ...; the first when repeated):
 * 1 and out holds its UTF-8 value (count = its length, an uncounted NUL after
 * it). 0, out emptied and nothing raised, when there is no session, no peer
 * certificate or no such element. */
KZ_API int ChannelCertNameGetElement(Channel *channel, const char *element, UByteArray *out);

KZ_END_DECLS

#endif /* KZ_WITH_SSL */

#endif /* KZ_SSL_H */
