/* SPDX-License-Identifier: MIT */
#include "xid.h"

#include <bit>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "announce.h"
#include "xmemory.h"

namespace {

constexpr std::uint32_t identifiers = 32768;
constexpr std::uint32_t identifier_mask = identifiers - 1;

std::uint64_t &word_of(std::uint32_t id, idproducer &ids) {
    return ids.bitmap[(id & identifier_mask) >> ids.shift];
}

std::uint64_t bit_of(std::uint32_t id, const idproducer &ids) {
    return std::uint64_t{1} << (id & (ids.bits - 1));
}

} // namespace

idproducer *idproducer_new(std::int32_t binding, void (*arg_free)(void *)) {
    auto *ids = static_cast<idproducer *>(xcalloc(0, sizeof(idproducer)));
    ids->last = 0xffffffff;
    ids->free = identifiers;
    ids->bits = 64;
    ids->shift = static_cast<std::uint32_t>(std::countr_zero(ids->bits));
    if (binding != 1)
        return ids;
    ids->args = static_cast<void **>(xcalloc(0, identifiers * sizeof(void *)));
    ids->arg_free = arg_free;
    if (arg_free == nullptr)
        keel::announce(stderr,
                       "This is an id producer with binding, no argument auto free function "
                       "warning.\n");
    return ids;
}

int idproducer_del(idproducer *ids) {
    if (ids->args != nullptr && ids->arg_free != nullptr)
        for (std::uint32_t id = 0; id < identifiers; id++)
            if (ids->args[id] != nullptr)
                ids->arg_free(ids->args[id]);
    xfree(0, ids->args);
    xfree(0, ids);
    return 0;
}

std::int32_t idproducer_alloc(idproducer *ids, void *arg) {
    if (ids->free == 0)
        return -1;
    std::uint32_t id = find_next_zero_bit((ids->last + 1) & identifier_mask, ids);
    if (id == identifiers)
        id = find_next_zero_bit(0, ids);
    if (id == identifiers || test_and_set_bit(id, ids) == 1)
        return -1;
    ids->free--;
    ids->last = id;
    if (ids->args != nullptr)
        ids->args[id] = arg;
    return static_cast<std::int32_t>(id);
}

int idproducer_free(idproducer *ids, std::uint32_t id, void **out_arg) {
    if (test_and_clr_bit(id, ids) == 1)
        return -1;
    ids->free++;
    if (ids->args == nullptr || id >= identifiers)
        return 0;
    void *bound = std::exchange(ids->args[id], nullptr);
    if (out_arg != nullptr)
        *out_arg = bound;
    else if (ids->arg_free != nullptr && bound != nullptr)
        ids->arg_free(bound);
    return 0;
}

/* A word at a time: what lies below `start` in the first one counts as taken. */
std::uint32_t find_next_zero_bit(std::uint32_t start, const idproducer *ids) {
    if (start >= identifiers)
        return identifiers;
    std::uint64_t below_start = bit_of(start, *ids) - 1;
    for (std::uint32_t word = start >> ids->shift; word < identifiers >> ids->shift; word++) {
        const std::uint64_t vacant = ~(ids->bitmap[word] | below_start);
        if (vacant != 0)
            return (word << ids->shift) + static_cast<std::uint32_t>(std::countr_zero(vacant));
        below_start = 0;
    }
    return identifiers;
}

int test_and_set_bit(std::uint32_t id, idproducer *ids) {
    std::uint64_t &word = word_of(id, *ids);
    const bool was_set = (word & bit_of(id, *ids)) != 0;
    word |= bit_of(id, *ids);
    return was_set ? 1 : 0;
}

int test_and_clr_bit(std::uint32_t id, idproducer *ids) {
    std::uint64_t &word = word_of(id, *ids);
    const bool was_clear = (word & bit_of(id, *ids)) == 0;
    word &= ~bit_of(id, *ids);
    return was_clear ? 1 : 0;
}
