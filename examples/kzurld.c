/* kzurld: the URL normalisation server.
 *
 *   kzurld [--config FILE] [--port N] [--local NAME]
 *          [--tls-port N --cert FILE --key FILE] [-daemon [-rundir DIR]]
 *
 * Clients send URLs, one per line, over TCP, TLS or the local connection; every
 * line is answered with exactly the line kzurl prints for it, the normalised
 * URL, a blank and its 16-digit fingerprint, or "ERR <reason>" where kzurl
 * reports the line as an error. Empty lines (and lines holding only a
 * carriage return) get no answer, as kzurl prints nothing for them. A line
 * longer than the line limit is answered "ERR line too long" and the rest of
 * it is discarded. Answers come in the order of the requests, so a client may
 * send many lines before reading (pipelining).
 *
 * The configuration comes from the built-in text below, overridden key by key
 * by the --config file, overridden in turn by the options. docs/kzurld.md
 * lists the keys. A configuration that does not hold together (a bad port, an
 * unknown key, a base URL that does not parse) is reported on standard error
 * and ends the program with status 2; failing to listen ends it with status 1.
 * SIGTERM or SIGINT stops the server: it stops accepting, closes every
 * connection and exits with status 0. With -daemon the server runs in the
 * background in the run directory (-rundir, else the current one), logging
 * to its log file there; SIGHUP rotates that log.
 *
 * Threads: the main thread waits for clients and for the stop event with
 * ChannelSelectFD and accepts; a pool of workers serves the connections, each
 * worker waiting on at most 63 of them and its wake-up event with
 * ChannelSelectEx; a signal thread turns SIGTERM and SIGINT into the stop
 * event the main thread waits on. Nothing in a request can stall another
 * client: a worker reads only what has arrived (its channels have a read
 * time-out of 0) and keeps an unfinished line until the rest comes.
 *
 * TLS connections cannot join a worker's wait (ChannelSelectEx refuses SSL
 * channels, and OpenSSL may hold decrypted bytes the socket no longer shows):
 * each has a thread of its own from a bounded pool, which runs the handshake
 * (bounded by tls-handshake-timeout) and then serves the connection alone,
 * waiting on its socket and the stop event with ChannelSelectFD only after a
 * read found nothing left, in OpenSSL or in the socket. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kz/kzlib.h"

#define MAX_LISTEN_ADDRESSES 8
#define MAX_WORKERS          64
/* One slot of a worker's wait is its wake-up event. */
#define MAX_PER_WORKER (KZ_SELECT_MAX_SOCKETS - 1)
/* Requests served from one connection before the worker turns to the next,
 * so that a client with a long pipeline does not hold the others back. */
#define BATCH_REQUESTS 256
/* How long the stop waits for the workers to close their connections before
 * it shuts down the sockets a worker may still be writing to. */
#define STOP_GRACE_MS 300
/* TLS threads beyond tls-connections that only complete the handshake, answer
 * "ERR server busy" and close; past them a TLS client is closed at once. */
#define TLS_REFUSERS        4
#define MAX_TLS_CONNECTIONS 1024
/* The longest a closing TLS connection waits to send its close notification
 * (ChannelClose's exchange waits the read time-out, set to this). */
#define CLOSE_NOTIFY_WAIT_MS 250

static const char defaultConfiguration[] =
    "# kzurld's built-in configuration; a --config file overrides any of these keys\n"
    "listen 127.0.0.1 ::1\n"
    "port 7171\n"
    "local kzurld\n"
    "tls-port 0\n"
    "cert \"\"\n"
    "key \"\"\n"
    "tls-connections 64\n"
    "tls-handshake-timeout 10000\n"
    "base \"\"\n"
    "strict true\n"
    "workers 4\n"
    "line-limit 8192\n"
    "idle-timeout 300000\n"
    "write-timeout 10000\n"
    "log-level info\n";

static const char *const knownKeys[] = {"listen",       "port",          "local",           "tls-port",
                                        "cert",         "key",           "tls-connections", "tls-handshake-timeout",
                                        "base",         "strict",        "workers",         "line-limit",
                                        "idle-timeout", "write-timeout", "log-level",       NULL};

enum { LOG_ERROR, LOG_INFO, LOG_DEBUG };

typedef struct Settings {
  TCPAddr listen[MAX_LISTEN_ADDRESSES];
  uint32_t listenCount;
  uint16_t port;
  char local[KZ_LOCAL_NAME_MAX + 1]; /* empty: no local connection */
  uint16_t tlsPort;
  int tls; /* a certificate is loaded: serve TLS on tlsPort */
  uint32_t tlsConnections;
  int32_t tlsHandshakeTimeout;
  URL *base; /* null: relative references fail */
  int strict;
  uint32_t workers;
  uint32_t lineLimit;
  int32_t idleTimeout; /* ms; 0: connections may stay idle for ever */
  int32_t writeTimeout;
  int logLevel;
} Settings;

static Settings settings;

#define LOG(level, ...) ((level) <= settings.logLevel ? (void)KZMessage(KZ_LEVEL_LOG, __VA_ARGS__) : (void)0)

/* ---- the operating system's part: the clock and the signals ----------------------- */

