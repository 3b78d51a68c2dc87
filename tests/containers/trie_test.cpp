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
  std::string out = "[" + std::to_string(inner->count) + " own=" +
                    shape(reinterpret_cast<const TrieNode *>(inner->own));
  for (unsigned d = 0; d < 16; ++d)
    if (inner->child[d] != nullptr) out += " " + std::to_string(d) + ":" + shape(inner->child[d]);
  return out + "]";
}

// Checks that every leaf stands on its own digits and every own leaf ends
// exactly at its node; with exact counts, also that each count equals the
// leaves below and that no inner node could have folded. Returns the number
// of leaves below node.
uint32_t check_placement(const TrieNode *node, std::vector<unsigned> &path, bool exact_counts) {
  if (node == nullptr) return 0;
  if (const TrieLeaf *leaf = leaf_of(node)) {
    std::vector<unsigned> d = digits(std::string(leaf->key, leaf->length));
    EXPECT_GE(d.size(), path.size());
    EXPECT_TRUE(std::equal(path.begin(), path.end(), d.begin())) << "misplaced leaf";
    EXPECT_EQ(leaf->key[leaf->length], '\0');
    return 1;
  }
  const TrieInner *inner = inner_of(node);
  if (inner == nullptr) {
    ADD_FAILURE() << "node of unknown kind";
    return 0;
  }
  uint32_t leaves = 0;
  if (inner->own != nullptr) {
    EXPECT_EQ(2 * inner->own->length, path.size()) << "own leaf at the wrong depth";
    leaves += check_placement(reinterpret_cast<const TrieNode *>(inner->own), path, exact_counts);
  }
  for (unsigned d = 0; d < 16; ++d) {
    path.push_back(d);
    leaves += check_placement(inner->child[d], path, exact_counts);
    path.pop_back();
  }
  if (exact_counts) {
    EXPECT_EQ(inner->count, leaves);
    EXPECT_GE(leaves, 2u) << "an inner node over a single leaf should have folded";
  }
  return leaves;
}

void check_placement(const vepra_trie_t *trie, bool exact_counts) {
  std::vector<unsigned> path;
  check_placement(trie->root, path, exact_counts);
}

std::vector<std::pair<std::string, void *>> walked(const vepra_trie_t *trie) {
  std::vector<std::pair<std::string, void *>> out;
  vepra_trie_walk(
      trie,
      [](size_t length, const char *key, void *data, void *user) {
        static_cast<std::vector<std::pair<std::string, void *>> *>(user)->emplace_back(
            std::string(key, length), data);
      },
      &out);
  return out;
}

// One trie of either flavour, destroyed at the end of the test.
class Trie {
 public:
  Trie(bool heap, apr_pool_t *pool) : heap_(heap), pool_(pool) {
    vepra_error_t *e = heap ? vepra_triem_create(&trie_) : vepra_trie_create(&trie_, pool);
    EXPECT_EQ(e, nullptr);
    vepra_error_clear(e);
  }
  ~Trie() {
    if (heap_) vepra_triem_destroy(&trie_);
    vepra_trie_destroy(&trie_);
  }
  Trie(const Trie &) = delete;
  Trie &operator=(const Trie &) = delete;

  vepra_error_t *insert(const std::string &key, void *data) {
    return heap_ ? vepra_triem_insert(trie_, key.data(), key.size(), data)
                 : vepra_trie_insert(trie_, key.data(), key.size(), data, pool_);
  }
  void remove(const std::string &key) {
    if (heap_)
      vepra_triem_delete(trie_, key.data(), key.size());
    else
      vepra_trie_delete(trie_, key.data(), key.size());
  }
  void *search(const std::string &key) const { return vepra_trie_search(trie_, key.data(), key.size()); }
  vepra_trie_t *get() const { return trie_; }
  const TrieNode *root() const { return trie_->root; }

 private:
  bool heap_;
  apr_pool_t *pool_;
  vepra_trie_t *trie_ = nullptr;
};

class TrieTest : public vepra_test::LibraryTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool heap() const { return GetParam(); }
  std::string context() const {
    return heap() ? "Can't insert triem node." : "Can't insert trie node.";
  }
  // The chain an insertion failure with the given inner line prints.
  std::string insert_failure(int code, const std::string &inner) const {
    return "Error(" + std::to_string(code) + "): " + context() + " \nError(" +
           std::to_string(code) + "): " + inner;
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, TrieTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "triem" : "trie"; });

