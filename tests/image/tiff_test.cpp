// TIFF reading and writing: hand-built files (tests/data/image), byte-exact
// output, libtiff as the peer both ways, allocation failures.
#include <sys/stat.h>
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "image/tiff_common.hpp"
#include "image/tiff_decode.hpp"
#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra_test::take_printed;
using vepra_test::temp_path;
using Bytes = std::vector<uint8_t>;
using Samples = std::vector<uint32_t>;

constexpr uint32_t kStrict = VEPRA_IMG_READ_STRICT;

// A hand-built file of tests/data/image/tiff (see tiff_reads.tsv there).
std::string data_file(const std::string &name) { return VEPRA_TEST_DATA_DIR "/image/tiff/" + name; }

std::string save(const std::string &name, const Bytes &bytes) {
  const std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
  return path;
}
Bytes load(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

using Libtiff = std::unique_ptr<TIFF, void (*)(TIFF *)>;
Libtiff libtiff(const std::string &path, const char *mode) {
  Libtiff tif(TIFFOpen(path.c_str(), mode), TIFFClose);
  EXPECT_NE(tif, nullptr) << path;
  return tif;
}

// A file as libtiff reads it: width, height, bits, photometric; samples row-major.
struct Peer {
  std::tuple<uint32_t, uint32_t, uint16_t, uint16_t> shape{};
  Samples samples;
};
Peer libtiff_read(const std::string &path) {
  Peer p;
  auto &[width, height, bits, photometric] = p.shape;
  const Libtiff tif = libtiff(path, "r");
  if (tif == nullptr) return p;
  TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
  TIFFGetField(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetField(tif.get(), TIFFTAG_PHOTOMETRIC, &photometric);
  Bytes line(TIFFScanlineSize(tif.get()));
  for (uint32_t r = 0; r < height; ++r) {
    EXPECT_EQ(TIFFReadScanline(tif.get(), line.data(), r, 0), 1);
    for (uint32_t c = 0; c < width; ++c)
      p.samples.push_back(bits == 8 ? line[c] : line[2 * c] | line[2 * c + 1] << 8);
  }
  return p;
}

bool owns_nothing(const vepra_img_t &img) {
  return img.data8 == nullptr && img.data16 == nullptr && img.strip_offsets == nullptr &&
         img.strip_byte_counts == nullptr && img.software == nullptr;
}

// The chain a failed vepra_img_read_tiff prints, from its last line.
std::string failed(const std::string &last) {
  const std::string tag = last.substr(0, last.find(": ") + 2);
  return tag + "Cannot read TIFF image. \n" + last;
}

// The chain a failed vepra_img_read_ex prints, from its last line.
std::string refused(const std::string &last) {
  return last.substr(0, last.find(": ") + 2) + "Cannot read image. \n" + failed(last);
}

class TiffTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    TIFFSetWarningHandler(nullptr);
    TIFFSetErrorHandler(nullptr);
  }
  void TearDown() override {
    vepra::testing::fail_tiff_output_after(-1);
    vepra_img_free(&img_);
    LibraryTest::TearDown();
  }
  void read_ok(const std::string &path) {
    vepra_img_free(&img_);
    vepra_error_t *e = vepra_img_read_tiff(path.c_str(), &img_);
    ASSERT_EQ(e, nullptr) << take_printed(e);
    ASSERT_EQ(img_.type, 1u);
  }
  // The samples of the image read, row-major.
  Samples pixels() const {
    Samples out;
    for (uint32_t r = 0; r < img_.height; ++r) {
      if (img_.data8 != nullptr) out.insert(out.end(), img_.data8[r], img_.data8[r] + img_.width);
      if (img_.data16 != nullptr)
        out.insert(out.end(), img_.data16[r], img_.data16[r] + img_.width);
    }
    return out;
  }

  vepra_img_t img_{};
};

