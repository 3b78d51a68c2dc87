// CRC-16/ARC and CRC-32 (reflected polynomials 0xA001 and 0xEDB88320).
//
// Every path computes the same reflected register r, the one of the byte
// loop r = (r >> 8) ^ table[(r ^ byte) & 0xFF]:
//  - bytewise: that loop, used for short inputs and tails;
//  - slice8: eight tables, eight bytes a step (portable);
//  - clmul / vclmul: folding by carry-less multiplication. The input is cut
//    into 128-bit lanes; with A the polynomial of a lane (first byte at the
//    top degrees), A * x^D mod P is A_hi * x^(D+64) + A_lo * x^D, and each
//    half times a constant x^k mod P is one carry-less multiply. In the
//    reflected bit order a 64 x 64 product comes out multiplied by x^-1, so
//    the constants are x^(D+63) mod P and x^(D-1) mod P, bit-reversed. The
//    folded 128 bits are finally fed through the byte loop from register 0:
//    that is the remainder, and the tail continues from it.
// The running register enters the first bytes of the input by XOR, which
// is what the byte loop does with it.
#include <array>
#include <bit>
#include <cstring>

#include "sys/cpu_dispatch.hpp"
#include "sys/crc_internal.hpp"
#include "vepra_util.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define VEPRA_CRC_X86 1
// GCC 12 flags the deliberately undefined lanes inside its own AVX-512
// broadcast and extract intrinsics.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#endif

namespace vepra::detail {
namespace {

// A reflected CRC of width W (16 or 32) with the full normal polynomial
// (top bit included).
template <unsigned W, std::uint64_t Poly>
struct CrcParams {
  using reg_t = std::conditional_t<W == 16, std::uint16_t, std::uint32_t>;
  static constexpr unsigned width = W;
  static constexpr std::uint64_t poly = Poly;
};
using Crc32 = CrcParams<32, 0x104C11DB7ull>;
using Crc16 = CrcParams<16, 0x18005ull>;

constexpr std::uint64_t reverse_bits(std::uint64_t v, unsigned bits) {
  std::uint64_t r = 0;
  for (unsigned i = 0; i < bits; ++i) r |= ((v >> i) & 1u) << (bits - 1 - i);
  return r;
}

// x^n mod P in the normal bit order.
template <class C>
constexpr std::uint64_t xpow_mod(unsigned n) {
  std::uint64_t r = 1;
  for (unsigned i = 0; i < n; ++i) {
    r <<= 1;
    if ((r >> C::width) & 1u) r ^= C::poly;
  }
  return r;
}

// Table k gives the register contribution of a byte followed by k more
// bytes; table 0 is the byte loop's.
template <class C>
constexpr std::array<std::array<typename C::reg_t, 256>, 8> make_tables() {
  using reg_t = typename C::reg_t;
  constexpr auto rpoly = static_cast<reg_t>(reverse_bits(C::poly & ((1ull << C::width) - 1), C::width));
  std::array<std::array<reg_t, 256>, 8> t{};
  for (unsigned i = 0; i < 256; ++i) {
    reg_t r = static_cast<reg_t>(i);
    for (int b = 0; b < 8; ++b) r = static_cast<reg_t>((r & 1u) ? (r >> 1) ^ rpoly : r >> 1);
    t[0][i] = r;
  }
  for (unsigned k = 1; k < 8; ++k)
    for (unsigned i = 0; i < 256; ++i)
      t[k][i] = static_cast<reg_t>((t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFFu]);
  return t;
}

template <class C>
constexpr auto kTables = make_tables<C>();

static_assert(kTables<Crc32>[0][1] == 0x77073096u);
static_assert(kTables<Crc16>[0][1] == 0xC0C1u);

template <class C>
typename C::reg_t bytewise(typename C::reg_t r, const unsigned char *p, std::size_t n) noexcept {
  const auto &t = kTables<C>[0];
  for (std::size_t i = 0; i < n; ++i) r = static_cast<typename C::reg_t>((r >> 8) ^ t[(r ^ p[i]) & 0xFFu]);
  return r;
}

std::uint64_t load_le64(const unsigned char *p) noexcept {
  std::uint64_t v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap64(v);
  return v;
}

template <class C>
typename C::reg_t slice8(typename C::reg_t r, const unsigned char *p, std::size_t n) noexcept {
  const auto &t = kTables<C>;
  for (; n >= 8; p += 8, n -= 8) {
    const std::uint64_t v = load_le64(p) ^ r;
    r = static_cast<typename C::reg_t>(
        t[7][v & 0xFF] ^ t[6][(v >> 8) & 0xFF] ^ t[5][(v >> 16) & 0xFF] ^ t[4][(v >> 24) & 0xFF] ^
        t[3][(v >> 32) & 0xFF] ^ t[2][(v >> 40) & 0xFF] ^ t[1][(v >> 48) & 0xFF] ^ t[0][v >> 56]);
  }
  return bytewise<C>(r, p, n);
}

#if defined(VEPRA_CRC_X86)

// Folding constants for a distance of D bits: the low qword multiplies the
// lane's low (earlier, higher-degree) half, the high qword its high half.
template <class C>
struct FoldConst {
  std::uint64_t lo, hi;
};
template <class C, unsigned D>
constexpr FoldConst<C> kFold{reverse_bits(xpow_mod<C>(D + 63), 64), reverse_bits(xpow_mod<C>(D - 1), 64)};

#define VEPRA_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))
#define VEPRA_VCLMUL_TARGET \
  __attribute__((target("pclmul,sse4.1,avx2,avx512f,avx512bw,avx512vl,vpclmulqdq")))

template <class C, unsigned D>
VEPRA_CLMUL_TARGET inline __m128i fold_const128() noexcept {
  return _mm_set_epi64x(static_cast<long long>(kFold<C, D>.hi), static_cast<long long>(kFold<C, D>.lo));
}

VEPRA_CLMUL_TARGET inline __m128i fold128(__m128i a, __m128i k, __m128i next) noexcept {
  return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x00), _mm_clmulepi64_si128(a, k, 0x11)),
                       next);
}

