// Files, paths, mappings, temporary names, lock files and directory listing,
// on real files in a private temporary directory per test.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/error.h"
#include "kz/file.h"
#include "kz/format.h"
#include "net_support.h"
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

// The errno a call left when it failed (errno is 0 before), or "ok".
template <typename Call>
std::string ErrnoOf(Call failed) {
  errno = 0;
  return failed() ? std::to_string(errno) : "ok";
}
#define FAILS_WITH(call, error) EXPECT_EQ(ErrnoOf([&] { return call; }), std::to_string(error)) << #call

// A call's result, then the text it left in out: "<result> <text>".
std::string WithText(int result, const UByteArray &out) { return std::to_string(result) + " " + Bytes(out); }

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
  const char *d = dir.path().c_str();
  EXPECT_EQ(FDGetDefaultFileFlags(), 0x8080);
  FAILS_WITH(FileOpen(d, "made", 1, 0) == -1, ENOENT);
  for (int hint : {0, 1, 2, 7}) {
    int fd = FileOpen(d, "made", 0, hint);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR) << hint;
    close(fd);
  }
  EXPECT_EQ(Mode(dir / "made"), 0600);
  int fd = FileOpen(nullptr, (dir / "made").c_str(), 1, 1);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  for (int inherit : {1, 0}) {
    EXPECT_EQ(FDSetInheritance(fd, inherit), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, inherit ? 0 : FD_CLOEXEC);
  }
  close(fd);
  errno = 1234;
  EXPECT_EQ(FDSetInheritance(fd, 0), 0);  // closed: quietly refused
  EXPECT_EQ(errno, 1234);

  FILE *stream = FileFOpen(d, "stream", "wb");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  fputs("via stream", stream);
  fclose(stream);
  EXPECT_EQ(ReadFile(dir / "stream"), "via stream");
}

