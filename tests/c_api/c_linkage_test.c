/* Compiled as C and linked against the shared library: every public header
 * is usable from C and the exported names, data included, resolve. Prints
 * "N passed, N failed" and exits non-zero on a failure. */
#include <stdio.h>
#include <string.h>

#include "vepra.h"

static int passed, failed;

#define CHECK(cond)  \
  ((cond) ? ++passed \
          : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), ++failed))

int main(void) {
  vepra_error_t *err;
  vepra_dl_t *list = NULL, *ring = NULL;
  vepra_tree_t *tree = NULL;
  vepra_trie_t *trie = NULL;
  vepra_strlist_t *strings = NULL;
  vepra_prsd_t parsed = {0};
  vepra_sl_t *slist = NULL;
  vepra_bitarr_t *bits = NULL;
  vepra_mem_array_t *grid = NULL;
  vepra_ri_readline_t *rl = NULL;
  vepra_cpu_info_t cpu;
  vepra_dir_options_t dir_options = {VEPRA_DIR_RECURSIVE, NULL, NULL, NULL, NULL};
  uint64_t hist[4] = {1, 0, 0, 1};
  unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH];
  int payload = 42;
  char buf[32];

  CHECK(vepra_initialize() == 0 && VepraInitialized == 1);
  CHECK(strcmp(vepra_version_string(), VEPRA_VERSION_STRING) == 0);

  /* The macros fill in the caller's base name and line from C too. */
  err = vepra_error_create(VEPRA_ERROR_TYPE_ERROR, VEPRA_E_DL_INSERT, NULL, NULL);
  err = vepra_error_quick_wrap(err, "Cannot link.");
  CHECK(err->line > 0 && strcmp(err->file, "c_linkage_test.c") == 0);
  CHECK(err->next != NULL && err->next->code == VEPRA_E_DL_INSERT);
  vepra_error_clear(err);

  /* A variadic list of int dimensions ended by 0, as C passes it. */
  CHECK(vepra_mem_array_alloc(&grid, sizeof(double), 2, 3, 0) == NULL);
  CHECK(grid != NULL && grid->ndims == 2 && grid->dims[1] == 3);
  vepra_mem_array_free(grid);
  CHECK(vepra_str_snprintf(buf, sizeof buf, "%d-%s", 7, "x") == 3 && strcmp(buf, "7-x") == 0);
  CHECK(vepra_util_crc32(0, "123456789", 9) == 0xCBF43926u);
  vepra_sha1("abc", 3, digest);
  CHECK(digest[0] == 0xa9 && digest[19] == 0x9d);
  CHECK(vepra_time_real() > 0.0);
  CHECK(vepra_mach_os_cpu_num() >= 1);
  err = vepra_cpu_identify(&cpu);
  CHECK(err == NULL ? os_sse <= 7 : err->code == VEPRA_E_CPUID_UNSUPPORTED);
  vepra_error_clear(err);

  CHECK(vepra_dl_create(1, &payload, &list, vepra_pool) == NULL && vepra_dl_count(list) == 1);
  CHECK(vepra_cdl_append(&ring, 1, &payload, NULL, vepra_pool) == NULL);
  CHECK(vepra_tree_create(2, &payload, &tree, vepra_pool) == NULL && vepra_tree_count(tree) == 1);
  CHECK(vepra_trie_create(&trie, vepra_pool) == NULL);
  CHECK(vepra_sl_append(&slist, 3, &payload, vepra_pool) == NULL);
  CHECK(vepra_bitarr_create(&bits, 70) == NULL);
  vepra_bitarr_free(bits);

  CHECK(vepra_strlist_create(&strings, vepra_pool) == NULL);
  CHECK(vepra_prsd_parse_p(&parsed, "1 two", " ", vepra_pool) >= 0 && parsed.n_tokens == 2);
  CHECK(vepra_ri_readline_init(&rl, NULL, 0, vepra_pool) == NULL);
  vepra_ri_readline_terminate(rl);
  err = vepra_dir_traverse("/nonexistent/vepra-c-linkage", "*.c", NULL, &dir_options, vepra_pool);
  CHECK(err != NULL && dir_options.include != NULL && dir_options.include->nelts == 1);
  vepra_error_clear(err);

  CHECK(vepra_obj_engine_init(vepra_pool) == NULL);
  CHECK(osig_icd.sz == sizeof(osig));
  CHECK(vepra_obj_engine_terminate() == NULL);
  CHECK(vepra_img_thres_IJ(4, hist) > 0.0);

  vepra_terminate();
  printf("%d passed, %d failed\n", passed, failed);
  return failed != 0;
}
