/**
 * @file vepra_mem.h
 * @brief Checked allocation, and vectors and matrices with caller-chosen
 *        index bounds.
 *
 * Blocks from these functions belong to the caller, who frees them with the
 * matching free function (and, for vectors and matrices, the same element
 * size and bounds). Failures are error records (type 0, no location);
 * when memory is too short even for the record, the caller gets the static
 * out-of-memory record of vepra_error.h instead, never null. Counts of
 * vectors and matrices are hi - lo + 1 in 32-bit arithmetic, widened with
 * their sign: a range with hi < lo - 1 asks for an impossible size and
 * fails with 120012.
 */
#ifndef VEPRA_MEM_H
#define VEPRA_MEM_H

#include <stddef.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** calloc of count elements of size bytes into *out (written also on
 *  failure, with null). Errors: 120010 count 0, 120011 size 0 (out
 *  untouched for both), 120012 failure. */
VEPRA_API vepra_error_t *vepra_mem_calloc(size_t count, size_t size, void **out)
    VEPRA_NOTHROW;
/** malloc of size bytes into *out. Errors: 120014 size 0 (out untouched),
 *  120012 failure. */
VEPRA_API vepra_error_t *vepra_mem_malloc(size_t size, void **out)
    VEPRA_NOTHROW;
/** realloc of *ptr to size bytes. Errors: 120014 size 0 (ptr untouched),
 *  120013 failure (*ptr becomes null; the old block is not freed). */
VEPRA_API vepra_error_t *vepra_mem_realloc(size_t size, void **ptr)
    VEPRA_NOTHROW;
/** memmove; returns dest. */
VEPRA_API void *vepra_mem_move(void *dest, const void *src, size_t n)
    VEPRA_NOTHROW;
/** memcpy; returns dest. */
VEPRA_API void *vepra_mem_copy(void *dest, const void *src, size_t n)
    VEPRA_NOTHROW;
/** free when ptr is not null. */
VEPRA_API void vepra_mem_free(void *ptr) VEPRA_NOTHROW;

/** Zero-filled vector over [lo, hi] of size-byte elements: element i is at
 *  *out + i * size. Errors (wrapped by "Cannot allocate vector."): 120010,
 *  120011, 120012. */
VEPRA_API vepra_error_t *vepra_mem_vector_alloc(void **out, size_t size,
                                                int lo, int hi) VEPRA_NOTHROW;
/** Frees a vector made with the same size and lo; nothing for null. */
VEPRA_API void vepra_mem_vector_free(void *vector, size_t size, int lo)
    VEPRA_NOTHROW;
/** Matrix over rows [row_lo, row_hi] and columns [col_lo, col_hi]: a row
 *  table and one zero-filled block a row; element (r, c) is at
 *  ((char **)*out)[r] + c * size. Errors (wrapped by "Cannot allocate
 *  matrix."): 120014 no rows, 120010 no columns, 120011 size 0, 120012.
 *  After a failure past the row table, *out holds the partial matrix,
 *  which vepra_mem_matrix_free() releases. */
VEPRA_API vepra_error_t *vepra_mem_matrix_alloc(void **out, size_t size,
                                                int row_lo, int row_hi,
                                                int col_lo, int col_hi)
    VEPRA_NOTHROW;
/** Frees a matrix made with the same size and bounds; nothing for null. */
VEPRA_API void vepra_mem_matrix_free(void *matrix, size_t size, int row_lo,
                                     int row_hi, int col_lo) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_MEM_H */
