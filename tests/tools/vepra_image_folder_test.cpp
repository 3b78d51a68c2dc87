// vepra-image's commands over a folder: the same results in walk order
// whatever the number of jobs, written results mirroring the folder, each
// what the program writes for that file alone, a broken file reported while
// the others are done, the selection options, and a progress line only on
// a terminal.
#include <tiffio.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>

#include "support/test_support.hpp"
#include "tools/tool_run.hpp"

namespace {

namespace fs = std::filesystem;
using vepra_test::command_line;
using vepra_test::lines_of;
using vepra_test::run_tool;
using vepra_test::slurp;
using vepra_test::ToolRun;

// Every regular file below dir by its relative path, with its bytes.
std::map<std::string, std::string> tree(const std::string &dir) {
  std::map<std::string, std::string> files;
  for (const auto &e : fs::recursive_directory_iterator(dir))
    if (e.is_regular_file()) files[fs::relative(e.path(), dir).string()] = slurp(e.path());
  return files;
}

// A folder of 24 16-bit BlackIsZero scans written by libtiff (18 at the
// top, 6 in sub/), a text file the default patterns leave out, and a broken
// .tif file that sorts first.
class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (vepra_test::kImageTool == nullptr) GTEST_SKIP() << "vepra-image is not built";
    root_ = vepra_test::temp_path("folder");
    dir_ = root_ + "/in";
    fs::create_directories(dir_ + "/sub");
    std::mt19937 rng(15);
    for (int i = 0; i < 24; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "%sscan_%02d.tif", i < 18 ? "" : "sub/", i);
      const uint32_t width = 30 + rng() % 20, height = 24 + rng() % 12;
      std::vector<uint16_t> samples(size_t{width} * height);
      for (uint16_t &v : samples) v = uint16_t(1000 * i + rng() % 5000);
      TIFF *t = TIFFOpen((dir_ + "/" + name).c_str(), "w");
      ASSERT_NE(t, nullptr) << name;
      TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
      TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
      TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
      TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
      TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, height);
      ASSERT_GE(TIFFWriteEncodedStrip(t, 0, samples.data(), tmsize_t(2 * samples.size())), 0);
      TIFFClose(t);
      const auto [lo, hi] = std::minmax_element(samples.begin(), samples.end());
      scans_.push_back({dir_ + "/" + name, *lo, *hi});
    }
    std::ofstream(dir_ + "/notes.txt") << "not a scan\n";
    std::ofstream(dir_ + "/broken.tif") << "not a scan either\n";
  }
  struct Scan {
    std::string path;
    unsigned min, max;
  };
  std::string root_, dir_;  // the scans are in dir_, the results go beside it
  std::vector<Scan> scans_;
};

}  // namespace

TEST_F(FolderTest, EveryCommandGivesTheSameResultsInOrderWithAnyNumberOfJobs) {
  const std::string out = root_ + "/out", single = root_ + "/single.tif";
  // Commands, and whether they write a file for each input.
  const std::pair<std::vector<std::string>, bool> cases[] = {
      {{"stats"}, false},
      {{"info", "--json"}, false},
      {{"measure", "--roi", "circle:20,15,6", "--ring", "8,12", "--psl"}, false},
      {{"overlay", "--roi", "circle:20,15,6"}, true},
      {{"mask"}, true},
      {{"psl", "--latitude", "4"}, true},
      {{"density"}, true}};
  const std::string broken = "Error(120150): Cannot open image '" + dir_ + "/broken.tif'. \n";
  for (const auto &[command, writes] : cases) {
    SCOPED_TRACE(command[0]);
    ToolRun runs[2];
    for (int k = 0; k < 2; ++k) {
      std::vector<std::string> args = command;
      args.insert(args.end(), {"-r", "-j", k == 0 ? "1" : "4"});
      if (writes) args.insert(args.end(), {"-o", out + std::to_string(k)});
      args.push_back(k == 0 ? dir_ : dir_ + "/");
      runs[k] = run_tool(args);
      EXPECT_EQ(runs[k].status, 1) << runs[k].err;
    }
    EXPECT_EQ(runs[0].out, runs[1].out);
    EXPECT_EQ(runs[0].err, runs[1].err);
    EXPECT_EQ(runs[0].err.find(broken), 0u) << runs[0].err;
    EXPECT_EQ(runs[0].err.find("Cannot open image", broken.size()), std::string::npos);
    EXPECT_EQ(runs[1].err.find('\r'), std::string::npos) << "progress shown on a file";
    if (!writes) continue;
    // Each file written is what the program writes for that file alone.
    std::map<std::string, std::string> written;
    for (const Scan &s : scans_) {
      std::vector<std::string> args = command;
      args.insert(args.end(), {"-o", single, s.path});
      ASSERT_EQ(run_tool(args).status, 0) << s.path;
      written[fs::relative(s.path, dir_)] = slurp(single);
    }
    EXPECT_EQ(tree(out + "0"), written);
    EXPECT_EQ(tree(out + "1"), written);
  }
}

// What is walked, in which order and form: the statistics match the
// samples libtiff was given, file by file in walk order; progress is shown
// on a terminal only.
TEST_F(FolderTest, SelectionJsonAndProgressFollowTheWalk) {
  // Without --recursive only the top level; patterns narrow it further.
  EXPECT_EQ(lines_of(run_tool({"stats", "-j", "3", dir_}).out).size(), 19u);
  EXPECT_EQ(
      lines_of(run_tool({"stats", "-r", "--exclude", "*/broken.tif;*/scan_1*", dir_}).out).size(),
      15u);  // 00-09, 20-23
  EXPECT_EQ(lines_of(run_tool({"stats", "-r", "--include", "*/sub/*", dir_}).out).size(), 7u);
  // JSON: one object a line, numbers as numbers, in the same order.
  const ToolRun r =
      run_tool({"stats", "--json", "-r", "-j", "2", "--exclude", "*/broken.tif", dir_});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), scans_.size());
  for (size_t i = 0; i < scans_.size(); ++i) {
    const auto j = nlohmann::json::parse(lines[i]);
    EXPECT_EQ(j.at("file"), scans_[i].path);
    EXPECT_EQ(std::pair(j.at("min").get<unsigned>(), j.at("max").get<unsigned>()),
              std::pair(scans_[i].min, scans_[i].max));
    EXPECT_TRUE(j.at("mean").is_number_float() && j.at("threshold").is_number() &&
                j.at("entropy").is_number());
  }
  // Progress goes to a terminal (here a pty made by script) only.
  const std::string stats = command_line(vepra_test::kImageTool, {"stats", "-r", "-j", "2", dir_});
  const ToolRun terminal = vepra_test::run_shell(
      "script -qec " + vepra_test::quote(stats + " 2>&1 >/dev/null") + " /dev/null");
  EXPECT_EQ(terminal.status, 1);
  for (const char *part : {"\r\033[K25/25 files, ", " files/s, ", "broken.tif"})
    EXPECT_NE(terminal.out.find(part), std::string::npos) << terminal.out;
}
