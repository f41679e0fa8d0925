/* SPDX-License-Identifier: MIT */
/**
 * @file xhd_scsi.h
 * @brief Requests to SCSI devices through the kernel's generic interface; a disk's serial number.
 *
 * Functions without state: any thread may call them. Nothing is printed. Opening a device needs the
 * right to write to it, which is usually root's.
 *
 * @code{.c}
 * #include <xhd_scsi.h>
 *
 * int main(void) {
 *     char serial[SCSI_SERIAL_SIZE];
 *     return scsi_serial_no(serial, sizeof serial, "/dev/null") == -1 ? 0 : 1; // it is no disk
 * }
 * @endcode
 */
#ifndef KEEL_XHD_SCSI_H
#define KEEL_XHD_SCSI_H

#include <stddef.h>

#include "keel.h"

KEEL_BEGIN_DECLS

/** Bytes that a buffer for a serial number must have. */
#define SCSI_SERIAL_SIZE 259

/**
 * Writes the serial number of the disk `dev` to `out`, as scsi_inquiry_unit_serial_number() does,
 * after zeroing its `outlen` bytes. `out` must have SCSI_SERIAL_SIZE bytes whatever `outlen` is;
 * with one byte more, zeroed, the text is terminated in any case. Returns 0; -1 where a pointer is
 * null, scsi_open() fails (`out` is untouched then), or the device does not answer.
 */
KEEL_API int scsi_serial_no(char *out, size_t outlen, const char *dev);

/**
 * Opens a device for requests. Returns a descriptor, the caller's to give to scsi_close(); -1 where
 * it cannot be opened or has no generic interface of version 3 or later.
 */
KEEL_API int scsi_open(const char *dev);

/** Closes a descriptor. Returns 0; -1 for a negative one. */
KEEL_API int scsi_close(int fd);

/**
 * Issues the request `cdb` of `cdb_len` bytes and waits 5 seconds for its end at most. `direction`
 * is one of SG_DXFER_NONE and its kin. `*buf_len` bytes at `buf` are the data; they and `sense`, of
 * `*sense_len` bytes, are the device's to fill.
 *
 * Returns 0: done, or, with `*sense_len` not 0, the device refused and said so in `sense`. -1 where
 * the request cannot be issued or a pointer that is needed is null; -2, -3, -4 where the device,
 * the host or the driver reports a failure. `*sense_len` is 0 in all other cases,
 * and as it was where a pointer is null.
 */
KEEL_API int scsi_io(int fd, unsigned char *cdb, int cdb_len, int direction, void *buf,
                     unsigned *buf_len, unsigned char *sense, unsigned *sense_len);

/**
 * Asks for the page of the unit's serial number and copies the serial number to `out`: as many
 * bytes as the page says, and 4 more, so up to SCSI_SERIAL_SIZE; those that the device did not send
 * are 0. `outlen` is not looked at. Returns 0; -1 where the device refuses or `out` is null.
 */
KEEL_API int scsi_inquiry_unit_serial_number(int fd, char *out, unsigned outlen);

KEEL_END_DECLS

#endif
