// String lists and the tokenizer, checked against a reference tokenizer
// written from its state table.
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_strlist.h"

namespace {

using vepra_test::take_printed;

class StrlistTest : public vepra_test::LibraryTest {
 protected:
  vepra_strlist_t *make(const std::vector<std::string> &items) {
    vepra_strlist_t *list = nullptr;
    EXPECT_EQ(vepra_strlist_create(&list, pool_), nullptr);
    for (const std::string &s : items) EXPECT_EQ(vepra_strlist_addlast(list, s.c_str(), pool_), nullptr);
    return list;
  }
};

std::vector<std::string> items(vepra_strlist_t *list) {
  std::vector<std::string> out;
  for (size_t k = 0; k < vepra_strlist_nelts(list); ++k) out.emplace_back(vepra_strlist_getn(list, k));
  return out;
}

using Strings = std::vector<std::string>;

TEST_F(StrlistTest, AddAndRead) {
  vepra_strlist_t *list = make({"b", "c"});
  std::string a = "a";
  ASSERT_EQ(vepra_strlist_addfirst(list, a.c_str(), pool_), nullptr);
  a[0] = 'z';  // the list holds its own copy
  EXPECT_EQ(items(list), (Strings{"a", "b", "c"}));
  EXPECT_EQ(vepra_strlist_getn(list, 3), nullptr);
  EXPECT_EQ(vepra_strlist_is_exists(list, "b"), 1);
  EXPECT_EQ(vepra_strlist_is_exists(list, "B"), 0);
  EXPECT_EQ(vepra_strlist_is_exists(list, nullptr), 0);
  ASSERT_EQ(vepra_strlist_addlast(list, nullptr, pool_), nullptr);
  EXPECT_EQ(vepra_strlist_nelts(list), 4u);
  EXPECT_EQ(vepra_strlist_is_exists(list, ""), 0) << "a null element matches nothing";
  vepra_strlist_clear(list);
  EXPECT_EQ(*list, nullptr);
  EXPECT_EQ(vepra_strlist_nelts(list), 0u);
  EXPECT_EQ(vepra_strlist_nelts(nullptr), 0u);
  EXPECT_EQ(take_printed(vepra_strlist_addlast(list, "x", nullptr)),
            "Error(120051): Unable to append DL object. \nError(120051): DL insertion error: "
            "invalid pointer. ");
  EXPECT_NE(vepra_strlist_create(nullptr, pool_), nullptr);
  vepra_error_clear(vepra_strlist_create(nullptr, pool_));
}

TEST_F(StrlistTest, Copy) {
  vepra_strlist_t *dst = make({"keep", "me"});
  vepra_strlist_t *empty = make({});
  ASSERT_EQ(vepra_strlist_copy(dst, empty, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"keep", "me"})) << "an empty source leaves dst alone";
  vepra_strlist_t *src = make({"x", "y", "z"});
  ASSERT_EQ(vepra_strlist_copy(dst, src, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"x", "y", "z"}));
  EXPECT_NE(vepra_strlist_getn(dst, 0), vepra_strlist_getn(src, 0)) << "copies, not shared";
  ASSERT_EQ(vepra_strlist_copy(dst, dst, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"x", "y", "z"})) << "copying a list onto itself";
  EXPECT_EQ(take_printed(vepra_strlist_copy(dst, src, nullptr)),
            "Error(120051): Cannot copy list of strings. \nError(120051): Unable to append DL "
            "object. \nError(120051): DL insertion error: invalid pointer. ");
  EXPECT_EQ(*dst, nullptr) << "a failed copy leaves dst empty";
}

Strings tokenize(vepra_strlist_t *src, const char *seps, apr_pool_t *pool, std::string *error) {
  vepra_strlist_t *dst = nullptr;
  vepra_strlist_create(&dst, pool);
  vepra_strlist_addlast(dst, "old", pool);
  vepra_error_t *e = vepra_strlist_tokenize(src, dst, seps, pool);
  *error = e != nullptr ? take_printed(e) : "";
  return items(dst);
}

