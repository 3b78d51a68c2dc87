// Reading little-endian baseline TIFF files into the image record: the
// directory parser, the information pass and the pixel reader.
//
// Files are untrusted. Every offset and count taken from a file is checked
// against the file's size before it is used, so a hostile file ends in an
// error record rather than a wild seek, an out-of-bounds write or an
// allocation far larger than the file itself.
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/error_internal.hpp"
#include "image/tiff_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

using namespace vepra::detail;
using namespace vepra::detail::tiff;

namespace {

constexpr const char *kInfoContext = "Cannot read TIFF information from file.";
constexpr const char *kImageContext = "Cannot read TIFF image.";
constexpr const char *kReadContext = "Cannot read image.";
constexpr uint32_t kKnownFlags =
    VEPRA_IMG_READ_STRICT | VEPRA_IMG_READ_UNITLESS | VEPRA_IMG_READ_HEADER;

// How often the directory parser may read the file over: a valid file reads
// each directory and array once (or a few times, if directories share their
// arrays), while a directory chain that loops back on itself would read for
// ever.
constexpr int64_t kRereadFactor = 16;
constexpr int64_t kRereadSlack = 4096;

// The read budget of a file of the given size, saturating for sizes near
// the largest offset (a huge sparse file, or a device that reports one).
constexpr int64_t read_budget(int64_t size) noexcept {
  return size <= (INT64_MAX - kRereadSlack) / kRereadFactor ? size * kRereadFactor + kRereadSlack
                                                             : INT64_MAX;
}
static_assert(read_budget(INT64_MAX) == INT64_MAX && read_budget(0) == kRereadSlack);

int64_t file_size(FILE *f) noexcept {
  struct stat st {};
  if (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode)) return st.st_size;
  // Not a regular file: ask the stream, and trust nothing if it cannot say.
  long end = -1;
  if (std::fseek(f, 0, SEEK_END) == 0) end = std::ftell(f);
  if (std::fseek(f, 0, SEEK_SET) != 0) end = 0;
  return end > 0 ? end : 0;
}

// The file being read: its stream, its size, the parser's position, and how
// many bytes the directory parser may still read.
class Reader {
 public:
  Reader(FILE *f, uint32_t flags) noexcept
      : file_(f), size_(file_size(f)), budget_(read_budget(size_)), flags_(flags) {}

  FILE *file() const noexcept { return file_; }
  bool has(uint32_t flag) const noexcept { return (flags_ & flag) != 0; }
  // Whether a directory described tiles, which this reader cannot place.
  bool tiled = false;
  int64_t size() const noexcept { return size_; }
  int64_t position() const noexcept { return pos_; }

  // Offsets in a file are signed 32-bit positions from its start; a
  // negative one cannot be sought.
  [[nodiscard]] vepra_error_t *seek(uint32_t offset) noexcept {
    const auto pos = static_cast<int32_t>(offset);
    if (pos < 0 || std::fseek(file_, pos, SEEK_SET) != 0) return make_error(VEPRA_E_IO_SEEK);
    pos_ = pos;
    return nullptr;
  }

  // Returns to a position the parser has already read from.
  [[nodiscard]] vepra_error_t *restore(int64_t pos) noexcept {
    if (pos == pos_) return nullptr;
    return seek(static_cast<uint32_t>(pos));
  }

  // Reads exactly n bytes of directory data.
  [[nodiscard]] vepra_error_t *read(void *buf, size_t n) noexcept {
    budget_ -= static_cast<int64_t>(n);
    if (budget_ < 0) {
      return make_error(VEPRA_E_TIFF_STRUCTURE,
                        "TIFF directories loop or repeat their data");
    }
    if (std::fread(buf, 1, n, file_) != n) return make_error(VEPRA_E_IO_READ);
    pos_ += static_cast<int64_t>(n);
    return nullptr;
  }

  // True when bytes bytes from offset lie inside the file.
  bool holds(uint32_t offset, uint64_t bytes) const noexcept {
    return offset <= static_cast<uint64_t>(size_) && bytes <= static_cast<uint64_t>(size_) - offset;
  }

 private:
  FILE *file_;
  int64_t size_;
  int64_t budget_;
  uint32_t flags_;
  int64_t pos_ = 0;
};

struct Entry {
  uint16_t tag;
  uint16_t type;
  uint32_t count;
  uint32_t value;
};

vepra_error_t *invalid_tag(const Entry &e) noexcept {
  return make_error(VEPRA_E_TIFF_TAG, "Invalid TIFF tag [name=%d type=%d length=%d offset=%d]",
                    e.tag, e.type, static_cast<int>(e.count), static_cast<int>(e.value));
}

