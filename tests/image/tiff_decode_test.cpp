// The decoding reader: files written by libtiff in every combination of
// compression, predictor, strips or tiles, byte order, BigTIFF, depth and
// page, read back pixel-exact against libtiff's own decoding; refusals;
// truncated and corrupted strips at every byte.
#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"

namespace {

using vepra_test::take_printed;
using vepra_test::temp_path;
using Bytes = std::vector<uint8_t>;
using Samples = std::vector<uint32_t>;

constexpr uint32_t kStrict = VEPRA_IMG_READ_STRICT;

struct Shape {
  uint32_t width = 37, height = 23;
  uint16_t bits = 16;
  uint16_t compression = COMPRESSION_NONE;
  uint16_t predictor = PREDICTOR_NONE;
  uint32_t rows_per_strip = 0;  // 0: libtiff's choice
  uint32_t tile = 0;            // tile side, 0 for strips
  const char *order = "l";      // "l" or "b"
  bool bigtiff = false;
  int pages = 1;
  uint16_t photometric = PHOTOMETRIC_MINISBLACK;
};

// Samples of page p: smooth enough to compress, noisy enough to exercise
// every decoder path.
Samples make_samples(const Shape &s, int page) {
  std::mt19937 rng(1234u + static_cast<unsigned>(page) * 77u + s.width);
  Samples v(size_t{s.width} * s.height);
  const uint32_t max = s.bits == 16 ? 65535 : 255;
  for (size_t i = 0; i < v.size(); ++i) {
    const uint32_t base = static_cast<uint32_t>(i % s.width * 3 + i / s.width * 5 + page * 40);
    v[i] = (rng() % 4 == 0 ? rng() : base) & max;
  }
  return v;
}

void write_libtiff(const std::string &path, const Shape &s) {
  const std::string mode = std::string("w") + s.order + (s.bigtiff ? "8" : "");
  TIFF *t = TIFFOpen(path.c_str(), mode.c_str());
  ASSERT_NE(t, nullptr);
  for (int p = 0; p < s.pages; ++p) {
    // Later pages are smaller, as pyramid levels are.
    Shape page = s;
    page.width = s.width >> p;
    page.height = s.height >> p;
    const Samples v = make_samples(page, p);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, s.bits);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, s.photometric);
    TIFFSetField(t, TIFFTAG_COMPRESSION, s.compression);
    if (s.predictor != PREDICTOR_NONE) TIFFSetField(t, TIFFTAG_PREDICTOR, s.predictor);
    const unsigned bytes = s.bits / 8;
    auto put = [&](Bytes &buf, size_t at, uint32_t value) {
      if (bytes == 1) {
        buf[at] = static_cast<uint8_t>(value);
      } else {
        const auto w = static_cast<uint16_t>(value);
        std::memcpy(&buf[2 * at], &w, 2);
      }
    };
    if (s.tile != 0) {
      TIFFSetField(t, TIFFTAG_TILEWIDTH, s.tile);
      TIFFSetField(t, TIFFTAG_TILELENGTH, s.tile);
      Bytes tile(size_t{s.tile} * s.tile * bytes);
      for (uint32_t y = 0; y < page.height; y += s.tile) {
        for (uint32_t x = 0; x < page.width; x += s.tile) {
          std::fill(tile.begin(), tile.end(), 0);
          for (uint32_t r = 0; r < s.tile && y + r < page.height; ++r)
            for (uint32_t c = 0; c < s.tile && x + c < page.width; ++c)
              put(tile, size_t{r} * s.tile + c, v[size_t{y + r} * page.width + x + c]);
          ASSERT_GE(TIFFWriteTile(t, tile.data(), x, y, 0, 0), 0);
        }
      }
    } else {
      if (s.rows_per_strip != 0) TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, s.rows_per_strip);
      Bytes line(size_t{page.width} * bytes);
      for (uint32_t r = 0; r < page.height; ++r) {
        for (uint32_t c = 0; c < page.width; ++c) put(line, c, v[size_t{r} * page.width + c]);
        ASSERT_EQ(TIFFWriteScanline(t, line.data(), r, 0), 1);
      }
    }
    ASSERT_EQ(TIFFWriteDirectory(t), 1);
  }
  TIFFClose(t);
}

