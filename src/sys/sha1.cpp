// SHA-1: a portable compression function and one with the SHA instructions,
// behind a streaming context that buffers the incomplete block.
#include <algorithm>
#include <bit>
#include <cstring>

#include "sys/cpu_dispatch.hpp"
#include "sys/sha1_internal.hpp"
#include "vepra_sha1.h"

#if defined(__x86_64__)
#include <immintrin.h>
#define VEPRA_SHA1_X86 1
#endif

namespace vepra::detail {
namespace {

std::uint32_t load_be32(const unsigned char *p) noexcept {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

void store_be32(unsigned char *p, std::uint32_t v) noexcept {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

#if defined(VEPRA_SHA1_X86)
#define VEPRA_SHA_TARGET __attribute__((target("sha,sse4.1")))

// Four rounds a step. The message words of step g (W[4g..4g+3], first word
// in the top lane) follow from the four steps before it; E of step g comes
// from A of the step before the previous one (sha1nexte).
template <int G>
VEPRA_SHA_TARGET inline void sha_steps(__m128i &abcd, __m128i &prev, __m128i (&w)[4], __m128i e0) noexcept {
  if constexpr (G < 20) {
    if constexpr (G >= 4) {
      w[G % 4] = _mm_sha1msg2_epu32(_mm_xor_si128(_mm_sha1msg1_epu32(w[G % 4], w[(G + 1) % 4]), w[(G + 2) % 4]),
                                    w[(G + 3) % 4]);
    }
    const __m128i e = G == 0 ? _mm_add_epi32(e0, w[0]) : _mm_sha1nexte_epu32(prev, w[G % 4]);
    prev = abcd;
    abcd = _mm_sha1rnds4_epu32(abcd, e, G / 5);
    sha_steps<G + 1>(abcd, prev, w, e0);
  }
}
#endif

}  // namespace

void sha1_blocks_portable(std::uint32_t state[5], const unsigned char *p, std::size_t blocks) noexcept {
  for (; blocks > 0; --blocks, p += 64) {
    // The message schedule kept as a ring of the last 16 words.
    std::uint32_t w[16];
    for (int t = 0; t < 16; ++t) w[t] = load_be32(p + 4 * t);
    std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    const auto rounds = [&](int first, std::uint32_t k, auto f) {
      for (int t = first; t < first + 20; ++t) {
        if (t >= 16) {
          w[t & 15] = std::rotl(w[(t - 3) & 15] ^ w[(t - 8) & 15] ^ w[(t - 14) & 15] ^ w[t & 15], 1);
        }
        const std::uint32_t tmp = std::rotl(a, 5) + f(b, c, d) + e + k + w[t & 15];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = tmp;
      }
    };
    rounds(0, 0x5A827999u, [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return z ^ (x & (y ^ z)); });
    rounds(20, 0x6ED9EBA1u, [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; });
    rounds(40, 0x8F1BBCDCu,
           [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (z & (x | y)); });
    rounds(60, 0xCA62C1D6u, [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; });
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
  }
}

bool sha1_shani_available() noexcept {
#if defined(VEPRA_SHA1_X86)
  return cpu_may_run(cpu_feature::sha) && cpu_may_run(cpu_feature::sse42);
#else
  return false;
#endif
}

#if defined(VEPRA_SHA1_X86)
VEPRA_SHA_TARGET void sha1_blocks_shani(std::uint32_t state[5], const unsigned char *p,
                                        std::size_t blocks) noexcept {
  // Reverses the 16 bytes: big-endian words, the first one in the top lane.
  const __m128i reverse = _mm_set_epi64x(0x0001020304050607ll, 0x08090a0b0c0d0e0fll);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(state)), 0x1B);
  __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
  for (; blocks > 0; --blocks, p += 64) {
    const __m128i abcd_in = abcd, e_in = e0;
    __m128i w[4];
    for (int i = 0; i < 4; ++i)
      w[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * i)), reverse);
    __m128i prev = abcd;
    sha_steps<0>(abcd, prev, w, e0);
    e0 = _mm_sha1nexte_epu32(prev, e_in);
    abcd = _mm_add_epi32(abcd, abcd_in);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i *>(state), _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<std::uint32_t>(_mm_extract_epi32(e0, 3));
}
#else
void sha1_blocks_shani(std::uint32_t state[5], const unsigned char *p, std::size_t blocks) noexcept {
  sha1_blocks_portable(state, p, blocks);
}
#endif

namespace {

void sha1_blocks(std::uint32_t state[5], const unsigned char *p, std::size_t blocks) noexcept {
  if (sha1_shani_available())
    sha1_blocks_shani(state, p, blocks);
  else
    sha1_blocks_portable(state, p, blocks);
}

}  // namespace
}  // namespace vepra::detail

extern "C" {

void vepra_sha1_init(vepra_sha1_ctx_t *ctx) noexcept {
  if (ctx == nullptr) return;
  *ctx = vepra_sha1_ctx_t{{0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u}, 0, 0, {}};
}

void vepra_sha1_update(vepra_sha1_ctx_t *ctx, const void *data, size_t length) noexcept {
  if (ctx == nullptr || data == nullptr || length == 0) return;
  auto p = static_cast<const unsigned char *>(data);
  ctx->length += length;
  if (ctx->used > 0) {
    const size_t take = std::min<size_t>(length, 64 - ctx->used);
    std::memcpy(ctx->block + ctx->used, p, take);
    ctx->used += static_cast<uint32_t>(take);
    p += take;
    length -= take;
    if (ctx->used < 64) return;
    vepra::detail::sha1_blocks(ctx->state, ctx->block, 1);
    ctx->used = 0;
  }
  if (length >= 64) {
    vepra::detail::sha1_blocks(ctx->state, p, length / 64);
    p += length & ~size_t{63};
    length &= 63;
  }
  std::memcpy(ctx->block, p, length);
  ctx->used = static_cast<uint32_t>(length);
}

void vepra_sha1_final(vepra_sha1_ctx_t *ctx, unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH]) noexcept {
  if (ctx == nullptr || digest == nullptr) return;
  const uint64_t bits = ctx->length * 8;
  unsigned char pad[72] = {0x80};
  const size_t pad_len = (ctx->used < 56 ? 56 : 120) - ctx->used;
  for (int i = 0; i < 8; ++i) pad[pad_len + static_cast<size_t>(i)] = static_cast<unsigned char>(bits >> (56 - 8 * i));
  vepra_sha1_update(ctx, pad, pad_len + 8);
  for (int i = 0; i < 5; ++i) vepra::detail::store_be32(digest + 4 * i, ctx->state[i]);
  vepra_sha1_init(ctx);
}

void vepra_sha1(const void *data, size_t length, unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH]) noexcept {
  if (digest == nullptr) return;
  vepra_sha1_ctx_t ctx;
  vepra_sha1_init(&ctx);
  vepra_sha1_update(&ctx, data, length);
  vepra_sha1_final(&ctx, digest);
}

}  // extern "C"
