// The decoding TIFF reader behind vepra_img_read_ex(): one page of a file
// in either byte order, classic TIFF or BigTIFF, stored in strips or tiles,
// uncompressed or compressed with LZW, Deflate, ZSTD or PackBits, with or
// without the horizontal predictor. What it cannot decode it refuses with a
// message that names the value.
//
// Files are untrusted: every offset and count is checked against the file's
// size before it is used, the pixel matrix is only allocated for an image
// the file's data could expand to, and each strip or tile is decoded into
// exactly the bytes its rows need.
#include "image/tiff_pages.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>

#include "core/error_internal.hpp"
#include "image/tiff_common.hpp"
#include "image/tiff_decode.hpp"
#include "vepra_mem.h"

// Returns a callee's error unchanged from the enclosing function.
#define PASS_ON(expr)                         \
  do {                                        \
    if (vepra_error_t *pass_on_ = (expr)) {   \
      return pass_on_;                        \
    }                                         \
  } while (0)

namespace vepra::detail::tiff {

namespace {

constexpr const char *kImageContext = "Cannot read TIFF image.";
constexpr const char *kCountContext = "Cannot count TIFF pages.";

enum MoreTags : uint16_t {
  kFillOrder = 266,
  kRowsPerStrip = 278,
  kPredictor = 317,
  kColorMap = 320,
  kTileLength = 323,
  kTileByteCounts = 325,
  kSampleFormat = 339,
};

// Bytes of one value of a TIFF field type; 0 for unknown types.
constexpr unsigned type_size(uint16_t type) noexcept {
  switch (type) {
    case 1: case 2: case 6: case 7: return 1;
    case 3: case 8: return 2;
    case 4: case 9: case 11: case 13: return 4;
    case 5: case 10: case 12: case 16: case 17: case 18: return 8;
    default: return 0;
  }
}

constexpr bool is_integer_type(uint16_t type) noexcept {
  return type == 1 || type == 3 || type == 4 || type == 13 || type == 16 || type == 18;
}

struct Entry {
  bool present = false;
  uint16_t tag = 0;
  uint16_t type = 0;
  uint64_t count = 0;
  uint8_t field[8] = {};
};

// The fields of one directory that the reader looks at.
struct Directory {
  Entry width, height, bits, compression, photometric, fill_order, strip_offsets, samples,
      rows_per_strip, strip_counts, xres, yres, planar, res_unit, software, predictor, color_map,
      tile_width, tile_length, tile_offsets, tile_counts, sample_format;

  Entry *slot(uint16_t tag) noexcept {
    switch (tag) {
      case kImageWidth: return &width;
      case kImageLength: return &height;
      case kBitsPerSample: return &bits;
      case kCompression: return &compression;
      case kPhotometric: return &photometric;
      case kFillOrder: return &fill_order;
      case kStripOffsets: return &strip_offsets;
      case kSamplesPerPixel: return &samples;
      case kRowsPerStrip: return &rows_per_strip;
      case kStripByteCounts: return &strip_counts;
      case kXResolution: return &xres;
      case kYResolution: return &yres;
      case kPlanarConfig: return &planar;
      case kResolutionUnit: return &res_unit;
      case kSoftware: return &software;
      case kPredictor: return &predictor;
      case kColorMap: return &color_map;
      case kTileWidth: return &tile_width;
      case kTileLength: return &tile_length;
      case kTileOffsets: return &tile_offsets;
      case kTileByteCounts: return &tile_counts;
      case kSampleFormat: return &sample_format;
      default: return nullptr;
    }
  }
};

// A block of memory from the checked allocator, released on destruction.
struct Block {
  void *data = nullptr;
  size_t capacity = 0;
  Block() = default;
  Block(const Block &) = delete;
  Block &operator=(const Block &) = delete;
  ~Block() { vepra_mem_free(data); }
  template <typename T>
  T *as() const noexcept {
    return static_cast<T *>(data);
  }
  [[nodiscard]] vepra_error_t *reserve(size_t bytes) noexcept {
    if (bytes <= capacity) return nullptr;
    vepra_mem_free(data);
    data = nullptr;
    capacity = 0;
    if (vepra_error_t *e = vepra_mem_malloc(std::max<size_t>(bytes, 1), &data)) return e;
    capacity = bytes;
    return nullptr;
  }
};

int64_t size_of(int fd) noexcept {
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) return st.st_size;
  const off_t end = lseek(fd, 0, SEEK_END);
  return end > 0 ? end : 0;
}

// The open file: positioned reads, byte order and offset width.
class Source {
 public:
  explicit Source(int fd) noexcept : fd_(fd), size_(size_of(fd)) {}

  int fd() const noexcept { return fd_; }
  bool big_endian = false;
  bool bigtiff = false;

