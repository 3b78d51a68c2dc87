// Doubly linked lists in both flavours (pool nodes and heap nodes), and
// their walks.
#include <cstdint>

#include "containers/dl_internal.hpp"
#include "containers/links.hpp"
#include "containers/node_source.hpp"
#include "containers/walk.hpp"
#include "core/error_internal.hpp"
#include "vepra_dl.h"
#include "vepra_mem.h"

namespace vepra::detail {
namespace {

vepra_error_t *invalid_insert() noexcept { return make_error(VEPRA_E_DL_INSERT); }

vepra_error_t *new_node(uint32_t tag, void *data, NodeSource source, vepra_dl_t **out) noexcept {
  if (out == nullptr || (!source.heap && source.pool == nullptr)) return invalid_insert();
  void *block = nullptr;
  if (vepra_error_t *e = source.alloc(sizeof(vepra_dl_t), &block)) {
    return source.heap ? wrap_error(e, "Can't allocate memory for dlm node.") : e;
  }
  auto *node = static_cast<vepra_dl_t *>(block);
  *node = vepra_dl_t{tag, 0, nullptr, nullptr, data};
  *out = node;
  return nullptr;
}

NodeSource source_of(DlAlloc alloc, apr_pool_t *pool) noexcept {
  return NodeSource{pool, alloc == DlAlloc::kHeap};
}

vepra_error_t *link_at(vepra_dl_t **list, DlPlace place, vepra_dl_t *fresh) noexcept {
  if (*list == nullptr) {
    *list = fresh;
    return nullptr;
  }
  switch (place) {
    case DlPlace::kFirst: return vepra_dl_insert_before(chain_first(*list), fresh);
    case DlPlace::kLast: return vepra_dl_insert_after(chain_last(*list), fresh);
    case DlPlace::kAfter: return vepra_dl_insert_after(*list, fresh);
    case DlPlace::kBefore: return vepra_dl_insert_before(*list, fresh);
  }
  return invalid_insert();
}

// Takes the first node from the head whose data is data out of the list,
// moving the handle off it first. Null when nothing matches.
vepra_dl_t *take_obj(vepra_dl_t **list, void *data) noexcept {
  if (list == nullptr || *list == nullptr || data == nullptr) return nullptr;
  vepra_dl_t *found = nullptr;
  chain_each(*list, [&](vepra_dl_t *n) {
    if (n->data == data) found = n;
    return found != nullptr;
  });
  if (found == nullptr) return nullptr;
  if (found == *list) *list = found->next != nullptr ? found->next : found->prev;
  chain_unlink(found);
  return found;
}

// Takes every node out of the list, predecessors of the handle's node first
// (backwards), then the handle's node and its successors (forwards), and
// hands each unlinked node to dispose. The handle always names the next
// node of the forward part. The first error from dispose stops the work and
// is returned.
template <class Dispose>
vepra_error_t *destroy_chain(vepra_dl_t **list, Dispose &&dispose) noexcept {
  if (list == nullptr || *list == nullptr) return nullptr;
  vepra_dl_t *handle = *list;
  for (vepra_dl_t *p = handle->prev; p != nullptr;) {
    vepra_dl_t *prev = p->prev;
    chain_unlink(p);
    if (vepra_error_t *e = dispose(p)) return e;
    p = prev;
  }
  for (vepra_dl_t *p = handle; p != nullptr;) {
    vepra_dl_t *next = p->next;
    chain_unlink(p);
    *list = next;
    if (vepra_error_t *e = dispose(p)) return e;
    p = next;
  }
  return nullptr;
}

void visit(vepra_walk_fn fn, vepra_dl_t *node, void *user) noexcept {
  if (fn != nullptr) fn(node->tag, node->data, user);
}

// The dl visiting order for the walk family: first to last.
auto in_list_order(vepra_dl_t *node) noexcept {
  return [node](auto &&step) {
    chain_each(node, [&](vepra_dl_t *n) { return step(n->tag, n->data); });
  };
}

}  // namespace

vepra_error_t *dl_add(vepra_dl_t **list, DlPlace place, const char *context, vepra_dl_t **out,
                      uint32_t tag, void *data, uint32_t flags, DlAlloc alloc,
                      apr_pool_t *pool) noexcept {
  if (list == nullptr) return wrap_error(invalid_insert(), "%s", context);
  vepra_dl_t *fresh = nullptr;
  const NodeSource source = source_of(alloc, pool);
  VEPRA_RETURN_IF_ERROR(new_node(tag, data, source, &fresh), "%s", context);
  fresh->flags = flags;
  if (vepra_error_t *e = link_at(list, place, fresh)) {
    source.release(fresh);
    return wrap_error(e, "%s", context);
  }
  if (out != nullptr) *out = fresh;
  return nullptr;
}

}  // namespace vepra::detail

