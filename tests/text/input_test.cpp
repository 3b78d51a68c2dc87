// Directory walks against fnmatch and readdir; line input: history, the
// editor against a model of characters, the terminal on a pseudo-terminal.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "support/test_support.hpp"
#include "vepra_dir.h"
#include "vepra_readline.h"

namespace {

using namespace std::string_literals;
using vepra_test::code_of;
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

// Fills a fresh block of the line pool, which must not overlap the line.
void scribble(vepra_ri_readline_t *rl) { std::memset(apr_palloc(rl->line_pool, 64), 'x', 64); }

// Reads one line from a reader of keys that then gives the status last;
// gives the code, "|" and the line.
std::string read_keys(vepra_ri_readline_t *rl, const std::string &keys,
                      int last = VEPRA_RI_END_OF_INPUT) {
  struct Script {
    const std::string &bytes;
    int last;
    size_t pos;
  } script{keys, last, 0};
  auto next = [](void *user) {
    auto *s = static_cast<Script *>(user);
    return s->pos < s->bytes.size() ? static_cast<unsigned char>(s->bytes[s->pos++]) : s->last;
  };
  vepra_ri_readline_set_reader(rl, next, &script);
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

// Each way the input can end, and escapes cut short or unknown, give their
// code and keep the line. Rows: bytes, the reader's last status, code, line.
TEST_F(ReadlineTest, ReaderStatusesGiveTheirCodes) {
  const std::tuple<std::string, int, int, const char *> cases[] = {
      {"", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, ""},
      {"ab", VEPRA_RI_END_OF_INPUT, 0, "ab"},
      {"ab", VEPRA_RI_INTERRUPT, VEPRA_E_CONSOLE_HALTED, "ab"},
      {"ab", VEPRA_RI_READ_ERROR, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab", -77, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab\x1b[", VEPRA_RI_READ_ERROR, VEPRA_E_CONSOLE_CHAR, "ab"},
      {"ab\x1b", VEPRA_RI_END_OF_INPUT, 0, "ab"},
      {"ab\x1b\r", VEPRA_RI_READ_ERROR, 0, "ab"},                  // ESC then Enter keeps the Enter
      {"a\x1b[\xc3\xa9\x1bO\x7f\r", VEPRA_RI_READ_ERROR, 0, "a"},  // no byte is lost
      {"ab\x1b[?1DX\r", VEPRA_RI_READ_ERROR, 0, "aXb"},            // '?' is a parameter byte
      {"ab\x1b[D\x1b[39~\r", VEPRA_RI_READ_ERROR, 0, "ab"},        // 39, not Delete (3)
      {"\x04", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, ""},
      {"ab\x03", VEPRA_RI_END_OF_INPUT, VEPRA_E_CONSOLE_HALTED, "ab"},
  };
  vepra_ri_readline_t *rl = make("> ", 0);
  testing::internal::CaptureStdout();
  for (const auto &[bytes, last, code, line] : cases)
    EXPECT_EQ(read_keys(rl, bytes, last), std::to_string(code) + "|" + line) << bytes;
  vepra_ri_readline_set_reader(rl, nullptr, nullptr);
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_READ);
  EXPECT_STREQ(rl->line, "") << "no reader leaves an empty line";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "drawn with echo off";
  // Echoing without a reader blanks the prompt at the width as it stands.
  rl->echo = 1, rl->width = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_READ);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "> \r \r");
  vepra_ri_readline_terminate(rl);
}

// Input that is not a console, read as a stream or as a terminal that is
// really a pipe, gives its lines as they are: empty and very long ones,
// and bytes that would be keys on a console. The terminal's pipe is
// non-blocking and written late: the reader waits for the bytes instead of
// taking the first "try again" for a read error.
TEST_F(ReadlineTest, PipesGivePlainLines) {
  const std::string longline(50000, 'x'), input = "one\n\n" + longline + "\na\0b\x1b[D\177c"s;
  for (bool terminal : {false, true}) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | (terminal ? O_NONBLOCK : 0)), 0);
    std::thread writer([&, fd = fds[1]] {
      if (terminal) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
      close(fd);
    });
    FILE *stream = fdopen(fds[0], "r");
    vepra_ri_readline_t *rl = make("> ", 0);
    if (terminal) vepra_ri_readline_set_terminal(rl, fds[0]);
    if (!terminal) vepra_ri_readline_set_stream(rl, stream);
    std::vector<std::string> got;
    vepra_error_t *e;
    while ((e = vepra_ri_readline(nullptr, rl)) == nullptr) got.emplace_back(rl->line);
    EXPECT_EQ(code_of(e), VEPRA_E_CONSOLE_HALTED);
    EXPECT_EQ(got, (std::vector<std::string>{"one", "", longline, "ab\x1b[D\177c"})) << terminal;
    writer.join();
    std::fclose(stream);
    vepra_ri_readline_terminate(rl);
  }
  // A read that fails otherwise than "try again" (on a directory) ends the line.
  const int dir = open(".", O_RDONLY | O_DIRECTORY);
  vepra_ri_readline_t *rl = make("> ", 0);
  vepra_ri_readline_set_terminal(rl, dir);
  EXPECT_EQ(code_of(vepra_ri_readline(nullptr, rl)), VEPRA_E_CONSOLE_CHAR);
  close(dir);
  vepra_ri_readline_terminate(rl);
}

