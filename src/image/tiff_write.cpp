// Writing the image record as a little-endian, uncompressed, single-strip
// TIFF file with a fixed layout: the 8-byte header, one directory of ten
// entries at offset 8, the Software text at 134, then the samples.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

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

// The test hook that makes the output run out of room (see tiff_common.hpp):
// bytes the output still takes, negative when the hook is off.
std::atomic<long long> room_left{-1};
std::atomic<bool> close_fails{false};

// writev() with the room the test hook leaves.
ssize_t write_some(int fd, const iovec *iov, int count) noexcept {
  long long room = room_left.load(std::memory_order_relaxed);
  if (room < 0) return writev(fd, iov, count);
  iovec fitting[kRowBatch];
  int n = 0;
  for (; n < count && room > 0; ++n) {
    const size_t len = std::min<unsigned long long>(iov[n].iov_len, static_cast<unsigned long long>(room));
    fitting[n] = iovec{iov[n].iov_base, len};
    room -= static_cast<long long>(len);
  }
  const ssize_t moved = n > 0 ? writev(fd, fitting, n) : 0;
  if (moved > 0) room_left.fetch_sub(moved, std::memory_order_relaxed);
  if (moved != 0) return moved;
  errno = ENOSPC;
  return -1;
}

// Gathers pieces of the file and writes them many a system call.
class Batch {
 public:
  explicit Batch(int fd) noexcept : fd_(fd) {}
  [[nodiscard]] bool add(const void *data, size_t len) noexcept {
    iov_[count_++] = iovec{const_cast<void *>(data), len};
    return count_ < kRowBatch || flush();
  }
  [[nodiscard]] bool flush() noexcept {
    const int fd = fd_;
    const bool ok = transfer_all(iov_, count_, [fd](const iovec *iov, int n, uint64_t) {
      return write_some(fd, iov, n);
    });
    count_ = 0;
    return ok;
  }

 private:
  int fd_;
  int count_ = 0;
  iovec iov_[kRowBatch];
};

// Where one file's bytes go. A regular file (new, or reached through
// symbolic links) is written as a temporary file in its directory that
// replaces it by rename once every byte is written and the file is closed,
// so a failed write leaves an existing file as it was and no temporary file
// behind. Anything else that exists (a device, a FIFO), or a directory
// that cannot take the temporary file, is written in place, as is a file
// the caller may not write (so that the opening fails).
class Output {
 public:
  Output() = default;
  Output(const Output &) = delete;
  Output &operator=(const Output &) = delete;
  ~Output() { abandon(); }

  int fd() const noexcept { return fd_; }

