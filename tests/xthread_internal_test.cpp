/* SPDX-License-Identifier: MIT */
#include "xthread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "explained.h"
#include "threads.h"
#include "waiting.h"
#include "workers.h"

/* The stand-ins below count their calls, and refuse those they are told to. */
namespace {

enum call {
    create,
    cancel,
    attr_init_,
    attr_destroy,
    sem_init_,
    sem_destroy_,
    mutex_init,
    mutex_destroy,
    cond_init,
    cond_destroy,
    calls
};

struct stand_in {
    std::array<std::atomic<int>, calls> made{};
    std::atomic<int> refused = calls; // the call that fails, if any
    std::atomic<int> first = 1;       // from which time on
    std::atomic<int> last = 1 << 30;  // to which time

    /* What is done to the table when something is freed, or a semaphore tried. */
    std::atomic<void (*)()> on_free = nullptr;
    std::atomic<void (*)(sem_t *)> on_trywait = nullptr;

    void reset() {
        for (std::atomic<int> &count : made)
            count = 0;
        refused = calls;
        first = 1;
        last = 1 << 30;
        on_free = nullptr;
        on_trywait = nullptr;
    }

    void refuse(call which, int from = 1, int to = 1 << 30) {
        first = from;
        last = to;
        made[which] = 0;
        refused = which;
    }

    bool refuses(call which) {
        const int now = ++made[which];
        return which == refused && first <= now && now <= last;
    }
};

stand_in system_;

/* What happens to these, in order. */
struct {
    pthread_mutex_t *read_lock = nullptr;
    sem_t *of_pool = nullptr;
    sem_t *of_thread = nullptr;
    std::string events;

    void note(const char *event) { events += event; }
} watched;

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __wrap_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);
int __wrap_pthread_cancel(pthread_t handle);
int __wrap_pthread_attr_init(pthread_attr_t *attributes);
int __wrap_pthread_attr_destroy(pthread_attr_t *attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __wrap_pthread_cond_destroy(pthread_cond_t *condition);
int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value);
int __wrap_sem_destroy(sem_t *semaphore);
int __wrap_sem_post(sem_t *semaphore);
int __wrap_sem_trywait(sem_t *semaphore);
void __wrap_free(void *block);

int __real_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument);
int __real_pthread_cancel(pthread_t handle);
int __real_pthread_attr_init(pthread_attr_t *attributes);
int __real_pthread_attr_destroy(pthread_attr_t *attributes);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __real_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __real_pthread_cond_destroy(pthread_cond_t *condition);
int __real_sem_init(sem_t *semaphore, int shared, unsigned value);
int __real_sem_destroy(sem_t *semaphore);
int __real_sem_post(sem_t *semaphore);
int __real_sem_trywait(sem_t *semaphore);
void __real_free(void *block);

int __wrap_pthread_create(pthread_t *handle, const pthread_attr_t *attributes,
                          void *(*routine)(void *), void *argument) {
    return system_.refuses(create) ? EAGAIN
                                   : __real_pthread_create(handle, attributes, routine, argument);
}

int __wrap_pthread_cancel(pthread_t handle) {
    return system_.refuses(cancel) ? ESRCH : __real_pthread_cancel(handle);
}

int __wrap_pthread_attr_init(pthread_attr_t *attributes) {
    return system_.refuses(attr_init_) ? ENOMEM : __real_pthread_attr_init(attributes);
}

/* Whoever is refused a destruction has destroyed all the same: nothing is to be left. */
int __wrap_pthread_attr_destroy(pthread_attr_t *attributes) {
    const int error = __real_pthread_attr_destroy(attributes);
    return system_.refuses(attr_destroy) ? EBUSY : error;
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    return system_.refuses(mutex_init) ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    const int error = __real_pthread_mutex_destroy(mutex);
    return system_.refuses(mutex_destroy) ? EBUSY : error;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (mutex == watched.read_lock)
        watched.note("unlock ");
    return __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes) {
    return system_.refuses(cond_init) ? ENOMEM : __real_pthread_cond_init(condition, attributes);
}