// Every hand-built file of the list reads as listed: its failure with the
// whole chain and nothing left owned, or its pixels and depths.
TEST_F(TiffTest, HandBuiltFilesReadAsListed) {
  const auto table = vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/image/tiff_reads.tsv");
  EXPECT_EQ(table.size(), 48u);
  for (const auto &cols : table) {
    ASSERT_GE(cols.size(), 2u) << (cols.empty() ? "" : cols[0]);
    SCOPED_TRACE(cols[0]);
    vepra_img_free(&img_);
    vepra_error_t *e = vepra_img_read_tiff(data_file(cols[0]).c_str(), &img_);
    if (cols[1].rfind("pixels ", 0) != 0) {
      EXPECT_EQ(take_printed(e), failed(cols[1]));
      EXPECT_TRUE(owns_nothing(img_));
      continue;
    }
    ASSERT_EQ(e, nullptr) << take_printed(e);
    Samples want;
    std::stringstream samples(cols[1].substr(7));
    for (std::string v; std::getline(samples, v, ',') && v != "none";)
      want.push_back(uint32_t(std::stoul(v)));
    EXPECT_EQ(img_.type, 1u);
    EXPECT_EQ(pixels(), want);
    EXPECT_EQ(img_.data8 == nullptr && img_.data16 == nullptr, want.empty());
    if (cols.size() < 3) continue;
    const uint32_t *bits = img_.bits_per_sample;
    char kept[200];
    std::snprintf(kept, sizeof kept, "%u,%u,%u %d %d %g %g %u %u %d %s", bits[0], bits[1], bits[2],
                  img_.photometric, img_.res_unit, img_.xres, img_.yres, img_.compression,
                  img_.planar_config, img_.strip_count, img_.software ? img_.software : "-");
    EXPECT_EQ(kept, cols[2]);
  }
  // The directory longer than one batch of reads, by the decoding reader too.
  vepra_img_free(&img_);
  ASSERT_EQ(vepra_img_read_ex(data_file("long_directory.tif").c_str(), &img_, kStrict, 0), nullptr);
  EXPECT_EQ(pixels(), (Samples{1, 2}));
}

// PackBits ending where the next header would be is short, whatever bytes
// follow the strip in memory; an LZW code for the string being defined that
// meets the end of the strip is cut there, nothing written past it.
TEST(Decoders, StopAtTheEndOfTheStrip) {
  namespace tiff = vepra::detail::tiff;
  using tiff::Decoded;
  const uint8_t bytes[] = {0x00, 'A', 0x00, 'B', 0xFF, 'C'};
  for (size_t used : {2, 4}) {
    uint8_t out[4] = {};
    uint8_t *rows[2] = {out, out + 2};
    const std::span<const uint8_t> in(bytes, used);
    EXPECT_EQ(tiff::decode_packbits(in, std::span(out, used / 2 + 1)), Decoded::kShort);
    EXPECT_EQ(tiff::decode_packbits_rows(in, rows, 2, used / 2), Decoded::kShort) << used;
  }
  // 9-bit codes: clear, 'A', 'B', 259 ("BB", being defined), end.
  const uint8_t lzw[] = {0x80, 0x10, 0x48, 0x50, 0x38, 0x08};
  uint8_t out[4] = {0, 0, 0, 'z'};  // a strip of 3 bytes and a guard
  EXPECT_EQ(tiff::decode_lzw(lzw, std::span(out, 3)), Decoded::kOk);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(out), 4), "ABBz");
}

