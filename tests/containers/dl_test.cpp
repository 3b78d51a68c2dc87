// Doubly linked lists: pool nodes against a vector, then what it leaves out; the
// fuzzer's corpus replay models heap nodes, exchanges, sorting, deleting walks.

#include "containers/container_ids.hpp"
#include "vepra_dl.h"

namespace {

using namespace vepra_test;

uint32_t tag_of(int k) { return static_cast<uint32_t>(k * 5 % 7); }

// The ids of node's chain, after checking its links, tags and (no) flags.
Ids read_chain(vepra_dl_t *node) {
  Ids out;
  vepra_dl_t *first = vepra_dl_get_first(node);
  EXPECT_TRUE(first == nullptr || first->prev == nullptr);
  for (vepra_dl_t *p = first; p != nullptr; p = p->next) {
    out.push_back(id_of(p->data));
    EXPECT_TRUE(p->next == nullptr || p->next->prev == p) << "at id " << out.back();
    EXPECT_TRUE(p->flags == 0 && p->tag == tag_of(out.back())) << "at id " << out.back();
  }
  return out;
}
const WalkForms<vepra_dl_t> kWalks{vepra_dl_walk, vepra_dl_walk_int_first, vepra_dl_walk_ptr_first,
                                   vepra_dl_walk_err_first, vepra_dl_walk_err_or_ptr_first};

class DlTest : public LibraryTest {};

enum Where { kPrepend, kAppend, kAfter, kBefore };
using Add = vepra_error_t *(*)(vepra_dl_t **, uint32_t, void *, vepra_dl_t **, apr_pool_t *);
constexpr Add kAdds[] = {vepra_dl_prepend, vepra_dl_append, vepra_dl_add_after,
                         vepra_dl_add_before};

TEST_F(DlTest, RandomOperationsMatchVectorModel) {
  std::mt19937 rng(20240611);
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  for (int round = 0; round < 20; ++round) {
    Ids model;
    vepra_dl_t *list = nullptr;
    int handle = -1, next_id = 1;  // handle: the id the list pointer names
    auto where = [&](int k) {
      return static_cast<size_t>(std::find(model.begin(), model.end(), k) - model.begin());
    };
    for (int step = 0; step < 150; ++step) {
      const int k = next_id++;
      const unsigned op = rng() % 9;
      const size_t at = model.empty() ? 0 : pick(model.size());
      if (op < 5) {  // prepend, append (twice as often), after or before the handle
        Where w = op == 0 ? kPrepend : op < 3 ? kAppend : op == 3 ? kAfter : kBefore;
        ASSERT_EQ(kAdds[w](&list, tag_of(k), id(k), nullptr, pool_), nullptr);
        size_t to = w == kPrepend                   ? 0
                    : w == kAppend || model.empty() ? model.size()
                                                    : where(handle) + (w == kAfter);
        model.insert(model.begin() + static_cast<long>(to), k);
      } else if (op == 5 && !model.empty()) {  // delete by data (maybe missing), three ways
        const int victim = rng() % 4 == 0 ? -5 : model[at];
        const bool present = victim > 0;
        const unsigned form = rng() % 3;  // the callback forms' errors come back as is
        FailOn fail{victim, form == 2 ? user_error(125996, "no") : nullptr};
        if (form == 0)
          vepra_dl_delete_obj(&list, id(victim));
        else if (form == 1)
          vepra_dl_delete_obj_func(&list, id(victim), record, &fail.seen);
        else
          EXPECT_EQ(vepra_dl_delete_obj_errfunc(&list, id(victim), fail_on, &fail),
                    present ? fail.error : nullptr);
        vepra_error_clear(fail.error);
        EXPECT_EQ(fail.seen, form != 0 && present ? Ids{victim} : Ids{});
        if (present && victim == handle)
          handle = at + 1 < model.size() ? model[at + 1] : at > 0 ? model[at - 1] : -1;
        if (present) model.erase(model.begin() + static_cast<long>(at));
      } else if (op == 6 && !model.empty()) {  // move the handle
        list = vepra_dl_get_n(list, at);
        handle = model[at];
      } else if (op == 7 && model.size() > 1 && model[at] != handle) {  // take a node off
        vepra_dl_t *node = vepra_dl_get_n(list, at);
        FailOn fail{model[at], user_error(125995, "kept")};
        const unsigned form = rng() % 3;
        if (form == 0) {
          vepra_dl_delete_func(node, record, &fail.seen);
        } else if (form == 1) {
          ASSERT_EQ(vepra_dl_extract(node), node);
          fail.seen = {model[at]};
        } else {
          EXPECT_EQ(vepra_dl_delete_errfunc(node, fail_on, &fail), fail.error);
        }
        EXPECT_EQ(vepra_dl_count(node), 1u);  // unlinked
        vepra_error_clear(fail.error);
        EXPECT_EQ(fail.seen, Ids{model[at]});
        model.erase(model.begin() + static_cast<long>(at));
      } else if (op == 8) {  // join a short second list behind
        vepra_dl_t *other = nullptr;
        for (int i = 0; i < 3; ++i, ++next_id) {
          ASSERT_EQ(vepra_dl_append(&other, tag_of(next_id), id(next_id), nullptr, pool_), nullptr);
          model.push_back(next_id);
        }
        EXPECT_EQ(vepra_dl_join(list, vepra_dl_get_last(other)), vepra_dl_get_first(list));
        if (list == nullptr) list = other;
      }
      if (handle == -1 && !model.empty()) handle = model.front();
      ASSERT_EQ(read_chain(list), model) << "round " << round << " step " << step;
      ASSERT_EQ(list == nullptr ? -1 : id_of(list->data), handle);
      // From any node, counts and walks cover the list, positions count from its ends.
      const size_t from = model.empty() ? 0 : pick(model.size());
      ASSERT_EQ(vepra_dl_count(vepra_dl_get_n(list, from)), model.size());
      expect_walk_forms(vepra_dl_get_n(list, from), kWalks, model, tag_of);
      EXPECT_EQ(vepra_dl_get_data(vepra_dl_get_n(vepra_dl_get_last(list), from)),
                model.empty() ? nullptr : id(model[from]));
      EXPECT_EQ(vepra_dl_get_n(list, model.size()), nullptr);
    }
    // Destruction: the handle's predecessors backwards, then forwards from
    // it. A failing node stops it with the handle on the node after it (or
    // kept, when the failure comes before it): the rest then goes in order.
    const size_t h = where(handle);
    Ids expect(model.rend() - static_cast<long>(h), model.rend()), seen;
    expect.insert(expect.end(), model.begin() + static_cast<long>(h), model.end());
    if (!model.empty()) {
      const size_t fail_at = pick(model.size());
      FailOn fail{expect[fail_at], user_error(125999, "callback failed")};
      EXPECT_EQ(take_printed(vepra_dl_destroy_errfunc(&list, fail_on, &fail)),
                "Error(125999): Error while destroy DL List. \nError(125999): callback failed ");
      EXPECT_EQ(fail.seen.size(), fail_at + 1);
      seen = fail.seen;  // then the rest, in order
      vepra_dl_destroy_func(&list, record, &seen);
    }
    EXPECT_EQ(seen, expect);
    EXPECT_EQ(list, nullptr);
  }
}

// Null, self, foreign and linked nodes are refused with 120051; a join is named
// by its first argument and never makes a ring. Elsewhere null is quiet.
TEST_F(DlTest, BadNodesAreRefusedAndNullIsQuiet) {
  vepra_dl_t *a = nullptr, *b = nullptr, *c = nullptr, *d = nullptr;
  for (auto [k, n] : {std::pair{1, &a}, {2, &b}, {3, &c}, {4, &d}})
    ASSERT_EQ(vepra_dl_create(tag_of(k), id(k), n, pool_), nullptr);
  const std::string invalid = "Error(120051): DL insertion error: invalid pointer. ";
  EXPECT_EQ(take_printed(vepra_dl_exchange(a, b)),  // not of one chain
            "Error(120051): Unable to exchange DL nodes. \n" + invalid);
  ASSERT_EQ(vepra_dl_insert_after(a, b), nullptr);
  ASSERT_EQ(vepra_dl_insert_before(a, c), nullptr);
  for (auto [at, node] : {std::pair{d, (vepra_dl_t *)nullptr}, {nullptr, d}, {d, d}, {c, b}}) {
    EXPECT_EQ(take_printed(vepra_dl_insert_after(at, node)), invalid);
    EXPECT_EQ(take_printed(vepra_dl_insert_before(at, node)), invalid);
  }
  EXPECT_EQ(read_chain(a), (Ids{3, 1, 2}));
  EXPECT_EQ(take_printed(vepra_dl_exchange(nullptr, a)),
            "Error(120052): DL exchange error: invalid pointer. ");
  EXPECT_EQ(take_printed(vepra_dlm_add_before(nullptr, 0, nullptr, nullptr)),
            "Error(120051): Unable to add DL node. \n" + invalid);
  EXPECT_EQ(vepra_dl_join(b, nullptr), c);
  EXPECT_EQ(vepra_dl_join(a, b), c);
  EXPECT_EQ(vepra_dl_count(a), 3u);
  uint32_t tag = 77;
  EXPECT_EQ(vepra_dl_get_data_tag(nullptr, &tag), nullptr);
  EXPECT_EQ(tag, 77u);
  expect_quiet_with(nullptr, vepra_dl_get_first, vepra_dl_get_last, vepra_dl_get_prev,
                    vepra_dl_get_next, vepra_dl_extract, vepra_dl_get_n, vepra_dl_count,
                    vepra_dl_update, vepra_dlm_delete_func, vepra_dl_bubsort,
                    vepra_dl_walk_int_first, vepra_dl_mwalk_err_first);
  vepra_dl_t *empty = nullptr;
  for (vepra_dl_t **l : {static_cast<vepra_dl_t **>(nullptr), &empty})
    expect_quiet_with(l, vepra_dlm_delete_obj, vepra_dl_delete_obj_errfunc, vepra_dlm_destroy_func,
                      vepra_dl_destroy_errfunc, vepra_dl_dwalk);
  // A null data pointer deletes nothing, not the first data-less node.
  ASSERT_EQ(vepra_dl_append(&empty, 0, nullptr, nullptr, pool_), nullptr);
  vepra_dl_delete_obj(&empty, nullptr);
  EXPECT_EQ(vepra_dl_count(empty), 1u);
}

// Signed keys of both signs and data-less nodes (first) against std::sort.
TEST_F(DlTest, HookSortAgreesWithStdSort) {
  std::mt19937 rng(7);
  std::vector<vepra_hook_t> hooks(200);
  std::vector<int32_t> expect, got;
  vepra_dl_t *list = nullptr;
  for (size_t i = 0; i < hooks.size(); ++i) {
    hooks[i].order = static_cast<int32_t>(rng());
    void *data = i % 100 == 50 ? nullptr : &hooks[i];  // twice a node without data
    expect.push_back(data == nullptr ? INT32_MIN : hooks[i].order);
    ASSERT_EQ(vepra_dl_append(&list, 0, data, nullptr, pool_), nullptr);
  }
  ASSERT_EQ(vepra_dl_bubsort(vepra_dl_get_n(list, 17), vepra_hook_bubsort_callback, nullptr),
            nullptr);
  std::sort(expect.begin(), expect.end());
  for (vepra_dl_t *p = vepra_dl_get_first(list); p != nullptr; p = p->next)
    got.push_back(p->data == nullptr ? INT32_MIN : static_cast<vepra_hook_t *>(p->data)->order);
  EXPECT_EQ(got, expect);
  vepra_dl_destroy(&list);
  EXPECT_EQ(list, nullptr);
  vepra_hook_t same{5};  // equal keys compare equal, not before
  EXPECT_EQ(vepra_hook_bubsort_callback(0, &same, 0, &same, nullptr), 0);
}

// Records each round's data (checking its tags), failing after stop_after.
struct Rounds {
  std::vector<Ids> data;
  size_t stop_after = 0;
  vepra_error_t *error = nullptr;
};
vepra_error_t *record_round(size_t n, const uint32_t *tags, void *const *data, void *user) {
  auto *r = static_cast<Rounds *>(user);
  Ids &round = r->data.emplace_back();
  for (size_t i = 0; i < n; ++i) {
    round.push_back(id_of(data[i]));
    EXPECT_EQ(tags[i], static_cast<uint32_t>(round.back() * 10));
  }
  return r->data.size() == r->stop_after ? r->error : nullptr;
}

// Lists go in step from their first nodes, exhausted ones give 0 and null; the
// stop sentinel is success, an error comes back as is, each work array may fail.
TEST_F(DlTest, MwalkGoesInStepAndDropsShortLists) {
  vepra_dl_t *handles[3] = {};
  for (auto [h, k] : {std::pair{0, 1}, {0, 2}, {0, 3}, {1, 7}})
    ASSERT_EQ(vepra_dl_append(&handles[h], k * 10, id(k), nullptr, pool_), nullptr);
  handles[0] = vepra_dl_get_last(handles[0]);
  Rounds r;
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 3, record_round, &r), nullptr);
  EXPECT_EQ(r.data, (std::vector<Ids>{{1, 7, 0}, {2, 0, 0}, {3, 0, 0}}));
  r = {{}, 2, VepraDLlistStopWalking};
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 3, record_round, &r), nullptr);
  EXPECT_EQ(r.data.size(), 2u);
  r = {{}, 1, user_error(125997, "round failed")};
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 3, record_round, &r), r.error);
  vepra_error_clear(r.error);
  EXPECT_EQ(take_printed(vepra_dl_mwalk_err_first(handles, SIZE_MAX / 8, record_round, &r)),
            "Error(120012): Failed to allocate 18446744073709551608 bytes of memory. ");
  r = {};
  auto walk = [&] { return vepra_dl_mwalk_err_first(handles, 3, record_round, &r); };
  auto lone_alloc_error = [](vepra_error_t *e, long) {
    EXPECT_TRUE(e->code == VEPRA_E_ALLOC && e->next == nullptr);
  };
  EXPECT_EQ(for_each_allocation_failure(walk, lone_alloc_error), 3);
  EXPECT_EQ(r.data.size(), 3u);  // no round before the arrays are all made
}

// A failed heap node leaves the list as it was (all adds make it before linking).
TEST_F(DlTest, HeapAllocationFailuresLeaveTheListUnchanged) {
  vepra_dl_t *list = nullptr;
  ASSERT_EQ(vepra_dlm_append(&list, tag_of(1), id(1), nullptr), nullptr);
  EXPECT_EQ(expect_alloc_failures(
                [&] { return vepra_dlm_prepend(&list, tag_of(2), id(2), nullptr); },
                node_alloc_failure("Unable to prepend DL object.", "dlm", sizeof(vepra_dl_t)),
                [&] { EXPECT_EQ(read_chain(list), Ids{1}); }),
            1);
  EXPECT_EQ(vepra_dl_count(list), 2u);
  vepra_dlm_destroy(&list);
}

}  // namespace
