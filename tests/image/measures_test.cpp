// Histogram, entropy, threshold, mask, PSL and density against counts in a
// std::map and the formulas; regions against brute force and analytic areas.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <numbers>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/testing.hpp"
#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra_test::take_printed;

// An image record with its own pixel matrix and a row-major copy of its samples:
// random (runs of equal values, both extremes present), or all equal to fill.
struct Image {
  Image(uint32_t height, uint32_t width, uint32_t bits, int32_t photometric, uint32_t pattern = 0,
        int fill = -1)
      : full(bits == 8 ? 255 : 65535), samples(size_t{height} * width) {
    rec.height = height, rec.width = width, rec.samples_per_pixel = 1;
    rec.bits_per_sample[0] = bits, rec.photometric = photometric;
    void *m = nullptr;
    if (!samples.empty()) {
      EXPECT_EQ(vepra_mem_matrix_alloc(&m, bits / 8, 0, int(height) - 1, 0, int(width) - 1),
                nullptr);
    }
    (bits == 8 ? reinterpret_cast<void *&>(rec.data8) : reinterpret_cast<void *&>(rec.data16)) = m;
    std::mt19937 rng(pattern);
    uint32_t v = 0;
    for (uint32_t i = 0; i < samples.size(); ++i) {
      if (rng() % 4 != 0) v = rng() % (full + 1);
      if (rng() % 50 == 0) v = rng() % 2 == 0 ? 0 : full;
      samples[i] = fill < 0 ? v : uint32_t(fill);
      if (bits == 8) rec.data8[i / width][i % width] = uint8_t(samples[i]);
      if (bits == 16) rec.data16[i / width][i % width] = uint16_t(samples[i]);
    }
  }
  Image(const Image &) = delete;
  ~Image() { vepra_img_free(&rec); }

  vepra_img_t rec{};
  uint32_t full;
  std::vector<uint32_t> samples;
};

// A matrix of doubles, pre-filled with a marker to see what was written.
struct Doubles {
  static constexpr double kMarker = -12345.5;
  Doubles(uint32_t rows, uint32_t cols) : data(size_t{rows} * cols, kMarker) {
    for (uint32_t r = 0; r < rows; ++r) ptrs.push_back(data.data() + size_t{r} * cols);
  }
  Doubles(const Doubles &) = delete;  // the row pointers would still point at the original
  bool untouched() const { return data == std::vector<double>(data.size(), kMarker); }
  std::vector<double> data;
  std::vector<double *> ptrs;
};

uint64_t bits_of(double v) { return std::bit_cast<uint64_t>(v); }

// The IsoData rule exactly as stated: both classes summed afresh at every
// step, products in 64-bit integers, sums in double.
double reference_threshold(const std::vector<uint64_t> &h) {
  const size_t n = h.size();
  size_t min = 0, max = n - 1;
  while (min + 1 < n && h[min] == 0) ++min;  // n - 1 when bins 0..n-2 are empty
  while (max >= 1 && h[max] == 0) --max;     // 0 when bins 1..n-1 are empty
  if (max <= min) return double(n) * 0.5;
  for (size_t m = min;; ++m) {
    double s1 = 0, s2 = 0, s3 = 0, s4 = 0;
    for (size_t i = min; i <= m; ++i) s1 += double(uint64_t(i) * h[i]), s2 += double(h[i]);
    for (size_t i = m + 1; i <= max; ++i) s3 += double(uint64_t(i) * h[i]), s4 += double(h[i]);
    const double result = (s1 / s2 + s3 / s4) * 0.5;
    if (!(m + 1 < max - 1 && double(m + 2) <= result)) return result;
  }
}

class MeasuresTest : public vepra_test::LibraryTest {};

