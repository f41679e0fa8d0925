/* SPDX-License-Identifier: MIT */
#include "xthread.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <semaphore.h>
#include <utility>

#include "announce.h"
#include "cancel_shield.h"
#include "ending.h"
#include "mutex_lock.h"
#include "queue_pop.h"
#include "xmemory.h"
#include "xthread_util.h"
#include "xwrap.h"

const stat_desc thread_stat_descs[4] = {{0, "Idle"}, {1, "Busy"}, {2, "Hung"}, {3, "Stop"}};
const stat_desc threadpool_stat_descs[2] = {{0, "Active"}, {1, "Inactive"}};

namespace {

using keel::announce;
using keel::end_explained;
using keel::mutex_lock;

enum thread_state : std::int32_t { idle, busy, hung, stopped };
enum pool_state : std::int32_t { active, inactive };

enum class phase { created, running, ended };

/* What thread_new() really makes. A thread that ends says so under `ending` before it posts its
 * necrology, its last touch of the record: whoever holds `ending` and finds it running may use its
 * handle. */
struct guarded_thread : thread {
    pthread_mutex_t ending;
    enum phase phase;
};

guarded_thread &guarded(thread &self) {
    return static_cast<guarded_thread &>(self);
}

void set_phase(thread &self, phase now) {
    const mutex_lock lock(guarded(self).ending);
    guarded(self).phase = now;
}

/* The state is read by others, for display. */
std::atomic_ref<std::int32_t> state_of(thread &self) {
    return std::atomic_ref(self.state);
}

/* ---- The table of workers ---------------------------------------------------------------------
 */

[[noreturn]] void die_hopeless(const char *function) {
    const keel::cancel_shield shield;
    std::fprintf(stderr, "%s: Hopeless case\n", function);
    keel::end_process(1);
}

void **new_items(std::uint64_t count, const char *function) {
    auto *items = static_cast<void **>(std::calloc(count, sizeof(void *)));
    if (items == nullptr)
        end_explained(function);
    return items;
}

/* `function` is the caller's name, for the message about memory. */
vector *vector_new(std::uint64_t capacity, const char *function) {
    auto *table = static_cast<vector *>(std::calloc(1, sizeof(vector)));
    if (table == nullptr)
        end_explained(function);
    table->capacity = capacity == 0 ? 32 : capacity;
    table->items = new_items(table->capacity, function);
    table->nfree = table->capacity;
    table->empty = 1;
    table->first = -1;
    table->destroy = thread_del_for_pool;
    return table;
}

void double_items(vector &table, const char *function) {
    void **items = new_items(table.capacity * 2, function);
    std::copy_n(table.items, table.capacity, items);
    std::free(table.items);
    table.items = items;
    table.nfree += table.capacity;
    table.capacity *= 2;
}

int vector_attach_at(vector &table, std::int32_t i, void *item, const char *function) {
    if (i < 0 || item == nullptr)
        return -1;
    while (table.capacity <= static_cast<std::uint64_t>(i))
        double_items(table, function);
    if (table.items[i] != nullptr)
        return -1;
    table.items[i] = item;
    table.nfree--;
    table.empty = 0;
    table.top = std::max(table.top, i + 1);
    if (table.first == -1 || table.first > i)
        table.first = i;
    if (table.next_free > i)
        die_hopeless("vector_attach_at");
    const auto capacity = static_cast<std::int32_t>(table.capacity);
    while (table.next_free < capacity && table.items[table.next_free] != nullptr)
        table.next_free++;
    return 0;
}

void *vector_detach_at(vector &table, std::int32_t i) {
    if (i < 0 || i >= table.top || table.items[i] == nullptr)
        return nullptr;
    void *item = std::exchange(table.items[i], nullptr);
    table.nfree++;
    table.empty = 0;
    while (table.top > 0 && table.items[table.top - 1] == nullptr)
        table.top--;
    if (table.first > i)
        die_hopeless("vector_detach_at");
    if (table.first == i) {
        while (table.first < table.top && table.items[table.first] == nullptr)
            table.first++;
        if (table.first >= table.top)
            table.first = -1;
    }
    table.next_free = std::min(table.next_free, i);
    return item;
}

/* ---- Housekeeping, under the pool's lock ------------------------------------------------------
 */

bool start_worker_locked(threadpool &self, const char *function) {
    thread *worker = thread_new_for_pool(&self);
    return worker != nullptr &&
           vector_attach_at(*self.threads, self.threads->next_free, worker, function) == 0;
}

int push_task(threadpool &self, threadpool_task task) {
    void *item = &task;
    constexpr fifo_slot_function plain_copy = nullptr;
    return self.queue->push(self.queue, &item, 0, plain_copy);
}

/* Frees the workers that have retired. */
void reap_locked(threadpool &self) {
    int dead = 0;
    sem_getvalue(&self.necrology, &dead);
    if (dead <= 0)
        return;
    int reaped = 0;
    for (std::int32_t i = std::max(self.threads->first, 0); i < self.threads->top; i++) {
        auto *worker = static_cast<thread *>(self.threads->items[i]);
        if (worker == nullptr || thread_trystop(worker) != 0)
            continue;
        vector_detach_at(*self.threads, i);
        thread_del(worker);
        reaped++;
    }
    while (reaped-- > 0 && sem_trywait(&self.necrology) == 0)
        ;
}

/* The counts follow the decision, not its success. A retiring worker is counted off a second time
 * when it takes its exit task; pool_resize() sees the counts as they are. */
void resize_locked(threadpool &self) {
    const std::int32_t delta = pool_resize(&self.pool);
    self.pool.idle += static_cast<std::uint64_t>(static_cast<std::int64_t>(delta));
    self.pool.total += static_cast<std::uint64_t>(static_cast<std::int64_t>(delta));
    for (std::int32_t i = 0; i < delta; i++)
        if (!start_worker_locked(self, "thread_run_for_pool"))
            announce(stderr, "thread_run_for_pool : error.\n");
    for (std::int32_t i = 0; i > delta; i--)
        if (push_task(self, {thread_exit_for_pool, nullptr}) != 0)
            announce(stderr, "thread_run_for_pool : can't push thread exit task.\n");
}

/* Ends a worker whose pool is being deleted. The lock is released on the way out. */
void leave_inactive_locked(thread &self) {
    if (self.pool->state == inactive)
        thread_exit(&self, nullptr);
}

/* ---- A worker's round -------------------------------------------------------------------------
 */

void keep_house(thread &self, bool after_task) {
    const mutex_lock lock(self.pool->lock);
    leave_inactive_locked(self);
    if (after_task)
        self.pool->pool.idle++;
    reap_locked(*self.pool);
    resize_locked(*self.pool);
}

threadpool_task wait_for_task(thread &self) {
    threadpool_task task{};
    void *item = &task;
    constexpr fifo_slot_function plain_copy = nullptr;
    state_of(self) = hung; // which tells thread_unlock() whose the queue's lock is
    keel::pop_leaving_lock(*self.pool->queue, &item, -1, plain_copy);
    state_of(self) = busy;
    return task;
}

void count_off(thread &self) {
    const mutex_lock lock(self.pool->lock);
    leave_inactive_locked(self);
    self.pool->pool.idle--;
}

/* ---- Making a pool ----------------------------------------------------------------------------
 */

bool make_locks(threadpool &self) {
    if (pthread_mutex_init(&self.lock, nullptr) != 0)
        return false;
    if (sem_init(&self.necrology, 0, 0) == 0)
        return true;
    pthread_mutex_destroy(&self.lock);
    return false;
}

int destroy_locks(threadpool &self) {
    const int unlocked = pthread_mutex_destroy(&self.lock);
    const int unposted = sem_destroy(&self.necrology);
    return unlocked == 0 && unposted == 0 ? 0 : -1;
}

bool make_queue(threadpool &self, const ring_queue_param &param) {
    self.queue = queue_new(&param);
    if (self.queue != nullptr)
        return true;
    destroy_locks(self);
    return false;
}

void stop_workers(vector &table) {
    for (std::int32_t i = std::max(table.first, 0); i < table.top; i++)
        if (table.items[i] != nullptr) {
            table.destroy(static_cast<thread *>(table.items[i]));
            table.items[i] = nullptr;
        }
}

void vector_del(vector *table) {
    std::free(table->items);
    std::free(table);
}

} // namespace

