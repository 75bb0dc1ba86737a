// Files, paths, mappings, temporary names, lock files and directory listing,
// on real files in a private temporary directory per test.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/format.h"
#include "test_support.h"

namespace {

using kztest::Bytes;
using kztest::ReadFile;
using kztest::Scoped;
using kztest::TempDir;

void WriteText(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

// Runs body with the current directory set to dir, then goes back.
template <typename Body>
void InDirectory(const std::string &dir, Body body) {
  std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  body(std::filesystem::current_path().string());
  std::filesystem::current_path(previous);
}

// Sets an environment variable for a scope.
struct ScopedVariable {
  ScopedVariable(const char *name, const char *value) : name(name), had(getenv(name)), old(had ? getenv(name) : "") {
    setenv(name, value, 1);
  }
  ~ScopedVariable() { had ? setenv(name, old.c_str(), 1) : unsetenv(name); }
  const char *name;
  bool had;
  std::string old;
};

int Mode(const std::string &path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 0777) : -1;
}

// ---- opening -------------------------------------------------------------------------

TEST(FileOpen, FlagCombinationsActOnRealFiles) {
  TempDir dir;
  struct Case {
    const char *name;
    int flags, expectedErrno;       // 0: opens
    const char *write, *afterward;  // written at position 0 after opening; the content afterwards
  } cases[] = {
      {"existing", KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, EEXIST, "", "hello"},
      {"existing", KZ_O_WRONLY | KZ_O_APPEND, 0, "!!", "hello!!"},
      {"existing", KZ_O_WRONLY | KZ_O_TRUNC, 0, "x", "x"},
      {"existing", KZ_O_RDWR, 0, "J", "Jello"},
      {"missing", KZ_O_RDWR, ENOENT, "", ""},
      {"fresh", KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0, "new", "new"},
      {"existing", 0x4000, EINVAL, "", "hello"},                   // not one of the library's flags
      {"existing", KZ_O_WRONLY | KZ_O_RDWR, EINVAL, "", "hello"},  // two access modes
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name + std::string(" flags ") + std::to_string(c.flags));
    WriteText(dir / "existing", "hello");
    errno = 0;
    int fd = FileOpenFlags(dir.path().c_str(), c.name, c.flags, 0600, 0);
    EXPECT_EQ(fd < 0 ? errno : 0, c.expectedErrno);
    if (fd >= 0) {
      EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
      EXPECT_EQ(pwrite(fd, c.write, strlen(c.write), 0), static_cast<ssize_t>(strlen(c.write)));
      close(fd);
    }
    EXPECT_EQ(ReadFile(dir / c.name), c.afterward);
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
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR) << hint;
    close(fd);
  }
  EXPECT_EQ(Mode(dir / "made"), 0600);
  int fd = FileOpen(nullptr, (dir / "made").c_str(), 1, 1);
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
  EXPECT_EQ(ReadFile(dir / "stream"), "via stream");
}

