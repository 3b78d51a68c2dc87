// TIFF reading and writing: hand-built files for each failure and edge case,
// byte-exact output, libtiff as the peer both ways (every compression,
// layout, byte order and page it writes, and edits of its files), allocation
// failures.
#include <sys/stat.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <random>
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

constexpr uint32_t kStrict = VEPRA_IMG_READ_STRICT;

struct Field {  // one directory entry as it is stored
  uint16_t tag, type;
  uint32_t count, value;
};

void append(Bytes &b, uint32_t v, int width) {
  for (int i = 0; i < width; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Builds little-endian TIFF files: values are appended as bytes, SHORTs or
// LONGs, and their offsets handed back for the entries that point at them.
struct Tiff {
  Bytes bytes{'I', 'I', 42, 0, 0, 0, 0, 0};

  uint32_t add(const std::vector<uint32_t> &values, int width = 1) {
    const auto at = static_cast<uint32_t>(bytes.size());
    for (uint32_t v : values) append(bytes, v, width);
    return at;
  }
  // Points the next-directory field of the directory at `from` (0: the header) at `to`.
  void link(uint32_t from, uint32_t to) {
    const size_t at = from == 0 ? 4 : from + 2 + (bytes[from] | bytes[from + 1] << 8) * 12;
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(to >> (8 * i));
  }
  // A grayscale directory with 32-bit strip arrays, linked from the header if
  // it is the first. Each edit replaces the field of its tag (type 0 drops it).
  uint32_t dir(uint32_t width, uint32_t height, uint32_t depth, uint32_t offsets, uint32_t counts,
               uint32_t strips = 1, const std::vector<Field> &edits = {}) {
    std::vector<Field> all{{256, 4, 1, width}, {257, 4, 1, height},      {258, 3, 1, depth},
                           {259, 3, 1, 1},     {262, 3, 1, 1},           {273, 4, strips, offsets},
                           {277, 3, 1, 1},     {279, 4, strips, counts}, {284, 3, 1, 1}};
    all.insert(all.end(), edits.begin(), edits.end());
    std::map<uint16_t, Field> fields;
    for (const Field &f : all) f.type == 0 ? void(fields.erase(f.tag)) : void(fields[f.tag] = f);
    const uint32_t at = add({uint32_t(fields.size())}, 2);
    for (auto &[tag, f] : fields) add({f.tag, f.type}, 2), add({f.count, f.value}, 4);
    add({0}, 4);
    if (bytes[4] == 0 && bytes[5] == 0) link(0, at);
    return at;
  }
};

// A one-strip image appended to what t holds.
Bytes image(Tiff t, uint32_t width, uint32_t height, uint32_t depth,
            const std::vector<uint32_t> &pixels, const std::vector<Field> &edits = {}) {
  t.dir(width, height, depth, t.add(pixels), uint32_t(pixels.size()), 1, edits);
  return t.bytes;
}
// The 2 x 1 8-bit image {1, 2}.
Bytes small(const std::vector<Field> &edits = {}, const Tiff &t = {}) {
  return image(t, 2, 1, 8, {1, 2}, edits);
}

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
  std::vector<uint32_t> samples;
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

// The chain a failed vepra_img_read_tiff prints.
std::string failed(int code, const std::string &message) {
  const std::string tag = code == 0 ? "Error: " : "Error(" + std::to_string(code) + "): ";
  return tag + "Cannot read TIFF image. \n" + tag + message + " ";
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
  vepra_error_t *read(const Bytes &bytes) {
    vepra_img_free(&img_);
    return vepra_img_read_tiff(save("in.tif", bytes).c_str(), &img_);
  }
  void read_ok(const Bytes &bytes) {
    vepra_error_t *e = read(bytes);
    ASSERT_EQ(e, nullptr) << take_printed(e);
    ASSERT_EQ(img_.type, 1u);
  }
  // The samples of the image read, row-major.
  std::vector<uint32_t> pixels() const {
    std::vector<uint32_t> out;
    for (uint32_t r = 0; r < img_.height; ++r) {
      if (img_.data8 != nullptr) out.insert(out.end(), img_.data8[r], img_.data8[r] + img_.width);
      if (img_.data16 != nullptr)
        out.insert(out.end(), img_.data16[r], img_.data16[r] + img_.width);
    }
    return out;
  }

  vepra_img_t img_{};
};

// ---------------------------------------------------------------- reading

TEST_F(TiffTest, EveryReadFailureNamesItsCause) {
  const std::string short_read = failed(VEPRA_E_IO_READ, "Cannot read IO stream."),
                    bad_seek = failed(VEPRA_E_IO_SEEK, "Cannot seek IO stream."),
                    incomplete = failed(VEPRA_E_TIFF_INCOMPLETE, "The data is not complete."),
                    not_tiff = "Error(120150): Cannot read TIFF image. \nError(120150): ";
  auto tag = [](const std::string &fields) {
    return failed(VEPRA_E_TIFF_TAG, "Invalid TIFF tag [" + fields + "]");
  };
  auto structure = [](const std::string &m) { return failed(VEPRA_E_TIFF_STRUCTURE, m); };
  auto strip_at = [](uint32_t offset, uint32_t count, const std::vector<uint32_t> &tail = {}) {
    Tiff t;
    t.dir(3, 2, 8, offset, count);  // 8 + 2 + 9 * 12 + 4 = 122 bytes
    t.add(tail);
    return t.bytes;
  };
  Tiff zero_den, strips, loop;
  const uint32_t den = zero_den.add({300, 0}, 4);
  const uint32_t offs = strips.add({100, 200, 300}, 4), cnts = strips.add({1, 1}, 4);
  loop.link(loop.dir(2, 1, 8, 0, 2), 8);
  Bytes cut = small();
  cut.resize(cut.size() - 20);

  const std::pair<Bytes, std::string> cases[] = {
      {{'I', 'I', 42, 0, 8, 0}, short_read},
      {{'M', 'M', 0, 42, 0, 0, 0, 8}, not_tiff + "Motorola TIFF is not supported. "},
      {{'M', 'I', 42, 0, 8, 0, 0, 0}, not_tiff + "Unknown data format. "},
      {{'I', 'M', 42, 0, 8, 0, 0, 0}, not_tiff + "Unknown data format. "},
      {{'I', 'I', 43, 0, 8, 0, 0, 0}, not_tiff + "Unknown TIFF format. "},
      {{'I', 'I', 42, 0, 0, 0, 0, 0}, failed(0, "No image data were found.")},
      {{'I', 'I', 42, 0, 0, 0x10, 0, 0}, short_read},  // directory past the end
      {{'I', 'I', 42, 0, 0, 0, 0, 0x90}, bad_seek},    // at a negative offset
      {cut, short_read},
      {small({{258, 4, 1, 8}}), tag("name=258 type=4 length=1 offset=8")},
      {small({{277, 3, 2, 1}}), tag("name=277 type=3 length=2 offset=1")},
      {small({{277, 4, 1, 1}}), tag("name=277 type=4 length=1 offset=1")},
      {small({{283, 5, 1, den}}, zero_den),
       tag("name=283 type=5 length=1 offset=" + std::to_string(den))},
      {small({{273, 4, 0x80000000u, 8}}), tag("name=273 type=4 length=-2147483648 offset=8")},
      {small({{296, 3, 1, 1}}), structure("Unknown resolution units [1] in TIFF file")},
      {small({{273, 4, 3, offs}, {279, 4, 2, cnts}}, strips),
       structure("Inconsistent number of strips [3 vs. 2]")},
      {small({{262, 0, 0, 0}}), structure("Unknown photometric interpretation")},
      {loop.bytes, structure("TIFF directories loop or repeat their data")},
      {image({}, 0x7FFFFFFF, 0x7FFFFFFF, 16, {1, 2}),
       structure("Image of 2147483647 x 2147483647 pixels does not fit in the file")},
      {strip_at(122, 6, {1, 2, 3, 4, 5}), incomplete},  // one byte short
      {strip_at(8, 0xFFFFFFF0u), incomplete},           // runs past the end
      {strip_at(0x80000000u, 6), bad_seek},
      // Arrays the file cannot hold are refused before anything is allocated.
      {small({{273, 4, 0x3FFFFFFF, 8}}), short_read},
      {small({{273, 4, 4, 0x90000000u}}), bad_seek},
      {small({{258, 3, 3, 0x7FFFFFF0}}), short_read},
      {small({{305, 2, 0xFFFFFFFFu, 8}}), short_read},
      {small({{282, 5, 1, 0x7FFFFFF0}}), short_read},
      {image({}, 1, 1, 8, {}, {{273, 4, 0, 8}, {279, 4, 0, 1}}),
       failed(VEPRA_E_NELEM, "Cannot allocate memory for 0 elements.")},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(take_printed(read(cases[i].first)), cases[i].second);
    EXPECT_TRUE(owns_nothing(img_));
  }
  read_ok(strip_at(122, 6, {1, 2, 3, 4, 5, 6}));  // exactly fits
}

// PackBits that ends where the next header would be is short, whatever
// bytes follow the strip in memory.
TEST(PackBits, InputEndingAtAHeaderIsShort) {
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
}

TEST_F(TiffTest, ReadTellsNonTiffFromUnopenable) {
  // The information pass does not report a file that is not TIFF: the type
  // stays unknown, which the general reader turns into an error.
  const std::string motorola = save("mm.tif", {'M', 'M', 0, 42, 0, 0, 0, 8});
  img_.type = 7;
  EXPECT_EQ(vepra_img_read_tiff_info(motorola.c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 0u);
  EXPECT_EQ(take_printed(vepra_img_read(motorola.c_str(), &img_)),
            "Error(120154): Image type is unknown. ");
  EXPECT_TRUE(owns_nothing(img_));
  // Only the pixel reader needs the photometric interpretation.
  EXPECT_EQ(vepra_img_read_tiff_info(save("i.tif", small({{262, 0, 0, 0}})).c_str(), &img_),
            nullptr);
  EXPECT_EQ(img_.type, 1u);

  const std::string missing = temp_path("missing.tif"),
                    open = "Cannot open file '" + missing + "' ";
  EXPECT_EQ(take_printed(vepra_img_read(missing.c_str(), &img_)),
            "Error(120030): Cannot read image. \nError(120030): Cannot read TIFF information from "
            "file. \nError(120030): " +
                open);
  EXPECT_EQ(take_printed(vepra_img_read_tiff(missing.c_str(), &img_)),
            "Error(120030): Cannot read TIFF image. \nError(120030): " + open);
  for (vepra_error_t *e :
       {vepra_img_read(nullptr, &img_), vepra_img_read(missing.c_str(), nullptr)}) {
    EXPECT_NE(e, nullptr);
    vepra_error_clear(e);
  }
}

TEST_F(TiffTest, StripsAreConcatenatedInPixelOrder) {
  // Unequal strips, stored in reverse order.
  Tiff unequal;
  const uint32_t second = unequal.add({50, 60}), first = unequal.add({10, 20, 30, 40});
  const std::vector<Field> two{{273, 4, 2, unequal.add({first, second}, 4)},
                               {279, 4, 2, unequal.add({4, 2}, 4)}};
  // SHORT arrays at an offset; the last strip has an odd byte and samples
  // beyond the last pixel, both ignored. Two SHORTs stand in the field itself.
  Tiff shorts, field;
  const uint32_t a = shorts.add({0x1234}, 2), b = shorts.add({0xBEEF, 0x0102}, 2),
                 c = shorts.add({3, 4, 0xAA, 0xBB, 0xCC});
  const std::vector<Field> three{{273, 3, 3, shorts.add({a, b, c}, 2)},
                                 {279, 3, 3, shorts.add({2, 4, 5}, 2)}};
  const uint32_t s1 = field.add({7, 8}), s2 = field.add({9, 10});
  // The pixels no strip reaches are zero; the reader wants room for them.
  Tiff room;
  room.add(std::vector<uint32_t>(1200));
  std::vector<uint32_t> part(600, 0);
  part[0] = 0x0201, part[1] = 0x0403;
  Bytes lenient = small();
  lenient[3] = 0x7F;  // the fourth header byte is not looked at

  const std::pair<Bytes, std::vector<uint32_t>> cases[] = {
      {image(unequal, 3, 2, 8, {}, two), {10, 20, 30, 40, 50, 60}},
      {image(shorts, 2, 2, 16, {}, three), {0x1234, 0xBEEF, 0x0102, 0x0403}},
      {image(field, 2, 2, 8, {}, {{273, 3, 2, s1 | s2 << 16}, {279, 3, 2, 2 | 2 << 16}}),
       {7, 8, 9, 10}},
      {image(room, 300, 2, 16, {1, 2, 3, 4}), part},
      {image(room, 4, 2, 8, {}, {{273, 0, 0, 0}, {279, 0, 0, 0}}), std::vector<uint32_t>(8, 0)},
      {image({}, 0, 5, 16, {1, 2, 3}), {}},
      {image({}, 5, 0, 8, {1, 2, 3}), {}},
      {lenient, {1, 2}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    read_ok(cases[i].first);
    EXPECT_EQ(pixels(), cases[i].second);
    EXPECT_EQ(img_.data8 == nullptr && img_.data16 == nullptr, cases[i].second.empty());
  }
}

TEST_F(TiffTest, BitsPerSampleForms) {
  // Values up to 32 are depths, so arrays must lie further into the file.
  Tiff t;
  t.add(std::vector<uint32_t>(32));
  const uint32_t three = t.add({8, 16, 12}, 2), four = t.add({8, 8, 8, 8}, 2);
  const std::pair<Field, std::vector<uint32_t>> cases[] = {
      {{258, 3, 1, 8}, {8, 8, 8}},                   // the depth of every channel
      {{258, 3, 3, three}, {8, 16, 12}},             // three at an offset
      {{258, 3, 2, 8 | (100u << 16)}, {8, 100, 0}},  // two in the field
      {{258, 3, 4, four}, {0, 0, 0}},                // four: none taken
      {{258, 3, 1, 12}, {12, 12, 12}},               // other depths have no pixels
      {{258, 3, 1, 32}, {32, 32, 32}},
  };
  for (const auto &[bps, want] : cases) {
    SCOPED_TRACE(want[0]);
    // Without pixels the strips are sought, not read: one past the end is fine.
    read_ok(small({bps, want[0] == 8 ? Field{} : Field{273, 4, 1, 5000}}, t));
    EXPECT_EQ(std::vector<uint32_t>(img_.bits_per_sample, img_.bits_per_sample + 3), want);
    EXPECT_EQ(pixels(), (want[0] == 8 ? std::vector<uint32_t>{1, 2} : std::vector<uint32_t>{}));
  }
}

TEST_F(TiffTest, DirectoryFieldsAreKept) {
  // Resolutions end up in pixels per inch.
  Tiff t;
  const std::vector<Field> res{{282, 5, 1, t.add({600, 2}, 4)}, {283, 5, 1, t.add({300, 1}, 4)}};
  for (auto [unit, want] : {std::pair{0, 300.0}, std::pair{2, 300.0}, std::pair{3, 762.0}}) {
    read_ok(small({res[0], res[1], {296, uint16_t(unit ? 3 : 0), 1, uint32_t(unit)}}, t));
    EXPECT_EQ(std::tuple(img_.res_unit, img_.xres, img_.yres),
              std::tuple(unit ? unit : -1, want, want));
  }
  double xmm = 0, ymm = 0;
  EXPECT_EQ(vepra_img_get_resmm(&img_, &xmm, &ymm), nullptr);
  EXPECT_EQ(std::pair(xmm, ymm), std::pair(30.0, 30.0));

  // Two directories with strip arrays and Software text: the second's
  // replace the first's (a leak would show under the leak checker), the
  // photometric interpretation is kept from the first, unknown tags are
  // skipped, and LZW is read as raw bytes all the same.
  const uint32_t strip1 = t.add({1, 2, 3, 4}), strip2 = t.add({9, 8, 7});
  const uint32_t dir1 = t.dir(2, 2, 8, t.add({strip1, strip1 + 2}, 4), t.add({2, 2}, 4), 2,
                              {{305, 2, 12, t.add(std::vector<uint32_t>(12, 'x'))}});
  t.link(dir1, t.dir(3, 1, 8, strip2, 3, 1,
                     {{262, 0, 0, 0},
                      {305, 2, 2, t.add({'a', 'b'})},
                      {259, 3, 1, 5},
                      {284, 3, 1, 2},
                      {300, 4, 1, 77},
                      {0x8769, 4, 1, 1}}));
  vepra_img_free(&img_);
  ASSERT_EQ(vepra_img_read_tiff_info(save("two.tif", t.bytes).c_str(), &img_), nullptr);
  EXPECT_EQ(img_.data8, nullptr);  // the information pass reads no pixels
  EXPECT_STREQ(img_.software, "ab");
  EXPECT_EQ(std::tuple(img_.type, img_.compression, img_.planar_config, img_.photometric,
                       img_.strip_count),
            std::tuple(1u, 5u, 2u, 1, 1));
  vepra_img_free(&img_);
  EXPECT_TRUE(owns_nothing(img_));
  EXPECT_EQ(img_.type, 1u);  // kept by vepra_img_free
  read_ok(t.bytes);
  EXPECT_EQ(pixels(), (std::vector<uint32_t>{9, 8, 7}));
}

// ---------------------------------------------------------------- writing

// The file the writer must produce: one directory of ten entries, the
// Software text at 134, the samples at 146.
Bytes written(uint32_t width, uint32_t height, uint32_t depth, uint32_t photometric, uint32_t spp,
              uint32_t byte_count, const std::vector<uint32_t> &samples) {
  Tiff t;
  t.dir(width, height, depth, 146, byte_count, 1,
        {{262, 3, 1, photometric}, {277, 3, 1, spp}, {305, 2, 12, 134}});
  t.add({'V', 'E', 'P', 'R', 'A', ' ', '1', '.', '0', '.', '0', 0});
  t.add(samples);
  return t.bytes;
}

TEST_F(TiffTest, WrittenLayoutIsByteExact) {
  const std::string path = temp_path("out.tif");
  // The resolution and the Software text that were read are not written.
  Tiff t;
  const std::vector<uint32_t> samples{1, 11, 21, 31, 41, 51}, wide{0x02, 0x01, 0xB0, 0xA0};
  read_ok(image(t, 3, 2, 8, samples,
                {{282, 5, 1, t.add({300, 1}, 4)},
                 {296, 3, 1, 3},
                 {305, 2, 5, t.add({'o', 't', 'h', 'e', 'r'})}}));
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
  EXPECT_EQ(load(path), written(3, 2, 8, 1, 1, 6, samples));
  read_ok(load(path));
  EXPECT_EQ(std::pair(img_.xres, img_.res_unit), std::pair(0.0, -1));
  // 16-bit samples are little-endian.
  read_ok(image({}, 2, 1, 16, wide, {{262, 3, 1, 0}}));
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
  EXPECT_EQ(load(path), written(2, 1, 16, 0, 1, 4, wide));

  // A depth without pixels writes the directory only, and its byte count
  // repeats the SamplesPerPixel value.
  vepra_img_t img{};
  img.width = 2, img.height = 1, img.bits_per_sample[0] = 12, img.samples_per_pixel = 3;
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  EXPECT_EQ(load(path), written(2, 1, 12, 0, 3, 3, {}));
  // An 8-bit record without its rows is refused, not dereferenced.
  img.bits_per_sample[0] = 8;
  EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img)),
            "Error(120020): Cannot write TIFF image. \nError(120020): Image of 2 x 1 pixels has no "
            "pixel rows ");
  img.width = img.height = 0x10000;
  EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img)),
            "Error(120152): Cannot write TIFF image. \n"
            "Error(120152): Image of 65536 x 65536 pixels is too large for a TIFF file ");
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
  const std::vector<uint32_t> samples{1, 11, 21, 31, 41, 51};
  read_ok(image({}, 3, 2, 8, samples));
  double r0[3] = {1, 2, 3}, r1[3] = {4, 5, 6}, *rows[2] = {r0, r1};
  auto entries = [&] {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  };
  const std::vector<std::string> both{"link.tif", "scan.tif"};
  const std::string full = "Error(120032): %s \nError(120032): Cannot write to IO stream. ";
  auto chain = [&](const char *context) {
    std::string c = full;
    return c.replace(c.find("%s"), 2, context);
  };
  const Bytes old{'o', 'l', 'd'};
  // The files are 152 and 158 bytes: room for none, part of the header, all
  // but the pixels, all but one byte of the first; or all of it with the
  // closing failing.
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
      EXPECT_EQ(load(target), old);
      EXPECT_EQ(entries(), both);  // no temporary file left, nothing created
    }
  }
  // A successful write through the link replaces its target, keeping the
  // link and the target's mode.
  ASSERT_EQ(vepra_img_write_tiff(link.c_str(), &img_), nullptr);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(load(target), written(3, 2, 8, 1, 1, 6, samples));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
  EXPECT_EQ(entries(), both);
  // A dangling link creates its target, with the mode of a new file.
  fs::remove(target);
  const mode_t mask = umask(022);
  ASSERT_EQ(vepra_img_darr_to_tiff(link.c_str(), rows, 2, 3), nullptr);
  umask(mask);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0644));
  EXPECT_EQ(libtiff_read(target).samples,
            (std::vector<uint32_t>{0, 13107, 26214, 39321, 52428, 65535}));
  fs::remove_all(dir);
}

