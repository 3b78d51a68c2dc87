/**
 * @file vepra_error.h
 * @brief Library lifecycle, error records and chains, error types, the
 *        error handler and the malfunction handler.
 *
 * Every function of the library that can fail returns a vepra_error_t
 * pointer: null means success. A failure travels upward as a chain whose
 * head is the outermost context and whose last record is the root cause.
 * The holder of the head owns the chain and frees it with
 * vepra_error_clear().
 */
#ifndef VEPRA_ERROR_H
#define VEPRA_ERROR_H

#include <stdint.h>
#include <stdio.h>

#include <apr_errno.h>
#include <apr_pools.h>

#include "vepra_export.h"

VEPRA_BEGIN_DECL

/**
 * The built-in error codes and their messages, as one list:
 * X(NAME, code, message). It generates the VEPRA_E_* constants below and
 * the library's message table, so the two can never disagree.
 */
#define VEPRA_ERROR_CODE_MAP(X)                                              \
  X(NOT_INITIALIZED, 120001, "VEPRA has not been initialized.")             \
  X(NELEM, 120010, "Incorrect number of elements")                          \
  X(ELEM_SIZE, 120011, "Incorrect element size")                            \
  X(ALLOC, 120012, "Failed to allocate memory")                             \
  X(REALLOC, 120013, "Failed to allocate memory")                           \
  X(MEM_SIZE, 120014, "Incorrect memory size")                              \
  X(ASSERT, 120020, "Assertion failure")                                    \
  X(IO_OPEN, 120030, "IO stream cannot be opened.")                         \
  X(IO_READ, 120031, "Cannot read IO stream.")                              \
  X(IO_WRITE, 120032, "Cannot write to IO stream.")                         \
  X(IO_SEEK, 120033, "Cannot seek IO stream.")                              \
  X(IO_NOT_OPEN, 120034, "The IO stream is not opened.")                    \
  X(IO_URI, 120035, "Unknown URI.")                                         \
  X(IO_EOF, 120036, "End of file found.")                                   \
  X(IO_NOT_IMPL, 120037,                                                    \
    "The call is not implemented of applicable for such IO type.")          \
  X(IO_NOT_INIT, 120038, "The IO stream is not initialized.")               \
  X(DL_INSERT, 120051, "DL insertion error: invalid pointer.")              \
  X(DL_EXCHANGE, 120052, "DL exchange error: invalid pointer.")             \
  X(DL_UPDATE_SIZE, 120053, "Incorrect size of updated DL object.")         \
  X(STRTOK_SEPARATORS, 120060,                                              \
    "Error in strtok: incorrect number of separators.")                     \
  X(STRTOK_NO_DATA, 120061, "Error in strtok: there are no data.")          \
  X(STR_TO_INT, 120062, "Error converting string to integer.")              \
  X(STR_TO_DOUBLE, 120063, "Error converting string to double.")            \
  X(HEX_NO_DIGITS, 120064, "No characters matched when scanning Hex number.") \
  X(HEX_TOO_BIG, 120065, "Hex number is too big.")                          \
  X(BUFFER_SMALL, 120066, "Buffer is too small.")                           \
  X(TRIE_ASSERT1, 120080, "Assert 1.")                                      \
  X(TRIE_ASSERT2, 120081, "Assert 2.")                                      \
  X(TRIE_SUBTRIE_EXISTS, 120082, "Subtrie already exists.")                 \
  X(TRIE_DELETE_NULL, 120083, "Can't delete NULL node in trie.")            \
  X(TRIE_KEY_MISMATCH, 120084, "Keys of leafs do not match.")               \
  X(TRIE_NO_LEAF, 120085, "No leaf with such key.")                         \
  X(TRIE_WRONG_KEY, 120086, "Wrong key of leaf.")                           \
  X(TRIE_LEAF_COUNT, 120087, "Wrong number of leafs.")                      \
  X(TRIE_DELETE1, 120088, "Catastrophe in delete_node 1.")                  \
  X(TRIE_DELETE2, 120089, "Catastrophe in delete_node 2.")                  \
  X(TRIE_DELETE3, 120090, "Catastrophe in delete_node 3.")                  \
  X(TRIE_NODE_TYPE, 120091, "Incorrect node type in trie.")                 \
  X(SIGNAL_NUMBER, 120100, "Invalid signal number.")                        \
  X(OBJTYPE_REGISTERED, 120101,                                             \
    "The name(s) of type is(are) already registered.")                      \
  X(OBJ_CHILD_EXISTS, 120102, "There is already a child with such name.")   \
  X(SIGNAL_REGISTERED, 120103,                                              \
    "There is already registered signal with such name.")                   \
  X(SIGNAL_NOT_FOUND, 120104, "Signal not found.")                          \
  X(SIGNAL_EXISTS, 120105, "Signal already exists.")                        \
  X(SIGNAL_BUSY, 120106, "Signal is busy.")                                 \
  X(SIGNAL_ACTION, 120107, "Unknown signal action.")                        \
  X(TREE_INSERT, 120120, "Tree insertion error: invalid pointer.")          \
  X(CONSOLE_SIZE, 120130, "Can't determine console dimensions.")            \
  X(CONSOLE_READ, 120131, "Can't read character.")                          \
  X(CONSOLE_CHAR, 120132, "Error in character read.")                       \
  X(CONSOLE_HALTED, 120133, "Characters reading halted by user.")           \
  X(SL_ALLOC, 120140, "Can't allocate memory for sllist node.")             \
  X(TIFF_NOT, 120150, "Not TIFF image.")                                    \
  X(TIFF_TAG, 120151, "Invalid TIFF tag.")                                  \
  X(TIFF_STRUCTURE, 120152, "Invalid image structure.")                     \
  X(TIFF_INCOMPLETE, 120153, "The data is not complete.")                   \
  X(IMG_TYPE, 120154, "Image type is unknown.")                             \
  X(CPUID_UNSUPPORTED, 120170, "CPUID is not supported.")                   \
  X(CPUID_LEVEL, 120171, "Thread Level was not reported by Leaf 0xB")       \
  X(CPUID_RESTRICTED, 120172,                                               \
    "CPUID function is restricted (probably in BIOS)")                      \
  X(CPU_AFFINITY_MASK, 120173, "Problem with affinity mask.")               \
  X(CPU_BIND, 120174, "Bind context failed.")                               \
  X(CPU_TOPOLOGY, 120175, "Internal error in CPU topology detection.")      \
  X(UNKNOWN, 120180, "Unknown error.")                                      \
  X(BITARR_SIZE, 120190, "Invalid size of bit array")

