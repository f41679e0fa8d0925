/* SPDX-License-Identifier: MIT */
#include "xconf.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ftw.h>
#include <list>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <utility>
#include <vector>

#include "announce.h"
#include "ending.h"
#include "formatted.h"
#include "line_buffer.h"
#include "side_file.h"
#include "sync_file.h"
#include "xstring.h"

namespace {

using keel::open_sync;
using keel::unique_fd;

/* File-type bits of a mode, in the order of fexist()'s kinds. */
constexpr std::array<mode_t, 7> file_kinds = {S_IFREG, S_IFDIR, S_IFCHR, S_IFBLK,
                                              S_IFIFO, S_IFLNK, S_IFSOCK};

/* Formats first and opens then, so that a text that cannot be made leaves the file as it was; and
 * writes once, as each write waits for the disk. */
[[gnu::format(printf, 3, 0)]] int write_formatted(const char *path, int flags, const char *format,
                                                  va_list arguments) {
    const keel::formatted content(format, arguments);
    if (content.text == nullptr)
        return -1;
    unique_fd file = open_sync(path, O_WRONLY | O_CREAT | flags);
    if (!file)
        return -1;
    const auto length = static_cast<std::size_t>(content.length);
    const bool written = keel::write_all(file.get(), content.text.get(), length);
    return file.close() == 0 && written ? content.length : -1;
}

/* lstat(), to which null is not just another path without a file. */
bool examine(const char *path, struct stat &status) {
    if (path != nullptr)
        return lstat(path, &status) == 0;
    errno = EFAULT;
    return false;
}

int open_and_close(const char *path, int flags) {
    return open_sync(path, O_WRONLY | flags) ? 0 : -1;
}

} // namespace

int fexist(const char *path, unsigned type) {
    struct stat status {};
    if (!examine(path, status) || type >= file_kinds.size())
        return -1;
    return (status.st_mode & S_IFMT) == file_kinds[type] ? 0 : 1;
}

