/* SPDX-License-Identifier: MIT */
#include "xqueue2.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sched.h>
#include <string>
#include <type_traits>
#include <vector>

#include "child.h"
#include "queue_items.h"
#include "threads.h"
#include "waiting.h"
#include "xqueue.h"

namespace {

using keel_test::exited;
using keel_test::is_free;
using keel_test::run_in_child;
using keel_test::sanitized;
using keel_test::value_of;
using keel_test::watchdog;
using keel_test::worker;

constexpr std::size_t longest = 8192;

/* A queue of messages that are strings. */
class string_queue {
  public:
    explicit string_queue(std::uint64_t slots) { EXPECT_EQ(queue_init(&queue_, slots), 0); }
    ~string_queue() { EXPECT_EQ(queue_destroy(&queue_), 0); }
    string_queue(const string_queue &) = delete;
    string_queue &operator=(const string_queue &) = delete;

    blocking_queue *operator->() { return &queue_; }
    blocking_queue *get() { return &queue_; }

    bool put(const std::string &message, std::int64_t timeout = 0) {
        return queue_timedput(&queue_, message.data(), message.size(), timeout) == 0;
    }

    /* None where there was none in time, or it is longer than `room`. */
    std::optional<std::string> take(std::int64_t timeout = 0, std::size_t room = longest) {
        std::string message(room, '-');
        const ssize_t length = queue_timedget(&queue_, message.data(), room, timeout);
        if (length == -1)
            return {};
        message.resize(static_cast<std::size_t>(length));
        return message;
    }

    std::vector<std::string> take_all() {
        std::vector<std::string> messages;
        while (auto message = take())
            messages.push_back(*message);
        return messages;
    }

    /* So many messages wait, and nobody is inside. */
    bool is_at_rest(int messages) {
        return queue_size(&queue_) == messages &&
               value_of(queue_.vacant) == static_cast<int>(queue_.size) - messages &&
               is_free(queue_.rd_lock) && is_free(queue_.wr_lock);
    }

