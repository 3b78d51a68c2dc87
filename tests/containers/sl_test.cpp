// Singly linked lists and stacks against vectors, every walk form checked
// after each step, and node allocation failing at every point.
#include <algorithm>
#include <random>
#include <vector>

#include "containers/container_ids.hpp"
#include "vepra_sl.h"

namespace {

using namespace vepra_test;
using Ids = std::vector<int>;

void *first_multiple(uint32_t, void *data, void *user) {
  return id_of(data) % *static_cast<int *>(user) == 0 ? data : nullptr;
}
int tag_of_multiple(uint32_t tag, void *data, void *user) {
  return first_multiple(tag, data, user) != nullptr ? static_cast<int>(tag) : 0;
}

// The walks from node: the whole visit, and each stopping form at the first
// multiple of divisor (tags are ids + 1000).
void expect_walks(vepra_sl_t *node, const Ids &ids, int divisor) {
  Ids seen;
  vepra_sl_walk(node, record, &seen);
  ASSERT_EQ(seen, ids);
  auto hit = std::find_if(ids.begin(), ids.end(), [&](int v) { return v % divisor == 0; });
  const bool found = hit != ids.end();
  EXPECT_EQ(vepra_sl_walk_ptr_first(node, first_multiple, &divisor), found ? id(*hit) : nullptr);
  EXPECT_EQ(vepra_sl_walk_int_first(node, tag_of_multiple, &divisor), found ? 1000 + *hit : 0);
  FailOn stop{found ? *hit : -1, VepraDLlistStopWalking};
  EXPECT_EQ(vepra_sl_walk_err_first(node, fail_on<>, &stop), found ? stop.error : nullptr);
  EXPECT_EQ(stop.seen, Ids(ids.begin(), found ? hit + 1 : hit));
}

class SlTest : public LibraryTest {};

TEST_F(SlTest, RandomOperationsMatchVectorModel) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 30; ++round) {
    Ids model;
    vepra_sl_t *list = nullptr;
    for (int k = 1; k <= 80; ++k) {
      const size_t at = model.empty() ? 0 : rng() % model.size();
      const unsigned op = rng() % 6;
      if (op == 0) {
        ASSERT_EQ(vepra_sl_front(&list, 1000u + k, id(k), pool_), nullptr);
        model.insert(model.begin(), k);
      } else if (op == 1) {
        ASSERT_EQ(vepra_sl_append(&list, 1000u + k, id(k), pool_), nullptr);
        model.push_back(k);
      } else if (op == 2) {  // second, or first in an empty list
        ASSERT_EQ(vepra_sl_add(&list, 1000u + k, id(k), pool_), nullptr);
        model.insert(model.begin() + (model.empty() ? 0 : 1), k);
      } else if (op == 3) {  // unlink the node after position at (nothing at the end)
        vepra_sl_delete_next(vepra_sl_get_n(list, at));
        if (at + 1 < model.size()) model.erase(model.begin() + static_cast<long>(at) + 1);
      } else if (op == 4 && !model.empty()) {  // overwrite the node at position at
        vepra_sl_update(vepra_sl_get_n(list, at), 1500u + k, id(500 + k));
        model[at] = 500 + k;
      } else if (op == 5) {  // from a middle node the walks see its tail only
        expect_walks(vepra_sl_get_n(list, at),
                     Ids(model.begin() + static_cast<long>(at), model.end()), 2 + k % 5);
      }
      ASSERT_NO_FATAL_FAILURE(expect_walks(list, model, 3));
      EXPECT_EQ(vepra_sl_get_n(list, model.size()), nullptr);
      for (size_t i = 0; i < model.size(); i += 7) {
        uint32_t tag = 0;
        EXPECT_EQ(vepra_sl_get_data_tag(vepra_sl_get_n(list, i), &tag), id(model[i]));
        EXPECT_EQ(tag, 1000u + model[i]);
        EXPECT_EQ(vepra_sl_get_data(vepra_sl_get_n(list, i)), id(model[i]));
      }
    }
    vepra_sl_destroy(&list);
    EXPECT_EQ(list, nullptr);
  }
}

