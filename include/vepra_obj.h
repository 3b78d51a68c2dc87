/**
 * @file vepra_obj.h
 * @brief The object engine: object types, named objects with children and
 *        cleanup callbacks, signals connected to slots of other objects.
 *
 * An object lives in its own APR pool (a sub-pool of the pool given at
 * creation) and is destroyed with that pool: destroying the pool, or any
 * pool above it, runs vepra_obj_cleanup(). The caller never frees an object
 * record. Objects carry no lock: an object with its children, signals and
 * cleanups belongs to one thread at a time.
 *
 * Every object has signals known by unsigned codes. Signal 1 is the destroy
 * signal: every object gets it at creation and emits it (with a null
 * argument) when it is cleaned up. Connecting a signal of one object to
 * another object also connects the signal 1 of each to an automatic
 * disconnection slot on the other, so that when either is destroyed the
 * survivor forgets every connection towards it.
 *
 * While a signal is being emitted it is busy: vepra_obj_connect(),
 * vepra_obj_disconnect() and vepra_obj_remove_signal() on it are queued and
 * replayed in order once its slots have run (vepra_obj_disconnect() also
 * disables the matching slots at once), and a nested emission of it is
 * dropped.
 *
 * The engine globals (type registry, signal-type registry and their locks)
 * are set up by vepra_obj_engine_init() and torn down by
 * vepra_obj_engine_terminate(); objects themselves work without them.
 *
 * The signal records are uthash arrays and hash tables; when memory runs out
 * inside them the process ends with exit status -1.
 */
#ifndef VEPRA_OBJ_H
#define VEPRA_OBJ_H

#include <stdint.h>
#include <stdio.h>

#include <apr_pools.h>
#include <utarray.h>

#include "vepra_dl.h"
#include "vepra_error.h"
#include "vepra_export.h"
#include "vepra_strlist.h"
#include "vepra_tree.h"
#include "vepra_trie.h"

VEPRA_BEGIN_DECL

/** Code of the destroy signal that every object has. */
#define VEPRA_SIG_DESTROY 1u
/** Flag bit of a signal that is being emitted; bits 1 to 15 are the
 *  caller's. */
#define VEPRA_SIG_BUSY 0x0001u

/** Kinds of queued signal actions (osigact.action): a connection. */
#define OSIGACT_CONNECT 1u
/** A disconnection. */
#define OSIGACT_DISCONNECT 2u
/** A removal of the signal. */
#define OSIGACT_REMOVE 3u

/** An object. Allocated zero-filled in its own pool; read the fields
 *  through the accessors below. */
typedef struct vepra_obj_t {
  uint32_t type;                /**< type code, 0 until vepra_obj_set_type() */
  char *name;                   /**< copy in the object's pool, or null */
  void *reserved;               /**< unused, zero */
  apr_pool_t *pool;             /**< the object's own pool */
  void *data;                   /**< caller's data pointer */
  vepra_dl_t *cleanups;         /**< slot list of cleanup records */
  vepra_trie_t *child_names;    /**< child name to children-tree node */
  vepra_tree_t *children;       /**< one node per child (tag = its type) */
  struct vepra_obj_t *parent;   /**< set by vepra_obj_addc(), else null */
  UT_array *signals;            /**< utarray of osig */
} vepra_obj_t;

/** A slot function: called by an emission with the source object, the
 *  signal code, the destination object, the slot's user pointer and the
 *  emission's argument. Must not throw.
 *  @param src object whose signal is emitted
 *  @param code the signal's code
 *  @param dest destination object the slot belongs to
 *  @param usr the user pointer given to vepra_obj_connect()
 *  @param arg the argument given to vepra_obj_emit_signal() */
typedef void (*vepra_obj_slot_fn)(vepra_obj_t *src, unsigned code,
                                  vepra_obj_t *dest, void *usr, void *arg);

