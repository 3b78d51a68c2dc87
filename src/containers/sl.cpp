// Singly linked lists of pool nodes, counted stacks on top of them, and
// their walks.
#include <cstdint>

#include "containers/walk.hpp"
#include "core/error_internal.hpp"
#include "core/testing.hpp"
#include "vepra_sl.h"

using namespace vepra::detail;

namespace {

constexpr const char *kPush = "Can't push object to stack.";
constexpr const char *kCopy = "Can't copy stack.";

// Memory from the pool, or null when there is none. The request takes part
// in the fault-injection schedule of the checked allocations, so that the
// tests can make a pool run dry.
void *pool_block(apr_pool_t *pool, size_t size) noexcept {
  if (pool == nullptr || allocation_should_fail()) return nullptr;
  return apr_pcalloc(pool, size);
}

// A fresh free-standing node, or 120140 when the pool gives none.
vepra_error_t *new_node(uint32_t tag, void *data, apr_pool_t *pool, vepra_sl_t **out) noexcept {
  auto *node = static_cast<vepra_sl_t *>(pool_block(pool, sizeof(vepra_sl_t)));
  if (node == nullptr) return make_error(VEPRA_E_SL_ALLOC);
  node->tag = tag;
  node->data = data;
  *out = node;
  return nullptr;
}

// Links a new node into the place that where() picks in a non-empty list;
// an empty list takes it as its first node.
template <class Where>
vepra_error_t *add_node(vepra_sl_t **list, uint32_t tag, void *data, apr_pool_t *pool,
                        Where &&where) noexcept {
  if (list == nullptr) return make_error(VEPRA_E_SL_ALLOC);
  vepra_sl_t *fresh = nullptr;
  if (vepra_error_t *e = new_node(tag, data, pool, &fresh)) return e;
  vepra_sl_t **slot = *list == nullptr ? list : where(*list);
  fresh->next = *slot;
  *slot = fresh;
  return nullptr;
}

// The visiting order of the walk family: from node forward to the end.
auto forward_from(vepra_sl_t *node) noexcept {
  return [node](auto &&step) {
    for (vepra_sl_t *p = node; p != nullptr; p = p->next) {
      if (step(p->tag, p->data)) return;
    }
  };
}

vepra_sl_t *top_of(vepra_stk_t *stack) noexcept { return stack != nullptr ? stack->top : nullptr; }

}  // namespace

