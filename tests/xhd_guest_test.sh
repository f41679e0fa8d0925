#!/usr/bin/env bash
# Asks disks of each kind in an emulated machine, whose kernel is Debian's, unpacked and not installed.
# usage: xhd_guest_test.sh PROGRAM WORK_DIRECTORY
set -eu
program=$1
work=$2
drivers=(ata_piix virtio_pci virtio_scsi virtio_blk sd_mod sg)

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

# The kernel, and its drivers in the order in which they load.
unpack_kernel() {
    local package version driver
    package=$(apt-cache depends linux-image-cloud-amd64 | awk '/Depends: linux-image/ {print $2; exit}')
    rm -rf "$work" && mkdir -p "$work/root/drivers" && cd "$work"
    apt-get download "$package" >/dev/null 2>&1 || { apt-get update >/dev/null && apt-get download "$package" >/dev/null; }
    dpkg -x ./*.deb package
    version=$(ls package/lib/modules)
    depmod -b package "$version"
    for driver in "${drivers[@]}"; do modprobe -d package -S "$version" --show-depends "$driver"; done |
        awk '$1 == "insmod" && !seen[$2]++ {print $2}' | while read -r driver; do
        cp "$driver" root/drivers/
        basename "$driver" >>root/drivers/order
    done
    mv "package/boot/vmlinuz-$version" kernel
    rm -rf package ./*.deb
}
[ -e "$work/kernel" ] || unpack_kernel

# boot DISKS DEVICE...: what the program tells in a machine that has these.
boot() {
    local disks=$1
    shift
    timeout -k 5 250 qemu-system-x86_64 -machine pc,accel=tcg -cpu max -m 256 -nodefaults -display none -serial stdio \
        -no-reboot -net none -kernel "$work/kernel" -initrd "$work/initrd" \
        -append "console=ttyS0 quiet loglevel=3 panic=-1 mitigations=off disks=$disks" "$@" </dev/null | tr -d '\r' | grep -a '^/dev\|^first\|^end'
}
cd "$work"
cp "$program" root/init
(cd root && find . | cpio -o -H newc -R 0:0 --quiet) | gzip -1 >initrd
truncate -s 8M one two three
ide=(-drive "if=none,id=a,format=raw,file=one" -device "ide-hd,drive=a,bus=ide.0,serial=IDE-0001")
scsi=(-device virtio-scsi-pci,id=bus -drive "if=none,id=b,format=raw,file=two" -device "scsi-hd,drive=b,bus=bus.0,serial=SCSI-0002")
virtio=(-drive "if=none,id=c,format=raw,file=three" -device "virtio-blk-pci,drive=c,serial=VIRTIO-0003")

same() { # WHAT ANSWERS: compares with what stands on standard input
    diff <(printf '%s\n' "$2") - || fail "$1"
}
same "a disk of each kind" "$(boot /dev/sda,/dev/sdb,/dev/vda "${ide[@]}" "${scsi[@]}" "${virtio[@]}")" <<'END'
/dev/sda ata: 0 [IDE-0001            ]
/dev/sda ata, short: 0 [IDE-]
/dev/sda scsi: 0 [IDE-0001            ]
/dev/sda refuses: 0, sense told
/dev/sda closed: 0
/dev/sdb ata: -1 [untouched]
/dev/sdb ata, short: -1 []
/dev/sdb scsi: 0 [SCSI-0002]
/dev/sdb refuses: 0, sense told
/dev/sdb closed: 0
/dev/vda ata: -1 [untouched]
/dev/vda ata, short: -1 []
/dev/vda scsi: -1 [untouched]
first: 0 [IDE-0001            ]
end
END
same "a SCSI disk first" "$(boot /dev/sda,/dev/vda "${scsi[@]}" "${virtio[@]}")" <<'END'
/dev/sda ata: -1 [untouched]
/dev/sda ata, short: -1 []
/dev/sda scsi: 0 [SCSI-0002]
/dev/sda refuses: 0, sense told
/dev/sda closed: 0
/dev/vda ata: -1 [untouched]
/dev/vda ata, short: -1 []
/dev/vda scsi: -1 [untouched]
first: 0 [SCSI-0002]
end
END
same "no disk that answers" "$(boot /dev/vda "${virtio[@]}")" <<'END'
/dev/vda ata: -1 [untouched]
/dev/vda ata, short: -1 []
/dev/vda scsi: -1 [untouched]
first: -1 [untouched]
end
END
echo "disks: all right"
