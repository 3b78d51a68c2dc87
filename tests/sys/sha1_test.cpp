// SHA-1 against the published vectors and against OpenSSL, on the portable
// path and on the SHA-instruction path where the processor has it.
#include <openssl/sha.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sys/cpu_dispatch.hpp"
#include "sys/sha1_internal.hpp"
#include "vepra_sha1.h"

namespace {

std::string hex(const unsigned char *d) {
  std::string s;
  for (int i = 0; i < 20; ++i)
    s += "0123456789abcdef"[d[i] >> 4], s += "0123456789abcdef"[d[i] & 15];
  return s;
}

class Sha1Test : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!GetParam() && !vepra::detail::sha1_shani_available())
      GTEST_SKIP() << "no SHA instructions";
    vepra::testing::force_portable_paths(GetParam());
  }
  void TearDown() override { vepra::testing::force_portable_paths(false); }
};
INSTANTIATE_TEST_SUITE_P(Paths, Sha1Test, testing::Values(true, false), [](const auto &info) {
  return info.param ? "Portable" : "ShaInstructions";
});

TEST_P(Sha1Test, PublishedVectors) {
  const std::pair<std::string, const char *> vectors[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  unsigned char d[VEPRA_SHA1_DIGEST_LENGTH];
  for (const auto &[message, digest] : vectors) {
    vepra_sha1(message.data(), message.size(), d);
    EXPECT_EQ(hex(d), digest) << message.size() << " bytes";
  }
  vepra_sha1(nullptr, 5, d);  // null data hashes nothing
  EXPECT_EQ(hex(d), vectors[0].second);
}

TEST_P(Sha1Test, RandomMessagesSplitAtRandomPointsMatchOpenSsl) {
  std::mt19937 rng(7);
  vepra_sha1_ctx_t ctx;
  vepra_sha1_init(&ctx);
  for (int round = 0; round < 300; ++round) {
    std::vector<unsigned char> msg(rng() % 3001);
    for (auto &b : msg) b = static_cast<unsigned char>(rng());
    unsigned char want[SHA_DIGEST_LENGTH], got[VEPRA_SHA1_DIGEST_LENGTH];
    SHA1(msg.data(), msg.size(), want);
    // final starts the context anew, so it is reused from round to round.
    for (std::size_t at = 0, piece; at < msg.size(); at += piece) {
      piece = std::min<std::size_t>(msg.size() - at, rng() % 200);
      vepra_sha1_update(&ctx, msg.data() + at, piece);
    }
    vepra_sha1_final(&ctx, got);
    ASSERT_EQ(hex(got), hex(want)) << msg.size() << " bytes";
  }
}

}  // namespace
