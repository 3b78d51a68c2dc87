// Error chains through tpl images and back, the chain checksum, and images
// that are truncated, corrupt or hostile.
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_util.h"

using vepra_test::Chain;
using vepra_test::printed_lines;

namespace {

class ErrorSerializeTest : public vepra_test::LibraryTest {};

std::vector<unsigned char> image_of(const vepra_error_t *chain) {
  void *buf = nullptr;
  size_t len = 0;
  vepra_error_serialize(chain, &buf, &len);
  EXPECT_NE(buf, nullptr);
  std::vector<unsigned char> image(static_cast<unsigned char *>(buf),
                                   static_cast<unsigned char *>(buf) + len);
  std::free(buf);
  return image;
}

Chain restore(const std::vector<unsigned char> &image) {
  vepra_error_t *out = VepraDLlistStopWalking;
  EXPECT_EQ(vepra_error_deserialize(&out, image.data(), image.size()), &out);
  return Chain(out);
}

std::string text(const char *s) { return s == nullptr ? "<null>" : s; }

// 1 to 50 records: any type, built-in, registered or no code, texts null,
// empty, long or of any byte but 0, with or without a location.
Chain random_chain(std::mt19937 &rng, int registered) {
  const auto random_text = [&rng] {
    std::string s(rng() % 3 == 0 ? rng() % 3000 : rng() % 20, 'a');
    for (auto &c : s) c = static_cast<char>(1 + rng() % 255);
    return s;
  };
  vepra_error_t *chain = nullptr;
  for (int i = 0, n = 1 + static_cast<int>(rng() % 50); i < n; ++i) {
    const int codes[] = {0, 1, VEPRA_E_DL_INSERT, registered, static_cast<int>(rng())};
    const std::string msg = random_text(), file = "dir/" + random_text(), fn = random_text();
    const bool located = rng() % 2 == 0;
    chain = vepra_error_create_i(static_cast<int>(rng() % 6), codes[rng() % 5],
                                 located ? static_cast<int>(rng()) : 0,
                                 located ? file.c_str() : nullptr, located ? fn.c_str() : nullptr,
                                 chain, rng() % 3 == 0 ? nullptr : msg.c_str());
  }
  return Chain(chain);
}

// Every field of every record, null texts included, comes back as it was.
TEST_F(ErrorSerializeTest, RandomChainsSurviveTheTripFieldByField) {
  std::mt19937 rng(42);
  int registered = 0;
  ASSERT_EQ(vepra_error_register(&registered, "registered type"), nullptr);
  for (int round = 0; round < 200; ++round) {
    Chain chain = random_chain(rng, registered);
    Chain back = restore(image_of(chain.get()));
    const vepra_error_t *a = chain.get(), *b = back.get();
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
      ASSERT_EQ(a->type, b->type);
      ASSERT_EQ(a->code, b->code);
      ASSERT_EQ(a->line, b->line);
      ASSERT_EQ(text(a->message), text(b->message));
      ASSERT_EQ(text(a->file), text(b->file));
      ASSERT_EQ(text(a->function), text(b->function));
      ASSERT_EQ(b->pool, back->pool);
    }
    ASSERT_TRUE(a == nullptr && b == nullptr) << "lengths differ";
    ASSERT_EQ(vepra_error_crc16(chain.get()), vepra_error_crc16(back.get()));
  }
}

// The checksum runs over each record's integers and texts, head first,
// with the file's directory part left out.
TEST_F(ErrorSerializeTest, ChecksumCoversTheStatedBytesHeadFirst) {
  Chain chain(vepra_error_create_i(3, 7, 9, "/x/y.c", "f", nullptr, nullptr));
  chain.reset(vepra_error_create_i(1, 2, 0, nullptr, nullptr, chain.release(), "ab"));
  const int32_t ints[] = {1, 2, 0, 3, 7, 9};
  std::string bytes(reinterpret_cast<const char *>(ints), 12);
  bytes += "ab";
  bytes.append(reinterpret_cast<const char *>(ints + 3), 12);
  bytes += "y.cf";
  EXPECT_EQ(vepra_error_crc16(chain.get()), vepra_util_crc16(0, bytes.data(), bytes.size()));
  EXPECT_EQ(vepra_error_crc16(nullptr), 0u);
}

