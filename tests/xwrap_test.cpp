/* SPDX-License-Identifier: MIT */
#include "xwrap.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "cancelled.h"
#include "child.h"
#include "explained.h"

namespace {

using keel_test::child_result;
using keel_test::ending_after;
using keel_test::exited;
using keel_test::explained;
using keel_test::run_cancelled;
using keel_test::run_in_child;

struct free_block {
    void operator()(void *block) const { std::free(block); }
};
template <class T>
using unique_block = std::unique_ptr<T, free_block>;

/* More than any machine has, and than the allocator takes for a size. */
volatile std::size_t too_much = PTRDIFF_MAX;

/* A semaphore for one test. */
class semaphore {
  public:
    explicit semaphore(unsigned value = 0) { Sem_init(&semaphore_, 0, value); }
    ~semaphore() { Sem_destroy(&semaphore_); }
    semaphore(const semaphore &) = delete;
    semaphore &operator=(const semaphore &) = delete;

    sem_t *operator&() { return &semaphore_; }
    int value() {
        int value = -1;
        sem_getvalue(&semaphore_, &value);
        return value;
    }

  private:
    sem_t semaphore_;
};

/* A mutex for one test, which errs rather than hangs where it is locked twice. */
class mutex {
  public:
    explicit mutex(int type = PTHREAD_MUTEX_ERRORCHECK, int robust = PTHREAD_MUTEX_STALLED) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, type);
        pthread_mutexattr_setrobust(&attributes, robust);
        EXPECT_EQ(Pthread_mutex_init(&mutex_, &attributes), 0);
        pthread_mutexattr_destroy(&attributes);
    }
    ~mutex() { EXPECT_EQ(Pthread_mutex_destroy(&mutex_), 0); }
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    pthread_mutex_t *operator&() { return &mutex_; }

  private:
    pthread_mutex_t mutex_;
};

/* What `body` returns on a thread of its own. */
int on_another_thread(const std::function<int()> &body) {
    int result = 0;
    std::thread([&] { result = body(); }).join();
    return result;
}

/* Strings */

TEST(Strdup, CopiesTheText) {
    for (const std::string text : {"", "a", "two words\n", "\xff\x80"}) {
        const unique_block<char> copy(Strdup(text.c_str()));
        EXPECT_NE(copy.get(), text.c_str());
        EXPECT_EQ(copy.get(), text);
    }
    const std::string long_text(1 << 20, 'x');
    EXPECT_EQ(unique_block<char>(Strdup(long_text.c_str())).get(), long_text);
}

TEST(StrchrAndStrrchr, FindTheFirstAndTheLast) {
    static const char text[] = "/a/b\xff/c";
    const struct {
        int character;
        std::ptrdiff_t first, last;
    } rows[] = {
        {'/', 0, 5},       {'c', 6, 6},  {'b', 3, 3}, {0, 7, 7}, // the terminator is part of it
        {'a' + 256, 1, 1}, {0xff, 4, 4}, {-1, 4, 4},             // taken as a char
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Strchr(text, row.character) - text, row.first) << row.character;
        EXPECT_EQ(Strrchr(text, row.character) - text, row.last) << row.character;
    }
}

TEST(StrchrAndStrrchr, EndWithTheErrnoTheyFoundWhereThereIsNone) {
    for (const int error : {0, EPERM, ENOENT}) {
        for (const char *text : {"abc", ""}) {
            EXPECT_EQ(ending_after(error, [&] { Strchr(text, 'x'); }), explained("strchr", error));
            EXPECT_EQ(ending_after(error, [&] { Strrchr(text, 'x'); }),
                      explained("strrchr", error));
        }
    }
}

TEST(StrtokR, GivesOneTokenAfterAnother) {
    char text[] = ",;one,two;;three,";
    char *save = nullptr;
    EXPECT_STREQ(Strtok_r(text, ",;", &save), "one");
    EXPECT_STREQ(Strtok_r(nullptr, ",", &save), "two;;three");
    EXPECT_EQ(std::memcmp(text, ",;one\0two;;three\0", sizeof text), 0) << "cut in place";
}

