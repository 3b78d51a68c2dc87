// Line input: history browsing, the editor against a model of characters,
// plain lines from pipes, and the terminal reader driven through a
// pseudo-terminal whose settings the kernel reports.
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "support/test_support.hpp"
#include "vepra_readline.h"

namespace {

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

TEST_F(ReadlineTest, HistoryBrowsingKeepsTheEditedLine) {
  vepra_ri_readline_t *rl = make(nullptr, 0, {"a", "b"});
  EXPECT_EQ(rl->hist_count, 2);
  EXPECT_EQ(vepra_ri_readline_hist(rl, 0), 0);  // newer before any older move
  vepra_ri_readline_growbuffer(rl, 4);
  std::strcpy(rl->line, "abc");
  std::string seen;
  for (int i = 0; i < 3; ++i)
    seen += std::to_string(vepra_ri_readline_hist(rl, 1)) + rl->line + ",";
  EXPECT_EQ(seen, "1b,1a,0a,");
  EXPECT_EQ(vepra_ri_readline_hist(rl, 0), 1);
  EXPECT_STREQ(rl->line, "b");
  EXPECT_EQ(vepra_ri_readline_hist(rl, 0), 1);
  EXPECT_STREQ(rl->line, "abc");
  EXPECT_EQ(vepra_ri_readline_hist(rl, 0), 0);
  // A long entry gets a buffer of its own size plus the terminator.
  EXPECT_EQ(vepra_ri_readline_addhist(std::string(300, 'z').c_str(), rl), nullptr);
  EXPECT_EQ(vepra_ri_readline_hist(rl, 1), 1);
  EXPECT_EQ(std::string(rl->line), std::string(300, 'z'));
  EXPECT_EQ(take_printed(vepra_ri_readline_addhist(nullptr, rl)),
            "Error(120051): Readline: can't add string to history. \n"
            "Error(120051): DL insertion error: invalid pointer. ");
  vepra_ri_readline_terminate(rl);
}

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

// The prompt is drawn on a blanked console line, also when no reader is
// set; while the line fits, typing at its end echoes only the typed byte,
// and the byte that makes it too wide redraws it scrolled.
TEST_F(ReadlineTest, EchoDrawsThePromptAndTheTypedBytes) {
  for (uint32_t echo : {0u, 1u}) {
    vepra_ri_readline_t *rl = make("name> ", echo);
    testing::internal::CaptureStdout();
    EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_READ);
    std::string out = testing::internal::GetCapturedStdout();
    char expected[64];
    std::snprintf(expected, sizeof expected, "%s\r%*c\r", "name> ", rl->width - 1, ' ');
    EXPECT_EQ(out, echo != 0 ? expected : "");
    EXPECT_STREQ(rl->line, "");
    vepra_ri_readline_terminate(rl);
  }
  vepra_ri_readline_t *rl = make("> ", 1);
  rl->width = 6;  // room for three characters after the prompt
  Script script{"abcd\r"};
  vepra_ri_readline_set_reader(rl, Script::next, &script);
  testing::internal::CaptureStdout();
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "> abc\r     \r> bcd\r> bcd\n");
  // A width that is not positive becomes 80; one column stays one column.
  for (auto [width, used] : {std::pair{0, 80}, {1, 1}}) {
    rl->width = width;
    script = {"x\r"};
    testing::internal::CaptureStdout();
    EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rl->width, used);
  }
  vepra_ri_readline_terminate(rl);
}

TEST_F(ReadlineTest, ReaderStatusesGiveTheirCodes) {
  struct Case {
    std::string bytes;
    int last;
    int code;
    const char *line;
  } cases[] = {
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
  for (const Case &c : cases) {
    Script script{c.bytes, c.last};
    vepra_ri_readline_set_reader(rl, Script::next, &script);
    EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), c.code) << c.bytes;
    EXPECT_STREQ(rl->line, c.line) << c.bytes;
  }
  vepra_ri_readline_set_reader(rl, nullptr, nullptr);
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_READ);
  vepra_ri_readline_terminate(rl);
}

