/**
 * @file vepra_trie.h
 * @brief Radix-16 tries mapping byte-string keys to data pointers.
 *
 * Each byte of a key gives two 4-bit digits, its low nibble first, and
 * inner nodes branch sixteen ways on them. Keys may hold any bytes, zero
 * bytes included, and may be empty.
 *
 * A trie is a root cell, created by vepra_trie_create() or
 * vepra_triem_create() and named by a vepra_trie_t pointer. Two flavours
 * share search and the walks: vepra_trie_* takes its nodes and key copies
 * from a caller's APR pool and never frees them one by one; vepra_triem_*
 * allocates them with the checked allocator (vepra_mem.h) and frees them on
 * deletion and destruction. Use one flavour's insert, delete and destroy
 * for the whole life of a trie. Tries never own the data pointers they
 * carry; a null data pointer cannot be told apart from a missing key by
 * vepra_trie_search().
 *
 * Null tries are accepted quietly: search finds nothing, walks visit
 * nothing, insertion and deletion do nothing. A trie belongs to one thread
 * at a time.
 */
#ifndef VEPRA_TRIE_H
#define VEPRA_TRIE_H

#include <stddef.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** A trie's root cell (opaque): one slot holding the root node, empty for
 *  an empty trie. */
typedef struct vepra_trie_t vepra_trie_t;

/** @name Walk callbacks
 *  Called once for every key with its length, the trie's own copy of its
 *  bytes (followed by one zero byte, valid until the key is deleted), its
 *  data pointer and the caller's user pointer. Callbacks must not insert or
 *  delete keys of the trie being walked, and must not throw.
 *  @{ */
/** Visit callback: sees every key. */
typedef void (*vepra_trie_walk_fn)(size_t length, const char *key, void *data,
                                   void *user);
/** Int callback: a non-zero result stops vepra_trie_walk_int_first(). */
typedef int (*vepra_trie_walk_int_fn)(size_t length, const char *key,
                                      void *data, void *user);
/** Pointer callback: a non-null result stops vepra_trie_walk_ptr_first(). */
typedef void *(*vepra_trie_walk_ptr_fn)(size_t length, const char *key,
                                        void *data, void *user);
/** Error callback: a non-null result stops vepra_trie_walk_err_first().
 *  Return VepraDLlistStopWalking to stop without failing. */
typedef vepra_error_t *(*vepra_trie_walk_err_fn)(size_t length,
                                                 const char *key, void *data,
                                                 void *user);
/** Error-or-pointer callback: returns an error to stop with it, or stores a
 *  non-null pointer in *result to stop with success. */
typedef vepra_error_t *(*vepra_trie_walk_err_or_ptr_fn)(size_t length,
                                                        const char *key,
                                                        void *data, void *user,
                                                        void **result);
/** @} */

/** @name Pool flavour
 *  @{ */
/** Makes an empty trie whose root cell lives in pool. Errors (wrapped by
 *  "Can't create new trie."): 120012 when the pool is null or gives no
 *  memory; *out is then left untouched. A null out does nothing.
 *  @param[out] out the new trie, or null
 *  @param pool the pool the trie's memory comes from; it must outlive the
 *              trie
 *  @return null on success, or the error chain (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_trie_create(vepra_trie_t **out,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** Adds a copy of the length bytes at key with data; nodes and the copy
 *  come from pool. Errors (wrapped by "Can't insert trie node."): 120082
 *  the key is present (the first entry stays), 120091 a node of unknown
 *  kind on the key's path, 120086 a null key of non-zero length, 120012 a
 *  null pool or one that gives no memory. On failure the trie is
 *  unchanged. A null trie does nothing and returns null.
 *  @param trie the trie, or null
 *  @param key the key's bytes (copied); may be null when length is 0
 *  @param length the key's length in bytes, 0 for the empty key
 *  @param data the pointer to store (not owned by the trie; null allowed)
 *  @param pool the pool for the new nodes and key copy, normally the
 *              trie's
 *  @return null on success, or the error chain (codes
 *          VEPRA_E_TRIE_SUBTRIE_EXISTS, VEPRA_E_TRIE_NODE_TYPE,
 *          VEPRA_E_TRIE_WRONG_KEY, VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_trie_insert(vepra_trie_t *trie, const void *key,
                                           size_t length, void *data,
                                           apr_pool_t *pool) VEPRA_NOTHROW;
/** Removes the key if present; inner nodes left with a single leaf fold
 *  into it. Nothing is freed.
 *  @param trie the trie, or null
 *  @param key the key's bytes; may be null when length is 0
 *  @param length the key's length in bytes */
VEPRA_API void vepra_trie_delete(vepra_trie_t *trie, const void *key,
                                 size_t length) VEPRA_NOTHROW;
/** Forgets the trie: sets *trie to null; the pool keeps the memory.
 *  @param[in,out] trie address of the trie pointer, or null */
VEPRA_API void vepra_trie_destroy(vepra_trie_t **trie) VEPRA_NOTHROW;
/** @} */

/** @name Owned-memory flavour
 *  @{ */
