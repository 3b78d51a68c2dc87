/**
 * @file vepra_tree.h
 * @brief Ordered trees (forests) of nodes with parent and child links.
 *
 * Every node has an ordered list of siblings, an optional parent and an
 * ordered list of children. The sibling lists follow the rules of the
 * doubly linked lists (vepra_dl.h): a tree is named by a handle pointing to
 * any node of its top-level sibling list (null is empty), whole-list
 * operations rewind to the first sibling, and adding a node sets the handle
 * only when the list was empty. A parent's child field is a handle into its
 * children in the same sense.
 *
 * vepra_tree_* nodes come from a caller's APR pool and are never freed one
 * by one; vepra_treem_* nodes come from vepra_mem_malloc() and are freed
 * when deleted. Functions without an m serve both. Trees never own the data
 * pointers they carry. Null nodes are accepted quietly except by insertion
 * (120120).
 */
#ifndef VEPRA_TREE_H
#define VEPRA_TREE_H

#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** One tree node. */
typedef struct vepra_tree_t {
  uint32_t tag;                /**< caller's tag */
  uint32_t reserved;           /**< zero */
  struct vepra_tree_t *prev;   /**< previous sibling, null at the first */
  struct vepra_tree_t *next;   /**< next sibling, null at the last */
  struct vepra_tree_t *parent; /**< parent, null at the top level */
  struct vepra_tree_t *child;  /**< one of the children, null for a leaf */
  void *data;                  /**< caller's data, never owned */
} vepra_tree_t;

/** Callback of the deleting functions, called on each removed node with
 *  its tag, data, the caller's user pointer and the address of the node's
 *  link fields (which it must not use). Must not throw. */
typedef void (*vepra_tree_delete_fn)(uint32_t tag, void *data, void *user,
                                     void *links);
/** As vepra_tree_delete_fn, returning an error to stop the deletion. */
typedef vepra_error_t *(*vepra_tree_delete_err_fn)(uint32_t tag, void *data,
                                                   void *user, void *links);

/** @name Creation and insertion
 *  Errors: 120120 for null nodes, wrapped by the operation's text; a pool
 *  that cannot give the node gives 120012 ("Failed to allocate %zu bytes of
 *  memory."), wrapped likewise; a treem allocation failure (120012) is
 *  wrapped by "Can't allocate memory for treem node." and then by the
 *  operation's text. After a failure the tree is unchanged. The new node
 *  goes to *out when out is not null.
 *  @{ */
/** Makes a free-standing node in pool (null out or pool: 120120; 120012
 *  when the pool cannot give it, unwrapped).
 *  @param tag the node's tag
 *  @param data the node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node
 *  @param pool the pool the node comes from
 *  @return null on success, or the error record (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_create(uint32_t tag, void *data,
                                           vepra_tree_t **out,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** Makes a free-standing node with vepra_mem_malloc(). Errors: 120120 for a
 *  null out; 120012 wrapped by "Can't allocate memory for treem node.".
 *  @param tag the node's tag
 *  @param data the node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, to be freed with a treem deletion
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_treem_create(uint32_t tag, void *data,
                                            vepra_tree_t **out) VEPRA_NOTHROW;
/** Links the free-standing node fresh (no siblings, no parent) before node,
 *  with node's parent. 120120 when either is null, when fresh is linked, or
 *  when fresh is node or one of its ancestors.
 *  @param node the sibling to link before
 *  @param fresh the free-standing node to link; its subtree comes with it
 *  @return null on success, or the error record (code VEPRA_E_TREE_INSERT) */
VEPRA_API vepra_error_t *vepra_tree_insert_before(vepra_tree_t *node,
                                                  vepra_tree_t *fresh)
    VEPRA_NOTHROW;
/** As vepra_tree_insert_before(), after node.
 *  @param node the sibling to link after
 *  @param fresh the free-standing node to link; its subtree comes with it
 *  @return null on success, or the error record (code VEPRA_E_TREE_INSERT) */
VEPRA_API vepra_error_t *vepra_tree_insert_after(vepra_tree_t *node,
                                                 vepra_tree_t *fresh)
    VEPRA_NOTHROW;
