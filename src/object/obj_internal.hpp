// Shared pieces of the object engine. Include this before any other header
// in the engine's sources: it points uthash's out-of-memory hooks at the
// engine's own handler before utarray.h and uthash.h are read.
#ifndef VEPRA_SRC_OBJECT_OBJ_INTERNAL_HPP
#define VEPRA_SRC_OBJECT_OBJ_INTERNAL_HPP

#include <cstdint>

namespace vepra::detail {
// Memory ran out inside a uthash array or table: ends the process with exit
// status -1. The one place where uthash failures go.
[[noreturn]] void obj_out_of_memory() noexcept;
}  // namespace vepra::detail

#define utarray_oom() ::vepra::detail::obj_out_of_memory()
#define uthash_fatal(msg) ::vepra::detail::obj_out_of_memory()

#include <utarray.h>
#include <uthash.h>

#include "vepra_obj.h"

// One destination of a signal: the slots connected on one object, in a
// uthash table keyed by the object's address.
struct osigdest {
  vepra_obj_t *dest;
  UT_array *slots;  // of oslot, in connection order
  UT_hash_handle hh;
};

namespace vepra::detail {

// The record of a signal code of obj, the first in array order; null when
// obj, its signals or the code are missing.
osig *find_signal(vepra_obj_t *obj, uint32_t code) noexcept;

// Deletes every signal of obj (vepra_obj_delete_signals()) and forgets the
// queued connections towards obj in the emissions running on this thread,
// so that no replay reaches obj after it is gone.
void forget_signals_of(vepra_obj_t *obj) noexcept;

// A frame of the engine's per-thread stack: an emission of obj's signal
// code in progress, or obj's cleanup in progress. Operations that reshape
// or delete obj's signals mark the emission frames of obj, so that the
// running emission looks its record up again or stops.
struct Frame {
  enum Kind : uint8_t { kEmission, kCleanup };
  vepra_obj_t *obj = nullptr;
  uint32_t code = 0;
  Kind kind = kEmission;
  bool changed = false;  // obj's signals array moved or lost a record
  bool gone = false;     // obj's signals were deleted
  Frame *prev = nullptr;
};

void push_frame(Frame *frame) noexcept;
void pop_frame(Frame *frame) noexcept;

// Marks obj as being cleaned up on this thread for the guard's lifetime, so
// that a nested destroy or cleanup of obj does nothing.
class CleanupGuard {
 public:
  explicit CleanupGuard(vepra_obj_t *obj) noexcept {
    frame_.obj = obj;
    frame_.kind = Frame::kCleanup;
    push_frame(&frame_);
  }
  ~CleanupGuard() { pop_frame(&frame_); }
  CleanupGuard(const CleanupGuard &) = delete;
  CleanupGuard &operator=(const CleanupGuard &) = delete;

 private:
  Frame frame_;
};

// True while obj's cleanup runs on this thread.
bool being_cleaned(const vepra_obj_t *obj) noexcept;

}  // namespace vepra::detail

#endif  // VEPRA_SRC_OBJECT_OBJ_INTERNAL_HPP