// Files that cannot be read at all, by each reader: a directory or a FIFO
// without a writer is refused without blocking.
TEST_F(TiffTest, ReadTellsNonTiffFromUnopenable) {
  const std::string motorola = data_file("motorola.tif"), missing = temp_path("missing.tif"),
                    dir = temp_path("dir"), fifo = temp_path("fifo");
  std::filesystem::create_directory(dir);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string open = "Cannot open file '" + missing + "' ",
                    in_dir = "Cannot open file '" + dir + "': it is a directory ",
                    general = "Error(120030): Cannot read image. \nError(120030): ",
                    info = general + "Cannot read TIFF information from file. \nError(120030): ";
  auto flagged = [&](const std::string &path) {
    return vepra_img_read_ex(path.c_str(), &img_, kStrict | VEPRA_IMG_READ_UNITLESS, 0);
  };
  const std::pair<vepra_error_t *, std::string> cases[] = {
      // Not TIFF to the information pass: an unknown type to the general reader.
      {vepra_img_read(motorola.c_str(), &img_), "Error(120154): Image type is unknown. "},
      {vepra_img_read(missing.c_str(), &img_), info + open},
      {vepra_img_read_tiff(missing.c_str(), &img_), failed("Error(120030): " + open)},
      {vepra_img_read(dir.c_str(), &img_), info + in_dir},
      // A big-endian header is read, but this one's directory is missing.
      {flagged(motorola), refused("Error(120031): Cannot read IO stream. ")},
      {flagged(dir), general + "Cannot read TIFF image. \nError(120030): " + in_dir},
      {flagged(fifo), refused("Error(120031): Cannot read IO stream. ")},
  };
  for (const auto &[e, chain] : cases) EXPECT_EQ(take_printed(e), chain);
  EXPECT_TRUE(owns_nothing(img_));
  EXPECT_NE(vepra_test::Chain(vepra_img_read(nullptr, &img_)), nullptr);
  EXPECT_NE(vepra_test::Chain(vepra_img_read(missing.c_str(), nullptr)), nullptr);
  img_.type = 7;
  EXPECT_EQ(vepra_img_read_tiff_info(motorola.c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 0u);
  // Only the pixel reader needs the photometric interpretation.
  EXPECT_EQ(vepra_img_read_tiff_info(data_file("no_photometric.tif").c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 1u);
}

// The information pass reads the fields of tiff_reads.tsv but no pixels,
// and vepra_img_free keeps the type; 762 pixels per inch are 30 per mm.
TEST_F(TiffTest, InformationPassAndResolutionInMillimetres) {
  ASSERT_EQ(vepra_img_read_tiff_info(data_file("two_directories.tif").c_str(), &img_), nullptr);
  EXPECT_EQ(std::tuple(img_.data8, img_.software[0], img_.compression),
            std::tuple(nullptr, 'a', 5u));
  vepra_img_free(&img_);
  EXPECT_TRUE(owns_nothing(img_) && img_.type == 1u);
  read_ok(data_file("resolution_unit_3.tif"));
  double xmm = 0, ymm = 0;
  EXPECT_EQ(vepra_img_get_resmm(&img_, &xmm, &ymm), nullptr);
  EXPECT_EQ(std::pair(xmm, ymm), std::pair(30.0, 30.0));
}

// The writer's files are compared with hand-built ones: one directory of
// ten entries, the Software text at 134, the samples at 146.
TEST_F(TiffTest, WrittenLayoutIsByteExact) {
  const std::string path = temp_path("out.tif");
  // The resolution and the Software text that were read are not written;
  // 16-bit samples are little-endian.
  for (auto [in, out] : {std::pair{"with_resolution_and_software.tif", "written_8bit.tif"},
                         {"white_is_zero_16bit.tif", "written_16bit.tif"}}) {
    read_ok(data_file(in));
    ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
    EXPECT_EQ(load(path), load(data_file(out))) << out;
  }
  read_ok(path);
  EXPECT_EQ(std::pair(img_.xres, img_.res_unit), std::pair(0.0, -1));

  // A depth without pixels writes the directory only, and its byte count
  // repeats the SamplesPerPixel value.
  vepra_img_t img{};
  img.width = 2, img.height = 1, img.bits_per_sample[0] = 12, img.samples_per_pixel = 3;
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  EXPECT_EQ(load(path), load(data_file("written_12bit.tif")));
  // 8-bit records without rows: the largest the 32-bit strip fields can place
  // (2^32 - 1 - 234 bytes) is refused for want of rows; one byte more is too large.
  img.bits_per_sample[0] = 8;
  for (auto [w, h, last] :
       {std::tuple{78331u, 54831u,
                   "Error(120020): Image of 78331 x 54831 pixels has no pixel rows "},
        {152266u, 28207u,
         "Error(120152): Image of 152266 x 28207 pixels is too large for a TIFF file "}}) {
    img.width = w, img.height = h;
    EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img)),
              std::string(last, 15) + "Cannot write TIFF image. \n" + last);
  }
}

TEST_F(TiffTest, WriteFailuresAreReported) {
  vepra_img_t img{};
  img.bits_per_sample[0] = 8;
  double row[1] = {1}, *rows[1] = {row};
  const std::string dir = temp_path("no-such-dir") + "/x.tif";
  // A full device takes nothing: a short write, reported once.
  for (auto [path, cause] :
       {std::pair{dir, "Error(120030): Cannot open file '" + dir + "' "},
        std::pair{std::string(), std::string("Error(120030): Cannot open file '' ")},
        std::pair{std::string("/dev/full"),
                  std::string("Error(120032): Cannot write to IO stream. ")}}) {
    const std::string code = cause.substr(0, 15);
    EXPECT_EQ(take_printed(vepra_img_darr_to_tiff(path.c_str(), rows, 1, 1)),
              code + "Cannot convert double array to TIFF image. \n" + cause);
    EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img)),
              code + "Cannot write TIFF image. \n" + cause);
  }
}

