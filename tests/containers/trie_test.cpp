// Nibble tries in both flavours against std::map and fresh tries, then exact
// shapes for the edge cases, hostile nodes, deep keys and failing allocations.
#include <optional>

#include "containers/container_ids.hpp"
#include "containers/trie_internal.hpp"
#include "vepra_trie.h"

namespace {

using namespace vepra_test;
using namespace vepra::detail;

// Walk order: by digits, low nibble first, i.e. bytes with swapped nibbles.
struct ByDigits {
  static std::string swapped(std::string key) {
    for (char &c : key) c = static_cast<char>((c & 15) << 4 | (c >> 4 & 15));
    return key;
  }
  bool operator()(const std::string &a, const std::string &b) const {
    return swapped(a) < swapped(b);
  }
};

void *tag(size_t i) { return reinterpret_cast<void *>(i + 1); }

// A trie's shape: leaves by key, inner nodes by count, own leaf and children.
std::string shape(const void *node) {
  if (node == nullptr) return "-";
  auto leaf = static_cast<const TrieLeaf *>(node);
  auto inner = static_cast<const TrieInner *>(node);
  if (leaf->head.kind == kTrieLeaf) return "'" + std::string(leaf->key, leaf->length) + "'";
  if (inner->head.kind != kTrieInner) return "?";
  std::string out = "[" + std::to_string(inner->count) + " own=" + shape(inner->own);
  for (unsigned d = 0; d < 16; ++d)
    if (inner->child[d] != nullptr) out += " " + std::to_string(d) + ":" + shape(inner->child[d]);
  return out + "]";
}

using Entries = std::vector<std::pair<std::string, void *>>;
Entries walked(const vepra_trie_t *trie) {
  Entries out;
  auto add = [](size_t n, const char *key, void *data, void *user) {
    EXPECT_EQ(key[n], '\0');  // keys are handed over terminated
    static_cast<Entries *>(user)->emplace_back(std::string(key, n), data);
  };
  vepra_trie_walk(trie, add, &out);
  return out;
}

// One trie of either flavour, destroyed at the end of the test.
struct Trie {
  Trie(bool heap_nodes, apr_pool_t *p) : heap(heap_nodes), pool(p) {
    EXPECT_EQ(heap ? vepra_triem_create(&trie) : vepra_trie_create(&trie, pool), nullptr);
  }
  ~Trie() { heap ? vepra_triem_destroy(&trie) : vepra_trie_destroy(&trie); }
  vepra_error_t *insert(const char *key, size_t n, void *data) {
    return heap ? vepra_triem_insert(trie, key, n, data)
                : vepra_trie_insert(trie, key, n, data, pool);
  }
  vepra_error_t *insert(const std::string &key, void *data) {
    return insert(key.data(), key.size(), data);
  }
  // The empty key goes as a null pointer, a key of n bytes from null as nothing.
  void remove(const char *key, size_t n) {
    heap ? vepra_triem_delete(trie, key, n) : vepra_trie_delete(trie, key, n);
  }
  void remove(const std::string &key) { remove(key.empty() ? nullptr : key.data(), key.size()); }
  void *search(const std::string &key) const {
    return vepra_trie_search(trie, key.data(), key.size());
  }
  std::string shape() const { return ::shape(trie->root); }
  bool heap;
  apr_pool_t *pool;
  vepra_trie_t *trie = nullptr;
};

class TrieTest : public LibraryTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool heap() const { return GetParam(); }
  // The chain an insertion failure with the given inner line prints.
  std::string insert_failure(int code, const std::string &inner) const {
    std::string head = "Error(" + std::to_string(code) + "): ";
    return head + "Can't insert trie" + (heap() ? "m" : "") + " node. \n" + head + inner;
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, TrieTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "triem" : "trie"; });

