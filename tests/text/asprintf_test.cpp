// The allocating formatters against the C library's asprintf.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "vepra_str.h"

namespace {

TEST(Asprintf, AgreesWithTheCLibrary) {
  const std::string wide(5000, 'w');
  char *ours = nullptr, *theirs = nullptr;
  EXPECT_EQ(rpl_asprintf(&ours, "%d|%s|%.3f|%7x|%s", -42, "x", 2.5, 255u, wide.c_str()),
            asprintf(&theirs, "%d|%s|%.3f|%7x|%s", -42, "x", 2.5, 255u, wide.c_str()));
  ASSERT_NE(ours, nullptr);
  EXPECT_STREQ(ours, theirs);
  std::free(ours);
  std::free(theirs);
  // A wide string the C locale cannot convert: both fail with -1.
  const wchar_t euro[] = {0x20ac, 0};
  EXPECT_EQ(rpl_asprintf(&ours, "%ls", euro), -1);
  EXPECT_EQ(asprintf(&theirs, "%ls", euro), -1);
}

}  // namespace