char *fpath_dup(const char *directory, const char *name) {
    if (directory == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(directory) + (name == nullptr ? 0 : std::strlen(name));
    const char *slash = std::strrchr(directory, '/');
    if (slash != nullptr && slash[1] == '\0')
        return strdup_ncat(length, directory, name, nullptr);
    return strdup_ncat(length + 1, directory, "/", name, nullptr);
}

char *Fpath_dup(const char *directory, const char *name) {
    char *path = fpath_dup(directory, name);
    if (path == nullptr)
        keel::end_process(1);
    return path;
}

int ftherein(int descriptor, const char *path) {
    struct stat status {};
    if (fstat(descriptor, &status) == -1)
        return 0;
    const int open_file = status.st_nlink != 0 ? 1 : 2;
    if (examine(path, status))
        return open_file + 4;
    return errno == ENOENT ? open_file + 8 : 0;
}

int fmodified(const char *path, long *stamp) {
    struct stat status {};
    if (stamp == nullptr || !examine(path, status))
        return -1;
    if (status.st_mtim.tv_sec == *stamp)
        return 0;
    *stamp = status.st_mtim.tv_sec;
    return 1;
}

int file_touch(const char *path) {
    return open_and_close(path, O_CREAT | O_APPEND);
}

int file_clear(const char *path) {
    struct stat status {};
    if (path == nullptr || stat(path, &status) == -1)
        return -1;
    return open_and_close(path, O_TRUNC);
}

int file_cover(const char *path, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = write_formatted(path, O_TRUNC, format, arguments);
    va_end(arguments);
    return written;
}

int file_append(const char *path, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = write_formatted(path, O_APPEND, format, arguments);
    va_end(arguments);
    return written;
}

int file_copy(const char *source, const char *destination) {
    const unique_fd from = open_sync(source, O_RDONLY);
    if (!from)
        return -1;
    const unique_fd to = open_sync(destination, O_RDWR | O_CREAT | O_TRUNC);
    if (!to)
        return -1;
    char block[1024];
    for (;;) {
        const ssize_t length = read(from.get(), block, sizeof block);
        if (length == 0)
            return 0;
        if (length == -1) {
            const int reason = errno;
            unlink(destination);
            errno = reason;
            return -1;
        }
        /* Not checked on purpose: a copy is best effort, and what was written stays. */
        [[maybe_unused]] const auto written = write(to.get(), block, static_cast<size_t>(length));
    }
}

int file_sflush(const char *path, char *buffer, std::size_t size) {
    if (path == nullptr || buffer == nullptr || size == 0)
        return -1;
    const keel::unique_file file = keel::open_to_read(path);
    if (file == nullptr)
        return -1;
    std::memset(buffer, 0, size);
    std::size_t room = size - 1;
    keel::line_buffer lines;
    while (room > 0) {
        const char *line = lines.read(file.get());
        if (line == nullptr)
            break;
        const std::size_t taken = std::min(lines.length(), room);
        std::memcpy(buffer + (size - 1 - room), line, taken);
        room -= taken;
    }
    return static_cast<int>(size - 1 - room);
}

/* ---- Settings, one a line ------------------------------------------------------------------- */

namespace {

bool empty(const char *text) {
    return text == nullptr || *text == '\0';
}

void cut_comment(char *line) {
    *strchrnul(line, '#') = '\0';
}

/* What stands behind a line's text: from its first NUL byte to its newline, mostly nothing. No
 * string function sees it, and no edit may lose it. */
std::string_view hidden_part(const char *line, std::size_t length) {
    if (length > 0 && line[length - 1] == '\n')
        length--;
    const std::size_t seen = strnlen(line, length);
    return {line + seen, length - seen};
}

/* The lines of a file in pieces of at most 1023 characters, as fgets() gives them, and with their
 * length, which it does not give. */
class piece_reader {
  public:
    explicit piece_reader(int file) : file_(file) {}

    /* The next piece, with its newline; null behind the last one and where reading fails, which
     * also drops what was read of the piece. */
    char *next() {
        length_ = 0;
        bool ended = false;
        while (!ended && length_ < sizeof text_ - 1 && (at_ < end_ || fill())) {
            const std::size_t room = std::min(end_ - at_, sizeof text_ - 1 - length_);
            const void *newline = std::memchr(block_ + at_, '\n', room);
            ended = newline != nullptr;
            const std::size_t taken =
                ended ? static_cast<std::size_t>(static_cast<const char *>(newline) + 1 -
                                                 (block_ + at_))
                      : room;
            std::memcpy(text_ + length_, block_ + at_, taken);
            length_ += taken;
            at_ += taken;
        }
        text_[length_] = '\0';
        return length_ > 0 && !failed_ ? text_ : nullptr;
    }

    std::size_t length() const { return length_; }

  private:
    /* Never tried again after a failure: what came then would be joined to the wrong line. */
    bool fill() {
        ssize_t length = 0;
        if (!ended_)
            do
                length = read(file_, block_, sizeof block_);
            while (length == -1 && errno == EINTR);
        failed_ = length == -1;
        at_ = 0;
        end_ = length > 0 ? static_cast<std::size_t>(length) : 0;
        ended_ = end_ == 0;
        return !ended_;
    }

    int file_;
    bool ended_ = false;
    std::size_t at_ = 0;
    std::size_t end_ = 0;
    std::size_t length_ = 0;
    bool failed_ = false;
    char text_[1024];
    char block_[8192];
};

enum operation { modify = 1, insert = 2, remove_line = 3 };

/* An edit on its way through the lines of a file. */
class line_edit {
  public:
    line_edit(int operation, char separator, const char *target, std::size_t prefix_length,
              keel::side_file &side)
        : operation_(operation), separator_(separator), target_(target),
          prefix_length_(prefix_length), side_(side) {}

    void take(char *line, std::size_t length) {
        if (state_ == already_there) {
            side_.put({line, length});
            return;
        }
        const std::string_view hidden = hidden_part(line, length);
        strtrim4(line, separator_);
        if (*line == '\0' || *line == '#' || keeps(line)) {
            std::string_view text(line);
            if (text.ends_with('\n')) // an unusable separator leaves the line as it is
                text.remove_suffix(1);
            side_.put(text);
            side_.put(hidden);
            side_.put('\n');
        }
    }

    void finish() {
        if (operation_ != insert)
            return;
        if (state_ == already_there)
            side_.blank_out(ahead_, target_.size());
        else if (state_ == not_seen)
            put_target();
    }

  private:
    enum insert_state { ahead_of_key, already_there, not_seen };

    /* Does what the edit is for; tells whether the line itself is written as well. */
    bool keeps(const char *line) {
        const bool of_key = std::strncmp(line, target_.data(), prefix_length_) == 0;
        const bool same = line == target_;
        if (operation_ == remove_line)
            return !same;
        if (!of_key)
            return true;
        if (operation_ == modify) {
            put_target();
            return false;
        }
        if (state_ == not_seen) {
            state_ = ahead_of_key;
            ahead_ = side_.position();
            put_target();
        }
        if (same)
            state_ = already_there;
        return true;
    }

    void put_target() {
        side_.put(target_);
        side_.put('\n');
    }

    int operation_;
    char separator_;
    std::string_view target_;
    std::size_t prefix_length_; /* of the key and its separator */
    keel::side_file &side_;
    insert_state state_ = not_seen;
    off_t ahead_ = 0; /* where the target line was written ahead of its key */
};

} // namespace

int finsert(const char *path, const char *key, char separator, const char *value) {
    return foperate(path, insert, key, separator, value);
}

int fremove(const char *path, const char *key, char separator, const char *value) {
    return foperate(path, remove_line, key, separator, value);
}

int fmodify(const char *path, const char *key, char separator, const char *value) {
    return foperate(path, modify, key, separator, value);
}

int foperate(const char *path, int operation, const char *key, char separator, const char *value) {
    if (fexist(path, 0) != 0 || operation < modify || operation > remove_line)
        return -1;
    const bool no_value = value == nullptr ? operation != remove_line : *value == '\0';
    if (empty(key) || separator == '\0' || no_value)
        return -1;
    char side_name[256];
    if (std::snprintf(side_name, sizeof side_name, "%s_bak", path) >= int{sizeof side_name})
        return -1;
    const keel::unique_cstr target(
        strdup_catf("%s%c%s", key, separator, value == nullptr ? "" : value));
    const unique_fd from(open(path, O_RDONLY | O_CLOEXEC));
    keel::side_file side;
    if (target == nullptr || !from || !side.open(side_name, from.get()))
        return -1;

    line_edit edit(operation, separator, target.get(), std::strlen(key) + 1, side);
    piece_reader pieces(from.get());
    while (char *line = pieces.next())
        edit.take(line, pieces.length());
    edit.finish();
    return side.replace(path);
}

char *flookup(const char *path, const char *key, char separator, char *buffer, std::size_t size) {
    if (path == nullptr || empty(key) || buffer == nullptr || size == 0)
        return nullptr;
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return nullptr;
    const std::size_t key_length = std::strlen(key);
    piece_reader pieces(file.get());
    while (char *line = pieces.next()) {
        strtrim2(line);
        if (*line == '#' || std::strncmp(line, key, key_length) != 0)
            continue;
        char *behind = line + key_length;
        if (*behind != separator && *behind == ' ')
            behind++;
        if (*behind != separator || separator == '\0')
            continue;
        const char *value = strtrim1(behind + 1);
        std::memset(buffer, 0, size);
        std::memcpy(buffer, value, strnlen(value, size - 1));
        return buffer;
    }
    return nullptr;
}

namespace {

/* A block of items on its way through the lines of a file. */
class item_block {
  public:
    item_block(const char *key, void *array, std::size_t size, std::size_t count, bulk_item item)
        : key_(key), array_(array), size_(size), count_(count), item_(item) {}

    /* Takes a line; tells whether there is more to read. */
    bool take(char *line) {
        cut_comment(line);
        strtrim2(line);
        if (*line == '\0')
            return true;
        if (state_ == closed)
            return false;
        if (state_ == inside)
            return take_item(line);
        if (state_ == looking) {
            if (std::strncmp(line, key_, std::strlen(key_)) != 0)
                return true;
            state_ = key_seen;
            line = strtrim1(line + std::strlen(key_));
            if (*line != '{')
                return true;
        }
        if (*line != '{') {
            taken_ = -1;
            return false;
        }
        state_ = inside;
        return take_item(strtrim1(line + 1));
    }

    int taken() const { return taken_; }

  private:
    enum block_state { looking, key_seen, inside, closed };

    bool take_item(char *line) {
        if (*line != '\0' && strrcmp(line, "}") == 0) {
            state_ = closed;
            line[std::strlen(line) - 1] = '\0';
            strtrim1(line);
        }
        if (*line != '\0' && (item_ == nullptr || item_(line, array_, size_, count_, taken_) == 0))
            taken_++;
        return true;
    }

    const char *key_;
    void *array_;
    std::size_t size_;
    std::size_t count_;
    bulk_item item_;
    block_state state_ = looking;
    int taken_ = 0;
};

} // namespace

int bulk_lookup(const char *path, const char *key, void *array, std::size_t size, std::size_t count,
                bulk_item item) {
    if (path == nullptr || empty(key))
        return -1;
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return -1;
    if (array != nullptr)
        std::memset(array, 0, size * count);
    item_block block(key, array, size, count, item);
    piece_reader pieces(file.get());
    for (char *line = pieces.next(); line != nullptr && block.take(line);)
        line = pieces.next();
    return block.taken();
}

/* ---- Settings by a format ------------------------------------------------------------------- */

namespace {

/* What replaces the value of a key, or one field of it. */
struct replacement {
    const char *key;
    const char *separators;
    const char *field_separators; /* null: the whole value is replaced */
    int index;
    std::string_view text; /* without data where it could not be made */
};

/* All of it, NUL bytes too. */
std::string_view view_of(const keel::formatted &made) {
    if (made.text == nullptr)
        return {};
    return {made.text.get(), static_cast<std::size_t>(made.length)};
}

/* Writes the fields of a value. `copy` is the line as it is being split, which has NUL bytes where
 * `line` has separators. */
void put_fields(keel::side_file &side, const replacement &by, const char *line, const char *copy,
                char *value) {
    int index = 0;
    char *rest = nullptr;
    for (char *field = strtok_r(value, by.field_separators, &rest); field != nullptr;
         field = strtok_r(nullptr, by.field_separators, &rest)) {
        side.put(++index == by.index ? by.text : std::string_view(field));
        if (*rest != '\0')
            side.put(line[rest - copy - 1]);
    }
}

/* Writes a line that is neither empty nor a comment. */
void put_setting(keel::side_file &side, const replacement &by, const char *line) {
    const keel::unique_cstr copy(strdup(line));
    if (copy == nullptr)
        keel::end_process(1);
    char *value = nullptr;
    char *key = strtok_r(copy.get(), by.separators, &value);
    if (key == nullptr || std::strcmp(strtrim1(key), by.key) != 0) {
        side.put(line);
        return;
    }
    side.put(by.key);
    side.put(line[value - copy.get() - 1]); // of a key alone its last character
    if (by.field_separators == nullptr)
        side.put(by.text);
    else
        put_fields(side, by, line, copy.get(), value);
}

int replace_values(const char *path, const replacement &by) {
    if (path == nullptr || by.key == nullptr || by.separators == nullptr ||
        by.text.data() == nullptr)
        return -1;
    const keel::unique_file from = keel::open_to_read(path);
    const keel::unique_cstr side_name(strdup_cat(path, ".bak", nullptr));
    keel::side_file side;
    if (side_name == nullptr || from == nullptr || !side.open(side_name.get(), fileno(from.get())))
        return -1;
    keel::line_buffer lines;
    while (char *line = lines.read(from.get())) {
        const std::string_view hidden = hidden_part(line, lines.length());
        strtrim2(line);
        if (*line == '\0' || *line == '#')
            side.put(line);
        else
            put_setting(side, by, line);
        side.put(hidden);
        side.put('\n');
    }
    return std::ferror(from.get()) == 0 ? side.replace(path) : -1;
}

} // namespace

int file_lookup_value(const char *path, const char *key, const char *separators, const char *format,
                      ...) {
    if (path == nullptr || key == nullptr || separators == nullptr || format == nullptr)
        return -1;
    const keel::unique_file file = keel::open_to_read(path);
    if (file == nullptr)
        return -1;
    keel::line_buffer lines;
    while (char *line = lines.read(file.get())) {
        cut_comment(line);
        char *value = nullptr;
        char *found = strtok_r(strtrim2(line), separators, &value);
        if (found == nullptr || std::strcmp(strtrim1(found), key) != 0)
            continue;
        va_list arguments;
        va_start(arguments, format);
        std::vsscanf(value, format, arguments);
        va_end(arguments);
        break;
    }
    return 0;
}

int file_replace_value(const char *path, const char *key, const char *separators,
                       const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const keel::formatted value(format, arguments);
    va_end(arguments);
    return replace_values(path, {key, separators, nullptr, 0, view_of(value)});
}

int file_replace_value_value(const char *path, const char *key, const char *separators,
                             const char *field_separators, int index, const char *format, ...) {
    if (field_separators == nullptr)
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const keel::formatted field(format, arguments);
    va_end(arguments);
    return replace_values(path, {key, separators, field_separators, index, view_of(field)});
}

/* ---- Clean-up by disk usage ----------------------------------------------------------------- */

namespace {

constexpr double GB = 1073741824;

/* A file that may be deleted. */
struct candidate {
    char *path;
    struct stat status;
};

void dt_free(candidate &file) {
    std::free(file.path);
}

void dt_foreach(const candidate &file) {
    keel::announce(stdout, "--> %s\n--> %ld\n", file.path, file.status.st_atim.tv_sec);
}

using candidates = std::list<candidate>;

/* Where a candidate stands in the order, with what decides it at hand. */
struct place {
    std::int64_t accessed;
    std::int64_t size;
    std::size_t met; /* how many the walk met before */
    candidates::iterator file;

    bool operator<(const place &other) const {
        if (accessed != other.accessed)
            return accessed < other.accessed;
        return size != other.size ? size > other.size : met > other.met;
    }
};

using places = std::vector<place>;

/* Less than 0 where `a` is to be deleted before `b`: the less recently accessed, then the larger.
 * The low half of the difference, whose sign is wrong from 2^31 on. */
std::int32_t dt_sort(const place &a, const place &b) {
    const auto difference = [](std::int64_t from, std::int64_t what) {
        return static_cast<std::uint64_t>(from) - static_cast<std::uint64_t>(what);
    };
    const std::uint64_t accessed = difference(a.accessed, b.accessed);
    return static_cast<std::int32_t>(accessed != 0 ? accessed : difference(b.size, a.size));
}

/* The files of a clean-up as the walk met them, and their order, the next to be deleted first. They
 * are not moved into it: those that are left are released as they lie in memory, which is faster.
 */
struct candidate_list {
    candidate_list() = default;
    ~candidate_list() {
        for (candidate &file : files)
            release(file);
    }
    candidate_list(const candidate_list &) = delete;
    candidate_list &operator=(const candidate_list &) = delete;

    void drop(candidates::iterator file) {
        release(*file);
        files.erase(file);
    }

    candidates files;
    places order;
    void (*release)(candidate &) = dt_free;
    void (*print)(const candidate &) = dt_foreach;
    std::int32_t (*compare)(const place &, const place &) = dt_sort;
};

/* nftw() hands nothing through to its callback. */
candidate_list *reg_lst = nullptr;

/* Takes regular files. */
int nftw_func(const char *path, const struct stat *status, int type, struct FTW *) {
    if (type != FTW_F || !S_ISREG(status->st_mode))
        return 0;
    char *copy = strdup(path);
    if (copy == nullptr)
        keel::end_process(1);
    try {
        reg_lst->files.push_back({copy, *status});
    } catch (const std::bad_alloc &) {
        keel::end_explained("nftw_func");
    }
    return 0;
}

/* The order of a list into which each file is put as the walk meets it, ahead of the first one that
 * does not come before it: where signs are wrong, no sort finds it, and the time is quadratic. */
void insert_one_by_one(places::iterator first, places::iterator last) {
    std::sort(first, last, [](const place &a, const place &b) { return a.met < b.met; });
    for (auto next = first; next != last; ++next) {
        const auto before = std::find_if(
            first, next, [&](const place &placed) { return reg_lst->compare(*next, placed) <= 0; });
        std::rotate(before, next, next + 1);
    }
}

bool beyond_order(std::int64_t low, std::int64_t high) {
    return static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low) > INT32_MAX;
}

void order_files(candidates &files, places &order) {
    try {
        order.reserve(files.size());
    } catch (const std::bad_alloc &) {
        keel::end_explained("fcleanup");
    }
    std::size_t met = 0;
    for (auto file = files.begin(); file != files.end(); ++file)
        order.push_back({file->status.st_atim.tv_sec, file->status.st_size, met++, file});
    std::sort(order.begin(), order.end());

    if (!order.empty() && beyond_order(order.front().accessed, order.back().accessed))
        insert_one_by_one(order.begin(), order.end());
    else
        for (auto first = order.begin(); first != order.end();) {
            const auto last = std::find_if(first, order.end(), [&](const place &other) {
                return other.accessed != first->accessed;
            });
            if (beyond_order((last - 1)->size, first->size))
                insert_one_by_one(first, last);
            first = last;
        }
}

/* nftw() frees what it holds only where it returns. */
int walk(const char *directory) {
    const keel::cancel_shield shield;
    const int result = nftw(directory, nftw_func, 500, FTW_PHYS);
    if (result == 0)
        order_files(reg_lst->files, reg_lst->order);
    return result;
}

/* Files accessed later than this are kept. */
std::int64_t youngest_access(const fs_limit &limit) {
    if ((limit.flags & FS_LIMIT_AGE) == 0)
        return INT64_MAX;
    constexpr float most = 4e18F; /* what is left of the range holds any time of day */
    const float age = 24 * limit.min_age * 60 * 60;
    const float seconds = std::isnan(age) ? most : std::clamp(age, -most, most);
    return time(nullptr) - static_cast<std::int64_t>(seconds);
}

void remove_file(const char *path) {
    if (std::remove(path) == 0) {
        keel::announce(stdout, "fcleanup:remove %s.\n", path);
        return;
    }
    keel::explain("fcleanup:");
}

/* Deletes until the limits hold, measuring fails, or no file is left. */
int remove_files(const char *directory, const fs_limit &limit) {
    const std::int64_t youngest = youngest_access(limit);
    for (const place &next : reg_lst->order) {
        pthread_testcancel();
        if (next.accessed > youngest)
            return check_fs_info(directory, &limit) == 0 ? 0 : -1;
        remove_file(next.file->path);
        reg_lst->drop(next.file);
        const int state = check_fs_info(directory, &limit);
        if (state != 1)
            return state;
    }
    return -1;
}

} // namespace

