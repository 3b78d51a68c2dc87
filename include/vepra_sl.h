/**
 * @file vepra_sl.h
 * @brief Singly linked lists of pool nodes, and counted stacks built on
 *        them.
 *
 * A list is a caller's vepra_sl_t pointer variable naming its first node
 * (null is the empty list). There is no rewinding: every operation works
 * forward from the node it is given. Nodes come from a caller's APR pool and
 * are never freed one by one; lists never own the data pointers they carry.
 *
 * A stack's top is the first node of an ordinary list (the first field of
 * the stack record), so the list accessors and walks serve its elements.
 *
 * Null nodes and stacks are accepted quietly by accessors, walks and
 * deletions. Walk callbacks and stop rules are the walk family of
 * vepra_dl.h.
 */
#ifndef VEPRA_SL_H
#define VEPRA_SL_H

#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** One list node. */
typedef struct vepra_sl_t {
  uint32_t tag;            /**< caller's tag, never interpreted */
  uint32_t reserved;       /**< zero */
  struct vepra_sl_t *next; /**< following node, null at the end */
  void *data;              /**< caller's data, never owned */
} vepra_sl_t;

/** A stack: the top node of its list and the number of elements. Made in
 *  a pool by vepra_stk_create(). */
typedef struct vepra_stk_t {
  vepra_sl_t *top; /**< top of the stack, first node of its list */
  uint64_t count;  /**< number of elements */
} vepra_stk_t;

/** @name Adding nodes
 *  The new node comes from pool. When no node can be had (a failing or null
 *  pool, or a null list address) the result is 120140 "Can't allocate
 *  memory for sllist node." and the list is unchanged.
 *  @{ */
/** Makes the new node the first one.
 *  @param[in,out] list address of the list variable; set to the new
 *                 node
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param pool the pool the node comes from
 *  @return null on success, or the error record (code VEPRA_E_SL_ALLOC) */
