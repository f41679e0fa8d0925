/* SPDX-License-Identifier: MIT */
/* Timers: what scheduling costs beside many tasks, and how late tasks run. Standard output, where
 * keel's timer reports, is /dev/null meanwhile, and the tables come after. */
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTaskAdapter.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <ev.h>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>
#include <xtime.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr int rounds = 2'000;
constexpr int one_shots = 1'000;
constexpr int far_away = 3'600'000; // milliseconds

/* Sends standard output and error elsewhere while it lives. */
class quiet {
  public:
    quiet() {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~quiet() {
        std::fflush(stdout);
        dup2(out_, STDOUT_FILENO);
        dup2(error_, STDERR_FILENO);
        close(out_);
        close(error_);
    }
    quiet(const quiet &) = delete;
    quiet &operator=(const quiet &) = delete;

  private:
    int out_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    int error_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
};

void *nothing(void *) {
    return nullptr;
}

struct keel_timer {
    ~keel_timer() { clock->del(clock); }
    int schedule(int milliseconds) const {
        return clock->schedule(clock, nothing, nullptr, milliseconds, 1, 0);
    }
    void cancel(int id) const { require(clock->cancel(clock, id) == 0, "cancel failed"); }

    quiet output;
    timer *clock = timer_new();
};

/* Its tasks know how to cancel themselves. */
struct poco_timer {
    using task = Poco::Util::TimerTask::Ptr;
    struct empty_task : Poco::Util::TimerTask {
        void run() override {}
    };
    task schedule(int milliseconds) {
        task made = new empty_task;
        clock.schedule(made, milliseconds, 0);
        return made;
    }
    static void cancel(task made) { made->cancel(); } // NOLINT: the pointer is shared

    Poco::Util::Timer clock;
};

/* Among `live` others that are due later and sooner. */
template <class Timer>
auto schedule_and_cancel(int live) {
    return [=] {
        auto timers = std::make_shared<Timer>();
        std::mt19937 random(1);
        for (int i = 0; i < live; i++)
            timers->schedule(far_away + static_cast<int>(random() % far_away));
        return job{.run = [timers, random]() mutable {
            for (int i = 0; i < rounds; i++)
                timers->cancel(timers->schedule(far_away + static_cast<int>(random() % far_away)));
        }};
    };
}

bench::table growth(int live, double bar) {
    return {.title = "Timer, one task scheduled and cancelled among " + std::to_string(live),
            .item = "schedule and cancel",
            .items = rounds,
            .floor = "two reports on standard output",
            .contenders = {{"keel timer", schedule_and_cancel<keel_timer>(live)},
                           {"keel timer among 10", schedule_and_cancel<keel_timer>(10), bar},
                           {"POCO Util::Timer", schedule_and_cancel<poco_timer>(live), 1.0}}};
}

/* ---- Lateness ---------------------------------------------------------------------------------
 */

double microseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/* One-shots due in 1 to 200 milliseconds. Each notes how late it is. */
struct one_shot {
    double due;
    double late = 0;
    static inline std::atomic<int> left;

    void run() {
        late = microseconds_now() - due;
        left--;
    }
};

class one_shot_set {
  public:
    template <class Schedule>
    explicit one_shot_set(const Schedule &schedule) {
        one_shot::left = one_shots;
        for (int i = 0; i < one_shots; i++) {
            const int milliseconds = 1 + i % 200;
            shots_.push_back({microseconds_now() + milliseconds * 1000.0});
            schedule(shots_.back(), milliseconds);
        }
    }
    double percentile(double share) {
        std::vector<double> late;
        for (const one_shot &shot : shots_)
            late.push_back(shot.late);
        std::sort(late.begin(), late.end());
        return late[static_cast<std::size_t>(share * (one_shots - 1))];
    }
    static void wait() {
        while (one_shot::left > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

  private:
    std::deque<one_shot> shots_;
};

double keel_lateness(double share) {
    const quiet output;
    timer *clock = timer_new();
    one_shot_set shots([&](one_shot &shot, int milliseconds) {
        const auto routine = [](void *shot_) -> void * {
            static_cast<one_shot *>(shot_)->run();
            return nullptr;
        };
        clock->start(clock, routine, &shot, milliseconds);
    });
    one_shot_set::wait();
    clock->del(clock);
    return shots.percentile(share);
}

double glib_lateness(double share) {
    GMainContext *context = g_main_context_new();
    one_shot_set shots([&](one_shot &shot, int milliseconds) {
        GSource *source = g_timeout_source_new(static_cast<guint>(milliseconds));
        g_source_set_callback(
            source,
            [](void *shot_) -> gboolean {
                static_cast<one_shot *>(shot_)->run();
                return G_SOURCE_REMOVE;
            },
            &shot, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    });
    while (one_shot::left > 0)
        g_main_context_iteration(context, TRUE);
    g_main_context_unref(context);
    return shots.percentile(share);
}

double ev_lateness(double share) {
    struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
    std::deque<ev_timer> watchers;
    one_shot_set shots([&](one_shot &shot, int milliseconds) {
        ev_timer &watcher = watchers.emplace_back();
        const auto run = [](struct ev_loop *, ev_timer *fired, int) {
            static_cast<one_shot *>(fired->data)->run();
        };
        ev_timer_init(&watcher, run, milliseconds / 1000.0, 0.0);
        watcher.data = &shot;
        ev_now_update(loop);
        ev_timer_start(loop, &watcher);
    });
    ev_run(loop, 0);
    ev_loop_destroy(loop);
    return shots.percentile(share);
}

/* Each moment slept for, one after the other. */
double sleep_lateness(double share) {
    std::vector<one_shot *> order;
    one_shot_set shots([&](one_shot &shot, int) { order.push_back(&shot); });
    std::stable_sort(order.begin(), order.end(),
                     [](const one_shot *a, const one_shot *b) { return a->due < b->due; });
    for (one_shot *shot : order) {
        const auto nanoseconds = static_cast<std::int64_t>(shot->due * 1000);
        const timespec due = {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &due, nullptr);
        shot->run();
    }
    return shots.percentile(share);
}

bench::table lateness(const char *title, double share, double peer_bar, double sleep_bar) {
    const auto amount = [=](double (*measure)(double)) {
        return [=] { return job{.amount = [=] { return measure(share); }}; };
    };
    return {.title = title,
            .item = "one-shot",
            .floor = "the timer's thread wakes a worker, which runs the task",
            .contenders = {{"keel timer", amount(keel_lateness)},
                           {"GLib main loop", amount(glib_lateness), peer_bar},
                           {"libev", amount(ev_lateness), peer_bar},
                           {"clock_nanosleep, one thread", amount(sleep_lateness), sleep_bar}},
            .unit = "us"};
}

} // namespace

int main(int argc, char *argv[]) {
    std::printf("memory: %zu bytes a live task's record, %zu its node in the list\n",
                sizeof(timertask), sizeof(timer_node));
    return bench::measure(
        argc, argv,
        {growth(10, 0), growth(1'000, 1.5), growth(30'000, 1.5),
         lateness("Timer, lateness of 1,000 one-shots, half of them", 0.5, 0, 0),
         lateness("Timer, lateness of 1,000 one-shots, 99 of 100", 0.99, 0.2, 1.5)});
}
