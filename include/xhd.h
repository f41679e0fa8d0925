/* SPDX-License-Identifier: MIT */
/**
 * @file xhd.h
 * @brief The serial number of the machine's first disk.
 *
 * A function without state: any thread may call it. Nothing is printed.
 *
 * @code{.c}
 * #include <stdio.h>
 * #include <xhd.h>
 *
 * int main(void) {
 *     char serial[260] = "";
 *     if (hd_serial_no(serial, sizeof serial) == 0)
 *         printf("disk %s\n", serial);
 *     return 0;
 * }
 * @endcode
 */
#ifndef KEEL_XHD_H
#define KEEL_XHD_H

#include <stddef.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Writes the serial number of the first of /dev/sda, /dev/hda and /dev/cciss/c0d0 that tells it:
 * all are asked as ATA disks first (ata_serial_no()), then as SCSI disks (scsi_serial_no(), for
 * which `out` must have 259 bytes whatever `outlen` is). Returns 0; -1 where none tells, and then
 * `out` may be zeroed.
 */
KEEL_API int hd_serial_no(char *out, size_t outlen);

KEEL_END_DECLS

#endif
