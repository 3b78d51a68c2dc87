// Where a container's nodes come from: a caller's pool, whose nodes are
// never freed one by one, or the checked allocator, whose nodes are freed
// as soon as the container lets go of them. Shared by the lists, the trees
// and the tries, so the two flavours allocate and fail the same way.
#ifndef VEPRA_SRC_CONTAINERS_NODE_SOURCE_HPP
#define VEPRA_SRC_CONTAINERS_NODE_SOURCE_HPP

#include <cstddef>

#include <apr_pools.h>

#include "core/error_internal.hpp"
#include "vepra_mem.h"

namespace vepra::detail {

struct NodeSource {
  apr_pool_t *pool;  // the pool flavour's pool (unused by the heap flavour)
  bool heap;         // nodes from vepra_mem_calloc() and vepra_mem_free()

  // size zero-filled bytes into *out. Error: 120012 "Failed to allocate %zu
  // bytes of memory." with size (also for the pool flavour without a pool),
  // unwrapped: the caller adds its own context.
  vepra_error_t *alloc(size_t size, void **out) const noexcept {
    if (heap) return vepra_mem_calloc(1, size, out);
    void *p = pool != nullptr ? pool_calloc(pool, size) : nullptr;
    if (p == nullptr) return alloc_error(size);
    *out = p;
    return nullptr;
  }

  // Gives a node back; nothing for the pool flavour.
  void release(void *node) const noexcept {
    if (heap) vepra_mem_free(node);
  }
};

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CONTAINERS_NODE_SOURCE_HPP