TEST(StrtokR, KeepsTwoTextsApart) {
    char one[] = "a b";
    char other[] = "1 2";
    char *save_one = nullptr;
    char *save_other = nullptr;
    EXPECT_STREQ(Strtok_r(one, " ", &save_one), "a");
    EXPECT_STREQ(Strtok_r(other, " ", &save_other), "1");
    EXPECT_STREQ(Strtok_r(nullptr, " ", &save_one), "b");
    EXPECT_STREQ(Strtok_r(nullptr, " ", &save_other), "2");
}

TEST(StrtokR, EndsWithTheErrnoItFoundWhenNoTokenIsLeft) {
    for (const std::string text : {"one,,", "one"}) {
        const auto after_the_last = [&] {
            std::string cut = text;
            char *save = nullptr;
            Strtok_r(cut.data(), ",", &save);
            errno = EPERM;
            Strtok_r(nullptr, ",", &save);
        };
        EXPECT_EQ(run_in_child(after_the_last), explained("strtok_r", EPERM)) << text;
    }
    for (const std::string text : {"", ",", ",;,"}) {
        const auto first = [&] {
            std::string cut = text;
            char *save = nullptr;
            Strtok_r(cut.data(), ",;", &save);
        };
        EXPECT_EQ(ending_after(EPERM, first), explained("strtok_r", EPERM)) << text;
    }
}

/* Commands */

