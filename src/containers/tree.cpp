// Ordered trees in both flavours (pool nodes and heap nodes). Every
// traversal is iterative over the parent links, so deep trees cannot
// exhaust the stack.
#include <cstdint>

#include "containers/links.hpp"
#include "containers/node_source.hpp"
#include "containers/walk.hpp"
#include "core/error_internal.hpp"
#include "vepra_mem.h"
#include "vepra_tree.h"

using namespace vepra::detail;

namespace {

enum class Alloc { kPool, kHeap };

vepra_error_t *invalid_insert() noexcept { return make_error(VEPRA_E_TREE_INSERT); }

vepra_error_t *new_node(uint32_t tag, void *data, Alloc alloc, apr_pool_t *pool,
                        vepra_tree_t **out) noexcept {
  if (out == nullptr) return invalid_insert();
  const NodeSource source{pool, alloc == Alloc::kHeap};
  if (!source.heap && pool == nullptr) return invalid_insert();
  void *block = nullptr;
  if (vepra_error_t *e = source.alloc(sizeof(vepra_tree_t), &block)) {
    return source.heap ? wrap_error(e, "Can't allocate memory for treem node.") : e;
  }
  auto *node = static_cast<vepra_tree_t *>(block);
  *node = vepra_tree_t{tag, 0, nullptr, nullptr, nullptr, nullptr, data};
  *out = node;
  return nullptr;
}

void dispose_node(vepra_tree_t *node, Alloc alloc) noexcept {
  NodeSource{nullptr, alloc == Alloc::kHeap}.release(node);
}

// Unlinks a node from its siblings and its parent, keeping its subtree.
// The parent's child handle moves to the previous sibling, else the next.
void tree_unlink(vepra_tree_t *n) noexcept {
  if (n->parent != nullptr && n->parent->child == n) {
    n->parent->child = n->prev != nullptr ? n->prev : n->next;
  }
  chain_unlink(n);
  n->parent = nullptr;
}

bool can_link(vepra_tree_t *node, vepra_tree_t *fresh) noexcept {
  if (!chain_can_link(node, fresh) || fresh->parent != nullptr) return false;
  // Only a node with children can be an ancestor; new nodes skip the climb.
  if (fresh->child == nullptr) return true;
  for (vepra_tree_t *up = node->parent; up != nullptr; up = up->parent) {
    if (up == fresh) return false;  // fresh would become its own ancestor
  }
  return true;
}

enum class Place { kFirst, kLast, kAfter, kBefore, kFirstChild, kLastChild };

// Links a fresh node at place, relative to the handle *where (siblings) or
// to the parent (children).
vepra_error_t *link_at(vepra_tree_t **where, vepra_tree_t *parent, Place place,
                       vepra_tree_t *fresh) noexcept {
  if (place == Place::kFirstChild || place == Place::kLastChild) {
    if (parent->child == nullptr) {
      if (!can_link(parent, fresh)) return invalid_insert();
      fresh->parent = parent;
      parent->child = fresh;
      return nullptr;
    }
    return place == Place::kFirstChild
               ? vepra_tree_insert_before(chain_first(parent->child), fresh)
               : vepra_tree_insert_after(chain_last(parent->child), fresh);
  }
  if (*where == nullptr) {
    *where = fresh;
    return nullptr;
  }
  switch (place) {
    case Place::kFirst: return vepra_tree_insert_before(chain_first(*where), fresh);
    case Place::kLast: return vepra_tree_insert_after(chain_last(*where), fresh);
    case Place::kAfter: return vepra_tree_insert_after(*where, fresh);
    default: return vepra_tree_insert_before(*where, fresh);
  }
}

// Adds a node. Sibling places need the handle's address (tree), child
// places a parent. A null parent is reported unwrapped; everything else is
// wrapped with context and leaves the tree unchanged.
vepra_error_t *add(vepra_tree_t **tree, vepra_tree_t *parent, Place place, const char *context,
                   uint32_t tag, void *data, vepra_tree_t **out, Alloc alloc,
                   apr_pool_t *pool) noexcept {
  bool child = place == Place::kFirstChild || place == Place::kLastChild;
  if (child && parent == nullptr) return invalid_insert();
  if (!child && tree == nullptr) return wrap_error(invalid_insert(), "%s", context);
  vepra_tree_t *fresh = nullptr;
  VEPRA_RETURN_IF_ERROR(new_node(tag, data, alloc, pool, &fresh), "%s", context);
  if (vepra_error_t *e = link_at(tree, parent, place, fresh)) {
    dispose_node(fresh, alloc);
    return wrap_error(e, "%s", context);
  }
  if (out != nullptr) *out = fresh;
  return nullptr;
}

// Walks the sibling list of node (from its first sibling) and all
// descendants: pre(n) before n's children, post(n) after them. Either
// returning true ends the traversal. Links are read after each call.
template <class Pre, class Post>
void traverse(vepra_tree_t *node, Pre &&pre, Post &&post) noexcept {
  vepra_tree_t *n = chain_first(node);
  vepra_tree_t *top = n != nullptr ? n->parent : nullptr;
  while (n != nullptr) {
    if (pre(n)) return;
    if (n->child != nullptr) {
      n = chain_first(n->child);
      continue;
    }
    for (;;) {
      if (post(n)) return;
      if (n->next != nullptr) {
        n = n->next;
        break;
      }
      if (n->parent == top) return;
      n = n->parent;
    }
  }
}

constexpr auto kNoStop = [](vepra_tree_t *) { return false; };

// The walk family with a pre and a post rule (see walk.hpp); the result is
// that of the rule that stopped the walk.
template <class Rule>
auto walk_tree(vepra_tree_t *node, Rule pre, Rule post) noexcept {
  bool pre_stopped = false;
  auto step = [](Rule &rule, vepra_tree_t *n) {
    return rule.fn != nullptr && rule(n->tag, n->data);
  };
  traverse(
      node, [&](vepra_tree_t *n) { return pre_stopped = step(pre, n); },
      [&](vepra_tree_t *n) { return step(post, n); });
  return pre_stopped ? pre.result() : post.result();
}

template <class Pred>
vepra_tree_t *find_preorder(vepra_tree_t *node, Pred &&pred) noexcept {
  vepra_tree_t *found = nullptr;
  traverse(
      node,
      [&](vepra_tree_t *n) {
        if (pred(n)) found = n;
        return found != nullptr;
      },
      kNoStop);
  return found;
}

// Removes the whole sibling list of node and every descendant in
// post-order (children first, siblings first to last): each node is
// unlinked, then given to dispose, whose first error stops the work.
template <class Dispose>
vepra_error_t *delete_siblings(vepra_tree_t *node, Dispose &&dispose) noexcept {
  vepra_tree_t *n = chain_first(node);
  if (n == nullptr) return nullptr;
  vepra_tree_t *top = n->parent;
  while (n->child != nullptr) n = chain_first(n->child);
  for (;;) {
    vepra_tree_t *next = n->next;
    vepra_tree_t *parent = n->parent;
    tree_unlink(n);
    if (vepra_error_t *e = dispose(n)) return e;
    if (next != nullptr) {
      n = next;
      while (n->child != nullptr) n = chain_first(n->child);
    } else if (parent == top) {
      return nullptr;
    } else {
      n = parent;  // its children are all gone now
    }
  }
}

// Removes node and its subtree in the same order.
template <class Dispose>
vepra_error_t *delete_subtree(vepra_tree_t *node, Dispose &&dispose) noexcept {
  if (node == nullptr) return nullptr;
  if (node->child != nullptr) {
    if (vepra_error_t *e = delete_siblings(node->child, dispose)) return e;
  }
  tree_unlink(node);
  return dispose(node);
}

// Disposers: a visit callback (may be null) followed by freeing for heap
// nodes, or an error callback.
auto visit_then(vepra_tree_delete_fn fn, void *user, Alloc alloc) noexcept {
  return [=](vepra_tree_t *n) -> vepra_error_t * {
    if (fn != nullptr) fn(n->tag, n->data, user, &n->prev);
    dispose_node(n, alloc);
    return nullptr;
  };
}

auto checked(vepra_tree_delete_err_fn fn, void *user) noexcept {
  return [=](vepra_tree_t *n) -> vepra_error_t * {
    return fn != nullptr ? fn(n->tag, n->data, user, &n->prev) : nullptr;
  };
}

}  // namespace

