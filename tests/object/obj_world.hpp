// The engine side of the model runs (tests and fuzzer): the operations of
// the reference model carried out on real objects.
#ifndef VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP
#define VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP

#include "object/obj_internal.hpp"

#include <apr_allocator.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "obj_model.hpp"
#include "vepra.h"

namespace obj_model {

inline int code_of(vepra_error_t *e) {
  int c = e == nullptr ? 0 : e->code != 0 ? e->code : kCodeZero;
  vepra_error_clear(e);
  return c;
}

// The engine side of a model run. Every object is created in a root pool
// with an allocator of its own, kept to the end of the run, so that no
// object reuses the address of a destroyed one (destination tables are
// keyed by address).
class Real {
 public:
  // Slots reach the run through current (signal 1 is emitted with a null
  // argument).
  Real(const std::vector<Op> *nested, std::vector<Entry> *log) : nested_(nested), log_(log) {
    current = this;
  }
  static inline Real *current = nullptr;
  ~Real() {
    for (int i = 0; i < count(); ++i)
      if (alive_[i]) vepra_obj_destroy(objs_[i]);
    for (apr_pool_t *home : homes_) apr_pool_destroy(home);
  }

  int depth = 0;
  int count() const { return static_cast<int>(objs_.size()); }
  bool alive(int i) const { return i >= 0 && i < count() && alive_[i]; }
  int live_count() const {
    return static_cast<int>(std::count(alive_.begin(), alive_.end(), true));
  }
  vepra_obj_t *obj(int i) const { return i >= 0 && i < count() ? objs_[i] : nullptr; }
  int index_of(const vepra_obj_t *o) const {
    for (int i = 0; i < count(); ++i)
      if (objs_[i] == o) return i;
    return -1;
  }

  int create(int name) {
    apr_allocator_t *allocator = nullptr;
    apr_pool_t *home = nullptr;
    apr_allocator_create(&allocator);
    apr_pool_create_ex(&home, nullptr, nullptr, allocator);
    apr_allocator_owner_set(allocator, home);
    homes_.push_back(home);
    vepra_obj_t *o = nullptr;
    // Every object of a run starts with signals 1, 2 and 3.
    if (vepra_obj_create(&o, name >= 0 ? kNames[name] : nullptr, home) != nullptr ||
        vepra_obj_cleanup_register(o, mark_dead, this) != nullptr ||
        vepra_obj_add_signal(o, 2) != nullptr || vepra_obj_add_signal(o, 3) != nullptr)
      std::abort();
    objs_.push_back(o);
    alive_.push_back(true);
    return count() - 1;
  }
  int add_signal(int o, unsigned code) { return code_of(vepra_obj_add_signal(objs_[o], code)); }
  int connect(int s, unsigned code, int d, int cb, uintptr_t usr) {
    return code_of(
        vepra_obj_connect(objs_[s], code, objs_[d], slot_fn(cb), reinterpret_cast<void *>(usr)));
  }
  void disconnect(int s, int code, int d, int cb) {
    vepra_obj_disconnect(objs_[s], code, obj(d), slot_fn(cb));
  }
  int emit(int s, unsigned code) { return code_of(vepra_obj_emit_signal(objs_[s], code, this)); }
  void remove_signal(int o, unsigned code) { vepra_obj_remove_signal(objs_[o], code); }
  void delete_signals(int o) { vepra_obj_delete_signals(objs_[o]); }
  int addc(int p, int c) { return code_of(vepra_obj_addc(objs_[p], objs_[c])); }
  int remove_by_name(int p, int name) {
    return index_of(vepra_obj_removec(objs_[p], kNames[name], nullptr));
  }
  int remove_child(int p, int c) {
    return index_of(vepra_obj_removec(objs_[p], nullptr, objs_[c]));
  }
  void rename(int o, int name) { vepra_obj_set_name(objs_[o], kNames[name]); }
  void destroy(int o) { vepra_obj_destroy(objs_[o]); }

  std::vector<Sig> signals(int o) const {
    std::vector<Sig> out;
    UT_array *arr = objs_[o]->signals;
    for (unsigned i = 0; arr != nullptr && i < utarray_len(arr); ++i) {
      auto *s = static_cast<osig *>(utarray_eltptr(arr, i));
      Sig sig{s->code,
              (s->flags & VEPRA_SIG_BUSY) != 0,
              {},
              s->actions != nullptr ? utarray_len(s->actions) : 0};
      for (osigdest *d = s->destinations; d != nullptr; d = static_cast<osigdest *>(d->hh.next)) {
        Dest dest{index_of(d->dest), {}};
        for (unsigned k = 0; k < utarray_len(d->slots); ++k) {
          auto *sl = static_cast<oslot *>(utarray_eltptr(d->slots, k));
          dest.slots.push_back({reinterpret_cast<uintptr_t>(sl->usr), slot_id(sl->callback)});
        }
        sig.dests.push_back(dest);
      }
      out.push_back(sig);
    }
    return out;
  }

