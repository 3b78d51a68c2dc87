/**
 * @file vepra_str.h
 * @brief String conversion, bounded copies, formatting, escapes and base62.
 */
#ifndef VEPRA_STR_H
#define VEPRA_STR_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** @name Bounded copies and formatting
 *  @{ */
/** BSD strlcpy: copies at most size-1 bytes and terminates when size > 0.
 *  Returns strlen(src); a result >= size means the copy was cut. */
VEPRA_API size_t vepra_str_strlcpy(char *dst, const char *src, size_t size)
    VEPRA_NOTHROW;
/** BSD strlcat: appends src within size bytes. Returns the length it tried
 *  to build (size + strlen(src) when dst has no terminator within size). */
VEPRA_API size_t vepra_str_strlcat(char *dst, const char *src, size_t size)
    VEPRA_NOTHROW;
/** snprintf into buf; returns the full length, negative on a format
 *  error. */
VEPRA_API int vepra_str_snprintf(char *buf, size_t size, const char *format,
                                 ...) VEPRA_NOTHROW VEPRA_PRINTF(3, 4);
/** Formats into a new string of pool; null on failure. */
VEPRA_API char *vepra_str_psprintf(apr_pool_t *pool, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 3);
/** va_list form of vepra_str_psprintf(). */
VEPRA_API char *vepra_str_pvsprintf(apr_pool_t *pool, const char *format,
                                    va_list ap) VEPRA_NOTHROW
    VEPRA_PRINTF(2, 0);
/** @} */

/** @name Formatted-output engine
 *  Same contract as the system's vsnprintf, snprintf, vasprintf and
 *  asprintf (the asprintf results are freed with free()).
 *  @{ */
VEPRA_API int rpl_vsnprintf(char *buf, size_t size, const char *format,
                            va_list ap) VEPRA_NOTHROW VEPRA_PRINTF(3, 0);
VEPRA_API int rpl_snprintf(char *buf, size_t size, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(3, 4);
VEPRA_API int rpl_vasprintf(char **out, const char *format, va_list ap)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 0);
VEPRA_API int rpl_asprintf(char **out, const char *format, ...) VEPRA_NOTHROW
    VEPRA_PRINTF(2, 3);
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_STR_H */
