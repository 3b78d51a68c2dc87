// Typed token parsing, checked against a small reference parser written
// from the tokenizer's state table.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_prsd.h"

namespace {

class PrsdTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    vepra_prsd_clear_p(&rec_);
  }
  vepra_prsd_t rec_{};
};

struct Token {
  uint32_t kind;
  long i;
  double d;
  std::string s;
  bool operator==(const Token &o) const {
    return kind == o.kind && (kind != 1 || i == o.i) &&
           (kind != 2 || (d == o.d || (std::isnan(d) && std::isnan(o.d)))) && (kind != 3 || s == o.s);
  }
};

std::ostream &operator<<(std::ostream &os, const Token &t) {
  return os << "{" << t.kind << "," << t.i << "," << t.d << ",'" << t.s << "'}";
}

// Classification by the C library: a whole-string strtol, else strtod.
Token classify(const std::string &text) {
  const char *s = text.c_str();
  char *end = nullptr;
  errno = 0;
  long i = std::strtol(s, &end, 10);
  if (!(errno == ERANGE || (i == 0 && errno != 0)) && end != s && *end == '\0')
    return {1, static_cast<int32_t>(static_cast<uint32_t>(i)), 0, ""};
  errno = 0;
  double d = std::strtod(s, &end);
  if (!(errno == ERANGE || (d == 0 && errno != 0)) && end != s && *end == '\0') return {2, 0, d, ""};
  return {3, 0, 0, text};
}

// The state table, one character at a time with a token buffer.
struct RefParser {
  int state = 0;
  std::vector<Token> tokens;
  void line(const std::string &l, const std::string &seps) {
    std::string buf;
    auto is_sep = [&](char c) { return seps.find(c) != std::string::npos; };
    auto end = [&] {
      if (!buf.empty()) tokens.push_back(classify(buf));
      buf.clear();
      state = 0;
    };
    for (char c : l) {
      if (state == 0 || state == 3) {
        if (is_sep(c)) continue;
        if (c == '\\') {
          state = 3;
        } else if (c == '"') {
          state = 2;
          buf.clear();
        } else {
          buf = std::string(1, c);
          state = 1;
        }
      } else if (state == 1) {
        if (is_sep(c)) end();
        else buf += c;
      } else {
        if (c == '"') end();
        else buf += c;
      }
    }
    if (!buf.empty()) tokens.push_back(classify(buf));
  }
};

std::vector<Token> tokens_of(const vepra_prsd_t &rec) {
  std::vector<Token> out;
  for (int k = 0; k < rec.n_tokens; ++k) {
    const vepra_prsd_token_t &t = rec.tokens[k];
    out.push_back({t.kind, t.kind == 1 ? t.value_int : 0, t.kind == 2 ? t.value_double : 0,
                   t.kind == 3 ? t.value_string : ""});
  }
  return out;
}

TEST_F(PrsdTest, TypesTokens) {
  EXPECT_EQ(vepra_prsd_parse_p(&rec_, "12 3.5 abc", " ", pool_), 0);
  ASSERT_EQ(rec_.n_tokens, 3);
  EXPECT_EQ(rec_.n_integer, 1u);
  EXPECT_EQ(rec_.n_double, 1u);
  EXPECT_EQ(rec_.n_string, 1u);
  EXPECT_EQ(rec_.tokens[0].kind, 1u);
  EXPECT_EQ(rec_.tokens[0].value_int, 12);
  EXPECT_EQ(rec_.tokens[1].kind, 2u);
  EXPECT_EQ(rec_.tokens[1].value_double, 3.5);
  EXPECT_EQ(rec_.tokens[2].kind, 3u);
  EXPECT_STREQ(rec_.tokens[2].value_string, "abc");
  EXPECT_EQ(rec_.state, 1u) << "a line ending in a plain token leaves state 1";
  EXPECT_EQ(vepra_prsd_incomplete(&rec_), 0);

  vepra_prsd_clear_p(&rec_);
  vepra_prsd_parse_p(&rec_, "x \"a b\" 4294967297 1e3 \"\"", " ", pool_);
  std::vector<Token> want = {{3, 0, 0, "x"}, {3, 0, 0, "a b"}, {1, 1, 0, ""}, {2, 0, 1000, ""}};
  EXPECT_EQ(tokens_of(rec_), want) << "quoted blank kept, 32-bit truncation, empty quote dropped";
  EXPECT_EQ(rec_.state, 0u);
}

