// Trees: a randomized comparison against a model of children vectors in
// both flavours, then the orders, stops and failures the model leaves out.
#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "containers/container_ids.hpp"
#include "support/test_support.hpp"
#include "vepra_tree.h"

namespace {

using vepra_test::take_printed;
using vepra_test::id;
using vepra_test::id_of;
using vepra_test::record;
using vepra_test::user_error;

void record_deleted(uint32_t, void *data, void *user, void *links) {
  EXPECT_NE(links, nullptr);
  record(0, data, user);
}

std::vector<int> preorder(vepra_tree_t *node) {
  std::vector<int> out;
  vepra_tree_walk(node, record, nullptr, &out);
  return out;
}
std::vector<int> postorder(vepra_tree_t *node) {
  std::vector<int> out;
  vepra_tree_walk(node, nullptr, record, &out);
  return out;
}

// The reference: each node's ordered children and the id its child handle
// names (0 for none); id 0 stands for the top level.
struct Model {
  struct Node {
    int parent = 0;
    std::vector<int> kids;
    int child = 0;
  };
  std::map<int, Node> nodes;  // includes 0, the top level
  Model() { nodes[0]; }

  std::vector<int> &siblings(int k) { return nodes[nodes[k].parent].kids; }
  void insert(int parent, size_t at, int k) {
    auto &kids = nodes[parent].kids;
    kids.insert(kids.begin() + static_cast<long>(at), k);
    nodes[k].parent = parent;
    if (parent != 0 && nodes[parent].child == 0) nodes[parent].child = k;
  }
  void add_post(int k, std::vector<int> &out) {
    for (int kid : nodes[k].kids) add_post(kid, out);
    out.push_back(k);
  }
  void add_pre(int k, std::vector<int> &out) {
    out.push_back(k);
    for (int kid : nodes[k].kids) add_pre(kid, out);
  }
  // Unlinks k from its siblings, moving the parent's child handle to the
  // previous sibling, else the next, else none.
  void unlink(int k) {
    int p = nodes[k].parent;
    auto &kids = nodes[p].kids;
    auto at = std::find(kids.begin(), kids.end(), k);
    if (p != 0 && nodes[p].child == k) {
      nodes[p].child = at != kids.begin() ? *(at - 1) : at + 1 != kids.end() ? *(at + 1) : 0;
    }
    kids.erase(at);
    nodes[k].parent = 0;
  }
  // Removes k with its subtree; returns the post-order of the removal.
  std::vector<int> remove(int k) {
    std::vector<int> order;
    add_post(k, order);
    for (int d : order) {
      if (d != k) nodes.erase(d);
    }
    unlink(k);
    nodes.erase(k);
    return order;
  }
  size_t subtree_size(int k) {
    std::vector<int> v;
    add_post(k, v);
    return v.size();
  }
};

// Checks every link of the sibling list starting at first against the
// model's children of parent_id.
void expect_links(vepra_tree_t *first, Model &m, int parent_id, vepra_tree_t *parent,
                  const std::map<int, vepra_tree_t *> &real) {
  const auto &kids = m.nodes[parent_id].kids;
  vepra_tree_t *p = first;
  for (size_t i = 0; i < kids.size(); ++i, p = p->next) {
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(id_of(p->data), kids[i]);
    EXPECT_EQ(p->parent, parent);
    EXPECT_EQ(p->prev, i == 0 ? nullptr : real.at(kids[i - 1]));
    int ch = m.nodes[kids[i]].child;
    EXPECT_EQ(p->child, ch == 0 ? nullptr : real.at(ch)) << "child handle of " << kids[i];
    expect_links(vepra_tree_get_first(p->child), m, kids[i], p, real);
  }
  EXPECT_EQ(p, nullptr);
}

class TreeTest : public vepra_test::LibraryTest {};

// Parameterised by flavour: false = pool nodes, true = heap nodes.
class TreeFlavourTest : public TreeTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool heap() const { return GetParam(); }
  // A node made by the flavour's own allocator, not yet linked.
  vepra_tree_t *make(int k) {
    vepra_tree_t *n = nullptr;
    EXPECT_EQ(heap() ? vepra_treem_create(static_cast<uint32_t>(k), id(k), &n)
                     : vepra_tree_create(static_cast<uint32_t>(k), id(k), &n, pool_),
              nullptr);
    return n;
  }
  vepra_error_t *append(vepra_tree_t **t, int k, vepra_tree_t **out) {
    return heap() ? vepra_treem_append(t, static_cast<uint32_t>(k), id(k), out)
                  : vepra_tree_append(t, static_cast<uint32_t>(k), id(k), out, pool_);
  }
  vepra_error_t *append_child(vepra_tree_t *parent, int k, vepra_tree_t **out) {
    return heap() ? vepra_treem_append_child(parent, static_cast<uint32_t>(k), id(k), out)
                  : vepra_tree_append_child(parent, static_cast<uint32_t>(k), id(k), out, pool_);
  }
  void delete_siblings(vepra_tree_t *node, std::vector<int> *order) {
    heap() ? vepra_treem_delete_func(node, record_deleted, order)
           : vepra_tree_delete_func(node, record_deleted, order);
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, TreeFlavourTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "treem" : "tree"; });

