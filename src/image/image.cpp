// The image record: release, resolution query, the general read entry
// point, and the helpers the TIFF reader and writer share.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/error_internal.hpp"
#include "image/tiff_common.hpp"
#include "vepra_img.h"
#include "vepra_mem.h"

namespace vepra::detail::tiff {

vepra_error_t *open_for_reading(const char *path, const char *context, File *out) noexcept {
  const char *shown = path != nullptr ? path : "(null)";
  // Opening without blocking keeps a FIFO that has no writer from stopping
  // the caller; the descriptor is made blocking again for the reads.
  const int fd = path != nullptr ? open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
  if (fd < 0) return make_wrapped(VEPRA_E_IO_OPEN, context, "Cannot open file '%s'", shown);
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    close(fd);
    return make_wrapped(VEPRA_E_IO_OPEN, context, "Cannot open file '%s': it is a directory",
                        shown);
  }
  const int fl = fcntl(fd, F_GETFL);
  FILE *f = fl != -1 && fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) == 0 ? fdopen(fd, "rb") : nullptr;
  if (f == nullptr) {
    close(fd);
    return make_wrapped(VEPRA_E_IO_OPEN, context, "Cannot open file '%s'", shown);
  }
  out->reset(f);
  return nullptr;
}

vepra_error_t *null_record(const char *context) noexcept {
  return make_wrapped(VEPRA_E_ASSERT, context, "No image record given");
}

void reset(vepra_img_t *img) noexcept {
  std::memset(img, 0, sizeof *img);
  img->photometric = -1;
  img->res_unit = -1;
}

}  // namespace vepra::detail::tiff

namespace {

constexpr const char *kReadContext = "Cannot read image.";

template <typename Sample>
void free_matrix(Sample **&rows, const vepra_img_t *img) noexcept {
  if (rows != nullptr && img->width > 0 && img->height > 0) {
    vepra_mem_matrix_free(rows, sizeof(Sample), 0, static_cast<int>(img->height - 1), 0);
    rows = nullptr;
  }
}

}  // namespace

extern "C" {

void vepra_img_free(vepra_img_t *img) noexcept {
  if (img == nullptr) return;
  free_matrix(img->data8, img);
  free_matrix(img->data16, img);
  vepra_mem_free(img->strip_byte_counts);
  img->strip_byte_counts = nullptr;
  vepra_mem_free(img->strip_offsets);
  img->strip_offsets = nullptr;
  vepra_mem_free(img->software);
  img->software = nullptr;
}

vepra_error_t *vepra_img_get_resmm(const vepra_img_t *img, double *xres_mm,
                                   double *yres_mm) noexcept {
  if (img == nullptr) return nullptr;
  if (xres_mm != nullptr) *xres_mm = img->xres / 25.4;
  if (yres_mm != nullptr) *yres_mm = img->yres / 25.4;
  return nullptr;
}

vepra_error_t *vepra_img_read(const char *path, vepra_img_t *img) noexcept {
  if (img == nullptr) return vepra::detail::tiff::null_record(kReadContext);
  // The information pass fails loudly only when the file cannot be opened;
  // a file it cannot parse leaves the type unknown.
  vepra_error_t *e = vepra_img_read_tiff_info(path, img);
  if (e != nullptr && e->code == VEPRA_E_TIFF_NOT) {
    vepra_error_clear(e);
    e = nullptr;
  }
  if (e != nullptr) return vepra::detail::wrap_error(e, "%s", kReadContext);
  if (img->type != 1) return vepra::detail::make_error(VEPRA_E_IMG_TYPE);
  vepra_img_free(img);
  VEPRA_RETURN_IF_ERROR(vepra_img_read_tiff(path, img), "%s", kReadContext);
  return nullptr;
}

}  // extern "C"
