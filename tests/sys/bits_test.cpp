// Bit helpers against <bit> and bit-by-bit models, on random words and at
// the edges, and population counts against std::popcount.
#include <bit>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "sys/cpu_dispatch.hpp"
#include "sys/popcount.hpp"
#include "vepra_util.h"

namespace {

// Scans, counts and fields of random, sparse, short, empty and full words.
TEST(BitsTest, MatchBitByBitModels) {
  std::mt19937_64 rng(99);
  const auto bit = [](std::uint64_t w, unsigned i) { return i < 64 && ((w >> i) & 1u) != 0; };
  for (unsigned round = 0; round < 20000; ++round) {
    // Sparse and short words as well as full ones, 0 and all ones.
    std::uint64_t w = round < 2 ? 0 - std::uint64_t{round} : rng() >> (rng() % 64);
    if (round % 2 == 0) w &= rng();
    const int low = w == 0 ? -1 : std::countr_zero(w);
    const int high = static_cast<int>(std::bit_width(w)) - 1;
    ASSERT_EQ(vepra_util_bsf64(w), low) << w;
    ASSERT_EQ(vepra_util_bsr64(w), high) << w;
    ASSERT_EQ(vepra_util_nsigbits64(w), static_cast<unsigned>(high + 1)) << w;
    ASSERT_EQ(vepra_util_nsb64(w), static_cast<unsigned>(std::popcount(w))) << w;

    // Shifts and widths run past bit 63 on purpose.
    const auto shift = static_cast<unsigned>(rng() % 70), width = round % 70;
    const std::uint64_t value = rng();
    std::uint64_t mask = 0, field = 0, set = w;
    for (unsigned i = 0; i < width; ++i) {
      if (i < 64) mask |= std::uint64_t{1} << i;
      if (shift + i >= 64) continue;
      field |= std::uint64_t{bit(w, shift + i)} << i;
      set = (set & ~(std::uint64_t{1} << (shift + i))) |
            (std::uint64_t{bit(value, i)} << (shift + i));
    }
    ASSERT_EQ(vepra_util_lowmask64(width), mask) << width;
    ASSERT_EQ(vepra_util_bitfield_get64(w, shift, width), field) << shift << "," << width;
    ASSERT_EQ(vepra_util_bitfield_set64(w, shift, width, value), set) << shift << "," << width;
  }
}

// Counts over runs of every length up to a few blocks of four words, on
// the portable path and the popcnt path.
TEST(BitsTest, CountsRunsOfWordsOnEveryPath) {
  std::mt19937_64 rng(5);
  std::vector<std::uint64_t> words(19);
  for (auto &w : words) w = rng() & rng();
  for (bool portable : {true, false}) {
    vepra::testing::force_portable_paths(portable);
    std::uint64_t want = 0;
    for (std::size_t n = 0; n <= words.size(); ++n) {
      ASSERT_EQ(vepra::detail::count_bits(words.data(), n), want)
          << n << " words, portable " << portable;
      if (n < words.size()) want += static_cast<std::uint64_t>(std::popcount(words[n]));
    }
  }
  vepra::testing::force_portable_paths(false);
}

}  // namespace
