// vepra-image's commands that take a scan at a time, over a folder: the same
// results in input order whatever the number of jobs, a broken file reported
// while the others are done, written results mirroring the folder, each
// result the same as the program's for that file alone.
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "tools/vepra_image_run.hpp"

namespace {

namespace fs = std::filesystem;
using vepra_test::quote;
using vepra_test::run_tool;
using vepra_test::slurp;
using vepra_test::temp_path;
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

class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef VEPRA_IMAGE_TOOL
    GTEST_SKIP() << "vepra-image is not built";
#endif
    root_ = temp_path("folder");
    fs::create_directories(root_ + "/in/sub");
    // In walk order: a, b, the broken file, then sub/c.
    for (const auto &[name, pattern] : {std::pair{"a.tif", "1"}, {"b.tif", "2"}, {"sub/c.tif", "3"}}) {
      ASSERT_EQ(run_tool({"synth", "-o", in(name), "--width", "48", "--height", "32",
                          "--pattern", pattern}).status, 0);
    }
    std::ofstream(in("broken.tif")) << "not a scan\n";
  }
  void TearDown() override {
    if (!root_.empty()) fs::remove_all(root_);
  }
  std::string in(const std::string &name) const { return root_ + "/in/" + name; }
  std::string root_;
  const std::vector<std::string> good_ = {"a.tif", "b.tif", "sub/c.tif"};
};

}  // namespace

TEST_F(FolderTest, EveryCommandGivesTheSameResultsInOrderWithAnyNumberOfJobs) {
  const std::vector<std::string> region = {"--roi", "circle:20,15,6", "--ring", "8,12"};
  const struct {
    std::vector<std::string> command;
    bool writes;
  } cases[] = {{{"measure", region[0], region[1], region[2], region[3], "--psl"}, false},
               {{"overlay", region[0], region[1]}, true},
               {{"mask"}, true},
               {{"psl", "--latitude", "4"}, true},
               {{"density"}, true}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.command[0]);
    ToolRun runs[2];
    for (int k = 0; k < 2; ++k) {
      std::vector<std::string> args = c.command;
      for (const char *a : {"-r", "-j", k == 0 ? "1" : "3"}) args.push_back(a);
      if (c.writes) args.insert(args.end(), {"-o", root_ + "/out" + std::to_string(k)});
      args.push_back(root_ + "/in");
      runs[k] = run_tool(args);
      EXPECT_EQ(runs[k].status, 1) << runs[k].err;
    }
    EXPECT_EQ(runs[0].out, runs[1].out);
    EXPECT_EQ(runs[0].err, runs[1].err);
    const std::string broken = "Cannot open image '" + in("broken.tif") + "'.";
    EXPECT_NE(runs[0].err.find(broken), std::string::npos) << runs[0].err;
    EXPECT_EQ(runs[0].err.find("Cannot open image", runs[0].err.find(broken) + 1),
              std::string::npos) << runs[0].err;

    // Each file's result is what the program gives for that file alone.
    std::string table;
    std::map<std::string, std::string> written;
    for (const std::string &name : good_) {
      std::vector<std::string> args = c.command;
      if (c.writes) args.insert(args.end(), {"-o", root_ + "/single.tif"});
      args.push_back(in(name));
      const ToolRun alone = run_tool(args);
      ASSERT_EQ(alone.status, 0) << alone.err;
      if (c.writes) written[name] = slurp(root_ + "/single.tif");
      std::istringstream lines(alone.out);
      std::string line;
      if (std::getline(lines, line) && table.empty()) table = "file\t" + line + "\n";
      while (std::getline(lines, line)) table += in(name) + "\t" + line + "\n";
    }
    EXPECT_EQ(runs[0].out, table);
    if (!c.writes) continue;
    EXPECT_EQ(tree(root_ + "/out0"), written);
    EXPECT_EQ(tree(root_ + "/out1"), written);
    fs::remove_all(root_ + "/out0");
    fs::remove_all(root_ + "/out1");
  }
}

TEST_F(FolderTest, TwoInputsWithOneResultPathWriteTheFirstAndFailTheLater) {
  fs::create_directories(root_ + "/other");
  fs::copy_file(in("b.tif"), root_ + "/other/a.tif");
  const std::string out = root_ + "/out/";
  // Density tells the two files apart (their data masks would not).
  ToolRun r = run_tool({"density", "-j", "3", in("a.tif"), root_ + "/other", "-o", out});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Cannot write optical density of '" + root_ + "/other/a.tif'."), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("'" + out + "a.tif' is the result of '" + in("a.tif") + "' already"),
            std::string::npos) << r.err;
  ASSERT_EQ(run_tool({"density", in("a.tif"), "-o", root_ + "/single.tif"}).status, 0);
  const std::map<std::string, std::string> expected = {{"a.tif", slurp(root_ + "/single.tif")}};
  EXPECT_EQ(tree(out), expected);
}
