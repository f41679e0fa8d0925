/* SPDX-License-Identifier: MIT */
#include "xftp.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "cancel_shield.h"
#include "ending.h"
#include "handles.h"
#include "sync_file.h"
#include "xstring.h"

#undef ftp_upload
#undef ftp_download
#undef ftp_command
#undef ftp_rename

/* Hosts that transfer nothing do without libcurl. */
#pragma weak curl_easy_init
#pragma weak curl_easy_setopt
#pragma weak curl_easy_perform
#pragma weak curl_easy_cleanup
#pragma weak curl_slist_append
#pragma weak curl_slist_free_all

namespace {

using keel::unique_file;

struct clean_up_handle {
    void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};

struct free_commands {
    void operator()(curl_slist *commands) const { curl_slist_free_all(commands); }
};

using unique_handle = std::unique_ptr<CURL, clean_up_handle>;
using unique_commands = std::unique_ptr<curl_slist, free_commands>;

/* Fewer and larger reads and writes on the network than libcurl makes by itself. */
constexpr long block_size = 512L * 1024;

/* Writes wait for the disk, so they are gathered. */
constexpr std::size_t gathered_size = std::size_t{4} << 20;

void adjust_ftp_opt(ftp_opt *dst, const ftp_opt *src) {
    *dst = {.connect_timeout = 0,
            .response_timeout = 0,
            .verbose = 1,
            .progress = 1,
            .overwrite = 0,
            .stream = nullptr};
    if (src != nullptr)
        *dst = *src;
}

/* ---- What libcurl calls back ----------------------------------------------------------------- */

/* A header's line, which has no NUL byte behind it. */
std::size_t get_content_length(char *line, std::size_t size, std::size_t n, void *out) {
    char text[256] = "";
    std::memcpy(text, line, std::min(size * n, sizeof text - 1));
    long length = 0;
    if (std::sscanf(text, "Content-Length: %ld\n", &length) != 0)
        *static_cast<std::int64_t *>(out) = length;
    return size * n;
}

std::size_t discard_output(char * /*buffer*/, std::size_t size, std::size_t n, void * /*stream*/) {
    return size * n;
}

std::size_t read_input(char *buffer, std::size_t size, std::size_t n, void *stream) {
    auto *input = static_cast<FILE *>(stream);
    if (std::ferror(input) != 0)
        return CURL_READFUNC_ABORT;
    const std::size_t items = std::fread(buffer, size, n, input);
    return std::ferror(input) != 0 ? CURL_READFUNC_ABORT : items * size; // not the file's end
}

std::size_t write_output(char *buffer, std::size_t size, std::size_t n, void *stream) {
    return std::fwrite(buffer, size, n, static_cast<FILE *>(stream)) * size;
}

/* ---- Sessions -------------------------------------------------------------------------------- */

/* Makes a session, or tells why there is none: `without_handle`, or libcurl's word on a text that
 * it found no memory for. Without its login a session would be somebody else's. */
CURLcode open_session(unique_handle &session, CURLcode without_handle, const char *url,
                      const char *user, const char *password, const ftp_opt &opt) {
    session.reset(curl_easy_init != nullptr ? curl_easy_init() : nullptr);
    if (session == nullptr)
        return without_handle;
    CURL *handle = session.get();
    CURLcode taken = curl_easy_setopt(handle, CURLOPT_URL, url);
    if (taken == CURLE_OK && user != nullptr) {
        char login[256];
        std::snprintf(login, sizeof login, "%s:%s", user, password != nullptr ? password : "");
        taken = curl_easy_setopt(handle, CURLOPT_USERPWD, login);
    }
    if (taken != CURLE_OK)
        return taken;
    curl_easy_setopt(handle, CURLOPT_VERBOSE, opt.verbose != 0 ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, opt.progress != 0 ? 0L : 1L);
    if (opt.connect_timeout > 0)
        curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(opt.connect_timeout));
    if (opt.response_timeout > 0)
        curl_easy_setopt(handle, CURLOPT_FTP_RESPONSE_TIMEOUT,
                         static_cast<long>(opt.response_timeout));
    return CURLE_OK;
}

