// Signal emission and connection against libsigc++ 3 and GObject signals,
// in the same binary: one emission reaching one slot, one emission reaching
// 16 slots on 16 receivers (items = slots called), and one connect plus
// disconnect. Every slot adds its argument to a counter, so no emission is
// optimised away.
#include <benchmark/benchmark.h>

#include "bench_main.hpp"

#include <glib-object.h>
#include <sigc++/sigc++.h>

#include <vector>

#include "vepra_obj.h"

namespace {

constexpr unsigned kSignal = 100;
constexpr int kMany = 16;

long g_sum = 0;

void vepra_slot(vepra_obj_t *, unsigned, vepra_obj_t *, void *usr, void *arg) {
  g_sum += *static_cast<long *>(arg) + (usr != nullptr);
}

void gobject_handler(GObject *, gpointer arg, gpointer usr) {
  g_sum += *static_cast<long *>(arg) + (usr != nullptr);
}

struct Receiver {
  void on(long *arg) { g_sum += *arg + 1; }
};

// The vepra side: one source and n receivers in a pool of their own.
class VepraObjects {
 public:
  explicit VepraObjects(int receivers) {
    apr_pool_create(&pool_, nullptr);
    vepra_obj_create(&src_, "source", pool_);
    vepra_obj_add_signal(src_, kSignal);
    dests_.resize(static_cast<size_t>(receivers));
    for (auto &d : dests_) vepra_obj_create(&d, "receiver", pool_);
  }
  ~VepraObjects() { apr_pool_destroy(pool_); }
  vepra_obj_t *src() const { return src_; }
  const std::vector<vepra_obj_t *> &dests() const { return dests_; }

 private:
  apr_pool_t *pool_ = nullptr;
  vepra_obj_t *src_ = nullptr;
  std::vector<vepra_obj_t *> dests_;
};

// A GObject type with one signal carrying a pointer.
guint g_ping = 0;
GType emitter_type() {
  static GType type = [] {
    GType t = g_type_register_static_simple(
        G_TYPE_OBJECT, "VepraBenchEmitter", sizeof(GObjectClass),
        [](gpointer klass, gpointer) {
          g_ping = g_signal_new("ping", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                                nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_POINTER);
        },
        sizeof(GObject), nullptr, static_cast<GTypeFlags>(0));
    return t;
  }();
  return type;
}

void emit_vepra(benchmark::State &state, int receivers) {
  VepraObjects objs(receivers);
  for (vepra_obj_t *d : objs.dests()) vepra_obj_connect(objs.src(), kSignal, d, vepra_slot, d);
  long arg = 1;
  for (auto _ : state) vepra_error_clear(vepra_obj_emit_signal(objs.src(), kSignal, &arg));
  state.SetItemsProcessed(state.iterations() * receivers);
  benchmark::DoNotOptimize(g_sum);
}

void emit_sigc(benchmark::State &state, int receivers) {
  sigc::signal<void(long *)> signal;
  std::vector<Receiver> r(static_cast<size_t>(receivers));
  for (auto &x : r) signal.connect(sigc::mem_fun(x, &Receiver::on));
  long arg = 1;
  for (auto _ : state) signal.emit(&arg);
  state.SetItemsProcessed(state.iterations() * receivers);
  benchmark::DoNotOptimize(g_sum);
}

void emit_gobject(benchmark::State &state, int receivers) {
  GObject *obj = static_cast<GObject *>(g_object_new(emitter_type(), nullptr));
  std::vector<long> users(static_cast<size_t>(receivers));
  for (auto &u : users) g_signal_connect(obj, "ping", G_CALLBACK(gobject_handler), &u);
  long arg = 1;
  for (auto _ : state) g_signal_emit(obj, g_ping, 0, &arg);
  state.SetItemsProcessed(state.iterations() * receivers);
  g_object_unref(obj);
  benchmark::DoNotOptimize(g_sum);
}

void BM_Emit1_Vepra(benchmark::State &s) { emit_vepra(s, 1); }
void BM_Emit1_Sigc(benchmark::State &s) { emit_sigc(s, 1); }
void BM_Emit1_GObject(benchmark::State &s) { emit_gobject(s, 1); }
void BM_Emit16_Vepra(benchmark::State &s) { emit_vepra(s, kMany); }
void BM_Emit16_Sigc(benchmark::State &s) { emit_sigc(s, kMany); }
void BM_Emit16_GObject(benchmark::State &s) { emit_gobject(s, kMany); }

// Connect then disconnect the same slot. The vepra receiver already has a
// destination record (as after any earlier connection), so this measures
// the slot itself; the Dest form removes the destination each time, so
// every connect builds the record and its automatic disconnection slots.
void BM_ConnectDisconnect_Vepra(benchmark::State &state) {
  VepraObjects objs(1);
  vepra_obj_t *d = objs.dests()[0];
  vepra_obj_connect(objs.src(), kSignal, d, vepra_slot, nullptr);
  vepra_obj_disconnect(objs.src(), kSignal, d, vepra_slot);
  for (auto _ : state) {
    vepra_error_clear(vepra_obj_connect(objs.src(), kSignal, d, vepra_slot, nullptr));
    vepra_obj_disconnect(objs.src(), kSignal, d, vepra_slot);
  }
}

void BM_ConnectDisconnectDest_Vepra(benchmark::State &state) {
  VepraObjects objs(1);
  vepra_obj_t *d = objs.dests()[0];
  for (auto _ : state) {
    vepra_error_clear(vepra_obj_connect(objs.src(), kSignal, d, vepra_slot, nullptr));
    vepra_obj_disconnect(objs.src(), kSignal, d, nullptr);
  }
}

void BM_ConnectDisconnect_Sigc(benchmark::State &state) {
  sigc::signal<void(long *)> signal;
  Receiver r;
  for (auto _ : state) {
    sigc::connection c = signal.connect(sigc::mem_fun(r, &Receiver::on));
    c.disconnect();
  }
}

void BM_ConnectDisconnect_GObject(benchmark::State &state) {
  GObject *obj = static_cast<GObject *>(g_object_new(emitter_type(), nullptr));
  long user = 0;
  for (auto _ : state) {
    gulong id = g_signal_connect(obj, "ping", G_CALLBACK(gobject_handler), &user);
    g_signal_handler_disconnect(obj, id);
  }
  g_object_unref(obj);
}

BENCHMARK(BM_Emit1_Vepra);
BENCHMARK(BM_Emit1_Sigc);
BENCHMARK(BM_Emit1_GObject);
BENCHMARK(BM_Emit16_Vepra);
BENCHMARK(BM_Emit16_Sigc);
BENCHMARK(BM_Emit16_GObject);
BENCHMARK(BM_ConnectDisconnect_Vepra);
BENCHMARK(BM_ConnectDisconnectDest_Vepra);
BENCHMARK(BM_ConnectDisconnect_Sigc);
BENCHMARK(BM_ConnectDisconnect_GObject);

}  // namespace

int main(int argc, char **argv) { return vepra_bench::run(argc, argv); }
