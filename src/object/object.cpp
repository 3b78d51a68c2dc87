// Objects: own pools, names, children indexed by name, cleanup callbacks
// and the pool cleanup that tears all of it down.
#include "object/obj_internal.hpp"

#include <cstring>

#include <apr_strings.h>

#include "core/error_internal.hpp"
#include "vepra_cdl.h"

using namespace vepra::detail;

namespace {

constexpr const char *kCreate = "Cannot create object.";
constexpr const char *kAddChild = "Cannot add child to object";

struct CleanupRecord {
  vepra_obj_cleanup_fn fn;
  void *arg;
};

size_t name_length(const char *name) noexcept { return std::strlen(name); }

vepra_tree_t *index_lookup(vepra_obj_t *parent, const char *name) noexcept {
  if (parent == nullptr || name == nullptr) return nullptr;
  return static_cast<vepra_tree_t *>(
      vepra_trie_search(parent->child_names, name, name_length(name)));
}

struct KeyOfNode {
  const vepra_tree_t *node;
  const char *key = nullptr;
  size_t length = 0;
};

int key_of_node(size_t length, const char *key, void *data, void *user) {
  auto *k = static_cast<KeyOfNode *>(user);
  if (data != k->node) return 0;
  k->key = key;
  k->length = length;
  return 1;
}

// Removes the name index entry that points at node. The child may have been
// renamed since it was added, so its current name is only the first guess.
void drop_index_entry(vepra_obj_t *parent, vepra_tree_t *node, const char *name) noexcept {
  if (name != nullptr && index_lookup(parent, name) == node) {
    vepra_triem_delete(parent->child_names, name, name_length(name));
    return;
  }
  KeyOfNode k{node};
  if (vepra_trie_walk_int_first(parent->child_names, key_of_node, &k) == 0) return;
  // The key is the trie's own copy, freed by the deletion: delete by a copy.
  char small[256];
  const char *copy = k.length < sizeof small
                         ? static_cast<const char *>(std::memcpy(small, k.key, k.length))
                         : apr_pstrmemdup(parent->pool, k.key, k.length);
  vepra_triem_delete(parent->child_names, copy, k.length);
}

// Deletes a node of parent's children; the children handle moves off it
// first, since the children are top-level nodes with no parent to do that.
void delete_node(vepra_obj_t *parent, vepra_tree_t *node) noexcept {
  if (parent->children == node)
    parent->children = node->next != nullptr ? node->next : node->prev;
  vepra_treem_node_delete(node);
}

// Unlinks the child held by node from parent: tree node, index entry and
// the child's parent link.
vepra_obj_t *unlink_child(vepra_obj_t *parent, vepra_tree_t *node) noexcept {
  auto *child = static_cast<vepra_obj_t *>(vepra_tree_get_data(node));
  drop_index_entry(parent, node, child != nullptr ? child->name : nullptr);
  delete_node(parent, node);
  if (child != nullptr && child->parent == parent) child->parent = nullptr;
  return child;
}

void run_cleanup(uint32_t, void *data, void *user) {
  auto *rec = static_cast<CleanupRecord *>(data);
  if (rec != nullptr && rec->fn != nullptr) rec->fn(static_cast<vepra_obj_t *>(user), rec->arg);
}

int same_cleanup_fn(uint32_t, void *data, void *user) {
  auto *rec = static_cast<CleanupRecord *>(data);
  return rec != nullptr && rec->fn == *static_cast<vepra_obj_cleanup_fn *>(user);
}

}  // namespace

