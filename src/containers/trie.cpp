// The nibble trie: insertion, search, deletion with folding, walks and
// destruction for the pool flavour (vepra_trie_*) and the owned-memory
// flavour (vepra_triem_*).
//
// Every descent is a loop, never a recursion: two keys sharing a long
// prefix make a chain of one inner node per digit, so the depth of a trie
// is bounded only by its keys.
#include <cstring>
#include <type_traits>

#include "containers/node_source.hpp"
#include "containers/trie_internal.hpp"
#include "containers/walk.hpp"
#include "core/error_internal.hpp"
#include "vepra_mem.h"

namespace vepra::detail {
namespace {

// A record and its header share their address (trie_internal.hpp), so the
// casts from a header to the record its kind names are exact. Null stays
// null.
TrieNode *as_node(TrieLeaf *leaf) noexcept { return leaf != nullptr ? &leaf->head : nullptr; }
TrieNode *as_node(TrieInner *inner) noexcept { return inner != nullptr ? &inner->head : nullptr; }
const TrieNode *as_node(const TrieLeaf *leaf) noexcept {
  return leaf != nullptr ? &leaf->head : nullptr;
}
TrieLeaf *as_leaf(TrieNode *node) noexcept { return reinterpret_cast<TrieLeaf *>(node); }
TrieInner *as_inner(TrieNode *node) noexcept { return reinterpret_cast<TrieInner *>(node); }
const TrieLeaf *as_leaf(const TrieNode *node) noexcept {
  return reinterpret_cast<const TrieLeaf *>(node);
}
const TrieInner *as_inner(const TrieNode *node) noexcept {
  return reinterpret_cast<const TrieInner *>(node);
}

// The digits of a key: digit d is the low nibble of byte d / 2 for even d
// and its high nibble for odd d. A key of n bytes has 2n digits; at depth
// 2n it is exhausted.
struct Key {
  const unsigned char *bytes;
  size_t length;

  bool exhausted(uint64_t depth) const noexcept { return (depth >> 1) >= length; }
  unsigned digit(uint64_t depth) const noexcept {
    return (bytes[depth >> 1] >> ((depth & 1) << 2)) & 15u;
  }
  bool matches(const TrieLeaf *leaf) const noexcept {
    return leaf->length == length && (length == 0 || std::memcmp(leaf->key, bytes, length) == 0);
  }
};

Key key_of(const TrieLeaf *leaf) noexcept {
  return Key{reinterpret_cast<const unsigned char *>(leaf->key), static_cast<size_t>(leaf->length)};
}

// Where a trie's records come from: a caller's pool, whose records are
// never freed one by one, or the checked allocator (pool null), whose
// records are freed as soon as the trie lets go of them.
struct Store : NodeSource {
  const char *insert_context;

  vepra_error_t *pool_alloc(size_t size, void **out) const noexcept {
    return NodeSource{pool, false}.alloc(size, out);
  }

  // A leaf holding a copy of key, with a zero byte after it. The pool
  // flavour keeps the copy right behind the record.
  vepra_error_t *new_leaf(const Key &key, void *data, TrieLeaf **out) const noexcept {
    TrieLeaf *leaf = nullptr;
    char *copy = nullptr;
    if (heap) {
      void *record = nullptr;
      void *bytes = nullptr;
      if (vepra_error_t *e = vepra_mem_malloc(sizeof(TrieLeaf), &record)) return e;
      if (vepra_error_t *e = vepra_mem_calloc(key.length + 1, 1, &bytes)) {
        vepra_mem_free(record);
        return e;
      }
      leaf = static_cast<TrieLeaf *>(record);
      copy = static_cast<char *>(bytes);
    } else {
      if (key.length > SIZE_MAX - sizeof(TrieLeaf) - 1)
        return alloc_error(SIZE_MAX);
      void *block = nullptr;
      if (vepra_error_t *e = pool_alloc(sizeof(TrieLeaf) + key.length + 1, &block)) return e;
      leaf = static_cast<TrieLeaf *>(block);
      copy = reinterpret_cast<char *>(leaf + 1);
    }
    if (key.length != 0) std::memcpy(copy, key.bytes, key.length);
    copy[key.length] = '\0';
    leaf->head.kind = kTrieLeaf;
    leaf->key = copy;
    leaf->length = key.length;
    leaf->data = data;
    *out = leaf;
    return nullptr;
  }