  private:
    blocking_queue queue_{};
};

using strings = std::vector<std::string>;

constexpr std::int64_t timeouts_that_wait[] = {-1, 600, INT64_MAX, INT64_MIN};

TEST(BlockingQueue, RecordsHaveTheirFieldsInPlace) {
    const struct {
        std::size_t offset, expected;
    } rows[] = {
        {offsetof(blocking_queue_slot, buf), 0},
        {offsetof(blocking_queue_slot, cap), 8},
        {offsetof(blocking_queue_slot, len), 16},
        {sizeof(blocking_queue_slot), 24},
        {offsetof(blocking_queue, size), 0},
        {offsetof(blocking_queue, slots), 8},
        {offsetof(blocking_queue, wr), 16},
        {offsetof(blocking_queue, rd), 24},
        {offsetof(blocking_queue, vacant), 32},
        {offsetof(blocking_queue, filled), 64},
        {offsetof(blocking_queue, wr_lock), 96},
        {offsetof(blocking_queue, rd_lock), 136},
        {sizeof(blocking_queue), 176},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.offset, row.expected);
}

/* Every slot empty, and nobody inside. */
void expect_fresh(const blocking_queue &queue) {
    EXPECT_EQ(queue.wr, 0U);
    EXPECT_EQ(queue.rd, 0U);
    for (std::uint64_t i = 0; i < queue.size; i++) {
        EXPECT_EQ(queue.slots[i].buf, nullptr);
        EXPECT_EQ(queue.slots[i].cap, 0U);
        EXPECT_EQ(queue.slots[i].len, 0U);
    }
}

TEST(BlockingQueueInit, MakesAnEmptyQueueOfAtLeastTwoSlots) {
    const struct {
        std::uint64_t n, size;
    } rows[] = {{0, 2}, {1, 2}, {2, 2}, {3, 3}, {10, 10}, {1'000, 1'000}};
    for (const auto &row : rows) {
        string_queue queue(row.n);
        EXPECT_EQ(queue->size, row.size) << row.n;
        expect_fresh(*queue.get());
        EXPECT_TRUE(queue.is_at_rest(0));
    }
}

TEST(BlockingQueueInit, FillsARecordThatHeldAnything) {
    blocking_queue queue;
    std::memset(&queue, 0xab, sizeof queue);
    for (int time = 0; time < 3; time++) {
        EXPECT_EQ(queue_init(&queue, 2), 0);
        EXPECT_EQ(queue.size, 2U);
        expect_fresh(queue);
        EXPECT_EQ(queue_tryput(&queue, "abc", 3), 0);
        EXPECT_EQ(queue_destroy(&queue), 0);
    }
}

TEST(BlockingQueueInit, EndsWithoutMemoryForTheSlots) {
    const auto ending = run_in_child([] {
        keel_test::limit_memory();
        blocking_queue queue;
        queue_init(&queue, UINT64_MAX); // as many as a semaphore counts
    });
    EXPECT_EQ(ending, exited(1, "calloc: Cannot allocate memory\n"));
}

TEST(BlockingQueuePush, EndsWithoutMemoryForAMessage) {
    const auto ending = run_in_child([] {
        keel_test::limit_memory();
        string_queue queue(2);
        queue_put(queue.get(), "", std::size_t{1} << 40);
    });
    EXPECT_EQ(ending, exited(1, "realloc: Cannot allocate memory\n"));
}

TEST(BlockingQueue, ToleratesNull) {
    char room[8] = "-------";
    EXPECT_EQ(queue_init(nullptr, 2), -1);
    EXPECT_EQ(queue_destroy(nullptr), -1);
    EXPECT_EQ(queue_size(nullptr), -1);
    EXPECT_EQ(queue_put(nullptr, "a", 1), -1);
    EXPECT_EQ(queue_tryput(nullptr, "a", 1), -1);
    EXPECT_EQ(queue_get(nullptr, room, sizeof room), -1);
    EXPECT_EQ(queue_tryget(nullptr, room, sizeof room), -1);
    for (const std::int64_t timeout : {-1, 0, 1}) {
        EXPECT_EQ(queue_timedput(nullptr, "a", 1, timeout), -1);
        EXPECT_EQ(queue_timedget(nullptr, room, sizeof room, timeout), -1);
        EXPECT_EQ(queue_push(static_cast<blocking_queue *>(nullptr), "a", 1, timeout), -1);
        EXPECT_EQ(queue_pop(static_cast<blocking_queue *>(nullptr), room, 8, timeout), -1);
    }
    EXPECT_STREQ(room, "-------");
}

TEST(BlockingQueuePush, RefusesANullMessageThatIsNotEmpty) {
    string_queue queue(2);
    ASSERT_TRUE(queue.put("abc"));
    for (const std::size_t len : {std::size_t{1}, std::size_t{100}, SIZE_MAX}) {
        EXPECT_EQ(queue_put(queue.get(), nullptr, len), -1);
        EXPECT_EQ(queue_tryput(queue.get(), nullptr, len), -1);
        EXPECT_EQ(queue_timedput(queue.get(), nullptr, len, 600), -1);
    }
    EXPECT_TRUE(queue.is_at_rest(1));
    EXPECT_EQ(queue.take_all(), strings{"abc"});
}

TEST(BlockingQueuePop, HasNoRoomInANullBuffer) {
    string_queue queue(2);
    ASSERT_TRUE(queue.put("abc"));
    ASSERT_TRUE(queue.put(""));
    for (const std::size_t bufsize : {0U, 3U, 100U}) {
        errno = 0;
        EXPECT_EQ(queue_tryget(queue.get(), nullptr, bufsize), -1);
        EXPECT_EQ(errno, ENOBUFS);
    }
    EXPECT_EQ(queue.take(), "abc");
    EXPECT_EQ(queue_tryget(queue.get(), nullptr, 0), 0);
    EXPECT_TRUE(queue.is_at_rest(0));
}

/* The same work under all its names. */
const std::function<int(blocking_queue *, const char *)> ways_to_put[] = {
    [](blocking_queue *queue, const char *text) {
        return queue_put(queue, text, std::strlen(text));
    },
    [](blocking_queue *queue, const char *text) {
        return queue_tryput(queue, text, std::strlen(text));
    },
    [](blocking_queue *queue, const char *text) {
        return queue_timedput(queue, text, std::strlen(text), 5);
    },
    [](blocking_queue *queue, const char *text) {
        return queue_push(queue, text, std::strlen(text), -5);
    },
};

const std::function<ssize_t(blocking_queue *, char *, std::size_t)> ways_to_get[] = {
    [](blocking_queue *queue, char *buf, std::size_t size) { return queue_get(queue, buf, size); },
    [](blocking_queue *queue, char *buf, std::size_t size) {
        return queue_tryget(queue, buf, size);
    },
    [](blocking_queue *queue, char *buf, std::size_t size) {
        return queue_timedget(queue, buf, size, 5);
    },
    [](blocking_queue *queue, char *buf, std::size_t size) {
        return queue_pop(queue, buf, size, -5);
    },
};

TEST(BlockingQueue, CarriesMessagesInOrderUnderAllItsNames) {
    string_queue queue(2);
    std::string text = "message a";
    for (const auto &put : ways_to_put)
        for (const auto &get : ways_to_get) {
            text.back()++;
            EXPECT_EQ(put(queue.get(), text.c_str()), 0);
            EXPECT_EQ(queue_size(queue.get()), 1);
            EXPECT_EQ(put(queue.get(), "next"), 0);
            EXPECT_EQ(queue_size(queue.get()), 2);
            char room[12] = "###########";
            EXPECT_EQ(get(queue.get(), room, sizeof room), 9);
            EXPECT_EQ(std::string(room, sizeof room), text + "##" + std::string(1, '\0'));
            EXPECT_EQ(get(queue.get(), room, 4), 4);
            EXPECT_EQ(std::string(room, 9), "nextage " + text.substr(8));
            EXPECT_TRUE(queue.is_at_rest(0));
        }
}

TEST(BlockingQueue, GoesRoundItsSlots) {
    string_queue queue(3);
    for (std::uint64_t i = 0; i < 10; i++) {
        EXPECT_EQ(queue->wr, i % 3);
        EXPECT_EQ(queue->rd, i % 3);
        EXPECT_TRUE(queue.put(std::string(i, 'x')));
        EXPECT_EQ(queue->slots[i % 3].len, i);
        EXPECT_EQ(queue->wr, (i + 1) % 3);
        EXPECT_EQ(queue->rd, i % 3);
        EXPECT_EQ(queue.take(), std::string(i, 'x'));
    }
}

TEST(BlockingQueue, CopiesTheMessage) {
    string_queue queue(2);
    char text[] = "before";
    EXPECT_EQ(queue_put(queue.get(), text, sizeof text), 0);
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(queue.take(), std::string("before", 7));
}

TEST(BlockingQueue, CarriesAnyBytes) {
    string_queue queue(2);
    std::string bytes;
    for (int byte = 0; byte < 256; byte++)
        bytes += static_cast<char>(byte);
    for (const std::string &message : {bytes, std::string(5, '\0'), std::string(1 << 20, '\xff')}) {
        EXPECT_TRUE(queue.put(message));
        EXPECT_EQ(queue.take(0, 1 << 20), message);
    }
}

TEST(BlockingQueue, TakesAnEmptyMessage) {
    string_queue queue(2);
    EXPECT_EQ(queue_put(queue.get(), nullptr, 0), 0);
    EXPECT_EQ(queue_put(queue.get(), "unread", 0), 0);
    EXPECT_EQ(queue->slots[0].buf, nullptr) << "which needs no buffer";
    EXPECT_EQ(queue_size(queue.get()), 2);
    char room[4] = "---";
    errno = 0;
    EXPECT_EQ(queue_get(queue.get(), room, sizeof room), 0);
    EXPECT_EQ(queue_get(queue.get(), room, 0), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_STREQ(room, "---");
    EXPECT_TRUE(queue.is_at_rest(0));
}

TEST(BlockingQueueSlots, GrowToTheLongestMessageAndNeverShrink) {
    string_queue queue(2);
    const struct {
        std::size_t len;
        std::uint64_t caps[2];
    } rows[] = {
        {0, {0, 0}}, {5, {0, 5}},     {3, {3, 5}},   {4, {3, 5}},    {3, {3, 5}},
        {6, {3, 6}}, {100, {100, 6}}, {0, {100, 6}}, {99, {100, 6}}, {7, {100, 7}},
    };
    for (const auto &row : rows) {
        ASSERT_TRUE(queue.put(std::string(row.len, 'x')));
        for (std::size_t slot = 0; slot < 2; slot++)
            EXPECT_EQ(queue->slots[slot].cap, row.caps[slot]) << row.len;
        ASSERT_EQ(queue.take(), std::string(row.len, 'x'));
    }
}

TEST(BlockingQueueSlots, KeepTheirBuffers) {
    string_queue queue(2);
    void *bufs[2] = {};
    for (std::size_t i = 0; i < 1'000; i++) {
        ASSERT_TRUE(queue.put(std::string(100 - i % 50, 'x')));
        if (i < 2)
            bufs[i] = queue->slots[i].buf;
        EXPECT_EQ(queue->slots[i % 2].buf, bufs[i % 2]);
        ASSERT_TRUE(queue.take());
    }
}

TEST(BlockingQueueSize, CountsTheMessagesThatWait) {
    string_queue queue(4);
    EXPECT_EQ(queue_size(queue.get()), 0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(queue_put(queue.get(), "abc", 3), 0);
    EXPECT_EQ(queue.take(-1), "abc");
    EXPECT_EQ(queue_size(queue.get()), 2);
    static_assert(std::is_same_v<decltype(queue_size(nullptr)), int>);
}

TEST(BlockingQueuePush, FindsNoSlotInAFullQueue) {
    for (const std::uint64_t slots : {2U, 3U}) {
        string_queue queue(slots);
        strings messages;
        for (std::uint64_t i = 0; i < slots; i++) {
            messages.push_back("message " + std::to_string(i));
            EXPECT_TRUE(queue.put(messages.back()));
        }
        EXPECT_EQ(queue_tryput(queue.get(), "more", 4), -1);
        EXPECT_EQ(queue_timedput(queue.get(), "more", 4, 0), -1);
        EXPECT_EQ(queue_push(queue.get(), "more", 4, 0), -1);
        EXPECT_TRUE(queue.is_at_rest(static_cast<int>(slots)));
        EXPECT_EQ(queue.take_all(), messages);
        EXPECT_EQ(queue_tryput(queue.get(), "more", 4), 0);
    }
}

TEST(BlockingQueuePop, FindsNothingInAnEmptyQueue) {
    string_queue queue(2);
    char room[4] = "---";
    EXPECT_EQ(queue_tryget(queue.get(), room, sizeof room), -1);
    EXPECT_EQ(queue_timedget(queue.get(), room, sizeof room, 0), -1);
    EXPECT_EQ(queue_pop(queue.get(), room, sizeof room, 0), -1);
    EXPECT_STREQ(room, "---");
    EXPECT_TRUE(queue.is_at_rest(0));
}

/* What does not fit stays, and nothing is written. */
TEST(BlockingQueuePop, LeavesAMessageThatDoesNotFit) {
    for (const unsigned len : {1U, 2U, 9U, 4'096U})
        for (const unsigned bufsize : {len - 1, len / 2, 0U})
            for (const auto &get : ways_to_get) {
                string_queue queue(2);
                ASSERT_TRUE(queue.put(std::string(len, 'x')));
                ASSERT_TRUE(queue.put("next"));
                std::vector<char> room(len + 1, '-');
                errno = 0;
                EXPECT_EQ(get(queue.get(), room.data(), bufsize), -1);
                EXPECT_EQ(errno, ENOBUFS);
                EXPECT_EQ(room, std::vector<char>(len + 1, '-'));
                EXPECT_EQ(queue->rd, 0U);
                EXPECT_TRUE(queue.is_at_rest(2));
                EXPECT_EQ(get(queue.get(), room.data(), len), static_cast<ssize_t>(len));
                EXPECT_EQ(std::string(room.data(), room.size()), std::string(len, 'x') + '-');
                EXPECT_EQ(queue.take_all(), strings{"next"});
            }
}

/* Those whose buffers are too small get in its way all the time. */
TEST(BlockingQueuePop, LeavesWhatDoesNotFitToOtherConsumers) {
    const watchdog scope;
    string_queue queue(2);
    std::atomic<int> refusals = 0;
    std::atomic<bool> stop = false;
    const auto try_in_vain = [&] {
        while (!stop) {
            errno = 0;
            EXPECT_FALSE(queue.take(0, 5));
            refusals += errno == ENOBUFS;
            sched_yield();
        }
    };
    worker small(try_in_vain);
    worker another(try_in_vain);
    for (int round = 0; round < 50; round++) {
        const std::string message = "longer " + std::to_string(round);
        std::optional<std::string> taken;
        ASSERT_TRUE(queue.put(message));
        for (refusals = 0; refusals < 3;)
            sched_yield();
        worker([&] { taken = queue.take(-1); }).join();
        EXPECT_EQ(taken, message);
    }
    stop = true;
    small.join();
    another.join();
    EXPECT_TRUE(queue.is_at_rest(0));
}

/* The seconds on the wall clock that `body` takes. */
double seconds_of(const std::function<void()> &body) {
    const auto begin = std::chrono::system_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::system_clock::now() - begin).count();
}

TEST(BlockingQueuePush, WaitsForItsSecondsWhereTheQueueStaysFull) {
    const watchdog scope;
    string_queue queue(2);
    ASSERT_TRUE(queue.put("first"));
    ASSERT_TRUE(queue.put("second"));
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(queue_timedput(queue.get(), "more", 4, 2), -1); }), 2.0);
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(queue_push(queue.get(), "more", 4, 1), -1); }), 1.0);
    EXPECT_TRUE(queue.is_at_rest(2));
    EXPECT_EQ(queue.take_all(), (strings{"first", "second"}));
}