TEST_P(TreeFlavourTest, RandomOperationsMatchChildrenModel) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 12; ++round) {
    Model m;
    std::map<int, vepra_tree_t *> real;
    vepra_tree_t *tree = nullptr;
    int next_id = 1;
    auto random_node = [&]() {
      auto it = m.nodes.begin();
      std::advance(it, 1 + static_cast<long>(rng() % (m.nodes.size() - 1)));
      return it->first;
    };
    // Keeps the caller's handle off a top-level node about to go away.
    auto move_handle_off = [&](int k) {
      if (tree == nullptr || id_of(tree->data) != k) return;
      tree = tree->prev != nullptr ? tree->prev : tree->next;
    };
    for (int step = 0; step < 200; ++step) {
      int k = next_id++;
      vepra_tree_t *made = nullptr;
      unsigned op = m.nodes.size() == 1 ? 0 : rng() % 10;
      int target = m.nodes.size() == 1 ? 0 : random_node();
      vepra_tree_t *at = target != 0 ? real[target] : nullptr;
      switch (op) {
        case 0:
        case 1:  // append at the top level
          ASSERT_EQ(append(&tree, k, &made), nullptr);
          m.insert(0, m.nodes[0].kids.size(), k);
          break;
        case 2:
        case 3:
          ASSERT_EQ(append_child(at, k, &made), nullptr);
          m.insert(target, m.nodes[target].kids.size(), k);
          break;
        case 4: {  // a first child
          if (heap() && at->child == nullptr) {
            ASSERT_EQ(vepra_treem_append_child(at, static_cast<uint32_t>(k), id(k), &made), nullptr);
          } else if (heap()) {
            made = make(k);
            ASSERT_EQ(vepra_tree_insert_before(vepra_tree_get_first(at->child), made), nullptr);
          } else {
            ASSERT_EQ(vepra_tree_prepend_child(at, static_cast<uint32_t>(k), id(k), &made, pool_),
                      nullptr);
          }
          m.insert(target, 0, k);
          break;
        }
        case 5: {  // a sibling directly before or after a node
          bool after = rng() % 2 == 0;
          if (heap()) {
            made = make(k);
            ASSERT_EQ(after ? vepra_tree_insert_after(at, made) : vepra_tree_insert_before(at, made),
                      nullptr);
          } else {
            vepra_tree_t *h = at;
            ASSERT_EQ(after ? vepra_tree_add_after(&h, static_cast<uint32_t>(k), id(k), &made, pool_)
                            : vepra_tree_add_before(&h, static_cast<uint32_t>(k), id(k), &made, pool_),
                      nullptr);
            EXPECT_EQ(h, at);
          }
          auto &sib = m.siblings(target);
          size_t pos = static_cast<size_t>(std::find(sib.begin(), sib.end(), target) - sib.begin());
          m.insert(m.nodes[target].parent, pos + (after ? 1 : 0), k);
          break;
        }
        case 6:
        case 7: {  // delete a node with its subtree
          --next_id;
          move_handle_off(target);
          std::vector<int> order;
          if (heap()) {
            vepra_treem_node_delete(at);
            order = m.remove(target);
          } else {
            vepra_tree_node_delete_func(at, record_deleted, &order);
            EXPECT_EQ(order, m.remove(target));
          }
          for (int d : order) real.erase(d);
          break;
        }
        case 8: {  // extract a subtree, check it stands alone, delete it
          --next_id;
          move_handle_off(target);
          size_t size = m.subtree_size(target);
          ASSERT_EQ(vepra_tree_extract(at), at);
          EXPECT_EQ(at->parent, nullptr);
          EXPECT_EQ(at->prev, nullptr);
          EXPECT_EQ(at->next, nullptr);
          EXPECT_EQ(vepra_tree_count(at), size);
          std::vector<int> order;
          delete_siblings(at, &order);
          EXPECT_EQ(order, m.remove(target));
          for (int d : order) real.erase(d);
          break;
        }
        case 9: {  // delete a whole sibling list, rarely the top level
          --next_id;
          if (m.nodes[target].parent == 0 && rng() % 4 != 0) break;
          int parent = m.nodes[target].parent;
          std::vector<int> expect;
          for (int kid : std::vector<int>(m.nodes[parent].kids)) {
            auto part = m.remove(kid);
            expect.insert(expect.end(), part.begin(), part.end());
          }
          std::vector<int> order;
          delete_siblings(at, &order);
          EXPECT_EQ(order, expect);
          if (parent != 0) {
            EXPECT_EQ(real[parent]->child, nullptr);
          } else {
            tree = nullptr;
          }
          for (int d : order) real.erase(d);
          break;
        }
      }
      if (made != nullptr) real[k] = made;
      if (tree == nullptr && !m.nodes[0].kids.empty()) tree = real[m.nodes[0].kids.front()];
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step));
      ASSERT_NO_FATAL_FAILURE(expect_links(vepra_tree_get_first(tree), m, 0, nullptr, real));
      std::vector<int> pre, post;
      for (int top : m.nodes[0].kids) {
        m.add_pre(top, pre);
        m.add_post(top, post);
      }
      ASSERT_EQ(preorder(tree), pre);
      ASSERT_EQ(postorder(tree), post);
      ASSERT_EQ(vepra_tree_count(tree), m.nodes.size() - 1);
      if (m.nodes.size() > 1) {
        int probe = random_node();
        vepra_tree_t *found = vepra_tree_search_obj(tree, id(probe));
        EXPECT_EQ(found, real[probe]);
        size_t in_list = 0;
        for (int sib : m.siblings(probe)) in_list += m.subtree_size(sib);
        EXPECT_EQ(vepra_tree_count(found), in_list);
        int top = probe;
        while (m.nodes[top].parent != 0) top = m.nodes[top].parent;
        EXPECT_EQ(vepra_tree_get_top(found), real[top]);
      }
      EXPECT_EQ(vepra_tree_search_obj(tree, id(next_id + 1000)), nullptr);
    }
    if (heap()) {
      vepra_treem_destroy(&tree);
    } else {
      vepra_tree_destroy(&tree);
    }
    EXPECT_EQ(tree, nullptr);
  }
}

