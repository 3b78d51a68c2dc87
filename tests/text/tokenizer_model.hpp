// Reference tokenizer of the string-list and typed-parser tests, one
// character at a time. With continuation set, a backslash between tokens
// is dropped and leaves the continued state.
#ifndef VEPRA_TESTS_TEXT_TOKENIZER_MODEL_HPP
#define VEPRA_TESTS_TEXT_TOKENIZER_MODEL_HPP

#include <string>
#include <vector>

struct TokenizerModel {
  std::string seps;
  bool continuation = false;
  int state = 0;  // 0 between, 1 plain, 2 quoted, 3 continued
  std::string buf{};
  std::vector<std::string> tokens{};

  void feed(const std::string &text) {
    for (char c : text) {
      bool sep = seps.find(c) != std::string::npos;
      if (state == 0 || state == 3) {
        if (sep) continue;
        state = continuation && c == '\\' ? 3 : c == '"' ? 2 : 1;
        if (state == 1) buf = c;
      } else if (state == 1 ? sep : c == '"') {
        flush();
        state = 0;
      } else {
        buf += c;
      }
    }
  }
  // Stores the pending token, if any; the state stays as it is.
  void flush() {
    if (!buf.empty()) tokens.push_back(buf);
    buf.clear();
  }
};

#endif  // VEPRA_TESTS_TEXT_TOKENIZER_MODEL_HPP