/** Adds a node before the first sibling of *tree ("Unable to prepend Tree
 *  node.").
 *  @param[in,out] tree address of the handle; set to the new node when the
 *                 tree was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_prepend(vepra_tree_t **tree, uint32_t tag,
                                            void *data, vepra_tree_t **out,
                                            apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a node after the last sibling ("Unable to append Tree node.").
 *  @param[in,out] tree address of the handle; set to the new node when the
 *                 tree was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_append(vepra_tree_t **tree, uint32_t tag,
                                           void *data, vepra_tree_t **out,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** vepra_tree_append() with a vepra_mem_malloc() node.
 *  @param[in,out] tree address of the handle; set to the new node when the
 *                 tree was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_treem_append(vepra_tree_t **tree, uint32_t tag,
                                            void *data, vepra_tree_t **out)
    VEPRA_NOTHROW;
/** Adds a sibling directly after the handle's node ("Unable to add Tree
 *  node.").
 *  @param[in,out] tree address of the handle; set to the new node when the
 *                 tree was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_add_after(vepra_tree_t **tree,
                                              uint32_t tag, void *data,
                                              vepra_tree_t **out,
                                              apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a sibling directly before the handle's node ("Unable to add Tree
 *  node.").
 *  @param[in,out] tree address of the handle; set to the new node when the
 *                 tree was empty
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_add_before(vepra_tree_t **tree,
                                               uint32_t tag, void *data,
                                               vepra_tree_t **out,
                                               apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a first child to parent; a null parent gives 120120 unwrapped
 *  ("Unable to prepend child Tree node." wraps other failures).
 *  @param parent the node that gets the child
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_prepend_child(vepra_tree_t *parent,
                                                  uint32_t tag, void *data,
                                                  vepra_tree_t **out,
                                                  apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Adds a last child to parent; a null parent gives 120120 unwrapped
 *  ("Unable to append child Tree node." wraps other failures).
 *  @param parent the node that gets the child
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @param pool the pool the node comes from
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_tree_append_child(vepra_tree_t *parent,
                                                 uint32_t tag, void *data,
                                                 vepra_tree_t **out,
                                                 apr_pool_t *pool)
    VEPRA_NOTHROW;
/** vepra_tree_append_child() with a vepra_mem_malloc() node.
 *  @param parent the node that gets the child
 *  @param tag the new node's tag
 *  @param data the new node's data pointer (not owned; null allowed)
 *  @param[out] out receives the new node, or null
 *  @return null on success, or the error chain (codes VEPRA_E_TREE_INSERT,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_treem_append_child(vepra_tree_t *parent,
                                                  uint32_t tag, void *data,
                                                  vepra_tree_t **out)
    VEPRA_NOTHROW;
/** @} */

/** @name Navigation and data (null gives null or 0)
 *  @{ */
/** Previous sibling.
 *  @param node the node, or null
 *  @return the previous sibling, or null at the first */
VEPRA_API vepra_tree_t *vepra_tree_get_prev(vepra_tree_t *node) VEPRA_NOTHROW;
/** Next sibling.
 *  @param node the node, or null
 *  @return the next sibling, or null at the last */
VEPRA_API vepra_tree_t *vepra_tree_get_next(vepra_tree_t *node) VEPRA_NOTHROW;
/** Parent.
 *  @param node the node, or null
 *  @return the parent, or null at the top level */
VEPRA_API vepra_tree_t *vepra_tree_get_parent(vepra_tree_t *node)
    VEPRA_NOTHROW;
/** The child handle (one of the children).
 *  @param node the node, or null
 *  @return the child handle, or null for a leaf */
VEPRA_API vepra_tree_t *vepra_tree_get_child(vepra_tree_t *node)
    VEPRA_NOTHROW;
/** First sibling.
 *  @param node any node of the sibling list, or null
 *  @return the first sibling, or null */
VEPRA_API vepra_tree_t *vepra_tree_get_first(vepra_tree_t *node)
    VEPRA_NOTHROW;
/** Last sibling.
 *  @param node any node of the sibling list, or null
 *  @return the last sibling, or null */
VEPRA_API vepra_tree_t *vepra_tree_get_last(vepra_tree_t *node) VEPRA_NOTHROW;
/** The top-level ancestor (the node itself at the top level), not rewound
 *  to its first sibling.
 *  @param node the node, or null
 *  @return the top-level ancestor, or null */
VEPRA_API vepra_tree_t *vepra_tree_get_top(vepra_tree_t *node) VEPRA_NOTHROW;
/** The node's data pointer.
 *  @param node the node, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_tree_get_data(vepra_tree_t *node) VEPRA_NOTHROW;
/** The node's data pointer; stores the tag in *tag when tag is not null
 *  (a null node leaves *tag untouched).
 *  @param node the node, or null
 *  @param[out] tag receives the node's tag, or null
 *  @return the data pointer, or null for a null node */
