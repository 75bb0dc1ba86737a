/* kzlib: files, paths, mappings, temporary names, lock files and directory
 * listing.
 *
 * Paths are UTF-8 texts. Every path is checked with the library's UTF-8 rules
 * before anything is touched (the same rules as UCS2Encode: well-formed
 * sequences of at most three bytes, so characters above U+FFFF are refused on
 * every platform alike); a path that fails the check fails the call with
 * errno 22 (EINVAL) and no error record. Functions that take a directory and a
 * name join them as "directory/name"; a null directory uses the name alone.
 *
 * Errors follow the library's model: a failing call returns 0, -1 or null.
 * errno is -1 when a system call failed (KZGetLastError() then holds the
 * system's error number), the C library's own errno value where a contract
 * says so (opening), 22 for a bad argument and 16 for a refused lock. Calls
 * that name a failure ("backup creation failed") re-raise the pending system
 * error into the thread's error record (errno -2 afterwards).
 *
 * Every descriptor and stream the library opens is close-on-exec: child
 * processes receive only the descriptors passed to them on purpose.
 */
#ifndef KZ_FILE_H
#define KZ_FILE_H

#include <stdio.h>

#include "kz/array.h"
#include "kz/base.h"

KZ_BEGIN_DECLS

/* ---- open flags: the library's own bit values ------------------------- */

#define KZ_O_RDONLY     0x0000 /* read only (no access bit) */
#define KZ_O_WRONLY     0x0001 /* write only */
#define KZ_O_RDWR       0x0002 /* read and write */
#define KZ_O_APPEND     0x0008 /* every write goes to the end */
#define KZ_O_RANDOM     0x0010 /* access hint: random */
#define KZ_O_SEQUENTIAL 0x0020 /* access hint: sequential */
#define KZ_O_NOINHERIT  0x0080 /* not inherited by child processes (always added) */
#define KZ_O_CREAT      0x0100 /* create when missing */
#define KZ_O_TRUNC      0x0200 /* cut to length 0 */
#define KZ_O_EXCL       0x0400 /* with KZ_O_CREAT: fail with EEXIST when it exists */
#define KZ_O_BINARY     0x8000 /* binary mode (always added; no effect on POSIX) */

/* Access hints, the `hint` argument of the opening calls. */
#define KZ_FILE_HINT_NONE       0
#define KZ_FILE_HINT_SEQUENTIAL 1
#define KZ_FILE_HINT_RANDOM     2

/* ---- descriptors and streams ------------------------------------------- */

/* Sets (inherit nonzero) or clears the descriptor's inheritance by child
 * processes. 1 on success; an invalid descriptor gives 0 quietly (errno
 * unchanged); another failure raises "error disabling handle inheritance"
 * around the system error and gives 0. */
KZ_API int FDSetInheritance(int fd, int inherit);

/* The default flags: KZ_O_BINARY | KZ_O_NOINHERIT = 0x8080. */
KZ_API int FDGetDefaultFileFlags(void);

/* Opens directory/name: read-only with 0x8080, otherwise read-write and
 * created when missing (0x8182) with permission 0600. hint: 0 none,
 * 1 sequential, 2 random, other values none. Returns the descriptor, or -1
 * with errno set to the opening call's error number (ENOENT, EEXIST, ...;
 * also in KZGetLastError()) or 22 for a path that is not valid UTF-8. */
KZ_API int FileOpen(const char *directory, const char *name, int readOnly, int hint);

/* Opens with the caller's KZ_O_* flags plus 0x8080 and the hint's bits; mode
 * is the permission for a created file (0600 = owner read and write). Bits
 * that are not KZ_O_* flags, or both write bits at once, give -1 with errno
 * 22. The access hint (from the flags or hint) is passed to the system as
 * advice after opening. Results as FileOpen. */
KZ_API int FileOpenFlags(const char *directory, const char *name, int flags, int mode, int hint);

/* Opens a stream with fopen's mode letters ("r", "w+", "ab" ...); the stream
 * is not inherited. Null on failure with errno set as FileOpen. */
KZ_API FILE *FileFOpen(const char *directory, const char *name, const char *mode);

/* ---- mapping whole files ------------------------------------------------ */

/* Maps size bytes of fd's file from offset (a multiple of the page size),
 * read-only or read-write, shared with the file. size 0 maps from offset to
 * the end of the file. A range beyond the end of the file fails (EINVAL).
 * Null with errno -1 on failure. The view stays valid after fd is closed. */
KZ_API void *FileMapSegment(int fd, int readOnly, uint64_t offset, size_t size);