using namespace vepra::detail;

namespace {
constexpr const char *kPrepend = "Unable to prepend DL object.";
constexpr const char *kAppend = "Unable to append DL object.";
constexpr const char *kAdd = "Unable to add DL node.";
}  // namespace

extern "C" {

vepra_error_t *vepra_dl_create(uint32_t tag, void *data, vepra_dl_t **out,
                               apr_pool_t *pool) noexcept {
  return new_node(tag, data, source_of(DlAlloc::kPool, pool), out);
}

vepra_error_t *vepra_dlm_create(uint32_t tag, void *data, vepra_dl_t **out) noexcept {
  return new_node(tag, data, source_of(DlAlloc::kHeap, nullptr), out);
}

vepra_error_t *vepra_dl_insert_before(vepra_dl_t *node, vepra_dl_t *fresh) noexcept {
  if (!chain_can_link(node, fresh)) return invalid_insert();
  chain_link_before(node, fresh);
  return nullptr;
}

vepra_error_t *vepra_dl_insert_after(vepra_dl_t *node, vepra_dl_t *fresh) noexcept {
  if (!chain_can_link(node, fresh)) return invalid_insert();
  chain_link_after(node, fresh);
  return nullptr;
}

vepra_error_t *vepra_dl_prepend(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                                apr_pool_t *pool) noexcept {
  return dl_add(list, DlPlace::kFirst, kPrepend, out, tag, data, 0, DlAlloc::kPool, pool);
}

vepra_error_t *vepra_dl_append(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                               apr_pool_t *pool) noexcept {
  return dl_add(list, DlPlace::kLast, kAppend, out, tag, data, 0, DlAlloc::kPool, pool);
}

vepra_error_t *vepra_dl_add_after(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                                  apr_pool_t *pool) noexcept {
  return dl_add(list, DlPlace::kAfter, kAdd, out, tag, data, 0, DlAlloc::kPool, pool);
}

vepra_error_t *vepra_dl_add_before(vepra_dl_t **list, uint32_t tag, void *data, vepra_dl_t **out,
                                   apr_pool_t *pool) noexcept {
  return dl_add(list, DlPlace::kBefore, kAdd, out, tag, data, 0, DlAlloc::kPool, pool);
}

vepra_error_t *vepra_dlm_prepend(vepra_dl_t **list, uint32_t tag, void *data,
                                 vepra_dl_t **out) noexcept {
  return dl_add(list, DlPlace::kFirst, kPrepend, out, tag, data, 0, DlAlloc::kHeap, nullptr);
}

vepra_error_t *vepra_dlm_append(vepra_dl_t **list, uint32_t tag, void *data,
                                vepra_dl_t **out) noexcept {
  return dl_add(list, DlPlace::kLast, kAppend, out, tag, data, 0, DlAlloc::kHeap, nullptr);
}

vepra_error_t *vepra_dlm_add_after(vepra_dl_t **list, uint32_t tag, void *data,
                                   vepra_dl_t **out) noexcept {
  return dl_add(list, DlPlace::kAfter, kAdd, out, tag, data, 0, DlAlloc::kHeap, nullptr);
}

vepra_error_t *vepra_dlm_add_before(vepra_dl_t **list, uint32_t tag, void *data,
                                    vepra_dl_t **out) noexcept {
  return dl_add(list, DlPlace::kBefore, kAdd, out, tag, data, 0, DlAlloc::kHeap, nullptr);
}

vepra_dl_t *vepra_dl_get_first(vepra_dl_t *node) noexcept { return chain_first(node); }

vepra_dl_t *vepra_dl_get_last(vepra_dl_t *node) noexcept { return chain_last(node); }

vepra_dl_t *vepra_dl_get_prev(vepra_dl_t *node) noexcept {
  return node != nullptr ? node->prev : nullptr;
}

vepra_dl_t *vepra_dl_get_next(vepra_dl_t *node) noexcept {
  return node != nullptr ? node->next : nullptr;
}

void *vepra_dl_get_data(vepra_dl_t *node) noexcept {
  return node != nullptr ? node->data : nullptr;
}

void *vepra_dl_get_data_tag(vepra_dl_t *node, uint32_t *tag) noexcept {
  if (node == nullptr) return nullptr;
  if (tag != nullptr) *tag = node->tag;
  return node->data;
}

void vepra_dl_update(vepra_dl_t *node, uint32_t tag, void *data) noexcept {
  if (node == nullptr) return;
  node->tag = tag;
  node->data = data;
}

vepra_dl_t *vepra_dl_get_n(vepra_dl_t *node, size_t n) noexcept {
  vepra_dl_t *p = chain_first(node);
  for (; p != nullptr && n > 0; --n) p = p->next;
  return p;
}

size_t vepra_dl_count(vepra_dl_t *node) noexcept { return chain_count(node); }

vepra_dl_t *vepra_dl_extract(vepra_dl_t *node) noexcept {
  if (node != nullptr) chain_unlink(node);
  return node;
}

void vepra_dl_delete(vepra_dl_t *node) noexcept { vepra_dl_extract(node); }

void vepra_dlm_delete(vepra_dl_t *node) noexcept { vepra_mem_free(vepra_dl_extract(node)); }

void vepra_dl_delete_func(vepra_dl_t *node, vepra_walk_fn fn, void *user) noexcept {
  if (node == nullptr) return;
  chain_unlink(node);
  visit(fn, node, user);
}

void vepra_dlm_delete_func(vepra_dl_t *node, vepra_walk_fn fn, void *user) noexcept {
  vepra_dl_delete_func(node, fn, user);
  vepra_mem_free(node);
}

vepra_error_t *vepra_dl_delete_errfunc(vepra_dl_t *node, vepra_walk_err_fn fn,
                                       void *user) noexcept {
  if (node == nullptr) return nullptr;
  chain_unlink(node);
  return fn != nullptr ? fn(node->tag, node->data, user) : nullptr;
}

void vepra_dl_delete_obj(vepra_dl_t **list, void *data) noexcept { take_obj(list, data); }

void vepra_dlm_delete_obj(vepra_dl_t **list, void *data) noexcept {
  vepra_mem_free(take_obj(list, data));
}

void vepra_dl_delete_obj_func(vepra_dl_t **list, void *data, vepra_walk_fn fn,
                              void *user) noexcept {
  if (vepra_dl_t *node = take_obj(list, data)) visit(fn, node, user);
}

vepra_error_t *vepra_dl_delete_obj_errfunc(vepra_dl_t **list, void *data, vepra_walk_err_fn fn,
                                           void *user) noexcept {
  vepra_dl_t *node = take_obj(list, data);
  if (node == nullptr || fn == nullptr) return nullptr;
  return fn(node->tag, node->data, user);
}

void vepra_dl_destroy(vepra_dl_t **list) noexcept {
  if (list != nullptr) *list = nullptr;
}

void vepra_dlm_destroy(vepra_dl_t **list) noexcept { vepra_dlm_destroy_func(list, nullptr, nullptr); }

void vepra_dl_destroy_func(vepra_dl_t **list, vepra_walk_fn fn, void *user) noexcept {
  (void)destroy_chain(list, [&](vepra_dl_t *n) -> vepra_error_t * {
    visit(fn, n, user);
    return nullptr;
  });
}

void vepra_dlm_destroy_func(vepra_dl_t **list, vepra_walk_fn fn, void *user) noexcept {
  (void)destroy_chain(list, [&](vepra_dl_t *n) -> vepra_error_t * {
    visit(fn, n, user);
    vepra_mem_free(n);
    return nullptr;
  });
}

vepra_error_t *vepra_dl_destroy_errfunc(vepra_dl_t **list, vepra_walk_err_fn fn,
                                        void *user) noexcept {
  return destroy_chain(list, [&](vepra_dl_t *n) -> vepra_error_t * {
    if (fn == nullptr) return nullptr;
    if (vepra_error_t *e = fn(n->tag, n->data, user)) {
      return wrap_error(e, "Error while destroy DL List.");
    }
    return nullptr;
  });
}

vepra_error_t *vepra_dl_exchange(vepra_dl_t *a, vepra_dl_t *b) noexcept {
  if (a == nullptr || b == nullptr) return make_error(VEPRA_E_DL_EXCHANGE);
  if (a == b) return nullptr;
  if (a->next == b) {
    chain_unlink(a);
    chain_link_after(b, a);
    return nullptr;
  }
  if (b->next == a) {
    chain_unlink(b);
    chain_link_after(a, b);
    return nullptr;
  }
  vepra_dl_t *a_prev = a->prev, *a_next = a->next;
  vepra_dl_t *b_prev = b->prev, *b_next = b->next;
  chain_unlink(a);
  chain_unlink(b);
  VEPRA_RETURN_IF_ERROR(b_prev != nullptr ? vepra_dl_insert_after(b_prev, a)
                                          : vepra_dl_insert_before(b_next, a),
                        "Unable to exchange DL nodes.");
  VEPRA_RETURN_IF_ERROR(a_prev != nullptr ? vepra_dl_insert_after(a_prev, b)
                                          : vepra_dl_insert_before(a_next, b),
                        "Unable to exchange DL nodes.");
  return nullptr;
}

vepra_dl_t *vepra_dl_join(vepra_dl_t *a, vepra_dl_t *b) noexcept {
  vepra_dl_t *first_a = chain_first(a);
  vepra_dl_t *first_b = chain_first(b);
  // Joining a chain to itself would close it into a ring.
  if (first_a == nullptr || first_b == nullptr || first_a == first_b) return first_a;
  vepra_dl_t *last_a = chain_last(a);
  last_a->next = first_b;
  first_b->prev = last_a;
  return first_a;
}

vepra_error_t *vepra_dl_bubsort(vepra_dl_t *node, vepra_dl_cmp_fn cmp, void *user) noexcept {
  if (cmp == nullptr || chain_count(node) < 2) return nullptr;
  for (vepra_dl_t *p = chain_first(node); p != nullptr; p = p->next) {
    for (vepra_dl_t *c = p->next; c != nullptr;) {
      if (cmp(p->tag, p->data, c->tag, c->data, user) > 0) {
        VEPRA_RETURN_IF_ERROR(vepra_dl_exchange(p, c), "Can't sort dllist.");
        // c now holds p's position; the scan goes on after p's new place.
        vepra_dl_t *moved = p;
        p = c;
        c = moved->next;
      } else {
        c = c->next;
      }
    }
  }
  return nullptr;
}

int vepra_hook_bubsort_callback(uint32_t, void *data_a, uint32_t, void *data_b,
                                void *) noexcept {
  if (data_a == nullptr || data_b == nullptr) {
    return (data_a != nullptr) - (data_b != nullptr);
  }
  int32_t a = static_cast<const vepra_hook_t *>(data_a)->order;
  int32_t b = static_cast<const vepra_hook_t *>(data_b)->order;
  return (a > b) - (a < b);
}

void vepra_dl_walk(vepra_dl_t *node, vepra_walk_fn fn, void *user) noexcept {
  walk(in_list_order(node), fn, user);
}

void vepra_dl_dwalk(vepra_dl_t **list, vepra_walk_int_fn fn, void *user) noexcept {
  if (list == nullptr || fn == nullptr) return;
  vepra_dl_t *p = chain_first(*list);
  *list = nullptr;
  while (p != nullptr) {
    vepra_dl_t *next = p->next;
    if (fn(p->tag, p->data, user) != 0) {
      chain_unlink(p);
    } else if (*list == nullptr) {
      *list = p;
    }
    p = next;
  }
}

int vepra_dl_walk_int_first(vepra_dl_t *node, vepra_walk_int_fn fn, void *user) noexcept {
  return walk_int_first(in_list_order(node), fn, user);
}

void *vepra_dl_walk_ptr_first(vepra_dl_t *node, vepra_walk_ptr_fn fn, void *user) noexcept {
  return walk_ptr_first(in_list_order(node), fn, user);
}

vepra_error_t *vepra_dl_walk_err_first(vepra_dl_t *node, vepra_walk_err_fn fn,
                                       void *user) noexcept {
  return walk_err_first(in_list_order(node), fn, user);
}

vepra_error_t *vepra_dl_walk_err_or_ptr_first(vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn,
                                              void *user, void **result) noexcept {
  return walk_err_or_ptr_first(in_list_order(node), fn, user, result);
}

vepra_error_t *vepra_dl_mwalk_err_first(vepra_dl_t *const *handles, size_t n,
                                        vepra_dl_mwalk_fn fn, void *user) noexcept {
  if (n == 0 || handles == nullptr || fn == nullptr) return nullptr;
  if (n > SIZE_MAX / sizeof(void *)) {
    return alloc_error(SIZE_MAX);
  }
  void *blocks[3] = {nullptr, nullptr, nullptr};
  const size_t sizes[3] = {n * sizeof(vepra_dl_t *), n * sizeof(uint32_t), n * sizeof(void *)};
  for (int i = 0; i < 3; ++i) {
    if (vepra_error_t *e = vepra_mem_malloc(sizes[i], &blocks[i])) {
      for (int j = 0; j < i; ++j) vepra_mem_free(blocks[j]);
      return e;
    }
  }
  auto *current = static_cast<vepra_dl_t **>(blocks[0]);
  auto *tags = static_cast<uint32_t *>(blocks[1]);
  auto *data = static_cast<void **>(blocks[2]);
  for (size_t i = 0; i < n; ++i) current[i] = chain_first(handles[i]);

  vepra_error_t *result = nullptr;
  for (;;) {
    size_t live = 0;
    for (size_t i = 0; i < n; ++i) {
      tags[i] = current[i] != nullptr ? current[i]->tag : 0;
      data[i] = current[i] != nullptr ? current[i]->data : nullptr;
      live += current[i] != nullptr;
    }
    if (live == 0) break;
    result = fn(n, tags, data, user);
    if (result != nullptr) break;
    for (size_t i = 0; i < n; ++i) {
      if (current[i] != nullptr) current[i] = current[i]->next;
    }
  }
  for (void *block : blocks) vepra_mem_free(block);
  return result == VepraDLlistStopWalking ? nullptr : result;
}

}  // extern "C"