VEPRA_API void *vepra_tree_get_data_tag(vepra_tree_t *node, uint32_t *tag)
    VEPRA_NOTHROW;
/** Overwrites the node's tag and data (ignored for a null node).
 *  @param node the node, or null
 *  @param tag the new tag
 *  @param data the new data pointer (not owned) */
VEPRA_API void vepra_tree_update(vepra_tree_t *node, uint32_t tag,
                                 void *data) VEPRA_NOTHROW;
/** Nodes of the node's whole sibling list and all their descendants.
 *  @param node any node of the sibling list, or null
 *  @return the number of nodes, 0 for null */
VEPRA_API size_t vepra_tree_count(vepra_tree_t *node) VEPRA_NOTHROW;
/** @} */

/** @name Removal
 *  Deleting visits children before their parent and siblings first to
 *  last; each node is unlinked (prev, next and parent cleared, the
 *  parent's child handle moved to its previous sibling, else its next one,
 *  else null), then given to the callback, then (treem) freed.
 *  @{ */
/** Unlinks node with its subtree still attached and returns it.
 *  @param node the node, or null
 *  @return node, now without siblings or parent (null for null) */
VEPRA_API vepra_tree_t *vepra_tree_extract(vepra_tree_t *node) VEPRA_NOTHROW;
/** Removes node's whole sibling list with all descendants.
 *  @param node any node of the sibling list, or null (nothing) */
VEPRA_API void vepra_tree_delete(vepra_tree_t *node) VEPRA_NOTHROW;
/** As vepra_tree_delete(), freeing every treem node.
 *  @param node any node of a treem sibling list, or null (nothing) */
VEPRA_API void vepra_treem_delete(vepra_tree_t *node) VEPRA_NOTHROW;
/** Removes node and its subtree.
 *  @param node the node, or null (nothing) */
VEPRA_API void vepra_tree_node_delete(vepra_tree_t *node) VEPRA_NOTHROW;
/** As vepra_tree_node_delete(), freeing every treem node.
 *  @param node the treem node, or null (nothing) */
VEPRA_API void vepra_treem_node_delete(vepra_tree_t *node) VEPRA_NOTHROW;
/** vepra_tree_delete() calling fn on every removed node.
 *  @param node any node of the sibling list, or null (nothing)
 *  @param fn called on every removed node, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_tree_delete_func(vepra_tree_t *node,
                                      vepra_tree_delete_fn fn, void *user)
    VEPRA_NOTHROW;
/** vepra_treem_delete() calling fn on every node before freeing it.
 *  @param node any node of a treem sibling list, or null (nothing)
 *  @param fn called on every removed node, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_treem_delete_func(vepra_tree_t *node,
                                       vepra_tree_delete_fn fn, void *user)
    VEPRA_NOTHROW;
/** vepra_tree_node_delete() calling fn on every removed node.
 *  @param node the node, or null (nothing)
 *  @param fn called on every removed node, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_tree_node_delete_func(vepra_tree_t *node,
                                           vepra_tree_delete_fn fn,
                                           void *user) VEPRA_NOTHROW;
/** vepra_tree_delete() with an error callback: the first error stops the
 *  deletion and is returned unchanged (a failing child deletion leaves its
 *  parent linked; nodes already removed stay removed).
 *  @param node any node of the sibling list, or null (nothing)
 *  @param fn called on every removed node, or null (all are removed)
 *  @param user passed to every call of fn
 *  @return null, or fn's first error (the caller owns it) */
VEPRA_API vepra_error_t *vepra_tree_delete_errfunc(vepra_tree_t *node,
                                                   vepra_tree_delete_err_fn fn,
                                                   void *user) VEPRA_NOTHROW;
/** vepra_tree_node_delete() with an error callback, as above.
 *  @param node the node, or null (nothing)
 *  @param fn called on every removed node, or null (all are removed)
 *  @param user passed to every call of fn
 *  @return null, or fn's first error (the caller owns it) */
VEPRA_API vepra_error_t *vepra_tree_node_delete_errfunc(
    vepra_tree_t *node, vepra_tree_delete_err_fn fn, void *user)
    VEPRA_NOTHROW;
