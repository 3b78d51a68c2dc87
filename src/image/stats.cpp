// Image statistics: histogram, entropy and the IsoData threshold, and the
// grayscale check that the per-pixel measures share.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "core/error_internal.hpp"
#include "core/testing.hpp"
#include "image/measure_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

using vepra::detail::make_error;
using vepra::detail::wrap_error;

namespace vepra::detail {

namespace {

// The three tests a record must pass, in this order, as unwrapped code-0
// records.
vepra_error_t *grayscale_error(const vepra_img_t &img) noexcept {
  if (img.samples_per_pixel != 1) return make_error(0, "The image is not grayscale.");
  if (static_cast<uint32_t>(img.photometric) > kBlackIsZero) {
    return make_error(0, "The photointerpretation is not sutable: %d", img.photometric);
  }
  if (img.bits_per_sample[0] != 8 && img.bits_per_sample[0] != 16) {
    return make_error(0, "The image is neither 16-bit nor 8-bit grayscale.");
  }
  return nullptr;
}

vepra_error_t *measurable_error(const vepra_img_t *img, const void *out) noexcept {
  if (img == nullptr) return make_error(0, "No image was given.");
  if (vepra_error_t *e = grayscale_error(*img)) return e;
  if (out == nullptr) return make_error(0, "No output was given.");
  const bool has_rows = img->bits_per_sample[0] == 8 ? img->data8 != nullptr : img->data16 != nullptr;
  if (!image_is_empty(*img) && !has_rows) return make_error(0, "The image has no pixel data.");
  return nullptr;
}

}  // namespace

vepra_error_t *check_measurable(const vepra_img_t *img, const void *out,
                                const char *context) noexcept {
  vepra_error_t *e = measurable_error(img, out);
  return e != nullptr ? wrap_error(e, "%s", context) : nullptr;
}

}  // namespace vepra::detail

