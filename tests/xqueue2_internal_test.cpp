/* SPDX-License-Identifier: MIT */
#include "xqueue2.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "explained.h"

/* What the stand-ins below are asked, as "routine object", and what they answer. They do the work
 * as well, but for what fails. */
namespace {

using call_list = std::vector<std::string>;

struct stand_in {
    std::map<const void *, std::string> names; // of the objects
    call_list calls;
    std::size_t failing = 0; // which call fails, from 1 on; none with 0
    int error = 0;           // with what
    long limit = 0;          // that sysconf() tells; 0: the system's
    bool times_out = false;  // a timed wait does so at once
    timespec deadline{};     // of the last timed wait

    /* The error of this call, or 0. */
    int answer(const std::string &routine, const void *object, const std::string &detail = "") {
        calls.push_back(routine + (object == nullptr ? "" : " " + names[object]) + detail);
        return calls.size() == failing ? error : 0;
    }
};

stand_in *watched; // by one thread at a time

/* Whatever the calls in the scope are. */
class watch {
  public:
    explicit watch(stand_in &system) { watched = &system; }
    ~watch() { watched = nullptr; }
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;
};

/* What the stand-in for `routine` returns that tells of its errors in errno. */
template <class Real>
int answer_in_errno(const char *routine, const void *object, const Real &real,
                    const std::string &detail = "") {
    const int error = watched == nullptr ? 0 : watched->answer(routine, object, detail);
    if (error == 0)
        return real();
    errno = error;
    return -1;
}

/* As above, of one that returns its error. */
template <class Real>
int answer_directly(const char *routine, const void *object, const Real &real,
                    const std::string &detail = "") {
    const int error = watched == nullptr ? 0 : watched->answer(routine, object, detail);
    return error == 0 ? real() : error;
}

template <class Real>
void *answer_with_block(const std::string &routine, const Real &real) {
    const int error = watched == nullptr ? 0 : watched->answer(routine, nullptr);
    if (error == 0)
        return real();
    errno = error;
    return nullptr;
}

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
void *__real_calloc(std::size_t count, std::size_t size);
void *__real_realloc(void *block, std::size_t size);
void __real_free(void *block);
long __real_sysconf(int name);
int __real_sem_init(sem_t *semaphore, int shared, unsigned value);
int __real_sem_destroy(sem_t *semaphore);
int __real_sem_post(sem_t *semaphore);
int __real_sem_wait(sem_t *semaphore);
int __real_sem_trywait(sem_t *semaphore);
int __real_sem_timedwait(sem_t *semaphore, const timespec *deadline);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
void *__wrap_calloc(std::size_t count, std::size_t size);
void *__wrap_realloc(void *block, std::size_t size);
void __wrap_free(void *block);
long __wrap_sysconf(int name);
int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value);
int __wrap_sem_destroy(sem_t *semaphore);
int __wrap_sem_post(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore);
int __wrap_sem_trywait(sem_t *semaphore);
int __wrap_sem_timedwait(sem_t *semaphore, const timespec *deadline);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);

void *__wrap_calloc(std::size_t count, std::size_t size) {
    return answer_with_block("calloc " + std::to_string(count),
                             [=] { return __real_calloc(count, size); });
}

void *__wrap_realloc(void *block, std::size_t size) {
    return answer_with_block("realloc " + std::to_string(size),
                             [=] { return __real_realloc(block, size); });
}

void __wrap_free(void *block) {
    if (watched != nullptr && block != nullptr)
        watched->answer("free", block);
    __real_free(block);
}

static long told_sysconf(int name) {
    const bool told = watched != nullptr && name == _SC_SEM_VALUE_MAX;
    if (told && answer_in_errno("sysconf", nullptr, [] { return 0; }) == -1)
        return -1;
    return told && watched->limit != 0 ? watched->limit : __real_sysconf(name);
}

/* The thread sanitizer asks while it gets ready, before its instrumentation works. */
#ifdef __clang__
__attribute__((disable_sanitizer_instrumentation))
#endif
long __wrap_sysconf(int name) {
    return watched == nullptr ? __real_sysconf(name) : told_sysconf(name);
}

