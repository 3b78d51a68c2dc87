/**
 * @file vepra_mach.h
 * @brief Machine and operating-system information: family, processors,
 *        a readable name with version, physical memory, process id.
 *
 * None of these functions fails: each falls back to a fixed value.
 */
#ifndef VEPRA_MACH_H
#define VEPRA_MACH_H

#include <stdint.h>
#include <sys/types.h>

#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** Operating-system family codes of vepra_mach_os(); fixed values, not
 *  consecutive. */
enum vepra_mach_os_family {
  VEPRA_MACH_OS_OTHER = 4,
  VEPRA_MACH_OS_LINUX = 12,
  VEPRA_MACH_OS_DARWIN = 20,
  VEPRA_MACH_OS_FREEBSD = 100
};

/** The family of uname's system name: 12 for exactly "Linux", 20 for
 *  "Darwin", 100 for "FreeBSD", 4 for anything else or when uname fails.
 *  @return a vepra_mach_os_family value */
VEPRA_API int vepra_mach_os(void) VEPRA_NOTHROW;
/** Configured processors (sysconf _SC_NPROCESSORS_CONF); 1 when unknown.
 *  @return number of configured processors, or 1 */
VEPRA_API uint32_t vepra_mach_os_cpu_num(void) VEPRA_NOTHROW;
/** Fills buf (size bytes, always terminated when size > 0) with a readable
 *  operating-system name: the product version from the system's version
 *  file when there is one, then uname's system name, release and machine.
 *  Returns buf; the caller owns it.
 *  @param[out] buf caller's buffer; null leaves nothing written
 *  @param size bytes of buf; 0 or less leaves buf untouched
 *  @return buf, unchanged (also when null) */
VEPRA_API char *vepra_mach_os_name(char *buf, int size) VEPRA_NOTHROW;
/** Physical memory in mebibytes; 0.0 when unknown.
 *  @return installed memory in MiB (2^20 bytes), or 0.0 */
VEPRA_API double vepra_mach_physmem(void) VEPRA_NOTHROW;
/** The process id.
 *  @return getpid() of the calling process */
VEPRA_API pid_t vepra_getpid(void) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_MACH_H */
