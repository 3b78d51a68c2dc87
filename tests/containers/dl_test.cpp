// Doubly linked lists: a randomized comparison against a vector model in
// both flavours, then the contracts the model does not cover (handles,
// destruction order, exchange, walks, failures).
#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "containers/container_ids.hpp"
#include "support/test_support.hpp"
#include "vepra_dl.h"

namespace {

using vepra_test::take_printed;
using vepra_test::id;
using vepra_test::id_of;
using vepra_test::record;
using vepra_test::user_error;

struct Item {
  int id;
  uint32_t tag;
  bool operator==(const Item &) const = default;
};

// The chain seen from node, read through the links, after checking that
// prev and next agree everywhere.
std::vector<Item> read_chain(vepra_dl_t *node) {
  std::vector<Item> out;
  vepra_dl_t *first = vepra_dl_get_first(node);
  if (first != nullptr) {
    EXPECT_EQ(first->prev, nullptr);
  }
  for (vepra_dl_t *p = first; p != nullptr; p = p->next) {
    if (p->next != nullptr) {
      EXPECT_EQ(p->next->prev, p);
    }
    out.push_back({id_of(p->data), p->tag});
  }
  return out;
}

class DlTest : public vepra_test::LibraryTest {};

// Parameterised by flavour: false = pool nodes, true = heap nodes.
class DlFlavourTest : public DlTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool heap() const { return GetParam(); }
  vepra_error_t *append(vepra_dl_t **l, uint32_t tag, int k, vepra_dl_t **out = nullptr) {
    return heap() ? vepra_dlm_append(l, tag, id(k), out)
                  : vepra_dl_append(l, tag, id(k), out, pool_);
  }
  vepra_error_t *prepend(vepra_dl_t **l, uint32_t tag, int k, vepra_dl_t **out = nullptr) {
    return heap() ? vepra_dlm_prepend(l, tag, id(k), out)
                  : vepra_dl_prepend(l, tag, id(k), out, pool_);
  }
  vepra_error_t *add_after(vepra_dl_t **l, uint32_t tag, int k) {
    return heap() ? vepra_dlm_add_after(l, tag, id(k), nullptr)
                  : vepra_dl_add_after(l, tag, id(k), nullptr, pool_);
  }
  vepra_error_t *add_before(vepra_dl_t **l, uint32_t tag, int k) {
    return heap() ? vepra_dlm_add_before(l, tag, id(k), nullptr)
                  : vepra_dl_add_before(l, tag, id(k), nullptr, pool_);
  }
  void release(vepra_dl_t *free_standing) {
    if (heap()) vepra_dlm_delete(free_standing);
  }
  void destroy(vepra_dl_t **l) { heap() ? vepra_dlm_destroy(l) : vepra_dl_destroy(l); }
  vepra_dl_t *build(std::initializer_list<int> ids) {
    vepra_dl_t *l = nullptr;
    for (int k : ids) EXPECT_EQ(append(&l, static_cast<uint32_t>(k * 10), k), nullptr);
    return l;
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, DlFlavourTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "dlm" : "dl"; });

// The reference order of the exchange sort: for each position, swap in
// every later element that compares smaller.
void model_sort(std::vector<Item> &v) {
  for (size_t i = 0; i < v.size(); ++i)
    for (size_t j = i + 1; j < v.size(); ++j)
      if (v[i].tag > v[j].tag) std::swap(v[i], v[j]);
}

int compare_tags(uint32_t a, void *, uint32_t b, void *, void *) { return (a > b) - (a < b); }

int remove_multiples(uint32_t, void *data, void *user) {
  return id_of(data) % *static_cast<int *>(user) == 0;
}

