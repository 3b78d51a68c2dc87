// Sibling-chain primitives shared by the list, slot-list and tree nodes:
// any record with prev and next pointers to its own type.
#ifndef VEPRA_SRC_CONTAINERS_LINKS_HPP
#define VEPRA_SRC_CONTAINERS_LINKS_HPP

#include <cstddef>

namespace vepra::detail {

template <class Node>
Node *chain_first(Node *n) noexcept {
  if (n == nullptr) return nullptr;
  while (n->prev != nullptr) n = n->prev;
  return n;
}

template <class Node>
Node *chain_last(Node *n) noexcept {
  if (n == nullptr) return nullptr;
  while (n->next != nullptr) n = n->next;
  return n;
}

// Nodes of the whole chain, both directions from n.
template <class Node>
size_t chain_count(Node *n) noexcept {
  size_t count = 0;
  for (Node *p = chain_first(n); p != nullptr; p = p->next) ++count;
  return count;
}

// A node can be linked in only when it is free-standing and not the anchor
// itself; anything else would tie two chains into a knot.
template <class Node>
bool chain_can_link(const Node *anchor, const Node *fresh) noexcept {
  return anchor != nullptr && fresh != nullptr && fresh != anchor && fresh->prev == nullptr &&
         fresh->next == nullptr;
}

template <class Node>
void chain_link_before(Node *anchor, Node *fresh) noexcept {
  fresh->prev = anchor->prev;
  fresh->next = anchor;
  if (anchor->prev != nullptr) anchor->prev->next = fresh;
  anchor->prev = fresh;
}

template <class Node>
void chain_link_after(Node *anchor, Node *fresh) noexcept {
  fresh->next = anchor->next;
  fresh->prev = anchor;
  if (anchor->next != nullptr) anchor->next->prev = fresh;
  anchor->next = fresh;
}

// Joins the node's neighbours and leaves the node free-standing.
template <class Node>
void chain_unlink(Node *n) noexcept {
  if (n->prev != nullptr) n->prev->next = n->next;
  if (n->next != nullptr) n->next->prev = n->prev;
  n->prev = nullptr;
  n->next = nullptr;
}

// Visits the chain in list order, first to last; stops when visit returns
// true. The next node is read after the visit.
template <class Node, class Visit>
void chain_each(Node *n, Visit &&visit) noexcept {
  for (Node *p = chain_first(n); p != nullptr; p = p->next) {
    if (visit(p)) return;
  }
}

// Visits around the node: the node and its predecessors backwards to the
// first, then its successors forwards to the last; stops when visit
// returns true.
template <class Node, class Visit>
void chain_each_around(Node *n, Visit &&visit) noexcept {
  if (n == nullptr) return;
  for (Node *p = n; p != nullptr; p = p->prev) {
    if (visit(p)) return;
  }
  for (Node *p = n->next; p != nullptr; p = p->next) {
    if (visit(p)) return;
  }
}

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CONTAINERS_LINKS_HPP
