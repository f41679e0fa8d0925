/* SPDX-License-Identifier: MIT */
#include "keel.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include "cancelled.h"
#include "child.h"
#include "heap.h"
#include "leaves_nothing.h"
#include "speechless.h"
#include "temp_dir.h"
#include "timers.h"
#include "waiting.h"

using namespace std::chrono_literals;

namespace {

using keel_test::child_result;
using keel_test::content_of;
using keel_test::ends_cancelled;
using keel_test::eventually;
using keel_test::exited;
using keel_test::heap_in_use;
using keel_test::rounds;
using keel_test::run_in_child;
using keel_test::semaphore;
using keel_test::temp_dir;
using keel_test::write_file;

using KeelHandles = keel_test::LeavesNothing;
using KeelThread = keel_test::LeavesNothing;
using KeelPool = keel_test::LeavesNothing;
using KeelTimer = keel_test::Speechless;
using KeelStress = keel_test::Speechless;

/* Something for a callable to own, and a look at whether it is still there. */
class owned_thing {
  public:
    std::unique_ptr<std::shared_ptr<int>> take() {
        auto taken = std::make_unique<std::shared_ptr<int>>(std::make_shared<int>(7));
        watch_ = *taken;
        return taken;
    }
    bool is_gone() const { return watch_.expired(); }
    bool goes() const {
        return eventually([this] { return is_gone(); });
    }

