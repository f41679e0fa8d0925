/* SPDX-License-Identifier: MIT */
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "own_mounts.h"
#include "temp_dir.h"

namespace keel_test {

constexpr char mkfs_ext4[] = "/sbin/mkfs.ext4"; // of the Debian package e2fsprogs

inline bool can_make_ext4() {
    return access(mkfs_ext4, X_OK) == 0;
}

/* A node for a device of the kernel's, made here: a changed root may have none. */
inline int open_device(const std::string &node, mode_t kind, unsigned major, unsigned minor) {
    if (mknod(node.c_str(), kind | 0600, makedev(major, minor)) != 0 && errno != EEXIST)
        return -1;
    return open(node.c_str(), O_RDWR | O_CLOEXEC);
}

/* Opens a loop device with `image` behind it, and gives its node in `home`. It lets go of the image
 * by itself when nobody has it open or mounted any more, however the test ends. -1 with errno. */
inline int open_loop(const std::string &home, const std::string &image, std::string &node) {
    const int control = open_device(home + "/loop-control", S_IFCHR, 10, 237);
    loop_config settings{};
    const int file = open(image.c_str(), O_RDWR | O_CLOEXEC);
    settings.fd = static_cast<unsigned>(file);
    settings.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    int device = -1;
    for (int number; (number = ioctl(control, LOOP_CTL_GET_FREE)) >= 0;) {
        node = home + "/loop" + std::to_string(number);
        device = open_device(node, S_IFBLK, 7, static_cast<unsigned>(number));
        if (device == -1 || ioctl(device, LOOP_CONFIGURE, &settings) == 0)
            break;
        const int reason = errno;
        close(std::exchange(device, -1));
        errno = reason;
        if (reason != EBUSY) // where somebody else was faster
            break;
    }
    const int reason = errno;
    close(file);
    close(control);
    errno = reason;
    return device;
}

/* An ext4 file system in `image`, of 4 KB blocks, a twentieth of them reserved for root. */
inline bool make_ext4(const std::string &image, off_t size) {
    write_file(image, "");
    const std::string command =
        mkfs_ext4 + std::string(" -q -F -b 4096 -m 5 -O ^has_journal -E lazy_itable_init=0 ") +
        image;
    return truncate(image.c_str(), size) == 0 && std::system(command.c_str()) == 0;
}

/* Runs `body` on a thread that alone sees `directory` as an ext4 file system of `size` bytes, held
 * in memory, which is gone afterwards. Needs root. */
inline void on_ext4_disk(const std::string &directory, off_t size,
                         const std::function<void()> &body) {
    const temp_dir home;
    std::thread([&] {
        const std::string image = home / "image";
        std::string node;
        if (!own_mounts() || mount("home", home.path().c_str(), "tmpfs", 0, "") != 0 ||
            !make_ext4(image, size))
            FAIL() << "no image of a disk: " << std::strerror(errno);
        const int device = open_loop(home.path(), image, node);
        const bool mounted =
            device != -1 && mount(node.c_str(), directory.c_str(), "ext4", 0, "") == 0;
        const int reason = errno;
        if (device != -1)
            close(device);
        if (!mounted)
            FAIL() << "no ext4 disk: " << std::strerror(reason);
        body();
        umount2(directory.c_str(), MNT_DETACH);
    }).join();
}

} // namespace keel_test