/** Create method of an object type: makes the object named name in pool
 *  and stores it in *out.
 *  @param name name of the new object, or null
 *  @param[out] out receives the object
 *  @param pool pool under which the object's pool is made
 *  @return null on success, or an error chain */
typedef vepra_error_t *(*vepra_objtype_create_fn)(const char *name,
                                                  vepra_obj_t **out,
                                                  apr_pool_t *pool);

/** Cleanup callback of an object, called with the object and the argument
 *  given at registration. Must not throw.
 *  @param obj object being cleaned up
 *  @param arg the argument given to vepra_obj_cleanup_register() */
typedef void (*vepra_obj_cleanup_fn)(vepra_obj_t *obj, void *arg);

/** Destination record of a signal (private layout). */
typedef struct osigdest osigdest;

/** One signal of an object (element of vepra_obj_t.signals, 24 bytes). */
typedef struct osig {
  uint32_t code;            /**< signal code */
  uint16_t flags;           /**< VEPRA_SIG_BUSY and the caller's bits */
  osigdest *destinations;   /**< hash table of destinations, or null */
  UT_array *actions;        /**< utarray of osigact queued while busy */
} osig;

/** A queued signal action (40 bytes). */
typedef struct osigact {
  uint32_t action;          /**< OSIGACT_CONNECT, _DISCONNECT or _REMOVE */
  int32_t code;             /**< the code the queued call received */
  vepra_obj_t *src;         /**< object whose signal changes */
  vepra_obj_t *dest;        /**< destination, null for remove */
  void *usr;                /**< slot user pointer (connect only) */
  vepra_obj_slot_fn callback; /**< slot function, null for remove */
} osigact;

/** One slot of a destination (16 bytes). */
typedef struct oslot {
  void *usr;                  /**< handed to the callback */
  vepra_obj_slot_fn callback; /**< null: disabled during an emission */
} oslot;

/** @name Element descriptors of the signal arrays
 *  @{ */
/** osig records, destroyed with osig_dtor(). */
VEPRA_API extern const UT_icd osig_icd;
/** osigact records (bitwise copies, no destructor). */
VEPRA_API extern const UT_icd osigact_icd;
/** oslot records (bitwise copies, no destructor). */
VEPRA_API extern const UT_icd oslot_icd;
/** Destroys a signal record: every destination record with its slots, the
 *  table, then the queued actions. The record itself stays.
 *  @param sig an osig record */
VEPRA_API void osig_dtor(void *sig) VEPRA_NOTHROW;
/** @} */

/** @name Engine
 *  @{ */
/** Creates the engine pool (a sub-pool of parent tagged "MainObjectsPool")
 *  and the type and signal-type locks. Errors: APR's, wrapped by "Cannot
 *  initialize OBJECT engine."; steps already done stay.
 *  @param parent pool under which the engine pool is made
 *  @return null on success, or the error chain (code 0 with APR's text) */
VEPRA_API vepra_error_t *vepra_obj_engine_init(apr_pool_t *parent)
    VEPRA_NOTHROW;
/** Drops both registries, destroys the locks and the engine pool. The next
 *  type and signal codes keep their values. Errors: a lock that cannot be
 *  destroyed, wrapped by "Cannot terminate OBJECT engine correctly.".
 *  @return null on success, or the error chain (code 0 with APR's text) */
VEPRA_API vepra_error_t *vepra_obj_engine_terminate(void) VEPRA_NOTHROW;
/** @} */

/** @name Object types
 *  Registration takes the type lock; the lookups take none.
 *  @{ */
/** Registers a type known by the names of the list (copied) with create
 *  method create (null: plain vepra_obj_create()); its code, from 1 up, is
 *  stored in *out (also when registration then fails, without consuming
 *  it). Errors: 120101 unwrapped when any name is taken; 120001 when the
 *  engine is not initialised and APR or allocation errors, wrapped by
 *  "Cannot register object type.".
 *  @param[out] out receives the type code, or null
 *  @param names names of the type, or null for none; copied
 *  @param create create method, or null for vepra_obj_create()
 *  @return null on success, or the error chain (codes 120101, 120001, 0,
 *          120012) */
