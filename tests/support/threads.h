/* SPDX-License-Identifier: MIT */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

#include "cancelled.h"

namespace keel_test {

/* Ends the process, which is a failure, where the scope hangs. A run that is told how often to
 * provoke its races takes its time. */
class watchdog {
  public:
    explicit watchdog(unsigned seconds = 120) {
        alarm(std::getenv("KEEL_TEST_ROUNDS") == nullptr ? seconds : 0);
    }
    ~watchdog() { alarm(0); }
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;
};

/* A thread that can be cancelled and looked at from outside. Joined with its scope at the latest.
 */
class worker {
  public:
    explicit worker(std::function<void()> body)
        : body_([this, run = std::move(body)] {
              id_ = gettid();
              run();
          }) {
        if (pthread_create(&thread_, nullptr, run_body, &body_) != 0)
            throw std::runtime_error("no thread");
    }
    ~worker() { join(); }
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    void cancel() { pthread_cancel(thread_); }

    /* Tells whether it ended by cancellation. */
    bool join() {
        if (!std::exchange(joined_, true))
            pthread_join(thread_, &result_);
        return result_ == PTHREAD_CANCELED;
    }

    /* Waits until it sleeps; false where it has ended. Nothing is said about what it sleeps for. */
    bool falls_asleep() const {
        for (;; sched_yield()) {
            if (id_ == 0)
                continue;
            const char state = state_of(id_);
            if (state == 'S' || state == '\0')
                return state == 'S';
        }
    }

  private:
    /* The letter behind the name in brackets; none once the thread is gone. */
    static char state_of(pid_t thread) {
        std::ifstream stream("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string line;
        std::getline(stream, line);
        const std::size_t bracket = line.rfind(") ");
        return bracket == line.npos ? '\0' : line[bracket + 2];
    }

    std::function<void()> body_;
    std::atomic<pid_t> id_ = 0;
    pthread_t thread_{};
    void *result_ = nullptr;
    bool joined_ = false;
};

} // namespace keel_test
