// The object engine's two registries under concurrent registration: run
// under ThreadSanitizer (label tsan).
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
  std::atomic<int> shared_wins{0}, failures{0};
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
          shared_wins += e == nullptr;
          failures += e != nullptr && e->code != VEPRA_E_OBJTYPE_REGISTERED;
          vepra_error_clear(e);
        }
        std::string id = std::to_string(t) + "." + std::to_string(i);
        vepra_error_t *e = register_type("type " + id, &code);
        types[t].push_back(e == nullptr ? code : 0);
        failures += e != nullptr;
        vepra_error_clear(e);
        e = vepra_objsig_register(&code, ("signal " + id).c_str());
        signals[t].push_back(e == nullptr ? code : 0);
        failures += e != nullptr;
        vepra_error_clear(e);
        if (i % 2 == 0) vepra_error_clear(vepra_objsig_deregister(code));
      }
      apr_pool_destroy(pool);
    });
  }
  for (auto &th : threads) th.join();

  EXPECT_EQ(shared_wins.load(), 1);
  EXPECT_EQ(failures.load(), 0);
  std::set<unsigned> type_codes, signal_codes;
  for (int t = 0; t < kThreads; ++t) {
    type_codes.insert(types[t].begin(), types[t].end());
    signal_codes.insert(signals[t].begin(), signals[t].end());
    for (int i = 0; i < kRounds; ++i) {
      std::string id = std::to_string(t) + "." + std::to_string(i);
      EXPECT_EQ(vepra_objtype_query_typecode(("type " + id).c_str()), types[t][i]);
      EXPECT_EQ(vepra_objsig_query_type(("signal " + id).c_str()), i % 2 == 0 ? 0 : signals[t][i]);
    }
  }
  // No code was handed out twice.
  EXPECT_EQ(type_codes.size(), size_t{kThreads * kRounds});
  EXPECT_EQ(signal_codes.size(), size_t{kThreads * kRounds});
  EXPECT_GE(*signal_codes.begin(), 100u);
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
}

}  // namespace
