/**
 * @file vepra_bitarr.h
 * @brief Growable arrays of bits in 64-bit words.
 *
 * Bit i lives in words[i / 64] at position i % 64, counting from the least
 * significant bit. Every operation keeps two invariants that the counts and
 * OR/AND rely on: the bits past the length in the last used word are zero,
 * and the words from used to capacity are zero. Callers that write words
 * directly keep them too.
 *
 * The capacity is the smallest power of two strictly greater than the used
 * words, never below 8 words; it never shrinks.
 *
 * The record and its words come from vepra_mem_malloc() and friends and
 * belong to the caller until vepra_bitarr_free().
 */
#ifndef VEPRA_BITARR_H
#define VEPRA_BITARR_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** A bit array. */
typedef struct vepra_bitarr_t {
  uint64_t *words;   /**< storage, capacity words long */
  uint64_t bits;     /**< length in bits */
  uint64_t used;     /**< words in use: (bits + 63) / 64 */
  uint64_t capacity; /**< words allocated */
} vepra_bitarr_t;

/** Makes an array of bits zero bits into *out (which must not be null).
 *  Errors, wrapped by "Cannot create bit array.": 120012 (also when the
 *  storage of so many bits could not even be counted in bytes).
 *  @param[out] out the new array, to be freed with vepra_bitarr_free()
 *  @param bits length in bits, all zero; 0 is allowed
 *  @return null on success, or the error chain (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_bitarr_create(vepra_bitarr_t **out,
                                             uint64_t bits) VEPRA_NOTHROW;
/** Changes the length of *array to bits: new bits are zero, bits cut off
 *  are cleared. A null *array is created; a null array address does
 *  nothing. Errors, wrapped by "Cannot resize bit array.": 120012 (when
 *  created), 120013; the array is then left exactly as it was.
 *  @param[in,out] array address of the array to resize, or of a null
 *                 pointer to create one into
 *  @param bits new length in bits
 *  @return null on success, or the error chain (codes VEPRA_E_ALLOC,
 *          VEPRA_E_REALLOC) */
VEPRA_API vepra_error_t *vepra_bitarr_resize(vepra_bitarr_t **array,
                                             uint64_t bits) VEPRA_NOTHROW;
/** Frees the words and the record; null is ignored.
 *  @param array the array, or null */
VEPRA_API void vepra_bitarr_free(vepra_bitarr_t *array) VEPRA_NOTHROW;
/** Sets *out to null, then to a new copy of source. A null source or one
 *  of 0 bits gives null and success. Errors: those of
 *  vepra_bitarr_create(), unchanged.
 *  @param source the array to copy, or null
 *  @param[out] out the copy (caller frees it with vepra_bitarr_free()), or
 *              null; a null out does nothing
 *  @return null on success, or the error chain (code VEPRA_E_ALLOC) */
VEPRA_API vepra_error_t *vepra_bitarr_clone(const vepra_bitarr_t *source,
                                            vepra_bitarr_t **out)
    VEPRA_NOTHROW;

/** @name Whole-array changes (null arrays are ignored)
 *  @{ */
/** Sets every bit of array to 1.
 *  @param array the array, or null */
VEPRA_API void vepra_bitarr_set_all(vepra_bitarr_t *array) VEPRA_NOTHROW;
/** Sets every bit of array to 0.
 *  @param array the array, or null */
VEPRA_API void vepra_bitarr_clear_all(vepra_bitarr_t *array) VEPRA_NOTHROW;
/** Inverts every bit of array.
 *  @param array the array, or null */
VEPRA_API void vepra_bitarr_toggle_all(vepra_bitarr_t *array) VEPRA_NOTHROW;
/** @} */

/** Number of bits set; 0 for null.
 *  @param array the array, or null
 *  @return the count of 1 bits */
VEPRA_API uint64_t vepra_bitarr_num_bits_set(const vepra_bitarr_t *array)
    VEPRA_NOTHROW;
/** Number of bits clear (length minus bits set); 0 for null.
 *  @param array the array, or null
 *  @return the count of 0 bits below the length */
VEPRA_API uint64_t vepra_bitarr_num_bits_cleared(const vepra_bitarr_t *array)
    VEPRA_NOTHROW;

/** *result = a OR b, as long as the longer of the two: the missing bits of
 *  the shorter one count as 0. A null a or b counts as 0 bits; result may
 *  be the address of a's or b's variable. A null *result is created; a
 *  null result address does nothing. Errors: those of
 *  vepra_bitarr_resize(); *result is then unchanged.
 *  @param a first operand, or null
 *  @param b second operand, or null
 *  @param[in,out] result address of the array that receives the result
 *                 (resized to fit), or of a null pointer to create it
 *  @return null on success, or the error chain (codes VEPRA_E_ALLOC,
 *          VEPRA_E_REALLOC) */
VEPRA_API vepra_error_t *vepra_bitarr_or(const vepra_bitarr_t *a,
                                         const vepra_bitarr_t *b,
                                         vepra_bitarr_t **result)
    VEPRA_NOTHROW;
/** *result = a AND b, as long as the longer of the two (the missing bits
 *  of the shorter one count as 0, so the result's bits past it are 0).
 *  Otherwise as vepra_bitarr_or().
 *  @param a first operand, or null
 *  @param b second operand, or null
 *  @param[in,out] result address of the array that receives the result
 *                 (resized to fit), or of a null pointer to create it
 *  @return null on success, or the error chain (codes VEPRA_E_ALLOC,
 *          VEPRA_E_REALLOC) */
VEPRA_API vepra_error_t *vepra_bitarr_and(const vepra_bitarr_t *a,
                                          const vepra_bitarr_t *b,
                                          vepra_bitarr_t **result)
    VEPRA_NOTHROW;

/** Writes "1" or "0" for each bit from bit 0 up to stream, without
 *  separator or line end. Nothing for a null array or stream.
 *  @param array the array, or null
 *  @param stream the open stream to write to, or null */
VEPRA_API void vepra_bitarr_print(const vepra_bitarr_t *array, FILE *stream)
    VEPRA_NOTHROW;
/** Writes one character a bit from bit 0 into buf, at most size - 1 of
 *  them, then a zero byte (nothing at all when size is 0). A set bit is
 *  written as the low byte of one, or "1" when that byte is zero; a clear
 *  bit as the low byte of zero, or "0". Returns the array's length in bits
 *  (0 for null), so that a result of size or more means the text was cut.
 *  @param array the array, or null (written as the empty text)
 *  @param[out] buf receives the text; null writes nothing
 *  @param size bytes available at buf, zero byte included
 *  @param one character for a set bit (its low byte; 0 means '1')
 *  @param zero character for a clear bit (its low byte; 0 means '0')
 *  @return the array's length in bits, whatever fitted */
VEPRA_API uint64_t vepra_bitarr_tostr(const vepra_bitarr_t *array, char *buf,
                                      size_t size, int one, int zero)
    VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_BITARR_H */
