/* Compiled as strict C99: every public header must be usable from C. Calls at
 * least one function of every family through the umbrella header. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
#define CHECK(condition)                                                   \
  do {                                                                     \
    if (!(condition)) {                                                    \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      failures++;                                                          \
    }                                                                      \
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

  /* addresses and URLs */
  {
    IPAddr address;
    URL base, url;
    UByteArray printed = {0, 0, 0};
    CHECK(IPAddrSetIP(&address, "[::1]") == 1 && address.family == KZ_FAMILY_IPV6);
    URLInit(&base);
    URLInit(&url);
    CHECK(URLParse("http://Example.COM:80/a/b?q", &base, NULL, 1) == 1);
    CHECK(URLParse("../c", &url, &base, 1) == 1);
    CHECK(strcmp(URLPrint(&printed, &url), "http://example.com/c") == 0);
    CHECK(URLFingerprint(&url, 1) == Fingerprint("example.com/c", 13));
    {
      URL normalised;
      URLInit(&normalised);
      URLNormalize(&normalised, &url);
      CHECK(URLFingerprint(&normalised, 0) == URLFingerprint(&url, 1));
      CHECK(URLHostFingerprint(&normalised) == URLHostFingerprint(&url));
      CHECK((URLTopDomainHash(&normalised) >> 32) == 0);
      URLFree(&normalised);
    }
    CHECK(URLParse("mailto:x", &url, NULL, 1) == 0 && strcmp(KZErrorMessage(), "invalid scheme") == 0);
    ArrayFree(printed);
    URLFree(&base);
    URLFree(&url);
  }

  /* unicode */
  {
    UShortArray units = {0, 0, 0};
    UIntArray points = {0, 0, 0};
    UByteArray bytes = {0, 0, 0};
    CHECK(UCS2Encode(&units, "A\xC3\xA9", 3) == 1);
    CHECK(units.count == 2 && units.elements[0] == 0x41 && units.elements[1] == 0xE9 && units.elements[2] == 0);
    CHECK(UCS2Decode(&bytes, units.elements, units.count) == 1);
    CHECK(bytes.count == 3 && strcmp((const char *)bytes.elements, "A\xC3\xA9") == 0);
    CHECK(UCS4Encode(&points, "\xF0\x9F\x98\x80", 4) == 1 && points.count == 1 && points.elements[0] == 0x1F600);
    bytes.count = 0;
    CHECK(UCS4Decode(&bytes, points.elements, points.count) == 1 && bytes.count == 4);
    bytes.count = 0;
    CHECK(ISO88591Encode(&bytes, "\xC3\xBF", 2) == 1 && bytes.count == 1 && bytes.elements[0] == 0xFF);
    CHECK(ISO88591Decode(&bytes, "\xE9", 1) == 1 && bytes.count == 3);
    units.count = 0;
    CHECK(UCS2Encode(&units, "\x80", 1) == 0 && KZErrorCode() == KZ_ERR_PROTOCOL);
    CHECK(strcmp(KZErrorMessage(), "Invalid UTF-8 sequence") == 0);
    KZErrorClear();
    ArrayFree(units);
    ArrayFree(points);
    ArrayFree(bytes);
  }

  /* codec */
  {
    UByteArray text = {0, 0, 0}, bytes = {0, 0, 0};
    Base64Encode(&text, "abc", 3, 0);
    CHECK(text.count == 4 && memcmp(text.elements, "YWJj", 4) == 0);
    Base64Decode(&bytes, "YW Jj\r\n", 7);
    CHECK(bytes.count == 3 && memcmp(bytes.elements, "abc", 3) == 0);
    text.count = 0;
    QPEncode(&text, "a=b", 3, 0);
    CHECK(text.count == 5 && memcmp(text.elements, "a=3Db", 5) == 0);
    bytes.count = 0;
    QPDecode(&bytes, "a=\r\nb", 5);
    CHECK(bytes.count == 2 && memcmp(bytes.elements, "ab", 2) == 0);
    ArrayFree(text);
    ArrayFree(bytes);
  }

  /* compress */
  {
    static const char data[] = "compress me, compress me, compress me";
    UByteArray packed = {0, 0, 0}, unpacked = {0, 0, 0};
    KZCompress *stream = CompressNew(1, 1);
    CHECK(CompressDeflate(stream, data, (uint32_t)strlen(data), &packed) == 1);
    CHECK(CompressInflate(stream, packed.elements, packed.count, &unpacked) == 0);
    CHECK(unpacked.count == strlen(data) && memcmp(unpacked.elements, data, unpacked.count) == 0);
    CHECK(CompressInflate(stream, packed.elements, packed.count / 2, &unpacked) == -1);
    CompressDelete(stream);
    ArrayFree(packed);
    ArrayFree(unpacked);
  }

  /* random */
  {
    KZRand rng;
    size_t entropyBytes = 0;
    CHECK(KZRandInit(&rng, 0) == 11);
    CHECK(KZRandUInt(&rng) == 0 && KZRandUInt(&rng) == 0x40942Du && KZRandUInt(&rng) == 0xAA8544Eu);
    CHECK(KZRandZipf(&rng, 2.0) >= 1);
    CHECK(KZRandULong(NULL) != KZRandULong(NULL));
    KZRandEntropyGet(CountEntropy, &entropyBytes);
    CHECK(entropyBytes > 0);
  }

  if (failures) return 1;
  printf("c_consumer: all checks passed\n");
  return 0;
}