TEST_P(DlFlavourTest, RandomOperationsMatchVectorModel) {
  std::mt19937 rng(20240611);
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  for (int round = 0; round < 20; ++round) {
    std::vector<Item> model;
    vepra_dl_t *list = nullptr;
    int handle = -1;  // id the handle points to
    int next_id = 1;
    auto where = [&](int k) {
      return static_cast<size_t>(std::find_if(model.begin(), model.end(),
                                              [k](const Item &it) { return it.id == k; }) -
                                 model.begin());
    };
    for (int step = 0; step < 150; ++step) {
      int k = next_id++;
      uint32_t tag = static_cast<uint32_t>(rng() % 7);
      switch (rng() % 12) {
        case 0:
          ASSERT_EQ(prepend(&list, tag, k), nullptr);
          model.insert(model.begin(), {k, tag});
          break;
        case 1:
        case 2:
          ASSERT_EQ(append(&list, tag, k), nullptr);
          model.push_back({k, tag});
          break;
        case 3:
          ASSERT_EQ(add_after(&list, tag, k), nullptr);
          model.insert(model.empty() ? model.end() : model.begin() + where(handle) + 1, {k, tag});
          break;
        case 4:
          ASSERT_EQ(add_before(&list, tag, k), nullptr);
          model.insert(model.empty() ? model.end() : model.begin() + where(handle), {k, tag});
          break;
        case 5: {  // delete by data, sometimes a missing one
          if (model.empty()) break;
          int victim = rng() % 4 == 0 ? -5 : model[pick(model.size())].id;
          heap() ? vepra_dlm_delete_obj(&list, id(victim)) : vepra_dl_delete_obj(&list, id(victim));
          size_t at = where(victim);
          if (at == model.size()) break;
          if (victim == handle) {
            handle = at + 1 < model.size() ? model[at + 1].id : at > 0 ? model[at - 1].id : -1;
          }
          model.erase(model.begin() + at);
          break;
        }
        case 6: {  // move the handle into the middle of the chain
          if (model.empty()) break;
          size_t at = pick(model.size());
          list = vepra_dl_get_n(list, at);
          handle = model[at].id;
          break;
        }
        case 7: {  // extract a node that the handle does not point to
          if (model.size() < 2) break;
          size_t at = pick(model.size());
          if (model[at].id == handle) break;
          vepra_dl_t *node = vepra_dl_extract(vepra_dl_get_n(list, at));
          ASSERT_NE(node, nullptr);
          EXPECT_EQ(node->prev, nullptr);
          EXPECT_EQ(node->next, nullptr);
          EXPECT_EQ(id_of(node->data), model[at].id);
          model.erase(model.begin() + at);
          release(node);
          break;
        }
        case 8: {
          if (model.empty()) break;
          size_t a = pick(model.size()), b = pick(model.size());
          ASSERT_EQ(vepra_dl_exchange(vepra_dl_get_n(list, a), vepra_dl_get_n(list, b)), nullptr);
          std::swap(model[a], model[b]);
          break;
        }
        case 9:
          ASSERT_EQ(vepra_dl_bubsort(list, compare_tags, nullptr), nullptr);
          model_sort(model);
          break;
        case 10: {  // join a short second list behind
          vepra_dl_t *other = nullptr;
          for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(append(&other, tag, next_id), nullptr);
            model.push_back({next_id++, tag});
          }
          vepra_dl_t *joined = vepra_dl_join(list, vepra_dl_get_last(other));
          if (list == nullptr) {
            EXPECT_EQ(joined, nullptr);
            list = other;
            handle = id_of(other->data);
          } else {
            EXPECT_EQ(joined, vepra_dl_get_first(list));
          }
          break;
        }
        case 11: {  // dwalk removes the multiples of a small number
          int divisor = 2 + static_cast<int>(rng() % 5);
          std::vector<vepra_dl_t *> removed;
          for (vepra_dl_t *p = vepra_dl_get_first(list); p != nullptr; p = p->next)
            if (id_of(p->data) % divisor == 0) removed.push_back(p);
          vepra_dl_dwalk(&list, remove_multiples, &divisor);
          std::erase_if(model, [&](const Item &it) { return it.id % divisor == 0; });
          handle = model.empty() ? -1 : model.front().id;
          for (vepra_dl_t *p : removed) {
            EXPECT_EQ(p->prev, nullptr);
            EXPECT_EQ(p->next, nullptr);
            release(p);
          }
          break;
        }
      }
      if (handle == -1 && !model.empty()) handle = model.front().id;  // list was empty
      ASSERT_EQ(read_chain(list), model) << "round " << round << " step " << step;
      ASSERT_EQ(list == nullptr ? -1 : id_of(list->data), handle);
      ASSERT_EQ(vepra_dl_count(list), model.size());
      if (!model.empty()) {
        size_t at = pick(model.size());
        EXPECT_EQ(vepra_dl_count(vepra_dl_get_n(list, at)), model.size());
        EXPECT_EQ(id_of(vepra_dl_get_data(vepra_dl_get_n(vepra_dl_get_last(list), at))),
                  model[at].id);
      }
      EXPECT_EQ(vepra_dl_get_n(list, model.size()), nullptr);
    }
    destroy(&list);
    EXPECT_EQ(list, nullptr);
  }
}