TEST_F(TiffTest, FailedWritesKeepTheFileThatWasThere) {
  namespace fs = std::filesystem;
  const fs::path dir = temp_path("keep");
  fs::create_directory(dir);
  const std::string target = dir / "scan.tif", link = dir / "link.tif", fresh = dir / "new.tif";
  fs::create_symlink("scan.tif", link);
  read_ok(data_file("written_8bit.tif"));
  double r0[3] = {1, 2, 3}, r1[3] = {4, 5, 6}, *rows[2] = {r0, r1};
  // The link and its target only: no temporary file left, nothing created.
  auto entries = [&] { return std::distance(fs::directory_iterator(dir), {}); };
  auto chain = [](const std::string &context) {
    return "Error(120032): " + context + " \nError(120032): Cannot write to IO stream. ";
  };
  // Room for none of the 152 and 158 bytes, part of the header, all but the
  // pixels, all but one byte of the first; or all of it, the closing failing.
  for (auto [room, close_fails] :
       {std::pair{0ll, false}, {100ll, false}, {146ll, false}, {151ll, false}, {152ll, true}}) {
    for (const std::string &path : {target, link}) {
      SCOPED_TRACE(path + " " + std::to_string(room));
      std::ofstream(target, std::ios::binary).write("old", 3);
      fs::permissions(target, fs::perms(0640));
      vepra::testing::fail_tiff_output_after(room, close_fails);
      EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img_)),
                chain("Cannot write TIFF image."));
      vepra::testing::fail_tiff_output_after(room, close_fails);
      EXPECT_EQ(take_printed(vepra_img_darr_to_tiff(path.c_str(), rows, 2, 3)),
                chain("Cannot convert double array to TIFF image."));
      vepra::testing::fail_tiff_output_after(room, close_fails);
      EXPECT_NE(vepra_img_write_tiff(fresh.c_str(), &img_), nullptr);
      vepra::testing::fail_tiff_output_after(-1);
      EXPECT_EQ(load(target), Bytes({'o', 'l', 'd'}));
      EXPECT_EQ(entries(), 2);
    }
  }
  // A successful write through the link replaces its target, keeping the
  // link and the target's mode.
  ASSERT_EQ(vepra_img_write_tiff(link.c_str(), &img_), nullptr);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(load(target), load(data_file("written_8bit.tif")));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
  EXPECT_EQ(entries(), 2);
  // A dangling link creates its target, with the mode of a new file.
  fs::remove(target);
  const mode_t mask = umask(022);
  ASSERT_EQ(vepra_img_darr_to_tiff(link.c_str(), rows, 2, 3), nullptr);
  umask(mask);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0644));
  EXPECT_EQ(libtiff_read(target).samples, (Samples{0, 13107, 26214, 39321, 52428, 65535}));
  // A link to a name too long for a path (not for a temporary beside it) stays.
  fs::path deep = dir;
  while (deep.native().size() < 3850)
    deep /= std::string(std::min<size_t>(250, 3850 - deep.native().size()), 'd');
  fs::create_directories(deep);
  fs::create_symlink(std::string(250, 'f'), deep / "link.tif");
  ASSERT_EQ(vepra_img_write_tiff((deep / "link.tif").c_str(), &img_), nullptr);
  EXPECT_TRUE(fs::is_symlink(deep / "link.tif"));
  EXPECT_EQ(load(deep / "link.tif"), load(data_file("written_8bit.tif")));
  // A relative name removes no other file, not even one named by the
  // temporary's first letter.
  const fs::path cwd = fs::current_path();
  fs::current_path(dir);
  std::ofstream("d").put('d');
  EXPECT_EQ(vepra_img_write_tiff((std::string(250, 'd') + "/new.tif").c_str(), &img_), nullptr);
  EXPECT_TRUE(fs::exists("d"));
  fs::current_path(cwd);
}

TEST_F(TiffTest, DoubleArraysAreScaledToSixteenBits) {
  const std::pair<std::vector<std::vector<double>>, Samples> cases[] = {
      {{{-1, 0, 1}}, {0, 32767, 65535}},
      {{{4, 4}, {4, 4}}, {0, 0, 0, 0}},
      {{{1, 2, 3}, {4, 5, 6}}, {0, 13107, 26214, 39321, 52428, 65535}},
      {{{NAN, 10}, {20, NAN}}, {0, 0, 65535, 0}},
      {{{-1e305, 1e305, 0}}, {0, 65535, 32767}},
      // Ranges beyond the largest double; infinities go to the ends.
      {{{-1.7e308, 0, 1, 1.7e308}}, {0, 32767, 32767, 65535}},
      {{{1e306, 2e306}}, {0, 65535}},
      {{{INFINITY, 1}, {2, -INFINITY}}, {65535, 0, 65535, 0}},
      {{{INFINITY, 5, NAN, -INFINITY}}, {65535, 0, 0, 0}},
  };
  const std::string path = temp_path("darr.tif");
  for (auto [values, samples] : cases) {
    std::vector<double *> rows;
    for (auto &row : values) rows.push_back(row.data());
    const uint32_t height = uint32_t(values.size()), width = uint32_t(values[0].size());
    ASSERT_EQ(vepra_img_darr_to_tiff(path.c_str(), rows.data(), height, width), nullptr);
    // 16-bit WhiteIsZero, rows then columns, as libtiff reads it.
    const Peer p = libtiff_read(path);
    EXPECT_EQ(p.shape, std::tuple(width, height, 16, PHOTOMETRIC_MINISWHITE));
    EXPECT_EQ(p.samples, samples);
  }
  // A 0 x 0 or 3 x 0 array: a valid header with no samples, which reads back.
  ASSERT_EQ(vepra_img_darr_to_tiff(path.c_str(), nullptr, 0, 0), nullptr);
  EXPECT_EQ(load(path), load(data_file("written_0x0.tif")));
  read_ok(path);
  ASSERT_EQ(vepra_img_darr_to_tiff(path.c_str(), nullptr, 3, 0), nullptr);
  EXPECT_EQ(load(path), load(data_file("written_0x3.tif")));
}

