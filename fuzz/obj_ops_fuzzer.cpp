// Byte-driven object operations, slots running nested ones, on the engine
// and the tests' reference model, compared after every step (see run_ops);
// everything is destroyed at the end, so the sanitizers see every leak.
#include "../tests/object/obj_world.hpp"
#include "fuzz_common.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_fuzz::initialize();
  vepra_fuzz::check(obj_model::run_ops(data, size).empty());
  return 0;
}