  std::vector<int> children(int o) const {
    std::vector<int> out;
    for (vepra_tree_t *n = vepra_tree_get_first(objs_[o]->children); n != nullptr; n = n->next)
      out.push_back(index_of(static_cast<vepra_obj_t *>(n->data)));
    return out;
  }

  template <int F>
  static void slot(vepra_obj_t *src, unsigned code, vepra_obj_t *dest, void *usr, void *) {
    current->on_slot(F, src, code, dest, reinterpret_cast<uintptr_t>(usr));
  }

 private:
  static vepra_obj_slot_fn slot_fn(int cb) {
    static const vepra_obj_slot_fn fns[] = {slot<0>, slot<1>, slot<2>};
    return cb >= 0 && cb < 3 ? fns[cb] : nullptr;
  }
  static int slot_id(vepra_obj_slot_fn f) {
    for (int i = 0; i < 3; ++i)
      if (slot_fn(i) == f) return i;
    return f == nullptr ? kOff : kAuto;
  }
  static void mark_dead(vepra_obj_t *o, void *self) {
    auto *r = static_cast<Real *>(self);
    r->alive_[r->index_of(o)] = false;
  }

  void on_slot(int f, vepra_obj_t *src, unsigned code, vepra_obj_t *dest, uintptr_t usr) {
    log_->push_back({f, index_of(src), static_cast<int>(code), index_of(dest), usr});
    if (depth < kMaxDepth && usr < nested_->size()) {
      ++depth;
      int r = apply(
          *this, localise((*nested_)[usr], index_of(src), static_cast<int>(code), index_of(dest)));
      --depth;
      log_->push_back({-1, r, 0, 0, 0});
    }
  }

  const std::vector<Op> *nested_;
  std::vector<Entry> *log_;
  std::vector<vepra_obj_t *> objs_;
  std::vector<bool> alive_;
  std::vector<apr_pool_t *> homes_;
};

// Carries out the operations that data encodes on the engine and on the
// model: eight bytes for each entry of the nested table, then eight for
// each top-level operation. After every step both must give the same
// result, the same slot calls in the same order, and the same objects,
// signals, destinations, slots, children, parents and name index. Returns
// "" when they agree throughout, else the first difference. Everything is
// destroyed at the end.
inline std::string run_ops(const uint8_t *data, size_t size) {
  size_t at = 0;
  auto next = [&] { return at < size ? unsigned{data[at++]} : 0u; };
  std::vector<Op> nested;
  const std::vector<int> first{0, 1, 2, 3, 4, 5};
  for (int i = 0; i < 8; ++i) nested.push_back(decode(next, first, true));
  std::vector<Entry> real_log, model_log;
  Real real(&nested, &real_log);
  Model model(&nested, &model_log);
  for (int i = 0; i < 3; ++i) {
    const Op op{Kind::kCreate, 0, -1, 1, 0, 0, i};
    if (apply(real, op) != apply(model, op)) return "create";
  }
  for (int step = 0; step < 256 && at < size; ++step) {
    const Op op = decode(next, model.live(), false);
    const std::string where =
        "step " + std::to_string(step) + " kind " + std::to_string(static_cast<int>(op.kind));
    if (apply(real, op) != apply(model, op)) return where + ": result";
    if (real_log != model_log) return where + ": slot calls";
    if (real.count() != model.count()) return where + ": objects";
    for (int i = 0; i < model.count(); ++i) {
      const std::string object = where + ": object " + std::to_string(i);
      if (real.alive(i) != model.alive(i)) return object + " alive";
      if (!model.alive(i)) continue;
      if (real.signals(i) != model.signals(i)) return object + " signals";
      if (real.children(i) != model.objs[i].children) return object + " children";
      if (real.index_of(real.obj(i)->parent) != model.objs[i].parent) return object + " parent";
      for (const auto &[name, child] : model.objs[i].index)
        if (vepra_obj_getc(real.obj(i), name.c_str()) != real.obj(child)) return object + " index";
    }
  }
  return "";
}

}  // namespace obj_model

#endif  // VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP
