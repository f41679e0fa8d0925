/* SPDX-License-Identifier: MIT */
#include "xmemory.h"

#include <cstdint>
#include <cstdlib>
#include <unistd.h>

#include "cancel_shield.h"
#include "ending.h"

namespace {

/* Unformatted on purpose: a formatted print may itself need the memory that has run out. */
[[noreturn]] void xerror(const char * /*function*/, std::uint32_t /*tag*/, std::size_t /*size*/) {
    const keel::cancel_shield shield;
    static constexpr char message[] = "No memory!!!\n";
    [[maybe_unused]] const auto ignored = write(STDERR_FILENO, message, sizeof message - 1);
    keel::end_process(-1);
}

} // namespace

void *xmalloc(std::uint32_t tag, std::size_t size) {
    void *block = std::malloc(size);
    if (block == nullptr)
        xerror("xmalloc", tag, size);
    return block;
}

void *xcalloc(std::uint32_t tag, std::size_t size) {
    void *block = std::calloc(1, size);
    if (block == nullptr)
        xerror("xcalloc", tag, size);
    return block;
}

void *xrealloc(std::uint32_t tag, void *block, std::size_t size) {
    void *moved = std::realloc(block, size);
    if (moved == nullptr)
        xerror("xrealloc", tag, size);
    return moved;
}

void xfree(std::uint32_t /*tag*/, void *block) {
    std::free(block);
}
