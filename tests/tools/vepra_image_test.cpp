// The vepra-image program, run as a user would: a sample scan is made, then
// inspected and measured. The measures themselves are proven by the image
// tests; here the figures printed are pinned, the images written must be
// the library's, and failures must print their chain and exit 1 or 2.
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <map>

#include "support/test_support.hpp"
#include "tools/tool_run.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

namespace fs = std::filesystem;
using vepra_test::run_tool;
using vepra_test::slurp;
using vepra_test::temp_path;
using vepra_test::ToolRun;

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
  vepra_img_t img_{};
};

// Each run of the table exits with its status and prints its text on the
// stream it names; the files it names are made here.
TEST_F(VepraImageTest, RunsGiveTheirStatusAndText) {
  const std::string dir = temp_path("runs");
  std::map<std::string, std::string> files = {{"data", VEPRA_TEST_DATA_DIR "/tools"},
                                              {"odd", dir + "/a b\tc\nd\\e\x01.tif"},
                                              {"shown", dir + "/a b\\tc\\nd\\\\e\\001.tif"}};
  for (const char *name : {"missing", "text", "fifo", "dir", "scan", "x", "twin", "out"})
    files[name] = dir + "/" + name;
  for (const std::string &d : {dir, files.at("dir"), files.at("twin")})
    ASSERT_EQ(mkdir(d.c_str(), 0700), 0) << d;
  std::ofstream(files.at("text")) << "not an image\n";
  ASSERT_EQ(mkfifo(files.at("fifo").c_str(), 0600), 0);
  ASSERT_EQ(run_tool({"synth", "-o", files.at("scan"), "--width", "96", "--height", "64"}).status,
            0);
  fs::copy_file(files.at("scan"), files.at("odd"));
  fs::copy_file(files.at("data") + "/unitless.tif", files.at("twin") + "/unitless.tif");
  // \n and \t become a newline and a tab, then $name its file.
  auto expand = [&](std::string s) {
    auto put = [&s](const std::string &from, const std::string &to) {
      for (size_t at; (at = s.find(from)) != std::string::npos;) s.replace(at, from.size(), to);
    };
    put("\\n", "\n");
    put("\\t", "\t");
    for (const auto &[name, file] : files) put("$" + name, file);
    return s;
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
}

// Each command's output is what the library gives for the same scan and
// options: the histogram and the images written.
TEST_F(VepraImageTest, CommandsGiveWhatTheLibraryGives) {
  const std::string scan = temp_path("scan.tif"), csv_path = temp_path("h.csv");
  ASSERT_EQ(run_tool({"synth", "-o", scan, "--width", "96", "--height", "64"}).status, 0);
  ASSERT_EQ(vepra_img_read(scan.c_str(), &img_), nullptr);
  // The histogram file holds the library's counts.
  size_t nbins = 0;
  uint64_t *hist = nullptr;
  ASSERT_EQ(vepra_img_histogram(&img_, &nbins, &hist), nullptr);
  std::string csv = "value," + scan + "\n";
  for (size_t v = 0; v < nbins; ++v)
    csv += std::to_string(v) + "," + std::to_string(hist[v]) + "\n";
  vepra_mem_free(hist);
  ASSERT_EQ(run_tool({"stats", "--histogram", csv_path, scan}).status, 0);
  EXPECT_TRUE(slurp(csv_path) == csv);

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
}

}  // namespace
