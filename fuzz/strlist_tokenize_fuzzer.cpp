// The tokenizer on arbitrary elements and separator sets: every token is
// non-empty, and the tokens hold no more bytes than the elements.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "str_fuzz_input.hpp"
#include "vepra_strlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  apr_pool_t *pool = vepra_fuzz::fuzz_pool();
  vepra_fuzz::TextInput in;
  if (pool == nullptr || !vepra_fuzz::split_input(data, size, &in)) return 0;
  vepra_strlist_t *src = nullptr, *dst = nullptr;
  vepra_strlist_create(&src, pool);
  vepra_strlist_create(&dst, pool);
  size_t bytes = 0;
  for (const std::string &element : in.lines) {
    bytes += element.size();
    vepra_error_clear(vepra_strlist_addlast(src, element.c_str(), pool));
  }
  vepra_error_t *e = vepra_strlist_tokenize(src, dst, in.separators.c_str(), pool);
  if (e != nullptr && !in.separators.empty()) std::abort();
  vepra_error_clear(e);
  size_t total = 0;
  for (size_t k = 0, n = vepra_strlist_nelts(dst); k < n; ++k) {
    const char *t = vepra_strlist_getn(dst, k);
    if (t == nullptr || *t == '\0') std::abort();
    total += std::strlen(t);
  }
  if (total > bytes) std::abort();
  apr_pool_clear(pool);
  return 0;
}
