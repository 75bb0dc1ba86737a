// Daemon mode through the public API. Every daemon is a child test process
// (it changes directory, standard streams and session for good); the parent
// checks what it left in its temporary directory.
#include "kz/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "kz/file.h"
#include "kz/init.h"
#include "kz/message.h"
#include "test_support.h"

namespace {

using kztest::ReadFile;
using kztest::TempDir;

std::vector<std::string> Names(const std::string &directory) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// The first of parts that text does not hold after the ones before it; "" when
// it holds them all in this order.
std::string FirstMissing(const std::string &text, const std::vector<std::string> &parts) {
  size_t at = 0;
  for (const std::string &part : parts)
    if ((at = text.find(part, at)) == std::string::npos) return part;
  return "";
}

void WriteFile(const std::string &path, size_t size, int ageDays) {
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
  std::filesystem::last_write_time(
      path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * ageDays) - std::chrono::minutes(1));
}

TEST(DaemonTest, SettlesInItsDirectoryWithLogAndPidFile) {
  TempDir dir;
  const std::string run = dir / "run/nested";
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    if (KZSetDaemonDir(run.c_str()) != 1) return 10;
    if (getsid(0) != getpid()) return 11;
    if (KZGetDaemonDir() == nullptr || run != KZGetDaemonDir()) return 12;
    char cwd[512];
    if (!getcwd(cwd, sizeof cwd) || run != cwd) return 13;
    char byte;
    if (read(0, &byte, 1) != 0) return 14;  // the null device
    // Descriptors 1 and 2 are the log and not inheritable.
    if ((fcntl(1, F_GETFD) & FD_CLOEXEC) == 0 || (fcntl(2, F_GETFD) & FD_CLOEXEC) == 0) return 15;
    KZMessage(3, "message from the daemon");
    printf("stdout line\n");
    fflush(stdout);
    fprintf(stderr, "stderr line\n");
    // The pid file is held: another lock on it is refused at once.
    if (FileLockAcquire(run.c_str(), "daemon.pid", 1, 0) != nullptr || errno != 16) return 16;
    pid_t second = fork();  // a second daemon in the same directory is refused and says so
    if (second == 0) {
      KZSetDaemonDir(run.c_str());
      _exit(0);
    }
    int status = 0;
    waitpid(second, &status, 0);
    // The suffix cannot change once the log exists; the same one is accepted.
    if (KZSetLogFileSuffix(".txt") != 0) return 17;
    if (KZSetLogFileSuffix(".log") != 1) return 18;
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(std::to_string(child.pid), ReadFile(run + "/daemon.pid"));
  const std::string log = ReadFile(run + "/log.log");
  EXPECT_EQ("", FirstMissing(log, {"message from the daemon", "stdout line\n", "stderr line\n",
                                   "daemon: cannot lock pid file : \"" + run + "/daemon.pid\"",
                                   "KZSetLogFileSuffix called after the process log files were created"}))
      << log;
}

TEST(DaemonTest, ReportsADirectoryItCannotCreate) {
  TempDir dir;
  std::ofstream(dir / "plain") << "a file";
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    KZSetDaemonDir((dir / "plain/below").c_str());
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ("", FirstMissing(child.err, {"daemon: log directory creation (\"" + dir.path() + "/plain/below\") failed",
                                         "daemon: cannot open log file"}))
      << child.err;
}

// The rotated files of log name in directory: "<name>.YYYY-MM-DD-hh-mm-ss[.N].log".
struct RotatedFile {
  std::string file, stamp;
  int counter;  // N, 0 when absent
};
std::vector<RotatedFile> Rotated(const std::string &directory, const std::string &name) {
  const std::regex shape(name + R"(\.(\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d)(\.(\d+))?\.log)");
  std::vector<RotatedFile> rotated;
  std::smatch match;
  for (const std::string &file : Names(directory))
    if (std::regex_match(file, match, shape))
      rotated.push_back({file, match[1], match[3].matched ? std::stoi(match[3]) : 0});
  return rotated;
}

