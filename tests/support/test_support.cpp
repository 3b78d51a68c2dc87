#include "support/test_support.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vepra_test {

void LibraryTest::SetUp() {
  ASSERT_EQ(vepra_initialize(), 0);
  ASSERT_EQ(apr_pool_create(&pool_, vepra_pool), APR_SUCCESS);
}

void LibraryTest::TearDown() {
  vepra::testing::fail_allocation_at(0);
  vepra::testing::fail_pool_create_at(0);
  apr_pool_destroy(pool_);
  vepra_terminate();
}

namespace {
int collect(const char *line, FILE *stream) {
  reinterpret_cast<std::vector<std::string> *>(stream)->emplace_back(line);
  return 0;
}
}  // namespace

std::vector<std::string> printed_lines(vepra_error_t *chain) {
  std::vector<std::string> lines;
  vepra_error_handle(chain, collect, reinterpret_cast<FILE *>(&lines));
  return lines;
}

std::string take_printed(vepra_error_t *chain) {
  std::string out;
  for (const std::string &line : printed_lines(chain)) {
    if (!out.empty()) out += '\n';
    out += line;
  }
  vepra_error_clear(chain);
  return out;
}

int code_of(vepra_error_t *chain) {
  const int code = chain != nullptr ? chain->code : 0;
  vepra_error_clear(chain);
  return code;
}

// The test program's own directory in $TMPDIR (or /tmp), removed with
// everything in it when the program ends; a forked child leaves it alone.
std::string temp_path(const std::string &name) {
  static const std::string dir = [] {
    std::string made = std::filesystem::temp_directory_path() / "vepra-test.XXXXXX";
    if (mkdtemp(made.data()) == nullptr) std::abort();
    return made;
  }();
  static const pid_t owner = getpid();
  [[maybe_unused]] static const int removal = std::atexit([] {
    if (std::error_code ignored; getpid() == owner) std::filesystem::remove_all(dir, ignored);
  });
  const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name()
                                     : "vepra";
  std::string path = dir + "/" + test + "." + name;
  std::remove(path.c_str());
  return path;
}

std::vector<std::vector<std::string>> table_rows(const std::string &path) {
  std::ifstream in(path);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> &cols = rows.emplace_back();
    std::stringstream fields(line);
    for (std::string col; std::getline(fields, col, '\t');) {
      if (col.rfind("# ", 0) != 0) cols.push_back(col);
    }
  }
  return rows;
}

long for_each_allocation_failure(const std::function<vepra_error_t *()> &op,
                                 const std::function<void(vepra_error_t *, long)> &check) {
  for (long n = 1;; ++n) {
    vepra::testing::fail_allocation_at(n);
    vepra_error_t *e = op();
    long made = vepra::testing::allocation_count();
    vepra::testing::fail_allocation_at(0);
    if (made < n) {
      // The injected failure was never reached: the run was a clean one.
      EXPECT_EQ(e, nullptr) << "operation failed without an injected failure";
      vepra_error_clear(e);
      return made;
    }
    EXPECT_NE(e, nullptr) << "allocation " << n << " failed but the operation succeeded";
    if (e != nullptr) check(e, n);
    vepra_error_clear(e);
    if (n > 100000) {
      ADD_FAILURE() << "operation never completed";
      return -1;
    }
  }
}

}  // namespace vepra_test
