// String lists (doubly linked lists of pool strings) and the tokenizer.
#include <cstring>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "text/text_internal.hpp"
#include "vepra_mem.h"
#include "vepra_strlist.h"

namespace {

using vepra::detail::make_error;
using vepra::detail::wrap_error;

// Appends pool strings to a list in O(1) each: the list's last node is
// found once and then followed, instead of rewinding the chain per append.
class Appender {
 public:
  explicit Appender(vepra_strlist_t *list) noexcept
      : list_(list), tail_(list != nullptr ? vepra_dl_get_last(*list) : nullptr) {}

  vepra_error_t *add(char *copy, apr_pool_t *pool) noexcept {
    vepra_dl_t *node = nullptr;
    vepra_error_t *e = tail_ == nullptr ? vepra_dl_append(list_, 0, copy, &node, pool)
                                        : vepra_dl_add_after(&tail_, 0, copy, &node, pool);
    if (e == nullptr) tail_ = node;
    return e;
  }

 private:
  vepra_strlist_t *list_;
  vepra_dl_t *tail_;
};

// A copy of s[0..n) in pool into *out: null for a null s or a null pool
// (which the list refuses anyway); an error when the pool cannot give it.
vepra_error_t *pool_copy(apr_pool_t *pool, const char *s, size_t n, char **out) noexcept {
  *out = s == nullptr || pool == nullptr ? nullptr : apr_pstrmemdup(pool, s, n);
  if (*out == nullptr && s != nullptr && pool != nullptr) return vepra::detail::alloc_error(n + 1);
  return nullptr;
}

// A copy of the whole string s (null stays null).
vepra_error_t *pool_copy(apr_pool_t *pool, const char *s, char **out) noexcept {
  return pool_copy(pool, s, s == nullptr ? 0 : std::strlen(s), out);
}

// The token being built: a vepra_mem block that grows as needed.
class TokenBuffer {
 public:
  ~TokenBuffer() { vepra_mem_free(data_); }
  TokenBuffer() = default;
  TokenBuffer(const TokenBuffer &) = delete;
  TokenBuffer &operator=(const TokenBuffer &) = delete;

  vepra_error_t *reserve(size_t n) noexcept {
    if (n <= cap_) return nullptr;
    size_t cap = cap_ == 0 ? 1000 : cap_;
    while (cap < n) cap = cap > SIZE_MAX / 2 ? n : cap * 2;
    void *p = data_;
    vepra_error_t *e = vepra_mem_realloc(cap, &p);
    if (e != nullptr) return e;  // data_ is still the old block
    data_ = static_cast<char *>(p);
    cap_ = cap;
    return nullptr;
  }
  vepra_error_t *push(char c) noexcept {
    if (len_ == cap_) {
      if (vepra_error_t *e = reserve(len_ + 1)) return e;
    }
    data_[len_++] = c;
    return nullptr;
  }
  bool empty() const noexcept { return len_ == 0; }
  const char *data() const noexcept { return data_; }
  size_t size() const noexcept { return len_; }
  void clear() noexcept { len_ = 0; }

 private:
  char *data_ = nullptr;
  size_t cap_ = 0;
  size_t len_ = 0;
};

}  // namespace

