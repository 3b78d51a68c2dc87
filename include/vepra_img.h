/**
 * @file vepra_img.h
 * @brief Grayscale images: TIFF reading and writing, statistics and measures.
 *
 * An image lives in a plain record, vepra_img_t, that the caller owns and
 * the library fills. Its pixel matrices, strip arrays and Software text are
 * allocated with the checked allocation of vepra_mem.h (not in a pool) and
 * belong to the record; vepra_img_free() releases them.
 */
#ifndef VEPRA_IMG_H
#define VEPRA_IMG_H

#include <stdint.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** One grayscale raster. Pixel (r, c) of an 8-bit image is data8[r][c],
 *  of a 16-bit image data16[r][c], for rows 0..height-1 and columns
 *  0..width-1. A read resets every field to zero or null, except
 *  photometric and res_unit, which start at -1 ("absent"). */
typedef struct vepra_img_t {
  uint8_t **data8;              /**< rows of an 8-bit image, else null */
  uint16_t **data16;            /**< rows of a 16-bit image, else null */
  uint32_t type;                /**< 0 unknown, 1 TIFF (set by a successful read) */
  uint32_t height;              /**< number of rows (ImageLength) */
  uint32_t width;               /**< number of columns (ImageWidth) */
  uint32_t samples_per_pixel;   /**< SamplesPerPixel */
  uint32_t bits_per_sample[3];  /**< BitsPerSample; entry 0 is the depth */
  int32_t photometric;          /**< PhotometricInterpretation, -1 absent */
  double xres;                  /**< horizontal pixels per inch, 0 absent */
  double yres;                  /**< vertical pixels per inch, 0 absent */
  char *software;               /**< Software text, or null */
  uint32_t compression;         /**< Compression, stored only */
  uint32_t planar_config;       /**< PlanarConfiguration, stored only */
  uint32_t *strip_offsets;      /**< file offset of each strip */
  int32_t strip_count;          /**< entries in strip_offsets */
  uint32_t *strip_byte_counts;  /**< byte length of each strip */
  uint32_t strip_byte_count_count; /**< entries in strip_byte_counts */
  int32_t res_unit;             /**< ResolutionUnit, -1 absent */
} vepra_img_t;

/** @name Reading
 *  Readers accept little-endian ("II") baseline TIFF with uncompressed
 *  strips; 8- and 16-bit samples become a pixel matrix, other depths read
 *  with no pixels. Resolutions are returned in pixels per inch. After a
 *  failed read the record holds no allocations.
 *  @{ */
/** Reads the image at path into img: checks that the file is TIFF, then
 *  reads its directories and pixels. The record then owns its allocations
 *  (release them with vepra_img_free()). Errors, wrapped by "Cannot read
 *  image.": 120030 (cannot open), 120031, 120033, 120151, 120152, 120153,
 *  120012 and other allocation codes; 120154 (not wrapped) when the file
 *  is not a TIFF this library reads. */
VEPRA_API vepra_error_t *vepra_img_read(const char *path, vepra_img_t *img)
    VEPRA_NOTHROW;
/** Reads only the TIFF directories of path into img (no pixels). Only a
 *  file that cannot be opened is returned as an error (120030, wrapped by
 *  "Cannot read TIFF information from file."); a file that opens but does
 *  not parse is reported by img->type staying 0, with the record released.
 *  On success img->type is 1 and the record owns its strip arrays and
 *  Software text. */
VEPRA_API vepra_error_t *vepra_img_read_tiff_info(const char *path,
                                                  vepra_img_t *img)
    VEPRA_NOTHROW;
/** Reads the TIFF directories and pixels of path into img. Errors, wrapped
 *  by "Cannot read TIFF image.": 120030, 120031 (short read), 120033 (seek),
 *  120150 (not a little-endian TIFF), 0 ("No image data were found."),
 *  120151 (invalid tag), 120152 (resolution unit, strip counts, missing
 *  photometric interpretation), 120153 (strip shorter than its byte count),
 *  and the allocation codes of vepra_mem.h. */
VEPRA_API vepra_error_t *vepra_img_read_tiff(const char *path,
                                             vepra_img_t *img) VEPRA_NOTHROW;
/** Releases what img owns (pixel matrix, strip arrays, Software text) and
 *  nulls those pointers; other fields, type included, are kept. Nothing for
 *  null. */
VEPRA_API void vepra_img_free(vepra_img_t *img) VEPRA_NOTHROW;
/** Writes the resolution of img in pixels per millimetre to xres_mm and
 *  yres_mm. Always returns null. */
VEPRA_API vepra_error_t *vepra_img_get_resmm(const vepra_img_t *img,
                                             double *xres_mm, double *yres_mm)
    VEPRA_NOTHROW;
/** @} */

/** @name Writing
 *  Files are written little-endian and uncompressed, as one strip in one
 *  directory of ten entries carrying the Software text "VEPRA <version>".
 *  Resolutions, the record's own Software text and its strip arrays are not
 *  written. A failed write leaves the partial file behind.
 *  @{ */
/** Writes img (8- or 16-bit; other depths write the directory only) as a
 *  TIFF file at path, created or truncated. Errors, wrapped by "Cannot
 *  write TIFF image.": 120030 (cannot open), 120032 (short write). */