namespace {

using vepra::detail::image_is_empty;
using vepra::detail::kLevels;
using vepra::detail::with_rows;

constexpr const char *kHistogramContext = "Cannot create histogram of an image.";
constexpr const char *kEntropyContext = "Can't calculate entropy for an image.";

// Below this many pixels a 16-bit image is counted straight into the
// result: the scratch counters of the split count would cost more than
// they save.
constexpr uint64_t kSplitCountPixels = uint64_t{1} << 20;

// Counts the samples of 16-bit rows into bins, four columns at a time, each
// into a 32-bit counter set of its own (the columns left over go to the
// first). Runs of equal or few distinct values then no longer make every
// increment wait for the previous one to the same counter. 32-bit bins
// serve as the first set themselves; 64-bit bins are only added into, so
// that the four sets take no more cache than two sets of 64-bit counters.
// The scratch sets are added into bins after every band of rows that
// could fill one of them to 2^32 - 1, and at the end. False, with nothing
// counted, when the scratch cannot be had.
template <typename Counter>
bool count_split(const vepra_img_t &img, const uint16_t *const *rows, Counter *bins) noexcept {
  constexpr size_t kBins = 65536;
  constexpr bool kBinsFirst = std::is_same_v<Counter, uint32_t>;
  constexpr size_t kScratch = (kBinsFirst ? 3 : 4) * kBins;
  auto *scratch = static_cast<uint32_t *>(vepra::detail::checked_calloc(kScratch, sizeof(uint32_t)));
  if (scratch == nullptr) return false;
  uint32_t *s0 = nullptr;
  if constexpr (kBinsFirst) {
    s0 = bins;
  } else {
    s0 = scratch + 3 * kBins;
  }
  uint32_t *const s1 = scratch;
  uint32_t *const s2 = scratch + kBins;
  uint32_t *const s3 = scratch + 2 * kBins;
  const uint32_t width = img.width;
  const uint32_t most = width / 4 + 3;  // the most one set gains a row
  const uint32_t band = UINT32_MAX / most;
  for (uint32_t top = 0; top < img.height;) {
    const uint32_t bottom = img.height - top > band ? top + band : img.height;
    for (uint32_t r = top; r < bottom; ++r) {
      const uint16_t *row = rows[r];
      uint32_t c = 0;
      for (; c + 4 <= width; c += 4) {
        ++s0[row[c]];
        ++s1[row[c + 1]];
        ++s2[row[c + 2]];
        ++s3[row[c + 3]];
      }
      for (; c < width; ++c) ++s0[row[c]];
    }
    for (size_t v = 0; v < kBins; ++v) {
      uint64_t sum = uint64_t{s1[v]} + s2[v] + s3[v];
      if constexpr (!kBinsFirst) sum += s0[v];
      bins[v] += static_cast<Counter>(sum);
    }
    top = bottom;
    if (top < img.height) std::memset(scratch, 0, kScratch * sizeof(uint32_t));
  }
  std::free(scratch);
  return true;
}

// Adds the count of every sample value of the image to bins (kLevels
// counters). Counters wrap like Counter does, so 32-bit counters give the
// same result as counting into them one by one.
template <typename Counter, typename Sample>
void count_samples(const vepra_img_t &img, const Sample *const *rows, Counter *bins) noexcept {
  if (image_is_empty(img)) return;
  const uint32_t width = img.width;
  if constexpr (sizeof(Sample) == 1) {
    // Runs of equal bytes would make every increment wait for the previous
    // one; four interleaved sub-histograms break that dependency.
    std::array<std::array<Counter, 256>, 4> sub{};
    for (uint32_t r = 0; r < img.height; ++r) {
      const Sample *row = rows[r];
      uint32_t c = 0;
      for (; c + 4 <= width; c += 4) {
        ++sub[0][row[c]];
        ++sub[1][row[c + 1]];
        ++sub[2][row[c + 2]];
        ++sub[3][row[c + 3]];
      }
      for (; c < width; ++c) ++sub[0][row[c]];
    }
    for (size_t v = 0; v < 256; ++v) {
      bins[v] += static_cast<Counter>(sub[0][v] + sub[1][v] + sub[2][v] + sub[3][v]);
    }
  } else {
    if (vepra::detail::pixel_count(img) >= kSplitCountPixels && count_split(img, rows, bins)) return;
    for (uint32_t r = 0; r < img.height; ++r) {
      const Sample *row = rows[r];
      for (uint32_t c = 0; c < width; ++c) ++bins[row[c]];
    }
  }
}

// -sum p log2 p over the occupied bins, ascending, with p = k / total.
template <typename Counter, typename Total>
double entropy_of(const Counter *bins, size_t nbins, Total total) noexcept {
  constexpr double kMinusLn2 = -0.6931471805599453;
  double h = 0.0;
  for (size_t i = 0; i < nbins; ++i) {
    if (bins[i] == 0) continue;
    const double p = static_cast<double>(bins[i]) / static_cast<double>(total);
    h = h + (std::log(p) / kMinusLn2) * p;
  }
  return h;
}

// Entropy with 32-bit counters: 256 of them in the call's own storage, the
// 65536 of a 16-bit image from the checked allocator, so that no call
// needs a large stack frame. *out is written only on success.
template <typename Sample>
vepra_error_t *entropy_counted(const vepra_img_t &img, const Sample *const *rows,
                               double *out) noexcept {
  constexpr size_t kBins = kLevels<Sample>;
  const auto total = static_cast<uint32_t>(vepra::detail::pixel_count(img));
  if constexpr (kBins <= 256) {
    std::array<uint32_t, kBins> bins{};
    count_samples(img, rows, bins.data());
    *out = entropy_of(bins.data(), kBins, total);
  } else {
    void *block = nullptr;
    if (vepra_error_t *e = vepra_mem_calloc(kBins, sizeof(uint32_t), &block)) return e;
    auto *bins = static_cast<uint32_t *>(block);
    count_samples(img, rows, bins);
    *out = entropy_of(bins, kBins, total);
    vepra_mem_free(block);
  }
  return nullptr;
}

// Lower and upper class means of the IsoData iteration.
struct ClassMeans {
  double lower;
  double upper;
};

// The iteration itself: starts the split at min, moves it up while the
// rule allows, and returns the last mean of means. means(m) gives the
// class means for a split after bin m.
template <typename Means>
double isodata_iterate(size_t min, size_t max, Means &&means) noexcept {
  size_t m = min;
  for (;;) {
    const ClassMeans cm = means(m);
    const double result = (cm.lower + cm.upper) * 0.5;
    if (!(m + 1 < max - 1 && static_cast<double>(m + 2) <= result)) return result;
    ++m;
  }
}

}  // namespace

