// Trees against a model of children vectors, then the walk orders, stops,
// heap nodes and failures the model leaves out.
#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "containers/container_ids.hpp"
#include "vepra_tree.h"

namespace {

using namespace vepra_test;
using Ids = std::vector<int>;

void record_deleted(uint32_t, void *data, void *user, void *links) {
  EXPECT_NE(links, nullptr);
  record(0, data, user);
}
Ids walked(vepra_tree_t *node, bool pre) {
  Ids out;
  vepra_tree_walk(node, pre ? record : nullptr, pre ? nullptr : record, &out);
  return out;
}

// The reference: each node's ordered children and the id its child handle
// names (0 for none); id 0 stands for the top level.
struct Model {
  struct Node {
    int parent = 0;
    Ids kids;
    int child = 0;
  };
  std::map<int, Node> nodes{{0, {}}};

  Ids &siblings(int k) { return nodes[nodes[k].parent].kids; }
  void insert(int parent, size_t at, int k) {
    nodes[parent].kids.insert(nodes[parent].kids.begin() + static_cast<long>(at), k);
    nodes[k].parent = parent;
    if (parent != 0 && nodes[parent].child == 0) nodes[parent].child = k;
  }
  void add_order(int k, bool pre, Ids &out) {
    if (pre) out.push_back(k);
    for (int kid : nodes[k].kids) add_order(kid, pre, out);
    if (!pre) out.push_back(k);
  }
  Ids order(bool pre, const Ids &tops) {
    Ids out;
    for (int top : tops) add_order(top, pre, out);
    return out;
  }
  // Removes k with its subtree, moving the parent's child handle to the
  // previous sibling, else the next, else none; returns the post-order.
  Ids remove(int k) {
    Ids gone = order(false, {k});
    int p = nodes[k].parent;
    auto &kids = nodes[p].kids;
    auto at = std::find(kids.begin(), kids.end(), k);
    if (p != 0 && nodes[p].child == k)
      nodes[p].child = at != kids.begin() ? *(at - 1) : at + 1 != kids.end() ? *(at + 1) : 0;
    kids.erase(at);
    for (int d : gone) nodes.erase(d);
    return gone;
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

class TreeTest : public LibraryTest {};

// Pool nodes only: the heap flavour shares every linking and walking path,
// and its own allocation and freeing are checked below and by the corpus
// replay of the containers fuzzer, which also extracts subtrees.
TEST_F(TreeTest, RandomOperationsMatchChildrenModel) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 12; ++round) {
    Model m;
    std::map<int, vepra_tree_t *> real;
    vepra_tree_t *tree = nullptr;
    int next_id = 1;
    auto random_node = [&]() {
      return std::next(m.nodes.begin(), 1 + rng() % (m.nodes.size() - 1))->first;
    };
    for (int step = 0; step < 200; ++step) {
      int k = next_id++;
      auto tag = static_cast<uint32_t>(k);
      vepra_tree_t *made = nullptr;
      unsigned op = m.nodes.size() == 1 ? 0 : rng() % 9;
      int target = m.nodes.size() == 1 ? 0 : random_node();
      vepra_tree_t *at = target != 0 ? real[target] : nullptr;
      // Keeps the caller's handle off a top-level node about to go away.
      if (op >= 6 && tree != nullptr && id_of(tree->data) == target)
        tree = tree->prev != nullptr ? tree->prev : tree->next;
      Ids order, expect;
      if (op < 2) {  // append at the top level
        ASSERT_EQ(vepra_tree_append(&tree, tag, id(k), &made, pool_), nullptr);
        m.insert(0, m.nodes[0].kids.size(), k);
      } else if (op < 5) {  // a last child, or (op 4) a first one
        auto add = op == 4 ? vepra_tree_prepend_child : vepra_tree_append_child;
        ASSERT_EQ(add(at, tag, id(k), &made, pool_), nullptr);
        m.insert(target, op == 4 ? 0 : m.nodes[target].kids.size(), k);
      } else if (op == 5) {  // a sibling directly before or after a node
        const bool after = rng() % 2 == 0;
        vepra_tree_t *h = at;
        auto add = after ? vepra_tree_add_after : vepra_tree_add_before;
        ASSERT_EQ(add(&h, tag, id(k), &made, pool_), nullptr);
        EXPECT_EQ(h, at);
        auto &sib = m.siblings(target);
        size_t pos = static_cast<size_t>(std::find(sib.begin(), sib.end(), target) - sib.begin());
        m.insert(m.nodes[target].parent, pos + after, k);
      } else if (op < 8) {  // delete a node with its subtree
        if (op == 6)
          vepra_tree_node_delete_func(at, record_deleted, &order);
        else  // searched for from the top
          vepra_tree_delete_obj_func(vepra_tree_get_top(at), id(target), record_deleted, &order);
        expect = m.remove(target);
      } else if (m.nodes[target].parent != 0 || rng() % 4 == 0) {  // a sibling list, rarely the top
        int parent = m.nodes[target].parent;
        for (int kid : Ids(m.nodes[parent].kids)) {
          Ids part = m.remove(kid);
          expect.insert(expect.end(), part.begin(), part.end());
        }
        vepra_tree_delete_func(at, record_deleted, &order);
        EXPECT_TRUE(parent == 0 || real[parent]->child == nullptr);
        if (parent == 0) tree = nullptr;
      }
      EXPECT_EQ(order, expect);
      for (int d : order) real.erase(d);
      if (made != nullptr) real[k] = made;
      if (tree == nullptr && !m.nodes[0].kids.empty()) tree = real[m.nodes[0].kids.front()];
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step));
      ASSERT_NO_FATAL_FAILURE(expect_links(vepra_tree_get_first(tree), m, 0, nullptr, real));
      for (bool pre : {true, false}) ASSERT_EQ(walked(tree, pre), m.order(pre, m.nodes[0].kids));
      ASSERT_EQ(vepra_tree_count(tree), m.nodes.size() - 1);
      if (m.nodes.size() > 1) {
        int probe = random_node(), top = probe;
        vepra_tree_t *found = vepra_tree_search_obj(tree, id(probe));
        EXPECT_EQ(found, real[probe]);
        // count: the node's siblings with their subtrees
        EXPECT_EQ(vepra_tree_count(found), m.order(false, m.siblings(probe)).size());
        while (m.nodes[top].parent != 0) top = m.nodes[top].parent;
        EXPECT_EQ(vepra_tree_get_top(found), real[top]);
      }
      EXPECT_EQ(vepra_tree_search_obj(tree, id(next_id + 1000)), nullptr);
    }
    vepra_tree_destroy(&tree);
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
  for (auto [p, k] : {std::pair{0, 1}, {1, 2}, {1, 3}, {2, 4}, {2, 5}, {0, 6}, {6, 7}})
    EXPECT_EQ(p == 0 ? vepra_tree_append(&f.top, 0, id(k), &f.n[k], pool)
                     : vepra_tree_append_child(f.n[p], 0, id(k), &f.n[k], pool),
              nullptr);
  return f;
}

