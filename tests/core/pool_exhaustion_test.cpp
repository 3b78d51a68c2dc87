// Every exported function that takes memory from a pool, run with the n-th
// pool allocation failing for n = 1, 2, ... and a malfunction handler that
// returns: each run must end in an error (or quietly, for functions without
// a result), never in a crash or a leak. The failure is made at link time
// (--wrap of the APR entry points the library calls) and does what APR does
// when its allocator has no block: call the pool's abort function, return null.
#include <apr_strings.h>
#include <apr_tables.h>

#include <functional>
#include <string>

#include "support/test_support.hpp"
#include "vepra.h"

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

using PoolExhaustionTest = vepra_test::LibraryTest;

// Runs op on a fresh caller's pool with the n-th pool allocation failing,
// n = 1, 2, ..., until a run reaches no failure, under a malfunction
// handler that counts and returns. The caller's pool is a child of
// vepra_pool (so it has the library's abort function), or with bare set a
// root pool without one (failures come back as null only).
void sweep(const char *name, const Op &op, bool bare = false) {
  const vepra_error_malfunction_fn previous =
      vepra_error_set_malfunction_handler([](vepra_error_t *c) noexcept -> vepra_error_t * {
        ++g_malfunctions;
        vepra_error_clear(c);
        return nullptr;
      });
  long n = 1;
  for (; n < 5000; ++n) {
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
    EXPECT_TRUE(!reached || e != nullptr) << name << ": pool allocation " << n << " failed";
    // One failure, at most one report to the handler.
    EXPECT_LE(g_malfunctions, 1) << name << ": pool allocation " << n;
    EXPECT_TRUE(e == nullptr || !vepra_test::printed_lines(e).empty()) << name;
    vepra_error_clear(e);
    apr_pool_destroy(pool);
    if (!reached) {
      // Every operation here allocates from a pool at least once.
      EXPECT_GT(n, 1) << name << " made no pool allocation";
      break;
    }
  }
  EXPECT_LT(n, 5000) << name << " never completed";
  vepra_error_set_malfunction_handler(previous);
}

// A record of code made with the failures disarmed.
vepra_error_t *made(int code) {
  g_armed = false;
  return vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, nullptr);
}

}  // namespace

// Each step of the sequence is a separate path to a pool: a record of its
// own, a formatted one, APR's text, a wrap, a composition (whose copies go
// into the first chain's pool), a copy, a registration, and checked
// allocations whose failure records need pools too.
TEST_F(PoolExhaustionTest, ErrorRecordsAndCheckedAllocation) {
  sweep("error chains", [](apr_pool_t *) -> vepra_error_t * {
    vepra_error_t *chain = vepra_error_create_i(1, 7, 3, "dir/file.c", "fn", nullptr, "text");
    vepra_error_t *other = vepra_error_createf_i(0, 0, 0, nullptr, nullptr, nullptr, "%s", "n");
    vepra_error_t *apr = vepra_error_aprwrapf_i(APR_ENOENT, 0, nullptr, nullptr, "open %s", "x");
    vepra_error_t *plain = vepra_error_aprwrap_i(APR_ENOENT, 0, nullptr, nullptr);
    other = vepra_error_quick_wrap_i(0, "f.c", "g", other, "context");
    chain = vepra_error_compose_create(chain, other);
    chain = vepra_error_compose_create(chain, apr);
    vepra_error_t *copy = vepra_error_dup(chain);
    vepra_error_clear(plain);
    vepra_error_clear(copy);
    return chain;
  });
  sweep("register", [](apr_pool_t *) -> vepra_error_t * {
    int code = 0;
    if (vepra_error_t *e = vepra_error_register(&code, "name")) return e;
    vepra_error_t *named = made(code);  // a success must have registered the name
    EXPECT_EQ(vepra_test::printed_lines(named).at(0), "Error(" + std::to_string(code) + "): name ");
    vepra_error_clear(vepra_error_deregister(code));
    return named;
  });
  sweep("checked allocation", [](apr_pool_t *) -> vepra_error_t * {
    void *p = nullptr;
    vepra::testing::fail_allocation_at(1);
    vepra_error_t *e = vepra_mem_malloc(16, &p);
    e = vepra_error_compose_create(e, vepra_mem_vector_alloc(&p, 8, 5, 4));
    vepra::testing::fail_allocation_at(2);
    e = vepra_error_compose_create(e, vepra_mem_matrix_alloc(&p, 8, 1, 2, 1, 2));
    vepra_mem_matrix_free(p, 8, 1, 2, 1);
    return e;
  });
}

// Logs, pool containers and the text functions that take a pool.
TEST_F(PoolExhaustionTest, LogsListsTreesAndTries) {
  const std::string path = vepra_test::temp_path("log");
  sweep("log", [&](apr_pool_t *pool) {
    vepra_log_t *log = nullptr;
    vepra_error_t *e = vepra_log_create(&log, path.c_str(), pool);
    if (e != nullptr) return e;
    vepra_log_dtprintf(log, "%s\n", "line");
    vepra_log_terminate(log);
    return made(0);
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
          vepra_strlist_t *src = nullptr, *dst = nullptr;
          const std::function<vepra_error_t *()> steps[] = {
              [&] { return vepra_dl_append(&list, 1, nullptr, nullptr, pool); },
              [&] { return vepra_cdl_append(&list, 2, nullptr, nullptr, pool); },
              [&] { return vepra_tree_create(0, nullptr, &root, pool); },
              [&] { return vepra_tree_append_child(root, 1, nullptr, nullptr, pool); },
              [&] { return vepra_trie_create(&trie, pool); },
              [&] { return vepra_trie_insert(trie, "alpha", 5, nullptr, pool); },
              [&] { return vepra_trie_insert(trie, "alps", 4, nullptr, pool); },
              [&] { return vepra_trie_insert(trie, "beta", 4, nullptr, pool); },
              [&] { return vepra_strlist_create(&src, pool); },
              [&] { return vepra_strlist_create(&dst, pool); },
              [&] { return vepra_strlist_addlast(src, "a b \"c d\"", pool); },
              [&] { return vepra_strlist_tokenize(src, dst, " ", pool); },
              [&] { return vepra_strlist_copy(src, dst, pool); },
              // Functions without an error result: a failure gives null or
              // a partial result, never a crash.
              [&]() -> vepra_error_t * {
                vepra_prsd_t rec{};
                vepra_prsd_parse_p(&rec, "1 2.5 word 'quoted text'", " ", pool);
                vepra_str_psprintf(pool, "%s-%d", "x", 1);
                return nullptr;
              },
          };
          for (const auto &step : steps) {
            if (vepra_error_t *e = step()) return e;
          }
          return made(0);
        },
        bare);
  }
}
