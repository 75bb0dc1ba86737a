// The configuration store, its word tokenizer and variable expansion.
#include "kz/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/config.h"
#include "internal/os/error.h"
#include "kz/error.h"
#include "kz/init.h"
#include "kz/lock.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/unicode.h"

namespace {

constexpr const char *kStoreFile = "kzlib/config";
constexpr const char *kTokenizerFile = "kzlib/kzlib";
constexpr int kMaxIncludeDepth = 30;

// ---- the word tokenizer ------------------------------------------------------------

inline bool IsSpace(unsigned char c) { return c == 0x20 || (c >= 0x09 && c <= 0x0D) || c == 0xA0; }

// The words of the logical line being read: their bytes, each followed by a
// NUL, and where each begins. The vector handed to the handler is built at
// dispatch, once the bytes no longer move.
class Words {
 public:
  ~Words() {
    ArrayFree_(&chars_);
    ArrayFree_(&starts_);
    ArrayFree_(&vector_);
  }
  void Start() { kz::View(starts_, kTokenizerFile, 0).Append(chars_.count); }
  void Add(unsigned char c) { kz::View(chars_, kTokenizerFile, 0).Append(c); }
  void End() { Add('\0'); }
  uint32_t Count() const { return starts_.count; }
  void Clear() { chars_.count = starts_.count = 0; }
  char **Vector() {
    kz::View(vector_, kTokenizerFile, 0).Reserve(uint64_t(starts_.count) + 1);
    for (uint32_t i = 0; i < starts_.count; i++)
      vector_.elements[i] = reinterpret_cast<char *>(chars_.elements + starts_.elements[i]);
    vector_.elements[starts_.count] = nullptr;
    return vector_.elements;
  }