/** Makes an empty trie whose root cell comes from vepra_mem_malloc().
 *  Errors (wrapped by "Can't create new triem."): the allocator's; *out is
 *  then left untouched. A null out does nothing.
 *  @param[out] out the new trie, to be freed with vepra_triem_destroy(),
 *              or null
 *  @return null on success, or the error chain (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_triem_create(vepra_trie_t **out) VEPRA_NOTHROW;
/** As vepra_trie_insert(), with nodes from the checked allocator and the
 *  key copy from vepra_mem_calloc() of length + 1 bytes. Errors (wrapped
 *  by "Can't insert triem node."): the allocator's, 120082, 120091, 120086.
 *  On failure the trie is unchanged and nothing allocated by the call is
 *  kept.
 *  @param trie the trie, or null
 *  @param key the key's bytes (copied); may be null when length is 0
 *  @param length the key's length in bytes, 0 for the empty key
 *  @param data the pointer to store (not owned by the trie; null allowed)
 *  @return null on success, or the error chain (codes VEPRA_E_ALLOC,
 *          VEPRA_E_TRIE_SUBTRIE_EXISTS, VEPRA_E_TRIE_NODE_TYPE,
 *          VEPRA_E_TRIE_WRONG_KEY) */
VEPRA_API vepra_error_t *vepra_triem_insert(vepra_trie_t *trie,
                                            const void *key, size_t length,
                                            void *data) VEPRA_NOTHROW;
/** As vepra_trie_delete(), and frees the key's leaf, its key copy and every
 *  inner node that folds.
 *  @param trie the trie, or null
 *  @param key the key's bytes; may be null when length is 0
 *  @param length the key's length in bytes */
VEPRA_API void vepra_triem_delete(vepra_trie_t *trie, const void *key,
                                  size_t length) VEPRA_NOTHROW;
/** Frees every node, leaf and key copy, and the root cell; sets *trie to
 *  null. Nothing for a null address or trie.
 *  @param[in,out] trie address of the trie pointer, or null */
VEPRA_API void vepra_triem_destroy(vepra_trie_t **trie) VEPRA_NOTHROW;
/** @} */

/** @name Search (both flavours)
 *  @{ */
/** The data stored for exactly these length bytes, or null (also for a
 *  null or empty trie, and for a null key of non-zero length).
 *  @param trie the trie, or null
 *  @param key the key's bytes; may be null when length is 0
 *  @param length the key's length in bytes
 *  @return the stored data pointer (still owned by the caller), or null */
VEPRA_API void *vepra_trie_search(const vepra_trie_t *trie, const void *key,
                                  size_t length) VEPRA_NOTHROW;
/** @} */

/** @name Walks (both flavours)
 *  Keys are visited depth first in the order of their digit strings: at
 *  an inner node the key that ends there comes first, then the subtrees of
 *  digits 0 to 15. Since the low nibble is the first digit this is not byte
 *  order: the key 0x21 comes before 0x12, and a key comes before every
 *  longer key that starts with it. A null trie or callback is an empty walk.
 *  Walks allocate nothing unless the trie is more than 64 levels deep
 *  (keys sharing 32 bytes or more); should that path stack fail to grow,
 *  the error walks return the allocator's error (wrapped by "Cannot walk
 *  trie.") and the others end early.
 *  @{ */
/** Calls fn on every key.
 *  @param trie the trie, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn */
VEPRA_API void vepra_trie_walk(const vepra_trie_t *trie, vepra_trie_walk_fn fn,
                               void *user) VEPRA_NOTHROW;
/** Stops at the first non-zero result and returns it; else 0.
 *  @param trie the trie, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-zero result, or 0 */
VEPRA_API int vepra_trie_walk_int_first(const vepra_trie_t *trie,
                                        vepra_trie_walk_int_fn fn, void *user)
    VEPRA_NOTHROW;
/** Stops at the first non-null result and returns it; else null.
 *  @param trie the trie, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return fn's first non-null result, or null */
VEPRA_API void *vepra_trie_walk_ptr_first(const vepra_trie_t *trie,
                                          vepra_trie_walk_ptr_fn fn,
                                          void *user) VEPRA_NOTHROW;
/** Stops at the first error and returns it unchanged (VepraDLlistStopWalking
 *  included); else null.
 *  @param trie the trie, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @return null when every call returned null, else fn's error (the caller
 *          owns it), or the allocator's error wrapped by "Cannot walk
 *          trie." */
VEPRA_API vepra_error_t *vepra_trie_walk_err_first(const vepra_trie_t *trie,
                                                   vepra_trie_walk_err_fn fn,
                                                   void *user) VEPRA_NOTHROW;
/** Stops at the first error (returned) or once fn has stored a non-null
 *  pointer in *result (null returned). *result is not cleared first: set it
 *  to null before the call.
 *  @param trie the trie, or null
 *  @param fn the callback, or null
 *  @param user passed to every call of fn
 *  @param[in,out] result the slot fn stores its pointer in; null gives fn a
 *                 scratch slot, cleared before each call
 *  @return null on success or when fn stored a pointer, else fn's error
 *          (the caller owns it), or the allocator's error wrapped by
 *          "Cannot walk trie." */
VEPRA_API vepra_error_t *vepra_trie_walk_err_or_ptr_first(
    const vepra_trie_t *trie, vepra_trie_walk_err_or_ptr_fn fn, void *user,
    void **result) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_TRIE_H */
