// TIFF reading and writing: hand-built files for every failure and edge
// case, byte-exact output, interoperation with libtiff in both directions,
// and allocation failures.
#include <tiffio.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra_test::take_printed;
using vepra_test::temp_path;
using Bytes = std::vector<uint8_t>;

// One directory entry as it is stored in a file.
struct Field {
  uint16_t tag;
  uint16_t type;
  uint32_t count;
  uint32_t value;
};

void put16(Bytes &b, size_t at, uint32_t v) {
  b[at] = static_cast<uint8_t>(v);
  b[at + 1] = static_cast<uint8_t>(v >> 8);
}

void put32(Bytes &b, size_t at, uint32_t v) {
  put16(b, at, v);
  put16(b, at + 2, v >> 16);
}

uint32_t get16(const Bytes &b, size_t at) { return b[at] | (b[at + 1] << 8); }
uint32_t get32(const Bytes &b, size_t at) { return get16(b, at) | (get16(b, at + 2) << 16); }

// Builds little-endian TIFF files piece by piece: data blocks and
// directories are appended and their offsets handed back for the entries
// that point at them.
class TiffBuilder {
 public:
  TiffBuilder() : bytes_{'I', 'I', 42, 0, 0, 0, 0, 0} {}

  uint32_t data(const Bytes &block) {
    const auto at = static_cast<uint32_t>(bytes_.size());
    bytes_.insert(bytes_.end(), block.begin(), block.end());
    return at;
  }
  uint32_t shorts(std::initializer_list<uint16_t> values) {
    Bytes block;
    for (uint16_t v : values) block.insert(block.end(), {uint8_t(v), uint8_t(v >> 8)});
    return data(block);
  }
  uint32_t longs(std::initializer_list<uint32_t> values) {
    Bytes block(values.size() * 4);
    size_t at = 0;
    for (uint32_t v : values) put32(block, (at++) * 4, v);
    return data(block);
  }
  uint32_t text(const std::string &s) { return data(Bytes(s.begin(), s.end())); }

  // Appends a directory; the first one becomes the file's first directory.
  uint32_t directory(const std::vector<Field> &fields, uint32_t next = 0) {
    const auto at = static_cast<uint32_t>(bytes_.size());
    Bytes block(2 + fields.size() * 12 + 4);
    put16(block, 0, static_cast<uint32_t>(fields.size()));
    for (size_t i = 0; i < fields.size(); ++i) {
      put16(block, 2 + i * 12, fields[i].tag);
      put16(block, 4 + i * 12, fields[i].type);
      put32(block, 6 + i * 12, fields[i].count);
      put32(block, 10 + i * 12, fields[i].value);
    }
    put32(block, 2 + fields.size() * 12, next);
    data(block);
    if (get32(bytes_, 4) == 0) put32(bytes_, 4, at);
    return at;
  }
  // Points the next-directory field of the directory at from to offset to.
  void link(uint32_t from, uint32_t to) { put32(bytes_, from + 2 + get16(bytes_, from) * 12, to); }

  Bytes &bytes() { return bytes_; }

 private:
  Bytes bytes_;
};

// The usual directory of a grayscale image with one 32-bit strip array.
std::vector<Field> gray_fields(uint32_t width, uint32_t height, uint16_t depth,
                               uint32_t offsets_field, uint32_t counts_field, uint32_t strips) {
  return {{256, 4, 1, width},         {257, 4, 1, height},
          {258, 3, 1, depth},         {259, 3, 1, 1},
          {262, 3, 1, 1},             {273, 4, strips, offsets_field},
          {277, 3, 1, 1},             {279, 4, strips, counts_field},
          {284, 3, 1, 1}};
}

// A one-strip 8-bit image with the given pixels, row-major.
Bytes gray8(uint32_t width, uint32_t height, const Bytes &pixels) {
  TiffBuilder t;
  const uint32_t strip = t.data(pixels);
  t.directory(gray_fields(width, height, 8, strip, static_cast<uint32_t>(pixels.size()), 1));
  return t.bytes();
}

std::string save(const std::string &name, const Bytes &bytes) {
  std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return path;
}

