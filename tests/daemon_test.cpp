// Daemon mode through the public API. Every daemon is a forked test process
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

void WriteFile(const std::string &path, size_t size, int ageDays) {
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
  timespec times[2];
  clock_gettime(CLOCK_REALTIME, &times[0]);
  times[0].tv_sec -= static_cast<time_t>(ageDays) * 86400 + 60;  // a minute more than whole days
  times[1] = times[0];
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
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
    // stdin reads the null device.
    char byte;
    if (read(0, &byte, 1) != 0) return 14;
    // Descriptors 1 and 2 are the log and not inheritable.
    if ((fcntl(1, F_GETFD) & FD_CLOEXEC) == 0 || (fcntl(2, F_GETFD) & FD_CLOEXEC) == 0) return 15;
    KZMessage(3, "message from the daemon");
    printf("stdout line\n");
    fflush(stdout);
    fprintf(stderr, "stderr line\n");
    // The pid file is held: another lock on it is refused at once.
    if (FileLockAcquire(run.c_str(), "daemon.pid", 1, 0) != nullptr || errno != 16) return 16;
    // A second daemon in the same directory is refused and says so.
    pid_t second = fork();
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
  EXPECT_NE(std::string::npos, log.find("message from the daemon")) << log;
  EXPECT_NE(std::string::npos, log.find("stdout line\n")) << log;
  EXPECT_NE(std::string::npos, log.find("stderr line\n")) << log;
  EXPECT_NE(std::string::npos, log.find("daemon: cannot lock pid file : \"" + run + "/daemon.pid\"")) << log;
  EXPECT_NE(std::string::npos, log.find("KZSetLogFileSuffix called after the process log files were created")) << log;
  struct stat status;
  ASSERT_EQ(0, stat(run.c_str(), &status));
  EXPECT_TRUE(S_ISDIR(status.st_mode));
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
  EXPECT_NE(std::string::npos,
            child.err.find("daemon: log directory creation (\"" + dir.path() + "/plain/below\") failed"))
      << child.err;
  EXPECT_NE(std::string::npos, child.err.find("daemon: cannot open log file")) << child.err;
}

// "log.YYYY-MM-DD-hh-mm-ss[.N].log": the stamp and N (0 when absent).
bool ParseRotatedName(const std::string &name, std::string *stamp, int *counter) {
  const std::string shape = "dddd-dd-dd-dd-dd-dd";
  if (name.rfind("log.", 0) != 0 || name.size() < 4 + shape.size() + 4) return false;
  *stamp = name.substr(4, shape.size());
  for (size_t k = 0; k < shape.size(); k++)
    if (shape[k] == 'd' ? !isdigit(static_cast<unsigned char>((*stamp)[k])) : (*stamp)[k] != '-') return false;
  std::string rest = name.substr(4 + shape.size());
  if (rest == ".log") {
    *counter = 0;
    return true;
  }
  if (rest.size() < 6 || rest[0] != '.' || rest.compare(rest.size() - 4, 4, ".log") != 0) return false;
  std::string digits = rest.substr(1, rest.size() - 5);
  if (digits.empty() || !std::all_of(digits.begin(), digits.end(), ::isdigit)) return false;
  *counter = std::stoi(digits);
  return true;
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
  std::vector<std::string> rotatedNames;
  for (const auto &name : Names(run)) {
    std::string stamp;
    int counter = 0;
    if (!ParseRotatedName(name, &stamp, &counter)) continue;
    counters[stamp].push_back(counter);
    rotatedNames.push_back(name);
  }
  ASSERT_EQ(3u, rotatedNames.size());
  for (auto &[stamp, list] : counters) {
    std::sort(list.begin(), list.end());
    for (size_t k = 0; k < list.size(); k++) EXPECT_EQ(static_cast<int>(k), list[k]) << stamp;
  }
  std::string all;
  for (const auto &name : rotatedNames) all += ReadFile(run + "/" + name);
  EXPECT_NE(std::string::npos, all.find("first generation"));
  const std::string current = ReadFile(run + "/log.log");
  EXPECT_NE(std::string::npos, current.find("current generation")) << current;
  EXPECT_NE(std::string::npos, current.find("stdout after rotation")) << current;
  EXPECT_EQ(std::string::npos, current.find("first generation"));
  EXPECT_EQ("new access line\n", ReadFile(run + "/access.log"));
  int accessFiles = 0;
  for (const auto &name : Names(run))
    if (name.rfind("access.", 0) == 0 && name != "access.log") {
      accessFiles++;
      EXPECT_EQ("access line\n", ReadFile(run + "/" + name));
    }
  EXPECT_EQ(1, accessFiles);
  EXPECT_FALSE(std::filesystem::exists(run + "/ghost.log"));
  const std::string errors = ReadFile(run + "/log.err");
  const std::string renameNote = "cannot rename log file from '" + run + "/ghost.log' to '" + run + "/ghost.";
  EXPECT_EQ(0u, errors.find(renameNote)) << errors;
  EXPECT_NE(std::string::npos, errors.find("\n:daemon: cannot rename log file: ")) << errors;
  EXPECT_NE(std::string::npos, current.find(":daemon: cannot rename log file")) << current;
}