TEST(FileOpen, InvalidUtf8PathsAreRefusedBeforeAnythingIsCreated) {
  TempDir dir;
  const char *d = dir.path().c_str();
  for (const char *name : {"bad\xff", "over\xc0\xaflong", "cut\xe2\x82", "astral\xf0\x9f\x98\x80", "lone\x80"}) {
    errno = 0;
    EXPECT_EQ(FileOpen(d, name, 0, 0), -1) << name;
    EXPECT_EQ(errno, EINVAL) << name;
  }
  // Every call checks its whole path: each gives its failure with errno 22.
  const std::string bad = dir / "bad\xff";
  const std::function<bool()> calls[] = {
      [&] { return FileOpenFlags(nullptr, bad.c_str(), KZ_O_RDWR | KZ_O_CREAT, 0600, 0) == -1; },
      [&] { return FileOpen((dir.path() + "/\xff").c_str(), "ok", 0, 0) == -1; },  // in the directory argument
      [&] { return FileFOpen(d, "bad\xff", "w") == nullptr; },
      [&] { return FileLockAcquire(d, "bad\xff", 1, 0) == nullptr; },
      [&] { return FileTruncate(bad.c_str(), 10, 1) == 0; },
      [&] { return DirectoryOpen(bad.c_str()) == nullptr; },
  };
  for (size_t i = 0; i < std::size(calls); i++) {
    errno = 0;
    EXPECT_EQ(calls[i]() ? errno : 0, EINVAL) << "call " << i;
  }
  // Two- and three-byte characters and unpaired surrogates (as UCS2Encode) pass.
  int fd = FileOpen(d, "gr\xc3\xbc\xc3\x9f\xe2\x82\xac\xed\xa0\x80", 0, 0);
  EXPECT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

// ---- removing, copying, sizing ---------------------------------------------------------

TEST(FileTruncate, FillWritesZerosAndShorteningCuts) {
  TempDir dir;
  std::string path = dir / "f";
  WriteText(path, "0123456789");
  const int64_t big = 3 * 1048576 + 5;  // three whole zero blocks and a piece
  ASSERT_EQ(FileTruncate(path.c_str(), big, 1), 1);
  std::string content = ReadFile(path);
  EXPECT_EQ(content, "0123456789" + std::string(big - 10, '\0'));
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, big - 4096);  // really allocated, not a hole

  int fd = open(path.c_str(), O_RDWR);
  EXPECT_EQ(FileTruncateFD(fd, 4, 1), 1);  // fill but longer: cut without writing
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 4);
  EXPECT_EQ(FileTruncateFD(fd, 4096 * 10, 0), 1);  // extends as a hole
  close(fd);
  EXPECT_EQ(ReadFile(path), "0123" + std::string(40960 - 4, '\0'));
  EXPECT_EQ(FileTruncate((dir / "missing").c_str(), 5, 0), 0);  // never creates
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(FileTruncateDeathTest, NegativeSizeIsAnAssertion) {
  kztest::ExpectFatal({[] { FileTruncateFD(0, -5, 0); }, 0, "'hi >= 0' failed at kzlib/file"});
}

