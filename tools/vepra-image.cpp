// vepra-image: looks at grayscale TIFF images and measures them with the
// vepra library (information, statistics, data mask, PSL, optical density)
// and writes a synthetic sample scan for demonstrations.
//
// Every failure is an error chain printed with vepra_error_handle(); the
// exit status is 0 on success, 1 when an operation failed and 2 for a
// command line that cannot be understood.
#define VEPRA_ERROR_NO_LOCATION 1  // the chains tell the user, not the source

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "vepra.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

// ---------------------------------------------------------------- errors

std::string vformat(const char *format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

// A new one-record chain (code may be 0) with a formatted message.
__attribute__((format(printf, 2, 3))) vepra_error_t *fail(int code, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = vformat(format, args);
  va_end(args);
  return vepra_error_create(0, code, nullptr, text.c_str());
}

// Adds a formatted context to cause (repeating its type and code).
__attribute__((format(printf, 2, 3))) vepra_error_t *wrap(vepra_error_t *cause,
                                                          const char *format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = vformat(format, args);
  va_end(args);
  return vepra_error_create(cause->type, cause->code, cause, text.c_str());
}

// Prints and frees chain; returns status (or 0 for no chain).
int report(vepra_error_t *chain, int status = kFailure) {
  if (chain == nullptr) return 0;
  vepra_error_clear(vepra_error_handle(chain, vepra_error_stdhandler, stderr));
  return status;
}

// ---------------------------------------------------------- command line

struct Command;

// Options and operands of one subcommand. Every option takes a value,
// given as the next argument or after '='.
struct Args {
  std::vector<std::string> operands;
  std::map<std::string, std::string> options;
  bool help = false;

  bool has(const std::string &name) const { return options.count(name) != 0; }
  const std::string &get(const std::string &name) const { return options.at(name); }
};

struct Command {
  const char *name;
  const char *usage;  // operands and options, after the command name
  const char *help;   // the rest of the --help text
  std::vector<std::string> options;
  int (*run)(const Args &args);
};

vepra_error_t *parse_args(const Command &cmd, int argc, char **argv, Args &out) {
  bool operands_only = false;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (operands_only || arg.size() < 2 || arg[0] != '-') {
      out.operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      operands_only = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      out.help = true;
      continue;
    }
    std::string value;
    const size_t eq = arg.find('=');
    const bool inline_value = arg.rfind("--", 0) == 0 && eq != std::string::npos;
    if (inline_value) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    }
    if (arg == "-o") arg = "--output";
    bool known = false;
    for (const std::string &o : cmd.options) known = known || o == arg;
    if (!known) return fail(0, "Unknown option '%s' for '%s'.", arg.c_str(), cmd.name);
    if (!inline_value) {
      if (i + 1 >= argc) return fail(0, "Option '%s' needs a value.", arg.c_str());
      value = argv[++i];
    }
    out.options[arg] = value;
  }
  return nullptr;
}

// The values an option of a measure can mean: from `low` (excluded when
// low_open) to `high` (any finite value when both are infinite).
struct Range {
  double low = -std::numeric_limits<double>::infinity();
  double high = std::numeric_limits<double>::infinity();
  bool low_open = true;
};

vepra_error_t *parse_double(const Args &args, const char *name, Range range, double *value) {
  if (!args.has(name)) return nullptr;
  const std::string &text = args.get(name);
  char *end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v)) {
    return fail(VEPRA_E_STR_TO_DOUBLE, "Invalid number '%s' for option '%s'.", text.c_str(), name);
  }
  if (!((range.low_open ? v > range.low : v >= range.low) && v <= range.high)) {
    return fail(VEPRA_E_STR_TO_DOUBLE, "Invalid value '%s' for option '%s' (%s %.15g, at most %.15g).",
                text.c_str(), name, range.low_open ? "above" : "at least", range.low, range.high);
  }
  *value = v;
  return nullptr;
}

vepra_error_t *parse_count(const Args &args, const char *name, unsigned long max,
                           unsigned long *value) {
  if (!args.has(name)) return nullptr;
  const std::string &text = args.get(name);
  char *end = nullptr;
  errno = 0;
  const unsigned long v = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno == ERANGE || v < 1 || v > max) {
    return fail(VEPRA_E_STR_TO_INT, "Invalid value '%s' for option '%s' (1 to %lu).", text.c_str(),
                name, max);
  }
  *value = v;
  return nullptr;
}