TEST_F(TiffTest, DoubleArraysAreScaledToSixteenBits) {
  const double nan = std::numeric_limits<double>::quiet_NaN(),
               inf = std::numeric_limits<double>::infinity();
  const std::pair<std::vector<std::vector<double>>, std::vector<uint32_t>> cases[] = {
      {{{-1, 0, 1}}, {0, 32767, 65535}},
      {{{4, 4}, {4, 4}}, {0, 0, 0, 0}},
      {{{1, 2, 3}, {4, 5, 6}}, {0, 13107, 26214, 39321, 52428, 65535}},
      {{{nan, 10}, {20, nan}}, {0, 0, 65535, 0}},
      {{{-1e305, 1e305, 0}}, {0, 65535, 32767}},
      // Ranges beyond the largest double; infinities go to the ends.
      {{{-1.7e308, 0, 1, 1.7e308}}, {0, 32767, 32767, 65535}},
      {{{1e306, 2e306}}, {0, 65535}},
      {{{inf, 1}, {2, -inf}}, {65535, 0, 65535, 0}},
      {{{inf, 5, nan, -inf}}, {65535, 0, 0, 0}},
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
  EXPECT_EQ(load(path), written(0, 0, 16, 0, 1, 0, {}));
  read_ok(load(path));
  ASSERT_EQ(vepra_img_darr_to_tiff(path.c_str(), nullptr, 3, 0), nullptr);
  EXPECT_EQ(load(path), written(0, 3, 16, 0, 1, 0, {}));
}

// ------------------------------------------------------------ with libtiff

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
  std::vector<std::pair<int, uint32_t>> tags{};  // set after the shape's
  std::function<void(TIFF *)> fields{};          // set last
};

