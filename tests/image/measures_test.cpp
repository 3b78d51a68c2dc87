// Histogram, entropy, IsoData threshold, data mask, PSL and optical density,
// checked against computations written here straight from their formulas.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra_test::take_printed;

// An image record with its own pixel matrix (rows 0..h-1, columns 0..w-1).
class Image {
 public:
  Image(uint32_t height, uint32_t width, uint32_t bits, int32_t photometric) {
    rec_.height = height;
    rec_.width = width;
    rec_.samples_per_pixel = 1;
    rec_.bits_per_sample[0] = rec_.bits_per_sample[1] = rec_.bits_per_sample[2] = bits;
    rec_.photometric = photometric;
    rec_.res_unit = -1;
    if (height == 0 || width == 0 || (bits != 8 && bits != 16)) return;
    void *m = nullptr;
    vepra_error_t *e = vepra_mem_matrix_alloc(&m, elem(), 0, int(height) - 1, 0, int(width) - 1);
    EXPECT_EQ(e, nullptr);
    vepra_error_clear(e);
    (bits == 8 ? reinterpret_cast<void *&>(rec_.data8) : reinterpret_cast<void *&>(rec_.data16)) = m;
  }
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;
  ~Image() {
    void *m = rec_.data8 != nullptr ? static_cast<void *>(rec_.data8) : rec_.data16;
    vepra_mem_matrix_free(m, elem(), 0, int(rec_.height) - 1, 0);
  }
  vepra_img_t *get() { return &rec_; }
  uint32_t full() const { return rec_.bits_per_sample[0] == 8 ? 255 : 65535; }
  uint32_t at(uint32_t r, uint32_t c) const {
    return rec_.data8 != nullptr ? rec_.data8[r][c] : rec_.data16[r][c];
  }
  void set(uint32_t r, uint32_t c, uint32_t v) {
    if (rec_.data8 != nullptr) rec_.data8[r][c] = static_cast<uint8_t>(v);
    else rec_.data16[r][c] = static_cast<uint16_t>(v);
  }
  // Random samples with runs of equal values and both extremes present.
  void randomize(uint32_t pattern) {
    std::mt19937 rng(pattern);
    uint32_t v = 0;
    for (uint32_t r = 0; r < rec_.height; ++r) {
      for (uint32_t c = 0; c < rec_.width; ++c) {
        if (rng() % 4 != 0) v = rng() % (full() + 1);
        if (rng() % 50 == 0) v = rng() % 2 == 0 ? 0 : full();
        set(r, c, v);
      }
    }
  }

 private:
  size_t elem() const { return rec_.bits_per_sample[0] == 16 ? 2 : 1; }
  vepra_img_t rec_{};
};

// A matrix of doubles, pre-filled with a marker to see what was written.
class Doubles {
 public:
  static constexpr double kMarker = -12345.5;
  Doubles(uint32_t rows, uint32_t cols) : cols_(cols), data_(size_t{rows} * cols, kMarker) {
    for (uint32_t r = 0; r < rows; ++r) ptrs_.push_back(data_.data() + size_t{r} * cols);
  }
  double **get() { return ptrs_.data(); }
  double at(uint32_t r, uint32_t c) const { return data_[size_t{r} * cols_ + c]; }
  bool untouched() const {
    for (double v : data_) {
      if (v != kMarker) return false;
    }
    return true;
  }

 private:
  uint32_t cols_;
  std::vector<double> data_;
  std::vector<double *> ptrs_;
};

