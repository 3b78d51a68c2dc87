// Circular slot lists against a vector of slots: every step checks the
// chain, the handle, the counts and every walk form in its own order.

#include "containers/container_ids.hpp"
#include "vepra_cdl.h"

namespace {

using namespace vepra_test;

int divisible(uint32_t, void *data, void *user) {
  return id_of(data) % *static_cast<int *>(user) == 0;
}
const WalkForms<vepra_dl_t> kWalks{vepra_cdl_walk, vepra_cdl_walk_int_first,
                                   vepra_cdl_walk_ptr_first, vepra_cdl_walk_err_first,
                                   vepra_cdl_walk_err_or_ptr_first};
const WalkForms<vepra_dl_t> kFlWalks{vepra_cdl_flwalk, nullptr, nullptr, vepra_cdl_flwalk_err_first,
                                     vepra_cdl_flwalk_err_or_ptr_first};

struct Slot {
  int id;
  bool occupied;
  bool operator==(const Slot &) const = default;
};

// Indices of the model in around-the-handle order.
std::vector<size_t> around(size_t handle, size_t n) {
  std::vector<size_t> order;
  for (size_t i = std::min(handle + 1, n); i-- > 0;) order.push_back(i);
  for (size_t i = handle + 1; i < n; ++i) order.push_back(i);
  return order;
}

class CdlTest : public LibraryTest {};

TEST_F(CdlTest, RandomOperationsMatchSlotModel) {
  std::mt19937 rng(99);
  for (int round = 0; round < 20; ++round) {
    std::vector<Slot> model;
    size_t handle = 0;
    vepra_dl_t *list = nullptr;
    auto nth_node = [&](size_t i) { return vepra_dl_get_n(list, i); };  // slots, free ones too
    for (int k = 1; k <= 120; ++k) {
      vepra_dl_t *made = nullptr;
      unsigned op = rng() % 9;
      size_t at = model.empty() ? 0 : rng() % model.size();
      if (op < 3) {  // append, prepend, or just after the handle
        auto add = std::array{vepra_cdl_append, vepra_cdl_prepend, vepra_cdl_add}[op];
        ASSERT_EQ(add(&list, static_cast<uint32_t>(k), id(k), &made, pool_), nullptr);
        size_t pos = op == 0 ? model.size() : op == 1 ? 0 : std::min(handle + 1, model.size());
        model.insert(model.begin() + static_cast<long>(pos), {k, true});
        handle += op == 1 && model.size() > 1;
      } else if (op == 3) {  // reuse the nearest free slot, as a registration does
        auto order = around(handle, model.size());
        auto free =
            std::find_if(order.begin(), order.end(), [&](size_t i) { return !model[i].occupied; });
        vepra_dl_t *expect = free == order.end() ? nullptr : nth_node(*free);
        EXPECT_EQ(vepra_cdl_get_free(list), expect);  // leaves the slot free
        ASSERT_EQ(vepra_cdl_get_ready(list), expect);
        if (expect != nullptr) {
          vepra_cdl_set_data_tag(expect, id(k), static_cast<uint32_t>(k));
          model[*free] = {k, true};
        }
      } else if (op == 4 && !model.empty()) {  // free by data pointer
        vepra_cdl_set_free_obj(list, id(model[at].id));
        model[at].occupied = false;
      } else if (op == 5 && !model.empty()) {  // move the handle
        list = nth_node(handle = at);
      } else if (op == 6) {
        int divisor = 2 + static_cast<int>(rng() % 4);
        vepra_cdl_walk_free(list, divisible, &divisor);
        for (Slot &s : model) s.occupied &= s.id % divisor != 0;
      } else if (op == 7 && !model.empty()) {  // toggle one slot directly
        model[at].occupied ? vepra_cdl_set_free(nth_node(at))
                           : vepra_cdl_set_occupied(nth_node(at));
        model[at].occupied = !model[at].occupied;
      } else if (op == 8 && rng() % 5 == 0) {
        vepra_cdl_set_allfree(list);
        for (Slot &s : model) s.occupied = false;
      }
      EXPECT_TRUE(made == nullptr || (made->flags == VEPRA_CDL_OCCUPIED &&
                                      vepra_cdl_get_tag(made) == static_cast<uint32_t>(k)));
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(k));
      std::vector<Slot> chain;
      for (vepra_dl_t *p = vepra_cdl_get_first(list); p != nullptr; p = p->next)
        chain.push_back({id_of(p->data), (p->flags & VEPRA_CDL_OCCUPIED) != 0});
      ASSERT_TRUE(chain == model);
      ASSERT_EQ(vepra_cdl_get_data(list), model.empty() ? nullptr : id(model[handle].id));
      EXPECT_EQ(vepra_cdl_get_data(vepra_cdl_get_last(list)),
                model.empty() ? nullptr : id(model.back().id));
      Ids in_order, around_order;
      for (const Slot &s : model)
        if (s.occupied) in_order.push_back(s.id);
      for (size_t i : around(handle, model.size()))
        if (model[i].occupied) around_order.push_back(model[i].id);
      EXPECT_EQ(vepra_cdl_count(list), in_order.size());
      for (size_t i = 0; i <= in_order.size(); ++i)
        EXPECT_EQ(vepra_cdl_get_data(vepra_cdl_get_n(list, i)),
                  i < in_order.size() ? id(in_order[i]) : nullptr);
      // The walk forms over occupied slots: around the handle, or from the first (fl).
      expect_walk_forms(list, kWalks, around_order, same);
      expect_walk_forms(list, kFlWalks, in_order, same);
      auto hit = std::find_if(around_order.begin(), around_order.end(), third);
      int three = 3;
      EXPECT_EQ(vepra_cdl_get_data(vepra_cdl_walk_node_first(list, divisible, &three)),
                hit == around_order.end() ? nullptr : id(*hit));
    }
    vepra_cdl_destroy(&list);
    EXPECT_EQ(list, nullptr);
  }
}

