// A reference model of objects, children and signals with plain vectors and
// indexes, the same operations on real objects, and the byte-coded runs
// that drive both side by side (tests and fuzzer).
#ifndef VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP
#define VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP

#include "object/obj_internal.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vepra.h"

namespace obj_model {

// Slot callbacks are the user functions 0 to 2 and the automatic
// disconnection slot; kOff is a disabled slot, kAny "no callback given".
constexpr int kAuto = 3, kOff = -1, kAny = -2;
constexpr int kCodeZero = 1;  // the result of an error of code 0

struct Slot {
  uintptr_t usr;
  int cb;
  bool operator==(const Slot &) const = default;
};
struct Dest {
  int dest;
  std::vector<Slot> slots;
  bool operator==(const Dest &) const = default;
};

// One thing a test run does: at top level, or from inside a slot (the
// slot's usr selects an entry of the nested table).
enum class Kind {
  kCreate,
  kAddSignal,
  kConnect,
  kDisconnect,
  kEmit,
  kRemove,
  kDeleteSignals,
  kAddChild,
  kRemoveByName,
  kRemoveChild,
  kRename,
  kDestroy
};
struct Op {
  Kind kind;
  int x = 0, y = -1, code = 1, cb = 0;
  uintptr_t usr = 0;
  int name = -1;         // index into kNames, -1 for none
  bool here = false;     // nested: acts on the emitting object and signal
  bool to_dest = false;  // nested: its other object is the slot's dest
  bool operator==(const Op &) const = default;
};

struct Sig {
  unsigned code;
  bool busy = false;
  std::vector<Dest> dests;
  std::vector<Op> acts = {};  // connects, disconnects and removals queued while busy
  bool operator==(const Sig &) const = default;
};

// A nested operation aimed at the emission that runs it.
inline Op localise(Op op, int src, int code, int dest) {
  if (op.here) {
    op.x = src;
    if (op.code >= 0) op.code = code;
  }
  if (op.to_dest) {
    op.y = dest;
    if (op.kind == Kind::kDestroy) op.x = dest;
  }
  return op;
}

inline const char *const kNames[] = {"a", "b", "c"};

// A call seen by a slot, or the result of an operation.
struct Entry {
  int what, src, code, dest;
  uintptr_t usr;
  bool operator==(const Entry &) const = default;
};

// Slot nesting, objects alive at once, objects created in one run.
constexpr int kMaxDepth = 2, kMaxObjects = 6, kMaxCreated = 40;

// What the model and the engine side share: the nested operations slots
// run (selected by their usr), the log of slot calls, the nesting depth,
// and which of the objects created so far are alive.
struct Run {
  const std::vector<Op> *nested;
  std::vector<Entry> *log;
  int depth = 0;
  std::vector<bool> is_alive = {};

