// Log files, the log printer for error chains, the clocks and the path
// helpers.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include <apr_strings.h>

#include "support/test_support.hpp"
#include "vepra_log.h"
#include "vepra_util.h"

using vepra_test::LibraryTest;
using vepra_test::take_printed;
using vepra_test::temp_path;

namespace {

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class LogTest : public LibraryTest {};

}  // namespace

TEST_F(LogTest, AppendsToExistingFileAndWritesNothingForEmptyText) {
  const std::string path = temp_path("log.txt");
  std::ofstream(path) << "kept\n";
  vepra_log_t *log = nullptr;
  ASSERT_EQ(vepra_log_create(&log, path.c_str(), pool_), nullptr);
  EXPECT_STREQ(log->filename, path.c_str());
  vepra_log_printf(log, "%s=%d\n", "n", 5);
  vepra_log_printf(log, "%s", "");
  const char *empty = "";
  vepra_log_printf(log, empty, 0);
  vepra_log_terminate(log);
  EXPECT_EQ(read_file(path), "kept\nn=5\n");
}

TEST_F(LogTest, LongMessagesAreCutAt999Characters) {
  const std::string path = temp_path("long.txt");
  vepra_log_t *log = nullptr;
  ASSERT_EQ(vepra_log_create(&log, path.c_str(), pool_), nullptr);
  vepra_log_printf(log, "%s", std::string(5000, 'y').c_str());
  vepra_log_terminate(log);
  EXPECT_EQ(read_file(path), std::string(999, 'y'));
}

TEST_F(LogTest, DatePrefixAndErrorPrinter) {
  const std::string path = temp_path("dt.txt");
  vepra_log_t *log = nullptr;
  ASSERT_EQ(vepra_log_create(&log, path.c_str(), pool_), nullptr);
  vepra_log_dtprintf(log, "%s\n", "x");
  vepra_error_t *e = vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(vepra_error_handle(e, vepra_log_errhandler, reinterpret_cast<FILE *>(log)), e);
  vepra_error_clear(e);
  vepra_log_terminate(log);
  const std::string text = read_file(path);
  // apr_ctime's 24-character form, e.g. "Sun Nov 15 16:34:22 2026".
  ASSERT_GT(text.size(), 24u);
  char day[4], month[4];
  int mday = 0, h = 0, m = 0, sec = 0, year = 0, used = 0;
  ASSERT_EQ(std::sscanf(text.c_str(), "%3s %3s %2d %2d:%2d:%2d %4d%n", day, month, &mday, &h, &m,
                        &sec, &year, &used),
            7)
      << text;
  EXPECT_EQ(used, 24);
  EXPECT_GE(year, 2024);
  EXPECT_EQ(text.substr(24), ": x\nError(120051): DL insertion error: invalid pointer. \n");
}

TEST_F(LogTest, OpenFailureIsAThreeRecordChain) {
  const std::string dir = temp_path("no-such-dir");
  const std::string path = dir + "/log.txt";
  vepra_log_t *log = nullptr;
  vepra_error_t *e = vepra_log_create(&log, path.c_str(), pool_);
  ASSERT_NE(e, nullptr);
  ASSERT_NE(log, nullptr) << "the record is handed out before the open";
  EXPECT_EQ(log->file, nullptr);
  char buf[255];
  EXPECT_EQ(take_printed(e), "Error: Cannot create log. \nError: Can't open file '" + path +
                                 "' \nError: " + apr_strerror(APR_ENOENT, buf, sizeof buf) +
                                 " ");
  vepra_log_terminate(log);  // nothing to close: quiet
}

TEST_F(LogTest, WriteFailureIsPrintedOnStderrAndTheCallGoesOn) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  vepra_log_t *log = nullptr;
  ASSERT_EQ(vepra_log_create(&log, "/dev/full", pool_), nullptr);
  testing::internal::CaptureStderr();
  vepra_log_printf(log, "%s\n", std::string(100000, 'z').c_str());
  vepra_log_terminate(log);
  std::string err = testing::internal::GetCapturedStderr();
  // Buffered data fails on write or at the latest on close.
  EXPECT_NE(err.find("No space left on device"), std::string::npos) << err;
}

TEST(TimeTest, ClocksAdvance) {
  ASSERT_EQ(vepra_initialize(), 0);
  const double wall = vepra_time_real();
  EXPECT_GT(wall, 1.7e9);  // after 2023
  const double cpu0 = vepra_time_cpu();
  volatile double sink = 0;
  while (vepra_time_cpu() - cpu0 < 0.05) {
    for (int i = 0; i < 100000; ++i) sink = sink + i;
  }
  EXPECT_GE(vepra_time_cpu() - cpu0, 0.05);
  const double before_sleep_cpu = vepra_time_cpu();
  const double before_sleep = vepra_time_real();
  vepra_time_sleep(200000);
  EXPECT_GE(vepra_time_real() - before_sleep, 0.19);
  EXPECT_LT(vepra_time_cpu() - before_sleep_cpu, 0.15) << "sleeping uses no processor time";
  EXPECT_EQ(vepra_time_init(), 0);
  vepra_terminate();
}

TEST(PathTest, BaseNameAndDirName) {
  struct Case {
    const char *path, *base, *dir;
  };
  // Expected values follow POSIX basename(3) and dirname(3).
  const Case cases[] = {
      {"/", "/", "/"},           {"", ".", "."},
      {"a", "a", "."},           {"a/", "a", "."},
      {"/a", "a", "/"},          {"/a/b", "b", "/a"},
      {"a/b//", "b", "a"},       {"//", "/", "/"},
      {"/usr//lib/", "lib", "/usr"}, {"x//y", "y", "x"},
      {"../f.c", "f.c", ".."},
  };
  for (const Case &c : cases) {
    char buf[64];
    EXPECT_STREQ(vepra_util_basename(c.path, buf, sizeof buf), c.base) << c.path;
    EXPECT_STREQ(vepra_util_dirname(c.path, buf, sizeof buf), c.dir) << c.path;
  }
  char small[4];
  EXPECT_STREQ(vepra_util_basename("/dir/abcdef", small, sizeof small), "abc");
  EXPECT_STREQ(vepra_util_dirname("/abcdef/x", small, sizeof small), "/ab");
}

TEST_F(LogTest, WritesToALogWithoutFileAreReportedOnStderr) {
  vepra_log_t *failed = nullptr;
  const std::string path = temp_path("no-such-dir") + "/log.txt";
  vepra_error_clear(vepra_log_create(&failed, path.c_str(), pool_));
  vepra_log_t *closed = nullptr;
  ASSERT_EQ(vepra_log_create(&closed, temp_path("closed.log").c_str(), pool_), nullptr);
  vepra_log_terminate(closed);
  for (vepra_log_t *log : {failed, closed, static_cast<vepra_log_t *>(nullptr)}) {
    testing::internal::CaptureStderr();
    vepra_log_printf(log, "x");
    vepra_log_dtprintf(log, "y");
    vepra_log_errhandler("z", reinterpret_cast<FILE *>(log));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: Cannot write to log. \nError: The log file is not open. \n"
              "Error: Cannot write to log. \nError: The log file is not open. \n"
              "Error: Cannot write to log. \nError: The log file is not open. \n");
  }
  vepra_log_terminate(closed);  // a second terminate stays quiet
}
