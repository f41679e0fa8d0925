/* SPDX-License-Identifier: MIT */

/* What a service in full swing hands to the programs and the children that it starts. */
#include "keel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <pthread.h>
#include <regex>
#include <string>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "caught_output.h"
#include "child.h"
#include "log_home.h"
#include "speechless.h"
#include "timers.h"
#include "udp.h"
#include "waiting.h"
#include "workers.h"
#include "xconf.h"
#include "xfsproc.h"
#include "xini.h"
#include "xinotify.h"
#include "xlog.h"
#include "xnet.h"
#include "xqueue2.h"
#include "xsocket.h"
#include "xstdio.h"
#include "xthread.h"
#include "xtime.h"
#include "xutil.h"

extern "C" void __asan_init() __attribute__((weak)); // NOLINT

namespace {

using keel_test::child_result;
using keel_test::conf_of_short_files;
using keel_test::eventually;
using keel_test::exited;
using keel_test::log_home;
using keel_test::rounds;
using keel_test::run_in_child;
using keel_test::sanitized;
using keel_test::semaphore;
using keel_test::split;
using keel_test::temp_dir;
using keel_test::without_stamp;
using keel_test::write_file;

/* The address sanitizer's allocator has locks that a child finds taken for ever where another
 * thread held them at the fork: its children do without memory, or without other threads. */
const bool children_may_allocate = __asan_init == nullptr;

/* Threads that each do the same again and again until the end of the scope. */
class commotion {
  public:
    explicit commotion(const std::vector<std::function<void()>> &deeds) {
        for (const auto &deed : deeds)
            threads_.emplace_back([deed](const std::stop_token &end) {
                while (!end.stop_requested())
                    deed();
            });
    }

  private:
    std::vector<std::jthread> threads_;
};

/* The exit status of a child that runs `body`; 255 where it has to be killed. */
int status_of_child(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(0);
    }
    int status = -1;
    if (eventually([&] { return waitpid(child, &status, WNOHANG) == child; }))
        return WIFEXITED(status) ? WEXITSTATUS(status) : 254;
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return 255;
}

/* From several threads at once, if children of theirs may allocate, until one fails. */
void fork_repeatedly(int times, const std::function<void(int)> &body) {
    const int threads = children_may_allocate ? 3 : 1;
    std::atomic<int> next = 0;
    std::atomic<int> status = 0;
    {
        std::vector<std::jthread> forking;
        for (int t = 0; t < threads; t++)
            forking.emplace_back([&] {
                for (int round; status == 0 && (round = next++) < times;)
                    if (const int ended = status_of_child([&] { body(round); }); ended != 0)
                        status = ended;
            });
    }
    EXPECT_EQ(status, 0) << "in one of the rounds up to " << next;
}

/* ---- A service ----------------------------------------------------------------------------------
 */

void *log_a_run(void *) {
    log_print(1, 0x40, "a task ran");
    return nullptr;
}

std::int64_t take_nothing(udpcomm *, char *, std::size_t, sockaddr *) {
    return 0;
}

/* What it keeps open. */
class service {
  public:
    service() {
        log_conf conf = conf_of_short_files(4);
        home_.set_up(&conf);
        log_open("tasks");
        pool_ = threadpool_new(6, 12, 64, 64, 4096);
        for (int i = 0; i < 3; i++)
            timer_schedule(clock_.get(), log_a_run, nullptr, 1, -1, 1);
        get_system_stat();
        write_file(dir_ / "watch", "proc1 = watched\n");
        proc_monitor_init(&monitor_, (dir_ / "watch").c_str(), '=');
        Inotify_add_watch(events_, dir_.path().c_str(), IN_CREATE);
    }
    ~service() {
        close(events_);
        monitor_.destroy(&monitor_);
        threadpool_del(pool_);
    }
    service(const service &) = delete;
    service &operator=(const service &) = delete;