  int count() const { return static_cast<int>(is_alive.size()); }
  bool alive(int i) const { return i >= 0 && i < count() && is_alive[i]; }
  std::vector<int> live() const {
    std::vector<int> out;
    for (int i = 0; i < count(); ++i)
      if (alive(i)) out.push_back(i);
    return out;
  }
};

// Runs op on a world (the model or the engine); both have the same
// operations over object indexes. Returns the operation's result.
template <class W>
int apply(W &w, const Op &op) {
  auto live = [&](int i) { return w.alive(i); };
  switch (op.kind) {
    case Kind::kCreate:
      return w.count() < kMaxCreated && std::ssize(w.live()) < kMaxObjects ? w.create(op.name) : -1;
    case Kind::kAddSignal:
      return live(op.x) ? w.add_signal(op.x, op.code) : -1;
    case Kind::kConnect:
      return live(op.x) && live(op.y) ? w.connect(op.x, op.code, op.y, op.cb, op.usr) : -1;
    case Kind::kDisconnect:
      if (!live(op.x) || op.y >= w.count()) return -1;
      w.disconnect(op.x, op.code, op.y, op.cb);
      return 0;
    case Kind::kEmit:
      return live(op.x) ? w.emit(op.x, op.code) : -1;
    case Kind::kRemove:
      if (live(op.x)) w.remove_signal(op.x, op.code);
      return 0;
    case Kind::kDeleteSignals:
      if (live(op.x)) w.delete_signals(op.x);
      return 0;
    case Kind::kAddChild:
      return live(op.x) && live(op.y) ? w.addc(op.x, op.y) : -1;
    case Kind::kRemoveByName:
      return live(op.x) ? w.remove_by_name(op.x, op.name) : -1;
    case Kind::kRemoveChild:
      return live(op.x) && live(op.y) ? w.remove_child(op.x, op.y) : -1;
    case Kind::kRename:
      if (live(op.x)) w.rename(op.x, op.name);
      return 0;
    case Kind::kDestroy:
      if (live(op.x)) w.destroy(op.x);
      return 0;
  }
  return -1;
}

// A slot call: logged, then the nested operation its usr selects, aimed at
// the emission, with its result logged.
template <class W>
void call_slot(W &w, int cb, int src, int code, int dest, uintptr_t usr) {
  w.log->push_back({cb, src, code, dest, usr});
  if (w.depth >= kMaxDepth || usr >= w.nested->size()) return;
  ++w.depth;
  const int r = apply(w, localise((*w.nested)[usr], src, code, dest));
  --w.depth;
  w.log->push_back({-1, r, 0, 0, 0});
}

class Model : public Run {
 public:
  struct Obj {
    bool cleaning = false;
    int gen = 0;  // counts deletions of all signals, which end an emission
    std::vector<Sig> sigs;
    int parent = -1, name = -1;
    std::vector<int> children;
    std::map<int, int> index;  // children by name
  };

  explicit Model(Run run) : Run(run) {}

  std::vector<Obj> objs;

  int create(int name) {
    objs.emplace_back().name = name;
    is_alive.push_back(true);
    for (unsigned code : {1u, 2u, 3u}) add_signal(count() - 1, code);
    return count() - 1;
  }

  Sig *find(int o, unsigned code) {
    auto s = std::ranges::find(objs[o].sigs, code, &Sig::code);
    return s == objs[o].sigs.end() ? nullptr : &*s;
  }

  int add_signal(int o, unsigned code) {
    if (find(o, code) != nullptr) return VEPRA_E_SIGNAL_EXISTS;
    objs[o].sigs.emplace_back().code = code;
    return 0;
  }

  int connect(int src, unsigned code, int dest, int cb, uintptr_t usr) {
    Sig *s = find(src, code);
    if (s == nullptr) return VEPRA_E_SIGNAL_NOT_FOUND;
    if (s->busy) {
      s->acts.push_back({Kind::kConnect, src, dest, static_cast<int>(code), cb, usr});
      return 0;
    }
    auto d = std::ranges::find(s->dests, dest, &Dest::dest);
    if (d == s->dests.end()) {
      s->dests.push_back({dest, {{usr, cb}}});
    } else if (auto sl = std::ranges::find(d->slots, cb, &Slot::cb); sl != d->slots.end()) {
      sl->usr = usr;
    } else {
      d->slots.push_back({usr, cb});
    }
    if (dest == src || (code == 1 && cb == kAuto)) return 0;
    if (int e = connect(dest, 1, src, kAuto, 0)) return e;
    return connect(src, 1, dest, kAuto, 0);
  }

  void disconnect(int src, int code, int dest, int cb) {
    for (auto &s : objs[src].sigs) {
      if (code >= 0 && s.code != static_cast<unsigned>(code)) continue;
      if (s.busy) {
        s.acts.push_back({Kind::kDisconnect, src, dest, code, cb});
        disable(s, dest, cb);
      } else {
        disconnect_now(s, dest, cb);
      }
    }
  }

