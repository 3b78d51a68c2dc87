// Machine and operating-system information, checked against uname, sysconf
// and /proc; the product-version parser is fed property lists of its own.
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "sys/mach_internal.hpp"
#include "vepra_mach.h"

using vepra_test::LibraryTest;
using vepra_test::temp_path;

namespace {

class MachTest : public LibraryTest {};

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

std::string write_temp(const std::string &name, const std::string &text) {
  const std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string name_from(const std::string &first, const std::string &second, int size = 512) {
  std::string buf(static_cast<size_t>(size), 'x');
  const std::array<const char *, 2> paths = {first.c_str(), second.c_str()};
  EXPECT_EQ(vepra::detail::mach_os_name_from(buf.data(), size, paths), buf.data());
  return buf.c_str();
}

}  // namespace

// The files of tests/data/sys/product_versions.txt, and nesting around the
// key: the parser refuses more than 256 levels.
TEST_F(MachTest, VersionFilesNameTheRelease) {
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
}

TEST_F(MachTest, SmallBuffersGetACutTerminatedName) {
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

TEST_F(MachTest, AnswersMatchTheOperatingSystem) {
  struct utsname u;
  ASSERT_EQ(uname(&u), 0);
  const struct {
    const char *name;
    int family;
  } families[] = {{"Linux", 12}, {"Darwin", 20}, {"FreeBSD", 100}, {"Linuxish", 4},
                  {"linux", 4},  {"Darwi", 4},   {"", 4},          {"GNU/kFreeBSD", 4}};
  for (const auto &f : families)
    EXPECT_EQ(vepra::detail::mach_os_family(f.name), f.family) << f.name;
  EXPECT_EQ(vepra_mach_os(), vepra::detail::mach_os_family(u.sysname));

  // Where a real version file exists its text is not known here.
  char name[512];
  if (!std::filesystem::exists("/System/Library/CoreServices/SystemVersion.plist")) {
    EXPECT_EQ(std::string(vepra_mach_os_name(name, sizeof name)), uname_form());
  }

  // Configured processors: the cpuN directories that glibc counts too.
  unsigned dirs = 0;
  for (const auto &e : std::filesystem::directory_iterator("/sys/devices/system/cpu")) {
    const std::string n = e.path().filename();
    if (n.size() > 3 && n.compare(0, 3, "cpu") == 0 &&
        n.find_first_not_of("0123456789", 3) == std::string::npos) {
      ++dirs;
    }
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
