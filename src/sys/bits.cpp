// Bit helpers on 64-bit words, with defined results at every edge.
#include "vepra_util.h"

extern "C" {

unsigned vepra_util_nsigbits64(uint64_t v) noexcept {
  return v == 0 ? 0u : 64u - static_cast<unsigned>(__builtin_clzll(v));
}

int vepra_util_bsf64(uint64_t v) noexcept { return v == 0 ? -1 : __builtin_ctzll(v); }

int vepra_util_bsr64(uint64_t v) noexcept { return v == 0 ? -1 : 63 - __builtin_clzll(v); }

uint64_t vepra_util_lowmask64(unsigned n) noexcept {
  return n >= 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
}

uint64_t vepra_util_bitfield_get64(uint64_t word, unsigned shift, unsigned width) noexcept {
  if (shift >= 64) return 0;
  return (word >> shift) & vepra_util_lowmask64(width);
}

uint64_t vepra_util_bitfield_set64(uint64_t word, unsigned shift, unsigned width,
                                   uint64_t value) noexcept {
  if (shift >= 64) return word;
  const uint64_t mask = vepra_util_lowmask64(width) << shift;
  return (word & ~mask) | ((value << shift) & mask);
}

}  // extern "C"
