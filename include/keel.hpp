/* SPDX-License-Identifier: MIT */
/**
 * @file keel.hpp
 * @brief keel for C++17 and later: handles that clean up, callables without casts, durations.
 *
 * A thin layer over the C headers, all of it here and nothing of it in the library. What it adds
 * is in the namespace `keel`; what it wraps keeps its rules (keel.h), and the C functions take what
 * a handle's get() gives.
 *
 * **Handles** own what C made and give it back at the end of their scope: `keel::id_producer
 * ids(idproducer_new(0, nullptr));`. They can be moved and not copied; most are std::unique_ptr.
 * No thread is cancelled in the middle of giving back. Threads, pools and timers wait for their
 * routines then: their handles are not static, or an exit() in a routine would wait for itself.
 *
 * **Failures** are results, as everywhere in keel: a handle is null, a function returns -1, or no
 * value. Nothing here throws but std::bad_alloc, and what a callable throws while it is copied or
 * moved. A null handle may be used like a null pointer in C: what is asked of it fails, or as its
 * header says.
 *
 * **Callables**, with their arguments, run on threads, in pools and by timers: functions, lambdas,
 * member functions with their object; they may be move-only, and what they return is ignored. They
 * are kept by keel::detail::tasks, and C gets but a number that is never used again: a run that
 * comes too late finds nothing and does nothing. A callable is destroyed when its last run is over,
 * however that ended; when it is cancelled and no run is in the middle; with the pool or timer that
 * did not come to run it. It costs three blocks of memory, and two turns of a lock that all of them
 * share. The runs of a task that repeats may overlap and share the callable.
 *
 * **Exceptions** do not leave a callable: std::terminate() is called, as by std::thread. What a
 * cancellation unwinds passes, through the callable too: `catch (...)` there must throw on.
 *
 * **Times** are std::chrono durations, of seconds, their multiples and decimal fractions, rounded
 * up to what C counts in, so that nobody waits for less than was asked; `keel::forever`, like
 * anything of a hundred years and more, is without limit. A negative one is over already, unlike
 * C's: `deadline - now()` never hangs.
 *
 * It takes libstdc++, with exceptions. Beside `using namespace keel` the C names thread, timer,
 * ring_queue and socket() need a `::` before them.
 *
 * @code{.cpp}
 * #include <cstdio>
 * #include <keel.hpp>
 * #include <memory>
 *
 * using namespace std::chrono_literals;
 *
 * struct meter {
 *     keel::queue<int> &readings;
 *     void read(int by) { readings.push(by); }
 * };
 *
 * int main() {
 *     keel::queue<int> readings(16);
 *     meter gauge{readings};
 *     keel::pool workers(threadpool_new(6, 12, 16, 16, 1024));
 *     keel::timer clock(timer_new());
 *     if (!workers || !clock)
 *         return 1;
 *
 *     workers.exec(&meter::read, &gauge, 5);
 *     workers.exec([&, more = std::make_unique<int>(6)] { gauge.read(*more); });
 *     int ticking = clock.repeat(5ms, keel::endless, 10ms, [&] { gauge.read(7); });
 *
 *     int sum = 0;
 *     while (sum < 5 + 6 + 2 * 7)
 *         sum += readings.pop(1min).value_or(100);
 *     clock.cancel(ticking);
 *     std::puts(keel::format("%d in all", sum).value_or("no memory").c_str());
 *     return sum >= 25 ? 0 : 1;
 * } // the timer goes, then the pool, the queue last
 * @endcode
 */
#ifndef KEEL_HPP
#define KEEL_HPP

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "keel.h"
#include "xconf.h"
#include "xfifo.h"
#include "xfsproc.h"
#include "xid.h"
#include "xini.h"
#include "xlog.h"
#include "xqueue.h"
#include "xqueue2.h"
#include "xsocket.h"
#include "xstring.h"
#include "xthread.h"
#include "xthread_util.h"
#include "xtime.h"
#include "xutil.h"
#include "xwrap.h"

namespace keel {

/* ---- Times ---------------------------------------------------------------------------------- */

/** A wait without limit. */
inline constexpr std::chrono::hours forever = std::chrono::hours::max();

/** A duration of any kind, as an argument. */
class time_span {
  public:
    template <class Rep, class Period>
    constexpr time_span(std::chrono::duration<Rep, Period> span) { // NOLINT: taken as it comes
        if (span <= span.zero())
            span_ = std::chrono::nanoseconds(0);
        else if (std::chrono::duration<double>(span) < century)
            span_ = std::chrono::ceil<std::chrono::nanoseconds>(span);
    }

