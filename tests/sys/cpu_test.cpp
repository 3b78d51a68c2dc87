// Processor detection against what the kernel reports (/proc/cpuinfo, /sys)
// and against canned cpuid answers; what a virtual machine hides is skipped.
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "sys/cpu_dispatch.hpp"
#include "sys/cpuid.hpp"
#include "vepra_cpu.h"

using vepra_test::Chain;
using vepra_test::code_of;

namespace {

// The "key : value" lines of /proc/cpuinfo by processor number.
std::map<unsigned, std::map<std::string, std::string>> proc_cpuinfo() {
  std::map<unsigned, std::map<std::string, std::string>> out;
  std::ifstream in("/proc/cpuinfo");
  unsigned cpu = 0;
  for (std::string line; std::getline(in, line);) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) continue;
    const std::string key = line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1);
    const std::string value = line.substr(std::min(line.size(), colon + 2));
    if (key == "processor") cpu = std::stoul(value);
    out[cpu][key] = value;
  }
  return out;
}

std::string sys_text(const std::string &path) {
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

// Processor numbers of a sysfs list such as "0-3,8"; only those in only
// where it is given.
std::set<unsigned> cpu_list(const std::string &text, const std::set<unsigned> *only = nullptr) {
  std::set<unsigned> out;
  std::stringstream ss(text);
  for (std::string part; std::getline(ss, part, ',');) {
    if (part.empty()) continue;
    const size_t dash = part.find('-');
    const unsigned lo = std::stoul(part.substr(0, dash));
    const unsigned hi = dash == std::string::npos ? lo : std::stoul(part.substr(dash + 1));
    for (unsigned i = lo; i <= hi; ++i)
      if (only == nullptr || only->count(i) != 0) out.insert(i);
  }
  return out;
}

std::set<unsigned> mask_cpus(const cpu_set_t &set) {
  std::set<unsigned> out;
  for (unsigned i = 0; i < CPU_SETSIZE; ++i)
    if (CPU_ISSET(i, &set)) out.insert(i);
  return out;
}

std::set<unsigned> allowed_cpus() {
  cpu_set_t set;
  EXPECT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
  return mask_cpus(set);
}

// The /proc/cpuinfo names of the features, by bit (VEPRA_CPU_SSE is bit 0).
const char *const kFeatureNames[VEPRA_CPU_FEATURE_COUNT] = {
    "sse",      "sse2",     "pni",      "ssse3",    "sse4_1",    "sse4_2",     "popcnt",
    "avx",      "avx2",     "fma",      "bmi1",     "bmi2",      "f16c",       "avx512f",
    "avx512dq", "avx512cd", "avx512bw", "avx512vl", "pclmulqdq", "vpclmulqdq", "sha_ni",
    "aes",      "vaes",     "gfni",     "movbe",    "rdrand"};

class CpuTest : public vepra_test::LibraryTest {
 protected:
  void TearDown() override {
    vepra::testing::replace_cpuid(nullptr);
    vepra::testing::fail_cpu_bind_at(0);
    vepra::testing::fail_affinity_restore(false);
    vepra_test::LibraryTest::TearDown();
  }

  vepra_cpu_info_t identify() {
    vepra_cpu_info_t info;
    Chain err(vepra_cpu_identify(&info));
    EXPECT_EQ(err, nullptr);
    return info;
  }
};

// Identity, feature bits and caches as the kernel lists them; the features
// usable in each saved register state.
TEST_F(CpuTest, IdentityAndCachesMatchTheKernel) {
  const vepra_cpu_info_t info = identify();
  auto cpuinfo = proc_cpuinfo();
  ASSERT_FALSE(cpuinfo.empty()) << "/proc/cpuinfo cannot be read";
  auto &first = cpuinfo.begin()->second;
  EXPECT_EQ(std::string(info.vendor), first["vendor_id"]);
  EXPECT_EQ(std::to_string(info.family), first["cpu family"]);
  EXPECT_EQ(std::to_string(info.model), first["model"]);
  EXPECT_EQ(std::to_string(info.stepping), first["stepping"]);
  EXPECT_EQ(std::string(info.brand), first["model name"]);
  if (first.count("cpuid level") != 0) {
    EXPECT_EQ(std::to_string(info.max_leaf), first["cpuid level"]);
  }
  std::set<std::string> flags;
  std::stringstream ss(first["flags"]);
  for (std::string f; ss >> f;) flags.insert(f);
  EXPECT_EQ(info.hypervisor != 0, flags.count("hypervisor") != 0);
  for (unsigned i = 0; i < VEPRA_CPU_FEATURE_COUNT; ++i)
    EXPECT_EQ((info.features >> i) & 1, flags.count(kFeatureNames[i])) << kFeatureNames[i];
  // vepra_initialize() set os_sse from XCR0; the kernel lists avx and
  // avx512f only when it saves their registers.
  EXPECT_EQ((os_sse & VEPRA_CPU_OS_SSE) != 0, flags.count("sse") != 0);
  EXPECT_EQ((os_sse & VEPRA_CPU_OS_AVX) != 0, flags.count("avx") != 0);
  EXPECT_EQ((os_sse & VEPRA_CPU_OS_AVX512) != 0, flags.count("avx512f") != 0);

  // Every cache the kernel describes, with its size, line, ways, sets and
  // sharing.
  const std::string base = "/sys/devices/system/cpu/cpu0/cache/index";

  uint32_t seen = 0;
  for (unsigned i = 0; !sys_text(base + std::to_string(i) + "/level").empty(); ++i) {
    const std::string dir = base + std::to_string(i) + "/";
    SCOPED_TRACE(dir);
    const std::string type = sys_text(dir + "type");
    const uint32_t kind = type == "Data" ? 1 : type == "Instruction" ? 2 : 3;
    const uint32_t level = std::stoul(sys_text(dir + "level"));
    const vepra_cpu_cache_t *mine = nullptr;
    for (uint32_t k = 0; k < info.cache_count; ++k)
      if (info.caches[k].level == level && info.caches[k].kind == kind) mine = &info.caches[k];
    ASSERT_NE(mine, nullptr);
    ++seen;
    const std::string size = sys_text(dir + "size");  // "48K"
    ASSERT_EQ(size.back(), 'K');
    EXPECT_EQ(mine->size, std::stoull(size) * 1024);
    EXPECT_EQ(std::to_string(mine->line_size), sys_text(dir + "coherency_line_size"));
    EXPECT_EQ(std::to_string(mine->ways), sys_text(dir + "ways_of_associativity"));
    const std::string sets = sys_text(dir + "number_of_sets");
    if (!sets.empty()) {
      EXPECT_EQ(std::to_string(mine->sets), sets);
    }
    // The processors the kernel lists are those present; cpuid gives the
    // most that can share the cache.
    EXPECT_LE(cpu_list(sys_text(dir + "shared_cpu_list")).size(), mine->shared_by);
  }
  // A kernel may publish no caches at all.
  EXPECT_TRUE(seen == 0 || seen == info.cache_count) << seen << " of " << info.cache_count;

  // Features on vector registers are usable only when the operating system
  // saves their state; those on general registers need nothing.
  const uint32_t saved = os_sse;
  const uint64_t general =
      VEPRA_CPU_POPCNT | VEPRA_CPU_BMI1 | VEPRA_CPU_BMI2 | VEPRA_CPU_MOVBE | VEPRA_CPU_RDRAND;
  const uint64_t avx = VEPRA_CPU_AVX | VEPRA_CPU_AVX2 | VEPRA_CPU_FMA | VEPRA_CPU_F16C |
                       VEPRA_CPU_VAES | VEPRA_CPU_VPCLMULQDQ;
  const uint64_t avx512 = VEPRA_CPU_AVX512F | VEPRA_CPU_AVX512DQ | VEPRA_CPU_AVX512CD |
                          VEPRA_CPU_AVX512BW | VEPRA_CPU_AVX512VL;
  const uint32_t sse = VEPRA_CPU_OS_SSE, os_avx = VEPRA_CPU_OS_AVX, os_512 = VEPRA_CPU_OS_AVX512;
  const std::pair<uint32_t, uint64_t> rows[] = {{0, general},
                                                {sse, ~(avx | avx512)},
                                                {sse | os_avx, ~avx512},
                                                {os_avx | os_512, general | avx | avx512},
                                                {sse | os_avx | os_512, ~uint64_t{0}}};
  for (auto [state, allowed] : rows) {
    os_sse = state;
    const vepra_cpu_info_t usable = identify();
    EXPECT_EQ(usable.usable, usable.features & allowed) << "state " << state;
  }
  vepra::testing::force_portable_paths(true);
  EXPECT_EQ(identify().usable, 0u);
  vepra::testing::force_portable_paths(false);
  os_sse = saved;
}

// Each processor the caller may use, in order, with the kernel's package,
// core and APIC ids and sibling masks; the masks' refusals; group counts.
TEST_F(CpuTest, TopologyAndMasksMatchSysfsAndApicIds) {
  const std::set<unsigned> allowed = allowed_cpus();
  auto cpuinfo = proc_cpuinfo();
  vepra_cpu_topology_t *t = nullptr;
  ASSERT_EQ(Chain(vepra_cpu_topology(&t, pool_)), nullptr);
  ASSERT_EQ(t->count, allowed.size());
  std::map<std::pair<unsigned, unsigned>, std::set<unsigned>> threads;
  for (uint32_t i = 0; i < t->count; ++i) {
    const vepra_cpu_logical_t &p = t->processors[i];
    SCOPED_TRACE(p.os_index);
    EXPECT_TRUE(allowed.count(p.os_index) != 0);
    EXPECT_TRUE(i == 0 || p.os_index > t->processors[i - 1].os_index);
    const std::string topo =
        "/sys/devices/system/cpu/cpu" + std::to_string(p.os_index) + "/topology/";
    EXPECT_EQ(std::to_string(p.package), sys_text(topo + "physical_package_id"));
    EXPECT_EQ(std::to_string(p.core), sys_text(topo + "core_id"));
    auto &block = cpuinfo[p.os_index];
    if (block.count("apicid") != 0) {
      EXPECT_EQ(std::to_string(p.apic_id), block["apicid"]);
    }
    // Threads of one core have distinct numbers.
    EXPECT_TRUE((threads[{p.package, p.core}].insert(p.thread).second));
    // Package and core masks are the kernel's siblings that may be used.
    cpu_set_t mask;
    ASSERT_EQ(Chain(vepra_cpu_package_mask(t, p.package, &mask, sizeof mask)), nullptr);
    EXPECT_EQ(mask_cpus(mask), cpu_list(sys_text(topo + "package_cpus_list"), &allowed));
    ASSERT_EQ(Chain(vepra_cpu_core_mask(t, p.package, p.core, &mask, sizeof mask)), nullptr);
    EXPECT_EQ(mask_cpus(mask), cpu_list(sys_text(topo + "thread_siblings_list"), &allowed));
  }
  // A mask too small for a processor, a package without processors, no topology.
  cpu_set_t mask;
  const uint32_t first = t->processors[0].package;
  const size_t small = t->processors[0].os_index / 8;
  EXPECT_EQ(code_of(vepra_cpu_package_mask(t, first, &mask, small)), VEPRA_E_CPU_AFFINITY_MASK);
  EXPECT_EQ(code_of(vepra_cpu_package_mask(t, ~0u, &mask, sizeof mask)), VEPRA_E_CPU_AFFINITY_MASK);
  EXPECT_EQ(code_of(vepra_cpu_core_mask(nullptr, 0, 0, &mask, sizeof mask)), VEPRA_E_ASSERT);

  // Group counts of a made-up machine with two packages of unequal size, its
  // processors in no particular order (each given as package * 10 + core).
  std::vector<vepra_cpu_logical_t> processors;
  for (uint32_t package_core : {12u, 0u, 10u, 12u, 1u, 11u, 0u, 12u, 10u})
    processors.push_back({0, 0, package_core / 10, package_core % 10, 0});
  vepra_cpu_topology_t made{};
  made.count = static_cast<uint32_t>(processors.size());
  made.processors = processors.data();
  ASSERT_EQ(Chain(vepra::detail::count_groups(&made, pool_)), nullptr);
  EXPECT_EQ(made.packages, 2u);
  EXPECT_EQ(made.cores_per_package, 3u);
  EXPECT_EQ(made.threads_per_core, 3u);
}

// The topology covers only the processors the caller may run on, and the
// caller's affinity is restored also when a bind or the restore fails.
TEST_F(CpuTest, TheCallersAffinityIsHonouredAndRestored) {
  const std::set<unsigned> allowed = allowed_cpus();
  cpu_set_t saved, one;
  ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof saved, &saved), 0);
  CPU_ZERO(&one);
  CPU_SET(*allowed.rbegin(), &one);
  ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof one, &one), 0);
  vepra_cpu_topology_t *t = nullptr;
  Chain err(vepra_cpu_topology(&t, pool_));
  EXPECT_EQ(mask_cpus(one), allowed_cpus());
  ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof saved, &saved), 0);
  ASSERT_EQ(err, nullptr);
  ASSERT_EQ(t->count, 1u);
  EXPECT_EQ(t->processors[0].os_index, *allowed.rbegin());
  EXPECT_EQ(t->packages * t->cores_per_package * t->threads_per_core, 1u);
  for (long n = 1; n <= static_cast<long>(allowed.size()); ++n) {
    SCOPED_TRACE(n);
    vepra::testing::fail_cpu_bind_at(n);
    t = nullptr;
    EXPECT_EQ(code_of(vepra_cpu_topology(&t, pool_)), VEPRA_E_CPU_BIND);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(allowed_cpus(), allowed);
  }
  vepra::testing::fail_cpu_bind_at(0);
  vepra::testing::fail_affinity_restore(true);
  EXPECT_EQ(code_of(vepra_cpu_topology(&t, pool_)), VEPRA_E_CPU_AFFINITY_MASK);
  EXPECT_EQ(allowed_cpus(), allowed);
}

