/* SPDX-License-Identifier: MIT */
#include "xtime.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <pthread.h>
#include <set>
#include <sys/prctl.h>
#include <tuple>
#include <utility>

#include "announce.h"
#include "cancel_shield.h"
#include "ending.h"
#include "mutex_lock.h"
#include "time_text.h"
#include "xmemory.h"
#include "xwrap.h"

namespace {

using keel::announce;
using keel::end_explained;
using keel::mutex_lock;

constexpr int identifiers = 32768;
constexpr std::int64_t nanoseconds_of_second = 1'000'000'000;
constexpr std::int64_t nanoseconds_of_millisecond = 1'000'000;

unsigned long address_of(thread_routine routine) {
    return reinterpret_cast<unsigned long>(routine);
}

unsigned long address_of(const void *arg) {
    return reinterpret_cast<unsigned long>(arg);
}

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

bool is_due(const timertask &task) {
    const timespec time = now();
    return std::tie(time.tv_sec, time.tv_nsec) >= std::tie(task.sec, task.nsec);
}

void set_due(timertask &task, std::int64_t milliseconds) {
    const timespec from = now();
    const std::int64_t nanoseconds =
        from.tv_nsec + milliseconds % 1000 * nanoseconds_of_millisecond;
    task.sec = from.tv_sec + milliseconds / 1000 + nanoseconds / nanoseconds_of_second;
    task.nsec = nanoseconds % nanoseconds_of_second;

    const keel::local_time local = keel::local_time_of({task.sec, task.nsec});
    *keel::put_time(task.due, local, '-', ' ', ':') = '\0';
}

/* ---- The order of the tasks -------------------------------------------------------------------
 */

/* As in the list: by due time, the newest first among equals. */
struct place {
    std::int64_t sec;
    std::int64_t nsec;
    std::uint64_t age; // lower for newer ones
    timer_node *node;

