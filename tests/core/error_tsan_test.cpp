// Registering, deregistering and printing from many threads at once. Run
// under ThreadSanitizer as well as under the other sanitizers.
#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/error_internal.hpp"
#include "support/test_support.hpp"
#include "vepra_error.h"

using ErrorConcurrencyTest = vepra_test::LibraryTest;

// A registry that is not guarded hands out a code twice while it is held,
// or prints a chain with another thread's name.
TEST_F(ErrorConcurrencyTest, CodesStayUniqueWhileHeldAndChainsPrintCorrectly) {
  std::mutex held_mutex;
  std::set<int> held;
  std::atomic<int> failures{0};
  const auto give_back = [&](int code) {
    {
      std::lock_guard<std::mutex> lock(held_mutex);
      held.erase(code);
    }
    vepra_error_deregister(code);
  };
  const auto worker = [&](int id) {
    std::vector<int> kept;
    for (int round = 0; round < 300; ++round) {
      const std::string name = "type-" + std::to_string(id) + "-" + std::to_string(round);
      int code = 0;
      vepra_error_register(&code, name.c_str());
      {
        std::lock_guard<std::mutex> lock(held_mutex);
        failures += held.insert(code).second ? 0 : 1;
      }
      // The head without text prints the type's name; the root cause
      // repeats the code without text and is skipped.
      vepra_error_t *e =
          vepra::detail::wrap_error(vepra::detail::make_error(code), "Do %d.", round);
      e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, nullptr);
      const std::string prefix = "Error(" + std::to_string(code) + "): ";
      const std::string expected =
          prefix + name + " \n" + prefix + "Do " + std::to_string(round) + ". ";
      failures += vepra_test::take_printed(e) == expected ? 0 : 1;
      if (round % 3 == 0) {
        kept.push_back(code);
      } else {
        give_back(code);
      }
    }
    for (int code : kept) give_back(code);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back(worker, i);
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_TRUE(held.empty());
  // Everything was given back, so the registry hands out its first code.
  int code = 0;
  vepra_error_register(&code, "again");
  EXPECT_EQ(code, 125000);
}
