// The cpuid instruction, the feature bits decoded from it, the register
// state the operating system saves, and the one answer to "may this
// accelerated path run here".
#include "sys/cpu_dispatch.hpp"

#include <atomic>
#include <cstdint>

#include "sys/cpuid.hpp"
#include "vepra_cpu.h"

extern "C" {
uint32_t os_sse = 0;
}

namespace vepra::detail {
namespace {

std::atomic<bool> g_force_portable{false};
std::atomic<testing::cpuid_fn> g_cpuid_replacement{nullptr};
std::atomic<long> g_bind_countdown{0};
std::atomic<bool> g_restore_fails{false};

constexpr bool bit(std::uint32_t word, unsigned n) noexcept { return ((word >> n) & 1u) != 0; }

// Feature bits by where cpuid reports them.
struct feature_bit {
  std::uint64_t feature;
  std::uint8_t word;  // 0: leaf 1 ecx, 1: leaf 1 edx, 2: leaf 7 ebx, 3: leaf 7 ecx
  std::uint8_t position;
};

constexpr feature_bit kFeatureBits[] = {
    {VEPRA_CPU_SSE, 1, 25},       {VEPRA_CPU_SSE2, 1, 26},
    {VEPRA_CPU_SSE3, 0, 0},       {VEPRA_CPU_PCLMULQDQ, 0, 1},
    {VEPRA_CPU_SSSE3, 0, 9},      {VEPRA_CPU_FMA, 0, 12},
    {VEPRA_CPU_SSE4_1, 0, 19},    {VEPRA_CPU_SSE4_2, 0, 20},
    {VEPRA_CPU_MOVBE, 0, 22},     {VEPRA_CPU_POPCNT, 0, 23},
    {VEPRA_CPU_AES, 0, 25},       {VEPRA_CPU_AVX, 0, 28},
    {VEPRA_CPU_F16C, 0, 29},      {VEPRA_CPU_RDRAND, 0, 30},
    {VEPRA_CPU_BMI1, 2, 3},       {VEPRA_CPU_AVX2, 2, 5},
    {VEPRA_CPU_BMI2, 2, 8},       {VEPRA_CPU_AVX512F, 2, 16},
    {VEPRA_CPU_AVX512DQ, 2, 17},  {VEPRA_CPU_AVX512CD, 2, 28},
    {VEPRA_CPU_SHA, 2, 29},       {VEPRA_CPU_AVX512BW, 2, 30},
    {VEPRA_CPU_AVX512VL, 2, 31},  {VEPRA_CPU_GFNI, 3, 8},
    {VEPRA_CPU_VAES, 3, 9},       {VEPRA_CPU_VPCLMULQDQ, 3, 10},
};

// Features that work on the vector registers, by the state they need
// saved; the rest work on general registers and need nothing.
constexpr std::uint64_t kNeedsSse = VEPRA_CPU_SSE | VEPRA_CPU_SSE2 | VEPRA_CPU_SSE3 |
                                    VEPRA_CPU_SSSE3 | VEPRA_CPU_SSE4_1 | VEPRA_CPU_SSE4_2 |
                                    VEPRA_CPU_PCLMULQDQ | VEPRA_CPU_SHA | VEPRA_CPU_AES |
                                    VEPRA_CPU_GFNI;
constexpr std::uint64_t kNeedsAvx = VEPRA_CPU_AVX | VEPRA_CPU_AVX2 | VEPRA_CPU_FMA |
                                    VEPRA_CPU_F16C | VEPRA_CPU_VAES | VEPRA_CPU_VPCLMULQDQ;
constexpr std::uint64_t kNeedsAvx512 = VEPRA_CPU_AVX512F | VEPRA_CPU_AVX512DQ |
                                       VEPRA_CPU_AVX512CD | VEPRA_CPU_AVX512BW |
                                       VEPRA_CPU_AVX512VL;

#if defined(__x86_64__)
std::uint64_t read_xcr0() noexcept {
  unsigned lo = 0, hi = 0;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (static_cast<std::uint64_t>(hi) << 32) | lo;
}
#endif

// This machine's processor features, read once from the instruction.
std::uint64_t machine_features() noexcept {
  static const std::uint64_t features = decode_features(cpuid_raw);
  return features;
}

}  // namespace

cpuid_regs cpuid_raw(std::uint32_t leaf, std::uint32_t subleaf) noexcept {
  cpuid_regs r{};
#if defined(__x86_64__)
  __asm__ volatile("cpuid"
                   : "=a"(r.eax), "=b"(r.ebx), "=c"(r.ecx), "=d"(r.edx)
                   : "a"(leaf), "c"(subleaf));
#else
  (void)leaf;
  (void)subleaf;
#endif
  return r;
}

cpuid_regs cpuid(std::uint32_t leaf, std::uint32_t subleaf) noexcept {
  testing::cpuid_fn fn = g_cpuid_replacement.load(std::memory_order_acquire);
  if (fn == nullptr) return cpuid_raw(leaf, subleaf);
  std::uint32_t regs[4] = {};
  fn(leaf, subleaf, regs);
  return {regs[0], regs[1], regs[2], regs[3]};
}

std::uint64_t decode_features(cpuid_regs (*read)(std::uint32_t, std::uint32_t)) noexcept {
  const std::uint32_t max_leaf = read(0, 0).eax;
  if (max_leaf < 1) return 0;
  const cpuid_regs l1 = read(1, 0);
  const cpuid_regs l7 = max_leaf >= 7 ? read(7, 0) : cpuid_regs{};
  const std::uint32_t words[4] = {l1.ecx, l1.edx, l7.ebx, l7.ecx};
  std::uint64_t features = 0;
  for (const feature_bit &f : kFeatureBits) {
    if (bit(words[f.word], f.position)) features |= f.feature;
  }
  return features;
}

std::uint32_t os_saved_state() noexcept {
#if defined(__x86_64__)
  if (cpuid_raw(0, 0).eax < 1) return 0;
  const cpuid_regs l1 = cpuid_raw(1, 0);
  // Without OSXSAVE, XCR0 cannot be read; long mode itself requires the
  // operating system to save the SSE registers (FXSAVE).
  if (!bit(l1.ecx, 27)) return bit(l1.edx, 25) ? std::uint32_t{VEPRA_CPU_OS_SSE} : 0u;
  const std::uint64_t xcr0 = read_xcr0();
  std::uint32_t state = 0;
  if (bit(l1.edx, 25) && (xcr0 & 0x2) != 0) state |= VEPRA_CPU_OS_SSE;
  if ((xcr0 & 0x6) == 0x6) state |= VEPRA_CPU_OS_AVX;
  if ((xcr0 & 0xe6) == 0xe6) state |= VEPRA_CPU_OS_AVX512;
  return state;
#else
  return 0;
#endif
}

bool may_run(std::uint64_t features) noexcept {
  if (g_force_portable.load(std::memory_order_relaxed)) return false;
  if ((machine_features() & features) != features) return false;
  const std::uint32_t state = os_sse;
  if ((features & kNeedsSse) != 0 && (state & VEPRA_CPU_OS_SSE) == 0) return false;
  if ((features & kNeedsAvx) != 0 && (state & VEPRA_CPU_OS_AVX) == 0) return false;
  if ((features & kNeedsAvx512) != 0 && (state & VEPRA_CPU_OS_AVX512) == 0) return false;
  return true;
}

bool cpu_may_run(cpu_feature feature) noexcept {
  switch (feature) {
    case cpu_feature::sse42: return may_run(VEPRA_CPU_SSE4_2);
    case cpu_feature::popcnt: return may_run(VEPRA_CPU_POPCNT);
    case cpu_feature::avx2: return may_run(VEPRA_CPU_AVX2);
    case cpu_feature::bmi2: return may_run(VEPRA_CPU_BMI2);
    case cpu_feature::avx512f: return may_run(VEPRA_CPU_AVX512F);
    case cpu_feature::avx512bw: return may_run(VEPRA_CPU_AVX512BW);
    case cpu_feature::avx512vl: return may_run(VEPRA_CPU_AVX512VL);
    case cpu_feature::pclmulqdq: return may_run(VEPRA_CPU_PCLMULQDQ);
    case cpu_feature::vpclmulqdq: return may_run(VEPRA_CPU_VPCLMULQDQ | VEPRA_CPU_AVX512F);
    case cpu_feature::sha: return may_run(VEPRA_CPU_SHA);
    case cpu_feature::aes: return may_run(VEPRA_CPU_AES);
  }
  return false;
}

bool cpu_bind_should_fail() noexcept {
  long n = g_bind_countdown.load(std::memory_order_relaxed);
  while (n > 0) {
    if (g_bind_countdown.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) {
      return n == 1;
    }
  }
  return false;
}

bool affinity_restore_should_fail() noexcept {
  return g_restore_fails.load(std::memory_order_relaxed);
}

}  // namespace vepra::detail

namespace vepra::testing {

void force_portable_paths(bool on) noexcept {
  detail::g_force_portable.store(on, std::memory_order_relaxed);
}

void replace_cpuid(cpuid_fn fn) noexcept {
  detail::g_cpuid_replacement.store(fn, std::memory_order_release);
}

void fail_cpu_bind_at(long n) noexcept {
  detail::g_bind_countdown.store(n, std::memory_order_relaxed);
}

void fail_affinity_restore(bool on) noexcept {
  detail::g_restore_fails.store(on, std::memory_order_relaxed);
}

}  // namespace vepra::testing