 private:
  UByteArray chars_ = {};
  UIntArray starts_ = {};
  StringPtrArray vector_ = {};
};

#define TOKENIZER_MESSAGE(...) KZ_MESSAGE_AT(kTokenizerFile, 0, "ReadConfigFile_", 3, 0, __VA_ARGS__)

// Names a text in messages that have only the file form.
const char *Shown(const char *fileName) { return fileName ? fileName : "(null)"; }

// Paths reach the system only when they are valid UTF-8 the 16-bit encoder
// accepts, as on platforms whose calls take wide characters.
bool PathConvertible(const char *path) {
  UShortArray units = {nullptr, 0, 0};
  bool ok = path && UCS2Encode(&units, path, static_cast<uint32_t>(strlen(path)));
  ArrayFree_(&units);
  if (!ok) kz::os::FailWithError(EINVAL);
  return ok;
}

// Maps path whole; false (last error set) when that is impossible, including
// files of 4 GiB or more, which the tokenizer's 32-bit length cannot cover.
bool MapWhole(const char *path, const void **view, size_t *size) {
  if (!PathConvertible(path) || !kz::os::MapFileReadOnly(path, view, size)) return false;
  if (*size <= 0xFFFFFFFFu) return true;
  kz::os::UnmapFile(*view, *size);
  kz::os::FailWithError(EFBIG);
  return false;
}

int ReadFile(const char *path, KZConfigLineHandler handler, void *context, int depth) {
  const void *view;
  size_t size;
  if (!MapWhole(path, &view, &size)) return -2;
  int result =
      ReadConfigFile_(static_cast<const char *>(view), static_cast<unsigned int>(size), path, handler, context, depth);
  kz::os::UnmapFile(view, size);
  return result;
}

// An "include" line: false when it is refused or the included read fails.
bool Include(int argc, char **argv, const char *fileName, int line, KZConfigLineHandler handler, void *context,
             int depth) {
  if (!fileName) {
    TOKENIZER_MESSAGE("invalid \"include\" directive when parsing an in-memory configuration file, line %d", line);
    return false;
  }
  if (argc != 2 || argv[1][0] == '\0') {
    TOKENIZER_MESSAGE("invalid \"include\" directive in configuration file \"%s\", line %d", fileName, line);
    return false;
  }
  if (depth >= kMaxIncludeDepth) {
    TOKENIZER_MESSAGE("too many nested \"include\" directives in configuration file \"%s\", line %d", fileName, line);
    return false;
  }
  // Only a leading '/' makes a path absolute; anything else, a drive letter or
  // a leading backslash included, is taken from the including file's directory.
  size_t directory = 0;
  if (argv[1][0] != '/')
    for (size_t i = 0; fileName[i]; i++)
      if (fileName[i] == '/' || fileName[i] == '\\') directory = i + 1;
  size_t nameLength = strlen(argv[1]);
  char *path = static_cast<char *>(Allocate_(directory + nameLength + 1, nullptr, kTokenizerFile, 0));
  memcpy(path, fileName, directory);
  memcpy(path + directory, argv[1], nameLength + 1);
  int result = ReadFile(path, handler, context, depth + 1);
  if (result == -2)
    TOKENIZER_MESSAGE("error reading file \"%s\" included in configuration file \"%s\", line %d", path, fileName, line);
  free(path);
  return result == 0;
}

enum class Mode { kBetween, kPlain, kQuoted, kComment };

int Tokenize(const unsigned char *bytes, uint32_t length, const char *fileName, KZConfigLineHandler handler,
             void *context, int depth) {
  Words words;
  Mode mode = Mode::kBetween;
  bool escaped = false;
  bool stopped = false;
  int line = 1;
  for (uint32_t i = 0; i < length && !stopped; i++) {
    unsigned char c = bytes[i];
    if (c == '\\' && !escaped) {
      escaped = true;
      continue;
    }
    bool literal = escaped;
    escaped = false;
    if (c == '\n') {
      if (literal) {  // continuation: the logical line goes on in the same mode
        line++;
        continue;
      }
      if (mode == Mode::kQuoted) {
        TOKENIZER_MESSAGE("unmatched \" in configuration file \"%s\", line %d", Shown(fileName), line);
        return -4;
      }
      if (mode == Mode::kPlain) words.End();
      if (words.Count()) {
        char **argv = words.Vector();
        int argc = static_cast<int>(words.Count());
        bool accepted = strcmp(argv[0], "include") == 0 ? Include(argc, argv, fileName, line, handler, context, depth)
                                                        : !handler || handler(context, fileName, line, argc, argv) != 0;
        if (!accepted) {
          stopped = true;  // the line's words stay pending: the end check reports too
          continue;
        }
      }
      words.Clear();
      mode = Mode::kBetween;
      line++;
      continue;
    }
    switch (mode) {
      case Mode::kComment: break;
      case Mode::kBetween:
        if (literal || (c != '#' && c != '"' && !IsSpace(c))) {
          words.Start();
          words.Add(c);
          mode = Mode::kPlain;
        } else if (c == '#') {
          mode = Mode::kComment;
        } else if (c == '"') {
          words.Start();
          mode = Mode::kQuoted;
        }
        break;
      case Mode::kPlain:
        if (literal || (c != '#' && c != '"' && !IsSpace(c))) {
          words.Add(c);
        } else if (c == '#') {
          words.End();
          mode = Mode::kComment;
        } else if (c == '"') {
          mode = Mode::kQuoted;
        } else {
          words.End();
          mode = Mode::kBetween;
        }
        break;
      case Mode::kQuoted:
        if (!literal && c == '"')
          mode = Mode::kPlain;
        else
          words.Add(literal && c == 'n' ? '\n' : literal && c == 't' ? '\t' : c);
        break;
    }
  }
  if (stopped || words.Count() || mode != Mode::kBetween) {
    if (fileName)
      TOKENIZER_MESSAGE("premature end of configuration file \"%s\", line %d", fileName, line);
    else
      TOKENIZER_MESSAGE("premature end of in-memory configuration file, line %d", line);
    return -4;
  }
  return 0;
}

// ---- the store -----------------------------------------------------------------------

// A key and its value. The key's first 16 bytes are also kept in the entry,
// packed big-endian and NUL-padded, so most comparisons while sorting and
// searching never leave the table; the hash serves the lookup index. Key and
// value share one allocation until the value is replaced.
struct Entry {
  char *key;
  char *value;
  uint64_t head[2];
  uint32_t hash;
  uint32_t keyLength;
};
struct EntryArray {
  Entry *elements;
  uint32_t count;
  uint32_t capacity;
};

// Zero-initialised: a null lock counts as not yet created, so the first
// configuration call creates it and installs it by compare-and-swap.
struct Store {
  KZMutex lock;
  KZCondition changed;
  EntryArray entries;
  uint64_t serial;
  uint64_t modified;  // microseconds since 1601
  uint32_t waiters;
  char pseudo[64];  // the latest pseudo-key value: 63 characters always fit
};
constinit Store g_store = {};

// Holds the store's re-entrant lock for a scope.
class Hold {
 public:
  Hold() { MutexLock(&g_store.lock); }
  ~Hold() { MutexUnlock(&g_store.lock); }
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;
};

// A key as the table compares it: its head words and its bytes.
struct KeyRef {
  uint64_t head[2];
  uint32_t hash;
  uint32_t length;
  const char *key;
};

// Packs up to 16 bytes big-endian into two words, NUL-padded, so that
// comparing the words orders the bytes as strcmp does.
inline void PackHead(const char *bytes, size_t length, uint64_t *words) {
  unsigned char padded[16] = {};
  memcpy(padded, bytes, length < 16 ? length : 16);
  uint64_t first, second;
  memcpy(&first, padded, 8);
  memcpy(&second, padded + 8, 8);
  words[0] = __builtin_bswap64(first);
  words[1] = __builtin_bswap64(second);
}

// The lookup index's hash, eight bytes at a step (it never leaves the process).
inline uint32_t HashKey(const char *key, size_t length) {
  uint64_t hash = 0x9E3779B97F4A7C15ull ^ length;
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    uint64_t word;
    memcpy(&word, key + i, 8);
    hash = (hash ^ word) * 0xFF51AFD7ED558CCDull;
    hash ^= hash >> 32;
  }
  uint64_t tail = 0;
  memcpy(&tail, key + i, length - i);
  hash = (hash ^ tail) * 0xC4CEB9FE1A85EC53ull;
  hash ^= hash >> 33;
  hash *= 0xFF51AFD7ED558CCDull;
  return static_cast<uint32_t>(hash ^ (hash >> 33));
}