TEST(DaemonTest, RotationNamesAndStreams) {
  TempDir dir;
  const std::string run = dir / "run";
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    KZSetDaemonDir(run.c_str());
    KZMessage(2, "first generation");
    for (int k = 0; k < 3; k++)
      if (KZDaemonRotateLog(nullptr, nullptr, nullptr, -1) != 1) return 10 + k;
    KZMessage(2, "current generation");
    printf("stdout after rotation\n");
    fflush(stdout);
    // Another log, with the caller's stream and lock.
    FILE *other = FileFOpen(run.c_str(), "access.log", "a");
    fputs("access line\n", other);
    KZMutex lock = nullptr;
    MutexInit(&lock);
    if (KZDaemonRotateLog("access", &other, &lock, 0) != 1 || !other) return 20;
    fputs("new access line\n", other);
    fclose(other);
    MutexDestroy(&lock);
    // A log that does not exist cannot be renamed: 0, reported, and noted in log.err.
    FILE *ghost = nullptr;
    if (KZDaemonRotateLog("ghost", &ghost, nullptr, -1) != 0 || ghost != nullptr) return 21;
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  // Rotations in one second count up: log.<stamp>.log, log.<stamp>.1.log, ...
  std::map<std::string, std::vector<int>> counters;
  std::string rotatedText;
  for (const RotatedFile &r : Rotated(run, "log")) {
    counters[r.stamp].push_back(r.counter);
    rotatedText += ReadFile(run + "/" + r.file);
  }
  size_t rotations = 0;
  for (auto &[stamp, list] : counters) {
    std::sort(list.begin(), list.end());
    for (size_t k = 0; k < list.size(); k++, rotations++) EXPECT_EQ(static_cast<int>(k), list[k]) << stamp;
  }
  EXPECT_EQ(3u, rotations);
  EXPECT_NE(std::string::npos, rotatedText.find("first generation"));
  const std::string current = ReadFile(run + "/log.log");
  EXPECT_EQ("",
            FirstMissing(current, {"current generation", "stdout after rotation", ":daemon: cannot rename log file"}))
      << current;
  EXPECT_EQ(std::string::npos, current.find("first generation"));
  EXPECT_EQ("new access line\n", ReadFile(run + "/access.log"));
  auto access = Rotated(run, "access");
  ASSERT_EQ(1u, access.size());
  EXPECT_EQ("access line\n", ReadFile(run + "/" + access[0].file));
  EXPECT_FALSE(std::filesystem::exists(run + "/ghost.log"));
  const std::string errors = ReadFile(run + "/log.err");
  EXPECT_EQ(0u, errors.find("cannot rename log file from '" + run + "/ghost.log' to '" + run + "/ghost.")) << errors;
  EXPECT_NE(std::string::npos, errors.find("\n:daemon: cannot rename log file: ")) << errors;
}

TEST(DaemonTest, RotationSkipsNamesThatExist) {
  TempDir dir;
  const std::string run = dir / "run";
  std::filesystem::create_directories(run);
  // Every stamp of the next minute is taken already: the rotation must count on.
  for (time_t t = time(nullptr) - 1, end = t + 61; t < end; t++) {
    char name[64];
    strftime(name, sizeof name, "log.%Y-%m-%d-%H-%M-%S.log", localtime(&t));
    std::ofstream(run + "/" + name) << "taken";
  }
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    KZSetDaemonDir(run.c_str());
    KZMessage(2, "rotated away");
    return KZDaemonRotateLog(nullptr, nullptr, nullptr, -1) == 1 ? 0 : 10;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  std::vector<std::string> counted;
  for (const RotatedFile &r : Rotated(run, "log"))
    if (r.counter != 0) counted.push_back(r.file);
  ASSERT_EQ(1u, counted.size());
  EXPECT_EQ(counted[0].size() - 6, counted[0].rfind(".1.log")) << counted[0];
  EXPECT_NE(std::string::npos, ReadFile(run + "/" + counted[0]).find("rotated away"));
}

TEST(DaemonTest, PurgesByAgeAndSizeOnlyTheDatedFilesOfTheLog) {
  TempDir dir;
  const std::string run = dir / "run";
  std::filesystem::create_directories(run);
  struct File {
    const char *name;
    int ageDays;
  } files[] = {
      {"log.20240101.log", 10},   {"log.20240102.1.log", 3},
      {"log.20240103.log", 0},    {"log.2024-01-01-00-00-00.log", 30},  // a rotated name: never purged
      {"log.2024010.log", 30},                                          // seven digits
      {"other.20240101.log", 30},                                       // another log
      {"log.20240101.txt", 30},                                         // another suffix
  };
  for (const auto &f : files) WriteFile(run + "/" + f.name, 100, f.ageDays);

  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    std::vector<std::string> listed;
    auto collect = [](void *context, const char *path) {
      static_cast<std::vector<std::string> *>(context)->push_back(path);
      return 0;
    };
    if (KZDaemonEnumerateLogFiles(run.c_str(), "log", collect, &listed) != 1 || listed.size() != 3) return 10;
    KZSetDaemonDir(run.c_str());
    if (KZDaemonPurgeLogDays(nullptr, 0) != 1) return 11;  // below 1 day: nothing
    if (KZDaemonPurgeLogDays("log", 0) != 1 || !FileExists("log.20240101.log")) return 12;
    if (KZDaemonPurgeLogDays(nullptr, 5) != 1) return 13;
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_EQ(
      (std::vector<std::string>{"daemon.pid", "log.2024-01-01-00-00-00.log", "log.2024010.log", "log.20240101.txt",
                                "log.20240102.1.log", "log.20240103.log", "log.log", "other.20240101.log"}),
      Names(run));

  // By size: the newest 150 bytes' worth stays, that is one file; then none.
  for (const auto &f : files)
    if (!std::filesystem::exists(run + "/" + f.name)) WriteFile(run + "/" + f.name, 100, f.ageDays);
  child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    KZSetDaemonDir(run.c_str());
    if (KZDaemonPurgeLog(nullptr, 150) != 1) return 10;
    if (!FileExists("log.20240103.log") || FileExists("log.20240102.1.log") || FileExists("log.20240101.log"))
      return 11;
    if (KZDaemonPurgeLog("log", 0) != 1 || FileExists("log.20240103.log")) return 12;
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  for (const char *kept : {"log.2024-01-01-00-00-00.log", "log.2024010.log", "other.20240101.log", "log.20240101.txt"})
    EXPECT_TRUE(std::filesystem::exists(run + "/" + kept)) << kept;
}

