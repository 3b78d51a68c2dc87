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

using vepra_test::take_printed;

class StrTest : public vepra_test::LibraryTest {};

struct Parsed {
  std::string bytes;  // what was written, up to the terminator
  size_t size;        // what was stored through the size pointer
  std::string error;  // printed chain, empty on success
};

Parsed parse(const std::string &src, size_t size, bool wide = false, bool table = false) {
  std::vector<char> buf(size + 16, '#');
  size_t n = size;
  vepra_error_t *e = vepra_str_escape_parse(buf.data(), &n, src.data(),
                                            static_cast<ptrdiff_t>(src.size()), wide, table);
  for (size_t k = size; k < buf.size(); ++k)
    EXPECT_EQ(buf[k], '#') << "parse wrote past " << size << " for '" << src << "'";
  Parsed out{"", n, e != nullptr ? take_printed(e) : ""};
  // The output is terminated within size (wide output may hold 0 bytes,
  // so take exactly the bytes before the last terminator position).
  size_t written = size == 0 ? 0 : std::min(n - 1, size - 1);
  if (size > 0) {
    EXPECT_EQ(buf[written], '\0');
  }
  out.bytes.assign(buf.data(), written);
  return out;
}

Parsed parse_full(const std::string &src, bool wide = false, bool table = false) {
  size_t need = 0;
  vepra_error_t *e = vepra_str_escape_parse(nullptr, &need, src.data(),
                                            static_cast<ptrdiff_t>(src.size()), wide, table);
  EXPECT_EQ(e, nullptr) << take_printed(e);
  Parsed p = parse(src, need, wide, table);
  EXPECT_EQ(p.size, need) << "measured and written sizes differ for '" << src << "'";
  return p;
}

Parsed unparse(const std::string &src, size_t size) {
  std::vector<char> buf(size + 16, '#');
  size_t n = size;
  vepra_error_t *e = vepra_str_escape_unparse(buf.data(), &n, src.data(),
                                              static_cast<ptrdiff_t>(src.size()));
  for (size_t k = size; k < buf.size(); ++k) EXPECT_EQ(buf[k], '#') << "unparse wrote past size";
  Parsed out{"", n, e != nullptr ? take_printed(e) : ""};
  if (size > 0) out.bytes = buf.data();
  return out;
}

std::string unparse_full(const std::string &src) {
  size_t need = 0;
  EXPECT_EQ(vepra_str_escape_unparse(nullptr, &need, src.data(),
                                     static_cast<ptrdiff_t>(src.size())),
            nullptr);
  Parsed p = unparse(src, need);
  EXPECT_EQ(p.error, "");
  EXPECT_EQ(p.size, need);
  return p.bytes;
}

TEST_F(StrTest, EscapeParseDecodesEscapes) {
  Parsed p = parse_full("\\x41\\n");
  EXPECT_EQ(p.bytes, "\x41\x0A");
  EXPECT_EQ(p.size, 3u);
  EXPECT_EQ(parse_full("\\101").bytes, "A");
  EXPECT_EQ(parse_full("\\0").bytes, std::string(1, '\0'));
  EXPECT_EQ(parse_full("\\1234").bytes, "S4") << "at most three octal digits";
  EXPECT_EQ(parse_full("\\a\\b\\f\\n\\r\\t\\v").bytes, "\a\b\f\n\r\t\v");
  EXPECT_EQ(parse_full("\\\\\\\"\\'\\?\\q").bytes, "\\\"'?q");
  EXPECT_EQ(parse_full("\\x4g").bytes, "\x04g");
  EXPECT_EQ(parse_full("\\x414").bytes, "A4") << "at most two hex digits";
  EXPECT_EQ(parse_full("\\u41").bytes, "A");
  EXPECT_EQ(parse_full("\\u00E9").bytes, "\xC3\xA9");
  EXPECT_EQ(parse_full("\\u20aC1").bytes, "\xE2\x82\xAC" "1");
  EXPECT_EQ(parse_full("a\\uFFFFb").bytes, "ab") << "\\uFFFF gives nothing";
  EXPECT_EQ(parse_full("\\777").bytes, "\xC7\xBF") << "octal 511 as UTF-8";
  EXPECT_EQ(parse_full("\\377").bytes, "\xFF");
  EXPECT_EQ(parse_full("end\\").bytes, "end\\") << "a final backslash stays";
  EXPECT_EQ(parse_full("").size, 1u);
  size_t n = 5;
  char buf[5] = "zzzz";
  ASSERT_EQ(vepra_str_escape_parse(buf, &n, "abc", -3, 0, 0), nullptr);
  EXPECT_EQ(n, 1u);
  EXPECT_STREQ(buf, "");
}

