// Byte-driven operations on a heap list against a vector of ids and tags; all
// is freed at the end, so the sanitizers see every double free and leak.
#include <algorithm>
#include <utility>
#include <vector>

#include "fuzz_common.hpp"
#include "vepra_dl.h"

namespace {

using vepra_fuzz::Bytes;
using vepra_fuzz::check;

void *as_data(int k) { return reinterpret_cast<void *>(static_cast<uintptr_t>(k)); }
int id_of(const void *p) { return static_cast<int>(reinterpret_cast<uintptr_t>(p)); }
int compare_tags(uint32_t a, void *, uint32_t b, void *, void *) { return (a > b) - (a < b); }
int odd(uint32_t, void *data, void *) { return id_of(data) & 1; }
void count_node(uint32_t, void *, void *user) { ++*static_cast<size_t *>(user); }

void run_list(Bytes &in) {
  using Add = vepra_error_t *(*)(vepra_dl_t **, uint32_t, void *, vepra_dl_t **);
  constexpr Add adds[] = {vepra_dlm_append, vepra_dlm_prepend, vepra_dlm_add_after,
                          vepra_dlm_add_before};
  vepra_dl_t *list = nullptr;
  std::vector<std::pair<int, uint32_t>> model;  // id and tag of each node in order
  std::vector<vepra_dl_t *> loose;              // unlinked nodes still to free
  for (int k = 1; in.more() && model.size() < 4096; ++k) {
    const unsigned op = in.next() % 9, arg = in.next();
    const size_t i = model.empty() ? 0 : arg % model.size();
    size_t handle = 0;  // the model's position of the node the list handle names
    while (handle < model.size() && model[handle].first != id_of(list->data)) ++handle;
    if (op < 4) {
      check(adds[op](&list, arg % 5, as_data(k), nullptr) == nullptr);
      const size_t at = op == 0   ? model.size()
                        : op == 1 ? 0
                                  : std::min(handle + (op == 2), model.size());
      model.insert(model.begin() + static_cast<long>(at), {k, arg % 5});
    } else if (op == 4 && !model.empty()) {
      list = vepra_dl_get_n(list, i);
    } else if (op == 5 && !model.empty()) {  // by data, or a node other than the handle's
      size_t seen = 0;
      if (i != handle && (arg & 1) != 0)
        vepra_dlm_delete_func(vepra_dl_get_n(list, i), count_node, &seen);
      else
        vepra_dlm_delete_obj(&list, as_data(model[i].first));
      check(seen == (i != handle && (arg & 1) != 0));
      model.erase(model.begin() + static_cast<long>(i));
    } else if (op == 6 && !model.empty()) {
      const size_t j = in.next() % model.size();
      check(vepra_dl_exchange(vepra_dl_get_n(list, i), vepra_dl_get_n(list, j)) == nullptr);
      std::swap(model[i], model[j]);
    } else if (op == 7) {  // exchange sort: swaps in every later node of a smaller tag
      check(vepra_dl_bubsort(list, compare_tags, nullptr) == nullptr);
      for (size_t a = 0; a < model.size(); ++a)
        for (size_t b = a + 1; b < model.size(); ++b)
          if (model[a].second > model[b].second) std::swap(model[a], model[b]);
    } else if (op == 8) {
      for (vepra_dl_t *p = vepra_dl_get_first(list); p != nullptr; p = p->next)
        if (odd(0, p->data, nullptr)) loose.push_back(p);
      vepra_dl_dwalk(&list, odd, nullptr);
      std::erase_if(model, [](const auto &node) { return (node.first & 1) != 0; });
    }
    vepra_dl_t *p = vepra_dl_get_first(list);
    check(p == nullptr || p->prev == nullptr);
    for (auto [id, tag] : model) {
      check(p != nullptr && id_of(p->data) == id && p->tag == tag);
      check(p->next == nullptr || p->next->prev == p);
      p = p->next;
    }
    check(p == nullptr && vepra_dl_count(list) == model.size());
  }
  for (vepra_dl_t *p : loose) vepra_dlm_delete(p);
  size_t destroyed = 0;
  vepra_dlm_destroy_func(&list, count_node, &destroyed);
  check(list == nullptr && destroyed == model.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_fuzz::initialize();
  Bytes in{data, size};
  run_list(in);
  return 0;
}
