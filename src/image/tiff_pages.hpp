// The decoding TIFF reader: one page (directory) of a file in either byte
// order, classic or BigTIFF, in strips or tiles, compressed or not.
#ifndef VEPRA_SRC_IMAGE_TIFF_PAGES_HPP
#define VEPRA_SRC_IMAGE_TIFF_PAGES_HPP

#include <cstdint>

#include "vepra_img.h"

namespace vepra::detail::tiff {

// Reads page `page` (0 first) of the file at path into img under the flags
// of vepra_img_read_ex() (VEPRA_IMG_READ_HEADER: the directory only). On
// failure the record holds nothing and the error is wrapped by "Cannot read
// TIFF image.".
[[nodiscard]] vepra_error_t *read_tiff_page(const char *path, vepra_img_t *img, uint32_t flags,
                                            uint32_t page) noexcept;

}  // namespace vepra::detail::tiff

#endif  // VEPRA_SRC_IMAGE_TIFF_PAGES_HPP
