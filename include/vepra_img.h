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
 *  strips (vepra_img_read_ex() with VEPRA_IMG_READ_STRICT decodes far
 *  more); 8- and 16-bit samples become a pixel matrix, other depths read
 *  with no pixels. Every directory of a file is visited, a tag met again
 *  overwriting what an earlier directory stored. Resolutions are returned
 *  in pixels per inch (ResolutionUnit 2, or 3 converted; 120152 for any
 *  other unit). After a failed read the record holds no allocations.
 *
 *  Deliberate readings, where the literal TIFF rule would misread real
 *  files: a StripOffsets or StripByteCounts entry with two SHORT values
 *  takes both from the value field itself; a BitsPerSample value field
 *  above 32 with count 1 or 2 holds the values in place (low half first)
 *  rather than an offset; the Software text is always read at the offset
 *  in its value field. Compression, SamplesPerPixel and
 *  PlanarConfiguration are stored but not interpreted (strips are copied
 *  as raw bytes) unless VEPRA_IMG_READ_STRICT is given to
 *  vepra_img_read_ex().
 *
 *  Codes of a failed read of a file that opened: 120031 (short read, or an
 *  array or text the file cannot hold), 120033 (seek), 120150 (not a
 *  little-endian TIFF: "Motorola TIFF is not supported.", "Unknown data
 *  format.", "Unknown TIFF format."), 0 ("No image data were found."),
 *  120151 (invalid BitsPerSample or SamplesPerPixel, zero resolution
 *  denominator, strip array of 2^31 entries or more), 120152 (unknown
 *  resolution unit, strip arrays of different lengths, directories that
 *  loop, an image that does not fit in the file, and for pixel reads a
 *  missing photometric interpretation), 120153 (strip shorter than its
 *  byte count), 120010 (a strip array of 0 entries), 120012 (allocation).
 *  Below, "the read codes" means this list.
 *  @{ */
/** Reads the image at path into img: checks that the file is TIFF, then
 *  reads its directories and pixels. The record then owns its allocations
 *  (release them with vepra_img_free()). Errors, wrapped by "Cannot read
 *  image.": 120020 (null img); 120030 (cannot open, or a directory), also
 *  wrapped by "Cannot read TIFF information from file."; the read codes of
 *  the pixel pass, also wrapped by "Cannot read TIFF image.". 120154
 *  ("Image type is unknown.", not wrapped) when the directory pass fails
 *  for any reason, allocation included: the cause is not reported (see
 *  vepra_img_read_ex() for a read that reports it).
 *  @param path file to read; null fails as a file that cannot be opened
 *  @param[out] img record to fill; what it owned before is not released
 *         (call vepra_img_free() first)
 *  @return null on success, or the error chain (codes 120020, 120030,
 *          120154 and the read codes) */
VEPRA_API vepra_error_t *vepra_img_read(const char *path, vepra_img_t *img)
    VEPRA_NOTHROW;
/** Reads only the TIFF directories of path into img (no pixels). Only a
 *  file that cannot be opened is returned as an error (120030, wrapped by
 *  "Cannot read TIFF information from file."; also for a directory), and
 *  120020 for a null img; a file that opens but does not parse (any of the
 *  read codes) is reported by img->type staying 0, with the record
 *  released. On success img->type is 1 and the record owns its strip
 *  arrays and Software text.
 *  @param path file to read; null fails as a file that cannot be opened
 *  @param[out] img record to fill; what it owned before is not released
 *  @return null when the file opened (check img->type), or the error
 *          chain (codes 120020, 120030) */
VEPRA_API vepra_error_t *vepra_img_read_tiff_info(const char *path,
                                                  vepra_img_t *img)
    VEPRA_NOTHROW;
/** Reads the TIFF directories and pixels of path into img. Errors, wrapped
 *  by "Cannot read TIFF image.": 120020 (null img), 120030 (cannot open, or
 *  a directory) and the read codes.
 *  @param path file to read; null fails as a file that cannot be opened
 *  @param[out] img record to fill; what it owned before is not released
 *  @return null on success, or the error chain (codes 120020, 120030 and
 *          the read codes) */
VEPRA_API vepra_error_t *vepra_img_read_tiff(const char *path,
                                             vepra_img_t *img) VEPRA_NOTHROW;

/** Flags of vepra_img_read_ex(), combined with |. Bits not defined here are
 *  reserved and refused. */
/** Decode the file instead of copying raw strips: read one page (see
 *  vepra_img_read_ex()) of a TIFF file in either byte order ("II" or "MM",
 *  16-bit samples brought to host order), classic or BigTIFF, stored in
 *  strips of any RowsPerStrip or in tiles (edge tiles cropped), with
 *  Compression 1 (none), 5 (LZW), 8 and 32946 (Deflate), 32773 (PackBits)
 *  or 50000 (ZSTD), and Predictor 1 or 2 (horizontal differencing). Absent
 *  fields take their TIFF defaults (Compression, SamplesPerPixel and
 *  PlanarConfiguration 1, BitsPerSample 1) and the record shows them;
 *  PlanarConfiguration 2 with one sample reads as 1. PhotometricInterpretation
 *  0 (WhiteIsZero) and 1 are kept as stored; a palette (3) whose red, green
 *  and blue maps are equal is read as the gray levels of its map (16-bit map
 *  values scaled to the depth) and the record says 1. For a tiled image the
 *  strip arrays of the record hold the tiles, in row order; offsets and
 *  counts above 2^32 - 1 saturate there. Refused with code 0 and a message
 *  naming the value: several samples per pixel, depths other than 8 and 16,
 *  signed or floating-point samples, other compressions (JPEG and old-style
 *  JPEG among them, and LZW in its old reversed bit order), Predictor 3,
 *  FillOrder 2, colour palettes and photometric interpretations other than
 *  0, 1 and 3. Data that cannot be decoded: 120152 (invalid or overlong
 *  compressed data, too few strips or tiles, a directory chain that
 *  loops), 120153 (a strip or tile that ends early). */
#define VEPRA_IMG_READ_STRICT 0x1u
/** Accept ResolutionUnit 1 (no absolute unit) as "no resolution": xres and
 *  yres become 0 and res_unit stays 1, instead of failing with 120152. */
#define VEPRA_IMG_READ_UNITLESS 0x2u
/** Read the directories only, as vepra_img_read_tiff_info() does, but
 *  report a failure instead of leaving img->type at 0. */
#define VEPRA_IMG_READ_HEADER 0x4u

/** Reads the image at path into img as vepra_img_read_tiff() does (or its
 *  directories only, with VEPRA_IMG_READ_HEADER), under the given flags,
 *  and reports the cause of every failure. page selects the page (image
 *  file directory, 0 first) of a multi-page file; a page other than 0 is
 *  always read as with VEPRA_IMG_READ_STRICT, and with that flag page 0 is
 *  the first directory (pyramids and previews store the full image there).
 *  With flags 0 and page 0 a TIFF file gives the record vepra_img_read()
 *  gives (every directory visited, the last one winning). The record then
 *  owns its allocations. Errors, wrapped by "Cannot read TIFF image." and
 *  then "Cannot read image.": 120030 (cannot open, or a directory), the
 *  read codes, the codes of VEPRA_IMG_READ_STRICT, and code 0 for a page
 *  the file does not have. Wrapped by "Cannot read image." only: 120020
 *  for a null img or reserved flags (img untouched).
 *  @param path file to read; null fails as a file that cannot be opened
 *  @param[out] img record to fill; what it owned before is not released
 *  @param flags VEPRA_IMG_READ_* bits, or 0
 *  @param page zero-based page of the file
 *  @return null on success, or the error chain (codes 120020, 120030, 0,
 *          the read codes and those of VEPRA_IMG_READ_STRICT) */
VEPRA_API vepra_error_t *vepra_img_read_ex(const char *path, vepra_img_t *img,
                                           uint32_t flags, uint32_t page)
    VEPRA_NOTHROW;
/** Counts the pages (image file directories) of the TIFF file at path, in
 *  either byte order, classic or BigTIFF, into *count. Errors, wrapped by
 *  "Cannot count TIFF pages.": 120020 (null count), 120030 (cannot open),
 *  120031 (short read), 120150 (not TIFF), 0 ("No image data were found."),
 *  120152 (a directory chain that loops).
 *  @param path file to read; null fails as a file that cannot be opened
 *  @param[out] count receives the number of pages
 *  @return null on success, or the error chain (codes 120020, 120030,
 *          120031, 120150, 0, 120152) */
VEPRA_API vepra_error_t *vepra_img_page_count(const char *path,
                                              uint32_t *count) VEPRA_NOTHROW;
/** Releases what img owns (pixel matrix, strip arrays, Software text) and
 *  nulls those pointers; other fields, type included, are kept. Nothing for
 *  null.
 *  @param[in,out] img record to release, or null */
VEPRA_API void vepra_img_free(vepra_img_t *img) VEPRA_NOTHROW;
/** Writes the resolution of img in pixels per millimetre to xres_mm and
 *  yres_mm (each skipped when null). Always returns null, also for a null
 *  img.
 *  @param img record read before, or null (nothing is written)
 *  @param[out] xres_mm receives xres / 25.4 (0 when absent), or null
 *  @param[out] yres_mm receives yres / 25.4 (0 when absent), or null
 *  @return null */
VEPRA_API vepra_error_t *vepra_img_get_resmm(const vepra_img_t *img,
                                             double *xres_mm, double *yres_mm)
    VEPRA_NOTHROW;
/** @} */

/** @name Writing
 *  Files are written little-endian and uncompressed, as one strip in one
 *  directory of ten entries carrying the Software text "VEPRA <version>".
 *  Resolutions, the record's own Software text and its strip arrays are not
 *  written. A regular file (new, or an existing one, also reached through
 *  symbolic links, which stay) is written as a temporary file in its
 *  directory that replaces it only once every byte is written and the file
 *  is closed: a failed write leaves an existing file untouched and no
 *  temporary file behind. A target that exists and is not a regular file
 *  (a device, a FIFO), or one in a directory where no temporary file can be
 *  created, is written in place, and a failure there leaves the partial
 *  file.
 *  @{ */
/** Writes img (8- or 16-bit; other depths write the directory only) as a
 *  TIFF file at path. Errors, wrapped by "Cannot write TIFF image.":
 *  120020 (null img, or an image with pixels but no pixel matrix), 120030
 *  (cannot open), 120032 (a write, the final close or the replacement
 *  failed), 120152 (an image too large for 32-bit offsets).
 *  @param path file to write; null fails with 120030
 *  @param img image to write
 *  @return null on success, or the error chain (codes 120020, 120030,
 *          120032, 120152) */
VEPRA_API vepra_error_t *vepra_img_write_tiff(const char *path,
                                              const vepra_img_t *img)
    VEPRA_NOTHROW;
/** Writes the rows x cols matrix arr (arr[r][c] for rows 0..rows-1 and
 *  columns 0..cols-1) as a 16-bit WhiteIsZero TIFF at path. The finite
 *  values are scaled linearly so that their minimum becomes 0 and their
 *  maximum 65535, without overflow whatever their range (all 0 when they
 *  are equal); -infinity becomes 0, +infinity 65535 and NaN 0. With rows
 *  or cols 0 nothing is read from arr (it may be null) and the file has a
 *  valid directory of that size and no samples. Errors, wrapped by
 *  "Cannot convert double array to TIFF image.": 120020 (null arr or row),
 *  120030, 120032, 120152 (too large) and 120012 (allocation).
 *  @param path file to write; null fails with 120030
 *  @param arr row pointers of the matrix; may be null when rows or cols
 *         is 0
 *  @param rows number of rows (image height)
 *  @param cols number of columns (image width)
 *  @return null on success, or the error chain (codes 120020, 120030,
 *          120032, 120152, 120012) */
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
 *  image.": the code-0 record checks above, 120012 (allocation).
 *  @param img grayscale image
 *  @param[out] nbins receives the number of bins, 256 or 65536
 *  @param[out] hist receives the counters (null when the allocation fails)
 *  @return null on success, or the error chain (codes 0, 120012) */
VEPRA_API vepra_error_t *vepra_img_histogram(const vepra_img_t *img,
                                             size_t *nbins, uint64_t **hist)
    VEPRA_NOTHROW;
/** Shannon entropy of the sample values in bits (-sum p log2 p over the
 *  occupied values), between 0 and the depth; 0 for an image without
 *  pixels. Only an 8-bit image of up to 4294967295 pixels is measured
 *  without allocating; a 16-bit image, or a larger one, takes a counter
 *  table from vepra_mem (65536 entries at 16 bits). Errors, wrapped by "Can't
 *  calculate entropy for an image.": the code-0 record checks above,
 *  120012 (the counter table).
 *  @param img grayscale image
 *  @param[out] entropy receives the entropy in bits per pixel
 *  @return null on success, or the error chain (codes 0, 120012) */
VEPRA_API vepra_error_t *vepra_img_entropy(const vepra_img_t *img,
                                           double *entropy) VEPRA_NOTHROW;
/** Automatic threshold of a histogram of nbins counters by the iterative
 *  intermeans (IsoData) rule: starting at the first occupied bin, the
 *  split moves up while split + 1 < last occupied bin - 1 and the split
 *  index + 2 does not exceed the mean of the two class means. Both end bins
 *  take part, and the result is that mean of means, not rounded. A
 *  histogram with fewer than two occupied bins gives nbins / 2. Cannot
 *  fail; a null hist is treated as empty.
 *  @param nbins number of counters in hist
 *  @param hist the counters, as vepra_img_histogram() gives them, or null
 *  @return the threshold, as a bin index that may have a fraction */
VEPRA_API double vepra_img_thres_IJ(size_t nbins, const uint64_t *hist)
    VEPRA_NOTHROW;
/** Writes into mask (at least height rows of width doubles, owned by the
 *  caller) 0.0 for each white pixel (sample 0 under WhiteIsZero, the full
 *  scale 255 or 65535 under BlackIsZero) and 1.0 for every other one.
 *  Errors, wrapped by "Cannot provide image data mask.": the code-0 record
 *  checks above.
 *  @param img grayscale image
 *  @param[out] mask rows of the caller's matrix, mask[r][c] for pixel (r, c)
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_img_data_dmask(const vepra_img_t *img,
                                              double **mask) VEPRA_NOTHROW;
/** Writes into psl the photo-stimulated luminescence of each pixel as a
 *  Fuji scanner defines it: F * 10^((Q / G - 0.5) * latitude) with
 *  F = (4000 / sensitivity) * (pixel_size^2 / 10000), G the full scale
 *  (255 or 65535) and Q the quantum level (the sample under WhiteIsZero,
 *  G - sample under BlackIsZero). pixel_size is in micrometres, latitude
 *  in decades. A sensitivity of 0 gives infinities, not an error. Errors,
 *  wrapped by "Can't calculate Fuji relative intensity.": the code-0
 *  record checks above.
 *  @param img grayscale image
 *  @param[out] psl rows of the caller's matrix of height x width doubles
 *  @param pixel_size scanner pixel size in micrometres
 *  @param sensitivity scanner sensitivity setting
 *  @param latitude scanner latitude in decades
 *  @return null on success, or the error chain (code 0) */
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
 *  optical intensity.": the code-0 record checks above.
 *  @param img grayscale image
 *  @param[out] density rows of the caller's matrix of height x width doubles
 *  @param saturated value stored for samples at the full scale
 *  @return null on success, or the error chain (code 0) */
VEPRA_API vepra_error_t *vepra_img_calc_density(const vepra_img_t *img,
                                                double **density,
                                                double saturated)
    VEPRA_NOTHROW;
/** @} */

/** @name Circle and ellipse rasterisation
 *  The rasterisers own no image: every pixel goes to a callback with its
 *  coverage weight, and the caller decides what to do with it. Plain
 *  variants report weight 1.0; antialiased ones report 1 minus the
 *  normalised distance of the pixel from the ideal curve for edge pixels
 *  (curve pixels of a step are reported whatever their weight, so a weight
 *  may fall slightly outside 0..1; neighbour pixels only when above 0),
 *  and 1.0 for the solid interior of a stroke. A pixel may be reported more
 *  than once (at the tips and where quadrants meet). Coordinates are not
 *  clipped and are computed in 64 bits: a pixel whose coordinates do not
 *  fit an int is skipped, never wrapped. Degenerate rectangles (zero width
 *  or height) in the antialiased and stroke variants report the straight
 *  line between the corners with weight 1.0. A negative radius or semi-axis
 *  of the antialiased and stroke variants counts as its magnitude.
 *
 *  A callback that returns an error stops the drawing at once; the
 *  function returns that chain unchanged. The functions create no errors of
 *  their own: each returns null or the callback's chain.
 *  @{ */
/** Receives one pixel (x, y) of a shape with its coverage weight; data is
 *  the caller's pointer. Returns null to go on, or an error chain that
 *  stops the drawing and is handed back to the caller.
 *  @param x column of the pixel
 *  @param y row of the pixel
 *  @param data the pointer given to the drawing function
 *  @param weight coverage of the pixel, about 0 to 1
 *  @return null to go on, or an error chain that ends the drawing */
typedef vepra_error_t *(*vepra_img_pixel_fn)(int x, int y, void *data,
                                              double weight);
/** Circle of radius r about (xm, ym), weight 1.0 (Bresenham).
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param r radius in pixels
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_circle(int xm, int ym, int r,
                                          vepra_img_pixel_fn fn, void *data)
    VEPRA_NOTHROW;
/** Antialiased circle of radius r about (xm, ym).
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param r radius in pixels
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_circle_aa(int xm, int ym, int r,
                                             vepra_img_pixel_fn fn, void *data)
    VEPRA_NOTHROW;
/** Antialiased circle with a stroke of the given width centred on radius
 *  r: the ellipse of vepra_img_ellipser_waa() in the square grown by
 *  round(width) / 2 on every side. A width below 1.5 draws the thin
 *  antialiased circle; a non-finite or negative width counts as 0.
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param r radius in pixels, the middle of the stroke
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @param width stroke width in pixels
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_circle_waa(int xm, int ym, int r,
                                              vepra_img_pixel_fn fn,
                                              void *data, double width)
    VEPRA_NOTHROW;
/** Ellipse with semi-axes a (along x) and b (along y) about (xm, ym),
 *  weight 1.0; flat ellipses get their tips completed along the column xm.
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param a semi-axis along x in pixels
 *  @param b semi-axis along y in pixels
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipse(int xm, int ym, int a, int b,
                                           vepra_img_pixel_fn fn, void *data)
    VEPRA_NOTHROW;
/** Ellipse inscribed in the rectangle of corners (x0, y0) and (x1, y1),
 *  weight 1.0; even widths and heights are drawn exactly inside it.
 *  @param x0 column of one corner
 *  @param y0 row of one corner
 *  @param x1 column of the opposite corner
 *  @param y1 row of the opposite corner
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipser(int x0, int y0, int x1, int y1,
                                            vepra_img_pixel_fn fn, void *data)
    VEPRA_NOTHROW;
/** Antialiased ellipse about (xm, ym): vepra_img_ellipser_aa() of the
 *  rectangle (xm - a, ym - b, xm + a, ym + b).
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param a semi-axis along x in pixels
 *  @param b semi-axis along y in pixels
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipse_aa(int xm, int ym, int a, int b,
                                              vepra_img_pixel_fn fn,
                                              void *data) VEPRA_NOTHROW;
/** Antialiased ellipse inscribed in the rectangle of corners (x0, y0) and
 *  (x1, y1).
 *  @param x0 column of one corner
 *  @param y0 row of one corner
 *  @param x1 column of the opposite corner
 *  @param y1 row of the opposite corner
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipser_aa(int x0, int y0, int x1, int y1,
                                               vepra_img_pixel_fn fn,
                                               void *data) VEPRA_NOTHROW;
/** Antialiased ellipse about (xm, ym) with a stroke of the given width
 *  centred on the semi-axes a and b (see vepra_img_circle_waa()).
 *  @param xm column of the centre
 *  @param ym row of the centre
 *  @param a semi-axis along x in pixels, the middle of the stroke
 *  @param b semi-axis along y in pixels, the middle of the stroke
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @param width stroke width in pixels
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipse_waa(int xm, int ym, int a, int b,
                                               vepra_img_pixel_fn fn,
                                               void *data, double width)
    VEPRA_NOTHROW;
/** Antialiased ellipse in the rectangle of corners (x0, y0) and (x1, y1)
 *  with a stroke of the given width centred on it (the rectangle is grown
 *  by round(width) / 2 on every side).
 *  @param x0 column of one corner
 *  @param y0 row of one corner
 *  @param x1 column of the opposite corner
 *  @param y1 row of the opposite corner
 *  @param fn called for every pixel; not null
 *  @param data handed to fn
 *  @param width stroke width in pixels
 *  @return null, or the chain fn returned */
VEPRA_API vepra_error_t *vepra_img_ellipser_waa(int x0, int y0, int x1,
                                                int y1, vepra_img_pixel_fn fn,
                                                void *data, double width)
    VEPRA_NOTHROW;
/** @} */

/** @name Region measures
 *  The intensity inside a circle, an ellipse or a rectangle of a grayscale
 *  record, optionally with a background ring around it. Pixel (c, r) is
 *  the unit square centred on (c, r); a pixel counts by the part of it the
 *  region covers (1 inside, the antialiased coverage at the edge), and the
 *  parts of a region outside the image are clipped.
 *  @{ */
/** Region shapes. */
enum {
  VEPRA_IMG_ROI_CIRCLE = 0,  /**< centre (x, y), radius a */
  VEPRA_IMG_ROI_ELLIPSE = 1, /**< centre (x, y), semi-axes a (x) and b (y) */
  VEPRA_IMG_ROI_RECT = 2     /**< corner pixels (x, y) and (a, b), both included */
};
/** A region and its optional background ring. */
typedef struct vepra_img_roi_t {
  int shape;          /**< VEPRA_IMG_ROI_CIRCLE, _ELLIPSE or _RECT */
  double x;           /**< centre, or first corner of a rectangle: column */
  double y;           /**< centre, or first corner of a rectangle: row */
  double a;           /**< radius, semi-axis along x, or opposite corner: column */
  double b;           /**< semi-axis along y, or opposite corner: row */
  double ring_inner;  /**< ring: inner radius (circle) or scale of the size */
  double ring_outer;  /**< ring: outer radius or scale; both 0: no ring */
} vepra_img_roi_t;
/** Imaging-plate scanner parameters, as vepra_img_calc_fujiri() takes them. */
typedef struct vepra_img_plate_t {
  double pixel_size;   /**< micrometres */
  double sensitivity;  /**< scanner sensitivity setting */
  double latitude;     /**< decades */
} vepra_img_plate_t;
/** Figures of one region or ring. With no pixel covered, area is 0 and
 *  mean, min and max are NaN. */
typedef struct vepra_img_region_t {
  double area;     /**< covered pixels, edge pixels by their coverage */
  double sum;      /**< coverage-weighted sum of the samples */
  double mean;     /**< sum / area */
  double min;      /**< smallest sample of a covered pixel */
  double max;      /**< largest sample of a covered pixel */
  double psl_sum;  /**< coverage-weighted sum of PSL (0 without a plate) */
} vepra_img_region_t;
/** What vepra_img_measure_roi() reports. */
typedef struct vepra_img_measure_t {
  vepra_img_region_t region;  /**< the region itself */
  vepra_img_region_t ring;    /**< the background ring (area 0 without one) */
  double background;          /**< mean of the ring (0 without a ring) */
  double corrected;           /**< region.sum - background * region.area */
  double psl_background;      /**< mean PSL of the ring (0 without one) */
  double psl_corrected;       /**< region.psl_sum - psl_background * area */
} vepra_img_measure_t;
/** Measures roi on img into out. A circle's ring is given by its inner and
 *  outer radius; an ellipse's or rectangle's by scale factors of its own
 *  size (the ring between 1.5 and 2.5 times the semi-axes, say). With plate
 *  non-null the PSL of each sample (vepra_img_calc_fujiri()'s formula,
 *  through one table of every sample value) is summed as well. A region
 *  wholly outside the image gives area 0 and no error. Errors, wrapped by
 *  "Cannot measure image region.": the code-0 record checks of the
 *  measures, code 0 for a null roi, an unknown shape, non-finite
 *  coordinates, negative sizes or a ring that is not 0 <= inner < outer,
 *  and 120012 (the PSL table). out is untouched on failure.
 *  @param img grayscale image
 *  @param roi the region and its ring
 *  @param plate scanner parameters for the PSL sums, or null for none
 *  @param[out] out receives the figures
 *  @return null on success, or the error chain (codes 0, 120012) */
VEPRA_API vepra_error_t *vepra_img_measure_roi(const vepra_img_t *img,
                                               const vepra_img_roi_t *roi,
                                               const vepra_img_plate_t *plate,
                                               vepra_img_measure_t *out)
    VEPRA_NOTHROW;
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_IMG_H */