/* Maps fd's whole file; its size is found by seeking to the end (the file
 * position is left there) and stored in *size. A file of size 0 is not
 * mapped: *size = 0, *isEmpty = 1 (when given), errno 0, result null.
 * Otherwise *isEmpty = 0 and the view. Null with errno -1 on failure. */
KZ_API void *FileMapFD(int fd, int readOnly, uint64_t *size, int *isEmpty);

/* Opens directory/name (read-only 0x8080, otherwise read-write without
 * creation 0x8082, plus the hint's bits), maps it whole with FileMapFD and
 * closes the descriptor. A failed open gives null with the open's errno. */
KZ_API void *FileMap(const char *directory, const char *name, int readOnly, uint64_t *size, int *isEmpty, int hint);
KZ_API void *FileMapRead(const char *directory, const char *name, uint64_t *size, int *isEmpty);
KZ_API void *FileMapReadWrite(const char *directory, const char *name, uint64_t *size, int *isEmpty);

/* The same for paths given as 16-bit units with their counts (no terminator
 * needed); directory and name are joined with '/', a null directory gives the
 * name alone. */
KZ_API void *FileMapUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name, uint32_t nameLength,
                         int readOnly, uint64_t *size, int *isEmpty, int hint);
KZ_API void *FileMapReadUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name,
                             uint32_t nameLength, uint64_t *size, int *isEmpty);
KZ_API void *FileMapReadWriteUCS2(const uint16_t *directory, uint32_t directoryLength, const uint16_t *name,
                                  uint32_t nameLength, uint64_t *size, int *isEmpty);

/* Unmaps a view returned by one of the mapping calls (the library remembers
 * each view's length). 1 on success; a pointer that is not such a view gives
 * 0 with errno 22. */
KZ_API int FileUnmap(void *view);

/* Writes the first size bytes of a read-write view back to the file and waits
 * for the disk. 1 without doing anything when size is 0 or the library runs
 * with the option "nosync". 0 with errno -1 on failure. */
KZ_API int FileMapSync(void *view, size_t size);

/* ---- removing, copying, sizing ----------------------------------------- */

/* Deletes a file (not a directory). 1 or 0 (errno -1). */
KZ_API int FileRemove(const char *path);
/* Removes an empty directory. 1 or 0 (errno -1). */
KZ_API int DirectoryRemove(const char *path);
/* 1 when access(2) with mode (0 existence, 2 write, 4 read, 1 execute)
 * succeeds, else 0 (errno -1). */
KZ_API int FileHasAccess(const char *path, int mode);

/* Copies source over target, replacing it (content, permission bits and last
 * write time). When backup is given, an existing target is first moved to
 * backup (a missing target needs no backup); a failed move gives 0 with
 * errno -1. A failed copy gives 0 with errno -1 and leaves no partial target;
 * copying a file onto itself is refused (EINVAL). Empty or null source: 0. */
KZ_API int FileCopy(const char *source, const char *target, const char *backup);

/* Sets the file's length to size. With fill nonzero and a shorter file, the
 * missing part is written as zeros (so the space is really allocated) and the
 * file flushed to disk; otherwise the length is set without writing. The file
 * position is left at size. A negative size is the assertion "hi >= 0".
 * 1, or 0 with errno -1. FileTruncate opens the file read-write without
 * creating it and closes it again. */
KZ_API int FileTruncate(const char *path, int64_t size, int fill);
KZ_API int FileTruncateFD(int fd, int64_t size, int fill);

/* ---- renaming and names ------------------------------------------------ */

/* Moves source to target, replacing an existing target; across file systems
 * the file is copied, flushed and the source removed. When backup is given,
 * target is first moved to backup; a missing target is not an error (and no
 * backup appears), any other failure raises "backup creation failed" and
 * gives 0. A failed move raises "source renaming failed" and gives 0. Empty
 * or null source: 0. Otherwise 1. */
KZ_API int FileRename(const char *source, const char *target, const char *backup);

/* Appends six characters of "0123456789abcdefghijklmnoprqstuvwxyz" (base-36
 * digits of 32 random bits, least significant first) and a NUL to the text in
 * buffer, which must have room for 7 more bytes. Returns buffer. Names are
 * not reserved: create the file with KZ_O_CREAT | KZ_O_EXCL and draw again on
 * EEXIST. */
KZ_API char *CreateTemporaryFileName(char *buffer);

/* Appends prefix, 26 characters interleaving the base-36 digits of the time
 * in microseconds since 1601 and of 64 random bits (least significant first),
 * suffix and a NUL to out (the NUL not counted). Either text may be null. */
KZ_API void MakeTemporaryFileName(UByteArray *out, const char *prefix, const char *suffix);

/* ---- absolute paths and well-known directories ------------------------ */

/* 1 when path begins with '/', else 0. */
KZ_API int PathIsAbsolute(const char *path);

