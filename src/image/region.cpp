// Intensity inside a circle, ellipse or rectangle of a grayscale image,
// with the background taken from a ring around it: how a spot on an
// imaging-plate scan is quantified.
//
// A region is walked row by row. Each row is cut into sixteen sub-rows; a
// shape gives every sub-row an interval of x, and a pixel's coverage is its
// mean overlap with those intervals. Pixels covered on every sub-row form
// one solid span per row, summed in a tight loop; only the few pixels at
// the edge get a coverage below 1. A ring is the outer shape less the inner
// one, the inner shape's solid span skipped as a whole.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "core/error_internal.hpp"
#include "image/measure_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra::detail::kFullScale;
using vepra::detail::kLevels;

constexpr const char *kContext = "Cannot measure image region.";
constexpr int kSubRows = 16;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// An ellipse (semi-axes ax, by about cx, cy) or an axis-parallel box
// (cx - ax .. cx + ax by cy - by .. cy + by) in pixel coordinates, where
// pixel (c, r) is the unit square centred on (c, r).
struct Shape {
  bool box;
  double cx, cy, ax, by;

  // The x interval of the shape on the horizontal line y; empty (lo > hi)
  // where the line misses it.
  void span(double y, double &lo, double &hi) const noexcept {
    const double t = (y - cy) / by;
    if (!(std::fabs(t) <= 1.0) || ax <= 0) {
      lo = 1;
      hi = 0;
      return;
    }
    const double half = box ? ax : ax * std::sqrt(std::max(0.0, 1.0 - t * t));
    lo = cx - half;
    hi = cx + half;
  }
};

// One row of a shape: the sub-row intervals, the columns covered on every
// sub-row (solid_lo..solid_hi) and the columns touched at all (lo..hi).
struct Row {
  std::array<double, kSubRows> l, h;
  int64_t lo = 1, hi = 0, solid_lo = 1, solid_hi = 0;

  Row() = default;
  Row(const Shape &s, int64_t r) noexcept {
    double inner_lo = -std::numeric_limits<double>::infinity();
    double inner_hi = std::numeric_limits<double>::infinity();
    double outer_lo = std::numeric_limits<double>::infinity();
    double outer_hi = -std::numeric_limits<double>::infinity();
    for (int k = 0; k < kSubRows; ++k) {
      s.span(static_cast<double>(r) - 0.5 + (k + 0.5) / kSubRows, l[k], h[k]);
      if (l[k] > h[k]) {
        inner_lo = 1;
        inner_hi = 0;
        continue;
      }
      inner_lo = std::max(inner_lo, l[k]);
      inner_hi = std::min(inner_hi, h[k]);
      outer_lo = std::min(outer_lo, l[k]);
      outer_hi = std::max(outer_hi, h[k]);
    }
    if (outer_lo > outer_hi) return;
    lo = clamp_column(std::floor(outer_lo + 0.5));
    hi = clamp_column(std::ceil(outer_hi - 0.5));
    if (inner_lo <= inner_hi) {
      solid_lo = clamp_column(std::ceil(inner_lo + 0.5));
      solid_hi = clamp_column(std::floor(inner_hi - 0.5));
    }
  }

  // Columns beyond any image are clamped so that they convert safely.
  static int64_t clamp_column(double c) noexcept {
    return static_cast<int64_t>(std::clamp(c, -2.0, 4294967296.0));
  }

  bool touches(int64_t c) const noexcept { return c >= lo && c <= hi; }
  bool solid(int64_t c) const noexcept { return c >= solid_lo && c <= solid_hi; }

  double coverage(int64_t c) const noexcept {
    if (solid(c)) return 1.0;
    if (!touches(c)) return 0.0;
    const double left = static_cast<double>(c) - 0.5, right = left + 1.0;
    double sum = 0;
    for (int k = 0; k < kSubRows; ++k) sum += std::max(0.0, std::min(right, h[k]) - std::max(left, l[k]));
    return sum / kSubRows;
  }
};

struct Accumulator {
  double area = 0, sum = 0, psl = 0;
  double min = std::numeric_limits<double>::infinity();
  double max = -std::numeric_limits<double>::infinity();

