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

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** calloc of count elements of size bytes into *out (written also on
 *  failure, with null). Errors: 120010 count 0, 120011 size 0 (out
 *  untouched for both), 120012 failure.
 *  @param count number of elements, not 0
 *  @param size bytes per element, not 0
 *  @param[out] out the zero-filled block, to be freed with vepra_mem_free()
 *  @return null on success, or the error record (codes VEPRA_E_NELEM,
 *          VEPRA_E_ELEM_SIZE, VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_mem_calloc(size_t count, size_t size, void **out)
    VEPRA_NOTHROW;
/** malloc of size bytes into *out. Errors: 120014 size 0 (out untouched),
 *  120012 failure.
 *  @param size bytes to allocate, not 0
 *  @param[out] out the uninitialised block, to be freed with vepra_mem_free()
 *  @return null on success, or the error record (codes VEPRA_E_MEM_SIZE,
 *          VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_mem_malloc(size_t size, void **out)
    VEPRA_NOTHROW;
/** realloc of *ptr to size bytes. Errors: 120014 size 0 (ptr untouched),
 *  120013 failure (*ptr becomes null; the old block is not freed).
 *  @param size new size in bytes, not 0
 *  @param[in,out] ptr the block to resize (null allocates a new one); the
 *                 moved block on success
 *  @return null on success, or the error record (codes VEPRA_E_MEM_SIZE,
 *          VEPRA_E_REALLOC) */
VEPRA_API vepra_error_t *vepra_mem_realloc(size_t size, void **ptr)
    VEPRA_NOTHROW;
/** memmove; returns dest.
 *  @param dest start of the n destination bytes (may overlap src)
 *  @param src start of the n source bytes
 *  @param n bytes to move; 0 touches nothing and accepts null pointers
 *  @return dest */
VEPRA_API void *vepra_mem_move(void *dest, const void *src, size_t n)
    VEPRA_NOTHROW;
/** memcpy; returns dest.
 *  @param dest start of the n destination bytes (must not overlap src)
 *  @param src start of the n source bytes
 *  @param n bytes to copy; 0 touches nothing and accepts null pointers
 *  @return dest */
VEPRA_API void *vepra_mem_copy(void *dest, const void *src, size_t n)
    VEPRA_NOTHROW;
/** free when ptr is not null.
 *  @param ptr block from vepra_mem_malloc() and friends, or null */
VEPRA_API void vepra_mem_free(void *ptr) VEPRA_NOTHROW;

/** Zero-filled vector over [lo, hi] of size-byte elements: element i is at
 *  *out + i * size. Errors (wrapped by "Cannot allocate vector."): 120010,
 *  120011, 120012.
 *  @param[out] out the vector, addressed so that element lo is at
 *              *out + lo * size; free it with vepra_mem_vector_free()
 *  @param size bytes per element, not 0
 *  @param lo lowest index
 *  @param hi highest index, at least lo
 *  @return null on success, or the error chain (codes VEPRA_E_NELEM,
 *          VEPRA_E_ELEM_SIZE, VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_mem_vector_alloc(void **out, size_t size,
                                                int lo, int hi) VEPRA_NOTHROW;
/** Frees a vector made with the same size and lo; nothing for null.
 *  @param vector the vector as vepra_mem_vector_alloc() gave it, or null
 *  @param size the element size it was made with
 *  @param lo the lowest index it was made with */
VEPRA_API void vepra_mem_vector_free(void *vector, size_t size, int lo)
    VEPRA_NOTHROW;
/** Matrix over rows [row_lo, row_hi] and columns [col_lo, col_hi]: a row
 *  table and one zero-filled block a row; element (r, c) is at
 *  ((char **)*out)[r] + c * size. Errors (wrapped by "Cannot allocate
 *  matrix."): 120014 no rows, 120010 no columns, 120011 size 0, 120012.
 *  After a failure past the row table, *out holds the partial matrix,
 *  which vepra_mem_matrix_free() releases.
 *  @param[out] out the row table, addressed by row index; set as soon as
 *              the table exists, so also after some failures
 *  @param size bytes per element, not 0
 *  @param row_lo lowest row index
 *  @param row_hi highest row index, at least row_lo
 *  @param col_lo lowest column index
 *  @param col_hi highest column index, at least col_lo
 *  @return null on success, or the error chain (codes VEPRA_E_MEM_SIZE,
 *          VEPRA_E_NELEM, VEPRA_E_ELEM_SIZE, VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_mem_matrix_alloc(void **out, size_t size,
                                                int row_lo, int row_hi,
                                                int col_lo, int col_hi)
    VEPRA_NOTHROW;
/** Frees a matrix made with the same size and bounds; nothing for null.
 *  @param matrix the row table as vepra_mem_matrix_alloc() gave it, or null
 *  @param size the element size it was made with
 *  @param row_lo the lowest row index it was made with
 *  @param row_hi the highest row index it was made with
 *  @param col_lo the lowest column index it was made with */
VEPRA_API void vepra_mem_matrix_free(void *matrix, size_t size, int row_lo,
                                     int row_hi, int col_lo) VEPRA_NOTHROW;

/** An N-dimensional array: a tree of pointer tables, one level a
 *  dimension except the last, whose entries lead to zero-filled blocks of
 *  dims[ndims - 1] elements. The array owns its tables and blocks; the
 *  caller owns the header until vepra_mem_array_free(). */
typedef struct vepra_mem_array_t {
  int32_t ndims;  /**< number of dimensions, at least 1 */
  uint32_t *dims; /**< size of each dimension, ndims entries */
  void *data;     /**< root: the block (1 dimension) or the first table */
  size_t elsize;  /**< bytes per element */
} vepra_mem_array_t;

/** Allocates an array of size-byte elements into *out (which must not be
 *  null): the first dimension, then further dimensions (ints) ending with
 *  0. Errors returned as they are, *out untouched: 120011 "Cannot allocate
 *  array for elements of size %zu bytes." for size 0, 120010 "Cannot
 *  allocate memory for %d elements in first dimension." for first 0.
 *  Errors wrapped by "Cannot allocate array.", *out set to null and nothing
 *  left allocated: 120012, 120013 (also for shapes whose size in bytes
 *  does not fit).
 *  @param[out] out the new array, to be freed with vepra_mem_array_free()
 *  @param size bytes per element, not 0
 *  @param first size of the first dimension, not 0; the further sizes
 *               follow as int arguments, the last of them followed by 0
 *  @return null on success, or the error chain (codes VEPRA_E_ELEM_SIZE,
 *          VEPRA_E_NELEM, VEPRA_E_ALLOC, VEPRA_E_REALLOC) */
VEPRA_API vepra_error_t *vepra_mem_array_alloc(vepra_mem_array_t **out,
                                               size_t size, int first, ...)
    VEPRA_NOTHROW;
/** vepra_mem_array_alloc() with the further dimensions in a va_list.
 *  @param[out] out the new array, to be freed with vepra_mem_array_free()
 *  @param size bytes per element, not 0
 *  @param first size of the first dimension, not 0
 *  @param dims the further sizes as ints, ending with 0; read from a copy,
 *              so the caller's list is not consumed
 *  @return null on success, or the error chain (codes as
 *          vepra_mem_array_alloc()) */
VEPRA_API vepra_error_t *vepra_mem_array_valloc(vepra_mem_array_t **out,
                                                size_t size, int first,
                                                va_list dims) VEPRA_NOTHROW;
/** Frees the tables, blocks, dimension list and header; nothing for
 *  null.
 *  @param array the array, or null */
VEPRA_API void vepra_mem_array_free(vepra_mem_array_t *array) VEPRA_NOTHROW;
/** Copies the size-byte element at src into the array at the position of
 *  the n indices in index. Errors (code 0, wrapped by "Cannot copy data to
 *  element."): size or n not those of the array, an index past its
 *  dimension (dimensions counted from 1), a null array or index vector.
 *  @param array the array to write into
 *  @param src the element to copy, size bytes
 *  @param size bytes per element; must equal the array's element size
 *  @param n number of indices; must equal the array's dimensions
 *  @param index n indices from 0, one a dimension, first dimension first
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_mem_array_copytoel(vepra_mem_array_t *array,
                                                  const void *src,
                                                  size_t size, unsigned n,
                                                  const uint32_t *index)
    VEPRA_NOTHROW;
/** Copies the element at the position of the n indices in index to dst.
 *  Errors as vepra_mem_array_copytoel(), wrapped by "Cannot copy data from
 *  element.".
 *  @param array the array to read from
 *  @param[out] dst receives the element, size bytes
 *  @param size bytes per element; must equal the array's element size
 *  @param n number of indices; must equal the array's dimensions
 *  @param index n indices from 0, one a dimension, first dimension first
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_mem_array_copyfromel(
    const vepra_mem_array_t *array, void *dst, size_t size, unsigned n,
    const uint32_t *index) VEPRA_NOTHROW;
/** Sets every byte of every element to value (as memset). Errors: code 0
 *  when size is not the array's element size (or the array is null),
 *  wrapped by "Cannot set all elements of an array".
 *  @param array the array to fill
 *  @param value the byte value, converted to unsigned char as by memset
 *  @param size bytes per element; must equal the array's element size
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_mem_array_allset(vepra_mem_array_t *array,
                                                int value, size_t size)
    VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_MEM_H */
