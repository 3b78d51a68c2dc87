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

std::string printed(vepra_error_t *e) { return take_printed(e); }


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

// Registries of object types and signal types. Codes are compared relative
// to the first one handed out here: the counters live as long as the
// process.
TEST_F(ObjTest, RegistersTypesAndSignalTypes) {
  unsigned t = 0, t2 = 0, s = 0, s2 = 0;
  EXPECT_EQ(printed(vepra_objtype_register(&t, nullptr, nullptr)),
            "Error(120001): Cannot register object type. \n"
            "Error(120001): VEPRA has not been initialized. ");
  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  vepra_strlist_t *names = nullptr, *taken = nullptr;
  ASSERT_EQ(vepra_strlist_create(&names, pool_), nullptr);
  ASSERT_EQ(vepra_strlist_create(&taken, pool_), nullptr);
  for (const char *n : {"widget", "gadget"}) ASSERT_EQ(vepra_strlist_addlast(names, n, pool_), nullptr);
  for (const char *n : {"fresh", "gadget"}) ASSERT_EQ(vepra_strlist_addlast(taken, n, pool_), nullptr);

  ASSERT_EQ(vepra_objtype_register(&t, names, nullptr), nullptr);
  EXPECT_EQ(vepra_objtype_query_typecode("gadget"), t);
  EXPECT_EQ(vepra_objtype_query_typecode("gizmo"), 0u);
  EXPECT_TRUE(vepra_objtype_is_names_exist(taken));
  // A taken name refuses the whole list, consumes no code and leaves the
  // registry unlocked for the next registration.
  t2 = 7;
  EXPECT_EQ(printed(vepra_objtype_register(&t2, taken, nullptr)),
            "Error(120101): The name(s) of type is(are) already registered. ");
  EXPECT_EQ(t2, 7u);
  EXPECT_EQ(vepra_objtype_query_typecode("fresh"), 0u);
  vepra_strlist_clear(taken);
  ASSERT_EQ(vepra_strlist_addlast(taken, "fresh", pool_), nullptr);
  ASSERT_EQ(vepra_objtype_register(&t2, taken, nullptr), nullptr);
  EXPECT_EQ(t2, t + 1);

  // A type without a method makes plain objects, of type 0.
  vepra_obj_t *o = nullptr;
  ASSERT_EQ(vepra_objtype_create_object("widget", "w1", &o, pool_), nullptr);
  EXPECT_STREQ(vepra_obj_get_name(o), "w1");
  EXPECT_EQ(vepra_obj_get_type(o), 0u);
  EXPECT_EQ(printed(vepra_objtype_create_object("gizmo", "g", &o, pool_)),
            "Error: Cannot create object. Type [gizmo] is not registered. ");

  ASSERT_EQ(vepra_objsig_register(&s, "clicked"), nullptr);
  EXPECT_GE(s, 100u);
  EXPECT_EQ(vepra_objsig_query_type("clicked"), s);
  EXPECT_EQ(vepra_objsig_query_type("pressed"), 0u);
  EXPECT_EQ(printed(vepra_objsig_register(&s2, "clicked")),
            "Error(120103): Cannot register signal. \n"
            "Error(120103): Object signal type [clicked] already exists. ");
  // A freed registration is reused as it stands, old name included.
  ASSERT_EQ(vepra_objsig_deregister(s), nullptr);
  EXPECT_EQ(vepra_objsig_query_type("clicked"), 0u);
  ASSERT_EQ(vepra_objsig_register(&s2, nullptr), nullptr);
  EXPECT_EQ(s2, s + 1);
  EXPECT_EQ(vepra_objsig_query_type("clicked"), s2);
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
  EXPECT_EQ(vepra_objtype_query_typecode("widget"), 0u);
  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  ASSERT_EQ(vepra_objsig_register(&s, nullptr), nullptr);
  EXPECT_EQ(s, s2 + 1);
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
}

struct Trace {
  std::vector<std::string> lines;
  static void note(vepra_obj_t *o, void *self) {
    static_cast<Trace *>(self)->lines.push_back(std::string("cleanup ") + vepra_obj_get_name(o));
  }
  static void destroyed(vepra_obj_t *src, unsigned, vepra_obj_t *, void *self, void *) {
    static_cast<Trace *>(self)->lines.push_back(std::string("signal 1 ") + vepra_obj_get_name(src));
  }
};

int is_named_b(uint32_t, void *data, void *) {
  const char *n = vepra_obj_get_name(static_cast<vepra_obj_t *>(data));
  return n != nullptr && std::strcmp(n, "b") == 0;
}

vepra_error_t *stop_at_first(uint32_t, void *, void *) { return VepraDLlistStopWalking; }

