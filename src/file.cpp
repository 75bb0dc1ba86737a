// Files, paths, mappings, temporary names, lock files and directory listing:
// the portable side. Paths are checked as UTF-8 here before anything is asked
// of the system (src/posix/file.cpp).
#include "kz/file.h"

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include "internal/array_view.h"
#include "internal/context.h"
#include "internal/lazy_lock.h"
#include "internal/os/error.h"
#include "internal/os/file.h"
#include "internal/os/init.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/init.h"
#include "kz/lock.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/random.h"
#include "kz/unicode.h"

namespace kz {
namespace {

constexpr const char *kFile = "kzlib/file";
constexpr const char kAlphabet[] = "0123456789abcdefghijklmnoprqstuvwxyz";  // q and r swapped: part of the naming
constexpr uint64_t kMicrosecondsFrom1601To1970 = 11644473600000000ull;
constexpr size_t kPathLimit = 260;         // longest absolute path made, and lock-file path buffer
constexpr size_t kZeroBlock = 1u << 20;    // zero-filling writes at most this much at once
constexpr size_t kModulePathBuffer = 259;  // the running program's path, as the executable search reads it

// The library's UTF-8 rules for paths, the same that UCS2Encode applies, so a
// path is refused alike on every platform: one- to three-byte sequences with
// no overlong forms (unpaired surrogates pass), nothing cut off.
bool ValidPathText(const char *path) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(path);
  while (*p) {
    unsigned lead = *p;
    if (lead < 0x80) {
      p++;
      continue;
    }
    if (lead < 0xC0 || lead >= 0xF0) return false;
    int extra = lead < 0xE0 ? 1 : 2;
    uint32_t value = lead & (extra == 1 ? 0x1F : 0x0F);
    for (int k = 1; k <= extra; k++) {
      if ((p[k] & 0xC0) != 0x80) return false;  // also stops at the NUL
      value = (value << 6) | (p[k] & 0x3F);
    }
    if (value < (extra == 1 ? 0x80u : 0x800u)) return false;
    p += extra + 1;
  }
  return true;
}

bool CheckPath(const char *path) {
  if (path && ValidPathText(path)) return true;
  errno = EINVAL;
  return false;
}

// Records a system error number: errno -1, the number in the last error.
template <typename T>
T SystemFailure(int error, T result) {
  os::FailWithError(error);
  return result;
}

// The open calls report the opening call's own error number in errno.
int OpenFailure(int error) {
  KZSetLastError(error);
  errno = error;
  return -1;
}

void Raise(uint32_t line, const char *function, const char *text) {
  KZSetMessageContext2_(kFile, line, "kzlib", function, 4, 0);
  KZErrorRethrow_("%s", text);
}

// A NUL-terminated text built in an owned byte array.
class Text {
 public:
  Text() = default;
  ~Text() { free(bytes_.elements); }
  Text(const Text &) = delete;
  Text &operator=(const Text &) = delete;

  void Append(const char *text, size_t length) {
    auto view = View(bytes_, kFile, __LINE__);
    view.Reserve(uint64_t(bytes_.count) + length + 1);
    view.Append(reinterpret_cast<const unsigned char *>(text), length);
    bytes_.elements[bytes_.count] = '\0';
  }
  void Append(const char *text) { Append(text, strlen(text)); }
  void Truncate(uint32_t length) {
    bytes_.count = length;
    if (bytes_.elements) bytes_.elements[length] = '\0';
  }
  const char *c_str() const { return bytes_.elements ? reinterpret_cast<const char *>(bytes_.elements) : ""; }
  uint32_t size() const { return bytes_.count; }
  UByteArray &array() { return bytes_; }

 private:
  UByteArray bytes_{};
};

// The environment's value of name, copied under the environment family's lock
// (so a concurrent change cannot free it under us); text() is null when it is
// not set. The one place this family reads the environment (PATH, TMPDIR); the
// caller's errno and last error stay as they were.
class EnvironmentValue {
 public:
  explicit EnvironmentValue(const char *name) {
    const ErrorStateKept kept;
    set_ = KZUBAGetEnvironmentVariable(name, &value_) == 1;
  }
  ~EnvironmentValue() { free(value_.elements); }
  EnvironmentValue(const EnvironmentValue &) = delete;
  EnvironmentValue &operator=(const EnvironmentValue &) = delete;
  const char *text() const {
    if (!set_) return nullptr;
    return value_.elements ? reinterpret_cast<const char *>(value_.elements) : "";
  }