/* Replaces out's content with path made absolute: an absolute path as it is,
 * any other joined to the current directory with "." and ".." steps resolved
 * by the text alone (links are not followed). The result is at most 260
 * characters; a longer one, or a missing current directory, gives 0. */
KZ_API int PathMakeAbsolute(UByteArray *out, const char *path);

/* Appends the temporary directory ($TMPDIR, else "/tmp") with a trailing '/'
 * and a NUL to out. 1; 0 with errno -1 when it cannot be told. */
KZ_API int AppendTemporaryDirectory(UByteArray *out);

/* ---- path lists -------------------------------------------------------- */

/* "PATH": the environment variable listing the directories searched for
 * programs. */
KZ_API const char *PathGetBinaryPathVariable(void);

/* Calls callback(context, directory) for each non-empty piece of the
 * ':'-separated list, in order, with one trailing '/' removed (the root "/"
 * stays "/"). A callback result of 0 stops the walk. A null list does
 * nothing. */
typedef int (*KZPathListCallback)(void *context, const char *directory);
KZ_API void PathListEnumerate(const char *list, KZPathListCallback callback, void *context);

/* Searches the non-empty pieces of list for name: each candidate is the piece,
 * a '/' unless the piece ends in one, and name; the first that exists is
 * appended to out (NUL-terminated) and 1 returned. When none exists, name is
 * made absolute against the current directory (PathMakeAbsolute) and the
 * result is whether that exists (appended the same way); on failure out is
 * left as it was on entry. An absolute name is not searched: it is tested as
 * it is. A null or empty list, or an empty name, gives 0. */
KZ_API int PathFindInList(const char *list, UByteArray *out, const char *name);

/* Empties out, then looks for name: an absolute name is taken as it is;
 * otherwise the directories of $PATH are searched with PathFindInList (ending
 * with the current directory), then the running program's own directory.
 * 1 with the path found in out, 0 with out empty. No suffix is added. */
KZ_API int PathFindExecutable(UByteArray *out, const char *name);

/* ---- attributes -------------------------------------------------------- */

/* Attribute bits (the values of the descriptor layer's attribute word). */
#define KZ_FILE_ATTRIBUTE_READONLY  0x00000001u /* no write permission bit */
#define KZ_FILE_ATTRIBUTE_HIDDEN    0x00000002u /* base name starts with '.' */
#define KZ_FILE_ATTRIBUTE_DIRECTORY 0x00000010u /* a directory, or a link to one */
#define KZ_FILE_ATTRIBUTE_DEVICE    0x00000040u /* character or block device */
#define KZ_FILE_ATTRIBUTE_NORMAL    0x00000080u /* a regular file, no other bit */
#define KZ_FILE_ATTRIBUTE_LINK      0x00000400u /* a symbolic link */
#define KZ_FILE_ATTRIBUTE_FIFO      0x10000000u /* a named pipe */
#define KZ_FILE_ATTRIBUTE_SOCKET    0x20000000u /* a socket */

/* What FileGetAttributes reports. The object itself is queried: for a
 * symbolic link, size, times, device and inode are the link's; the type bits
 * (directory, device, FIFO, socket) are its target's when the target exists,
 * so a link to a directory carries DIRECTORY | LINK. Times are milliseconds
 * since 1970-01-01 00:00 UTC. */
typedef struct KZFileAttributes {
  uint32_t attributes;  /* KZ_FILE_ATTRIBUTE_* bits */
  uint32_t mode;        /* the system's mode word (type and permission bits) */
  uint64_t size;        /* bytes */
  int64_t lastModified; /* last write */
  int64_t lastAccessed; /* last access */
  int64_t lastChanged;  /* last status change (st_ctime) */
  uint64_t device;      /* device and inode identify the object */
  uint64_t inode;
} KZFileAttributes;

/* Fills *attributes for path. 1 and errno 0, or 0 and errno -1. */
KZ_API int FileGetAttributes(const char *path, KZFileAttributes *attributes);

/* Queries on one path. On success errno is 0; when the query fails errno is
 * -1 and the result is 0, except FileIsHidden (1: a path that cannot be
 * queried counts as hidden) and FileSize (-1). */
KZ_API int FileExists(const char *path);
KZ_API int FileIsDirectory(const char *path);
/* 1 for anything that is not a directory (devices count as files). */
KZ_API int FileIsFile(const char *path);
KZ_API int FileIsReadOnly(const char *path);
KZ_API int FileIsHidden(const char *path);
KZ_API int FileIsLink(const char *path);
KZ_API int FileIsDevice(const char *path);
KZ_API int FileIsFifo(const char *path);
KZ_API int FileIsSocket(const char *path);
KZ_API int64_t FileSize(const char *path);
/* Times in milliseconds since 1970; 0 with *failed = 1 when the query fails,
 * *failed = 0 on success (failed may be null). */
