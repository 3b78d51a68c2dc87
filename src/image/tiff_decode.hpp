// Decoders of compressed TIFF strips and tiles. Each one turns the bytes of
// one strip or tile into exactly the number of bytes its rows need: it never
// writes past the end of its output, and stops there however much more the
// input would give (a small strip that expands far beyond its rows).
#ifndef VEPRA_SRC_IMAGE_TIFF_DECODE_HPP
#define VEPRA_SRC_IMAGE_TIFF_DECODE_HPP

#include <cstddef>
#include <cstdint>
#include <span>

namespace vepra::detail::tiff {

enum class Decoded {
  kOk,         // the output is complete
  kShort,      // the input ended before the output was complete
  kCorrupt,    // the input is not valid data of its compression
  kOldLzw,     // LZW in the old, reversed bit order
  kTooLong,    // the input holds more than the output takes (Deflate, ZSTD)
  kNoMemory,   // the inflater's state could not be allocated
};

// TIFF LZW (Compression 5): MSB-first codes of 9 to 12 bits with the early
// change of width.
Decoded decode_lzw(std::span<const uint8_t> in, std::span<uint8_t> out) noexcept;
// PackBits (Compression 32773).
Decoded decode_packbits(std::span<const uint8_t> in, std::span<uint8_t> out) noexcept;
// PackBits straight into nrows separate rows of row_bytes each, as into one
// buffer of nrows * row_bytes (runs may cross rows).
Decoded decode_packbits_rows(std::span<const uint8_t> in, uint8_t *const *rows, size_t nrows,
                             size_t row_bytes) noexcept;

// Whether a decoder exists for the compression; 1 (none) included.
bool can_decode(uint32_t compression) noexcept;

// The decoders of one image read: the inflater states are made on first use
// and kept for the following strips and tiles.
class Decoders {
 public:
  Decoders() noexcept = default;
  Decoders(const Decoders &) = delete;
  Decoders &operator=(const Decoders &) = delete;
  ~Decoders();
  // Decodes in into out with the decoder of the compression (1 copies).
  Decoded decode(uint32_t compression, std::span<const uint8_t> in,
                 std::span<uint8_t> out) noexcept;

 private:
  void *deflate_ = nullptr;
  void *zstd_ = nullptr;
};

// Swaps the bytes of n 16-bit samples in place.
void swap16(uint8_t *data, size_t n) noexcept;
// Undoes horizontal differencing (Predictor 2) on rows rows of width
// samples each, stored one after the other, for 1- or 2-byte host-order
// samples.
void undo_predictor(uint8_t *data, size_t rows, size_t width, unsigned bytes) noexcept;

}  // namespace vepra::detail::tiff

#endif  // VEPRA_SRC_IMAGE_TIFF_DECODE_HPP
