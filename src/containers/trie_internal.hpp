// Node records of the nibble trie, shared by its implementation and tests.
//
// Every node begins with a kind word. A leaf holds the trie's own copy of
// a key (followed by one zero byte) and the caller's data; an inner node
// branches sixteen ways on one 4-bit digit of the key and may hold the
// leaf whose key ends exactly at it. A node at depth d branches on digit d:
// digit 2i is the low nibble of byte i, digit 2i + 1 its high nibble.
#ifndef VEPRA_SRC_CONTAINERS_TRIE_INTERNAL_HPP
#define VEPRA_SRC_CONTAINERS_TRIE_INTERNAL_HPP

#include <cstddef>
#include <cstdint>

#include "vepra_trie.h"

namespace vepra::detail {

enum TrieKind : uint32_t { kTrieLeaf = 0, kTrieInner = 1 };

// What a slot points to: the kind word tells which record follows.
struct TrieNode {
  uint32_t kind;
};

struct TrieLeaf {
  uint32_t kind;  // kTrieLeaf
  char *key;      // own copy, key[length] == 0
  uint64_t length;
  void *data;
};

// The count comes before the own leaf so that the record packs into 144
// bytes; the header and the first six children share one cache line.
struct TrieInner {
  uint32_t kind;   // kTrieInner
  uint32_t count;  // leaves below, own leaf included; a hint (see delete)
  TrieLeaf *own;   // the leaf whose key ends here, or null
  TrieNode *child[16];
};

static_assert(offsetof(TrieLeaf, kind) == 0 && offsetof(TrieInner, kind) == 0);
static_assert(sizeof(TrieLeaf) == 32 && sizeof(TrieInner) == 144);

}  // namespace vepra::detail

// The root cell: one slot holding the root node, null when empty.
struct vepra_trie_t {
  vepra::detail::TrieNode *root;
};

#endif  // VEPRA_SRC_CONTAINERS_TRIE_INTERNAL_HPP
