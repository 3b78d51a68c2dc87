// Path helpers.
#include <cstring>

#include "vepra_str.h"
#include "vepra_util.h"

namespace {

// Copies [begin, end) into buf of size bytes, cut to fit.
char *copy_range(const char *begin, const char *end, char *buf, size_t size) noexcept {
  if (size == 0) return buf;
  size_t n = static_cast<size_t>(end - begin);
  if (n > size - 1) n = size - 1;
  std::memcpy(buf, begin, n);
  buf[n] = '\0';
  return buf;
}

char *current_dir(char *buf, size_t size) noexcept {
  static constexpr char kDot[] = ".";
  return copy_range(kDot, kDot + 1, buf, size);
}

// End of path with trailing slashes removed; a path of slashes only keeps
// its first one.
const char *strip_trailing_slashes(const char *path) noexcept {
  const char *end = path + std::strlen(path);
  while (end - path > 1 && end[-1] == '/') --end;
  return end;
}

}  // namespace

extern "C" {

char *vepra_util_basename(const char *path, char *buf, size_t size) noexcept {
  if (path == nullptr || *path == '\0') return current_dir(buf, size);
  const char *end = strip_trailing_slashes(path);
  const char *begin = end;
  while (begin > path && begin[-1] != '/') --begin;
  if (begin == end) --begin;  // the path is "/"
  return copy_range(begin, end, buf, size);
}

char *vepra_util_dirname(const char *path, char *buf, size_t size) noexcept {
  if (path == nullptr || *path == '\0') return current_dir(buf, size);
  const char *end = strip_trailing_slashes(path);
  while (end > path && end[-1] != '/') --end;  // drop the last component
  if (end == path) return current_dir(buf, size);
  while (end - path > 1 && end[-1] == '/') --end;  // and the slashes before it
  return copy_range(path, end, buf, size);
}

}  // extern "C"
