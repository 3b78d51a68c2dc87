// Signals and slots: per-object arrays of signal records, destination
// tables keyed by the destination's address, queued changes while a signal
// is being emitted, and the automatic disconnection slot.
#include "object/obj_internal.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/error_internal.hpp"
#include "vepra_mem.h"

using namespace vepra::detail;

static_assert(sizeof(osig) == 24, "osig is part of the interface");
static_assert(sizeof(osigact) == 40, "osigact is part of the interface");
static_assert(sizeof(oslot) == 16, "oslot is part of the interface");

extern "C" {
const UT_icd osig_icd = {sizeof(osig), nullptr, nullptr, osig_dtor};
const UT_icd osigact_icd = {sizeof(osigact), nullptr, nullptr, nullptr};
const UT_icd oslot_icd = {sizeof(oslot), nullptr, nullptr, nullptr};
}

namespace {

// The engine's frames on this thread, innermost first. Emissions push one
// each, so the model is initial-exec: a plain load off the thread pointer.
[[gnu::tls_model("initial-exec")]] constinit thread_local Frame *t_frames = nullptr;

constexpr const char *kConnect = "Cannot connect objects by signal.";

vepra_error_t *signal_not_found(const char *context, unsigned code) noexcept {
  return make_wrapped(VEPRA_E_SIGNAL_NOT_FOUND, context, "Cannot find signal with code %d.",
                      static_cast<int>(code));
}

// Tells the emissions of obj running on this thread that its signals array
// changed shape (gone: was deleted).
void reshaped(const vepra_obj_t *obj, bool gone) noexcept {
  for (Frame *f = t_frames; f != nullptr; f = f->prev) {
    if (f->kind != Frame::kEmission || f->obj != obj) continue;
    f->changed = true;
    if (gone) f->gone = true;
  }
}

void free_dest(osigdest *d) noexcept {
  utarray_free(d->slots);
  vepra_mem_free(d);
}

osigdest *find_dest(osig *sig, vepra_obj_t *dest) noexcept {
  osigdest *d = nullptr;
  HASH_FIND_PTR(sig->destinations, &dest, d);
  return d;
}

void remove_dest(osig *sig, osigdest *d) noexcept {
  HASH_DEL(sig->destinations, d);
  free_dest(d);
}

oslot *slot_at(UT_array *slots, unsigned i) noexcept {
  return static_cast<oslot *>(utarray_eltptr(slots, i));
}

void queue(osig *sig, uint32_t action, int32_t code, vepra_obj_t *src, vepra_obj_t *dest,
           void *usr, vepra_obj_slot_fn callback) noexcept {
  if (sig->actions == nullptr) utarray_new(sig->actions, &osigact_icd);
  osigact act{action, code, src, dest, usr, callback};
  utarray_push_back(sig->actions, &act);
}

void obj_autodel_callback(vepra_obj_t *src, unsigned, vepra_obj_t *dest, void *, void *) {
  vepra_obj_disconnect(dest, -1, src, nullptr);
}

// Disables at once the slots that a disconnection queued on a busy signal
// will remove, so that the running emission skips them.
void disable(osig *sig, vepra_obj_t *dest, vepra_obj_slot_fn callback) noexcept {
  if (dest == nullptr) {
    for (auto *d = sig->destinations; d != nullptr; d = static_cast<osigdest *>(d->hh.next))
      for (unsigned i = 0; i < utarray_len(d->slots); ++i) slot_at(d->slots, i)->callback = nullptr;
    return;
  }
  osigdest *d = find_dest(sig, dest);
  if (d == nullptr) return;
  for (unsigned i = 0; i < utarray_len(d->slots); ++i) {
    oslot *s = slot_at(d->slots, i);
    if (callback == nullptr) {
      s->callback = nullptr;
    } else if (s->callback == callback) {
      s->callback = nullptr;
      return;
    }
  }
}

void disconnect_now(osig *sig, vepra_obj_t *dest, vepra_obj_slot_fn callback) noexcept {
  if (dest == nullptr) {
    osigdest *d, *tmp;
    HASH_ITER(hh, sig->destinations, d, tmp) { remove_dest(sig, d); }
    return;
  }
  osigdest *d = find_dest(sig, dest);
  if (d == nullptr) return;
  if (callback == nullptr) {
    remove_dest(sig, d);
    return;
  }
  // A slot left disabled by an earlier emission matches as well.
  for (unsigned i = 0; i < utarray_len(d->slots); ++i) {
    oslot *s = slot_at(d->slots, i);
    if (s->callback == callback || s->callback == nullptr) {
      utarray_erase(d->slots, i, 1);
      return;
    }
  }
}

// Every object holding a connection towards obj has a live automatic
// disconnection slot under obj's signal 1 (sig). Before that signal goes
// away they are told to forget obj, as its emission would have: otherwise
// they would keep obj's address after obj is gone. Emitting signal 1 on
// destruction reached them already unless that emission was dropped.
void release_peers(vepra_obj_t *obj, osig *sig) noexcept {
  for (auto *d = sig->destinations; d != nullptr; d = static_cast<osigdest *>(d->hh.next)) {
    bool live = false;
    for (unsigned i = 0; i < utarray_len(d->slots) && !live; ++i)
      live = slot_at(d->slots, i)->callback == obj_autodel_callback;
    if (live && d->dest != obj) vepra_obj_disconnect(d->dest, -1, obj, nullptr);
  }
}

// Replays the actions queued during an emission of src's signal code, now
// idle. Returns the errors of the replay only when a queued removal took the
// signal away; otherwise they are dropped.
vepra_error_t *replay(vepra_obj_t *src, unsigned code, UT_array *acts) noexcept {
  vepra_error_t *chain = nullptr;
  for (unsigned i = 0; i < utarray_len(acts); ++i) {
    const osigact a = *static_cast<osigact *>(utarray_eltptr(acts, i));
    switch (a.action) {
      case OSIGACT_CONNECT:
        if (vepra_error_t *e = vepra_obj_connect(a.src, static_cast<unsigned>(a.code), a.dest,
                                                 a.callback, a.usr))
          chain = vepra_error_compose_create(e, chain);
        break;
      case OSIGACT_DISCONNECT:
        vepra_obj_disconnect(a.src, a.code, a.dest, a.callback);
        break;
      case OSIGACT_REMOVE:
        vepra_obj_remove_signal(a.src, static_cast<unsigned>(a.code));
        if (a.src == src && find_signal(src, code) == nullptr) {
          utarray_free(acts);
          return chain;
        }
        break;
      default:
        chain = vepra_error_compose_create(make_error(VEPRA_E_SIGNAL_ACTION), chain);
        break;
    }
  }
  utarray_free(acts);
  vepra_error_clear(chain);
  return nullptr;
}

}  // namespace

