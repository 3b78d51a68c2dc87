/**
 * @file vepra_strlist.h
 * @brief String lists and the tokenizer.
 *
 * A string list is a cell holding the head of a doubly linked list
 * (vepra_dl.h) whose node data are NUL-terminated strings; the cell is null
 * while the list is empty. Every operation takes the cell's address.
 * Strings added to a list are copies made in the pool given to the adding
 * call, and the list nodes live in that pool too.
 */
#ifndef VEPRA_STRLIST_H
#define VEPRA_STRLIST_H

#include <stddef.h>

#include <apr_pools.h>

#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** The cell of a string list: its head node, or null when empty. A cell
 *  may be a field of a larger record or come from vepra_strlist_create(). */
typedef vepra_dl_t *vepra_strlist_t;

/** Allocates an empty cell in pool and stores its address in *out.
 *  Errors: 120051 when out or pool is null; 120012 ("Failed to allocate %zu
 *  bytes of memory.") when the pool cannot give the cell.
 *  @param[out] out receives the new empty cell, owned by pool
 *  @param pool pool for the cell
 *  @return null on success, or the error (codes 120051, 120012) */
VEPRA_API vepra_error_t *vepra_strlist_create(vepra_strlist_t **out,
                                              apr_pool_t *pool) VEPRA_NOTHROW;
/** Empties the list (the strings stay in their pools).
 *  @param[in,out] list cell of the list, or null; set to null */
VEPRA_API void vepra_strlist_destroy(vepra_strlist_t *list) VEPRA_NOTHROW;
/** Same as vepra_strlist_destroy().
 *  @param[in,out] list cell of the list, or null; set to null */
VEPRA_API void vepra_strlist_clear(vepra_strlist_t *list) VEPRA_NOTHROW;
/** Adds a copy of s (made in pool) at the front. Errors: 120012 unwrapped
 *  when the pool cannot give the copy; those of vepra_dl_prepend() (120051
 *  for a null list or pool, 120012 for the node).
 *  @param[in,out] list cell of the list
 *  @param s string to copy; null adds a null element
 *  @param pool pool for the copy and the node
 *  @return null on success, or the error chain (codes 120051, 120012) */
VEPRA_API vepra_error_t *vepra_strlist_addfirst(vepra_strlist_t *list,
                                                const char *s,
                                                apr_pool_t *pool)
    VEPRA_NOTHROW;
/** Adds a copy of s (made in pool) at the end. Errors: as
 *  vepra_strlist_addfirst(), with those of vepra_dl_append().
 *  @param[in,out] list cell of the list
 *  @param s string to copy; null adds a null element
 *  @param pool pool for the copy and the node
 *  @return null on success, or the error chain (codes 120051, 120012) */
VEPRA_API vepra_error_t *vepra_strlist_addlast(vepra_strlist_t *list,
                                               const char *s,
                                               apr_pool_t *pool)
    VEPRA_NOTHROW;
/** The string at zero-based index n (owned by the list's pool), or null
 *  when there is no such element.
 *  @param list cell of the list, or null
 *  @param n zero-based index
 *  @return the list's own string (not a copy), or null */
VEPRA_API char *vepra_strlist_getn(vepra_strlist_t *list, size_t n)
    VEPRA_NOTHROW;
/** Number of strings; 0 for null.
 *  @param list cell of the list, or null
 *  @return number of elements, null elements included */
VEPRA_API size_t vepra_strlist_nelts(vepra_strlist_t *list) VEPRA_NOTHROW;
/** 1 when an element equals s byte for byte, else 0; null elements and a
 *  null s never match.
 *  @param list cell of the list, or null
 *  @param s string to look for, or null
 *  @return 1 when found, else 0 */
VEPRA_API int vepra_strlist_is_exists(vepra_strlist_t *list, const char *s)
    VEPRA_NOTHROW;
/** Replaces dst by copies (in pool) of the strings of src, in order. An
 *  empty src leaves dst as it was. Errors: the list's (120051, 120012 for a
 *  copy or a node the pool cannot give), wrapped by "Cannot copy list of
 *  strings."; dst is then empty.
 *  @param[in,out] dst cell of the list to replace; may be src itself
 *  @param src cell of the list to copy, or null (then nothing changes)
 *  @param pool pool for the copies and the nodes
 *  @return null on success, or the error chain (codes 120051, 120012) */
VEPRA_API vepra_error_t *vepra_strlist_copy(vepra_strlist_t *dst,
                                            vepra_strlist_t *src,
                                            apr_pool_t *pool) VEPRA_NOTHROW;
/**
 * Empties dst and appends to it, as copies in pool, the tokens of the
 * strings of src read one after another: the end of an element is no
 * separator, so a token may continue into the next element. Between tokens
 * separator characters are skipped and a double quote opens a quoted token
 * that ends at the next double quote (separators included); a plain token
 * ends at a separator and keeps any double quote. Empty tokens are dropped;
 * a quote still open at the end gives its text as the last token. Tokens
 * may be of any length.
 * Errors: 120060 "Cannot tokenize string: incorrect number of tokens [0]."
 * for an empty or null separator set; 120061 for an empty src; a failed
 * append or buffer allocation (120012, 120013) wrapped by "Failed to
 * tokenize strings." (the tokens appended so far stay).
 *
 * @param src cell of the list of strings to split
 * @param[in,out] dst cell of the list that receives the tokens; emptied
 *        first (not when the separators or src are rejected)
 * @param separators characters that separate tokens; not null nor empty
 * @param pool pool for the token copies and the nodes
 * @return null on success, or the error chain (codes 120060, 120061,
 *         120051, 120012, 120013)
 */
VEPRA_API vepra_error_t *vepra_strlist_tokenize(vepra_strlist_t *src,
                                                vepra_strlist_t *dst,
                                                const char *separators,
                                                apr_pool_t *pool)
    VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_STRLIST_H */
