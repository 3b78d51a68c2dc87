// Bit helpers against bit-by-bit models, on random words and at the edges.
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "vepra_util.h"

namespace {

bool bit(std::uint64_t w, unsigned i) { return i < 64 && ((w >> i) & 1u) != 0; }

TEST(BitsTest, MatchBitByBitModels) {
  std::mt19937_64 rng(99);
  for (int round = 0; round < 20000; ++round) {
    // Sparse and short words as well as full ones; 0 and all ones included.
    std::uint64_t w = rng();
    switch (round % 4) {
      case 0: w >>= rng() % 64; break;
      case 1: w &= rng() & rng(); break;
      case 2: w = round < 8 ? (round < 4 ? 0 : ~std::uint64_t{0}) : w; break;
      default: break;
    }
    int low = -1, high = -1;
    for (unsigned i = 0; i < 64; ++i)
      if (bit(w, i)) {
        if (low < 0) low = static_cast<int>(i);
        high = static_cast<int>(i);
      }
    ASSERT_EQ(vepra_util_bsf64(w), low) << w;
    ASSERT_EQ(vepra_util_bsr64(w), high) << w;
    ASSERT_EQ(vepra_util_nsigbits64(w), static_cast<unsigned>(high + 1)) << w;

    const auto shift = static_cast<unsigned>(rng() % 70), width = static_cast<unsigned>(rng() % 70);
    const std::uint64_t value = rng();
    std::uint64_t field = 0, set = w;
    for (unsigned i = 0; i < width && shift + i < 64; ++i) {
      if (bit(w, shift + i)) field |= std::uint64_t{1} << i;
      set = (set & ~(std::uint64_t{1} << (shift + i))) | (std::uint64_t{bit(value, i)} << (shift + i));
    }
    ASSERT_EQ(vepra_util_bitfield_get64(w, shift, width), field) << shift << "," << width;
    ASSERT_EQ(vepra_util_bitfield_set64(w, shift, width, value), set) << shift << "," << width;
    ASSERT_EQ(vepra_util_bitfield_get64(vepra_util_bitfield_set64(w, shift, width, value), shift, width),
              vepra_util_bitfield_get64(value, 0, shift < 64 ? 64 - shift : 0) & vepra_util_lowmask64(width));
  }
}

TEST(BitsTest, LowMasks) {
  for (unsigned n = 0; n <= 70; ++n) {
    std::uint64_t want = 0;
    for (unsigned i = 0; i < n && i < 64; ++i) want |= std::uint64_t{1} << i;
    EXPECT_EQ(vepra_util_lowmask64(n), want) << n;
  }
}

}  // namespace
