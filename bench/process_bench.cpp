// Starting and waiting for /bin/true: ProcessExecute_ + ProcessWait against
// posix_spawn + waitpid called directly, against fork + exec, and against
// GLib's g_spawn_sync, with a 1 GiB heap touched in the parent so that the
// cost of copying page tables on fork shows. Times are wall clock: a start
// is mostly waiting for the kernel and the child.
#include <fcntl.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "bench_support.h"
#include "kz/init.h"
#include "kz/process.h"

#if defined(KZ_BENCH_HAVE_GLIB)
#include <glib.h>
#endif

extern char **environ;

namespace {

constexpr size_t kHeapBytes = size_t(1) << 30;
const char *const kTrue = "/bin/true";

// The parent's large heap: allocated and touched once, kept for the run.
void EnsureLargeHeap() {
  static char *heap = [] {
    auto *bytes = static_cast<char *>(malloc(kHeapBytes));
    kzbench::Expect(bytes != nullptr, "1 GiB heap");
    memset(bytes, 1, kHeapBytes);
    return bytes;
  }();
  benchmark::DoNotOptimize(heap);
}

double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// kzbench::Versus on the wall clock: alternating batches, the other side's
// time over kzlib's as the counter.
template <typename Kz, typename Other>
void VersusWall(benchmark::State &state, Kz kz, Other other, const char *counter) {
  EnsureLargeHeap();
  double kzTotal = 0, otherTotal = 0;
  bool otherFirst = true;
  for (auto _ : state) {
    double times[2] = {0, 0};
    for (int pass = 0; pass < 2; ++pass) {
      const bool runOther = (pass == 0) == otherFirst;
      const double start = WallSeconds();
      if (runOther)
        other();
      else
        kz();
      times[runOther ? 1 : 0] = WallSeconds() - start;
    }
    kzTotal += times[0];
    otherTotal += times[1];
    otherFirst = !otherFirst;
    state.SetIterationTime(times[0]);
  }
  if (kzTotal > 0) state.counters[counter] = otherTotal / kzTotal;
}

char *g_argv[] = {const_cast<char *>("true"), nullptr};

void KzStartAndWait() {
  Process *process = ProcessExecuteDontInheritHandles(kTrue, g_argv, nullptr, -1, -1, -1);
  int exitCode = -1;
  kzbench::Expect(process && ProcessWait(process, 1, &exitCode, nullptr) == 1 && exitCode == 0, "kzlib start");
}

// What the library does for that call, written out by hand.
void SpawnAndWait() {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid;
  int status = -1;
  kzbench::Expect(posix_spawn(&pid, kTrue, &actions, nullptr, g_argv, environ) == 0 &&
                      waitpid(pid, &status, 0) == pid && status == 0,
                  "posix_spawn");
  posix_spawn_file_actions_destroy(&actions);
}

void ForkAndWait() {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    execve(kTrue, g_argv, environ);
    _exit(127);
  }
  int status = -1;
  kzbench::Expect(pid > 0 && waitpid(pid, &status, 0) == pid && status == 0, "fork");
}

void BM_StartWait_VsPosixSpawn(benchmark::State &state) {
  KZLibInit("process_bench");
  VersusWall(state, KzStartAndWait, SpawnAndWait, "spawn_vs_kz");
}
BENCHMARK(BM_StartWait_VsPosixSpawn)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_StartWait_VsForkExec(benchmark::State &state) {
  KZLibInit("process_bench");
  VersusWall(state, KzStartAndWait, ForkAndWait, "fork_vs_kz");
}
BENCHMARK(BM_StartWait_VsForkExec)->UseManualTime()->Unit(benchmark::kMicrosecond);

#if defined(KZ_BENCH_HAVE_GLIB)
// G_SPAWN_FILE_AND_ARGV_ZERO: argv[0] is the file, the rest the child's argv.
char *g_glibArgv[] = {const_cast<char *>(kTrue), const_cast<char *>("true"), nullptr};

void BM_StartWait_VsGSpawnSync(benchmark::State &state) {
  KZLibInit("process_bench");
  VersusWall(
      state, KzStartAndWait,
      [] {
        gint status = -1;
        GError *error = nullptr;
        gboolean ok = g_spawn_sync(nullptr, g_glibArgv, nullptr,
                                   static_cast<GSpawnFlags>(G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL |
                                                            G_SPAWN_FILE_AND_ARGV_ZERO),
                                   nullptr, nullptr, nullptr, nullptr, &status, &error);
        kzbench::Expect(ok && status == 0, "g_spawn_sync");
      },
      "glib_vs_kz");
}
BENCHMARK(BM_StartWait_VsGSpawnSync)->UseManualTime()->Unit(benchmark::kMicrosecond);
#endif

}  // namespace