int get_fs_info(const char *path, unsigned *usage, float *free_gb) {
    struct statfs disk {};
    if (path == nullptr || statfs(path, &disk) == -1)
        return -1;
    const std::uint64_t used = disk.f_blocks - disk.f_bfree;
    const std::uint64_t counted = used + disk.f_bavail;
    if (counted == 0)
        return 0;
    const std::uint64_t percent = (used * 100 + counted / 2) / counted;
    if (usage != nullptr)
        *usage = static_cast<unsigned>(percent);
    if (free_gb != nullptr)
        *free_gb = static_cast<float>((100.0 - static_cast<double>(percent)) *
                                      static_cast<double>(disk.f_blocks) *
                                      static_cast<double>(disk.f_bsize) / (100 * GB));
    return 0;
}

int check_fs_info(const char *path, const fs_limit *limit) {
    unsigned usage = 0;
    float free_gb = HUGE_VALF;
    if (limit == nullptr || get_fs_info(path, &usage, &free_gb) == -1)
        return -1;
    const bool too_full = (limit->flags & FS_LIMIT_USAGE) != 0 && limit->max_usage < usage;
    const bool too_little = (limit->flags & FS_LIMIT_FREE) != 0 && limit->min_free > free_gb;
    return too_full || too_little ? 1 : 0;
}

int fcleanup(const char *directory, const fs_limit *limit) {
    constexpr std::uint32_t all_flags = FS_LIMIT_USAGE | FS_LIMIT_FREE | FS_LIMIT_AGE;
    if (directory == nullptr || limit == nullptr || limit->flags > all_flags)
        return -1;
    const int state = check_fs_info(directory, limit);
    if (state != 1)
        return state;

    reg_lst = new (std::nothrow) candidate_list;
    if (reg_lst == nullptr)
        keel::end_explained("fcleanup");
    const struct list_owner {
        ~list_owner() { delete std::exchange(reg_lst, nullptr); }
    } owner;
    const int walked = walk(directory);
    return walked != 0 ? walked : remove_files(directory, *limit);
}