extern "C" {

vepra_error_t *vepra_strlist_create(vepra_strlist_t **out, apr_pool_t *pool) noexcept {
  if (out == nullptr || pool == nullptr) return make_error(VEPRA_E_DL_INSERT);
  *out = static_cast<vepra_strlist_t *>(vepra::detail::pool_calloc(pool, sizeof(vepra_strlist_t)));
  return *out == nullptr ? vepra::detail::alloc_error(sizeof(vepra_strlist_t)) : nullptr;
}

void vepra_strlist_destroy(vepra_strlist_t *list) noexcept { vepra_dl_destroy(list); }

void vepra_strlist_clear(vepra_strlist_t *list) noexcept { vepra_dl_destroy(list); }

vepra_error_t *vepra_strlist_addfirst(vepra_strlist_t *list, const char *s,
                                      apr_pool_t *pool) noexcept {
  char *copy = nullptr;
  if (vepra_error_t *e = pool_copy(pool, s, &copy)) return e;
  return vepra_dl_prepend(list, 0, copy, nullptr, pool);
}

vepra_error_t *vepra_strlist_addlast(vepra_strlist_t *list, const char *s,
                                     apr_pool_t *pool) noexcept {
  char *copy = nullptr;
  if (vepra_error_t *e = pool_copy(pool, s, &copy)) return e;
  return vepra_dl_append(list, 0, copy, nullptr, pool);
}

char *vepra_strlist_getn(vepra_strlist_t *list, size_t n) noexcept {
  if (list == nullptr) return nullptr;
  return static_cast<char *>(vepra_dl_get_data(vepra_dl_get_n(*list, n)));
}

size_t vepra_strlist_nelts(vepra_strlist_t *list) noexcept {
  return list == nullptr ? 0 : vepra_dl_count(*list);
}

int vepra_strlist_is_exists(vepra_strlist_t *list, const char *s) noexcept {
  if (list == nullptr || s == nullptr) return 0;
  for (vepra_dl_t *n = vepra_dl_get_first(*list); n != nullptr; n = n->next) {
    const auto *item = static_cast<const char *>(n->data);
    if (item != nullptr && std::strcmp(item, s) == 0) return 1;
  }
  return 0;
}

vepra_error_t *vepra_strlist_copy(vepra_strlist_t *dst, vepra_strlist_t *src,
                                  apr_pool_t *pool) noexcept {
  // The source chain is taken before dst is emptied, so copying a list
  // onto itself is safe.
  vepra_dl_t *node = src == nullptr ? nullptr : vepra_dl_get_first(*src);
  if (node == nullptr) return nullptr;
  vepra_dl_destroy(dst);
  Appender out(dst);
  for (; node != nullptr; node = node->next) {
    const auto *s = static_cast<const char *>(node->data);
    char *copy = nullptr;
    vepra_error_t *e = pool_copy(pool, s, &copy);
    if (e == nullptr) e = out.add(copy, pool);
    if (e != nullptr) {
      vepra_dl_destroy(dst);
      return wrap_error(e, "Cannot copy list of strings.");
    }
  }
  return nullptr;
}

vepra_error_t *vepra_strlist_tokenize(vepra_strlist_t *src, vepra_strlist_t *dst,
                                      const char *separators, apr_pool_t *pool) noexcept {
  const vepra::detail::ByteSet sep(separators);
  if (sep.empty())
    return make_error(VEPRA_E_STRTOK_SEPARATORS,
                      "Cannot tokenize string: incorrect number of tokens [%d].", 0);
  vepra_dl_t *node = src == nullptr ? nullptr : vepra_dl_get_first(*src);
  if (node == nullptr) return make_error(VEPRA_E_STRTOK_NO_DATA);
  vepra_dl_destroy(dst);

  enum class State { kBetween, kPlain, kQuoted } state = State::kBetween;
  TokenBuffer token;
  Appender out(dst);
  auto end_token = [&]() -> vepra_error_t * {
    state = State::kBetween;
    if (token.empty()) return nullptr;
    char *copy = nullptr;
    vepra_error_t *e = pool_copy(pool, token.data(), token.size(), &copy);
    if (e == nullptr) e = out.add(copy, pool);
    token.clear();
    return e;
  };
  // The state and the token carry over from one element to the next.
  for (; node != nullptr; node = node->next) {
    const char *s = static_cast<const char *>(node->data);
    for (; s != nullptr && *s != '\0'; ++s) {
      char c = *s;
      vepra_error_t *e = nullptr;
      switch (state) {
        case State::kBetween:
          if (sep.has(c)) break;
          if (c == '"') {
            state = State::kQuoted;
          } else {
            state = State::kPlain;
            e = token.push(c);
          }
          break;
        case State::kPlain:
          e = sep.has(c) ? end_token() : token.push(c);
          break;
        case State::kQuoted:
          e = c == '"' ? end_token() : token.push(c);
          break;
      }
      if (e != nullptr) return wrap_error(e, "Failed to tokenize strings.");
    }
  }
  if (vepra_error_t *e = end_token()) return wrap_error(e, "Failed to tokenize strings.");
  return nullptr;
}

}  // extern "C"