    /* All that opens something for a moment. */
    std::vector<std::function<void()>> deeds() {
        return {[] { log_and_rotate(); },
                [] { open_logs_and_sockets(); },
                [this] { send(); },
                [this] { look_at_the_system(); },
                [this] { edit(); },
                [] { close(Inotify_init()); },
                [this] {
                    threadpool_exec(pool_, log_a_run, nullptr);
                    usleep(1000);
                }};
    }

  private:
    static void log_and_rotate() {
        for (int i = 0; i < 100; i++)
            log_print(0, 0x40, "record %d", i);
        log_dump(0, "dump", 4);
    }

    static void open_logs_and_sockets() {
        log_close(log_open("short-lived"));
        socket_close(socket_open(AF_INET, SOCK_DGRAM, 0));
        char address[16];
        get_ifaddr("lo", address, sizeof address);
        ifi_info *interfaces = get_ifi_info(AF_INET);
        free_ifi_info(interfaces);
    }

    void send() const {
        endpoint_.send("PING", keel_test::address_of(keel_test::here));
        usleep(100);
    }

    void look_at_the_system() {
        get_system_stat();
        monitor_.refresh(&monitor_);
        proc_monitor_item nothing{};
        std::strcpy(nothing.info.cwd, "/bin");
        std::strcpy(nothing.info.cmdline, "true");
        proc_start(&nothing);
        std::array<mount_stat, 4> mounts;
        fstab(mounts.data(), mounts.size());
        fuser((dir_ / "watch").c_str(), nullptr, 0);
        const fs_limit all_too_young = {FS_LIMIT_USAGE | FS_LIMIT_AGE, 0, 0, 1e6F};
        fcleanup(dir_.path().c_str(), &all_too_young);
    }

    void edit() const {
        const std::string path = dir_ / "settings";
        file_cover(path.c_str(), "[section]\nkey = value\n");
        ini_table table{};
        ini_load(&table, path.c_str(), "=");
        ini_unload(&table);
        fmodify(path.c_str(), "key", '=', "other");
        char value[16];
        flookup(path.c_str(), "key", '=', value, sizeof value);
        file_replace_value(path.c_str(), "key", "=", "another");
        file_copy(path.c_str(), (dir_ / "copy").c_str());
    }

    log_home home_;
    temp_dir dir_;
    keel_test::owned_timer clock_;
    threadpool *pool_ = nullptr;
    keel_test::owned_endpoint endpoint_{keel_test::open_at(keel_test::here), take_nothing};
    proc_monitor monitor_{};
    int events_ = Inotify_init();
};

/* The files of the snapshot stay open: they are there before a test counts what it leaves. */
[[maybe_unused]] const int kept_files = get_system_stat();

/* Nothing is heard of its timers. What this process was itself started with is not looked at. */
class ForksOfService : public keel_test::Speechless {
  protected:
    ForksOfService() {
        for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; descriptor++)
            fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
};

using Forks = keel_test::LeavesNothing;

TEST_F(ForksOfService, HandNoDescriptorToAProgram) {
    service running;
    const commotion all(running.deeds());
    fork_repeatedly(rounds(sanitized ? 40 : 150), [](int) {
        execl(KEEL_TEST_OPEN_DESCRIPTORS, "open_descriptors", nullptr);
        _exit(100);
    });
}

/* ---- Logging in a child -------------------------------------------------------------------------
 */

/* How often each line is there, time stamps left out. */
std::map<std::string, int> counted(const std::string &text) {
    std::map<std::string, int> lines;
    for (const std::string &line : split(text))
        lines[without_stamp(line)]++;
    return lines;
}

std::string line_of(const std::string &who, int record) {
    return "[    Error.4] " + who + " writes " + std::to_string(record);
}