// The line as a list of characters and the cursor as an index into it.
struct LineModel {
  std::vector<std::string> chars;
  size_t cursor = 0;
  auto at(size_t k) { return chars.begin() + static_cast<long>(k); }
  // Removes the characters from..to (clipped); the cursor goes to from.
  void cut(size_t from, size_t to) {
    chars.erase(at(from), at(std::min(to, chars.size())));
    cursor = from;
  }
};

// Random keystrokes: every spelling of each key edits as the model does.
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
  // A line wider than the console keeps the columns before the cursor in view.
  rl->width = 12;
  testing::internal::CaptureStdout();
  read_keys(rl, "abcdefghijkl\r");
  const std::string drawn = testing::internal::GetCapturedStdout();
  EXPECT_NE(drawn.find("\redit> hijkl\redit> hijkl"), std::string::npos) << drawn;
  EXPECT_NE(drawn.find("\r" + std::string(11, ' ') + "\redit> "), std::string::npos);
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

using Paths = std::vector<std::string>;

class DirTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    root_ = vepra_test::temp_path("tree");
    ASSERT_EQ(mkdir(root_.c_str(), 0755), 0);
  }
  void TearDown() override {
    EXPECT_EQ(std::system(("chmod -R u+rwx '" + root_ + "'; rm -rf '" + root_ + "'").c_str()), 0);
    LibraryTest::TearDown();
  }

  // Runs a shell command in the root: the trees are made by the system's tools.
  void sh(const std::string &command) {
    ASSERT_EQ(std::system(("cd '" + root_ + "' && " + command).c_str()), 0) << command;
  }

  // The paths the callback saw; the callback fails for names containing
  // "fail" and stops the walk at names containing "stop".
  vepra_error_t *walk(const char *include, const char *exclude, uint32_t flags, Paths *seen) {
    options_ = {flags, nullptr, nullptr, record, seen};
    return vepra_dir_traverse(root_.c_str(), include, exclude, &options_, pool_);
  }

  static vepra_error_t *record(const char *path, void *user, apr_pool_t *pool) {
    EXPECT_NE(pool, nullptr);
    static_cast<Paths *>(user)->emplace_back(path);
    if (std::strstr(path, "stop") != nullptr) return VepraDLlistStopWalking;
    if (std::strstr(path, "fail") != nullptr)
      return vepra_error_createf_i(VEPRA_ERROR_TYPE_ERROR, 0, 0, nullptr, nullptr, nullptr,
                                   "refused %s", std::strrchr(path, '/') + 1);
    return nullptr;
  }

  std::string root_;
  vepra_dir_options_t options_{};
};

// The files a recursive walk reports, by readdir: a directory's regular
// files and links in read order, then its subdirectories in read order.
void reference_walk(const std::string &dir, Paths *out) {
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return;
  Paths subdirs;
  while (dirent *e = readdir(d)) {
    std::string name = e->d_name, path = dir + "/" + name;
    if (e->d_type == DT_DIR && name != "." && name != "..") subdirs.push_back(path);
    if (e->d_type == DT_REG || e->d_type == DT_LNK) out->push_back(path);
  }
  closedir(d);
  for (const std::string &s : subdirs) reference_walk(s, out);
}