TEST(FileOpen, InvalidUtf8PathsAreRefusedBeforeAnythingIsCreated) {
  TempDir dir;
  const char *d = dir.path().c_str();
  for (const char *name : {"bad\xff", "over\xc0\xaflong", "cut\xe2\x82", "astral\xf0\x9f\x98\x80", "lone\x80"})
    FAILS_WITH(FileOpen(d, name, 0, 0) == -1, EINVAL);
  // Every call checks its whole path, the directory argument too.
  const std::string bad = dir / "bad\xff";
  FAILS_WITH(FileOpenFlags(nullptr, bad.c_str(), KZ_O_RDWR | KZ_O_CREAT, 0600, 0) == -1, EINVAL);
  FAILS_WITH(FileOpen((dir.path() + "/\xff").c_str(), "ok", 0, 0) == -1, EINVAL);
  FAILS_WITH(FileFOpen(d, "bad\xff", "w") == nullptr, EINVAL);
  FAILS_WITH(FileLockAcquire(d, "bad\xff", 1, 0) == nullptr, EINVAL);
  FAILS_WITH(FileTruncate(bad.c_str(), 10, 1) == 0, EINVAL);
  FAILS_WITH(DirectoryOpen(bad.c_str()) == nullptr, EINVAL);
  // Two- and three-byte characters and unpaired surrogates (as UCS2Encode) pass.
  close(FileOpen(d, "gr\xc3\xbc\xc3\x9f\xe2\x82\xac\xed\xa0\x80", 0, 0));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

// ---- removing, copying, sizing ---------------------------------------------------------

TEST(FileTruncate, FillWritesZerosAndShorteningCuts) {
  TempDir dir;
  std::string path = dir / "f";
  WriteText(path, "0123456789");
  const int64_t big = 3 * 1048576 + 5;  // three whole zero blocks and a piece
  ASSERT_EQ(FileTruncate(path.c_str(), big, 1), 1);
  EXPECT_EQ(ReadFile(path), "0123456789" + std::string(big - 10, '\0'));
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
  EXPECT_FALSE(std::filesystem::exists(dir / "second.bak"));               // no target yet: nothing to back up
  FAILS_WITH(FileCopy(source.c_str(), source.c_str(), nullptr) == 0, -1);  // onto itself
  EXPECT_EQ(KZGetLastError(), EINVAL);
  EXPECT_EQ(ReadFile(source), "new content");
  EXPECT_EQ(FileCopy("", (dir / "x").c_str(), nullptr), 0);
  FAILS_WITH(FileCopy((dir / "missing").c_str(), (dir / "x").c_str(), nullptr) == 0, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);

  EXPECT_EQ(FileHasAccess(target.c_str(), 4), 1);
  EXPECT_EQ(FileRemove(target.c_str()), 1);
  EXPECT_EQ(FileHasAccess(target.c_str(), 0), 0);
  FAILS_WITH(FileRemove(target.c_str()) == 0, -1);
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
  // Removed at the end of the test.
  std::shared_ptr<void> removeOther(nullptr, [&](void *) { std::filesystem::remove_all(other); });
  std::string source = dir / "source", target = other + "/target", backup = other + "/target.bak";
  const std::string payload(3 * 1048576 + 7, 'p');
  WriteText(source, payload);
  chmod(source.c_str(), 0604);
  WriteText(target, "old");
  ASSERT_EQ(FileRename(source.c_str(), target.c_str(), backup.c_str()), 1) << KZErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_EQ(ReadFile(target), payload);
  EXPECT_EQ(ReadFile(backup), "old");
  EXPECT_EQ(Mode(target), 0604);
}

// ---- mapping ----------------------------------------------------------------------------------

TEST(FileMap, SmallEmptyAndMissingFilesAndUcs2Names) {
  TempDir dir;
  WriteText(dir / "empty", "");
  uint64_t size = 99;
  int isEmpty = 7;
  FAILS_WITH(FileMapRead(dir.path().c_str(), "empty", &size, &isEmpty) == nullptr, 0);
  EXPECT_EQ(std::to_string(size) + " " + std::to_string(isEmpty), "0 1");
  FAILS_WITH(FileMapRead(dir.path().c_str(), "missing", &size, &isEmpty) == nullptr, ENOENT);

  WriteText(dir / "d\xc3\xa9j\xc3\xa0", "abcdef");
  std::vector<uint16_t> directory(dir.path().begin(), dir.path().end());
  const uint16_t name[] = {'d', 0xE9, 'j', 0xE0};
  char *view = static_cast<char *>(
      FileMapReadWriteUCS2(directory.data(), static_cast<uint32_t>(directory.size()), name, 4, &size, &isEmpty));
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(std::string(view, size) + " " + std::to_string(isEmpty), "abcdef 0");
  view[0] = 'X';
  EXPECT_EQ(FileMapSync(view, 6), 1);
  EXPECT_EQ(FileUnmap(view), 1);
  EXPECT_EQ(ReadFile(dir / "d\xc3\xa9j\xc3\xa0"), "Xbcdef");
  FAILS_WITH(FileUnmap(view) == 0, EINVAL);  // already gone

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
  unsigned char *view = static_cast<unsigned char *>(FileMapReadWrite(nullptr, path.c_str(), &size, nullptr));
  ASSERT_NE(view, nullptr) << KZGetLastError();
  EXPECT_EQ(size, length);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(view), 5) + std::to_string(view[length - 1]),
            std::string("head\0", 5) + "0");
  view[length - 1] = 0x5A;
  EXPECT_EQ(FileMapSync(view + length - 4096 - 3, 0), 1);  // size 0: nothing to do
  EXPECT_EQ(FileUnmap(view), 1);
  int fd = open(path.c_str(), O_RDONLY);
  unsigned char last = 0;
  EXPECT_EQ(pread(fd, &last, 1, static_cast<off_t>(length - 1)), 1);
  close(fd);
  EXPECT_EQ(last, 0x5A);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, 1 << 20);  // still sparse
}

// ---- temporary names ------------------------------------------------------------------------