// A small fixed forest:  1 (2 (4 5) 3)  6 (7)
struct Forest {
  vepra_tree_t *top = nullptr;
  std::map<int, vepra_tree_t *> n;
};

Forest small_forest(apr_pool_t *pool) {
  Forest f;
  auto add_top = [&](int k) { EXPECT_EQ(vepra_tree_append(&f.top, 0, id(k), &f.n[k], pool), nullptr); };
  auto add_child = [&](int p, int k) {
    EXPECT_EQ(vepra_tree_append_child(f.n[p], 0, id(k), &f.n[k], pool), nullptr);
  };
  add_top(1);
  add_child(1, 2);
  add_child(1, 3);
  add_child(2, 4);
  add_child(2, 5);
  add_top(6);
  add_child(6, 7);
  return f;
}

TEST_F(TreeTest, ChildHandleFollowsTheRules) {
  Forest f = small_forest(pool_);
  EXPECT_EQ(f.n[1]->child, f.n[2]);  // the second child left it on the first
  EXPECT_EQ(f.n[4]->child, nullptr);
  vepra_tree_t *handle_target = f.n[3];
  f.n[1]->child = handle_target;
  EXPECT_EQ(vepra_tree_extract(f.n[3]), f.n[3]);
  EXPECT_EQ(f.n[1]->child, f.n[2]);  // moved to the previous sibling
  f.n[2]->child = f.n[4];
  vepra_tree_extract(f.n[4]);
  EXPECT_EQ(f.n[2]->child, f.n[5]);  // first child: moved to the next one
  vepra_tree_extract(f.n[5]);
  EXPECT_EQ(f.n[2]->child, nullptr);
}

