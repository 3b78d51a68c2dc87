#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "containers/trie_internal.hpp"
#include "support/test_support.hpp"
#include "vepra_mem.h"
#include "vepra_trie.h"

namespace {

using vepra::detail::kTrieInner;
using vepra::detail::kTrieLeaf;
using vepra::detail::TrieInner;
using vepra::detail::TrieLeaf;
using vepra::detail::TrieNode;

// The digits of a key, computed from its bytes: low nibble, then high.
std::vector<unsigned> digits(const std::string &key) {
  std::vector<unsigned> out;
  for (unsigned char c : key) {
    out.push_back(c & 15u);
    out.push_back(c >> 4);
  }
  return out;
}

bool digit_less(const std::string &a, const std::string &b) {
  std::vector<unsigned> da = digits(a), db = digits(b);
  return std::lexicographical_compare(da.begin(), da.end(), db.begin(), db.end());
}

void *tag(size_t i) { return reinterpret_cast<void *>(i + 1); }

const TrieInner *inner_of(const TrieNode *node) {
  return node != nullptr && node->kind == kTrieInner ? reinterpret_cast<const TrieInner *>(node)
                                                     : nullptr;
}
const TrieLeaf *leaf_of(const TrieNode *node) {
  return node != nullptr && node->kind == kTrieLeaf ? reinterpret_cast<const TrieLeaf *>(node)
                                                    : nullptr;
}

// A printed picture of a trie's shape: leaves by key, inner nodes with
// their count, own leaf and children by digit.
std::string shape(const TrieNode *node) {
  if (node == nullptr) return "-";
  if (const TrieLeaf *leaf = leaf_of(node)) return "'" + std::string(leaf->key, leaf->length) + "'";
  const TrieInner *inner = inner_of(node);
  if (inner == nullptr) return "?";
  std::string out = "[" + std::to_string(inner->count) +
                    " own=" + shape(reinterpret_cast<const TrieNode *>(inner->own));
  for (unsigned d = 0; d < 16; ++d)
    if (inner->child[d] != nullptr) out += " " + std::to_string(d) + ":" + shape(inner->child[d]);
  return out + "]";
}

// Checks that every leaf lies on its own digits with its key terminated, and
// every own leaf ends exactly at its node; with exact counts, also that each
// count is the number of leaves below and at least 2 (else the node should
// have folded). Returns the number of leaves below node.
uint32_t check_placement(const TrieNode *node, bool exact, std::vector<unsigned> path = {}) {
  if (const TrieLeaf *leaf = leaf_of(node)) {
    std::vector<unsigned> d = digits(std::string(leaf->key, leaf->length));
    EXPECT_TRUE(d.size() >= path.size() && std::equal(path.begin(), path.end(), d.begin()));
    EXPECT_EQ(leaf->key[leaf->length], '\0');
    return 1;
  }
  const TrieInner *inner = inner_of(node);
  if (inner == nullptr) return 0;
  uint32_t leaves = 0;
  if (inner->own != nullptr) {
    EXPECT_EQ(2 * inner->own->length, path.size()) << "own leaf at the wrong depth";
    leaves += check_placement(reinterpret_cast<const TrieNode *>(inner->own), exact, path);
  }
  for (unsigned d = 0; d < 16; ++d) {
    path.push_back(d);
    leaves += check_placement(inner->child[d], exact, path);
    path.pop_back();
  }
  EXPECT_TRUE(!exact || (inner->count == leaves && leaves >= 2)) << shape(node);
  return leaves;
}

using Entries = std::vector<std::pair<std::string, void *>>;
Entries walked(const vepra_trie_t *trie) {
  Entries out;
  auto add = [](size_t n, const char *key, void *data, void *user) {
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
  vepra_error_t *insert(const std::string &key, void *data) {
    return heap ? vepra_triem_insert(trie, key.data(), key.size(), data)
                : vepra_trie_insert(trie, key.data(), key.size(), data, pool);
  }
  void remove(const std::string &key) {
    heap ? vepra_triem_delete(trie, key.data(), key.size())
         : vepra_trie_delete(trie, key.data(), key.size());
  }
  void *search(const std::string &key) const {
    return vepra_trie_search(trie, key.data(), key.size());
  }
  vepra_trie_t *get() const { return trie; }
  const TrieNode *root() const { return trie->root; }
  bool heap;
  apr_pool_t *pool;
  vepra_trie_t *trie = nullptr;
};

class TrieTest : public vepra_test::LibraryTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool heap() const { return GetParam(); }
  // The chain an insertion failure with the given inner line prints.
  std::string insert_failure(int code, const std::string &inner) const {
    std::string head = "Error(" + std::to_string(code) + "): ";
    return head + (heap() ? "Can't insert triem node. \n" : "Can't insert trie node. \n") + head +
           inner;
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, TrieTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "triem" : "trie"; });

TEST_P(TrieTest, KeysStandWhereTheirDigitsLead) {
  Trie t(heap(), pool_);
  // The empty key: a root leaf, then the root inner node's own leaf.
  ASSERT_EQ(t.insert("", tag(0)), nullptr);
  EXPECT_EQ(shape(t.root()), "''");
  ASSERT_EQ(t.insert("x", tag(1)), nullptr);  // 0x78: digits 8, 7
  EXPECT_EQ(shape(t.root()), "[2 own='' 8:'x']");
  EXPECT_EQ(vepra_trie_search(t.get(), nullptr, 0), tag(0));
  // A key that is a prefix of another is the own leaf at depth 4.
  Trie p(heap(), pool_);
  ASSERT_EQ(p.insert("ab", tag(0)), nullptr);
  EXPECT_EQ(p.search("abd"), nullptr);  // a single root leaf: compared whole
  EXPECT_EQ(p.search("a"), nullptr);
  EXPECT_EQ(p.search(std::string("ab\0", 3)), nullptr);
  ASSERT_EQ(p.insert("abc", tag(1)), nullptr);
  EXPECT_EQ(shape(p.root()),
            "[2 own=- 1:[2 own=- 6:[2 own=- 2:[2 own=- 6:[2 own='ab' 3:'abc']]]]]");
  EXPECT_EQ(p.search("ab"), tag(0));
  EXPECT_EQ(p.search("abc"), tag(1));
  // The walk goes by digits: 0x21 before 0x12, a key before its extensions.
  ASSERT_EQ(p.insert("\x12", tag(2)), nullptr);
  ASSERT_EQ(p.insert("\x21", tag(3)), nullptr);
  ASSERT_EQ(p.insert("\x21\x01", tag(4)), nullptr);
  std::vector<std::pair<std::string, void *>> expected{
      {"\x21", tag(3)}, {"\x21\x01", tag(4)}, {"ab", tag(0)}, {"abc", tag(1)}, {"\x12", tag(2)}};
  EXPECT_EQ(walked(p.get()), expected);
}

// Deleting one of two keys folds the chain above it into the other (the
// comparison with fresh tries covers the folds in general).
TEST_P(TrieTest, DeletionFoldsIntoTheRemainingLeaf) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("ab", tag(0)), nullptr);
  ASSERT_EQ(t.insert("ac", tag(1)), nullptr);
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:[2 own=- 6:[2 own=- 2:'ab' 3:'ac']]]");
  t.remove("ab");
  EXPECT_EQ(shape(t.root()), "'ac'");
}

