// Append-only log files.
#include <cstdarg>

#include <apr_strings.h>
#include <apr_time.h>

#include "core/error_internal.hpp"
#include "vepra_log.h"

using vepra::detail::apr_error;
using vepra::detail::make_error;
using vepra::detail::wrap_error;

namespace {

constexpr size_t kLogLineSize = 1000;

// A log never fails its caller: a write error is printed on stderr and
// dropped.
void report(vepra_error_t *chain) noexcept {
  vepra_error_clear(vepra_error_handle(chain, vepra_error_stdhandler, nullptr));
}

// A log whose creation failed, or that was terminated, has no file: a
// write to it is reported like any failed write.
bool writable(const vepra_log_t *log) noexcept {
  if (log != nullptr && log->file != nullptr) return true;
  report(wrap_error(make_error(0, "The log file is not open."), "Cannot write to log."));
  return false;
}

void put(vepra_log_t *log, const char *text) noexcept {
  apr_status_t s = apr_file_puts(text, log->file);
  if (s != APR_SUCCESS) report(wrap_error(apr_error(s), "Cannot write to log."));
}

void vprint(vepra_log_t *log, const char *format, va_list ap) noexcept {
  char buf[kLogLineSize];
  if (apr_vsnprintf(buf, sizeof buf, format, ap) > 0) put(log, buf);
}

}  // namespace

extern "C" {

vepra_error_t *vepra_log_create(vepra_log_t **log, const char *filename,
                                apr_pool_t *parent) noexcept {
  if (log == nullptr) return wrap_error(apr_error(APR_EINVAL), "Cannot create log.");
  apr_pool_t *pool = nullptr;
  apr_status_t s = vepra::detail::create_pool(&pool, parent);
  if (s != APR_SUCCESS) return wrap_error(apr_error(s), "Cannot create log.");
  auto *l = static_cast<vepra_log_t *>(vepra::detail::pool_calloc(pool, sizeof(vepra_log_t)));
  if (l == nullptr) {
    apr_pool_destroy(pool);
    return wrap_error(vepra::detail::alloc_error(sizeof(vepra_log_t)), "Cannot create log.");
  }
  l->pool = pool;
  l->filename = apr_pstrdup(pool, filename);
  *log = l;
  // A null file name fails like a file that cannot be opened.
  s = filename == nullptr
          ? APR_EINVAL
          : apr_file_open(&l->file, filename, APR_FOPEN_WRITE | APR_FOPEN_CREATE | APR_FOPEN_APPEND,
                          APR_FPROT_OS_DEFAULT, pool);
  if (s != APR_SUCCESS) {
    l->file = nullptr;
    return wrap_error(
        wrap_error(apr_error(s), "Can't open file '%s'", filename != nullptr ? filename : "(null)"),
        "Cannot create log.");
  }
  return nullptr;
}

void vepra_log_printf(vepra_log_t *log, const char *format, ...) noexcept {
  if (!writable(log)) return;
  va_list ap;
  va_start(ap, format);
  vprint(log, format, ap);
  va_end(ap);
}

void vepra_log_dtprintf(vepra_log_t *log, const char *format, ...) noexcept {
  if (!writable(log)) return;
  char date[APR_CTIME_LEN] = "";
  apr_status_t s = apr_ctime(date, apr_time_now());
  if (s != APR_SUCCESS) report(wrap_error(apr_error(s), "Cannot write to log."));
  vepra_log_printf(log, "%s: ", date);
  va_list ap;
  va_start(ap, format);
  vprint(log, format, ap);
  va_end(ap);
}

int vepra_log_errhandler(const char *line, FILE *log) noexcept {
  vepra_log_printf(reinterpret_cast<vepra_log_t *>(log), "%s\n", line);
  return 0;
}

void vepra_log_terminate(vepra_log_t *log) noexcept {
  if (log == nullptr || log->file == nullptr) return;
  apr_status_t s = apr_file_close(log->file);
  log->file = nullptr;
  if (s != APR_SUCCESS) report(apr_error(s));
}

}  // extern "C"
