// Helpers of the container tests: small integers carried as data pointers,
// a recording walk callback and a callback's own error record.
#ifndef VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP
#define VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP

#include <cstdint>
#include <vector>

#include "vepra_error.h"

namespace vepra_test {

inline void *id(int k) { return reinterpret_cast<void *>(static_cast<uintptr_t>(k)); }
inline int id_of(const void *p) { return static_cast<int>(reinterpret_cast<uintptr_t>(p)); }

// Visit callback appending the id it sees to a std::vector<int> user.
inline void record(uint32_t, void *data, void *user) {
  static_cast<std::vector<int> *>(user)->push_back(id_of(data));
}

// A caller's error without source location, as a callback would return.
inline vepra_error_t *user_error(int code, const char *message) {
  return vepra_error_create_i(0, code, 0, nullptr, nullptr, nullptr, message);
}

}  // namespace vepra_test

#endif  // VEPRA_TESTS_CONTAINERS_CONTAINER_IDS_HPP
