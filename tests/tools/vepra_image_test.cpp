// The vepra-image program, run as a user would: a sample scan is made,
// then inspected and measured; results are checked against the pixels as
// libtiff reads them.
#include <sys/wait.h>
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace {

using vepra_test::temp_path;

struct ToolRun {
  int status = -1;
  std::string out, err;
};

std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

[[maybe_unused]] std::string quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

ToolRun run_tool(const std::vector<std::string> &args) {
#ifdef VEPRA_IMAGE_TOOL
  const std::string out = temp_path("stdout"), err = temp_path("stderr");
  std::string cmd = quote(VEPRA_IMAGE_TOOL);
  for (const std::string &a : args) cmd += " " + quote(a);
  cmd += " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
  const int raw = std::system(cmd.c_str());
  ToolRun r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
#else
  (void)args;
  return ToolRun{};
#endif
}

// A grayscale TIFF as libtiff reads it.
struct Pixels {
  uint32_t width = 0, height = 0;
  uint16_t bits = 0, photometric = 0;
  std::vector<uint32_t> samples;
};

Pixels read_with_libtiff(const std::string &path) {
  Pixels p;
  TIFFSetWarningHandler(nullptr);
  TIFF *t = TIFFOpen(path.c_str(), "r");
  EXPECT_NE(t, nullptr) << path;
  if (t == nullptr) return p;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &p.width);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &p.height);
  TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &p.bits);
  TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &p.photometric);
  std::vector<unsigned char> line(TIFFScanlineSize(t));
  for (uint32_t r = 0; r < p.height; ++r) {
    EXPECT_EQ(TIFFReadScanline(t, line.data(), r), 1);
    for (uint32_t c = 0; c < p.width; ++c) {
      p.samples.push_back(p.bits == 8 ? line[c] : line[2 * c] | (line[2 * c + 1] << 8));
    }
  }
  TIFFClose(t);
  return p;
}

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> parts;
  std::stringstream ss(s);
  for (std::string part; std::getline(ss, part, sep);) parts.push_back(part);
  return parts;
}

class VepraImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef VEPRA_IMAGE_TOOL
    GTEST_SKIP() << "vepra-image is not built";
#endif
  }
};

