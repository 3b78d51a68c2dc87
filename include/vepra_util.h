/**
 * @file vepra_util.h
 * @brief Path helpers, checksums and bit helpers.
 */
#ifndef VEPRA_UTIL_H
#define VEPRA_UTIL_H

#include <stddef.h>
#include <stdint.h>

#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Writes the last component of path (trailing slashes removed) into buf
 *  of size bytes, cut to fit: "/" stays "/", "" gives ".". Returns buf.
 *  @param path the path; null counts as ""
 *  @param[out] buf receives the zero-terminated name; untouched when size
 *              is 0
 *  @param size bytes available at buf, zero byte included
 *  @return buf */
VEPRA_API char *vepra_util_basename(const char *path, char *buf, size_t size)
    VEPRA_NOTHROW;
/** Writes the directory part of path into buf of size bytes, cut to fit:
 *  "/" for "/" and for names directly under the root, "." for a name
 *  without a slash (and for ""). Returns buf.
 *  @param path the path; null counts as ""
 *  @param[out] buf receives the zero-terminated directory; untouched when
 *              size is 0
 *  @param size bytes available at buf, zero byte included
 *  @return buf */
VEPRA_API char *vepra_util_dirname(const char *path, char *buf, size_t size)
    VEPRA_NOTHROW;

/** Number of bits set in value (population count), 0 to 64.
 *  @param value the word to count
 *  @return the number of 1 bits */
VEPRA_API unsigned vepra_util_nsb64(uint64_t value) VEPRA_NOTHROW;
/** @name Checksums
 *  @{ */
/** CRC-16/ARC update (reflected polynomial 0xA001, no inversion): feeds
 *  length bytes of buf to the running value crc and returns the new value.
 *  From 0 this is the standard CRC-16/ARC, and calls chain. A null buf
 *  returns 0; length 0 returns crc.
 *  @param crc the value so far: 0 to start, or the result of the previous
 *             call
 *  @param buf the bytes to feed, or null
 *  @param length number of bytes at buf
 *  @return the updated CRC */
VEPRA_API uint16_t vepra_util_crc16(uint16_t crc, const void *buf, size_t length)
    VEPRA_NOTHROW;
/** CRC-32 update (ISO-HDLC, as zlib's crc32): feeds length bytes of buf to
 *  the running value crc and returns the new value; from 0 this is the
 *  standard CRC-32, and calls chain. A null buf returns 0; length 0 returns
 *  crc.
 *  @param crc the value so far: 0 to start, or the result of the previous
 *             call
 *  @param buf the bytes to feed, or null
 *  @param length number of bytes at buf
 *  @return the updated CRC */
VEPRA_API uint32_t vepra_util_crc32(uint32_t crc, const void *buf, size_t length)
    VEPRA_NOTHROW;
/** @} */

/** @name Bit helpers
 *  Bits are numbered from 0 (least significant) to 63.
 *  @{ */
/** Number of significant bits of v: 0 for 0, 64 when bit 63 is set.
 *  @param v the word
 *  @return the index of the highest set bit plus 1, 0 to 64 */
VEPRA_API unsigned vepra_util_nsigbits64(uint64_t v) VEPRA_NOTHROW;
/** Index of the lowest set bit of v (0 to 63); -1 for 0.
 *  @param v the word
 *  @return the bit index, or -1 when v is 0 */
VEPRA_API int vepra_util_bsf64(uint64_t v) VEPRA_NOTHROW;
/** Index of the highest set bit of v (0 to 63); -1 for 0.
 *  @param v the word
 *  @return the bit index, or -1 when v is 0 */
VEPRA_API int vepra_util_bsr64(uint64_t v) VEPRA_NOTHROW;
/** A word with the low n bits set: 0 for n 0, all 64 bits for n >= 64.
 *  @param n number of low bits to set; any value
 *  @return the mask */
VEPRA_API uint64_t vepra_util_lowmask64(unsigned n) VEPRA_NOTHROW;
/** The width bits of word starting at bit shift, moved down to bit 0; bits
 *  past bit 63 read as 0, so width 0 or shift >= 64 gives 0.
 *  @param word the word to read
 *  @param shift index of the field's lowest bit
 *  @param width field width in bits; any value
 *  @return the field's value */
VEPRA_API uint64_t vepra_util_bitfield_get64(uint64_t word, unsigned shift,
                                             unsigned width) VEPRA_NOTHROW;
/** word with its width bits at bit shift replaced by the low width bits of
 *  value; bits past bit 63 are dropped, so width 0 or shift >= 64 returns
 *  word unchanged.
 *  @param word the word to change
 *  @param shift index of the field's lowest bit
 *  @param width field width in bits; any value
 *  @param value the new field value; bits above width are ignored
 *  @return the changed word */
VEPRA_API uint64_t vepra_util_bitfield_set64(uint64_t word, unsigned shift,
                                             unsigned width, uint64_t value)
    VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_UTIL_H */
