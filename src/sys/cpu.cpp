// Processor detection: identity, caches and frequency from cpuid, and the
// topology of the processors the calling thread may run on, read by
// binding the thread to each in turn.
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include <apr_pools.h>

#include "core/error_internal.hpp"
#include "sys/cpuid.hpp"
#include "vepra_cpu.h"

namespace vepra::detail {

// Packages, most cores in a package and most threads in a core, counted
// from the processors seen: their (package, core) keys sorted, then runs.
vepra_error_t *count_groups(vepra_cpu_topology_t *t, apr_pool_t *pool) noexcept {
  auto *keys = static_cast<std::uint64_t *>(
      apr_palloc(pool, sizeof(std::uint64_t) * std::max<std::size_t>(t->count, 1)));
  if (keys == nullptr) return make_error(VEPRA_E_ALLOC);
  for (std::uint32_t i = 0; i < t->count; ++i) {
    keys[i] = (std::uint64_t{t->processors[i].package} << 32) | t->processors[i].core;
  }
  std::sort(keys, keys + t->count);
  t->packages = t->cores_per_package = t->threads_per_core = 0;
  std::uint32_t cores = 0, threads = 0;
  for (std::uint32_t i = 0; i < t->count; ++i) {
    const bool new_package = i == 0 || (keys[i] >> 32) != (keys[i - 1] >> 32);
    const bool new_core = i == 0 || keys[i] != keys[i - 1];
    if (new_package) {
      ++t->packages;
      cores = 0;
    }
    if (new_core) {
      ++cores;
      threads = 0;
    }
    ++threads;
    t->cores_per_package = std::max(t->cores_per_package, cores);
    t->threads_per_core = std::max(t->threads_per_core, threads);
  }
  return nullptr;
}

namespace {

constexpr const char *kIdentifyContext = "Cannot identify the processor.";
constexpr const char *kTopologyContext = "Cannot read the processor topology.";
constexpr const char *kMaskContext = "Cannot build the affinity mask.";

#if defined(__x86_64__)

constexpr std::uint32_t kExtBase = 0x80000000u;

constexpr bool bit(std::uint32_t word, unsigned n) noexcept { return ((word >> n) & 1u) != 0; }

constexpr std::uint32_t field(std::uint32_t word, unsigned low, unsigned high) noexcept {
  return (word >> low) & ((high - low == 31) ? ~0u : ((1u << (high - low + 1)) - 1u));
}

// Bits needed to number count items (0 for one item).
constexpr std::uint32_t width_of(std::uint32_t count) noexcept {
  std::uint32_t w = 0;
  while (w < 32 && (1ull << w) < count) ++w;
  return w;
}

void copy_regs(char *out, std::initializer_list<std::uint32_t> regs) noexcept {
  for (std::uint32_t r : regs) {
    std::memcpy(out, &r, 4);
    out += 4;
  }
}

bool is_amd_like(const char *vendor) noexcept {
  return std::strcmp(vendor, "AuthenticAMD") == 0 || std::strcmp(vendor, "HygonGenuine") == 0;
}

void read_brand(vepra_cpu_info_t *info) noexcept {
  if (info->max_ext_leaf < kExtBase + 4) return;
  char raw[49] = {};
  for (std::uint32_t i = 0; i < 3; ++i) {
    const cpuid_regs r = cpuid(kExtBase + 2 + i, 0);
    copy_regs(raw + 16 * i, {r.eax, r.ebx, r.ecx, r.edx});
  }
  raw[48] = '\0';
  std::string_view text(raw);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  std::memcpy(info->brand, text.data(), text.size());
  info->brand[text.size()] = '\0';
}

// The frequency a brand string names ("... @ 2.40GHz"), in MHz; 0 if none.
std::uint32_t brand_frequency(const char *brand) noexcept {
  static constexpr struct {
    const char *unit;
    double mhz;
  } kUnits[] = {{"THz", 1e6}, {"GHz", 1e3}, {"MHz", 1.0}};
  for (const auto &u : kUnits) {
    const char *at = std::strstr(brand, u.unit);
    if (at == nullptr) continue;
    const char *begin = at;
    while (begin > brand && (std::isdigit(static_cast<unsigned char>(begin[-1])) != 0 ||
                             begin[-1] == '.')) {
      --begin;
    }
    if (begin == at) continue;
    const double value = std::strtod(begin, nullptr) * u.mhz;
    if (value > 0 && value < 1e9) return static_cast<std::uint32_t>(value + 0.5);
  }
  return 0;
}

void read_caches(vepra_cpu_info_t *info) noexcept {
  std::uint32_t leaf = 0;
  if (is_amd_like(info->vendor)) {
    const bool topoext = info->max_ext_leaf >= kExtBase + 1 && bit(cpuid(kExtBase + 1, 0).ecx, 22);
    if (topoext && info->max_ext_leaf >= kExtBase + 0x1d) leaf = kExtBase + 0x1d;
  } else if (info->max_leaf >= 4) {
    leaf = 4;
  }
  if (leaf == 0) return;
  for (std::uint32_t sub = 0; info->cache_count < VEPRA_CPU_MAX_CACHES && sub < 64; ++sub) {
    const cpuid_regs r = cpuid(leaf, sub);
    const std::uint32_t kind = field(r.eax, 0, 4);
    if (kind == 0) break;
    vepra_cpu_cache_t &c = info->caches[info->cache_count++];
    c.kind = kind;
    c.level = field(r.eax, 5, 7);
    c.shared_by = field(r.eax, 14, 25) + 1;
    c.line_size = field(r.ebx, 0, 11) + 1;
    const std::uint32_t partitions = field(r.ebx, 12, 21) + 1;
    c.ways = field(r.ebx, 22, 31) + 1;
    c.sets = r.ecx + 1;
    c.size = std::uint64_t{c.ways} * partitions * c.line_size * c.sets;
    if (bit(r.eax, 9)) c.ways = c.sets * c.ways;  // fully associative
  }
}

// Failures below the exported functions: the code's own record, then a
// line that says what was seen. The exported function adds its context.
vepra_error_t *restricted(std::uint32_t needed, std::uint32_t max) noexcept {
  return wrap_error(make_error(VEPRA_E_CPUID_RESTRICTED),
                    "Leaf %#x is needed; the largest standard leaf is %#x.", needed, max);
}

// --- topology -------------------------------------------------------------

// How an APIC id splits into package, core and thread numbers.
struct apic_layout {
  std::uint32_t method = 0;
  std::uint32_t smt_shift = 0;      // bits of the thread number
  std::uint32_t package_shift = 0;  // bits below the package number
  bool operator==(const apic_layout &) const = default;
};

// Leaf 0x1F or 0xB: levels until an invalid one; the thread level is the
// first, the package starts above the last.
bool extended_layout(std::uint32_t leaf, apic_layout *layout) noexcept {
  bool smt = false;
  std::uint32_t last_shift = 0;
  for (std::uint32_t sub = 0; sub < 32; ++sub) {
    const cpuid_regs r = cpuid(leaf, sub);
    const std::uint32_t type = field(r.ecx, 8, 15);
    if (type == 0 || field(r.ebx, 0, 15) == 0) break;
    if (type == 1) {
      smt = true;
      layout->smt_shift = field(r.eax, 0, 4);
    }
    last_shift = field(r.eax, 0, 4);
  }
  if (!smt) return false;
  layout->package_shift = std::max(last_shift, layout->smt_shift);
  return true;
}

// Leaf 1 with leaf 4 (Intel) or 0x80000008 and 0x8000001E (AMD).
bool legacy_layout(std::uint32_t max_leaf, apic_layout *layout) noexcept {
  const cpuid_regs l1 = cpuid(1, 0);
  if (!bit(l1.edx, 28)) return true;  // one logical processor per package
  const std::uint32_t logical = std::max(field(l1.ebx, 16, 23), 1u);
  char vendor[13] = {};
  const cpuid_regs l0 = cpuid(0, 0);
  copy_regs(vendor, {l0.ebx, l0.edx, l0.ecx});
  const std::uint32_t max_ext = cpuid(kExtBase, 0).eax;
  if (is_amd_like(vendor) && max_ext >= kExtBase + 8) {
    const cpuid_regs e8 = cpuid(kExtBase + 8, 0);
    std::uint32_t bits = field(e8.ecx, 12, 15);
    if (bits == 0) bits = width_of(field(e8.ecx, 0, 7) + 1);
    std::uint32_t threads = 1;
    if (max_ext >= kExtBase + 0x1e && bit(cpuid(kExtBase + 1, 0).ecx, 22)) {
      threads = field(cpuid(kExtBase + 0x1e, 0).ebx, 8, 15) + 1;
    }
    layout->smt_shift = width_of(threads);
    layout->package_shift = std::max(bits, layout->smt_shift);
    return true;
  }
  if (max_leaf < 4) return false;
  const std::uint32_t cores = field(cpuid(4, 0).eax, 26, 31) + 1;
  layout->smt_shift = width_of(std::max(logical / cores, 1u));
  layout->package_shift = layout->smt_shift + width_of(cores);
  return true;
}

// The layout and this processor's APIC id; error 120171 or 120172.
vepra_error_t *read_layout(apic_layout *layout, std::uint32_t *apic_id) noexcept {
  const std::uint32_t max_leaf = cpuid(0, 0).eax;
  if (max_leaf < 1) return restricted(1, max_leaf);
  *layout = {};
  for (std::uint32_t leaf : {0x1fu, 0xbu}) {
    if (max_leaf < leaf) continue;
    apic_layout l;
    l.method = leaf == 0x1f ? VEPRA_CPU_TOPOLOGY_LEAF_1F : VEPRA_CPU_TOPOLOGY_LEAF_B;
    if (extended_layout(leaf, &l)) {
      *layout = l;
      *apic_id = cpuid(leaf, 0).edx;
      return nullptr;
    }
  }
  layout->method = VEPRA_CPU_TOPOLOGY_LEGACY;
  if (!legacy_layout(max_leaf, layout)) {
    return make_error(VEPRA_E_CPUID_LEVEL);
  }
  *apic_id = field(cpuid(1, 0).ebx, 24, 31);
  return nullptr;
}

struct cpu_set_deleter {
  void operator()(cpu_set_t *set) const noexcept { CPU_FREE(set); }
};
using cpu_set_ptr = std::unique_ptr<cpu_set_t, cpu_set_deleter>;

// A processor set big enough for the calling thread's mask, and its mask.
struct affinity {
  cpu_set_ptr set;
  std::size_t bytes = 0;
  int processors = 0;  // the set's capacity in processors
};

vepra_error_t *read_affinity(affinity *a) noexcept {
  for (int n = 1024; n <= (1 << 22); n *= 2) {
    cpu_set_ptr set(CPU_ALLOC(n));
    if (set == nullptr) return make_error(VEPRA_E_ALLOC);
    const std::size_t bytes = CPU_ALLOC_SIZE(n);
    const int rc = pthread_getaffinity_np(pthread_self(), bytes, set.get());
    if (rc == 0) {
      *a = {std::move(set), bytes, n};
      return nullptr;
    }
    if (rc != EINVAL) break;
  }
  return wrap_error(make_error(VEPRA_E_CPU_AFFINITY_MASK),
                    "The calling thread's affinity mask cannot be read.");
}

// Binds the calling thread to the one processor cpu of a set of bytes.
bool bind_to(int cpu, std::size_t bytes, cpu_set_t *scratch) noexcept {
  if (cpu_bind_should_fail()) return false;
  CPU_ZERO_S(bytes, scratch);
  CPU_SET_S(static_cast<std::size_t>(cpu), bytes, scratch);
  if (pthread_setaffinity_np(pthread_self(), bytes, scratch) != 0) return false;
  return sched_getcpu() == cpu;
}

// Reads the APIC id and layout on each processor of the original mask.
vepra_error_t *visit_processors(const affinity &original, vepra_cpu_topology_t *t,
                                apr_pool_t *pool) noexcept {
  const int count = CPU_COUNT_S(original.bytes, original.set.get());
  auto *out = static_cast<vepra_cpu_logical_t *>(
      apr_pcalloc(pool, sizeof(vepra_cpu_logical_t) * static_cast<std::size_t>(std::max(count, 1))));
  cpu_set_ptr scratch(CPU_ALLOC(original.processors));
  if (out == nullptr || scratch == nullptr) {
    return make_error(VEPRA_E_ALLOC);
  }
  apic_layout first;
  std::uint32_t n = 0;
  for (int cpu = 0; cpu < original.processors && n < static_cast<std::uint32_t>(count); ++cpu) {
    if (!CPU_ISSET_S(static_cast<std::size_t>(cpu), original.bytes, original.set.get())) continue;
    if (!bind_to(cpu, original.bytes, scratch.get())) {
      return wrap_error(make_error(VEPRA_E_CPU_BIND), "The thread cannot run on processor %d.",
                        cpu);
    }
    apic_layout layout;
    std::uint32_t apic = 0;
    VEPRA_RETURN_IF_ERROR(read_layout(&layout, &apic), "Cannot read processor %d.", cpu);
    if (n == 0) first = layout;
    if (!(layout == first)) {
      return wrap_error(make_error(VEPRA_E_CPU_TOPOLOGY),
                        "Processor %d splits its APIC id differently.", cpu);
    }
    for (std::uint32_t i = 0; i < n; ++i) {
      if (out[i].apic_id == apic) {
        return wrap_error(make_error(VEPRA_E_CPU_TOPOLOGY),
                          "Processors %u and %d report the same APIC id %u.",
                          out[i].os_index, cpu, apic);
      }
    }
    vepra_cpu_logical_t &p = out[n++];
    p.os_index = static_cast<std::uint32_t>(cpu);
    p.apic_id = apic;
    const std::uint32_t core_bits = layout.package_shift - layout.smt_shift;
    p.package = layout.package_shift >= 32 ? 0 : apic >> layout.package_shift;
    p.core = core_bits >= 32 ? apic >> layout.smt_shift
                             : (apic >> layout.smt_shift) & ((1u << core_bits) - 1u);
    p.thread = apic & ((1u << layout.smt_shift) - 1u);
  }
  t->method = first.method;
  t->count = n;
  t->processors = out;
  return nullptr;
}

template <typename Match>
vepra_error_t *fill_mask(const vepra_cpu_topology_t *t, void *mask, std::size_t size,
                         Match match) noexcept {
  if (t == nullptr || mask == nullptr) {
    return make_wrapped(VEPRA_E_ASSERT, kMaskContext, "No topology or mask given.");
  }
  std::memset(mask, 0, size);
  auto *set = static_cast<cpu_set_t *>(mask);
  std::uint32_t found = 0;
  for (std::uint32_t i = 0; i < t->count; ++i) {
    const vepra_cpu_logical_t &p = t->processors[i];
    if (!match(p)) continue;
    if (p.os_index >= size * 8) {
      return make_wrapped(VEPRA_E_CPU_AFFINITY_MASK, kMaskContext,
                          "Processor %u does not fit a mask of %zu bytes.", p.os_index, size);
    }
    CPU_SET_S(p.os_index, size, set);
    ++found;
  }
  if (found == 0) {
    return make_wrapped(VEPRA_E_CPU_AFFINITY_MASK, kMaskContext,
                        "No processor of the topology matches.");
  }
  return nullptr;
}

#else

vepra_error_t *unsupported(const char *context) noexcept {
  return wrap_error(make_error(VEPRA_E_CPUID_UNSUPPORTED), "%s", context);
}

#endif  // __x86_64__

}  // namespace
}  // namespace vepra::detail

