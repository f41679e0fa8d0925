/* SPDX-License-Identifier: MIT */
#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>

/* A daemon that does nothing, for tests to watch. It can be told by the name and the arguments that
 * it is started with. Its start is over once it is as it stays: in "/", its streams leading
 * nowhere. */

namespace {

bool detach() {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    bool done = setsid() != -1 && chdir("/") == 0;
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        done = dup2(nowhere, stream) == stream && done;
    return done;
}

} // namespace

int main() {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0)
        return 1;
    const pid_t child = fork();
    if (child != 0) {
        char sign = 0;
        close(ready[1]);
        _exit(child != -1 && read(ready[0], &sign, 1) == 1 ? 0 : 1);
    }
    if (!detach() || write(ready[1], "", 1) != 1)
        return 1;
    for (;;)
        pause();
}
