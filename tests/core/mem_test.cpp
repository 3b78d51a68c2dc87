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

// Requests that cannot be met fail with their own text and leave out alone;
// a negative span (hi < lo - 1) asks for a sign-widened, impossible size.
TEST_F(MemTest, RefusedRequestsLeaveOutAlone) {
  void *out = &out;
  const std::string impossible =
      "Error(120012): Failed to allocate " + std::to_string(SIZE_MAX - 15) + " bytes of memory. ";
  const std::pair<std::function<vepra_error_t *()>, std::string> rows[] = {
      {[&] { return vepra_mem_calloc(0, 8, &out); },
       "Error(120010): Cannot allocate memory for 0 elements. "},
      {[&] { return vepra_mem_calloc(4, 0, &out); },
       "Error(120011): Cannot allocate memory for element of size 0 bytes. "},
      {[&] { return vepra_mem_malloc(0, &out); },
       "Error(120014): Cannot allocate memory of size 0 bytes. "},
      {[&] { return vepra_mem_realloc(0, &out); },
       "Error(120014): Cannot allocate memory for 0 bytes. "},
      {[&] { return vepra_mem_vector_alloc(&out, 8, 5, 4); },
       "Error(120010): Cannot allocate vector. \n"
       "Error(120010): Cannot allocate memory for 0 elements. "},
      {[&] { return vepra_mem_vector_alloc(&out, 0, 1, 2); },
       "Error(120011): Cannot allocate vector. \n"
       "Error(120011): Cannot allocate memory for element of size 0 bytes. "},
      {[&] { return vepra_mem_vector_alloc(&out, 8, 5, 2); },
       "Error(120012): Cannot allocate vector. \n" + impossible},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 1, 0, 0, 3); },
       "Error(120014): Cannot allocate matrix. \n"
       "Error(120014): Cannot allocate memory of size 0 bytes. "},
      {[&] { return vepra_mem_matrix_alloc(&out, 8, 5, 2, 0, 1); },
       "Error(120012): Cannot allocate matrix. \n" + impossible},
  };
  for (const auto &[call, text] : rows) {
    EXPECT_EQ(take_printed(call()), text);
    EXPECT_EQ(out, &out) << text;
  }
}

TEST_F(MemTest, CheckedAllocatorsAllocateAndReportFailures) {
  void *p = nullptr;
  ASSERT_EQ(vepra_mem_calloc(3, 4, &p), nullptr);
  EXPECT_EQ(std::memcmp(p, "\0\0\0\0\0\0\0\0\0\0\0\0", 12), 0);
  ASSERT_EQ(vepra_mem_realloc(1 << 20, &p), nullptr);
  EXPECT_EQ(static_cast<char *>(p)[11], 0) << "realloc keeps the contents";
  vepra_mem_free(p);
  vepra_mem_free(nullptr);

  // Impossible sizes fail in the system allocator itself.
  EXPECT_EQ(take_printed(vepra_mem_malloc(SIZE_MAX, &p)),
            "Error(120012): Failed to allocate " + std::to_string(SIZE_MAX) + " bytes of memory. ");
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(take_printed(vepra_mem_calloc(SIZE_MAX / 2, 4, &p)),
            "Error(120012): Failed to allocate " + std::to_string((SIZE_MAX / 2) * 4) +
                " bytes of memory. ");
}

TEST_F(MemTest, ReallocFailureNullsThePointer) {
  void *p = nullptr;
  ASSERT_EQ(vepra_mem_malloc(32, &p), nullptr);
  void *old = p;
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(take_printed(vepra_mem_realloc(64, &p)),
            "Error(120013): Failed to reallocate memory for 64 bytes. ");
  EXPECT_EQ(p, nullptr);
  vepra_mem_free(old);  // the caller's own copy is all that is left
}

TEST_F(MemTest, MoveAndCopy) {
  char buf[] = "abcdef";
  EXPECT_EQ(vepra_mem_move(buf + 1, buf, 4), buf + 1);
  EXPECT_STREQ(buf, "aabcdf");
  char dst[4] = {};
  EXPECT_EQ(vepra_mem_copy(dst, "xyz", 4), dst);
  EXPECT_STREQ(dst, "xyz");
  EXPECT_EQ(vepra_mem_move(dst, "q", 1), dst);  // a single byte moves too
  EXPECT_EQ(vepra_mem_copy(dst + 1, "r", 1), dst + 1);
  EXPECT_STREQ(dst, "qrz");
}

TEST_F(MemTest, VectorUsesTheCallersIndexRange) {
  double *v = nullptr;
  ASSERT_EQ(vepra_mem_vector_alloc(reinterpret_cast<void **>(&v), sizeof(double), 1, 10), nullptr);
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(v[i], 0.0);
  for (int i = 1; i <= 10; ++i) v[i] = i;  // ASan checks the bounds
  vepra_mem_vector_free(v, sizeof(double), 1);
  vepra_mem_vector_free(nullptr, sizeof(double), 1);

  int *neg = nullptr;
  ASSERT_EQ(vepra_mem_vector_alloc(reinterpret_cast<void **>(&neg), sizeof(int), -5, -1), nullptr);
  neg[-5] = 1;
  neg[-1] = 2;
  vepra_mem_vector_free(neg, sizeof(int), -5);
}

TEST_F(MemTest, MatrixRowsAreZeroedBlocksOverTheCallersBounds) {
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

  void *out = &out;
  EXPECT_EQ(take_printed(vepra_mem_matrix_alloc(&out, 8, 1, 3, 0, -1)),
            "Error(120010): Cannot allocate matrix. \n"
            "Error(120010): Cannot allocate memory for 0 elements. ");
  ASSERT_NE(out, &out) << "the row table was made and handed out";
  vepra_mem_matrix_free(out, 8, 1, 3, 0);  // releases the partial matrix
  out = &out;
  EXPECT_EQ(take_printed(vepra_mem_matrix_alloc(&out, 0, 0, 1, 0, 1)),
            "Error(120011): Cannot allocate matrix. \n"
            "Error(120011): Cannot allocate memory for element of size 0 bytes. ");
  vepra_mem_matrix_free(out, 0, 0, 1, 0);
}

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
        EXPECT_EQ(vepra_test::printed_lines(e),
                  (std::vector<std::string>{
                      "Error(120012): Cannot allocate matrix. ",
                      "Error(120012): Failed to allocate " + bytes + " bytes of memory. "}));
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
        EXPECT_EQ(vepra_test::printed_lines(e),
                  (std::vector<std::string>{"Error(120012): Cannot allocate vector. ",
                                            "Error(120012): Failed to allocate 80 bytes of memory. "}));
      });
  EXPECT_EQ(made, 1);
}