KZ_API int64_t FileLastModified(const char *path, int *failed);
KZ_API int64_t FileLastAccessed(const char *path, int *failed);
KZ_API int64_t FileLastChanged(const char *path, int *failed);

/* ---- source-table writer ------------------------------------------------ */

/* Writes count elements of data as a C table definition named arrayName:
 * element sizes 1, 2, 4 and 8 ("static UByte|UShort|UInt|ULong name[count] =
 * { \n", then the values, ", " between them, " };\n" after the last, a line
 * break whenever more than 70 characters were written since the last one).
 * Another size reports ": invalid element size in FileWriteCArray (size=%u)"
 * and returns 1 without writing; count 0 writes the header alone. 0 when a
 * write fails, else 1. */
KZ_API int FileWriteCArray(FILE *stream, const void *data, unsigned int elementSize, unsigned int count,
                           const char *arrayName);

/* ---- lock files -------------------------------------------------------- */

/* A held lock file. The fields are the library's; read them, never change
 * them. */
typedef struct FileLock {
  char path[260]; /* the lock file's name */
  int exclusive;  /* nonzero for an exclusive lock */
  int descriptor; /* the open lock file */
  void *mutex;    /* serialises FileLockWrite / FileLockRead on this record */
} FileLock;

/* Locks the whole file directory/name (the name alone when directory is
 * null): exclusive locks open it read-write, created with permission 0600
 * when missing; shared locks open it read-only, so it must exist. The lock
 * belongs to the open file, not the process: two FileLocks in one process
 * exclude each other like two processes do. wait nonzero waits for the lock;
 * otherwise a held lock fails at once with errno 16. A path of more than 259
 * bytes gives errno 22; a failed open gives the open's errno; another
 * failure errno -1. Null on failure. Release with FileLockRelease. */
KZ_API FileLock *FileLockAcquire(const char *directory, const char *name, int exclusive, int wait);
KZ_API FileLock *FileLockAcquireExclusive(const char *directory, const char *name, int wait);

/* Replaces the lock file's content with text (without its NUL). A shared lock
 * writes nothing and gives 0. 1, or 0 with errno -1. */
KZ_API int FileLockWrite(FileLock *lock, const char *text);

/* Appends what the lock file holds from the current file position (no seek is
 * made: after FileLockWrite the position is after the written text) to out
 * and NUL-terminates it. 1, or 0 with errno -1 on a read error. */
KZ_API int FileLockRead(FileLock *lock, UByteArray *out);

/* Unlocks, closes the lock file and frees the record (the file stays). 1 when
 * unlocking and closing succeeded, else 0 with errno -1. */
KZ_API int FileLockRelease(FileLock *lock);

/* ---- directory listing ------------------------------------------------- */

/* Opens a directory for listing. Null with an error raised
 * ("cannot open directory <path>") when it cannot be opened; errno 22 and no
 * record for a path that is not valid UTF-8. */
KZ_API void *DirectoryOpen(const char *path);

/* The next entry, "." and ".." skipped, in the system's order: 1 with its
 * name in *name (replaced: count is its length, an uncounted NUL follows) and
 * its attributes as FileGetAttributes gives them in *attributes (may be null);
 * 0 at the end; -1 with an error raised on failure. An entry
 * that disappears before it can be queried is skipped. */
KZ_API int DirectoryNext(void *dir, UByteArray *name, uint32_t *attributes);

/* Ends a listing. Null does nothing. */
KZ_API void DirectoryClose(void *dir);

/* DirectoryWalk flag: descend into symbolic links to directories. A directory
 * already open on the way down (same device and inode) is reported but not
 * entered again, so link cycles end. */
#define KZ_DIRECTORY_WALK_FOLLOW_LINKS 1u

/* Walks the tree below path depth first: callback(argument, entryPath,
 * attributes, depth) for every entry (entryPath is path/.../name, depth 1 for
 * the entries of path itself), a directory before its contents. The callback
 * returns 0 to go on, 1 to skip the subtree of the directory just reported,
 * 2 to stop: the walk then returns 2. 1 when the walk completed; 0 with an
 * error raised when path or a directory below it cannot be listed. Each level
 * keeps one directory open. */
typedef int (*KZDirectoryWalkCallback)(void *argument, const char *path, uint32_t attributes, int depth);
KZ_API int DirectoryWalk(const char *path, KZDirectoryWalkCallback callback, void *argument, uint32_t flags);

KZ_END_DECLS

#endif /* KZ_FILE_H */