TEST_F(TreeTest, CountAndTopLookOnlyWhereTheySay) {
  Forest f = small_forest(pool_);
  EXPECT_EQ(vepra_tree_count(f.n[5]), 2u);  // 4 and 5, no ancestors
  EXPECT_EQ(vepra_tree_count(f.n[3]), 4u);  // 2, 4, 5, 3
  EXPECT_EQ(vepra_tree_count(f.n[6]), 7u);
  EXPECT_EQ(vepra_tree_get_top(f.n[6]), f.n[6]);  // not rewound to 1
  EXPECT_EQ(vepra_tree_get_top(f.n[5]), f.n[1]);
  EXPECT_EQ(vepra_tree_get_first(f.n[6]), f.n[1]);
  EXPECT_EQ(vepra_tree_get_last(f.n[2]), f.n[3]);
  EXPECT_EQ(vepra_tree_get_parent(f.n[4]), f.n[2]);
}

int stop_on_one(uint32_t, void *data, void *user) {
  record(0, data, user);
  return id_of(data) == 1;
}
int stop_on_five_post(uint32_t, void *data, void *user) {
  record(0, data, user);
  return id_of(data) == 5 ? 5 : 0;
}
vepra_error_t *stop_walking_on_four(uint32_t, void *data, void *user) {
  record(0, data, user);
  return id_of(data) == 4 ? VepraDLlistStopWalking : nullptr;
}

TEST_F(TreeTest, WalksStopOnEitherCallback) {
  Forest f = small_forest(pool_);
  std::vector<int> seen;
  EXPECT_EQ(vepra_tree_walk_int_first(f.n[6], stop_on_one, stop_on_one, &seen), 1);
  EXPECT_EQ(seen, std::vector<int>{1});  // neither the children nor post
  seen.clear();
  EXPECT_EQ(vepra_tree_walk_int_first(f.top, nullptr, stop_on_five_post, &seen), 5);
  EXPECT_EQ(seen, (std::vector<int>{4, 5}));
  seen.clear();
  EXPECT_EQ(vepra_tree_walk_err_first(f.top, stop_walking_on_four, nullptr, &seen),
            VepraDLlistStopWalking);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 4}));
  seen.clear();
  std::vector<int> both;
  vepra_tree_walk(f.n[2]->child, record, record, &both);  // a subtree's list only
  EXPECT_EQ(both, (std::vector<int>{4, 4, 5, 5}));
  EXPECT_EQ(vepra_tree_walk_int_first(nullptr, stop_on_one, nullptr, &seen), 0);
  EXPECT_EQ(vepra_tree_walk_err_first(f.top, nullptr, nullptr, &seen), nullptr);
  EXPECT_TRUE(seen.empty());
}

int is_five(uint32_t, void *data, void *) { return id_of(data) == 5; }