 private:
  UByteArray value_ = {nullptr, 0, 0};
  bool set_ = false;
};

// directory "/" name, or name alone; false (errno 22) when either is not a
// valid path text.
bool JoinPath(Text *out, const char *directory, const char *name) {
  if (!CheckPath(name) || (directory && !CheckPath(directory))) return false;
  if (directory) {
    out->Append(directory);
    out->Append("/", 1);
  }
  out->Append(name);
  return true;
}

// Replaces array's content with text (NUL-terminated, the NUL not counted).
void SetArray(UByteArray *array, const char *text, size_t length) {
  auto view = View(*array, kFile, __LINE__);
  view.Clear();
  view.Reserve(length + 1);
  view.Append(reinterpret_cast<const unsigned char *>(text), length);
  array->elements[array->count] = '\0';
}

void AppendArray(UByteArray *array, const char *text, size_t length) {
  auto view = View(*array, kFile, __LINE__);
  view.Reserve(uint64_t(array->count) + length + 1);
  view.Append(reinterpret_cast<const unsigned char *>(text), length);
  array->elements[array->count] = '\0';
}

// ---- opening ---------------------------------------------------------------

constexpr int kKnownFlags = KZ_O_WRONLY | KZ_O_RDWR | KZ_O_APPEND | KZ_O_RANDOM | KZ_O_SEQUENTIAL | KZ_O_NOINHERIT |
                            KZ_O_CREAT | KZ_O_TRUNC | KZ_O_EXCL | KZ_O_BINARY;

int HintBits(int hint) { return hint == 1 ? KZ_O_SEQUENTIAL : hint == 2 ? KZ_O_RANDOM : 0; }

int OpenPath(const char *path, int flags, int mode) {
  if ((flags & ~kKnownFlags) || (flags & (KZ_O_WRONLY | KZ_O_RDWR)) == (KZ_O_WRONLY | KZ_O_RDWR)) {
    errno = EINVAL;
    return -1;
  }
  os::OpenRequest request{};
  request.access = (flags & KZ_O_RDWR) ? 2 : (flags & KZ_O_WRONLY) ? 1 : 0;
  request.create = flags & KZ_O_CREAT;
  request.truncate = flags & KZ_O_TRUNC;
  request.exclusive = flags & KZ_O_EXCL;
  request.append = flags & KZ_O_APPEND;
  request.hint = (flags & KZ_O_SEQUENTIAL) ? 1 : (flags & KZ_O_RANDOM) ? 2 : 0;
  request.permission = static_cast<unsigned>(mode);
  int error = 0;
  int fd = os::Open(path, request, &error);
  return fd >= 0 ? fd : OpenFailure(error);
}

int OpenJoined(const char *directory, const char *name, int flags, int mode) {
  Text path;
  if (!JoinPath(&path, directory, name)) return -1;
  return OpenPath(path.c_str(), flags, mode);
}

// ---- mapped views ----------------------------------------------------------

// The system needs a view's length to unmap it; FileUnmap is given the address
// alone, so every view made here is remembered with its length.
struct MappedView {
  void *address;
  size_t size;
};
struct MappedViewTable {
  MappedView *elements;
  uint32_t count;
  uint32_t capacity;
};
MappedViewTable g_views{};  // guarded by ViewLock()

LazyLock &ViewLock() {
  static LazyLock lock;
  return lock;
}

void RememberView(void *address, size_t size) {
  LazyLockGuard hold(ViewLock());
  View(g_views, kFile, __LINE__).Append(MappedView{address, size});
}

// The view's length, removed from the table; 0 when address is no view.
size_t ForgetView(void *address) {
  LazyLockGuard hold(ViewLock());
  for (uint32_t i = 0; i < g_views.count; i++) {
    if (g_views.elements[i].address != address) continue;
    size_t size = g_views.elements[i].size;
    g_views.elements[i] = g_views.elements[--g_views.count];
    return size;
  }
  return 0;
}

// ---- attributes ------------------------------------------------------------

// The part of path after its last '/', trailing '/' ignored.
bool HiddenName(const char *path) {
  size_t end = strlen(path);
  while (end > 1 && path[end - 1] == '/') end--;
  size_t start = end;
  while (start > 0 && path[start - 1] != '/') start--;
  size_t length = end - start;
  if (length == 0 || path[start] != '.') return false;
  return !(length == 1 || (length == 2 && path[start + 1] == '.'));  // "." and ".." are not hidden
}

uint32_t AttributeWord(const os::Attributes &a, bool hidden) {
  os::Kind own = os::KindOf(a.mode);
  bool link = own == os::Kind::kLink;
  // A link carries its target's type (and permission) bits when it has one.
  uint32_t typeMode = link && a.targetMode ? a.targetMode : a.mode;
  os::Kind kind = link && !a.targetMode ? os::Kind::kLink : os::KindOf(typeMode);
  uint32_t word = 0;
  if (link) word |= KZ_FILE_ATTRIBUTE_LINK;
  if (hidden) word |= KZ_FILE_ATTRIBUTE_HIDDEN;
  if (kind != os::Kind::kLink && !os::Writable(typeMode)) word |= KZ_FILE_ATTRIBUTE_READONLY;
  switch (kind) {
    case os::Kind::kDirectory: word |= KZ_FILE_ATTRIBUTE_DIRECTORY; break;
    case os::Kind::kCharacterDevice:
    case os::Kind::kBlockDevice: word |= KZ_FILE_ATTRIBUTE_DEVICE; break;
    case os::Kind::kFifo: word |= KZ_FILE_ATTRIBUTE_FIFO; break;
    case os::Kind::kSocket: word |= KZ_FILE_ATTRIBUTE_SOCKET; break;
    default: break;
  }
  if (word == 0) word = KZ_FILE_ATTRIBUTE_NORMAL;
  return word;
}

// The shared query: 1 with errno 0, or 0 with errno -1 (22 for a bad path).
int Query(const char *path, KZFileAttributes *out) {
  if (!CheckPath(path)) return 0;
  os::Attributes a;
  int error = 0;
  if (!os::QueryAttributes(path, &a, &error)) return SystemFailure(error, 0);
  out->attributes = AttributeWord(a, HiddenName(path));
  out->mode = a.mode;
  out->size = a.size;
  out->lastModified = a.modifiedMs;
  out->lastAccessed = a.accessedMs;
  out->lastChanged = a.changedMs;
  out->device = a.device;
  out->inode = a.inode;
  errno = 0;
  return 1;
}

int AttributeTest(const char *path, uint32_t bit) {
  KZFileAttributes a;
  if (!Query(path, &a)) return 0;
  return (a.attributes & bit) ? 1 : 0;
}

bool Exists(const char *path) {
  KZFileAttributes a;
  return Query(path, &a) == 1;
}

// ---- moving ----------------------------------------------------------------

// rename(2), or across file systems a flushed copy and the source removed.
bool TryMove(const char *source, const char *target, int *error) {
  if (os::Rename(source, target, error)) return true;
  if (*error != EXDEV) return false;
  if (!os::Copy(source, target, true, error)) return false;
  return os::Remove(source, error);
}

void RemoveDestination(const char *target) {
  int ignored;
  if (os::IsDirectoryPath(target))
    os::RemoveDirectory(target, &ignored);
  else
    os::Remove(target, &ignored);
}

// The move used everywhere: replace-existing and copy-allowed, one retry after
// deleting the destination when it is in the way or busy.
bool Move(const char *source, const char *target, int *error) {
  if (TryMove(source, target, error)) return true;
  if (*error == EEXIST || *error == ENOTEMPTY) {
    RemoveDestination(target);
  } else if (*error == EBUSY || *error == ETXTBSY) {
    os::SleepMilliseconds(1000);
    RemoveDestination(target);
  } else {
    return false;
  }
  return TryMove(source, target, error);
}

// ---- absolute paths --------------------------------------------------------

// cwd "/" path with "." and ".." steps resolved by the text.
bool MakeAbsolute(Text *out, const char *path, int *error) {
  if (path[0] == '/') {
    out->Append(path);
    return true;
  }
  char cwd[4096];
  if (!os::CurrentDirectory(cwd, sizeof cwd, error)) return false;
  Text joined;
  joined.Append(cwd);
  joined.Append("/", 1);
  joined.Append(path);
  const char *p = joined.c_str();
  out->Append("/", 1);
  while (*p) {
    while (*p == '/') p++;
    const char *end = p;
    while (*end && *end != '/') end++;
    size_t length = static_cast<size_t>(end - p);
    if (length == 0 || (length == 1 && p[0] == '.')) {
    } else if (length == 2 && p[0] == '.' && p[1] == '.') {
      uint32_t keep = out->size() - 1;  // past the separator that ends the last step
      while (keep > 1 && out->c_str()[keep - 1] != '/') keep--;
      out->Truncate(keep > 1 ? keep : 1);
    } else {
      out->Append(p, length);
      out->Append("/", 1);
    }
    p = end;
  }
  size_t pathLength = strlen(path);
  bool trailingSlash = pathLength > 0 && path[pathLength - 1] == '/';
  if (out->size() > 1 && !trailingSlash) out->Truncate(out->size() - 1);
  if (out->size() > kPathLimit) {
    *error = ENAMETOOLONG;
    return false;
  }
  return true;
}

// A backup move that failed only because there was nothing to move: the
// target is missing (the backup's own directory being missing is a failure).
bool NothingToBackUp(const char *target, int error) { return error == ENOENT && !os::Exists(target); }

bool PlatformAbsolute(const char *name) { return name[0] == '/'; }

// ---- directory walking -----------------------------------------------------

struct Identity {
  uint64_t device, inode;
};
struct IdentityStack {
  Identity *elements;
  uint32_t count;
  uint32_t capacity;
};

struct Walker {
  KZDirectoryWalkCallback callback;
  void *argument;
  bool followLinks;
  Text path;
  IdentityStack open{};  // the directories open on the way down
  ~Walker() { free(open.elements); }
};

bool OnTheWay(const Walker &walker, const Identity &identity) {
  for (uint32_t i = 0; i < walker.open.count; i++)
    if (walker.open.elements[i].device == identity.device && walker.open.elements[i].inode == identity.inode)
      return true;
  return false;
}

void RaiseAt(uint32_t line, const char *function, int error, const char *text, const char *path) {
  os::FailWithError(error);
  KZSetMessageContext2_(kFile, line, "kzlib", function, 4, 0);
  KZErrorRethrow_("%s%s%s", text, *path ? " " : "", path);
}

// Walks one open directory; 1 done, 2 stopped, 0 failed (error raised).
int WalkLevel(Walker *walker, os::Listing *listing, int depth) {
  uint32_t base = walker->path.size();
  for (;;) {
    const char *name;
    os::Attributes a;
    int error = 0;
    int got = os::ListingNext(listing, &name, &a, &error);
    if (got == 0) return 1;
    if (got < 0) {
      walker->path.Truncate(base);
      RaiseAt(__LINE__, "DirectoryWalk", error, "cannot read directory", walker->path.c_str());
      return 0;
    }
    walker->path.Truncate(base);
    if (base == 0 || walker->path.c_str()[base - 1] != '/') walker->path.Append("/", 1);
    walker->path.Append(name);
    bool hidden = name[0] == '.';
    uint32_t word = AttributeWord(a, hidden);
    int answer = walker->callback(walker->argument, walker->path.c_str(), word, depth);
    if (answer == 2) return 2;
    bool directory =
        os::KindOf(a.mode) == os::Kind::kDirectory || (walker->followLinks && os::KindOf(a.mode) == os::Kind::kLink &&
                                                       os::KindOf(a.targetMode) == os::Kind::kDirectory);
    if (!directory || answer == 1) continue;
    Identity identity{a.device, a.inode};
    os::Listing *child = os::ListingOpenAt(listing, name, &error);
    if (!child) {
      if (error == ENOENT) continue;  // removed while walking
      RaiseAt(__LINE__, "DirectoryWalk", error, "cannot open directory", walker->path.c_str());
      return 0;
    }
    if (os::KindOf(a.mode) == os::Kind::kLink) os::ListingIdentity(child, &identity.device, &identity.inode);
    if (OnTheWay(*walker, identity)) {  // a link back up the tree: reported, not entered
      os::ListingClose(child);
      continue;
    }
    View(walker->open, kFile, __LINE__).Append(identity);
    int result = WalkLevel(walker, child, depth + 1);
    walker->open.count--;
    os::ListingClose(child);
    if (result != 1) return result;
  }
}

}  // namespace
}  // namespace kz