// The cpuid answers of the block being run; other leaves answer 0.
std::map<std::pair<uint32_t, uint32_t>, vepra::detail::cpuid_regs> g_table;

// APIC ids by the processor the caller runs on; empty: those of the table.
std::vector<uint32_t> g_apic_by_cpu;

void table_cpuid(uint32_t leaf, uint32_t subleaf, uint32_t regs[4]) {
  auto it = g_table.find({leaf, subleaf});
  if (it == g_table.end()) return;
  std::memcpy(regs, &it->second, sizeof it->second);  // eax, ebx, ecx, edx
  const int cpu = sched_getcpu();
  if (g_apic_by_cpu.empty() || cpu < 0) return;
  const uint32_t apic = g_apic_by_cpu[static_cast<size_t>(cpu) % g_apic_by_cpu.size()];
  if (leaf == 0xb || leaf == 0x1f) regs[3] = apic;
  if (leaf == 1) regs[1] = (regs[1] & 0x00ffffffu) | (apic << 24);
}

// The blocks of tests/data/sys/cpuid_answers.txt (its header explains the
// lines), each as its lines by keyword.
std::vector<std::multimap<std::string, std::string>> read_cpuid_cases() {
  std::vector<std::multimap<std::string, std::string>> cases;
  std::ifstream in(VEPRA_TEST_DATA_DIR "/sys/cpuid_answers.txt");
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t space = std::min(line.find(' '), line.size());
    if (line.compare(0, space, "case") == 0) cases.emplace_back();
    cases.back().emplace(line.substr(0, space), line.substr(std::min(space + 1, line.size())));
  }
  return cases;
}