// Samples of a page, row-major: smooth enough to compress, noisy enough to
// reach every decoder path. A prefix of rows is the same for any height.
std::vector<uint32_t> make_samples(uint32_t width, uint32_t height, uint16_t bits, int page) {
  std::mt19937 rng(1234u + static_cast<unsigned>(page) * 77u + width);
  std::vector<uint32_t> v(size_t{width} * height);
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
    const std::vector<uint32_t> v = make_samples(width, height, s.bits, p);
    const std::pair<int, uint32_t> base[] = {{TIFFTAG_IMAGEWIDTH, width},
                                             {TIFFTAG_IMAGELENGTH, height},
                                             {TIFFTAG_BITSPERSAMPLE, s.bits},
                                             {TIFFTAG_PHOTOMETRIC, s.photometric},
                                             {TIFFTAG_COMPRESSION, s.compression}};
    for (auto [tag, value] : base) TIFFSetField(t, tag, value);
    if (s.predictor != PREDICTOR_NONE) TIFFSetField(t, TIFFTAG_PREDICTOR, s.predictor);
    if (s.rows_per_strip != 0) TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, s.rows_per_strip);
    if (s.tile != 0) {
      TIFFSetField(t, TIFFTAG_TILEWIDTH, s.tile);
      TIFFSetField(t, TIFFTAG_TILELENGTH, s.tile);
    }
    for (auto [tag, value] : s.tags) TIFFSetField(t, tag, value);
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