VEPRA_API vepra_error_t *vepra_objtype_register(unsigned *out,
                                                vepra_strlist_t *names,
                                                vepra_objtype_create_fn create)
    VEPRA_NOTHROW;
/** Non-zero when any of the names belongs to a registered type.
 *  @param names names to look up, or null
 *  @return 1 when a name is taken, else 0 */
VEPRA_API int vepra_objtype_is_names_exist(vepra_strlist_t *names)
    VEPRA_NOTHROW;
/** Creates an object named name in pool through the create method of the
 *  first type known by type_name; the object's type code is left 0.
 *  Errors: code 0 "Cannot create object. Type [%s] is not registered.";
 *  the method's error wrapped by "Cannot create object.".
 *  @param type_name a name of the registered type
 *  @param name name of the new object, or null
 *  @param[out] out receives the object, owned by its pool
 *  @param pool pool under which the object's pool is made
 *  @return null on success, or the error chain (code 0, or the method's) */
VEPRA_API vepra_error_t *vepra_objtype_create_object(const char *type_name,
                                                     const char *name,
                                                     vepra_obj_t **out,
                                                     apr_pool_t *pool)
    VEPRA_NOTHROW;
/** The code of the first type known by type_name, or 0.
 *  @param type_name name to look up
 *  @return the type code, or 0 when no type has that name */
VEPRA_API unsigned vepra_objtype_query_typecode(const char *type_name)
    VEPRA_NOTHROW;
/** @} */

/** @name Objects
 *  @{ */
/** Creates an object (with signal 1, no children, no cleanups) in a new
 *  sub-pool of pool, named by a copy of name (may be null), and stores it
 *  in *out at once. The pool owns the object. Errors: APR's or the
 *  allocator's (120012), wrapped by "Cannot create object."; a half-built
 *  object is then left in its pool, which the caller destroys.
 *  @param[out] out receives the object; not null
 *  @param name name of the object, or null
 *  @param pool pool under which the object's pool is made
 *  @return null on success, or the error chain (code 0 with APR's text,
 *          120012) */
VEPRA_API vepra_error_t *vepra_obj_create(vepra_obj_t **out, const char *name,
                                          apr_pool_t *pool) VEPRA_NOTHROW;
/** Runs the object's cleanup now and destroys its pool. Calling it while
 *  the object is already being cleaned up does nothing. Null: nothing.
 *  @param obj object to destroy, or null; invalid afterwards */
VEPRA_API void vepra_obj_destroy(vepra_obj_t *obj) VEPRA_NOTHROW;
/** vepra_obj_destroy() of obj, in the shape of a walk callback.
 *  @param ignored not used
 *  @param obj object to destroy, or null */
VEPRA_API void vepra_obj_destroy_callback(void *ignored, vepra_obj_t *obj)
    VEPRA_NOTHROW;
/** The pool cleanup of an object: emits signal 1, calls the cleanup
 *  callbacks in order, destroys every child, detaches the object from its
 *  parent and deletes its signals. Always APR_SUCCESS.
 *  @param obj the object (a vepra_obj_t *), or null
 *  @return APR_SUCCESS */
VEPRA_API apr_status_t vepra_obj_cleanup(void *obj) VEPRA_NOTHROW;
/** The object's name (owned by its pool), or null.
 *  @param obj the object, or null
 *  @return the name, or null for no name or a null obj */
VEPRA_API const char *vepra_obj_get_name(const vepra_obj_t *obj)
    VEPRA_NOTHROW;
/** Renames the object (a copy in its pool). A parent's name index keeps
 *  the old name. Returns 0.
 *  @param[in,out] obj the object; null does nothing
 *  @param name the new name, or null for none
 *  @return 0 */
