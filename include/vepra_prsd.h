/**
 * @file vepra_prsd.h
 * @brief Typed token parsing.
 *
 * vepra_prsd_parse_p() splits a line into tokens and stores each as an
 * integer, a floating-point number or a string, whichever it parses as
 * first, in a caller-owned parse record. The record keeps the tokenizer
 * state between calls: a line that ends with a backslash outside a token
 * leaves the record incomplete, and the next line is parsed into the same
 * record.
 */
#ifndef VEPRA_PRSD_H
#define VEPRA_PRSD_H

#include <stdint.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Kinds of token (vepra_prsd_token_t.kind). */
enum vepra_prsd_kind {
  VEPRA_PRSD_INTEGER = 1,
  VEPRA_PRSD_DOUBLE = 2,
  VEPRA_PRSD_STRING = 3
};

/** Tokenizer states (vepra_prsd_t.state). */
enum vepra_prsd_state {
  VEPRA_PRSD_BETWEEN = 0,   /**< between tokens */
  VEPRA_PRSD_PLAIN = 1,     /**< in a plain token */
  VEPRA_PRSD_QUOTED = 2,    /**< in a quoted token */
  VEPRA_PRSD_CONTINUED = 3  /**< after a backslash between tokens */
};

/** One token; only the member that matches kind is set. */
typedef struct vepra_prsd_token_t {
  double value_double;  /**< kind VEPRA_PRSD_DOUBLE */
  int32_t value_int;    /**< kind VEPRA_PRSD_INTEGER */
  char *value_string;   /**< kind VEPRA_PRSD_STRING, a copy in the pool */
  uint32_t kind;        /**< vepra_prsd_kind */
} vepra_prsd_token_t;

/** Parse record, owned by the caller; zero it with vepra_prsd_clear_p()
 *  before the first line. */
typedef struct vepra_prsd_t {
  uint32_t n_double;  /**< floating-point tokens */
  uint32_t n_string;  /**< string tokens */
  uint32_t n_integer; /**< integer tokens */
  int32_t n_tokens;   /**< tokens stored (index of the next one) */
  uint32_t room;      /**< free entries left in tokens */
  vepra_prsd_token_t *tokens; /**< token array, in the parse calls' pools */
  uint32_t state;     /**< vepra_prsd_state */
} vepra_prsd_t;

/**
 * Parses line into rec, continuing in the state rec was left in. Between
 * tokens, separator characters are skipped, a backslash is dropped and
 * marks the record incomplete, and a double quote starts a quoted token
 * that ends at the next double quote (separators included). A plain token
 * ends at a separator. Each non-empty token becomes an integer when
 * vepra_str_to_integer() accepts it, else a double when
 * vepra_str_to_double() does, else a string copied into pool; the token
 * array and string copies come from pool and tokens may be of any length.
 * A token still open at the end of the line is stored and its state kept.
 * Returns 0, or -1 when pool memory ran out (the token is then dropped);
 * a null rec, line or pool does nothing and returns 0.
 *
 * @param[in,out] rec parse record, cleared before the first line
 * @param line text to parse, terminated by NUL
 * @param separators characters that separate tokens; null or "" means none
 * @param pool pool for the token array and the string copies
 * @return 0 on success, -1 when pool memory ran out
 */
VEPRA_API int vepra_prsd_parse_p(vepra_prsd_t *rec, const char *line,
                                 const char *separators, apr_pool_t *pool)
    VEPRA_NOTHROW;
/** 1 when the last line ended with a backslash between tokens (the next
 *  line continues the record), else 0; 0 for null.
 *  @param rec parse record, or null
 *  @return 1 when the record continues on the next line, else 0 */
VEPRA_API int vepra_prsd_incomplete(const vepra_prsd_t *rec) VEPRA_NOTHROW;
/** Zeroes every field of rec (the token array stays in its pool); nothing
 *  for null.
 *  @param[out] rec parse record to reset */
VEPRA_API void vepra_prsd_clear_p(vepra_prsd_t *rec) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_PRSD_H */