TEST(DaemonTest, RotationSkipsNamesThatExist) {
  TempDir dir;
  const std::string run = dir / "run";
  std::filesystem::create_directories(run);
  // Every stamp of the next minute is taken already: the rotation must count on.
  time_t now = time(nullptr);
  for (time_t t = now - 1; t < now + 60; t++) {
    tm local;
    localtime_r(&t, &local);
    char name[64];
    snprintf(name, sizeof name, "log.%04d-%02d-%02d-%02d-%02d-%02d.log", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
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
  for (const auto &name : Names(run)) {
    std::string stamp;
    int counter = 0;
    if (ParseRotatedName(name, &stamp, &counter) && counter != 0) counted.push_back(name);
  }
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
    if (KZDaemonEnumerateLogFiles(run.c_str(), "log", collect, &listed) != 1) return 9;
    if (listed.size() != 3) return 10;
    KZSetDaemonDir(run.c_str());
    if (KZDaemonPurgeLogDays(nullptr, 0) != 1) return 11;
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

TEST(DaemonTest, ServiceReportsReadyAndStoppingToTheManager) {
  TempDir dir;
  const std::string socketPath = dir / "notify";
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
  const std::string run = dir / "run";
  kztest::Child child = kztest::RunChild(dir, {{"NOTIFY_SOCKET", socketPath.c_str()}}, [&] {
    KZLibInit("daemon_test");
    std::string rundir = run;
    char *argv[] = {const_cast<char *>("server"),  const_cast<char *>("-service"),
                    const_cast<char *>("-rundir"), rundir.data(),
                    const_cast<char *>("keep"),    nullptr};
    int argc = 5;
    if (KZSetDaemon(&argc, argv, nullptr, "svc") != 1) return 10;
    if (argc != 2 || strcmp(argv[1], "keep") != 0 || argv[2] != nullptr) return 11;
    exit(0);  // through the exit handlers, as a program's main returns
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  EXPECT_NE(std::string::npos, child.out.find("Starting service svc")) << child.out;
  std::vector<std::string> received;
  char buffer[256];
  ssize_t got;
  while ((got = recv(manager, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) received.emplace_back(buffer, got);
  close(manager);
  EXPECT_EQ((std::vector<std::string>{"READY=1", "STOPPING=1"}), received);
  EXPECT_TRUE(std::filesystem::exists(run + "/daemon.pid"));
  const std::string log = ReadFile(run + "/log.log");
  size_t started = log.find("Service svc started"), stopped = log.find("Service svc stopped, status=0");
  EXPECT_NE(std::string::npos, started) << log;
  EXPECT_NE(std::string::npos, stopped) << log;
  EXPECT_LT(started, stopped) << log;
  EXPECT_EQ(std::string::npos, log.find("stop requested")) << log;

  // Without options nothing changes.
  char *plain[] = {const_cast<char *>("server"), const_cast<char *>("x"), nullptr};
  int argc = 2;
  EXPECT_EQ(0, KZSetDaemon(&argc, plain, nullptr, nullptr));
  EXPECT_EQ(2, argc);
}

// SIGTERM from the service manager: logged, reported, and the program ends
// through its exit handlers with status 0.
TEST(DaemonTest, ServiceStopsOnTheManagersSignal) {
  TempDir dir;
  const std::string run = dir / "run";
  kztest::Child child = kztest::RunChild(dir, {}, [&] {
    KZLibInit("daemon_test");
    std::string rundir = run;
    char *argv[] = {const_cast<char *>("server"), const_cast<char *>("-service"), const_cast<char *>("-rundir"),
                    rundir.data(), nullptr};
    int argc = 4;
    if (KZSetDaemon(&argc, argv, nullptr, "svc") != 1) return 10;
    kill(getpid(), SIGTERM);
    for (;;) pause();  // only the library's stop thread can end the process
  });
  ASSERT_TRUE(child.Exited(0)) << child.Describe();
  const std::string log = ReadFile(run + "/log.log");
  size_t requested = log.find("Service stop requested"), stopped = log.find("Service svc stopped, status=0");
  EXPECT_NE(std::string::npos, requested) << log;
  EXPECT_NE(std::string::npos, stopped) << log;
  EXPECT_LT(requested, stopped) << log;
}

// A program's own SIGTERM choice is kept; the exit status reaches the log;
// a manager socket that cannot be reached is logged and the service goes on.
TEST(DaemonTest, ServiceKeepsTheProgramsSignalChoiceAndLogsItsStatus) {
  TempDir dir;
  const std::string run = dir / "run";
  const std::string missing = dir / "no-manager";
  kztest::Child child = kztest::RunChild(dir, {{"NOTIFY_SOCKET", missing.c_str()}}, [&] {
    signal(SIGTERM, SIG_IGN);
    KZLibInit("daemon_test");
    std::string rundir = run;
    char *argv[] = {const_cast<char *>("server"), const_cast<char *>("-service"), const_cast<char *>("-rundir"),
                    rundir.data(), nullptr};
    int argc = 4;
    if (KZSetDaemon(&argc, argv, nullptr, "svc") != 1) return 10;
    struct sigaction now;
    if (sigaction(SIGTERM, nullptr, &now) != 0 || now.sa_handler != SIG_IGN) return 11;
    kill(getpid(), SIGTERM);  // ignored: the program goes on
    exit(3);
  });
  ASSERT_TRUE(child.Exited(3)) << child.Describe();
  const std::string log = ReadFile(run + "/log.log");
  EXPECT_NE(std::string::npos, log.find("SetServiceStatus() failed")) << log;
  EXPECT_NE(std::string::npos, log.find("Service svc started")) << log;
  EXPECT_NE(std::string::npos, log.find("Service svc stopped, status=3")) << log;
  EXPECT_EQ(std::string::npos, log.find("stop requested")) << log;
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