TEST_F(StrlistTest, TokenizeSplitsAndQuotes) {
  std::string err;
  EXPECT_EQ(tokenize(make({"a,b,,c"}), ",", pool_, &err), (Strings{"a", "b", "c"}));
  EXPECT_EQ(err, "");
  EXPECT_EQ(tokenize(make({"x \"y z\""}), " ", pool_, &err), (Strings{"x", "y z"}));
  EXPECT_EQ(tokenize(make({"a\"b"}), " ", pool_, &err), (Strings{"a\"b"}));
  EXPECT_EQ(tokenize(make({"ab", "cd"}), " ", pool_, &err), (Strings{"abcd"}));
  EXPECT_EQ(tokenize(make({"a \"open", " quote"}), " ", pool_, &err), (Strings{"a", "open quote"}));
  EXPECT_EQ(tokenize(make({"\"\" x \"\""}), " ", pool_, &err), (Strings{"x"}));
  EXPECT_EQ(tokenize(make({"a;b c", "", ";d"}), "; ", pool_, &err), (Strings{"a", "b", "c", "d"}));

  Strings kept = tokenize(make({"a"}), "", pool_, &err);
  EXPECT_EQ(err, "Error(120060): Cannot tokenize string: incorrect number of tokens [0]. ");
  EXPECT_EQ(kept, (Strings{"old"}));
  tokenize(make({"a"}), nullptr, pool_, &err);
  EXPECT_EQ(err, "Error(120060): Cannot tokenize string: incorrect number of tokens [0]. ");
  kept = tokenize(make({}), " ", pool_, &err);
  EXPECT_EQ(err, "Error(120061): Error in strtok: there are no data. ");
  EXPECT_EQ(kept, (Strings{"old"}));

  // Source and destination may be the same list.
  vepra_strlist_t *same = make({"p q", "r"});
  ASSERT_EQ(vepra_strlist_tokenize(same, same, " ", pool_), nullptr);
  EXPECT_EQ(items(same), (Strings{"p", "qr"}));
}

TEST_F(StrlistTest, TokenizeLongTokens) {
  std::string half(1 << 19, 'x');
  std::string err;
  Strings got = tokenize(make({"a " + half, half + " \"" + half, half + "\" b"}), " ", pool_, &err);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1], half + half) << "a 1 MiB token across two elements";
  EXPECT_EQ(got[2], half + half);
  EXPECT_EQ(got[3], "b");
}

TEST_F(StrlistTest, TokenizeReportsAllocationFailure) {
  vepra_strlist_t *src = make({std::string(3000, 'k') + " short"});
  vepra_strlist_t *dst = nullptr;
  vepra_strlist_create(&dst, pool_);
  long made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_strlist_tokenize(src, dst, " ", pool_); },
      [&](vepra_error_t *e, long) {
        EXPECT_TRUE(e->code == VEPRA_E_ALLOC || e->code == VEPRA_E_REALLOC) << e->code;
        EXPECT_STREQ(e->message, "Failed to tokenize strings.");
      });
  EXPECT_GE(made, 2) << "the token buffer had to grow";
  EXPECT_EQ(items(dst), (Strings{std::string(3000, 'k'), "short"}));
}

// The state table of the tokenizer, one character at a time.
Strings reference_tokens(const Strings &src, const std::string &seps) {
  Strings out;
  std::string buf;
  enum { kBetween, kPlain, kQuoted } state = kBetween;
  auto end = [&] {
    if (!buf.empty()) out.push_back(buf);
    buf.clear();
    state = kBetween;
  };
  for (const std::string &s : src) {
    for (char c : s) {
      bool sep = seps.find(c) != std::string::npos;
      if (state == kBetween) {
        if (sep) continue;
        if (c == '"') state = kQuoted;
        else {
          buf = c;
          state = kPlain;
        }
      } else if (state == kPlain) {
        if (sep) end();
        else buf += c;
      } else if (c == '"') {
        end();
      } else {
        buf += c;
      }
    }
  }
  end();
  return out;
}

TEST_F(StrlistTest, TokenizeMatchesReference) {
  std::mt19937 rng(23);
  const char alphabet[] = "ab ,;\"";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), len(0, 12), count(1, 4);
  for (int round = 0; round < 5000; ++round) {
    Strings src;
    for (int n = count(rng); n > 0; --n) {
      std::string s;
      for (int k = len(rng); k > 0; --k) s += alphabet[ch(rng)];
      src.push_back(s);
    }
    std::string seps = round % 3 == 0 ? " " : round % 3 == 1 ? " ," : ";\"";
    std::string err;
    ASSERT_EQ(tokenize(make(src), seps.c_str(), pool_, &err), reference_tokens(src, seps))
        << "seps '" << seps << "' first '" << src[0] << "'";
    ASSERT_EQ(err, "");
  }
}

}  // namespace
