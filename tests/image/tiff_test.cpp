// TIFF reading and writing: hand-built files for every failure and edge
// case, byte-exact output, libtiff as the peer in both directions, and
// allocation failures.
#include <tiffio.h>

#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

using vepra_test::take_printed;
using vepra_test::temp_path;
using Bytes = std::vector<uint8_t>;

struct Field {  // one directory entry as it is stored
  uint16_t tag, type;
  uint32_t count, value;
};

void append(Bytes &b, uint32_t v, int width) {
  for (int i = 0; i < width; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
uint32_t get(const Bytes &b, size_t at, int width = 4) {
  uint32_t v = 0;
  for (int i = width - 1; i >= 0; --i) v = v << 8 | b[at + i];
  return v;
}

// Builds little-endian TIFF files: blocks and directories are appended and
// their offsets handed back for the entries that point at them.
struct TiffBuilder {
  Bytes bytes{'I', 'I', 42, 0, 0, 0, 0, 0};

  uint32_t data(const Bytes &block) {
    const auto at = static_cast<uint32_t>(bytes.size());
    bytes.insert(bytes.end(), block.begin(), block.end());
    return at;
  }
  uint32_t words(std::initializer_list<uint32_t> values, int width) {  // SHORTs or LONGs
    Bytes block;
    for (uint32_t v : values) append(block, v, width);
    return data(block);
  }
  // The first directory appended becomes the file's first directory.
  uint32_t directory(const std::vector<Field> &fields) {
    Bytes block;
    append(block, static_cast<uint32_t>(fields.size()), 2);
    for (const Field &f : fields) {
      append(block, f.tag, 2), append(block, f.type, 2), append(block, f.count, 4);
      append(block, f.value, 4);
    }
    append(block, 0, 4);
    const uint32_t at = data(block);
    if (get(bytes, 4) == 0) link(0, at);
    return at;
  }
  // Points the next-directory field of the directory at `from` (0: the
  // header) at `to`.
  void link(uint32_t from, uint32_t to) {
    Bytes field;
    append(field, to, 4);
    std::copy(field.begin(), field.end(), bytes.begin() + (from == 0 ? 4 : from + 2 + get(bytes, from, 2) * 12));
  }
};

// The directory of a grayscale image with 32-bit strip arrays.
std::vector<Field> gray_fields(uint32_t width, uint32_t height, uint16_t depth, uint32_t offsets,
                               uint32_t counts, uint32_t strips) {
  return {{256, 4, 1, width},       {257, 4, 1, height}, {258, 3, 1, depth},
          {259, 3, 1, 1},           {262, 3, 1, 1},      {273, 4, strips, offsets},
          {277, 3, 1, 1},           {279, 4, strips, counts}, {284, 3, 1, 1}};
}

// A one-strip image appended to what t holds. Each edit replaces the field
// of its tag (type 0 drops it) or is appended.
Bytes image(TiffBuilder t, uint32_t width, uint32_t height, uint16_t depth, const Bytes &pixels,
            const std::vector<Field> &edits = {}) {
  const uint32_t strip = t.data(pixels);
  auto fields = gray_fields(width, height, depth, strip, static_cast<uint32_t>(pixels.size()), 1);
  for (const Field &e : edits) {
    auto it = fields.begin();
    while (it != fields.end() && it->tag != e.tag) ++it;
    if (it == fields.end()) fields.push_back(e);
    else if (e.type == 0) fields.erase(it);
    else *it = e;
  }
  t.directory(fields);
  return t.bytes;
}
// The 2 x 1 8-bit image {1, 2}.
Bytes small(const std::vector<Field> &edits = {}, const TiffBuilder &t = {}) {
  return image(t, 2, 1, 8, {1, 2}, edits);
}

std::string save(const std::string &name, const Bytes &bytes) {
  const std::string path = temp_path(name);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return path;
}
Bytes load(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A file as libtiff reads it, samples row-major.
struct Peer {
  uint32_t width = 0, height = 0;
  uint16_t bits = 0, spp = 0, photometric = 99, compression = 0;
  std::string software;
  std::vector<uint32_t> samples;
};
Peer libtiff_read(const std::string &path) {
  Peer p;
  TIFF *tif = TIFFOpen(path.c_str(), "r");
  EXPECT_NE(tif, nullptr);
  if (tif == nullptr) return p;
  char *software = nullptr;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &p.width);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &p.height);
  const std::pair<uint32_t, uint16_t *> shorts[] = {{TIFFTAG_BITSPERSAMPLE, &p.bits},
                                                    {TIFFTAG_SAMPLESPERPIXEL, &p.spp},
                                                    {TIFFTAG_PHOTOMETRIC, &p.photometric},
                                                    {TIFFTAG_COMPRESSION, &p.compression}};
  for (auto [tag, field] : shorts) TIFFGetField(tif, tag, field);
  if (TIFFGetField(tif, TIFFTAG_SOFTWARE, &software) == 1) p.software = software;
  Bytes line(TIFFScanlineSize(tif));
  for (uint32_t r = 0; r < p.height; ++r) {
    EXPECT_EQ(TIFFReadScanline(tif, line.data(), r, 0), 1);
    for (uint32_t c = 0; c < p.width; ++c) {
      p.samples.push_back(p.bits == 8 ? line[c] : get(line, 2 * c, 2));
    }
  }
  TIFFClose(tif);
  return p;
}

int root_code(vepra_error_t *e) { return vepra_error_root_cause(e)->code; }

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
      if (img_.data16 != nullptr) out.insert(out.end(), img_.data16[r], img_.data16[r] + img_.width);
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
  auto tag = [](const char *fields) {
    return failed(VEPRA_E_TIFF_TAG, std::string("Invalid TIFF tag [") + fields + "]");
  };
  auto structure = [](const std::string &m) { return failed(VEPRA_E_TIFF_STRUCTURE, m); };
  auto strip_at = [](uint32_t offset, uint32_t count, const Bytes &tail = {}) {
    TiffBuilder t;
    t.directory(gray_fields(3, 2, 8, offset, count, 1));  // 8 + 2 + 9 * 12 + 4 = 122 bytes
    t.data(tail);
    return t.bytes;
  };
  TiffBuilder zero_den, strips, loop;
  const uint32_t den = zero_den.words({300, 0}, 4);
  const uint32_t offs = strips.words({100, 200, 300}, 4), cnts = strips.words({1, 1}, 4);
  loop.link(loop.directory(gray_fields(2, 1, 8, 0, 2, 1)), 8);
  Bytes cut = small();
  cut.resize(cut.size() - 20);

  struct Case {
    const char *what;
    Bytes file;
    std::string printed;
  };
  const Case cases[] = {
      {"cut header", {'I', 'I', 42}, short_read},
      {"cut offset", {'I', 'I', 42, 0, 8, 0}, short_read},
      {"Motorola", {'M', 'M', 0, 42, 0, 0, 0, 8}, not_tiff + "Motorola TIFF is not supported. "},
      {"M then I", {'M', 'I', 42, 0, 8, 0, 0, 0}, not_tiff + "Unknown data format. "},
      {"I then M", {'I', 'M', 42, 0, 8, 0, 0, 0}, not_tiff + "Unknown data format. "},
      {"zip", {'P', 'K', 3, 4, 8, 0, 0, 0}, not_tiff + "Unknown data format. "},
      {"not 42", {'I', 'I', 43, 0, 8, 0, 0, 0}, not_tiff + "Unknown TIFF format. "},
      {"no directory", {'I', 'I', 42, 0, 0, 0, 0, 0}, failed(0, "No image data were found.")},
      {"directory past the end", {'I', 'I', 42, 0, 0, 0x10, 0, 0}, short_read},
      {"negative directory", {'I', 'I', 42, 0, 0, 0, 0, 0x90}, bad_seek},
      {"cut directory", cut, short_read},
      {"BitsPerSample LONG", small({{258, 4, 1, 8}}), tag("name=258 type=4 length=1 offset=8")},
      {"two SamplesPerPixel", small({{277, 3, 2, 1}}), tag("name=277 type=3 length=2 offset=1")},
      {"SamplesPerPixel LONG", small({{277, 4, 1, 1}}), tag("name=277 type=4 length=1 offset=1")},
      {"zero denominator", small({{283, 5, 1, den}}, zero_den),
       tag(("name=283 type=5 length=1 offset=" + std::to_string(den)).c_str())},
      {"strip count beyond int32", small({{273, 4, 0x80000000u, 8}}),
       tag("name=273 type=4 length=-2147483648 offset=8")},
      {"unit 1", small({{296, 3, 1, 1}}), structure("Unknown resolution units [1] in TIFF file")},
      {"unit 4", small({{296, 3, 1, 4}}), structure("Unknown resolution units [4] in TIFF file")},
      {"strip arrays differ", small({{273, 4, 3, offs}, {279, 4, 2, cnts}}, strips),
       structure("Inconsistent number of strips [3 vs. 2]")},
      {"no photometric", small({{262, 0, 0, 0}}), structure("Unknown photometric interpretation")},
      {"directory loop", loop.bytes, structure("TIFF directories loop or repeat their data")},
      {"too large", image({}, 0x7FFFFFFF, 0x7FFFFFFF, 16, {1, 2}),
       structure("Image of 2147483647 x 2147483647 pixels does not fit in the file")},
      {"too wide", image({}, 0xFFFFFFFFu, 1, 8, {1, 2}),
       structure("Image of 4294967295 x 1 pixels does not fit in the file")},
      {"strip one byte short", strip_at(122, 6, {1, 2, 3, 4, 5}), incomplete},
      {"strip past the end", strip_at(4000, 6), incomplete},
      {"strip runs past the end", strip_at(8, 0xFFFFFFF0u), incomplete},
      {"negative strip", strip_at(0x80000000u, 6), bad_seek},
      // Arrays the file cannot hold are refused before anything is allocated.
      {"huge LONG offsets", small({{273, 4, 0x3FFFFFFF, 8}}), short_read},
      {"huge SHORT counts", small({{279, 3, 0x7FFFFFFF, 8}}), short_read},
      {"offsets at a negative offset", small({{273, 4, 4, 0x90000000u}}), bad_seek},
      {"BitsPerSample past the end", small({{258, 3, 3, 0x7FFFFFF0}}), short_read},
      {"huge Software", small({{305, 2, 0xFFFFFFFFu, 8}}), short_read},
      {"resolution past the end", small({{282, 5, 1, 0x7FFFFFF0}}), short_read},
      {"no strip entries", image({}, 1, 1, 8, {}, {{273, 4, 0, 8}, {279, 4, 0, 1}}),
       failed(VEPRA_E_NELEM, "Cannot allocate memory for 0 elements.")},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(take_printed(read(c.file)), c.printed);
    EXPECT_TRUE(owns_nothing(img_));
  }
  read_ok(strip_at(122, 6, {1, 2, 3, 4, 5, 6}));  // exactly fits
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
  EXPECT_EQ(vepra_img_read_tiff_info(save("i.tif", small({{262, 0, 0, 0}})).c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 1u);

  const std::string missing = temp_path("missing.tif");
  EXPECT_EQ(take_printed(vepra_img_read(missing.c_str(), &img_)),
            "Error(120030): Cannot read image. \n"
            "Error(120030): Cannot read TIFF information from file. \n"
            "Error(120030): Cannot open file '" + missing + "' ");
  EXPECT_EQ(take_printed(vepra_img_read_tiff(missing.c_str(), &img_)),
            "Error(120030): Cannot read TIFF image. \n"
            "Error(120030): Cannot open file '" + missing + "' ");
  for (vepra_error_t *e : {vepra_img_read(nullptr, &img_), vepra_img_read(missing.c_str(), nullptr)}) {
    EXPECT_NE(e, nullptr);
    vepra_error_clear(e);
  }
}

TEST_F(TiffTest, StripsAreConcatenatedInPixelOrder) {
  // Unequal strips, stored in reverse order.
  TiffBuilder unequal;
  const uint32_t second = unequal.data({50, 60}), first = unequal.data({10, 20, 30, 40});
  const uint32_t offsets = unequal.words({first, second}, 4), counts = unequal.words({4, 2}, 4);
  // Three SHORT arrays at an offset; the last strip has an odd byte and
  // samples beyond the last pixel, both ignored.
  TiffBuilder shorts;
  const uint32_t a = shorts.words({0x1234}, 2), b = shorts.words({0xBEEF, 0x0102}, 2);
  const uint32_t c = shorts.data({0x03, 0x04, 0xAA, 0xBB, 0xCC});
  const uint32_t soffs = shorts.words({a, b, c}, 2), scounts = shorts.words({2, 4, 5}, 2);
  // Two SHORT values stand in the value field itself.
  TiffBuilder field;
  const uint32_t s1 = field.data({7, 8}), s2 = field.data({9, 10});
  // The pixels no strip reaches are zero; the reader wants room for them.
  TiffBuilder room;
  room.data(Bytes(1200));
  std::vector<uint32_t> part(600, 0);
  part[0] = 0x0201, part[1] = 0x0403;
  Bytes lenient = small();
  lenient[3] = 0x7F;  // the fourth header byte is not looked at

  struct Case {
    const char *what;
    Bytes file;
    std::vector<uint32_t> pixels;
  };
  const Case cases[] = {
      {"unequal", image(unequal, 3, 2, 8, {}, {{273, 4, 2, offsets}, {279, 4, 2, counts}}),
       {10, 20, 30, 40, 50, 60}},
      {"SHORT arrays", image(shorts, 2, 2, 16, {}, {{273, 3, 3, soffs}, {279, 3, 3, scounts}}),
       {0x1234, 0xBEEF, 0x0102, 0x0403}},
      {"in the field",
       image(field, 2, 2, 8, {}, {{273, 3, 2, s1 | (s2 << 16)}, {279, 3, 2, 2 | (2 << 16)}}),
       {7, 8, 9, 10}},
      {"partial", image(room, 300, 2, 16, {1, 2, 3, 4}), part},
      {"no strips", image(room, 4, 2, 8, {}, {{273, 0, 0, 0}, {279, 0, 0, 0}}), {0, 0, 0, 0, 0, 0, 0, 0}},
      {"no columns", image({}, 0, 5, 16, {1, 2, 3}), {}},
      {"no rows", image({}, 5, 0, 8, {1, 2, 3}), {}},
      {"fourth byte", lenient, {1, 2}},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    read_ok(k.file);
    EXPECT_EQ(pixels(), k.pixels);
    EXPECT_EQ(img_.data8 == nullptr && img_.data16 == nullptr, k.pixels.empty());
  }
}

TEST_F(TiffTest, BitsPerSampleForms) {
  // Values up to 32 are depths, so arrays must lie further into the file.
  TiffBuilder t;
  t.data(Bytes(32));
  const uint32_t three = t.words({8, 16, 12}, 2), four = t.words({8, 8, 8, 8}, 2);
  struct Case {
    Field bps;
    uint32_t want[3];
  };
  const Case cases[] = {
      {{258, 3, 1, 8}, {8, 8, 8}},                   // the depth of every channel
      {{258, 3, 3, three}, {8, 16, 12}},             // three at an offset
      {{258, 3, 2, 8 | (100u << 16)}, {8, 100, 0}},  // two in the field
      {{258, 3, 4, four}, {0, 0, 0}},                // four: none taken
      {{258, 3, 1, 12}, {12, 12, 12}},               // other depths have no pixels
      {{258, 3, 1, 32}, {32, 32, 32}},
      {{258, 3, 1, 1}, {1, 1, 1}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.want[0]);
    // Without pixels the strips are sought, not read: one past the end is fine.
    std::vector<Field> edits{c.bps};
    if (c.want[0] != 8) edits.push_back({273, 4, 1, 5000});
    read_ok(small(edits, t));
    EXPECT_EQ(std::vector<uint32_t>(img_.bits_per_sample, img_.bits_per_sample + 3),
              std::vector<uint32_t>(c.want, c.want + 3));
    EXPECT_EQ(pixels(), (c.want[0] == 8 ? std::vector<uint32_t>{1, 2} : std::vector<uint32_t>{}));
  }
}

TEST_F(TiffTest, ResolutionsAreKeptInPixelsPerInch) {
  TiffBuilder t;
  const std::vector<Field> res{{282, 5, 1, t.words({600, 2}, 4)}, {283, 5, 1, t.words({300, 1}, 4)}};
  for (auto [unit, want] : {std::pair{-1, 300.0}, std::pair{2, 300.0}, std::pair{3, 762.0}}) {
    auto fields = res;
    if (unit >= 0) fields.push_back({296, 3, 1, uint32_t(unit)});
    read_ok(small(fields, t));
    EXPECT_EQ(img_.res_unit, unit);
    EXPECT_DOUBLE_EQ(img_.xres, want);
    EXPECT_DOUBLE_EQ(img_.yres, want);
  }
  double xmm = 0, ymm = 0;
  EXPECT_EQ(vepra_img_get_resmm(&img_, &xmm, &ymm), nullptr);
  EXPECT_DOUBLE_EQ(xmm, 30.0);
  EXPECT_DOUBLE_EQ(ymm, 30.0);
}

TEST_F(TiffTest, LaterDirectoriesOverrideEarlierOnes) {
  // Both directories carry strip arrays and Software text; the second's
  // replace the first's (a leak would show under the leak checker).
  TiffBuilder t;
  const uint32_t strip1 = t.data({1, 2, 3, 4}), sw1 = t.data(Bytes(12, 'x'));
  const uint32_t offs1 = t.words({strip1, strip1 + 2}, 4), cnts1 = t.words({2, 2}, 4);
  auto first = gray_fields(2, 2, 8, offs1, cnts1, 2);
  first.push_back({305, 2, 12, sw1});
  const uint32_t dir1 = t.directory(first);
  const uint32_t strip2 = t.data({9, 8, 7}), sw2 = t.data({'a', 'b'});
  auto second = gray_fields(3, 1, 8, strip2, 3, 1);
  second.erase(second.begin() + 4);  // photometric kept from the first
  second.push_back({305, 2, 2, sw2});
  second.push_back({305, 2, 2, sw2});  // the same tag twice in one directory
  t.link(dir1, t.directory(second));
  read_ok(t.bytes);
  EXPECT_EQ(img_.photometric, 1);
  EXPECT_EQ(img_.strip_count, 1);
  EXPECT_STREQ(img_.software, "ab");
  EXPECT_EQ(pixels(), (std::vector<uint32_t>{9, 8, 7}));
}

TEST_F(TiffTest, DirectoryFieldsAreStoredAsRead) {
  TiffBuilder t;
  const uint32_t sw = t.data({'S', 'c', 'a', 'n', '5'});
  // LZW is read as raw bytes all the same; unknown tags are skipped.
  const Bytes file = small({{259, 3, 1, 5}, {262, 3, 1, 0}, {284, 3, 1, 2}, {305, 2, 5, sw},
                            {0x8769, 4, 1, 12345}, {300, 4, 1, 77}}, t);
  ASSERT_EQ(vepra_img_read_tiff_info(save("info.tif", file).c_str(), &img_), nullptr);
  EXPECT_EQ(img_.type, 1u);
  EXPECT_EQ(img_.data8, nullptr);  // the information pass reads no pixels
  EXPECT_STREQ(img_.software, "Scan5");
  EXPECT_EQ(img_.compression, 5u);
  EXPECT_EQ(img_.photometric, 0);
  EXPECT_EQ(img_.planar_config, 2u);
  EXPECT_EQ(img_.xres, 0.0);
  vepra_img_free(&img_);
  EXPECT_TRUE(owns_nothing(img_));
  EXPECT_EQ(img_.type, 1u);  // kept by vepra_img_free
}

// ---------------------------------------------------------------- writing

// The file the writer must produce: one directory of ten entries, the
// Software text at 134, the samples at 146.
Bytes written(uint32_t width, uint32_t height, uint16_t depth, uint32_t photometric, uint32_t spp,
              uint32_t byte_count, const Bytes &samples) {
  TiffBuilder t;
  auto fields = gray_fields(width, height, depth, 146, byte_count, 1);
  fields[4].value = photometric;
  fields[6].value = spp;
  fields.push_back({305, 2, 12, 134});
  t.directory(fields);
  t.data({'V', 'E', 'P', 'R', 'A', ' ', '1', '.', '0', '.', '0', 0});
  t.data(samples);
  return t.bytes;
}

TEST_F(TiffTest, WrittenLayoutIsByteExact) {
  const std::string path = temp_path("out.tif");
  // The resolution and the Software text that were read are not written.
  TiffBuilder t;
  const uint32_t res = t.words({300, 1}, 4), sw = t.data({'o', 't', 'h', 'e', 'r'});
  const Bytes samples{1, 11, 21, 31, 41, 51};
  read_ok(image(t, 3, 2, 8, samples, {{282, 5, 1, res}, {296, 3, 1, 3}, {305, 2, 5, sw}}));
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
  EXPECT_EQ(load(path), written(3, 2, 8, 1, 1, 6, samples));
  read_ok(load(path));
  EXPECT_EQ(img_.xres, 0.0);
  EXPECT_EQ(img_.res_unit, -1);

  // 16-bit samples are little-endian.
  const Bytes wide{0x02, 0x01, 0xB0, 0xA0};
  read_ok(image({}, 2, 1, 16, wide, {{262, 3, 1, 0}}));
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img_), nullptr);
  EXPECT_EQ(load(path), written(2, 1, 16, 0, 1, 4, wide));

  // A depth without pixels writes the directory only, and its byte count
  // repeats the SamplesPerPixel value.
  vepra_img_t img{};
  img.width = 2;
  img.height = 1;
  img.bits_per_sample[0] = 12;
  img.samples_per_pixel = 3;
  ASSERT_EQ(vepra_img_write_tiff(path.c_str(), &img), nullptr);
  EXPECT_EQ(load(path), written(2, 1, 12, 0, 3, 3, {}));
  // An 8-bit record without its rows is refused, not dereferenced.
  img.bits_per_sample[0] = 8;
  vepra_error_t *e = vepra_img_write_tiff(path.c_str(), &img);
  EXPECT_EQ(root_code(e), VEPRA_E_ASSERT);
  vepra_error_clear(e);
  img.width = img.height = 0x10000;
  EXPECT_EQ(take_printed(vepra_img_write_tiff(path.c_str(), &img)),
            "Error(120152): Cannot write TIFF image. \n"
            "Error(120152): Image of 65536 x 65536 pixels is too large for a TIFF file ");
}