TEST_F(PrsdTest, BackslashContinuesTheRecord) {
  vepra_prsd_parse_p(&rec_, "abc \\", " ", pool_);
  EXPECT_EQ(vepra_prsd_incomplete(&rec_), 1);
  EXPECT_EQ(rec_.state, 3u);
  vepra_prsd_parse_p(&rec_, "  7", " ", pool_);
  EXPECT_EQ(vepra_prsd_incomplete(&rec_), 0);
  ASSERT_EQ(rec_.n_tokens, 2);
  EXPECT_EQ(rec_.tokens[1].value_int, 7);
  // An open quote runs to the end of the line; the next line goes on in
  // the quoted state with a new token.
  // The line ended inside the plain token 7: a quote at the start of the
  // next line belongs to a new plain token.
  EXPECT_EQ(rec_.state, 1u);
  vepra_prsd_clear_p(&rec_);
  vepra_prsd_parse_p(&rec_, "\"open a", " ", pool_);
  EXPECT_EQ(rec_.state, 2u);
  vepra_prsd_parse_p(&rec_, "b\" 1", " ", pool_);
  std::vector<Token> want = {{3, 0, 0, "open a"}, {3, 0, 0, "b"}, {1, 1, 0, ""}};
  EXPECT_EQ(tokens_of(rec_), want);

  vepra_prsd_clear_p(&rec_);
  EXPECT_EQ(rec_.n_tokens, 0);
  EXPECT_EQ(rec_.tokens, nullptr);
  EXPECT_EQ(vepra_prsd_incomplete(&rec_), 0);
  EXPECT_EQ(vepra_prsd_incomplete(nullptr), 0);
}

TEST_F(PrsdTest, TokenArrayGrowsAndCountsRoomDown) {
  std::string line;
  for (int k = 0; k < 10; ++k) line += std::to_string(k) + " ";
  vepra_prsd_parse_p(&rec_, line.c_str(), " ", pool_);
  EXPECT_EQ(rec_.n_tokens, 10);
  EXPECT_EQ(rec_.room, 0u);
  vepra_prsd_parse_p(&rec_, "10", " ", pool_);
  EXPECT_EQ(rec_.n_tokens, 11);
  EXPECT_EQ(rec_.room, 9u);
  line.clear();
  for (int k = 11; k < 5000; ++k) line += std::to_string(k) + (k % 3 ? "," : ".5,");
  vepra_prsd_parse_p(&rec_, line.c_str(), ",", pool_);
  ASSERT_EQ(rec_.n_tokens, 5000);
  for (int k = 0; k < 5000; ++k) {
    const vepra_prsd_token_t &t = rec_.tokens[k];
    if (k > 10 && k % 3 == 0) {
      ASSERT_EQ(t.kind, 2u) << k;
      ASSERT_EQ(t.value_double, k + 0.5);
    } else {
      ASSERT_EQ(t.kind, 1u) << k;
      ASSERT_EQ(t.value_int, k);
    }
  }
}

TEST_F(PrsdTest, LongTokensAreWhole) {
  std::string big(1 << 20, 'x');
  vepra_prsd_parse_p(&rec_, ("a " + big + " \"" + big + "\"").c_str(), " ", pool_);
  ASSERT_EQ(rec_.n_tokens, 3);
  EXPECT_EQ(rec_.tokens[1].value_string, big);
  EXPECT_EQ(rec_.tokens[2].value_string, big);
  std::string digits(1 << 20, '7');
  vepra_prsd_parse_p(&rec_, digits.c_str(), "", pool_);
  ASSERT_EQ(rec_.n_tokens, 4);
  EXPECT_EQ(rec_.tokens[3].kind, 3u) << "too large even for a double";
}

TEST_F(PrsdTest, MatchesReferenceParser) {
  std::mt19937 rng(17);
  const char alphabet[] = "0123456789.e-+ ,x\"\\";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), len(0, 30), lines(1, 4);
  for (int round = 0; round < 3000; ++round) {
    std::string seps = round % 4 == 0 ? "" : round % 4 == 1 ? " " : " ,";
    vepra_prsd_t rec{};
    RefParser ref;
    for (int n = lines(rng); n > 0; --n) {
      std::string l;
      for (int k = len(rng); k > 0; --k) l += alphabet[ch(rng)];
      ASSERT_EQ(vepra_prsd_parse_p(&rec, l.c_str(), seps.c_str(), pool_), 0);
      ref.line(l, seps);
      ASSERT_EQ(tokens_of(rec), ref.tokens) << "line '" << l << "' seps '" << seps << "'";
      ASSERT_EQ(rec.state, static_cast<uint32_t>(ref.state));
    }
    uint32_t ints = 0, doubles = 0, strings = 0;
    for (const Token &t : ref.tokens) (t.kind == 1 ? ints : t.kind == 2 ? doubles : strings)++;
    EXPECT_EQ(rec.n_integer, ints);
    EXPECT_EQ(rec.n_double, doubles);
    EXPECT_EQ(rec.n_string, strings);
  }
}

}  // namespace
