// Feeds arbitrary bytes to the operating-system name as its version file.
// The first input byte chooses the buffer size; the rest is the file, which
// is rewritten in place for every run. The name must stay terminated within
// the buffer and the bytes after it untouched.
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sys/mach_internal.hpp"
#include "fuzz_scratch_file.hpp"
#include "vepra_error.h"

namespace {

using vepra_fuzz::scratch_path;
using vepra_fuzz::write_input;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (vepra_initialize() != 0) std::abort();
  scratch_path("mach_os_name_fuzzer", ".plist");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || !write_input(data + 1, size - 1)) return 0;
  const int n = data[0] % 200 + 1;
  char buf[256];
  std::memset(buf, 0x5a, sizeof buf);
  const std::array<const char *, 2> paths = {scratch_path().c_str(), "/nonexistent"};
  if (vepra::detail::mach_os_name_from(buf, n, paths) != buf) std::abort();
  if (std::memchr(buf, '\0', static_cast<size_t>(n)) == nullptr) std::abort();
  for (size_t i = static_cast<size_t>(n); i < sizeof buf; ++i) {
    if (buf[i] != 0x5a) std::abort();
  }
  return 0;
}
