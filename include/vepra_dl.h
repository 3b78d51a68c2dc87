/**
 * @file vepra_dl.h
 * @brief Doubly linked lists and the walk family shared by every container.
 *
 * A list has no header record: it is named by a handle, a caller's
 * vepra_dl_t pointer variable that points to any node of the chain (null is
 * the empty list). Whole-list operations first rewind from the given node to
 * the first one. Operations that add nodes take the handle's address and set
 * the handle only when the list was empty.
 *
 * Two flavours share the node record and every function without an m:
 * vepra_dl_* nodes come from a caller's APR pool and are never freed one by
 * one; vepra_dlm_* nodes come from vepra_mem_malloc() and are freed when
 * deleted or destroyed. Lists never own the data pointers they carry.
 *
 * Null lists and nodes are accepted quietly by accessors, walks and
 * deletions; only insertion (120051) and exchange (120052) report them.
 */
#ifndef VEPRA_DL_H
#define VEPRA_DL_H

#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** One list node; the circular slot lists (vepra_cdl.h) use the same
 *  record, with bit 0 of flags as the slot's occupied bit. */
typedef struct vepra_dl_t {
  uint32_t tag;            /**< caller's tag, never interpreted */
  uint32_t flags;          /**< zero in dl/dlm lists; slot state in cdl */
  struct vepra_dl_t *prev; /**< previous node, null at the first */
  struct vepra_dl_t *next; /**< next node, null at the last */
  void *data;              /**< caller's data, never owned */
} vepra_dl_t;

/** @name Callback shapes of the walk family (every container)
 *  All are called with an element's tag, its data pointer and the caller's
 *  user pointer. Callbacks must not throw.
 *  @{ */
/** Visit callback: sees every element. */
typedef void (*vepra_walk_fn)(uint32_t tag, void *data, void *user);
/** Int callback: a non-zero result stops a walk_int_first walk. */
typedef int (*vepra_walk_int_fn)(uint32_t tag, void *data, void *user);
/** Pointer callback: a non-null result stops a walk_ptr_first walk. */
typedef void *(*vepra_walk_ptr_fn)(uint32_t tag, void *data, void *user);
/** Error callback: a non-null result stops a walk_err_first walk. Return
 *  VepraDLlistStopWalking to stop without failing. */
typedef vepra_error_t *(*vepra_walk_err_fn)(uint32_t tag, void *data,
                                            void *user);
/** Error-or-pointer callback: returns an error to stop with it, or stores a
 *  non-null pointer in *result to stop with success. */
typedef vepra_error_t *(*vepra_walk_err_or_ptr_fn)(uint32_t tag, void *data,
                                                   void *user, void **result);
/** @} */

/** Comparison for vepra_dl_bubsort(): negative, zero or positive as element
 *  A sorts before, with or after element B. */
typedef int (*vepra_dl_cmp_fn)(uint32_t tag_a, void *data_a, uint32_t tag_b,
                               void *data_b, void *user);

/** Callback of vepra_dl_mwalk_err_first(): one call a round with the n
 *  current tags and data pointers (0 and null for exhausted lists). */
typedef vepra_error_t *(*vepra_dl_mwalk_fn)(size_t n, const uint32_t *tags,
                                            void *const *data, void *user);

/** A record ordered by vepra_hook_bubsort_callback(): lists sorted with it
 *  carry data pointers to records that begin with this ordering key (a
 *  hook record may embed it as its first member). */
typedef struct vepra_hook_t {
  int32_t order; /**< ascending sort key */
} vepra_hook_t;

/** @name Creation and insertion
 *  @{ */
