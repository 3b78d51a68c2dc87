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
/** Adds a slot after the last node ("Unable to append DL object."). */
VEPRA_API vepra_error_t *vepra_cdl_append(vepra_dl_t **list, uint32_t tag,
                                          void *data, vepra_dl_t **out,
                                          apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a slot before the first node ("Unable to prepend DL object."). */
VEPRA_API vepra_error_t *vepra_cdl_prepend(vepra_dl_t **list, uint32_t tag,
                                           void *data, vepra_dl_t **out,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a slot directly after the handle's node ("Unable to add DL
 *  object."). */
VEPRA_API vepra_error_t *vepra_cdl_add(vepra_dl_t **list, uint32_t tag,
                                       void *data, vepra_dl_t **out,
                                       apr_pool_t *pool) VEPRA_NOTHROW;
/** Links the caller-made free-standing node fresh before node, its state
 *  untouched. Error 120051 when either is null (or fresh is linked). */
VEPRA_API vepra_error_t *vepra_cdl_insert_before(vepra_dl_t *node,
                                                 vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** As vepra_cdl_insert_before(), after node. */
VEPRA_API vepra_error_t *vepra_cdl_insert_after(vepra_dl_t *node,
                                                vepra_dl_t *fresh)
    VEPRA_NOTHROW;
/** @} */

/** @name Slot state (null nodes are ignored)
 *  @{ */
/** The first free slot around the handle, unchanged; null if none. */
VEPRA_API vepra_dl_t *vepra_cdl_get_free(vepra_dl_t *node) VEPRA_NOTHROW;
/** The first free slot around the handle, marked occupied; null if none
 *  (the caller then adds a slot). */
VEPRA_API vepra_dl_t *vepra_cdl_get_ready(vepra_dl_t *node) VEPRA_NOTHROW;
/** Marks the slot free. */
VEPRA_API void vepra_cdl_set_free(vepra_dl_t *node) VEPRA_NOTHROW;
/** Marks the slot occupied. */
VEPRA_API void vepra_cdl_set_occupied(vepra_dl_t *node) VEPRA_NOTHROW;
/** Frees the first occupied slot around the handle whose data pointer is
 *  data; null data or no match: nothing. */
VEPRA_API void vepra_cdl_set_free_obj(vepra_dl_t *node, void *data)
    VEPRA_NOTHROW;
/** Frees every slot of the chain. */
VEPRA_API void vepra_cdl_set_allfree(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the handle to null; the nodes stay in their pool. */
VEPRA_API void vepra_cdl_destroy(vepra_dl_t **list) VEPRA_NOTHROW;
/** @} */

/** @name Access (null nodes give null or 0)
 *  @{ */
/** First node of the chain, free or not. */
VEPRA_API vepra_dl_t *vepra_cdl_get_first(vepra_dl_t *node) VEPRA_NOTHROW;
/** Last node of the chain, free or not. */
VEPRA_API vepra_dl_t *vepra_cdl_get_last(vepra_dl_t *node) VEPRA_NOTHROW;
/** The occupied slot number n (from 0, first to last); null if fewer. */
VEPRA_API vepra_dl_t *vepra_cdl_get_n(vepra_dl_t *node, size_t n)
    VEPRA_NOTHROW;
/** Number of occupied slots in the whole chain. */
VEPRA_API size_t vepra_cdl_count(vepra_dl_t *node) VEPRA_NOTHROW;
/** The slot's data pointer. */
VEPRA_API void *vepra_cdl_get_data(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the slot's data pointer. */
VEPRA_API void vepra_cdl_set_data(vepra_dl_t *node, void *data)
    VEPRA_NOTHROW;
/** The slot's tag. */
VEPRA_API uint32_t vepra_cdl_get_tag(vepra_dl_t *node) VEPRA_NOTHROW;
/** Sets the slot's tag. */
VEPRA_API void vepra_cdl_set_tag(vepra_dl_t *node, uint32_t tag)
    VEPRA_NOTHROW;
/** Sets the slot's data pointer and tag. */
VEPRA_API void vepra_cdl_set_data_tag(vepra_dl_t *node, void *data,
                                      uint32_t tag) VEPRA_NOTHROW;
/** @} */

/** @name Walks over the occupied slots
 *  The walk forms go around the handle; the flwalk forms go from the first
 *  node to the last. Stop rules are those of the walk family (vepra_dl.h).
 *  @{ */
VEPRA_API void vepra_cdl_walk(vepra_dl_t *node, vepra_walk_fn fn, void *user)
    VEPRA_NOTHROW;
VEPRA_API void vepra_cdl_flwalk(vepra_dl_t *node, vepra_walk_fn fn,
                                void *user) VEPRA_NOTHROW;
VEPRA_API int vepra_cdl_walk_int_first(vepra_dl_t *node,
                                       vepra_walk_int_fn fn, void *user)
    VEPRA_NOTHROW;
VEPRA_API void *vepra_cdl_walk_ptr_first(vepra_dl_t *node,
                                         vepra_walk_ptr_fn fn, void *user)
    VEPRA_NOTHROW;
VEPRA_API vepra_error_t *vepra_cdl_walk_err_first(vepra_dl_t *node,
                                                  vepra_walk_err_fn fn,
                                                  void *user) VEPRA_NOTHROW;
VEPRA_API vepra_error_t *vepra_cdl_walk_err_or_ptr_first(
    vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn, void *user, void **result)
    VEPRA_NOTHROW;
VEPRA_API vepra_error_t *vepra_cdl_flwalk_err_first(vepra_dl_t *node,
                                                    vepra_walk_err_fn fn,
                                                    void *user) VEPRA_NOTHROW;
VEPRA_API vepra_error_t *vepra_cdl_flwalk_err_or_ptr_first(
    vepra_dl_t *node, vepra_walk_err_or_ptr_fn fn, void *user, void **result)
    VEPRA_NOTHROW;
/** Calls fn on every occupied slot around the handle; a slot for which it
 *  returns non-zero is freed, and the walk goes on. */
VEPRA_API void vepra_cdl_walk_free(vepra_dl_t *node, vepra_walk_int_fn fn,
                                   void *user) VEPRA_NOTHROW;
/** The first occupied slot around the handle for which fn returns
 *  non-zero; null if none. */
VEPRA_API vepra_dl_t *vepra_cdl_walk_node_first(vepra_dl_t *node,
                                                vepra_walk_int_fn fn,
                                                void *user) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_CDL_H */