using namespace kz;

// ---- descriptors and streams -------------------------------------------------

KZ_API int FDSetInheritance(int fd, int inherit) {
  bool bad = false;
  int error = 0;
  int before = errno;
  if (os::SetInheritance(fd, inherit != 0, &bad, &error)) return 1;
  if (bad) {
    errno = before;  // quietly: an invalid descriptor leaves no trace
    return 0;
  }
  os::FailWithError(error);
  Raise(__LINE__, "FDSetInheritance", "error disabling handle inheritance");
  return 0;
}

KZ_API int FDGetDefaultFileFlags(void) { return KZ_O_BINARY | KZ_O_NOINHERIT; }

KZ_API int FileOpen(const char *directory, const char *name, int readOnly, int hint) {
  int flags = readOnly ? 0x8080 : 0x8182;
  return OpenJoined(directory, name, flags | HintBits(hint), 0600);
}

KZ_API int FileOpenFlags(const char *directory, const char *name, int flags, int mode, int hint) {
  return OpenJoined(directory, name, flags | 0x8080 | HintBits(hint), mode);
}

KZ_API FILE *FileFOpen(const char *directory, const char *name, const char *mode) {
  Text path;
  if (!mode || !JoinPath(&path, directory, name)) {
    errno = EINVAL;
    return nullptr;
  }
  int error = 0;
  FILE *stream = os::OpenStream(path.c_str(), mode, &error);
  if (!stream) OpenFailure(error);
  return stream;
}

