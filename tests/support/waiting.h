/* SPDX-License-Identifier: MIT */
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace keel_test {

/* Threads cost several times as much under a sanitizer. */
#ifdef __has_feature
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define KEEL_TEST_SANITIZED
#endif
#endif
#ifdef KEEL_TEST_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

/* How often a race is provoked: KEEL_TEST_ROUNDS times, for a run that takes its time or for one
 * below valgrind, else `usual` times. */
inline int rounds(int usual) {
    const char *wanted = std::getenv("KEEL_TEST_ROUNDS");
    return wanted != nullptr ? std::atoi(wanted) : usual;
}

/* Waiting is a cancellation point. The thread sanitizer, which takes a thread that was cancelled in
 * the system's own sem_wait() to be in there for ever, bears it here. */
class semaphore {
  public:
    semaphore() {
        pthread_mutex_init(&mutex_, nullptr);
        pthread_cond_init(&posted_, nullptr);
    }
    ~semaphore() {
        pthread_cond_destroy(&posted_);
        pthread_mutex_destroy(&mutex_);
    }
    semaphore(const semaphore &) = delete;
    semaphore &operator=(const semaphore &) = delete;

    void post() {
        const lock held(mutex_);
        value_++;
        pthread_cond_signal(&posted_);
    }

    void wait(int times = 1) {
        const lock held(mutex_);
        while (value_ < times)
            pthread_cond_wait(&posted_, &mutex_);
        value_ -= times;
    }

  private:
    class lock {
      public:
        explicit lock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
        ~lock() { pthread_mutex_unlock(&mutex_); }
        lock(const lock &) = delete;
        lock &operator=(const lock &) = delete;

      private:
        pthread_mutex_t &mutex_;
    };

    pthread_mutex_t mutex_;
    pthread_cond_t posted_;
    int value_ = 0;
};

inline int value_of(sem_t &semaphore) {
    int value = -1;
    sem_getvalue(&semaphore, &value);
    return value;
}

/* Whether `condition` comes true within a minute. For what nobody tells of. */
inline bool eventually(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(200);
    }
    return true;
}

/* The threads of this process. A detached one is there for a moment after its routine has ended. */
inline std::ptrdiff_t count_threads() {
    const std::filesystem::directory_iterator first("/proc/self/task");
    return std::distance(first, std::filesystem::directory_iterator());
}

/* Passes some time without giving up the processor. */
inline void spin(unsigned turns) {
    while (turns-- > 0)
        asm volatile("" ::: "memory");
}

/* Returns once a reader has taken all that is in a pipe. */
inline void wait_until_read(int pipe) {
    for (int left = 1; left > 0 && ioctl(pipe, FIONREAD, &left) == 0;)
        std::this_thread::yield();
}

} // namespace keel_test
