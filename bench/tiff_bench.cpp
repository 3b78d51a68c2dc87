// TIFF reading and writing against libtiff, on 8192 x 8192 images of 8 and
// 16 bits, in one strip and in strips of 64 rows, generated once into the
// temporary directory (and so read from the page cache).
//
//   Read/first:  a fresh process's first read (forked per iteration), where
//                the page faults of the new matrix dominate;
//   Read/steady: read then free in a loop, where the copy dominates;
//   Info:        the directory of a small file only;
//   Write:       our writer, libtiff's scanline writer, and one write() of
//                the same bytes (the limit).
#include <benchmark/benchmark.h>

#include "bench_main.hpp"
#include <fcntl.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <malloc.h>
#include <time.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vepra_error.h"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace {

constexpr uint32_t kSide = 8192;

std::string temp_file(const std::string &name) {
  const char *dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/vepra_tiff_bench_" + name + ".tif";
}

uint32_t sample(uint32_t r, uint32_t c) { return (r * 7919u + c * 31u) ^ (r >> 3); }

// Writes a side x side image with libtiff, rows_per_strip rows a strip.
void make_file(const std::string &path, uint32_t side, uint16_t bits, uint32_t rows_per_strip) {
  TIFF *tif = TIFFOpen(path.c_str(), "w");
  if (tif == nullptr) std::abort();
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, side);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, side);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rows_per_strip);
  std::vector<uint16_t> line(side);
  for (uint32_t r = 0; r < side; ++r) {
    if (bits == 8) {
      auto *bytes = reinterpret_cast<uint8_t *>(line.data());
      for (uint32_t c = 0; c < side; ++c) bytes[c] = static_cast<uint8_t>(sample(r, c));
    } else {
      for (uint32_t c = 0; c < side; ++c) line[c] = static_cast<uint16_t>(sample(r, c));
    }
    if (TIFFWriteScanline(tif, line.data(), r, 0) != 1) std::abort();
  }
  TIFFClose(tif);
}

// The large input files, made on first use.
const std::string &input(uint16_t bits, uint32_t rows_per_strip) {
  static std::string paths[2][2];
  std::string &path = paths[bits == 16][rows_per_strip == 64];
  if (path.empty()) {
    path = temp_file("in" + std::to_string(bits) + "_" + std::to_string(rows_per_strip));
    make_file(path, kSide, bits, rows_per_strip);
  }
  return path;
}

void ours(const std::string &path) {
  vepra_img_t img{};
  vepra_error_t *e = vepra_img_read(path.c_str(), &img);
  if (e != nullptr) std::abort();
  benchmark::DoNotOptimize(img.data8 != nullptr ? img.data8[kSide - 1][kSide - 1]
                                                : img.data16[kSide - 1][kSide - 1]);
  vepra_img_free(&img);
}

// libtiff's scanline reader into a row matrix, allocated as a libtiff user
// would: a table of rows from malloc, not cleared, since every row is read.
// By default libtiff maps the file and copies each row out of the mapping;
// with mode "rm" it reads each strip into a buffer of its own first.
void libtiff_rows(const std::string &path, const char *mode) {
  TIFF *tif = TIFFOpen(path.c_str(), mode);
  if (tif == nullptr) std::abort();
  uint32_t w = 0, h = 0;
  uint16_t bits = 0;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
  TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bits);
  auto **rows = static_cast<uint8_t **>(std::malloc(h * sizeof(uint8_t *)));
  for (uint32_t r = 0; r < h; ++r) {
    rows[r] = static_cast<uint8_t *>(std::malloc(size_t{w} * bits / 8));
    if (rows[r] == nullptr || TIFFReadScanline(tif, rows[r], r, 0) != 1) std::abort();
  }
  benchmark::DoNotOptimize(rows[h - 1][0]);
  TIFFClose(tif);
  for (uint32_t r = 0; r < h; ++r) std::free(rows[r]);
  std::free(rows);
}

void libtiff(const std::string &path) { libtiff_rows(path, "r"); }
void libtiff_nomap(const std::string &path) { libtiff_rows(path, "rm"); }

using Reader = void (*)(const std::string &);

double cpu_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// A long-running reader: the allocator keeps the freed rows for the next
// image instead of returning them to the system (glibc otherwise trims the
// heap after every free, and each read pays the page faults of a first
// read again).
void BM_ReadSteady(benchmark::State &state, Reader read) {
  const std::string &path = input(static_cast<uint16_t>(state.range(0)),
                                  static_cast<uint32_t>(state.range(1)));
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  for (auto _ : state) read(path);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  state.SetBytesProcessed(state.iterations() * int64_t{kSide} * kSide * state.range(0) / 8);
}

// Each iteration forks a process that reads once and reports the processor
// time it took (user and system: the page faults are system time), which
// other processes on the machine do not inflate.
void BM_ReadFirst(benchmark::State &state, Reader read) {
  const std::string &path = input(static_cast<uint16_t>(state.range(0)),
                                  static_cast<uint32_t>(state.range(1)));
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const pid_t pid = fork();
    if (pid == 0) {
      const double t0 = cpu_seconds();
      read(path);
      const double s = cpu_seconds() - t0;
      _exit(write(fds[1], &s, sizeof s) == sizeof s ? 0 : 1);
    }
    double seconds = 0;
    if (::read(fds[0], &seconds, sizeof seconds) != sizeof seconds) std::abort();
    close(fds[0]);
    close(fds[1]);
    waitpid(pid, nullptr, 0);
    state.SetIterationTime(seconds);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSide} * kSide * state.range(0) / 8);
}

