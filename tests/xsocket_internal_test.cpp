/* SPDX-License-Identifier: MIT */
#include "xsocket.h"

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "allocation_faults.h"
#include "child.h"
#include "descriptors.h"

namespace {
int options_refused = -1; // -1: none is
}

extern "C" { // NOLINTBEGIN: the linker's names
int __real_setsockopt(int descriptor, int level, int name, const void *value, socklen_t size);
int __wrap_setsockopt(int descriptor, int level, int name, const void *value, socklen_t size);

int __wrap_setsockopt(int descriptor, int level, int name, const void *value, socklen_t size) {
    if (options_refused == -1)
        return __real_setsockopt(descriptor, level, name, value, size);
    options_refused++;
    errno = EPERM;
    return -1;
}
} // NOLINTEND

namespace {

using keel_test::child_result;
using keel_test::exited;
using keel_test::run_in_child;

TEST(SocketOpen, DoesWithoutBroadcastsWhereTheyAreRefused) {
    EXPECT_EQ(run_in_child([] {
                  options_refused = 0;
                  xsocket *opened = socket_open(AF_INET, SOCK_DGRAM, 0);
                  const bool usable = opened != nullptr && opened->type == SOCK_DGRAM;
                  std::printf("%d %d %d", options_refused, usable, socket_close(opened));
              }),
              (child_result{0, 0, "1 1 0", ""}));
}

TEST(SocketOpen, EndsTheProcessWithoutMemory) {
    EXPECT_EQ(run_in_child([] {
                  const keel_test::failing_allocation first(1);
                  socket_open(AF_INET, SOCK_DGRAM, 0);
              }),
              exited(255, "No memory!!!\n"));
}

} // namespace