// Seeks to a value array of the given size, refusing one the file cannot
// hold before anything is allocated for it.
vepra_error_t *seek_array(Reader &r, uint32_t offset, uint64_t bytes) noexcept {
  if (vepra_error_t *e = r.seek(offset)) return e;
  return r.holds(offset, bytes) ? nullptr : make_error(VEPRA_E_IO_READ);
}

// StripOffsets and StripByteCounts: LONG values are 32-bit, every other type
// 16-bit. A single value, or values that fit in four bytes, stand in the
// value field itself; longer arrays lie at the offset it holds. The new
// array replaces (and releases) one an earlier directory stored.
template <typename Count>
vepra_error_t *read_strip_array(Reader &r, const Entry &e, uint32_t **array,
                                Count *count) noexcept {
  if (e.count > static_cast<uint32_t>(INT32_MAX)) return invalid_tag(e);
  const uint64_t width = e.type == kLong ? 4 : 2;
  const uint64_t bytes = e.count * width;
  const bool in_field = e.count == 1 || bytes <= 4;
  if (!in_field) {
    if (vepra_error_t *e2 = seek_array(r, e.value, bytes)) return e2;
  }
  void *block = nullptr;
  if (vepra_error_t *e2 = vepra_mem_calloc(e.count, sizeof(uint32_t), &block)) return e2;
  auto *values = static_cast<uint32_t *>(block);
  if (e.count == 1) {
    values[0] = e.value;
  } else if (in_field) {
    values[0] = e.value & 0xFFFFu;
    values[1] = e.value >> 16;
  } else {
    // 16-bit values are read into the upper half of the array and widened
    // in place, front to back: entry i is written only after every source
    // it overlaps has been loaded.
    auto *raw = reinterpret_cast<uint8_t *>(values) + (width == 2 ? bytes : 0);
    if (vepra_error_t *e2 = r.read(raw, bytes)) {
      vepra_mem_free(values);
      return e2;
    }
    for (uint32_t i = 0; i < e.count; ++i) {
      values[i] = width == 2 ? load16(raw + 2 * i) : load32(raw + 4 * i);
    }
  }
  vepra_mem_free(*array);
  *array = values;
  *count = static_cast<Count>(e.count);
  return nullptr;
}

// BitsPerSample: a value up to 32 is the depth of every channel; one or two
// values stand in the value field; three lie at the offset it holds.
vepra_error_t *read_bits_per_sample(Reader &r, const Entry &e, vepra_img_t *img) noexcept {
  if (e.type != kShort) return invalid_tag(e);
  uint32_t *bps = img->bits_per_sample;
  if (static_cast<int32_t>(e.value) <= 32) {
    bps[0] = bps[1] = bps[2] = e.value;
    return nullptr;
  }
  if (e.count == 1 || e.count == 2) {
    bps[0] = e.value & 0xFFFFu;
    if (e.count == 2) bps[1] = e.value >> 16;
    return nullptr;
  }
  if (vepra_error_t *e2 = r.seek(e.value)) return e2;
  if (e.count != 3) return nullptr;
  uint8_t raw[6];
  if (vepra_error_t *e2 = r.read(raw, sizeof raw)) return e2;
  for (int i = 0; i < 3; ++i) bps[i] = load16(raw + 2 * i);
  return nullptr;
}

vepra_error_t *read_resolution(Reader &r, const Entry &e, double *res) noexcept {
  if (vepra_error_t *e2 = r.seek(e.value)) return e2;
  uint8_t raw[8];
  if (vepra_error_t *e2 = r.read(raw, sizeof raw)) return e2;
  const uint32_t denominator = load32(raw + 4);
  if (denominator == 0) return invalid_tag(e);
  *res = static_cast<double>(load32(raw)) / denominator;
  return nullptr;
}

// Software: always at the offset the value field holds, even when short
// enough to stand in the field.
vepra_error_t *read_software(Reader &r, const Entry &e, vepra_img_t *img) noexcept {
  if (vepra_error_t *e2 = seek_array(r, e.value, e.count)) return e2;
  void *block = nullptr;
  if (vepra_error_t *e2 = vepra_mem_calloc(size_t{e.count} + 1, 1, &block)) return e2;
  if (vepra_error_t *e2 = r.read(block, e.count)) {
    vepra_mem_free(block);
    return e2;
  }
  vepra_mem_free(img->software);
  img->software = static_cast<char *>(block);
  return nullptr;
}

