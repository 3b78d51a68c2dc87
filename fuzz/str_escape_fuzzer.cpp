// Escape parsing and unparsing: sizes are exact, nothing is written past
// the given size, and unparse followed by parse gives the original bytes.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "vepra_error.h"
#include "vepra_str.h"

namespace {

// One escape call on fixed input. It writes into a heap block of exactly
// size bytes, so that the sanitizer sees any write past it; size 0 passes
// no block and measures.
struct Escape {
  bool unparse;
  const char *src;
  size_t len;
  int wide = 0, table = 0;

  vepra_error_t *operator()(size_t size, size_t *stored, std::string *out = nullptr) const {
    std::unique_ptr<char[]> buf(size > 0 ? new char[size] : nullptr);
    *stored = size;
    auto n = static_cast<ptrdiff_t>(len);
    vepra_error_t *e = unparse ? vepra_str_escape_unparse(buf.get(), stored, src, n)
                               : vepra_str_escape_parse(buf.get(), stored, src, n, wide, table);
    if (out != nullptr) out->assign(buf.get(), size);
    return e;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool initialized = vepra_initialize() == 0;
  if (!initialized || size < 1) return 0;
  const char *src = reinterpret_cast<const char *>(data + 1);
  const Escape parse{false, src, size - 1, data[0] & 1, (data[0] >> 1) & 1};
  const Escape unparse{true, src, size - 1};
  const size_t cut = data[0] >> 2;
  size_t need = 0, stored = 0;
  std::string text, back;

  // Parse: measure with no limit, then write with the measured size; a
  // smaller size still gives terminated output.
  if (vepra_error_t *e = parse(0, &need)) {
    vepra_error_clear(e);
  } else {
    if (parse(need, &stored, &text) != nullptr || stored != need || text.back() != '\0')
      std::abort();
    if (cut > 0 && cut < need) {
      vepra_error_clear(parse(cut, &stored, &text));
      if (text.find('\0') == std::string::npos) std::abort();
    }
  }

  // Unparse exactly, then parse the text back in narrow mode; a smaller
  // size makes unparse fail.
  if (unparse(0, &need) != nullptr || unparse(need, &stored, &text) != nullptr || stored != need)
    std::abort();
  const Escape reparse{false, text.data(), need - 1};
  if (reparse(0, &need) != nullptr || need != size || reparse(need, &stored, &back) != nullptr ||
      back.compare(0, size - 1, src, size - 1) != 0)
    std::abort();
  if (cut > 0 && cut < text.size()) {
    vepra_error_t *e = unparse(cut, &stored);
    if (e == nullptr) std::abort();
    vepra_error_clear(e);
  }
  return 0;
}
