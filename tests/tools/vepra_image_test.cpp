// The vepra-image program, run as a user would: a sample scan is made, then
// inspected and measured. The measures themselves are proven by the image
// tests; here each command's output must be what the library gives for the
// same file and options, and failures must print their chain and exit 1 or 2.
#include <sys/stat.h>
#include <sys/wait.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

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
  const int raw =
      std::system((cmd + " >" + quote(out) + " 2>" + quote(err) + " </dev/null").c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
#else
  (void)args;
#endif
  return r;
}

class VepraImageTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
#ifndef VEPRA_IMAGE_TOOL
    GTEST_SKIP() << "vepra-image is not built";
#endif
    LibraryTest::SetUp();
  }
  void TearDown() override {
    vepra_img_free(&img_);
    LibraryTest::TearDown();
  }
  // The bytes of the file the library writes for measure over img_.
  std::string library_output(const std::function<vepra_error_t *(double **)> &measure) {
    std::vector<double> data(size_t{img_.width} * img_.height);
    std::vector<double *> rows;
    for (uint32_t r = 0; r < img_.height; ++r) rows.push_back(data.data() + size_t{r} * img_.width);
    const std::string path = temp_path("library.tif");
    EXPECT_EQ(measure(rows.data()), nullptr);
    EXPECT_EQ(vepra_img_darr_to_tiff(path.c_str(), rows.data(), img_.height, img_.width), nullptr);
    return slurp(path);
  }
  vepra_img_t img_{};
};

// A little-endian TIFF of one BlackIsZero directory whose one strip of
// `bytes` bytes starts right after it; the file holds 4 bytes of samples.
std::string crafted(uint32_t width, uint32_t height, uint32_t depth, uint32_t bytes) {
  std::string f("II*\0\x08\0\0\0", 8);
  auto put = [&f](uint32_t v, int n) {
    for (int i = 0; i < n; ++i) f += char(v >> (8 * i));
  };
  const uint32_t fields[][3] = {{256, 4, width}, {257, 4, height}, {258, 3, depth}, {262, 3, 1},
                                {273, 4, 98},    {277, 3, 1},      {279, 4, bytes}};
  put(7, 2);
  for (const auto &[tag, type, value] : fields) put(tag, 2), put(type, 2), put(1, 4), put(value, 4);
  put(0, 4);
  put(0x04030201, 4);
  return f;
}

// A 4 x 4 8-bit file written by libtiff with one extra field.
void libtiff_file(const std::string &path, int tag, uint32_t value) {
  TIFF *t = TIFFOpen(path.c_str(), "w");
  ASSERT_NE(t, nullptr);
  for (auto [field, v] : {std::pair{TIFFTAG_IMAGEWIDTH, 4u}, {TIFFTAG_IMAGELENGTH, 4u},
                          {TIFFTAG_BITSPERSAMPLE, 8u}, {TIFFTAG_PHOTOMETRIC, 1u},
                          {uint32_t(tag), value}})
    TIFFSetField(t, field, v);
  TIFFSetField(t, TIFFTAG_XRESOLUTION, 1.0f);
  TIFFSetField(t, TIFFTAG_YRESOLUTION, 1.0f);
  const uint8_t row[4] = {1, 2, 3, 4};
  for (uint32_t r = 0; r < 4; ++r) TIFFWriteScanline(t, const_cast<uint8_t *>(row), r, 0);
  TIFFClose(t);
}

std::string format(const char *fmt, double v) {
  char text[64];
  std::snprintf(text, sizeof text, fmt, v);
  return text;
}

