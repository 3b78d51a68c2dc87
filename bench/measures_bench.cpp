// Speed of the image statistics and measures on an 8192 x 8192 scan, next
// to a plain read of the pixels (memory speed) and to the PSL and density
// formulas evaluated with pow/log10 at every pixel; and 16-bit histograms
// of constant, random, scan-like, ramp and two-level images next to
// four interleaved sub-histograms.
#include <benchmark/benchmark.h>

#include "bench_main.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
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

// 16-bit histograms of images with different sample statistics, each
// next to the peer: four interleaved 32-bit sub-histograms summed into the
// same zeroed 64-bit result the library returns.
enum class Pattern { kConstant, kRandom, kScan, kRamp, kTwoLevel };

class Patterned {
 public:
  Patterned(Pattern pattern, uint32_t side) : side_(side) {
    rec_.height = rec_.width = side;
    rec_.samples_per_pixel = 1;
    rec_.bits_per_sample[0] = rec_.bits_per_sample[1] = rec_.bits_per_sample[2] = 16;
    rec_.photometric = 1;
    void *m = nullptr;
    if (vepra_mem_matrix_alloc(&m, 2, 0, int(side) - 1, 0, int(side) - 1) != nullptr) std::abort();
    auto **rows = static_cast<uint16_t **>(m);
    uint64_t state = 987654321;
    for (uint32_t r = 0; r < side; ++r) {
      for (uint32_t c = 0; c < side; ++c) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        const auto bits = static_cast<uint32_t>(state >> 32);
        uint16_t v = 0;
        switch (pattern) {
          case Pattern::kConstant: v = 1000; break;
          case Pattern::kRandom: v = static_cast<uint16_t>(bits >> 16); break;
          case Pattern::kScan: {
            const double noise = static_cast<double>(bits >> 8) / double(1 << 24) - 0.5;
            const double blob = ((r / 256 + c / 256) % 5 == 0) ? 0.4 : 0.0;
            double x = 65535.0 * (0.1 + 0.3 * c / side + blob + 0.05 * noise);
            v = static_cast<uint16_t>(x < 0 ? 0 : (x > 65535 ? 65535 : x));
            break;
          }
          case Pattern::kRamp: v = static_cast<uint16_t>(r + c); break;
          case Pattern::kTwoLevel: v = (bits >> 31) != 0 ? 65535 : 0; break;
        }
        rows[r][c] = v;
      }
    }
    rec_.data16 = rows;
  }
  ~Patterned() { vepra_mem_matrix_free(rec_.data16, 2, 0, int(side_) - 1, 0); }
  const vepra_img_t *get() const { return &rec_; }
  size_t pixels() const { return size_t{side_} * side_; }

 private:
  uint32_t side_;
  vepra_img_t rec_{};
};

const Patterned &patterned(Pattern pattern, uint32_t side) {
  static std::map<std::pair<Pattern, uint32_t>, std::unique_ptr<Patterned>> cache;
  auto &slot = cache[{pattern, side}];
  if (!slot) slot = std::make_unique<Patterned>(pattern, side);
  return *slot;
}

uint64_t *peer_histogram16(const vepra_img_t *img) {
  auto *out = static_cast<uint64_t *>(std::calloc(65536, sizeof(uint64_t)));
  auto *sub = static_cast<uint32_t *>(std::calloc(4 * 65536, sizeof(uint32_t)));
  const uint32_t w = img->width;
  for (uint32_t r = 0; r < img->height; ++r) {
    const uint16_t *row = img->data16[r];
    uint32_t c = 0;
    for (; c + 4 <= w; c += 4) {
      ++sub[row[c]];
      ++sub[65536 + row[c + 1]];
      ++sub[2 * 65536 + row[c + 2]];
      ++sub[3 * 65536 + row[c + 3]];
    }
    for (; c < w; ++c) ++sub[row[c]];
  }
  for (size_t v = 0; v < 65536; ++v)
    out[v] = uint64_t{sub[v]} + sub[65536 + v] + sub[2 * 65536 + v] + sub[3 * 65536 + v];
  std::free(sub);
  return out;
}

void BM_Histogram16(benchmark::State &state, Pattern pattern, uint32_t side, bool peer) {
  const Patterned &img = patterned(pattern, side);
  {
    size_t nbins = 0;
    uint64_t *hist = nullptr;
    check(vepra_img_histogram(img.get(), &nbins, &hist), state);
    uint64_t *expected = peer_histogram16(img.get());
    if (hist == nullptr || std::memcmp(hist, expected, 65536 * sizeof(uint64_t)) != 0)
      state.SkipWithError("histograms differ");
    std::free(expected);
    vepra_mem_free(hist);
  }
  for (auto _ : state) {
    if (peer) {
      uint64_t *hist = peer_histogram16(img.get());
      benchmark::DoNotOptimize(hist);
      std::free(hist);
    } else {
      size_t nbins = 0;
      uint64_t *hist = nullptr;
      check(vepra_img_histogram(img.get(), &nbins, &hist), state);
      benchmark::DoNotOptimize(hist);
      vepra_mem_free(hist);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(img.pixels()));
}

// Library and peer back to back for every pattern; 4096 x 4096 images and,
// for the cost of the fixed work, 1024 x 1024 and 256 x 256 ones.
[[maybe_unused]] const bool kHistogramsRegistered = [] {
  const std::pair<Pattern, const char *> patterns[] = {{Pattern::kConstant, "constant"},
                                                       {Pattern::kRandom, "random"},
                                                       {Pattern::kScan, "scan"},
                                                       {Pattern::kRamp, "ramp"},
                                                       {Pattern::kTwoLevel, "two_level"}};
  for (uint32_t side : {4096u, 1024u, 256u}) {
    for (auto [pattern, name] : patterns) {
      for (bool peer : {false, true}) {
        const std::string label = std::string("Histogram16/") + name + "/" + std::to_string(side) +
                                  (peer ? "/sub_histograms" : "/library");
        benchmark::RegisterBenchmark(label.c_str(), BM_Histogram16, pattern, side, peer)
            ->Unit(benchmark::kMicrosecond);
      }
    }
  }
  return true;
}();

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
