/**
 * @file vepra_cpu.h
 * @brief Processor detection through the cpuid instruction: identity,
 *        features, caches, nominal frequency and topology, with affinity
 *        masks for pinning one thread per package or core.
 *
 * On processors without cpuid (anything but x86-64) every vepra_cpu_*
 * function returns an error of code 120170. Results go into records the
 * caller owns or into a pool the caller gives.
 */
#ifndef VEPRA_CPU_H
#define VEPRA_CPU_H

#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** @name Feature bits of vepra_cpu_info_t::features and ::usable */
/** @{ */
#define VEPRA_CPU_SSE (UINT64_C(1) << 0)
#define VEPRA_CPU_SSE2 (UINT64_C(1) << 1)
#define VEPRA_CPU_SSE3 (UINT64_C(1) << 2)
#define VEPRA_CPU_SSSE3 (UINT64_C(1) << 3)
#define VEPRA_CPU_SSE4_1 (UINT64_C(1) << 4)
#define VEPRA_CPU_SSE4_2 (UINT64_C(1) << 5)
#define VEPRA_CPU_POPCNT (UINT64_C(1) << 6)
#define VEPRA_CPU_AVX (UINT64_C(1) << 7)
#define VEPRA_CPU_AVX2 (UINT64_C(1) << 8)
#define VEPRA_CPU_FMA (UINT64_C(1) << 9)
#define VEPRA_CPU_BMI1 (UINT64_C(1) << 10)
#define VEPRA_CPU_BMI2 (UINT64_C(1) << 11)
#define VEPRA_CPU_F16C (UINT64_C(1) << 12)
#define VEPRA_CPU_AVX512F (UINT64_C(1) << 13)
#define VEPRA_CPU_AVX512DQ (UINT64_C(1) << 14)
#define VEPRA_CPU_AVX512CD (UINT64_C(1) << 15)
#define VEPRA_CPU_AVX512BW (UINT64_C(1) << 16)
#define VEPRA_CPU_AVX512VL (UINT64_C(1) << 17)
#define VEPRA_CPU_PCLMULQDQ (UINT64_C(1) << 18)
#define VEPRA_CPU_VPCLMULQDQ (UINT64_C(1) << 19)
#define VEPRA_CPU_SHA (UINT64_C(1) << 20)
#define VEPRA_CPU_AES (UINT64_C(1) << 21)
#define VEPRA_CPU_VAES (UINT64_C(1) << 22)
#define VEPRA_CPU_GFNI (UINT64_C(1) << 23)
#define VEPRA_CPU_MOVBE (UINT64_C(1) << 24)
#define VEPRA_CPU_RDRAND (UINT64_C(1) << 25)
/** Number of feature bits defined above. */
#define VEPRA_CPU_FEATURE_COUNT 26
/** @} */

/** Bits of os_sse: register state the operating system saves. */
enum vepra_cpu_os_state {
  VEPRA_CPU_OS_SSE = 1,    /**< SSE state is usable */
  VEPRA_CPU_OS_AVX = 2,    /**< AVX state saved (OSXSAVE, XCR0 bits 1-2) */
  VEPRA_CPU_OS_AVX512 = 4  /**< AVX-512 state saved (XCR0 bits 5-7) */
};

/** Register state the operating system saves, as vepra_cpu_os_state bits;
 *  set by the first vepra_initialize(), 0 before and where there is no
 *  cpuid. The library's accelerated paths run only where these allow. */
VEPRA_API extern uint32_t os_sse;

/** Cache kinds (the encoding of cpuid leaf 4). */
enum vepra_cpu_cache_kind {
  VEPRA_CPU_CACHE_DATA = 1,
  VEPRA_CPU_CACHE_INSTRUCTION = 2,
  VEPRA_CPU_CACHE_UNIFIED = 3
};

/** One cache of the hierarchy. */
typedef struct vepra_cpu_cache_t {
  uint32_t level;     /**< 1, 2, 3 ... */
  uint32_t kind;      /**< vepra_cpu_cache_kind */
  uint64_t size;      /**< bytes */
  uint32_t line_size; /**< bytes */
  uint32_t ways;      /**< associativity; for a fully associative cache,
                           the number of lines */
  uint32_t sets;      /**< number of sets */
  uint32_t shared_by; /**< most logical processors that share it */
} vepra_cpu_cache_t;

/** Most caches that vepra_cpu_identify() reports. */
#define VEPRA_CPU_MAX_CACHES 16