// Page `page` as libtiff decodes it, row-major.
Samples libtiff_decode(const std::string &path, int page) {
  Samples out;
  TIFF *t = TIFFOpen(path.c_str(), "r");
  if (t == nullptr) return out;
  uint32_t width = 0, height = 0, tw = 0, tl = 0;
  uint16_t bits = 0;
  TIFFSetDirectory(t, static_cast<tdir_t>(page));
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
  out.resize(size_t{width} * height);
  auto get = [&](const Bytes &buf, size_t at) -> uint32_t {
    if (bits == 8) return buf[at];
    uint16_t w;
    std::memcpy(&w, &buf[2 * at], 2);
    return w;
  };
  if (TIFFIsTiled(t)) {
    TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw);
    TIFFGetField(t, TIFFTAG_TILELENGTH, &tl);
    Bytes tile(TIFFTileSize(t));
    for (uint32_t y = 0; y < height; y += tl)
      for (uint32_t x = 0; x < width; x += tw) {
        EXPECT_GT(TIFFReadTile(t, tile.data(), x, y, 0, 0), 0);
        for (uint32_t r = 0; r < tl && y + r < height; ++r)
          for (uint32_t c = 0; c < tw && x + c < width; ++c)
            out[size_t{y + r} * width + x + c] = get(tile, size_t{r} * tw + c);
      }
  } else {
    Bytes line(TIFFScanlineSize(t));
    for (uint32_t r = 0; r < height; ++r) {
      EXPECT_EQ(TIFFReadScanline(t, line.data(), r, 0), 1);
      for (uint32_t c = 0; c < width; ++c) out[size_t{r} * width + c] = get(line, c);
    }
  }
  TIFFClose(t);
  return out;
}

Samples pixels(const vepra_img_t &img) {
  Samples v;
  for (uint32_t r = 0; r < img.height; ++r)
    for (uint32_t c = 0; c < img.width; ++c)
      v.push_back(img.data8 != nullptr ? img.data8[r][c] : img.data16[r][c]);
  return v;
}

Bytes load(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}
void save(const std::string &path, const Bytes &b) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
}

// The value field of the entry of tag in the first directory of a classic
// little-endian file, or null.
uint8_t *entry_of(Bytes &b, uint16_t tag) {
  auto u16 = [&](size_t at) { return uint32_t(b[at] | b[at + 1] << 8); };
  const size_t dir = u16(4) | u16(6) << 16;
  for (uint32_t i = 0; i < u16(dir); ++i) {
    const size_t at = dir + 2 + 12 * i;
    if (u16(at) == tag) return &b[at];
  }
  return nullptr;
}
void set_value(Bytes &b, uint16_t tag, uint32_t value) {
  uint8_t *e = entry_of(b, tag);
  ASSERT_NE(e, nullptr) << tag;
  const uint16_t type = uint16_t(e[2] | e[3] << 8);
  for (int i = 0; i < (type == 3 ? 2 : 4); ++i) e[8 + i] = uint8_t(value >> (8 * i));
}
uint32_t get_value(Bytes &b, uint16_t tag) {
  const uint8_t *e = entry_of(b, tag);
  return e == nullptr ? 0 : uint32_t(e[8] | e[9] << 8 | e[10] << 16 | e[11] << 24);
}

class TiffDecodeTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    TIFFSetWarningHandler(nullptr);
    TIFFSetErrorHandler(nullptr);
  }
  void TearDown() override {
    vepra_img_free(&img_);
    LibraryTest::TearDown();
  }
  vepra_img_t img_{};
};