// Random keys over a few byte values, so that many keys share prefixes or
// are prefixes of each other, checked against std::map.
TEST_P(TrieTest, AgreesWithStdMapOnRandomKeys) {
  std::mt19937 rng(GetParam() ? 1234 : 4321);
  const unsigned char alphabet[] = {0x00, 0x01, 0x10, 0x11, 0x7f, 0xff};
  auto random_key = [&] {
    std::string key(rng() % 17, '\0');
    for (char &c : key) c = static_cast<char>(alphabet[rng() % sizeof alphabet]);
    return key;
  };
  Trie t(heap(), pool_);
  std::map<std::string, void *> reference;
  size_t missing_deletes = 0;
  for (size_t round = 0; round < 12000; ++round) {
    std::string key = random_key();
    if (rng() % 5 < 3) {
      vepra_error_t *e = t.insert(key, tag(round));
      if (reference.count(key) != 0) {
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->code, 120082);
        vepra_error_clear(e);
      } else {
        ASSERT_EQ(e, nullptr);
        reference[key] = tag(round);
      }
    } else {
      missing_deletes += reference.erase(key) == 0;
      t.remove(key);
    }
    std::string probe = random_key();
    auto found = reference.find(probe);
    ASSERT_EQ(t.search(probe), found == reference.end() ? nullptr : found->second);
    if (round % 1000 == 999) {
      std::vector<std::pair<std::string, void *>> expected(reference.begin(), reference.end());
      std::stable_sort(expected.begin(), expected.end(),
                       [](const auto &a, const auto &b) { return digit_less(a.first, b.first); });
      ASSERT_EQ(walked(t.get()), expected);
      check_placement(t.root(), false);
    }
  }
  EXPECT_GT(missing_deletes, 100u);
  for (const auto &entry : reference) EXPECT_EQ(t.search(entry.first), entry.second);
}

