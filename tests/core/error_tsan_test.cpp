// Registering, deregistering and printing from many threads at once. Run
// under ThreadSanitizer as well as under the other sanitizers.
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/error_internal.hpp"
#include "support/test_support.hpp"
#include "vepra_error.h"

using ErrorConcurrencyTest = vepra_test::LibraryTest;

// A registry that is not guarded hands out a code twice, or prints a chain
// with another thread's name.
TEST_F(ErrorConcurrencyTest, CodesStayUniqueAndChainsPrintCorrectly) {
  std::atomic<int> failures{0};
  std::vector<std::vector<int>> kept(8);
  const auto worker = [&](int id) {
    for (int round = 0; round < 300; ++round) {
      const std::string name = "type-" + std::to_string(id) + "-" + std::to_string(round);
      int code = 0;
      vepra_error_register(&code, name.c_str());
      // The head without text prints the type's name; the root cause
      // repeats the code without text and is skipped.
      vepra_error_t *e =
          vepra::detail::wrap_error(vepra::detail::make_error(code), "Do %s.", name.c_str());
      e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, nullptr);
      const std::string prefix = "Error(" + std::to_string(code) + "): ";
      const std::string expected = prefix + name + " \n" + prefix + "Do " + name + ". ";
      failures += vepra_test::take_printed(e) != expected;
      // Two in three codes go back at once and are handed out again.
      if (round % 3 == 0) kept[id].push_back(code);
      if (round % 3 != 0) vepra_error_deregister(code);
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back(worker, i);
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures, 0);
  std::set<int> held;
  for (const std::vector<int> &codes : kept) held.insert(codes.begin(), codes.end());
  EXPECT_EQ(held.size(), 8u * 100) << "a code kept by two threads";
  // Once everything is given back, the registry hands out its first code.
  for (int code : held) vepra_error_deregister(code);
  int code = 0;
  vepra_error_register(&code, "again");
  EXPECT_EQ(code, 125000);
}