vepra_error_t *read_entry(Reader &r, const Entry &e, vepra_img_t *img) noexcept {
  switch (e.tag) {
    case kImageWidth: img->width = e.value; return nullptr;
    case kImageLength: img->height = e.value; return nullptr;
    case kBitsPerSample: return read_bits_per_sample(r, e, img);
    case kCompression: img->compression = e.value; return nullptr;
    case kPhotometric: img->photometric = static_cast<int32_t>(e.value); return nullptr;
    case kStripOffsets: return read_strip_array(r, e, &img->strip_offsets, &img->strip_count);
    case kSamplesPerPixel:
      if (e.type != kShort || e.count != 1) return invalid_tag(e);
      img->samples_per_pixel = e.value;
      return nullptr;
    case kStripByteCounts:
      return read_strip_array(r, e, &img->strip_byte_counts, &img->strip_byte_count_count);
    case kXResolution: return read_resolution(r, e, &img->xres);
    case kYResolution: return read_resolution(r, e, &img->yres);
    case kPlanarConfig: img->planar_config = e.value; return nullptr;
    case kResolutionUnit: img->res_unit = static_cast<int32_t>(e.value); return nullptr;
    case kSoftware: return read_software(r, e, img);
    case kTileWidth:
    case kTileOffsets: r.tiled = true; return nullptr;
    default: return nullptr;
  }
}

vepra_error_t *read_header(Reader &r, uint32_t *first_directory) noexcept {
  uint8_t raw[4];
  if (vepra_error_t *e = r.read(raw, sizeof raw)) return e;
  if (raw[0] == 'M' && raw[1] == 'M') {
    return make_error(VEPRA_E_TIFF_NOT, "Motorola TIFF is not supported.");
  }
  if (raw[0] != 'I' || raw[1] != 'I') return make_error(VEPRA_E_TIFF_NOT, "Unknown data format.");
  if (raw[2] != 42) return make_error(VEPRA_E_TIFF_NOT, "Unknown TIFF format.");
  if (vepra_error_t *e = r.read(raw, sizeof raw)) return e;
  *first_directory = load32(raw);
  return *first_directory != 0 ? nullptr : make_error(0, "No image data were found.");
}

// Visits every directory of the file; a tag met again overwrites what an
// earlier one stored. Then brings the resolutions to pixels per inch.
vepra_error_t *read_tiff_directory(vepra_img_t *img, Reader &r) noexcept {
  uint32_t offset = 0;
  if (vepra_error_t *e = read_header(r, &offset)) return e;
  while (offset != 0) {
    if (vepra_error_t *e = r.seek(offset)) return e;
    uint8_t raw[kEntrySize];
    if (vepra_error_t *e = r.read(raw, 2)) return e;
    // The entry count is a signed 16-bit number: 32768 and above read none.
    const auto entries = static_cast<int16_t>(load16(raw));
    for (int i = 0; i < entries; ++i) {
      if (vepra_error_t *e = r.read(raw, kEntrySize)) return e;
      const Entry entry{load16(raw), load16(raw + 2), load32(raw + 4), load32(raw + 8)};
      const int64_t next_entry = r.position();
      if (vepra_error_t *e = read_entry(r, entry, img)) return e;
      if (vepra_error_t *e = r.restore(next_entry)) return e;
    }
    if (vepra_error_t *e = r.read(raw, 4)) return e;
    offset = load32(raw);
  }
  switch (img->res_unit) {
    case -1:
    case 2: return nullptr;
    case 1:
      if (!r.has(VEPRA_IMG_READ_UNITLESS)) break;
      // No absolute unit: the ratio says nothing about the scanned size.
      img->xres = img->yres = 0;
      return nullptr;
    case 3:
      img->xres *= 2.54;
      img->yres *= 2.54;
      return nullptr;
    default: break;
  }
  return make_error(VEPRA_E_TIFF_STRUCTURE, "Unknown resolution units [%d] in TIFF file",
                    img->res_unit);
}

const char *compression_name(uint32_t c) noexcept {
  switch (c) {
    case 2: return "CCITT RLE";
    case 3: return "CCITT Group 3";
    case 4: return "CCITT Group 4";
    case 5: return "LZW";
    case 6:
    case 7: return "JPEG";
    case 8:
    case 32946: return "Deflate";
    case 32773: return "PackBits";
    case 34925: return "LZMA";
    case 50000: return "ZSTD";
    case 50001: return "WebP";
    default: return "unknown";
  }
}

