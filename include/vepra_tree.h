/**
 * @file vepra_tree.h
 * @brief Trees (forests) of nodes with parent and child links.
 */
#ifndef VEPRA_TREE_H
#define VEPRA_TREE_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_TREE_H */
