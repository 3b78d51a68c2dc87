// The vepra-sysinfo program, run as a user would; its JSON is read with
// nlohmann-json and compared with what the kernel reports.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <set>

#include <nlohmann/json.hpp>

#include "support/test_support.hpp"
#include "tools/tool_run.hpp"
#include "vepra_mach.h"

namespace {

#ifdef VEPRA_SYSINFO_TOOL
const char *const kSysinfo = VEPRA_SYSINFO_TOOL;
#else
const char *const kSysinfo = nullptr;  // not built: the tests skip
#endif

vepra_test::ToolRun run(const std::vector<std::string> &args) {
  return vepra_test::run_shell(vepra_test::command_line(kSysinfo, args));
}

// The first processor's "key : value" lines of /proc/cpuinfo.
std::string cpuinfo_value(const std::string &key) {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key, 0) == 0 && line.find(':') != std::string::npos)
      return line.substr(std::min(line.find_first_not_of(' ', line.find(':') + 1), line.size()));
  return "";
}

}  // namespace

// What the program tells is what the kernel tells of this machine.
TEST(SysinfoToolTest, DescribesThisMachine) {
  if (kSysinfo == nullptr) GTEST_SKIP() << "vepra-sysinfo is not built (VEPRA_BUILD_TOOLS=OFF)";
  const vepra_test::ToolRun r = run({"--json"});
  ASSERT_EQ(r.status, 0);
  const nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["processors"].get<long>(), sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(j["os"]["family_code"].get<int>(), vepra_mach_os());
  EXPECT_EQ(j["cpu"]["vendor"].get<std::string>(), cpuinfo_value("vendor_id"));
  EXPECT_EQ(j["cpu"]["brand"].get<std::string>(), cpuinfo_value("model name"));

  cpu_set_t set;
  ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
  std::set<long> allowed;
  for (long i = 0; i < CPU_SETSIZE; ++i)
    if (CPU_ISSET(i, &set)) allowed.insert(i);
  std::set<long> listed;
  for (const auto &p : j["topology"]["processors"]) listed.insert(p["cpu"].get<long>());
  EXPECT_EQ(listed, allowed);

  // The kernel lists avx2 and sha_ni only where the processor has them and
  // their registers are saved: exactly when the library takes those paths.
  std::set<std::string> flags;
  std::stringstream ss(cpuinfo_value("flags"));
  for (std::string f; ss >> f;) flags.insert(f);
  EXPECT_EQ(j["accelerated_paths"]["AVX2"].get<bool>(), flags.count("avx2") != 0);
  EXPECT_EQ(j["accelerated_paths"]["SHA"].get<bool>(), flags.count("sha_ni") != 0);
  EXPECT_EQ(j["accelerated_paths"]["PCLMULQDQ"].get<bool>(), flags.count("pclmulqdq") != 0);

  // The text form tells the same vendor; a wrong option exits 2.
  const vepra_test::ToolRun text = run({});
  ASSERT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("Vendor:                " + cpuinfo_value("vendor_id") + "\n"),
            std::string::npos);
  EXPECT_NE(text.out.find("Accelerated paths:\n"), std::string::npos);
  EXPECT_EQ(run({"--jsn"}).status, 2);
  EXPECT_EQ(run({"--help"}).status, 0);
}
