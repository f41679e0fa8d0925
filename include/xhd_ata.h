/* SPDX-License-Identifier: MIT */
/**
 * @file xhd_ata.h
 * @brief The serial number of an ATA disk, by its identify record.
 *
 * A function without state: any thread may call it. Nothing is printed.
 *
 * @code{.c}
 * #include <xhd_ata.h>
 *
 * int main(void) {
 *     char serial[32];
 *     return ata_serial_no(serial, sizeof serial, "/dev/null") == -1 ? 0 : 1; // it is no disk
 * }
 * @endcode
 */
#ifndef KEEL_XHD_ATA_H
#define KEEL_XHD_ATA_H

#include <stddef.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/**
 * Writes the serial number of the disk `dev` to `out`: 20 characters, with the blanks the disk pads
 * it with, cut to `outlen` - 1. Returns 0; -1, with `out` untouched, where a pointer is null,
 * `outlen` is 0, or the device cannot be opened or does not identify itself. Needs the right to
 * open the disk, which is usually root's.
 */
KEEL_API int ata_serial_no(char *out, size_t outlen, const char *dev);

KEEL_END_DECLS

#endif
