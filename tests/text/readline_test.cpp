// Line input: history, drawing, the editor against a model of characters,
// and the terminal reader on a pseudo-terminal.
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "support/test_support.hpp"
#include "vepra_readline.h"

namespace {

using namespace std::string_literals;
using vepra_test::take_printed;

class ReadlineTest : public vepra_test::LibraryTest {
 protected:
  vepra_ri_readline_t *make(const char *prompt, uint32_t echo,
                            std::initializer_list<const char *> history = {}) {
    vepra_ri_readline_t *rl = nullptr;
    EXPECT_EQ(vepra_ri_readline_init(&rl, prompt, echo, pool_), nullptr);
    for (const char *h : history) EXPECT_EQ(vepra_ri_readline_addhist(h, rl), nullptr);
    return rl;
  }
};

// Code of a chain (cleared), 0 for success.
int code_of(vepra_error_t *e) {
  int code = e != nullptr ? e->code : 0;
  vepra_error_clear(e);
  return code;
}

// Fills a fresh block of the line pool, which must not overlap the line.
void scribble(vepra_ri_readline_t *rl) { std::memset(apr_palloc(rl->line_pool, 64), 'x', 64); }

// A reader over a byte string, ending with a chosen status.
struct Script {
  std::string bytes;
  int last = VEPRA_RI_END_OF_INPUT;
  size_t pos = 0;
  static int next(void *user) {
    auto *s = static_cast<Script *>(user);
    return s->pos < s->bytes.size() ? static_cast<unsigned char>(s->bytes[s->pos++]) : s->last;
  }
};

// Reads one line of keys, then the reader's status: the code, "|" and the line.
std::string read_keys(vepra_ri_readline_t *rl, const std::string &keys,
                      int last = VEPRA_RI_END_OF_INPUT) {
  Script script{keys, last};
  vepra_ri_readline_set_reader(rl, Script::next, &script);
  const int code = code_of(vepra_ri_readline(nullptr, rl));
  return std::to_string(code) + "|" + rl->line;
}

// Browsing keeps the edited line; each line buffer is a block of its own
// with room for the terminator (a 16-byte entry fills an aligned block).
TEST_F(ReadlineTest, HistoryBrowsingKeepsTheEditedLine) {
  vepra_ri_readline_t *rl = make(nullptr, 0, {"a", "b"});
  EXPECT_EQ(vepra_ri_readline_hist(rl, 0), 0);  // newer before any older move
  vepra_ri_readline_growbuffer(rl, 0);
  scribble(rl);
  EXPECT_STREQ(rl->line, "");
  const std::string entry(16, 'z'), up = "\x1b[A", down = "\x1b[B";
  EXPECT_EQ(vepra_ri_readline_addhist(entry.c_str(), rl), nullptr);
  EXPECT_EQ(vepra_ri_readline_hist(rl, 1), 1);
  scribble(rl);
  EXPECT_EQ(std::string(rl->line), entry);
  EXPECT_EQ(read_keys(rl, up + up + up + up + "\r"), "0|a");
  EXPECT_EQ(read_keys(rl, "new" + up + up + down + down + "\r"), "0|new");
  EXPECT_EQ(read_keys(rl, "new" + up + "!\r"), "0|" + entry + "!");
  EXPECT_EQ(take_printed(vepra_ri_readline_addhist(nullptr, rl)),
            "Error(120051): Readline: can't add string to history. \n"
            "Error(120051): DL insertion error: invalid pointer. ");
  vepra_ri_readline_terminate(rl);
}

// Typing at the end echoes the byte until the line is too wide, then it is
// redrawn scrolled, the last column kept free and one at least for the line.
TEST_F(ReadlineTest, EchoDrawsThePromptAndTheTypedBytes) {
  // Width, keys, screen, and the width after the call.
  const std::tuple<int32_t, std::string, std::string, int32_t> cases[] = {
      {6, "abcd\r", "> abc\r     \r> bcd\r> bcd\n", 6},
      {3, "ab\r", "> a\r  \r> b\r> b\n", 3},  // one column for the line
      {0, "x\r", "> x\n", 80},
      {1, "x\r", "> x\n", 1},
  };
  vepra_ri_readline_t *rl = make("> ", 1);
  for (const auto &[width, keys, screen, used] : cases) {
    rl->width = width;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_keys(rl, keys), "0|" + keys.substr(0, keys.size() - 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), screen) << width;
    EXPECT_EQ(rl->width, used);
  }
  vepra_ri_readline_terminate(rl);
}

