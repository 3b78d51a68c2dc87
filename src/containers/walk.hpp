// The walk family, written once for every container.
//
// A container supplies only its visiting order, as an "each" callable:
//
//   each(step)   calls step(tag, data) on the elements in order and returns
//                as soon as step returns true (stop).
//
// The stop rules of the callback shapes are the Rule types below; walk(),
// walk_int_first() and friends combine an order with a rule. A null
// callback is an empty walk (it returns what an empty container returns).
#ifndef VEPRA_SRC_CONTAINERS_WALK_HPP
#define VEPRA_SRC_CONTAINERS_WALK_HPP

#include <cstdint>

#include "vepra_dl.h"

namespace vepra::detail {

// Visit every element; no result.
struct VisitAll {
  vepra_walk_fn fn;
  void *user;
  bool operator()(uint32_t tag, void *data) const noexcept {
    fn(tag, data, user);
    return false;
  }
  void result() const noexcept {}
};

// Stop at the first non-zero int; the result is that int, else 0.
struct IntFirst {
  vepra_walk_int_fn fn;
  void *user;
  int value = 0;
  bool operator()(uint32_t tag, void *data) noexcept {
    value = fn(tag, data, user);
    return value != 0;
  }
  int result() const noexcept { return value; }
};

// Stop at the first non-null pointer, which is the result.
struct PtrFirst {
  vepra_walk_ptr_fn fn;
  void *user;
  void *value = nullptr;
  bool operator()(uint32_t tag, void *data) noexcept {
    value = fn(tag, data, user);
    return value != nullptr;
  }
  void *result() const noexcept { return value; }
};

// Stop at the first error, returned unchanged (the stop sentinel too).
struct ErrFirst {
  vepra_walk_err_fn fn;
  void *user;
  vepra_error_t *value = nullptr;
  bool operator()(uint32_t tag, void *data) noexcept {
    value = fn(tag, data, user);
    return value != nullptr;
  }
  vepra_error_t *result() const noexcept { return value; }
};

// Stop at the first error (the result) or once the caller's slot holds a
// non-null pointer (the result is then null). The slot is never cleared
// here: the caller sets it before the walk. A null slot makes the walk an
// error-first walk that cannot stop on a pointer.
struct ErrOrPtrFirst {
  vepra_walk_err_or_ptr_fn fn;
  void *user;
  void **slot;
  vepra_error_t *value = nullptr;
  bool operator()(uint32_t tag, void *data) noexcept {
    void *scratch = nullptr;
    void **where = slot != nullptr ? slot : &scratch;
    value = fn(tag, data, user, where);
    return value != nullptr || *where != nullptr;
  }
  vepra_error_t *result() const noexcept { return value; }
};

// Runs rule over the order given by each; a rule without callback visits
// nothing.
template <class Each, class Rule>
auto run_walk(Each &&each, Rule rule) noexcept {
  if (rule.fn != nullptr) each([&rule](uint32_t tag, void *data) { return rule(tag, data); });
  return rule.result();
}

template <class Each>
void walk(Each &&each, vepra_walk_fn fn, void *user) noexcept {
  run_walk(each, VisitAll{fn, user});
}

template <class Each>
int walk_int_first(Each &&each, vepra_walk_int_fn fn, void *user) noexcept {
  return run_walk(each, IntFirst{fn, user});
}

template <class Each>
void *walk_ptr_first(Each &&each, vepra_walk_ptr_fn fn, void *user) noexcept {
  return run_walk(each, PtrFirst{fn, user});
}

template <class Each>
vepra_error_t *walk_err_first(Each &&each, vepra_walk_err_fn fn, void *user) noexcept {
  return run_walk(each, ErrFirst{fn, user});
}

template <class Each>
vepra_error_t *walk_err_or_ptr_first(Each &&each, vepra_walk_err_or_ptr_fn fn, void *user,
                                     void **slot) noexcept {
  return run_walk(each, ErrOrPtrFirst{fn, user, slot});
}

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CONTAINERS_WALK_HPP