// Keys over a few bytes share prefixes. The exact run deletes only present keys,
// so counts stay exact and the shape is a fresh trie's: every fold happened.
TEST_P(TrieTest, AgreesWithStdMapOnRandomKeys) {
  const struct {
    bool exact;
    std::vector<unsigned char> alphabet;
    size_t max_len, rounds, period;
  } runs[] = {{false, {0x00, 0x01, 0x10, 0x11, 0x7f, 0xff}, 16, 12000, 1000},
              {true, {0x00, 0x0f, 0xf0, 0x5a}, 8, 4000, 400}};
  std::mt19937 rng(GetParam() ? 1234 : 4321);
  auto random_key = [&](const auto &run) {
    std::string key(rng() % (run.max_len + 1), '\0');
    for (char &c : key) c = static_cast<char>(run.alphabet[rng() % run.alphabet.size()]);
    return key;
  };
  for (const auto &run : runs) {
    Trie t(heap(), pool_);
    std::map<std::string, void *, ByDigits> reference;
    for (size_t round = 0; round < run.rounds; ++round) {
      std::string key = random_key(run);
      bool present = reference.count(key) != 0;
      if (run.exact ? !present || rng() % 2 == 0 : rng() % 5 < 3) {  // a duplicate is refused
        EXPECT_EQ(take_printed(t.insert(key, tag(round))),
                  present ? insert_failure(120082, "Subtrie already exists. ") : "");
        reference.emplace(key, tag(round));
      } else {
        reference.erase(key);
        t.remove(key);
      }
      std::string probe = random_key(run);
      auto found = reference.find(probe);
      ASSERT_EQ(t.search(probe), found == reference.end() ? nullptr : found->second);
      if (round % run.period != run.period - 1) continue;
      ASSERT_EQ(walked(t.trie), Entries(reference.begin(), reference.end()));
      if (!run.exact) continue;
      Trie fresh(heap(), pool_);
      for (const auto &[k, data] : reference) ASSERT_EQ(fresh.insert(k, data), nullptr);
      ASSERT_EQ(t.shape(), fresh.shape());
    }
  }
}

// trie_steps.tsv: deletion counts, prefixes, the empty key, stopped walks, alien nodes.
TEST_P(TrieTest, StepsLeaveTheListedShapes) {
  std::optional<Trie> t;
  TrieNode alien{7};
  for (auto row : table_rows(VEPRA_TEST_DATA_DIR "/containers/trie_steps.tsv")) {
    row.resize(3);
    const std::string &op = row[0], key = row[1].substr(1, row[1].size() - 2), &want = row[2];
    SCOPED_TRACE(op + " " + row[1]);
    if (op == "new") {
      t.emplace(heap(), pool_);
    } else if (op == "insert") {
      EXPECT_EQ(take_printed(t->insert(key, tag(key.size()))),
                want == "-" ? "" : insert_failure(std::stoi(want), want.substr(7) + " "));
    } else if (op == "search") {
      void *found = vepra_trie_search(t->trie, key.empty() ? nullptr : key.data(), key.size());
      EXPECT_EQ(found, want == "-" ? nullptr : tag(std::stoul(want)));
    } else if (op == "walk") {
      std::pair<std::string, std::string> seen{row[1], ""};  // stop key, keys seen
      auto until = [](size_t n, const char *k, void *data, void *user) {
        auto *s = static_cast<std::pair<std::string, std::string> *>(user);
        EXPECT_EQ(data, tag(n));
        s->second += "<" + std::string(k, n) + ">";
        return s->first == "'" + std::string(k, n) + "'" ? 42 : 0;
      };
      const int stopped = vepra_trie_walk_int_first(t->trie, until, &seen);
      EXPECT_EQ(seen.second, want);
      EXPECT_EQ(stopped, row[1] == "-" ? 0 : 42);
    } else {
      if (op == "delete") t->remove(key);
      if (op == "plant" || op == "unplant")
        reinterpret_cast<TrieInner *>(t->trie->root)->child[std::stoi(key)] =
            op == "plant" ? &alien : nullptr;
      EXPECT_EQ(t->shape(), want);
    }
  }
  EXPECT_TRUE(t.has_value());  // the table was read
}

TEST_P(TrieTest, BadArgumentsAreQuietOrReported) {
  expect_quiet_with(nullptr, vepra_trie_insert, vepra_triem_insert, vepra_trie_search,
                    vepra_trie_delete, vepra_triem_delete, vepra_trie_walk, vepra_trie_destroy,
                    vepra_triem_destroy, vepra_trie_create, vepra_triem_create);
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("", tag(0)), nullptr);
  t.remove(nullptr, 1);
  EXPECT_EQ(t.shape(), "''");
  EXPECT_EQ(take_printed(t.insert(nullptr, 1, tag(0))),
            insert_failure(120086, "Wrong key of leaf. "));
  // A length whose leaf size would overflow is refused before the key is read.
  const size_t absurd = SIZE_MAX - sizeof(TrieLeaf);
  EXPECT_EQ(take_printed(t.insert("a", absurd, tag(0))),
            insert_failure(120012, "Failed to allocate " +
                                       std::to_string(heap() ? absurd + 1 : SIZE_MAX) +
                                       " bytes of memory. "));
  t.remove("");
  EXPECT_EQ(t.trie->root, nullptr);
  if (heap()) return;
  EXPECT_EQ(take_printed(vepra_trie_insert(t.trie, "a", 1, tag(0), nullptr)),
            insert_failure(120012, "Failed to allocate 34 bytes of memory. "));
  vepra_trie_t *cell = nullptr;
  EXPECT_EQ(take_printed(vepra_trie_create(&cell, nullptr)),
            "Error(120012): Can't create new trie. \n"
            "Error(120012): Failed to allocate 8 bytes of memory. ");
  EXPECT_EQ(cell, nullptr);
}