// --------------------------------------------------------------- helpers

// An image record that releases what it owns.
struct Image {
  vepra_img_t rec{};
  Image() = default;
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;
  ~Image() { vepra_img_free(&rec); }
};

// A height x width matrix of doubles from the library's allocator.
struct Doubles {
  double **rows = nullptr;
  uint32_t height = 0;
  Doubles() = default;
  Doubles(const Doubles &) = delete;
  Doubles &operator=(const Doubles &) = delete;
  ~Doubles() {
    if (rows != nullptr) vepra_mem_matrix_free(rows, sizeof(double), 0, int(height) - 1, 0);
  }
  vepra_error_t *alloc(uint32_t h, uint32_t w) {
    height = h;
    void *m = nullptr;
    vepra_error_t *e = vepra_mem_matrix_alloc(&m, sizeof(double), 0, int(h) - 1, 0, int(w) - 1);
    rows = static_cast<double **>(m);
    return e;
  }
};

const char *photometric_name(int32_t p) {
  switch (p) {
    case 0: return "WhiteIsZero";
    case 1: return "BlackIsZero";
    case 2: return "RGB";
    case 3: return "Palette";
    case -1: return "absent";
    default: return "other";
  }
}

uint32_t full_scale(const vepra_img_t &img) { return img.bits_per_sample[0] == 8 ? 255 : 65535; }

// A file name for one field of the line-oriented output, escaped the way
// `ls --quoting-style=escape` does (backslash, and C escapes or three octal
// digits for control characters), so that tabs and newlines in names
// cannot break lines or columns. Spaces are kept: they separate nothing.
std::string escaped(const std::string &name) {
  std::string out;
  for (const char ch : name) {
    const auto c = static_cast<unsigned char>(ch);
    const char *named = c == '\\' ? "\\\\" : c == '\t' ? "\\t" : c == '\n' ? "\\n"
                      : c == '\r' ? "\\r" : c == '\a' ? "\\a" : c == '\b' ? "\\b"
                      : c == '\f' ? "\\f" : c == '\v' ? "\\v" : nullptr;
    if (named != nullptr) {
      out += named;
    } else if (c < 0x20 || c == 0x7F) {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", c);
      out += octal;
    } else {
      out += ch;
    }
  }
  return out;
}

// Every file is read so that undecodable data are refused rather than
// measured, and a resolution without a unit reads as none.
constexpr uint32_t kReadFlags = VEPRA_IMG_READ_STRICT | VEPRA_IMG_READ_UNITLESS;

vepra_error_t *read_image(const std::string &path, Image &img, uint32_t flags = 0) {
  // A FIFO or a terminal would block or never end: only files that can be
  // sought are read. A path that does not exist is left to the library.
  struct stat st {};
  vepra_error_t *e = nullptr;
  if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    e = fail(VEPRA_E_IO_OPEN, "'%s' is not a regular file or block device", path.c_str());
  } else {
    e = vepra_img_read_ex(path.c_str(), &img.rec, kReadFlags | flags, 0);
  }
  return e != nullptr ? wrap(e, "Cannot open image '%s'.", path.c_str()) : nullptr;
}

