// Operating-system side of the file family (src/posix/file.cpp). Paths are
// NUL-terminated UTF-8, already checked. Unless a comment says otherwise a
// failing call returns false / -1 / null with the system's error number in
// *error (never through errno, which the portable side sets).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kz::os {

// Open flags, already translated from the library's bits.
struct OpenRequest {
  int access;  // 0 read, 1 write, 2 read and write
  bool create, truncate, exclusive, append;
  int hint;  // 0 none, 1 sequential, 2 random
  unsigned permission;
};
// The new descriptor (close-on-exec), or -1.
int Open(const char *path, const OpenRequest &request, int *error);
// fopen with its mode letters, close-on-exec; null when it fails or the
// stream has no descriptor.
FILE *OpenStream(const char *path, const char *mode, int *error);
bool Close(int fd, int *error);
// Sets or clears close-on-exec. *badDescriptor tells an invalid descriptor.
bool SetInheritance(int fd, bool inherit, bool *badDescriptor, int *error);

// Sizes and positions.
int64_t SeekEnd(int fd, int *error);
bool SeekTo(int fd, int64_t position, int *error);
bool SetLength(int fd, int64_t size, int *error);
bool FileLength(int fd, int64_t *size, int *error);
// Writes all of data; false on the first failure.
bool WriteAll(int fd, const void *data, size_t size, int *error);
// One write; the count written or -1.
long WriteSome(int fd, const void *data, size_t size, int *error);
// One read; the count read (0 at the end) or -1.
long ReadSome(int fd, void *buffer, size_t size, int *error);
bool Flush(int fd, int *error);

// Mappings, shared with the file.
void *Map(int fd, bool readOnly, uint64_t offset, size_t size, int *error);
bool Unmap(void *view, size_t size, int *error);
bool SyncView(void *view, size_t size, int *error);

// Whole-file operations.
bool Remove(const char *path, int *error);
bool RemoveDirectory(const char *path, int *error);
bool HasAccess(const char *path, int mode, int *error);
// rename(2): replaces an existing file.
bool Rename(const char *source, const char *target, int *error);
// Copies content, permission bits and last write time over target (replaced);
// flushes the copy to disk when flush is set. A copy that fails after target
// was opened removes target. Copying a file onto itself is EINVAL.
bool Copy(const char *source, const char *target, bool flush, int *error);
bool Exists(const char *path);
bool IsDirectoryPath(const char *path);

// What the attribute query reads.
struct Attributes {
  uint32_t mode;        // st_mode of the object itself
  uint32_t targetMode;  // st_mode of a link's target; 0 when it has none
  uint64_t size, device, inode;
  int64_t modifiedMs, accessedMs, changedMs;
};
// Kinds of file, answered from a mode word.
enum class Kind { kFile, kDirectory, kLink, kCharacterDevice, kBlockDevice, kFifo, kSocket };
Kind KindOf(uint32_t mode);
bool Writable(uint32_t mode);  // any write permission bit
bool QueryAttributes(const char *path, Attributes *attributes, int *error);

// The current directory into buffer; false when it cannot be told or fit.
bool CurrentDirectory(char *buffer, size_t size, int *error);
// Wall-clock time in microseconds since 1970.
uint64_t WallClockMicroseconds();
void SleepMilliseconds(uint32_t milliseconds);

// Whole-file locks owned by the open file description. Busy is reported as
// *busy with false returned.
bool LockFile(int fd, bool exclusive, bool wait, bool *busy, int *error);
bool UnlockFile(int fd, int *error);

// Directory listing. A listing holds its directory open.
struct Listing;
Listing *ListingOpen(const char *path, int *error);
// Opens the entry `name` of an open listing as a listing of its own.
Listing *ListingOpenAt(Listing *parent, const char *name, int *error);
// 1 with the entry's name (valid until the next call) and its attributes, 0
// at the end, -1 on failure. Entries that vanish before their query, "." and
// ".." are skipped.
int ListingNext(Listing *listing, const char **name, Attributes *attributes, int *error);
void ListingClose(Listing *listing);
// The device and inode of the directory a listing reads.
void ListingIdentity(Listing *listing, uint64_t *device, uint64_t *inode);

}  // namespace kz::os