TEST(FileCopy, ReplacesTargetKeepsModeAndMakesBackup) {
  TempDir dir;
  std::string source = dir / "source", target = dir / "target";
  WriteText(source, "new content");
  chmod(source.c_str(), 0640);
  WriteText(target, "old");
  ASSERT_EQ(FileCopy(source.c_str(), target.c_str(), (dir / "target.bak").c_str()), 1);
  EXPECT_EQ(ReadFile(target) + "|" + ReadFile(dir / "target.bak") + "|" + ReadFile(source),
            "new content|old|new content");
  EXPECT_EQ(Mode(target), 0640);
  ASSERT_EQ(FileCopy(source.c_str(), (dir / "second").c_str(), (dir / "second.bak").c_str()), 1);
  EXPECT_FALSE(std::filesystem::exists(dir / "second.bak"));        // no target yet: nothing to back up
  EXPECT_EQ(FileCopy(source.c_str(), source.c_str(), nullptr), 0);  // onto itself
  EXPECT_EQ(KZGetLastError(), EINVAL);
  EXPECT_EQ(ReadFile(source), "new content");
  EXPECT_EQ(FileCopy("", (dir / "x").c_str(), nullptr), 0);
  errno = 0;
  EXPECT_EQ(FileCopy((dir / "missing").c_str(), (dir / "x").c_str(), nullptr), 0);
  EXPECT_EQ(errno, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);

  EXPECT_EQ(FileHasAccess(target.c_str(), 4), 1);
  EXPECT_EQ(FileRemove(target.c_str()), 1);
  EXPECT_EQ(FileHasAccess(target.c_str(), 0), 0);
  EXPECT_EQ(FileRemove(target.c_str()), 0);
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
  WriteText(a, "second");
  ASSERT_EQ(FileRename(a.c_str(), b.c_str(), backup.c_str()), 1);
  EXPECT_EQ(ReadFile(b) + "|" + ReadFile(backup), "second|first");
  EXPECT_FALSE(std::filesystem::exists(a));
  WriteText(a, "third");
  ASSERT_EQ(FileRename(a.c_str(), b.c_str(), nullptr), 1);  // replaces
  EXPECT_EQ(ReadFile(b), "third");

  EXPECT_EQ(FileRename("", b.c_str(), nullptr), 0);
  EXPECT_EQ(FileRename(a.c_str(), b.c_str(), nullptr), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_NE(strstr(KZErrorMessage(), "source renaming failed"), nullptr) << KZErrorMessage();
  WriteText(a, "fourth");
  EXPECT_EQ(FileRename(a.c_str(), b.c_str(), (dir / "no/such/dir").c_str()), 0);
  EXPECT_NE(strstr(KZErrorMessage(), "backup creation failed"), nullptr) << KZErrorMessage();
  EXPECT_EQ(ReadFile(b), "third");  // untouched when the backup failed
  KZErrorClear();
}

TEST(FileRename, AcrossFileSystemsCopiesThenRemoves) {
  TempDir dir;
  std::string other = "/dev/shm/kzfile-XXXXXX";
  struct stat here, shm;
  if (stat(dir.path().c_str(), &here) != 0 || stat("/dev/shm", &shm) != 0 || here.st_dev == shm.st_dev ||
      !mkdtemp(other.data()))
    GTEST_SKIP() << "no second file system: /dev/shm is missing or not one";
  struct Remove {
    std::string path;
    ~Remove() { std::filesystem::remove_all(path); }
  } removeOther{other};
  std::string source = dir / "source", target = other + "/target", backup = other + "/target.bak";
  std::string payload(3 * 1048576 + 7, 'p');
  WriteText(source, payload);
  chmod(source.c_str(), 0604);
  WriteText(target, "old");
  ASSERT_EQ(FileRename(source.c_str(), target.c_str(), backup.c_str()), 1) << KZErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_EQ(ReadFile(target), payload);
  EXPECT_EQ(ReadFile(backup), "old");
  EXPECT_EQ(Mode(target), 0604);
  ASSERT_EQ(FileRename(target.c_str(), source.c_str(), nullptr), 1);  // and back again
  EXPECT_EQ(ReadFile(source).size(), payload.size());
  EXPECT_FALSE(std::filesystem::exists(target));
}

// ---- mapping ----------------------------------------------------------------------------------

TEST(FileMap, SmallEmptyAndMissingFilesAndUcs2Names) {
  TempDir dir;
  WriteText(dir / "empty", "");
  uint64_t size = 99;
  int isEmpty = 7;
  errno = 5;
  EXPECT_EQ(FileMapRead(dir.path().c_str(), "empty", &size, &isEmpty), nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(isEmpty, 1);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(FileMapRead(dir.path().c_str(), "missing", &size, &isEmpty), nullptr);
  EXPECT_EQ(errno, ENOENT);

  WriteText(dir / "d\xc3\xa9j\xc3\xa0", "abcdef");
  std::vector<uint16_t> directory(dir.path().begin(), dir.path().end());
  const uint16_t name[] = {'d', 0xE9, 'j', 0xE0};
  char *view = static_cast<char *>(
      FileMapReadWriteUCS2(directory.data(), static_cast<uint32_t>(directory.size()), name, 4, &size, &isEmpty));
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(size, 6u);
  EXPECT_EQ(isEmpty, 0);
  EXPECT_EQ(std::string(view, 6), "abcdef");
  view[0] = 'X';
  EXPECT_EQ(FileMapSync(view, 6), 1);
  EXPECT_EQ(FileUnmap(view), 1);
  EXPECT_EQ(ReadFile(dir / "d\xc3\xa9j\xc3\xa0"), "Xbcdef");
  EXPECT_EQ(FileUnmap(view), 0);  // already gone
  EXPECT_EQ(errno, EINVAL);

  int fd = open((dir / "d\xc3\xa9j\xc3\xa0").c_str(), O_RDONLY);
  EXPECT_EQ(FileMapSegment(fd, 1, 4096, 1), nullptr);  // past the end
  EXPECT_EQ(KZGetLastError(), EINVAL);
  void *whole = FileMapSegment(fd, 1, 0, 0);
  close(fd);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(std::string(static_cast<char *>(whole), 6), "Xbcdef");
  EXPECT_EQ(FileUnmap(whole), 1);
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
  EXPECT_EQ(std::string(reinterpret_cast<char *>(view), 5), std::string("head\0", 5));
  EXPECT_EQ(view[length - 1], 0);
  view[length - 1] = 0x5A;
  EXPECT_EQ(FileMapSync(view + length - 4096 - 3, 0), 1);  // size 0: nothing to do
  EXPECT_EQ(FileUnmap(view), 1);
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(length - 1));
  EXPECT_EQ(file.get(), 0x5A);
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
  EXPECT_EQ(name.substr(0, 1) + name.substr(27), "a.log");
  // The even characters are the time in microseconds since 1601, least
  // significant digit first.
  uint64_t t = 0;
  for (int i = 12; i >= 0; i--) t = t * 36 + (strchr(kAlphabet, name[1 + 2 * i]) - kAlphabet);
  int64_t nowSince1601 = static_cast<int64_t>(time(nullptr)) * 1000000 + 11644473600000000ll;
  EXPECT_LT(std::abs(static_cast<int64_t>(t) - nowSince1601), 5000000);
  MakeTemporaryFileName(&out, nullptr, nullptr);  // appends
  EXPECT_EQ(out.count, 57u);
}

TEST(TemporaryName, UniqueAcrossThreadsAndCreatableExclusively) {
  TempDir dir;
  constexpr int kThreads = 4, kNames = 1000;
  std::vector<std::vector<std::string>> names(kThreads);
  std::vector<int> refused(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kNames; i++) {
        Scoped<UByteArray> name;
        MakeTemporaryFileName(&name, "kz", ".tmp");
        names[t].push_back(Bytes(name));
        int fd =
            FileOpenFlags(dir.path().c_str(), names[t].back().c_str(), KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0600, 0);
        fd < 0 ? refused[t]++ : close(fd);
      }
    });
  for (auto &thread : threads) thread.join();
  std::set<std::string> all;
  for (auto &list : names) all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), size_t(kThreads * kNames));
  EXPECT_EQ(refused, std::vector<int>(kThreads, 0));
}