int __wrap_pthread_cond_destroy(pthread_cond_t *condition) {
    const int error = __real_pthread_cond_destroy(condition);
    return system_.refuses(cond_destroy) ? EBUSY : error;
}

int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value) {
    if (!system_.refuses(sem_init_))
        return __real_sem_init(semaphore, shared, value);
    errno = ENOSPC;
    return -1;
}

int __wrap_sem_destroy(sem_t *semaphore) {
    const int result = __real_sem_destroy(semaphore);
    return system_.refuses(sem_destroy_) ? -1 : result;
}

int __wrap_sem_post(sem_t *semaphore) {
    if (semaphore == watched.of_pool)
        watched.note("pool ");
    if (semaphore == watched.of_thread)
        watched.note("self ");
    return __real_sem_post(semaphore);
}

int __wrap_sem_trywait(sem_t *semaphore) {
    if (void (*const then)(sem_t *) = system_.on_trywait)
        then(semaphore);
    return __real_sem_trywait(semaphore);
}

void __wrap_free(void *block) {
    if (void (*const then)() = system_.on_free)
        then();
    __real_free(block);
}
} // NOLINTEND

namespace {

using keel_test::bare_pool;
using keel_test::child_result;
using keel_test::exited;
using keel_test::explained;
using keel_test::gate;
using keel_test::numbers;
using keel_test::pool_watch;
using keel_test::post_task;
using keel_test::run_in_child;
using keel_test::semaphore;
using keel_test::value_of;
using keel_test::watchdog;

class XthreadInternal : public testing::Test {
  protected:
    XthreadInternal() { system_.reset(); }
    ~XthreadInternal() override { system_.reset(); }

