/* SPDX-License-Identifier: MIT */
#include "xthread.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include "explained.h"
#include "leaves_nothing.h"
#include "waiting.h"
#include "workers.h"

namespace {

using keel_test::bare_pool;
using keel_test::busy;
using keel_test::explained;
using keel_test::gate;
using keel_test::give_back;
using keel_test::has_ended;
using keel_test::hung;
using keel_test::idle;
using keel_test::LeavesNothing;
using keel_test::none;
using keel_test::number;
using keel_test::semaphore;
using keel_test::spin;
using keel_test::state_of;
using keel_test::stopped;
using keel_test::uncancellable;
using keel_test::value_of;
using keel_test::wait_for_more;

using Thread = LeavesNothing;
using ThreadCleanup = LeavesNothing;
using ThreadStress = LeavesNothing;

/* ---- Records and tables -------------------------------------------------------------------------
 */

static_assert(std::is_same_v<decltype(thread::retval), void *>);
static_assert(std::is_same_v<decltype(thread::state), std::int32_t>);
static_assert(std::is_same_v<decltype(thread::routine), void *(*)(void *)>);
static_assert(offsetof(thread, attr) == 0);
static_assert(offsetof(thread, tid) == sizeof(pthread_attr_t));
static_assert(offsetof(thread, necrology) == offsetof(thread, tid) + sizeof(pthread_t));
static_assert(offsetof(thread, retval) == offsetof(thread, necrology) + sizeof(sem_t));
static_assert(offsetof(thread, state) == offsetof(thread, retval) + 8);
static_assert(offsetof(thread, pool) == offsetof(thread, state) + 8);
static_assert(offsetof(thread, routine) == offsetof(thread, pool) + 8);
static_assert(offsetof(thread, arg) == offsetof(thread, routine) + 8);
static_assert(offsetof(thread, start) == offsetof(thread, arg) + 8);
static_assert(offsetof(thread, stop) == offsetof(thread, start) + 8);
static_assert(offsetof(thread, del) == offsetof(thread, stop) + 8);
static_assert(offsetof(thread, detach) == offsetof(thread, del) + 8);
static_assert(offsetof(thread, join) == offsetof(thread, detach) + 8);
static_assert(sizeof(thread) == offsetof(thread, join) + 8);

static_assert(std::is_same_v<decltype(stat_desc::code), std::int32_t>);

TEST_F(Thread, StatesHaveTheirTexts) {
    constexpr std::array texts = {"Idle", "Busy", "Hung", "Stop"};
    for (std::size_t i = 0; i < texts.size(); i++) {
        EXPECT_EQ(thread_stat_descs[i].code, static_cast<int>(i));
        EXPECT_STREQ(thread_stat_descs[i].text, texts[i]);
    }
    static_assert(sizeof thread_stat_descs == 4 * sizeof(stat_desc));
}

/* ---- Threads ------------------------------------------------------------------------------------
 */

TEST_F(Thread, IsIdleWithoutAResultWhenNew) {
    for (const std::uint32_t detached : {0U, 1U, 2U, UINT32_MAX}) {
        thread *self = thread_new(detached);
        int detach_state = -1;
        int scope = -1;
        pthread_attr_getdetachstate(&self->attr, &detach_state);
        pthread_attr_getscope(&self->attr, &scope);
        EXPECT_EQ(detach_state, detached == 1 ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
        EXPECT_EQ(scope, PTHREAD_SCOPE_SYSTEM);
        EXPECT_EQ(value_of(self->necrology), 0);
        EXPECT_EQ(self->retval, none);
        EXPECT_STREQ(thread_stat_descs[self->state].text, "Idle");
        EXPECT_EQ(self->pool, nullptr);
        EXPECT_EQ(self->routine, nullptr);
        EXPECT_EQ(self->arg, nullptr);
        EXPECT_EQ(self->start, thread_start);
        EXPECT_EQ(self->stop, thread_stop);
        EXPECT_EQ(self->del, thread_del);
        EXPECT_EQ(self->detach, thread_detach);
        EXPECT_EQ(self->join, thread_join);
        EXPECT_EQ(self->del(self), 0);
    }
}

TEST_F(Thread, RefusesNull) {
    void *result = number(3);
    EXPECT_EQ(thread_start(nullptr, give_back, nullptr), -1);
    EXPECT_EQ(thread_stop(nullptr), -1);
    EXPECT_EQ(thread_trystop(nullptr), -1);
    EXPECT_EQ(thread_del(nullptr), -1);
    EXPECT_EQ(thread_detach(nullptr), -1);
    EXPECT_EQ(thread_join(nullptr, &result), -1);
    EXPECT_EQ(thread_del_for_pool(nullptr), -1);
    EXPECT_EQ(result, number(3));
}

TEST_F(Thread, DoesNotStartWithoutARoutine) {
    thread *self = thread_new(0);
    EXPECT_EQ(self->start(self, nullptr, number(1)), -1);
    EXPECT_EQ(self->arg, nullptr);
    EXPECT_EQ(self->state, idle);
    EXPECT_EQ(thread_trystop(self), -1);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, RunsItsRoutineWithItsArgument) {
    thread *self = thread_new(0);
    ASSERT_EQ(self->start(self, give_back, number(42)), 0);
    void *result = nullptr;
    EXPECT_EQ(self->join(self, &result), 0);
    EXPECT_EQ(result, number(42));
    EXPECT_EQ(self->retval, number(42));
    EXPECT_EQ(self->routine, give_back);
    EXPECT_EQ(self->arg, number(42));
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(value_of(self->necrology), 1);
    EXPECT_EQ(self->del(self), 0);
}

TEST_F(Thread, IsJoinedWithoutAskingForTheResult) {
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, give_back, number(42)), 0);
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(self->retval, number(42));
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, IsBusyWithoutAResultWhileItRuns) {
    gate at;
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, gate::task, &at), 0);
    at.wait_until_reached();
    EXPECT_EQ(state_of(*self), busy);
    EXPECT_EQ(self->retval, none);
    EXPECT_TRUE(pthread_equal(self->tid, at.worker()));
    at.open();
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, StartTellsWhyTheSystemRefuses) {
    thread *self = thread_new(0);
    std::size_t stack_size = 0;
    pthread_attr_getstacksize(&self->attr, &stack_size);
    ASSERT_EQ(pthread_attr_setstacksize(&self->attr, std::size_t{1} << 50), 0);
    EXPECT_EQ(thread_start(self, give_back, number(5)), EAGAIN);
    EXPECT_EQ(self->retval, none);
    EXPECT_EQ(self->state, idle);
    EXPECT_EQ(thread_trystop(self), -1);
    EXPECT_EQ(thread_stop(self), -1); // there is nothing to stop
    pthread_attr_setstacksize(&self->attr, stack_size);
    EXPECT_EQ(thread_start(self, give_back, number(6)), 0);
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(self->retval, number(6));
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, StopFindsAThreadThatHasEnded) {
    for (const std::uint32_t detached : {0U, 1U}) {
        thread *self = thread_new(detached);
        ASSERT_EQ(thread_start(self, give_back, number(42)), 0);
        ASSERT_TRUE(has_ended(self));
        EXPECT_EQ(self->stop(self), 0);
        EXPECT_EQ(thread_trystop(self), -1) << "the post is consumed";
        EXPECT_EQ(self->retval, number(42));
        EXPECT_EQ(self->state, stopped);
        void *result = nullptr;
        if (detached == 0) {
            EXPECT_EQ(thread_join(self, &result), 0);
            EXPECT_EQ(result, number(42));
        }
        EXPECT_EQ(thread_del(self), 0);
    }
}