TEST(System, TellsSuccessFromEveryOtherEnding) {
    const std::string longer_than_an_argument(200'000, 'x');
    const struct {
        const char *command;
        int result;
    } rows[] = {
        {"true", 0},
        {"", 0},
        {"exit 256", 0},
        {"false", -1},
        {"exit 3", -1},
        {"exit 128", -1},
        {"exit 255", -1},
        {"kill -KILL $$", -1},
        {"kill -TERM $$", -1},
        {"kill -HUP $$", -1},
        {"exec no-such-command 2>&-", -1},
        {longer_than_an_argument.c_str(), -1},
        {nullptr, -1}, // whether there is a shell: the answer is 1, no status of success
    };
    for (const auto &row : rows)
        EXPECT_EQ(System(row.command), row.result) << (row.command ? row.command : "null");
}

TEST(System, PrintsNothingOfItsOwnAndNeverEndsTheProcess) {
    for (const char *command : {"true", "exit 3", "kill -KILL $$"})
        EXPECT_EQ(run_in_child([&] { System(command); }), exited(0)) << command;
    const child_result printed = {0, 0, "out\n", "err\n"};
    EXPECT_EQ(run_in_child([] { System("echo out; echo err >&2; exit 3"); }), printed);
}

TEST(System, FailsWhereTheCommandsEndingIsLost) {
    const auto unheard = [] {
        std::signal(SIGCHLD, SIG_IGN);
        _exit(System("true") == -1 && errno == ECHILD ? 7 : 8);
    };
    EXPECT_EQ(run_in_child(unheard), exited(7));
}

TEST(Systemf, RunsTheFormattedCommand) {
    EXPECT_EQ(Systemf("exit %d", 0), 0);
    EXPECT_EQ(Systemf("exit %d", 3), -1);
    EXPECT_EQ(Systemf("test %s = %s", "a", "a"), 0);
    EXPECT_EQ(Systemf("kill -%s $$", "KILL"), -1);
    EXPECT_EQ(Systemf("test 100%% = '100%c'", '%'), 0);
    const std::string long_text(100'000, 'x');
    EXPECT_EQ(Systemf("test -n '%s'", long_text.c_str()), 0);
}

TEST(Systemf, QuotesNothing) {
    const child_result both = {0, 0, "one\ntwo\n", ""};
    EXPECT_EQ(run_in_child([] { Systemf("echo %s", "one; echo two"); }), both);
}

TEST(Systemf, EndsWhereTheCommandCannotBeFormatted) {
    const auto unprintable = [] { Systemf("echo %ls", L"\u4e2d"); }; // not in the C locale
    EXPECT_EQ(run_in_child(unprintable), explained("Systemf", EILSEQ));
}

/* Allocation */

TEST(Allocation, GivesBlocks) {
    unique_block<char> block(static_cast<char *>(Malloc(16)));
    std::memset(block.get(), 7, 16);
    block.reset(static_cast<char *>(Realloc(block.release(), 4096)));
    EXPECT_EQ(block.get()[0], 7);
    EXPECT_EQ(block.get()[15], 7);
    block.reset(static_cast<char *>(Realloc(block.release(), 2)));
    EXPECT_EQ(block.get()[1], 7);
}

TEST(Allocation, CallocZeroesEveryElement) {
    constexpr std::array<char, 1000> zeroes{};
    for (int i = 0; i < 10; i++) { // the later ones may be blocks that were in use
        const unique_block<char> block(static_cast<char *>(Calloc(250, 4)));
        ASSERT_EQ(std::memcmp(block.get(), zeroes.data(), zeroes.size()), 0);
        std::memset(block.get(), 7, zeroes.size());
    }
}

TEST(Allocation, EmptyBlocksAreBlocks) {
    EXPECT_NE(unique_block<void>(Malloc(0)), nullptr);
    EXPECT_NE(unique_block<void>(Calloc(0, 8)), nullptr);
    EXPECT_NE(unique_block<void>(Calloc(8, 0)), nullptr);
    EXPECT_NE(unique_block<void>(Realloc(nullptr, 8)), nullptr);
}

TEST(Allocation, EndsWithoutMemory) {
    EXPECT_EQ(run_in_child([] { Malloc(too_much); }), explained("malloc", ENOMEM));
    EXPECT_EQ(run_in_child([] { Calloc(1, too_much); }), explained("calloc", ENOMEM));
    EXPECT_EQ(run_in_child([] { Calloc(too_much, 4); }), explained("calloc", ENOMEM)) << "overflow";
    EXPECT_EQ(run_in_child([] { Realloc(nullptr, too_much); }), explained("realloc", ENOMEM));
    EXPECT_EQ(run_in_child([] { Realloc(Malloc(8), too_much); }), explained("realloc", ENOMEM));
}

TEST(Allocation, EndsWhereABlockIsResizedToNothing) {
    EXPECT_EQ(ending_after(EPERM, [] { Realloc(Malloc(8), 0); }), explained("realloc", EPERM));
}

/* Semaphores */

TEST(Semaphores, Count) {
    sem_t counted;
    EXPECT_EQ(Sem_init(&counted, 0, 2), 0);
    EXPECT_EQ(Sem_wait(&counted), 0);
    EXPECT_EQ(Sem_trywait(&counted), 0);
    EXPECT_EQ(Sem_trywait(&counted), -1);
    EXPECT_EQ(Sem_post(&counted), 0);
    EXPECT_EQ(Sem_timedwait(&counted, 10), 0);
    EXPECT_EQ(Sem_trywait(&counted), -1);
    EXPECT_EQ(Sem_destroy(&counted), 0);
}

TEST(Semaphores, AreSharedBetweenProcessesOnRequest) {
    void *memory =
        mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *shared = new (memory) sem_t;
    Sem_init(shared, 1, 0);
    EXPECT_EQ(run_in_child([&] { Sem_post(shared); }), exited(0));
    EXPECT_EQ(Sem_trywait(shared), 0);
    Sem_destroy(shared);
    munmap(memory, sizeof(sem_t));
}

TEST(Semaphores, EndWhereTheCountIsTooHigh) {
    const auto above = [] {
        sem_t counted;
        Sem_init(&counted, 0, SEM_VALUE_MAX + 1U);
    };
    EXPECT_EQ(run_in_child(above), explained("sem_init", EINVAL));
    semaphore full(SEM_VALUE_MAX);
    EXPECT_EQ(run_in_child([&] { Sem_post(&full); }), explained("sem_post", EOVERFLOW));
}

TEST(SemWait, WaitsForAPost) {
    semaphore ready;
    std::thread poster([&] { Sem_post(&ready); });
    EXPECT_EQ(Sem_wait(&ready), 0);
    poster.join();
    EXPECT_EQ(ready.value(), 0);
}

TEST(SemTrywait, ReturnsWhereThereIsNone) {
    semaphore none;
    errno = 0;
    EXPECT_EQ(Sem_trywait(&none), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(run_in_child([&] { Sem_trywait(&none); }), exited(0));
}

TEST(SemTimedwait, DoesNotWaitWithoutTime) {
    semaphore none;
    for (const std::int64_t seconds :
         {std::int64_t{0}, std::int64_t{-1}, -std::int64_t{UINT32_MAX}, INT64_MIN + 1, INT64_MIN}) {
        errno = 0;
        EXPECT_EQ(Sem_timedwait(&none, seconds), -1) << seconds;
        EXPECT_EQ(errno, ETIMEDOUT) << seconds;
    }
}

TEST(SemTimedwait, TakesWhatIsThereWhateverTheTime) {
    semaphore some(5);
    for (const std::int64_t seconds :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{3}, INT64_MIN, INT64_MAX})
        EXPECT_EQ(Sem_timedwait(&some, seconds), 0) << seconds;
    EXPECT_EQ(some.value(), 0);
}

TEST(SemTimedwait, GivesUpWhenTheSecondsHavePassed) {
    semaphore none;
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_EQ(Sem_timedwait(&none, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    clock_gettime(CLOCK_REALTIME, &after);
    after.tv_sec -= 1;
    EXPECT_FALSE(after.tv_sec < before.tv_sec ||
                 (after.tv_sec == before.tv_sec && after.tv_nsec < before.tv_nsec));
}

TEST(SemTimedwait, WaitsForAPostHoweverFarTheDeadline) {
    for (const std::int64_t seconds :
         {std::int64_t{600}, std::int64_t{INT32_MAX}, INT64_MAX - 1, INT64_MAX}) {
        semaphore ready;
        std::thread poster([&] { Sem_post(&ready); });
        EXPECT_EQ(Sem_timedwait(&ready, seconds), 0) << seconds;
        poster.join();
    }
}

/* Sysconf */

TEST(Sysconf, GivesTheSystemsValue) {
    EXPECT_EQ(Sysconf(_SC_PAGESIZE), getpagesize());
    EXPECT_EQ(Sysconf(_SC_CLK_TCK), sysconf(_SC_CLK_TCK));
    EXPECT_GT(Sysconf(_SC_NPROCESSORS_ONLN), 0);
}

TEST(Sysconf, EndsForAnUnknownName) {
    EXPECT_EQ(run_in_child([] { Sysconf(-1); }), explained("sysconf", EINVAL));
}

TEST(Sysconf, EndsForALimitThatIsNotSetWithNoErrorToName) {
    ASSERT_EQ(sysconf(_SC_AIO_MAX), -1);
    EXPECT_EQ(ending_after(EPERM, [] { Sysconf(_SC_AIO_MAX); }), explained("sysconf", 0));
}

/* Mutexes */

TEST(Mutexes, LockAndUnlock) {
    pthread_mutex_t plain;
    EXPECT_EQ(Pthread_mutex_init(&plain, nullptr), 0);
    EXPECT_EQ(Pthread_mutex_lock(&plain), 0);
    EXPECT_EQ(on_another_thread([&] { return pthread_mutex_trylock(&plain); }), EBUSY);
    EXPECT_EQ(Pthread_mutex_unlock(&plain), 0);
    EXPECT_EQ(Pthread_mutex_trylock(&plain), 0);
    EXPECT_EQ(on_another_thread([&] { return pthread_mutex_trylock(&plain); }), EBUSY);
    EXPECT_EQ(Pthread_mutex_unlock(&plain), 0);
    EXPECT_EQ(Pthread_mutex_destroy(&plain), 0);
}

TEST(Mutexes, ExcludeOneAnother) {
    mutex lock;
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < 1000; i++) {
            Pthread_mutex_lock(&lock);
            count++;
            Pthread_mutex_unlock(&lock);
        }
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(count, 2000);
}

TEST(Mutexes, HaveTheAttributesThatTheyAreGiven) {
    mutex recursive(PTHREAD_MUTEX_RECURSIVE);
    EXPECT_EQ(Pthread_mutex_lock(&recursive), 0);
    EXPECT_EQ(Pthread_mutex_lock(&recursive), 0);
    EXPECT_EQ(Pthread_mutex_unlock(&recursive), 0);
    EXPECT_EQ(Pthread_mutex_unlock(&recursive), 0);
}

TEST(PthreadMutexTrylock, ReturnsBusyWhereAnotherThreadHoldsIt) {
    mutex held;
    Pthread_mutex_lock(&held);
    int error = 0;
    const auto try_lock = [&] {
        errno = 0;
        const int result = Pthread_mutex_trylock(&held);
        error = errno;
        return result;
    };
    EXPECT_EQ(on_another_thread(try_lock), -1);
    EXPECT_EQ(error, EBUSY);
    EXPECT_EQ(run_in_child([&] { Pthread_mutex_trylock(&held); }), exited(0))
        << "nothing is printed";
    Pthread_mutex_unlock(&held);
}

TEST(PthreadMutexLock, EndsWhereItWouldWaitForItself) {
    const auto twice = [] {
        mutex held;
        Pthread_mutex_lock(&held);
        errno = EPERM;
        Pthread_mutex_lock(&held);
    };
    EXPECT_EQ(run_in_child(twice), explained("pthread_mutex_lock", EDEADLK));
}

TEST(PthreadMutexTrylock, EndsForEveryOtherErrorAsLockDoes) {
    const auto left_behind = [](int (*lock)(pthread_mutex_t *)) {
        return [lock] {
            mutex owned(PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ROBUST);
            std::thread([&] { Pthread_mutex_lock(&owned); }).join();
            lock(&owned);
        };
    };
    EXPECT_EQ(ending_after(EPERM, left_behind(Pthread_mutex_trylock)),
              explained("pthread_mutex_trylock", EOWNERDEAD));
    EXPECT_EQ(ending_after(EPERM, left_behind(Pthread_mutex_lock)),
              explained("pthread_mutex_lock", EOWNERDEAD));
}

/* Cancellation */

TEST(Cancellation, DoesNotStopTheEndOfTheProcess) {
    const child_result whole = {1, 0, "pending", "strchr: Success\n"};
    const auto fatal = [] {
        std::fputs("pending", stdout);
        errno = 0;
        Strchr("abc", 'x');
    };
    EXPECT_EQ(run_in_child([&] { run_cancelled(fatal); }), whole);
}

TEST(Cancellation, EndsAWait) {
    semaphore none;
    EXPECT_TRUE(run_cancelled([&] { Sem_wait(&none); }));
    EXPECT_TRUE(run_cancelled([&] { Sem_timedwait(&none, 600); }));
}

/* Null */

TEST(NullArguments, CountAsTheRoutinesFailure) {
    char text[] = "text";
    char *save = nullptr;
    char **no_save = nullptr;
    const char *no_text = nullptr;
    sem_t *no_semaphore = nullptr;
    pthread_mutex_t *no_mutex = nullptr;
    int (*const systemf)(const char *, ...) = Systemf; // unseen by the compiler, which would object
    const struct {
        const char *routine;
        std::function<void()> call;
    } rows[] = {
        {"strdup", [=] { Strdup(no_text); }},
        {"strchr", [=] { Strchr(no_text, 'x'); }},
        {"strrchr", [=] { Strrchr(no_text, 'x'); }},
        {"strtok_r", [&] { Strtok_r(text, no_text, &save); }},
        {"strtok_r", [&] { Strtok_r(text, ",", no_save); }},
        {"strtok_r", [&] { Strtok_r(nullptr, ",", &save); }},
        {"Systemf", [=] { systemf(no_text); }},
        {"sem_init", [=] { Sem_init(no_semaphore, 0, 0); }},
        {"sem_destroy", [=] { Sem_destroy(no_semaphore); }},
        {"sem_post", [=] { Sem_post(no_semaphore); }},
        {"sem_wait", [=] { Sem_wait(no_semaphore); }},
        {"sem_trywait", [=] { Sem_trywait(no_semaphore); }},
        {"sem_timedwait", [=] { Sem_timedwait(no_semaphore, 0); }},
        {"pthread_mutex_init", [=] { Pthread_mutex_init(no_mutex, nullptr); }},
        {"pthread_mutex_destroy", [=] { Pthread_mutex_destroy(no_mutex); }},
        {"pthread_mutex_lock", [=] { Pthread_mutex_lock(no_mutex); }},
        {"pthread_mutex_unlock", [=] { Pthread_mutex_unlock(no_mutex); }},
        {"pthread_mutex_trylock", [=] { Pthread_mutex_trylock(no_mutex); }},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ending_after(EPERM, row.call), explained(row.routine, EINVAL));
}

} // namespace