extern "C" {

vepra_error_t *vepra_sl_front(vepra_sl_t **list, uint32_t tag, void *data,
                              apr_pool_t *pool) noexcept {
  return add_node(list, tag, data, pool, [list](vepra_sl_t *) { return list; });
}

vepra_error_t *vepra_sl_append(vepra_sl_t **list, uint32_t tag, void *data,
                               apr_pool_t *pool) noexcept {
  return add_node(list, tag, data, pool, [](vepra_sl_t *first) {
    vepra_sl_t *last = first;
    while (last->next != nullptr) last = last->next;
    return &last->next;
  });
}

vepra_error_t *vepra_sl_add(vepra_sl_t **list, uint32_t tag, void *data,
                            apr_pool_t *pool) noexcept {
  return add_node(list, tag, data, pool, [](vepra_sl_t *first) { return &first->next; });
}

void vepra_sl_update(vepra_sl_t *node, uint32_t tag, void *data) noexcept {
  if (node == nullptr) return;
  node->tag = tag;
  node->data = data;
}

void *vepra_sl_get_data(const vepra_sl_t *node) noexcept {
  return node != nullptr ? node->data : nullptr;
}

void *vepra_sl_get_data_tag(const vepra_sl_t *node, uint32_t *tag) noexcept {
  if (node == nullptr) return nullptr;
  if (tag != nullptr) *tag = node->tag;
  return node->data;
}

vepra_sl_t *vepra_sl_get_n(vepra_sl_t *node, size_t n) noexcept {
  for (; node != nullptr && n > 0; --n) node = node->next;
  return node;
}

void vepra_sl_delete_next(vepra_sl_t *node) noexcept {
  if (node == nullptr || node->next == nullptr) return;
  vepra_sl_t *gone = node->next;
  node->next = gone->next;
  gone->next = nullptr;
}

void vepra_sl_destroy(vepra_sl_t **list) noexcept {
  if (list != nullptr) *list = nullptr;
}

void vepra_sl_walk(vepra_sl_t *node, vepra_walk_fn fn, void *user) noexcept {
  walk(forward_from(node), fn, user);
}

int vepra_sl_walk_int_first(vepra_sl_t *node, vepra_walk_int_fn fn, void *user) noexcept {
  return walk_int_first(forward_from(node), fn, user);
}

void *vepra_sl_walk_ptr_first(vepra_sl_t *node, vepra_walk_ptr_fn fn, void *user) noexcept {
  return walk_ptr_first(forward_from(node), fn, user);
}

vepra_error_t *vepra_sl_walk_err_first(vepra_sl_t *node, vepra_walk_err_fn fn,
                                       void *user) noexcept {
  return walk_err_first(forward_from(node), fn, user);
}

vepra_error_t *vepra_stk_create(vepra_stk_t **out, apr_pool_t *pool) noexcept {
  auto *stack = static_cast<vepra_stk_t *>(pool_block(pool, sizeof(vepra_stk_t)));
  if (stack == nullptr) {
    return make_error(VEPRA_E_ALLOC, "Failed to allocate %zu bytes of memory.",
                      sizeof(vepra_stk_t));
  }
  if (out != nullptr) *out = stack;
  return nullptr;
}

vepra_error_t *vepra_stk_push(vepra_stk_t *stack, uint32_t tag, void *data,
                              apr_pool_t *pool) noexcept {
  VEPRA_RETURN_IF_ERROR(vepra_sl_front(stack != nullptr ? &stack->top : nullptr, tag, data, pool),
                        "%s", kPush);
  ++stack->count;
  return nullptr;
}

void *vepra_stk_pop(vepra_stk_t *stack) noexcept {
  if (stack == nullptr || stack->count == 0 || stack->top == nullptr) return nullptr;
  vepra_sl_t *top = stack->top;
  stack->top = top->next;
  --stack->count;
  return top->data;
}

void *vepra_stk_get_data(const vepra_stk_t *stack, uint32_t *tag) noexcept {
  if (stack == nullptr || stack->count == 0) return nullptr;
  return vepra_sl_get_data_tag(stack->top, tag);
}

uint64_t vepra_stk_count(const vepra_stk_t *stack) noexcept {
  return stack != nullptr ? stack->count : 0;
}

void vepra_stk_destroy(vepra_stk_t *stack) noexcept {
  if (stack == nullptr) return;
  stack->top = nullptr;
  stack->count = 0;
}

vepra_error_t *vepra_stk_copy(const vepra_stk_t *source, vepra_stk_t **out,
                              apr_pool_t *pool) noexcept {
  vepra_stk_t *copy = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_stk_create(&copy, pool), "%s", kCopy);
  if (out != nullptr) *out = copy;
  // Appending at the end of the copy in source order, top first; the copy
  // keeps its own end so that the whole copy is linear.
  vepra_sl_t **end = &copy->top;
  for (const vepra_sl_t *p = source != nullptr ? source->top : nullptr; p != nullptr; p = p->next) {
    VEPRA_RETURN_IF_ERROR(vepra_sl_append(end, p->tag, p->data, pool), "%s", kCopy);
    ++copy->count;
    end = &(*end)->next;
  }
  return nullptr;
}

void vepra_stk_walk(vepra_stk_t *stack, vepra_walk_fn fn, void *user) noexcept {
  vepra_sl_walk(top_of(stack), fn, user);
}

void *vepra_stk_walk_ptr_first(vepra_stk_t *stack, vepra_walk_ptr_fn fn, void *user) noexcept {
  return vepra_sl_walk_ptr_first(top_of(stack), fn, user);
}

vepra_error_t *vepra_stk_walk_err_first(vepra_stk_t *stack, vepra_walk_err_fn fn,
                                        void *user) noexcept {
  return vepra_sl_walk_err_first(top_of(stack), fn, user);
}

}  // extern "C"