VEPRA_API vepra_error_t *vepra_sl_front(vepra_sl_t **list, uint32_t tag,
                                        void *data, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Puts the new node after the last one (walks to the end); on an empty
 *  list it becomes the first.
 *  @param[in,out] list address of the list variable; set when the list
 *                 was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param pool the pool the node comes from
 *  @return null on success, or the error record (code VEPRA_E_SL_ALLOC) */
VEPRA_API vepra_error_t *vepra_sl_append(vepra_sl_t **list, uint32_t tag,
                                         void *data, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** On an empty list the new node becomes the first; otherwise it goes
 *  directly after the first node, so nodes added one after another stand
 *  behind the head in reverse order.
 *  @param[in,out] list address of the list variable; set when the list
 *                 was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param pool the pool the node comes from
 *  @return null on success, or the error record (code VEPRA_E_SL_ALLOC) */
VEPRA_API vepra_error_t *vepra_sl_add(vepra_sl_t **list, uint32_t tag,
                                      void *data, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** @} */

/** @name Access and removal (null nodes give null or do nothing)
 *  @{ */
/** Overwrites the node's tag and data.
 *  @param node the node, or null
 *  @param tag the new tag
 *  @param data the new data pointer (not owned) */
VEPRA_API void vepra_sl_update(vepra_sl_t *node, uint32_t tag, void *data)
    VEPRA_NOTHROW;
/** The node's data pointer.
 *  @param node the node, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_sl_get_data(const vepra_sl_t *node) VEPRA_NOTHROW;
/** The node's data pointer; stores its tag in *tag when tag is not null
 *  (a null node leaves *tag untouched).
 *  @param node the node, or null
 *  @param[out] tag receives the node's tag, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_sl_get_data_tag(const vepra_sl_t *node, uint32_t *tag)
    VEPRA_NOTHROW;
/** The node n places after node (n = 0: node itself); null past the end.
 *  @param node the starting node, or null
 *  @param n number of steps forward
 *  @return the node reached, or null */
VEPRA_API vepra_sl_t *vepra_sl_get_n(vepra_sl_t *node, size_t n)
    VEPRA_NOTHROW;
/** Unlinks the node that follows node (nothing is freed); nothing at the
 *  end of the list.
 *  @param node the node before the one to unlink, or null */
VEPRA_API void vepra_sl_delete_next(vepra_sl_t *node) VEPRA_NOTHROW;
/** Sets the list variable to null; the nodes stay in their pool.
 *  @param[out] list address of the list variable, or null */
VEPRA_API void vepra_sl_destroy(vepra_sl_t **list) VEPRA_NOTHROW;
/** @} */

/** @name Walks from node forward to the end of the list
 *  @{ */
/** Calls fn on every node from node on.
 *  @param node the first node to visit, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_sl_walk(vepra_sl_t *node, vepra_walk_fn fn, void *user)
    VEPRA_NOTHROW;
/** Calls fn until it returns non-zero; returns that value, or 0.
 *  @param node the first node to visit, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-zero result, or 0 */
VEPRA_API int vepra_sl_walk_int_first(vepra_sl_t *node, vepra_walk_int_fn fn,
                                      void *user) VEPRA_NOTHROW;
/** Calls fn until it returns non-null; returns that pointer, or null.
 *  @param node the first node to visit, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-null result, or null */
VEPRA_API void *vepra_sl_walk_ptr_first(vepra_sl_t *node,
                                        vepra_walk_ptr_fn fn, void *user)
    VEPRA_NOTHROW;
/** Calls fn until it returns an error and returns that chain unchanged
 *  (VepraDLlistStopWalking included), or null.
 *  @param node the first node to visit, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_sl_walk_err_first(vepra_sl_t *node,
                                                 vepra_walk_err_fn fn,
                                                 void *user) VEPRA_NOTHROW;
/** @} */

/** @name Stacks
 *  @{ */
/** Makes an empty stack in pool (it lives as long as the pool). Errors:
 *  120012 when the pool gives no memory (or is null); *out is then
 *  untouched.
 *  @param[out] out the new stack, or null (the stack is still made)
 *  @param pool the pool the stack and its nodes live in
 *  @return null on success, or the error record (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_stk_create(vepra_stk_t **out, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Pushes an element (a new top node from pool); the count grows by one.
 *  Errors: 120140 wrapped by "Can't push object to stack." (also for a
 *  null stack); the stack is then unchanged.
 *  @param stack the stack
 *  @param tag the element's tag
 *  @param data the element's data pointer (not owned; null allowed)
 *  @param pool the pool the new node comes from, normally the stack's
 *  @return null on success, or the error chain (code VEPRA_E_SL_ALLOC) */
VEPRA_API vepra_error_t *vepra_stk_push(vepra_stk_t *stack, uint32_t tag,
                                        void *data, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Removes the top element and returns its data pointer (its tag is lost);
 *  an empty or null stack gives null and is not changed.
 *  @param stack the stack, or null
 *  @return the popped data pointer, or null (also for a null element) */
VEPRA_API void *vepra_stk_pop(vepra_stk_t *stack) VEPRA_NOTHROW;
/** The top element's data pointer, and its tag in *tag when tag is not
 *  null, without popping; null (and *tag untouched) when empty.
 *  @param stack the stack, or null
 *  @param[out] tag receives the top element's tag, or null
 *  @return the top data pointer, or null */
VEPRA_API void *vepra_stk_get_data(const vepra_stk_t *stack, uint32_t *tag)
    VEPRA_NOTHROW;
/** Number of elements; 0 for null.
 *  @param stack the stack, or null
 *  @return the element count */
VEPRA_API uint64_t vepra_stk_count(const vepra_stk_t *stack) VEPRA_NOTHROW;
/** Empties the stack (the record stays in its pool).
 *  @param stack the stack, or null */
VEPRA_API void vepra_stk_destroy(vepra_stk_t *stack) VEPRA_NOTHROW;
/** Copies source into a new stack made in pool, with the same elements in
 *  the same order; a null source gives an empty copy. Errors: the failure
 *  of vepra_stk_create() or 120140, wrapped by "Can't copy stack."; after a
 *  failing element *out holds the partial copy (elements copied so far,
 *  from the top, with their count).
 *  @param source the stack to copy, or null
 *  @param[out] out the copy, or null (the copy is still made)
 *  @param pool the pool the copy and its nodes live in
 *  @return null on success, or the error chain (codes VEPRA_E_ALLOC,
 *          VEPRA_E_SL_ALLOC) */
VEPRA_API vepra_error_t *vepra_stk_copy(const vepra_stk_t *source,
                                        vepra_stk_t **out, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Walks from the top down; a null stack is an empty walk.
 *  @param stack the stack, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_stk_walk(vepra_stk_t *stack, vepra_walk_fn fn,
                              void *user) VEPRA_NOTHROW;
/** Walks from the top down until fn returns non-null.
 *  @param stack the stack, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-null result, or null */
VEPRA_API void *vepra_stk_walk_ptr_first(vepra_stk_t *stack,
                                         vepra_walk_ptr_fn fn, void *user)
    VEPRA_NOTHROW;
/** Walks from the top down until fn returns an error, and returns that
 *  chain unchanged (VepraDLlistStopWalking included).
 *  @param stack the stack, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_stk_walk_err_first(vepra_stk_t *stack,
                                                  vepra_walk_err_fn fn,
                                                  void *user) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_SL_H */
