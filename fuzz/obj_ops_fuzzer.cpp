// Byte-driven sequences of object operations (connect, disconnect, emit,
// remove and delete signals, children, rename, destroy), with slots that
// run nested operations, carried out on the engine and on the reference
// model of the tests and compared after every step. Everything is
// destroyed at the end, so the sanitizers see every stray pointer and leak.
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "../tests/object/obj_world.hpp"
#include "fuzz_bytes.hpp"

namespace {

using namespace obj_model;

using vepra_fuzz::Bytes;
using vepra_fuzz::check;

constexpr Kind kTopKinds[] = {
    Kind::kCreate, Kind::kAddSignal, Kind::kConnect,  Kind::kConnect,       Kind::kDisconnect,
    Kind::kEmit,   Kind::kEmit,      Kind::kRemove,   Kind::kDeleteSignals, Kind::kAddChild,
    Kind::kRemoveByName, Kind::kRemoveChild, Kind::kRename, Kind::kDestroy};
constexpr Kind kNestedKinds[] = {Kind::kConnect, Kind::kDisconnect, Kind::kEmit,
                                 Kind::kRemove,  Kind::kAddSignal,  Kind::kAddChild,
                                 Kind::kDestroy, Kind::kDeleteSignals};

// Eight bytes make one operation on objects of the given list.
Op decode(Bytes &in, const std::vector<int> &objects, bool nested) {
  unsigned b[8];
  for (unsigned &v : b) v = in.next();
  auto object = [&](unsigned v) {
    return objects.empty() ? 0 : objects[v % objects.size()];
  };
  Op op;
  op.kind = nested ? kNestedKinds[b[0] % std::size(kNestedKinds)]
                   : kTopKinds[b[0] % std::size(kTopKinds)];
  op.x = object(b[1]);
  op.y = b[2] % 5 == 0 && op.kind == Kind::kDisconnect ? -1 : object(b[2]);
  op.code = op.kind == Kind::kDisconnect && b[3] % 4 == 0 ? -1 : 1 + static_cast<int>(b[3] % 4);
  op.cb = op.kind == Kind::kDisconnect && b[4] % 4 == 3 ? kAny : static_cast<int>(b[4] % 3);
  op.usr = b[5] % 16;
  op.name = b[6] % 4 == 3 && op.kind == Kind::kCreate ? -1 : static_cast<int>(b[6] % 3);
  op.here = nested && (b[7] & 1) != 0;
  op.to_dest = nested && (b[7] & 2) != 0;
  return op;
}

template <class A, class B>
void compare(A &real, B &model) {
  check(real.count() == model.count());
  for (int i = 0; i < model.count(); ++i) {
    check(real.alive(i) == model.alive(i));
    if (!model.alive(i)) continue;
    check(real.signals(i) == model.signals(i));
    check(real.children(i) == model.objs[i].children);
    check(real.index_of(real.obj(i)->parent) == model.objs[i].parent);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = vepra_initialize() == 0;
  check(ready);
  Bytes in{data, size};
  std::vector<Op> nested;
  const std::vector<int> first{0, 1, 2, 3, 4, 5};
  for (int i = 0; i < 8; ++i) nested.push_back(decode(in, first, true));
  std::vector<Entry> real_log, model_log;
  {
    Real real(&nested, &real_log);
    Model model(&nested, &model_log);
    for (int i = 0; i < 3; ++i) {
      const Op op{Kind::kCreate, 0, -1, 1, 0, 0, i};
      check(apply(real, op) == apply(model, op));
    }
    for (int step = 0; step < 256 && in.more(); ++step) {
      const Op op = decode(in, model.live(), false);
      check(apply(real, op) == apply(model, op));
      check(real_log == model_log);
      compare(real, model);
    }
  }
  return 0;
}
