/* SPDX-License-Identifier: MIT */
#include "xhd_scsi.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include "handles.h"

namespace {

constexpr unsigned allocation_length = 255;
constexpr std::size_t page_header = 4;

} // namespace

int scsi_serial_no(char *out, std::size_t outlen, const char *dev) {
    if (out == nullptr || dev == nullptr)
        return -1;
    const keel::unique_fd device(scsi_open(dev));
    if (!device)
        return -1;
    std::memset(out, 0, outlen);
    return scsi_inquiry_unit_serial_number(device.get(), out, static_cast<unsigned>(outlen));
}

int scsi_open(const char *dev) {
    if (dev == nullptr)
        return -1;
    keel::unique_fd device = keel::open_uncancelled(dev, O_RDWR);
    int version = 0;
    if (!device || ioctl(device.get(), SG_GET_VERSION_NUM, &version) == -1 || version <= 29999)
        return -1;
    return device.release();
}

int scsi_close(int fd) {
    if (fd < 0)
        return -1;
    keel::unique_fd(fd).close();
    return 0;
}

/* NOLINTNEXTLINE(readability-non-const-parameter): the contract's type, for both directions */
int scsi_io(int fd, unsigned char *cdb, int cdb_len, int direction, void *buf, unsigned *buf_len,
            unsigned char *sense, unsigned *sense_len) {
    if (cdb == nullptr || buf_len == nullptr || sense_len == nullptr)
        return -1;
    sg_io_hdr_t request{};
    request.interface_id = 'S';
    request.dxfer_direction = direction;
    request.cmd_len = static_cast<unsigned char>(cdb_len);
    request.mx_sb_len = static_cast<unsigned char>(std::min(*sense_len, 255U));
    request.dxfer_len = *buf_len;
    request.dxferp = buf;
    request.cmdp = cdb;
    request.sbp = sense;
    request.timeout = 5000;
    *sense_len = 0;
    if (ioctl(fd, SG_IO, &request) == -1)
        return -1;
    if ((request.info & SG_INFO_CHECK) != 0 && request.sb_len_wr != 0) {
        *sense_len = request.sb_len_wr;
        return 0;
    }
    if (request.masked_status != 0)
        return -2;
    if (request.host_status != 0)
        return -3;
    return request.driver_status != 0 ? -4 : 0;
}

int scsi_inquiry_unit_serial_number(int fd, char *out, unsigned /*outlen*/) {
    if (out == nullptr)
        return -1;
    unsigned char cdb[6] = {0x12, 0x01, 0x80, 0x00, allocation_length, 0x00};
    /* A page may claim to be longer than a reply: what is copied of it lies in here all the same.
     */
    unsigned char reply[page_header + SCSI_SERIAL_SIZE] = {};
    unsigned length = allocation_length;
    unsigned char sense[32] = {};
    unsigned sense_length = sizeof sense;
    if (scsi_io(fd, cdb, sizeof cdb, SG_DXFER_FROM_DEV, reply, &length, sense, &sense_length) !=
            0 ||
        sense_length != 0)
        return -1;
    std::memcpy(out, reply + page_header, reply[3] + page_header);
    return 0;
}
