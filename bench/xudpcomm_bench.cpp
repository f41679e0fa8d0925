/* SPDX-License-Identifier: MIT */
/* Datagrams of 64 bytes to a receiving thread, on the loopback interface. */
#include <arpa/inet.h>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <uv.h>
#include <xudpcomm.h>

#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr std::size_t size = 64;
constexpr std::uint64_t datagrams = 50'000;
constexpr std::uint64_t in_flight = 128; // fit into a socket's buffer
constexpr int round_trips = 5'000;
constexpr int lines = 200'000;

/* Standard output of all contenders. */
class nowhere {
  public:
    nowhere() : former_(std::exchange(stdout, std::fopen("/dev/null", "w"))) {}
    ~nowhere() { std::fclose(std::exchange(stdout, former_)); }
    nowhere(const nowhere &) = delete;
    nowhere &operator=(const nowhere &) = delete;

  private:
    FILE *former_;
};

void print_line(const sockaddr_in &peer) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    std::printf("Recv message from %s:%d\n", text, ntohs(peer.sin_port));
}

double seconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/* What has come to a receiver, and what it has taken of the processor for it, sleep left out. */
struct arrivals {
    std::atomic<std::uint64_t> count = 0;
    std::atomic<double> cpu_seconds = 0;

    void add() {
        const std::uint64_t now = count.load(std::memory_order_relaxed) + 1;
        if (now % datagrams == 0)
            cpu_seconds = seconds(CLOCK_THREAD_CPUTIME_ID);
        count.store(now, std::memory_order_release);
    }
    void wait_for(std::uint64_t least) const {
        while (count.load(std::memory_order_acquire) < least)
            sched_yield();
    }
};

/* ---- Receivers: each counts what comes, or sends it back ------------------------------------- */

struct keel_receiver {
    explicit keel_receiver(bool echo) : endpoint(udpcomm_open(AF_INET, "127.0.0.1", 0)) {
        require(udpcomm_start(endpoint, echo ? send_back : count, &seen) == 0, "udpcomm_start");
    }
    ~keel_receiver() { udpcomm_close(endpoint); }
    keel_receiver(const keel_receiver &) = delete;
    keel_receiver &operator=(const keel_receiver &) = delete;

    static std::int64_t count(udpcomm *endpoint, char *, std::size_t, sockaddr *) {
        static_cast<arrivals *>(endpoint->arg)->add();
        return 0;
    }
    static std::int64_t send_back(udpcomm *endpoint, char *data, std::size_t length,
                                  sockaddr *peer) {
        return udpcomm_send(endpoint, data, length, peer);
    }
    int descriptor() const { return endpoint->sock->fd; }

    nowhere silence;
    arrivals seen;
    udpcomm *endpoint;
};

template <bool printing>
struct uv_receiver {
    explicit uv_receiver(bool echo) : echoing(echo) {
        uv_loop_init(&loop);
        uv_async_init(&loop, &stop, [](uv_async_t *woken) {
            auto &self = *static_cast<uv_receiver *>(woken->data);
            uv_close(reinterpret_cast<uv_handle_t *>(&self.endpoint), nullptr);
            uv_close(reinterpret_cast<uv_handle_t *>(&self.stop), nullptr);
        });
        uv_udp_init(&loop, &endpoint);
        stop.data = endpoint.data = this;
        sockaddr_in any{};
        uv_ip4_addr("127.0.0.1", 0, &any);
        require(uv_udp_bind(&endpoint, reinterpret_cast<sockaddr *>(&any), 0) == 0 &&
                    uv_udp_recv_start(&endpoint, give_buffer, take) == 0,
                "libuv");
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
    }
    ~uv_receiver() {
        uv_async_send(&stop);
        thread.join();
        uv_loop_close(&loop);
    }
    uv_receiver(const uv_receiver &) = delete;
    uv_receiver &operator=(const uv_receiver &) = delete;

    static void give_buffer(uv_handle_t *handle, std::size_t, uv_buf_t *buffer) {
        auto &self = *static_cast<uv_receiver *>(handle->data);
        *buffer = uv_buf_init(self.data, sizeof self.data);
    }
    static void take(uv_udp_t *handle, ssize_t length, const uv_buf_t *buffer, const sockaddr *peer,
                     unsigned) {
        auto &self = *static_cast<uv_receiver *>(handle->data);
        if (length <= 0 || peer == nullptr)
            return;
        if (printing)
            print_line(*reinterpret_cast<const sockaddr_in *>(peer));
        if (self.echoing) {
            const uv_buf_t whole = uv_buf_init(buffer->base, static_cast<unsigned>(length));
            uv_udp_try_send(handle, &whole, 1, peer);
        } else {
            self.seen.add();
        }
    }
    int descriptor() const {
        uv_os_fd_t found = -1;
        uv_fileno(reinterpret_cast<const uv_handle_t *>(&endpoint), &found);
        return found;
    }

    bool echoing;
    nowhere silence;
    arrivals seen;
    uv_loop_t loop{};
    uv_udp_t endpoint{};
    uv_async_t stop{};
    std::thread thread;
    char data[4096];
};

class descriptor_of_socket {
  public:
    descriptor_of_socket() {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        require(bind(number, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0, "bind");
    }
    ~descriptor_of_socket() { close(number); }
    descriptor_of_socket(const descriptor_of_socket &) = delete;
    descriptor_of_socket &operator=(const descriptor_of_socket &) = delete;

    const int number = socket(AF_INET, SOCK_DGRAM, 0);
};

sockaddr_in name_of(int descriptor) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    require(getsockname(descriptor, reinterpret_cast<sockaddr *>(&name), &length) == 0,
            "getsockname");
    return name;
}