  vepra_img_region_t result() const noexcept {
    vepra_img_region_t r{};
    r.area = area;
    r.sum = sum;
    r.psl_sum = psl;
    const bool any = min <= max;
    r.mean = area > 0 ? sum / area : kNaN;
    r.min = any ? min : kNaN;
    r.max = any ? max : kNaN;
    return r;
  }
};

// Adds the covered pixels of outer less inner (inner may be null) on the
// image's rows.
template <typename Sample>
void accumulate(const vepra_img_t &img, const Sample *const *rows, const Shape &outer,
                const Shape *inner, const double *psl_table, Accumulator &acc) noexcept {
  const double top = std::max(0.0, std::floor(outer.cy - outer.by - 1));
  const double bottom = std::min(static_cast<double>(img.height) - 1, std::ceil(outer.cy + outer.by + 1));
  if (!(top <= bottom)) return;  // wholly above or below the image
  const int64_t width = img.width;
  for (int64_t r = static_cast<int64_t>(top); static_cast<double>(r) <= bottom; ++r) {
    const Row o(outer, r);
    const Row i = inner != nullptr ? Row(*inner, r) : Row();
    const Sample *row = rows[r];
    const int64_t end = std::min(o.hi, width - 1);
    for (int64_t c = std::max<int64_t>(o.lo, 0); c <= end;) {
      if (i.solid(c)) {  // wholly inside the hole
        c = i.solid_hi + 1;
        continue;
      }
      if (o.solid(c) && !i.touches(c)) {  // a solid run
        int64_t last = std::min(o.solid_hi, end);
        if (i.lo > c) last = std::min(last, i.lo - 1);
        uint64_t sum = 0;
        Sample lo = row[c], hi = row[c];
        double psl = 0;
        // 32-bit partial sums vectorise better and cannot overflow within
        // a block of 65536 samples.
        for (int64_t block = c; block <= last; block += 65536) {
          const int64_t block_end = std::min(last, block + 65535);
          uint32_t part = 0;
          for (int64_t k = block; k <= block_end; ++k) {
            part += row[k];
            lo = std::min(lo, row[k]);
            hi = std::max(hi, row[k]);
          }
          sum += part;
        }
        if (psl_table != nullptr) {
          for (int64_t k = c; k <= last; ++k) psl += psl_table[row[k]];
        }
        acc.area += static_cast<double>(last - c + 1);
        acc.sum += static_cast<double>(sum);
        acc.psl += psl;
        acc.min = std::min(acc.min, static_cast<double>(lo));
        acc.max = std::max(acc.max, static_cast<double>(hi));
        c = last + 1;
        continue;
      }
      const double cover = o.coverage(c) - i.coverage(c);
      if (cover > 0) {
        const double s = row[c];
        acc.area += cover;
        acc.sum += cover * s;
        if (psl_table != nullptr) acc.psl += cover * psl_table[row[c]];
        acc.min = std::min(acc.min, s);
        acc.max = std::max(acc.max, s);
      }
      ++c;
    }
  }
}

bool finite_size(double v) noexcept { return std::isfinite(v) && v >= 0; }