TEST_F(Forks, OfThreadsThatLogGiveTheirChildrenALogToWriteTo) {
    const int times = rounds(sanitized ? 200 : 1000);
    const log_home home;
    log_conf conf = keel_test::conf_with(LOG_CONF_WRMAX);
    conf.wrmax = 30'000; // more than are written: the files of a parent and its child are one
    ASSERT_EQ(home.set_up(&conf), 0);
    std::atomic<int> written = 0;
    {
        const auto write = [&] {
            if (written < 20'000)
                log_print(0, 0x8, "parent writes %d", written++);
            else
                usleep(1000);
        };
        const commotion logging({write, write, write});
        fork_repeatedly(times, [](int round) { log_print(0, 0x8, "child writes %d", round); });
    }
    log_destroy();
    std::map<std::string, int> expected;
    for (int i = 0; i < times; i++)
        expected[line_of("child", i)] = 1;
    for (int i = 0; i < written; i++)
        expected[line_of("parent", i)] = 1;
    EXPECT_EQ(counted(home.everything("app")), expected);
}

TEST_F(Forks, LeaveNoChildWaitingForALogThatIsRotated) {
    const log_home home;
    log_conf conf = conf_of_short_files(3);
    ASSERT_EQ(home.set_up(&conf), 0);
    const int other = log_open("other");
    const auto rotate = [&] {
        for (int i = 0; i < keel_test::fewest_records; i++)
            log_print(other, 0x40, "record");
    };
    const commotion logging({rotate, rotate, [] { log_close(log_open("short-lived")); }});
    fork_repeatedly(rounds(sanitized ? 60 : 300), [&](int) {
        log_print(other, 0x8, "the child's");
        if (children_may_allocate)
            log_dump(0, "dump", 4);
    });
}

#ifndef KEEL_TEST_SANITIZED // whose allocators a signal handler must not fork amidst
volatile sig_atomic_t forked;

void fork_and_wait(int) {
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    forked = forked + 1;
}

TEST_F(Forks, ComeBackInASignalHandlerThatInterruptedARecord) {
    const log_home home;
    const child_result result = run_in_child([&] {
        home.set_up();
        struct sigaction action {};
        action.sa_handler = fork_and_wait;
        sigaction(SIGALRM, &action, nullptr);
        for (int wanted = 1; wanted <= 20; wanted++) {
            const itimerval soon = {{0, 0}, {0, 2000}};
            setitimer(ITIMER_REAL, &soon, nullptr);
            while (forked < wanted)
                log_print(0, 0x8, "record");
        }
        _exit(log_destroy());
    });
    EXPECT_EQ(result, exited(0));
}
#endif

bool waits_in_write(pid_t thread) {
    const std::string call =
        keel_test::content_of("/proc/self/task/" + std::to_string(thread) + "/syscall");
    return call.starts_with(std::to_string(SYS_write) + ' ');
}

TEST_F(Forks, DoNotWaitForAReaderOfStandardOutput) {
    const child_result result = run_in_child([] {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], STDOUT_FILENO) == -1)
            _exit(1);
        const std::string text(4000, '.');
        std::atomic<pid_t> logger = 0;
        std::thread logging([&] {
            logger = gettid();
            for (;;) // more than a pipe holds
                log_print(0, 0x8, "%s", text.c_str());
        });
        logging.detach();
        _exit(eventually([&] { return logger != 0 && waits_in_write(logger); })
                  ? status_of_child([] {})
                  : 2);
    });
    EXPECT_EQ(result, exited(0));
}

TEST_F(Forks, LeaveTheLogsToADaemon) {
    const log_home home;
    int ended[2]; // closed by the daemon, when it ends
    ASSERT_EQ(pipe2(ended, O_CLOEXEC), 0);
    const child_result result = run_in_child([&] {
        log_conf conf = conf_of_short_files(2);
        home.set_up(&conf);
        log_print(0, 0x8, "parent writes %d", 0);
        if (fork() != 0)
            _exit(0);
        close(ended[0]);
        for (int i = 0; i < 1500; i++)
            log_print(0, 0x8, "daemon writes %d", i);
        log_print(log_open("own"), 0x8, "daemon writes %d", 0);
        log_destroy();
    });
    EXPECT_EQ(result, exited(0));
    close(ended[1]);
    char nothing;
    EXPECT_EQ(read(ended[0], &nothing, 1), 0);
    close(ended[0]);
    std::map<std::string, int> expected = {{line_of("parent", 0), 1}};
    for (int i = 0; i < 1500; i++)
        expected[line_of("daemon", i)] = 1;
    EXPECT_EQ(counted(home.everything("app")), expected);
    EXPECT_EQ(home.archives("app").size(), 2U);
    EXPECT_EQ(counted(home.everything("own")),
              (std::map<std::string, int>{{line_of("daemon", 0), 1}}));
}