TEST_F(TreeTest, SearchAndDeleteByObject) {
  Forest f = small_forest(pool_);
  EXPECT_EQ(vepra_tree_search_func(f.n[6], is_five, nullptr), f.n[5]);
  EXPECT_EQ(vepra_tree_search_func(f.n[7], is_five, nullptr), nullptr);
  std::vector<int> order;
  vepra_tree_delete_obj_func(f.n[6], id(2), record_deleted, &order);
  EXPECT_EQ(order, (std::vector<int>{4, 5, 2}));
  EXPECT_EQ(f.n[1]->child, f.n[3]);
  vepra_tree_delete_obj_func(f.n[6], id(99), record_deleted, &order);
  EXPECT_EQ(order.size(), 3u);
  EXPECT_EQ(vepra_tree_delete_obj_errfunc(f.top, id(99), nullptr, nullptr), nullptr);
  EXPECT_EQ(preorder(f.top), (std::vector<int>{1, 3, 6, 7}));
}

struct FailOn {
  int id;
  vepra_error_t *error;
  std::vector<int> seen;
};
vepra_error_t *fail_on(uint32_t, void *data, void *user, void *) {
  auto *f = static_cast<FailOn *>(user);
  f->seen.push_back(id_of(data));
  return id_of(data) == f->id ? f->error : nullptr;
}

TEST_F(TreeTest, DeleteErrfuncStopsAtTheFirstError) {
  Forest f = small_forest(pool_);
  FailOn fail{4, user_error(125990, "keep"), {}};
  EXPECT_EQ(vepra_tree_delete_errfunc(f.n[1], fail_on, &fail), fail.error);
  EXPECT_EQ(fail.seen, std::vector<int>{4});
  EXPECT_EQ(f.n[4]->parent, nullptr);  // the failing node was unlinked first
  EXPECT_EQ(f.n[5]->parent, f.n[2]);   // its parent's deletion never started
  EXPECT_EQ(preorder(f.top), (std::vector<int>{1, 2, 5, 3, 6, 7}));
  fail.id = 3;
  fail.seen.clear();
  EXPECT_EQ(vepra_tree_node_delete_errfunc(f.n[1], fail_on, &fail), fail.error);
  EXPECT_EQ(fail.seen, (std::vector<int>{5, 2, 3}));
  EXPECT_EQ(preorder(f.top), (std::vector<int>{1, 6, 7}));
  EXPECT_EQ(f.n[1]->child, nullptr);
  fail.id = 0;
  fail.seen.clear();
  EXPECT_EQ(vepra_tree_delete_obj_errfunc(f.top, id(6), fail_on, &fail), nullptr);
  EXPECT_EQ(fail.seen, (std::vector<int>{7, 6}));
  vepra_error_clear(fail.error);
}

