/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "child.h"
#include "own_mounts.h"
#include "temp_dir.h"

namespace keel_test {

/* Files of a test's own laid over files of the system, such as those of the kernel. Only this
 * process and its children see them; they are gone with it. Needs root. */
class fake_files {
  public:
    /* The fakes themselves lie in `directory`. */
    explicit fake_files(std::string directory) : directory_(std::move(directory)) {
        insist(own_mounts(), "/");
    }

    /* What `path` holds from now on. A stream that is open on a fake sees its new text. */
    void lay(const std::string &path, const std::string &text) {
        write_file(fake_of(path), text);
        if (laid_.insert(path).second)
            bind(fake_of(path), path);
    }

    /* From now on `path` is there but cannot be opened, not even by root. */
    void block(const std::string &path) {
        const std::string socket = fake_of(path) + "_blocked";
        insist(mknod(socket.c_str(), S_IFSOCK | 0600, 0) == 0, path);
        bind(socket, path);
    }

    /* From now on `path` is what `fake` is: files both, or directories. */
    static void bind(const std::string &fake, const std::string &path) {
        insist(mount(fake.c_str(), path.c_str(), "", MS_BIND, "") == 0, path);
    }

  private:
    std::string fake_of(std::string path) const {
        std::replace(path.begin(), path.end(), '/', '_');
        return directory_ + "/" + path;
    }

    static void insist(bool done, const std::string &path) {
        if (done)
            return;
        std::perror(("no fake of " + path).c_str());
        _exit(125);
    }

    std::string directory_;
    std::set<std::string> laid_;
};

/* Runs `body` in a child process that has fakes of its own. */
inline child_result run_with_fakes(const std::function<void(fake_files &)> &body) {
    const temp_dir directory;
    return run_in_child([&] {
        fake_files files(directory.path());
        body(files);
    });
}

} // namespace keel_test
