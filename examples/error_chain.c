/* Builds an error chain the way a failing call stack does, prints it on the
 * terminal and into a log file, and frees it.
 *
 *   error_chain [LOG_FILE]     (default: error_chain.log)
 */
#include <stdio.h>

#include <vepra.h>

/* A pretend low-level operation that fails with a library code. */
static vepra_error_t *read_settings(const char *path) {
  return vepra_error_createf(VEPRA_ERROR_TYPE_ERROR, VEPRA_E_IO_OPEN, NULL,
                             "Settings file '%s' is missing", path);
}

/* Its caller adds context and passes the failure up. */
static vepra_error_t *start_session(void) {
  vepra_error_t *err = read_settings("/etc/example/settings.conf");
  if (err != NULL) return vepra_error_quick_wrap(err, "Cannot start session.");
  return NULL;
}

int main(int argc, char **argv) {
  const char *log_path = argc > 1 ? argv[1] : "error_chain.log";
  vepra_log_t *log = NULL;
  vepra_error_t *err;

  if (vepra_initialize() != 0) {
    fputs("cannot initialise vepra\n", stderr);
    return 1;
  }
  printf("vepra %s\n", vepra_version_string());

  err = start_session();
  /* A chain without its own text for the inner code prints the code's
   * message once. */
  err = vepra_error_quick_wrap(err, "Unable to run the example.");
  vepra_error_handle(err, vepra_error_stdhandler, stdout);

  if (vepra_error_handle(vepra_log_create(&log, log_path, vepra_pool),
                         vepra_error_stdhandler, NULL) == NULL) {
    vepra_log_dtprintf(log, "%s\n", "example run");
    vepra_error_handle(err, vepra_log_errhandler, (FILE *)log);
    vepra_log_terminate(log);
    printf("chain written to %s\n", log_path);
  }
  vepra_error_clear(err);
  vepra_terminate();
  return 0;
}
