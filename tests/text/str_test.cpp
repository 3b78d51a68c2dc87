// Strings: conversions, comparison, replacement, bounded writes, escapes,
// the character tables and base62; string lists, their tokenizer and the
// typed token parser against one reference tokenizer.
#include <dlfcn.h>
#include <iconv.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "core/testing.hpp"
#include "support/test_support.hpp"
#include "vepra_prsd.h"
#include "vepra_str.h"
#include "vepra_strlist.h"

namespace {

using namespace std::string_literals;
using vepra_test::take_printed;
using Strings = std::vector<std::string>;

class StrTest : public vepra_test::LibraryTest {};

// Up to max_len bytes drawn from alphabet.
std::string random_text(std::mt19937 &rng, const std::string &alphabet, int max_len) {
  std::string t(std::uniform_int_distribution<size_t>(0, max_len)(rng), ' ');
  for (char &c : t) c = alphabet[rng() % alphabet.size()];
  return t;
}

// buf, '#' before a write of full into size bytes, holds it cut and ended.
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

// A number as text, doubles with the digits that tell them apart.
using testing::PrintToString;

// The conversion by f: the value as text, or the error (nothing stored).
template <typename T>
std::string convert(vepra_error_t *(*f)(const char *, T *), const char *s) {
  T v = 5;
  vepra_error_t *e = f(s, &v);
  EXPECT_TRUE(e == nullptr || v == 5) << "a failed conversion stored a value";
  return e != nullptr ? take_printed(e) : PrintToString(v);
}

// The same by strtol (low 32 bits kept), strtoll or strtod, or the error.
std::string peer_convert(char kind, const char *s) {
  char *end = nullptr;
  errno = 0;
  const std::string value = kind == 'i' ? PrintToString(static_cast<int>(std::strtol(s, &end, 10)))
                            : kind == 'l' ? PrintToString(std::strtoll(s, &end, 10))
                                          : PrintToString(std::strtod(s, &end));
  if (errno == 0 && end != s && *end == '\0') return value;
  const std::string range = errno == ERANGE ? ": "s + std::strerror(ERANGE) : "";
  const char *name = kind == 'i' ? "integer" : kind == 'l' ? "int64" : "double";
  return "Error(12006"s + (kind == 'd' ? "3" : "2") + "): Cannot convert string '" + s + "' to " +
         name + range + " ";
}

TEST_F(StrTest, ConversionsMatchTheCLibrary) {
  const std::string nines = "99999999999999999999";
  for (const char *s : {"0", "-0", "  -42", "+2.5e3", "-9223372036854775808", "4294967297", "12 ",
                        "", " ", "+", "1.5", "1e", nines.c_str(), "abc", "1e99999"}) {
    EXPECT_EQ(convert(vepra_str_to_integer, s), peer_convert('i', s)) << s;
    EXPECT_EQ(convert(vepra_str_to_int64, s), peer_convert('l', s)) << s;
    EXPECT_EQ(convert(vepra_str_to_double, s), peer_convert('d', s)) << s;
  }
  EXPECT_EQ(convert(vepra_str_to_integer, nullptr),
            "Error(120062): Cannot convert string '(null)' to integer ");
  for (const char *yes : {"+12", "-0", "99999999999999999999999"})
    EXPECT_EQ(vepra_str_is_integer(yes), 1) << yes;
  for (const char *no : {"", "+", " 1", "+-1", "1.0"}) EXPECT_EQ(vepra_str_is_integer(no), 0) << no;
  EXPECT_EQ(vepra_str_is_integer(nullptr), 0);
}

int sign(int v) { return (v > 0) - (v < 0); }

// Against strcasecmp, and against std::string's find for replacement.
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
    // Long search strings in a repeated text, and short ones of frequent
    // first and last bytes in a text of up to 200.
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
  // An empty or null search text, or a null replacement, changes nothing.
  for (auto [from, to] :
       {std::pair<const char *, const char *>{"", "x"}, {nullptr, "x"}, {"b", nullptr}})
    EXPECT_EQ(take(vepra_str_replace_all("abc", from, to)), "abc");
  EXPECT_EQ(take(vepra_str_replace("abc", "", "<")), "<abc");
  EXPECT_EQ(vepra_str_replace_all(nullptr, "a", "b"), nullptr);
  // Memory running out gives null, never a cut text.
  const std::string many(5000, 'a');
  int nulls = 0;
  for (long n = 1; n <= 3; ++n) {
    vepra::testing::fail_allocation_at(n);
    const std::string all = take(vepra_str_replace_all(many.c_str(), "a", "bb"));
    const std::string first = take(vepra_str_replace(many.c_str(), "a", "bb"));
    vepra::testing::fail_allocation_at(0);
    EXPECT_TRUE(all == "<null>" || all == std::string(10000, 'b')) << n;
    EXPECT_TRUE(first == "<null>" || first == "bb" + many.substr(1)) << n;
    nulls += (all == "<null>") + (first == "<null>");
  }
  EXPECT_GE(nulls, 3);
  char a[] = "a,b,,c", b[] = "a,b,c";
  EXPECT_EQ(vepra_str_replace_char(a, ',', ';'), a);
  EXPECT_STREQ(vepra_str_replace_char(vepra_str_replace_char(a, ';', ';'), '\0', 'x'), "a;b;;c");
  vepra_str_replace_char(b, ',', '\0');  // the search ends at the new terminator
  EXPECT_EQ(std::memcmp(b, "a\0b,c", 6), 0);

