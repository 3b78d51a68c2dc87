// Checked allocation, and vectors and matrices with arbitrary index bounds.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/error_internal.hpp"
#include "core/testing.hpp"
#include "vepra_mem.h"

using vepra::detail::alloc_error;
using vepra::detail::checked_calloc;
using vepra::detail::checked_malloc;
using vepra::detail::checked_realloc;
using vepra::detail::make_error;
using vepra::detail::wrap_error;

namespace {

constexpr size_t kRowPointerSize = sizeof(void *);

// Element counts are computed in 32-bit arithmetic (hi - lo + 1, wrapping)
// and widened with their sign, so a range with hi < lo - 1 asks for an
// impossible size and fails in the allocator.
int32_t span_count(int lo, int hi) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(hi) - static_cast<uint32_t>(lo) + 1u);
}

size_t widen(int32_t n) noexcept { return static_cast<size_t>(static_cast<ptrdiff_t>(n)); }

// Address arithmetic for the offset pointers: done on integers, since the
// shifted pointer may lie outside the block.
void *shift(void *p, ptrdiff_t elements, size_t size) noexcept {
  return reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(p) +
                                  static_cast<uintptr_t>(elements) * size);
}

vepra_error_t *calloc_error(size_t count, size_t size, void **out) noexcept {
  if (count == 0) return make_error(VEPRA_E_NELEM, "Cannot allocate memory for %zu elements.", count);
  if (size == 0) {
    return make_error(VEPRA_E_ELEM_SIZE, "Cannot allocate memory for element of size %zu bytes.",
                      size);
  }
  *out = checked_calloc(count, size);
  if (*out == nullptr) {
    return alloc_error(count * size);
  }
  return nullptr;
}

}  // namespace

extern "C" {

vepra_error_t *vepra_mem_calloc(size_t count, size_t size, void **out) noexcept {
  return calloc_error(count, size, out);
}

vepra_error_t *vepra_mem_malloc(size_t size, void **out) noexcept {
  if (size == 0) return make_error(VEPRA_E_MEM_SIZE, "Cannot allocate memory of size %zu bytes.", size);
  *out = checked_malloc(size);
  if (*out == nullptr) return alloc_error(size);
  return nullptr;
}

vepra_error_t *vepra_mem_realloc(size_t size, void **ptr) noexcept {
  if (size == 0) return make_error(VEPRA_E_MEM_SIZE, "Cannot allocate memory for %zu bytes.", size);
  *ptr = checked_realloc(*ptr, size);
  if (*ptr == nullptr) {
    return make_error(VEPRA_E_REALLOC, "Failed to reallocate memory for %zu bytes.", size);
  }
  return nullptr;
}

void *vepra_mem_move(void *dest, const void *src, size_t n) noexcept {
  return n != 0 ? std::memmove(dest, src, n) : dest;
}

void *vepra_mem_copy(void *dest, const void *src, size_t n) noexcept {
  return n != 0 ? std::memcpy(dest, src, n) : dest;
}

void vepra_mem_free(void *ptr) noexcept { std::free(ptr); }

vepra_error_t *vepra_mem_vector_alloc(void **out, size_t size, int lo, int hi) noexcept {
  void *block = nullptr;
  vepra_error_t *e = calloc_error(widen(span_count(lo, hi)), size, &block);
  if (e != nullptr) return wrap_error(e, "Cannot allocate vector.");
  *out = shift(block, -static_cast<ptrdiff_t>(lo), size);
  return nullptr;
}

void vepra_mem_vector_free(void *vector, size_t size, int lo) noexcept {
  if (vector != nullptr) std::free(shift(vector, lo, size));
}

vepra_error_t *vepra_mem_matrix_alloc(void **out, size_t size, int row_lo, int row_hi,
                                      int col_lo, int col_hi) noexcept {
  const int32_t rows = span_count(row_lo, row_hi);
  if (rows == 0) {
    return wrap_error(
        make_error(VEPRA_E_MEM_SIZE, "Cannot allocate memory of size %zu bytes.", size_t{0}),
        "Cannot allocate matrix.");
  }
  size_t table_bytes = 0;
  void **table = nullptr;
  if (!__builtin_mul_overflow(widen(rows), kRowPointerSize, &table_bytes)) {
    table = static_cast<void **>(checked_malloc(table_bytes));
  }
  if (table == nullptr) {
    return wrap_error(alloc_error(widen(rows) * kRowPointerSize), "Cannot allocate matrix.");
  }
  // Rows not yet made stay null, so that a matrix left behind by a failure
  // below can still be released with vepra_mem_matrix_free().
  std::memset(table, 0, table_bytes);
  void **rows_at = static_cast<void **>(shift(table, -static_cast<ptrdiff_t>(row_lo), kRowPointerSize));
  *out = rows_at;
  if (row_hi < row_lo) return nullptr;
  for (int32_t i = 0; i < rows; ++i) {
    void *block = nullptr;
    vepra_error_t *e = calloc_error(widen(span_count(col_lo, col_hi)), size, &block);
    if (e != nullptr) return wrap_error(e, "Cannot allocate matrix.");
    table[i] = shift(block, -static_cast<ptrdiff_t>(col_lo), size);
  }
  return nullptr;
}

void vepra_mem_matrix_free(void *matrix, size_t size, int row_lo, int row_hi,
                           int col_lo) noexcept {
  if (matrix == nullptr) return;
  void **table = static_cast<void **>(shift(matrix, row_lo, kRowPointerSize));
  const int32_t rows = span_count(row_lo, row_hi);
  for (int32_t i = 0; i < rows; ++i) {
    if (table[i] != nullptr) std::free(shift(table[i], col_lo, size));
  }
  std::free(table);
}

}  // extern "C"