TEST(BlockingQueuePop, WaitsForItsSecondsWhereNothingArrives) {
    const watchdog scope;
    string_queue queue(2);
    char room[4] = "---";
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(queue_timedget(queue.get(), room, 4, 2), -1); }), 2.0);
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(queue_pop(queue.get(), room, 4, 1), -1); }), 1.0);
    EXPECT_STREQ(room, "---");
    EXPECT_TRUE(queue.is_at_rest(0));
}

TEST(BlockingQueuePush, WaitsForASlot) {
    const watchdog scope;
    for (const std::int64_t timeout : timeouts_that_wait) {
        string_queue queue(2);
        ASSERT_TRUE(queue.put("first"));
        ASSERT_TRUE(queue.put("second"));
        std::atomic<bool> put = false;
        worker producer([&] { put = queue.put("third", timeout); });
        ASSERT_TRUE(producer.falls_asleep());
        EXPECT_FALSE(put);
        EXPECT_TRUE(is_free(queue->wr_lock)) << "nothing is locked meanwhile";
        EXPECT_EQ(queue.take(), "first");
        producer.join();
        EXPECT_TRUE(put);
        EXPECT_EQ(queue.take_all(), (strings{"second", "third"}));
    }
}

TEST(BlockingQueuePop, WaitsForAMessage) {
    const watchdog scope;
    for (const std::int64_t timeout : timeouts_that_wait) {
        string_queue queue(2);
        std::optional<std::string> taken;
        worker consumer([&] { taken = queue.take(timeout); });
        ASSERT_TRUE(consumer.falls_asleep());
        EXPECT_TRUE(is_free(queue->rd_lock)) << "nothing is locked meanwhile";
        EXPECT_TRUE(queue.put("at last"));
        consumer.join();
        EXPECT_EQ(taken, "at last");
        EXPECT_TRUE(queue.is_at_rest(0));
    }
}

