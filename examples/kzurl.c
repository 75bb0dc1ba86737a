/* kzurl: parses URLs, one per line, and prints each in its normalised form
 * followed by a fingerprint.
 *
 *   kzurl [--print url|host] [--top] [--base URL] [--dedup] [--no-strict] [FILE...]
 *
 * Reads the files in turn, or standard input when none is given or a name is
 * "-". Every non-empty line is parsed as a URL (relative references resolve
 * against --base) and printed as
 *
 *   <normalised url> <16 hexadecimal digits>
 *
 * where the number is the URL's fingerprint, its host fingerprint with
 * --print host, or its top-domain hash with --top. --dedup prints only the
 * first line for each distinct number. --no-strict lets ".." above the root of
 * a relative reference stay at the root instead of failing. Options come
 * before the file names; after "--" every word is a file name.
 *
 * A line that does not parse is reported on standard error as
 * "<file>:<line>: <reason>" and skipped. The exit status is 0 when every line
 * parsed, 1 when a line failed or a file could not be read, 2 for a usage
 * error.
 *
 * Memory stays constant however long the input is: the input is read in
 * blocks and split into lines in place, the URL records are reused from line
 * to line and the output goes out in large blocks. Only the --dedup set grows,
 * by one slot pair per distinct fingerprint. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kz/kzlib.h"

#define READ_BLOCK  65536u /* bytes asked of fread at a time */
#define WRITE_BLOCK 65536u /* output is written once this much has collected */

enum { FINGERPRINT_URL, FINGERPRINT_HOST, FINGERPRINT_TOP };

/* ---- the set of fingerprints already printed (--dedup) ----------------------- */

typedef KZ_ARRAY(uint64_t) U64Array;

typedef struct FingerprintSet {
  U64Array slots; /* open addressing, linear probing; 0 = empty */
  uint32_t bits;  /* slots.count == 1 << bits */
  uint64_t used;  /* non-zero fingerprints stored */
  int hasZero;    /* 0 itself cannot be stored in a slot */
} FingerprintSet;

static uint32_t SlotOf(uint64_t key, uint32_t bits) {
  /* Fingerprints are well mixed, top-domain hashes fill only the low 32
   * bits: a multiplicative hash spreads both over the table. */
  return (uint32_t)((key * 0x9e3779b97f4a7c15ull) >> (64 - bits));
}

static void SetPlace(FingerprintSet *set, uint64_t key) {
  uint32_t mask = set->slots.count - 1;
  uint32_t at = SlotOf(key, set->bits);
  while (set->slots.elements[at] != 0) at = (at + 1) & mask;
  set->slots.elements[at] = key;
}

static void SetResize(FingerprintSet *set, uint32_t bits) {
  U64Array old = set->slots;
  uint32_t i;
  memset(&set->slots, 0, sizeof set->slots);
  ArrayGrowExact(set->slots, (uint32_t)1 << bits);
  set->slots.count = (uint32_t)1 << bits;
  memset(set->slots.elements, 0, sizeof(uint64_t) * set->slots.count);
  set->bits = bits;
  for (i = 0; i < old.count; i++)
    if (old.elements[i] != 0) SetPlace(set, old.elements[i]);
  ArrayFree(old);
}

/* 1 when key was not in the set yet (it is now). */
static int SetAdd(FingerprintSet *set, uint64_t key) {
  uint32_t mask, at;
  if (key == 0) {
    if (set->hasZero) return 0;
    set->hasZero = 1;
    return 1;
  }
  if ((set->used + 1) * 2 > set->slots.count) SetResize(set, set->bits ? set->bits + 1 : 10);
  mask = set->slots.count - 1;
  for (at = SlotOf(key, set->bits); set->slots.elements[at] != 0; at = (at + 1) & mask)
    if (set->slots.elements[at] == key) return 0;
  set->slots.elements[at] = key;
  set->used++;
  return 1;
}

/* ---- a run over the inputs -------------------------------------------------------- */

typedef struct Run {
  int kind; /* FINGERPRINT_* */
  int dedup;
  int strict;
  URL *base; /* null without --base */
  URL *url, *normal;
  UByteArray printed; /* the normalised URL's text */
  UByteArray input;   /* the block being split into lines */
  UByteArray output;  /* lines waiting to be written */
  FingerprintSet seen;
  int failed;
} Run;

static void Flush(Run *run) {
  if (run->output.count == 0) return;
  errno = 0;
  if (fwrite(run->output.elements, 1, run->output.count, stdout) != run->output.count || fflush(stdout) != 0) {
    /* Nobody reads any more (a closed pipe) or the disk is full: stop. */
    if (errno != EPIPE) fprintf(stderr, "kzurl: cannot write output: %s\n", strerror(errno));
    exit(1);
  }
  run->output.count = 0;
}

