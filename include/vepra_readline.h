/**
 * @file vepra_readline.h
 * @brief Console line input with history and a line editor.
 *
 * A line-input context owns a prompt, an echo switch, a line buffer and a
 * history list browsed with vepra_ri_readline_hist(). vepra_ri_readline()
 * reads one line through the context's character reader:
 *
 * - without a reader it draws the prompt and fails with 120131;
 * - with vepra_ri_readline_set_reader() every byte of the reader is a key
 *   of the line editor (below);
 * - with vepra_ri_readline_set_stream() a stdio stream gives plain lines;
 * - with vepra_ri_readline_set_terminal() a terminal is put into raw mode
 *   for the duration of each call (and always restored) and edited; a
 *   descriptor that is not a terminal gives plain lines.
 *
 * Editor keys: printable bytes are inserted at the cursor; Backspace (DEL
 * or Ctrl-H) and Delete (ESC [ 3 ~) remove the character before or under
 * the cursor; Left and Right (also Ctrl-B and Ctrl-F) move by one
 * character; Home and End (several escape forms, also Ctrl-A and Ctrl-E)
 * jump to the ends; Ctrl-U and Ctrl-K delete before and from the cursor;
 * Up and Down (also Ctrl-P and Ctrl-N) browse the history; Enter (CR or LF)
 * ends the line. A UTF-8 character (a lead byte and its continuation bytes)
 * is never split by a move or a deletion. Ctrl-C ends the call with 120133;
 * Ctrl-D deletes under the cursor, or ends the input on an empty line.
 * With echo on, the prompt and the edited line are drawn on standard output
 * (a line wider than the console scrolls sideways); with echo off nothing
 * is printed, which also suits secret input.
 *
 * The caller adds lines to the history itself (vepra_ri_readline_addhist).
 */
#ifndef VEPRA_READLINE_H
#define VEPRA_READLINE_H

#include <stdint.h>
#include <stdio.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"
#include "vepra_strlist.h"

VEPRA_BEGIN_DECL

/** Line-input context, made by vepra_ri_readline_init() (zero-filled, in
 *  its own pool). */
typedef struct vepra_ri_readline_t {
  /** The context's pool: owns the context, the prompt and the history. */
  apr_pool_t *pool;
  /** Sub-pool of pool, cleared by every vepra_ri_readline(): owns the line
   *  buffer and the saved line. */
  apr_pool_t *line_pool;
  /** The line buffer; null until a line is begun. */
  char *line;
  /** Reset to 0 by vepra_ri_readline(); otherwise unused. */
  void *reserved;
  /** Non-zero: the prompt (and, while editing, the line) is printed. */
  uint32_t echo;
  /** Console width used to blank and draw the line. */
  int32_t width;
  /** Copy of the prompt, or null. */
  char *prompt;
  /** The history, newest entry first. */
  vepra_strlist_t *history;
  /** Number of history entries. */
  int32_t hist_count;
  /** Position while browsing the history; -1 is the line being edited. */
  int32_t hist_pos;
  /** Copy of the line being edited, taken when browsing starts. */
  char *saved_line;
  /** 1 until saved_line has been taken for this line. */
  uint32_t unsaved;
} vepra_ri_readline_t;

/** Values a character reader returns instead of a byte. Any other negative
 *  value, or one above 255, counts as VEPRA_RI_READ_ERROR. */
enum vepra_ri_read_status {
  VEPRA_RI_END_OF_INPUT = -1, /**< no more input */
  VEPRA_RI_INTERRUPT = -2,    /**< reading halted by the user */
  VEPRA_RI_READ_ERROR = -3    /**< the read failed */
};

/** Character reader: returns the next byte (0 to 255) or a
 *  vepra_ri_read_status value. Must not throw.
 *  @param user the pointer given to vepra_ri_readline_set_reader()
 *  @return the next byte, or a vepra_ri_read_status value */
typedef int (*vepra_ri_reader_fn)(void *user);

/** Makes a context in a new sub-pool of parent and stores it in *out.
 *  prompt (copied) may be null. Errors: a null out (APR's text for
 *  EINVAL) or a pool failure (APR's text), wrapped by "Can't initialize
 *  readline.".
 *  @param[out] out receives the context, owned by its own pool; not null
 *  @param prompt text printed before each line, or null for none
 *  @param echo non-zero to print the prompt and the edited line
 *  @param parent pool under which the context's pool is made
 *  @return null on success, or the error chain (APR status codes, or
 *          120012 when the history cannot be made) */
VEPRA_API vepra_error_t *vepra_ri_readline_init(vepra_ri_readline_t **out,
                                                const char *prompt,
                                                uint32_t echo,
                                                apr_pool_t *parent)
    VEPRA_NOTHROW;
