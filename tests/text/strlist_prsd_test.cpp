// String lists and their tokenizer, and the typed token parser, checked
// against one reference tokenizer and the C library's conversions.
#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "support/test_support.hpp"
#include "vepra_prsd.h"
#include "vepra_strlist.h"

namespace {

using vepra_test::take_printed;
using Strings = std::vector<std::string>;

// While set, the library's pool copies of text fail as in an exhausted pool.
bool g_pool_exhausted = false;

}  // namespace

// The test program's definition takes the place of APR's for the library.
extern "C" char *apr_pstrmemdup(apr_pool_t *pool, const char *s, apr_size_t n) {
  using Copy = char *(*)(apr_pool_t *, const char *, apr_size_t);
  static const auto real = reinterpret_cast<Copy>(dlsym(RTLD_NEXT, "apr_pstrmemdup"));
  return g_pool_exhausted ? nullptr : real(pool, s, n);
}

namespace {

// Reference tokenizer, one character at a time. With continuation set, a
// backslash between tokens is dropped and leaves the continued state.
struct TokenizerModel {
  std::string seps;
  bool continuation = false;
  int state = 0;  // 0 between, 1 plain, 2 quoted, 3 continued
  std::string buf{};
  Strings tokens{};

  void feed(const std::string &text) {
    for (char c : text) {
      bool sep = seps.find(c) != std::string::npos;
      if (state == 0 || state == 3) {
        if (sep) continue;
        state = continuation && c == '\\' ? 3 : c == '"' ? 2 : 1;
        if (state == 1) buf = c;
      } else if (state == 1 ? sep : c == '"') {
        flush();
        state = 0;
      } else {
        buf += c;
      }
    }
  }
  // Stores the pending token, if any; the state stays as it is.
  void flush() {
    if (!buf.empty()) tokens.push_back(buf);
    buf.clear();
  }
};

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
  static Strings items(vepra_strlist_t *list) {
    Strings out;
    for (size_t k = 0; k < vepra_strlist_nelts(list); ++k)
      out.emplace_back(vepra_strlist_getn(list, k));
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

  vepra_strlist_t *dst = make({"keep", "me"}), *src = make({"x", "y", "z"});
  ASSERT_EQ(vepra_strlist_copy(dst, make({}), pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"keep", "me"})) << "an empty source leaves dst alone";
  ASSERT_EQ(vepra_strlist_copy(dst, src, pool_), nullptr);
  ASSERT_EQ(vepra_strlist_copy(dst, dst, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"x", "y", "z"})) << "copied, also onto itself";
  EXPECT_NE(vepra_strlist_getn(dst, 0), vepra_strlist_getn(src, 0)) << "copies, not shared";
  EXPECT_EQ(take_printed(vepra_strlist_copy(dst, src, nullptr)),
            "Error(120051): Cannot copy list of strings. \nError(120051): Unable to append DL "
            "object. \nError(120051): DL insertion error: invalid pointer. ");
  EXPECT_EQ(*dst, nullptr) << "a failed copy leaves dst empty";
  vepra_strlist_clear(list);
  EXPECT_EQ(vepra_strlist_nelts(list) + vepra_strlist_nelts(nullptr), 0u);
  EXPECT_EQ(take_printed(vepra_strlist_create(nullptr, pool_)),
            "Error(120051): DL insertion error: invalid pointer. ");
}

// Tokens of 1 MiB across elements, the token buffer's growth failing at
// each step, and separator and data errors. Short tokens, quotes and
// elements that run into each other are the model test's.
TEST_F(StrlistTest, TokenizeLongTokensAndErrors) {
  const std::string half(1 << 19, 'x');
  const std::string none =
      "Error(120060): Cannot tokenize string: incorrect number of tokens [0]. ";
  // Elements, separators, and the list afterwards with the error printed.
  const std::tuple<Strings, const char *, Strings> cases[] = {
      {{"a " + half, half + " \"" + half, half + "\" b"},
       " ",
       {"a", half + half, half + half, "b"}},
      {{"a"}, "", {"old", none}},
      {{"a"}, nullptr, {"old", none}},
      {{}, " ", {"old", "Error(120061): Error in strtok: there are no data. "}},
  };
  for (const auto &[src, seps, want] : cases)
    EXPECT_EQ(tokenize(src, seps), want) << testing::PrintToString(src).substr(0, 30);
  // Source and destination may be the same list.
  vepra_strlist_t *same = make({"p q", "r"});
  ASSERT_EQ(vepra_strlist_tokenize(same, same, " ", pool_), nullptr);
  EXPECT_EQ(items(same), (Strings{"p", "qr"}));

  vepra_strlist_t *src = make({std::string(3000, 'k') + " short"}), *dst = make({});
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

class PrsdTest : public vepra_test::LibraryTest {};

std::string num(double d) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", d);
  return text;
}

