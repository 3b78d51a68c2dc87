// Process clocks: wall-clock time, processor time and sleeping.
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>

#include "vepra_log.h"

namespace {
// Length of one clock tick in seconds; written by vepra_time_init().
std::atomic<double> g_tick{0.0};
}  // namespace

extern "C" {

int vepra_time_init(void) noexcept {
  long ticks = sysconf(_SC_CLK_TCK);
  g_tick = ticks > 0 ? 1.0 / static_cast<double>(ticks) : 0.0;
  return 0;
}

double vepra_time_real(void) noexcept {
  struct timeval tv;
  if (gettimeofday(&tv, nullptr) != 0) return 0.0;
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

double vepra_time_cpu(void) noexcept {
  struct tms t;
  times(&t);
  return static_cast<double>(t.tms_utime + t.tms_stime) * g_tick.load();
}

void vepra_time_sleep(apr_interval_time_t usec) noexcept { apr_sleep(usec); }

}  // extern "C"