int __wrap_sem_init(sem_t *semaphore, int shared, unsigned value) {
    return answer_in_errno(
        "sem_init", semaphore, [=] { return __real_sem_init(semaphore, shared, value); },
        " " + std::to_string(shared) + " " + std::to_string(value));
}

int __wrap_sem_destroy(sem_t *semaphore) {
    return answer_in_errno("sem_destroy", semaphore, [=] { return __real_sem_destroy(semaphore); });
}

int __wrap_sem_post(sem_t *semaphore) {
    return answer_in_errno("sem_post", semaphore, [=] { return __real_sem_post(semaphore); });
}

int __wrap_sem_wait(sem_t *semaphore) {
    return answer_in_errno("sem_wait", semaphore, [=] { return __real_sem_wait(semaphore); });
}

int __wrap_sem_trywait(sem_t *semaphore) {
    return answer_in_errno("sem_trywait", semaphore, [=] { return __real_sem_trywait(semaphore); });
}

int __wrap_sem_timedwait(sem_t *semaphore, const timespec *deadline) {
    return answer_in_errno("sem_timedwait", semaphore, [=] {
        if (watched == nullptr)
            return __real_sem_timedwait(semaphore, deadline);
        watched->deadline = *deadline;
        if (!watched->times_out)
            return __real_sem_timedwait(semaphore, deadline);
        errno = ETIMEDOUT;
        return -1;
    });
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
    return answer_directly(
        "pthread_mutex_init", mutex, [=] { return __real_pthread_mutex_init(mutex, attributes); },
        attributes == nullptr ? "" : " with attributes");
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex) {
    return answer_directly("pthread_mutex_destroy", mutex,
                           [=] { return __real_pthread_mutex_destroy(mutex); });
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    return answer_directly("pthread_mutex_lock", mutex,
                           [=] { return __real_pthread_mutex_lock(mutex); });
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    return answer_directly("pthread_mutex_unlock", mutex,
                           [=] { return __real_pthread_mutex_unlock(mutex); });
}
} // NOLINTEND

namespace {

using keel_test::explained;
using keel_test::run_in_child;

/* What an operation asks of the system, and what it returns. */
struct observed {
    call_list calls;
    std::int64_t result;

    bool operator==(const observed &) const = default;
};

using operation = std::function<std::int64_t(blocking_queue *)>;

observed observe(blocking_queue *queue, const operation &use, stand_in system = {}) {
    system.names = {{&queue->vacant, "vacant"},
                    {&queue->filled, "filled"},
                    {&queue->wr_lock, "wr_lock"},
                    {&queue->rd_lock, "rd_lock"}};
    if (queue->slots != nullptr) {
        system.names[queue->slots] = "slots";
        for (std::uint64_t i = 0; i < queue->size; i++)
            system.names[queue->slots[i].buf] = "buf " + std::to_string(i);
    }
    const watch scope(system);
    const std::int64_t result = use(queue);
    return {system.calls, result};
}

constexpr char text[] = "a message of some length";

/* A queue of two slots that holds so many messages of 4 bytes. */
struct prepared_queue {
    explicit prepared_queue(int messages) {
        queue_init(&queue, 2);
        for (int i = 0; i < messages; i++)
            queue_tryput(&queue, text, 4);
    }
    ~prepared_queue() { queue_destroy(&queue); }
    prepared_queue(const prepared_queue &) = delete;
    prepared_queue &operator=(const prepared_queue &) = delete;