VEPRA_API int vepra_obj_set_name(vepra_obj_t *obj, const char *name)
    VEPRA_NOTHROW;
/** The object's type code.
 *  @param obj the object, or null
 *  @return the type code, 0 for a null obj */
VEPRA_API unsigned vepra_obj_get_type(const vepra_obj_t *obj) VEPRA_NOTHROW;
/** Sets the object's type code. Returns 0.
 *  @param[in,out] obj the object; null does nothing
 *  @param type the type code
 *  @return 0 */
VEPRA_API int vepra_obj_set_type(vepra_obj_t *obj, unsigned type)
    VEPRA_NOTHROW;
/** The caller's data pointer.
 *  @param obj the object, or null
 *  @return the data pointer, null for a null obj */
VEPRA_API void *vepra_obj_get_data(const vepra_obj_t *obj) VEPRA_NOTHROW;
/** Sets the caller's data pointer (never owned). Returns 0.
 *  @param[in,out] obj the object; null does nothing
 *  @param data the data pointer
 *  @return 0 */
VEPRA_API int vepra_obj_set_data(vepra_obj_t *obj, void *data) VEPRA_NOTHROW;
/** The object's own pool.
 *  @param obj the object, or null
 *  @return the pool, null for a null obj; destroying it destroys obj */
VEPRA_API apr_pool_t *vepra_obj_get_pool(const vepra_obj_t *obj)
    VEPRA_NOTHROW;
/** @} */

/** @name Children
 *  A child is destroyed with its parent. Its pool must not hold the
 *  parent's pool.
 *  @{ */
/** Adds child to parent's children, indexed by its name when it has one.
 *  Errors, wrapped by "Cannot add child to object": 120102 "There is
 *  already a child with name '%s'"; code 0 "The object already has a
 *  parent." or "The object cannot be its own descendant."; code 0 with
 *  APR's text for EINVAL for a null parent or child; the allocator's.
 *  @param[in,out] parent the new parent
 *  @param[in,out] child object to add; destroyed with parent from then on
 *  @return null on success, or the error chain (codes 120102, 0, 120012) */
VEPRA_API vepra_error_t *vepra_obj_addc(vepra_obj_t *parent,
                                        vepra_obj_t *child) VEPRA_NOTHROW;
/** The child that was added under name (renaming a child later does not
 *  change this), or null.
 *  @param parent the parent, or null
 *  @param name name the child was added under, or null
 *  @return the child, or null */
VEPRA_API vepra_obj_t *vepra_obj_getc(vepra_obj_t *parent, const char *name)
    VEPRA_NOTHROW;
/** Detaches (does not destroy) a child: with a name, the child indexed by
 *  it, or null; else with child, that child, returned whether or not it
 *  was found; with neither, null. The removed child has no parent after.
 *  @param[in,out] parent the parent, or null (then null is returned)
 *  @param name name of the child to detach, or null
 *  @param child child to detach when name is null, or null
 *  @return the detached child, child itself, or null as above */
VEPRA_API vepra_obj_t *vepra_obj_removec(vepra_obj_t *parent,
                                         const char *name, vepra_obj_t *child)
    VEPRA_NOTHROW;
/** Detaches the first child (in order) for which fn(tag, child, arg)
 *  returns non-zero and returns it, or null.
 *  @param[in,out] parent the parent, or null
 *  @param fn test called with each child's tag and object; null finds none
 *  @param arg handed to fn
 *  @return the detached child, or null */
VEPRA_API vepra_obj_t *vepra_obj_removec_func(vepra_obj_t *parent,
                                              vepra_walk_int_fn fn, void *arg)
    VEPRA_NOTHROW;
