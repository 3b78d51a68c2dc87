// The typed parser on arbitrary lines: the counters agree with the stored
// tokens and every token is of a known kind with its member set.
#include <cstdint>
#include <cstdlib>

#include "str_fuzz_input.hpp"
#include "vepra_prsd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  apr_pool_t *pool = vepra_fuzz::fuzz_pool();
  vepra_fuzz::TextInput in;
  if (pool == nullptr || !vepra_fuzz::split_input(data, size, &in)) return 0;
  vepra_prsd_t rec;
  vepra_prsd_clear_p(&rec);
  for (const std::string &line : in.lines) {
    if (vepra_prsd_parse_p(&rec, line.c_str(), in.separators.c_str(), pool) != 0) std::abort();
    if (rec.state > VEPRA_PRSD_CONTINUED) std::abort();
  }
  uint32_t counts[4] = {};
  for (int k = 0; k < rec.n_tokens; ++k) {
    const vepra_prsd_token_t &t = rec.tokens[k];
    if (t.kind < 1 || t.kind > 3) std::abort();
    if (t.kind == VEPRA_PRSD_STRING && (t.value_string == nullptr || *t.value_string == '\0'))
      std::abort();
    ++counts[t.kind];
  }
  if (counts[1] != rec.n_integer || counts[2] != rec.n_double || counts[3] != rec.n_string)
    std::abort();
  apr_pool_clear(pool);
  return 0;
}
