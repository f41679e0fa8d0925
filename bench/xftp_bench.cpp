/* SPDX-License-Identifier: MIT */
/* A file sent to an FTP server on this machine, and fetched from it onto a disk. */
#include <curl/curl.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>
#include <xftp.h>

#include "command.h"
#include "files.h"
#include "server.h"
#include "table.h"

using bench::job;
using bench::require;

namespace {

constexpr std::size_t size = std::size_t{64} << 20;
constexpr std::size_t piece = std::size_t{4} << 20;
constexpr ftp_opt quiet = {0, 0, 0, 0, 0, nullptr};

struct place {
    const bench::ftp_server &server;
    std::string local;
    std::string made; /* by the transfer, which finds nothing there */
};

bench::contender transfer(const char *name, const place &at, void (*run)(const place &),
                          double bar = 0) {
    const auto run_whole = [&at, run] {
        run(at);
        require(std::filesystem::file_size(at.made) == size, "a file is not whole");
    };
    const auto prepare = [&at] { std::filesystem::remove(at.made); };
    return {name, [=] { return job{.run = run_whole, .prepare = prepare}; }, bar};
}

void keel_download(const place &at) {
    require(ftp_download(at.server.url("file").c_str(), at.local.c_str(), nullptr, nullptr,
                         &quiet) == CURLE_OK,
            "ftp_download failed");
}

void keel_upload(const place &at) {
    require(ftp_upload(at.server.url("sent").c_str(), at.local.c_str(), nullptr, nullptr, &quiet) ==
                CURLE_OK,
            "ftp_upload failed");
}

void tool_download(const place &at) {
    bench::run_command({CURL_TOOL, "-q", "-sS", "-o", at.local, at.server.url("file")});
}

void tool_download_and_sync(const place &at) {
    tool_download(at);
    const int file = open(at.local.c_str(), O_WRONLY | O_CLOEXEC);
    require(file != -1 && fsync(file) == 0, "fsync failed");
    close(file);
}

void tool_upload(const place &at) {
    bench::run_command({CURL_TOOL, "-q", "-sS", "-T", at.local, at.server.url("sent")});
}

/* The disk alone. */
void write_pieces(const place &at, int flags) {
    static const std::vector<char> data(piece, 'x');
    const int file = open(at.local.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0666);
    require(file != -1, "open failed");
    for (std::size_t written = 0; written < size; written += piece)
        require(write(file, data.data(), piece) == static_cast<ssize_t>(piece), "write failed");
    require(fdatasync(file) == 0, "fdatasync failed");
    close(file);
}

void write_at_once(const place &at) {
    write_pieces(at, 0);
}

void write_synchronously(const place &at) {
    write_pieces(at, O_SYNC);
}

} // namespace

int main(int argc, char *argv[]) {
    require(!bench::disk_dir().empty(), "the bench does not lie on a disk");
    require(curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK, "curl_global_init failed");
    const bench::scratch_dir disk(bench::disk_dir());
    const bench::ftp_server server;
    const std::string text = bench::lines_of(64, size);
    bench::write_file(server.path("file"), text);
    bench::write_file(disk / "file", text);
    const place download = {server, disk / "fetched", disk / "fetched"};
    const place upload = {server, disk / "file", server.path("sent")};

    return bench::measure(
        argc, argv,
        {{.title = "FTP download, 64 MiB, onto the disk",
          .item = "file",
          .floor = "the disk, which is waited for piece by piece, and the server's pace",
          .contenders =
              {transfer("keel ftp_download", download, keel_download),
               transfer("the curl tool, then fsync", download, tool_download_and_sync, 1.05),
               transfer("the curl tool, nothing on the disk yet", download, tool_download),
               transfer("written in pieces of 4 MiB, O_SYNC", download, write_synchronously),
               transfer("written, then fdatasync", download, write_at_once)}},
         {.title = "FTP upload, 64 MiB",
          .item = "file",
          .floor = "the server's pace, and the question what is there already",
          .contenders = {transfer("keel ftp_upload", upload, keel_upload),
                         transfer("the curl tool", upload, tool_upload, 1.05)}}});
}