/* ---- Threads ----------------------------------------------------------------------------------
 */

thread *thread_new(std::uint32_t detached) {
    auto *self = static_cast<guarded_thread *>(xcalloc(0, sizeof(guarded_thread)));
    if (sem_init(&self->necrology, 0, 0) != 0) {
        xfree(0, self);
        return nullptr;
    }
    if (attr_init(&self->attr, static_cast<int>(detached), 1) != 0) {
        sem_destroy(&self->necrology);
        xfree(0, self);
        return nullptr;
    }
    self->ending = PTHREAD_MUTEX_INITIALIZER;
    self->phase = phase::created;
    self->retval = reinterpret_cast<void *>(-1); // NOLINT: no result yet
    self->state = idle;
    self->start = thread_start;
    self->stop = thread_stop;
    self->del = thread_del;
    self->detach = thread_detach;
    self->join = thread_join;
    return self;
}

int thread_start(thread *self, thread_routine routine, void *arg) {
    if (self == nullptr || routine == nullptr)
        return -1;
    self->routine = routine;
    self->arg = arg;
    set_phase(*self, phase::running);
    const int error = pthread_create(&self->tid, &self->attr, thread_proc, self);
    if (error != 0)
        set_phase(*self, phase::created);
    return error;
}

int thread_stop(thread *self) {
    if (self == nullptr)
        return -1;
    if (sem_trywait(&self->necrology) == 0)
        return 0;
    {
        const mutex_lock lock(guarded(*self).ending);
        if (guarded(*self).phase == phase::created)
            return -1;
        if (guarded(*self).phase == phase::running)
            pthread_cancel(self->tid);
    }
    return Sem_wait(&self->necrology);
}