  bool holds(uint64_t offset, uint64_t bytes) const noexcept {
    return offset <= static_cast<uint64_t>(size_) && bytes <= static_cast<uint64_t>(size_) - offset;
  }
  uint64_t size() const noexcept { return static_cast<uint64_t>(size_); }

  // Reads exactly n bytes at offset; short or outside the file: 120031.
  [[nodiscard]] vepra_error_t *read(uint64_t offset, void *buf, size_t n) const noexcept {
    if (!holds(offset, n)) return make_error(VEPRA_E_IO_READ);
    auto *p = static_cast<uint8_t *>(buf);
    while (n > 0) {
      const ssize_t got = pread(fd_, p, n, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return make_error(VEPRA_E_IO_READ);
      p += got;
      offset += static_cast<uint64_t>(got);
      n -= static_cast<size_t>(got);
    }
    return nullptr;
  }

  uint16_t u16(const uint8_t *p) const noexcept {
    return big_endian ? static_cast<uint16_t>(p[0] << 8 | p[1]) : load16(p);
  }
  uint32_t u32(const uint8_t *p) const noexcept {
    return big_endian ? static_cast<uint32_t>(u16(p)) << 16 | u16(p + 2) : load32(p);
  }
  uint64_t u64(const uint8_t *p) const noexcept {
    return big_endian ? static_cast<uint64_t>(u32(p)) << 32 | u32(p + 4)
                      : static_cast<uint64_t>(u32(p + 4)) << 32 | u32(p);
  }
  // An offset or count field: 8 bytes in BigTIFF, 4 otherwise.
  uint64_t word(const uint8_t *p) const noexcept { return bigtiff ? u64(p) : u32(p); }
  unsigned word_size() const noexcept { return bigtiff ? 8 : 4; }

  // Value i of an integer field whose values lie at p.
  uint64_t value(uint16_t type, const uint8_t *p, size_t i) const noexcept {
    switch (type_size(type)) {
      case 1: return p[i];
      case 2: return u16(p + 2 * i);
      case 4: return u32(p + 4 * i);
      default: return u64(p + 8 * i);
    }
  }

 private:
  int fd_;
  int64_t size_;
};

vepra_error_t *invalid_tag(const Entry &e) noexcept {
  uint32_t value = 0;
  std::memcpy(&value, e.field, 4);
  return make_error(VEPRA_E_TIFF_TAG, "Invalid TIFF tag [name=%d type=%d length=%d offset=%d]",
                    e.tag, e.type, static_cast<int>(e.count), static_cast<int>(value));
}

// Loads the count values of e into block (as raw file bytes), from the
// value field itself when they fit in it.
vepra_error_t *load_raw(const Source &src, const Entry &e, Block &block) noexcept {
  const unsigned size = type_size(e.type);
  if (size == 0 || e.count > src.size() / size + 8) return invalid_tag(e);
  const uint64_t bytes = e.count * size;
  if (bytes == 0) return nullptr;  // an empty array: nothing to copy
  if (vepra_error_t *err = block.reserve(bytes)) return err;
  if (bytes <= src.word_size()) {
    std::memcpy(block.data, e.field, bytes);
    return nullptr;
  }
  return src.read(src.word(e.field), block.data, bytes);
}

// Reads the count integer values of e, widened to 64 bits, into out.
vepra_error_t *load_integers(const Source &src, const Entry &e, Block &out) noexcept {
  if (!is_integer_type(e.type) || e.count == 0) return invalid_tag(e);
  Block raw;
  if (vepra_error_t *err = load_raw(src, e, raw)) return err;
  if (vepra_error_t *err = out.reserve(e.count * sizeof(uint64_t))) return err;
  for (uint64_t i = 0; i < e.count; ++i) {
    out.as<uint64_t>()[i] = src.value(e.type, raw.as<uint8_t>(), i);
  }
  return nullptr;
}

// The first value of an integer field, or fallback when it is absent.
vepra_error_t *scalar(const Source &src, const Entry &e, uint64_t fallback,
                      uint64_t *out) noexcept {
  if (!e.present) {
    *out = fallback;
    return nullptr;
  }
  if (!is_integer_type(e.type) || e.count == 0) return invalid_tag(e);
  if (uint64_t{type_size(e.type)} * e.count <= src.word_size()) {
    *out = src.value(e.type, e.field, 0);
    return nullptr;
  }
  uint8_t raw[8] = {};
  if (vepra_error_t *err = src.read(src.word(e.field), raw, type_size(e.type))) return err;
  *out = src.value(e.type, raw, 0);
  return nullptr;
}

vepra_error_t *read_resolution(const Source &src, const Entry &e, double *res) noexcept {
  if (!e.present) return nullptr;
  if (e.type != 5 || e.count == 0) return invalid_tag(e);
  uint8_t raw[8];
  if (src.bigtiff) {
    std::memcpy(raw, e.field, 8);
  } else if (vepra_error_t *err = src.read(src.u32(e.field), raw, 8)) {
    return err;
  }
  const uint32_t denominator = src.u32(raw + 4);
  if (denominator == 0) return invalid_tag(e);
  *res = static_cast<double>(src.u32(raw)) / denominator;
  return nullptr;
}

vepra_error_t *read_header(Source &src, uint64_t *first) noexcept {
  uint8_t raw[16];
  if (vepra_error_t *e = src.read(0, raw, 4)) return e;
  if (raw[0] != raw[1] || (raw[0] != 'I' && raw[0] != 'M')) {
    return make_error(VEPRA_E_TIFF_NOT, "Unknown data format.");
  }
  src.big_endian = raw[0] == 'M';
  const uint16_t version = src.u16(raw + 2);
  if (version == 42) {
    if (vepra_error_t *e = src.read(4, raw, 4)) return e;
    *first = src.u32(raw);
  } else if (version == 43) {
    src.bigtiff = true;
    if (vepra_error_t *e = src.read(4, raw, 12)) return e;
    if (src.u16(raw) != 8 || src.u16(raw + 2) != 0) {
      return make_error(VEPRA_E_TIFF_NOT, "Unknown TIFF format.");
    }
    *first = src.u64(raw + 4);
  } else {
    return make_error(VEPRA_E_TIFF_NOT, "Unknown TIFF format.");
  }
  return *first != 0 ? nullptr : make_error(0, "No image data were found.");
}

// The number of entries of the directory at offset, checked to fit the file.
vepra_error_t *entry_count(const Source &src, uint64_t offset, uint64_t *count) noexcept {
  uint8_t raw[8];
  const unsigned head = src.bigtiff ? 8 : 2;
  if (vepra_error_t *e = src.read(offset, raw, head)) return e;
  *count = src.bigtiff ? src.u64(raw) : src.u16(raw);
  const unsigned entry = src.bigtiff ? 20 : 12;
  if (*count > src.size() / entry || !src.holds(offset + head, *count * entry + src.word_size())) {
    return make_error(VEPRA_E_IO_READ);
  }
  return nullptr;
}

// The offset of the directory after the one at offset.
vepra_error_t *next_directory(const Source &src, uint64_t offset, uint64_t *next) noexcept {
  uint64_t count = 0;
  if (vepra_error_t *e = entry_count(src, offset, &count)) return e;
  const unsigned head = src.bigtiff ? 8 : 2, entry = src.bigtiff ? 20 : 12;
  uint8_t raw[8];
  if (vepra_error_t *e = src.read(offset + head + count * entry, raw, src.word_size())) return e;
  *next = src.word(raw);
  return nullptr;
}

// Walks the chain of directories: calls visit(index, offset) for each until
// it returns false or the chain ends. A chain that comes back to a
// directory it has passed is an error (found by Brent's method: the
// remembered directory moves on at every power of two steps).
template <typename Visit>
vepra_error_t *walk(const Source &src, uint64_t first, Visit visit) noexcept {
  uint64_t offset = first, remembered = 0, power = 1, steps = 0;
  for (uint32_t index = 0; offset != 0; ++index) {
    if (!visit(index, offset)) return nullptr;
    if (index == UINT32_MAX) break;
    if (vepra_error_t *e = next_directory(src, offset, &offset)) return e;
    if (offset != 0 && offset == remembered) {
      return make_error(VEPRA_E_TIFF_STRUCTURE, "TIFF directories loop or repeat their data");
    }
    if (++steps == power) {
      remembered = offset;
      power *= 2;
      steps = 0;
    }
  }
  return nullptr;
}

vepra_error_t *read_directory(const Source &src, uint64_t offset, Directory *dir) noexcept {
  uint64_t count = 0;
  if (vepra_error_t *e = entry_count(src, offset, &count)) return e;
  const unsigned head = src.bigtiff ? 8 : 2, size = src.bigtiff ? 20 : 12;
  uint8_t raw[64 * 20];
  for (uint64_t done = 0; done < count;) {
    const uint64_t n = std::min<uint64_t>(64, count - done);
    if (vepra_error_t *e = src.read(offset + head + done * size, raw, n * size)) return e;
    for (uint64_t i = 0; i < n; ++i) {
      const uint8_t *p = raw + i * size;
      Entry entry;
      entry.present = true;
      entry.tag = src.u16(p);
      entry.type = src.u16(p + 2);
      entry.count = src.bigtiff ? src.u64(p + 4) : src.u32(p + 4);
      std::memcpy(entry.field, p + (src.bigtiff ? 12 : 8), src.word_size());
      if (Entry *slot = dir->slot(entry.tag)) *slot = entry;
    }
    done += n;
  }
  return nullptr;
}

const char *compression_name(uint64_t c) noexcept {
  switch (c) {
    case 2: return "CCITT RLE";
    case 3: return "CCITT Group 3";
    case 4: return "CCITT Group 4";
    case 5: return "LZW";
    case 6: return "old-style JPEG";
    case 7: return "JPEG";
    case 8:
    case 32946: return "Deflate";
    case 32773: return "PackBits";
    case 34887: return "LERC";
    case 34925: return "LZMA";
    case 50000: return "ZSTD";
    case 50001: return "WebP";
    case 50002: return "JPEG XL";
    default: return "unknown";
  }
}

const char *photometric_name(uint64_t p) noexcept {
  switch (p) {
    case 2: return "RGB";
    case 4: return "transparency mask";
    case 5: return "separated, CMYK";
    case 6: return "YCbCr";
    case 8: return "CIE L*a*b*";
    default: return "unknown";
  }
}

// Expansion ratio no data of the compression exceeds, with room for the
// headers: what bounds the image a file of a given size can hold.
uint64_t max_ratio(uint64_t compression) noexcept {
  switch (compression) {
    case 1: return 1;
    case 32773: return 64;
    case 8:
    case 32946: return 1100;
    case 5: return 4096;
    default: return 32768;  // ZSTD: a 128 KiB block of one byte in four bytes
  }
}

// What a page is made of once its directory has been checked.
struct Layout {
  uint32_t width = 0, height = 0;
  unsigned bytes = 0;            // of a sample: 1 or 2
  uint64_t compression = 1;
  bool predictor = false;
  bool tiled = false;
  uint64_t chunk_width = 0, chunk_height = 0;  // a tile, or a strip's width and rows
  uint64_t across = 1, chunks = 0;             // chunks a row of them, and in all
  bool palette = false;
};

vepra_error_t *fill_record(const Source &src, const Directory &d, uint32_t flags,
                           vepra_img_t *img, Layout *lay, Block &offsets, Block &counts) noexcept {
  uint64_t width = 0, height = 0, compression = 0, photometric = 0, samples = 0, planar = 0,
           unit = 0, predictor = 0, fill = 0, format = 0;
  PASS_ON(scalar(src, d.width, 0, &width));
  PASS_ON(scalar(src, d.height, 0, &height));
  PASS_ON(scalar(src, d.compression, 1, &compression));
  PASS_ON(scalar(src, d.photometric, UINT32_MAX, &photometric));
  PASS_ON(scalar(src, d.samples, 1, &samples));
  PASS_ON(scalar(src, d.planar, 1, &planar));
  PASS_ON(scalar(src, d.res_unit, UINT32_MAX, &unit));
  PASS_ON(scalar(src, d.predictor, 1, &predictor));
  PASS_ON(scalar(src, d.fill_order, 1, &fill));
  PASS_ON(scalar(src, d.sample_format, 1, &format));
  if (width > UINT32_MAX || height > UINT32_MAX) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "Image of %llu x %llu pixels is too large",
                      static_cast<unsigned long long>(width),
                      static_cast<unsigned long long>(height));
  }
  img->width = static_cast<uint32_t>(width);
  img->height = static_cast<uint32_t>(height);
  img->samples_per_pixel = static_cast<uint32_t>(samples);
  img->compression = static_cast<uint32_t>(compression);
  img->planar_config = static_cast<uint32_t>(planar);
  img->photometric = static_cast<int32_t>(photometric);
  img->res_unit = static_cast<int32_t>(unit);
  // BitsPerSample: one value for every channel, or one a channel.
  img->bits_per_sample[0] = img->bits_per_sample[1] = img->bits_per_sample[2] = 1;
  if (d.bits.present) {
    Block bits;
    PASS_ON(load_integers(src, d.bits, bits));
    for (uint64_t i = 0; i < 3; ++i) {
      img->bits_per_sample[i] =
          static_cast<uint32_t>(bits.as<uint64_t>()[std::min(i, d.bits.count - 1)]);
    }
  }
  PASS_ON(read_resolution(src, d.xres, &img->xres));
  PASS_ON(read_resolution(src, d.yres, &img->yres));
  if (d.software.present) {
    Block text;
    PASS_ON(load_raw(src, d.software, text));
    void *copy = nullptr;
    PASS_ON(vepra_mem_calloc(d.software.count + 1, 1, &copy));
    if (d.software.count > 0) std::memcpy(copy, text.data, d.software.count);
    img->software = static_cast<char *>(copy);
  }
  switch (img->res_unit) {
    case -1:
    case 2: break;
    case 1:
      if ((flags & VEPRA_IMG_READ_UNITLESS) == 0) goto bad_unit;
      img->xres = img->yres = 0;
      break;
    case 3:
      img->xres *= 2.54;
      img->yres *= 2.54;
      break;
    default:
    bad_unit:
      return make_error(VEPRA_E_TIFF_STRUCTURE, "Unknown resolution units [%d] in TIFF file",
                        img->res_unit);
  }