/** Makes a free-standing node (no neighbours, flags 0) in pool. Errors:
 *  120051 for a null pool or out; 120012 ("Failed to allocate %zu bytes of
 *  memory.") when the pool cannot give the node, which only a pool without
 *  the library's abort function does (the library's own pools report to the
 *  malfunction handler first).
 *  @param tag the node's tag
 *  @param data the node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node
 *  @param pool the pool the node comes from
 *  @return null on success, or the error record (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_create(uint32_t tag, void *data,
                                         vepra_dl_t **out, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Makes a free-standing node with vepra_mem_malloc(); free it with
 *  vepra_dlm_delete(). Errors: the allocator's (120012) wrapped by "Can't
 *  allocate memory for dlm node."; 120051 for a null out.
 *  @param tag the node's tag
 *  @param data the node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dlm_create(uint32_t tag, void *data,
                                          vepra_dl_t **out) VEPRA_NOTHROW;
/** Links the free-standing node fresh immediately before node. Error 120051
 *  when either is null, or when fresh is node or is still linked.
 *  @param node the node to link before
 *  @param fresh the free-standing node to link (no neighbours)
 *  @return null on success, or the error record (code VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_dl_insert_before(vepra_dl_t *node,
                                                vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** Links the free-standing node fresh immediately after node; errors as
 *  vepra_dl_insert_before().
 *  @param node the node to link after
 *  @param fresh the free-standing node to link (no neighbours)
 *  @return null on success, or the error record (code VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_dl_insert_after(vepra_dl_t *node,
                                               vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** Adds a node before the first node of the chain *list points into; an
 *  empty list's handle is set to it, otherwise the handle is kept. The new
 *  node goes to *out when out is not null. Errors, wrapped by "Unable to
 *  prepend DL object.": 120051 for a null list or pool, 120012 when the
 *  pool cannot give the node (as vepra_dl_create()). The list is unchanged
 *  after a failure.
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_prepend(vepra_dl_t **list, uint32_t tag,
                                          void *data, vepra_dl_t **out,
                                          apr_pool_t *pool) VEPRA_NOTHROW;
/** As vepra_dl_prepend(), after the last node; the same errors wrapped by
 *  "Unable to append DL object.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_append(vepra_dl_t **list, uint32_t tag,
                                         void *data, vepra_dl_t **out,
                                         apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a node directly after the handle's node, without rewinding; the
 *  errors of vepra_dl_prepend() wrapped by "Unable to add DL node.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_add_after(vepra_dl_t **list, uint32_t tag,
                                            void *data, vepra_dl_t **out,
                                            apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a node directly before the handle's node; the errors of
 *  vepra_dl_prepend() wrapped by "Unable to add DL node.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_add_before(vepra_dl_t **list, uint32_t tag,
                                             void *data, vepra_dl_t **out,
                                             apr_pool_t *pool) VEPRA_NOTHROW;
/** vepra_dl_prepend() with a vepra_mem_malloc() node. Errors: 120051 for a
 *  null list; an allocation failure (120012) wrapped by "Can't allocate
 *  memory for dlm node." and then by the operation's text. The list is
 *  unchanged after a failure.
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dlm_prepend(vepra_dl_t **list, uint32_t tag,
                                           void *data, vepra_dl_t **out)
    VEPRA_NOTHROW;
/** vepra_dl_append() with a vepra_mem_malloc() node; errors as
 *  vepra_dlm_prepend(), wrapped by "Unable to append DL object.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dlm_append(vepra_dl_t **list, uint32_t tag,
                                          void *data, vepra_dl_t **out)
    VEPRA_NOTHROW;
/** vepra_dl_add_after() with a vepra_mem_malloc() node; errors as
 *  vepra_dlm_prepend(), wrapped by "Unable to add DL node.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dlm_add_after(vepra_dl_t **list, uint32_t tag,
                                             void *data, vepra_dl_t **out)
    VEPRA_NOTHROW;
/** vepra_dl_add_before() with a vepra_mem_malloc() node; errors as
 *  vepra_dlm_prepend(), wrapped by "Unable to add DL node.".
 *  @param[in,out] list address of the handle; set to the new node when the
 *                 list was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dlm_add_before(vepra_dl_t **list, uint32_t tag,
                                              void *data, vepra_dl_t **out)
    VEPRA_NOTHROW;
/** @} */

/** @name Access (both flavours; null gives null or 0)
 *  @{ */
/** First node of the chain.
 *  @param node any node of the chain, or null
 *  @return the first node, or null */
VEPRA_API vepra_dl_t *vepra_dl_get_first(vepra_dl_t *node) VEPRA_NOTHROW;
/** Last node of the chain.
 *  @param node any node of the chain, or null
 *  @return the last node, or null */
VEPRA_API vepra_dl_t *vepra_dl_get_last(vepra_dl_t *node) VEPRA_NOTHROW;
/** Previous node.
 *  @param node the node, or null
 *  @return the previous node, or null at the first */
VEPRA_API vepra_dl_t *vepra_dl_get_prev(vepra_dl_t *node) VEPRA_NOTHROW;
/** Next node.
 *  @param node the node, or null
 *  @return the next node, or null at the last */
