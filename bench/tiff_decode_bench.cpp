// Decoding reads of 8192 x 8192 16-bit scans against libtiff in the same
// binary, on the same files (written once by libtiff into the temporary
// directory, so read from the page cache): uncompressed strips, LZW with
// the horizontal predictor, Deflate, ZSTD, PackBits, and 256 x 256 tiles
// uncompressed and Deflate. Each iteration reads the whole image into a
// fresh pixel matrix (ours) or into one image buffer (libtiff's strips and
// tiles decoded in place, tiles then copied into it). The counters give
// megapixels per second and the file's size.
#include <benchmark/benchmark.h>
#include <tiffio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_main.hpp"
#include "vepra_error.h"
#include "vepra_img.h"

namespace {

constexpr uint32_t kSide = 8192;

struct Kind {
  const char *name;
  uint16_t compression;
  uint16_t predictor;
  uint32_t tile;  // 0: strips of libtiff's default size
};

constexpr Kind kKinds[] = {
    {"none", COMPRESSION_NONE, PREDICTOR_NONE, 0},
    {"lzw_predictor", COMPRESSION_LZW, PREDICTOR_HORIZONTAL, 0},
    {"deflate", COMPRESSION_ADOBE_DEFLATE, PREDICTOR_NONE, 0},
    {"zstd", COMPRESSION_ZSTD, PREDICTOR_NONE, 0},
    {"packbits", COMPRESSION_PACKBITS, PREDICTOR_NONE, 0},
    {"tiled_none", COMPRESSION_NONE, PREDICTOR_NONE, 256},
    {"tiled_deflate", COMPRESSION_ADOBE_DEFLATE, PREDICTOR_NONE, 256},
};
constexpr int kKindCount = sizeof kKinds / sizeof kKinds[0];

std::string path_of(const Kind &k) {
  const char *dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/vepra_tiff_decode_bench_" + k.name + ".tif";
}

// A scan-like image: a smooth background, a few bright discs and noise of
// a few levels, so that the compressors find what they find in real scans.
std::vector<uint16_t> scan_rows() {
  std::vector<uint16_t> v(size_t{kSide} * kSide);
  uint32_t rng = 12345;
  for (uint32_t r = 0; r < kSide; ++r) {
    for (uint32_t c = 0; c < kSide; ++c) {
      rng = rng * 1664525u + 1013904223u;
      const int dr = int(r % 1024) - 512, dc = int(c % 1024) - 512;
      const uint32_t disc = dr * dr + dc * dc < 200 * 200 ? 20000 : 0;
      v[size_t{r} * kSide + c] =
          static_cast<uint16_t>(1000 + r / 4 + c / 8 + disc + ((rng >> 24) & 15));
    }
  }
  return v;
}

void write_file(const Kind &k, const std::vector<uint16_t> &v) {
  TIFF *t = TIFFOpen(path_of(k).c_str(), "w");
  if (t == nullptr) std::abort();
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, kSide);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, kSide);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(t, TIFFTAG_COMPRESSION, k.compression);
  if (k.predictor != PREDICTOR_NONE) TIFFSetField(t, TIFFTAG_PREDICTOR, k.predictor);
  if (k.tile != 0) {
    TIFFSetField(t, TIFFTAG_TILEWIDTH, k.tile);
    TIFFSetField(t, TIFFTAG_TILELENGTH, k.tile);
    std::vector<uint16_t> tile(size_t{k.tile} * k.tile);
    for (uint32_t y = 0; y < kSide; y += k.tile) {
      for (uint32_t x = 0; x < kSide; x += k.tile) {
        for (uint32_t r = 0; r < k.tile; ++r) {
          std::memcpy(&tile[size_t{r} * k.tile], &v[size_t{y + r} * kSide + x], k.tile * 2);
        }
        if (TIFFWriteTile(t, tile.data(), x, y, 0, 0) < 0) std::abort();
      }
    }
  } else {
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    std::vector<uint16_t> line(kSide);
    for (uint32_t r = 0; r < kSide; ++r) {
      std::memcpy(line.data(), &v[size_t{r} * kSide], kSide * 2);
      if (TIFFWriteScanline(t, line.data(), r, 0) != 1) std::abort();
    }
  }
  TIFFClose(t);
}

void make_files() {
  TIFFSetWarningHandler(nullptr);
  std::vector<uint16_t> v;
  for (const Kind &k : kKinds) {
    if (FILE *f = std::fopen(path_of(k).c_str(), "rb")) {
      std::fclose(f);
      continue;
    }
    if (v.empty()) v = scan_rows();
    write_file(k, v);
  }
}