TEST_F(Thread, StopCancelsARunningThreadAndWaits) {
    for (const std::uint32_t detached : {0U, 1U}) {
        semaphore reached;
        thread *self = thread_new(detached);
        ASSERT_EQ(thread_start(self, wait_for_more, &reached), 0);
        reached.wait();
        EXPECT_EQ(thread_stop(self), 0);
        EXPECT_EQ(thread_trystop(self), -1) << "the post is consumed";
        EXPECT_EQ(self->retval, none);
        EXPECT_EQ(self->state, stopped);
        void *result = nullptr;
        if (detached == 0) {
            EXPECT_EQ(thread_join(self, &result), 0);
            EXPECT_EQ(result, PTHREAD_CANCELED);
        }
        EXPECT_EQ(thread_del(self), 0);
    }
}

TEST_F(Thread, StopFindsAThreadThatOthersHaveCancelled) {
    semaphore reached;
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, wait_for_more, &reached), 0);
    reached.wait();
    pthread_cancel(self->tid);
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, StopWaitsForWhoeverCannotBeCancelled) {
    uncancellable at;
    thread *self = thread_new(1);
    ASSERT_EQ(thread_start(self, uncancellable::routine, &at), 0);
    at.reached.wait();
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_TRUE(at.finished);
    EXPECT_EQ(self->retval, number(5));
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, ANewOneCannotBeStopped) {
    thread *self = thread_new(0);
    EXPECT_EQ(thread_trystop(self), -1);
    EXPECT_EQ(thread_stop(self), -1);
    EXPECT_EQ(thread_del(self), 0);

    self = thread_new(1);
    EXPECT_EQ(thread_del_for_pool(self), -1) << "not stopped, but deleted";
}

