// Every exported function that takes memory from a pool, run with the n-th
// pool allocation failing for n = 1, 2, ... and a malfunction handler that
// returns: each run must end in a non-null error (or, for functions without
// a result, quietly), never in a crash, and leave nothing behind for the
// leak checker.
//
// The failing pool allocation is made at link time: this binary is linked
// with --wrap for the APR entry points the library calls, and a wrapped
// call that is due to fail does what APR does when its allocator has no
// block to give: it calls the pool's abort function and returns null.
#include <apr_strings.h>
#include <apr_tables.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra_cdl.h"
#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_log.h"
#include "vepra_mem.h"
#include "vepra_prsd.h"
#include "vepra_str.h"
#include "vepra_strlist.h"
#include "vepra_tree.h"
#include "vepra_trie.h"

namespace {

bool g_armed = false;
long g_blocks = 0;
long g_fail_at = 0;
int g_malfunctions = 0;

// True when this pool allocation is the one due to fail; the pool's abort
// function has then been called, as APR's allocator would.
bool block_fails(apr_pool_t *pool) {
  if (!g_armed || ++g_blocks != g_fail_at) return false;
  if (apr_abortfunc_t abort_fn = apr_pool_abort_get(pool)) abort_fn(APR_ENOMEM);
  return true;
}

}  // namespace

extern "C" {
void *__real_apr_palloc(apr_pool_t *pool, apr_size_t size);
char *__real_apr_pstrdup(apr_pool_t *pool, const char *s);
char *__real_apr_pstrmemdup(apr_pool_t *pool, const char *s, apr_size_t n);
apr_array_header_t *__real_apr_array_make(apr_pool_t *pool, int n, int size);
void *__real_apr_array_push(apr_array_header_t *array);
apr_status_t __real_apr_pool_create_ex(apr_pool_t **pool, apr_pool_t *parent,
                                       apr_abortfunc_t abort_fn, apr_allocator_t *allocator);

void *__wrap_apr_palloc(apr_pool_t *pool, apr_size_t size) {
  return block_fails(pool) ? nullptr : __real_apr_palloc(pool, size);
}
char *__wrap_apr_pstrdup(apr_pool_t *pool, const char *s) {
  return s != nullptr && block_fails(pool) ? nullptr : __real_apr_pstrdup(pool, s);
}
char *__wrap_apr_pstrmemdup(apr_pool_t *pool, const char *s, apr_size_t n) {
  return s != nullptr && block_fails(pool) ? nullptr : __real_apr_pstrmemdup(pool, s, n);
}
apr_array_header_t *__wrap_apr_array_make(apr_pool_t *pool, int n, int size) {
  return block_fails(pool) ? nullptr : __real_apr_array_make(pool, n, size);
}
void *__wrap_apr_array_push(apr_array_header_t *array) {
  return block_fails(array->pool) ? nullptr : __real_apr_array_push(array);
}
apr_status_t __wrap_apr_pool_create_ex(apr_pool_t **pool, apr_pool_t *parent,
                                       apr_abortfunc_t abort_fn, apr_allocator_t *allocator) {
  if (g_armed && ++g_blocks == g_fail_at) {
    if (abort_fn == nullptr && parent != nullptr) abort_fn = apr_pool_abort_get(parent);
    if (abort_fn != nullptr) abort_fn(APR_ENOMEM);
    return APR_ENOMEM;
  }
  return __real_apr_pool_create_ex(pool, parent, abort_fn, allocator);
}
}  // extern "C"

