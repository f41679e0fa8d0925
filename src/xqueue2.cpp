/* SPDX-License-Identifier: MIT */
#include "xqueue2.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "mutex_lock.h"
#include "xwrap.h"

namespace {

using keel::mutex_lock;

constexpr std::int64_t without_limit = -1;
constexpr std::int64_t without_waiting = 0;

/* Takes one unit. Returns 0; -1 when there was none in time. */
int take(sem_t *units, std::int64_t timeout) {
    if (timeout < 0)
        return Sem_wait(units);
    return timeout == 0 ? Sem_trywait(units) : Sem_timedwait(units, timeout);
}

void fill(blocking_queue_slot &slot, const void *data, std::size_t len) {
    if (slot.cap < len) {
        slot.cap = len;
        slot.buf = Realloc(slot.buf, len);
    }
    slot.len = len;
    if (len > 0)
        std::memcpy(slot.buf, data, len);
}

} // namespace

int queue_init(blocking_queue *queue, std::uint64_t n) {
    if (queue == nullptr)
        return -1;
    const auto most = static_cast<std::uint64_t>(Sysconf(_SC_SEM_VALUE_MAX));
    queue->size = std::min(n > 1 ? n : 2, most);
    queue->slots =
        static_cast<blocking_queue_slot *>(Calloc(queue->size, sizeof(blocking_queue_slot)));
    queue->wr = 0;
    queue->rd = 0;
    Sem_init(&queue->vacant, 0, static_cast<unsigned>(queue->size));
    Sem_init(&queue->filled, 0, 0);
    Pthread_mutex_init(&queue->wr_lock, nullptr);
    return Pthread_mutex_init(&queue->rd_lock, nullptr);
}

int queue_destroy(blocking_queue *queue) {
    if (queue == nullptr)
        return -1;
    for (std::uint64_t i = 0; i < queue->size; i++)
        std::free(queue->slots[i].buf);
    std::free(queue->slots);
    Sem_destroy(&queue->vacant);
    Sem_destroy(&queue->filled);
    Pthread_mutex_destroy(&queue->wr_lock);
    return Pthread_mutex_destroy(&queue->rd_lock);
}

int queue_push(blocking_queue *queue, const void *data, std::size_t len, std::int64_t timeout) {
    if (queue == nullptr || (data == nullptr && len > 0) || take(&queue->vacant, timeout) != 0)
        return -1;
    {
        const mutex_lock lock(queue->wr_lock);
        fill(queue->slots[queue->wr], data, len);
        queue->wr = (queue->wr + 1) % queue->size;
    }
    Sem_post(&queue->filled);
    return 0;
}

int queue_put(blocking_queue *queue, const void *data, std::size_t len) {
    return queue_push(queue, data, len, without_limit);
}

int queue_tryput(blocking_queue *queue, const void *data, std::size_t len) {
    return queue_push(queue, data, len, without_waiting);
}

int queue_timedput(blocking_queue *queue, const void *data, std::size_t len, std::int64_t timeout) {
    return queue_push(queue, data, len, timeout);
}

ssize_t queue_pop(blocking_queue *queue, void *buf, std::size_t bufsize, std::int64_t timeout) {
    if (queue == nullptr || take(&queue->filled, timeout) != 0)
        return -1;
    if (buf == nullptr)
        bufsize = 0;
    std::size_t len = 0;
    {
        const mutex_lock lock(queue->rd_lock);
        const blocking_queue_slot &slot = queue->slots[queue->rd];
        len = slot.len;
        if (len > bufsize) {
            Sem_post(&queue->filled);
            errno = ENOBUFS;
            return -1;
        }
        if (len > 0)
            std::memcpy(buf, slot.buf, len);
        queue->rd = (queue->rd + 1) % queue->size;
    }
    Sem_post(&queue->vacant);
    return static_cast<ssize_t>(len);
}

ssize_t queue_get(blocking_queue *queue, void *buf, std::size_t bufsize) {
    return queue_pop(queue, buf, bufsize, without_limit);
}

ssize_t queue_tryget(blocking_queue *queue, void *buf, std::size_t bufsize) {
    return queue_pop(queue, buf, bufsize, without_waiting);
}

ssize_t queue_timedget(blocking_queue *queue, void *buf, std::size_t bufsize,
                       std::int64_t timeout) {
    return queue_pop(queue, buf, bufsize, timeout);
}

int queue_size(blocking_queue *queue) {
    int waiting = -1;
    if (queue != nullptr)
        sem_getvalue(&queue->filled, &waiting);
    return waiting;
}
