/* SPDX-License-Identifier: MIT */
#include "xhd.h"
#include "xhd_ata.h"
#include "xhd_scsi.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/hdreg.h>
#include <map>
#include <memory>
#include <optional>
#include <scsi/sg.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "descriptors.h"
#include "ioctl_watch.h"
#include "own_mounts.h"
#include "temp_dir.h"

namespace {

using keel_test::child_result;
using keel_test::count_descriptors;
using keel_test::failed;
using keel_test::ioctl_watch;
using keel_test::own_mounts;
using keel_test::run_in_child;
using keel_test::write_file;
using std::string;

const child_result as_expected = {0, 0, "", ""};

/* What a disk answers, and how it was asked. */
struct disk {
    std::optional<string> identity{}; /* to the identify request */
    std::optional<int> sg_version{};  /* of its generic interface */
    std::function<int(sg_io_hdr_t &)> on_request{};
    int flags = 0; /* with which it was opened */
};

/* /dev with disks in it that answer as told, for one child process. */
class fake_dev {
  public:
    fake_dev()
        : watch_([this](int fd, unsigned long request, void *argument) {
              return answer(fd, request, argument);
          }) {
        if (!own_mounts() || mount("none", "/dev", "tmpfs", 0, "") != 0)
            _exit(125);
    }

    disk &add(const string &path) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        write_file(path, "");
        return disks_[path];
    }

    /* "ata /dev/sda", "sg /dev/sda", "scsi /dev/sda", in the order in which they were asked. */
    std::vector<string> asked;

  private:
    int answer(int fd, unsigned long request, void *argument) {
        const string path =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
        disk &device = disks_.at(path);
        device.flags = fcntl(fd, F_GETFL);
        if (request == HDIO_GET_IDENTITY) {
            asked.push_back("ata " + path);
            return identify(device, *static_cast<hd_driveid *>(argument));
        }
        if (request == SG_GET_VERSION_NUM) {
            asked.push_back("sg " + path);
            if (!device.sg_version)
                return failed(ENOTTY);
            *static_cast<int *>(argument) = *device.sg_version;
            return 0;
        }
        EXPECT_EQ(request, static_cast<unsigned long>(SG_IO));
        asked.push_back("scsi " + path);
        return device.on_request ? device.on_request(*static_cast<sg_io_hdr_t *>(argument))
                                 : failed(EIO);
    }

    static int identify(const disk &device, hd_driveid &id) {
        const hd_driveid zero{};
        EXPECT_EQ(std::memcmp(&id, &zero, sizeof id), 0) << "the record was not zeroed";
        if (!device.identity)
            return failed(EINVAL);
        std::memset(&id, 'x', sizeof id);
        std::memcpy(id.serial_no, device.identity->data(), sizeof id.serial_no);
        return 0;
    }

    std::map<string, disk> disks_;
    ioctl_watch watch_;
};

void on_machine(const std::function<void(fake_dev &)> &body) {
    EXPECT_EQ(run_in_child([&] {
                  fake_dev dev;
                  body(dev);
              }),
              as_expected);
}

/* A page of the serial number that says it is so long, and as much of it as fits a reply. */
std::function<int(sg_io_hdr_t &)> serial_page(const string &serial, unsigned char length) {
    return [=](sg_io_hdr_t &request) {
        std::vector<unsigned char> page = {0, 0x80, 0, length};
        page.insert(page.end(), serial.begin(), serial.end());
        std::memcpy(request.dxferp, page.data(),
                    std::min<std::size_t>(page.size(), request.dxfer_len));
        return 0;
    };
}

std::function<int(sg_io_hdr_t &)> serial_page(const string &serial) {
    return serial_page(serial, static_cast<unsigned char>(serial.size()));
}

const string twenty = "  ABC-123 ";
const string padded = twenty + "          ";

/* ---- ATA ------------------------------------------------------------------------------------ */

