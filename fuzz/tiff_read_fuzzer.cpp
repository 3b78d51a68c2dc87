// Feeds arbitrary bytes to the image readers, which work on stdio streams by
// path: each input is written to one scratch file, rewritten in place per run.
#include <cstdint>

#include "fuzz_common.hpp"
#include "vepra_img.h"

using vepra_fuzz::check;
using vepra_fuzz::scratch_path;

// Reads the scratch file with vepra_img_read (flags -1) or with
// vepra_img_read_ex, the given flags and page, and checks the record.
void read_and_check(int flags, uint32_t page = 0) {
  vepra_img_t img{};
  vepra_error_t *e = flags < 0 ? vepra_img_read(scratch_path().c_str(), &img)
                               : vepra_img_read_ex(scratch_path().c_str(), &img,
                                                   static_cast<uint32_t>(flags), page);
  if (e == nullptr) {
    // A successful read owns rows that cover the whole image.
    check(img.type == 1);
    const uint32_t last_row = img.height - 1, last_col = img.width - 1;
    if (img.data8 != nullptr) img.data8[last_row][last_col] ^= 1;
    if (img.data16 != nullptr) img.data16[last_row][last_col] ^= 1;
    // What a flagged read accepted is what its flags allow: a decoding
    // read gives one sample of 8 or 16 bits in a compression it decodes.
    const bool decoding = flags >= 0 && ((flags & VEPRA_IMG_READ_STRICT) != 0 || page != 0);
    const bool header = flags >= 0 && (flags & VEPRA_IMG_READ_HEADER) != 0;
    const uint32_t c = img.compression;
    const bool decodable = c == 1 || c == 5 || c == 8 || c == 32773 || c == 32946 || c == 50000;
    const uint32_t bits = img.bits_per_sample[0];
    check(!decoding || (decodable && img.samples_per_pixel == 1 && (bits == 8 || bits == 16)));
    check(!decoding || header || img.width == 0 || img.height == 0 ||
          (bits == 8) == (img.data8 != nullptr));
    check(!header || (img.data8 == nullptr && img.data16 == nullptr));
  } else {
    // A failed read must leave nothing behind.
    check(img.data8 == nullptr && img.data16 == nullptr && img.strip_offsets == nullptr &&
          img.strip_byte_counts == nullptr && img.software == nullptr);
  }
  vepra_error_clear(e);
  vepra_img_free(&img);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_fuzz::initialize();
  if (!vepra_fuzz::write_input(data, size)) return 0;
  read_and_check(-1);
  // The plain flagged read chosen by the header's fourth byte (which readers do
  // not look at), then the decoding reads of pages 0 and 1 and of the directory.
  read_and_check(size > 3 ? data[3] & 7 : 0);
  read_and_check(VEPRA_IMG_READ_STRICT | VEPRA_IMG_READ_UNITLESS);
  read_and_check(VEPRA_IMG_READ_STRICT | VEPRA_IMG_READ_HEADER);
  read_and_check(0, 1);
  uint32_t pages = 0;
  vepra_error_clear(vepra_img_page_count(scratch_path().c_str(), &pages));
  return 0;
}
