// vepra-sysinfo: describes the machine the way the vepra library sees it,
// in the manner of lscpu: operating system, processors, memory, the
// processor's identity, features, caches and topology, and which
// accelerated paths the library takes here. --json gives the same for
// scripts. Failures are printed with vepra_error_handle(); the exit status
// is 0 on success, 1 when a query failed and 2 for a bad command line.
// Options and --help come from CLI11, JSON from nlohmann/json.
#define VEPRA_ERROR_NO_LOCATION 1

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vepra.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

using Json = nlohmann::ordered_json;

struct feature_name {
  uint64_t bit;
  const char *name;
};

constexpr feature_name kFeatures[] = {
    {VEPRA_CPU_SSE, "sse"},         {VEPRA_CPU_SSE2, "sse2"},
    {VEPRA_CPU_SSE3, "sse3"},       {VEPRA_CPU_SSSE3, "ssse3"},
    {VEPRA_CPU_SSE4_1, "sse4.1"},   {VEPRA_CPU_SSE4_2, "sse4.2"},
    {VEPRA_CPU_POPCNT, "popcnt"},   {VEPRA_CPU_AVX, "avx"},
    {VEPRA_CPU_AVX2, "avx2"},       {VEPRA_CPU_FMA, "fma"},
    {VEPRA_CPU_BMI1, "bmi1"},       {VEPRA_CPU_BMI2, "bmi2"},
    {VEPRA_CPU_F16C, "f16c"},       {VEPRA_CPU_AVX512F, "avx512f"},
    {VEPRA_CPU_AVX512DQ, "avx512dq"}, {VEPRA_CPU_AVX512CD, "avx512cd"},
    {VEPRA_CPU_AVX512BW, "avx512bw"}, {VEPRA_CPU_AVX512VL, "avx512vl"},
    {VEPRA_CPU_PCLMULQDQ, "pclmulqdq"}, {VEPRA_CPU_VPCLMULQDQ, "vpclmulqdq"},
    {VEPRA_CPU_SHA, "sha"},         {VEPRA_CPU_AES, "aes"},
    {VEPRA_CPU_VAES, "vaes"},       {VEPRA_CPU_GFNI, "gfni"},
    {VEPRA_CPU_MOVBE, "movbe"},     {VEPRA_CPU_RDRAND, "rdrand"},
};

// The library's accelerated paths and the features each one needs.
struct path {
  const char *name;
  uint64_t needs;
};

constexpr path kPaths[] = {
    {"SSE4.2", VEPRA_CPU_SSE4_2},
    {"POPCNT", VEPRA_CPU_POPCNT},
    {"AVX2", VEPRA_CPU_AVX2},
    {"BMI2", VEPRA_CPU_BMI2},
    {"AVX-512 (F, BW, VL)", VEPRA_CPU_AVX512F | VEPRA_CPU_AVX512BW | VEPRA_CPU_AVX512VL},
    {"PCLMULQDQ", VEPRA_CPU_PCLMULQDQ},
    {"VPCLMULQDQ (512-bit)", VEPRA_CPU_VPCLMULQDQ | VEPRA_CPU_AVX512F},
    {"SHA", VEPRA_CPU_SHA},
    {"AES", VEPRA_CPU_AES},
};

const char *cache_kind(uint32_t kind) {
  switch (kind) {
    case VEPRA_CPU_CACHE_DATA: return "data";
    case VEPRA_CPU_CACHE_INSTRUCTION: return "instruction";
    case VEPRA_CPU_CACHE_UNIFIED: return "unified";
  }
  return "unknown";
}

const char *cache_suffix(uint32_t kind) {
  switch (kind) {
    case VEPRA_CPU_CACHE_DATA: return "d";
    case VEPRA_CPU_CACHE_INSTRUCTION: return "i";
  }
  return "";
}

const char *method_name(uint32_t method) {
  switch (method) {
    case VEPRA_CPU_TOPOLOGY_LEAF_1F: return "leaf 0x1F";
    case VEPRA_CPU_TOPOLOGY_LEAF_B: return "leaf 0xB";
    case VEPRA_CPU_TOPOLOGY_LEGACY: return "leaves 1 and 4";
  }
  return "unknown";
}

const char *family_name(int family) {
  switch (family) {
    case VEPRA_MACH_OS_LINUX: return "Linux";
    case VEPRA_MACH_OS_DARWIN: return "Darwin";
    case VEPRA_MACH_OS_FREEBSD: return "FreeBSD";
  }
  return "other";
}