TEST(AtaSerial, IsTheTwentyCharactersOfTheIdentity) {
    on_machine([](fake_dev &dev) {
        disk &one = dev.add("/dev/one");
        one.identity = padded;
        char serial[64];
        std::memset(serial, '#', sizeof serial);
        EXPECT_EQ(ata_serial_no(serial, sizeof serial, "/dev/one"), 0);
        EXPECT_EQ(serial, padded);
        EXPECT_EQ(serial[21], '#');
        EXPECT_EQ(one.flags & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
    });
}

TEST(AtaSerial, IsCutToItsPlace) {
    on_machine([](fake_dev &dev) {
        dev.add("/dev/one").identity = padded;
        for (const std::size_t room : {1U, 2U, 5U, 20U, 21U, 22U}) {
            char serial[64];
            std::memset(serial, '#', sizeof serial);
            EXPECT_EQ(ata_serial_no(serial, room, "/dev/one"), 0);
            EXPECT_EQ(serial, padded.substr(0, room - 1)) << room;
            EXPECT_EQ(serial[std::max<std::size_t>(room, 21)], '#') << room;
        }
    });
}

TEST(AtaSerial, EndsWhereTheDiskEndsIt) {
    on_machine([](fake_dev &dev) {
        dev.add("/dev/one").identity = string("AB\0CD", 5) + string(15, ' ');
        char serial[64];
        EXPECT_EQ(ata_serial_no(serial, sizeof serial, "/dev/one"), 0);
        EXPECT_STREQ(serial, "AB");
    });
}

TEST(AtaSerial, FailsWithoutTouchingAnything) {
    on_machine([](fake_dev &dev) {
        dev.add("/dev/mute");
        dev.add("/dev/one").identity = padded;
        const auto descriptors = count_descriptors();
        char serial[8] = "before";
        EXPECT_EQ(ata_serial_no(serial, sizeof serial, "/dev/mute"), -1);
        EXPECT_EQ(ata_serial_no(serial, sizeof serial, "/dev/absent"), -1);
        EXPECT_EQ(ata_serial_no(serial, sizeof serial, nullptr), -1);
        EXPECT_EQ(ata_serial_no(serial, 0, "/dev/one"), -1);
        EXPECT_EQ(ata_serial_no(nullptr, sizeof serial, "/dev/one"), -1);
        EXPECT_STREQ(serial, "before");
        EXPECT_EQ(dev.asked, std::vector<string>{"ata /dev/mute"});
        EXPECT_EQ(count_descriptors(), descriptors);
    });
}

/* ---- SCSI ----------------------------------------------------------------------------------- */

TEST(ScsiOpen, TakesDevicesWithTheThirdInterface) {
    on_machine([](fake_dev &dev) {
        const struct {
            std::optional<int> version;
            bool opens;
        } rows[] = {{std::nullopt, false}, {-1, false},   {0, false},
                    {29999, false},        {30000, true}, {40000, true}};
        disk &one = dev.add("/dev/one");
        const auto descriptors = count_descriptors();
        for (const auto &r : rows) {
            one.sg_version = r.version;
            const int device = scsi_open("/dev/one");
            EXPECT_EQ(device != -1, r.opens) << r.version.value_or(-2);
            if (device != -1) {
                EXPECT_EQ(fcntl(device, F_GETFL) & O_ACCMODE, O_RDWR);
                EXPECT_EQ(fcntl(device, F_GETFD), FD_CLOEXEC);
                EXPECT_EQ(scsi_close(device), 0);
            }
            EXPECT_EQ(count_descriptors(), descriptors);
        }
        EXPECT_EQ(scsi_open("/dev/absent"), -1);
        EXPECT_EQ(scsi_open(nullptr), -1);
    });
}

TEST(ScsiClose, RefusesNegativeDescriptors) {
    EXPECT_EQ(scsi_close(-1), -1);
    EXPECT_EQ(scsi_close(-100), -1);
}

/* One that lets a test see the request and answer it. */
template <class Body>
void with_device(const std::function<int(sg_io_hdr_t &)> &on_request, const Body &body) {
    on_machine([&](fake_dev &dev) {
        disk &one = dev.add("/dev/one");
        one.sg_version = 30536;
        one.on_request = on_request;
        const int device = scsi_open("/dev/one");
        body(device);
        EXPECT_EQ(scsi_close(device), 0);
    });
}

TEST(ScsiIo, HandsTheRequestOn) {
    unsigned char cdb[10] = {1, 2, 3};
    unsigned char data[100];
    unsigned char sense[24];
    const auto look = [&](sg_io_hdr_t &request) {
        sg_io_hdr_t expected{};
        expected.interface_id = 'S';
        expected.dxfer_direction = SG_DXFER_TO_DEV;
        expected.cmd_len = sizeof cdb;
        expected.mx_sb_len = sizeof sense;
        expected.dxfer_len = sizeof data;
        expected.dxferp = data;
        expected.cmdp = cdb;
        expected.sbp = sense;
        expected.timeout = 5000;
        EXPECT_EQ(std::memcmp(&request, &expected, sizeof expected), 0);
        return 0;
    };
    with_device(look, [&](int device) {
        unsigned length = sizeof data;
        unsigned told = sizeof sense;
        EXPECT_EQ(scsi_io(device, cdb, sizeof cdb, SG_DXFER_TO_DEV, data, &length, sense, &told),
                  0);
        EXPECT_EQ(length, sizeof data);
        EXPECT_EQ(told, 0U);
    });
}

TEST(ScsiIo, TellsHowTheRequestEnded) {
    const struct {
        const char *what;
        unsigned info;
        unsigned char told;
        unsigned char masked_status;
        unsigned short host_status;
        unsigned short driver_status;
        int result;
        unsigned tells;
    } rows[] = {
        {"all right", 0, 0, 0, 0, 0, 0, 0},
        {"sense data", SG_INFO_CHECK, 18, 0, 0, 0, 0, 18},
        {"sense data and more", SG_INFO_CHECK | 4, 18, 1, 1, 8, 0, 18},
        {"sense data without the check", 0, 18, 0, 0, 0, 0, 0},
        {"the check without sense data", SG_INFO_CHECK, 0, 0, 0, 0, 0, 0},
        {"the device", 0, 0, 1, 1, 1, -2, 0},
        {"the device, checked", SG_INFO_CHECK, 0, 4, 0, 0, -2, 0},
        {"the host", 0, 0, 0, 3, 1, -3, 0},
        {"the driver", 0, 0, 0, 0, 6, -4, 0},
    };
    for (const auto &r : rows) {
        const auto end = [&](sg_io_hdr_t &request) {
            request.info = r.info;
            request.sb_len_wr = r.told;
            request.masked_status = r.masked_status;
            request.host_status = r.host_status;
            request.driver_status = r.driver_status;
            return 0;
        };
        with_device(end, [&](int device) {
            unsigned char cdb[6] = {};
            unsigned char sense[32];
            unsigned length = 0;
            unsigned told = sizeof sense;
            EXPECT_EQ(
                scsi_io(device, cdb, sizeof cdb, SG_DXFER_NONE, nullptr, &length, sense, &told),
                r.result)
                << r.what;
            EXPECT_EQ(told, r.tells) << r.what;
        });
    }
}

TEST(ScsiIo, FailsWhereTheRequestCannotBeIssued) {
    with_device(
        [](sg_io_hdr_t &) { return failed(EPERM); },
        [](int device) {
            unsigned char cdb[6] = {};
            unsigned length = 0;
            unsigned told = 32;
            unsigned char sense[32];
            EXPECT_EQ(scsi_io(device, cdb, 6, SG_DXFER_NONE, nullptr, &length, sense, &told), -1);
            EXPECT_EQ(told, 0U);
            told = 32;
            EXPECT_EQ(scsi_io(device, nullptr, 6, SG_DXFER_NONE, nullptr, &length, sense, &told),
                      -1);
            EXPECT_EQ(scsi_io(device, cdb, 6, SG_DXFER_NONE, nullptr, nullptr, sense, &told), -1);
            EXPECT_EQ(scsi_io(device, cdb, 6, SG_DXFER_NONE, nullptr, &length, sense, nullptr), -1);
            EXPECT_EQ(told, 32U);
        });
}

TEST(ScsiInquiry, AsksForTheSerialNumberPage) {
    const auto look = [](sg_io_hdr_t &request) {
        const unsigned char cdb[6] = {0x12, 0x01, 0x80, 0x00, 0xff, 0x00};
        EXPECT_EQ(request.cmd_len, 6);
        EXPECT_EQ(std::memcmp(request.cmdp, cdb, sizeof cdb), 0);
        EXPECT_EQ(request.dxfer_direction, SG_DXFER_FROM_DEV);
        EXPECT_EQ(request.dxfer_len, 255U);
        EXPECT_EQ(request.mx_sb_len, 32);
        return serial_page("S3R1AL")(request);
    };
    with_device(look, [](int device) {
        char out[SCSI_SERIAL_SIZE];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(scsi_inquiry_unit_serial_number(device, out, 0), 0);
        EXPECT_EQ(string(out, 10), string("S3R1AL\0\0\0\0", 10));
        EXPECT_EQ(out[10], '#') << "the page's length and 4 more";
    });
}

/* 251 characters fill a reply. What a page claims beyond is zero. */
TEST(ScsiInquiry, CopiesWhatThePageSaysAndFourMore) {
    for (const unsigned length : {0U, 1U, 250U, 251U, 252U, 255U})
        with_device(
            serial_page(string(255, 's'), static_cast<unsigned char>(length)), [&](int device) {
                const auto out = std::make_unique<char[]>(length + 4); // a byte more would be seen
                EXPECT_EQ(scsi_inquiry_unit_serial_number(device, out.get(), 1), 0);
                const unsigned sent = std::min(length + 4, 251U);
                EXPECT_EQ(string(out.get(), length + 4),
                          string(sent, 's') + string(length + 4 - sent, '\0'));
            });
}

TEST(ScsiInquiry, FailsWhereTheDeviceRefuses) {
    const std::function<int(sg_io_hdr_t &)> refusals[] = {[](sg_io_hdr_t &) { return failed(EIO); },
                                                          [](sg_io_hdr_t &request) {
                                                              request.info = SG_INFO_CHECK;
                                                              request.sb_len_wr = 18;
                                                              return 0;
                                                          },
                                                          [](sg_io_hdr_t &request) {
                                                              request.masked_status = 1;
                                                              return 0;
                                                          }};
    for (const auto &refusal : refusals)
        with_device(refusal, [](int device) {
            char out[SCSI_SERIAL_SIZE] = "before";
            EXPECT_EQ(scsi_inquiry_unit_serial_number(device, out, sizeof out), -1);
            EXPECT_STREQ(out, "before");
            EXPECT_EQ(scsi_inquiry_unit_serial_number(device, nullptr, 0), -1);
        });
}

TEST(ScsiSerial, IsZeroedAsFarAsItIsSaidToReach) {
    on_machine([](fake_dev &dev) {
        disk &one = dev.add("/dev/one");
        one.sg_version = 30000;
        one.on_request = serial_page("AB");
        const auto descriptors = count_descriptors();
        char out[300];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(scsi_serial_no(out, 20, "/dev/one"), 0);
        EXPECT_EQ(string(out, 21), "AB" + string(18, '\0') + "#");
        EXPECT_EQ(count_descriptors(), descriptors);
    });
}

TEST(ScsiSerial, FailsAsItsPartsDo) {
    on_machine([](fake_dev &dev) {
        dev.add("/dev/old").sg_version = 29999;
        dev.add("/dev/mute").sg_version = 30000;
        char out[SCSI_SERIAL_SIZE] = "before";
        EXPECT_EQ(scsi_serial_no(out, sizeof out, "/dev/absent"), -1);
        EXPECT_EQ(scsi_serial_no(out, sizeof out, "/dev/old"), -1);
        EXPECT_EQ(scsi_serial_no(out, sizeof out, nullptr), -1);
        EXPECT_EQ(scsi_serial_no(nullptr, sizeof out, "/dev/mute"), -1);
        EXPECT_STREQ(out, "before");
        EXPECT_EQ(scsi_serial_no(out, sizeof out, "/dev/mute"), -1);
        EXPECT_STREQ(out, "") << "zeroed before the device is asked";
    });
}

/* ---- The first disk ------------------------------------------------------------------------- */

constexpr std::array paths = {"/dev/sda", "/dev/hda", "/dev/cciss/c0d0"};

TEST(HdSerial, AsksAllAsAtaDisksBeforeAnyAsScsiDisk) {
    on_machine([](fake_dev &dev) {
        for (const char *path : paths)
            dev.add(path).sg_version = 30000;
        char out[SCSI_SERIAL_SIZE];
        EXPECT_EQ(hd_serial_no(out, sizeof out), -1);
        const std::vector<string> order = {
            "ata /dev/sda",  "ata /dev/hda",       "ata /dev/cciss/c0d0",
            "sg /dev/sda",   "scsi /dev/sda",      "sg /dev/hda",
            "scsi /dev/hda", "sg /dev/cciss/c0d0", "scsi /dev/cciss/c0d0"};
        EXPECT_EQ(dev.asked, order);
    });
}

TEST(HdSerial, TakesTheFirstThatAnswers) {
    for (std::size_t ata = 0; ata <= paths.size(); ata++)
        for (std::size_t scsi = 0; scsi <= paths.size(); scsi++)
            on_machine([&](fake_dev &dev) {
                for (std::size_t i = 0; i < paths.size(); i++) {
                    disk &one = dev.add(paths[i]);
                    one.sg_version = 30000;
                    if (i >= ata)
                        one.identity = "ATA" + std::to_string(i) + string(16, ' ');
                    if (i >= scsi)
                        one.on_request = serial_page("SCSI" + std::to_string(i));
                }
                char out[SCSI_SERIAL_SIZE] = "before";
                const bool found = ata < paths.size() || scsi < paths.size();
                EXPECT_EQ(hd_serial_no(out, sizeof out), found ? 0 : -1);
                const string expected = ata < paths.size()
                                            ? "ATA" + std::to_string(ata) + string(16, ' ')
                                        : found ? "SCSI" + std::to_string(scsi)
                                                : "";
                EXPECT_EQ(out, expected); // zeroed by the last attempt where none answers
            });
}

TEST(HdSerial, FailsOnAMachineWithoutDisks) {
    on_machine([](fake_dev &dev) {
        char out[SCSI_SERIAL_SIZE] = "before";
        EXPECT_EQ(hd_serial_no(out, sizeof out), -1);
        EXPECT_EQ(hd_serial_no(nullptr, 0), -1);
        EXPECT_STREQ(out, "before");
        EXPECT_TRUE(dev.asked.empty());
    });
}

} // namespace