  EXPECT_EQ(vepra_str_len("abc") + vepra_str_len(nullptr) + vepra_str_utf8_len(nullptr), 3u);
  EXPECT_EQ(vepra_str_utf8_len("a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80"), 4u);
  for (auto c : {std::pair{"  a b  ", "a b"}, {" \t\n\v\f\r ", ""}, {"x", "x"}, {"", ""}}) {
    std::vector<char> buf(c.first, c.first + std::strlen(c.first) + 1);
    EXPECT_EQ(vepra_str_trim(buf.data()), buf.data());
    EXPECT_STREQ(buf.data(), c.second) << "'" << c.first << "'";
  }
  EXPECT_EQ(vepra_str_trim(nullptr), nullptr);
}

#define FORMAT "%d|%-8s|%x|%08.3f|%lld|%c|%%|%+.2e|%5.2s"
#define ARGS -123456, "abcdefghij", 255u, 3141.59265, 1LL << 40, 'z', 2.5e-7, "xyz"

// The printf family, wrappers of the C library's, once; strlcpy and strlcat
// as the BSD manual states them on random texts and sizes.
TEST_F(StrTest, BoundedWritesMatchPeers) {
  char sys[512], *q = nullptr;
  const std::string want(sys, static_cast<size_t>(std::snprintf(sys, sizeof sys, FORMAT, ARGS)));
  std::vector<char> cut(20, '#');
  ASSERT_EQ(vepra_str_snprintf(cut.data(), 12, FORMAT, ARGS), static_cast<int>(want.size()));
  expect_bounded(cut, 12, want);
  EXPECT_EQ(vepra_str_psprintf(pool_, FORMAT, ARGS), want);
  ASSERT_EQ(vepra_str_asprintf(&q, FORMAT, ARGS), static_cast<int>(want.size()));
  EXPECT_EQ(take(q), want);
  std::mt19937 rng(5);
  for (int round = 0; round < 20000; ++round) {
    std::string src = random_text(rng, "abcdefghij", 24), head = random_text(rng, "xyz", 24);
    size_t size = rng() % 31;
    std::vector<char> buf(size + 8, '#');
    ASSERT_EQ(vepra_str_strlcpy(buf.data(), src.c_str(), size), src.size());
    expect_bounded(buf, size, src);
    // strlcat onto a prefix that may or may not be terminated within size
    const bool ended = head.size() < size;
    if (!ended) head.assign(size, 'h');
    std::memcpy(buf.data(), head.c_str(), head.size() + ended);
    ASSERT_EQ(vepra_str_strlcat(buf.data(), src.c_str(), size), head.size() + src.size());
    if (ended) {
      expect_bounded(buf, size, head + src);
    } else {
      ASSERT_EQ(std::string(buf.data(), buf.size()), head + "########") << "unterminated";
    }
  }
  // Null sources are empty texts; null destinations take nothing.
  char small[4] = "ab";
  EXPECT_EQ(vepra_str_strlcat(small, nullptr, sizeof small), 2u);
  EXPECT_EQ(vepra_str_strlcpy(small, nullptr, sizeof small), 0u);
  EXPECT_STREQ(small, "");
  EXPECT_EQ(vepra_str_strlcpy(nullptr, "abc", 9), 3u);
  EXPECT_EQ(vepra_str_strlcat(nullptr, "abc", 9), 12u);
  EXPECT_EQ(vepra_str_asprintf(nullptr, "%d", 1), -1);
  // A wide string the C locale cannot convert fails as in the C library.
  const wchar_t euro[] = {0x20ac, 0};
  EXPECT_EQ(rpl_asprintf(&q, "%ls", euro), -1);
  EXPECT_EQ(asprintf(&q, "%ls", euro), -1);
}

