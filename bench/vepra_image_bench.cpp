// vepra-image stats over a folder of scans (200 of 2048 x 2048 16-bit,
// written once into the temporary directory, so read from the page cache):
//
//   Library/read, Library/read_histogram, Library/read_histogram_entropy:
//       the library's own calls on every file in this process, the floor
//       the program is held to;
//   Tool/jobs:1, Tool/jobs:N: the installed program run on the folder with
//       one job and with every processor this process may use.
//
// Each iteration covers the whole folder; items are files, so the rates
// read as files per second. VEPRA_BENCH_SCANS sets another number of scans.
#include <benchmark/benchmark.h>

#include "bench_main.hpp"
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vepra_error.h"
#include "vepra_img.h"
#include "vepra_mem.h"

extern char **environ;

namespace {

constexpr uint32_t kSide = 2048;

std::string g_dir;
std::vector<std::string> g_files;

int usable_processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
}

void make_folder() {
  const char *tmp = std::getenv("TMPDIR");
  g_dir = std::string(tmp != nullptr ? tmp : "/tmp") + "/vepra_image_bench";
  mkdir(g_dir.c_str(), 0700);
  const char *count = std::getenv("VEPRA_BENCH_SCANS");
  const int n = count != nullptr ? std::atoi(count) : 200;
  vepra_img_t img{};
  img.width = img.height = kSide;
  img.samples_per_pixel = 1;
  img.bits_per_sample[0] = img.bits_per_sample[1] = img.bits_per_sample[2] = 16;
  img.photometric = 1;
  img.res_unit = -1;
  void *m = nullptr;
  if (vepra_mem_matrix_alloc(&m, sizeof(uint16_t), 0, kSide - 1, 0, kSide - 1) != nullptr) {
    std::abort();
  }
  img.data16 = static_cast<uint16_t **>(m);
  uint32_t state = 12345;
  for (int i = 0; i < n; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "/scan_%03d.tif", i);
    const std::string path = g_dir + name;
    g_files.push_back(path);
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && st.st_size > off_t(2) * kSide * kSide) continue;
    for (uint32_t r = 0; r < kSide; ++r) {
      for (uint32_t c = 0; c < kSide; ++c) {
        state = state * 1664525u + 1013904223u;
        img.data16[r][c] = uint16_t(1000 + (r + c + i) % 20000 + (state >> 22));
      }
    }
    if (vepra_error_t *e = vepra_img_write_tiff(path.c_str(), &img)) {
      vepra_error_clear(e);
      std::abort();
    }
  }
  vepra_img_free(&img);
}

void remove_folder() {
  for (const std::string &f : g_files) std::remove(f.c_str());
  rmdir(g_dir.c_str());
}

// 0: read; 1: and histogram; 2: and entropy.
void Library(benchmark::State &state) {
  const int steps = int(state.range(0));
  for (auto _ : state) {
    for (const std::string &path : g_files) {
      vepra_img_t img{};
      if (vepra_error_t *e = vepra_img_read(path.c_str(), &img)) {
        vepra_error_clear(e);
        state.SkipWithError("read failed");
        return;
      }
      if (steps >= 1) {
        size_t nbins = 0;
        uint64_t *hist = nullptr;
        vepra_error_clear(vepra_img_histogram(&img, &nbins, &hist));
        benchmark::DoNotOptimize(hist);
        vepra_mem_free(hist);
      }
      if (steps >= 2) {
        double entropy = 0;
        vepra_error_clear(vepra_img_entropy(&img, &entropy));
        benchmark::DoNotOptimize(entropy);
      }
      vepra_img_free(&img);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(g_files.size()));
}
BENCHMARK(Library)->ArgName("steps")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

#ifdef VEPRA_IMAGE_TOOL
void Tool(benchmark::State &state) {
  const std::string jobs = std::to_string(state.range(0));
  std::vector<std::string> args = {VEPRA_IMAGE_TOOL, "stats", "--jobs", jobs, g_dir};
  std::vector<char *> argv;
  for (std::string &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  for (auto _ : state) {
    pid_t pid = 0;
    int status = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("vepra-image stats failed");
      break;
    }
  }
  posix_spawn_file_actions_destroy(&actions);
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(g_files.size()));
}
BENCHMARK(Tool)
    ->ArgName("jobs")
    ->Arg(1)
    ->Arg(usable_processors())
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv, make_folder, remove_folder); }
