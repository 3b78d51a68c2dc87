// Console line input: the context, its history, and a line editor fed by a
// pluggable character reader (a caller function, a stdio stream or a
// terminal in raw mode).
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "vepra_readline.h"
#include "vepra_str.h"

namespace {

using vepra::detail::make_error;
using vepra::detail::wrap_error;

constexpr int kDefaultWidth = 80;
constexpr int kMaxWidth = 65535;

enum class Mode { kNone, kKeys, kStream, kTerminal };

// The public context followed by the reader settings; the library always
// allocates this whole record, and callers only see its first member.
struct Context {
  vepra_ri_readline_t pub;
  Mode mode;
  vepra_ri_reader_fn reader;
  void *user;
  FILE *stream;
  int fd;
};

Context *context_of(vepra_ri_readline_t *rl) noexcept { return reinterpret_cast<Context *>(rl); }

bool is_continuation(char c) noexcept { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Display columns of a text: one per character (a byte that is not a UTF-8
// continuation byte).
size_t columns(const char *s, size_t n) noexcept {
  size_t cols = 0;
  for (size_t i = 0; i < n; ++i) cols += is_continuation(s[i]) ? 0 : 1;
  return cols;
}

// True when a text has more than limit columns; stops counting there, so
// the cost follows the limit rather than the length of the text.
bool wider_than(const char *s, size_t n, size_t limit) noexcept {
  size_t cols = 0;
  for (size_t i = 0; i < n; ++i)
    if (!is_continuation(s[i]) && ++cols > limit) return true;
  return false;
}

int clamp_width(int32_t width) noexcept {
  return width < 1 ? 1 : width > kMaxWidth ? kMaxWidth : width;
}

void write_out(const char *s, size_t n) noexcept {
  if (n != 0) std::fwrite(s, 1, n, stdout);
}

void write_blanks(size_t n) noexcept {
  static const char kBlanks[] = "                                                                ";
  while (n > 0) {
    size_t k = n < sizeof kBlanks - 1 ? n : sizeof kBlanks - 1;
    write_out(kBlanks, k);
    n -= k;
  }
}

// Where the bytes come from during one vepra_ri_readline() call.
class Source {
 public:
  explicit Source(Context *c) noexcept : c_(c) {}

  int next() noexcept {
    if (has_pending_) {
      has_pending_ = false;
      return pending_;
    }
    int b = fetch();
    if (b > 255) b = VEPRA_RI_READ_ERROR;
    if (b < 0 && b != VEPRA_RI_END_OF_INPUT && b != VEPRA_RI_INTERRUPT) b = VEPRA_RI_READ_ERROR;
    return b;
  }
  // Hands b back: the next call of next() returns it again.
  void put_back(int b) noexcept {
    pending_ = b;
    has_pending_ = true;
  }

 private:
  int fetch() noexcept {
    switch (c_->mode) {
      case Mode::kKeys:
        return c_->reader(c_->user);
      case Mode::kStream: {
        int b = getc(c_->stream);
        if (b != EOF) return b;
        return std::ferror(c_->stream) ? VEPRA_RI_READ_ERROR : VEPRA_RI_END_OF_INPUT;
      }
      case Mode::kTerminal:
        return read_fd(c_->fd);
      case Mode::kNone:
        break;
    }
    return VEPRA_RI_READ_ERROR;
  }

  static int read_fd(int fd) noexcept {
    for (;;) {
      unsigned char b = 0;
      ssize_t n = ::read(fd, &b, 1);
      if (n == 1) return b;
      if (n == 0) return VEPRA_RI_END_OF_INPUT;
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, -1) != -1 || errno == EINTR) continue;
      }
      return VEPRA_RI_READ_ERROR;
    }
  }

  Context *c_;
  int pending_ = 0;
  bool has_pending_ = false;
};

// Puts a terminal into raw mode for its lifetime and restores the saved
// settings when it ends, whatever the path out of the call.
class RawMode {
 public:
  RawMode() = default;
  RawMode(const RawMode &) = delete;
  RawMode &operator=(const RawMode &) = delete;
  ~RawMode() {
    if (!active_) return;
    while (::tcsetattr(fd_, TCSADRAIN, &saved_) != 0 && errno == EINTR) {
    }
  }

