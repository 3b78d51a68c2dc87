/**
 * @file vepra_img.h
 * @brief Grayscale images: TIFF reading and writing, statistics and measures.
 */
#ifndef VEPRA_IMG_H
#define VEPRA_IMG_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_IMG_H */
