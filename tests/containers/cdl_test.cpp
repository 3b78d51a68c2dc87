// Circular slot lists: a randomized comparison against a vector of slots,
// then the around-the-handle orders and failures spelled out.
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "containers/container_ids.hpp"
#include "support/test_support.hpp"
#include "vepra_cdl.h"

namespace {

using vepra_test::id;
using vepra_test::id_of;
using vepra_test::record;
using vepra_test::take_printed;

vepra_error_t *record_err(uint32_t, void *data, void *user) {
  record(0, data, user);
  return nullptr;
}
int divisible(uint32_t, void *data, void *user) {
  return id_of(data) % *static_cast<int *>(user) == 0;
}

struct Slot {
  int id;
  bool occupied;
};

// Indices of the model in around-the-handle order.
std::vector<size_t> around(size_t handle, size_t n) {
  std::vector<size_t> order;
  if (n == 0) return order;
  for (size_t i = handle + 1; i-- > 0;) order.push_back(i);
  for (size_t i = handle + 1; i < n; ++i) order.push_back(i);
  return order;
}

class CdlTest : public vepra_test::LibraryTest {
 protected:
  vepra_dl_t *chain(std::initializer_list<Slot> slots) {
    vepra_dl_t *list = nullptr;
    for (const Slot &s : slots) {
      vepra_dl_t *n = nullptr;
      EXPECT_EQ(vepra_cdl_append(&list, static_cast<uint32_t>(s.id), id(s.id), &n, pool_), nullptr);
      if (!s.occupied) vepra_cdl_set_free(n);
    }
    return list;
  }
};

TEST_F(CdlTest, RandomOperationsMatchSlotModel) {
  std::mt19937 rng(99);
  for (int round = 0; round < 20; ++round) {
    std::vector<Slot> model;
    size_t handle = 0;
    vepra_dl_t *list = nullptr;
    int next_id = 1;
    for (int step = 0; step < 120; ++step) {
      int k = next_id++;
      vepra_dl_t *made = nullptr;
      switch (rng() % 9) {
        case 0:
          ASSERT_EQ(vepra_cdl_append(&list, static_cast<uint32_t>(k), id(k), &made, pool_),
                    nullptr);
          model.push_back({k, true});
          break;
        case 1:
          ASSERT_EQ(vepra_cdl_prepend(&list, static_cast<uint32_t>(k), id(k), &made, pool_),
                    nullptr);
          model.insert(model.begin(), {k, true});
          if (model.size() > 1) ++handle;
          break;
        case 2:
          ASSERT_EQ(vepra_cdl_add(&list, static_cast<uint32_t>(k), id(k), &made, pool_), nullptr);
          model.insert(model.empty() ? model.end() : model.begin() + static_cast<long>(handle) + 1,
                       {k, true});
          break;
        case 3: {  // reuse a free slot for the new id, as a registration does
          vepra_dl_t *slot = vepra_cdl_get_ready(list);
          size_t expect = model.size();
          for (size_t i : around(handle, model.size())) {
            if (!model[i].occupied) {
              expect = i;
              break;
            }
          }
          if (expect == model.size()) {
            ASSERT_EQ(slot, nullptr);
            break;
          }
          ASSERT_NE(slot, nullptr);
          ASSERT_EQ(id_of(slot->data), model[expect].id);
          vepra_cdl_set_data_tag(slot, id(k), static_cast<uint32_t>(k));
          model[expect] = {k, true};
          break;
        }
        case 4: {  // free by data pointer
          if (model.empty()) break;
          int victim = model[rng() % model.size()].id;
          vepra_cdl_set_free_obj(list, id(victim));
          for (Slot &s : model)
            if (s.id == victim) s.occupied = false;
          break;
        }
        case 5: {  // move the handle
          if (model.empty()) break;
          handle = rng() % model.size();
          list = vepra_cdl_get_first(list);
          for (size_t i = 0; i < handle; ++i) list = list->next;
          break;
        }
        case 6: {
          int divisor = 2 + static_cast<int>(rng() % 4);
          vepra_cdl_walk_free(list, divisible, &divisor);
          for (Slot &s : model)
            if (s.id % divisor == 0) s.occupied = false;
          break;
        }
        case 7: {  // toggle one slot directly
          if (model.empty()) break;
          size_t i = rng() % model.size();
          vepra_dl_t *n = vepra_cdl_get_first(list);
          for (size_t j = 0; j < i; ++j) n = n->next;
          model[i].occupied ? vepra_cdl_set_free(n) : vepra_cdl_set_occupied(n);
          model[i].occupied = !model[i].occupied;
          break;
        }
        case 8:
          if (rng() % 5 != 0) break;
          vepra_cdl_set_allfree(list);
          for (Slot &s : model) s.occupied = false;
          break;
      }
      if (made != nullptr) {
        EXPECT_EQ(made->flags, VEPRA_CDL_OCCUPIED);
        EXPECT_EQ(vepra_cdl_get_tag(made), static_cast<uint32_t>(k));
      }
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step));
      std::vector<int> all, in_order, around_order;
      size_t occupied = 0;
      for (const Slot &s : model) {
        all.push_back(s.id);
        if (s.occupied) in_order.push_back(s.id);
        occupied += s.occupied;
      }
      for (size_t i : around(handle, model.size()))
        if (model[i].occupied) around_order.push_back(model[i].id);
      std::vector<int> chain_ids;
      for (vepra_dl_t *p = vepra_cdl_get_first(list); p != nullptr; p = p->next) {
        chain_ids.push_back(id_of(p->data));
        EXPECT_EQ((p->flags & VEPRA_CDL_OCCUPIED) != 0, model[chain_ids.size() - 1].occupied);
      }
      ASSERT_EQ(chain_ids, all);
      ASSERT_EQ(list == nullptr ? -1 : id_of(list->data), model.empty() ? -1 : model[handle].id);
      EXPECT_EQ(vepra_cdl_count(list), occupied);
      for (size_t i = 0; i <= in_order.size(); ++i) {
        vepra_dl_t *nth = vepra_cdl_get_n(list, i);
        EXPECT_EQ(nth == nullptr ? -1 : id_of(nth->data), i < in_order.size() ? in_order[i] : -1);
      }
      std::vector<int> seen;
      vepra_cdl_walk(list, record, &seen);
      EXPECT_EQ(seen, around_order);
      seen.clear();
      vepra_cdl_flwalk(list, record, &seen);
      EXPECT_EQ(seen, in_order);
      seen.clear();
      EXPECT_EQ(vepra_cdl_flwalk_err_first(list, record_err, &seen), nullptr);
      EXPECT_EQ(seen, in_order);
      int three = 3;
      vepra_dl_t *first3 = vepra_cdl_walk_node_first(list, divisible, &three);
      int expect3 = -1;
      for (int v : around_order) {
        if (v % 3 == 0) {
          expect3 = v;
          break;
        }
      }
      EXPECT_EQ(first3 == nullptr ? -1 : id_of(first3->data), expect3);
    }
    vepra_cdl_destroy(&list);
    EXPECT_EQ(list, nullptr);
  }
}

