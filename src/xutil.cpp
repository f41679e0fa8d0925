/* SPDX-License-Identifier: MIT */
#include "xutil.h"

#include <cerrno>
#include <cstdlib>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ending.h"

void err_sys(const char * /*format*/, ...) {
    keel::end_process(1);
}

int Close(int descriptor) {
    if (close(descriptor) == -1)
        err_sys("close error");
    return 0;
}

int Unlink(const char *path) {
    if (path == nullptr || unlink(path) == -1)
        err_sys("unlink error(%s)", path);
    return 0;
}

int Ioctl(int descriptor, int request, void *argument) {
    /* Requests are 32 bits without a sign; many have the highest one set. */
    const int result = ioctl(descriptor, static_cast<unsigned>(request), argument);
    if (result == -1)
        err_sys("ioctl error");
    return result;
}

int Socket(int domain, int type, int protocol) {
    const int descriptor = socket(domain, type, protocol);
    if (descriptor == -1)
        err_sys("socket error");
    return descriptor;
}

int Mkfifo(const char *path, mode_t mode) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (mkfifo(path, mode) == -1 && errno != EEXIST)
        return -1;
    errno = 0;
    return 0;
}
