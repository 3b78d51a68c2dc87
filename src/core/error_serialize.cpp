// Error chains as tpl images of format "A(iissis)" (root cause first), and
// the chain checksum.
//
// Images come from outside the process, and tpl walks an image's lengths
// and counts without checking them against the buffer; it also forgets,
// once an image is loaded, that one in the old string layout (no null
// strings) is to be read that way, and ends the process when it notices.
// So an image is first checked here, field by field within its bounds, and
// only an image that is exactly what tpl writes for this format (strings
// with null support, either byte order) is handed to tpl.
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <tpl.h>

#include "vepra_error.h"
#include "vepra_util.h"

namespace {

constexpr char kFormat[] = "A(iissis)";

// Layout of tpl's image: magic "tpl", a flags byte, the image's total size
// as 32 bits, the format with its terminating zero, then the data.
constexpr unsigned char kFlagBigEndian = 1;
constexpr unsigned char kFlagNullStrings = 2;  // strings stored as length + 1, 0 for null
constexpr std::size_t kHeaderSize = 3 + 1 + 4 + sizeof kFormat;
// Smallest element: three 32-bit integers and three string lengths.
constexpr std::size_t kMinElementSize = 6 * 4;

// Reads 32-bit words of an image in its own byte order, never past its end.
class ImageReader {
 public:
  ImageReader(const unsigned char *p, std::size_t n, bool swap) noexcept : p_(p), n_(n), swap_(swap) {}

  bool u32(std::uint32_t &v) noexcept {
    if (n_ - pos_ < 4) return false;
    std::memcpy(&v, p_ + pos_, 4);
    if (swap_) v = __builtin_bswap32(v);
    pos_ += 4;
    return true;
  }

  bool skip(std::size_t k) noexcept {
    if (n_ - pos_ < k) return false;
    pos_ += k;
    return true;
  }

  // A string: its length + 1 (0 for null), then its bytes.
  bool string() noexcept {
    std::uint32_t len = 0;
    if (!u32(len)) return false;
    return skip(len > 0 ? len - 1 : 0);
  }

  std::size_t left() const noexcept { return n_ - pos_; }

 private:
  const unsigned char *p_;
  std::size_t n_;
  std::size_t pos_ = 0;
  bool swap_;
};

// True when buf holds exactly one image of kFormat, every count and length
// inside the buffer.
bool image_is_sound(const unsigned char *buf, std::size_t len) noexcept {
  if (len < kHeaderSize + 4 || len > UINT32_MAX) return false;
  if (std::memcmp(buf, "tpl", 3) != 0) return false;
  const unsigned char flags = buf[3];
  if ((flags & ~kFlagBigEndian) != kFlagNullStrings) return false;
  const bool big_host = std::endian::native == std::endian::big;
  const bool swap = ((flags & kFlagBigEndian) != 0) != big_host;
  if (std::memcmp(buf + 8, kFormat, sizeof kFormat) != 0) return false;

  ImageReader image(buf, len, swap);
  std::uint32_t total = 0, count = 0;
  if (!image.skip(4) || !image.u32(total) || total != len) return false;
  if (!image.skip(sizeof kFormat) || !image.u32(count)) return false;
  if (count > image.left() / kMinElementSize) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!image.skip(8) || !image.string() || !image.string() || !image.skip(4) || !image.string())
      return false;
  }
  return image.left() == 0;
}

// The fields of one element, as tpl maps them.
struct Element {
  int type = 0;
  int code = 0;
  char *message = nullptr;
  char *file = nullptr;
  int line = 0;
  char *function = nullptr;

  tpl_node *map() noexcept {
    return tpl_map(const_cast<char *>(kFormat), &type, &code, &message, &file, &line, &function);
  }
};

std::uint16_t crc16_text(std::uint16_t crc, const char *s) noexcept {
  return s == nullptr ? crc : vepra_util_crc16(crc, s, std::strlen(s));
}

std::uint16_t crc16_int(std::uint16_t crc, std::int32_t v) noexcept {
  return vepra_util_crc16(crc, &v, sizeof v);
}

}  // namespace

extern "C" {

void vepra_error_serialize(const vepra_error_t *chain, void **buf, size_t *length) noexcept {
  if (buf != nullptr) *buf = nullptr;
  if (length != nullptr) *length = 0;
  if (buf == nullptr || length == nullptr) return;

  // The chain runs head to root; the image runs root to head.
  std::size_t n = 0;
  for (const vepra_error_t *e = chain; e != nullptr; e = e->next) ++n;
  const vepra_error_t **records = nullptr;
  if (n > 0) {
    records = static_cast<const vepra_error_t **>(std::malloc(n * sizeof *records));
    if (records == nullptr) return;
    std::size_t i = n;
    for (const vepra_error_t *e = chain; e != nullptr; e = e->next) records[--i] = e;
  }

  Element el;
  tpl_node *tn = el.map();
  if (tn != nullptr) {
    bool packed = true;
    for (std::size_t i = 0; i < n && packed; ++i) {
      const vepra_error_t *e = records[i];
      el.type = e->type;
      el.code = e->code;
      el.message = const_cast<char *>(e->message);
      el.file = const_cast<char *>(e->file);
      el.line = e->line;
      el.function = const_cast<char *>(e->function);
      packed = tpl_pack(tn, 1) == 0;
    }
    void *image = nullptr;
    std::size_t image_len = 0;
    if (packed && tpl_dump(tn, TPL_MEM, &image, &image_len) == 0) {
      *buf = image;
      *length = image_len;
    }
    tpl_free(tn);
  }
  std::free(records);
}

vepra_error_t **vepra_error_deserialize(vepra_error_t **chain, const void *buf, size_t length) noexcept {
  if (chain == nullptr) return nullptr;
  *chain = nullptr;
  if (buf == nullptr || !image_is_sound(static_cast<const unsigned char *>(buf), length)) return chain;

  Element el;
  tpl_node *tn = el.map();
  if (tn == nullptr) return chain;
  vepra_error_t *head = nullptr;
  if (tpl_load(tn, TPL_MEM, const_cast<void *>(buf), length) == 0) {
    while (tpl_unpack(tn, 1) > 0) {
      vepra_error_t *e =
          vepra_error_create_i(el.type, el.code, el.line, el.file, el.function, head, el.message);
      std::free(el.message);
      std::free(el.file);
      std::free(el.function);
      el.message = el.file = el.function = nullptr;
      if (e == nullptr) break;
      head = e;
    }
  }
  tpl_free(tn);
  *chain = head;
  return chain;
}

uint16_t vepra_error_crc16(const vepra_error_t *chain) noexcept {
  std::uint16_t crc = 0;
  for (const vepra_error_t *e = chain; e != nullptr; e = e->next) {
    crc = crc16_int(crc, e->type);
    crc = crc16_int(crc, e->code);
    crc = crc16_int(crc, e->line);
    crc = crc16_text(crc, e->message);
    crc = crc16_text(crc, e->file);
    crc = crc16_text(crc, e->function);
  }
  return crc;
}

}  // extern "C"
