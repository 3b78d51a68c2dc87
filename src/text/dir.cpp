// Directory traversal with composite patterns.
//
// The walk is iterative: the subdirectories still to visit are kept on a
// heap stack of frames (one frame per directory level, holding that
// directory's subdirectories in read order), so a deep tree costs heap
// memory, never stack. The visiting order is the one of a recursive walk:
// the files of a directory first, then each of its subdirectories, depth
// first. Entries are read asking APR for the name and the type only, which
// on file systems that store the type in the directory costs no stat.
#include <cstring>
#include <type_traits>

#include <apr_file_info.h>
#include <apr_fnmatch.h>
#include <apr_strings.h>
#include <apr_tables.h>

#include "core/error_internal.hpp"
#include "vepra_dir.h"
#include "vepra_mem.h"

namespace {

using vepra::detail::make_error;
using vepra::detail::wrap_error;

vepra_error_t *fail(vepra_error_t *cause) noexcept {
  return wrap_error(cause, "Cannot traverse directories.");
}

vepra_error_t *fail_status(apr_status_t status) noexcept {
  return vepra::detail::apr_wrapped(status, "Cannot traverse directories.");
}

// A growable array of plain values in vepra_mem memory, so that running
// out of memory is an error record rather than an exception.
template <typename T>
class HeapVector {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  HeapVector() = default;
  HeapVector(const HeapVector &) = delete;
  HeapVector &operator=(const HeapVector &) = delete;
  ~HeapVector() { vepra_mem_free(data_); }

  vepra_error_t *append(const T *items, size_t n) noexcept {
    if (n > cap_ - size_) {
      size_t cap = cap_ == 0 ? 64 : cap_;
      while (cap - size_ < n) {
        if (cap > SIZE_MAX / 2 / sizeof(T)) return make_error(VEPRA_E_REALLOC);
        cap *= 2;
      }
      void *p = data_;
      if (vepra_error_t *e = vepra_mem_realloc(cap * sizeof(T), &p)) return e;
      data_ = static_cast<T *>(p);
      cap_ = cap;
    }
    std::memcpy(data_ + size_, items, n * sizeof(T));
    size_ += n;
    return nullptr;
  }
  vepra_error_t *push(const T &item) noexcept { return append(&item, 1); }
  void truncate(size_t n) noexcept { size_ = n < size_ ? n : size_; }
  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T *data() noexcept { return data_; }
  T &operator[](size_t i) noexcept { return data_[i]; }
  T &back() noexcept { return data_[size_ - 1]; }

