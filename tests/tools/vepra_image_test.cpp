// The vepra-image program, run as a user would: a sample scan is made,
// then inspected and measured; results are checked against the pixels as
// libtiff reads them.
#include <sys/wait.h>
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"

namespace {

using vepra_test::temp_path;

struct ToolRun {
  int status = -1;
  std::string out, err;
};

std::string slurp(const std::string &path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

std::string quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

ToolRun run_tool(const std::vector<std::string> &args) {
  ToolRun r;
#ifdef VEPRA_IMAGE_TOOL
  const std::string out = temp_path("stdout"), err = temp_path("stderr");
  std::string cmd = quote(VEPRA_IMAGE_TOOL);
  for (const std::string &a : args) cmd += " " + quote(a);
  const int raw = std::system((cmd + " >" + quote(out) + " 2>" + quote(err) + " </dev/null").c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
#else
  (void)args;
#endif
  return r;
}

// The samples of a 64 x 48 16-bit grayscale TIFF as libtiff reads them.
std::vector<uint32_t> read_with_libtiff(const std::string &path) {
  std::vector<uint32_t> samples;
  TIFFSetWarningHandler(nullptr);
  TIFF *t = TIFFOpen(path.c_str(), "r");
  EXPECT_NE(t, nullptr) << path;
  if (t == nullptr) return samples;
  uint32_t width = 0, height = 0;
  uint16_t bits = 0;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
  EXPECT_EQ(std::tuple(width, height, bits), std::tuple(64u, 48u, uint16_t{16})) << path;
  std::vector<uint16_t> line(width);
  for (uint32_t r = 0; r < height && bits == 16; ++r) {
    EXPECT_EQ(TIFFReadScanline(t, line.data(), r), 1);
    samples.insert(samples.end(), line.begin(), line.end());
  }
  TIFFClose(t);
  return samples;
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
  const std::string scan = temp_path("scan.tif"), again = temp_path("again.tif");
  ToolRun r = run_tool({"synth", "-o", scan, "--width", "64", "--height", "48", "--pattern", "5"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<uint32_t> px = read_with_libtiff(scan);
  ASSERT_EQ(px.size(), 64u * 48u);
  EXPECT_EQ(*std::max_element(px.begin(), px.end()), 65535u);  // a spot saturates the scale
  // Deterministic, and the pattern matters.
  ASSERT_EQ(run_tool({"synth", "-o", again, "--width=64", "--height=48", "--pattern=5"}).status, 0);
  EXPECT_EQ(slurp(scan), slurp(again));
  ASSERT_EQ(run_tool({"synth", "-o", again, "--width=64", "--height=48", "--pattern=6"}).status, 0);
  EXPECT_NE(slurp(scan), slurp(again));

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
  double sum = 0, entropy = 0;
  for (uint32_t s : px) ++counts[s], sum += s;
  for (auto [v, n] : counts) entropy -= double(n) / px.size() * std::log2(double(n) / px.size());
  EXPECT_EQ(std::stoul(f[1]), counts.begin()->first);
  EXPECT_EQ(std::stoul(f[2]), counts.rbegin()->first);
  EXPECT_NEAR(std::stod(f[3]), sum / px.size(), 1e-4);
  EXPECT_NEAR(std::stod(f[4]), entropy, 1e-6);
  EXPECT_GT(std::stod(f[5]), counts.begin()->first);
  EXPECT_LT(std::stod(f[5]), counts.rbegin()->first);
  std::string want = "value," + scan + "\n";
  for (uint32_t v = 0; v < 65536; ++v) want += std::to_string(v) + "," + std::to_string(counts[v]) + "\n";
  EXPECT_TRUE(slurp(csv) == want);

  // Density of a BlackIsZero scan falls as the sample rises: after linear
  // scaling the written samples keep the reverse order of the inputs.
  const std::string dens = temp_path("density.tif");
  r = run_tool({"density", scan, "-o", dens});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<uint32_t> d = read_with_libtiff(dens);
  ASSERT_EQ(d.size(), px.size());
  std::vector<std::pair<uint32_t, uint32_t>> pairs;
  for (size_t i = 0; i < px.size(); ++i) {
    if (px[i] != 65535) pairs.emplace_back(px[i], d[i]);
  }
  std::sort(pairs.begin(), pairs.end());
  for (size_t i = 1; i < pairs.size(); ++i) ASSERT_LE(pairs[i].second, pairs[i - 1].second);
  EXPECT_EQ(pairs.front().second, 65535u);  // the darkest input is the densest

  for (const char *cmd : {"mask", "psl"}) {
    const std::string out = temp_path(std::string(cmd) + ".tif");
    r = run_tool({cmd, scan, "-o", out});
    ASSERT_EQ(r.status, 0) << cmd << ": " << r.err;
    EXPECT_EQ(read_with_libtiff(out).size(), px.size()) << cmd;
  }
}

TEST_F(VepraImageTest, FailuresPrintTheChainAndExitNonZero) {
  const std::string missing = temp_path("missing.tif"), text = temp_path("text.tif");
  ToolRun r = run_tool({"info", missing});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.empty());
  const std::vector<std::string> lines = split(r.err, '\n');
  ASSERT_GE(lines.size(), 2u) << r.err;
  EXPECT_EQ(lines.front(), "Error(120030): Cannot open image '" + missing + "'. ");
  EXPECT_EQ(lines.back(), "Error(120030): Cannot open file '" + missing + "' ");
  std::ofstream(text) << "not an image\n";
  r = run_tool({"stats", text});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error(120154)"), std::string::npos) << r.err;
  r = run_tool({"stats", "--bogus", "1", text});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("Error: Unknown option '--bogus' for 'stats'. "), std::string::npos) << r.err;
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"synth"}, {"synth", "-o", temp_path("y.tif"), "--width", "0"},
           {"psl", text, "-o", temp_path("x.tif"), "--latitude", "abc"}}) {
    EXPECT_EQ(run_tool(args).status, 2) << (args.empty() ? "" : args[0]);
  }
  for (const char *cmd : {"info", "stats", "mask", "psl", "density", "synth"}) {
    r = run_tool({cmd, "--help"});
    EXPECT_EQ(r.status, 0) << cmd;
    EXPECT_EQ(r.out.rfind(std::string("Usage: vepra-image ") + cmd + " ", 0), 0u) << r.out;
  }
}

}  // namespace
