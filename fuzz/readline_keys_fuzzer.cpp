// The line editor's key handling. The first byte picks the mode: raw bytes
// as keys (any input must be handled without fault), or whole keys chosen
// from a table of characters, control keys and escape sequences; typing
// only whole UTF-8 characters must leave every line valid UTF-8, whatever
// the moves and deletions. The second byte is the console width, so that
// sideways scrolling is drawn too (into /dev/null).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vepra_readline.h"

namespace {

struct Script {
  const std::string *bytes;
  size_t pos = 0;
  static int next(void *user) {
    auto *s = static_cast<Script *>(user);
    return s->pos < s->bytes->size() ? static_cast<unsigned char>((*s->bytes)[s->pos++])
                                     : static_cast<int>(VEPRA_RI_END_OF_INPUT);
  }
};

const char *const kKeys[] = {
    "a", "Z", " ", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\r", "\n", "\x03", "\x04",
    "\x01", "\x05", "\x02", "\x06", "\x08", "\x7f", "\x0b", "\x15", "\x10", "\x0e", "\x0c",
    "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D", "\x1b[H", "\x1b[F", "\x1bOH", "\x1bOF", "\x1b[3~",
    "\x1b[1~", "\x1b[4~", "\x1b[7~", "\x1b[8~", "\x1b[1;5C", "\x1b[99999;2D", "\x1b", "\x1bx",
    "\x1b[", "\x1bO", "\x1b[12", "\t"};

// Valid UTF-8 in the sense the editor keeps: lead bytes followed by the
// right number of continuation bytes.
bool valid_utf8(const char *s) {
  for (auto *p = reinterpret_cast<const unsigned char *>(s); *p != 0;) {
    int extra = *p < 0x80 ? 0 : (*p & 0xE0) == 0xC0 ? 1 : (*p & 0xF0) == 0xE0 ? 2
                : (*p & 0xF8) == 0xF0 ? 3 : -1;
    if (extra < 0) return false;
    ++p;
    for (; extra > 0; --extra, ++p)
      if ((*p & 0xC0) != 0x80) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (vepra_initialize() != 0) std::abort();
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const bool keyed = (data[0] & 1) != 0;
  std::string bytes;
  if (keyed) {
    for (size_t i = 2; i < size; ++i) bytes += kKeys[data[i] % (sizeof kKeys / sizeof *kKeys)];
  } else {
    bytes.assign(reinterpret_cast<const char *>(data + 2), size - 2);
  }
  apr_pool_t *pool = nullptr;
  if (apr_pool_create(&pool, vepra_pool) != APR_SUCCESS) std::abort();
  vepra_ri_readline_t *rl = nullptr;
  if (vepra_ri_readline_init(&rl, "fz> ", (data[0] & 2) != 0, pool) != nullptr) std::abort();
  for (const char *h : {"", "h\xc3\xa9llo", "\xe2\x82\xac\xe2\x82\xac long entry of the history"})
    vepra_error_clear(vepra_ri_readline_addhist(h, rl));
  rl->width = data[1];
  Script script{&bytes};
  vepra_ri_readline_set_reader(rl, Script::next, &script);
  while (script.pos < bytes.size()) {
    vepra_error_t *e = vepra_ri_readline(nullptr, rl);
    if (rl->line == nullptr || (keyed && !valid_utf8(rl->line))) std::abort();
    if (e == nullptr) vepra_error_clear(vepra_ri_readline_addhist(rl->line, rl));
    else if (e->code != VEPRA_E_CONSOLE_HALTED) std::abort();
    vepra_error_clear(e);
  }
  vepra_ri_readline_terminate(rl);
  apr_pool_destroy(pool);
  return 0;
}