namespace vepra::detail {

void obj_out_of_memory() noexcept { std::exit(-1); }

void push_frame(Frame *frame) noexcept {
  frame->prev = t_frames;
  t_frames = frame;
}

void pop_frame(Frame *frame) noexcept { t_frames = frame->prev; }

bool being_cleaned(const vepra_obj_t *obj) noexcept {
  for (Frame *f = t_frames; f != nullptr; f = f->prev)
    if (f->kind == Frame::kCleanup && f->obj == obj) return true;
  return false;
}

osig *find_signal(vepra_obj_t *obj, uint32_t code) noexcept {
  if (obj == nullptr || obj->signals == nullptr) return nullptr;
  auto *s = static_cast<osig *>(static_cast<void *>(obj->signals->d));
  for (auto *end = s + utarray_len(obj->signals); s != end; ++s)
    if (s->code == code) return s;
  return nullptr;
}

void forget_signals_of(vepra_obj_t *obj) noexcept {
  vepra_obj_delete_signals(obj);
  for (Frame *f = t_frames; f != nullptr; f = f->prev) {
    if (f->kind != Frame::kEmission || f->gone) continue;
    osig *sig = find_signal(f->obj, f->code);
    if (sig == nullptr || sig->actions == nullptr) continue;
    for (unsigned i = utarray_len(sig->actions); i-- > 0;) {
      auto *a = static_cast<osigact *>(utarray_eltptr(sig->actions, i));
      if (a->action == OSIGACT_CONNECT && a->dest == obj) utarray_erase(sig->actions, i, 1);
    }
  }
}

}  // namespace vepra::detail

