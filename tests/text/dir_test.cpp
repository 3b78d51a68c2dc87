// Directory traversal on temporary trees, checked against the C library's
// fnmatch and a reference walk over readdir.
#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "support/test_support.hpp"
#include "vepra_dir.h"

namespace {

using vepra_test::take_printed;
using Paths = std::vector<std::string>;

class DirTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    root_ = vepra_test::temp_path("tree");
    ASSERT_EQ(mkdir(root_.c_str(), 0755), 0);
  }
  void TearDown() override {
    EXPECT_EQ(std::system(("chmod -R u+rwx '" + root_ + "'; rm -rf '" + root_ + "'").c_str()), 0);
    LibraryTest::TearDown();
  }

  // Runs a shell command in the root: the trees are made by the system's tools.
  void sh(const std::string &command) {
    ASSERT_EQ(std::system(("cd '" + root_ + "' && " + command).c_str()), 0) << command;
  }

  // The paths the callback saw; the callback fails for names containing
  // "fail" and stops the walk at names containing "stop".
  vepra_error_t *walk(const char *include, const char *exclude, uint32_t flags, Paths *seen,
                      const std::string &dir = "") {
    options_ = {flags, nullptr, nullptr, record, seen};
    return vepra_dir_traverse((dir.empty() ? root_ : dir).c_str(), include, exclude, &options_,
                              pool_);
  }

  static vepra_error_t *record(const char *path, void *user, apr_pool_t *pool) {
    EXPECT_NE(pool, nullptr);
    static_cast<Paths *>(user)->emplace_back(path);
    if (std::strstr(path, "stop") != nullptr) return VepraDLlistStopWalking;
    if (std::strstr(path, "fail") != nullptr)
      return vepra_error_createf_i(VEPRA_ERROR_TYPE_ERROR, 0, 0, nullptr, nullptr, nullptr,
                                   "refused %s", std::strrchr(path, '/') + 1);
    return nullptr;
  }

  std::string root_;
  vepra_dir_options_t options_{};
};

// The files a recursive walk reports, by readdir: a directory's regular
// files and links in read order, then its subdirectories in read order.
void reference_walk(const std::string &dir, Paths *out) {
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return;
  Paths subdirs;
  while (dirent *e = readdir(d)) {
    std::string name = e->d_name, path = dir + "/" + name;
    if (e->d_type == DT_DIR && name != "." && name != "..") subdirs.push_back(path);
    if (e->d_type == DT_REG || e->d_type == DT_LNK) out->push_back(path);
  }
  closedir(d);
  for (const std::string &s : subdirs) reference_walk(s, out);
}

