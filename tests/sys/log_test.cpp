// Log files, the log printer for error chains, the clocks and the path
// helpers.
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include <apr_strings.h>
#include <apr_time.h>

#include "support/test_support.hpp"
#include "vepra_log.h"
#include "vepra_util.h"

using vepra_test::LibraryTest;
using vepra_test::take_printed;
using vepra_test::temp_path;

namespace {

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class LogTest : public LibraryTest {};

}  // namespace

// One log file: appended to, empty texts write nothing, a long message is
// cut at 999 characters, the date prefix has apr_ctime's 24-character form
// and the error printer writes the chain's lines.
TEST_F(LogTest, AppendsCutsDatesAndPrintsChains) {
  const std::string path = temp_path("log.txt");
  std::ofstream(path) << "kept\n";
  vepra_log_t *log = nullptr;
  ASSERT_EQ(vepra_log_create(&log, path.c_str(), pool_), nullptr);
  EXPECT_STREQ(log->filename, path.c_str());
  vepra_log_printf(log, "%s=%d\n", "n", 5);
  vepra_log_printf(log, "%s", "");
  const char *empty = "";
  vepra_log_printf(log, empty, 0);
  vepra_log_printf(log, "%s", std::string(5000, 'y').c_str());
  char before[APR_CTIME_LEN], after[APR_CTIME_LEN];
  apr_ctime(before, apr_time_now());
  vepra_log_dtprintf(log, "%s\n", "x");
  apr_ctime(after, apr_time_now());
  vepra_error_t *e = vepra_error_create_i(0, 120051, 0, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(vepra_error_handle(e, vepra_log_errhandler, reinterpret_cast<FILE *>(log)), e);
  vepra_error_clear(e);
  vepra_log_terminate(log);
  const std::string head = "kept\nn=5\n" + std::string(999, 'y');
  const std::string text = read_file(path);
  ASSERT_EQ(text.substr(0, head.size()), head);
  // e.g. "Sun Nov 15 16:34:22 2026", as apr_ctime wrote it around the call
  const std::string date = text.substr(head.size(), 24);
  EXPECT_TRUE(date == before || date == after) << date;
  EXPECT_EQ(text.substr(head.size() + 24),
            ": x\nError(120051): DL insertion error: invalid pointer. \n");
}

// A log whose file cannot be opened is handed out with a three-record
// chain; writes to it, to a closed log and to none are reported on stderr.
TEST_F(LogTest, LogsWithoutFileReportOpenAndWriteFailures) {
  const std::string path = temp_path("no-such-dir") + "/log.txt";
  vepra_log_t *failed = nullptr;
  vepra_error_t *e = vepra_log_create(&failed, path.c_str(), pool_);
  ASSERT_NE(failed, nullptr) << "the record is handed out before the open";
  EXPECT_EQ(failed->file, nullptr);
  char buf[255];
  EXPECT_EQ(take_printed(e), "Error: Cannot create log. \nError: Can't open file '" + path +
                                 "' \nError: " + apr_strerror(APR_ENOENT, buf, sizeof buf) + " ");
  // Null arguments: no out pointer makes nothing; no name fails the open.
  const std::string einval = apr_strerror(APR_EINVAL, buf, sizeof buf);
  EXPECT_EQ(take_printed(vepra_log_create(nullptr, path.c_str(), pool_)),
            "Error: Cannot create log. \nError: " + einval + " ");
  vepra_log_t *unnamed = nullptr;
  EXPECT_EQ(take_printed(vepra_log_create(&unnamed, nullptr, pool_)),
            "Error: Cannot create log. \nError: Can't open file '(null)' \nError: " + einval + " ");
  ASSERT_NE(unnamed, nullptr);
  EXPECT_EQ(unnamed->file, nullptr);
  vepra_log_t *closed = nullptr;
  ASSERT_EQ(vepra_log_create(&closed, temp_path("closed.log").c_str(), pool_), nullptr);
  vepra_log_terminate(closed);
  const std::string refused = "Error: Cannot write to log. \nError: The log file is not open. \n";
  for (vepra_log_t *log : {failed, closed, static_cast<vepra_log_t *>(nullptr)}) {
    testing::internal::CaptureStderr();
    vepra_log_printf(log, "x");
    vepra_log_dtprintf(log, "y");
    vepra_log_errhandler("z", reinterpret_cast<FILE *>(log));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refused + refused + refused);
  }
  // Nothing to close, or closed already: quiet.
  testing::internal::CaptureStderr();
  vepra_log_terminate(failed);
  vepra_log_terminate(closed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
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

// The clocks against the C library's (processor time after some work, in
// clock ticks), and a sleep that takes real time but no processor time.
TEST(TimeTest, ClocksMatchTheCLibraryAndSleepIdles) {
  ASSERT_EQ(vepra_initialize(), 0);
  for (volatile double sink = 0; std::clock() < CLOCKS_PER_SEC / 5;) sink = sink + 1;
  EXPECT_NEAR(vepra_time_cpu(), static_cast<double>(std::clock()) / CLOCKS_PER_SEC, 0.03);
  EXPECT_NEAR(vepra_time_real(), static_cast<double>(std::time(nullptr)), 1.0);
  const double cpu = vepra_time_cpu(), real = vepra_time_real();
  vepra_time_sleep(200000);
  EXPECT_GE(vepra_time_real() - real, 0.19);
  EXPECT_LT(vepra_time_cpu() - cpu, 0.15) << "sleeping uses no processor time";
  EXPECT_EQ(vepra_time_init(), 0);
  vepra_terminate();
}

// The rows of tests/data/sys/paths.tsv, then names cut to a small buffer.
TEST(PathTest, BaseNameAndDirName) {
  char buf[64];
  const auto rows = vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/sys/paths.tsv");
  ASSERT_EQ(rows.size(), 11u);
  for (const auto &row : rows) {
    ASSERT_EQ(row.size(), 3u);
    EXPECT_STREQ(vepra_util_basename(row[0].c_str(), buf, sizeof buf), row[1].c_str()) << row[0];
    EXPECT_STREQ(vepra_util_dirname(row[0].c_str(), buf, sizeof buf), row[2].c_str()) << row[0];
  }
  char small[4];
  EXPECT_STREQ(vepra_util_basename("/dir/abcdef", small, sizeof small), "abc");
  EXPECT_STREQ(vepra_util_dirname("/abcdef/x", small, sizeof small), "/ab");
}
