// Per-pixel measures of a grayscale image into a caller's matrix of
// doubles: data mask, Fuji relative intensity (PSL) and optical density.
//
// PSL and density depend on nothing but the sample value, so for images
// with at least as many pixels as there are sample values the formula is
// evaluated once per value into a table and the pixels are looked up. The
// table holds the very values the formula gives, so the result is the same
// bit for bit as evaluating it at every pixel.
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "core/error_internal.hpp"
#include "image/measure_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra::detail::check_measurable;
using vepra::detail::image_is_empty;
using vepra::detail::kFullScale;
using vepra::detail::kLevels;
using vepra::detail::kWhiteIsZero;
using vepra::detail::with_rows;

// Results beyond this size cannot stay in the caches anyway: they are
// written with non-temporal stores, which spare the memory traffic of
// reading every destination line before it is overwritten.
constexpr uint64_t kStreamingBytes = uint64_t{32} << 20;

// Writes value(c) into row[c] for c in 0..width-1.
template <typename Value>
inline void store_row(double *row, uint32_t width, bool streaming, const Value &value) noexcept {
  uint32_t c = 0;
#if defined(__SSE2__)
  if (streaming) {
    if (reinterpret_cast<uintptr_t>(row) % 16 != 0 && c < width) {
      row[c] = value(c);
      ++c;
    }
    for (; c + 2 <= width; c += 2) _mm_stream_pd(row + c, _mm_set_pd(value(c + 1), value(c)));
  }
#else
  (void)streaming;
#endif
  for (; c < width; ++c) row[c] = value(c);
}

// Calls store_row for every row of the image; fn(r) gives row r's value
// function.
template <typename RowValue>
void store_rows(const vepra_img_t &img, double **out, const RowValue &row_value) noexcept {
  const bool streaming = vepra::detail::pixel_count(img) * sizeof(double) >= kStreamingBytes;
  for (uint32_t r = 0; r < img.height; ++r) store_row(out[r], img.width, streaming, row_value(r));
#if defined(__SSE2__)
  if (streaming) _mm_sfence();
#endif
}

// Writes formula(sample) for every pixel, row by row.
template <typename Sample, typename Formula>
void map_pixels(const vepra_img_t &img, const Sample *const *rows, double **out,
                const Formula &formula) noexcept {
  store_rows(img, out, [&](uint32_t r) {
    const Sample *row = rows[r];
    return [row, &formula](uint32_t c) { return formula(row[c]); };
  });
}

// Writes formula(sample) for every pixel, through a table of every sample
// value when the image is large enough for the table to pay.
template <typename Sample, typename Formula>
void apply_formula(const vepra_img_t &img, const Sample *const *rows, double **out,
                   const Formula &formula) noexcept {
  constexpr size_t levels = kLevels<Sample>;
  if (vepra::detail::pixel_count(img) < levels) {
    map_pixels(img, rows, out, formula);
    return;
  }
  auto tabulate_and_map = [&](double *table) {
    for (size_t s = 0; s < levels; ++s) table[s] = formula(static_cast<Sample>(s));
    map_pixels(img, rows, out, [table](Sample s) { return table[s]; });
  };
  if constexpr (sizeof(Sample) == 1) {
    std::array<double, levels> table;
    tabulate_and_map(table.data());
  } else {
    // 512 KiB is too much for the stack; without it the formula is simply
    // evaluated at every pixel, with the same result.
    void *table = nullptr;
    if (vepra_error_t *e = vepra_mem_malloc(levels * sizeof(double), &table)) {
      vepra_error_clear(e);
      map_pixels(img, rows, out, formula);
      return;
    }
    tabulate_and_map(static_cast<double *>(table));
    vepra_mem_free(table);
  }
}

// The optical density of one sample; the full-scale sample is saturated
// under both interpretations.
template <typename Sample>
struct DensityFormula {
  double saturated;
  bool white_is_zero;
  double operator()(Sample s) const noexcept {
    constexpr double kG = kFullScale<Sample>;
    if (s == kFullScale<Sample>) return saturated;
    if (white_is_zero) return std::log10(kG / (kG - static_cast<double>(s)));
    // log10(G / 0) is log10 of +infinity.
    if (s == 0) return std::numeric_limits<double>::infinity();
    return std::log10(kG / static_cast<double>(s));
  }
};

}  // namespace

extern "C" {

vepra_error_t *vepra_img_data_dmask(const vepra_img_t *img, double **mask) noexcept {
  if (vepra_error_t *e = check_measurable(img, mask, "Cannot provide image data mask.")) return e;
  if (image_is_empty(*img)) return nullptr;
  with_rows(*img, [&](const auto *rows) {
    using Sample = std::remove_cvref_t<decltype(**rows)>;
    const Sample white = static_cast<uint32_t>(img->photometric) == kWhiteIsZero
                             ? Sample{0}
                             : static_cast<Sample>(kFullScale<Sample>);
    // A comparison turned into 0.0 or 1.0: no branch per pixel.
    map_pixels(*img, rows, mask, [white](Sample s) { return static_cast<double>(s != white); });
  });
  return nullptr;
}

vepra_error_t *vepra_img_calc_fujiri(const vepra_img_t *img, double **psl, double pixel_size,
                                     double sensitivity, double latitude) noexcept {
  if (vepra_error_t *e = check_measurable(img, psl, "Can't calculate Fuji relative intensity.")) {
    return e;
  }
  if (image_is_empty(*img)) return nullptr;
  with_rows(*img, [&](const auto *rows) {
    using Sample = std::remove_cvref_t<decltype(**rows)>;
    apply_formula(*img, rows, psl,
                  vepra::detail::fuji_formula<Sample>(*img, pixel_size, sensitivity, latitude));
  });
  return nullptr;
}

vepra_error_t *vepra_img_calc_density(const vepra_img_t *img, double **density,
                                      double saturated) noexcept {
  if (vepra_error_t *e = check_measurable(img, density, "Can't calculate optical intensity.")) {
    return e;
  }
  if (image_is_empty(*img)) return nullptr;
  const bool white_is_zero = static_cast<uint32_t>(img->photometric) == kWhiteIsZero;
  with_rows(*img, [&](const auto *rows) {
    using Sample = std::remove_cvref_t<decltype(**rows)>;
    apply_formula(*img, rows, density, DensityFormula<Sample>{saturated, white_is_zero});
  });
  return nullptr;
}

}  // extern "C"
