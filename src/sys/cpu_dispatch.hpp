// Which accelerated code paths may run on this machine. Modules with a fast
// path (checksums, hashes, bit counting) ask here once per call; the answer
// combines what the processor reports with what the operating system saves
// across context switches, and a switch that the tests use to force the
// portable paths everywhere.
#ifndef VEPRA_SRC_SYS_CPU_DISPATCH_HPP
#define VEPRA_SRC_SYS_CPU_DISPATCH_HPP

namespace vepra::detail {

enum class cpu_feature : unsigned {
  sse42,
  popcnt,
  avx2,
  bmi2,
  avx512f,
  avx512bw,
  avx512vl,
  pclmulqdq,
  vpclmulqdq,
  sha,
  aes,
};

// True when code using the feature may run here: the processor has it, the
// operating system saves the registers it uses (os_sse, set by
// vepra_initialize(), so nothing may run before it), and the portable paths
// are not forced. vpclmulqdq means the 512-bit form and so also needs
// AVX-512F. Cheap: the processor's flags are read once and cached.
bool cpu_may_run(cpu_feature feature) noexcept;

}  // namespace vepra::detail

namespace vepra::testing {

// Makes cpu_may_run() answer false for every feature while on is true, so
// that tests can compare the portable paths with the accelerated ones on
// any machine.
void force_portable_paths(bool on) noexcept;

}  // namespace vepra::testing

#endif  // VEPRA_SRC_SYS_CPU_DISPATCH_HPP
