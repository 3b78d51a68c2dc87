// Fault injection for the tests. The hooks live in the library's objects so
// that the internal static library used by the tests can reach them; the
// shared library does not export them. While no failure is armed, a checked
// allocation pays one relaxed load of a flag and nothing else: no shared
// counter is written, so threads never contend on it.
#ifndef VEPRA_SRC_CORE_TESTING_HPP
#define VEPRA_SRC_CORE_TESTING_HPP

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace vepra::testing {

// Makes the n-th checked allocation from now on (vepra_mem_malloc, calloc,
// realloc and the vector and matrix allocators) fail as if the system
// allocator had returned null; 0 switches failures off. Only that one
// allocation fails.
void fail_allocation_at(long n) noexcept;

// Makes the n-th creation of an error chain's pool from now on fail with
// APR_ENOMEM; 0 switches it off.
void fail_pool_create_at(long n) noexcept;

// Makes the n-th lock of the error mutex from now on fail with APR_EINVAL;
// 0 switches it off.
void fail_lock_at(long n) noexcept;

// Counts the checked allocations since the last fail_allocation_at() call
// (counted only while some failure is armed).
long allocation_count() noexcept;

}  // namespace vepra::testing

namespace vepra::detail {

// Set while any failure above is armed.
extern std::atomic<bool> g_faults_armed;

bool allocation_should_fail_armed() noexcept;
bool pool_create_should_fail_armed() noexcept;
bool lock_should_fail_armed() noexcept;

// True when the injected failure schedule says the current checked
// allocation must fail. Called once for each checked allocation.
inline bool allocation_should_fail() noexcept {
  return __builtin_expect(g_faults_armed.load(std::memory_order_relaxed), false) &&
         allocation_should_fail_armed();
}

// The system allocator behind every checked allocation, failing where the
// schedule says so.
inline void *checked_malloc(size_t size) noexcept {
  return allocation_should_fail() ? nullptr : std::malloc(size);
}
inline void *checked_calloc(size_t count, size_t size) noexcept {
  return allocation_should_fail() ? nullptr : std::calloc(count, size);
}
inline void *checked_realloc(void *p, size_t size) noexcept {
  return allocation_should_fail() ? nullptr : std::realloc(p, size);
}

// Same for the creation of an error pool.
inline bool pool_create_should_fail() noexcept {
  return __builtin_expect(g_faults_armed.load(std::memory_order_relaxed), false) &&
         pool_create_should_fail_armed();
}

// Same for locking the error mutex.
inline bool lock_should_fail() noexcept {
  return __builtin_expect(g_faults_armed.load(std::memory_order_relaxed), false) &&
         lock_should_fail_armed();
}

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CORE_TESTING_HPP
