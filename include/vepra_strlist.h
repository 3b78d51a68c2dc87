/**
 * @file vepra_strlist.h
 * @brief String lists and the tokenizer.
 */
#ifndef VEPRA_STRLIST_H
#define VEPRA_STRLIST_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_STRLIST_H */