VEPRA_CLMUL_TARGET inline __m128i load128(const unsigned char *p) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

// Folds the remaining 16-byte blocks into a, then reduces a and runs the
// tail through the byte loop.
template <class C>
VEPRA_CLMUL_TARGET typename C::reg_t finish128(__m128i a, const unsigned char *p, std::size_t n) noexcept {
  const __m128i k128 = fold_const128<C, 128>();
  for (; n >= 16; p += 16, n -= 16) a = fold128(a, k128, load128(p));
  alignas(16) unsigned char lane[16];
  _mm_store_si128(reinterpret_cast<__m128i *>(lane), a);
  return bytewise<C>(bytewise<C>(0, lane, 16), p, n);
}

// Needs n >= 64.
template <class C>
VEPRA_CLMUL_TARGET typename C::reg_t clmul(typename C::reg_t r, const unsigned char *p, std::size_t n) noexcept {
  __m128i a0 = _mm_xor_si128(load128(p), _mm_cvtsi32_si128(static_cast<int>(r)));
  __m128i a1 = load128(p + 16), a2 = load128(p + 32), a3 = load128(p + 48);
  p += 64;
  n -= 64;
  const __m128i k512 = fold_const128<C, 512>();
  for (; n >= 64; p += 64, n -= 64) {
    a0 = fold128(a0, k512, load128(p));
    a1 = fold128(a1, k512, load128(p + 16));
    a2 = fold128(a2, k512, load128(p + 32));
    a3 = fold128(a3, k512, load128(p + 48));
  }
  const __m128i k128 = fold_const128<C, 128>();
  __m128i a = fold128(a0, k128, a1);
  a = fold128(a, k128, a2);
  a = fold128(a, k128, a3);
  return finish128<C>(a, p, n);
}

template <class C, unsigned D>
VEPRA_VCLMUL_TARGET inline __m512i fold_const512() noexcept {
  return _mm512_broadcast_i32x4(fold_const128<C, D>());
}

VEPRA_VCLMUL_TARGET inline __m512i fold512(__m512i a, __m512i k, __m512i next) noexcept {
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(a, k, 0x00), _mm512_clmulepi64_epi128(a, k, 0x11),
                                   next, 0x96);
}

VEPRA_VCLMUL_TARGET inline __m512i load512(const unsigned char *p) noexcept {
  return _mm512_loadu_si512(p);
}