TEST(TemporaryName, ShapesAlphabetAndUniqueAcrossThreads) {
  constexpr const char kAlphabet[] = "0123456789abcdefghijklmnoprqstuvwxyz";
  char buffer[16] = "tmp";
  EXPECT_EQ(CreateTemporaryFileName(buffer), buffer);
  EXPECT_EQ(std::string(buffer, 3) + std::to_string(strlen(buffer)), "tmp9");
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

  // Names made at once by several threads, in quick succession, differ: each
  // is created exclusively.
  TempDir dir;
  std::vector<std::string> names[4];
  std::vector<std::thread> threads;
  for (auto &list : names)
    threads.emplace_back([&list] {
      for (int i = 0; i < 1000; i++) {
        Scoped<UByteArray> made;
        MakeTemporaryFileName(&made, "kz", ".tmp");
        list.push_back(Bytes(made));
      }
    });
  for (auto &thread : threads) thread.join();
  for (auto &list : names)
    for (const std::string &name : list)
      close(FileOpenFlags(dir.path().c_str(), name.c_str(), KZ_O_RDWR | KZ_O_CREAT | KZ_O_EXCL, 0600, 0));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 4000);
}

// ---- paths ---------------------------------------------------------------------------------------

TEST(Path, AbsoluteMadeAbsoluteAndListEnumeration) {
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
    for (const auto &[path, want] : rows) EXPECT_EQ(WithText(PathMakeAbsolute(&out, path.c_str()), out), "1 " + want);
    EXPECT_EQ(PathMakeAbsolute(&out, std::string(300, 'x').c_str()), 0);  // longer than 260
  });
  ScopedVariable variable("TMPDIR", "/var/tmp");
  Scoped<UByteArray> tmp;
  ASSERT_EQ(AppendTemporaryDirectory(&tmp), 1);
  EXPECT_EQ(Bytes(tmp), "/var/tmp/");

  // Enumeration skips empty pieces and drops one trailing slash; a zero
  // answer from the callback stops it.
  struct Seen {
    std::vector<std::string> directories;
    int answer;
  } all{{}, 1}, firstOnly{{}, 0};
  auto collect = [](void *context, const char *directory) {
    static_cast<Seen *>(context)->directories.push_back(directory);
    return static_cast<Seen *>(context)->answer;
  };
  PathListEnumerate("::/usr/bin/:rel//:/:x", collect, &all);
  PathListEnumerate(nullptr, collect, &all);
  EXPECT_EQ(all.directories, (std::vector<std::string>{"/usr/bin", "rel/", "/", "x"}));
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
    // The list, the name, then the result and what follows "keep" in the output.
    const std::string rows[][3] = {
        {"::rel::bin:", "tool", "1 keepbin/tool"},
        {":" + here + "/bin/:", "tool", "1 keep" + here + "/bin/tool"},
        {"rel:bin", "other", "1 keeprel/other"},
        {"bin:rel", "here", "1 keep" + here + "/here"},  // the current directory comes last
        {"bin", "missing", "0 keep"},
        {"", "tool", "0 keep"},
        {"bin", here + "/here", "1 keep" + here + "/here"},  // absolute: tested as it is
    };
    for (const auto &[list, name, want] : rows) {
      Scoped<UByteArray> out;
      UByteArrayPrintf(&out, "keep");
      EXPECT_EQ(WithText(PathFindInList(list.c_str(), &out, name.c_str()), out), want) << list;
    }
    // Along PATH (replacing the output), or not found (emptied); an absolute
    // name as it is; not along PATH nor here: the running program's own
    // directory (when its path is within the limit; else the first row again).
    ScopedVariable path("PATH", "::rel:bin:");
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string searches[][2] = {{"tool", "1 bin/tool"},
                                       {"nothing-like-this", "0 "},
                                       {here + "/here", "1 " + here + "/here"},
                                       {self.size() < 259 ? std::filesystem::path(self).filename().string() : "tool",
                                        self.size() < 259 ? "1 " + self : "1 bin/tool"}};
    Scoped<UByteArray> out;
    for (const auto &[name, want] : searches) EXPECT_EQ(WithText(PathFindExecutable(&out, name.c_str()), out), want);
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
  const kztest::LocalListener socket("file", "attributes", static_cast<uint16_t>(getpid()));
  ASSERT_TRUE(socket.ok()) << socket.path();
  const uint32_t N = KZ_FILE_ATTRIBUTE_NORMAL, H = KZ_FILE_ATTRIBUTE_HIDDEN, R = KZ_FILE_ATTRIBUTE_READONLY,
                 D = KZ_FILE_ATTRIBUTE_DIRECTORY, L = KZ_FILE_ATTRIBUTE_LINK, F = KZ_FILE_ATTRIBUTE_FIFO,
                 V = KZ_FILE_ATTRIBUTE_DEVICE, S = KZ_FILE_ATTRIBUTE_SOCKET;
  const std::string sock = socket.path();
  const std::pair<const char *, uint32_t> rows[] = {{"plain", N}, {".hidden", H},   {"locked", R},    {"sub", D},
                                                    {"sub/", D},  {"tosub", D | L}, {"toplain", L},   {"dangling", L},
                                                    {"fifo", F},  {"/dev/null", V}, {sock.c_str(), S}};
  const std::pair<int (*)(const char *), uint32_t> predicates[] = {
      {FileIsDirectory, D}, {FileIsHidden, H}, {FileIsReadOnly, R}, {FileIsLink, L},
      {FileIsDevice, V},    {FileIsFifo, F},   {FileIsSocket, S}};
  for (auto [name, attributes] : rows) {
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
    EXPECT_EQ(FileExists(path.c_str()) * 10 + FileIsFile(path.c_str()), (attributes & D) ? 10 : 11);
  }

  const std::string missing = dir / "missing", plain = dir / "plain";
  FAILS_WITH(FileExists(missing.c_str()) == 0, -1);
  EXPECT_EQ(KZGetLastError(), ENOENT);
  EXPECT_EQ(FileIsHidden(missing.c_str()), 1);  // cannot be queried: counts as hidden
  EXPECT_EQ(FileIsFile(missing.c_str()), 0);
  EXPECT_EQ(FileSize(missing.c_str()), -1);
  EXPECT_EQ(FileSize(plain.c_str()), 5);

  // Times: set, then read back in milliseconds since 1970; failed tells.
  struct timespec times[2] = {{1600000000, 250000000}, {1700000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, plain.c_str(), times, 0), 0);
  struct stat status;
  ASSERT_EQ(stat(plain.c_str(), &status), 0);
  int failed = 7, failedToo = 7, failedMissing = 0;
  EXPECT_EQ(FileLastModified(plain.c_str(), &failed), 1700000000123);
  EXPECT_EQ(FileLastAccessed(plain.c_str(), &failedToo), 1600000000250);
  EXPECT_EQ(FileLastChanged(plain.c_str(), nullptr),
            int64_t(status.st_ctim.tv_sec) * 1000 + status.st_ctim.tv_nsec / 1000000);
  EXPECT_EQ(FileLastModified(missing.c_str(), &failedMissing), 0);
  EXPECT_EQ(std::to_string(failed) + std::to_string(failedToo) + std::to_string(failedMissing), "001");
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
  FAILS_WITH(FileLockAcquire(d, "shared-missing", 0, 0) == nullptr, ENOENT);  // shared: the file must exist
  FAILS_WITH(FileLockAcquire(d, std::string(260, 'n').c_str(), 1, 0) == nullptr, EINVAL);
  FileLock *first = FileLockAcquireExclusive(d, "lock", 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(std::string(first->path) + " " + std::to_string(first->exclusive), dir / "lock 1");
  for (int exclusive : {1, 0}) FAILS_WITH(FileLockAcquire(d, "lock", exclusive, 0) == nullptr, EBUSY);
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
  FAILS_WITH(FileLockAcquireExclusive(d, "lock", 0) == nullptr, EBUSY);
  EXPECT_EQ(FileLockRelease(reader1) + FileLockRelease(reader2), 2);
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
    if (write(toParent[1], &c, 1) != 1 || read(toChild[0], &c, 1) != 1) _exit(2);
    _exit(held && FileLockRelease(held) == 1 ? 0 : 1);
  }
  ASSERT_GT(pid, 0);
  char c = 0;
  ASSERT_EQ(read(toParent[0], &c, 1), 1);
  ASSERT_EQ(c, 'L');
  for (int exclusive : {1, 0}) FAILS_WITH(FileLockAcquire(directory.c_str(), "lock", exclusive, 0) == nullptr, EBUSY);
  ASSERT_EQ(write(toChild[1], "go", 1), 1);
  FileLock *mine = FileLockAcquireExclusive(directory.c_str(), "lock", 1);  // waits for the release
  EXPECT_NE(mine, nullptr);
  kztest::Child child;
  child.pid = pid;
  ASSERT_EQ(waitpid(pid, &child.status, 0), pid);
  EXPECT_EQ(child.Ending(), kztest::ExitEnding(0));
  EXPECT_EQ(mine ? FileLockRelease(mine) : 0, 1);
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
}

