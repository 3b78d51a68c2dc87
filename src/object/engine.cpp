// The engine's global state: its pool, the registry of object types and the
// registry of signal types, each behind its own lock.
#include "object/obj_internal.hpp"

#include <cstring>
#include <initializer_list>

#include <apr_strings.h>
#include <apr_thread_mutex.h>

#include "core/error_internal.hpp"
#include "vepra_cdl.h"

using namespace vepra::detail;

namespace {

struct TypeRecord {
  uint32_t typecode;
  vepra_strlist_t names;
  vepra_objtype_create_fn create;
};

struct SignalTypeRecord {
  uint32_t code;
  char *name;
  void *reserved;
};

// The two registries allocate under different locks, so each gets a pool
// of its own below the engine pool.
struct Engine {
  apr_pool_t *pool = nullptr;
  apr_pool_t *type_pool = nullptr;
  apr_pool_t *signal_pool = nullptr;
  apr_thread_mutex_t *type_lock = nullptr;
  apr_thread_mutex_t *signal_lock = nullptr;
  vepra_dl_t *types = nullptr;    // dlm list of TypeRecord, registration order
  vepra_dl_t *signals = nullptr;  // slot list of SignalTypeRecord
  uint32_t next_type = 1;         // both counters survive termination
  uint32_t next_signal = 100;
};

Engine g_engine;

constexpr const char *kRegisterType = "Cannot register object type.";
constexpr const char *kRegisterSignal = "Cannot register signal.";
constexpr const char *kDeregisterSignal = "Cannot deregister signal.";

vepra_error_t *not_initialized(const char *context) noexcept {
  return wrap_error(make_error(VEPRA_E_NOT_INITIALIZED), "%s", context);
}

vepra_error_t *objtype_default_create(const char *name, vepra_obj_t **out, apr_pool_t *pool) {
  return vepra_obj_create(out, name, pool);
}

// The first type in registration order known by name; no lock.
TypeRecord *find_type(const char *name) noexcept {
  if (name == nullptr) return nullptr;
  for (vepra_dl_t *n = vepra_dl_get_first(g_engine.types); n != nullptr; n = n->next) {
    auto *rec = static_cast<TypeRecord *>(n->data);
    if (vepra_strlist_is_exists(&rec->names, name)) return rec;
  }
  return nullptr;
}

void *signal_type_named(uint32_t, void *data, void *user) {
  auto *rec = static_cast<SignalTypeRecord *>(data);
  const char *name = static_cast<const char *>(user);
  return rec->name != nullptr && std::strcmp(rec->name, name) == 0 ? rec : nullptr;
}

int signal_type_coded(uint32_t, void *data, void *user) {
  return static_cast<SignalTypeRecord *>(data)->code == *static_cast<uint32_t *>(user);
}

// Unlocks after a failure: an unlock failure joins the error.
vepra_error_t *unlock_after(apr_thread_mutex_t *lock, vepra_error_t *e) noexcept {
  apr_status_t s = apr_thread_mutex_unlock(lock);
  if (s != APR_SUCCESS) vepra_error_compose(e, apr_error(s));
  return e;
}

}  // namespace

