/* SPDX-License-Identifier: MIT */
#include "allocations.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <vector>

#include "memory_sweep.h"
#include "timers.h"
#include "udp.h"
#include "waiting.h"
#include "workers.h"
#include "xfifo.h"
#include "xid.h"
#include "xnet.h"
#include "xpool.h"
#include "xqueue.h"
#include "xqueue2.h"
#include "xsocket.h"
#include "xthread.h"
#include "xtime.h"
#include "xudpcomm.h"

namespace keel_test {

namespace {

child_result no_memory_after(const std::string &messages) {
    return exited(255, messages + no_memory.err);
}

/* ---- Queues ---------------------------------------------------------------------------------- */

constexpr ring_queue_param pointers = {1, 0, 1, 2, 4};
constexpr ring_queue_param numbers_of_8_bytes = {1, 8, 1, 2, 4};
constexpr fifo_slot_function plain_copy = nullptr;

void take_from_full_fifo(trial &memory) {
    fifo *ring = fifo_new(1, 1, 2, 3);
    fifo_slots_resize(ring, 8);
    ring->count = ring->capacity;
    memory.of([&] { return fifo_expand(ring); });
    memory.expect(ring->capacity == 3);
    fifo_slots_resize(ring, 0);
    fifo_del(ring);
}

/* A push that has the ring grow, pointers and sized items alike. */
void push_into_full_queue(trial &memory) {
    ring_queue *queue = queue_new(&numbers_of_8_bytes);
    std::uint64_t number = 5;
    void *item = &number;
    queue_push(queue, &item, 0, plain_copy);
    memory.expect(memory.of([&] { return queue_push(queue, &item, 0, plain_copy); }) == 0);
    queue_del(queue);
}

void use_queue(trial &memory) {
    ring_queue *queue = queue_new(&pointers);
    void *item = std::malloc(1);
    memory.of([&] {
        queue_push(queue, &item, 0);
        queue_pop(queue, &item, 0);
        queue_lock(queue);
        queue_unlock(queue);
        is2power32(8);
        fifo *ring = queue->fifo;
        queue_slots_resize(queue, 0);
        memory.expect(ring->capacity == 1);
        queue_del(queue);
    });
    std::free(item);
}

/* The two functions of a blocking queue that have a twin in the ring queue. */
constexpr char push_of_messages[] = "queue_push(blocking_queue*, void const*, unsigned long, long)";
constexpr char pop_of_messages[] = "queue_pop(blocking_queue*, void*, unsigned long, long)";

sweep_row puts(const char *function, const std::function<int(blocking_queue *)> &put) {
    return sweep_row({function}, {named("realloc")},
                     [=](trial &memory) {
                         blocking_queue queue;
                         queue_init(&queue, 2);
                         memory.expect(memory.of([&] { return put(&queue); }) == 0);
                         memory.of([&] { return put(&queue); });
                         queue_destroy(&queue);
                     })
        .where("blocking");
}

void take_messages(trial &memory) {
    blocking_queue queue;
    queue_init(&queue, 4);
    for (int message = 0; message < 4; message++)
        queue_put(&queue, "text", 5);
    memory.of([&] {
        char text[8];
        queue_get(&queue, text, sizeof text);
        queue_tryget(&queue, text, sizeof text);
        queue_timedget(&queue, text, sizeof text, 0);
        queue_pop(&queue, text, sizeof text, 0);
        queue_put(&queue, "more", 5); // into a slot that was used
        memory.expect(queue_size(&queue) == 1);
        queue_destroy(&queue);
    });
}

std::vector<sweep_row> rows_of_queues() {
    return {
        {{"fifo_new"},
         {no_memory},
         [](trial &memory) { fifo_del(memory.of([] { return fifo_new(4, 0, 0, 0); })); }},
        {{"fifo_expand"}, {no_memory}, take_from_full_fifo},
        {{"fifo_slots_resize"},
         {no_memory},
         [](trial &memory) {
             fifo *ring = fifo_new(2, 0, 0, 0);
             memory.of([&] { return fifo_slots_resize(ring, 8); });
             fifo_slots_resize(ring, 0);
             fifo_del(ring);
         }},
        {{"fifo_slot_rdwr", "fifo_del"},
         {},
         [](trial &memory) {
             fifo *ring = fifo_new(2, 0, 0, 0);
             memory.of([&] {
                 void *item = &item;
                 va_list none{};
                 fifo_slot_rdwr(&ring->slots[0], &item, 0, none);
                 fifo_slot_rdwr(&item, &ring->slots[0], 0, none);
                 fifo_del(ring);
             });
         }},
        {{"queue_new"},
         {no_memory},
         [](trial &memory) {
             queue_del(memory.of([] { return queue_new(&numbers_of_8_bytes); }));
         }},
        sweep_row({"queue_push"}, {no_memory}, push_into_full_queue).where("growing"),
        {{"queue_slots_resize"},
         {no_memory},
         [](trial &memory) {
             ring_queue *queue = queue_new(&pointers);
             memory.of([&] { return queue_slots_resize(queue, 8); });
             queue_del(queue);
         }},
        {{"queue_push", "queue_pop", "queue_lock", "queue_unlock", "queue_slots_resize",
          "queue_del", "is2power32"},
         {},
         use_queue},
        {{"queue_init"},
         {named("calloc")},
         [](trial &memory) {
             blocking_queue queue;
             memory.of([&] { return queue_init(&queue, 4); });
             queue_destroy(&queue);
         }},
        puts("queue_put", [](blocking_queue *queue) { return queue_put(queue, "text", 5); }),
        puts("queue_tryput", [](blocking_queue *queue) { return queue_tryput(queue, "text", 5); }),
        puts("queue_timedput",
             [](blocking_queue *queue) { return queue_timedput(queue, "text", 5, 1); }),
        puts(push_of_messages,
             [](blocking_queue *queue) { return queue_push(queue, "text", 5, 1); }),
        {{"queue_get", "queue_tryget", "queue_timedget", pop_of_messages, "queue_size",
          "queue_destroy"},
         {},
         take_messages},
    };
}

/* ---- Threads --------------------------------------------------------------------------------- */

/* The C library loads what it cancels threads with when it first cancels one, and ends the process
 * where it cannot; and time zones when they are first asked for. The thread has a stack of its own,
 * as that of another would be used again, which takes no memory. */
void load_cancellation() {
    static char stack[1 << 18];
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, sizeof stack);
    pthread_t thread{};
    semaphore reached;
    pthread_create(&thread, &attributes, wait_for_more, &reached);
    reached.wait();
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    tzset();
}

/* It can be started when there is memory again. */
void start_thread(trial &memory) {
    thread *self = thread_new(0);
    const int started = memory.everywhere([&] { return thread_start(self, give_back, number(5)); });
    memory.expect(memory.failed() ? started == EAGAIN || started == ENOMEM : started == 0);
    memory.expect(started == 0 || thread_start(self, give_back, number(5)) == 0);
    void *given = nullptr;
    memory.expect(thread_join(self, &given) == 0 && given == number(5));
    thread_del(self);
}

/* All that happens to a thread but its start. */
void live_and_die(trial &memory) {
    load_cancellation();
    const auto exit_at_once = [](void *self) -> void * {
        thread_exit(static_cast<thread *>(self), nullptr);
    };
    thread *cancelled = thread_new(1);
    thread *joined = thread_new(0);
    thread *detached = thread_new(0);
    semaphore reached;
    thread_start(cancelled, wait_for_more, &reached);
    thread_start(detached, wait_for_more, &reached);
    reached.wait(2);
    memory.everywhere([&] {
        thread_trystop(cancelled);
        thread_stop(cancelled);
        thread_del(cancelled);
        thread_detach(detached);
        thread_stop(detached);
        thread_del(detached);
    });
    thread_start(joined, exit_at_once, joined);
    memory.everywhere([&] { return thread_join(joined, nullptr); });
    memory.of([&] {
        sem_trywait(&joined->necrology);
        joined->state = keel_test::stopped;
        thread_necrology_to_pool(joined);
        thread_necrology_to_self(joined);
        thread_unlock(joined);
    });
    thread_del(joined);
}

const std::string no_worker = "thread_new_for_pool : error.\n";
const std::string missing = no_worker + "threadpool_new : error.\n";
const std::string not_more = no_worker + "thread_run_for_pool : error.\n";

void make_pool(trial &memory) {
    load_cancellation();
    threadpool *workers = memory.of([] { return threadpool_new(6, 12, 2, 4, 16); });
    semaphore done;
    memory.expect(threadpool_exec(workers, post_task, &done) == 0);
    done.wait();
    memory.expect(threadpool_del(workers) == 0);
}

/* A worker that finds too few of its kind idle adds two. */
void have_pool_grow(trial &memory) {
    load_cancellation();
    std::array<gate, 5> gates;
    threadpool *workers = threadpool_new(6, 12, 16, 4, 16);
    pool_watch watch(workers);
    memory.expect(watch.settles(6));
    watch.hold_each(gates);
    semaphore done;
    memory.everywhere([&] {
        threadpool_exec(workers, post_task, &done);
        while (!watch.locked([&] { return workers->pool.total == 8; }))
            sched_yield();
    });
    done.wait();
    for (gate &at : gates)
        at.open();
    memory.expect(threadpool_del(workers) == 0);
}

/* All workers of a pool, at the gates. */
template <std::size_t Count>
void hold_all(threadpool *workers, std::array<gate, Count> &gates) {
    pool_watch watch(workers);
    watch.settles(Count);
    watch.hold_each(gates);
}

void fill_pool(trial &memory) {
    load_cancellation();
    std::array<gate, 6> gates;
    threadpool *workers = threadpool_new(6, 6, 1, 4, 16);
    hold_all(workers, gates);
    memory.of([&] {
        for (int task = 0; task < 3; task++)
            memory.expect(threadpool_exec(workers, give_back, nullptr) == 0);
    });
    for (gate &at : gates)
        at.open();
    threadpool_del(workers);
}

std::vector<sweep_row> rows_of_threads() {
    return {
        {{"pool_create", "pool_resize"},
         {},
         [](trial &memory) {
             memory.of([] {
                 pool sizes;
                 pool_create(&sizes, 6, 12);
                 pool_resize(&sizes);
             });
         }},
        {{"thread_new"},
         {no_memory},
         [](trial &memory) { thread_del(memory.of([] { return thread_new(1); })); }},
        sweep_row({"thread_start", "thread_proc"}, {returns}, start_thread).with_threads(),
        sweep_row({"thread_stop", "thread_trystop", "thread_exit", "thread_del", "thread_detach",
                   "thread_join", "thread_necrology_to_self", "thread_necrology_to_pool",
                   "thread_unlock"},
                  {}, live_and_die)
            .with_threads(),
        sweep_row(
            {"threadpool_new"},
            {no_memory, named("threadpool_new"), returns_after(missing), no_memory_after(missing)},
            make_pool)
            .with_threads(),
        sweep_row({"thread_run_for_pool", "thread_new_for_pool"},
                  {no_memory, named("thread_run_for_pool"), returns_after(not_more),
                   no_memory_after(not_more)},
                  have_pool_grow)
            .with_threads(),
        sweep_row({"threadpool_exec"}, {no_memory}, fill_pool).with_threads(),
        sweep_row({"threadpool_del", "thread_del_for_pool", "thread_exit_for_pool"}, {},
                  [](trial &memory) {
                      load_cancellation();
                      threadpool *workers = threadpool_new(6, 6, 1, 4, 16);
                      pool_watch watch(workers);
                      watch.settles(6);
                      memory.everywhere([&] {
                          threadpool_exec(workers, thread_exit_for_pool, nullptr);
                          while (watch.deaths() == 0)
                              sched_yield();
                          threadpool_del(workers);
                      });
                  })
            .with_threads(),
    };
}

/* ---- Timers ---------------------------------------------------------------------------------- */

void make_timer(trial &memory) {
    load_cancellation();
    timer *made = memory.of([] { return timer_new(); });
    memory.expect(made != nullptr || memory.failed());
    if (made != nullptr)
        timer_del(made);
}

/* A timer with its workers held, which no task of an hour reaches. */
void on_held_timer(trial &memory, const std::function<void(owned_timer &)> &body) {
    load_cancellation();
    std::array<gate, 10> gates;
    owned_timer clock;
    hold_all(clock->pool, gates);
    body(clock);
    for (gate &at : gates)
        at.open();
    memory.expect(clock.del() == 0);
}

/* More runs at once than its pool's queue has room for at first. */
void fire(trial &memory) {
    on_held_timer(memory, [&](owned_timer &clock) {
        for (int task = 0; task < 101; task++)
            timer_start(clock.get(), give_back, nullptr, hour);
        memory.everywhere([&] {
            clock.make_all_due();
            while (clock.count() > 0)
                sched_yield();
        });
    });
}

void execute(trial &memory) {
    on_held_timer(memory, [&](owned_timer &clock) {
        memory.of([&] {
            for (int task = 0; task < 101; task++)
                timer_exec(clock.get(), give_back, nullptr);
        });
    });
}

template <class Schedule>
void schedule(trial &memory, Schedule schedule) {
    load_cancellation();
    owned_timer clock;
    const int id = memory.of([&] { return schedule(clock.get()); });
    memory.expect(id == 0 && clock.is_sound());
}

std::vector<sweep_row> rows_of_timers() {
    return {
        sweep_row({"timer_new"},
                  {no_memory, named("threadpool_new"), no_memory_after(missing),
                   exited(1, id_warning + named("timer_new").err), returns_after(id_warning),
                   returns_after(missing + id_warning)},
                  make_timer)
            .ends(returns_after(id_warning))
            .with_threads(),
        sweep_row({"timer_schedule"}, {no_memory, named("timer_schedule")},
                  [](trial &memory) {
                      schedule(memory, [](timer *clock) {
                          return timer_schedule(clock, give_back, nullptr, hour, -1, 1);
                      });
                  })
            .with_threads(),
        sweep_row({"timer_start"}, {no_memory, named("timer_schedule")},
                  [](trial &memory) {
                      schedule(memory, [](timer *clock) {
                          return timer_start(clock, give_back, nullptr, hour);
                      });
                  })
            .with_threads(),
        sweep_row({"timer_exec"}, {no_memory}, execute).with_threads(),
        sweep_row({"timer_run"}, {no_memory}, fire).with_threads(),
        sweep_row({"timer_cancel", "timer_del"}, {},
                  [](trial &memory) {
                      load_cancellation();
                      timer *clock = timer_new();
                      const int id = timer_start(clock, give_back, nullptr, hour);
                      timer_start(clock, give_back, nullptr, hour);
                      memory.everywhere([&] {
                          timer_cancel(clock, id);
                          timer_del(clock);
                      });
                  })
            .with_threads(),
        {{"timertask_new"},
         {no_memory},
         [](trial &memory) {
             timer without_thread{};
             without_thread.ids = idproducer_new(0, nullptr);
             timertask *task = memory.of(
                 [&] { return timertask_new(&without_thread, give_back, nullptr, hour, 1, 0); });
             timertask_del(&task);
             idproducer_del(without_thread.ids);
         }},
        {{"timertask_del", "timertask_sort", "timer_unlock"},
         {},
         [](trial &memory) {
             auto *task = static_cast<timertask *>(std::calloc(1, sizeof(timertask)));
             pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
             pthread_mutex_lock(&mutex);
             memory.of([&] {
                 timertask_sort(&task, &task);
                 timertask_del(&task);
                 timer_unlock(&mutex);
             });
         }},
        sweep_row({"idproducer_new"}, {no_memory},
                  [](trial &memory) {
                      idproducer_del(memory.of([] { return idproducer_new(1, nullptr); }));
                  })
            .ends(returns_after(id_warning)),
        {{"idproducer_alloc", "idproducer_free", "find_next_zero_bit", "test_and_set_bit",
          "test_and_clr_bit", "idproducer_del"},
         {},
         [](trial &memory) {
             idproducer *ids = idproducer_new(1, std::free);
             memory.of([&] {
                 idproducer_alloc(ids, nullptr);
                 idproducer_free(ids, 0, nullptr);
                 find_next_zero_bit(0, ids);
                 test_and_set_bit(5, ids);
                 test_and_clr_bit(5, ids);
                 idproducer_del(ids);
             });
         }},
    };
}

/* ---- Networks -------------------------------------------------------------------------------- */

const std::string no_device = "get_if_flags(ioctl-SIOCGIFFLAGS): No such device\n";

/* The address of a host that the machine knows by itself: or none. */
void resolve(trial &memory, const char *name) {
    unsigned address = 0;
    const int found = memory.of([&] { return hostname2addr(name, nullptr, 0, &address); });
    memory.expect(found == 0 ? address == htonl(INADDR_LOOPBACK)
                             : found == -1 && memory.failed() && address == 0);
    memory.expect(hostname2addr(name, nullptr, 0, &address) == 0);
}

/* Tells the semaphore that it is given of what has arrived. */
std::int64_t tell(udpcomm *u, char *, std::size_t, sockaddr *) {
    static_cast<semaphore *>(u->arg)->post();
    return 0;
}

/* It can be started when there is memory again. */
void start_endpoint(trial &memory) {
    load_cancellation();
    udpcomm *u = udpcomm_open(AF_INET, "127.0.0.1", 0);
    const xsockaddr self = name_of(u->sock->fd);
    semaphore arrived;
    const int started = memory.everywhere([&] {
        const int running = udpcomm_start(u, tell, &arrived);
        if (running == 0) {
            udpcomm_send(u, "hello", 5, &self.sa);
            arrived.wait();
        }
        return running;
    });
    memory.expect(started == 0 || (memory.failed() && started == -1));
    memory.expect(started == 0 || udpcomm_start(u, tell, &arrived) == 0);
    memory.expect(udpcomm_close(u) == 0);
}

void use_endpoint(trial &memory) {
    load_cancellation();
    semaphore arrived;
    udpcomm *u = udpcomm_open(AF_INET, "127.0.0.1", 0);
    udpcomm_start(u, tell, &arrived);
    const xsockaddr self = name_of(u->sock->fd);
    udpcomm_send(u, "first", 5, &self.sa);
    arrived.wait();
    memory.everywhere([&] {
        udpcomm_send(u, "hello", 5, &self.sa);
        arrived.wait();
        udpcomm_switch(u, 0);
        udpcomm_detach(u);
        udpcomm_close(u);
    });
}

std::vector<sweep_row> rows_of_networks() {
    return {
        sweep_row({"get_ifaddr", "set_ifaddr", "get_if_flags", "get_if_addr", "set_if_addr",
                   "get_if_netmask", "set_if_netmask"},
                  {},
                  [](trial &memory) {
                      memory.of([&] {
                          char text[16];
                          unsigned short flags = 0;
                          unsigned value = 0;
                          bool right = set_ifaddr("lo", "127.0.0.1") == 0;
                          right &= get_ifaddr("lo", text, sizeof text) == 0;
                          right &= get_if_flags("lo", &flags) == 0;
                          right &= get_if_addr("lo", &value) == 0;
                          right &= set_if_addr("lo", value) == 0;
                          right &= get_if_netmask("lo", &value) == 0;
                          right &= set_if_netmask("lo", value) == 0;
                          memory.expect(right);
                      });
                  })
            .in_own_network(),
        sweep_row({"get_if_flags"}, {returns_after(no_device)},
                  [](trial &memory) {
                      unsigned short flags = 0;
                      const int got = memory.of([&] { return get_if_flags("none", &flags); });
                      memory.expect(got == -1);
                  })
            .where("explained")
            .ends(returns_after(no_device)),
        sweep_row({"hostname2addr"}, {returns}, [](trial &memory) { resolve(memory, "127.0.0.1"); })
            .where("of_digits"),
        sweep_row({"hostname2addr"}, {returns}, [](trial &memory) { resolve(memory, "localhost"); })
            .with_others()
            .in_own_network(), // there is nobody else to ask
        {{"socket_open"},
         {no_memory},
         [](trial &memory) {
             socket_close(memory.of([] { return socket_open(AF_INET, SOCK_DGRAM, 0); }));
         }},
        {{"socket_addr", "socket_len", "socket_close"},
         {},
         [](trial &memory) {
             xsocket *opened = socket_open(AF_INET, SOCK_DGRAM, 0);
             memory.of([&] {
                 xsockaddr address;
                 socket_addr(&address.sa, AF_INET, "127.0.0.1", 5);
                 socket_len(&address.sa);
                 socket_close(opened);
             });
         }},
        sweep_row({"udpcomm_open"}, {no_memory},
                  [](trial &memory) {
                      load_cancellation();
                      udpcomm *u = memory.of([] { return udpcomm_open(AF_INET, "127.0.0.1", 0); });
                      semaphore arrived;
                      udpcomm_start(u, tell, &arrived);
                      udpcomm_close(u);
                  })
            .with_threads(),
        sweep_row({"udpcomm_start"}, {returns, no_memory}, start_endpoint).with_threads(),
        sweep_row({"udpcomm_send", "udpcomm_switch", "udpcomm_detach", "udpcomm_close"}, {},
                  use_endpoint)
            .with_threads(),
    };
}

} // namespace

std::vector<sweep_row> rows_of_objects() {
    return joined({rows_of_queues(), rows_of_threads(), rows_of_timers(), rows_of_networks()});
}

} // namespace keel_test