  // An inner node with no leaf and no children, counting two leaves (it is
  // only ever made to separate two keys).
  vepra_error_t *new_inner(TrieInner **out) const noexcept {
    void *block = nullptr;
    if (vepra_error_t *e = alloc(sizeof(TrieInner), &block)) return e;
    auto *inner = static_cast<TrieInner *>(block);
    inner->head.kind = kTrieInner;
    inner->count = 2;
    *out = inner;
    return nullptr;
  }

  void release(TrieLeaf *leaf) const noexcept {
    if (!heap || leaf == nullptr) return;
    vepra_mem_free(leaf->key);
    vepra_mem_free(leaf);
  }

  void release(TrieInner *inner) const noexcept { NodeSource::release(inner); }
};

constexpr Store pool_store(apr_pool_t *pool) { return Store{{pool, false}, "Can't insert trie node."}; }
constexpr Store kHeapStore{{nullptr, true}, "Can't insert triem node."};

// Frees the chain of single-child inner nodes that starts at top at depth
// depth and follows key's digits down to (and including) last; last may be
// null to free until the chain ends.
void release_chain(const Store &store, TrieInner *top, uint64_t depth, const Key &key,
                   const TrieInner *last) noexcept {
  while (top != nullptr) {
    TrieInner *next = top == last ? nullptr : as_inner(top->child[key.digit(depth)]);
    store.release(top);
    top = next;
    ++depth;
  }
}

// The leaf in *slot (at depth depth) and the new leaf part at the first
// digit where their keys differ or one of them ends: one inner node for
// every shared digit from depth on, and one where they part.
vepra_error_t *split(TrieNode **slot, uint64_t depth, const Key &key, TrieLeaf *leaf,
                     const Store &store) noexcept {
  TrieLeaf *old = as_leaf(*slot);
  const Key old_key = key_of(old);
  uint64_t parting = depth;
  while (!key.exhausted(parting) && !old_key.exhausted(parting) &&
         key.digit(parting) == old_key.digit(parting))
    ++parting;
  if (key.exhausted(parting) && old_key.exhausted(parting))
    return make_error(VEPRA_E_TRIE_SUBTRIE_EXISTS);

  TrieInner *top = nullptr;
  TrieInner *bottom = nullptr;
  for (uint64_t d = depth; d <= parting; ++d) {
    TrieInner *fresh = nullptr;
    if (vepra_error_t *e = store.new_inner(&fresh)) {
      release_chain(store, top, depth, key, nullptr);
      return e;
    }
    if (bottom == nullptr)
      top = fresh;
    else
      bottom->child[key.digit(d - 1)] = as_node(fresh);
    bottom = fresh;
  }
  auto place = [bottom, parting](TrieLeaf *part, const Key &part_key) {
    if (part_key.exhausted(parting))
      bottom->own = part;
    else
      bottom->child[part_key.digit(parting)] = as_node(part);
  };
  place(old, old_key);
  place(leaf, key);
  *slot = as_node(top);
  return nullptr;
}

// Links leaf under key. The counts of the inner nodes passed are raised on
// the way down and lowered again if the insertion fails, so a failure
// leaves the trie as it was.
vepra_error_t *link_leaf(vepra_trie_t *trie, const Key &key, TrieLeaf *leaf,
                         const Store &store) noexcept {
  TrieNode **slot = &trie->root;
  uint64_t depth = 0;
  uint64_t raised = 0;
  vepra_error_t *failure = nullptr;
  for (;;) {
    TrieNode *node = *slot;
    if (node == nullptr) {
      *slot = as_node(leaf);
      return nullptr;
    }
    if (node->kind == kTrieLeaf) {
      failure = split(slot, depth, key, leaf, store);
      if (failure == nullptr) return nullptr;
      break;
    }
    if (node->kind != kTrieInner) {
      failure = make_error(VEPRA_E_TRIE_NODE_TYPE);
      break;
    }
    TrieInner *inner = as_inner(node);
    ++inner->count;
    ++raised;
    if (key.exhausted(depth)) {
      if (inner->own == nullptr) {
        inner->own = leaf;
        return nullptr;
      }
      failure = make_error(VEPRA_E_TRIE_SUBTRIE_EXISTS);
      break;
    }
    slot = &inner->child[key.digit(depth++)];
  }
  // The raised nodes are the first ones of the key's path, one a depth.
  TrieNode *node = trie->root;
  for (uint64_t d = 0; d < raised; ++d) {
    TrieInner *inner = as_inner(node);
    --inner->count;
    if (d + 1 < raised) node = inner->child[key.digit(d)];
  }
  return failure;
}

vepra_error_t *insert(vepra_trie_t *trie, const void *bytes, size_t length, void *data,
                      const Store &store) noexcept {
  if (trie == nullptr) return nullptr;
  if (bytes == nullptr && length != 0)
    return wrap_error(make_error(VEPRA_E_TRIE_WRONG_KEY), "%s", store.insert_context);
  const Key key{static_cast<const unsigned char *>(bytes), length};
  TrieLeaf *leaf = nullptr;
  VEPRA_RETURN_IF_ERROR(store.new_leaf(key, data, &leaf), "%s", store.insert_context);
  if (vepra_error_t *e = link_leaf(trie, key, leaf, store)) {
    store.release(leaf);
    return wrap_error(e, "%s", store.insert_context);
  }
  return nullptr;
}

// The one non-null entry (own leaf or child) of an inner node, or null when
// it has none or several.
TrieNode *sole_entry(const TrieInner *inner) noexcept {
  TrieNode *sole = as_node(inner->own);
  for (TrieNode *child : inner->child) {
    if (child == nullptr) continue;
    if (sole != nullptr) return nullptr;
    sole = child;
  }
  return sole;
}

// Removes key. Every inner node on the key's path loses one from its count
// whether or not the key is found below it (the count is only a hint), save
// the node where the key ends without its leaf there. A node whose count
// drops from 2 to 1 while its single remaining entry is a leaf folds: the
// leaf takes its place. Folding climbs: a parent whose count also dropped
// from 2 to 1 and whose only entry was the folded node folds in turn.
void remove(vepra_trie_t *trie, const Key &key, const Store &store) noexcept {
  TrieNode **slot = &trie->root;
  TrieNode *node = *slot;
  if (node == nullptr || node->kind == kTrieLeaf) {
    if (node != nullptr && key.matches(as_leaf(node))) {
      *slot = nullptr;
      store.release(as_leaf(node));
    }
    return;
  }
  // The slot of the topmost node of the unbroken run of ancestors that fold
  // if the node below them does.
  TrieNode **fold_top = nullptr;
  uint64_t fold_depth = 0;
  uint64_t depth = 0;
  while (node->kind == kTrieInner) {
    TrieInner *inner = as_inner(node);
    uint32_t before;
    if (key.exhausted(depth)) {
      TrieLeaf *own = inner->own;
      if (own == nullptr || !key.matches(own)) return;
      inner->own = nullptr;
      store.release(own);
      before = inner->count--;
    } else {
      TrieNode **child_slot = &inner->child[key.digit(depth)];
      TrieNode *child = *child_slot;
      before = inner->count--;
      if (child != nullptr && child->kind == kTrieInner) {
        if (before == 2 && sole_entry(inner) == child) {
          if (fold_top == nullptr) {
            fold_top = slot;
            fold_depth = depth;
          }
        } else {
          fold_top = nullptr;
        }
        slot = child_slot;
        node = child;
        ++depth;
        continue;
      }
      if (child != nullptr && child->kind == kTrieLeaf && key.matches(as_leaf(child))) {
        *child_slot = nullptr;
        store.release(as_leaf(child));
      }
    }
    // inner is the last node of the path.
    TrieNode *sole = before == 2 ? sole_entry(inner) : nullptr;
    if (sole == nullptr || sole->kind != kTrieLeaf) return;
    if (fold_top == nullptr) {
      fold_top = slot;
      fold_depth = depth;
    }
    TrieInner *top = as_inner(*fold_top);
    *fold_top = sole;
    release_chain(store, top, fold_depth, key, inner);
    return;
  }
}

// The records of an owned-memory trie, freed without recursion: pending
// inner nodes are threaded through their own-leaf field, which is freed
// first. Nodes of an unknown kind are not the trie's to free.
void release_all(TrieNode *root) noexcept {
  TrieInner *pending = nullptr;
  auto drop = [&pending](TrieNode *node) noexcept {
    if (node == nullptr) return;
    if (node->kind == kTrieLeaf) {
      kHeapStore.release(as_leaf(node));
    } else if (node->kind == kTrieInner) {
      TrieInner *inner = as_inner(node);
      kHeapStore.release(inner->own);
      inner->own = reinterpret_cast<TrieLeaf *>(pending);
      pending = inner;
    }
  };
  drop(root);
  while (pending != nullptr) {
    TrieInner *inner = pending;
    pending = reinterpret_cast<TrieInner *>(inner->own);
    for (TrieNode *child : inner->child) drop(child);
    kHeapStore.release(inner);
  }
}

// The path of a walk: one frame for every inner node from the root down to
// the current one. Tries up to kInline levels deep need no allocation.
class WalkPath {
 public:
  struct Frame {
    const TrieInner *node;
    unsigned next;  // 0: own leaf next, 1 + i: child i next, 17: done
  };

