// The readable operating-system name with the version files given
// explicitly, so that tests can feed it property lists of their own, and
// the family of a system name.
#ifndef VEPRA_SRC_SYS_MACH_INTERNAL_HPP
#define VEPRA_SRC_SYS_MACH_INTERNAL_HPP

#include <span>
#include <string_view>

namespace vepra::detail {

// vepra_mach_os_name() reading the first of paths that opens instead of
// the system's version files.
char *mach_os_name_from(char *buf, int size, std::span<const char *const> paths) noexcept;

// The family code of a uname system name (whole-name comparison).
int mach_os_family(std::string_view sysname) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_SYS_MACH_INTERNAL_HPP
