/**
 * @file vepra_cdl.h
 * @brief Circular slot lists.
 */
#ifndef VEPRA_CDL_H
#define VEPRA_CDL_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_CDL_H */