// The chain a failed vepra_img_read_ex prints.
std::string refused(int code, const std::string &message) {
  const std::string tag = code == 0 ? "Error: " : "Error(" + std::to_string(code) + "): ";
  return tag + "Cannot read image. \n" + tag + "Cannot read TIFF image. \n" + tag + message + " ";
}

// Every compression, predictor, strip and tile layout, byte order, BigTIFF,
// depth and page that libtiff writes is decoded pixel-exact. The classic
// little-endian uncompressed files also read without the decoder, and what
// was read writes back into a file libtiff reads the same.
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
    SCOPED_TRACE(::testing::Message()
                 << "compression " << s.compression << " predictor " << s.predictor << " rps "
                 << s.rows_per_strip << " tile " << s.tile << " order " << s.order << " bigtiff "
                 << s.bigtiff << " bits " << s.bits);
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
  const int width = e[2] == 3 ? 2 : 4;
  for (int i = 0; i < width; ++i) e[8 + i] = uint8_t(value >> (8 * i));
}
uint32_t get_value(Bytes &b, uint16_t tag) {
  const uint8_t *e = entry_of(b, tag);
  return e == nullptr ? 0 : uint32_t(e[8] | e[9] << 8 | e[10] << 16 | e[11] << 24);
}

// Edits of small libtiff files and what each reading mode makes of them:
// defaults, gray palettes, refusals naming the value, strips that expand
// beyond their rows, and the flags that skip pixels or resolution units.
TEST_F(TiffTest, EditedLibtiffFiles) {
  const std::string path = temp_path("edit.tif");
  const uint32_t unitless = VEPRA_IMG_READ_UNITLESS, header = VEPRA_IMG_READ_HEADER;
  struct Case {
    const char *what;
    Shape shape;
    std::function<void(Bytes &)> edit;  // on the written bytes
    std::string refusal;                // empty: read; "raw": read, not decoded
    uint32_t flags = kStrict;
    int code = 0;
    std::function<uint32_t(uint32_t)> level = [](uint32_t v) { return v; };
  };
  // Renames the entry of tag to an unknown tag.
  auto drop = [](uint16_t tag) {
    return [tag](Bytes &b) {
      if (uint8_t *e = entry_of(b, tag)) e[1] = 0xFE;
    };
  };
  auto set = [](uint16_t tag, uint32_t value) {
    return [=](Bytes &b) { set_value(b, tag, value); };
  };
  auto two_rows = [](Bytes &b) {
    set_value(b, TIFFTAG_IMAGELENGTH, 2);
    set_value(b, TIFFTAG_ROWSPERSTRIP, 2);
  };
  auto tagged = [](int tag, uint32_t value, int tag2 = 0, uint32_t value2 = 0) {
    Shape s;
    s.tags = {{tag, value}};
    if (tag2 != 0) s.tags.emplace_back(tag2, value2);
    return s;
  };
  auto with = [](Shape s, uint16_t compression) {
    s.compression = compression;
    return s;
  };
  // An 8- or 16-bit file with a map of the levels, reversed or not, in
  // every channel or in red and green only.
  auto paletted = [](uint16_t bits, bool gray, bool reversed) {
    Shape s;
    s.bits = bits;
    s.photometric = PHOTOMETRIC_PALETTE;
    s.fields = [=](TIFF *t) {
      std::vector<uint16_t> map(size_t{1} << bits), blue(map.size());
      for (size_t i = 0; i < map.size(); ++i) {
        map[i] = uint16_t((reversed ? map.size() - 1 - i : i) * (bits == 8 ? 257 : 1));
        blue[i] = gray ? map[i] : uint16_t(i);
      }
      TIFFSetField(t, TIFFTAG_COLORMAP, map.data(), map.data(), blue.data());
    };
    return s;
  };
  // ResolutionUnit 1, as Python's tifffile writes it by default.
  Shape no_unit;
  no_unit.fields = [](TIFF *t) {
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
    TIFFSetField(t, TIFFTAG_XRESOLUTION, 72.0f);
    TIFFSetField(t, TIFFTAG_YRESOLUTION, 72.0f);
  };
  // A 32 x 2048 single strip declared as two rows.
  const Shape bomb{.width = 32, .height = 2048, .bits = 8, .rows_per_strip = 2048};
  const Shape plain, eight{.bits = 8};
  const uint16_t lzw = COMPRESSION_LZW, deflate = COMPRESSION_ADOBE_DEFLATE;
  const int structure = VEPRA_E_TIFF_STRUCTURE;
  const std::string depth = " is not supported: only 8- and 16-bit samples are read",
                    unsigned_only =
                        " supported: only 8- and 16-bit unsigned integer samples "
                        "are read",
                    one = " is not supported: only one sample per pixel is read",
                    gray_first = " (convert the image to gray first)",
                    codecs =
                        " is not supported: only uncompressed, LZW, Deflate, ZSTD and "
                        "PackBits images are read (convert with: tiffcp -c none IN OUT)",
                    expands = "TIFF strip 0 holds more than its 64 bytes of pixels",
                    unit = "Unknown resolution units [1] in TIFF file";
  const Case cases[] = {
      {"plain", plain, nullptr, ""},
      // libtiff, like Pillow, writes no SamplesPerPixel for one sample.
      {"no SamplesPerPixel", plain,
       [](Bytes &b) { EXPECT_EQ(entry_of(b, TIFFTAG_SAMPLESPERPIXEL), nullptr); }, ""},
      {"planar 2, one sample", tagged(TIFFTAG_PLANARCONFIG, 2), nullptr, ""},
      {"gray palette", paletted(8, true, false), nullptr, ""},
      {"reversed palette", paletted(8, true, true), nullptr, "", kStrict, 0,
       [](uint32_t v) { return 255 - v; }},
      {"16-bit palette", paletted(16, true, true), nullptr, "", kStrict, 0,
       [](uint32_t v) { return 65535 - v; }},
      {"colour palette", paletted(8, false, false), nullptr,
       "TIFF colour palette is not supported: only palettes of gray levels are read" + gray_first},
      {"no BitsPerSample", plain, drop(TIFFTAG_BITSPERSAMPLE),
       "TIFF image with 1 bits per sample" + depth},
      {"12-bit", eight, set(258, 12), "TIFF image with 12 bits per sample" + depth},
      {"float", tagged(TIFFTAG_SAMPLEFORMAT, 3), set(258, 32),
       "TIFF samples of 32-bit floating point are not" + unsigned_only},
      {"signed", tagged(TIFFTAG_SAMPLEFORMAT, 2), nullptr,
       "TIFF sample format 2 is not" + unsigned_only},
      {"RGB", tagged(TIFFTAG_SAMPLESPERPIXEL, 3, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB), nullptr,
       "TIFF image with 3 samples per pixel (RGB)" + one + gray_first},
      {"planar 2, two samples",
       tagged(TIFFTAG_SAMPLESPERPIXEL, 2, TIFFTAG_PLANARCONFIG, PLANARCONFIG_SEPARATE), nullptr,
       "TIFF planar configuration 2 with 2 samples per pixel" + one},
      {"JPEG", plain, set(259, 7), "TIFF compression 7 (JPEG)" + codecs},
      {"old JPEG", plain, set(259, 6), "TIFF compression 6 (old-style JPEG)" + codecs},
      {"old LZW", with(plain, lzw),
       [](Bytes &b) { b[get_value(b, 273)] = 0, b[get_value(b, 273) + 1] = 1; },
       "TIFF compression 5 (LZW) in the old reversed-bit-order variant is not supported (convert "
       "with: tiffcp -c none IN OUT)"},
      {"predictor 3", with(tagged(TIFFTAG_PREDICTOR, 2), lzw), set(TIFFTAG_PREDICTOR, 3),
       "TIFF predictor 3 (floating point) is not supported: only horizontal differencing (2) is "
       "read"},
      {"CMYK", plain, set(262, 5),
       "TIFF photometric interpretation 5 (separated, CMYK) is not supported: only grayscale "
       "images are read"},
      {"fill order", tagged(TIFFTAG_FILLORDER, 2), nullptr,
       "TIFF fill order 2 (bits in reversed order) is not supported"},
      // LZW and PackBits stop at the declared rows, the inflaters report
      // the excess.
      {"LZW bomb", with(bomb, lzw), two_rows, ""},
      {"PackBits bomb", with(bomb, COMPRESSION_PACKBITS), two_rows, ""},
      {"Deflate bomb", with(bomb, deflate), two_rows, expands + " (Deflate)", kStrict, structure},
      {"ZSTD bomb", with(bomb, COMPRESSION_ZSTD), two_rows, expands + " (ZSTD)", kStrict,
       structure},
      {"unitless", no_unit, nullptr, "", kStrict | unitless},
      {"unitless header", no_unit, nullptr, "", header | unitless},
      {"unit 1", no_unit, nullptr, unit, kStrict, structure},
      {"unit 1 header", no_unit, nullptr, unit, header, structure},
      {"Deflate header", with(plain, deflate), nullptr, "", kStrict | header},
      // Without the strict flag compressed strips are read as raw bytes
      // (the file padded to hold them).
      {"LZW raw", with(plain, lzw), [](Bytes &b) { b.resize(b.size() + 2048); }, "raw", unitless},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const Shape &s = c.shape;
    write_libtiff(path, s);
    if (c.edit) {
      Bytes b = load(path);
      c.edit(b);
      save("edit.tif", b);
    }
    vepra_img_free(&img_);
    vepra_error_t *e = vepra_img_read_ex(path.c_str(), &img_, c.flags, 0);
    if (!c.refusal.empty() && c.refusal != "raw") {
      EXPECT_EQ(take_printed(e), refused(c.code, c.refusal));
      EXPECT_TRUE(owns_nothing(img_));
      continue;
    }
    ASSERT_EQ(e, nullptr) << take_printed(e);
    EXPECT_EQ(std::tuple(img_.width, img_.photometric, img_.xres),
              std::tuple(s.width, std::min<int32_t>(s.photometric, 1), 0.0));
    std::vector<uint32_t> want = make_samples(s.width, img_.height, s.bits, 0);
    std::transform(want.begin(), want.end(), want.begin(), c.level);
    if (c.flags & header) {
      EXPECT_TRUE(img_.data8 == nullptr && img_.data16 == nullptr);
      continue;
    }
    if (c.flags & kStrict) {
      EXPECT_EQ(img_.samples_per_pixel, 1u);
    }
    EXPECT_EQ(pixels() == want, c.refusal.empty());
  }
  EXPECT_EQ(std::tuple(img_.compression, img_.res_unit), std::tuple(uint32_t(lzw), -1));
}

