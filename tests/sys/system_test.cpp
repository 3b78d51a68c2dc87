// Log files, clocks, path helpers and machine information against the C
// library, uname, /sys and /proc, and the product-version parser.
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <apr_strings.h>
#include <apr_time.h>

#include "support/test_support.hpp"
#include "sys/mach_internal.hpp"
#include "vepra_log.h"
#include "vepra_mach.h"
#include "vepra_util.h"

using vepra_test::take_printed;
using vepra_test::temp_path;

namespace {

class SystemTest : public vepra_test::LibraryTest {};

// A new temporary file holding text.
std::string write_temp(const std::string &name, const std::string &text) {
  const std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string uname_form() {
  struct utsname u;
  EXPECT_EQ(uname(&u), 0);
  return std::string(u.sysname) + " " + u.release + " " + u.machine;
}

// A property list with body inside its top-level dict.
std::string plist(const std::string &body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n<dict>\n" +
         body + "</dict>\n</plist>\n";
}

std::string version_key(const std::string &version) {
  return "<key>ProductName</key><string>macOS</string>\n<key>ProductVersion</key><string>" +
         version + "</string>\n";
}

// The system name made from the version files first and second into a
// buffer of size bytes.
std::string name_from(const std::string &first, const std::string &second, int size = 512) {
  std::string buf(static_cast<size_t>(size), 'x');
  const std::array<const char *, 2> paths = {first.c_str(), second.c_str()};
  EXPECT_EQ(vepra::detail::mach_os_name_from(buf.data(), size, paths), buf.data());
  return buf.c_str();
}

}  // namespace

// One log file: appended to, empty texts write nothing, a long message is
// cut at 999 characters, the date prefix has apr_ctime's 24-character form
// and the error printer writes the chain's lines.
TEST_F(SystemTest, LogAppendsCutsDatesAndPrintsChains) {
  const std::string path = write_temp("log.txt", "kept\n");
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
  std::ifstream in(path, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(in), {});
  ASSERT_EQ(text.substr(0, head.size()), head);
  // e.g. "Sun Nov 15 16:34:22 2026", as apr_ctime wrote it around the call
  const std::string date = text.substr(head.size(), 24);
  EXPECT_TRUE(date == before || date == after) << date;
  EXPECT_EQ(text.substr(head.size() + 24),
            ": x\nError(120051): DL insertion error: invalid pointer. \n");
}

// A log whose file cannot be opened is handed out with a three-record
// chain; writes to it, to a closed log, to none and to a full device are
// reported on stderr.
TEST_F(SystemTest, LogsWithoutFileReportOpenAndWriteFailures) {
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
    EXPECT_EQ(vepra_log_errhandler("z", reinterpret_cast<FILE *>(log)), 0) << "even when refused";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), refused + refused + refused);
  }
  // Nothing to close, or closed already: quiet.
  testing::internal::CaptureStderr();
  vepra_log_terminate(failed);
  vepra_log_terminate(closed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  // A write that fails (on /dev/full) is reported on stderr, on write or at
  // the latest on close.
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  vepra_log_t *full = nullptr;
  ASSERT_EQ(vepra_log_create(&full, "/dev/full", pool_), nullptr);
  testing::internal::CaptureStderr();
  vepra_log_printf(full, "%s\n", std::string(100000, 'z').c_str());
  vepra_log_terminate(full);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("No space left on device"), std::string::npos) << err;
}

