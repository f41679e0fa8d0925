/* SPDX-License-Identifier: MIT */
#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <ostream>
#include <poll.h>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "waiting.h"
#include "xudpcomm.h"

namespace keel_test {

/* A loopback address that this process has for itself, and its children: any port is free. */
inline const std::string home = "127." + std::to_string(getpid() >> 16 & 0xff) + "." +
                                std::to_string(getpid() >> 8 & 0xff) + "." +
                                std::to_string(getpid() & 0xff);

/* Below those that the system gives away by itself. */
constexpr std::uint16_t here = 21'987;
constexpr std::uint16_t there = 21'988;

inline xsockaddr address_of(std::uint16_t port, const std::string &ip = home) {
    xsockaddr address{};
    address.in.sin_family = AF_INET;
    address.in.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &address.in.sin_addr);
    return address;
}

inline std::string text_of(const xsockaddr &address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.in.sin_addr, text, sizeof text);
    return text + (":" + std::to_string(ntohs(address.in.sin_port)));
}

/* Where a socket is bound to. */
inline xsockaddr name_of(int descriptor) {
    xsockaddr name{};
    socklen_t length = sizeof name;
    getsockname(descriptor, &name.sa, &length);
    return name;
}

/* What an endpoint prints when something arrives. */
inline std::string recv_line(std::uint16_t port, const std::string &ip = home) {
    return "Recv message from " + ip + ":" + std::to_string(port) + "\n";
}

/* A socket of the system, for the other end. */
class plain_socket {
  public:
    explicit plain_socket(std::uint16_t port, const std::string &ip = home) {
        const xsockaddr name = address_of(port, ip);
        if (bind(descriptor_, &name.sa, sizeof name.in) != 0)
            throw std::runtime_error(std::string("no socket: ") + std::strerror(errno));
    }
    ~plain_socket() { close(descriptor_); }
    plain_socket(const plain_socket &) = delete;
    plain_socket &operator=(const plain_socket &) = delete;

    /* Tells whether the whole of it went out. */
    bool send(const std::string &text, const xsockaddr &to = address_of(here)) const {
        const ssize_t sent = sendto(descriptor_, text.data(), text.size(), 0, &to.sa, sizeof to.in);
        return sent == static_cast<ssize_t>(text.size());
    }

    /* What comes next, within a minute. */
    std::string receive() const {
        pollfd waiting = {descriptor_, POLLIN, 0};
        if (poll(&waiting, 1, 60'000) != 1)
            return "nothing came";
        std::string text(65'536, '\0');
        text.resize(static_cast<std::size_t>(recv(descriptor_, text.data(), text.size(), 0)));
        return text;
    }

    /* On the loopback interface, what is sent has come when the call returns. */
    bool has_nothing() const {
        pollfd waiting = {descriptor_, POLLIN, 0};
        return poll(&waiting, 1, 0) == 0;
    }

  private:
    int descriptor_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

/* {datagrams, bytes} */
using traffic = std::pair<std::uint64_t, std::uint64_t>;

/* What an endpoint hands to its callback. */
struct datagram {
    std::string text;
    std::string from;
    bool terminated = true; // by a NUL byte

    bool operator==(const datagram &) const = default;
};

inline void PrintTo(const datagram &one, std::ostream *stream) {
    *stream << one.text.size() << " bytes from " << one.from << ": " << one.text.substr(0, 80)
            << (one.terminated ? "" : ", not terminated");
}

/* Keeps what an endpoint hands on that has it for its argument. */
class listener {
  public:
    listener() { pthread_mutex_init(&mutex_, nullptr); }
    ~listener() { pthread_mutex_destroy(&mutex_); }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    static std::int64_t take(udpcomm *u, char *data, std::size_t size, sockaddr *peer) {
        static_cast<listener *>(u->arg)->add(*u, data, size, peer);
        return -1; // which nobody asks for
    }

    /* Waits until so many more have come. */
    void wait(int more = 1) { arrived_.wait(more); }

    /* Those that came up to now. */
    std::vector<datagram> taken() {
        pthread_mutex_lock(&mutex_);
        std::vector<datagram> all = taken_;
        pthread_mutex_unlock(&mutex_);
        return all;
    }

    /* What the endpoint's counters were when the last one came. */
    traffic counted() {
        pthread_mutex_lock(&mutex_);
        const traffic last = counted_;
        pthread_mutex_unlock(&mutex_);
        return last;
    }

  private:
    void add(const udpcomm &u, const char *data, std::size_t size, const sockaddr *peer) {
        xsockaddr from{};
        from.in = *reinterpret_cast<const sockaddr_in *>(peer);
        pthread_mutex_lock(&mutex_);
        taken_.push_back({std::string(data, size), text_of(from), data[size] == '\0'});
        counted_ = {u.recv_count, u.recv_bytes};
        pthread_mutex_unlock(&mutex_);
        arrived_.post();
    }

    pthread_mutex_t mutex_;
    std::vector<datagram> taken_;
    traffic counted_;
    semaphore arrived_;
};

inline udpcomm *open_at(std::uint16_t port, const std::string &ip = home) {
    return udpcomm_open(AF_INET, ip.c_str(), port);
}

/* A running endpoint that goes with its scope. */
class owned_endpoint {
  public:
    explicit owned_endpoint(udpcomm *opened, udpcomm_callback on_recv, void *arg = nullptr)
        : endpoint_(opened) {
        if (udpcomm_start(opened, on_recv, arg) != 0)
            throw std::runtime_error("no thread");
    }
    explicit owned_endpoint(listener &to, std::uint16_t port = here)
        : owned_endpoint(open_at(port), listener::take, &to) {}
    ~owned_endpoint() {
        if (endpoint_ != nullptr)
            udpcomm_close(endpoint_);
    }
    owned_endpoint(const owned_endpoint &) = delete;
    owned_endpoint &operator=(const owned_endpoint &) = delete;

    udpcomm *get() const { return endpoint_; }
    udpcomm *operator->() const { return endpoint_; }

    int send(const std::string &text, const xsockaddr &to = address_of(there)) const {
        return udpcomm_send(endpoint_, text.data(), text.size(), &to.sa);
    }

    int close() { return udpcomm_close(std::exchange(endpoint_, nullptr)); }

  private:
    udpcomm *endpoint_;
};

/* For whoever knows that nothing is being sent. */
inline traffic sent_by(const udpcomm *u) {
    return {u->send_count, u->send_bytes};
}

/* For whoever knows that nothing arrives, nor will. */
inline traffic received_by(const udpcomm *u) {
    return {u->recv_count, u->recv_bytes};
}

} // namespace keel_test