uint64_t bits_of(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// The IsoData rule exactly as stated: both classes summed afresh at every
// step, products in 64-bit integers, sums in double.
double reference_threshold(const std::vector<uint64_t> &h) {
  const size_t n = h.size();
  size_t min = n - 1, max = 0;
  for (size_t i = 0; i + 1 < n; ++i) {
    if (h[i] != 0) { min = i; break; }
  }
  for (size_t i = n - 1; i >= 1; --i) {
    if (h[i] != 0) { max = i; break; }
  }
  if (max <= min) return double(n) * 0.5;
  size_t m = min;
  double result;
  for (;;) {
    double s1 = 0, s2 = 0, s3 = 0, s4 = 0;
    for (size_t i = min; i <= m; ++i) { s1 += double(uint64_t(i) * h[i]); s2 += double(h[i]); }
    for (size_t i = m + 1; i <= max; ++i) { s3 += double(uint64_t(i) * h[i]); s4 += double(h[i]); }
    result = (s1 / s2 + s3 / s4) * 0.5;
    if (!(m + 1 < max - 1 && double(m + 2) <= result)) return result;
    ++m;
  }
}

struct Kind {
  uint32_t bits;
  int32_t photometric;
};
const Kind kKinds[] = {{8, 0}, {8, 1}, {16, 0}, {16, 1}};

class MeasuresTest : public vepra_test::LibraryTest {};

TEST_F(MeasuresTest, HistogramAndEntropyMatchIndependentCounts) {
  uint32_t pattern = 1;
  for (const Kind &k : kKinds) {
    // Widths that are not multiples of four reach the tail of the 8-bit loop.
    for (auto [h, w] : {std::pair{37u, 53u}, std::pair{1u, 3u}, std::pair{300u, 250u}}) {
      Image img(h, w, k.bits, k.photometric);
      img.randomize(pattern++);
      std::map<uint32_t, uint64_t> counts;
      for (uint32_t r = 0; r < h; ++r)
        for (uint32_t c = 0; c < w; ++c) ++counts[img.at(r, c)];

      size_t nbins = 0;
      uint64_t *hist = nullptr;
      ASSERT_EQ(vepra_img_histogram(img.get(), &nbins, &hist), nullptr);
      ASSERT_EQ(nbins, size_t{img.full()} + 1);
      for (size_t v = 0; v < nbins; ++v) {
        auto it = counts.find(uint32_t(v));
        ASSERT_EQ(hist[v], it == counts.end() ? 0u : it->second) << "bin " << v;
      }
      if (k.bits == 8) {  // the literal rule is quadratic in the bins
        EXPECT_EQ(bits_of(vepra_img_thres_IJ(nbins, hist)),
                  bits_of(reference_threshold(std::vector<uint64_t>(hist, hist + nbins))));
      }
      vepra_mem_free(hist);

      double expected = 0.0;
      for (auto [v, n] : counts) {
        const double p = double(n) / double(uint64_t{h} * w);
        expected -= p * std::log2(p);
      }
      double entropy = -1.0;
      ASSERT_EQ(vepra_img_entropy(img.get(), &entropy), nullptr);
      EXPECT_NEAR(entropy, expected, 1e-12) << h << "x" << w << " bits " << k.bits;
    }
  }
}

TEST_F(MeasuresTest, StatisticsOfUniformAndTwoValuedImages) {
  Image flat(20, 30, 16, 1);
  for (uint32_t r = 0; r < 20; ++r)
    for (uint32_t c = 0; c < 30; ++c) flat.set(r, c, 1000);
  size_t nbins = 0;
  uint64_t *hist = nullptr;
  ASSERT_EQ(vepra_img_histogram(flat.get(), &nbins, &hist), nullptr);
  EXPECT_EQ(nbins, 65536u);
  EXPECT_EQ(hist[1000], 600u);
  EXPECT_EQ(vepra_img_thres_IJ(nbins, hist), 32768.0);
  vepra_mem_free(hist);
  double entropy = -1.0;
  ASSERT_EQ(vepra_img_entropy(flat.get(), &entropy), nullptr);
  EXPECT_EQ(entropy, 0.0);

  Image halves(4, 5, 8, 0);
  for (uint32_t r = 0; r < 4; ++r)
    for (uint32_t c = 0; c < 5; ++c) halves.set(r, c, r < 2 ? 0 : 255);
  ASSERT_EQ(vepra_img_entropy(halves.get(), &entropy), nullptr);
  EXPECT_EQ(entropy, 1.0);
  ASSERT_EQ(vepra_img_histogram(halves.get(), &nbins, &hist), nullptr);
  // Both end bins take part: the threshold is (0 + 255) / 2, not rounded.
  EXPECT_EQ(vepra_img_thres_IJ(nbins, hist), 127.5);
  vepra_mem_free(hist);

  Image empty(0, 7, 8, 1);
  ASSERT_EQ(vepra_img_histogram(empty.get(), &nbins, &hist), nullptr);
  EXPECT_EQ(nbins, 256u);
  for (size_t v = 0; v < nbins; ++v) EXPECT_EQ(hist[v], 0u);
  EXPECT_EQ(vepra_img_thres_IJ(nbins, hist), 128.0);
  vepra_mem_free(hist);
  entropy = -1.0;
  ASSERT_EQ(vepra_img_entropy(empty.get(), &entropy), nullptr);
  EXPECT_EQ(entropy, 0.0);
}

TEST_F(MeasuresTest, ThresholdFollowsTheIterativeRule) {
  // Two clusters: the split settles between their means (2 and 8).
  std::vector<uint64_t> h(11, 0);
  h[1] = 10; h[2] = 20; h[3] = 10; h[7] = 10; h[8] = 20; h[9] = 10;
  EXPECT_EQ(vepra_img_thres_IJ(h.size(), h.data()), 5.0);
  EXPECT_EQ(reference_threshold(h), 5.0);

  EXPECT_EQ(vepra_img_thres_IJ(1, h.data()), 0.5);
  EXPECT_EQ(vepra_img_thres_IJ(0, nullptr), 0.0);
  EXPECT_EQ(vepra_img_thres_IJ(256, nullptr), 128.0);
  std::vector<uint64_t> ends(256, 0);
  ends[0] = 1;
  ends[255] = 3;
  EXPECT_EQ(vepra_img_thres_IJ(256, ends.data()), (0.0 + 255.0) * 0.5);

  // Random sparse and dense histograms, and counts far beyond 2^53 where
  // the sums are no longer exact: all bit-identical to the literal rule.
  std::mt19937_64 rng(7);
  for (int round = 0; round < 60; ++round) {
    const size_t n = round % 3 == 0 ? 65536 : 256;
    std::vector<uint64_t> r(n, 0);
    const size_t lo = rng() % (n / 2), span = 1 + rng() % (n == 256 ? n / 2 : 3000);
    const uint64_t scale = round % 4 == 3 ? (uint64_t{1} << 50) : 1000;
    for (size_t i = lo; i < lo + span && i < n; ++i) {
      if (rng() % 3 != 0) r[i] = rng() % scale;
    }
    EXPECT_EQ(bits_of(vepra_img_thres_IJ(n, r.data())), bits_of(reference_threshold(r)))
        << "round " << round;
  }
}

TEST_F(MeasuresTest, MaskMarksEverythingButWhite) {
  uint32_t pattern = 100;
  for (const Kind &k : kKinds) {
    Image img(23, 41, k.bits, k.photometric);
    img.randomize(pattern++);
    Doubles mask(23, 41);
    ASSERT_EQ(vepra_img_data_dmask(img.get(), mask.get()), nullptr);
    const uint32_t white = k.photometric == 0 ? 0 : img.full();
    for (uint32_t r = 0; r < 23; ++r)
      for (uint32_t c = 0; c < 41; ++c)
        ASSERT_EQ(mask.at(r, c), img.at(r, c) == white ? 0.0 : 1.0) << r << "," << c;
  }
  Image bz(1, 3, 8, 1);
  bz.set(0, 0, 255);
  bz.set(0, 1, 0);
  bz.set(0, 2, 17);
  Doubles mask(1, 3);
  ASSERT_EQ(vepra_img_data_dmask(bz.get(), mask.get()), nullptr);
  EXPECT_EQ(mask.at(0, 0), 0.0);
  EXPECT_EQ(mask.at(0, 1), 1.0);
  EXPECT_EQ(mask.at(0, 2), 1.0);
}

double psl_formula(uint32_t s, double G, bool wiz, double px, double sens, double lat) {
  const double F = (4000.0 / sens) * (px * px / 10000.0);
  const double q = wiz ? s : G - s;
  return F * std::pow(10.0, (q / G - 0.5) * lat);
}

double density_formula(uint32_t s, double G, bool wiz, double saturated) {
  if (s == G) return saturated;
  if (wiz) return std::log10(G / (G - s));
  return s == 0 ? HUGE_VAL : std::log10(G / s);
}

// PSL and density equal the formula bit for bit, for images small enough
// to be computed per pixel and large enough to go through the table, and
// when the table cannot be allocated.
TEST_F(MeasuresTest, PslAndDensityAreBitIdenticalToTheFormula) {
  struct Params {
    double px, sens, lat, saturated;
  };
  const Params params[] = {{100, 4000, 5, 9.5}, {50, 1000, 4, -1.0}, {25, 0, 5, 0.0}};
  uint32_t pattern = 200;
  for (const Kind &k : kKinds) {
    for (auto [h, w] : {std::pair{5u, 7u}, std::pair{300u, 250u}}) {
      for (const Params &p : params) {
        for (bool fail_table : {false, true}) {
          Image img(h, w, k.bits, k.photometric);
          img.randomize(pattern++);
          Doubles psl(h, w), density(h, w);
          if (fail_table) vepra::testing::fail_allocation_at(1);
          ASSERT_EQ(vepra_img_calc_fujiri(img.get(), psl.get(), p.px, p.sens, p.lat), nullptr);
          if (fail_table) vepra::testing::fail_allocation_at(1);
          ASSERT_EQ(vepra_img_calc_density(img.get(), density.get(), p.saturated), nullptr);
          vepra::testing::fail_allocation_at(0);
          const double G = img.full();
          const bool wiz = k.photometric == 0;
          for (uint32_t r = 0; r < h; ++r) {
            for (uint32_t c = 0; c < w; ++c) {
              const uint32_t s = img.at(r, c);
              ASSERT_EQ(bits_of(psl.at(r, c)), bits_of(psl_formula(s, G, wiz, p.px, p.sens, p.lat)))
                  << "psl s=" << s << " bits " << k.bits;
              ASSERT_EQ(bits_of(density.at(r, c)), bits_of(density_formula(s, G, wiz, p.saturated)))
                  << "density s=" << s << " bits " << k.bits;
            }
          }
        }
      }
    }
  }
}

// Results too large for the caches take another store path; rows of odd
// length alternate between 16-byte aligned and unaligned starts.
TEST_F(MeasuresTest, LargeImagesGiveTheSameResults) {
  const uint32_t h = 2048, w = 2049;
  Image img(h, w, 16, 0);
  img.randomize(300);
  Doubles mask(h, w), density(h, w);
  ASSERT_EQ(vepra_img_data_dmask(img.get(), mask.get()), nullptr);
  ASSERT_EQ(vepra_img_calc_density(img.get(), density.get(), 3.25), nullptr);
  for (uint32_t r = 0; r < h; ++r) {
    for (uint32_t c = 0; c < w; ++c) {
      const uint32_t s = img.at(r, c);
      ASSERT_EQ(mask.at(r, c), s == 0 ? 0.0 : 1.0) << r << "," << c;
      ASSERT_EQ(bits_of(density.at(r, c)), bits_of(density_formula(s, 65535.0, true, 3.25)))
          << r << "," << c;
    }
  }
}

TEST_F(MeasuresTest, PslAndDensityEdgeValues) {
  Image img(1, 2, 16, 1);
  img.set(0, 0, 65535);
  img.set(0, 1, 0);
  Doubles psl(1, 2);
  ASSERT_EQ(vepra_img_calc_fujiri(img.get(), psl.get(), 100, 4000, 5), nullptr);
  EXPECT_NEAR(psl.at(0, 0), 0.0031623, 1e-7);
  EXPECT_NEAR(psl.at(0, 1), 316.23, 1e-2);

  Image wz(1, 3, 8, 0);
  wz.set(0, 0, 0);
  wz.set(0, 1, 254);
  wz.set(0, 2, 255);
  Doubles d(1, 3);
  ASSERT_EQ(vepra_img_calc_density(wz.get(), d.get(), 7.0), nullptr);
  EXPECT_EQ(d.at(0, 0), 0.0);
  EXPECT_NEAR(d.at(0, 1), 2.4065, 1e-4);
  EXPECT_EQ(d.at(0, 2), 7.0);

  // Under BlackIsZero the white pixel is saturated and the black one infinite.
  Image bz(1, 2, 8, 1);
  bz.set(0, 0, 255);
  bz.set(0, 1, 0);
  Doubles e(1, 2);
  ASSERT_EQ(vepra_img_calc_density(bz.get(), e.get(), 7.0), nullptr);
  EXPECT_EQ(e.at(0, 0), 7.0);
  EXPECT_EQ(e.at(0, 1), std::numeric_limits<double>::infinity());

  // No rows or no columns: success, nothing written.
  Image empty(3, 0, 16, 0);
  Doubles none(3, 1);
  EXPECT_EQ(vepra_img_data_dmask(empty.get(), none.get()), nullptr);
  EXPECT_EQ(vepra_img_calc_fujiri(empty.get(), none.get(), 1, 1, 1), nullptr);
  EXPECT_EQ(vepra_img_calc_density(empty.get(), none.get(), 1), nullptr);
  EXPECT_TRUE(none.untouched());
}

// Every function refuses a record that is not 8/16-bit grayscale with the
// code-0 text under its own context, and writes nothing.
TEST_F(MeasuresTest, RejectsWhatIsNotGrayscale) {
  struct Op {
    const char *context;
    std::function<vepra_error_t *(vepra_img_t *, double **)> run;
  };
  size_t nbins = 77;
  uint64_t *hist = nullptr;
  double entropy = -3.0;
  const Op ops[] = {
      {"Cannot create histogram of an image.",
       [&](vepra_img_t *i, double **) { return vepra_img_histogram(i, &nbins, &hist); }},
      {"Can't calculate entropy for an image.",
       [&](vepra_img_t *i, double **) { return vepra_img_entropy(i, &entropy); }},
      {"Cannot provide image data mask.",
       [](vepra_img_t *i, double **o) { return vepra_img_data_dmask(i, o); }},
      {"Can't calculate Fuji relative intensity.",
       [](vepra_img_t *i, double **o) { return vepra_img_calc_fujiri(i, o, 100, 4000, 5); }},
      {"Can't calculate optical intensity.",
       [](vepra_img_t *i, double **o) { return vepra_img_calc_density(i, o, 1); }},
  };
  struct Bad {
    uint32_t spp, bits;
    int32_t photometric;
    bool drop_pixels;
    const char *message;
  };
  const Bad bads[] = {
      {3, 8, 2, false, "The image is not grayscale."},
      {1, 8, 2, false, "The photointerpretation is not sutable: 2"},
      {1, 16, -1, false, "The photointerpretation is not sutable: -1"},
      {1, 12, 1, false, "The image is neither 16-bit nor 8-bit grayscale."},
      {1, 16, 0, true, "The image has no pixel data."},
  };
  for (const Op &op : ops) {
    for (const Bad &b : bads) {
      Image img(2, 3, 8, 0);
      img.randomize(5);
      vepra_img_t rec = *img.get();
      rec.samples_per_pixel = b.spp;
      rec.bits_per_sample[0] = b.bits;
      rec.photometric = b.photometric;
      if (b.drop_pixels) rec.data8 = nullptr;
      Doubles out(2, 3);
      EXPECT_EQ(take_printed(op.run(&rec, out.get())),
                std::string("Error: ") + op.context + " \nError: " + b.message + " ");
      EXPECT_TRUE(out.untouched());
    }
    Doubles out(2, 3);
    EXPECT_EQ(take_printed(op.run(nullptr, out.get())),
              std::string("Error: ") + op.context + " \nError: No image was given. ");
  }
  EXPECT_EQ(nbins, 77u);
  EXPECT_EQ(hist, nullptr);
  EXPECT_EQ(entropy, -3.0);

  Image img(2, 2, 8, 1);
  EXPECT_EQ(take_printed(vepra_img_data_dmask(img.get(), nullptr)),
            "Error: Cannot provide image data mask. \nError: No output was given. ");
  EXPECT_EQ(take_printed(vepra_img_histogram(img.get(), &nbins, nullptr)),
            "Error: Cannot create histogram of an image. \nError: No output was given. ");
  EXPECT_EQ(take_printed(vepra_img_entropy(img.get(), nullptr)),
            "Error: Can't calculate entropy for an image. \nError: No output was given. ");
}

TEST_F(MeasuresTest, HistogramAllocationFailureIsReported) {
  Image img(3, 4, 16, 0);
  size_t nbins = 0;
  uint64_t *hist = reinterpret_cast<uint64_t *>(&nbins);
  const long made = vepra_test::for_each_allocation_failure(
      [&] {
        nbins = 0;
        vepra_error_t *e = vepra_img_histogram(img.get(), &nbins, &hist);
        if (e == nullptr) vepra_mem_free(hist);
        return e;
      },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(e->code, VEPRA_E_ALLOC);
        EXPECT_EQ(nbins, 65536u);
        EXPECT_EQ(hist, nullptr);
        EXPECT_EQ(vepra_test::printed_lines(e).front(),
                  "Error(120012): Cannot create histogram of an image. ");
      });
  EXPECT_EQ(made, 1);
}

}  // namespace