int thread_trystop(thread *self) {
    return self == nullptr ? -1 : sem_trywait(&self->necrology);
}

void thread_exit(thread *self, void *retval) {
    if (self != nullptr)
        self->retval = retval;
    pthread_exit(retval);
}

int thread_del(thread *self) {
    if (self == nullptr)
        return -1;
    sem_destroy(&self->necrology);
    pthread_attr_destroy(&self->attr);
    pthread_mutex_destroy(&guarded(*self).ending);
    xfree(0, self);
    return 0;
}

int thread_detach(thread *self) {
    return self == nullptr ? -1 : pthread_detach(self->tid);
}

int thread_join(thread *self, void **retval) {
    return self == nullptr ? -1 : pthread_join(self->tid, retval);
}

/* The result is kept aside: the record may be gone once its necrology is posted. */
void *thread_proc(void *record) {
    thread &self = *static_cast<thread *>(record);
    void *retval = nullptr;
    pthread_cleanup_push(thread_necrology_to_self, record);
    pthread_cleanup_push(thread_necrology_to_pool, record);
    pthread_cleanup_push(thread_unlock, record);
    state_of(self) = busy;
    retval = self.routine(self.arg);
    self.retval = retval;
    pthread_cleanup_pop(1);
    pthread_cleanup_pop(1);
    pthread_cleanup_pop(1);
    return retval;
}

void thread_necrology_to_self(void *record) {
    thread &self = *static_cast<thread *>(record);
    set_phase(self, phase::ended);
    Sem_post(&self.necrology);
}

void thread_necrology_to_pool(void *record) {
    thread &self = *static_cast<thread *>(record);
    if (self.pool != nullptr && state_of(self) == stopped)
        Sem_post(&self.pool->necrology);
    else
        state_of(self) = stopped;
}

void thread_unlock(void *record) {
    thread &self = *static_cast<thread *>(record);
    if (self.pool != nullptr && state_of(self) == hung)
        Pthread_mutex_unlock(&self.pool->queue->rd_lock);
}

/* ---- Workers ----------------------------------------------------------------------------------
 */

thread *thread_new_for_pool(threadpool *workers) {
    thread *self = workers == nullptr ? nullptr : thread_new(1);
    if (self != nullptr) {
        self->pool = workers;
        if (thread_start(self, thread_run_for_pool, self) == 0)
            return self;
        thread_del(self);
    }
    announce(stderr, "thread_new_for_pool : error.\n");
    return nullptr;
}

int thread_del_for_pool(thread *self) {
    const int stopped_it = thread_stop(self);
    const int deleted_it = thread_del(self);
    return stopped_it == 0 && deleted_it == 0 ? 0 : -1;
}

void *thread_exit_for_pool(void *record) {
    auto *self = static_cast<thread *>(record);
    if (self != nullptr)
        state_of(*self) = stopped;
    thread_exit(self, nullptr);
}

void *thread_run_for_pool(void *record) {
    thread &self = *static_cast<thread *>(record);
    for (bool after_task = false;; after_task = true) {
        keep_house(self, after_task);
        const threadpool_task task = wait_for_task(self);
        count_off(self);
        const bool own_exit = task.routine == thread_exit_for_pool && task.arg == nullptr;
        task.routine(own_exit ? record : task.arg);
        /* Whatever the task left: a worker is to be stopped, at its next cancellation point. */
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    }
}

/* ---- Pools ------------------------------------------------------------------------------------
 */

threadpool *threadpool_new(std::uint64_t min, std::uint64_t max, std::uint64_t queue_init,
                           std::uint64_t queue_step, std::uint64_t queue_max) {
    auto *self = static_cast<threadpool *>(xcalloc(0, sizeof(threadpool)));
    const ring_queue_param tasks = {queue_init, sizeof(threadpool_task), 1, queue_step, queue_max};
    if (pool_create(&self->pool, min, max) != 0 || !make_locks(*self) ||
        !make_queue(*self, tasks)) {
        xfree(0, self);
        return nullptr;
    }
    self->state = active;
    self->exec = threadpool_exec;
    self->del = threadpool_del;
    self->threads = vector_new(min, "threadpool_new");
    const mutex_lock lock(self->lock); // the first workers already keep house
    for (std::uint64_t i = 0; i < min; i++)
        if (!start_worker_locked(*self, "threadpool_new"))
            announce(stderr, "threadpool_new : error.\n");
    return self;
}

int threadpool_exec(threadpool *self, thread_routine routine, void *arg) {
    return self == nullptr || routine == nullptr ? -1 : push_task(*self, {routine, arg});
}

int threadpool_del(threadpool *self) {
    if (self == nullptr)
        return -1;
    const keel::cancel_shield shield; // a pool half deleted can be neither used nor deleted
    {
        const mutex_lock lock(self->lock);
        self->state = inactive;
    }
    stop_workers(*self->threads);
    vector_del(self->threads);
    const int queue = self->queue->del(self->queue);
    const int locks = destroy_locks(*self);
    xfree(0, self);
    return queue == 0 && locks == 0 ? 0 : -1;
}