using namespace vepra::detail;

extern "C" {

vepra_error_t *vepra_cpu_identify(vepra_cpu_info_t *info) noexcept {
#if defined(__x86_64__)
  if (info == nullptr) return make_wrapped(VEPRA_E_ASSERT, kIdentifyContext, "No record given.");
  *info = {};
  const cpuid_regs l0 = cpuid(0, 0);
  info->max_leaf = l0.eax;
  copy_regs(info->vendor, {l0.ebx, l0.edx, l0.ecx});
  if (info->max_leaf < 1) {
    return wrap_error(restricted(1, info->max_leaf), "%s", kIdentifyContext);
  }
  const cpuid_regs l1 = cpuid(1, 0);
  const std::uint32_t base_family = field(l1.eax, 8, 11);
  const std::uint32_t base_model = field(l1.eax, 4, 7);
  info->family = base_family == 0xf ? base_family + field(l1.eax, 20, 27) : base_family;
  info->model = base_family == 0x6 || base_family == 0xf
                    ? (field(l1.eax, 16, 19) << 4) + base_model
                    : base_model;
  info->stepping = field(l1.eax, 0, 3);
  info->hypervisor = bit(l1.ecx, 31) ? 1 : 0;
  if (info->hypervisor != 0) {
    const cpuid_regs h = cpuid(0x40000000u, 0);
    copy_regs(info->hypervisor_vendor, {h.ebx, h.ecx, h.edx});
  }
  const std::uint32_t ext = cpuid(kExtBase, 0).eax;
  info->max_ext_leaf = ext >= kExtBase && ext < kExtBase + 0x10000 ? ext : 0;
  info->features = decode_features(cpuid);
  for (std::uint64_t b = 1; b != 0 && b <= info->features; b <<= 1) {
    if ((info->features & b) != 0 && may_run(b)) info->usable |= b;
  }
  read_brand(info);
  if (info->max_leaf >= 0x16) info->frequency_mhz = field(cpuid(0x16, 0).eax, 0, 15);
  if (info->frequency_mhz == 0) info->frequency_mhz = brand_frequency(info->brand);
  read_caches(info);
  return nullptr;
#else
  (void)info;
  return unsupported(kIdentifyContext);
#endif
}

vepra_error_t *vepra_cpu_topology(vepra_cpu_topology_t **topology, apr_pool_t *pool) noexcept {
#if defined(__x86_64__)
  if (topology == nullptr || pool == nullptr) {
    return make_wrapped(VEPRA_E_ASSERT, kTopologyContext, "No result or pool given.");
  }
  *topology = nullptr;
  affinity original;
  VEPRA_RETURN_IF_ERROR(read_affinity(&original), "%s", kTopologyContext);
  auto *t = static_cast<vepra_cpu_topology_t *>(apr_pcalloc(pool, sizeof(vepra_cpu_topology_t)));
  vepra_error_t *err = t == nullptr ? make_error(VEPRA_E_ALLOC)
                                    : visit_processors(original, t, pool);
  // The original mask goes back whatever happened above.
  const bool restored = pthread_setaffinity_np(pthread_self(), original.bytes,
                                               original.set.get()) == 0 &&
                        !affinity_restore_should_fail();
  if (!restored) {
    err = vepra_error_compose_create(
        wrap_error(make_error(VEPRA_E_CPU_AFFINITY_MASK),
                   "The calling thread's affinity mask cannot be restored."),
        err);
  }
  if (err == nullptr) err = count_groups(t, pool);
  if (err != nullptr) return wrap_error(err, "%s", kTopologyContext);
  *topology = t;
  return nullptr;
#else
  (void)topology;
  (void)pool;
  return unsupported(kTopologyContext);
#endif
}

vepra_error_t *vepra_cpu_package_mask(const vepra_cpu_topology_t *topology, uint32_t package,
                                      void *mask, size_t mask_size) noexcept {
#if defined(__x86_64__)
  return fill_mask(topology, mask, mask_size,
                   [&](const vepra_cpu_logical_t &p) { return p.package == package; });
#else
  (void)topology, (void)package, (void)mask, (void)mask_size;
  return unsupported(kMaskContext);
#endif
}

vepra_error_t *vepra_cpu_core_mask(const vepra_cpu_topology_t *topology, uint32_t package,
                                   uint32_t core, void *mask, size_t mask_size) noexcept {
#if defined(__x86_64__)
  return fill_mask(topology, mask, mask_size, [&](const vepra_cpu_logical_t &p) {
    return p.package == package && p.core == core;
  });
#else
  (void)topology, (void)package, (void)core, (void)mask, (void)mask_size;
  return unsupported(kMaskContext);
#endif
}

}  // extern "C"