TEST_F(VepraImageTest, CommandsGiveWhatTheLibraryGives) {
  const std::string scan = temp_path("scan.tif"), again = temp_path("again.tif"),
                    csv_path = temp_path("h.csv");
  ToolRun r = run_tool({"synth", "-o", scan, "--width", "64", "--height", "48", "--pattern", "5"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(vepra_img_read(scan.c_str(), &img_), nullptr);
  EXPECT_EQ(std::pair(img_.width, img_.height), std::pair(64u, 48u));
  // Deterministic, and the pattern matters.
  ASSERT_EQ(run_tool({"synth", "-o", again, "--width=64", "--height=48", "--pattern=5"}).status, 0);
  EXPECT_EQ(slurp(scan), slurp(again));
  ASSERT_EQ(run_tool({"synth", "-o", again, "--width=64", "--height=48", "--pattern=6"}).status, 0);
  EXPECT_NE(slurp(scan), slurp(again));

  r = run_tool({"info", scan});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char *line :
       {"size: 64 x 48 pixels\n", "depth: 16 bits per sample, 1 sample(s) per pixel\n",
        "photometric: 1 (BlackIsZero)\n", "resolution: none\n", "software: VEPRA 1.0.0\n",
        "strips: 1\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << " in\n" << r.out;
  }

  size_t nbins = 0;
  uint64_t *hist = nullptr;
  double entropy = -1;
  ASSERT_EQ(vepra_img_histogram(&img_, &nbins, &hist), nullptr);
  ASSERT_EQ(vepra_img_entropy(&img_, &entropy), nullptr);
  std::string csv = "value," + scan + "\n";
  size_t min = nbins, max = 0;
  for (size_t v = 0; v < nbins; ++v) {
    csv += std::to_string(v) + "," + std::to_string(hist[v]) + "\n";
    if (hist[v] != 0) min = std::min(min, v), max = v;
  }
  const std::string tail =
      format("%.6f", entropy) + "\t" + format("%.4f", vepra_img_thres_IJ(nbins, hist));
  vepra_mem_free(hist);
  r = run_tool({"stats", "--histogram", csv_path, scan});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string head = "file\tmin\tmax\tmean\tentropy\tthreshold\n" + scan + "\t" +
                           std::to_string(min) + "\t" + std::to_string(max) + "\t";
  EXPECT_EQ(r.out.substr(0, head.size()), head);
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size() - 1), tail + "\n");
  EXPECT_TRUE(slurp(csv_path) == csv);

  // Names are escaped in the line-oriented output.
  const std::string odd = temp_path("a b\tc\nd\\e\x01.tif"),
                    shown = temp_path("a b\\tc\\nd\\\\e\\001.tif");
  std::ofstream(odd, std::ios::binary) << slurp(scan);
  r = run_tool({"stats", odd, "--histogram", csv_path});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\n" + shown + "\t" + std::to_string(min) + "\t"), std::string::npos) << r.out;
  EXPECT_NE(run_tool({"info", odd}).out.find("file: " + shown + "\n"), std::string::npos);
  std::remove(odd.c_str());

  // Options reach the library; the density of a BlackIsZero scan saturates at 0.
  const std::string out = temp_path("measure.tif");
  ASSERT_EQ(run_tool({"mask", scan, "-o", out}).status, 0);
  EXPECT_TRUE(slurp(out) ==
              library_output([&](double **o) { return vepra_img_data_dmask(&img_, o); }));
  ASSERT_EQ(run_tool({"psl", scan, "-o", out, "--latitude", "4", "--pixel-size=50"}).status, 0);
  EXPECT_TRUE(slurp(out) == library_output([&](double **o) {
                return vepra_img_calc_fujiri(&img_, o, 50, 4000, 4);
              }));
  ASSERT_EQ(run_tool({"density", scan, "-o", out}).status, 0);
  EXPECT_TRUE(slurp(out) ==
              library_output([&](double **o) { return vepra_img_calc_density(&img_, o, 0); }));
}

