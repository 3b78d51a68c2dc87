// vepra_dir_traverse against nftw with fnmatch, both walking a tree of
// 100,000 files in 1,000 directories (in the page cache after the first
// pass) with the two-piece include pattern "*.tif;*.png", which half of
// the files match. Both count files per second over all files of the tree.
// The tree is made under $VEPRA_BENCH_DIR (default: $TMPDIR or /tmp) and
// removed at the end.
#include <fcntl.h>
#include <fnmatch.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_main.hpp"
#include "vepra_dir.h"

namespace {

constexpr int kDirs = 1000;
constexpr int kFilesPerDir = 100;
constexpr long kFiles = long{kDirs} * kFilesPerDir;
constexpr long kMatching = kFiles / 2;
const char *const kSuffixes[] = {".tif", ".png", ".txt", ".dat"};

std::string g_root;

void make_tree() {
  const char *base = std::getenv("VEPRA_BENCH_DIR");
  if (base == nullptr) base = std::getenv("TMPDIR");
  g_root = std::string(base != nullptr ? base : "/tmp") + "/vepra_dir_bench." +
           std::to_string(getpid());
  if (mkdir(g_root.c_str(), 0755) != 0) std::abort();
  char path[512];
  for (int d = 0; d < kDirs; ++d) {
    std::snprintf(path, sizeof path, "%s/dir%04d", g_root.c_str(), d);
    if (mkdir(path, 0755) != 0) std::abort();
    for (int f = 0; f < kFilesPerDir; ++f) {
      std::snprintf(path, sizeof path, "%s/dir%04d/file%03d%s", g_root.c_str(), d, f,
                    kSuffixes[f % 4]);
      int fd = open(path, O_CREAT | O_WRONLY, 0644);
      if (fd < 0) std::abort();
      close(fd);
    }
  }
}

void remove_tree() {
  if (!g_root.empty() && std::system(("rm -rf '" + g_root + "'").c_str()) != 0)
    std::fprintf(stderr, "cannot remove %s\n", g_root.c_str());
}

vepra_error_t *count_file(const char *, void *user, apr_pool_t *) {
  ++*static_cast<long *>(user);
  return nullptr;
}

void BM_VepraDirTraverse(benchmark::State &state) {
  apr_pool_t *pool = nullptr;
  if (apr_pool_create(&pool, vepra_pool) != APR_SUCCESS) std::abort();
  for (auto _ : state) {
    long matched = 0;
    vepra_dir_options_t options{VEPRA_DIR_RECURSIVE, nullptr, nullptr, count_file, &matched};
    vepra_error_t *e =
        vepra_dir_traverse(g_root.c_str(), "*.tif;*.png", nullptr, &options, pool);
    apr_pool_clear(pool);
    if (e != nullptr || matched != kMatching) {
      vepra_error_clear(e);
      state.SkipWithError("wrong walk");
      break;
    }
  }
  apr_pool_destroy(pool);
  state.counters["files/s"] =
      benchmark::Counter(static_cast<double>(kFiles * state.iterations()),
                         benchmark::Counter::kIsRate);
}

long g_nftw_matched = 0;

int nftw_visit(const char *path, const struct stat *, int type, struct FTW *) {
  if ((type == FTW_F || type == FTW_SL) &&
      (fnmatch("*.tif", path, 0) == 0 || fnmatch("*.png", path, 0) == 0))
    ++g_nftw_matched;
  return 0;
}

void BM_NftwFnmatch(benchmark::State &state) {
  for (auto _ : state) {
    g_nftw_matched = 0;
    if (nftw(g_root.c_str(), nftw_visit, 64, FTW_PHYS) != 0 || g_nftw_matched != kMatching) {
      state.SkipWithError("wrong walk");
      break;
    }
  }
  state.counters["files/s"] =
      benchmark::Counter(static_cast<double>(kFiles * state.iterations()),
                         benchmark::Counter::kIsRate);
}

BENCHMARK(BM_VepraDirTraverse)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_NftwFnmatch)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv, make_tree, remove_tree); }