// A file libtiff writes, one plane of make_samples() per page.
struct Shape {
  uint32_t width = 37, height = 23;
  uint16_t bits = 16;
  uint16_t compression = COMPRESSION_NONE;
  uint16_t predictor = PREDICTOR_NONE;
  uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  uint32_t rows_per_strip = 0;  // 0: libtiff's choice
  uint32_t tile = 0;            // tile side, 0 for strips
  const char *order = "l";      // "l" or "b"
  bool bigtiff = false;
  int pages = 1;
  std::function<void(TIFF *)> fields{};  // set after the shape's
};

// Samples of a page, row-major, smooth and noisy; the same rows at any height.
Samples make_samples(uint32_t width, uint32_t height, uint16_t bits, int page) {
  std::mt19937 rng(1234u + static_cast<unsigned>(page) * 77u + width);
  Samples v(size_t{width} * height);
  for (size_t i = 0; i < v.size(); ++i) {
    const auto base = static_cast<uint32_t>(i % width * 3 + i / width * 5 + page * 40);
    v[i] = (rng() % 4 == 0 ? rng() : base) & (bits == 16 ? 0xFFFFu : 0xFFu);
  }
  return v;
}

void write_libtiff(const std::string &path, const Shape &s) {
  const Libtiff tif = libtiff(path, (std::string("w") + s.order + (s.bigtiff ? "8" : "")).c_str());
  if (tif == nullptr) return;
  TIFF *t = tif.get();
  for (int p = 0; p < s.pages; ++p) {
    // Later pages are smaller, as pyramid levels are.
    const uint32_t width = s.width >> p, height = s.height >> p;
    const Samples v = make_samples(width, height, s.bits, p);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, s.bits);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, s.photometric);
    TIFFSetField(t, TIFFTAG_COMPRESSION, s.compression);
    if (s.predictor != PREDICTOR_NONE) TIFFSetField(t, TIFFTAG_PREDICTOR, s.predictor);
    if (s.rows_per_strip != 0) TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, s.rows_per_strip);
    if (s.tile != 0) {
      TIFFSetField(t, TIFFTAG_TILEWIDTH, s.tile);
      TIFFSetField(t, TIFFTAG_TILELENGTH, s.tile);
    }
    if (s.fields) s.fields(t);
    // Tiles or lines, zero beyond the edges and beyond the first sample.
    const uint32_t tw = s.tile != 0 ? s.tile : width, th = s.tile != 0 ? s.tile : 1;
    const tmsize_t size = s.tile != 0 ? TIFFTileSize(t) : TIFFScanlineSize(t);
    Bytes buf(std::max(size_t(size), size_t{tw} * th * s.bits / 8));
    for (uint32_t y = 0; y < height; y += th) {
      for (uint32_t x = 0; x < width; x += tw) {
        std::fill(buf.begin(), buf.end(), 0);
        for (uint32_t r = 0; r < th && y + r < height; ++r) {
          for (uint32_t c = 0; c < tw && x + c < width; ++c) {
            const uint32_t value = v[size_t{y + r} * width + x + c];
            const size_t at = (size_t{r} * tw + c) * s.bits / 8;
            buf[at] = uint8_t(value);
            if (s.bits == 16) buf[at + 1] = uint8_t(value >> 8);
          }
        }
        if (s.tile != 0) {
          ASSERT_GT(TIFFWriteTile(t, buf.data(), x, y, 0, 0), 0);
        } else {
          ASSERT_EQ(TIFFWriteScanline(t, buf.data(), y, 0), 1);
        }
      }
    }
    ASSERT_EQ(TIFFWriteDirectory(t), 1);
  }
}