/** Destroys the context's pool, and with it the context, its line and its
 *  history. Null is ignored.
 *  @param rl context from vepra_ri_readline_init(), or null; invalid
 *         afterwards */
VEPRA_API void vepra_ri_readline_terminate(vepra_ri_readline_t *rl)
    VEPRA_NOTHROW;
/** Adds a copy of s (in the context's pool) as the newest history entry.
 *  No duplicate check and no limit. Errors: 120051 for a null rl or s, or
 *  the list's failure, wrapped by "Readline: can't add string to
 *  history.".
 *  @param s line to add; copied
 *  @param[in,out] rl context whose history grows
 *  @return null on success, or the error chain (codes 120051, 120012) */
VEPRA_API vepra_error_t *vepra_ri_readline_addhist(const char *s,
                                                   vepra_ri_readline_t *rl)
    VEPRA_NOTHROW;
/** Moves through the history: direction 1 is older, anything else newer.
 *  The first move older saves the line being edited; moving newer past the
 *  newest entry brings it back. Returns 1 when the line buffer was
 *  replaced, 0 when there was nowhere to go (or rl is null).
 *  @param[in,out] rl context whose line buffer is replaced
 *  @param direction 1 for an older entry, any other value for a newer one
 *  @return 1 when the line changed, else 0 */
VEPRA_API int vepra_ri_readline_hist(vepra_ri_readline_t *rl, int direction)
    VEPRA_NOTHROW;
/** Replaces the line buffer by size zeroed bytes from line_pool holding as
 *  much of the old line as fits (size - 1 bytes at most; a size of 0 counts
 *  as 1). Nothing happens for a null rl or when the allocation fails.
 *  @param[in,out] rl context whose line buffer is replaced
 *  @param size bytes of the new buffer, terminating NUL included */
VEPRA_API void vepra_ri_readline_growbuffer(vepra_ri_readline_t *rl,
                                            size_t size) VEPRA_NOTHROW;
/**
 * Reads one line into rl->line (owned by line_pool: valid until the next
 * call or vepra_ri_readline_terminate). The first argument is not read.
 * Every call clears line_pool, starts a fresh line and, with echo on,
 * prints the prompt with "%s" and flushes standard output.
 *
 * Without a reader the line stays empty, "\r%*c\r" (field width
 * rl->width - 1) blanks the console line when echo is on, and the call
 * fails with 120131. With a reader the line has no length limit and the
 * call succeeds at the end of a line, or at the end of input after at
 * least one byte of this call. rl->width is the terminal's width for a
 * terminal reader (80 when it cannot be asked), else 80 when it is not
 * positive.
 *
 * Errors: 120131 without a reader or for a null rl; 120133 for Ctrl-C, an
 * interrupt from the reader, or the end of input before any byte of the
 * call (or Ctrl-D on an empty line); 120132 for a read error or a
 * terminal that cannot be switched to raw mode; 120012 when the line
 * buffer cannot grow.
 *
 * @param unused ignored; pass null
 * @param[in,out] rl context from vepra_ri_readline_init()
 * @return null when a line was read, or the error chain (codes 120131, 120132,
 *         120133, 120012)
 */
VEPRA_API vepra_error_t *vepra_ri_readline(void *unused,
                                           vepra_ri_readline_t *rl)
    VEPRA_NOTHROW;
/** Sets the context's character reader, whose bytes go through the line
 *  editor; a null reader removes it. Null rl is ignored.
 *  @param[in,out] rl context to read for
 *  @param reader function giving the bytes, or null
 *  @param user handed to every call of reader; not owned */
VEPRA_API void vepra_ri_readline_set_reader(vepra_ri_readline_t *rl,
                                            vepra_ri_reader_fn reader,
                                            void *user) VEPRA_NOTHROW;
/** Reads plain lines from stream (a file or a pipe, not owned): every byte
 *  up to a newline, without editing; NUL bytes are dropped. A null stream
 *  removes the reader.
 *  @param[in,out] rl context to read for; null is ignored
 *  @param stream open stream to read from, or null */
VEPRA_API void vepra_ri_readline_set_stream(vepra_ri_readline_t *rl,
                                            FILE *stream) VEPRA_NOTHROW;
/** Reads from the file descriptor fd (not owned). When fd is a terminal,
 *  each vepra_ri_readline() puts it into raw mode, edits the line and
 *  restores the terminal's settings before returning, whatever the
 *  outcome; otherwise lines are read plainly as by
 *  vepra_ri_readline_set_stream().
 *  @param[in,out] rl context to read for; null is ignored
 *  @param fd open descriptor to read from; a negative one removes the
 *         reader */
VEPRA_API void vepra_ri_readline_set_terminal(vepra_ri_readline_t *rl,
                                              int fd) VEPRA_NOTHROW;

VEPRA_END_DECL

#endif /* VEPRA_READLINE_H */
