// Bit arrays against std::vector<bool> (every other round on the portable
// counting path), then null arrays and failing allocations.
#include <bit>
#include <cstdio>

#include "containers/container_ids.hpp"
#include "sys/cpu_dispatch.hpp"
#include "vepra_bitarr.h"
#include "vepra_util.h"

namespace {

using namespace vepra_test;
using Bits = std::vector<bool>;

void set_bit(vepra_bitarr_t *a, uint64_t i, bool on) {
  const uint64_t mask = uint64_t{1} << (i % 64);
  a->words[i / 64] = on ? a->words[i / 64] | mask : a->words[i / 64] & ~mask;
}

std::string text_of(const Bits &bits, char one = '1', char zero = '0') {
  std::string s;
  for (bool b : bits) s += b ? one : zero;
  return s;
}

// The record matches the model: used and capacity follow the length, and
// every bit past the length is zero up to the capacity.
void expect_matches(const vepra_bitarr_t *a, const Bits &model) {
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->bits, model.size());
  ASSERT_EQ(a->used, (model.size() + 63) / 64);
  EXPECT_EQ(a->capacity, std::max<uint64_t>(8, std::bit_floor(a->capacity)));
  EXPECT_GE(a->capacity, a->used);
  for (uint64_t i = 0; i < a->capacity * 64; ++i) {
    const bool bit = (a->words[i / 64] >> (i % 64)) & 1;
    ASSERT_EQ(bit, i < model.size() && model[i]) << "bit " << i << " of " << model.size();
  }
  const uint64_t set = static_cast<uint64_t>(std::count(model.begin(), model.end(), true));
  EXPECT_EQ(vepra_bitarr_num_bits_set(a), set);
  EXPECT_EQ(vepra_bitarr_num_bits_cleared(a), model.size() - set);
}

class BitarrTest : public LibraryTest {};

TEST_F(BitarrTest, RandomOperationsMatchVectorOfBool) {
  std::mt19937_64 rng(2024);
  auto length = [&] { return rng() % 4 == 0 ? 64 * (rng() % 12) : rng() % 900; };
  // Capacity grows to twice the words in use, rounded down to a power of 2, at least 8.
  auto grown = [](const vepra_bitarr_t *a) {
    return std::max<uint64_t>(8, std::bit_floor(a->used) << 1);
  };
  for (int round = 0; round < 25; ++round) {
    vepra::testing::force_portable_paths(round % 2 == 1);
    vepra_bitarr_t *a = nullptr;
    Bits model(length());
    ASSERT_EQ(vepra_bitarr_create(&a, model.size()), nullptr);
    EXPECT_EQ(a->capacity, grown(a));
    for (int step = 0; step < 60; ++step) {
      const unsigned op = rng() % 9;
      if (op == 0) {  // resize, up or down
        const uint64_t old_capacity = a->capacity;
        model.resize(length());
        ASSERT_EQ(vepra_bitarr_resize(&a, model.size()), nullptr);
        EXPECT_EQ(a->capacity, a->used > old_capacity ? grown(a) : old_capacity);
      } else if (op < 3) {  // scatter bits below the length
        for (int k = 0; k < 40 && !model.empty(); ++k) {
          const uint64_t i = rng() % model.size();
          set_bit(a, i, model[i] = rng() % 2 != 0);
        }
      } else if (op == 3) {
        vepra_bitarr_set_all(a);
        model.assign(model.size(), true);
      } else if (op == 4) {
        vepra_bitarr_clear_all(a);
        model.assign(model.size(), false);
      } else if (op == 5) {
        vepra_bitarr_toggle_all(a);
        model.flip();
      } else if (op < 8) {  // OR or AND with a random other array (null: an empty one), the
                            // result into either operand or a new array
        Bits other_model(rng() % 6 == 0 ? 0 : length()), want;
        vepra_bitarr_t *other = nullptr, *third = nullptr;
        ASSERT_EQ(other_model.empty() ? nullptr : vepra_bitarr_create(&other, other_model.size()),
                  nullptr);
        for (uint64_t i = 0; i < other_model.size(); ++i)
          set_bit(other, i, other_model[i] = rng() % 3 == 0);
        const bool is_or = rng() % 2 == 0;
        for (size_t i = 0; i < std::max(model.size(), other_model.size()); ++i) {
          const bool x = i < model.size() && model[i], y = i < other_model.size() && other_model[i];
          want.push_back(is_or ? (x || y) : (x && y));
        }
        auto combine = is_or ? vepra_bitarr_or : vepra_bitarr_and;
        const unsigned into = static_cast<unsigned>(rng() % 3);
        vepra_bitarr_t **result = into == 0 ? &a : into == 1 ? &other : &third;
        ASSERT_EQ(rng() % 2 == 0 ? combine(other, a, result) : combine(a, other, result), nullptr);
        if (into != 0) std::swap(a, *result);
        model = want;
        vepra_bitarr_free(other);
        vepra_bitarr_free(third);
      } else {  // clone, and the text of the copy through short buffers
        vepra_bitarr_t *copy = a;
        ASSERT_EQ(vepra_bitarr_clone(a, &copy), nullptr);
        EXPECT_EQ(copy == nullptr, model.empty());
        if (copy != nullptr) {
          expect_matches(copy, model);
          const size_t size = rng() % (model.size() + 3);
          std::string buf(size + 1, '#');
          const int one = rng() % 2 ? 'x' : 0x100, zero = rng() % 2 ? '.' : 0;
          EXPECT_EQ(vepra_bitarr_tostr(copy, buf.data(), size, one, zero), model.size());
          // The text cut to the buffer and terminated; nothing written past it.
          const std::string want = text_of(model, one == 'x' ? 'x' : '1', zero == '.' ? '.' : '0');
          std::string text = size == 0 ? "" : want.substr(0, size - 1) + '\0';
          text.resize(size + 1, '#');
          EXPECT_EQ(buf, text);
          vepra_bitarr_free(copy);
        }
      }
      ASSERT_NO_FATAL_FAILURE(expect_matches(a, model));
    }
    char *printed = nullptr;
    size_t printed_size = 0;
    FILE *stream = open_memstream(&printed, &printed_size);
    vepra_bitarr_print(a, stream);
    std::fclose(stream);
    EXPECT_EQ(std::string(printed, printed_size), text_of(model));
    std::free(printed);
    vepra_bitarr_free(a);
  }
  vepra::testing::force_portable_paths(false);
}