// Every compression, predictor, layout, byte order, BigTIFF, depth and page
// libtiff writes is decoded pixel-exact, and written back the same to libtiff;
// the classic little-endian uncompressed files also read without the decoder.
TEST_F(TiffTest, ReadsWhatLibtiffWritesPixelExact) {
  const std::string path = temp_path("combo.tif"), ours = temp_path("ours.tif");
  const uint16_t compressions[] = {COMPRESSION_NONE,    COMPRESSION_LZW,  COMPRESSION_ADOBE_DEFLATE,
                                   COMPRESSION_DEFLATE, COMPRESSION_ZSTD, COMPRESSION_PACKBITS};
  const std::pair<uint32_t, uint32_t> layouts[] = {{1, 0},    {7, 0},   {0, 0},
                                                   {1000, 0}, {16, 16}, {0, 32}};
  for (int i = 0; i < 6 * 2 * 6 * 2 * 2 * 2; ++i) {
    Shape s;
    s.bits = i % 2 == 0 ? 8 : 16;
    s.width = 37u + s.bits;  // odd sizes, partial edge tiles
    s.bigtiff = i / 2 % 2 == 1;
    s.order = i / 4 % 2 == 0 ? "l" : "b";
    std::tie(s.rows_per_strip, s.tile) = layouts[i / 8 % 6];
    s.predictor = i / 48 % 2 == 0 ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL;
    s.photometric = i / 48 % 2 == 0 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_MINISWHITE;
    s.compression = compressions[i / 96];
    s.pages = 2;
    SCOPED_TRACE("combination " + std::to_string(i));
    write_libtiff(path, s);
    uint32_t pages = 0;
    ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
    EXPECT_EQ(pages, 2u);
    for (uint32_t page : {1u, 0u}) {
      vepra_img_free(&img_);
      vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, page);
      ASSERT_EQ(e, nullptr) << take_printed(e);
      const uint32_t width = s.width >> page, height = s.height >> page;
      EXPECT_EQ(std::tuple(img_.width, img_.height, img_.bits_per_sample[0], img_.compression,
                           img_.photometric),
                std::tuple(width, height, uint32_t(s.bits), uint32_t(s.compression),
                           int32_t(s.photometric)));
      EXPECT_TRUE(pixels() == make_samples(width, height, s.bits, int(page)));
    }
    ASSERT_EQ(vepra_img_write_tiff(ours.c_str(), &img_), nullptr);
    const Peer p = libtiff_read(ours);
    EXPECT_EQ(p.shape, std::tuple(s.width, s.height, s.bits, s.photometric));
    EXPECT_TRUE(p.samples == pixels());
    if (s.compression != COMPRESSION_NONE || s.tile != 0 || s.bigtiff || *s.order == 'b') continue;
    // Without the strict flag the last page is read.
    vepra_img_free(&img_);
    ASSERT_EQ(vepra_img_read(path.c_str(), &img_), nullptr);
    EXPECT_TRUE(pixels() == make_samples(s.width / 2, s.height / 2, s.bits, 1));
    if (s.rows_per_strip != 0) {
      const uint32_t rows = std::min(s.rows_per_strip, s.height / 2);
      EXPECT_EQ(img_.strip_count, int32_t((s.height / 2 + rows - 1) / rows));
    }
  }
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
  if (value > 0xFFFF) e[2] = 4;  // a SHORT entry becomes a LONG one
  const int width = e[2] == 3 ? 2 : 4;
  for (int i = 0; i < width; ++i) e[8 + i] = uint8_t(value >> (8 * i));
}
uint32_t get_value(Bytes &b, uint16_t tag) {
  const uint8_t *e = entry_of(b, tag);
  return e == nullptr ? 0 : uint32_t(e[8] | e[9] << 8 | e[10] << 16 | e[11] << 24);
}

// A palette of every level in each channel: gray levels, "reversed" ones,
// or a "colour" one whose blue differs.
void set_palette(TIFF *t, uint16_t bits, const std::string &kind) {
  std::vector<uint16_t> map(size_t{1} << bits), blue(map.size());
  for (size_t i = 0; i < map.size(); ++i) {
    map[i] = uint16_t((kind == "reversed" ? map.size() - 1 - i : i) * (bits == 8 ? 257 : 1));
    blue[i] = kind == "colour" ? uint16_t(i) : map[i];
  }
  TIFFSetField(t, TIFFTAG_COLORMAP, map.data(), map.data(), blue.data());
}

