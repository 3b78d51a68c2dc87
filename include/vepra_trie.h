/**
 * @file vepra_trie.h
 * @brief Radix-16 tries mapping byte-string keys to data pointers.
 */
#ifndef VEPRA_TRIE_H
#define VEPRA_TRIE_H

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

VEPRA_END_DECL

#endif /* VEPRA_TRIE_H */
