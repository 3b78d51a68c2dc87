// Input layout shared by the tokenizer and typed-parser fuzzers: the first
// byte gives the number (0 to 3) of separator bytes that follow, the rest
// is text split into lines at newlines.
#ifndef VEPRA_FUZZ_STR_FUZZ_INPUT_HPP
#define VEPRA_FUZZ_STR_FUZZ_INPUT_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <apr_pools.h>

#include "vepra_error.h"

namespace vepra_fuzz {

struct TextInput {
  std::string separators;  // up to the first NUL
  std::vector<std::string> lines;  // each up to its first NUL
};

inline bool split_input(const uint8_t *data, size_t size, TextInput *in) {
  if (size < 1) return false;
  size_t nsep = data[0] % 4;
  if (size < 1 + nsep) return false;
  in->separators = std::string(reinterpret_cast<const char *>(data + 1), nsep).c_str();
  std::string text(reinterpret_cast<const char *>(data + 1 + nsep), size - 1 - nsep);
  for (size_t start = 0, nl; start <= text.size(); start = nl + 1) {
    nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    in->lines.emplace_back(text.substr(start, nl - start).c_str());
  }
  return true;
}

// A pool under the initialised library, made once; the fuzzers clear it
// after each input.
inline apr_pool_t *fuzz_pool() {
  static apr_pool_t *pool = [] {
    apr_pool_t *p = nullptr;
    if (vepra_initialize() == 0) apr_pool_create(&p, vepra_pool);
    return p;
  }();
  return pool;
}

}  // namespace vepra_fuzz

#endif  // VEPRA_FUZZ_STR_FUZZ_INPUT_HPP