    /** In units of a kind, rounded up; -1: without limit. */
    template <class Unit>
    constexpr std::int64_t in() const {
        return span_ == endless ? -1 : std::chrono::ceil<Unit>(span_).count();
    }

  private:
    static constexpr std::chrono::hours century{24 * 36525};
    static constexpr std::chrono::nanoseconds endless = std::chrono::nanoseconds::max();

    std::chrono::nanoseconds span_ = endless;
};

/** cond_timedwait(), or without limit pthread_cond_wait(). */
inline int wait(pthread_cond_t &condition, pthread_mutex_t &mutex, time_span limit) {
    const std::int64_t milliseconds = limit.in<std::chrono::milliseconds>();
    return milliseconds < 0 ? pthread_cond_wait(&condition, &mutex)
                            : cond_timedwait(&condition, &mutex, milliseconds);
}

/** Sem_timedwait(), in whole seconds, or without limit Sem_wait(). */
inline int wait(sem_t &semaphore, time_span limit) {
    const std::int64_t seconds = limit.in<std::chrono::seconds>();
    return seconds < 0 ? Sem_wait(&semaphore) : Sem_timedwait(&semaphore, seconds);
}

/* ---- Behind the scenes ---------------------------------------------------------------------- */

namespace detail {

/* Holds back a thread's cancellation for as long as destructors run, which must not be left by
 * unwinding. */
class uncancelled {
  public:
    uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~uncancelled() { pthread_setcancelstate(former_, nullptr); }
    uncancelled(const uncancelled &) = delete;
    uncancelled &operator=(const uncancelled &) = delete;

  private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

template <auto GiveBack>
struct deleter {
    template <class T>
    void operator()(T *object) const {
        const uncancelled shield;
        GiveBack(object);
    }
};

template <class T, auto GiveBack>
using handle = std::unique_ptr<T, deleter<GiveBack>>;

inline void *run(void *number);

/* The callables that C is to run. It is given their tickets, numbers from 1 on, and no address:
 * what it still holds when a callable is gone does not dangle. Destructors of callables run with no
 * lock held. A process may have several, of hosts that hide their symbols or are loaded late, whose
 * numbers are the same: a handle keeps to its maker's. */
class tasks {
  public:
    using ticket = std::uintptr_t;

    struct task {
        std::shared_ptr<void> callable; // null: there is none
        void (*call)(void *callable) = nullptr;
        ticket owner = 0;
        std::int64_t runs = 0; // still to begin; -1: without end
    };

    const thread_routine routine = run; // finds the numbers of this one

    static tasks &all() {
        static tasks &one = *new tasks; // for good: threads may outlive main()
        return one;
    }

    ticket new_owner() {
        const std::lock_guard lock(mutex_);
        return ++last_;
    }

    template <class F, class... Args>
    ticket add(ticket owner, std::int64_t runs, F &&f, Args &&...args) {
        using bound = std::tuple<std::decay_t<F>, std::decay_t<Args>...>;
        static_assert(std::is_invocable_v<std::decay_t<F> &, std::decay_t<Args> &...>,
                      "a callable is given its arguments as lvalues: a run may not be the last");
        const std::shared_ptr<bound> callable(
            new bound(std::forward<F>(f), std::forward<Args>(args)...), deleter<destroy<bound>>());
        const std::lock_guard lock(mutex_);
        tasks_.emplace_hint(tasks_.end(), ++last_, task{callable, call<bound>, owner, runs});
        return last_;
    }

    /* For a run that begins. With the last one the callable is the run's alone. */
    task begin(ticket number) {
        const std::lock_guard lock(mutex_);
        const auto found = tasks_.find(number);
        if (found == tasks_.end())
            return {};
        if (found->second.runs < 0 || --found->second.runs > 0)
            return found->second;
        return std::move(tasks_.extract(found).mapped());
    }

    /* No run begins any more. */
    task remove(ticket number) {
        const std::lock_guard lock(mutex_);
        auto removed = tasks_.extract(number);
        return removed.empty() ? task() : std::move(removed.mapped());
    }

    void remove_all(ticket owner) {
        std::map<ticket, task> removed; // outlives the lock
        const std::lock_guard lock(mutex_);
        for (auto next = tasks_.begin(); next != tasks_.end();) {
            const auto one = next++;
            if (one->second.owner == owner)
                removed.insert(tasks_.extract(one));
        }
    }