/** The error-first walk of the children tree (vepra_tree_walk_err_first());
 *  an error is wrapped by "Cannot walk objects childs", except
 *  VepraDLlistStopWalking, which is returned as it is.
 *  @param parent the parent, or null (nothing is walked)
 *  @param pre called with each child's tag and object before its own
 *         children, or null
 *  @param post called after its children, or null
 *  @param user handed to pre and post
 *  @return null when every call returned null, VepraDLlistStopWalking, or
 *          the first callback's chain, wrapped */
VEPRA_API vepra_error_t *vepra_obj_child_walk_err_first(vepra_obj_t *parent,
                                                        vepra_walk_err_fn pre,
                                                        vepra_walk_err_fn post,
                                                        void *user)
    VEPRA_NOTHROW;
/** @} */

/** @name Cleanup callbacks
 *  @{ */
/** Adds fn(obj, arg) to the callbacks run when the object is cleaned up,
 *  in a free slot or at the end. Errors: the list's, wrapped by "Cannot
 *  register cleanup function".
 *  @param[in,out] obj the object; null fails with APR's text for EINVAL
 *  @param fn the callback
 *  @param arg handed to fn
 *  @return null on success, or the error chain (code 0, or the list's) */
VEPRA_API vepra_error_t *vepra_obj_cleanup_register(vepra_obj_t *obj,
                                                    vepra_obj_cleanup_fn fn,
                                                    void *arg) VEPRA_NOTHROW;
/** Frees the slot of the first registration of fn and returns its node,
 *  or null when there is none.
 *  @param[in,out] obj the object, or null
 *  @param fn the callback to deregister
 *  @return the freed slot node (owned by obj), or null */
VEPRA_API vepra_dl_t *vepra_obj_cleanup_deregister(vepra_obj_t *obj,
                                                   vepra_obj_cleanup_fn fn)
    VEPRA_NOTHROW;
/** @} */

/** @name Signals
 *  Signals are found by a scan of the object's signals in order.
 *  @{ */
/** Adds signal code (flags 0, no destinations). Errors: 120105 "A signal
 *  with code %d already exists.", wrapped by "Cannot add signal to
 *  object.". A null obj fails with code 0 "The object is null.", wrapped
 *  the same way.
 *  @param[in,out] obj the object
 *  @param code the new signal's code
 *  @return null on success, or the error chain (codes 120105, 0) */
VEPRA_API vepra_error_t *vepra_obj_add_signal(vepra_obj_t *obj, unsigned code)
    VEPRA_NOTHROW;
/** Removes signal code with all its connections; queued while it is busy.
 *  An unknown code is ignored.
 *  @param[in,out] obj the object, or null
 *  @param code the signal's code */
VEPRA_API void vepra_obj_remove_signal(vepra_obj_t *obj, unsigned code)
    VEPRA_NOTHROW;
/** ORs the low 16 bits of flags into the signal's flags (setting
 *  VEPRA_SIG_BUSY makes it busy for good). Errors: 120104 "Cannot find
 *  signal with code %d.", wrapped by "Cannot set signal flags.".
 *  @param[in,out] obj the object
 *  @param code the signal's code
 *  @param flags bits to set; bits above 15 are ignored
 *  @return null on success, or the error chain (code 120104) */
VEPRA_API vepra_error_t *vepra_obj_set_signal_flags(vepra_obj_t *obj,
                                                    unsigned code, int flags)
    VEPRA_NOTHROW;
/** Deletes every signal of the object, busy or not, with all connections;
 *  the object can no longer be connected.
 *  @param[in,out] obj the object, or null */
VEPRA_API void vepra_obj_delete_signals(vepra_obj_t *obj) VEPRA_NOTHROW;
/** Connects signal code of src to callback on dest with user pointer usr;
 *  connecting the same callback again only replaces usr. Unless dest is
 *  src, signal 1 of each is also connected to the automatic disconnection
 *  slot towards the other. Queued while the signal is busy. Errors, wrapped
 *  by "Cannot connect objects by signal.": 120104 "Cannot find signal with
 *  code %d." (for signal 1 of either object, the main connection stays);
 *  the allocator's.
 *  @param[in,out] src object whose signal is connected
 *  @param code the signal's code
 *  @param[in,out] dest destination object; null fails with 120104
 *  @param callback the slot function
 *  @param usr handed to callback; not owned
 *  @return null on success, or the error chain (codes 120104, 120012) */
