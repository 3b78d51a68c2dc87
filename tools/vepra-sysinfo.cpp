// vepra-sysinfo: describes the machine the way the vepra library sees it,
// in the manner of lscpu: operating system, processors, memory, the
// processor's identity, features, caches and topology, and which
// accelerated paths the library takes here. --json gives the same for
// scripts. Failures are printed with vepra_error_handle(); the exit status
// is 0 on success, 1 when a query failed and 2 for a bad command line.
#define VEPRA_ERROR_NO_LOCATION 1

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vepra.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

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

std::string json_string(const char *s) {
  std::string out = "\"";
  for (const char *p = s; *p != '\0'; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
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

void print_names(const std::vector<const char *> &names) {
  std::printf("[");
  for (size_t i = 0; i < names.size(); ++i) {
    std::printf("%s%s", i == 0 ? "" : ", ", json_string(names[i]).c_str());
  }
  std::printf("]");
}

void print_json(const report &r) {
  const vepra_cpu_info_t &c = r.cpu;
  std::printf("{\n  \"os\": {\"name\": %s, \"family\": %s, \"family_code\": %d},\n",
              json_string(r.os_name).c_str(), json_string(family_name(r.os_family)).c_str(),
              r.os_family);
  std::printf("  \"processors\": %" PRIu32 ",\n  \"memory_mib\": %.1f,\n", r.processors,
              r.memory_mib);
  std::printf("  \"cpu\": {\n    \"vendor\": %s,\n    \"brand\": %s,\n",
              json_string(c.vendor).c_str(), json_string(c.brand).c_str());
  std::printf("    \"family\": %" PRIu32 ", \"model\": %" PRIu32 ", \"stepping\": %" PRIu32 ",\n",
              c.family, c.model, c.stepping);
  std::printf("    \"max_leaf\": %" PRIu32 ", \"max_ext_leaf\": %" PRIu32 ",\n", c.max_leaf,
              c.max_ext_leaf);
  std::printf("    \"hypervisor\": %s, \"hypervisor_vendor\": %s,\n",
              c.hypervisor != 0 ? "true" : "false", json_string(c.hypervisor_vendor).c_str());
  std::printf("    \"frequency_mhz\": %" PRIu32 ",\n    \"features\": ", c.frequency_mhz);
  print_names(feature_names(c.features));
  std::printf(",\n    \"os_sse\": %" PRIu32 ",\n    \"caches\": [", os_sse);
  for (uint32_t i = 0; i < c.cache_count; ++i) {
    const vepra_cpu_cache_t &k = c.caches[i];
    std::printf("%s\n      {\"level\": %" PRIu32 ", \"kind\": %s, \"size\": %" PRIu64
                ", \"line_size\": %" PRIu32 ", \"ways\": %" PRIu32 ", \"sets\": %" PRIu32
                ", \"shared_by\": %" PRIu32 "}",
                i == 0 ? "" : ",", k.level, json_string(cache_kind(k.kind)).c_str(), k.size,
                k.line_size, k.ways, k.sets, k.shared_by);
  }
  const vepra_cpu_topology_t &t = *r.topology;
  std::printf("\n    ]\n  },\n  \"topology\": {\n    \"method\": %s, \"packages\": %" PRIu32
              ", \"cores_per_package\": %" PRIu32 ", \"threads_per_core\": %" PRIu32
              ",\n    \"processors\": [",
              json_string(method_name(t.method)).c_str(), t.packages, t.cores_per_package,
              t.threads_per_core);
  for (uint32_t i = 0; i < t.count; ++i) {
    const vepra_cpu_logical_t &p = t.processors[i];
    std::printf("%s\n      {\"cpu\": %" PRIu32 ", \"x2apic_id\": %" PRIu32 ", \"package\": %" PRIu32
                ", \"core\": %" PRIu32 ", \"thread\": %" PRIu32 "}",
                i == 0 ? "" : ",", p.os_index, p.apic_id, p.package, p.core, p.thread);
  }
  std::printf("\n    ]\n  },\n  \"accelerated_paths\": {");
  for (size_t i = 0; i < sizeof kPaths / sizeof kPaths[0]; ++i) {
    std::printf("%s\n    %s: %s", i == 0 ? "" : ",", json_string(kPaths[i].name).c_str(),
                path_taken(r, kPaths[i]) ? "true" : "false");
  }
  std::printf("\n  }\n}\n");
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

int usage(FILE *out, int status) {
  std::fprintf(out,
               "usage: vepra-sysinfo [--json]\n"
               "Describes the operating system, memory and processors, and which\n"
               "accelerated paths the vepra library takes on this machine.\n");
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      return usage(stdout, 0);
    } else {
      std::fprintf(stderr, "vepra-sysinfo: unknown argument '%s'\n", argv[i]);
      return usage(stderr, kUsage);
    }
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
    print_json(r);
  } else {
    print_text(r);
  }
  vepra_terminate();
  return status;
}