static uint64_t NowMs(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

/* The signals the signal thread takes; every other thread keeps them
 * blocked, so they are never delivered anywhere else. */
static void StopSignals(sigset_t *set) {
  sigemptyset(set);
  sigaddset(set, SIGTERM);
  sigaddset(set, SIGINT);
  sigaddset(set, SIGHUP);
}

/* ---- configuration ---------------------------------------------------------------- */

static int ConfigError(const char *format, ...) {
  va_list args;
  fputs("kzurld: bad configuration: ", stderr);
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fputc('\n', stderr);
  return 0;
}

/* The built-in text's pairs fill the keys the file left out. */
static int AddDefault(void *context, const char *fileName, int lineNumber, int argc, char **argv) {
  UByteArray value = {0};
  int i;
  (void)context, (void)fileName, (void)lineNumber;
  UByteArrayPrintf(&value, "%s", "");
  for (i = 1; i < argc; i++) UByteArrayPrintf(&value, i > 1 ? " %s" : "%s", argv[i]);
  ConfigKeyAddString(argv[0], (const char *)value.elements);
  ArrayFree(value);
  return 1;
}

static int CheckKey(void *context, const char *key, const char *value) {
  int i;
  (void)value;
  if (key[0] == '@') return 1;
  for (i = 0; knownKeys[i]; i++)
    if (strcmp(key, knownKeys[i]) == 0) return 1;
  *(int *)context = 0;
  ConfigError("unknown key \"%s\"", key);
  return 1;
}

/* The value of key (the built-in one when the file has none); valid until
 * the next call. */
static UByteArray valueText;
static const char *Value(const char *key) {
  valueText.count = 0;
  return ConfigKeyGetString(key, "", &valueText);
}

static int Number(const char *key, uint32_t min, uint32_t max, uint32_t *out) {
  const char *text = Value(key);
  int32_t error = 0;
  uint32_t value = ParseUInt(text, (uint32_t)strlen(text), 10, &error);
  if (error || *text == '\0' || value < min || value > max)
    return ConfigError("%s must be a number from %" PRIu32 " to %" PRIu32 ", not \"%s\"", key, min, max, text);
  *out = value;
  return 1;
}

/* TLS is on when a certificate and its key are configured; tls-port is then
 * its port (0: the system picks one). The certificate is loaded here, before
 * the daemon leaves the current directory, so that a bad one stops the start
 * with the configuration errors. */
static int ReadTls(void) {
  char *cert = Strdup(Value("cert"));
  const char *key = Value("key");
  int ok = 1;
#if !KZ_WITH_SSL
  /* A library built without SSL: a configuration that asks for TLS cannot be
   * served. */
  if (settings.tlsPort != 0 || *cert || *key) {
    fprintf(stderr, "kzurld: TLS is not available in this build (tls-port, cert and key must stay unset)\n");
    ok = 0;
  }
#else
  if (!*cert && !*key) {
    if (settings.tlsPort != 0) ok = ConfigError("tls-port needs cert and key");
  } else if (!*cert || !*key) {
    ok = ConfigError("cert and key go together: %s is not set", *cert ? "key" : "cert");
  } else if (LoadServerSSLCert(cert, key, NULL)) {
    settings.tls = 1;
  } else {
    ok = ConfigError("cannot use certificate %s with key %s: %s", cert, key, KZErrorMessage());
  }
#endif
  free(cert);
  return ok;
}

static int ReadSettings(void) {
  uint32_t number;
  const char *text;
  int ok = 1;

  ConfigKeyEnumerate(CheckKey, &ok, NULL);

  /* The listen addresses: IP literals separated by blanks. */
  text = Value("listen");
  settings.listenCount = 0;
  while (*text) {
    char word[64];
    size_t length = strcspn(text, " ");
    IPAddr address;
    if (length == 0) {
      text++;
      continue;
    }
    if (length >= sizeof word || (memcpy(word, text, length), word[length] = '\0', !IPAddrSetIP(&address, word))) {
      ok = ConfigError("listen takes IP addresses, not \"%.*s\"", (int)length, text);
    } else if (settings.listenCount == MAX_LISTEN_ADDRESSES) {
      ok = ConfigError("listen takes at most %d addresses", MAX_LISTEN_ADDRESSES);
      break;
    } else {
      TCPAddrIpPort(&settings.listen[settings.listenCount++], &address, 0);
    }
    text += length;
  }

  if (Number("port", 0, 65535, &number))
    settings.port = (uint16_t)number;
  else
    ok = 0;

  text = Value("local");
  if (*text) {
    TCPAddr probe;
    char hostPort[64];
    if (strlen(text) > KZ_LOCAL_NAME_MAX || strchr(text, '/') || strchr(text, '\\') || strchr(text, ':')) {
      ok = ConfigError("local must be a name of 1 to %d characters without '/', '\\' or ':', not \"%s\"",
                       KZ_LOCAL_NAME_MAX, text);
    } else {
      snprintf(hostPort, sizeof hostPort, "/%s:0", text);
      if (!TCPAddrSetHostPort(&probe, hostPort))
        ok = ConfigError("local connection name \"%s\": %s", text, KZErrorMessage());
      else
        strcpy(settings.local, text);
    }
  } else {
    settings.local[0] = '\0';
  }

  if (Number("tls-port", 0, 65535, &number))
    settings.tlsPort = (uint16_t)number;
  else
    ok = 0;
  if (Number("tls-connections", 1, MAX_TLS_CONNECTIONS, &number))
    settings.tlsConnections = number;
  else
    ok = 0;
  if (Number("tls-handshake-timeout", 1, 0x7FFFFFFF, &number))
    settings.tlsHandshakeTimeout = (int32_t)number;
  else
    ok = 0;
  if (!ReadTls()) ok = 0;

  text = Value("base");
  if (*text) {
    settings.base = URLNew();
    if (!URLParse2(text, settings.base, NULL, 1, 1)) {
      ok = ConfigError("base \"%s\" is not a URL: %s", text, KZErrorMessage());
      URLDelete(settings.base);
      settings.base = NULL;
    }
  }

  text = Value("strict");
  if (strcmp(text, "true") == 0)
    settings.strict = 1;
  else if (strcmp(text, "false") == 0)
    settings.strict = 0;
  else
    ok = ConfigError("strict must be true or false, not \"%s\"", text);

  if (Number("workers", 1, MAX_WORKERS, &number))
    settings.workers = number;
  else
    ok = 0;
  if (Number("line-limit", 16, 16u << 20, &number))
    settings.lineLimit = number;
  else
    ok = 0;
  if (Number("idle-timeout", 0, 0x7FFFFFFF, &number))
    settings.idleTimeout = (int32_t)number;
  else
    ok = 0;
  if (Number("write-timeout", 1, 0x7FFFFFFF, &number))
    settings.writeTimeout = (int32_t)number;
  else
    ok = 0;

  text = Value("log-level");
  if (strcmp(text, "error") == 0)
    settings.logLevel = LOG_ERROR;
  else if (strcmp(text, "info") == 0)
    settings.logLevel = LOG_INFO;
  else if (strcmp(text, "debug") == 0)
    settings.logLevel = LOG_DEBUG;
  else
    ok = ConfigError("log-level must be error, info or debug, not \"%s\"", text);

  if (ok && settings.listenCount == 0 && settings.local[0] == '\0')
    ok = ConfigError("nothing to listen on (listen and local are both empty)");
  if (ok && settings.tls && settings.listenCount == 0) ok = ConfigError("TLS needs a listen address");
  return ok;
}

/* ---- answers ------------------------------------------------------------------------- */

typedef struct Worker Worker;

typedef struct Connection {
  Channel *channel;
  int64_t handle;    /* the socket, for the forced stop */
  UByteArray line;   /* the request read so far */
  uint32_t overflow; /* the line passed the limit: the rest is being discarded */
  uint32_t pending;  /* a full batch was served: input may wait in the buffer */
  uint32_t broken;   /* answers could not be sent: close without any exchange */
  uint64_t lastActive;
  char peer[72];
} Connection;

struct Worker {
  uint32_t index;
  KZThread thread;
  ChannelSelectEvent wake;
  Channel *wakeChannel;
  /* Under the server lock: connections handed over and not yet taken, and
   * the count of every connection the worker has (for the balance). */
  Connection *inbox[MAX_PER_WORKER];
  uint32_t inboxCount;
  uint32_t assigned;
  /* The worker's own; changed under the server lock so that the forced stop
   * can read the sockets. */
  Connection *serving[MAX_PER_WORKER];
  uint32_t servingCount;
  UByteArray ready; /* the wait's flags */
  URL *url, *normal;
  UByteArray printed, answer;
  uint64_t connections, requests, errors;
};

static KZMutex serverLock = KZ_MUTEX_INITIALIZER;
static KZCondition workersDone;
static int stopping;            /* under serverLock */
static uint32_t workersRunning; /* under serverLock */
static Worker *workers;

/* Appends the answer to one request line (its newline cut off, a NUL after
 * it) to worker->answer; nothing for an empty line. */
static void Answer(Worker *worker, char *line, uint32_t length) {
  const char *text;
  if (length > 0 && line[length - 1] == '\r') line[--length] = '\0';
  if (length == 0) return;
  worker->requests++;
  if (memchr(line, '\0', length)) {
    worker->errors++;
    UByteArrayPrintf(&worker->answer, "ERR %s\n", "line holds a NUL byte");
    return;
  }
  if (!URLParse2(line, worker->url, settings.base, 1, settings.strict)) {
    worker->errors++;
    UByteArrayPrintf(&worker->answer, "ERR %s\n", KZErrorMessage());
    return;
  }
  URLNormalize2(worker->normal, worker->url, 1);
  text = URLPrint(&worker->printed, worker->normal);
  UByteArrayPrintf(&worker->answer, "%s %016" PRIx64 "\n", text, URLFingerprint(worker->normal, 0));
}

/* ---- serving a connection ---------------------------------------------------------- */

enum { KEEP, CLOSE };

static void FinishLine(Worker *worker, Connection *connection) {
  if (connection->overflow) {
    worker->requests++;
    worker->errors++;
    UByteArrayPrintf(&worker->answer, "ERR %s\n", "line too long");
  } else {
    ArrayGrowExact(connection->line, connection->line.count + 1);
    connection->line.elements[connection->line.count] = '\0';
    Answer(worker, (char *)connection->line.elements, connection->line.count);
  }
  connection->line.count = 0;
  connection->overflow = 0;
}

/* Sends the answers collected so far; 0 when the client cannot take them. */
static int SendAnswers(Worker *worker, Connection *connection) {
  int sent = 1;
  if (worker->answer.count > 0)
    sent = ChannelWriteBuf(connection->channel, worker->answer.elements, worker->answer.count);
  worker->answer.count = 0;
  if (sent) sent = ChannelFlush(connection->channel);
  if (!sent) {
    LOG(LOG_DEBUG, "%s: cannot send answers: %s", connection->peer, KZErrorMessage());
    connection->broken = 1;
  }
  return sent;
}

/* Reads what has arrived, answers every complete line (a batch at most) and
 * sends the answers. A line may hold any byte but the line feed: requests
 * are cut exactly where kzurl cuts its input lines. Up to lineLimit + 1 bytes
 * are kept so that a carriage return before the line feed does not count
 * against the limit. */
static int Serve(Worker *worker, Connection *connection) {
  Channel *channel = connection->channel;
  uint32_t keep = settings.lineLimit + 1, served = 0;
  int result = KEEP;
  worker->answer.count = 0;
  connection->pending = 0;
  for (;;) {
    int c = ChannelReadByte(channel);
    if (c == '\n') {
      if (connection->line.count == keep && connection->line.elements[keep - 1] != '\r') connection->overflow = 1;
      FinishLine(worker, connection);
      if (++served == BATCH_REQUESTS) {
        connection->pending = 1;
        break;
      }
    } else if (c >= 0) {
      if (connection->line.count < keep) {
        if (connection->line.count == connection->line.capacity) ArrayGrow(connection->line);
        connection->line.elements[connection->line.count++] = (unsigned char)c;
      } else {
        connection->overflow = 1;
      }
    } else if (c == KZ_RECEIVE_TIMEOUT) {
      break; /* nothing more has arrived */
    } else {
      /* End of input answers a last line without line feed, as kzurl does;
       * a read error drops it. */
      if (c == KZ_RECEIVE_EOF && (connection->line.count > 0 || connection->overflow)) {
        if (connection->line.count == keep && connection->line.elements[keep - 1] != '\r') connection->overflow = 1;
        FinishLine(worker, connection);
      }
      if (c != KZ_RECEIVE_EOF) LOG(LOG_DEBUG, "%s: %s", connection->peer, KZErrorMessage());
      result = CLOSE;
      break;
    }
  }
  connection->lastActive = NowMs();
  if (!SendAnswers(worker, connection)) return CLOSE;
  return result;
}

static void CloseConnection(Worker *worker, uint32_t at) {
  Connection *connection = worker->serving[at];
  MutexLock(&serverLock);
  worker->serving[at] = worker->serving[--worker->servingCount];
  worker->assigned--;
  MutexUnlock(&serverLock);
  LOG(LOG_DEBUG, "%s: closed", connection->peer);
  /* Answers are flushed as they are made; whatever is left belongs to a
   * client that stopped reading, and waiting for it would hold the worker. */
  ChannelDisconnect(connection->channel);
  ChannelClose(connection->channel);
  ArrayFree(connection->line);
  free(connection);
}

/* Takes the connections the acceptor handed over; 0 when the server stops. */
static int TakeOver(Worker *worker) {
  uint64_t now = NowMs();
  int running;
  uint32_t i;
  MutexLock(&serverLock);
  for (i = 0; i < worker->inboxCount; i++) {
    Connection *connection = worker->inbox[i];
    connection->lastActive = now;
    worker->serving[worker->servingCount++] = connection;
    worker->connections++;
  }
  worker->inboxCount = 0;
  running = !stopping;
  MutexUnlock(&serverLock);
  return running;
}

/* The wait's time-out: until the first idle connection is due, or for ever. */
static int32_t NextDeadline(Worker *worker, uint64_t now) {
  uint64_t first = UINT64_MAX;
  uint32_t i;
  if (settings.idleTimeout == 0 || worker->servingCount == 0) return -1;
  for (i = 0; i < worker->servingCount; i++)
    if (worker->serving[i]->lastActive < first) first = worker->serving[i]->lastActive;
  first += (uint64_t)settings.idleTimeout;
  return first <= now ? 0 : (int32_t)(first - now > 0x7FFFFFFF ? 0x7FFFFFFF : first - now);
}

static void CloseIdle(Worker *worker, uint64_t now) {
  uint32_t i = 0;
  if (settings.idleTimeout == 0) return;
  while (i < worker->servingCount) {
    if (now - worker->serving[i]->lastActive >= (uint64_t)settings.idleTimeout) {
      LOG(LOG_DEBUG, "%s: idle for %" PRId32 " ms", worker->serving[i]->peer, settings.idleTimeout);
      CloseConnection(worker, i);
    } else {
      i++;
    }
  }
}

static int64_t WorkerMain(void *argument) {
  Worker *worker = (Worker *)argument;
  Channel *waitOn[KZ_SELECT_MAX_SOCKETS];
  char name[32];
  snprintf(name, sizeof name, "kzurld worker %" PRIu32, worker->index);
  ThreadSetName(name);
  worker->url = URLNew();
  worker->normal = URLNew();
  while (TakeOver(worker)) {
    uint32_t count = worker->servingCount, i;
    int32_t timeout = NextDeadline(worker, NowMs());
    int waited;
    waitOn[0] = worker->wakeChannel;
    for (i = 0; i < count; i++) {
      waitOn[1 + i] = worker->serving[i]->channel;
      if (worker->serving[i]->pending) timeout = 0;
    }
    /* ChannelSelectEx reports every ready socket of the wait, so each round
     * serves all of them once. It does not look at read buffers: only a
     * connection that stopped at the end of a batch can have input there,
     * and it is served again without waiting. */
    waited = ChannelSelectEx(NULL, waitOn, count + 1, &worker->ready, timeout);
    if (waited < 0 && KZErrorCode() != KZ_ERR_TIMEOUT)
      KZMessage(KZ_LEVEL_ERROR, "worker %" PRIu32 ": waiting failed: %s", worker->index, KZErrorMessage());
    if (waited == 0 && worker->ready.elements[0]) ChannelSelectEventNotifyReset(&worker->wake);
    /* From the end: closing moves the last connection into the freed place,
     * which has been served by then. */
    for (i = count; i-- > 0;) {
      Connection *connection = worker->serving[i];
      if (!connection->pending && !(waited == 0 && worker->ready.elements[1 + i])) continue;
      if (Serve(worker, connection) == CLOSE) CloseConnection(worker, i);
    }
    CloseIdle(worker, NowMs());
  }
  while (worker->servingCount > 0) CloseConnection(worker, worker->servingCount - 1);
  URLDelete(worker->url);
  URLDelete(worker->normal);
  ArrayFree(worker->printed);
  ArrayFree(worker->answer);
  ArrayFree(worker->ready);
  MutexLock(&serverLock);
  workersRunning--;
  ConditionBroadcast(&workersDone);
  MutexUnlock(&serverLock);
  return 0;
}

/* ---- TLS connections: a thread each, from a bounded pool ------------------------------ */

#if KZ_WITH_SSL
typedef struct TlsSlot {
  Worker work; /* its thread, URL objects, buffers and counts */
  KZCondition wake;
  /* Under the server lock: the connection handed over (null: the slot is
   * free), whether it is only to be refused, whether the thread exists. */
  Connection *connection;
  int refuse;
  int started;
} TlsSlot;

static TlsSlot *tlsSlots;
static uint32_t tlsSlotCount; /* tls-connections + TLS_REFUSERS */
/* Notified once at the stop; every TLS connection's wait holds it. */
static ChannelSelectEvent tlsStop;

/* Milliseconds until the connection has been silent for the idle time-out;
 * -1: it may stay silent for ever. */
static int32_t IdleLeft(const Connection *connection, uint64_t now) {
  uint64_t due;
  if (settings.idleTimeout == 0) return -1;
  due = connection->lastActive + (uint64_t)settings.idleTimeout;
  return due <= now ? 0 : (int32_t)(due - now > 0x7FFFFFFF ? 0x7FFFFFFF : due - now);
}

/* Closes a TLS connection: with the close notification when the session is
 * sound, else at once. */
static void CloseTls(TlsSlot *slot, Connection *connection) {
  Channel *channel = connection->channel;
  MutexLock(&serverLock);
  slot->connection = NULL;
  MutexUnlock(&serverLock);
  LOG(LOG_DEBUG, "%s: closed", connection->peer);
  if (connection->broken) {
    ChannelDisconnect(channel);
  } else {
    /* ChannelClose's exchange waits the read time-out per step: sending the
     * close notification must not hold the stop. */
    ChannelSetReadTimeout(channel, CLOSE_NOTIFY_WAIT_MS);
  }
  ChannelClose(channel);
  ArrayFree(connection->line);
  free(connection);
}

/* Runs the handshake, then answers the connection's lines until the client
 * leaves, stays idle too long or the server stops. */
static void ServeTls(TlsSlot *slot, Connection *connection, int refuse) {
  Worker *worker = &slot->work;
  Channel *channel = connection->channel;
  int64_t waitOn[2];
  int serve;
  if (!ChannelStartSSL(channel, 0)) {
    LOG(LOG_DEBUG, "%s: %s", connection->peer, KZErrorMessage());
    connection->broken = 1;
    CloseTls(slot, connection);
    return;
  }
  if (refuse) {
    LOG(LOG_INFO, "%s: refused, every TLS thread is busy", connection->peer);
    if (!ChannelWriteString(channel, "ERR server busy\n") || !ChannelFlush(channel)) connection->broken = 1;
    CloseTls(slot, connection);
    return;
  }
  worker->connections++;
  /* From here reads take only what OpenSSL holds or the socket has. */
  ChannelSetReadTimeout(channel, 0);
  connection->lastActive = NowMs();
  waitOn[0] = connection->handle;
  waitOn[1] = ChannelSelectEventGetFD(&tlsStop);
  for (serve = 1;;) {
    int32_t timeout;
    int waited;
    /* Serve reads until nothing is left in OpenSSL or the socket (or a batch
     * is full): only then may the wait look at the socket alone. */
    if (serve && Serve(worker, connection) == CLOSE) break;
    timeout = connection->pending ? 0 : IdleLeft(connection, NowMs());
    waited = ChannelSelectFD(NULL, waitOn, 2, &worker->ready, timeout);
    if (waited == 0 && worker->ready.elements[1]) break; /* the stop */
    if (waited < 0 && KZErrorCode() != KZ_ERR_TIMEOUT) {
      KZMessage(KZ_LEVEL_ERROR, "%s: waiting failed: %s", connection->peer, KZErrorMessage());
      break;
    }
    /* Serving counts as activity: only input or a full batch is served. */
    serve = connection->pending || (waited == 0 && worker->ready.elements[0]);
    if (!serve && IdleLeft(connection, NowMs()) == 0) {
      LOG(LOG_DEBUG, "%s: idle for %" PRId32 " ms", connection->peer, settings.idleTimeout);
      break;
    }
  }
  CloseTls(slot, connection);
}

static int64_t TlsMain(void *argument) {
  TlsSlot *slot = (TlsSlot *)argument;
  Worker *worker = &slot->work;
  char name[32];
  snprintf(name, sizeof name, "kzurld tls %" PRIu32, worker->index);
  ThreadSetName(name);
  worker->url = URLNew();
  worker->normal = URLNew();
  MutexLock(&serverLock);
  for (;;) {
    Connection *connection;
    int refuse;
    while (!slot->connection && !stopping) ConditionWait(&slot->wake, &serverLock);
    connection = slot->connection;
    refuse = slot->refuse;
    if (!connection) break;
    if (stopping) {
      /* Handed over just before the stop: not worth a handshake. */
      MutexUnlock(&serverLock);
      connection->broken = 1;
      CloseTls(slot, connection);
    } else {
      MutexUnlock(&serverLock);
      ServeTls(slot, connection, refuse);
    }
    MutexLock(&serverLock);
  }
  MutexUnlock(&serverLock);
  URLDelete(worker->url);
  URLDelete(worker->normal);
  ArrayFree(worker->printed);
  ArrayFree(worker->answer);
  ArrayFree(worker->ready);
  MutexLock(&serverLock);
  workersRunning--;
  ConditionBroadcast(&workersDone);
  MutexUnlock(&serverLock);
  return 0;
}

/* Hands a freshly accepted TLS connection to a free thread of the pool (a
 * refusing one when every serving one is taken), starting the thread the
 * first time its slot is used; 0 when every slot is taken. */
static int HandToTls(Connection *connection) {
  TlsSlot *slot = NULL;
  uint32_t i;
  MutexLock(&serverLock);
  for (i = 0; i < tlsSlotCount && !slot; i++)
    if (!tlsSlots[i].connection) slot = &tlsSlots[i];
  if (slot) {
    slot->connection = connection;
    slot->refuse = (uint32_t)(slot - tlsSlots) >= settings.tlsConnections;
    if (!slot->started) {
      slot->started = 1;
      workersRunning++;
      slot->work.thread = ThreadCreate(TlsMain, slot, 0);
    } else {
      ConditionSignal(&slot->wake);
    }
  }
  MutexUnlock(&serverLock);
  return slot != NULL;
}

static int StartTls(void) {
  uint32_t i;
  if (!settings.tls) return 1;
  if (ChannelSelectEventNew(&tlsStop)->socket == KZ_INVALID_HANDLE) {
    fprintf(stderr, "kzurld: cannot create the TLS stop event: %s\n", KZErrorMessage());
    return 0;
  }
  tlsSlotCount = settings.tlsConnections + TLS_REFUSERS;
  tlsSlots = (TlsSlot *)Allocate0(sizeof(TlsSlot) * tlsSlotCount);
  for (i = 0; i < tlsSlotCount; i++) {
    tlsSlots[i].work.index = i + 1;
    ConditionInit(&tlsSlots[i].wake);
  }
  return 1;
}
#endif /* KZ_WITH_SSL */

/* ---- listening and accepting ------------------------------------------------------- */

typedef struct Listener {
  TCPServer *server;
  int local;
  int tls; /* the connections are handed to the TLS pool */
  char name[72];
} Listener;

static Listener listeners[2 * MAX_LISTEN_ADDRESSES + 1];
static uint32_t listenerCount;

static void AddressText(const TCPAddr *address, char *out, size_t size) {
  UByteArray text = {0};
  if (TCPAddrGetIPPort(address, &text))
    snprintf(out, size, "%s", (const char *)text.elements);
  else
    snprintf(out, size, "?");
  ArrayFree(text);
}

/* Opens one listener; port 0 takes the port the system chooses, which the
 * later listeners then share. */
static int Listen(TCPAddr *address, int local, int tls) {
  Listener *listener = &listeners[listenerCount];
  uint16_t *port = tls ? &settings.tlsPort : &settings.port;
  char text[64];
  AddressText(address, text, sizeof text);
  listener->server = TCPServerOpen(address);
  if (!listener->server) {
    fprintf(stderr, "kzurld: cannot listen on %s: %s\n", text, KZErrorMessage());
    return 0;
  }
  if (!local && *port == 0) {
    TCPAddr bound;
    if (TCPServerGetAddr(listener->server, &bound)) *port = bound.port;
    AddressText(&bound, text, sizeof text);
  }
  listener->local = local;
  listener->tls = tls;
  snprintf(listener->name, sizeof listener->name, "%s%s", tls ? "tls:" : "", text);
  listenerCount++;
  return 1;
}

/* The TCP listeners (TLS ones with tls set) on every listen address. */
static int OpenTcpListeners(int tls) {
  uint32_t i;
  for (i = 0; i < settings.listenCount; i++) {
    TCPAddr address = settings.listen[i];
    IPAddr ip;
    memcpy(ip.address, address.address, sizeof ip.address);
    ip.family = address.family;
    if (!IPAddrIsBindable(&ip)) {
      /* A machine without that family (IPv6 switched off): skip it rather
       * than refuse to serve on the others. */
      char text[72];
      AddressText(&address, text, sizeof text);
      KZMessage(KZ_LEVEL_ERROR, ":%s cannot be bound on this machine: skipped", text);
      continue;
    }
    address.port = tls ? settings.tlsPort : settings.port;
    if (!Listen(&address, 0, tls)) return 0;
  }
  return 1;
}

static int OpenListeners(void) {
  if (!OpenTcpListeners(0)) return 0;
  if (settings.local[0]) {
    TCPAddr address;
    char hostPort[64];
    snprintf(hostPort, sizeof hostPort, "/%s:%u", settings.local, (unsigned)settings.port);
    if (!TCPAddrSetHostPort(&address, hostPort) || !Listen(&address, 1, 0)) return 0;
  }
  if (settings.tls) {
    uint32_t before = listenerCount;
    if (!OpenTcpListeners(1)) return 0;
    if (listenerCount == before) {
      fprintf(stderr, "kzurld: none of the listen addresses can be bound for TLS\n");
      return 0;
    }
  }
  if (listenerCount == 0) {
    fprintf(stderr, "kzurld: none of the listen addresses can be bound\n");
    return 0;
  }
  return 1;
}

/* The worker with the fewest connections, or null when all are full. */
static Worker *LeastBusy(void) {
  Worker *best = NULL;
  uint32_t i;
  for (i = 0; i < settings.workers; i++)
    if (workers[i].assigned < MAX_PER_WORKER && (!best || workers[i].assigned < best->assigned)) best = &workers[i];
  return best;
}

static void Accept(Listener *listener) {
  /* Reads poll (time-out 0): a worker never waits on one client. Local
   * connections count their write time-out in seconds. A TLS connection's
   * read time-out bounds each step of its handshake, which its own thread
   * runs; the thread then sets it to 0. */
  int32_t writeTimeout = listener->local ? (settings.writeTimeout + 999) / 1000 : settings.writeTimeout;
  Channel *channel = ChannelNewEx(listener->tls ? settings.tlsHandshakeTimeout : 0, writeTimeout, -1);
  Connection *connection;
  Worker *worker;
  TCPAddr peer;
  if (!TCPServerAccept(listener->server, channel)) {
    LOG(LOG_DEBUG, "accept on %s failed: %s", listener->name, KZErrorMessage());
    ChannelClose(channel);
    return;
  }
  connection = (Connection *)Allocate0(sizeof *connection);
  connection->channel = channel;
  connection->handle = channel->handle;
  if (!listener->local && ChannelGetAddr(channel, &peer, 1))
    AddressText(&peer, connection->peer, sizeof connection->peer);
  else
    snprintf(connection->peer, sizeof connection->peer, "%s", listener->name);

#if KZ_WITH_SSL
  if (listener->tls) {
    if (HandToTls(connection)) {
      LOG(LOG_DEBUG, "%s: connected on %s", connection->peer, listener->name);
      return;
    }
    /* Not even a refusing thread is free: no handshake, no answer. */
    LOG(LOG_INFO, "%s: refused, every TLS thread is busy", connection->peer);
    ChannelDisconnect(channel);
    ChannelClose(channel);
    free(connection);
    return;
  }
#endif
  MutexLock(&serverLock);
  worker = LeastBusy();
  if (worker) {
    worker->inbox[worker->inboxCount++] = connection;
    worker->assigned++;
  }
  MutexUnlock(&serverLock);
  if (!worker) {
    LOG(LOG_INFO, "%s: refused, every worker is full", connection->peer);
    ChannelWriteString(channel, "ERR server busy\n");
    ChannelDisconnect(channel);
    ChannelClose(channel);
    free(connection);
    return;
  }
  LOG(LOG_DEBUG, "%s: connected on %s, worker %" PRIu32, connection->peer, listener->name, worker->index);
  ChannelSelectEventNotify(&worker->wake);
}

/* ---- the signal thread and the stop --------------------------------------------------- */

static ChannelSelectEvent stopEvent;

static int64_t SignalMain(void *argument) {
  sigset_t set;
  (void)argument;
  ThreadSetName("kzurld signals");
  StopSignals(&set);
  for (;;) {
    int received = 0;
    if (sigwait(&set, &received) != 0) continue;
    if (received == SIGHUP) {
      if (KZGetDaemonDir()) KZDaemonRotateLog(NULL, NULL, NULL, -1);
      continue;
    }
    LOG(LOG_INFO, "signal %d: stopping", received);
    ChannelSelectEventNotify(&stopEvent);
    return 0;
  }
}

/* Stops the workers: each closes its connections; a worker still writing to
 * a client that does not read after the grace time has its sockets shut
 * down under it, which ends the write at once. */
static void StopWorkers(void) {
  uint64_t deadline = NowMs() + STOP_GRACE_MS;
  uint32_t i, j;
  MutexLock(&serverLock);
  stopping = 1;
#if KZ_WITH_SSL
  for (i = 0; i < tlsSlotCount; i++) ConditionSignal(&tlsSlots[i].wake);
#endif
  MutexUnlock(&serverLock);
  for (i = 0; i < settings.workers; i++) ChannelSelectEventNotify(&workers[i].wake);
#if KZ_WITH_SSL
  if (settings.tls) ChannelSelectEventNotify(&tlsStop);
#endif
  MutexLock(&serverLock);
  for (;;) {
    uint64_t now = NowMs();
    if (workersRunning == 0 || now >= deadline) break;
    ConditionTimedWait(&workersDone, &serverLock, (uint32_t)(deadline - now));
  }
  if (workersRunning > 0) {
    for (i = 0; i < settings.workers; i++)
      for (j = 0; j < workers[i].servingCount; j++) ChannelDisconnectFD(workers[i].serving[j]->handle);
#if KZ_WITH_SSL
    /* TLS connections still in a handshake or a write. */
    for (i = 0; i < tlsSlotCount; i++)
      if (tlsSlots[i].connection) ChannelDisconnectFD(tlsSlots[i].connection->handle);
#endif
  }
  MutexUnlock(&serverLock);
  for (i = 0; i < settings.workers; i++) {
    ThreadJoin(workers[i].thread);
    ChannelDisconnect(workers[i].wakeChannel);
    ChannelClose(workers[i].wakeChannel);
    ChannelSelectEventFree(&workers[i].wake);
  }
#if KZ_WITH_SSL
  for (i = 0; i < tlsSlotCount; i++) {
    if (tlsSlots[i].started) ThreadJoin(tlsSlots[i].work.thread);
    ConditionDestroy(&tlsSlots[i].wake);
  }
  if (settings.tls) ChannelSelectEventFree(&tlsStop);
#endif
}

/* ---- command line ---------------------------------------------------------------------- */

static const char usage[] =
    "usage: kzurld [--config FILE] [--port N] [--local NAME]\n"
    "              [--tls-port N --cert FILE --key FILE] [-daemon [-rundir DIR]]\n"
    "Answers every URL line a client sends with its normalised form and fingerprint\n"
    "(the line kzurl prints for it) or \"ERR <reason>\".\n"
    "  --config FILE   configuration file (keys: see docs/kzurld.md)\n"
    "  --port N        TCP port for every listen address (0: the system picks one)\n"
    "  --local NAME    local connection name (\"\": none)\n"
    "  --tls-port N    TLS port for every listen address (0: the system picks one)\n"
    "  --cert FILE     certificate chain (PEM) for TLS; TLS is on when cert and key are set\n"
    "  --key FILE      its private key (PEM, unencrypted)\n"
    "  -daemon         run in the background, logging to the run directory\n"
    "Without --config it listens on 127.0.0.1 and ::1, port 7171, and on the local\n"
    "connection \"kzurld\".\n";

static int UsageError(const char *format, const char *word) {
  fprintf(stderr, "kzurld: ");
  fprintf(stderr, format, word);
  fprintf(stderr, "\n%s", usage);
  return 2;
}

static int ParseOptions(int argc, char **argv) {
  static const struct {
    const char *option, *key;
  } overrides[] = {{"--port", "port"}, {"--local", "local"}, {"--tls-port", "tls-port"},
                   {"--cert", "cert"}, {"--key", "key"},     {NULL, NULL}};
  const char *config = NULL;
  int i, k, status;
  for (i = 1; i < argc; i++) {
    const char *arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      fputs(usage, stdout);
      exit(0);
    }
    /* The daemon options are taken by KZSetDaemon later. */
    if (strcmp(arg, "-daemon") == 0 || strcmp(arg, "-service") == 0) continue;
    if (strcmp(arg, "-rundir") == 0) {
      if (++i == argc) return UsageError("%s needs a value", arg);
      continue;
    }
    if (strcmp(arg, "--config") == 0) {
      if (++i == argc) return UsageError("%s needs a value", arg);
      config = argv[i];
      continue;
    }
    for (k = 0; overrides[k].option; k++)
      if (strcmp(arg, overrides[k].option) == 0) break;
    if (!overrides[k].option) return UsageError("unknown option '%s'", arg);
    if (++i == argc) return UsageError("%s needs a value", arg);
  }
  if (config && !LoadConfigurationFile(config)) {
    fprintf(stderr, "kzurld: cannot load %s: %s\n", config, KZErrorMessage());
    return 2;
  }
  ReadConfigFileFromBuffer(defaultConfiguration, sizeof defaultConfiguration - 1, AddDefault, NULL);
  for (i = 1; i < argc; i++) {
    if (strcmp(argv[i], "-rundir") == 0 || strcmp(argv[i], "--config") == 0) {
      i++;
      continue;
    }
    for (k = 0; overrides[k].option; k++)
      if (strcmp(argv[i], overrides[k].option) == 0) {
        ConfigKeyReplaceString(overrides[k].key, argv[++i]);
        break;
      }
  }
  status = ReadSettings() ? 0 : 2;
  ArrayFree(valueText);
  return status;
}

