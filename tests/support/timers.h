/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

#include "speechless.h"
#include "xtime.h"

namespace keel_test {

constexpr std::int64_t hour = 3'600'000; // milliseconds

/* What each new timer says on standard error. */
inline const std::string id_warning =
    "This is an id producer with binding, no argument auto free function warning.\n";

/* A test whose timers speak to nobody. */
using Timers = Speechless;

/* What stands in for the exec() of a timer's pool, once it is put there. */
inline std::function<int(thread_routine routine, void *arg)> instead_of_exec;

inline int hand_over(threadpool * /*pool*/, thread_routine routine, void *arg) {
    return instead_of_exec(routine, arg);
}

/* A running timer that goes with its scope, and a look at it from outside. */
class owned_timer {
  public:
    ~owned_timer() { del(); }
    owned_timer() = default;
    owned_timer(const owned_timer &) = delete;
    owned_timer &operator=(const owned_timer &) = delete;

    timer *get() const { return timer_; }
    timer *operator->() const { return timer_; }

    int del() { return timer_del(std::exchange(timer_, nullptr)); }

    template <class Body>
    auto locked(const Body &body) const {
        pthread_mutex_lock(&timer_->lock);
        auto result = body();
        pthread_mutex_unlock(&timer_->lock);
        return result;
    }

    /* From now on its tasks go there, not to its pool. */
    void hand_over_to(std::function<int(thread_routine, void *)> taker) const {
        locked([&] {
            instead_of_exec = std::move(taker);
            timer_->pool->exec = hand_over;
            return 0;
        });
    }

    timer_node *node_of(int id) const { return static_cast<timer_node *>(timer_->ids->args[id]); }

    timertask task(int id) const {
        return locked([&] { return *node_of(id)->data; });
    }

    /* In their order. */
    std::vector<timertask> tasks() const {
        return locked([&] {
            std::vector<timertask> found;
            for (timer_node *node = timer_->tasks->head; node != nullptr; node = node->next)
                found.push_back(*node->data);
            return found;
        });
    }

    std::vector<int> ids() const {
        std::vector<int> found;
        for (const timertask &task : tasks())
            found.push_back(task.id);
        return found;
    }

    std::uint64_t count() const {
        return locked([&] { return timer_->tasks->count; });
    }

    /* Has them all run, in their order, though they are not due yet. */
    void make_all_due() const {
        locked([&] {
            for (timer_node *node = timer_->tasks->head; node != nullptr; node = node->next)
                node->data->sec = 0;
            return pthread_cond_signal(&timer_->wakeup);
        });
    }

    /* Whether all links lead where they should, the tasks are in order, and each is bound to its
     * identifier and no other identifier in use. Between two rounds none is set aside. */
    bool is_sound() const {
        return locked([&] {
            bool sound = timer_->ready->count == 0 && timer_->ready->head == nullptr &&
                         timer_->ready->tail == nullptr;
            std::uint64_t count = 0;
            timer_node *before = nullptr;
            for (timer_node *node = timer_->tasks->head; node != nullptr; node = node->next) {
                sound = sound && node->prev == before && node_of(node->data->id) == node;
                if (before != nullptr)
                    sound = sound && timertask_sort(&before->data, &node->data) <= 0;
                before = node;
                count++;
            }
            return sound && timer_->tasks->tail == before && timer_->tasks->count == count &&
                   timer_->ids->free == 32768 - count;
        });
    }

  private:
    timer *timer_ = timer_new();
};

/* "2024-03-05 14:07:09.042", as the system puts it. */
inline std::string text_of(std::int64_t sec, std::int64_t nsec) {
    char text[64];
    tm local{};
    const time_t seconds = sec;
    localtime_r(&seconds, &local);
    const std::size_t length = std::strftime(text, sizeof text, "%F %T", &local);
    std::snprintf(text + length, sizeof text - length, ".%.3d", static_cast<int>(nsec / 1'000'000));
    return text;
}

/* ---- What a timer prints ----------------------------------------------------------------------
 */

__attribute__((format(printf, 1, 2))) inline std::string printed(const char *format, ...) {
    char text[512];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

inline unsigned long address_of(thread_routine routine) {
    return reinterpret_cast<unsigned long>(routine);
}

inline unsigned long address_of(const void *arg) {
    return reinterpret_cast<unsigned long>(arg);
}

inline std::string add_text(int id, int times, long msec, long gap, thread_routine routine,
                            void *arg) {
    return printed("Add timer task.\nid            = %d\ntimes         = %d\n"
                   "msec          = %ld\ngap           = %ld\n"
                   "start_routine = 0x%lX\narg           = 0x%lX\n",
                   id, times, msec, gap, address_of(routine), address_of(arg));
}

inline std::string start_text(int id, thread_routine routine, void *arg) {
    return printed("Start timer task.\nid            = %d\n"
                   "start_routine = 0x%lX\narg           = 0x%lX\n",
                   id, address_of(routine), address_of(arg));
}

inline std::string execute_text(thread_routine routine, void *arg) {
    return printed("Execute timer task.\nstart_routine = 0x%lX\narg           = 0x%lX\n",
                   address_of(routine), address_of(arg));
}

inline std::string cancel_text(int id) {
    return printed("Cancel timer task(%d).\n", id);
}

} // namespace keel_test
