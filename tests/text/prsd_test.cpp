// Typed token parsing, checked against the tokenizer model and the C
// library's conversions.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "support/test_support.hpp"
#include "text/tokenizer_model.hpp"
#include "vepra_prsd.h"

namespace {

class PrsdTest : public vepra_test::LibraryTest {};

using Tokens = std::vector<std::string>;

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
Tokens tokens_of(const vepra_prsd_t &rec) {
  Tokens out;
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

// Parses the lines into a cleared record and checks the state after each
// line (one digit per line).
Tokens parse(const Tokens &lines, const char *seps, const std::string &states, apr_pool_t *pool) {
  vepra_prsd_t rec;
  vepra_prsd_clear_p(&rec);
  std::string got;
  for (const std::string &l : lines) {
    EXPECT_EQ(vepra_prsd_parse_p(&rec, l.c_str(), seps, pool), 0);
    EXPECT_EQ(vepra_prsd_incomplete(&rec), rec.state == VEPRA_PRSD_CONTINUED);
    got += std::to_string(rec.state);
  }
  EXPECT_EQ(got, states);
  return tokens_of(rec);
}

TEST_F(PrsdTest, TypesTokensAndCarriesStateOver) {
  const struct {
    Tokens lines, want;
    std::string states;
  } cases[] = {
      {{"12 3.5 abc"}, {"i12", "d3.5", "sabc"}, "1"},
      // quoted blank kept, 32-bit truncation, empty quote dropped
      {{"x \"a b\" 4294967297 1e3 \"\""}, {"sx", "sa b", "i1", "d1000"}, "0"},
      {{"abc \\", "  7"}, {"sabc", "i7"}, "31"},
      // an open quote runs to the end of the line and goes on in the next
      {{"\"open a", "b\" 1"}, {"sopen a", "sb", "i1"}, "21"},
  };
  for (const auto &c : cases) EXPECT_EQ(parse(c.lines, " ", c.states, pool_), c.want) << c.lines[0];

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
}

// Tokens of up to 1 MiB, and of every length around 64 bytes, where
// the parser switches from a stack copy to a pool copy.
TEST_F(PrsdTest, LongTokensAreWhole) {
  std::string big(1 << 20, 'x'), digits(1 << 20, '7'), line = "\"" + big + "\" ";
  Tokens want{"s" + big};
  for (size_t n = 60; n < 70; ++n) {
    line += std::string(n, 'y') + " " + std::string(n, '7') + " ";
    want.push_back("s" + std::string(n, 'y'));
    want.push_back(classify(std::string(n, '7')));
  }
  want.push_back("s" + digits);  // too large even for a double
  EXPECT_EQ(parse({line, digits}, " ", "01", pool_), want);
}

TEST_F(PrsdTest, MatchesModel) {
  std::mt19937 rng(17);
  const char alphabet[] = "0123456789.e-+ ,x\"\\";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), len(0, 30), lines(1, 4);
  for (int round = 0; round < 3000; ++round) {
    TokenizerModel model{round % 4 == 0 ? "" : round % 4 == 1 ? " " : " ,", true};
    Tokens text(static_cast<size_t>(lines(rng)));
    std::string states;
    for (std::string &l : text) {
      for (int k = len(rng); k > 0; --k) l += alphabet[ch(rng)];
      model.feed(l);
      model.flush();  // a token is always a run of one line
      states += std::to_string(model.state);
    }
    Tokens want;
    for (const std::string &t : model.tokens) want.push_back(classify(t));
    ASSERT_EQ(parse(text, model.seps.c_str(), states, pool_), want)
        << "seps '" << model.seps << "' lines " << testing::PrintToString(text);
  }
}

}  // namespace
