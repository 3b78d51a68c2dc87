// Formatted output into buffers, fresh blocks and pools, and the bounded
// string copies.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <apr_pools.h>

#include "vepra_str.h"

extern "C" {

int rpl_vsnprintf(char *buf, size_t size, const char *format, va_list ap) noexcept {
  return std::vsnprintf(buf, size, format, ap);
}

int rpl_snprintf(char *buf, size_t size, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  int n = rpl_vsnprintf(buf, size, format, ap);
  va_end(ap);
  return n;
}

int rpl_vasprintf(char **out, const char *format, va_list ap) noexcept {
  va_list measure;
  va_copy(measure, ap);
  int n = rpl_vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (n < 0) return -1;
  auto *buf = static_cast<char *>(std::malloc(static_cast<size_t>(n) + 1));
  if (buf == nullptr) return -1;
  n = rpl_vsnprintf(buf, static_cast<size_t>(n) + 1, format, ap);
  *out = buf;
  return n;
}

int rpl_asprintf(char **out, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  int n = rpl_vasprintf(out, format, ap);
  va_end(ap);
  return n;
}

int vepra_str_snprintf(char *buf, size_t size, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  int n = rpl_vsnprintf(buf, size, format, ap);
  va_end(ap);
  return n;
}

char *vepra_str_pvsprintf(apr_pool_t *pool, const char *format, va_list ap) noexcept {
  va_list measure;
  va_copy(measure, ap);
  int n = rpl_vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (n < 0) return nullptr;
  auto *buf = static_cast<char *>(apr_palloc(pool, static_cast<size_t>(n) + 1));
  if (buf == nullptr) return nullptr;
  rpl_vsnprintf(buf, static_cast<size_t>(n) + 1, format, ap);
  return buf;
}

char *vepra_str_psprintf(apr_pool_t *pool, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  char *s = vepra_str_pvsprintf(pool, format, ap);
  va_end(ap);
  return s;
}

// Both take a null source as the empty text, and write nothing to a null
// destination (strlcat then reports it as full).
size_t vepra_str_strlcpy(char *dst, const char *src, size_t size) noexcept {
  if (src == nullptr) src = "";
  size_t len = std::strlen(src);
  if (size != 0 && dst != nullptr) {
    size_t n = len < size - 1 ? len : size - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
  }
  return len;
}

size_t vepra_str_strlcat(char *dst, const char *src, size_t size) noexcept {
  if (src == nullptr) src = "";
  size_t dlen = dst != nullptr ? strnlen(dst, size) : size;
  size_t slen = std::strlen(src);
  if (dlen == size) return size + slen;
  size_t n = slen < size - dlen - 1 ? slen : size - dlen - 1;
  std::memcpy(dst + dlen, src, n);
  dst[dlen + n] = '\0';
  return dlen + slen;
}

}  // extern "C"