VEPRA_API vepra_error_t *vepra_obj_connect(vepra_obj_t *src, unsigned code,
                                           vepra_obj_t *dest,
                                           vepra_obj_slot_fn callback,
                                           void *usr) VEPRA_NOTHROW;
/** Disconnects slots of src's signal code (negative: every signal): with
 *  dest null every destination; with callback null every slot of dest;
 *  else the first slot of dest with that callback or a disabled one. On a
 *  busy signal it is queued and the matching slots are disabled at once.
 *  Anything missing is ignored. Disconnecting signal 1 (or every signal)
 *  of src from dest also drops src's automatic disconnection slot towards
 *  dest: dest is then no longer told when src is destroyed, so dest's own
 *  connections towards src must be dropped before src goes.
 *  @param[in,out] src object whose signal is disconnected, or null
 *  @param code the signal's code, or negative for every signal
 *  @param dest destination to disconnect, or null for all
 *  @param callback slot function to disconnect, or null for all of dest */
VEPRA_API void vepra_obj_disconnect(vepra_obj_t *src, int code,
                                    vepra_obj_t *dest,
                                    vepra_obj_slot_fn callback) VEPRA_NOTHROW;
/** Calls every enabled slot of every destination of src's signal code, in
 *  connection order, with arg; then replays the changes queued meanwhile.
 *  A nested emission of the same signal is dropped. Errors: 120104 "Cannot
 *  find signal with code %d.", wrapped by "Cannot emit signal."; when a
 *  queued removal removed the signal, the errors of the replay so far.
 *  @param[in,out] src object whose signal is emitted
 *  @param code the signal's code
 *  @param arg handed to every slot
 *  @return null on success (also for a dropped nested emission), or the
 *          error chain (code 120104) */
VEPRA_API vepra_error_t *vepra_obj_emit_signal(vepra_obj_t *src, unsigned code,
                                               void *arg) VEPRA_NOTHROW;
/** Prints the object's signals, destinations and slots to stream.
 *  @param obj the object; null prints nothing
 *  @param stream output stream; null prints nothing */
VEPRA_API void vepra_obj_print_signals(vepra_obj_t *obj, FILE *stream)
    VEPRA_NOTHROW;
/** @} */

/** @name Signal types
 *  Registration and deregistration take the signal-type lock.
 *  @{ */
/** Registers a signal type named by a copy of name (may be null) and
 *  stores its code, from 100 up, in *out. Errors, wrapped by "Cannot
 *  register signal.": 120103 "Object signal type [%s] already exists.";
 *  120001 when the engine is not initialised; APR's.
 *  @param[out] out receives the code, or null
 *  @param name the signal type's name, or null
 *  @return null on success, or the error chain (codes 120103, 120001, 0,
 *          or the list's) */
VEPRA_API vepra_error_t *vepra_objsig_register(unsigned *out, const char *name)
    VEPRA_NOTHROW;
/** Frees the registration of code (unknown codes are ignored). Errors:
 *  120001 or APR's, wrapped by "Cannot deregister signal.".
 *  @param code a code from vepra_objsig_register()
 *  @return null on success, or the error chain (codes 120001, 0) */
VEPRA_API vepra_error_t *vepra_objsig_deregister(unsigned code) VEPRA_NOTHROW;
/** The code of the registered signal type named name, or 0.
 *  @param name name to look up, or null (giving 0)
 *  @return the signal code, or 0 */
VEPRA_API unsigned vepra_objsig_query_type(const char *name) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_OBJ_H */