/* With what the stream still holds back. */
std::int64_t size_of(FILE *stream) {
    std::fflush(stream);
    struct stat status {};
    if (fstat(fileno(stream), &status) == -1)
        keel::end_process(1);
    return status.st_size;
}

/* Sends what the stream holds from `offset` on. One that cannot be rewound is sent from where it
 * is. */
CURLcode send_from(CURL *session, FILE *stream, std::int64_t offset) {
    curl_easy_setopt(session, CURLOPT_APPEND, offset > 0 ? 1L : 0L);
    if (fseeko(stream, offset, SEEK_SET) == -1 && offset > 0)
        return CURLE_READ_ERROR;
    return curl_easy_perform(session);
}

/* Asks for the size of what is there, and sends what is missing. */
CURLcode upload(CURL *session, FILE *stream, bool overwrite) {
    std::int64_t remote_size = 0;
    curl_easy_setopt(session, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(session, CURLOPT_UPLOAD_BUFFERSIZE, block_size);
    curl_easy_setopt(session, CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    curl_easy_setopt(session, CURLOPT_HEADERFUNCTION, get_content_length);
    curl_easy_setopt(session, CURLOPT_HEADERDATA, &remote_size);
    curl_easy_setopt(session, CURLOPT_READFUNCTION, read_input);
    curl_easy_setopt(session, CURLOPT_READDATA, stream);
    curl_easy_setopt(session, CURLOPT_WRITEFUNCTION, discard_output);
    curl_easy_setopt(session, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(session, CURLOPT_HEADER, 1L);
    const CURLcode probed = curl_easy_perform(session);
    if (probed != CURLE_OK && probed != CURLE_REMOTE_FILE_NOT_FOUND) // where all is yet to be sent
        return probed;
    curl_easy_setopt(session, CURLOPT_NOBODY, 0L);
    curl_easy_setopt(session, CURLOPT_HEADER, 0L);
    curl_easy_setopt(session, CURLOPT_UPLOAD, 1L); // which a probe takes back
    const std::int64_t local_size = size_of(stream);
    const bool resumes = !overwrite && remote_size != 0;
    if (resumes && local_size == remote_size)
        return probed;
    return send_from(session, stream, resumes && local_size > remote_size ? remote_size : 0);
}

/* Fetches what is behind `offset`, which becomes 0 where all had to be fetched. */
CURLcode download(CURL *session, FILE *stream, std::int64_t &offset) {
    curl_easy_setopt(session, CURLOPT_BUFFERSIZE, block_size);
    curl_easy_setopt(session, CURLOPT_WRITEFUNCTION, write_output);
    curl_easy_setopt(session, CURLOPT_WRITEDATA, stream);
    for (;;) {
        curl_easy_setopt(session, CURLOPT_RESUME_FROM_LARGE, offset);
        const CURLcode result = curl_easy_perform(session);
        if (result == CURLE_OK)
            return std::fflush(stream) == 0 ? CURLE_OK : CURLE_WRITE_ERROR;
        if (result != CURLE_BAD_DOWNLOAD_RESUME)
            return result;
        offset = 0;
        if (fseeko(stream, 0, SEEK_SET) == -1 || ftruncate(fileno(stream), 0) == -1)
            return CURLE_WRITE_ERROR;
    }
}

CURLcode download_to(FILE *stream, const char *url, const char *user, const char *password,
                     const ftp_opt &opt, std::int64_t &offset) {
    unique_handle session;
    const CURLcode opened = open_session(session, CURLE_GOT_NOTHING, url, user, password, opt);
    return opened == CURLE_OK ? download(session.get(), stream, offset) : opened;
}

/* What a stream still holds back is dropped with the rest of what it wrote; it goes on at its end.
 */
void cut_back(FILE *stream, std::int64_t size) {
    std::fflush(stream);
    [[maybe_unused]] const int ignored = ftruncate(fileno(stream), size);
    fseeko(stream, 0, SEEK_END);
}

CURLcode run_commands(const char *url, const char *user, const char *password, const ftp_opt *opt,
                      va_list commands) {
    const keel::cancel_shield shield;
    ftp_opt options{};
    adjust_ftp_opt(&options, opt);
    unique_handle session;
    const CURLcode opened = open_session(session, CURLE_QUOTE_ERROR, url, user, password, options);
    if (opened != CURLE_OK)
        return opened;
    unique_commands list;
    while (const char *command = va_arg(commands, const char *)) {
        curl_slist *longer = curl_slist_append(list.get(), command);
        if (longer == nullptr)
            return CURLE_OUT_OF_MEMORY;
        [[maybe_unused]] auto *same = list.release();
        list.reset(longer);
    }
    curl_easy_setopt(session.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(session.get(), CURLOPT_HEADER, 1L);
    curl_easy_setopt(session.get(), CURLOPT_WRITEFUNCTION, discard_output);
    curl_easy_setopt(session.get(), CURLOPT_POSTQUOTE, list.get());
    return curl_easy_perform(session.get());
}

keel::unique_cstr command_text(const char *command, const char *name) {
    char *text = nullptr;
    if (astrcatf(&text, "%s %s", command, name) < 0)
        keel::end_process(1);
    return keel::unique_cstr(text);
}

} // namespace

CURLcode ftp_upload(const char *url, const char *local, const char *user, const char *password,
                    const ftp_opt *opt) {
    const keel::cancel_shield shield;
    ftp_opt options{};
    adjust_ftp_opt(&options, opt);
    unique_file own;
    if (options.stream == nullptr)
        own = keel::stream_on(keel::open_sync(local, O_RDONLY), "rb");
    FILE *stream = options.stream != nullptr ? options.stream : own.get();
    if (stream == nullptr)
        return CURLE_GOT_NOTHING;
    unique_handle session;
    const CURLcode opened = open_session(session, CURLE_GOT_NOTHING, url, user, password, options);
    return opened == CURLE_OK ? upload(session.get(), stream, options.overwrite != 0) : opened;
}

CURLcode ftp_download(const char *url, const char *local, const char *user, const char *password,
                      const ftp_opt *opt) {
    const keel::cancel_shield shield;
    ftp_opt options{};
    adjust_ftp_opt(&options, opt);
    struct stat former {};
    const bool existed =
        options.stream != nullptr || (local != nullptr && lstat(local, &former) == 0);
    keel::unique_cstr gathered;
    unique_file own;
    if (options.stream == nullptr) {
        own = keel::stream_on(keel::open_sync(local, O_WRONLY | O_CREAT | O_APPEND), "ab");
        if (own == nullptr)
            return CURLE_GOT_NOTHING;
        gathered.reset(static_cast<char *>(std::malloc(gathered_size)));
        std::setvbuf(own.get(), gathered.get(), _IOFBF, gathered_size);
    }
    FILE *stream = own != nullptr ? own.get() : options.stream;
    std::int64_t offset = size_of(stream);
    fseeko(stream, 0, SEEK_END);
    const CURLcode result = download_to(stream, url, user, password, options, offset);
    if (result != CURLE_OK) {
        cut_back(stream, offset);
        if (!existed)
            std::remove(local);
    }
    return result;
}

CURLcode ftp_command(const char *url, const char *user, const char *password, const ftp_opt *opt,
                     ...) {
    va_list commands;
    va_start(commands, opt);
    const CURLcode result = run_commands(url, user, password, opt, commands);
    va_end(commands);
    return result;
}

CURLcode ftp_rename(const char *url, const char *user, const char *password, const ftp_opt *opt,
                    const char *from, const char *to) {
    if (from == nullptr || to == nullptr)
        return CURLE_QUOTE_ERROR;
    const keel::cancel_shield shield;
    const keel::unique_cstr source = command_text("RNFR", from);
    const keel::unique_cstr target = command_text("RNTO", to);
    return ftp_command(url, user, password, opt, source.get(), target.get(), nullptr);
}
