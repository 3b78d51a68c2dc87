// Checked number conversions, comparison, lengths, trimming, replacement
// and formatting into fresh blocks.
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "core/error_internal.hpp"
#include "core/testing.hpp"
#include "text/text_internal.hpp"
#include "vepra_str.h"

namespace {

using vepra::detail::checked_malloc;
using vepra::detail::checked_realloc;
using vepra::detail::make_error;

// The error of a failed conversion: status is what convert_whole returned.
vepra_error_t *conversion_error(int status, int code, const char *s, const char *what) noexcept {
  if (s == nullptr) s = "(null)";
  if (status > 0)
    return make_error(code, "Cannot convert string '%s' to %s: %s", s, what, std::strerror(status));
  return make_error(code, "Cannot convert string '%s' to %s", s, what);
}

// Converts all of s with convert and stores the result in *out (a long
// stored into an int keeps its low 32 bits); on failure *out is untouched.
template <typename T, typename Out>
vepra_error_t *convert_checked(const char *s, Out *out, int (*convert)(const char *, T *),
                               int code, const char *what) noexcept {
  T v{};
  int status = s == nullptr ? -1 : convert(s, &v);
  if (status != 0) return conversion_error(status, code, s, what);
  if (out != nullptr) *out = static_cast<Out>(v);
  return nullptr;
}

char *copy_of(const char *s, size_t len) noexcept {
  auto *out = static_cast<char *>(checked_malloc(len + 1));
  if (out != nullptr) std::memcpy(out, s, len + 1);
  return out;
}

// A malloc'ed text that grows geometrically, so building a result of n
// bytes costs O(n) however many pieces it is made of.
class Builder {
 public:
  explicit Builder(size_t capacity) noexcept
      : data_(static_cast<char *>(checked_malloc(capacity))), cap_(data_ ? capacity : 0) {}
  ~Builder() { std::free(data_); }
  Builder(const Builder &) = delete;
  Builder &operator=(const Builder &) = delete;

  bool append(const char *p, size_t n) noexcept {
    if (data_ == nullptr) return false;
    if (n > cap_ - len_ - 1) {
      size_t need = 0;
      if (__builtin_add_overflow(len_ + 1, n, &need)) return false;
      size_t grown = cap_ > SIZE_MAX / 2 ? SIZE_MAX : cap_ * 2;
      size_t cap = grown > need ? grown : need;
      auto *data = static_cast<char *>(checked_realloc(data_, cap));
      if (data == nullptr) return false;
      data_ = data;
      cap_ = cap;
    }
    std::memcpy(data_ + len_, p, n);
    len_ += n;
    return true;
  }
  // Terminates the text and hands it over; null when any step failed.
  char *release() noexcept {
    if (data_ == nullptr) return nullptr;
    data_[len_] = '\0';
    char *out = data_;
    data_ = nullptr;
    return out;
  }

 private:
  char *data_;
  size_t cap_;
  size_t len_ = 0;
};

// True when the n bytes at a and b are equal; n is small here, so a plain
// loop beats a call.
bool same_bytes(const char *a, const char *b, size_t n) noexcept {
  for (size_t i = 0; i < n; ++i)
    if (a[i] != b[i]) return false;
  return true;
}

// First occurrence of needle[0..n) in [p, end), or null. A single byte is
// found by memchr. Needles of up to 32 bytes are found 32 or 16 starts at a
// time where the vector unit allows: a start is a candidate when both the
// first and the last byte of the needle stand where they belong, and only
// candidates are compared, at most n bytes each. Longer needles go to
// memmem, which is linear in any case.
const char *find(const char *p, const char *end, const char *needle, size_t n) noexcept {
  if (static_cast<size_t>(end - p) < n) return nullptr;
  if (n == 1) return static_cast<const char *>(std::memchr(p, needle[0], static_cast<size_t>(end - p)));
  if (n > 32) return static_cast<const char *>(memmem(p, static_cast<size_t>(end - p), needle, n));
  const char *const stop = end - (n - 1);  // every start lies before stop
#if defined(__SSE2__)
  const __m128i first = _mm_set1_epi8(needle[0]);
  const __m128i last = _mm_set1_epi8(needle[n - 1]);
  // Bit i of the result: start q + i is a candidate.
  auto candidates = [&](const char *q) {
    const __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q));
    const __m128i tail = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + n - 1));
    return static_cast<uint32_t>(_mm_movemask_epi8(
        _mm_and_si128(_mm_cmpeq_epi8(head, first), _mm_cmpeq_epi8(tail, last))));
  };
  // Thirty-two starts a step, then sixteen; the last byte of the last load
  // is end[-1].
  for (size_t step = 32; step >= 16; step /= 2) {
    for (; static_cast<size_t>(stop - p) >= step; p += step) {
      uint32_t mask = candidates(p);
      if (step == 32) mask |= candidates(p + 16) << 16;
      for (; mask != 0; mask &= mask - 1) {
        const char *start = p + __builtin_ctz(mask);
        if (same_bytes(start + 1, needle + 1, n - 2)) return start;
      }
    }
  }
