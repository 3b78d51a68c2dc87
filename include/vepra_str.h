/**
 * @file vepra_str.h
 * @brief String conversion, bounded copies, formatting, escapes and base62.
 */
#ifndef VEPRA_STR_H
#define VEPRA_STR_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include <apr_pools.h>

#include "vepra_error.h"
#include "vepra_export.h"

VEPRA_BEGIN_DECL

/** @name Bounded copies and formatting
 *  @{ */
/** BSD strlcpy: copies at most size-1 bytes and terminates when size > 0.
 *  Returns strlen(src); a result >= size means the copy was cut.
 *  @param[out] dst buffer of size bytes; null writes nothing
 *  @param src text to copy; null is the empty text
 *  @param size bytes of dst
 *  @return strlen(src) */
VEPRA_API size_t vepra_str_strlcpy(char *dst, const char *src, size_t size)
    VEPRA_NOTHROW;
/** BSD strlcat: appends src within size bytes. Returns the length it tried
 *  to build (size + strlen(src) when dst has no terminator within size).
 *  @param[in,out] dst text in a buffer of size bytes; null is taken as
 *         a full buffer (nothing written)
 *  @param src text to append; null is the empty text
 *  @param size bytes of dst
 *  @return the length of the untruncated result */
VEPRA_API size_t vepra_str_strlcat(char *dst, const char *src, size_t size)
    VEPRA_NOTHROW;
/** snprintf into buf; returns the full length, negative on a format
 *  error.
 *  @param[out] buf buffer of size bytes; may be null when size is 0
 *  @param size bytes of buf
 *  @param format printf-style format
 *  @param ... arguments of format
 *  @return length of the full text, not counting the terminator */
VEPRA_API int vepra_str_snprintf(char *buf, size_t size, const char *format,
                                 ...) VEPRA_NOTHROW VEPRA_PRINTF(3, 4);
/** Formats into a new string of pool; null on failure.
 *  @param pool pool that owns the result; not null
 *  @param format printf-style format
 *  @param ... arguments of format
 *  @return the text in pool, or null on a format error or when the pool
 *          cannot give the memory */
VEPRA_API char *vepra_str_psprintf(apr_pool_t *pool, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 3);
/** va_list form of vepra_str_psprintf().
 *  @param pool pool that owns the result; not null
 *  @param format printf-style format
 *  @param ap arguments of format
 *  @return the text in pool, or null on failure */
VEPRA_API char *vepra_str_pvsprintf(apr_pool_t *pool, const char *format,
                                    va_list ap) VEPRA_NOTHROW
    VEPRA_PRINTF(2, 0);
/** @} */

/** @name Conversions
 *  Base-10 conversions that reject trailing text. On failure *out is left
 *  unchanged and the error carries the input in its message:
 *  "Cannot convert string '<s>' to double|integer|int64", followed by ": "
 *  and the system's text for errno when the conversion set errno.
 *  @{ */
/** strtod of the whole string into *out. Errors: 120063.
 *  @param s text to convert; null fails
 *  @param[out] out receives the value; may be null to only check s
 *  @return null on success, or the error (code 120063) */
VEPRA_API vepra_error_t *vepra_str_to_double(const char *s, double *out)
    VEPRA_NOTHROW;
/** strtol of the whole string; stores the low 32 bits of the long result
 *  (a value that fits a long but not an int is truncated, not refused).
 *  Errors: 120062.
 *  @param s text to convert; null fails
 *  @param[out] out receives the value; may be null to only check s
 *  @return null on success, or the error (code 120062) */
VEPRA_API vepra_error_t *vepra_str_to_integer(const char *s, int *out)
    VEPRA_NOTHROW;
/** strtoll of the whole string into *out. Errors: 120062.
 *  @param s text to convert; null fails
 *  @param[out] out receives the value; may be null to only check s
 *  @return null on success, or the error (code 120062) */
VEPRA_API vepra_error_t *vepra_str_to_int64(const char *s, int64_t *out)
    VEPRA_NOTHROW;
