/* Two objects and a signal between them: a thermometer emits a reading, a
 * display receives it in a slot. Destroying the display disconnects it by
 * itself, so the next reading reaches nobody.
 *
 *   signals
 */
#include <stdio.h>

#include <vepra.h>

/* A signal code of our own; registered ones start at 100. */
static unsigned READING;

/* The slot: called with the source, the signal, the destination, the
 * user pointer given at connection and the emission's argument. */
static void show_reading(vepra_obj_t *src, unsigned code, vepra_obj_t *dest, void *usr,
                         void *arg) {
  int *shown = usr;
  (void)code;
  printf("%s shows %.1f degrees from %s\n", vepra_obj_get_name(dest), *(double *)arg,
         vepra_obj_get_name(src));
  ++*shown;
}

static int report(vepra_error_t *err) {
  vepra_error_clear(vepra_error_handle(err, vepra_error_stdhandler, NULL));
  return 1;
}

int main(void) {
  vepra_obj_t *thermometer = NULL, *display = NULL;
  vepra_error_t *err;
  double celsius = 21.5;
  int shown = 0;

  if (vepra_initialize() != 0) {
    fputs("cannot initialise vepra\n", stderr);
    return 1;
  }
  if ((err = vepra_obj_engine_init(vepra_pool)) != NULL) return report(err);
  if ((err = vepra_objsig_register(&READING, "reading")) != NULL) return report(err);

  /* Both objects live in pools below vepra_pool. */
  if ((err = vepra_obj_create(&thermometer, "thermometer", vepra_pool)) != NULL ||
      (err = vepra_obj_create(&display, "display", vepra_pool)) != NULL ||
      (err = vepra_obj_add_signal(thermometer, READING)) != NULL ||
      (err = vepra_obj_connect(thermometer, READING, display, show_reading, &shown)) != NULL)
    return report(err);

  if ((err = vepra_obj_emit_signal(thermometer, READING, &celsius)) != NULL) return report(err);
  vepra_obj_print_signals(thermometer, stdout);

  /* The display goes away; the thermometer forgets it. */
  vepra_obj_destroy(display);
  celsius = 22.0;
  if ((err = vepra_obj_emit_signal(thermometer, READING, &celsius)) != NULL) return report(err);
  printf("readings shown: %d\n", shown);
  vepra_obj_print_signals(thermometer, stdout);

  vepra_obj_destroy(thermometer);
  vepra_error_clear(vepra_obj_engine_terminate());
  vepra_terminate();
  return shown == 1 ? 0 : 1;
}
