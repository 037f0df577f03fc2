#!/usr/bin/python3
"""Disk images for the geometry repair tests, and the check of what the
library left in them.

  chs_images.py make OUT        partition tables by sfdisk, NTFS boot sectors by
                                mkntfs, packed as VHD and VHDX by qemu-img;
                                OUT/expect.txt lists the cases for the Wine test
                                with what each must change. Disks of 4096-byte
                                sectors, which neither sfdisk (on a file) nor
                                qemu-img makes, are given as their first 2 MiB
                                (MBR written here, boot sector by mkntfs): the
                                Wine test makes the VHDX through the library and
                                leaves a copy in RES/before
  chs_images.py check OUT RES   RES holds the images after the repair; each is read
                                back by qemu-img (libvhdi for 4096-byte sectors,
                                which qemu-img does not open) and compared with
                                the bytes the rules below give from the image as
                                it was made; VHDX results must pass qemu-img check

The rules here are written from the description of the repair, not from the
library's code: they are the oracle.
"""
import json
import os
import struct
import subprocess
import sys

MIB = 1 << 20
# Geometry fields of an NTFS boot sector.
SPT_AT, HEADS_AT, HIDDEN_AT = 0x18, 0x1A, 0x1C
ENTRIES_AT = 0x1BE

# name, container, disk sectors, partitions (start, size, active), boot
# sector geometry given to mkntfs (heads, sectors per track, hidden sectors)
# and the qemu-img options.
CASES = [
    # The 128/255 heads boundary: exactly 1024 x 128 x 63 sectors, and one more.
    ("vhdx-128", "vhdx", 8257536, [(2048, 16384, True), (20480, 8192, False)], (16, 32, 63), []),
    ("vhdx-255", "vhdx", 8257537, [(2048, 16384, True), (20480, 8192, False)], (16, 32, 63), []),
    ("vhd-128", "vhd", 8257536, [(2048, 16384, True), (20480, 8192, False)], (16, 32, 63), ["subformat=dynamic"]),
    # Kept at its exact size: qemu-img then writes the largest geometry
    # (65535/16/255) into the footer, whose 255 sectors per track do not fit
    # the entry's six bits.
    ("vhd-255", "vhd", 8257537, [(2048, 16384, True), (20480, 8192, False)], (16, 32, 63),
     ["subformat=dynamic", "force_size=on"]),
    # The active entry starts beyond 1024 x 255 x 63 sectors; a second,
    # inactive entry comes first.
    ("vhdx-start-beyond", "vhdx", 16450560 + 32768, [(2048, 8192, False), (16450560 + 2048, 16384, True)],
     (255, 63, 2048), []),
    # The active entry starts below that maximum and ends past it.
    ("vhdx-end-beyond", "vhdx", 16450560 + 16384, [(16450560 - 8192, 16384, True)], (240, 63, 16450560 - 8192), []),
    # A VHD past the largest geometry its footer holds (65535/16/255): one
    # active entry across that end, and one beyond it.
    ("vhd-end-beyond", "vhd", 1 << 28, [(267386400 - 8192, 16384, True)], (64, 32, 2048), ["subformat=dynamic"]),
    ("vhd-start-beyond", "vhd", 1 << 28, [(2048, 8192, False), (267386400 + 2048, 16384, True)], (16, 32, 63),
     ["subformat=dynamic"]),
    # No active entry: nothing changes.
    ("vhdx-no-active", "vhdx", 131072, [(2048, 16384, False), (20480, 8192, False)], (16, 32, 63), []),
    ("vhd-no-active", "vhd", 131072, [(2048, 16384, False)], (16, 32, 63), ["subformat=dynamic"]),
    # Boot sector already right: VHDX leaves the MBR alone, VHD rewrites it.
    ("vhdx-right", "vhdx", 131072, [(2048, 16384, True)], (128, 63, 2048), []),
    ("vhd-right", "vhd", 131072, [(2048, 16384, True)], (128, 63, 2048), ["subformat=dynamic"]),
    # Right but for the hidden sectors: VHDX fixes them, VHD changes nothing.
    ("vhdx-hidden", "vhdx", 131072, [(2048, 16384, True)], (128, 63, 63), []),
    ("vhd-hidden", "vhd", 131072, [(2048, 16384, True)], (128, 63, 63), ["subformat=fixed"]),
]


