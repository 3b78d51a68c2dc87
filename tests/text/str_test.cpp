// Conversions, comparison, trimming, replacement and formatting.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

#include "core/testing.hpp"
#include "support/test_support.hpp"
#include "vepra_str.h"

namespace {

using vepra_test::take_printed;

class StrTest : public vepra_test::LibraryTest {};

// Up to max_len bytes drawn from alphabet.
std::string random_text(std::mt19937 &rng, const std::string &alphabet, int max_len) {
  std::string t(std::uniform_int_distribution<size_t>(0, max_len)(rng), ' ');
  for (char &c : t) c = alphabet[rng() % alphabet.size()];
  return t;
}

// buf was filled with '#' before a bounded write of full into its first
// size bytes: it holds the cut text, terminated, and nothing past size.
void expect_bounded(const std::vector<char> &buf, size_t size, const std::string &full) {
  EXPECT_TRUE(size == 0 || std::string(buf.data()) == full.substr(0, size - 1)) << buf.data();
  for (size_t k = size; k < buf.size(); ++k) ASSERT_EQ(buf[k], '#') << "wrote past " << size;
}

// The text of a malloc'ed result, which it frees.
std::string take(char *p) {
  std::string s = p != nullptr ? p : "<null>";
  std::free(p);
  return s;
}

// The conversion named by kind ('i' integer, 'l' int64, 'd' double): the
// stored value as text, or the printed error (the output untouched).
std::string convert(char kind, const char *s) {
  int i = 5;
  int64_t l = 5;
  double d = 5;
  vepra_error_t *e = kind == 'i'   ? vepra_str_to_integer(s, &i)
                     : kind == 'l' ? vepra_str_to_int64(s, &l)
                                   : vepra_str_to_double(s, &d);
  if (e != nullptr) {
    EXPECT_TRUE(i == 5 && l == 5 && d == 5) << "a failed conversion stored a value";
    return take_printed(e);
  }
  return kind == 'i' ? std::to_string(i) : kind == 'l' ? std::to_string(l) : std::to_string(d);
}

TEST_F(StrTest, ConversionsAcceptWholeNumbersOnly) {
  const std::string range = std::string(": ") + std::strerror(ERANGE) + " ";
  const std::string nines = "99999999999999999999", no = "Error(120062): Cannot convert string '";
  const struct {
    char kind;
    const char *s;
    std::string want;
  } cases[] = {
      {'i', "0", "0"}, {'l', "0", "0"}, {'d', "0", "0.000000"}, {'i', "  -42", "-42"},
      {'d', "+2.5e3", "2500.000000"}, {'l', "-9223372036854775808", "-9223372036854775808"},
      {'i', "4294967297", "1"},  // the low 32 bits of a long
      {'i', "12 ", no + "12 ' to integer "}, {'i', "", no + "' to integer "},
      {'i', nullptr, no + "(null)' to integer "}, {'l', "1.5", no + "1.5' to int64 "},
      {'l', nines.c_str(), no + nines + "' to int64" + range},
      {'i', nines.c_str(), no + nines + "' to integer" + range},
      {'d', "abc", "Error(120063): Cannot convert string 'abc' to double "},
      {'d', "1e99999", "Error(120063): Cannot convert string '1e99999' to double" + range},
  };
  for (const auto &c : cases) EXPECT_EQ(convert(c.kind, c.s), c.want) << c.kind << " " << c.s;
  for (const char *yes : {"+12", "-0", "99999999999999999999999"})
    EXPECT_EQ(vepra_str_is_integer(yes), 1) << yes;
  for (const char *no : {"", "+", " 1", "+-1", "1.0"}) EXPECT_EQ(vepra_str_is_integer(no), 0) << no;
  EXPECT_EQ(vepra_str_is_integer(nullptr), 0);
}

int sign(int v) { return (v > 0) - (v < 0); }

// Against the C library's strcasecmp on printable ASCII, and against
// std::string's find loop for replacement: one random driver for both.
TEST_F(StrTest, StricmpAndReplaceMatchPeers) {
  EXPECT_LT(vepra_str_stricmp("\xC3", "a"), 0) << "bytes from 0x80 are negative chars";
  EXPECT_NE(vepra_str_stricmp("\xC3\xA9", "\xC3\x89"), 0) << "no folding beyond ASCII";
  EXPECT_EQ(vepra_str_stricmp("[", "{") + vepra_str_stricmp(nullptr, ""), '[' - '{');
  std::mt19937 rng(7);
  std::string printable;
  for (char c = 0x20; c < 0x7F; ++c) printable += c;
  for (int round = 0; round < 5000; ++round) {
    std::string a = random_text(rng, printable, 6);
    std::string b = a.substr(0, rng() % (a.size() + 1)) + random_text(rng, printable, 2);
    EXPECT_EQ(sign(vepra_str_stricmp(a.c_str(), b.c_str())), sign(strcasecmp(a.c_str(), b.c_str())))
        << a << " / " << b;
    // Every fourth search string is long, taken from a repeated text; every
    // other one is up to 32 bytes in a text of up to 200, its first byte
    // and last byte frequent.
    std::string s = random_text(rng, "ab ", 40), to = random_text(rng, "ab ", 6), all;
    std::string from = "ab "[rng() % 3] + random_text(rng, "ab ", 3);
    if (round % 4 == 0) {
      s = s + s + s + from;
      from = s.substr(0, std::min<size_t>(s.size(), 33 + rng() % 4));
    } else if (round % 2 == 1) {
      s = random_text(rng, "aab", 200);
      from = s.substr(rng() % (s.size() + 1), 1 + rng() % 32);
      if (from.empty()) from = "ab";
    }
    std::string first = s;
    if (size_t hit = s.find(from); hit != std::string::npos) first.replace(hit, from.size(), to);
    size_t pos = 0;
    for (size_t hit; (hit = s.find(from, pos)) != std::string::npos; pos = hit + from.size())
      all.append(s, pos, hit - pos).append(to);
    SCOPED_TRACE("'" + s + "' '" + from + "' '" + to + "'");
    EXPECT_EQ(take(vepra_str_replace_all(s.c_str(), from.c_str(), to.c_str())), all.append(s, pos));
    EXPECT_EQ(take(vepra_str_replace(s.c_str(), from.c_str(), to.c_str())), first);
  }
}

TEST_F(StrTest, ReplaceEdgesLengthsAndTrim) {
  const char *all[][4] = {
      {"aaa", "a", "aa", "aaaaaa"}, {"abc", "", "x", "abc"}, {"abc", nullptr, "x", "abc"},
      {"abc", "b", nullptr, "abc"}};
  for (auto &c : all) EXPECT_EQ(take(vepra_str_replace_all(c[0], c[1], c[2])), c[3]) << c[0];
  EXPECT_EQ(take(vepra_str_replace("abc", "", "<")), "<abc");
  EXPECT_EQ(vepra_str_replace_all(nullptr, "a", "b"), nullptr);
  // Memory running out gives null, never a cut text.
  const std::string many(5000, 'a');
  int nulls = 0;
  for (long n = 1; n <= 3; ++n) {
    vepra::testing::fail_allocation_at(n);
    char *r = vepra_str_replace_all(many.c_str(), "a", "bb");
    char *one = vepra_str_replace(many.c_str(), "a", "bb");
    vepra::testing::fail_allocation_at(0);
    nulls += (r == nullptr) + (one == nullptr);
    if (r != nullptr) {
      EXPECT_EQ(take(r), std::string(10000, 'b'));
    }
    if (one != nullptr) {
      EXPECT_EQ(take(one), "bb" + many.substr(1));
    }
  }
  EXPECT_GE(nulls, 3);
  char a[] = "a,b,,c", b[] = "a,b,c";
  EXPECT_EQ(vepra_str_replace_char(a, ',', ';'), a);
  EXPECT_STREQ(vepra_str_replace_char(vepra_str_replace_char(a, ';', ';'), '\0', 'x'), "a;b;;c");
  vepra_str_replace_char(b, ',', '\0');  // the search ends at the new terminator
  EXPECT_EQ(std::memcmp(b, "a\0b,c", 6), 0);

  EXPECT_EQ(vepra_str_len("abc") + vepra_str_len(nullptr) + vepra_str_utf8_len(nullptr), 3u);
  EXPECT_EQ(vepra_str_utf8_len("\xC3\xA9" "a\xE6\x97\xA5\xF0\x9F\x98\x80"), 4u);
  for (auto c : {std::pair{"  a b  ", "a b"}, {" \t\n\v\f\r ", ""}, {"x", "x"}, {"", ""}}) {
    std::vector<char> buf(c.first, c.first + std::strlen(c.first) + 1);
    EXPECT_EQ(vepra_str_trim(buf.data()), buf.data());
    EXPECT_STREQ(buf.data(), c.second) << "'" << c.first << "'";
  }
  EXPECT_EQ(vepra_str_trim(nullptr), nullptr);
}

#define FORMAT "%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s"
#define ARGS i, s, static_cast<unsigned>(i), d, ll, 'z', d, s

// The printf family against the C library's snprintf, and strlcpy and
// strlcat as the BSD manual states them, on random texts and sizes.
TEST_F(StrTest, BoundedWritesMatchPeers) {
  std::mt19937 rng(5);
  for (int round = 0; round < 20000; ++round) {
    std::string src = random_text(rng, "abcdefghij", 24), head = random_text(rng, "xyz", 24);
    size_t size = rng() % 31;
    std::vector<char> buf(size + 8, '#');
    int i = static_cast<int>(rng() % 2000000000) - 1000000000;
    double d = static_cast<double>(rng()) / 977.0;
    long long ll = static_cast<long long>(rng()) << 20;
    const char *s = src.c_str();
    char sys[512], *q = nullptr;
    std::string want(sys, static_cast<size_t>(std::snprintf(sys, sizeof sys, FORMAT, ARGS)));
    ASSERT_EQ(vepra_str_snprintf(buf.data(), size, FORMAT, ARGS), static_cast<int>(want.size()));
    expect_bounded(buf, size, want);
    EXPECT_EQ(vepra_str_psprintf(pool_, FORMAT, ARGS), want);
    ASSERT_EQ(vepra_str_asprintf(&q, FORMAT, ARGS), static_cast<int>(want.size()));
    EXPECT_EQ(take(q), want);
    ASSERT_EQ(rpl_asprintf(&q, FORMAT, ARGS), static_cast<int>(want.size()));
    EXPECT_EQ(take(q), want);

    std::fill(buf.begin(), buf.end(), '#');
    ASSERT_EQ(vepra_str_strlcpy(buf.data(), s, size), src.size());
    expect_bounded(buf, size, src);
    // strlcat onto a prefix that may or may not be terminated within size
    if (head.size() < size) {
      std::memcpy(buf.data(), head.c_str(), head.size() + 1);
      ASSERT_EQ(vepra_str_strlcat(buf.data(), s, size), head.size() + src.size());
      expect_bounded(buf, size, head + src);
    } else {
      std::memset(buf.data(), 'h', size);
      ASSERT_EQ(vepra_str_strlcat(buf.data(), s, size), size + src.size());
      ASSERT_EQ(std::string(buf.begin(), buf.end()), std::string(size, 'h') + std::string(8, '#'))
          << "wrote without a terminator within size";
    }
  }
  // Null sources are empty texts; null destinations take nothing.
  char small[4] = "ab";
  EXPECT_EQ(vepra_str_strlcat(small, nullptr, sizeof small), 2u);
  EXPECT_EQ(vepra_str_strlcpy(small, nullptr, sizeof small), 0u);
  EXPECT_STREQ(small, "");
  EXPECT_EQ(vepra_str_strlcpy(nullptr, "abc", 9), 3u);
  EXPECT_EQ(vepra_str_strlcat(nullptr, "abc", 9), 12u);
  EXPECT_STREQ(vepra_str_psprintf(pool_, "%d-%s", 7, "x"), "7-x");
  char *q = nullptr;
  EXPECT_EQ(vepra_str_asprintf(&q, "%s", ""), 0);
  EXPECT_EQ(take(q), "");
  EXPECT_EQ(vepra_str_asprintf(nullptr, "%d", 1), -1);
  // Past any first guess of the size; a wide string the C locale cannot
  // convert fails as in the C library.
  const std::string wide(5000, 'w');
  EXPECT_EQ(rpl_asprintf(&q, "%d|%s", -42, wide.c_str()), 5004);
  EXPECT_EQ(take(q), "-42|" + wide);
  const wchar_t euro[] = {0x20ac, 0};
  EXPECT_EQ(rpl_asprintf(&q, "%ls", euro), -1);
  EXPECT_EQ(asprintf(&q, "%ls", euro), -1);
}

}  // namespace
