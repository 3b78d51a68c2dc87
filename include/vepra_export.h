/**
 * @file vepra_export.h
 * @brief Export macro and C linkage guards shared by every public header.
 *
 * This header only defines macros; it includes nothing, so any public
 * header can include it without creating include cycles.
 */
#ifndef VEPRA_EXPORT_H
#define VEPRA_EXPORT_H

/* VEPRA_API marks a declaration as part of the exported interface. The
 * library itself is compiled with VEPRA_BUILDING and hidden visibility, so
 * only the declarations carrying this macro reach the dynamic symbol table. */
#if defined(VEPRA_BUILDING) && defined(__GNUC__)
#define VEPRA_API __attribute__((visibility("default")))
#else
#define VEPRA_API
#endif

/* Exported functions never let a C++ exception escape: under C++ they are
 * declared noexcept, so a stray exception ends in std::terminate instead of
 * unwinding through C frames. */
#ifdef __cplusplus
#define VEPRA_NOTHROW noexcept
#define VEPRA_BEGIN_DECL extern "C" {
#define VEPRA_END_DECL }
#else
#define VEPRA_NOTHROW
#define VEPRA_BEGIN_DECL
#define VEPRA_END_DECL
#endif

/* printf-style format checking for the variadic functions. */
#if defined(__GNUC__)
#define VEPRA_PRINTF(fmt_index, first_arg) \
  __attribute__((format(printf, fmt_index, first_arg)))
#else
#define VEPRA_PRINTF(fmt_index, first_arg)
#endif

#endif /* VEPRA_EXPORT_H */