Bytes load(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A record of the given size and depth with a zeroed pixel matrix, for the
// writer.
vepra_img_t gray_record(uint32_t width, uint32_t height, uint16_t depth, int photometric) {
  vepra_img_t img{};
  img.width = width;
  img.height = height;
  img.samples_per_pixel = 1;
  img.bits_per_sample[0] = depth;
  img.photometric = photometric;
  void *m = nullptr;
  EXPECT_EQ(vepra_mem_matrix_alloc(&m, depth / 8, 0, static_cast<int>(height) - 1, 0,
                                   static_cast<int>(width) - 1),
            nullptr);
  (depth == 8 ? reinterpret_cast<void *&>(img.data8) : reinterpret_cast<void *&>(img.data16)) = m;
  return img;
}

int root_code(vepra_error_t *e) { return vepra_error_root_cause(e)->code; }

bool owns_nothing(const vepra_img_t &img) {
  return img.data8 == nullptr && img.data16 == nullptr && img.strip_offsets == nullptr &&
         img.strip_byte_counts == nullptr && img.software == nullptr;
}

class TiffTest : public vepra_test::LibraryTest {
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

  // Reads bytes with vepra_img_read_tiff; returns the root cause's code (0
  // with no error: use read_ok for files that must succeed).
  vepra_error_t *read(const Bytes &bytes) {
    vepra_img_free(&img_);
    return vepra_img_read_tiff(save("in.tif", bytes).c_str(), &img_);
  }
  void read_ok(const Bytes &bytes) {
    vepra_error_t *e = read(bytes);
    ASSERT_EQ(e, nullptr) << take_printed(e);
    ASSERT_EQ(img_.type, 1u);
  }
  // The failure a read of bytes reports: its printed chain. The record must
  // hold nothing afterwards.
  std::string read_failure(const Bytes &bytes) {
    vepra_error_t *e = read(bytes);
    EXPECT_NE(e, nullptr);
    EXPECT_TRUE(owns_nothing(img_));
    return e != nullptr ? take_printed(e) : "";
  }

  vepra_img_t img_{};
};

// ---------------------------------------------------------------- header

TEST_F(TiffTest, HeaderFailuresNameTheirCause) {
  struct Case {
    Bytes bytes;
    std::string printed;
  };
  const std::string ctx = "Error(120150): Cannot read TIFF image. \nError(120150): ";
  const Case cases[] = {
      {{'M', 'M', 0, 42, 0, 0, 0, 8}, ctx + "Motorola TIFF is not supported. "},
      {{'M', 'I', 42, 0, 8, 0, 0, 0}, ctx + "Unknown data format. "},
      {{'I', 'M', 42, 0, 8, 0, 0, 0}, ctx + "Unknown data format. "},
      {{'P', 'K', 3, 4, 8, 0, 0, 0}, ctx + "Unknown data format. "},
      {{'I', 'I', 43, 0, 8, 0, 0, 0}, ctx + "Unknown TIFF format. "},
      {{'I', 'I', 42}, "Error(120031): Cannot read TIFF image. \nError(120031): Cannot read IO stream. "},
      {{'I', 'I', 42, 0, 8, 0}, "Error(120031): Cannot read TIFF image. \nError(120031): Cannot read IO stream. "},
      {{'I', 'I', 42, 0, 0, 0, 0, 0}, "Error: Cannot read TIFF image. \nError: No image data were found. "},
  };
  for (const Case &c : cases) EXPECT_EQ(read_failure(c.bytes), c.printed);
}

TEST_F(TiffTest, FourthHeaderByteIsNotChecked) {
  Bytes file = gray8(2, 1, {5, 6});
  file[3] = 0x7F;
  read_ok(file);
  EXPECT_EQ(img_.data8[0][1], 6);
}

TEST_F(TiffTest, ReadTellsNonTiffFromUnopenable) {
  // A big-endian file is only "not an image" to the general reader.
  const std::string motorola = save("mm.tif", {'M', 'M', 0, 42, 0, 0, 0, 8});
  EXPECT_EQ(take_printed(vepra_img_read(motorola.c_str(), &img_)),
            "Error(120154): Image type is unknown. ");
  EXPECT_TRUE(owns_nothing(img_));

  // The information pass does not report it; the type stays unknown.
  img_.type = 7;
  EXPECT_EQ(vepra_img_read_tiff_info(motorola.c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 0u);

  const std::string missing = temp_path("missing.tif");
  EXPECT_EQ(take_printed(vepra_img_read(missing.c_str(), &img_)),
            "Error(120030): Cannot read image. \n"
            "Error(120030): Cannot read TIFF information from file. \n"
            "Error(120030): Cannot open file '" + missing + "' ");
  EXPECT_EQ(take_printed(vepra_img_read_tiff(missing.c_str(), &img_)),
            "Error(120030): Cannot read TIFF image. \n"
            "Error(120030): Cannot open file '" + missing + "' ");
  EXPECT_EQ(root_code(vepra_img_read(nullptr, &img_)), VEPRA_E_IO_OPEN);
  vepra_error_t *e = vepra_img_read(missing.c_str(), nullptr);
  EXPECT_EQ(root_code(e), VEPRA_E_ASSERT);
  vepra_error_clear(e);
}

// ------------------------------------------------------------- directory

TEST_F(TiffTest, InvalidTagsAreReportedWithTheirFields) {
  const Bytes pixels{1, 2};
  auto with = [&](Field extra) {
    TiffBuilder t;
    const uint32_t strip = t.data(pixels);
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields.push_back(extra);
    t.directory(fields);
    return t.bytes();
  };
  const std::string ctx = "Error(120151): Cannot read TIFF image. \nError(120151): ";
  EXPECT_EQ(read_failure(with({258, 4, 1, 8})),
            ctx + "Invalid TIFF tag [name=258 type=4 length=1 offset=8] ");
  EXPECT_EQ(read_failure(with({277, 3, 2, 1})),
            ctx + "Invalid TIFF tag [name=277 type=3 length=2 offset=1] ");
  EXPECT_EQ(read_failure(with({277, 4, 1, 1})),
            ctx + "Invalid TIFF tag [name=277 type=4 length=1 offset=1] ");

  TiffBuilder t;
  const uint32_t strip = t.data(pixels);
  const uint32_t zero_den = t.longs({300, 0});
  auto fields = gray_fields(2, 1, 8, strip, 2, 1);
  fields.push_back({283, 5, 1, zero_den});
  t.directory(fields);
  EXPECT_EQ(read_failure(t.bytes()), ctx + "Invalid TIFF tag [name=283 type=5 length=1 offset=" +
                                         std::to_string(zero_den) + "] ");
}

TEST_F(TiffTest, StructureFailures) {
  const std::string ctx = "Error(120152): Cannot read TIFF image. \nError(120152): ";
  {
    TiffBuilder t;
    const uint32_t strip = t.data({1, 2});
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields.push_back({296, 3, 1, 1});  // no absolute unit
    t.directory(fields);
    EXPECT_EQ(read_failure(t.bytes()), ctx + "Unknown resolution units [1] in TIFF file ");
  }
  {
    TiffBuilder t;
    const uint32_t offsets = t.longs({100, 200, 300});
    const uint32_t counts = t.longs({1, 1});
    auto fields = gray_fields(2, 1, 8, offsets, counts, 3);
    fields[7].count = 2;
    t.directory(fields);
    EXPECT_EQ(read_failure(t.bytes()), ctx + "Inconsistent number of strips [3 vs. 2] ");
  }
  {
    TiffBuilder t;
    const uint32_t strip = t.data({1, 2});
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields.erase(fields.begin() + 4);  // PhotometricInterpretation
    t.directory(fields);
    const Bytes file = t.bytes();
    EXPECT_EQ(read_failure(file), ctx + "Unknown photometric interpretation ");
    // Only the pixel reader needs it.
    EXPECT_EQ(vepra_img_read_tiff_info(save("nophot.tif", file).c_str(), &img_), nullptr);
    EXPECT_EQ(img_.type, 1u);
  }
}

TEST_F(TiffTest, ShortAndMisplacedDataFail) {
  const std::string incomplete =
      "Error(120153): Cannot read TIFF image. \nError(120153): The data is not complete. ";
  const std::string short_read =
      "Error(120031): Cannot read TIFF image. \nError(120031): Cannot read IO stream. ";
  const std::string bad_seek =
      "Error(120033): Cannot read TIFF image. \nError(120033): Cannot seek IO stream. ";

  // The strip, last in the file, ends one byte early.
  TiffBuilder t;
  auto fields = gray_fields(3, 2, 8, 0, 6, 1);
  const uint32_t dir = t.directory(fields);
  const uint32_t strip = t.data({1, 2, 3, 4, 5});
  put32(t.bytes(), dir + 2 + 5 * 12 + 8, strip);
  EXPECT_EQ(read_failure(t.bytes()), incomplete);

  auto strip_at = [](uint32_t offset, uint32_t count) {
    TiffBuilder b;
    b.directory(gray_fields(3, 2, 8, offset, count, 1));
    return b.bytes();
  };
  EXPECT_EQ(read_failure(strip_at(4000, 6)), incomplete);           // past the end
  EXPECT_EQ(read_failure(strip_at(8, 0xFFFFFFF0u)), incomplete);    // runs past the end
  EXPECT_EQ(read_failure(strip_at(0x80000000u, 6)), bad_seek);       // negative offset

  // A directory that is cut off, or lies past the end of the file.
  Bytes cut = gray8(2, 1, {1, 2});
  cut.resize(cut.size() - 20);
  EXPECT_EQ(read_failure(cut), short_read);
  EXPECT_EQ(read_failure({'I', 'I', 42, 0, 0, 0x10, 0, 0}), short_read);
  EXPECT_EQ(read_failure({'I', 'I', 42, 0, 0, 0, 0, 0x90}), bad_seek);

  // Arrays whose data lie outside the file: the huge count must be refused
  // before anything is allocated for it.
  auto with = [](Field extra) {
    TiffBuilder b;
    const uint32_t strip = b.data({1, 2});
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields.push_back(extra);
    b.directory(fields);
    return b.bytes();
  };
  EXPECT_EQ(read_failure(with({273, 4, 0x3FFFFFFF, 8})), short_read);
  EXPECT_EQ(read_failure(with({279, 3, 0x7FFFFFFF, 8})), short_read);
  EXPECT_EQ(read_failure(with({273, 4, 4, 0x90000000u})), bad_seek);
  EXPECT_EQ(read_failure(with({258, 3, 3, 0x7FFFFFF0})), short_read);
  EXPECT_EQ(read_failure(with({305, 2, 0xFFFFFFFFu, 8})), short_read);
  EXPECT_EQ(read_failure(with({282, 5, 1, 0x7FFFFFF0})), short_read);
  // Strip counts beyond a signed 32-bit count are an invalid tag.
  EXPECT_EQ(root_code(read(with({273, 4, 0x80000000u, 8}))), VEPRA_E_TIFF_TAG);
  vepra_error_t *e = vepra_img_read_tiff(nullptr, &img_);
  EXPECT_EQ(root_code(e), VEPRA_E_IO_OPEN);
  vepra_error_clear(e);
}

TEST_F(TiffTest, HostileDirectoriesEndInErrors) {
  // A directory chain that loops back on itself.
  TiffBuilder t;
  const uint32_t strip = t.data({1, 2});
  const uint32_t dir = t.directory(gray_fields(2, 1, 8, strip, 2, 1));
  t.link(dir, dir);
  vepra_error_t *e = read(t.bytes());
  EXPECT_EQ(root_code(e), VEPRA_E_TIFF_STRUCTURE);
  vepra_error_clear(e);
  EXPECT_TRUE(owns_nothing(img_));

  // Dimensions the file cannot hold are refused before the rows are made.
  TiffBuilder big;
  const uint32_t s = big.data({1, 2});
  big.directory(gray_fields(0x7FFFFFFF, 0x7FFFFFFF, 16, s, 2, 1));
  EXPECT_EQ(read_failure(big.bytes()),
            "Error(120152): Cannot read TIFF image. \n"
            "Error(120152): Image of 2147483647 x 2147483647 pixels does not fit in the file ");
  TiffBuilder huge;
  const uint32_t h = huge.data({1, 2});
  huge.directory(gray_fields(0xFFFFFFFFu, 1, 8, h, 2, 1));
  e = read(huge.bytes());
  EXPECT_EQ(root_code(e), VEPRA_E_TIFF_STRUCTURE);
  vepra_error_clear(e);
}

// ------------------------------------------------------------- edge cases

TEST_F(TiffTest, UnequalStripsAreConcatenatedInPixelOrder) {
  TiffBuilder t;
  const uint32_t second = t.data({50, 60});
  const uint32_t first = t.data({10, 20, 30, 40});
  const uint32_t offsets = t.longs({first, second});
  const uint32_t counts = t.longs({4, 2});
  t.directory(gray_fields(3, 2, 8, offsets, counts, 2));
  read_ok(t.bytes());
  ASSERT_NE(img_.data8, nullptr);
  EXPECT_EQ(img_.strip_count, 2);
  EXPECT_EQ(img_.strip_byte_count_count, 2u);
  const uint8_t want[2][3] = {{10, 20, 30}, {40, 50, 60}};
  for (int r = 0; r < 2; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(img_.data8[r][c], want[r][c]) << r << "," << c;
  }

  // Pixels that no strip reaches are zero.
  TiffBuilder part;
  const uint32_t strip = part.data({1, 2, 3, 4});
  part.directory(gray_fields(300, 2, 16, strip, 4, 1));
  part.data(Bytes(1200));  // room for the pixels, as the reader demands
  read_ok(part.bytes());
  EXPECT_EQ(img_.data16[0][1], 0x0403);
  int nonzero = 0;
  for (int c = 2; c < 300; ++c) nonzero += img_.data16[0][c] != 0;
  for (int c = 0; c < 300; ++c) nonzero += img_.data16[1][c] != 0;
  EXPECT_EQ(nonzero, 0);
}

TEST_F(TiffTest, SixteenBitStripsWithShortArraysAndSurplusSamples) {
  // 2 x 2 16-bit image in three strips, arrays of SHORT values: two in the
  // value field, three at an offset. The last strip has an odd byte and
  // samples beyond the last pixel, both ignored.
  TiffBuilder t;
  const uint32_t a = t.shorts({0x1234});
  const uint32_t b = t.shorts({0xBEEF, 0x0102});
  const uint32_t c = t.data({0x03, 0x04, 0xAA, 0xBB, 0xCC});
  const uint32_t offsets = t.shorts({uint16_t(a), uint16_t(b), uint16_t(c)});
  const uint32_t counts = t.shorts({2, 4, 5});
  auto fields = gray_fields(2, 2, 16, offsets, counts, 3);
  fields[5].type = 3;
  fields[7].type = 3;
  t.directory(fields);
  read_ok(t.bytes());
  ASSERT_NE(img_.data16, nullptr);
  EXPECT_EQ(img_.data8, nullptr);
  EXPECT_EQ(img_.data16[0][0], 0x1234);
  EXPECT_EQ(img_.data16[0][1], 0xBEEF);
  EXPECT_EQ(img_.data16[1][0], 0x0102);
  EXPECT_EQ(img_.data16[1][1], 0x0403);
  EXPECT_EQ(img_.strip_offsets[2], c);
  EXPECT_EQ(img_.strip_byte_counts[2], 5u);

  // Two SHORT values stand in the value field themselves.
  TiffBuilder two;
  const uint32_t s1 = two.data({7, 8});
  const uint32_t s2 = two.data({9, 10});
  auto f2 = gray_fields(2, 2, 8, s1 | (s2 << 16), 2 | (2 << 16), 2);
  f2[5].type = 3;
  f2[7].type = 3;
  two.directory(f2);
  read_ok(two.bytes());
  EXPECT_EQ(img_.data8[1][0], 9);
  EXPECT_EQ(img_.data8[1][1], 10);
}

TEST_F(TiffTest, OtherDepthsReadWithoutPixels) {
  for (uint16_t depth : {12, 32, 1}) {
    TiffBuilder t;
    const uint32_t strip = t.data({1, 2, 3});
    t.directory(gray_fields(2, 1, depth, strip, 3, 1));
    read_ok(t.bytes());
    EXPECT_EQ(img_.data8, nullptr);
    EXPECT_EQ(img_.data16, nullptr);
    EXPECT_EQ(img_.bits_per_sample[0], depth);
    // Its strips are sought but not read: one past the end is fine.
    TiffBuilder past;
    past.directory(gray_fields(2, 1, depth, 5000, 3, 1));
    read_ok(past.bytes());
  }
}

TEST_F(TiffTest, BitsPerSampleForms) {
  // Values up to 32 are depths, so arrays must lie further into the file.
  auto with_bps = [](Field bps, TiffBuilder &t) {
    const uint32_t strip = t.data({1, 2});
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields[2] = bps;
    t.directory(fields);
    return t.bytes();
  };
  {
    TiffBuilder t;
    read_ok(with_bps({258, 3, 1, 8}, t));
    EXPECT_EQ(img_.bits_per_sample[0], 8u);
    EXPECT_EQ(img_.bits_per_sample[1], 8u);
    EXPECT_EQ(img_.bits_per_sample[2], 8u);
  }
  {
    TiffBuilder t;
    t.data(Bytes(32));
    const uint32_t at = t.shorts({8, 16, 12});
    read_ok(with_bps({258, 3, 3, at}, t));
    EXPECT_EQ(img_.bits_per_sample[0], 8u);
    EXPECT_EQ(img_.bits_per_sample[1], 16u);
    EXPECT_EQ(img_.bits_per_sample[2], 12u);
  }
  {
    TiffBuilder t;  // two values in the field
    read_ok(with_bps({258, 3, 2, 8 | (100u << 16)}, t));
    EXPECT_EQ(img_.bits_per_sample[0], 8u);
    EXPECT_EQ(img_.bits_per_sample[1], 100u);
    EXPECT_EQ(img_.bits_per_sample[2], 0u);
    EXPECT_EQ(img_.data8[0][1], 2);
  }
  {
    TiffBuilder t;  // four values at an offset: none taken
    t.data(Bytes(32));
    const uint32_t at = t.shorts({8, 8, 8, 8});
    read_ok(with_bps({258, 3, 4, at}, t));
    EXPECT_EQ(img_.bits_per_sample[0], 0u);
    EXPECT_EQ(img_.data8, nullptr);
  }
}

TEST_F(TiffTest, ResolutionUnits) {
  auto file = [](int unit) {
    TiffBuilder t;
    const uint32_t strip = t.data({1, 2});
    const uint32_t x = t.longs({600, 2});
    const uint32_t y = t.longs({300, 1});
    auto fields = gray_fields(2, 1, 8, strip, 2, 1);
    fields.push_back({282, 5, 1, x});
    fields.push_back({283, 5, 1, y});
    if (unit >= 0) fields.push_back({296, 3, 1, static_cast<uint32_t>(unit)});
    t.directory(fields);
    return t.bytes();
  };
  read_ok(file(-1));
  EXPECT_EQ(img_.res_unit, -1);
  EXPECT_DOUBLE_EQ(img_.xres, 300.0);
  EXPECT_DOUBLE_EQ(img_.yres, 300.0);
  read_ok(file(2));
  EXPECT_DOUBLE_EQ(img_.yres, 300.0);
  read_ok(file(3));
  EXPECT_DOUBLE_EQ(img_.xres, 762.0);
  EXPECT_DOUBLE_EQ(img_.yres, 762.0);
  double xmm = 0, ymm = 0;
  EXPECT_EQ(vepra_img_get_resmm(&img_, &xmm, &ymm), nullptr);
  EXPECT_DOUBLE_EQ(xmm, 30.0);
  EXPECT_DOUBLE_EQ(ymm, 30.0);
  for (int unit : {0, 1, 4}) {
    vepra_error_t *e = read(file(unit));
    EXPECT_EQ(root_code(e), VEPRA_E_TIFF_STRUCTURE) << unit;
    vepra_error_clear(e);
  }
}

TEST_F(TiffTest, LaterDirectoriesOverrideEarlierOnes) {
  // Both directories carry strip arrays and Software text; the second's
  // replace the first's (a leak would show under the leak checker).
  TiffBuilder t;
  const uint32_t strip1 = t.data({1, 2, 3, 4});
  const uint32_t sw1 = t.text("first writer");
  const uint32_t offs1 = t.longs({strip1, strip1 + 2});
  const uint32_t cnts1 = t.longs({2, 2});
  auto first = gray_fields(2, 2, 8, offs1, cnts1, 2);
  first.push_back({305, 2, 12, sw1});
  const uint32_t dir1 = t.directory(first);
  const uint32_t strip2 = t.data({9, 8, 7});
  const uint32_t sw2 = t.text("ab");
  auto second = gray_fields(3, 1, 8, strip2, 3, 1);
  second.erase(second.begin() + 4);  // photometric kept from the first
  second.push_back({305, 2, 2, sw2});
  second.push_back({305, 2, 2, sw2});  // the same tag twice in one directory
  t.link(dir1, t.directory(second));
  read_ok(t.bytes());
  EXPECT_EQ(img_.width, 3u);
  EXPECT_EQ(img_.height, 1u);
  EXPECT_EQ(img_.photometric, 1);
  EXPECT_EQ(img_.strip_count, 1);
  EXPECT_STREQ(img_.software, "ab");
  EXPECT_EQ(img_.data8[0][0], 9);
  EXPECT_EQ(img_.data8[0][2], 7);
}

TEST_F(TiffTest, DirectoryFieldsAreStoredAsRead) {
  TiffBuilder t;
  const uint32_t strip = t.data({1, 2});
  const uint32_t sw = t.text("Scanner 5");
  auto fields = gray_fields(2, 1, 8, strip, 2, 1);
  fields[3].value = 5;  // LZW: read as raw bytes all the same
  fields[4].value = 0;
  fields[8].value = 2;
  fields.push_back({305, 2, 9, sw});
  fields.push_back({0x8769, 4, 1, 12345});  // unknown tags are skipped
  fields.push_back({300, 4, 1, 77});
  t.directory(fields);
  const Bytes file = t.bytes();

  ASSERT_EQ(vepra_img_read_tiff_info(save("info.tif", file).c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 1u);
  EXPECT_EQ(img_.data8, nullptr);  // the information pass reads no pixels
  EXPECT_STREQ(img_.software, "Scanner 5");
  EXPECT_EQ(img_.compression, 5u);
  EXPECT_EQ(img_.photometric, 0);
  EXPECT_EQ(img_.planar_config, 2u);
  EXPECT_EQ(img_.samples_per_pixel, 1u);
  EXPECT_EQ(img_.xres, 0.0);

  vepra_img_free(&img_);
  EXPECT_TRUE(owns_nothing(img_));
  EXPECT_EQ(img_.type, 1u);  // kept by vepra_img_free
  ASSERT_EQ(vepra_img_read(save("read.tif", file).c_str(), &img_), nullptr);
  EXPECT_EQ(img_.data8[0][0], 1);
  EXPECT_EQ(img_.data8[0][1], 2);
}

TEST_F(TiffTest, EmptyImagesReadWithoutMatrix) {
  for (auto [w, h] : {std::pair{0u, 5u}, std::pair{5u, 0u}, std::pair{0u, 0u}}) {
    TiffBuilder t;
    const uint32_t strip = t.data({1, 2, 3});
    t.directory(gray_fields(w, h, 16, strip, 3, 1));
    read_ok(t.bytes());
    EXPECT_EQ(img_.data16, nullptr);
  }
  // No strips at all: the matrix stays zero.
  TiffBuilder t;
  t.bytes().resize(64);
  auto fields = gray_fields(4, 2, 8, 0, 0, 0);
  fields.erase(fields.begin() + 7);
  fields.erase(fields.begin() + 5);
  t.directory(fields);
  read_ok(t.bytes());
  EXPECT_EQ(img_.strip_count, 0);
  EXPECT_EQ(img_.data8[1][3], 0);
  // A strip array of no entries cannot be allocated.
  TiffBuilder none;
  none.directory(gray_fields(1, 1, 8, 8, 1, 0));
  vepra_error_t *e = read(none.bytes());
  EXPECT_EQ(root_code(e), VEPRA_E_NELEM);
  vepra_error_clear(e);
}

// ---------------------------------------------------------------- writing

TEST_F(TiffTest, WrittenLayoutIsByteExact) {
  vepra_img_t img = gray_record(3, 2, 8, 1);
  img.xres = 300;
  img.res_unit = 2;
  for (int i = 0; i < 6; ++i) img.data8[i / 3][i % 3] = static_cast<uint8_t>(10 * i + 1);
  const std::string path = temp_path("out8.tif");
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  vepra_img_free(&img);

  const Bytes f = load(path);
  ASSERT_EQ(f.size(), 152u);
  EXPECT_EQ(Bytes(f.begin(), f.begin() + 10), (Bytes{'I', 'I', 42, 0, 8, 0, 0, 0, 10, 0}));
  const uint32_t want[10][4] = {{256, 4, 1, 3},   {257, 4, 1, 2},   {258, 3, 1, 8},
                                {259, 3, 1, 1},   {262, 3, 1, 1},   {273, 4, 1, 146},
                                {277, 3, 1, 1},   {279, 4, 1, 6},   {284, 3, 1, 1},
                                {305, 2, 12, 134}};
  for (size_t i = 0; i < 10; ++i) {
    const size_t at = 10 + 12 * i;
    EXPECT_EQ(get16(f, at), want[i][0]) << i;
    EXPECT_EQ(get16(f, at + 2), want[i][1]) << i;
    EXPECT_EQ(get32(f, at + 4), want[i][2]) << i;
    EXPECT_EQ(get32(f, at + 8), want[i][3]) << i;
  }
  EXPECT_EQ(get32(f, 130), 0u);
  EXPECT_EQ(std::string(f.begin() + 134, f.begin() + 146), std::string("VEPRA 1.0.0\0", 12));
  EXPECT_EQ(Bytes(f.begin() + 146, f.end()), (Bytes{1, 11, 21, 31, 41, 51}));

  // Read back: the resolution and the record's Software text are not kept.
  ASSERT_EQ(vepra_img_read(path.c_str(), &img_), nullptr);
  EXPECT_EQ(img_.xres, 0.0);
  EXPECT_EQ(img_.res_unit, -1);
  EXPECT_STREQ(img_.software, "VEPRA 1.0.0");
  EXPECT_EQ(img_.data8[1][2], 51);
}

TEST_F(TiffTest, WritesSixteenBitAndOtherDepths) {
  vepra_img_t img = gray_record(2, 1, 16, 0);
  img.data16[0][0] = 0x0102;
  img.data16[0][1] = 0xA0B0;
  const std::string path = temp_path("out16.tif");
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  Bytes f = load(path);
  ASSERT_EQ(f.size(), 150u);
  EXPECT_EQ(get32(f, 10 + 7 * 12 + 8), 4u);
  EXPECT_EQ(Bytes(f.begin() + 146, f.end()), (Bytes{0x02, 0x01, 0xB0, 0xA0}));
  vepra_img_free(&img);

  // A depth without pixels writes the directory only, and its byte count
  // repeats the SamplesPerPixel value.
  img.bits_per_sample[0] = 12;
  img.samples_per_pixel = 3;
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  f = load(path);
  ASSERT_EQ(f.size(), 146u);
  EXPECT_EQ(get32(f, 10 + 2 * 12 + 8), 12u);
  EXPECT_EQ(get32(f, 10 + 7 * 12 + 8), 3u);

  // An 8-bit record without its rows is refused, not dereferenced.
  img.bits_per_sample[0] = 8;
  vepra_error_t *e = vepra_img_write_tiff(path.c_str(), &img);
  EXPECT_EQ(root_code(e), VEPRA_E_ASSERT);
  vepra_error_clear(e);
  img.width = 0x10000;
  img.height = 0x10000;
  e = vepra_img_write_tiff(path.c_str(), &img);
  EXPECT_EQ(take_printed(e), "Error(120152): Cannot write TIFF image. \n"
                             "Error(120152): Image of 65536 x 65536 pixels is too large for a TIFF file ");
}

TEST_F(TiffTest, WriteFailuresAreReported) {
  vepra_img_t img{};
  img.bits_per_sample[0] = 8;
  const std::string dir = temp_path("no-such-dir") + "/x.tif";
  EXPECT_EQ(take_printed(vepra_img_write_tiff(dir.c_str(), &img)),
            "Error(120030): Cannot write TIFF image. \nError(120030): Cannot open file '" + dir + "' ");
  double row[1] = {1};
  double *rows[1] = {row};
  EXPECT_EQ(take_printed(vepra_img_darr_to_tiff(dir.c_str(), rows, 1, 1)),
            "Error(120030): Cannot convert double array to TIFF image. \n"
            "Error(120030): Cannot open file '" + dir + "' ");
  // A full device takes nothing: a short write, reported once.
  std::FILE *full = std::fopen("/dev/full", "wb");
  if (full == nullptr) GTEST_SKIP() << "no /dev/full";
  std::fclose(full);
  EXPECT_EQ(take_printed(vepra_img_darr_to_tiff("/dev/full", rows, 1, 1)),
            "Error(120032): Cannot convert double array to TIFF image. \n"
            "Error(120032): Cannot write to IO stream. ");
  EXPECT_EQ(take_printed(vepra_img_write_tiff("/dev/full", &img)),
            "Error(120032): Cannot write TIFF image. \n"
            "Error(120032): Cannot write to IO stream. ");
}

// Converts values and returns the file's path.
std::string darr_file(std::vector<std::vector<double>> values) {
  std::vector<double *> rows;
  for (auto &row : values) rows.push_back(row.data());
  const unsigned cols = values.empty() ? 0 : static_cast<unsigned>(values[0].size());
  const std::string path = temp_path("darr.tif");
  vepra_error_t *e = vepra_img_darr_to_tiff(path.c_str(), rows.data(),
                                            static_cast<unsigned>(values.size()), cols);
  EXPECT_EQ(e, nullptr) << take_printed(e);
  return path;
}

std::vector<uint16_t> darr_samples(std::vector<std::vector<double>> values) {
  const Bytes f = load(darr_file(std::move(values)));
  std::vector<uint16_t> out;
  for (size_t at = 146; at + 1 < f.size(); at += 2) out.push_back(static_cast<uint16_t>(get16(f, at)));
  return out;
}

TEST_F(TiffTest, DoubleArraysAreScaledToSixteenBits) {
  EXPECT_EQ(darr_samples({{-1, 0, 1}}), (std::vector<uint16_t>{0, 32767, 65535}));
  EXPECT_EQ(darr_samples({{4, 4}, {4, 4}}), (std::vector<uint16_t>{0, 0, 0, 0}));
  EXPECT_EQ(darr_samples({{0, 1}, {2, 3}}), (std::vector<uint16_t>{0, 21845, 43690, 65535}));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(darr_samples({{nan, 10}, {20, nan}}), (std::vector<uint16_t>{0, 0, 65535, 0}));
  EXPECT_EQ(darr_samples({{-1e305, 1e305, 0}}), (std::vector<uint16_t>{0, 65535, 32767}));
  EXPECT_EQ(darr_samples({}), std::vector<uint16_t>{});

  // The header of a 2 x 3 array: 16-bit WhiteIsZero, rows then columns.
  const Bytes f = load(darr_file({{1, 2, 3}, {4, 5, 6}}));
  ASSERT_EQ(f.size(), 146u + 12u);
  EXPECT_EQ(get32(f, 10 + 8), 3u);
  EXPECT_EQ(get32(f, 22 + 8), 2u);
  EXPECT_EQ(get32(f, 34 + 8), 16u);
  EXPECT_EQ(get32(f, 58 + 8), 0u);
  EXPECT_EQ(get32(f, 94 + 8), 12u);

  // A 0 x 0 array: a valid header with no samples, which reads back.
  const std::string empty = darr_file({});
  EXPECT_EQ(get32(load(empty), 94 + 8), 0u);
  ASSERT_EQ(vepra_img_read(empty.c_str(), &img_), nullptr);
  EXPECT_EQ(img_.width, 0u);
  EXPECT_EQ(img_.data16, nullptr);
}

// ------------------------------------------------------------ with libtiff

struct LibtiffCase {
  uint32_t width, height;
  uint16_t bits;
  uint32_t rows_per_strip;
  uint16_t photometric;
  bool resolution;
};

uint32_t sample_at(uint32_t r, uint32_t c, uint16_t bits) {
  const uint32_t v = r * 7919u + c * 104729u + (r ^ c) * 31u;
  return bits == 8 ? v & 0xFFu : v & 0xFFFFu;
}

TEST_F(TiffTest, ReadsFilesWrittenByLibtiff) {
  const LibtiffCase cases[] = {
      {37, 23, 8, 23, PHOTOMETRIC_MINISBLACK, false}, {37, 23, 8, 4, PHOTOMETRIC_MINISWHITE, true},
      {64, 40, 16, 40, PHOTOMETRIC_MINISWHITE, true}, {64, 40, 16, 3, PHOTOMETRIC_MINISBLACK, false},
      {300, 2, 8, 1, PHOTOMETRIC_MINISBLACK, true},   {5, 300, 16, 7, PHOTOMETRIC_MINISBLACK, true},
  };
  for (const LibtiffCase &lc : cases) {
    SCOPED_TRACE(std::to_string(lc.width) + "x" + std::to_string(lc.height) + "x" +
                 std::to_string(lc.bits) + " rps " + std::to_string(lc.rows_per_strip));
    const std::string path = temp_path("libtiff.tif");
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, lc.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, lc.height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, lc.bits);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, lc.photometric);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, lc.rows_per_strip);
    if (lc.resolution) {
      TIFFSetField(tif, TIFFTAG_XRESOLUTION, 118.0f);
      TIFFSetField(tif, TIFFTAG_YRESOLUTION, 59.0f);
      TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_CENTIMETER);
    }
    std::vector<uint8_t> line(lc.width * lc.bits / 8);
    for (uint32_t r = 0; r < lc.height; ++r) {
      for (uint32_t c = 0; c < lc.width; ++c) {
        const uint32_t v = sample_at(r, c, lc.bits);
        if (lc.bits == 8) {
          line[c] = static_cast<uint8_t>(v);
        } else {
          const uint16_t s = static_cast<uint16_t>(v);
          std::memcpy(&line[2 * c], &s, 2);
        }
      }
      ASSERT_EQ(TIFFWriteScanline(tif, line.data(), r, 0), 1);
    }
    TIFFClose(tif);

    vepra_error_t *e = vepra_img_read(path.c_str(), &img_);
    ASSERT_EQ(e, nullptr) << take_printed(e);
    EXPECT_EQ(img_.width, lc.width);
    EXPECT_EQ(img_.height, lc.height);
    EXPECT_EQ(img_.bits_per_sample[0], lc.bits);
    EXPECT_EQ(img_.photometric, lc.photometric);
    EXPECT_EQ(img_.strip_count, static_cast<int32_t>((lc.height + lc.rows_per_strip - 1) /
                                                     lc.rows_per_strip));
    if (lc.resolution) {
      EXPECT_NEAR(img_.xres, 118.0 * 2.54, 1e-3);
      EXPECT_NEAR(img_.yres, 59.0 * 2.54, 1e-3);
    } else {
      EXPECT_EQ(img_.xres, 0.0);
    }
    int mismatches = 0;
    for (uint32_t r = 0; r < lc.height; ++r) {
      for (uint32_t c = 0; c < lc.width; ++c) {
        const uint32_t got = lc.bits == 8 ? img_.data8[r][c] : img_.data16[r][c];
        if (got != sample_at(r, c, lc.bits)) ++mismatches;
      }
    }
    EXPECT_EQ(mismatches, 0);
    vepra_img_free(&img_);
  }
}

