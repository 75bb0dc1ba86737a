/* kzurlc: the client of kzurld. Sends URL lines to the server and prints its
 * answers, so that
 *
 *   kzurlc --connect 127.0.0.1:7171 FILE...
 *
 * prints what "kzurl FILE..." prints: the answers on standard output and,
 * for the lines the server answers "ERR <reason>", "<file>:<line>: <reason>"
 * on standard error, with exit status 1 when there was such a line. --raw
 * prints every answer as it came, ERR lines included, on standard output.
 *
 *   kzurlc [--connect ADDRESS] [--tls [--ca FILE | --insecure]] [--raw]
 *          [--timeout MS] [FILE...]
 *
 * ADDRESS is HOST:PORT for TCP or /NAME[:PORT] for kzurld's local connection
 * (default 127.0.0.1:7171; a local name without port takes 7171). The files
 * are read in turn, standard input when none is given or a name is "-".
 * --tls speaks TLS to kzurld's TLS port; the server's certificate is verified
 * against the certificates of the --ca file, and must name HOST (an IP
 * address among its IP subjectAltNames), unless --insecure is given. One of
 * the two is required: there is no silent default trust.
 *
 * Lines go out as they are read, each exactly as it stands in the input
 * (carriage returns and all), and answers are read while more requests are
 * on the way: the client keeps sending until the answers it still expects
 * could fill about 96 KiB, then reads. Bounding that amount keeps both sides
 * from waiting on each other with full socket buffers. Empty lines are not
 * sent: the server does not answer them. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kz/kzlib.h"

/* The most answer bytes the client lets the server owe it. An answer takes at
 * most three bytes per request byte (percent escapes) plus what resolving
 * against the server's base adds; the estimate below is generous. */
#define WINDOW_BYTES            (96u * 1024u)
#define ANSWER_ESTIMATE(length) (3u * (length) + 256u)

typedef struct Pending {
  uint32_t file;   /* index into the file names */
  uint64_t line;   /* line number in that file */
  uint32_t budget; /* its share of the window */
} Pending;

typedef KZ_ARRAY(Pending) PendingArray;

typedef struct Client {
  Channel *server;
  const char **names;
  int raw;
  PendingArray queue; /* requests sent and not answered, oldest at head */
  uint32_t head;
  uint32_t owed; /* estimated answer bytes of the queue */
  UByteArray line, answer;
  uint64_t answers, errors;
} Client;

/* Why the last call failed: a system error, or the library's message. */
static const char *Reason(void) {
  if (errno == -1) return strerror(KZGetLastError());
  if (errno > 0) return strerror(errno);
  return KZErrorMessage();
}

static void Lost(Client *client, const char *what) {
  (void)client;
  fprintf(stderr, "kzurlc: %s: %s\n", what, Reason());
  fflush(stdout);
  exit(1);
}

/* Reads and prints the oldest outstanding answer. */
static void ReadAnswer(Client *client) {
  Pending *pending = &client->queue.elements[client->head++];
  const char *text;
  if (!ChannelReadLine(client->server, &client->answer, 0)) Lost(client, "no answer from the server");
  text = (const char *)client->answer.elements;
  client->answers++;
  client->owed -= pending->budget;
  if (!client->raw && strncmp(text, "ERR ", 4) == 0) {
    client->errors++;
    fprintf(stderr, "%s:%" PRIu64 ": %s\n", client->names[pending->file], pending->line, text + 4);
  } else {
    fwrite(text, 1, client->answer.count, stdout);
    fputc('\n', stdout);
  }
  if (client->head == client->queue.count) {
    client->head = client->queue.count = 0;
  } else if (client->head >= 1024 && client->head * 2 >= client->queue.count) {
    client->queue.count -= client->head;
    memmove(client->queue.elements, client->queue.elements + client->head, sizeof(Pending) * client->queue.count);
    client->head = 0;
  }
}