int stop_on(uint32_t, void *data, void *user) {
  return hit(data, user) ? static_cast<FailOn *>(user)->id : 0;
}

TEST_F(TreeTest, WalksStopOnEitherCallbackAndSearchLooksBelow) {
  Forest f = small_forest(pool_);
  // Stopping in pre skips the children and post; in post, the rest.
  for (auto [pre, fail, seen] : {std::tuple{true, 1, Ids{1}}, {false, 5, Ids{4, 5}}}) {
    FailOn w{fail};
    EXPECT_EQ(vepra_tree_walk_int_first(f.n[6], pre ? stop_on : nullptr, stop_on, &w), fail);
    EXPECT_EQ(w.seen, seen);
  }
  FailOn w{4, VepraDLlistStopWalking};
  EXPECT_EQ(vepra_tree_walk_err_first(f.top, fail_on, nullptr, &w), VepraDLlistStopWalking);
  EXPECT_EQ(w.seen, (Ids{1, 2, 4}));
  Ids both;
  vepra_tree_walk(f.n[2]->child, record, record, &both);  // a subtree's list only
  EXPECT_EQ(both, (Ids{4, 4, 5, 5}));
  auto is_five = [](uint32_t, void *data, void *) { return int(id_of(data) == 5); };
  EXPECT_EQ(vepra_tree_search_func(f.n[6], is_five, nullptr), f.n[5]);
  EXPECT_EQ(vepra_tree_search_func(f.n[7], is_five, nullptr), nullptr);
  EXPECT_EQ(vepra_tree_get_last(f.n[2]), f.n[3]);
  EXPECT_EQ(vepra_tree_get_parent(f.n[4]), f.n[2]);
}

