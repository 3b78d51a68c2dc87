// The object engine's two registries under concurrent registration: run
// under ThreadSanitizer (label tsan).
#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.hpp"
#include "vepra.h"

namespace {

class ObjRegistryTsanTest : public vepra_test::LibraryTest {};

// Eight threads register object types and register and deregister signal
// types at once, and all of them try one shared type name. Every code is
// handed out once, exactly one thread gets the shared name, and a refused
// name leaves the registry usable.
TEST_F(ObjRegistryTsanTest, HandsOutUniqueCodesUnderConcurrentRegistration) {
  constexpr int kThreads = 8, kRounds = 150;
  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  std::vector<std::vector<unsigned>> types(kThreads), signals(kThreads);
  std::vector<std::vector<int>> failures(kThreads);
  std::atomic<int> shared_wins{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      apr_pool_t *pool = nullptr;
      apr_pool_create_unmanaged(&pool);
      auto register_type = [&](const std::string &name, unsigned *code) {
        vepra_strlist_t *names = nullptr;
        vepra_strlist_create(&names, pool);
        vepra_strlist_addlast(names, name.c_str(), pool);
        return vepra_objtype_register(code, names, nullptr);
      };
      for (int i = 0; i < kRounds; ++i) {
        unsigned code = 0;
        if (i == kRounds / 2) {
          vepra_error_t *e = register_type("shared", &code);
          if (e == nullptr) ++shared_wins;
          else if (e->code != VEPRA_E_OBJTYPE_REGISTERED) failures[t].push_back(e->code);
          vepra_error_clear(e);
        }
        std::string id = std::to_string(t) + "." + std::to_string(i);
        if (vepra_error_t *e = register_type("type " + id, &code)) {
          failures[t].push_back(e->code);
          vepra_error_clear(e);
        } else {
          types[t].push_back(code);
        }
        if (vepra_error_t *e = vepra_objsig_register(&code, ("signal " + id).c_str())) {
          failures[t].push_back(e->code);
          vepra_error_clear(e);
          continue;
        }
        signals[t].push_back(code);
        if (i % 2 == 0) vepra_error_clear(vepra_objsig_deregister(code));
      }
      apr_pool_destroy(pool);
    });
  }
  for (auto &th : threads) th.join();

  EXPECT_EQ(shared_wins.load(), 1);
  std::set<unsigned> type_codes, signal_codes;
  size_t type_count = 0, signal_count = 0;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_TRUE(failures[t].empty()) << "thread " << t << " failed with " << failures[t][0];
    type_count += types[t].size();
    signal_count += signals[t].size();
    type_codes.insert(types[t].begin(), types[t].end());
    signal_codes.insert(signals[t].begin(), signals[t].end());
    ASSERT_EQ(types[t].size(), size_t{kRounds});
    ASSERT_EQ(signals[t].size(), size_t{kRounds});
    for (int i = 0; i < kRounds; ++i) {
      std::string id = std::to_string(t) + "." + std::to_string(i);
      EXPECT_EQ(vepra_objtype_query_typecode(("type " + id).c_str()), types[t][i]);
      EXPECT_EQ(vepra_objsig_query_type(("signal " + id).c_str()), i % 2 == 0 ? 0 : signals[t][i]);
    }
  }
  EXPECT_EQ(type_codes.size(), type_count);
  EXPECT_EQ(signal_codes.size(), signal_count);
  EXPECT_EQ(type_count, size_t{kThreads * kRounds});
  EXPECT_GE(*signal_codes.begin(), 100u);
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
}

}  // namespace
