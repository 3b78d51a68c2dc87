// CRC-32 against zlib's crc32 and CRC-16/ARC against a bit-at-a-time
// computation, on every code path, at every alignment, chained in pieces.
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sys/cpu_dispatch.hpp"
#include "sys/crc_internal.hpp"
#include "vepra_util.h"

namespace {

namespace d = vepra::detail;

using Crc32Fn = std::function<std::uint32_t(std::uint32_t, const unsigned char *, std::size_t)>;
using Crc16Fn = std::function<std::uint16_t(std::uint16_t, const unsigned char *, std::size_t)>;

std::uint16_t crc16_bitwise(std::uint16_t crc, const unsigned char *p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int b = 0; b < 8; ++b) crc = (crc & 1) ? static_cast<std::uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
  }
  return crc;
}

std::uint32_t zlib_crc32(std::uint32_t crc, const unsigned char *p, std::size_t n) {
  return static_cast<std::uint32_t>(crc32_z(crc, p, n));
}

// The public functions, with the accelerated paths allowed or forced off.
template <class Fn>
Fn public_path(bool portable, Fn fn) {
  return [portable, fn](auto crc, const unsigned char *p, std::size_t n) {
    vepra::testing::force_portable_paths(portable);
    auto r = fn(crc, p, n);
    vepra::testing::force_portable_paths(false);
    return r;
  };
}

struct Paths {
  std::vector<std::pair<std::string, Crc32Fn>> crc32;
  std::vector<std::pair<std::string, Crc16Fn>> crc16;
};

Paths all_paths() {
  Paths p;
  const auto inv32 = [](auto engine) -> Crc32Fn {
    return [engine](std::uint32_t c, const unsigned char *b, std::size_t n) { return ~engine(~c, b, n); };
  };
  const auto pub32 = [](std::uint32_t c, const unsigned char *b, std::size_t n) { return vepra_util_crc32(c, b, n); };
  const auto pub16 = [](std::uint16_t c, const unsigned char *b, std::size_t n) { return vepra_util_crc16(c, b, n); };
  p.crc32 = {{"bytewise", inv32(d::crc32_bytewise)},
             {"slice8", inv32(d::crc32_slice8)},
             {"public portable", public_path(true, Crc32Fn(pub32))},
             {"public", public_path(false, Crc32Fn(pub32))}};
  p.crc16 = {{"bytewise", d::crc16_bytewise},
             {"slice8", d::crc16_slice8},
             {"public portable", public_path(true, Crc16Fn(pub16))},
             {"public", public_path(false, Crc16Fn(pub16))}};
  if (d::crc_clmul_available()) {
    p.crc32.emplace_back("clmul", inv32(d::crc32_clmul));
    p.crc16.emplace_back("clmul", d::crc16_clmul);
  }
  if (d::crc_vclmul_available()) {
    p.crc32.emplace_back("vclmul", inv32(d::crc32_vclmul));
    p.crc16.emplace_back("vclmul", d::crc16_vclmul);
  }
  return p;
}

// Feeds [p, p + n) to fn in random pieces, chaining the running value.
template <class Reg, class Fn>
Reg in_pieces(const Fn &fn, Reg start, const unsigned char *p, std::size_t n, std::mt19937 &rng) {
  Reg crc = start;
  while (n > 0) {
    std::size_t piece = std::uniform_int_distribution<std::size_t>(0, n)(rng);
    if (rng() % 4 == 0) piece = n;
    crc = fn(crc, p, piece);
    p += piece;
    n -= piece;
  }
  return crc;
}

TEST(CrcTest, CheckValuesAndEdges) {
  const char *digits = "123456789";
  EXPECT_EQ(vepra_util_crc32(0, digits, 9), 0xCBF43926u);
  EXPECT_EQ(vepra_util_crc16(0, digits, 9), 0xBB3Du);
  EXPECT_EQ(vepra_util_crc16(0x1234, digits, 0), 0x1234u);
  EXPECT_EQ(vepra_util_crc32(0x89ABCDEFu, digits, 0), 0x89ABCDEFu);
  EXPECT_EQ(vepra_util_crc16(0x1234, nullptr, 5), 0u);
  EXPECT_EQ(vepra_util_crc32(0x1234, nullptr, 0), 0u);
}

TEST(CrcTest, EveryPathMatchesThePeersAtEveryAlignmentInPieces) {
  const Paths paths = all_paths();
  std::printf("paths: %zu for CRC-32, %zu for CRC-16\n", paths.crc32.size(), paths.crc16.size());
  std::mt19937 rng(20261124);
  std::vector<unsigned char> storage(4096 + 64);
  for (auto &b : storage) b = static_cast<unsigned char>(rng());
  // Lengths around the points where the paths change, then random ones.
  std::vector<std::size_t> lengths = {0, 1, 7, 8, 15, 16, 17, 63, 64, 65, 255, 256, 257, 1023, 1024, 1025, 4096};
  for (int i = 0; i < 12; ++i) lengths.push_back(std::uniform_int_distribution<std::size_t>(0, 4096)(rng));
  for (std::size_t align = 0; align < 64; ++align) {
    for (std::size_t len : lengths) {
      const unsigned char *p = storage.data() + align;
      const auto start32 = static_cast<std::uint32_t>(rng());
      const auto start16 = static_cast<std::uint16_t>(rng());
      const std::uint32_t want32 = zlib_crc32(start32, p, len);
      const std::uint16_t want16 = crc16_bitwise(start16, p, len);
      for (const auto &[name, fn] : paths.crc32) {
        ASSERT_EQ(fn(start32, p, len), want32) << name << " len " << len << " align " << align;
        ASSERT_EQ(in_pieces(fn, start32, p, len, rng), want32) << name << " in pieces, len " << len;
      }
      for (const auto &[name, fn] : paths.crc16) {
        ASSERT_EQ(fn(start16, p, len), want16) << name << " len " << len << " align " << align;
        ASSERT_EQ(in_pieces(fn, start16, p, len, rng), want16) << name << " in pieces, len " << len;
      }
    }
  }
}

}  // namespace
