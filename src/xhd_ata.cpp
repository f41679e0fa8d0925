/* SPDX-License-Identifier: MIT */
#include "xhd_ata.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

#include "cancel_shield.h"
#include "handles.h"

int ata_serial_no(char *out, std::size_t outlen, const char *dev) {
    if (out == nullptr || outlen == 0 || dev == nullptr)
        return -1;
    const keel::cancel_shield shield; // a cancelled open() would leave its descriptor behind
    const keel::unique_fd disk(open(dev, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    hd_driveid id{};
    if (!disk || ioctl(disk.get(), HDIO_GET_IDENTITY, &id) == -1)
        return -1;
    char serial[256] = "";
    std::memcpy(serial, id.serial_no, sizeof id.serial_no);
    std::snprintf(out, outlen, "%s", serial);
    return 0;
}
