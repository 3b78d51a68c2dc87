// Trees against a model of children vectors, then what it leaves out.

#include "containers/container_ids.hpp"
#include "vepra_tree.h"

namespace {

using namespace vepra_test;

void record_deleted(uint32_t, void *data, void *user, void *links) {
  EXPECT_NE(links, nullptr);
  record(0, data, user);
}
Ids walked(vepra_tree_t *node, bool pre) {
  Ids out;
  vepra_tree_walk(node, pre ? record : nullptr, pre ? nullptr : record, &out);
  return out;
}

// Each node's ordered children and the id its child handle names (0: none); id
// 0 is the top level.
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

// Checks every link below first against the model's children of parent_id.
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

// Pool nodes only: heap ones share every path but allocation and freeing.
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
        if (parent == 0) tree = nullptr;
      }
      EXPECT_EQ(order, expect);
      for (int d : order) real.erase(d);
      if (made != nullptr) real[k] = made;
      if (tree == nullptr && !m.nodes[0].kids.empty()) tree = real[m.nodes[0].kids.front()];
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step));
      ASSERT_NO_FATAL_FAILURE(expect_links(vepra_tree_get_first(tree), m, 0, nullptr, real));
      for (bool pre : {true, false}) ASSERT_EQ(walked(tree, pre), m.order(pre, m.nodes[0].kids));
      if (m.nodes.size() > 1) {  // count: the node's siblings with their subtrees
        int probe = random_node();
        vepra_tree_t *found = vepra_tree_search_obj(tree, id(probe));
        EXPECT_EQ(found, real[probe]);
        EXPECT_EQ(vepra_tree_count(found), m.order(false, m.siblings(probe)).size());
      }
    }
    vepra_tree_destroy(&tree);
    EXPECT_EQ(tree, nullptr);
  }
}

int stop_on(uint32_t, void *data, void *user) {
  return hit(data, user) ? static_cast<FailOn *>(user)->id : 0;
}
int is_id(uint32_t, void *data, void *user) { return id_of(data) == *static_cast<int *>(user); }
std::string joined(const Ids &ids) {
  std::string out;
  for (int k : ids) out += (out.empty() ? "" : " ") + std::to_string(k);
  return out;
}

// tree_steps.tsv: stopped walks, searches, stopped deletions, refused inserts.
TEST_F(TreeTest, StepsOnASmallForest) {
  std::map<int, vepra_tree_t *> n;  // by id; 0 for none
  auto name = [](vepra_tree_t *t) { return t == nullptr ? "-" : std::to_string(id_of(t->data)); };
  for (auto row : table_rows(VEPRA_TEST_DATA_DIR "/containers/tree_steps.tsv")) {
    row.resize(6);
    const std::string &op = row[0];
    SCOPED_TRACE(op + " " + row[1] + " " + row[2]);
    if (op == "new") {  // 1 (2 (4 5) 3)  6 (7), and 9 alone
      n.clear();
      for (auto [p, k] : {std::pair{0, 1}, {1, 2}, {1, 3}, {2, 4}, {2, 5}, {0, 6}, {6, 7}})
        ASSERT_EQ(p == 0 ? vepra_tree_append(&n[1], 0, id(k), &n[k], pool_)
                         : vepra_tree_append_child(n[p], 0, id(k), &n[k], pool_),
                  nullptr);
      ASSERT_EQ(vepra_tree_create(9, id(9), &n[9], pool_), nullptr);
      continue;
    }
    vepra_tree_t *at = n[row[1] == "-" ? 0 : std::stoi(row[1])];
    int arg = row[2] == "-" ? 0 : std::stoi(row[2]);
    FailOn w{op == "delete_obj" ? 0 : arg, user_error(125990, "keep")};
    std::string result = "-";
    auto outcome = [&](vepra_error_t *e) {
      return e == nullptr ? "-" : e == w.error ? "error" : take_printed(e);
    };
    if (op == "walk_int" || op == "walk_int_post") {
      result = std::to_string(
          vepra_tree_walk_int_first(at, op == "walk_int" ? stop_on : nullptr, stop_on, &w));
    } else if (op == "walk_err_pre") {
      result = outcome(vepra_tree_walk_err_first(at, fail_on, nullptr, &w));
    } else if (op == "walk") {
      vepra_tree_walk(at, record, record, &w.seen);
    } else if (op == "search_func") {
      result = name(vepra_tree_search_func(at, is_id, &arg));
    } else if (op == "last" || op == "parent" || op == "extract") {
      result = name(op == "last"     ? vepra_tree_get_last(at)
                    : op == "parent" ? vepra_tree_get_parent(at)
                                     : vepra_tree_extract(at));
    } else if (op == "delete_errfunc" || op == "node_delete_errfunc") {
      auto del =
          op == "delete_errfunc" ? vepra_tree_delete_errfunc : vepra_tree_node_delete_errfunc;
      result = outcome(del(at, fail_on<void *>, &w));
    } else if (op == "delete_obj") {
      result = outcome(vepra_tree_delete_obj_errfunc(at, id(arg), fail_on<void *>, &w));
    } else {
      auto insert = op == "insert_after" ? vepra_tree_insert_after : vepra_tree_insert_before;
      result = outcome(insert(at, n[arg]));
    }
    vepra_error_clear(w.error);
    EXPECT_EQ(result, row[3]);
    EXPECT_EQ(joined(w.seen), row[4]);
    EXPECT_EQ(joined(walked(n[1], true)), row[5]);
  }
  EXPECT_EQ(n.count(9), 1u);  // the table was read
}

