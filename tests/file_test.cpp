// Files, paths, mappings, temporary names, lock files and directory listing,
// on real files in a private temporary directory per test.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/error.h"
#include "kz/file.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::Scoped;
using kztest::TempDir;

void WriteText(const std::string &path, const std::string &text) {
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

void AppendArrayText(UByteArray &a, const char *text) {
  size_t n = strlen(text);
  ArrayGrowExact_(&a, static_cast<uint32_t>(a.count + n + 1), 1, __FILE__, __LINE__);
  memcpy(a.elements + a.count, text, n + 1);
  a.count += static_cast<uint32_t>(n);
}

// Runs body with the current directory set to dir, then goes back.
template <typename Body>
void InDirectory(const std::string &dir, Body body) {
  char previous[4096];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(dir.c_str()), 0);
  body();
  ASSERT_EQ(chdir(previous), 0);
}

// Sets an environment variable for a scope.
class ScopedVariable {
 public:
  ScopedVariable(const char *name, const char *value) : name_(name) {
    const char *old = getenv(name);
    if (old) old_ = old, had_ = true;
    setenv(name, value, 1);
  }
  ~ScopedVariable() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }

 private:
  const char *name_;
  std::string old_;
  bool had_ = false;
};

// ---- opening -------------------------------------------------------------------------

TEST(FileOpen, FlagCombinationsActOnRealFiles) {
  TempDir dir;
  WriteText(dir / "existing", "hello");
  struct Case {
    const char *name;
    int flags;
    int expectedErrno;      // 0: opens
    const char *write;      // written after opening at position 0
    const char *afterward;  // content afterwards
  } cases[] = {
      {"existing", KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, EEXIST, nullptr, "hello"},
      {"existing", KZ_O_WRONLY | KZ_O_APPEND, 0, "!!", "hello!!"},
      {"existing", KZ_O_WRONLY | KZ_O_TRUNC, 0, "x", "x"},
      {"existing", KZ_O_RDWR, 0, "J", "Jello"},
      {"missing", KZ_O_RDWR, ENOENT, nullptr, nullptr},
      {"fresh", KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0, "new", "new"},
      {"existing", 0x4000, EINVAL, nullptr, "hello"},                   // not one of the library's flags
      {"existing", KZ_O_WRONLY | KZ_O_RDWR, EINVAL, nullptr, "hello"},  // two access modes
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name + std::string(" flags ") + std::to_string(c.flags));
    WriteText(dir / "existing", "hello");
    errno = 0;
    int fd = FileOpenFlags(dir.path().c_str(), c.name, c.flags, 0600, 0);
    if (c.expectedErrno) {
      EXPECT_EQ(fd, -1);
      EXPECT_EQ(errno, c.expectedErrno);
    } else {
      ASSERT_GE(fd, 0);
      EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
      lseek(fd, 0, SEEK_SET);
      EXPECT_EQ(write(fd, c.write, strlen(c.write)), static_cast<ssize_t>(strlen(c.write)));
      close(fd);
    }
    if (c.afterward) {
      EXPECT_EQ(kztest::ReadFile(dir / c.name), c.afterward);
    }
  }
}