// Escape parsing (un: unparsing) of src into size bytes and guard bytes, or
// "-" into the size measured first; never past size, always terminated.
// Gives the bytes before the terminator, size stored ("-") and error by '|'.
std::string escape(bool un, const std::string &src, const std::string &size_text, int wide = 0,
                   int table = 0) {
  const auto len = static_cast<ptrdiff_t>(src.size());
  auto call = [&](char *dst, size_t *n) {
    return un ? vepra_str_escape_unparse(dst, n, src.data(), len)
              : vepra_str_escape_parse(dst, n, src.data(), len, wide, table);
  };
  size_t size = size_text == "-" ? 0 : std::stoul(size_text), n = 0;
  EXPECT_EQ(take_printed(size_text == "-" ? call(nullptr, &size) : nullptr), "") << src;
  std::vector<char> buf(size + 16, '#');
  const std::string error = take_printed(call(buf.data(), &(n = size)));
  for (size_t k = size; k < buf.size(); ++k) EXPECT_EQ(buf[k], '#') << "wrote past " << size;
  // Wide output holds 0 bytes: take exactly the bytes before the terminator.
  const size_t written = size == 0 ? 0 : std::min(n - 1, size - 1);
  EXPECT_TRUE(size == 0 || buf[written] == '\0') << "unterminated for '" << src << "'";
  EXPECT_TRUE(size_text != "-" || n == size) << "measured and written sizes differ: " << src;
  return std::string(buf.data(), written) + "|" + (size_text == "-" ? "-" : std::to_string(n)) +
         "|" + error;
}

// The bytes of text with each <hh> replaced by the byte it names in hex.
std::string bytes_of(const std::string &text) {
  std::string out;
  for (size_t k = 0; k < text.size(); ++k) {
    const bool hex = text[k] == '<' && k + 3 < text.size() && text[k + 3] == '>';
    out += hex ? static_cast<char>(std::stoi(text.substr(k + 1, 2), nullptr, 16)) : text[k];
    k += hex ? 3 : 0;
  }
  return out;
}

// Each row of the table: bytes written, size stored and error.
TEST_F(StrTest, EscapesAsListed) {
  int rows = 0;
  for (auto cols : vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/text/escapes.tsv")) {
    cols.resize(8);
    ++rows;
    EXPECT_EQ(escape(cols[0] == "unparse", bytes_of(cols[4]), cols[3], std::stoi(cols[1]),
                     std::stoi(cols[2])),
              bytes_of(cols[5]) + "|" + (cols[3] == "-" ? "-" : cols[6]) + "|" + cols[7])
        << cols[0] << " '" << cols[4] << "'";
  }
  EXPECT_EQ(rows, 32);
}

// A marked lead byte, a negative length, a limited measure, no size pointer.
TEST_F(StrTest, EscapeEdges) {
  // A marked lead byte takes the next byte along unchanged, in wide mode too.
  CharSet[0xC3] |= 0x80;
  EXPECT_EQ(escape(false, "\xC3\\n", "-", 1), "\xC3\\n\0|-|"s);
  CharSet[0xC3] &= ~0x80u;
  size_t n = 5;
  ASSERT_EQ(vepra_str_escape_parse(nullptr, &n, "abc", -3, 0, 0), nullptr);
  EXPECT_EQ(n, 1u) << "a negative length is an empty source";
  // UTF-8 that does not fit fails with a bare code-0 record, also measuring.
  n = 3;
  EXPECT_EQ(take_printed(vepra_str_escape_parse(nullptr, &n, "\\u20AC", 6, 0, 0)),
            "Error: Unknown Vepra error (code=0) ");
  const std::string assertion = "Error(120020): Assertion failure ";
  EXPECT_EQ(take_printed(vepra_str_escape_parse(nullptr, nullptr, "a", 1, 0, 0)), assertion);
  EXPECT_EQ(take_printed(vepra_str_escape_unparse(nullptr, nullptr, "a", 1)), assertion);
}

// The code page table against iconv's.
TEST_F(StrTest, CodePage437MatchesIconv) {
  std::string in(256, '\0');
  for (int c = 0; c < 256; ++c) in[c] = static_cast<char>(c);
  std::vector<uint32_t> out(256);
  char *ip = in.data(), *op = reinterpret_cast<char *>(out.data());
  size_t il = in.size(), ol = out.size() * sizeof out[0];
  iconv_t cd = iconv_open("UTF-32LE", "IBM437");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  ASSERT_EQ(iconv(cd, &ip, &il, &op, &ol), 0u);
  EXPECT_EQ(std::vector<uint32_t>(UniCode, UniCode + 256), out);
  iconv_close(cd);
}