// Random keystrokes against a model that holds the line as a list of
// characters and the cursor as an index into it.
TEST_F(ReadlineTest, EditorMatchesCharacterModel) {
  const char *chars[] = {"a", "Z", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"};
  const char *left[] = {"\x1b[D", "\x02", "\x1bOD", "\x1b[1;5D"};
  const char *right[] = {"\x1b[C", "\x06", "\x1bOC"};
  const char *home[] = {"\x1b[H", "\x01", "\x1bOH", "\x1b[1~", "\x1b[7~"};
  const char *end[] = {"\x1b[F", "\x05", "\x1bOF", "\x1b[4~", "\x1b[8~"};
  std::mt19937 rng(7);
  vepra_ri_readline_t *rl = make("edit> ", 1);
  testing::internal::CaptureStdout();  // the drawing is exercised, not compared
  for (int round = 0; round < 300; ++round) {
    std::vector<std::string> model;
    size_t cursor = 0;
    std::string keys;
    auto pick = [&](auto &table) { return table[rng() % std::size(table)]; };
    rl->width = static_cast<int32_t>(1 + rng() % 30);
    for (int k = rng() % 60; k > 0; --k) {
      switch (rng() % 9) {
        case 0:
        case 1:
        case 2: {
          const char *c = pick(chars);
          keys += c;
          model.insert(model.begin() + static_cast<long>(cursor++), c);
          break;
        }
        case 3:
          keys += pick(left);
          cursor -= cursor > 0;
          break;
        case 4:
          keys += pick(right);
          cursor += cursor < model.size();
          break;
        case 5:
          if (rng() % 2) {
            keys += pick(home);
            cursor = 0;
          } else {
            keys += pick(end);
            cursor = model.size();
          }
          break;
        case 6:
          keys += rng() % 2 ? "\x7f" : "\x08";
          if (cursor > 0) model.erase(model.begin() + static_cast<long>(--cursor));
          break;
        case 7:
          keys += rng() % 2 ? "\x1b[3~" : "\x04";
          if (keys.back() == '\x04' && model.empty())
            keys.pop_back();  // would end the input
          else if (cursor < model.size())
            model.erase(model.begin() + static_cast<long>(cursor));
          break;
        case 8:
          if (rng() % 2) {
            keys += "\x15";
            model.erase(model.begin(), model.begin() + static_cast<long>(cursor));
            cursor = 0;
          } else {
            keys += "\x0b";
            model.resize(cursor);
          }
          break;
      }
    }
    Script script{keys + "\r"};
    vepra_ri_readline_set_reader(rl, Script::next, &script);
    ASSERT_EQ(code_of(vepra_ri_readline(nullptr, rl)), 0);
    std::string expected;
    for (const std::string &c : model) expected += c;
    ASSERT_EQ(std::string(rl->line), expected) << "round " << round;
  }
  testing::internal::GetCapturedStdout();
  vepra_ri_readline_terminate(rl);
}

// Plain lines through a pipe, read by the stream reader and by the
// terminal reader given a descriptor that is not a terminal.
TEST_F(ReadlineTest, PipesGivePlainLines) {
  const std::string longline(100000, 'x');
  struct Case {
    std::string input;
    std::vector<std::string> lines;  // then the end of input
  } cases[] = {
      {"", {}},
      {"one\ntwo", {"one", "two"}},
      {"\n\n", {"", ""}},
      {longline + "\n" + longline, {longline, longline}},
      {std::string("a\0b\x1b[D\x7f"
                   "c\n",
                   9),
       {"ab\x1b[D\x7f"
        "c"}},
  };
  for (bool terminal : {false, true}) {
    for (const Case &c : cases) {
      int fds[2];
      ASSERT_EQ(pipe(fds), 0);
      std::thread writer([&] {
        EXPECT_EQ(write(fds[1], c.input.data(), c.input.size()),
                  static_cast<ssize_t>(c.input.size()));
        close(fds[1]);
      });
      FILE *stream = fdopen(fds[0], "r");
      vepra_ri_readline_t *rl = make("> ", 0);
      if (terminal)
        vepra_ri_readline_set_terminal(rl, fds[0]);
      else
        vepra_ri_readline_set_stream(rl, stream);
      std::vector<std::string> got;
      vepra_error_t *e;
      while ((e = vepra_ri_readline(nullptr, rl)) == nullptr) got.emplace_back(rl->line);
      EXPECT_EQ(code_of(e), VEPRA_E_CONSOLE_HALTED);
      EXPECT_EQ(got, c.lines) << "terminal " << terminal << " input of " << c.input.size();
      writer.join();
      std::fclose(stream);
      vepra_ri_readline_terminate(rl);
    }
  }
}

// The terminal goes away while a line is read: the read fails, and the
// settings that can no longer be restored do not hold the caller.
TEST_F(ReadlineTest, AVanishingTerminalEndsTheRead) {
  int master = -1, slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
    GTEST_SKIP() << "no pseudo-terminals here";
  std::thread hangup([master] {
    termios t{};
    while (tcgetattr(master, &t) == 0 && (t.c_lflag & ICANON) != 0) std::this_thread::yield();
    close(master);
  });
  vepra_ri_readline_t *rl = make("> ", 0);
  vepra_ri_readline_set_terminal(rl, slave);
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_CHAR);  // EIO
  hangup.join();
  close(slave);
  vepra_ri_readline_terminate(rl);
}