/** Built-in error codes: VEPRA_E_NOT_INITIALIZED (120001) and so on. */
enum vepra_error_code {
#define VEPRA_ERROR_CODE_ENUM_(name, code, message) VEPRA_E_##name = code,
  VEPRA_ERROR_CODE_MAP(VEPRA_ERROR_CODE_ENUM_)
#undef VEPRA_ERROR_CODE_ENUM_
  VEPRA_E_FIRST_BUILTIN = 120001,
  VEPRA_E_LAST_BUILTIN = 120190,
  /** First code handed out by vepra_error_register(). */
  VEPRA_E_FIRST_REGISTERED = 125000
};

/** Error types (the type field of a record). */
enum vepra_error_type {
  VEPRA_ERROR_TYPE_ERROR = 0,
  VEPRA_ERROR_TYPE_WARNING = 1,
  VEPRA_ERROR_TYPE_MALFUNCTION = 2,
  VEPRA_ERROR_TYPE_ASSERT = 3,
  VEPRA_ERROR_TYPE_PLAIN = 4
};

/** One record of an error chain. Every record of a chain lives in the pool
 *  of the chain's root cause. */
typedef struct vepra_error_t {
  int32_t type;             /**< vepra_error_type, or any other value */
  int32_t code;             /**< 0, a built-in code or a registered one */
  const char *message;      /**< own text, or null for the code's text */
  const char *file;         /**< base name of the source file, or null */
  int32_t line;             /**< source line, 0 when unknown */
  const char *function;     /**< raising function, or null */
  void *data;               /**< caller's attachment, never freed */
  apr_pool_t *pool;         /**< the chain's pool */
  struct vepra_error_t *next; /**< the cause, null at the root cause */
} vepra_error_t;

/** Printer for vepra_error_handle(): receives one formatted line and the
 *  stream given to the handler. Must not throw.
 *  @param line one formatted record, without newline
 *  @param stream the stream given to vepra_error_handle(), possibly null
 *  @return ignored by vepra_error_handle() */