 private:
  T *data_ = nullptr;
  size_t size_ = 0;
  size_t cap_ = 0;
};

// Splits a composite pattern on ";" into a new array of pieces in pool;
// empty pieces vanish.
apr_array_header_t *compile_pattern(const char *composite, apr_pool_t *pool) noexcept {
  apr_array_header_t *pieces = apr_array_make(pool, 4, sizeof(const char *));
  char *copy = apr_pstrdup(pool, composite);
  char *state = nullptr;
  for (char *piece = apr_strtok(copy, ";", &state); piece != nullptr;
       piece = apr_strtok(nullptr, ";", &state))
    *static_cast<const char **>(apr_array_push(pieces)) = piece;
  return pieces;
}

// True when path matches any piece of the array, tried in array order.
bool match_composite(const char *path, const apr_array_header_t *pieces, int flags) noexcept {
  const auto *items = reinterpret_cast<const char *const *>(pieces->elts);
  for (int i = 0; i < pieces->nelts; ++i)
    if (items[i] != nullptr && apr_fnmatch(items[i], path, flags) == APR_SUCCESS) return true;
  return false;
}

bool is_dot_or_dotdot(const char *name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

class Walker {
 public:
  Walker(vepra_dir_options_t *options, apr_pool_t *dir_pool, apr_pool_t *entry_pool) noexcept
      : options_(options), dir_pool_(dir_pool), entry_pool_(entry_pool) {}

  // Visits root and, with the recursive flag, everything below it.
  vepra_error_t *run(const char *root) noexcept {
    if (vepra_error_t *e = visit(root)) return e;
    while (!frames_.empty() && !stopped_) {
      Frame &top = frames_.back();
      if (top.next == top.count) {
        paths_.truncate(top.first);
        text_.truncate(top.text_mark);
        frames_.truncate(frames_.size() - 1);
        continue;
      }
      size_t offset = paths_[top.first + top.next++];
      // The pending text may move while the subdirectory adds its own
      // pending entries, so the path is read from a copy.
      current_.truncate(0);
      const char *path = text_.data() + offset;
      if (vepra_error_t *e = current_.append(path, std::strlen(path) + 1)) return fail(e);
      if (vepra_error_t *e = visit(current_.data())) return e;
    }
    return nullptr;
  }

 private:
  struct Frame {
    size_t first;      // index of the first pending path in paths_
    size_t count;      // number of pending paths of this level
    size_t next;       // the next one to visit
    size_t text_mark;  // size of text_ before this level's paths
  };

  // Reads one directory: reports its matching files and, with the
  // recursive flag, pushes a frame of its subdirectories.
  vepra_error_t *visit(const char *dir) noexcept {
    apr_pool_clear(dir_pool_);
    apr_dir_t *handle = nullptr;
    apr_status_t status = apr_dir_open(&handle, dir, dir_pool_);
    if (status != APR_SUCCESS)
      return fail(vepra_error_aprwrapf_i(status, 0, nullptr, nullptr, "(%s)", dir));

    const bool recursive = (options_->flags & VEPRA_DIR_RECURSIVE) != 0;
    const size_t first = paths_.size();
    const size_t text_mark = text_.size();
    vepra_error_t *err = read_entries(handle, dir, recursive);
    status = apr_dir_close(handle);
    if (err == nullptr && status != APR_SUCCESS) err = fail_status(status);
    if (err == nullptr && recursive && paths_.size() > first)
      if (vepra_error_t *e = frames_.push(Frame{first, paths_.size() - first, 0, text_mark}))
        err = fail(e);
    return err;
  }

  vepra_error_t *read_entries(apr_dir_t *handle, const char *dir, bool recursive) noexcept {
    const int match_flags = static_cast<int>(options_->flags & 0x0F);
    apr_finfo_t info;
    for (;;) {
      apr_pool_clear(entry_pool_);
      info.name = nullptr;
      info.filetype = APR_NOFILE;
      apr_status_t status = apr_dir_read(&info, APR_FINFO_NAME | APR_FINFO_TYPE, handle);
      if (APR_STATUS_IS_ENOENT(status)) return nullptr;
      if (info.name == nullptr) {
        vepra_error_t *warning = make_error(0, "info.name is NULL");
        vepra_error_set_type(warning, VEPRA_ERROR_TYPE_WARNING);
        vepra_error_clear(vepra_error_handle(warning, vepra_error_stdhandler, stdout));
        // A failed read of the directory stream would fail the same way
        // again; the directory ends here instead of spinning.
        if (status != APR_SUCCESS && status != APR_INCOMPLETE) return nullptr;
        continue;
      }
      if (recursive && info.filetype == APR_DIR) {
        if (is_dot_or_dotdot(info.name)) continue;
        char *sub = nullptr;
        apr_status_t s = apr_filepath_merge(&sub, dir, info.name, APR_FILEPATH_NATIVE, entry_pool_);
        if (s != APR_SUCCESS) return fail_status(s);
        vepra_error_t *e = paths_.push(text_.size());
        if (e == nullptr) e = text_.append(sub, std::strlen(sub) + 1);
        if (e != nullptr) return fail(e);
        continue;
      }
      if (status != APR_SUCCESS) continue;
      if (info.filetype != APR_REG && info.filetype != APR_LNK) continue;

      char *path = nullptr;
      apr_status_t s = apr_filepath_merge(&path, dir, info.name, APR_FILEPATH_NATIVE, entry_pool_);
      if (s != APR_SUCCESS) return fail_status(s);
      if (options_->include != nullptr && !match_composite(path, options_->include, match_flags))
        continue;
      if (options_->exclude != nullptr && match_composite(path, options_->exclude, match_flags))
        continue;
      if (options_->callback == nullptr) continue;

      vepra_error_t *e = options_->callback(path, options_->user, entry_pool_);
      if (e == nullptr) continue;
      if (e == VepraDLlistStopWalking) {
        // The walk-stop sentinel ends the walk as a success; it is never
        // printed, wrapped or cleared.
        stopped_ = true;
        return nullptr;
      }
      if ((options_->flags & VEPRA_DIR_STOP_ON_ERROR) != 0) return fail(e);
      vepra_error_clear(vepra_error_handle(e, vepra_error_stdhandler, stdout));
    }
  }

  vepra_dir_options_t *options_;
  apr_pool_t *dir_pool_;    // holds the open directory, cleared per directory
  apr_pool_t *entry_pool_;  // holds one entry's path, cleared per entry
  HeapVector<char> text_;   // pending subdirectory paths, NUL-terminated
  HeapVector<size_t> paths_;  // offsets of the pending paths in text_
  HeapVector<Frame> frames_;
  HeapVector<char> current_;  // the directory being read
  bool stopped_ = false;
};

}  // namespace

extern "C" {

vepra_error_t *vepra_dir_traverse(const char *dir, const char *include, const char *exclude,
                                  vepra_dir_options_t *options, apr_pool_t *pool) noexcept {
  if (dir == nullptr || options == nullptr || pool == nullptr) return fail_status(APR_EINVAL);
  if (include != nullptr) options->include = compile_pattern(include, pool);
  if (exclude != nullptr) options->exclude = compile_pattern(exclude, pool);

  apr_pool_t *dir_pool = nullptr;
  apr_pool_t *entry_pool = nullptr;
  apr_status_t status = apr_pool_create(&dir_pool, pool);
  if (status == APR_SUCCESS) status = apr_pool_create(&entry_pool, pool);
  if (status != APR_SUCCESS) {
    if (dir_pool != nullptr) apr_pool_destroy(dir_pool);
    return fail_status(status);
  }
  vepra_error_t *err = nullptr;
  {
    Walker walker(options, dir_pool, entry_pool);
    err = walker.run(dir);
  }
  apr_pool_destroy(entry_pool);
  apr_pool_destroy(dir_pool);
  return err;
}

}  // extern "C"
