/* SPDX-License-Identifier: MIT */
#include "xudpcomm.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

#include "allocation_faults.h"
#include "child.h"
#include "leaves_nothing.h"
#include "speechless.h"
#include "threads.h"
#include "udp.h"
#include "waiting.h"

/* The stand-ins below answer as told, and let the system answer where they are told nothing. They
 * are set while no other thread runs. */
namespace {

/* A wait, as it is asked for and as it ends. */
struct wait_call {
    int count;
    fd_set *readable;
    fd_set *writable;
    fd_set *exceptional;
    const timespec *limit;
    const sigset_t *mask;
};

struct receive_call {
    int flags;
    std::size_t size;
    socklen_t name_length;
    bool name_is_zero;
};

struct {
    std::function<int(const wait_call &)> wait;
    std::function<ssize_t(const receive_call &)> receive; // -2: the system's
    std::function<ssize_t(std::size_t size, int flags, socklen_t name_length)> send;
} stand_in;

} // namespace

extern "C" { // NOLINTBEGIN: the linker's names
int __wrap_pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                   const timespec *limit, const sigset_t *mask);
ssize_t __wrap_recvfrom(int descriptor, void *buffer, std::size_t size, int flags, sockaddr *name,
                        socklen_t *name_length);
ssize_t __wrap_sendto(int descriptor, const void *buffer, std::size_t size, int flags,
                      const sockaddr *name, socklen_t name_length);
int __real_pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                   const timespec *limit, const sigset_t *mask);
ssize_t __real_recvfrom(int descriptor, void *buffer, std::size_t size, int flags, sockaddr *name,
                        socklen_t *name_length);
ssize_t __real_sendto(int descriptor, const void *buffer, std::size_t size, int flags,
                      const sockaddr *name, socklen_t name_length);

int __wrap_pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
                   const timespec *limit, const sigset_t *mask) {
    return stand_in.wait ? stand_in.wait({count, readable, writable, exceptional, limit, mask})
                         : __real_pselect(count, readable, writable, exceptional, limit, mask);
}

ssize_t __wrap_recvfrom(int descriptor, void *buffer, std::size_t size, int flags, sockaddr *name,
                        socklen_t *name_length) {
    static constexpr xsockaddr zero{};
    if (stand_in.receive) {
        const ssize_t told = stand_in.receive(
            {flags, size, *name_length, std::memcmp(name, &zero, sizeof zero) == 0});
        if (told != -2)
            return told;
    }
    return __real_recvfrom(descriptor, buffer, size, flags, name, name_length);
}

ssize_t __wrap_sendto(int descriptor, const void *buffer, std::size_t size, int flags,
                      const sockaddr *name, socklen_t name_length) {
    return stand_in.send ? stand_in.send(size, flags, name_length)
                         : __real_sendto(descriptor, buffer, size, flags, name, name_length);
}
} // NOLINTEND

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::here;
using keel_test::home;
using keel_test::listener;
using keel_test::open_at;
using keel_test::owned_endpoint;
using keel_test::plain_socket;
using keel_test::recv_line;
using keel_test::run_in_child;
using keel_test::semaphore;
using keel_test::sent_by;
using keel_test::there;
using keel_test::traffic;
using keel_test::value_of;
using keel_test::worker;
using std::string;

/* Lets all calls through again at its end. */
template <class Base>
class Intercepted : public Base {
  protected:
    ~Intercepted() override { stand_in = {}; }
};

using UdpcommFaults = Intercepted<keel_test::LeavesNothing>;
using UdpcommCalls = Intercepted<keel_test::Speechless>;

std::int64_t ignore(udpcomm * /*u*/, char * /*data*/, std::size_t /*size*/, sockaddr * /*peer*/) {
    return 0;
}

child_result said(const string &out, const string &err = "") {
    return {0, 0, out, err};
}

int wait_really(const wait_call &call) {
    return __real_pselect(call.count, call.readable, call.writable, call.exceptional, call.limit,
                          call.mask);
}

/* Whether the set holds that descriptor and no other. */
bool holds_only(int descriptor, const fd_set *set) {
    for (int i = 0; i <= descriptor; i++)
        if ((FD_ISSET(i, set) != 0) != (i == descriptor))
            return false;
    return true;
}

/* ---- Waits --------------------------------------------------------------------------------------
 */