// One single-strip file of each compression, its strip cut short at every
// length: the read fails as incomplete or malformed, or gives the whole
// image where only an end code or a checksum was cut.
TEST_F(TiffTest, TruncatedStripsAreRefused) {
  const std::string path = temp_path("cut.tif");
  for (uint16_t compression : {COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                               COMPRESSION_ZSTD, COMPRESSION_PACKBITS}) {
    SCOPED_TRACE(compression);
    Shape s;
    s.width = 16, s.height = 8, s.rows_per_strip = 8, s.compression = compression;
    s.predictor = compression == COMPRESSION_NONE ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL;
    write_libtiff(path, s);
    const Bytes good = load(path);
    Bytes b = good;
    const uint32_t length = get_value(b, 279);
    ASSERT_GT(length, 0u);
    uint32_t refusals = 0;
    for (uint32_t cut = 0; cut < length; ++cut) {
      b = good;
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
// flags, pages beyond the end, directories that loop, files that are not
// regular. A directory or a FIFO without a writer is refused without blocking.
TEST_F(TiffTest, PagesFlagsAndUnreadableFiles) {
  const std::string path = temp_path("pages.tif"), dir = temp_path("dir"), fifo = temp_path("fifo"),
                    motorola = save("mm.tif", {'M', 'M', 0, 42, 0, 0, 0, 8});
  Shape s;
  uint32_t pages = 0;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 1u);
  EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, 0, 1)),
            refused(0, "Page 1 does not exist: the file has 1 page"));
  // Reserved flags are refused before the record is touched.
  img_.type = 7;
  for (auto [flags, m] : {std::pair{0x8u, "Unknown image reading flags 0x8"},
                          {0x80000001u, "Unknown image reading flags 0x80000000"}}) {
    EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, flags, 0)),
              "Error(120020): Cannot read image. \nError(120020): " + std::string(m) + " ");
  }
  EXPECT_EQ(img_.type, 7u);
  EXPECT_NE(vepra_img_read_ex(path.c_str(), nullptr, 0, 0), nullptr);
  EXPECT_NE(vepra_img_page_count(path.c_str(), nullptr), nullptr);

  s.pages = 3;
  write_libtiff(path, s);
  ASSERT_EQ(vepra_img_page_count(path.c_str(), &pages), nullptr);
  EXPECT_EQ(pages, 3u);
  EXPECT_EQ(take_printed(vepra_img_read_ex(path.c_str(), &img_, kStrict, 3)),
            refused(0, "Page 3 does not exist: the file has 3 pages"));
  // Without the strict flag page 0 is the last directory.
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 0), nullptr);
  EXPECT_EQ(img_.width, 37u / 4);
  vepra_img_free(&img_);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, kStrict, 0), nullptr);
  EXPECT_EQ(img_.width, 37u);
  vepra_img_free(&img_);
  // The last directory pointing back at the first.
  Bytes b = load(path);
  auto u32 = [&](size_t at) {
    return uint32_t(b[at] | b[at + 1] << 8 | b[at + 2] << 16 | b[at + 3] << 24);
  };
  auto next = [&](size_t at) { return at + 2 + 12 * size_t(b[at] | b[at + 1] << 8); };
  const size_t third = u32(next(u32(next(u32(4)))));
  std::memcpy(&b[next(third)], &b[4], 4);
  save("pages.tif", b);
  EXPECT_EQ(take_printed(vepra_img_page_count(path.c_str(), &pages)),
            "Error(120152): Cannot count TIFF pages. \nError(120152): TIFF directories loop or "
            "repeat their data ");
  EXPECT_EQ(pages, 3u);
  ASSERT_EQ(vepra_img_read_ex(path.c_str(), &img_, 0, 2), nullptr);
  EXPECT_EQ(img_.width, 37u / 4);
  vepra_img_free(&img_);

  std::filesystem::create_directory(dir);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string cannot_open = "Cannot open file '" + dir + "': it is a directory";
  const std::pair<std::string, std::string> unreadable[] = {
      // A big-endian header is read, but this one's directory is missing.
      {motorola, refused(VEPRA_E_IO_READ, "Cannot read IO stream.")},
      {dir, refused(VEPRA_E_IO_OPEN, cannot_open)},
      {fifo, refused(VEPRA_E_IO_READ, "Cannot read IO stream.")},
  };
  for (const auto &[file, chain] : unreadable) {
    EXPECT_EQ(
        take_printed(vepra_img_read_ex(file.c_str(), &img_, kStrict | VEPRA_IMG_READ_UNITLESS, 0)),
        chain);
  }
  EXPECT_EQ(take_printed(vepra_img_read(dir.c_str(), &img_)),
            "Error(120030): Cannot read image. \nError(120030): Cannot read TIFF information from "
            "file. \nError(120030): " +
                cannot_open + " ");
  std::filesystem::remove(dir);
  std::filesystem::remove(fifo);
}