// The region's own shape and its ring's two shapes, or a code-0 error
// naming what is wrong with the description.
vepra_error_t *shapes_of(const vepra_img_roi_t &roi, Shape &spot, Shape &ring_in, Shape &ring_out,
                         bool &has_ring) noexcept {
  if (!std::isfinite(roi.x) || !std::isfinite(roi.y) || !std::isfinite(roi.a) || !std::isfinite(roi.b))
    return vepra::detail::make_error(0, "The region's coordinates are not finite numbers.");
  switch (roi.shape) {
    case VEPRA_IMG_ROI_CIRCLE:
      if (roi.a < 0) return vepra::detail::make_error(0, "The circle's radius is negative: %g.", roi.a);
      spot = Shape{false, roi.x, roi.y, roi.a, roi.a};
      break;
    case VEPRA_IMG_ROI_ELLIPSE:
      if (roi.a < 0 || roi.b < 0)
        return vepra::detail::make_error(0, "The ellipse's semi-axes are negative: %g, %g.", roi.a, roi.b);
      spot = Shape{false, roi.x, roi.y, roi.a, roi.b};
      break;
    case VEPRA_IMG_ROI_RECT: {
      // Corners are pixels, both included.
      const double x0 = std::min(roi.x, roi.a), x1 = std::max(roi.x, roi.a);
      const double y0 = std::min(roi.y, roi.b), y1 = std::max(roi.y, roi.b);
      spot = Shape{true, (x0 + x1) / 2, (y0 + y1) / 2, (x1 - x0 + 1) / 2, (y1 - y0 + 1) / 2};
      break;
    }
    default:
      return vepra::detail::make_error(0, "Unknown region shape: %d.", roi.shape);
  }
  has_ring = roi.ring_outer != 0 || roi.ring_inner != 0;
  if (!has_ring) return nullptr;
  if (!finite_size(roi.ring_inner) || !finite_size(roi.ring_outer) || roi.ring_outer <= roi.ring_inner)
    return vepra::detail::make_error(0, "The background ring needs 0 <= inner < outer, not %g and %g.",
                                     roi.ring_inner, roi.ring_outer);
  // A circle's ring is given by radii, the other shapes' by scale factors
  // of their own size.
  const bool radii = roi.shape == VEPRA_IMG_ROI_CIRCLE;
  auto scaled = [&](double k) {
    Shape s = spot;
    s.ax = radii ? k : spot.ax * k;
    s.by = radii ? k : spot.by * k;
    return s;
  };
  ring_in = scaled(roi.ring_inner);
  ring_out = scaled(roi.ring_outer);
  return nullptr;
}

}  // namespace

extern "C" {

vepra_error_t *vepra_img_measure_roi(const vepra_img_t *img, const vepra_img_roi_t *roi,
                                     const vepra_img_plate_t *plate, vepra_img_measure_t *out) noexcept {
  if (vepra_error_t *e = vepra::detail::check_measurable(img, out, kContext)) return e;
  if (roi == nullptr) return vepra::detail::make_wrapped(0, kContext, "No region was given.");
  Shape spot{}, ring_in{}, ring_out{};
  bool has_ring = false;
  if (vepra_error_t *e = shapes_of(*roi, spot, ring_in, ring_out, has_ring))
    return vepra::detail::wrap_error(e, "%s", kContext);

  const bool is16 = img->bits_per_sample[0] == 16;
  double *table = nullptr;
  if (plate != nullptr) {
    void *block = nullptr;
    if (vepra_error_t *e = vepra_mem_malloc((is16 ? 65536 : 256) * sizeof(double), &block))
      return vepra::detail::wrap_error(e, "%s", kContext);
    table = static_cast<double *>(block);
  }
  Accumulator spot_acc, ring_acc;
  vepra::detail::with_rows(*img, [&](const auto *rows) {
    using Sample = std::remove_cvref_t<decltype(**rows)>;
    if (table != nullptr) {
      const vepra::detail::FujiFormula<Sample> psl = vepra::detail::fuji_formula<Sample>(
          *img, plate->pixel_size, plate->sensitivity, plate->latitude);
      for (size_t s = 0; s < kLevels<Sample>; ++s) table[s] = psl(static_cast<Sample>(s));
    }
    if (vepra::detail::image_is_empty(*img)) return;
    accumulate(*img, rows, spot, nullptr, table, spot_acc);
    if (has_ring) accumulate(*img, rows, ring_out, &ring_in, table, ring_acc);
  });
  vepra_mem_free(table);

  vepra_img_measure_t m{};
  m.region = spot_acc.result();
  if (has_ring) {
    m.ring = ring_acc.result();
    m.background = m.ring.mean;
    m.psl_background = ring_acc.area > 0 ? ring_acc.psl / ring_acc.area : kNaN;
  } else {
    m.ring = Accumulator{}.result();
  }
  m.corrected = m.region.sum - (has_ring ? m.background * m.region.area : 0.0);
  m.psl_corrected = m.region.psl_sum - (has_ring ? m.psl_background * m.region.area : 0.0);
  *out = m;
  return nullptr;
}

}  // extern "C"