  bool enter(int fd) noexcept {
    if (::tcgetattr(fd, &saved_) != 0) return false;
    termios raw = saved_;
    // No line discipline: bytes arrive one by one, unechoed, with Ctrl-C,
    // Ctrl-D and CR as plain bytes. Output processing stays on.
    raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INPCK | ISTRIP | IXON);
    raw.c_cflag |= CS8;
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | IEXTEN | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    int rc;
    while ((rc = ::tcsetattr(fd, TCSADRAIN, &raw)) != 0 && errno == EINTR) {
    }
    if (rc != 0) return false;
    fd_ = fd;
    active_ = true;
    return true;
  }

 private:
  termios saved_{};
  int fd_ = -1;
  bool active_ = false;
};

int terminal_width(int fd) noexcept {
  winsize ws{};
  if (::ioctl(fd, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  return kDefaultWidth;
}

// The line being read: rl->line with its length and capacity. The buffer
// is always terminated, so the history functions can read it.
class Line {
 public:
  explicit Line(vepra_ri_readline_t *rl) noexcept : rl_(rl), cap_(20) {}

  char *data() const noexcept { return rl_->line; }
  size_t size() const noexcept { return len_; }

  bool reserve(size_t n) noexcept {  // room for n bytes and the terminator
    if (n < cap_) return true;
    size_t cap = cap_;
    while (cap <= n) {
      if (cap > SIZE_MAX / 2) return false;
      cap *= 2;
    }
    char *old = rl_->line;
    vepra_ri_readline_growbuffer(rl_, cap);
    if (rl_->line == old) return false;
    cap_ = cap;
    return true;
  }
  bool insert(size_t at, char b) noexcept {
    if (!reserve(len_ + 1)) return false;
    std::memmove(rl_->line + at + 1, rl_->line + at, len_ - at + 1);
    rl_->line[at] = b;
    ++len_;
    return true;
  }
  void erase(size_t from, size_t to) noexcept {
    std::memmove(rl_->line + from, rl_->line + to, len_ - to + 1);
    len_ -= to - from;
  }
  // Takes the buffer as vepra_ri_readline_hist() left it.
  void adopt(const char *before) noexcept {
    len_ = std::strlen(rl_->line);
    if (rl_->line != before) cap_ = len_ + 1;
  }
  size_t prev(size_t p) const noexcept {
    if (p == 0) return 0;
    --p;
    while (p > 0 && is_continuation(rl_->line[p])) --p;
    return p;
  }
  size_t next(size_t p) const noexcept {
    if (p >= len_) return len_;
    ++p;
    while (p < len_ && is_continuation(rl_->line[p])) ++p;
    return p;
  }

 private:
  vepra_ri_readline_t *rl_;
  size_t cap_;
  size_t len_ = 0;
};

vepra_error_t *end_of_read(int status, bool any_byte) noexcept {
  if (status == VEPRA_RI_END_OF_INPUT && any_byte) return nullptr;
  if (status == VEPRA_RI_READ_ERROR) return make_error(VEPRA_E_CONSOLE_CHAR);
  return make_error(VEPRA_E_CONSOLE_HALTED);
}

// A plain line: every byte up to a newline, without editing.
vepra_error_t *read_plain(vepra_ri_readline_t *rl, Source &src) noexcept {
  Line line(rl);
  for (bool any = false;; any = true) {
    int b = src.next();
    if (b < 0) return end_of_read(b, any);
    if (b == '\n') return nullptr;
    if (b == 0) continue;
    if (!line.insert(line.size(), static_cast<char>(b))) return make_error(VEPRA_E_ALLOC);
  }
}

// Keys read after ESC that name an editing action.
enum class Key { kNone, kUp, kDown, kRight, kLeft, kHome, kEnd, kDelete };

Key key_of_final(int final_byte, int param) noexcept {
  switch (final_byte) {
    case 'A': return Key::kUp;
    case 'B': return Key::kDown;
    case 'C': return Key::kRight;
    case 'D': return Key::kLeft;
    case 'H': return Key::kHome;
    case 'F': return Key::kEnd;
    case '~':
      switch (param) {
        case 1: case 7: return Key::kHome;
        case 4: case 8: return Key::kEnd;
        case 3: return Key::kDelete;
        default: return Key::kNone;
      }
    default: return Key::kNone;
  }
}

class Editor {
 public:
  Editor(vepra_ri_readline_t *rl, Source &src) noexcept
      : rl_(rl), src_(src), line_(rl), echo_(rl->echo != 0) {}

  // The prompt is already on the console when this starts.
  vepra_error_t *run() noexcept {
    for (bool any = false;; any = true) {
      int b = src_.next();
      if (b < 0) return finish(end_of_read(b, any));
      switch (b) {
        case '\r':
        case '\n':
          return finish(nullptr);
        case 3:  // Ctrl-C
          return finish(make_error(VEPRA_E_CONSOLE_HALTED));
        case 4:  // Ctrl-D
          if (line_.size() == 0) return finish(make_error(VEPRA_E_CONSOLE_HALTED));
          apply(Key::kDelete);
          break;
        case 1: apply(Key::kHome); break;
        case 5: apply(Key::kEnd); break;
        case 2: apply(Key::kLeft); break;
        case 6: apply(Key::kRight); break;
        case 16: apply(Key::kUp); break;
        case 14: apply(Key::kDown); break;
        case 8:
        case 127:
          if (cursor_ > 0) {
            size_t p = line_.prev(cursor_);
            line_.erase(p, cursor_);
            cursor_ = p;
          }
          break;
        case 11:  // Ctrl-K
          line_.erase(cursor_, line_.size());
          break;
        case 21:  // Ctrl-U
          line_.erase(0, cursor_);
          cursor_ = 0;
          break;
        case 12:  // Ctrl-L: draw again
          break;
        case 27: {
          int next = src_.next();
          if (next < 0) return finish(end_of_read(next, true));
          apply(escape(next));
          break;
        }
        default:
          if (b < 0x20) break;  // other control bytes are ignored
          if (!line_.insert(cursor_, static_cast<char>(b)))
            return finish(make_error(VEPRA_E_ALLOC));
          // The cursor stood on a character boundary, so the byte after the
          // inserted one starts a character too.
          ++cursor_;
          // Typing at the end of a line whose shown part still fits only
          // needs the byte itself on the console.
          if (cursor_ == line_.size() &&
              !wider_than(line_.data() + offset_, line_.size() - offset_, room())) {
            if (echo_) {
              const char c = static_cast<char>(b);
              write_out(&c, 1);
              std::fflush(stdout);
            }
            continue;
          }
          break;
      }
      draw();
    }
  }

 private:
  // Reads the rest of an escape sequence whose byte after ESC is first.
  // A byte that cannot continue the sequence is handed back unless it is a
  // printable ASCII character (as after Alt), so that a lone ESC loses no
  // Enter, control key or byte of a UTF-8 character.
  static bool keep(int b) noexcept { return b < 0x20 || b >= 0x7F; }

  Key escape(int first) noexcept {
    if (first != '[' && first != 'O') {
      if (keep(first)) src_.put_back(first);
      return Key::kNone;
    }
    int param = 0;
    bool in_first_param = true;
    for (;;) {
      int b = src_.next();
      if (b < 0) {
        src_.put_back(b);
        return Key::kNone;
      }
      if (first == '[' && b >= 0x30 && b <= 0x3F) {  // parameter bytes
        if (b == ';') in_first_param = false;
        if (in_first_param && b >= '0' && b <= '9' && param < 1000) param = param * 10 + (b - '0');
        continue;
      }
      if (first == '[' && b >= 0x20 && b <= 0x2F) continue;  // intermediate bytes
      if (b >= 0x40 && b <= 0x7E) return key_of_final(b, param);
      if (keep(b)) src_.put_back(b);
      return Key::kNone;
    }
  }

  void apply(Key key) noexcept {
    switch (key) {
      case Key::kNone: break;
      case Key::kLeft: cursor_ = line_.prev(cursor_); break;
      case Key::kRight: cursor_ = line_.next(cursor_); break;
      case Key::kHome: cursor_ = 0; break;
      case Key::kEnd: cursor_ = line_.size(); break;
      case Key::kDelete:
        if (cursor_ < line_.size()) line_.erase(cursor_, line_.next(cursor_));
        break;
      case Key::kUp:
      case Key::kDown: {
        const char *before = rl_->line;
        if (vepra_ri_readline_hist(rl_, key == Key::kUp ? 1 : 0) == 1) {
          line_.adopt(before);
          cursor_ = line_.size();
          offset_ = 0;
        }
        break;
      }
    }
  }

  vepra_error_t *finish(vepra_error_t *err) noexcept {
    if (echo_) {
      write_out("\n", 1);
      std::fflush(stdout);
    }
    return err;
  }

  // Draws the prompt and the part of the line around the cursor that fits
  // the console: blank the console line, print the prompt and the visible
  // text, then print the prompt and the text up to the cursor again so
  // that the terminal's cursor stands where the editing cursor is.
  void draw() noexcept {
    if (!echo_) return;
    const char *prompt = rl_->prompt != nullptr ? rl_->prompt : "";
    const size_t prompt_len = std::strlen(prompt);
    const size_t usable = static_cast<size_t>(clamp_width(rl_->width) - 1);
    const size_t room = this->room();
    const char *text = line_.data();

    if (cursor_ < offset_) offset_ = cursor_;
    for (size_t cols = columns(text + offset_, cursor_ - offset_); cols > room; --cols)
      offset_ = line_.next(offset_);
    size_t end = offset_;
    for (size_t cols = 0; end < line_.size() && cols < room; ++cols) end = line_.next(end);

    write_out("\r", 1);
    write_blanks(usable > 0 ? usable : 1);
    write_out("\r", 1);
    write_out(prompt, prompt_len);
    write_out(text + offset_, end - offset_);
    write_out("\r", 1);
    write_out(prompt, prompt_len);
    write_out(text + offset_, cursor_ - offset_);
    std::fflush(stdout);
  }

  // Columns left for the line after the prompt (at least one); the last
  // console column stays free so that the terminal never wraps.
  size_t room() const noexcept {
    const char *prompt = rl_->prompt != nullptr ? rl_->prompt : "";
    const size_t prompt_cols = columns(prompt, std::strlen(prompt));
    const size_t usable = static_cast<size_t>(clamp_width(rl_->width) - 1);
    return usable > prompt_cols + 1 ? usable - prompt_cols : 1;
  }

  vepra_ri_readline_t *rl_;
  Source &src_;
  Line line_;
  bool echo_;
  size_t cursor_ = 0;
  size_t offset_ = 0;  // first byte shown when the line is wider than the console
};

}  // namespace

extern "C" {

vepra_error_t *vepra_ri_readline_init(vepra_ri_readline_t **out, const char *prompt,
                                      uint32_t echo, apr_pool_t *parent) noexcept {
  if (out == nullptr) return vepra::detail::apr_wrapped(APR_EINVAL, "Can't initialize readline.");
  apr_pool_t *pool = nullptr;
  apr_status_t status = apr_pool_create(&pool, parent);
  if (status != APR_SUCCESS)
    return vepra::detail::apr_wrapped(status, "Can't initialize readline.");
  auto *c = static_cast<Context *>(apr_pcalloc(pool, sizeof(Context)));
  vepra_ri_readline_t *rl = &c->pub;
  rl->pool = pool;
  rl->prompt = prompt != nullptr ? apr_pstrdup(pool, prompt) : nullptr;
  rl->echo = echo;
  // Ready for browsing even before the first line is read.
  rl->hist_pos = -1;
  rl->unsaved = 1;
  c->mode = Mode::kNone;
  c->fd = -1;
  if (vepra_error_t *e = vepra_strlist_create(&rl->history, pool)) {
    apr_pool_destroy(pool);
    return wrap_error(e, "Can't initialize readline.");
  }
  status = apr_pool_create(&rl->line_pool, pool);
  if (status != APR_SUCCESS) {
    apr_pool_destroy(pool);
    return vepra::detail::apr_wrapped(status, "Can't initialize readline.");
  }
  *out = rl;
  return nullptr;
}

void vepra_ri_readline_terminate(vepra_ri_readline_t *rl) noexcept {
  if (rl != nullptr) apr_pool_destroy(rl->pool);
}

vepra_error_t *vepra_ri_readline_addhist(const char *s, vepra_ri_readline_t *rl) noexcept {
  if (rl == nullptr || s == nullptr)
    return wrap_error(make_error(VEPRA_E_DL_INSERT), "Readline: can't add string to history.");
  VEPRA_RETURN_IF_ERROR(vepra_strlist_addfirst(rl->history, s, rl->pool),
                        "Readline: can't add string to history.");
  ++rl->hist_count;
  return nullptr;
}

void vepra_ri_readline_growbuffer(vepra_ri_readline_t *rl, size_t size) noexcept {
  if (rl == nullptr) return;
  if (size == 0) size = 1;
  auto *buf = static_cast<char *>(apr_pcalloc(rl->line_pool, size));
  if (buf == nullptr) return;
  if (rl->line != nullptr) vepra_str_strlcpy(buf, rl->line, size);
  rl->line = buf;
}

int vepra_ri_readline_hist(vepra_ri_readline_t *rl, int direction) noexcept {
  if (rl == nullptr) return 0;
  int pos;
  if (direction == 1) {
    pos = rl->hist_pos + 1;
  } else {
    if (rl->unsaved == 1) return 0;
    pos = rl->hist_pos - 1;
  }
  if (pos >= rl->hist_count || pos < -1) return 0;

  const char *text;
  if (pos == -1) {
    text = rl->saved_line != nullptr ? rl->saved_line : "";
  } else {
    if (rl->unsaved == 1) {
      rl->saved_line = apr_pstrdup(rl->line_pool, rl->line != nullptr ? rl->line : "");
      rl->unsaved = 0;
    }
    text = vepra_strlist_getn(rl->history, static_cast<size_t>(pos));
    if (text == nullptr) text = "";
  }
  size_t n = std::strlen(text);
  // The buffer's size is not known here, only that it holds its string; a
  // longer text gets a new block of its length plus the terminator (the
  // old line is not kept: the entry replaces it whole).
  if (rl->line == nullptr || n > std::strlen(rl->line)) {
    auto *buf = static_cast<char *>(apr_palloc(rl->line_pool, n + 1));
    if (buf == nullptr) return 0;
    rl->line = buf;
  }
  rl->hist_pos = pos;
  std::memcpy(rl->line, text, n + 1);
  return 1;
}

vepra_error_t *vepra_ri_readline(void *unused, vepra_ri_readline_t *rl) noexcept {
  (void)unused;
  if (rl == nullptr) return make_error(VEPRA_E_CONSOLE_READ);
  Context *c = context_of(rl);
  apr_pool_clear(rl->line_pool);
  rl->reserved = nullptr;
  rl->line = nullptr;
  rl->saved_line = nullptr;  // it lived in line_pool
  rl->hist_pos = -1;
  rl->unsaved = 1;
  vepra_ri_readline_growbuffer(rl, 20);
  if (rl->line == nullptr) return make_error(VEPRA_E_ALLOC);

  Mode mode = c->mode;
  RawMode raw;
  bool edit = mode == Mode::kKeys;
  if (mode == Mode::kTerminal && ::isatty(c->fd)) {
    if (!raw.enter(c->fd)) return make_error(VEPRA_E_CONSOLE_CHAR);
    rl->width = terminal_width(c->fd);
    edit = true;
  } else if (mode != Mode::kNone && rl->width <= 0) {
    rl->width = kDefaultWidth;
  }

  if (rl->echo != 0) {
    std::printf("%s", rl->prompt != nullptr ? rl->prompt : "");
    std::fflush(stdout);
  }
  if (mode == Mode::kNone) {
    rl->line[0] = '\0';
    if (rl->echo != 0) {
      int field = rl->width > -kMaxWidth ? (rl->width < kMaxWidth ? rl->width : kMaxWidth) - 1
                                         : -kMaxWidth;
      std::printf("\r%*c\r", field, ' ');
      std::fflush(stdout);
    }
    return make_error(VEPRA_E_CONSOLE_READ);
  }
  Source src(c);
  if (!edit) return read_plain(rl, src);
  return Editor(rl, src).run();
}

void vepra_ri_readline_set_reader(vepra_ri_readline_t *rl, vepra_ri_reader_fn reader,
                                  void *user) noexcept {
  if (rl == nullptr) return;
  Context *c = context_of(rl);
  c->mode = reader != nullptr ? Mode::kKeys : Mode::kNone;
  c->reader = reader;
  c->user = user;
}

void vepra_ri_readline_set_stream(vepra_ri_readline_t *rl, FILE *stream) noexcept {
  if (rl == nullptr) return;
  Context *c = context_of(rl);
  c->mode = stream != nullptr ? Mode::kStream : Mode::kNone;
  c->stream = stream;
}

void vepra_ri_readline_set_terminal(vepra_ri_readline_t *rl, int fd) noexcept {
  if (rl == nullptr) return;
  Context *c = context_of(rl);
  c->mode = fd >= 0 ? Mode::kTerminal : Mode::kNone;
  c->fd = fd;
}

}  // extern "C"
