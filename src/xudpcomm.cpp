/* SPDX-License-Identifier: MIT */
#include "xudpcomm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <memory>
#include <sys/select.h>

#include "announce.h"
#include "cancel_shield.h"
#include "ending.h"
#include "handles.h"
#include "mutex_lock.h"
#include "xmemory.h"
#include "xthread_util.h"
#include "xwrap.h"

namespace {

using keel::announce;
using keel::mutex_lock;

/* What udpcomm_open() really makes. A thread that has ended must not be cancelled: once it is
 * detached, nothing of it is left. */
struct endpoint : udpcomm {
    pthread_mutex_t stage; // guards the rest
    bool running;          // the receiving thread, since it was started
    bool joinable;         // there is one to join or to detach
    bool closing;          // it is being cancelled
};

endpoint &whole(udpcomm &u) {
    return static_cast<endpoint &>(u);
}

void *const failed = reinterpret_cast<void *>(-1); // NOLINT: the thread's exit value

/* The thread ends. False where it is being cancelled at that very moment, and waited for. */
bool leave(endpoint &self) {
    const mutex_lock lock(self.stage);
    self.running = false;
    return !self.closing;
}

/* Posts when the thread unwinds from here, as it does when it is cancelled, and not when it leaves
 * by itself: whoever closes the endpoint waits for that. */
class cleanup {
  public:
    explicit cleanup(endpoint &self) : self_(&self) {}
    ~cleanup() {
        if (self_ == nullptr)
            return;
        leave(*self_);
        sem_post(&self_->done);
    }
    cleanup(const cleanup &) = delete;
    cleanup &operator=(const cleanup &) = delete;

    void unregister() { self_ = nullptr; }

  private:
    endpoint *self_;
};

/* A set of one descriptor for pselect(), whatever its number: an fd_set ends at 1023. */
class descriptor_set {
  public:
    explicit descriptor_set(int descriptor)
        : word_(static_cast<std::size_t>(descriptor) / NFDBITS),
          bit_(fd_mask{1} << (descriptor % NFDBITS)),
          words_(static_cast<fd_mask *>(xcalloc(0, (word_ + 1) * sizeof(fd_mask)))) {}

    fd_set *filled() {
        words_[word_] = bit_;
        return reinterpret_cast<fd_set *>(words_.get());
    }
    bool is_filled() const { return (words_[word_] & bit_) != 0; }

  private:
    std::size_t word_;
    fd_mask bit_;
    std::unique_ptr<fd_mask[], keel::free_block> words_;
};

/* The receiving thread's work. */
class receiver {
  public:
    explicit receiver(udpcomm &u)
        : u_(u), descriptor_(u.sock->fd), readable_(descriptor_), exceptional_(descriptor_) {
        sigfillset(&all_signals_);
    }

    /* Waits a second at most and hands on what has arrived. False where that went wrong. No signal
     * handler interrupts the wait, but for the one by which the C library tells all threads of new
     * user and group ids. */
    bool pass() {
        constexpr timespec second = {1, 0};
        int ready = pselect(descriptor_ + 1, readable_.filled(), nullptr, exceptional_.filled(),
                            &second, &all_signals_);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            return true;
        if (ready < 0) {
            announce(stdout, "Select error!\n");
            return false;
        }
        if (readable_.is_filled()) {
            if (!receive_all())
                return false;
            ready--;
        }
        if (exceptional_.is_filled()) {
            announce(stdout, "Socket exception happened!\n");
            ready--;
        }
        if (ready > 0)
            announce(stdout, "nready is still > 0, unknown fd is set!\n");
        return true;
    }

  private:
    /* The datagram that was announced, and those that wait behind it: they cost no further wait. */
    bool receive_all() {
        constexpr int most = 64;
        ssize_t size = receive(0);
        for (int taken = 1; size >= 0 && taken < most; taken++)
            size = receive(MSG_DONTWAIT);
        if (size >= 0 || size == nothing_waits)
            return true;
        announce(stdout, "Recv error!\n");
        return false;
    }

    /* Takes one datagram. Its size, -1, or that none waits: then the last sender stays. */
    ssize_t receive(int flags) {
        xsockaddr sender{};
        auto length = static_cast<socklen_t>(socket_len(&u_.local.sa));
        const ssize_t size =
            recvfrom(descriptor_, data_, sizeof data_ - 1, flags, &sender.sa, &length);
        if (size == -1 && flags == MSG_DONTWAIT && is_for_the_next_wait(errno))
            return nothing_waits;
        u_.peer = sender;
        if (size == 0)
            announce(stdout, "Recv end!\n");
        if (size > 0)
            hand_on(static_cast<std::size_t>(size));
        return size;
    }

