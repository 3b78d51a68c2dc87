// Decoders of compressed TIFF strips and tiles: LZW and PackBits of our own,
// Deflate through libdeflate, ZSTD through libzstd, and the horizontal
// predictor.
#include "image/tiff_decode.hpp"

#include <libdeflate.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cstring>

namespace vepra::detail::tiff {

namespace {

constexpr uint32_t kClear = 256;
constexpr uint32_t kEnd = 257;
constexpr uint32_t kFirstCode = 258;
constexpr uint32_t kTableSize = 4096;

inline uint64_t load_be64(const uint8_t *p) noexcept {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return __builtin_bswap64(v);
}

}  // namespace

// Every string of the LZW table is a run of bytes already written to the
// output: the string of the previous code followed by the first byte of the
// current one. The table therefore holds (offset, length) pairs into the
// output, and a code is decoded by a copy from earlier output, as an LZ77
// match would be. Copies of up to 16 bytes go as two 8-byte words when the
// output has room for them; the bytes written past the string are
// overwritten by the codes that follow.
Decoded decode_lzw(std::span<const uint8_t> in, std::span<uint8_t> out) noexcept {
  // The old variant starts with a clear code written LSB first.
  if (in.size() >= 2 && in[0] == 0 && (in[1] & 1) != 0) return Decoded::kOldLzw;
  struct Entry {
    uint32_t offset;
    uint32_t length;
  };
  Entry table[kTableSize];
  const uint8_t *src = in.data();
  const size_t src_size = in.size();
  uint8_t *dst = out.data();
  const size_t end = out.size();
  size_t ip = 0, op = 0;
  uint64_t bits = 0;  // unread bits at the top
  unsigned nbits = 0;
  unsigned width = 9;
  uint32_t next = kFirstCode;
  bool have_prev = false;
  Entry prev{0, 0};
  while (op < end) {
    if (nbits < width) {
      if (ip + 8 <= src_size) {
        // Bytes that only partly fit are loaded again, at the same place,
        // by the next refill: OR-ing them twice changes nothing.
        bits |= load_be64(src + ip) >> nbits;
        const unsigned take = (63 - nbits) >> 3;
        ip += take;
        nbits += take * 8;
      } else {
        while (nbits <= 56 && ip < src_size) {
          bits |= static_cast<uint64_t>(src[ip++]) << (56 - nbits);
          nbits += 8;
        }
        if (nbits < width) return Decoded::kShort;
      }
    }
    const auto code = static_cast<uint32_t>(bits >> (64 - width));
    bits <<= width;
    nbits -= width;
    if (code == kClear) {
      width = 9;
      next = kFirstCode;
      have_prev = false;
      continue;
    }
    if (code == kEnd) break;
    Entry cur;
    if (code < 256) {
      dst[op] = static_cast<uint8_t>(code);
      cur = {static_cast<uint32_t>(op), 1};
    } else if (code < next) {
      const Entry e = table[code];
      const size_t room = end - op;
      if (e.length <= 16 && room >= 16) {
        uint64_t w0, w1;
        std::memcpy(&w0, dst + e.offset, 8);
        std::memcpy(&w1, dst + e.offset + 8, 8);
        std::memcpy(dst + op, &w0, 8);
        std::memcpy(dst + op + 8, &w1, 8);
      } else {
        // The string ends before the output position: no overlap.
        std::memcpy(dst + op, dst + e.offset, std::min<size_t>(e.length, room));
      }
      cur = {static_cast<uint32_t>(op), e.length};
    } else if (code == next && have_prev) {
      // The string being defined: the previous one and its own first byte.
      const size_t room = end - op;
      std::memmove(dst + op, dst + prev.offset, std::min<size_t>(prev.length, room));
      if (room > prev.length) dst[op + prev.length] = dst[prev.offset];
      cur = {static_cast<uint32_t>(op), prev.length + 1};
    } else {
      return Decoded::kCorrupt;
    }
    if (have_prev && next < kTableSize) {
      table[next++] = {prev.offset, prev.length + 1};
      // Early change: the width grows one code before the table needs it.
      if (next + 1 == (1u << width) && width < 12) ++width;
    }
    op += cur.length;
    prev = cur;
    have_prev = true;
  }
  return op >= end ? Decoded::kOk : Decoded::kShort;
}

Decoded decode_packbits(std::span<const uint8_t> in, std::span<uint8_t> out) noexcept {
  const uint8_t *src = in.data();
  const size_t src_size = in.size();
  uint8_t *dst = out.data();
  const size_t end = out.size();
  size_t ip = 0, op = 0;
  while (op < end) {
    if (ip >= src_size) return Decoded::kShort;
    const auto n = static_cast<int8_t>(src[ip++]);
    if (n >= 0) {
      const size_t count = static_cast<size_t>(n) + 1;
      if (src_size - ip < count) return Decoded::kShort;
      const size_t take = std::min(count, end - op);
      std::memcpy(dst + op, src + ip, take);
      ip += count;
      op += take;
    } else if (n != -128) {
      if (ip >= src_size) return Decoded::kShort;
      const size_t take = std::min<size_t>(1 - n, end - op);
      std::memset(dst + op, src[ip++], take);
      op += take;
    }
  }
  return Decoded::kOk;
}

Decoded decode_packbits_rows(std::span<const uint8_t> in, uint8_t *const *rows, size_t nrows,
                             size_t row_bytes) noexcept {
  const uint8_t *src = in.data();
  const size_t src_size = in.size();
  size_t ip = 0, row = 0, col = 0;
  if (row_bytes == 0) return Decoded::kOk;
  // Writes count bytes (from `from`, or the byte `fill` when from is null)
  // across rows; false once the last row is full.
  auto put = [&](const uint8_t *from, uint8_t fill, size_t count) {
    while (count > 0 && row < nrows) {
      const size_t take = std::min(count, row_bytes - col);
      if (from != nullptr) {
        std::memcpy(rows[row] + col, from, take);
        from += take;
      } else {
        std::memset(rows[row] + col, fill, take);
      }
      count -= take;
      col += take;
      if (col == row_bytes) {
        col = 0;
        ++row;
      }
    }
  };
  while (row < nrows) {
    if (ip >= src_size) return Decoded::kShort;
    const auto n = static_cast<int8_t>(src[ip++]);
    if (n >= 0) {
      const size_t count = static_cast<size_t>(n) + 1;
      if (src_size - ip < count) return Decoded::kShort;
      put(src + ip, 0, count);
      ip += count;
    } else if (n != -128) {
      if (ip >= src_size) return Decoded::kShort;
      put(nullptr, src[ip++], static_cast<size_t>(1 - n));
    }
  }
  return Decoded::kOk;
}

bool can_decode(uint32_t compression) noexcept {
  switch (compression) {
    case 1:
    case 5:
    case 8:
    case 32773:
    case 32946:
    case 50000: return true;
    default: return false;
  }
}

Decoders::~Decoders() {
  if (deflate_ != nullptr) libdeflate_free_decompressor(static_cast<libdeflate_decompressor *>(deflate_));
  if (zstd_ != nullptr) ZSTD_freeDCtx(static_cast<ZSTD_DCtx *>(zstd_));
}

Decoded Decoders::decode(uint32_t compression, std::span<const uint8_t> in,
                         std::span<uint8_t> out) noexcept {
  switch (compression) {
    case 1:
      if (in.size() < out.size()) return Decoded::kShort;
      std::memcpy(out.data(), in.data(), out.size());
      return Decoded::kOk;
    case 5: return decode_lzw(in, out);
    case 32773: return decode_packbits(in, out);
    case 8:
    case 32946: {
      if (deflate_ == nullptr) deflate_ = libdeflate_alloc_decompressor();
      if (deflate_ == nullptr) return Decoded::kNoMemory;
      switch (libdeflate_zlib_decompress(static_cast<libdeflate_decompressor *>(deflate_),
                                         in.data(), in.size(), out.data(), out.size(), nullptr)) {
        case LIBDEFLATE_SUCCESS: return Decoded::kOk;
        case LIBDEFLATE_SHORT_OUTPUT: return Decoded::kShort;
        case LIBDEFLATE_INSUFFICIENT_SPACE: return Decoded::kTooLong;
        default: return Decoded::kCorrupt;
      }
    }
    case 50000: {
      if (zstd_ == nullptr) zstd_ = ZSTD_createDCtx();
      if (zstd_ == nullptr) return Decoded::kNoMemory;
      const size_t n = ZSTD_decompressDCtx(static_cast<ZSTD_DCtx *>(zstd_), out.data(),
                                           out.size(), in.data(), in.size());
      if (!ZSTD_isError(n)) return n == out.size() ? Decoded::kOk : Decoded::kShort;
      switch (ZSTD_getErrorCode(n)) {
        case ZSTD_error_dstSize_tooSmall: return Decoded::kTooLong;
        case ZSTD_error_srcSize_wrong: return Decoded::kShort;
        case ZSTD_error_memory_allocation: return Decoded::kNoMemory;
        default: return Decoded::kCorrupt;
      }
    }
    default: return Decoded::kCorrupt;
  }
}

void swap16(uint8_t *data, size_t n) noexcept {
  for (size_t i = 0; i < n; ++i) {
    uint16_t v;
    std::memcpy(&v, data + 2 * i, 2);
    v = __builtin_bswap16(v);
    std::memcpy(data + 2 * i, &v, 2);
  }
}

void undo_predictor(uint8_t *data, size_t rows, size_t width, unsigned bytes) noexcept {
  if (width < 2) return;
  for (size_t r = 0; r < rows; ++r) {
    if (bytes == 1) {
      uint8_t *p = data + r * width;
      uint8_t acc = p[0];
      for (size_t i = 1; i < width; ++i) p[i] = acc = static_cast<uint8_t>(acc + p[i]);
    } else {
      uint8_t *p = data + r * width * 2;
      uint16_t acc;
      std::memcpy(&acc, p, 2);
      for (size_t i = 1; i < width; ++i) {
        uint16_t v;
        std::memcpy(&v, p + 2 * i, 2);
        acc = static_cast<uint16_t>(acc + v);
        std::memcpy(p + 2 * i, &acc, 2);
      }
    }
  }
}

}  // namespace vepra::detail::tiff