  int emit(int src, unsigned code) {
    Sig *s = find(src, code);
    if (s == nullptr) return VEPRA_E_SIGNAL_NOT_FOUND;
    if (s->busy) return 0;
    s->busy = true;
    const int gen = objs[src].gen;
    for (size_t di = 0; di < find(src, code)->dests.size(); ++di) {
      for (size_t si = 0; si < find(src, code)->dests[di].slots.size(); ++si) {
        const Dest &d = find(src, code)->dests[di];
        Slot sl = d.slots[si];
        if (sl.cb == kAuto)
          disconnect(d.dest, -1, src, kAny);
        else if (sl.cb != kOff)
          call_slot(*this, sl.cb, src, static_cast<int>(code), d.dest, sl.usr);
        if (objs[src].gen != gen) return 0;
      }
    }
    s = find(src, code);
    s->busy = false;
    std::vector<Op> acts = std::exchange(s->acts, {});
    int chain = 0;
    for (const Op &a : acts) {
      if (a.kind == Kind::kConnect) {
        if (int e = connect(a.x, static_cast<unsigned>(a.code), a.y, a.cb, a.usr)) chain = e;
      } else if (a.kind == Kind::kDisconnect) {
        disconnect(a.x, a.code, a.y, a.cb);
      } else {
        remove_signal(a.x, static_cast<unsigned>(a.code));
        if (find(src, code) == nullptr) return chain;
      }
    }
    return 0;
  }

  void remove_signal(int o, unsigned code) {
    Sig *s = find(o, code);
    if (s == nullptr) return;
    if (s->busy) {
      s->acts.push_back({Kind::kRemove, o, -1, static_cast<int>(code), kAny});
      return;
    }
    if (code == 1) release_peers(o);
    objs[o].sigs.erase(std::ranges::find(objs[o].sigs, code, &Sig::code));
  }

  void delete_signals(int o) {
    if (find(o, 1) != nullptr) release_peers(o);
    objs[o].sigs.clear();
    ++objs[o].gen;
  }

  int addc(int p, int c) {
    if (objs[c].parent != -1) return kCodeZero;
    for (int q = p; q != -1; q = objs[q].parent)
      if (q == c) return kCodeZero;
    if (objs[c].name >= 0 && objs[p].index.count(objs[c].name)) return VEPRA_E_OBJ_CHILD_EXISTS;
    objs[p].children.push_back(c);
    if (objs[c].name >= 0) objs[p].index[objs[c].name] = c;
    objs[c].parent = p;
    return 0;
  }

  int remove_by_name(int p, int name) {
    auto it = objs[p].index.find(name);
    return it == objs[p].index.end() ? -1 : remove_child(p, it->second);
  }

  int remove_child(int p, int c) {
    if (std::ranges::count(objs[p].children, c) != 0) unlink(p, c);
    return c;
  }

  void rename(int o, int name) { objs[o].name = name; }

  void destroy(int x) {
    if (!is_alive[x] || objs[x].cleaning) return;
    objs[x].cleaning = true;
    emit(x, 1);
    is_alive[x] = false;  // the test's cleanup callback
    objs[x].index.clear();
    while (!objs[x].children.empty()) {
      for (int c : std::exchange(objs[x].children, {})) {
        objs[c].parent = -1;
        destroy(c);
      }
    }
    if (objs[x].parent != -1) unlink(objs[x].parent, x);
    delete_signals(x);
    for (auto &other : objs)
      for (auto &s : other.sigs)
        std::erase_if(s.acts, [&](const Op &a) { return a.kind == Kind::kConnect && a.y == x; });
    objs[x].cleaning = false;
  }

 private:
  void release_peers(int o) {
    std::vector<int> peers;
    for (auto &d : find(o, 1)->dests)
      if (d.dest != o && std::ranges::count(d.slots, kAuto, &Slot::cb) != 0)
        peers.push_back(d.dest);
    for (int p : peers) disconnect(p, -1, o, kAny);
  }

