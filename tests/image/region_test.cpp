// Region measures against a brute-force reference that samples every pixel
// on a fine grid, against analytic areas, and their refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"

namespace {

class RegionTest : public vepra_test::LibraryTest {
 protected:
  // A width x height 16-bit BlackIsZero image of random samples (or all
  // equal to value when value >= 0).
  void make(uint32_t width, uint32_t height, int value = -1) {
    rows_.assign(height, std::vector<uint16_t>(width));
    std::mt19937 rng(11);
    for (auto &row : rows_)
      for (auto &s : row) s = static_cast<uint16_t>(value >= 0 ? value : rng() % 65536);
    ptrs_.clear();
    for (auto &row : rows_) ptrs_.push_back(row.data());
    img_ = vepra_img_t{};
    img_.data16 = ptrs_.data();
    img_.type = 1;
    img_.height = height;
    img_.width = width;
    img_.samples_per_pixel = 1;
    img_.bits_per_sample[0] = 16;
    img_.photometric = 1;
  }

  vepra_img_measure_t measure(const vepra_img_roi_t &roi,
                              const vepra_img_plate_t *plate = nullptr) {
    vepra_img_measure_t m{};
    EXPECT_EQ(vepra_img_measure_roi(&img_, &roi, plate, &m), nullptr);
    return m;
  }

  std::vector<std::vector<uint16_t>> rows_;
  std::vector<uint16_t *> ptrs_;
  vepra_img_t img_{};
};

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

TEST_F(RegionTest, AgreesWithBruteForceAndClipsAtEveryBorder) {
  make(60, 45);
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
    const vepra_img_measure_t m = measure(roi);
    const bool radii = roi.shape == VEPRA_IMG_ROI_CIRCLE;
    double area = 0, sum = 0, ring_area = 0, ring_sum = 0;
    for (int r = 0; r < 45; ++r) {
      for (int c = 0; c < 60; ++c) {
        const double cov = brute_coverage(roi, 0, 1, c, r);
        area += cov;
        sum += cov * rows_[r][c];
        if (roi.ring_outer > 0) {
          const double k_in = radii ? roi.ring_inner / roi.a : roi.ring_inner;
          const double k_out = radii ? roi.ring_outer / roi.a : roi.ring_outer;
          const double rc = brute_coverage(roi, k_in, k_out, c, r);
          ring_area += rc;
          ring_sum += rc * rows_[r][c];
        }
      }
    }
    const std::string what = "roi at " + std::to_string(roi.x) + "," + std::to_string(roi.y);
    EXPECT_NEAR(m.region.area, area, 0.002 * area + 0.02) << what;
    EXPECT_NEAR(m.region.sum, sum, 0.002 * sum + 1000) << what;
    EXPECT_LE(m.region.min, m.region.mean) << what;
    EXPECT_LE(m.region.mean, m.region.max) << what;
    EXPECT_NEAR(m.ring.area, ring_area, 0.002 * ring_area + 0.02) << what;
    EXPECT_NEAR(m.ring.sum, ring_sum, 0.002 * ring_sum + 1000) << what;
    if (roi.ring_outer > 0) {
      EXPECT_DOUBLE_EQ(m.background, m.ring.sum / m.ring.area);
      EXPECT_DOUBLE_EQ(m.corrected, m.region.sum - m.background * m.region.area);
    }
  }
  // A rectangle covers whole pixels: exact figures.
  const vepra_img_measure_t rect = measure({VEPRA_IMG_ROI_RECT, 3, 1, 10, 5, 0, 0});
  double sum = 0, lo = 65535, hi = 0;
  for (int r = 1; r <= 5; ++r) {
    for (int c = 3; c <= 10; ++c) {
      sum += rows_[r][c];
      lo = std::min<double>(lo, rows_[r][c]);
      hi = std::max<double>(hi, rows_[r][c]);
    }
  }
  EXPECT_EQ(rect.region.area, 40);
  EXPECT_EQ(rect.region.sum, sum);
  EXPECT_EQ(rect.region.min, lo);
  EXPECT_EQ(rect.region.max, hi);
  // Wholly outside: nothing covered, no error.
  const vepra_img_measure_t out = measure({VEPRA_IMG_ROI_CIRCLE, -50, 1e9, 10, 0, 0, 0});
  EXPECT_EQ(out.region.area, 0);
  EXPECT_TRUE(std::isnan(out.region.mean));
}

TEST_F(RegionTest, AnalyticAreasAndPsl) {
  make(700, 700, 1000);
  const vepra_img_plate_t plate{50, 4000, 5};
  const vepra_img_measure_t m =
      measure({VEPRA_IMG_ROI_CIRCLE, 350.3, 349.8, 200, 0, 220, 300}, &plate);
  const double pi = std::acos(-1.0);
  EXPECT_NEAR(m.region.area, pi * 200 * 200, 2.0);
  EXPECT_NEAR(m.ring.area, pi * (300.0 * 300 - 220.0 * 220), 4.0);
  EXPECT_NEAR(m.region.sum, 1000 * m.region.area, 1e-6 * m.region.sum);
  EXPECT_NEAR(m.corrected, 0, 1e-6 * m.region.sum);
  // PSL of sample 1000 under BlackIsZero, as vepra_img_calc_fujiri gives it.
  const double psl =
      (4000.0 / 4000) * (50.0 * 50 / 10000) * std::pow(10.0, ((65535.0 - 1000) / 65535 - 0.5) * 5);
  EXPECT_NEAR(m.region.psl_sum, psl * m.region.area, 1e-9 * m.region.psl_sum);
  EXPECT_NEAR(m.psl_corrected, 0, 1e-9 * m.region.psl_sum);
  const vepra_img_measure_t e = measure({VEPRA_IMG_ROI_ELLIPSE, 350, 350, 250, 100, 0, 0});
  EXPECT_NEAR(e.region.area, pi * 250 * 100, 2.0);
}

TEST_F(RegionTest, RefusesMalformedRegions) {
  make(8, 8);
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
        vepra_test::take_printed(vepra_img_measure_roi(&img_, &roi, nullptr, &m));
    EXPECT_NE(text.find("Cannot measure image region."), std::string::npos) << text;
  }
  vepra_test::Chain none(vepra_img_measure_roi(&img_, nullptr, nullptr, &m));
  EXPECT_NE(none, nullptr);
  EXPECT_EQ(m.region.area, 42);
}

}  // namespace
