// The 64-bit population count of the utilities, and counting over runs of
// words with the processor's instruction where it exists.
#include "sys/popcount.hpp"

#include "sys/cpu_dispatch.hpp"
#include "vepra_util.h"

namespace vepra::detail {
namespace {

uint64_t count_portable(const uint64_t *words, size_t n) noexcept {
  uint64_t total = 0;
  for (size_t i = 0; i < n; ++i) total += vepra_util_nsb64(words[i]);
  return total;
}

#if defined(__x86_64__)
// Four independent sums keep several popcnt instructions in flight, so the
// loop runs at the speed of the memory rather than of one dependency chain.
__attribute__((target("popcnt"))) uint64_t count_popcnt(const uint64_t *words, size_t n) noexcept {
  uint64_t s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    s0 += static_cast<uint64_t>(__builtin_popcountll(words[i]));
    s1 += static_cast<uint64_t>(__builtin_popcountll(words[i + 1]));
    s2 += static_cast<uint64_t>(__builtin_popcountll(words[i + 2]));
    s3 += static_cast<uint64_t>(__builtin_popcountll(words[i + 3]));
  }
  for (; i < n; ++i) s0 += static_cast<uint64_t>(__builtin_popcountll(words[i]));
  return s0 + s1 + s2 + s3;
}
#endif

}  // namespace

uint64_t count_bits(const uint64_t *words, size_t n) noexcept {
#if defined(__x86_64__)
  if (cpu_may_run(cpu_feature::popcnt)) return count_popcnt(words, n);
#endif
  return count_portable(words, n);
}

}  // namespace vepra::detail

extern "C" unsigned vepra_util_nsb64(uint64_t value) noexcept {
  // Pairs, nibbles, then bytes summed by one multiplication.
  value -= (value >> 1) & 0x5555555555555555u;
  value = (value & 0x3333333333333333u) + ((value >> 2) & 0x3333333333333333u);
  value = (value + (value >> 4)) & 0x0f0f0f0f0f0f0f0fu;
  return static_cast<unsigned>((value * 0x0101010101010101u) >> 56);
}
