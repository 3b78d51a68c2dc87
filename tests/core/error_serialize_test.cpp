// Error chains through tpl images and back, the chain checksum, and images
// that are truncated, corrupt or hostile.
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_error.h"
#include "vepra_util.h"

using vepra_test::Chain;
using vepra_test::LibraryTest;
using vepra_test::printed_lines;

namespace {

class ErrorSerializeTest : public LibraryTest {};

struct Image {
  void *buf = nullptr;
  size_t len = 0;
  ~Image() { std::free(buf); }
  const unsigned char *bytes() const { return static_cast<const unsigned char *>(buf); }
};

Chain restore(const void *buf, size_t len) {
  vepra_error_t *out = reinterpret_cast<vepra_error_t *>(1);
  EXPECT_EQ(vepra_error_deserialize(&out, buf, len), &out);
  return Chain(out);
}

std::string text_or(const char *s) { return s == nullptr ? "<null>" : s; }

std::string random_text(std::mt19937 &rng) {
  switch (rng() % 4) {
    case 0: return {};
    case 1: return std::string(rng() % 3000, static_cast<char>('a' + rng() % 26));
    default: {
      std::string s(rng() % 40, ' ');
      for (auto &c : s) c = static_cast<char>(1 + rng() % 255);
      return s;
    }
  }
}

// A random chain of 1 to 50 records: any type, built-in, registered or no
// code, texts null, empty, long or of any byte but 0, with or without a
// location.
vepra_error_t *random_chain(std::mt19937 &rng, const std::vector<int> &registered) {
  vepra_error_t *chain = nullptr;
  const int n = 1 + static_cast<int>(rng() % 50);
  for (int i = 0; i < n; ++i) {
    const int codes[] = {0, 1, VEPRA_E_DL_INSERT, VEPRA_E_TIFF_NOT, registered[rng() % registered.size()],
                         static_cast<int>(rng())};
    const int type = rng() % 8 == 0 ? static_cast<int>(rng()) : static_cast<int>(rng() % 5);
    const std::string msg = random_text(rng), fn = random_text(rng);
    const std::string file = "dir/sub/" + random_text(rng);
    const bool located = rng() % 2 == 0;
    chain = vepra_error_create_i(type, codes[rng() % 6], located ? static_cast<int>(rng()) : 0,
                                 located ? file.c_str() : nullptr, located ? fn.c_str() : nullptr, chain,
                                 rng() % 3 == 0 ? nullptr : msg.c_str());
  }
  return chain;
}

TEST_F(ErrorSerializeTest, RandomChainsSurviveTheTripFieldByField) {
  std::mt19937 rng(42);
  std::vector<int> registered(3);
  for (int &code : registered) ASSERT_EQ(vepra_error_register(&code, "registered type"), nullptr);
  for (int round = 0; round < 200; ++round) {
    Chain chain(random_chain(rng, registered));
    Image image;
    vepra_error_serialize(chain.get(), &image.buf, &image.len);
    ASSERT_NE(image.buf, nullptr);
    Chain back = restore(image.buf, image.len);
    const vepra_error_t *a = chain.get(), *b = back.get();
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
      ASSERT_EQ(a->type, b->type);
      ASSERT_EQ(a->code, b->code);
      ASSERT_EQ(a->line, b->line);
      ASSERT_EQ(text_or(a->message), text_or(b->message));
      ASSERT_EQ(text_or(a->file), text_or(b->file));
      ASSERT_EQ(text_or(a->function), text_or(b->function));
      ASSERT_EQ(b->pool, back->pool);
    }
    ASSERT_EQ(a, nullptr);
    ASSERT_EQ(b, nullptr);
    ASSERT_EQ(vepra_error_crc16(chain.get()), vepra_error_crc16(back.get()));
  }
}

