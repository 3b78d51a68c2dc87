// Bit arrays: a record and a word store from the checked allocator, grown
// by powers of two, with whole-array operations that keep the bits past the
// length and the words past the used ones zero.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/error_internal.hpp"
#include "sys/popcount.hpp"
#include "vepra_bitarr.h"
#include "vepra_mem.h"

using namespace vepra::detail;

namespace {

constexpr const char *kCreate = "Cannot create bit array.";
constexpr const char *kResize = "Cannot resize bit array.";
constexpr uint64_t kWordBits = 64;
constexpr uint64_t kMinCapacity = 8;

uint64_t words_for(uint64_t bits) noexcept { return bits / kWordBits + (bits % kWordBits != 0); }

// The capacity for used words: the smallest power of two above used, at
// least 8. False when it, or its size in bytes, does not fit.
bool capacity_for(uint64_t used, uint64_t *capacity) noexcept {
  if (used >= (uint64_t{1} << 63)) return false;
  *capacity = std::max(kMinCapacity, std::bit_floor(used) << 1);
  return *capacity <= SIZE_MAX / sizeof(uint64_t);
}

// Keeps only the bits below the length in the last used word (clears word
// 0 of an empty array).
void mask_last_word(vepra_bitarr_t *a) noexcept {
  const uint64_t tail = a->bits % kWordBits;
  if (a->used == 0) {
    a->words[0] = 0;
  } else if (tail != 0) {
    a->words[a->used - 1] &= (uint64_t{1} << tail) - 1;
  }
}

void zero_words(uint64_t *words, uint64_t from, uint64_t to) noexcept {
  if (to > from) std::memset(words + from, 0, (to - from) * sizeof(uint64_t));
}

vepra_error_t *grow(vepra_bitarr_t *a, uint64_t used) noexcept {
  uint64_t capacity = 0;
  if (!capacity_for(used, &capacity)) {
    return make_wrapped(VEPRA_E_REALLOC, kResize, "Failed to reallocate memory for %zu bytes.",
                        SIZE_MAX);
  }
  // The old block stays valid (and in the record) when realloc fails.
  void *block = a->words;
  VEPRA_RETURN_IF_ERROR(vepra_mem_realloc(capacity * sizeof(uint64_t), &block), "%s", kResize);
  a->words = static_cast<uint64_t *>(block);
  zero_words(a->words, a->capacity, capacity);
  a->capacity = capacity;
  return nullptr;
}

// Combines the used words of a and b (either may be null: no words) into
// *result, resized to the longer length. both(x, y) gives the words below
// the shorter used count; past it, keep_longer says whether the longer
// array's words are copied or the result stays zero.
template <class Both>
vepra_error_t *combine(const vepra_bitarr_t *a, const vepra_bitarr_t *b, vepra_bitarr_t **result,
                       Both &&both, bool keep_longer) noexcept {
  if (result == nullptr) return nullptr;
  if (a == nullptr) std::swap(a, b);
  const uint64_t a_used = a != nullptr ? a->used : 0;
  const uint64_t b_used = b != nullptr ? b->used : 0;
  const uint64_t bits = std::max(a != nullptr ? a->bits : 0, b != nullptr ? b->bits : 0);
  // Resizing first is safe when result names a or b: growing keeps the
  // used words and adds zero ones, and the result is never shorter.
  if (vepra_error_t *e = vepra_bitarr_resize(result, bits)) return e;
  vepra_bitarr_t *r = *result;
  const uint64_t shorter = std::min(a_used, b_used);
  uint64_t *out = r->words;
  for (uint64_t i = 0; i < shorter; ++i) out[i] = both(a->words[i], b->words[i]);
  const vepra_bitarr_t *longer = a_used >= b_used ? a : b;
  const uint64_t longest = std::max(a_used, b_used);
  if (!keep_longer) {
    zero_words(out, shorter, longest);
  } else if (longer != nullptr && longer != r && longest > shorter) {
    std::memcpy(out + shorter, longer->words + shorter, (longest - shorter) * sizeof(uint64_t));
  }
  return nullptr;
}

}  // namespace

extern "C" {

vepra_error_t *vepra_bitarr_create(vepra_bitarr_t **out, uint64_t bits) noexcept {
  if (out == nullptr) return nullptr;
  const uint64_t used = words_for(bits);
  uint64_t capacity = 0;
  if (!capacity_for(used, &capacity)) {
    return make_wrapped(VEPRA_E_ALLOC, kCreate, "Failed to allocate %zu bytes of memory.",
                        SIZE_MAX);
  }
  void *record = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_mem_malloc(sizeof(vepra_bitarr_t), &record), "%s", kCreate);
  void *words = nullptr;
  if (vepra_error_t *e = vepra_mem_calloc(capacity, sizeof(uint64_t), &words)) {
    vepra_mem_free(record);
    return wrap_error(e, "%s", kCreate);
  }
  auto *a = static_cast<vepra_bitarr_t *>(record);
  *a = vepra_bitarr_t{static_cast<uint64_t *>(words), bits, used, capacity};
  *out = a;
  return nullptr;
}

