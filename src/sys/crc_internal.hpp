// The CRC engines behind vepra_util_crc16() and vepra_util_crc32(), one
// function per code path. Each works on the raw reflected register (no
// inversion at either end) and returns the register after the bytes, so all
// paths of one CRC give bit-identical results. The public functions pick
// the fastest path that may run; the tests call every path directly.
#ifndef VEPRA_SRC_SYS_CRC_INTERNAL_HPP
#define VEPRA_SRC_SYS_CRC_INTERNAL_HPP

#include <cstddef>
#include <cstdint>

namespace vepra::detail {

// One table lookup a byte: the reference every other path must match.
std::uint32_t crc32_bytewise(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept;
std::uint16_t crc16_bytewise(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept;

// Eight bytes a step through eight tables: the portable path.
std::uint32_t crc32_slice8(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept;
std::uint16_t crc16_slice8(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept;

// Carry-less multiplication folding over 128-bit registers (PCLMULQDQ) and
// over 512-bit registers (VPCLMULQDQ with AVX-512). Callable only when
// crc_clmul_available() / crc_vclmul_available() say so.
bool crc_clmul_available() noexcept;
bool crc_vclmul_available() noexcept;
std::uint32_t crc32_clmul(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept;
std::uint16_t crc16_clmul(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept;
std::uint32_t crc32_vclmul(std::uint32_t reg, const unsigned char *p, std::size_t n) noexcept;
std::uint16_t crc16_vclmul(std::uint16_t reg, const unsigned char *p, std::size_t n) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_SYS_CRC_INTERNAL_HPP
