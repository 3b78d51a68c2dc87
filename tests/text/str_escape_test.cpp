// Escapes, the character tables and base62.
#include <iconv.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_str.h"

namespace {

using namespace std::string_literals;
using vepra_test::take_printed;

class StrTest : public vepra_test::LibraryTest {};

struct Parsed {
  std::string bytes;  // what was written, up to the terminator
  size_t size;        // what was stored through the size pointer
  std::string error;  // printed chain, empty on success
};

// Escape parsing, or with un set unparsing, of src into dst.
vepra_error_t *call(bool un, char *dst, size_t *size, const std::string &src, int wide, int table) {
  auto len = static_cast<ptrdiff_t>(src.size());
  return un ? vepra_str_escape_unparse(dst, size, src.data(), len)
            : vepra_str_escape_parse(dst, size, src.data(), len, wide, table);
}

// Runs into a buffer of size bytes followed by guard bytes: nothing may be
// written past size, and the output is terminated within it.
Parsed run(bool un, const std::string &src, size_t size, int wide = 0, int table = 0) {
  std::vector<char> buf(size + 16, '#');
  size_t n = size;
  vepra_error_t *e = call(un, buf.data(), &n, src, wide, table);
  for (size_t k = size; k < buf.size(); ++k) EXPECT_EQ(buf[k], '#') << "wrote past " << size;
  // Wide output holds 0 bytes: take exactly the bytes before the terminator.
  size_t written = size == 0 ? 0 : std::min(n - 1, size - 1);
  EXPECT_TRUE(size == 0 || buf[written] == '\0') << "unterminated for '" << src << "'";
  return {std::string(buf.data(), written), n, take_printed(e)};
}

// Measures with a null destination, then writes with the measured size.
std::string full(bool un, const std::string &src, int wide = 0, int table = 0) {
  size_t need = 0;
  vepra_error_t *e = call(un, nullptr, &need, src, wide, table);
  EXPECT_EQ(e, nullptr) << take_printed(e);
  Parsed p = run(un, src, need, wide, table);
  EXPECT_EQ(p.error, "");
  EXPECT_EQ(p.size, need) << "measured and written sizes differ for '" << src << "'";
  return p.bytes;
}

TEST_F(StrTest, EscapeParseDecodes) {
  const struct {
    std::string src, want;
    int wide = 0, table = 0;
  } cases[] = {
      {"\\x41\\n", "A\n"}, {"\\0", "\0"s}, {"\\1234", "S4"}, {"\\x4g", "\x04g"},
      {"\\x414", "A4"}, {"\\u41", "A"}, {"\\u00E9", "\xC3\xA9"}, {"\\u07FF", "\xDF\xBF"}, {"\\u0800", "\xE0\xA0\x80"}, {"\\u20aC1", "\xE2\x82\xAC" "1"},
      {"a\\uFFFFb", "ab"}, {"\\777", "\xC7\xBF"}, {"\\377", "\xFF"}, {"end\\", "end\\"}, {"", ""},
      {"\\a\\b\\f\\n\\r\\t\\v", "\a\b\f\n\r\t\v"}, {"\\\\\\\"\\'\\?\\q", "\\\"'?q"},
      {"a\\x41", "a\0A\0"s, 1}, {"\\u00E9", "\xC3\xA9", 1}, {"\\u41", "A\0"s, 1},
      {"\x82", "\xE9\0"s, 1, 1}, {"\xB0", "\x91\x25", 1, 1}, {"\x82", "\x82\0"s, 1, 0},
      {"\x82", "\x82", 0, 1},
  };
  for (const auto &c : cases)
    EXPECT_EQ(full(false, c.src, c.wide, c.table), c.want) << c.src << " " << c.wide << c.table;
  // A marked lead byte takes the next byte along unchanged, in wide mode too.
  CharSet[0xC3] |= 0x80;
  EXPECT_EQ(full(false, "\xC3\\n", 1), "\xC3\\n\0"s);
  CharSet[0xC3] &= ~0x80u;
  size_t n = 5;
  ASSERT_EQ(vepra_str_escape_parse(nullptr, &n, "abc", -3, 0, 0), nullptr);
  EXPECT_EQ(n, 1u) << "a negative length is an empty source";
}

TEST_F(StrTest, EscapeErrors) {
  for (const char *bad : {"ab\\xg", "\\u"})
    EXPECT_EQ(run(false, bad, 16).error,
              "Error(120064): No characters matched when scanning Hex number. ");
  // UTF-8 that does not fit fails with a bare code-0 record, also when
  // measuring with a size; plain bytes that do not fit are dropped silently.
  Parsed p = run(false, "ab\\u20AC", 4);
  EXPECT_EQ(p.error + "|" + p.bytes, "Error: Unknown Vepra error (code=0) |ab");
  size_t n = 3;
  EXPECT_EQ(take_printed(vepra_str_escape_parse(nullptr, &n, "\\u20AC", 6, 0, 0)),
            "Error: Unknown Vepra error (code=0) ");
  p = run(false, "abcdef", 4);
  EXPECT_EQ(p.error + "|" + p.bytes + "|" + std::to_string(p.size), "|abc|7");
  for (bool un : {false, true})
    EXPECT_EQ(take_printed(call(un, nullptr, nullptr, "a", 0, 0)),
              "Error(120020): Assertion failure ");

  EXPECT_EQ(full(true, "\t\"\x01"), "\\t\\\"\\x01");
  EXPECT_EQ(full(true, "\a\b\t\n\v\f\r\0\x7F\xFF'\\ ok"s),
            "\\a\\b\\t\\n\\v\\f\\r\\x00\\x7F\\xFF\\'\\\\ ok");
}

// Random bytes: unparsing then parsing gives the bytes back; a buffer too
// small for the unparsed text receives whole escapes only and the size of
// what it holds. Measured sizes are what a buffer of that size receives,
// and no size ever lets either function write past it.
TEST_F(StrTest, EscapeRoundTripAndSizes) {
  std::mt19937 rng(1);
  std::uniform_int_distribution<int> byte(0, 255), len(0, 24);
  const char pieces[] = "\\xu0123456789ABCDEFabcdef7\"'?";
  std::uniform_int_distribution<int> piece(0, sizeof pieces - 2);
  for (int round = 0; round < 3000; ++round) {
    std::string src, esc;
    for (int n = len(rng); n > 0; --n) src += static_cast<char>(byte(rng));
    std::string text = full(true, src);
    EXPECT_EQ(full(false, text), src);
    for (size_t size = 0; size <= text.size() + 1; ++size) {
      Parsed cut = run(true, src, size);
      ASSERT_EQ(cut.error, size > text.size() ? "" : "Error(120066): Buffer is too small. ");
      ASSERT_EQ(cut.size, (cut.error.empty() ? text.size() : cut.bytes.size()) + 1);
      ASSERT_TRUE(text.starts_with(cut.bytes) && src.starts_with(full(false, cut.bytes))) << size;
    }
    // Escape-heavy input in both modes: measuring with size 0 and writing
    // with the measured size agree; smaller sizes never overflow.
    for (int n = len(rng); n > 0; --n) esc += pieces[piece(rng)];
    for (int wide : {0, 1}) {
      size_t need = 0;
      if (vepra_error_t *e = call(false, nullptr, &need, esc, wide, 1)) {
        vepra_error_clear(e);
        continue;
      }
      EXPECT_EQ(run(false, esc, need, wide, 1).size, need) << esc;
      for (size_t size = 1; size < need; ++size) run(false, esc, size, wide, 1);
    }
  }
}

TEST_F(StrTest, TablesMatchCtypeAndCodePage437) {
  for (int c = 0; c < 128; ++c) {
    uint32_t k = CharSet[c];
    EXPECT_EQ((k & 0x02) != 0, std::isdigit(c) != 0) << c;
    EXPECT_EQ((k & 0x04) != 0, std::isxdigit(c) && std::isalpha(c)) << c;
    EXPECT_EQ((k & 0x01) != 0, std::isalpha(c) || c == '_') << c;
    EXPECT_EQ((k & 0x40) != 0, std::isspace(c) && c != '\n') << c;
    EXPECT_TRUE(!std::ispunct(c) || std::strchr("$@`_\\", c) || (k & 0x30) != 0) << c;
  }
  for (int c : {'?', '\\', '\n', '\0', '~', '|'})
    EXPECT_EQ(CharSet[c], c == '?' ? 0x18u : c == '~' ? 0x10u : c == '|' ? 0x20u : 0x08u) << c;
  for (int c = 128; c < 260; ++c)
    EXPECT_EQ(CharSet[c], (c <= 154 || (c >= 160 && c <= 167)) ? 0x01u : 0u) << c;

  iconv_t cd = iconv_open("UTF-32LE", "IBM437");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  for (int c = 0; c < 256; ++c) {
    char in = static_cast<char>(c), *ip = &in;
    uint32_t out = 0;
    char *op = reinterpret_cast<char *>(&out);
    size_t il = 1, ol = sizeof out;
    ASSERT_NE(iconv(cd, &ip, &il, &op, &ol), static_cast<size_t>(-1)) << c;
    EXPECT_EQ(UniCode[c], out) << "byte " << c;
  }
  iconv_close(cd);
}

TEST_F(StrTest, Base62Edges) {
  const struct {
    const char *text;
    int base;
    int64_t value;
    size_t end;  // digits read up to here; 0 when none was read
  } cases[] = {{"-FF", 16, -255, 3}, {"10", 62, 62, 2}, {"zz", 62, 3843, 2}, {"ff", 16, 0, 0},
               {"12", 99, 0, 0}};
  char buf[80], *end = nullptr;
  int64_t v = -1;
  for (const auto &c : cases) {
    EXPECT_EQ(vepra_str_base62_to_int64(c.text, &end, c.base, &v), nullptr);
    EXPECT_EQ(v, c.value) << c.text;
    EXPECT_EQ(end, c.text + c.end) << c.text;
    if (c.end != 0) {
      EXPECT_EQ(vepra_str_int64_to_base62(c.value, c.base, buf, sizeof buf), int(c.end));
      EXPECT_STREQ(buf, c.text);
    }
  }
  const std::string over = "zzzzzzzzzzzzzzzzzzzzz!";  // the digits after the overflow are read
  EXPECT_EQ(take_printed(vepra_str_base62_to_int64(over.c_str(), &end, 62, &v)),
            "Error(120062): '" + over + "' does not fit into 64-bit signed integer. ");
  EXPECT_EQ(v, INT64_MAX);
  EXPECT_EQ(end, over.c_str() + 21);
  for (int bad : {1, 63}) EXPECT_EQ(vepra_str_int64_to_base62(5, bad, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "zz") << "a bad base writes nothing";
  EXPECT_EQ(vepra_str_int64_to_base62(123456, 10, buf, 4), 6) << "strlcpy contract";
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(vepra_str_int64_to_base62(123456, 10, nullptr, 0), 6);
}

// Random texts in bases 2 to 36 on digits and capitals read as the C
// library's strtoll reads them: value, end pointer and overflow. Each value
// read is written back in a base from 2 to 62 (as snprintf writes it in
// bases 8, 10 and 16) and read again.
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

    char buf[80], text[80];
    base = 2 + round % 61;
    int n = vepra_str_int64_to_base62(got, base, buf, sizeof buf);
    ASSERT_EQ(n, static_cast<int>(std::strlen(buf)));
    if (base == 8 || base == 10 || base == 16) {
      unsigned long long mag = got < 0 ? 0ULL - static_cast<unsigned long long>(got) : got;
      std::snprintf(text, sizeof text, base == 8 ? "%s%llo" : base == 10 ? "%s%llu" : "%s%llX",
                    got < 0 ? "-" : "", mag);
      EXPECT_STREQ(buf, text);
    }
    ASSERT_EQ(vepra_str_base62_to_int64(buf, &end, base, &got), nullptr);
    ASSERT_EQ(got, want) << buf << " in base " << base;
    ASSERT_EQ(end, buf + n);
  }
}

}  // namespace