# Disks of 4096-byte sectors: name, disk sectors, the active entry (start,
# size) in those sectors, boot sector geometry. The volume starts at 1 MiB.
CASES_4K = [
    ("vhdx4k-128", 8257536, (256, 4096), (16, 32, 63)),
    ("vhdx4k-255", 8257537, (256, 4096), (16, 32, 63)),
]


def run(*cmd, **kw):
    return subprocess.run(cmd, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **kw)


def make_raw(path, sectors, parts, boot):
    with open(path, "wb") as f:
        f.truncate(sectors * 512)
    script = "label: dos\nlabel-id: 0x4b584841\nunit: sectors\n"
    for start, size, active in parts:
        script += "start=%d, size=%d, type=7%s\n" % (start, size, ", bootable" if active else "")
    run("sfdisk", "-q", "--no-reread", "--no-tell-kernel", path, input=script.encode())
    heads, spt, hidden = boot
    vol = path + ".part"
    for start, size, _ in parts:
        with open(vol, "wb") as f:
            f.truncate(size * 512)
        run("mkntfs", "-F", "-Q", "-T", "-q", "-s", "512", "-p", str(hidden), "-H", str(heads), "-S", str(spt), vol)
        with open(vol, "rb") as src, open(path, "r+b") as dst:
            # The boot sector and what follows it in the first MiB of the
            # volume (the rest is the file system's, untouched by the repair).
            dst.seek(start * 512)
            dst.write(src.read(min(size * 512, MIB)))
    os.remove(vol)


def make_head_4k(path, parts, boot):
    """The first 2 MiB of a disk of 4096-byte sectors: an MBR with one
    active NTFS entry and, at 1 MiB, the volume's start as mkntfs makes it."""
    start, size = parts
    mbr = bytearray(4096)
    struct.pack_into("<I", mbr, 440, 0x4B584841)
    # CHS bytes as a 255/63 partitioner would leave them; the repair replaces them.
    struct.pack_into("<B3sB3sII", mbr, ENTRIES_AT, 0x80, b"\xfe\xff\xff", 7, b"\xfe\xff\xff", start, size)
    mbr[510:512] = b"\x55\xaa"
    heads, spt, hidden = boot
    vol = path + ".part"
    with open(vol, "wb") as f:
        f.truncate(size * 4096)
    run("mkntfs", "-F", "-Q", "-T", "-q", "-s", "4096", "-p", str(hidden), "-H", str(heads), "-S", str(spt), vol)
    with open(vol, "rb") as src, open(path, "wb") as dst:
        dst.write(bytes(mbr) + bytes(MIB - 4096) + src.read(MIB))
    os.remove(vol)


