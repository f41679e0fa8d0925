/* SPDX-License-Identifier: MIT */
#include "xftp.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "temp_dir.h"

/* A stand-in for libcurl, which notes what it is told and does what a test wants of it. */

namespace {

using keel_test::child_result;
using keel_test::content_of;
using keel_test::exited;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;
using strings = std::vector<string>;

using callback = std::size_t (*)(char *, std::size_t, std::size_t, void *);

struct stand_in {
    bool has_handle = true;
    CURLoption refused = CURLOPT_LASTENTRY; /* for which there is no memory */
    int commands_left = 100;                /* until one finds no memory */
    int lists = 0;
    strings steps{};
    std::map<CURLoption, void *> pointers{};
    std::vector<std::function<CURLcode()>> performances{}; /* one after the other, then CURLE_OK */
    std::size_t performed = 0;

    template <typename T>
    T pointer(CURLoption option) {
        return reinterpret_cast<T>(pointers[option]);
    }

    /* Hands on a line, of which there is nothing behind its end. */
    void tell_header(const string &line) {
        const std::unique_ptr<char[]> exact(new char[line.size()]);
        std::memcpy(exact.get(), line.data(), line.size());
        EXPECT_EQ(pointer<callback>(CURLOPT_HEADERFUNCTION)(exact.get(), 1, line.size(),
                                                            pointers[CURLOPT_HEADERDATA]),
                  line.size());
    }

    std::size_t read(char *buffer, std::size_t size, std::size_t n) {
        return pointer<callback>(CURLOPT_READFUNCTION)(buffer, size, n, pointers[CURLOPT_READDATA]);
    }

    std::size_t write(string text, std::size_t size = 1) {
        return pointer<callback>(CURLOPT_WRITEFUNCTION)(text.data(), size, text.size() / size,
                                                        pointers[CURLOPT_WRITEDATA]);
    }
};

stand_in curl;

const std::map<CURLoption, string> names = {
    {CURLOPT_URL, "url"},
    {CURLOPT_USERPWD, "login"},
    {CURLOPT_VERBOSE, "verbose"},
    {CURLOPT_NOPROGRESS, "no progress"},
    {CURLOPT_CONNECTTIMEOUT, "connect timeout"},
    {CURLOPT_FTP_RESPONSE_TIMEOUT, "response timeout"},
    {CURLOPT_UPLOAD, "upload"},
    {CURLOPT_FTP_CREATE_MISSING_DIRS, "create missing"},
    {CURLOPT_HEADERFUNCTION, "header function"},
    {CURLOPT_HEADERDATA, "header data"},
    {CURLOPT_READFUNCTION, "read function"},
    {CURLOPT_READDATA, "read data"},
    {CURLOPT_WRITEFUNCTION, "write function"},
    {CURLOPT_WRITEDATA, "write data"},
    {CURLOPT_NOBODY, "no body"},
    {CURLOPT_HEADER, "header"},
    {CURLOPT_APPEND, "append"},
    {CURLOPT_POSTQUOTE, "commands"},
    {CURLOPT_RESUME_FROM_LARGE, "resume from"},
};

} // namespace

