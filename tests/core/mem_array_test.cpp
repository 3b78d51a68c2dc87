// N-dimensional arrays against a flat reference array: random shapes of 1
// to 5 dimensions, every bounds error with its text, set-all, and
// allocation failing at every table and block.
#include <malloc.h>

#include <cstdarg>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_mem.h"

namespace {

using namespace vepra_test;

// Forwards a zero-terminated list of further dimensions, as a caller's own
// variadic function would.
vepra_error_t *forward(vepra_mem_array_t **out, size_t size, int first, ...) {
  va_list args;
  va_start(args, first);
  vepra_error_t *e = vepra_mem_array_valloc(out, size, first, args);
  va_end(args);
  return e;
}

// Up to five dimensions, unused ones 0 so that the list ends there.
vepra_error_t *alloc_shape(vepra_mem_array_t **out, size_t size, const std::vector<int> &d) {
  int v[6] = {};
  std::copy(d.begin(), d.end(), v);
  return forward(out, size, v[0], v[1], v[2], v[3], v[4], 0);
}

size_t flat_index(const std::vector<int> &dims, const std::vector<uint32_t> &at) {
  size_t flat = 0;
  for (size_t d = 0; d < dims.size(); ++d) flat = flat * static_cast<size_t>(dims[d]) + at[d];
  return flat;
}

class MemArrayTest : public LibraryTest {};

// Element addressing, set-all and the bounds check of each dimension,
// against a flat row-major copy.
TEST_F(MemArrayTest, RandomShapesMatchFlatReference) {
  std::mt19937 rng(31);
  for (int round = 0; round < 40; ++round) {
    std::vector<int> dims(1 + rng() % 5);
    size_t total = 1;
    for (int &d : dims) total *= static_cast<size_t>(d = 1 + static_cast<int>(rng() % 5));
    const size_t size = std::vector<size_t>{1, 2, 3, 8, 12}[rng() % 5];
    vepra_mem_array_t *a = nullptr;
    ASSERT_EQ(alloc_shape(&a, size, dims), nullptr);
    ASSERT_EQ(a->ndims, static_cast<int32_t>(dims.size()));
    ASSERT_TRUE(std::equal(dims.begin(), dims.end(), a->dims));
    EXPECT_EQ(a->elsize, size);
    std::vector<unsigned char> flat(total * size, 0);
    const unsigned n = static_cast<unsigned>(dims.size());
    std::vector<uint32_t> at(n);
    std::vector<unsigned char> element(size), back(size);
    for (int step = 0; step < 200; ++step) {
      for (unsigned d = 0; d < n; ++d) at[d] = rng() % static_cast<uint32_t>(dims[d]);
      unsigned char *ref = &flat[flat_index(dims, at) * size];
      if (step % 3 != 0) {
        for (auto &b : element) b = static_cast<unsigned char>(rng());
        ASSERT_EQ(vepra_mem_array_copytoel(a, element.data(), size, n, at.data()), nullptr);
        std::memcpy(ref, element.data(), size);
      }
      ASSERT_EQ(vepra_mem_array_copyfromel(a, back.data(), size, n, at.data()), nullptr);
      ASSERT_EQ(std::memcmp(back.data(), ref, size), 0);
      // One index past its dimension (or wrapped from a negative int), in a
      // write or a read.
      const unsigned d = static_cast<unsigned>(rng() % n);
      std::vector<uint32_t> bad = at;
      bad[d] = step % 2 ? static_cast<uint32_t>(dims[d]) : static_cast<uint32_t>(-1);
      const bool write = step % 4 < 2;
      vepra_error_t *e = write ? vepra_mem_array_copytoel(a, element.data(), size, n, bad.data())
                               : vepra_mem_array_copyfromel(a, back.data(), size, n, bad.data());
      EXPECT_EQ(take_printed(e), std::string("Error: Cannot copy data ") + (write ? "to" : "from") +
                                     " element. \nError: Number of values in dimension " +
                                     std::to_string(d + 1) + " is " + std::to_string(dims[d]) +
                                     ", requested position is " +
                                     std::to_string(static_cast<int>(bad[d])) + " ");
    }
    ASSERT_EQ(vepra_mem_array_allset(a, 0xA5, size), nullptr);
    for (size_t i = 0; i < total; ++i) {
      std::vector<uint32_t> pos(n);
      for (size_t j = i, d = n; d-- > 0; j /= static_cast<size_t>(dims[d])) {
        pos[d] = static_cast<uint32_t>(j % static_cast<size_t>(dims[d]));
      }
      ASSERT_EQ(vepra_mem_array_copyfromel(a, back.data(), size, n, pos.data()), nullptr);
      ASSERT_EQ(back, std::vector<unsigned char>(size, 0xA5));
    }
    vepra_mem_array_free(a);
  }
}

// Each refusal names the dimension or size at fault and leaves out alone.
TEST_F(MemArrayTest, ShapesAndMessages) {
  vepra_mem_array_t *a = nullptr;
  ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 3, 4, 0), nullptr);
  ASSERT_EQ(a->ndims, 2);
  auto **rows = static_cast<double **>(a->data);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(rows[r][c], 0.0);
  const uint32_t corner[2] = {2, 3};
  const double x = 1.5;
  EXPECT_EQ(vepra_mem_array_copytoel(a, &x, 8, 2, corner), nullptr);
  EXPECT_EQ(rows[2][3], 1.5);
  const struct {
    vepra_error_t *error;
    const char *text;
  } cases[] = {
      {vepra_mem_array_copytoel(a, &x, 4, 2, corner),
       "Error: Cannot copy data to element. \nError: Expected element size 8, found 4 "},
      {vepra_mem_array_copyfromel(a, nullptr, 8, 3, corner),
       "Error: Cannot copy data from element. \nError: Expected dimensions 2, found 3 "},
      {vepra_mem_array_allset(a, 0, 2),
       "Error: Cannot set all elements of an array \nError: Expected element size 8, found 2 "},
      {vepra_mem_array_alloc(&a, 0, 3, 0),
       "Error(120011): Cannot allocate array for elements of size 0 bytes. "},
      {vepra_mem_array_alloc(&a, 8, 0, 4, 0),
       "Error(120010): Cannot allocate memory for 0 elements in first dimension. "},
  };
  for (const auto &c : cases) EXPECT_EQ(take_printed(c.error), c.text);
  vepra_mem_array_free(a);  // still the 3 x 4 array: refused allocations leave out alone

  vepra_mem_array_free(nullptr);

  // Freeing returns every table and block: the C library's count of heap
  // bytes in use is back where it was.
  const size_t before = mallinfo2().uordblks;
  ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 2, 3, 4, 5, 0), nullptr);
  vepra_mem_array_free(a);
  EXPECT_EQ(mallinfo2().uordblks, before);
}