  private:
    /* Nobody is in here at a fork: its child makes pools, timers and threads of its own. */
    tasks() {
        pthread_atfork([] { all().mutex_.lock(); }, [] { all().mutex_.unlock(); },
                       [] { all().mutex_.unlock(); });
    }

    template <class Bound>
    static void destroy(Bound *callable) {
        delete callable;
    }

    template <class Bound>
    static void call(void *callable) {
        std::apply([](auto &f, auto &...args) { static_cast<void>(std::invoke(f, args...)); },
                   *static_cast<Bound *>(callable));
    }

    std::mutex mutex_;
    ticket last_ = 0;
    std::map<ticket, task> tasks_;
};

inline void *as_argument(tasks::ticket number) {
    return reinterpret_cast<void *>(number);
}

/* The routine that C runs. A thread that is cancelled in the middle unwinds through it. */
inline void *run(void *number) {
    const tasks::task task = tasks::all().begin(reinterpret_cast<tasks::ticket>(number));
    try {
        if (task.callable != nullptr)
            task.call(task.callable.get());
    } catch (abi::__forced_unwind &) {
        throw;
    } catch (...) {
        std::terminate();
    }
    return nullptr;
}

/* What pools and timers have in common. The pointer stays until the tasks have ended, which may use
 * the handle, and the callables until then. */
template <class T, int (*Exec)(T *, thread_routine, void *), int (*Del)(T *)>
class runner {
  public:
    runner() = default;
    explicit runner(T *object)
        : object_(object), tasks_(object == nullptr ? nullptr : &tasks::all()),
          owner_(object == nullptr ? 0 : tasks_->new_owner()) {}
    runner(runner &&other) noexcept
        : object_(std::exchange(other.object_, nullptr)), tasks_(other.tasks_),
          owner_(other.owner_) {}
    runner &operator=(runner &&other) noexcept {
        if (this != &other) {
            reset();
            object_ = std::exchange(other.object_, nullptr);
            tasks_ = other.tasks_;
            owner_ = other.owner_;
        }
        return *this;
    }
    ~runner() { reset(); }

    T *get() const { return object_; }
    T *operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

    /** Ends it: cancels the runs in the middle and drops those that have not begun. */
    void reset() {
        if (object_ == nullptr)
            return;
        Del(object_);
        object_ = nullptr;
        tasks_->remove_all(owner_);
    }

    /** Has a worker run `f(args...)` as soon as one is free. 0, or -1 where too many wait. */
    template <class F, class... Args>
    int exec(F &&f, Args &&...args) {
        if (object_ == nullptr)
            return -1;
        const tasks::ticket number =
            tasks_->add(owner_, 1, std::forward<F>(f), std::forward<Args>(args)...);
        const int result = Exec(object_, tasks_->routine, as_argument(number));
        if (result != 0)
            tasks_->remove(number);
        return result;
    }

  protected:
    tasks &registry() const { return *tasks_; }
    tasks::ticket owner() const { return owner_; }

  private:
    T *object_ = nullptr;
    tasks *tasks_ = nullptr; // where there was an object
    tasks::ticket owner_ = 0;
};

inline void stop_thread(::thread *self) {
    if (thread_stop(self) == 0)
        thread_join(self, nullptr);
    thread_del(self);
}

inline void del_ring(::fifo *ring) {
    fifo_slots_resize(ring, 0); // and what its slots hold
    fifo_del(ring);
}

/* For records that C sets up in place. */
template <class T, int (*Destroy)(T *)>
void destroy_record(T *record) {
    Destroy(record);
    delete record;
}

inline int destroy_log(log_conf * /*settings*/) {
    return log_destroy();
}

template <class T, int (*Destroy)(T *)>
using record_handle = handle<T, destroy_record<T, Destroy>>;

inline std::optional<std::string> copied(const char *text) {
    if (text == nullptr)
        return std::nullopt;
    return text;
}

/* A new string of C's as one of C++'s. */
inline std::optional<std::string> owned(char *text) {
    const handle<char, std::free> block(text);
    return copied(text);
}

} // namespace detail

/* ---- Threads, pools, timers ----------------------------------------------------------------- */

/** A running thread, of start(), for keel::join() alone. At the end of its scope, which is not its
 * own, it is cancelled and waited for. */
using thread = detail::handle<::thread, detail::stop_thread>;

/** Runs `f(args...)` on a thread of its own. Null where the system refuses. */
template <class F, class... Args>
thread start(F &&f, Args &&...args) {
    thread self(thread_new(0));
    const detail::tasks::ticket number =
        detail::tasks::all().add(0, 1, std::forward<F>(f), std::forward<Args>(args)...);
    if (thread_start(self.get(), detail::run, detail::as_argument(number)) != 0) {
        detail::tasks::all().remove(number);
        self.reset();
    }
    return self;
}

/** Waits until the thread ends by itself, and lets go of it: 0. Else the system's error number, or
 * -1 for null. A cancellation point, which leaves the thread as it is. */
inline int join(thread &self) {
    const int error = thread_join(self.get(), nullptr);
    if (error == 0)
        thread_del(self.release());
    return error;
}

/** A pool of threadpool_new(), with exec() for callables. */
using pool = detail::runner<::threadpool, threadpool_exec, threadpool_del>;

/** Runs without end. */
inline constexpr std::int32_t endless = -1;

/** A timer of timer_new(). */
class timer : public detail::runner<::timer, timer_exec, timer_del> {
  public:
    timer() = default;
    explicit timer(::timer *object) : runner(object), scheduled_(std::make_unique<scheduled>()) {}
    timer(timer &&) = default;
    timer &operator=(timer &&) = default;
    ~timer() { reset(); }