// ---- mapping -----------------------------------------------------------------

KZ_API void *FileMapSegment(int fd, int readOnly, uint64_t offset, size_t size) {
  int64_t length = 0;
  int error = 0;
  if (!os::FileLength(fd, &length, &error)) return SystemFailure<void *>(error, nullptr);
  uint64_t fileSize = static_cast<uint64_t>(length);
  if (size == 0 && offset < fileSize) size = static_cast<size_t>(fileSize - offset);
  if (size == 0 || offset > fileSize || size > fileSize - offset) return SystemFailure<void *>(EINVAL, nullptr);
  void *view = os::Map(fd, readOnly != 0, offset, size, &error);
  if (!view) return SystemFailure<void *>(error, nullptr);
  RememberView(view, size);
  return view;
}

KZ_API void *FileMapFD(int fd, int readOnly, uint64_t *size, int *isEmpty) {
  int error = 0;
  int64_t end = os::SeekEnd(fd, &error);
  if (end < 0) return SystemFailure<void *>(error, nullptr);
  if (size) *size = static_cast<uint64_t>(end);
  if (end == 0) {
    if (isEmpty) *isEmpty = 1;
    errno = 0;
    return nullptr;
  }
  if (isEmpty) *isEmpty = 0;
  return FileMapSegment(fd, readOnly, 0, static_cast<size_t>(end));
}

