// Cost of the error path: creating and clearing a one-record chain,
// building, wrapping and printing a three-record chain, and printing a
// chain of a million records (half of them without a message), whose time
// must grow linearly with the length.
#include <benchmark/benchmark.h>

#include "core/error_internal.hpp"
#include "vepra_error.h"

namespace {

struct Library {
  Library() { vepra_initialize(); }
  ~Library() { vepra_terminate(); }
};

int null_printer(const char *line, FILE *) {
  benchmark::DoNotOptimize(line);
  return 0;
}

void BM_CreateAndClearOneRecord(benchmark::State &state) {
  Library lib;
  for (auto _ : state) {
    vepra_error_t *e = vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(e);
    vepra_error_clear(e);
  }
}
BENCHMARK(BM_CreateAndClearOneRecord);

void BM_WrapThreeAndPrint(benchmark::State &state) {
  Library lib;
  for (auto _ : state) {
    vepra_error_t *e = vepra::detail::make_error(VEPRA_E_ALLOC, "Failed to allocate %zu bytes of memory.",
                                                 size_t{80});
    e = vepra::detail::wrap_error(e, "Cannot allocate vector.");
    e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, "Unable to read settings.");
    vepra_error_handle(e, null_printer, nullptr);
    vepra_error_clear(e);
  }
}
BENCHMARK(BM_WrapThreeAndPrint);

void BM_HandleLongChain(benchmark::State &state) {
  Library lib;
  vepra_error_t *e = nullptr;
  for (int64_t i = 0; i < state.range(0); ++i) {
    const bool with_message = i % 2 == 0;
    // Every record without a message has a code of its own, so every one
    // prints and the set of printed codes grows to its full size.
    e = vepra_error_create_i(0, with_message ? 120012 : -static_cast<int>(i), 0, nullptr, nullptr,
                             e, with_message ? "Cannot go on." : nullptr);
  }
  for (auto _ : state) benchmark::DoNotOptimize(vepra_error_handle(e, null_printer, nullptr));
  state.SetItemsProcessed(state.iterations() * state.range(0));
  vepra_error_clear(e);
}
BENCHMARK(BM_HandleLongChain)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void BM_AprPoolCreateDestroy(benchmark::State &state) {
  // The floor: a fresh pool per chain is what a record costs at least.
  Library lib;
  for (auto _ : state) {
    apr_pool_t *p = nullptr;
    apr_pool_create(&p, vepra_pool);
    benchmark::DoNotOptimize(p);
    apr_pool_destroy(p);
  }
}
BENCHMARK(BM_AprPoolCreateDestroy);

}  // namespace

BENCHMARK_MAIN();