extern "C" {

vepra_error_t *vepra_obj_create(vepra_obj_t **out, const char *name, apr_pool_t *pool) noexcept {
  if (out == nullptr) return apr_wrapped(APR_EINVAL, kCreate);
  apr_pool_t *own = nullptr;
  apr_status_t s = apr_pool_create_ex(&own, pool, nullptr, nullptr);
  if (s != APR_SUCCESS) return apr_wrapped(s, kCreate);
  auto *obj = static_cast<vepra_obj_t *>(apr_pcalloc(own, sizeof(vepra_obj_t)));
  *out = obj;
  obj->pool = own;
  // Registered before anything that can fail, so that destroying the pool
  // of a half-built object still frees what it holds.
  apr_pool_cleanup_register(own, obj, vepra_obj_cleanup, apr_pool_cleanup_null);
  if (name != nullptr) obj->name = apr_pstrmemdup(own, name, name_length(name));
  VEPRA_RETURN_IF_ERROR(vepra_obj_add_signal(obj, VEPRA_SIG_DESTROY), "%s", kCreate);
  obj->children = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_triem_create(&obj->child_names), "%s", kCreate);
  return nullptr;
}

void vepra_obj_destroy(vepra_obj_t *obj) noexcept {
  if (obj == nullptr || being_cleaned(obj)) return;
  apr_pool_t *pool = obj->pool;
  apr_pool_cleanup_run(pool, obj, vepra_obj_cleanup);
  apr_pool_destroy(pool);
}

void vepra_obj_destroy_callback(void *, vepra_obj_t *obj) noexcept { vepra_obj_destroy(obj); }

apr_status_t vepra_obj_cleanup(void *p) noexcept {
  auto *obj = static_cast<vepra_obj_t *>(p);
  if (obj == nullptr || being_cleaned(obj)) return APR_SUCCESS;
  CleanupGuard guard(obj);
  // Signal 1 makes every object connected to this one forget it.
  vepra_error_clear(vepra_obj_emit_signal(obj, VEPRA_SIG_DESTROY, nullptr));
  vepra_cdl_walk(obj->cleanups, run_cleanup, obj);
  vepra_triem_destroy(&obj->child_names);
  // Children go one at a time, each unlinked before it is destroyed: a
  // child's signal 1 or cleanups may destroy a sibling (which then unlinks
  // itself from the live list) or add children to this object again.
  while (vepra_tree_t *node = obj->children) {
    while (node->prev != nullptr) node = node->prev;
    auto *child = static_cast<vepra_obj_t *>(vepra_tree_get_data(node));
    delete_node(obj, node);
    if (child == nullptr) continue;
    child->parent = nullptr;
    vepra_obj_destroy(child);
  }
  if (vepra_obj_t *parent = obj->parent) {
    if (vepra_tree_t *node = vepra_tree_search_obj(parent->children, obj))
      unlink_child(parent, node);
    obj->parent = nullptr;
  }
  forget_signals_of(obj);
  return APR_SUCCESS;
}

const char *vepra_obj_get_name(const vepra_obj_t *obj) noexcept {
  return obj != nullptr ? obj->name : nullptr;
}

int vepra_obj_set_name(vepra_obj_t *obj, const char *name) noexcept {
  if (obj != nullptr) obj->name = name != nullptr ? apr_pstrdup(obj->pool, name) : nullptr;
  return 0;
}

unsigned vepra_obj_get_type(const vepra_obj_t *obj) noexcept {
  return obj != nullptr ? obj->type : 0;
}

int vepra_obj_set_type(vepra_obj_t *obj, unsigned type) noexcept {
  if (obj != nullptr) obj->type = type;
  return 0;
}

void *vepra_obj_get_data(const vepra_obj_t *obj) noexcept {
  return obj != nullptr ? obj->data : nullptr;
}

int vepra_obj_set_data(vepra_obj_t *obj, void *data) noexcept {
  if (obj != nullptr) obj->data = data;
  return 0;
}

apr_pool_t *vepra_obj_get_pool(const vepra_obj_t *obj) noexcept {
  return obj != nullptr ? obj->pool : nullptr;
}

