// String lists and the tokenizer, checked against the tokenizer model.
#include <random>

#include "support/test_support.hpp"
#include "text/tokenizer_model.hpp"
#include "vepra_strlist.h"

namespace {

using vepra_test::take_printed;
using Strings = std::vector<std::string>;

Strings items(vepra_strlist_t *list) {
  Strings out;
  for (size_t k = 0; k < vepra_strlist_nelts(list); ++k)
    out.emplace_back(vepra_strlist_getn(list, k));
  return out;
}

class StrlistTest : public vepra_test::LibraryTest {
 protected:
  vepra_strlist_t *make(const Strings &strings) {
    vepra_strlist_t *list = nullptr;
    EXPECT_EQ(vepra_strlist_create(&list, pool_), nullptr);
    for (const std::string &s : strings)
      EXPECT_EQ(vepra_strlist_addlast(list, s.c_str(), pool_), nullptr);
    return list;
  }
  // The tokens of src in a list that held "old", then the printed error if any.
  Strings tokenize(const Strings &src, const char *seps) {
    vepra_strlist_t *dst = make({"old"});
    std::string error = take_printed(vepra_strlist_tokenize(make(src), dst, seps, pool_));
    Strings out = items(dst);
    if (!error.empty()) out.push_back(error);
    return out;
  }
};

TEST_F(StrlistTest, AddReadAndCopy) {
  vepra_strlist_t *list = make({"b", "c"});
  std::string a = "a";
  ASSERT_EQ(vepra_strlist_addfirst(list, a.c_str(), pool_), nullptr);
  a[0] = 'z';  // the list holds its own copy
  EXPECT_EQ(items(list), (Strings{"a", "b", "c"}));
  EXPECT_EQ(vepra_strlist_getn(list, 3), nullptr);
  ASSERT_EQ(vepra_strlist_addlast(list, nullptr, pool_), nullptr);  // matches nothing
  for (const char *s : {"b", "B", "", static_cast<const char *>(nullptr)})
    EXPECT_EQ(vepra_strlist_is_exists(list, s), s != nullptr && *s == 'b') << (s ? s : "null");

  vepra_strlist_t *dst = make({"keep", "me"});
  ASSERT_EQ(vepra_strlist_copy(dst, make({}), pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"keep", "me"})) << "an empty source leaves dst alone";
  vepra_strlist_t *src = make({"x", "y", "z"});
  ASSERT_EQ(vepra_strlist_copy(dst, src, pool_), nullptr);
  ASSERT_EQ(vepra_strlist_copy(dst, dst, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"x", "y", "z"})) << "copied, also onto itself";
  EXPECT_NE(vepra_strlist_getn(dst, 0), vepra_strlist_getn(src, 0)) << "copies, not shared";
  EXPECT_EQ(take_printed(vepra_strlist_copy(dst, src, nullptr)),
            "Error(120051): Cannot copy list of strings. \nError(120051): Unable to append DL "
            "object. \nError(120051): DL insertion error: invalid pointer. ");
  EXPECT_EQ(*dst, nullptr) << "a failed copy leaves dst empty";

  vepra_strlist_clear(list);
  EXPECT_EQ(*list, nullptr);
  EXPECT_EQ(vepra_strlist_nelts(list) + vepra_strlist_nelts(nullptr), 0u);
  EXPECT_EQ(take_printed(vepra_strlist_create(nullptr, pool_)),
            "Error(120051): DL insertion error: invalid pointer. ");
}

// Tokens of 1 MiB across elements; separator and data errors. Short tokens,
// quotes and elements that run into each other are the model test's.
TEST_F(StrlistTest, TokenizeLongTokensAndErrors) {
  const std::string half(1 << 19, 'x');
  const std::string none =
      "Error(120060): Cannot tokenize string: incorrect number of tokens [0]. ";
  const struct {
    Strings src;
    const char *seps;
    Strings want;
  } cases[] = {
      {{"a " + half, half + " \"" + half, half + "\" b"},
       " ",
       {"a", half + half, half + half, "b"}},
      {{"a"}, "", {"old", none}},
      {{"a"}, nullptr, {"old", none}},
      {{}, " ", {"old", "Error(120061): Error in strtok: there are no data. "}},
  };
  for (const auto &c : cases)
    EXPECT_EQ(tokenize(c.src, c.seps), c.want) << testing::PrintToString(c.src).substr(0, 30);

  // Source and destination may be the same list.
  vepra_strlist_t *same = make({"p q", "r"});
  ASSERT_EQ(vepra_strlist_tokenize(same, same, " ", pool_), nullptr);
  EXPECT_EQ(items(same), (Strings{"p", "qr"}));
}

TEST_F(StrlistTest, TokenizeReportsAllocationFailure) {
  vepra_strlist_t *src = make({std::string(3000, 'k') + " short"});
  vepra_strlist_t *dst = make({});
  long made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_strlist_tokenize(src, dst, " ", pool_); },
      [&](vepra_error_t *e, long) {
        EXPECT_TRUE(e->code == VEPRA_E_ALLOC || e->code == VEPRA_E_REALLOC) << e->code;
        EXPECT_STREQ(e->message, "Failed to tokenize strings.");
      });
  EXPECT_GE(made, 2) << "the token buffer had to grow";
  EXPECT_EQ(items(dst), (Strings{std::string(3000, 'k'), "short"}));
}

TEST_F(StrlistTest, TokenizeMatchesModel) {
  std::mt19937 rng(23);
  const char alphabet[] = "ab ,;\"";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), len(0, 12), count(1, 4);
  for (int round = 0; round < 5000; ++round) {
    Strings src(static_cast<size_t>(count(rng)));
    for (std::string &s : src)
      for (int k = len(rng); k > 0; --k) s += alphabet[ch(rng)];
    std::string seps = round % 3 == 0 ? " " : round % 3 == 1 ? " ," : ";\"";
    TokenizerModel model{seps};
    for (const std::string &s : src) model.feed(s);  // elements run into each other
    model.flush();
    ASSERT_EQ(tokenize(src, seps.c_str()), model.tokens)
        << "seps '" << seps << "' first '" << src[0] << "'";
  }
}

}  // namespace