extern "C" {
CURL *__wrap_curl_easy_init();
CURLcode __wrap_curl_easy_setopt(CURL *handle, int number, ...);
CURLcode __wrap_curl_easy_perform(CURL *handle);
void __wrap_curl_easy_cleanup(CURL *handle);
curl_slist *__wrap_curl_slist_append(curl_slist *list, const char *text);
void __wrap_curl_slist_free_all(curl_slist *list);
curl_slist *__real_curl_slist_append(curl_slist *list, const char *text);
void __real_curl_slist_free_all(curl_slist *list);

CURL *__wrap_curl_easy_init() {
    return curl.has_handle ? &curl : nullptr;
}

CURLcode __wrap_curl_easy_setopt(CURL * /*handle*/, int number, ...) {
    const auto option = static_cast<CURLoption>(number);
    if (option == curl.refused)
        return CURLE_OUT_OF_MEMORY;
    va_list arguments;
    va_start(arguments, number);
    string value;
    if (option < CURLOPTTYPE_OBJECTPOINT || option >= CURLOPTTYPE_OFF_T)
        value = " = " + std::to_string(va_arg(arguments, long));
    else
        curl.pointers[option] = va_arg(arguments, void *);
    va_end(arguments);
    if (option == CURLOPT_URL || option == CURLOPT_USERPWD)
        value = string(" = ") + curl.pointer<const char *>(option);
    if (names.contains(option)) // others make it faster, and nothing else
        curl.steps.push_back(names.at(option) + value);
    return CURLE_OK;
}

CURLcode __wrap_curl_easy_perform(CURL * /*handle*/) {
    curl.steps.emplace_back("perform");
    return curl.performed < curl.performances.size() ? curl.performances[curl.performed++]()
                                                     : CURLE_OK;
}

void __wrap_curl_easy_cleanup(CURL * /*handle*/) {
    curl.steps.emplace_back("clean up");
}

curl_slist *__wrap_curl_slist_append(curl_slist *list, const char *text) {
    if (curl.commands_left-- == 0)
        return nullptr;
    curl.lists += list == nullptr ? 1 : 0;
    return __real_curl_slist_append(list, text);
}

void __wrap_curl_slist_free_all(curl_slist *list) {
    curl.lists--;
    __real_curl_slist_free_all(list);
}

int __real_astrcatf(char **text, const char *format, ...) __attribute__((format(printf, 2, 3)));
int __wrap_astrcatf(char **text, const char *format, ...) __attribute__((format(printf, 2, 3)));
}

namespace {

int names_left = 100; /* until one finds no memory */

constexpr ftp_opt quiet = {0, 0, 0, 0, 0, nullptr};
constexpr char url[] = "ftp://host/directory/file";

std::function<CURLcode()> gives(CURLcode result) {
    return [result] { return result; };
}

/* A probe that is told so many bytes. */
std::function<CURLcode()> tells(const string &line) {
    return [line] {
        curl.tell_header(line);
        return CURLE_OK;
    };
}

string size_line(std::int64_t size) {
    return "Content-Length: " + std::to_string(size) + "\r\n";
}

class FtpSteps : public testing::Test {
  protected:
    FtpSteps() { curl = stand_in(); }
    void TearDown() override {
        EXPECT_EQ(curl.lists, 0);
        EXPECT_EQ(keel_test::count_descriptors(), descriptors_);
    }

    CURLcode upload(const ftp_opt &opt = quiet) const {
        return ftp_upload(url, local_.c_str(), "user", "secret", &opt);
    }
    CURLcode download(const ftp_opt &opt = quiet) const {
        return ftp_download(url, local_.c_str(), "user", "secret", &opt);
    }

    /* What comes behind the first of them that reads so. */
    static strings steps_behind(const string &step) {
        const auto found = std::find(curl.steps.begin(), curl.steps.end(), step);
        return found == curl.steps.end() ? strings{"no " + step}
                                         : strings(found + 1, curl.steps.end());
    }

    temp_dir dir_;
    string local_ = dir_ / "local";

