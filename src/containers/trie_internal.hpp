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
#include <type_traits>

#include "vepra_trie.h"

namespace vepra::detail {

enum TrieKind : uint32_t { kTrieLeaf = 0, kTrieInner = 1 };

// What a slot points to: the kind word tells which record it begins. Both
// records start with this header as their first member, so a slot's node
// is read as a TrieNode and converted to its record only once its kind is
// known (the header and the record share their address).
struct TrieNode {
  uint32_t kind;
};

struct TrieLeaf {
  TrieNode head;  // kind kTrieLeaf
  char *key;      // own copy, key[length] == 0
  uint64_t length;
  void *data;
};

// The count comes before the own leaf so that the record packs into 144
// bytes; the header and the first six children share one cache line.
struct TrieInner {
  TrieNode head;   // kind kTrieInner
  uint32_t count;  // leaves below, own leaf included; a hint (see delete)
  TrieLeaf *own;   // the leaf whose key ends here, or null
  TrieNode *child[16];
};

static_assert(std::is_standard_layout_v<TrieLeaf> && std::is_standard_layout_v<TrieInner>);
static_assert(offsetof(TrieLeaf, head) == 0 && offsetof(TrieInner, head) == 0);
static_assert(sizeof(TrieLeaf) == 32 && sizeof(TrieInner) == 144);

}  // namespace vepra::detail

// The root cell: one slot holding the root node, null when empty.
struct vepra_trie_t {
  vepra::detail::TrieNode *root;
};

#endif  // VEPRA_SRC_CONTAINERS_TRIE_INTERNAL_HPP
