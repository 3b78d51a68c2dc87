// The object engine against a reference model, its edge cases,
// the printed format and allocation failures.
#include "object/obj_world.hpp"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "vepra.h"

namespace {

using namespace obj_model;
using vepra_test::take_printed;

class ObjTest : public vepra_test::LibraryTest {
 protected:
  // A new object in the test's pool, destroyed with it after the test.
  vepra_obj_t *make(const char *name) {
    vepra_obj_t *o = nullptr;
    EXPECT_EQ(vepra_obj_create(&o, name, pool_), nullptr);
    return o;
  }
  // A new list of names in the test's pool.
  vepra_strlist_t *list(std::initializer_list<const char *> names) {
    vepra_strlist_t *l = nullptr;
    EXPECT_EQ(vepra_strlist_create(&l, pool_), nullptr);
    for (const char *n : names) EXPECT_EQ(vepra_strlist_addlast(l, n, pool_), nullptr);
    return l;
  }
};

// Random operations, nested ones included, against the model (run_ops),
// weighted towards connections and emissions (in decode's table order).
TEST_F(ObjTest, MatchesModelUnderRandomNestedOperations) {
  std::mt19937 rng(1);
  std::discrete_distribution<unsigned> nested_kind({25, 20, 15, 12, 12, 8, 8, 0});
  std::discrete_distribution<unsigned> top_kind({6, 4, 15, 15, 8, 14, 14, 3, 1, 8, 4, 3, 3, 2});
  for (int run = 0; run < 300; ++run) {
    std::vector<uint8_t> bytes(8 * (8 + 200));
    for (size_t at = 0; at < bytes.size(); ++at) {
      const unsigned kind = at < 64 ? nested_kind(rng) : top_kind(rng);
      bytes[at] = static_cast<uint8_t>(at % 8 == 0 ? kind : rng());
    }
    ASSERT_EQ(run_ops(bytes.data(), bytes.size()), "") << "run " << run;
  }
}

// The print format (tests/data/object/print_signals.txt), with the
// addresses printed by snprintf.
TEST_F(ObjTest, PrintsSignalsDestinationsAndSlots) {
  vepra_obj_t *a = make("alpha"), *b = make(nullptr);
  ASSERT_EQ(vepra_obj_add_signal(a, 7), nullptr);
  ASSERT_EQ(vepra_obj_set_signal_flags(a, 7, 0x10006), nullptr);
  vepra_obj_slot_fn f = Real::slot<0>;
  void *usr = reinterpret_cast<void *>(0x10);
  ASSERT_EQ(vepra_obj_connect(a, 7, b, f, usr), nullptr);
  ASSERT_EQ(vepra_obj_connect(a, 7, b, Real::slot<1>, nullptr), nullptr);
  vepra_obj_disconnect(a, 0, nullptr, nullptr);  // no signal 0: nothing goes
  UT_array *b1 = vepra::detail::find_signal(b, 1)->destinations->slots;
  vepra_obj_slot_fn autodel = static_cast<oslot *>(utarray_eltptr(b1, 0))->callback;

  auto print = [](vepra_obj_t *o) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    vepra_obj_print_signals(o, stream);
    std::fclose(stream);
    std::string out(text, size);
    std::free(text);
    return out;
  };
  std::ifstream in(VEPRA_TEST_DATA_DIR "/object/print_signals.txt");
  std::string format;
  for (std::string line; std::getline(in, line);)
    if (line[0] != '#') format += line + "\n";
  char want[1024];
  std::snprintf(want, sizeof want, format.c_str(), static_cast<void *>(a), static_cast<void *>(b),
                nullptr, reinterpret_cast<void *>(autodel), static_cast<void *>(b), usr,
                reinterpret_cast<void *>(f), nullptr, reinterpret_cast<void *>(Real::slot<1>));
  EXPECT_EQ(print(a), want);
  // An object without signals prints nothing.
  vepra_obj_delete_signals(a);
  EXPECT_EQ(print(a), "");
}