  private:
    std::ptrdiff_t descriptors_ = keel_test::count_descriptors();
};

const strings quiet_session = {"url = ftp://host/directory/file", "login = user:secret",
                               "verbose = 0", "no progress = 1"};

strings behind_session(const strings &more) {
    strings all = quiet_session;
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

/* ---- What libcurl is told ------------------------------------------------------------------- */

TEST_F(FtpSteps, UploadProbesAndThenSendsAll) {
    write_file(local_, "some text");
    EXPECT_EQ(upload(), CURLE_OK);
    EXPECT_EQ(curl.steps,
              behind_session({"upload = 1", "create missing = 1", "header function", "header data",
                              "read function", "read data", "write function", "no body = 1",
                              "header = 1", "perform", "no body = 0", "header = 0", "upload = 1",
                              "append = 0", "perform", "clean up"}));
}

TEST_F(FtpSteps, DownloadResumesAtTheLengthOfTheFile) {
    write_file(local_, "some text");
    EXPECT_EQ(download(), CURLE_OK);
    EXPECT_EQ(curl.steps, behind_session({"write function", "write data", "resume from = 9",
                                          "perform", "clean up"}));
}

TEST_F(FtpSteps, CommandsAreGivenForBehindTheTransfer) {
    curl.performances = {[] {
        strings commands;
        for (auto *one = curl.pointer<const curl_slist *>(CURLOPT_POSTQUOTE); one != nullptr;
             one = one->next)
            commands.emplace_back(one->data);
        EXPECT_EQ(commands, (strings{"first", "second", "third"}));
        return CURLE_REMOTE_DISK_FULL;
    }};
    EXPECT_EQ(ftp_command(url, "user", "secret", &quiet, "first", "second", "third", nullptr),
              CURLE_REMOTE_DISK_FULL);
    EXPECT_EQ(curl.steps, behind_session({"no body = 1", "header = 1", "write function", "commands",
                                          "perform", "clean up"}));
}

TEST_F(FtpSteps, SessionsAreAsTheOptionsSay) {
    const struct {
        const char *what;
        ftp_opt opt;
        strings told;
    } rows[] = {
        {"chatty", {0, 0, 1, 1, 0, nullptr}, {"verbose = 1", "no progress = 0"}},
        {"flags are any bit",
         {0, 0, std::int64_t{1} << 32, -1, 0, nullptr},
         {"verbose = 1", "no progress = 0"}},
        {"timeouts",
         {7, 9, 0, 0, 0, nullptr},
         {"verbose = 0", "no progress = 1", "connect timeout = 7", "response timeout = 9"}},
        {"one alone",
         {0, 9, 0, 0, 0, nullptr},
         {"verbose = 0", "no progress = 1", "response timeout = 9"}},
        {"neither", {-1, INT64_MIN, 0, 0, 0, nullptr}, {"verbose = 0", "no progress = 1"}},
    };
    for (const auto &row : rows) {
        const std::function<void()> calls[] = {
            [&] { upload(row.opt); },
            [&] { download(row.opt); },
            [&] { ftp_command(url, "user", "secret", &row.opt, nullptr); },
            [&] { ftp_rename(url, "user", "secret", &row.opt, "a", "b"); },
        };
        write_file(local_, "");
        for (const auto &call : calls) {
            curl = stand_in();
            call();
            const strings told = steps_behind("login = user:secret");
            const auto count = static_cast<std::ptrdiff_t>(row.told.size());
            ASSERT_GT(told.size(), row.told.size());
            EXPECT_EQ(strings(told.begin(), told.begin() + count), row.told) << row.what;
            EXPECT_EQ(told[row.told.size()].find("timeout"), string::npos);
        }
    }
}

TEST_F(FtpSteps, SessionsAreChattyWithoutOptions) {
    ftp_command(url, "user", "secret", nullptr, nullptr);
    EXPECT_EQ(steps_behind("login = user:secret"),
              (strings{"verbose = 1", "no progress = 0", "no body = 1", "header = 1",
                       "write function", "commands", "perform", "clean up"}));
}

/* ---- What it calls back --------------------------------------------------------------------- */

/* The local file has 100 bytes. */
TEST_F(FtpSteps, TakesTheSizeFromItsLine) {
    const strings sends_all = {"append = 0", "perform", "clean up"};
    const strings sends_tail = {"append = 1", "perform", "clean up"};
    const strings sends_nothing = {"clean up"};
    const struct {
        string header;
        strings then;
    } rows[] = {
        {"Content-Length: 60\r\n", sends_tail},
        {"Content-Length: 60", sends_tail},
        {"Content-Length: 100\r\n", sends_nothing},
        {"Content-Length: 101\r\n", sends_all},
        {"Content-Length: 0\r\n", sends_all},
        {"Content-Length:60\r\n", sends_tail},
        {"Content-Length:  \t60 bytes", sends_tail},
        {"Content-Length: 9223372036854775807\r\n", sends_all},
        {"Content-Length: 99999999999999999999\r\n", sends_all},
        {"content-length: 60\r\n", sends_all},
        {"X-Content-Length: 60\r\n", sends_all},
        {"Accept-ranges: bytes\r\n", sends_all},
        {"Content-Length: many\r\n", sends_all},
        {"Content-Len", sends_all},
        {"Content-Length: ", sends_all},
        {"C", sends_all},
        {"\r\n", sends_all},
        {"", sends_all},
        {string("Content-Length: 60\0", 19), sends_tail},
        {"Content-Length: " + string(500, ' ') + "60", sends_all},
        {string(100'000, 'x'), sends_all},
        {"Content-Length: 60" + string(100'000, '\n'), sends_tail},
    };
    write_file(local_, string(100, 'x'));
    for (const auto &row : rows) {
        curl = stand_in();
        curl.performances = {tells(row.header)};
        EXPECT_EQ(upload(), CURLE_OK);
        EXPECT_EQ(steps_behind("upload = 1").back(), "clean up");
        const strings all = curl.steps;
        const strings last(all.end() - static_cast<std::ptrdiff_t>(row.then.size()), all.end());
        EXPECT_EQ(last, row.then) << row.header.substr(0, 80);
        EXPECT_EQ(std::count(all.begin(), all.end(), "perform"), row.then.size() == 1 ? 1 : 2)
            << row.header.substr(0, 80);
    }
}

/* A line that begins like it and holds no number. */
TEST_F(FtpSteps, ForgetsTheSizeWhereALineBreaksOff) {
    write_file(local_, string(100, 'x'));
    curl.performances = {[] {
        curl.tell_header("Content-Length: 60\r\n");
        curl.tell_header("Content-Le");
        return CURLE_OK;
    }};
    EXPECT_EQ(upload(), CURLE_OK);
    EXPECT_EQ(steps_behind("append = 0"), (strings{"perform", "clean up"}));
}

TEST_F(FtpSteps, KeepsTheSizeWhereOtherLinesFollow) {
    write_file(local_, string(100, 'x'));
    curl.performances = {[] {
        for (const char *line : {"Content-Length: 60\r\n", "Accept-ranges: bytes\r\n", "\r\n"})
            curl.tell_header(line);
        return CURLE_OK;
    }};
    EXPECT_EQ(upload(), CURLE_OK);
    EXPECT_EQ(steps_behind("append = 1"), (strings{"perform", "clean up"}));
}

TEST_F(FtpSteps, ReadsWhatIsToBeSent) {
    write_file(local_, "0123456789");
    curl.performances = {tells(size_line(3)), [] {
                             char buffer[16] = "";
                             EXPECT_EQ(curl.read(buffer, 1, 2), 2U);
                             EXPECT_STREQ(buffer, "34");
                             EXPECT_EQ(curl.read(buffer, 3, 1), 3U);
                             EXPECT_STREQ(buffer, "567");
                             EXPECT_EQ(curl.read(buffer, 1, sizeof buffer), 2U);
                             EXPECT_EQ(curl.read(buffer, 1, sizeof buffer), 0U);
                             EXPECT_EQ(curl.write("swallowed"), 9U);
                             return CURLE_OK;
                         }};
    EXPECT_EQ(upload(), CURLE_OK);
}

TEST_F(FtpSteps, AbortsWhereTheStreamIsInError) {
    write_file(local_, "0123456789");
    FILE *stream = std::fopen(local_.c_str(), "rb");
    std::fputc('x', stream); // which it is not open for
    curl.performances = {gives(CURLE_OK), [] {
                             char buffer[4] = "";
                             EXPECT_EQ(curl.read(buffer, 1, sizeof buffer),
                                       std::size_t{CURL_READFUNC_ABORT});
                             EXPECT_STREQ(buffer, "");
                             return CURLE_ABORTED_BY_CALLBACK;
                         }};
    EXPECT_EQ(upload({0, 0, 0, 0, 0, stream}), CURLE_ABORTED_BY_CALLBACK);
    std::fclose(stream);
}

/* The memory of a process has no byte at its beginning. */
TEST_F(FtpSteps, AbortsWhereReadingFails) {
    FILE *stream = std::fopen("/proc/self/mem", "rb");
    curl.performances = {gives(CURLE_OK), [] {
                             char buffer[4] = "";
                             EXPECT_EQ(curl.read(buffer, 1, sizeof buffer),
                                       std::size_t{CURL_READFUNC_ABORT});
                             return CURLE_ABORTED_BY_CALLBACK;
                         }};
    EXPECT_EQ(upload({0, 0, 0, 0, 0, stream}), CURLE_ABORTED_BY_CALLBACK);
    std::fclose(stream);
}

TEST_F(FtpSteps, WritesWhatIsFetched) {
    curl.performances = {[] {
        EXPECT_EQ(curl.write("some "), 5U);
        EXPECT_EQ(curl.write("text", 2), 4U);
        EXPECT_EQ(curl.write(""), 0U);
        return CURLE_OK;
    }};
    EXPECT_EQ(download(), CURLE_OK);
    EXPECT_EQ(content_of(local_), "some text");
}

TEST_F(FtpSteps, TellsHowMuchWasWritten) {
    FILE *full = std::fopen("/dev/full", "wb");
    std::setvbuf(full, nullptr, _IONBF, 0);
    curl.performances = {[] {
        EXPECT_EQ(curl.write("some text"), 0U);
        return CURLE_WRITE_ERROR;
    }};
    EXPECT_EQ(download({0, 0, 0, 0, 0, full}), CURLE_WRITE_ERROR);
    std::fclose(full);
}

/* ---- Results -------------------------------------------------------------------------------- */

TEST_F(FtpSteps, ReturnsWhatTheProbeOfAnUploadGave) {
    write_file(local_, "some text");
    for (const CURLcode result : {CURLE_COULDNT_CONNECT, CURLE_LOGIN_DENIED, CURLE_PARTIAL_FILE,
                                  CURLE_OPERATION_TIMEDOUT, CURLE_BAD_DOWNLOAD_RESUME}) {
        curl = stand_in();
        curl.performances = {gives(result)};
        EXPECT_EQ(upload(), result);
        EXPECT_EQ(steps_behind("perform"), strings{"clean up"});
    }
}

TEST_F(FtpSteps, SendsAllOfAFileThatTheProbeDoesNotFind) {
    write_file(local_, "some text");
    curl.performances = {gives(CURLE_REMOTE_FILE_NOT_FOUND), gives(CURLE_UPLOAD_FAILED)};
    EXPECT_EQ(upload(), CURLE_UPLOAD_FAILED);
    EXPECT_EQ(steps_behind("append = 0"), (strings{"perform", "clean up"}));
}

TEST_F(FtpSteps, FetchesFromTheBeginningUntilTheServerCanResume) {
    write_file(local_, "some text");
    const auto refuses = [] {
        curl.write("rubbish");
        return CURLE_BAD_DOWNLOAD_RESUME;
    };
    curl.performances = {refuses, refuses, [] {
                             curl.write("all of it");
                             return CURLE_OK;
                         }};
    EXPECT_EQ(download(), CURLE_OK);
    EXPECT_EQ(content_of(local_), "all of it");
    EXPECT_EQ(steps_behind("write data"),
              (strings{"resume from = 9", "perform", "resume from = 0", "perform",
                       "resume from = 0", "perform", "clean up"}));
}

TEST_F(FtpSteps, LeavesNothingOfADownloadThatFails) {
    const auto fails = [] {
        curl.write("rubbish");
        return CURLE_PARTIAL_FILE;
    };
    curl.performances = {fails};
    EXPECT_EQ(download(), CURLE_PARTIAL_FILE);
    EXPECT_EQ(dir_.names(), strings{});
    write_file(local_, "some text");
    curl.performances = {gives(CURLE_OK), fails};
    EXPECT_EQ(download(), CURLE_PARTIAL_FILE);
    EXPECT_EQ(content_of(local_), "some text");
    curl.performances = {gives(CURLE_OK), gives(CURLE_OK), gives(CURLE_BAD_DOWNLOAD_RESUME), fails};
    EXPECT_EQ(download(), CURLE_PARTIAL_FILE);
    EXPECT_EQ(content_of(local_), "");
    EXPECT_EQ(dir_.names(), strings{"local"});
}

TEST_F(FtpSteps, CountsBeyondFourGigabytes) {
    constexpr std::int64_t huge = 5'000'000'000;
    write_file(local_, "");
    std::filesystem::resize_file(local_, huge);
    EXPECT_EQ(download(), CURLE_OK);
    EXPECT_EQ(steps_behind("write data"),
              (strings{"resume from = 5000000000", "perform", "clean up"}));
    FILE *stream = std::fopen(local_.c_str(), "rb");
    curl = stand_in();
    curl.performances = {tells(size_line(huge - 3)), [&] {
                             EXPECT_EQ(ftello(stream), huge - 3);
                             return CURLE_OK;
                         }};
    EXPECT_EQ(upload({0, 0, 0, 0, 0, stream}), CURLE_OK);
    EXPECT_EQ(steps_behind("append = 1"), (strings{"perform", "clean up"}));
    std::fclose(stream);
}

TEST_F(FtpSteps, TellsWhereThereIsNoHandle) {
    curl.has_handle = false;
    EXPECT_EQ(download(), CURLE_GOT_NOTHING);
    EXPECT_EQ(dir_.names(), strings{});
    write_file(local_, "some text");
    EXPECT_EQ(download(), CURLE_GOT_NOTHING);
    EXPECT_EQ(upload(), CURLE_GOT_NOTHING);
    EXPECT_EQ(content_of(local_), "some text");
    EXPECT_EQ(ftp_command(url, "user", "secret", &quiet, "NOOP", nullptr), CURLE_QUOTE_ERROR);
    EXPECT_EQ(ftp_rename(url, "user", "secret", &quiet, "a", "b"), CURLE_QUOTE_ERROR);
    EXPECT_EQ(curl.steps, strings{});
}

TEST_F(FtpSteps, OpensNoSessionWithoutItsUrlOrItsLogin) {
    write_file(local_, "some text");
    for (const CURLoption option : {CURLOPT_URL, CURLOPT_USERPWD}) {
        curl = stand_in();
        curl.refused = option;
        EXPECT_EQ(upload(), CURLE_OUT_OF_MEMORY);
        EXPECT_EQ(download(), CURLE_OUT_OF_MEMORY);
        EXPECT_EQ(ftp_command(url, "user", "secret", &quiet, "NOOP", nullptr), CURLE_OUT_OF_MEMORY);
        EXPECT_EQ(std::count(curl.steps.begin(), curl.steps.end(), "perform"), 0);
        EXPECT_EQ(std::count(curl.steps.begin(), curl.steps.end(), "clean up"), 3);
    }
    EXPECT_EQ(content_of(local_), "some text");
}

TEST_F(FtpSteps, SendsNoCommandWhereMemoryForOneRunsOut) {
    for (const int n : {0, 1, 2}) {
        curl = stand_in();
        curl.commands_left = n;
        EXPECT_EQ(ftp_command(url, "user", "secret", &quiet, "a", "b", "c", nullptr),
                  CURLE_OUT_OF_MEMORY);
        EXPECT_EQ(curl.steps, behind_session({"clean up"}));
        EXPECT_EQ(curl.lists, 0);
    }
}

TEST_F(FtpSteps, EndsTheProcessWhereMemoryForANameRunsOut) {
    for (const int n : {0, 1}) {
        EXPECT_EQ(run_in_child([&] {
                      names_left = n;
                      ftp_rename(url, "user", "secret", &quiet, "a", "b");
                  }),
                  exited(1));
    }
}

} // namespace

int __wrap_astrcatf(char **text, const char *format, ...) {
    if (names_left-- == 0)
        return -1;
    va_list arguments;
    va_start(arguments, format);
    char *name = nullptr;
    const int length = vasprintf(&name, format, arguments);
    va_end(arguments);
    __real_astrcatf(text, "%s", name);
    std::free(name);
    return length;
}
