// The vepra-image program, run as a user would: a sample scan is made, then
// inspected and measured. The measures themselves are proven by the image
// tests; here each command's output must be what the library gives for the
// same file and options, and failures must print their chain and exit 1 or 2.
#include <apr_file_io.h>
#include <apr_xml.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/test_support.hpp"
#include "tools/vepra_image_run.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

namespace fs = std::filesystem;
using vepra_test::quote;
using vepra_test::run_tool;
using vepra_test::slurp;
using vepra_test::temp_path;
using vepra_test::ToolRun;

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
  for (auto [field, v] : {std::pair{TIFFTAG_IMAGEWIDTH, 4u},
                          {TIFFTAG_IMAGELENGTH, 4u},
                          {TIFFTAG_BITSPERSAMPLE, 8u},
                          {TIFFTAG_PHOTOMETRIC, 1u},
                          {uint32_t(tag), value}})
    TIFFSetField(t, field, v);
  TIFFSetField(t, TIFFTAG_XRESOLUTION, 1.0f);
  TIFFSetField(t, TIFFTAG_YRESOLUTION, 1.0f);
  const uint8_t row[4] = {1, 2, 3, 4};
  for (uint32_t r = 0; r < 4; ++r) TIFFWriteScanline(t, const_cast<uint8_t *>(row), r, 0);
  TIFFClose(t);
}

// The attributes of the elements of an XML file, parsed by APR-util.
std::vector<std::map<std::string, std::string>> xml_elements(apr_pool_t *pool,
                                                             const std::string &path,
                                                             const std::string &name) {
  std::vector<std::map<std::string, std::string>> found;
  apr_file_t *file = nullptr;
  apr_xml_parser *parser = nullptr;
  apr_xml_doc *doc = nullptr;
  EXPECT_EQ(apr_file_open(&file, path.c_str(), APR_FOPEN_READ, 0, pool), APR_SUCCESS);
  if (file == nullptr) return found;
  EXPECT_EQ(apr_xml_parse_file(pool, &parser, &doc, file, 4096), APR_SUCCESS);
  apr_file_close(file);
  if (doc == nullptr) return found;
  std::function<void(const apr_xml_elem *)> visit = [&](const apr_xml_elem *e) {
    for (; e != nullptr; e = e->next) {
      if (name == e->name) {
        std::map<std::string, std::string> attrs;
        for (const apr_xml_attr *a = e->attr; a != nullptr; a = a->next) attrs[a->name] = a->value;
        found.push_back(attrs);
      }
      visit(e->first_child);
    }
  };
  found.push_back({});  // the root's attributes come first
  for (const apr_xml_attr *a = doc->root->attr; a != nullptr; a = a->next) {
    found[0][a->name] = a->value;
  }
  visit(doc->root->first_child);
  return found;
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
  double sum = 0, count = 0;
  for (size_t v = 0; v < nbins; ++v) {
    csv += std::to_string(v) + "," + std::to_string(hist[v]) + "\n";
    if (hist[v] == 0) continue;
    min = std::min(min, v), max = v;
    sum += double(v) * double(hist[v]), count += double(hist[v]);
  }
  const std::map<std::string, double> values = {{"min", double(min)},
                                                {"max", double(max)},
                                                {"mean", sum / count},
                                                {"threshold", vepra_img_thres_IJ(nbins, hist)}};
  const std::string tail = format("%.6f", entropy) + "\t" + format("%.4f", values.at("threshold"));
  vepra_mem_free(hist);
  r = run_tool({"stats", "--histogram", csv_path, scan});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string head = "file\tmin\tmax\tmean\tentropy\tthreshold\n" + scan + "\t" +
                           std::to_string(min) + "\t" + std::to_string(max) + "\t";
  EXPECT_EQ(r.out.substr(0, head.size()), head);
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size() - 1), tail + "\n");
  EXPECT_TRUE(slurp(csv_path) == csv);
  // The plot's marks sit at those figures, on a linear and a log scale.
  const std::string svg = temp_path("plot.svg");
  for (const bool log : {false, true}) {
    std::vector<std::string> args = {"stats", "--plot", svg, scan};
    if (log) args.push_back("--log");
    ASSERT_EQ(run_tool(args).status, 0);
    const auto root = xml_elements(pool_, svg, "line").at(0);
    const double x0 = std::stod(root.at("data-x0")), x1 = std::stod(root.at("data-x1"));
    const double left = std::stod(root.at("data-left")), width = std::stod(root.at("data-width"));
    EXPECT_LT(x0, double(min));
    EXPECT_GT(x1, double(max));
    std::map<std::string, double> seen;
    for (const auto &line : xml_elements(pool_, svg, "line")) {
      if (!line.count("class") || line.at("class") != "mark") continue;
      const std::string name = line.at("id").substr(5);  // "mark-..."
      const double value = std::stod(line.at("data-value"));
      EXPECT_NEAR(value, values.at(name), 5e-5) << name;
      EXPECT_NEAR(std::stod(line.at("x1")), left + (value - x0) / (x1 - x0) * width, 0.01) << name;
      EXPECT_EQ(line.at("x1"), line.at("x2"));
      seen[name] = value;
    }
    EXPECT_EQ(seen.size(), 4u);
    // Each mark has a label that names it.
    size_t labels = 0;
    for (const auto &text : xml_elements(pool_, svg, "text")) {
      labels += text.count("class") && text.at("class") == "label";
    }
    EXPECT_EQ(labels, 4u);
  }

  // Names are escaped in the line-oriented output.
  const std::string odd = temp_path("a b\tc\nd\\e\x01.tif"),
                    shown = temp_path("a b\\tc\\nd\\\\e\\001.tif");
  std::ofstream(odd, std::ios::binary) << slurp(scan);
  r = run_tool({"stats", odd, "--histogram", csv_path});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\n" + shown + "\t" + std::to_string(min) + "\t"), std::string::npos)
      << r.out;
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