TEST_F(TiffTest, WriteFailuresAreReported) {
  vepra_img_t img{};
  img.bits_per_sample[0] = 8;
  double row[1] = {1};
  double *rows[1] = {row};
  const std::string dir = temp_path("no-such-dir") + "/x.tif", write = "Cannot write TIFF image. ",
                    darr = "Cannot convert double array to TIFF image. ";
  EXPECT_EQ(take_printed(vepra_img_write_tiff(dir.c_str(), &img)),
            "Error(120030): " + write + "\nError(120030): Cannot open file '" + dir + "' ");
  EXPECT_EQ(take_printed(vepra_img_darr_to_tiff(dir.c_str(), rows, 1, 1)),
            "Error(120030): " + darr + "\nError(120030): Cannot open file '" + dir + "' ");
  // A full device takes nothing: a short write, reported once.
  std::FILE *full = std::fopen("/dev/full", "wb");
  if (full == nullptr) GTEST_SKIP() << "no /dev/full";
  std::fclose(full);
  EXPECT_EQ(take_printed(vepra_img_darr_to_tiff("/dev/full", rows, 1, 1)),
            "Error(120032): " + darr + "\nError(120032): Cannot write to IO stream. ");
  EXPECT_EQ(take_printed(vepra_img_write_tiff("/dev/full", &img)),
            "Error(120032): " + write + "\nError(120032): Cannot write to IO stream. ");
}