// Each way the input can end, and escapes cut short or unknown, give their
// code and keep the line. Rows: bytes, the reader's last status, code, line.
TEST_F(ReadlineTest, ReaderStatusesGiveTheirCodes) {
  const std::tuple<std::string, int, int, const char *> cases[] = {
      {"", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, ""},
      {"ab", VEPRA_RI_END_OF_INPUT, 0, "ab"},
      {"ab", VEPRA_RI_INTERRUPT, VEPRA_E_CONSOLE_HALTED, "ab"},
      {"ab", VEPRA_RI_READ_ERROR, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab", -77, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab", 256, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab\x1b[", VEPRA_RI_READ_ERROR, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab\x1b", VEPRA_RI_END_OF_INPUT, 0, "ab"},
      {"ab\x1b\r", VEPRA_RI_READ_ERROR, 0, "ab"},                  // ESC then Enter keeps the Enter
      {"a\x1b[\xc3\xa9\x1bO\x7f\r", VEPRA_RI_READ_ERROR, 0, "a"},  // no byte is lost
      {"ab\x1b[?1DX\r", VEPRA_RI_READ_ERROR, 0, "aXb"},            // '?' is a parameter byte
      {"ab\x1b[D\x1b[39~\r", VEPRA_RI_READ_ERROR, 0, "ab"},        // 39, not Delete (3)
      {"ab\x03", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, "ab"},
      {"\x04", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, ""},
  };
  vepra_ri_readline_t *rl = make("> ", 0);
  testing::internal::CaptureStdout();
  for (const auto &[bytes, last, code, line] : cases)
    EXPECT_EQ(read_keys(rl, bytes, last), std::to_string(code) + "|" + line) << bytes;
  vepra_ri_readline_set_reader(rl, nullptr, nullptr);
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_READ);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "drawn with echo off";
  vepra_ri_readline_terminate(rl);
}

// The line as a list of characters and the cursor as an index into it.
struct LineModel {
  std::vector<std::string> chars;
  size_t cursor = 0;
  auto at(size_t k) { return chars.begin() + static_cast<long>(k); }
  // Removes the characters from..to (to clipped to the line); the cursor
  // goes to from.
  void cut(size_t from, size_t to) {
    chars.erase(at(from), at(std::min(to, chars.size())));
    cursor = from;
  }
};