KeyRef MakeKeyRef(const char *key) {
  size_t length = strlen(key);
  KeyRef ref = {{0, 0}, HashKey(key, length), static_cast<uint32_t>(length), key};
  PackHead(key, length, ref.head);
  return ref;
}

// Unsigned byte order, as strcmp gives it. Keys hold no NUL, so equal heads
// with a 16th byte of 0 mean both keys ended inside the head.
inline int CompareKeys(const uint64_t *headA, const char *a, const uint64_t *headB, const char *b) {
  if (headA[0] != headB[0]) return headA[0] < headB[0] ? -1 : 1;
  if (headA[1] != headB[1]) return headA[1] < headB[1] ? -1 : 1;
  if ((headA[1] & 0xFF) == 0) return 0;
  return strcmp(a + 16, b + 16);
}
inline int Compare(const Entry &entry, const KeyRef &ref) {
  return CompareKeys(entry.head, entry.key, ref.head, ref.key);
}
inline int Compare(const Entry &a, const Entry &b) { return CompareKeys(a.head, a.key, b.head, b.key); }

auto Entries() { return kz::View(g_store.entries, kStoreFile, 0); }

// value null: room for valueLength bytes that the caller fills.
Entry MakeEntry(const KeyRef &ref, const char *value, size_t valueLength) {
  char *block = static_cast<char *>(Allocate_(ref.length + valueLength + 2, nullptr, kStoreFile, 0));
  memcpy(block, ref.key, ref.length + 1);
  if (value) memcpy(block + ref.length + 1, value, valueLength);
  block[ref.length + 1 + valueLength] = '\0';
  return {block, block + ref.length + 1, {ref.head[0], ref.head[1]}, ref.hash, ref.length};
}

inline bool ValueSeparate(const Entry &entry) { return entry.value != entry.key + entry.keyLength + 1; }

void IndexInvalidate();

void SetValue(Entry &entry, const char *value) {
  IndexInvalidate();  // the index records where values live
  char *copy = Strdup_(value, kStoreFile, 0);
  if (ValueSeparate(entry)) free(entry.value);
  entry.value = copy;
}

void FreeEntry(Entry &entry) {
  if (ValueSeparate(entry)) free(entry.value);
  free(entry.key);
}

// ---- the lookup index: open addressing over entry positions ----------------------------
// Large tables answer exact lookups through a hash index rebuilt lazily after
// any change that moves entries; small ones are searched directly.
constexpr uint32_t kIndexMinimum = 64;

// A slot answers a lookup without touching the table: the key's hash, its
// position + 1 (0: empty slot) with the top bit set when the value lives apart
// from the key, and the key itself (its value follows it unless apart).
struct Slot {
  uint32_t hash;
  uint32_t position;
  const char *key;
};
constexpr uint32_t kValueApart = 0x80000000u;

struct Index {
  Slot *slots;
  uint32_t mask;
  bool valid;
};
constinit Index g_index = {};

void IndexInvalidate() { g_index.valid = false; }

void IndexBuild() {
  const EntryArray &table = g_store.entries;
  uint32_t size = 1;
  while (size < table.count * 2u) size <<= 1;
  if (g_index.mask + 1 != size || !g_index.slots) {
    free(g_index.slots);
    g_index.slots = static_cast<Slot *>(Allocate_(size * sizeof(Slot), nullptr, kStoreFile, 0));
    g_index.mask = size - 1;
  }
  memset(g_index.slots, 0, size * sizeof(Slot));
  for (uint32_t i = 0; i < table.count; i++) {
    const Entry &entry = table.elements[i];
    uint32_t slot = entry.hash & g_index.mask;
    while (g_index.slots[slot].position) slot = (slot + 1) & g_index.mask;
    g_index.slots[slot] = {entry.hash, (i + 1) | (ValueSeparate(entry) ? kValueApart : 0), entry.key};
  }
  g_index.valid = true;
}