TEST_F(TiffDecodeTest, ReadsWhatLibtiffWritesPixelExact) {
  const std::string path = temp_path("combo.tif");
  const uint16_t compressions[] = {COMPRESSION_NONE,          COMPRESSION_LZW,
                                   COMPRESSION_ADOBE_DEFLATE, COMPRESSION_DEFLATE,
                                   COMPRESSION_ZSTD,          COMPRESSION_PACKBITS};
  struct Layout {
    uint32_t rows_per_strip, tile;
  };
  const Layout layouts[] = {{1, 0}, {7, 0}, {0, 0}, {1000, 0}, {16, 16}, {0, 32}};
  int files = 0;
  for (uint16_t compression : compressions) {
    for (uint16_t predictor : {PREDICTOR_NONE, PREDICTOR_HORIZONTAL}) {
      for (const Layout &layout : layouts) {
        for (const char *order : {"l", "b"}) {
          for (bool bigtiff : {false, true}) {
            for (uint16_t bits : {8, 16}) {
              Shape s;
              s.width = 37 + bits;  // odd sizes, partial edge tiles
              s.compression = compression;
              s.predictor = predictor;
              s.rows_per_strip = layout.rows_per_strip;
              s.tile = layout.tile;
              s.order = order;
              s.bigtiff = bigtiff;
              s.bits = bits;
              s.pages = 2;
              SCOPED_TRACE(::testing::Message()
                           << "compression " << compression << " predictor " << predictor
                           << " rps " << layout.rows_per_strip << " tile " << layout.tile
                           << " order " << order << " bigtiff " << bigtiff << " bits " << bits);
              write_libtiff(path, s);
              ++files;
              uint32_t pages = 0;
              ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
              EXPECT_EQ(pages, 2u);
              for (int page = 0; page < 2; ++page) {
                vepra_img_free(&img_);
                vepra_error_t *e =
                    vepra_img_read_ex(path.c_str(), &img_, kStrict, static_cast<uint32_t>(page));
                ASSERT_EQ(e, nullptr) << take_printed(e);
                const Samples peer = libtiff_decode(path, page);
                EXPECT_EQ(peer, make_samples(Shape{s.width >> page, s.height >> page, bits}, page));
                EXPECT_EQ(std::tuple(img_.width, img_.height, img_.bits_per_sample[0],
                                     img_.compression, img_.photometric),
                          std::tuple(s.width >> page, s.height >> page, uint32_t(bits),
                                     uint32_t(compression), 1));
                EXPECT_TRUE(pixels(img_) == peer);
              }
            }
          }
        }
      }
    }
  }
  EXPECT_EQ(files, 6 * 2 * 6 * 2 * 2 * 2);
  // A page the file does not have.
  vepra_img_free(&img_);
  EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, 0, 2)),
            "Error: Cannot read image. \nError: Cannot read TIFF image. \nError: Page 2 does not "
            "exist: the file has 2 pages ");
  // Without the strict flag page 0 is the last directory, as before.
  Shape plain;
  plain.pages = 2;
  write_libtiff(path, plain);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 0), nullptr);
  EXPECT_EQ(img_.width, 37u / 2);
  vepra_img_free(&img_);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, kStrict, 0), nullptr);
  EXPECT_EQ(img_.width, 37u);
}

