/* SPDX-License-Identifier: MIT */
#include "xhd.h"

#include <cstddef>
#include <initializer_list>

#include "xhd_ata.h"
#include "xhd_scsi.h"

namespace {

constexpr char dev0[] = "/dev/sda";
constexpr char dev1[] = "/dev/hda";
constexpr char dev2[] = "/dev/cciss/c0d0";

} // namespace

int hd_serial_no(char *out, std::size_t outlen) {
    for (auto *serial_no : {ata_serial_no, scsi_serial_no})
        for (const char *device : {dev0, dev1, dev2})
            if (serial_no(out, outlen, device) == 0)
                return 0;
    return -1;
}