TEST_F(MeasuresTest, ThresholdFollowsTheIterativeRule) {
  // Two clusters: the split settles between their means (2 and 8).
  const std::vector<uint64_t> h{0, 10, 20, 10, 0, 0, 0, 10, 20, 10, 0};
  EXPECT_EQ(vepra_img_thres_IJ(h.size(), h.data()), 5.0);
  EXPECT_EQ(vepra_img_thres_IJ(1, h.data()), 0.5);
  EXPECT_EQ(vepra_img_thres_IJ(0, nullptr), 0.0);
  std::vector<uint64_t> ends(256, 0);
  ends[0] = ends[255] = 10;  // both end bins take part, unrounded
  EXPECT_EQ(vepra_img_thres_IJ(ends.size(), ends.data()), 127.5);
  // Random sparse and dense histograms, and counts far beyond 2^53 where
  // the sums are no longer exact: all bit-identical to the literal rule.
  std::mt19937_64 rng(7);
  for (int round = 0; round < 60; ++round) {
    const size_t n = round % 3 == 0 ? 65536 : 256;
    std::vector<uint64_t> r(n, 0);
    const size_t lo = rng() % (n / 2), span = 1 + rng() % (n == 256 ? n / 2 : 3000);
    const uint64_t scale = round % 4 == 3 ? (uint64_t{1} << 50) : 1000;
    for (size_t i = lo; i < lo + span && i < n; ++i) r[i] = rng() % 3 != 0 ? rng() % scale : 0;
    EXPECT_EQ(bits_of(vepra_img_thres_IJ(n, r.data())), bits_of(reference_threshold(r))) << round;
  }
}

struct Params {
  double px, sens, lat, saturated;
};

// Runs mask, PSL and density over img and compares every pixel bit for bit
// with the formulas. fail_table makes their one allocation fail.
void expect_formulas(Image &img, const Params &p, bool fail_table) {
  const uint32_t h = img.rec.height, w = img.rec.width;
  Doubles mask(h, w), psl(h, w), density(h, w);
  ASSERT_EQ(vepra_img_data_dmask(&img.rec, mask.ptrs.data()), nullptr);
  vepra::testing::fail_allocation_at(fail_table ? 1 : 0);
  ASSERT_EQ(vepra_img_calc_fujiri(&img.rec, psl.ptrs.data(), p.px, p.sens, p.lat), nullptr);
  vepra::testing::fail_allocation_at(fail_table ? 1 : 0);
  ASSERT_EQ(vepra_img_calc_density(&img.rec, density.ptrs.data(), p.saturated), nullptr);
  vepra::testing::fail_allocation_at(0);
  const double G = img.full, F = (4000.0 / p.sens) * (p.px * p.px / 10000.0);
  const bool wiz = img.rec.photometric == 0;
  for (size_t i = 0; i < img.samples.size(); ++i) {
    const uint32_t s = img.samples[i];
    const double d = s == G   ? p.saturated
                     : wiz    ? std::log10(G / (G - s))
                     : s == 0 ? HUGE_VAL
                              : std::log10(G / s);
    ASSERT_EQ(mask.data[i], s == (wiz ? 0 : G) ? 0.0 : 1.0) << "mask s=" << s;
    ASSERT_EQ(bits_of(psl.data[i]),
              bits_of(F * std::pow(10.0, ((wiz ? s : G - s) / G - 0.5) * p.lat)))
        << "psl s=" << s;
    ASSERT_EQ(bits_of(density.data[i]), bits_of(d)) << "density s=" << s;
  }
}

// The histogram against counts in a std::map, the entropy against the formula
// over them, mask, PSL and density bit for bit against theirs, per pixel or
// through a table of every sample value (also when it cannot be had). Odd widths
// reach the tails of the four-column loops; rows without columns write nothing.
TEST_F(MeasuresTest, MeasuresMatchIndependentCounts) {
  const Params params[] = {{100, 4000, 5, 9.5}, {50, 1000, 4, -1.0}, {25, 0, 5, 0.0}};
  uint32_t pattern = 1;
  // 8 and 16 bits, WhiteIsZero and BlackIsZero.
  for (auto [bits, photometric] : {std::pair{8u, 0}, {8u, 1}, {16u, 0}, {16u, 1}}) {
    for (auto [h, w] : {std::pair{37u, 53u}, std::pair{1u, 3u}, std::pair{300u, 250u},
                        std::pair{3u, 0u}, std::pair{1025u, 1027u}}) {
      SCOPED_TRACE(std::to_string(h) + "x" + std::to_string(w) + " bits " + std::to_string(bits));
      Image img(h, w, bits, photometric, pattern++);
      std::map<uint32_t, uint64_t> counts;
      for (uint32_t s : img.samples) ++counts[s];
      size_t nbins = 0;
      uint64_t *hist = nullptr;
      // Without scratch tables (the second allocation) large images count directly.
      for (long fail : {0L, 2L}) {
        vepra::testing::fail_allocation_at(fail);
        ASSERT_EQ(vepra_img_histogram(&img.rec, &nbins, &hist), nullptr);
        vepra::testing::fail_allocation_at(0);
        ASSERT_EQ(nbins, size_t{img.full} + 1);
        for (size_t v = 0; v < nbins; ++v) ASSERT_EQ(hist[v], counts[uint32_t(v)]) << "bin " << v;
        vepra_mem_free(hist);
      }
      double expected = 0.0, entropy = -1.0;
      for (auto [v, n] : counts) {
        const double p = double(n) / double(img.samples.size());
        if (n != 0) expected -= p * std::log2(p);
      }
      ASSERT_EQ(vepra_img_entropy(&img.rec, &entropy), nullptr);
      EXPECT_NEAR(entropy, expected, 1e-12);
      // Every set of parameters, with and without the table.
      for (int i = 0; i < (h > 1000 ? 0 : 6); ++i) expect_formulas(img, params[i / 2], i % 2 == 1);
    }
  }
  // Results too large for the caches take another store path; rows of odd
  // length alternate between 16-byte aligned and unaligned starts.
  Image large(2048, 2049, 16, 0, 300);
  expect_formulas(large, {100, 4000, 5, 3.25}, false);
}

