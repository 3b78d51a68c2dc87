/**
 * @file vepra_util.h
 * @brief Path helpers.
 */
#ifndef VEPRA_UTIL_H
#define VEPRA_UTIL_H

#include <stddef.h>
#include <stdint.h>

#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Writes the last component of path (trailing slashes removed) into buf
 *  of size bytes, cut to fit: "/" stays "/", "" gives ".". Returns buf. */
VEPRA_API char *vepra_util_basename(const char *path, char *buf, size_t size)
    VEPRA_NOTHROW;
/** Writes the directory part of path into buf of size bytes, cut to fit:
 *  "/" for "/" and for names directly under the root, "." for a name
 *  without a slash (and for ""). Returns buf. */
VEPRA_API char *vepra_util_dirname(const char *path, char *buf, size_t size)
    VEPRA_NOTHROW;

/** Number of bits set in value (population count), 0 to 64. */
VEPRA_API unsigned vepra_util_nsb64(uint64_t value) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_UTIL_H */
