// Fault-injection schedule for the tests (see testing.hpp).
#include "core/testing.hpp"

namespace vepra::detail {

std::atomic<bool> g_faults_armed{false};

namespace {

// Countdown to the failing call: 0 means no failure is scheduled.
std::atomic<long> g_alloc_countdown{0};
std::atomic<long> g_alloc_count{0};
std::atomic<long> g_pool_countdown{0};
std::atomic<long> g_lock_countdown{0};

bool tick(std::atomic<long> &countdown) noexcept {
  long left = countdown.load(std::memory_order_relaxed);
  while (left > 0) {
    if (countdown.compare_exchange_weak(left, left - 1)) return left == 1;
  }
  return false;
}

void rearm() noexcept {
  g_faults_armed.store(g_alloc_countdown.load() > 0 || g_pool_countdown.load() > 0 ||
                       g_lock_countdown.load() > 0);
}

}  // namespace

bool allocation_should_fail_armed() noexcept {
  g_alloc_count.fetch_add(1, std::memory_order_relaxed);
  return tick(g_alloc_countdown);
}

bool pool_create_should_fail_armed() noexcept { return tick(g_pool_countdown); }

bool lock_should_fail_armed() noexcept { return tick(g_lock_countdown); }

}  // namespace vepra::detail

namespace vepra::testing {

using namespace vepra::detail;

void fail_allocation_at(long n) noexcept {
  g_alloc_count = 0;
  g_alloc_countdown = n > 0 ? n : 0;
  rearm();
}

void fail_pool_create_at(long n) noexcept {
  g_pool_countdown = n > 0 ? n : 0;
  rearm();
}

void fail_lock_at(long n) noexcept {
  g_lock_countdown = n > 0 ? n : 0;
  rearm();
}

long allocation_count() noexcept { return g_alloc_count.load(); }

}  // namespace vepra::testing
