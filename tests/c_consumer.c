/* Compiled as strict C99: every public header must be usable from C. Calls at
 * least one function of every family through the umbrella header. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kz/kzlib.h"

static int failures = 0;

static KZMutex counterLock = KZ_MUTEX_INITIALIZER;
static int counter = 0;

static int64_t AddHundred(void *argument) {
  int i;
  for (i = 0; i < 100; i++) {
    MutexLock(&counterLock);
    counter++;
    MutexUnlock(&counterLock);
  }
  return (int64_t)(intptr_t)argument * 2;
}

static int32_t CompareInts(const void *a, const void *b, void *context) {
  int x = *(const int *)a, y = *(const int *)b;
  (void)context;
  return x < y ? -1 : x > y;
}
#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      failures++;                                                                   \
    }                                                                               \
  } while (0)

static void CountEntropy(void *argument, const void *bytes, size_t length) {
  (void)bytes;
  *(size_t *)argument += length;
}

int main(void) {
  /* memory */
  char *copy = Strdup("kz");
  CHECK(strcmp(copy, "kz") == 0);
  free(copy);

  /* array */
  {
    KZ_ARRAY(int) numbers = {0, 0, 0};
    int i;
    for (i = 0; i < 100; i++) ArrayAppend(numbers, i * i);
    CHECK(ArrayLength(numbers) == 100 && ArrayNth(numbers, 99) == 9801);
    CHECK(numbers.capacity == 256);
    ArrayFree(numbers);
    CHECK(ArrayNextSize(0, 1, 4294967295u) == 4);
  }

  /* error */
  KZErrorThrow(KZ_ERR_TIMEOUT, "waited %d ms", 50);
  CHECK(KZErrorCode() == KZ_ERROR_CODE(2, 2));
  CHECK(strcmp(KZErrorMessage(), "waited 50 ms") == 0);
  KZErrorClear();
  CHECK(KZErrorCode() == 0);

  /* message */
  CHECK(KZGetMessageStream(0) == stdout);

  /* format */
  {
    UByteArray text = {0, 0, 0};
    int32_t error = 1;
    CHECK(UByteArrayPrintf(&text, "%I64u-%s", (unsigned long long)18446744073709551615ull, "x") == 1);
    CHECK(strcmp((char *)text.elements, "18446744073709551615-x") == 0);
    ArrayFree(text);
    CHECK(ParseULong("ff", 2, 16, &error) == 255 && error == 0);
    CHECK(Hash32("", 0) == 0x811c9dc5u);
  }

  /* init */
  KZLibInit("/usr/local/bin/c_consumer");
  CHECK(strcmp(KZProgramName(), "c_consumer") == 0);
  CHECK(strcmp(KZVersionString(), "6.3.20826") == 0);

  /* sort */
  {
    int values[] = {5, 3, 9, 1, 7};
    QSort(values, 5, sizeof values[0], CompareInts, NULL);
    CHECK(values[0] == 1 && values[4] == 9);
  }

  /* thread and lock */
  {
    KZThread first = ThreadCreate(AddHundred, (void *)(intptr_t)21, 0);
    KZThread second = ThreadCreate(AddHundred, (void *)(intptr_t)4, 0);
    CHECK(ThreadJoin(first) == 42);
    CHECK(ThreadJoin(second) == 8);
    CHECK(counter == 200);
  }
  {
    KZRWLock lock = KZ_RWLOCK_INITIALIZER;
    CHECK(RWLockAcquireReadTimeout(&lock, 0) == 1);
    RWLockRelease(&lock);
    RWLockDestroy(&lock);
  }

  /* URLs */
  {
    URL base, url;
    UByteArray printed = {0, 0, 0};
    URLInit(&base);
    URLInit(&url);
    CHECK(URLParse("http://Example.COM:80/a/b?q", &base, NULL, 1) == 1);
    CHECK(URLParse("../c", &url, &base, 1) == 1);
    CHECK(strcmp(URLPrint(&printed, &url), "http://example.com/c") == 0);
    CHECK(URLFingerprint(&url, 1) == Fingerprint("example.com/c", 13));
    CHECK(URLParse("mailto:x", &url, NULL, 1) == 0 && strcmp(KZErrorMessage(), "invalid scheme") == 0);
    ArrayFree(printed);
    URLFree(&base);
    URLFree(&url);
  }

  /* unicode, codec, compress */
  {
    UShortArray units = {0, 0, 0};
    UByteArray bytes = {0, 0, 0}, packed = {0, 0, 0};
    KZCompress *stream = CompressNew(1, 1);
    CHECK(UCS2Encode(&units, "A\xC3\xA9", 3) == 1 && units.count == 2 && units.elements[1] == 0xE9);
    Base64Encode(&bytes, "abc", 3, 0);
    CHECK(bytes.count == 4 && memcmp(bytes.elements, "YWJj", 4) == 0);
    CHECK(CompressDeflate(stream, "abc", 3, &packed) == 1);
    bytes.count = 0;
    CHECK(CompressInflate(stream, packed.elements, packed.count, &bytes) == 0 && bytes.count == 3);
    CompressDelete(stream);
    ArrayFree(units);
    ArrayFree(bytes);
    ArrayFree(packed);
  }

