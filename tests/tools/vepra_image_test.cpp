// The vepra-image program, run as a user would: a sample scan is made, then
// inspected and measured. The measures themselves are proven by the image
// tests; here each command's output must be what the library gives for the
// same file and options, and failures must print their chain and exit 1 or 2.
#include <apr_file_io.h>
#include <apr_xml.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "tools/tool_run.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

namespace fs = std::filesystem;
using vepra_test::lines_of;
using vepra_test::run_tool;
using vepra_test::slurp;
using vepra_test::temp_path;
using vepra_test::ToolRun;
using vepra_test::write_libtiff;
using Attributes = std::map<std::string, std::string>;

class VepraImageTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    if (vepra_test::kImageTool == nullptr) GTEST_SKIP() << "vepra-image is not built";
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
  // The attributes of the root of an XML file, parsed by APR-util, then
  // those of each element of class cls, in document order.
  std::vector<Attributes> xml_elements(const std::string &path, const std::string &cls) {
    std::vector<Attributes> found(1);
    apr_file_t *file = nullptr;
    apr_xml_parser *parser = nullptr;
    apr_xml_doc *doc = nullptr;
    EXPECT_EQ(apr_file_open(&file, path.c_str(), APR_FOPEN_READ, 0, pool_), APR_SUCCESS);
    if (file == nullptr) return found;
    EXPECT_EQ(apr_xml_parse_file(pool_, &parser, &doc, file, 4096), APR_SUCCESS);
    apr_file_close(file);
    if (doc == nullptr) return found;
    std::function<void(const apr_xml_elem *)> visit = [&](const apr_xml_elem *e) {
      for (; e != nullptr; e = e->next) {
        Attributes attrs;
        for (const apr_xml_attr *a = e->attr; a != nullptr; a = a->next) attrs[a->name] = a->value;
        if (e == doc->root) found[0] = attrs;
        if (attrs["class"] == cls) found.push_back(attrs);
        visit(e->first_child);
      }
    };
    visit(doc->root);
    return found;
  }
  vepra_img_t img_{};
};

std::string format(const char *fmt, double v) {
  char text[64];
  std::snprintf(text, sizeof text, fmt, v);
  return text;
}

