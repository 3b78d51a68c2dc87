// Error records and chains, the library lifecycle and the version.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <apr_general.h>
#include <apr_strings.h>
#include <apr_thread_mutex.h>

#include "core/error_internal.hpp"
#include "core/error_state.hpp"
#include "core/testing.hpp"
#include "sys/cpuid.hpp"
#include "vepra_cpu.h"
#include "vepra_error.h"
#include "vepra_log.h"
#include "vepra_str.h"
#include "vepra_util.h"
#include "vepra_version.h"

apr_pool_t *vepra_pool = nullptr;
uint32_t VepraInitialized = 0;
vepra_error_t *VepraDLlistStopWalking = nullptr;

namespace vepra::detail {

ErrorState g_error;

namespace {

constexpr size_t kAprTextSize = 255;
constexpr size_t kBaseNameSize = 4096;

// Depth of the fatal path in this thread: while the fatal chain is being
// built, a pool failure cannot be reported again and gives the static
// out-of-memory record instead.
thread_local int t_fatal_depth = 0;
// Number of fatal chains raised by the pool abort function in this thread,
// so that the caller of a failed pool creation does not report it twice.
thread_local unsigned t_pool_aborts = 0;

constexpr const char *kOutOfMemoryText = "Out of memory: the error could not be recorded.";
vepra_error_t g_out_of_memory = {VEPRA_ERROR_TYPE_MALFUNCTION, 0, kOutOfMemoryText, nullptr, 0,
                                 nullptr, nullptr, nullptr, nullptr};

// What a creating function returns when the malfunction handler returned
// after a fatal chain: the handler's chain, or the static record when the
// handler kept nothing to give back.
vepra_error_t *after_fatal(vepra_error_t *returned) noexcept {
  return returned != nullptr ? returned : &g_out_of_memory;
}

// Abort function of the library's pools: APR calls it when a block cannot
// be had, then returns null from the allocation. The fatal chain goes to
// the malfunction handler; if the handler returns, the allocation fails and
// its caller reports the failure through the static record.
int pool_abort(int status) noexcept {
  ++t_pool_aborts;
  if (t_fatal_depth > 0) return status;
  discard(fatal(status, "Cannot allocate memory in a pool."));
  return status;
}

// What a pool creation that failed with status gives its caller: the fatal
// chain with context goes to the handler, unless the pool's abort function
// already raised one since aborts was read (or the fatal chain itself is
// being built); a returning handler leaves its chain or the static record.
vepra_error_t *pool_failure(apr_status_t status, const char *context, unsigned aborts) noexcept {
  if (t_fatal_depth > 0 || aborts != t_pool_aborts) return &g_out_of_memory;
  return after_fatal(fatal(status, context));
}

struct NewRecord {
  vepra_error_t *record;  // the fresh record, or null on failure
  vepra_error_t *failure; // on failure: the error to hand back instead
};

// The record constructor shared by every creating function: the record
// takes its cause's pool, or a fresh pool under the error pool. The message
// is left to the caller. Wrapping the out-of-memory record returns it.
NewRecord new_record(int type, int code, int line, const char *file,
                     const char *function, vepra_error_t *cause) noexcept {
  if (cause == &g_out_of_memory) return {nullptr, cause};
  apr_pool_t *pool = nullptr;
  if (cause != nullptr) {
    pool = cause->pool;
  } else {
    const unsigned aborts = t_pool_aborts;
    apr_status_t status = pool_create_should_fail() ? APR_ENOMEM
                                                    : create_pool(&pool, g_error.pool);
    if (status != APR_SUCCESS) return {nullptr, pool_failure(status, "Cannot create error.", aborts)};
  }
  auto *rec = static_cast<vepra_error_t *>(pool_calloc(pool, sizeof(vepra_error_t)));
  if (rec == nullptr) {
    // The cause was handed over: it goes with its pool.
    apr_pool_destroy(pool);
    return {nullptr, &g_out_of_memory};
  }
  rec->type = type;
  rec->code = code;
  rec->line = line;
  rec->next = cause;
  rec->pool = pool;
  if (file != nullptr) {
    char base[kBaseNameSize];
    rec->file = apr_pstrdup(pool, vepra_util_basename(file, base, sizeof base));
  }
  if (function != nullptr) rec->function = apr_pstrdup(pool, function);
  return {rec, nullptr};
}

// Gives the record the message made by make(pool). When the record's pool
// could not give the bytes (its abort function ran), the whole chain goes
// and the static record takes its place; a null message for any other
// reason (a format the printf engine refuses) leaves the record without.
template <typename Make>
vepra_error_t *with_message(vepra_error_t *rec, Make &&make) noexcept {
  const unsigned aborts = t_pool_aborts;
  rec->message = make(rec->pool);
  if (aborts == t_pool_aborts) return rec;
  apr_pool_destroy(rec->pool);
  return &g_out_of_memory;
}

vepra_error_t *create_v(int type, int code, int line, const char *file,
                        const char *function, vepra_error_t *cause,
                        const char *format, va_list ap) noexcept {
  NewRecord nr = new_record(type, code, line, file, function, cause);
  if (nr.record == nullptr) return nr.failure;
  if (format == nullptr) return nr.record;
  return with_message(nr.record,
                      [&](apr_pool_t *pool) { return vepra_str_pvsprintf(pool, format, ap); });
}

vepra_error_t *create_text(int type, int code, vepra_error_t *cause,
                           const char *message) noexcept {
  return vepra_error_create_i(type, code, 0, nullptr, nullptr, cause, message);
}

const char *apr_text(apr_status_t status, char (&buf)[kAprTextSize]) noexcept {
  return apr_strerror(status, buf, sizeof buf);
}

}  // namespace

vepra_error_t *fatal(apr_status_t status, const char *context) noexcept {
  // The chain needs pools too; when none are to be had any more, its
  // records become the static out-of-memory record, which still reaches
  // the handler.
  ++t_fatal_depth;
  char buf[kAprTextSize];
  vepra_error_t *r1 = create_text(0, 0, nullptr, apr_text(status, buf));
  vepra_error_t *r2 = create_text(r1->type, r1->code, r1, context);
  vepra_error_t *r3 = create_text(2, 0, r2, "Impossible to continue. Aborting...");
  --t_fatal_depth;
  return vepra_error_malfunction(r3);
}

apr_pool_t *error_pool() noexcept { return g_error.pool; }

vepra_error_t *alloc_error(size_t bytes) noexcept {
  return make_error(VEPRA_E_ALLOC, "Failed to allocate %zu bytes of memory.", bytes);
}

vepra_error_t *out_of_memory() noexcept { return &g_out_of_memory; }

void discard(vepra_error_t *chain) noexcept { vepra_error_clear(chain); }

apr_status_t create_pool(apr_pool_t **pool, apr_pool_t *parent) noexcept {
  return apr_pool_create_ex(pool, parent, pool_abort, nullptr);
}

void *pool_calloc(apr_pool_t *pool, size_t size) noexcept {
  void *p = apr_palloc(pool, size);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

vepra_error_t *make_error(int code) noexcept {
  return create_text(0, code, nullptr, nullptr);
}

vepra_error_t *make_error(int code, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vepra_error_t *e = create_v(0, code, 0, nullptr, nullptr, nullptr, format, ap);
  va_end(ap);
  return e;
}

vepra_error_t *wrap_error(vepra_error_t *cause, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vepra_error_t *e =
      create_v(cause->type, cause->code, 0, nullptr, nullptr, cause, format, ap);
  va_end(ap);
  return e;
}

vepra_error_t *make_wrapped(int code, const char *context, const char *format,
                            ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vepra_error_t *inner = create_v(0, code, 0, nullptr, nullptr, nullptr, format, ap);
  va_end(ap);
  return vepra_error_quick_wrap_i(0, nullptr, nullptr, inner, context);
}

vepra_error_t *apr_error(apr_status_t status) noexcept {
  return vepra_error_aprwrap_i(status, 0, nullptr, nullptr);
}

vepra_error_t *apr_wrapped(apr_status_t status, const char *context) noexcept {
  return vepra_error_quick_wrap_i(0, nullptr, nullptr, apr_error(status), context);
}

}  // namespace vepra::detail

using vepra::detail::g_error;

extern "C" {

int vepra_version_major(void) noexcept { return VEPRA_VERSION_MAJOR; }
int vepra_version_minor(void) noexcept { return VEPRA_VERSION_MINOR; }
int vepra_version_patch(void) noexcept { return VEPRA_VERSION_PATCH; }
const char *vepra_version_string(void) noexcept { return VEPRA_VERSION_STRING; }

int vepra_initialize(void) noexcept {
  uint32_t previous = VepraInitialized;
  VepraInitialized = previous + 1;
  if (previous != 0) return 0;
  if (apr_initialize() != APR_SUCCESS) return 1;
  if (vepra::detail::create_pool(&vepra_pool, nullptr) != APR_SUCCESS) return 2;
  apr_pool_tag(vepra_pool, "vepra");
  if (vepra_error_initialize(vepra_pool) != 0) return 3;
  vepra_time_init();
  os_sse = vepra::detail::os_saved_state();
  return 0;
}

void vepra_terminate(void) noexcept {
  if (--VepraInitialized != 0) return;
  vepra_error_terminate();
  apr_pool_destroy(vepra_pool);
  vepra_pool = nullptr;
  apr_terminate();
}

int vepra_error_initialize(apr_pool_t *parent) noexcept {
  if (vepra::detail::create_pool(&g_error.pool, parent) != APR_SUCCESS) return 2;
  apr_pool_tag(g_error.pool, "vepra_error");
  g_error.registry = apr_array_make(g_error.pool, 0, sizeof(const char *));
  if (apr_thread_mutex_create(&g_error.mutex, APR_THREAD_MUTEX_DEFAULT,
                              g_error.pool) != APR_SUCCESS) {
    return 4;
  }
  VepraDLlistStopWalking = vepra::detail::create_text(0, 0, nullptr, "VepraDLlistStopWalking");
  return 0;
}

void vepra_error_terminate(void) noexcept {
  apr_status_t status = apr_thread_mutex_destroy(g_error.mutex);
  if (status != APR_SUCCESS) {
    vepra::detail::fatal(status, "Cannot correctly terminate Vepra error system.");
  }
  apr_pool_destroy(g_error.pool);
  g_error.pool = nullptr;
  g_error.mutex = nullptr;
  VepraDLlistStopWalking = nullptr;
}

vepra_error_t *vepra_error_create_i(int type, int code, int line, const char *file,
                                    const char *function, vepra_error_t *cause,
                                    const char *message) noexcept {
  vepra::detail::NewRecord nr =
      vepra::detail::new_record(type, code, line, file, function, cause);
  if (nr.record == nullptr) return nr.failure;
  if (message == nullptr) return nr.record;
  return vepra::detail::with_message(
      nr.record, [&](apr_pool_t *pool) { return apr_pstrdup(pool, message); });
}

vepra_error_t *vepra_error_createf_i(int type, int code, int line, const char *file,
                                     const char *function, vepra_error_t *cause,
                                     const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vepra_error_t *e =
      vepra::detail::create_v(type, code, line, file, function, cause, format, ap);
  va_end(ap);
  return e;
}

vepra_error_t *vepra_error_aprwrap_i(apr_status_t status, int line, const char *file,
                                     const char *function) noexcept {
  char buf[vepra::detail::kAprTextSize];
  return vepra_error_create_i(0, 0, line, file, function, nullptr,
                              vepra::detail::apr_text(status, buf));
}

vepra_error_t *vepra_error_aprwrapf_i(apr_status_t status, int line, const char *file,
                                      const char *function, const char *format,
                                      ...) noexcept {
  vepra::detail::NewRecord nr =
      vepra::detail::new_record(0, 0, line, file, function, nullptr);
  if (nr.record == nullptr) return nr.failure;
  if (format == nullptr) return nr.record;
  va_list ap;
  va_start(ap, format);
  char buf[vepra::detail::kAprTextSize];
  vepra_error_t *e = vepra::detail::with_message(nr.record, [&](apr_pool_t *pool) {
    const char *text = vepra_str_pvsprintf(pool, format, ap);
    return vepra_str_psprintf(pool, "%s%s%s", text ? text : "", ": ",
                              vepra::detail::apr_text(status, buf));
  });
  va_end(ap);
  return e;
}

vepra_error_t *vepra_error_quick_wrap_i(int line, const char *file, const char *function,
                                        vepra_error_t *cause,
                                        const char *message) noexcept {
  return vepra_error_create_i(cause->type, cause->code, line, file, function, cause,
                              message);
}

vepra_error_t *vepra_error_root_cause(vepra_error_t *chain) noexcept {
  if (chain == nullptr) return nullptr;
  while (chain->next != nullptr) chain = chain->next;
  return chain;
}

void vepra_error_compose(vepra_error_t *dest, vepra_error_t *source) noexcept {
  using vepra::detail::out_of_memory;
  if (source == nullptr) return;
  // A source sharing the destination's pool is a part of it: appending it
  // would loop, and destroying its pool would free the destination.
  if (dest == out_of_memory()) {
    vepra_error_clear(source);  // nothing is appended to the static record
    return;
  }
  if (source != out_of_memory() && source->pool == dest->pool) return;
  apr_pool_t *pool = dest->pool;
  vepra_error_t *last = vepra_error_root_cause(dest);
  for (const vepra_error_t *r = source; r != nullptr; r = r->next) {
    auto *copy = static_cast<vepra_error_t *>(apr_palloc(pool, sizeof(vepra_error_t)));
    if (copy == nullptr) break;  // reported by the pool's abort function
    *copy = *r;
    copy->next = nullptr;
    if (r->message != nullptr) copy->message = apr_pstrdup(pool, r->message);
    if (r->file != nullptr) copy->file = apr_pstrdup(pool, r->file);
    if (r->function != nullptr) copy->function = apr_pstrdup(pool, r->function);
    copy->pool = pool;
    last->next = copy;
    last = copy;
  }
  vepra_error_clear(source);
}

vepra_error_t *vepra_error_compose_create(vepra_error_t *first,
                                          vepra_error_t *second) noexcept {
  if (first == nullptr) return second;
  if (second == nullptr) return first;
  if (first != vepra::detail::out_of_memory() && second != vepra::detail::out_of_memory() &&
      first->pool == second->pool) {
    // The two share records (one is the other, or a part of it): refuse
    // rather than build a loop. The refusal heads the chain, which holds
    // both, so clearing it frees everything.
    return vepra_error_create_i(0, 0, 0, nullptr, nullptr, first,
                                "Cannot compose an error chain with one of its own records.");
  }
  vepra_error_compose(first, second);
  return first;
}

vepra_error_t *vepra_error_dup(const vepra_error_t *chain) noexcept {
  apr_pool_t *pool = nullptr;
  const unsigned aborts = vepra::detail::t_pool_aborts;
  apr_status_t status = vepra::detail::pool_create_should_fail()
                            ? APR_ENOMEM
                            : vepra::detail::create_pool(&pool, g_error.pool);
  if (status != APR_SUCCESS) {
    return vepra::detail::pool_failure(status, "Cannot duplicate error.", aborts);
  }
  if (chain == nullptr) return nullptr;
  vepra_error_t *head = nullptr;
  vepra_error_t **link = &head;
  for (const vepra_error_t *r = chain; r != nullptr; r = r->next) {
    auto *copy = static_cast<vepra_error_t *>(apr_palloc(pool, sizeof(vepra_error_t)));
    if (copy == nullptr) {
      apr_pool_destroy(pool);
      return vepra::detail::out_of_memory();
    }
    *copy = *r;
    copy->pool = pool;
    if (r->message != nullptr) copy->message = apr_pstrdup(pool, r->message);
    *link = copy;
    link = &copy->next;
  }
  return head;
}

void vepra_error_clear(vepra_error_t *chain) noexcept {
  if (chain != nullptr && chain != vepra::detail::out_of_memory()) apr_pool_destroy(chain->pool);
}

void vepra_error_walk(vepra_error_t *chain, vepra_error_walk_fn callback,
                      void *user) noexcept {
  for (vepra_error_t *r = chain; r != nullptr; r = r->next) {
    callback(r->code, r->message, r->file, r->line, r->function, user);
  }
}

// The static out-of-memory record is shared and stays as it is.
void vepra_error_set_type(vepra_error_t *record, int type) noexcept {
  if (record != vepra::detail::out_of_memory()) record->type = type;
}

void vepra_error_set_type_all(vepra_error_t *chain, int type) noexcept {
  if (chain == vepra::detail::out_of_memory()) return;
  for (vepra_error_t *r = chain; r != nullptr; r = r->next) r->type = type;
}

void vepra_error_set_data(vepra_error_t *record, void *data) noexcept {
  if (record != nullptr && record != vepra::detail::out_of_memory()) record->data = data;
}

void *vepra_error_get_data(const vepra_error_t *record) noexcept {
  return record != nullptr ? record->data : nullptr;
}

void *vepra_error_get_data_first(const vepra_error_t *chain) noexcept {
  for (const vepra_error_t *r = chain; r != nullptr; r = r->next) {
    if (r->data != nullptr) return r->data;
  }
  return nullptr;
}

}  // extern "C"