TEST_F(ErrorSerializeTest, RecordWithoutMessagePrintsItsCodeTextAfterTheTrip) {
  Chain chain(vepra_error_quick_wrap_i(0, nullptr, nullptr, vepra_error_create_i(0, VEPRA_E_DL_INSERT, 0, nullptr,
                                                                                 nullptr, nullptr, nullptr),
                                       "Cannot link."));
  Image image;
  vepra_error_serialize(chain.get(), &image.buf, &image.len);
  Chain back = restore(image.buf, image.len);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->next->message, nullptr);
  EXPECT_EQ(printed_lines(back.get()), printed_lines(chain.get()));
  EXPECT_EQ(printed_lines(back.get()).back(), "Error(120051): DL insertion error: invalid pointer. ");
}

TEST_F(ErrorSerializeTest, ChecksumCoversTheStatedBytesHeadFirst) {
  Chain chain(vepra_error_create_i(3, 7, 9, "/x/y.c", "f", nullptr, nullptr));
  chain.reset(vepra_error_create_i(1, 2, 0, nullptr, nullptr, chain.release(), "ab"));
  std::string bytes;
  const auto put = [&bytes](int32_t v) { bytes.append(reinterpret_cast<const char *>(&v), 4); };
  put(1), put(2), put(0), bytes += "ab";
  put(3), put(7), put(9), bytes += "y.cf";
  EXPECT_EQ(vepra_error_crc16(chain.get()), vepra_util_crc16(0, bytes.data(), bytes.size()));
  EXPECT_EQ(vepra_error_crc16(nullptr), 0u);
}

TEST_F(ErrorSerializeTest, NullChainGivesAnEmptyImageAndNullArgumentsAreSafe) {
  Image image;
  vepra_error_serialize(nullptr, &image.buf, &image.len);
  ASSERT_NE(image.buf, nullptr);
  EXPECT_EQ(restore(image.buf, image.len), nullptr);
  void *buf = &image;
  vepra_error_serialize(nullptr, &buf, nullptr);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(vepra_error_deserialize(nullptr, image.buf, image.len), nullptr);
  EXPECT_EQ(restore(nullptr, 10), nullptr);
}

TEST_F(ErrorSerializeTest, DamagedImagesGiveNullOrAWholeChainNeverACrash) {
  std::mt19937 rng(5);
  std::vector<int> registered = {0};
  Chain chain(random_chain(rng, registered));
  Image image;
  vepra_error_serialize(chain.get(), &image.buf, &image.len);
  std::vector<unsigned char> good(image.bytes(), image.bytes() + image.len);

  // Every truncation, and the image with a byte more.
  for (size_t n = 0; n < good.size(); ++n) ASSERT_EQ(restore(good.data(), n), nullptr) << n;
  std::vector<unsigned char> longer = good;
  longer.push_back(0);
  EXPECT_EQ(restore(longer.data(), longer.size()), nullptr);

  // The old string layout (flags without null strings), which tpl cannot
  // read back safely.
  std::vector<unsigned char> old_layout = good;
  old_layout[3] = 0;
  EXPECT_EQ(restore(old_layout.data(), old_layout.size()), nullptr);

  // Counts and lengths pushed to absurd values: the element count sits
  // right after the header, the first string length 8 bytes later.
  const size_t count_at = 8 + sizeof "A(iissis)";
  for (size_t at : {count_at, count_at + 12, size_t{4}}) {
    for (uint32_t v : {0xFFFFFFFFu, 0x7FFFFFFFu, 0x10000u}) {
      std::vector<unsigned char> bad = good;
      std::memcpy(bad.data() + at, &v, 4);
      EXPECT_EQ(restore(bad.data(), bad.size()), nullptr) << at << " " << v;
    }
  }

  // Random byte changes: whatever comes back is a well-formed chain.
  for (int round = 0; round < 2000; ++round) {
    std::vector<unsigned char> bad = good;
    for (int k = 0; k < 1 + round % 4; ++k) bad[rng() % bad.size()] = static_cast<unsigned char>(rng());
    Chain back = restore(bad.data(), bad.size());
    for (const vepra_error_t *e = back.get(); e != nullptr; e = e->next) ASSERT_EQ(e->pool, back->pool);
  }
}

}  // namespace