    blocking_queue queue{};
};

std::array<char, 64> room;

/* With a queue that holds one message. */
struct case_of_use {
    operation use;
    observed expected;
};

const case_of_use uses[] = {
    {[](blocking_queue *queue) { return queue_put(queue, text, 9); },
     {{"sem_wait vacant", "pthread_mutex_lock wr_lock", "realloc 9", "pthread_mutex_unlock wr_lock",
       "sem_post filled"},
      0}},
    {[](blocking_queue *queue) { return queue_tryput(queue, text, 1); },
     {{"sem_trywait vacant", "pthread_mutex_lock wr_lock", "realloc 1",
       "pthread_mutex_unlock wr_lock", "sem_post filled"},
      0}},
    {[](blocking_queue *queue) { return queue_timedput(queue, nullptr, 0, 7); },
     {{"sem_timedwait vacant", "pthread_mutex_lock wr_lock", "pthread_mutex_unlock wr_lock",
       "sem_post filled"},
      0}},
    {[](blocking_queue *queue) { return queue_push(queue, nullptr, 0, INT64_MIN); },
     {{"sem_wait vacant", "pthread_mutex_lock wr_lock", "pthread_mutex_unlock wr_lock",
       "sem_post filled"},
      0}},
    {[](blocking_queue *queue) { return queue_get(queue, room.data(), 4); },
     {{"sem_wait filled", "pthread_mutex_lock rd_lock", "pthread_mutex_unlock rd_lock",
       "sem_post vacant"},
      4}},
    {[](blocking_queue *queue) { return queue_tryget(queue, room.data(), 64); },
     {{"sem_trywait filled", "pthread_mutex_lock rd_lock", "pthread_mutex_unlock rd_lock",
       "sem_post vacant"},
      4}},
    {[](blocking_queue *queue) { return queue_timedget(queue, room.data(), 64, 7); },
     {{"sem_timedwait filled", "pthread_mutex_lock rd_lock", "pthread_mutex_unlock rd_lock",
       "sem_post vacant"},
      4}},
    {[](blocking_queue *queue) { return queue_pop(queue, room.data(), 64, INT64_MIN); },
     {{"sem_wait filled", "pthread_mutex_lock rd_lock", "pthread_mutex_unlock rd_lock",
       "sem_post vacant"},
      4}},
    // a buffer that is too small: the unit is given back before the lock
    {[](blocking_queue *queue) { return queue_get(queue, room.data(), 3); },
     {{"sem_wait filled", "pthread_mutex_lock rd_lock", "sem_post filled",
       "pthread_mutex_unlock rd_lock"},
      -1}},
};

TEST(BlockingQueue, WaitsFirstAndLocksOneSide) {
    for (const auto &row : uses) {
        prepared_queue prepared(1);
        EXPECT_EQ(observe(&prepared.queue, row.use), row.expected);
    }
}

/* How it ends where the n-th call to the system fails, with the routine that is asked for then. */
void expect_fatal(int messages, const operation &use, const call_list &calls) {
    for (std::size_t n = 1; n <= calls.size(); n++)
        for (const int error : {EINVAL, EIO}) {
            const auto ending = run_in_child([&] {
                auto *prepared = new prepared_queue(messages);
                stand_in system;
                system.failing = n;
                system.error = error;
                observe(&prepared->queue, use, system);
            });
            const std::string routine = calls[n - 1].substr(0, calls[n - 1].find(' '));
            EXPECT_EQ(ending, explained(routine, error)) << calls[n - 1];
        }
}

TEST(BlockingQueue, EndsWithAnythingTheSystemRefuses) {
    for (const auto &row : uses)
        expect_fatal(1, row.use, row.expected.calls);
}

TEST(BlockingQueue, EndsNothingWhereAWaitTimesOut) {
    const case_of_use rows[] = {
        {[](blocking_queue *queue) { return queue_timedput(queue, text, 4, 9); },
         {{"sem_timedwait vacant"}, -1}},
        {[](blocking_queue *queue) { return queue_timedget(queue, room.data(), 4, 9); },
         {{"sem_timedwait filled"}, -1}},
    };
    for (const auto &row : rows) {
        prepared_queue prepared(1);
        stand_in system;
        system.times_out = true;
        EXPECT_EQ(observe(&prepared.queue, row.use, system), row.expected);
    }
}

TEST(BlockingQueue, LocksNothingWhereThereIsNothingForIt) {
    prepared_queue full(2);
    prepared_queue empty(0);
    EXPECT_EQ(observe(&full.queue, [](auto *queue) { return queue_tryput(queue, text, 4); }),
              (observed{{"sem_trywait vacant"}, -1}));
    EXPECT_EQ(observe(&empty.queue, [](auto *queue) { return queue_tryget(queue, &room, 4); }),
              (observed{{"sem_trywait filled"}, -1}));
}

TEST(BlockingQueue, AsksForNothingOnBehalfOfNull) {
    prepared_queue prepared(1);
    EXPECT_EQ(observe(&prepared.queue,
                      [](blocking_queue *queue) {
                          return queue_put(queue, nullptr, 1) + queue_tryput(nullptr, text, 1) +
                                 queue_put(nullptr, text, 1) + queue_get(nullptr, &room, 1) +
                                 queue_tryget(nullptr, &room, 1) + queue_init(nullptr, 1) +
                                 queue_destroy(nullptr) + queue_size(nullptr);
                      }),
              (observed{{}, -8}));
}

std::int64_t init(blocking_queue *queue) {
    return queue_init(queue, 3);
}

const call_list calls_of_init = {"sysconf",
                                 "calloc 3",
                                 "sem_init vacant 0 3",
                                 "sem_init filled 0 0",
                                 "pthread_mutex_init wr_lock",
                                 "pthread_mutex_init rd_lock"};

TEST(BlockingQueueInit, MakesWhatItNeedsInOrder) {
    blocking_queue queue{};
    EXPECT_EQ(observe(&queue, init), (observed{calls_of_init, 0}));
    EXPECT_EQ(queue_destroy(&queue), 0);
}

TEST(BlockingQueueInit, EndsWithAnythingTheSystemRefuses) {
    const operation init_another = [](blocking_queue *queue) {
        queue->slots = nullptr;
        return init(queue);
    };
    expect_fatal(0, init_another, calls_of_init);
}

TEST(BlockingQueueInit, MakesNoMoreSlotsThanASemaphoreCounts) {
    const struct {
        std::uint64_t n;
        long limit;
        std::uint64_t size;
    } rows[] = {
        {4, 5, 4}, {5, 5, 5}, {6, 5, 5}, {UINT64_MAX, 5, 5}, {UINT64_C(1) << 32, 5, 5},
        {0, 2, 2}, {1, 2, 2}, {0, 1, 1}, {1, 1, 1},          {2, 1, 1},
    };
    for (const auto &row : rows) {
        blocking_queue queue{};
        stand_in system;
        system.limit = row.limit;
        observe(
            &queue, [&](auto *fresh) { return queue_init(fresh, row.n); }, system);
        EXPECT_EQ(queue.size, row.size) << row.n;
        for (std::uint64_t i = 0; i <= row.size; i++)
            EXPECT_EQ(queue_tryput(&queue, text, 4), i < row.size ? 0 : -1);
        EXPECT_EQ(queue_destroy(&queue), 0);
    }
}

/* Room for as many slots as the system's semaphores count, which is more than most have. */
TEST(BlockingQueueInit, AsksTheSystemHowFarASemaphoreCounts) {
    const auto most = static_cast<std::uint64_t>(sysconf(_SC_SEM_VALUE_MAX));
    const auto ending = run_in_child([] {
        blocking_queue queue{};
        stand_in system;
        system.failing = 2;
        system.error = ENOMEM;
        system.limit = 0;
        atexit([] { std::fprintf(stderr, "%s\n", watched->calls.back().c_str()); });
        observe(
            &queue, [](auto *fresh) { return queue_init(fresh, UINT64_MAX); }, system);
    });
    const auto expected = explained("calloc", ENOMEM);
    EXPECT_EQ(ending, keel_test::exited(1, expected.err + "calloc " + std::to_string(most) + "\n"));
}

const call_list calls_of_destroy = {"free buf 0",
                                    "free buf 1",
                                    "free slots",
                                    "sem_destroy vacant",
                                    "sem_destroy filled",
                                    "pthread_mutex_destroy wr_lock",
                                    "pthread_mutex_destroy rd_lock"};

TEST(BlockingQueueDestroy, FreesWhatItHoldsAndThenTheRestInOrder) {
    for (const int messages : {0, 1, 2}) {
        blocking_queue queue{};
        queue_init(&queue, 2);
        for (int i = 0; i < messages; i++)
            queue_tryput(&queue, text, 4);
        call_list expected = calls_of_destroy;
        expected.erase(expected.begin() + messages, expected.begin() + 2); // were never allocated
        EXPECT_EQ(observe(&queue, queue_destroy), (observed{expected, 0}));
    }
}

TEST(BlockingQueueDestroy, EndsWithAnythingTheSystemRefuses) {
    for (std::size_t n = 4; n <= calls_of_destroy.size(); n++) {
        const auto ending = run_in_child([&] {
            auto *prepared = new prepared_queue(2);
            stand_in system;
            system.failing = n;
            system.error = EBUSY;
            observe(&prepared->queue, queue_destroy, system);
        });
        const std::string &failing = calls_of_destroy[n - 1];
        EXPECT_EQ(ending, explained(failing.substr(0, failing.find(' ')), EBUSY));
    }
}

/* So many whole seconds from now. */
TEST(BlockingQueue, WaitsUntilAMomentOnTheWallClock) {
    for (const std::int64_t timeout : {INT64_C(1), INT64_C(2), INT64_C(60), INT64_C(1) << 33})
        for (const bool put : {true, false}) {
            prepared_queue prepared(put ? 2 : 0);
            stand_in system;
            system.times_out = true;
            timespec before{};
            timespec after{};
            clock_gettime(CLOCK_REALTIME, &before);
            {
                const watch scope(system);
                put ? queue_timedput(&prepared.queue, text, 4, timeout)
                    : queue_timedget(&prepared.queue, room.data(), 4, timeout);
            }
            clock_gettime(CLOCK_REALTIME, &after);
            const auto as_pair = [](const timespec &time, std::int64_t seconds) {
                return std::pair(time.tv_sec + seconds, time.tv_nsec);
            };
            EXPECT_LE(as_pair(before, timeout), as_pair(system.deadline, 0));
            EXPECT_LE(as_pair(system.deadline, 0), as_pair(after, timeout));
        }
}

std::size_t count_allocations(const call_list &calls) {
    return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [](auto &call) {
        return call.starts_with("realloc") || call.starts_with("calloc");
    }));
}

