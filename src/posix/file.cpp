// Files on POSIX: open(2) with close-on-exec, mmap, rename, copy through
// copy_file_range, lstat-based attributes, open-file-description locks and
// directory listings through openat/fdopendir.
#include "internal/os/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "kz/memory.h"

namespace kz::os {
namespace {

bool Fail(int *error) {
  *error = errno;
  return false;
}

int64_t Milliseconds(const struct timespec &time) {
  return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

void Fill(const struct stat &status, uint32_t targetMode, Attributes *attributes) {
  attributes->mode = status.st_mode;
  attributes->targetMode = targetMode;
  attributes->size = static_cast<uint64_t>(status.st_size);
  attributes->device = status.st_dev;
  attributes->inode = status.st_ino;
  attributes->modifiedMs = Milliseconds(status.st_mtim);
  attributes->accessedMs = Milliseconds(status.st_atim);
  attributes->changedMs = Milliseconds(status.st_ctim);
}

}  // namespace

int Open(const char *path, const OpenRequest &request, int *error) {
  int flags = O_CLOEXEC | (request.access == 2 ? O_RDWR : request.access == 1 ? O_WRONLY : O_RDONLY);
  if (request.create) flags |= O_CREAT;
  if (request.truncate) flags |= O_TRUNC;
  if (request.exclusive) flags |= O_EXCL;
  if (request.append) flags |= O_APPEND;
  int fd;
  do fd = open(path, flags, static_cast<mode_t>(request.permission));
  while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    *error = errno;
    return -1;
  }
  // Advice only: a file system that ignores it changes nothing.
  if (request.hint == 1) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  if (request.hint == 2) posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
  return fd;
}

FILE *OpenStream(const char *path, const char *mode, int *error) {
  char withCloseOnExec[32];
  size_t length = strlen(mode);
  if (length + 2 > sizeof withCloseOnExec) {
    *error = EINVAL;
    return nullptr;
  }
  memcpy(withCloseOnExec, mode, length);
  memcpy(withCloseOnExec + length, "e", 2);  // glibc: O_CLOEXEC
  FILE *stream = fopen(path, withCloseOnExec);
  if (!stream) {
    *error = errno;
    return nullptr;
  }
  if (fileno(stream) < 0) {
    fclose(stream);
    *error = EBADF;
    return nullptr;
  }
  return stream;
}

bool Close(int fd, int *error) { return close(fd) == 0 || Fail(error); }

bool SetInheritance(int fd, bool inherit, bool *badDescriptor, int *error) {
  *badDescriptor = false;
  int flags = fcntl(fd, F_GETFD);
  if (flags >= 0) {
    flags = inherit ? (flags & ~FD_CLOEXEC) : (flags | FD_CLOEXEC);
    if (fcntl(fd, F_SETFD, flags) == 0) return true;
  }
  *badDescriptor = errno == EBADF;
  return Fail(error);
}

int64_t SeekEnd(int fd, int *error) {
  off_t end = lseek(fd, 0, SEEK_END);
  if (end < 0) *error = errno;
  return end;
}

bool SeekTo(int fd, int64_t position, int *error) { return lseek(fd, position, SEEK_SET) >= 0 || Fail(error); }

bool SetLength(int fd, int64_t size, int *error) { return ftruncate(fd, size) == 0 || Fail(error); }

bool FileLength(int fd, int64_t *size, int *error) {
  struct stat status;
  if (fstat(fd, &status) != 0) return Fail(error);
  *size = status.st_size;
  return true;
}

bool WriteAll(int fd, const void *data, size_t size, int *error) {
  const char *next = static_cast<const char *>(data);
  while (size > 0) {
    ssize_t written = write(fd, next, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return Fail(error);
    }
    next += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

long WriteSome(int fd, const void *data, size_t size, int *error) {
  ssize_t written;
  do written = write(fd, data, size);
  while (written < 0 && errno == EINTR);
  if (written < 0) *error = errno;
  return written;
}

long ReadSome(int fd, void *buffer, size_t size, int *error) {
  ssize_t got;
  do got = read(fd, buffer, size);
  while (got < 0 && errno == EINTR);
  if (got < 0) *error = errno;
  return got;
}

bool Flush(int fd, int *error) { return fsync(fd) == 0 || Fail(error); }

void *Map(int fd, bool readOnly, uint64_t offset, size_t size, int *error) {
  void *view =
      mmap(nullptr, size, readOnly ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
  if (view == MAP_FAILED) {
    *error = errno;
    return nullptr;
  }
  return view;
}

bool Unmap(void *view, size_t size, int *error) { return munmap(view, size) == 0 || Fail(error); }

bool SyncView(void *view, size_t size, int *error) { return msync(view, size, MS_SYNC) == 0 || Fail(error); }

bool Remove(const char *path, int *error) { return unlink(path) == 0 || Fail(error); }

bool RemoveDirectory(const char *path, int *error) { return rmdir(path) == 0 || Fail(error); }

bool HasAccess(const char *path, int mode, int *error) { return access(path, mode) == 0 || Fail(error); }

bool Rename(const char *source, const char *target, int *error) { return rename(source, target) == 0 || Fail(error); }

bool Copy(const char *source, const char *target, bool flush, int *error) {
  int in = open(source, O_RDONLY | O_CLOEXEC);
  if (in < 0) return Fail(error);
  struct stat status;
  if (fstat(in, &status) != 0 || S_ISDIR(status.st_mode)) {
    *error = S_ISDIR(status.st_mode) ? EISDIR : errno;
    close(in);
    return false;
  }
  struct stat existing;
  if (stat(target, &existing) == 0 && existing.st_dev == status.st_dev && existing.st_ino == status.st_ino) {
    *error = EINVAL;  // a file copied onto itself would be cut to nothing first
    close(in);
    return false;
  }
  int out = open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode & 07777);
  if (out < 0) {
    *error = errno;
    close(in);
    return false;
  }
  bool ok = true;
  bool useRead = false;
  char *buffer = nullptr;
  for (;;) {
    ssize_t moved;
    if (!useRead) {
      moved = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
      if (moved < 0 && (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL)) {
        useRead = true;  // no in-kernel copy between these files: plain reads
        continue;
      }
    } else {
      if (!buffer) buffer = static_cast<char *>(Allocate_(1 << 20, nullptr, "kzlib/file", __LINE__));
      moved = read(in, buffer, 1 << 20);
      if (moved > 0 && !WriteAll(out, buffer, static_cast<size_t>(moved), error)) {
        ok = false;
        break;
      }
    }
    if (moved == 0) break;
    if (moved < 0) {
      if (errno == EINTR) continue;
      ok = Fail(error);
      break;
    }
  }
  free(buffer);
  if (ok && fchmod(out, status.st_mode & 07777) != 0) ok = Fail(error);
  struct timespec times[2] = {status.st_atim, status.st_mtim};
  if (ok && futimens(out, times) != 0) ok = Fail(error);
  if (ok && flush && fsync(out) != 0) ok = Fail(error);
  if (close(out) != 0 && ok) ok = Fail(error);
  close(in);
  if (!ok) unlink(target);  // the old content is gone already: leave no half copy
  return ok;
}

bool Exists(const char *path) {
  struct stat status;
  return lstat(path, &status) == 0;
}

bool IsDirectoryPath(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

Kind KindOf(uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR: return Kind::kDirectory;
    case S_IFLNK: return Kind::kLink;
    case S_IFCHR: return Kind::kCharacterDevice;
    case S_IFBLK: return Kind::kBlockDevice;
    case S_IFIFO: return Kind::kFifo;
    case S_IFSOCK: return Kind::kSocket;
    default: return Kind::kFile;
  }
}

bool Writable(uint32_t mode) { return (mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0; }

bool QueryAttributes(const char *path, Attributes *attributes, int *error) {
  struct stat status;
  if (lstat(path, &status) != 0) return Fail(error);
  uint32_t targetMode = 0;
  struct stat target;
  if (S_ISLNK(status.st_mode) && stat(path, &target) == 0) targetMode = target.st_mode;
  Fill(status, targetMode, attributes);
  return true;
}

bool CurrentDirectory(char *buffer, size_t size, int *error) { return getcwd(buffer, size) || Fail(error); }

uint64_t WallClockMicroseconds() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

void SleepMilliseconds(uint32_t milliseconds) {
  struct timespec delay = {static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000};
  while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {}
}

bool LockFile(int fd, bool exclusive, bool wait, bool *busy, int *error) {
  *busy = false;
  struct flock range {};
  range.l_type = exclusive ? F_WRLCK : F_RDLCK;
  range.l_whence = SEEK_SET;  // start 0, length 0: the whole file, however long
  int result;
  do result = fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range);
  while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  *busy = errno == EAGAIN || errno == EACCES;
  return Fail(error);
}

bool UnlockFile(int fd, int *error) {
  struct flock range {};
  range.l_type = F_UNLCK;
  range.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &range) == 0 || Fail(error);
}

struct Listing {
  DIR *directory;
  int fd;
};

namespace {

Listing *ListingFromFd(int fd, int *error) {
  DIR *directory = fdopendir(fd);
  if (!directory) {
    *error = errno;
    close(fd);
    return nullptr;
  }
  Listing *listing = static_cast<Listing *>(Allocate_(sizeof(Listing), nullptr, "kzlib/file", __LINE__));
  listing->directory = directory;
  listing->fd = fd;
  return listing;
}

}  // namespace

Listing *ListingOpen(const char *path, int *error) {
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return nullptr;
  }
  return ListingFromFd(fd, error);
}

Listing *ListingOpenAt(Listing *parent, const char *name, int *error) {
  int fd = openat(parent->fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return nullptr;
  }
  return ListingFromFd(fd, error);
}

int ListingNext(Listing *listing, const char **name, Attributes *attributes, int *error) {
  for (;;) {
    errno = 0;
    struct dirent *entry = readdir(listing->directory);
    if (!entry) {
      if (errno == 0) return 0;
      *error = errno;
      return -1;
    }
    const char *entryName = entry->d_name;
    if (entryName[0] == '.' && (entryName[1] == '\0' || (entryName[1] == '.' && entryName[2] == '\0'))) continue;
    struct stat status;
    if (fstatat(listing->fd, entryName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // removed since the directory was read
      *error = errno;
      return -1;
    }
    uint32_t targetMode = 0;
    struct stat target;
    if (S_ISLNK(status.st_mode) && fstatat(listing->fd, entryName, &target, 0) == 0) targetMode = target.st_mode;
    Fill(status, targetMode, attributes);
    *name = entryName;
    return 1;
  }
}

void ListingIdentity(Listing *listing, uint64_t *device, uint64_t *inode) {
  struct stat status;
  if (fstat(listing->fd, &status) != 0) return;  // cannot fail on an open directory
  *device = status.st_dev;
  *inode = status.st_ino;
}

void ListingClose(Listing *listing) {
  if (!listing) return;
  closedir(listing->directory);
  free(listing);
}

}  // namespace kz::os