TEST(BlockingQueue, LetsAllWaitersThrough) {
    const watchdog scope;
    constexpr int waiters = 8;
    string_queue queue(2);
    {
        std::atomic<int> taken = 0;
        std::list<worker> consumers;
        for (int i = 0; i < waiters; i++)
            EXPECT_TRUE(
                consumers.emplace_back([&] { taken += queue.take(-1) == "x"; }).falls_asleep());
        for (int i = 0; i < waiters; i++)
            EXPECT_TRUE(queue.put("x", -1));
        consumers.clear();
        EXPECT_EQ(taken, waiters);
    }
    std::list<worker> producers;
    for (int i = 0; i < waiters + 2; i++)
        producers.emplace_back([&] { EXPECT_TRUE(queue.put("y", -1)); });
    for (int i = 0; i < waiters + 2; i++)
        EXPECT_EQ(queue.take(-1), "y");
    producers.clear();
    EXPECT_TRUE(queue.is_at_rest(0));
}

TEST(BlockingQueueDestroy, LosesWhatIsStillInside) {
    for (int held = 0; held <= 3; held++) {
        blocking_queue queue;
        ASSERT_EQ(queue_init(&queue, 3), 0);
        for (int i = 0; i < held; i++)
            ASSERT_EQ(queue_put(&queue, "a message", 9), 0);
        EXPECT_EQ(queue_destroy(&queue), 0);
    }
}