int main(int argc, char **argv) {
  KZThread signalThread;
  UByteArray flags = {0};
  int64_t waitOn[2 * MAX_LISTEN_ADDRESSES + 2];
  sigset_t signals;
  uint64_t connections = 0, requests = 0, errors = 0;
  uint32_t i;
  int status;

  KZLibInit(argv[0]);
  if ((status = ParseOptions(argc, argv)) != 0) return status;
  /* Settled in the run directory from here on when asked; the files named in
   * the configuration were read before. */
  if (KZSetDaemon(&argc, argv, NULL, "kzurld") < 0) {
    fprintf(stderr, "kzurld: cannot start the daemon: %s\n", strerror(errno));
    return 1;
  }
  /* Blocked before any thread exists, so every thread inherits the mask and
   * only the signal thread takes these signals. */
  StopSignals(&signals);
  pthread_sigmask(SIG_BLOCK, &signals, NULL);

  if (!OpenListeners()) return 1;
#if KZ_WITH_SSL
  if (!StartTls()) return 1;
#endif
  if (ChannelSelectEventNew(&stopEvent)->socket == KZ_INVALID_HANDLE) {
    fprintf(stderr, "kzurld: cannot create the stop event: %s\n", KZErrorMessage());
    return 1;
  }
  ConditionInit(&workersDone);
  workers = (Worker *)Allocate0(sizeof(Worker) * settings.workers);
  for (i = 0; i < settings.workers; i++) {
    Worker *worker = &workers[i];
    worker->index = i + 1;
    if (ChannelSelectEventNew(&worker->wake)->socket == KZ_INVALID_HANDLE) {
      fprintf(stderr, "kzurld: cannot create a wake-up event: %s\n", KZErrorMessage());
      return 1;
    }
    /* A channel over the event's socket puts it into the worker's wait
     * next to the connections. */
    worker->wakeChannel = ChannelNew(-1, -1);
    ChannelSetChannelFD(worker->wakeChannel, ChannelSelectEventGetFD(&worker->wake), 0);
  }
  MutexLock(&serverLock);
  workersRunning = settings.workers;
  MutexUnlock(&serverLock);
  for (i = 0; i < settings.workers; i++) workers[i].thread = ThreadCreate(WorkerMain, &workers[i], 0);
  signalThread = ThreadCreate(SignalMain, NULL, 0);

  {
    UByteArray names = {0};
    UByteArrayPrintf(&names, "%s", "");
    for (i = 0; i < listenerCount; i++) UByteArrayPrintf(&names, " %s", listeners[i].name);
    if (settings.tls)
      LOG(LOG_INFO, "kzurld ready on%s (%" PRIu32 " workers, %" PRIu32 " TLS connections)",
          (const char *)names.elements, settings.workers, settings.tlsConnections);
    else
      LOG(LOG_INFO, "kzurld ready on%s (%" PRIu32 " workers)", (const char *)names.elements, settings.workers);
    ArrayFree(names);
  }
  fflush(stdout);

  waitOn[0] = ChannelSelectEventGetFD(&stopEvent);
  for (i = 0; i < listenerCount; i++) waitOn[1 + i] = TCPServerGetFD(listeners[i].server);
  for (;;) {
    if (ChannelSelectFD(NULL, waitOn, listenerCount + 1, &flags, -1) < 0) {
      KZMessage(KZ_LEVEL_ERROR, "waiting for clients failed: %s", KZErrorMessage());
      continue;
    }
    if (flags.elements[0]) break;
    for (i = 0; i < listenerCount; i++)
      if (flags.elements[1 + i]) Accept(&listeners[i]);
  }

  for (i = 0; i < listenerCount; i++) TCPServerClose(listeners[i].server);
  StopWorkers();
  ThreadJoin(signalThread);
  ChannelSelectEventFree(&stopEvent);
  for (i = 0; i < settings.workers; i++) {
    connections += workers[i].connections;
    requests += workers[i].requests;
    errors += workers[i].errors;
  }
#if KZ_WITH_SSL
  for (i = 0; i < tlsSlotCount; i++) {
    connections += tlsSlots[i].work.connections;
    requests += tlsSlots[i].work.requests;
    errors += tlsSlots[i].work.errors;
  }
  free(tlsSlots);
#endif
  LOG(LOG_INFO, "kzurld stopped: %" PRIu64 " connections, %" PRIu64 " requests, %" PRIu64 " answered ERR", connections,
      requests, errors);
  free(workers);
  ArrayFree(flags);
  if (settings.base) URLDelete(settings.base);
  ConditionDestroy(&workersDone);
  return 0;
}
