// A reference model of objects, children and signals, written from the
// rules of the object engine with plain vectors and indexes, and the
// byte-coded operations that drive the engine and the model side by side.
#ifndef VEPRA_TESTS_OBJECT_OBJ_MODEL_HPP
#define VEPRA_TESTS_OBJECT_OBJ_MODEL_HPP

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace obj_model {

// Slot callbacks: three user functions, the automatic disconnection slot,
// a disabled slot, and "no callback given" as an argument.
constexpr int kOff = -1;
constexpr int kAuto = 3;
constexpr int kAny = -2;

constexpr int kNotFound = 120104;
constexpr int kExists = 120105;
constexpr int kChildExists = 120102;
constexpr int kCodeZero = 1;  // an error of code 0

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
struct Sig {
  unsigned code;
  bool busy = false;
  std::vector<Dest> dests;
  size_t queued = 0;  // compared only; the model keeps its queue in acts
  bool operator==(const Sig &) const = default;
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
  int x = 0, y = -1;
  int code = 1;
  int cb = 0;
  uintptr_t usr = 0;
  int name = -1;         // index into kNames, -1 for none
  bool here = false;     // nested: acts on the emitting object and signal
  bool to_dest = false;  // nested: its other object is the slot's dest
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

constexpr int kMaxDepth = 2;
constexpr int kMaxObjects = 6;   // alive at once
constexpr int kMaxCreated = 40;  // in one run

class Model {
 public:
  struct Act {
    int action, code, src, dest;
    uintptr_t usr;
    int cb;
  };
  struct ModelSig {
    unsigned code;
    bool busy = false;
    std::vector<Dest> dests;
    std::vector<Act> acts;
  };
  struct Obj {
    bool alive = true, cleaning = false;
    int gen = 0;
    std::vector<ModelSig> sigs;
    int parent = -1;
    std::vector<int> children;
    std::optional<std::string> name;
    std::map<std::string, int> index;
  };

  explicit Model(const std::vector<Op> *nested, std::vector<Entry> *log)
      : nested_(nested), log_(log) {}

  std::vector<Obj> objs;
  int depth = 0;

  int count() const { return static_cast<int>(objs.size()); }
  bool alive(int i) const { return i >= 0 && i < count() && objs[i].alive; }
  std::vector<int> live() const {
    std::vector<int> out;
    for (int i = 0; i < count(); ++i)
      if (alive(i)) out.push_back(i);
    return out;
  }
  int live_count() const { return static_cast<int>(live().size()); }

  int create(int name) {
    Obj o;
    if (name >= 0) o.name = kNames[name];
    for (unsigned code : {1u, 2u, 3u}) o.sigs.push_back(ModelSig{code, false, {}, {}});
    objs.push_back(std::move(o));
    return count() - 1;
  }

  ModelSig *find(int o, unsigned code) {
    for (auto &s : objs[o].sigs)
      if (s.code == code) return &s;
    return nullptr;
  }

  int add_signal(int o, unsigned code) {
    if (find(o, code) != nullptr) return kExists;
    objs[o].sigs.push_back(ModelSig{code, false, {}, {}});
    return 0;
  }

  int connect(int src, unsigned code, int dest, int cb, uintptr_t usr) {
    ModelSig *s = find(src, code);
    if (s == nullptr) return kNotFound;
    if (s->busy) {
      s->acts.push_back({1, static_cast<int>(code), src, dest, usr, cb});
      return 0;
    }
    auto d =
        std::find_if(s->dests.begin(), s->dests.end(), [&](auto &x) { return x.dest == dest; });
    if (d == s->dests.end()) {
      s->dests.push_back({dest, {{usr, cb}}});
    } else {
      auto sl = std::find_if(d->slots.begin(), d->slots.end(), [&](auto &x) { return x.cb == cb; });
      if (sl != d->slots.end())
        sl->usr = usr;
      else
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
        s.acts.push_back({2, code, src, dest, 0, cb});
        disable(s, dest, cb);
      } else {
        disconnect_now(s, dest, cb);
      }
    }
  }

  int emit(int src, unsigned code) {
    ModelSig *s = find(src, code);
    if (s == nullptr) return kNotFound;
    if (s->busy) return 0;
    s->busy = true;
    const int gen = objs[src].gen;
    for (size_t di = 0; di < find(src, code)->dests.size(); ++di) {
      for (size_t si = 0; si < find(src, code)->dests[di].slots.size(); ++si) {
        const Dest &d = find(src, code)->dests[di];
        Slot sl = d.slots[si];
        if (sl.cb == kOff) continue;
        call(sl.cb, src, code, d.dest, sl.usr);
        if (objs[src].gen != gen) return 0;
      }
    }
    s = find(src, code);
    s->busy = false;
    std::vector<Act> acts = std::move(s->acts);
    s->acts.clear();
    int chain = 0;
    for (const Act &a : acts) {
      if (a.action == 1) {
        if (int e = connect(a.src, static_cast<unsigned>(a.code), a.dest, a.cb, a.usr)) chain = e;
      } else if (a.action == 2) {
        disconnect(a.src, a.code, a.dest, a.cb);
      } else {
        remove_signal(a.src, static_cast<unsigned>(a.code));
        if (find(src, code) == nullptr) return chain;
      }
    }
    return 0;
  }

  void remove_signal(int o, unsigned code) {
    ModelSig *s = find(o, code);
    if (s == nullptr) return;
    if (s->busy) {
      s->acts.push_back({3, static_cast<int>(code), o, -1, 0, kAny});
      return;
    }
    if (code == 1) release_peers(o);
    auto &sigs = objs[o].sigs;
    sigs.erase(std::find_if(sigs.begin(), sigs.end(), [&](auto &x) { return x.code == code; }));
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
    if (objs[c].name && objs[p].index.count(*objs[c].name)) return kChildExists;
    objs[p].children.push_back(c);
    if (objs[c].name) objs[p].index[*objs[c].name] = c;
    objs[c].parent = p;
    return 0;
  }

  int remove_by_name(int p, int name) {
    auto it = objs[p].index.find(kNames[name]);
    if (it == objs[p].index.end()) return -1;
    int c = it->second;
    unlink(p, c);
    return c;
  }

  int remove_child(int p, int c) {
    if (std::count(objs[p].children.begin(), objs[p].children.end(), c)) unlink(p, c);
    return c;
  }

  void rename(int o, int name) { objs[o].name = kNames[name]; }

  void destroy(int x) {
    Obj &o = objs[x];
    if (!o.alive || o.cleaning) return;
    o.cleaning = true;
    emit(x, 1);
    objs[x].alive = false;  // the test's cleanup callback
    objs[x].index.clear();
    while (!objs[x].children.empty()) {
      std::vector<int> kids = std::move(objs[x].children);
      objs[x].children.clear();
      for (int c : kids) {
        objs[c].parent = -1;
        destroy(c);
      }
    }
    if (int p = objs[x].parent; p != -1) {
      unlink(p, x);
      objs[x].parent = -1;
    }
    delete_signals(x);
    for (auto &other : objs)
      for (auto &s : other.sigs)
        if (s.busy)
          std::erase_if(s.acts, [&](const Act &a) { return a.action == 1 && a.dest == x; });
    objs[x].cleaning = false;
  }

  std::vector<Sig> signals(int o) {
    std::vector<Sig> out;
    for (auto &s : objs[o].sigs) out.push_back({s.code, s.busy, s.dests, s.acts.size()});
    return out;
  }

 private:
  void call(int cb, int src, unsigned code, int dest, uintptr_t usr);

  void release_peers(int o) {
    std::vector<int> peers;
    for (auto &d : find(o, 1)->dests)
      if (d.dest != o &&
          std::any_of(d.slots.begin(), d.slots.end(), [](auto &s) { return s.cb == kAuto; }))
        peers.push_back(d.dest);
    for (int p : peers) disconnect(p, -1, o, kAny);
  }

  static void disable(ModelSig &s, int dest, int cb) {
    for (auto &d : s.dests) {
      if (dest != -1 && d.dest != dest) continue;
      for (auto &sl : d.slots) {
        if (dest == -1 || cb == kAny) {
          sl.cb = kOff;
        } else if (sl.cb == cb) {
          sl.cb = kOff;
          break;
        }
      }
    }
  }

  static void disconnect_now(ModelSig &s, int dest, int cb) {
    if (dest == -1) {
      s.dests.clear();
      return;
    }
    auto d = std::find_if(s.dests.begin(), s.dests.end(), [&](auto &x) { return x.dest == dest; });
    if (d == s.dests.end()) return;
    if (cb == kAny) {
      s.dests.erase(d);
      return;
    }
    auto sl = std::find_if(d->slots.begin(), d->slots.end(),
                           [&](auto &x) { return x.cb == cb || x.cb == kOff; });
    if (sl != d->slots.end()) d->slots.erase(sl);
  }

  void unlink(int p, int c) {
    std::erase(objs[p].children, c);
    std::erase_if(objs[p].index, [&](auto &kv) { return kv.second == c; });
    if (objs[c].parent == p) objs[c].parent = -1;
  }

  const std::vector<Op> *nested_;
  std::vector<Entry> *log_;
};

// Runs op on a world (the model or the engine); both have the same
// operations over object indexes. Returns the operation's result.
template <class W>
int apply(W &w, const Op &op) {
  auto live = [&](int i) { return w.alive(i); };
  switch (op.kind) {
    case Kind::kCreate:
      return w.count() < kMaxCreated && w.live_count() < kMaxObjects ? w.create(op.name) : -1;
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

inline void Model::call(int cb, int src, unsigned code, int dest, uintptr_t usr) {
  if (cb == kAuto) {
    disconnect(dest, -1, src, kAny);
    return;
  }
  log_->push_back({cb, src, static_cast<int>(code), dest, usr});
  if (depth < kMaxDepth && usr < nested_->size()) {
    ++depth;
    int r = apply(*this, localise((*nested_)[usr], src, static_cast<int>(code), dest));
    --depth;
    log_->push_back({-1, r, 0, 0, 0});
  }
}

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

}  // namespace obj_model

#endif  // VEPRA_TESTS_OBJECT_OBJ_MODEL_HPP