TEST(BlockingQueueDestroy, SaysNothing) {
    EXPECT_EQ(run_in_child([] {
                  blocking_queue queue;
                  char room[2];
                  queue_init(&queue, 0);
                  for (int i = 0; i < 3; i++)
                      queue_tryput(&queue, "abc", 3);
                  queue_tryget(&queue, room, sizeof room);
                  queue_destroy(&queue);
              }),
              exited(0));
}

/* Of both kinds of queue in one program. */
TEST(QueuePushAndPop, AreToldApartByTheQueue) {
    string_queue messages(2);
    const keel_test::unique_queue items = keel_test::fixed_queue(2, 8);
    keel_test::number_item in(77, 8);
    keel_test::number_item out(0, 8);
    char room[4] = "";
    EXPECT_EQ(queue_push(messages.get(), "abc", 3, 0), 0);
    EXPECT_EQ(queue_push(items.get(), in.item(), 0, keel_test::plain_copy), 0);
    EXPECT_EQ(queue_size(messages.get()), 1);
    EXPECT_EQ(items->fifo->count, 1U);
    EXPECT_EQ(queue_pop(messages.get(), room, sizeof room, 0), 3);
    EXPECT_EQ(queue_pop(items.get(), out.item(), 0, keel_test::plain_copy), 0);
    EXPECT_STREQ(room, "abc");
    EXPECT_EQ(out.number(), 77U);

    using push_function = int (*)(blocking_queue *, const void *, std::size_t, std::int64_t);
    using pop_function = ssize_t (*)(blocking_queue *, void *, std::size_t, std::int64_t);
    const push_function push = queue_push;
    const pop_function pop = queue_pop;
    EXPECT_NE(reinterpret_cast<void *>(push),
              reinterpret_cast<void *>(static_cast<decltype(ring_queue::push)>(queue_push)));
    EXPECT_NE(reinterpret_cast<void *>(pop),
              reinterpret_cast<void *>(static_cast<decltype(ring_queue::pop)>(queue_pop)));
}