// Needs n >= 512: eight 512-bit accumulators, 512 bytes a step, so that
// the multiplier's latency hides behind independent work.
template <class C>
VEPRA_VCLMUL_TARGET typename C::reg_t vclmul(typename C::reg_t r, const unsigned char *p, std::size_t n) noexcept {
  __m512i z[8];
  for (int i = 0; i < 8; ++i) z[i] = load512(p + 64 * i);
  z[0] = _mm512_xor_si512(z[0], _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(r))));
  p += 512;
  n -= 512;
  const __m512i k4096 = fold_const512<C, 4096>();
  for (; n >= 512; p += 512, n -= 512) {
    for (int i = 0; i < 8; ++i) {
      // Asking for the lines 4 KiB ahead keeps the loads streaming.
      _mm_prefetch(reinterpret_cast<const char *>(p + 4096 + 64 * i), _MM_HINT_T0);
      z[i] = fold512(z[i], k4096, load512(p + 64 * i));
    }
  }
  const __m512i k512 = fold_const512<C, 512>();
  __m512i acc = z[0];
  for (int i = 1; i < 8; ++i) acc = fold512(acc, k512, z[i]);
  for (; n >= 64; p += 64, n -= 64) acc = fold512(acc, k512, load512(p));
  const __m128i k128 = fold_const128<C, 128>();
  __m128i a = _mm512_extracti32x4_epi32(acc, 0);
  a = fold128(a, k128, _mm512_extracti32x4_epi32(acc, 1));
  a = fold128(a, k128, _mm512_extracti32x4_epi32(acc, 2));
  a = fold128(a, k128, _mm512_extracti32x4_epi32(acc, 3));
  return finish128<C>(a, p, n);
}

// Below these lengths the folding's set-up costs more than it saves.
constexpr std::size_t kClmulMin = 64;
constexpr std::size_t kVclmulMin = 1024;

#endif  // VEPRA_CRC_X86

template <class C>
typename C::reg_t update(typename C::reg_t r, const unsigned char *p, std::size_t n) noexcept {
  if (n < 16) return bytewise<C>(r, p, n);
#if defined(VEPRA_CRC_X86)
  if (n >= kVclmulMin && crc_vclmul_available()) return vclmul<C>(r, p, n);
  if (n >= kClmulMin && crc_clmul_available()) return clmul<C>(r, p, n);
#endif
  return slice8<C>(r, p, n);
}

}  // namespace

bool crc_clmul_available() noexcept {
#if defined(VEPRA_CRC_X86)
  return cpu_may_run(cpu_feature::pclmulqdq) && cpu_may_run(cpu_feature::sse42);
#else
  return false;
#endif
}

bool crc_vclmul_available() noexcept {
#if defined(VEPRA_CRC_X86)
  return crc_clmul_available() && cpu_may_run(cpu_feature::vpclmulqdq) &&
         cpu_may_run(cpu_feature::avx512f) && cpu_may_run(cpu_feature::avx512bw) &&
         cpu_may_run(cpu_feature::avx512vl);
#else
  return false;
#endif
}

std::uint32_t crc32_bytewise(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept {
  return bytewise<Crc32>(reg, p, n);
}
std::uint16_t crc16_bytewise(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept {
  return bytewise<Crc16>(reg, p, n);
}
std::uint32_t crc32_slice8(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept {
  return slice8<Crc32>(reg, p, n);
}
std::uint16_t crc16_slice8(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept {
  return slice8<Crc16>(reg, p, n);
}

// The folding paths take any length; short inputs go to the byte loop.
std::uint32_t crc32_clmul(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept {
#if defined(VEPRA_CRC_X86)
  if (n >= kClmulMin) return clmul<Crc32>(reg, p, n);
#endif
  return bytewise<Crc32>(reg, p, n);
}
std::uint16_t crc16_clmul(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept {
#if defined(VEPRA_CRC_X86)
  if (n >= kClmulMin) return clmul<Crc16>(reg, p, n);
#endif
  return bytewise<Crc16>(reg, p, n);
}
std::uint32_t crc32_vclmul(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept {
#if defined(VEPRA_CRC_X86)
  if (n >= 512) return vclmul<Crc32>(reg, p, n);
#endif
  return bytewise<Crc32>(reg, p, n);
}
std::uint16_t crc16_vclmul(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept {
#if defined(VEPRA_CRC_X86)
  if (n >= 512) return vclmul<Crc16>(reg, p, n);
#endif
  return bytewise<Crc16>(reg, p, n);
}

}  // namespace vepra::detail

extern "C" {

uint16_t vepra_util_crc16(uint16_t crc, const void *buf, size_t length) noexcept {
  if (buf == nullptr) return 0;
  return vepra::detail::update<vepra::detail::Crc16>(crc, static_cast<const unsigned char *>(buf), length);
}

uint32_t vepra_util_crc32(uint32_t crc, const void *buf, size_t length) noexcept {
  if (buf == nullptr) return 0;
  return ~vepra::detail::update<vepra::detail::Crc32>(~crc, static_cast<const unsigned char *>(buf), length);
}

}  // extern "C"