    /* What the descriptor has become, in the callback or elsewhere, the next wait will see. */
    static bool is_for_the_next_wait(int error) {
        return error == EAGAIN || error == EBADF || error == ENOTSOCK;
    }

    void hand_on(std::size_t size) {
        data_[size] = '\0';
        u_.recv_count++;
        u_.recv_bytes += size;
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &u_.peer.in.sin_addr, text, sizeof text);
        announce(stdout, "Recv message from %s:%d\n", text, ntohs(u_.peer.in.sin_port));
        u_.on_recv(&u_, data_, size, &u_.peer.sa);
    }

    static constexpr ssize_t nothing_waits = -2;

    udpcomm &u_;
    int descriptor_;
    descriptor_set readable_;
    descriptor_set exceptional_;
    sigset_t all_signals_{};
    char data_[4096];
};

void *udpcomm_proc(void *self_) {
    endpoint &self = *static_cast<endpoint *>(self_);
    cleanup handler(self);
    receiver receiving(self);
    while (receiving.pass()) {
    }
    if (leave(self))
        handler.unregister();
    return failed;
}

void cancel(endpoint &self) {
    const mutex_lock lock(self.stage);
    self.closing = true;
    if (self.running)
        pthread_cancel(self.thread);
}

} // namespace

udpcomm *udpcomm_open(int family, const char *ip, unsigned short port) {
    auto *u = static_cast<endpoint *>(xcalloc(0, sizeof(endpoint)));
    u->sock = socket_open(family, SOCK_DGRAM, 0);
    if (u->sock == nullptr)
        keel::end_process(1);
    socket_addr(&u->local.sa, family, ip, port);
    if (bind(u->sock->fd, &u->local.sa, static_cast<socklen_t>(socket_len(&u->local.sa))) == -1)
        announce(stdout, "Bind error!\n");
    Pthread_mutex_init(&u->lock, nullptr);
    Pthread_mutex_init(&u->stage, nullptr);
    attr_init(&u->attr, 0, 1);
    Sem_init(&u->done, 0, 0);
    return u;
}

int udpcomm_start(udpcomm *u, udpcomm_callback on_recv, void *arg) {
    if (u == nullptr || on_recv == nullptr)
        return -1;
    endpoint &self = whole(*u);
    const keel::cancel_shield shield;
    const mutex_lock lock(self.stage);
    if (!self.running) {
        if (self.joinable)
            pthread_join(self.thread, nullptr);
        udpcomm_switch(u, 1);
        self.on_recv = on_recv;
        self.arg = arg;
        self.running = pthread_create(&self.thread, &self.attr, udpcomm_proc, &self) == 0;
        self.joinable = self.running;
        if (self.running)
            return 0;
    }
    announce(stdout, "Start error!\n");
    return -1;
}

int udpcomm_send(udpcomm *u, const void *buffer, std::size_t length, const sockaddr *to) {
    if (u == nullptr)
        return -1;
    const mutex_lock lock(u->lock);
    if (u->enabled != 1)
        return -1;
    const auto sent = static_cast<int>(
        sendto(u->sock->fd, buffer, length, 0, to, static_cast<socklen_t>(socket_len(to))));
    if (sent >= 0 && static_cast<std::size_t>(sent) == length) {
        u->send_count++;
        u->send_bytes += length;
        return sent;
    }
    const int reason = errno;
    const auto *text = buffer == nullptr ? "" : static_cast<const char *>(buffer);
    announce(stdout, "len = %zu, nbytes = %d, buf = %.*s\n", length, sent,
             static_cast<int>(std::min<std::size_t>(length, INT_MAX)), text);
    errno = reason;
    keel::explain("Send error");
    return sent;
}

int udpcomm_switch(udpcomm *u, int on) {
    if (u == nullptr)
        return -1;
    Pthread_mutex_lock(&u->lock);
    u->enabled = on;
    return Pthread_mutex_unlock(&u->lock);
}

int udpcomm_detach(udpcomm *u) {
    if (u == nullptr)
        return -1;
    endpoint &self = whole(*u);
    const mutex_lock lock(self.stage);
    if (!self.joinable)
        return EINVAL;
    self.joinable = false;
    return pthread_detach(self.thread);
}

int udpcomm_close(udpcomm *u) {
    if (u == nullptr)
        return -1;
    const keel::cancel_shield shield; // else what is left here would be lost
    endpoint &self = whole(*u);
    cancel(self);
    Sem_wait(&self.done);
    if (self.joinable)
        pthread_join(self.thread, nullptr);
    Pthread_mutex_destroy(&self.stage);
    Pthread_mutex_destroy(&self.lock);
    pthread_attr_destroy(&self.attr);
    Sem_destroy(&self.done);
    if (socket_close(self.sock) == -1)
        xfree(0, self.sock);
    xfree(0, &self);
    return 0;
}
