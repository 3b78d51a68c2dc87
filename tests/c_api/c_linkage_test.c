/* Compiled as C and linked against the shared library: every public header
 * is usable from C and the exported names, data included, resolve. Prints
 * "N passed, N failed" and exits non-zero on a failure. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vepra.h"

static int passed, failed;

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (cond) {                                                                \
      ++passed;                                                                \
    } else {                                                                   \
      ++failed;                                                                \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                          \
  } while (0)

static int count_lines(const char *line, FILE *stream) {
  (void)line;
  return ++*(int *)(void *)stream;
}

static vepra_error_t *count_pixel(int x, int y, void *data, double weight) {
  (void)x, (void)y, (void)weight;
  ++*(int *)data;
  return NULL;
}

static void count_emission(vepra_obj_t *src, unsigned code, vepra_obj_t *dest, void *usr,
                           void *arg) {
  (void)src, (void)code, (void)dest, (void)arg;
  ++*(int *)usr;
}

int main(void) {
  vepra_error_t *err, *back = NULL;
  vepra_dl_t *list = NULL, *ring = NULL;
  vepra_tree_t *tree = NULL;
  vepra_trie_t *trie = NULL;
  vepra_strlist_t *strings = NULL;
  vepra_prsd_t parsed;
  vepra_sl_t *slist = NULL;
  vepra_bitarr_t *bits = NULL;
  vepra_mem_array_t *grid = NULL;
  vepra_ri_readline_t *rl = NULL;
  vepra_cpu_info_t cpu;
  vepra_obj_t *sender = NULL, *receiver = NULL;
  vepra_dir_options_t dir_options = {VEPRA_DIR_RECURSIVE, NULL, NULL, NULL, NULL};
  uint64_t hist[4] = {1, 0, 0, 1};
  uint32_t at[2] = {1, 2};
  unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH];
  int payload = 42, lines = 0, pixels = 0, calls = 0;
  double cell = 2.5;
  void *block = NULL;
  size_t block_len = 0;
  char buf[32];

  CHECK(vepra_initialize() == 0 && VepraInitialized == 1);
  CHECK(strcmp(vepra_version_string(), VEPRA_VERSION_STRING) == 0);

  err = vepra_error_create(VEPRA_ERROR_TYPE_ERROR, VEPRA_E_DL_INSERT, NULL, NULL);
  err = vepra_error_quick_wrap(err, "Cannot link.");
  CHECK(err->line > 0 && strcmp(err->file, "c_linkage_test.c") == 0);
  vepra_error_handle(err, count_lines, (FILE *)(void *)&lines);
  CHECK(lines == 2);
  vepra_error_serialize(err, &block, &block_len);
  CHECK(vepra_error_deserialize(&back, block, block_len) == &back);
  CHECK(back != NULL && vepra_error_crc16(back) == vepra_error_crc16(err));
  free(block);
  vepra_error_clear(back);
  vepra_error_clear(err);

  CHECK(vepra_mem_array_alloc(&grid, sizeof cell, 2, 3, 0) == NULL);
  CHECK(vepra_mem_array_copytoel(grid, &cell, sizeof cell, 2, at) == NULL);
  cell = 0.0;
  CHECK(vepra_mem_array_copyfromel(grid, &cell, sizeof cell, 2, at) == NULL && cell == 2.5);
  vepra_mem_array_free(grid);
  CHECK(vepra_str_snprintf(buf, sizeof buf, "%d-%s", 7, "x") == 3 && strcmp(buf, "7-x") == 0);
  CHECK(strcmp(vepra_util_basename("/a/b.c", buf, sizeof buf), "b.c") == 0);
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
  CHECK(vepra_cdl_count(ring) == 1);
  CHECK(vepra_tree_create(2, &payload, &tree, vepra_pool) == NULL && vepra_tree_count(tree) == 1);
  CHECK(vepra_trie_create(&trie, vepra_pool) == NULL);
  CHECK(vepra_trie_insert(trie, "key", 3, &payload, vepra_pool) == NULL);
  CHECK(vepra_sl_append(&slist, 3, &payload, vepra_pool) == NULL);
  CHECK(vepra_bitarr_create(&bits, 70) == NULL);
  vepra_bitarr_free(bits);

  CHECK(vepra_strlist_create(&strings, vepra_pool) == NULL);
  memset(&parsed, 0, sizeof parsed);
  CHECK(vepra_prsd_parse_p(&parsed, "1 two", " ", vepra_pool) >= 0 && parsed.n_tokens == 2);
  CHECK(vepra_ri_readline_init(&rl, NULL, 0, vepra_pool) == NULL);
  err = vepra_ri_readline(NULL, rl);
  CHECK(err != NULL && err->code == VEPRA_E_CONSOLE_READ);
  vepra_error_clear(err);
  vepra_ri_readline_terminate(rl);
  err = vepra_dir_traverse("/nonexistent/vepra-c-linkage", "*.c", NULL, &dir_options, vepra_pool);
  CHECK(err != NULL && dir_options.include != NULL && dir_options.include->nelts == 1);
  vepra_error_clear(err);

  CHECK(vepra_obj_engine_init(vepra_pool) == NULL);
  CHECK(vepra_obj_create(&sender, "sender", vepra_pool) == NULL);
  CHECK(vepra_obj_create(&receiver, "receiver", vepra_pool) == NULL);
  CHECK(vepra_obj_add_signal(sender, 100) == NULL);
  CHECK(vepra_obj_connect(sender, 100, receiver, count_emission, &calls) == NULL);
  CHECK(vepra_obj_emit_signal(sender, 100, NULL) == NULL && calls == 1);
  vepra_obj_destroy(receiver);
  vepra_obj_destroy(sender);
  CHECK(osig_icd.sz == sizeof(osig));
  CHECK(vepra_obj_engine_terminate() == NULL);

  CHECK(vepra_img_thres_IJ(4, hist) > 0.0);
  CHECK(vepra_img_circle_waa(0, 0, 5, count_pixel, &pixels, 3.0) == NULL && pixels > 0);

  vepra_terminate();
  printf("%d passed, %d failed\n", passed, failed);
  return failed != 0;
}
