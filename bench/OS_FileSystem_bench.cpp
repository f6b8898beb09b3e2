// Directory walk against nftw(FTW_PHYS), natural-order sorting against
// strverscmp, and the 8 KiB copy loop against cp. Run by hand:
//   build/bench/OS_FileSystem_bench --benchmark_min_time=2
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <ostrelled/OS_CLibrary.h>
#include <ostrelled/OS_File.h>
#include <ostrelled/OS_FileSystem.h>

namespace {

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 100;
constexpr size_t kNames = 1000000;
constexpr size_t kCopyBytes = 64u << 20;

std::string g_root;

void makeTree() {
  char pattern[] = "/tmp/ostrelled_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  g_root = pattern;
  for (int d = 0; d < kFolders; ++d) {
    // Ten group folders holding the other 990, so the walk also goes down and up.
    const std::string group = g_root + "/tree/g" + std::to_string(d % 10);
    const std::string folder = d < 10 ? group : group + "/f" + std::to_string(d);
    std::filesystem::create_directories(folder);
    for (int f = 0; f < kFilesPerFolder; ++f) {
      const int fd = open((folder + "/file" + std::to_string(f)).c_str(), O_CREAT | O_WRONLY, 0644);
      if (fd >= 0) close(fd);
    }
  }
  std::vector<char> block(1 << 20, 'x');
  const int fd = open((g_root + "/copy_source").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  for (size_t written = 0; written < kCopyBytes; written += block.size())
    if (write(fd, block.data(), block.size()) < 0) abort();
  close(fd);
}

struct Counter : IWalkThroughCallback {
  size_t files = 0, directories = 0;
  void onWalkFile(const char*, const char*) override { ++files; }
  void onWalkDirectory(const char*, const char*) override { ++directories; }
};

void BM_WalkLibrary(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) {
    Counter counter;
    os_filesystem_walk_through("tree", g_root.c_str(), &counter);
    entries = counter.files + counter.directories;
  }
  state.counters["entries"] = entries;
}

size_t g_nftwEntries;
int countEntry(const char*, const struct stat*, int, struct FTW*) {
  ++g_nftwEntries;
  return 0;
}

void BM_WalkNftw(benchmark::State& state) {
  for (auto _ : state) {
    g_nftwEntries = 0;
    nftw((g_root + "/tree").c_str(), countEntry, 64, FTW_PHYS);
  }
  state.counters["entries"] = g_nftwEntries;
}

// Word, number and extension: names that differ only in the extension are
// equivalent in natural order, which keeps it a strict weak order for sorting.
const std::vector<std::string>& names() {
  static std::vector<std::string> list = [] {
    const char* words[] = {"file", "image", "img", "report", "log", "data", "backup", "photo", "scan", "track"};
    const char* extensions[] = {"txt", "png", "tar.gz", "dat"};
    std::mt19937 random(42);
    std::vector<std::string> out;
    out.reserve(kNames);
    for (size_t i = 0; i < kNames; ++i)
      out.push_back(std::string(words[random() % 10]) + "_" + std::to_string(random() % 100000) + "." +
                    extensions[random() % 4]);
    return out;
  }();
  return list;
}

template <class Less>
void sortNames(benchmark::State& state, Less less) {
  std::vector<const char*> original;
  for (const std::string& name : names()) original.push_back(name.c_str());
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<const char*> work = original;
    state.ResumeTiming();
    std::sort(work.begin(), work.end(), less);
    benchmark::DoNotOptimize(work.data());
  }
}

void BM_SortNatural(benchmark::State& state) {
  sortNames(state, [](const char* a, const char* b) { return os_clibrary_string_intelligent_less(a, b); });
}

void BM_SortStrverscmp(benchmark::State& state) {
  sortNames(state, [](const char* a, const char* b) { return strverscmp(a, b) < 0; });
}

void BM_CopyLibrary(benchmark::State& state) {
  const std::string source = g_root + "/copy_source", target = g_root + "/copy_library";
  for (auto _ : state) os_file_copy(source.c_str(), target.c_str(), false);
  state.SetBytesProcessed(state.iterations() * kCopyBytes);
}

void BM_CopyCp(benchmark::State& state) {
  const std::string command = "cp " + g_root + "/copy_source " + g_root + "/copy_cp";
  for (auto _ : state)
    if (system(command.c_str()) != 0) state.SkipWithError("cp failed");
  state.SetBytesProcessed(state.iterations() * kCopyBytes);
}

BENCHMARK(BM_WalkLibrary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WalkNftw)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SortNatural)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SortStrverscmp)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CopyLibrary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyCp)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  makeTree();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(g_root, ignored);
  return 0;
}
