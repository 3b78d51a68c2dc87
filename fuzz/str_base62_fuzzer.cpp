// Base 2 to 62: every value survives a round trip through text in every
// base, and reading arbitrary text stays inside it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vepra_error.h"
#include "vepra_str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool initialized = vepra_initialize() == 0;
  if (!initialized || size < 1) return 0;

  uint64_t bits = 0;
  std::memcpy(&bits, data, size < 8 ? size : 8);
  const auto value = static_cast<int64_t>(bits);
  for (int base = 2; base <= 62; ++base) {
    char buf[80];
    int n = vepra_str_int64_to_base62(value, base, buf, sizeof buf);
    if (n <= 0 || static_cast<size_t>(n) != std::strlen(buf)) std::abort();
    char small[4];
    if (vepra_str_int64_to_base62(value, base, small, sizeof small) != n ||
        std::strncmp(small, buf, sizeof small - 1) != 0)
      std::abort();
    int64_t back = 0;
    char *end = nullptr;
    vepra_error_t *e = vepra_str_base62_to_int64(buf, &end, base, &back);
    if (e != nullptr || back != value || end != buf + n) std::abort();
  }

  // Arbitrary text in the base named by the first byte (0 and bad bases
  // included).
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const int base = data[0] % 64;
  int64_t v = 0;
  char *end = nullptr;
  vepra_error_t *e = vepra_str_base62_to_int64(text.c_str(), &end, base, &v);
  if (end < text.c_str() || end > text.c_str() + std::strlen(text.c_str())) std::abort();
  if (e != nullptr && v != INT64_MAX && v != INT64_MIN) std::abort();
  vepra_error_clear(e);
  return 0;
}