// Every function refuses a record that is not 8/16-bit grayscale with the
// code-0 text under its own context, and writes nothing.
TEST_F(MeasuresTest, RejectsWhatIsNotGrayscale) {
  size_t nbins = 77;
  uint64_t *hist = nullptr;
  double entropy = -3.0;
  using Op = std::function<vepra_error_t *(vepra_img_t *, double **)>;
  const std::pair<const char *, Op> ops[] = {
      {"Cannot create histogram of an image.",
       [&](vepra_img_t *i, double **o) {
         return vepra_img_histogram(i, &nbins, o ? &hist : nullptr);
       }},
      {"Can't calculate entropy for an image.",
       [&](vepra_img_t *i, double **o) { return vepra_img_entropy(i, o ? &entropy : nullptr); }},
      {"Cannot provide image data mask.", vepra_img_data_dmask},
      {"Can't calculate Fuji relative intensity.",
       [](vepra_img_t *i, double **o) { return vepra_img_calc_fujiri(i, o, 100, 4000, 5); }},
      {"Can't calculate optical intensity.",
       [](vepra_img_t *i, double **o) { return vepra_img_calc_density(i, o, 1); }},
  };
  const std::tuple<uint32_t, uint32_t, int32_t, const char *> bads[] = {
      {3, 8, 2, "The image is not grayscale."},
      {1, 8, 2, "The photointerpretation is not sutable: 2"},
      {1, 16, -1, "The photointerpretation is not sutable: -1"},
      {1, 12, 1, "The image is neither 16-bit nor 8-bit grayscale."},
      {1, 16, 0, "The image has no pixel data."},  // 16 bits, but only 8-bit rows
  };
  Image img(2, 3, 8, 0, 5);
  Doubles out(2, 3);
  for (auto &[context, run] : ops) {
    const std::string head = std::string("Error: ") + context + " \nError: ";
    for (auto [spp, bits, photometric, message] : bads) {
      vepra_img_t rec = img.rec;
      rec.samples_per_pixel = spp, rec.bits_per_sample[0] = bits, rec.photometric = photometric;
      EXPECT_EQ(take_printed(run(&rec, out.ptrs.data())), head + message + " ");
    }
    EXPECT_EQ(take_printed(run(nullptr, out.ptrs.data())), head + "No image was given. ");
    EXPECT_EQ(take_printed(run(&img.rec, nullptr)), head + "No output was given. ");
  }
  EXPECT_TRUE(out.untouched());
  EXPECT_EQ(std::tuple(nbins, hist, entropy), std::tuple(77u, nullptr, -3.0));
}

// The 16-bit histogram's result and entropy's counters come from the checked
// allocator; a failure is reported in context and leaves the output as it was.
TEST_F(MeasuresTest, AllocationFailuresAreReported) {
  Image img(3, 4, 16, 0);
  size_t nbins = 0;
  uint64_t *hist = reinterpret_cast<uint64_t *>(&nbins);
  const long made = vepra_test::for_each_allocation_failure(
      [&] {
        nbins = 0;
        vepra_error_t *e = vepra_img_histogram(&img.rec, &nbins, &hist);
        if (e == nullptr) vepra_mem_free(hist);
        return e;
      },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(std::pair(nbins, hist),
                  std::pair(size_t{65536}, static_cast<uint64_t *>(nullptr)));
        EXPECT_EQ(vepra_test::printed_lines(e).front(),
                  "Error(120012): Cannot create histogram of an image. ");
      });
  EXPECT_EQ(made, 1);
  double entropy = -3.0;
  const long counted = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_entropy(&img.rec, &entropy); },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(entropy, -3.0);
        EXPECT_EQ(vepra_test::printed_lines(e),
                  (std::vector<std::string>{
                      "Error(120012): Can't calculate entropy for an image. ",
                      "Error(120012): Failed to allocate 262144 bytes of memory. "}));
      });
  EXPECT_EQ(counted, 1);
  EXPECT_NE(entropy, -3.0);
}