// With only deletions of present keys and refused duplicates, counts stay
// exact and the shape is the one a fresh trie of the same keys has.
TEST_P(TrieTest, DeletingPresentKeysKeepsTheShapeOfAFreshTrie) {
  std::mt19937 rng(99);
  const unsigned char alphabet[] = {0x00, 0x0f, 0xf0, 0x5a};
  Trie t(heap(), pool_);
  std::map<std::string, void *> reference;
  for (size_t round = 0; round < 4000; ++round) {
    std::string key(rng() % 9, '\0');
    for (char &c : key) c = static_cast<char>(alphabet[rng() % sizeof alphabet]);
    if (reference.count(key) != 0 && rng() % 2 == 0) {  // refused, the first entry kept
      EXPECT_EQ(vepra_test::take_printed(t.insert(key, tag(0))),
                insert_failure(120082, "Subtrie already exists. "));
    } else if (reference.count(key) != 0) {
      t.remove(key);
      reference.erase(key);
    } else {
      ASSERT_EQ(t.insert(key, tag(round)), nullptr);
      reference[key] = tag(round);
    }
    if (round % 400 == 399) {
      check_placement(t.root(), true);
      Trie fresh(heap(), pool_);
      for (const auto &entry : reference)
        ASSERT_EQ(fresh.insert(entry.first, entry.second), nullptr);
      ASSERT_EQ(shape(t.root()), shape(fresh.root()));
    }
  }
}

// Deleting a missing key lowers the counts of the inner nodes on its path
// all the same; a node whose key ends there without its leaf keeps its
// count. Folding happens only when a count drops from 2 to 1.
TEST_P(TrieTest, CountIsAHintLoweredByMissingKeys) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("A", tag(0)), nullptr);  // 0x41: digits 1, 4
  ASSERT_EQ(t.insert("B", tag(1)), nullptr);  // 0x42: digits 2, 4
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:'A' 2:'B']");
  t.remove("");  // ends at the root, which has no own leaf
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:'A' 2:'B']");
  t.remove("C");  // 0x43: empty slot 3 below the root
  EXPECT_EQ(shape(t.root()), "[1 own=- 1:'A' 2:'B']");
  t.remove("A");  // found, but the count drops from 1, not 2: no fold
  EXPECT_EQ(shape(t.root()), "[0 own=- 2:'B']");
  t.remove("R");  // 0x52: leads to leaf 'B', which does not match
  EXPECT_EQ(shape(t.root()), "[4294967295 own=- 2:'B']");
  EXPECT_EQ(t.search("B"), tag(1));
  t.remove("B");  // an empty inner node stays behind
  EXPECT_EQ(shape(t.root()), "[4294967294 own=-]");
  EXPECT_EQ(walked(t.get()).size(), 0u);
  ASSERT_EQ(t.insert("B", tag(1)), nullptr);
  EXPECT_EQ(t.search("B"), tag(1));
  EXPECT_EQ(walked(t.get()).size(), 1u);
}

TEST_P(TrieTest, NodeOfUnknownKindIsReportedNotFollowed) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("A", tag(0)), nullptr);
  ASSERT_EQ(t.insert("B", tag(1)), nullptr);
  TrieNode alien{7};
  const_cast<TrieInner *>(inner_of(t.root()))->child[3] = &alien;
  for (const char *key : {"C", "S"}) {  // 0x43 meets it, 0x53 would pass it
    EXPECT_EQ(vepra_test::take_printed(t.insert(key, tag(2))),
              insert_failure(120091, "Incorrect node type in trie. "));
  }
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:'A' 2:'B' 3:?]");
  EXPECT_EQ(t.search("C"), nullptr);
  EXPECT_EQ(walked(t.get()).size(), 2u);
  t.remove("A");  // the alien keeps the root from folding into 'B'
  t.remove("C");
  EXPECT_EQ(shape(t.root()), "[0 own=- 2:'B' 3:?]");
  const_cast<TrieInner *>(inner_of(t.root()))->child[3] = nullptr;
}