extern "C" {

vepra_error_t *vepra_img_histogram(const vepra_img_t *img, size_t *nbins,
                                   uint64_t **hist) noexcept {
  const void *out = nbins != nullptr && hist != nullptr ? hist : nullptr;
  if (vepra_error_t *e = vepra::detail::check_measurable(img, out, kHistogramContext)) return e;
  const size_t bins = img->bits_per_sample[0] == 8 ? 256 : 65536;
  *nbins = bins;
  void *block = nullptr;
  vepra_error_t *e = vepra_mem_calloc(bins, sizeof(uint64_t), &block);
  *hist = static_cast<uint64_t *>(block);
  if (e != nullptr) return wrap_error(e, "%s", kHistogramContext);
  with_rows(*img, [&](const auto *rows) { count_samples(*img, rows, *hist); });
  return nullptr;
}

vepra_error_t *vepra_img_entropy(const vepra_img_t *img, double *entropy) noexcept {
  if (vepra_error_t *e = vepra::detail::check_measurable(img, entropy, kEntropyContext)) return e;
  if (vepra::detail::pixel_count(*img) <= UINT32_MAX) {
    vepra_error_t *e =
        with_rows(*img, [&](const auto *rows) { return entropy_counted(*img, rows, entropy); });
    return e != nullptr ? wrap_error(e, "%s", kEntropyContext) : nullptr;
  }
  // Beyond the reach of 32-bit counters: count into a 64-bit histogram.
  size_t nbins = 0;
  uint64_t *hist = nullptr;
  vepra_error_t *e = vepra_img_histogram(img, &nbins, &hist);
  if (e != nullptr) return wrap_error(e, "%s", kEntropyContext);
  *entropy = entropy_of(hist, nbins, vepra::detail::pixel_count(*img));
  vepra_mem_free(hist);
  return nullptr;
}

double vepra_img_thres_IJ(size_t nbins, const uint64_t *hist) noexcept {
  const double empty_result = static_cast<double>(nbins) * 0.5;
  if (hist == nullptr || nbins == 0) return empty_result;
  const size_t n = nbins;
  size_t min = 0;
  while (min < n - 1 && hist[min] == 0) ++min;
  size_t max = n - 1;
  while (max > 0 && hist[max] == 0) --max;
  if (max <= min) return empty_result;

  // While every partial sum is an integer of at most 53 bits, summing in
  // double is exact whatever the order, so running integer sums give the
  // same means as re-adding both classes at every step.
  unsigned __int128 count = 0;
  unsigned __int128 weighted = 0;
  for (size_t i = min; i <= max; ++i) {
    count += hist[i];
    weighted += static_cast<unsigned __int128>(i) * hist[i];
  }
  constexpr unsigned __int128 kExact = uint64_t{1} << 53;
  if (count <= kExact && weighted <= kExact) {
    const auto total_count = static_cast<uint64_t>(count);
    const auto total_weighted = static_cast<uint64_t>(weighted);
    size_t split = min;
    uint64_t low_count = hist[min];
    uint64_t low_weighted = min * hist[min];
    return isodata_iterate(min, max, [&](size_t m) {
      for (; split < m; ++split) {
        low_count += hist[split + 1];
        low_weighted += (split + 1) * hist[split + 1];
      }
      return ClassMeans{
          static_cast<double>(low_weighted) / static_cast<double>(low_count),
          static_cast<double>(total_weighted - low_weighted) /
              static_cast<double>(total_count - low_count)};
    });
  }
  // Sums too large to be exact: add up both classes afresh at every step,
  // in ascending order, products in 64-bit integers and sums in double.
  return isodata_iterate(min, max, [&](size_t m) {
    double sums[4] = {0.0, 0.0, 0.0, 0.0};
    for (size_t i = min; i <= max; ++i) {
      const size_t cls = i <= m ? 0 : 2;
      sums[cls] += static_cast<double>(static_cast<uint64_t>(i) * hist[i]);
      sums[cls + 1] += static_cast<double>(hist[i]);
    }
    return ClassMeans{sums[0] / sums[1], sums[2] / sums[3]};
  });
}

}  // extern "C"