// The measures of roi over img, which must succeed.
vepra_img_measure_t measured(const Image &img, const vepra_img_roi_t &roi,
                             const vepra_img_plate_t *plate = nullptr) {
  vepra_img_measure_t m{};
  EXPECT_EQ(vepra_img_measure_roi(&img.rec, &roi, plate, &m), nullptr);
  return m;
}

// The part of pixel (c, r) inside the region, sampled on a 64 x 64 grid.
double brute_coverage(const vepra_img_roi_t &roi, double scale_in, double scale_out, int c, int r) {
  auto inside = [&](double x, double y, double k) {
    if (roi.shape == VEPRA_IMG_ROI_RECT) {
      const double cx = (roi.x + roi.a) / 2, cy = (roi.y + roi.b) / 2;
      const double hx = (std::fabs(roi.a - roi.x) + 1) / 2 * k,
                   hy = (std::fabs(roi.b - roi.y) + 1) / 2 * k;
      return std::fabs(x - cx) <= hx && std::fabs(y - cy) <= hy;
    }
    const double a = roi.a;
    const double b = roi.shape == VEPRA_IMG_ROI_CIRCLE ? roi.a : roi.b;
    const double u = (x - roi.x) / (a * k), v = (y - roi.y) / (b * k);
    return u * u + v * v <= 1;
  };
  int n = 0;
  for (int i = 0; i < 64; ++i) {
    for (int j = 0; j < 64; ++j) {
      const double x = c - 0.5 + (i + 0.5) / 64, y = r - 0.5 + (j + 0.5) / 64;
      n += inside(x, y, scale_out) && !(scale_in > 0 && inside(x, y, scale_in));
    }
  }
  return n / 4096.0;
}

// Regions against that reference, at and across every border, with and
// without a ring; rectangles cover whole pixels, so their figures are exact.
TEST_F(MeasuresTest, RegionsAgreeWithBruteForceAndClipAtEveryBorder) {
  Image img(45, 60, 16, 1, 11);
  const vepra_img_roi_t rois[] = {
      {VEPRA_IMG_ROI_CIRCLE, 30, 22, 9.5, 0, 0, 0},
      {VEPRA_IMG_ROI_CIRCLE, 2.3, 20, 7, 0, 0, 0},   // left border
      {VEPRA_IMG_ROI_CIRCLE, 58, 3, 6.2, 0, 0, 0},   // top right corner
      {VEPRA_IMG_ROI_ELLIPSE, 30, 43, 12, 5, 0, 0},  // bottom border
      {VEPRA_IMG_ROI_ELLIPSE, 20.5, 15.5, 3, 9, 0, 0},
      {VEPRA_IMG_ROI_RECT, 55, 40, 70, 50, 0, 0},  // right and bottom
      {VEPRA_IMG_ROI_RECT, 10, 5, 3, 1, 0, 0},
      {VEPRA_IMG_ROI_CIRCLE, 30, 22, 4, 0, 6, 10},  // with a ring
      {VEPRA_IMG_ROI_ELLIPSE, 12, 30, 6, 3, 1.5, 2.5},
      {VEPRA_IMG_ROI_RECT, 40, 10, 44, 13, 0, 2},
  };
  for (const vepra_img_roi_t &roi : rois) {
    const vepra_img_measure_t m = measured(img, roi);
    const bool radii = roi.shape == VEPRA_IMG_ROI_CIRCLE, rect = roi.shape == VEPRA_IMG_ROI_RECT;
    double area = 0, sum = 0, ring_area = 0, ring_sum = 0, lo = 65535, hi = 0;
    const double k = radii ? 1 / roi.a : 1.0;  // the ring's scale of the region
    for (int r = 0; r < 45; ++r) {
      for (int c = 0; c < 60; ++c) {
        const double cov = brute_coverage(roi, 0, 1, c, r), v = img.samples[r * 60 + c];
        area += cov;
        sum += cov * v;
        if (cov > 0) lo = std::min(lo, v), hi = std::max(hi, v);
        if (roi.ring_outer > 0) {
          const double rc = brute_coverage(roi, roi.ring_inner * k, roi.ring_outer * k, c, r);
          ring_area += rc;
          ring_sum += rc * v;
        }
      }
    }
    const std::string what = "roi at " + std::to_string(roi.x) + "," + std::to_string(roi.y);
    const double slack = rect ? 0 : 0.002;
    EXPECT_NEAR(m.region.area, area, slack * area + slack * 10) << what;
    EXPECT_NEAR(m.region.sum, sum, slack * sum + slack * 5e5) << what;
    if (rect) {
      EXPECT_EQ(std::pair(m.region.min, m.region.max), std::pair(lo, hi)) << what;
    }
    EXPECT_TRUE(m.region.min <= m.region.mean && m.region.mean <= m.region.max) << what;
    EXPECT_NEAR(m.ring.area, ring_area, 0.002 * ring_area + 0.02) << what;
    EXPECT_NEAR(m.ring.sum, ring_sum, 0.002 * ring_sum + 1000) << what;
    if (roi.ring_outer > 0) {
      EXPECT_DOUBLE_EQ(m.background, m.ring.sum / m.ring.area);
      EXPECT_DOUBLE_EQ(m.corrected, m.region.sum - m.background * m.region.area);
    }
  }
  // Wholly outside: nothing covered, no error.
  const vepra_img_measure_t out = measured(img, {VEPRA_IMG_ROI_CIRCLE, -50, 1e9, 10, 0, 0, 0});
  EXPECT_EQ(out.region.area, 0);
  EXPECT_TRUE(std::isnan(out.region.mean));
}

