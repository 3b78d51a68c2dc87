// Internal error helpers: the one way the library builds, formats and wraps
// its own error records. Every module uses these instead of calling the
// public _i functions by hand, so the library's records consistently carry
// type 0 and no source location.
#ifndef VEPRA_SRC_CORE_ERROR_INTERNAL_HPP
#define VEPRA_SRC_CORE_ERROR_INTERNAL_HPP

#include <apr_errno.h>

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