TEST_P(TrieTest, EmptyKeyIsRootLeafThenOwnLeafOfRoot) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("", tag(0)), nullptr);
  ASSERT_NE(leaf_of(t.root()), nullptr);
  ASSERT_EQ(t.insert("x", tag(1)), nullptr);
  const TrieInner *root = inner_of(t.root());
  ASSERT_NE(root, nullptr);
  ASSERT_NE(root->own, nullptr);
  EXPECT_EQ(root->own->length, 0u);
  EXPECT_EQ(t.search(""), tag(0));
  EXPECT_EQ(t.search("x"), tag(1));
  EXPECT_EQ(vepra_trie_search(t.get(), nullptr, 0), tag(0));
  t.remove("x");
  EXPECT_EQ(shape(t.root()), "''");
}

TEST_P(TrieTest, PrefixKeyIsOwnLeafAtItsDepthAndWalksFirst) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("ab", tag(0)), nullptr);
  ASSERT_EQ(t.insert("abc", tag(1)), nullptr);
  const TrieNode *node = t.root();
  for (unsigned d : digits("ab")) {
    const TrieInner *inner = inner_of(node);
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->own, nullptr);
    node = inner->child[d];
  }
  const TrieInner *at4 = inner_of(node);
  ASSERT_NE(at4, nullptr);
  ASSERT_NE(at4->own, nullptr);
  EXPECT_EQ(std::string(at4->own->key), "ab");
  EXPECT_EQ(t.search("ab"), tag(0));
  EXPECT_EQ(t.search("abc"), tag(1));
  EXPECT_EQ(t.search("a"), nullptr);
  auto order = walked(t.get());
  ASSERT_EQ(order.size(), 2u);
  EXPECT_EQ(order[0].first, "ab");
  EXPECT_EQ(order[1].first, "abc");
  check_placement(t.get(), true);
}

TEST_P(TrieTest, SearchComparesTheWholeKey) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("abc", tag(0)), nullptr);
  ASSERT_NE(leaf_of(t.root()), nullptr);
  EXPECT_EQ(t.search("abd"), nullptr);
  EXPECT_EQ(t.search("ab"), nullptr);
  EXPECT_EQ(t.search("abcd"), nullptr);
  EXPECT_EQ(t.search(std::string("abc\0", 4)), nullptr);
  EXPECT_EQ(t.search("abc"), tag(0));
}

TEST_P(TrieTest, DeletingOneOfTwoKeysFoldsTheChainIntoTheOther) {
  Trie t(heap(), pool_);
  // "ab" and "ac" share two digits: a chain of three inner nodes.
  ASSERT_EQ(t.insert("ab", tag(0)), nullptr);
  ASSERT_EQ(t.insert("ac", tag(1)), nullptr);
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:[2 own=- 6:[2 own=- 2:'ab' 3:'ac']]]");
  t.remove("ab");
  EXPECT_EQ(shape(t.root()), "'ac'");
  EXPECT_EQ(t.search("ac"), tag(1));
  // A fold stops below a node that keeps other entries.
  ASSERT_EQ(t.insert("ab", tag(0)), nullptr);
  ASSERT_EQ(t.insert("q", tag(2)), nullptr);
  EXPECT_EQ(shape(t.root()), "[3 own=- 1:[3 own=- 6:[2 own=- 2:'ab' 3:'ac'] 7:'q']]");
  t.remove("ac");
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:[2 own=- 6:'ab' 7:'q']]");
  EXPECT_EQ(t.search("ab"), tag(0));
  EXPECT_EQ(t.search("q"), tag(2));
  check_placement(t.get(), true);
}

TEST_P(TrieTest, DuplicateKeyIsRefusedAndTheFirstEntryKept) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("key", tag(0)), nullptr);
  std::string before = shape(t.root());
  EXPECT_EQ(vepra_test::take_printed(t.insert("key", tag(1))),
            insert_failure(120082, "Subtrie already exists. "));
  EXPECT_EQ(shape(t.root()), before);
  ASSERT_EQ(t.insert("kez", tag(2)), nullptr);
  ASSERT_EQ(t.insert("k", tag(3)), nullptr);
  before = shape(t.root());
  for (const char *again : {"key", "kez", "k"})
    EXPECT_EQ(vepra_test::take_printed(t.insert(again, tag(9))),
              insert_failure(120082, "Subtrie already exists. "))
        << again;
  EXPECT_EQ(shape(t.root()), before);  // counts restored too
  EXPECT_EQ(t.search("key"), tag(0));
  EXPECT_EQ(t.search("k"), tag(3));
}