TEST_F(CdlTest, GetReadySearchesTheHandlesSideFirst) {
  vepra_dl_t *list = chain({{1, false}, {2, true}, {3, false}})->next;
  EXPECT_EQ(vepra_cdl_get_free(list), list->prev);
  EXPECT_EQ(vepra_cdl_get_free(list), list->prev);  // unchanged by get_free
  EXPECT_EQ(vepra_cdl_get_ready(list), list->prev);
  EXPECT_EQ(vepra_cdl_get_ready(list), list->next);
  EXPECT_EQ(vepra_cdl_get_ready(list), nullptr);
  EXPECT_EQ(vepra_cdl_count(list), 3u);
}

TEST_F(CdlTest, WalkOrdersAroundTheHandleAndFromTheFirst) {
  vepra_dl_t *list = chain({{1, true}, {2, true}, {3, true}})->next;
  std::vector<int> seen;
  EXPECT_EQ(vepra_cdl_walk_err_first(list, record_err, &seen), nullptr);
  EXPECT_EQ(seen, (std::vector<int>{2, 1, 3}));
  int two = 2;
  EXPECT_EQ(vepra_cdl_walk_int_first(list, divisible, &two), 1);
  EXPECT_EQ(vepra_cdl_walk_ptr_first(
                list, [](uint32_t tag, void *data, void *) { return tag == 3 ? data : nullptr; },
                nullptr),
            id(3));
  void *slot = nullptr;
  auto take_three = [](uint32_t tag, void *data, void *, void **out) -> vepra_error_t * {
    if (tag == 3) *out = data;
    return nullptr;
  };
  EXPECT_EQ(vepra_cdl_walk_err_or_ptr_first(list, take_three, nullptr, &slot), nullptr);
  EXPECT_EQ(slot, id(3));
  slot = nullptr;
  EXPECT_EQ(vepra_cdl_flwalk_err_or_ptr_first(list, take_three, nullptr, &slot), nullptr);
  EXPECT_EQ(slot, id(3));
  auto stop = [](uint32_t, void *, void *) { return VepraDLlistStopWalking; };
  EXPECT_EQ(vepra_cdl_flwalk_err_first(list, stop, nullptr), VepraDLlistStopWalking);
  vepra_cdl_set_allfree(list);
  EXPECT_EQ(vepra_cdl_count(list), 0u);
  EXPECT_EQ(vepra_cdl_get_n(list, 0), nullptr);
  EXPECT_NE(vepra_cdl_get_first(list), nullptr);  // free slots still count here
  EXPECT_EQ(vepra_cdl_get_last(list)->data, id(3));
}