TEST_P(TrieTest, NullArgumentsAreQuiet) {
  EXPECT_EQ(vepra_trie_insert(nullptr, "a", 1, tag(0), pool_), nullptr);
  EXPECT_EQ(vepra_triem_insert(nullptr, "a", 1, tag(0)), nullptr);
  EXPECT_EQ(vepra_trie_search(nullptr, "a", 1), nullptr);
  vepra_triem_delete(nullptr, "a", 1);
  vepra_trie_walk(
      nullptr, [](size_t, const char *, void *, void *) { FAIL(); }, nullptr);
  vepra_triem_destroy(nullptr);
  EXPECT_EQ(vepra_trie_create(nullptr, pool_), nullptr);
  EXPECT_EQ(vepra_triem_create(nullptr), nullptr);
  Trie t(heap(), pool_);
  EXPECT_EQ(t.search("a"), nullptr);
  vepra_error_t *e = heap() ? vepra_triem_insert(t.get(), nullptr, 3, tag(0))
                            : vepra_trie_insert(t.get(), nullptr, 3, tag(0), pool_);
  EXPECT_EQ(vepra_test::take_printed(e), insert_failure(120086, "Wrong key of leaf. "));
  EXPECT_EQ(t.root(), nullptr);
  if (heap()) return;
  EXPECT_EQ(vepra_test::take_printed(vepra_trie_insert(t.get(), "a", 1, tag(0), nullptr)),
            insert_failure(120012, "Failed to allocate 34 bytes of memory. "));
  vepra_trie_t *cell = nullptr;
  EXPECT_EQ(vepra_test::take_printed(vepra_trie_create(&cell, nullptr)),
            "Error(120012): Can't create new trie. \n"
            "Error(120012): Failed to allocate 8 bytes of memory. ");
  EXPECT_EQ(cell, nullptr);
}

// Two keys sharing a long prefix make one inner node a digit: nothing may
// recurse that deep.
TEST_P(TrieTest, VeryDeepTriesNeedNoRecursion) {
  Trie t(heap(), pool_);
  std::string a(60000, 'k');
  std::string b = a;
  b.back() = 'l';
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);
  ASSERT_EQ(t.insert(b, tag(1)), nullptr);
  ASSERT_EQ(t.insert(a.substr(0, 30000), tag(2)), nullptr);
  EXPECT_EQ(t.search(a), tag(0));
  EXPECT_EQ(t.search(b), tag(1));
  EXPECT_EQ(vepra_test::take_printed(t.insert(b, tag(3))).substr(0, 14), "Error(120082):");
  auto order = walked(t.get());
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(order[0].second, tag(2));
  EXPECT_EQ(order[1].second, tag(0));  // 'k' = 0x6b, 'l' = 0x6c: digit 11 < 12
  t.remove(a);
  t.remove(a.substr(0, 30000));
  ASSERT_NE(leaf_of(t.root()), nullptr);  // folded all the way up
  EXPECT_EQ(shape(t.root()), "'" + b + "'");
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);  // left for destroy
}

// The stop rules are the walk family's; what the trie adds is handing each
// callback the key, its length and the data.
TEST_P(TrieTest, WalksHandOverKeysAndStop) {
  Trie t(heap(), pool_);
  for (const char *key : {"a", "b", "c", "d"}) ASSERT_EQ(t.insert(key, tag(key[0] - 'a')), nullptr);
  std::string seen;
  auto upto_c = [](size_t n, const char *key, void *data, void *user) {
    EXPECT_EQ(data, tag(key[0] - 'a'));
    *static_cast<std::string *>(user) += std::string(key, n);
    return std::string(key, n) == "c" ? 42 : 0;
  };
  EXPECT_EQ(vepra_trie_walk_int_first(t.get(), upto_c, &seen), 42);
  EXPECT_EQ(seen, "abc");
  void *slot = nullptr;
  auto take_c = [](size_t n, const char *key, void *data, void *, void **result) {
    EXPECT_EQ(*result, nullptr);  // not called again once set
    if (std::string(key, n) == "c") *result = data;
    return static_cast<vepra_error_t *>(nullptr);
  };
  EXPECT_EQ(vepra_trie_walk_err_or_ptr_first(t.get(), take_c, nullptr, &slot), nullptr);
  EXPECT_EQ(slot, tag(2));
  EXPECT_EQ(vepra_trie_walk_err_first(t.get(), nullptr, nullptr), nullptr);
}

