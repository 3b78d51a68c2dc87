/**
 * @file vepra_log.h
 * @brief Append-only log files and the process clocks.
 */
#ifndef VEPRA_LOG_H
#define VEPRA_LOG_H

#include <stdio.h>

#include <apr_file_io.h>
#include <apr_pools.h>
#include <apr_time.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** A log file; lives in its own pool under the pool given at creation. */
typedef struct vepra_log_t {
  apr_pool_t *pool;     /**< the log's pool */
  apr_file_t *file;     /**< the open file */
  const char *filename; /**< copy of the file name */
} vepra_log_t;

/** Opens filename for appending (created if missing) in a new pool under
 *  parent. Errors, each wrapped by "Cannot create log.": code 0 with APR's
 *  text when the pool cannot be made (*log untouched); 120012 when the pool
 *  cannot give the record (*log untouched); code 0 with APR's text wrapped
 *  by "Can't open file '%s'" when the file cannot be opened (*log is then
 *  already set, to a record without file: writing to it is reported on
 *  stderr, terminating it does nothing).
 *  @param[out] log receives the record, owned by its pool; null gives
 *         code 0 with APR's text for EINVAL, and nothing is made
 *  @param filename path of the file; null fails as a file that cannot be
 *         opened, with the name "(null)"
 *  @param parent pool under which the log's pool is made
 *  @return null on success, or the error chain (codes 0, 120012) */
VEPRA_API vepra_error_t *vepra_log_create(vepra_log_t **log,
                                          const char *filename,
                                          apr_pool_t *parent) VEPRA_NOTHROW;
/** Appends the formatted text (cut to 999 characters; no newline added;
 *  nothing for an empty text). Never fails its caller: a failed write is
 *  printed on stderr ("Cannot write to log." over APR's text), and so is a
 *  write to a null log or one without file (failed creation, or after
 *  vepra_log_terminate()), over "The log file is not open.".
 *  @param log log from vepra_log_create(), or null
 *  @param format printf-style format of the text
 *  @param ... arguments of format */
VEPRA_API void vepra_log_printf(vepra_log_t *log, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 3);
/** As vepra_log_printf(), after the local date and time and ": " (two
 *  writes). A log without file is reported once, as above.
 *  @param log log from vepra_log_create(), or null
 *  @param format printf-style format of the text
 *  @param ... arguments of format */
VEPRA_API void vepra_log_dtprintf(vepra_log_t *log, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 3);
/** Printer for vepra_error_handle(): pass it with the log cast to FILE * as
 *  the stream; appends the line and a newline. Returns 0.
 *  @param line one line of the error report, without newline
 *  @param log a vepra_log_t * cast to FILE *, never a real stream
 *  @return 0, always */
VEPRA_API int vepra_log_errhandler(const char *line, FILE *log) VEPRA_NOTHROW;
/** Closes the log's file; its pool goes with its parent. Nothing for a
 *  null log or one without file; a failed close is printed on stderr with
 *  APR's text.
 *  @param log log from vepra_log_create(), or null */
VEPRA_API void vepra_log_terminate(vepra_log_t *log) VEPRA_NOTHROW;

/** Sets the clock-tick length; returns 0. Called by vepra_initialize().
 *  @return 0, always */
VEPRA_API int vepra_time_init(void) VEPRA_NOTHROW;
/** Wall-clock seconds since the epoch; 0.0 on failure.
 *  @return seconds since 1970-01-01 UTC, with microseconds as fraction */
VEPRA_API double vepra_time_real(void) VEPRA_NOTHROW;
/** Processor seconds (user + system) used by the process.
 *  @return seconds in clock ticks; 0.0 before vepra_time_init() */
VEPRA_API double vepra_time_cpu(void) VEPRA_NOTHROW;
/** Sleeps for the given number of microseconds.
 *  @param usec microseconds to sleep */
VEPRA_API void vepra_time_sleep(apr_interval_time_t usec) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_LOG_H */