double file_size(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return 0;
  std::fseek(f, 0, SEEK_END);
  const long n = std::ftell(f);
  std::fclose(f);
  return static_cast<double>(n);
}

void finish(benchmark::State &state, const Kind &k) {
  const double pixels = double(kSide) * kSide;
  state.counters["Mpix/s"] =
      benchmark::Counter(pixels / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
  // kIsRate divides by the measured (here real) time.
  state.counters["file_MB"] = file_size(path_of(k)) / 1e6;
}

// Reads the file of kind k with read() for as long as the benchmark runs,
// touching the last pixel of each read.
template <typename Read>
void read_loop(benchmark::State &state, const Kind &k, Read read) {
  const std::string path = path_of(k);
  for (auto _ : state) {
    vepra_img_t img{};
    vepra_error_t *e = read(path.c_str(), &img);
    if (e != nullptr) {
      state.SkipWithError("read failed");
      vepra_error_clear(e);
      break;
    }
    benchmark::DoNotOptimize(img.data16[kSide - 1][kSide - 1]);
    vepra_img_free(&img);
  }
  finish(state, k);
}

void BM_Vepra(benchmark::State &state) {
  const Kind &k = kKinds[state.range(0)];
  state.SetLabel(k.name);
  read_loop(state, k, [](const char *path, vepra_img_t *img) {
    return vepra_img_read_ex(path, img, VEPRA_IMG_READ_STRICT, 0);
  });
}

void BM_Libtiff(benchmark::State &state) {
  const Kind &k = kKinds[state.range(0)];
  state.SetLabel(k.name);
  const std::string path = path_of(k);
  for (auto _ : state) {
    // A fresh image each time, as ours is: the first touch of its pages
    // counts for both.
    std::unique_ptr<uint16_t[]> image(new uint16_t[size_t{kSide} * kSide]);
    TIFF *t = TIFFOpen(path.c_str(), "r");
    if (t == nullptr) {
      state.SkipWithError("open failed");
      break;
    }
    if (TIFFIsTiled(t)) {
      std::vector<uint16_t> tile(TIFFTileSize(t) / 2);
      for (uint32_t y = 0; y < kSide; y += k.tile) {
        for (uint32_t x = 0; x < kSide; x += k.tile) {
          if (TIFFReadEncodedTile(t, TIFFComputeTile(t, x, y, 0, 0), tile.data(), -1) < 0) {
            state.SkipWithError("tile read failed");
          }
          for (uint32_t r = 0; r < k.tile; ++r) {
            std::memcpy(&image[size_t{y + r} * kSide + x], &tile[size_t{r} * k.tile], k.tile * 2);
          }
        }
      }
    } else {
      const tstrip_t strips = TIFFNumberOfStrips(t);
      const tmsize_t strip_size = TIFFStripSize(t);
      auto *out = reinterpret_cast<uint8_t *>(image.get());
      const size_t total = size_t{kSide} * kSide * 2;
      size_t at = 0;
      for (tstrip_t s = 0; s < strips; ++s) {
        const tmsize_t n = TIFFReadEncodedStrip(t, s, out + at, std::min<tmsize_t>(strip_size, tmsize_t(total - at)));
        if (n < 0) {
          state.SkipWithError("strip read failed");
          break;
        }
        at += size_t(n);
      }
    }
    benchmark::DoNotOptimize(image[size_t{kSide} * kSide - 1]);
    TIFFClose(t);
  }
  finish(state, k);
}

// Today's reader of uncompressed strips, for the first row.
void BM_VepraPlain(benchmark::State &state) {
  const Kind &k = kKinds[0];
  state.SetLabel("none, vepra_img_read");
  read_loop(state, k, vepra_img_read);
}

// Alternating per kind, so that both readers meet the same load.
void register_all() {
  for (int i = 0; i < kKindCount; ++i) {
    for (auto *fn : {BM_Vepra, BM_Libtiff}) {
      benchmark::RegisterBenchmark(fn == BM_Vepra ? "Vepra" : "Libtiff", fn)
          ->Arg(i)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    }
  }
  benchmark::RegisterBenchmark("VepraPlain", BM_VepraPlain)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

}  // namespace

int main(int argc, char **argv) {
  return vepra_bench::run(argc, argv, [] {
    make_files();
    register_all();
  });
}