    /** Runs `f(args...)` once, after `delay`. As repeat(). */
    template <class F, class... Args>
    int schedule(time_span delay, F &&f, Args &&...args) {
        return repeat(delay, 1, delay, std::forward<F>(f), std::forward<Args>(args)...);
    }

    /**
     * Runs `f(args...)` after `delay`, and so many `times` in all, at least 1 or `endless`, each
     * `gap` after the one before was handed to a worker. Times of less than a millisecond are one.
     * Returns the task's identifier; -1 as timer_schedule(), also for times without limit.
     *
     * A run that is lost because too many tasks wait leaves the callable of a task that does not
     * run without end to the end of the timer.
     */
    template <class F, class... Args>
    int repeat(time_span delay, std::int32_t times, time_span gap, F &&f, Args &&...args) {
        if (get() == nullptr)
            return -1;
        const detail::tasks::ticket number =
            registry().add(owner(), times, std::forward<F>(f), std::forward<Args>(args)...);
        detail::tasks::task refused; // outlives the lock
        const std::lock_guard lock(scheduled_->mutex);
        const int id = timer_schedule(get(), registry().routine, detail::as_argument(number),
                                      milliseconds(delay), times, milliseconds(gap));
        if (id == -1)
            refused = registry().remove(number);
        else
            scheduled_->numbers[id] = number;
        return id;
    }

    /** Cancels the task `id` of this handle. Stricter than timer_cancel(): when this returns, no
     * run begins any more, also none that a worker has been handed; one in the middle goes on.
     * Returns 0; -1 where all runs have begun, or there is no such task. */
    int cancel(int id) {
        if (get() == nullptr)
            return -1;
        detail::tasks::task cancelled; // outlives the lock
        const std::lock_guard lock(scheduled_->mutex);
        if (const auto found = scheduled_->numbers.find(id); found != scheduled_->numbers.end())
            cancelled = registry().remove(found->second);
        if (cancelled.callable == nullptr)
            return -1;
        timer_cancel(get(), id); // fails where the last run has been handed over
        return 0;
    }

  private:
    /* Which task had an identifier last: nobody else's is cancelled in its place. */
    struct scheduled {
        std::mutex mutex;
        std::unordered_map<int, detail::tasks::ticket> numbers;
    };

    static std::int64_t milliseconds(time_span span) {
        const std::int64_t count = span.in<std::chrono::milliseconds>();
        return count == 0 ? 1 : count;
    }

    std::unique_ptr<scheduled> scheduled_;
};

/* ---- Queues --------------------------------------------------------------------------------- */

/** A ring of fifo_new(). What its slots hold goes with it. */
using ring = detail::handle<::fifo, detail::del_ring>;

/** A queue of queue_new(), for pointers that move and for what keel::queue has no place for. */
using ring_queue = detail::handle<::ring_queue, queue_del>;

/** A ring queue of items that are copied as bytes. */
template <class T>
class queue : public ring_queue {
    static_assert(std::is_trivially_copyable_v<T> && std::is_default_constructible_v<T>);
    static constexpr fifo_slot_function plain_copy = nullptr;

  public:
    queue() = default;
    /** Of so many slots, to which `step` at a time are added up to `max`. Null where the system
     * refuses. */
    explicit queue(std::uint64_t slots, std::uint64_t step = 0, std::uint64_t max = 0) {
        const ring_queue_param param = {slots, sizeof(T), max > slots, step, max};
        reset(queue_new(&param));
    }