// Null arrays are quiet (tostr terminates); each allocation of create, a growing
// resize and a new result fails in turn, a failed resize keeping the array.
TEST_F(BitarrTest, BadInputAndFailedAllocationsKeepTheArray) {
  expect_quiet_with(nullptr, vepra_bitarr_num_bits_cleared, vepra_bitarr_resize);
  char buf[4] = "abc";
  EXPECT_EQ(vepra_bitarr_tostr(nullptr, buf, sizeof buf, 0, 0), 0u);
  EXPECT_STREQ(buf, "");
  auto create_failure = [](uint64_t bytes) {
    return "Error(120012): Cannot create bit array. \nError(120012): Failed to allocate " +
           std::to_string(bytes) + " bytes of memory. ";
  };
  vepra_bitarr_t *made = nullptr;
  EXPECT_EQ(for_each_allocation_failure(
                [&] { return vepra_bitarr_create(&made, 6400); },
                [&](vepra_error_t *e, long n) {  // the record, then its words
                  EXPECT_EQ(take_printed(vepra_error_dup(e)), create_failure(n == 1 ? 32 : 1024));
                }),
            2);
  vepra_bitarr_free(made);

  vepra_bitarr_t *a = nullptr;
  ASSERT_EQ(vepra_bitarr_create(&a, 130), nullptr);
  vepra_bitarr_set_all(a);
  const uint64_t *words = a->words;
  EXPECT_EQ(expect_alloc_failures([&] { return vepra_bitarr_resize(&a, 64 * 9); },
                                  "Error(120013): Cannot resize bit array. \n"
                                  "Error(120013): Failed to reallocate memory for 128 bytes. ",
                                  [&] {
                                    EXPECT_EQ(a->words, words);
                                    expect_matches(a, Bits(130, true));
                                  }),
            1);

  // The largest length asks for 2^59 words: the allocator refuses them.
  EXPECT_EQ(take_printed(vepra_bitarr_resize(&a, UINT64_MAX)),
            "Error(120013): Cannot resize bit array. \n"
            "Error(120013): Failed to reallocate memory for 4611686018427387904 bytes. ");
  EXPECT_EQ(a->bits, 64u * 9);
  vepra_bitarr_t *huge = nullptr;
  EXPECT_EQ(take_printed(vepra_bitarr_create(&huge, UINT64_MAX)),
            create_failure(uint64_t{1} << 62));
  EXPECT_EQ(huge, nullptr);

  vepra_bitarr_t *r = nullptr;
  for_each_allocation_failure([&] { return vepra_bitarr_and(a, a, &r); },
                              [&](vepra_error_t *e, long) {
                                EXPECT_STREQ(e->message, "Cannot resize bit array.");
                                EXPECT_EQ(r, nullptr);
                              });
  EXPECT_EQ(vepra_bitarr_num_bits_set(r), 130u);
  vepra_bitarr_free(r);
  vepra_bitarr_free(a);
}

}  // namespace