TEST_F(Thread, TrystopLeavesARunningThreadAlone) {
    gate at;
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, gate::task, &at), 0);
    at.wait_until_reached();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(thread_trystop(self), -1);
    EXPECT_EQ(state_of(*self), busy);
    at.open();
    void *result = none;
    EXPECT_EQ(thread_join(self, &result), 0);
    EXPECT_EQ(result, nullptr) << "as the gate's task returns";
    EXPECT_EQ(thread_trystop(self), 0);
    EXPECT_EQ(thread_trystop(self), -1) << "the post is consumed";
    EXPECT_EQ(thread_del(self), 0);
}

/* Ends its thread from within, and notes what is unwound. */
struct leaver {
    thread *self = nullptr;
    std::string unwound;

    struct on_stack {
        leaver &owner;
        ~on_stack() { owner.unwound += "stack "; }
    };

    static void note(void *at) { static_cast<leaver *>(at)->unwound += "handler "; }

    [[gnu::noinline]] void leave() {
        const on_stack object{*this};
        thread_exit(self, number(7));
    }

    static void *routine(void *at) {
        pthread_cleanup_push(note, at);
        static_cast<leaver *>(at)->leave();
        pthread_cleanup_pop(0);
        return nullptr;
    }
};

TEST_F(Thread, ExitLeavesAResultAndUnwinds) {
    leaver at;
    thread *self = at.self = thread_new(0);
    ASSERT_EQ(thread_start(self, leaver::routine, &at), 0);
    void *result = nullptr;
    EXPECT_EQ(thread_join(self, &result), 0);
    EXPECT_EQ(result, number(7));
    EXPECT_EQ(self->retval, number(7));
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(at.unwound, "stack handler ");
    EXPECT_EQ(thread_trystop(self), 0);
    EXPECT_EQ(thread_trystop(self), -1) << "posted once";
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(Thread, IsDetachedWhileItRuns) {
    gate at;
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, gate::task, &at), 0);
    at.wait_until_reached();
    EXPECT_EQ(self->detach(self), 0);
    at.open();
    ASSERT_TRUE(has_ended(self));
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(thread_del(self), 0);
}

/* ---- The body and its cleanup handlers ----------------------------------------------------------
 */