TEST_F(VepraImageTest, SynthInfoStatsAndMeasures) {
  const std::string scan = temp_path("scan.tif");
  ToolRun r = run_tool({"synth", "-o", scan, "--width", "64", "--height", "48", "--pattern", "5"});
  ASSERT_EQ(r.status, 0) << r.err;
  const Pixels px = read_with_libtiff(scan);
  ASSERT_EQ(px.width, 64u);
  ASSERT_EQ(px.height, 48u);
  ASSERT_EQ(px.bits, 16);
  EXPECT_EQ(px.photometric, PHOTOMETRIC_MINISBLACK);
  // Deterministic, and the pattern matters; a spot saturates the scale.
  const std::string again = temp_path("again.tif"), other = temp_path("other.tif");
  ASSERT_EQ(run_tool({"synth", "-o", again, "--width=64", "--height=48", "--pattern=5"}).status, 0);
  ASSERT_EQ(run_tool({"synth", "-o", other, "--width=64", "--height=48", "--pattern=6"}).status, 0);
  EXPECT_EQ(slurp(scan), slurp(again));
  EXPECT_NE(slurp(scan), slurp(other));
  EXPECT_EQ(*std::max_element(px.samples.begin(), px.samples.end()), 65535u);

  r = run_tool({"info", scan});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char *line : {"size: 64 x 48 pixels\n", "depth: 16 bits per sample, 1 sample(s) per pixel\n",
                           "photometric: 1 (BlackIsZero)\n", "resolution: none\n",
                           "software: VEPRA 1.0.0\n", "strips: 1\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << " in\n" << r.out;
  }

  const std::string csv = temp_path("hist.csv");
  r = run_tool({"stats", "--histogram", csv, scan});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = split(r.out, '\n');
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_EQ(lines[0], "file\tmin\tmax\tmean\tentropy\tthreshold");
  const std::vector<std::string> f = split(lines[1], '\t');
  ASSERT_EQ(f.size(), 6u);
  EXPECT_EQ(f[0], scan);
  std::map<uint32_t, uint64_t> counts;
  double sum = 0;
  for (uint32_t s : px.samples) {
    ++counts[s];
    sum += s;
  }
  EXPECT_EQ(std::stoul(f[1]), counts.begin()->first);
  EXPECT_EQ(std::stoul(f[2]), counts.rbegin()->first);
  EXPECT_NEAR(std::stod(f[3]), sum / px.samples.size(), 1e-4);
  double entropy = 0;
  for (auto [v, n] : counts) {
    const double p = double(n) / px.samples.size();
    entropy -= p * std::log2(p);
  }
  EXPECT_NEAR(std::stod(f[4]), entropy, 1e-6);
  const double threshold = std::stod(f[5]);
  EXPECT_GT(threshold, counts.begin()->first);
  EXPECT_LT(threshold, counts.rbegin()->first);

  const std::vector<std::string> rows = split(slurp(csv), '\n');
  ASSERT_EQ(rows.size(), 65537u);
  EXPECT_EQ(rows[0], "value," + scan);
  for (size_t v = 0; v < 65536; ++v) {
    auto it = counts.find(uint32_t(v));
    ASSERT_EQ(rows[v + 1], std::to_string(v) + "," + std::to_string(it == counts.end() ? 0 : it->second));
  }

  // Density of a BlackIsZero scan falls as the sample rises: after linear
  // scaling the written samples keep the reverse order of the inputs.
  const std::string dens = temp_path("density.tif");
  r = run_tool({"density", scan, "-o", dens});
  ASSERT_EQ(r.status, 0) << r.err;
  const Pixels d = read_with_libtiff(dens);
  ASSERT_EQ(d.width, 64u);
  ASSERT_EQ(d.height, 48u);
  ASSERT_EQ(d.bits, 16);
  std::vector<std::pair<uint32_t, uint32_t>> pairs;
  for (size_t i = 0; i < px.samples.size(); ++i) {
    if (px.samples[i] != 65535) pairs.emplace_back(px.samples[i], d.samples[i]);
  }
  std::sort(pairs.begin(), pairs.end());
  for (size_t i = 1; i < pairs.size(); ++i) ASSERT_LE(pairs[i].second, pairs[i - 1].second);
  EXPECT_EQ(pairs.front().second, 65535u);  // the darkest input is the densest

  for (const char *cmd : {"mask", "psl"}) {
    const std::string out = temp_path(std::string(cmd) + ".tif");
    r = run_tool({cmd, scan, "-o", out});
    ASSERT_EQ(r.status, 0) << cmd << ": " << r.err;
    const Pixels m = read_with_libtiff(out);
    EXPECT_EQ(m.width * m.height, 64u * 48u) << cmd;
  }
}

TEST_F(VepraImageTest, FailuresPrintTheChainAndExitNonZero) {
  const std::string missing = temp_path("missing.tif");
  ToolRun r = run_tool({"info", missing});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.empty());
  const std::vector<std::string> lines = split(r.err, '\n');
  ASSERT_GE(lines.size(), 2u) << r.err;
  EXPECT_EQ(lines.front(), "Error(120030): Cannot open image '" + missing + "'. ");
  EXPECT_EQ(lines.back(), "Error(120030): Cannot open file '" + missing + "' ");

  r = run_tool({"density", missing, "-o", temp_path("never.tif")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Cannot open file '" + missing + "'"), std::string::npos) << r.err;

  // A file that is not an image at all.
  const std::string text = temp_path("text.tif");
  std::ofstream(text) << "not an image\n";
  r = run_tool({"stats", text});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error(120154)"), std::string::npos) << r.err;

  EXPECT_EQ(run_tool({}).status, 2);
  EXPECT_EQ(run_tool({"frobnicate"}).status, 2);
  r = run_tool({"stats", "--bogus", "1", text});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("Error: Unknown option '--bogus' for 'stats'. "), std::string::npos) << r.err;
  EXPECT_EQ(run_tool({"psl", text, "-o", temp_path("x.tif"), "--latitude", "abc"}).status, 2);
  EXPECT_EQ(run_tool({"synth"}).status, 2);
  EXPECT_EQ(run_tool({"synth", "-o", temp_path("y.tif"), "--width", "0"}).status, 2);

  for (const char *cmd : {"info", "stats", "mask", "psl", "density", "synth"}) {
    r = run_tool({cmd, "--help"});
    EXPECT_EQ(r.status, 0) << cmd;
    EXPECT_EQ(r.out.rfind(std::string("Usage: vepra-image ") + cmd + " ", 0), 0u) << r.out;
  }
}

}  // namespace