// ---- paths ---------------------------------------------------------------------------------------

TEST(Path, AbsoluteAndMadeAbsolute) {
  for (const char *path : {"/", "/usr/bin", "//server/share"}) EXPECT_EQ(PathIsAbsolute(path), 1) << path;
  for (const char *path : {"usr", "./x", "", "C:\\x"}) EXPECT_EQ(PathIsAbsolute(path), 0) << path;

  TempDir dir;
  InDirectory(dir.path(), [&](const std::string &here) {
    Scoped<UByteArray> out;
    const std::string rows[][2] = {{"a/./b/../c", here + "/a/c"},
                                   {".", here},
                                   {"sub/", here + "/sub/"},
                                   {"/abs/../kept", "/abs/../kept"},
                                   {"../../../../../../../../..", "/"}};
    for (const auto &[path, want] : rows) {
      EXPECT_EQ(PathMakeAbsolute(&out, path.c_str()), 1) << path;
      EXPECT_EQ(Bytes(out), want);
    }
    EXPECT_EQ(PathMakeAbsolute(&out, std::string(300, 'x').c_str()), 0);  // longer than 260
  });
  ScopedVariable variable("TMPDIR", "/var/tmp");
  Scoped<UByteArray> tmp;
  ASSERT_EQ(AppendTemporaryDirectory(&tmp), 1);
  EXPECT_EQ(Bytes(tmp), "/var/tmp/");
}

