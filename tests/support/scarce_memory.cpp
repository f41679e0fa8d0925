/* SPDX-License-Identifier: MIT */
#include "scarce_memory.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

/* What the C library's own functions of these names do. */
extern "C" {
void *__libc_malloc(std::size_t size);                          // NOLINT
void *__libc_calloc(std::size_t count, std::size_t size);       // NOLINT
void *__libc_realloc(void *block, std::size_t size);            // NOLINT
void *__libc_memalign(std::size_t alignment, std::size_t size); // NOLINT
void __libc_free(void *block);                                  // NOLINT
}

namespace {

std::atomic<bool> lasts;
std::atomic<int> left; // until one fails; 0: none does
std::atomic<bool> everywhere;
thread_local bool here; // the thread for which memory is short
std::atomic<long> held; // blocks

std::atomic<int> *shared_counter() {
    void *page = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page == MAP_FAILED ? std::abort(), nullptr : new (page) std::atomic<int>;
}

std::atomic<int> &failed = *shared_counter();

bool comes_to_an_end() {
    int now = left;
    while (now > 1)
        if (left.compare_exchange_weak(now, now - 1))
            return false;
    return now == 1 && (lasts || left.exchange(0) == 1);
}

bool fails() {
    if (left == 0 || (!here && !everywhere) || !comes_to_an_end())
        return false;
    failed++;
    errno = ENOMEM;
    return true;
}

void *counted(void *block) {
    held += block != nullptr;
    return block;
}

} // namespace

extern "C" {

void *malloc(std::size_t size) noexcept {
    return fails() ? nullptr : counted(__libc_malloc(size));
}

void *calloc(std::size_t count, std::size_t size) noexcept {
    return fails() ? nullptr : counted(__libc_calloc(count, size));
}

void *realloc(void *block, std::size_t size) noexcept {
    if (block == nullptr)
        return malloc(size);
    if (fails())
        return nullptr;
    void *moved = __libc_realloc(block, size);
    held -= moved == nullptr && size == 0;
    return moved;
}

void *memalign(std::size_t alignment, std::size_t size) noexcept {
    return fails() ? nullptr : counted(__libc_memalign(alignment, size));
}

void *aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size) noexcept {
    void *made = memalign(alignment, size);
    if (made == nullptr)
        return ENOMEM;
    *block = made;
    return 0;
}

void free(void *block) noexcept {
    held -= block != nullptr;
    __libc_free(block);
}
}

namespace keel_test {

scarce_memory::scarce_memory(const shortage &which, bool for_all) {
    lasts = which.lasts;
    everywhere = for_all;
    here = true;
    left = which.first;
}

scarce_memory::~scarce_memory() {
    end();
    here = false;
}

void scarce_memory::end() {
    left = 0;
}

int scarce_memory::failures() {
    return failed;
}

void scarce_memory::forget_failures() {
    failed = 0;
}

long scarce_memory::blocks() {
    return held;
}

} // namespace keel_test