TEST(BlockingQueue, IsAQueueWhateverHappens) {
    for (unsigned seed = 0; seed < 100; seed++) {
        std::mt19937 random(seed);
        string_queue queue(2 + random() % 5);
        std::deque<std::string> reference;
        std::vector<std::uint64_t> caps(queue->size);
        std::uint64_t puts = 0;
        std::uint64_t gets = 0;
        for (int turn = 0; turn < 400; turn++) {
            if (random() % 9 < 5) {
                std::string message(random() % 4 == 0 ? random() % 500 : random() % 5, '\0');
                std::generate(message.begin(), message.end(),
                              [&] { return static_cast<char>(random()); });
                const bool vacant = reference.size() < queue->size;
                ASSERT_EQ(queue.put(message), vacant);
                if (vacant) {
                    std::uint64_t &cap = caps[puts++ % queue->size];
                    cap = std::max(cap, message.size());
                    reference.push_back(message);
                }
            } else if (reference.empty()) {
                ASSERT_FALSE(queue.take());
            } else {
                const std::size_t room = random() % 3 == 0 ? random() % 6 : longest;
                errno = 0;
                const auto taken = queue.take(0, room);
                const bool fits = reference.front().size() <= room;
                ASSERT_EQ(errno, fits ? 0 : ENOBUFS);
                ASSERT_EQ(taken, fits ? std::optional(reference.front()) : std::nullopt);
                if (fits) {
                    reference.pop_front();
                    gets++;
                }
            }
            ASSERT_TRUE(queue.is_at_rest(static_cast<int>(reference.size())));
            ASSERT_EQ(queue->wr, puts % queue->size);
            ASSERT_EQ(queue->rd, gets % queue->size);
            for (std::size_t slot = 0; slot < caps.size(); slot++)
                ASSERT_EQ(queue->slots[slot].cap, caps[slot]);
        }
        ASSERT_EQ(queue.take_all(), strings(reference.begin(), reference.end()));
    }
}