bool same_settings(const termios &a, const termios &b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

// The terminal reader on a 40-column pseudo-terminal, with two history
// entries: keys are typed once the terminal is in raw mode, which must
// leave no echo, line editing or signal keys; the settings are restored
// afterwards, and the prompt and line are drawn on standard output.
TEST_F(ReadlineTest, TerminalKeysEditTheLineAndSettingsAreRestored) {
  const std::string up = "\x1b[A", down = "\x1b[B";
  struct Case {
    std::string keys;
    int code;
    std::string line;
  } cases[] = {
      {"abc\r", 0, "abc"},
      {std::string(100, 'w') + "\x01v\r", 0, "v" + std::string(100, 'w')},
      {up + up + up + "\r", 0, "first"},
      {"new" + up + up + down + down + "\r", 0, "new"},
      {"new" + up + "!" + "\r", 0, "second!"},
      {"ab\x03", VEPRA_E_CONSOLE_HALTED, "ab"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.keys);
    int master = -1, slave = -1;
    winsize ws{};
    ws.ws_col = 40;
    ws.ws_row = 24;
    if (openpty(&master, &slave, nullptr, nullptr, &ws) != 0)
      GTEST_SKIP() << "no pseudo-terminals here";
    termios before{}, during{}, after{};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    std::thread typist([&] {  // a reader that never leaves line mode fails after 10 s
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (tcgetattr(master, &during) == 0 && (during.c_lflag & ICANON) != 0 &&
             std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
      EXPECT_EQ(write(master, c.keys.data(), c.keys.size()), static_cast<ssize_t>(c.keys.size()));
    });
    vepra_ri_readline_t *rl = make("pty> ", 1, {"first", "second"});
    vepra_ri_readline_set_terminal(rl, slave);
    testing::internal::CaptureStdout();
    EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), c.code);
    const std::string screen = testing::internal::GetCapturedStdout();
    typist.join();
    EXPECT_EQ(std::string(rl->line), c.line);
    EXPECT_EQ(during.c_lflag & (ICANON | ECHO | ISIG), 0u);
    ASSERT_EQ(tcgetattr(slave, &after), 0);
    EXPECT_TRUE(same_settings(before, after));
    if (c.code == 0 && c.line.size() < 30) {
      EXPECT_NE(screen.find("pty> " + c.line), std::string::npos) << screen;
    }
    vepra_ri_readline_terminate(rl);
    close(master);
    close(slave);
  }
}

}  // namespace