TEST(FileOpen, DefaultsCreateOwnerOnlyAndReadOnlyNeedsTheFile) {
  TempDir dir;
  EXPECT_EQ(FDGetDefaultFileFlags(), 0x8080);
  errno = 0;
  EXPECT_EQ(FileOpen(dir.path().c_str(), "made", 1, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  for (int hint : {0, 1, 2, 7}) {
    int fd = FileOpen(dir.path().c_str(), "made", 0, hint);
    ASSERT_GE(fd, 0) << hint;
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    close(fd);
  }
  int fd = FileOpen(nullptr, (dir / "made").c_str(), 1, 1);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(FDSetInheritance(fd, 1), 1);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(FDSetInheritance(fd, 0), 1);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  close(fd);
  errno = 1234;
  EXPECT_EQ(FDSetInheritance(fd, 0), 0);  // closed: quietly refused
  EXPECT_EQ(errno, 1234);

  FILE *stream = FileFOpen(dir.path().c_str(), "stream", "wb");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  fputs("via stream", stream);
  fclose(stream);
  EXPECT_EQ(kztest::ReadFile(dir / "stream"), "via stream");
}

TEST(FileOpen, InvalidUtf8PathsAreRefusedBeforeAnythingIsCreated) {
  TempDir dir;
  const char *names[] = {"bad\xff", "over\xc0\xaflong", "cut\xe2\x82", "astral\xf0\x9f\x98\x80", "lone\x80"};
  for (const char *name : names) {
    SCOPED_TRACE(name);
    std::string path = dir / name;
    errno = 0;
    EXPECT_EQ(FileOpen(dir.path().c_str(), name, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(FileOpenFlags(nullptr, path.c_str(), KZ_O_RDWR | KZ_O_CREAT, 0600, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(FileFOpen(dir.path().c_str(), name, "w"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(FileLockAcquire(dir.path().c_str(), name, 1, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(FileTruncate(path.c_str(), 10, 1), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(DirectoryOpen(path.c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
  // A valid name in the directory argument does not excuse a bad one.
  EXPECT_EQ(FileOpen((dir.path() + "/\xff").c_str(), "ok", 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  // Two- and three-byte characters and unpaired surrogates (as UCS2Encode) pass.
  int fd = FileOpen(dir.path().c_str(), "gr\xc3\xbc\xc3\x9f\xe2\x82\xac\xed\xa0\x80", 0, 0);
  EXPECT_GE(fd, 0);
  if (fd >= 0) close(fd);
  size_t entries = 0;
  for (auto &entry : std::filesystem::directory_iterator(dir.path())) entries += entry.exists();
  EXPECT_EQ(entries, 1u);
}

// ---- removing, copying, sizing ---------------------------------------------------------

TEST(FileTruncate, FillWritesZerosAndShorteningCuts) {
  TempDir dir;
  std::string path = dir / "f";
  WriteText(path, "0123456789");
  const int64_t big = 3 * 1048576 + 5;  // three whole zero blocks and a piece
  ASSERT_EQ(FileTruncate(path.c_str(), big, 1), 1);
  std::string content = kztest::ReadFile(path);
  ASSERT_EQ(static_cast<int64_t>(content.size()), big);
  EXPECT_EQ(content.substr(0, 10), "0123456789");
  EXPECT_EQ(content.find_first_not_of('\0', 10), std::string::npos);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, big - 4096);  // really allocated, not a hole

  int fd = open(path.c_str(), O_RDWR);
  EXPECT_EQ(FileTruncateFD(fd, 4, 1), 1);  // fill but longer: cut without writing
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 4);
  EXPECT_EQ(FileTruncateFD(fd, 4096 * 10, 0), 1);  // extends as a hole
  close(fd);
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 40960);
  EXPECT_EQ(kztest::ReadFile(path).substr(0, 5), std::string("0123\0", 5));
  EXPECT_EQ(FileTruncate((dir / "missing").c_str(), 5, 0), 0);  // never creates
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(FileTruncateDeathTest, NegativeSizeIsAnAssertion) {
  kztest::ExpectFatal({[] { FileTruncateFD(0, -5, 0); }, 0, "'hi >= 0' failed at kzlib/file"});
}

TEST(FileCopy, ReplacesTargetKeepsModeAndMakesBackup) {
  TempDir dir;
  WriteText(dir / "source", "new content");
  chmod((dir / "source").c_str(), 0640);
  WriteText(dir / "target", "old");
  ASSERT_EQ(FileCopy((dir / "source").c_str(), (dir / "target").c_str(), (dir / "target.bak").c_str()), 1);
  EXPECT_EQ(kztest::ReadFile(dir / "target"), "new content");
  EXPECT_EQ(kztest::ReadFile(dir / "target.bak"), "old");
  EXPECT_EQ(kztest::ReadFile(dir / "source"), "new content");
  struct stat status;
  ASSERT_EQ(stat((dir / "target").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  // No target yet: nothing to back up.
  ASSERT_EQ(FileCopy((dir / "source").c_str(), (dir / "second").c_str(), (dir / "second.bak").c_str()), 1);
  EXPECT_FALSE(std::filesystem::exists(dir / "second.bak"));
  EXPECT_EQ(FileCopy((dir / "source").c_str(), (dir / "source").c_str(), nullptr), 0);  // onto itself
  EXPECT_EQ(KZGetLastError(), EINVAL);
  EXPECT_EQ(kztest::ReadFile(dir / "source"), "new content");
  EXPECT_EQ(FileCopy("", (dir / "x").c_str(), nullptr), 0);
  errno = 0;
  EXPECT_EQ(FileCopy((dir / "missing").c_str(), (dir / "x").c_str(), nullptr), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);

  EXPECT_EQ(FileHasAccess((dir / "target").c_str(), 4), 1);
  EXPECT_EQ(FileRemove((dir / "target").c_str()), 1);
  EXPECT_EQ(FileHasAccess((dir / "target").c_str(), 0), 0);
  EXPECT_EQ(FileRemove((dir / "target").c_str()), 0);
  EXPECT_EQ(errno, -1);
  mkdir((dir / "sub").c_str(), 0700);
  EXPECT_EQ(FileRemove((dir / "sub").c_str()), 0);  // not for directories
  EXPECT_EQ(DirectoryRemove((dir / "sub").c_str()), 1);
}

// ---- renaming ------------------------------------------------------------------------------

TEST(FileRename, ReplacesAndBacksUp) {
  TempDir dir;
  std::string a = dir / "a", b = dir / "b", backup = dir / "b.bak";
  WriteText(a, "first");
  ASSERT_EQ(FileRename(a.c_str(), b.c_str(), backup.c_str()), 1);  // no target: no backup
  EXPECT_FALSE(std::filesystem::exists(backup));
  EXPECT_EQ(kztest::ReadFile(b), "first");
  WriteText(a, "second");
  ASSERT_EQ(FileRename(a.c_str(), b.c_str(), backup.c_str()), 1);
  EXPECT_EQ(kztest::ReadFile(b), "second");
  EXPECT_EQ(kztest::ReadFile(backup), "first");
  EXPECT_FALSE(std::filesystem::exists(a));
  WriteText(a, "third");
  ASSERT_EQ(FileRename(a.c_str(), b.c_str(), nullptr), 1);  // replaces
  EXPECT_EQ(kztest::ReadFile(b), "third");

  EXPECT_EQ(FileRename("", b.c_str(), nullptr), 0);
  EXPECT_EQ(FileRename(a.c_str(), b.c_str(), nullptr), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_NE(strstr(KZErrorMessage(), "source renaming failed"), nullptr) << KZErrorMessage();
  WriteText(a, "fourth");
  EXPECT_EQ(FileRename(a.c_str(), b.c_str(), (dir / "no/such/dir").c_str()), 0);
  EXPECT_NE(strstr(KZErrorMessage(), "backup creation failed"), nullptr) << KZErrorMessage();
  EXPECT_EQ(kztest::ReadFile(b), "third");  // untouched when the backup failed
  KZErrorClear();
}

// A directory on another file system than dir: a tmpfs mounted for the test
// when allowed, else /dev/shm when it is one; empty when neither.
class OtherFileSystem {
 public:
  explicit OtherFileSystem(const TempDir &dir) {
    std::string mountPoint = dir / "mnt";
    mkdir(mountPoint.c_str(), 0700);
    if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=16m") == 0) {
      mounted_ = mountPoint;
      path_ = mountPoint;
      return;
    }
    rmdir(mountPoint.c_str());
    struct stat here, shm;
    if (stat(dir.path().c_str(), &here) == 0 && stat("/dev/shm", &shm) == 0 && here.st_dev != shm.st_dev &&
        access("/dev/shm", W_OK) == 0) {
      std::string pattern = "/dev/shm/kzfile-XXXXXX";
      if (mkdtemp(pattern.data())) path_ = pattern, removeAll_ = true;
    }
  }
  ~OtherFileSystem() {
    if (!mounted_.empty()) {
      umount(mounted_.c_str());
      rmdir(mounted_.c_str());
    } else if (removeAll_) {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
    }
  }
  const std::string &path() const { return path_; }

 private:
  std::string path_, mounted_;
  bool removeAll_ = false;
};

TEST(FileRename, AcrossFileSystemsCopiesThenRemoves) {
  TempDir dir;
  OtherFileSystem other(dir);
  if (other.path().empty()) GTEST_SKIP() << "no second file system: tmpfs mount refused and /dev/shm is not one";
  struct stat here, there;
  ASSERT_EQ(stat(dir.path().c_str(), &here), 0);
  ASSERT_EQ(stat(other.path().c_str(), &there), 0);
  ASSERT_NE(here.st_dev, there.st_dev);
  std::string source = dir / "source", target = other.path() + "/target", backup = other.path() + "/target.bak";
  std::string payload(3 * 1048576 + 7, 'p');
  WriteText(source, payload);
  chmod(source.c_str(), 0604);
  WriteText(target, "old");
  ASSERT_EQ(FileRename(source.c_str(), target.c_str(), backup.c_str()), 1) << KZErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_EQ(kztest::ReadFile(target), payload);
  EXPECT_EQ(kztest::ReadFile(backup), "old");
  struct stat status;
  ASSERT_EQ(stat(target.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0604u);
  // And back again.
  ASSERT_EQ(FileRename(target.c_str(), source.c_str(), nullptr), 1);
  EXPECT_EQ(kztest::ReadFile(source).size(), payload.size());
  EXPECT_FALSE(std::filesystem::exists(target));
}

// ---- mapping ----------------------------------------------------------------------------------

TEST(FileMap, EmptyFileMapsToNothing) {
  TempDir dir;
  WriteText(dir / "empty", "");
  uint64_t size = 99;
  int isEmpty = 7;
  errno = 5;
  EXPECT_EQ(FileMapRead(dir.path().c_str(), "empty", &size, &isEmpty), nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(isEmpty, 1);
  EXPECT_EQ(errno, 0);
  errno = 0;
  EXPECT_EQ(FileMapRead(dir.path().c_str(), "missing", &size, &isEmpty), nullptr);
  EXPECT_EQ(errno, ENOENT);
  int dummy = 0;
  EXPECT_EQ(FileUnmap(&dummy), 0);  // not a view
  EXPECT_EQ(errno, EINVAL);
}

TEST(FileMap, SmallFileReadWriteAndUcs2Names) {
  TempDir dir;
  WriteText(dir / "d\xc3\xa9j\xc3\xa0", "abcdef");
  std::vector<uint16_t> directory(dir.path().begin(), dir.path().end());
  const uint16_t name[] = {'d', 0xE9, 'j', 0xE0};
  uint64_t size = 0;
  int isEmpty = 1;
  char *view = static_cast<char *>(
      FileMapReadWriteUCS2(directory.data(), static_cast<uint32_t>(directory.size()), name, 4, &size, &isEmpty));
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(size, 6u);
  EXPECT_EQ(isEmpty, 0);
  EXPECT_EQ(std::string(view, 6), "abcdef");
  view[0] = 'X';
  EXPECT_EQ(FileMapSync(view, 6), 1);
  EXPECT_EQ(FileUnmap(view), 1);
  EXPECT_EQ(kztest::ReadFile(dir / "d\xc3\xa9j\xc3\xa0"), "Xbcdef");
  EXPECT_EQ(FileUnmap(view), 0);  // already gone

  int fd = open((dir / "d\xc3\xa9j\xc3\xa0").c_str(), O_RDONLY);
  EXPECT_EQ(FileMapSegment(fd, 1, 4096, 1), nullptr);  // past the end
  EXPECT_EQ(KZGetLastError(), EINVAL);
  void *whole = FileMapSegment(fd, 1, 0, 0);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(memcmp(whole, "Xbcdef", 6), 0);
  EXPECT_EQ(FileUnmap(whole), 1);
  close(fd);
}

TEST(FileMap, LargeSparseFileMapsWhole) {
  TempDir dir;
  std::string path = dir / "sparse";
  const uint64_t length = (uint64_t(1) << 30) + 4096 + 3;  // past 1 GiB, not page-sized
  WriteText(path, "head");
  ASSERT_EQ(FileTruncate(path.c_str(), static_cast<int64_t>(length), 0), 1);
  uint64_t size = 0;
  int isEmpty = 1;
  unsigned char *view = static_cast<unsigned char *>(FileMapReadWrite(nullptr, path.c_str(), &size, &isEmpty));
  ASSERT_NE(view, nullptr) << KZGetLastError();
  EXPECT_EQ(size, length);
  EXPECT_EQ(memcmp(view, "head", 4), 0);
  EXPECT_EQ(view[length / 2], 0);
  EXPECT_EQ(view[length - 1], 0);
  view[length - 1] = 0x5A;
  EXPECT_EQ(FileMapSync(view + length - 4096 - 3, 0), 1);  // size 0: nothing to do
  EXPECT_EQ(FileUnmap(view), 1);
  int fd = open(path.c_str(), O_RDONLY);
  unsigned char last = 0;
  EXPECT_EQ(pread(fd, &last, 1, static_cast<off_t>(length - 1)), 1);
  EXPECT_EQ(last, 0x5A);
  close(fd);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, 1 << 20);  // still sparse
}

// ---- temporary names ------------------------------------------------------------------------

constexpr const char kAlphabet[] = "0123456789abcdefghijklmnoprqstuvwxyz";

TEST(TemporaryName, ShapesAndAlphabet) {
  char buffer[16] = "tmp";
  EXPECT_EQ(CreateTemporaryFileName(buffer), buffer);
  ASSERT_EQ(strlen(buffer), 9u);
  EXPECT_EQ(std::string(buffer, 3), "tmp");
  EXPECT_EQ(std::string(buffer + 3).find_first_not_of(kAlphabet), std::string::npos);

  Scoped<UByteArray> out;
  MakeTemporaryFileName(&out, "a", ".log");
  ASSERT_EQ(out.count, 31u);
  EXPECT_EQ(out.elements[31], '\0');
  std::string name = Bytes(out);
  EXPECT_EQ(name.substr(0, 1), "a");
  EXPECT_EQ(name.substr(27), ".log");
  // The even characters are the time in microseconds since 1601, least
  // significant digit first.
  uint64_t t = 0;
  for (int i = 12; i >= 0; i--) t = t * 36 + (strchr(kAlphabet, name[1 + 2 * i]) - kAlphabet);
  uint64_t nowSince1601 = static_cast<uint64_t>(time(nullptr)) * 1000000 + 11644473600000000ull;
  EXPECT_LT(t > nowSince1601 ? t - nowSince1601 : nowSince1601 - t, 5000000u);
  MakeTemporaryFileName(&out, nullptr, nullptr);  // appends
  EXPECT_EQ(out.count, 57u);
}

TEST(TemporaryName, UniqueAcrossThreadsAndCreatableExclusively) {
  TempDir dir;
  constexpr int kThreads = 4, kNames = 1000;
  std::vector<std::vector<std::string>> names(kThreads);
  std::vector<int> refused(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kNames; i++) {
        Scoped<UByteArray> name;
        MakeTemporaryFileName(&name, "kz", ".tmp");
        names[t].push_back(Bytes(name));
        int fd = FileOpenFlags(dir.path().c_str(), reinterpret_cast<char *>(name.elements),
                               KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0600, 0);
        if (fd < 0)
          refused[t]++;
        else
          close(fd);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  std::set<std::string> all;
  for (auto &list : names) all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), size_t(kThreads * kNames));
  EXPECT_EQ(std::count(refused.begin(), refused.end(), 0), kThreads);
}

// ---- paths ---------------------------------------------------------------------------------------

TEST(Path, AbsoluteAndMadeAbsolute) {
  struct {
    const char *path;
    int absolute;
  } cases[] = {{"/", 1}, {"/usr/bin", 1}, {"//server/share", 1}, {"usr", 0}, {"./x", 0}, {"", 0}, {"C:\\x", 0}};
  for (auto &c : cases) EXPECT_EQ(PathIsAbsolute(c.path), c.absolute) << c.path;

  TempDir dir;
  InDirectory(dir.path(), [&] {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    std::string here = cwd;
    Scoped<UByteArray> out;
    struct {
      const char *path;
      std::string expected;
    } rows[] = {{"a/./b/../c", here + "/a/c"},
                {".", here},
                {"sub/", here + "/sub/"},
                {"/abs/../kept", "/abs/../kept"},
                {"../../../../../../../../..", "/"}};
    for (auto &row : rows) {
      ASSERT_EQ(PathMakeAbsolute(&out, row.path), 1) << row.path;
      EXPECT_EQ(Bytes(out), row.expected) << row.path;
    }
    EXPECT_EQ(PathMakeAbsolute(&out, std::string(300, 'x').c_str()), 0);  // longer than 260
  });
  Scoped<UByteArray> tmp;
  {
    ScopedVariable variable("TMPDIR", "/var/tmp");
    ASSERT_EQ(AppendTemporaryDirectory(&tmp), 1);
  }
  EXPECT_EQ(Bytes(tmp), "/var/tmp/");
}

TEST(Path, ListEnumerationSkipsEmptyPiecesAndOneTrailingSlash) {
  std::vector<std::string> seen;
  auto collect = [](void *context, const char *directory) {
    static_cast<std::vector<std::string> *>(context)->push_back(directory);
    return 1;
  };
  PathListEnumerate("::/usr/bin/:rel//:/:x", collect, &seen);
  EXPECT_EQ(seen, (std::vector<std::string>{"/usr/bin", "rel/", "/", "x"}));
  seen.clear();
  PathListEnumerate(nullptr, collect, &seen);
  EXPECT_TRUE(seen.empty());
  auto firstOnly = [](void *context, const char *directory) {
    static_cast<std::vector<std::string> *>(context)->push_back(directory);
    return 0;
  };
  PathListEnumerate("a:b:c", firstOnly, &seen);
  EXPECT_EQ(seen, (std::vector<std::string>{"a"}));
  EXPECT_STREQ(PathGetBinaryPathVariable(), "PATH");
}

TEST(Path, SearchWithEmptyAndRelativeEntries) {
  TempDir dir;
  mkdir((dir / "bin").c_str(), 0700);
  mkdir((dir / "rel").c_str(), 0700);
  WriteText(dir / "bin/tool", "#!/bin/sh\n");
  WriteText(dir / "rel/other", "");
  WriteText(dir / "here", "");
  InDirectory(dir.path(), [&] {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    std::string here = cwd;
    struct {
      std::string list, name;
      int found;
      std::string result;
    } rows[] = {
        {"::rel::bin:", "tool", 1, "bin/tool"},
        {":" + here + "/bin/:", "tool", 1, here + "/bin/tool"},
        {"rel:bin", "other", 1, "rel/other"},
        {"bin:rel", "here", 1, here + "/here"},  // the current directory comes last
        {"bin", "missing", 0, "keep"},
        {"", "tool", 0, "keep"},
        {"bin", here + "/here", 1, here + "/here"},  // absolute: tested as it is
    };
    for (auto &row : rows) {
      Scoped<UByteArray> out;
      AppendArrayText(out, "keep");
      EXPECT_EQ(PathFindInList(row.list.c_str(), &out, row.name.c_str()), row.found) << row.list << " " << row.name;
      EXPECT_EQ(Bytes(out), row.found ? "keep" + row.result : row.result) << row.list << " " << row.name;
    }

    Scoped<UByteArray> out;
    {
      ScopedVariable path("PATH", "::rel:bin:");
      EXPECT_EQ(PathFindExecutable(&out, "tool"), 1);
      EXPECT_EQ(Bytes(out), "bin/tool");
      EXPECT_EQ(PathFindExecutable(&out, "nothing-like-this"), 0);
      EXPECT_EQ(out.count, 0u);
      EXPECT_EQ(PathFindExecutable(&out, (here + "/here").c_str()), 1);
      EXPECT_EQ(Bytes(out), here + "/here");
      // Not along PATH nor here: the running program's own directory.
      std::string self = std::filesystem::read_symlink("/proc/self/exe");
      if (self.size() < 259) {
        EXPECT_EQ(PathFindExecutable(&out, std::filesystem::path(self).filename().c_str()), 1);
        EXPECT_EQ(Bytes(out), self);
      }
    }
  });
}

// ---- attributes ---------------------------------------------------------------------------------

TEST(FileAttributes, EveryKindAnswersTruthfully) {
  TempDir dir;
  WriteText(dir / "plain", "12345");
  WriteText(dir / ".hidden", "");
  WriteText(dir / "locked", "");
  chmod((dir / "locked").c_str(), 0444);
  mkdir((dir / "sub").c_str(), 0700);
  symlink("sub", (dir / "tosub").c_str());
  symlink("plain", (dir / "toplain").c_str());
  symlink("nowhere", (dir / "dangling").c_str());
  mkfifo((dir / "fifo").c_str(), 0600);
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string socketPath = dir / "sock";
  bool haveSocket = socketPath.size() < sizeof address.sun_path;
  if (haveSocket) {
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    haveSocket = bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  }
  using A = uint32_t;
  struct {
    std::string path;
    A attributes;
  } rows[] = {
      {dir / "plain", KZ_FILE_ATTRIBUTE_NORMAL},
      {dir / ".hidden", KZ_FILE_ATTRIBUTE_HIDDEN},
      {dir / "locked", KZ_FILE_ATTRIBUTE_READONLY},
      {dir / "sub", KZ_FILE_ATTRIBUTE_DIRECTORY},
      {dir / "sub/", KZ_FILE_ATTRIBUTE_DIRECTORY},
      {dir / "tosub", KZ_FILE_ATTRIBUTE_DIRECTORY | KZ_FILE_ATTRIBUTE_LINK},
      {dir / "toplain", KZ_FILE_ATTRIBUTE_LINK},
      {dir / "dangling", KZ_FILE_ATTRIBUTE_LINK},
      {dir / "fifo", KZ_FILE_ATTRIBUTE_FIFO},
      {"/dev/null", KZ_FILE_ATTRIBUTE_DEVICE},
      {dir / "sock", KZ_FILE_ATTRIBUTE_SOCKET},
  };
  for (auto &row : rows) {
    if (row.path == dir / "sock" && !haveSocket) continue;
    SCOPED_TRACE(row.path);
    KZFileAttributes a{};
    errno = 5;
    ASSERT_EQ(FileGetAttributes(row.path.c_str(), &a), 1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(a.attributes, row.attributes);
    const char *p = row.path.c_str();
    EXPECT_EQ(FileExists(p), 1);
    EXPECT_EQ(FileIsDirectory(p), (row.attributes & KZ_FILE_ATTRIBUTE_DIRECTORY) ? 1 : 0);
    EXPECT_EQ(FileIsFile(p), (row.attributes & KZ_FILE_ATTRIBUTE_DIRECTORY) ? 0 : 1);
    EXPECT_EQ(FileIsHidden(p), (row.attributes & KZ_FILE_ATTRIBUTE_HIDDEN) ? 1 : 0);
    EXPECT_EQ(FileIsReadOnly(p), (row.attributes & KZ_FILE_ATTRIBUTE_READONLY) ? 1 : 0);
    EXPECT_EQ(FileIsLink(p), (row.attributes & KZ_FILE_ATTRIBUTE_LINK) ? 1 : 0);
    EXPECT_EQ(FileIsDevice(p), (row.attributes & KZ_FILE_ATTRIBUTE_DEVICE) ? 1 : 0);
    EXPECT_EQ(FileIsFifo(p), (row.attributes & KZ_FILE_ATTRIBUTE_FIFO) ? 1 : 0);
    EXPECT_EQ(FileIsSocket(p), (row.attributes & KZ_FILE_ATTRIBUTE_SOCKET) ? 1 : 0);
  }
  close(sock);

  std::string missing = dir / "missing";
  errno = 0;
  EXPECT_EQ(FileExists(missing.c_str()), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);
  EXPECT_EQ(FileIsHidden(missing.c_str()), 1);  // cannot be queried: counts as hidden
  EXPECT_EQ(FileIsFile(missing.c_str()), 0);
  EXPECT_EQ(FileSize(missing.c_str()), -1);
  EXPECT_EQ(FileSize((dir / "plain").c_str()), 5);

  // Times: set, then read back in milliseconds since 1970.
  struct timespec times[2] = {{1600000000, 250000000}, {1700000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "plain").c_str(), times, 0), 0);
  int failed = 7;
  EXPECT_EQ(FileLastModified((dir / "plain").c_str(), &failed), 1700000000123);
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(FileLastAccessed((dir / "plain").c_str(), &failed), 1600000000250);
  struct stat status;
  ASSERT_EQ(stat((dir / "plain").c_str(), &status), 0);
  EXPECT_EQ(FileLastChanged((dir / "plain").c_str(), nullptr),
            int64_t(status.st_ctim.tv_sec) * 1000 + status.st_ctim.tv_nsec / 1000000);
  EXPECT_EQ(FileLastModified(missing.c_str(), &failed), 0);
  EXPECT_EQ(failed, 1);
}

// ---- source tables --------------------------------------------------------------------------------

TEST(FileWriteCArray, TablesOfEachWidth) {
  auto written = [](const void *data, unsigned size, unsigned count) {
    FILE *f = tmpfile();
    int result = FileWriteCArray(f, data, size, count, "t");
    std::string text(static_cast<size_t>(ftell(f)), '\0');
    rewind(f);
    if (!text.empty()) {
      EXPECT_EQ(fread(text.data(), 1, text.size(), f), text.size());
    }
    fclose(f);
    return std::make_pair(result, text);
  };
  const uint8_t bytes[] = {1, 2, 255};
  EXPECT_EQ(written(bytes, 1, 3), std::make_pair(1, std::string("static UByte t[3] = { \n1, 2, 255 };\n")));
  const uint16_t shorts[] = {65535};
  EXPECT_EQ(written(shorts, 2, 1), std::make_pair(1, std::string("static UShort t[1] = { \n65535 };\n")));
  const uint32_t ints[] = {7, 4000000000u};
  EXPECT_EQ(written(ints, 4, 2), std::make_pair(1, std::string("static UInt t[2] = { \n7U, 4000000000U };\n")));
  const uint64_t longs[] = {18446744073709551615ull};
  EXPECT_EQ(written(longs, 8, 1),
            std::make_pair(1, std::string("static ULong t[1] = { \n18446744073709551615UL };\n")));
  EXPECT_EQ(written(longs, 8, 0), std::make_pair(1, std::string("static ULong t[0] = { \n")));
  EXPECT_EQ(written(longs, 3, 1), std::make_pair(1, std::string()));
  // A line break once more than 70 characters follow the last one: after the
  // 15th "255, " (75 characters).
  std::vector<uint8_t> many(24, 255);
  std::string expected = "static UByte t[24] = { \n";
  for (int i = 0; i < 15; i++) expected += "255, ";
  expected += "\n";
  for (int i = 0; i < 8; i++) expected += "255, ";
  expected += "255 };\n";
  EXPECT_EQ(written(many.data(), 1, 24).second, expected);
}

// ---- lock files ------------------------------------------------------------------------------------

TEST(FileLock, TwoHoldersInOneProcessExcludeEachOther) {
  TempDir dir;
  const char *d = dir.path().c_str();
  errno = 0;
  EXPECT_EQ(FileLockAcquire(d, "shared-missing", 0, 0), nullptr);  // shared: the file must exist
  EXPECT_EQ(errno, ENOENT);
  FileLock *first = FileLockAcquireExclusive(d, "lock", 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(std::string(first->path), dir / "lock");
  EXPECT_EQ(first->exclusive, 1);
  errno = 0;
  EXPECT_EQ(FileLockAcquire(d, "lock", 1, 0), nullptr);
  EXPECT_EQ(errno, 16);
  EXPECT_EQ(FileLockAcquire(d, "lock", 0, 0), nullptr);
  EXPECT_EQ(errno, 16);

  EXPECT_EQ(FileLockWrite(first, "pid 1234"), 1);
  EXPECT_EQ(FileLockWrite(first, "pid 5"), 1);  // replaces, never appends
  EXPECT_EQ(kztest::ReadFile(dir / "lock"), "pid 5");
  Scoped<UByteArray> text;
  EXPECT_EQ(FileLockRead(first, &text), 1);  // no seek: continues after the text
  EXPECT_EQ(text.count, 0u);
  lseek(first->descriptor, 0, SEEK_SET);
  EXPECT_EQ(FileLockRead(first, &text), 1);
  EXPECT_EQ(Bytes(text), "pid 5");
  EXPECT_EQ(FileLockRelease(first), 1);

  FileLock *reader1 = FileLockAcquire(d, "lock", 0, 0);
  FileLock *reader2 = FileLockAcquire(d, "lock", 0, 1);
  ASSERT_NE(reader1, nullptr);
  ASSERT_NE(reader2, nullptr);
  EXPECT_EQ(FileLockWrite(reader1, "no"), 0);  // shared locks write nothing
  EXPECT_EQ(FileLockAcquireExclusive(d, "lock", 0), nullptr);
  EXPECT_EQ(errno, 16);
  EXPECT_EQ(FileLockRelease(reader1), 1);
  EXPECT_EQ(FileLockRelease(reader2), 1);

  // Long texts read in several blocks.
  FileLock *writer = FileLockAcquire(nullptr, (dir / "lock").c_str(), 1, 1);
  ASSERT_NE(writer, nullptr);
  std::string big(3000, 'z');
  EXPECT_EQ(FileLockWrite(writer, big.c_str()), 1);
  lseek(writer->descriptor, 0, SEEK_SET);
  Scoped<UByteArray> all;
  EXPECT_EQ(FileLockRead(writer, &all), 1);
  EXPECT_EQ(Bytes(all), big);
  EXPECT_EQ(all.elements[all.count], '\0');
  EXPECT_EQ(FileLockRelease(writer), 1);

  errno = 0;
  EXPECT_EQ(FileLockAcquire(d, std::string(260, 'n').c_str(), 1, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST(FileLock, TwoProcessesExcludeEachOther) {
  TempDir dir;
  int toParent[2], toChild[2];
  ASSERT_EQ(pipe(toParent), 0);
  ASSERT_EQ(pipe(toChild), 0);
  std::string directory = dir.path();
  // The child holds the lock until told to let go.
  pid_t pid = fork();
  if (pid == 0) {
    FileLock *held = FileLockAcquireExclusive(directory.c_str(), "lock", 0);
    char c = held ? 'L' : 'F';
    if (write(toParent[1], &c, 1) != 1) _exit(2);
    if (read(toChild[0], &c, 1) != 1) _exit(3);
    _exit(held && FileLockRelease(held) == 1 ? 0 : 1);
  }
  ASSERT_GT(pid, 0);
  char c = 0;
  ASSERT_EQ(read(toParent[0], &c, 1), 1);
  ASSERT_EQ(c, 'L');
  errno = 0;
  EXPECT_EQ(FileLockAcquireExclusive(directory.c_str(), "lock", 0), nullptr);
  EXPECT_EQ(errno, 16);
  EXPECT_EQ(FileLockAcquire(directory.c_str(), "lock", 0, 0), nullptr);
  EXPECT_EQ(errno, 16);
  ASSERT_EQ(write(toChild[1], "go", 1), 1);
  FileLock *mine = FileLockAcquireExclusive(directory.c_str(), "lock", 1);  // waits for the release
  EXPECT_NE(mine, nullptr);
  kztest::Child child;
  ASSERT_EQ(waitpid(pid, &child.status, 0), pid);
  EXPECT_EQ(child.Ending(), kztest::ExitEnding(0));
  if (mine) {
    EXPECT_EQ(FileLockRelease(mine), 1);
  }
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
}

// ---- directories --------------------------------------------------------------------------------------

TEST(Directory, ListingNamesEntriesWithAttributes) {
  TempDir dir;
  mkdir((dir / "sub").c_str(), 0700);
  WriteText(dir / "f", "x");
  WriteText(dir / ".dot", "");
  symlink("sub", (dir / "link").c_str());
  void *listing = DirectoryOpen(dir.path().c_str());
  ASSERT_NE(listing, nullptr);
  std::map<std::string, uint32_t> seen;
  Scoped<UByteArray> name;
  uint32_t attributes = 0;
  int got;
  while ((got = DirectoryNext(listing, &name, &attributes)) == 1) {
    EXPECT_EQ(name.elements[name.count], '\0');
    seen[Bytes(name)] = attributes;
  }
  EXPECT_EQ(got, 0);
  DirectoryClose(listing);
  EXPECT_EQ(seen, (std::map<std::string, uint32_t>{
                      {"sub", KZ_FILE_ATTRIBUTE_DIRECTORY},
                      {"f", KZ_FILE_ATTRIBUTE_NORMAL},
                      {".dot", KZ_FILE_ATTRIBUTE_HIDDEN},
                      {"link", KZ_FILE_ATTRIBUTE_DIRECTORY | KZ_FILE_ATTRIBUTE_LINK},
                  }));
  errno = 0;
  EXPECT_EQ(DirectoryOpen((dir / "missing").c_str()), nullptr);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_NE(strstr(KZErrorMessage(), "cannot open directory"), nullptr) << KZErrorMessage();
  KZErrorClear();
}

struct Visit {
  std::string path;
  uint32_t attributes;
  int depth;
  bool operator<(const Visit &o) const { return path < o.path; }
  bool operator==(const Visit &o) const { return path == o.path && attributes == o.attributes && depth == o.depth; }
};

struct Recorder {
  std::string root;
  std::vector<Visit> visits;
  std::map<std::string, int> answers;  // relative path -> callback result
  static int Callback(void *argument, const char *path, uint32_t attributes, int depth) {
    auto *self = static_cast<Recorder *>(argument);
    std::string relative = std::string(path).substr(self->root.size() + 1);
    self->visits.push_back({relative, attributes, depth});
    auto answer = self->answers.find(relative);
    return answer == self->answers.end() ? 0 : answer->second;
  }
  std::vector<Visit> Sorted() const {
    auto sorted = visits;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }
};

std::ostream &operator<<(std::ostream &out, const Visit &v) {
  return out << v.path << "@" << v.depth << "/" << std::hex << v.attributes << std::dec;
}

TEST(Directory, WalkWithLinkCycle) {
  TempDir dir;
  std::string root = dir / "tree";
  for (const char *d : {"tree", "tree/a", "tree/a/b", "tree/c"}) mkdir((dir / d).c_str(), 0700);
  WriteText(root + "/a/b/file", "1");
  WriteText(root + "/top", "2");
  symlink("../..", (root + "/a/b/up").c_str());     // back to tree: a cycle
  symlink("../../c", (root + "/a/b/toc").c_str());  // a sibling: no cycle
  const uint32_t D = KZ_FILE_ATTRIBUTE_DIRECTORY, L = KZ_FILE_ATTRIBUTE_LINK, N = KZ_FILE_ATTRIBUTE_NORMAL;

  Recorder plain{root, {}, {}};
  ASSERT_EQ(DirectoryWalk(root.c_str(), Recorder::Callback, &plain, 0), 1);
  EXPECT_EQ(plain.Sorted(), (std::vector<Visit>{{"a", D, 1},
                                                {"a/b", D, 2},
                                                {"a/b/file", N, 3},
                                                {"a/b/toc", D | L, 3},
                                                {"a/b/up", D | L, 3},
                                                {"c", D, 1},
                                                {"top", N, 1}}));
  // A directory comes before what it holds.
  auto position = [](const Recorder &r, const std::string &p) {
    for (size_t i = 0; i < r.visits.size(); i++)
      if (r.visits[i].path == p) return i;
    return r.visits.size();
  };
  EXPECT_LT(position(plain, "a"), position(plain, "a/b"));
  EXPECT_LT(position(plain, "a/b"), position(plain, "a/b/file"));

  WriteText(root + "/c/inside", "3");
  Recorder following{root, {}, {}};
  ASSERT_EQ(DirectoryWalk((root + "/").c_str(), Recorder::Callback, &following, KZ_DIRECTORY_WALK_FOLLOW_LINKS), 1);
  EXPECT_EQ(following.Sorted(), (std::vector<Visit>{{"a", D, 1},
                                                    {"a/b", D, 2},
                                                    {"a/b/file", N, 3},
                                                    {"a/b/toc", D | L, 3},
                                                    {"a/b/toc/inside", N, 4},
                                                    {"a/b/up", D | L, 3},
                                                    {"c", D, 1},
                                                    {"c/inside", N, 2},
                                                    {"top", N, 1}}));

  Recorder skipping{root, {}, {{"a", 1}}};
  ASSERT_EQ(DirectoryWalk(root.c_str(), Recorder::Callback, &skipping, 0), 1);
  EXPECT_EQ(skipping.Sorted(), (std::vector<Visit>{{"a", D, 1}, {"c", D, 1}, {"c/inside", N, 2}, {"top", N, 1}}));

  Recorder stopping{root, {}, {{"a/b", 2}}};
  EXPECT_EQ(DirectoryWalk(root.c_str(), Recorder::Callback, &stopping, 0), 2);
  EXPECT_EQ(stopping.visits.back().path, "a/b");

  Recorder none{root, {}, {}};
  EXPECT_EQ(DirectoryWalk((root + "/missing").c_str(), Recorder::Callback, &none, 0), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_TRUE(none.visits.empty());
  KZErrorClear();
}

}  // namespace