  // What the reader decodes, and clear refusals of the rest.
  const uint32_t bits = img->bits_per_sample[0];
  if (samples != 1) {
    if (planar != 1 && samples > 1) {
      return make_error(0, "TIFF planar configuration %u with %u samples per pixel is not supported: "
                    "only one sample per pixel is read",
                    img->planar_config, img->samples_per_pixel);
    }
    return make_error(0, "TIFF image with %u samples per pixel%s is not supported: only one sample per "
                  "pixel is read%s",
                  img->samples_per_pixel, photometric == 2 ? " (RGB)" : "",
                  photometric == 2 ? " (convert the image to gray first)" : "");
  }
  if (planar != 1 && planar != 2) {
    return make_error(0, "TIFF planar configuration %u is not supported", img->planar_config);
  }
  if (format == 3) {
    return make_error(0, "TIFF samples of %u-bit floating point are not supported: only 8- and 16-bit "
                  "unsigned integer samples are read",
                  bits);
  }
  if (format != 1) {
    return make_error(0, "TIFF sample format %u is not supported: only 8- and 16-bit unsigned integer "
                  "samples are read",
                  static_cast<unsigned>(format));
  }
  if (bits != 8 && bits != 16) {
    return make_error(0, "TIFF image with %u bits per sample is not supported: only 8- and 16-bit "
                  "samples are read",
                  bits);
  }
  if (!can_decode(compression)) {
    return make_error(0, "TIFF compression %u (%s) is not supported: only uncompressed, LZW, Deflate, "
                  "ZSTD and PackBits images are read (convert with: tiffcp -c none IN OUT)",
                  img->compression, compression_name(compression));
  }
  if (predictor != 1 && predictor != 2) {
    return make_error(0, "TIFF predictor %u%s is not supported: only horizontal differencing (2) is read",
                  static_cast<unsigned>(predictor), predictor == 3 ? " (floating point)" : "");
  }
  if (fill != 1) {
    return make_error(0, "TIFF fill order %u (bits in reversed order) is not supported",
                  static_cast<unsigned>(fill));
  }
  if (photometric == UINT32_MAX) {
    if ((flags & VEPRA_IMG_READ_HEADER) == 0) {
      return make_error(VEPRA_E_TIFF_STRUCTURE, "Unknown photometric interpretation");
    }
  } else if (photometric == 3) {
    lay->palette = true;
  } else if (photometric > 1) {
    return make_error(0, "TIFF photometric interpretation %u (%s) is not supported: only grayscale "
                  "images are read",
                  static_cast<unsigned>(photometric), photometric_name(photometric));
  }