VEPRA_API vepra_dl_t *vepra_dl_get_next(vepra_dl_t *node) VEPRA_NOTHROW;
/** The node's data pointer.
 *  @param node the node, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_dl_get_data(vepra_dl_t *node) VEPRA_NOTHROW;
/** The node's data pointer; stores its tag in *tag when tag is not null
 *  (a null node leaves *tag untouched).
 *  @param node the node, or null
 *  @param[out] tag receives the node's tag, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_dl_get_data_tag(vepra_dl_t *node, uint32_t *tag)
    VEPRA_NOTHROW;
/** Overwrites the node's tag and data (ignored for a null node).
 *  @param node the node, or null
 *  @param tag the new tag
 *  @param data the new data pointer (not owned) */
VEPRA_API void vepra_dl_update(vepra_dl_t *node, uint32_t tag, void *data)
    VEPRA_NOTHROW;
/** The node at zero-based position n from the first node, or null when the
 *  chain is shorter.
 *  @param node any node of the chain, or null
 *  @param n zero-based position counted from the first node
 *  @return the node at position n, or null */
VEPRA_API vepra_dl_t *vepra_dl_get_n(vepra_dl_t *node, size_t n)
    VEPRA_NOTHROW;
/** Number of nodes in the whole chain, both directions from node.
 *  @param node any node of the chain, or null
 *  @return the number of nodes, 0 for null */
VEPRA_API size_t vepra_dl_count(vepra_dl_t *node) VEPRA_NOTHROW;
/** @} */

/** @name Removal
 *  @{ */
/** Unlinks node (its neighbours are joined, its links cleared) and
 *  returns it.
 *  @param node the node, or null
 *  @return node, now free-standing (null for null) */
VEPRA_API vepra_dl_t *vepra_dl_extract(vepra_dl_t *node) VEPRA_NOTHROW;
/** Unlinks node.
 *  @param node the node, or null (nothing) */
VEPRA_API void vepra_dl_delete(vepra_dl_t *node) VEPRA_NOTHROW;
/** Unlinks and frees a vepra_dlm_* node.
 *  @param node the vepra_dlm_* node, or null (nothing) */
VEPRA_API void vepra_dlm_delete(vepra_dl_t *node) VEPRA_NOTHROW;
/** Unlinks node, then calls fn (when not null) on it.
 *  @param node the node, or null (nothing)
 *  @param fn called with the node's tag and data after the unlinking, or null
 *  @param user passed to fn */
VEPRA_API void vepra_dl_delete_func(vepra_dl_t *node, vepra_walk_fn fn,
                                    void *user) VEPRA_NOTHROW;
/** Unlinks node, calls fn (when not null) on it, then frees it.
 *  @param node the vepra_dlm_* node, or null (nothing)
 *  @param fn called with the node's tag and data before the node is freed,
 *         or null
 *  @param user passed to fn */
VEPRA_API void vepra_dlm_delete_func(vepra_dl_t *node, vepra_walk_fn fn,
                                     void *user) VEPRA_NOTHROW;
/** Unlinks node, calls fn on it and returns fn's error unchanged.
 *  @param node the node, or null (nothing, null returned)
 *  @param fn called with the node's tag and data after the unlinking, or null
 *  @param user passed to fn
 *  @return fn's error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_dl_delete_errfunc(vepra_dl_t *node,
                                                 vepra_walk_err_fn fn,
                                                 void *user) VEPRA_NOTHROW;
/** Unlinks the first node from the head whose data pointer is data. If
 *  that node is the handle's, the handle moves to its next node, else to
 *  its previous one, else to null. Null data or no match: nothing.
 *  @param[in,out] list address of the handle, or null; moved off the
 *                 removed node
 *  @param data the data pointer to look for, or null (nothing) */
VEPRA_API void vepra_dl_delete_obj(vepra_dl_t **list, void *data)
    VEPRA_NOTHROW;
/** As vepra_dl_delete_obj(), and frees the removed node.
 *  @param[in,out] list address of the handle of a vepra_dlm_* list, or
 *                 null; moved off the removed node
 *  @param data the data pointer to look for, or null (nothing) */
VEPRA_API void vepra_dlm_delete_obj(vepra_dl_t **list, void *data)
    VEPRA_NOTHROW;