  private:
    watchdog watchdog_{240};
};

using ThreadFaults = XthreadInternal;
using ThreadpoolFaults = XthreadInternal;
using ThreadCleanupOrder = XthreadInternal;

/* Runs `body` in a child that hangs for no longer than this process, and that ends with status 1
 * where `body` is false. */
template <class Body>
child_result run_check(const Body &body) {
    return run_in_child([&] {
        const watchdog limit(200);
        _exit(body() ? 0 : 1);
    });
}

std::string repeated(int times, const std::string &text) {
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

/* ---- Threads ----------------------------------------------------------------------------------
 */

void *give_back(void *arg) {
    return arg;
}

TEST_F(ThreadFaults, NoThreadWithoutASemaphore) {
    system_.refuse(sem_init_);
    EXPECT_EQ(thread_new(0), nullptr);
    EXPECT_EQ(system_.made[attr_init_], 0);
    EXPECT_EQ(system_.made[sem_destroy_], 0);
}

TEST_F(ThreadFaults, NoThreadWithoutAttributes) {
    system_.refuse(attr_init_);
    EXPECT_EQ(thread_new(1), nullptr);
    EXPECT_EQ(system_.made[sem_init_], 1);
    EXPECT_EQ(system_.made[sem_destroy_], 1) << "what was made is destroyed";
    EXPECT_EQ(system_.made[attr_destroy], 0);
}

TEST_F(ThreadFaults, DeletionDestroysWhatWasMade) {
    EXPECT_EQ(thread_del(thread_new(1)), 0);
    EXPECT_EQ(system_.made[sem_init_], 1);
    EXPECT_EQ(system_.made[sem_destroy_], 1);
    EXPECT_EQ(system_.made[attr_init_], 1);
    EXPECT_EQ(system_.made[attr_destroy], 1);
}

TEST_F(ThreadFaults, StartGivesTheSystemsError) {
    thread *self = thread_new(0);
    system_.refuse(create, 1, 1);
    EXPECT_EQ(thread_start(self, give_back, self), EAGAIN);
    EXPECT_EQ(self->routine, give_back);
    EXPECT_EQ(self->arg, self);
    EXPECT_EQ(self->retval, reinterpret_cast<void *>(-1));
    EXPECT_EQ(thread_start(self, give_back, self), 0);
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(self->retval, self);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(ThreadFaults, WhoeverHasEndedIsNotCancelled) {
    thread *self = thread_new(0);
    ASSERT_EQ(thread_start(self, give_back, self), 0);
    EXPECT_EQ(thread_join(self, nullptr), 0);
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(system_.made[cancel], 0);
    EXPECT_EQ(thread_del(self), 0);
}

TEST_F(ThreadFaults, WhoeverRunsIsCancelledOnceAndNeverByTrystop) {
    gate at;
    thread *self = thread_new(1);
    ASSERT_EQ(thread_start(self, gate::task, &at), 0);
    at.wait_until_reached();
    EXPECT_EQ(thread_trystop(self), -1);
    EXPECT_EQ(system_.made[cancel], 0);
    EXPECT_EQ(thread_stop(self), 0);
    EXPECT_EQ(system_.made[cancel], 1);
    EXPECT_EQ(thread_del(self), 0);
}

/* ---- The order in which a thread takes its leave ----------------------------------------------
 */

/* A worker that ends in this state, in this way; a waiting one holds the queue's lock. */
struct leaver {
    thread *self;
    std::int32_t state;
    char how;

    static void *routine(void *record) {
        const leaver &at = *static_cast<leaver *>(record);
        if (at.state == 2)
            pthread_mutex_lock(&at.self->pool->queue->rd_lock);
        at.self->state = at.state;
        if (at.how == 'c') {
            pthread_cancel(pthread_self());
            pthread_testcancel();
        }
        if (at.how == 'e')
            thread_exit(at.self, nullptr);
        return nullptr;
    }
};

TEST_F(ThreadCleanupOrder, IsTheSameHoweverARoutineEnds) {
    const struct {
        std::int32_t state;
        const char *events;
    } rows[] = {{1, "self "}, {2, "unlock self "}, {3, "pool self "}};
    for (const char how : {'r', 'e', 'c'}) { // returns, exits, is cancelled
        for (const auto &row : rows) {
            bare_pool workers;
            thread *self = thread_new(0);
            self->pool = workers.get();
            leaver at{self, row.state, how};
            watched = {workers.read_lock(), &workers->necrology, &self->necrology, ""};
            ASSERT_EQ(thread_start(self, leaver::routine, &at), 0);
            EXPECT_EQ(thread_join(self, nullptr), 0);
            EXPECT_EQ(watched.events, row.events) << how;
            watched = {};
            EXPECT_EQ(self->state, 3);
            EXPECT_EQ(thread_trystop(self), 0);
            EXPECT_EQ(thread_del(self), 0);
        }
    }
}

/* ---- Workers that cannot be started -----------------------------------------------------------
 */

const std::string no_worker = "thread_new_for_pool : error.\n";

TEST_F(ThreadpoolFaults, AWorkerThatCannotBeMadeIsReported) {
    for (const call refused : {sem_init_, attr_init_, create}) {
        const auto check = [&] {
            bare_pool workers;
            system_.reset();
            system_.refuse(refused);
            const bool none = thread_new_for_pool(workers.get()) == nullptr;
            return none && system_.made[sem_destroy_] == (refused == sem_init_ ? 0 : 1) &&
                   system_.made[attr_destroy] == (refused == create ? 1 : 0);
        };
        EXPECT_EQ(run_check(check), exited(0, no_worker)) << refused;
    }
}

TEST_F(ThreadpoolFaults, APoolGoesOnWithoutTheWorkersThatCannotBeStarted) {
    const struct {
        int from, to;
        numbers table, occupied;
    } rows[] = {
        {1, 1, {0, 5, 0, 5, 6, 1}, {0, 1, 2, 3, 4}},
        {3, 4, {0, 4, 0, 4, 6, 2}, {0, 1, 2, 3}},
        {6, 6, {0, 5, 0, 5, 6, 1}, {0, 1, 2, 3, 4}},
        {1, 5, {0, 1, 0, 1, 6, 5}, {0}},
        {1, 6, {1, 0, -1, 0, 6, 6}, {}},
    };
    for (const auto &row : rows) {
        const auto check = [&] {
            system_.refuse(create, row.from, row.to);
            threadpool *workers = threadpool_new(6, 12, 4, 4, 16);
            pool_watch watch(workers);
            bool ok = watch.settles(row.occupied.size()) && watch.occupied() == row.occupied &&
                      watch.table() == row.table && watch.sizes() == numbers{6, 6};
            if (!row.occupied.empty())
                ok &= watch.pass(row.occupied.size());
            return ok && threadpool_del(workers) == 0;
        };
        const int missing = row.to - row.from + 1;
        EXPECT_EQ(run_check(check),
                  exited(0, repeated(missing, no_worker + "threadpool_new : error.\n")))
            << row.from;
    }
}

/* The counts follow the decision, though one of the two is missing. */
TEST_F(ThreadpoolFaults, APoolGoesOnWhereItCannotGrow) {
    const auto check = [] {
        std::array<gate, 5> gates;
        threadpool *workers = threadpool_new(6, 12, 4, 4, 16);
        pool_watch watch(workers);
        bool ok = watch.settles(6);
        watch.hold_each(gates);
        system_.refuse(create, 1, 1);
        ok &= watch.pass(2);
        ok &= watch.sizes() == numbers{8, 3};
        ok &= watch.table() == numbers{0, 7, 0, 7, 12, 5};
        return threadpool_del(workers) == 0 && ok;
    };
    EXPECT_EQ(run_check(check), exited(0, no_worker + "thread_run_for_pool : error.\n"));
}

/* ---- Pools that cannot be made or unmade ------------------------------------------------------
 */

TEST_F(ThreadpoolFaults, NoPoolWithoutItsLocksAndNoWordOfIt) {
    const struct {
        call refused;
        int time;
    } rows[] = {
        {mutex_init, 1},                                                  // the pool's
        {sem_init_, 1},  {cond_init, 1}, {cond_init, 2}, {mutex_init, 2}, // the queue's
        {mutex_init, 3},
    };
    for (const auto &row : rows) {
        const auto check = [&] {
            system_.reset();
            system_.refuse(row.refused, row.time);
            const bool none = threadpool_new(6, 12, 4, 4, 16) == nullptr;
            system_.made[row.refused]--; // that one has made nothing
            return none && system_.made[create] == 0 &&
                   system_.made[mutex_init] == system_.made[mutex_destroy] &&
                   system_.made[sem_init_] == system_.made[sem_destroy_] &&
                   system_.made[cond_init] == system_.made[cond_destroy];
        };
        EXPECT_EQ(run_check(check), exited(0)) << row.refused << " " << row.time;
    }
}

TEST_F(ThreadpoolFaults, AFailedConstructionLeavesNoMemoryBehind) {
    system_.refuse(mutex_init);
    EXPECT_EQ(threadpool_new(6, 12, 4, 4, 16), nullptr);
    system_.refuse(sem_init_);
    EXPECT_EQ(threadpool_new(6, 12, 4, 4, 16), nullptr);
    system_.refuse(cond_init);
    EXPECT_EQ(threadpool_new(6, 12, 4, 4, 16), nullptr);
    system_.refuse(sem_init_);
    EXPECT_EQ(thread_new(0), nullptr);
    system_.refuse(attr_init_);
    EXPECT_EQ(thread_new(0), nullptr);
} // and a search for leaks finds none

TEST_F(ThreadpoolFaults, DeletionTellsOfAnyStepThatFailed) {
    threadpool *workers = threadpool_new(6, 6, 4, 4, 16);
    ASSERT_TRUE(pool_watch(workers).settles(6));
    EXPECT_EQ(threadpool_del(workers), 0);
    const int mutexes = system_.made[mutex_destroy]; // the last of them is the pool's own
    const int semaphores = system_.made[sem_destroy_];
    const int conditions = system_.made[cond_destroy];
    const struct {
        call refused;
        int time;
    } rows[] = {{mutex_destroy, mutexes}, {sem_destroy_, semaphores}, {cond_destroy, 1}};
    for (const auto &row : rows) {
        system_.reset();
        workers = threadpool_new(6, 6, 4, 4, 16);
        ASSERT_TRUE(pool_watch(workers).settles(6));
        system_.refuse(row.refused, row.time);
        EXPECT_EQ(threadpool_del(workers), -1) << row.refused;
        EXPECT_EQ(system_.made[mutex_destroy], mutexes) << "the other steps are made";
        EXPECT_EQ(system_.made[sem_destroy_], semaphores);
        EXPECT_EQ(system_.made[cond_destroy], conditions);
    }
}

/* ---- Memory that runs out ---------------------------------------------------------------------
 */

/* Every allocation on the way to the first worker, and its own. */
TEST_F(ThreadpoolFaults, EndsWhereverMemoryRunsOutAtItsConstruction) {
    const child_result checked = exited(255, "No memory!!!\n");
    const child_result table = explained("threadpool_new", ENOMEM);
    std::vector<child_result> endings;
    for (int n = 1; n < 100; n++) {
        const child_result ending = run_check([n] {
            const keel_test::failing_allocation fault(n);
            threadpool *workers = threadpool_new(6, 12, 2, 4, 16);
            const bool happened = fault.happened();
            return threadpool_del(workers) == 0 && !happened;
        });
        if (ending == exited(0))
            break;
        endings.push_back(ending);
    }
    EXPECT_EQ(std::count(endings.begin(), endings.end(), table), 2) << "the table, and its places";
    EXPECT_EQ(std::count(endings.begin(), endings.end(), checked) + 2,
              static_cast<std::ptrdiff_t>(endings.size()));
    EXPECT_GE(endings.size(), 2U + 2U + 6U) << "the records of the pool, its queue, its workers";
}

TEST_F(ThreadpoolFaults, EndsWhereMemoryRunsOutWhileItGrows) {
    const auto grow = [](int fault) {
        return run_check([fault] {
            std::array<gate, 5> gates;
            threadpool *workers = threadpool_new(6, 12, 16, 4, 16);
            pool_watch watch(workers);
            watch.settles(6);
            watch.hold_each(gates);
            const keel_test::failing_allocation next(fault);
            semaphore done;
            threadpool_exec(workers, post_task, &done);
            pause();
            return false;
        });
    };
    EXPECT_EQ(grow(1), exited(255, "No memory!!!\n")) << "the worker's record";
    EXPECT_EQ(grow(2), explained("thread_run_for_pool", ENOMEM)) << "the table's places";
}

/* ---- Tables that others have written to -------------------------------------------------------
 */

vector *table_;

/* The places are being moved: the cursor is put beyond them. */
void move_cursor() {
    if (table_->capacity == 6)
        table_->next_free = 7;
}

TEST_F(ThreadpoolFaults, ACursorBeyondItsPlaceIsHopeless) {
    const auto check = [] {
        std::array<gate, 5> gates;
        threadpool *workers = threadpool_new(6, 12, 16, 4, 16);
        pool_watch watch(workers);
        watch.settles(6);
        watch.hold_each(gates);
        table_ = workers->threads;
        system_.on_free = move_cursor;
        semaphore done;
        threadpool_exec(workers, post_task, &done);
        pause();
        return false;
    };
    EXPECT_EQ(run_check(check), exited(1, "vector_attach_at: Hopeless case\n"));
}

/* A worker is looked at: the first place is put behind it. */
void move_first(sem_t *semaphore) {
    for (std::int32_t i = 0; i < table_->top; i++) {
        auto *worker = static_cast<thread *>(table_->items[i]);
        if (worker != nullptr && &worker->necrology == semaphore && value_of(*semaphore) > 0)
            table_->first = i + 1;
    }
}

TEST_F(ThreadpoolFaults, AFirstPlaceBehindAnOccupiedOneIsHopeless) {
    const auto check = [] {
        threadpool *workers = threadpool_new(6, 6, 16, 4, 16);
        pool_watch watch(workers);
        watch.settles(6);
        threadpool_exec(workers, thread_exit_for_pool, nullptr);
        watch.settles(5, 1);
        table_ = workers->threads;
        system_.on_trywait = move_first;
        semaphore done;
        threadpool_exec(workers, post_task, &done);
        pause();
        return false;
    };
    EXPECT_EQ(run_check(check), exited(1, "vector_detach_at: Hopeless case\n"));
}

} // namespace