TEST_F(CdlTest, BadInputIsQuietOrReported) {
  const std::string invalid = "Error(120051): DL insertion error: invalid pointer. ";
  vepra_dl_t *list = nullptr;
  const std::pair<vepra_error_t *, const char *> failures[] = {
      {vepra_cdl_append(nullptr, 0, nullptr, nullptr, pool_), "append"},
      {vepra_cdl_prepend(nullptr, 0, nullptr, nullptr, pool_), "prepend"},
      {vepra_cdl_add(&list, 0, nullptr, nullptr, nullptr), "add"}};
  for (auto [e, what] : failures)
    EXPECT_EQ(take_printed(e),
              "Error(120051): Unable to " + std::string(what) + " DL object. \n" + invalid);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(take_printed(vepra_cdl_insert_before(nullptr, nullptr)), invalid);
  vepra_dl_t *a = nullptr, *b = nullptr;
  ASSERT_EQ(vepra_dl_create(1, id(1), &a, pool_), nullptr);
  ASSERT_EQ(vepra_dl_create(2, id(2), &b, pool_), nullptr);
  ASSERT_EQ(vepra_cdl_insert_after(a, b), nullptr);
  EXPECT_EQ(vepra_cdl_count(a), 0u);  // caller-made nodes keep their state
  vepra_cdl_set_occupied(b);
  EXPECT_EQ(vepra_cdl_get_n(a, 0), b);
  vepra_cdl_set_free_obj(a, nullptr);
  vepra_cdl_walk_free(a, nullptr, nullptr);
  EXPECT_EQ(vepra_cdl_walk_node_first(a, nullptr, nullptr), nullptr);
  EXPECT_EQ(vepra_cdl_count(a), 1u);
  expect_quiet_with(nullptr, vepra_cdl_get_free, vepra_cdl_get_ready, vepra_cdl_count,
                    vepra_cdl_get_tag, vepra_cdl_get_data, vepra_cdl_set_free,
                    vepra_cdl_set_occupied, vepra_cdl_set_allfree, vepra_cdl_set_data_tag,
                    vepra_cdl_destroy, vepra_cdl_walk, vepra_cdl_walk_err_first);
}

}  // namespace
