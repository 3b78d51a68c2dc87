/**
 * @file vepra_sha1.h
 * @brief SHA-1 message digests, in one call or streamed in pieces.
 */
#ifndef VEPRA_SHA1_H
#define VEPRA_SHA1_H

#include <stddef.h>
#include <stdint.h>

#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Length of a SHA-1 digest in bytes. */
#define VEPRA_SHA1_DIGEST_LENGTH 20

/** State of a SHA-1 computation; owned by the caller (on the stack or
 *  anywhere), filled by vepra_sha1_init(). */
typedef struct vepra_sha1_ctx_t {
  uint32_t state[5];         /**< chaining value */
  uint64_t length;           /**< bytes hashed so far */
  uint32_t used;             /**< bytes waiting in block */
  unsigned char block[64];   /**< the incomplete block */
} vepra_sha1_ctx_t;

/** Starts a new digest in ctx; nothing for null.
 *  @param[out] ctx state to (re)initialise; any previous content is lost */
VEPRA_API void vepra_sha1_init(vepra_sha1_ctx_t *ctx) VEPRA_NOTHROW;
/** Adds length bytes of data to the digest; the input may be split at any
 *  point. Nothing for a null ctx, or a null data.
 *  @param[in,out] ctx state started by vepra_sha1_init()
 *  @param data bytes to add; not kept after the call
 *  @param length number of bytes of data; 0 adds nothing */
VEPRA_API void vepra_sha1_update(vepra_sha1_ctx_t *ctx, const void *data,
                                 size_t length) VEPRA_NOTHROW;
/** Writes the 20-byte digest of everything added to digest and starts ctx
 *  anew. Nothing for a null ctx or digest.
 *  @param[in,out] ctx state to finish; left ready for a new digest
 *  @param[out] digest caller's buffer of VEPRA_SHA1_DIGEST_LENGTH bytes */
VEPRA_API void vepra_sha1_final(vepra_sha1_ctx_t *ctx,
                                unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH])
    VEPRA_NOTHROW;
/** The 20-byte digest of length bytes of data (null data hashes nothing)
 *  into digest; nothing for a null digest.
 *  @param data bytes to hash, or null for the empty message
 *  @param length number of bytes of data
 *  @param[out] digest caller's buffer of VEPRA_SHA1_DIGEST_LENGTH bytes */
VEPRA_API void vepra_sha1(const void *data, size_t length,
                          unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH])
    VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_SHA1_H */
