// The object engine against a reference model, its documented edge cases,
// the printed format and allocation failures.
#include "object/obj_internal.hpp"

#include <apr_allocator.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "object/obj_model.hpp"
#include "support/test_support.hpp"
#include "vepra.h"

namespace {

using namespace obj_model;
using vepra_test::take_printed;


int code_of(vepra_error_t *e) {
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
  int live_count() const { return static_cast<int>(std::count(alive_.begin(), alive_.end(), true)); }
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
    EXPECT_EQ(vepra_obj_create(&o, name >= 0 ? kNames[name] : nullptr, home), nullptr);
    objs_.push_back(o);
    alive_.push_back(true);
    EXPECT_EQ(vepra_obj_cleanup_register(o, mark_dead, this), nullptr);
    // Every object of a run starts with signals 1, 2 and 3.
    EXPECT_EQ(vepra_obj_add_signal(o, 2), nullptr);
    EXPECT_EQ(vepra_obj_add_signal(o, 3), nullptr);
    return count() - 1;
  }
  int add_signal(int o, unsigned code) { return code_of(vepra_obj_add_signal(objs_[o], code)); }
  int connect(int s, unsigned code, int d, int cb, uintptr_t usr) {
    return code_of(vepra_obj_connect(objs_[s], code, objs_[d], slot_fn(cb),
                                     reinterpret_cast<void *>(usr)));
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
  int remove_child(int p, int c) { return index_of(vepra_obj_removec(objs_[p], nullptr, objs_[c])); }
  void rename(int o, int name) { vepra_obj_set_name(objs_[o], kNames[name]); }
  void destroy(int o) { vepra_obj_destroy(objs_[o]); }

  std::vector<Sig> signals(int o) const {
    std::vector<Sig> out;
    UT_array *arr = objs_[o]->signals;
    for (unsigned i = 0; arr != nullptr && i < utarray_len(arr); ++i) {
      auto *s = static_cast<osig *>(utarray_eltptr(arr, i));
      Sig sig{s->code, (s->flags & VEPRA_SIG_BUSY) != 0, {},
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
      int r = apply(*this, localise((*nested_)[usr], index_of(src), static_cast<int>(code),
                                    index_of(dest)));
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

class ObjTest : public vepra_test::LibraryTest {};

// Random operations, nested ones included, against the model: the same
// slot calls in the same order, and the same objects, signals,
// destinations, slots and children after every step.
TEST_F(ObjTest, MatchesModelUnderRandomNestedOperations) {
  for (unsigned run = 0; run < 200; ++run) {
    std::mt19937 rng(run);
    std::vector<Op> nested;
    std::vector<int> first{0, 1, 2, 3, 4, 5};
    for (int i = 0; i < 10; ++i) nested.push_back(random_op(rng, first, true));
    std::vector<Entry> real_log, model_log;
    Real real(&nested, &real_log);
    Model model(&nested, &model_log);
    for (int i = 0; i < 4; ++i) {
      const Op op{Kind::kCreate, 0, -1, 1, 0, 0, i % 3};
      ASSERT_EQ(apply(real, op), apply(model, op));
    }
    for (int step = 0; step < 200; ++step) {
      Op op = random_op(rng, model.live(), false);
      int got = apply(real, op), want = apply(model, op);
      SCOPED_TRACE("run " + std::to_string(run) + " step " + std::to_string(step) + " kind " +
                   std::to_string(static_cast<int>(op.kind)));
      ASSERT_EQ(got, want);
      ASSERT_EQ(real_log, model_log);
      ASSERT_EQ(real.count(), model.count());
      for (int i = 0; i < model.count(); ++i) {
        ASSERT_EQ(real.alive(i), model.alive(i)) << "object " << i;
        if (!model.alive(i)) continue;
        ASSERT_EQ(real.signals(i), model.signals(i)) << "object " << i;
        ASSERT_EQ(real.children(i), model.objs[i].children) << "object " << i;
        ASSERT_EQ(real.index_of(real.obj(i)->parent), model.objs[i].parent) << "object " << i;
        for (const auto &[name, child] : model.objs[i].index)
          ASSERT_EQ(vepra_obj_getc(real.obj(i), name.c_str()), real.obj(child)) << name;
      }
    }
  }
}

// The print format, line by line, with the addresses printed by snprintf.
TEST_F(ObjTest, PrintsSignalsDestinationsAndSlots) {
  vepra_obj_t *a = nullptr, *b = nullptr;
  ASSERT_EQ(vepra_obj_create(&a, "alpha", pool_), nullptr);
  ASSERT_EQ(vepra_obj_create(&b, nullptr, pool_), nullptr);
  ASSERT_EQ(vepra_obj_add_signal(a, 7), nullptr);
  ASSERT_EQ(vepra_obj_set_signal_flags(a, 7, 0x10006), nullptr);
  vepra_obj_slot_fn f = Real::slot<0>;
  void *usr = reinterpret_cast<void *>(0x10);
  ASSERT_EQ(vepra_obj_connect(a, 7, b, f, usr), nullptr);
  auto *b1 = static_cast<osig *>(utarray_eltptr(b->signals, 0));
  vepra_obj_slot_fn autodel =
      static_cast<oslot *>(utarray_eltptr(b1->destinations->slots, 0))->callback;

  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  vepra_obj_print_signals(a, stream);
  std::fclose(stream);
  auto line = [](const char *format, auto... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, format, args...);
    return std::string(buf);
  };
  void *cb = reinterpret_cast<void *>(f), *ad = reinterpret_cast<void *>(autodel);
  std::string want = line("Object alpha (%p) has 2 signal(s).\n", static_cast<void *>(a)) +
                     " Signal 1 (flags=0) has 1 destination(s).\n" +
                     line("  Destination (null) (%p) has 1 slots(s).\n", static_cast<void *>(b)) +
                     line("   Slot> usr: %p callback: %p (autodel)\n", nullptr, ad) +
                     " Signal 7 (flags=6) has 1 destination(s).\n" +
                     line("  Destination (null) (%p) has 1 slots(s).\n", static_cast<void *>(b)) +
                     line("   Slot> usr: %p callback: %p\n", usr, cb);
  EXPECT_EQ(std::string(text, size), want);
  std::free(text);
  vepra_obj_delete_signals(a);
  stream = open_memstream(&text, &size);
  vepra_obj_print_signals(a, stream);
  std::fclose(stream);
  EXPECT_EQ(size, 0u);
  std::free(text);
  vepra_obj_destroy(a);
  vepra_obj_destroy(b);
}

}  // namespace
