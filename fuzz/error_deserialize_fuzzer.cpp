// Feeds arbitrary bytes to the error-chain reader. Whatever chain comes back
// must be whole: it is checksummed, written again and read again, and the
// second reading must give the same checksum.
#include <cstdint>
#include <cstdlib>

#include "vepra_error.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (vepra_initialize() != 0) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vepra_error_t *chain = nullptr;
  if (vepra_error_deserialize(&chain, data, size) != &chain) std::abort();
  if (chain == nullptr) return 0;
  void *image = nullptr;
  size_t length = 0;
  vepra_error_serialize(chain, &image, &length);
  vepra_error_t *again = nullptr;
  vepra_error_deserialize(&again, image, length);
  if (again == nullptr || vepra_error_crc16(again) != vepra_error_crc16(chain)) std::abort();
  std::free(image);
  vepra_error_clear(again);
  vepra_error_clear(chain);
  return 0;
}