KZ_API void *FileMap(const char *directory, const char *name, int readOnly, uint64_t *size, int *isEmpty, int hint) {
  int fd = OpenJoined(directory, name, (readOnly ? 0x8080 : 0x8082) | HintBits(hint), 0600);
  if (fd < 0) return nullptr;
  uint64_t length = 0;
  void *view = FileMapFD(fd, readOnly, &length, isEmpty);
  int error = 0;
  if (!view) {
    const ErrorStateKept kept;  // the mapping's outcome, not the close's
    os::Close(fd, &error);
  } else if (!os::Close(fd, &error)) {
    FileUnmap(view);
    return SystemFailure<void *>(error, nullptr);
  }
  if (size) *size = length;
  return view;
}

KZ_API void *FileMapRead(const char *directory, const char *name, uint64_t *size, int *isEmpty) {
  return FileMap(directory, name, 1, size, isEmpty, 0);
}

KZ_API void *FileMapReadWrite(const char *directory, const char *name, uint64_t *size, int *isEmpty) {
  return FileMap(directory, name, 0, size, isEmpty, 0);
}

KZ_API void *FileMapUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name, uint32_t nameLength,
                         int readOnly, uint64_t *size, int *isEmpty, int hint) {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  Text path;
  if (directory) {
    UCS2Decode(&path.array(), directory, directoryLength);
    path.Append("/", 1);
  }
  UCS2Decode(&path.array(), name, nameLength);
  if (strlen(path.c_str()) != path.size()) {  // a unit 0 inside cannot be part of a path
    errno = EINVAL;
    return nullptr;
  }
  return FileMap(nullptr, path.c_str(), readOnly, size, isEmpty, hint);
}

KZ_API void *FileMapReadUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name,
                             uint32_t nameLength, uint64_t *size, int *isEmpty) {
  return FileMapUCS2(directory, directoryLength, name, nameLength, 1, size, isEmpty, 0);
}

KZ_API void *FileMapReadWriteUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name,
                                  uint32_t nameLength, uint64_t *size, int *isEmpty) {
  return FileMapUCS2(directory, directoryLength, name, nameLength, 0, size, isEmpty, 0);
}

KZ_API int FileUnmap(void *view) {
  size_t size = view ? ForgetView(view) : 0;
  if (size == 0) {
    errno = EINVAL;
    return 0;
  }
  int error = 0;
  return os::Unmap(view, size, &error) ? 1 : SystemFailure(error, 0);
}

KZ_API int FileMapSync(void *view, size_t size) {
  if (size == 0 || KZLibGetSyncOff()) return 1;
  int error = 0;
  return os::SyncView(view, size, &error) ? 1 : SystemFailure(error, 0);
}

// ---- removing, copying, sizing --------------------------------------------------

KZ_API int FileRemove(const char *path) {
  if (!CheckPath(path)) return 0;
  int error = 0;
  return os::Remove(path, &error) ? 1 : SystemFailure(error, 0);
}

KZ_API int DirectoryRemove(const char *path) {
  if (!CheckPath(path)) return 0;
  int error = 0;
  return os::RemoveDirectory(path, &error) ? 1 : SystemFailure(error, 0);
}

KZ_API int FileHasAccess(const char *path, int mode) {
  if (!CheckPath(path)) return 0;
  int error = 0;
  return os::HasAccess(path, mode, &error) ? 1 : SystemFailure(error, 0);
}

KZ_API int FileCopy(const char *source, const char *target, const char *backup) {
  if (!source || !*source) return 0;
  if (!CheckPath(source) || !CheckPath(target) || (backup && !CheckPath(backup))) return 0;
  int error = 0;
  if (backup && !Move(target, backup, &error) && !NothingToBackUp(target, error)) return SystemFailure(error, 0);
  return os::Copy(source, target, false, &error) ? 1 : SystemFailure(error, 0);
}

KZ_API int FileTruncateFD(int fd, int64_t size, int fill) {
  if ((size >> 32) < 0) kzassert_("hi >= 0", kFile, __LINE__);
  int error = 0;
  int64_t length = 0;
  if (fill && !os::FileLength(fd, &length, &error)) return SystemFailure(error, 0);
  if (fill && length < size) {
    if (os::SeekEnd(fd, &error) < 0) return SystemFailure(error, 0);
    void *zeros = Allocate0_(kZeroBlock, kFile, __LINE__);
    uint64_t delta = static_cast<uint64_t>(size - length);
    while (delta > 0) {
      size_t piece = delta < kZeroBlock ? static_cast<size_t>(delta) : kZeroBlock;
      long written = os::WriteSome(fd, zeros, piece, &error);
      if (written < 0) {
        free(zeros);
        return SystemFailure(error, 0);
      }
      if (static_cast<uint64_t>(written) > delta) kzassert_("written <= delta", kFile, __LINE__);
      delta -= static_cast<uint64_t>(written);
    }
    free(zeros);
    return os::Flush(fd, &error) ? 1 : SystemFailure(error, 0);
  }
  if (!os::SeekTo(fd, size, &error) || !os::SetLength(fd, size, &error)) return SystemFailure(error, 0);
  return 1;
}