// Registries of object types and signal types; codes are relative to the
// first handed out here, as the counters live as long as the process.
TEST_F(ObjTest, RegistersTypesAndSignalTypes) {
  unsigned t = 0, t2 = 7, s = 0, s2 = 0;
  EXPECT_EQ(take_printed(vepra_objtype_register(&t, nullptr, nullptr)),
            "Error(120001): Cannot register object type. \n"
            "Error(120001): VEPRA has not been initialized. ");
  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  ASSERT_EQ(vepra_objtype_register(&t, list({"widget", "gadget"}), nullptr), nullptr);
  EXPECT_EQ(vepra_objtype_query_typecode("gadget"), t);
  EXPECT_EQ(vepra_objtype_query_typecode("gizmo"), 0u);
  // A taken name refuses the whole list, consumes no code and leaves the
  // registry unlocked for the next registration.
  vepra_strlist_t *taken = list({"fresh", "gadget"});
  EXPECT_TRUE(vepra_objtype_is_names_exist(taken));
  EXPECT_EQ(take_printed(vepra_objtype_register(&t2, taken, nullptr)),
            "Error(120101): The name(s) of type is(are) already registered. ");
  EXPECT_EQ(t2, 7u);
  EXPECT_EQ(vepra_objtype_query_typecode("fresh"), 0u);
  ASSERT_EQ(vepra_objtype_register(&t2, list({"fresh"}), nullptr), nullptr);
  EXPECT_EQ(t2, t + 1);

  // A type without a method makes plain objects, of type 0.
  vepra_obj_t *o = nullptr;
  ASSERT_EQ(vepra_objtype_create_object("widget", "w1", &o, pool_), nullptr);
  EXPECT_STREQ(vepra_obj_get_name(o), "w1");
  EXPECT_EQ(vepra_obj_get_type(o), 0u);
  EXPECT_EQ(take_printed(vepra_objtype_create_object("gizmo", "g", &o, pool_)),
            "Error: Cannot create object. Type [gizmo] is not registered. ");

  // Signal types (fresh codes and lookups: the concurrent test): refusal,
  // reuse of a freed registration, old name included, and counters that
  // outlive the engine.
  ASSERT_EQ(vepra_objsig_register(&s, "clicked"), nullptr);
  EXPECT_EQ(vepra_objsig_query_type(nullptr), 0u);
  EXPECT_EQ(take_printed(vepra_objsig_register(&s2, "clicked")),
            "Error(120103): Cannot register signal. \n"
            "Error(120103): Object signal type [clicked] already exists. ");
  ASSERT_EQ(vepra_objsig_deregister(s), nullptr);
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

// Refused children with their messages, removal by a predicate, a walk that
// stops, and the order of a teardown.
TEST_F(ObjTest, ChildrenAndCleanupsFollowTheirRules) {
  Trace trace;
  vepra_obj_t *p = make("p"), *a = make("a"), *b = make("b"), *a2 = make("a"), *watcher = make("w");
  for (vepra_obj_t *c : {a, b}) ASSERT_EQ(vepra_obj_addc(p, c), nullptr);
  EXPECT_EQ(take_printed(vepra_obj_addc(p, a2)),
            "Error(120102): Cannot add child to object \n"
            "Error(120102): There is already a child with name 'a' ");
  EXPECT_EQ(take_printed(vepra_obj_addc(watcher, a)),
            "Error: Cannot add child to object \nError: The object already has a parent. ");
  EXPECT_EQ(take_printed(vepra_obj_addc(a, p)),
            "Error: Cannot add child to object \nError: The object cannot be its own descendant. ");

  // removec_func drops the name entry too.
  EXPECT_EQ(vepra_obj_removec_func(p, is_named_b, nullptr), b);
  EXPECT_EQ(vepra_obj_getc(p, "b"), nullptr);
  EXPECT_EQ(b->parent, nullptr);
  EXPECT_EQ(vepra_obj_child_walk_err_first(p, stop_at_first, nullptr, nullptr),
            VepraDLlistStopWalking);

  // Cleanup order: signal 1, the callbacks (one registered twice, one
  // deregistered), then the children.
  ASSERT_EQ(vepra_obj_addc(p, b), nullptr);
  ASSERT_EQ(vepra_obj_connect(p, 1, watcher, Trace::destroyed, &trace), nullptr);
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(vepra_obj_cleanup_register(p, Trace::note, &trace), nullptr);
  EXPECT_NE(vepra_obj_cleanup_deregister(p, Trace::note), nullptr);
  EXPECT_EQ(vepra_obj_cleanup_deregister(p, nullptr), nullptr);
  ASSERT_EQ(vepra_obj_cleanup_register(b, Trace::note, &trace), nullptr);
  vepra_obj_destroy(p);
  EXPECT_EQ(trace.lines,
            (std::vector<std::string>{"signal 1 p", "cleanup p", "cleanup p", "cleanup b"}));
}

// Allocation failures in object creation, connections and type registration
// are reported and leave nothing behind (the sanitizer build sees leaks).
TEST_F(ObjTest, ReportsAllocationFailures) {
  // Every allocation of op failing in turn is reported as the allocator's
  // error under message; returns the allocations of the clean run.
  auto sweep = [](const std::function<vepra_error_t *()> &op, const char *message) {
    return vepra_test::for_each_allocation_failure(op, [=](vepra_error_t *e, long) {
      EXPECT_EQ(e->code, VEPRA_E_ALLOC);
      EXPECT_STREQ(e->message, message);
    });
  };
  auto create = [&] {
    vepra_obj_t *o = nullptr;
    vepra_error_t *e = vepra_obj_create(&o, "x", pool_);
    vepra_obj_destroy(o);
    return e;
  };
  EXPECT_GE(sweep(create, "Cannot create object."), 1);

  vepra_obj_t *a = make("a"), *b = make("b");
  ASSERT_EQ(vepra_obj_add_signal(a, 5), nullptr);
  auto connect = [&] {
    vepra_error_t *e = vepra_obj_connect(a, 5, b, Real::slot<0>, nullptr);
    vepra_obj_disconnect(a, -1, nullptr, nullptr);
    vepra_obj_disconnect(b, -1, nullptr, nullptr);
    return e;
  };
  EXPECT_EQ(sweep(connect, "Cannot connect objects by signal."), 3);  // A.5->B, B.1->A, A.1->B

  ASSERT_EQ(vepra_obj_engine_init(pool_), nullptr);
  vepra_strlist_t *names = list({"allocation-test-type"});
  unsigned code = 0, refused = 0;
  auto register_type = [&] {
    vepra_error_t *e = vepra_objtype_register(&code, names, nullptr);
    if (e != nullptr) {  // refused: the name stays unknown
      EXPECT_EQ(vepra_objtype_query_typecode("allocation-test-type"), 0u);
      refused = code;
    }
    return e;
  };
  EXPECT_GE(sweep(register_type, "Cannot register object type."), 1);
  EXPECT_EQ(code, refused);  // the refused code was handed out next
  ASSERT_EQ(vepra_obj_engine_terminate(), nullptr);

  // Removing a child takes no allocation, so no failure can leave its name
  // in the index; the names share a long prefix, so that finding the entry
  // by a walk of the index would need to allocate.
  const std::string name(100, 'n');
  vepra_obj_t *p = make("p"), *c = make((name + "c").c_str()), *d = make((name + "d").c_str());
  ASSERT_EQ(vepra_obj_addc(p, c), nullptr);
  ASSERT_EQ(vepra_obj_addc(p, d), nullptr);
  vepra::testing::fail_allocation_at(1);
  EXPECT_EQ(vepra_obj_removec(p, nullptr, c), c);
  vepra::testing::fail_allocation_at(0);
  EXPECT_EQ(vepra_obj_getc(p, (name + "c").c_str()), nullptr);
}

// A slot that connects src's signal to target, then destroys target, or
// (when emitted with a non-null argument) removes the signal and emits it
// again, which the busy signal drops.
void connect_then(vepra_obj_t *src, unsigned code, vepra_obj_t *, void *target, void *remove) {
  auto *to = static_cast<vepra_obj_t *>(target);
  EXPECT_EQ(vepra_obj_connect(src, code, to, Real::slot<1>, nullptr), nullptr);
  if (remove == nullptr) return vepra_obj_destroy(to);
  vepra_obj_remove_signal(src, code);
  EXPECT_EQ(vepra_obj_emit_signal(src, code, nullptr), nullptr);
}

// A connect queued towards a receiver destroyed meanwhile is not replayed;
// a replayed one that fails (no signal 1 at the receiver) hands its errors
// back, with their messages, when a queued removal takes the signal away.
TEST_F(ObjTest, ReplaysQueuedConnectsAfterTheEmission) {
  vepra_obj_t *a = make("a"), *b = make("b"), *c = make("c"), *mute = make("mute");
  ASSERT_EQ(vepra_obj_add_signal(a, 5), nullptr);
  ASSERT_EQ(vepra_obj_connect(a, 5, b, connect_then, c), nullptr);
  EXPECT_EQ(vepra_obj_emit_signal(a, 5, nullptr), nullptr);
  EXPECT_EQ(HASH_COUNT(vepra::detail::find_signal(a, 5)->destinations), 1u) << "b alone";

  vepra_obj_delete_signals(mute);
  ASSERT_EQ(vepra_obj_connect(a, 5, b, connect_then, mute), nullptr);
  // The automatic slot's connect is wrapped by the outer connect.
  EXPECT_EQ(take_printed(vepra_obj_emit_signal(a, 5, a)),
            "Error(120104): Cannot connect objects by signal. \n"
            "Error(120104): Cannot connect objects by signal. \n"
            "Error(120104): Cannot find signal with code 1. ");
  EXPECT_EQ(take_printed(vepra_obj_emit_signal(a, 5, nullptr)),
            "Error(120104): Cannot emit signal. \n"
            "Error(120104): Cannot find signal with code 5. ");
}

}  // namespace
