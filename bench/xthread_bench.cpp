/* SPDX-License-Identifier: MIT */
/* Tasks on a pool of workers. */
#include <apr_general.h>
#include <apr_pools.h>
#include <apr_thread_pool.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <memory>
#include <semaphore.h>
#include <string>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#include <uv.h>
#include <xthread.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr int workers = 8;
constexpr int tasks = 200'000;
constexpr int round_trips = 5'000;

std::atomic<int> left;
sem_t done;

void finish_task() {
    if (left.fetch_sub(1) == 1)
        sem_post(&done);
}

struct keel_pool {
    keel_pool() { pool = threadpool_new(workers, workers, 1024, 1024, tasks + 1024); }
    ~keel_pool() { pool->del(pool); }
    keel_pool(const keel_pool &) = delete;
    keel_pool &operator=(const keel_pool &) = delete;

    static void *task(void *) {
        finish_task();
        return nullptr;
    }
    void submit() const { require(pool->exec(pool, task, nullptr) == 0, "exec failed"); }
    threadpool *pool;
};

struct glib_pool {
    glib_pool() { pool = g_thread_pool_new(task, nullptr, workers, TRUE, nullptr); }
    ~glib_pool() { g_thread_pool_free(pool, FALSE, TRUE); }
    glib_pool(const glib_pool &) = delete;
    glib_pool &operator=(const glib_pool &) = delete;

    static void task(void *, void *) { finish_task(); }
    void submit() const { g_thread_pool_push(pool, this->pool, nullptr); }
    GThreadPool *pool;
};

struct apr_pool {
    apr_pool() {
        apr_initialize();
        apr_pool_create(&memory, nullptr);
        require(apr_thread_pool_create(&pool, workers, workers, memory) == APR_SUCCESS, "APR");
    }
    ~apr_pool() {
        apr_thread_pool_destroy(pool);
        apr_pool_destroy(memory);
        apr_terminate();
    }
    apr_pool(const apr_pool &) = delete;
    apr_pool &operator=(const apr_pool &) = delete;

    static void *task(apr_thread_t *, void *) {
        finish_task();
        return nullptr;
    }
    void submit() const {
        apr_thread_pool_push(pool, task, nullptr, APR_THREAD_TASK_PRIORITY_NORMAL, nullptr);
    }
    apr_pool_t *memory = nullptr;
    apr_thread_pool_t *pool = nullptr;
};

/* One pool for the whole process, its loop driven by the submitter. Requests are reused. */
struct uv_pool {
    uv_pool() { uv_loop_init(&loop); }
    ~uv_pool() {
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    uv_pool(const uv_pool &) = delete;
    uv_pool &operator=(const uv_pool &) = delete;

    void submit() {
        if (next == requests.size()) {
            uv_run(&loop, UV_RUN_DEFAULT);
            next = 0;
        }
        uv_queue_work(
            &loop, &requests[next++], [](uv_work_t *) { finish_task(); }, [](uv_work_t *, int) {});
    }
    uv_loop_t loop{};
    std::size_t next = 0;
    std::vector<uv_work_t> requests{static_cast<std::size_t>(tasks)};
};

struct tbb_pool {
    ~tbb_pool() {
        arena.execute([&] { group.wait(); });
    }
    void submit() {
        arena.execute([&] { group.run(finish_task); });
    }
    tbb::task_arena arena{workers + 1, 1};
    tbb::task_group group;
};

template <class Pool>
auto throughput() {
    return [] {
        return job{.run = [pool = std::make_shared<Pool>()] {
            left = tasks;
            for (int i = 0; i < tasks; i++)
                pool->submit();
            sem_wait(&done);
        }};
    };
}

template <class Pool>
auto one_by_one() {
    return [] {
        return job{.run = [pool = std::make_shared<Pool>()] {
            for (int i = 0; i < round_trips; i++) {
                left = 1;
                pool->submit();
                sem_wait(&done);
            }
        }};
    };
}

} // namespace

int main(int argc, char *argv[]) {
    sem_init(&done, 0, 0);
    setenv("UV_THREADPOOL_SIZE", std::to_string(workers).c_str(), 1);
    std::printf("memory: %zu bytes a task in the queue, %zu a worker's record, and its stack\n",
                sizeof(threadpool_task) + sizeof(void *), sizeof(thread));
    return bench::measure(
        argc, argv,
        {{.title = "Thread pool of 8, tasks that do nothing",
          .item = "task",
          .items = tasks,
          .floor = "for each task the pool's lock twice, for its counts, and the queue's two locks",
          .contenders = {{"keel threadpool", throughput<keel_pool>()},
                         {"GLib GThreadPool", throughput<glib_pool>(), 0.5},
                         {"APR thread pool", throughput<apr_pool>(), 0.5},
                         {"libuv uv_queue_work", throughput<uv_pool>(), 1.0},
                         {"TBB task_group", throughput<tbb_pool>(), 1.0}}},
         {.title = "Thread pool of 8, one task and back",
          .item = "round trip",
          .items = round_trips,
          .floor = "a sleeping worker is woken for each task, and its submitter again",
          .contenders = {{"keel threadpool", one_by_one<keel_pool>()},
                         {"GLib GThreadPool", one_by_one<glib_pool>(), 1.1},
                         {"APR thread pool", one_by_one<apr_pool>()}}}});
}
