// Conversions, comparison, trimming, replacement and formatting.
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_str.h"

namespace {

using vepra_test::take_printed;

class StrTest : public vepra_test::LibraryTest {};

std::string printed_error(vepra_error_t *e) { return take_printed(e); }

TEST_F(StrTest, ConversionsAcceptWholeNumbersOnly) {
  int i = -7;
  double d = -7;
  int64_t l = -7;
  ASSERT_EQ(vepra_str_to_integer("0", &i), nullptr);
  ASSERT_EQ(vepra_str_to_double("0", &d), nullptr);
  ASSERT_EQ(vepra_str_to_int64("0", &l), nullptr);
  EXPECT_EQ(i, 0);
  EXPECT_EQ(d, 0.0);
  EXPECT_EQ(l, 0);

  ASSERT_EQ(vepra_str_to_integer("  -42", &i), nullptr);
  EXPECT_EQ(i, -42);
  ASSERT_EQ(vepra_str_to_double("+2.5e3", &d), nullptr);
  EXPECT_EQ(d, 2500.0);
  ASSERT_EQ(vepra_str_to_int64("-9223372036854775808", &l), nullptr);
  EXPECT_EQ(l, INT64_MIN);
  // Fits a long, not an int: the low 32 bits are stored.
  ASSERT_EQ(vepra_str_to_integer("4294967297", &i), nullptr);
  EXPECT_EQ(i, 1);
  ASSERT_EQ(vepra_str_to_integer("-2147483649", &i), nullptr);
  EXPECT_EQ(i, 2147483647);

  i = 5;
  EXPECT_EQ(printed_error(vepra_str_to_integer("12abc", &i)),
            "Error(120062): Cannot convert string '12abc' to integer ");
  EXPECT_EQ(printed_error(vepra_str_to_integer("12 ", &i)),
            "Error(120062): Cannot convert string '12 ' to integer ");
  EXPECT_EQ(printed_error(vepra_str_to_integer("", &i)),
            "Error(120062): Cannot convert string '' to integer ");
  EXPECT_EQ(printed_error(vepra_str_to_double("abc", &d)),
            "Error(120063): Cannot convert string 'abc' to double ");
  EXPECT_EQ(printed_error(vepra_str_to_int64("1.5", &l)),
            "Error(120062): Cannot convert string '1.5' to int64 ");
  EXPECT_EQ(i, 5) << "a failed conversion must leave the output alone";
  EXPECT_EQ(l, INT64_MIN);

  std::string range = std::strerror(ERANGE);
  EXPECT_EQ(printed_error(vepra_str_to_int64("99999999999999999999", &l)),
            "Error(120062): Cannot convert string '99999999999999999999' to int64: " + range + " ");
  EXPECT_EQ(printed_error(vepra_str_to_integer("99999999999999999999", &i)),
            "Error(120062): Cannot convert string '99999999999999999999' to integer: " + range +
                " ");
  EXPECT_EQ(printed_error(vepra_str_to_double("1e99999", &d)),
            "Error(120063): Cannot convert string '1e99999' to double: " + range + " ");
  EXPECT_EQ(l, INT64_MIN);
  EXPECT_EQ(printed_error(vepra_str_to_integer(nullptr, &i)),
            "Error(120062): Cannot convert string '(null)' to integer ");
}

TEST_F(StrTest, IsIntegerTakesOneSignAndDigits) {
  for (const char *yes : {"0", "+12", "-12", "0012", "99999999999999999999999"})
    EXPECT_EQ(vepra_str_is_integer(yes), 1) << yes;
  for (const char *no : {"", "+", "-", " 1", "1 ", "+-1", "1.0", "1e3", "0x1"})
    EXPECT_EQ(vepra_str_is_integer(no), 0) << no;
  EXPECT_EQ(vepra_str_is_integer(nullptr), 0);
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST_F(StrTest, StricmpFoldsAsciiCapitalsOnly) {
  EXPECT_LT(vepra_str_stricmp("ABC", "abd"), 0);
  EXPECT_EQ(vepra_str_stricmp("HeLLo", "hello"), 0);
  EXPECT_GT(vepra_str_stricmp("abc", "ab"), 0);
  EXPECT_LT(vepra_str_stricmp("ab", "abc"), 0);
  EXPECT_LT(vepra_str_stricmp("\xC3", "a"), 0) << "bytes from 0x80 are negative chars";
  EXPECT_LT(vepra_str_stricmp("\xC3", "A"), 0);
  EXPECT_NE(vepra_str_stricmp("\xC3\xA9", "\xC3\x89"), 0) << "no folding beyond ASCII";
  EXPECT_EQ(vepra_str_stricmp("[", "{"), '[' - '{');

  // Same order as the C library's strcasecmp on printable ASCII.
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> ch(0x20, 0x7E), len(0, 6);
  for (int round = 0; round < 5000; ++round) {
    std::string a, b;
    for (int n = len(rng); n > 0; --n) a += static_cast<char>(ch(rng));
    b = a.substr(0, len(rng) % (a.size() + 1));
    for (int n = len(rng) % 3; n > 0; --n) b += static_cast<char>(ch(rng));
    EXPECT_EQ(sign(vepra_str_stricmp(a.c_str(), b.c_str())),
              sign(strcasecmp(a.c_str(), b.c_str())))
        << a << " / " << b;
  }
}

TEST_F(StrTest, LengthsCountBytesAndUtf8Characters) {
  EXPECT_EQ(vepra_str_len("abc"), 3u);
  EXPECT_EQ(vepra_str_len(""), 0u);
  EXPECT_EQ(vepra_str_utf8_len("\xC3\xA9" "a"), 2u);
  EXPECT_EQ(vepra_str_utf8_len("\xE6\x97\xA5\xE6\x9C\xAC"), 2u);
  EXPECT_EQ(vepra_str_utf8_len("\xF0\x9F\x98\x80!"), 2u);
  EXPECT_EQ(vepra_str_utf8_len(nullptr), 0u);
  // Against the C library's decoder on valid UTF-8.
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  const char *texts[] = {"plain", "\xC3\xA9t\xC3\xA9", "\xE2\x82\xAC 5", "\xF0\x9F\x98\x80\xC3\xA9"};
  for (const char *t : texts) EXPECT_EQ(vepra_str_utf8_len(t), std::mbstowcs(nullptr, t, 0)) << t;
  std::setlocale(LC_CTYPE, "C");
}

TEST_F(StrTest, TrimWorksInPlace) {
  char a[] = "  a b  ";
  EXPECT_EQ(vepra_str_trim(a), a);
  EXPECT_STREQ(a, "a b");
  char b[] = " \t\n\v\f\r ";
  EXPECT_STREQ(vepra_str_trim(b), "");
  char c[] = "x";
  EXPECT_STREQ(vepra_str_trim(c), "x");
  char d[] = "\tlead";
  EXPECT_STREQ(vepra_str_trim(d), "lead");
  char e[] = "";
  EXPECT_EQ(vepra_str_trim(e), e);
  EXPECT_EQ(vepra_str_trim(nullptr), nullptr);
}

// Peer for the replacement: the usual std::string find loop.
std::string replace_all_ref(const std::string &s, const std::string &from, const std::string &to) {
  std::string out;
  size_t pos = 0;
  for (size_t hit; (hit = s.find(from, pos)) != std::string::npos; pos = hit + from.size())
    out.append(s, pos, hit - pos).append(to);
  return out.append(s, pos);
}

struct Freed {
  void operator()(char *p) const { std::free(p); }
};
std::string take(char *p) {
  EXPECT_NE(p, nullptr);
  std::unique_ptr<char, Freed> owner(p);
  return p != nullptr ? p : "<null>";
}

TEST_F(StrTest, ReplaceAllMatchesFindLoop) {
  EXPECT_EQ(take(vepra_str_replace_all("aaa", "a", "aa")), "aaaaaa");
  EXPECT_EQ(take(vepra_str_replace_all("abcabc", "bc", "")), "aa");
  EXPECT_EQ(take(vepra_str_replace_all("abc", "", "x")), "abc");
  EXPECT_EQ(take(vepra_str_replace_all("abc", nullptr, "x")), "abc");
  EXPECT_EQ(take(vepra_str_replace_all("abc", "b", nullptr)), "abc");
  EXPECT_EQ(take(vepra_str_replace_all("", "a", "b")), "");
  EXPECT_EQ(vepra_str_replace_all(nullptr, "a", "b"), nullptr);
  for (size_t n : {8u, 40u}) {  // a near miss before the occurrence
    std::string a(n, 'a');
    EXPECT_EQ(take(vepra_str_replace_all((a + "c" + a + "b" + a).c_str(), (a + "b").c_str(), "X")),
              a + "c" + "X" + a);
  }

  std::mt19937 rng(11);
  std::uniform_int_distribution<int> ab(0, 2), len(0, 40), small(0, 3);
  auto word = [&](int n) {
    std::string w;
    while (n-- > 0) w += "ab "[ab(rng)];
    return w;
  };
  for (int round = 0; round < 3000; ++round) {
    std::string s = word(len(rng)), from = word(1 + small(rng)), to = word(small(rng) * 2);
    if (round % 4 == 0) {  // long search strings, taken from a repeated text
      s = s + s + s;
      from = s.substr(0, std::min(s.size(), static_cast<size_t>(33 + small(rng))));
      if (from.empty()) from = "a";
    }
    EXPECT_EQ(take(vepra_str_replace_all(s.c_str(), from.c_str(), to.c_str())),
              replace_all_ref(s, from, to))
        << "'" << s << "' '" << from << "' '" << to << "'";
  }
}

TEST_F(StrTest, ReplaceChangesFirstOccurrence) {
  EXPECT_EQ(take(vepra_str_replace("a-b-c", "-", "+=")), "a+=b-c");
  EXPECT_EQ(take(vepra_str_replace("abc", "x", "y")), "abc");
  EXPECT_EQ(take(vepra_str_replace("abc", "abc", "")), "");
  EXPECT_EQ(take(vepra_str_replace("abc", "", "<")), "<abc");
}

TEST_F(StrTest, ReplaceCharInPlace) {
  char a[] = "a,b,,c";
  EXPECT_EQ(vepra_str_replace_char(a, ',', ';'), a);
  EXPECT_STREQ(a, "a;b;;c");
  char b[] = "a,b,c";
  vepra_str_replace_char(b, ',', '\0');  // the search ends at the new terminator
  EXPECT_EQ(std::memcmp(b, "a\0b,c", 6), 0);
  char c[] = "aaa";
  EXPECT_STREQ(vepra_str_replace_char(c, 'a', 'a'), "aaa");
  EXPECT_STREQ(vepra_str_replace_char(c, '\0', 'x'), "aaa");
}

// The formats the printf tests run through, with arguments.
std::string sys_format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buf[512];
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return n < 0 ? "<error>" : std::string(buf, static_cast<size_t>(n));
}

TEST_F(StrTest, PrintfFamilyMatchesSnprintf) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> size_of(0, 40);
  for (int round = 0; round < 400; ++round) {
    int i = static_cast<int>(rng()) - 1000000;
    double d = static_cast<double>(rng()) / 977.0;
    long long ll = static_cast<long long>(rng()) << 20;
    const char *s = round % 2 ? "text" : "a longer piece of text";
    std::string want = sys_format("%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s", i, s,
                                  static_cast<unsigned>(i), d, ll, 'z', d, s);
    size_t size = static_cast<size_t>(size_of(rng));
    std::vector<char> buf(size + 8, '#');
    int n = vepra_str_snprintf(buf.data(), size, "%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s", i, s,
                               static_cast<unsigned>(i), d, ll, 'z', d, s);
    ASSERT_EQ(n, static_cast<int>(want.size()));
    if (size > 0) {
      size_t kept = std::min(size - 1, want.size());
      EXPECT_EQ(std::string(buf.data(), kept), want.substr(0, kept));
      EXPECT_EQ(buf[kept], '\0');
    }
    for (size_t k = size; k < buf.size(); ++k) ASSERT_EQ(buf[k], '#') << "wrote past size";

    char *p = vepra_str_psprintf(pool_, "%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s", i, s,
                                 static_cast<unsigned>(i), d, ll, 'z', d, s);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p, want);
    char *q = nullptr;
    ASSERT_EQ(vepra_str_asprintf(&q, "%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s", i, s,
                                 static_cast<unsigned>(i), d, ll, 'z', d, s),
              static_cast<int>(want.size()));
    EXPECT_EQ(take(q), want);
    char small[4];
    EXPECT_EQ(rpl_snprintf(small, sizeof small, "%s", s), static_cast<int>(std::strlen(s)));
    EXPECT_EQ(std::string(small), std::string(s, 3));
  }
  EXPECT_STREQ(vepra_str_psprintf(pool_, "%d-%s", 7, "x"), "7-x");
  char *q = nullptr;
  EXPECT_EQ(vepra_str_asprintf(&q, "%s", ""), 0);
  EXPECT_EQ(take(q), "");
  EXPECT_EQ(vepra_str_asprintf(nullptr, "%d", 1), -1);
}