static void Send(Client *client, uint32_t file, uint64_t number) {
  UByteArray *line = &client->line;
  uint32_t length = line->count;
  Pending *pending;
  /* What the server takes for an empty line gets no answer: do not send it. */
  if (length == 0 || (length == 1 && line->elements[0] == '\r')) return;
  if (!ChannelWriteBuf(client->server, line->elements, length) || !ChannelWriteString(client->server, "\n"))
    Lost(client, "cannot send");
  if (client->queue.count == client->queue.capacity) ArrayGrow(client->queue);
  pending = &client->queue.elements[client->queue.count++];
  pending->file = file;
  pending->line = number;
  pending->budget = length > WINDOW_BYTES ? WINDOW_BYTES : ANSWER_ESTIMATE(length);
  client->owed += pending->budget;
  if (client->owed > WINDOW_BYTES) {
    if (!ChannelFlush(client->server)) Lost(client, "cannot send");
    while (client->owed > WINDOW_BYTES / 2) ReadAnswer(client);
  }
}

/* Sends every line of one input. */
static int SendInput(Client *client, uint32_t file) {
  const char *name = client->names[file];
  Channel *input = ChannelNew(-1, -1);
  uint64_t number = 0;
  int c;
  if (strcmp(name, "-") == 0 ? !ChannelSetFD(input, 0, 0) : !ChannelOpenFile(input, name, "r")) {
    fprintf(stderr, "kzurlc: cannot open %s: %s\n", name, Reason());
    ChannelClose(input);
    return 0;
  }
  client->line.count = 0;
  while ((c = ChannelReadByte(input)) >= 0) {
    if (c == '\n') {
      Send(client, file, ++number);
      client->line.count = 0;
    } else {
      if (client->line.count == client->line.capacity) ArrayGrow(client->line);
      client->line.elements[client->line.count++] = (unsigned char)c;
    }
  }
  if (client->line.count > 0) Send(client, file, ++number);
  if (c != KZ_RECEIVE_EOF) {
    fprintf(stderr, "kzurlc: cannot read %s: %s\n", name, KZErrorMessage());
    ChannelClose(input);
    return 0;
  }
  ChannelClose(input);
  return 1;
}

#if KZ_WITH_SSL
/* Trusts the --ca file and makes the next connect start TLS (the handshake
 * waits at most the time-out per step). */
static int StartTls(Channel *server, const char *connect, const char *ca, int insecure) {
  (void)insecure;
  if (ca && !SetVerifyCertPath(ca, NULL)) {
    fprintf(stderr, "kzurlc: cannot use %s: %s\n", ca, KZErrorMessage());
    return 0;
  }
  if (!ChannelSetSSL(server, 1)) {
    fprintf(stderr, "kzurlc: cannot speak TLS to %s: %s\n", connect, KZErrorMessage());
    return 0;
  }
  return 1;
}

/* The server's certificate must chain to the --ca certificates and name the
 * host of the address (brackets of an IPv6 literal taken off). */
static int VerifyServer(Channel *server, const char *connect) {
  char host[300];
  const char *colon = strrchr(connect, ':');
  size_t length = colon ? (size_t)(colon - connect) : strlen(connect);
  if (length >= 2 && connect[0] == '[' && connect[length - 1] == ']') connect++, length -= 2;
  snprintf(host, sizeof host, "%.*s", (int)length, connect);
  if (ChannelVerifyCertSSL(server, host)) return 1;
  fprintf(stderr, "kzurlc: the server at %s is not trusted: %s\n", host, KZErrorMessage());
  return 0;
}
#else
static int StartTls(Channel *server, const char *connect, const char *ca, int insecure) {
  (void)server, (void)connect, (void)ca, (void)insecure;
  fprintf(stderr, "kzurlc: TLS is not available in this build\n");
  return 0;
}

static int VerifyServer(Channel *server, const char *connect) {
  (void)server, (void)connect;
  return 0;
}
#endif

static const char usage[] =
    "usage: kzurlc [--connect ADDRESS] [--tls [--ca FILE | --insecure]] [--raw] [--timeout MS] [FILE...]\n"
    "Sends the URL lines of the files (standard input when none, or \"-\") to kzurld\n"
    "and prints its answers as kzurl prints its lines.\n"
    "  --connect ADDRESS  HOST:PORT, or /NAME[:PORT] for the local connection\n"
    "                     (default 127.0.0.1:7171)\n"
    "  --tls              TLS (to kzurld's TLS port); needs --ca or --insecure\n"
    "  --ca FILE          verify the server's certificate against these (PEM) and HOST\n"
    "  --insecure         do not verify the server's certificate\n"
    "  --raw              print every answer, ERR lines included, on standard output\n"
    "  --timeout MS       give up when the server is silent this long (default 30000)\n";

