/**
 * @file vepra_dl.h
 * @brief Doubly linked lists and the walk family shared by every container.
 */
#ifndef VEPRA_DL_H
#define VEPRA_DL_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_DL_H */