// Each run of the table exits with its status and prints its text on the
// stream it names; the files it names are made here.
TEST_F(VepraImageTest, RunsGiveTheirStatusAndText) {
  std::map<std::string, std::string> files = {{"data", VEPRA_TEST_DATA_DIR "/tools"},
                                              {"odd", temp_path("a b\tc\nd\\e\x01.tif")},
                                              {"shown", temp_path("a b\\tc\\nd\\\\e\\001.tif")}};
  for (const char *name : {"missing", "text", "fifo", "dir", "scan", "x", "unitless", "pages"}) {
    files[name] = temp_path(name);
  }
  std::ofstream(files.at("text")) << "not an image\n";
  ASSERT_EQ(mkfifo(files.at("fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(files.at("dir").c_str(), 0700), 0);
  ASSERT_EQ(run_tool({"synth", "-o", files.at("scan"), "--width", "64", "--height", "48"}).status,
            0);
  fs::copy_file(files.at("scan"), files.at("odd"));
  write_libtiff(files.at("unitless"), {{4, 4, 8, std::vector<uint16_t>(16, 7)}}, [](TIFF *t) {
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
    TIFFSetField(t, TIFFTAG_XRESOLUTION, 1.0f);
    TIFFSetField(t, TIFFTAG_YRESOLUTION, 1.0f);
  });
  write_libtiff(files.at("pages"),
                {{4, 4, 8, std::vector<uint16_t>(16, 1), COMPRESSION_LZW},
                 {2, 2, 8, std::vector<uint16_t>(4, 2), COMPRESSION_ADOBE_DEFLATE}});
  // $name becomes its file, \n and \t a newline and a tab.
  auto expand = [&](const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
      size_t end = i + 1;
      while (s[i] == '$' && end < s.size() && (std::isalnum(uint8_t(s[end])) || s[end] == '_')) {
        ++end;
      }
      if (end > i + 1) {
        out += files.at(s.substr(i + 1, end - i - 1));
        i = end - 1;
      } else if (s[i] == '\\' && i + 1 < s.size()) {
        out += s[++i] == 'n' ? '\n' : '\t';
      } else {
        out += s[i];
      }
    }
    return out;
  };
  int rows = 0;
  for (auto cols : vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/tools/vepra_image_runs.tsv")) {
    cols.resize(4);
    std::vector<std::string> args;
    std::stringstream words(cols[2]);
    for (std::string word; words >> word;) args.push_back(expand(word));
    const ToolRun r = run_tool(args);
    EXPECT_EQ(r.status, std::stoi(cols[0])) << cols[2] << "\n" << r.err;
    EXPECT_NE((cols[1] == "out" ? r.out : r.err).find(expand(cols[3])), std::string::npos)
        << cols[2] << "\nout: " << r.out << "\nerr: " << r.err;
    ++rows;
  }
  EXPECT_GT(rows, 40);
  EXPECT_TRUE(run_tool({"info", files.at("missing")}).out.empty());
  fs::remove(files.at("fifo"));
  fs::remove(files.at("dir"));
  fs::remove(files.at("odd"));
}

// Each command's output is what the library gives for the same scan and
// options: statistics, histogram, plot, measures of regions from the
// command line and from a file, and the images written.
TEST_F(VepraImageTest, CommandsGiveWhatTheLibraryGives) {
  const std::string scan = temp_path("scan.tif"), again = temp_path("again.tif"),
                    csv_path = temp_path("h.csv");
  ToolRun r = run_tool({"synth", "-o", scan, "--width", "96", "--height", "64"});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(vepra_img_read(scan.c_str(), &img_), nullptr);
  // synth is deterministic, and the pattern matters.
  for (const char *pattern : {"--pattern=1", "--pattern=6"}) {
    ASSERT_EQ(run_tool({"synth", "-o", again, "--width=96", "--height=64", pattern}).status, 0);
    EXPECT_EQ(slurp(scan) == slurp(again), pattern[10] == '1');
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
  vepra_mem_free(hist);
  r = run_tool({"stats", "--histogram", csv_path, scan});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "file\tmin\tmax\tmean\tentropy\tthreshold\n" + scan + "\t" +
                       std::to_string(min) + "\t" + std::to_string(max) + "\t" +
                       format("%.4f", values.at("mean")) + "\t" + format("%.6f", entropy) + "\t" +
                       format("%.4f", values.at("threshold")) + "\n");
  EXPECT_TRUE(slurp(csv_path) == csv);
  // The plot's marks sit at those figures, on a linear and a log scale, and
  // each has a label.
  const std::string svg = temp_path("plot.svg");
  for (const bool log : {false, true}) {
    std::vector<std::string> args = {"stats", "--plot", svg, scan};
    if (log) args.push_back("--log");
    ASSERT_EQ(run_tool(args).status, 0);
    const std::vector<Attributes> marks = xml_elements(svg, "mark");
    const Attributes &root = marks.at(0);
    const double x0 = std::stod(root.at("data-x0")), x1 = std::stod(root.at("data-x1"));
    const double left = std::stod(root.at("data-left")), width = std::stod(root.at("data-width"));
    EXPECT_LT(x0, double(min));
    EXPECT_GT(x1, double(max));
    std::map<std::string, double> seen;
    for (size_t i = 1; i < marks.size(); ++i) {
      const Attributes &line = marks[i];
      const std::string name = line.at("id").substr(5);  // "mark-..."
      const double value = std::stod(line.at("data-value"));
      EXPECT_NEAR(value, values.at(name), 5e-5) << name;
      EXPECT_NEAR(std::stod(line.at("x1")), left + (value - x0) / (x1 - x0) * width, 0.01) << name;
      EXPECT_EQ(line.at("x1"), line.at("x2"));
      seen[name] = value;
    }
    EXPECT_EQ(seen.size(), 4u);
    EXPECT_EQ(xml_elements(svg, "label").size(), 5u);
  }

  // Options reach the library; the density of a BlackIsZero scan saturates at 0.
  const std::string out = temp_path("measure.tif");
  using Measure = std::function<vepra_error_t *(double **)>;
  const std::pair<std::vector<std::string>, Measure> writers[] = {
      {{"mask"}, [&](double **o) { return vepra_img_data_dmask(&img_, o); }},
      {{"psl", "--latitude", "4", "--pixel-size=50"},
       [&](double **o) { return vepra_img_calc_fujiri(&img_, o, 50, 4000, 4); }},
      {{"density"}, [&](double **o) { return vepra_img_calc_density(&img_, o, 0); }}};
  for (auto [args, library] : writers) {
    args.insert(args.end(), {scan, "-o", out});
    ASSERT_EQ(run_tool(args).status, 0) << args[0];
    EXPECT_TRUE(slurp(out) == library_output(library)) << args[0];
  }

  const std::string rois = temp_path("rois.csv"), plain = temp_path("plain.tif");
  std::ofstream(rois) << "shape,x,y,a,b\n# the saturated spot\ncircle,67.2,19.2,6\n\n"
                         "ellipse:20,30,8,5\nrect,-5,-5,3,4\n";
  const std::vector<std::string> measure = {"measure", scan,   "--rois", rois,
                                            "--ring",  "8,12", "--roi",  "circle:30,20,6"};
  r = run_tool(measure);
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 5u) << r.out;
  EXPECT_EQ(lines[0].rfind("region\tarea\tsum\tmean\tmin\tmax\tring_area\t", 0), 0u);
  // The same regions in JSON, with the default plate for PSL.
  std::vector<std::string> as_json = measure;
  as_json.insert(as_json.end(), {"--json", "--psl"});
  r = run_tool(as_json);
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> objects = lines_of(r.out);
  ASSERT_EQ(objects.size(), 4u) << r.out;
  const vepra_img_plate_t plate{100, 4000, 5};
  const vepra_img_roi_t want[] = {{VEPRA_IMG_ROI_CIRCLE, 30, 20, 6, 6, 8, 12},
                                  {VEPRA_IMG_ROI_CIRCLE, 67.2, 19.2, 6, 6, 8, 12},
                                  {VEPRA_IMG_ROI_ELLIPSE, 20, 30, 8, 5, 8, 12},
                                  {VEPRA_IMG_ROI_RECT, -5, -5, 3, 4, 8, 12}};
  for (size_t i = 0; i < 4; ++i) {
    vepra_img_measure_t m{};
    ASSERT_EQ(vepra_img_measure_roi(&img_, &want[i], &plate, &m), nullptr);
    const auto j = nlohmann::json::parse(objects[i]);
    EXPECT_EQ(j.at("shape"), i < 2 ? "circle" : i == 2 ? "ellipse" : "rect");
    EXPECT_DOUBLE_EQ(j.at("area").get<double>(), m.region.area) << i;
    EXPECT_DOUBLE_EQ(j.at("ring_area").get<double>(), m.ring.area) << i;
    EXPECT_DOUBLE_EQ(j.at("psl_sum").get<double>(), m.region.psl_sum) << i;
    // The text line holds the same figures, rounded.
    const std::string head = lines[i + 1].substr(0, lines[i + 1].find('\t') + 1) +
                             format("%.4f", m.region.area) + "\t" + format("%.10g", m.region.sum);
    EXPECT_EQ(lines[i + 1].rfind(head + "\t", 0), 0u) << lines[i + 1] << "\nwant " << head;
  }
  // Without a ring nothing is covered around the region: no ring mean.
  r = run_tool({"measure", scan, "--json", "--roi", "ellipse:20,30,8,5"});
  EXPECT_TRUE(nlohmann::json::parse(lines_of(r.out).at(0)).at("ring_mean").is_null());

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

}  // namespace
