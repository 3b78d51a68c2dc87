// Feeds arbitrary bytes to the general image reader. The reader works on
// stdio streams by path, so each input is written to one scratch file that
// is rewritten in place for every run.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vepra_error.h"
#include "vepra_img.h"

namespace {

const std::string &scratch_path() {
  static const std::string path = [] {
    const char *dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr ? dir : "/tmp") + "/tiff_read_fuzzer." +
           std::to_string(getpid()) + ".tif";
  }();
  return path;
}

bool write_input(const uint8_t *data, size_t size) {
  FILE *f = std::fopen(scratch_path().c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (vepra_initialize() != 0) std::abort();
  std::atexit([] { std::remove(scratch_path().c_str()); });
  return 0;
}

// Reads the scratch file with vepra_img_read (flags -1) or with
// vepra_img_read_ex and the given flags, and checks the record.
void read_and_check(int flags) {
  vepra_img_t img{};
  vepra_error_t *e = flags < 0 ? vepra_img_read(scratch_path().c_str(), &img)
                               : vepra_img_read_ex(scratch_path().c_str(), &img,
                                                   static_cast<uint32_t>(flags), 0);
  if (e == nullptr) {
    // A successful read owns rows that cover the whole image.
    if (img.type != 1) std::abort();
    const uint32_t last_row = img.height - 1, last_col = img.width - 1;
    if (img.data8 != nullptr) img.data8[last_row][last_col] ^= 1;
    if (img.data16 != nullptr) img.data16[last_row][last_col] ^= 1;
    // What a flagged read accepted is what its flags allow.
    const bool strict = flags >= 0 && (flags & VEPRA_IMG_READ_STRICT) != 0;
    const bool header = flags >= 0 && (flags & VEPRA_IMG_READ_HEADER) != 0;
    if (strict && (img.compression != 1 || img.samples_per_pixel != 1)) std::abort();
    if (header && (img.data8 != nullptr || img.data16 != nullptr)) std::abort();
  } else if (img.data8 != nullptr || img.data16 != nullptr || img.strip_offsets != nullptr ||
             img.strip_byte_counts != nullptr || img.software != nullptr) {
    std::abort();  // a failed read must leave nothing behind
  }
  vepra_error_clear(e);
  vepra_img_free(&img);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!write_input(data, size)) return 0;
  read_and_check(-1);
  // The flagged reads, chosen by the header's fourth byte, which the
  // readers do not look at.
  const int flags = size > 3 ? data[3] & 7 : 0;
  read_and_check(flags);
  return 0;
}