// Destruction order: the handle's predecessors backwards, then forwards
// from the handle; the handle always names the next forward node.
struct DestroyLog {
  vepra_dl_t **list = nullptr;
  std::vector<int> seen;
  std::vector<int> handle_at_call;
  int fail_on = 0;
  vepra_error_t *fail_with = nullptr;
};

void log_visit(uint32_t, void *data, void *user) {
  auto *log = static_cast<DestroyLog *>(user);
  log->seen.push_back(id_of(data));
  log->handle_at_call.push_back(*log->list ? id_of((*log->list)->data) : 0);
}

vepra_error_t *log_visit_err(uint32_t tag, void *data, void *user) {
  log_visit(tag, data, user);
  auto *log = static_cast<DestroyLog *>(user);
  return id_of(data) == log->fail_on ? log->fail_with : nullptr;
}

TEST_P(DlFlavourTest, DestroyVisitsPredecessorsBackwardsThenTheRestForwards) {
  vepra_dl_t *list = build({1, 2, 3, 4, 5});
  list = vepra_dl_get_n(list, 2);
  DestroyLog log{&list, {}, {}};
  heap() ? vepra_dlm_destroy_func(&list, log_visit, &log)
         : vepra_dl_destroy_func(&list, log_visit, &log);
  EXPECT_EQ(log.seen, (std::vector<int>{2, 1, 3, 4, 5}));
  EXPECT_EQ(log.handle_at_call, (std::vector<int>{3, 3, 4, 5, 0}));
  EXPECT_EQ(list, nullptr);
}

TEST_F(DlTest, DestroyErrfuncStopsAndWraps) {
  for (int fail_on : {1, 4}) {
    vepra_dl_t *list = nullptr;
    std::vector<vepra_dl_t *> nodes(6);
    for (int k = 1; k <= 5; ++k) ASSERT_EQ(vepra_dl_append(&list, 0, id(k), &nodes[k], pool_), nullptr);
    list = nodes[3];
    DestroyLog log{&list, {}, {}, fail_on, user_error(125999, "callback failed")};
    vepra_error_t *e = vepra_dl_destroy_errfunc(&list, log_visit_err, &log);
    EXPECT_EQ(take_printed(e),
              "Error(125999): Error while destroy DL List. \nError(125999): callback failed ");
    if (fail_on == 1) {
      EXPECT_EQ(log.seen, (std::vector<int>{2, 1}));
      EXPECT_EQ(list, nodes[3]);  // a failure before the handle keeps it
      EXPECT_EQ(read_chain(list), (std::vector<Item>{{3, 0}, {4, 0}, {5, 0}}));
    } else {
      EXPECT_EQ(log.seen, (std::vector<int>{2, 1, 3, 4}));
      EXPECT_EQ(list, nodes[5]);  // on the node after the failing one
      EXPECT_EQ(read_chain(list), (std::vector<Item>{{5, 0}}));
    }
    for (int k : {1, 2}) EXPECT_EQ(vepra_dl_count(nodes[k]), 1u);
  }
}

TEST_F(DlTest, ExchangeSwapsPlacesAndKeepsHandles) {
  // (a, b) positions in a 4-node chain: adjacent both ways, ends, apart.
  const std::pair<int, int> cases[] = {{0, 1}, {1, 0}, {0, 3}, {3, 0}, {1, 3}, {2, 2}};
  for (auto [a, b] : cases) {
    vepra_dl_t *list = nullptr;
    std::vector<Item> model;
    for (int k = 0; k < 4; ++k) {
      ASSERT_EQ(vepra_dl_append(&list, 0, id(k + 1), nullptr, pool_), nullptr);
      model.push_back({k + 1, 0});
    }
    vepra_dl_t *na = vepra_dl_get_n(list, a), *nb = vepra_dl_get_n(list, b);
    ASSERT_EQ(vepra_dl_exchange(na, nb), nullptr);
    std::swap(model[a], model[b]);
    EXPECT_EQ(read_chain(na), model) << a << "," << b;
    EXPECT_EQ(vepra_dl_get_n(na, b), na);
  }
  vepra_dl_t *node = nullptr, *lone = nullptr;
  ASSERT_EQ(vepra_dl_create(1, nullptr, &node, pool_), nullptr);
  ASSERT_EQ(vepra_dl_create(2, nullptr, &lone, pool_), nullptr);
  EXPECT_EQ(take_printed(vepra_dl_exchange(nullptr, node)),
            "Error(120052): DL exchange error: invalid pointer. ");
  EXPECT_EQ(take_printed(vepra_dl_exchange(node, lone)),
            "Error(120051): Unable to exchange DL nodes. \nError(120051): DL insertion error: "
            "invalid pointer. ");
}

