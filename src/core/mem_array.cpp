// N-dimensional arrays: a tree of zero-filled pointer tables over
// zero-filled element blocks, with bounds-checked element copies.
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "core/error_internal.hpp"
#include "vepra_mem.h"

using namespace vepra::detail;

namespace {

constexpr const char *kAlloc = "Cannot allocate array.";
constexpr const char *kCopyTo = "Cannot copy data to element.";
constexpr const char *kCopyFrom = "Cannot copy data from element.";
constexpr const char *kSetAll = "Cannot set all elements of an array";

bool is_last(const vepra_mem_array_t &a, int32_t level) noexcept { return level == a.ndims - 1; }

// Frees the node of a level and everything below it; null nodes (never
// built) are skipped.
void release(const vepra_mem_array_t &a, int32_t level, void *node) noexcept {
  if (node == nullptr) return;
  if (!is_last(a, level)) {
    auto **entries = static_cast<void **>(node);
    for (uint32_t i = 0; i < a.dims[level]; ++i) release(a, level + 1, entries[i]);
  }
  vepra_mem_free(node);
}

// Builds the node of a level into slot. On failure everything built for
// this node is freed again and slot is null.
vepra_error_t *build(const vepra_mem_array_t &a, int32_t level, void **slot) noexcept {
  *slot = nullptr;
  const size_t n = a.dims[level];
  if (is_last(a, level)) return vepra_mem_calloc(n, a.elsize, slot);
  if (n == 0) return make_error(VEPRA_E_NELEM, "Cannot allocate memory for %zu elements.", n);
  void *table = nullptr;
  if (vepra_error_t *e = vepra_mem_calloc(n, sizeof(void *), &table)) return e;
  auto **entries = static_cast<void **>(table);
  for (size_t i = 0; i < n; ++i) {
    if (vepra_error_t *e = build(a, level + 1, &entries[i])) {
      release(a, level, table);
      return e;
    }
  }
  *slot = table;
  return nullptr;
}

// True when every table and block of the shape can be counted in bytes:
// a shape whose size overflows is refused before anything is built.
bool shape_fits(const vepra_mem_array_t &a) noexcept {
  size_t nodes = 1;  // nodes at the current level
  size_t total = 0;
  for (int32_t level = 0; level < a.ndims; ++level) {
    const size_t unit = is_last(a, level) ? a.elsize : sizeof(void *);
    size_t bytes = 0;
    if (__builtin_mul_overflow(nodes, size_t{a.dims[level]}, &bytes) ||
        __builtin_mul_overflow(bytes, unit, &bytes) ||
        __builtin_add_overflow(total, bytes, &total) ||
        __builtin_mul_overflow(nodes, size_t{a.dims[level]}, &nodes)) {
      return false;
    }
  }
  return total <= static_cast<size_t>(PTRDIFF_MAX);
}

// Reads the dimensions after the first up to the terminating 0 into the
// header's list, which grows by one entry each.
vepra_error_t *read_dims(vepra_mem_array_t *a, va_list args) noexcept {
  for (int next = va_arg(args, int); next != 0; next = va_arg(args, int)) {
    void *grown = a->dims;
    const size_t bytes = static_cast<size_t>(a->ndims + 1) * sizeof(uint32_t);
    // The old list stays with the header when realloc fails.
    if (vepra_error_t *e = vepra_mem_realloc(bytes, &grown)) return e;
    a->dims = static_cast<uint32_t *>(grown);
    a->dims[a->ndims++] = static_cast<uint32_t>(next);
  }
  return nullptr;
}

vepra_error_t *fill_header(vepra_mem_array_t *a, size_t size, int first, va_list args) noexcept {
  void *dims = nullptr;
  if (vepra_error_t *e = vepra_mem_calloc(1, sizeof(uint32_t), &dims)) return e;
  a->dims = static_cast<uint32_t *>(dims);
  a->dims[0] = static_cast<uint32_t>(first);
  a->ndims = 1;
  if (vepra_error_t *e = read_dims(a, args)) return e;
  a->elsize = size;
  if (!shape_fits(*a)) {
    return make_error(VEPRA_E_ALLOC, "Failed to allocate %zu bytes of memory.", SIZE_MAX);
  }
  return build(*a, 0, &a->data);
}

// The address of the element at index, or a code 0 error naming the first
// check that fails.
vepra_error_t *locate(const vepra_mem_array_t *a, size_t size, unsigned n, const uint32_t *index,
                      char **where) noexcept {
  if (a == nullptr) return make_error(0, "No array given");
  if (size != a->elsize)
    return make_error(0, "Expected element size %zu, found %zu", a->elsize, size);
  if (static_cast<int64_t>(n) != a->ndims) {
    return make_error(0, "Expected dimensions %d, found %d", a->ndims, static_cast<int>(n));
  }
  if (index == nullptr) return make_error(0, "No index given");
  void *p = a->data;
  for (int32_t d = 0; d < a->ndims; ++d) {
    if (index[d] >= a->dims[d]) {
      return make_error(0, "Number of values in dimension %d is %d, requested position is %d",
                        d + 1, static_cast<int>(a->dims[d]), static_cast<int>(index[d]));
    }
    if (!is_last(*a, d)) p = static_cast<void **>(p)[index[d]];
  }
  *where = static_cast<char *>(p) + size_t{index[a->ndims - 1]} * a->elsize;
  return nullptr;
}

void set_level(const vepra_mem_array_t &a, int32_t level, void *node, int value) noexcept {
  if (is_last(a, level)) {
    std::memset(node, value, size_t{a.dims[level]} * a.elsize);
    return;
  }
  auto **entries = static_cast<void **>(node);
  for (uint32_t i = 0; i < a.dims[level]; ++i) set_level(a, level + 1, entries[i], value);
}

}  // namespace