/** As vepra_dl_delete_obj(), then calls fn on the removed node.
 *  @param[in,out] list address of the handle, or null; moved off the
 *                 removed node
 *  @param data the data pointer to look for, or null (nothing)
 *  @param fn called with the removed node's tag and data, or null
 *  @param user passed to fn */
VEPRA_API void vepra_dl_delete_obj_func(vepra_dl_t **list, void *data,
                                        vepra_walk_fn fn, void *user)
    VEPRA_NOTHROW;
/** As vepra_dl_delete_obj_func() with an error callback, whose error is
 *  returned unchanged; null when nothing matched.
 *  @param[in,out] list address of the handle, or null; moved off the
 *                 removed node
 *  @param data the data pointer to look for, or null (nothing)
 *  @param fn called with the removed node's tag and data, or null (the node
 *         is still removed)
 *  @param user passed to fn
 *  @return fn's error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_dl_delete_obj_errfunc(vepra_dl_t **list,
                                                     void *data,
                                                     vepra_walk_err_fn fn,
                                                     void *user)
    VEPRA_NOTHROW;
/** @} */

/** @name Destruction
 *  Every form sets the handle to null. Nodes are processed from the
 *  handle's predecessor backwards to the first node, then from the handle's
 *  node forwards to the last; meanwhile the handle points to the next node
 *  of the forward part still to be processed.
 *  @{ */
/** Forgets the list: the nodes stay in their pool.
 *  @param[out] list address of the handle, or null */
VEPRA_API void vepra_dl_destroy(vepra_dl_t **list) VEPRA_NOTHROW;
/** Frees every node of a vepra_dlm_* list.
 *  @param[in,out] list address of the handle of a vepra_dlm_* list, or
 *                 null */
VEPRA_API void vepra_dlm_destroy(vepra_dl_t **list) VEPRA_NOTHROW;
/** Unlinks every node and calls fn (when not null) on each.
 *  @param[in,out] list address of the handle, or null
 *  @param fn called with each node's tag and data after its unlinking, or
 *         null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_dl_destroy_func(vepra_dl_t **list, vepra_walk_fn fn,
                                     void *user) VEPRA_NOTHROW;
/** Calls fn (when not null) on every node, then frees it.
 *  @param[in,out] list address of the handle of a vepra_dlm_* list, or
 *                 null
 *  @param fn called with each node's tag and data before it is freed, or
 *         null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_dlm_destroy_func(vepra_dl_t **list, vepra_walk_fn fn,
                                      void *user) VEPRA_NOTHROW;
/** Unlinks every node and calls fn on each; the first error stops and is
 *  returned wrapped by "Error while destroy DL List." The nodes visited so
 *  far stay unlinked, the rest chained; the handle stays where it was after
 *  a failure among the predecessors, and points to the node after the
 *  failing one after a failure in the forward part.
 *  @param[in,out] list address of the handle, or null
 *  @param fn called with each node's tag and data after its unlinking, or
 *         null (every node is unlinked)
 *  @param user passed to every call of fn
 *  @return null on success, or fn's first error wrapped as above (the caller
 *          owns it) */
VEPRA_API vepra_error_t *vepra_dl_destroy_errfunc(vepra_dl_t **list,
                                                  vepra_walk_err_fn fn,
                                                  void *user) VEPRA_NOTHROW;
/** @} */

/** @name Rearrangement
 *  @{ */
/** Swaps the places of a and b (list handles keep pointing to their
 *  nodes). Errors: 120052 when either is null (nothing changed); 120051
 *  wrapped by "Unable to exchange DL nodes." when a node without neighbours
 *  must be placed. That second failure is met after both nodes were taken
 *  out of their places, and they are not put back: the chain is left
 *  changed (a node out of it, or placed at the other's position only).
 *  @param a one node
 *  @param b the other node, of the same chain or another one
 *  @return null on success, or the error chain (codes VEPRA_E_DL_EXCHANGE,
 *          VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_dl_exchange(vepra_dl_t *a, vepra_dl_t *b)
    VEPRA_NOTHROW;
/** Links the last node of a's chain to the first node of b's and returns
 *  the first node of the result. b null (or already in a's chain): a's
 *  first node; a null: null.
 *  @param a any node of the first chain, or null
 *  @param b any node of the chain to attach, or null
 *  @return the first node of the joined chain, or null when a is null */
VEPRA_API vepra_dl_t *vepra_dl_join(vepra_dl_t *a, vepra_dl_t *b)
    VEPRA_NOTHROW;
