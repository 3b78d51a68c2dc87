// vepra_str_replace_all against a single-pass std::string replacement:
// sparse text (about 1% of the positions start an occurrence) of 64 KiB
// and 1 MiB, and dense text (one occurrence every 10.5 bytes on average)
// of 64 KiB, 1 MiB and 2 MiB. Run both of one size and density together
// and compare their bytes per second.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <utility>

#include "vepra_str.h"

namespace {

constexpr const char *kFrom = "foo";
constexpr const char *kTo = "barbaz";

enum Density : int { kSparse = 0, kDense = 1 };

// kib KiB of lower-case filler (never containing the search string) with
// the search string placed after gaps of 3 to 11 filler bytes (dense) or
// 60 to 134 (sparse: one occurrence per 100 bytes).
const std::string &text(int kib, int density) {
  static std::map<std::pair<int, int>, std::string> cache;
  std::string &s = cache[{kib, density}];
  if (s.empty()) {
    std::mt19937 rng(42);
    std::uniform_int_distribution<int> letter('g', 'z');
    std::uniform_int_distribution<int> gap = density == kDense ? std::uniform_int_distribution<int>(3, 11)
                                                               : std::uniform_int_distribution<int>(60, 134);
    const size_t size = static_cast<size_t>(kib) << 10;
    while (s.size() < size) {
      int n = gap(rng);
      for (int k = 0; k < n; ++k) s += static_cast<char>(letter(rng));
      if (s.size() + 3 <= size) s += kFrom;
    }
    s.resize(size);
  }
  return s;
}

size_t occurrences(const std::string &s) {
  size_t n = 0;
  for (size_t pos = s.find(kFrom); pos != std::string::npos; pos = s.find(kFrom, pos + 3)) ++n;
  return n;
}

// The peer reserves room for half as much again, more than the workloads
// grow by, so it never reallocates.
std::string std_replace_all(const std::string &s, const std::string &from, const std::string &to) {
  std::string out;
  out.reserve(s.size() + s.size() / 2);
  size_t pos = 0;
  for (size_t hit; (hit = s.find(from, pos)) != std::string::npos; pos = hit + from.size())
    out.append(s, pos, hit - pos).append(to);
  return out.append(s, pos);
}

void BM_ReplaceAll(benchmark::State &state) {
  const std::string &s = text(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const std::string expected = std_replace_all(s, kFrom, kTo);
  char *first = vepra_str_replace_all(s.c_str(), kFrom, kTo);
  if (first == nullptr || expected != first) state.SkipWithError("results differ");
  std::free(first);
  for (auto _ : state) {
    char *out = vepra_str_replace_all(s.c_str(), kFrom, kTo);
    benchmark::DoNotOptimize(out);
    std::free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.size()));
  state.counters["hits"] = static_cast<double>(occurrences(s));
}

void BM_StdStringReplace(benchmark::State &state) {
  const std::string &s = text(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const std::string from = kFrom, to = kTo;
  for (auto _ : state) {
    std::string out = std_replace_all(s, from, to);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.size()));
}

// Each workload is registered for the library and the peer back to back,
// so both run under the same load.
[[maybe_unused]] const bool kRegistered = [] {
  const std::pair<int, int> workloads[] = {
      {64, kSparse}, {1024, kSparse}, {64, kDense}, {1024, kDense}, {2048, kDense}};
  for (auto [kib, density] : workloads) {
    std::string suffix = "/";
    suffix.append(std::to_string(kib)).append("KiB/").append(density == kDense ? "dense" : "sparse");
    benchmark::RegisterBenchmark(std::string("ReplaceAll").append(suffix).c_str(), BM_ReplaceAll)
        ->Args({kib, density})
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(std::string("StdStringReplace").append(suffix).c_str(),
                                 BM_StdStringReplace)
        ->Args({kib, density})
        ->Unit(benchmark::kMicrosecond);
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