/* The n-th message of a producer: random bytes of a random length, headed by where it comes from as
 * far as there is room for that. */
std::string message_of(std::uint32_t producer, std::uint32_t n) {
    std::minstd_rand random(producer * 1'000'003 + n + 1);
    random.discard(2);
    const bool is_short = random() % 4 == 0;
    std::string message(random() % (is_short ? 8 : longest + 1), '\0');
    std::generate(message.begin(), message.end(), [&] { return static_cast<char>(random() >> 8); });
    const std::uint32_t origin[] = {producer, n};
    std::memcpy(message.data(), origin, std::min(message.size(), sizeof origin));
    return message;
}

/* What consumers have taken, in the order in which each of them did. */
class arrivals {
  public:
    arrivals(std::uint32_t producers, std::uint32_t each) : producers_(producers), each_(each) {}

    void add(const strings &taken) {
        const std::lock_guard lock(mutex_);
        expect_in_order(taken);
        all_.insert(all_.end(), taken.begin(), taken.end());
    }

    /* All messages have arrived as they were sent, each once. */
    void expect_complete() {
        strings sent;
        for (std::uint32_t producer = 0; producer < producers_; producer++)
            for (std::uint32_t n = 0; n < each_; n++)
                sent.push_back(message_of(producer, n));
        std::sort(sent.begin(), sent.end());
        std::sort(all_.begin(), all_.end());
        EXPECT_EQ(all_.size(), sent.size());
        EXPECT_TRUE(all_ == sent);
    }

  private:
    /* One consumer sees the messages of each producer in the order in which that put them in. */
    void expect_in_order(const strings &taken) const {
        std::vector<std::int64_t> latest(producers_, -1);
        for (const std::string &message : taken) {
            std::uint32_t origin[2] = {};
            if (message.size() < sizeof origin)
                continue;
            std::memcpy(origin, message.data(), sizeof origin);
            ASSERT_LT(origin[0], producers_);
            ASSERT_LT(latest[origin[0]], std::int64_t{origin[1]});
            latest[origin[0]] = origin[1];
        }
    }

    const std::uint32_t producers_;
    const std::uint32_t each_;
    std::mutex mutex_;
    strings all_;
};

/* Without limit, for a while and not at all, in turn. */
std::int64_t timeout_of(std::uint32_t turn) {
    return turn % 3 == 0 ? -1 : turn % 3 == 1 ? 60 : 0;
}

struct traffic {
    std::uint64_t slots;
    std::uint32_t producers;
    std::uint32_t consumers;
    std::uint32_t each;
    std::size_t first_room; // what a consumer tries first
};

