/* SPDX-License-Identifier: MIT */
#include "xftp.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "ftp_server.h"
#include "leaves_nothing.h"
#include "process_limits.h"
#include "small_disk.h"
#include "temp_dir.h"
#include "threads.h"

namespace {

using keel_test::child_result;
using keel_test::content_of;
using keel_test::exited;
using keel_test::ftp_server;
using keel_test::run_in_child;
using keel_test::temp_dir;
using keel_test::write_file;
using std::string;
using strings = std::vector<string>;

const CURLcode libcurl_is_ready = curl_global_init(CURL_GLOBAL_DEFAULT);

constexpr ftp_opt quiet = {0, 0, 0, 0, 0, nullptr};
constexpr ftp_opt overwriting = {0, 0, 0, 0, 1, nullptr};

ftp_opt with(FILE *stream) {
    return {0, 0, 0, 0, 0, stream};
}

/* Bytes that no other seed gives. */
string bytes(std::size_t size, unsigned seed = 1) {
    string made(size, '\0');
    std::minstd_rand random(seed);
    for (char &byte : made)
        byte = static_cast<char>(random());
    return made;
}

struct close_stream {
    void operator()(FILE *stream) const { EXPECT_EQ(std::fclose(stream), 0); }
};
using open_stream = std::unique_ptr<FILE, close_stream>;

open_stream opened(const string &path, const char *mode) {
    return open_stream(std::fopen(path.c_str(), mode));
}

class Ftp : public keel_test::LeavesNothing {
  protected:
    /* The local file. */
    const char *local() const { return local_.c_str(); }
    void make_local(const string &content) const { write_file(local_, content); }
    string content() const { return content_of(local_); }
    bool has_local() const { return std::filesystem::exists(local_); }

    CURLcode upload(const ftp_server &to, const string &name, const ftp_opt &opt = quiet) const {
        return ftp_upload(to.url(name).c_str(), local(), to.user(), to.password(), &opt);
    }
    CURLcode download(const ftp_server &from, const string &name,
                      const ftp_opt &opt = quiet) const {
        return ftp_download(from.url(name).c_str(), local(), from.user(), from.password(), &opt);
    }

    temp_dir dir_;
    string local_ = dir_ / "local file";
};

/* On either server. */
class FtpTransfer : public Ftp, public testing::WithParamInterface<ftp_server::kind> {
  protected:
    void TearDown() override {
        own_server_.reset();
        LeavesNothing::TearDown();
    }

    CURLcode upload(const string &name, const ftp_opt &opt = quiet) const {
        return Ftp::upload(server_, name, opt);
    }
    CURLcode download(const string &name, const ftp_opt &opt = quiet) const {
        return Ftp::download(server_, name, opt);
    }

  private:
    std::unique_ptr<const ftp_server> own_server_ = std::make_unique<ftp_server>(GetParam());