TEST(Path, ListEnumerationSkipsEmptyPiecesAndOneTrailingSlash) {
  struct Seen {
    std::vector<std::string> directories;
    int answer;
  } all{{}, 1}, firstOnly{{}, 0};
  auto collect = [](void *context, const char *directory) {
    static_cast<Seen *>(context)->directories.push_back(directory);
    return static_cast<Seen *>(context)->answer;
  };
  PathListEnumerate("::/usr/bin/:rel//:/:x", collect, &all);
  EXPECT_EQ(all.directories, (std::vector<std::string>{"/usr/bin", "rel/", "/", "x"}));
  PathListEnumerate(nullptr, collect, &all);
  EXPECT_EQ(all.directories.size(), 4u);
  PathListEnumerate("a:b:c", collect, &firstOnly);
  EXPECT_EQ(firstOnly.directories, (std::vector<std::string>{"a"}));
  EXPECT_STREQ(PathGetBinaryPathVariable(), "PATH");
}

TEST(Path, SearchWithEmptyAndRelativeEntries) {
  TempDir dir;
  std::filesystem::create_directories(dir / "bin");
  std::filesystem::create_directories(dir / "rel");
  for (const char *file : {"bin/tool", "rel/other", "here"}) WriteText(dir / file, "");
  InDirectory(dir.path(), [&](const std::string &here) {
    struct {
      std::string list, name;
      int found;
      std::string result;
    } rows[] = {
        {"::rel::bin:", "tool", 1, "bin/tool"},
        {":" + here + "/bin/:", "tool", 1, here + "/bin/tool"},
        {"rel:bin", "other", 1, "rel/other"},
        {"bin:rel", "here", 1, here + "/here"},  // the current directory comes last
        {"bin", "missing", 0, ""},
        {"", "tool", 0, ""},
        {"bin", here + "/here", 1, here + "/here"},  // absolute: tested as it is
    };
    for (auto &row : rows) {
      Scoped<UByteArray> out;
      UByteArrayPrintf(&out, "keep");
      EXPECT_EQ(PathFindInList(row.list.c_str(), &out, row.name.c_str()), row.found) << row.list << " " << row.name;
      EXPECT_EQ(Bytes(out), "keep" + row.result) << row.list << " " << row.name;
    }

    Scoped<UByteArray> out;
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
  sockaddr_un address{AF_UNIX, {}};
  std::string socketPath = dir / "sock";
  bool haveSocket = socketPath.size() < sizeof address.sun_path &&
                    (memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1),
                     bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
  const uint32_t N = KZ_FILE_ATTRIBUTE_NORMAL, H = KZ_FILE_ATTRIBUTE_HIDDEN, R = KZ_FILE_ATTRIBUTE_READONLY,
                 D = KZ_FILE_ATTRIBUTE_DIRECTORY, L = KZ_FILE_ATTRIBUTE_LINK, F = KZ_FILE_ATTRIBUTE_FIFO,
                 V = KZ_FILE_ATTRIBUTE_DEVICE, S = KZ_FILE_ATTRIBUTE_SOCKET;
  const std::pair<const char *, uint32_t> rows[] = {{"plain", N}, {".hidden", H},   {"locked", R},  {"sub", D},
                                                    {"sub/", D},  {"tosub", D | L}, {"toplain", L}, {"dangling", L},
                                                    {"fifo", F},  {"/dev/null", V}, {"sock", S}};
  const std::pair<int (*)(const char *), uint32_t> predicates[] = {
      {FileIsDirectory, D}, {FileIsHidden, H}, {FileIsReadOnly, R}, {FileIsLink, L},
      {FileIsDevice, V},    {FileIsFifo, F},   {FileIsSocket, S}};
  for (auto [name, attributes] : rows) {
    if (name == std::string("sock") && !haveSocket) continue;
    const std::string path = name[0] == '/' ? name : dir / name;
    SCOPED_TRACE(path);
    KZFileAttributes a{};
    errno = 5;
    ASSERT_EQ(FileGetAttributes(path.c_str(), &a), 1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(a.attributes, attributes);
    uint32_t answered = 0;  // the one-question calls agree
    for (auto [is, bit] : predicates) answered |= is(path.c_str()) == 1 ? bit : 0;
    EXPECT_EQ(answered, attributes & ~N);
    EXPECT_EQ(FileExists(path.c_str()), 1);
    EXPECT_EQ(FileIsFile(path.c_str()), (attributes & D) ? 0 : 1);
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
  auto written = [](const void *data, unsigned size, unsigned count) {  // "<result>:<text>"
    char *text = nullptr;
    size_t length = 0;
    FILE *f = open_memstream(&text, &length);
    int result = FileWriteCArray(f, data, size, count, "t");
    fclose(f);
    std::string all = std::to_string(result) + ":" + std::string(text, length);
    free(text);
    return all;
  };
  const uint8_t bytes[] = {1, 2, 255};
  const uint16_t shorts[] = {65535};
  const uint32_t ints[] = {7, 4000000000u};
  const uint64_t longs[] = {18446744073709551615ull};
  EXPECT_EQ(written(bytes, 1, 3), "1:static UByte t[3] = { \n1, 2, 255 };\n");
  EXPECT_EQ(written(shorts, 2, 1), "1:static UShort t[1] = { \n65535 };\n");
  EXPECT_EQ(written(ints, 4, 2), "1:static UInt t[2] = { \n7U, 4000000000U };\n");
  EXPECT_EQ(written(longs, 8, 1), "1:static ULong t[1] = { \n18446744073709551615UL };\n");
  EXPECT_EQ(written(longs, 8, 0), "1:static ULong t[0] = { \n");
  EXPECT_EQ(written(longs, 3, 1), "1:");
  // A line break once more than 70 characters follow the last one: after the
  // 15th "255, " (75 characters).
  std::vector<uint8_t> many(24, 255);
  std::string expected = "1:static UByte t[24] = { \n";
  for (int i = 0; i < 23; i++) expected += i == 15 ? "\n255, " : "255, ";
  EXPECT_EQ(written(many.data(), 1, 24), expected + "255 };\n");
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
  for (int exclusive : {1, 0}) {
    errno = 0;
    EXPECT_EQ(FileLockAcquire(d, "lock", exclusive, 0), nullptr);
    EXPECT_EQ(errno, 16);
  }
  const std::string big(3000, 'z');
  EXPECT_EQ(FileLockWrite(first, big.c_str()), 1);
  lseek(first->descriptor, 0, SEEK_SET);
  Scoped<UByteArray> text;
  EXPECT_EQ(FileLockRead(first, &text), 1);  // long texts read in several blocks
  EXPECT_EQ(Bytes(text), big);
  EXPECT_EQ(text.elements[text.count], '\0');
  EXPECT_EQ(FileLockWrite(first, "pid 5"), 1);  // replaces, never appends
  EXPECT_EQ(ReadFile(dir / "lock"), "pid 5");
  EXPECT_EQ(FileLockRead(first, &text), 1);  // no seek: continues after the text
  EXPECT_EQ(text.count, 3000u);
  EXPECT_EQ(FileLockRelease(first), 1);

  FileLock *reader1 = FileLockAcquire(d, "lock", 0, 0),
           *reader2 = FileLockAcquire(nullptr, (dir / "lock").c_str(), 0, 1);
  ASSERT_NE(reader1, nullptr);
  ASSERT_NE(reader2, nullptr);
  EXPECT_EQ(FileLockWrite(reader1, "no"), 0);  // shared locks write nothing
  EXPECT_EQ(FileLockAcquireExclusive(d, "lock", 0), nullptr);
  EXPECT_EQ(errno, 16);
  EXPECT_EQ(FileLockRelease(reader1), 1);
  EXPECT_EQ(FileLockRelease(reader2), 1);

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
  for (int exclusive : {1, 0}) {
    errno = 0;
    EXPECT_EQ(FileLockAcquire(directory.c_str(), "lock", exclusive, 0), nullptr);
    EXPECT_EQ(errno, 16);
  }
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
  const uint32_t D = KZ_FILE_ATTRIBUTE_DIRECTORY;
  EXPECT_EQ(seen, (std::map<std::string, uint32_t>{{"sub", D},
                                                   {"f", KZ_FILE_ATTRIBUTE_NORMAL},
                                                   {".dot", KZ_FILE_ATTRIBUTE_HIDDEN},
                                                   {"link", D | KZ_FILE_ATTRIBUTE_LINK}}));
  EXPECT_EQ(DirectoryOpen((dir / "missing").c_str()), nullptr);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_NE(strstr(KZErrorMessage(), "cannot open directory"), nullptr) << KZErrorMessage();
  KZErrorClear();
}

// A walk's visits as "path depth attributes" (path relative to the root,
// attributes in hex: 10 directory, 80 file, 410 link to a directory); the
// callback answers from a table.
struct Walk {
  std::string root;
  std::map<std::string, int> answers;  // relative path -> callback result
  std::vector<std::string> visits;
  static int Callback(void *argument, const char *path, uint32_t attributes, int depth) {
    auto *self = static_cast<Walk *>(argument);
    std::string relative = std::string(path).substr(self->root.size() + 1);
    char text[32];
    snprintf(text, sizeof text, " %d %x", depth, attributes);
    self->visits.push_back(relative + text);
    return self->answers.count(relative) ? self->answers[relative] : 0;
  }
  std::vector<std::string> Sorted() const {
    std::vector<std::string> sorted = visits;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }
};

TEST(Directory, WalkWithLinkCycle) {
  TempDir dir;
  std::string root = dir / "tree";
  std::filesystem::create_directories(root + "/a/b");
  std::filesystem::create_directories(root + "/c");
  WriteText(root + "/a/b/file", "1");
  WriteText(root + "/top", "2");
  symlink("../..", (root + "/a/b/up").c_str());     // back to tree: a cycle
  symlink("../../c", (root + "/a/b/toc").c_str());  // a sibling: no cycle

  Walk plain{root, {}, {}};
  ASSERT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &plain, 0), 1);
  EXPECT_EQ(plain.Sorted(), (std::vector<std::string>{"a 1 10", "a/b 2 10", "a/b/file 3 80", "a/b/toc 3 410",
                                                      "a/b/up 3 410", "c 1 10", "top 1 80"}));
  auto at = [&](const char *visit) { return std::find(plain.visits.begin(), plain.visits.end(), visit); };
  EXPECT_LT(at("a 1 10"), at("a/b 2 10"));  // a directory comes before what it holds
  EXPECT_LT(at("a/b 2 10"), at("a/b/file 3 80"));

  WriteText(root + "/c/inside", "3");
  Walk following{root, {}, {}};
  ASSERT_EQ(DirectoryWalk((root + "/").c_str(), Walk::Callback, &following, KZ_DIRECTORY_WALK_FOLLOW_LINKS), 1);
  EXPECT_EQ(following.Sorted(),
            (std::vector<std::string>{"a 1 10", "a/b 2 10", "a/b/file 3 80", "a/b/toc 3 410", "a/b/toc/inside 4 80",
                                      "a/b/up 3 410", "c 1 10", "c/inside 2 80", "top 1 80"}));

  Walk skipping{root, {{"a", 1}}, {}};
  ASSERT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &skipping, 0), 1);
  EXPECT_EQ(skipping.Sorted(), (std::vector<std::string>{"a 1 10", "c 1 10", "c/inside 2 80", "top 1 80"}));

  Walk stopping{root, {{"a/b", 2}}, {}};
  EXPECT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &stopping, 0), 2);
  EXPECT_EQ(stopping.visits.back(), "a/b 2 10");

  Walk none{root, {}, {}};
  EXPECT_EQ(DirectoryWalk((root + "/missing").c_str(), Walk::Callback, &none, 0), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_EQ(none.visits.size(), 0u);
  KZErrorClear();
}

}  // namespace
