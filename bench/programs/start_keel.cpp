/* SPDX-License-Identifier: MIT */
/* The least that a program with keel is: the library is loaded, and nothing in it called. */
#include <xlog.h>

int main(int argc, char *[]) {
    return argc > 1 ? log_destroy() : 0;
}