  lay->width = img->width;
  lay->height = img->height;
  lay->bytes = bits / 8;
  lay->compression = compression;
  lay->predictor = predictor == 2;
  lay->tiled = d.tile_width.present || d.tile_offsets.present;
  const Entry &offsets_entry = lay->tiled ? d.tile_offsets : d.strip_offsets;
  const Entry &counts_entry = lay->tiled ? d.tile_counts : d.strip_counts;
  if (lay->tiled) {
    uint64_t tw = 0, tl = 0;
    PASS_ON(scalar(src, d.tile_width, 0, &tw));
    PASS_ON(scalar(src, d.tile_length, 0, &tl));
    if (tw == 0 || tl == 0 || tw > UINT32_MAX || tl > UINT32_MAX) {
      return make_error(VEPRA_E_TIFF_STRUCTURE, "Invalid TIFF tile size %llu x %llu",
                        static_cast<unsigned long long>(tw), static_cast<unsigned long long>(tl));
    }
    if (tw * tl > (uint64_t{1} << 30)) {
      return make_error(VEPRA_E_TIFF_STRUCTURE, "Invalid TIFF tile size %llu x %llu",
                        static_cast<unsigned long long>(tw), static_cast<unsigned long long>(tl));
    }
    lay->chunk_width = tw;
    lay->chunk_height = tl;
    lay->across = (width + tw - 1) / tw;
    lay->chunks = lay->across * ((height + tl - 1) / tl);
  } else {
    uint64_t rows = 0;
    PASS_ON(scalar(src, d.rows_per_strip, UINT32_MAX, &rows));
    if (rows == 0) return make_error(VEPRA_E_TIFF_STRUCTURE, "Invalid TIFF rows per strip 0");
    rows = std::min<uint64_t>(rows, std::max<uint64_t>(height, 1));
    lay->chunk_width = width;
    lay->chunk_height = rows;
    lay->chunks = (height + rows - 1) / rows;
  }
  // The chunk arrays, kept in the record as 32-bit values (larger BigTIFF
  // offsets and counts saturate there; the reader keeps them whole).
  uint64_t n_offsets = 0, n_counts = 0;
  if (offsets_entry.present) {
    PASS_ON(load_integers(src, offsets_entry, offsets));
    n_offsets = offsets_entry.count;
  }
  if (counts_entry.present) {
    PASS_ON(load_integers(src, counts_entry, counts));
    n_counts = counts_entry.count;
  }
  if (n_offsets > INT32_MAX || n_counts > INT32_MAX) return invalid_tag(offsets_entry);
  if (n_offsets != n_counts) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "Inconsistent number of strips [%d vs. %d]",
                      static_cast<int>(n_offsets), static_cast<int>(n_counts));
  }
  if (n_offsets < lay->chunks) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "TIFF image needs %llu %s, the file gives %llu",
                      static_cast<unsigned long long>(lay->chunks), lay->tiled ? "tiles" : "strips",
                      static_cast<unsigned long long>(n_offsets));
  }
  for (auto [block, field, count] :
       {std::tuple{&offsets, &img->strip_offsets, n_offsets},
        std::tuple{&counts, &img->strip_byte_counts, n_counts}}) {
    void *copy = nullptr;
    PASS_ON(vepra_mem_calloc(std::max<uint64_t>(count, 1), sizeof(uint32_t), &copy));
    *field = static_cast<uint32_t *>(copy);
    for (uint64_t i = 0; i < count; ++i) {
      (*field)[i] = static_cast<uint32_t>(std::min<uint64_t>(block->as<uint64_t>()[i], UINT32_MAX));
    }
  }
  img->strip_count = static_cast<int32_t>(n_offsets);
  img->strip_byte_count_count = static_cast<uint32_t>(n_counts);
  return nullptr;
}

