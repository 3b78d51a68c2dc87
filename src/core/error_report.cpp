// Error types: the built-in message table, the registry of run-time types,
// printing chains, and the malfunction handler.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "core/error_state.hpp"
#include "vepra_error.h"
#include "vepra_str.h"

namespace vepra::detail {
namespace {

// Message of every built-in code, indexed by code - 120001; null where the
// code has no text.
struct CodeTable {
  static constexpr int kFirst = VEPRA_E_FIRST_BUILTIN;
  static constexpr int kLast = VEPRA_E_LAST_BUILTIN;
  const char *text[kLast - kFirst + 1] = {};
  constexpr CodeTable() {
#define VEPRA_CODE_TEXT_(name, code, message) text[(code) - kFirst] = message;
    VEPRA_ERROR_CODE_MAP(VEPRA_CODE_TEXT_)
#undef VEPRA_CODE_TEXT_
  }
};
constexpr CodeTable kCodes;

constexpr const char *kLabels[] = {"Error", "Warning", "Malfunction", "Assert"};
constexpr size_t kLineSize = 5096;
constexpr size_t kMessageSize = 4106;
constexpr int kTypePlain = VEPRA_ERROR_TYPE_PLAIN;

vepra_error_t *default_malfunction_handler(vepra_error_t *chain) noexcept {
  vepra_error_handle(chain, vepra_error_stdhandler, nullptr);
  vepra_error_clear(chain);
  std::abort();
}

std::atomic<vepra_error_malfunction_fn> g_handler{default_malfunction_handler};

// Locks the registry mutex for a scope; a failure to lock or unlock goes to
// the malfunction handler with the given context text.
class RegistryLock {
 public:
  explicit RegistryLock(const char *context) noexcept : context_(context) {
    apr_status_t s = apr_thread_mutex_lock(g_error.mutex);
    if (s != APR_SUCCESS) fatal(s, context_);
  }
  ~RegistryLock() {
    apr_status_t s = apr_thread_mutex_unlock(g_error.mutex);
    if (s != APR_SUCCESS) fatal(s, context_);
  }
  RegistryLock(const RegistryLock &) = delete;
  RegistryLock &operator=(const RegistryLock &) = delete;

 private:
  const char *context_;
};

const char **registry_slots() noexcept {
  return reinterpret_cast<const char **>(g_error.registry->elts);
}

// Text printed for a record without a message of its own. Registered names
// are copied into buf under the registry lock, so that printing in one
// thread and registering in another never race.
const char *code_text(int code, char *buf, size_t size) noexcept {
  if (code >= VEPRA_E_FIRST_REGISTERED) {
    RegistryLock lock("Cannot register error type.");
    int slot = code - VEPRA_E_FIRST_REGISTERED;
    const char *name = slot < g_error.registry->nelts ? registry_slots()[slot] : nullptr;
    vepra_str_strlcpy(buf, name != nullptr ? name : "Unregistered error", size);
    return buf;
  }
  if (code >= CodeTable::kFirst && code <= CodeTable::kLast &&
      kCodes.text[code - CodeTable::kFirst] != nullptr) {
    return kCodes.text[code - CodeTable::kFirst];
  }
  if (code == 1) return "Warning";
  vepra_str_snprintf(buf, size, "Unknown Vepra error (code=%d)", code);
  return buf;
}

// A record without a message is skipped when an earlier record of the chain
// already printed its code: those are exactly the earlier records without a
// message that carry the same code.
bool code_already_printed(const vepra_error_t *head, const vepra_error_t *record) noexcept {
  for (const vepra_error_t *r = head; r != record; r = r->next) {
    if (r->message == nullptr && r->code == record->code) return true;
  }
  return false;
}

}  // namespace
}  // namespace vepra::detail

using namespace vepra::detail;

extern "C" {

vepra_error_t *vepra_error_register(int *code, const char *name) noexcept {
  RegistryLock lock("Cannot register error type.");
  const char **slots = registry_slots();
  int n = g_error.registry->nelts;
  int slot = 0;
  while (slot < n && slots[slot] != nullptr) ++slot;
  const char *copy = apr_pstrdup(g_error.pool, name);
  if (slot < n) {
    slots[slot] = copy;
  } else {
    *static_cast<const char **>(apr_array_push(g_error.registry)) = copy;
  }
  *code = VEPRA_E_FIRST_REGISTERED + slot;
  return nullptr;
}

vepra_error_t *vepra_error_deregister(int code) noexcept {
  apr_status_t s = apr_thread_mutex_lock(g_error.mutex);
  if (s != APR_SUCCESS) return apr_wrapped(s, "Cannot deregister error type.");
  if (code >= VEPRA_E_FIRST_REGISTERED &&
      code - VEPRA_E_FIRST_REGISTERED < g_error.registry->nelts) {
    registry_slots()[code - VEPRA_E_FIRST_REGISTERED] = nullptr;
  }
  s = apr_thread_mutex_unlock(g_error.mutex);
  if (s != APR_SUCCESS) fatal(s, "Cannot deregister error type.");
  return nullptr;
}

vepra_error_t *vepra_error_handle(vepra_error_t *chain, vepra_error_printer_fn printer,
                                  FILE *stream) noexcept {
  for (const vepra_error_t *r = chain; r != nullptr; r = r->next) {
    if (r->message == nullptr && code_already_printed(chain, r)) continue;
    char line[kLineSize];
    line[0] = '\0';
    if (static_cast<uint32_t>(r->type) <= 3) vepra_str_strlcat(line, kLabels[r->type], sizeof line);
    char piece[kMessageSize];
    if (r->code != 0 && r->type != kTypePlain) {
      vepra_str_snprintf(piece, sizeof piece, "(%d)", r->code);
      vepra_str_strlcat(line, piece, sizeof line);
    }
    if (r->type != kTypePlain) vepra_str_strlcat(line, ": ", sizeof line);
    char text_buf[kMessageSize];
    const char *text = r->message != nullptr ? r->message
                                             : code_text(r->code, text_buf, sizeof text_buf);
    vepra_str_snprintf(piece, sizeof piece, "%s ", text);
    vepra_str_strlcat(line, piece, sizeof line);
    if (r->file != nullptr && r->function != nullptr) {
      char where[kLineSize];
      vepra_str_snprintf(where, sizeof where, "[%s(%d), %s]", r->file, r->line, r->function);
      vepra_str_strlcat(line, where, sizeof line);
    }
    printer(line, stream);
  }
  return chain;
}

int vepra_error_stdhandler(const char *line, FILE *stream) noexcept {
  return std::fprintf(stream != nullptr ? stream : stderr, "%s\n", line);
}

vepra_error_malfunction_fn vepra_error_set_malfunction_handler(
    vepra_error_malfunction_fn handler) noexcept {
  vepra_error_malfunction_fn previous = g_handler.load();
  RegistryLock lock("Cannot set malfunction handler.");
  g_handler.store(handler);
  return previous;
}

vepra_error_malfunction_fn vepra_error_get_malfunction_handler(void) noexcept {
  return g_handler.load();
}

vepra_error_t *vepra_error_malfunction(vepra_error_t *chain) noexcept {
  return g_handler.load()(chain);
}

}  // extern "C"
