// Escape parsing and unparsing: sizes are exact, nothing is written past
// the given size, and unparse followed by parse gives the original bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vepra_error.h"
#include "vepra_str.h"

namespace {

// Parses into a heap block of exactly size bytes, so that the sanitizer
// sees any write past it.
vepra_error_t *parse_into(std::vector<char> &out, size_t size, size_t *stored, const char *src,
                          size_t len, int wide, int table) {
  char *buf = size > 0 ? static_cast<char *>(std::malloc(size)) : nullptr;
  *stored = size;
  vepra_error_t *e = vepra_str_escape_parse(buf, stored, src, static_cast<ptrdiff_t>(len), wide,
                                            table);
  out.assign(buf, buf + (size > 0 ? size : 0));
  std::free(buf);
  return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool initialized = vepra_initialize() == 0;
  if (!initialized || size < 1) return 0;
  const int wide = data[0] & 1;
  const int table = (data[0] >> 1) & 1;
  const size_t cut = data[0] >> 2;
  const char *src = reinterpret_cast<const char *>(data + 1);
  const size_t len = size - 1;

  // Parse: measure with no limit, then write with the measured size.
  size_t need = 0;
  vepra_error_t *e = vepra_str_escape_parse(nullptr, &need, src, static_cast<ptrdiff_t>(len),
                                            wide, table);
  std::vector<char> full;
  if (e == nullptr) {
    size_t stored = 0;
    vepra_error_t *w = parse_into(full, need, &stored, src, len, wide, table);
    if (w != nullptr || stored != need || full[need - 1] != '\0') std::abort();
    if (cut < need) {
      std::vector<char> part;
      vepra_error_clear(parse_into(part, cut, &stored, src, len, wide, table));
      if (cut > 0 && std::memchr(part.data(), 0, cut) == nullptr) std::abort();
    }
  }
  vepra_error_clear(e);

  // Unparse, then parse back in narrow mode.
  size_t text_size = 0;
  if (vepra_str_escape_unparse(nullptr, &text_size, src, static_cast<ptrdiff_t>(len)) != nullptr)
    std::abort();
  char *text = static_cast<char *>(std::malloc(text_size));
  size_t stored = text_size;
  if (vepra_str_escape_unparse(text, &stored, src, static_cast<ptrdiff_t>(len)) != nullptr ||
      stored != text_size)
    std::abort();
  std::vector<char> back;
  size_t back_size = 0;
  if (vepra_str_escape_parse(nullptr, &back_size, text, static_cast<ptrdiff_t>(text_size - 1), 0,
                             0) != nullptr ||
      back_size != len + 1)
    std::abort();
  if (parse_into(back, back_size, &stored, text, text_size - 1, 0, 0) != nullptr ||
      std::memcmp(back.data(), src, len) != 0)
    std::abort();
  if (cut > 0 && cut < text_size) {
    char *small = static_cast<char *>(std::malloc(cut));
    stored = cut;
    vepra_error_t *s = vepra_str_escape_unparse(small, &stored, src, static_cast<ptrdiff_t>(len));
    if (s == nullptr) std::abort();
    vepra_error_clear(s);
    std::free(small);
  }
  std::free(text);
  return 0;
}