// The gray levels of a palette whose red, green and blue maps are equal,
// scaled to the sample depth; any other palette is refused.
vepra_error_t *gray_levels(const Source &src, const Entry &map, unsigned bytes,
                           Block &levels) noexcept {
  const uint64_t n = uint64_t{1} << (8 * bytes);
  if (!map.present) return make_error(0, "TIFF palette image without a colour map is not supported");
  if (map.type != 3 || map.count != 3 * n) return invalid_tag(map);
  Block values;
  PASS_ON(load_integers(src, map, values));
  PASS_ON(levels.reserve(n * sizeof(uint16_t)));
  const uint64_t *v = values.as<uint64_t>();
  for (uint64_t i = 0; i < n; ++i) {
    if (v[i] != v[n + i] || v[i] != v[2 * n + i]) {
      return make_error(0, "TIFF colour palette is not supported: only palettes of gray levels are read "
                    "(convert the image to gray first)");
    }
    levels.as<uint16_t>()[i] =
        static_cast<uint16_t>(bytes == 2 ? v[i] : (v[i] * 255 + 32767) / 65535);
  }
  return nullptr;
}

// Allocates the pixel rows with the layout of vepra_mem_matrix_alloc() for
// rows and columns from 0 (released by vepra_img_free()).
template <typename Sample>
vepra_error_t *alloc_rows(const vepra_img_t *img, Sample ***rows) noexcept {
  if (img->width == 0 || img->height == 0) return nullptr;
  void *table = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_mem_calloc(img->height, sizeof(Sample *), &table),
                        "Cannot allocate matrix.");
  *rows = static_cast<Sample **>(table);
  for (uint32_t i = 0; i < img->height; ++i) {
    void *row = nullptr;
    VEPRA_RETURN_IF_ERROR(vepra_mem_malloc(size_t{img->width} * sizeof(Sample), &row),
                          "Cannot allocate matrix.");
    (*rows)[i] = static_cast<Sample *>(row);
  }
  return nullptr;
}

