/* SPDX-License-Identifier: MIT */

/* usage: keel_soak_host DIRECTORY_OF_LOGS SETTINGS_FILE
 * A service that keeps a pool, both kinds of queue, a timer, logs and a file of settings busy until
 * SIGTERM, for tools/soak to look at from outside. Its status is 1 where anything failed or got
 * lost. */
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>

#include <xconf.h>
#include <xini.h>
#include <xlog.h>
#include <xqueue.h>
#include <xqueue2.h>
#include <xthread.h>
#include <xtime.h>

namespace {

constexpr int tasks_a_round = 100;
constexpr long gap = 10; /* milliseconds from round to round */

std::string settings;
threadpool *pool;
blocking_queue messages;
ring_queue *items;
std::atomic<std::uint64_t> refused = 0; /* whatever failed that must not */
std::atomic<std::uint64_t> given = 0;   /* tasks that the pool took */
std::atomic<std::uint64_t> run = 0;
std::atomic<std::uint64_t> received = 0; /* messages and items */

void demand(bool done) {
    if (!done)
        refused++;
}

/* A task of the pool: a record, a message, an item. */
void *work(void *) {
    const std::uint64_t number = run++;
    demand(log_print(0, 0x40, "task %lu of %s", number, "the soak, at the usual length") != -1);
    if (number % 1000 == 0)
        demand(log_dump(0, &number, sizeof number) != -1);
    demand(queue_put(&messages, &number, sizeof number) == 0);
    void *item = reinterpret_cast<void *>(number + 1);
    demand(queue_push(items, &item, -1) == 0);
    return nullptr;
}

/* A task of the timer: a round of the pool's, unless this machine is behind with the last ones. */
void *begin_round(void *) {
    if (given - run > 10 * tasks_a_round)
        return nullptr;
    for (int i = 0; i < tasks_a_round; i++)
        if (threadpool_exec(pool, work, nullptr) == 0)
            given++;
        else
            refused++;
    return nullptr;
}

void take_messages(const std::stop_token &end) {
    std::uint64_t number = 0;
    while (!end.stop_requested())
        if (queue_timedget(&messages, &number, sizeof number, 1) == sizeof number)
            received++;
}

void take_items(const std::stop_token &end) {
    void *item = nullptr;
    while (!end.stop_requested())
        if (queue_pop(items, &item, 1000) == 0)
            received++;
}

void edit(const std::stop_token &end) {
    const char *path = settings.c_str();
    while (!end.stop_requested()) {
        demand(file_cover(path, "[section]\nkey = value\n") > 0);
        demand(file_replace_value(path, "key", "=", "another") == 0);
        ini_table table{};
        demand(ini_load(&table, path, "=") == 0);
        const char *value = ini_section_get(&table, "section", "key");
        demand(value != nullptr && std::strcmp(value, "another") == 0);
        ini_unload(&table);
        const int log = log_open("edits");
        demand(log_print(log, 0x40, "edited") != -1 && log_close(log) == 0);
        usleep(20'000);
    }
}

/* Waits until all that was begun is through, or for a minute. */
bool is_through() {
    for (int tries = 0; tries < 6000; tries++, usleep(10'000))
        if (run == given && received == 2 * run)
            return true;
    return false;
}

bool serve(const sigset_t &ending) {
    pool = threadpool_new(6, 12, 64, 64, 4096);
    timer *clock = timer_new();
    const ring_queue_param growing = {16, 0, 1, 16, 4096};
    items = queue_new(&growing);
    queue_init(&messages, 64);
    const bool begun = clock->schedule(clock, begin_round, nullptr, gap, -1, gap) != -1;
    {
        const std::jthread threads[] = {std::jthread(take_messages), std::jthread(take_items),
                                        std::jthread(edit)};
        int signal = 0;
        sigwait(&ending, &signal);
        demand(begun && clock->del(clock) == 0 && is_through());
    }
    demand(threadpool_del(pool) == 0 && queue_del(items) == 0 && queue_destroy(&messages) == 0);
    return refused == 0;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc != 3)
        return 2;
    settings = argv[2];
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    log_conf conf{};
    conf.flags = LOG_CONF_NLOGS;
    conf.nlogs = 4;
    if (log_init(argv, argv[1], &conf) != 0)
        return 1;
    const bool served = serve(ending);
    log_destroy();
    std::fprintf(stderr, "%lu tasks, as many records; %lu messages and items; %lu failures\n",
                 run.load(), received.load(), refused.load());
    return served ? 0 : 1;
}
