// Error types: the built-in message table, the registry of run-time types,
// printing chains, and the malfunction handler.
#include <atomic>
#include <cstdio>
#include <cstdint>
#include <cstdlib>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "core/error_state.hpp"
#include "core/testing.hpp"
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

// Locks the error mutex for a scope. A failure to lock goes to the
// malfunction handler with the given context text; if the handler returns,
// the lock is not held (held() is false, failure() is the error to hand
// back) and the destructor leaves the mutex alone. A failure to unlock goes
// to the handler too.
class RegistryLock {
 public:
  explicit RegistryLock(const char *context) noexcept : context_(context) {
    apr_status_t s = lock_should_fail() ? APR_EINVAL : apr_thread_mutex_lock(g_error.mutex);
    if (s != APR_SUCCESS) {
      vepra_error_t *returned = fatal(s, context_);
      failure_ = returned != nullptr ? returned : out_of_memory();
    }
  }
  ~RegistryLock() {
    if (!held()) return;
    apr_status_t s = apr_thread_mutex_unlock(g_error.mutex);
    if (s != APR_SUCCESS) discard(fatal(s, context_));
  }
  RegistryLock(const RegistryLock &) = delete;
  RegistryLock &operator=(const RegistryLock &) = delete;

  bool held() const noexcept { return failure_ == nullptr; }
  // The error a caller returns when the lock was not taken; once taken out,
  // the lock no longer owns it.
  vepra_error_t *take_failure() noexcept {
    vepra_error_t *f = failure_;
    failure_ = out_of_memory();
    return f;
  }

 private:
  const char *context_;
  vepra_error_t *failure_ = nullptr;
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
    if (!lock.held()) discard(lock.take_failure());
    int slot = code - VEPRA_E_FIRST_REGISTERED;
    const char *name =
        lock.held() && slot < g_error.registry->nelts ? registry_slots()[slot] : nullptr;
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

// The codes already printed by records without a message, for the skip
// rule of vepra_error_handle(): an open-addressing set that starts on the
// stack and grows on the heap, so that printing is linear in the length of
// the chain. Should the heap refuse, lookups fall back to rescanning the
// chain from its head (slower, same result).
class PrintedCodes {
 public:
  explicit PrintedCodes(const vepra_error_t *head) noexcept : head_(head) {}
  ~PrintedCodes() {
    if (slots_ != inline_) std::free(slots_);
  }
  PrintedCodes(const PrintedCodes &) = delete;
  PrintedCodes &operator=(const PrintedCodes &) = delete;

  bool contains(const vepra_error_t *record) const noexcept {
    if (degraded_) {
      for (const vepra_error_t *r = head_; r != record; r = r->next) {
        if (r->message == nullptr && r->code == record->code) return true;
      }
      return false;
    }
    for (size_t i = hash(record->code) & (capacity_ - 1);; i = (i + 1) & (capacity_ - 1)) {
      if (!slots_[i].used) return false;
      if (slots_[i].code == record->code) return true;
    }
  }

  void add(int code) noexcept {
    if (degraded_) return;
    if (2 * (size_ + 1) > capacity_ && !grow()) {
      degraded_ = true;
      return;
    }
    insert(slots_, capacity_, code);
    ++size_;
  }

 private:
  struct Slot {
    int code;
    bool used;
  };
  static constexpr size_t kInline = 64;

  static size_t hash(int code) noexcept {
    return static_cast<size_t>(static_cast<uint32_t>(code) * 2654435761u);
  }
  static void insert(Slot *slots, size_t capacity, int code) noexcept {
    for (size_t i = hash(code) & (capacity - 1);; i = (i + 1) & (capacity - 1)) {
      if (!slots[i].used) {
        slots[i] = Slot{code, true};
        return;
      }
      if (slots[i].code == code) return;
    }
  }
  bool grow() noexcept {
    size_t capacity = capacity_ * 2;
    auto *bigger = static_cast<Slot *>(std::calloc(capacity, sizeof(Slot)));
    if (bigger == nullptr) return false;
    for (size_t i = 0; i < capacity_; ++i) {
      if (slots_[i].used) insert(bigger, capacity, slots_[i].code);
    }
    if (slots_ != inline_) std::free(slots_);
    slots_ = bigger;
    capacity_ = capacity;
    return true;
  }

  const vepra_error_t *head_;
  Slot inline_[kInline] = {};
  Slot *slots_ = inline_;
  size_t capacity_ = kInline;
  size_t size_ = 0;
  bool degraded_ = false;
};

}  // namespace
}  // namespace vepra::detail

using namespace vepra::detail;

extern "C" {

vepra_error_t *vepra_error_register(int *code, const char *name) noexcept {
  if (name == nullptr) return wrap_error(make_error(VEPRA_E_ASSERT), "Cannot register error type.");
  RegistryLock lock("Cannot register error type.");
  if (!lock.held()) return lock.take_failure();
  const char **slots = registry_slots();
  int n = g_error.registry->nelts;
  int slot = 0;
  while (slot < n && slots[slot] != nullptr) ++slot;
  const char *copy = apr_pstrdup(g_error.pool, name);
  auto **place = slot < n ? &slots[slot] : static_cast<const char **>(apr_array_push(g_error.registry));
  if (copy == nullptr || place == nullptr) return out_of_memory();
  *place = copy;
  *code = VEPRA_E_FIRST_REGISTERED + slot;
  return nullptr;
}

vepra_error_t *vepra_error_deregister(int code) noexcept {
  apr_status_t s = lock_should_fail() ? APR_EINVAL : apr_thread_mutex_lock(g_error.mutex);
  if (s != APR_SUCCESS) return apr_wrapped(s, "Cannot deregister error type.");
  if (code >= VEPRA_E_FIRST_REGISTERED &&
      code - VEPRA_E_FIRST_REGISTERED < g_error.registry->nelts) {
    registry_slots()[code - VEPRA_E_FIRST_REGISTERED] = nullptr;
  }
  s = apr_thread_mutex_unlock(g_error.mutex);
  if (s != APR_SUCCESS) discard(fatal(s, "Cannot deregister error type."));
  return nullptr;
}

vepra_error_t *vepra_error_handle(vepra_error_t *chain, vepra_error_printer_fn printer,
                                  FILE *stream) noexcept {
  PrintedCodes printed(chain);
  for (const vepra_error_t *r = chain; r != nullptr; r = r->next) {
    if (r->message == nullptr && printed.contains(r)) continue;
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
    if (r->message == nullptr) printed.add(r->code);
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
  if (!lock.held()) discard(lock.take_failure());
  // Null would leave nothing to call: it puts the default back.
  g_handler.store(handler != nullptr ? handler : default_malfunction_handler);
  return previous;
}

vepra_error_malfunction_fn vepra_error_get_malfunction_handler(void) noexcept {
  return g_handler.load();
}

vepra_error_t *vepra_error_malfunction(vepra_error_t *chain) noexcept {
  return g_handler.load()(chain);
}

}  // extern "C"
