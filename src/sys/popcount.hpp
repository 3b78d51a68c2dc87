// Population counts over runs of 64-bit words.
#ifndef VEPRA_SRC_SYS_POPCOUNT_HPP
#define VEPRA_SRC_SYS_POPCOUNT_HPP

#include <cstddef>
#include <cstdint>

namespace vepra::detail {

// Number of bits set in the n words at words. Uses the processor's
// population count instruction when it may run (decided once a call),
// otherwise vepra_util_nsb64() word by word.
uint64_t count_bits(const uint64_t *words, size_t n) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_SYS_POPCOUNT_HPP