// Lower-case digits, bad bases, the overflow message, measuring.
TEST_F(StrTest, Base62Edges) {
  char buf[80], *end = nullptr;
  int64_t v = -1;
  // 'f' is no digit in base 16, base 99 reads none, '_' is below 'a'.
  for (auto [text, base, value, used] :
       {std::tuple{"zz", 62, 3843, 2}, {"ff", 16, 0, 0}, {"12", 99, 0, 0}, {"7_", 62, 7, 1}}) {
    ASSERT_EQ(vepra_str_base62_to_int64(text, &end, base, &v), nullptr);
    EXPECT_EQ(v, value) << text;
    EXPECT_EQ(end, text + used) << text;
  }
  EXPECT_EQ(vepra_str_int64_to_base62(3843, 62, buf, sizeof buf), 2);
  const std::string over = "zzzzzzzzzzzzzzzzzzzzz!";  // the digits after the overflow are read
  EXPECT_EQ(take_printed(vepra_str_base62_to_int64(over.c_str(), &end, 62, &v)),
            "Error(120062): '" + over + "' does not fit into 64-bit signed integer. ");
  EXPECT_EQ(v, INT64_MAX);
  EXPECT_EQ(end, over.c_str() + 21);
  for (int bad : {1, 63}) EXPECT_EQ(vepra_str_int64_to_base62(5, bad, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "zz") << "a bad base writes nothing";
  EXPECT_EQ(vepra_str_int64_to_base62(123456, 10, nullptr, 0), 6);
}

// Random texts in bases 0 to 36 read as strtoll reads them (value, end and
// overflow), and each value written back as snprintf writes it.
TEST_F(StrTest, Base62MatchesStrtollAndSnprintf) {
  std::mt19937 rng(13);
  const char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  std::uniform_int_distribution<int> digit(0, 35), len(0, 30), coin(0, 7), base_of(2, 36);
  for (int round = 0; round < 40000; ++round) {
    int base = round % 5 == 0 ? 0 : base_of(rng);
    std::string s = coin(rng) == 0 ? "  " : "";
    if (coin(rng) < 2) s += "+-"[coin(rng) % 2];
    if (coin(rng) == 0) s += "0X";
    // Mostly digits valid in the base, so that long runs overflow.
    std::uniform_int_distribution<int> valid(0, (base == 0 ? 10 : base) - 1);
    for (int n = len(rng); n > 0; --n) s += alphabet[coin(rng) == 0 ? digit(rng) : valid(rng)];
    SCOPED_TRACE(s + " base " + std::to_string(base));
    errno = 0;
    char *want_end = nullptr, *end = nullptr;
    long long want = std::strtoll(s.c_str(), &want_end, base);
    int64_t got = 12345;
    vepra_error_t *e = vepra_str_base62_to_int64(s.c_str(), &end, base, &got);
    EXPECT_EQ(e != nullptr, errno == ERANGE);
    vepra_error_clear(e);
    ASSERT_EQ(got, want);
    // A 0X prefix without a hex digit after it: strtoll reads the 0, this
    // reader reads no digit at all.
    const char *p = s.c_str() + std::min(s.find_first_not_of(" +-"), s.size());
    bool bare_prefix = (base == 0 || base == 16) && std::strncmp(p, "0X", 2) == 0 &&
                       !std::isxdigit(static_cast<unsigned char>(p[2]));
    EXPECT_EQ(end, bare_prefix ? s.c_str() : want_end);
    // Written back in base 8, 10 or 16 as snprintf writes it.
    char buf[80], text[80];
    const unsigned long long mag = got < 0 ? 0ULL - static_cast<unsigned long long>(got) : got;
    const int out = round % 3 == 0 ? 8 : round % 3 == 1 ? 10 : 16;
    const char *format = out == 8 ? "%s%llo" : out == 10 ? "%s%llu" : "%s%llX";
    const int n = std::snprintf(text, sizeof text, format, got < 0 ? "-" : "", mag);
    EXPECT_EQ(vepra_str_int64_to_base62(got, out, buf, sizeof buf), n);
    EXPECT_STREQ(buf, text);
  }
}

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
  ASSERT_EQ(vepra_strlist_addlast(list, nullptr, pool_), nullptr);  // matches nothing
  for (const char *s : {"b", "B", "", static_cast<const char *>(nullptr)})
    EXPECT_EQ(vepra_strlist_is_exists(list, s), s != nullptr && *s == 'b') << (s ? s : "null");

  vepra_strlist_t *dst = make({"keep", "me"}), *src = make({"x", "y", "z"});
  ASSERT_EQ(vepra_strlist_copy(dst, src, pool_), nullptr);
  ASSERT_EQ(vepra_strlist_copy(dst, dst, pool_), nullptr);
  EXPECT_EQ(items(dst), (Strings{"x", "y", "z"})) << "copied, also onto itself";
  EXPECT_NE(vepra_strlist_getn(dst, 0), vepra_strlist_getn(src, 0)) << "copies, not shared";
  EXPECT_EQ(take_printed(vepra_strlist_copy(dst, src, nullptr)),
            "Error(120051): Cannot copy list of strings. \nError(120051): Unable to append DL "
            "object. \nError(120051): DL insertion error: invalid pointer. ");
  EXPECT_EQ(*dst, nullptr) << "a failed copy leaves dst empty";
  EXPECT_EQ(take_printed(vepra_strlist_create(nullptr, pool_)),
            "Error(120051): DL insertion error: invalid pointer. ");
}

