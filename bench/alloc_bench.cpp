// Checked allocation and error records under threads: vepra_mem_malloc plus
// vepra_mem_free against plain malloc and free, and creating and clearing a
// one-record error chain against the bare pool it lives in, each on 1, 2
// and 4 threads.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "bench_main.hpp"
#include "vepra_error.h"
#include "vepra_mem.h"

namespace {

constexpr size_t kBlock = 64;

void BM_PlainMallocFree(benchmark::State &state) {
  for (auto _ : state) {
    void *p = std::malloc(kBlock);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_PlainMallocFree)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_CheckedMallocFree(benchmark::State &state) {
  for (auto _ : state) {
    void *p = nullptr;
    vepra_error_t *e = vepra_mem_malloc(kBlock, &p);
    benchmark::DoNotOptimize(e);
    benchmark::DoNotOptimize(p);
    vepra_mem_free(p);
  }
}
BENCHMARK(BM_CheckedMallocFree)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_PoolCreateDestroy(benchmark::State &state) {
  for (auto _ : state) {
    apr_pool_t *p = nullptr;
    apr_pool_create(&p, vepra_pool);
    benchmark::DoNotOptimize(p);
    apr_pool_destroy(p);
  }
}
BENCHMARK(BM_PoolCreateDestroy)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_ErrorCreateClear(benchmark::State &state) {
  for (auto _ : state) {
    vepra_error_t *e = vepra_error_create_i(0, VEPRA_E_DL_INSERT, 0, nullptr, nullptr, nullptr,
                                            nullptr);
    benchmark::DoNotOptimize(e);
    vepra_error_clear(e);
  }
}
BENCHMARK(BM_ErrorCreateClear)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv); }
