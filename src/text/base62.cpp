// Signed 64-bit integers to and from text in bases 2 to 62.
#include <cctype>
#include <cstdint>

#include "core/error_internal.hpp"
#include "vepra_str.h"

namespace {

constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// Value of c as a digit, or 62 when it is none.
unsigned digit_value(unsigned char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  if (c >= 'a' && c <= 'z') return c - 'a' + 36;
  return 62;
}

}  // namespace

extern "C" {

int vepra_str_int64_to_base62(int64_t value, int base, char *buf, size_t size) noexcept {
  if (base < 2 || base > 62) return 0;
  // 64 binary digits and a sign at most.
  char text[66];
  char *p = text + sizeof text;
  *--p = '\0';
  int64_t v = value;
  do {
    // Division of the value as it stands: a negative remainder is negated,
    // so INT64_MIN needs no special case.
    int64_t rem = v % base;
    *--p = kDigits[rem < 0 ? -rem : rem];
    v /= base;
  } while (v != 0);
  if (value < 0) *--p = '-';
  if (buf == nullptr) return static_cast<int>(text + sizeof text - 1 - p);
  return static_cast<int>(vepra_str_strlcpy(buf, p, size));
}

vepra_error_t *vepra_str_base62_to_int64(const char *s, char **end, int base,
                                         int64_t *out) noexcept {
  if (s == nullptr) {
    if (end != nullptr) *end = nullptr;
    if (out != nullptr) *out = 0;
    return nullptr;
  }
  const auto *p = reinterpret_cast<const unsigned char *>(s);
  while (std::isspace(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if ((base == 0 || base == 16) && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    p += 2;
    base = 16;
  } else if (base == 0) {
    base = *p == '0' ? 8 : 10;
  }
  bool valid_base = base >= 2 && base <= 62;
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  const uint64_t b = valid_base ? static_cast<uint64_t>(base) : 1;
  const uint64_t cutoff = limit / b;
  const uint64_t cutlim = limit % b;
  uint64_t acc = 0;
  bool overflow = false;
  const unsigned char *digits = p;
  for (unsigned d; valid_base && (d = digit_value(*p)) < b; ++p) {
    if (overflow || acc > cutoff || (acc == cutoff && d > cutlim)) {
      overflow = true;  // keep consuming the digits
    } else {
      acc = acc * b + d;
    }
  }
  if (end != nullptr)
    *end = const_cast<char *>(p == digits ? s : reinterpret_cast<const char *>(p));
  int64_t value;
  if (overflow) {
    value = negative ? INT64_MIN : INT64_MAX;
  } else {
    value = negative ? static_cast<int64_t>(0 - acc) : static_cast<int64_t>(acc);
  }
  if (out != nullptr) *out = value;
  if (overflow)
    return vepra::detail::make_error(VEPRA_E_STR_TO_INT,
                                     "'%s' does not fit into 64-bit signed integer.", s);
  return nullptr;
}

}  // extern "C"