/** 1 when s is an optional '+' or '-' followed by one or more decimal
 *  digits and nothing else, else 0 (null gives 0). No range check.
 *  @param s text to check, or null
 *  @return 1 for an integer, else 0 */
VEPRA_API int vepra_str_is_integer(const char *s) VEPRA_NOTHROW;
/** @} */

/** @name Comparison, lengths, trimming and replacement
 *  @{ */
/** ASCII case-insensitive comparison: the difference of the first
 *  differing bytes after folding 'A'..'Z' to lower case, each taken as a
 *  signed char (bytes from 0x80 sort below ASCII); 0 when equal. A null
 *  string compares as the empty string.
 *  @param a first text, or null
 *  @param b second text, or null
 *  @return negative, 0 or positive as a sorts before, with or after b */
VEPRA_API int vepra_str_stricmp(const char *a, const char *b) VEPRA_NOTHROW;
/** Bytes before the terminator; 0 for null.
 *  @param s text, or null
 *  @return length in bytes */
VEPRA_API size_t vepra_str_len(const char *s) VEPRA_NOTHROW;
/** Number of UTF-8 characters: every byte that is not a continuation byte
 *  (10xxxxxx) counts; sequences are not validated. 0 for null.
 *  @param s UTF-8 text, or null
 *  @return length in characters */
VEPRA_API size_t vepra_str_utf8_len(const char *s) VEPRA_NOTHROW;
/** Removes leading and trailing white space (isspace) in place and
 *  returns s; null and "" are returned untouched.
 *  @param[in,out] s text to trim, or null
 *  @return s */
VEPRA_API char *vepra_str_trim(char *s) VEPRA_NOTHROW;
/** A new string (free() it) with every non-overlapping occurrence of from,
 *  scanned left to right, replaced by to; replacement text is never
 *  searched again. A null or empty from, or a null to, gives a plain copy.
 *  Null when s is null or memory runs out. Linear in the length.
 *  @param s text to search, or null
 *  @param from text to replace, or null
 *  @param to replacement text, or null
 *  @return the new text, owned by the caller, or null */
VEPRA_API char *vepra_str_replace_all(const char *s, const char *from,
                                      const char *to) VEPRA_NOTHROW;
/** A new string (free() it) with the first occurrence of from replaced by
 *  to (an empty from inserts to at the start). A plain copy when from does
 *  not occur or from or to is null; null when s is null or memory runs
 *  out.
 *  @param s text to search, or null
 *  @param from text to replace, or null
 *  @param to replacement text, or null
 *  @return the new text, owned by the caller, or null */
VEPRA_API char *vepra_str_replace(const char *s, const char *from,
                                  const char *to) VEPRA_NOTHROW;
/** Replaces the byte c by r in place, each search going on from the
 *  replaced position (so with r == 0 only the first c is replaced). Does
 *  nothing when c is 0 or r equals c. Returns s.
 *  @param[in,out] s text to change, or null
 *  @param c byte to replace
 *  @param r replacement byte
 *  @return s */
VEPRA_API char *vepra_str_replace_char(char *s, char c, char r)
    VEPRA_NOTHROW;
/** @} */

/** @name Formatting into new blocks
 *  @{ */
/** Formats into a new block stored in *out (free() it). Returns the number
 *  of characters written, or -1 (and *out untouched) on a format error or
 *  when memory runs out.
 *  @param[out] out receives the text; not null (null returns -1)
 *  @param format printf-style format; null returns -1
 *  @param ... arguments of format
 *  @return length of the text, or -1 */
VEPRA_API int vepra_str_asprintf(char **out, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 3);
/** va_list form of vepra_str_asprintf().
 *  @param[out] out receives the text; not null (null returns -1)
 *  @param format printf-style format; null returns -1
 *  @param ap arguments of format
 *  @return length of the text, or -1 */
VEPRA_API int vepra_str_vasprintf(char **out, const char *format, va_list ap)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 0);
/** @} */

