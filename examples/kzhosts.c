/* kzhosts: counts the host names in a list of URLs (one per line) and prints
 * the most frequent ones.
 *
 *   kzhosts [file [top]]
 *
 * With no file it reads standard input. Shows the library's arrays, hashes,
 * sorting, number parsing, formatted output, errors and messages working
 * together in an ordinary C program. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kz/kzlib.h"

typedef struct HostCount {
  uint64_t hash;
  char *host;
  uint32_t count;
} HostCount;

typedef struct HostTable {
  KZ_ARRAY(int32_t) slots; /* open addressing: index into hosts, -1 empty */
  KZ_ARRAY(HostCount) hosts;
} HostTable;

static void TableRehash(HostTable *table, uint32_t size) {
  uint32_t i;
  ArrayFree(table->slots);
  ArrayGrowExact(table->slots, size);
  table->slots.count = size;
  for (i = 0; i < size; i++) table->slots.elements[i] = -1;
  for (i = 0; i < table->hosts.count; i++) {
    uint32_t at = (uint32_t)(table->hosts.elements[i].hash & (size - 1));
    while (table->slots.elements[at] >= 0) at = (at + 1) & (size - 1);
    table->slots.elements[at] = (int32_t)i;
  }
}

static void TableAdd(HostTable *table, const char *host, uint32_t length) {
  uint64_t hash = Hash64(host, length);
  uint32_t mask, at;
  if ((table->hosts.count + 1) * 2 > table->slots.count) {
    TableRehash(table, table->slots.count ? table->slots.count * 2 : 1024);
  }
  mask = table->slots.count - 1;
  for (at = (uint32_t)(hash & mask); table->slots.elements[at] >= 0; at = (at + 1) & mask) {
    HostCount *entry = &table->hosts.elements[table->slots.elements[at]];
    if (entry->hash == hash && strncmp(entry->host, host, length) == 0 && entry->host[length] == '\0') {
      entry->count++;
      return;
    }
  }
  {
    HostCount entry;
    entry.hash = hash;
    entry.host = Strndup(host, length);
    entry.count = 1;
    table->slots.elements[at] = (int32_t)table->hosts.count;
    ArrayAppend(table->hosts, entry);
  }
}

/* The host of "scheme://[user@]host[:port][/...]", lower-cased in place. */
static int ExtractHost(char *line, char **host, uint32_t *length) {
  char *start = strstr(line, "://");
  char *end, *at, *p;
  if (!start) return 0;
  start += 3;
  end = start + strcspn(start, "/?#");
  at = memchr(start, '@', (size_t)(end - start));
  if (at) start = at + 1;
  if (*start == '[') {
    p = memchr(start, ']', (size_t)(end - start));
    if (p) end = p + 1;
  } else {
    p = memchr(start, ':', (size_t)(end - start));
    if (p) end = p;
  }
  if (end == start) return 0;
  for (p = start; p < end; p++)
    if (*p >= 'A' && *p <= 'Z') *p = (char)(*p - 'A' + 'a');
  *host = start;
  *length = (uint32_t)(end - start);
  return 1;
}

static int32_t ByCountThenName(const void *a, const void *b, void *context) {
  const HostCount *x = (const HostCount *)a, *y = (const HostCount *)b;
  (void)context;
  if (x->count != y->count) return x->count > y->count ? -1 : 1;
  return strcmp(x->host, y->host);
}

static int CountFile(const char *path, HostTable *table, uint64_t *lines, uint64_t *skipped) {
  FILE *input = path ? fopen(path, "rb") : stdin;
  char buffer[8192];
  if (!input) {
    KZErrorThrow(KZ_ERROR_CODE(0, errno), "%s", strerror(errno));
    KZErrorRethrow("cannot open \"%s\"", path);
    return 0;
  }
  while (fgets(buffer, sizeof buffer, input)) {
    char *host;
    uint32_t length;
    (*lines)++;
    buffer[strcspn(buffer, "\r\n")] = '\0';
    if (ExtractHost(buffer, &host, &length))
      TableAdd(table, host, length);
    else
      (*skipped)++;
  }
  if (path) fclose(input);
  return 1;
}

int main(int argc, char **argv) {
  HostTable table;
  UByteArray report = {0, 0, 0};
  uint64_t lines = 0, skipped = 0;
  uint32_t top = 10, i;
  int32_t error = 0;

  memset(&table, 0, sizeof table);
  if (argc > 2) {
    top = ParseUInt(argv[2], (uint32_t)strlen(argv[2]), 10, &error);
    if (error || top == 0) {
      KZMessage(3, ":invalid count '%s': expected a positive decimal number", argv[2]);
      return 2;
    }
  }
  if (!CountFile(argc > 1 ? argv[1] : NULL, &table, &lines, &skipped)) {
    KZMessageWithError(3, ":giving up");
    return 1;
  }

  QSort(table.hosts.elements, table.hosts.count, sizeof(HostCount), ByCountThenName, NULL);

  UByteArrayPrintf(&report, "%I64u lines, %u distinct hosts, %I64u without a host\n", (unsigned long long)lines,
                   table.hosts.count, (unsigned long long)skipped);
  for (i = 0; i < top && i < table.hosts.count; i++) {
    const HostCount *entry = &table.hosts.elements[i];
    UByteArrayPrintf(&report, "%8u  %5.1f%%  %s  (%016I64x)\n", entry->count,
                     lines ? 100.0 * entry->count / (double)lines : 0.0, entry->host, (unsigned long long)entry->hash);
  }
  fwrite(report.elements, 1, report.count, stdout);

  for (i = 0; i < table.hosts.count; i++) free(table.hosts.elements[i].host);
  ArrayFree(table.hosts);
  ArrayFree(table.slots);
  ArrayFree(report);
  return 0;
}
