#!/usr/bin/python3
"""Disk images for the raw disk tests (make <dir>: sparse files, tables by
sfdisk; disks.txt and writes.txt describe them) and the check of the new
tables the Wine test writes into copies (check <dir> <out>: sfdisk --json and
--dump, and this script's own reading of the GPT with its CRC-32s).
"""
import json
import os
import shutil
import struct
import subprocess
import sys
import uuid
import zlib

MiB = 1 << 20
TiB = 1 << 40

# name, size, sfdisk script (None: raw zeroes)
DISKS = [
    ("mbr_a", 64 * MiB, "label: dos\nlabel-id: 0x1234abcd\n,16MiB,L\n"),
    ("mbr_b", 32 * MiB, "label: dos\nlabel-id: 0xdeadbeef\n,8MiB,7\n,8MiB,L\n"),
    ("gpt_a", 48 * MiB, "label: gpt\nlabel-id: 6F1A2B3C-4D5E-4F60-8A7B-9C0D1E2F3A4B\n,16MiB,L\n"),
    ("raw", 16 * MiB, None),
    ("exact2t", 2 * TiB, None),
    ("over2t", 2 * TiB + 512, None),
    ("short", 100, None),
]

# name, source disk, sector size, style (1 MBR, 2 GPT), signature, GUID; new
# tables on raw disks of 512-byte sectors are written by cloud_disk_test.
WRITES = [
    ("gpt_over_mbr", "mbr_b", 512, 2, 0, "A1B2C3D4-E5F6-4A7B-8C9D-0E1F2A3B4C5D"),
    ("mbr_over_gpt", "gpt_a", 512, 1, 0x0BADF00D, ""),
    ("new_gpt_4k", "raw", 4096, 2, 0, "FEEDFACE-0123-4567-89AB-CDEF01234567"),
]
# Raw disks located and given a table by GetDiskPathforCloudDisk (cloud_disk_test).
CLOUD_WRITES = [
    ("cloud_mbr", "raw", 512, 1, 0x5EED0101, ""),
    ("cloud_gpt", "raw", 512, 2, 0, "C10D0D15-1111-4222-8333-0000000C0DE5"),
]


def make(folder):
    os.makedirs(folder, exist_ok=True)
    lines = []
    for name, size, script in DISKS:
        path = os.path.join(folder, name + ".img")
        with open(path, "wb") as f:
            f.truncate(size)  # sparse
        if script:
            subprocess.run(["sfdisk", "-q", "--no-reread", "--no-tell-kernel", path], input=script.encode(),
                           check=True, stdout=subprocess.DEVNULL)
        at440 = 0
        if size >= 512:
            with open(path, "rb") as f:
                f.seek(440)
                at440 = struct.unpack("<I", f.read(4))[0]
        if script and "label: dos" in script:
            wanted = int(script.split("label-id: ")[1].split("\n")[0], 16)
            assert at440 == wanted, (name, hex(at440))
        lines.append("%s|%s.img|%d|512|%u" % (name, name, size, at440))
    with open(os.path.join(folder, "disks.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")
    with open(os.path.join(folder, "writes.txt"), "w") as f:
        for w in WRITES:
            f.write("%s|%s.img|%d|%d|%u|%s\n" % w)


def crc(data):
    return zlib.crc32(data) & 0xFFFFFFFF


def read_gpt_header(image, lba, sector):
    image.seek(lba * sector)
    raw = image.read(92)
    (sig, rev, hsize, hcrc, _, my, alt, first, last, guid, entries_lba, count, esize,
     ecrc) = struct.unpack("<8sIIIIQQQQ16sQIII", raw)
    assert sig == b"EFI PART", "no GPT header at LBA %d" % lba
    assert hsize == 92 and rev == 0x00010000
    assert crc(raw[:16] + b"\0\0\0\0" + raw[20:92]) == hcrc, "header CRC at LBA %d" % lba
    assert my == lba
    image.seek(entries_lba * sector)
    array = image.read(count * esize)
    assert crc(array) == ecrc, "entry array CRC of header at LBA %d" % lba
    assert array == b"\0" * len(array), "a new table has no partitions"
    return dict(alt=alt, first=first, last=last, guid=str(uuid.UUID(bytes_le=guid)).upper(), entries=entries_lba,
                count=count, esize=esize, ecrc=ecrc)


def check_gpt(path, sector, guid):
    size = os.path.getsize(path)
    last_lba = size // sector - 1
    with open(path, "rb") as image:
        mbr = image.read(512)
        assert mbr[510:512] == b"\x55\xaa"
        status, ptype, start, count = mbr[446], mbr[450], *struct.unpack("<II", mbr[454:462])
        assert ptype == 0xEE and start == 1 and count == min(last_lba, 0xFFFFFFFF), "protective MBR"
        assert mbr[462:510] == b"\0" * 48
        primary = read_gpt_header(image, 1, sector)
        backup = read_gpt_header(image, last_lba, sector)
    array_sectors = (128 * 128 + sector - 1) // sector
    assert primary["alt"] == last_lba and backup["alt"] == 1
    assert primary["entries"] == 2 and backup["entries"] == last_lba - array_sectors
    assert primary["first"] == backup["first"] == 2 + array_sectors
    assert primary["last"] == backup["last"] == last_lba - 1 - array_sectors
    assert primary["count"] == 128 and primary["esize"] == 128 and primary["ecrc"] == backup["ecrc"]
    assert primary["guid"] == backup["guid"] == guid, (primary["guid"], guid)


def check_mbr(path, signature):
    with open(path, "rb") as image:
        mbr = image.read(512)
        head = image.read(512)
        image.seek(-512, os.SEEK_END)
        tail = image.read(512)
    assert struct.unpack("<I", mbr[440:444])[0] == signature
    assert mbr[446:510] == b"\0" * 64 and mbr[510:512] == b"\x55\xaa"
    # A GPT the disk had before is gone, or tools would still find it.
    assert not head.startswith(b"EFI PART") and not tail.startswith(b"EFI PART")


def sfdisk_table(path):
    out = subprocess.run(["sfdisk", "--json", path], check=True, capture_output=True, text=True).stdout
    return json.loads(out)["partitiontable"]


def check(folder, out):
    failures = 0
    for name, _, sector, style, signature, guid in WRITES + CLOUD_WRITES:
        path = os.path.join(out, name + ".img")
        try:
            if style == 1:
                check_mbr(path, signature)
            else:
                check_gpt(path, sector, guid)
            if sector == 512:  # sfdisk reads images as 512-byte sectors only
                table = sfdisk_table(path)
                assert table.get("partitions", []) == [], table
                if style == 1:
                    assert table["label"] == "dos" and int(table["id"], 16) == signature, table
                else:
                    assert table["label"] == "gpt" and table["id"].upper() == guid, table
            print("ok   %s" % name)
        except (AssertionError, OSError, subprocess.CalledProcessError, KeyError, ValueError) as e:
            failures += 1
            print("FAIL %s: %r" % (name, e))
    return 1 if failures else 0


if __name__ == "__main__":
    if sys.argv[1] == "make":
        shutil.rmtree(sys.argv[2], ignore_errors=True)
        make(sys.argv[2])
    else:
        sys.exit(check(sys.argv[2], sys.argv[3]))
