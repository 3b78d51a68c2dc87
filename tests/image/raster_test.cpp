// Circle and ellipse rasterisers: pixel sequences recorded from the
// published reference rasterisers, and the documented edge cases.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "image/raster_internal.hpp"
#include "support/test_support.hpp"
#include "vepra_img.h"

namespace {

struct Pixel {
  long long x, y;
  double weight;
};

vepra_error_t *collect(int x, int y, void *data, double weight) {
  static_cast<std::vector<Pixel> *>(data)->push_back({x, y, weight});
  return nullptr;
}

using Draw = std::function<vepra_error_t *(vepra_img_pixel_fn, void *)>;

std::vector<Pixel> pixels_of(const Draw &draw) {
  std::vector<Pixel> out;
  EXPECT_EQ(draw(collect, &out), nullptr);
  return out;
}

// The drawing a line of the reference file (or a test) names, with its arguments.
Draw draw_for(const std::string &name, const long long (&v)[5], double width) {
  const int a = static_cast<int>(v[0]), b = static_cast<int>(v[1]), c = static_cast<int>(v[2]),
            d = static_cast<int>(v[3]);
  using Fn = vepra_img_pixel_fn;
  const std::map<std::string, Draw> all = {
      {"circle", [=](Fn f, void *p) { return vepra_img_circle(a, b, c, f, p); }},
      {"circle_aa", [=](Fn f, void *p) { return vepra_img_circle_aa(a, b, c, f, p); }},
      {"circle_waa", [=](Fn f, void *p) { return vepra_img_circle_waa(a, b, c, f, p, width); }},
      {"ellipse", [=](Fn f, void *p) { return vepra_img_ellipse(a, b, c, d, f, p); }},
      {"ellipse_aa", [=](Fn f, void *p) { return vepra_img_ellipse_aa(a, b, c, d, f, p); }},
      {"ellipse_waa",
       [=](Fn f, void *p) { return vepra_img_ellipse_waa(a, b, c, d, f, p, width); }},
      {"ellipser", [=](Fn f, void *p) { return vepra_img_ellipser(a, b, c, d, f, p); }},
      {"ellipser_aa", [=](Fn f, void *p) { return vepra_img_ellipser_aa(a, b, c, d, f, p); }},
      {"ellipser_waa",
       [=](Fn f, void *p) { return vepra_img_ellipser_waa(a, b, c, d, f, p, width); }},
  };
  if (all.count(name) != 0) return all.at(name);
  return [=](Fn f, void *p) {
    vepra::detail::Plotter plot(f, p);
    return vepra::detail::ellipser_waa_internal(plot, a, b, c, d, width);
  };
}

// The reference reports intensities 0..255 (0 full) truncated from floats, the
// library weights 1 - intensity / 255 in doubles, leaving out the neighbours of
// weight 0 the reference reports at 255; otherwise they agree pixel for pixel.
TEST(Raster, MatchesTheReferenceSequences) {
  gzFile file = gzopen(VEPRA_TEST_DATA_DIR "/raster_reference.txt.gz", "rb");
  ASSERT_NE(file, nullptr);
  std::string text;
  char buf[65536];
  for (int n; (n = gzread(file, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  gzclose(file);
  std::istringstream lines(text);
  int shapes = 0;
  for (std::string line; std::getline(lines, line); ++shapes) {
    std::istringstream in(line);
    std::string name;
    long long v[5];
    double width;
    in >> name >> v[0] >> v[1] >> v[2] >> v[3] >> width >> v[4];
    std::vector<Pixel> ref;
    for (std::string t; in >> t;) {
      long long x, y, i;
      ASSERT_EQ(std::sscanf(t.c_str(), "%lld,%lld,%lld", &x, &y, &i), 3);
      ref.push_back({x, y, 1 - static_cast<double>(i) / 255});
    }
    const std::vector<Pixel> ours = pixels_of(draw_for(name, v, width));
    size_t r = 0, o = 0;
    while (r < ref.size() || o < ours.size()) {
      const bool same = r < ref.size() && o < ours.size() && ref[r].x == ours[o].x &&
                        ref[r].y == ours[o].y &&
                        std::fabs(ref[r].weight - ours[o].weight) <= 1.5 / 255;
      if (same) {
        ++r, ++o;
      } else if (r < ref.size() && ref[r].weight <= 0) {
        ++r;
      } else if (o < ours.size() && ours[o].weight > 0 && ours[o].weight <= 1.5 / 255) {
        ++o;
      } else {
        ADD_FAILURE() << line.substr(0, 48) << ": pixel " << r << " of the reference / " << o
                      << " of ours differs";
        break;
      }
    }
  }
  EXPECT_GT(shapes, 200);
}

std::multiset<std::pair<long long, long long>> positions(const std::vector<Pixel> &px) {
  std::multiset<std::pair<long long, long long>> s;
  for (const Pixel &p : px) s.insert({p.x, p.y});
  return s;
}

// The cases the reference rasterisers do not cover.
TEST(Raster, DocumentedEdgeCases) {
  auto drawn = [](const char *name, int a, int b, int c, int d, double width) {
    return pixels_of(draw_for(name, {a, b, c, d, 0}, width));
  };
  // Width 3 grows the square by 1 on every side; 1.2 is the thin circle.
  EXPECT_EQ(positions(drawn("circle_waa", 0, 0, 10, 0, 3.0)),
            positions(drawn("internal", -11, -11, 11, 11, 3.0)));
  EXPECT_EQ(positions(drawn("circle_waa", 0, 0, 10, 0, 1.2)),
            positions(drawn("ellipse_aa", 0, 0, 10, 10, 0)));
  // The corners of a rectangle may come in any order.
  for (auto [x0, y0, x1, y1] : {std::array{13, 8, 2, 1}, std::array{2, 8, 13, 1}}) {
    for (double width : {0.0, 1.0, 3.0}) {
      const char *name = width == 0 ? "ellipser" : "ellipser_waa";
      EXPECT_EQ(positions(drawn(name, x0, y0, x1, y1, width)),
                positions(drawn(name, 2, 1, 13, 8, width)))
          << x0 << "," << y0 << " width " << width;
    }
  }
  // Degenerate rectangles give the line between the corners, either way.
  for (double width : {1.0, 4.0}) {
    for (int step : {1, -1}) {
      const int from = step > 0 ? 0 : -1;
      const auto line = drawn("internal", from, 2, from + 7 * step, 2, width);
      ASSERT_EQ(line.size(), 8u);
      for (size_t k = 0; k < line.size(); ++k) {
        EXPECT_EQ(std::tuple(line[k].x, line[k].y, line[k].weight),
                  std::tuple(from + step * static_cast<long long>(k), 2LL, 1.0));
      }
    }
  }
}

vepra_error_t *refuse(int, int, void *data, double) {
  ++*static_cast<int *>(data);
  return vepra_error_create_i(0, 7, 0, nullptr, nullptr, nullptr, "stop");
}

// Every drawing stops at the first pixel its callback refuses, with its error.
TEST(Raster, CallbackErrorStopsAtTheFirstPixel) {
  ASSERT_EQ(vepra_initialize(), 0);
  for (const char *name : {"circle", "circle_aa", "circle_waa", "ellipse", "ellipser", "ellipse_aa",
                           "ellipser_aa", "ellipse_waa", "ellipser_waa"}) {
    int calls = 0;
    vepra_test::Chain e(draw_for(name, {0, 0, 9, 4, 0}, 3)(refuse, &calls));
    ASSERT_NE(e, nullptr) << name;
    EXPECT_EQ(std::pair(e->code, calls), std::pair(7, 1));
  }
  vepra_terminate();
}

// Shapes at the ends of the int range neither overflow nor leave the range.
TEST(Raster, ExtremeCoordinatesStayInRange) {
  auto weighed = [](int, int, void *, double w) -> vepra_error_t * {
    EXPECT_FALSE(std::isnan(w));
    return nullptr;
  };
  EXPECT_EQ(vepra_img_circle(INT_MAX, INT_MIN, 3, weighed, nullptr), nullptr);
  EXPECT_EQ(vepra_img_ellipse(INT_MAX - 2, 0, 2, 1 << 20, weighed, nullptr), nullptr);
  EXPECT_EQ(vepra_img_ellipser_aa(INT_MIN, INT_MIN, INT_MIN + 9, INT_MIN + 5, weighed, nullptr),
            nullptr);
  EXPECT_EQ(vepra_img_ellipser_waa(INT_MAX - 6, 0, INT_MAX, 9, weighed, nullptr, -3.0), nullptr);
  EXPECT_EQ(vepra_img_circle_waa(0, 0, 5, weighed, nullptr, std::nan("")), nullptr);

  // Near either end, a circle gives the pixels of the same circle drawn at
  // the origin, moved there, less those past the end (none wrap around).
  for (const char *name : {"circle", "circle_aa"}) {
    const auto at_origin = positions(pixels_of(draw_for(name, {0, 0, 3, 0, 0}, 0)));
    for (long long end : {INT_MIN + 1LL, INT_MAX - 1LL}) {
      for (auto [dx, dy] : {std::pair{end, 0LL}, std::pair{0LL, end}}) {
        std::multiset<std::pair<long long, long long>> moved;
        for (auto [x, y] : at_origin) {
          if (std::min(x + dx, y + dy) >= INT_MIN && std::max(x + dx, y + dy) <= INT_MAX)
            moved.insert({x + dx, y + dy});
        }
        EXPECT_EQ(positions(pixels_of(draw_for(name, {dx, dy, 3, 0, 0}, 0))), moved) << name << end;
      }
    }
  }
}

}  // namespace