  protected:
    const ftp_server &server_ = *own_server_;
};

INSTANTIATE_TEST_SUITE_P(From, FtpTransfer,
                         testing::Values(ftp_server::scripted, ftp_server::independent),
                         [](const auto &row) {
                             return row.param == ftp_server::scripted ? "Scripted" : "Independent";
                         });

constexpr std::size_t large = 3'000'001;
constexpr int absent = -1;

/* ---- Uploads -------------------------------------------------------------------------------- */

/* What is there differs from what is sent, so that each byte tells where it is from. */
TEST_P(FtpTransfer, UploadsWhatTheServerDoesNotHave) {
    enum kept { all_sent, tail_sent, nothing_sent };
    const struct {
        int remote, local;
        kept what;
    } rows[] = {
        {absent, 100, all_sent},    {0, 100, all_sent},           {1, 100, tail_sent},
        {60, 100, tail_sent},       {99, 100, tail_sent},         {100, 100, nothing_sent},
        {101, 100, all_sent},       {150, 100, all_sent},         {absent, 0, all_sent},
        {0, 0, all_sent},           {150, 0, all_sent},           {absent, large, all_sent},
        {70'000, large, tail_sent}, {large, large, nothing_sent}, {large + 1, large, all_sent},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.local) + " onto " + std::to_string(row.remote));
        const string here = bytes(static_cast<std::size_t>(row.local), 1);
        const string there = bytes(static_cast<std::size_t>(std::max(row.remote, 0)), 2);
        std::filesystem::remove(server_.path("file"));
        if (row.remote != absent)
            server_.put("file", there);
        make_local(here);
        EXPECT_EQ(upload("file"), CURLE_OK);
        EXPECT_TRUE(server_.has("file"));
        EXPECT_TRUE(server_.content("file") ==
                    (row.what == all_sent
                         ? here
                         : there + here.substr(std::min(here.size(), there.size()))));
        EXPECT_TRUE(content() == here);
    }
}

TEST_P(FtpTransfer, UploadsAllWhereItOverwrites) {
    make_local(bytes(100, 1));
    for (const int remote : {absent, 0, 60, 100, 150}) {
        std::filesystem::remove(server_.path("file"));
        if (remote != absent)
            server_.put("file", bytes(static_cast<std::size_t>(remote), 2));
        EXPECT_EQ(upload("file", overwriting), CURLE_OK);
        EXPECT_EQ(server_.content("file"), bytes(100, 1)) << remote;
    }
    const ftp_opt high_bits = {0, 0, 0, 0, std::int64_t{1} << 40, nullptr};
    server_.put("file", bytes(60, 2));
    EXPECT_EQ(upload("file", high_bits), CURLE_OK);
    EXPECT_EQ(server_.content("file"), bytes(100, 1));
}

TEST_P(FtpTransfer, UploadsIntoDirectoriesThatAreMissing) {
    make_local(bytes(100));
    for (const char *name : {"a/b/c/file", "a/b/other/file", "a/b/c/another"}) {
        EXPECT_EQ(upload(name), CURLE_OK);
        EXPECT_EQ(server_.content(name), bytes(100)) << name;
    }
}

TEST_P(FtpTransfer, TakesNamesWithBlanks) {
    make_local(bytes(100));
    EXPECT_EQ(upload("some%20logs/of%20to-day.log"), CURLE_OK);
    EXPECT_EQ(server_.content("some logs/of to-day.log"), bytes(100));
    make_local("");
    EXPECT_EQ(download("some%20logs/of%20to-day.log"), CURLE_OK);
    EXPECT_EQ(content(), bytes(100));
    EXPECT_EQ(ftp_rename(server_.url("some%20logs/").c_str(), server_.user(), server_.password(),
                         &quiet, "of to-day.log", "of another day.log"),
              CURLE_OK);
    EXPECT_EQ(server_.content("some logs/of another day.log"), bytes(100));
}

TEST_P(FtpTransfer, UploadsTheCallersStreamAndLeavesItOpen) {
    make_local(bytes(100, 1));
    const open_stream stream = opened(local_, "rb");
    const ftp_opt opt = with(stream.get());
    for (const int remote : {absent, 60, 150}) {
        std::filesystem::remove(server_.path("file"));
        const string there = bytes(static_cast<std::size_t>(std::max(remote, 0)), 2);
        if (remote != absent)
            server_.put("file", there);
        std::fseek(stream.get(), 33, SEEK_SET); // which does not matter
        EXPECT_EQ(ftp_upload(server_.url("file").c_str(), nullptr, server_.user(),
                             server_.password(), &opt),
                  CURLE_OK);
        const string kept = remote == 60 ? there : "";
        EXPECT_EQ(server_.content("file"), kept + bytes(100, 1).substr(kept.size())) << remote;
        EXPECT_EQ(std::ftell(stream.get()), 100);
    }
}

TEST_P(FtpTransfer, PrefersTheCallersStreamToTheLocalFile) {
    make_local("from the local file");
    write_file(dir_ / "stream", "from the stream");
    {
        const open_stream stream = opened(dir_ / "stream", "rb");
        EXPECT_EQ(upload("file", with(stream.get())), CURLE_OK);
    }
    EXPECT_EQ(server_.content("file"), "from the stream");
    const open_stream stream = opened(dir_ / "fetched", "w+b");
    EXPECT_EQ(download("file", with(stream.get())), CURLE_OK);
    EXPECT_EQ(content_of(dir_ / "fetched"), "from the stream");
    EXPECT_EQ(content(), "from the local file");
}

TEST_F(Ftp, AppendsOrStoresAndSendsNoMoreThanThat) {
    const ftp_server server;
    make_local(bytes(100));
    const struct {
        int remote;
        const ftp_opt &opt;
        strings seen;
    } rows[] = {
        {absent, quiet, {"SIZE file", "STOR file"}},
        {0, quiet, {"SIZE file", "STOR file"}},
        {60, quiet, {"SIZE file", "APPE file"}},
        {100, quiet, {"SIZE file"}},
        {150, quiet, {"SIZE file", "STOR file"}},
        {absent, overwriting, {"SIZE file", "STOR file"}},
        {60, overwriting, {"SIZE file", "STOR file"}},
        {100, overwriting, {"SIZE file", "STOR file"}},
    };
    std::size_t seen_before = 0;
    for (const auto &row : rows) {
        std::filesystem::remove(server.path("file"));
        if (row.remote != absent)
            server.put("file", bytes(static_cast<std::size_t>(row.remote)));
        EXPECT_EQ(upload(server, "file", row.opt), CURLE_OK);
        strings seen = server.commands({"SIZE", "APPE", "STOR", "MKD", "DELE", "RNFR"});
        seen.erase(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(seen_before));
        seen_before += seen.size();
        EXPECT_EQ(seen, row.seen) << row.remote;
    }
    EXPECT_EQ(upload(server, "x/y/file"), CURLE_OK);
    EXPECT_EQ(server.commands({"MKD"}), (strings{"MKD x", "MKD y"}));
}

TEST_F(Ftp, FailsToUploadWhatCannotBeOpened) {
    const ftp_server server;
    write_file(dir_ / "a file", "");
    const string within_a_file = dir_ / "a file/local";
    for (const char *path :
         {local(), "", within_a_file.c_str(), static_cast<const char *>(nullptr)})
        EXPECT_EQ(
            ftp_upload(server.url("file").c_str(), path, server.user(), server.password(), &quiet),
            CURLE_GOT_NOTHING);
    EXPECT_EQ(server.commands(), strings{});
}

TEST_F(Ftp, AbortsTheUploadOfAStreamInError) {
    const ftp_server server;
    make_local(bytes(100));
    const open_stream stream = opened(local_, "rb");
    EXPECT_EQ(std::fputc('x', stream.get()), EOF);
    EXPECT_NE(std::ferror(stream.get()), 0);
    EXPECT_EQ(upload(server, "file", with(stream.get())), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_NE(server.content("file"), bytes(100));
}

TEST_F(Ftp, AbortsTheUploadOfWhatCannotBeRead) {
    const ftp_server server;
    EXPECT_EQ(ftp_upload(server.url("file").c_str(), dir_.path().c_str(), server.user(),
                         server.password(), &quiet),
              CURLE_ABORTED_BY_CALLBACK);
    EXPECT_EQ(server.content("file"), "");
}

TEST_F(Ftp, UploadsAStreamThatCannotBeRewound) {
    const ftp_server server;
    for (const int remote : {absent, 60}) {
        if (remote != absent)
            server.put("file", bytes(60, 2));
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        EXPECT_EQ(write(ends[1], "some text", 9), 9);
        close(ends[1]);
        const open_stream stream(fdopen(ends[0], "rb"));
        EXPECT_EQ(upload(server, "file", with(stream.get())), CURLE_OK);
        EXPECT_EQ(server.content("file"), "some text") << remote;
    }
}

TEST_F(Ftp, UploadsWhatTheCallersStreamStillHoldsBack) {
    const ftp_server server;
    const open_stream stream = opened(local_, "w+b");
    std::fputs("some text", stream.get());
    EXPECT_EQ(upload(server, "file", with(stream.get())), CURLE_OK);
    EXPECT_EQ(server.content("file"), "some text");
    std::fputs(", and more", stream.get());
    EXPECT_EQ(upload(server, "file", with(stream.get())), CURLE_OK);
    EXPECT_EQ(server.content("file"), "some text, and more");
    EXPECT_EQ(server.commands({"STOR", "APPE"}), (strings{"STOR file", "APPE file"}));
}

/* Such as a server may well tell, or be made to tell. */
TEST_F(Ftp, UploadsAllWhereTheSizeIsOfNoUse) {
    make_local(bytes(100));
    for (const char *answer :
         {"500 Never heard of it", "502 No", "550 Not here", "213 0", "213 many", "213 101",
          "213 9223372036854775807", "213 99999999999999999999999", "213-60\r\n213 Yes"}) {
        const ftp_server server({"--answer", string("SIZE=") + answer});
        server.put("file", bytes(60, 2));
        EXPECT_EQ(upload(server, "file"), CURLE_OK) << answer;
        EXPECT_EQ(server.content("file"), bytes(100)) << answer;
    }
}

TEST_F(Ftp, TellsWhatTheServerRefusesOfAnUpload) {
    make_local(bytes(100));
    const struct {
        const char *answer;
        const char *name;
        CURLcode result;
    } rows[] = {
        {"STOR=553 No", "other", CURLE_UPLOAD_FAILED},
        {"APPE=553 No", "file", CURLE_UPLOAD_FAILED},
        {"APPE=500 No", "file", CURLE_UPLOAD_FAILED},
        {"MKD=550 No", "missing/file", CURLE_REMOTE_ACCESS_DENIED},
        {"EPSV=500 No", "file", CURLE_FTP_WEIRD_PASV_REPLY},
    };
    for (const auto &row : rows) {
        const ftp_server server({"--answer", row.answer, "--answer", "PASV=500 No"});
        server.put("file", bytes(60, 2));
        EXPECT_EQ(upload(server, row.name), row.result) << row.answer;
        EXPECT_EQ(server.content("file"), bytes(60, 2)) << row.answer;
    }
}

TEST_F(Ftp, AppendsAfterACut) {
    const string all = bytes(large);
    make_local(all);
    for (const char *ending : {"cut", "die"}) {
        ftp_server server({"--after", "1000001", "--then", ending});
        EXPECT_NE(upload(server, "file"), CURLE_OK) << ending;
        EXPECT_TRUE(server.content("file") == all.substr(0, 1'000'001)) << ending;
        server.restart();
        EXPECT_EQ(upload(server, "file"), CURLE_OK) << ending;
        EXPECT_TRUE(server.content("file") == all) << ending;
        EXPECT_EQ(server.commands({"STOR", "APPE"}), (strings{"STOR file", "APPE file"}));
    }
}

/* ---- Downloads ------------------------------------------------------------------------------ */

TEST_P(FtpTransfer, DownloadsWhatIsMissingHere) {
    const struct {
        int local, remote;
        bool keeps; /* what is here already */
    } rows[] = {
        {absent, 100, false}, {0, 100, false},           {1, 100, true},
        {60, 100, true},      {100, 100, true},          {101, 100, false},
        {1000, 100, false},   {1000, 5000, true},        {absent, 0, false},
        {0, 0, false},        {absent, large, false},    {70'000, large, true},
        {large, large, true}, {large + 1, large, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.remote) + " onto " + std::to_string(row.local));
        const string there = bytes(static_cast<std::size_t>(row.remote), 1);
        const string here = bytes(static_cast<std::size_t>(std::max(row.local, 0)), 2);
        server_.put("file", there);
        std::filesystem::remove(local_);
        if (row.local != absent)
            make_local(here);
        EXPECT_EQ(download("file"), CURLE_OK);
        EXPECT_TRUE(has_local());
        EXPECT_TRUE(content() == (row.keeps ? here + there.substr(here.size()) : there));
        EXPECT_TRUE(server_.content("file") == there);
    }
}

TEST_P(FtpTransfer, DownloadsIntoTheCallersStreamAndLeavesItOpen) {
    server_.put("file", bytes(100, 1));
    for (const int before : {0, 60, 100, 150}) {
        const string here = bytes(static_cast<std::size_t>(before), 2);
        make_local(here);
        const open_stream stream = opened(local_, "a+b");
        const ftp_opt opt = with(stream.get());
        EXPECT_EQ(ftp_download(server_.url("file").c_str(), nullptr, server_.user(),
                               server_.password(), &opt),
                  CURLE_OK);
        const string kept = before > 100 ? "" : here;
        EXPECT_EQ(content(), kept + bytes(100, 1).substr(kept.size())) << before;
        EXPECT_NE(std::fputs("more", stream.get()), EOF);
        EXPECT_EQ(std::fflush(stream.get()), 0);
        EXPECT_EQ(content(), kept + bytes(100, 1).substr(kept.size()) + "more") << before;
    }
}

/* Wherever that stands, and whatever it still holds back. */
TEST_F(Ftp, DownloadsBehindWhatTheCallersStreamHolds) {
    const ftp_server server;
    server.put("file", bytes(100, 1));
    make_local(bytes(60, 2));
    {
        const open_stream stream = opened(local_, "r+b");
        EXPECT_EQ(download(server, "file", with(stream.get())), CURLE_OK);
    }
    EXPECT_EQ(content(), bytes(60, 2) + bytes(100, 1).substr(60));
    {
        const open_stream stream = opened(local_, "w+b");
        std::fputs("some text", stream.get());
        EXPECT_EQ(download(server, "file", with(stream.get())), CURLE_OK);
    }
    EXPECT_EQ(content(), "some text" + bytes(100, 1).substr(9));
}

TEST_F(Ftp, GoesOnAtTheEndOfAStreamThatWasCutBack) {
    const ftp_server server({"--after", "500"});
    server.put("file", bytes(5000));
    const open_stream stream = opened(local_, "w+b");
    std::fputs("some text", stream.get());
    EXPECT_EQ(download(server, "file", with(stream.get())), CURLE_PARTIAL_FILE);
    EXPECT_EQ(content(), "some text");
    std::fputs(", and more", stream.get());
    std::fflush(stream.get());
    EXPECT_EQ(content(), "some text, and more");
}

TEST_F(Ftp, ResumesAtTheLengthOfTheFileThatALinkNames) {
    const ftp_server server;
    server.put("file", bytes(5000));
    write_file(dir_ / "target", bytes(1000));
    std::filesystem::create_symlink(dir_ / "target", local_);
    EXPECT_EQ(download(server, "file"), CURLE_OK);
    EXPECT_EQ(content_of(dir_ / "target"), bytes(5000));
    EXPECT_EQ(server.commands({"REST"}), strings{"REST 1000"});
    EXPECT_NE(download(server, "nothing"), CURLE_OK);
    EXPECT_EQ(content_of(dir_ / "target"), bytes(5000));
    EXPECT_EQ(dir_.names(), (strings{"local file", "target"}));
}

TEST_P(FtpTransfer, LeavesNoFileWhereADownloadFails) {
    EXPECT_EQ(download("nothing"), CURLE_REMOTE_FILE_NOT_FOUND);
    EXPECT_EQ(download("no/directory"), CURLE_REMOTE_ACCESS_DENIED);
    EXPECT_EQ(dir_.names(), strings{});
}

TEST_P(FtpTransfer, LeavesAFileAsItWasWhereADownloadFails) {
    for (const std::size_t size : {0U, 1U, 1000U}) {
        make_local(bytes(size));
        EXPECT_NE(download("nothing"), CURLE_OK);
        EXPECT_TRUE(has_local());
        EXPECT_EQ(content(), bytes(size));
        const open_stream stream = opened(local_, "a+b");
        EXPECT_NE(download("nothing", with(stream.get())), CURLE_OK);
        EXPECT_EQ(content(), bytes(size));
    }
}

TEST_F(Ftp, ResumesADownloadAtTheLengthOfTheFile) {
    const ftp_server server;
    server.put("file", bytes(5000));
    make_local(bytes(1000));
    EXPECT_EQ(download(server, "file"), CURLE_OK);
    EXPECT_EQ(content(), bytes(5000));
    EXPECT_EQ(server.commands({"REST", "RETR"}), (strings{"REST 1000", "RETR file"}));
}

TEST_F(Ftp, FetchesAllAgainWhereTheServerIsNotThatFar) {
    const ftp_server server;
    server.put("file", bytes(500));
    make_local(bytes(1000, 2));
    EXPECT_EQ(download(server, "file"), CURLE_OK);
    EXPECT_EQ(content(), bytes(500));
    EXPECT_EQ(server.commands({"REST", "RETR"}), strings{"RETR file"});
}

/* 31 is not the result that makes it begin anew. */
TEST_F(Ftp, FailsWhereTheServerDoesNotResumeAtAll) {
    for (const char *answer : {"REST=502 No", "REST=501 No"}) {
        const ftp_server server({"--answer", answer});
        server.put("file", bytes(5000));
        make_local(bytes(1000));
        EXPECT_EQ(download(server, "file"), CURLE_FTP_COULDNT_USE_REST);
        EXPECT_EQ(content(), bytes(1000));
        std::filesystem::remove(local_);
        EXPECT_EQ(download(server, "file"), CURLE_OK) << "from its beginning";
        EXPECT_EQ(content(), bytes(5000));
    }
}

TEST_F(Ftp, TakesBackWhatACutDownloadBrought) {
    const struct {
        int local;
        std::size_t left;
    } rows[] = {{absent, 0}, {0, 0}, {1000, 1000}, {large + 1, 0}};
    for (const char *ending : {"cut", "die"})
        for (const auto &row : rows)
            for (const bool streamed : {false, true}) {
                SCOPED_TRACE(string(ending) + ", " + std::to_string(row.local) +
                             (streamed ? ", stream" : ""));
                const ftp_server server({"--after", "1000001", "--then", ending});
                server.put("file", bytes(large));
                std::filesystem::remove(local_);
                if (row.local != absent || streamed)
                    make_local(bytes(static_cast<std::size_t>(std::max(row.local, 0)), 2));
                const open_stream stream = opened(local_, streamed ? "a+b" : "r");
                const CURLcode result =
                    download(server, "file", with(streamed ? stream.get() : nullptr));
                EXPECT_TRUE(string(ending) == "die" ? result != CURLE_OK
                                                    : result == CURLE_PARTIAL_FILE)
                    << result;
                EXPECT_EQ(has_local(), row.local != absent || streamed);
                EXPECT_TRUE(content() == bytes(row.left, 2));
            }
}

TEST_F(Ftp, FailsToDownloadToWhatCannotBeOpened) {
    const ftp_server server;
    server.put("file", "some text");
    const string there = dir_.path();
    const string nowhere = dir_ / "nowhere/local";
    for (const char *path :
         {there.c_str(), nowhere.c_str(), "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(ftp_download(server.url("file").c_str(), path, server.user(), server.password(),
                               &quiet),
                  CURLE_GOT_NOTHING);
    EXPECT_EQ(server.commands(), strings{});
    EXPECT_EQ(dir_.names(), strings{});
}

/* Both where a write fails under way and where the last one does, of a file and of a stream. */
TEST_F(Ftp, LeavesTheFileAsItWasWhereTheDiskIsFull) {
    const ftp_server server;
    for (const std::size_t size : {std::size_t{1} << 20, std::size_t{12} << 20}) {
        server.put("file", bytes(size));
        keel_test::on_small_disk(dir_.path(), "64k", [&] {
            EXPECT_EQ(download(server, "file"), CURLE_WRITE_ERROR);
            EXPECT_EQ(dir_.names(), strings{});
            make_local(bytes(1000));
            EXPECT_EQ(download(server, "file"), CURLE_WRITE_ERROR);
            EXPECT_EQ(content(), bytes(1000));
            FILE *stream = std::fopen(local(), "a+b");
            EXPECT_EQ(download(server, "file", with(stream)), CURLE_WRITE_ERROR);
            std::fclose(stream);
            EXPECT_EQ(content(), bytes(1000));
        });
    }
}

/* ---- The disk ------------------------------------------------------------------------------- */

/* The status flags of the descriptor that this process has on a file, or -1. */
long flags_of(const string &path) {
    const std::vector<int> found = keel_test::descriptors_of(path);
    if (found.size() != 1)
        return -1;
    return fcntl(found.front(), F_GETFL);
}

TEST_F(Ftp, WritesADownloadSynchronously) {
    ftp_server server({"--answer", "RETR="});
    server.put("file", bytes(100));
    make_local("");
    keel_test::worker transfer([&] { EXPECT_NE(download(server, "file"), CURLE_OK); });
    EXPECT_TRUE(server.is_sent("RETR"));
    const long flags = flags_of(local_);
    EXPECT_EQ(flags & O_SYNC, O_SYNC);
    EXPECT_EQ(flags & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(flags & O_APPEND, O_APPEND);
    server.stop();
    transfer.join();
}

TEST_F(Ftp, HasTheUploadedFileOpenToBeReadSynchronously) {
    ftp_server server({"--answer", "STOR="});
    make_local(bytes(100));
    keel_test::worker transfer([&] { EXPECT_NE(upload(server, "file"), CURLE_OK); });
    EXPECT_TRUE(server.is_sent("STOR"));
    const long flags = flags_of(local_);
    EXPECT_EQ(flags & O_SYNC, O_SYNC);
    EXPECT_EQ(flags & O_ACCMODE, O_RDONLY);
    server.stop();
    transfer.join();
}

TEST_F(Ftp, LeavesTheFlagsOfTheCallersStream) {
    const ftp_server server;
    server.put("file", bytes(100));
    const open_stream stream = opened(local_, "a+b");
    const int before = fcntl(fileno(stream.get()), F_GETFL);
    EXPECT_EQ(download(server, "file", with(stream.get())), CURLE_OK);
    EXPECT_EQ(upload(server, "other", with(stream.get())), CURLE_OK);
    EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFL), before);
    EXPECT_EQ(server.content("other"), bytes(100));
}

/* Of the calling thread; libcurl sends its commands by other means. */
long count_writes() {
    std::ifstream stream("/proc/thread-self/io");
    for (string name; stream >> name;)
        if (long count = 0; name == "syscw:" && stream >> count)
            return count;
    return -1;
}

TEST_F(Ftp, WritesADownloadInLargePieces) {
    const ftp_server server;
    server.put("file", bytes(32 << 20));
    const long before = count_writes();
    EXPECT_EQ(download(server, "file"), CURLE_OK);
    EXPECT_LE(count_writes() - before, 32);
    EXPECT_TRUE(content() == bytes(32 << 20));
}

/* ---- Commands ------------------------------------------------------------------------------- */

TEST_P(FtpTransfer, SendsCommandsInTheDirectoryOfTheUrl) {
    std::filesystem::create_directory(server_.path("logs"));
    std::filesystem::permissions(server_.path("logs"), std::filesystem::perms(0777));
    server_.put("logs/old", "old");
    EXPECT_EQ(ftp_command(server_.url("logs/").c_str(), server_.user(), server_.password(), &quiet,
                          "MKD new", "DELE old", nullptr),
              CURLE_OK);
    EXPECT_TRUE(server_.has("logs/new"));
    EXPECT_FALSE(server_.has("logs/old"));
}

TEST_P(FtpTransfer, Renames) {
    server_.put("from", "text");
    EXPECT_EQ(
        ftp_rename(server_.url().c_str(), server_.user(), server_.password(), &quiet, "from", "to"),
        CURLE_OK);
    EXPECT_FALSE(server_.has("from"));
    EXPECT_EQ(server_.content("to"), "text");
    EXPECT_EQ(
        ftp_rename(server_.url().c_str(), server_.user(), server_.password(), &quiet, "from", "to"),
        CURLE_QUOTE_ERROR);
    EXPECT_EQ(server_.content("to"), "text");
}

TEST_F(Ftp, SendsCommandsInOrderAfterTheTransfer) {
    const ftp_server server;
    std::filesystem::create_directory(server.path("logs"));
    EXPECT_EQ(ftp_command(server.url("logs/").c_str(), server.user(), server.password(), &quiet,
                          "NOOP", "MKD b", "MKD a", "RMD b", nullptr),
              CURLE_OK);
    const strings seen = server.commands();
    ASSERT_GE(seen.size(), 4U);
    EXPECT_EQ(strings(seen.end() - 4, seen.end()), (strings{"NOOP", "MKD b", "MKD a", "RMD b"}));
    EXPECT_EQ(std::count(seen.begin(), seen.end() - 4, "CWD logs"), 1);
    EXPECT_EQ(server.commands({"LIST", "NLST", "RETR", "STOR"}), strings{});
}

TEST_F(Ftp, SendsNoCommandBehindOneThatIsRefused) {
    const ftp_server server;
    EXPECT_EQ(ftp_command(server.url().c_str(), server.user(), server.password(), &quiet, "MKD a",
                          "DELE nothing", "MKD b", nullptr),
              CURLE_QUOTE_ERROR);
    EXPECT_EQ(server.commands({"MKD", "DELE"}), (strings{"MKD a", "DELE nothing"}));
}

TEST_F(Ftp, TakesNoCommandAndMany) {
    const ftp_server server({"--answer", "NOOP=200 Yes"});
    EXPECT_EQ(ftp_command(server.url().c_str(), server.user(), server.password(), &quiet, nullptr),
              CURLE_OK);
    const string longest = "NOOP " + string(2000, 'x');
    const char *one = longest.c_str();
    EXPECT_EQ(ftp_command(server.url().c_str(), server.user(), server.password(), &quiet, one, one,
                          one, one, one, one, one, one, one, one, one, one, one, nullptr),
              CURLE_OK);
    EXPECT_EQ(server.commands({"NOOP"}), strings(13, longest));
}

TEST_F(Ftp, RenamesByTwoCommandsAfterTheTransfer) {
    const ftp_server server;
    server.put("a name", "");
    const string long_name(200, 'n');
    EXPECT_EQ(ftp_rename(server.url().c_str(), server.user(), server.password(), &quiet, "a name",
                         long_name.c_str()),
              CURLE_OK);
    const strings seen = server.commands();
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(strings(seen.end() - 2, seen.end()), (strings{"RNFR a name", "RNTO " + long_name}));
    EXPECT_EQ(server.commands({"RNFR", "RNTO"}).size(), 2U);
    EXPECT_TRUE(server.has(long_name));
}

TEST_F(Ftp, TakesNamesForWhatTheyAre) {
    const ftp_server server;
    server.put("100%s %n", "");
    EXPECT_EQ(ftp_rename(server.url().c_str(), server.user(), server.password(), &quiet, "100%s %n",
                         "%d"),
              CURLE_OK);
    EXPECT_EQ(server.commands({"RNFR", "RNTO"}), (strings{"RNFR 100%s %n", "RNTO %d"}));
}

TEST_F(Ftp, RenamesNothingToNothing) {
    const ftp_server server;
    const string url = server.url();
    EXPECT_EQ(ftp_rename(url.c_str(), server.user(), server.password(), &quiet, nullptr, "to"),
              CURLE_QUOTE_ERROR);
    EXPECT_EQ(ftp_rename(url.c_str(), server.user(), server.password(), &quiet, "from", nullptr),
              CURLE_QUOTE_ERROR);
    EXPECT_EQ(server.commands({"RNFR", "RNTO"}), strings{});
}

/* ---- Each call ------------------------------------------------------------------------------ */

struct call {
    const char *name;
    CURLcode (*run)(const char *url, const char *local, const char *user, const char *password,
                    const ftp_opt *opt);
};

const call each_call[] = {
    {"upload", [](const char *url, const char *local, const char *user, const char *password,
                  const ftp_opt *opt) { return ftp_upload(url, local, user, password, opt); }},
    {"download", [](const char *url, const char *local, const char *user, const char *password,
                    const ftp_opt *opt) { return ftp_download(url, local, user, password, opt); }},
    {"command",
     [](const char *url, const char *, const char *user, const char *password, const ftp_opt *opt) {
         return ftp_command(url, user, password, opt, "NOOP", nullptr);
     }},
    {"rename",
     [](const char *url, const char *, const char *user, const char *password, const ftp_opt *opt) {
         return ftp_rename(url, user, password, opt, "old", "new");
     }},
};

/* With a session that does what it is asked for, and one that cannot. */
class FtpCall : public Ftp, public testing::WithParamInterface<call> {
  protected:
    void SetUp() override { make_local(bytes(100)); }

    CURLcode run(const string &url, const ftp_opt *opt = &quiet, const char *user = "keeper",
                 const char *password = "secret") const {
        return GetParam().run(url.c_str(), local(), user, password, opt);
    }

    /* Has what each of the calls needs. */
    static void furnish(const ftp_server &server) {
        server.put("file", bytes(100));
        server.put("old", "");
    }
    static string url_on(const ftp_server &server) {
        const bool transfers = GetParam().name[0] == 'u' || GetParam().name[0] == 'd';
        return server.url(transfers ? "file" : "");
    }
};

INSTANTIATE_TEST_SUITE_P(Each, FtpCall, testing::ValuesIn(each_call),
                         [](const auto &row) { return row.param.name; });

TEST_P(FtpCall, IsSilentWhenAskedTo) {
    const ftp_server server;
    furnish(server);
    const child_result result = run_in_child([&] { std::printf("%d", run(url_on(server))); });
    EXPECT_EQ(result, (child_result{0, 0, "0", ""}));
}

TEST_P(FtpCall, IsChattyUnlessAskedNotTo) {
    const ftp_server server;
    const struct {
        const char *name;
        const ftp_opt *opt;
        bool verbose, progress;
    } rows[] = {
        {"default", nullptr, true, true},
        {"verbose", new ftp_opt{0, 0, std::int64_t{1} << 40, 0, 0, nullptr}, true, false},
        {"progress", new ftp_opt{0, 0, 0, std::int64_t{1} << 40, 0, nullptr}, false, true},
    };
    for (const auto &row : rows) {
        furnish(server);
        const child_result result =
            run_in_child([&] { std::printf("%d", run(url_on(server), row.opt)); });
        EXPECT_EQ(result.out, "0") << row.name;
        EXPECT_EQ(result.err.find("> USER keeper\r\n") != string::npos, row.verbose) << result.err;
        EXPECT_EQ(result.err.find("% Total") != string::npos, row.progress) << result.err;
        delete row.opt;
    }
}

TEST_P(FtpCall, LogsInWithUserAndPassword) {
    const string u(100, 'u');
    const string p(200, 'p');
    const struct {
        string user, password;
        string sent_user, sent_password;
    } rows[] = {
        {"keeper", "secret", "keeper", "secret"},
        {"keeper", "sec:ret", "keeper", "sec:ret"},
        {u, p.substr(0, 153), u, p.substr(0, 153)},
        {u, p.substr(0, 154), u, p.substr(0, 154)}, // 255 characters with the colon
        {u, p.substr(0, 155), u, p.substr(0, 154)},
        {u, p, u, p.substr(0, 154)},
        {string(254, 'u'), "secret", string(254, 'u'), ""},
    };
    for (const auto &row : rows) {
        const ftp_server server({"--user", row.sent_user, "--password", row.sent_password});
        furnish(server);
        EXPECT_EQ(run(url_on(server), &quiet, row.user.c_str(), row.password.c_str()), CURLE_OK);
        EXPECT_EQ(server.commands({"USER"}), strings{"USER " + row.sent_user});
        EXPECT_EQ(server.commands({"PASS"}), strings{"PASS " + row.sent_password});
    }
}

TEST_P(FtpCall, LogsInAnonymouslyWithoutAUser) {
    const ftp_server server({"--answer", "PASS=530 No"});
    EXPECT_EQ(run(url_on(server), &quiet, nullptr, nullptr), CURLE_LOGIN_DENIED);
    EXPECT_EQ(run(url_on(server), &quiet, nullptr, "secret"), CURLE_LOGIN_DENIED);
    EXPECT_EQ(server.commands({"USER"}), (strings{"USER anonymous", "USER anonymous"}));
}

TEST_P(FtpCall, TakesANullPasswordForAnEmptyOne) {
    const ftp_server server({"--password", ""});
    furnish(server);
    EXPECT_EQ(run(url_on(server), &quiet, "keeper", nullptr), CURLE_OK);
    EXPECT_EQ(server.commands({"PASS"}), strings{"PASS "});
}

TEST_P(FtpCall, TellsWhyThereIsNoSession) {
    const struct {
        string url;
        CURLcode result;
    } rows[] = {
        {"ftp://127.0.0.1:" + std::to_string(keel_test::free_port()) + "/file",
         CURLE_COULDNT_CONNECT},
        {"ftp://no-such-host.invalid/file", CURLE_COULDNT_RESOLVE_HOST},
        {"odd://127.0.0.1/file", CURLE_UNSUPPORTED_PROTOCOL},
        {"", CURLE_URL_MALFORMAT},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(run(row.url), row.result) << row.url;
        EXPECT_EQ(content(), bytes(100)) << row.url;
    }
    EXPECT_EQ(GetParam().run(nullptr, local(), "keeper", "secret", &quiet), CURLE_URL_MALFORMAT);
}

TEST_P(FtpCall, TellsOfAWrongPassword) {
    for (const ftp_server::kind kind : {ftp_server::scripted, ftp_server::independent}) {
        const ftp_server server(kind);
        furnish(server);
        server.put("file", bytes(60, 2));
        EXPECT_EQ(run(url_on(server), &quiet, server.user(), "guess"), CURLE_LOGIN_DENIED);
        EXPECT_EQ(server.content("file"), bytes(60, 2));
        EXPECT_EQ(content(), bytes(100));
    }
}

TEST_P(FtpCall, GivesUpOnAServerThatSaysNothing) {
    const ftp_server server({"--silent"});
    constexpr ftp_opt connecting = {1, 0, 0, 0, 0, nullptr};
    constexpr ftp_opt responding = {0, 1, 0, 0, 0, nullptr};
    EXPECT_EQ(run(url_on(server), &connecting), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(run(url_on(server), &responding), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(content(), bytes(100));
}

TEST_P(FtpCall, GivesUpOnAServerThatFallsSilent) {
    const ftp_server server({"--answer", "PWD="});
    furnish(server);
    constexpr ftp_opt responding = {60, 1, 0, 0, 0, nullptr};
    EXPECT_EQ(run(url_on(server), &responding), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(content(), bytes(100));
}

TEST_P(FtpCall, TakesTimeoutsThatAreNotPositiveForNone) {
    const ftp_server server;
    for (const std::int64_t seconds : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
        furnish(server);
        const ftp_opt opt = {seconds, seconds, 0, 0, 0, nullptr};
        EXPECT_EQ(run(url_on(server), &opt), CURLE_OK) << seconds;
    }
}

/* It would otherwise end while a file is half done. */
TEST_P(FtpCall, IsNotCancelledUnderWay) {
    const ftp_server server({"--answer", "PWD="});
    constexpr ftp_opt responding = {60, 1, 0, 0, 0, nullptr};
    CURLcode result = CURLE_OK;
    keel_test::worker transfer([&] { result = run(url_on(server), &responding); });
    EXPECT_TRUE(server.is_sent("PWD"));
    transfer.cancel();
    EXPECT_TRUE(transfer.join());
    EXPECT_EQ(result, CURLE_OPERATION_TIMEDOUT);
}

/* ---- What ends the process ------------------------------------------------------------------ */

/* A stream whose descriptor somebody has closed, unseen by it. */
FILE *hollow_stream(const char *mode) {
    const int device = open("/dev/null", O_RDWR);
    FILE *stream = fdopen(fcntl(device, F_DUPFD, 500), mode); // a number that is not given again
    close(fileno(stream));
    return stream;
}

TEST_F(Ftp, EndsTheProcessWhereTheSizeOfTheFileCannotBeHad) {
    const ftp_server server;
    server.put("file", bytes(100));
    EXPECT_EQ(run_in_child([&] { download(server, "file", with(hollow_stream("ab"))); }),
              exited(1));
    EXPECT_EQ(server.commands(), strings{});
    EXPECT_EQ(run_in_child([&] { upload(server, "file", with(hollow_stream("rb"))); }), exited(1));
    EXPECT_EQ(server.content("file"), bytes(100));
}

/* ---- Several at once ------------------------------------------------------------------------ */

TEST_P(FtpTransfer, TransfersFromSeveralThreadsAtOnce) {
    constexpr unsigned threads = 8;
    const auto transfer = [&](unsigned i) {
        const string name = "file" + std::to_string(i);
        const string here = dir_ / name;
        const string url = server_.url(name);
        const string all = bytes(100'000 * (i + 1), i);
        write_file(here, all);
        EXPECT_EQ(ftp_upload(url.c_str(), here.c_str(), server_.user(), server_.password(), &quiet),
                  CURLE_OK);
        EXPECT_TRUE(server_.content(name) == all);
        std::filesystem::resize_file(here, all.size() / 2);
        EXPECT_EQ(
            ftp_download(url.c_str(), here.c_str(), server_.user(), server_.password(), &quiet),
            CURLE_OK);
        EXPECT_TRUE(content_of(here) == all);
        EXPECT_EQ(ftp_rename(server_.url().c_str(), server_.user(), server_.password(), &quiet,
                             name.c_str(), (name + ".done").c_str()),
                  CURLE_OK);
        EXPECT_TRUE(server_.content(name + ".done") == all);
    };
    std::vector<std::jthread> running;
    for (unsigned i = 0; i < threads; i++)
        running.emplace_back(transfer, i + 1);
}

} // namespace