extern "C" {

vepra_error_t *vepra_mem_array_valloc(vepra_mem_array_t **out, size_t size, int first,
                                      va_list dims) noexcept {
  if (size == 0) {
    return make_error(VEPRA_E_ELEM_SIZE, "Cannot allocate array for elements of size %zu bytes.",
                      size);
  }
  if (first == 0) {
    return make_error(VEPRA_E_NELEM, "Cannot allocate memory for %d elements in first dimension.",
                      first);
  }
  void *header = nullptr;
  vepra_error_t *e = vepra_mem_calloc(1, sizeof(vepra_mem_array_t), &header);
  *out = static_cast<vepra_mem_array_t *>(header);
  if (e != nullptr) return wrap_error(e, "%s", kAlloc);
  va_list args;
  va_copy(args, dims);
  e = fill_header(*out, size, first, args);
  va_end(args);
  if (e != nullptr) {
    vepra_mem_array_free(*out);
    *out = nullptr;
    return wrap_error(e, "%s", kAlloc);
  }
  return nullptr;
}

vepra_error_t *vepra_mem_array_alloc(vepra_mem_array_t **out, size_t size, int first,
                                     ...) noexcept {
  va_list args;
  va_start(args, first);
  vepra_error_t *e = vepra_mem_array_valloc(out, size, first, args);
  va_end(args);
  return e;
}

void vepra_mem_array_free(vepra_mem_array_t *array) noexcept {
  if (array == nullptr) return;
  if (array->dims != nullptr) release(*array, 0, array->data);
  vepra_mem_free(array->dims);
  vepra_mem_free(array);
}

vepra_error_t *vepra_mem_array_copytoel(vepra_mem_array_t *array, const void *src, size_t size,
                                        unsigned n, const uint32_t *index) noexcept {
  char *at = nullptr;
  VEPRA_RETURN_IF_ERROR(locate(array, size, n, index, &at), "%s", kCopyTo);
  std::memcpy(at, src, size);
  return nullptr;
}

vepra_error_t *vepra_mem_array_copyfromel(const vepra_mem_array_t *array, void *dst, size_t size,
                                          unsigned n, const uint32_t *index) noexcept {
  char *at = nullptr;
  VEPRA_RETURN_IF_ERROR(locate(array, size, n, index, &at), "%s", kCopyFrom);
  std::memcpy(dst, at, size);
  return nullptr;
}

vepra_error_t *vepra_mem_array_allset(vepra_mem_array_t *array, int value, size_t size) noexcept {
  if (array == nullptr) return make_wrapped(0, kSetAll, "No array given");
  if (size != array->elsize) {
    return make_wrapped(0, kSetAll, "Expected element size %zu, found %zu", array->elsize, size);
  }
  set_level(*array, 0, array->data, value);
  return nullptr;
}

}  // extern "C"