// The index of key, or of the first larger key when absent.
uint32_t LowerBound(const KeyRef &ref, bool *found) {
  uint32_t low = 0, high = g_store.entries.count;
  while (low < high) {
    uint32_t middle = low + (high - low) / 2;
    if (Compare(g_store.entries.elements[middle], ref) < 0)
      low = middle + 1;
    else
      high = middle;
  }
  *found = low < g_store.entries.count && Compare(g_store.entries.elements[low], ref) == 0;
  return low;
}

// The value stored for key, or null.
const char *FindValue(const KeyRef &ref) {
  const EntryArray &table = g_store.entries;
  if (table.count < kIndexMinimum) {
    bool found;
    uint32_t index = LowerBound(ref, &found);
    return found ? table.elements[index].value : nullptr;
  }
  if (!g_index.valid) IndexBuild();
  for (uint32_t i = ref.hash & g_index.mask; g_index.slots[i].position; i = (i + 1) & g_index.mask) {
    const Slot &slot = g_index.slots[i];
    if (slot.hash != ref.hash || strcmp(slot.key, ref.key) != 0) continue;
    if (slot.position & kValueApart) return table.elements[(slot.position & ~kValueApart) - 1].value;
    return slot.key + ref.length + 1;
  }
  return nullptr;
}

// What the sort moves: the first 32 key bytes as four big-endian words (the
// entry's head words and the next 16 bytes) and the entry's position. Keys
// that agree on 32 bytes are compared in the table; all others compare without
// leaving the items, which sort much faster than the entries themselves.
struct SortItem {
  uint64_t head[4];  // the key's first 32 bytes, big-endian, NUL-padded
  uint32_t position;
};
// Scratch kept between loads (under the store's lock), so a reload does not
// map and fault in new areas each time.
struct SortItemArray {
  SortItem *elements;
  uint32_t count;
  uint32_t capacity;
};
constinit SortItemArray g_sortItems = {};
constinit EntryArray g_freshEntries = {};

inline int CompareItemKeys(const SortItem &x, const SortItem &y, const Entry *entries) {
  for (int w = 0; w < 4; w++)
    if (x.head[w] != y.head[w]) return x.head[w] < y.head[w] ? -1 : 1;
  if ((x.head[3] & 0xFF) == 0) return 0;  // both keys ended within 32 bytes
  return strcmp(entries[x.position].key + 32, entries[y.position].key + 32);
}

// Entries [0, sorted) are in order with unique keys; the ones behind them were
// appended in reading order. Sorts the appended ones and merges them in. A
// repeated key keeps its latest value: the last one read, and one read over
// one already in the store. (The store promises only that one value is kept;
// the latest is the one a reader of the file expects.)
void SortUnique(uint32_t sorted) {
  EntryArray &table = g_store.entries;
  IndexInvalidate();
  const uint32_t added = table.count - sorted;
  if (added == 0) return;
  // ParseKey made one item per appended entry, in the same order, while the
  // key was still in the cache; RemoveRange may have moved the entries down.
  KZ_CHECK(g_sortItems.count == added, "items == added", kStoreFile, 0);
  SortItem *items = g_sortItems.elements;
  for (uint32_t k = 0; k < added; k++) items[k].position = sorted + k;
  const Entry *entries = table.elements;
  std::sort(items, items + added, [entries](const SortItem &x, const SortItem &y) {
    int order = CompareItemKeys(x, y, entries);
    return order ? order < 0 : x.position > y.position;  // the latest first among equals
  });
  Entry *fresh = kz::View(g_freshEntries, kStoreFile, 0).Reserve(added);
  uint32_t freshCount = 0, kept = 0;  // kept: the item of the last entry taken
  for (uint32_t k = 0; k < added; k++) {
    if (k && CompareItemKeys(items[kept], items[k], entries) == 0) {
      FreeEntry(table.elements[items[k].position]);
    } else {
      fresh[freshCount++] = table.elements[items[k].position];
      kept = k;
    }
  }
  // Merge from the back: the write position stays above every old entry not
  // yet read, so nothing is overwritten before it moves.
  int64_t old = static_cast<int64_t>(sorted) - 1, next = static_cast<int64_t>(freshCount) - 1;
  uint32_t write = sorted + freshCount;
  while (next >= 0) {
    if (old >= 0) {
      int order = Compare(table.elements[old], fresh[next]);
      if (order > 0) {
        table.elements[--write] = table.elements[old--];
        continue;
      }
      if (order == 0) FreeEntry(table.elements[old--]);  // replaced by the value just read
    }
    table.elements[--write] = fresh[next--];
  }
  uint32_t oldKept = static_cast<uint32_t>(old + 1);
  if (write != oldKept)
    memmove(table.elements + oldKept, table.elements + write, (sorted + freshCount - write) * sizeof(Entry));
  table.count = oldKept + (sorted + freshCount - write);
}

