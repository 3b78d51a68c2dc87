// The input of the fuzzers that drive operation sequences: a reader of
// the bytes, one operation choice at a time, and the check that ends the
// run on a broken invariant.
#ifndef VEPRA_FUZZ_FUZZ_BYTES_HPP
#define VEPRA_FUZZ_FUZZ_BYTES_HPP

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace vepra_fuzz {

inline void check(bool ok) {
  if (!ok) std::abort();
}

// Hands out the input's bytes in order; 0 once they run out.
struct Bytes {
  const uint8_t *data;
  size_t size;
  size_t at = 0;
  bool more() const { return at < size; }
  unsigned next() { return at < size ? data[at++] : 0; }
};

}  // namespace vepra_fuzz

#endif  // VEPRA_FUZZ_FUZZ_BYTES_HPP
