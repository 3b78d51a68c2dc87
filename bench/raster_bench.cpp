// Speed of the circle and ellipse rasterisers with a callback that only
// counts (pixels reported per second), and of measuring a spot with its
// background ring on an 8192 x 8192 16-bit scan (covered area per second).
#include <benchmark/benchmark.h>

#include "bench_main.hpp"

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "vepra.h"

namespace {

vepra_error_t *count(int, int, void *data, double) {
  ++*static_cast<uint64_t *>(data);
  return nullptr;
}

template <typename Draw>
void rasterise(benchmark::State &state, Draw draw) {
  uint64_t pixels = 0;
  for (auto _ : state) {
    draw(&pixels);
    benchmark::DoNotOptimize(pixels);
  }
  state.counters["pixels/s"] = benchmark::Counter(static_cast<double>(pixels), benchmark::Counter::kIsRate);
}

void BM_Circle(benchmark::State &s) { rasterise(s, [](uint64_t *n) { vepra_img_circle(0, 0, 1000, count, n); }); }
void BM_CircleAA(benchmark::State &s) { rasterise(s, [](uint64_t *n) { vepra_img_circle_aa(0, 0, 1000, count, n); }); }
void BM_CircleWidth5(benchmark::State &s) {
  rasterise(s, [](uint64_t *n) { vepra_img_circle_waa(0, 0, 1000, count, n, 5.0); });
}
void BM_Ellipse(benchmark::State &s) {
  rasterise(s, [](uint64_t *n) { vepra_img_ellipse(0, 0, 1000, 600, count, n); });
}
void BM_EllipseAA(benchmark::State &s) {
  rasterise(s, [](uint64_t *n) { vepra_img_ellipse_aa(0, 0, 1000, 600, count, n); });
}
void BM_EllipseWidth5(benchmark::State &s) {
  rasterise(s, [](uint64_t *n) { vepra_img_ellipse_waa(0, 0, 1000, 600, count, n, 5.0); });
}
BENCHMARK(BM_Circle);
BENCHMARK(BM_CircleAA);
BENCHMARK(BM_CircleWidth5);
BENCHMARK(BM_Ellipse);
BENCHMARK(BM_EllipseAA);
BENCHMARK(BM_EllipseWidth5);

// A circle of radius 2000 with a ring from 2100 to 2400 on a random scan.
void BM_MeasureCircleWithRing(benchmark::State &state) {
  constexpr uint32_t kSide = 8192;
  static std::vector<uint16_t> pixels(size_t{kSide} * kSide);
  static std::vector<uint16_t *> rows(kSide);
  uint64_t x = 88172645463325252ull;
  for (auto &p : pixels) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    p = static_cast<uint16_t>(x);
  }
  for (uint32_t r = 0; r < kSide; ++r) rows[r] = pixels.data() + size_t{r} * kSide;
  vepra_img_t img{};
  img.data16 = rows.data();
  img.height = img.width = kSide;
  img.samples_per_pixel = 1;
  img.bits_per_sample[0] = 16;
  img.photometric = 1;
  const vepra_img_roi_t roi{VEPRA_IMG_ROI_CIRCLE, 4096, 4096, 2000, 0, 2100, 2400};
  double covered = 0;
  for (auto _ : state) {
    vepra_img_measure_t m;
    if (vepra_img_measure_roi(&img, &roi, nullptr, &m) != nullptr) std::abort();
    covered += m.region.area + m.ring.area;
    benchmark::DoNotOptimize(m);
  }
  state.counters["covered_px/s"] = benchmark::Counter(covered, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MeasureCircleWithRing)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv); }
