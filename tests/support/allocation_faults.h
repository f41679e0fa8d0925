/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>

/* Lets an allocation of the library fail on demand. For one source file of a test program that is
 * linked with --wrap for each of the functions below. */

namespace keel_test {

inline int allocations_left = 0; // until one fails; 0: none does

inline bool allocation_fails() {
    if (allocations_left == 0 || --allocations_left > 0)
        return false;
    errno = ENOMEM;
    return true;
}

/* While it lives, the `n`-th allocation from now on fails. */
class failing_allocation {
  public:
    explicit failing_allocation(int n) { allocations_left = n; }
    ~failing_allocation() { allocations_left = 0; }
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;

    /* Whether it has failed. */
    bool happened() const { return allocations_left == 0; }
};

} // namespace keel_test

extern "C" {
void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void *__real_realloc(void *block, std::size_t size);
char *__real_strdup(const char *text);
__attribute__((format(printf, 2, 0))) int __real_vasprintf(char **text, const char *format,
                                                           va_list arguments);

void *__wrap_malloc(std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size);
void *__wrap_realloc(void *block, std::size_t size);
char *__wrap_strdup(const char *text);
__attribute__((format(printf, 2, 0))) int __wrap_vasprintf(char **text, const char *format,
                                                           va_list arguments);
__attribute__((format(printf, 3, 0))) int
__wrap___vasprintf_chk(char **text, int flag, const char *format, va_list arguments);

void *__wrap_malloc(std::size_t size) {
    return keel_test::allocation_fails() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(std::size_t count, std::size_t size) {
    return keel_test::allocation_fails() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *block, std::size_t size) {
    return keel_test::allocation_fails() ? nullptr : __real_realloc(block, size);
}

char *__wrap_strdup(const char *text) {
    return keel_test::allocation_fails() ? nullptr : __real_strdup(text);
}

/* A failure leaves the pointer at no address at all, as the contract allows. */
int __wrap_vasprintf(char **text, const char *format, va_list arguments) {
    if (!keel_test::allocation_fails())
        return __real_vasprintf(text, format, arguments);
    *text = reinterpret_cast<char *>(16);
    return -1;
}

/* Its name where the library is compiled with fortified calls. */
int __wrap___vasprintf_chk(char **text, int /*flag*/, const char *format, va_list arguments) {
    return __wrap_vasprintf(text, format, arguments);
}
}