VEPRA_API vepra_error_t *vepra_img_write_tiff(const char *path,
                                              const vepra_img_t *img)
    VEPRA_NOTHROW;
/** Writes the rows x cols matrix arr (arr[r][c] for rows 0..rows-1 and
 *  columns 0..cols-1) as a 16-bit WhiteIsZero TIFF at path, scaled
 *  linearly so that the minimum becomes 0 and the maximum 65535 (all
 *  samples 0 when every value is equal). NaN values are ignored by the
 *  scaling and written as 0. Errors, wrapped by "Cannot convert double
 *  array to TIFF image.": 120030, 120032 and the allocation codes of
 *  vepra_mem.h. */
VEPRA_API vepra_error_t *vepra_img_darr_to_tiff(const char *path,
                                                double **arr, unsigned rows,
                                                unsigned cols) VEPRA_NOTHROW;
/** @} */

/* Statistics and measures. */

/** @name Statistics and measures
 *  Every function below accepts a grayscale record only: one sample per
 *  pixel, photometric interpretation 0 (WhiteIsZero) or 1 (BlackIsZero),
 *  and 8 or 16 bits per sample. Any other record fails with code 0 and
 *  one of "The image is not grayscale.", "The photointerpretation is not
 *  sutable: %d" or "The image is neither 16-bit nor 8-bit grayscale."
 *  (tested in that order); a null record, a null output, or a non-empty
 *  record without its pixel matrix fails with code 0 as well. Each error
 *  is wrapped by the function's own context text, given below; a refused
 *  record leaves every output untouched.
 *  @{ */
/** Counts the pixels of each sample value: 256 bins for an 8-bit image,
 *  65536 for a 16-bit one. *nbins is set to the bin count as soon as the
 *  record is accepted, even if the allocation then fails; *hist receives a
 *  new array of *nbins counters that the caller releases with
 *  vepra_mem_free(). Errors, wrapped by "Cannot create histogram of an
 *  image.": the code-0 record checks above, 120012 (allocation). */
VEPRA_API vepra_error_t *vepra_img_histogram(const vepra_img_t *img,
                                             size_t *nbins, uint64_t **hist)
    VEPRA_NOTHROW;
/** Shannon entropy of the sample values in bits (-sum p log2 p over the
 *  occupied values), between 0 and the depth; 0 for an image without
 *  pixels. Allocates nothing for images of up to 4294967295 pixels.
 *  Errors, wrapped by "Can't calculate entropy for an image.": the code-0
 *  record checks above. */
VEPRA_API vepra_error_t *vepra_img_entropy(const vepra_img_t *img,
                                           double *entropy) VEPRA_NOTHROW;
/** Automatic threshold of a histogram of nbins counters by the iterative
 *  intermeans (IsoData) rule: starting at the first occupied bin, the
 *  split moves up while split + 1 < last occupied bin - 1 and the split
 *  index + 2 does not exceed the mean of the two class means. Both end bins
 *  take part, and the result is that mean of means, not rounded. A
 *  histogram with fewer than two occupied bins gives nbins / 2. Cannot
 *  fail; a null hist is treated as empty. */
VEPRA_API double vepra_img_thres_IJ(size_t nbins, const uint64_t *hist)
    VEPRA_NOTHROW;
/** Writes into mask (at least height rows of width doubles, owned by the
 *  caller) 0.0 for each white pixel (sample 0 under WhiteIsZero, the full
 *  scale 255 or 65535 under BlackIsZero) and 1.0 for every other one.
 *  Errors, wrapped by "Cannot provide image data mask.": the code-0 record
 *  checks above. */
VEPRA_API vepra_error_t *vepra_img_data_dmask(const vepra_img_t *img,
                                              double **mask) VEPRA_NOTHROW;
/** Writes into psl the photo-stimulated luminescence of each pixel as a
 *  Fuji scanner defines it: F * 10^((Q / G - 0.5) * latitude) with
 *  F = (4000 / sensitivity) * (pixel_size^2 / 10000), G the full scale
 *  (255 or 65535) and Q the quantum level (the sample under WhiteIsZero,
 *  G - sample under BlackIsZero). pixel_size is in micrometres, latitude
 *  in decades. A sensitivity of 0 gives infinities, not an error. Errors,
 *  wrapped by "Can't calculate Fuji relative intensity.": the code-0
 *  record checks above. */
VEPRA_API vepra_error_t *vepra_img_calc_fujiri(const vepra_img_t *img,
                                               double **psl,
                                               double pixel_size,
                                               double sensitivity,
                                               double latitude)
    VEPRA_NOTHROW;
/** Writes into density the optical density of each pixel: log10(G / (G -
 *  s)) under WhiteIsZero and log10(G / s) under BlackIsZero, for samples s
 *  below the full scale G; a sample equal to G receives saturated under
 *  both interpretations (so a white BlackIsZero pixel gets saturated, and a
 *  black one, s = 0, gets +infinity). Errors, wrapped by "Can't calculate
 *  optical intensity.": the code-0 record checks above. */
VEPRA_API vepra_error_t *vepra_img_calc_density(const vepra_img_t *img,
                                                double **density,
                                                double saturated)
    VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_IMG_H */