// Edits of a small libtiff file and what the strict read makes of them:
// defaults, variants and refusals naming the value.
TEST_F(TiffDecodeTest, DefaultsVariantsAndRefusals) {
  const std::string path = temp_path("edit.tif");
  const std::string head = "Error: Cannot read image. \nError: Cannot read TIFF image. \nError: ";
  struct Case {
    const char *what;
    std::function<void(Shape &)> shape;
    std::function<void(TIFF *)> fields;  // extra fields, set after the shape's
    std::function<void(Bytes &)> edit;   // on the written bytes
    std::string refusal;                 // empty: read, pixel-exact
  };
  // Renames the entry of tag to an unknown tag.
  auto drop = [](uint16_t tag) {
    return [tag](Bytes &b) {
      if (uint8_t *e = entry_of(b, tag)) e[1] = 0xFE;
    };
  };
  const Case cases[] = {
      {"plain", {}, {}, {}, ""},
      // libtiff, like Pillow, writes no SamplesPerPixel for one sample.
      {"no SamplesPerPixel", {}, {},
       [](Bytes &b) { EXPECT_EQ(entry_of(b, TIFFTAG_SAMPLESPERPIXEL), nullptr); }, ""},
      {"planar 2, one sample", {}, [](TIFF *t) { TIFFSetField(t, TIFFTAG_PLANARCONFIG, 2); }, {}, ""},
      {"MinIsWhite", [](Shape &s) { s.photometric = PHOTOMETRIC_MINISWHITE; }, {}, {}, ""},
      {"no BitsPerSample", {}, {}, drop(TIFFTAG_BITSPERSAMPLE),
       "TIFF image with 1 bits per sample is not supported: only 8- and 16-bit samples are read "},
      {"12-bit", [](Shape &s) { s.bits = 8; }, {}, [](Bytes &b) { set_value(b, 258, 12); },
       "TIFF image with 12 bits per sample is not supported: only 8- and 16-bit samples are read "},
      {"float", {}, [](TIFF *t) { TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, 3); },
       [](Bytes &b) { set_value(b, 258, 32); },
       "TIFF samples of 32-bit floating point are not supported: only 8- and 16-bit unsigned "
       "integer samples are read "},
      {"signed", {}, [](TIFF *t) { TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, 2); }, {},
       "TIFF sample format 2 is not supported: only 8- and 16-bit unsigned integer samples are "
       "read "},
      {"RGB", {},
       [](TIFF *t) {
         TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
         TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
       },
       {},
       "TIFF image with 3 samples per pixel (RGB) is not supported: only one sample per pixel is "
       "read (convert the image to gray first) "},
      {"JPEG", {}, {}, [](Bytes &b) { set_value(b, 259, 7); },
       "TIFF compression 7 (JPEG) is not supported: only uncompressed, LZW, Deflate, ZSTD and "
       "PackBits images are read (convert with: tiffcp -c none IN OUT) "},
      {"old JPEG", {}, {}, [](Bytes &b) { set_value(b, 259, 6); },
       "TIFF compression 6 (old-style JPEG) is not supported: only uncompressed, LZW, Deflate, "
       "ZSTD and PackBits images are read (convert with: tiffcp -c none IN OUT) "},
      {"old LZW", [](Shape &s) { s.compression = COMPRESSION_LZW; }, {},
       [](Bytes &b) { b[get_value(b, 273)] = 0, b[get_value(b, 273) + 1] = 1; },
       "TIFF compression 5 (LZW) in the old reversed-bit-order variant is not supported (convert "
       "with: tiffcp -c none IN OUT) "},
      {"predictor 3", [](Shape &s) { s.compression = COMPRESSION_LZW; },
       [](TIFF *t) { TIFFSetField(t, TIFFTAG_PREDICTOR, 2); },
       [](Bytes &b) { set_value(b, TIFFTAG_PREDICTOR, 3); },
       "TIFF predictor 3 (floating point) is not supported: only horizontal differencing (2) is "
       "read "},
      {"CMYK", {}, {}, [](Bytes &b) { set_value(b, 262, 5); },
       "TIFF photometric interpretation 5 (separated, CMYK) is not supported: only grayscale "
       "images are read "},
      {"fill order", {}, [](TIFF *t) { TIFFSetField(t, TIFFTAG_FILLORDER, 2); }, {},
       "TIFF fill order 2 (bits in reversed order) is not supported "},
      {"colour palette", [](Shape &s) { s.photometric = PHOTOMETRIC_PALETTE, s.bits = 8; },
       [](TIFF *t) {
         std::vector<uint16_t> r(256), g(256), b(256);
         for (int i = 0; i < 256; ++i) r[i] = g[i] = uint16_t(i * 257), b[i] = uint16_t(i);
         TIFFSetField(t, TIFFTAG_COLORMAP, r.data(), g.data(), b.data());
       },
       {},
       "TIFF colour palette is not supported: only palettes of gray levels are read (convert the "
       "image to gray first) "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Shape s;
    if (c.shape) c.shape(s);
    {
      TIFF *t = TIFFOpen(path.c_str(), "w");
      ASSERT_NE(t, nullptr);
      const Samples v = make_samples(s, 0);
      TIFFSetField(t, TIFFTAG_IMAGEWIDTH, s.width);
      TIFFSetField(t, TIFFTAG_IMAGELENGTH, s.height);
      TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, s.bits);
      TIFFSetField(t, TIFFTAG_PHOTOMETRIC, s.photometric);
      TIFFSetField(t, TIFFTAG_COMPRESSION, s.compression);
      if (c.fields) c.fields(t);
      Bytes line(std::max<size_t>(TIFFScanlineSize(t), size_t{s.width} * s.bits / 8));
      for (uint32_t r = 0; r < s.height; ++r) {
        for (uint32_t i = 0; i < s.width; ++i) {
          if (s.bits == 8) {
            line[i] = uint8_t(v[r * s.width + i]);
          } else {
            const auto w = uint16_t(v[r * s.width + i]);
            std::memcpy(&line[2 * i], &w, 2);
          }
        }
        ASSERT_EQ(TIFFWriteScanline(t, line.data(), r, 0), 1);
      }
      TIFFClose(t);
    }
    Bytes b = load(path);
    if (c.edit) c.edit(b);
    save(path, b);
    vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, 0);
    if (!c.refusal.empty()) {
      EXPECT_EQ(take_printed(e), head + c.refusal);
      EXPECT_EQ(img_.data8, nullptr);
      EXPECT_EQ(img_.data16, nullptr);
      continue;
    }
    ASSERT_EQ(e, nullptr) << take_printed(e);
    EXPECT_EQ(pixels(img_), make_samples(s, 0));
    EXPECT_EQ(img_.samples_per_pixel, 1u);
    EXPECT_EQ(img_.photometric, int32_t(s.photometric));
    vepra_img_free(&img_);
  }

  // A gray palette reads as its levels: a map of i * 257 at 8 bits is i,
  // a reversed one 255 - i.
  for (bool reversed : {false, true}) {
    Shape s;
    s.bits = 8;
    s.photometric = PHOTOMETRIC_PALETTE;
    TIFF *t = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 256);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
    std::vector<uint16_t> map(256);
    for (int i = 0; i < 256; ++i) map[i] = uint16_t((reversed ? 255 - i : i) * 257);
    TIFFSetField(t, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
    Bytes line(256);
    for (int i = 0; i < 256; ++i) line[i] = uint8_t(i);
    ASSERT_EQ(TIFFWriteScanline(t, line.data(), 0, 0), 1);
    TIFFClose(t);
    ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, kStrict, 0), nullptr);
    EXPECT_EQ(img_.photometric, 1);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(img_.data8[0][i], reversed ? 255 - i : i);
    vepra_img_free(&img_);
  }
  // At 16 bits the map values are the levels themselves.
  {
    TIFF *t = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 256);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
    std::vector<uint16_t> map(65536), line(256);
    for (int i = 0; i < 65536; ++i) map[i] = uint16_t(65535 - i);
    for (int i = 0; i < 256; ++i) line[i] = uint16_t(i * 257);
    TIFFSetField(t, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
    ASSERT_EQ(TIFFWriteScanline(t, line.data(), 0, 0), 1);
    TIFFClose(t);
    ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, kStrict, 0), nullptr);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(img_.data16[0][i], 65535 - i * 257);
    vepra_img_free(&img_);
  }
}