TEST_F(DlTest, InsertionRejectsBadNodes) {
  vepra_dl_t *a = nullptr, *b = nullptr, *c = nullptr;
  ASSERT_EQ(vepra_dl_create(1, id(1), &a, pool_), nullptr);
  ASSERT_EQ(vepra_dl_create(2, id(2), &b, pool_), nullptr);
  ASSERT_EQ(vepra_dl_create(3, id(3), &c, pool_), nullptr);
  const std::string invalid = "Error(120051): DL insertion error: invalid pointer. ";
  EXPECT_EQ(take_printed(vepra_dl_insert_before(nullptr, a)), invalid);
  EXPECT_EQ(take_printed(vepra_dl_insert_after(a, nullptr)), invalid);
  EXPECT_EQ(take_printed(vepra_dl_insert_after(a, a)), invalid);
  ASSERT_EQ(vepra_dl_insert_after(a, b), nullptr);
  ASSERT_EQ(vepra_dl_insert_before(a, c), nullptr);
  EXPECT_EQ(read_chain(a), (std::vector<Item>{{3, 3}, {1, 1}, {2, 2}}));
  // A node already in a chain cannot be linked a second time.
  EXPECT_EQ(take_printed(vepra_dl_insert_after(c, b)), invalid);
  EXPECT_EQ(take_printed(vepra_dl_append(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120051): Unable to append DL object. \nError(120051): DL insertion error: "
            "invalid pointer. ");
  EXPECT_EQ(take_printed(vepra_dlm_add_before(nullptr, 0, nullptr, nullptr)),
            "Error(120051): Unable to add DL node. \nError(120051): DL insertion error: invalid "
            "pointer. ");
}

TEST_F(DlTest, NullIsQuietForAccessorsWalksAndDeletions) {
  uint32_t tag = 77;
  EXPECT_EQ(vepra_dl_get_data_tag(nullptr, &tag), nullptr);
  EXPECT_EQ(tag, 77u);
  EXPECT_EQ(vepra_dl_get_first(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_get_last(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_get_prev(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_get_next(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_get_data(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_get_n(nullptr, 0), nullptr);
  EXPECT_EQ(vepra_dl_count(nullptr), 0u);
  EXPECT_EQ(vepra_dl_extract(nullptr), nullptr);
  EXPECT_EQ(vepra_dl_join(nullptr, nullptr), nullptr);
  vepra_dl_update(nullptr, 1, nullptr);
  vepra_dl_delete(nullptr);
  vepra_dlm_delete(nullptr);
  vepra_dl_delete_func(nullptr, log_visit, nullptr);
  vepra_dlm_delete_func(nullptr, log_visit, nullptr);
  EXPECT_EQ(vepra_dl_delete_errfunc(nullptr, log_visit_err, nullptr), nullptr);
  vepra_dl_delete_obj(nullptr, id(1));
  vepra_dlm_delete_obj(nullptr, id(1));
  vepra_dl_t *empty = nullptr;
  vepra_dl_delete_obj_func(&empty, id(1), log_visit, nullptr);
  EXPECT_EQ(vepra_dl_delete_obj_errfunc(&empty, id(1), log_visit_err, nullptr), nullptr);
  vepra_dl_destroy(nullptr);
  vepra_dlm_destroy(nullptr);
  vepra_dl_destroy_func(&empty, log_visit, nullptr);
  vepra_dlm_destroy_func(nullptr, log_visit, nullptr);
  EXPECT_EQ(vepra_dl_destroy_errfunc(&empty, log_visit_err, nullptr), nullptr);
  EXPECT_EQ(vepra_dl_bubsort(nullptr, compare_tags, nullptr), nullptr);
  vepra_dl_walk(nullptr, log_visit, nullptr);
  vepra_dl_dwalk(&empty, remove_multiples, nullptr);
  EXPECT_EQ(vepra_dl_walk_int_first(nullptr, remove_multiples, nullptr), 0);
  EXPECT_EQ(vepra_dl_walk_err_first(nullptr, log_visit_err, nullptr), nullptr);
  EXPECT_EQ(vepra_dl_mwalk_err_first(nullptr, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(empty, nullptr);
}

TEST_F(DlTest, JoinNamesTheFirstArgument) {
  vepra_dl_t *a = nullptr, *b = nullptr;
  for (int k = 1; k <= 2; ++k) ASSERT_EQ(vepra_dl_append(&a, 0, id(k), nullptr, pool_), nullptr);
  for (int k = 3; k <= 4; ++k) ASSERT_EQ(vepra_dl_append(&b, 0, id(k), nullptr, pool_), nullptr);
  EXPECT_EQ(vepra_dl_join(nullptr, b), nullptr);
  EXPECT_EQ(vepra_dl_join(a->next, nullptr), a);
  EXPECT_EQ(vepra_dl_join(a->next, b->next), a);
  EXPECT_EQ(read_chain(b), (std::vector<Item>{{1, 0}, {2, 0}, {3, 0}, {4, 0}}));
  EXPECT_EQ(vepra_dl_join(a, b), a);  // same chain: left as it is
  EXPECT_EQ(vepra_dl_count(a), 4u);
}

TEST_F(DlTest, HookSortAgreesWithStdSort) {
  std::mt19937 rng(7);
  std::vector<vepra_hook_t> hooks(200);
  for (auto &h : hooks) h.order = static_cast<int32_t>(rng()) ;  // signed keys, both signs
  vepra_dl_t *list = nullptr;
  for (auto &h : hooks) ASSERT_EQ(vepra_dl_append(&list, 0, &h, nullptr, pool_), nullptr);
  vepra_dl_t *held = vepra_dl_get_n(list, 17);
  ASSERT_EQ(vepra_dl_bubsort(held, vepra_hook_bubsort_callback, nullptr), nullptr);
  std::vector<int32_t> expect;
  for (auto &h : hooks) expect.push_back(h.order);
  std::sort(expect.begin(), expect.end());
  std::vector<int32_t> got;
  for (vepra_dl_t *p = vepra_dl_get_first(held); p != nullptr; p = p->next)
    got.push_back(static_cast<vepra_hook_t *>(p->data)->order);
  EXPECT_EQ(got, expect);
  vepra_hook_t lo{-5}, hi{3};
  EXPECT_EQ(vepra_hook_bubsort_callback(0, &lo, 0, &hi, nullptr), -1);
  EXPECT_EQ(vepra_hook_bubsort_callback(0, &hi, 0, &lo, nullptr), 1);
  EXPECT_EQ(vepra_hook_bubsort_callback(0, &hi, 0, &hi, nullptr), 0);
}

// Walk callbacks that record what they see and stop on a chosen id.
struct WalkLog {
  std::vector<int> seen;
  int stop_on = 0;
  vepra_error_t *error = nullptr;
};
int walk_int(uint32_t tag, void *data, void *user) {
  auto *w = static_cast<WalkLog *>(user);
  w->seen.push_back(id_of(data));
  return id_of(data) == w->stop_on ? static_cast<int>(tag) : 0;
}
void *walk_ptr(uint32_t, void *data, void *user) {
  auto *w = static_cast<WalkLog *>(user);
  w->seen.push_back(id_of(data));
  return id_of(data) == w->stop_on ? data : nullptr;
}
vepra_error_t *walk_err(uint32_t, void *data, void *user) {
  auto *w = static_cast<WalkLog *>(user);
  w->seen.push_back(id_of(data));
  return id_of(data) == w->stop_on ? w->error : nullptr;
}
vepra_error_t *walk_err_or_ptr(uint32_t, void *data, void *user, void **slot) {
  auto *w = static_cast<WalkLog *>(user);
  w->seen.push_back(id_of(data));
  if (id_of(data) == w->stop_on) *slot = data;
  return id_of(data) == -w->stop_on ? w->error : nullptr;
}

TEST_P(DlFlavourTest, WalksStopByTheirRules) {
  vepra_dl_t *list = build({1, 2, 3, 4});
  vepra_dl_t *from = vepra_dl_get_n(list, 2);  // walks rewind first
  WalkLog w{{}, 3};
  EXPECT_EQ(vepra_dl_walk_int_first(from, walk_int, &w), 30);
  EXPECT_EQ(w.seen, (std::vector<int>{1, 2, 3}));
  w = {{}, 9};
  EXPECT_EQ(vepra_dl_walk_int_first(from, walk_int, &w), 0);
  EXPECT_EQ(w.seen, (std::vector<int>{1, 2, 3, 4}));
  w = {{}, 2};
  EXPECT_EQ(vepra_dl_walk_ptr_first(from, walk_ptr, &w), id(2));
  w = {{}, 4, VepraDLlistStopWalking};
  EXPECT_EQ(vepra_dl_walk_err_first(from, walk_err, &w), VepraDLlistStopWalking);
  EXPECT_EQ(w.seen, (std::vector<int>{1, 2, 3, 4}));
  void *slot = nullptr;
  w = {{}, 2};
  EXPECT_EQ(vepra_dl_walk_err_or_ptr_first(from, walk_err_or_ptr, &w, &slot), nullptr);
  EXPECT_EQ(slot, id(2));
  EXPECT_EQ(w.seen, (std::vector<int>{1, 2}));
  // The slot is not cleared by the walk: a set slot stops after one call.
  w = {{}, 99};
  EXPECT_EQ(vepra_dl_walk_err_or_ptr_first(from, walk_err_or_ptr, &w, &slot), nullptr);
  EXPECT_EQ(w.seen, (std::vector<int>{1}));
  slot = nullptr;
  w = {{}, 3, user_error(125998, "walk failed")};
  w.stop_on = -3;
  vepra_error_t *e = vepra_dl_walk_err_or_ptr_first(from, walk_err_or_ptr, &w, &slot);
  EXPECT_EQ(e, w.error);
  EXPECT_EQ(slot, nullptr);
  vepra_error_clear(e);
  w = {};
  vepra_dl_walk(from, record, &w.seen);
  EXPECT_EQ(w.seen, (std::vector<int>{1, 2, 3, 4}));
  destroy(&from);
}

TEST_P(DlFlavourTest, DwalkRemovingEverythingLeavesTheHandleNull) {
  vepra_dl_t *list = build({2, 4, 6});
  std::vector<vepra_dl_t *> nodes = {vepra_dl_get_n(list, 0), vepra_dl_get_n(list, 1),
                                     vepra_dl_get_n(list, 2)};
  int divisor = 2;
  vepra_dl_dwalk(&list, remove_multiples, &divisor);
  EXPECT_EQ(list, nullptr);
  for (vepra_dl_t *n : nodes) {
    EXPECT_EQ(vepra_dl_count(n), 1u);
    release(n);
  }
}

// mwalk: records every round's tags and data.
struct Rounds {
  std::vector<std::vector<int>> data;
  size_t stop_after = 0;
  vepra_error_t *error = nullptr;
};
vepra_error_t *record_round(size_t n, const uint32_t *tags, void *const *data, void *user) {
  auto *r = static_cast<Rounds *>(user);
  std::vector<int> row;
  for (size_t i = 0; i < n; ++i) {
    row.push_back(id_of(data[i]));
    EXPECT_EQ(tags[i], data[i] ? static_cast<uint32_t>(id_of(data[i]) * 10) : 0u);
  }
  r->data.push_back(row);
  return r->data.size() == r->stop_after ? r->error : nullptr;
}

TEST_P(DlFlavourTest, MwalkGoesInStepAndDropsShortLists) {
  vepra_dl_t *handles[3] = {build({1, 2, 3}), build({7}), nullptr};
  handles[0] = vepra_dl_get_last(handles[0]);  // rewound to the first node
  Rounds r;
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 3, record_round, &r), nullptr);
  EXPECT_EQ(r.data, (std::vector<std::vector<int>>{{1, 7, 0}, {2, 0, 0}, {3, 0, 0}}));
  r = {{}, 2, VepraDLlistStopWalking};
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 3, record_round, &r), nullptr);
  EXPECT_EQ(r.data.size(), 2u);
  r = {{}, 1, user_error(125997, "round failed")};
  vepra_error_t *e = vepra_dl_mwalk_err_first(handles, 3, record_round, &r);
  EXPECT_EQ(e, r.error);
  vepra_error_clear(e);
  EXPECT_EQ(vepra_dl_mwalk_err_first(handles, 0, record_round, &r), nullptr);

  // Each of the three work arrays can fail; the error comes back as is.
  long made = vepra_test::for_each_allocation_failure(
      [&] {
        Rounds quiet;
        return vepra_dl_mwalk_err_first(handles, 3, record_round, &quiet);
      },
      [](vepra_error_t *err, long) { EXPECT_EQ(err->code, VEPRA_E_ALLOC); EXPECT_EQ(err->next, nullptr); });
  EXPECT_EQ(made, 3);
  destroy(&handles[0]);
  destroy(&handles[1]);
}

TEST_F(DlTest, HeapAllocationFailuresLeaveTheListUnchanged) {
  using Add = vepra_error_t *(*)(vepra_dl_t **, uint32_t, void *, vepra_dl_t **);
  const std::pair<Add, const char *> adds[] = {
      {vepra_dlm_prepend, "Unable to prepend DL object."},
      {vepra_dlm_append, "Unable to append DL object."},
      {vepra_dlm_add_after, "Unable to add DL node."},
      {vepra_dlm_add_before, "Unable to add DL node."},
  };
  for (const auto &entry : adds) {
    Add add = entry.first;
    std::string context = entry.second;
    vepra_dl_t *list = nullptr;
    ASSERT_EQ(vepra_dlm_append(&list, 1, id(1), nullptr), nullptr);
    vepra_dl_t *before = list;
    long made = vepra_test::for_each_allocation_failure(
        [&] { return add(&list, 2, id(2), nullptr); },
        [&](vepra_error_t *e, long) {
          EXPECT_EQ(take_printed(vepra_error_dup(e)),
                    std::string("Error(120012): ") + context +
                        " \nError(120012): Can't allocate memory for dlm node. "
                        "\nError(120012): Failed to allocate " +
                        std::to_string(sizeof(vepra_dl_t)) + " bytes of memory. ");
          EXPECT_EQ(list, before);
          EXPECT_EQ(vepra_dl_count(list), 1u);
        });
    EXPECT_EQ(made, 1);
    EXPECT_EQ(vepra_dl_count(list), 2u);
    vepra_dlm_destroy(&list);
  }
  vepra_test::for_each_allocation_failure(
      [] {
        vepra_dl_t *node = nullptr;
        vepra_error_t *e = vepra_dlm_create(1, nullptr, &node);
        vepra_dlm_delete(node);
        return e;
      },
      [](vepra_error_t *e, long) {
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Can't allocate memory for dlm node. \nError(120012): Failed to "
                  "allocate " + std::to_string(sizeof(vepra_dl_t)) + " bytes of memory. ");
      });
}

TEST_P(DlFlavourTest, DeleteCallbacksSeeTheRemovedNode) {
  vepra_dl_t *list = build({1, 2, 3});
  vepra_dl_t *middle = vepra_dl_get_n(list, 1);
  DestroyLog log{&list, {}, {}};
  heap() ? vepra_dlm_delete_func(middle, log_visit, &log) : vepra_dl_delete_func(middle, log_visit, &log);
  EXPECT_EQ(log.seen, std::vector<int>{2});
  EXPECT_EQ(read_chain(list), (std::vector<Item>{{1, 10}, {3, 30}}));
  vepra_dl_t *third = vepra_dl_get_n(list, 1);
  vepra_dl_delete_obj_func(&list, id(3), log_visit, &log);
  EXPECT_EQ(log.seen, (std::vector<int>{2, 3}));
  release(third);  // nodes taken by delete_obj_* are the caller's to free
  vepra_error_t *err = user_error(125996, "no");
  log.fail_on = 1;
  log.fail_with = err;
  vepra_dl_t *first = list;
  EXPECT_EQ(vepra_dl_delete_obj_errfunc(&list, id(1), log_visit_err, &log), err);
  EXPECT_EQ(list, nullptr);
  vepra_error_clear(err);
  release(first);
  vepra_dl_t *alone = nullptr;
  ASSERT_EQ(append(&alone, 4, 4), nullptr);
  EXPECT_EQ(vepra_dl_delete_errfunc(alone, log_visit_err, &log), nullptr);
  EXPECT_EQ(log.seen.back(), 4);
  release(alone);
}

}  // namespace
