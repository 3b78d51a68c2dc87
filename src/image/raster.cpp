// Circle and ellipse rasterisation with Bresenham-type error terms, after
// A. Zingl, "A Rasterizing Algorithm for Drawing Curves" (2012): plain,
// antialiased, and antialiased with a stroke width. Nothing is drawn here;
// each pixel goes to the caller's callback with its coverage weight, 1
// minus the pixel's distance error normalised by the local gradient.
//
// Coordinates run in 64-bit integers and the error terms of the rectangle
// variants in doubles, so shapes anywhere in the int range neither overflow
// nor wrap; a pixel that falls outside the int range is skipped.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "image/raster_internal.hpp"
#include "vepra_img.h"

namespace vepra::detail {

namespace {

// The corners of a rectangle, normalised the way every rectangle variant
// starts: x0 <= x1, and y0/y1 the two middle rows (equal for an odd height
// difference count, y1 = y0 - 1 for an even one).
struct RectStart {
  int64_t a, b, b1;    // diameters and the parity of b
  int64_t x0, x1, y0, y1;
};

RectStart rect_start(int64_t x0, int64_t y0, int64_t x1, int64_t y1) noexcept {
  RectStart s{};
  s.a = x1 > x0 ? x1 - x0 : x0 - x1;
  s.b = y1 > y0 ? y1 - y0 : y0 - y1;
  s.b1 = s.b & 1;
  s.x0 = std::min(x0, x1);
  s.x1 = s.x0 + s.a;
  s.y0 = std::min(y0, y1) + (s.b + 1) / 2;
  s.y1 = s.y0 - s.b1;
  return s;
}

// Plain ellipse about a centre. The error terms grow as a * b^2; 64-bit
// integers hold them for semi-axes up to 2^19, wider integers beyond.
template <typename Wide, typename Plot>
vepra_error_t *ellipse_centre(Plot plot, int64_t xm, int64_t ym, int64_t a, int64_t b) noexcept {
  int64_t x = -a, y = 0;
  const Wide bb = Wide{b} * b, aa = Wide{a} * a;
  Wide dx = (1 + 2 * Wide{x}) * bb, dy = Wide{x} * x, err = dx + dy;
  do {
    if (!plot.four(xm - x, ym + y, xm + x, ym + y, xm + x, ym - y, xm - x, ym - y, 1.0))
      return plot.error();
    const Wide e2 = 2 * err;
    if (e2 >= dx) {
      ++x;
      dx += 2 * bb;
      err += dx;
    }
    if (e2 <= dy) {
      ++y;
      dy += 2 * aa;
      err += dy;
    }
  } while (x <= 0);
  // Flat ellipses (a = 1) stop before their tips: finish them on the column.
  while (y++ < b) {
    if (!plot(xm, ym + y, 1.0) || !plot(xm, ym - y, 1.0)) return plot.error();
  }
  return nullptr;
}

template <typename Plot>
vepra_error_t *ellipse_rect(Plot plot, int64_t x0, int64_t y0, int64_t x1, int64_t y1) noexcept {
  RectStart s = rect_start(x0, y0, x1, y1);
  const double a = static_cast<double>(s.a), b = static_cast<double>(s.b);
  double dx = 4 * (1.0 - a) * b * b, dy = 4 * static_cast<double>(s.b1 + 1) * a * a;
  double err = dx + dy + static_cast<double>(s.b1) * a * a;
  const double A = 8 * a * a, B = 8 * b * b;
  do {
    if (!plot.four(s.x1, s.y0, s.x0, s.y0, s.x0, s.y1, s.x1, s.y1, 1.0)) return plot.error();
    const double e2 = 2 * err;
    if (e2 <= dy) {
      ++s.y0;
      --s.y1;
      dy += A;
      err += dy;
    }
    if (e2 >= dx || 2 * err > dy) {
      ++s.x0;
      --s.x1;
      dx += B;
      err += dx;
    }
  } while (s.x0 <= s.x1);
  // Flat ellipses (a = 1) stop before their tips: finish them beside the
  // last columns.
  while (s.y0 - s.y1 <= s.b) {
    if (!plot(s.x0 - 1, s.y0, 1.0) || !plot(s.x1 + 1, s.y0, 1.0)) return plot.error();
    ++s.y0;
    if (!plot(s.x0 - 1, s.y1, 1.0) || !plot(s.x1 + 1, s.y1, 1.0)) return plot.error();
    --s.y1;
  }
  return nullptr;
}

}  // namespace

template <typename Plot>
vepra_error_t *ellipser_aa_internal(Plot plot, int64_t x0, int64_t y0, int64_t x1,
                                    int64_t y1) noexcept {
  if (x0 == x1 || y0 == y1) return plot.line(x0, y0, x1, y1) ? nullptr : plot.error();
  RectStart s = rect_start(x0, y0, x1, y1);
  const double a = static_cast<double>(s.a), b = static_cast<double>(s.b);
  double dx = 4 * (a - 1.0) * b * b, dy = 4 * static_cast<double>(s.b1 + 1) * a * a;
  double err = static_cast<double>(s.b1) * a * a - dx + dy;
  const double A = 8 * a * a, B = 8 * b * b, tip_scale = 4 / A;
  // The loop tracks the left column and the middle row of larger y; their
  // mirrors follow from the constant sums. Fewer live coordinates leave registers
  // for the callback across the calls.
  int64_t x = s.x0, y = s.y0;
  const int64_t xs = s.x0 + s.x1, ys = s.y0 + s.y1;
  // 1 / gradient: Zingl's approximation of 1 / sqrt(dx^2 + dy^2), or the
  // exact value at the flat x-tip (the two middle rows adjacent).
  const auto gradient_scale = [&](double gx, double gy, double e, int64_t row) {
    const double i = std::min(gx, gy), ed = std::max(gx, gy);
    if (2 * row == ys + 1 && e > gy && A > B) return tip_scale;
    return 1 / (ed + 2 * ed * i * i / (4 * ed * ed + i * i));
  };
  double scale = gradient_scale(dx, dy, err, y);
  for (;;) {
    const double w = 1 - std::fabs(err + dx - dy) * scale;
    const bool x_step = 2 * err + dy >= 0, y_step = 2 * err <= dx;
    if (x_step && 2 * x >= xs) {
      if (!plot.four(x, y, x, ys - y, xs - x, y, xs - x, ys - y, w)) return plot.error();
      break;
    }
    // Each step settles its moves, its weights and the next step's scale
    // before it reports its pixels: the scale's two dependent divisions
    // then run while the callbacks do.
    const double wx = 1 - (err + dx) * scale;  // the x step's pixel one row out
    const double wy = 1 - (dy - err) * scale;  // the y step's pixel one column in
    double next_dx = dx, next_dy = dy, next_err = err;
    if (y_step) {
      next_dy += A;
      next_err += next_dy;
    }
    if (x_step) {
      next_dx -= B;
      next_err -= next_dx;
    }
    scale = gradient_scale(next_dx, next_dy, next_err, y + y_step);
    if (!plot.four(x, y, x, ys - y, xs - x, y, xs - x, ys - y, w)) return plot.error();
    if (x_step && wx > 0 &&
        !plot.four(x, y + 1, x, ys - y - 1, xs - x, y + 1, xs - x, ys - y - 1, wx))
      return plot.error();
    if (y_step && wy > 0 &&
        !plot.four(x + 1, y, xs - x - 1, y, x + 1, ys - y, xs - x - 1, ys - y, wy))
      return plot.error();
    x += x_step;
    y += y_step;
    dx = next_dx;
    dy = next_dy;
    err = next_err;
  }
  s.x0 = x;
  s.x1 = xs - x;
  s.y0 = y;
  s.y1 = ys - y;
  // Flat ellipses stop too early: finish the tips on the last columns.
  if (--s.x0 == s.x1++) {
    while (s.y0 - s.y1 < s.b) {
      const double w = 1 - 4 * std::fabs(err + dx) / B;
      ++s.y0;
      if (!plot(s.x0, s.y0, w) || !plot(s.x1, s.y0, w)) return plot.error();
      --s.y1;
      if (!plot(s.x0, s.y1, w) || !plot(s.x1, s.y1, w)) return plot.error();
      dy += A;
      err += dy;
    }
  }
  return nullptr;
}

template <typename Plot>
vepra_error_t *ellipser_waa_internal(Plot plot, int64_t x0, int64_t y0, int64_t x1, int64_t y1,
                                     double th) noexcept {
  if (!(th >= 1.5)) return ellipser_aa_internal(plot, x0, y0, x1, y1);
  const int64_t ia = x1 > x0 ? x1 - x0 : x0 - x1, ib = y1 > y0 ? y1 - y0 : y0 - y1;
  const double a = static_cast<double>(ia), b = static_cast<double>(ib);
  const int64_t ib1 = ib & 1;
  const double b1 = static_cast<double>(ib1);
  // Outer diameters a, b; inner ones a2, b2, corrected for strokes so thick
  // that the inner curve would cross itself.
  double a2 = a - 2 * th, b2 = b - 2 * th;
  double dx = 4 * (a - 1) * b * b, dy = 4 * (b1 - 1) * a * a;
  const double sum = a + b2;
  double err = b1 * a * a;
  if ((th - 1) * (2 * b - th) > a * a) b2 = std::sqrt(a * (b - a) * sum * a2) / (a - th);
  if ((th - 1) * (2 * a - th) > b * b) {
    a2 = std::sqrt(b * (a - b) * sum * b2) / (b - th);
    th = (a - a2) / 2;
  }
  if (ia == 0 || ib == 0) return plot.line(x0, y0, x1, y1) ? nullptr : plot.error();
  if (x0 > x1) {
    x0 = x1;
    x1 += ia;
  }
  if (y0 > y1) y0 = y1;
  // A stroke the inner curve cannot hold fills the ellipse.
  if (b2 <= 0 || !std::isfinite(th)) th = a;
  // The whole pixels of the stroke are filled; its fractional part drives
  // the antialiasing of the inner edge. tx is the inner edge's column.
  double e2 = th - std::floor(th);
  int64_t tx = x0 + static_cast<int64_t>(std::min(std::floor(th), a + 1));
  double dx2 = 4 * (a2 + 2 * e2 - 1) * b2 * b2, dy2 = 4 * (b1 - 1) * a2 * a2;
  e2 = dx2 * e2;
  y0 += (ib + 1) >> 1;
  y1 = y0 - ib1;
  const double A = 8 * a * a, B = 8 * b * b, A2 = 8 * a2 * a2, B2 = 8 * b2 * b2;

  // The edge pixels' weights: 1 minus the distance error over the gradient
  // outside, the covered fraction inside. The gradient's length is Zingl's
  // approximation, or the exact value at a flat x-tip.
  const auto outer_weight = [&] {
    const double i = std::min(dx, dy);
    double ed = std::max(dx, dy);
    if (y0 == y1 + 1 && 2 * err > dx && A > B) {
      ed = A / 4;
    } else {
      ed += 2 * ed * i * i / (4 * ed * ed + i * i + 1) + 1;
    }
    return 1 - err / ed;
  };
  const auto inner_weight = [&] {
    const double i = std::min(dx2, dy2);
    double ed = std::max(dx2, dy2);
    if (y0 == y1 + 1 && 2 * e2 > dx2 && A2 > B2) {
      ed = A2 / 4;
    } else {
      ed += 2 * ed * i * i / (4 * ed * ed + i * i);
    }
    return e2 / ed;
  };

  // Each weight takes two dependent divisions. Both edges' first weights
  // of a row are settled before any of its pixels is reported, and each
  // edge settles its next weight before reporting a pixel, so that the
  // divisions run while the callbacks do.
  do {
    double outer = outer_weight(), inner = inner_weight();
    int64_t fill;  // first column of the solid part of this row
    for (;;) {     // outer edge, antialiased outside
      if (err < 0 || x0 > x1) {
        fill = x0;
        break;
      }
      const int64_t left = x0, right = x1;
      const double w = outer;
      const bool last = err + dy + A < dx;
      if (!last) {
        ++x0;
        --x1;
        err -= dx;
        dx -= B;
        outer = outer_weight();
      }
      if (!plot.four(left, y0, left, y1, right, y0, right, y1, w)) return plot.error();
      if (last) {
        fill = left + 1;
        break;
      }
    }
    for (; fill < tx && 2 * fill <= x0 + x1; ++fill) {  // solid stroke
      const int64_t mirror = x0 + x1 - fill;
      if (!plot.four(fill, y0, mirror, y0, fill, y1, mirror, y1, 1.0)) return plot.error();
    }
    while (e2 > 0 && x0 + x1 >= 2 * tx) {  // inner edge, antialiased inside
      const int64_t column = tx, mirror = x0 + x1 - tx;
      const double w = inner;
      const bool last = e2 + dy2 + A2 < dx2;
      if (!last) {
        ++tx;
        e2 -= dx2;
        dx2 -= B2;
        inner = inner_weight();
      }
      if (!plot.four(column, y0, mirror, y0, column, y1, mirror, y1, w)) return plot.error();
      if (last) break;
    }
    dy2 += A2;
    e2 += dy2;
    ++y0;
    --y1;
    dy += A;
    err += dy;
  } while (x0 < x1);

  // Flat ellipses stop too early: finish the tips on the last columns.
  if (y0 - y1 <= ib) {
    if (err > dy + A) {
      --y0;
      ++y1;
      dy -= A;
      err -= dy;
    }
    for (; y0 - y1 <= ib; dy += A, err += dy) {
      const double w = 1 - 4 * err / B;
      if (!plot(x0, y0, w) || !plot(x1, y0, w)) return plot.error();
      ++y0;
      if (!plot(x0, y1, w) || !plot(x1, y1, w)) return plot.error();
      --y1;
    }
  }
  return nullptr;
}

namespace {

// Half the rounded stroke width, the amount by which the stroke variants
// grow their rectangle so that the stroke is centred on the nominal curve.
// Widths beyond any drawable size are capped so the arithmetic stays exact.
int64_t half_stroke(double width) noexcept {
  if (!(width > 0)) return 0;
  const double capped = std::min(std::round(width), 0x1p32);
  return static_cast<int64_t>(capped) / 2;
}

double stroke_width(double width) noexcept {
  return width > 0 ? std::min(width, 0x1p32) : 0.0;
}

int64_t magnitude(int v) noexcept { return std::llabs(static_cast<int64_t>(v)); }

// Runs draw(plot) with the plotter that suits the box [xlo, xhi] x [ylo,
// yhi] of a shape: unchecked when every pixel the shape can report (two
// beyond the box) fits an int, range-checked otherwise.
template <typename Draw>
vepra_error_t *draw_in_box(vepra_img_pixel_fn fn, void *data, int64_t xlo, int64_t ylo, int64_t xhi,
                           int64_t yhi, const Draw &draw) noexcept {
  if (fn == nullptr) return nullptr;
  constexpr int64_t kMargin = 2;
  if (std::min(xlo, ylo) - kMargin >= INT_MIN && std::max(xhi, yhi) + kMargin <= INT_MAX) {
    BasicPlotter<false> plot(fn, data);
    return draw(plot);
  }
  Plotter plot(fn, data);
  return draw(plot);
}

template <typename Plot>
vepra_error_t *circle(Plot plot, int64_t xm, int64_t ym, int64_t r) noexcept {
  int64_t x = -r, y = 0, err = 2 - 2 * r;
  do {
    if (!plot.four(xm - x, ym + y, xm - y, ym - x, xm + x, ym - y, xm + y, ym + x, 1.0))
      return plot.error();
    const int64_t step = err;
    if (step <= y) {
      ++y;
      err += y * 2 + 1;
    }
    if (step > x || err > y) {
      ++x;
      err += x * 2 + 1;
    }
  } while (x < 0);
  return nullptr;
}

template <typename Plot>
vepra_error_t *circle_aa(Plot plot, int64_t xm, int64_t ym, int64_t r) noexcept {
  int64_t x = r, y = 0, err = 2 - 2 * x;
  const double R = static_cast<double>(1 - err);
  for (;;) {
    if (!plot.four(xm + x, ym - y, xm + y, ym + x, xm - x, ym + y, xm - y, ym - x,
                   1 - static_cast<double>(std::llabs(err + 2 * (x + y) - 2)) / R))
      return plot.error();
    if (x == 0) break;
    const int64_t e2 = err;
    int64_t x2 = x;
    if (err > y) {  // x step: the pixel outside the curve
      const double w = 1 - static_cast<double>(err + 2 * x - 1) / R;
      if (w > 0 && !plot.four(xm + x, ym - y + 1, xm + y - 1, ym + x, xm - x, ym + y - 1,
                              xm - y + 1, ym - x, w))
        return plot.error();
      --x;
      err -= x * 2 - 1;
    }
    if (e2 <= x2) {  // y step: the pixel inside the curve
      --x2;
      const double w = 1 - static_cast<double>(1 - 2 * y - e2) / R;
      if (w > 0 && !plot.four(xm + x2, ym - y, xm + y, ym + x2, xm - x2, ym + y, xm - y, ym - x2, w))
        return plot.error();
      --y;
      err -= y * 2 - 1;
    }
  }
  return nullptr;
}

// The stroke variants' rectangle, grown by half the stroke away from its
// centre whichever corner comes first.
vepra_error_t *wide_rect(vepra_img_pixel_fn fn, void *data, int64_t x0, int64_t y0, int64_t x1,
                         int64_t y1, double width) noexcept {
  const int64_t h = half_stroke(width);
  const int64_t lx = std::min(x0, x1) - h, hx = std::max(x0, x1) + h;
  const int64_t ly = std::min(y0, y1) - h, hy = std::max(y0, y1) + h;
  const double th = stroke_width(width);
  return draw_in_box(fn, data, lx, ly, hx, hy, [&](auto &plot) {
    return ellipser_waa_internal(plot, x0 <= x1 ? lx : hx, y0 <= y1 ? ly : hy, x0 <= x1 ? hx : lx,
                                 y0 <= y1 ? hy : ly, th);
  });
}

}  // namespace

template vepra_error_t *ellipser_aa_internal<Plotter>(Plotter, int64_t, int64_t, int64_t,
                                                      int64_t) noexcept;
template vepra_error_t *ellipser_waa_internal<Plotter>(Plotter, int64_t, int64_t, int64_t, int64_t,
                                                       double) noexcept;

}  // namespace vepra::detail