/** What the processor says about itself. */
typedef struct vepra_cpu_info_t {
  char vendor[13];            /**< e.g. "GenuineIntel", "AuthenticAMD" */
  char brand[49];             /**< brand string, leading blanks removed;
                                   empty when not reported */
  char hypervisor_vendor[13]; /**< hypervisor's signature, or empty */
  int hypervisor;             /**< 1 when running under a hypervisor */
  uint32_t family;            /**< display family */
  uint32_t model;             /**< display model */
  uint32_t stepping;          /**< stepping (revision) */
  uint32_t max_leaf;          /**< largest standard leaf */
  uint32_t max_ext_leaf;      /**< largest extended leaf (0x8000xxxx) */
  uint64_t features;          /**< VEPRA_CPU_* bits the processor reports */
  uint64_t usable;            /**< of those, the bits the library's own
                                   accelerated paths may use here: the
                                   operating system saves their state */
  uint32_t frequency_mhz;     /**< nominal frequency, 0 when unknown */
  uint32_t cache_count;       /**< entries of caches in use */
  vepra_cpu_cache_t caches[VEPRA_CPU_MAX_CACHES]; /**< in cpuid order */
} vepra_cpu_info_t;

/** Fills *info (caller-owned) from the processor the calling thread runs
 *  on. Caches come from leaf 4 (AMD: leaf 0x8000001D) and are left out
 *  where the processor does not offer those leaves.
 *  Errors: 120170 without cpuid; 120172 when leaf 1 is not offered;
 *  120020 for a null info.
 *  @param[out] info record to fill; zeroed first
 *  @return null on success, or the error chain (codes 120170, 120172,
 *          120020) */
VEPRA_API vepra_error_t *vepra_cpu_identify(vepra_cpu_info_t *info) VEPRA_NOTHROW;

/** How the topology was read. */
enum vepra_cpu_topology_method {
  VEPRA_CPU_TOPOLOGY_LEAF_1F = 1,
  VEPRA_CPU_TOPOLOGY_LEAF_B = 2,
  VEPRA_CPU_TOPOLOGY_LEGACY = 3 /**< leaf 1 with leaf 4 or 0x80000008 */
};

/** One logical processor that the process may run on. */
typedef struct vepra_cpu_logical_t {
  uint32_t os_index; /**< the operating system's processor number, as
                          sched_setaffinity counts */
  uint32_t apic_id;  /**< x2APIC id (legacy method: initial APIC id) */
  uint32_t package;  /**< package number, from the APIC id */
  uint32_t core;     /**< core number within its package */
  uint32_t thread;   /**< thread number within its core */
} vepra_cpu_logical_t;

/** The processors the process may run on and how they are grouped. */
typedef struct vepra_cpu_topology_t {
  uint32_t method;            /**< vepra_cpu_topology_method */
  uint32_t packages;          /**< distinct packages */
  uint32_t cores_per_package; /**< most cores seen in one package */
  uint32_t threads_per_core;  /**< most threads seen in one core */
  uint32_t count;             /**< entries of processors */
  vepra_cpu_logical_t *processors; /**< by increasing os_index */
} vepra_cpu_topology_t;

/** Reads the topology of the processors in the calling thread's affinity
 *  mask into *topology, allocated in pool. The thread binds itself to each
 *  processor in turn and always restores its original affinity.
 *  Errors: 120170 without cpuid; 120171 when no method gives the thread
 *  level; 120172 when leaf 1 is not offered; 120173 when the affinity mask
 *  cannot be read or restored; 120174 when binding to a processor fails;
 *  120175 when the processors' ids contradict each other; 120012 when
 *  memory runs out; 120020 for a null argument.
 *  @param[out] topology receives the topology, in pool; null on failure
 *  @param pool pool for the topology and its processor array
 *  @return null on success, or the error chain (codes 120170 to 120175,
 *          120012, 120020) */
VEPRA_API vepra_error_t *vepra_cpu_topology(vepra_cpu_topology_t **topology,
                                            apr_pool_t *pool) VEPRA_NOTHROW;

/** Writes into mask (mask_size bytes, the form sched_setaffinity and
 *  CPU_SET_S take: pass a cpu_set_t and its size) the processors of
 *  package. Errors: 120170 without cpuid; 120173 when the package has no
 *  processor or one does not fit the mask; 120020 for a null argument.
 *  @param topology from vepra_cpu_topology()
 *  @param package package number, as in vepra_cpu_logical_t::package
 *  @param[out] mask the affinity mask; cleared, then the package's
 *         processors set
 *  @param mask_size bytes of mask
 *  @return null on success, or the error chain (codes 120170, 120173,
 *          120020) */
VEPRA_API vepra_error_t *vepra_cpu_package_mask(const vepra_cpu_topology_t *topology,
                                                uint32_t package, void *mask,
                                                size_t mask_size) VEPRA_NOTHROW;

/** As vepra_cpu_package_mask() for the threads of one core of package.
 *  @param topology from vepra_cpu_topology()
 *  @param package package number, as in vepra_cpu_logical_t::package
 *  @param core core number within package, as in vepra_cpu_logical_t::core
 *  @param[out] mask the affinity mask; cleared, then the core's threads set
 *  @param mask_size bytes of mask
 *  @return null on success, or the error chain (codes 120170, 120173,
 *          120020) */
VEPRA_API vepra_error_t *vepra_cpu_core_mask(const vepra_cpu_topology_t *topology,
                                             uint32_t package, uint32_t core,
                                             void *mask, size_t mask_size) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_CPU_H */
