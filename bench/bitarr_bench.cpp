// Bit arrays of 2^30 bits (128 MiB of words): population count, OR and AND
// against the memory limit of the same machine in the same run (a plain
// sum over the same words, and a plain OR loop over raw words), and against
// std::count over a std::vector<bool> of the same length.
//
// Bytes processed count every word read and written, so the figures of all
// benchmarks compare directly with the plain sum's read rate.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "bench_main.hpp"
#include "vepra_bitarr.h"

namespace {

constexpr uint64_t kBits = uint64_t{1} << 30;
constexpr uint64_t kWords = kBits / 64;
constexpr int64_t kBytes = static_cast<int64_t>(kWords * sizeof(uint64_t));

vepra_bitarr_t *g_a = nullptr;
vepra_bitarr_t *g_b = nullptr;
vepra_bitarr_t *g_result = nullptr;
std::vector<bool> *g_bools = nullptr;

void fill_random(vepra_bitarr_t *a, uint64_t key) {
  std::mt19937_64 rng(key);
  for (uint64_t i = 0; i < a->used; ++i) a->words[i] = rng();
}

void build() {
  if (vepra_bitarr_create(&g_a, kBits) != nullptr || vepra_bitarr_create(&g_b, kBits) != nullptr ||
      vepra_bitarr_create(&g_result, kBits) != nullptr) {
    std::abort();
  }
  fill_random(g_a, 1);
  fill_random(g_b, 2);
  g_bools = new std::vector<bool>(kBits);
  for (uint64_t i = 0; i < kBits; i += 3) (*g_bools)[i] = true;
}

void release() {
  vepra_bitarr_free(g_a);
  vepra_bitarr_free(g_b);
  vepra_bitarr_free(g_result);
  delete g_bools;
}

void BM_MemoryReadSum(benchmark::State &state) {
  for (auto _ : state) {
    uint64_t sum = 0;
    const uint64_t *w = g_a->words;
    for (uint64_t i = 0; i < kWords; ++i) sum += w[i];
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_MemoryReadSum)->Unit(benchmark::kMillisecond);

void BM_MemoryOrLoop(benchmark::State &state) {
  for (auto _ : state) {
    const uint64_t *x = g_a->words, *y = g_b->words;
    uint64_t *out = g_result->words;
    for (uint64_t i = 0; i < kWords; ++i) out[i] = x[i] | y[i];
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 3 * kBytes);
}
BENCHMARK(BM_MemoryOrLoop)->Unit(benchmark::kMillisecond);

void BM_BitarrCount(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(vepra_bitarr_num_bits_set(g_a));
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_BitarrCount)->Unit(benchmark::kMillisecond);

void BM_BitarrOr(benchmark::State &state) {
  for (auto _ : state) {
    if (vepra_bitarr_or(g_a, g_b, &g_result) != nullptr) state.SkipWithError("OR failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 3 * kBytes);
}
BENCHMARK(BM_BitarrOr)->Unit(benchmark::kMillisecond);

void BM_BitarrAnd(benchmark::State &state) {
  for (auto _ : state) {
    if (vepra_bitarr_and(g_a, g_b, &g_result) != nullptr) state.SkipWithError("AND failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 3 * kBytes);
}
BENCHMARK(BM_BitarrAnd)->Unit(benchmark::kMillisecond);

void BM_VectorBoolCount(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::count(g_bools->begin(), g_bools->end(), true));
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_VectorBoolCount)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv, build, release); }