// One single-strip file of each compression, its strip cut short at every
// length and corrupted at every byte: each read either fails with a clear
// error or gives the whole image, and a cut one is never wrong.
TEST_F(TiffDecodeTest, TruncatedAndCorruptedStrips) {
  const std::string path = temp_path("cut.tif");
  for (uint16_t compression : {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                               COMPRESSION_ZSTD, COMPRESSION_PACKBITS}) {
    SCOPED_TRACE(compression);
    Shape s;
    s.width = 16;
    s.height = 8;
    s.compression = compression;
    s.predictor = compression == COMPRESSION_NONE ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL;
    s.rows_per_strip = 8;
    write_libtiff(path, s);
    const Samples want = make_samples(s, 0);
    const Bytes good = load(path);
    Bytes b = good;
    const uint32_t offset = get_value(b, 273), length = get_value(b, 279);
    ASSERT_GT(length, 0u);
    int refused = 0;
    for (uint32_t cut = 0; cut < length; ++cut) {
      b = good;
      set_value(b, 279, cut);
      save(path, b);
      vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, 0);
      if (e != nullptr) {
        const int code = vepra_error_root_cause(e)->code;
        EXPECT_TRUE(code == VEPRA_E_TIFF_INCOMPLETE || code == VEPRA_E_TIFF_STRUCTURE) << cut;
        ++refused;
        vepra_error_clear(e);
        continue;
      }
      EXPECT_EQ(pixels(img_), want) << cut;  // only an end code or a checksum was cut
      vepra_img_free(&img_);
    }
    EXPECT_GE(refused, int(length) - 4);
    for (uint32_t at = 0; at < length; ++at) {
      for (uint8_t flip : {0x01, 0xFF}) {
        b = good;
        b[offset + at] ^= flip;
        save(path, b);
        vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, 0);
        if (e == nullptr) {
          EXPECT_EQ(pixels(img_).size(), want.size());
        } else {
          EXPECT_EQ(img_.data16, nullptr);
        }
        vepra_error_clear(e);
        vepra_img_free(&img_);
      }
    }
  }
}