TEST_F(TreeTest, DeletionsByObjectAndErrfuncStopAtTheFirstError) {
  Forest f = small_forest(pool_);
  FailOn fail{4, user_error(125990, "keep")};
  EXPECT_EQ(vepra_tree_delete_errfunc(f.n[1], fail_on<void *>, &fail), fail.error);
  EXPECT_EQ(fail.seen, Ids{4});
  EXPECT_EQ(f.n[4]->parent, nullptr);  // the failing node was unlinked first
  EXPECT_EQ(walked(f.top, true), (Ids{1, 2, 5, 3, 6, 7}));
  fail = {3, fail.error};
  EXPECT_EQ(vepra_tree_node_delete_errfunc(f.n[1], fail_on<void *>, &fail), fail.error);
  EXPECT_EQ(fail.seen, (Ids{5, 2, 3}));
  EXPECT_EQ(walked(f.top, true), (Ids{1, 6, 7}));
  EXPECT_EQ(f.n[1]->child, nullptr);
  vepra_error_clear(fail.error);
  fail = {};
  EXPECT_EQ(vepra_tree_delete_obj_errfunc(f.top, id(99), fail_on<void *>, &fail), nullptr);
  EXPECT_EQ(vepra_tree_delete_obj_errfunc(f.top, id(6), fail_on<void *>, &fail), nullptr);
  EXPECT_EQ(fail.seen, (Ids{7, 6}));
}

