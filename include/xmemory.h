/* SPDX-License-Identifier: MIT */
/**
 * @file xmemory.h
 * @brief Checked allocation: memory, or the end of the process.
 *
 * Every object of the library is allocated here. A caller never tests for null: when memory runs
 * out, "No memory!!!\n" goes to standard error and the process exits with status 255. Nothing is
 * cleaned up first; the operating system takes back what the process held.
 *
 * Each call begins with an allocation tag, which callers pass as 0 and nothing reads.
 *
 * All functions may be called from any thread.
 *
 * @code{.c}
 * #include <xmemory.h>
 *
 * int main(void) {
 *     int *squares = (int *)xcalloc(0, 4 * sizeof *squares);
 *     squares = (int *)xrealloc(0, squares, 8 * sizeof *squares);
 *     squares[7] = 49;
 *     int right = squares[3] == 0 && squares[7] == 49;
 *     xfree(0, squares);
 *     return right ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XMEMORY_H
#define KEEL_XMEMORY_H

#include <stddef.h>
#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** A new block of `size` bytes, contents undefined. The caller gives it back with xfree(). */
KEEL_API void *xmalloc(uint32_t tag, size_t size);

/** A new block of `size` bytes, zero-filled. The caller gives it back with xfree(). */
KEEL_API void *xcalloc(uint32_t tag, size_t size);

/**
 * `block` grown or shrunk to `size` bytes, perhaps at another address; a null block is
 * allocated. A size of 0 frees an existing block and ends the process, as there is none to return.
 */
KEEL_API void *xrealloc(uint32_t tag, void *block, size_t size);

/** Frees `block`; null is ignored. */
KEEL_API void xfree(uint32_t tag, void *block);

KEEL_END_DECLS

#endif