// Tokens of 1 MiB across elements, the token buffer's growth failing at
// each step, and separator and data errors.
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

// A token as strtol (low 32 bits), else strtod, else as a string reads it:
// its kind ('i', 'd' or 's') and value.
std::string classify(const std::string &text) {
  for (char kind : {'i', 'd'}) {
    const std::string value = peer_convert(kind, text.c_str());
    if (value.rfind("Error", 0) != 0) return kind + value;
  }
  return "s" + text;
}

// The tokens of rec as text; the counters must agree with their kinds.
Strings tokens_of(const vepra_prsd_t &rec) {
  Strings out;
  uint32_t n[4] = {};
  for (const vepra_prsd_token_t &t : std::vector(rec.tokens, rec.tokens + rec.n_tokens)) {
    out.push_back(t.kind == VEPRA_PRSD_INTEGER  ? "i" + PrintToString(t.value_int)
                  : t.kind == VEPRA_PRSD_DOUBLE ? "d" + PrintToString(t.value_double)
                  : t.kind == VEPRA_PRSD_STRING ? "s" + std::string(t.value_string)
                                                : "?");
    ++n[t.kind & 3];
  }
  EXPECT_EQ(std::vector({rec.n_integer, rec.n_double, rec.n_string}),
            std::vector({n[1], n[2], n[3]}));
  return out;
}

// The token array's growth, the arguments it refuses, and a long token,
// typed from its pool copy, in an exhausted pool.
TEST_F(StrTest, ParserGrowsAndFailsCleanly) {
  // Eleven tokens: the array has grown once and counts its free entries down.
  vepra_prsd_t rec{};
  vepra_prsd_parse_p(&rec, "0 1 2 3 4 5 6 7 8 9 10 \\", " ", pool_);
  EXPECT_EQ(std::pair(rec.room, tokens_of(rec).back()), std::pair(9u, "i10"s));
  vepra_prsd_clear_p(&rec);
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

// Random lines against the model and the C library. The list's elements
// run into each other; the parser's lines do not, and the state after each
// line is checked. Every eighth round has tokens past the parser's 64-byte
// stack copy.
TEST_F(StrlistTest, TokenizersMatchModel) {
  std::mt19937 rng(17);
  const char alphabet[] = "0123456789.e-+ ,;x\"\\";
  std::uniform_int_distribution<int> ch(0, sizeof alphabet - 2), lines(1, 4);
  for (int round = 0; round < 5000; ++round) {
    const std::string seps = std::array{"", " ", " ,", ";\""}[round % 4];
    Strings src(static_cast<size_t>(lines(rng)));
    for (std::string &l : src)
      for (int k = rng() % (round % 8 == 0 ? 101 : 31); k > 0; --k) l += alphabet[ch(rng)];
    SCOPED_TRACE("seps '" + seps + "' first line '" + src[0] + "'");
    TokenizerModel joined{seps}, apart{seps, true};
    vepra_prsd_t rec;
    vepra_prsd_clear_p(&rec);
    for (const std::string &l : src) {
      joined.feed(l);
      apart.feed(l);
      apart.flush();
      ASSERT_EQ(vepra_prsd_parse_p(&rec, l.c_str(), seps.c_str(), pool_), 0);
      ASSERT_EQ(rec.state, static_cast<uint32_t>(apart.state)) << l;
    }
    joined.flush();
    if (!seps.empty()) {  // no separators is an error for the list
      ASSERT_EQ(tokenize(src, seps.c_str()), joined.tokens);
    }
    Strings want;
    for (const std::string &t : apart.tokens) want.push_back(classify(t));
    ASSERT_EQ(tokens_of(rec), want);
  }
}

}  // namespace
