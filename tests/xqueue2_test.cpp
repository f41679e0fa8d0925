/* SPDX-License-Identifier: MIT */
#include "xqueue2.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "threads.h"
#include "waiting.h"
#include "xqueue.h"

namespace {

using keel_test::watchdog;
using keel_test::worker;
using std::string;

struct message_queue {
    explicit message_queue(std::uint64_t slots = 4) { EXPECT_EQ(queue_init(&queue, slots), 0); }
    ~message_queue() { EXPECT_EQ(queue_destroy(&queue), 0); }
    message_queue(const message_queue &) = delete;
    message_queue &operator=(const message_queue &) = delete;

    int try_put(const string &text) { return queue_tryput(&queue, text.data(), text.size()); }
    void put(const string &text) { EXPECT_EQ(queue_put(&queue, text.data(), text.size()), 0); }

    /* The next message; "(none)" where there is none. */
    string try_get() {
        char text[10'000];
        const ssize_t length = queue_tryget(&queue, text, sizeof text);
        return length < 0 ? "(none)" : string(text, static_cast<std::size_t>(length));
    }
    string get() {
        char text[10'000];
        const ssize_t length = queue_get(&queue, text, sizeof text);
        return length < 0 ? "(failed)" : string(text, static_cast<std::size_t>(length));
    }

    blocking_queue queue;
};

double seconds_of(const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(BlockingQueue, FieldsStandInTheirOrder) {
    EXPECT_EQ(offsetof(blocking_queue, size), 0U);
    EXPECT_EQ(offsetof(blocking_queue, slots), 8U);
    EXPECT_EQ(offsetof(blocking_queue, wr), 16U);
    EXPECT_EQ(offsetof(blocking_queue, rd), 24U);
    EXPECT_EQ(offsetof(blocking_queue, vacant), 32U);
    EXPECT_LT(offsetof(blocking_queue, vacant), offsetof(blocking_queue, filled));
    EXPECT_LT(offsetof(blocking_queue, filled), offsetof(blocking_queue, wr_lock));
    EXPECT_LT(offsetof(blocking_queue, wr_lock), offsetof(blocking_queue, rd_lock));
    EXPECT_EQ(offsetof(blocking_queue_slot, buf), 0U);
    EXPECT_EQ(offsetof(blocking_queue_slot, cap), 8U);
    EXPECT_EQ(offsetof(blocking_queue_slot, len), 16U);
}

TEST(BlockingQueue, HasTwoSlotsAtLeast) {
    const struct {
        std::uint64_t asked;
        std::uint64_t given;
    } rows[] = {{0, 2}, {1, 2}, {2, 2}, {3, 3}, {1000, 1000}};
    for (const auto &row : rows) {
        message_queue messages(row.asked);
        EXPECT_EQ(messages.queue.size, row.given);
        EXPECT_EQ(messages.queue.wr, 0U);
        EXPECT_EQ(messages.queue.rd, 0U);
        for (std::uint64_t i = 0; i < row.given; i++) {
            EXPECT_EQ(messages.queue.slots[i].buf, nullptr);
            EXPECT_EQ(messages.try_put("x"), 0);
        }
        EXPECT_EQ(messages.try_put("x"), -1);
        EXPECT_EQ(queue_size(&messages.queue), static_cast<int>(row.given));
    }
}

TEST(BlockingQueue, GivesMessagesInTheirOrder) {
    message_queue messages;
    for (const char *text : {"one", "", "three"})
        messages.put(text);
    EXPECT_EQ(queue_size(&messages.queue), 3);
    EXPECT_EQ(messages.get(), "one");
    EXPECT_EQ(queue_size(&messages.queue), 2);
    EXPECT_EQ(messages.get(), "");
    EXPECT_EQ(messages.get(), "three");
    EXPECT_EQ(messages.try_get(), "(none)");
    EXPECT_EQ(queue_size(&messages.queue), 0);
}

TEST(BlockingQueue, CopiesAnyBytes) {
    message_queue messages;
    string bytes(256, '\0');
    for (std::size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<char>(i);
    string sent = bytes;
    messages.put(sent);
    sent.assign(sent.size(), 'x');
    EXPECT_EQ(messages.get(), bytes);
}

TEST(BlockingQueue, AMessageThatDoesNotFitStays) {
    message_queue messages;
    messages.put("message");
    messages.put("next");
    char small[6] = "-----";
    errno = 0;
    for (const auto timeout : {-1, 0, 1}) {
        EXPECT_EQ(queue_timedget(&messages.queue, small, sizeof small, timeout), -1);
        EXPECT_EQ(errno, ENOBUFS);
    }
    EXPECT_EQ(queue_get(&messages.queue, nullptr, 100), -1) << "no room at all";
    EXPECT_STREQ(small, "-----");
    EXPECT_EQ(queue_size(&messages.queue), 2);
    char fitting[7];
    EXPECT_EQ(queue_get(&messages.queue, fitting, sizeof fitting), 7);
    EXPECT_EQ(string(fitting, 7), "message");
    EXPECT_EQ(messages.get(), "next");
}

TEST(BlockingQueue, AnEmptyMessageNeedsNoRoom) {
    message_queue messages;
    EXPECT_EQ(queue_put(&messages.queue, nullptr, 0), 0);
    EXPECT_EQ(queue_get(&messages.queue, nullptr, 0), 0);
}

TEST(BlockingQueue, BuffersGrowToTheLongestMessageAndStay) {
    message_queue messages(2);
    const auto pass = [&](std::size_t size) {
        messages.put(string(size, 'x'));
        EXPECT_EQ(messages.get().size(), size);
    };
    pass(0);
    EXPECT_EQ(messages.queue.slots[0].buf, nullptr);
    pass(10);
    pass(100);
    pass(5);
    EXPECT_EQ(messages.queue.slots[0].cap, 100U);
    EXPECT_EQ(messages.queue.slots[1].cap, 10U);
    EXPECT_EQ(messages.queue.slots[1].len, 5U);
    const void *kept = messages.queue.slots[0].buf;
    pass(100);
    EXPECT_EQ(messages.queue.slots[0].buf, kept);
}

TEST(BlockingQueue, WaitsForSecondsAtMost) {
    message_queue messages(2);
    char text[8];
    EXPECT_GE(seconds_of([&] {
                  EXPECT_EQ(queue_timedget(&messages.queue, text, sizeof text, 1), -1);
                  EXPECT_EQ(errno, ETIMEDOUT);
              }),
              0.99);
    messages.put("a");
    messages.put("b");
    EXPECT_GE(seconds_of([&] { EXPECT_EQ(queue_timedput(&messages.queue, "c", 1, 1), -1); }), 0.99);
    EXPECT_EQ(messages.get(), "a");
    EXPECT_EQ(queue_timedput(&messages.queue, "c", 1, 100), 0);
    EXPECT_EQ(queue_timedget(&messages.queue, text, sizeof text, 100), 1);
}

TEST(BlockingQueue, RefusesWhatIsNull) {
    char text[8];
    message_queue messages;
    EXPECT_EQ(queue_init(nullptr, 4), -1);
    EXPECT_EQ(queue_destroy(nullptr), -1);
    EXPECT_EQ(queue_put(nullptr, "x", 1), -1);
    EXPECT_EQ(queue_tryput(&messages.queue, nullptr, 1), -1);
    EXPECT_EQ(queue_get(nullptr, text, sizeof text), -1);
    EXPECT_EQ(queue_size(nullptr), -1);
    EXPECT_EQ(queue_size(&messages.queue), 0);
}

TEST(BlockingQueue, SharesItsNamesWithTheRingQueue) {
    message_queue messages;
    const ring_queue_param param = {2, 0, 0, 0, 0};
    ring_queue *ring = queue_new(&param);
    void *item = ring;
    char text[4];
    EXPECT_EQ(queue_push(ring, &item, 0), 0);
    EXPECT_EQ(queue_push(&messages.queue, "abc", 3, 0), 0);
    EXPECT_EQ(queue_pop(&messages.queue, text, sizeof text, 0), 3);
    EXPECT_EQ(queue_pop(&messages.queue, text, sizeof text, 0), -1);
    EXPECT_EQ(queue_pop(ring, &item, 0), 0);
    EXPECT_EQ(item, ring);
    queue_del(ring);
}

TEST(BlockingQueue, MessagesLeftInItAreDropped) {
    message_queue messages;
    messages.put("left");
    messages.put(string(9'000, 'y'));
}

TEST(BlockingQueue, AgreesWithADequeOfStrings) {
    message_queue messages(7);
    std::deque<string> expected;
    std::mt19937 random(3);
    for (int i = 0; i < 100'000; i++) {
        if (random() % 2 == 0) {
            const string text(random() % 50, static_cast<char>('a' + i % 26));
            const bool room = expected.size() < 7;
            ASSERT_EQ(messages.try_put(text), room ? 0 : -1);
            if (room)
                expected.push_back(text);
        } else if (expected.empty()) {
            ASSERT_EQ(messages.try_get(), "(none)");
        } else {
            ASSERT_EQ(messages.try_get(), expected.front());
            expected.pop_front();
        }
        ASSERT_EQ(queue_size(&messages.queue), static_cast<int>(expected.size()));
    }
}

/* "producer number xxxx", its length by its number. */
string numbered(int producer, int number) {
    string text = std::to_string(producer) + " " + std::to_string(number) + " ";
    return text + string(static_cast<std::size_t>(number * 37 % 8000), 'x');
}

TEST(BlockingQueueThreads, EachMessageArrivesOnceAndInItsProducersOrder) {
    constexpr int producers = 3;
    constexpr int consumers = 3;
    constexpr int each = keel_test::sanitized ? 4'000 : 20'000;
    const watchdog hangs;
    message_queue messages(3);
    std::atomic<int> left = producers * each;
    std::atomic<int> seen[producers][each] = {};
    std::atomic<bool> right = true;
    {
        std::vector<std::jthread> threads;
        for (int p = 0; p < producers; p++)
            threads.emplace_back([&, p] {
                for (int i = 0; i < each; i++)
                    messages.put(numbered(p, i));
            });
        for (int c = 0; c < consumers; c++)
            threads.emplace_back([&] {
                int last[producers] = {-1, -1, -1};
                while (left-- > 0) {
                    const string text = messages.get();
                    const int producer = std::stoi(text);
                    const int number = std::stoi(text.substr(2));
                    right = right && text == numbered(producer, number) && number > last[producer];
                    last[producer] = number;
                    seen[producer][number]++;
                }
            });
    }
    EXPECT_TRUE(right);
    for (const auto &numbers : seen)
        EXPECT_TRUE(std::all_of(std::begin(numbers), std::end(numbers),
                                [](const std::atomic<int> &times) { return times == 1; }));
    EXPECT_EQ(queue_size(&messages.queue), 0);
}

TEST(BlockingQueueThreads, ACancelledWaiterHoldsNothing) {
    const watchdog hangs;
    message_queue messages(2);
    for (int round = 0; round < 200; round++) {
        worker getter([&] { messages.get(); });
        getter.cancel();
        EXPECT_TRUE(getter.join());
        messages.put("a");
        messages.put("b");
        worker putter([&] { messages.put("c"); });
        putter.cancel();
        EXPECT_TRUE(putter.join());
        EXPECT_EQ(messages.get(), "a");
        EXPECT_EQ(messages.get(), "b");
        EXPECT_EQ(queue_size(&messages.queue), 0);
    }
}

} // namespace
