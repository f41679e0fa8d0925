/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <pthread.h>

namespace keel_test {

inline void *run_body(void *body) {
    (*static_cast<const std::function<void()> *>(body))();
    pthread_testcancel();
    return nullptr;
}

/* Runs `body` on a thread of its own and, meanwhile, the other with that thread. Tells whether it
 * ended by cancellation. */
inline bool ends_cancelled(
    std::function<void()> body,
    const std::function<void(pthread_t)> &meanwhile = [](pthread_t) {}) {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_body, &body) != 0)
        return false;
    meanwhile(thread);
    void *result = nullptr;
    return pthread_join(thread, &result) == 0 && result == PTHREAD_CANCELED;
}

/* Runs `body` on a thread that is cancelled before it begins: it gets as far as the first place
 * where it can be cancelled. */
inline bool run_cancelled(const std::function<void()> &body) {
    return ends_cancelled([&] {
        pthread_cancel(pthread_self());
        body();
    });
}

} // namespace keel_test