KZ_API int FileTruncate(const char *path, int64_t size, int fill) {
  int fd = OpenJoined(nullptr, path, 0x8082, 0600);
  if (fd < 0) return 0;
  int result = FileTruncateFD(fd, size, fill);
  int error = 0;
  if (!os::Close(fd, &error) && result) return SystemFailure(error, 0);
  return result;
}

// ---- renaming and names ----------------------------------------------------------

KZ_API int FileRename(const char *source, const char *target, const char *backup) {
  if (!source || !*source) return 0;
  if (!CheckPath(source) || !CheckPath(target) || (backup && !CheckPath(backup))) return 0;
  int error = 0;
  if (backup && !Move(target, backup, &error) && !NothingToBackUp(target, error)) {
    os::FailWithError(error);
    Raise(__LINE__, "FileRename", "backup creation failed");
    return 0;
  }
  if (!Move(source, target, &error)) {
    os::FailWithError(error);
    Raise(__LINE__, "FileRename", "source renaming failed");
    return 0;
  }
  return 1;
}

KZ_API char *CreateTemporaryFileName(char *buffer) {
  uint32_t r = static_cast<uint32_t>(KZRandULong(nullptr));
  char *p = buffer + strlen(buffer);
  for (int i = 0; i < 6; i++, r /= 36) *p++ = kAlphabet[r % 36];
  *p = '\0';
  return buffer;
}

KZ_API void MakeTemporaryFileName(UByteArray *out, const char *prefix, const char *suffix) {
  uint64_t r = KZRandULong(nullptr);
  uint64_t t = os::WallClockMicroseconds() + kMicrosecondsFrom1601To1970;
  char digits[26];
  for (int i = 0; i < 13; i++, t /= 36, r /= 36) {
    digits[2 * i] = kAlphabet[t % 36];
    digits[2 * i + 1] = kAlphabet[r % 36];
  }
  if (prefix) AppendArray(out, prefix, strlen(prefix));
  AppendArray(out, digits, sizeof digits);
  if (suffix) AppendArray(out, suffix, strlen(suffix));
}

// ---- absolute paths ----------------------------------------------------------------

KZ_API int PathIsAbsolute(const char *path) { return path && PlatformAbsolute(path) ? 1 : 0; }

KZ_API int PathMakeAbsolute(UByteArray *out, const char *path) {
  if (!path || !*path || !CheckPath(path)) {
    errno = EINVAL;
    return 0;
  }
  Text absolute;
  int error = 0;
  if (!MakeAbsolute(&absolute, path, &error)) return SystemFailure(error, 0);
  SetArray(out, absolute.c_str(), absolute.size());
  return 1;
}

KZ_API int AppendTemporaryDirectory(UByteArray *out) {
  EnvironmentValue temporary("TMPDIR");
  const char *directory = temporary.text();
  if (!directory || !*directory) directory = "/tmp";
  size_t length = strlen(directory);
  AppendArray(out, directory, length);
  if (directory[length - 1] != '/') AppendArray(out, "/", 1);
  return 1;
}

// ---- path lists ------------------------------------------------------------------------

KZ_API const char *PathGetBinaryPathVariable(void) { return "PATH"; }

KZ_API void PathListEnumerate(const char *list, KZPathListCallback callback, void *context) {
  if (!list) return;
  Text piece;
  for (const char *p = list; *p;) {
    const char *end = strchr(p, ':');
    if (!end) end = p + strlen(p);
    size_t length = static_cast<size_t>(end - p);
    if (length > 1 && p[length - 1] == '/') length--;
    if (length > 0) {
      piece.Truncate(0);
      piece.Append(p, length);
      if (!callback(context, piece.c_str())) return;
    }
    p = *end ? end + 1 : end;
  }
}

KZ_API int PathFindInList(const char *list, UByteArray *out, const char *name) {
  if (!list || !*list || !name || !*name || !CheckPath(name)) return 0;
  uint32_t entry = out->count;
  if (!PlatformAbsolute(name)) {
    Text candidate;
    for (const char *p = list; *p;) {
      const char *end = strchr(p, ':');
      if (!end) end = p + strlen(p);
      size_t length = static_cast<size_t>(end - p);
      if (length > 0) {
        candidate.Truncate(0);
        candidate.Append(p, length);
        if (p[length - 1] != '/') candidate.Append("/", 1);
        candidate.Append(name);
        if (Exists(candidate.c_str())) {
          AppendArray(out, candidate.c_str(), candidate.size());
          return 1;
        }
      }
      p = *end ? end + 1 : end;
    }
  }
  Text absolute;
  int error = 0;
  if (MakeAbsolute(&absolute, name, &error) && Exists(absolute.c_str())) {
    out->count = entry;
    AppendArray(out, absolute.c_str(), absolute.size());
    return 1;
  }
  out->count = entry;
  if (out->elements) out->elements[entry] = '\0';
  return 0;
}

