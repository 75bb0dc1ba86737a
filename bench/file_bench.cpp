// DirectoryWalk against nftw(3) over a tree of 100,000 files, and FileMapFD
// with a sequential pass over a 1 GiB file against read(2) in 1 MiB blocks.
//
// Both inputs are made once in a private temporary directory (removed at the
// end of the run) and are in the page cache while timed: the benchmarks
// measure the library's work and the system calls, not the disk. The
// comparison runs report "time_vs_kz": the other side's time divided by
// kzlib's, so above 1 means kzlib was faster.
#include <fcntl.h>
#include <ftw.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_support.h"
#include "kz/file.h"

namespace {

constexpr int kTopDirectories = 10, kSubDirectories = 10, kFilesPerDirectory = 1000;
constexpr uint64_t kEntries = kTopDirectories + kTopDirectories * kSubDirectories +
                              uint64_t(kTopDirectories) * kSubDirectories * kFilesPerDirectory;
constexpr size_t kBigFile = size_t(1) << 30;
constexpr size_t kBlock = size_t(1) << 20;

// The private directory, made on first use and removed at exit.
const std::string &Scratch() {
  static const std::string path = [] {
    std::string pattern = std::filesystem::temp_directory_path() / "kzfilebench-XXXXXX";
    kzbench::Expect(mkdtemp(pattern.data()) != nullptr, "temporary directory");
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(Scratch(), ignored);
    });
    return pattern;
  }();
  return path;
}

const std::string &Tree() {
  static const std::string root = [] {
    std::string tree = Scratch() + "/tree";
    mkdir(tree.c_str(), 0700);
    for (int t = 0; t < kTopDirectories; t++) {
      std::string top = tree + "/d" + std::to_string(t);
      mkdir(top.c_str(), 0700);
      for (int s = 0; s < kSubDirectories; s++) {
        std::string sub = top + "/s" + std::to_string(s);
        mkdir(sub.c_str(), 0700);
        for (int f = 0; f < kFilesPerDirectory; f++) {
          int fd = open((sub + "/file" + std::to_string(f)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
          kzbench::Expect(fd >= 0, "tree file");
          close(fd);
        }
      }
    }
    return tree;
  }();
  return root;
}

uint64_t g_nftwCount;
int CountNftw(const char *, const struct stat *, int, struct FTW *) {
  g_nftwCount++;
  return 0;
}

int CountWalk(void *argument, const char *, uint32_t, int) {
  ++*static_cast<uint64_t *>(argument);
  return 0;
}

void BM_DirectoryWalk(benchmark::State &state) {
  const std::string &root = Tree();
  uint64_t walked = 0;
  auto kz = [&] {
    walked = 0;
    kzbench::Expect(DirectoryWalk(root.c_str(), CountWalk, &walked, 0) == 1, "DirectoryWalk");
  };
  auto other = [&] {
    g_nftwCount = 0;
    kzbench::Expect(nftw(root.c_str(), CountNftw, 64, FTW_PHYS) == 0, "nftw");
  };
  kz();
  other();
  // nftw reports the root itself as well.
  kzbench::Expect(walked == kEntries && g_nftwCount == kEntries + 1, "both walks see every entry");
  kzbench::Versus(state, kz, other);
  state.counters["entries"] = static_cast<double>(walked);
}
BENCHMARK(BM_DirectoryWalk)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3);

const std::string &BigFile() {
  static const std::string path = [] {
    std::string file = Scratch() + "/big";
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    kzbench::Expect(fd >= 0, "big file");
    std::vector<unsigned char> block(kBlock);
    for (size_t i = 0; i < block.size(); i++) block[i] = static_cast<unsigned char>(i * 131 + 7);
    for (size_t written = 0; written < kBigFile; written += kBlock)
      kzbench::Expect(write(fd, block.data(), kBlock) == static_cast<ssize_t>(kBlock), "big file write");
    close(fd);
    return file;
  }();
  return path;
}

// The same sum over the bytes on both sides, so both read every byte.
uint64_t Sum(const unsigned char *data, size_t size) {
  uint64_t sum = 0;
  const uint64_t *words = reinterpret_cast<const uint64_t *>(data);
  for (size_t i = 0; i < size / 8; i++) sum += words[i];
  for (size_t i = size / 8 * 8; i < size; i++) sum += data[i];
  return sum;
}

void BM_MapVersusRead(benchmark::State &state) {
  const std::string &path = BigFile();
  uint64_t mapped = 0, read = 0;
  std::vector<unsigned char> buffer(kBlock);
  auto kz = [&] {
    int fd = FileOpen(nullptr, path.c_str(), 1, KZ_FILE_HINT_SEQUENTIAL);
    uint64_t size = 0;
    int isEmpty = 0;
    auto *view = static_cast<const unsigned char *>(FileMapFD(fd, 1, &size, &isEmpty));
    kzbench::Expect(view && size == kBigFile, "FileMapFD");
    close(fd);
    mapped = Sum(view, size);
    benchmark::DoNotOptimize(mapped);
    FileUnmap(const_cast<unsigned char *>(view));
  };
  auto other = [&] {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    read = 0;
    ssize_t got;
    while ((got = ::read(fd, buffer.data(), kBlock)) > 0) read += Sum(buffer.data(), static_cast<size_t>(got));
    benchmark::DoNotOptimize(read);
    close(fd);
  };
  kz();
  other();
  kzbench::Expect(mapped == read, "both passes read the same bytes");
  // Every timed pass is checked too, so neither sum can be left out.
  const uint64_t expected = mapped;
  kzbench::Versus(
      state, [&] { kz(), kzbench::Expect(mapped == expected, "mapped sum"); },
      [&] { other(), kzbench::Expect(read == expected, "read sum"); });
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}
BENCHMARK(BM_MapVersusRead)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace
