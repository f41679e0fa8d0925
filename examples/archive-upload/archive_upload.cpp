/* SPDX-License-Identifier: MIT */
/*
 * archive-upload - sends archived logs to an FTP server.
 *
 * Each archive in a directory, such as app_2026.11.21_06.12.29.047.log, goes to the URL under its
 * name; the log that is being written, app.log, stays. An archive no longer changes, so one that
 * is there already is not sent again, and of one that was cut only the rest is: the program can run
 * as often as one likes. `archive-upload --help` shows the usage.
 */
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <system_error>
#include <vector>

#include <xftp.h>
#include <xgetopt.h>

namespace {

namespace fs = std::filesystem;

constexpr char usage_text[] =
    "usage: archive-upload [--user USER] [--password-file FILE] DIRECTORY FTP-URL\n"
    "Sends the archived logs in DIRECTORY to FTP-URL, as far as they are not there yet.\n"
    "  --user USER           log in as USER, not as anonymous\n"
    "  --password-file FILE  with the password in the first line of FILE\n"
    "  --help                show this\n";

[[noreturn]] void complain(const std::string &text) {
    std::fprintf(stderr, "archive-upload: %s\n", text.c_str());
    std::exit(1);
}

/* ---- The command line ----------------------------------------------------------------------- */

struct command_line {
    std::optional<std::string> user{};
    std::string password{};
    std::string directory{};
    std::string url{};
    char **arguments = nullptr;
    int taken = 1; /* of them by the program's name, the options and their values */
};

/* xgetopt() hands nothing through to its handler. */
command_line given;

std::string first_line(const char *path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line))
        complain(std::string("cannot read the password in \"") + path + '"');
    return line;
}

int take_option(int option, int) {
    if (option == 'h') {
        std::fputs(usage_text, stdout);
        std::exit(0);
    }
    const bool value_apart = optarg == given.arguments[optind - 1];
    given.taken += value_apart ? 2 : 1;
    if (option == 'u')
        given.user = optarg;
    else
        given.password = first_line(optarg);
    return 0;
}

void parse(int argc, char *argv[]) {
    constexpr option options[] = {{"user", required_argument, nullptr, 'u'},
                                  {"password-file", required_argument, nullptr, 'p'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    given.arguments = argv;
    xgetopt(argc, argv, nullptr, options, take_option, usage_text);
    if (argc - given.taken != 2)
        complain(std::string("give a directory and a URL\n") + usage_text);
    given.directory = argv[argc - 2]; /* xgetopt() moves what is no option to the end */
    given.url = argv[argc - 1];
    if (!given.url.ends_with('/'))
        given.url += '/';
}

/* ---- Archives ------------------------------------------------------------------------------- */

bool is_archive(const fs::directory_entry &entry) {
    static const std::regex name(
        R"(.+_[0-9]{4,}\.[0-9]{2}\.[0-9]{2}_[0-9]{2}\.[0-9]{2}\.[0-9]{2}\.[0-9]{3}\.log)");
    std::error_code gone;
    return std::regex_match(entry.path().filename().string(), name) && entry.is_regular_file(gone);
}

/* Oldest first, as their names sort. */
std::vector<fs::path> archives_in(const std::string &directory) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error))
        if (is_archive(*at))
            found.push_back(at->path());
    if (error)
        complain("cannot read \"" + directory + "\": " + error.message());
    std::sort(found.begin(), found.end());
    return found;
}

std::string url_of(const std::string &name) {
    const std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(nullptr, name.c_str(), 0), &curl_free);
    return given.url + (escaped != nullptr ? escaped.get() : "");
}

/* Sends one, and tells so. */
bool send(const fs::path &archive) {
    const std::string name = archive.filename();
    std::error_code gone;
    std::printf("%s, %" PRIuMAX " bytes: ", name.c_str(),
                std::uintmax_t{fs::file_size(archive, gone)});
    std::fflush(stdout);
    const ftp_opt quietly = {30, 60, 0, 0, 0, nullptr};
    const CURLcode result =
        ftp_upload(url_of(name).c_str(), archive.c_str(),
                   given.user ? given.user->c_str() : nullptr, given.password.c_str(), &quietly);
    std::printf("%s\n", result == CURLE_OK ? "sent" : curl_easy_strerror(result));
    return result == CURLE_OK;
}

} // namespace

int main(int argc, char *argv[]) {
    parse(argc, argv);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    bool all_sent = true;
    for (const fs::path &archive : archives_in(given.directory))
        all_sent = send(archive) && all_sent;
    curl_global_cleanup();
    return all_sent ? 0 : 1;
}
