// Checked allocation, vectors, matrices and N-dimensional arrays, with the
// text of every refusal and every allocation failure path.
#include <malloc.h>

#include <climits>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_mem.h"

using vepra_test::for_each_allocation_failure;
using vepra_test::take_printed;

namespace {

using MemTest = vepra_test::LibraryTest;

// The record of a failed request for bytes.
std::string failed(size_t bytes) {
  return "Error(120012): Failed to allocate " + std::to_string(bytes) + " bytes of memory. ";
}

// Forwards a zero-terminated list of further dimensions, as a caller's own
// variadic function would.
vepra_error_t *forward(vepra_mem_array_t **out, size_t size, int first, ...) {
  va_list args;
  va_start(args, first);
  vepra_error_t *e = vepra_mem_array_valloc(out, size, first, args);
  va_end(args);
  return e;
}

// Each refused or impossible request fails with its own code and text. A
// refusal leaves out alone, a failed system allocation nulls it; a negative
// span (hi < lo - 1) asks for a sign-widened, impossible size.
TEST_F(MemTest, FailedRequestsNameTheirCause) {
  void *out = &out;
  const std::string impossible = failed(SIZE_MAX - 15);
  const struct {
    std::function<vepra_error_t *()> call;
    std::string text;
    bool nulled;
  } rows[] = {
      {[&] { return vepra_mem_calloc(0, 8, &out); },
       "Error(120010): Cannot allocate memory for 0 elements. ", false},
      {[&] { return vepra_mem_calloc(4, 0, &out); },
       "Error(120011): Cannot allocate memory for element of size 0 bytes. ", false},
      {[&] { return vepra_mem_malloc(0, &out); },
       "Error(120014): Cannot allocate memory of size 0 bytes. ", false},
      {[&] { return vepra_mem_realloc(0, &out); },
       "Error(120014): Cannot allocate memory for 0 bytes. ", false},
      {[&] { return vepra_mem_vector_alloc(&out, 0, 1, 2); },
       "Error(120011): Cannot allocate vector. \n"
       "Error(120011): Cannot allocate memory for element of size 0 bytes. ",
       false},
      {[&] {
         vepra::testing::fail_allocation_at(1);
         return vepra_mem_vector_alloc(&out, 8, 1, 10);
       },
       "Error(120012): Cannot allocate vector. \n" + failed(80), false},
      {[&] { return vepra_mem_vector_alloc(&out, 8, 5, 2); },
       "Error(120012): Cannot allocate vector. \n" + impossible, false},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 1, 0, 0, 3); },
       "Error(120014): Cannot allocate matrix. \n"
       "Error(120014): Cannot allocate memory of size 0 bytes. ",
       false},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 5, 2, 0, 1); },
       "Error(120012): Cannot allocate matrix. \n" + impossible, false},
      {[&] { return vepra_mem_malloc(SIZE_MAX, &out); }, failed(SIZE_MAX), true},
      {[&] { return vepra_mem_calloc(SIZE_MAX / 2, 4, &out); }, failed((SIZE_MAX / 2) * 4), true},
      {[&] {
         EXPECT_EQ(vepra_mem_malloc(32, &out), nullptr);
         void *old = out;
         vepra::testing::fail_allocation_at(1);
         vepra_error_t *e = vepra_mem_realloc(64, &out);
         vepra_mem_free(old);  // the caller's own copy is all that is left
         return e;
       },
       "Error(120013): Failed to reallocate memory for 64 bytes. ", true},
  };
  for (const auto &row : rows) {
    out = &out;
    EXPECT_EQ(take_printed(row.call()), row.text);
    EXPECT_EQ(out, row.nulled ? nullptr : &out) << row.text;
  }
  // Every checked allocation of a matrix fails in turn: each failure names
  // the request, and the partial matrix frees cleanly.
  EXPECT_EQ(for_each_allocation_failure(
                [] {
                  void *m = nullptr;
                  vepra_error_t *e = vepra_mem_matrix_alloc(&m, sizeof(int), 0, 9, 0, 99);
                  vepra_mem_matrix_free(m, sizeof(int), 0, 9, 0);
                  return e;
                },
                [](vepra_error_t *e, long n) {
                  EXPECT_EQ(
                      take_printed(vepra_error_dup(e)),
                      "Error(120012): Cannot allocate matrix. \n" + failed(n == 1 ? 80 : 400));
                }),
            11);
}