/** Sorts the chain in place, ascending by cmp (not stable); the handle
 *  keeps its node, so rewind with vepra_dl_get_first() afterwards. Exchange
 *  errors come back wrapped by "Can't sort dllist.".
 *  @param node any node of the chain, or null (nothing to sort)
 *  @param cmp the comparison, or null (nothing done)
 *  @param user passed to every call of cmp
 *  @return null on success, or the error chain (codes VEPRA_E_DL_EXCHANGE,
 *          VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_dl_bubsort(vepra_dl_t *node,
                                          vepra_dl_cmp_fn cmp, void *user)
    VEPRA_NOTHROW;
/** A vepra_dl_cmp_fn for data pointing to vepra_hook_t records: -1, 0 or 1
 *  by ascending order key (a null record sorts first).
 *  @param tag_a ignored
 *  @param data_a the first vepra_hook_t record, or null
 *  @param tag_b ignored
 *  @param data_b the second vepra_hook_t record, or null
 *  @param user ignored
 *  @return -1, 0 or 1 */
VEPRA_API int vepra_hook_bubsort_callback(uint32_t tag_a, void *data_a,
                                          uint32_t tag_b, void *data_b,
                                          void *user) VEPRA_NOTHROW;
/** @} */

/** @name Walks (both flavours; first to last node)
 *  A callback must not unlink the node it is visiting, except in
 *  vepra_dl_dwalk(). A null list or callback is an empty walk.
 *  @{ */
/** Calls fn on every node.
 *  @param node any node of the list, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_dl_walk(vepra_dl_t *node, vepra_walk_fn fn, void *user)
    VEPRA_NOTHROW;
/** Calls fn on every node; a node for which it returns non-zero is unlinked
 *  (not freed). The handle becomes the first node kept, or null.
 *  @param[in,out] list address of the handle, or null
 *  @param fn the callback: non-zero unlinks the node; null does nothing
 *  @param user passed to every call of fn */
VEPRA_API void vepra_dl_dwalk(vepra_dl_t **list, vepra_walk_int_fn fn,
                              void *user) VEPRA_NOTHROW;
/** Stops at the first non-zero result and returns it; else 0.
 *  @param node any node of the list, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-zero result, or 0 */
VEPRA_API int vepra_dl_walk_int_first(vepra_dl_t *node, vepra_walk_int_fn fn,
                                      void *user) VEPRA_NOTHROW;
/** Stops at the first non-null result and returns it; else null.
 *  @param node any node of the list, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-null result, or null */
VEPRA_API void *vepra_dl_walk_ptr_first(vepra_dl_t *node,
                                        vepra_walk_ptr_fn fn, void *user)
    VEPRA_NOTHROW;
/** Stops at the first error and returns it unchanged (VepraDLlistStopWalking
 *  included); else null.
 *  @param node any node of the list, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_dl_walk_err_first(vepra_dl_t *node,
                                                 vepra_walk_err_fn fn,
                                                 void *user) VEPRA_NOTHROW;
/** Stops at the first error (returned) or once fn has stored a non-null
 *  pointer in *result (null returned). *result is not cleared first: set it
 *  to null before the call.
 *  @param node any node of the list, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @param[in,out] result the slot fn stores its pointer in; null gives fn a
 *                 scratch slot, cleared before each call
 *  @return null on success or when fn stored a pointer, else fn's error (the
 *          caller owns it) */
VEPRA_API vepra_error_t *vepra_dl_walk_err_or_ptr_first(
    vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn, void *user, void **result)
    VEPRA_NOTHROW;
/** Walks the n lists named by handles side by side: each round calls fn
 *  once with every list's current tag and data (0 and null once a list is
 *  exhausted), until all are exhausted or fn returns an error, which is
 *  returned (VepraDLlistStopWalking gives null). Errors: the allocator's,
 *  unchanged, for the work arrays.
 *  @param handles n handles (any node of each list; null for an empty one)
 *  @param n number of lists; 0 is an empty walk
 *  @param fn the callback, or null (an empty walk)
 *  @param user passed to every call of fn
 *  @return null when the walk ran to the end or was stopped by
 *          VepraDLlistStopWalking, else fn's error (the caller owns it) or the
 *          allocator's (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_dl_mwalk_err_first(vepra_dl_t *const *handles,
                                                  size_t n,
                                                  vepra_dl_mwalk_fn fn,
                                                  void *user) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_DL_H */
