// CRC-32 against zlib's crc32 and CRC-16/ARC against a bit-at-a-time loop,
// on every code path, at every alignment, chained in random pieces.
#include <zlib.h>

#include <functional>
#include <random>
#include <vector>

#include "support/test_support.hpp"
#include "sys/cpu_dispatch.hpp"
#include "sys/crc_internal.hpp"
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

// Every path of one CRC, as (running value, bytes) -> value; engine paths
// work on the register, which CRC-32 keeps inverted.
template <class Reg>
std::vector<Fn> paths(
    Reg (*pub)(Reg, const void *, std::size_t),
    std::initializer_list<std::pair<bool, Reg (*)(Reg, const unsigned char *, std::size_t)>>
        engines,
    Reg invert) {
  std::vector<Fn> all;
  for (bool portable : {true, false})
    all.push_back([=](std::uint32_t c, const unsigned char *p, std::size_t n) -> std::uint32_t {
      vepra::testing::force_portable_paths(portable);
      const Reg r = pub(static_cast<Reg>(c), p, n);
      vepra::testing::force_portable_paths(false);
      return r;
    });
  for (auto [available, engine] : engines)
    if (available)
      all.push_back([=](std::uint32_t c, const unsigned char *p, std::size_t n) -> std::uint32_t {
        return static_cast<Reg>(engine(static_cast<Reg>(c ^ invert), p, n) ^ invert);
      });
  return all;
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
class CrcTest : public vepra_test::LibraryTest {};

TEST_F(CrcTest, CheckValuesAndEdges) {
  EXPECT_EQ(vepra_util_crc32(0, "123456789", 9), 0xCBF43926u);
  EXPECT_EQ(vepra_util_crc16(0, "123456789", 9), 0xBB3Du);
  EXPECT_EQ(vepra_util_crc16(0x1234, "x", 0), 0x1234u);
  EXPECT_EQ(vepra_util_crc32(0x89ABCDEFu, "x", 0), 0x89ABCDEFu);
  EXPECT_EQ(vepra_util_crc16(0x1234, nullptr, 5), 0u);
  EXPECT_EQ(vepra_util_crc32(0x1234, nullptr, 0), 0u);
}

TEST_F(CrcTest, EveryPathMatchesThePeersAtEveryAlignmentInPieces) {
  const bool clmul = d::crc_clmul_available(), vclmul = d::crc_vclmul_available();
  const auto crc32s = paths<std::uint32_t>(vepra_util_crc32,
                                           {{true, d::crc32_bytewise},
                                            {true, d::crc32_slice8},
                                            {clmul, d::crc32_clmul},
                                            {vclmul, d::crc32_vclmul}},
                                           ~0u);
  const auto crc16s = paths<std::uint16_t>(vepra_util_crc16,
                                           {{true, d::crc16_bytewise},
                                            {true, d::crc16_slice8},
                                            {clmul, d::crc16_clmul},
                                            {vclmul, d::crc16_vclmul}},
                                           0);
  std::printf("%zu paths each\n", crc32s.size());
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
      for (std::size_t i = 0; i < crc32s.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "path " << i << " len " << len << " align " << align);
        ASSERT_EQ(crc32s[i](start32, p, len), want32);
        ASSERT_EQ(in_pieces(crc32s[i], start32, p, len, rng), want32);
        ASSERT_EQ(crc16s[i](start16, p, len), want16);
        ASSERT_EQ(in_pieces(crc16s[i], start16, p, len, rng), want16);
      }
    }
  }
}

}  // namespace