  [[nodiscard]] vepra_error_t *open(const char *path, const char *context) noexcept {
    if (path == nullptr) return make_wrapped(VEPRA_E_IO_OPEN, context, "Cannot open file '(null)'");
    // A file the caller may not write is opened in place, to fail as such.
    struct stat st {};
    const bool exists = stat(path, &st) == 0;
    const bool replaceable = !exists || (S_ISREG(st.st_mode) && access(path, W_OK) == 0);
    if (replaceable && resolve(path) && open_temporary(exists ? &st : nullptr)) return nullptr;
    fd_ = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) return make_wrapped(VEPRA_E_IO_OPEN, context, "Cannot open file '%s'", path);
    return nullptr;
  }

  // Closes the file and, for a temporary one, puts it in the target's place.
  [[nodiscard]] vepra_error_t *commit() noexcept {
    const int fd = std::exchange(fd_, -1);
    const bool closed = ::close(fd) == 0 && !close_fails.load(std::memory_order_relaxed);
    if (closed && (temporary_[0] == '\0' || rename(temporary_, target_) == 0)) {
      temporary_[0] = '\0';
      return nullptr;
    }
    abandon();
    return make_error(VEPRA_E_IO_WRITE);
  }

 private:
  // Follows symbolic links from path to the file they end at (which may
  // not exist yet), so that the link itself stays. False when the name is
  // too long or the links loop.
  bool resolve(const char *path) noexcept {
    if (!copy(target_, path, std::strlen(path))) return false;
    for (int hops = 0; hops < 40; ++hops) {
      struct stat st {};
      if (lstat(target_, &st) != 0 || !S_ISLNK(st.st_mode)) return true;
      char link[PATH_MAX];
      const ssize_t n = readlink(target_, link, sizeof link);
      if (n <= 0 || static_cast<size_t>(n) >= sizeof link) return false;
      // A relative link is relative to the directory that holds it.
      const size_t dir = link[0] == '/' ? 0 : directory_length(target_);
      if (dir + static_cast<size_t>(n) >= sizeof target_) return false;
      std::memcpy(target_ + dir, link, static_cast<size_t>(n));
      target_[dir + static_cast<size_t>(n)] = '\0';
    }
    return false;
  }

  // Creates ".<name>.<random>" beside the target, with the permissions of
  // the file it replaces (or those a new file gets). False when the
  // directory does not take it.
  bool open_temporary(const struct stat *existing) noexcept {
    const size_t dir = directory_length(target_);
    const char *name = target_ + dir;
    if (*name == '\0') return false;  // no file name to replace
    static std::atomic<unsigned> serial{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
      const unsigned long long tag =
          (static_cast<unsigned long long>(getpid()) << 32) ^
          (static_cast<unsigned long long>(serial.fetch_add(1, std::memory_order_relaxed)) * 0x9E3779B1u) ^
          static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count());
      const int n = std::snprintf(temporary_, sizeof temporary_, "%.*s.%s.%012llx",
                                  static_cast<int>(dir), target_, name, tag & 0xFFFFFFFFFFFFull);
      if (n < 0 || static_cast<size_t>(n) >= sizeof temporary_) break;
      fd_ = ::open(temporary_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd_ >= 0) {
        if (existing != nullptr) {
          // Keep the replaced file's owner (where allowed) and mode.
          (void)!fchown(fd_, existing->st_uid, existing->st_gid);
          (void)fchmod(fd_, existing->st_mode & 0777);
        }
        return true;
      }
      if (errno != EEXIST) break;
    }
    temporary_[0] = '\0';
    return false;
  }

  // Removes an unfinished temporary file.
  void abandon() noexcept {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    if (temporary_[0] != '\0') unlink(temporary_);
    temporary_[0] = '\0';
  }

  static bool copy(char *dest, const char *src, size_t n) noexcept {
    if (n >= PATH_MAX) return false;
    std::memcpy(dest, src, n);
    dest[n] = '\0';
    return true;
  }
  static size_t directory_length(const char *path) noexcept {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? static_cast<size_t>(slash - path) + 1 : 0;
  }

  int fd_ = -1;
  char target_[PATH_MAX] = {};
  char temporary_[PATH_MAX] = {};
};

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
// Software text, then the rows straight from the matrix, many pieces a
// system call.
vepra_error_t *write_tiff(const vepra_img_t *img, int fd) noexcept {
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

  Batch batch(fd);
  bool ok = batch.add(head, kSoftwareOffset + n + 1);
  const size_t row_bytes = size_t{img->width} * bytes;
  for (uint32_t r = 0; ok && has_samples && r < img->height; ++r) {
    ok = batch.add(bytes == 1 ? static_cast<const void *>(img->data8[r]) : img->data16[r],
                   row_bytes);
  }
  return ok && batch.flush() ? nullptr : make_error(VEPRA_E_IO_WRITE);
}

// Linear scaling of a finite v from [min, max] (finite, min < max) to
// 0..65535. The range may exceed the largest double: then halves are
// scaled, which cannot overflow.
uint16_t scale_sample(double v, double min, double max) noexcept {
  const double range = max - min;
  double s;
  if (std::isfinite(range)) {
    const double d = std::fabs(v - min);
    s = d * 65535.0;
    s = std::isfinite(s) ? std::floor(s / range) : std::floor(d / range * 65535.0);
  } else {
    s = std::floor(std::fabs(v / 2 - min / 2) / (max / 2 - min / 2) * 65535.0);
  }
  return s >= 65535.0 ? uint16_t{65535} : s > 0.0 ? static_cast<uint16_t>(s) : uint16_t{0};
}