// Blocks come zeroed, keep their contents when grown, and vectors and
// matrices are addressed over the caller's bounds (ASan checks each
// access); moves overlap safely, and empty moves and copies never touch
// the source.
TEST_F(MemTest, BlocksVectorsMatricesAndMoves) {
  void *p = nullptr;
  ASSERT_EQ(vepra_mem_calloc(3, 4, &p), nullptr);
  EXPECT_EQ(std::memcmp(p, "\0\0\0\0\0\0\0\0\0\0\0\0", 12), 0);
  static_cast<char *>(p)[11] = 'k';
  ASSERT_EQ(vepra_mem_realloc(1 << 20, &p), nullptr);
  EXPECT_EQ(static_cast<char *>(p)[11], 'k') << "realloc keeps the contents";
  vepra_mem_free(p);
  vepra_mem_free(nullptr);

  int *neg = nullptr;
  ASSERT_EQ(vepra_mem_vector_alloc(reinterpret_cast<void **>(&neg), sizeof(int), -5, -1), nullptr);
  for (int i = -5; i <= -1; ++i) EXPECT_EQ(neg[i], 0);
  neg[-5] = 1;
  neg[-1] = 2;
  vepra_mem_vector_free(neg, sizeof(int), -5);
  vepra_mem_vector_free(nullptr, sizeof(int), 1);

  double **m = nullptr;
  ASSERT_EQ(vepra_mem_matrix_alloc(reinterpret_cast<void **>(&m), sizeof(double), 1, 3, 1, 4),
            nullptr);
  for (int r = 1; r <= 3; ++r) {
    for (int c = 1; c <= 4; ++c) {
      EXPECT_EQ(m[r][c], 0.0);
      m[r][c] = r * 10 + c;
    }
  }
  std::swap(m[1], m[3]);  // rows are separate blocks
  EXPECT_EQ(m[1][2], 32.0);
  vepra_mem_matrix_free(m, sizeof(double), 1, 3, 1);
  vepra_mem_matrix_free(nullptr, sizeof(double), 1, 3, 1);

  // A failure in the rows hands out the partial matrix for the caller to free.
  void *out = &out;
  EXPECT_EQ(take_printed(vepra_mem_matrix_alloc(&out, 8, 1, 3, 0, -1)),
            "Error(120010): Cannot allocate matrix. \n"
            "Error(120010): Cannot allocate memory for 0 elements. ");
  ASSERT_NE(out, &out) << "the row table was made and handed out";
  vepra_mem_matrix_free(out, 8, 1, 3, 0);

  char buf[] = "abcdef";
  EXPECT_EQ(vepra_mem_move(buf + 1, buf, 4), buf + 1);
  EXPECT_STREQ(buf, "aabcdf");
  EXPECT_EQ(vepra_mem_copy(buf + 1, "xy", 2), buf + 1);
  EXPECT_EQ(vepra_mem_move(buf, "q", 1), buf);
  EXPECT_STREQ(buf, "qxycdf");
  EXPECT_EQ(vepra_mem_copy(buf, nullptr, 0), buf);  // UBSan flags a memcpy from null
  EXPECT_EQ(vepra_mem_move(buf, nullptr, 0), buf);
}

// N-dimensional arrays of random shapes against a flat row-major copy:
// element addressing through the public pointer tables, set-all, and the
// bounds check of each dimension with its text.
TEST_F(MemTest, ArraysOfRandomShapesMatchFlatReference) {
  std::mt19937 rng(31);
  for (int round = 0; round < 40; ++round) {
    int d[6] = {};  // up to five dimensions; the unused ones end the list
    const unsigned n = 1 + rng() % 5;
    size_t total = 1;
    for (unsigned k = 0; k < n; ++k) total *= static_cast<size_t>(d[k] = 1 + rng() % 5);
    const size_t size = std::vector<size_t>{1, 2, 3, 8, 12}[rng() % 5];
    vepra_mem_array_t *a = nullptr;
    ASSERT_EQ(forward(&a, size, d[0], d[1], d[2], d[3], d[4], 0), nullptr);
    ASSERT_EQ(a->ndims, static_cast<int32_t>(n));
    ASSERT_TRUE(std::equal(d, d + n, a->dims));
    EXPECT_EQ(a->elsize, size);
    std::vector<unsigned char> flat(total * size, 0);
    std::vector<uint32_t> at(n);
    std::vector<unsigned char> element(size), back(size);
    for (int step = 0; step < 200; ++step) {
      size_t index = 0;
      void *node = a->data;
      for (unsigned k = 0; k < n; ++k) {
        at[k] = rng() % static_cast<uint32_t>(d[k]);
        index = index * static_cast<size_t>(d[k]) + at[k];
        if (k + 1 < n) node = static_cast<void **>(node)[at[k]];
      }
      unsigned char *ref = &flat[index * size];
      if (step % 3 != 0) {
        for (auto &b : element) b = static_cast<unsigned char>(rng());
        ASSERT_EQ(vepra_mem_array_copytoel(a, element.data(), size, n, at.data()), nullptr);
        std::memcpy(ref, element.data(), size);
      }
      ASSERT_EQ(vepra_mem_array_copyfromel(a, back.data(), size, n, at.data()), nullptr);
      ASSERT_EQ(std::memcmp(back.data(), ref, size), 0);
      ASSERT_EQ(std::memcmp(static_cast<unsigned char *>(node) + at[n - 1] * size, ref, size), 0);
      // One index past its dimension (or wrapped from a negative int), in a
      // write or a read.
      const unsigned k = static_cast<unsigned>(rng() % n);
      std::vector<uint32_t> bad = at;
      bad[k] = step % 2 ? static_cast<uint32_t>(d[k]) : static_cast<uint32_t>(-1);
      const bool write = step % 4 < 2;
      vepra_error_t *e = write ? vepra_mem_array_copytoel(a, element.data(), size, n, bad.data())
                               : vepra_mem_array_copyfromel(a, back.data(), size, n, bad.data());
      EXPECT_EQ(take_printed(e), std::string("Error: Cannot copy data ") + (write ? "to" : "from") +
                                     " element. \nError: Number of values in dimension " +
                                     std::to_string(k + 1) + " is " + std::to_string(d[k]) +
                                     ", requested position is " +
                                     std::to_string(static_cast<int>(bad[k])) + " ");
    }
    ASSERT_EQ(vepra_mem_array_allset(a, 0xA5, size), nullptr);
    for (size_t i = 0; i < total; ++i) {
      for (size_t j = i, k = n; k-- > 0; j /= static_cast<size_t>(d[k])) {
        at[k] = static_cast<uint32_t>(j % static_cast<size_t>(d[k]));
      }
      ASSERT_EQ(vepra_mem_array_copyfromel(a, back.data(), size, n, at.data()), nullptr);
      ASSERT_EQ(back, std::vector<unsigned char>(size, 0xA5));
    }
    vepra_mem_array_free(a);
  }
}

