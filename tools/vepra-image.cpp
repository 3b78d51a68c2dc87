// vepra-image: looks at grayscale TIFF images and measures them with the
// vepra library (information, statistics, regions, data mask, PSL, optical
// density), draws previews of measured regions, and writes a synthetic
// sample scan for demonstrations.
//
// Every command that reads scans takes files and directories (walked with
// the library's traversal) and works on several files at once; the output
// keeps the order of the input, and the commands that write a file per
// input mirror the directories under the output directory. Every failure
// is an error chain printed with vepra_error_handle(); the exit status is 0
// on success, 1 when a file or an operation failed and 2 for a command
// line that cannot be understood.
// Options and --help come from CLI11, JSON from nlohmann/json.
#define VEPRA_ERROR_NO_LOCATION 1  // the chains tell the user, not the source

#include <malloc.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "vepra.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

using Json = nlohmann::ordered_json;

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

// Options and operands of one subcommand as CLI11 found them: the values
// of each option given (none for a flag), in command-line order.
struct Args {
  std::vector<std::string> operands;
  std::map<std::string, std::vector<std::string>> options;

  bool has(const std::string &name) const { return options.count(name) != 0; }
  // The last value given (a repeated single-valued option keeps the last).
  const std::string &get(const std::string &name) const { return options.at(name).back(); }
  const std::vector<std::string> &all(const std::string &name) const { return options.at(name); }
};

enum class Kind { kValue, kFlag, kRepeated };

struct OptionSpec {
  const char *names;  // CLI11 names, e.g. "-o,--output"
  const char *key;    // the long name the commands look up
  Kind kind;
  const char *help;
};

// What the value of an option stands for, in --help.
const char *value_name(const std::string &key) {
  static const std::map<std::string, const char *> names = {
      {"--include", "PATTERNS"}, {"--exclude", "PATTERNS"}, {"--jobs", "N"},
      {"--histogram", "OUT.csv"}, {"--plot", "OUT.svg"},     {"--roi", "REGION"},
      {"--rois", "FILE.csv"},     {"--ring", "R1,R2"},        {"--output", "OUT"},
      {"--percentiles", "P1,P2"}, {"--pixel-size", "UM"},     {"--sensitivity", "S"},
      {"--latitude", "L"},        {"--saturated", "D"},       {"--width", "W"},
      {"--height", "H"},          {"--pattern", "N"}};
  const auto it = names.find(key);
  return it != names.end() ? it->second : "VALUE";
}

struct Command {
  const char *name;
  const char *usage;  // operands and options, after the command name
  const char *help;   // what the command does, shown after the options
  std::vector<OptionSpec> options;
  int (*run)(const Args &args);
  bool takes_files;   // without operands it is a usage error
};

// The options shared by the commands that take files and directories.
const std::vector<OptionSpec> kWalkOptions = {
    {"-r,--recursive", "--recursive", Kind::kFlag, "descend into subdirectories"},
    {"--include", "--include", Kind::kValue,
     "patterns (separated by ';') a file of a directory must match "
     "(default '*.tif;*.tiff;*.TIF;*.TIFF')"},
    {"--exclude", "--exclude", Kind::kValue, "patterns of files of a directory to leave out"},
    {"-j,--jobs", "--jobs", Kind::kValue,
     "files worked on at once (default: the processors this process may use)"},
};