TEST_F(CdlTest, BadInputIsQuietOrReported) {
  EXPECT_EQ(take_printed(vepra_cdl_append(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120051): Unable to append DL object. \nError(120051): DL insertion error: "
            "invalid pointer. ");
  EXPECT_EQ(take_printed(vepra_cdl_prepend(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120051): Unable to prepend DL object. \nError(120051): DL insertion error: "
            "invalid pointer. ");
  vepra_dl_t *list = nullptr;
  EXPECT_EQ(take_printed(vepra_cdl_add(&list, 0, nullptr, nullptr, nullptr)),
            "Error(120051): Unable to add DL object. \nError(120051): DL insertion error: "
            "invalid pointer. ");
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(take_printed(vepra_cdl_insert_before(nullptr, nullptr)),
            "Error(120051): DL insertion error: invalid pointer. ");
  vepra_dl_t *a = nullptr, *b = nullptr;
  ASSERT_EQ(vepra_dl_create(1, id(1), &a, pool_), nullptr);
  ASSERT_EQ(vepra_dl_create(2, id(2), &b, pool_), nullptr);
  ASSERT_EQ(vepra_cdl_insert_after(a, b), nullptr);
  EXPECT_EQ(vepra_cdl_count(a), 0u);  // caller-made nodes keep their state
  vepra_cdl_set_occupied(b);
  EXPECT_EQ(vepra_cdl_get_n(a, 0), b);
  vepra_cdl_set_free_obj(a, nullptr);
  EXPECT_EQ(vepra_cdl_count(a), 1u);

  for (auto get : {vepra_cdl_get_free, vepra_cdl_get_ready}) EXPECT_EQ(get(nullptr), nullptr);
  EXPECT_EQ(vepra_cdl_count(nullptr), 0u);
  EXPECT_EQ(vepra_cdl_get_tag(nullptr), 0u);
  EXPECT_EQ(vepra_cdl_get_data(nullptr), nullptr);
  for (auto set : {vepra_cdl_set_free, vepra_cdl_set_occupied, vepra_cdl_set_allfree}) set(nullptr);
  vepra_cdl_set_data_tag(nullptr, nullptr, 0);
  vepra_cdl_destroy(nullptr);
  vepra_cdl_walk(nullptr, record, nullptr);
  vepra_cdl_walk_free(a, nullptr, nullptr);
  EXPECT_EQ(vepra_cdl_walk_node_first(a, nullptr, nullptr), nullptr);
  EXPECT_EQ(vepra_cdl_walk_err_first(nullptr, record_err, nullptr), nullptr);
  EXPECT_EQ(vepra_cdl_count(a), 1u);
}

}  // namespace
