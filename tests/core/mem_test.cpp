// Checked allocation, vectors, matrices and N-dimensional arrays, with the
// text of every refusal and every allocation failure path.
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_mem.h"

namespace {

using MemTest = vepra_test::LibraryTest;

// Each refused or impossible request fails with its own code and text, and
// leaves the caller's pointer as the table says.
TEST_F(MemTest, FailedRequestsNameTheirCause) {
  vepra_mem_array_t *a = nullptr;
  ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 3, 4, 0), nullptr);
  for (const auto &c : vepra_test::table_rows(VEPRA_TEST_DATA_DIR "/core/mem_requests.tsv")) {
    ASSERT_GE(c.size(), 5u);
    std::vector<size_t> v;
    std::istringstream words(c[1]);
    for (std::string w; words >> w;) v.push_back(std::stoull(w));  // "-1" wraps to SIZE_MAX
    v.resize(5, 0);
    const auto i = [&v](size_t k) { return static_cast<int>(v[k]); };
    const uint32_t at[2] = {static_cast<uint32_t>(v[2]), static_cast<uint32_t>(v[3])};
    double element = 0;
    void *out = &out;
    if (c[0] == "realloc") out = std::malloc(32);
    void *const before = out;
    auto *array = static_cast<vepra_mem_array_t *>(out);
    vepra::testing::fail_allocation_at(std::stol(c[2]));
    const std::string &op = c[0];
    vepra_error_t *e = op == "calloc"    ? vepra_mem_calloc(v[0], v[1], &out)
                       : op == "malloc"  ? vepra_mem_malloc(v[0], &out)
                       : op == "realloc" ? vepra_mem_realloc(v[0], &out)
                       : op == "vector"  ? vepra_mem_vector_alloc(&out, v[0], i(1), i(2))
                       : op == "matrix" ? vepra_mem_matrix_alloc(&out, v[0], i(1), i(2), i(3), i(4))
                       : op == "array"  ? vepra_mem_array_alloc(&array, v[0], i(1), i(2), i(3), 0)
                       : op == "copyto" ? vepra_mem_array_copytoel(a, &element, v[0], i(1), at)
                       : op == "copyfrom" ? vepra_mem_array_copyfromel(a, &element, v[0], i(1), at)
                                          : vepra_mem_array_allset(a, 0, v[0]);
    vepra::testing::fail_allocation_at(0);
    if (op == "array") out = array;
    std::string lines = c[4];
    for (size_t k = 5; k < c.size(); ++k) lines += "\n" + c[k];
    EXPECT_EQ(vepra_test::take_printed(e), lines);
    if (c[3] == "made") {
      EXPECT_NE(out, before) << lines;
      vepra_mem_matrix_free(out, v[0], i(1), i(2), i(3));
    } else {
      EXPECT_EQ(out, c[3] == "kept" ? before : nullptr) << lines;
    }
    if (op == "realloc") vepra_mem_free(before);  // the caller's own copy is all that is left
  }
  vepra_mem_array_free(a);
}