  WalkPath() noexcept = default;
  WalkPath(const WalkPath &) = delete;
  WalkPath &operator=(const WalkPath &) = delete;
  ~WalkPath() {
    if (frames_ != inline_) vepra_mem_free(frames_);
    vepra_error_clear(failure_);
  }

  bool empty() const noexcept { return size_ == 0; }
  Frame &top() noexcept { return frames_[size_ - 1]; }
  void pop() noexcept { --size_; }

  // False when the path could not grow; take_failure() then tells why.
  bool push(const TrieInner *node) noexcept {
    if (size_ == capacity_ && !grow()) return false;
    frames_[size_++] = Frame{node, 0};
    return true;
  }

  // The growth failure, handed over to the caller.
  vepra_error_t *take_failure() noexcept {
    vepra_error_t *e = failure_;
    failure_ = nullptr;
    return e;
  }

 private:
  static constexpr size_t kInline = 64;

  bool grow() noexcept {
    Frame *bigger = nullptr;
    size_t capacity = capacity_ * 2;
    failure_ = vepra_mem_malloc(capacity * sizeof(Frame), reinterpret_cast<void **>(&bigger));
    if (failure_ != nullptr) return false;
    std::memcpy(bigger, frames_, size_ * sizeof(Frame));
    if (frames_ != inline_) vepra_mem_free(frames_);
    frames_ = bigger;
    capacity_ = capacity;
    return true;
  }

