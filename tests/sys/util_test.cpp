// Bit helpers against <bit> and bit-by-bit models; CRC-32 against zlib's
// crc32, CRC-16/ARC against a bit-at-a-time loop and SHA-1 against OpenSSL,
// on every code path, in random pieces.
#include <openssl/sha.h>
#include <zlib.h>

#include <array>
#include <bit>
#include <functional>
#include <random>
#include <type_traits>
#include <vector>

#include "support/test_support.hpp"
#include "sys/cpu_dispatch.hpp"
#include "sys/crc_internal.hpp"
#include "sys/popcount.hpp"
#include "sys/sha1_internal.hpp"
#include "vepra_sha1.h"
#include "vepra_util.h"

namespace {

namespace d = vepra::detail;
using Fn = std::function<std::uint32_t(std::uint32_t, const unsigned char *, std::size_t)>;

std::uint32_t crc16_bitwise(std::uint32_t crc, const unsigned char *p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int b = 0; b < 8; ++b) crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
  }
  return crc;
}

// A path as (crc, bytes) -> crc: a public function (on the portable path or
// not), or an engine, which works on the register that CRC-32 keeps inverted.
template <class Reg, class Bytes>
Fn path(Reg (*f)(Reg, Bytes, std::size_t), bool portable = false) {
  const bool engine = std::is_same_v<Bytes, const unsigned char *> && sizeof(Reg) == 4;
  const auto invert = static_cast<Reg>(engine ? ~0u : 0u);
  return [=](std::uint32_t c, const unsigned char *p, std::size_t n) -> std::uint32_t {
    vepra::testing::force_portable_paths(portable);
    const auto r = static_cast<Reg>(f(static_cast<Reg>(c ^ invert), p, n) ^ invert);
    vepra::testing::force_portable_paths(false);
    return r;
  };
}

template <class Reg>
Reg in_pieces(const Fn &fn, Reg crc, const unsigned char *p, std::size_t n, std::mt19937 &rng) {
  while (n > 0) {
    const std::size_t piece =
        rng() % 4 == 0 ? n : std::uniform_int_distribution<std::size_t>(0, n)(rng);
    crc = static_cast<Reg>(fn(crc, p, piece));
    p += piece;
    n -= piece;
  }
  return crc;
}

// The fixture initialises the library, which learns there which register
// state the operating system saves: without it no accelerated path runs.
class DigestTest : public vepra_test::LibraryTest {};

// Both CRCs, whole and in pieces, at the lengths where the paths change;
// no data gives 0 whatever the running value.
TEST_F(DigestTest, CrcPathsMatchThePeersAtEveryAlignmentInPieces) {
  EXPECT_EQ(vepra_util_crc16(0x1234, nullptr, 5), 0u);
  EXPECT_EQ(vepra_util_crc32(0x1234, nullptr, 0), 0u);
  // Every path, as the CRC-32 and the CRC-16 function of it.
  std::vector<std::pair<Fn, Fn>> paths = {
      {path(vepra_util_crc32, true), path(vepra_util_crc16, true)},
      {path(vepra_util_crc32), path(vepra_util_crc16)},
      {path(d::crc32_bytewise), path(d::crc16_bytewise)},
      {path(d::crc32_slice8), path(d::crc16_slice8)}};
  if (d::crc_clmul_available()) paths.emplace_back(path(d::crc32_clmul), path(d::crc16_clmul));
  if (d::crc_vclmul_available()) paths.emplace_back(path(d::crc32_vclmul), path(d::crc16_vclmul));
  std::mt19937 rng(20261124);
  std::vector<unsigned char> storage(4096 + 64);
  for (auto &b : storage) b = static_cast<unsigned char>(rng());
  // Lengths where the paths change, then random ones.
  std::vector<std::size_t> lengths = {0,  1,   7,   8,   15,   16,   17,   63,  64,
                                      65, 511, 512, 513, 1023, 1024, 1025, 4096};
  for (int i = 0; i < 12; ++i) lengths.push_back(rng() % 4097);
  for (std::size_t align = 0; align < 64; ++align) {
    for (std::size_t len : lengths) {
      const unsigned char *p = storage.data() + align;
      const auto start32 = static_cast<std::uint32_t>(rng());
      const auto start16 = static_cast<std::uint16_t>(rng());
      const auto want32 = static_cast<std::uint32_t>(crc32_z(start32, p, len));
      const std::uint32_t want16 = crc16_bitwise(start16, p, len);
      for (std::size_t i = 0; i < paths.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "path " << i << " len " << len << " align " << align);
        const auto &[crc32, crc16] = paths[i];
        ASSERT_EQ(crc32(start32, p, len), want32);
        ASSERT_EQ(in_pieces(crc32, start32, p, len, rng), want32);
        ASSERT_EQ(crc16(start16, p, len), want16);
        ASSERT_EQ(in_pieces(crc16, start16, p, len, rng), want16);
      }
    }
  }
}

// Messages at the padding boundaries (the length fits after 55 bytes of a
// block, not 56), a million bytes and random ones, whole and in random
// pieces, on both paths; final starts the context anew, for reuse.
TEST_F(DigestTest, Sha1PathsMatchOpenSslInRandomPieces) {
  std::mt19937 rng(7);
  std::vector<std::vector<unsigned char>> messages;
  for (std::size_t n : {0, 55, 56, 63, 64, 65, 119, 120, 1000000}) messages.emplace_back(n, 'a');
  for (int i = 0; i < 300; ++i) {
    messages.emplace_back(rng() % 3001);
    for (auto &b : messages.back()) b = static_cast<unsigned char>(rng());
  }
  vepra_sha1_ctx_t ctx;
  vepra_sha1_init(&ctx);
  for (bool portable : {true, false}) {
    if (!portable && !vepra::detail::sha1_shani_available()) continue;
    vepra::testing::force_portable_paths(portable);
    for (const auto &msg : messages) {
      std::array<unsigned char, SHA_DIGEST_LENGTH> want, got;
      SHA1(msg.data(), msg.size(), want.data());
      vepra_sha1(msg.data(), msg.size(), got.data());
      ASSERT_EQ(got, want) << msg.size() << " bytes, portable " << portable;
      for (std::size_t at = 0, piece; at < msg.size(); at += piece) {
        piece = std::min<std::size_t>(msg.size() - at, rng() % 200);
        vepra_sha1_update(&ctx, msg.data() + at, piece);
      }
      vepra_sha1_final(&ctx, got.data());
      ASSERT_EQ(got, want) << msg.size() << " bytes in pieces, portable " << portable;
      // Null data hashes nothing.
      if (msg.empty()) {
        vepra_sha1(nullptr, 5, got.data());
        EXPECT_EQ(got, want);
      }
    }
  }
  vepra::testing::force_portable_paths(false);
}

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