/** Removes the node vepra_tree_search_obj() finds, with its subtree,
 *  calling fn on each removed node; nothing when not found.
 *  @param node any node of the sibling list to search, or null
 *  @param data the data pointer to look for (null finds a node whose data is
 *         null)
 *  @param fn called on every removed node, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_tree_delete_obj_func(vepra_tree_t *node, void *data,
                                          vepra_tree_delete_fn fn, void *user)
    VEPRA_NOTHROW;
/** As vepra_tree_delete_obj_func() with an error callback; returns its
 *  error, null when nothing was found.
 *  @param node any node of the sibling list to search, or null
 *  @param data the data pointer to look for (null finds a node whose data is
 *         null)
 *  @param fn called on every removed node, or null (all are removed)
 *  @param user passed to every call of fn
 *  @return null, or fn's first error (the caller owns it) */
VEPRA_API vepra_error_t *vepra_tree_delete_obj_errfunc(
    vepra_tree_t *node, void *data, vepra_tree_delete_err_fn fn, void *user)
    VEPRA_NOTHROW;
/** Sets the handle to null; the nodes stay in their pool.
 *  @param[out] tree address of the handle, or null */
VEPRA_API void vepra_tree_destroy(vepra_tree_t **tree) VEPRA_NOTHROW;
/** vepra_treem_delete() of the handle's node, then the handle is null.
 *  @param[in,out] tree address of the handle of a treem tree, or null */
VEPRA_API void vepra_treem_destroy(vepra_tree_t **tree) VEPRA_NOTHROW;
/** vepra_treem_delete_func() of the handle's node, then the handle is
 *  null.
 *  @param[in,out] tree address of the handle of a treem tree, or null
 *  @param fn called on every node before it is freed, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_treem_destroy_func(vepra_tree_t **tree,
                                        vepra_tree_delete_fn fn, void *user)
    VEPRA_NOTHROW;
/** @} */

/** @name Search (the node's whole sibling list and all descendants, in
 *  pre-order)
 *  @{ */
/** The first node whose data pointer is data; null if none.
 *  @param node any node of the sibling list to go through, or null
 *  @param data the data pointer to look for (null matches null data)
 *  @return the node found, or null */
VEPRA_API vepra_tree_t *vepra_tree_search_obj(vepra_tree_t *node, void *data)
    VEPRA_NOTHROW;
/** The first node for which fn returns non-zero; null if none.
 *  @param node any node of the sibling list to go through, or null
 *  @param fn the test, or null (finds nothing)
 *  @param user passed to every call of fn
 *  @return the node found, or null */
VEPRA_API vepra_tree_t *vepra_tree_search_func(vepra_tree_t *node,
                                               vepra_walk_int_fn fn,
                                               void *user) VEPRA_NOTHROW;
/** @} */

/** @name Walks
 *  From the first sibling, for each sibling: pre on it, a walk of its
 *  children, post on it; so pre sees pre-order and post sees post-order.
 *  Either callback may be null. Stop rules are those of the walk family
 *  (vepra_dl.h); a stop in pre also skips that node's children and post.
 *  @{ */
/** Visits every node.
 *  @param node any node of the sibling list to go through, or null
 *  @param pre called on each node before its children, or null
 *  @param post called on each node after its children, or null
 *  @param user passed to every call of pre and post */
VEPRA_API void vepra_tree_walk(vepra_tree_t *node, vepra_walk_fn pre,
                               vepra_walk_fn post, void *user) VEPRA_NOTHROW;
/** Stops at the first non-zero result and returns it; else 0.
 *  @param node any node of the sibling list to go through, or null
 *  @param pre called on each node before its children, or null
 *  @param post called on each node after its children, or null
 *  @param user passed to every call of pre and post
 *  @return the first non-zero result of pre or post, or 0 */
VEPRA_API int vepra_tree_walk_int_first(vepra_tree_t *node,
                                        vepra_walk_int_fn pre,
                                        vepra_walk_int_fn post, void *user)
    VEPRA_NOTHROW;
/** Stops at the first error and returns it unchanged; else null.
 *  @param node any node of the sibling list to go through, or null
 *  @param pre called on each node before its children, or null
 *  @param post called on each node after its children, or null
 *  @param user passed to every call of pre and post
 *  @return the first error of pre or post (the caller owns it), or null */
VEPRA_API vepra_error_t *vepra_tree_walk_err_first(vepra_tree_t *node,
                                                   vepra_walk_err_fn pre,
                                                   vepra_walk_err_fn post,
                                                   void *user) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_TREE_H */