// Edits of small libtiff files and what each reading mode makes of them, as
// libtiff_edits.tsv lists.
TEST_F(TiffTest, EditedLibtiffFilesReadAsListed) {
  const std::string path = temp_path("edit.tif");
  // "KEY=VALUE KEY=VALUE", or "-" for none.
  auto pairs = [](const std::string &text) {
    std::vector<std::pair<std::string, std::string>> out;
    std::istringstream in(text);
    for (std::string f; in >> f && f != "-";)
      out.emplace_back(f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
    return out;
  };
  const auto table = vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/image/libtiff_edits.tsv");
  EXPECT_EQ(table.size(), 33u);
  for (const auto &cols : table) {
    ASSERT_EQ(cols.size(), 4u);
    SCOPED_TRACE(cols[0] + " | " + cols[1] + " | " + cols[2]);
    Shape s;
    uint32_t compression = COMPRESSION_NONE;
    int32_t unit = -1;
    const auto fields = pairs(cols[0]);
    for (const auto &[tag, value] : fields) {
      const auto v = uint32_t(std::strtoul(value.c_str(), nullptr, 10));
      if (tag == "256") s.width = v;
      if (tag == "257") s.height = v;
      if (tag == "258") s.bits = uint16_t(v);
      if (tag == "259") compression = v;
      if (tag == "278") s.rows_per_strip = v;
      if (tag == "296") unit = int32_t(v);
      if (tag == "322") s.tile = v;
    }
    s.fields = [&fields, bits = s.bits](TIFF *t) {
      for (const auto &[tag, value] : fields) {
        const auto id = uint32_t(std::stoul(tag));
        if (id == TIFFTAG_COLORMAP) {
          set_palette(t, bits, value);
        } else if (id == TIFFTAG_XRESOLUTION || id == TIFFTAG_YRESOLUTION) {
          TIFFSetField(t, id, std::stod(value));
        } else {
          TIFFSetField(t, id, uint32_t(std::stoul(value)));
        }
      }
    };
    write_libtiff(path, s);
    Bytes b = load(path);
    for (const auto &[key, value] : pairs(cols[1])) {
      if (key == "pad") {
        b.resize(b.size() + std::stoul(value));
      } else if (key == "strip") {
        for (size_t i = 0; i < value.size() / 2; ++i)
          b[get_value(b, 273) + i] = uint8_t(std::stoul(value.substr(2 * i, 2), nullptr, 16));
      } else if (value != "none") {
        set_value(b, uint16_t(std::stoul(key)), uint32_t(std::stoul(value)));
      } else if (uint8_t *e = entry_of(b, uint16_t(std::stoul(key)))) {
        e[1] = 0xFE;  // an unknown tag instead
      }
    }
    save("edit.tif", b);
    auto has = [&](char flag) { return cols[2].find(flag) != std::string::npos; };
    const uint32_t flags = (has('S') ? kStrict : 0) | (has('U') ? VEPRA_IMG_READ_UNITLESS : 0) |
                           (has('H') ? VEPRA_IMG_READ_HEADER : 0);
    vepra_img_free(&img_);
    vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, flags, 0);
    if (cols[3].rfind("Error", 0) == 0) {
      EXPECT_EQ(take_printed(e), refused(cols[3]));
      EXPECT_TRUE(owns_nothing(img_));
      continue;
    }
    ASSERT_EQ(e, nullptr) << take_printed(e);
    EXPECT_EQ(std::tuple(img_.width, img_.samples_per_pixel, img_.photometric, img_.compression,
                         img_.xres, img_.res_unit),
              std::tuple(s.width, has('S') ? 1u : 0u, 1, compression, 0.0, unit));
    if (has('H')) {
      EXPECT_TRUE(img_.data8 == nullptr && img_.data16 == nullptr);
      continue;
    }
    EXPECT_TRUE(cols[3] != "empty" || img_.height == 0) << img_.height;
    Samples want = make_samples(s.width, img_.height, s.bits, 0);
    for (uint32_t &v : want) v = cols[3] == "reversed" ? (s.bits == 8 ? 255 : 65535) - v : v;
    EXPECT_EQ(pixels() == want, cols[3] != "raw");
  }
}