static void Emit(Run *run, const char *text, uint32_t length, uint64_t value) {
  static const char hex[] = "0123456789abcdef";
  uint32_t needed = run->output.count + length + 18; /* blank, 16 digits, newline */
  unsigned char *w;
  int i;
  if (needed > run->output.capacity) {
    uint32_t twice = run->output.capacity * 2;
    ArrayGrowExact(run->output, needed > twice ? needed : twice);
  }
  w = run->output.elements + run->output.count;
  memcpy(w, text, length);
  w += length;
  *w++ = ' ';
  for (i = 15; i >= 0; i--) w[15 - i] = (unsigned char)hex[(value >> (4 * i)) & 15];
  w += 16;
  *w++ = '\n';
  run->output.count = (uint32_t)(w - run->output.elements);
  if (run->output.count >= WRITE_BLOCK) Flush(run);
}

/* One line, NUL-terminated at length (its newline already cut off). */
static void HandleLine(Run *run, const char *name, uint64_t number, char *line, uint32_t length) {
  uint64_t value;
  const char *text;
  if (length > 0 && line[length - 1] == '\r') line[--length] = '\0';
  if (length == 0) return;
  if (memchr(line, '\0', length)) {
    fprintf(stderr, "%s:%llu: line holds a NUL byte\n", name, (unsigned long long)number);
    run->failed = 1;
    return;
  }
  if (!URLParse3(line, run->url, run->base, 1, run->strict, 0)) {
    fprintf(stderr, "%s:%llu: %s\n", name, (unsigned long long)number, KZErrorMessage());
    run->failed = 1;
    return;
  }
  URLNormalize(run->normal, run->url);
  text = URLPrint(&run->printed, run->normal);
  switch (run->kind) {
    case FINGERPRINT_HOST: value = URLHostFingerprint(run->normal); break;
    case FINGERPRINT_TOP: value = URLTopDomainHash(run->normal); break;
    /* The fingerprint of the record normalised just above: the value of
     * URLFingerprint(url, 1) without normalising a second time. */
    default: value = URLFingerprint(run->normal, 0); break;
  }
  if (run->dedup && !SetAdd(&run->seen, value)) return;
  Emit(run, text, run->printed.count - 1, value);
}

/* Splits the input into lines in place: a block at a time, each complete
 * line handled where it lies, the unfinished rest moved to the front before
 * the next block. The buffer grows only for a line longer than what is left
 * of it, and always keeps one byte spare for the NUL after a last line
 * without newline. */
static void ReadLines(Run *run, const char *name, FILE *input) {
  UByteArray *buffer = &run->input;
  uint32_t start = 0; /* first byte of the current line */
  uint32_t scan = 0;  /* bytes before it hold no newline */
  uint64_t number = 0;
  buffer->count = 0;
  for (;;) {
    unsigned char *newline;
    size_t got;
    if (buffer->capacity - buffer->count < READ_BLOCK + 1) {
      if (start > 0) {
        memmove(buffer->elements, buffer->elements + start, buffer->count - start);
        buffer->count -= start;
        scan -= start;
        start = 0;
      }
      if (buffer->capacity - buffer->count < READ_BLOCK + 1) {
        /* Doubling keeps a very long line from being copied once per block;
         * arrays stop short of 2 GiB, which bounds the longest line. */
        uint32_t needed = buffer->count + READ_BLOCK + 1;
        uint32_t twice = buffer->capacity < 0x40000000u ? buffer->capacity * 2 : 0x7ffffffeu;
        ArrayGrowExact(*buffer, needed > twice ? needed : twice);
      }
    }
    got = fread(buffer->elements + buffer->count, 1, READ_BLOCK, input);
    if (got == 0) break;
    buffer->count += (uint32_t)got;
    while ((newline = memchr(buffer->elements + scan, '\n', buffer->count - scan)) != NULL) {
      uint32_t end = (uint32_t)(newline - buffer->elements);
      *newline = '\0';
      HandleLine(run, name, ++number, (char *)buffer->elements + start, end - start);
      start = scan = end + 1;
    }
    scan = buffer->count;
  }
  if (ferror(input)) {
    fprintf(stderr, "kzurl: cannot read %s: %s\n", name, strerror(errno));
    run->failed = 1;
    return;
  }
  if (start < buffer->count) {
    buffer->elements[buffer->count] = '\0';
    HandleLine(run, name, ++number, (char *)buffer->elements + start, buffer->count - start);
  }
}

static void ReadFile(Run *run, const char *path) {
  FILE *input;
  if (strcmp(path, "-") == 0) {
    ReadLines(run, "-", stdin);
    return;
  }
  input = fopen(path, "rb");
  if (!input) {
    fprintf(stderr, "kzurl: cannot open %s: %s\n", path, strerror(errno));
    run->failed = 1;
    return;
  }
  ReadLines(run, path, input);
  fclose(input);
}

/* ---- command line ----------------------------------------------------------------- */

static const char usage[] =
    "usage: kzurl [--print url|host] [--top] [--base URL] [--dedup] [--no-strict] [FILE...]\n"
    "Prints each URL of the files (standard input when none, or \"-\") in normalised\n"
    "form with its fingerprint as 16 hexadecimal digits.\n"
    "  --print url    the URL's fingerprint (default)\n"
    "  --print host   the fingerprint of scheme, host and port\n"
    "  --top          the hash of the top domain (last two labels)\n"
    "  --base URL     resolve relative references against URL\n"
    "  --dedup        print only the first line for each fingerprint\n"
    "  --no-strict    \"..\" above the root stays at the root\n"
    "Lines that do not parse are reported as <file>:<line>: <reason>; the exit\n"
    "status is then 1.\n";

static int UsageError(const char *format, const char *word) {
  fprintf(stderr, "kzurl: ");
  fprintf(stderr, format, word);
  fprintf(stderr, "\n%s", usage);
  return 2;
}

/* The value of "--name VALUE" or "--name=VALUE" at argv[*i], or null. */
static const char *OptionValue(int argc, char **argv, int *i, const char *name, int *missing) {
  size_t length = strlen(name);
  const char *arg = argv[*i];
  *missing = 0;
  if (strncmp(arg, name, length) != 0) return NULL;
  if (arg[length] == '=') return arg + length + 1;
  if (arg[length] != '\0') return NULL;
  if (*i + 1 >= argc) {
    *missing = 1;
    return NULL;
  }
  return argv[++*i];
}

int main(int argc, char **argv) {
  Run run;
  const char *baseText = NULL;
  int printHost = 0, top = 0, files = 0, i, missing;
  int first = argc; /* index of the first file name */

  KZLibInit(argv[0]);
  memset(&run, 0, sizeof run);
  run.strict = 1;

  for (i = 1; i < argc; i++) {
    const char *arg = argv[i], *value;
    if (strcmp(arg, "--") == 0) {
      first = i + 1;
      break;
    }
    if (arg[0] != '-' || strcmp(arg, "-") == 0) {
      first = i;
      break;
    }
    if ((value = OptionValue(argc, argv, &i, "--print", &missing)) != NULL || missing) {
      if (missing) return UsageError("%s needs a value", arg);
      if (strcmp(value, "host") == 0)
        printHost = 1;
      else if (strcmp(value, "url") == 0)
        printHost = 0;
      else
        return UsageError("--print takes url or host, not '%s'", value);
    } else if ((value = OptionValue(argc, argv, &i, "--base", &missing)) != NULL || missing) {
      if (missing) return UsageError("%s needs a value", arg);
      baseText = value;
    } else if (strcmp(arg, "--top") == 0) {
      top = 1;
    } else if (strcmp(arg, "--dedup") == 0) {
      run.dedup = 1;
    } else if (strcmp(arg, "--no-strict") == 0) {
      run.strict = 0;
    } else if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      fputs(usage, stdout);
      return 0;
    } else {
      return UsageError("unknown option '%s'", arg);
    }
  }
  if (top && printHost) return UsageError("%s", "--top and --print host exclude each other");
  run.kind = top ? FINGERPRINT_TOP : printHost ? FINGERPRINT_HOST : FINGERPRINT_URL;

  if (baseText) {
    run.base = URLNew();
    if (!URLParse3(baseText, run.base, NULL, 1, run.strict, 0)) {
      fprintf(stderr, "kzurl: invalid base URL '%s': %s\n", baseText, KZErrorMessage());
      URLDelete(run.base);
      return 2;
    }
  }
  run.url = URLNew();
  run.normal = URLNew();

  for (i = first; i < argc; i++, files++) ReadFile(&run, argv[i]);
  if (files == 0) ReadFile(&run, "-");
  Flush(&run);

  if (run.base) URLDelete(run.base);
  URLDelete(run.url);
  URLDelete(run.normal);
  ArrayFree(run.printed);
  ArrayFree(run.input);
  ArrayFree(run.output);
  ArrayFree(run.seen.slots);
  return run.failed ? 1 : 0;
}
