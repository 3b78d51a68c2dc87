// SHA-1 against OpenSSL, on the portable path and on the SHA-instruction
// path where the processor has it.
#include <openssl/sha.h>

#include <array>
#include <random>
#include <vector>

#include "support/test_support.hpp"
#include "sys/cpu_dispatch.hpp"
#include "sys/sha1_internal.hpp"
#include "vepra_sha1.h"

namespace {

// The fixture initialises the library, which learns there which register
// state the operating system saves: without it the SHA instructions never run.
class Sha1Test : public vepra_test::LibraryTest {};

// Messages at the padding boundaries (the length field fits after 55 bytes
// of a block, not after 56), a million bytes, and random ones, hashed at
// once and fed in random pieces, on both paths. final starts the context
// anew, so it is reused throughout.
TEST_F(Sha1Test, EveryPathMatchesOpenSslInRandomPieces) {
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

}  // namespace