// A strip of each compression cut short at every length fails as incomplete
// or malformed, or gives the whole image where only an end code or a checksum was cut.
TEST_F(TiffTest, TruncatedStripsAreRefused) {
  const std::string path = temp_path("cut.tif");
  for (uint16_t compression : {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                               COMPRESSION_ZSTD, COMPRESSION_PACKBITS}) {
    SCOPED_TRACE(compression);
    Shape s;
    s.width = 16, s.height = 8, s.rows_per_strip = 8, s.compression = compression;
    s.predictor = compression == COMPRESSION_NONE ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL;
    write_libtiff(path, s);
    Bytes b = load(path);
    const uint32_t length = get_value(b, 279);
    ASSERT_GT(length, 0u);
    uint32_t refusals = 0;
    for (uint32_t cut = 0; cut < length; ++cut) {
      set_value(b, 279, cut);
      save("cut.tif", b);
      vepra_img_free(&img_);
      vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, kStrict, 0);
      if (e == nullptr) {
        EXPECT_TRUE(pixels() == make_samples(16, 8, 16, 0)) << cut;
        continue;
      }
      const int code = vepra_error_root_cause(e)->code;
      EXPECT_TRUE(code == VEPRA_E_TIFF_INCOMPLETE || code == VEPRA_E_TIFF_STRUCTURE) << cut;
      vepra_error_clear(e);
      ++refusals;
    }
    EXPECT_GE(refusals + 4, length);
  }
}

// Page counts and the checks of the reader with flags and pages: reserved
// flags, pages beyond the end, directories that loop.
TEST_F(TiffTest, PagesAndFlags) {
  std::string path = temp_path("pages.tif");
  Shape s;
  uint32_t pages = 0;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 1u);
  EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, 0, 1)),
            refused("Error: Page 1 does not exist: the file has 1 page "));
  // Reserved flags are refused before the record is touched.
  img_.type = 7;
  for (auto [flags, m] : {std::pair{0x8u, "Unknown image reading flags 0x8"},
                          {0x80000001u, "Unknown image reading flags 0x80000000"}}) {
    EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, flags, 0)),
              "Error(120020): Cannot read image. \nError(120020): " + std::string(m) + " ");
  }
  EXPECT_EQ(img_.type, 7u);
  EXPECT_NE(vepra_test::Chain(vepra_img_read_ex(path.c_str(), nullptr, 0, 0)), nullptr);
  EXPECT_NE(vepra_img_page_count(path.c_str(), nullptr), nullptr);

  s.pages = 3;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 3u);
  EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, kStrict, 3)),
            refused("Error: Page 3 does not exist: the file has 3 pages "));
  // Without the strict flag page 0 is the last directory.
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 0), nullptr);
  EXPECT_EQ(img_.width, 37u / 4);
  vepra_img_free(&img_);
  // That file with its last directory pointing back at the first.
  path = data_file("three_pages_looping.tif");
  EXPECT_EQ(take_printed(vepra_img_page_count(path.c_str(), &pages)),
            "Error(120152): Cannot count TIFF pages. \nError(120152): TIFF directories loop or "
            "repeat their data ");
  EXPECT_EQ(pages, 3u);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 2), nullptr);
  EXPECT_EQ(img_.width, 37u / 4);
}

TEST_F(TiffTest, EveryAllocationFailureIsReported) {
  // 3 x 2 16-bit in three strips (the last empty), with Software text.
  const std::string path = data_file("three_strips_and_software.tif"), out = temp_path("alloc.tif");
  long made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_read(path.c_str(), &img_); },
      [&](vepra_error_t *e, long n) {
        EXPECT_TRUE(owns_nothing(img_) && img_.type == 0) << n;
        if (n <= 3) {  // the information pass fails silently: the file is "not an image"
          EXPECT_TRUE(e->code == VEPRA_E_IMG_TYPE && e->next == nullptr) << n;
        } else if (n == 8) {
          EXPECT_EQ(take_printed(vepra_error_dup(e)),
                    "Error(120012): Cannot read image. \nError(120012): Cannot read TIFF image. \n"
                    "Error(120012): Cannot allocate matrix. \nError(120012): Failed to allocate 6 "
                    "bytes of memory. ");
        } else {
          EXPECT_STREQ(e->message, "Cannot read image.");
          EXPECT_EQ(vepra_error_root_cause(e)->code, VEPRA_E_ALLOC) << n;
        }
      });
  EXPECT_EQ(made, 9);  // three arrays per pass, then the row table and two rows
  EXPECT_EQ(pixels(), (Samples{1, 2, 3, 4, 5, 6}));

  double r0[3] = {1, 2, 3}, r1[3] = {4, 5, 6}, *rows[2] = {r0, r1};
  made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_darr_to_tiff(out.c_str(), rows, 2, 3); },
      [&](vepra_error_t *e, long n) {
        EXPECT_EQ(vepra_error_root_cause(e)->code, VEPRA_E_ALLOC) << n;
        EXPECT_STREQ(e->message, "Cannot convert double array to TIFF image.");
      });
  EXPECT_EQ(made, 3);
  // Writing a record allocates nothing.
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(vepra_img_write_tiff(out.c_str(), &img_), nullptr);
  EXPECT_EQ(vepra::testing::allocation_count(), 0);
}

}  // namespace
