// Histogram, entropy, IsoData threshold, data mask, PSL and optical density,
// checked against counts in a std::map and the formulas evaluated per pixel.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
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

// An image record with its own pixel matrix, filled with random samples
// (runs of equal values, both extremes present), and a row-major copy of them.
struct Image {
  Image(uint32_t height, uint32_t width, uint32_t bits, int32_t photometric, uint32_t pattern = 0)
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
      set(i, v);
    }
  }
  Image(const Image &) = delete;
  ~Image() { vepra_img_free(&rec); }
  void set(uint32_t i, uint32_t v) {
    const uint32_t r = i / rec.width, c = i % rec.width;
    samples[i] = v;
    if (rec.data8 != nullptr)
      rec.data8[r][c] = static_cast<uint8_t>(v);
    else
      rec.data16[r][c] = static_cast<uint16_t>(v);
  }

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

uint64_t bits_of(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

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

// 8 and 16 bits, WhiteIsZero and BlackIsZero.
const std::pair<uint32_t, int32_t> kKinds[] = {{8, 0}, {8, 1}, {16, 0}, {16, 1}};

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

// The histogram against counts in a std::map, the entropy against the
// formula over those counts, and mask, PSL and density bit for bit against
// their formulas. Small images are computed per pixel, large ones through a
// table of every sample value, also when the table cannot be allocated.
// Widths that are not multiples of four reach the tails of the loops that
// count four columns at a time (16-bit images of a million pixels and more);
// rows without columns are measured without writing anything.
TEST_F(MeasuresTest, MeasuresMatchIndependentCounts) {
  const Params params[] = {{100, 4000, 5, 9.5}, {50, 1000, 4, -1.0}, {25, 0, 5, 0.0}};
  uint32_t pattern = 1;
  for (auto [bits, photometric] : kKinds) {
    for (auto [h, w] : {std::pair{37u, 53u}, std::pair{1u, 3u}, std::pair{300u, 250u},
                        std::pair{3u, 0u}, std::pair{1025u, 1027u}}) {
      SCOPED_TRACE(std::to_string(h) + "x" + std::to_string(w) + " bits " + std::to_string(bits));
      Image img(h, w, bits, photometric, pattern++);
      std::map<uint32_t, uint64_t> counts;
      for (uint32_t s : img.samples) ++counts[s];
      size_t nbins = 0;
      uint64_t *hist = nullptr;
      ASSERT_EQ(vepra_img_histogram(&img.rec, &nbins, &hist), nullptr);
      ASSERT_EQ(nbins, size_t{img.full} + 1);
      for (size_t v = 0; v < nbins; ++v) ASSERT_EQ(hist[v], counts[uint32_t(v)]) << "bin " << v;
      vepra_mem_free(hist);
      double expected = 0.0, entropy = -1.0;
      for (auto [v, n] : counts) {
        const double p = double(n) / double(img.samples.size());
        if (n != 0) expected -= p * std::log2(p);
      }
      ASSERT_EQ(vepra_img_entropy(&img.rec, &entropy), nullptr);
      EXPECT_NEAR(entropy, expected, 1e-12);
      // Every set of parameters, with and without the table.
      const int runs = h > 1000 ? 0 : 6;
      for (int i = 0; i < runs; ++i) expect_formulas(img, params[i / 2], i % 2 == 1);
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

// The 16-bit histogram's result and the 16-bit entropy's counters come
// from the checked allocator; a failure is reported under the function's
// context and leaves the output as it was.
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

  // A large image counts through scratch tables; when they cannot be had
  // it counts directly, to the same histogram.
  Image large(1024, 1024, 16, 1, 5);
  std::vector<uint64_t> counts[2];
  for (long fail : {0L, 2L}) {
    vepra::testing::fail_allocation_at(fail);
    ASSERT_EQ(vepra_img_histogram(&large.rec, &nbins, &hist), nullptr);
    vepra::testing::fail_allocation_at(0);
    counts[fail != 0].assign(hist, hist + nbins);
    vepra_mem_free(hist);
  }
  EXPECT_EQ(counts[1], counts[0]);
}

}  // namespace
