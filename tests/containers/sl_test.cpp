// Singly linked lists and stacks against vectors, then pool failures.

#include "containers/container_ids.hpp"
#include "vepra_sl.h"

namespace {

using namespace vepra_test;

uint32_t plus_1000(int k) { return 1000u + static_cast<uint32_t>(k); }
const WalkForms<vepra_sl_t> kListWalks{vepra_sl_walk, vepra_sl_walk_int_first,
                                       vepra_sl_walk_ptr_first, vepra_sl_walk_err_first};
const WalkForms<vepra_stk_t> kStackWalks{vepra_stk_walk, nullptr, vepra_stk_walk_ptr_first,
                                         vepra_stk_walk_err_first};

using Add = vepra_error_t *(*)(vepra_sl_t **, uint32_t, void *, apr_pool_t *);
constexpr Add kAdds[] = {vepra_sl_front, vepra_sl_append, vepra_sl_add};

class SlTest : public LibraryTest {};

// A list and a stack side by side, every walk form checked after each step.
TEST_F(SlTest, RandomOperationsMatchVectorModels) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 30; ++round) {
    Ids model, stacked;  // stacked: back is the top
    vepra_sl_t *list = nullptr;
    vepra_stk_t *stack = nullptr;
    ASSERT_EQ(vepra_stk_create(&stack, pool_), nullptr);
    for (int k = 1; k <= 80; ++k) {
      const size_t at = model.empty() ? 0 : rng() % model.size();
      const unsigned op = rng() % 10;
      if (op < 3) {  // at the front, at the back, second (first in an empty list)
        ASSERT_EQ(kAdds[op](&list, 1000u + k, id(k), pool_), nullptr);
        const size_t to = op == 0 || model.empty() ? 0 : op == 1 ? model.size() : 1;
        model.insert(model.begin() + static_cast<long>(to), k);
      } else if (op == 3) {  // unlink the node after position at (nothing at the end)
        vepra_sl_delete_next(vepra_sl_get_n(list, at));
        if (at + 1 < model.size()) model.erase(model.begin() + static_cast<long>(at) + 1);
      } else if (op == 4 && !model.empty()) {  // overwrite the node at position at
        vepra_sl_update(vepra_sl_get_n(list, at), 1500u + k, id(500 + k));
        model[at] = 500 + k;
      } else if (op < 8) {
        ASSERT_EQ(vepra_stk_push(stack, 1000u + k, id(k), pool_), nullptr);
        stacked.push_back(k);
      } else if (op == 8) {
        EXPECT_EQ(vepra_stk_pop(stack), stacked.empty() ? nullptr : id(stacked.back()));
        if (!stacked.empty()) stacked.pop_back();
      } else if (rng() % 10 == 0) {
        vepra_stk_destroy(stack);
        stacked.clear();
      }
      expect_walk_forms(list, kListWalks, model, plus_1000);
      EXPECT_EQ(vepra_sl_get_n(list, model.size()), nullptr);
      for (size_t i = 0; i < model.size(); i += 7) {
        uint32_t tag = 0;
        EXPECT_EQ(vepra_sl_get_data_tag(vepra_sl_get_n(list, i), &tag), id(model[i]));
        EXPECT_EQ(tag, 1000u + model[i]);
        EXPECT_EQ(vepra_sl_get_data(vepra_sl_get_n(list, i)), id(model[i]));
      }
      ASSERT_EQ(vepra_stk_count(stack), stacked.size());
      uint32_t tag = 7;
      EXPECT_EQ(vepra_stk_get_data(stack, &tag), stacked.empty() ? nullptr : id(stacked.back()));
      EXPECT_EQ(tag, stacked.empty() ? 7u : 1000u + stacked.back());
      expect_walk_forms(stack, kStackWalks, Ids(stacked.rbegin(), stacked.rend()), plus_1000);
    }
    vepra_sl_destroy(&list);
    EXPECT_EQ(list, nullptr);
  }
}

// Nulls are quiet, a copy of nothing is empty. A pool running dry at each node:
// adding fails with 120140, the list unchanged; a copy keeps what it made.
TEST_F(SlTest, NullsAndPoolFailuresLeaveListsAndStacksConsistent) {
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
  vepra_sl_t *list = nullptr;  // every add makes its node before linking it
  for (int k = 1; k <= 3; ++k) ASSERT_EQ(vepra_sl_append(&list, k, id(k), pool_), nullptr);
  EXPECT_EQ(expect_alloc_failures([&] { return vepra_sl_add(&list, 0, id(9), pool_); },
                                  "Error(120140): Can't allocate memory for sllist node. ",
                                  [&] {
                                    expect_walk_forms(list, kListWalks, {1, 2, 3}, same);
                                  }),
            1);
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
        // The copy holds the elements made before the failure, in order.
        Ids seen, order{3, 2, 1};
        vepra_stk_walk(copy, record, &seen);
        EXPECT_EQ(vepra_stk_count(copy), seen.size());
        order.resize(e == nullptr ? 3 : std::min<size_t>(seen.size(), 2));
        EXPECT_EQ(seen, order);
        return e;
      },
      [](vepra_error_t *e, long n) {
        EXPECT_EQ(e->code, n == 1 ? VEPRA_E_ALLOC : VEPRA_E_SL_ALLOC);
        EXPECT_STREQ(e->message, "Can't copy stack.");
      });
  EXPECT_EQ(made, 4);
}

}  // namespace