// Large regions of an even image against their analytic areas, and the
// PSL sums against the formula of vepra_img_calc_fujiri.
TEST_F(MeasuresTest, RegionAreasAndPslAreAnalytic) {
  Image img(700, 700, 16, 1, 0, 1000);
  const vepra_img_plate_t plate{50, 4000, 5};
  const vepra_img_measure_t m =
      measured(img, {VEPRA_IMG_ROI_CIRCLE, 350.3, 349.8, 200, 0, 220, 300}, &plate);
  EXPECT_NEAR(m.region.area, std::numbers::pi * 200 * 200, 2.0);
  EXPECT_NEAR(m.ring.area, std::numbers::pi * (300.0 * 300 - 220.0 * 220), 4.0);
  EXPECT_NEAR(m.region.sum, 1000 * m.region.area, 1e-6 * m.region.sum);
  EXPECT_NEAR(m.corrected, 0, 1e-6 * m.region.sum);
  // PSL of sample 1000 under BlackIsZero, as vepra_img_calc_fujiri gives it.
  const double psl =
      (4000.0 / 4000) * (50.0 * 50 / 10000) * std::pow(10.0, ((65535.0 - 1000) / 65535 - 0.5) * 5);
  EXPECT_NEAR(m.region.psl_sum, psl * m.region.area, 1e-9 * m.region.psl_sum);
  EXPECT_NEAR(m.psl_corrected, 0, 1e-9 * m.region.psl_sum);
  const vepra_img_measure_t e = measured(img, {VEPRA_IMG_ROI_ELLIPSE, 350, 350, 250, 100, 0, 0});
  EXPECT_NEAR(e.region.area, std::numbers::pi * 250 * 100, 2.0);
}

// Malformed regions and a missing one are refused; the result is kept.
TEST_F(MeasuresTest, RefusesMalformedRegions) {
  Image img(8, 8, 16, 1);
  vepra_img_measure_t m{};
  m.region.area = 42;
  const vepra_img_roi_t bad[] = {
      {7, 1, 1, 1, 1, 0, 0},
      {VEPRA_IMG_ROI_CIRCLE, 1, 1, -2, 0, 0, 0},
      {VEPRA_IMG_ROI_ELLIPSE, 1, NAN, 2, 2, 0, 0},
      {VEPRA_IMG_ROI_CIRCLE, 1, 1, 2, 0, 5, 4},
      {VEPRA_IMG_ROI_CIRCLE, 1, 1, 2, 0, -1, 4},
  };
  for (const vepra_img_roi_t &roi : bad) {
    const std::string text =
        vepra_test::take_printed(vepra_img_measure_roi(&img.rec, &roi, nullptr, &m));
    EXPECT_NE(text.find("Cannot measure image region."), std::string::npos) << text;
  }
  EXPECT_NE(vepra_test::Chain(vepra_img_measure_roi(&img.rec, nullptr, nullptr, &m)), nullptr);
  EXPECT_EQ(m.region.area, 42);
}

}  // namespace