KZ_API int PathFindExecutable(UByteArray *out, const char *name) {
  out->count = 0;
  if (out->elements) out->elements[0] = '\0';
  if (!name || !*name || !CheckPath(name)) return 0;
  if (PlatformAbsolute(name)) {
    if (!Exists(name)) return 0;
    SetArray(out, name, strlen(name));
    return 1;
  }
  if (PathFindInList(EnvironmentValue(PathGetBinaryPathVariable()).text(), out, name)) return 1;
  char program[kModulePathBuffer];
  int error = 0;
  long length = os::GetExecutablePath(program, sizeof program, &error);
  if (length <= 0 || static_cast<size_t>(length) >= sizeof program) return 0;
  while (length > 0 && program[length - 1] != '/') length--;
  Text candidate;
  candidate.Append(program, static_cast<size_t>(length));
  candidate.Append(name);
  if (!Exists(candidate.c_str())) return 0;
  SetArray(out, candidate.c_str(), candidate.size());
  return 1;
}

// ---- attributes ------------------------------------------------------------------------

KZ_API int FileGetAttributes(const char *path, KZFileAttributes *attributes) { return Query(path, attributes); }

KZ_API int FileExists(const char *path) { return Exists(path) ? 1 : 0; }

KZ_API int FileIsDirectory(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_DIRECTORY); }

KZ_API int FileIsFile(const char *path) {
  KZFileAttributes a;
  if (!Query(path, &a)) return 0;
  return (a.attributes & KZ_FILE_ATTRIBUTE_DIRECTORY) ? 0 : 1;
}

KZ_API int FileIsReadOnly(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_READONLY); }

KZ_API int FileIsHidden(const char *path) {
  KZFileAttributes a;
  if (!Query(path, &a)) return 1;  // what cannot be queried counts as hidden
  return (a.attributes & KZ_FILE_ATTRIBUTE_HIDDEN) ? 1 : 0;
}

KZ_API int FileIsLink(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_LINK); }
KZ_API int FileIsDevice(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_DEVICE); }
KZ_API int FileIsFifo(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_FIFO); }
KZ_API int FileIsSocket(const char *path) { return AttributeTest(path, KZ_FILE_ATTRIBUTE_SOCKET); }

KZ_API int64_t FileSize(const char *path) {
  KZFileAttributes a;
  return Query(path, &a) ? static_cast<int64_t>(a.size) : -1;
}

namespace {
int64_t TimeQuery(const char *path, int *failed, int64_t KZFileAttributes::*field) {
  KZFileAttributes a;
  int ok = Query(path, &a);
  if (failed) *failed = ok ? 0 : 1;
  return ok ? a.*field : 0;
}
}  // namespace

KZ_API int64_t FileLastModified(const char *path, int *failed) {
  return TimeQuery(path, failed, &KZFileAttributes::lastModified);
}
KZ_API int64_t FileLastAccessed(const char *path, int *failed) {
  return TimeQuery(path, failed, &KZFileAttributes::lastAccessed);
}
KZ_API int64_t FileLastChanged(const char *path, int *failed) {
  return TimeQuery(path, failed, &KZFileAttributes::lastChanged);
}

// ---- source-table writer ------------------------------------------------------------------

KZ_API int FileWriteCArray(FILE *stream, const void *data, unsigned int elementSize, unsigned int count,
                           const char *arrayName) {
  const char *type;
  switch (elementSize) {
    case 1: type = "UByte"; break;
    case 2: type = "UShort"; break;
    case 4: type = "UInt"; break;
    case 8: type = "ULong"; break;
    default:
      KZ_MESSAGE_AT(kFile, __LINE__, "FileWriteCArray", 3, 0, ": invalid element size in FileWriteCArray (size=%u)",
                    elementSize);
      return 1;
  }
  if (fprintf(stream, "static %s %s[%u] = { \n", type, arrayName, count) < 0) return 0;
  const unsigned char *bytes = static_cast<const unsigned char *>(data);
  unsigned column = 0;
  for (unsigned i = 0; i < count; i++) {
    const char *separator = i + 1 < count ? ", " : " };\n";
    const unsigned char *at = bytes + static_cast<size_t>(i) * elementSize;
    int n;
    if (elementSize == 1) {
      n = fprintf(stream, "%u%s", static_cast<unsigned>(*at), separator);
    } else if (elementSize == 2) {
      uint16_t v;
      memcpy(&v, at, 2);
      n = fprintf(stream, "%u%s", static_cast<unsigned>(v), separator);
    } else if (elementSize == 4) {
      uint32_t v;
      memcpy(&v, at, 4);
      n = fprintf(stream, "%uU%s", v, separator);
    } else {
      uint64_t v;
      memcpy(&v, at, 8);
      n = fprintf(stream, "%" PRIu64 "UL%s", v, separator);
    }
    if (n < 0) return 0;
    column = i + 1 < count ? column + static_cast<unsigned>(n) : 0;  // the last element ends its line
    if (column > 70) {
      if (fputs("\n", stream) < 0) return 0;
      column = 0;
    }
  }
  return 1;
}

// ---- lock files -----------------------------------------------------------------------------