TEST_F(StrTest, EscapeParseWideMode) {
  EXPECT_EQ(parse_full("a\\x41", true).bytes, std::string("a\0A\0", 4));
  EXPECT_EQ(parse_full("\\u00E9", true).bytes, "\xC3\xA9") << "\\u of 128+ is UTF-8 in wide mode too";
  EXPECT_EQ(parse_full("\\u41", true).bytes, std::string("A\0", 2));
  EXPECT_EQ(parse_full("\x82", true, true).bytes, "\xE9" + std::string(1, '\0'));
  EXPECT_EQ(parse_full("\xB0", true, true).bytes, "\x91\x25") << "U+2591 low byte first";
  EXPECT_EQ(parse_full("\x82", true, false).bytes, "\x82" + std::string(1, '\0'));
  EXPECT_EQ(parse_full("\x82", false, true).bytes, "\x82") << "the table only widens";
  Parsed p = parse_full("ab", true);
  EXPECT_EQ(p.size, 5u) << "one terminator byte in wide mode too";
}

TEST_F(StrTest, EscapeParseErrors) {
  EXPECT_EQ(parse("ab\\xg", 16).error,
            "Error(120064): No characters matched when scanning Hex number. ");
  EXPECT_EQ(parse("\\u", 16).error,
            "Error(120064): No characters matched when scanning Hex number. ");
  // UTF-8 that does not fit fails with a bare code-0 record; plain bytes
  // that do not fit are dropped silently.
  Parsed p = parse("ab\\u20AC", 4);
  EXPECT_EQ(p.error, "Error: Unknown Vepra error (code=0) ");
  EXPECT_EQ(p.bytes, "ab");
  p = parse("abcdef", 4);
  EXPECT_EQ(p.error, "");
  EXPECT_EQ(p.bytes, "abc");
  EXPECT_EQ(p.size, 7u);
  size_t n = 3;
  vepra_error_t *e = vepra_str_escape_parse(nullptr, &n, "\\u20AC", 6, 0, 0);
  EXPECT_EQ(take_printed(e), "Error: Unknown Vepra error (code=0) ") << "measuring with a size";
  EXPECT_NE(vepra_str_escape_parse(nullptr, nullptr, "a", 1, 0, 0), nullptr);
  vepra_error_clear(vepra_str_escape_parse(nullptr, nullptr, "a", 1, 0, 0));
}

TEST_F(StrTest, EscapeUnparseWritesCText) {
  EXPECT_EQ(unparse_full("\t\"\x01"), "\\t\\\"\\x01");
  EXPECT_EQ(unparse(std::string("\t\"\x01"), 9).size, 9u);
  EXPECT_EQ(unparse_full(std::string("\a\b\t\n\v\f\r\0\x7F\xFF'\\ ok", 15)),
            "\\a\\b\\t\\n\\v\\f\\r\\x00\\x7F\\xFF\\'\\\\ ok");
  Parsed p = unparse("ab\"", 3);
  EXPECT_EQ(p.error, "Error(120066): Buffer is too small. ");
  EXPECT_EQ(p.bytes, "ab");
  EXPECT_EQ(p.size, 3u);
  p = unparse("\x01", 4);
  EXPECT_EQ(p.error, "Error(120066): Buffer is too small. ");
  EXPECT_EQ(p.bytes, "");
  EXPECT_EQ(p.size, 1u);
  EXPECT_EQ(unparse("", 0).error, "Error(120066): Buffer is too small. ");
}

// Random bytes: unparsing then parsing gives the bytes back, every measured
// size is what a buffer of that size receives, and no size ever lets either
// function write past it.
TEST_F(StrTest, EscapeRoundTripAndSizes) {
  std::mt19937 rng(1);
  std::uniform_int_distribution<int> byte(0, 255), len(0, 24);
  const char pieces[] = "\\xu0123456789ABCDEFabcdef7\"'?";
  std::uniform_int_distribution<int> piece(0, sizeof pieces - 2);
  for (int round = 0; round < 3000; ++round) {
    std::string src;
    for (int n = len(rng); n > 0; --n) src += static_cast<char>(byte(rng));
    std::string text = unparse_full(src);
    EXPECT_EQ(parse_full(text).bytes, src);
    for (size_t size = 0; size <= text.size() + 1; ++size) {
      Parsed cut = unparse(src, size);
      ASSERT_TRUE(text.compare(0, cut.bytes.size(), cut.bytes) == 0);
      ASSERT_EQ(cut.error.empty(), size > text.size());
    }

    // Escape-heavy input in both modes: measuring with size 0 and writing
    // with the measured size agree; smaller sizes never overflow.
    std::string esc;
    for (int n = len(rng); n > 0; --n) esc += pieces[piece(rng)];
    for (bool wide : {false, true}) {
      size_t need = 0;
      vepra_error_t *e = vepra_str_escape_parse(nullptr, &need, esc.data(),
                                                static_cast<ptrdiff_t>(esc.size()), wide, true);
      if (e != nullptr) {
        vepra_error_clear(e);
        continue;
      }
      EXPECT_EQ(parse(esc, need, wide, true).size, need) << esc;
      for (size_t size = 1; size < need; ++size) parse(esc, size, wide, true);
    }
  }
}