TEST_F(DirTest, PatternsAgreeWithFnmatchForEveryFlag) {
  // Links to directories, loops, dangling links and a FIFO are never entered.
  sh("mkdir -p sub/empty && touch a.tif b.png c.txt .hidden.tif D.TIF 'star*.tif' sub/e.tif "
     "sub/.f.png && ln -s c.txt link.tif && ln -s . loop && ln -s .. sub/up && ln -s pong ping && "
     "ln -s ping pong && ln -s nowhere dangling && mkfifo fifo");
  // Include and exclude patterns.
  const std::pair<const char *, const char *> cases[] = {
      {nullptr, nullptr}, {"*.tif;*.png", nullptr}, {"*.tif;*.png", "*b*"},
      {nullptr, "*.tif"}, {"*.TIF", nullptr},       {"*/.*", nullptr},
      {"*\\**", nullptr}, {"*/[a-c].*;;", nullptr}, {"", nullptr},
      {";", "x"},         {"*sub/*", "*/.*"},       {"*/?.*", "*.png;*.txt"},
  };
  auto any_match = [](const char *composite, const std::string &path, int flags) {
    std::istringstream pieces(composite);
    for (std::string piece; std::getline(pieces, piece, ';');)
      if (!piece.empty() && fnmatch(piece.c_str(), path.c_str(), flags) == 0) return true;
    return false;
  };
  Paths all;
  reference_walk(root_, &all);
  ASSERT_EQ(all.size(), 14u) << "regular files and links, in two directories";
  for (uint32_t low = 0; low < 16; ++low) {
    const int fnm = ((low & VEPRA_DIR_NOESCAPE) ? FNM_NOESCAPE : 0) |
                    ((low & VEPRA_DIR_PATHNAME) ? FNM_PATHNAME : 0) |
                    ((low & VEPRA_DIR_PERIOD) ? FNM_PERIOD : 0) |
                    ((low & VEPRA_DIR_CASE_BLIND) ? FNM_CASEFOLD : 0);
    for (const auto &[include, exclude] : cases) {
      for (uint32_t recursive : {0u, uint32_t{VEPRA_DIR_RECURSIVE}}) {
        Paths seen, expected;
        ASSERT_EQ(walk(include, exclude, low | recursive, &seen), nullptr);
        for (const std::string &p : all) {
          if (!recursive && p.find("/sub/") != std::string::npos) continue;
          if ((include == nullptr || any_match(include, p, fnm)) &&
              (exclude == nullptr || !any_match(exclude, p, fnm)))
            expected.push_back(p);
        }
        EXPECT_EQ(seen, expected) << "flags " << (low | recursive) << " include "
                                  << (include ? include : "(null)") << " exclude "
                                  << (exclude ? exclude : "(null)");
      }
    }
  }
  // The compiled array stays in the options and serves a later call that
  // passes no pattern.
  Paths seen;
  ASSERT_EQ(walk("*.png", nullptr, 0, &seen), nullptr);
  seen.clear();
  ASSERT_EQ(vepra_dir_traverse(root_.c_str(), nullptr, nullptr, &options_, pool_), nullptr);
  EXPECT_EQ(seen, Paths{root_ + "/b.png"});
}

// A failing callback is reported and the walk goes on, or with
// STOP_ON_ERROR the walk fails with it; the stop sentinel ends the walk as
// a success. A directory that cannot be opened, the root or one gone when
// its turn comes (after the files of its parent), fails with its path.
TEST_F(DirTest, FailuresAreReportedOrReturned) {
  sh("mkdir sub && touch ok1 fail1 sub/fail2 sub/ok2");
  Paths seen;
  testing::internal::CaptureStdout();
  EXPECT_EQ(walk(nullptr, nullptr, VEPRA_DIR_RECURSIVE, &seen), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: refused fail1 \nError: refused fail2 \n");
  EXPECT_EQ(seen.size(), 4u);
  const std::string failed = "Error: Cannot traverse directories. \nError: ";
  seen.clear();
  EXPECT_EQ(
      take_printed(walk(nullptr, nullptr, VEPRA_DIR_RECURSIVE | VEPRA_DIR_STOP_ON_ERROR, &seen)),
      failed + "refused fail1 ");
  EXPECT_EQ(seen.back(), root_ + "/fail1");
  EXPECT_LE(seen.size(), 2u);
  sh("touch stop sub/stop");
  seen.clear();
  EXPECT_EQ(walk("*stop", nullptr, VEPRA_DIR_RECURSIVE, &seen), nullptr);
  EXPECT_EQ(seen, Paths{root_ + "/stop"});

  std::string missing = root_ + "/missing";
  EXPECT_EQ(take_printed(walk(nullptr, nullptr, 0, &seen, missing)),
            failed + "(" + missing + "): " + std::strerror(ENOENT) + " ");
  EXPECT_EQ(take_printed(vepra_dir_traverse(nullptr, nullptr, nullptr, &options_, pool_)),
            failed + std::strerror(EINVAL) + " ");
  sh("mkdir gone z && touch z/c");
  options_ = {VEPRA_DIR_RECURSIVE, nullptr, nullptr,
              [](const char *, void *root, apr_pool_t *) -> vepra_error_t * {
                rmdir((*static_cast<std::string *>(root) + "/gone").c_str());
                return nullptr;
              },
              &root_};
  EXPECT_EQ(take_printed(vepra_dir_traverse(root_.c_str(), nullptr, nullptr, &options_, pool_)),
            failed + "(" + root_ + "/gone): " + std::strerror(ENOENT) + " ");
}

}  // namespace