TEST(BlockingQueue, AllocatesForALongerMessageThanItsSlotHasHeldAlone) {
    prepared_queue prepared(0);
    const struct {
        std::size_t len;
        std::size_t allocations;
    } rows[] = {
        {5, 1},  {9, 1}, // either slot its first one
        {5, 0},  {9, 0}, {4, 0},  {8, 0}, {0, 0}, {1, 0},  {6, 1},  {9, 0},  {7, 1},
        {10, 1}, {7, 0}, {10, 0}, {6, 0}, {1, 0}, {24, 1}, {10, 0}, {24, 0}, {11, 1},
    };
    for (const auto &row : rows) {
        const observed pass = observe(&prepared.queue, [&](blocking_queue *queue) {
            return queue_put(queue, text, row.len) == 0 ? queue_get(queue, &room, 64) : -1;
        });
        EXPECT_EQ(pass.result, static_cast<std::int64_t>(row.len));
        EXPECT_EQ(count_allocations(pass.calls), row.allocations) << row.len;
    }
}

TEST(BlockingQueue, AllocatesNothingInASteadyStream) {
    prepared_queue prepared(0);
    const auto stream = [](int messages) -> operation {
        return [=](blocking_queue *queue) {
            for (int i = 0; i < messages; i++)
                if (queue_put(queue, text, sizeof text) != 0 ||
                    queue_get(queue, &room, 64) != sizeof text)
                    return -1;
            return 0;
        };
    };
    EXPECT_EQ(count_allocations(observe(&prepared.queue, stream(2)).calls), 2U) << "one each slot";
    const observed steady = observe(&prepared.queue, stream(10'000));
    EXPECT_EQ(steady.result, 0);
    EXPECT_EQ(count_allocations(steady.calls), 0U);
}

} // namespace