  private:
    std::weak_ptr<int> watch_;
};

void wait_for_ever(semaphore &reached) {
    reached.post();
    semaphore never;
    never.wait();
}

keel::pool new_pool() {
    return keel::pool(threadpool_new(6, 6, 16, 16, 100'000));
}

/* Tasks that keep all workers of a pool busy until they are let go. A timer's pool may still grow
 * while it takes them. */
class held_workers {
  public:
    template <class Runner>
    held_workers(Runner &runner, threadpool *workers, int count) : count_(count) {
        for (int i = 0; i < count; i++)
            while (runner.exec([this] {
                reached_++;
                open_.wait();
                left_.post();
            }) != 0)
                std::this_thread::yield();
        EXPECT_TRUE(
            eventually([&] { return reached_ + queued(workers) == count && all(workers); }));
    }
    void let_go() {
        for (int i = 0; i < count_; i++)
            open_.post();
        left_.wait(count_);
    }

    static int queued(threadpool *workers) {
        return static_cast<int>(std::atomic_ref(workers->queue->fifo->count).load());
    }

  private:
    bool all(threadpool *workers) {
        pthread_mutex_lock(&workers->lock);
        const auto total = static_cast<int>(workers->pool.total);
        pthread_mutex_unlock(&workers->lock);
        return reached_ == total;
    }

    int count_;
    std::atomic<int> reached_ = 0;
    semaphore open_, left_;
};

/* ---- Times ------------------------------------------------------------------------------------
 */

struct span_row {
    keel::time_span span;
    std::int64_t milliseconds;
    std::int64_t seconds;
};

TEST(Keel, CountsDurationsRoundedUp) {
    using real_seconds = std::chrono::duration<double>;
    using short_minutes = std::chrono::duration<std::int16_t, std::ratio<60>>;
    constexpr std::chrono::hours century{876'600};
    constexpr double infinite = std::numeric_limits<double>::infinity();
    const span_row rows[] = {
        {0ns, 0, 0},
        {1ns, 1, 1},
        {999'999ns, 1, 1},
        {1ms, 1, 1},
        {1'000'001ns, 2, 1},
        {999ms, 999, 1},
        {1s, 1000, 1},
        {1s + 1ns, 1001, 2},
        {1001ms, 1001, 2},
        {real_seconds(0.0015), 2, 1},
        {real_seconds(1e-12), 1, 1},
        {std::chrono::duration<float>(2.5F), 2500, 3},
        {short_minutes(2), 120'000, 120},
        {-1ns, 0, 0},
        {std::chrono::hours::min(), 0, 0},
        {real_seconds(-infinite), 0, 0},
        {century - 1s, 3'155'759'999'000, 3'155'759'999},
        {century, -1, -1},
        {keel::forever, -1, -1},
        {std::chrono::nanoseconds::max(), -1, -1},
        {std::chrono::hours::max(), -1, -1},
        {real_seconds(infinite), -1, -1},
        {real_seconds(std::numeric_limits<double>::quiet_NaN()), -1, -1},
    };
    for (const span_row &row : rows) {
        const auto number = &row - rows;
        EXPECT_EQ(row.span.in<std::chrono::milliseconds>(), row.milliseconds) << "row " << number;
        EXPECT_EQ(row.span.in<std::chrono::seconds>(), row.seconds) << "row " << number;
    }
    static_assert(keel::time_span(1us).in<std::chrono::milliseconds>() == 1);
}

TEST(Keel, WaitsOnAConditionAtLeastAsLongAsAsked) {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    pthread_mutex_lock(&lock);
    const auto begin = std::chrono::system_clock::now();
    int result = 0;
    while (result == 0)
        result = keel::wait(changed, lock, 20'000'001ns);
    EXPECT_EQ(result, ETIMEDOUT);
    EXPECT_GE(std::chrono::system_clock::now() - begin, 20ms);
    EXPECT_EQ(keel::wait(changed, lock, -5ms), ETIMEDOUT);

    std::thread other([&] {
        pthread_mutex_lock(&lock);
        pthread_cond_signal(&changed);
        pthread_mutex_unlock(&lock);
    });
    EXPECT_EQ(keel::wait(changed, lock, keel::forever), 0);
    pthread_mutex_unlock(&lock);
    other.join();
}

TEST(Keel, WaitsForASemaphoreAtLeastAsLongAsAsked) {
    sem_t posted;
    sem_init(&posted, 0, 1);
    EXPECT_EQ(keel::wait(posted, -5s), 0);
    EXPECT_EQ(keel::wait(posted, 0s), -1);
    const auto begin = std::chrono::system_clock::now();
    EXPECT_EQ(keel::wait(posted, 1ms), -1);
    EXPECT_GE(std::chrono::system_clock::now() - begin, 1s);
    std::thread other([&] { sem_post(&posted); });
    EXPECT_EQ(keel::wait(posted, keel::forever), 0);
    other.join();
    sem_destroy(&posted);
}

/* ---- Handles ----------------------------------------------------------------------------------
 */

template <class... Handles>
constexpr bool move_only = ((std::is_nothrow_default_constructible_v<Handles> &&
                             std::is_nothrow_move_constructible_v<Handles> &&
                             std::is_nothrow_move_assignable_v<Handles> &&
                             !std::is_copy_constructible_v<Handles> &&
                             !std::is_copy_assignable_v<Handles>)&&...);
static_assert(move_only<keel::thread, keel::pool, keel::timer, keel::ring, keel::ring_queue,
                        keel::queue<int>, keel::message_queue, keel::id_producer, keel::interfaces,
                        keel::socket, keel::settings, keel::monitor, keel::logging>);

/* Whether rounds leave something behind. The allocator itself keeps a little. */
template <class Round>
bool leaks(const Round &round) {
    round();
    const std::size_t before = heap_in_use();
    for (int i = 0; i < 1000; i++)
        round();
    return heap_in_use() >= before + 10'000;
}

TEST_F(KeelHandles, RingsAndRingQueuesFreeWhatTheyHold) {
    EXPECT_FALSE(leaks([] {
        keel::ring ring(fifo_new(2, 0, 0, 0));
        ring->slots[0] = std::malloc(100);
        ring->count = 1;
        const ring_queue_param param = {2, 0, 0, 0, 0};
        keel::ring_queue queue(queue_new(&param));
        void *item = std::malloc(100);
        EXPECT_EQ(queue_push(queue.get(), &item, 0), 0);
        keel::ring_queue other = std::move(queue);
        EXPECT_FALSE(queue); // NOLINT: moved from
    }));
}

int freed_arguments = 0;

TEST_F(KeelHandles, IdProducersFreeWhatIsBound) {
    const auto count = [](void *) { freed_arguments++; };
    keel::id_producer ids(idproducer_new(1, count));
    int argument = 0;
    EXPECT_EQ(idproducer_alloc(ids.get(), &argument), 0);
    EXPECT_EQ(idproducer_alloc(ids.get(), &argument), 1);
    ids.reset();
    EXPECT_EQ(freed_arguments, 2);
}

TEST_F(KeelHandles, SocketsAreClosedAndInterfacesFreed) {
    const keel::socket endpoint(socket_open(AF_INET, SOCK_DGRAM, 0));
    ASSERT_TRUE(endpoint);
    EXPECT_GE(endpoint->fd, 0);
    const keel::interfaces found(get_ifi_info(AF_INET));
    EXPECT_EQ(is_ifi_info_exist(found.get(), "no such"), 0);
}

TEST_F(KeelHandles, SettingsGiveCopiesThatOutliveThem) {
    const temp_dir home;
    write_file(home / "app.ini", "interval = 5\n[limits]\ncpu = 90\n");
    keel::settings table = keel::load_settings((home / "app.ini").c_str());
    ASSERT_TRUE(table);
    const auto interval = keel::get(table, "interval");
    const auto cpu = keel::get(table, "limits", "cpu");
    EXPECT_EQ(keel::get(table, "none"), std::nullopt);
    EXPECT_EQ(keel::get(table, nullptr), std::nullopt);
    table.reset();
    EXPECT_EQ(interval, "5");
    EXPECT_EQ(cpu, "90");
    EXPECT_EQ(keel::get(table, "interval"), std::nullopt);
    EXPECT_FALSE(keel::load_settings((home / "none").c_str()));
    EXPECT_FALSE(keel::load_settings((home / "app.ini").c_str(), "["));
}

TEST_F(KeelHandles, MonitorsWatch) {
    const temp_dir home;
    write_file(home / "watched", "proc1 = one\nproc2 = two\n");
    keel::monitor watched = keel::watch((home / "watched").c_str(), '=');
    ASSERT_TRUE(watched);
    keel::monitor same = std::move(watched);
    EXPECT_NE(same->search(same.get(), "two"), nullptr);
    EXPECT_FALSE(keel::watch((home / "none").c_str(), '='));
}

TEST_F(KeelHandles, LoggingEndsWithItsScope) {
    const temp_dir home;
    char program[] = "app";
    char *argv[] = {program, nullptr};
    log_conf wanted{};
    wanted.flags = LOG_CONF_WRMAX;
    wanted.wrmax = 1;
    {
        const keel::logging log = keel::start_log(argv, home.path().c_str(), wanted);
        ASSERT_TRUE(log);
        EXPECT_EQ(log->wrmax, 1000U); // as it took effect
        EXPECT_FALSE(keel::start_log(argv, home.path().c_str()));
        EXPECT_EQ(log_print(0, 0x40, "hello"), 1);
    }
    ASSERT_EQ(home.names().size(), 1U);
    EXPECT_EQ(home.names()[0].rfind("app_", 0), 0U);
    EXPECT_FALSE(keel::start_log(argv, (home / "none").c_str()));
}

struct point {
    int x = 0;
    double y = 0;
};

TEST_F(KeelHandles, QueuesCopyItemsAndMayGrow) {
    keel::queue<point> queue(2, 1, 3);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(queue.push({i, i / 2.0}, 0ms), 0);
    EXPECT_EQ(queue.push({3, 0}, 0ms), -1);
    EXPECT_EQ(queue.push({3, 0}, -1h), -1); // which does not hang
    keel::queue<point> other = std::move(queue);
    EXPECT_EQ(queue.push({4, 0}, keel::forever), -1); // NOLINT: moved from
    EXPECT_EQ(queue.pop(keel::forever), std::nullopt);
    for (int i = 0; i < 3; i++) {
        const auto item = other.pop();
        ASSERT_TRUE(item);
        EXPECT_EQ(item->x, i);
        EXPECT_EQ(item->y, i / 2.0);
    }
    EXPECT_FALSE(other.pop(0ms));
    const auto begin = std::chrono::system_clock::now();
    EXPECT_FALSE(other.pop(9'000'001ns));
    EXPECT_GE(std::chrono::system_clock::now() - begin, 9ms);
}

TEST_F(KeelHandles, QueuesOfFixedSizeStayThat) {
    keel::queue<char> queue(2);
    EXPECT_EQ(queue.push('a'), 0);
    EXPECT_EQ(queue.push('b'), 0);
    EXPECT_EQ(queue.push('c', 0ms), -1);
    EXPECT_EQ(queue.pop(), 'a');
}

TEST_F(KeelHandles, MessageQueuesWaitWholeSeconds) {
    keel::message_queue queue(2);
    char text[8] = "";
    EXPECT_EQ(queue.push("ready"), 0);
    EXPECT_EQ(queue.push({}), 0);
    EXPECT_EQ(queue.push("full", 0s), -1);
    EXPECT_EQ(queue.push("full", -1h), -1);
    keel::message_queue other = std::move(queue);
    EXPECT_EQ(queue.push("null"), -1); // NOLINT: moved from
    EXPECT_EQ(queue.pop(text, sizeof text), -1);
    EXPECT_EQ(other.pop(text, 2, 1s), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(other.pop(text, sizeof text), 5);
    EXPECT_EQ(std::string(text, 5), "ready");
    EXPECT_EQ(other.pop(text, sizeof text), 0);
    const auto begin = std::chrono::system_clock::now();
    EXPECT_EQ(other.pop(text, sizeof text, 1ms), -1);
    EXPECT_GE(std::chrono::system_clock::now() - begin, 1s);
}

/* ---- Strings ----------------------------------------------------------------------------------
 */

TEST(Keel, GivesStringsThatAreOwned) {
    const temp_dir home;
    write_file(home / "app.conf", "# none\nhost = a b\nempty =\n");
    EXPECT_EQ(keel::format("%s is %d", "it", 5), "it is 5");
    const wchar_t no_character[] = {0x7fffffff, 0};
    EXPECT_EQ(keel::format("%ls", no_character), std::nullopt);
    EXPECT_EQ(keel::path_of("/etc", "hosts"), "/etc/hosts");
    EXPECT_EQ(keel::path_of(nullptr, "hosts"), std::nullopt);
    EXPECT_EQ(keel::extract("a = 1; b = 2", "b", ';', '='), "2");
    EXPECT_EQ(keel::extract("a = 1; b = 2", "c", ';', '='), std::nullopt);
    EXPECT_EQ(keel::lookup((home / "app.conf").c_str(), "host", '='), "a b");
    EXPECT_EQ(keel::lookup((home / "app.conf").c_str(), "none", '='), std::nullopt);
    EXPECT_EQ(keel::lookup(nullptr, "host", '='), std::nullopt);
}

/* A sanitizer does not bear a limit. */
#ifndef KEEL_TEST_SANITIZED
TEST(Keel, FreesCsStringWhereThereIsNoMemoryForItsCopy) {
    const child_result expected = {0, 0, "", ""};
    EXPECT_EQ(run_in_child([] {
                  keel_test::limit_memory();
                  const std::string half(60'000'000, 'x'); // of a string that fits in once
                  for (int i = 0; i < 3; i++)
                      EXPECT_THROW(keel::path_of(half.c_str(), half.c_str()), std::bad_alloc);
                  std::exit(testing::Test::HasFailure() ? 1 : 0);
              }),
              expected);
}
#endif

/* ---- Callables --------------------------------------------------------------------------------
 */

std::atomic<int> summed = 0;

void add(int one, int other) {
    summed += one + other;
}

struct [[nodiscard]] important {
    int sum;
};

struct adder {
    int base;
    void add(int one) { summed += base + one; }
    important add_ten() const { return {summed += base + 6}; }
};

/* All kinds, each of which adds 10, run by `run_it`. */
template <class RunIt>
void run_all_kinds(const RunIt &run_it) {
    summed = 0;
    adder object{4};
    std::atomic<int> referred = 0;
    run_it(add, 3, 7);
    run_it([] { summed += 10; });
    run_it([ten = std::make_unique<int>(10)] { summed += *ten; });
    run_it([count = 0]() mutable { summed += 10 + count++; });
    run_it(&adder::add, &object, 6);
    run_it(&adder::add, std::ref(object), 6);
    run_it(&adder::add, object, 6);
    run_it(&adder::add, std::make_unique<adder>(object), 6);
    run_it(std::function<void(int)>([](int ten) { summed += ten; }), 10);
    run_it(
        [](std::atomic<int> &by_reference) {
            by_reference++;
            summed += 10;
        },
        std::ref(referred));
    run_it(&adder::add_ten, &object); // its result is ignored
    EXPECT_TRUE(eventually([] { return summed == 110; })) << summed;
    EXPECT_EQ(referred, 1);
}

child_result terminated() {
    return {-1, SIGABRT, "",
            "terminate called after throwing an instance of 'std::runtime_error'\n"
            "  what():  no way out\n"};
}

/* Throws from a callable that `run_it` runs. */
template <class RunIt>
child_result child_that_throws(const RunIt &run_it) {
    return run_in_child([&] {
        run_it([] { throw std::runtime_error("no way out"); });
        semaphore().wait(); // for the end
    });
}

struct fails_to_copy {
    fails_to_copy() = default;
    fails_to_copy(const fails_to_copy & /*other*/) { throw std::runtime_error("no copy"); }
    void operator()() const {}
};

/* A destructor that comes to a cancellation point. */
struct closes_something {
    ~closes_something() { pthread_testcancel(); }
};

/* ---- Threads ----------------------------------------------------------------------------------
 */

TEST_F(KeelThread, RunsCallablesOfAllKinds) {
    run_all_kinds([](auto &&...callable) {
        keel::thread self = keel::start(std::forward<decltype(callable)>(callable)...);
        EXPECT_EQ(keel::join(self), 0);
        EXPECT_FALSE(self);
    });
}

TEST_F(KeelThread, GivesTheCallableBackBeforeItIsJoined) {
    owned_thing thing;
    keel::thread self = keel::start([held = thing.take()] {});
    EXPECT_EQ(keel::join(self), 0);
    EXPECT_TRUE(thing.is_gone());
    EXPECT_EQ(keel::join(self), -1);
}

TEST_F(KeelThread, IsCancelledAtTheEndOfItsScope) {
    owned_thing captured;
    owned_thing local;
    semaphore reached;
    {
        const keel::thread self = keel::start([&, held = captured.take()] {
            const auto inside = local.take();
            wait_for_ever(reached);
        });
        reached.wait();
    }
    EXPECT_TRUE(captured.is_gone());
    EXPECT_TRUE(local.is_gone());
}

TEST_F(KeelThread, MovesAndIsReset) {
    semaphore reached;
    keel::thread one = keel::start(wait_for_ever, std::ref(reached));
    keel::thread other = keel::start(wait_for_ever, std::ref(reached));
    reached.wait(2);
    one = std::move(other); // which ends the one
    EXPECT_FALSE(other);    // NOLINT: moved from
    keel::thread &same = one;
    one = std::move(same);
    EXPECT_TRUE(one);
    one.reset();
    EXPECT_FALSE(one);
    EXPECT_EQ(keel::join(other), -1);
}

TEST_F(KeelThread, LetsItsOwnEndPass) {
    owned_thing thing;
    keel::thread self = keel::start([held = thing.take()] { pthread_exit(nullptr); });
    EXPECT_EQ(keel::join(self), 0);
    EXPECT_TRUE(thing.is_gone());
}

TEST_F(KeelThread, IsNotCancelledWhileTheCallableIsDestroyed) {
    keel::thread self =
        keel::start([held = closes_something()] { pthread_cancel(pthread_self()); });
    EXPECT_EQ(keel::join(self), 0);
}

/* The thread sanitizer takes whoever was cancelled in there to be in there for ever. */
#ifndef KEEL_TEST_SANITIZED
TEST_F(KeelThread, StaysWhereTheJoinIsCancelled) {
    semaphore reached;
    keel::thread self = keel::start(wait_for_ever, std::ref(reached));
    reached.wait();
    EXPECT_TRUE(ends_cancelled([&] { keel::join(self); },
                               [](pthread_t joining) { pthread_cancel(joining); }));
    EXPECT_TRUE(self);
}
#endif

TEST_F(KeelThread, TerminatesForAnException) {
    EXPECT_EQ(child_that_throws([](auto callable) { keel::start(callable).release(); }),
              terminated());
}

TEST_F(KeelThread, IsNullWhereTheSystemRefuses) {
    const child_result expected = {0, 0, "", ""};
    EXPECT_EQ(run_in_child([] {
                  pthread_attr_t huge;
                  pthread_attr_init(&huge);
                  pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
                  pthread_setattr_default_np(&huge);
                  owned_thing thing;
                  const keel::thread self = keel::start([held = thing.take()] {});
                  std::exit(self == nullptr && thing.is_gone() ? 0 : 1);
              }),
              expected);
}

TEST_F(KeelThread, GivesBackItsHandlesWhenItIsCancelled) {
    owned_thing queued;
    semaphore reached;
    keel::thread self = keel::start([&] {
        keel::pool workers = new_pool();
        for (int i = 0; i < 6; i++)
            workers.exec(wait_for_ever, std::ref(reached));
        reached.wait(6);
        workers.exec([held = queued.take()] {});
        const keel::queue<int> queue(5);
        wait_for_ever(reached);
    });
    reached.wait();
    self.reset();
    EXPECT_TRUE(queued.is_gone());
}

/* ---- Pools ------------------------------------------------------------------------------------
 */

TEST_F(KeelPool, RunsCallablesOfAllKinds) {
    keel::pool workers = new_pool();
    run_all_kinds([&](auto &&...callable) {
        EXPECT_EQ(workers.exec(std::forward<decltype(callable)>(callable)...), 0);
    });
}

TEST_F(KeelPool, GivesTheCallableBackAfterTheRun) {
    keel::pool workers = new_pool();
    owned_thing thing;
    EXPECT_EQ(workers.exec([held = thing.take()] {}), 0);
    EXPECT_TRUE(thing.goes());
}

TEST_F(KeelPool, GivesTheCallableBackWhereItIsRefused) {
    keel::pool workers(threadpool_new(6, 6, 1, 0, 1));
    held_workers busy(workers, workers.get(), 6);
    owned_thing queued;
    owned_thing refused;
    EXPECT_EQ(workers.exec([held = queued.take()] {}), 0);
    EXPECT_EQ(workers.exec([held = refused.take()] {}), -1);
    EXPECT_FALSE(queued.is_gone());
    EXPECT_TRUE(refused.is_gone());
    EXPECT_THROW(workers.exec(fails_to_copy()), std::runtime_error);
    workers.reset();
    EXPECT_TRUE(queued.is_gone());
    EXPECT_FALSE(workers);
}

TEST_F(KeelPool, DropsWhatIsQueuedAndCancelsWhatRuns) {
    std::vector<owned_thing> captured(60);
    std::array<owned_thing, 6> locals;
    semaphore reached;
    std::atomic<int> begun = 0;
    {
        keel::pool workers = new_pool();
        for (owned_thing &thing : captured)
            EXPECT_EQ(workers.exec([&, held = thing.take()] {
                const auto inside = locals.at(static_cast<std::size_t>(begun++)).take();
                wait_for_ever(reached);
            }),
                      0);
        reached.wait(6);
    }
    EXPECT_EQ(begun, 6);
    for (const owned_thing &thing : captured)
        EXPECT_TRUE(thing.is_gone());
    for (const owned_thing &thing : locals)
        EXPECT_TRUE(thing.is_gone());
}

TEST_F(KeelPool, MovesWithItsTasks) {
    keel::pool one = new_pool();
    keel::pool other = new_pool();
    held_workers busy(one, one.get(), 6);
    held_workers also_busy(other, other.get(), 6);
    owned_thing in_one;
    owned_thing in_other;
    one.exec([held = in_one.take()] {});
    other.exec([held = in_other.take()] {});
    one = std::move(other); // which ends the one
    EXPECT_TRUE(in_one.is_gone());
    EXPECT_FALSE(in_other.is_gone());
    EXPECT_FALSE(other);              // NOLINT: moved from
    EXPECT_EQ(other.exec([] {}), -1); // NOLINT
    keel::pool &same = one;
    one = std::move(same);
    EXPECT_TRUE(one);
    keel::pool third(std::move(one));
    third.exec([] { summed = -1; });
    also_busy.let_go();
    EXPECT_TRUE(in_other.goes());
    EXPECT_TRUE(eventually([] { return summed == -1; }));
}

TEST_F(KeelPool, IsNullWhereThereIsNone) {
    owned_thing thing;
    keel::pool workers(threadpool_new(1, 1, 1, 1, 1));
    EXPECT_FALSE(workers);
    EXPECT_EQ(workers.exec([held = thing.take()] {}), -1);
    EXPECT_TRUE(thing.is_gone());
    workers.reset();
}

TEST_F(KeelPool, RunsRoutinesOfCToo) {
    keel::pool workers = new_pool();
    semaphore done;
    const auto post = [](void *semaphore) -> void * {
        static_cast<keel_test::semaphore *>(semaphore)->post();
        return nullptr;
    };
    EXPECT_EQ(workers->exec(workers.get(), post, &done), 0);
    done.wait();
}

/* The address sanitizer's allocator has locks of its own that a child finds taken, and the thread
 * sanitizer lets no child start threads. */
#ifndef KEEL_TEST_SANITIZED
TEST_F(KeelPool, WorksInAChildWhateverOthersDoAtTheFork) {
    keel::pool busy = new_pool();
    const keel::thread other = keel::start([&] {
        for (;; pthread_testcancel())
            busy.exec([] {});
    });
    for (int i = 0; i < rounds(100); i++)
        ASSERT_EQ(run_in_child([] {
                      alarm(20);
                      keel::pool workers = new_pool();
                      semaphore done;
                      EXPECT_EQ(workers.exec([&] { done.post(); }), 0);
                      done.wait();
                  }),
                  exited(0));
}
#endif

TEST_F(KeelPool, TerminatesForAnException) {
    EXPECT_EQ(child_that_throws([](auto callable) {
                  static keel::pool workers = new_pool();
                  workers.exec(callable);
              }),
              terminated());
}

/* ---- Timers -----------------------------------------------------------------------------------
 */

keel::timer new_timer() {
    return keel::timer(timer_new());
}

/* Whether a run comes to wait in the queue of a timer's pool, behind those already there. */
bool hands_over(const keel::timer &clock, int already) {
    return eventually([&] { return held_workers::queued(clock->pool) > already; });
}

TEST_F(KeelTimer, RunsCallablesOfAllKinds) {
    keel::timer clock = new_timer();
    run_all_kinds([&](auto &&...callable) {
        EXPECT_GE(clock.schedule(1ms, std::forward<decltype(callable)>(callable)...), 0);
    });
    run_all_kinds([&](auto &&...callable) {
        EXPECT_EQ(clock.exec(std::forward<decltype(callable)>(callable)...), 0);
    });
}

TEST_F(KeelTimer, TakesAnyDelay) {
    keel::timer clock = new_timer();
    semaphore ran;
    for (const keel::time_span delay :
         {keel::time_span(0ms), keel::time_span(-5s), keel::time_span(1ns), keel::time_span(2ms)})
        EXPECT_GE(clock.schedule(delay, [&] { ran.post(); }), 0);
    ran.wait(4);
    const auto begin = std::chrono::system_clock::now();
    clock.schedule(20'000'001ns, [&] { ran.post(); });
    ran.wait();
    EXPECT_GE(std::chrono::system_clock::now() - begin, 20'000'001ns);
}

TEST_F(KeelTimer, RunsSomeTimesAndGivesTheCallableBack) {
    keel::timer clock = new_timer();
    for (const int times : {1, 2, 5}) {
        std::atomic<int> runs = 0;
        owned_thing thing;
        const int id = clock.repeat(1ms, times, 1ms, [&, held = thing.take()] { runs++; });
        EXPECT_GE(id, 0);
        EXPECT_TRUE(thing.goes());
        EXPECT_EQ(runs, times);
        EXPECT_EQ(clock.cancel(id), -1);
    }
}

TEST_F(KeelTimer, RunsUntilItIsCancelled) {
    keel::timer clock = new_timer();
    owned_thing thing;
    semaphore ran;
    const int id = clock.repeat(0ms, keel::endless, 0ms, [&, held = thing.take()] { ran.post(); });
    ran.wait(5);
    EXPECT_FALSE(thing.is_gone());
    EXPECT_EQ(clock.cancel(id), 0);
    EXPECT_TRUE(thing.goes());
    EXPECT_EQ(clock.cancel(id), -1);
}

TEST_F(KeelTimer, GivesBackWhatIsCancelledBeforeItRan) {
    keel::timer clock = new_timer();
    owned_thing thing;
    const int id = clock.schedule(1h, [held = thing.take()] {});
    EXPECT_FALSE(thing.is_gone());
    EXPECT_EQ(clock.cancel(id), 0);
    EXPECT_TRUE(thing.is_gone());
    for (const int none : {id, -1, 5, 32768})
        EXPECT_EQ(clock.cancel(none), -1) << none;
}

TEST_F(KeelTimer, RecallsARunThatHasNotBegun) {
    for (const int times : {1, 3, int{keel::endless}}) {
        keel::timer clock = new_timer();
        held_workers busy(clock, clock->pool, 30);
        const int waiting = held_workers::queued(clock->pool);
        std::atomic<int> runs = 0;
        owned_thing thing;
        const int id = clock.repeat(1ms, times, 1ms, [&, held = thing.take()] { runs++; });
        ASSERT_TRUE(hands_over(clock, waiting));
        EXPECT_EQ(clock.cancel(id), 0);
        EXPECT_TRUE(thing.is_gone());
        EXPECT_EQ(clock.cancel(id), -1);
        busy.let_go();
        semaphore done;
        clock.exec([&] { done.post(); }); // behind what is recalled
        done.wait();
        EXPECT_EQ(runs, 0);
    }
}

TEST_F(KeelTimer, CancelsNobodyElseUnderAnIdentifierUsedAgain) {
    keel::timer clock = new_timer();
    held_workers busy(clock, clock->pool, 30);
    const int waiting = held_workers::queued(clock->pool);
    std::atomic<int> first = 0;
    owned_thing second;
    const int id = clock.schedule(1ms, [&] { first++; });
    ASSERT_TRUE(hands_over(clock, waiting));
    pthread_mutex_lock(&clock->lock);
    clock->ids->last = static_cast<std::uint32_t>(id - 1);
    pthread_mutex_unlock(&clock->lock);
    ASSERT_EQ(clock.schedule(1h, [held = second.take()] {}), id);
    EXPECT_EQ(clock.cancel(id), 0);
    EXPECT_TRUE(second.is_gone());
    EXPECT_EQ(clock.cancel(id), -1);
    busy.let_go();
    EXPECT_TRUE(eventually([&] { return first == 1; }));
}

TEST_F(KeelTimer, LeavesTasksOfCUnderItsIdentifiersAlone) {
    keel::timer clock = new_timer();
    owned_thing thing;
    const int id = clock.schedule(1ms, [held = thing.take()] {});
    EXPECT_TRUE(thing.goes());
    const auto nothing = [](void *) -> void * { return nullptr; };
    pthread_mutex_lock(&clock->lock);
    clock->ids->last = static_cast<std::uint32_t>(id - 1);
    pthread_mutex_unlock(&clock->lock);
    ASSERT_EQ(timer_schedule(clock.get(), nothing, nullptr, 3'600'000, 1, 0), id);
    EXPECT_EQ(clock.cancel(id), -1);
    EXPECT_EQ(timer_cancel(clock.get(), id), 0);
}

TEST_F(KeelTimer, LetsATaskCancelItself) {
    keel::timer clock = new_timer();
    std::atomic<int> id = -1;
    owned_thing thing;
    semaphore cancelled;
    id = clock.repeat(1ms, keel::endless, 1ms, [&, held = thing.take()] {
        if (id != -1 && clock.cancel(id) == 0)
            cancelled.post();
        EXPECT_EQ(**held, 7); // is still there
    });
    cancelled.wait();
    EXPECT_TRUE(thing.goes());
}

TEST_F(KeelTimer, SharesACallableBetweenRunsThatOverlap) {
    keel::timer clock = new_timer();
    semaphore inside;
    semaphore open;
    owned_thing thing;
    clock.repeat(1ms, 3, 1ms, [&, held = thing.take()] {
        inside.post();
        open.wait();
    });
    inside.wait(3);
    EXPECT_FALSE(thing.is_gone());
    open.post();
    open.post();
    open.post();
    EXPECT_TRUE(thing.goes());
}

TEST_F(KeelTimer, LetsACallableThatGoesCancelAnother) {
    keel::timer clock = new_timer();
    owned_thing other;
    const int another = clock.schedule(1h, [held = other.take()] {});
    const auto cancels = [&](void * /*nothing*/) { clock.cancel(another); };
    int nothing = 0;
    std::shared_ptr<void> at_its_end(&nothing, cancels);
    const int id = clock.schedule(1h, [held = std::move(at_its_end)] {});
    EXPECT_EQ(clock.cancel(id), 0);
    EXPECT_TRUE(other.is_gone());
}

TEST_F(KeelTimer, GivesBackWhatIsRefused) {
    keel::timer clock = new_timer();
    std::array<owned_thing, 5> refused;
    EXPECT_EQ(clock.repeat(1ms, 0, 1ms, [held = refused[0].take()] {}), -1);
    EXPECT_EQ(clock.repeat(1ms, -2, 1ms, [held = refused[1].take()] {}), -1);
    EXPECT_EQ(clock.repeat(1ms, 2, keel::forever, [held = refused[2].take()] {}), -1);
    EXPECT_EQ(clock.schedule(keel::forever, [held = refused[3].take()] {}), -1);
    EXPECT_THROW(clock.schedule(1ms, fails_to_copy()), std::runtime_error);
    clock.reset();
    EXPECT_EQ(clock.schedule(1ms, [held = refused[4].take()] {}), -1);
    EXPECT_EQ(clock.exec([] {}), -1);
    EXPECT_EQ(clock.cancel(0), -1);
    for (const owned_thing &thing : refused)
        EXPECT_TRUE(thing.is_gone());
}

TEST_F(KeelTimer, KeepsWhatWasLostToItsEnd) {
    keel::timer clock = new_timer();
    owned_thing lost;
    std::atomic<bool> refused = false;
    static std::atomic<bool> *told;
    told = &refused;
    pthread_mutex_lock(&clock->lock);
    clock->pool->exec = [](threadpool *, thread_routine, void *) {
        *told = true;
        return -1;
    };
    pthread_mutex_unlock(&clock->lock);
    clock.schedule(1ms, [held = lost.take()] {});
    EXPECT_TRUE(eventually([&] { return refused.load(); }));
    EXPECT_FALSE(lost.is_gone());
    clock.reset();
    EXPECT_TRUE(lost.is_gone());
}

TEST_F(KeelTimer, EndsWithAllItsTasks) {
    std::array<owned_thing, 4> things;
    semaphore reached;
    {
        keel::timer clock = new_timer();
        clock.schedule(1h, [held = things[0].take()] {});
        clock.repeat(1ms, keel::endless, 1ms, [held = things[1].take()] {});
        for (int i = 0; i < 30; i++)
            clock.exec(wait_for_ever, std::ref(reached));
        reached.wait(10);
        clock.repeat(1ms, 3, 1ms, [held = things[2].take()] {});
        clock.exec([held = things[3].take()] {});
    }
    for (const owned_thing &thing : things)
        EXPECT_TRUE(thing.is_gone());
}

TEST_F(KeelTimer, MovesWithItsTasks) {
    keel::timer one = new_timer();
    keel::timer other = new_timer();
    owned_thing in_one;
    owned_thing in_other;
    const int id = one.schedule(1h, [held = in_one.take()] {});
    keel::timer &same = one;
    one = std::move(same);
    EXPECT_FALSE(in_one.is_gone());
    EXPECT_EQ(other.schedule(1h, [held = in_other.take()] {}), id);
    one = std::move(other); // which ends the one
    EXPECT_TRUE(in_one.is_gone());
    EXPECT_EQ(other.cancel(id), -1); // NOLINT: moved from
    EXPECT_EQ(other.schedule(1ms, [] {}), -1);
    keel::timer third(std::move(one));
    EXPECT_FALSE(in_other.is_gone());
    EXPECT_EQ(third.cancel(id), 0);
    EXPECT_TRUE(in_other.is_gone());
}

TEST_F(KeelThread, OfATimerTerminatesForAnException) {
    child_result ending = child_that_throws([](auto callable) {
        static keel::timer clock = new_timer();
        clock.schedule(1ms, callable);
    });
    ending.out.clear(); // what it tells of the task, as far as that was written
    child_result expected = terminated();
    expected.err.insert(0, keel_test::id_warning);
    EXPECT_EQ(ending, expected);
}

/* ---- Races, provoked --------------------------------------------------------------------------
 */

/* Counts itself, and finds out when it is run after it has gone. */
class live_one {
  public:
    explicit live_one(std::atomic<int> &alive) : alive_(alive), value_(new std::atomic<int>(0)) {
        alive_++;
    }
    live_one(const live_one &other) = delete;
    live_one(live_one &&other) noexcept : alive_(other.alive_), value_(std::move(other.value_)) {
        alive_++;
    }
    ~live_one() { alive_--; }
    live_one &operator=(const live_one &) = delete;
    live_one &operator=(live_one &&) = delete;

    void operator()() const { (*value_)++; }

  private:
    std::atomic<int> &alive_;
    std::unique_ptr<std::atomic<int>> value_;
};

class dice {
  public:
    explicit dice(unsigned seed) : engine_(seed) {}
    unsigned operator()(unsigned sides) { return static_cast<unsigned>(engine_() % sides); }

  private:
    std::minstd_rand engine_;
};

/* Schedules and cancels from several threads, at whatever moment of the runs. */
void schedule_and_cancel(keel::timer &clock, std::atomic<int> &alive, unsigned seed) {
    dice random(seed);
    std::vector<int> ids;
    for (int i = 0; i < rounds(300); i++) {
        const int times = static_cast<int>(random(4));
        ids.push_back(clock.repeat(std::chrono::microseconds(random(3000)),
                                   times == 0 ? keel::endless : times, 1ms, live_one(alive)));
        if (random(8) == 0)
            clock.exec(live_one(alive));
        if (ids.size() > 20 || random(2) == 0) {
            const std::size_t which = random(static_cast<unsigned>(ids.size()));
            clock.cancel(ids[which]);
            ids.erase(ids.begin() + static_cast<std::ptrdiff_t>(which));
        }
        keel_test::spin(random(5000));
    }
    for (const int id : ids)
        clock.cancel(id);
}

TEST_F(KeelStress, CancelsAgainstRuns) {
    std::atomic<int> alive = 0;
    keel::timer clock = new_timer();
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; seed++)
        threads.emplace_back([&, seed] { schedule_and_cancel(clock, alive, seed); });
    for (std::thread &one : threads)
        one.join();
    EXPECT_TRUE(eventually([&] { return alive == 0; })) << alive << " left";
}

TEST_F(KeelStress, EndsTimersUnderLoad) {
    std::atomic<int> alive = 0;
    for (int i = 0; i < rounds(20); i++) {
        keel::timer clock = new_timer();
        semaphore going;
        for (int task = 0; task < 8; task++)
            clock.repeat(1ms, keel::endless, 1ms, [&, held = live_one(alive)] {
                held();
                const int id = clock.schedule(1ms, live_one(alive));
                clock.exec(live_one(alive));
                clock.cancel(id);
                going.post();
            });
        going.wait(20 + i % 7);
        clock.reset();
        ASSERT_EQ(alive, 0);
    }
}

TEST_F(KeelStress, EndsPoolsUnderLoad) {
    std::atomic<int> alive = 0;
    struct breeder {
        keel::pool &workers;
        std::atomic<int> &alive;
        semaphore &going;
        void run() {
            live_one inside(alive);
            inside();
            going.post();
            for (int i = 0; i < 2; i++)
                workers.exec([this, held = live_one(alive)] { run(); });
            pthread_testcancel();
        }
    };
    for (int i = 0; i < rounds(50); i++) {
        keel::pool workers(threadpool_new(6, 12, 16, 16, 512));
        semaphore going;
        breeder first{workers, alive, going};
        first.run();
        going.wait(100 + i);
        workers.reset();
        ASSERT_EQ(alive, 0);
    }
}

TEST_F(KeelStress, ManyHandlesSideBySide) {
    std::atomic<int> alive = 0;
    const auto live = [&](unsigned seed) {
        dice random(seed);
        for (int i = 0; i < rounds(15); i++) {
            keel::pool workers = new_pool();
            keel::thread self = keel::start([held = live_one(alive)] {
                semaphore never;
                held();
                never.wait();
            });
            for (unsigned task = random(200); task > 0; task--)
                workers.exec(live_one(alive));
            if (random(2) == 0)
                workers = new_pool();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; seed++)
        threads.emplace_back(live, seed);
    for (std::thread &one : threads)
        one.join();
    EXPECT_EQ(alive, 0);
}

} // namespace
