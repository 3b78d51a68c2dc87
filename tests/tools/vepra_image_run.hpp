// Running the vepra-image program that was built, as a user would: its
// exit status and what it printed on each stream.
#ifndef VEPRA_TESTS_TOOLS_VEPRA_IMAGE_RUN_HPP
#define VEPRA_TESTS_TOOLS_VEPRA_IMAGE_RUN_HPP

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

// s quoted for the shell.
inline std::string quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Runs the program with args, after the shell commands of prefix.
inline ToolRun run_tool(const std::vector<std::string> &args, const std::string &prefix = "") {
  ToolRun r;
#ifdef VEPRA_IMAGE_TOOL
  const std::string out = temp_path("stdout"), err = temp_path("stderr");
  std::string cmd = prefix + quote(VEPRA_IMAGE_TOOL);
  for (const std::string &a : args) cmd += " " + quote(a);
  const int raw =
      std::system((cmd + " >" + quote(out) + " 2>" + quote(err) + " </dev/null").c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
#else
  (void)args;
  (void)prefix;
#endif
  return r;
}

}  // namespace vepra_test

#endif  // VEPRA_TESTS_TOOLS_VEPRA_IMAGE_RUN_HPP