TEST_F(ObjTest, ChildrenAndCleanupsFollowTheirRules) {
  Trace trace;
  vepra_obj_t *p = nullptr, *a = nullptr, *b = nullptr, *u1 = nullptr, *u2 = nullptr,
              *a2 = nullptr, *watcher = nullptr;
  for (auto [out, name] : {std::pair{&p, "p"}, {&a, "a"}, {&b, "b"}, {&u1, "u1"}, {&u2, "u2"},
                           {&a2, "a"}, {&watcher, "w"}})
    ASSERT_EQ(vepra_obj_create(out, name, pool_), nullptr);
  vepra_obj_set_name(u1, nullptr);
  vepra_obj_set_name(u2, nullptr);
  for (vepra_obj_t *c : {a, b, u1, u2}) ASSERT_EQ(vepra_obj_addc(p, c), nullptr);
  EXPECT_EQ(printed(vepra_obj_addc(p, a2)),
            "Error(120102): Cannot add child to object \n"
            "Error(120102): There is already a child with name 'a' ");
  EXPECT_EQ(printed(vepra_obj_addc(watcher, a)),
            "Error: Cannot add child to object \nError: The object already has a parent. ");
  EXPECT_EQ(printed(vepra_obj_addc(a, p)),
            "Error: Cannot add child to object \nError: The object cannot be its own descendant. ");
  EXPECT_EQ(vepra_obj_removec(p, "a", nullptr), a);
  EXPECT_EQ(a->parent, nullptr);
  ASSERT_EQ(vepra_obj_addc(p, a2), nullptr);
  EXPECT_EQ(vepra_obj_getc(p, "a"), a2);
  vepra_obj_destroy(a);

  // removec_func drops the name entry too; a renamed child is still found
  // by its old name, and destroying it detaches it.
  EXPECT_EQ(vepra_obj_removec_func(p, is_named_b, nullptr), b);
  EXPECT_EQ(vepra_obj_getc(p, "b"), nullptr);
  EXPECT_EQ(b->parent, nullptr);
  vepra_obj_set_name(a2, "renamed");
  EXPECT_EQ(vepra_obj_getc(p, "a"), a2);
  vepra_obj_destroy(a2);
  EXPECT_EQ(vepra_obj_getc(p, "a"), nullptr);
  EXPECT_EQ(vepra_obj_child_walk_err_first(p, stop_at_first, nullptr, nullptr),
            VepraDLlistStopWalking);

  // Cleanup order: signal 1, the callbacks (one registered twice, one
  // deregistered), then the children.
  ASSERT_EQ(vepra_obj_addc(p, b), nullptr);
  ASSERT_EQ(vepra_obj_connect(p, 1, watcher, Trace::destroyed, &trace), nullptr);
  ASSERT_EQ(vepra_obj_cleanup_register(p, Trace::note, &trace), nullptr);
  ASSERT_EQ(vepra_obj_cleanup_register(p, Trace::note, &trace), nullptr);
  ASSERT_EQ(vepra_obj_cleanup_register(p, Trace::note, &trace), nullptr);
  EXPECT_NE(vepra_obj_cleanup_deregister(p, Trace::note), nullptr);
  EXPECT_EQ(vepra_obj_cleanup_deregister(p, nullptr), nullptr);
  ASSERT_EQ(vepra_obj_cleanup_register(b, Trace::note, &trace), nullptr);
  vepra_obj_destroy(p);
  EXPECT_EQ(trace.lines, (std::vector<std::string>{"signal 1 p", "cleanup p", "cleanup p",
                                                   "cleanup b"}));
  // The watcher forgot p: only its own signal 1 is left, with nothing.
  ASSERT_EQ(utarray_len(watcher->signals), 1u);
  EXPECT_EQ(static_cast<osig *>(utarray_eltptr(watcher->signals, 0))->destinations, nullptr);
  vepra_obj_destroy(watcher);
}

// Allocation failures: object creation, a connection's destination records
// and type registration report the allocator's error and leave nothing
// behind (the sanitizer build checks for leaks).
TEST_F(ObjTest, ReportsAllocationFailures) {
  vepra_obj_t *o = nullptr;
  long made = vepra_test::for_each_allocation_failure(
      [&] {
        o = nullptr;
        vepra_error_t *e = vepra_obj_create(&o, "x", pool_);
        vepra_obj_destroy(o);
        return e;
      },
      [](vepra_error_t *e, long) {
        EXPECT_EQ(e->code, VEPRA_E_ALLOC);
        EXPECT_STREQ(e->message, "Cannot create object.");
      });
  EXPECT_GE(made, 1);

  vepra_obj_t *a = nullptr, *b = nullptr;
  ASSERT_EQ(vepra_obj_create(&a, "a", pool_), nullptr);
  ASSERT_EQ(vepra_obj_create(&b, "b", pool_), nullptr);
  ASSERT_EQ(vepra_obj_add_signal(a, 5), nullptr);
  made = vepra_test::for_each_allocation_failure(
      [&] {
        vepra_error_t *e = vepra_obj_connect(a, 5, b, Real::slot<0>, nullptr);
        vepra_obj_disconnect(a, -1, nullptr, nullptr);
        vepra_obj_disconnect(b, -1, nullptr, nullptr);
        return e;
      },
      [](vepra_error_t *e, long) {
        EXPECT_EQ(e->code, VEPRA_E_ALLOC);
        EXPECT_STREQ(e->message, "Cannot connect objects by signal.");
      });
  EXPECT_EQ(made, 3);  // A.5 -> B, B.1 -> A, A.1 -> B
  vepra_obj_destroy(a);
  vepra_obj_destroy(b);

  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  vepra_strlist_t *names = nullptr;
  ASSERT_EQ(vepra_strlist_create(&names, pool_), nullptr);
  ASSERT_EQ(vepra_strlist_addlast(names, "allocation-test-type", pool_), nullptr);
  unsigned code = 0, refused = 0;
  made = vepra_test::for_each_allocation_failure(
      [&] { return vepra_objtype_register(&code, names, nullptr); },
      [&](vepra_error_t *e, long) {
        EXPECT_EQ(e->code, VEPRA_E_ALLOC);
        EXPECT_STREQ(e->message, "Cannot register object type.");
        EXPECT_EQ(vepra_objtype_query_typecode("allocation-test-type"), 0u);
        refused = code;
      });
  EXPECT_GE(made, 1);
  EXPECT_EQ(code, refused);  // the refused code was handed out next
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);
}

}  // namespace