std::string size_text(uint64_t bytes) {
  char buf[32];
  if (bytes % (1024 * 1024) == 0) {
    std::snprintf(buf, sizeof buf, "%" PRIu64 " MiB", bytes / (1024 * 1024));
  } else {
    std::snprintf(buf, sizeof buf, "%" PRIu64 " KiB", bytes / 1024);
  }
  return buf;
}

// What the program reports, gathered before anything is printed.
struct report {
  char os_name[256] = {};
  int os_family = 0;
  uint32_t processors = 0;
  double memory_mib = 0.0;
  vepra_cpu_info_t cpu = {};
  vepra_cpu_topology_t *topology = nullptr;
};

std::vector<const char *> feature_names(uint64_t bits) {
  std::vector<const char *> names;
  for (const feature_name &f : kFeatures) {
    if ((bits & f.bit) != 0) names.push_back(f.name);
  }
  return names;
}

bool path_taken(const report &r, const path &p) { return (r.cpu.usable & p.needs) == p.needs; }

void print_text(const report &r) {
  const vepra_cpu_info_t &c = r.cpu;
  std::printf("%-22s %s\n", "Operating system:", r.os_name);
  std::printf("%-22s %s (%d)\n", "OS family:", family_name(r.os_family), r.os_family);
  std::printf("%-22s %" PRIu32 "\n", "Processors:", r.processors);
  std::printf("%-22s %.1f MiB\n", "Physical memory:", r.memory_mib);
  std::printf("%-22s %s\n", "Vendor:", c.vendor);
  std::printf("%-22s %s\n", "Model name:", c.brand[0] != '\0' ? c.brand : "(not reported)");
  std::printf("%-22s %" PRIu32 "\n%-22s %" PRIu32 "\n%-22s %" PRIu32 "\n", "Family:", c.family,
              "Model:", c.model, "Stepping:", c.stepping);
  if (c.frequency_mhz != 0) {
    std::printf("%-22s %" PRIu32 " MHz\n", "Nominal frequency:", c.frequency_mhz);
  } else {
    std::printf("%-22s unknown\n", "Nominal frequency:");
  }
  std::printf("%-22s %s\n", "Hypervisor:",
              c.hypervisor != 0 ? (c.hypervisor_vendor[0] != '\0' ? c.hypervisor_vendor : "yes")
                                : "none");
  std::printf("%-22s %#" PRIx32 ", %#" PRIx32 "\n", "Largest cpuid leaves:", c.max_leaf,
              c.max_ext_leaf);
  std::printf("%-22s", "Features:");
  for (const char *name : feature_names(c.features)) std::printf(" %s", name);
  std::printf("\n%-22s %s%s%s(os_sse %" PRIu32 ")\n", "Saved vector state:",
              (os_sse & VEPRA_CPU_OS_SSE) != 0 ? "SSE " : "",
              (os_sse & VEPRA_CPU_OS_AVX) != 0 ? "AVX " : "",
              (os_sse & VEPRA_CPU_OS_AVX512) != 0 ? "AVX-512 " : "", os_sse);
  std::printf("Caches:\n");
  for (uint32_t i = 0; i < c.cache_count; ++i) {
    const vepra_cpu_cache_t &k = c.caches[i];
    char label[16];
    std::snprintf(label, sizeof label, "L%" PRIu32 "%s", k.level, cache_suffix(k.kind));
    std::printf("  %-4s %-12s %10s  %3" PRIu32 "-way  %" PRIu32 "-byte lines  shared by %" PRIu32
                "\n",
                label, cache_kind(k.kind), size_text(k.size).c_str(), k.ways, k.line_size,
                k.shared_by);
  }
  const vepra_cpu_topology_t &t = *r.topology;
  std::printf("%-22s %" PRIu32 " package(s), %" PRIu32 " core(s) per package, %" PRIu32
              " thread(s) per core (%s)\n",
              "Topology:", t.packages, t.cores_per_package, t.threads_per_core,
              method_name(t.method));
  std::printf("  %5s %8s %8s %6s %7s\n", "CPU", "X2APIC", "PACKAGE", "CORE", "THREAD");
  for (uint32_t i = 0; i < t.count; ++i) {
    const vepra_cpu_logical_t &p = t.processors[i];
    std::printf("  %5" PRIu32 " %8" PRIu32 " %8" PRIu32 " %6" PRIu32 " %7" PRIu32 "\n", p.os_index,
                p.apic_id, p.package, p.core, p.thread);
  }
  std::printf("Accelerated paths:\n");
  for (const path &p : kPaths) {
    std::printf("  %-22s %s\n", p.name, path_taken(r, p) ? "used" : "portable code");
  }
}

