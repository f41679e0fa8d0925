/* SPDX-License-Identifier: MIT */
/* A program with keel that transfers files, and therefore with libcurl: both are loaded, and
 * nothing in them called. */
#include <xftp.h>

int main(int argc, char *[]) {
    return argc > 1 ? static_cast<int>(ftp_command("", "", "", nullptr, nullptr)) : 0;
}