  static void disable(Sig &s, int dest, int cb) {
    for (auto &d : s.dests) {
      if (dest != -1 && d.dest != dest) continue;
      if (dest == -1 || cb == kAny) {
        for (auto &sl : d.slots) sl.cb = kOff;
      } else if (auto sl = std::ranges::find(d.slots, cb, &Slot::cb); sl != d.slots.end()) {
        sl->cb = kOff;
      }
    }
  }

  static void disconnect_now(Sig &s, int dest, int cb) {
    auto d = std::ranges::find(s.dests, dest, &Dest::dest);
    if (dest == -1) {
      s.dests.clear();
    } else if (d != s.dests.end() && cb == kAny) {
      s.dests.erase(d);
    } else if (d != s.dests.end()) {
      auto sl = std::ranges::find_if(d->slots, [&](auto &x) { return x.cb == cb || x.cb == kOff; });
      if (sl != d->slots.end()) d->slots.erase(sl);
    }
  }

  void unlink(int p, int c) {
    std::erase(objs[p].children, c);
    std::erase_if(objs[p].index, [&](auto &kv) { return kv.second == c; });
    if (objs[c].parent == p) objs[c].parent = -1;
  }
};

// Eight bytes from next make one operation on objects of the given list.
// Codes 1 to 4 (4 is never added), slots f0 to f2, and usr picks a nested
// operation (or none, past the end of the table).
template <class Next>
Op decode(Next &next, const std::vector<int> &objects, bool nested) {
  static constexpr Kind kTop[] = {Kind::kCreate,   Kind::kAddSignal,    Kind::kConnect,
                                  Kind::kConnect,  Kind::kDisconnect,   Kind::kEmit,
                                  Kind::kEmit,     Kind::kRemove,       Kind::kDeleteSignals,
                                  Kind::kAddChild, Kind::kRemoveByName, Kind::kRemoveChild,
                                  Kind::kRename,   Kind::kDestroy};
  static constexpr Kind kNested[] = {Kind::kConnect, Kind::kDisconnect,   Kind::kEmit,
                                     Kind::kRemove,  Kind::kAddSignal,    Kind::kAddChild,
                                     Kind::kDestroy, Kind::kDeleteSignals};
  unsigned b[8];
  for (unsigned &v : b) v = next();
  auto object = [&](unsigned v) { return objects.empty() ? 0 : objects[v % objects.size()]; };
  Op op;
  op.kind = nested ? kNested[b[0] % std::size(kNested)] : kTop[b[0] % std::size(kTop)];
  const bool disconnect = op.kind == Kind::kDisconnect;
  op.x = object(b[1]);
  op.y = disconnect && b[2] % 5 == 0 ? -1 : object(b[2]);
  op.code = disconnect && b[3] % 4 == 0 ? -1 : 1 + static_cast<int>(b[3] % 4);
  op.cb = disconnect && b[4] % 4 == 3 ? kAny : static_cast<int>(b[4] % 3);
  op.usr = b[5] % 16;
  op.name = op.kind == Kind::kCreate && b[6] % 4 == 3 ? -1 : static_cast<int>(b[6] % 3);
  op.here = nested && (b[7] & 1) != 0;
  op.to_dest = nested && (b[7] & 2) != 0;
  return op;
}

inline int code_of(vepra_error_t *e) {
  int c = e == nullptr ? 0 : e->code != 0 ? e->code : kCodeZero;
  vepra_error_clear(e);
  return c;
}

// The engine side of a model run. Every object has a root pool of its own,
// kept to the end of the run, so that no object reuses the address of a
// destroyed one (destination tables are keyed by address).
class Real : public Run {
 public:
  // Slots reach the run through current (signal 1 has a null argument).
  explicit Real(Run run) : Run(run) { current = this; }
  static inline Real *current = nullptr;
  ~Real() {
    for (int i = 0; i < count(); ++i)
      if (is_alive[i]) vepra_obj_destroy(objs_[i]);
    for (apr_pool_t *home : homes_) apr_pool_destroy(home);
  }