#endif
  // The starts left over, or all of them without the vector unit: by the
  // first byte, then a compare.
  while (p < stop) {
    p = static_cast<const char *>(std::memchr(p, needle[0], static_cast<size_t>(stop - p)));
    if (p == nullptr) return nullptr;
    if (same_bytes(p + 1, needle + 1, n - 1)) return p;
    ++p;
  }
  return nullptr;
}

}  // namespace

extern "C" {

vepra_error_t *vepra_str_to_double(const char *s, double *out) noexcept {
  return convert_checked(s, out, vepra::detail::convert_double, VEPRA_E_STR_TO_DOUBLE, "double");
}

vepra_error_t *vepra_str_to_integer(const char *s, int *out) noexcept {
  return convert_checked(s, out, vepra::detail::convert_long, VEPRA_E_STR_TO_INT, "integer");
}

vepra_error_t *vepra_str_to_int64(const char *s, int64_t *out) noexcept {
  return convert_checked(s, out, vepra::detail::convert_int64, VEPRA_E_STR_TO_INT, "int64");
}

int vepra_str_is_integer(const char *s) noexcept {
  if (s == nullptr) return 0;
  if (*s == '+' || *s == '-') ++s;
  if (*s == '\0') return 0;
  for (; *s != '\0'; ++s)
    if (*s < '0' || *s > '9') return 0;
  return 1;
}

int vepra_str_stricmp(const char *a, const char *b) noexcept {
  auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  if (a == nullptr) a = "";
  if (b == nullptr) b = "";
  for (;; ++a, ++b) {
    auto ca = static_cast<signed char>(fold(*a));
    auto cb = static_cast<signed char>(fold(*b));
    if (ca != cb || ca == 0) return ca - cb;
  }
}

size_t vepra_str_len(const char *s) noexcept { return s == nullptr ? 0 : std::strlen(s); }

size_t vepra_str_utf8_len(const char *s) noexcept {
  size_t n = 0;
  for (; s != nullptr && *s != '\0'; ++s)
    if ((static_cast<unsigned char>(*s) & 0xC0) != 0x80) ++n;
  return n;
}

char *vepra_str_trim(char *s) noexcept {
  if (s == nullptr || *s == '\0') return s;
  auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  char *begin = s;
  while (blank(*begin)) ++begin;
  char *end = begin + std::strlen(begin);
  while (end > begin && blank(end[-1])) --end;
  size_t n = static_cast<size_t>(end - begin);
  std::memmove(s, begin, n);
  s[n] = '\0';
  return s;
}

char *vepra_str_replace(const char *s, const char *from, const char *to) noexcept {
  if (s == nullptr) return nullptr;
  size_t slen = std::strlen(s);
  const char *hit = from != nullptr && to != nullptr ? std::strstr(s, from) : nullptr;
  if (hit == nullptr) return copy_of(s, slen);
  size_t flen = std::strlen(from);
  size_t tlen = std::strlen(to);
  Builder out(slen - flen + tlen + 1);
  size_t head = static_cast<size_t>(hit - s);
  if (!out.append(s, head) || !out.append(to, tlen) || !out.append(hit + flen, slen - head - flen))
    return nullptr;
  return out.release();
}

char *vepra_str_replace_all(const char *s, const char *from, const char *to) noexcept {
  if (s == nullptr) return nullptr;
  size_t slen = std::strlen(s);
  if (from == nullptr || to == nullptr || *from == '\0') return copy_of(s, slen);
  size_t flen = std::strlen(from);
  size_t tlen = std::strlen(to);
  // One scan of s: copy the text between occurrences and the replacement
  // for each. The search resumes after the occurrence, so replacement text
  // is never searched again.
  Builder out(slen + 1 + (tlen > flen ? slen / 2 : 0));
  const char *p = s;
  const char *end = s + slen;
  while (const char *hit = find(p, end, from, flen)) {
    if (!out.append(p, static_cast<size_t>(hit - p)) || !out.append(to, tlen)) return nullptr;
    p = hit + flen;
  }
  if (!out.append(p, static_cast<size_t>(end - p))) return nullptr;
  return out.release();
}

char *vepra_str_replace_char(char *s, char c, char r) noexcept {
  if (s == nullptr || c == '\0' || c == r) return s;
  for (char *p = s; (p = std::strchr(p, c)) != nullptr;) *p = r;
  return s;
}

int vepra_str_vasprintf(char **out, const char *format, va_list ap) noexcept {
  if (out == nullptr || format == nullptr) return -1;
  return rpl_vasprintf(out, format, ap);
}

int vepra_str_asprintf(char **out, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  int n = vepra_str_vasprintf(out, format, ap);
  va_end(ap);
  return n;
}

}  // extern "C"