// Each failure prints its chain and exits 1 (an input or output failed) or
// 2 (the command line is wrong).
TEST_F(VepraImageTest, FailuresPrintTheChainAndExitNonZero) {
  const std::string missing = temp_path("missing.tif"), text = temp_path("text.tif"),
                    fifo = temp_path("fifo"), dir = temp_path("dir"), big = temp_path("big.tif"),
                    broken = temp_path("broken.tif"), scan = temp_path("scan.tif"),
                    rois = temp_path("rois.csv"), x = temp_path("x.tif");
  std::ofstream(text) << "not an image\n";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  // A huge 12-bit image is refused as such, before any output is allocated;
  // info reads the directory only, so broken strips do not matter to it.
  std::ofstream(big, std::ios::binary) << crafted(100000, 100000, 12, 4);
  std::ofstream(broken, std::ios::binary) << crafted(4, 4, 8, 16);
  std::ofstream(rois) << "circle,1,2,3\nrect,1,2\n";
  ASSERT_EQ(run_tool({"synth", "-o", scan, "--width", "8", "--height", "8"}).status, 0);
  EXPECT_EQ(run_tool({"info", broken}).status, 0);
  const std::string twelve = "\nError: TIFF image with 12 bits per sample is not supported";
  const std::string region = "Error: Invalid region '";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string message;
  } cases[] = {
      {{"info", missing}, 1, "Error(120030): Cannot open image '" + missing + "'. \n"},
      {{"info", missing}, 1, "\nError(120030): Cannot open file '" + missing + "' \n"},
      {{"stats", text}, 1, "\nError(120150): Unknown data format. "},
      {{"info", fifo}, 1, "Error(120030): '" + fifo + "' is not a regular file or block device "},
      {{"info", dir}, 1, "Error: No file in '" + dir + "' matches '*.tif;*.tiff;*.TIF;*.TIFF' "},
      {{"psl", big, "-o", x}, 1, twelve},
      {{"density", big, "-o", x}, 1, twelve},
      {{"mask", big, "-o", x}, 1, twelve},
      {{"stats", broken}, 1, "\nError(120153): The data is not complete. "},
      {{"measure", scan, "--rois", missing}, 1, ""},
      {{"stats", "--bogus", "1", text}, 2, "Error: Unknown option '--bogus' for 'stats'. "},
      {{}, 2, ""},
      {{"frobnicate"}, 2, ""},
      {{"synth"}, 2, ""},
      {{"synth", "-o", x, "--width", "0"}, 2, ""},
      {{"psl", text, "-o", x, "--latitude", "abc"}, 2, ""},
      // Values outside an option's meaning are refused before any file is read.
      {{"psl", text, "-o", x, "--sensitivity", "0"},
       2,
       "Invalid value '0' for option '--sensitivity'"},
      {{"psl", text, "-o", x, "--latitude", "1e308"},
       2,
       "Invalid value '1e308' for option '--latitude'"},
      {{"psl", text, "-o", x, "--pixel-size", "-1"},
       2,
       "Invalid value '-1' for option '--pixel-size'"},
      {{"psl", text, "-o", x, "--latitude", "-0"}, 2, "Invalid value '-0' for option '--latitude'"},
      {{"stats", "--jobs", "0", dir}, 2, ""},
      {{"stats", "--plot", x, scan, scan}, 2, "'--plot' takes exactly one input file, not 2."},
      {{"measure", scan, "--roi", "circle:1,2"},
       2,
       region + "circle:1,2' for option '--roi': expected circle:X,Y,R"},
      {{"measure", scan, "--roi", "square:1,2,3"}, 2, region + "square:1,2,3' for option '--roi'"},
      {{"measure", scan, "--roi", "circle:1,2,-3"}, 2, region + "circle:1,2,-3' for option"},
      {{"measure", scan, "--roi", "ellipse:1,2,3,nan"}, 2, region + "ellipse:1,2,3,nan' for"},
      {{"measure", scan, "--roi", "circle:1,2,3", "--ring", "5,3"},
       2,
       "Error: Invalid ring '5,3' for option '--ring'"},
      {{"measure", scan}, 2, "Error: 'measure' needs a region: --roi or --rois."},
      {{"measure", scan, "--rois", rois},
       2,
       "Invalid region 'rect,1,2' at line 2 of '" + rois + "' (option '--rois')"},
      {{"overlay", scan, "--roi", "circle:1,2,3"}, 2, ""},
      {{"overlay", scan, "--roi", "circle:1,2,3", "-o", x, "--percentiles", "50,10"},
       2,
       "Invalid percentiles '50,10' for option '--percentiles'"},
  };
  for (const auto &c : cases) {
    const ToolRun r = run_tool(c.args);
    EXPECT_EQ(r.status, c.status) << (c.args.empty() ? "" : c.args[0]) << " " << c.message;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  EXPECT_TRUE(run_tool({"info", missing}).out.empty());
  std::remove(fifo.c_str());
  rmdir(dir.c_str());
  // A resolution without a unit reads as none.
  const std::string unitless = temp_path("unitless.tif");
  libtiff_file(unitless, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
  ToolRun r = run_tool({"info", unitless});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\nresolution: none (ResolutionUnit 1, no absolute unit)\n"),
            std::string::npos)
      << r.out;
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

// A write that fails (here at the file size limit) exits 1 and leaves the
// file that was there, with no temporary file beside it.
TEST_F(VepraImageTest, AFailedWriteKeepsTheOldFile) {
  const std::string dir = temp_path("keep"), out = dir + "/scan.tif";
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  std::ofstream(out) << "old contents\n";
  const ToolRun r = run_tool({"synth", "-o", out, "--width", "64", "--height", "64"},
                             "trap '' XFSZ; ulimit -f 4; ");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Cannot write sample scan to '" + out + "'."), std::string::npos) << r.err;
  EXPECT_EQ(slurp(out), "old contents\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
  fs::remove_all(dir);
}

// A file of two pages, a 4 x 4 image of ones and a 2 x 2 one of twos: info
// lists both, the measures read the first unless --page says otherwise.
TEST_F(VepraImageTest, PagesAreListedAndSelected) {
  const std::string path = temp_path("pages.tif");
  TIFF *t = TIFFOpen(path.c_str(), "w");
  ASSERT_NE(t, nullptr);
  for (uint32_t p = 0; p < 2; ++p) {
    for (auto [field, v] : {std::pair{TIFFTAG_IMAGEWIDTH, 4u >> p},
                            {TIFFTAG_IMAGELENGTH, 4u >> p},
                            {TIFFTAG_BITSPERSAMPLE, 8u},
                            {TIFFTAG_PHOTOMETRIC, 1u},
                            {TIFFTAG_COMPRESSION, p == 0 ? 5u : 8u}})
      TIFFSetField(t, field, v);
    uint8_t row[4] = {uint8_t(p + 1), uint8_t(p + 1), uint8_t(p + 1), uint8_t(p + 1)};
    for (uint32_t r = 0; r < (4u >> p); ++r) ASSERT_EQ(TIFFWriteScanline(t, row, r, 0), 1);
    ASSERT_EQ(TIFFWriteDirectory(t), 1);
  }
  TIFFClose(t);
  ToolRun r = run_tool({"info", path});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\npages: 2\npage 0: 4 x 4 pixels, 8 bits, compression 5, photometric 1 "
                       "(BlackIsZero)\npage 1: 2 x 2 pixels, 8 bits, compression 8, photometric 1 "
                       "(BlackIsZero)\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("size: 4 x 4 pixels"), std::string::npos) << r.out;
  r = run_tool({"stats", path});
  EXPECT_NE(r.out.find(path + "\t1\t1\t1.0000"), std::string::npos) << r.out;
  r = run_tool({"stats", "--page", "1", path});
  EXPECT_NE(r.out.find(path + "\t2\t2\t2.0000"), std::string::npos) << r.out;
  r = run_tool({"stats", "--page=2", path});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\nError: Page 2 does not exist: the file has 2 pages "), std::string::npos)
      << r.err;
  EXPECT_NE(run_tool({"stats", "--page", "-1", path}).status, 0);
}

// A width x height 16-bit BlackIsZero file written by libtiff.
void libtiff_scan(const std::string &path, uint32_t width, uint32_t height,
                  const std::vector<uint16_t> &samples) {
  TIFF *t = TIFFOpen(path.c_str(), "w");
  ASSERT_NE(t, nullptr);
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, height);
  for (uint32_t r = 0; r < height; ++r) {
    TIFFWriteScanline(t, const_cast<uint16_t *>(samples.data() + size_t{r} * width), r, 0);
  }
  TIFFClose(t);
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A folder of 200 small scans (150 at the top, 50 in sub/), a text file
// the default patterns leave out, and a broken .tif file that sorts first.
class VepraImageFolderTest : public VepraImageTest {
 protected:
  void SetUp() override {
    VepraImageTest::SetUp();
    if (IsSkipped()) return;
    dir_ = temp_path("scans");
    ASSERT_EQ(mkdir(dir_.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((dir_ + "/sub").c_str(), 0700), 0);
    std::mt19937 rng(15);
    for (int i = 0; i < 200; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "%sscan_%03d.tif", i < 150 ? "" : "sub/", i);
      const uint32_t w = 5 + rng() % 12, h = 3 + rng() % 9;
      std::vector<uint16_t> samples(size_t{w} * h);
      for (uint16_t &v : samples) v = uint16_t(100 * i + rng() % 5000);
      libtiff_scan(dir_ + "/" + name, w, h, samples);
      const auto [lo, hi] = std::minmax_element(samples.begin(), samples.end());
      expected_.push_back({dir_ + "/" + name, *lo, *hi, w, h});
    }
    std::ofstream(dir_ + "/notes.txt") << "not a scan\n";
    std::ofstream(dir_ + "/broken.tif") << "not a scan either\n";
  }
  void TearDown() override {
    if (!dir_.empty()) std::system(("rm -rf " + quote(dir_)).c_str());
    VepraImageTest::TearDown();
  }
  struct Scan {
    std::string path;
    unsigned min, max, width, height;
  };
  std::string dir_;
  std::vector<Scan> expected_;
};

TEST_F(VepraImageFolderTest, ParallelRunsGiveTheSameOrderedOutputAndReportTheBrokenFile) {
  const ToolRun one = run_tool({"stats", "--recursive", "--jobs", "1", dir_});
  const ToolRun four = run_tool({"stats", "-r", "-j", "4", dir_ + "/"});
  EXPECT_EQ(one.status, 1);
  EXPECT_EQ(four.status, 1);
  EXPECT_EQ(one.out, four.out);
  EXPECT_EQ(one.err, four.err);
  const std::string broken = "Error(120150): Cannot open image '" + dir_ + "/broken.tif'. \n";
  EXPECT_EQ(one.err.find(broken), 0u) << one.err;
  EXPECT_EQ(one.err.find("Cannot open image", broken.size()), std::string::npos) << one.err;
  const std::vector<std::string> lines = lines_of(one.out);
  ASSERT_EQ(lines.size(), 201u) << one.out;
  EXPECT_EQ(lines[0], "file\tmin\tmax\tmean\tentropy\tthreshold");
  for (size_t i = 0; i < expected_.size(); ++i) {
    const Scan &s = expected_[i];
    const std::string head =
        s.path + "\t" + std::to_string(s.min) + "\t" + std::to_string(s.max) + "\t";
    EXPECT_EQ(lines[i + 1].substr(0, head.size()), head) << i;
  }

  // Without --recursive only the top level; patterns narrow it further.
  ToolRun r = run_tool({"stats", "--jobs", "3", dir_});
  EXPECT_EQ(lines_of(r.out).size(), 151u);
  r = run_tool({"stats", "-r", "--exclude", "*/broken.tif;*/scan_1*", dir_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines_of(r.out).size(), 101u);  // 000-099
  r = run_tool({"stats", "-r", "--include", "*/sub/*", dir_});
  EXPECT_EQ(lines_of(r.out).size(), 51u);

  // JSON: one object a line, numbers as numbers, in the same order.
  r = run_tool({"stats", "--json", "-r", "-j", "2", "--exclude", "*/broken.tif", dir_});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> json = lines_of(r.out);
  ASSERT_EQ(json.size(), 200u);
  for (size_t i = 0; i < json.size(); ++i) {
    const auto j = nlohmann::json::parse(json[i]);
    EXPECT_EQ(j.at("file"), expected_[i].path);
    EXPECT_EQ(j.at("min").get<unsigned>(), expected_[i].min);
    EXPECT_EQ(j.at("max").get<unsigned>(), expected_[i].max);
    EXPECT_TRUE(j.at("mean").is_number_float() && j.at("threshold").is_number() &&
                j.at("entropy").is_number());
  }
  r = run_tool({"info", "--json", "-r", "-j", "3", dir_});
  EXPECT_EQ(r.status, 1);
  json = lines_of(r.out);
  ASSERT_EQ(json.size(), 200u);
  for (size_t i = 0; i < json.size(); ++i) {
    const auto j = nlohmann::json::parse(json[i]);
    EXPECT_EQ(std::pair(j.at("width").get<unsigned>(), j.at("height").get<unsigned>()),
              std::pair(expected_[i].width, expected_[i].height));
    EXPECT_EQ(j.at("bits_per_sample"), 16);
  }
}

TEST_F(VepraImageFolderTest, ProgressLineOnlyOnATerminal) {
#ifdef VEPRA_IMAGE_TOOL
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(slave, STDERR_FILENO);
    close(master);
    execl(VEPRA_IMAGE_TOOL, "vepra-image", "stats", "-r", "-j", "2", dir_.c_str(),
          static_cast<char *>(nullptr));
    _exit(127);
  }
  close(slave);
  std::string terminal;
  char buf[4096];
  for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) terminal.append(buf, size_t(n));
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(terminal.find("\r\033[K201/201 files, "), std::string::npos) << terminal;
  EXPECT_NE(terminal.find(" files/s, "), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("broken.tif"), std::string::npos) << terminal;
  // The same run into a file: the error only.
  const ToolRun r = run_tool({"stats", "-r", "-j", "2", dir_});
  EXPECT_EQ(r.err.find("files/s"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find('\r'), std::string::npos);
  EXPECT_NE(r.err.find("broken.tif"), std::string::npos);
#endif
}

TEST_F(VepraImageTest, RegionsAreMeasuredAndDrawn) {
  const std::string scan = temp_path("scan.tif"), rois = temp_path("rois.csv"),
                    out = temp_path("overlay.tif"), plain = temp_path("plain.tif");
  ToolRun r = run_tool({"synth", "-o", scan, "--width", "96", "--height", "64"});
  ASSERT_EQ(r.status, 0);
  // synth tells where its spots are.
  const std::vector<std::string> spots = lines_of(r.out);
  ASSERT_EQ(spots.size(), 16u);
  EXPECT_EQ(spots[0], "spot\tx\ty\tsigma\tamplitude");
  EXPECT_EQ(spots[15].rfind("15\t67.2\t19.2\t", 0), 0u) << spots[15];  // the saturated one
  ASSERT_EQ(vepra_img_read(scan.c_str(), &img_), nullptr);

  std::ofstream(rois) << "shape,x,y,a,b\n# the saturated spot\ncircle,67.2,19.2,6\n\n"
                         "ellipse:20,30,8,5\nrect,-5,-5,3,4\n";
  r = run_tool({"measure", scan, "--rois", rois, "--ring", "8,12", "--roi", "circle:30,20,6"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 5u) << r.out;
  EXPECT_EQ(lines[0].rfind("region\tarea\tsum\tmean\tmin\tmax\tring_area\t", 0), 0u);
  const struct {
    const char *text;
    vepra_img_roi_t roi;
  } want[] = {{"circle:30,20,6", {VEPRA_IMG_ROI_CIRCLE, 30, 20, 6, 6, 8, 12}},
              {"circle,67.2,19.2,6", {VEPRA_IMG_ROI_CIRCLE, 67.2, 19.2, 6, 6, 8, 12}},
              {"ellipse:20,30,8,5", {VEPRA_IMG_ROI_ELLIPSE, 20, 30, 8, 5, 8, 12}},
              {"rect,-5,-5,3,4", {VEPRA_IMG_ROI_RECT, -5, -5, 3, 4, 8, 12}}};
  for (size_t i = 0; i < 4; ++i) {
    vepra_img_measure_t m{};
    ASSERT_EQ(vepra_img_measure_roi(&img_, &want[i].roi, nullptr, &m), nullptr);
    const std::string head = std::string(want[i].text) + "\t" + format("%.4f", m.region.area) +
                             "\t" + format("%.10g", m.region.sum) + "\t";
    EXPECT_EQ(lines[i + 1].rfind(head, 0), 0u) << lines[i + 1] << "\nwant " << head;
  }
  r = run_tool({"measure", scan, "--json", "--psl", "--roi", "ellipse:20,30,8,5"});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto j = nlohmann::json::parse(lines_of(r.out).at(0));
  const vepra_img_plate_t plate{100, 4000, 5};
  vepra_img_measure_t m{};
  vepra_img_roi_t ellipse{VEPRA_IMG_ROI_ELLIPSE, 20, 30, 8, 5, 0, 0};
  ASSERT_EQ(vepra_img_measure_roi(&img_, &ellipse, &plate, &m), nullptr);
  EXPECT_EQ(j.at("shape"), "ellipse");
  EXPECT_DOUBLE_EQ(j.at("area").get<double>(), m.region.area);
  EXPECT_DOUBLE_EQ(j.at("psl_sum").get<double>(), m.region.psl_sum);
  EXPECT_TRUE(j.at("ring_mean").is_null());  // no ring: nothing covered

  // The overlay differs from a preview without outlines only on and next
  // to the circle's stroke and ring.
  ASSERT_EQ(run_tool({"overlay", scan, "--roi", "circle:-900,-900,1", "-o", plain}).status, 0);
  r = run_tool({"overlay", scan, "--roi", "circle:40,30,10", "--ring", "14,18", "-o", out});
  ASSERT_EQ(r.status, 0) << r.err;
  vepra_img_t a{}, b{};
  ASSERT_EQ(vepra_img_read(plain.c_str(), &a), nullptr);
  ASSERT_EQ(vepra_img_read(out.c_str(), &b), nullptr);
  ASSERT_EQ(b.bits_per_sample[0], 8u);
  ASSERT_EQ(std::pair(b.width, b.height), std::pair(96u, 64u));
  int changed = 0;
  for (uint32_t y = 0; y < b.height; ++y) {
    for (uint32_t x = 0; x < b.width; ++x) {
      if (a.data8[y][x] == b.data8[y][x]) continue;
      ++changed;
      const double d = std::hypot(double(x) - 40, double(y) - 30);
      EXPECT_TRUE(std::fabs(d - 10) < 2.5 || std::fabs(d - 14) < 1.5 || std::fabs(d - 18) < 1.5)
          << x << "," << y;
    }
  }
  EXPECT_GT(changed, 2 * 31 * 3);  // three outlines of more than 60 pixels each
  vepra_img_free(&a);
  vepra_img_free(&b);
}

}  // namespace