// With VEPRA_IMG_READ_STRICT: gives absent fields (0) their TIFF defaults
// (no compression, one sample, chunky), then refuses what the directory
// describes but the pixel reader would only copy as raw bytes.
vepra_error_t *check_decodable(vepra_img_t *img, const Reader &r) noexcept {
  if (!r.has(VEPRA_IMG_READ_STRICT)) return nullptr;
  for (uint32_t *field : {&img->compression, &img->samples_per_pixel, &img->planar_config}) {
    if (*field == 0) *field = 1;
  }
  if (img->compression > 1) {
    return make_error(0,
                      "TIFF compression %u (%s) is not supported: only uncompressed images are "
                      "read (convert with: tiffcp -c none IN OUT)",
                      img->compression, compression_name(img->compression));
  }
  if (img->samples_per_pixel > 1 && img->planar_config > 1) {
    return make_error(0,
                      "TIFF planar configuration %u with %u samples per pixel is not supported: "
                      "only one sample per pixel is read",
                      img->planar_config, img->samples_per_pixel);
  }
  if (img->samples_per_pixel > 1) {
    return make_error(0,
                      "TIFF image with %u samples per pixel is not supported: only one sample "
                      "per pixel is read",
                      img->samples_per_pixel);
  }
  if (r.tiled) {
    return make_error(0,
                      "Tiled TIFF is not supported: only strips are read (convert with: tiffcp -s "
                      "IN OUT)");
  }
  return nullptr;
}

vepra_error_t *check_strip_counts(const vepra_img_t *img) noexcept {
  if (img->strip_count == static_cast<int32_t>(img->strip_byte_count_count)) return nullptr;
  return make_error(VEPRA_E_TIFF_STRUCTURE, "Inconsistent number of strips [%d vs. %d]",
                    img->strip_count, static_cast<int>(img->strip_byte_count_count));
}

// Allocates the pixel rows of an 8- or 16-bit image, refusing dimensions
// whose pixels the file could not hold. An image without rows or columns
// gets no matrix. The matrix has the layout vepra_mem_matrix_alloc() makes
// for rows and columns from 0 (a table of row blocks, released by
// vepra_mem_matrix_free()), but its rows are not cleared here: the strips
// overwrite them, and read_strips() clears what they leave.
template <typename Sample>
vepra_error_t *alloc_pixels(vepra_img_t *img, const Reader &r, Sample ***rows) noexcept {
  if (img->width == 0 || img->height == 0) return nullptr;
  const uint64_t bytes = uint64_t{img->width} * img->height * sizeof(Sample);
  if (img->width > INT32_MAX || img->height > INT32_MAX ||
      bytes > static_cast<uint64_t>(r.size())) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "Image of %u x %u pixels does not fit in the file",
                      img->width, img->height);
  }
  void *table = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_mem_calloc(img->height, sizeof(Sample *), &table),
                        "Cannot allocate matrix.");
  // The record owns the table from here on, so a failure part way releases
  // the rows made so far; the rows not yet made are null.
  *rows = static_cast<Sample **>(table);
  for (uint32_t i = 0; i < img->height; ++i) {
    void *row = nullptr;
    VEPRA_RETURN_IF_ERROR(vepra_mem_malloc(img->width * sizeof(Sample), &row),
                          "Cannot allocate matrix.");
    (*rows)[i] = static_cast<Sample *>(row);
  }
  return nullptr;
}

// Fills the rows strip after strip: a cursor runs over the pixels in row
// order across strips, whatever their sizes, and stops at the last pixel.
// Row segments are read straight into the rows, many rows a system call;
// the pixels no strip reaches are cleared.
template <typename Sample>
vepra_error_t *read_strips(const vepra_img_t *img, Reader &r, Sample **rows) noexcept {
  const int fd = fileno(r.file());
  const uint64_t width = img->width;
  const uint64_t total = rows != nullptr ? width * img->height : 0;
  uint64_t placed = 0;
  for (int32_t i = 0; i < img->strip_count; ++i) {
    const uint32_t offset = img->strip_offsets[i];
    const uint32_t bytes = img->strip_byte_counts[i];
    if (vepra_error_t *e = r.seek(offset)) return e;
    if (!r.holds(offset, bytes)) return make_error(VEPRA_E_TIFF_INCOMPLETE);
    uint64_t take = std::min<uint64_t>(bytes / sizeof(Sample), total - placed);
    auto at = static_cast<off_t>(offset);
    while (take > 0) {
      iovec batch[kRowBatch];
      int queued = 0;
      uint64_t batch_bytes = 0;
      for (; take > 0 && queued < kRowBatch; ++queued) {
        const uint64_t col = placed % width;
        const uint64_t chunk = std::min(width - col, take);
        batch[queued] = iovec{rows[placed / width] + col, chunk * sizeof(Sample)};
        batch_bytes += chunk * sizeof(Sample);
        placed += chunk;
        take -= chunk;
      }
      const bool ok = transfer_all(batch, queued, [fd, at](const iovec *iov, int n, uint64_t done) {
        return preadv(fd, iov, n, at + static_cast<off_t>(done));
      });
      if (!ok) return make_error(VEPRA_E_TIFF_INCOMPLETE);
      at += static_cast<off_t>(batch_bytes);
    }
  }
  for (; placed < total; placed += width - placed % width) {
    const uint64_t col = placed % width;
    std::memset(rows[placed / width] + col, 0, (width - col) * sizeof(Sample));
  }
  return nullptr;
}

