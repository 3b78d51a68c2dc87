// Typed token parsing: tokens of a line stored as integers, doubles or
// strings in a caller's parse record.
#include <climits>
#include <cstring>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "text/text_internal.hpp"
#include "vepra_prsd.h"

namespace {

constexpr uint32_t kFirstEntries = 10;
// Texts shorter than this are converted from a stack copy; longer ones
// from their pool copy.
constexpr size_t kShortToken = 64;

// Makes room for one more token. The array grows by at least 10 entries
// and by its own length, so that n tokens cost O(n) pool memory.
bool reserve_one(vepra_prsd_t *rec, apr_pool_t *pool) noexcept {
  if (rec->tokens != nullptr && rec->room > 0) return true;
  if (rec->n_tokens < 0 || rec->n_tokens == INT32_MAX) return false;
  size_t used = rec->tokens == nullptr ? 0 : static_cast<size_t>(rec->n_tokens);
  size_t extra = used > kFirstEntries ? used : kFirstEntries;
  if (extra > static_cast<size_t>(INT32_MAX) - used) extra = static_cast<size_t>(INT32_MAX) - used;
  auto *tokens = static_cast<vepra_prsd_token_t *>(
      vepra::detail::pool_calloc(pool, (used + extra) * sizeof(vepra_prsd_token_t)));
  if (tokens == nullptr) return false;
  if (used > 0) std::memcpy(tokens, rec->tokens, used * sizeof(vepra_prsd_token_t));
  rec->tokens = tokens;
  rec->room = static_cast<uint32_t>(extra);
  return true;
}

// Stores text[0..len) as the next token of rec.
bool store(vepra_prsd_t *rec, const char *text, size_t len, apr_pool_t *pool) noexcept {
  if (!reserve_one(rec, pool)) return false;
  char local[kShortToken];
  char *copy = nullptr;
  const char *z = local;
  if (len < kShortToken) {
    std::memcpy(local, text, len);
    local[len] = '\0';
  } else {
    copy = apr_pstrmemdup(pool, text, len);
    if (copy == nullptr) return false;
    z = copy;
  }
  vepra_prsd_token_t &t = rec->tokens[rec->n_tokens];
  long lv = 0;
  double dv = 0;
  if (vepra::detail::convert_long(z, &lv) == 0) {
    t.value_int = static_cast<int32_t>(lv);  // the low 32 bits, as vepra_str_to_integer
    t.kind = VEPRA_PRSD_INTEGER;
    ++rec->n_integer;
  } else if (vepra::detail::convert_double(z, &dv) == 0) {
    t.value_double = dv;
    t.kind = VEPRA_PRSD_DOUBLE;
    ++rec->n_double;
  } else {
    if (copy == nullptr) copy = apr_pstrmemdup(pool, text, len);
    if (copy == nullptr) return false;
    t.value_string = copy;
    t.kind = VEPRA_PRSD_STRING;
    ++rec->n_string;
  }
  ++rec->n_tokens;
  --rec->room;
  return true;
}

}  // namespace

extern "C" {

int vepra_prsd_parse_p(vepra_prsd_t *rec, const char *line, const char *separators,
                       apr_pool_t *pool) noexcept {
  if (rec == nullptr || line == nullptr || pool == nullptr) return 0;
  const vepra::detail::ByteSet sep(separators);
  uint32_t state = rec->state <= VEPRA_PRSD_CONTINUED ? rec->state : uint32_t{VEPRA_PRSD_BETWEEN};
  // A token is always a run of this line: the buffer of a token left open
  // by the previous line starts empty here.
  const char *start = line;
  int status = 0;
  auto end_token = [&](const char *end) {
    if (end > start && !store(rec, start, static_cast<size_t>(end - start), pool)) status = -1;
    state = VEPRA_PRSD_BETWEEN;
  };
  const char *p = line;
  for (; *p != '\0'; ++p) {
    char c = *p;
    switch (state) {
      case VEPRA_PRSD_PLAIN:
        if (sep.has(c)) end_token(p);
        break;
      case VEPRA_PRSD_QUOTED:
        if (c == '"') end_token(p);
        break;
      default:  // between tokens, or after a backslash between tokens
        if (sep.has(c)) break;
        if (c == '\\') {
          state = VEPRA_PRSD_CONTINUED;
        } else if (c == '"') {
          state = VEPRA_PRSD_QUOTED;
          start = p + 1;
        } else {
          state = VEPRA_PRSD_PLAIN;
          start = p;
        }
        break;
    }
  }
  if ((state == VEPRA_PRSD_PLAIN || state == VEPRA_PRSD_QUOTED) && p > start &&
      !store(rec, start, static_cast<size_t>(p - start), pool))
    status = -1;
  rec->state = state;
  return status;
}

int vepra_prsd_incomplete(const vepra_prsd_t *rec) noexcept {
  return rec != nullptr && rec->state == VEPRA_PRSD_CONTINUED ? 1 : 0;
}

void vepra_prsd_clear_p(vepra_prsd_t *rec) noexcept {
  if (rec != nullptr) *rec = vepra_prsd_t{};
}

}  // extern "C"