/* One blocking call a datagram. */
template <bool printing>
struct raw_receiver {
    explicit raw_receiver(bool echo) : echoing(echo), thread([this] { run(); }) {}
    ~raw_receiver() {
        const sockaddr_in here = name_of(endpoint.number);
        sendto(endpoint.number, "", 0, 0, reinterpret_cast<const sockaddr *>(&here), sizeof here);
        thread.join();
    }
    raw_receiver(const raw_receiver &) = delete;
    raw_receiver &operator=(const raw_receiver &) = delete;

    void run() {
        char data[4096];
        for (;;) {
            sockaddr_in peer{};
            socklen_t name = sizeof peer;
            const ssize_t length = recvfrom(endpoint.number, data, sizeof data, 0,
                                            reinterpret_cast<sockaddr *>(&peer), &name);
            if (length <= 0)
                return;
            if (printing)
                print_line(peer);
            if (echoing)
                sendto(endpoint.number, data, static_cast<std::size_t>(length), 0,
                       reinterpret_cast<sockaddr *>(&peer), name);
            else
                seen.add();
        }
    }
    int descriptor() const { return endpoint.number; }

    bool echoing;
    nowhere silence;
    arrivals seen;
    descriptor_of_socket endpoint;
    std::thread thread;
};

/* ---- The other end --------------------------------------------------------------------------- */

/* Connected to a receiver. */
class sender {
  public:
    explicit sender(int receiver) {
        const sockaddr_in to = name_of(receiver);
        require(connect(socket_.number, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0,
                "connect");
    }

    /* As fast as the other takes them. */
    void send_all(const arrivals &seen) {
        for (const std::uint64_t last = sent_ + datagrams; sent_ < last; sent_++) {
            if (sent_ >= in_flight)
                seen.wait_for(sent_ - in_flight);
            require(send(socket_.number, data_, size, 0) == size, "send");
        }
        seen.wait_for(sent_);
    }

    void send_one_by_one() {
        for (int i = 0; i < round_trips; i++)
            require(send(socket_.number, data_, size, 0) == size &&
                        recv(socket_.number, data_, size, 0) == size,
                    "round trip");
    }

  private:
    descriptor_of_socket socket_;
    std::uint64_t sent_ = 0;
    char data_[size] = "datagram";
};

template <class Receiver>
struct link {
    explicit link(bool echo) : receiver(echo), other_end(receiver.descriptor()) {}
    Receiver receiver;
    sender other_end;
};

template <class Receiver>
auto throughput() {
    return [] {
        return job{.run = [ends = std::make_shared<link<Receiver>>(false)] {
            ends->other_end.send_all(ends->receiver.seen);
        }};
    };
}

/* In nanoseconds. */
template <class Receiver>
auto processor_time() {
    return [] {
        return job{.amount = [ends = std::make_shared<link<Receiver>>(false)] {
            const double before = ends->receiver.seen.cpu_seconds;
            ends->other_end.send_all(ends->receiver.seen);
            return 1e9 * (ends->receiver.seen.cpu_seconds - before);
        }};
    };
}

template <class Receiver>
auto round_trip() {
    return [] {
        return job{.run = [ends = std::make_shared<link<Receiver>>(true)] {
            ends->other_end.send_one_by_one();
        }};
    };
}

void print_lines() {
    const nowhere silence;
    sockaddr_in peer{};
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer.sin_port = htons(54321);
    for (int i = 0; i < lines; i++)
        print_line(peer);
}

} // namespace

int main(int argc, char *argv[]) {
    const std::string floor =
        "a system call for each datagram, a wake-up where none waits, and the receive line";
    return bench::measure(
        argc, argv,
        {{.title = "UDP, 64 bytes to a receiving thread",
          .item = "datagram",
          .items = datagrams,
          .floor = floor,
          .contenders = {{"keel udpcomm", throughput<keel_receiver>()},
                         {"libuv, with the receive line", throughput<uv_receiver<true>>(), 1.15},
                         {"libuv", throughput<uv_receiver<false>>()},
                         {"raw recvfrom, with the receive line", throughput<raw_receiver<true>>()},
                         {"raw recvfrom", throughput<raw_receiver<false>>()}}},
         {.title = "UDP, 64 bytes, the receiving thread's processor time",
          .item = "datagram",
          .items = datagrams,
          .floor = floor,
          .contenders =
              {{"keel udpcomm", processor_time<keel_receiver>()},
               {"libuv, with the receive line", processor_time<uv_receiver<true>>(), 1.15},
               {"libuv", processor_time<uv_receiver<false>>()},
               {"raw recvfrom, with the receive line", processor_time<raw_receiver<true>>()},
               {"raw recvfrom", processor_time<raw_receiver<false>>()}},
          .unit = "ns"},
         {.title = "UDP, 64 bytes there and back",
          .item = "round trip",
          .items = round_trips,
          .floor = "two wake-ups",
          .contenders = {{"keel udpcomm", round_trip<keel_receiver>()},
                         {"libuv, with the receive line", round_trip<uv_receiver<true>>(), 1.15},
                         {"libuv", round_trip<uv_receiver<false>>()},
                         {"raw recvfrom", round_trip<raw_receiver<false>>()}}},
         {.title = "The receive line alone, by inet_ntop and printf",
          .item = "line",
          .items = lines,
          .contenders = {{"line", bench::always(print_lines)}}}});
}