// Each refusal names the dimension or size at fault and leaves out alone;
// freeing returns every table and block.
TEST_F(MemTest, ArrayRefusalsAndFreeing) {
  vepra_mem_array_t *a = nullptr;
  ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 3, 4, 0), nullptr);
  const uint32_t corner[2] = {2, 3};
  const double x = 1.5;
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
  EXPECT_EQ(a->dims[1], 4u) << "refused allocations leave out alone";
  vepra_mem_array_free(a);
  vepra_mem_array_free(nullptr);
  // The C library's count of heap bytes in use is back where it was.
  const size_t before = mallinfo2().uordblks;
  ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 2, 3, 4, 5, 0), nullptr);
  vepra_mem_array_free(a);
  EXPECT_EQ(mallinfo2().uordblks, before);
}

// Every allocation of a 2 x 3 x 4 array fails in turn (header, dimension
// list, two list growths, the tables and the blocks): the chain names the
// failing request, out is null and nothing stays allocated.
TEST_F(MemTest, ArrayAllocationFailuresFreeEverything) {
  const std::vector<std::string> causes = {
      failed(32),
      failed(4),
      "Error(120013): Failed to reallocate memory for 8 bytes. ",
      "Error(120013): Failed to reallocate memory for 12 bytes. ",
      failed(16),  // root table
      failed(24),  // first table below
      failed(32),  // its first block
  };
  vepra_mem_array_t *a = nullptr;
  const auto check = [&](vepra_error_t *e, long n) {
    EXPECT_EQ(a, nullptr);
    const std::string text = take_printed(vepra_error_dup(e));
    const std::string head = "Error(" + std::to_string(e->code) + "): Cannot allocate array. \n";
    // Past the first block the requests repeat: blocks of 32 bytes, then
    // the second table and its blocks.
    if (n <= 7) {
      EXPECT_EQ(text, head + causes[static_cast<size_t>(n - 1)]);
    } else {
      EXPECT_EQ(text.rfind(head, 0), 0u) << text;
    }
  };
  EXPECT_EQ(
      for_each_allocation_failure([&] { return vepra_mem_array_alloc(&a, 8, 2, 3, 4, 0); }, check),
      4 + 1 + 2 + 6);
  vepra_mem_array_free(a);
  // A shape whose size in bytes does not fit is refused before any table.
  vepra::testing::fail_allocation_at(1000);
  EXPECT_EQ(take_printed(vepra_mem_array_alloc(&a, SIZE_MAX / 2, 3, 0)),
            "Error(120012): Cannot allocate array. \n" + failed(SIZE_MAX));
  EXPECT_EQ(vepra::testing::allocation_count(), 2);  // header and dimension list only
  vepra::testing::fail_allocation_at(0);
  EXPECT_EQ(a, nullptr);
  // The largest shape that fits is asked of the system allocator, which refuses it.
  EXPECT_EQ(take_printed(vepra_mem_array_alloc(&a, PTRDIFF_MAX, 1, 0)),
            "Error(120012): Cannot allocate array. \n" + failed(PTRDIFF_MAX));
}

}  // namespace
