/* A small prompt loop with line editing and history. On a terminal the
 * line is edited in raw mode (arrows, Home, End, Backspace, Delete, Ctrl-U,
 * Ctrl-K; Up and Down recall earlier lines); from a pipe or a file lines
 * are read plainly. "history" lists the earlier lines, "quit", Ctrl-C or
 * Ctrl-D on an empty line end the loop.
 *
 *   prompt_loop
 *   printf 'first\nsecond\nhistory\n' | prompt_loop
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vepra.h>

/* Prints the history, oldest first (the list keeps the newest first). */
static void print_history(vepra_ri_readline_t *rl) {
  int i;
  for (i = rl->hist_count - 1; i >= 0; --i)
    printf("%4d  %s\n", rl->hist_count - i, vepra_strlist_getn(rl->history, (size_t)i));
}

int main(void) {
  vepra_ri_readline_t *rl = NULL;
  vepra_error_t *err;
  int status = 0;

  if (vepra_initialize() != 0) {
    fputs("cannot initialise vepra\n", stderr);
    return 1;
  }
  /* Prompt and drawing only when a person is typing. */
  err = vepra_ri_readline_init(&rl, "vepra> ", isatty(STDIN_FILENO) ? 1u : 0u, vepra_pool);
  if (err == NULL) {
    vepra_ri_readline_set_terminal(rl, STDIN_FILENO);
    while ((err = vepra_ri_readline(NULL, rl)) == NULL) {
      if (rl->line[0] == '\0') continue;
      if (strcmp(rl->line, "quit") == 0) break;
      if (strcmp(rl->line, "history") == 0) {
        print_history(rl);
        continue;
      }
      printf("read %u bytes: %s\n", (unsigned)strlen(rl->line), rl->line);
      err = vepra_ri_readline_addhist(rl->line, rl);
      if (err != NULL) break;
    }
    /* Ctrl-C, Ctrl-D and the end of the input end the loop normally. */
    if (err != NULL && err->code == VEPRA_E_CONSOLE_HALTED) {
      vepra_error_clear(err);
      err = NULL;
    }
    vepra_ri_readline_terminate(rl);
  }
  if (err != NULL) {
    vepra_error_handle(err, vepra_error_stdhandler, NULL);
    vepra_error_clear(err);
    status = 1;
  }
  vepra_terminate();
  return status;
}
