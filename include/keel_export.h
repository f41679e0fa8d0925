/* SPDX-License-Identifier: MIT */
/**
 * @file keel_export.h
 * @brief The marks that every keel header puts on its declarations.
 *
 * Hosts never include this header themselves; each family's header does.
 */
#ifndef KEEL_EXPORT_H
#define KEEL_EXPORT_H

/** An exported name: visible in libkeel.so, where everything else is hidden. */
#define KEEL_API __attribute__((__visibility__("default")))

/** Argument `format_index` is a printf format whose arguments begin at `first` (0: a va_list). */
#define KEEL_PRINTF(format_index, first)                                                           \
    __attribute__((__format__(__printf__, format_index, first)))

/** Argument `format_index` is a scanf format whose arguments begin at `first`. */
#define KEEL_SCANF(format_index, first) __attribute__((__format__(__scanf__, format_index, first)))

/** The call never returns. */
#define KEEL_NORETURN __attribute__((__noreturn__))

/** The variable arguments end with a null pointer. */
#define KEEL_SENTINEL __attribute__((__sentinel__))

#ifdef __cplusplus
#define KEEL_BEGIN_DECLS extern "C" {
#define KEEL_END_DECLS }
#else
#define KEEL_BEGIN_DECLS
#define KEEL_END_DECLS
#endif

#endif
