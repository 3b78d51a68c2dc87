// Byte-driven sequences of operations on a heap list (checked against a
// vector after every step) and on a heap tree (checked for consistent
// links and node counts); everything is freed at the end, so the sanitizers
// see every double free, stray pointer and leak.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_common.hpp"
#include "vepra_dl.h"
#include "vepra_tree.h"

namespace {

void *as_data(int k) { return reinterpret_cast<void *>(static_cast<uintptr_t>(k)); }
int id_of(const void *p) { return static_cast<int>(reinterpret_cast<uintptr_t>(p)); }

using vepra_fuzz::Bytes;
using vepra_fuzz::check;

void check_list(vepra_dl_t *list, const std::vector<int> &model) {
  vepra_dl_t *p = vepra_dl_get_first(list);
  check(p == nullptr || p->prev == nullptr);
  for (int k : model) {
    check(p != nullptr && id_of(p->data) == k);
    check(p->next == nullptr || p->next->prev == p);
    p = p->next;
  }
  check(p == nullptr);
  check(vepra_dl_count(list) == model.size());
}

int compare_tags(uint32_t a, void *, uint32_t b, void *, void *) { return (a > b) - (a < b); }
int odd(uint32_t, void *data, void *) { return id_of(data) & 1; }

void run_list(Bytes &in) {
  vepra_dl_t *list = nullptr;
  std::vector<int> model;
  std::vector<vepra_dl_t *> loose;  // unlinked nodes still to free
  int next_id = 1;
  auto index = [&](unsigned b) { return static_cast<size_t>(b % model.size()); };
  while (in.more() && model.size() < 4096) {
    unsigned op = in.next() % 9, arg = in.next();
    int k = next_id++;
    auto tag = static_cast<uint32_t>(arg % 5);
    // The model's position of the node the list handle points at.
    const auto handle =
        list == nullptr ? 0
                        : std::find(model.begin(), model.end(), id_of(list->data)) - model.begin();
    switch (op) {
      case 0:
        check(vepra_dlm_append(&list, tag, as_data(k), nullptr) == nullptr);
        model.push_back(k);
        break;
      case 1:
        check(vepra_dlm_prepend(&list, tag, as_data(k), nullptr) == nullptr);
        model.insert(model.begin(), k);
        break;
      case 2:
        check(vepra_dlm_add_after(&list, tag, as_data(k), nullptr) == nullptr);
        model.insert(model.empty() ? model.end() : model.begin() + handle + 1, k);
        break;
      case 3:
        check(vepra_dlm_add_before(&list, tag, as_data(k), nullptr) == nullptr);
        model.insert(model.begin() + (model.empty() ? 0 : handle), k);
        break;
      case 4:
        if (!model.empty()) list = vepra_dl_get_n(list, index(arg));
        break;
      case 5:
        if (!model.empty()) {
          size_t i = index(arg);
          vepra_dlm_delete_obj(&list, as_data(model[i]));
          model.erase(model.begin() + static_cast<long>(i));
        }
        break;
      case 6:
        if (!model.empty()) {
          size_t i = index(arg), j = index(in.next());
          check(vepra_dl_exchange(vepra_dl_get_n(list, i), vepra_dl_get_n(list, j)) == nullptr);
          std::swap(model[i], model[j]);
        }
        break;
      case 7: {
        check(vepra_dl_bubsort(list, compare_tags, nullptr) == nullptr);
        std::vector<int> sorted;
        for (vepra_dl_t *p = vepra_dl_get_first(list); p != nullptr; p = p->next) {
          if (p->next != nullptr) check(p->tag <= p->next->tag);
          sorted.push_back(id_of(p->data));
        }
        check(std::is_permutation(sorted.begin(), sorted.end(), model.begin(), model.end()));
        model = sorted;
        break;
      }
      case 8:
        for (vepra_dl_t *p = vepra_dl_get_first(list); p != nullptr; p = p->next) {
          if (odd(0, p->data, nullptr)) loose.push_back(p);
        }
        vepra_dl_dwalk(&list, odd, nullptr);
        std::erase_if(model, [](int v) { return (v & 1) != 0; });
        break;
    }
    check_list(list, model);
  }
  for (vepra_dl_t *p : loose) vepra_dlm_delete(p);
  vepra_dlm_destroy(&list);
  check(list == nullptr);
}

// Checks parent and child links below every node of first's sibling list
// and returns the number of nodes seen.
size_t check_tree(vepra_tree_t *first, vepra_tree_t *parent) {
  size_t n = 0;
  check(first == nullptr || first->prev == nullptr);
  for (vepra_tree_t *p = first; p != nullptr; p = p->next) {
    check(p->parent == parent);
    check(p->next == nullptr || p->next->prev == p);
    check(p->child == nullptr || p->child->parent == p);
    n += 1 + check_tree(vepra_tree_get_first(p->child), p);
  }
  return n;
}

void collect(vepra_tree_t *first, std::vector<vepra_tree_t *> &out) {
  for (vepra_tree_t *p = first; p != nullptr; p = p->next) {
    out.push_back(p);
    collect(vepra_tree_get_first(p->child), out);
  }
}

void count_deleted(uint32_t, void *, void *user, void *) { ++*static_cast<size_t *>(user); }

void run_tree(Bytes &in) {
  vepra_tree_t *tree = nullptr;
  std::vector<vepra_tree_t *> nodes;  // linked into tree
  int next_id = 1;
  while (in.more() && nodes.size() < 2048) {
    unsigned op = in.next() % 4, arg = in.next();
    int k = next_id++;
    vepra_tree_t *target = nodes.empty() ? nullptr : nodes[arg % nodes.size()];
    vepra_tree_t *made = nullptr;
    if (op == 0 || target == nullptr) {
      check(vepra_treem_append(&tree, 0, as_data(k), &made) == nullptr);
    } else if (op == 1) {
      check(vepra_treem_append_child(target, 0, as_data(k), &made) == nullptr);
    } else {
      if (target == tree) tree = tree->next != nullptr ? tree->next : tree->prev;
      size_t expect = vepra_tree_count(vepra_tree_get_first(target->child));
      size_t deleted = 0;
      if (op == 2) {
        vepra_tree_extract(target);
        vepra_treem_delete_func(target, count_deleted, &deleted);
      } else {
        vepra_treem_node_delete(target);
        deleted = expect + 1;
      }
      check(deleted == expect + 1);
      // The nodes still linked are those reachable from the handle.
      nodes.clear();
      collect(vepra_tree_get_first(tree), nodes);
    }
    if (made != nullptr) nodes.push_back(made);
    check(check_tree(vepra_tree_get_first(tree), nullptr) == nodes.size());
    check(vepra_tree_count(tree) == nodes.size());
  }
  vepra_treem_destroy(&tree);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_fuzz::initialize();
  if (size == 0) return 0;
  Bytes in{data + 1, size - 1};
  (data[0] & 1) != 0 ? run_tree(in) : run_list(in);
  return 0;
}
