// The line editor's key handling. The first byte picks the mode: raw bytes
// as keys (any input must be handled without fault), or whole keys chosen
// from a table of characters, control keys and escape sequences; typing
// only whole UTF-8 characters must leave every line valid UTF-8, whatever
// the moves and deletions. The second byte is the console width, so that
// sideways scrolling is drawn too (into /dev/null).
#include <clocale>
#include <cstdlib>

#include "fuzz_common.hpp"
#include "vepra_readline.h"

namespace {

using vepra_fuzz::check;

// The key reader: the script's bytes, then the end of input.
int next_key(void *user) {
  auto *script = static_cast<vepra_fuzz::Bytes *>(user);
  return script->more() ? static_cast<int>(script->next()) : int{VEPRA_RI_END_OF_INPUT};
}

const char *const kKeys[] = {
    "a",       "Z",       " ",       "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
    "\r",      "\n",      "\x03",    "\x04",     "\x01",         "\x05",
    "\x02",    "\x06",    "\x08",    "\x7f",     "\x0b",         "\x15",
    "\x10",    "\x0e",    "\x0c",    "\x1b[A",   "\x1b[B",       "\x1b[C",
    "\x1b[D",  "\x1b[H",  "\x1b[F",  "\x1bOH",   "\x1bOF",       "\x1b[3~",
    "\x1b[1~", "\x1b[4~", "\x1b[7~", "\x1b[8~",  "\x1b[1;5C",    "\x1b[99999;2D",
    "\x1b",    "\x1bx",   "\x1b[",   "\x1bO",    "\x1b[12",      "\t"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  vepra_fuzz::initialize();
  check(std::freopen("/dev/null", "w", stdout) != nullptr);
  // The C library's UTF-8 decoder judges the lines.
  check(std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr);
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
  vepra_ri_readline_t *rl = nullptr;
  check(vepra_ri_readline_init(&rl, "fz> ", (data[0] & 2) != 0, vepra_fuzz::cleared_pool()) ==
        nullptr);
  for (const char *h : {"", "h\xc3\xa9llo", "\xe2\x82\xac\xe2\x82\xac long entry of the history"})
    vepra_error_clear(vepra_ri_readline_addhist(h, rl));
  rl->width = data[1];
  vepra_fuzz::Bytes script{reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()};
  vepra_ri_readline_set_reader(rl, next_key, &script);
  while (script.more()) {
    vepra_error_t *e = vepra_ri_readline(nullptr, rl);
    check(rl->line != nullptr &&
          (!keyed || std::mbstowcs(nullptr, rl->line, 0) != static_cast<size_t>(-1)));
    check(e == nullptr || e->code == VEPRA_E_CONSOLE_HALTED);
    if (e == nullptr) vepra_error_clear(vepra_ri_readline_addhist(rl->line, rl));
    vepra_error_clear(e);
  }
  vepra_ri_readline_terminate(rl);
  return 0;
}