void transfer(const traffic &row) {
    string_queue queue(row.slots);
    arrivals arrived(row.producers, row.each);
    std::atomic<std::uint32_t> left = row.producers * row.each;
    std::list<worker> threads;
    for (std::uint32_t producer = 0; producer < row.producers; producer++)
        threads.emplace_back([&, producer] {
            for (std::uint32_t n = 0; n < row.each; n++) {
                const std::string message = message_of(producer, n);
                for (std::uint32_t turn = n; !queue.put(message, timeout_of(turn)); turn++)
                    sched_yield();
            }
        });
    for (std::uint32_t consumer = 0; consumer < row.consumers; consumer++)
        threads.emplace_back([&] {
            strings taken;
            // of as many as there are: nobody waits for one more
            for (std::uint32_t mine; (mine = left.load()) > 0;) {
                if (!left.compare_exchange_weak(mine, mine - 1))
                    continue;
                std::optional<std::string> message = queue.take(timeout_of(mine), row.first_room);
                for (std::uint32_t turn = mine; !message; turn++) {
                    sched_yield();
                    message = queue.take(timeout_of(turn));
                }
                taken.push_back(std::move(*message));
            }
            arrived.add(taken);
        });
    threads.clear();
    arrived.expect_complete();
    EXPECT_TRUE(queue.is_at_rest(0));
}

TEST(BlockingQueueStress, EveryMessageArrivesOnceAndInOrder) {
    const watchdog scope(240);
    constexpr std::uint32_t many = sanitized ? 500 : 3'000;
    const traffic rows[] = {
        {2, 1, 1, many * 2, longest}, {2, 4, 4, many, longest},     {3, 4, 1, many, longest},
        {5, 1, 4, many * 2, longest}, {100, 3, 3, many, longest},   {2, 3, 3, many, 4'000},
        {7, 4, 4, many, 1},           {4, 8, 8, many / 2, longest},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.producers << " producers, " << row.consumers
                                        << " consumers, " << row.slots << " slots");
        transfer(row);
    }
}

/* While it waits, that is, wherever it waits from. */
TEST(BlockingQueue, ForgetsAWaiterThatIsCancelled) {
    const watchdog scope;
    for (const std::int64_t timeout : timeouts_that_wait)
        for (const bool put : {true, false}) {
            string_queue queue(2);
            const int held = put ? 2 : 0;
            for (int i = 0; i < held; i++)
                ASSERT_TRUE(queue.put("held"));
            std::list<worker> waiters;
            for (int i = 0; i < 3; i++)
                EXPECT_TRUE(waiters
                                .emplace_back([&] {
                                    put ? queue_timedput(queue.get(), "lost", 4, timeout)
                                        : static_cast<int>(
                                              queue_timedget(queue.get(), nullptr, 0, timeout));
                                })
                                .falls_asleep());
            for (worker &waiter : waiters) {
                waiter.cancel();
                EXPECT_TRUE(waiter.join());
            }
            EXPECT_TRUE(queue.is_at_rest(held));
            EXPECT_EQ(queue.take_all(), strings(put ? 2 : 0, "held"));
            for (const char *text : {"one", "two"})
                EXPECT_TRUE(queue.put(text));
            EXPECT_EQ(queue.take_all(), (strings{"one", "two"}));
        }
}

/* With a cancellation pending: nothing is left behind where it takes effect. */
TEST(BlockingQueue, IsCancelledBeforeItTakesAnything) {
    string_queue queue(2);
    ASSERT_TRUE(queue.put("one"));
    char room[8] = "-------";
    EXPECT_TRUE(keel_test::run_cancelled([&] { queue_tryput(queue.get(), "two", 3); }));
    EXPECT_TRUE(queue.is_at_rest(2)) << "what does not wait is not cancelled";
    EXPECT_TRUE(keel_test::run_cancelled([&] { queue_tryget(queue.get(), room, 8); }));
    EXPECT_TRUE(queue.is_at_rest(1));
    EXPECT_STREQ(room, "one----");
}

} // namespace