    bool operator<(const place &other) const {
        return std::tie(sec, nsec, age) < std::tie(other.sec, other.nsec, other.age);
    }
};

/* What a list's node really is. */
struct placed_node : timer_node {
    std::set<place>::iterator position; // while it is in `tasks`
    std::set<place>::node_type kept;    // to be that again, while it is in `ready`
};

/* What timer_new() really makes: `places` are the nodes of `tasks` again, as a tree that finds a
 * task's neighbours in the list without walking it. */
struct indexed_timer : timer {
    std::set<place> places;
    std::uint64_t next_age = UINT64_MAX;
};

placed_node &placed(timer_node &node) {
    return static_cast<placed_node &>(node);
}

indexed_timer &indexed(timer &self) {
    return static_cast<indexed_timer &>(self);
}

timer_node *new_node(const timer_list &list, timertask *task) {
    void *block = std::calloc(1, sizeof(placed_node));
    if (block == nullptr)
        end_explained("timer_schedule");
    timer_node *node = new (block) placed_node{};
    if (list.copy != nullptr)
        list.copy(&node->data, &task);
    else
        node->data = task;
    return node;
}

void drop_node(const timer_list &list, timer_node *node) {
    list.destroy(&node->data);
    placed(*node).~placed_node();
    std::free(node);
}

/* At the end where `next` is null. */
void link_before(timer_list &list, timer_node *next, timer_node *node) {
    node->next = next;
    node->prev = next != nullptr ? next->prev : list.tail;
    (node->prev != nullptr ? node->prev->next : list.head) = node;
    (next != nullptr ? next->prev : list.tail) = node;
    list.count++;
}

void unlink(timer_list &list, timer_node *node) {
    (node->prev != nullptr ? node->prev->next : list.head) = node->next;
    (node->next != nullptr ? node->next->prev : list.tail) = node->prev;
    list.count--;
}

place new_place_locked(indexed_timer &self, timer_node *node) {
    return {node->data->sec, node->data->nsec, self.next_age--, node};
}

void link_at_locked(indexed_timer &self, timer_node *node, std::set<place>::iterator position) {
    placed(*node).position = position;
    const auto after = std::next(position);
    link_before(*self.tasks, after == self.places.end() ? nullptr : after->node, node);
}

void insert_sorted_locked(indexed_timer &self, timer_node *node) {
    try {
        link_at_locked(self, node, self.places.insert(new_place_locked(self, node)).first);
    } catch (const std::bad_alloc &) {
        end_explained("timer_schedule");
    }
}

void move_to_ready_locked(indexed_timer &self, timer_node *node) {
    placed(*node).kept = self.places.extract(placed(*node).position);
    unlink(*self.tasks, node);
    link_before(*self.ready, nullptr, node);
}

void move_back_locked(indexed_timer &self, timer_node *node) {
    unlink(*self.ready, node);
    placed(*node).kept.value() = new_place_locked(self, node);
    link_at_locked(self, node, self.places.insert(std::move(placed(*node).kept)).position);
}

/* The timer's thread, cancelled in the middle of a round, leaves tasks in `ready`, and a routine
 * that still runs may cancel one of those. */
void take_out_locked(indexed_timer &self, timer_node *node) {
    if (!placed(*node).kept.empty()) {
        unlink(*self.ready, node);
        return;
    }
    self.places.erase(placed(*node).position);
    unlink(*self.tasks, node);
}

void forget_task_locked(indexed_timer &self, timer_node *node) {
    idproducer_free(self.ids, static_cast<std::uint32_t>(node->data->id), nullptr);
    take_out_locked(self, node);
    drop_node(*self.tasks, node);
}

/* ---- The timer's thread -----------------------------------------------------------------------
 */

void sleep_locked(timer &self) {
    if (self.tasks->head == nullptr) {
        pthread_cond_wait(&self.wakeup, &self.lock);
        return;
    }
    const timertask &earliest = *self.tasks->head->data;
    const timespec due = {earliest.sec, earliest.nsec};
    if (!is_due(earliest))
        pthread_cond_timedwait(&self.wakeup, &self.lock, &due);
}

void hand_over_locked(timer &self, const timertask &task) {
    if (self.pool->exec(self.pool, task.start_routine, task.arg) == 0)
        announce(stdout,
                 "Start timer task.\nid            = %d\nstart_routine = 0x%lX\n"
                 "arg           = 0x%lX\n",
                 task.id, address_of(task.start_routine), address_of(task.arg));
    else
        announce(stderr, "timer_run : can't execute timer task.\n");
}

/* Each task once at most: those that run again wait in `ready` until all have had their turn. */
void fire_locked(indexed_timer &self) {
    timer_node *next = nullptr;
    for (timer_node *node = self.tasks->head; node != nullptr; node = next) {
        next = node->next;
        timertask &task = *node->data;
        pthread_testcancel();
        if (!is_due(task))
            return;
        hand_over_locked(self, task);
        if (task.times != -1)
            task.times--;
        if (task.times == 0) {
            forget_task_locked(self, node);
            continue;
        }
        set_due(task, task.gap);
        move_to_ready_locked(self, node);
    }
}

void merge_ready_locked(indexed_timer &self) {
    while (timer_node *node = self.ready->head)
        move_back_locked(self, node);
}

/* ---- Making a timer ---------------------------------------------------------------------------
 */

timer_list *new_list(int32_t (*compare)(timertask **, timertask **)) {
    auto *list = static_cast<timer_list *>(std::calloc(1, sizeof(timer_list)));
    if (list == nullptr)
        end_explained("timer_new");
    list->destroy = timertask_del;
    list->compare = compare;
    return list;
}

void del_list(timer_list *list) {
    for (timer_node *next = nullptr, *node = list->head; node != nullptr; node = next) {
        next = node->next;
        drop_node(*list, node);
    }
    std::free(list);
}

bool make_locks(timer &self) {
    if (pthread_mutex_init(&self.lock, nullptr) != 0)
        return false;
    if (pthread_cond_init(&self.wakeup, nullptr) == 0)
        return true;
    pthread_mutex_destroy(&self.lock);
    return false;
}

/* What nothing but memory is needed for. */
void fill_in(timer &self) {
    self.ids = idproducer_new(1, nullptr);
    self.ready = new_list(nullptr);
    self.tasks = new_list(timertask_sort);
    self.start = timer_start;
    self.schedule = timer_schedule;
    self.cancel = timer_cancel;
    self.del = timer_del;
}

void free_timer(indexed_timer *self) {
    self->~indexed_timer();
    xfree(0, self);
}

/* All that was made, its thread not running, or not any more. */
void take_apart(indexed_timer *self) {
    thread_del(self->thread);
    if (self->pool != nullptr)
        self->pool->del(self->pool);
    if (self->ids != nullptr) {
        idproducer_del(self->ids);
        del_list(self->ready);
        del_list(self->tasks);
    }
    pthread_mutex_destroy(&self->lock);
    pthread_cond_destroy(&self->wakeup);
    free_timer(self);
}

} // namespace

