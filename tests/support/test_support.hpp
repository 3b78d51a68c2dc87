// Fixtures and helpers shared by the library's tests.
#ifndef VEPRA_TESTS_SUPPORT_TEST_SUPPORT_HPP
#define VEPRA_TESTS_SUPPORT_TEST_SUPPORT_HPP

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/testing.hpp"
#include "vepra_error.h"

namespace vepra_test {

// Initialises the library for each test and gives it a scratch pool.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  apr_pool_t *pool_ = nullptr;
};

// Owns an error chain and clears it at the end of the scope.
struct ChainDeleter {
  void operator()(vepra_error_t *e) const noexcept { vepra_error_clear(e); }
};
using Chain = std::unique_ptr<vepra_error_t, ChainDeleter>;

// The lines vepra_error_handle() prints for chain (the chain is kept).
std::vector<std::string> printed_lines(vepra_error_t *chain);

// The lines of chain joined with newlines, then the chain cleared: the form
// most failure tests compare against.
std::string take_printed(vepra_error_t *chain);

// The code of chain, 0 for success; the chain is cleared.
int code_of(vepra_error_t *chain);

// A fresh path, named after the test, in the test program's temporary
// directory (removed when the program ends).
std::string temp_path(const std::string &name);

// The rows of a tab-separated table file: blank lines and lines starting
// with '#' are skipped, and so is a field starting with "# " (a comment).
std::vector<std::vector<std::string>> table_rows(const std::string &path);

// Runs op with the n-th checked allocation failing, for n = 1, 2, ...,
// until op returns success with no injected failure reached. Each failing
// run's chain goes to check (which must clear nothing: it is cleared here).
// Returns the number of allocations op made when it succeeded.
long for_each_allocation_failure(const std::function<vepra_error_t *()> &op,
                                 const std::function<void(vepra_error_t *, long)> &check);

}  // namespace vepra_test

#endif  // VEPRA_TESTS_SUPPORT_TEST_SUPPORT_HPP