// Converts values to a TIFF file and returns its path.
std::string darr_file(std::vector<std::vector<double>> values) {
  std::vector<double *> rows;
  for (auto &row : values) rows.push_back(row.data());
  const std::string path = temp_path("darr.tif");
  vepra_error_t *e = vepra_img_darr_to_tiff(path.c_str(), rows.data(), unsigned(values.size()),
                                            values.empty() ? 0 : unsigned(values[0].size()));
  EXPECT_EQ(e, nullptr) << take_printed(e);
  return path;
}

TEST_F(TiffTest, DoubleArraysAreScaledToSixteenBits) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::vector<std::vector<double>> values;
    std::vector<uint32_t> samples;
  };
  const Case cases[] = {
      {{{-1, 0, 1}}, {0, 32767, 65535}},
      {{{4, 4}, {4, 4}}, {0, 0, 0, 0}},
      {{{1, 2, 3}, {4, 5, 6}}, {0, 13107, 26214, 39321, 52428, 65535}},
      {{{nan, 10}, {20, nan}}, {0, 0, 65535, 0}},
      {{{-1e305, 1e305, 0}}, {0, 65535, 32767}},
  };
  for (const Case &c : cases) {
    // Read by libtiff: 16-bit WhiteIsZero, rows then columns.
    const Peer p = libtiff_read(darr_file(c.values));
    EXPECT_EQ(std::tuple(p.height, p.width, p.bits, p.photometric),
              std::tuple(c.values.size(), c.values[0].size(), 16, PHOTOMETRIC_MINISWHITE));
    EXPECT_EQ(p.samples, c.samples);
  }
  // A 0 x 0 array: a valid header with no samples, which reads back.
  const std::string empty = darr_file({});
  EXPECT_EQ(load(empty), written(0, 0, 16, 0, 1, 0, {}));
  read_ok(load(empty));
}