TEST_P(TrieTest, WalkFollowsDigitOrderNotByteOrder) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("\x12", tag(0)), nullptr);
  ASSERT_EQ(t.insert("\x21", tag(1)), nullptr);
  ASSERT_EQ(t.insert("\x21\x01", tag(2)), nullptr);
  auto order = walked(t.get());
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(order[0].first, "\x21");
  EXPECT_EQ(order[1].first, "\x21\x01");
  EXPECT_EQ(order[2].first, "\x12");
  EXPECT_EQ(order[2].second, tag(0));
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
      std::vector<std::string> expected;
      for (const auto &entry : reference) expected.push_back(entry.first);
      std::sort(expected.begin(), expected.end(), digit_less);
      auto order = walked(t.get());
      ASSERT_EQ(order.size(), expected.size());
      for (size_t i = 0; i < order.size(); ++i) {
        ASSERT_EQ(order[i].first, expected[i]) << i;
        ASSERT_EQ(order[i].second, reference[expected[i]]);
      }
      check_placement(t.get(), false);
    }
  }
  EXPECT_GT(missing_deletes, 100u);
  for (const auto &entry : reference) EXPECT_EQ(t.search(entry.first), entry.second);
}

// With only deletions of present keys, counts stay exact and the shape is
// the one a fresh trie of the same keys has, whatever the history.
TEST_P(TrieTest, DeletingPresentKeysKeepsTheShapeOfAFreshTrie) {
  std::mt19937 rng(99);
  const unsigned char alphabet[] = {0x00, 0x0f, 0xf0, 0x5a};
  Trie t(heap(), pool_);
  std::map<std::string, void *> reference;
  for (size_t round = 0; round < 4000; ++round) {
    std::string key(rng() % 9, '\0');
    for (char &c : key) c = static_cast<char>(alphabet[rng() % sizeof alphabet]);
    if (reference.count(key) != 0) {
      if (rng() % 2 == 0) continue;
      t.remove(key);
      reference.erase(key);
    } else {
      ASSERT_EQ(t.insert(key, tag(round)), nullptr);
      reference[key] = tag(round);
    }
    if (round % 400 == 399) {
      check_placement(t.get(), true);
      Trie fresh(heap(), pool_);
      for (const auto &entry : reference) ASSERT_EQ(fresh.insert(entry.first, entry.second), nullptr);
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
  t.remove("Q");  // 0x51: leads to leaf 'A', which does not match
  EXPECT_EQ(shape(t.root()), "[0 own=- 1:'A' 2:'B']");
  t.remove("A");  // found, but the count drops from 0: no fold
  EXPECT_EQ(shape(t.root()), "[4294967295 own=- 2:'B']");
  EXPECT_EQ(t.search("B"), tag(1));
  t.remove("B");  // an empty inner node stays behind
  EXPECT_EQ(shape(t.root()), "[4294967294 own=-]");
  EXPECT_EQ(walked(t.get()).size(), 0u);
  ASSERT_EQ(t.insert("B", tag(1)), nullptr);
  EXPECT_EQ(t.search("B"), tag(1));
  EXPECT_EQ(walked(t.get()).size(), 1u);
}

// A single inner child does not fold its parent, and a fold climbs through
// every ancestor whose count drops from 2 to 1.
TEST_P(TrieTest, FoldClimbsOnlyThroughSingleEntryAncestors) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("\x01", tag(0)), nullptr);
  ASSERT_EQ(t.insert("\x11", tag(1)), nullptr);
  ASSERT_EQ(t.insert("\x21", tag(2)), nullptr);
  EXPECT_EQ(shape(t.root()), "[3 own=- 1:[3 own=- 0:'\x01' 1:'\x11' 2:'\x21']]");
  t.remove("\x01");
  EXPECT_EQ(shape(t.root()), "[2 own=- 1:[2 own=- 1:'\x11' 2:'\x21']]");
  t.remove("\x21");
  EXPECT_EQ(shape(t.root()), "'\x11'");
}