// The entries among the first `sorted` (the sorted part of the table) whose
// key begins with prefix (all of them for null or empty).
void PrefixRange(const char *prefix, uint32_t *start, uint32_t *count, uint32_t sorted) {
  EntryArray &table = g_store.entries;
  if (!prefix || !*prefix) {
    *start = 0;
    *count = sorted;
    return;
  }
  size_t n = strlen(prefix);
  uint32_t low = 0, high = sorted;
  while (low < high) {
    uint32_t middle = low + (high - low) / 2;
    if (strncmp(table.elements[middle].key, prefix, n) < 0)
      low = middle + 1;
    else
      high = middle;
  }
  uint32_t end = low;
  while (end < sorted && strncmp(table.elements[end].key, prefix, n) == 0) end++;
  *start = low;
  *count = end - low;
  if (low + *count > table.count) kzassert_("start + count <= ArrayLength(configEntries)", kStoreFile, 0);
}

// Takes the prefix range out of the table; into `removed` when given, else freed.
// Frees the prefix range of the sorted part and closes the gap (entries
// after the sorted part move down with the rest). Returns how many went.
uint32_t RemoveRange(const char *prefix, uint32_t sorted) {
  uint32_t start, count;
  PrefixRange(prefix, &start, &count, sorted);
  if (count == 0) return 0;
  IndexInvalidate();
  EntryArray &table = g_store.entries;
  for (uint32_t i = start; i < start + count; i++) FreeEntry(table.elements[i]);
  memmove(table.elements + start, table.elements + start + count, (table.count - start - count) * sizeof(Entry));
  table.count -= count;
  return count;
}

// One change: the serial, the time, and the waiters.
void Changed() {
  g_store.serial++;
  g_store.modified = kz::os::SystemTimeMicros1601();
  if (g_store.waiters) ConditionBroadcast(&g_store.changed);
}

// The value of a pseudo key, printed into the shared buffer, or null.
const char *PseudoValue(const char *key) {
  char *buffer = g_store.pseudo;
  size_t size = sizeof g_store.pseudo;
  if (strcmp(key, "@serial") == 0) {
    snprintf(buffer, size, "%llu", static_cast<unsigned long long>(g_store.serial));
  } else if (strcmp(key, "@count") == 0) {
    snprintf(buffer, size, "%u", g_store.entries.count);
  } else if (strcmp(key, "@modified") == 0) {
    snprintf(buffer, size, "%llu", static_cast<unsigned long long>(g_store.modified));
  } else if (strcmp(key, "@kzarch") == 0) {
    snprintf(buffer, size, "%s", KZArchitecture());
  } else if (strcmp(key, "@kzversion") == 0) {
    snprintf(buffer, size, "%s", KZVersionString());
  } else if (strcmp(key, "@kzbranch") == 0) {
    if (KZVersionBranch() == 0) return nullptr;
    snprintf(buffer, size, "%d", KZVersionBranch());
  } else if (strcmp(key, "@kzmajor") == 0) {
    snprintf(buffer, size, "%d", KZVersionMajor());
  } else if (strcmp(key, "@kzminor") == 0) {
    snprintf(buffer, size, "%d", KZVersionMinor());
  } else if (strcmp(key, "@kzbuild") == 0) {
    snprintf(buffer, size, "%d", KZVersionBuild());
  } else {
    return nullptr;
  }
  return buffer;
}

// The value a getter sees for key (the lock is held), or null.
const char *Lookup(const char *key) {
  if (!key) return nullptr;
  if (key[0] == '@') return PseudoValue(key);
  return FindValue(MakeKeyRef(key));
}

void AppendText(UByteArray &out, const char *text, size_t length) {
  auto view = kz::View(out, kStoreFile, 0);
  view.Reserve(uint64_t(out.count) + length + 1);
  view.Append(reinterpret_cast<const unsigned char *>(text), length);
  out.elements[out.count] = '\0';
}

// Steps 1-3 of setting a key, under the lock. Keeps the table sorted by
// inserting a new key at its place, which leaves the same table as appending
// and sorting, and lets later steps of a merge find it. True when the table
// changed.
bool SetLocked(const char *key, const char *value, bool replace, UByteArray *oldValue) {
  if (!key) return false;
  KeyRef ref = MakeKeyRef(key);
  bool found;
  uint32_t index = LowerBound(ref, &found);
  EntryArray &table = g_store.entries;
  if (!found) {
    if (key[0] == '@') return false;
    if (oldValue) {
      oldValue->count = 0;
      AppendText(*oldValue, "", 0);
    }
    if (!value) return false;
    Entries().Reserve(uint64_t(table.count) + 1);
    IndexInvalidate();
    memmove(table.elements + index + 1, table.elements + index, (table.count - index) * sizeof(Entry));
    table.elements[index] = MakeEntry(ref, value, strlen(value));
    table.count++;
    return true;
  }
  Entry &entry = table.elements[index];
  if (oldValue) {
    oldValue->count = 0;
    AppendText(*oldValue, entry.value ? entry.value : "", entry.value ? strlen(entry.value) : 0);
  }
  if (value) {
    if (!replace) return false;
    SetValue(entry, value);
    return true;
  }
  IndexInvalidate();
  FreeEntry(entry);
  memmove(table.elements + index, table.elements + index + 1, (table.count - index - 1) * sizeof(Entry));
  table.count--;
  return true;
}

