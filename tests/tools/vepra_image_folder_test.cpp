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
#include <string>
#include <vector>

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
  std::error_code ec;
  for (const auto &e : fs::recursive_directory_iterator(dir, ec)) {
    if (e.is_regular_file()) files[fs::relative(e.path(), dir).string()] = slurp(e.path());
  }
  return files;
}

// Writes a 16-bit BlackIsZero scan with libtiff, in one strip.
void write_scan(const std::string &path, uint32_t width, uint32_t height,
                std::vector<uint16_t> samples) {
  TIFF *t = TIFFOpen(path.c_str(), "w");
  ASSERT_NE(t, nullptr) << path;
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, height);
  ASSERT_GE(TIFFWriteEncodedStrip(t, 0, samples.data(), tmsize_t(2 * samples.size())), 0);
  TIFFClose(t);
}

// A folder of 24 16-bit scans written by libtiff (18 at the top, 6 in
// sub/), a text file the default patterns leave out, and a broken .tif file
// that sorts first.
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
      write_scan(dir_ + "/" + name, width, height, samples);
      const auto [lo, hi] = std::minmax_element(samples.begin(), samples.end());
      scans_.push_back({dir_ + "/" + name, *lo, *hi});
    }
    std::ofstream(dir_ + "/notes.txt") << "not a scan\n";
    std::ofstream(dir_ + "/broken.tif") << "not a scan either\n";
  }
  void TearDown() override {
    if (!root_.empty()) fs::remove_all(root_);
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
  const struct {
    std::vector<std::string> command;
    bool writes;
  } cases[] = {{{"stats"}, false},
               {{"info", "--json"}, false},
               {{"measure", "--roi", "circle:20,15,6", "--ring", "8,12", "--psl"}, false},
               {{"overlay", "--roi", "circle:20,15,6"}, true},
               {{"mask"}, true},
               {{"psl", "--latitude", "4"}, true},
               {{"density"}, true}};
  const std::string broken = "Error(120150): Cannot open image '" + dir_ + "/broken.tif'. \n";
  for (const auto &c : cases) {
    SCOPED_TRACE(c.command[0]);
    ToolRun runs[2];
    for (int k = 0; k < 2; ++k) {
      std::vector<std::string> args = c.command;
      for (const char *a : {"-r", "-j", k == 0 ? "1" : "4"}) args.push_back(a);
      if (c.writes) args.insert(args.end(), {"-o", out + std::to_string(k)});
      args.push_back(k == 0 ? dir_ : dir_ + "/");
      runs[k] = run_tool(args);
      EXPECT_EQ(runs[k].status, 1) << runs[k].err;
    }
    EXPECT_EQ(runs[0].out, runs[1].out);
    EXPECT_EQ(runs[0].err, runs[1].err);
    EXPECT_EQ(runs[0].err.find(broken), 0u) << runs[0].err;
    EXPECT_EQ(runs[0].err.find("Cannot open image", broken.size()), std::string::npos);

    // Each file written is what the program writes for that file alone.
    if (!c.writes) continue;
    std::map<std::string, std::string> written;
    for (const Scan &s : scans_) {
      std::vector<std::string> args = c.command;
      args.insert(args.end(), {"-o", single, s.path});
      ASSERT_EQ(run_tool(args).status, 0) << s.path;
      written[fs::relative(s.path, dir_)] = slurp(single);
    }
    EXPECT_EQ(tree(out + "0"), written);
    EXPECT_EQ(tree(out + "1"), written);
  }
}

// What is walked, in which order and form: the statistics match the
// samples libtiff was given, file by file in walk order.
TEST_F(FolderTest, SelectionAndJsonFollowTheWalkOrder) {
  // Without --recursive only the top level; patterns narrow it further.
  const std::pair<std::vector<std::string>, size_t> selections[] = {
      {{"stats", "-j", "3", dir_}, 19},
      {{"stats", "-r", "--exclude", "*/broken.tif;*/scan_1*", dir_}, 15},  // 00-09, 20-23
      {{"stats", "-r", "--include", "*/sub/*", dir_}, 7},
  };
  for (const auto &[args, count] : selections) {
    EXPECT_EQ(lines_of(run_tool(args).out).size(), count) << args[2];
  }
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
}

// Progress goes to a terminal only: a pty (made by script) sees it, a file
// does not.
TEST_F(FolderTest, ProgressLineOnlyOnATerminal) {
  const std::string stats = command_line(vepra_test::kImageTool, {"stats", "-r", "-j", "2", dir_});
  const ToolRun terminal = vepra_test::run_shell(
      "script -qec " + vepra_test::quote(stats + " 2>&1 >/dev/null") + " /dev/null");
  EXPECT_EQ(terminal.status, 1);
  EXPECT_NE(terminal.out.find("\r\033[K25/25 files, "), std::string::npos) << terminal.out;
  EXPECT_NE(terminal.out.find(" files/s, "), std::string::npos) << terminal.out;
  EXPECT_NE(terminal.out.find("broken.tif"), std::string::npos) << terminal.out;
  const ToolRun r = run_tool({"stats", "-r", "-j", "2", dir_});
  EXPECT_EQ(r.err.find("files/s"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find('\r'), std::string::npos);
  EXPECT_NE(r.err.find("broken.tif"), std::string::npos);
}