extern "C" {

void osig_dtor(void *p) noexcept {
  auto *sig = static_cast<osig *>(p);
  osigdest *d, *tmp;
  HASH_ITER(hh, sig->destinations, d, tmp) { remove_dest(sig, d); }
  if (sig->actions != nullptr) {
    utarray_free(sig->actions);
    sig->actions = nullptr;
  }
}

vepra_error_t *vepra_obj_add_signal(vepra_obj_t *obj, unsigned code) noexcept {
  if (obj == nullptr)
    return make_wrapped(0, "Cannot add signal to object.", "The object is null.");
  if (obj->signals == nullptr) utarray_new(obj->signals, &osig_icd);
  if (find_signal(obj, code) != nullptr)
    return make_wrapped(VEPRA_E_SIGNAL_EXISTS, "Cannot add signal to object.",
                        "A signal with code %d already exists.", static_cast<int>(code));
  osig sig{code, 0, nullptr, nullptr};
  utarray_push_back(obj->signals, &sig);
  reshaped(obj, false);
  return nullptr;
}

void vepra_obj_remove_signal(vepra_obj_t *obj, unsigned code) noexcept {
  osig *sig = find_signal(obj, code);
  if (sig == nullptr) return;
  if ((sig->flags & VEPRA_SIG_BUSY) != 0) {
    queue(sig, OSIGACT_REMOVE, static_cast<int32_t>(code), obj, nullptr, nullptr, nullptr);
    return;
  }
  if (code == VEPRA_SIG_DESTROY) release_peers(obj, sig);
  auto *base = static_cast<osig *>(static_cast<void *>(obj->signals->d));
  utarray_erase(obj->signals, static_cast<unsigned>(sig - base), 1);
  reshaped(obj, false);
}

vepra_error_t *vepra_obj_set_signal_flags(vepra_obj_t *obj, unsigned code, int flags) noexcept {
  osig *sig = find_signal(obj, code);
  if (sig == nullptr) return signal_not_found("Cannot set signal flags.", code);
  sig->flags = static_cast<uint16_t>(sig->flags | (static_cast<unsigned>(flags) & 0xFFFFu));
  return nullptr;
}

void vepra_obj_delete_signals(vepra_obj_t *obj) noexcept {
  if (obj == nullptr || obj->signals == nullptr) return;
  if (osig *sig = find_signal(obj, VEPRA_SIG_DESTROY)) release_peers(obj, sig);
  UT_array *signals = obj->signals;
  obj->signals = nullptr;
  reshaped(obj, true);
  utarray_free(signals);
}

vepra_error_t *vepra_obj_connect(vepra_obj_t *src, unsigned code, vepra_obj_t *dest,
                                 vepra_obj_slot_fn callback, void *usr) noexcept {
  osig *sig = find_signal(src, code);
  if (sig == nullptr) return signal_not_found(kConnect, code);
  if ((sig->flags & VEPRA_SIG_BUSY) != 0) {
    queue(sig, OSIGACT_CONNECT, static_cast<int32_t>(code), src, dest, usr, callback);
    return nullptr;
  }
  // A null destination has no signal 1 to clean the connection up with.
  if (dest == nullptr) return signal_not_found(kConnect, VEPRA_SIG_DESTROY);
  oslot slot{usr, callback};
  if (osigdest *d = find_dest(sig, dest)) {
    oslot *same = nullptr;
    for (unsigned i = 0; i < utarray_len(d->slots) && same == nullptr; ++i)
      if (slot_at(d->slots, i)->callback == callback) same = slot_at(d->slots, i);
    if (same != nullptr)
      same->usr = usr;
    else
      utarray_push_back(d->slots, &slot);
  } else {
    void *mem = nullptr;
    VEPRA_RETURN_IF_ERROR(vepra_mem_malloc(sizeof(osigdest), &mem), "%s", kConnect);
    std::memset(mem, 0, sizeof(osigdest));
    d = static_cast<osigdest *>(mem);
    d->dest = dest;
    utarray_new(d->slots, &oslot_icd);
    utarray_push_back(d->slots, &slot);
    HASH_ADD_PTR(sig->destinations, dest, d);
  }
  if (dest == src) return nullptr;
  if (code == VEPRA_SIG_DESTROY && callback == obj_autodel_callback) return nullptr;
  VEPRA_RETURN_IF_ERROR(
      vepra_obj_connect(dest, VEPRA_SIG_DESTROY, src, obj_autodel_callback, nullptr), "%s",
      kConnect);
  VEPRA_RETURN_IF_ERROR(
      vepra_obj_connect(src, VEPRA_SIG_DESTROY, dest, obj_autodel_callback, nullptr), "%s",
      kConnect);
  return nullptr;
}

void vepra_obj_disconnect(vepra_obj_t *src, int code, vepra_obj_t *dest,
                          vepra_obj_slot_fn callback) noexcept {
  if (src == nullptr || src->signals == nullptr) return;
  for (unsigned i = 0; i < utarray_len(src->signals); ++i) {
    auto *sig = static_cast<osig *>(utarray_eltptr(src->signals, i));
    if (code >= 0 && sig->code != static_cast<uint32_t>(code)) continue;
    if ((sig->flags & VEPRA_SIG_BUSY) != 0) {
      queue(sig, OSIGACT_DISCONNECT, code, src, dest, nullptr, callback);
      disable(sig, dest, callback);
    } else {
      disconnect_now(sig, dest, callback);
    }
  }
}

vepra_error_t *vepra_obj_emit_signal(vepra_obj_t *src, unsigned code, void *arg) noexcept {
  osig *sig = find_signal(src, code);
  if (sig == nullptr) return signal_not_found("Cannot emit signal.", code);
  if ((sig->flags & VEPRA_SIG_BUSY) != 0) return nullptr;
  sig->flags |= VEPRA_SIG_BUSY;
  Frame frame;
  frame.obj = src;
  frame.code = code;
  push_frame(&frame);
  for (osigdest *d = sig->destinations, *next; d != nullptr; d = next) {
    next = static_cast<osigdest *>(d->hh.next);
    for (unsigned i = 0; i < utarray_len(d->slots); ++i) {
      const oslot *s = slot_at(d->slots, i);
      if (s->callback == nullptr) continue;
      s->callback(src, code, d->dest, s->usr, arg);
      // A slot deleted src's signals (or destroyed src): nothing of the
      // emission is left to touch.
      if (frame.gone) {
        pop_frame(&frame);
        return nullptr;
      }
    }
  }
  pop_frame(&frame);
  // A slot may have moved the records by adding or removing other signals.
  if (frame.changed && (sig = find_signal(src, code)) == nullptr) return nullptr;
  sig->flags = static_cast<uint16_t>(sig->flags & ~VEPRA_SIG_BUSY);
  if (sig->actions == nullptr) return nullptr;
  UT_array *acts = sig->actions;
  sig->actions = nullptr;
  return replay(src, code, acts);
}

void vepra_obj_print_signals(vepra_obj_t *obj, FILE *stream) noexcept {
  if (obj == nullptr || obj->signals == nullptr || stream == nullptr) return;
  auto name = [](const vepra_obj_t *o) { return o->name != nullptr ? o->name : "(null)"; };
  std::fprintf(stream, "Object %s (%p) has %d signal(s).\n", name(obj), static_cast<void *>(obj),
               static_cast<int>(utarray_len(obj->signals)));
  for (unsigned i = 0; i < utarray_len(obj->signals); ++i) {
    auto *sig = static_cast<osig *>(utarray_eltptr(obj->signals, i));
    std::fprintf(stream, " Signal %d (flags=%u) has %u destination(s).\n",
                 static_cast<int>(sig->code), static_cast<unsigned>(sig->flags),
                 static_cast<unsigned>(HASH_COUNT(sig->destinations)));
    for (auto *d = sig->destinations; d != nullptr; d = static_cast<osigdest *>(d->hh.next)) {
      if (d->slots == nullptr) continue;
      std::fprintf(stream, "  Destination %s (%p) has %d slots(s).\n", name(d->dest),
                   static_cast<void *>(d->dest), static_cast<int>(utarray_len(d->slots)));
      for (unsigned k = 0; k < utarray_len(d->slots); ++k) {
        const oslot *s = slot_at(d->slots, k);
        void *cb = reinterpret_cast<void *>(s->callback);
        if (s->callback == obj_autodel_callback)
          std::fprintf(stream, "   Slot> usr: %p callback: %p (autodel)\n", s->usr, cb);
        else
          std::fprintf(stream, "   Slot> usr: %p callback: %p\n", s->usr, cb);
      }
    }
  }
}

}  // extern "C"