// Depths without a pixel matrix: the strips are sought but not read.
vepra_error_t *seek_strips(const vepra_img_t *img, Reader &r) noexcept {
  for (int32_t i = 0; i < img->strip_count; ++i) {
    if (vepra_error_t *e = r.seek(img->strip_offsets[i])) return e;
  }
  return nullptr;
}

vepra_error_t *read_info(vepra_img_t *img, Reader &r) noexcept {
  if (vepra_error_t *e = read_tiff_directory(img, r)) return e;
  if (vepra_error_t *e = check_strip_counts(img)) return e;
  return check_decodable(img, r);
}

vepra_error_t *read_image(vepra_img_t *img, Reader &r) noexcept {
  if (vepra_error_t *e = read_tiff_directory(img, r)) return e;
  if (vepra_error_t *e = check_decodable(img, r)) return e;
  if (img->photometric == -1) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "Unknown photometric interpretation");
  }
  if (vepra_error_t *e = check_strip_counts(img)) return e;
  switch (img->bits_per_sample[0]) {
    case 8:
      if (vepra_error_t *e = alloc_pixels(img, r, &img->data8)) return e;
      return read_strips(img, r, img->data8);
    case 16:
      if (vepra_error_t *e = alloc_pixels(img, r, &img->data16)) return e;
      return read_strips(img, r, img->data16);
    default: return seek_strips(img, r);
  }
}

struct Outcome {
  vepra_error_t *unopened;  // the file could not be opened (wrapped)
  vepra_error_t *unread;    // the file opened but could not be read
};

// Opens path and runs read over the reset record. A record that could not
// be read is released; one that could is typed TIFF.
Outcome read_file(const char *path, vepra_img_t *img, const char *context,
                  vepra_error_t *(*read)(vepra_img_t *, Reader &), uint32_t flags = 0) noexcept {
  if (img == nullptr) return {null_record(context), nullptr};
  File file;
  if (vepra_error_t *e = open_for_reading(path, context, &file)) return {e, nullptr};
  reset(img);
  Reader r(file.get(), flags);
  vepra_error_t *e = read(img, r);
  if (e != nullptr) {
    vepra_img_free(img);
  } else {
    img->type = 1;
  }
  return {nullptr, e};
}

}  // namespace

extern "C" {

vepra_error_t *vepra_img_read_tiff_info(const char *path, vepra_img_t *img) noexcept {
  const Outcome out = read_file(path, img, kInfoContext, read_info);
  // A file that opens but does not parse is reported by the type staying
  // unknown, not by an error.
  vepra_error_clear(out.unread);
  return out.unopened;
}

vepra_error_t *vepra_img_read_tiff(const char *path, vepra_img_t *img) noexcept {
  const Outcome out = read_file(path, img, kImageContext, read_image);
  return out.unread != nullptr ? wrap_error(out.unread, "%s", kImageContext) : out.unopened;
}

vepra_error_t *vepra_img_read_ex(const char *path, vepra_img_t *img, uint32_t flags,
                                 uint32_t page) noexcept {
  if (img == nullptr) return null_record(kReadContext);
  if ((flags & ~kKnownFlags) != 0) {
    return make_wrapped(VEPRA_E_ASSERT, kReadContext, "Unknown image reading flags 0x%x",
                        static_cast<unsigned>(flags & ~kKnownFlags));
  }
  if (page != 0) {
    return make_wrapped(VEPRA_E_ASSERT, kReadContext,
                        "Page %u cannot be selected: only page 0 is read", page);
  }
  const Outcome out = read_file(path, img, kImageContext,
                                (flags & VEPRA_IMG_READ_HEADER) != 0 ? read_info : read_image,
                                flags);
  vepra_error_t *e = out.unread != nullptr ? wrap_error(out.unread, "%s", kImageContext)
                                           : out.unopened;
  return e != nullptr ? wrap_error(e, "%s", kReadContext) : nullptr;
}

}  // extern "C"