// A service under "-service -rundir <dir>": told to the manager on
// $NOTIFY_SOCKET, logged from start to its exit status. A SIGTERM stops it
// through its exit handlers unless the program chose to ignore it.
TEST(DaemonTest, ServiceReportsToTheManagerAndLogsItsEnd) {
  TempDir dir;
  const std::string socketPath = dir / "notify", missing = dir / "no-manager";
  int manager = -1;
  if (!kztest::InChild()) {  // the service manager is the parent, bound before the child starts
    manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(manager, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    ASSERT_EQ(0, bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address));
  }
  struct Case {
    const char *name, *notifySocket;
    bool sendTerm, ignoreTerm;
    int status;
    std::vector<std::string> logged;  // in this order
    bool stopRequested;
  } cases[] = {
      {"exit", socketPath.c_str(), false, false, 0, {"Service svc started", "Service svc stopped, status=0"}, false},
      {"terminated", nullptr, true, false, 0, {"Service stop requested", "Service svc stopped, status=0"}, true},
      {"term ignored, no manager",
       missing.c_str(),
       true,
       true,
       3,
       {"SetServiceStatus() failed", "Service svc started", "Service svc stopped, status=3"},
       false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string run = dir / c.name;
    kztest::Environment environment;
    if (c.notifySocket) environment.push_back({"NOTIFY_SOCKET", c.notifySocket});
    kztest::Child child = kztest::RunChild(dir, environment, [&] {
      if (c.ignoreTerm) signal(SIGTERM, SIG_IGN);
      KZLibInit("daemon_test");
      std::string rundir = run;
      char *argv[] = {const_cast<char *>("server"),  const_cast<char *>("-service"),
                      const_cast<char *>("-rundir"), rundir.data(),
                      const_cast<char *>("keep"),    nullptr};
      int argc = 5;
      if (KZSetDaemon(&argc, argv, nullptr, "svc") != 1) return 10;
      if (argc != 2 || strcmp(argv[1], "keep") != 0 || argv[2] != nullptr) return 11;
      struct sigaction now;
      if (sigaction(SIGTERM, nullptr, &now) != 0 || (now.sa_handler == SIG_IGN) != c.ignoreTerm) return 12;
      if (c.sendTerm) kill(getpid(), SIGTERM);
      while (c.sendTerm && !c.ignoreTerm) pause();  // only the library's stop thread can end the process
      exit(c.status);                               // through the exit handlers, as a program's main returns
    });
    ASSERT_TRUE(child.Exited(c.status)) << child.Describe();
    EXPECT_NE(std::string::npos, child.out.find("Starting service svc")) << child.out;
    EXPECT_TRUE(std::filesystem::exists(run + "/daemon.pid"));
    const std::string log = ReadFile(run + "/log.log");
    EXPECT_EQ("", FirstMissing(log, c.logged)) << log;
    EXPECT_EQ(c.stopRequested, log.find("stop requested") != std::string::npos) << log;
  }
  std::vector<std::string> received;
  char buffer[256];
  ssize_t got;
  while ((got = recv(manager, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) received.emplace_back(buffer, got);
  close(manager);
  EXPECT_EQ((std::vector<std::string>{"READY=1", "STOPPING=1"}), received);

  // Without options nothing changes.
  char *plain[] = {const_cast<char *>("server"), const_cast<char *>("x"), nullptr};
  int argc = 2;
  EXPECT_EQ(0, KZSetDaemon(&argc, plain, nullptr, nullptr));
  EXPECT_EQ(2, argc);
}

TEST(DaemonTest, DaemonOptionForksAndTheChildCarriesOn) {
  TempDir dir;
  const std::string run = dir / "run";
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    char *argv[] = {const_cast<char *>("server"), const_cast<char *>("-daemon"), nullptr};
    int argc = 2;
    KZSetDaemon(&argc, argv, run.c_str(), nullptr);  // the parent exits with 0 here
    KZMessage(2, "daemon child running");
    std::ofstream(run + "/done") << getpid();
    return 0;
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  // The daemon is no child of ours; its marker tells that it has finished.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (ReadFile(run + "/done").empty() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const std::string daemonPid = ReadFile(run + "/done");
  ASSERT_FALSE(daemonPid.empty());
  EXPECT_NE(std::to_string(child.pid), daemonPid);
  EXPECT_EQ(daemonPid, ReadFile(run + "/daemon.pid"));
  EXPECT_NE(std::string::npos, ReadFile(run + "/log.log").find("daemon child running"));
}

}  // namespace