std::vector<OptionSpec> with_walk(std::vector<OptionSpec> own) {
  own.insert(own.end(), kWalkOptions.begin(), kWalkOptions.end());
  return own;
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

// Splits "a,b,c" into finite numbers; false when a piece is not one.
bool parse_numbers(const std::string &text, std::vector<double> &out) {
  out.clear();
  size_t begin = 0;
  for (;;) {
    const size_t comma = text.find(',', begin);
    const std::string piece = text.substr(begin, comma == std::string::npos ? comma : comma - begin);
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(piece.c_str(), &end);
    if (piece.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v)) return false;
    out.push_back(v);
    if (comma == std::string::npos) return true;
    begin = comma + 1;
  }
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

// The image of a multi-page file that every command reads; set from the
// command line before any file is read, so the workers only read it.
uint32_t g_page = 0;

vepra_error_t *read_image(const std::string &path, Image &img, uint32_t flags = 0,
                          uint32_t page = g_page) {
  // A FIFO or a terminal would block or never end: only files that can be
  // sought are read. A path that does not exist is left to the library.
  struct stat st {};
  vepra_error_t *e = nullptr;
  if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    e = fail(VEPRA_E_IO_OPEN, "'%s' is not a regular file or block device", path.c_str());
  } else {
    e = vepra_img_read_ex(path.c_str(), &img.rec, kReadFlags | flags, page);
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

// ------------------------------------------------- files and directories

constexpr const char *kDefaultInclude = "*.tif;*.tiff;*.TIF;*.TIFF";

// An APR pool for the duration of a scope.
struct Pool {
  apr_pool_t *pool = nullptr;
  Pool() { apr_pool_create(&pool, nullptr); }
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  ~Pool() {
    if (pool != nullptr) apr_pool_destroy(pool);
  }
};

vepra_error_t *collect_file(const char *path, void *user, apr_pool_t *) {
  try {
    static_cast<std::vector<std::string> *>(user)->emplace_back(path);
    return nullptr;
  } catch (const std::exception &) {
    return fail(VEPRA_E_ALLOC, "Cannot keep the name of '%s'", path);
  }
}

// The files a command works on, and for each the name it has below the
// operand it came from: its path relative to the directory walked, or the
// base name of a file named on the command line. Outputs written to a
// directory mirror these names.
struct Inputs {
  std::vector<std::string> files;
  std::vector<std::string> relative;
  bool any_directory = false;  // an operand was a directory
};

std::string base_name(const std::string &path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

// The files named by operands: a file (or anything that is not a
// directory) stands for itself; a directory for the files in it that pass
// the patterns, found by vepra_dir_traverse() and sorted by name so that
// the order does not depend on the file system. A directory that cannot
// be walked is reported (status becomes 1) and the others go on.
Inputs expand_operands(const Args &args, int &status) {
  Inputs in;
  Pool pool;
  for (const std::string &operand : args.operands) {
    struct stat st {};
    if (stat(operand.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      in.files.push_back(operand);
      in.relative.push_back(base_name(operand));
      continue;
    }
    in.any_directory = true;
    std::vector<std::string> found;
    vepra_dir_options_t options{};
    options.flags = args.has("--recursive") ? VEPRA_DIR_RECURSIVE | VEPRA_DIR_STOP_ON_ERROR
                                            : VEPRA_DIR_STOP_ON_ERROR;
    options.callback = collect_file;
    options.user = &found;
    const std::string include = args.has("--include") ? args.get("--include") : kDefaultInclude;
    const char *exclude = args.has("--exclude") ? args.get("--exclude").c_str() : nullptr;
    // "dir/" and "dir" walk alike; the library joins names with "/".
    std::string dir = operand;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    if (vepra_error_t *e = vepra_dir_traverse(dir.c_str(), include.c_str(), exclude, &options,
                                              pool.pool)) {
      status = report(wrap(e, "Cannot list directory '%s'.", operand.c_str()));
    } else if (found.empty()) {
      // Most likely a mistyped pattern or the wrong directory: say so.
      status = report(fail(0, "No file in '%s' matches '%s'%s.", operand.c_str(), include.c_str(),
                           args.has("--recursive") ? "" : " (add --recursive for subdirectories)"));
    }
    std::sort(found.begin(), found.end());
    for (const std::string &file : found) {
      // The walk names every file "dir/..."; what follows is its own name.
      size_t skip = file.compare(0, dir.size(), dir) == 0 ? dir.size() : 0;
      while (skip < file.size() && file[skip] == '/') ++skip;
      in.files.push_back(file);
      in.relative.push_back(file.substr(skip));
    }
    apr_pool_clear(pool.pool);
  }
  return in;
}

// The processors this process may run on.
unsigned usable_processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) {
    return unsigned(CPU_COUNT(&set));
  }
  const unsigned n = std::thread::hardware_concurrency();
  return n > 0 ? n : 1;
}

// ------------------------------------------------------ parallel runner

// A piece of what one file gave: text for standard output, or an error
// chain (owned here until the runner prints it).
struct Part {
  std::string text;
  vepra_error_t *error = nullptr;
};

// What one file gave: parts printed in their order (a command that can
// fail on some of a file's items and go on), then text for standard
// output or an error chain, and whatever the command keeps.
template <typename Extra>
struct Outcome {
  std::vector<Part> parts;
  std::string text;
  vepra_error_t *error = nullptr;
  Extra extra{};
};

// A line on standard error that tells how far the work is, drawn only on a
// terminal; everything else printed on the terminal first erases it.
class Progress {
 public:
  explicit Progress(size_t total)
      : total_(total), shown_(total > 1 && isatty(STDERR_FILENO) == 1),
        start_(std::chrono::steady_clock::now()) {}
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  ~Progress() { erase(); }

  void erase() {
    if (!drawn_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    drawn_ = false;
  }

  // Redraws the line at most five times a second (always with force).
  void update(size_t done, bool force = false) {
    if (!shown_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && drawn_ && now - last_ < std::chrono::milliseconds(200)) return;
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? double(done) / seconds : 0.0;
    char left[32] = "?";
    if (rate > 0) {
      const auto s = static_cast<unsigned long>(std::ceil(double(total_ - done) / rate));
      if (s >= 60) std::snprintf(left, sizeof left, "%lu min %02lu s", s / 60, s % 60);
      else std::snprintf(left, sizeof left, "%lu s", s);
    }
    std::fprintf(stderr, "\r\033[K%zu/%zu files, %.1f files/s, %s left", done, total_, rate, left);
    std::fflush(stderr);
    drawn_ = true;
  }

 private:
  size_t total_;
  bool shown_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_, last_;
};

// Every worker thread allocates from a glibc arena of its own, which grows
// a page at a time: the rows of its first image would each cost a system
// call, and the zeroed counters of its first histogram would be mapped
// read-only and copied on first write, each copy interrupting the other
// workers to flush their address translations. Taking and returning one
// block below the mmap limit set in main() grows the arena once; the
// files that follow are then served from memory it already holds.
// That memory is also asked for 2 MiB pages: a 2048 x 2048 16-bit image
// then spans four translations instead of two thousand, and two workers
// streaming images no longer evict each other's entries (with 4 KiB
// pages, --jobs 2 ran at 1.77 times one job; with 2 MiB pages at 1.86).
// The advice is only a hint; where the kernel declines it, nothing changes.
void reserve_worker_arena() {
  constexpr size_t kReserve = size_t{24} << 20;
  void *volatile block = std::malloc(kReserve);  // volatile: the pair must stay
  if (block != nullptr) {
    constexpr uintptr_t kHuge = uintptr_t{2} << 20;
    const auto begin = (reinterpret_cast<uintptr_t>(block) + kHuge - 1) & ~(kHuge - 1);
    const auto end = (reinterpret_cast<uintptr_t>(block) + kReserve) & ~(kHuge - 1);
    if (end > begin) ::madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
  }
  std::free(block);
}

// Runs work on every file (given its index and name) with up to `jobs`
// threads and hands the outcomes to `done` in the order of files, on the
// calling thread; then its texts go to standard output, its error chains
// are printed on standard error and cleared (the status becomes 1).
// Returns that status.
template <typename Extra>
int run_files(const std::vector<std::string> &files, unsigned jobs,
              const std::function<Outcome<Extra>(size_t, const std::string &)> &work,
              const std::function<void(size_t, Outcome<Extra> &)> &done) {
  const size_t n = files.size();
  std::vector<std::optional<Outcome<Extra>>> results(n);
  std::mutex mutex;
  std::condition_variable ready;
  std::atomic<size_t> next{0};
  auto worker = [&] {
    reserve_worker_arena();
    for (size_t i; (i = next.fetch_add(1)) < n;) {
      Outcome<Extra> outcome;
      try {
        outcome = work(i, files[i]);
      } catch (const std::exception &ex) {
        outcome.error = fail(VEPRA_E_ALLOC, "Cannot measure '%s': %s", files[i].c_str(), ex.what());
      }
      std::lock_guard<std::mutex> lock(mutex);
      results[i] = std::move(outcome);
      ready.notify_one();
    }
  };
  jobs = unsigned(std::min<size_t>(std::max(jobs, 1u), std::max<size_t>(n, 1)));
  std::vector<std::thread> threads;
  // The calling thread only prints, so output and progress flow while
  // the workers read.
  for (unsigned t = 0; t < jobs; ++t) threads.emplace_back(worker);

  int status = 0;
  Progress progress(n);
  const bool stdout_terminal = isatty(STDOUT_FILENO) == 1;
  for (size_t i = 0; i < n; ++i) {
    Outcome<Extra> outcome;
    {
      std::unique_lock<std::mutex> lock(mutex);
      while (!results[i]) {
        ready.wait_for(lock, std::chrono::milliseconds(200));
        if (!results[i]) {
          lock.unlock();
          progress.update(i);
          lock.lock();
        }
      }
      outcome = std::move(*results[i]);
      results[i].reset();
    }
    done(i, outcome);  // may take what it keeps and adjust the text
    outcome.parts.push_back({std::move(outcome.text), outcome.error});
    outcome.error = nullptr;
    for (Part &part : outcome.parts) {
      // The line goes before anything else reaches the terminal.
      if ((!part.text.empty() && stdout_terminal) || part.error != nullptr) progress.erase();
      std::fwrite(part.text.data(), 1, part.text.size(), stdout);
      if (part.error != nullptr) {
        std::fflush(stdout);
        status = report(part.error);
        part.error = nullptr;
      }
    }
    progress.update(i + 1, i + 1 == n);
  }
  progress.erase();
  for (std::thread &t : threads) t.join();
  std::fflush(stdout);
  return status;
}

// The files and the number of jobs of a command that takes files; false
// (with status set) for a --jobs value that cannot be used.
bool files_and_jobs(const Args &args, Inputs &inputs, unsigned &jobs, int &status) {
  unsigned long j = usable_processors();
  if (vepra_error_t *e = parse_count(args, "--jobs", 1024, &j)) {
    status = report(e, kUsage);
    return false;
  }
  jobs = unsigned(j);
  inputs = expand_operands(args, status);
  return true;
}

struct NoExtra {};

// ------------------------------------------------------ written results

// Where each input's result goes. With one file named on the command line
// -o is the file to write. With several operands or a directory it names a
// directory (made when missing) under which each result takes the input's
// name below its operand, in subdirectories made as needed. A result that
// would land where an earlier input's went, or on one of the inputs, is
// refused rather than written over.
struct Outputs {
  std::vector<std::string> paths;
  std::vector<std::string> refused;  // why an input gets no result, or ""
};

vepra_error_t *plan_outputs(const Args &args, const Inputs &in, Outputs &out) {
  const std::string &target = args.get("--output");
  const size_t n = in.files.size();
  out.paths.assign(n, target);
  out.refused.assign(n, {});
  if (args.operands.size() == 1 && !in.any_directory) return nullptr;
  if (n == 0) return nullptr;
  std::error_code ec;
  std::filesystem::create_directories(target, ec);
  if (ec || !std::filesystem::is_directory(target, ec)) {
    return fail(VEPRA_E_IO_OPEN, "Cannot make directory '%s': %s", target.c_str(),
                (ec ? ec : std::make_error_code(std::errc::not_a_directory)).message().c_str());
  }
  std::set<std::pair<dev_t, ino_t>> inputs;
  for (const std::string &file : in.files) {
    struct stat st {};
    if (stat(file.c_str(), &st) == 0) inputs.insert({st.st_dev, st.st_ino});
  }
  std::map<std::string, size_t> first;
  for (size_t i = 0; i < n; ++i) {
    std::string &path = out.paths[i];
    path = target + (!target.empty() && target.back() == '/' ? "" : "/") + in.relative[i];
    struct stat st {};
    const auto [it, fresh] = first.emplace(path, i);
    if (!fresh) {
      out.refused[i] = "'" + path + "' is the result of '" + in.files[it->second] + "' already";
    } else if (stat(path.c_str(), &st) == 0 && inputs.count({st.st_dev, st.st_ino}) != 0) {
      out.refused[i] = "'" + path + "' is one of the input files";
    }
  }
  return nullptr;
}

// Writes a result of `in` to `out`, or says why not.
using Writer = std::function<vepra_error_t *(const std::string &in, const std::string &out)>;

// The run of a command that writes one result per input (named `what` in
// its messages): every input in parallel, the failures reported in the
// order of the inputs. Returns the exit status.
int run_writes(const Args &args, const char *what, const Writer &write) {
  int status = 0;
  Inputs inputs;
  unsigned jobs = 1;
  if (!files_and_jobs(args, inputs, jobs, status)) return status;
  Outputs outputs;
  if (vepra_error_t *e = plan_outputs(args, inputs, outputs)) {
    return report(wrap(e, "Cannot write %s.", what));
  }
  const bool nested = args.operands.size() != 1 || inputs.any_directory;
  const int s = run_files<NoExtra>(
      inputs.files, jobs,
      [&](size_t i, const std::string &path) {
        Outcome<NoExtra> o;
        const std::string &out = outputs.paths[i];
        if (!outputs.refused[i].empty()) {
          o.error = wrap(fail(VEPRA_E_IO_WRITE, "%s", outputs.refused[i].c_str()),
                         "Cannot write %s of '%s'.", what, path.c_str());
          return o;
        }
        std::error_code ec;
        const std::filesystem::path parent = std::filesystem::path(out).parent_path();
        if (nested && !parent.empty()) std::filesystem::create_directories(parent, ec);
        if (ec) {
          o.error = wrap(fail(VEPRA_E_IO_OPEN, "Cannot make directory '%s': %s",
                              parent.c_str(), ec.message().c_str()),
                         "Cannot write %s of '%s'.", what, path.c_str());
          return o;
        }
        o.error = write(path, out);
        return o;
      },
      [](size_t, Outcome<NoExtra> &) {});
  return s != 0 ? s : status;
}

// A JSON text on one line; names that are not UTF-8 get U+FFFD.
std::string json_line(const Json &j) {
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string printf_string(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string printf_string(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = vformat(format, args);
  va_end(args);
  return text;
}

// ------------------------------------------------------------------ info

// One line per page of a file: its size, depth, compression and
// photometric interpretation, or why it cannot be read.
std::string pages_text(const std::string &path, uint32_t &pages) {
  pages = 0;
  if (vepra_error_t *e = vepra_img_page_count(path.c_str(), &pages)) {
    vepra_error_clear(e);
    return {};
  }
  std::string t = printf_string("pages: %u\n", pages);
  for (uint32_t p = 0; p < pages; ++p) {
    Image page;
    if (vepra_error_t *e = read_image(path, page, VEPRA_IMG_READ_HEADER, p)) {
      t += printf_string("page %u: not readable: %s\n", p, vepra_error_root_cause(e)->message);
      vepra_error_clear(e);
      continue;
    }
    const vepra_img_t &r = page.rec;
    t += printf_string("page %u: %u x %u pixels, %u bits, compression %u, photometric %d (%s)\n", p,
                       r.width, r.height, r.bits_per_sample[0], r.compression, r.photometric,
                       photometric_name(r.photometric));
  }
  return t;
}

Outcome<NoExtra> info_of(const std::string &path, bool json) {
  Outcome<NoExtra> o;
  Image img;
  if (vepra_error_t *e = read_image(path, img, VEPRA_IMG_READ_HEADER)) {
    o.error = e;
    return o;
  }
  const vepra_img_t &r = img.rec;
  double xmm = 0, ymm = 0;
  const bool has_resolution = r.xres > 0 || r.yres > 0;
  if (has_resolution) {
    if (vepra_error_t *e = vepra_img_get_resmm(&r, &xmm, &ymm)) vepra_error_clear(e);
  }
  if (json) {
    Json j;
    j["file"] = path;
    j["width"] = r.width;
    j["height"] = r.height;
    j["bits_per_sample"] = r.bits_per_sample[0];
    j["samples_per_pixel"] = r.samples_per_pixel;
    j["photometric"] = r.photometric;
    j["photometric_name"] = photometric_name(r.photometric);
    if (has_resolution) {
      j["resolution"] = {{"x_ppi", r.xres}, {"y_ppi", r.yres},
                         {"x_per_mm", xmm}, {"y_per_mm", ymm}};
    } else {
      j["resolution"] = nullptr;
    }
    j["resolution_unit"] = r.res_unit;
    j["software"] = r.software != nullptr ? Json(r.software) : Json(nullptr);
    j["compression"] = r.compression;
    Json strips = Json::array();
    for (int32_t s = 0; s < r.strip_count; ++s) {
      const unsigned bytes = uint32_t(s) < r.strip_byte_count_count ? r.strip_byte_counts[s] : 0;
      strips.push_back({{"offset", r.strip_offsets[s]}, {"bytes", bytes}});
    }
    j["strips"] = std::move(strips);
    uint32_t pages = 0;
    pages_text(path, pages);
    j["pages"] = pages;
    o.text = json_line(j);
    return o;
  }
  std::string &t = o.text;
  t += printf_string("file: %s\n", escaped(path).c_str());
  t += printf_string("size: %u x %u pixels\n", r.width, r.height);
  t += printf_string("depth: %u bits per sample, %u sample(s) per pixel\n", r.bits_per_sample[0],
                     r.samples_per_pixel);
  t += printf_string("photometric: %d (%s)\n", r.photometric, photometric_name(r.photometric));
  if (has_resolution) {
    t += printf_string("resolution: %g x %g pixels per inch, %g x %g pixels per mm\n", r.xres,
                       r.yres, xmm, ymm);
  } else if (r.res_unit == 1) {
    t += "resolution: none (ResolutionUnit 1, no absolute unit)\n";
  } else {
    t += "resolution: none\n";
  }
  t += printf_string("software: %s\n", r.software != nullptr ? r.software : "none");
  t += printf_string("compression: %u\n", r.compression);
  t += printf_string("strips: %d\n", r.strip_count);
  for (int32_t s = 0; s < r.strip_count; ++s) {
    const unsigned bytes = uint32_t(s) < r.strip_byte_count_count ? r.strip_byte_counts[s] : 0;
    t += printf_string("strip %d: offset %u, %u bytes\n", s, r.strip_offsets[s], bytes);
  }
  uint32_t pages = 0;
  t += pages_text(path, pages);
  return o;
}

int run_info(const Args &args) {
  int status = 0;
  Inputs inputs;
  unsigned jobs = 1;
  if (!files_and_jobs(args, inputs, jobs, status)) return status;
  const std::vector<std::string> &files = inputs.files;
  const bool json = args.has("--json");
  bool first = true;
  const int s = run_files<NoExtra>(
      files, jobs, [json](size_t, const std::string &path) { return info_of(path, json); },
      [&](size_t, Outcome<NoExtra> &o) {
        // Text records are separated by an empty line.
        if (json || o.text.empty()) return;
        if (!first) o.text.insert(0, "\n");
        first = false;
      });
  return s != 0 ? s : status;
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

// A histogram kept for the CSV file and the plot: the counts up to the
// last occupied value (the rest are 0) and the number of values.
struct Histogram {
  std::string path;
  size_t nbins = 0;
  std::vector<uint64_t> bins;
};

// The figures of one file's statistics line.
struct Figures {
  bool empty = true;  // no pixel at all
  size_t min = 0, max = 0;
  double mean = 0, entropy = 0, threshold = 0;
};

struct StatsExtra {
  Histogram hist;
  Figures fig;
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

// vepra_img_entropy()'s sum, -sum p log2 p over the occupied values in
// ascending order, taken from the histogram already made so that the
// samples are counted once; the same operations in the same order give
// the same bits.
double entropy_of(const Counts &hist, uint64_t total) {
  constexpr double kMinusLn2 = -0.6931471805599453;
  double h = 0.0;
  for (size_t v = 0; v < hist.nbins; ++v) {
    if (hist.bins[v] == 0) continue;
    const double p = static_cast<double>(hist.bins[v]) / static_cast<double>(total);
    h = h + (std::log(p) / kMinusLn2) * p;
  }
  return h;
}

// The statistics of path: its line (text or JSON) and, with keep, its
// histogram.
Outcome<StatsExtra> stats_of(const std::string &path, bool keep, bool json) {
  Outcome<StatsExtra> o;
  Image img;
  if (vepra_error_t *e = read_image(path, img)) {
    o.error = e;
    return o;
  }
  const char *context = "Cannot compute statistics of '%s'.";
  Counts hist;
  if (vepra_error_t *e = vepra_img_histogram(&img.rec, &hist.nbins, &hist.bins)) {
    o.error = wrap(e, context, path.c_str());
    return o;
  }
  Figures &f = o.extra.fig;
  f.threshold = vepra_img_thres_IJ(hist.nbins, hist.bins);

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
  f.empty = count == 0;
  f.entropy = entropy_of(hist, count);
  if (!f.empty) {
    f.min = min;
    f.max = max;
    f.mean = static_cast<double>(sum) / static_cast<double>(count);
  }
  if (json) {
    Json j;
    j["file"] = path;
    j["min"] = f.empty ? Json(nullptr) : Json(f.min);
    j["max"] = f.empty ? Json(nullptr) : Json(f.max);
    j["mean"] = f.empty ? Json(nullptr) : Json(f.mean);
    j["entropy"] = f.entropy;
    j["threshold"] = f.threshold;
    o.text = json_line(j);
  } else if (f.empty) {
    o.text = printf_string("%s\t-\t-\t-\t%.6f\t%.4f\n", escaped(path).c_str(), f.entropy,
                           f.threshold);
  } else {
    o.text = printf_string("%s\t%zu\t%zu\t%.4f\t%.6f\t%.4f\n", escaped(path).c_str(), f.min,
                           f.max, f.mean, f.entropy, f.threshold);
  }
  if (keep) {
    o.extra.hist.path = path;
    o.extra.hist.nbins = hist.nbins;
    o.extra.hist.bins.assign(hist.bins, hist.bins + (f.empty ? 0 : max + 1));
  }
  return o;
}

vepra_error_t *write_plot(const std::string &out, const Histogram &h, const Figures &f, bool log);

int run_stats(const Args &args) {
  int status = 0;
  Inputs inputs;
  unsigned jobs = 1;
  if (!files_and_jobs(args, inputs, jobs, status)) return status;
  const std::vector<std::string> &files = inputs.files;
  const bool plot = args.has("--plot");
  if (args.has("--log") && !plot) {
    return report(fail(0, "'--log' draws the counts of '--plot' only."), kUsage);
  }
  if (plot && files.size() != 1) {
    return report(fail(0, "'--plot' takes exactly one input file, not %zu.", files.size()), kUsage);
  }
  const bool json = args.has("--json");
  const bool keep = args.has("--histogram") || plot;
  std::vector<Histogram> hists;
  std::optional<StatsExtra> plotted;
  if (!json) std::printf("file\tmin\tmax\tmean\tentropy\tthreshold\n");
  const int s = run_files<StatsExtra>(
      files, jobs, [&](size_t, const std::string &path) { return stats_of(path, keep, json); },
      [&](size_t, Outcome<StatsExtra> &o) {
        if (o.text.empty()) return;  // failed
        if (plot) plotted = o.extra;
        if (args.has("--histogram")) hists.push_back(std::move(o.extra.hist));
      });
  if (s != 0) status = s;
  if (args.has("--histogram")) {
    if (int e = report(write_histograms(args.get("--histogram"), hists))) status = e;
  }
  if (plot && plotted) {
    if (int e = report(write_plot(args.get("--plot"), plotted->hist, plotted->fig,
                                  args.has("--log")))) {
      status = e;
    }
  }
  return status;
}

// ------------------------------------------------------------------ plot

std::string xml_text(const std::string &s) {
  std::string out;
  for (const char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default:
        // Control characters are not allowed in XML 1.0 text.
        out += static_cast<unsigned char>(c) < 0x20 && c != '\t' ? '?' : c;
    }
  }
  return out;
}

// The histogram of one file as an SVG picture: counts (linear, or log10 of
// 1 + count) over the values from the minimum to the maximum, in at most
// 350 columns, with the minimum, maximum, mean and IsoData threshold
// marked by vertical lines and labelled above the plot. The root element
// carries the value range and the plot area (data-x0, data-x1, data-left,
// data-width) so that a reader can place values on it; each mark carries
// its value (data-value).
vepra_error_t *write_plot(const std::string &out, const Histogram &h, const Figures &f, bool log) {
  constexpr double kWidth = 800, kHeight = 440, kLeft = 80, kRight = 20, kTop = 90,
                   kBottom = 50;
  constexpr double kPlotW = kWidth - kLeft - kRight, kPlotH = kHeight - kTop - kBottom;
  constexpr size_t kColumns = 350;
  double lo = f.empty ? 0.0 : double(f.min), hi = f.empty ? double(h.nbins) : double(f.max);
  if (hi - lo < 1) lo -= 0.5, hi += 0.5;
  const double pad = 0.02 * (hi - lo);
  const double x0 = lo - pad, x1 = hi + pad;
  auto x_of = [&](double v) { return kLeft + (v - x0) / (x1 - x0) * kPlotW; };

  std::vector<uint64_t> columns(kColumns, 0);
  for (size_t v = 0; v < h.bins.size(); ++v) {
    if (h.bins[v] == 0) continue;
    const auto c = static_cast<size_t>((double(v) - x0) / (x1 - x0) * kColumns);
    columns[std::min(c, kColumns - 1)] += h.bins[v];
  }
  const uint64_t top = std::max<uint64_t>(1, *std::max_element(columns.begin(), columns.end()));
  auto height_of = [&](uint64_t n) {
    return log ? std::log10(1.0 + double(n)) / std::log10(1.0 + double(top)) * kPlotH
               : double(n) / double(top) * kPlotH;
  };

  std::string svg;
  svg += printf_string(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
      "viewBox=\"0 0 %.0f %.0f\" data-x0=\"%.6f\" data-x1=\"%.6f\" data-left=\"%.2f\" "
      "data-width=\"%.2f\" font-family=\"sans-serif\" font-size=\"12\">\n",
      kWidth, kHeight, kWidth, kHeight, x0, x1, kLeft, kPlotW);
  svg += printf_string("<rect width=\"%.0f\" height=\"%.0f\" fill=\"white\"/>\n", kWidth, kHeight);
  svg += "<title>Histogram of " + xml_text(h.path) + "</title>\n";
  svg += printf_string("<text x=\"%.2f\" y=\"18\" font-size=\"14\">Histogram of %s%s</text>\n",
                       kLeft, xml_text(h.path).c_str(), log ? " (log counts)" : "");
  // Bars.
  svg += "<g id=\"bars\" fill=\"#4a6fa5\">\n";
  const double col_w = kPlotW / kColumns;
  for (size_t c = 0; c < kColumns; ++c) {
    if (columns[c] == 0) continue;
    const double bh = height_of(columns[c]);
    svg += printf_string("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\"/>\n",
                         kLeft + double(c) * col_w, kTop + kPlotH - bh, col_w, bh);
  }
  svg += "</g>\n";
  // Axes with five value ticks and the count range.
  svg += printf_string(
      "<g id=\"axes\" stroke=\"black\" fill=\"none\">\n"
      "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\"/>\n"
      "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\"/>\n</g>\n",
      kLeft, kTop + kPlotH, kLeft + kPlotW, kTop + kPlotH, kLeft, kTop, kLeft, kTop + kPlotH);
  svg += "<g id=\"ticks\" text-anchor=\"middle\">\n";
  for (int t = 0; t <= 4; ++t) {
    const double v = lo + (hi - lo) * t / 4.0;
    svg += printf_string(
        "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"black\"/>"
        "<text x=\"%.2f\" y=\"%.2f\">%.6g</text>\n",
        x_of(v), kTop + kPlotH, x_of(v), kTop + kPlotH + 5, x_of(v), kTop + kPlotH + 18, v);
  }
  svg += printf_string("<text x=\"%.2f\" y=\"%.2f\">sample value</text>\n", kLeft + kPlotW / 2,
                       kHeight - 10);
  svg += "</g>\n";
  svg += printf_string(
      "<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"end\">%llu</text>\n"
      "<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"end\">0</text>\n"
      "<text x=\"15\" y=\"%.2f\" transform=\"rotate(-90 15 %.2f)\" text-anchor=\"middle\">%s</text>\n",
      kLeft - 6, kTop + 4, static_cast<unsigned long long>(top), kLeft - 6, kTop + kPlotH,
      kTop + kPlotH / 2, kTop + kPlotH / 2, log ? "count (log scale)" : "count");
  // The marks, each label on its own row above the plot.
  if (!f.empty) {
    const struct {
      const char *name;
      double value;
      const char *colour;
      const char *format;
    } marks[] = {{"min", double(f.min), "#1b7837", "%.0f"},
                 {"max", double(f.max), "#c51b7d", "%.0f"},
                 {"mean", f.mean, "#e08214", "%.4f"},
                 {"threshold", f.threshold, "#d7191c", "%.4f"}};
    svg += "<g id=\"marks\">\n";
    int row = 0;
    for (const auto &m : marks) {
      const double x = x_of(m.value);
      const double label_y = 36 + 14 * row++;
      const std::string value = printf_string(m.format, m.value);
      const bool right = x > kLeft + kPlotW * 0.7;
      svg += printf_string(
          "<line class=\"mark\" id=\"mark-%s\" data-value=\"%s\" x1=\"%.2f\" y1=\"%.2f\" "
          "x2=\"%.2f\" y2=\"%.2f\" stroke=\"%s\" stroke-width=\"1.5\" stroke-dasharray=\"5,3\"/>\n"
          "<text class=\"label\" id=\"label-%s\" x=\"%.2f\" y=\"%.2f\" fill=\"%s\" "
          "text-anchor=\"%s\">%s %s</text>\n",
          m.name, value.c_str(), x, label_y + 3, x, kTop + kPlotH, m.colour, m.name,
          right ? x - 4 : x + 4, label_y, m.colour, right ? "end" : "start", m.name,
          value.c_str());
    }
    svg += "</g>\n";
  }
  svg += "</svg>\n";

  FILE *file = std::fopen(out.c_str(), "w");
  if (file == nullptr) {
    return wrap(fail(VEPRA_E_IO_OPEN, "Cannot open file '%s'", out.c_str()), "Cannot write plot.");
  }
  const bool short_write = std::fwrite(svg.data(), 1, svg.size(), file) != svg.size();
  if (std::fclose(file) != 0 || short_write) {
    return wrap(fail(VEPRA_E_IO_WRITE, "Cannot write file '%s'", out.c_str()), "Cannot write plot.");
  }
  return nullptr;
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
  if (!args.has("--output")) return report(fail(0, "'%s' needs -o OUT.tif.", what), kUsage);
  MeasureOptions options;
  if (vepra_error_t *e = parse_measure_options(args, options)) return report(e, kUsage);
  return run_writes(args, what, [&](const std::string &path, const std::string &out) {
    Image img;
    if (vepra_error_t *e = read_image(path, img)) return e;
    const uint32_t h = img.rec.height, w = img.rec.width;
    Doubles m;
    double *no_rows[1] = {nullptr};
    double **rows = no_rows;
    if (!measurable(img.rec)) rows = nullptr;  // the library says why
    else if (h > 0 && w > 0) {
      if (vepra_error_t *e = m.alloc(h, w)) return wrap(e, "Cannot compute %s.", what);
      rows = m.rows;
    }
    if (vepra_error_t *e = measure(options, img.rec, rows)) {
      return wrap(e, "Cannot compute %s of '%s'.", what, path.c_str());
    }
    if (vepra_error_t *e = vepra_img_darr_to_tiff(out.c_str(), rows, h, w)) {
      return wrap(e, "Cannot write %s to '%s'.", what, out.c_str());
    }
    return static_cast<vepra_error_t *>(nullptr);
  });
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

// --------------------------------------------------------------- regions

// A region as the user wrote it and as the library measures it.
struct Region {
  std::string text;
  vepra_img_roi_t roi{};
};

const char *shape_name(int shape) {
  return shape == VEPRA_IMG_ROI_CIRCLE ? "circle" : shape == VEPRA_IMG_ROI_ELLIPSE ? "ellipse" : "rect";
}

// Coordinates beyond a billion pixels are refused: no scan is that large,
// and the previews round them to int.
constexpr double kMaxCoordinate = 1e9;

// Parses "circle:X,Y,R", "ellipse:X,Y,A,B" or "rect:X0,Y0,X1,Y1" (a comma
// may stand for the colon, as in CSV files); on failure says why.
bool parse_region(const std::string &text, vepra_img_roi_t &roi, std::string &why) {
  const size_t sep = text.find_first_of(":,");
  const std::string shape = text.substr(0, sep);
  const struct {
    const char *name;
    int shape;
    size_t count;
    const char *form;
  } shapes[] = {{"circle", VEPRA_IMG_ROI_CIRCLE, 3, "circle:X,Y,R"},
                {"ellipse", VEPRA_IMG_ROI_ELLIPSE, 4, "ellipse:X,Y,A,B"},
                {"rect", VEPRA_IMG_ROI_RECT, 4, "rect:X0,Y0,X1,Y1"}};
  for (const auto &s : shapes) {
    if (shape != s.name) continue;
    std::vector<double> v;
    if (sep == std::string::npos || !parse_numbers(text.substr(sep + 1), v) || v.size() != s.count) {
      why = std::string("expected ") + s.form + " with " + std::to_string(s.count) + " numbers";
      return false;
    }
    for (const double x : v) {
      if (std::fabs(x) > kMaxCoordinate) {
        why = "numbers must lie between -1e9 and 1e9";
        return false;
      }
    }
    roi = {};
    roi.shape = s.shape;
    roi.x = v[0];
    roi.y = v[1];
    roi.a = v[2];
    roi.b = s.count > 3 ? v[3] : v[2];
    if (s.shape != VEPRA_IMG_ROI_RECT && (roi.a < 0 || roi.b < 0)) {
      why = "radius and semi-axes must not be negative";
      return false;
    }
    return true;
  }
  why = "expected circle:X,Y,R, ellipse:X,Y,A,B or rect:X0,Y0,X1,Y1";
  return false;
}

// The regions of --roi and --rois with the ring of --ring; a region that
// cannot be understood is a usage error (status 2), a regions file that
// cannot be read a failure (status 1).
bool read_regions(const Args &args, const char *command, std::vector<Region> &regions,
                  int &status) {
  double inner = 0, outer = 0;
  if (args.has("--ring")) {
    std::vector<double> v;
    const std::string &text = args.get("--ring");
    if (!parse_numbers(text, v) || v.size() != 2 || !(v[0] >= 0 && v[0] < v[1]) ||
        v[1] > kMaxCoordinate) {
      status = report(fail(0, "Invalid ring '%s' for option '--ring': expected R1,R2 with "
                              "0 <= R1 < R2.", text.c_str()), kUsage);
      return false;
    }
    inner = v[0];
    outer = v[1];
  }
  std::string why;
  if (args.has("--roi")) {
    for (const std::string &text : args.all("--roi")) {
      Region r{text, {}};
      if (!parse_region(text, r.roi, why)) {
        status = report(fail(0, "Invalid region '%s' for option '--roi': %s.", text.c_str(),
                             why.c_str()), kUsage);
        return false;
      }
      regions.push_back(r);
    }
  }
  if (args.has("--rois")) {
    const std::string &path = args.get("--rois");
    std::ifstream in(path);
    if (!in) {
      status = report(wrap(fail(VEPRA_E_IO_OPEN, "Cannot open file '%s'", path.c_str()),
                           "Cannot read regions."));
      return false;
    }
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
      line.erase(std::remove_if(line.begin(), line.end(),
                                [](char c) { return c == ' ' || c == '\t' || c == '\r'; }),
                 line.end());
      if (line.empty() || line[0] == '#' || line.rfind("shape", 0) == 0) continue;
      Region r{line, {}};
      if (!parse_region(line, r.roi, why)) {
        status = report(fail(0, "Invalid region '%s' at line %zu of '%s' (option '--rois'): %s.",
                             line.c_str(), number, path.c_str(), why.c_str()), kUsage);
        return false;
      }
      regions.push_back(r);
    }
  }
  if (regions.empty()) {
    status = report(fail(0, "'%s' needs a region: --roi or --rois.", command), kUsage);
    return false;
  }
  for (Region &r : regions) {
    r.roi.ring_inner = inner;
    r.roi.ring_outer = outer;
  }
  return true;
}

// A figure of the text table: "-" for NaN (a region that covers nothing).
std::string cell(const char *format, double v) {
  return std::isnan(v) ? std::string("-") : printf_string(format, v);
}

// The lines of every region of path (each led by the file's name with
// with_file), or the error of a region that cannot be measured.
Outcome<NoExtra> regions_of(const std::string &path, const std::vector<Region> &regions,
                            const vepra_img_plate_t *plate, bool json, bool with_file) {
  Outcome<NoExtra> o;
  Image img;
  if (vepra_error_t *e = read_image(path, img)) {
    o.error = e;
    return o;
  }
  for (const Region &r : regions) {
    vepra_img_measure_t m{};
    if (vepra_error_t *e = vepra_img_measure_roi(&img.rec, &r.roi, plate, &m)) {
      o.parts.push_back(
          {{}, wrap(e, "Cannot measure region '%s' of '%s'.", r.text.c_str(), path.c_str())});
      continue;
    }
    if (json) {
      Json j;
      j["file"] = path;
      j["region"] = r.text;
      j["shape"] = shape_name(r.roi.shape);
      j["area"] = m.region.area;
      j["sum"] = m.region.sum;
      j["mean"] = m.region.mean;  // NaN (nothing covered) becomes null
      j["min"] = m.region.min;
      j["max"] = m.region.max;
      j["ring_area"] = m.ring.area;
      j["ring_sum"] = m.ring.sum;
      j["ring_mean"] = m.ring.mean;
      j["ring_min"] = m.ring.min;
      j["ring_max"] = m.ring.max;
      j["background"] = m.background;
      j["corrected"] = m.corrected;
      if (plate != nullptr) {
        j["psl_sum"] = m.region.psl_sum;
        j["psl_background"] = m.psl_background;
        j["psl_corrected"] = m.psl_corrected;
      }
      o.parts.push_back({json_line(j), nullptr});
      continue;
    }
    std::string line = (with_file ? escaped(path) + "\t" : std::string()) + escaped(r.text);
    for (const std::string &c :
         {cell("%.4f", m.region.area), cell("%.10g", m.region.sum), cell("%.4f", m.region.mean),
          cell("%.0f", m.region.min), cell("%.0f", m.region.max), cell("%.4f", m.ring.area),
          cell("%.10g", m.ring.sum), cell("%.4f", m.ring.mean), cell("%.0f", m.ring.min),
          cell("%.0f", m.ring.max), cell("%.4f", m.background), cell("%.10g", m.corrected)}) {
      line += "\t" + c;
    }
    if (plate != nullptr) {
      for (const std::string &c : {cell("%.10g", m.region.psl_sum), cell("%.10g", m.psl_background),
                                   cell("%.10g", m.psl_corrected)}) {
        line += "\t" + c;
      }
    }
    o.parts.push_back({line + "\n", nullptr});
  }
  return o;
}

int run_region_measure(const Args &args) {
  int status = 0;
  std::vector<Region> regions;
  if (!read_regions(args, "measure", regions, status)) return status;
  MeasureOptions options;
  if (vepra_error_t *e = parse_measure_options(args, options)) return report(e, kUsage);
  const bool psl = args.has("--psl");
  if (!psl && (args.has("--pixel-size") || args.has("--sensitivity") || args.has("--latitude"))) {
    return report(fail(0, "'--pixel-size', '--sensitivity' and '--latitude' need '--psl'."), kUsage);
  }
  const vepra_img_plate_t plate{options.pixel_size, options.sensitivity, options.latitude};
  const bool json = args.has("--json");
  Inputs inputs;
  unsigned jobs = 1;
  if (!files_and_jobs(args, inputs, jobs, status)) return status;
  // One file named on the command line keeps the table of its regions;
  // several lead each line with the file's name.
  const bool with_file = args.operands.size() != 1 || inputs.any_directory;
  bool header = json;
  const int s = run_files<NoExtra>(
      inputs.files, jobs,
      [&](size_t, const std::string &path) {
        return regions_of(path, regions, psl ? &plate : nullptr, json, with_file);
      },
      [&](size_t, Outcome<NoExtra> &o) {
        // The header comes with the first file that could be read.
        if (header || o.error != nullptr) return;
        header = true;
        o.parts.insert(o.parts.begin(),
                       {printf_string("%sregion\tarea\tsum\tmean\tmin\tmax\tring_area\tring_sum\t"
                                      "ring_mean\tring_min\tring_max\tbackground\tcorrected%s\n",
                                      with_file ? "file\t" : "",
                                      psl ? "\tpsl_sum\tpsl_background\tpsl_corrected" : ""),
                        nullptr});
      });
  return s != 0 ? s : status;
}

// --------------------------------------------------------------- overlay

// An 8-bit preview being drawn on: the stretched scan (base) and the
// picture with the outlines (out). Each outline pixel moves towards black
// on a bright base pixel and towards white on a dark one, by its weight.
struct Canvas {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> base;
  uint8_t **rows = nullptr;  // the output record's rows
};

vepra_error_t *plot_pixel(int x, int y, void *data, double weight) {
  auto *c = static_cast<Canvas *>(data);
  if (x < 0 || y < 0 || uint32_t(x) >= c->width || uint32_t(y) >= c->height) return nullptr;
  const double w = std::clamp(weight, 0.0, 1.0);
  const uint8_t under = c->base[size_t(y) * c->width + uint32_t(x)];
  const double target = under > 127 ? 0.0 : 255.0;
  uint8_t &p = c->rows[y][x];
  // Overlapping strokes keep the strongest.
  const double v = under + (target - under) * w;
  p = target == 0.0 ? std::min<uint8_t>(p, uint8_t(std::lround(v)))
                    : std::max<uint8_t>(p, uint8_t(std::lround(v)));
  return nullptr;
}

// A rectangle outline between corner pixels, inclusive.
void plot_rect(Canvas &c, long x0, long y0, long x1, long y1) {
  if (x0 > x1) std::swap(x0, x1);
  if (y0 > y1) std::swap(y0, y1);
  const long xa = std::max(x0, -1L), xb = std::min(x1, long(c.width));
  const long ya = std::max(y0, -1L), yb = std::min(y1, long(c.height));
  for (long x = xa; x <= xb; ++x) plot_pixel(int(x), int(y0), &c, 1.0), plot_pixel(int(x), int(y1), &c, 1.0);
  for (long y = ya; y <= yb; ++y) plot_pixel(int(x0), int(y), &c, 1.0), plot_pixel(int(x1), int(y), &c, 1.0);
}

// Returns the rasteriser's error (plot_pixel never makes one) at once.
#define DRAW(call)                         \
  do {                                     \
    if (vepra_error_t *e_ = (call)) return e_; \
  } while (0)

// Draws r's outline (a stroke of width 2) and its ring (thin lines at the
// inner and outer radius or scale).
vepra_error_t *draw_region(Canvas &c, const vepra_img_roi_t &r) {
  const int xm = int(std::lround(r.x)), ym = int(std::lround(r.y));
  const bool ring = r.ring_outer > 0;
  if (r.shape == VEPRA_IMG_ROI_CIRCLE) {
    const int radius = int(std::lround(r.a));
    DRAW(vepra_img_circle_waa(xm, ym, radius, plot_pixel, &c, 2.0));
    if (ring) {
      DRAW(
          vepra_img_circle_aa(xm, ym, int(std::lround(r.ring_inner)), plot_pixel, &c));
      DRAW(
          vepra_img_circle_aa(xm, ym, int(std::lround(r.ring_outer)), plot_pixel, &c));
    }
  } else if (r.shape == VEPRA_IMG_ROI_ELLIPSE) {
    DRAW(vepra_img_ellipse_waa(xm, ym, int(std::lround(r.a)),
                                                     int(std::lround(r.b)), plot_pixel, &c, 2.0));
    if (ring) {
      for (const double f : {r.ring_inner, r.ring_outer}) {
        DRAW(vepra_img_ellipse_aa(
            xm, ym, int(std::lround(r.a * f)), int(std::lround(r.b * f)), plot_pixel, &c));
      }
    }
  } else {
    plot_rect(c, std::lround(r.x), std::lround(r.y), std::lround(r.a), std::lround(r.b));
    if (ring) {
      const double cx = (r.x + r.a) / 2, cy = (r.y + r.b) / 2;
      const double hw = (std::fabs(r.a - r.x) + 1) / 2, hh = (std::fabs(r.b - r.y) + 1) / 2;
      for (const double f : {r.ring_inner, r.ring_outer}) {
        if (f <= 0) continue;
        plot_rect(c, std::lround(cx - hw * f), std::lround(cy - hh * f), std::lround(cx + hw * f),
                  std::lround(cy + hh * f));
      }
    }
  }
  return nullptr;
}

// The sample value below which a fraction p of the pixels lies.
size_t percentile(const Counts &h, uint64_t total, double p) {
  const double want = p / 100.0 * double(total);
  uint64_t seen = 0;
  for (size_t v = 0; v < h.nbins; ++v) {
    seen += h.bins[v];
    if (double(seen) >= want && seen > 0) return v;
  }
  return h.nbins > 0 ? h.nbins - 1 : 0;
}

// Draws the preview of path with regions on it and writes it to out.
vepra_error_t *draw_preview(const std::string &path, const std::string &out,
                            const std::vector<Region> &regions, double p_low, double p_high) {
  Image img;
  if (vepra_error_t *e = read_image(path, img)) return e;
  Counts hist;
  if (vepra_error_t *e = vepra_img_histogram(&img.rec, &hist.nbins, &hist.bins)) {
    return wrap(e, "Cannot draw a preview of '%s'.", path.c_str());
  }
  const vepra_img_t &r = img.rec;
  const uint32_t w = r.width, h = r.height;
  const uint64_t total = uint64_t(w) * h;
  // The stretch between the two percentiles; WhiteIsZero scans are turned
  // over so that the preview (BlackIsZero) looks like the scan.
  double lo = double(percentile(hist, total, p_low)), hi = double(percentile(hist, total, p_high));
  if (hi <= lo) hi = lo + 1;
  const bool inverted = r.photometric == 0;

  Image preview;
  preview.rec.width = w;
  preview.rec.height = h;
  preview.rec.samples_per_pixel = 1;
  preview.rec.bits_per_sample[0] = preview.rec.bits_per_sample[1] =
      preview.rec.bits_per_sample[2] = 8;
  preview.rec.photometric = 1;
  preview.rec.res_unit = -1;
  void *m = nullptr;
  if (vepra_error_t *e =
          vepra_mem_matrix_alloc(&m, sizeof(uint8_t), 0, int(h) - 1, 0, int(w) - 1)) {
    return wrap(e, "Cannot draw a preview of '%s'.", path.c_str());
  }
  preview.rec.data8 = static_cast<uint8_t **>(m);
  Canvas canvas;
  canvas.width = w;
  canvas.height = h;
  canvas.base.resize(size_t(w) * h);
  canvas.rows = preview.rec.data8;
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) {
      const double s = r.bits_per_sample[0] == 8 ? r.data8[y][x] : r.data16[y][x];
      double t = (s - lo) / (hi - lo);
      if (inverted) t = 1.0 - t;
      const auto v = static_cast<uint8_t>(std::lround(std::clamp(t, 0.0, 1.0) * 255.0));
      canvas.base[size_t(y) * w + x] = v;
      canvas.rows[y][x] = v;
    }
  }
  for (const Region &region : regions) {
    if (vepra_error_t *e = draw_region(canvas, region.roi)) return e;
  }
  if (vepra_error_t *e = vepra_img_write_tiff(out.c_str(), &preview.rec)) {
    return wrap(e, "Cannot write preview to '%s'.", out.c_str());
  }
  return nullptr;
}


int run_overlay(const Args &args) {
  if (!args.has("--output")) return report(fail(0, "'overlay' needs -o OUT.tif."), kUsage);
  int status = 0;
  std::vector<Region> regions;
  if (!read_regions(args, "overlay", regions, status)) return status;
  double p_low = 1, p_high = 99;
  if (args.has("--percentiles")) {
    std::vector<double> v;
    const std::string &text = args.get("--percentiles");
    if (!parse_numbers(text, v) || v.size() != 2 || !(v[0] >= 0 && v[0] < v[1] && v[1] <= 100)) {
      return report(fail(0, "Invalid percentiles '%s' for option '--percentiles': expected P1,P2 "
                            "with 0 <= P1 < P2 <= 100.", text.c_str()), kUsage);
    }
    p_low = v[0];
    p_high = v[1];
  }
  return run_writes(args, "preview", [&](const std::string &path, const std::string &out) {
    return draw_preview(path, out, regions, p_low, p_high);
  });
}

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
  // Where the spots are, for measuring them: centre (column, row), the
  // deviation of the Gaussian in pixels and its height above background.
  std::printf("spot\tx\ty\tsigma\tamplitude\n");
  for (size_t i = 0; i < spots.size(); ++i) {
    const Spot &s = spots[i];
    std::printf("%zu\t%.1f\t%.1f\t%.2f\t%.0f\n", i + 1, s.x, s.y, s.sigma, s.amplitude);
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

const std::vector<OptionSpec> kPlateOptions = {
    {"--pixel-size", "--pixel-size", Kind::kValue, "scanner pixel size in micrometres (default 100)"},
    {"--sensitivity", "--sensitivity", Kind::kValue, "scan sensitivity setting (default 4000)"},
    {"--latitude", "--latitude", Kind::kValue, "scan latitude in decades (default 5)"},
};

const std::vector<OptionSpec> kRegionOptions = {
    {"--roi", "--roi", Kind::kRepeated,
     "a region: circle:X,Y,R, ellipse:X,Y,A,B or rect:X0,Y0,X1,Y1 (repeatable)"},
    {"--rois", "--rois", Kind::kValue,
     "a file of regions, one a line, in the same notation or as CSV (shape,X,Y,...)"},
    {"--ring", "--ring", Kind::kValue,
     "background ring R1,R2: radii of a circle's ring, scale factors of an ellipse's or "
     "rectangle's size"},
};

std::vector<OptionSpec> join(std::vector<OptionSpec> a, const std::vector<OptionSpec> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What the commands that take directories say of them in --help.
#define FOLDER_HELP                                                          \
  "Directories stand for the TIFF files in them; files are worked on in\n"  \
  "parallel, reported in the order given, and one that fails is reported\n" \
  "while the others go on.\n"

// ... and the commands that write a file per input.
#define WRITE_HELP                                                             \
  "With one input file, -o is the file to write. With several, or a\n"        \
  "directory, -o is a directory (made when missing) that receives each\n"     \
  "result under the input's path below its directory (a file named on the\n" \
  "command line: its base name); two inputs with the same result path:\n"     \
  "the later one fails rather than overwrite.\n" FOLDER_HELP

constexpr const char *kOutputHelp =
    "the file to write; with several inputs or a directory, the directory to write to";

std::vector<Command> command_list() {
  return {
      {"info", "[--json] [-r] [--include P] [--exclude P] [-j N] PATH...",
       "Prints the size, depth, photometric interpretation, resolution (pixels\n"
       "per inch and per millimetre), Software text and strip layout of each\n"
       "TIFF file. Directories stand for the TIFF files in them.\n",
       with_walk({{"--json", "--json", Kind::kFlag, "one JSON object per file and line"}}),
       run_info, true},
      {"stats", "[--histogram OUT.csv] [--plot OUT.svg [--log]] [--json] [-r] [-j N] PATH...",
       "Prints one tab-separated line per file, after a header line: minimum,\n"
       "maximum and mean sample value, entropy in bits, and the IsoData\n"
       "threshold. Directories stand for the TIFF files in them; files are\n"
       "measured in parallel and printed in the order given.\n",
       with_walk({{"--histogram", "--histogram", Kind::kValue,
                   "also write the histograms: a column 'value' and one column of counts per file"},
                  {"--plot", "--plot", Kind::kValue,
                   "draw the histogram of the one file as an SVG picture with the minimum, "
                   "maximum, mean and threshold marked"},
                  {"--log", "--log", Kind::kFlag, "plot the counts on a logarithmic scale"},
                  {"--json", "--json", Kind::kFlag, "one JSON object per file and line"}}),
       run_stats, true},
      {"measure",
       "--roi REGION... [--rois FILE.csv] [--ring R1,R2] [--psl ...] [--json] [-r] [-j N] "
       "PATH...",
       "Measures regions of a scan: one tab-separated line per region, after a\n"
       "header line: covered area (edge pixels by their coverage), sum, mean,\n"
       "minimum and maximum of the samples, the same for the background ring,\n"
       "the ring's mean as background and the background-corrected sum; with\n"
       "--psl the sums in PSL as well. With several files or a directory each\n"
       "line starts with the file's name (column 'file').\n" FOLDER_HELP,
       with_walk(join(join(kRegionOptions,
                           {{"--psl", "--psl", Kind::kFlag, "also give the sums in PSL"},
                            {"--json", "--json", Kind::kFlag,
                             "one JSON object per region and line"}}),
                      kPlateOptions)),
       run_region_measure, true},
      {"overlay",
       "--roi REGION... [--rois FILE.csv] [--ring R1,R2] -o OUT [-r] [-j N] PATH...",
       "Writes an 8-bit preview of the scan, contrast stretched between two\n"
       "percentiles, with the outlines of the regions and their rings drawn\n"
       "antialiased on it.\n" WRITE_HELP,
       with_walk(join(kRegionOptions,
                      {{"-o,--output", "--output", Kind::kValue, kOutputHelp},
                       {"--percentiles", "--percentiles", Kind::kValue,
                        "P1,P2: the stretch from black to white (default 1,99)"}})),
       run_overlay, true},
      {"mask", "-o OUT [-r] [-j N] PATH...",
       "Writes the data mask (1 for pixels that are not white, 0 for white\n"
       "ones) as a 16-bit TIFF scaled from 0 to 65535.\n" WRITE_HELP,
       with_walk({{"-o,--output", "--output", Kind::kValue, kOutputHelp}}), run_mask, true},
      {"psl", "-o OUT [--pixel-size UM] [--sensitivity S] [--latitude L] [-r] [-j N] PATH...",
       "Writes the photo-stimulated luminescence (Fuji relative intensity) as\n"
       "a 16-bit TIFF scaled linearly from its minimum to its maximum.\n"
       "UM lies above 0 and at most 10000, S from 1 to 1000000, L above 0 and at\n"
       "most 10.\n" WRITE_HELP,
       with_walk(join({{"-o,--output", "--output", Kind::kValue, kOutputHelp}}, kPlateOptions)),
       run_psl, true},
      {"density", "-o OUT [--saturated D] [-r] [-j N] PATH...",
       "Writes the optical density as a 16-bit TIFF scaled linearly from its\n"
       "minimum to its maximum.\n"
       "Infinite values (black pixels of BlackIsZero images) are written as\n"
       "65535, like the largest finite value.\n" WRITE_HELP,
       with_walk({{"-o,--output", "--output", Kind::kValue, kOutputHelp},
                  {"--saturated", "--saturated", Kind::kValue,
                   "value for full-scale samples (default: log10 of the full scale under "
                   "WhiteIsZero, 0 under BlackIsZero)"}}),
       run_density, true},
      {"synth", "-o OUT.tif [--width W] [--height H] [--pattern N]",
       "Writes a synthetic 16-bit BlackIsZero sample scan: a background\n"
       "gradient, bright spots (one of them saturated) and noise, and prints\n"
       "where the spots are. The same options always give the same image.\n",
       {{"-o,--output", "--output", Kind::kValue, "the file to write"},
        {"--width", "--width", Kind::kValue, "width in pixels (default 512)"},
        {"--height", "--height", Kind::kValue, "height in pixels (default 512)"},
        {"--pattern", "--pattern", Kind::kValue,
         "which random pattern of spots and noise (default 1)"}},
       run_synth, false},
  };
}

// Every command that reads a scan takes the page to read; info lists them all.
const std::vector<Command> &commands() {
  static const std::vector<Command> list = [] {
    std::vector<Command> all = command_list();
    for (Command &c : all) {
      if (c.takes_files && std::string(c.name) != "info") {
        c.options.push_back({"--page", "--page", Kind::kValue,
                             "read page N of a multi-page file (default 0, the first)"});
      }
    }
    return all;
  }();
  return list;
}

// CLI11's help with this program's own usage lines.
class Formatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App *app, std::string name) const override {
    for (const Command &c : commands()) {
      if (app->get_name() == c.name) return "Usage: " + name + " " + c.usage + "\n";
    }
    return CLI::Formatter::make_usage(app, name);
  }
};

void print_usage(FILE *stream) {
  std::fprintf(stream, "Usage: vepra-image COMMAND [OPTIONS] ...\n\nCommands:\n");
  for (const Command &c : commands()) std::fprintf(stream, "  %s %s\n", c.name, c.usage);
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
  const Command *cmd = nullptr;
  for (const Command &c : commands()) {
    if (name == c.name) cmd = &c;
  }
  if (cmd == nullptr) {
    report(fail(0, "Unknown command '%s'.", name.c_str()), kUsage);
    print_usage(stderr);
    return kUsage;
  }

  CLI::App app{"", "vepra-image"};
  app.formatter(std::make_shared<Formatter>());
  app.require_subcommand(1);
  CLI::App *sub = app.add_subcommand(cmd->name, "");
  sub->footer(cmd->help);
  sub->allow_extras();  // unknown options are reported below, by name
  Args args;
  std::map<std::string, CLI::Option *> found;
  for (const OptionSpec &option : cmd->options) {
    CLI::Option *opt = nullptr;
    auto &values = args.options[option.key];
    switch (option.kind) {
      case Kind::kFlag: opt = sub->add_flag(option.names, option.help); break;
      case Kind::kValue:
        opt = sub->add_option(option.names, values, option.help)
                  ->expected(1)
                  ->allow_extra_args(false)
                  ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        break;
      case Kind::kRepeated:
        opt = sub->add_option(option.names, values, option.help)
                  ->expected(1)
                  ->allow_extra_args(false)
                  ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        break;
    }
    if (option.kind != Kind::kFlag) opt->type_name(value_name(option.key));
    found[option.key] = opt;
  }
  sub->add_option("operands", args.operands, "files (and, where allowed, directories)")
      ->type_name(cmd->takes_files ? "PATH" : "");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    std::fputs(sub->help("vepra-image").c_str(), stdout);
    return 0;
  } catch (const CLI::ParseError &e) {
    report(fail(0, "%s", e.what()), kUsage);
    std::fprintf(stderr, "Run 'vepra-image %s --help' for its usage.\n", cmd->name);
    return kUsage;
  }
  const std::vector<std::string> extras = sub->remaining();
  for (const std::string &extra : extras) {
    if (extra.size() > 1 && extra[0] == '-') {
      std::string option = extra.substr(0, extra.find('='));
      report(fail(0, "Unknown option '%s' for '%s'.", option.c_str(), cmd->name), kUsage);
      std::fprintf(stderr, "Run 'vepra-image %s --help' for its usage.\n", cmd->name);
      return kUsage;
    }
    args.operands.push_back(extra);
  }
  // Options not given are absent (flags included).
  for (const auto &[key, opt] : found) {
    if (opt->count() == 0) args.options.erase(key);
  }
  if (args.has("--page")) {
    const std::string &text = args.get("--page");
    char *end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno == ERANGE || v > UINT32_MAX) {
      report(fail(VEPRA_E_STR_TO_INT, "Invalid value '%s' for option '--page' (0 to %u).",
                  text.c_str(), UINT32_MAX),
             kUsage);
      return kUsage;
    }
    g_page = static_cast<uint32_t>(v);
  }
  if (cmd->takes_files && args.operands.empty()) {
    report(fail(0, "'%s' needs an input file.", cmd->name), kUsage);
    std::fprintf(stderr, "Usage: vepra-image %s %s\n", cmd->name, cmd->usage);
    return kUsage;
  }
  return cmd->run(args);
}

}  // namespace

int main(int argc, char **argv) {
  // Every file's pixels are a fresh allocation of the same size: keep the
  // freed memory in the process (up to 32 MiB a block, glibc's limit)
  // rather than have the kernel map and clear new pages for each file.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  if (vepra_initialize() != 0) {
    std::fprintf(stderr, "vepra-image: the vepra library could not be initialised\n");
    return kFailure;
  }
  int status = kFailure;
  try {
    status = dispatch(argc, argv);
  } catch (const std::exception &e) {
    std::fflush(stdout);
    std::fprintf(stderr, "vepra-image: %s\n", e.what());
  }
  vepra_terminate();
  return status;
}
