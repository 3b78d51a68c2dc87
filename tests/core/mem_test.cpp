// Checked allocation, vectors and matrices, including every allocation
// failure path.
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "support/test_support.hpp"
#include "vepra_mem.h"

using vepra_test::LibraryTest;
using vepra_test::take_printed;

using MemTest = LibraryTest;

// Each refused or impossible request fails with its own code and text. A
// refusal leaves out alone, a failed system allocation nulls it; a negative
// span (hi < lo - 1) asks for a sign-widened, impossible size.
TEST_F(MemTest, FailedRequestsNameTheirCause) {
  void *out = &out;
  const std::string impossible =
      "Error(120012): Failed to allocate " + std::to_string(SIZE_MAX - 15) + " bytes of memory. ";
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
      {[&] { return vepra_mem_vector_alloc(&out, 8, 5, 4); },
       "Error(120010): Cannot allocate vector. \n"
       "Error(120010): Cannot allocate memory for 0 elements. ",
       false},
      {[&] { return vepra_mem_vector_alloc(&out, 0, 1, 2); },
       "Error(120011): Cannot allocate vector. \n"
       "Error(120011): Cannot allocate memory for element of size 0 bytes. ",
       false},
      {[&] { return vepra_mem_vector_alloc(&out, 8, 5, 2); },
       "Error(120012): Cannot allocate vector. \n" + impossible, false},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 1, 0, 0, 3); },
       "Error(120014): Cannot allocate matrix. \n"
       "Error(120014): Cannot allocate memory of size 0 bytes. ",
       false},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 5, 2, 0, 1); },
       "Error(120012): Cannot allocate matrix. \n" + impossible, false},
      {[&] { return vepra_mem_malloc(SIZE_MAX, &out); },
       "Error(120012): Failed to allocate " + std::to_string(SIZE_MAX) + " bytes of memory. ",
       true},
      {[&] { return vepra_mem_calloc(SIZE_MAX / 2, 4, &out); },
       "Error(120012): Failed to allocate " + std::to_string((SIZE_MAX / 2) * 4) +
           " bytes of memory. ",
       true},
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
}

// Blocks come zeroed, keep their contents when grown, and vectors and
// matrices are addressed over the caller's bounds (ASan checks each access).
TEST_F(MemTest, BlocksAreZeroedAndUseTheCallersBounds) {
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
}

// Moves overlap safely, and empty moves and copies never touch the source.
TEST_F(MemTest, MoveAndCopy) {
  char buf[] = "abcdef";
  EXPECT_EQ(vepra_mem_move(buf + 1, buf, 4), buf + 1);
  EXPECT_STREQ(buf, "aabcdf");
  EXPECT_EQ(vepra_mem_copy(buf + 1, "xy", 2), buf + 1);
  EXPECT_EQ(vepra_mem_move(buf, "q", 1), buf);
  EXPECT_STREQ(buf, "qxycdf");
  EXPECT_EQ(vepra_mem_copy(buf, nullptr, 0), buf);  // UBSan flags a memcpy from null
  EXPECT_EQ(vepra_mem_move(buf, nullptr, 0), buf);
}

// Every checked allocation of a matrix and a vector fails in turn: each
// failure names the request, and the partial matrix frees cleanly.
TEST_F(MemTest, EveryAllocationFailureIsReportedAndLeaksNothing) {
  long made = vepra_test::for_each_allocation_failure(
      [] {
        void *m = nullptr;
        vepra_error_t *e = vepra_mem_matrix_alloc(&m, sizeof(int), 0, 9, 0, 99);
        vepra_mem_matrix_free(m, sizeof(int), 0, 9, 0);
        return e;
      },
      [](vepra_error_t *e, long n) {
        const std::string bytes = n == 1 ? "80" : "400";
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Cannot allocate matrix. \n"
                  "Error(120012): Failed to allocate " +
                      bytes + " bytes of memory. ");
      });
  EXPECT_EQ(made, 11);

  made = vepra_test::for_each_allocation_failure(
      [] {
        void *v = nullptr;
        vepra_error_t *e = vepra_mem_vector_alloc(&v, 8, 1, 10);
        vepra_mem_vector_free(v, 8, 1);
        return e;
      },
      [](vepra_error_t *e, long) {
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Cannot allocate vector. \n"
                  "Error(120012): Failed to allocate 80 bytes of memory. ");
      });
  EXPECT_EQ(made, 1);
}
