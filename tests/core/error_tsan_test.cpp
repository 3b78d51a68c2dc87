// Registering, deregistering and printing from many threads at once. Run
// under ThreadSanitizer as well as under the other sanitizers.
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/error_internal.hpp"
#include "support/test_support.hpp"
#include "vepra_error.h"

using vepra_test::LibraryTest;
using vepra_test::printed_lines;

using ErrorConcurrencyTest = LibraryTest;

TEST_F(ErrorConcurrencyTest, CodesStayUniqueWhileHeldAndChainsPrintCorrectly) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 300;
  std::mutex held_mutex;
  std::set<int> held;
  std::vector<std::string> failures[kThreads];

  auto worker = [&](int id) {
    std::vector<int> mine;
    for (int round = 0; round < kRounds; ++round) {
      const std::string name = "type-" + std::to_string(id) + "-" + std::to_string(round);
      int code = 0;
      vepra_error_register(&code, name.c_str());
      {
        std::lock_guard<std::mutex> lock(held_mutex);
        if (!held.insert(code).second) failures[id].push_back("code handed out twice");
      }
      mine.push_back(code);

      // A chain of our own registered type, wrapped twice: the head without
      // text prints the type's name, the root cause repeats it and is
      // skipped.
      vepra_error_t *e = vepra::detail::make_error(code);
      e = vepra::detail::wrap_error(e, "Cannot do %d.", round);
      e = vepra_error_quick_wrap_i(0, nullptr, nullptr, e, nullptr);
      const std::vector<std::string> lines = printed_lines(e);
      const std::string prefix = "Error(" + std::to_string(code) + "): ";
      if (lines != std::vector<std::string>{prefix + name + " ",
                                            prefix + "Cannot do " + std::to_string(round) + ". "}) {
        failures[id].push_back("unexpected lines for " + name);
      }
      vepra_error_clear(e);

      if (round % 3 != 0) {  // keep some codes, give back the others
        const int back = mine.back();
        mine.pop_back();
        {
          std::lock_guard<std::mutex> lock(held_mutex);
          held.erase(back);
        }
        vepra_error_deregister(back);
      }
    }
    for (int code : mine) {
      {
        std::lock_guard<std::mutex> lock(held_mutex);
        held.erase(code);
      }
      vepra_error_deregister(code);
    }
  };

  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(worker, i);
  for (std::thread &t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) EXPECT_TRUE(failures[i].empty()) << failures[i].front();
  EXPECT_TRUE(held.empty());

  // Everything was given back, so the registry hands out its first code.
  int code = 0;
  vepra_error_register(&code, "again");
  EXPECT_EQ(code, 125000);
}