// A CSV field, quoted when it holds a comma, a quote or a line break.
std::string csv_field(const std::string &s) {
  if (s.find_first_of(",\"\r\n") == std::string::npos) return s;
  std::string q = "\"";
  for (char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
  return q + "\"";
}

// ------------------------------------------------------------------ info

int run_info(const Args &args) {
  int status = 0;
  bool first = true;
  for (const std::string &path : args.operands) {
    Image img;
    if (vepra_error_t *e = read_image(path, img, VEPRA_IMG_READ_HEADER)) {
      status = report(e);
      continue;
    }
    const vepra_img_t &r = img.rec;
    if (!first) std::printf("\n");
    first = false;
    std::printf("file: %s\n", escaped(path).c_str());
    std::printf("size: %u x %u pixels\n", r.width, r.height);
    std::printf("depth: %u bits per sample, %u sample(s) per pixel\n", r.bits_per_sample[0],
                r.samples_per_pixel);
    std::printf("photometric: %d (%s)\n", r.photometric, photometric_name(r.photometric));
    if (r.xres > 0 || r.yres > 0) {
      double xmm = 0, ymm = 0;
      report(vepra_img_get_resmm(&r, &xmm, &ymm));
      std::printf("resolution: %g x %g pixels per inch, %g x %g pixels per mm\n", r.xres, r.yres,
                  xmm, ymm);
    } else if (r.res_unit == 1) {
      std::printf("resolution: none (ResolutionUnit 1, no absolute unit)\n");
    } else {
      std::printf("resolution: none\n");
    }
    std::printf("software: %s\n", r.software != nullptr ? r.software : "none");
    std::printf("compression: %u\n", r.compression);
    std::printf("strips: %d\n", r.strip_count);
    for (int32_t s = 0; s < r.strip_count; ++s) {
      const unsigned bytes = uint32_t(s) < r.strip_byte_count_count ? r.strip_byte_counts[s] : 0;
      std::printf("strip %d: offset %u, %u bytes\n", s, r.strip_offsets[s], bytes);
    }
  }
  return status;
}

// ----------------------------------------------------------------- stats

// A histogram as the library returns it.
struct Counts {
  size_t nbins = 0;
  uint64_t *bins = nullptr;
  Counts() = default;
  Counts(const Counts &) = delete;
  Counts &operator=(const Counts &) = delete;
  ~Counts() { vepra_mem_free(bins); }
};

// A histogram kept for the CSV file: the counts up to the last occupied
// value (the rest are 0) and the number of values.
struct Histogram {
  std::string path;
  size_t nbins = 0;
  std::vector<uint64_t> bins;
};

vepra_error_t *write_histograms(const std::string &out, const std::vector<Histogram> &hists) {
  FILE *f = std::fopen(out.c_str(), "w");
  if (f == nullptr) {
    return wrap(fail(VEPRA_E_IO_OPEN, "Cannot open file '%s'", out.c_str()),
                "Cannot write histogram.");
  }
  size_t rows = 0;
  std::fprintf(f, "value");
  for (const Histogram &h : hists) {
    std::fprintf(f, ",%s", csv_field(h.path).c_str());
    rows = std::max(rows, h.nbins);
  }
  std::fprintf(f, "\n");
  for (size_t v = 0; v < rows; ++v) {
    std::fprintf(f, "%zu", v);
    for (const Histogram &h : hists) {
      if (v < h.nbins) {
        std::fprintf(f, ",%llu", static_cast<unsigned long long>(v < h.bins.size() ? h.bins[v] : 0));
      } else {
        std::fprintf(f, ",");
      }
    }
    std::fprintf(f, "\n");
  }
  const bool failed = std::ferror(f) != 0;
  if (std::fclose(f) != 0 || failed) {
    return wrap(fail(VEPRA_E_IO_WRITE, "Cannot write file '%s'", out.c_str()),
                "Cannot write histogram.");
  }
  return nullptr;
}

// Prints the statistics line of path; with keep, also fills hist.
vepra_error_t *file_stats(const std::string &path, Histogram *keep) {
  Image img;
  if (vepra_error_t *e = read_image(path, img)) return e;
  const char *context = "Cannot compute statistics of '%s'.";
  Counts hist;
  if (vepra_error_t *e = vepra_img_histogram(&img.rec, &hist.nbins, &hist.bins)) {
    return wrap(e, context, path.c_str());
  }
  double entropy = 0;
  if (vepra_error_t *e = vepra_img_entropy(&img.rec, &entropy)) return wrap(e, context, path.c_str());
  const double threshold = vepra_img_thres_IJ(hist.nbins, hist.bins);

  uint64_t count = 0;
  unsigned __int128 sum = 0;
  size_t min = hist.nbins, max = 0;
  for (size_t v = 0; v < hist.nbins; ++v) {
    if (hist.bins[v] == 0) continue;
    if (min == hist.nbins) min = v;
    max = v;
    count += hist.bins[v];
    sum += static_cast<unsigned __int128>(v) * hist.bins[v];
  }
  const std::string name = escaped(path);
  if (count == 0) {
    std::printf("%s\t-\t-\t-\t%.6f\t%.4f\n", name.c_str(), entropy, threshold);
  } else {
    std::printf("%s\t%zu\t%zu\t%.4f\t%.6f\t%.4f\n", name.c_str(), min, max,
                static_cast<double>(sum) / static_cast<double>(count), entropy, threshold);
  }
  if (keep != nullptr) {
    keep->path = path;
    keep->nbins = hist.nbins;
    keep->bins.assign(hist.bins, hist.bins + (count == 0 ? 0 : max + 1));
  }
  return nullptr;
}

int run_stats(const Args &args) {
  int status = 0;
  std::vector<Histogram> hists;
  std::printf("file\tmin\tmax\tmean\tentropy\tthreshold\n");
  const bool keep = args.has("--histogram");
  for (const std::string &path : args.operands) {
    Histogram h;
    if (vepra_error_t *e = file_stats(path, keep ? &h : nullptr)) {
      status = report(e);
      continue;
    }
    if (keep) hists.push_back(std::move(h));
  }
  std::fflush(stdout);
  if (args.has("--histogram")) {
    if (int s = report(write_histograms(args.get("--histogram"), hists))) status = s;
  }
  return status;
}

// --------------------------------------------------- mask, psl, density

// Parameters of the measures, read from the command line before any file.
struct MeasureOptions {
  double pixel_size = 100, sensitivity = 4000, latitude = 5;
  bool has_saturated = false;
  double saturated = 0;
};

// Scanner pixels of up to 10 mm, sensitivities (S values) of 1 to 10^6 and
// latitudes of up to 10 decades: every PSL is then a finite number.
vepra_error_t *parse_measure_options(const Args &args, MeasureOptions &o) {
  if (vepra_error_t *e = parse_double(args, "--pixel-size", {0.0, 1e4}, &o.pixel_size)) return e;
  if (vepra_error_t *e = parse_double(args, "--sensitivity", {1.0, 1e6, false}, &o.sensitivity)) {
    return e;
  }
  if (vepra_error_t *e = parse_double(args, "--latitude", {0.0, 10.0}, &o.latitude)) return e;
  o.has_saturated = args.has("--saturated");
  return parse_double(args, "--saturated", {}, &o.saturated);
}

// Whether the measures accept img: the output is allocated only then, so
// that a refused image is reported as such (by the library) however large
// it claims to be.
bool measurable(const vepra_img_t &img) {
  const uint32_t depth = img.bits_per_sample[0];
  const bool has_rows = depth == 8 ? img.data8 != nullptr : img.data16 != nullptr;
  return img.samples_per_pixel == 1 && (img.photometric == 0 || img.photometric == 1) &&
         (depth == 8 || depth == 16) && (img.width == 0 || img.height == 0 || has_rows);
}

using Measure = vepra_error_t *(*)(const MeasureOptions &, const vepra_img_t &, double **);

int run_measure(const Args &args, const char *what, Measure measure) {
  if (args.operands.size() != 1) {
    return report(fail(0, "'%s' takes exactly one input file.", what), kUsage);
  }
  if (!args.has("--output")) return report(fail(0, "'%s' needs -o OUT.tif.", what), kUsage);
  MeasureOptions options;
  if (vepra_error_t *e = parse_measure_options(args, options)) return report(e, kUsage);
  const std::string &path = args.operands[0];
  const std::string &out = args.get("--output");
  Image img;
  if (vepra_error_t *e = read_image(path, img)) return report(e);
  const uint32_t h = img.rec.height, w = img.rec.width;
  Doubles m;
  double *no_rows[1] = {nullptr};
  double **rows = no_rows;
  if (!measurable(img.rec)) rows = nullptr;  // the library says why
  else if (h > 0 && w > 0) {
    if (vepra_error_t *e = m.alloc(h, w)) return report(wrap(e, "Cannot compute %s.", what));
    rows = m.rows;
  }
  if (vepra_error_t *e = measure(options, img.rec, rows)) {
    return report(wrap(e, "Cannot compute %s of '%s'.", what, path.c_str()));
  }
  if (vepra_error_t *e = vepra_img_darr_to_tiff(out.c_str(), rows, h, w)) {
    return report(wrap(e, "Cannot write %s to '%s'.", what, out.c_str()));
  }
  return 0;
}

vepra_error_t *measure_mask(const MeasureOptions &, const vepra_img_t &img, double **out) {
  return vepra_img_data_dmask(&img, out);
}

vepra_error_t *measure_psl(const MeasureOptions &o, const vepra_img_t &img, double **out) {
  return vepra_img_calc_fujiri(&img, out, o.pixel_size, o.sensitivity, o.latitude);
}

vepra_error_t *measure_density(const MeasureOptions &o, const vepra_img_t &img, double **out) {
  // By default a full-scale sample is black under WhiteIsZero (as dense as
  // the darkest unsaturated level) and white under BlackIsZero (density 0).
  const double saturated = o.has_saturated      ? o.saturated
                           : img.photometric == 0 ? std::log10(double(full_scale(img)))
                                                  : 0.0;
  return vepra_img_calc_density(&img, out, saturated);
}

int run_mask(const Args &args) { return run_measure(args, "data mask", measure_mask); }
int run_psl(const Args &args) { return run_measure(args, "PSL", measure_psl); }
int run_density(const Args &args) { return run_measure(args, "optical density", measure_density); }

// ----------------------------------------------------------------- synth

// splitmix64: a small generator whose sequence is the same everywhere.
struct Random {
  uint64_t state;
  uint64_t next() {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  // Approximately normal with mean 0 and deviation 1 (sum of 12 uniforms).
  double normal() {
    double s = -6.0;
    for (int i = 0; i < 12; ++i) s += uniform();
    return s;
  }
};

struct Spot {
  double x, y, sigma, amplitude;
};

vepra_error_t *synthesize(const std::string &out, uint32_t w, uint32_t h, uint64_t pattern) {
  Image img;
  img.rec.width = w;
  img.rec.height = h;
  img.rec.samples_per_pixel = 1;
  img.rec.bits_per_sample[0] = img.rec.bits_per_sample[1] = img.rec.bits_per_sample[2] = 16;
  img.rec.photometric = 1;  // BlackIsZero: bright spots have high values
  img.rec.res_unit = -1;
  void *m = nullptr;
  vepra_error_t *e = vepra_mem_matrix_alloc(&m, sizeof(uint16_t), 0, int(h) - 1, 0, int(w) - 1);
  img.rec.data16 = static_cast<uint16_t **>(m);
  if (e != nullptr) return wrap(e, "Cannot create sample scan.");

  Random rng{pattern};
  std::vector<Spot> spots;
  const double scale = std::min(w, h);
  for (int i = 0; i < 14; ++i) {
    spots.push_back({rng.uniform() * w, rng.uniform() * h, scale * (0.01 + 0.03 * rng.uniform()),
                     8000 + 40000 * rng.uniform()});
  }
  // One spot strong enough to saturate the scanner.
  spots.push_back({w * 0.7, h * 0.3, scale * 0.03, 200000});
  for (uint32_t r = 0; r < h; ++r) {
    for (uint32_t c = 0; c < w; ++c) {
      double v = 2000.0 + 6000.0 * c / w + 3000.0 * r / h;  // background gradient
      for (const Spot &s : spots) {
        const double dx = c - s.x, dy = r - s.y;
        const double d2 = (dx * dx + dy * dy) / (2 * s.sigma * s.sigma);
        if (d2 < 30) v += s.amplitude * std::exp(-d2);
      }
      v += 250.0 * rng.normal();  // scanner noise
      img.rec.data16[r][c] = static_cast<uint16_t>(std::lround(std::clamp(v, 0.0, 65535.0)));
    }
  }
  if ((e = vepra_img_write_tiff(out.c_str(), &img.rec)) != nullptr) {
    return wrap(e, "Cannot write sample scan to '%s'.", out.c_str());
  }
  return nullptr;
}

int run_synth(const Args &args) {
  if (!args.operands.empty()) return report(fail(0, "'synth' takes no input file."), kUsage);
  if (!args.has("--output")) return report(fail(0, "'synth' needs -o OUT.tif."), kUsage);
  unsigned long w = 512, h = 512, pattern = 1;
  for (auto [name, max, value] : {std::tuple{"--width", 16384ul, &w},
                                  std::tuple{"--height", 16384ul, &h},
                                  std::tuple{"--pattern", std::numeric_limits<unsigned long>::max(), &pattern}}) {
    if (vepra_error_t *e = parse_count(args, name, max, value)) return report(e, kUsage);
  }
  return report(synthesize(args.get("--output"), uint32_t(w), uint32_t(h), pattern));
}

// ------------------------------------------------------------------ main

const Command kCommands[] = {
    {"info", "FILE...",
     "Prints the size, depth, photometric interpretation, resolution (pixels\n"
     "per inch and per millimetre), Software text and strip layout of each\n"
     "TIFF file.\n",
     {}, run_info},
    {"stats", "[--histogram OUT.csv] FILE...",
     "Prints one tab-separated line per file, after a header line: minimum,\n"
     "maximum and mean sample value, entropy in bits, and the IsoData\n"
     "threshold.\n"
     "  --histogram OUT.csv  also write the histograms: a column 'value' and\n"
     "                       one column of counts per file\n",
     {"--histogram"}, run_stats},
    {"mask", "FILE -o OUT.tif",
     "Writes the data mask (1 for pixels that are not white, 0 for white\n"
     "ones) as a 16-bit TIFF scaled from 0 to 65535.\n",
     {"--output"}, run_mask},
    {"psl", "FILE -o OUT.tif [--pixel-size UM] [--sensitivity S] [--latitude L]",
     "Writes the photo-stimulated luminescence (Fuji relative intensity) as\n"
     "a 16-bit TIFF scaled linearly from its minimum to its maximum.\n"
     "  --pixel-size UM   scanner pixel size in micrometres (default 100)\n"
     "  --sensitivity S   scan sensitivity setting (default 4000)\n"
     "  --latitude L      scan latitude in decades (default 5)\n"
     "UM lies above 0 and at most 10000, S from 1 to 1000000, L above 0 and at\n"
     "most 10.\n",
     {"--output", "--pixel-size", "--sensitivity", "--latitude"}, run_psl},
    {"density", "FILE -o OUT.tif [--saturated D]",
     "Writes the optical density as a 16-bit TIFF scaled linearly from its\n"
     "minimum to its maximum.\n"
     "  --saturated D   value for full-scale samples (default: log10 of the\n"
     "                  full scale under WhiteIsZero, 0 under BlackIsZero)\n"
     "Infinite values (black pixels of BlackIsZero images) are written as\n"
     "65535, like the largest finite value.\n",
     {"--output", "--saturated"}, run_density},
    {"synth", "-o OUT.tif [--width W] [--height H] [--pattern N]",
     "Writes a synthetic 16-bit BlackIsZero sample scan: a background\n"
     "gradient, bright spots (one of them saturated) and noise. The same\n"
     "options always give the same image.\n"
     "  --width W, --height H   size in pixels (default 512 x 512)\n"
     "  --pattern N             which random pattern of spots and noise (default 1)\n",
     {"--output", "--width", "--height", "--pattern"}, run_synth},
};

void print_usage(FILE *stream) {
  std::fprintf(stream, "Usage: vepra-image COMMAND [OPTIONS] ...\n\nCommands:\n");
  for (const Command &c : kCommands) std::fprintf(stream, "  %s %s\n", c.name, c.usage);
  std::fprintf(stream, "\nRun 'vepra-image COMMAND --help' for the details of a command.\n");
}

int dispatch(int argc, char **argv) {
  if (argc < 2) {
    print_usage(stderr);
    return kUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    print_usage(stdout);
    return 0;
  }
  if (name == "--version") {
    std::printf("vepra-image %s\n", vepra_version_string());
    return 0;
  }
  for (const Command &cmd : kCommands) {
    if (name != cmd.name) continue;
    Args args;
    if (vepra_error_t *e = parse_args(cmd, argc - 2, argv + 2, args)) {
      report(e, kUsage);
      std::fprintf(stderr, "Run 'vepra-image %s --help' for its usage.\n", cmd.name);
      return kUsage;
    }
    if (args.help) {
      std::printf("Usage: vepra-image %s %s\n\n%s", cmd.name, cmd.usage, cmd.help);
      return 0;
    }
    if (cmd.run != run_synth && args.operands.empty()) {
      report(fail(0, "'%s' needs an input file.", cmd.name), kUsage);
      std::fprintf(stderr, "Usage: vepra-image %s %s\n", cmd.name, cmd.usage);
      return kUsage;
    }
    return cmd.run(args);
  }
  report(fail(0, "Unknown command '%s'.", name.c_str()), kUsage);
  print_usage(stderr);
  return kUsage;
}

}  // namespace

int main(int argc, char **argv) {
  if (vepra_initialize() != 0) {
    std::fprintf(stderr, "vepra-image: the vepra library could not be initialised\n");
    return kFailure;
  }
  const int status = dispatch(argc, argv);
  vepra_terminate();
  return status;
}