void read_args(benchmark::internal::Benchmark *b) {
  for (int bits : {8, 16}) {
    for (int rps : {8192, 64}) b->Args({bits, rps});
  }
  b->ArgNames({"bits", "rows_per_strip"})->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(BM_ReadFirst, vepra, ours)->Apply(read_args)->UseManualTime()->Iterations(10);
BENCHMARK_CAPTURE(BM_ReadFirst, libtiff, libtiff)->Apply(read_args)->UseManualTime()->Iterations(10);
BENCHMARK_CAPTURE(BM_ReadFirst, libtiff_nomap, libtiff_nomap)
    ->Apply(read_args)
    ->UseManualTime()
    ->Iterations(10);
BENCHMARK_CAPTURE(BM_ReadSteady, vepra, ours)->Apply(read_args);
BENCHMARK_CAPTURE(BM_ReadSteady, libtiff, libtiff)->Apply(read_args);
BENCHMARK_CAPTURE(BM_ReadSteady, libtiff_nomap, libtiff_nomap)->Apply(read_args);

const std::string &small_file() {
  static const std::string path = [] {
    std::string p = temp_file("small");
    make_file(p, 64, 8, 16);
    return p;
  }();
  return path;
}

void BM_InfoVepra(benchmark::State &state) {
  const std::string &path = small_file();
  for (auto _ : state) {
    vepra_img_t img{};
    if (vepra_img_read_tiff_info(path.c_str(), &img) != nullptr || img.type != 1) std::abort();
    benchmark::DoNotOptimize(img.width);
    vepra_img_free(&img);
  }
}
BENCHMARK(BM_InfoVepra)->Unit(benchmark::kMicrosecond);

void BM_InfoLibtiff(benchmark::State &state) {
  const std::string &path = small_file();
  for (auto _ : state) {
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (tif == nullptr) std::abort();
    uint32_t w = 0;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
    benchmark::DoNotOptimize(w);
    TIFFClose(tif);
  }
}
BENCHMARK(BM_InfoLibtiff)->Unit(benchmark::kMicrosecond);

// An image record filled with the same samples as the input files.
struct Image {
  explicit Image(uint16_t bits) {
    img.width = img.height = kSide;
    img.samples_per_pixel = 1;
    img.bits_per_sample[0] = bits;
    img.photometric = 1;
    void *m = nullptr;
    if (vepra_mem_matrix_alloc(&m, bits / 8, 0, kSide - 1, 0, kSide - 1)) std::abort();
    for (uint32_t r = 0; r < kSide; ++r) {
      for (uint32_t c = 0; c < kSide; ++c) {
        if (bits == 8) static_cast<uint8_t **>(m)[r][c] = static_cast<uint8_t>(sample(r, c));
        else static_cast<uint16_t **>(m)[r][c] = static_cast<uint16_t>(sample(r, c));
      }
    }
    (bits == 8 ? reinterpret_cast<void *&>(img.data8) : reinterpret_cast<void *&>(img.data16)) = m;
  }
  ~Image() { vepra_img_free(&img); }
  vepra_img_t img{};
};

void BM_WriteVepra(benchmark::State &state) {
  Image image(static_cast<uint16_t>(state.range(0)));
  const std::string path = temp_file("out");
  for (auto _ : state) {
    if (vepra_img_write_tiff(path.c_str(), &image.img) != nullptr) std::abort();
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSide} * kSide * state.range(0) / 8);
}

void BM_WriteLibtiff(benchmark::State &state) {
  Image image(static_cast<uint16_t>(state.range(0)));
  const vepra_img_t &img = image.img;
  const std::string path = temp_file("out");
  for (auto _ : state) {
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, img.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, img.height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, img.bits_per_sample[0]);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, img.photometric);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, img.height);
    for (uint32_t r = 0; r < img.height; ++r) {
      void *row = img.data8 != nullptr ? static_cast<void *>(img.data8[r])
                                       : static_cast<void *>(img.data16[r]);
      if (TIFFWriteScanline(tif, row, r, 0) != 1) std::abort();
    }
    TIFFClose(tif);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSide} * kSide * state.range(0) / 8);
}

// The limit: the bytes our writer produces, written with one write().
void BM_WriteOnce(benchmark::State &state) {
  const std::string path = temp_file("out");
  std::vector<char> bytes;
  {
    Image image(static_cast<uint16_t>(state.range(0)));
    if (vepra_img_write_tiff(path.c_str(), &image.img) != nullptr) std::abort();
    FILE *f = std::fopen(path.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    bytes.resize(static_cast<size_t>(std::ftell(f)));
    std::fseek(f, 0, SEEK_SET);
    if (std::fread(bytes.data(), 1, bytes.size(), f) != bytes.size()) std::abort();
    std::fclose(f);
  }
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
      std::abort();
    close(fd);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSide} * kSide * state.range(0) / 8);
}

BENCHMARK(BM_WriteVepra)->Arg(8)->Arg(16)->ArgName("bits")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteLibtiff)->Arg(8)->Arg(16)->ArgName("bits")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteOnce)->Arg(8)->Arg(16)->ArgName("bits")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  return vepra_bench::run(
      argc, argv, [] { TIFFSetWarningHandler(nullptr); },
      [] {
        for (const char *name : {"in8_8192", "in8_64", "in16_8192", "in16_64", "small", "out"}) {
          std::remove(temp_file(name).c_str());
        }
      });
}
