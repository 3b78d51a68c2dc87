/**
 * @file vepra_cdl.h
 * @brief Circular slot lists: doubly linked lists of reusable slots.
 *
 * A slot list uses the node record of vepra_dl.h with bit 0 of flags as the
 * slot state (1 occupied, 0 free). Slots are never removed: they are freed
 * and handed out again, so a fixed population of pool nodes can be
 * recycled without allocating. Only occupied slots count as elements:
 * counting, indexing and every walk skip free slots.
 *
 * A list is named by a handle pointing to any node (null is empty). Unlike
 * the plain lists, several operations search around the handle: the
 * handle's node and its predecessors backwards to the first node, then the
 * nodes after the handle's node forwards to the last.
 */
#ifndef VEPRA_CDL_H
#define VEPRA_CDL_H

#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** The occupied bit of a slot's flags. */
#define VEPRA_CDL_OCCUPIED 1u

/** @name Adding slots
 *  New slots come from pool and are occupied at once. An empty list's
 *  handle is set to the new slot, otherwise the handle is kept; the slot
 *  goes to *out when out is not null. Errors, wrapped by the operation's
 *  text: 120051 for a null list or pool; 120012 ("Failed to allocate %zu
 *  bytes of memory.") when the pool cannot give the slot.
 *  @{ */
/** Adds a slot after the last node ("Unable to append DL object.").
 *  @param[in,out] list address of the handle; set to the new slot when the
 *                 list was empty
 *  @param tag the new slot's tag
 *  @param data the new slot's data pointer (not owned; null allowed)
 *  @param[out] out receives the new slot, or null
 *  @param pool the pool the slot comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_cdl_append(vepra_dl_t **list, uint32_t tag,
                                          void *data, vepra_dl_t **out,
                                          apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a slot before the first node ("Unable to prepend DL object.").
 *  @param[in,out] list address of the handle; set to the new slot when the
 *                 list was empty
 *  @param tag the new slot's tag
 *  @param data the new slot's data pointer (not owned; null allowed)
 *  @param[out] out receives the new slot, or null
 *  @param pool the pool the slot comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_cdl_prepend(vepra_dl_t **list, uint32_t tag,
                                           void *data, vepra_dl_t **out,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a slot directly after the handle's node ("Unable to add DL
 *  object.").
 *  @param[in,out] list address of the handle; set to the new slot when the
 *                 list was empty
 *  @param tag the new slot's tag
 *  @param data the new slot's data pointer (not owned; null allowed)
 *  @param[out] out receives the new slot, or null
 *  @param pool the pool the slot comes from
 *  @return null on success, or the error chain (codes VEPRA_E_DL_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_cdl_add(vepra_dl_t **list, uint32_t tag,
                                       void *data, vepra_dl_t **out,
                                       apr_pool_t *pool) VEPRA_NOTHROW;
/** Links the caller-made free-standing node fresh before node, its state
 *  untouched. Error 120051 when either is null (or fresh is linked).
 *  @param node the node to link before
 *  @param fresh the free-standing node to link (no neighbours, not node)
 *  @return null on success, or the error record (code VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_cdl_insert_before(vepra_dl_t *node,
                                                 vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** As vepra_cdl_insert_before(), after node.
 *  @param node the node to link after
 *  @param fresh the free-standing node to link (no neighbours, not node)
 *  @return null on success, or the error record (code VEPRA_E_DL_INSERT) */
VEPRA_API vepra_error_t *vepra_cdl_insert_after(vepra_dl_t *node,
                                                vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** @} */

/** @name Slot state (null nodes are ignored)
 *  @{ */
/** The first free slot around the handle, unchanged; null if none.
 *  @param node the handle's node (where the search starts), or null
 *  @return the free slot, or null */
VEPRA_API vepra_dl_t *vepra_cdl_get_free(vepra_dl_t *node) VEPRA_NOTHROW;
/** The first free slot around the handle, marked occupied; null if none
 *  (the caller then adds a slot).
 *  @param node the handle's node (where the search starts), or null
 *  @return the slot, now occupied, or null */
VEPRA_API vepra_dl_t *vepra_cdl_get_ready(vepra_dl_t *node) VEPRA_NOTHROW;
/** Marks the slot free.
 *  @param node the slot, or null */
VEPRA_API void vepra_cdl_set_free(vepra_dl_t *node) VEPRA_NOTHROW;
/** Marks the slot occupied.
 *  @param node the slot, or null */
VEPRA_API void vepra_cdl_set_occupied(vepra_dl_t *node) VEPRA_NOTHROW;
/** Frees the first occupied slot around the handle whose data pointer is
 *  data; null data or no match: nothing.
 *  @param node the handle's node (where the search starts), or null
 *  @param data the data pointer to look for, or null (nothing) */
VEPRA_API void vepra_cdl_set_free_obj(vepra_dl_t *node, void *data)
    VEPRA_NOTHROW;
/** Frees every slot of the chain.
 *  @param node any node of the chain, or null */
