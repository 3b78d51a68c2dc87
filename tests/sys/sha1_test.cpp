// SHA-1 against the published vectors and against OpenSSL, on the portable
// path and on the SHA-instruction path where the processor has it.
#include <openssl/sha.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sys/cpu_dispatch.hpp"
#include "sys/sha1_internal.hpp"
#include "vepra_sha1.h"

namespace {

std::string hex(const unsigned char *d, std::size_t n) {
  std::string s;
  char buf[3];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(buf, sizeof buf, "%02x", d[i]);
    s += buf;
  }
  return s;
}

// Runs body once on each path that may run here.
template <class Body>
void on_every_path(Body body) {
  for (bool portable : {true, false}) {
    if (!portable && !vepra::detail::sha1_shani_available()) continue;
    vepra::testing::force_portable_paths(portable);
    SCOPED_TRACE(portable ? "portable" : "SHA instructions");
    body();
    vepra::testing::force_portable_paths(false);
  }
}

TEST(Sha1Test, PublishedVectors) {
  on_every_path([] {
    const struct {
      std::string message;
      const char *digest;
    } vectors[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto &v : vectors) {
      unsigned char d[VEPRA_SHA1_DIGEST_LENGTH];
      vepra_sha1(v.message.data(), v.message.size(), d);
      EXPECT_EQ(hex(d, sizeof d), v.digest) << v.message.size() << " bytes";
    }
  });
}

TEST(Sha1Test, RandomMessagesSplitAtRandomPointsMatchOpenSsl) {
  std::mt19937 rng(7);
  on_every_path([&] {
    for (int round = 0; round < 300; ++round) {
      std::vector<unsigned char> msg(std::uniform_int_distribution<std::size_t>(0, 3000)(rng));
      for (auto &b : msg) b = static_cast<unsigned char>(rng());
      unsigned char want[SHA_DIGEST_LENGTH];
      SHA1(msg.data(), msg.size(), want);

      vepra_sha1_ctx_t ctx;
      vepra_sha1_init(&ctx);
      std::size_t at = 0;
      while (at < msg.size()) {
        const std::size_t piece = std::uniform_int_distribution<std::size_t>(0, std::min<std::size_t>(msg.size() - at, 200))(rng);
        vepra_sha1_update(&ctx, msg.data() + at, piece);
        at += piece;
      }
      unsigned char got[VEPRA_SHA1_DIGEST_LENGTH];
      vepra_sha1_final(&ctx, got);
      ASSERT_EQ(hex(got, sizeof got), hex(want, sizeof want)) << msg.size() << " bytes";
      // The context starts anew after final.
      vepra_sha1_update(&ctx, "abc", 3);
      vepra_sha1_final(&ctx, got);
      ASSERT_EQ(hex(got, sizeof got), "a9993e364706816aba3e25717850c26c9cd0d89d");
    }
  });
}

TEST(Sha1Test, NullArgumentsAreIgnored) {
  vepra_sha1_init(nullptr);
  vepra_sha1_update(nullptr, "x", 1);
  vepra_sha1_final(nullptr, nullptr);
  vepra_sha1("x", 1, nullptr);
  unsigned char d[VEPRA_SHA1_DIGEST_LENGTH];
  vepra_sha1(nullptr, 5, d);
  EXPECT_EQ(hex(d, sizeof d), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

}  // namespace