// strlcpy and strlcat as the BSD manual states them, on random sizes, with
// guard bytes after the buffer.
TEST_F(StrTest, BoundedCopiesKeepBsdContract) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> len(0, 24), size_of(0, 30), letter('a', 'z');
  auto text = [&](int n) {
    std::string t;
    while (n-- > 0) t += static_cast<char>(letter(rng));
    return t;
  };
  for (int round = 0; round < 20000; ++round) {
    std::string src = text(len(rng));
    size_t size = static_cast<size_t>(size_of(rng));
    std::vector<char> buf(size + 4, '#');

    // strlcpy
    size_t r = vepra_str_strlcpy(buf.data(), src.c_str(), size);
    ASSERT_EQ(r, src.size());
    if (size > 0) {
      size_t kept = std::min(size - 1, src.size());
      ASSERT_EQ(std::string(buf.data()), src.substr(0, kept));
    }
    for (size_t k = size; k < buf.size(); ++k) ASSERT_EQ(buf[k], '#');

    // strlcat onto a prefix that may or may not be terminated within size
    std::string head = text(len(rng));
    std::fill(buf.begin(), buf.end(), '#');
    bool terminated = head.size() < size;
    if (terminated) {
      std::memcpy(buf.data(), head.c_str(), head.size() + 1);
    } else {
      std::memset(buf.data(), 'h', size);  // no terminator within size
    }
    r = vepra_str_strlcat(buf.data(), src.c_str(), size);
    if (!terminated) {
      ASSERT_EQ(r, size + src.size());
      for (size_t k = 0; k < size; ++k) ASSERT_EQ(buf[k], 'h') << "wrote without terminator";
    } else {
      ASSERT_EQ(r, head.size() + src.size());
      std::string want = (head + src).substr(0, size - 1);
      ASSERT_EQ(std::string(buf.data()), want);
    }
    for (size_t k = size; k < buf.size(); ++k) ASSERT_EQ(buf[k], '#') << "wrote past size";
  }
}

}  // namespace