vepra_error_t *decode_failure(Decoded d, const Layout &lay, uint64_t chunk, size_t expected) {
  const char *kind = lay.tiled ? "tile" : "strip";
  const char *name = compression_name(lay.compression);
  const auto index = static_cast<unsigned long long>(chunk);
  switch (d) {
    case Decoded::kShort:
      return make_error(VEPRA_E_TIFF_INCOMPLETE,
                        "TIFF %s %llu ends before its %zu bytes of pixels (%s)", kind, index,
                        expected, lay.compression == 1 ? "uncompressed" : name);
    case Decoded::kTooLong:
      return make_error(VEPRA_E_TIFF_STRUCTURE,
                        "TIFF %s %llu holds more than its %zu bytes of pixels (%s)", kind, index,
                        expected, name);
    case Decoded::kOldLzw:
      return make_error(0, "TIFF compression 5 (LZW) in the old reversed-bit-order variant is not "
                    "supported (convert with: tiffcp -c none IN OUT)");
    case Decoded::kNoMemory: return make_error(VEPRA_E_ALLOC);
    default:
      return make_error(VEPRA_E_TIFF_STRUCTURE, "TIFF %s %llu holds invalid %s data", kind, index,
                        name);
  }
}

// Decodes every strip or tile of the page into the rows.
vepra_error_t *read_pixels(const Source &src, const Layout &lay, const Block &offsets,
                           const Block &counts, uint8_t **rows) noexcept {
  Decoders decoders;
  Block in, out;
  const uint64_t row_bytes = lay.chunk_width * lay.bytes;
  const bool swap = src.big_endian && lay.bytes == 2;
  for (uint64_t i = 0; i < lay.chunks; ++i) {
    const uint64_t top = (i / lay.across) * lay.chunk_height;
    const uint64_t left = (i % lay.across) * lay.chunk_width;
    const uint64_t nrows = std::min<uint64_t>(lay.chunk_height, lay.height - top);
    const uint64_t ncols = std::min<uint64_t>(lay.chunk_width, lay.width - left);
    // A strip holds its own rows only; a tile is always whole.
    const uint64_t rows_held = lay.tiled ? lay.chunk_height : nrows;
    const uint64_t expected = rows_held * row_bytes;
    const uint64_t offset = offsets.as<uint64_t>()[i];
    const uint64_t length = counts.as<uint64_t>()[i];
    if (!src.holds(offset, length)) return make_error(VEPRA_E_TIFF_INCOMPLETE);
    // No data of the compression expands this far: refused before the
    // output is allocated (a huge tile of a few bytes).
    if (expected / max_ratio(lay.compression) > length + 64) {
      return decode_failure(Decoded::kShort, lay, i, expected);
    }
    uint8_t *pixels = nullptr;
    if (lay.compression == 1 && !lay.tiled) {
      // An uncompressed strip goes straight into its rows.
      if (length < expected) return decode_failure(Decoded::kShort, lay, i, expected);
      iovec batch[kRowBatch];
      for (uint64_t r = 0; r < nrows;) {
        int queued = 0;
        for (; r < nrows && queued < kRowBatch; ++r, ++queued) {
          batch[queued] = iovec{rows[top + r], row_bytes};
        }
        const auto at = static_cast<off_t>(offset + (r - static_cast<uint64_t>(queued)) * row_bytes);
        const bool ok = transfer_all(batch, queued, [&](const iovec *iov, int n, uint64_t done) {
          return preadv(src.fd(), iov, n, at + static_cast<off_t>(done));
        });
        if (!ok) return make_error(VEPRA_E_TIFF_INCOMPLETE);
      }
      for (uint64_t r = 0; r < nrows; ++r) {
        if (swap) swap16(rows[top + r], lay.width);
        if (lay.predictor) undo_predictor(rows[top + r], 1, lay.width, lay.bytes);
      }
      continue;
    }
    PASS_ON(in.reserve(length));
    PASS_ON(src.read(offset, in.data, length));
    if (lay.compression == 32773 && !lay.tiled) {
      // PackBits refers to no earlier output: a strip goes straight into
      // its rows.
      const Decoded d = decode_packbits_rows({in.as<uint8_t>(), length}, rows + top, nrows,
                                             row_bytes);
      if (d != Decoded::kOk) return decode_failure(d, lay, i, expected);
      for (uint64_t r = 0; r < nrows; ++r) {
        if (swap) swap16(rows[top + r], lay.width);
        if (lay.predictor) undo_predictor(rows[top + r], 1, lay.width, lay.bytes);
      }
      continue;
    }
    if (lay.compression == 1) {
      if (length < expected) return decode_failure(Decoded::kShort, lay, i, expected);
      pixels = in.as<uint8_t>();
    } else {
      // A strip of one row (libtiff's default for rows of 8 KiB or more)
      // is decoded straight into its row.
      const bool direct = !lay.tiled && nrows == 1;
      if (!direct) PASS_ON(out.reserve(expected));
      pixels = direct ? rows[top] : out.as<uint8_t>();
      const Decoded d = decoders.decode(static_cast<uint32_t>(lay.compression),
                                        {in.as<uint8_t>(), length}, {pixels, expected});
      if (d != Decoded::kOk) return decode_failure(d, lay, i, expected);
      if (direct) {
        if (swap) swap16(pixels, lay.width);
        if (lay.predictor) undo_predictor(pixels, 1, lay.width, lay.bytes);
        continue;
      }
    }
    if (swap) swap16(pixels, expected / 2);
    if (lay.predictor) undo_predictor(pixels, rows_held, lay.chunk_width, lay.bytes);
    for (uint64_t r = 0; r < nrows; ++r) {
      std::memcpy(rows[top + r] + left * lay.bytes, pixels + r * row_bytes, ncols * lay.bytes);
    }
  }
  return nullptr;
}