// Null is quiet where nothing is asked for, and refused where a node is;
// a failed heap allocation leaves the tree unchanged.
TEST_F(TreeTest, NullAndFailedAllocationsLeaveTheTreeUnchanged) {
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
  const std::string invalid = "Error(120120): Tree insertion error: invalid pointer. ";
  EXPECT_EQ(take_printed(vepra_tree_prepend_child(nullptr, 0, nullptr, nullptr, pool_)), invalid);
  EXPECT_EQ(take_printed(vepra_treem_append_child(nullptr, 0, nullptr, nullptr)), invalid);
  EXPECT_EQ(take_printed(vepra_tree_prepend(nullptr, 0, nullptr, nullptr, pool_)),
            "Error(120120): Unable to prepend Tree node. \n" + invalid);
  vepra_tree_t *tree = nullptr, *root = nullptr;
  ASSERT_EQ(vepra_treem_append(&tree, 1, id(1), &root), nullptr);
  EXPECT_EQ(vepra_tree_get_data_tag(root, &tag), id(1));
  EXPECT_EQ(tag, 1u);
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
  ASSERT_EQ(vepra_treem_append_child(loose, 5, id(5), nullptr), nullptr);
  ASSERT_EQ(vepra_tree_insert_after(root, loose), nullptr);
  vepra_treem_node_delete(loose);
  Ids order;
  vepra_treem_destroy_func(&tree, record_deleted, &order);
  EXPECT_EQ(order, (Ids{3, 1, 2}));
  EXPECT_EQ(tree, nullptr);
}

// Recursion over a chain of 300000 children would overflow the stack.
TEST_F(TreeTest, VeryDeepTreesDoNotExhaustTheStack) {
  constexpr int kDepth = 300000;  // heap nodes: pool ones share every path but freeing
  vepra_tree_t *tree = nullptr, *last = nullptr;
  ASSERT_EQ(vepra_treem_append(&tree, 1, id(1), &last), nullptr);
  for (int k = 2; k <= kDepth; ++k)
    ASSERT_EQ(vepra_treem_append_child(last, 0, id(k), &last), nullptr);
  EXPECT_EQ(vepra_tree_count(tree), static_cast<size_t>(kDepth));
  EXPECT_EQ(vepra_tree_search_obj(tree, id(kDepth)), last);
  Ids post = walked(tree, false), order;
  ASSERT_EQ(post.size(), static_cast<size_t>(kDepth));
  EXPECT_EQ(post.front(), kDepth);
  vepra_treem_delete_func(tree, record_deleted, &order);
  EXPECT_EQ(order, post);
}

}  // namespace
