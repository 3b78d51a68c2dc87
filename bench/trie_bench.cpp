// Insertion, search and deletion of 1 Mi random keys of 8 to 16
// bytes in the nibble trie, against std::unordered_map and std::map on the
// same keys. Throughputs are in items per second (one item = one key).
// Insertion reports the heap memory a built container holds ("bytes/key",
// allocator overhead included; not measured for the pool flavour) and, for
// the tries, what their records strictly need ("layout/key": inner nodes,
// leaves and key copies) and the number of inner nodes a key.
#include <benchmark/benchmark.h>

#include "bench_main.hpp"
#include <malloc.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "containers/trie_internal.hpp"
#include "vepra_error.h"
#include "vepra_trie.h"

namespace {

constexpr size_t kKeys = size_t{1} << 20;

struct Keys {
  std::vector<std::string> insert_order;
  std::vector<std::string> lookup_order;  // the same keys, shuffled apart
};

const Keys &keys() {
  static const Keys k = [] {
    Keys out;
    std::mt19937_64 rng(20261122);
    std::unordered_set<std::string> seen;
    while (out.insert_order.size() < kKeys) {
      std::string key(8 + rng() % 9, '\0');
      for (char &c : key) c = static_cast<char>(rng());
      if (seen.insert(key).second) out.insert_order.push_back(std::move(key));
    }
    out.lookup_order = out.insert_order;
    std::shuffle(out.lookup_order.begin(), out.lookup_order.end(), rng);
    return out;
  }();
  return k;
}

void *value_of(size_t i) { return reinterpret_cast<void *>(i + 1); }

size_t heap_in_use() { return mallinfo2().uordblks; }

// The containers under test, behind one interface.
struct Triem {
  vepra_trie_t *trie = nullptr;
  Triem() { vepra_error_clear(vepra_triem_create(&trie)); }
  ~Triem() { vepra_triem_destroy(&trie); }
  void insert(const std::string &k, void *v) {
    vepra_error_clear(vepra_triem_insert(trie, k.data(), k.size(), v));
  }
  void *search(const std::string &k) const { return vepra_trie_search(trie, k.data(), k.size()); }
  void remove(const std::string &k) { vepra_triem_delete(trie, k.data(), k.size()); }
};

struct PoolTrie {
  apr_pool_t *pool = nullptr;
  vepra_trie_t *trie = nullptr;
  PoolTrie() {
    apr_pool_create(&pool, nullptr);
    vepra_error_clear(vepra_trie_create(&trie, pool));
  }
  ~PoolTrie() { apr_pool_destroy(pool); }
  void insert(const std::string &k, void *v) {
    vepra_error_clear(vepra_trie_insert(trie, k.data(), k.size(), v, pool));
  }
  void *search(const std::string &k) const { return vepra_trie_search(trie, k.data(), k.size()); }
  void remove(const std::string &k) { vepra_trie_delete(trie, k.data(), k.size()); }
};

template <class Map>
struct StdMap {
  Map map;
  void insert(const std::string &k, void *v) { map.emplace(k, v); }
  void *search(const std::string &k) const {
    auto it = map.find(k);
    return it == map.end() ? nullptr : it->second;
  }
  void remove(const std::string &k) { map.erase(k); }
};

// Inner nodes and layout bytes of a trie's records.
struct Layout {
  size_t inner = 0;
  size_t bytes = 0;
};

void add_layout(const vepra::detail::TrieNode *node, Layout &out) {
  using namespace vepra::detail;
  if (node == nullptr) return;
  if (node->kind == kTrieLeaf) {
    out.bytes += sizeof(TrieLeaf) + reinterpret_cast<const TrieLeaf *>(node)->length + 1;
    return;
  }
  const auto *inner = reinterpret_cast<const TrieInner *>(node);
  ++out.inner;
  out.bytes += sizeof(TrieInner);
  add_layout(reinterpret_cast<const TrieNode *>(inner->own), out);
  for (const TrieNode *child : inner->child) add_layout(child, out);
}

template <class C>
Layout layout_of(const C &c) {
  Layout out;
  if constexpr (requires { c.trie; }) add_layout(c.trie->root, out);
  return out;
}

using Unordered = StdMap<std::unordered_map<std::string, void *>>;
using Ordered = StdMap<std::map<std::string, void *>>;

template <class C>
void fill(C &c) {
  const auto &k = keys().insert_order;
  for (size_t i = 0; i < k.size(); ++i) c.insert(k[i], value_of(i));
}

template <class C>
void BM_Insert(benchmark::State &state) {
  keys();
  size_t bytes = 0;
  Layout layout;
  for (auto _ : state) {
    state.PauseTiming();
    {
      size_t before = heap_in_use();
      auto *c = new C;
      state.ResumeTiming();
      fill(*c);
      state.PauseTiming();
      bytes = heap_in_use() - before;
      layout = layout_of(*c);
      delete c;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
  if (bytes > 0) state.counters["bytes/key"] = static_cast<double>(bytes) / kKeys;
  if (layout.bytes > 0) {
    state.counters["layout/key"] = static_cast<double>(layout.bytes) / kKeys;
    state.counters["inner/key"] = static_cast<double>(layout.inner) / kKeys;
  }
}

template <class C>
void BM_Search(benchmark::State &state) {
  C c;
  fill(c);
  const auto &k = keys().lookup_order;
  size_t found = 0;
  for (auto _ : state) {
    for (const std::string &key : k) {
      void *v = c.search(key);
      benchmark::DoNotOptimize(v);
      found += v != nullptr;
    }
  }
  if (found != state.iterations() * kKeys) state.SkipWithError("a key was not found");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

template <class C>
void BM_Delete(benchmark::State &state) {
  const auto &k = keys().lookup_order;
  for (auto _ : state) {
    state.PauseTiming();
    {
      auto *c = new C;
      fill(*c);
      state.ResumeTiming();
      for (const std::string &key : k) c->remove(key);
      state.PauseTiming();
      delete c;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

#define VEPRA_TRIE_BENCH(op)                                                   \
  BENCHMARK_TEMPLATE(BM_##op, Triem)->Name(#op "/triem")->Unit(benchmark::kMillisecond);       \
  BENCHMARK_TEMPLATE(BM_##op, PoolTrie)->Name(#op "/trie")->Unit(benchmark::kMillisecond);     \
  BENCHMARK_TEMPLATE(BM_##op, Unordered)->Name(#op "/unordered_map")->Unit(benchmark::kMillisecond); \
  BENCHMARK_TEMPLATE(BM_##op, Ordered)->Name(#op "/map")->Unit(benchmark::kMillisecond);

VEPRA_TRIE_BENCH(Insert)
VEPRA_TRIE_BENCH(Search)
VEPRA_TRIE_BENCH(Delete)

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv); }
