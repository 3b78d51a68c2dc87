// Fuzzers whose target reads a file: each input is written to one scratch
// file of the process (under $TMPDIR), removed when the process ends.
#ifndef VEPRA_FUZZ_FUZZ_SCRATCH_FILE_HPP
#define VEPRA_FUZZ_FUZZ_SCRATCH_FILE_HPP

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vepra_fuzz {

// The scratch file's path: $TMPDIR/<stem>.<pid><suffix>. The first call
// fixes it and arranges its removal at exit.
inline const std::string &scratch_path(const char *stem = "", const char *suffix = "") {
  static const std::string path = [&] {
    const char *dir = std::getenv("TMPDIR");
    std::string p = std::string(dir != nullptr ? dir : "/tmp") + "/" + stem + "." +
                    std::to_string(getpid()) + suffix;
    std::atexit([] { std::remove(scratch_path().c_str()); });
    return p;
  }();
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

#endif  // VEPRA_FUZZ_FUZZ_SCRATCH_FILE_HPP