  Frame inline_[kInline];
  Frame *frames_ = inline_;
  size_t size_ = 0;
  size_t capacity_ = kInline;
  vepra_error_t *failure_ = nullptr;
};

// The visiting order of the walks, in the form of walk.hpp: step(0, leaf)
// for every leaf, depth first, an inner node's own leaf before its
// children 0 to 15; stops as soon as step returns true or the path cannot
// grow.
auto in_digit_order(const vepra_trie_t *trie, WalkPath &path) noexcept {
  return [trie, &path](auto &&step) {
    auto visit = [&step](const TrieNode *node) {
      return step(uint32_t{0}, const_cast<TrieNode *>(node));
    };
    const TrieNode *root = trie != nullptr ? trie->root : nullptr;
    if (root == nullptr) return;
    if (root->kind == kTrieLeaf) {
      visit(root);
      return;
    }
    if (root->kind != kTrieInner || !path.push(as_inner(root))) return;
    while (!path.empty()) {
      WalkPath::Frame &frame = path.top();
      const unsigned next = frame.next++;
      if (next == 0) {
        const TrieLeaf *own = frame.node->own;
        if (own != nullptr && own->head.kind == kTrieLeaf && visit(as_node(own)))
          return;
        continue;
      }
      if (next > 16) {
        path.pop();
        continue;
      }
      const TrieNode *child = frame.node->child[next - 1];
      if (child == nullptr) continue;
      if (child->kind == kTrieLeaf) {
        if (visit(child)) return;
      } else if (child->kind == kTrieInner) {
        if (!path.push(as_inner(child))) return;
      }
    }
  };
}

// The walk rules of walk.hpp call (tag, data, user[, result]) callbacks;
// relay() turns such a call for a leaf into the trie callback's call with
// the leaf's key.
template <class Fn>
struct Relay {
  Fn fn;
  void *user;
};

template <class Fn, class... Extra>
auto relay(uint32_t, void *leaf, void *target, Extra... extra) noexcept {
  const auto *relay = static_cast<const Relay<Fn> *>(target);
  const auto *l = static_cast<const TrieLeaf *>(leaf);
  return relay->fn(static_cast<size_t>(l->length), l->key, l->data, relay->user, extra...);
}

// One walk of the family: the stop rule Rule of walk.hpp over the digit
// order, relaying each leaf to fn (a null fn visits nothing). A path that
// cannot grow ends the walk; the error walks report why.
template <class Rule, class Fn, class... Extra>
auto walk_trie(const vepra_trie_t *trie, Fn fn, void *user, Extra... extra) noexcept {
  WalkPath path;
  Relay<Fn> target{fn, user};
  Rule rule{fn != nullptr ? &relay<Fn, Extra...> : nullptr, &target, extra...};
  if constexpr (std::is_void_v<decltype(rule.result())>) {
    run_walk(in_digit_order(trie, path), rule);
  } else {
    auto result = run_walk(in_digit_order(trie, path), rule);
    if constexpr (std::is_same_v<decltype(result), vepra_error_t *>) {
      if (vepra_error_t *failure = path.take_failure()) return wrap_error(failure, "Cannot walk trie.");
    }
    return result;
  }
}

}  // namespace
}  // namespace vepra::detail

