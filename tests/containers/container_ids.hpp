// Helpers of the container tests (and their standard headers): small integers
// as data pointers, recording and failing callbacks, the checks all share.
#ifndef VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP
#define VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_dl.h"

namespace vepra_test {

using Ids = std::vector<int>;
inline void *id(int k) { return reinterpret_cast<void *>(static_cast<uintptr_t>(k)); }
inline int id_of(const void *p) { return static_cast<int>(reinterpret_cast<uintptr_t>(p)); }
inline uint32_t same(int k) { return static_cast<uint32_t>(k); }

// Visit callback appending the id it sees to an Ids user.
inline void record(uint32_t, void *data, void *user) {
  static_cast<Ids *>(user)->push_back(id_of(data));
}

// A caller's error without source location, as a callback would return.
inline vepra_error_t *user_error(int code, const char *message) {
  return vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, message);
}

// Error callback recording the ids it sees and returning error on fail_id.
struct FailOn {
  int id = 0;
  vepra_error_t *error = nullptr;
  Ids seen = {};
};
inline bool hit(void *data, void *user) {
  static_cast<FailOn *>(user)->seen.push_back(id_of(data));
  return id_of(data) == static_cast<FailOn *>(user)->id;
}
template <class... Extra>
vepra_error_t *fail_on(uint32_t, void *data, void *user, Extra...) {
  return hit(data, user) ? static_cast<FailOn *>(user)->error : nullptr;
}

// The walk forms of one kind of container, null where it has none.
template <class L>
struct WalkForms {
  void (*walk)(L *, vepra_walk_fn, void *);
  int (*int_first)(L *, vepra_walk_int_fn, void *) = nullptr;
  void *(*ptr_first)(L *, vepra_walk_ptr_fn, void *) = nullptr;
  vepra_error_t *(*err_first)(L *, vepra_walk_err_fn, void *) = nullptr;
  vepra_error_t *(*err_or_ptr_first)(L *, vepra_walk_err_or_ptr_fn, void *, void **) = nullptr;
};
inline bool third(int k) { return k % 3 == 0; }

// Each walk form of l visits order, the stopping forms up to its first
// multiple of 3 (whose tag is tag_of(id)).
template <class L>
void expect_walk_forms(L *l, const WalkForms<L> &w, const Ids &order, uint32_t (*tag_of)(int)) {
  const auto hit = std::find_if(order.begin(), order.end(), third);
  const bool found = hit != order.end();
  Ids seen;
  w.walk(l, record, &seen);
  EXPECT_EQ(seen, order);
  if (w.int_first != nullptr) {
    auto tag = [](uint32_t t, void *data, void *) { return third(id_of(data)) ? int(t) + 1 : 0; };
    EXPECT_EQ(w.int_first(l, tag, nullptr), found ? int(tag_of(*hit)) + 1 : 0);
  }
  if (w.ptr_first != nullptr) {
    auto ptr = [](uint32_t, void *data, void *) { return third(id_of(data)) ? data : nullptr; };
    EXPECT_EQ(w.ptr_first(l, ptr, nullptr), found ? id(*hit) : nullptr);
  }
  if (w.err_first != nullptr) {
    FailOn stop{found ? *hit : -1, VepraDLlistStopWalking};
    EXPECT_EQ(w.err_first(l, fail_on<>, &stop), found ? stop.error : nullptr);
    EXPECT_EQ(stop.seen, Ids(order.begin(), found ? hit + 1 : hit));
  }
  if (w.err_or_ptr_first != nullptr) {  // stops on a stored pointer (errors: as err_first)
    auto take = [](uint32_t, void *data, void *, void **out) -> vepra_error_t * {
      if (third(id_of(data))) *out = data;
      return nullptr;
    };
    void *slot = nullptr;
    EXPECT_EQ(w.err_or_ptr_first(l, take, nullptr, &slot), nullptr);
    EXPECT_EQ(slot, found ? id(*hit) : nullptr);
    // A slot already set is not cleared: the walk stops after one call.
    FailOn stop{-1, nullptr, {}};
    slot = id(9);
    EXPECT_EQ(w.err_or_ptr_first(l, fail_on<void **>, &stop, &slot), nullptr);
    EXPECT_EQ(stop.seen.size(), std::min<size_t>(order.size(), 1));
  }
}

template <class P, class R, class A0, class... A>
void quiet_call(P first, R (*fn)(A0, A...)) {
  if constexpr (std::is_void_v<R>)
    fn(static_cast<A0>(first), A{}...);
  else
    EXPECT_EQ(fn(static_cast<A0>(first), A{}...), R{});
}
// Calls each function with first and all other arguments zero: each must
// return zero (or nothing) without touching anything.
template <class P, class... F>
void expect_quiet_with(P first, F... fns) {
  (quiet_call(first, fns), ...);
}

// The chain a failed node allocation prints, under an optional context.
inline std::string node_alloc_failure(const std::string &context, const char *kind, size_t bytes) {
  return (context.empty() ? "" : "Error(120012): " + context + " \n") +
         "Error(120012): Can't allocate memory for " + kind +
         " node. \nError(120012): Failed to allocate " + std::to_string(bytes) +
         " bytes of memory. ";
}
// Fails each allocation of op in turn: every failure must print expect and
// pass unchanged(). Returns the number of allocations op makes.
template <class Op, class Check>
long expect_alloc_failures(Op op, const std::string &expect, Check unchanged) {
  return for_each_allocation_failure(op, [&](vepra_error_t *e, long n) {
    EXPECT_EQ(take_printed(vepra_error_dup(e)), expect) << "allocation " << n;
    unchanged();
  });
}

}  // namespace vepra_test

#endif  // VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP
