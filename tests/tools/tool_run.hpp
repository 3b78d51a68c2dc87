// Running the programs that were built, as a user would: their exit
// status and what they printed on each stream; and input files written by
// libtiff for vepra-image to read.
#ifndef VEPRA_TESTS_TOOLS_TOOL_RUN_HPP
#define VEPRA_TESTS_TOOLS_TOOL_RUN_HPP

#include <sys/wait.h>
#include <tiffio.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace vepra_test {

struct ToolRun {
  int status = -1;
  std::string out, err;
};

inline std::string slurp(const std::string &path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

inline std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// s quoted for the shell.
inline std::string quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// program and args as shell words.
inline std::string command_line(const char *program, const std::vector<std::string> &args) {
  std::string cmd = quote(program);
  for (const std::string &a : args) cmd += " " + quote(a);
  return cmd;
}

// Runs the shell command cmd with no input; keeps its status and streams.
inline ToolRun run_shell(const std::string &cmd) {
  ToolRun r;
  const std::string out = temp_path("stdout"), err = temp_path("stderr");
  const int raw =
      std::system((cmd + " >" + quote(out) + " 2>" + quote(err) + " </dev/null").c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
  return r;
}

#ifdef VEPRA_IMAGE_TOOL
inline const char *const kImageTool = VEPRA_IMAGE_TOOL;
#else
inline const char *const kImageTool = nullptr;  // not built: the tests skip
#endif

// Runs vepra-image with args, after the shell commands of prefix.
inline ToolRun run_tool(const std::vector<std::string> &args, const std::string &prefix = "") {
  return run_shell(prefix + command_line(kImageTool, args));
}

// One BlackIsZero page for libtiff to write: samples row-major.
struct Page {
  uint32_t width, height;
  uint16_t bits;
  std::vector<uint16_t> samples;
  uint16_t compression = COMPRESSION_NONE;
};

// Writes pages with libtiff, one strip each; fields sets more of the first.
inline void write_libtiff(const std::string &path, const std::vector<Page> &pages,
                          const std::function<void(TIFF *)> &fields = {}) {
  TIFF *t = TIFFOpen(path.c_str(), "w");
  ASSERT_NE(t, nullptr) << path;
  for (const Page &p : pages) {
    for (auto [tag, value] : {std::pair{TIFFTAG_IMAGEWIDTH, p.width},
                              {TIFFTAG_IMAGELENGTH, p.height},
                              {TIFFTAG_BITSPERSAMPLE, uint32_t(p.bits)},
                              {TIFFTAG_PHOTOMETRIC, uint32_t(PHOTOMETRIC_MINISBLACK)},
                              {TIFFTAG_COMPRESSION, uint32_t(p.compression)},
                              {TIFFTAG_ROWSPERSTRIP, p.height}})
      TIFFSetField(t, tag, value);
    if (fields && &p == &pages[0]) fields(t);
    std::vector<uint8_t> strip;  // little-endian, as this host and the file are
    for (uint16_t v : p.samples) {
      strip.push_back(uint8_t(v));
      if (p.bits == 16) strip.push_back(uint8_t(v >> 8));
    }
    ASSERT_GE(TIFFWriteEncodedStrip(t, 0, strip.data(), tmsize_t(strip.size())), 0);
    ASSERT_EQ(TIFFWriteDirectory(t), 1);
  }
  TIFFClose(t);
}

}  // namespace vepra_test

#endif  // VEPRA_TESTS_TOOLS_TOOL_RUN_HPP
