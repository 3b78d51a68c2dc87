// Circular slot lists: pool nodes that are marked free and reused instead
// of being removed.
#include <cstdint>

#include "containers/dl_internal.hpp"
#include "containers/links.hpp"
#include "containers/walk.hpp"
#include "core/error_internal.hpp"
#include "vepra_cdl.h"

using namespace vepra::detail;

namespace {

bool occupied(const vepra_dl_t *n) noexcept { return (n->flags & VEPRA_CDL_OCCUPIED) != 0; }

vepra_error_t *add_slot(vepra_dl_t **list, DlPlace place, const char *context, vepra_dl_t **out,
                        uint32_t tag, void *data, apr_pool_t *pool) noexcept {
  return dl_add(list, place, context, out, tag, data, VEPRA_CDL_OCCUPIED, DlAlloc::kPool, pool);
}

// The first slot around the handle that satisfies pred, or null.
template <class Pred>
vepra_dl_t *find_around(vepra_dl_t *node, Pred &&pred) noexcept {
  vepra_dl_t *found = nullptr;
  chain_each_around(node, [&](vepra_dl_t *n) {
    if (pred(n)) found = n;
    return found != nullptr;
  });
  return found;
}

// Visiting orders of the walk family, restricted to occupied slots.
auto occupied_around(vepra_dl_t *node) noexcept {
  return [node](auto &&step) {
    chain_each_around(node, [&](vepra_dl_t *n) { return occupied(n) && step(n->tag, n->data); });
  };
}

auto occupied_in_order(vepra_dl_t *node) noexcept {
  return [node](auto &&step) {
    chain_each(node, [&](vepra_dl_t *n) { return occupied(n) && step(n->tag, n->data); });
  };
}

}  // namespace