namespace {

using Op = std::function<vepra_error_t *(apr_pool_t *)>;

class PoolExhaustionTest : public vepra_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    previous_ =
        vepra_error_set_malfunction_handler([](vepra_error_t *c) noexcept -> vepra_error_t * {
          ++g_malfunctions;
          vepra_error_clear(c);
          return nullptr;
        });
  }
  void TearDown() override {
    vepra_error_set_malfunction_handler(previous_);
    LibraryTest::TearDown();
  }

  // Runs op on a fresh caller's pool with the n-th pool allocation failing,
  // n = 1, 2, ..., until a run reaches no failure. The caller's pool is a
  // child of vepra_pool (so it has the library's abort function), or with
  // bare set a root pool without one (failures come back as null only).
  static void sweep(const char *name, const Op &op, bool bare = false) {
    for (long n = 1; n < 5000; ++n) {
      apr_pool_t *pool = nullptr;
      ASSERT_EQ(bare ? apr_pool_create_ex(&pool, nullptr, nullptr, nullptr)
                     : apr_pool_create(&pool, vepra_pool),
                APR_SUCCESS);
      g_blocks = 0;
      g_malfunctions = 0;
      g_fail_at = n;
      g_armed = true;
      vepra_error_t *e = op(pool);
      g_armed = false;
      vepra::testing::fail_allocation_at(0);
      const bool reached = g_blocks >= n;
      if (reached) {
        EXPECT_NE(e, nullptr) << name << ": pool allocation " << n << " failed";
      }
      // One failure, at most one report to the handler.
      EXPECT_LE(g_malfunctions, 1) << name << ": pool allocation " << n;
      if (e != nullptr) {
        EXPECT_FALSE(vepra_test::printed_lines(e).empty()) << name;
      }
      vepra_error_clear(e);
      apr_pool_destroy(pool);
      if (!reached) {
        // Every operation here allocates from a pool at least once.
        EXPECT_GT(n, 1) << name << " made no pool allocation";
        return;
      }
    }
    ADD_FAILURE() << name << " never completed";
  }

  vepra_error_malfunction_fn previous_ = nullptr;
};

// A chain made with the failures disarmed.
vepra_error_t *made(const char *text) {
  g_armed = false;
  return vepra_error_create_i(0, 0, 0, nullptr, nullptr, nullptr, text);
}

}  // namespace

TEST_F(PoolExhaustionTest, ErrorRecordsAndChains) {
  sweep("create", [](apr_pool_t *) {
    return vepra_error_create_i(1, 7, 3, "dir/file.c", "fn", nullptr, "text");
  });
  sweep("createf", [](apr_pool_t *) {
    return vepra_error_createf_i(0, 0, 0, nullptr, nullptr, nullptr, "%s %d", "n", 5);
  });
  sweep("aprwrap",
        [](apr_pool_t *) { return vepra_error_aprwrap_i(APR_ENOENT, 0, nullptr, nullptr); });
  sweep("aprwrapf", [](apr_pool_t *) {
    return vepra_error_aprwrapf_i(APR_ENOENT, 0, nullptr, nullptr, "open %s", "x");
  });
  sweep("quick_wrap", [](apr_pool_t *) {
    vepra_error_t *cause = made("cause");
    g_armed = true;
    return vepra_error_quick_wrap_i(0, nullptr, nullptr, cause, "context");
  });
  sweep("compose_create", [](apr_pool_t *) {
    vepra_error_t *a = made("a");
    vepra_error_t *b = vepra_error_quick_wrap_i(0, "f.c", "g", made("b"), "b2");
    g_armed = true;
    return vepra_error_compose_create(a, b);
  });
  sweep("dup", [](apr_pool_t *) {
    vepra_error_t *a = vepra_error_quick_wrap_i(0, nullptr, nullptr, made("a"), "a2");
    g_armed = true;
    vepra_error_t *d = vepra_error_dup(a);
    g_armed = false;
    vepra_error_clear(a);
    return d;
  });
  sweep("register", [](apr_pool_t *) -> vepra_error_t * {
    int code = 0;
    vepra_error_t *e = vepra_error_register(&code, "name");
    if (e != nullptr) return e;
    // A success must have registered the name.
    g_armed = false;
    vepra_error_t *r = vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, nullptr);
    const bool named = vepra_test::printed_lines(r) ==
                       std::vector<std::string>{"Error(" + std::to_string(code) + "): name "};
    vepra_error_clear(r);
    vepra_error_clear(vepra_error_deregister(code));
    return named ? made("registered") : nullptr;
  });
}

TEST_F(PoolExhaustionTest, CheckedAllocationReportsThroughRecords) {
  sweep("malloc", [](apr_pool_t *) {
    void *p = nullptr;
    vepra::testing::fail_allocation_at(1);
    return vepra_mem_malloc(16, &p);
  });
  sweep("vector", [](apr_pool_t *) {
    void *v = nullptr;
    return vepra_mem_vector_alloc(&v, 8, 5, 4);
  });
  sweep("matrix", [](apr_pool_t *) {
    void *m = nullptr;
    vepra::testing::fail_allocation_at(2);
    vepra_error_t *e = vepra_mem_matrix_alloc(&m, 8, 1, 2, 1, 2);
    vepra_mem_matrix_free(m, 8, 1, 2, 1);
    return e;
  });
}

