// What the fuzzers share: the invariant check, the library's initialisation,
// a reader of the input's bytes, a pool and a scratch file.
#ifndef VEPRA_FUZZ_FUZZ_COMMON_HPP
#define VEPRA_FUZZ_FUZZ_COMMON_HPP

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vepra_error.h"

namespace vepra_fuzz {

inline void check(bool ok) {
  if (!ok) std::abort();
}

// Initialises the library once; nothing can be fuzzed without it.
inline void initialize() {
  static const bool ready = vepra_initialize() == 0;
  check(ready);
}

// Hands out the input's bytes in order; 0 once they run out.
struct Bytes {
  const uint8_t *data;
  size_t size;
  size_t at = 0;
  bool more() const { return at < size; }
  unsigned next() { return at < size ? data[at++] : 0; }
};

// A pool under the library's, cleared on every call.
inline apr_pool_t *cleared_pool() {
  static apr_pool_t *pool = nullptr;
  if (pool == nullptr) check(apr_pool_create(&pool, vepra_pool) == APR_SUCCESS);
  apr_pool_clear(pool);
  return pool;
}

// The scratch file's path, $TMPDIR/vepra_fuzz.<pid>. Its removal at exit is
// registered once the path is made, so it runs before the path is destroyed.
inline const std::string &scratch_path() {
  static const char *dir = std::getenv("TMPDIR");
  static const std::string path =
      std::string(dir != nullptr ? dir : "/tmp") + "/vepra_fuzz." + std::to_string(getpid());
  [[maybe_unused]] static const int removal = std::atexit([] { std::remove(path.c_str()); });
  return path;
}

// Writes size bytes of data as the whole scratch file.
inline bool write_input(const uint8_t *data, size_t size) {
  FILE *f = std::fopen(scratch_path().c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

}  // namespace vepra_fuzz

#endif  // VEPRA_FUZZ_FUZZ_COMMON_HPP
