// The SHA-1 compression paths behind vepra_sha1_update(): each hashes whole
// 64-byte blocks into the five-word chaining value. The tests call both.
#ifndef VEPRA_SRC_SYS_SHA1_INTERNAL_HPP
#define VEPRA_SRC_SYS_SHA1_INTERNAL_HPP

#include <cstddef>
#include <cstdint>

namespace vepra::detail {

void sha1_blocks_portable(std::uint32_t state[5], const unsigned char *p, std::size_t blocks) noexcept;

// The SHA instructions; callable only when sha1_shani_available().
bool sha1_shani_available() noexcept;
void sha1_blocks_shani(std::uint32_t state[5], const unsigned char *p, std::size_t blocks) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_SYS_SHA1_INTERNAL_HPP