// Processors described by their cpuid answers: what identify finds
// (features, caches, brand, frequency) or why it fails, and how the
// topology splits each processor's APIC id into package, core and thread,
// or why it fails. Each answer is written in the form of its line.
TEST_F(CpuTest, ProcessorsFromCpuidAnswers) {
  const std::set<unsigned> allowed = allowed_cpus();
  const std::vector<unsigned> cpus(allowed.begin(), allowed.end());
  const auto cases = read_cpuid_cases();
  ASSERT_EQ(cases.size(), 17u);
  vepra::testing::replace_cpuid(table_cpuid);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.find("case")->second);
    // The line of key, otherwise where the block has none.
    auto want = [&](const std::string &key, const std::string &otherwise) {
      auto it = c.find(key);
      return it == c.end() ? otherwise : it->second;
    };
    g_table.clear();
    for (auto [it, end] = c.equal_range("leaf"); it != end; ++it) {
      std::stringstream ss(it->second);
      uint32_t h[6] = {};
      for (uint32_t &v : h) ss >> std::hex >> v;
      g_table[{h[0], h[1]}] = {h[2], h[3], h[4], h[5]};
    }
    auto apic = c.equal_range("apic");
    g_apic_by_cpu.assign(apic.first == apic.second ? 0 : cpus.back() + 1, 0);
    size_t n = 0;
    for (auto it = apic.first; it != apic.second && n < cpus.size(); ++it)
      g_apic_by_cpu[cpus[n++]] = std::stoul(it->second, nullptr, 16);
    vepra_cpu_info_t info;
    Chain err(vepra_cpu_identify(&info));
    std::string found = std::to_string(err == nullptr ? 0 : err->code);
    for (unsigned i = 0; err == nullptr && i < VEPRA_CPU_FEATURE_COUNT; ++i)
      if ((info.features >> i) & 1) found += " " + std::string(kFeatureNames[i]);
    EXPECT_EQ(found, want("identify", "0"));
    if (err == nullptr) {
      found = std::to_string(info.cache_count);
      EXPECT_EQ(found, want("caches", found));
      found = std::to_string(info.frequency_mhz);
      EXPECT_EQ(found, want("frequency", found));
      EXPECT_EQ(std::string(info.brand), want("brand", ""));
    }
    vepra_cpu_topology_t *t = nullptr;
    err.reset(vepra_cpu_topology(&t, pool_));
    EXPECT_EQ(allowed_cpus(), allowed);
    found = std::to_string(err == nullptr ? 0 : err->code) + " " +
            (t != nullptr ? std::to_string(t->method) : "0");
    EXPECT_EQ(found, want(cpus.size() == 1 && c.count("alone") != 0 ? "alone" : "topology", found));
    if (err != nullptr) {
      found = vepra_test::printed_lines(err.get()).at(2);
      found.erase(found.find_last_not_of(' ') + 1);
      EXPECT_EQ(found, want("failure", found));
    }
    for (uint32_t i = 0; t != nullptr && i < t->count && apic.first != apic.second; ++i) {
      const vepra_cpu_logical_t &p = t->processors[i];
      char ids[64];
      std::snprintf(ids, sizeof ids, "%02x %u %u %u", p.apic_id, p.package, p.core, p.thread);
      EXPECT_EQ(ids, (apic.first++)->second);
    }
  }
}

}  // namespace
