// Internal error helpers: the one way the library builds, formats and wraps
// its own error records. Every module uses these instead of calling the
// public _i functions by hand, so the library's records consistently carry
// type 0 and no source location.
#ifndef VEPRA_SRC_CORE_ERROR_INTERNAL_HPP
#define VEPRA_SRC_CORE_ERROR_INTERNAL_HPP

#include <cstddef>

#include <apr_errno.h>
#include <apr_pools.h>

#include "vepra_error.h"

namespace vepra::detail {

// A one-record error of type 0 with the given code and no message (it
// prints the code's own text).
[[nodiscard]] vepra_error_t *make_error(int code) noexcept;

// A one-record error of type 0 with the given code and a printf-formatted
// message.
[[nodiscard]] vepra_error_t *make_error(int code, const char *format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// Adds context to cause: a record repeating cause's type and code with the
// formatted text. Takes over cause and returns the new head.
[[nodiscard]] vepra_error_t *wrap_error(vepra_error_t *cause, const char *format,
                                        ...) noexcept
    __attribute__((format(printf, 2, 3)));

// make_error(code, format, ...) wrapped at once by the fixed text context:
// the two-record chain that most failures of the library report.
[[nodiscard]] vepra_error_t *make_wrapped(int code, const char *context,
                                          const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// A one-record chain, type 0, code 0, with APR's text for status.
[[nodiscard]] vepra_error_t *apr_error(apr_status_t status) noexcept;

// APR's text for status, wrapped by the fixed text context.
[[nodiscard]] vepra_error_t *apr_wrapped(apr_status_t status,
                                         const char *context) noexcept;

// Builds the fatal chain (APR's text for status, then context, then the
// malfunction record "Impossible to continue. Aborting...") and passes it to
// the malfunction handler. Returns whatever the handler returns (the default
// handler never returns).
vepra_error_t *fatal(apr_status_t status, const char *context) noexcept;

// The error system's own pool; null before vepra_error_initialize().
apr_pool_t *error_pool() noexcept;

// Code 120012 with "Failed to allocate %zu bytes of memory." for bytes: the
// record of every failed allocation of a known size.
[[nodiscard]] vepra_error_t *alloc_error(size_t bytes) noexcept;

// The static record handed out when memory is too short even to build an
// error and the malfunction handler returned: type 2, code 0, a fixed
// message, in no pool. vepra_error_clear() ignores it, wrapping it returns
// it unchanged, vepra_error_handle() prints it. Compared by address.
vepra_error_t *out_of_memory() noexcept;

// Frees a chain that nobody can be handed any more: clears it unless it is
// null or the static out-of-memory record.
void discard(vepra_error_t *chain) noexcept;

// Creates a pool of the library under parent (null: a root pool) with the
// library's abort function, so that a failed allocation in it, or in any
// pool created under it, raises the fatal chain.
apr_status_t create_pool(apr_pool_t **pool, apr_pool_t *parent) noexcept;

// size zero-filled bytes from pool, or null when the pool cannot give them
// (apr_pcalloc() would write through the null pointer).
void *pool_calloc(apr_pool_t *pool, size_t size) noexcept;

}  // namespace vepra::detail

// Evaluates expr once; on failure wraps its chain with a context text and
// returns the new head from the enclosing function.
#define VEPRA_RETURN_IF_ERROR(expr, ...)                                   \
  do {                                                                     \
    vepra_error_t *vepra_err_ = (expr);                                    \
    if (vepra_err_ != nullptr)                                             \
      return ::vepra::detail::wrap_error(vepra_err_, __VA_ARGS__);         \
  } while (0)

#endif  // VEPRA_SRC_CORE_ERROR_INTERNAL_HPP