extern "C" {

vepra_error_t *vepra_cdl_append(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                                apr_pool_t *pool) noexcept {
  return add_slot(list, DlPlace::kLast, "Unable to append DL object.", out, tag, data, pool);
}

vepra_error_t *vepra_cdl_prepend(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                                 apr_pool_t *pool) noexcept {
  return add_slot(list, DlPlace::kFirst, "Unable to prepend DL object.", out, tag, data, pool);
}

vepra_error_t *vepra_cdl_add(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                             apr_pool_t *pool) noexcept {
  return add_slot(list, DlPlace::kAfter, "Unable to add DL object.", out, tag, data, pool);
}

vepra_error_t *vepra_cdl_insert_before(vepra_dl_t *node, vepra_dl_t *fresh) noexcept {
  return vepra_dl_insert_before(node, fresh);
}

vepra_error_t *vepra_cdl_insert_after(vepra_dl_t *node, vepra_dl_t *fresh) noexcept {
  return vepra_dl_insert_after(node, fresh);
}

vepra_dl_t *vepra_cdl_get_free(vepra_dl_t *node) noexcept {
  return find_around(node, [](const vepra_dl_t *n) { return !occupied(n); });
}

vepra_dl_t *vepra_cdl_get_ready(vepra_dl_t *node) noexcept {
  vepra_dl_t *slot = vepra_cdl_get_free(node);
  vepra_cdl_set_occupied(slot);
  return slot;
}

void vepra_cdl_set_free(vepra_dl_t *node) noexcept {
  if (node != nullptr) node->flags &= ~VEPRA_CDL_OCCUPIED;
}

void vepra_cdl_set_occupied(vepra_dl_t *node) noexcept {
  if (node != nullptr) node->flags |= VEPRA_CDL_OCCUPIED;
}

void vepra_cdl_set_free_obj(vepra_dl_t *node, void *data) noexcept {
  if (data == nullptr) return;
  vepra_cdl_set_free(
      find_around(node, [data](const vepra_dl_t *n) { return occupied(n) && n->data == data; }));
}

void vepra_cdl_set_allfree(vepra_dl_t *node) noexcept {
  chain_each(node, [](vepra_dl_t *n) {
    vepra_cdl_set_free(n);
    return false;
  });
}

void vepra_cdl_destroy(vepra_dl_t **list) noexcept {
  if (list != nullptr) *list = nullptr;
}

vepra_dl_t *vepra_cdl_get_first(vepra_dl_t *node) noexcept { return chain_first(node); }

vepra_dl_t *vepra_cdl_get_last(vepra_dl_t *node) noexcept { return chain_last(node); }

vepra_dl_t *vepra_cdl_get_n(vepra_dl_t *node, size_t n) noexcept {
  vepra_dl_t *found = nullptr;
  chain_each(node, [&](vepra_dl_t *p) {
    if (!occupied(p)) return false;
    if (n-- == 0) found = p;
    return found != nullptr;
  });
  return found;
}

size_t vepra_cdl_count(vepra_dl_t *node) noexcept {
  size_t count = 0;
  chain_each(node, [&](const vepra_dl_t *p) {
    count += occupied(p);
    return false;
  });
  return count;
}

void *vepra_cdl_get_data(vepra_dl_t *node) noexcept {
  return node != nullptr ? node->data : nullptr;
}

void vepra_cdl_set_data(vepra_dl_t *node, void *data) noexcept {
  if (node != nullptr) node->data = data;
}

uint32_t vepra_cdl_get_tag(vepra_dl_t *node) noexcept { return node != nullptr ? node->tag : 0; }

void vepra_cdl_set_tag(vepra_dl_t *node, uint32_t tag) noexcept {
  if (node != nullptr) node->tag = tag;
}

void vepra_cdl_set_data_tag(vepra_dl_t *node, void *data, uint32_t tag) noexcept {
  vepra_cdl_set_data(node, data);
  vepra_cdl_set_tag(node, tag);
}

void vepra_cdl_walk(vepra_dl_t *node, vepra_walk_fn fn, void *user) noexcept {
  walk(occupied_around(node), fn, user);
}

void vepra_cdl_flwalk(vepra_dl_t *node, vepra_walk_fn fn, void *user) noexcept {
  walk(occupied_in_order(node), fn, user);
}

int vepra_cdl_walk_int_first(vepra_dl_t *node, vepra_walk_int_fn fn, void *user) noexcept {
  return walk_int_first(occupied_around(node), fn, user);
}

void *vepra_cdl_walk_ptr_first(vepra_dl_t *node, vepra_walk_ptr_fn fn, void *user) noexcept {
  return walk_ptr_first(occupied_around(node), fn, user);
}

vepra_error_t *vepra_cdl_walk_err_first(vepra_dl_t *node, vepra_walk_err_fn fn,
                                        void *user) noexcept {
  return walk_err_first(occupied_around(node), fn, user);
}

vepra_error_t *vepra_cdl_walk_err_or_ptr_first(vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn,
                                               void *user, void **result) noexcept {
  return walk_err_or_ptr_first(occupied_around(node), fn, user, result);
}

vepra_error_t *vepra_cdl_flwalk_err_first(vepra_dl_t *node, vepra_walk_err_fn fn,
                                          void *user) noexcept {
  return walk_err_first(occupied_in_order(node), fn, user);
}

vepra_error_t *vepra_cdl_flwalk_err_or_ptr_first(vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn,
                                                 void *user, void **result) noexcept {
  return walk_err_or_ptr_first(occupied_in_order(node), fn, user, result);
}

void vepra_cdl_walk_free(vepra_dl_t *node, vepra_walk_int_fn fn, void *user) noexcept {
  if (fn == nullptr) return;
  chain_each_around(node, [&](vepra_dl_t *n) {
    if (occupied(n) && fn(n->tag, n->data, user) != 0) vepra_cdl_set_free(n);
    return false;
  });
}

vepra_dl_t *vepra_cdl_walk_node_first(vepra_dl_t *node, vepra_walk_int_fn fn,
                                      void *user) noexcept {
  if (fn == nullptr) return nullptr;
  return find_around(node,
                     [&](const vepra_dl_t *n) { return occupied(n) && fn(n->tag, n->data, user); });
}

}  // extern "C"
