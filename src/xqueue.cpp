/* SPDX-License-Identifier: MIT */
#include "xqueue.h"

#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <pthread.h>

#include "mutex_lock.h"
#include "queue_pop.h"
#include "xmemory.h"
#include "xthread_util.h"
#include "xwrap.h"

namespace {

using keel::mutex_lock;

/* Who waits on one side of a queue. The counts change under that side's lock. The other side reads
 * `sleepers` without it: a waiter is counted before it looks at the ring, and the other side
 * changes the ring before it looks for waiters, so one of the two sees the other. */
class waiters {
  public:
    waiters(pthread_cond_t &condition, pthread_mutex_t &mutex)
        : condition_(condition), mutex_(mutex) {}

    bool any() const { return sleepers_.load(std::memory_order_seq_cst) > 0; }

    /* Wakes one. Under the waiter's lock, as it might be just on its way to sleep. */
    void wake_one() {
        const mutex_lock lock(mutex_);
        if (sleepers_.load(std::memory_order_relaxed) == 0)
            return;
        woken_++;
        publish();
        pthread_cond_signal(&condition_);
    }

    /* One thread's stay, while it holds the lock or sleeps. Ends also by its cancellation. */
    class stay {
      public:
        explicit stay(waiters &all) : all_(all) {
            all_.waiting_++;
            all_.publish();
        }
        ~stay() {
            all_.waiting_--;
            if (all_.woken_ > 0)
                all_.woken_--;
            all_.publish();
        }
        stay(const stay &) = delete;
        stay &operator=(const stay &) = delete;

        /* 0, or why it ended without a signal. */
        int sleep(std::int64_t timeout) {
            return timeout < 0 ? pthread_cond_wait(&all_.condition_, &all_.mutex_)
                               : cond_timedwait(&all_.condition_, &all_.mutex_, timeout);
        }

      private:
        waiters &all_;
    };

  private:
    void publish() { sleepers_.store(waiting_ - woken_, std::memory_order_seq_cst); }

    pthread_cond_t &condition_;
    pthread_mutex_t &mutex_;
    std::uint64_t waiting_ = 0;
    std::uint64_t woken_ = 0; /* of those, signalled and not back yet */
    std::atomic<std::uint64_t> sleepers_ = 0;
};

/* What queue_new() really makes, at the start of a cache line, which keeps the two locks, and what
 * each side remembers, in lines of their own.
 *
 * Each side remembers what it saw of the ring when it last changed it. The other side can only have
 * made it better since, so the count need not be asked again. */
struct alignas(64) guarded_queue : ring_queue {
    waiters poppers{not_empty, rd_lock};
    waiters pushers{not_full, wr_lock};
    void *block = nullptr;               // as allocated
    alignas(64) std::uint64_t stock = 0; // items at least; under rd_lock
    alignas(64) std::uint64_t room = 0;  // vacant slots at least; under wr_lock
};

guarded_queue &guarded(ring_queue &queue) {
    return static_cast<guarded_queue &>(queue);
}

std::atomic_ref<std::uint64_t> count_of(const ring_queue &queue) {
    return std::atomic_ref(queue.fifo->count);
}

bool is_full(const ring_queue &queue) {
    return count_of(queue).load(std::memory_order_seq_cst) == queue.fifo->capacity;
}

bool is_empty(const ring_queue &queue) {
    return count_of(queue).load(std::memory_order_seq_cst) == 0;
}

/* Waits while `stuck`: for ever, or once. Returns whether it is stuck no more. */
template <class Stuck>
bool wait_while(waiters &side, std::int64_t timeout, const Stuck &stuck) {
    while (stuck()) {
        if (timeout == 0)
            return false;
        waiters::stay stay(side);
        if (!stuck())
            return true;
        const int error = stay.sleep(timeout);
        if (timeout < 0)
            continue;
        return error == 0 && !stuck();
    }
    return true;
}

/* Where the ring may grow, a full one does. */
bool full_after_growth(ring_queue &queue) {
    while (is_full(queue)) {
        if (queue.fifo->expandable != 1)
            return true;
        const mutex_lock lock(queue.rd_lock);
        fifo_expand(queue.fifo);
    }
    return false;
}

int push_locked(ring_queue &queue, void **item, std::int64_t timeout, std::va_list ap) {
    guarded_queue &self = guarded(queue);
    if (self.room == 0 &&
        !wait_while(self.pushers, timeout, [&] { return full_after_growth(queue); }))
        return -1;
    fifo &ring = *queue.fifo;
    ring.write(&ring.slots[ring.wr], item, ring.slot_size, ap);
    ring.wr = ring.wr + 1 == ring.capacity ? 0 : ring.wr + 1;
    const std::uint64_t before = count_of(queue).fetch_add(1, std::memory_order_seq_cst);
    self.room = ring.capacity - (before + 1);
    return 0;
}

int pop_locked(ring_queue &queue, void **out, std::int64_t timeout, std::va_list ap) {
    fifo &ring = *queue.fifo;
    if (ring.slot_size != 0 && *out == nullptr)
        return -1;
    guarded_queue &self = guarded(queue);
    if (self.stock == 0 && !wait_while(self.poppers, timeout, [&] { return is_empty(queue); }))
        return -1;
    ring.read(out, &ring.slots[ring.rd], ring.slot_size, ap);
    ring.rd = ring.rd + 1 == ring.capacity ? 0 : ring.rd + 1;
    const std::uint64_t before = count_of(queue).fetch_sub(1, std::memory_order_seq_cst);
    self.stock = before - 1;
    return 0;
}

/* For whoever has taken an item or put one in, once it holds no lock: the two sides' locks would
 * otherwise be taken in either order. Returns `result`. */
int wake_after(int result, waiters &side) {
    if (result == 0 && side.any())
        side.wake_one();
    return result;
}

/* For whoever may have changed the ring as a whole. */
void look_again(guarded_queue &queue) {
    queue.room = 0;
    queue.stock = 0;
}

guarded_queue *new_guarded_queue() {
    std::size_t space = sizeof(guarded_queue) + alignof(guarded_queue);
    void *const block = xcalloc(0, space);
    void *aligned = block;
    auto *queue = new (std::align(alignof(guarded_queue), sizeof(guarded_queue), aligned, space))
        guarded_queue{};
    queue->block = block;
    return queue;
}

/* Initialises what a queue waits with, or destroys again what it had made. */
bool make_locks(ring_queue &queue) {
    if (pthread_cond_init(&queue.not_empty, nullptr) != 0)
        return false;
    if (pthread_cond_init(&queue.not_full, nullptr) == 0) {
        if (pthread_mutex_init(&queue.rd_lock, nullptr) == 0) {
            if (pthread_mutex_init(&queue.wr_lock, nullptr) == 0)
                return true;
            pthread_mutex_destroy(&queue.rd_lock);
        }
        pthread_cond_destroy(&queue.not_full);
    }
    pthread_cond_destroy(&queue.not_empty);
    return false;
}

} // namespace