  vepra_obj_t *obj(int i) const { return i >= 0 && i < count() ? objs_[i] : nullptr; }
  int index_of(const vepra_obj_t *o) const {
    auto it = std::ranges::find(objs_, o);
    return it == objs_.end() ? -1 : static_cast<int>(it - objs_.begin());
  }

  int create(int name) {
    apr_pool_create_unmanaged_ex(&homes_.emplace_back(), nullptr, nullptr);
    vepra_obj_t *&o = objs_.emplace_back();
    // Every object of a run starts with signals 1, 2 and 3.
    if (vepra_obj_create(&o, name >= 0 ? kNames[name] : nullptr, homes_.back()) != nullptr ||
        vepra_obj_cleanup_register(o, mark_dead, nullptr) != nullptr ||
        vepra_obj_add_signal(o, 2) != nullptr || vepra_obj_add_signal(o, 3) != nullptr)
      std::abort();
    is_alive.push_back(true);
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
      Sig &sig = out.emplace_back(Sig{s->code, (s->flags & VEPRA_SIG_BUSY) != 0, {}});
      for (osigdest *d = s->destinations; d != nullptr; d = static_cast<osigdest *>(d->hh.next)) {
        Dest &dest = sig.dests.emplace_back(Dest{index_of(d->dest), {}});
        for (unsigned k = 0; k < utarray_len(d->slots); ++k) {
          auto *sl = static_cast<oslot *>(utarray_eltptr(d->slots, k));
          dest.slots.push_back({reinterpret_cast<uintptr_t>(sl->usr), slot_id(sl->callback)});
        }
      }
      static constexpr Kind kActs[] = {Kind::kCreate, Kind::kConnect, Kind::kDisconnect,
                                       Kind::kRemove};  // by OSIGACT_*
      for (unsigned k = 0; s->actions != nullptr && k < utarray_len(s->actions); ++k) {
        auto *a = static_cast<osigact *>(utarray_eltptr(s->actions, k));
        sig.acts.push_back({kActs[a->action], index_of(a->src), index_of(a->dest), a->code,
                            a->callback == nullptr ? kAny : slot_id(a->callback),
                            reinterpret_cast<uintptr_t>(a->usr)});
      }
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
    call_slot(*current, F, current->index_of(src), static_cast<int>(code), current->index_of(dest),
              reinterpret_cast<uintptr_t>(usr));
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
  static void mark_dead(vepra_obj_t *o, void *) { current->is_alive[current->index_of(o)] = false; }

  std::vector<vepra_obj_t *> objs_;
  std::vector<apr_pool_t *> homes_;
};

// Carries out the operations data encodes (eight bytes for each entry of
// the nested table, then for each top-level operation) on the engine and
// the model; after every step both must agree on the result, the slot
// calls, and every object's signals, children, parent and name index.
// Returns "" or the first difference. Everything is destroyed at the end.
inline std::string run_ops(const uint8_t *data, size_t size) {
  size_t at = 0;
  auto next = [&] { return at < size ? unsigned{data[at++]} : 0u; };
  std::vector<Op> nested;
  const std::vector<int> first{0, 1, 2, 3, 4, 5};
  for (int i = 0; i < 8; ++i) nested.push_back(decode(next, first, true));
  std::vector<Entry> real_log, model_log;
  Real real({&nested, &real_log});
  Model model({&nested, &model_log});
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
      if (real.signals(i) != model.objs[i].sigs) return object + " signals";
      if (real.children(i) != model.objs[i].children) return object + " children";
      if (real.index_of(real.obj(i)->parent) != model.objs[i].parent) return object + " parent";
      for (const auto &[name, child] : model.objs[i].index)
        if (vepra_obj_getc(real.obj(i), kNames[name]) != real.obj(child)) return object + " index";
    }
  }
  return "";
}

}  // namespace obj_model

#endif  // VEPRA_TESTS_OBJECT_OBJ_WORLD_HPP
