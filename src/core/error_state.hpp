// Private state of the error system, shared by the record functions and the
// reporting functions.
#ifndef VEPRA_SRC_CORE_ERROR_STATE_HPP
#define VEPRA_SRC_CORE_ERROR_STATE_HPP

#include <apr_pools.h>
#include <apr_tables.h>
#include <apr_thread_mutex.h>

namespace vepra::detail {

struct ErrorState {
  apr_pool_t *pool = nullptr;              // parent of every chain's pool
  apr_array_header_t *registry = nullptr;  // slot i: name of code 125000 + i
  apr_thread_mutex_t *mutex = nullptr;     // guards registry and handler
};

extern ErrorState g_error;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CORE_ERROR_STATE_HPP