timer *timer_new() {
    auto *self = new (xcalloc(0, sizeof(indexed_timer))) indexed_timer{};
    if (!make_locks(*self)) {
        free_timer(self);
        return nullptr;
    }
    self->thread = thread_new(1);
    if (self->thread != nullptr)
        self->pool = threadpool_new(10, 20, 100, 100, identifiers + 20);
    if (self->pool != nullptr) {
        fill_in(*self);
        if (thread_start(self->thread, timer_run, self) == 0)
            return self;
    }
    take_apart(self);
    return nullptr;
}

int timer_schedule(timer *self, thread_routine routine, void *arg, std::int64_t msec,
                   std::int32_t times, std::int64_t gap) {
    const bool counted = times == -1 || times >= 1;
    const bool repeats = times != 1;
    if (self == nullptr || routine == nullptr || msec < 1 || !counted || (repeats && gap < 1))
        return -1;
    int id = -1;
    {
        const mutex_lock lock(self->lock);
        timertask *task = timertask_new(self, routine, arg, msec, times, gap);
        if (task == nullptr)
            return -1;
        id = task->id;
        timer_node *node = new_node(*self->tasks, task);
        insert_sorted_locked(indexed(*self), node);
        self->ids->args[id] = node;
        if (self->tasks->head == node)
            pthread_cond_signal(&self->wakeup);
    }
    announce(stdout,
             "Add timer task.\nid            = %d\ntimes         = %d\nmsec          = %ld\n"
             "gap           = %ld\nstart_routine = 0x%lX\narg           = 0x%lX\n",
             id, times, msec, gap, address_of(routine), address_of(arg));
    return id;
}

int timer_start(timer *self, thread_routine routine, void *arg, std::int64_t msec) {
    return msec == 0 ? timer_exec(self, routine, arg)
                     : timer_schedule(self, routine, arg, msec, 1, 0);
}

int timer_exec(timer *self, thread_routine routine, void *arg) {
    if (self == nullptr || routine == nullptr)
        return -1;
    const int result = self->pool->exec(self->pool, routine, arg);
    if (result == 0)
        announce(stdout, "Execute timer task.\nstart_routine = 0x%lX\narg           = 0x%lX\n",
                 address_of(routine), address_of(arg));
    return result;
}

int timer_cancel(timer *self, std::int32_t id) {
    if (self == nullptr || id < 0 || id >= identifiers)
        return -1;
    {
        const mutex_lock lock(self->lock);
        auto *node = static_cast<timer_node *>(self->ids->args[id]);
        if (node == nullptr)
            return -1;
        forget_task_locked(indexed(*self), node);
    }
    announce(stdout, "Cancel timer task(%d).\n", id);
    return 0;
}

int timer_del(timer *self) {
    if (self == nullptr)
        return -1;
    const keel::cancel_shield shield; // a timer half deleted can be neither used nor deleted
    self->thread->stop(self->thread);
    take_apart(&indexed(*self));
    return 0;
}

timertask *timertask_new(timer *self, thread_routine routine, void *arg, std::int64_t msec,
                         std::int32_t times, std::int64_t gap) {
    if (self == nullptr)
        return nullptr;
    const std::int32_t id = idproducer_alloc(self->ids, nullptr);
    if (id == -1) {
        announce(stderr, "timertask_new : There has no timer id now.\n");
        return nullptr;
    }
    auto *task = static_cast<timertask *>(xcalloc(0, sizeof(timertask)));
    task->start_routine = routine;
    task->arg = arg;
    set_due(*task, msec);
    task->timer = self;
    task->msec = msec;
    task->times = times;
    task->gap = gap;
    task->id = id;
    return task;
}

void timertask_del(timertask **task) {
    if (task != nullptr)
        xfree(0, std::exchange(*task, nullptr));
}

std::int32_t timertask_sort(timertask **a, timertask **b) {
    const auto difference = [](std::int64_t one, std::int64_t other) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(one) -
                                         static_cast<std::uint32_t>(other));
    };
    return (*a)->sec != (*b)->sec ? difference((*a)->sec, (*b)->sec)
                                  : difference((*a)->nsec, (*b)->nsec);
}

void timer_unlock(void *mutex) {
    Pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
}

/* Cancelled only where it holds the lock: the handler's word on that is final. */
void *timer_run(void *record) {
    indexed_timer &self = indexed(*static_cast<timer *>(record));
    prctl(PR_SET_TIMERSLACK, 1UL); // wake when asked, not up to 50 us later
    pthread_cleanup_push(timer_unlock, &self.lock);
    for (;;) {
        Pthread_mutex_lock(&self.lock);
        pthread_testcancel();
        sleep_locked(self);
        fire_locked(self);
        merge_ready_locked(self);
        Pthread_mutex_unlock(&self.lock);
    }
    pthread_cleanup_pop(0);
}
