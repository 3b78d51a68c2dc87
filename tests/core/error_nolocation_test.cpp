// With VEPRA_ERROR_NO_LOCATION defined, the public macros pass no source
// location, as the library's own code does.
#define VEPRA_ERROR_NO_LOCATION
#include "support/test_support.hpp"
#include "vepra_error.h"
#include "vepra_mem.h"

using ErrorNoLocationTest = vepra_test::LibraryTest;

// A macro that still passed __FILE__ or __LINE__ would leak the caller's
// place into records meant to carry none.
TEST_F(ErrorNoLocationTest, MacrosPassNoLocation) {
  vepra_error_t *e = vepra_error_create(0, 120051, nullptr, nullptr);
  e = vepra_error_quick_wrap(e, "Cannot wrap.");
  e = vepra_error_createf(1, 0, e, "%s", "formatted");
  for (vepra_error_t *r = e; r != nullptr; r = r->next) {
    EXPECT_EQ(r->file, nullptr);
    EXPECT_EQ(r->function, nullptr);
    EXPECT_EQ(r->line, 0);
  }
  EXPECT_EQ(vepra_test::take_printed(e),
            "Warning: formatted \nError(120051): Cannot wrap. \n"
            "Error(120051): DL insertion error: invalid pointer. ");
  vepra_error_t *a = vepra_error_aprwrapf(APR_EGENERAL, "x");
  EXPECT_EQ(a->file, nullptr);
  vepra_error_clear(a);
  // The library's own records carry no location either.
  void *p = nullptr;
  vepra_error_t *m = vepra_mem_vector_alloc(&p, 8, 1, 0);
  for (vepra_error_t *r = m; r != nullptr; r = r->next) EXPECT_EQ(r->line, 0);
  vepra_error_clear(m);
}