TEST_F(StrTest, CharSetClassesMatchCtype) {
  for (int c = 0; c < 128; ++c) {
    uint32_t k = CharSet[c];
    EXPECT_EQ((k & 0x02) != 0, std::isdigit(c) != 0) << c;
    EXPECT_EQ((k & 0x04) != 0, std::isxdigit(c) && std::isalpha(c)) << c;
    EXPECT_EQ((k & 0x01) != 0, std::isalpha(c) || c == '_') << c;
    EXPECT_EQ((k & 0x40) != 0, std::isspace(c) && c != '\n') << c;
    if (std::ispunct(c) && c != '$' && c != '@' && c != '`' && c != '_' && c != '\\') {
      EXPECT_NE(k & 0x30, 0u) << c;
    }
  }
  EXPECT_EQ(CharSet['?'], 0x18u);
  EXPECT_EQ(CharSet['\\'], 0x08u);
  EXPECT_EQ(CharSet['\n'], 0x08u);
  EXPECT_EQ(CharSet[0], 0x08u);
  EXPECT_EQ(CharSet['~'], 0x10u);
  EXPECT_EQ(CharSet['|'], 0x20u);
  for (int c = 128; c < 260; ++c)
    EXPECT_EQ(CharSet[c], (c <= 154 || (c >= 160 && c <= 167)) ? 0x01u : 0u) << c;
}

TEST_F(StrTest, UniCodeIsCodePage437) {
  iconv_t cd = iconv_open("UTF-32LE", "IBM437");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  for (int c = 0; c < 256; ++c) {
    char in = static_cast<char>(c);
    uint32_t out = 0;
    char *ip = &in, *op = reinterpret_cast<char *>(&out);
    size_t il = 1, ol = sizeof out;
    ASSERT_NE(iconv(cd, &ip, &il, &op, &ol), static_cast<size_t>(-1)) << c;
    EXPECT_EQ(UniCode[c], out) << "byte " << c;
  }
  iconv_close(cd);
}