/** @name Escapes
 *  Both functions measure when dst is null and write when it is not; in
 *  both modes they store in *size the length of the result plus one. A
 *  source length of 0 or less gives the empty result.
 *  @{ */
/**
 * Turns C escapes of src[0..len) into bytes. Escapes: octal `\ooo` (1 to 3
 * digits), `\a` `\b` `\f` `\n` `\r` `\t` `\v`, `\x` with 1 or 2 hex digits, `\u`
 * with 1 to 4 hex digits, and \ before any other byte for that byte (a
 * backslash that ends the source is kept as it is). A value below 256 (and
 * a `\u` value below 128) gives one byte, or in wide mode the two bytes
 * value, 0. A `\u` value of 128 or more and an octal value of 256 or more
 * give their UTF-8 bytes in both modes; `\uFFFF` gives nothing. Other bytes
 * are copied, or in wide mode written as a 16-bit little-endian unit: the
 * byte itself, or its UniCode value when table is non-zero. A byte whose
 * CharSet class has 0x80 is copied together with the byte after it.
 *
 * With dst, at most *size - 1 bytes and a terminating 0 byte are written
 * (nothing when *size is 0); plain bytes past that are counted, not
 * written. UTF-8 output that does not fit within *size - 1 bytes fails,
 * except when *size is 0, which allows any length: measure with *size 0.
 * On failure the output written so far is terminated.
 *
 * Errors: 120064 `\x` or `\u` without a hex digit; code 0 without message
 * when UTF-8 output does not fit; 120020 when size is null.
 *
 * @param[out] dst output buffer of *size bytes, or null to measure
 * @param[in,out] size bytes of dst (0 for no limit when measuring UTF-8
 *        output); receives the result's length plus one
 * @param src escaped text, or null for none
 * @param len bytes of src
 * @param wide non-zero for 16-bit little-endian output
 * @param table non-zero to map plain bytes through UniCode in wide mode
 * @return null on success, or the error (codes 120064, 0, 120020)
 */
VEPRA_API vepra_error_t *vepra_str_escape_parse(char *dst, size_t *size,
                                                const char *src,
                                                ptrdiff_t len, int wide,
                                                int table) VEPRA_NOTHROW;
/**
 * Writes src[0..len) as C text: printable bytes (isprint) stay, except
 * '"', '\'' and '\\', which get a backslash; bytes 7 to 13 become `\a` `\b`
 * `\t` `\n` `\v` `\f` `\r`; every other byte becomes `\xHH` (upper-case hex).
 * With dst each piece is written only when it and the terminator fit;
 * otherwise the output is terminated where it stands, *size becomes the
 * bytes written plus one and the call fails with 120066. Without dst the
 * full size is stored. Errors: 120066; 120020 when size is null.
 *
 * @param[out] dst output buffer of *size bytes, or null to measure
 * @param[in,out] size bytes of dst; receives the result's length plus one
 * @param src bytes to escape, or null for none
 * @param len bytes of src
 * @return null on success, or the error (codes 120066, 120020)
 */
VEPRA_API vepra_error_t *vepra_str_escape_unparse(char *dst, size_t *size,
                                                  const char *src,
                                                  ptrdiff_t len)
    VEPRA_NOTHROW;
/** @} */

/** @name Base 2 to 62
 *  Digits by value: 0-9, then A-Z (10 to 35), then a-z (36 to 61).
 *  @{ */
/** Writes value in base (2..62) into buf with the strlcpy contract (at
 *  most size-1 characters, terminated when size > 0; buf may be null with
 *  size 0) and returns the length of the full text, sign included. A base
 *  outside 2..62 returns 0 and writes nothing.
 *  @param value number to write
 *  @param base radix, 2 to 62
 *  @param[out] buf buffer of size bytes, or null when size is 0
 *  @param size bytes of buf
 *  @return length of the full text, or 0 for a bad base */
