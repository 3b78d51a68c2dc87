/**
 * @file vepra_dir.h
 * @brief Directory traversal with composite name patterns.
 *
 * vepra_dir_traverse() walks a directory, optionally into its
 * subdirectories, and calls a caller function for every regular file or
 * symbolic link whose full path matches a composite include pattern and no
 * composite exclude pattern. A composite pattern is one string holding
 * several shell patterns separated by ";", for example "*.tif;*.png"; each
 * piece is matched with apr_fnmatch() against the full path (directory,
 * "/", name), not the bare name.
 */
#ifndef VEPRA_DIR_H
#define VEPRA_DIR_H

#include <stdint.h>

#include <apr_pools.h>
#include <apr_tables.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Flag bits of vepra_dir_options_t. The low four are handed to
 *  apr_fnmatch() and have the values of its APR_FNM_* flags. */
enum vepra_dir_flag {
  VEPRA_DIR_NOESCAPE = 0x01,   /**< backslash is an ordinary character */
  VEPRA_DIR_PATHNAME = 0x02,   /**< "/" is matched only by "/" */
  VEPRA_DIR_PERIOD = 0x04,     /**< a leading "." must be matched by "." */
  VEPRA_DIR_CASE_BLIND = 0x08, /**< letters match regardless of case */
  VEPRA_DIR_RECURSIVE = 0x10,  /**< descend into subdirectories */
  VEPRA_DIR_STOP_ON_ERROR = 0x20 /**< a callback failure ends the walk */
};

/** Called for every matching file with its full path (valid during the
 *  call), the options' user pointer and a pool that is cleared after the
 *  call. Returns null, or an error chain whose ownership passes to the
 *  traversal. Must not throw.
 *  @param path full path of the matching file: directory, "/", name
 *  @param user vepra_dir_options_t::user, unchanged
 *  @param pool scratch pool, cleared after the call
 *  @return null to go on, an error chain (owned by the traversal from then
 *          on), or VepraDLlistStopWalking to end the walk successfully */
typedef vepra_error_t *(*vepra_dir_callback_fn)(const char *path, void *user,
                                                apr_pool_t *pool);

/** Traversal options, owned by the caller. */
typedef struct vepra_dir_options_t {
  /** vepra_dir_flag bits: 0x01 to 0x08 for the matching, 0x10 to descend
   *  into subdirectories, 0x20 to stop at the first callback failure. */
  uint32_t flags;
  /** Exclude pattern pieces (const char *), or null. */
  apr_array_header_t *exclude;
  /** Include pattern pieces (const char *), or null. With an array, a path
   *  must match one of its pieces; an array without pieces matches
   *  nothing. */
  apr_array_header_t *include;
  /** Called for every matching file; may be null. */
  vepra_dir_callback_fn callback;
  /** Handed to callback. */
  void *user;
} vepra_dir_options_t;

/**
 * Walks dir and calls options->callback for every regular file and
 * symbolic link that passes the patterns.
 *
 * A non-null include or exclude string is split on ";" (empty pieces are
 * dropped) into a new array in pool that replaces options->include or
 * options->exclude and stays there after the call; a null string keeps the
 * array the options already hold. The low four bits of options->flags are
 * the apr_fnmatch() flags. Files of a directory are reported in the order
 * the file system lists them; with VEPRA_DIR_RECURSIVE each subdirectory
 * is then walked, depth first, in that same order. Symbolic links are
 * reported like files and never followed, so a link to a directory (or a
 * link loop) is not entered. The walk keeps its pending directories on the
 * heap, so the depth of a tree is limited only by the length of its paths.
 *
 * A callback failure is printed with vepra_error_stdhandler() on standard
 * output and cleared, and the walk goes on; with VEPRA_DIR_STOP_ON_ERROR it
 * is returned instead, wrapped by "Cannot traverse directories.". A
 * callback that returns VepraDLlistStopWalking ends the walk, which then
 * succeeds (the sentinel is neither printed nor cleared).
 *
 * Errors, each wrapped by "Cannot traverse directories.": a directory that
 * cannot be opened (APR's text after "(<directory>)"), a path longer than
 * APR_PATH_MAX allows (APR's text), a failed close, a null dir, options or
 * pool (APR's text for EINVAL), and the callback failures above. The first of
 * them ends the walk.
 *
 * @param dir directory to walk; not null
 * @param include ";"-separated include patterns, or null to keep
 *        options->include
 * @param exclude ";"-separated exclude patterns, or null to keep
 *        options->exclude
 * @param[in,out] options flags, patterns and callback; not null; its
 *        include and exclude arrays are replaced when the strings are given
 * @param pool pool for the pattern arrays and the walk's scratch pools;
 *        not null
 * @return null on success (also when the callback stopped the walk), or
 *         the error chain wrapped by "Cannot traverse directories." (APR
 *         status codes, 120013 when the list of pending directories cannot
 *         grow, or the callback's own codes)
 */
VEPRA_API vepra_error_t *vepra_dir_traverse(const char *dir,
                                            const char *include,
                                            const char *exclude,
                                            vepra_dir_options_t *options,
                                            apr_pool_t *pool) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_DIR_H */