template <typename Sample>
void apply_levels(vepra_img_t *img, Sample **rows, const uint16_t *levels) noexcept {
  for (uint32_t r = 0; r < img->height; ++r) {
    for (uint32_t c = 0; c < img->width; ++c) rows[r][c] = static_cast<Sample>(levels[rows[r][c]]);
  }
}

vepra_error_t *read_page(const Source &src, uint64_t offset, vepra_img_t *img, uint32_t flags) {
  Directory dir;
  PASS_ON(read_directory(src, offset, &dir));
  Layout lay;
  Block offsets, counts, levels;
  PASS_ON(fill_record(src, dir, flags, img, &lay, offsets, counts));
  if (lay.palette) {
    PASS_ON(gray_levels(src, dir.color_map, lay.bytes, levels));
    img->photometric = 1;  // the levels are gray intensities, black first
  }
  if ((flags & VEPRA_IMG_READ_HEADER) != 0) return nullptr;
  // Refuse an image the file's data could not expand to before allocating.
  const bool huge = lay.width > INT32_MAX || lay.height > INT32_MAX;
  const uint64_t bytes = huge ? 0 : uint64_t{lay.width} * lay.height * lay.bytes;
  if (huge || bytes / max_ratio(lay.compression) > src.size()) {
    return make_error(VEPRA_E_TIFF_STRUCTURE, "Image of %u x %u pixels does not fit in the file",
                      lay.width, lay.height);
  }
  if (lay.bytes == 1) {
    PASS_ON(alloc_rows(img, &img->data8));
  } else {
    PASS_ON(alloc_rows(img, &img->data16));
  }
  if (bytes == 0) return nullptr;
  auto **rows = lay.bytes == 1 ? img->data8 : reinterpret_cast<uint8_t **>(img->data16);
  PASS_ON(read_pixels(src, lay, offsets, counts, rows));
  if (lay.palette) {
    if (lay.bytes == 1) {
      apply_levels(img, img->data8, levels.as<uint16_t>());
    } else {
      apply_levels(img, img->data16, levels.as<uint16_t>());
    }
  }
  return nullptr;
}