/* How a wait ends. */
struct answer {
    int ready;
    bool readable;
    bool exceptional;

    int give(const wait_call &call) const {
        if (!readable)
            FD_CLR(call.count - 1, call.readable);
        if (!exceptional)
            FD_CLR(call.count - 1, call.exceptional);
        errno = EBADF;
        return ready;
    }
};

/* What an endpoint prints whose waits end like this one after the other, and then as they do, while
 * as many datagrams wait as are told to be there. */
child_result run_answers(const std::deque<answer> &answers) {
    return run_in_child([&] {
        semaphore over;
        std::deque<answer> left = answers;
        stand_in.wait = [&](const wait_call &call) {
            if (left.empty()) {
                over.post();
                return wait_really(call);
            }
            const answer next = left.front();
            left.pop_front();
            return next.give(call);
        };
        const plain_socket peer(there);
        udpcomm *u = open_at(here);
        for (const answer &each : answers)
            if (each.readable && each.ready > 0)
                peer.send("x");
        const owned_endpoint started(u, ignore);
        over.wait();
    });
}

const string exception = "Socket exception happened!\n";
const string unknown = "nready is still > 0, unknown fd is set!\n";

TEST_F(UdpcommFaults, WhateverIsReadyIsCountedAndTheRestToldOf) {
    const string line = recv_line(there);
    const struct {
        answer ended;
        string told;
    } rows[] = {
        {{0, false, false}, ""},
        {{0, true, true}, ""},
        {{1, true, false}, line},
        {{1, false, true}, exception},
        {{1, false, false}, unknown},
        {{1, true, true}, line + exception},
        {{2, true, true}, line + exception},
        {{2, true, false}, line + unknown},
        {{2, false, true}, exception + unknown},
        {{2, false, false}, unknown},
        {{3, true, true}, line + exception + unknown},
    };
    for (const auto &row : rows)
        EXPECT_EQ(run_answers({row.ended}), said(row.told))
            << row.ended.ready << row.ended.readable << row.ended.exceptional;
}

TEST_F(UdpcommFaults, NothingOfOneWaitIsLeftForTheNext) {
    const string line = recv_line(there);
    EXPECT_EQ(run_answers({{1, false, true},
                           {1, false, false},
                           {0, false, false},
                           {2, true, true},
                           {1, false, false},
                           {1, false, true}}),
              said(exception + unknown + line + exception + unknown + exception));
}

TEST_F(UdpcommCalls, AWaitIsForTheSocketAloneForASecondAndWithoutSignals) {
    semaphore waited;
    udpcomm *u = open_at(here);
    stand_in.wait = [&](const wait_call &call) {
        EXPECT_EQ(call.count, u->sock->fd + 1);
        EXPECT_TRUE(holds_only(u->sock->fd, call.readable));
        EXPECT_TRUE(holds_only(u->sock->fd, call.exceptional));
        EXPECT_NE(call.readable, call.exceptional);
        EXPECT_EQ(call.writable, nullptr);
        EXPECT_EQ(call.limit->tv_sec, 1);
        EXPECT_EQ(call.limit->tv_nsec, 0);
        for (const int signal : {SIGHUP, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD, SIGRTMIN, SIGRTMAX})
            EXPECT_TRUE(sigismember(call.mask, signal)) << signal;
        waited.post();
        return wait_really(call);
    };
    const owned_endpoint started(u, ignore);
    waited.wait(3); // the time that runs out between them ends nothing
}

/* The result of the thread of an endpoint to which one datagram comes. */
void run_to_its_end() {
    const plain_socket peer(there);
    udpcomm *u = open_at(here);
    peer.send("x");
    EXPECT_EQ(udpcomm_start(u, ignore, nullptr), 0);
    void *result = nullptr;
    EXPECT_EQ(pthread_join(u->thread, &result), 0);
    EXPECT_EQ(result, reinterpret_cast<void *>(-1));
    EXPECT_EQ(value_of(u->done), 0) << "nothing was cancelled";
    const xsockaddr to = keel_test::address_of(there);
    EXPECT_EQ(udpcomm_send(u, "alive", 5, &to.sa), 5);
    EXPECT_EQ(peer.receive(), "alive");
}