TEST_P(TrieTest, NodeOfUnknownKindIsReportedNotFollowed) {
  Trie t(heap(), pool_);
  ASSERT_EQ(t.insert("A", tag(0)), nullptr);
  ASSERT_EQ(t.insert("B", tag(1)), nullptr);
  TrieNode alien{7};
  auto *root = const_cast<TrieInner *>(inner_of(t.root()));
  root->child[3] = &alien;
  std::string before = shape(t.root());
  EXPECT_EQ(vepra_test::take_printed(t.insert("C", tag(2))),
            insert_failure(120091, "Incorrect node type in trie. "));
  EXPECT_EQ(vepra_test::take_printed(t.insert("S", tag(2))),  // 0x53 passes slot 3
            insert_failure(120091, "Incorrect node type in trie. "));
  EXPECT_EQ(shape(t.root()), before);
  EXPECT_EQ(t.search("C"), nullptr);
  auto order = walked(t.get());
  ASSERT_EQ(order.size(), 2u);
  EXPECT_EQ(order[1].first, "B");
  t.remove("A");  // the alien keeps the root from folding into 'B'
  EXPECT_EQ(shape(t.root()), "[1 own=- 2:'B' 3:?]");
  t.remove("C");
  EXPECT_EQ(shape(t.root()), "[0 own=- 2:'B' 3:?]");
  const_cast<TrieInner *>(inner_of(t.root()))->child[3] = nullptr;

  // At the root of a trie.
  vepra_trie_t *other = nullptr;
  ASSERT_EQ(vepra_trie_create(&other, pool_), nullptr);
  other->root = &alien;
  EXPECT_EQ(vepra_test::take_printed(vepra_trie_insert(other, "x", 1, tag(0), pool_)),
            "Error(120091): Can't insert trie node. \nError(120091): Incorrect node type in trie. ");
  EXPECT_EQ(vepra_trie_search(other, "x", 1), nullptr);
  vepra_trie_delete(other, "x", 1);
  EXPECT_EQ(walked(other).size(), 0u);
  EXPECT_EQ(other->root, &alien);
}

TEST_P(TrieTest, NullArgumentsAreQuiet) {
  EXPECT_EQ(vepra_trie_insert(nullptr, "a", 1, tag(0), pool_), nullptr);
  EXPECT_EQ(vepra_triem_insert(nullptr, "a", 1, tag(0)), nullptr);
  EXPECT_EQ(vepra_trie_search(nullptr, "a", 1), nullptr);
  vepra_trie_delete(nullptr, "a", 1);
  vepra_triem_delete(nullptr, "a", 1);
  vepra_trie_walk(nullptr, [](size_t, const char *, void *, void *) { FAIL(); }, nullptr);
  vepra_trie_destroy(nullptr);
  vepra_triem_destroy(nullptr);
  vepra_trie_t *none = nullptr;
  vepra_triem_destroy(&none);
  EXPECT_EQ(vepra_trie_create(nullptr, pool_), nullptr);
  EXPECT_EQ(vepra_triem_create(nullptr), nullptr);

  Trie t(heap(), pool_);
  EXPECT_EQ(t.search("a"), nullptr);  // empty trie
  vepra_error_t *e = heap() ? vepra_triem_insert(t.get(), nullptr, 3, tag(0))
                            : vepra_trie_insert(t.get(), nullptr, 3, tag(0), pool_);
  EXPECT_EQ(vepra_test::take_printed(e), insert_failure(120086, "Wrong key of leaf. "));
  EXPECT_EQ(vepra_trie_search(t.get(), nullptr, 3), nullptr);
  EXPECT_EQ(t.root(), nullptr);
  if (!heap()) {
    EXPECT_EQ(vepra_test::take_printed(vepra_trie_insert(t.get(), "a", 1, tag(0), nullptr)),
              insert_failure(120012, "Failed to allocate 34 bytes of memory. "));
    vepra_trie_t *cell = nullptr;
    EXPECT_EQ(vepra_test::take_printed(vepra_trie_create(&cell, nullptr)),
              "Error(120012): Can't create new trie. \n"
              "Error(120012): Failed to allocate 8 bytes of memory. ");
    EXPECT_EQ(cell, nullptr);
  }
}

