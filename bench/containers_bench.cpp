// Doubly linked lists: appending and walking a million nodes in both
// flavours. A list keeps no tail, so append runs from the handle to the
// last node; the million-node runs keep the handle on the newest node (as
// a caller building a long list does) and one smaller run shows the cost
// of appending with the handle left on the first node.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "vepra_dl.h"

namespace {

struct Library {
  Library() { vepra_initialize(); }
  ~Library() { vepra_terminate(); }
};

constexpr int64_t kMillion = 1000000;

void *as_data(int64_t i) { return reinterpret_cast<void *>(static_cast<uintptr_t>(i)); }

// Builds a list of n nodes with the handle following the newest node.
vepra_dl_t *build_at_tail(int64_t n, apr_pool_t *pool) {
  vepra_dl_t *list = nullptr;
  for (int64_t i = 0; i < n; ++i) {
    vepra_dl_t *node = nullptr;
    if (pool != nullptr) {
      vepra_dl_append(&list, static_cast<uint32_t>(i), as_data(i), &node, pool);
    } else {
      vepra_dlm_append(&list, static_cast<uint32_t>(i), as_data(i), &node);
    }
    list = node;
  }
  return list;
}

void BM_DlAppendMillion(benchmark::State &state) {
  Library lib;
  for (auto _ : state) {
    apr_pool_t *pool = nullptr;
    apr_pool_create(&pool, vepra_pool);
    vepra_dl_t *list = build_at_tail(kMillion, pool);
    benchmark::DoNotOptimize(list);
    state.PauseTiming();
    apr_pool_destroy(pool);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_DlAppendMillion)->Unit(benchmark::kMillisecond);

void BM_DlmAppendMillion(benchmark::State &state) {
  Library lib;
  for (auto _ : state) {
    vepra_dl_t *list = build_at_tail(kMillion, nullptr);
    benchmark::DoNotOptimize(list);
    state.PauseTiming();
    vepra_dlm_destroy(&list);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_DlmAppendMillion)->Unit(benchmark::kMillisecond);

void BM_DlmDestroyMillion(benchmark::State &state) {
  Library lib;
  for (auto _ : state) {
    state.PauseTiming();
    vepra_dl_t *list = build_at_tail(kMillion, nullptr);
    state.ResumeTiming();
    vepra_dlm_destroy(&list);
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_DlmDestroyMillion)->Unit(benchmark::kMillisecond);

void sum_tags(uint32_t tag, void *, void *user) { *static_cast<uint64_t *>(user) += tag; }

// Walks a million-node list; flavour 0 = pool nodes, 1 = heap nodes.
void BM_DlWalkMillion(benchmark::State &state) {
  Library lib;
  apr_pool_t *pool = nullptr;
  apr_pool_create(&pool, vepra_pool);
  vepra_dl_t *list = build_at_tail(kMillion, state.range(0) == 0 ? pool : nullptr);
  for (auto _ : state) {
    uint64_t sum = 0;
    vepra_dl_walk(list, sum_tags, &sum);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
  if (state.range(0) == 1) vepra_dlm_destroy(&list);
  apr_pool_destroy(pool);
}
BENCHMARK(BM_DlWalkMillion)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Appending with the handle on the first node: each append runs the whole
// chain, so n appends cost n*n/2 steps.
void BM_DlAppendFromHead(benchmark::State &state) {
  Library lib;
  const int64_t n = state.range(0);
  for (auto _ : state) {
    apr_pool_t *pool = nullptr;
    apr_pool_create(&pool, vepra_pool);
    vepra_dl_t *list = nullptr;
    for (int64_t i = 0; i < n; ++i) {
      vepra_dl_append(&list, static_cast<uint32_t>(i), as_data(i), nullptr, pool);
    }
    benchmark::DoNotOptimize(list);
    apr_pool_destroy(pool);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_DlAppendFromHead)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