ring_queue *queue_new(const ring_queue_param *param) {
    if (param == nullptr)
        return nullptr;
    ring_queue *queue = new_guarded_queue();
    if (!make_locks(*queue)) {
        xfree(0, guarded(*queue).block);
        return nullptr;
    }
    queue->fifo = fifo_new(param->nslots, param->expandable, param->step, param->max);
    fifo_slots_resize(queue->fifo, param->slot_size);
    queue->del = queue_del;
    queue->pop = queue_pop;
    queue->push = queue_push;
    queue->lock = queue_lock;
    queue->unlock = queue_unlock;
    queue->slots_resize = queue_slots_resize;
    return queue;
}

int queue_del(ring_queue *queue) {
    if (queue == nullptr)
        return -1;
    bool failed = fifo_slots_resize(queue->fifo, 0) != 0;
    failed |= fifo_del(queue->fifo) != 0;
    failed |= pthread_cond_destroy(&queue->not_empty) != 0;
    failed |= pthread_cond_destroy(&queue->not_full) != 0;
    failed |= pthread_mutex_destroy(&queue->rd_lock) != 0;
    failed |= pthread_mutex_destroy(&queue->wr_lock) != 0;
    xfree(0, guarded(*queue).block);
    return failed ? -1 : 0;
}

int queue_push(ring_queue *queue, void **item, std::int64_t timeout, ...) {
    if (queue == nullptr || item == nullptr || *item == nullptr || timeout < -1)
        return -1;
    int result = -1;
    std::va_list ap;
    va_start(ap, timeout);
    {
        const mutex_lock lock(queue->wr_lock);
        result = push_locked(*queue, item, timeout, ap);
    }
    va_end(ap);
    return wake_after(result, guarded(*queue).poppers);
}

int queue_pop(ring_queue *queue, void **out, std::int64_t timeout, ...) {
    if (queue == nullptr || out == nullptr || timeout < -1)
        return -1;
    int result = -1;
    std::va_list ap;
    va_start(ap, timeout);
    {
        const mutex_lock lock(queue->rd_lock);
        result = pop_locked(*queue, out, timeout, ap);
    }
    va_end(ap);
    return wake_after(result, guarded(*queue).pushers);
}

int keel::pop_leaving_lock(ring_queue &queue, void **out, std::int64_t timeout, ...) {
    std::va_list ap;
    va_start(ap, timeout);
    Pthread_mutex_lock(&queue.rd_lock);
    const int result = pop_locked(queue, out, timeout, ap);
    Pthread_mutex_unlock(&queue.rd_lock);
    va_end(ap);
    return wake_after(result, guarded(queue).pushers);
}

/* A push that grows the ring takes the locks in the other order. So this never sleeps for the
 * second lock with the first one in its hands. */
int queue_lock(ring_queue *queue) {
    if (queue == nullptr)
        return -1;
    for (;;) {
        Pthread_mutex_lock(&queue->rd_lock);
        if (Pthread_mutex_trylock(&queue->wr_lock) == 0) {
            look_again(guarded(*queue));
            return 0;
        }
        Pthread_mutex_unlock(&queue->rd_lock);
        const mutex_lock until_released(queue->wr_lock);
    }
}

/* In the order of locking, on purpose: the pops go on first. */
int queue_unlock(ring_queue *queue) {
    if (queue == nullptr)
        return -1;
    Pthread_mutex_unlock(&queue->rd_lock);
    Pthread_mutex_unlock(&queue->wr_lock);
    return 0;
}

int queue_slots_resize(ring_queue *queue, std::uint64_t size) {
    if (queue == nullptr)
        return -1;
    look_again(guarded(*queue));
    return fifo_slots_resize(queue->fifo, size);
}

int is2power32(std::uint32_t x) {
    return std::has_single_bit(x) ? 1 : 0;
}