static int UsageError(const char *format, const char *word) {
  fprintf(stderr, "kzurlc: ");
  fprintf(stderr, format, word);
  fprintf(stderr, "\n%s", usage);
  return 2;
}

int main(int argc, char **argv) {
  static const char *standardInput[] = {"-"};
  Client client;
  const char *connect = "127.0.0.1:7171";
  char hostPort[300];
  TCPAddr address;
  const char *ca = NULL;
  int tls = 0, insecure = 0;
  int32_t timeout = 30000, ioTimeout, i, first = argc, failed = 0;
  uint32_t files, file;

  KZLibInit(argv[0]);
  memset(&client, 0, sizeof client);
  for (i = 1; i < argc; i++) {
    const char *arg = argv[i];
    if (strcmp(arg, "--") == 0) {
      first = i + 1;
      break;
    }
    if (arg[0] != '-' || strcmp(arg, "-") == 0) {
      first = i;
      break;
    }
    if (strcmp(arg, "--connect") == 0 || strcmp(arg, "--timeout") == 0) {
      if (i + 1 == argc) return UsageError("%s needs a value", arg);
      if (arg[2] == 'c') {
        connect = argv[++i];
      } else {
        int32_t error = 0;
        const char *value = argv[++i];
        timeout = ParseInt(value, (uint32_t)strlen(value), 10, &error);
        if (error || timeout < 1) return UsageError("--timeout takes milliseconds, not '%s'", value);
      }
    } else if (strcmp(arg, "--ca") == 0) {
      if (i + 1 == argc) return UsageError("%s needs a value", arg);
      ca = argv[++i];
    } else if (strcmp(arg, "--tls") == 0) {
      tls = 1;
    } else if (strcmp(arg, "--insecure") == 0) {
      insecure = 1;
    } else if (strcmp(arg, "--raw") == 0) {
      client.raw = 1;
    } else if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      fputs(usage, stdout);
      return 0;
    } else {
      return UsageError("unknown option '%s'", arg);
    }
  }
  /* A local name without port is kzurld's default one. */
  snprintf(hostPort, sizeof hostPort, connect[0] == '/' && !strchr(connect, ':') ? "%s:7171" : "%s", connect);
  if (!TCPAddrSetHostPort(&address, hostPort)) {
    fprintf(stderr, "kzurlc: bad address '%s': %s\n", connect, KZErrorMessage());
    return 2;
  }
  if ((ca || insecure) && !tls) return UsageError("%s goes with --tls", ca ? "--ca" : "--insecure");
  if (tls && !ca && !insecure) return UsageError("%s needs --ca FILE to verify the server, or --insecure", "--tls");
  if (tls && address.family == KZ_FAMILY_LOCAL) return UsageError("%s needs a TCP address", "--tls");
  /* Local connections count their write and connect time-outs in seconds. */
  ioTimeout = address.family == KZ_FAMILY_LOCAL ? (timeout + 999) / 1000 : timeout;
  client.server = ChannelNewEx(timeout, ioTimeout, ioTimeout);
  if (tls && !StartTls(client.server, connect, ca, insecure)) {
    ChannelClose(client.server);
    return 1;
  }
  if (!ChannelConnect(client.server, &address)) {
    fprintf(stderr, "kzurlc: cannot connect to %s: %s\n", connect, Reason());
    ChannelClose(client.server);
    return 1;
  }
  if (tls && !insecure && !VerifyServer(client.server, connect)) {
    ChannelDisconnect(client.server);
    ChannelClose(client.server);
    return 1;
  }

  client.names = first < argc ? (const char **)(argv + first) : standardInput;
  files = first < argc ? (uint32_t)(argc - first) : 1;
  for (file = 0; file < files; file++)
    if (!SendInput(&client, file)) failed = 1;
  if (!ChannelFlush(client.server)) Lost(&client, "cannot send");
  while (client.head < client.queue.count) ReadAnswer(&client);

  ChannelClose(client.server);
  ArrayFree(client.queue);
  ArrayFree(client.line);
  ArrayFree(client.answer);
  if (fflush(stdout) != 0) {
    fprintf(stderr, "kzurlc: cannot write output: %s\n", strerror(errno));
    return 1;
  }
  return failed || client.errors ? 1 : 0;
}