vepra_error_t *vepra_obj_addc(vepra_obj_t *parent, vepra_obj_t *child) noexcept {
  if (parent == nullptr || child == nullptr) return apr_wrapped(APR_EINVAL, kAddChild);
  // A second parent, or a cycle, would make two cleanups free one object.
  if (child->parent != nullptr)
    return make_wrapped(0, kAddChild, "The object already has a parent.");
  for (const vepra_obj_t *p = parent; p != nullptr; p = p->parent)
    if (p == child) return make_wrapped(0, kAddChild, "The object cannot be its own descendant.");
  if (child->name != nullptr && index_lookup(parent, child->name) != nullptr)
    return make_wrapped(VEPRA_E_OBJ_CHILD_EXISTS, kAddChild, "There is already a child with name '%s'",
                        child->name);
  vepra_tree_t *node = nullptr;
  VEPRA_RETURN_IF_ERROR(vepra_treem_append(&parent->children, child->type, child, &node), "%s",
                        kAddChild);
  if (child->name != nullptr) {
    vepra_error_t *e =
        vepra_triem_insert(parent->child_names, child->name, name_length(child->name), node);
    if (e != nullptr) {
      delete_node(parent, node);
      return wrap_error(e, "%s", kAddChild);
    }
  }
  child->parent = parent;
  return nullptr;
}

vepra_obj_t *vepra_obj_getc(vepra_obj_t *parent, const char *name) noexcept {
  return static_cast<vepra_obj_t *>(vepra_tree_get_data(index_lookup(parent, name)));
}

vepra_obj_t *vepra_obj_removec(vepra_obj_t *parent, const char *name, vepra_obj_t *child) noexcept {
  if (parent == nullptr) return nullptr;
  if (name != nullptr) {
    vepra_tree_t *node = index_lookup(parent, name);
    return node != nullptr ? unlink_child(parent, node) : nullptr;
  }
  if (child == nullptr) return nullptr;
  if (vepra_tree_t *node = vepra_tree_search_obj(parent->children, child))
    unlink_child(parent, node);
  return child;
}

vepra_obj_t *vepra_obj_removec_func(vepra_obj_t *parent, vepra_walk_int_fn fn, void *arg) noexcept {
  if (parent == nullptr || fn == nullptr) return nullptr;
  vepra_tree_t *node = vepra_tree_search_func(parent->children, fn, arg);
  return node != nullptr ? unlink_child(parent, node) : nullptr;
}

vepra_error_t *vepra_obj_child_walk_err_first(vepra_obj_t *parent, vepra_walk_err_fn pre,
                                              vepra_walk_err_fn post, void *user) noexcept {
  if (parent == nullptr) return nullptr;
  vepra_error_t *e = vepra_tree_walk_err_first(parent->children, pre, post, user);
  // The stop sentinel goes back as it is: callers compare its address.
  if (e == nullptr || e == VepraDLlistStopWalking) return e;
  return wrap_error(e, "Cannot walk objects childs");
}

vepra_error_t *vepra_obj_cleanup_register(vepra_obj_t *obj, vepra_obj_cleanup_fn fn,
                                          void *arg) noexcept {
  constexpr const char *kContext = "Cannot register cleanup function";
  if (obj == nullptr) return apr_wrapped(APR_EINVAL, kContext);
  auto *rec = static_cast<CleanupRecord *>(apr_palloc(obj->pool, sizeof(CleanupRecord)));
  rec->fn = fn;
  rec->arg = arg;
  if (vepra_dl_t *slot = vepra_cdl_get_ready(obj->cleanups)) {
    vepra_cdl_set_data(slot, rec);
    return nullptr;
  }
  VEPRA_RETURN_IF_ERROR(vepra_cdl_append(&obj->cleanups, 0, rec, nullptr, obj->pool), "%s",
                        kContext);
  return nullptr;
}

vepra_dl_t *vepra_obj_cleanup_deregister(vepra_obj_t *obj, vepra_obj_cleanup_fn fn) noexcept {
  if (obj == nullptr) return nullptr;
  vepra_dl_t *node = vepra_cdl_walk_node_first(obj->cleanups, same_cleanup_fn, &fn);
  vepra_cdl_set_free(node);
  return node;
}

}  // extern "C"
