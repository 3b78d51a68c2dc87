/**
 * @file vepra.h
 * @brief Umbrella header: includes every module of the library.
 */
#ifndef VEPRA_H
#define VEPRA_H

#include "vepra_version.h"
#include "vepra_error.h"
#include "vepra_mem.h"
#include "vepra_log.h"
#include "vepra_util.h"
#include "vepra_sha1.h"
#include "vepra_str.h"
#include "vepra_dl.h"
#include "vepra_tree.h"
#include "vepra_trie.h"
#include "vepra_cdl.h"
#include "vepra_sl.h"
#include "vepra_bitarr.h"
#include "vepra_strlist.h"
#include "vepra_obj.h"
#include "vepra_prsd.h"
#include "vepra_readline.h"
#include "vepra_dir.h"
#include "vepra_img.h"
#include "vepra_mach.h"
#include "vepra_cpu.h"

#endif /* VEPRA_H */
