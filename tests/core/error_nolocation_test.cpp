// With VEPRA_ERROR_NO_LOCATION defined, the public macros pass no source
// location, as the library's own code does.
#define VEPRA_ERROR_NO_LOCATION
#include "support/test_support.hpp"
#include "vepra_error.h"

using ErrorNoLocationTest = vepra_test::LibraryTest;

// A macro that still passed __FILE__ or __LINE__ would leak the caller's
// place into records meant to carry none.
TEST_F(ErrorNoLocationTest, MacrosPassNoLocation) {
  vepra_error_t *e = vepra_error_create(0, 120051, nullptr, nullptr);
  e = vepra_error_quick_wrap(e, "Cannot wrap.");
  e = vepra_error_createf(1, 0, e, "%s", "formatted");
  e = vepra_error_compose_create(e, vepra_error_aprwrapf(APR_EGENERAL, "x"));
  e = vepra_error_compose_create(e, vepra_error_aprwrap(APR_EGENERAL));
  std::string places;
  for (const vepra_error_t *r = e; r != nullptr; r = r->next) {
    places += (r->file != nullptr || r->function != nullptr || r->line != 0) ? "+" : "-";
  }
  EXPECT_EQ(places, "-----");
  vepra_error_clear(e);
}