// The clocks against the C library's (processor time after some work, in
// clock ticks), and a sleep that takes real time but no processor time.
TEST_F(SystemTest, ClocksMatchTheCLibraryAndSleepIdles) {
  for (volatile double sink = 0; std::clock() < CLOCKS_PER_SEC / 5;) sink = sink + 1;
  EXPECT_NEAR(vepra_time_cpu(), static_cast<double>(std::clock()) / CLOCKS_PER_SEC, 0.03);
  EXPECT_NEAR(vepra_time_real(), static_cast<double>(std::time(nullptr)), 1.0);
  const double cpu = vepra_time_cpu(), real = vepra_time_real();
  vepra_time_sleep(200000);
  EXPECT_GE(vepra_time_real() - real, 0.19);
  EXPECT_LT(vepra_time_cpu() - cpu, 0.15) << "sleeping uses no processor time";
  EXPECT_EQ(vepra_time_init(), 0);
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

// The files of tests/data/sys/product_versions.txt, and nesting around the
// key (the parser refuses more than 256 levels); names cut to small buffers.
TEST_F(SystemTest, VersionFilesNameTheRelease) {
  std::vector<std::pair<std::string, std::string>> cases;  // file, name
  std::string deep = version_key("10.6.8");
  for (int depth = 1; depth <= 300; ++depth) {
    deep = "<a>" + deep + "</a>";
    if (depth == 250) cases.emplace_back(plist(deep), "Mac OS X 10.6.8 Snow Leopard");
  }
  cases.emplace_back(plist(deep), "-");
  std::ifstream in(VEPRA_TEST_DATA_DIR "/sys/product_versions.txt");
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t bar = line.find('|'), bar2 = line.find('|', bar + 1);
    const std::string how = line.substr(bar + 1, bar2 - bar - 1), text = line.substr(bar2 + 1);
    const std::string file = how == "raw" ? text : plist(how == "dict" ? text : version_key(text));
    cases.emplace_back(file, line.substr(0, bar));
  }
  ASSERT_EQ(cases.size(), 22u);
  const std::string missing = temp_path("missing.plist");
  for (const auto &[file, name] : cases) {
    SCOPED_TRACE(file.substr(0, 300));
    const std::string want = name == "-" ? uname_form() : name + " (" + uname_form() + ")";
    const std::string path = write_temp("version.plist", file);
    EXPECT_EQ(name_from(path, missing), want);
    // The second file is read only when the first cannot be opened.
    EXPECT_EQ(name_from(missing, path), want);
  }
  EXPECT_EQ(name_from(missing, missing), uname_form());

  // A name longer than the buffer is cut and terminated; no buffer, no write.
  const std::string path = write_temp("version.plist", plist(version_key("14.2")));
  const std::string full = "macOS 14.2 Sonoma (" + uname_form() + ")";
  for (int size : {1, 2, 6, 12, 18, 19, 20, static_cast<int>(full.size()),
                   static_cast<int>(full.size()) + 1}) {
    SCOPED_TRACE(size);
    EXPECT_EQ(name_from(path, path, size), full.substr(0, static_cast<size_t>(size) - 1));
  }
  const std::string plain = uname_form();
  EXPECT_EQ(name_from("/nonexistent", "/nonexistent", 5), plain.substr(0, 4));
  char untouched = 'q';
  EXPECT_EQ(vepra_mach_os_name(&untouched, 0), &untouched);
  EXPECT_EQ(untouched, 'q');
}

// Family, name, processors, memory and process id as the system gives them.
TEST_F(SystemTest, MachineAnswersMatchTheOperatingSystem) {
  const std::pair<const char *, int> families[] = {
      {"Linux", 12}, {"Darwin", 20}, {"FreeBSD", 100}, {"Linuxish", 4},
      {"linux", 4},  {"Darwi", 4},   {"", 4},          {"GNU/kFreeBSD", 4}};
  for (const auto &[name, family] : families)
    EXPECT_EQ(vepra::detail::mach_os_family(name), family) << name;
  const std::string sysname = uname_form().substr(0, uname_form().find(' '));
  EXPECT_EQ(vepra_mach_os(), vepra::detail::mach_os_family(sysname));

  // Where a real version file exists its text is not known here.
  char name[512];
  if (!std::filesystem::exists("/System/Library/CoreServices/SystemVersion.plist")) {
    EXPECT_EQ(std::string(vepra_mach_os_name(name, sizeof name)), uname_form());
  }

  // Configured processors: the cpuN directories that glibc counts too.
  unsigned dirs = 0;
  for (const auto &e : std::filesystem::directory_iterator("/sys/devices/system/cpu")) {
    const std::string n = e.path().filename();
    dirs += n.size() > 3 && n.compare(0, 3, "cpu") == 0 &&
            n.find_first_not_of("0123456789", 3) == std::string::npos;
  }
  EXPECT_EQ(vepra_mach_os_cpu_num(), dirs);

  // MemTotal of /proc/meminfo is the kernel's total RAM in KiB.
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  double kib = 0;
  while (meminfo >> key && key != "MemTotal:") meminfo.ignore(1 << 10, '\n');
  ASSERT_TRUE(meminfo >> kib);
  EXPECT_NEAR(vepra_mach_physmem(), kib / 1024.0, 1.0);

  EXPECT_EQ(std::to_string(vepra_getpid()), std::filesystem::read_symlink("/proc/self").string());
}