TEST_F(StrTest, Int64ToBase62) {
  char buf[80];
  EXPECT_EQ(vepra_str_int64_to_base62(-255, 16, buf, sizeof buf), 3);
  EXPECT_STREQ(buf, "-FF");
  EXPECT_EQ(vepra_str_int64_to_base62(62, 62, buf, sizeof buf), 2);
  EXPECT_STREQ(buf, "10");
  EXPECT_EQ(vepra_str_int64_to_base62(0, 2, buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "0");
  EXPECT_EQ(vepra_str_int64_to_base62(3843, 62, buf, sizeof buf), 2);
  EXPECT_STREQ(buf, "zz");
  std::strcpy(buf, "keep");
  EXPECT_EQ(vepra_str_int64_to_base62(5, 1, buf, sizeof buf), 0);
  EXPECT_EQ(vepra_str_int64_to_base62(5, 63, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "keep");
  EXPECT_EQ(vepra_str_int64_to_base62(INT64_MIN, 2, buf, sizeof buf), 65);
  EXPECT_EQ(std::string(buf), "-1" + std::string(63, '0'));
  EXPECT_EQ(vepra_str_int64_to_base62(123456, 10, buf, 4), 6) << "strlcpy contract";
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(vepra_str_int64_to_base62(123456, 10, nullptr, 0), 6);

  // Against snprintf in the bases it knows, and round trips in every base.
  std::mt19937_64 rng(9);
  for (int round = 0; round < 2000; ++round) {
    auto v = static_cast<int64_t>(rng() >> (rng() % 64));
    if (round % 2) v = -v;
    char want[80];
    const char *sign = v < 0 ? "-" : "";
    unsigned long long mag = v < 0 ? 0ULL - static_cast<unsigned long long>(v)
                                   : static_cast<unsigned long long>(v);
    std::snprintf(want, sizeof want, "%s%llX", sign, mag);
    vepra_str_int64_to_base62(v, 16, buf, sizeof buf);
    EXPECT_STREQ(buf, want);
    std::snprintf(want, sizeof want, "%s%llo", sign, mag);
    vepra_str_int64_to_base62(v, 8, buf, sizeof buf);
    EXPECT_STREQ(buf, want);
    for (int base = 2; base <= 62; ++base) {
      for (int64_t x : {v, INT64_MIN, INT64_MAX}) {
        int n = vepra_str_int64_to_base62(x, base, buf, sizeof buf);
        ASSERT_EQ(n, static_cast<int>(std::strlen(buf)));
        int64_t back = 0;
        char *end = nullptr;
        ASSERT_EQ(vepra_str_base62_to_int64(buf, &end, base, &back), nullptr);
        ASSERT_EQ(back, x) << buf << " base " << base;
        ASSERT_EQ(end, buf + n);
      }
    }
  }
}

TEST_F(StrTest, Base62ToInt64ReadsMixedCase) {
  const char *s = "ff";
  char *end = nullptr;
  int64_t v = -1;
  ASSERT_EQ(vepra_str_base62_to_int64(s, &end, 16, &v), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(end, s);
  ASSERT_EQ(vepra_str_base62_to_int64("FF", nullptr, 16, &v), nullptr);
  EXPECT_EQ(v, 255);
  ASSERT_EQ(vepra_str_base62_to_int64("zz", nullptr, 62, &v), nullptr);
  EXPECT_EQ(v, 3843);
  ASSERT_EQ(vepra_str_base62_to_int64("  -0x1Fg", &end, 0, &v), nullptr);
  EXPECT_EQ(v, -31);
  EXPECT_STREQ(end, "g");
  ASSERT_EQ(vepra_str_base62_to_int64("0777", nullptr, 0, &v), nullptr);
  EXPECT_EQ(v, 511);
  s = "0xZ";
  ASSERT_EQ(vepra_str_base62_to_int64(s, &end, 16, &v), nullptr);
  EXPECT_EQ(v, 0);
  EXPECT_EQ(end, s) << "no digit after the prefix: nothing was read";
  ASSERT_EQ(vepra_str_base62_to_int64("12", &end, 99, &v), nullptr);
  EXPECT_EQ(v, 0);

  s = "zzzzzzzzzzzzzzzzzzzzz!";
  vepra_error_t *e = vepra_str_base62_to_int64(s, &end, 62, &v);
  EXPECT_EQ(take_printed(e),
            "Error(120062): 'zzzzzzzzzzzzzzzzzzzzz!' does not fit into 64-bit signed integer. ");
  EXPECT_EQ(v, INT64_MAX);
  EXPECT_EQ(*end, '!') << "digits after the overflow are consumed";
  vepra_error_clear(vepra_str_base62_to_int64("-9223372036854775809", nullptr, 10, &v));
  EXPECT_EQ(v, INT64_MIN);
}

// Bases 2 to 36 on digits and capitals agree with the C library's strtoll:
// value, end pointer and overflow.
TEST_F(StrTest, Base62ToInt64MatchesStrtoll) {
  std::mt19937 rng(13);
  const char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  std::uniform_int_distribution<int> digit(0, 35), len(0, 30), coin(0, 7), base_of(2, 36);
  for (int round = 0; round < 40000; ++round) {
    int base = round % 5 == 0 ? 0 : base_of(rng);
    std::string s;
    if (coin(rng) == 0) s += "  ";
    if (coin(rng) < 2) s += "+-"[coin(rng) % 2];
    if (coin(rng) == 0) s += "0X";
    // Mostly digits valid in the base, so that long runs overflow.
    int limit = base == 0 ? 10 : base;
    std::uniform_int_distribution<int> valid(0, limit - 1);
    for (int n = len(rng); n > 0; --n) s += alphabet[coin(rng) == 0 ? digit(rng) : valid(rng)];
    errno = 0;
    char *want_end = nullptr;
    long long want = std::strtoll(s.c_str(), &want_end, base);
    bool overflow = errno == ERANGE;
    char *end = nullptr;
    int64_t got = 12345;
    vepra_error_t *e = vepra_str_base62_to_int64(s.c_str(), &end, base, &got);
    EXPECT_EQ(e != nullptr, overflow) << s << " base " << base;
    vepra_error_clear(e);
    EXPECT_EQ(got, want) << s << " base " << base;
    // A 0X prefix without a hex digit after it: strtoll reads the 0, this
    // reader reads no digit at all.
    const char *p = s.c_str() + s.find_first_not_of(" +-");
    bool bare_prefix = (base == 0 || base == 16) && std::strncmp(p, "0X", 2) == 0 &&
                       !std::isxdigit(static_cast<unsigned char>(p[2]));
    EXPECT_EQ(end, bare_prefix ? s.c_str() : want_end) << s << " base " << base;
  }
}

}  // namespace