// ----------------------------------------------------- allocation failures

TEST_F(TiffTest, EveryAllocationFailureIsReported) {
  Tiff t;
  const uint32_t a = t.add({1, 0, 2, 0, 3, 0}), b = t.add({4, 0, 5, 0, 6, 0});
  const std::string path =
      save("alloc.tif", image(t, 3, 2, 16, {},
                              {{273, 3, 3, t.add({a, b, 0}, 2)},
                               {279, 4, 3, t.add({6, 6, 0}, 4)},
                               {305, 2, 6, t.add({'w', 'r', 'i', 't', 'e', 'r'})}}));
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
  EXPECT_EQ(pixels(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6}));

  std::vector<double> r0{1, 2, 3}, r1{4, 5, 6};
  double *rows[2] = {r0.data(), r1.data()};
  made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_img_darr_to_tiff(path.c_str(), rows, 2, 3); },
      [&](vepra_error_t *e, long n) {
        EXPECT_EQ(vepra_error_root_cause(e)->code, VEPRA_E_ALLOC) << n;
        EXPECT_STREQ(e->message, "Cannot convert double array to TIFF image.");
      });
  EXPECT_EQ(made, 3);
  // Writing a record allocates nothing.
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
  EXPECT_EQ(vepra::testing::allocation_count(), 0);
}

}  // namespace