extern "C" {

vepra_error_t *vepra_tree_create(uint32_t tag, void *data, vepra_tree_t **out,
                                 apr_pool_t *pool) noexcept {
  return new_node(tag, data, Alloc::kPool, pool, out);
}

vepra_error_t *vepra_treem_create(uint32_t tag, void *data, vepra_tree_t **out) noexcept {
  return new_node(tag, data, Alloc::kHeap, nullptr, out);
}

vepra_error_t *vepra_tree_insert_before(vepra_tree_t *node, vepra_tree_t *fresh) noexcept {
  if (!can_link(node, fresh)) return invalid_insert();
  chain_link_before(node, fresh);
  fresh->parent = node->parent;
  return nullptr;
}

vepra_error_t *vepra_tree_insert_after(vepra_tree_t *node, vepra_tree_t *fresh) noexcept {
  if (!can_link(node, fresh)) return invalid_insert();
  chain_link_after(node, fresh);
  fresh->parent = node->parent;
  return nullptr;
}

vepra_error_t *vepra_tree_prepend(vepra_tree_t **tree, uint32_t tag, void *data,
                                  vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(tree, nullptr, Place::kFirst, "Unable to prepend Tree node.", tag, data, out,
             Alloc::kPool, pool);
}

vepra_error_t *vepra_tree_append(vepra_tree_t **tree, uint32_t tag, void *data,
                                 vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(tree, nullptr, Place::kLast, "Unable to append Tree node.", tag, data, out,
             Alloc::kPool, pool);
}

vepra_error_t *vepra_treem_append(vepra_tree_t **tree, uint32_t tag, void *data,
                                  vepra_tree_t **out) noexcept {
  return add(tree, nullptr, Place::kLast, "Unable to append Tree node.", tag, data, out,
             Alloc::kHeap, nullptr);
}

vepra_error_t *vepra_tree_add_after(vepra_tree_t **tree, uint32_t tag, void *data,
                                    vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(tree, nullptr, Place::kAfter, "Unable to add Tree node.", tag, data, out,
             Alloc::kPool, pool);
}

vepra_error_t *vepra_tree_add_before(vepra_tree_t **tree, uint32_t tag, void *data,
                                     vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(tree, nullptr, Place::kBefore, "Unable to add Tree node.", tag, data, out,
             Alloc::kPool, pool);
}

vepra_error_t *vepra_tree_prepend_child(vepra_tree_t *parent, uint32_t tag, void *data,
                                        vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(nullptr, parent, Place::kFirstChild, "Unable to prepend child Tree node.", tag,
             data, out, Alloc::kPool, pool);
}

vepra_error_t *vepra_tree_append_child(vepra_tree_t *parent, uint32_t tag, void *data,
                                       vepra_tree_t **out, apr_pool_t *pool) noexcept {
  return add(nullptr, parent, Place::kLastChild, "Unable to append child Tree node.", tag, data,
             out, Alloc::kPool, pool);
}

vepra_error_t *vepra_treem_append_child(vepra_tree_t *parent, uint32_t tag, void *data,
                                        vepra_tree_t **out) noexcept {
  return add(nullptr, parent, Place::kLastChild, "Unable to append child Tree node.", tag, data,
             out, Alloc::kHeap, nullptr);
}

vepra_tree_t *vepra_tree_get_prev(vepra_tree_t *node) noexcept {
  return node != nullptr ? node->prev : nullptr;
}

vepra_tree_t *vepra_tree_get_next(vepra_tree_t *node) noexcept {
  return node != nullptr ? node->next : nullptr;
}

vepra_tree_t *vepra_tree_get_parent(vepra_tree_t *node) noexcept {
  return node != nullptr ? node->parent : nullptr;
}

vepra_tree_t *vepra_tree_get_child(vepra_tree_t *node) noexcept {
  return node != nullptr ? node->child : nullptr;
}

vepra_tree_t *vepra_tree_get_first(vepra_tree_t *node) noexcept { return chain_first(node); }

vepra_tree_t *vepra_tree_get_last(vepra_tree_t *node) noexcept { return chain_last(node); }

vepra_tree_t *vepra_tree_get_top(vepra_tree_t *node) noexcept {
  if (node == nullptr) return nullptr;
  while (node->parent != nullptr) node = node->parent;
  return node;
}

void *vepra_tree_get_data(vepra_tree_t *node) noexcept {
  return node != nullptr ? node->data : nullptr;
}

void *vepra_tree_get_data_tag(vepra_tree_t *node, uint32_t *tag) noexcept {
  if (node == nullptr) return nullptr;
  if (tag != nullptr) *tag = node->tag;
  return node->data;
}

void vepra_tree_update(vepra_tree_t *node, uint32_t tag, void *data) noexcept {
  if (node == nullptr) return;
  node->tag = tag;
  node->data = data;
}

size_t vepra_tree_count(vepra_tree_t *node) noexcept {
  size_t count = 0;
  traverse(
      node,
      [&](vepra_tree_t *) {
        ++count;
        return false;
      },
      kNoStop);
  return count;
}

vepra_tree_t *vepra_tree_extract(vepra_tree_t *node) noexcept {
  if (node != nullptr) tree_unlink(node);
  return node;
}

void vepra_tree_delete(vepra_tree_t *node) noexcept {
  (void)delete_siblings(node, visit_then(nullptr, nullptr, Alloc::kPool));
}

void vepra_treem_delete(vepra_tree_t *node) noexcept {
  (void)delete_siblings(node, visit_then(nullptr, nullptr, Alloc::kHeap));
}

void vepra_tree_node_delete(vepra_tree_t *node) noexcept {
  (void)delete_subtree(node, visit_then(nullptr, nullptr, Alloc::kPool));
}

void vepra_treem_node_delete(vepra_tree_t *node) noexcept {
  (void)delete_subtree(node, visit_then(nullptr, nullptr, Alloc::kHeap));
}

void vepra_tree_delete_func(vepra_tree_t *node, vepra_tree_delete_fn fn, void *user) noexcept {
  (void)delete_siblings(node, visit_then(fn, user, Alloc::kPool));
}

void vepra_treem_delete_func(vepra_tree_t *node, vepra_tree_delete_fn fn, void *user) noexcept {
  (void)delete_siblings(node, visit_then(fn, user, Alloc::kHeap));
}

void vepra_tree_node_delete_func(vepra_tree_t *node, vepra_tree_delete_fn fn,
                                 void *user) noexcept {
  (void)delete_subtree(node, visit_then(fn, user, Alloc::kPool));
}

vepra_error_t *vepra_tree_delete_errfunc(vepra_tree_t *node, vepra_tree_delete_err_fn fn,
                                         void *user) noexcept {
  return delete_siblings(node, checked(fn, user));
}

vepra_error_t *vepra_tree_node_delete_errfunc(vepra_tree_t *node, vepra_tree_delete_err_fn fn,
                                              void *user) noexcept {
  return delete_subtree(node, checked(fn, user));
}

void vepra_tree_delete_obj_func(vepra_tree_t *node, void *data, vepra_tree_delete_fn fn,
                                void *user) noexcept {
  vepra_tree_node_delete_func(vepra_tree_search_obj(node, data), fn, user);
}

vepra_error_t *vepra_tree_delete_obj_errfunc(vepra_tree_t *node, void *data,
                                             vepra_tree_delete_err_fn fn, void *user) noexcept {
  return vepra_tree_node_delete_errfunc(vepra_tree_search_obj(node, data), fn, user);
}

void vepra_tree_destroy(vepra_tree_t **tree) noexcept {
  if (tree != nullptr) *tree = nullptr;
}

void vepra_treem_destroy(vepra_tree_t **tree) noexcept {
  vepra_treem_destroy_func(tree, nullptr, nullptr);
}

void vepra_treem_destroy_func(vepra_tree_t **tree, vepra_tree_delete_fn fn,
                              void *user) noexcept {
  if (tree == nullptr) return;
  vepra_treem_delete_func(*tree, fn, user);
  *tree = nullptr;
}

vepra_tree_t *vepra_tree_search_obj(vepra_tree_t *node, void *data) noexcept {
  return find_preorder(node, [data](const vepra_tree_t *n) { return n->data == data; });
}

vepra_tree_t *vepra_tree_search_func(vepra_tree_t *node, vepra_walk_int_fn fn,
                                     void *user) noexcept {
  if (fn == nullptr) return nullptr;
  return find_preorder(node,
                       [&](const vepra_tree_t *n) { return fn(n->tag, n->data, user) != 0; });
}

void vepra_tree_walk(vepra_tree_t *node, vepra_walk_fn pre, vepra_walk_fn post,
                     void *user) noexcept {
  walk_tree(node, VisitAll{pre, user}, VisitAll{post, user});
}

int vepra_tree_walk_int_first(vepra_tree_t *node, vepra_walk_int_fn pre, vepra_walk_int_fn post,
                              void *user) noexcept {
  return walk_tree(node, IntFirst{pre, user}, IntFirst{post, user});
}

vepra_error_t *vepra_tree_walk_err_first(vepra_tree_t *node, vepra_walk_err_fn pre,
                                         vepra_walk_err_fn post, void *user) noexcept {
  return walk_tree(node, ErrFirst{pre, user}, ErrFirst{post, user});
}

}  // extern "C"