// ------------------------------------------------------------ with libtiff

TEST_F(TiffTest, InteroperatesWithLibtiff) {
  struct Case {
    uint32_t width, height;
    uint16_t bits;
    uint32_t rows_per_strip;
    uint16_t photometric;
    bool resolution;
  };
  const Case cases[] = {
      {37, 23, 8, 23, PHOTOMETRIC_MINISBLACK, false}, {37, 23, 8, 4, PHOTOMETRIC_MINISWHITE, true},
      {64, 40, 16, 40, PHOTOMETRIC_MINISWHITE, true}, {64, 40, 16, 3, PHOTOMETRIC_MINISBLACK, false},
      {300, 2, 8, 1, PHOTOMETRIC_MINISBLACK, true},   {5, 300, 16, 7, PHOTOMETRIC_MINISBLACK, true},
  };
  const std::string theirs = temp_path("libtiff.tif"), ours = temp_path("ours.tif");
  for (const Case &lc : cases) {
    SCOPED_TRACE(&lc - cases);
    TIFF *tif = TIFFOpen(theirs.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    const std::pair<uint32_t, uint32_t> fields[] = {
        {TIFFTAG_IMAGEWIDTH, lc.width},          {TIFFTAG_IMAGELENGTH, lc.height},
        {TIFFTAG_BITSPERSAMPLE, lc.bits},        {TIFFTAG_SAMPLESPERPIXEL, 1},
        {TIFFTAG_PHOTOMETRIC, lc.photometric},   {TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG},
        {TIFFTAG_COMPRESSION, COMPRESSION_NONE}, {TIFFTAG_ROWSPERSTRIP, lc.rows_per_strip}};
    for (auto [tag, value] : fields) TIFFSetField(tif, tag, value);
    if (lc.resolution) {
      TIFFSetField(tif, TIFFTAG_XRESOLUTION, 118.0f);
      TIFFSetField(tif, TIFFTAG_YRESOLUTION, 59.0f);
      TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_CENTIMETER);
    }
    std::vector<uint32_t> want;
    for (uint32_t r = 0; r < lc.height; ++r) {
      Bytes line;
      for (uint32_t c = 0; c < lc.width; ++c) {
        const uint32_t v = r * 7919u + c * 104729u + (r ^ c) * 31u;
        want.push_back(lc.bits == 8 ? v & 0xFFu : v & 0xFFFFu);
        append(line, want.back(), lc.bits / 8);
      }
      ASSERT_EQ(TIFFWriteScanline(tif, line.data(), r, 0), 1);
    }
    TIFFClose(tif);

    // We read what libtiff wrote...
    vepra_error_t *e = vepra_img_read(theirs.c_str(), &img_);
    ASSERT_EQ(e, nullptr) << take_printed(e);
    EXPECT_EQ(std::tuple(img_.width, img_.height, img_.bits_per_sample[0], img_.photometric),
              std::tuple(lc.width, lc.height, uint32_t{lc.bits}, int32_t{lc.photometric}));
    EXPECT_EQ(img_.strip_count, int32_t((lc.height + lc.rows_per_strip - 1) / lc.rows_per_strip));
    EXPECT_NEAR(img_.xres, lc.resolution ? 118.0 * 2.54 : 0.0, 1e-3);
    EXPECT_NEAR(img_.yres, lc.resolution ? 59.0 * 2.54 : 0.0, 1e-3);
    EXPECT_TRUE(pixels() == want);

    // ...and libtiff reads what we write.
    ASSERT_EQ(vepra_img_write_tiff(ours.c_str(), &img_), nullptr);
    vepra_img_free(&img_);
    const Peer p = libtiff_read(ours);
    EXPECT_EQ(std::tuple(p.width, p.height, p.bits, p.spp, p.photometric, p.compression, p.software),
              std::tuple(lc.width, lc.height, lc.bits, uint16_t{1}, lc.photometric,
                         uint16_t{COMPRESSION_NONE}, std::string("VEPRA 1.0.0")));
    EXPECT_TRUE(p.samples == want);
  }
}

// ----------------------------------------------------- allocation failures

TEST_F(TiffTest, EveryAllocationFailureOfReadingIsReported) {
  TiffBuilder t;
  const uint32_t a = t.data({1, 0, 2, 0, 3, 0}), b = t.data({4, 0, 5, 0, 6, 0});
  const uint32_t sw = t.data({'w', 'r', 'i', 't', 'e', 'r'});
  const uint32_t offsets = t.words({a, b, 0}, 2), counts = t.words({6, 6, 0}, 4);
  const std::string path = save(
      "alloc.tif", image(t, 3, 2, 16, {}, {{273, 3, 3, offsets}, {279, 4, 3, counts}, {305, 2, 6, sw}}));
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
  EXPECT_EQ(pixels(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6}));
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