TEST_F(VepraImageTest, FailuresPrintTheChainAndExitNonZero) {
  const std::string missing = temp_path("missing.tif"), text = temp_path("text.tif");
  ToolRun r = run_tool({"info", missing});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(r.out.empty());
  EXPECT_EQ(r.err.rfind("Error(120030): Cannot open image '" + missing + "'. \n", 0), 0u) << r.err;
  EXPECT_NE(r.err.find("\nError(120030): Cannot open file '" + missing + "' \n"), std::string::npos)
      << r.err;
  std::ofstream(text) << "not an image\n";
  r = run_tool({"stats", text});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\nError(120150): Unknown data format. "), std::string::npos) << r.err;
  r = run_tool({"stats", "--bogus", "1", text});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("Error: Unknown option '--bogus' for 'stats'. "), std::string::npos)
      << r.err;
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {},
           {"frobnicate"},
           {"synth"},
           {"synth", "-o", temp_path("y.tif"), "--width", "0"},
           {"psl", text, "-o", temp_path("x.tif"), "--latitude", "abc"}}) {
    EXPECT_EQ(run_tool(args).status, 2) << (args.empty() ? "" : args[0]);
  }
  // Values outside an option's meaning are refused before any file is read.
  for (auto [option, value] : {std::pair{"--sensitivity", "0"}, {"--latitude", "1e308"},
                               {"--pixel-size", "-1"}, {"--latitude", "-0"}}) {
    r = run_tool({"psl", text, "-o", temp_path("x.tif"), option, value});
    EXPECT_EQ(r.status, 2) << option;
    EXPECT_NE(r.err.find(std::string("Invalid value '") + value + "' for option '" + option + "'"),
              std::string::npos) << r.err;
  }
  // A FIFO without a writer is not opened; a directory without a matching
  // file is reported as such.
  const std::string fifo = temp_path("fifo"), dir = temp_path("dir");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  r = run_tool({"info", fifo});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error(120030): '" + fifo + "' is not a regular file or block device "),
            std::string::npos) << r.err;
  r = run_tool({"info", dir});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error: No file in '" + dir + "' matches '*.tif;*.tiff;*.TIF;*.TIFF' "),
            std::string::npos) << r.err;
  std::remove(fifo.c_str());
  rmdir(dir.c_str());
  // A huge 12-bit image is refused as such, before any output is allocated;
  // info reads the directory only, so broken strips do not matter to it.
  const std::string big = temp_path("big.tif"), broken = temp_path("broken.tif");
  std::ofstream(big, std::ios::binary) << crafted(100000, 100000, 12, 4);
  std::ofstream(broken, std::ios::binary) << crafted(4, 4, 8, 16);
  for (const char *cmd : {"psl", "density", "mask"}) {
    r = run_tool({cmd, big, "-o", temp_path("x.tif")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("\nError: The image is neither 16-bit nor 8-bit grayscale. "),
              std::string::npos) << r.err;
  }
  EXPECT_EQ(run_tool({"info", broken}).status, 0);
  r = run_tool({"stats", broken});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\nError(120153): The data is not complete. "), std::string::npos) << r.err;
  // Compressed data are refused, not measured; a resolution without a unit
  // reads as none.
  const std::string lzw = temp_path("lzw.tif"), unitless = temp_path("unitless.tif");
  libtiff_file(lzw, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
  libtiff_file(unitless, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
  r = run_tool({"stats", lzw});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\nError: TIFF compression 5 (LZW) is not supported"), std::string::npos)
      << r.err;
  r = run_tool({"info", unitless});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\nresolution: none (ResolutionUnit 1, no absolute unit)\n"),
            std::string::npos) << r.out;
  // Its histogram is kept up to value 4 only, and written in full.
  const std::string csv_path = temp_path("u.csv");
  ASSERT_EQ(run_tool({"stats", "--histogram", csv_path, unitless}).status, 0);
  std::string csv = "value," + unitless + "\n";
  for (int v = 0; v < 256; ++v) csv += std::to_string(v) + (v >= 1 && v <= 4 ? ",4\n" : ",0\n");
  EXPECT_EQ(slurp(csv_path), csv);

  for (const char *cmd : {"info", "stats", "mask", "psl", "density", "synth"}) {
    r = run_tool({cmd, "--help"});
    EXPECT_EQ(r.status, 0) << cmd;
    EXPECT_EQ(r.out.rfind(std::string("Usage: vepra-image ") + cmd + " ", 0), 0u) << r.out;
  }
}

}  // namespace
