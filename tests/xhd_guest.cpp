/* SPDX-License-Identifier: MIT */
/* The first and only process of an emulated machine: loads its drivers, waits for the disks that
 * the variable "disks" names, tells what each of them answers, and switches the machine off. */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <scsi/sg.h>
#include <xhd.h>
#include <xhd_ata.h>
#include <xhd_scsi.h>

namespace {

void load_drivers() {
    std::ifstream order("/drivers/order");
    for (std::string name; std::getline(order, name);) {
        const int driver = open(("/drivers/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (syscall(SYS_finit_module, driver, "", 0) != 0)
            std::perror(name.c_str());
        close(driver);
    }
}

std::vector<std::string> disks() {
    std::istringstream list(std::getenv("disks"));
    std::vector<std::string> all;
    for (std::string disk; std::getline(list, disk, ',');) {
        for (int tries = 0; access(disk.c_str(), F_OK) != 0 && tries < 6000; tries++)
            usleep(10'000);
        all.push_back(disk);
    }
    return all;
}

/* The number of bytes that a refused request tells of. */
void refuse(const char *disk) {
    unsigned char unknown[6] = {0xff};
    unsigned char sense[32] = {};
    unsigned nothing = 0;
    unsigned told = sizeof sense;
    const int device = scsi_open(disk);
    if (device == -1)
        return;
    const int result =
        scsi_io(device, unknown, sizeof unknown, SG_DXFER_NONE, nullptr, &nothing, sense, &told);
    std::printf("%s refuses: %d, sense %s\n", disk, result, told > 0 ? "told" : "not told");
    std::printf("%s closed: %d\n", disk, scsi_close(device));
}

void ask(const char *disk) {
    char ata[256] = "untouched";
    char few[8] = "";
    char scsi[SCSI_SERIAL_SIZE + 1] = "untouched";
    int result = ata_serial_no(ata, sizeof ata, disk);
    std::printf("%s ata: %d [%s]\n", disk, result, ata);
    result = ata_serial_no(few, 5, disk);
    std::printf("%s ata, short: %d [%s]\n", disk, result, few);
    result = scsi_serial_no(scsi, sizeof scsi, disk);
    std::printf("%s scsi: %d [%s]\n", disk, result, scsi);
    refuse(disk);
}

} // namespace

int main() {
    mkdir("/dev", 0755);
    mount("devtmpfs", "/dev", "devtmpfs", 0, "");
    const int console = open("/dev/console", O_RDWR | O_CLOEXEC);
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
        dup2(console, descriptor);
    load_drivers();
    for (const std::string &disk : disks())
        ask(disk.c_str());
    char first[SCSI_SERIAL_SIZE + 1] = "untouched";
    const int result = hd_serial_no(first, sizeof first);
    std::printf("first: %d [%s]\nend\n", result, first);
    std::fflush(stdout);
    fsync(STDOUT_FILENO);
    reboot(RB_POWER_OFF);
}