TEST_F(UdpcommFaults, AnyFailureOfAWaitEndsTheThread) {
    for (const int error : {EBADF, EINVAL, ENOMEM}) {
        const auto body = [&] {
            stand_in.wait = [&](const wait_call &) {
                errno = error;
                return -1;
            };
            run_to_its_end();
        };
        EXPECT_EQ(run_in_child(body), said("Select error!\n")) << error;
    }
}

TEST_F(UdpcommCalls, ClosingOneThatEndsByItselfMeanwhileDoesNotHang) {
    for (const bool detached : {false, true}) {
        semaphore reached;
        std::atomic<bool> go = false;
        stand_in.wait = [&](const wait_call &) {
            reached.post();
            while (!go) // no place to be cancelled
                sched_yield();
            errno = EBADF;
            return -1;
        };
        udpcomm *u = open_at(here);
        ASSERT_EQ(udpcomm_start(u, ignore, nullptr), 0);
        reached.wait();
        if (detached)
            udpcomm_detach(u);
        worker closer([&] { EXPECT_EQ(udpcomm_close(u), 0); });
        EXPECT_TRUE(closer.falls_asleep());
        go = true;
    }
}

/* ---- Receipts -----------------------------------------------------------------------------------
 */

TEST_F(UdpcommCalls, AReceiptIsOf4095BytesAndFirstOfAllWithoutFlags) {
    const plain_socket peer(there);
    listener taken;
    std::vector<receive_call> calls;
    stand_in.receive = [&](const receive_call &call) {
        calls.push_back(call);
        return -2;
    };
    udpcomm *u = open_at(here);
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(peer.send("x"));
    owned_endpoint started(u, listener::take, &taken);
    taken.wait(3);
    started.close();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(calls[0].flags, 0);
    for (const receive_call &call : calls) {
        EXPECT_EQ(call.size, 4095U);
        EXPECT_EQ(call.name_length, sizeof(sockaddr_in));
        EXPECT_TRUE(call.name_is_zero);
        EXPECT_TRUE(call.flags == 0 || call.flags == MSG_DONTWAIT);
    }
}

/* Where the n-th receipt fails, the others being the system's. */
child_result fail_to_receive(int n, int error) {
    return run_in_child([&] {
        stand_in.receive = [n, error, calls = 0](const receive_call &) mutable -> ssize_t {
            if (++calls < n)
                return -2;
            errno = error;
            return -1;
        };
        run_to_its_end();
    });
}

TEST_F(UdpcommFaults, AnyFailureToReceiveEndsTheThread) {
    for (const int error : {EBADF, EAGAIN, EINTR, ECONNREFUSED, ENOMEM})
        EXPECT_EQ(fail_to_receive(1, error), said("Recv error!\n")) << error;
    for (const int error : {EINTR, ECONNREFUSED, ENOMEM})
        EXPECT_EQ(fail_to_receive(2, error), said(recv_line(there) + "Recv error!\n")) << error;
}

/* The thread looks for more than it was woken for, and finds nothing. */
TEST_F(UdpcommCalls, TheLastSenderStays) {
    const plain_socket peer(there);
    semaphore waited;
    std::vector<string> senders;
    udpcomm *u = open_at(here);
    stand_in.wait = [&](const wait_call &call) {
        senders.push_back(keel_test::text_of(u->peer));
        waited.post();
        return __real_pselect(call.count, call.readable, nullptr, call.exceptional, nullptr,
                              nullptr);
    };
    owned_endpoint started(u, ignore);
    waited.wait();
    for (const char *text : {"x", "", "x"}) {
        ASSERT_TRUE(peer.send(text));
        waited.wait();
    }
    started.close();
    const string sender = home + ":" + std::to_string(there);
    ASSERT_GE(senders.size(), 4U);
    EXPECT_EQ(senders[0], "0.0.0.0:0");
    for (std::size_t i = 1; i < senders.size(); i++)
        EXPECT_EQ(senders[i], sender) << i;
}

TEST_F(UdpcommCalls, DatagramsThatKeepComingDoNotKeepItFromWaiting) {
    constexpr int count = 200;
    const plain_socket peer(there);
    listener taken;
    std::atomic<int> waits = 0;
    stand_in.wait = [&](const wait_call &call) {
        waits++;
        return wait_really(call);
    };
    udpcomm *u = open_at(here);
    for (int i = 0; i < count; i++)
        ASSERT_TRUE(peer.send(std::to_string(i)));
    const owned_endpoint started(u, listener::take, &taken);
    taken.wait(count);
    EXPECT_GE(waits, count / 64 + 1);
    for (std::size_t i = 0; i < count; i++)
        EXPECT_EQ(taken.taken().at(i).text, std::to_string(i));
}