VEPRA_API int vepra_str_int64_to_base62(int64_t value, int base, char *buf,
                                        size_t size) VEPRA_NOTHROW;
/**
 * strtoll widened to 62 digits: skips white space, takes one sign, and
 * with base 0 or 16 a 0x/0X prefix (base 0 otherwise: 8 after a leading
 * 0, else 10). Lower-case letters are digits 36 to 61, so they are never
 * digits in bases up to 36. Stores the value in *out and, when end is not
 * null, the position after the last digit (s itself when no digit was
 * read; the value is then 0 and that is no error). A base other than 0 and
 * 2..62 reads no digit.
 * Errors: 120062 "'<s>' does not fit into 64-bit signed integer." on
 * overflow, with INT64_MAX or INT64_MIN stored and end set as usual.
 *
 * @param s text to read; null stores 0 and a null end and succeeds
 * @param[out] end receives the position after the number, or null
 * @param base radix: 0 to detect, or 2 to 62
 * @param[out] out receives the value, or null
 * @return null on success, or the error (code 120062)
 */
VEPRA_API vepra_error_t *vepra_str_base62_to_int64(const char *s, char **end,
                                                   int base, int64_t *out)
    VEPRA_NOTHROW;
/** @} */

/** @name Character tables
 *  @{ */
/** Character classes by byte value (entries 256 to 259 are 0): 0x01
 *  letter that is not a hex digit (G-Z, '_', g-z, 128-154, 160-167), 0x02
 *  decimal digit, 0x04 hex letter (always with 0x01), 0x08 NUL, LF, '\\'
 *  or '?', 0x10 quote, bracket or separator, 0x20 operator, 0x40 blank,
 *  0x80 lead byte of a two-byte character (none by default). Writable, so
 *  an application can mark lead bytes for the escape parser. */
VEPRA_API extern uint32_t CharSet[260];
/** Unicode code point of each byte of code page 437; used by the escape
 *  parser in wide mode with the table flag. Writable, so an application
 *  can install another code page. */
VEPRA_API extern uint16_t UniCode[256];
/** @} */

/** @name Formatted-output engine
 *  Same contract as the system's vsnprintf, snprintf, vasprintf and
 *  asprintf (the asprintf results are freed with free()).
 *  @{ */
/** vsnprintf(): formats into buf[0..size); returns the full length.
 *  @param[out] buf buffer of size bytes; may be null when size is 0
 *  @param size bytes of buf
 *  @param format printf-style format
 *  @param ap arguments of format
 *  @return length of the full text, negative on a format error */
VEPRA_API int rpl_vsnprintf(char *buf, size_t size, const char *format,
                            va_list ap) VEPRA_NOTHROW VEPRA_PRINTF(3, 0);
/** snprintf(): formats into buf[0..size); returns the full length.
 *  @param[out] buf buffer of size bytes; may be null when size is 0
 *  @param size bytes of buf
 *  @param format printf-style format
 *  @param ... arguments of format
 *  @return length of the full text, negative on a format error */
VEPRA_API int rpl_snprintf(char *buf, size_t size, const char *format, ...)
    VEPRA_NOTHROW VEPRA_PRINTF(3, 4);
/** vasprintf(): formats into new memory in *out; returns the length or -1.
 *  @param[out] out receives the text, owned by the caller
 *  @param format printf-style format
 *  @param ap arguments of format
 *  @return length of the text, or -1 */
VEPRA_API int rpl_vasprintf(char **out, const char *format, va_list ap)
    VEPRA_NOTHROW VEPRA_PRINTF(2, 0);
/** asprintf(): formats into new memory in *out; returns the length or -1.
 *  @param[out] out receives the text, owned by the caller
 *  @param format printf-style format
 *  @param ... arguments of format
 *  @return length of the text, or -1 */
VEPRA_API int rpl_asprintf(char **out, const char *format, ...) VEPRA_NOTHROW
    VEPRA_PRINTF(2, 3);
/** @} */

VEPRA_END_DECL

#endif /* VEPRA_STR_H */
