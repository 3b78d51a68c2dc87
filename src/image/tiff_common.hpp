// Pieces shared by the TIFF reader, the TIFF writer and the image record:
// tag numbers, little-endian field access and the file handle.
#ifndef VEPRA_SRC_IMAGE_TIFF_COMMON_HPP
#define VEPRA_SRC_IMAGE_TIFF_COMMON_HPP

#include <sys/uio.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "vepra_img.h"

namespace vepra::detail::tiff {

// 16-bit samples are kept in the file's little-endian order, which must be
// the host's: the pixel rows are read and written without swapping.
static_assert(std::endian::native == std::endian::little,
              "16-bit TIFF samples are stored in host order, which must be little-endian");

enum Tag : uint16_t {
  kImageWidth = 256,
  kImageLength = 257,
  kBitsPerSample = 258,
  kCompression = 259,
  kPhotometric = 262,
  kStripOffsets = 273,
  kSamplesPerPixel = 277,
  kStripByteCounts = 279,
  kXResolution = 282,
  kYResolution = 283,
  kPlanarConfig = 284,
  kResolutionUnit = 296,
  kSoftware = 305,
  kTileWidth = 322,
  kTileOffsets = 324,
};

enum FieldType : uint16_t { kAscii = 2, kShort = 3, kLong = 4 };

constexpr size_t kEntrySize = 12;

inline uint16_t load16(const uint8_t *p) noexcept {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t load32(const uint8_t *p) noexcept {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline void store16(uint8_t *p, uint32_t v) noexcept {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

inline void store32(uint8_t *p, uint32_t v) noexcept {
  store16(p, v);
  store16(p + 2, v >> 16);
}

// Bytes a sample of the given depth takes in the pixel matrix: 1 or 2, and
// 0 for the depths that are read and written without pixels.
constexpr unsigned sample_bytes(uint32_t depth) noexcept {
  return depth == 8 ? 1u : depth == 16 ? 2u : 0u;
}

// Scatter-gather transfers of pixel rows: many rows a system call, straight
// between the file and the rows.
constexpr int kRowBatch = std::min(256, IOV_MAX);

// Runs io(iov, count, done) until the iovecs are complete, where done is the
// number of bytes already moved; io returns what readv or writev would.
// Resumes after partial transfers and interrupted calls; false when io fails
// or moves nothing.
template <typename Io>
bool transfer_all(iovec *iov, int count, Io io) noexcept {
  uint64_t done = 0;
  while (count > 0) {
    const ssize_t moved = io(iov, count, done);
    if (moved < 0 && errno == EINTR) continue;
    if (moved <= 0) return false;
    done += static_cast<uint64_t>(moved);
    auto left = static_cast<size_t>(moved);
    while (count > 0 && left >= iov->iov_len) {
      left -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char *>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
  return true;
}

struct FileCloser {
  void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Opens path for binary reading; on failure returns code 120030 naming the
// path, wrapped by context. A directory is refused with the same code, and a
// FIFO without a writer does not block the opening (it reads as empty).
[[nodiscard]] vepra_error_t *open_for_reading(const char *path, const char *context,
                                              File *out) noexcept;

// The error for a null image record, wrapped by context.
[[nodiscard]] vepra_error_t *null_record(const char *context) noexcept;

// The state every read starts from: all fields zero or null, except the
// photometric interpretation and resolution unit, -1 for "absent". Owned
// memory is not released.
void reset(vepra_img_t *img) noexcept;

}  // namespace vepra::detail::tiff

namespace vepra::testing {

// Makes the TIFF writer's output behave like a device with `bytes` bytes of
// room from now on: the write that reaches the limit stores what fits and
// fails with ENOSPC, as do all later ones. When close_fails is set, closing
// the output fails as well (as a delayed write error would). A negative
// `bytes` switches both off.
void fail_tiff_output_after(long long bytes, bool close_fails = false) noexcept;

}  // namespace vepra::testing

#endif  // VEPRA_SRC_IMAGE_TIFF_COMMON_HPP