TEST_F(ThreadCleanup, NecrologyToSelfPosts) {
    thread *self = thread_new(0);
    thread_necrology_to_self(self);
    EXPECT_EQ(value_of(self->necrology), 1);
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(ThreadCleanup, NecrologyToPoolTellsOfRetiredWorkersOnly) {
    bare_pool workers;
    const struct {
        threadpool *pool;
        std::int32_t state;
        int posts;
    } rows[] = {
        {nullptr, idle, 0},       {nullptr, busy, 0},          {nullptr, hung, 0},
        {nullptr, stopped, 0},    {workers.get(), idle, 0},    {workers.get(), busy, 0},
        {workers.get(), hung, 0}, {workers.get(), stopped, 1},
    };
    for (const auto &row : rows) {
        thread *self = thread_new(0);
        self->pool = row.pool;
        self->state = row.state;
        thread_necrology_to_pool(self);
        EXPECT_EQ(value_of(workers->necrology), row.posts) << row.state;
        EXPECT_EQ(value_of(self->necrology), 0);
        EXPECT_EQ(self->state, stopped);
        thread_del(self);
    }
}

TEST_F(ThreadCleanup, UnlockIsForWaitingWorkersOnly) {
    bare_pool workers;
    const struct {
        threadpool *pool;
        std::int32_t state;
        bool unlocked;
    } rows[] = {
        {nullptr, idle, false},      {nullptr, busy, false},          {nullptr, hung, false},
        {nullptr, stopped, false},   {workers.get(), idle, false},    {workers.get(), busy, false},
        {workers.get(), hung, true}, {workers.get(), stopped, false},
    };
    for (const auto &row : rows) {
        thread *self = thread_new(0);
        self->pool = row.pool;
        self->state = row.state;
        pthread_mutex_lock(workers.read_lock());
        thread_unlock(self);
        EXPECT_EQ(workers.is_unlocked(), row.unlocked) << row.state;
        EXPECT_EQ(self->state, row.state);
        if (!row.unlocked)
            pthread_mutex_unlock(workers.read_lock());
        thread_del(self);
    }
}

void *note_state(void *record) {
    auto &self = *static_cast<thread *>(record);
    return number(static_cast<std::uintptr_t>(self.state) + 100);
}

TEST_F(ThreadCleanup, TheBodyIsBusyAndThenPasses) {
    thread *self = thread_new(0);
    self->routine = note_state;
    self->arg = self;
    EXPECT_EQ(thread_proc(self), number(100 + busy));
    EXPECT_EQ(self->retval, number(100 + busy));
    EXPECT_EQ(self->state, stopped);
    EXPECT_EQ(value_of(self->necrology), 1);
    EXPECT_EQ(thread_del(self), 0);
}

/* ---- Stress -------------------------------------------------------------------------------------
 */

/* How a routine ends that a stop is on its way to. */
enum ending { by_itself, by_cancellation, by_either };

struct racer {
    ending how;
    unsigned turns;

    static void *run(void *self) {
        const racer &at = *static_cast<racer *>(self);
        spin(at.turns);
        semaphore never;
        if (at.how == by_cancellation)
            never.wait();
        if (at.how == by_either)
            pthread_testcancel();
        return self;
    }
};

struct race_counts {
    std::atomic<int> ended = 0, cancelled = 0, wrong = 0;
};

/* Starts a thread, stops it, and frees its record at once. */
void race(racer &at, std::uint32_t detached, unsigned head_start, race_counts &counts) {
    thread *self = thread_new(detached);
    bool ok = thread_start(self, racer::run, &at) == 0;
    spin(head_start);
    ok &= thread_stop(self) == 0 && self->state == stopped && value_of(self->necrology) == 0;
    const bool cancelled = self->retval == none;
    ok &= cancelled ? at.how != by_itself : self->retval == &at && at.how != by_cancellation;
    void *result = nullptr;
    if (detached == 0)
        ok &= thread_join(self, &result) == 0 && result == (cancelled ? PTHREAD_CANCELED : &at);
    ok &= thread_del(self) == 0;
    if (at.how == by_either)
        ++(cancelled ? counts.cancelled : counts.ended);
    if (!ok)
        counts.wrong++;
}

void race_often(int rounds, std::uint32_t seed, race_counts &counts) {
    std::minstd_rand random(seed);
    for (int i = 0; i < rounds; i++) {
        const unsigned kind = static_cast<unsigned>(random()) % 8;
        racer at{kind == 0   ? by_itself
                 : kind == 1 ? by_cancellation
                             : by_either,
                 static_cast<unsigned>(random()) % 20'000};
        race(at, seed % 2, static_cast<unsigned>(random()) % 100'000, counts);
    }
}

TEST_F(ThreadStress, StoppingRacesWithEnding) {
    const int rounds = keel_test::rounds(100'000);
    race_counts counts;
    {
        std::vector<std::jthread> racing;
        for (std::uint32_t seed = 1; seed <= 4; seed++)
            racing.emplace_back([&, seed] { race_often(rounds / 4, seed, counts); });
    }
    EXPECT_EQ(counts.wrong, 0);
    EXPECT_GT(counts.ended, 0);
    EXPECT_GT(counts.cancelled, 0);
    RecordProperty("ended", counts.ended);
    RecordProperty("cancelled", counts.cancelled);
}

} // namespace