TEST_F(SlTest, RandomStackOperationsMatchVector) {
  std::mt19937 rng(77);
  vepra_stk_t *stack = nullptr;
  ASSERT_EQ(vepra_stk_create(&stack, pool_), nullptr);
  Ids model;  // back is the top
  for (int k = 1; k <= 600; ++k) {
    const unsigned op = rng() % 5;
    if (op < 2) {
      ASSERT_EQ(vepra_stk_push(stack, 1000u + k, id(k), pool_), nullptr);
      model.push_back(k);
    } else if (op == 2) {
      EXPECT_EQ(vepra_stk_pop(stack), model.empty() ? nullptr : id(model.back()));
      if (!model.empty()) model.pop_back();
    } else if (op == 3) {  // a copy pops in the same order
      vepra_stk_t *copy = nullptr;
      ASSERT_EQ(vepra_stk_copy(stack, &copy, pool_), nullptr);
      ASSERT_EQ(vepra_stk_count(copy), model.size());
      for (auto it = model.rbegin(); it != model.rend(); ++it)
        EXPECT_EQ(vepra_stk_pop(copy), id(*it));
      EXPECT_EQ(vepra_stk_pop(copy), nullptr);
    } else if (rng() % 20 == 0) {
      vepra_stk_destroy(stack);
      model.clear();
    }
    ASSERT_EQ(vepra_stk_count(stack), model.size());
    uint32_t tag = 7;
    EXPECT_EQ(vepra_stk_get_data(stack, &tag), model.empty() ? nullptr : id(model.back()));
    EXPECT_EQ(tag, model.empty() ? 7u : 1000u + model.back());
    // The stack walks are the list walks from the top.
    Ids seen;
    vepra_stk_walk(stack, record, &seen);
    ASSERT_EQ(seen, Ids(model.rbegin(), model.rend()));
    int divisor = 4;
    EXPECT_EQ(vepra_stk_walk_ptr_first(stack, first_multiple, &divisor),
              vepra_sl_walk_ptr_first(stack->top, first_multiple, &divisor));
    FailOn stop{model.empty() ? -1 : model.front(), VepraDLlistStopWalking};
    EXPECT_EQ(vepra_stk_walk_err_first(stack, fail_on<>, &stop),
              model.empty() ? nullptr : stop.error);
    EXPECT_EQ(stop.seen, seen);
  }
}

TEST_F(SlTest, NullsAreQuietAndACopyOfNothingIsEmpty) {
  expect_quiet_with(nullptr, vepra_sl_get_data, vepra_sl_get_data_tag, vepra_sl_get_n,
                    vepra_sl_delete_next, vepra_sl_destroy, vepra_sl_walk, vepra_sl_walk_int_first,
                    vepra_sl_walk_ptr_first, vepra_sl_walk_err_first, vepra_stk_pop,
                    vepra_stk_get_data, vepra_stk_count, vepra_stk_destroy, vepra_stk_walk,
                    vepra_stk_walk_ptr_first, vepra_stk_walk_err_first);
  vepra_stk_t *copy = nullptr;
  ASSERT_EQ(vepra_stk_copy(nullptr, &copy, pool_), nullptr);
  EXPECT_TRUE(copy != nullptr && copy->top == nullptr && vepra_stk_count(copy) == 0);
  EXPECT_EQ(take_printed(vepra_sl_front(nullptr, 0, id(1), pool_)),
            "Error(120140): Can't allocate memory for sllist node. ");
  EXPECT_EQ(take_printed(vepra_stk_push(nullptr, 0, id(1), pool_)),
            "Error(120140): Can't push object to stack. \n"
            "Error(120140): Can't allocate memory for sllist node. ");
}

// A pool that runs dry at every node in turn: adding fails with 120140 and
// leaves the list as it was; a copy keeps the elements made so far.
TEST_F(SlTest, PoolFailuresLeaveListsAndStacksConsistent) {
  using Add = vepra_error_t *(*)(vepra_sl_t **, uint32_t, void *, apr_pool_t *);
  for (Add add : {vepra_sl_front, vepra_sl_append, vepra_sl_add}) {
    vepra_sl_t *list = nullptr;
    for (int k = 1; k <= 3; ++k) ASSERT_EQ(vepra_sl_append(&list, 0, id(k), pool_), nullptr);
    EXPECT_EQ(expect_alloc_failures([&] { return add(&list, 0, id(9), pool_); },
                                    "Error(120140): Can't allocate memory for sllist node. ",
                                    [&] {
                                      expect_walks(list, {1, 2, 3}, 5);
                                    }),
              1);
  }
  vepra_stk_t *stack = nullptr;
  ASSERT_EQ(vepra_stk_create(&stack, pool_), nullptr);
  for (int k = 1; k <= 3; ++k) ASSERT_EQ(vepra_stk_push(stack, 0, id(k), pool_), nullptr);
  EXPECT_EQ(expect_alloc_failures([&] { return vepra_stk_push(stack, 0, id(9), pool_); },
                                  "Error(120140): Can't push object to stack. \n"
                                  "Error(120140): Can't allocate memory for sllist node. ",
                                  [&] { EXPECT_EQ(vepra_stk_count(stack), 3u); }),
            1);
  ASSERT_EQ(vepra_stk_pop(stack), id(9));  // pushed by the clean run
  long made = for_each_allocation_failure(
      [&] {
        vepra_stk_t *copy = nullptr;
        vepra_error_t *e = vepra_stk_copy(stack, &copy, pool_);
        // The copy holds exactly the elements made before the failure.
        Ids seen;
        vepra_stk_walk(copy, record, &seen);
        EXPECT_EQ(vepra_stk_count(copy), seen.size());
        const Ids order{3, 2, 1};
        EXPECT_TRUE(seen.size() <= 3 && std::equal(seen.begin(), seen.end(), order.begin()));
        return e;
      },
      [](vepra_error_t *e, long n) {
        EXPECT_EQ(e->code, n == 1 ? VEPRA_E_ALLOC : VEPRA_E_SL_ALLOC);
        EXPECT_STREQ(e->message, "Can't copy stack.");
      });
  EXPECT_EQ(made, 4);
}

}  // namespace