typedef int (*vepra_error_printer_fn)(const char *line, FILE *stream);

/** Malfunction handler: receives a fatal chain (ownership included). The
 *  default prints it to stderr, clears it and aborts. Must not throw.
 *
 *  A handler may return. Whatever failed is then reported to the caller as
 *  an error all the same, never as success: a creating function hands
 *  back the chain the handler returned, or, when the handler returned
 *  null or memory is too short even for a record, a static out-of-memory
 *  record (type 2, code 0, "Out of memory: the error could not be
 *  recorded.") that lives in no pool. vepra_error_clear() ignores that
 *  record, wrapping it returns it unchanged, vepra_error_handle() prints
 *  it, and the setters leave it as it is.
 *  @param chain the fatal chain; the handler owns it
 *  @return a chain to hand back to the failing caller, or null */
typedef vepra_error_t *(*vepra_error_malfunction_fn)(vepra_error_t *chain);

/** Callback of vepra_error_walk(); its result is ignored.
 *  @param code the record's code
 *  @param message the record's own text, or null
 *  @param file base name of the source file, or null
 *  @param line source line, 0 when unknown
 *  @param function raising function, or null
 *  @param user the pointer given to vepra_error_walk()
 *  @return ignored */
typedef int (*vepra_error_walk_fn)(int code, const char *message,
                                   const char *file, int line,
                                   const char *function, void *user);

/** @name Library state
 *  @{ */
/** Root pool, created by the first vepra_initialize(). */
VEPRA_API extern apr_pool_t *vepra_pool;
/** Initialisation counter (plain, not atomic). */
VEPRA_API extern uint32_t VepraInitialized;
/** Walk-stop sentinel: a walk callback returns it to stop a walk early.
 *  Compare by address; never clear or wrap it. */
VEPRA_API extern vepra_error_t *VepraDLlistStopWalking;
/** @} */

/** Initialises the library; only the first call does work, later calls
 *  count. Returns 0 on success, 1 if APR failed to initialise, 2 if the
 *  root pool could not be made, 3 if the error system failed. A failed
 *  call leaves the counter raised (the failure is not undone), so every
 *  call, failed or not, is matched by one vepra_terminate(). Not thread
 *  safe: call it before other threads use the library. The pools of the
 *  library (vepra_pool and every pool under it) report a failed allocation
 *  to the malfunction handler.
 *  @return 0 on success, or the failure code 1, 2 or 3 */
VEPRA_API int vepra_initialize(void) VEPRA_NOTHROW;
/** Undoes vepra_initialize(); the last call frees the error system, the
 *  root pool and APR. A call while the counter is 0 wraps it around and
 *  does nothing else. */
VEPRA_API void vepra_terminate(void) VEPRA_NOTHROW;
/** Creates the error system under parent (called by vepra_initialize()).
 *  Returns 0, 2 if the error pool could not be made, 4 if the mutex could
 *  not be made.
 *  @param parent pool under which the error pool is made
 *  @return 0 on success, or the failure code 2 or 4 */
VEPRA_API int vepra_error_initialize(apr_pool_t *parent) VEPRA_NOTHROW;
/** Destroys the error system with every chain not yet cleared. A failure to
 *  destroy the mutex goes to the malfunction handler ("Cannot correctly
 *  terminate Vepra error system."). */
VEPRA_API void vepra_error_terminate(void) VEPRA_NOTHROW;

/** @name Creating records
 *  The _i functions take the source location explicitly; use the macros
 *  of the same name without _i, which fill it in. Creating never returns
 *  null: if no pool can be made the malfunction handler receives a fatal
 *  chain ("Cannot create error."); should the handler return, the result
 *  is what it returned or the static out-of-memory record (see
 *  vepra_error_malfunction_fn). A function given a cause takes it over in
 *  every case, failure included.
 *  @{ */
/** One record with the given fields; cause becomes next and its pool is
 *  shared. message is copied (may be null). The caller owns the result.
 *  @param type vepra_error_type value, or any other
 *  @param code 0, a built-in code or a registered one
 *  @param line source line, 0 when unknown
 *  @param file source file, or null; its base name is copied
 *  @param function raising function, or null; copied
 *  @param cause chain this record wraps, or null; taken over
 *  @param message text of the record, or null for the code's text
 *  @return the new head, never null */