KZ_API FileLock *FileLockAcquire(const char *directory, const char *name, int exclusive, int wait) {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  size_t need = directory ? strlen(directory) + 1 + strlen(name) + 1 : strlen(name) + 1;
  if (need > kPathLimit) {
    errno = EINVAL;
    return nullptr;
  }
  Text path;
  if (!JoinPath(&path, directory, name)) return nullptr;
  int fd = OpenPath(path.c_str(), exclusive ? 0x8182 : 0x8080, 0600);
  if (fd < 0) return nullptr;
  bool busy = false;
  int error = 0;
  if (!os::LockFile(fd, exclusive != 0, wait != 0, &busy, &error)) {
    int ignored;
    os::Close(fd, &ignored);
    if (busy) {
      KZSetLastError(error);
      errno = EBUSY;
      return nullptr;
    }
    return SystemFailure<FileLock *>(error, nullptr);
  }
  FileLock *lock = static_cast<FileLock *>(Allocate0_(sizeof(FileLock), kFile, __LINE__));
  memcpy(lock->path, path.c_str(), path.size() + 1);
  lock->exclusive = exclusive ? 1 : 0;
  lock->descriptor = fd;
  lock->mutex = KZ_MUTEX_INITIALIZER;
  return lock;
}

KZ_API FileLock *FileLockAcquireExclusive(const char *directory, const char *name, int wait) {
  return FileLockAcquire(directory, name, 1, wait);
}

namespace {
KZMutex *RecordMutex(FileLock *lock) { return reinterpret_cast<KZMutex *>(&lock->mutex); }
}  // namespace

KZ_API int FileLockWrite(FileLock *lock, const char *text) {
  MutexLock(RecordMutex(lock));
  int result = 0;
  int error = 0;
  if (lock->exclusive) {
    if (!os::SeekTo(lock->descriptor, 0, &error) || !os::SetLength(lock->descriptor, 0, &error) ||
        !os::WriteAll(lock->descriptor, text, strlen(text), &error))
      os::FailWithError(error);
    else
      result = 1;
  }
  MutexUnlock(RecordMutex(lock));
  return result;
}

KZ_API int FileLockRead(FileLock *lock, UByteArray *out) {
  MutexLock(RecordMutex(lock));
  int result = 1;
  auto view = View(*out, kFile, __LINE__);
  for (;;) {
    view.Reserve(uint64_t(out->count) + 1024 + 1);
    int error = 0;
    long got = os::ReadSome(lock->descriptor, out->elements + out->count, 1024, &error);
    if (got < 0) {
      os::FailWithError(error);
      result = 0;
      break;
    }
    out->count += static_cast<uint32_t>(got);
    if (got < 1024) break;
  }
  if (out->elements) out->elements[out->count] = '\0';
  MutexUnlock(RecordMutex(lock));
  return result;
}

KZ_API int FileLockRelease(FileLock *lock) {
  int fd = lock->descriptor;
  MutexDestroy(RecordMutex(lock));
  free(lock);
  int unlockError = 0, closeError = 0;
  bool unlocked = os::UnlockFile(fd, &unlockError);
  bool closed = os::Close(fd, &closeError);
  if (unlocked && closed) return 1;
  return SystemFailure(unlocked ? closeError : unlockError, 0);
}

// ---- directory listing ---------------------------------------------------------------------

KZ_API void *DirectoryOpen(const char *path) {
  if (!CheckPath(path)) return nullptr;
  int error = 0;
  os::Listing *listing = os::ListingOpen(path, &error);
  if (!listing) RaiseAt(__LINE__, "DirectoryOpen", error, "cannot open directory", path);
  return listing;
}

KZ_API int DirectoryNext(void *dir, UByteArray *name, uint32_t *attributes) {
  const char *entry;
  os::Attributes a;
  int error = 0;
  int got = os::ListingNext(static_cast<os::Listing *>(dir), &entry, &a, &error);
  if (got < 0) {
    RaiseAt(__LINE__, "DirectoryNext", error, "cannot read directory", "");
    return -1;
  }
  if (got == 0) return 0;
  SetArray(name, entry, strlen(entry));
  if (attributes) *attributes = AttributeWord(a, entry[0] == '.');
  return 1;
}

KZ_API void DirectoryClose(void *dir) { os::ListingClose(static_cast<os::Listing *>(dir)); }

KZ_API int DirectoryWalk(const char *path, KZDirectoryWalkCallback callback, void *argument, uint32_t flags) {
  if (!callback || !CheckPath(path)) {
    errno = EINVAL;
    return 0;
  }
  int error = 0;
  os::Listing *root = os::ListingOpen(path, &error);
  if (!root) {
    RaiseAt(__LINE__, "DirectoryWalk", error, "cannot open directory", path);
    return 0;
  }
  Walker walker;
  walker.callback = callback;
  walker.argument = argument;
  walker.followLinks = (flags & KZ_DIRECTORY_WALK_FOLLOW_LINKS) != 0;
  size_t length = strlen(path);
  while (length > 1 && path[length - 1] == '/') length--;
  walker.path.Append(path, length);
  Identity identity{};
  os::ListingIdentity(root, &identity.device, &identity.inode);
  View(walker.open, kFile, __LINE__).Append(identity);
  int result = WalkLevel(&walker, root, 1);
  os::ListingClose(root);
  return result;
}
