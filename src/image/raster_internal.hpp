// The rasterisers' shared plumbing: the callback adaptor that every shape
// reports its pixels through, and the rectangle variants the public
// functions and the region measures build on.
#ifndef VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP
#define VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP

#include <cstdint>

#include "vepra_img.h"

namespace vepra::detail {

// Hands pixels to a caller's callback and keeps the error that stopped it.
class Plotter {
 public:
  Plotter(vepra_img_pixel_fn fn, void *data) noexcept : fn_(fn), data_(data) {}

  // Reports (x, y) with weight; a pixel outside the int range is skipped.
  // False once the callback has returned an error (see error()).
  bool operator()(int64_t x, int64_t y, double weight) noexcept;

  // Reports four pixels in order with one weight, stopping at an error.
  bool four(int64_t xa, int64_t ya, int64_t xb, int64_t yb, int64_t xc, int64_t yc, int64_t xd,
            int64_t yd, double weight) noexcept {
    return (*this)(xa, ya, weight) && (*this)(xb, yb, weight) && (*this)(xc, yc, weight) &&
           (*this)(xd, yd, weight);
  }

  // Reports the Bresenham line from (x0, y0) to (x1, y1), weight 1.0.
  bool line(int64_t x0, int64_t y0, int64_t x1, int64_t y1) noexcept;

  vepra_error_t *error() const noexcept { return error_; }

 private:
  vepra_img_pixel_fn fn_;
  void *data_;
  vepra_error_t *error_ = nullptr;
};

// Antialiased ellipse inscribed in the rectangle of corners (x0, y0) and
// (x1, y1); a rectangle of zero width or height gives its straight line.
vepra_error_t *ellipser_aa_internal(Plotter &plot, int64_t x0, int64_t y0, int64_t x1,
                                    int64_t y1) noexcept;

// Antialiased ellipse in the rectangle with a stroke of width th inside it
// (th below 1.5: the thin antialiased ellipse).
vepra_error_t *ellipser_waa_internal(Plotter &plot, int64_t x0, int64_t y0, int64_t x1, int64_t y1,
                                     double th) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_IMAGE_RASTER_INTERNAL_HPP