std::atomic<int> runs_left;

void *log_to_stdout(void *) {
    log_print(0, 0x8, "task writes %d", runs_left--);
    return nullptr;
}

/* Takes the records out of `text`, which may stand amidst other output, and counts them. */
std::map<std::string, int> take_records(std::string &text) {
    const std::regex record(R"(\[[-0-9 :.]{23}\] (\[    Error\.4\] \w+ writes \d+)\n)");
    std::map<std::string, int> found;
    for (std::sregex_iterator match(text.begin(), text.end(), record), end; match != end; ++match)
        found[match->str(1)]++;
    text = std::regex_replace(text, record, "");
    return found;
}

TEST_F(Forks, LeaveStandardOutputToChildrenToo) {
    const int runs = sanitized ? 500 : 2000;
    const int times = rounds(sanitized ? 100 : 1000);
    const temp_dir dir;
    const child_result result = run_in_child([&] {
        std::freopen((dir / "out").c_str(), "w", stdout);
        keel_test::owned_timer clock;
        runs_left = runs;
        timer_schedule(clock.get(), log_to_stdout, nullptr, 1, runs, 1);
        fork_repeatedly(times, [](int round) { log_print(0, 0x8, "child writes %d", round); });
        _exit(eventually([] { return runs_left == 0; }) && clock.del() == 0 &&
                      std::fflush(stdout) == 0
                  ? 0
                  : 1);
    });
    EXPECT_EQ(result, exited(0, keel_test::id_warning));
    std::map<std::string, int> expected;
    for (int i = 0; i < times; i++)
        expected[line_of("child", i)] = 1;
    for (int i = 1; i <= runs; i++)
        expected[line_of("task", i)] = 1;
    std::string out = keel_test::content_of(dir / "out");
    EXPECT_EQ(take_records(out), expected);
}

TEST_F(Forks, MayBeLoggedByTheHostsHandlers) {
    const log_home home;
    const child_result result = run_in_child([&] {
        home.set_up();
        pthread_atfork([] { log_print(0, 0x8, "before writes %d", 0); },
                       [] { log_print(0, 0x8, "parent writes %d", 0); },
                       [] { log_print(0, 0x8, "child writes %d", 0); });
        _exit(status_of_child([] {}));
    });
    EXPECT_EQ(result, exited(0));
    EXPECT_EQ(counted(home.content("app.log")),
              (std::map<std::string, int>{
                  {line_of("before", 0), 1}, {line_of("parent", 0), 1}, {line_of("child", 0), 1}}));
}

/* ---- A child that works on ----------------------------------------------------------------------
 */

void make_own_pool_timer_and_queue() {
    semaphore done;
    threadpool *pool = threadpool_new(6, 12, 16, 16, 1024);
    for (int i = 0; i < 10; i++)
        threadpool_exec(pool, keel_test::post_task, &done);
    timer *clock = timer_new();
    timer_schedule(clock, keel_test::post_task, &done, 1, 5, 1);
    done.wait(15);
    const bool deleted = timer_del(clock) == 0 && threadpool_del(pool) == 0;
    blocking_queue queue;
    queue_init(&queue, 4);
    const bool put = queue_put(&queue, "item", 4) == 0;
    queue_destroy(&queue);
    log_print(0, 0x8, "done");
    _exit(deleted && put ? 0 : 1);
}

TEST_F(ForksOfService, GiveChildrenThatMakeTheirOwnPoolTimerAndQueue) {
    std::optional<service> running;
    std::optional<commotion> all;
    if (children_may_allocate) {
        running.emplace();
        all.emplace(running->deeds());
    }
    fork_repeatedly(rounds(sanitized ? 10 : 40), [](int) { make_own_pool_timer_and_queue(); });
}

} // namespace