// Blocks come zeroed and can be grown; vectors and matrices are zeroed and
// addressed over the caller's bounds (ASan checks each access); moves
// overlap safely, and empty moves and copies never touch the source.
TEST_F(MemTest, BlocksVectorsMatricesAndMoves) {
  char *p = nullptr;
  ASSERT_EQ(vepra_mem_calloc(3, 4, reinterpret_cast<void **>(&p)), nullptr);
  EXPECT_EQ(std::string(p, 12), std::string(12, '\0'));
  ASSERT_EQ(vepra_mem_realloc(1 << 20, reinterpret_cast<void **>(&p)), nullptr);
  vepra_mem_free(p);
  int *v = nullptr;
  ASSERT_EQ(vepra_mem_vector_alloc(reinterpret_cast<void **>(&v), sizeof(int), -5, -1), nullptr);
  EXPECT_EQ(v[-5] + v[-1], 0);
  vepra_mem_vector_free(v, sizeof(int), -5);
  double **m = nullptr;
  ASSERT_EQ(vepra_mem_matrix_alloc(reinterpret_cast<void **>(&m), sizeof(double), 1, 3, -1, 4),
            nullptr);
  double sum = 0;
  for (int r = 1; r <= 3; ++r)
    for (int c = -1; c <= 4; ++c) sum += m[r][c]++;
  EXPECT_EQ(sum, 0.0);
  vepra_mem_matrix_free(m, sizeof(double), 1, 3, -1);
  char buf[] = "abcdef";
  EXPECT_EQ(vepra_mem_move(buf + 1, buf, 4), buf + 1);
  EXPECT_EQ(vepra_mem_copy(buf, "xy", 2), buf);
  EXPECT_STREQ(buf, "xybcdf");
  EXPECT_EQ(vepra_mem_copy(buf, nullptr, 0), buf);  // UBSan flags a memcpy from null
  EXPECT_EQ(vepra_mem_move(buf, nullptr, 0), buf);
  // Freeing an array returns every table and block: once the C library's
  // caches are warm, its count of heap bytes in use stays where it was.
  size_t heap = 0;
  for (int round = 0; round < 4; ++round) {
    if (round == 2) heap = mallinfo2().uordblks;
    vepra_mem_array_t *a = nullptr;
    ASSERT_EQ(vepra_mem_array_alloc(&a, 8, 2, 3, 4, 5, 0), nullptr);
    vepra_mem_array_free(a);
  }
  EXPECT_EQ(mallinfo2().uordblks, heap);
}

// N-dimensional arrays of random shapes against a flat row-major copy:
// element addressing through the public pointer tables, and set-all.
TEST_F(MemTest, ArraysOfRandomShapesMatchFlatReference) {
  std::mt19937 rng(31);
  for (int round = 0; round < 40; ++round) {
    int d[6] = {};  // up to five dimensions; the unused ones end the list
    const unsigned n = 1 + rng() % 5;
    size_t total = 1;
    for (unsigned k = 0; k < n; ++k) total *= static_cast<size_t>(d[k] = 1 + rng() % 5);
    const size_t size = std::vector<size_t>{1, 2, 3, 8, 12}[rng() % 5];
    std::vector<unsigned char> flat(total * size, 0), element(size), back(size);
    std::vector<uint32_t> at(n);
    vepra_mem_array_t *a = nullptr;
    ASSERT_EQ(vepra_mem_array_alloc(&a, size, d[0], d[1], d[2], d[3], d[4], 0), nullptr);
    ASSERT_EQ(a->ndims, static_cast<int32_t>(n));
    ASSERT_TRUE(std::equal(d, d + n, a->dims));
    // Element i of the flat copy: its index in at, its address through the tables.
    const auto locate = [&](size_t i) {
      for (size_t j = i, k = n; k-- > 0; j /= static_cast<size_t>(d[k])) {
        at[k] = static_cast<uint32_t>(j % static_cast<size_t>(d[k]));
      }
      void *node = a->data;
      for (unsigned k = 0; k + 1 < n; ++k) node = static_cast<void **>(node)[at[k]];
      return static_cast<unsigned char *>(node) + at[n - 1] * size;
    };
    for (int step = 0; step < 200; ++step) {
      const size_t i = rng() % total;
      const unsigned char *in_tables = locate(i), *ref = &flat[i * size];
      if (step % 3 != 0) {
        for (auto &b : element) b = static_cast<unsigned char>(rng());
        ASSERT_EQ(vepra_mem_array_copytoel(a, element.data(), size, n, at.data()), nullptr);
        std::memcpy(&flat[i * size], element.data(), size);
      }
      ASSERT_EQ(vepra_mem_array_copyfromel(a, back.data(), size, n, at.data()), nullptr);
      ASSERT_EQ(std::memcmp(back.data(), ref, size), 0);
      ASSERT_EQ(std::memcmp(in_tables, ref, size), 0);
    }
    ASSERT_EQ(vepra_mem_array_allset(a, 0xA5, size), nullptr);
    for (size_t i = 0; i < total; ++i) {
      ASSERT_EQ(std::vector<unsigned char>(locate(i), locate(i) + size),
                std::vector<unsigned char>(size, 0xA5));
    }
    vepra_mem_array_free(a);
  }
}

}  // namespace
