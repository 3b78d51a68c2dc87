// List internals shared by the doubly linked lists and the circular slot
// lists, which use the same node record.
#ifndef VEPRA_SRC_CONTAINERS_DL_INTERNAL_HPP
#define VEPRA_SRC_CONTAINERS_DL_INTERNAL_HPP

#include <cstdint>

#include "vepra_dl.h"

namespace vepra::detail {

// Where a new node goes relative to the list handle.
enum class DlPlace {
  kFirst,   // before the first node of the chain
  kLast,    // after the last node
  kAfter,   // directly after the handle's node
  kBefore,  // directly before the handle's node
};

// Where a new node's memory comes from.
enum class DlAlloc { kPool, kHeap };

// Makes a node (from pool, or from vepra_mem_malloc for kHeap) carrying tag,
// data and flags and links it at place; an empty list's handle becomes the
// new node. Every failure is wrapped with context; the list is then
// unchanged and nothing stays allocated. The node goes to *out when out is
// not null.
[[nodiscard]] vepra_error_t *dl_add(vepra_dl_t **list, DlPlace place, const char *context,
                                    vepra_dl_t **out, uint32_t tag, void *data, uint32_t flags,
                                    DlAlloc alloc, apr_pool_t *pool) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CONTAINERS_DL_INTERNAL_HPP