// Every allocation of a 2 x 3 x 4 array fails in turn (header, dimension
// list, two list growths, the tables and the blocks): the chain names the
// failing request, out is null and nothing stays allocated.
TEST_F(MemArrayTest, AllocationFailuresFreeEverything) {
  const std::vector<std::string> causes = {
      "Error(120012): Failed to allocate 32 bytes of memory. ",
      "Error(120012): Failed to allocate 4 bytes of memory. ",
      "Error(120013): Failed to reallocate memory for 8 bytes. ",
      "Error(120013): Failed to reallocate memory for 12 bytes. ",
      "Error(120012): Failed to allocate 16 bytes of memory. ",  // root table
      "Error(120012): Failed to allocate 24 bytes of memory. ",  // first table below
      "Error(120012): Failed to allocate 32 bytes of memory. ",  // its first block
  };
  vepra_mem_array_t *a = nullptr;
  long made =
      for_each_allocation_failure([&] { return vepra_mem_array_alloc(&a, 8, 2, 3, 4, 0); },
                                  [&](vepra_error_t *e, long n) {
                                    EXPECT_EQ(a, nullptr);
                                    const std::string text = take_printed(vepra_error_dup(e));
                                    const std::string head = "Error(" + std::to_string(e->code) +
                                                             "): Cannot allocate array. \n";
                                    // Past the first block the requests repeat: blocks of 32 bytes,
                                    // then the second table and its blocks.
                                    if (n <= 7) {
                                      EXPECT_EQ(text, head + causes[static_cast<size_t>(n - 1)]);
                                    } else {
                                      EXPECT_EQ(text.rfind(head, 0), 0u) << text;
                                    }
                                  });
  EXPECT_EQ(made, 4 + 1 + 2 + 6);
  vepra_mem_array_free(a);

  // A shape whose size in bytes does not fit is refused before any table.
  vepra::testing::fail_allocation_at(1000);
  EXPECT_EQ(take_printed(vepra_mem_array_alloc(&a, SIZE_MAX / 2, 3, 0)),
            "Error(120012): Cannot allocate array. \nError(120012): Failed to allocate " +
                std::to_string(SIZE_MAX) + " bytes of memory. ");
  EXPECT_EQ(vepra::testing::allocation_count(), 2);  // header and dimension list only
  vepra::testing::fail_allocation_at(0);
  EXPECT_EQ(a, nullptr);
  // The largest shape that fits is asked of the system allocator, which refuses it.
  EXPECT_EQ(take_printed(vepra_mem_array_alloc(&a, PTRDIFF_MAX, 1, 0)),
            "Error(120012): Cannot allocate array. \nError(120012): Failed to allocate " +
                std::to_string(PTRDIFF_MAX) + " bytes of memory. ");
}

}  // namespace
