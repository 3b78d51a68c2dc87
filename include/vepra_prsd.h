/**
 * @file vepra_prsd.h
 * @brief Typed token parsing.
 */
#ifndef VEPRA_PRSD_H
#define VEPRA_PRSD_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_PRSD_H */
