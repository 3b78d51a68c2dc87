// The readers of outside text and bytes under one fuzzer: the first byte
// picks the target, the rest is its input. Each target checks what its
// reader promises besides not crashing.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "fuzz_common.hpp"
#include "sys/mach_internal.hpp"
#include "vepra_prsd.h"
#include "vepra_str.h"
#include "vepra_strlist.h"

namespace {

using vepra_fuzz::check;

// Base 2 to 62: every value survives a round trip through text in every
// base, a short buffer keeps the text's start, and reading arbitrary text
// in the base named by the first byte (0 and bad bases included) stays
// inside it.
void base62(const uint8_t *data, size_t size) {
  if (size < 1) return;
  uint64_t bits = 0;
  std::memcpy(&bits, data, size < 8 ? size : 8);
  const auto value = static_cast<int64_t>(bits);
  for (int base = 2; base <= 62; ++base) {
    char buf[80];
    const int n = vepra_str_int64_to_base62(value, base, buf, sizeof buf);
    check(n > 0 && static_cast<size_t>(n) == std::strlen(buf));
    char small[4];
    check(vepra_str_int64_to_base62(value, base, small, sizeof small) == n);
    check(std::strncmp(small, buf, sizeof small - 1) == 0);
    int64_t back = 0;
    char *end = nullptr;
    check(vepra_str_base62_to_int64(buf, &end, base, &back) == nullptr);
    check(back == value && end == buf + n);
  }
  const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  int64_t v = 0;
  char *end = nullptr;
  vepra_error_t *e = vepra_str_base62_to_int64(text.c_str(), &end, data[0] % 64, &v);
  check(end >= text.c_str() && end <= text.c_str() + std::strlen(text.c_str()));
  check(e == nullptr || v == INT64_MAX || v == INT64_MIN);
  vepra_error_clear(e);
}

// One escape call on src into a heap block of exactly size bytes, so that
// the sanitizer sees any write past it; size 0 passes no block and measures.
vepra_error_t *escape_into(bool unparse, std::string_view src, size_t size, size_t *stored,
                           std::string *out = nullptr, int wide = 0, int table = 0) {
  std::unique_ptr<char[]> buf(size > 0 ? new char[size] : nullptr);
  *stored = size;
  const auto n = static_cast<ptrdiff_t>(src.size());
  vepra_error_t *e = unparse
                         ? vepra_str_escape_unparse(buf.get(), stored, src.data(), n)
                         : vepra_str_escape_parse(buf.get(), stored, src.data(), n, wide, table);
  if (out != nullptr) out->assign(buf.get(), size);
  return e;
}

// Escapes: sizes are exact, nothing is written past the given size, and
// unparse followed by parse gives the original bytes.
void escape(const uint8_t *data, size_t size) {
  if (size < 1) return;
  const std::string_view src(reinterpret_cast<const char *>(data + 1), size - 1);
  const int wide = data[0] & 1, table = (data[0] >> 1) & 1;
  size_t need = 0, stored = 0;
  std::string text, back;

  // Parse: measure with no limit, then write with the measured size.
  if (vepra_error_t *e = escape_into(false, src, 0, &need, nullptr, wide, table)) {
    vepra_error_clear(e);
  } else {
    check(escape_into(false, src, need, &stored, &text, wide, table) == nullptr && stored == need &&
          text.back() == '\0');
  }

  // Unparse exactly, then parse the text back in narrow mode.
  check(escape_into(true, src, 0, &need) == nullptr);
  check(escape_into(true, src, need, &stored, &text) == nullptr && stored == need);
  const std::string_view escaped(text.data(), need - 1);
  check(escape_into(false, escaped, 0, &need) == nullptr && need == size);
  check(escape_into(false, escaped, need, &stored, &back) == nullptr);
  check(back.compare(0, size - 1, src) == 0);
}

// The same lines through the tokenizer and the typed parser: the first
// byte gives the number (0 to 3) of separator bytes that follow, the rest is
// split into lines at newlines; both are cut at their first NUL. Tokens are
// never empty, and the parser's counters agree with its tokens, each of a
// known kind with its member set.
void text_lines(const uint8_t *data, size_t size) {
  const size_t nsep = size > 0 ? data[0] % 4 : 0;
  if (size < 1 + nsep) return;
  const std::string separators =
      std::string(reinterpret_cast<const char *>(data + 1), nsep).c_str();
  const std::string_view text(reinterpret_cast<const char *>(data + 1 + nsep), size - 1 - nsep);
  apr_pool_t *pool = vepra_fuzz::cleared_pool();
  vepra_strlist_t *src = nullptr, *dst = nullptr;
  vepra_strlist_create(&src, pool);
  vepra_strlist_create(&dst, pool);
  vepra_prsd_t rec;
  vepra_prsd_clear_p(&rec);
  for (size_t start = 0, nl; start <= text.size(); start = nl + 1) {
    nl = std::min(text.find('\n', start), text.size());
    const std::string line = std::string(text.substr(start, nl - start)).c_str();
    vepra_error_clear(vepra_strlist_addlast(src, line.c_str(), pool));
    check(vepra_prsd_parse_p(&rec, line.c_str(), separators.c_str(), pool) == 0);
    check(rec.state <= VEPRA_PRSD_CONTINUED);
  }
  vepra_error_t *e = vepra_strlist_tokenize(src, dst, separators.c_str(), pool);
  check(e == nullptr || separators.empty());
  vepra_error_clear(e);
  for (size_t k = 0, n = vepra_strlist_nelts(dst); k < n; ++k)
    check(*vepra_strlist_getn(dst, k) != '\0');
  uint32_t counts[4] = {};
  for (int k = 0; k < rec.n_tokens; ++k) {
    const vepra_prsd_token_t &t = rec.tokens[k];
    check(t.kind >= 1 && t.kind <= 3);
    check(t.kind != VEPRA_PRSD_STRING || (t.value_string != nullptr && *t.value_string != '\0'));
    ++counts[t.kind];
  }
  check(counts[1] == rec.n_integer && counts[2] == rec.n_double && counts[3] == rec.n_string);
}

// The error-chain reader: whatever chain comes back is whole; written and
// read again, it gives the same checksum.
void error_chain(const uint8_t *data, size_t size) {
  vepra_error_t *chain = nullptr;
  check(vepra_error_deserialize(&chain, data, size) == &chain);
  if (chain == nullptr) return;
  void *image = nullptr;
  size_t length = 0;
  vepra_error_serialize(chain, &image, &length);
  vepra_error_t *again = nullptr;
  vepra_error_deserialize(&again, image, length);
  check(again != nullptr && vepra_error_crc16(again) == vepra_error_crc16(chain));
  std::free(image);
  vepra_error_clear(again);
  vepra_error_clear(chain);
}

// The operating-system name read from a version file: the first byte gives
// the buffer size, the rest is the file. The name stays terminated within
// the buffer and the bytes after it are untouched.
void os_name(const uint8_t *data, size_t size) {
  if (size == 0 || !vepra_fuzz::write_input(data + 1, size - 1)) return;
  const int n = data[0] % 200 + 1;
  char buf[256];
  std::memset(buf, 0x5a, sizeof buf);
  const std::array<const char *, 2> paths = {vepra_fuzz::scratch_path().c_str(), "/nonexistent"};
  check(vepra::detail::mach_os_name_from(buf, n, paths) == buf);
  check(std::memchr(buf, '\0', static_cast<size_t>(n)) != nullptr);
  for (size_t i = static_cast<size_t>(n); i < sizeof buf; ++i) check(buf[i] == 0x5a);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Lines twice, so that the text corpus keeps its numbering.
  static constexpr void (*kTargets[])(const uint8_t *, size_t) = {
      base62, escape, text_lines, text_lines, error_chain, os_name};
  vepra_fuzz::initialize();
  if (size > 0) kTargets[data[0] % std::size(kTargets)](data + 1, size - 1);
  return 0;
}