TEST_F(TiffTest, LibtiffReadsWhatWeWrite) {
  for (uint16_t bits : {8, 16}) {
    for (int photometric : {0, 1}) {
      vepra_img_t img = gray_record(41, 300, bits, photometric);
      for (uint32_t r = 0; r < img.height; ++r) {
        for (uint32_t c = 0; c < img.width; ++c) {
          const uint32_t v = sample_at(r, c, bits);
          if (bits == 8) img.data8[r][c] = static_cast<uint8_t>(v);
          else img.data16[r][c] = static_cast<uint16_t>(v);
        }
      }
      const std::string path = temp_path("ours.tif");
      ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
      vepra_img_free(&img);

      TIFF *tif = TIFFOpen(path.c_str(), "r");
      ASSERT_NE(tif, nullptr);
      uint32_t w = 0, h = 0;
      uint16_t bps = 0, spp = 0, phot = 99, comp = 0;
      char *software = nullptr;
      TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
      TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
      TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bps);
      TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
      TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &phot);
      TIFFGetField(tif, TIFFTAG_COMPRESSION, &comp);
      ASSERT_EQ(TIFFGetField(tif, TIFFTAG_SOFTWARE, &software), 1);
      EXPECT_EQ(w, 41u);
      EXPECT_EQ(h, 300u);
      EXPECT_EQ(bps, bits);
      EXPECT_EQ(spp, 1);
      EXPECT_EQ(phot, photometric);
      EXPECT_EQ(comp, COMPRESSION_NONE);
      EXPECT_STREQ(software, "VEPRA 1.0.0");
      std::vector<uint8_t> line(TIFFScanlineSize(tif));
      int mismatches = 0;
      for (uint32_t r = 0; r < h; ++r) {
        ASSERT_EQ(TIFFReadScanline(tif, line.data(), r, 0), 1);
        for (uint32_t c = 0; c < w; ++c) {
          uint32_t got = line[c];
          if (bits == 16) {
            uint16_t s;
            std::memcpy(&s, &line[2 * c], 2);
            got = s;
          }
          if (got != sample_at(r, c, bits)) ++mismatches;
        }
      }
      EXPECT_EQ(mismatches, 0);
      TIFFClose(tif);
    }
  }
}