// A long shared prefix is one inner node a digit: nothing may recurse that deep,
// and the walk's path grows on the heap, which may fail.
TEST_P(TrieTest, VeryDeepTriesNeedNoRecursion) {
  Trie t(heap(), pool_);
  std::string a(60000, 'k'), b = a, half = a.substr(0, 30000);
  b.back() = 'l';
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);
  ASSERT_EQ(t.insert(b, tag(1)), nullptr);
  int visits = 0;
  auto count = [](size_t, const char *, void *, void *user) -> vepra_error_t * {
    ++*static_cast<int *>(user);
    return nullptr;
  };
  long growths = for_each_allocation_failure(
      [&] { return vepra_trie_walk_err_first(t.trie, count, &(visits = 0)); },
      [&](vepra_error_t *e, long n) {
        EXPECT_EQ(take_printed(vepra_error_dup(e)),
                  "Error(120012): Cannot walk trie. \nError(120012): Failed to allocate " +
                      std::to_string(1024 << n) + " bytes of memory. ");
        EXPECT_EQ(visits, 0);
      });
  EXPECT_GE(growths, 8);  // the inline path holds 64 frames, each growth doubles
  EXPECT_EQ(visits, 2);
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(walked(t.trie).size(), 0u);  // a walk without error channel ends early
  vepra::testing::fail_allocation_at(0);
  ASSERT_EQ(t.insert(half, tag(2)), nullptr);
  // 'k' = 0x6b, 'l' = 0x6c: digit 11 < 12
  EXPECT_EQ(walked(t.trie), (Entries{{half, tag(2)}, {a, tag(0)}, {b, tag(1)}}));
  t.remove(a);
  t.remove(half);
  EXPECT_EQ(t.shape(), "'" + b + "'");      // folded all the way up
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);  // a deep trie left for destroy
}

// Each allocation of a heap trie's create or insert fails: the trie stays as it was.
class TriemTest : public LibraryTest {};

TEST_F(TriemTest, AllocationFailuresLeaveTheTrieUnchanged) {
  vepra_trie_t *other = nullptr;
  EXPECT_EQ(expect_alloc_failures([&] { return vepra_triem_create(&other); },
                                  "Error(120012): Can't create new triem. \n"
                                  "Error(120012): Failed to allocate 8 bytes of memory. ",
                                  [] {}),
            1);
  vepra_triem_destroy(&other);
  Trie t(true, pool_);
  for (const char *key : {"alpha", "alps", "beta", "b"}) ASSERT_EQ(t.insert(key, tag(0)), nullptr);
  const std::string failed =
      "Error(120012): Can't insert triem node. \n"
      "Error(120012): Failed to allocate ";
  for (const std::string key : {"gamma", "alpine", "", "alphabet", "alpha!!!!!!!!!!!!!!!!!!!!"}) {
    const std::string before = t.shape();
    long made = for_each_allocation_failure(
        [&] { return t.insert(key, tag(1)); },
        [&](vepra_error_t *e, long n) {
          EXPECT_EQ(take_printed(vepra_error_dup(e)).substr(0, failed.size()), failed);
          EXPECT_EQ(t.shape(), before) << key << " at " << n;
        });
    EXPECT_GE(made, 2);
    EXPECT_EQ(t.search(key), tag(1));
  }
  EXPECT_EQ(walked(t.trie).size(), 9u);
  // A duplicate fails after the leaf is made; the leaf goes again.
  const std::string before = t.shape();
  EXPECT_EQ(take_printed(t.insert("alpha", tag(2))),
            "Error(120082): Can't insert triem node. \nError(120082): Subtrie already exists. ");
  EXPECT_EQ(t.shape(), before);
}

}  // namespace