extern "C" {

vepra_error_t *vepra_obj_engine_init(apr_pool_t *parent) noexcept {
  constexpr const char *kContext = "Cannot initialize OBJECT engine.";
  Engine &g = g_engine;
  apr_status_t s = apr_pool_create_ex(&g.pool, parent, nullptr, nullptr);
  if (s != APR_SUCCESS) return apr_wrapped(s, kContext);
  apr_pool_tag(g.pool, "MainObjectsPool");
  if ((s = apr_pool_create(&g.type_pool, g.pool)) != APR_SUCCESS ||
      (s = apr_pool_create(&g.signal_pool, g.pool)) != APR_SUCCESS ||
      (s = apr_thread_mutex_create(&g.type_lock, APR_THREAD_MUTEX_DEFAULT, g.pool)) !=
          APR_SUCCESS ||
      (s = apr_thread_mutex_create(&g.signal_lock, APR_THREAD_MUTEX_DEFAULT, g.pool)) !=
          APR_SUCCESS)
    return apr_wrapped(s, kContext);
  return nullptr;
}

vepra_error_t *vepra_obj_engine_terminate(void) noexcept {
  constexpr const char *kContext = "Cannot terminate OBJECT engine correctly.";
  Engine &g = g_engine;
  vepra_dlm_destroy(&g.types);
  vepra_cdl_destroy(&g.signals);
  for (apr_thread_mutex_t **lock : {&g.type_lock, &g.signal_lock}) {
    if (*lock == nullptr) continue;
    apr_status_t s = apr_thread_mutex_destroy(*lock);
    if (s != APR_SUCCESS) return apr_wrapped(s, kContext);
    *lock = nullptr;
  }
  if (g.pool != nullptr) apr_pool_destroy(g.pool);
  g.pool = g.type_pool = g.signal_pool = nullptr;
  return nullptr;
}

vepra_error_t *vepra_objtype_register(unsigned *out, vepra_strlist_t *names,
                                      vepra_objtype_create_fn create) noexcept {
  Engine &g = g_engine;
  if (g.type_lock == nullptr) return not_initialized(kRegisterType);
  apr_status_t s = apr_thread_mutex_lock(g.type_lock);
  if (s != APR_SUCCESS) return apr_wrapped(s, kRegisterType);
  if (vepra_objtype_is_names_exist(names)) {
    apr_thread_mutex_unlock(g.type_lock);
    return make_error(VEPRA_E_OBJTYPE_REGISTERED);
  }
  auto *rec = static_cast<TypeRecord *>(apr_pcalloc(g.type_pool, sizeof(TypeRecord)));
  rec->typecode = g.next_type;
  if (out != nullptr) *out = rec->typecode;
  if (names != nullptr) {
    if (vepra_error_t *e = vepra_strlist_copy(&rec->names, names, g.type_pool))
      return wrap_error(unlock_after(g.type_lock, e), "%s", kRegisterType);
  }
  rec->create = create != nullptr ? create : objtype_default_create;
  if (vepra_error_t *e = vepra_dlm_append(&g.types, 0, rec, nullptr)) {
    e = unlock_after(g.type_lock, e);
    vepra_strlist_clear(&rec->names);
    return wrap_error(e, "%s", kRegisterType);
  }
  ++g.next_type;
  if ((s = apr_thread_mutex_unlock(g.type_lock)) != APR_SUCCESS) fatal(s, kRegisterType);
  return nullptr;
}

int vepra_objtype_is_names_exist(vepra_strlist_t *names) noexcept {
  if (names == nullptr) return 0;
  for (vepra_dl_t *n = vepra_dl_get_first(*names); n != nullptr; n = n->next)
    if (n->data != nullptr && find_type(static_cast<const char *>(n->data)) != nullptr) return 1;
  return 0;
}

vepra_error_t *vepra_objtype_create_object(const char *type_name, const char *name,
                                           vepra_obj_t **out, apr_pool_t *pool) noexcept {
  const char *shown = type_name != nullptr ? type_name : "(null)";
  TypeRecord *rec = find_type(type_name);
  if (rec == nullptr) return make_error(0, "Cannot create object. Type [%s] is not registered.", shown);
  if (rec->create == nullptr)
    return make_error(0, "Cannot create object of type [%s]. Method is not registered.", shown);
  VEPRA_RETURN_IF_ERROR(rec->create(name, out, pool), "Cannot create object.");
  return nullptr;
}

unsigned vepra_objtype_query_typecode(const char *type_name) noexcept {
  TypeRecord *rec = find_type(type_name);
  return rec != nullptr ? rec->typecode : 0;
}

vepra_error_t *vepra_objsig_register(unsigned *out, const char *name) noexcept {
  Engine &g = g_engine;
  if (g.signal_lock == nullptr) return not_initialized(kRegisterSignal);
  apr_status_t s = apr_thread_mutex_lock(g.signal_lock);
  if (s != APR_SUCCESS) return apr_wrapped(s, kRegisterSignal);
  if (name != nullptr &&
      vepra_cdl_walk_ptr_first(g.signals, signal_type_named, const_cast<char *>(name)) != nullptr) {
    apr_thread_mutex_unlock(g.signal_lock);
    return make_wrapped(VEPRA_E_SIGNAL_REGISTERED, kRegisterSignal,
                        "Object signal type [%s] already exists.", name);
  }
  SignalTypeRecord *rec;
  if (vepra_dl_t *slot = vepra_cdl_get_ready(g.signals)) {
    rec = static_cast<SignalTypeRecord *>(vepra_cdl_get_data(slot));
  } else {
    rec = static_cast<SignalTypeRecord *>(apr_pcalloc(g.signal_pool, sizeof(SignalTypeRecord)));
    if (vepra_error_t *e = vepra_cdl_prepend(&g.signals, 0, rec, nullptr, g.signal_pool)) {
      if ((s = apr_thread_mutex_unlock(g.signal_lock)) != APR_SUCCESS)
        vepra_error_malfunction(vepra_error_compose_create(apr_error(s), vepra_error_dup(e)));
      return wrap_error(e, "%s", kRegisterSignal);
    }
  }
  rec->code = g.next_signal;
  if (out != nullptr) *out = rec->code;
  if (name != nullptr) rec->name = apr_pstrdup(g.signal_pool, name);
  ++g.next_signal;
  if ((s = apr_thread_mutex_unlock(g.signal_lock)) != APR_SUCCESS) fatal(s, kRegisterSignal);
  return nullptr;
}

vepra_error_t *vepra_objsig_deregister(unsigned code) noexcept {
  Engine &g = g_engine;
  if (g.signal_lock == nullptr) return not_initialized(kDeregisterSignal);
  apr_status_t s = apr_thread_mutex_lock(g.signal_lock);
  if (s != APR_SUCCESS) return apr_wrapped(s, kDeregisterSignal);
  uint32_t wanted = code;
  vepra_cdl_set_free(vepra_cdl_walk_node_first(g.signals, signal_type_coded, &wanted));
  if ((s = apr_thread_mutex_unlock(g.signal_lock)) != APR_SUCCESS) fatal(s, kDeregisterSignal);
  return nullptr;
}

unsigned vepra_objsig_query_type(const char *name) noexcept {
  if (name == nullptr) return 0;
  auto *rec = static_cast<SignalTypeRecord *>(
      vepra_cdl_walk_ptr_first(g_engine.signals, signal_type_named, const_cast<char *>(name)));
  return rec != nullptr ? rec->code : 0;
}

}  // extern "C"