/* ---- Sends --------------------------------------------------------------------------------------
 */

TEST_F(UdpcommFaults, AShortSendIsToldOfAndNotCounted) {
    const auto body = [] {
        const owned_endpoint u(open_at(here), ignore);
        for (const int sent : {9, 1, 0}) {
            stand_in.send = [sent](std::size_t size, int flags, socklen_t name_length) {
                EXPECT_EQ(size, 10U);
                EXPECT_EQ(flags, 0);
                EXPECT_EQ(name_length, sizeof(sockaddr_in));
                errno = 0;
                return sent;
            };
            EXPECT_EQ(u.send("0123456789"), sent);
            EXPECT_EQ(sent_by(u.get()), traffic(0, 0));
        }
    };
    EXPECT_EQ(run_in_child(body),
              said("len = 10, nbytes = 9, buf = 0123456789\n"
                   "len = 10, nbytes = 1, buf = 0123456789\n"
                   "len = 10, nbytes = 0, buf = 0123456789\n",
                   "Send error: Success\nSend error: Success\nSend error: Success\n"));
}

/* The message in between does not change it. */
TEST_F(UdpcommFaults, AFailedSendIsExplainedByItsOwnError) {
    for (const int error : {ENOBUFS, EPERM, EINTR}) {
        const auto body = [error] {
            stand_in.send = [error](std::size_t, int, socklen_t) {
                errno = error;
                return -1;
            };
            const owned_endpoint u(open_at(here), ignore);
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            EXPECT_EQ(u.send("text"), -1);
        };
        EXPECT_EQ(run_in_child(body), said("len = 4, nbytes = -1, buf = text\n",
                                           string("Send error: ") + strerror(error) + "\n"));
    }
}

/* A send that has begun goes out, and only then is the switch turned, or the next one sent. */
TEST_F(UdpcommCalls, TheLockIsHeldForTheWholeOfASend) {
    semaphore reached;
    semaphore go;
    stand_in.send = [&](std::size_t size, int, socklen_t) {
        reached.post();
        go.wait();
        return static_cast<ssize_t>(size);
    };
    const owned_endpoint u(open_at(here), ignore);
    worker first([&] { EXPECT_EQ(u.send("first"), 5); });
    reached.wait();
    worker second([&] { u.send("second"); });
    EXPECT_TRUE(second.falls_asleep());
    worker switching([&] { EXPECT_EQ(udpcomm_switch(u.get(), 0), 0); });
    EXPECT_TRUE(switching.falls_asleep());
    EXPECT_EQ(u->enabled, 1);
    go.post();
    go.post();
    first.join();
    second.join();
    switching.join();
    EXPECT_EQ(u->enabled, 0);
}

TEST_F(UdpcommCalls, ASenderThatIsCancelledLeavesTheLock) {
    stand_in.send = [](std::size_t, int, socklen_t) -> ssize_t {
        pthread_testcancel(); // as sendto() does
        return 0;
    };
    const owned_endpoint u(open_at(here), ignore);
    EXPECT_TRUE(keel_test::run_cancelled([&] { u.send("text"); }));
    EXPECT_EQ(pthread_mutex_trylock(&u->lock), 0);
    pthread_mutex_unlock(&u->lock);
    EXPECT_EQ(sent_by(u.get()), traffic(0, 0));
}

/* ---- Memory that runs out -----------------------------------------------------------------------
 */

TEST_F(UdpcommFaults, EndsWhereverMemoryRunsOut) {
    int endings = 0;
    for (; endings < 20; endings++) {
        const child_result ending = run_in_child([endings] {
            semaphore waited;
            stand_in.wait = [&](const wait_call &call) {
                waited.post();
                return wait_really(call);
            };
            const keel_test::failing_allocation fault(endings + 1);
            const owned_endpoint u(open_at(here), ignore);
            waited.wait();
        });
        if (ending == exited(0))
            break;
        EXPECT_EQ(ending, exited(255, "No memory!!!\n")) << endings;
    }
    EXPECT_EQ(endings, 4) << "the record, that of its socket, and what its thread waits with";
}

} // namespace