#ifndef KZ_LEFT_OUT_NET /* families not built for this platform are left out */
  /* addresses and channels: a memory writer, then a memory reader over what it wrote */
  {
    UByteArray written = {0, 0, 0}, line = {0, 0, 0};
    Channel *channel = ChannelNew(-1, -1);
    IPAddr ip;
    TCPAddr address;
    int c;
    CHECK(IPAddrSetIP(&ip, "[::1]") == 1 && ip.family == KZ_FAMILY_IPV6);
    CHECK(TCPAddrSetHostPort(&address, "127.0.0.1:80") == 1 && address.port == 80);
    CHECK(ChannelMemoryWriter(channel, &written) == 1);
    CHECK(ChannelWriteString(channel, "id ") && ChannelWriteHexInt(channel, 255) &&
          ChannelWriteString(channel, "\r\n"));
    CHECK(ChannelFlush(channel) == 1 && written.count == 13);
    CHECK(ChannelMemoryReader(channel, written.elements, written.count) == 1);
    c = ChannelPeekByte(channel);
    CHECK(c == 'i' && ChannelReadByte(channel) == 'i');
    CHECK(ChannelReadLine(channel, &line, 0) == 1 && strcmp((char *)line.elements, "d 000000ff") == 0);
    CHECK(ChannelGetMemorySize(channel) == 23536);
    CHECK(ChannelClose(channel) == 1);
    ArrayFree(written);
    ArrayFree(line);
  }

  /* servers, datagrams and select: a loopback datagram wakes a wait */
  {
    TCPAddr local, bound;
    UByteArray flags = {0, 0, 0};
    ChannelSelectEvent event;
    TCPServer *server;
    int64_t receiver, sockets[1];
    char datagram[8];
    size_t count = 0;
    TCPAddrLocal(&local, KZ_FAMILY_IPV4, 0);
    server = TCPServerOpen(&local);
    CHECK(server != NULL && TCPServerGetAddr(server, &bound) == 1 && bound.port != 0);
    CHECK(server != NULL && TCPServerClose(server) == 1);
    receiver = UDPNew(&local);
    CHECK(receiver != KZ_INVALID_HANDLE && UDPGetAddr(receiver, &bound, 0) == 1);
    CHECK(UDPSendBuf(&bound, "ping", 4) == 1);
    CHECK(UDPReceiveBytes(receiver, datagram, sizeof datagram, &count) == 1 && count == 4);
    CHECK(UDPClose(receiver) == 1);
    CHECK(ChannelSelectEventNew(&event)->socket != KZ_INVALID_HANDLE);
    CHECK(ChannelSelectEventNotify(&event) == 1);
    sockets[0] = ChannelSelectEventGetFD(&event);
    CHECK(ChannelSelectFD(ChannelSelectContextNew(), sockets, 1, &flags, 1000) == 0 && flags.elements[0] == 1);
    CHECK(ChannelSelectEventNotifyReset(&event) == 1 && ChannelSelectEventFree(&event) == 1);
    ArrayFree(flags);
  }
#endif

#if KZ_WITH_SSL
  /* SSL: start-up, the switches, and a channel without a session */
  {
    Channel *channel = ChannelNew(-1, -1);
    CHECK(SSLInit() == 1);
    CHECK(ChannelSetSSL(channel, 1) == 1 && channel->sslRequested == 1 && ChannelIsSSL(channel) == 0);
    CHECK(ChannelStartSSL(channel, 1) == 0 && KZErrorCode() == KZ_ERR_SSL);
    CHECK(strcmp(ChannelGetSSLVersion(channel), "UNKNOWN") == 0 && ChannelLeaveSSL(channel) == 1);
    ChannelRequireCertSSL(channel, 1);
    CHECK(ChannelEnsureSSLContext(channel) == 1 && channel->sslContext != NULL);
    CHECK(ChannelClose(channel) == 1);
  }