// A strip that would expand far beyond its rows: the decoders stop at the
// rows the image declares (LZW, PackBits) or refuse the strip (Deflate,
// ZSTD, whose inflaters report the excess).
TEST_F(TiffDecodeTest, ExpansionStopsAtTheDeclaredRows) {
  const std::string path = temp_path("bomb.tif");
  struct Case {
    uint16_t compression;
    const char *refusal;
  };
  const Case cases[] = {
      {COMPRESSION_LZW, nullptr},
      {COMPRESSION_PACKBITS, nullptr},
      {COMPRESSION_ADOBE_DEFLATE, "TIFF strip 0 holds more than its 64 bytes of pixels (Deflate) "},
      {COMPRESSION_ZSTD, "TIFF strip 0 holds more than its 64 bytes of pixels (ZSTD) "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.compression);
    Shape s;
    s.width = 32;
    s.height = 2048;
    s.bits = 8;
    s.compression = c.compression;
    s.rows_per_strip = 2048;
    write_libtiff(path, s);
    Bytes b = load(path);
    set_value(b, TIFFTAG_IMAGELENGTH, 2);
    set_value(b, TIFFTAG_ROWSPERSTRIP, 2);
    save(path, b);
    vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, 0);
    if (c.refusal != nullptr) {
      EXPECT_EQ(take_printed(e), "Error(120152): Cannot read image. \nError(120152): Cannot read "
                                 "TIFF image. \nError(120152): " + std::string(c.refusal));
      continue;
    }
    ASSERT_EQ(e, nullptr) << take_printed(e);
    Samples want = make_samples(s, 0);
    want.resize(64);
    EXPECT_EQ(pixels(img_), want);
    vepra_img_free(&img_);
  }
}

TEST_F(TiffDecodeTest, PageCountReportsItsFailures) {
  const std::string path = temp_path("pages.tif");
  Shape s;
  uint32_t pages = 0;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 1u);
  s.pages = 3;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 3u);
  // The last directory pointing back at the first.
  Bytes b = load(path);
  auto u32 = [&](size_t at) { return uint32_t(b[at] | b[at + 1] << 8 | b[at + 2] << 16 | b[at + 3] << 24); };
  size_t dir = u32(4);
  for (int i = 0; i < 2; ++i) dir = u32(dir + 2 + 12 * size_t(b[dir] | b[dir + 1] << 8));
  const size_t next = dir + 2 + 12 * size_t(b[dir] | b[dir + 1] << 8);
  std::memcpy(&b[next], &b[4], 4);
  save(path, b);
  EXPECT_EQ(take_printed(vepra_img_page_count(path.c_str(), &pages)),
            "Error(120152): Cannot count TIFF pages. \nError(120152): TIFF directories loop or "
            "repeat their data ");
  EXPECT_EQ(pages, 3u);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 2), nullptr);
  EXPECT_EQ(img_.width, 37u / 4);
  EXPECT_NE(vepra_img_page_count(path.c_str(), nullptr), nullptr);
}

}  // namespace