// A token as the C library reads it: a whole-string strtol (low 32 bits
// kept), else strtod, else a string; as text, its kind ('i', 'd' or 's')
// followed by its value.
std::string classify(const std::string &text) {
  const char *s = text.c_str();
  char *end = nullptr;
  errno = 0;
  long i = std::strtol(s, &end, 10);
  if (errno == 0 && end != s && *end == '\0') return "i" + std::to_string(static_cast<int32_t>(i));
  errno = 0;
  double d = std::strtod(s, &end);
  if (errno == 0 && end != s && *end == '\0') return "d" + num(d);
  return "s" + text;
}

// The tokens of rec as text; the counters must agree with their kinds.
Strings tokens_of(const vepra_prsd_t &rec) {
  Strings out;
  uint32_t n[4] = {};
  for (const vepra_prsd_token_t &t : std::vector(rec.tokens, rec.tokens + rec.n_tokens)) {
    out.push_back(t.kind == VEPRA_PRSD_INTEGER  ? "i" + std::to_string(t.value_int)
                  : t.kind == VEPRA_PRSD_DOUBLE ? "d" + num(t.value_double)
                  : t.kind == VEPRA_PRSD_STRING ? "s" + std::string(t.value_string)
                                                : "?");
    ++n[t.kind & 3];
  }
  EXPECT_EQ(std::vector({rec.n_integer, rec.n_double, rec.n_string}),
            std::vector({n[1], n[2], n[3]}));
  return out;
}

// The token array's growth, the arguments it refuses, and a long token,
// typed from its pool copy, in an exhausted pool. Typing, quotes and
// continued lines are the model test's.
TEST_F(PrsdTest, GrowsAndFailsCleanly) {
  // Eleven tokens: the array has grown once and counts its free entries down.
  vepra_prsd_t rec{};
  vepra_prsd_parse_p(&rec, "0 1 2 3 4 5 6 7 8 9 10 \\", " ", pool_);
  EXPECT_EQ(rec.room, 9u);
  EXPECT_EQ(tokens_of(rec).back(), "i10");
  vepra_prsd_clear_p(&rec);
  EXPECT_EQ(rec.n_tokens + rec.state + (rec.tokens != nullptr), 0u);
  EXPECT_EQ(vepra_prsd_incomplete(nullptr), 0);
  vepra_prsd_parse_p(&rec, nullptr, " ", pool_);
  vepra_prsd_parse_p(&rec, "1", " ", nullptr);
  vepra_prsd_parse_p(nullptr, "1", " ", pool_);
  EXPECT_EQ(rec.n_tokens, 0) << "a null argument does nothing";
  // A record holding INT32_MAX tokens takes no more: the parse fails.
  vepra_prsd_token_t last{};
  vepra_prsd_t full{};
  full.tokens = &last, full.n_tokens = INT32_MAX;
  EXPECT_EQ(vepra_prsd_parse_p(&full, "1", " ", pool_), -1);
  EXPECT_EQ(std::pair(full.n_tokens, full.room), std::pair(INT32_MAX, 0u));
  // The failed copy fails the parse and drops that token only.
  const std::string line = std::string(80, '7') + " 1";
  g_pool_exhausted = true;
  const int failed = vepra_prsd_parse_p(&rec, line.c_str(), " ", pool_);
  g_pool_exhausted = false;
  EXPECT_EQ(failed, -1);
  EXPECT_EQ(tokens_of(rec), Strings{"i1"});
}

// Random lines against the model, typed as the C library reads them, with
// the state after each line. Every eighth round has lines of up to 100
// bytes, so that tokens cross 64 bytes, where the parser switches from a
// stack copy to a pool copy.
TEST_F(PrsdTest, MatchesModel) {
  std::mt19937 rng(17);
  const char alphabet[] = "0123456789.e-+ ,x\"\\";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), lines(1, 4);
  for (int round = 0; round < 3000; ++round) {
    TokenizerModel model{round % 4 == 0 ? "" : round % 4 == 1 ? " " : " ,", true};
    vepra_prsd_t rec;
    vepra_prsd_clear_p(&rec);
    std::string text;
    for (int n = lines(rng); n > 0; --n) {
      std::string l;
      for (int k = rng() % (round % 8 == 0 ? 101 : 31); k > 0; --k) l += alphabet[ch(rng)];
      text += l + "|";
      model.feed(l);
      model.flush();  // a token is always a run of one line
      ASSERT_EQ(vepra_prsd_parse_p(&rec, l.c_str(), model.seps.c_str(), pool_), 0);
      ASSERT_EQ(rec.state, static_cast<uint32_t>(model.state)) << text;
      ASSERT_EQ(vepra_prsd_incomplete(&rec), model.state == VEPRA_PRSD_CONTINUED);
    }
    Strings want;
    for (const std::string &t : model.tokens) want.push_back(classify(t));
    ASSERT_EQ(tokens_of(rec), want) << "seps '" << model.seps << "' lines " << text;
  }
}

}  // namespace
