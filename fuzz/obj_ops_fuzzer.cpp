// Byte-driven sequences of object operations (connect, disconnect, emit,
// remove and delete signals, children, rename, destroy), with slots that
// run nested operations, carried out on the engine and on the reference
// model of the tests and compared after every step. Everything is
// destroyed at the end, so the sanitizers see every stray pointer and leak.
#include "../tests/object/obj_world.hpp"
#include "fuzz_common.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_fuzz::initialize();
  vepra_fuzz::check(obj_model::run_ops(data, size).empty());
  return 0;
}
