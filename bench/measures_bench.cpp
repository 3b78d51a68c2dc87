// Speed of the image statistics and measures on an 8192 x 8192 scan, next
// to a plain read of the pixels (memory speed) and to the PSL and density
// formulas evaluated with pow/log10 at every pixel.
#include <benchmark/benchmark.h>

#include "bench_main.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "vepra.h"

namespace {

constexpr uint32_t kSide = 8192;

// A scan-like image: a gradient, a few bright blobs and noise, rows from
// the library's matrix allocator as a read image has them.
class Scan {
 public:
  explicit Scan(uint32_t bits) {
    rec_.height = rec_.width = kSide;
    rec_.samples_per_pixel = 1;
    rec_.bits_per_sample[0] = rec_.bits_per_sample[1] = rec_.bits_per_sample[2] = bits;
    rec_.photometric = 1;
    void *m = nullptr;
    vepra_error_t *e =
        vepra_mem_matrix_alloc(&m, bits / 8, 0, int(kSide) - 1, 0, int(kSide) - 1);
    if (e != nullptr) std::abort();
    const double full = bits == 8 ? 255.0 : 65535.0;
    uint64_t state = 12345;
    for (uint32_t r = 0; r < kSide; ++r) {
      for (uint32_t c = 0; c < kSide; ++c) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        const double noise = static_cast<double>(state >> 40) / double(1 << 24) - 0.5;
        const double blob = ((r / 512 + c / 512) % 5 == 0) ? 0.4 : 0.0;
        double v = full * (0.1 + 0.3 * c / kSide + blob + 0.05 * noise);
        v = v < 0 ? 0 : (v > full ? full : v);
        if (bits == 8) static_cast<uint8_t **>(m)[r][c] = static_cast<uint8_t>(v);
        else static_cast<uint16_t **>(m)[r][c] = static_cast<uint16_t>(v);
      }
    }
    if (bits == 8) rec_.data8 = static_cast<uint8_t **>(m);
    else rec_.data16 = static_cast<uint16_t **>(m);
  }
  ~Scan() {
    void *m = rec_.data8 != nullptr ? static_cast<void *>(rec_.data8) : rec_.data16;
    vepra_mem_matrix_free(m, rec_.bits_per_sample[0] / 8, 0, int(kSide) - 1, 0);
  }
  const vepra_img_t *get() const { return &rec_; }
  size_t bytes() const { return size_t{kSide} * kSide * (rec_.bits_per_sample[0] / 8); }

 private:
  vepra_img_t rec_{};
};

const Scan &scan8() {
  static const Scan s(8);
  return s;
}
const Scan &scan16() {
  static const Scan s(16);
  return s;
}

// Rows of doubles for the measures' output.
struct Output {
  std::vector<double> data = std::vector<double>(size_t{kSide} * kSide);
  std::vector<double *> rows;
  Output() {
    for (uint32_t r = 0; r < kSide; ++r) rows.push_back(data.data() + size_t{r} * kSide);
  }
};

Output &output() {
  static Output o;
  return o;
}

void check(vepra_error_t *e, benchmark::State &state) {
  if (e != nullptr) {
    vepra_error_clear(e);
    state.SkipWithError("the library reported an error");
  }
}

template <typename Sample>
const Sample *const *rows_of(const vepra_img_t *img);
template <>
const uint8_t *const *rows_of<uint8_t>(const vepra_img_t *img) { return img->data8; }
template <>
const uint16_t *const *rows_of<uint16_t>(const vepra_img_t *img) { return img->data16; }

// Memory speed: reads every sample once.
template <typename Sample>
void BM_ReadPixels(benchmark::State &state) {
  const Scan &s = sizeof(Sample) == 1 ? scan8() : scan16();
  const Sample *const *rows = rows_of<Sample>(s.get());
  for (auto _ : state) {
    uint64_t sum = 0;
    for (uint32_t r = 0; r < kSide; ++r)
      for (uint32_t c = 0; c < kSide; ++c) sum += rows[r][c];
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.bytes()));
}

void BM_Histogram(benchmark::State &state) {
  const Scan &s = state.range(0) == 8 ? scan8() : scan16();
  for (auto _ : state) {
    size_t nbins = 0;
    uint64_t *hist = nullptr;
    check(vepra_img_histogram(s.get(), &nbins, &hist), state);
    benchmark::DoNotOptimize(hist);
    vepra_mem_free(hist);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.bytes()));
}

void BM_Entropy(benchmark::State &state) {
  const Scan &s = state.range(0) == 8 ? scan8() : scan16();
  for (auto _ : state) {
    double h = 0;
    check(vepra_img_entropy(s.get(), &h), state);
    benchmark::DoNotOptimize(h);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.bytes()));
}

void BM_Mask16(benchmark::State &state) {
  for (auto _ : state) check(vepra_img_data_dmask(scan16().get(), output().rows.data()), state);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(scan16().bytes()));
}

void BM_Psl16(benchmark::State &state) {
  for (auto _ : state) {
    check(vepra_img_calc_fujiri(scan16().get(), output().rows.data(), 50, 4000, 5), state);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(scan16().bytes()));
}

void BM_Density16(benchmark::State &state) {
  for (auto _ : state) check(vepra_img_calc_density(scan16().get(), output().rows.data(), 5), state);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(scan16().bytes()));
}

// The formulas at every pixel, as a plain loop would compute them.
void BM_PslPerPixel16(benchmark::State &state) {
  const uint16_t *const *rows = scan16().get()->data16;
  double **out = output().rows.data();
  const double factor = (4000.0 / 4000) * (50.0 * 50.0 / 10000.0);
  for (auto _ : state) {
    for (uint32_t r = 0; r < kSide; ++r)
      for (uint32_t c = 0; c < kSide; ++c)
        out[r][c] = factor * std::pow(10.0, ((65535 - rows[r][c]) / 65535.0 - 0.5) * 5);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(scan16().bytes()));
}

void BM_DensityPerPixel16(benchmark::State &state) {
  const uint16_t *const *rows = scan16().get()->data16;
  double **out = output().rows.data();
  for (auto _ : state) {
    for (uint32_t r = 0; r < kSide; ++r) {
      for (uint32_t c = 0; c < kSide; ++c) {
        const uint16_t s = rows[r][c];
        out[r][c] = s == 65535 ? 5.0 : std::log10(65535.0 / s);
      }
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(scan16().bytes()));
}

BENCHMARK_TEMPLATE(BM_ReadPixels, uint8_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_ReadPixels, uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Histogram)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Entropy)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mask16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Psl16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PslPerPixel16)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Density16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DensityPerPixel16)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char **argv) {
  // Allocate and touch the 512 MiB of results before timing.
  return vepra_bench::run(argc, argv, [] { output(); });
}