// Random keystrokes against the model: every spelling of each key edits
// the line as the model does.
TEST_F(ReadlineTest, EditorMatchesCharacterModel) {
  const char *typed[] = {"a", "Z", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"};
  const struct {
    std::vector<const char *> spellings;
    void (*edit)(LineModel &);
  } keys[] = {
      {{"\x1b[D", "\x02", "\x1bOD", "\x1b[1;5D"}, [](LineModel &m) { m.cursor -= m.cursor > 0; }},
      {{"\x1b[C", "\x06", "\x1bOC"}, [](LineModel &m) { m.cursor += m.cursor < m.chars.size(); }},
      {{"\x1b[H", "\x01", "\x1bOH", "\x1b[1~", "\x1b[7~"}, [](LineModel &m) { m.cursor = 0; }},
      {{"\x1b[F", "\x05", "\x1bOF", "\x1b[4~", "\x1b[8~"},
       [](LineModel &m) { m.cursor = m.chars.size(); }},
      {{"\x7f", "\x08"}, [](LineModel &m) { m.cut(m.cursor - (m.cursor > 0), m.cursor); }},
      // Ctrl-D only on a line that is not empty
      {{"\x1b[3~", "\x04"}, [](LineModel &m) { m.cut(m.cursor, m.cursor + 1); }},
      {{"\x15"}, [](LineModel &m) { m.cut(0, m.cursor); }},
      {{"\x0b"}, [](LineModel &m) { m.cut(m.cursor, m.chars.size()); }},
  };
  std::mt19937 rng(7);
  vepra_ri_readline_t *rl = make("edit> ", 1);
  testing::internal::CaptureStdout();  // the drawing is exercised, not compared
  for (int round = 0; round < 300; ++round) {
    LineModel model;
    std::string keystrokes;
    rl->width = static_cast<int32_t>(1 + rng() % 30);
    for (int k = rng() % 60; k > 0; --k) {
      if (rng() % 3 == 0) {
        const char *c = typed[rng() % std::size(typed)];
        keystrokes += c;
        model.chars.insert(model.at(model.cursor++), c);
        continue;
      }
      const auto &key = keys[rng() % std::size(keys)];
      const char *spelling = key.spellings[rng() % key.spellings.size()];
      if (*spelling == '\x04' && model.chars.empty()) continue;  // would end the input
      keystrokes += spelling;
      key.edit(model);
    }
    std::string expected = "0|";
    for (const std::string &c : model.chars) expected += c;
    ASSERT_EQ(read_keys(rl, keystrokes + "\r"), expected) << "round " << round;
  }
  testing::internal::GetCapturedStdout();
  vepra_ri_readline_terminate(rl);
}

// Keys are typed once the pseudo-terminal is raw (no echo, line editing or
// signal keys), the settings come back afterwards, and the line is drawn; a
// terminal hung up while read fails the read and does not hold the caller.
TEST_F(ReadlineTest, TerminalKeysEditTheLineAndSettingsAreRestored) {
  // Keys (none: the terminal hangs up), code and line.
  const std::tuple<std::string, int, std::string> cases[] = {
      {"abc\r", 0, "abc"},
      {std::string(100, 'w') + "\x01v\x1b[A\x1b[A\x1b[A\r", 0, "first"},
      {"ab\x03", VEPRA_E_CONSOLE_HALTED, "ab"},
      {"", VEPRA_E_CONSOLE_CHAR, ""},
  };
  for (const auto &[keys, code, line] : cases) {
    SCOPED_TRACE(keys);
    int master = -1, slave = -1;
    winsize ws{24, 40, 0, 0};
    if (openpty(&master, &slave, nullptr, nullptr, &ws) != 0)
      GTEST_SKIP() << "no pseudo-terminals here";
    termios before{}, during{}, after{};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    std::thread typist([&] {  // a reader that never leaves line mode fails after 10 s
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (tcgetattr(master, &during) == 0 && (during.c_lflag & ICANON) != 0 &&
             std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
      if (keys.empty())
        close(master);
      else
        EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    });
    vepra_ri_readline_t *rl = make("pty> ", 1, {"first", "second"});
    vepra_ri_readline_set_terminal(rl, slave);
    testing::internal::CaptureStdout();
    errno = EINTR;  // stale: retries must follow a failed call, not errno alone
    const int got = code_of(vepra_ri_readline(nullptr, rl));
    const std::string screen = testing::internal::GetCapturedStdout();
    // A hang-up reads as an error or as the end of input, as it meets the read.
    EXPECT_EQ(keys.empty() && got == VEPRA_E_CONSOLE_HALTED ? VEPRA_E_CONSOLE_CHAR : got, code);
    typist.join();
    EXPECT_EQ(std::string(rl->line), line);
    EXPECT_EQ(during.c_lflag & (ICANON | ECHO | ISIG), 0u);
    if (!keys.empty()) {
      ASSERT_EQ(tcgetattr(slave, &after), 0);
      EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0) << "settings not restored";
      close(master);
    }
    if (code == 0 && line.size() < 30) {
      EXPECT_NE(screen.find("pty> " + line), std::string::npos) << screen;
    }
    vepra_ri_readline_terminate(rl);
    close(slave);
  }
}

}  // namespace