// ----------------------------------------------------- allocation failures

TEST_F(TiffTest, EveryAllocationFailureOfReadingIsReported) {
  TiffBuilder t;
  const uint32_t a = t.data({1, 0, 2, 0, 3, 0});
  const uint32_t b = t.data({4, 0, 5, 0, 6, 0});
  const uint32_t sw = t.text("writer");
  const uint32_t offsets = t.shorts({uint16_t(a), uint16_t(b), 0});
  const uint32_t counts = t.longs({6, 6, 0});
  auto fields = gray_fields(3, 2, 16, offsets, counts, 3);
  fields[5].type = 3;
  fields.push_back({305, 2, 6, sw});
  t.directory(fields);
  const std::string path = save("alloc.tif", t.bytes());

  const long made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_read(path.c_str(), &img_); },
      [&](vepra_error_t *e, long n) {
        EXPECT_TRUE(owns_nothing(img_)) << n;
        EXPECT_EQ(img_.type, 0u) << n;
        if (n <= 3) {
          // The information pass fails silently: the file is "not an image".
          EXPECT_EQ(e->code, VEPRA_E_IMG_TYPE) << n;
          EXPECT_EQ(e->next, nullptr) << n;
        } else if (n == 8) {
          EXPECT_EQ(take_printed(vepra_error_dup(e)),
                    "Error(120012): Cannot read image. \n"
                    "Error(120012): Cannot read TIFF image. \n"
                    "Error(120012): Cannot allocate matrix. \n"
                    "Error(120012): Failed to allocate 6 bytes of memory. ");
        } else {
          EXPECT_STREQ(e->message, "Cannot read image.");
          EXPECT_EQ(root_code(e), VEPRA_E_ALLOC) << n;
        }
      });
  // Three arrays per pass, then the row table and two rows.
  EXPECT_EQ(made, 9);
  EXPECT_EQ(img_.data16[1][2], 6);
}

TEST_F(TiffTest, EveryAllocationFailureOfConvertingIsReported) {
  std::vector<double> r0{1, 2, 3}, r1{4, 5, 6};
  double *rows[2] = {r0.data(), r1.data()};
  const std::string path = temp_path("alloc.tif");
  const long made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_darr_to_tiff(path.c_str(), rows, 2, 3); },
      [&](vepra_error_t *e, long n) {
        EXPECT_EQ(root_code(e), VEPRA_E_ALLOC) << n;
        EXPECT_STREQ(e->message, "Cannot convert double array to TIFF image.");
      });
  EXPECT_EQ(made, 3);

  // Writing a record allocates nothing.
  vepra_img_t img{};
  img.bits_per_sample[0] = 8;
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  EXPECT_EQ(vepra::testing::allocation_count(), 0);
}

}  // namespace
