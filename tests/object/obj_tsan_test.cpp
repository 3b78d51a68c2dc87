// The object engine's two registries under concurrent registration: run
// under ThreadSanitizer (label tsan).
#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.hpp"
#include "vepra.h"

namespace {

class ObjRegistryTsanTest : public vepra_test::LibraryTest {};

// Registers the object type name; returns the error code (0: registered).
int register_type(const std::string &name, unsigned *code, apr_pool_t *pool) {
  vepra_strlist_t *names = nullptr;
  vepra_strlist_create(&names, pool);
  vepra_strlist_addlast(names, name.c_str(), pool);
  vepra_test::Chain e(vepra_objtype_register(code, names, nullptr));
  return e == nullptr ? 0 : e->code;
}

// Eight threads register object types and register and deregister signal
// types at once, and all of them try one shared type name. Every code is
// handed out once, exactly one thread gets the shared name, and a refused
// name leaves the registry usable.
TEST_F(ObjRegistryTsanTest, HandsOutUniqueCodesUnderConcurrentRegistration) {
  constexpr int kThreads = 8, kRounds = 150;
  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  // By thread: the codes handed out, round by round (0: refused), and the
  // error code of the shared name.
  std::vector<std::vector<unsigned>> types(kThreads), signals(kThreads);
  std::vector<int> shared(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      apr_pool_t *pool = nullptr;
      apr_pool_create_unmanaged(&pool);
      for (int i = 0; i < kRounds; ++i) {
        unsigned code = 0;
        if (i == kRounds / 2) shared[t] = register_type("shared", &code, pool);
        const std::string id = std::to_string(t) + "." + std::to_string(i);
        types[t].push_back(register_type("type " + id, &code, pool) == 0 ? code : 0);
        vepra_test::Chain e(vepra_objsig_register(&code, ("signal " + id).c_str()));
        signals[t].push_back(e == nullptr ? code : 0);
        if (i % 2 == 0) vepra_error_clear(vepra_objsig_deregister(code));
      }
      apr_pool_destroy(pool);
    });
  }
  for (auto &th : threads) th.join();

  EXPECT_EQ(std::ranges::count(shared, 0), 1);
  EXPECT_EQ(std::ranges::count(shared, VEPRA_E_OBJTYPE_REGISTERED), kThreads - 1);
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
  // No code was handed out twice, and none was refused (0).
  EXPECT_EQ(type_codes.size(), size_t{kThreads * kRounds});
  EXPECT_EQ(signal_codes.size(), size_t{kThreads * kRounds});
  EXPECT_EQ(type_codes.count(0) + signal_codes.count(0), 0u);
  EXPECT_GE(*signal_codes.begin(), 100u);
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
}

}  // namespace