    /** queue_push(). */
    int push(const T &item, time_span limit = forever) {
        void *source = const_cast<T *>(&item);
        return queue_push(get(), &source, limit.in<std::chrono::milliseconds>(), plain_copy);
    }

    /** queue_pop(): the oldest item; none where none came in time. */
    std::optional<T> pop(time_span limit = forever) {
        T item{};
        void *place = &item;
        if (queue_pop(get(), &place, limit.in<std::chrono::milliseconds>(), plain_copy) != 0)
            return std::nullopt;
        return item;
    }
};

/** A blocking queue of byte messages, whose time-outs are whole seconds. */
class message_queue : public detail::record_handle<blocking_queue, queue_destroy> {
  public:
    message_queue() = default;
    /** Of so many slots, at least 2. */
    explicit message_queue(std::uint64_t slots) {
        auto queue = std::make_unique<blocking_queue>();
        queue_init(queue.get(), slots);
        reset(queue.release());
    }

    /** queue_timedput(). */
    int push(std::string_view message, time_span limit = forever) {
        const std::int64_t seconds = limit.in<std::chrono::seconds>();
        return queue_timedput(get(), message.data(), message.size(), seconds);
    }

    /** queue_timedget(). */
    ssize_t pop(void *buffer, std::size_t size, time_span limit = forever) {
        return queue_timedget(get(), buffer, size, limit.in<std::chrono::seconds>());
    }
};

/* ---- Other handles -------------------------------------------------------------------------- */

/** A producer of idproducer_new(). */
using id_producer = detail::handle<::idproducer, idproducer_del>;

/** A list of get_ifi_info(). Empty: null. */
using interfaces = detail::handle<ifi_info, free_ifi_info>;

/** A socket of socket_open(). */
using socket = detail::handle<xsocket, socket_close>;

/** A table of load_settings(). */
using settings = detail::record_handle<ini_table, ini_unload>;

/** A new table of ini_load(). Null where that fails. */
inline settings load_settings(const char *path, const char *separators = "=") {
    auto table = std::make_unique<ini_table>();
    return settings(ini_load(table.get(), path, separators) == 0 ? table.release() : nullptr);
}

/** A monitor of watch(). */
using monitor = detail::record_handle<proc_monitor, proc_monitor_destroy>;

/** A new monitor of proc_monitor_init(). Null where that fails. */
inline monitor watch(const char *path, char separator) {
    auto watched = std::make_unique<proc_monitor>();
    const int made = proc_monitor_init(watched.get(), path, separator);
    return monitor(made == 0 ? watched.release() : nullptr);
}

/** The settings of the logging that is set up until the end of the scope, of start_log(). */
using logging = detail::record_handle<log_conf, detail::destroy_log>;

/** log_init(), and log_destroy() at the end. Null where that fails. */
inline logging start_log(char *const argv[], const char *directory, const log_conf &wanted = {}) {
    auto conf = std::make_unique<log_conf>(wanted);
    return logging(log_init(argv, directory, conf.get()) != -1 ? conf.release() : nullptr);
}

/* ---- Strings -------------------------------------------------------------------------------- */

/** The formatted text. None where the format fails or there is no memory for it. */
KEEL_PRINTF(1, 2) inline std::optional<std::string> format(const char *format, ...) {
    char *text = nullptr;
    std::va_list values;
    va_start(values, format);
    const int length = vasprintf(&text, format, values);
    va_end(values);
    return detail::owned(length < 0 ? nullptr : text);
}

/** fpath_dup(): directory and name with a slash between them. */
inline std::optional<std::string> path_of(const char *directory, const char *name) {
    return detail::owned(fpath_dup(directory, name));
}

/** strdup_extract1(): the value of a key in a list such as "a=1; b=2". */
inline std::optional<std::string> extract(const char *list, const char *key, char entry_separator,
                                          int value_separator) {
    return detail::owned(strdup_extract1(list, key, entry_separator, value_separator));
}

/** flookup(): the value of a key in a file. */
inline std::optional<std::string> lookup(const char *path, const char *key, char separator) {
    char value[1024]; // more than a line has
    return detail::copied(flookup(path, key, separator, value, sizeof value));
}

/** ini_get(): a copy, which outlives the table. */
inline std::optional<std::string> get(const settings &table, const char *key) {
    return detail::copied(ini_get(table.get(), key));
}

/** ini_section_get(): a copy, which outlives the table. */
inline std::optional<std::string> get(const settings &table, const char *section, const char *key) {
    return detail::copied(ini_section_get(table.get(), section, key));
}

} // namespace keel

#endif