def read_slice(image, fmt, offset, length, sector_size=512):
    """`length` bytes at `offset` of the disk in `image`, read by qemu-img, or
    by libvhdi for disks of 4096-byte sectors (qemu-img opens only 512)."""
    if sector_size != 512:
        import pyvhdi
        f = pyvhdi.file()
        f.open(image)
        try:
            return f.read_buffer_at_offset(length, offset)
        finally:
            f.close()
    out = image + ".slice"
    # qemu-img dd counts the skipped blocks in `count` too.
    run("qemu-img", "dd", "-f", fmt, "-O", "raw", "bs=512", "skip=%d" % (offset // 512),
        "count=%d" % ((offset + length) // 512), "if=" + image, "of=" + out)
    with open(out, "rb") as f:
        data = f.read()
    os.remove(out)
    return data


def qemu_fmt(container):
    return "vpc" if container == "vhd" else "vhdx"


def active_offset(parts):
    for start, _, active in parts:
        if active:
            return start * 512
    return parts[0][0] * 512


def cmd_make(out):
    os.makedirs(out, exist_ok=True)
    lines = []
    for name, container, sectors, parts, boot, opts in CASES:
        raw = os.path.join(out, name + ".raw")
        make_raw(raw, sectors, parts, boot)
        image = os.path.join(out, name + "." + container)
        if os.path.exists(image):
            os.remove(image)
        cmd = ["qemu-img", "convert", "-f", "raw", "-O", qemu_fmt(container)]
        if opts:
            cmd += ["-o", ",".join(opts)]
        run(*cmd, raw, image)
        os.remove(raw)
        lines.append("%s|%s.%s|%d|512|0|" % (name, name, container, active_offset(parts)))
    for name, sectors, parts, boot in CASES_4K:
        make_head_4k(os.path.join(out, name + ".head"), parts, boot)
        lines.append("%s|%s.vhdx|%d|4096|%d|%s.head" % (name, name, MIB, sectors * 4096, name))
    with open(os.path.join(out, "manifest.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")


def cases(made):
    """(name, file, volume offset, bytes per sector, disk size or 0, head file) per case."""
    for line in open(os.path.join(made, "manifest.txt")):
        name, file, offset, bps, size, head = line.strip().split("|")
        yield name, file, int(offset), int(bps), int(size), head


# ---- the oracle ----------------------------------------------------------------

def target_heads(size, bps):
    return 128 if 0 < size <= bps * 0x7E0000 else 255


def chs_of(lba, cyls, heads, spt):
    return (lba // (heads * spt), (lba // spt) % heads, lba % spt + 1)


def pack(c, h, s):
    return bytes([h & 0xFF, (s & 0x3F) | (((c >> 8) & 3) << 6), c & 0xFF])


def expected_mbr(mbr, geometry):
    """The MBR sector after the update with `geometry`, or None without an active entry."""
    cyls, heads, spt = geometry
    for i in range(4):
        at = ENTRIES_AT + 16 * i
        if mbr[at] != 0x80:
            continue
        first, count = struct.unpack_from("<II", mbr, at + 8)
        top = cyls * heads * spt
        last = (cyls - 1, heads - 1, spt)
        if first > top:
            start = end = last
        elif first + count > top:
            start, end = chs_of(first, cyls, heads, spt), last
        else:
            # The end address is that of the sector just past the partition.
            start, end = chs_of(first, cyls, heads, spt), chs_of(first + count, cyls, heads, spt)
        new = bytearray(mbr)
        new[at + 1:at + 4] = pack(*start)
        new[at + 5:at + 8] = pack(*end)
        return bytes(new)
    return None


def expected(container, size, bps, vhd_geometry, offset, mbr, boot):
    """(new MBR or None, new boot sector or None) after the repair."""
    if expected_mbr(mbr, (1024, 255, 63)) is None:
        return None, None
    heads = target_heads(size, bps)
    spt0, heads0, hidden0 = struct.unpack_from("<HHI", boot, SPT_AT)
    hidden = offset // bps
    new = bytearray(boot)
    if container == "vhdx":
        if spt0 == 63 and heads0 == heads and hidden0 == hidden:
            return None, None
        struct.pack_into("<HH", new, SPT_AT, 63, heads)
        if hidden < 0xFFFFFFFF:
            struct.pack_into("<I", new, HIDDEN_AT, hidden)
        return expected_mbr(mbr, (1024, heads, 63)), bytes(new)
    # VHD: a boot sector wrong only in its hidden sectors is left as it is,
    # and the MBR follows the disk's own geometry.
    if spt0 == 63 and heads0 == heads and hidden0 != hidden:
        return None, None
    struct.pack_into("<HHI", new, SPT_AT, 63, heads, hidden)
    return expected_mbr(mbr, vhd_geometry), bytes(new)


def disk_facts(image, container, sector_size=512):
    if container == "vhdx" and sector_size != 512:
        import pyvhdi
        f = pyvhdi.file()
        f.open(image)
        size, bps = f.get_media_size(), f.get_bytes_per_sector()
        f.close()
        assert bps == sector_size, (image, bps)
        return size, None
    if container == "vhdx":
        info = json.loads(run("qemu-img", "info", "--output=json", "-f", "vhdx", image).stdout)
        return info["virtual-size"], None
    # The footer's size and geometry, read straight from the file's last sector.
    with open(image, "rb") as f:
        f.seek(-512, os.SEEK_END)
        footer = f.read(512)
    assert footer[:8] == b"conectix", image
    size, c, h, s = struct.unpack_from(">QHBB", footer, 48)
    return size, (c, h, s)


def cmd_check(made, results):
    failures = 0
    checked = 0
    for name, file, offset, bps, size, head in cases(made):
        container = file.rsplit(".", 1)[1]
        after_image = os.path.join(results, file)
        # Disks the library made: the Wine test left them as made in RES/before.
        before_image = os.path.join(results, "before", file) if head else os.path.join(made, file)
        if not os.path.exists(after_image) or not os.path.exists(before_image):
            print("%s: no result image" % name)
            failures += 1
            continue
        disk_size, geometry = disk_facts(before_image, container, bps)
        if size and disk_size != size:
            print("%s: the library made a disk of %d bytes, not %d" % (name, disk_size, size))
            failures += 1
        fmt = qemu_fmt(container)
        head0 = read_slice(before_image, fmt, 0, MIB, bps)
        vol0 = read_slice(before_image, fmt, offset, MIB, bps)
        head1 = read_slice(after_image, fmt, 0, MIB, bps)
        vol1 = read_slice(after_image, fmt, offset, MIB, bps)
        mbr, boot = expected(container, disk_size, bps, geometry, offset, head0[:bps], vol0[:512])
        want_head = bytearray(head0)
        want_vol = bytearray(vol0)
        if boot is not None:
            want_vol[:512] = boot
            if offset < MIB:
                want_head[offset:offset + 512] = boot
        if mbr is not None:
            want_head[:bps] = mbr
        for what, got, want in (("first MiB", head1, want_head), ("volume's first MiB", vol1, want_vol)):
            if got != bytes(want):
                diff = [i for i in range(len(want)) if got[i] != want[i]]
                print("%s: %s differs at %d byte(s), first at %#x: got %s want %s" %
                      (name, what, len(diff), diff[0], got[diff[0]:diff[0] + 8].hex(), bytes(want[diff[0]:diff[0] + 8]).hex()))
                failures += 1
        if container == "vhdx" and bps == 512:
            r = subprocess.run(["qemu-img", "check", "-f", "vhdx", after_image], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
            if r.returncode != 0:
                print("%s: qemu-img check: %s" % (name, r.stdout.decode(errors="replace")))
                failures += 1
        checked += 1
    print("%d image(s) checked, %d failure(s)" % (checked, failures))
    return 1 if failures or checked == 0 else 0


def cmd_expect(made):
    """Per case: whether the repair changes the MBR and the boot sector."""
    lines = []
    for name, file, offset, bps, size, head_file in cases(made):
        container = file.rsplit(".", 1)[1]
        if head_file:
            with open(os.path.join(made, head_file), "rb") as f:
                data = f.read()
            head, vol, geometry = data[:bps], data[offset:offset + 512], None
        else:
            image = os.path.join(made, file)
            size, geometry = disk_facts(image, container)
            fmt = qemu_fmt(container)
            head = read_slice(image, fmt, 0, 512)
            vol = read_slice(image, fmt, offset, 512)
        mbr, boot = expected(container, size, bps, geometry, offset, head, vol)
        found = expected_mbr(head, (1024, 255, 63)) is not None
        lines.append("%s|%s|%d|%d|%d|%d|%d|%d|%s" % (name, file, offset, found, mbr is not None,
                                                     boot is not None and boot != vol, bps, size, head_file))
    with open(os.path.join(made, "expect.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    if sys.argv[1] == "make":
        cmd_make(sys.argv[2])
        cmd_expect(sys.argv[2])
    elif sys.argv[1] == "check":
        sys.exit(cmd_check(sys.argv[2], sys.argv[3]))
    else:
        sys.exit("usage: chs_images.py make OUT | check OUT RESULTS")
