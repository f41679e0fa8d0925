/* SPDX-License-Identifier: MIT */
/**
 * @file xid.h
 * @brief Small identifiers, 0 to 32767, handed out in rotation, each with an argument bound to it.
 *
 * The search for a free one goes on behind the last one that was given and wraps at the end, so
 * that one that was just freed is mostly not the next one given.
 *
 * A producer locks nothing: its user serialises the calls. A null producer is not tolerated. Memory
 * that runs out ends the process, as xmemory.h says.
 *
 * @code{.c}
 * #include <stdlib.h>
 * #include <xid.h>
 *
 * int main(void) {
 *     idproducer *ids = idproducer_new(1, free);
 *     int first = idproducer_alloc(ids, malloc(8));
 *     int second = idproducer_alloc(ids, malloc(8));
 *     idproducer_free(ids, (uint32_t)first, NULL); // frees what was bound to it, too
 *     int third = idproducer_alloc(ids, NULL);
 *     idproducer_del(ids);
 *     return first == 0 && second == 1 && third == 2 ? 0 : 1;
 * }
 * @endcode
 */
#ifndef KEEL_XID_H
#define KEEL_XID_H

#include <stdint.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Identifier i is in use where bit i mod 64 of `bitmap`[i / 64] is set. */
typedef struct idproducer {
    uint32_t last;            /**< handed out most recently; 0xFFFFFFFF before the first */
    uint32_t free;            /**< identifiers still free */
    uint32_t shift;           /**< log2 of `bits`: 6 */
    uint32_t bits;            /**< bits of a bitmap word: 64 */
    uint64_t bitmap[512];     /**< 32768 bits */
    void **args;              /**< what is bound to each identifier; null without binding */
    void (*arg_free)(void *); /**< frees what is bound, or null */
} idproducer;

/**
 * A new producer with all identifiers free. With `binding` exactly 1, each identifier binds an
 * argument, and `arg_free`, unless null, frees the arguments that nobody takes back; a null
 * `arg_free` is then remarked on standard error: "This is an id producer with binding, no argument
 * auto free function warning.\n". The caller gives the producer back with idproducer_del().
 */
KEEL_API idproducer *idproducer_new(int32_t binding, void (*arg_free)(void *));

/**
 * Frees the producer, and what is still bound through `arg_free`, in the order of the identifiers.
 * Returns 0.
 */
KEEL_API int idproducer_del(idproducer *ids);

/**
 * The first free identifier after the last one given, from 0 again behind 32767, with `arg` bound
 * to it (ignored without binding). -1 when none is free.
 */
KEEL_API int32_t idproducer_alloc(idproducer *ids, void *arg);

/**
 * Gives `id` back. What was bound to it goes to `*out_arg`, which the caller then owns, or, where
 * `out_arg` is null, through `arg_free`. Returns 0; -1, with nothing changed, where `id` was not in
 * use. `id` is at most 32767: of a higher one the low 15 bits are given back, and nothing that is
 * bound is touched.
 */
KEEL_API int idproducer_free(idproducer *ids, uint32_t id, void **out_arg);

/** The lowest free identifier from `start` on; 32768 where there is none. */
KEEL_API uint32_t find_next_zero_bit(uint32_t start, const idproducer *ids);

/** Marks `id` (its low 15 bits) as in use, without counting it. Returns 1 where it was already. */
KEEL_API int test_and_set_bit(uint32_t id, idproducer *ids);

/** Marks `id` (its low 15 bits) as free, without counting it. Returns 1 where it was already. */
KEEL_API int test_and_clr_bit(uint32_t id, idproducer *ids);

KEEL_END_DECLS

#endif