TEST_F(PoolExhaustionTest, LogsListsTreesAndTries) {
  const std::string path = vepra_test::temp_path("log");
  sweep("log", [&](apr_pool_t *pool) {
    vepra_log_t *log = nullptr;
    vepra_error_t *e = vepra_log_create(&log, path.c_str(), pool);
    if (e == nullptr) {
      vepra_log_dtprintf(log, "%s\n", "line");
      vepra_log_terminate(log);
      return made("done");
    }
    return e;
  });
  // Lists, trees, tries and string lists on a pool with the library's abort
  // function and on a bare one: each failing step returns its error.
  for (bool bare : {false, true}) {
    sweep(
        "containers",
        [](apr_pool_t *pool) -> vepra_error_t * {
          vepra_dl_t *list = nullptr;
          vepra_tree_t *root = nullptr;
          vepra_trie_t *trie = nullptr;
          vepra_strlist_t *src = nullptr;
          vepra_strlist_t *dst = nullptr;
          const std::function<vepra_error_t *()> steps[] = {
              [&] { return vepra_dl_append(&list, 1, nullptr, nullptr, pool); },
              [&] { return vepra_cdl_append(&list, 2, nullptr, nullptr, pool); },
              [&] { return vepra_dl_append(&list, 3, nullptr, nullptr, pool); },
              [&] { return vepra_tree_create(0, nullptr, &root, pool); },
              [&] { return vepra_tree_append_child(root, 1, nullptr, nullptr, pool); },
              [&] { return vepra_tree_append_child(root, 2, nullptr, nullptr, pool); },
              [&] { return vepra_trie_create(&trie, pool); },
              [&] { return vepra_trie_insert(trie, "alpha", 5, nullptr, pool); },
              [&] { return vepra_trie_insert(trie, "alps", 4, nullptr, pool); },
              [&] { return vepra_trie_insert(trie, "beta", 4, nullptr, pool); },
              [&] { return vepra_strlist_create(&src, pool); },
              [&] { return vepra_strlist_create(&dst, pool); },
              [&] { return vepra_strlist_addlast(src, "a b \"c d\"", pool); },
              [&] { return vepra_strlist_addfirst(src, "e", pool); },
              [&] { return vepra_strlist_tokenize(src, dst, " ", pool); },
              [&] { return vepra_strlist_copy(src, dst, pool); },
          };
          for (const auto &step : steps) {
            if (vepra_error_t *e = step()) return e;
          }
          return made("done");
        },
        bare);
  }
  // Functions without an error result: a failure gives null or a partial
  // result, never a crash.
  sweep("prsd and psprintf", [](apr_pool_t *pool) -> vepra_error_t * {
    vepra_prsd_t rec{};
    const int parsed = vepra_prsd_parse_p(&rec, "1 2.5 word 'quoted text'", " ", pool);
    const char *s = vepra_str_psprintf(pool, "%s-%d", "x", 1);
    return parsed >= 0 && s != nullptr && rec.n_tokens == 4 ? made("done") : made("short");
  });
}

TEST_F(PoolExhaustionTest, HeapFlavoursFailCleanly) {
  // Heap nodes do not touch pools, so the checked allocator fails first and
  // the pool failure then hits the error being built.
  sweep("dlm", [](apr_pool_t *) -> vepra_error_t * {
    vepra_dl_t *list = nullptr;
    vepra_error_t *e = vepra_dlm_append(&list, 1, nullptr, nullptr);
    vepra::testing::fail_allocation_at(1);
    if (e == nullptr) e = vepra_dlm_append(&list, 2, nullptr, nullptr);
    vepra_dlm_destroy(&list);
    return e;
  });
  sweep("treem and triem", [](apr_pool_t *) -> vepra_error_t * {
    vepra_tree_t *root = nullptr;
    vepra_trie_t *trie = nullptr;
    vepra_error_t *e = vepra_treem_create(0, nullptr, &root);
    if (e == nullptr) e = vepra_triem_create(&trie);
    if (e == nullptr) e = vepra_triem_insert(trie, "k", 1, nullptr);
    vepra::testing::fail_allocation_at(1);
    if (e == nullptr) e = vepra_treem_append_child(root, 1, nullptr, nullptr);
    vepra::testing::fail_allocation_at(2);
    if (e == nullptr) e = vepra_triem_insert(trie, "kl", 2, nullptr);
    vepra_treem_destroy(&root);
    vepra_triem_destroy(&trie);
    return e;
  });
}