vepra_error_t *vepra_bitarr_resize(vepra_bitarr_t **array, uint64_t bits) noexcept {
  if (array == nullptr) return nullptr;
  if (*array == nullptr) {
    VEPRA_RETURN_IF_ERROR(vepra_bitarr_create(array, bits), "%s", kResize);
    return nullptr;
  }
  vepra_bitarr_t *a = *array;
  const uint64_t used = words_for(bits);
  if (used > a->capacity) {
    if (vepra_error_t *e = grow(a, used)) return e;
  } else {
    zero_words(a->words, used, a->used);
  }
  a->bits = bits;
  a->used = used;
  mask_last_word(a);
  return nullptr;
}

void vepra_bitarr_free(vepra_bitarr_t *array) noexcept {
  if (array == nullptr) return;
  vepra_mem_free(array->words);
  vepra_mem_free(array);
}

vepra_error_t *vepra_bitarr_clone(const vepra_bitarr_t *source, vepra_bitarr_t **out) noexcept {
  if (out == nullptr) return nullptr;
  *out = nullptr;
  if (source == nullptr || source->bits == 0) return nullptr;
  vepra_bitarr_t *copy = nullptr;
  if (vepra_error_t *e = vepra_bitarr_create(&copy, source->bits)) return e;
  std::memcpy(copy->words, source->words, source->used * sizeof(uint64_t));
  *out = copy;
  return nullptr;
}

void vepra_bitarr_set_all(vepra_bitarr_t *array) noexcept {
  if (array == nullptr) return;
  std::fill_n(array->words, array->used, ~uint64_t{0});
  mask_last_word(array);
}

void vepra_bitarr_clear_all(vepra_bitarr_t *array) noexcept {
  if (array != nullptr) zero_words(array->words, 0, array->used);
}

void vepra_bitarr_toggle_all(vepra_bitarr_t *array) noexcept {
  if (array == nullptr) return;
  for (uint64_t i = 0; i < array->used; ++i) array->words[i] = ~array->words[i];
  mask_last_word(array);
}

uint64_t vepra_bitarr_num_bits_set(const vepra_bitarr_t *array) noexcept {
  return array != nullptr ? count_bits(array->words, array->used) : 0;
}

uint64_t vepra_bitarr_num_bits_cleared(const vepra_bitarr_t *array) noexcept {
  return array != nullptr ? array->bits - vepra_bitarr_num_bits_set(array) : 0;
}

vepra_error_t *vepra_bitarr_or(const vepra_bitarr_t *a, const vepra_bitarr_t *b,
                               vepra_bitarr_t **result) noexcept {
  return combine(
      a, b, result, [](uint64_t x, uint64_t y) { return x | y; }, true);
}

vepra_error_t *vepra_bitarr_and(const vepra_bitarr_t *a, const vepra_bitarr_t *b,
                                vepra_bitarr_t **result) noexcept {
  return combine(
      a, b, result, [](uint64_t x, uint64_t y) { return x & y; }, false);
}

void vepra_bitarr_print(const vepra_bitarr_t *array, FILE *stream) noexcept {
  if (array == nullptr || stream == nullptr) return;
  char chunk[4096];
  size_t fill = 0;
  for (uint64_t i = 0; i < array->bits; ++i) {
    chunk[fill++] = ((array->words[i / kWordBits] >> (i % kWordBits)) & 1) != 0 ? '1' : '0';
    if (fill == sizeof chunk) {
      std::fwrite(chunk, 1, fill, stream);
      fill = 0;
    }
  }
  if (fill != 0) std::fwrite(chunk, 1, fill, stream);
}

uint64_t vepra_bitarr_tostr(const vepra_bitarr_t *array, char *buf, size_t size, int one,
                            int zero) noexcept {
  const uint64_t bits = array != nullptr ? array->bits : 0;
  if (buf == nullptr || size == 0) return bits;
  const char set = static_cast<char>(one & 0xff) != 0 ? static_cast<char>(one & 0xff) : '1';
  const char clear = static_cast<char>(zero & 0xff) != 0 ? static_cast<char>(zero & 0xff) : '0';
  const uint64_t n = std::min<uint64_t>(bits, size - 1);
  for (uint64_t i = 0; i < n; ++i) {
    buf[i] = ((array->words[i / kWordBits] >> (i % kWordBits)) & 1) != 0 ? set : clear;
  }
  buf[n] = '\0';
  return bits;
}

}  // extern "C"