VEPRA_API void vepra_cdl_set_allfree(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the handle to null; the nodes stay in their pool.
 *  @param[out] list address of the handle, or null */
VEPRA_API void vepra_cdl_destroy(vepra_dl_t **list) VEPRA_NOTHROW;
/** @} */

/** @name Access (null nodes give null or 0)
 *  @{ */
/** First node of the chain, free or not.
 *  @param node any node of the chain, or null
 *  @return the first node, or null */
VEPRA_API vepra_dl_t *vepra_cdl_get_first(vepra_dl_t *node) VEPRA_NOTHROW;
/** Last node of the chain, free or not.
 *  @param node any node of the chain, or null
 *  @return the last node, or null */
VEPRA_API vepra_dl_t *vepra_cdl_get_last(vepra_dl_t *node) VEPRA_NOTHROW;
/** The occupied slot number n (from 0, first to last); null if fewer.
 *  @param node any node of the chain, or null
 *  @param n zero-based position among the occupied slots
 *  @return the slot, or null */
VEPRA_API vepra_dl_t *vepra_cdl_get_n(vepra_dl_t *node, size_t n)
    VEPRA_NOTHROW;
/** Number of occupied slots in the whole chain.
 *  @param node any node of the chain, or null
 *  @return the number of occupied slots, 0 for null */
VEPRA_API size_t vepra_cdl_count(vepra_dl_t *node) VEPRA_NOTHROW;
/** The slot's data pointer.
 *  @param node the slot, or null
 *  @return the data pointer, free slot or not; null for a null node */
VEPRA_API void *vepra_cdl_get_data(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the slot's data pointer.
 *  @param node the slot, or null
 *  @param data the new data pointer (not owned) */
VEPRA_API void vepra_cdl_set_data(vepra_dl_t *node, void *data)
    VEPRA_NOTHROW;
/** The slot's tag.
 *  @param node the slot, or null
 *  @return the tag, or 0 for a null node */
VEPRA_API uint32_t vepra_cdl_get_tag(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the slot's tag.
 *  @param node the slot, or null
 *  @param tag the new tag */
VEPRA_API void vepra_cdl_set_tag(vepra_dl_t *node, uint32_t tag)
    VEPRA_NOTHROW;
/** Sets the slot's data pointer and tag.
 *  @param node the slot, or null
 *  @param data the new data pointer (not owned)
 *  @param tag the new tag */
VEPRA_API void vepra_cdl_set_data_tag(vepra_dl_t *node, void *data,
                                      uint32_t tag) VEPRA_NOTHROW;
/** @} */

/** @name Walks over the occupied slots
 *  The walk forms go around the handle; the flwalk forms go from the first
 *  node to the last. Stop rules are those of the walk family (vepra_dl.h).
 *  @{ */
/** Calls fn on every occupied slot around the handle.
 *  @param node the handle's node, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_cdl_walk(vepra_dl_t *node, vepra_walk_fn fn, void *user)
    VEPRA_NOTHROW;
/** Calls fn on every occupied slot from the first node to the last.
 *  @param node any node of the chain, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_cdl_flwalk(vepra_dl_t *node, vepra_walk_fn fn,
                                void *user) VEPRA_NOTHROW;
/** Stops at the first non-zero result and returns it; else 0.
 *  @param node the handle's node, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-zero result, or 0 */
VEPRA_API int vepra_cdl_walk_int_first(vepra_dl_t *node,
                                       vepra_walk_int_fn fn, void *user)
    VEPRA_NOTHROW;
/** Stops at the first non-null result and returns it; else null.
 *  @param node the handle's node, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-null result, or null */
VEPRA_API void *vepra_cdl_walk_ptr_first(vepra_dl_t *node,
                                         vepra_walk_ptr_fn fn, void *user)
    VEPRA_NOTHROW;
/** Stops at the first error and returns it unchanged (VepraDLlistStopWalking
 *  included); else null.
 *  @param node the handle's node, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_cdl_walk_err_first(vepra_dl_t *node,
                                                  vepra_walk_err_fn fn,
                                                  void *user) VEPRA_NOTHROW;
/** Stops at the first error (returned) or once fn has stored a non-null
 *  pointer in *result (null returned); set *result to null first.
 *  @param node the handle's node, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @param[in,out] result the slot fn stores its pointer in; null gives fn a
 *                 scratch slot, cleared before each call
 *  @return null on success or when fn stored a pointer, else fn's error (the
 *          caller owns it) */
VEPRA_API vepra_error_t *vepra_cdl_walk_err_or_ptr_first(
    vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn, void *user, void **result)
    VEPRA_NOTHROW;
/** As vepra_cdl_walk_err_first(), from the first node to the last.
 *  @param node any node of the chain, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first error (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_cdl_flwalk_err_first(vepra_dl_t *node,
                                                    vepra_walk_err_fn fn,
                                                    void *user) VEPRA_NOTHROW;
/** As vepra_cdl_walk_err_or_ptr_first(), from the first node to the last.
 *  @param node any node of the chain, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @param[in,out] result the slot fn stores its pointer in; null gives fn a
 *                 scratch slot, cleared before each call
 *  @return null on success or when fn stored a pointer, else fn's error (the
 *          caller owns it) */
VEPRA_API vepra_error_t *vepra_cdl_flwalk_err_or_ptr_first(
    vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn, void *user, void **result)
    VEPRA_NOTHROW;
/** Calls fn on every occupied slot around the handle; a slot for which it
 *  returns non-zero is freed, and the walk goes on.
 *  @param node the handle's node, or null
 *  @param fn the callback: non-zero frees the slot; null does nothing
 *  @param user passed to every call of fn */
VEPRA_API void vepra_cdl_walk_free(vepra_dl_t *node, vepra_walk_int_fn fn,
                                   void *user) VEPRA_NOTHROW;
/** The first occupied slot around the handle for which fn returns
 *  non-zero; null if none.
 *  @param node the handle's node, or null
 *  @param fn the test; null finds nothing
 *  @param user passed to every call of fn
 *  @return the slot found, or null */
VEPRA_API vepra_dl_t *vepra_cdl_walk_node_first(vepra_dl_t *node,
                                                vepra_walk_int_fn fn,
                                                void *user) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_CDL_H */
