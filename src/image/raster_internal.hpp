// The rasterisers' shared plumbing: the callback adaptor that every shape
// reports its pixels through, and the rectangle variants the public
// functions and the region measures build on.
#ifndef VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP
#define VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP

#include <cstdint>

#include "vepra_img.h"

namespace vepra::detail {

// Hands pixels to a caller's callback and keeps the error that stopped it.
// The range-checked flavour skips pixels whose coordinates do not fit an
// int; shapes whose whole box fits use the unchecked one, which adds
// nothing per pixel but the error test.
template <bool kRangeChecked>
class BasicPlotter {
 public:
  BasicPlotter(vepra_img_pixel_fn fn, void *data) noexcept : fn_(fn), data_(data) {}

  // Reports (x, y) with weight. False once the callback has returned an
  // error (see error()).
  bool operator()(int64_t x, int64_t y, double weight) noexcept {
    if constexpr (kRangeChecked) {
      // Both coordinates fit an int exactly when their offsets from
      // INT32_MIN fit 32 unsigned bits.
      constexpr uint64_t kSpan = uint64_t{UINT32_MAX};
      if (static_cast<uint64_t>(x - INT32_MIN) > kSpan || static_cast<uint64_t>(y - INT32_MIN) > kSpan)
        return true;
    }
    error_ = fn_(static_cast<int>(x), static_cast<int>(y), data_, weight);
    return error_ == nullptr;
  }

  // Reports four pixels in order with one weight, stopping at an error.
  bool four(int64_t xa, int64_t ya, int64_t xb, int64_t yb, int64_t xc, int64_t yc, int64_t xd,
            int64_t yd, double weight) noexcept {
    return (*this)(xa, ya, weight) && (*this)(xb, yb, weight) && (*this)(xc, yc, weight) &&
           (*this)(xd, yd, weight);
  }

  // Reports the Bresenham line from (x0, y0) to (x1, y1), weight 1.0.
  bool line(int64_t x0, int64_t y0, int64_t x1, int64_t y1) noexcept {
    const int64_t dx = x1 > x0 ? x1 - x0 : x0 - x1, sx = x0 < x1 ? 1 : -1;
    const int64_t dy = -(y1 > y0 ? y1 - y0 : y0 - y1), sy = y0 < y1 ? 1 : -1;
    int64_t err = dx + dy;
    for (;;) {
      if (!(*this)(x0, y0, 1.0)) return false;
      const int64_t e2 = 2 * err;
      if (e2 >= dy) {
        if (x0 == x1) break;
        err += dy;
        x0 += sx;
      }
      if (e2 <= dx) {
        if (y0 == y1) break;
        err += dx;
        y0 += sy;
      }
    }
    return true;
  }

  vepra_error_t *error() const noexcept { return error_; }

 private:
  vepra_img_pixel_fn fn_;
  void *data_;
  vepra_error_t *error_ = nullptr;
};

using Plotter = BasicPlotter<true>;

// The drawing functions take their plotter by value: a local copy keeps
// the callback and the error in registers instead of memory that every
// callback might change.

// Antialiased ellipse inscribed in the rectangle of corners (x0, y0) and
// (x1, y1); a rectangle of zero width or height gives its straight line.
template <typename Plot>
vepra_error_t *ellipser_aa_internal(Plot plot, int64_t x0, int64_t y0, int64_t x1,
                                    int64_t y1) noexcept;

// Antialiased ellipse in the rectangle with a stroke of width th inside it
// (th below 1.5: the thin antialiased ellipse).
template <typename Plot>
vepra_error_t *ellipser_waa_internal(Plot plot, int64_t x0, int64_t y0, int64_t x1, int64_t y1,
                                     double th) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP
