// Shared pieces of the image statistics and the per-pixel measures: the
// check that a record is a grayscale image they can work on, and the loops
// that hand its rows to a callback with the sample type resolved.
#ifndef VEPRA_SRC_IMAGE_MEASURE_COMMON_HPP
#define VEPRA_SRC_IMAGE_MEASURE_COMMON_HPP

#include <cstddef>
#include <cmath>
#include <cstdint>

#include "vepra_img.h"

namespace vepra::detail {

// Photometric interpretations the measures understand.
inline constexpr uint32_t kWhiteIsZero = 0;
inline constexpr uint32_t kBlackIsZero = 1;

// The full-scale sample value G of a sample type: 255 or 65535.
template <typename Sample>
inline constexpr uint32_t kFullScale = (uint32_t{1} << (8 * sizeof(Sample))) - 1u;

// The number of possible sample values: 256 or 65536.
template <typename Sample>
inline constexpr size_t kLevels = size_t{kFullScale<Sample>} + 1;

// Checks that img can be measured, and wraps any failure with context:
//  - img is not null;
//  - one sample per pixel, interpretation 0 or 1, 8 or 16 bits (in this
//    order, each failure a code-0 record with its fixed text);
//  - out (the caller's output pointer, whatever its type) is not null;
//  - an image with pixels has the matrix of its depth.
[[nodiscard]] vepra_error_t *check_measurable(const vepra_img_t *img, const void *out,
                                              const char *context) noexcept;

// True when the record has no pixel to visit.
inline bool image_is_empty(const vepra_img_t &img) noexcept {
  return img.height == 0 || img.width == 0;
}

inline uint64_t pixel_count(const vepra_img_t &img) noexcept {
  return uint64_t{img.height} * img.width;
}

// Calls fn(rows) with the record's pixel matrix: `const uint8_t *const *`
// for 8-bit images, `const uint16_t *const *` for 16-bit ones. The record
// must have passed check_measurable().
template <typename Fn>
decltype(auto) with_rows(const vepra_img_t &img, Fn &&fn) {
  if (img.bits_per_sample[0] == 8) {
    return fn(static_cast<const uint8_t *const *>(img.data8));
  }
  return fn(static_cast<const uint16_t *const *>(img.data16));
}

// The photo-stimulated luminescence of one sample, as a Fuji scanner
// defines it: factor * 10^((Q / G - 0.5) * latitude), Q the quantum level.
template <typename Sample>
struct FujiFormula {
  double factor;
  double latitude;
  bool white_is_zero;
  double operator()(Sample s) const noexcept {
    constexpr double kG = kFullScale<Sample>;
    const uint32_t q = white_is_zero ? s : kFullScale<Sample> - s;
    return factor * std::pow(10.0, (static_cast<double>(q) / kG - 0.5) * latitude);
  }
};

// The formula for img's interpretation and the scanner's parameters
// (pixel size in micrometres, latitude in decades).
template <typename Sample>
FujiFormula<Sample> fuji_formula(const vepra_img_t &img, double pixel_size, double sensitivity,
                                 double latitude) noexcept {
  return {(4000.0 / sensitivity) * (pixel_size * pixel_size / 10000.0), latitude,
          static_cast<uint32_t>(img.photometric) == kWhiteIsZero};
}

}  // namespace vepra::detail

#endif  // VEPRA_SRC_IMAGE_MEASURE_COMMON_HPP