TEST_F(TreeTest, InsertionRejectsBadNodes) {
  Forest f = small_forest(pool_);
  const std::string invalid = "Error(120120): Tree insertion error: invalid pointer. ";
  vepra_tree_t *lone = nullptr;
  ASSERT_EQ(vepra_tree_create(9, id(9), &lone, pool_), nullptr);
  vepra_tree_extract(f.n[2]);  // cannot hang below one of its own nodes
  for (auto [at, node] : {std::pair{(vepra_tree_t *)nullptr, lone},
                          {f.n[1], nullptr},
                          {f.n[4], f.n[6]},
                          {f.n[4], f.n[2]},
                          {lone, lone}}) {
    EXPECT_EQ(take_printed(vepra_tree_insert_after(at, node)), invalid);
    EXPECT_EQ(take_printed(vepra_tree_insert_before(at, node)), invalid);
  }
  EXPECT_EQ(take_printed(vepra_tree_prepend_child(nullptr, 0, nullptr, nullptr, pool_)), invalid);
  EXPECT_EQ(take_printed(vepra_treem_append_child(nullptr, 0, nullptr, nullptr)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_prepend(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120120): Unable to prepend Tree node. \n" + invalid);
  ASSERT_EQ(vepra_tree_insert_after(f.n[1], lone), nullptr);
  ASSERT_EQ(vepra_tree_insert_before(f.n[7], f.n[2]), nullptr);
  EXPECT_EQ(f.n[2]->parent, f.n[6]);
  EXPECT_EQ(walked(f.top, true), (Ids{1, 3, 9, 6, 2, 4, 5, 7}));
}

TEST_F(TreeTest, NullIsQuietForAccessorsAndDeletions) {
  uint32_t tag = 5;
  EXPECT_EQ(vepra_tree_get_data_tag(nullptr, &tag), nullptr);
  EXPECT_EQ(tag, 5u);
  expect_quiet_with(nullptr, vepra_tree_get_prev, vepra_tree_get_next, vepra_tree_get_parent,
                    vepra_tree_get_child, vepra_tree_get_top, vepra_tree_extract,
                    vepra_tree_get_data, vepra_tree_count, vepra_tree_search_obj, vepra_tree_update,
                    vepra_tree_delete, vepra_treem_delete, vepra_tree_node_delete,
                    vepra_treem_node_delete, vepra_tree_delete_func, vepra_tree_node_delete_func,
                    vepra_tree_delete_errfunc, vepra_tree_destroy, vepra_treem_destroy,
                    vepra_tree_walk, vepra_tree_walk_int_first);
  vepra_tree_t *empty = nullptr;
  expect_quiet_with(&empty, vepra_treem_destroy_func);
}

TEST_F(TreeTest, HeapAllocationFailuresLeaveTheTreeUnchanged) {
  vepra_tree_t *tree = nullptr, *root = nullptr;
  ASSERT_EQ(vepra_treem_append(&tree, 1, id(1), &root), nullptr);
  auto failure = [](const char *context) {
    return node_alloc_failure(context, "treem", sizeof(vepra_tree_t));
  };
  expect_alloc_failures([&] { return vepra_treem_append(&tree, 2, id(2), nullptr); },
                        failure("Unable to append Tree node."),
                        [&] { EXPECT_EQ(vepra_tree_count(tree), 1u); });
  expect_alloc_failures([&] { return vepra_treem_append_child(root, 3, id(3), nullptr); },
                        failure("Unable to append child Tree node."),
                        [&] { EXPECT_EQ(root->child, nullptr); });
  vepra_tree_t *loose = nullptr;  // freed alone; the sanitizers see a leak or double free
  ASSERT_EQ(vepra_treem_create(4, id(4), &loose), nullptr);
  ASSERT_EQ(vepra_tree_insert_after(root, loose), nullptr);
  vepra_treem_node_delete(loose);
  Ids order;
  vepra_treem_destroy_func(&tree, record_deleted, &order);
  EXPECT_EQ(order, (Ids{3, 1, 2}));
  EXPECT_EQ(tree, nullptr);
}

// Recursion over a chain of 300000 children would overflow the stack.
TEST_F(TreeTest, VeryDeepTreesDoNotExhaustTheStack) {
  constexpr int kDepth = 300000;
  for (bool heap : {false, true}) {
    vepra_tree_t *tree = nullptr, *last = nullptr;
    ASSERT_EQ(heap ? vepra_treem_append(&tree, 1, id(1), &last)
                   : vepra_tree_append(&tree, 1, id(1), &last, pool_),
              nullptr);
    for (int k = 2; k <= kDepth; ++k)
      ASSERT_EQ(heap ? vepra_treem_append_child(last, 0, id(k), &last)
                     : vepra_tree_append_child(last, 0, id(k), &last, pool_),
                nullptr);
    EXPECT_EQ(vepra_tree_count(tree), static_cast<size_t>(kDepth));
    EXPECT_EQ(vepra_tree_search_obj(tree, id(kDepth)), last);
    EXPECT_EQ(vepra_tree_get_top(last), tree);
    Ids post = walked(tree, false), order;
    ASSERT_EQ(post.size(), static_cast<size_t>(kDepth));
    EXPECT_EQ(post.front(), kDepth);
    heap ? vepra_treem_delete_func(tree, record_deleted, &order)
         : vepra_tree_delete_func(tree, record_deleted, &order);
    EXPECT_EQ(order, post);
  }
}

}  // namespace