using vepra::detail::draw_in_box;
using vepra::detail::magnitude;

extern "C" {

vepra_error_t *vepra_img_circle(int xm, int ym, int r, vepra_img_pixel_fn fn, void *data) noexcept {
  const int64_t m = magnitude(r);
  return draw_in_box(fn, data, xm - m, ym - m, xm + m, ym + m,
                     [&](auto &plot) { return vepra::detail::circle(plot, xm, ym, r); });
}

vepra_error_t *vepra_img_circle_aa(int xm, int ym, int r, vepra_img_pixel_fn fn,
                                   void *data) noexcept {
  const int64_t m = magnitude(r);
  return draw_in_box(fn, data, xm - m, ym - m, xm + m, ym + m,
                     [&](auto &plot) { return vepra::detail::circle_aa(plot, xm, ym, m); });
}

vepra_error_t *vepra_img_circle_waa(int xm, int ym, int r, vepra_img_pixel_fn fn, void *data,
                                    double width) noexcept {
  const int64_t m = magnitude(r);
  return vepra::detail::wide_rect(fn, data, xm - m, ym - m, xm + m, ym + m, width);
}

vepra_error_t *vepra_img_ellipse(int xm, int ym, int a, int b, vepra_img_pixel_fn fn,
                                 void *data) noexcept {
  const int64_t ma = magnitude(a), mb = magnitude(b);
  return draw_in_box(fn, data, xm - ma, ym - mb, xm + ma, ym + mb, [&](auto &plot) {
    // The error terms grow as a * b^2: 64-bit integers hold them for
    // semi-axes up to 2^19, 128-bit ones beyond.
    constexpr int64_t kNarrow = 1 << 19;
    if (ma < kNarrow && mb < kNarrow)
      return vepra::detail::ellipse_centre<int64_t>(plot, xm, ym, a, b);
    return vepra::detail::ellipse_centre<__int128>(plot, xm, ym, a, b);
  });
}

vepra_error_t *vepra_img_ellipser(int x0, int y0, int x1, int y1, vepra_img_pixel_fn fn,
                                  void *data) noexcept {
  return draw_in_box(fn, data, std::min(x0, x1), std::min(y0, y1), std::max(x0, x1),
                     std::max(y0, y1),
                     [&](auto &plot) { return vepra::detail::ellipse_rect(plot, x0, y0, x1, y1); });
}

vepra_error_t *vepra_img_ellipse_aa(int xm, int ym, int a, int b, vepra_img_pixel_fn fn,
                                    void *data) noexcept {
  const int64_t ma = magnitude(a), mb = magnitude(b);
  return draw_in_box(fn, data, xm - ma, ym - mb, xm + ma, ym + mb, [&](auto &plot) {
    return vepra::detail::ellipser_aa_internal(plot, xm - ma, ym - mb, xm + ma, ym + mb);
  });
}

vepra_error_t *vepra_img_ellipser_aa(int x0, int y0, int x1, int y1, vepra_img_pixel_fn fn,
                                     void *data) noexcept {
  return draw_in_box(fn, data, std::min(x0, x1), std::min(y0, y1), std::max(x0, x1),
                     std::max(y0, y1), [&](auto &plot) {
                       return vepra::detail::ellipser_aa_internal(plot, x0, y0, x1, y1);
                     });
}

vepra_error_t *vepra_img_ellipse_waa(int xm, int ym, int a, int b, vepra_img_pixel_fn fn,
                                     void *data, double width) noexcept {
  const int64_t ma = magnitude(a), mb = magnitude(b);
  return vepra::detail::wide_rect(fn, data, xm - ma, ym - mb, xm + ma, ym + mb, width);
}

vepra_error_t *vepra_img_ellipser_waa(int x0, int y0, int x1, int y1, vepra_img_pixel_fn fn,
                                      void *data, double width) noexcept {
  return vepra::detail::wide_rect(fn, data, x0, y0, x1, y1, width);
}

}  // extern "C"