// The merge step, under the lock: true when something changed.
bool MergeLocked(KZConfigProducer producer, void *context) {
  if (!producer) return false;
  bool changed = false;
  int more;
  do {
    const char *key = nullptr, *value = nullptr;
    more = producer(context, &key, &value);
    if (!key) break;
    if (SetLocked(key, value, true, nullptr)) changed = true;
  } while (more);
  return changed;
}

int EnumerateLocked(KZConfigEnumerator enumerator, void *context, const char *prefix) {
  bool called = false;
  bool all = !prefix || !*prefix;
  size_t prefixLength = all ? 0 : strlen(prefix);
  for (const char *pseudo : {"@serial", "@count", "@modified"}) {
    if (!all && strncmp(pseudo, prefix, prefixLength) != 0) continue;
    called = true;
    if (!enumerator(context, pseudo, PseudoValue(pseudo))) return 1;
  }
  uint32_t start, count;
  PrefixRange(prefix, &start, &count, g_store.entries.count);
  // Indexes are checked against the table on each step: an enumerator that
  // breaks the rule and deletes keys ends the walk instead of reading freed entries.
  for (uint32_t i = start; i < start + count && i < g_store.entries.count; i++) {
    called = true;
    Entry &entry = g_store.entries.elements[i];
    if (!enumerator(context, entry.key, entry.value)) break;
  }
  return called ? 1 : 0;
}

// The key parser: every line is a key and its value.
int ParseKey(void *, const char *, int line, int argc, char **argv) {
  if (argc < 2) {
    KZ_THROW_AT(kStoreFile, 0, "ParseKey", KZ_ERR_GENERAL, "parse error line %u: expected 2 arguments, got %u",
                static_cast<unsigned>(line), static_cast<unsigned>(argc));
    return 0;
  }
  KeyRef ref = MakeKeyRef(argv[0]);
  Entry entry;
  if (argc == 2) {
    entry = MakeEntry(ref, argv[1], strlen(argv[1]));
  } else {
    size_t length = 0;
    for (int i = 1; i < argc; i++) length += strlen(argv[i]) + 1;
    entry = MakeEntry(ref, nullptr, length - 1);  // room for the words and the spaces between them
    char *end = entry.value;
    for (int i = 1; i < argc; i++) {
      size_t n = strlen(argv[i]);
      memcpy(end, argv[i], n);
      end += n;
      if (i + 1 < argc) *end++ = ' ';
    }
  }
  IndexInvalidate();
  Entries().Append(entry);
  SortItem item = {{ref.head[0], ref.head[1], 0, 0}, 0};
  if (ref.length > 16) PackHead(ref.key + 16, ref.length - 16, item.head + 2);
  kz::View(g_sortItems, kStoreFile, 0).Append(item);
  return 1;
}

// ---- numbers ---------------------------------------------------------------------------

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Digits with an optional '-' (when allowed) into a magnitude; the 32-bit form
// fails once the value passes 4294967295, the 64-bit form before it would wrap.
bool Magnitude(const char *text, bool signedValue, bool wide, bool *negative, uint64_t *value) {
  *negative = signedValue && *text == '-';
  if (*negative) text++;
  if (!*text) return false;
  uint64_t v = 0;
  for (; *text; text++) {
    if (!IsDigit(*text)) return false;
    unsigned digit = static_cast<unsigned>(*text - '0');
    if (wide) {
      if (v > 1844674407370955161ull || (v == 1844674407370955161ull && digit > 5)) return false;
      v = v * 10 + digit;
    } else {
      v = v * 10 + digit;
      if (v > 4294967295ull) return false;
    }
  }
  *value = v;
  return true;
}

}  // namespace

extern "C" {

// ---- tokenizer ---------------------------------------------------------------------------

KZ_API int ReadConfigFile_(const char *buffer, unsigned int length, const char *fileName, KZConfigLineHandler handler,
                           void *context, int depth) {
  return Tokenize(reinterpret_cast<const unsigned char *>(buffer), buffer ? length : 0, fileName, handler, context,
                  depth);
}

KZ_API int ReadConfigFile(const char *fileName, KZConfigLineHandler handler, void *context) {
  return ReadFile(fileName, handler, context, 0);
}

KZ_API int ReadConfigFileFromBuffer(const char *buffer, unsigned int length, KZConfigLineHandler handler,
                                    void *context) {
  return ReadConfigFile_(buffer, length, nullptr, handler, context, 0);
}

// ---- loading ------------------------------------------------------------------------------

KZ_API int LoadConfigurationKeysPrefixed(const char *buffer, unsigned int length, const char *prefix) {
  Hold hold;
  // The new pairs go behind the sorted table; the prefix range is removed
  // only once the text has been read, so that a failed load leaves the store
  // exactly as it was. Nobody can look at the table in between.
  uint32_t before = g_store.entries.count;
  g_sortItems.count = 0;
  int result = ReadConfigFile_(buffer, length, nullptr, ParseKey, nullptr, 0);
  IndexInvalidate();
  if (result == 0) {
    if (prefix) before -= RemoveRange(prefix, before);
    SortUnique(before);
  } else {
    while (g_store.entries.count > before) FreeEntry(g_store.entries.elements[--g_store.entries.count]);
  }
  Changed();
  return result == 0 ? 1 : 0;
}

KZ_API int LoadConfigurationKeys(const char *buffer, unsigned int length) {
  return LoadConfigurationKeysPrefixed(buffer, length, nullptr);
}

KZ_API int LoadConfigurationFilePrefixed(const char *path, const char *prefix) {
  const void *view;
  size_t size;
  if (!MapWhole(path, &view, &size)) {
    KZSetMessageContext2_(kStoreFile, 0, "kzlib", "LoadConfigurationFilePrefixed", 4, 0);
    KZErrorRethrow_("cannot open configuration file \"%s\"", path ? path : "(null)");
    return 0;
  }
  int result = LoadConfigurationKeysPrefixed(static_cast<const char *>(view), static_cast<unsigned int>(size), prefix);
  KZErrorSave();
  kz::os::UnmapFile(view, size);
  KZErrorRestore();
  return result;
}

KZ_API int LoadConfigurationFile(const char *path) { return LoadConfigurationFilePrefixed(path, nullptr); }

KZ_API int LoadConfigurationFromRegistry(void *root, const char *subKey) {
  KZ_THROW_AT(kStoreFile, 0, "LoadConfigurationFromRegistry", KZ_ERR_NOT_SUPPORTED, "not supported");
  return 0;
}

// ---- reading -------------------------------------------------------------------------------

KZ_API char *ConfigKeyGetString(const char *key, const char *defaultValue, UByteArray *out) {
  Hold hold;
  const char *value = Lookup(key);
  if (!value) value = defaultValue;
  if (!value) return nullptr;
  AppendText(*out, value, strlen(value));
  return reinterpret_cast<char *>(out->elements);
}

KZ_API int ConfigKeyGetBoolean(const char *key, int defaultValue) {
  Hold hold;
  const char *value = Lookup(key);
  if (!value) return defaultValue;
  return strcmp(value, "true") == 0 ? 1 : 0;
}

KZ_API int ConfigKeyGetInt(const char *key, int defaultValue) {
  Hold hold;
  const char *value = Lookup(key);
  bool negative;
  uint64_t magnitude;
  if (!value || !Magnitude(value, true, false, &negative, &magnitude)) return defaultValue;
  if (negative ? magnitude > 2147483648ull : magnitude > 2147483647ull) return defaultValue;
  return negative ? static_cast<int>(-static_cast<int64_t>(magnitude)) : static_cast<int>(magnitude);
}

KZ_API unsigned int ConfigKeyGetUInt(const char *key, unsigned int defaultValue) {
  Hold hold;
  const char *value = Lookup(key);
  bool negative;
  uint64_t magnitude;
  if (!value || !Magnitude(value, false, false, &negative, &magnitude)) return defaultValue;
  return static_cast<unsigned int>(magnitude);
}

KZ_API int64_t ConfigKeyGetLong(const char *key, int64_t defaultValue) {
  Hold hold;
  const char *value = Lookup(key);
  bool negative;
  uint64_t magnitude;
  if (!value || !Magnitude(value, true, true, &negative, &magnitude)) return defaultValue;
  if (negative ? magnitude > 9223372036854775808ull : magnitude > 9223372036854775807ull) return defaultValue;
  return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

KZ_API uint64_t ConfigKeyGetULong(const char *key, uint64_t defaultValue) {
  Hold hold;
  const char *value = Lookup(key);
  bool negative;
  uint64_t magnitude;
  if (!value || !Magnitude(value, false, true, &negative, &magnitude)) return defaultValue;
  return magnitude;
}

KZ_API int ConfigKeyEnumerate(KZConfigEnumerator enumerator, void *context, const char *prefix) {
  if (!enumerator) return 0;
  Hold hold;
  return EnumerateLocked(enumerator, context, prefix);
}

// ---- changing -------------------------------------------------------------------------------

KZ_API int ConfigKeySetString(const char *key, const char *value, int replace, UByteArray *oldValue) {
  Hold hold;
  if (!SetLocked(key, value, replace != 0, oldValue)) return 0;
  Changed();
  return 1;
}

KZ_API int ConfigKeyAddString(const char *key, const char *value) { return ConfigKeySetString(key, value, 0, nullptr); }

KZ_API int ConfigKeyReplaceString(const char *key, const char *value) {
  return ConfigKeySetString(key, value, 1, nullptr);
}

KZ_API int ConfigKeyDelete(const char *key) { return ConfigKeySetString(key, nullptr, 0, nullptr); }

KZ_API int ConfigKeyRemove(const char *prefix) {
  Hold hold;
  RemoveRange(prefix, g_store.entries.count);
  Changed();
  return 1;
}

KZ_API int ConfigKeyMerge(KZConfigProducer producer, void *context) {
  Hold hold;
  if (!MergeLocked(producer, context)) return 0;
  Changed();
  return 1;
}

KZ_API int ConfigKeyEnumerateAndMerge(KZConfigEnumerator enumerator, KZConfigProducer producer, void *context,
                                      const char *prefix) {
  Hold hold;
  if (enumerator) EnumerateLocked(enumerator, context, prefix);
  if (MergeLocked(producer, context)) Changed();
  return 1;
}

KZ_API int ConfigKeyRemoveAndMerge(KZConfigProducer producer, void *context, const char *prefix) {
  Hold hold;
  bool changed = prefix != nullptr;
  if (prefix) RemoveRange(prefix, g_store.entries.count);
  if (MergeLocked(producer, context)) changed = true;
  if (!changed) return 0;
  Changed();
  return 1;
}

KZ_API int ConfigWaitForChange(uint64_t serial, int timeoutMs) {
  Hold hold;
  g_store.waiters++;
  if (timeoutMs < 1) {
    while (g_store.serial != serial) ConditionWait(&g_store.changed, &g_store.lock);
  } else {
    uint64_t start = kz::os::MonotonicMicros();
    while (g_store.serial != serial) {
      int64_t remaining = timeoutMs - static_cast<int64_t>((kz::os::MonotonicMicros() - start) / 1000);
      if (remaining < 1) break;
      ConditionTimedWait(&g_store.changed, &g_store.lock, static_cast<uint32_t>(remaining));
    }
  }
  g_store.waiters--;
  return g_store.serial != serial ? 1 : 0;
}

// ---- expansion --------------------------------------------------------------------------------

KZ_API int ConfigKeyExpandVariables(const char *text, unsigned int length, UByteArray *out) {
  auto isNameByte = [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == ':' || c == '[' || c == ']' || c == '@';
  };
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(text);
  auto view = kz::View(*out, kStoreFile, 0);
  view.Reserve(uint64_t(out->count) + length + 1);
  uint32_t i = 0;
  while (i < length) {
    if (bytes[i] == '\\' && i + 2 < length && bytes[i + 1] == '$' && bytes[i + 2] == '{') {
      view.Append(bytes + i + 1, 2);  // the backslash is dropped, "${" is kept
      i += 3;
      continue;
    }
    if (bytes[i] != '$' || i + 1 >= length || bytes[i + 1] != '{') {
      view.Append(bytes[i++]);
      continue;
    }
    uint32_t mark = out->count;
    uint32_t nameStart = i + 2;
    uint32_t nameEnd = nameStart;
    while (nameEnd < length && isNameByte(bytes[nameEnd])) nameEnd++;
    view.Append(bytes + i, nameEnd - i);  // "${" and the name, kept if the name is malformed
    if (nameEnd >= length || bytes[nameEnd] != '}') {
      AppendText(*out, "", 0);
      KZ_THROW_AT(kStoreFile, 0, "ConfigKeyExpandVariables", KZ_ERR_INVALID, "variable expansion error at character %u",
                  nameEnd);
      return 0;
    }
    out->count = mark;
    {
      Hold hold;
      // The name is looked up as a NUL-terminated key, as the getters do.
      char *name = Strndup_(text + nameStart, nameEnd - nameStart, kStoreFile, 0);
      const char *value = Lookup(name);
      if (!value) {
        AppendText(*out, "", 0);
        KZ_THROW_AT(kStoreFile, 0, "ConfigKeyExpandVariables", KZ_ERR_INVALID, "undefined variable %s", name);
        free(name);
        return 0;
      }
      free(name);
      AppendText(*out, value, strlen(value));
    }
    i = nameEnd + 1;
  }
  AppendText(*out, "", 0);
  return 1;
}

}  // extern "C"