TEST_P(TrieTest, DeepWalkPathGrowsAndReportsItsAllocationFailure) {
  Trie t(heap(), pool_);
  std::string a(100, 'x');  // 200 levels: beyond the walk's inline path
  std::string b = a + "y";
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);
  ASSERT_EQ(t.insert(b, tag(1)), nullptr);
  auto count = [](size_t, const char *, void *, void *user) -> vepra_error_t * {
    ++*static_cast<int *>(user);
    return nullptr;
  };
  int visits = 0;
  long allocations = vepra_test::for_each_allocation_failure(
      [&] {
        visits = 0;
        return vepra_trie_walk_err_first(t.get(), count, &visits);
      },
      [&](vepra_error_t *e, long n) {
        std::string bytes = n == 1 ? "2048" : "4096";
        EXPECT_EQ(vepra_test::printed_lines(e),
                  (std::vector<std::string>{
                      "Error(120012): Cannot walk trie. ",
                      "Error(120012): Failed to allocate " + bytes + " bytes of memory. "}));
        EXPECT_EQ(visits, 0);
      });
  EXPECT_EQ(allocations, 2);  // 128 and then 256 frames
  EXPECT_EQ(visits, 2);
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(walked(t.get()).size(), 0u);  // a walk without error channel ends early
  vepra::testing::fail_allocation_at(0);
}

class TriemTest : public vepra_test::LibraryTest {};

TEST_F(TriemTest, CreateReportsAllocationFailure) {
  vepra_test::for_each_allocation_failure(
      [] {
        vepra_trie_t *trie = nullptr;
        vepra_error_t *e = vepra_triem_create(&trie);
        vepra_triem_destroy(&trie);
        return e;
      },
      [](vepra_error_t *e, long) {
        EXPECT_EQ(
            vepra_test::printed_lines(e),
            (std::vector<std::string>{"Error(120012): Can't create new triem. ",
                                      "Error(120012): Failed to allocate 8 bytes of memory. "}));
      });
}

// Every allocation of an insertion may fail: the error is the allocator's,
// and the trie is left exactly as it was, with nothing leaked (the
// sanitizer build checks the leaks).
TEST_F(TriemTest, InsertAllocationFailuresLeaveTheTrieUnchanged) {
  Trie t(true, pool_);
  for (const char *key : {"alpha", "alps", "beta", "b"}) ASSERT_EQ(t.insert(key, tag(0)), nullptr);
  const std::string long_key = "alpha" + std::string(20, '!');
  for (const std::string &key : {std::string("gamma"), std::string("alpine"), std::string(""),
                                 std::string("alphabet"), long_key}) {
    const std::string before = shape(t.root());
    long made = vepra_test::for_each_allocation_failure(
        [&] { return t.insert(key, tag(1)); },
        [&](vepra_error_t *e, long n) {
          std::vector<std::string> lines = vepra_test::printed_lines(e);
          ASSERT_EQ(lines.size(), 2u);
          EXPECT_EQ(lines[0], "Error(120012): Can't insert triem node. ");
          EXPECT_EQ(lines[1].rfind("Error(120012): Failed to allocate ", 0), 0u) << n;
          EXPECT_EQ(shape(t.root()), before) << key << " failing allocation " << n;
        });
    EXPECT_GE(made, 2);
    EXPECT_EQ(t.search(key), tag(1));
    check_placement(t.root(), true);
  }
  EXPECT_EQ(walked(t.get()).size(), 9u);
  // A duplicate fails after the leaf is made; the leaf goes again.
  const std::string before = shape(t.root());
  EXPECT_EQ(vepra_test::take_printed(t.insert("alpha", tag(2))),
            "Error(120082): Can't insert triem node. \nError(120082): Subtrie already exists. ");
  EXPECT_EQ(shape(t.root()), before);
}

}  // namespace
