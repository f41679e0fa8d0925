/* SPDX-License-Identifier: MIT */
#include "xhd_ata.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

#include "handles.h"

int ata_serial_no(char *out, std::size_t outlen, const char *dev) {
    if (out == nullptr || outlen == 0 || dev == nullptr)
        return -1;
    const keel::unique_fd disk = keel::open_uncancelled(dev, O_RDONLY | O_NONBLOCK);
    hd_driveid id{};
    if (!disk || ioctl(disk.get(), HDIO_GET_IDENTITY, &id) == -1)
        return -1;
    char serial[256] = "";
    std::memcpy(serial, id.serial_no, sizeof id.serial_no);
    std::snprintf(out, outlen, "%s", serial);
    return 0;
}
