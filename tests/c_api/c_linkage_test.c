/* Compiled as C and linked against the shared library: every public header
 * is usable from C and the exported names resolve. Prints "N passed, N
 * failed" and exits non-zero on a failure. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vepra.h"

static int passed, failed;

#define CHECK(cond)                                               \
  do {                                                            \
    if (cond) {                                                   \
      ++passed;                                                   \
    } else {                                                      \
      ++failed;                                                   \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                             \
  } while (0)

static int count_lines(const char *line, FILE *stream) {
  (void)line;
  ++*(int *)(void *)stream;
  return 0;
}

int main(void) {
  vepra_error_t *err;
  vepra_dl_t *list = NULL;
  vepra_tree_t *tree = NULL;
  vepra_trie_t *trie = NULL;
  vepra_strlist_t *strings = NULL;
  uint64_t hist[4] = {1, 0, 0, 1};
  int payload = 42;
  void *block = NULL;
  char buf[32];
  int lines = 0;

  CHECK(vepra_initialize() == 0);
  CHECK(strcmp(vepra_version_string(), VEPRA_VERSION_STRING) == 0);

  err = vepra_error_create(VEPRA_ERROR_TYPE_ERROR, VEPRA_E_DL_INSERT, NULL, NULL);
  err = vepra_error_quick_wrap(err, "Cannot link.");
  CHECK(err->line > 0 && strcmp(err->file, "c_linkage_test.c") == 0);
  vepra_error_handle(err, count_lines, (FILE *)(void *)&lines);
  CHECK(lines == 2);
  vepra_error_clear(err);

  CHECK(vepra_mem_malloc(16, &block) == NULL);
  vepra_mem_free(block);
  CHECK(vepra_str_snprintf(buf, sizeof buf, "%d-%s", 7, "x") == 3 && strcmp(buf, "7-x") == 0);
  CHECK(strcmp(vepra_util_basename("/a/b.c", buf, sizeof buf), "b.c") == 0);
  CHECK(vepra_time_real() > 0.0);
  CHECK(vepra_str_is_integer("+12") == 1);

  CHECK(vepra_dl_create(1, &payload, &list, vepra_pool) == NULL);
  CHECK(vepra_dl_count(list) == 1);
  CHECK(vepra_tree_create(2, &payload, &tree, vepra_pool) == NULL);
  CHECK(vepra_tree_count(tree) == 1);
  CHECK(vepra_trie_create(&trie, vepra_pool) == NULL);
  CHECK(vepra_trie_insert(trie, "key", 3, &payload, vepra_pool) == NULL);
  CHECK(vepra_trie_search(trie, "key", 3) == &payload);
  CHECK(vepra_strlist_create(&strings, vepra_pool) == NULL);
  CHECK(vepra_img_thres_IJ(4, hist) > 0.0);

  {
    unsigned char digest[VEPRA_SHA1_DIGEST_LENGTH];
    vepra_sha1_ctx_t sha;
    void *image = NULL;
    size_t image_len = 0;
    vepra_error_t *back = NULL;
    CHECK(vepra_util_crc32(0, "123456789", 9) == 0xCBF43926u);
    CHECK(vepra_util_crc16(0, "123456789", 9) == 0xBB3Du);
    vepra_sha1("abc", 3, digest);
    CHECK(digest[0] == 0xa9 && digest[19] == 0x9d);
    vepra_sha1_init(&sha);
    vepra_sha1_update(&sha, "abc", 3);
    vepra_sha1_final(&sha, digest);
    CHECK(digest[0] == 0xa9 && digest[19] == 0x9d);
    CHECK(vepra_util_nsigbits64(5) == 3 && vepra_util_bsf64(0) == -1 && vepra_util_bsr64(8) == 3);
    CHECK(vepra_util_lowmask64(64) == UINT64_MAX);
    CHECK(vepra_util_bitfield_get64(vepra_util_bitfield_set64(0, 4, 4, 9), 4, 4) == 9);
    err = vepra_error_create(VEPRA_ERROR_TYPE_WARNING, VEPRA_E_IO_EOF, NULL, "end");
    vepra_error_serialize(err, &image, &image_len);
    CHECK(vepra_error_deserialize(&back, image, image_len) == &back);
    CHECK(back != NULL && vepra_error_crc16(back) == vepra_error_crc16(err));
    free(image);
    vepra_error_clear(back);
    vepra_error_clear(err);
  }

  vepra_terminate();
  printf("%d passed, %d failed\n", passed, failed);
  return failed != 0;
}
