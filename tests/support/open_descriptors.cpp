/* SPDX-License-Identifier: MIT */
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

/* Tells on standard error which descriptors it was started with, standard streams left out; its
 * status is how many there are. */
int main() {
    int found = 0;
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr)
        return 255;
    while (const dirent *entry = readdir(directory)) {
        const int descriptor = std::atoi(entry->d_name);
        if (descriptor <= STDERR_FILENO || descriptor == dirfd(directory))
            continue;
        char target[256] = "";
        if (readlinkat(dirfd(directory), entry->d_name, target, sizeof target - 1) == -1)
            continue;
        fprintf(stderr, "started with %d open on %s\n", descriptor, target);
        found++;
    }
    closedir(directory);
    return found;
}