TEST_F(TreeTest, InsertionRejectsBadNodes) {
  Forest f = small_forest(pool_);
  const std::string invalid = "Error(120120): Tree insertion error: invalid pointer. ";
  vepra_tree_t *lone = nullptr;
  ASSERT_EQ(vepra_tree_create(9, id(9), &lone, pool_), nullptr);
  EXPECT_EQ(take_printed(vepra_tree_insert_before(nullptr, lone)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_insert_after(f.n[1], nullptr)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_insert_after(f.n[4], f.n[6])), invalid);  // still linked
  EXPECT_EQ(take_printed(vepra_tree_prepend_child(nullptr, 0, nullptr, nullptr, pool_)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_append_child(nullptr, 0, nullptr, nullptr, pool_)), invalid);
  EXPECT_EQ(take_printed(vepra_treem_append_child(nullptr, 0, nullptr, nullptr)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_prepend(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120120): Unable to prepend Tree node. \n" + invalid);
  // An extracted subtree cannot be hung below one of its own nodes.
  vepra_tree_extract(f.n[2]);
  EXPECT_EQ(take_printed(vepra_tree_insert_after(f.n[4], f.n[2])), invalid);
  ASSERT_EQ(vepra_tree_insert_after(f.n[1], lone), nullptr);
  EXPECT_EQ(lone->parent, nullptr);
  ASSERT_EQ(vepra_tree_insert_before(f.n[7], f.n[2]), nullptr);
  EXPECT_EQ(f.n[2]->parent, f.n[6]);
  EXPECT_EQ(preorder(f.top), (std::vector<int>{1, 3, 9, 6, 2, 4, 5, 7}));
}

TEST_F(TreeTest, NullIsQuietForAccessorsAndDeletions) {
  uint32_t tag = 5;
  EXPECT_EQ(vepra_tree_get_data_tag(nullptr, &tag), nullptr);
  EXPECT_EQ(tag, 5u);
  EXPECT_EQ(vepra_tree_get_prev(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_next(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_parent(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_child(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_top(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_data(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_count(nullptr), 0u);
  EXPECT_EQ(vepra_tree_extract(nullptr), nullptr);
  EXPECT_EQ(vepra_tree_search_obj(nullptr, nullptr), nullptr);
  vepra_tree_update(nullptr, 0, nullptr);
  vepra_tree_delete(nullptr);
  vepra_treem_delete(nullptr);
  vepra_tree_node_delete(nullptr);
  vepra_treem_node_delete(nullptr);
  vepra_tree_delete_func(nullptr, record_deleted, nullptr);
  vepra_tree_node_delete_func(nullptr, record_deleted, nullptr);
  EXPECT_EQ(vepra_tree_delete_errfunc(nullptr, fail_on, nullptr), nullptr);
  vepra_tree_destroy(nullptr);
  vepra_treem_destroy(nullptr);
  vepra_tree_t *empty = nullptr;
  vepra_treem_destroy_func(&empty, record_deleted, nullptr);
  vepra_tree_walk(nullptr, record, record, nullptr);
}

TEST_F(TreeTest, HeapAllocationFailuresLeaveTheTreeUnchanged) {
  vepra_tree_t *tree = nullptr, *root = nullptr;
  ASSERT_EQ(vepra_treem_append(&tree, 1, id(1), &root), nullptr);
  const std::string inner = "\nError(120012): Can't allocate memory for treem node. "
                            "\nError(120012): Failed to allocate " +
                            std::to_string(sizeof(vepra_tree_t)) + " bytes of memory. ";
  vepra_test::for_each_allocation_failure(
      [&] { return vepra_treem_append(&tree, 2, id(2), nullptr); },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Unable to append Tree node. " + inner);
        EXPECT_EQ(vepra_tree_count(tree), 1u);
      });
  vepra_test::for_each_allocation_failure(
      [&] { return vepra_treem_append_child(root, 3, id(3), nullptr); },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Unable to append child Tree node. " + inner);
        EXPECT_EQ(root->child, nullptr);
      });
  vepra_test::for_each_allocation_failure(
      [] {
        vepra_tree_t *node = nullptr;
        vepra_error_t *e = vepra_treem_create(4, id(4), &node);
        vepra_treem_node_delete(node);
        return e;
      },
      [&](vepra_error_t *e, long) { EXPECT_EQ(take_printed(vepra_error_dup(e)), inner.substr(1)); });
  EXPECT_EQ(preorder(tree), (std::vector<int>{1, 3, 2}));
  std::vector<int> order;
  vepra_treem_destroy_func(&tree, record_deleted, &order);
  EXPECT_EQ(order, (std::vector<int>{3, 1, 2}));
  EXPECT_EQ(tree, nullptr);
}

TEST_P(TreeFlavourTest, VeryDeepTreesDoNotExhaustTheStack) {
  constexpr int kDepth = 300000;
  vepra_tree_t *tree = nullptr, *last = nullptr;
  ASSERT_EQ(append(&tree, 1, &last), nullptr);
  for (int k = 2; k <= kDepth; ++k) ASSERT_EQ(append_child(last, k, &last), nullptr);
  EXPECT_EQ(vepra_tree_count(tree), static_cast<size_t>(kDepth));
  EXPECT_EQ(vepra_tree_search_obj(tree, id(kDepth)), last);
  EXPECT_EQ(vepra_tree_get_top(last), tree);
  std::vector<int> post = postorder(tree);
  ASSERT_EQ(post.size(), static_cast<size_t>(kDepth));
  EXPECT_EQ(post.front(), kDepth);
  std::vector<int> order;
  delete_siblings(tree, &order);
  EXPECT_EQ(order, post);
}

}  // namespace