TEST_F(ErrorSerializeTest, NullChainGivesAnEmptyImageAndNullArgumentsAreSafe) {
  const std::vector<unsigned char> empty = image_of(nullptr);
  EXPECT_EQ(restore(empty), nullptr);
  void *buf = &buf;
  vepra_error_serialize(nullptr, &buf, nullptr);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(vepra_error_deserialize(nullptr, empty.data(), empty.size()), nullptr);
  vepra_error_t *out = VepraDLlistStopWalking;
  EXPECT_EQ(*vepra_error_deserialize(&out, nullptr, 10), nullptr);
}

TEST_F(ErrorSerializeTest, ImagesInTheOtherByteOrderAreRead) {
  std::mt19937 rng(3);
  Chain chain = random_chain(rng, 0);
  std::vector<unsigned char> image = image_of(chain.get());
  // Swap every 32-bit word: the size, the count, and each element's
  // integers and string lengths (a string's length + 1 precedes its bytes).
  size_t at = 8 + sizeof "A(iissis)";
  const auto swap_word = [&image](size_t i) {
    uint32_t v;
    std::memcpy(&v, &image[i], 4);
    const uint32_t swapped = __builtin_bswap32(v);
    std::memcpy(&image[i], &swapped, 4);
    return v;
  };
  image[3] ^= 1;
  swap_word(4);
  const uint32_t count = swap_word(at);
  at += 4;
  for (uint32_t i = 0; i < count; ++i)
    for (char field : std::string("iissis")) {
      const uint32_t v = swap_word(at);
      at += 4 + (field == 's' && v > 0 ? v - 1 : 0);
    }
  ASSERT_EQ(at, image.size());
  Chain back = restore(image);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(vepra_error_crc16(back.get()), vepra_error_crc16(chain.get()));
}

// Cut, overlong, absurd and randomly damaged images never give a partial
// chain or a crash.
TEST_F(ErrorSerializeTest, DamagedImagesGiveNullOrAWholeChain) {
  std::mt19937 rng(5);
  const std::vector<unsigned char> good = image_of(random_chain(rng, 0).get());
  const auto with = [&good](size_t at, const void *bytes, size_t n) {
    std::vector<unsigned char> bad = good;
    bad.resize(std::max(bad.size(), at + n));
    std::memcpy(bad.data() + at, bytes, n);
    return bad;
  };
  for (size_t n = 0; n < good.size(); ++n)
    ASSERT_EQ(
        restore(std::vector<unsigned char>(good.begin(), good.begin() + static_cast<long>(n))),
        nullptr)
        << n;
  EXPECT_EQ(restore(with(good.size(), "", 1)), nullptr);  // a byte too many
  EXPECT_EQ(restore(with(3, "", 1)), nullptr);  // tpl's old string layout, which it misreads
  // Absurd counts and lengths: the total size, the element count and the
  // first string length.
  for (size_t at : {size_t{4}, 8 + sizeof "A(iissis)", 8 + sizeof "A(iissis)" + 12})
    for (uint32_t v : {0xFFFFFFFFu, 0x7FFFFFFFu, 0x10000u})
      EXPECT_EQ(restore(with(at, &v, 4)), nullptr) << at;
  for (int round = 0; round < 2000; ++round) {
    std::vector<unsigned char> bad = good;
    for (int k = 0; k <= round % 4; ++k)
      bad[rng() % bad.size()] = static_cast<unsigned char>(rng());
    Chain back = restore(bad);
    for (const vepra_error_t *e = back.get(); e != nullptr; e = e->next)
      ASSERT_EQ(e->pool, back->pool);
  }
}

}  // namespace