Json json_of(const report &r) {
  const vepra_cpu_info_t &c = r.cpu;
  Json j;
  j["os"] = {{"name", r.os_name}, {"family", family_name(r.os_family)},
             {"family_code", r.os_family}};
  j["processors"] = r.processors;
  // Memory to a tenth of a MiB, as the text gives it.
  char memory[64];
  std::snprintf(memory, sizeof memory, "%.1f", r.memory_mib);
  j["memory_mib"] = std::strtod(memory, nullptr);
  Json cpu;
  cpu["vendor"] = c.vendor;
  cpu["brand"] = c.brand;
  cpu["family"] = c.family;
  cpu["model"] = c.model;
  cpu["stepping"] = c.stepping;
  cpu["max_leaf"] = c.max_leaf;
  cpu["max_ext_leaf"] = c.max_ext_leaf;
  cpu["hypervisor"] = c.hypervisor != 0;
  cpu["hypervisor_vendor"] = c.hypervisor_vendor;
  cpu["frequency_mhz"] = c.frequency_mhz;
  cpu["features"] = feature_names(c.features);
  cpu["os_sse"] = os_sse;
  Json caches = Json::array();
  for (uint32_t i = 0; i < c.cache_count; ++i) {
    const vepra_cpu_cache_t &k = c.caches[i];
    caches.push_back({{"level", k.level}, {"kind", cache_kind(k.kind)}, {"size", k.size},
                      {"line_size", k.line_size}, {"ways", k.ways}, {"sets", k.sets},
                      {"shared_by", k.shared_by}});
  }
  cpu["caches"] = std::move(caches);
  j["cpu"] = std::move(cpu);
  const vepra_cpu_topology_t &t = *r.topology;
  Json processors = Json::array();
  for (uint32_t i = 0; i < t.count; ++i) {
    const vepra_cpu_logical_t &p = t.processors[i];
    processors.push_back({{"cpu", p.os_index}, {"x2apic_id", p.apic_id}, {"package", p.package},
                          {"core", p.core}, {"thread", p.thread}});
  }
  j["topology"] = {{"method", method_name(t.method)}, {"packages", t.packages},
                   {"cores_per_package", t.cores_per_package},
                   {"threads_per_core", t.threads_per_core}, {"processors", std::move(processors)}};
  Json paths = Json::object();
  for (const path &p : kPaths) paths[p.name] = path_taken(r, p);
  j["accelerated_paths"] = std::move(paths);
  return j;
}

vepra_error_t *gather(report *r, apr_pool_t *pool) {
  vepra_mach_os_name(r->os_name, static_cast<int>(sizeof r->os_name));
  r->os_family = vepra_mach_os();
  r->processors = vepra_mach_os_cpu_num();
  r->memory_mib = vepra_mach_physmem();
  vepra_error_t *err = vepra_cpu_identify(&r->cpu);
  if (err == nullptr) err = vepra_cpu_topology(&r->topology, pool);
  return err == nullptr ? nullptr : vepra_error_quick_wrap(err, "Cannot describe this machine.");
}

constexpr const char *kDescription =
    "Describes the operating system, memory and processors, and which\n"
    "accelerated paths the vepra library takes on this machine.";

}  // namespace

int main(int argc, char **argv) {
  bool json = false;
  CLI::App app{kDescription, "vepra-sysinfo"};
  app.add_flag("--json", json, "print the same as one JSON object, for scripts");
  app.allow_extras();  // reported below, by name
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  } catch (const CLI::ParseError &e) {
    std::fprintf(stderr, "vepra-sysinfo: %s\n%s", e.what(), app.help().c_str());
    return kUsage;
  }
  if (!app.remaining().empty()) {
    std::fprintf(stderr, "vepra-sysinfo: unknown argument '%s'\n%s", app.remaining()[0].c_str(),
                 app.help().c_str());
    return kUsage;
  }
  if (vepra_initialize() != 0) {
    std::fprintf(stderr, "vepra-sysinfo: the vepra library cannot be initialized\n");
    return kFailure;
  }
  apr_pool_t *pool = nullptr;
  apr_pool_create(&pool, vepra_pool);
  report r;
  int status = 0;
  if (vepra_error_t *err = gather(&r, pool)) {
    vepra_error_handle(err, vepra_error_stdhandler, stderr);
    vepra_error_clear(err);
    status = kFailure;
  } else if (json) {
    std::fputs(json_of(r).dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str(),
               stdout);
    std::fputc('\n', stdout);
  } else {
    print_text(r);
  }
  vepra_terminate();
  return status;
}
