// Feature answers for the accelerated paths, from the compiler's view of
// the processor and the operating system's saved register state.
#include "sys/cpu_dispatch.hpp"

#include <atomic>
#include <cstdint>

namespace vepra::detail {
namespace {

std::atomic<bool> g_force_portable{false};

#if defined(__x86_64__)
// Register state the operating system saves (XCR0), or 0 without OSXSAVE.
std::uint64_t saved_state() noexcept {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  __asm__("cpuid" : "=a"(eax), "=b"(ebx), "=c"(ecx), "=d"(edx) : "a"(1), "c"(0));
  if ((ecx & (1u << 27)) == 0) return 0;
  unsigned lo = 0, hi = 0;
  __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

bool has(cpu_feature feature) noexcept {
  static const std::uint64_t xcr0 = saved_state();
  const bool avx_state = (xcr0 & 0x6) == 0x6;
  const bool avx512_state = avx_state && (xcr0 & 0xe0) == 0xe0;
  __builtin_cpu_init();
  switch (feature) {
    case cpu_feature::sse42: return __builtin_cpu_supports("sse4.2");
    case cpu_feature::popcnt: return __builtin_cpu_supports("popcnt");
    case cpu_feature::avx2: return avx_state && __builtin_cpu_supports("avx2");
    case cpu_feature::bmi2: return __builtin_cpu_supports("bmi2");
    case cpu_feature::avx512f: return avx512_state && __builtin_cpu_supports("avx512f");
    case cpu_feature::avx512bw: return avx512_state && __builtin_cpu_supports("avx512bw");
    case cpu_feature::avx512vl: return avx512_state && __builtin_cpu_supports("avx512vl");
    case cpu_feature::pclmulqdq: return __builtin_cpu_supports("pclmul");
    case cpu_feature::vpclmulqdq:
      return avx512_state && __builtin_cpu_supports("vpclmulqdq");
    case cpu_feature::sha: return __builtin_cpu_supports("sha");
    case cpu_feature::aes: return __builtin_cpu_supports("aes");
  }
  return false;
}
#else
bool has(cpu_feature) noexcept { return false; }
#endif

}  // namespace

bool cpu_may_run(cpu_feature feature) noexcept {
  return !g_force_portable.load(std::memory_order_relaxed) && has(feature);
}

}  // namespace vepra::detail

namespace vepra::testing {

void force_portable_paths(bool on) noexcept {
  detail::g_force_portable.store(on, std::memory_order_relaxed);
}

}  // namespace vepra::testing
