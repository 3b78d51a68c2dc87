// Writing the image record as a little-endian, uncompressed, single-strip
// TIFF file with a fixed layout: the 8-byte header, one directory of ten
// entries at offset 8, the Software text at 134, then the samples.
#include <sys/uio.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/error_internal.hpp"
#include "image/tiff_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"
#include "vepra_str.h"
#include "vepra_version.h"

using namespace vepra::detail;
using namespace vepra::detail::tiff;

namespace {

constexpr const char *kWriteContext = "Cannot write TIFF image.";
constexpr const char *kDarrContext = "Cannot convert double array to TIFF image.";

constexpr size_t kEntries = 10;
constexpr uint32_t kSoftwareOffset = 8 + 2 + kEntries * kEntrySize + 4;  // 134
constexpr size_t kSoftwareSize = 100;

// Bytes of pixel data an image of this size and depth writes.
uint64_t data_bytes(uint32_t width, uint32_t height, unsigned sample_bytes) noexcept {
  return uint64_t{width} * height * sample_bytes;
}

// The strip's offset and byte count are 32-bit fields: larger images have
// no valid layout.
vepra_error_t *check_size(uint32_t width, uint32_t height, unsigned bytes) noexcept {
  if (data_bytes(width, height, bytes) <= UINT32_MAX - kSoftwareOffset - kSoftwareSize) {
    return nullptr;
  }
  return make_error(VEPRA_E_TIFF_STRUCTURE, "Image of %u x %u pixels is too large for a TIFF file",
                    width, height);
}

vepra_error_t *write_all(FILE *f, const void *buf, size_t n) noexcept {
  return std::fwrite(buf, 1, n, f) == n ? nullptr : make_error(VEPRA_E_IO_WRITE);
}

// Writes the rows straight from the matrix, many rows a system call, after
// the stream's buffered header.
template <typename Sample>
vepra_error_t *write_rows(FILE *f, Sample *const *rows, uint32_t height, uint32_t width) noexcept {
  if (std::fflush(f) != 0) return make_error(VEPRA_E_IO_WRITE);
  const int fd = fileno(f);
  iovec batch[kRowBatch];
  int queued = 0;
  for (uint32_t r = 0; r < height; ++r) {
    batch[queued++] = iovec{rows[r], size_t{width} * sizeof(Sample)};
    if (queued == kRowBatch || r + 1 == height) {
      const bool ok = transfer_all(batch, queued, [fd](const iovec *iov, int n, uint64_t) {
        return writev(fd, iov, n);
      });
      if (!ok) return make_error(VEPRA_E_IO_WRITE);
      queued = 0;
    }
  }
  return nullptr;
}

uint8_t *put_entry(uint8_t *p, uint16_t tag, uint16_t type, uint32_t count,
                   uint32_t value) noexcept {
  store16(p, tag);
  store16(p + 2, type);
  store32(p + 4, count);
  // A SHORT stands in the low half of the value field.
  store32(p + 8, type == kShort ? value & 0xFFFFu : value);
  return p + kEntrySize;
}

// The writer behind both entry points: the header, the directory and the
// Software text in one write, then the rows.
vepra_error_t *write_tiff(const vepra_img_t *img, FILE *f) noexcept {
  const uint32_t depth = img->bits_per_sample[0];
  const unsigned bytes = sample_bytes(depth);
  if (vepra_error_t *e = check_size(img->width, img->height, bytes)) return e;
  const bool has_samples = bytes != 0 && img->width > 0 && img->height > 0;
  if (has_samples && (bytes == 1 ? img->data8 == nullptr : img->data16 == nullptr)) {
    return make_error(VEPRA_E_ASSERT, "Image of %u x %u pixels has no pixel rows", img->width,
                      img->height);
  }

  char software[kSoftwareSize] = {};
  vepra_str_snprintf(software, sizeof software, "VEPRA %s", vepra_version_string());
  const auto n = static_cast<uint32_t>(std::strlen(software));
  const uint32_t spp = img->samples_per_pixel & 0xFFFFu;
  // Depths without samples repeat the previous entry's value here.
  const uint32_t byte_count =
      bytes != 0 ? static_cast<uint32_t>(data_bytes(img->width, img->height, bytes)) : spp;

  uint8_t head[kSoftwareOffset + kSoftwareSize] = {'I', 'I', 42, 0};
  store32(head + 4, 8);
  store16(head + 8, kEntries);
  uint8_t *p = head + 10;
  p = put_entry(p, kImageWidth, kLong, 1, img->width);
  p = put_entry(p, kImageLength, kLong, 1, img->height);
  p = put_entry(p, kBitsPerSample, kShort, 1, depth);
  p = put_entry(p, kCompression, kShort, 1, 1);
  p = put_entry(p, kPhotometric, kShort, 1, static_cast<uint32_t>(img->photometric));
  p = put_entry(p, kStripOffsets, kLong, 1, kSoftwareOffset + n + 1);
  p = put_entry(p, kSamplesPerPixel, kShort, 1, spp);
  p = put_entry(p, kStripByteCounts, kLong, 1, byte_count);
  p = put_entry(p, kPlanarConfig, kShort, 1, 1);
  p = put_entry(p, kSoftware, kAscii, n + 1, kSoftwareOffset);
  store32(p, 0);
  std::memcpy(head + kSoftwareOffset, software, n + 1);
  if (vepra_error_t *e = write_all(f, head, kSoftwareOffset + n + 1)) return e;

  if (!has_samples) return nullptr;
  return bytes == 1 ? write_rows(f, img->data8, img->height, img->width)
                    : write_rows(f, img->data16, img->height, img->width);
}

// Closes the stream; a failure to flush it is a short write too.
vepra_error_t *close_file(File &file, vepra_error_t *e) noexcept {
  if (std::fclose(file.release()) != 0 && e == nullptr) return make_error(VEPRA_E_IO_WRITE);
  return e;
}

// Linear scaling of v from [min, max] to 0..65535; NaN becomes 0.
uint16_t scale_sample(double v, double min, double max) noexcept {
  const double range = max - min;
  double s = std::floor(std::fabs(v - min) * 65535.0 / range);
  // The product overflows for ranges near the largest doubles.
  if (std::isinf(s) && std::isfinite(v)) s = std::floor(std::fabs(v - min) / range * 65535.0);
  if (!(s >= 0.0)) return 0;
  return s >= 65535.0 ? uint16_t{65535} : static_cast<uint16_t>(s);
}

vepra_error_t *fill_scaled(uint16_t **dest, double **arr, unsigned rows, unsigned cols) noexcept {
  for (unsigned r = 0; r < rows; ++r) {
    if (arr[r] == nullptr) return make_error(VEPRA_E_ASSERT, "Row %u of the array is null", r);
  }
  double min = 1e300;
  double max = -1e300;
  for (unsigned r = 0; r < rows; ++r) {
    for (unsigned c = 0; c < cols; ++c) {
      // NaN compares false both ways and never becomes a bound.
      const double v = arr[r][c];
      if (v < min) min = v;
      if (v > max) max = v;
    }
  }
  if (max == min) return nullptr;  // the rows are already zero
  for (unsigned r = 0; r < rows; ++r) {
    for (unsigned c = 0; c < cols; ++c) dest[r][c] = scale_sample(arr[r][c], min, max);
  }
  return nullptr;
}

vepra_error_t *darr_to_tiff(vepra_img_t *img, FILE *f, double **arr, unsigned rows,
                            unsigned cols) noexcept {
  if (vepra_error_t *e = check_size(cols, rows, 2)) return e;
  if (rows > 0 && cols > 0) {
    if (arr == nullptr) return make_error(VEPRA_E_ASSERT, "No array given");
    void *matrix = nullptr;
    vepra_error_t *e = vepra_mem_matrix_alloc(&matrix, sizeof(uint16_t), 0,
                                              static_cast<int>(rows - 1), 0,
                                              static_cast<int>(cols - 1));
    img->data16 = static_cast<uint16_t **>(matrix);
    if (e != nullptr) return e;
    if (vepra_error_t *e2 = fill_scaled(img->data16, arr, rows, cols)) return e2;
  }
  return write_tiff(img, f);
}

}  // namespace

extern "C" {

vepra_error_t *vepra_img_write_tiff(const char *path, const vepra_img_t *img) noexcept {
  if (img == nullptr) return null_record(kWriteContext);
  File file;
  if (vepra_error_t *e = open_file(path, "wb", kWriteContext, &file)) return e;
  vepra_error_t *e = close_file(file, write_tiff(img, file.get()));
  return e != nullptr ? wrap_error(e, "%s", kWriteContext) : nullptr;
}

vepra_error_t *vepra_img_darr_to_tiff(const char *path, double **arr, unsigned rows,
                                      unsigned cols) noexcept {
  File file;
  if (vepra_error_t *e = open_file(path, "wb", kDarrContext, &file)) return e;
  vepra_img_t img{};
  img.height = rows;
  img.width = cols;
  img.samples_per_pixel = 1;
  img.bits_per_sample[0] = 16;
  img.photometric = 0;  // WhiteIsZero: the largest values display darkest
  vepra_error_t *e = close_file(file, darr_to_tiff(&img, file.get(), arr, rows, cols));
  vepra_img_free(&img);
  return e != nullptr ? wrap_error(e, "%s", kDarrContext) : nullptr;
}

}  // extern "C"
