// Helpers shared by the string conversions, the tokenizer and the typed
// parser.
#ifndef VEPRA_SRC_TEXT_TEXT_INTERNAL_HPP
#define VEPRA_SRC_TEXT_TEXT_INTERNAL_HPP

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace vepra::detail {

// Checked conversion of a whole string with a strtol-like function
// conv(s, &end). Returns 0 and stores the value on success; the errno value
// when the conversion overflowed (ERANGE) or set errno while yielding zero;
// -1 when nothing was consumed or text follows the number. *out is only
// written on success.
template <typename T, typename Conv>
int convert_whole(const char *s, T *out, Conv conv) noexcept {
  int saved = errno;
  errno = 0;
  char *end = nullptr;
  T value = conv(s, &end);
  int err = errno;
  errno = saved;
  if (err == ERANGE || (value == 0 && err != 0)) return err;
  if (end == s || *end != '\0') return -1;
  *out = value;
  return 0;
}

inline int convert_long(const char *s, long *out) noexcept {
  return convert_whole(s, out, [](const char *p, char **e) { return std::strtol(p, e, 10); });
}

inline int convert_int64(const char *s, int64_t *out) noexcept {
  return convert_whole(s, out, [](const char *p, char **e) {
    return static_cast<int64_t>(std::strtoll(p, e, 10));
  });
}

inline int convert_double(const char *s, double *out) noexcept {
  return convert_whole(s, out, [](const char *p, char **e) { return std::strtod(p, e); });
}

// A set of bytes given as a string (a separator set); the terminator is
// never a member. A null string is the empty set.
class ByteSet {
 public:
  explicit ByteSet(const char *chars) noexcept {
    if (chars == nullptr) return;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(chars); *p != 0; ++p)
      bits_[*p >> 6] |= uint64_t{1} << (*p & 63);
  }
  bool has(char c) const noexcept {
    auto b = static_cast<unsigned char>(c);
    return ((bits_[b >> 6] >> (b & 63)) & 1) != 0;
  }
  bool empty() const noexcept { return (bits_[0] | bits_[1] | bits_[2] | bits_[3]) == 0; }

 private:
  uint64_t bits_[4] = {};
};

}  // namespace vepra::detail

#endif  // VEPRA_SRC_TEXT_TEXT_INTERNAL_HPP