using namespace vepra::detail;

extern "C" {

vepra_error_t *vepra_trie_create(vepra_trie_t **out, apr_pool_t *pool) noexcept {
  if (out == nullptr) return nullptr;
  void *cell = nullptr;
  VEPRA_RETURN_IF_ERROR(pool_store(pool).pool_alloc(sizeof(vepra_trie_t), &cell),
                        "Can't create new trie.");
  *out = static_cast<vepra_trie_t *>(cell);
  return nullptr;
}

vepra_error_t *vepra_triem_create(vepra_trie_t **out) noexcept {
  if (out == nullptr) return nullptr;
  void *cell = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_mem_malloc(sizeof(vepra_trie_t), &cell), "Can't create new triem.");
  static_cast<vepra_trie_t *>(cell)->root = nullptr;
  *out = static_cast<vepra_trie_t *>(cell);
  return nullptr;
}

vepra_error_t *vepra_trie_insert(vepra_trie_t *trie, const void *key, size_t length, void *data,
                                 apr_pool_t *pool) noexcept {
  return insert(trie, key, length, data, pool_store(pool));
}

vepra_error_t *vepra_triem_insert(vepra_trie_t *trie, const void *key, size_t length,
                                  void *data) noexcept {
  return insert(trie, key, length, data, kHeapStore);
}

void *vepra_trie_search(const vepra_trie_t *trie, const void *key, size_t length) noexcept {
  if (trie == nullptr || (key == nullptr && length != 0)) return nullptr;
  const auto *bytes = static_cast<const unsigned char *>(key);
  // Two digits a byte: the low nibble at an even depth, then the high one.
  const TrieNode *node = trie->root;
  for (size_t i = 0;; ++i) {
    if (node == nullptr || node->kind != kTrieInner) break;
    if (i == length) {
      node = as_node(as_inner(node)->own);
      break;
    }
    const unsigned byte = bytes[i];
    node = as_inner(node)->child[byte & 15u];
    if (node == nullptr || node->kind != kTrieInner) break;
    node = as_inner(node)->child[byte >> 4];
  }
  if (node == nullptr || node->kind != kTrieLeaf) return nullptr;
  const TrieLeaf *leaf = as_leaf(node);
  if (!Key{bytes, length}.matches(leaf)) return nullptr;
  return leaf->data;
}

void vepra_trie_delete(vepra_trie_t *trie, const void *key, size_t length) noexcept {
  if (trie == nullptr || (key == nullptr && length != 0)) return;
  remove(trie, Key{static_cast<const unsigned char *>(key), length}, pool_store(nullptr));
}

void vepra_triem_delete(vepra_trie_t *trie, const void *key, size_t length) noexcept {
  if (trie == nullptr || (key == nullptr && length != 0)) return;
  remove(trie, Key{static_cast<const unsigned char *>(key), length}, kHeapStore);
}

void vepra_trie_destroy(vepra_trie_t **trie) noexcept {
  if (trie != nullptr) *trie = nullptr;
}

void vepra_triem_destroy(vepra_trie_t **trie) noexcept {
  if (trie == nullptr || *trie == nullptr) return;
  release_all((*trie)->root);
  vepra_mem_free(*trie);
  *trie = nullptr;
}

void vepra_trie_walk(const vepra_trie_t *trie, vepra_trie_walk_fn fn, void *user) noexcept {
  walk_trie<VisitAll>(trie, fn, user);
}

int vepra_trie_walk_int_first(const vepra_trie_t *trie, vepra_trie_walk_int_fn fn,
                              void *user) noexcept {
  return walk_trie<IntFirst>(trie, fn, user);
}

void *vepra_trie_walk_ptr_first(const vepra_trie_t *trie, vepra_trie_walk_ptr_fn fn,
                                void *user) noexcept {
  return walk_trie<PtrFirst>(trie, fn, user);
}

vepra_error_t *vepra_trie_walk_err_first(const vepra_trie_t *trie, vepra_trie_walk_err_fn fn,
                                         void *user) noexcept {
  return walk_trie<ErrFirst>(trie, fn, user);
}

vepra_error_t *vepra_trie_walk_err_or_ptr_first(const vepra_trie_t *trie,
                                                vepra_trie_walk_err_or_ptr_fn fn, void *user,
                                                void **result) noexcept {
  return walk_trie<ErrOrPtrFirst>(trie, fn, user, result);
}

}  // extern "C"