VEPRA_API vepra_error_t *vepra_error_create_i(int type, int code, int line,
                                              const char *file,
                                              const char *function,
                                              vepra_error_t *cause,
                                              const char *message)
    VEPRA_NOTHROW;
/** As vepra_error_create_i() with a printf-formatted message (format must
 *  not be null).
 *  @param type vepra_error_type value, or any other
 *  @param code 0, a built-in code or a registered one
 *  @param line source line, 0 when unknown
 *  @param file source file, or null; its base name is copied
 *  @param function raising function, or null; copied
 *  @param cause chain this record wraps, or null; taken over
 *  @param format printf-style format of the message; not null
 *  @param ... arguments of format
 *  @return the new head, never null */
VEPRA_API vepra_error_t *vepra_error_createf_i(int type, int code, int line,
                                               const char *file,
                                               const char *function,
                                               vepra_error_t *cause,
                                               const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(7, 8);
/** A new one-record chain, type 0, code 0, whose message is APR's text for
 *  status.
 *  @param status APR status to describe
 *  @param line source line, 0 when unknown
 *  @param file source file, or null; its base name is copied
 *  @param function raising function, or null; copied
 *  @return the new chain, never null; owned by the caller */
VEPRA_API vepra_error_t *vepra_error_aprwrap_i(apr_status_t status, int line,
                                               const char *file,
                                               const char *function)
    VEPRA_NOTHROW;
/** A new one-record chain, type 0, code 0, whose message is the formatted
 *  text, ": " and APR's text for status; with a null format the record has
 *  no message at all.
 *  @param status APR status to describe
 *  @param line source line, 0 when unknown
 *  @param file source file, or null; its base name is copied
 *  @param function raising function, or null; copied
 *  @param format printf-style format of the leading text, or null
 *  @param ... arguments of format
 *  @return the new chain, never null; owned by the caller */
VEPRA_API vepra_error_t *vepra_error_aprwrapf_i(apr_status_t status, int line,
                                                const char *file,
                                                const char *function,
                                                const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(5, 6);
/** Adds context to cause (not null): a record repeating cause's type and
 *  code, carrying message (or none). Takes over cause; returns the new
 *  head.
 *  @param line source line, 0 when unknown
 *  @param file source file, or null; its base name is copied
 *  @param function raising function, or null; copied
 *  @param cause chain to wrap; not null; taken over
 *  @param message text of the new record (copied), or null
 *  @return the new head, never null */
VEPRA_API vepra_error_t *vepra_error_quick_wrap_i(int line, const char *file,
                                                  const char *function,
                                                  vepra_error_t *cause,
                                                  const char *message)
    VEPRA_NOTHROW;
/** @} */

#if defined(VEPRA_ERROR_NO_LOCATION)
#define VEPRA_ERROR_LOCATION_ 0, NULL, NULL
#else
#define VEPRA_ERROR_LOCATION_ __LINE__, __FILE__, __func__
#endif

/** @name Location-filling macros
 *  They pass the caller's line, file and function to the _i functions;
 *  define VEPRA_ERROR_NO_LOCATION before including this header to make
 *  them pass 0, NULL, NULL instead.
 *  @{ */
/** vepra_error_create_i() at the caller's location. */
#define vepra_error_create(type, code, cause, message) \
  vepra_error_create_i((type), (code), VEPRA_ERROR_LOCATION_, (cause), (message))
/** vepra_error_createf_i() at the caller's location. */
#define vepra_error_createf(type, code, cause, ...) \
  vepra_error_createf_i((type), (code), VEPRA_ERROR_LOCATION_, (cause), __VA_ARGS__)
/** vepra_error_aprwrap_i() at the caller's location. */
#define vepra_error_aprwrap(status) \
  vepra_error_aprwrap_i((status), VEPRA_ERROR_LOCATION_)
/** vepra_error_aprwrapf_i() at the caller's location. */
#define vepra_error_aprwrapf(status, ...) \
  vepra_error_aprwrapf_i((status), VEPRA_ERROR_LOCATION_, __VA_ARGS__)
/** vepra_error_quick_wrap_i() at the caller's location. */
#define vepra_error_quick_wrap(cause, message) \
  vepra_error_quick_wrap_i(VEPRA_ERROR_LOCATION_, (cause), (message))
/** @} */

/** @name Joining, copying and freeing chains
 *  @{ */
/** Joins two chains: null if both are null, the other one if one is null,
 *  else first with second appended (second is freed). Chains that share
 *  records (second is first, or a record of it, or they share a cause) are
 *  refused: the result is then a record of type 0, code 0, "Cannot compose
 *  an error chain with one of its own records." wrapping first, and
 *  clearing it frees both.
 *  @param first chain that becomes the head, or null; taken over
 *  @param second chain appended to first, or null; taken over
 *  @return the joined chain, owned by the caller; null only when both are
 *          null */
VEPRA_API vepra_error_t *vepra_error_compose_create(vepra_error_t *first,
                                                    vepra_error_t *second)
    VEPRA_NOTHROW;
/** Appends a copy of source behind dest's root cause (dest not null), then
 *  frees source. Nothing when source is null, and nothing when source
 *  shares records with dest (appending would make a loop). Should a pool
 *  allocation fail, fewer records are appended.
 *  @param[in,out] dest chain that receives the copies; not null
 *  @param source chain to append, or null; taken over (freed) */
VEPRA_API void vepra_error_compose(vepra_error_t *dest, vepra_error_t *source)
    VEPRA_NOTHROW;
/** Last record of the chain; null for null.
 *  @param chain any record of a chain, or null
 *  @return the root cause, a record of chain (not a copy) */
VEPRA_API vepra_error_t *vepra_error_root_cause(vepra_error_t *chain)
    VEPRA_NOTHROW;
/** Copy of the chain in a new pool; the copy's file and function point at
 *  the original's texts, so it must not outlive a chain that carries a
 *  location. Null for null (a pool is made and left idle all the same).
 *  When no pool can be made the malfunction handler receives "Cannot
 *  duplicate error.", and a returning handler gives what it returned or
 *  the out-of-memory record.
 *  @param chain chain to copy, or null
 *  @return the copy, owned by the caller, or null for a null chain */
VEPRA_API vepra_error_t *vepra_error_dup(const vepra_error_t *chain)
    VEPRA_NOTHROW;
/** Frees the whole chain that record belongs to; nothing for null or for
 *  the out-of-memory record.
 *  @param chain any record of the chain, or null; invalid afterwards */
VEPRA_API void vepra_error_clear(vepra_error_t *chain) VEPRA_NOTHROW;
/** Passes chain to the installed malfunction handler and returns what the
 *  handler returns.
 *  @param chain fatal chain; taken over by the handler
 *  @return what the handler returned (the default handler aborts) */
VEPRA_API vepra_error_t *vepra_error_malfunction(vepra_error_t *chain)
    VEPRA_NOTHROW;
/** Calls callback once a record, head first; the walk cannot be stopped.
 *  @param chain chain to walk, or null for none
 *  @param callback called once per record; not null
 *  @param user handed to every call of callback */
VEPRA_API void vepra_error_walk(vepra_error_t *chain,
                                vepra_error_walk_fn callback, void *user)
    VEPRA_NOTHROW;
/** @} */

/** @name Record fields
 *  @{ */
/** Sets the type of one record (not null).
 *  @param[in,out] record the record to change
 *  @param type vepra_error_type value, or any other */
VEPRA_API void vepra_error_set_type(vepra_error_t *record, int type)
    VEPRA_NOTHROW;
/** Sets the type of every record of the chain; nothing for null.
 *  @param[in,out] chain head of the records to change, or null
 *  @param type vepra_error_type value, or any other */
VEPRA_API void vepra_error_set_type_all(vepra_error_t *chain, int type)
    VEPRA_NOTHROW;
/** Attaches data to one record (not owned); nothing for null.
 *  @param[in,out] record the record to change, or null
 *  @param data the attachment, or null to remove it; never freed */
VEPRA_API void vepra_error_set_data(vepra_error_t *record, void *data)
    VEPRA_NOTHROW;
/** The record's attachment; null for null.
 *  @param record the record, or null
 *  @return the attachment, or null */
VEPRA_API void *vepra_error_get_data(const vepra_error_t *record)
    VEPRA_NOTHROW;
/** The first non-null attachment from the head down; null if none.
 *  @param chain head of the records to search, or null
 *  @return the attachment, or null */
VEPRA_API void *vepra_error_get_data_first(const vepra_error_t *chain)
    VEPRA_NOTHROW;
/** @} */

/** @name Error types, reporting and the malfunction handler
 *  @{ */
/** Registers an error type named name (copied) and writes its code
 *  (125000 upward, lowest free first) to code. Names are not checked for
 *  duplicates. Returns null. Errors: 120020 wrapped by "Cannot register
 *  error type." for a null name (nothing registered, code not written); a
 *  failure of the registry lock goes to the malfunction handler, and a
 *  returning handler's chain (or the out-of-memory record) is returned.
 *  @param[out] code receives the new code; not null
 *  @param name name of the type; copied
 *  @return null on success, or the error chain (codes 120020, or the
 *          malfunction handler's) */
VEPRA_API vepra_error_t *vepra_error_register(int *code, const char *name)
    VEPRA_NOTHROW;
/** Frees the registered code; other codes are ignored. Returns null, or a
 *  chain (code 0, APR's text, wrapped by "Cannot deregister error type.")
 *  if the registry lock could not be taken.
 *  @param code a code returned by vepra_error_register()
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_error_deregister(int code) VEPRA_NOTHROW;
/** Prints every record of chain as one line through printer(line, stream),
 *  head first; a code's text is printed once per chain. Time is linear in
 *  the chain's length. Returns chain unchanged (not freed); null prints
 *  nothing. Cannot fail; over-long lines are cut.
 *  @param chain chain to print, or null; still owned by the caller
 *  @param printer called once per printed line; not null
 *  @param stream handed to printer unchanged
 *  @return chain */
VEPRA_API vepra_error_t *vepra_error_handle(vepra_error_t *chain,
                                            vepra_error_printer_fn printer,
                                            FILE *stream) VEPRA_NOTHROW;
/** Standard printer: writes line and a newline to stream, or to stderr when
 *  stream is null. Returns what fprintf returns.
 *  @param line text to print
 *  @param stream output stream, or null for stderr
 *  @return characters written, or a negative value on failure */
VEPRA_API int vepra_error_stdhandler(const char *line, FILE *stream)
    VEPRA_NOTHROW;
/** Installs handler and returns the previous one; null puts the default
 *  handler back.
 *  @param handler the new handler, or null for the default
 *  @return the handler installed before, never null */
VEPRA_API vepra_error_malfunction_fn vepra_error_set_malfunction_handler(
    vepra_error_malfunction_fn handler) VEPRA_NOTHROW;
/** The installed malfunction handler.
 *  @return the handler, never null */
VEPRA_API vepra_error_malfunction_fn vepra_error_get_malfunction_handler(void)
    VEPRA_NOTHROW;
/** @} */

/** @name Serialization and checksum
 *  @{ */
/** Writes chain as a tpl image of format "A(iissis)" (type, code, message,
 *  file, line, function of each record, root cause first) into a new
 *  buffer: *buf and *length receive it, or null and 0 if it could not be
 *  made. A null chain gives the image of an empty array. The caller frees
 *  *buf with free().
 *  @param chain chain to write, or null
 *  @param[out] buf receives the image, or null when none was made; the
 *         call does nothing more when buf or length is null
 *  @param[out] length receives the image's size in bytes, or 0 */
VEPRA_API void vepra_error_serialize(const vepra_error_t *chain, void **buf,
                                     size_t *length) VEPRA_NOTHROW;
/** Rebuilds a chain from an image of vepra_error_serialize() into *chain
 *  (a new pool under the error system's; file stored as its base name).
 *  An empty, truncated, corrupt or foreign image gives a null chain.
 *  Returns chain (null for a null chain). The caller owns the result.
 *  @param[out] chain receives the rebuilt chain, or null
 *  @param buf image to read, or null (giving a null chain)
 *  @param length bytes of buf
 *  @return chain, or null when chain is null */
VEPRA_API vepra_error_t **vepra_error_deserialize(vepra_error_t **chain,
                                                  const void *buf,
                                                  size_t length) VEPRA_NOTHROW;
/** CRC-16/ARC of the chain, head to root: each record's type, code and line
 *  (4 bytes each, machine order), then message, file and function when
 *  present (without their zero). 0 for null.
 *  @param chain chain to sum, or null
 *  @return the checksum */
VEPRA_API uint16_t vepra_error_crc16(const vepra_error_t *chain) VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_ERROR_H */
