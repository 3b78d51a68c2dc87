// Shared entry point of the benchmarks: the library is initialised once
// around the whole run, with optional work before and after it.
#ifndef VEPRA_BENCH_BENCH_MAIN_HPP
#define VEPRA_BENCH_BENCH_MAIN_HPP

#include <benchmark/benchmark.h>

#include "vepra_error.h"

namespace vepra_bench {

inline int run(int argc, char **argv, void (*before)() = nullptr, void (*after)() = nullptr) {
  if (vepra_initialize() != 0) return 1;
  if (before != nullptr) before();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (after != nullptr) after();
  vepra_terminate();
  return 0;
}

}  // namespace vepra_bench

#endif  // VEPRA_BENCH_BENCH_MAIN_HPP