// ---- directories --------------------------------------------------------------------------------------

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
  std::string Sorted() const {  // joined by "; "
    std::string all;
    for (const std::string &visit : std::multiset<std::string>(visits.begin(), visits.end()))
      all += (all.empty() ? "" : "; ") + visit;
    return all;
  }
};

TEST(Directory, ListingThenWalkWithLinkCycle) {
  TempDir dir;
  std::string root = dir / "tree";
  std::filesystem::create_directories(root + "/a/b");
  std::filesystem::create_directories(root + "/c");
  WriteText(root + "/a/b/file", "1");
  WriteText(root + "/top", "2");
  WriteText(root + "/.dot", "");
  symlink("../..", (root + "/a/b/up").c_str());     // back to tree: a cycle
  symlink("../../c", (root + "/a/b/toc").c_str());  // a sibling: no cycle
  symlink("c", (root + "/link").c_str());

  // The listing: each entry once with its attributes, names NUL-terminated.
  void *listing = DirectoryOpen(root.c_str());
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
  EXPECT_EQ(seen, (std::map<std::string, uint32_t>{{"a", D},
                                                   {"c", D},
                                                   {"top", KZ_FILE_ATTRIBUTE_NORMAL},
                                                   {".dot", KZ_FILE_ATTRIBUTE_HIDDEN},
                                                   {"link", D | KZ_FILE_ATTRIBUTE_LINK}}));
  EXPECT_EQ(DirectoryOpen((dir / "missing").c_str()), nullptr);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_NE(strstr(KZErrorMessage(), "cannot open directory"), nullptr) << KZErrorMessage();
  unlink((root + "/.dot").c_str());
  unlink((root + "/link").c_str());

  Walk plain{root, {}, {}};
  ASSERT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &plain, 0), 1);
  EXPECT_EQ(plain.Sorted(), "a 1 10; a/b 2 10; a/b/file 3 80; a/b/toc 3 410; a/b/up 3 410; c 1 10; top 1 80");
  auto at = [&](const char *visit) { return std::find(plain.visits.begin(), plain.visits.end(), visit); };
  EXPECT_LT(at("a 1 10"), at("a/b 2 10"));  // a directory comes before what it holds
  EXPECT_LT(at("a/b 2 10"), at("a/b/file 3 80"));

  WriteText(root + "/c/inside", "3");
  Walk following{root, {}, {}}, skipping{root, {{"a", 1}}, {}}, stopping{root, {{"a/b", 2}}, {}}, none{root, {}, {}};
  ASSERT_EQ(DirectoryWalk((root + "/").c_str(), Walk::Callback, &following, KZ_DIRECTORY_WALK_FOLLOW_LINKS), 1);
  EXPECT_EQ(following.Sorted(),
            "a 1 10; a/b 2 10; a/b/file 3 80; a/b/toc 3 410; a/b/toc/inside 4 80; a/b/up 3 410; c 1 10; c/inside 2 80; "
            "top 1 80");
  ASSERT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &skipping, 0), 1);
  EXPECT_EQ(skipping.Sorted(), "a 1 10; c 1 10; c/inside 2 80; top 1 80");
  EXPECT_EQ(DirectoryWalk(root.c_str(), Walk::Callback, &stopping, 0), 2);
  EXPECT_EQ(stopping.visits.back(), "a/b 2 10");
  EXPECT_EQ(DirectoryWalk((root + "/missing").c_str(), Walk::Callback, &none, 0), 0);
  EXPECT_EQ(KZErrorCode(), KZ_ERROR_CODE(1, ENOENT));
  EXPECT_EQ(none.visits.size(), 0u);
  KZErrorClear();
}

}  // namespace
