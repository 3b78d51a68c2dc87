// vepra-image's commands over a folder: the same results in walk order
// whatever the number of jobs, each the program's result for that file
// alone, written results mirroring the folder, a broken file reported while
// the others are done, the selection options, and a progress line only on
// a terminal.
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
using vepra_test::temp_path;
using vepra_test::ToolRun;
using vepra_test::write_libtiff;

// Every regular file below dir by its relative path, with its bytes.
std::map<std::string, std::string> tree(const std::string &dir) {
  std::map<std::string, std::string> files;
  std::error_code ec;
  for (const auto &e : fs::recursive_directory_iterator(dir, ec)) {
    if (e.is_regular_file()) files[fs::relative(e.path(), dir).string()] = slurp(e.path());
  }
  return files;
}

// A folder of 24 16-bit scans written by libtiff (18 at the top, 6 in
// sub/), a text file the default patterns leave out, and a broken .tif file
// that sorts first.
class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (vepra_test::kImageTool == nullptr) GTEST_SKIP() << "vepra-image is not built";
    root_ = temp_path("folder");
    dir_ = root_ + "/in";
    fs::create_directories(dir_ + "/sub");
    std::mt19937 rng(15);
    for (int i = 0; i < 24; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "%sscan_%02d.tif", i < 18 ? "" : "sub/", i);
      vepra_test::Page page{30 + uint32_t(rng() % 20), 24 + uint32_t(rng() % 12), 16, {}};
      page.samples.resize(size_t{page.width} * page.height);
      for (uint16_t &v : page.samples) v = uint16_t(1000 * i + rng() % 5000);
      write_libtiff(dir_ + "/" + name, {page});
      const auto [lo, hi] = std::minmax_element(page.samples.begin(), page.samples.end());
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

    // Each file's result is what the program gives for that file alone.
    std::string table;
    std::map<std::string, std::string> written;
    for (const Scan &s : scans_) {
      std::vector<std::string> args = c.command;
      if (c.writes) args.insert(args.end(), {"-o", single});
      args.push_back(s.path);
      const ToolRun alone = run_tool(args);
      ASSERT_EQ(alone.status, 0) << alone.err;
      if (c.writes) written[fs::relative(s.path, dir_)] = slurp(single);
      std::vector<std::string> lines = lines_of(alone.out);
      if (!lines.empty() && lines[0][0] == '{') table += alone.out;  // JSON: an object a file
      if (lines.empty() || lines[0][0] == '{') continue;
      const bool named = lines[0].rfind("file\t", 0) == 0;  // stats names its files itself
      if (table.empty()) table = (named ? "" : "file\t") + lines[0] + "\n";
      for (size_t i = 1; i < lines.size(); ++i)
        table += (named ? "" : s.path + "\t") + lines[i] + "\n";
    }
    EXPECT_EQ(runs[0].out, table);
    if (!c.writes) continue;
    EXPECT_EQ(tree(out + "0"), written);
    EXPECT_EQ(tree(out + "1"), written);
    fs::remove_all(out + "0");
    fs::remove_all(out + "1");
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

// Two inputs that map to one result path: the first is written, the later
// one fails and names the earlier.
TEST_F(FolderTest, TwoInputsWithOneResultPathWriteTheFirstAndFailTheLater) {
  const std::string first = scans_[0].path, other = root_ + "/other", out = root_ + "/out/",
                    single = root_ + "/single.tif";
  fs::create_directories(other);
  fs::copy_file(scans_[1].path, other + "/scan_00.tif");
  // Density tells the two files apart (their data masks would not).
  const ToolRun r = run_tool({"density", "-j", "3", first, other, "-o", out});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Error(120032): Cannot write optical density of '" + other +
                       "/scan_00.tif'. \nError(120032): '" + out +
                       "scan_00.tif' is the result of '" + first + "' already \n");
  ASSERT_EQ(run_tool({"density", first, "-o", single}).status, 0);
  const std::map<std::string, std::string> expected = {{"scan_00.tif", slurp(single)}};
  EXPECT_EQ(tree(out), expected);
}