TEST_P(TrieTest, DestroySetsTheVariableToNull) {
  vepra_trie_t *trie = nullptr;
  ASSERT_EQ(heap() ? vepra_triem_create(&trie) : vepra_trie_create(&trie, pool_), nullptr);
  for (const char *key : {"", "a", "ab", "abc", "b", "ba"}) {
    ASSERT_EQ(heap() ? vepra_triem_insert(trie, key, std::strlen(key), tag(0))
                     : vepra_trie_insert(trie, key, std::strlen(key), tag(0), pool_),
              nullptr);
  }
  vepra_trie_t *copy = trie;
  if (heap()) {
    vepra_triem_destroy(&trie);  // the leak check sees anything left
  } else {
    vepra_trie_destroy(&trie);
    EXPECT_EQ(vepra_trie_search(copy, "ab", 2), tag(0));  // the pool keeps it
  }
  EXPECT_EQ(trie, nullptr);
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
  EXPECT_EQ(shape(t.root()), "'" + b + "'");
  ASSERT_EQ(t.insert(a, tag(0)), nullptr);  // left for destroy
}

struct Seen {
  std::vector<std::string> keys;
  std::string stop_at;
  void *found = nullptr;
};

TEST_P(TrieTest, WalkFamilyStopRules) {
  Trie t(heap(), pool_);
  for (const char *key : {"a", "b", "c", "d"}) ASSERT_EQ(t.insert(key, tag(key[0] - 'a')), nullptr);
  Seen seen;
  seen.stop_at = "c";
  auto *trie = t.get();

  EXPECT_EQ(vepra_trie_walk_int_first(
                trie,
                [](size_t n, const char *key, void *, void *user) {
                  auto *s = static_cast<Seen *>(user);
                  s->keys.emplace_back(key, n);
                  return s->keys.back() == s->stop_at ? 42 : 0;
                },
                &seen),
            42);
  EXPECT_EQ(seen.keys, (std::vector<std::string>{"a", "b", "c"}));

  EXPECT_EQ(vepra_trie_walk_ptr_first(
                trie,
                [](size_t n, const char *key, void *data, void *user) {
                  return std::string(key, n) == static_cast<Seen *>(user)->stop_at ? data : nullptr;
                },
                &seen),
            tag(2));
  EXPECT_EQ(vepra_trie_walk_ptr_first(
                trie, [](size_t, const char *, void *, void *) -> void * { return nullptr; }, &seen),
            nullptr);

  EXPECT_EQ(vepra_trie_walk_err_first(
                trie,
                [](size_t n, const char *key, void *, void *user) {
                  return std::string(key, n) == static_cast<Seen *>(user)->stop_at
                             ? VepraDLlistStopWalking
                             : nullptr;
                },
                &seen),
            VepraDLlistStopWalking);
  vepra_error_t *e = vepra_trie_walk_err_first(
      trie,
      [](size_t, const char *key, void *, void *) {
        return key[0] == 'b' ? vepra_error_create_i(0, 120080, 0, nullptr, nullptr, nullptr, "mine")
                             : nullptr;
      },
      nullptr);
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(e->message, "mine");
  vepra_error_clear(e);

  void *slot = nullptr;
  EXPECT_EQ(vepra_trie_walk_err_or_ptr_first(
                trie,
                [](size_t n, const char *key, void *data, void *user, void **result) -> vepra_error_t * {
                  auto *s = static_cast<Seen *>(user);
                  if (std::string(key, n) == s->stop_at) *result = data;
                  s->found = *result;
                  return nullptr;
                },
                &seen, &slot),
            nullptr);
  EXPECT_EQ(slot, tag(2));
  EXPECT_EQ(seen.found, tag(2));  // not called again after the slot was set

  EXPECT_EQ(vepra_trie_walk_int_first(trie, nullptr, nullptr), 0);
  EXPECT_EQ(vepra_trie_walk_ptr_first(trie, nullptr, nullptr), nullptr);
  EXPECT_EQ(vepra_trie_walk_err_first(trie, nullptr, nullptr), nullptr);
  EXPECT_EQ(vepra_trie_walk_err_or_ptr_first(trie, nullptr, nullptr, &slot), nullptr);
  vepra_trie_walk(trie, nullptr, nullptr);
  EXPECT_EQ(vepra_trie_walk_int_first(nullptr, [](size_t, const char *, void *, void *) { return 1; },
                                      nullptr),
            0);
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
        EXPECT_EQ(vepra_test::printed_lines(e),
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
    check_placement(t.get(), true);
  }
  EXPECT_EQ(walked(t.get()).size(), 9u);
  // A duplicate fails after the leaf is made; the leaf goes again.
  const std::string before = shape(t.root());
  EXPECT_EQ(vepra_test::take_printed(t.insert("alpha", tag(2))),
            "Error(120082): Can't insert triem node. \nError(120082): Subtrie already exists. ");
  EXPECT_EQ(shape(t.root()), before);
}

}  // namespace