vepra_error_t *read_nth(const Source &src, vepra_img_t *img, uint32_t flags,
                        uint32_t page) noexcept {
  uint64_t first = 0, found = 0;
  PASS_ON(read_header(const_cast<Source &>(src), &first));
  uint32_t pages = 0;
  PASS_ON(walk(src, first, [&](uint32_t index, uint64_t offset) {
    pages = index + 1;
    if (index != page) return true;
    found = offset;
    return false;
  }));
  if (found == 0) {
    return make_error(0, "Page %u does not exist: the file has %u page%s", page, pages,
                      pages == 1 ? "" : "s");
  }
  return read_page(src, found, img, flags);
}

}  // namespace

vepra_error_t *read_tiff_page(const char *path, vepra_img_t *img, uint32_t flags,
                              uint32_t page) noexcept {
  File file;
  PASS_ON(open_for_reading(path, kImageContext, &file));
  reset(img);
  Source src(fileno(file.get()));
  vepra_error_t *e = read_nth(src, img, flags, page);
  if (e != nullptr) {
    vepra_img_free(img);
    return wrap_error(e, "%s", kImageContext);
  }
  img->type = 1;
  return nullptr;
}

}  // namespace vepra::detail::tiff

using namespace vepra::detail;
using namespace vepra::detail::tiff;

extern "C" vepra_error_t *vepra_img_page_count(const char *path, uint32_t *count) noexcept {
  if (count == nullptr) return make_wrapped(VEPRA_E_ASSERT, kCountContext, "No count given");
  File file;
  PASS_ON(open_for_reading(path, kCountContext, &file));
  Source src(fileno(file.get()));
  uint64_t first = 0;
  uint32_t pages = 0;
  vepra_error_t *e = read_header(src, &first);
  if (e == nullptr) {
    e = walk(src, first, [&](uint32_t index, uint64_t) {
      pages = index + 1;
      return true;
    });
  }
  if (e != nullptr) return wrap_error(e, "%s", kCountContext);
  *count = pages;
  return nullptr;
}