// The finite values scale from their minimum (0) to their maximum (65535);
// infinities go to the ends, -inf to 0 and +inf to 65535; NaN becomes 0.
// Equal finite values give 0.
vepra_error_t *fill_scaled(uint16_t **dest, double **arr, unsigned rows, unsigned cols) noexcept {
  for (unsigned r = 0; r < rows; ++r) {
    if (arr[r] == nullptr) return make_error(VEPRA_E_ASSERT, "Row %u of the array is null", r);
  }
  double min = HUGE_VAL;
  double max = -HUGE_VAL;
  for (unsigned r = 0; r < rows; ++r) {
    for (unsigned c = 0; c < cols; ++c) {
      const double v = arr[r][c];
      if (!std::isfinite(v)) continue;
      if (v < min) min = v;
      if (v > max) max = v;
    }
  }
  for (unsigned r = 0; r < rows; ++r) {
    for (unsigned c = 0; c < cols; ++c) {
      const double v = arr[r][c];
      // The rows start zeroed, so only non-zero samples are stored.
      if (v == HUGE_VAL) {
        dest[r][c] = 65535;
      } else if (std::isfinite(v) && min < max) {
        dest[r][c] = scale_sample(v, min, max);
      }
    }
  }
  return nullptr;
}

// The 16-bit record of the matrix, allocated into img and filled.
vepra_error_t *scale_into(vepra_img_t *img, double **arr, unsigned rows, unsigned cols) noexcept {
  if (vepra_error_t *e = check_size(cols, rows, 2)) return e;
  if (rows == 0 || cols == 0) return nullptr;
  if (arr == nullptr) return make_error(VEPRA_E_ASSERT, "No array given");
  void *matrix = nullptr;
  vepra_error_t *e = vepra_mem_matrix_alloc(&matrix, sizeof(uint16_t), 0,
                                            static_cast<int>(rows - 1), 0,
                                            static_cast<int>(cols - 1));
  img->data16 = static_cast<uint16_t **>(matrix);
  if (e != nullptr) return e;
  return fill_scaled(img->data16, arr, rows, cols);
}

// Writes img through a fresh output at path; the output replaces the file
// only when everything succeeded.
vepra_error_t *write_file(const char *path, const vepra_img_t *img, const char *context,
                          vepra_error_t *(*prepare)(void *), void *state) noexcept {
  Output out;
  if (vepra_error_t *e = out.open(path, context)) return e;
  vepra_error_t *e = prepare != nullptr ? prepare(state) : nullptr;
  if (e == nullptr) e = write_tiff(img, out.fd());
  if (e == nullptr) e = out.commit();
  return e != nullptr ? wrap_error(e, "%s", context) : nullptr;
}

}  // namespace

namespace vepra::testing {

void fail_tiff_output_after(long long bytes, bool fail_close) noexcept {
  room_left.store(bytes, std::memory_order_relaxed);
  close_fails.store(bytes >= 0 && fail_close, std::memory_order_relaxed);
}

}  // namespace vepra::testing

extern "C" {

vepra_error_t *vepra_img_write_tiff(const char *path, const vepra_img_t *img) noexcept {
  if (img == nullptr) return null_record(kWriteContext);
  return write_file(path, img, kWriteContext, nullptr, nullptr);
}

vepra_error_t *vepra_img_darr_to_tiff(const char *path, double **arr, unsigned rows,
                                      unsigned cols) noexcept {
  vepra_img_t img{};
  img.height = rows;
  img.width = cols;
  img.samples_per_pixel = 1;
  img.bits_per_sample[0] = 16;
  img.photometric = 0;  // WhiteIsZero: the largest values display darkest
  struct Job {
    vepra_img_t *img;
    double **arr;
    unsigned rows, cols;
  } job{&img, arr, rows, cols};
  vepra_error_t *e = write_file(
      path, &img, kDarrContext,
      [](void *state) noexcept {
        auto *j = static_cast<Job *>(state);
        return scale_into(j->img, j->arr, j->rows, j->cols);
      },
      &job);
  vepra_img_free(&img);
  return e;
}

}  // extern "C"