#endif

  /* random */
  {
    KZRand rng;
    size_t entropyBytes = 0;
    CHECK(KZRandInit(&rng, 0) == 11);
    CHECK(KZRandUInt(&rng) == 0 && KZRandUInt(&rng) == 0x40942Du);
    KZRandEntropyGet(CountEntropy, &entropyBytes);
    CHECK(entropyBytes > 0);
  }

#ifndef KZ_LEFT_OUT_FILE
  /* files, paths and directories */
  {
    UByteArray name = {0, 0, 0}, where = {0, 0, 0};
    FileLock *lock;
    void *dir;
    uint32_t attributes = 0;
    int fd, entries = 0;
    AppendTemporaryDirectory(&where);
    MakeTemporaryFileName(&where, "kzc", ".tmp");
    fd = FileOpenFlags(NULL, (const char *)where.elements, KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0600, 0);
    CHECK(fd >= 0 && write(fd, "kz", 2) == 2 && close(fd) == 0);
    CHECK(FileSize((const char *)where.elements) == 2 && FileIsFile((const char *)where.elements) == 1);
    lock = FileLockAcquire(NULL, (const char *)where.elements, 1, 0);
    CHECK(lock != NULL && FileLockAcquire(NULL, (const char *)where.elements, 1, 0) == NULL && errno == 16);
    CHECK(lock != NULL && FileLockRelease(lock) == 1);
    dir = DirectoryOpen("/");
    CHECK(dir != NULL);
    while (dir && DirectoryNext(dir, &name, &attributes) == 1) entries++;
    DirectoryClose(dir);
    CHECK(entries > 0);
    CHECK(FileRemove((const char *)where.elements) == 1 && PathIsAbsolute("/x") == 1);
    ArrayFree(name);
    ArrayFree(where);
  }
#endif

#if !defined(KZ_LEFT_OUT_CONFIG) && !defined(KZ_LEFT_OUT_ENV)
  /* configuration and environment */
  {
    static const char text[] = "c.port 8080\nc.name \"a b\" c\n";
    UByteArray value = {0, 0, 0};
    StringArray env = {0, 0, 0};
    char *entries[] = {"PATH=/bin", 0};
    char buffer[16];
    CHECK(LoadConfigurationKeys(text, sizeof text - 1) == 1);
    CHECK(ConfigKeyGetInt("c.port", 0) == 8080);
    CHECK(strcmp(ConfigKeyGetString("c.name", 0, &value), "a b c") == 0);
    CHECK(ConfigKeyExpandVariables("${c.port}", 9, &value) == 1 && strcmp((char *)value.elements, "a b c8080") == 0);
    CHECK(ConfigKeyRemove("c.") == 1 && ConfigKeyGetInt("c.port", -1) == -1);
    CHECK(KZSetEnvironmentVariable("KZ_C_CONSUMER", "\xC3\xA9") == 1);
    CHECK(KZGetEnvironmentVariable("KZ_C_CONSUMER", buffer, sizeof buffer) == 1 && strcmp(buffer, "\xC3\xA9") == 0);
    StringArrayAppend(&env, entries);
    CHECK(StringArrayEnvSet(&env, "path", "/usr/bin") == 0 && strcmp(StringArrayEnvGet(&env, "PATH"), "/usr/bin") == 0);
    StringArrayClear(&env);
    ArrayFree(env);
    ArrayFree(value);
  }
#endif

#if !defined(KZ_LEFT_OUT_PROCESS) && !defined(KZ_LEFT_OUT_DAEMON)
  /* processes, libraries and daemon logs */
  {
    char *argv[] = {"sh", "-c", "exit 3", 0};
    int exitCode = -1, signal = -1;
    Process *child = ProcessExecuteDontInheritHandles("/bin/sh", argv, 0, -1, -1, -1);
    UByteArray line = {0, 0, 0};
    CHECK(child != 0 && ProcessWait(child, 1, &exitCode, &signal) == 1 && exitCode == 3 && signal == 0);
    CHECK(ProcessCommandLine(&line, argv) == 1 && strcmp((char *)line.elements, "sh -c \"exit 3\"") == 0);
    CHECK(ProcessGetId(ProcessGetCurrent()) == (unsigned int)getpid());
    CHECK(OpenDLL(0) != 0);
    CHECK(KZGetDaemonDir() == 0 && KZDaemonPurgeLogDays(0, 1) == 1);
    ArrayFree(line);
  }
#endif

  if (failures) return 1;
  printf("c_consumer: all checks passed\n");
  return 0;
}
