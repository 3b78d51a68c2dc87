// The cpuid instruction and what the library decodes from it, shared by
// processor detection and the choice of accelerated paths. Tests can put a
// table of their own in place of the instruction and make binds fail.
#ifndef VEPRA_SRC_SYS_CPUID_HPP
#define VEPRA_SRC_SYS_CPUID_HPP

#include <cstdint>

#include <apr_pools.h>

#include "vepra_cpu.h"

namespace vepra::detail {

struct cpuid_regs {
  std::uint32_t eax, ebx, ecx, edx;
};

// The instruction itself, whatever the tests replaced.
cpuid_regs cpuid_raw(std::uint32_t leaf, std::uint32_t subleaf) noexcept;

// The instruction or the tests' replacement: what detection reads.
cpuid_regs cpuid(std::uint32_t leaf, std::uint32_t subleaf) noexcept;

// VEPRA_CPU_* feature bits decoded through read (cpuid or cpuid_raw).
std::uint64_t decode_features(cpuid_regs (*read)(std::uint32_t, std::uint32_t)) noexcept;

// The os_sse bits of this machine, from the instruction and XCR0.
std::uint32_t os_saved_state() noexcept;

// The one answer to "may code using all of these VEPRA_CPU_* bits run
// here": the processor has them, os_sse says their registers are saved,
// and the portable paths are not forced.
bool may_run(std::uint64_t features) noexcept;

// Sets the packages, the most cores in a package and the most threads in
// a core of t from its processors' package and core numbers. Scratch from
// pool; 120012 when it cannot be had.
vepra_error_t *count_groups(vepra_cpu_topology_t *t, apr_pool_t *pool) noexcept;

// True when a test asked for the n-th bind from now on to fail.
bool cpu_bind_should_fail() noexcept;

// True when a test asked the restoring of the affinity mask to fail.
bool affinity_restore_should_fail() noexcept;

}  // namespace vepra::detail

namespace vepra::testing {

// A replacement for the cpuid instruction: fills eax, ebx, ecx, edx.
using cpuid_fn = void (*)(std::uint32_t leaf, std::uint32_t subleaf, std::uint32_t regs[4]);

// Detection reads fn instead of the instruction; null restores it. The
// accelerated-path answers always read the instruction.
void replace_cpuid(cpuid_fn fn) noexcept;

// Makes the n-th bind of the calling thread to one processor from now on
// fail; 0 switches it off.
void fail_cpu_bind_at(long n) noexcept;

// Makes restoring the affinity mask after a topology query fail (the
// original mask is still put back, so the test's thread is unharmed).
void fail_affinity_restore(bool on) noexcept;

}  // namespace vepra::testing

#endif  // VEPRA_SRC_SYS_CPUID_HPP
