// Fault injection for the tests. The hooks live in the library's objects so
// that the internal static library used by the tests can reach them; the
// shared library does not export them. With every hook at 0 the library
// behaves exactly as without them.
#ifndef VEPRA_SRC_CORE_TESTING_HPP
#define VEPRA_SRC_CORE_TESTING_HPP

namespace vepra::testing {

// Makes the n-th checked allocation from now on (vepra_mem_malloc, calloc,
// realloc and the vector and matrix allocators) fail as if the system
// allocator had returned null; 0 switches failures off. Only that one
// allocation fails.
void fail_allocation_at(long n) noexcept;

// Makes the n-th creation of an error chain's pool from now on fail with
// APR_ENOMEM; 0 switches it off.
void fail_pool_create_at(long n) noexcept;

// Counts the checked allocations since the last fail_allocation_at() call.
long allocation_count() noexcept;

}  // namespace vepra::testing

namespace vepra::detail {

// True when the injected failure schedule says the current checked
// allocation must fail. Called once for each checked allocation.
bool allocation_should_fail() noexcept;

// Same for the creation of an error pool.
bool pool_create_should_fail() noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_CORE_TESTING_HPP