TEST_F(DirTest, PatternsAgreeWithFnmatchForEveryFlag) {
  // Links to directories, loops, dangling links and a FIFO are never entered.
  sh("mkdir -p sub/empty && touch a.tif b.png c.txt .hidden.tif D.TIF 'star*.tif' sub/e.tif "
     "sub/.f.png && ln -s c.txt link.tif && ln -s . loop && ln -s .. sub/up && ln -s pong ping && "
     "ln -s ping pong && ln -s nowhere dangling && mkfifo fifo");
  const std::pair<const char *, const char *> cases[] = {
      {nullptr, nullptr}, {"*.tif;*.png", nullptr}, {"*.tif;*.png", "*b*"},
      {nullptr, "*.tif"}, {"*.TIF", nullptr},       {"*/.*", nullptr},
      {"*\\**", nullptr}, {"*/[a-c].*;;", nullptr}, {"", nullptr},
      {";", "x"},         {"*sub/*", "*/.*"},       {"*/?.*", "*.png;*.txt"},
  };
  auto any_match = [](const char *composite, const std::string &path, int flags) {
    std::istringstream pieces(composite);
    for (std::string piece; std::getline(pieces, piece, ';');)
      if (!piece.empty() && fnmatch(piece.c_str(), path.c_str(), flags) == 0) return true;
    return false;
  };
  Paths all;
  reference_walk(root_, &all);
  ASSERT_EQ(all.size(), 14u) << "regular files and links, in two directories";
  for (uint32_t low = 0; low < 16; ++low) {
    const int fnm = ((low & VEPRA_DIR_NOESCAPE) ? FNM_NOESCAPE : 0) |
                    ((low & VEPRA_DIR_PATHNAME) ? FNM_PATHNAME : 0) |
                    ((low & VEPRA_DIR_PERIOD) ? FNM_PERIOD : 0) |
                    ((low & VEPRA_DIR_CASE_BLIND) ? FNM_CASEFOLD : 0);
    for (const auto &[include, exclude] : cases) {
      for (uint32_t recursive : {0u, uint32_t{VEPRA_DIR_RECURSIVE}}) {
        Paths seen, expected;
        ASSERT_EQ(walk(include, exclude, low | recursive, &seen), nullptr);
        for (const std::string &p : all) {
          if (!recursive && p.find("/sub/") != std::string::npos) continue;
          if ((include == nullptr || any_match(include, p, fnm)) &&
              (exclude == nullptr || !any_match(exclude, p, fnm)))
            expected.push_back(p);
        }
        EXPECT_EQ(seen, expected) << "flags " << (low | recursive) << " include "
                                  << (include ? include : "(null)") << " exclude "
                                  << (exclude ? exclude : "(null)");
      }
    }
  }
}

// A failing callback is reported and the walk goes on, or with
// STOP_ON_ERROR fails it; the stop sentinel ends the walk as a success; a
// root that cannot be opened fails the walk with its path.
TEST_F(DirTest, FailuresAreReportedOrReturned) {
  sh("mkdir sub && touch ok1 fail1 sub/fail2 sub/ok2");
  Paths seen;
  testing::internal::CaptureStdout();
  EXPECT_EQ(walk(nullptr, nullptr, VEPRA_DIR_RECURSIVE, &seen), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: refused fail1 \nError: refused fail2 \n");
  EXPECT_EQ(seen.size(), 4u);
  const std::string failed = "Error: Cannot traverse directories. \nError: ";
  seen.clear();
  EXPECT_EQ(
      take_printed(walk(nullptr, nullptr, VEPRA_DIR_RECURSIVE | VEPRA_DIR_STOP_ON_ERROR, &seen)),
      failed + "refused fail1 ");
  EXPECT_EQ(seen.back(), root_ + "/fail1");
  EXPECT_LE(seen.size(), 2u);
  sh("touch stop sub/stop");
  seen.clear();
  EXPECT_EQ(walk("*stop", nullptr, VEPRA_DIR_RECURSIVE, &seen), nullptr);
  EXPECT_EQ(seen, Paths{root_ + "/stop"});

  std::string missing = root_ + "/missing";
  EXPECT_EQ(take_printed(vepra_dir_traverse(missing.c_str(), nullptr, nullptr, &options_, pool_)),
            failed + "(" + missing + "): " + std::strerror(ENOENT) + " ");
  EXPECT_EQ(take_printed(vepra_dir_traverse(nullptr, nullptr, nullptr, &options_, pool_)),
            failed + std::strerror(EINVAL) + " ");
}

// A chain of directories with a file at every level, deeper than paths can
// be formed: the walk goes down in depth order, and then reports the path
// that became too long.
TEST_F(DirTest, DeepTreeEndsWithThePathTooLong) {
  // Deep trees are slow on some disk file systems; memory is enough.
  if (access("/dev/shm", W_OK) == 0) {
    ASSERT_EQ(rmdir(root_.c_str()), 0);
    ASSERT_EQ(mkdir((root_ = "/dev/shm/" + root_.substr(root_.rfind('/') + 1)).c_str(), 0755), 0);
  }
  int fd = open(root_.c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < PATH_MAX / 2 + 8 && fd >= 0; ++i) {
    close(openat(fd, "f", O_CREAT | O_WRONLY, 0644));
    mkdirat(fd, "d", 0755);
    int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
  }
  ASSERT_GE(fd, 0);
  close(fd);
  Paths seen;
  std::string printed = take_printed(walk("*/f", nullptr, VEPRA_DIR_RECURSIVE, &seen));
  EXPECT_EQ(printed, std::string("Error: Cannot traverse directories. \nError: ") +
                         std::strerror(ENAMETOOLONG) + " ");
  ASSERT_FALSE(seen.empty());
  std::string expected = root_;
  for (size_t i = 0; i < seen.size(); ++i) {
    ASSERT_EQ(seen[i], expected + "/f") << i;
    expected += "/d";
  }
  EXPECT_GT(seen.back().size() + 2, static_cast<size_t>(PATH_MAX) - 8);
}

}  // namespace
