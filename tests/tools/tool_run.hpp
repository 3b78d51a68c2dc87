// Running the programs that were built, as a user would: their exit
// status and what they printed on each stream.
#ifndef VEPRA_TESTS_TOOLS_TOOL_RUN_HPP
#define VEPRA_TESTS_TOOLS_TOOL_RUN_HPP

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
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
  const std::string out = temp_path("stdout"), err = temp_path("stderr");
  const int raw =
      std::system((cmd + " >" + quote(out) + " 2>" + quote(err) + " </dev/null").c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
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

}  // namespace vepra_test

#endif  // VEPRA_TESTS_TOOLS_TOOL_RUN_HPP
